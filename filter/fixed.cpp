// kuvFixedFilter: eleven kernels known by number, applied as they stand
// (not reversed), each as a short fixed sequence of row operations.
//
// Every kernel here is a row stage and a column stage. The row stage turns
// each source row into one to three product rows (a weighted sum of the
// row's taps, `channels` samples apart); a ring keeps the last `size` of
// them, and the column stage weighs the ring's product rows into one output
// row. Three classes of arithmetic share this shape:
//   integer: 8- and 16-bit samples, all ids but Gauss 5, exact integers
//            (16-bit lanes for 8-bit samples, where every sum fits them);
//            signed samples are biased to unsigned, which cancels in the
//            kernels of weight sum 0 and comes off at the store of the
//            others; results are rounded (ties to even) and saturated.
//   float:   32S and 32F, and Gauss 5 at 8 and 16 bits; each stage sums in
//            double precision and is rounded to single at its end.
//   bit:     1U; sums of bits against a threshold.
// Highpass 5 keeps running box sums; in floats their rounding errors run on
// along a row and down a block, as the kernel's definition has it.
#include "filter/nlf_rows.h"
#include "filter/rowconv.h"

#include <limits>
#include <source_location>
#include <type_traits>
#include <utility>

namespace {

using namespace kuv::nlf;
using kuv::rowconv::Element;
using kuv::rowconv::toPixel;

constexpr const char* kFile = ownNlfFile;

// ------------------------------------------------------------------ kernels

// A kernel as row and column stages. Weights of taps and rows beyond `size`
// and of absent products are 0.
struct FixedSpec {
    int size;
    int products;
    int row[3][5];       // product k of a source row: sum of row[k][t] * x[i + t * c]
    int column[5][3];    // output: sum of column[r][k] * product k of window row r
    int shift;           // divisor 2^shift with ties to even (0: divisor 1)
    int threshold;       // bit images: set where the sum exceeds it
    bool running;        // highpass 5: running box sums
    bool gauss5;         // row weights divided by 571 in the float class
};

constexpr FixedSpec kSpecs[11] = {
    // 0 Prewitt X: left minus right, summed down
    {3, 1, {{1, 0, -1}}, {{1}, {1}, {1}}, 0, 0, false, false},
    // 1 Prewitt Y: below minus above
    {3, 1, {{1, 1, 1}}, {{-1}, {0}, {1}}, 0, 0, false, false},
    // 2 Sobel X
    {3, 1, {{1, 0, -1}}, {{1}, {2}, {1}}, 0, 0, false, false},
    // 3 Sobel Y
    {3, 1, {{1, 2, 1}}, {{-1}, {0}, {1}}, 0, 0, false, false},
    // 4 Laplace 3: the centre times 9 less the box of nine
    {3, 2, {{1, 1, 1}, {0, 9, 0}}, {{-1, 0}, {-1, 1}, {-1, 0}}, 0, 0, false, false},
    // 5 Laplace 5: rows A B C B A
    {5, 3, {{-1, -3, -4, -3, -1}, {-3, 0, 6, 0, -3}, {-4, 6, 20, 6, -4}},
     {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 1, 0}, {1, 0, 0}}, 0, 0, false, false},
    // 6 Gauss 3, divisor 16
    {3, 1, {{1, 2, 1}}, {{1}, {2}, {1}}, 4, 7, false, false},
    // 7 Gauss 5, divisor 571 (folded into the float weights)
    {5, 3, {{2, 7, 12, 7, 2}, {7, 31, 52, 31, 7}, {12, 52, 127, 52, 12}},
     {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 1, 0}, {1, 0, 0}}, 0, 285, false, true},
    // 8 Highpass 3: the same as Laplace 3
    {3, 2, {{1, 1, 1}, {0, 9, 0}}, {{-1, 0}, {-1, 1}, {-1, 0}}, 0, 0, false, false},
    // 9 Highpass 5: the centre times 25 less the running box of 25
    {5, 2, {{1, 1, 1, 1, 1}, {0, 0, 25, 0, 0}}, {{0, 0}, {0, 0}, {0, 1}, {0, 0}, {0, 0}}, 0, 0,
     true, false},
    // 10 Sharpen 3, divisor 8: the centre times 17 less the box of nine
    {3, 2, {{1, 1, 1}, {0, 17, 0}}, {{-1, 0}, {-1, 1}, {-1, 0}}, 3, 0, false, false},
};

