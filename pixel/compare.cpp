// Comparison: one or two images into a bit image whose bit is set where the
// compare holds for every compared channel of the pixel. Eleven operations,
// one frame: the checks differ by form, the work is one row loop per depth
// over a compare functor.
//
// A row is done in chunks: the compare of each channel is and-ed into a byte
// flag per pixel (a plain loop, which the compiler turns into vector
// compares), then the flags are packed eight to a byte and merged into the
// result under the mask. Each worker exists twice, built for the baseline
// and for AVX2; the AVX2 one packs thirty-two flags with one movemask and is
// taken where the processor has it.
#include "core/platform.h"
#include "kuv_own.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif


namespace kuv {
namespace {

constexpr const char* compFile = "kuvComp";

// The constant operands of a call: the scalar of an S or SFP form, and eps.
struct Constant {
    int32_t i;
    float f;
    float eps;
};

// ------------------------------------------------------------------ compares

// Float compares answer as the flags of an unordered float compare do: a NaN
// counts as less and as equal, never as greater.
//
// Where the wide workers can use it, a compare also has a vector form over
// thirty-two 8-bit elements, all ones where it holds. An unsigned byte is
// below another exactly when the saturating difference the other way is
// not zero.
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define KUV_COMPARE_AVX2 1
#define KUV_AVX2 __attribute__((target("avx2")))
#else
#define KUV_COMPARE_AVX2 0
#endif

struct Less {
    explicit Less(const Constant&) {}
    template <class V>
    bool operator()(V a, V b) const { return !(a >= b); }
#if KUV_COMPARE_AVX2
    template <class T>
    KUV_AVX2 static __m256i bytes(__m256i a, __m256i b) {
        if constexpr (std::is_signed_v<T>) return _mm256_cmpgt_epi8(b, a);
        const __m256i none = _mm256_cmpeq_epi8(_mm256_subs_epu8(b, a), _mm256_setzero_si256());
        return _mm256_xor_si256(none, _mm256_set1_epi8(-1));
    }
#endif
};

struct Greater {
    explicit Greater(const Constant&) {}
    template <class V>
    bool operator()(V a, V b) const { return a > b; }
#if KUV_COMPARE_AVX2
    template <class T>
    KUV_AVX2 static __m256i bytes(__m256i a, __m256i b) { return Less::bytes<T>(b, a); }
#endif
};

struct Equal {
    explicit Equal(const Constant&) {}
    template <class V>
    bool operator()(V a, V b) const {
        if constexpr (std::is_floating_point_v<V>) return !(a < b) && !(a > b);
        else return a == b;
    }
#if KUV_COMPARE_AVX2
    template <class T>
    KUV_AVX2 static __m256i bytes(__m256i a, __m256i b) { return _mm256_cmpeq_epi8(a, b); }
#endif
};

// |a - b| < eps with the difference in extended precision, where two floats
// of any exponents differ without rounding to zero; a NaN difference (a NaN,
// or equal infinities) counts as equal.
struct NearEqual {
    long double eps;
    explicit NearEqual(const Constant& k) : eps(k.eps) {}
    bool operator()(float a, float b) const {
        const long double d = static_cast<long double>(a) - static_cast<long double>(b);
        return !(std::fabs(d) >= eps);
    }
};

// ------------------------------------------------------------------ geometry

// A bit image's element: a bit, unpacked to a byte of 0 or 1 before it is
// compared.
struct Bit {};

template <class D> struct Element { using T = D; };
template <> struct Element<Bit> { using T = uint8_t; };

// The compared channels of one source within the rectangle.
struct Channels {
    const char* start;       // the first compared channel at the rectangle's origin
    ptrdiff_t rowStep;
    ptrdiff_t channelStep;   // bytes from one compared channel to the next
    ptrdiff_t stride;        // elements from pixel to pixel
    int32_t bitOffset;       // bit images: bit of the rectangle's first column
};

struct BitRows {
    uint8_t* start;
    ptrdiff_t step;
    int32_t bitOffset;
};

// One worker call: every pointer addresses the rectangle's origin.
struct Geometry {
    Channels src[2];
    int32_t nCh;
    int32_t width, height;
    BitRows res;
    BitRows mask;   // start null without a mask
};

using Worker = void (*)(const Geometry&, const Constant&);

// ------------------------------------------------------------------ rows

// Every helper of a row is inlined into its worker, so that the loops are
// vectorised for the worker's instruction set: the plain one, and the AVX2
// one where the processor has it.
#if defined(__GNUC__)
#define KUV_INLINE inline __attribute__((always_inline))
#else
#define KUV_INLINE inline
#endif

constexpr int32_t chunkPixels = 2048;

KUV_INLINE bool bitAt(const uint8_t* row, int32_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

KUV_INLINE void putBit(uint8_t* row, int32_t i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

// Eight bits from bit i of a row, most significant first. The second byte is
// read only when bits i .. i + 7 reach into it.
KUV_INLINE uint8_t bitsAt(const uint8_t* row, int32_t i) {
    const int32_t q = i >> 3, r = i & 7;
    if (r == 0) return row[q];
    return static_cast<uint8_t>((row[q] << r) | (row[q + 1] >> (8 - r)));
}

// Eight flags of 0 or 1 into one byte, the first flag in the most significant
// bit. Byte k of the word times the constant lands on bit 63 - k alone, and
// no two partial products meet, so nothing carries.
KUV_INLINE uint8_t packFlags(const uint8_t* flags) {
    if constexpr (std::endian::native == std::endian::little) {
        uint64_t v;
        std::memcpy(&v, flags, sizeof v);
        return static_cast<uint8_t>((v * 0x8040201008040201ull) >> 56);
    } else {
        unsigned v = 0;
        for (int k = 0; k < 8; ++k) v |= unsigned{flags[k]} << (7 - k);
        return static_cast<uint8_t>(v);
    }
}

// Packs whole bytes of flags from flags[i] on into out; gives the new i.
KUV_INLINE int32_t packBytes(const uint8_t* flags, int32_t i, int32_t n, uint8_t* out,
                             const uint8_t* mask, int32_t maskBit) {
    if (mask == nullptr) {
        for (; i + 8 <= n; i += 8) *out++ = packFlags(flags + i);
    } else {
        for (; i + 8 <= n; i += 8, ++out) {
            const uint8_t m = bitsAt(mask, maskBit + i);
            *out = static_cast<uint8_t>((*out & ~m) | (packFlags(flags + i) & m));
        }
    }
    return i;
}

#if KUV_COMPARE_AVX2
// Thirty-two results from the sign bits of a vector of bytes, the first in
// the most significant bit of the first result byte: the bytes of each
// group of eight are reversed before the sign bits are gathered. Under a
// mask only the result bits whose mask bit is set change.
KUV_AVX2 KUV_INLINE void storeSigns32(__m256i v, uint8_t* out, const uint8_t* mask,
                                      int32_t maskBit) {
    const __m256i reverse = _mm256_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8,
                                             7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
    auto packed = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_shuffle_epi8(v, reverse)));
    if (mask != nullptr) {
        const uint8_t bytes[4] = {bitsAt(mask, maskBit), bitsAt(mask, maskBit + 8),
                                  bitsAt(mask, maskBit + 16), bitsAt(mask, maskBit + 24)};
        uint32_t m, old;
        std::memcpy(&m, bytes, 4);
        std::memcpy(&old, out, 4);
        packed = (old & ~m) | (packed & m);
    }
    std::memcpy(out, &packed, 4);
}

// Whole bytes of flags, thirty-two flags at a time: each flag moved to its
// byte's sign bit. Called once per chunk, so it need not be inlined.
KUV_AVX2 int32_t packBytesAvx2(const uint8_t* flags, int32_t i, int32_t n, uint8_t* out,
                               const uint8_t* mask, int32_t maskBit) {
    for (; i + 32 <= n; i += 32, out += 4) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(flags + i));
        storeSigns32(_mm256_slli_epi16(v, 7), out, mask, maskBit + i);
    }
    return packBytes(flags, i, n, out, mask, maskBit);
}