// The weight of tap t of product k in arithmetic A: Gauss 5 in floats is the
// weight divided by 571 and kept as a float constant.
template <const FixedSpec& F, int K, int T, class A>
constexpr A rowWeight() {
    if constexpr (F.gauss5 && std::is_floating_point_v<A>) {
        return static_cast<A>(static_cast<float>(F.row[K][T]) / 571.0f);
    } else {
        return static_cast<A>(F.row[K][T]);
    }
}

// ------------------------------------------------------------------ classes

// How samples enter and leave a class. W: the rows' type, A: arithmetic
// within a stage.
template <class T>
struct IntegerClass {
    using W = std::conditional_t<sizeof(T) == 1, int16_t, int32_t>;
    using A = int32_t;
    static constexpr int32_t bias = std::is_signed_v<T> ? (sizeof(T) == 1 ? 128 : 32768) : 0;
    static W load(T v) { return static_cast<W>(v + bias); }
};

template <class T>
struct FloatClass {
    using W = float;
    using A = double;
    static W load(T v) { return static_cast<float>(v); }
};

// Bits arrive as 0 and 1 in a row of W already.
struct BitClass {
    using W = int16_t;
    using A = int32_t;
    static W load(W v) { return v; }
};

// The store of a column-stage result v into element type T.
template <const FixedSpec& F, class T, class C>
[[gnu::always_inline]] inline T finish(typename C::W v) {
    using Limits = std::numeric_limits<T>;
    if constexpr (std::is_same_v<C, FloatClass<T>> && sizeof(T) == 4) {
        float f = v;
        if constexpr (F.shift == 4) f *= 0.0625f;
        if constexpr (F.shift == 3) f *= 0.125f;
        return toPixel<T>(f);
    } else if constexpr (std::is_same_v<C, FloatClass<T>>) {
        // Gauss 5 at 8 and 16 bits: its weights sum to 1, so |v| < 2^17 and
        // adding 1.5 * 2^23 rounds to nearest (ties to even) exactly; the
        // saturation then follows the float-to-pixel table. Written with
        // integer limits, as a float clamp keeps the loop from vectorising.
        constexpr float magic = 12582912.0f;
        int32_t q = static_cast<int32_t>(v + magic) - static_cast<int32_t>(magic);
        q = q < Limits::min() ? Limits::min() : q;
        q = q > Limits::max() ? Limits::max() : q;
        return static_cast<T>(q);
    } else {
        int32_t q = v;
        if constexpr (F.shift > 0) {
            // v / 2^shift rounded to nearest, ties to even, less the bias
            q = ((q + ((q >> F.shift) & 1) + (1 << (F.shift - 1)) - 1) >> F.shift) - C::bias;
        }
        q = q < Limits::min() ? Limits::min() : q;
        q = q > Limits::max() ? Limits::max() : q;
        return static_cast<T>(q);
    }
}

// ------------------------------------------------------------------ stages

template <const FixedSpec& F, int K>
constexpr bool mirrored() {
    for (int t = 0; t < F.size; ++t) {
        if (F.row[K][t] != F.row[K][F.size - 1 - t]) return false;
    }
    return true;
}

// Product K at sample i: the weighted taps summed in order in A, the first
// term starting the sum. With Mirror, a symmetric row adds its mirrored taps
// first; only rows that are exact in A in any order take it.
template <const FixedSpec& F, int K, class C, bool Mirror, class U, class Load>
[[gnu::always_inline]] inline typename C::A product(const U* __restrict s, Load load, int32_t i,
                                                    int32_t c) {
    using A = typename C::A;
    A sum{};
    bool started = false;
    auto add = [&](A term) __attribute__((always_inline)) {
        sum = started ? sum + term : term;
        started = true;
    };
    auto x = [&](int t) __attribute__((always_inline)) {
        return static_cast<A>(load(s[i + t * c]));
    };
    if constexpr (Mirror && mirrored<F, K>()) {
        [&]<int... T>(std::integer_sequence<int, T...>) __attribute__((always_inline)) {
            ((F.row[K][T] != 0 ? add(rowWeight<F, K, T, A>() *
                                     (2 * T == F.size - 1 ? x(T) : x(T) + x(F.size - 1 - T)))
                               : void()),
             ...);
        }(std::make_integer_sequence<int, (F.size + 1) / 2>());
    } else {
        [&]<int... T>(std::integer_sequence<int, T...>) __attribute__((always_inline)) {
            ((F.row[K][T] != 0 ? add(rowWeight<F, K, T, A>() * x(T)) : void()), ...);
        }(std::make_integer_sequence<int, F.size>());
    }
    return sum;
}

// Products First .. products - 1 of the row stage in one pass, so that each
// sample is loaded once for all of them.
template <const FixedSpec& F, int First, class C, bool Mirror, class U, class Load>
[[gnu::always_inline]] inline void rowProducts(const U* __restrict s, Load load,
                                               typename C::W* const* out, int32_t n, int32_t c) {
    using W = typename C::W;
    W* o[3] = {out[0], F.products > 1 ? out[1] : nullptr, F.products > 2 ? out[2] : nullptr};
    for (int32_t i = 0; i < n; ++i) {
        [&]<int... K>(std::integer_sequence<int, K...>) __attribute__((always_inline)) {
            ((o[First + K][i] = static_cast<W>(product<F, First + K, C, Mirror>(s, load, i, c))),
             ...);
        }(std::make_integer_sequence<int, F.products - First>());
    }
}

// The running box sum of five in single precision, per channel lane: the
// first sum in order, then each next one gains the entering sample and loses
// the leaving one. Integer rows take the plain sum, which is the same.
template <class C, class U, class Load>
[[gnu::always_inline]] inline void runningBox(const U* __restrict s, Load load,
                                              typename C::W* __restrict o, int32_t n, int32_t c) {
    using W = typename C::W;
    if constexpr (!std::is_floating_point_v<W>) {
        for (int32_t i = 0; i < n; ++i) {
            o[i] = static_cast<W>(load(s[i]) + load(s[i + c]) + load(s[i + 2 * c]) +
                                  load(s[i + 3 * c]) + load(s[i + 4 * c]));
        }
    } else {
        for (int32_t i = 0; i < n && i < c; ++i) {
            W v = static_cast<W>(load(s[i]));
            for (int t = 1; t < 5; ++t) v = v + static_cast<W>(load(s[i + t * c]));
            o[i] = v;
        }
        for (int32_t i = c; i < n; ++i) {
            const W gained = o[i - c] + static_cast<W>(load(s[i + 4 * c]));
            o[i] = gained - static_cast<W>(load(s[i - c]));
        }
    }
}