// One channel of 8-bit elements in contiguous rows, compared and packed in
// one pass, thirty-two pixels at a time from a byte of the result. Gives the
// count of pixels done; the rest go through the flags.
template <class Cmp, class T, bool IsScalar>
KUV_AVX2 int32_t compareBytesAvx2(const T* a, const T* b, T s, int32_t n, uint8_t* out,
                                  const uint8_t* mask, int32_t maskBit) {
    const __m256i scalar = _mm256_set1_epi8(static_cast<char>(s));
    int32_t i = 0;
    for (; i + 32 <= n; i += 32, out += 4) {
        const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i));
        const __m256i vb =
            IsScalar ? scalar : _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
        storeSigns32(Cmp::template bytes<T>(va, vb), out, mask, maskBit + i);
    }
    return i;
}
#endif

// Stores n flags at bit resBit of a result row; under a mask only where the
// mask's bit is set. No other bit of the row changes.
template <bool Wide>
KUV_INLINE void storeFlags(const uint8_t* flags, int32_t n, uint8_t* res, int32_t resBit,
                           const uint8_t* mask, int32_t maskBit) {
    int32_t i = 0;
    for (; i < n && ((resBit + i) & 7) != 0; ++i) {
        if (mask == nullptr || bitAt(mask, maskBit + i)) putBit(res, resBit + i, flags[i]);
    }
    uint8_t* out = res + ((resBit + i) >> 3);
#if KUV_COMPARE_AVX2
    if constexpr (Wide) i = packBytesAvx2(flags, i, n, out, mask, maskBit);
    else i = packBytes(flags, i, n, out, mask, maskBit);
#else
    i = packBytes(flags, i, n, out, mask, maskBit);
#endif
    for (; i < n; ++i) {
        if (mask == nullptr || bitAt(mask, maskBit + i)) putBit(res, resBit + i, flags[i]);
    }
}

// n elements of one channel from column x of a row. Bits are unpacked into
// buffer first.
template <class D>
KUV_INLINE const typename Element<D>::T* elementsAt(const Channels& s, int32_t y, int32_t c,
                                                    int32_t x, int32_t n,
                                                    typename Element<D>::T* buffer) {
    using T = typename Element<D>::T;
    const char* row = s.start + y * s.rowStep + c * s.channelStep;
    if constexpr (std::is_same_v<D, Bit>) {
        const auto* bits = reinterpret_cast<const uint8_t*>(row);
        for (int32_t i = 0; i < n; ++i) buffer[i] = bitAt(bits, s.bitOffset + x + i);
        return buffer;
    } else {
        return reinterpret_cast<const T*>(row) + x * s.stride;
    }
}

// flags[i] = holds (first channel) or flags[i] &= holds (the others): a
// channel that fails clears the pixel's flag for good.
template <bool First>
KUV_INLINE void setFlag(uint8_t& flag, bool holds) {
    if constexpr (First) flag = holds;
    else flag &= static_cast<uint8_t>(holds);
}

// The second operand: the elements of the other image, or the scalar.
template <class T>
struct PairOperand {
    const T* b;
    ptrdiff_t stride;
};

template <class T>
struct ScalarOperand {
    T s;
};

// One channel's compares over n pixels, each image with stride S (0: the
// strides given). Fixed strides of one, three and four let the compiler
// vectorise contiguous rows and the common interleaved pixels.
template <bool First, ptrdiff_t S, class Cmp, class T, class B>
KUV_INLINE void flagsRun(const Cmp& cmp, const T* a, ptrdiff_t sa, B b, uint8_t* flags,
                         int32_t n) {
    const ptrdiff_t stride = S != 0 ? S : sa;
    if constexpr (std::is_same_v<B, PairOperand<T>>) {
        const T* bb = b.b;
        const ptrdiff_t sb = S != 0 ? S : b.stride;
        for (int32_t i = 0; i < n; ++i) setFlag<First>(flags[i], cmp(a[i * stride], bb[i * sb]));
    } else {
        for (int32_t i = 0; i < n; ++i) setFlag<First>(flags[i], cmp(a[i * stride], b.s));
    }
}

template <bool First, class Cmp, class T, class B>
KUV_INLINE void flagsChannel(const Cmp& cmp, const T* a, ptrdiff_t sa, B b, uint8_t* flags,
                             int32_t n) {
    ptrdiff_t sb = sa;
    if constexpr (std::is_same_v<B, PairOperand<T>>) sb = b.stride;
    if (sa == sb && sa == 1) flagsRun<First, 1>(cmp, a, sa, b, flags, n);
    else if (sa == sb && sa == 3) flagsRun<First, 3>(cmp, a, sa, b, flags, n);
    else if (sa == sb && sa == 4) flagsRun<First, 4>(cmp, a, sa, b, flags, n);
    else flagsRun<First, 0>(cmp, a, sa, b, flags, n);
}

// The scalar of an S form in the element's own type. The element is widened
// to 32 bits and compared with s; when s lies outside the element's range
// every element gives the same answer, the answer of the range's low end.
template <class D, class Cmp>
struct Scalar {
    using T = typename Element<D>::T;
    bool fixed = false;
    bool outcome = false;
    T value{};

    Scalar(const Cmp& cmp, const Constant& k) {
        if constexpr (std::is_floating_point_v<T>) {
            value = k.f;
        } else {
            const int32_t lo = std::is_same_v<D, Bit> ? 0 : std::numeric_limits<T>::min();
            const int32_t hi = std::is_same_v<D, Bit> ? 1 : std::numeric_limits<T>::max();
            if (k.i < lo || k.i > hi) {
                fixed = true;
                outcome = cmp(lo, k.i);
            } else {
                value = static_cast<T>(k.i);
            }
        }
    }
};

// Pixels x .. end - 1 of one channel of contiguous elements, a bit at a
// time: the few before the first whole result byte and after the last.
template <bool IsScalar, class Cmp, class T>
KUV_INLINE void compareFew(const Cmp& cmp, const T* a, const T* b, T s, int32_t x, int32_t end,
                           uint8_t* res, int32_t resBit, const uint8_t* mask, int32_t maskBit) {
    for (; x < end; ++x) {
        if (mask == nullptr || bitAt(mask, maskBit + x)) {
            putBit(res, resBit + x, cmp(a[x], IsScalar ? s : b[x]));
        }
    }
}

// Buffers and constants of one worker call.
template <class D, class Cmp>
struct RowState {
    using T = typename Element<D>::T;
    static constexpr bool bits = std::is_same_v<D, Bit>;
    const Cmp cmp;
    const Scalar<D, Cmp> scalar;
    const ptrdiff_t sa, sb;
    alignas(32) uint8_t flags[chunkPixels];
    alignas(32) T bufferA[bits ? chunkPixels : 1];
    alignas(32) T bufferB[bits ? chunkPixels : 1];

    RowState(const Geometry& g, const Constant& k)
        : cmp(k), scalar(cmp, k), sa(bits ? 1 : g.src[0].stride), sb(bits ? 1 : g.src[1].stride) {}
};

// Pixels x .. end - 1 of row y, in chunks: the flags of all channels, then
// the flags stored. Chunks after the first begin on a byte of the result.
template <class D, class Cmp, bool IsScalar, bool Wide>
KUV_INLINE void compareSpan(const Geometry& g, RowState<D, Cmp>& st, int32_t y, int32_t x,
                            int32_t end) {
    using T = typename Element<D>::T;
    uint8_t* res = g.res.start + y * g.res.step;
    const uint8_t* mask = g.mask.start != nullptr ? g.mask.start + y * g.mask.step : nullptr;
    uint8_t* flags = st.flags;
    while (x < end) {
        int32_t n = chunkPixels - ((g.res.bitOffset + x) & 7);
        if (n > end - x) n = end - x;
        for (int32_t c = 0; c < g.nCh; ++c) {
            const T* a = elementsAt<D>(g.src[0], y, c, x, n, st.bufferA);
            if constexpr (IsScalar) {
                const ScalarOperand<T> b{st.scalar.value};
                if (st.scalar.fixed) {
                    if (c == 0) std::memset(flags, st.scalar.outcome, static_cast<size_t>(n));
                    else if (!st.scalar.outcome) std::memset(flags, 0, static_cast<size_t>(n));
                } else if (c == 0) {
                    flagsChannel<true>(st.cmp, a, st.sa, b, flags, n);
                } else {
                    flagsChannel<false>(st.cmp, a, st.sa, b, flags, n);
                }
            } else {
                const PairOperand<T> b{elementsAt<D>(g.src[1], y, c, x, n, st.bufferB), st.sb};
                if (c == 0) flagsChannel<true>(st.cmp, a, st.sa, b, flags, n);
                else flagsChannel<false>(st.cmp, a, st.sa, b, flags, n);
            }
        }
        storeFlags<Wide>(flags, n, res, g.res.bitOffset + x, mask, g.mask.bitOffset + x);
        x += n;
    }
}