// The row stage of one source row of `loaded` samples. The float class
// turns the samples into floats once (32S rounds to 24 bits), held in
// double precision in `wide` for the sums.
template <const FixedSpec& F, class C, class S>
[[gnu::always_inline]] inline void rowStage(const S* s, typename C::A* wide,
                                            typename C::W* const* out, int32_t n, int32_t c,
                                            int32_t loaded) {
    using A = typename C::A;
    auto run = [&](const auto* u, auto load, auto mirror) __attribute__((always_inline)) {
        constexpr bool Mirror = decltype(mirror)::value;
        if constexpr (F.running) {
            runningBox<C>(u, load, out[0], n, c);
            rowProducts<F, 1, C, Mirror>(u, load, out, n, c);
        } else {
            rowProducts<F, 0, C, Mirror>(u, load, out, n, c);
        }
    };
    if constexpr (std::is_floating_point_v<A>) {
        if constexpr (sizeof(S) <= 2) {   // as floats they are exact: straight to double
            for (int32_t k = 0; k < loaded; ++k) wide[k] = static_cast<A>(s[k]);
        } else {
            for (int32_t k = 0; k < loaded; ++k) wide[k] = static_cast<A>(C::load(s[k]));
        }
        run(wide, [](A v) __attribute__((always_inline)) { return v; },
            std::bool_constant<(sizeof(S) <= 2)>());
    } else {
        run(s, [](S v) __attribute__((always_inline)) { return C::load(v); }, std::false_type());
    }
}

// Column stage into the sink: rows[r * products + k] is product k of window
// row r, top first. Highpass 5 keeps S, the running sum of the window's box
// rows: it gains the newest before the use and loses the oldest after it.
template <const FixedSpec& F, class C, class Sink>
[[gnu::always_inline]] inline void columnStage(const typename C::W* const* rows,
                                               typename C::W* __restrict state, int32_t n,
                                               Sink&& sink) {
    using A = typename C::A;
    using W = typename C::W;
    if constexpr (F.running) {
        const W* __restrict newest = rows[4 * 2];
        const W* __restrict oldest = rows[0];
        const W* __restrict centre = rows[2 * 2 + 1];
        for (int32_t i = 0; i < n; ++i) {
            const W s = static_cast<W>(state[i] + newest[i]);
            sink(i, static_cast<W>(centre[i] - s));
            state[i] = static_cast<W>(s - oldest[i]);
        }
    } else {
        constexpr int P = F.products;
        const W* r[F.size * P];
        for (int k = 0; k < F.size * P; ++k) r[k] = rows[k];
        for (int32_t i = 0; i < n; ++i) {
            A sum{};
            bool started = false;
            auto add = [&](A term) __attribute__((always_inline)) {
                sum = started ? sum + term : term;
                started = true;
            };
            [&]<int... J>(std::integer_sequence<int, J...>) __attribute__((always_inline)) {
                ((F.column[J / P][J % P] != 0
                      ? add(static_cast<A>(F.column[J / P][J % P]) * static_cast<A>(r[J][i]))
                      : void()),
                 ...);
            }(std::make_integer_sequence<int, F.size * P>());
            sink(i, static_cast<W>(sum));
        }
    }
}

// ------------------------------------------------------------------ workers