// The rows of one worker call, for a depth D, a compare and a form: the
// second operand is an image's channels, or the scalar. The wide workers
// take one channel of contiguous bytes in one pass, from the first pixel
// that begins a result byte.
template <class D, class Cmp, bool IsScalar, bool Wide>
KUV_INLINE void compareRows(const Geometry& g, const Constant& k) {
    RowState<D, Cmp> st(g, k);
#if KUV_COMPARE_AVX2
    using T = typename Element<D>::T;
    constexpr bool bytes = Wide && sizeof(T) == 1 && !std::is_same_v<D, Bit>;
    const bool fused = bytes && g.nCh == 1 && st.sa == 1 &&
                       (IsScalar ? !st.scalar.fixed : st.sb == 1);
    const int32_t head = std::min(g.width, (8 - (g.res.bitOffset & 7)) & 7);
#endif
    for (int32_t y = 0; y < g.height; ++y) {
#if KUV_COMPARE_AVX2
        if constexpr (bytes) {
            if (fused) {
                const T* a = reinterpret_cast<const T*>(g.src[0].start + y * g.src[0].rowStep);
                const T* b = IsScalar ? a
                                      : reinterpret_cast<const T*>(g.src[1].start +
                                                                   y * g.src[1].rowStep);
                uint8_t* res = g.res.start + y * g.res.step;
                const uint8_t* mask =
                    g.mask.start != nullptr ? g.mask.start + y * g.mask.step : nullptr;
                const T s = st.scalar.value;
                compareFew<IsScalar>(st.cmp, a, b, s, 0, head, res, g.res.bitOffset, mask,
                                     g.mask.bitOffset);
                const int32_t done = head + compareBytesAvx2<Cmp, T, IsScalar>(
                                                a + head, b + head, s, g.width - head,
                                                res + ((g.res.bitOffset + head) >> 3), mask,
                                                g.mask.bitOffset + head);
                compareFew<IsScalar>(st.cmp, a, b, s, done, g.width, res, g.res.bitOffset, mask,
                                     g.mask.bitOffset);
                continue;
            }
        }
#endif
        compareSpan<D, Cmp, IsScalar, Wide>(g, st, y, 0, g.width);
    }
}

template <class D, class Cmp, bool IsScalar>
void compareWorker(const Geometry& g, const Constant& k) {
    compareRows<D, Cmp, IsScalar, false>(g, k);
}

#if KUV_COMPARE_AVX2
template <class D, class Cmp, bool IsScalar>
KUV_AVX2 void compareWorkerAvx2(const Geometry& g, const Constant& k) {
    compareRows<D, Cmp, IsScalar, true>(g, k);
}

#endif

// Asked once per call; tests withhold AVX2 to check the plain workers.
bool wideWorkers() {
#if KUV_COMPARE_AVX2
    return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0;
#else
    return false;
#endif
}

// ------------------------------------------------------------------ tables

// The plain worker of a depth and the AVX2 one (the plain one again where
// there is none).
struct Workers {
    Worker plain, wide;
};

template <class D, class Cmp, bool IsScalar>
constexpr Workers workersOf() {
#if KUV_COMPARE_AVX2
    return Workers{&compareWorker<D, Cmp, IsScalar>, &compareWorkerAvx2<D, Cmp, IsScalar>};
#else
    return Workers{&compareWorker<D, Cmp, IsScalar>, &compareWorker<D, Cmp, IsScalar>};
#endif
}

constexpr Workers none = {nullptr, nullptr};

// Indexed by ownDepthIndex: 1U, 8U, 8S, 16U, 16S, 32S, 32F.
using Table = Workers[OWN_DEPTH_COUNT];

template <class Cmp>
constexpr Table pairTable = {
    workersOf<Bit, Cmp, false>(),     workersOf<uint8_t, Cmp, false>(),
    workersOf<int8_t, Cmp, false>(),  workersOf<uint16_t, Cmp, false>(),
    workersOf<int16_t, Cmp, false>(), workersOf<int32_t, Cmp, false>(),
    workersOf<float, Cmp, false>(),
};

constexpr Table nearPairTable = {none, none, none, none, none, none,
                                 workersOf<float, NearEqual, false>()};

template <class Cmp>
constexpr Table intScalarTable = {
    workersOf<Bit, Cmp, true>(),     workersOf<uint8_t, Cmp, true>(),
    workersOf<int8_t, Cmp, true>(),  workersOf<uint16_t, Cmp, true>(),
    workersOf<int16_t, Cmp, true>(), workersOf<int32_t, Cmp, true>(),
    none,
};

template <class Cmp>
constexpr Table floatScalarTable = {none, none, none, none, none, none,
                                    workersOf<float, Cmp, true>()};

// ------------------------------------------------------------------ operations

enum Form : int {
    FORM_PAIR,        // kuvLess, kuvGreater, kuvEqual
    FORM_PAIR_EPS,    // kuvEqualFPEps
    FORM_INT,         // kuvLessS, kuvGreaterS, kuvEqualS
    FORM_FLOAT,       // kuvLessSFP, kuvGreaterSFP, kuvEqualSFP
    FORM_FLOAT_EPS,   // kuvEqualSFPEps
};