// T: element type of the image; C: the class (BitClass for 1U).
template <int Id, class T, class C>
[[gnu::always_inline]] inline bool fixedBody(const OwnNlfBlock& b) {
    using W = typename C::W;
    constexpr const FixedSpec& F = kSpecs[Id];
    constexpr int P = F.products;
    constexpr bool bits = std::is_same_v<C, BitClass>;
    const Lines l = linesOf(b);
    const bool masked = hasMask(b);
    const bool direct = !bits && !masked && l.store == 1;
    using A = typename C::A;
    constexpr bool floats = std::is_floating_point_v<A>;
    Scratch s(Scratch::pieceBytes<W>(l.n) * (F.size * P + 1) + Scratch::pieceBytes<W>(l.loaded) +
              (floats ? Scratch::pieceBytes<A>(l.loaded) : 0) + Scratch::pieceBytes<T>(l.n) +
              Scratch::pieceBytes<uint8_t>(l.n) * 2);
    if (!s.ok()) return false;
    W* ring[5 * 3];
    for (int k = 0; k < F.size * P; ++k) ring[k] = s.take<W>(l.n);
    W* state = s.take<W>(l.n);
    W* expanded = bits ? s.take<W>(l.loaded) : nullptr;
    A* wide = floats ? s.take<A>(l.loaded) : nullptr;
    T* res = s.take<T>(l.n);
    uint8_t* we = masked ? s.take<uint8_t>(l.n) : nullptr;

    for (int p = 0; p < l.planes; ++p) {
        if constexpr (F.running) std::memset(state, 0, sizeof(W) * static_cast<size_t>(l.n));
        for (int32_t r = 0; r < b.height + F.size - 1; ++r) {
            W* const* slot = ring + (r % F.size) * P;
            if constexpr (bits) {
                const auto* row =
                    reinterpret_cast<const uint8_t*>(b.src + (int64_t{b.srcY} + r) * b.srcStep);
                expandBits(row, b.srcX, l.loaded, expanded);
                rowStage<F, C>(expanded, wide, slot, l.n, l.channels, l.loaded);
            } else {
                rowStage<F, C>(sourceRow<T>(b, l, p, r), wide, slot, l.n, l.channels, l.loaded);
            }
            if (r + 1 < F.size) {
                if constexpr (F.running) {
                    for (int32_t i = 0; i < l.n; ++i) state[i] = static_cast<W>(state[i] + slot[0][i]);
                }
                continue;
            }
            const int32_t j = r + 1 - F.size;
            const W* rows[5 * 3];
            for (int t = 0; t < F.size; ++t) {
                for (int k = 0; k < P; ++k) rows[t * P + k] = ring[((j + t) % F.size) * P + k];
            }
            if (masked) maskRow(b, l, j, we);
            if constexpr (bits) {
                auto* out = reinterpret_cast<uint8_t*>(res);
                columnStage<F, C>(rows, state, l.n, [&](int32_t i, W v) __attribute__((always_inline)) {
                    out[i] = v > F.threshold ? 1 : 0;
                });
                storeBits(reinterpret_cast<uint8_t*>(b.dst + (int64_t{b.dstY} + j) * b.dstStep),
                          b.dstX, out, we, l.n);
            } else {
                T* dst = destinationRow<T>(b, l, p, j);
                T* __restrict out = direct ? dst : res;
                columnStage<F, C>(rows, state, l.n,
                                  [&](int32_t i, W v) __attribute__((always_inline)) { out[i] = finish<F, T, C>(v); });
                if (!direct) storeRow(dst, res, l, we);
            }
        }
    }
    return true;
}

template <int Id, class T, class C>
bool fixedBase(const OwnNlfBlock& b) {
    return fixedBody<Id, T, C>(b);
}
template <int Id, class T, class C>
KUV_NLF_AVX2 bool fixedAvx2(const OwnNlfBlock& b) {
    return fixedBody<Id, T, C>(b);
}
template <int Id, class T, class C>
KUV_NLF_AVX2_FMA bool fixedAvx2Fma(const OwnNlfBlock& b) {
    return fixedBody<Id, T, C>(b);
}

// Sums that are exact in any order: integers, bits, and floats from 8- and
// 16-bit samples (Gauss 5), whose products and sums all fit a double.
template <class T, class C>
constexpr bool exactSums = !std::is_same_v<C, FloatClass<T>> || sizeof(T) <= 2;

// ------------------------------------------------------------------ tables

// The class of a depth and id: Gauss 5 takes floats at 8 and 16 bits.
template <int Id, int D>
struct ClassOf {
    using T = typename Element<D>::T;
    using C = std::conditional_t<D == OWN_32S || D == OWN_32F || Id == KUV_FILTER_GAUSS_5,
                                 FloatClass<T>, IntegerClass<T>>;
};

template <int Id, int D>
constexpr OwnNlfWorker workerOf(bool vector) {
    if constexpr (D == OWN_1U) {
        if constexpr (Id == KUV_FILTER_SHARPEN_3) return nullptr;   // a copy, never a worker
        else return vector ? fixedAvx2Fma<Id, uint8_t, BitClass> : fixedBase<Id, uint8_t, BitClass>;
    } else {
        using T = typename ClassOf<Id, D>::T;
        using C = typename ClassOf<Id, D>::C;
        if (!vector) return fixedBase<Id, T, C>;
        if constexpr (exactSums<T, C>) return fixedAvx2Fma<Id, T, C>;
        else return fixedAvx2<Id, T, C>;
    }
}