struct CompareOp {
    const char* func;
    Form form;
    const Table* table;
};

constexpr CompareOp lessOp = {"kuvLess", FORM_PAIR, &pairTable<Less>};
constexpr CompareOp greaterOp = {"kuvGreater", FORM_PAIR, &pairTable<Greater>};
constexpr CompareOp equalOp = {"kuvEqual", FORM_PAIR, &pairTable<Equal>};
constexpr CompareOp equalEpsOp = {"kuvEqualFPEps", FORM_PAIR_EPS, &nearPairTable};
constexpr CompareOp lessSOp = {"kuvLessS", FORM_INT, &intScalarTable<Less>};
constexpr CompareOp greaterSOp = {"kuvGreaterS", FORM_INT, &intScalarTable<Greater>};
constexpr CompareOp equalSOp = {"kuvEqualS", FORM_INT, &intScalarTable<Equal>};
constexpr CompareOp lessSFPOp = {"kuvLessSFP", FORM_FLOAT, &floatScalarTable<Less>};
constexpr CompareOp greaterSFPOp = {"kuvGreaterSFP", FORM_FLOAT, &floatScalarTable<Greater>};
constexpr CompareOp equalSFPOp = {"kuvEqualSFP", FORM_FLOAT, &floatScalarTable<Equal>};
constexpr CompareOp equalSFPEpsOp = {"kuvEqualSFPEps", FORM_FLOAT_EPS,
                                     &floatScalarTable<NearEqual>};

// The part of an image that takes part in a compare: the region's offset,
// its size cut at the image's edge, and the first and last channel (from 1).
struct CompareRange {
    int32_t x, y, width, height;
    int32_t first, last;
};

// False when the image leaves no channel to compare: an alpha channel that
// is not the last, or the only channel being alpha.
bool ownCompareRange(const KuvImage* image, CompareRange* r) {
    int32_t bitOffset = 0;
    ownGetPixelRect(image, &r->width, &r->height, 0, &bitOffset);
    const KuvROI* roi = image->roi;
    r->x = roi != nullptr ? roi->xOffset : 0;
    r->y = roi != nullptr ? roi->yOffset : 0;
    if (roi != nullptr && roi->coi != 0) {
        r->first = r->last = roi->coi;
        return true;
    }
    r->first = 1;
    r->last = image->nChannels;
    if (image->alphaChannel == 0) return true;
    if (image->alphaChannel != image->nChannels) return false;
    r->last = image->nChannels - 1;
    return r->last >= r->first;
}

// What the checks leave for the run: the range of each image.
struct Plan {
    int nSrc;
    CompareRange src[2];
    CompareRange res;
};

struct Refusal {
    const char* func;
    KuvStatus operator()(KuvStatus status, const char* context, int line,
                         KuvStatus value) const {
        kuvError(status, func, context, compFile, line);
        return value;
    }
    // A header that failed its check: its status, and that status returned.
    KuvStatus header(int line) const {
        kuvError(kuvGetErrStatus(), func, " Incorrect Image", compFile, line);
        return kuvGetErrStatus();
    }
};

constexpr const char* alphaText = "bad alpha channel's number";

// The masks' channels, in the order of their images.
KuvStatus checkMasks(const Refusal& refuse, const KuvImage* const* images, int count) {
    for (int i = 0; i < count; ++i) {
        CompareRange unused;
        const KuvImage* mask = images[i] != nullptr ? images[i]->maskROI : nullptr;
        if (mask != nullptr && !ownCompareRange(mask, &unused)) {
            return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadAlphaChannel);
        }
    }
    return KUV_StsNoError;
}

// The checks of the two-image forms, in their order, each with its status
// and the value the operation returns.
KuvStatus checkPair(const CompareOp& op, const KuvImage* img1, const KuvImage* img2,
                    const KuvImage* res, float eps, Plan* plan) {
    const Refusal refuse{op.func};
    if (kuvCheckImageHeader(img1) != KUV_StsNoError) return refuse.header(__LINE__);
    if (kuvCheckImageHeader(img2) != KUV_StsNoError) return refuse.header(__LINE__);
    if (kuvCheckImageHeader(res) != KUV_StsNoError) return refuse.header(__LINE__);
    if (res->depth != KUV_DEPTH_1U) {
        return refuse(KUV_StsBadArgument, "(res->depth!=KUV_DEPTH_1U)", __LINE__, KUV_StsBadDepth);
    }
    if (img1->depth != img2->depth) {
        return refuse(KUV_StsBadArgument, "(img1->depth!=img2->depth)", __LINE__, KUV_StsBadDepth);
    }
    if (img1 == res || img2 == res) {
        return refuse(KUV_StsBadArgument, "(img1==res || img2==res)", __LINE__,
                      KUV_StsBadArgument);
    }
    if (img1->dataOrder != img2->dataOrder) {
        return refuse(KUV_StsBadArgument, "(img1->dataOrder!=img2->dataOrder)", __LINE__,
                      KUV_StsBadDataOrder);
    }
    if (img1->origin != img2->origin) {
        return refuse(KUV_StsBadArgument, "(img1->origin!=img2->origin)", __LINE__,
                      KUV_StsBadOrigin);
    }
    if (op.form == FORM_PAIR_EPS) {
        if (img1->depth != KUV_DEPTH_32F || img2->depth != KUV_DEPTH_32F) {
            return refuse(KUV_StsBadArgument,
                          "((img1->depth!= KUV_DEPTH_32F)|| (img2->depth!= KUV_DEPTH_32F))",
                          __LINE__, KUV_StsBadDepth);
        }
        if (eps <= 0.) return refuse(KUV_StsBadArgument, "(eps<=0.)", __LINE__, KUV_StsBadArgument);
    }
    plan->nSrc = 2;
    if (!ownCompareRange(img1, &plan->src[0])) {
        return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadArgument);
    }
    if (!ownCompareRange(img2, &plan->src[1])) {
        return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadAlphaChannel);
    }
    if (plan->src[0].last - plan->src[0].first != plan->src[1].last - plan->src[1].first) {
        return refuse(KUV_StsBadChannels, "bad channel's number", __LINE__, KUV_StsBadChannels);
    }
    if (!ownCompareRange(res, &plan->res)) {
        return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadAlphaChannel);
    }
    const KuvImage* const images[3] = {img1, img2, res};
    return checkMasks(refuse, images, 3);
}

// The checks of the one-image forms.
KuvStatus checkSingle(const CompareOp& op, const KuvImage* img, const KuvImage* res, float eps,
                      Plan* plan) {
    const Refusal refuse{op.func};
    if (kuvCheckImageHeader(img) != KUV_StsNoError) return refuse.header(__LINE__);
    if (kuvCheckImageHeader(res) != KUV_StsNoError) return refuse.header(__LINE__);
    if (img == res) return refuse(KUV_StsBadArgument, "(img==res)", __LINE__, KUV_StsBadArgument);
    if (res->depth != KUV_DEPTH_1U) {
        return refuse(KUV_StsBadArgument, "(res->depth!=KUV_DEPTH_1U)", __LINE__, KUV_StsBadDepth);
    }
    if (op.form == FORM_INT && img->depth == KUV_DEPTH_32F) {
        return refuse(KUV_StsBadArgument, "(img->depth==KUV_DEPTH_32F)", __LINE__, KUV_StsBadDepth);
    }
    if (op.form != FORM_INT && img->depth != KUV_DEPTH_32F) {
        return refuse(KUV_StsBadArgument, "(img->depth!=KUV_DEPTH_32F)", __LINE__, KUV_StsBadDepth);
    }
    if (op.form == FORM_FLOAT_EPS && eps <= 0.) {
        return refuse(KUV_StsBadArgument, "(eps<=0.)", __LINE__, KUV_StsBadArgument);
    }
    plan->nSrc = 1;
    if (!ownCompareRange(img, &plan->src[0])) {
        return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadAlphaChannel);
    }
    if (!ownCompareRange(res, &plan->res)) {
        return refuse(KUV_StsBadAlphaChannel, alphaText, __LINE__, KUV_StsBadAlphaChannel);
    }
    const KuvImage* const images[2] = {img, res};
    return checkMasks(refuse, images, 2);
}

// The geometry of a worker call over images whose regions are the pieces to
// compare; channel first of each source, counted from 1.
Geometry geometryOf(const KuvImage* const* src, const int32_t* first, int nSrc, int32_t nCh,
                    const KuvImage* res, const KuvImage* mask, int32_t width, int32_t height) {
    Geometry g{};
    g.nCh = nCh;
    g.width = width;
    g.height = height;
    int32_t w = 0, h = 0;
    for (int i = 0; i < nSrc; ++i) {
        const KuvImage* image = src[i];
        Channels& s = g.src[i];
        s.start = ownGetPixelRect(image, &w, &h, first[i] - 1, &s.bitOffset);
        s.rowStep = image->widthStep;
        const bool pixelOrder = image->dataOrder == KUV_DATA_ORDER_PIXEL;
        s.stride = pixelOrder ? image->nChannels : 1;
        s.channelStep = pixelOrder ? ownDepthBits(image->depth) / 8
                                   : ptrdiff_t{image->widthStep} * image->height;
    }
    g.res.start = reinterpret_cast<uint8_t*>(ownGetPixelRect(res, &w, &h, 0, &g.res.bitOffset));
    g.res.step = res->widthStep;
    if (mask != nullptr) {
        g.mask.start =
            reinterpret_cast<uint8_t*>(ownGetPixelRect(mask, &w, &h, 0, &g.mask.bitOffset));
        g.mask.step = mask->widthStep;
    }
    return g;
}

// A temporary image freed on every way out.
struct TemporaryImage {
    KuvImage* image = nullptr;
    ~TemporaryImage() { kuvDeallocate(image, KUV_IMAGE_HEADER | KUV_IMAGE_DATA); }
};

// The AND of the images' masks, anchored at the rectangle's origin, into a
// new bit image of the rectangle's size. False when memory ran out.
bool mergeMasks(const KuvImage* const* images, int count, int32_t width, int32_t height,
                TemporaryImage* merged) {
    const KuvImage* masks[3];
    const KuvImage* owner = nullptr;
    int n = 0;
    for (int i = 0; i < count; ++i) {
        if (images[i]->maskROI == nullptr) continue;
        if (owner == nullptr) owner = images[i];
        masks[n++] = images[i]->maskROI;
    }
    KuvImage* t = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, "GRAY", "GRAY", owner->dataOrder,
                                       owner->origin, 8, width, height, nullptr, nullptr, 0,
                                       nullptr);
    if (t == nullptr) return false;
    merged->image = t;
    kuvAllocateImage(t, 0, 0);
    if (t->imageData == nullptr) return false;
    if (n == 1) {
        kuvCopy(masks[0], t);
    } else {
        kuvAnd(masks[0], masks[1], t);
        if (n == 3) kuvAnd(t, masks[2], t);
    }
    return true;
}