// [path][id][depth index]
template <int... I>
constexpr auto makeTable(std::integer_sequence<int, I...>) {
    struct Table {
        OwnNlfWorker w[2][11][OWN_DEPTH_COUNT];
    } t{};
    ((t.w[0][I / OWN_DEPTH_COUNT][I % OWN_DEPTH_COUNT] =
          workerOf<I / OWN_DEPTH_COUNT, I % OWN_DEPTH_COUNT>(false),
      t.w[1][I / OWN_DEPTH_COUNT][I % OWN_DEPTH_COUNT] =
          workerOf<I / OWN_DEPTH_COUNT, I % OWN_DEPTH_COUNT>(true)),
     ...);
    return t;
}
constexpr auto kWorkers = makeTable(std::make_integer_sequence<int, 11 * OWN_DEPTH_COUNT>());

// ------------------------------------------------------------------ checks

constexpr const char* kFunc = "kuvFixedFilter";

bool refuse(bool failed, const char* text,
            std::source_location where = std::source_location::current()) {
    if (failed) kuvError(KUV_StsBadArgument, kFunc, text, kFile, static_cast<int32_t>(where.line()));
    return failed;
}

}  // namespace

bool ownFixedWorker(const OwnNlfBlock& b) {
    return kWorkers.w[ownNlfVectorPath() ? 1 : 0][b.request->filterId][b.depthIndex](b);
}

// What is reported and what is returned differ: every argument fault is
// reported as a bad argument, and the result names the fault.
KUV_API KuvStatus kuvFixedFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t filter) {
    if (kuvCheckImageHeader(srcImage) != 0 || kuvCheckImageHeader(dstImage) != 0) {
        kuvError(kuvGetErrStatus(), kFunc, "Incorrect Image", kFile, __LINE__);
        return kuvGetErrStatus();
    }
    if (refuse(srcImage == dstImage, "(srcImage==dstImage)")) return KUV_StsBadArgument;
    if (refuse(srcImage->depth != dstImage->depth, "srcImage->depth!=dstImage->depth")) {
        return KUV_StsBadDepth;
    }
    if (refuse(srcImage->nChannels != dstImage->nChannels,
               "srcImage->nChannels!=dstImage->nChannels")) {
        return KUV_StsBadChannels;
    }
    if (refuse(srcImage->alphaChannel != dstImage->alphaChannel,
               "srcImage->alphaChannel!=dstImage->alphaChannel")) {
        return KUV_StsBadAlphaChannel;
    }
    if (refuse(srcImage->depth != KUV_DEPTH_1U && srcImage->dataOrder != dstImage->dataOrder,
               "srcImage->dataOrder!=dstImage->dataOrder")) {
        return KUV_StsBacktrace;
    }
    const int32_t channels = ownNlfCountChannels(srcImage, dstImage, kFunc);
    if (kuvGetErrStatus() < 0) return kuvGetErrStatus();
    if (channels == 0) return 0;
    if (refuse(filter < 0 || filter > KUV_FILTER_SHARPEN_3, "Unknow filter.")) {
        return kuvGetErrStatus();
    }
    if (filter == KUV_FILTER_SHARPEN_3 && srcImage->depth == KUV_DEPTH_1U) {
        kuvCopy(srcImage, dstImage);
        return 0;
    }
    const int32_t size = kSpecs[filter].size;
    const OwnNlfRequest request{size, size, size / 2, size / 2, OWN_NLF_FIXED, filter};
    ownNlfDriver(srcImage, dstImage, request, ownFixedWorker, true);
    return 0;
}