// The working header of one image for one piece of a tile walk: a region
// of the piece's size at (x, y), the image's channel of interest kept.
struct WorkingImage {
    KuvImage header{};
    KuvROI roi{};

    void over(const KuvImage* image, int32_t x, int32_t y, int32_t width, int32_t height) {
        header = *image;
        header.maskROI = nullptr;
        roi = KuvROI{image->roi != nullptr ? image->roi->coi : 0, x, y, width, height};
        header.roi = &roi;
    }
};

// The tiled run: the tiles of one image are walked, one at a time; a tiled
// image that is not walked is read through a window of each piece.
KuvStatus walkTiles(const CompareOp& op, Worker worker, const Constant& k, const Plan& plan,
                    const KuvImage* const* src, KuvImage* res, const KuvImage* mask,
                    int32_t width, int32_t height) {
    // The walked image: res when tiled, else the tiled source of larger tile area.
    const KuvImage* walked = res;
    const CompareRange* walkedRange = &plan.res;
    if (res->tileInfo == nullptr) {
        int64_t bestArea = -1;
        for (int i = 0; i < plan.nSrc; ++i) {
            const KuvTileInfo* info = src[i]->tileInfo;
            if (info == nullptr) continue;
            const int64_t area = int64_t{info->width} * info->height;
            if (area > bestArea) {
                bestArea = area;
                walked = src[i];
                walkedRange = &plan.src[i];
            }
        }
    }
    KuvTileInfo* info = walked->tileInfo;
    const int32_t mode = walked == res ? KUV_TILE_WRITE : KUV_TILE_READ;
    const int32_t tw = info->width, th = info->height;
    const int32_t x0 = walkedRange->x, y0 = walkedRange->y;
    const int32_t firstCol = x0 / tw, lastCol = (x0 + width - 1) / tw;
    const int32_t firstRow = y0 / th, lastRow = (y0 + height - 1) / th;
    const int32_t first[2] = {plan.src[0].first, plan.nSrc == 2 ? plan.src[1].first : 0};
    const int32_t nCh = plan.src[0].last - plan.src[0].first + 1;
    const Refusal refuse{op.func};

    for (int32_t row = firstRow; row <= lastRow; ++row) {
        for (int32_t col = firstCol; col <= lastCol; ++col) {
            const int32_t left = col * tw, top = row * th;
            const int32_t px = left > x0 ? left : x0, py = top > y0 ? top : y0;
            const int32_t pw = (left + tw < x0 + width ? left + tw : x0 + width) - px;
            const int32_t ph = (top + th < y0 + height ? top + th : y0 + height) - py;
            const int32_t dx = px - x0, dy = py - y0;

            info->callBack(walked, col, row, mode);
            char* tile = info->tileData;
            if (tile == nullptr) {
                return refuse(KUV_StsOutOfMemory, "Allocation failure", __LINE__,
                              KUV_StsOutOfMemory);
            }
            WorkingImage tileWork;
            tileWork.over(walked, px - left, py - top, pw, ph);
            tileWork.header.tileInfo = nullptr;
            tileWork.header.imageData = tile;
            tileWork.header.width = tw;
            tileWork.header.height = th;
            tileWork.header.widthStep = ownRowBytes(walked->dataOrder, walked->depth,
                                                    walked->align, walked->nChannels, tw);
            tileWork.header.imageSize =
                tileWork.header.widthStep * th *
                (walked->dataOrder == KUV_DATA_ORDER_PLANE ? walked->nChannels : 1);

            // The other images at the same place of their own rectangles.
            WorkingImage work[3];
            char* windows[2] = {nullptr, nullptr};
            const KuvImage* srcWork[2] = {nullptr, nullptr};
            const KuvImage* resWork = &tileWork.header;
            bool windowFailed = false;
            for (int i = 0; i < plan.nSrc; ++i) {
                const KuvImage* image = src[i];
                const int32_t x = plan.src[i].x + dx, y = plan.src[i].y + dy;
                if (image == walked) {
                    srcWork[i] = &tileWork.header;
                } else if (image->tileInfo != nullptr) {
                    int32_t step = 0;
                    windows[i] = ownCopyWindow(image, x, y, pw, ph, &step);
                    if (windows[i] == nullptr) {
                        windowFailed = true;
                        break;
                    }
                    work[i].over(image, 0, 0, pw, ph);
                    work[i].header.tileInfo = nullptr;
                    work[i].header.imageData = windows[i];
                    work[i].header.width = pw;
                    work[i].header.height = ph;
                    work[i].header.widthStep = step;
                    const int32_t planes =
                        image->dataOrder == KUV_DATA_ORDER_PLANE ? image->nChannels : 1;
                    work[i].header.imageSize = step * ph * planes;
                    srcWork[i] = &work[i].header;
                } else {
                    work[i].over(image, x, y, pw, ph);
                    srcWork[i] = &work[i].header;
                }
            }
            if (!windowFailed) {
                if (walked != res) {
                    work[2].over(res, plan.res.x + dx, plan.res.y + dy, pw, ph);
                    resWork = &work[2].header;
                }
                WorkingImage maskWork;
                if (mask != nullptr) maskWork.over(mask, dx, dy, pw, ph);
                worker(geometryOf(srcWork, first, plan.nSrc, nCh, resWork,
                                  mask != nullptr ? &maskWork.header : nullptr, pw, ph),
                       k);
            }
            info->tileData = tile;   // the procedure finds the tile it is handed back
            info->callBack(walked, col, row, KUV_TILE_RELEASE);
            for (char* window : windows) ownFreeWindow(window);
            if (windowFailed) {
                return refuse(KUV_StsOutOfMemory, "Allocation failure", __LINE__,
                              KUV_StsOutOfMemory);
            }
        }
    }
    return KUV_StsNoError;
}

KuvStatus runCompare(const CompareOp& op, const KuvImage* img1, const KuvImage* img2,
                     KuvImage* res, const Constant& k) {
    Plan plan{};
    const bool pair = op.form == FORM_PAIR || op.form == FORM_PAIR_EPS;
    const KuvStatus refused = pair ? checkPair(op, img1, img2, res, k.eps, &plan)
                                   : checkSingle(op, img1, res, k.eps, &plan);
    if (refused != KUV_StsNoError) return refused;

    const KuvImage* const src[2] = {img1, plan.nSrc == 2 ? img2 : nullptr};
    const KuvImage* const images[3] = {img1, plan.nSrc == 2 ? img2 : res, res};
    const int nImages = plan.nSrc + 1;

    int32_t width = plan.res.width, height = plan.res.height;
    bool anyMask = false, tiled = res->tileInfo != nullptr;
    for (int i = 0; i < plan.nSrc; ++i) {
        if (plan.src[i].width < width) width = plan.src[i].width;
        if (plan.src[i].height < height) height = plan.src[i].height;
        tiled |= src[i]->tileInfo != nullptr;
    }
    for (int i = 0; i < nImages; ++i) {
        const KuvImage* mask = images[i]->maskROI;
        if (mask == nullptr) continue;
        anyMask = true;
        int32_t mw = 0, mh = 0, bitOffset = 0;
        ownGetPixelRect(mask, &mw, &mh, 0, &bitOffset);
        if (mw < width) width = mw;
        if (mh < height) height = mh;
    }
    const int depth = ownDepthIndex(img1->depth);
    const Worker worker =
        depth < 0 ? nullptr : wideWorkers() ? (*op.table)[depth].wide : (*op.table)[depth].plain;
    if (width <= 0 || height <= 0 || worker == nullptr) return KUV_StsNoError;

    TemporaryImage mask;
    if (anyMask) {
        const KuvStatus saved = kuvGetErrStatus();
        kuvSetErrStatus(KUV_StsNoError);
        if (!mergeMasks(images, nImages, width, height, &mask)) {
            kuvSetErrStatus(saved);
            kuvError(KUV_StsOutOfMemory, op.func, "Allocation failure", compFile, __LINE__);
            return KUV_StsOutOfMemory;
        }
        const KuvStatus merged = kuvGetErrStatus();
        if (merged < 0) {
            kuvError(KUV_StsBacktrace, op.func, "", compFile, __LINE__);
            return merged;
        }
        kuvSetErrStatus(saved);
    }

    const int32_t first[2] = {plan.src[0].first, plan.src[1].first};
    const int32_t nCh = plan.src[0].last - plan.src[0].first + 1;
    if (!tiled) {
        worker(geometryOf(src, first, plan.nSrc, nCh, res, mask.image, width, height), k);
        return KUV_StsNoError;
    }
    return walkTiles(op, worker, k, plan, src, res, mask.image, width, height);
}

}  // namespace

}  // namespace kuv

extern "C" {

KUV_API KuvStatus kuvLess(const KuvImage* img1, const KuvImage* img2, KuvImage* res) {
    return kuv::runCompare(kuv::lessOp, img1, img2, res, kuv::Constant{0, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvGreater(const KuvImage* img1, const KuvImage* img2, KuvImage* res) {
    return kuv::runCompare(kuv::greaterOp, img1, img2, res, kuv::Constant{0, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvEqual(const KuvImage* img1, const KuvImage* img2, KuvImage* res) {
    return kuv::runCompare(kuv::equalOp, img1, img2, res, kuv::Constant{0, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvEqualFPEps(const KuvImage* img1, const KuvImage* img2, KuvImage* res,
                                float eps) {
    return kuv::runCompare(kuv::equalEpsOp, img1, img2, res, kuv::Constant{0, 0.0f, eps});
}

KUV_API KuvStatus kuvLessS(const KuvImage* img, int32_t s, KuvImage* res) {
    return kuv::runCompare(kuv::lessSOp, img, nullptr, res, kuv::Constant{s, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvGreaterS(const KuvImage* img, int32_t s, KuvImage* res) {
    return kuv::runCompare(kuv::greaterSOp, img, nullptr, res, kuv::Constant{s, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvEqualS(const KuvImage* img, int32_t s, KuvImage* res) {
    return kuv::runCompare(kuv::equalSOp, img, nullptr, res, kuv::Constant{s, 0.0f, 0.0f});
}

KUV_API KuvStatus kuvLessSFP(const KuvImage* img, float s, KuvImage* res) {
    return kuv::runCompare(kuv::lessSFPOp, img, nullptr, res, kuv::Constant{0, s, 0.0f});
}

KUV_API KuvStatus kuvGreaterSFP(const KuvImage* img, float s, KuvImage* res) {
    return kuv::runCompare(kuv::greaterSFPOp, img, nullptr, res, kuv::Constant{0, s, 0.0f});
}

KUV_API KuvStatus kuvEqualSFP(const KuvImage* img, float s, KuvImage* res) {
    return kuv::runCompare(kuv::equalSFPOp, img, nullptr, res, kuv::Constant{0, s, 0.0f});
}

KUV_API KuvStatus kuvEqualSFPEps(const KuvImage* img, float s, KuvImage* res, float eps) {
    return kuv::runCompare(kuv::equalSFPEpsOp, img, nullptr, res, kuv::Constant{0, s, eps});
}

}  // extern "C"
