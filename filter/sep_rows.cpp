// Row workers of the separable convolution.
//
// Integer depths sum in 32 bits with wrap-around (unsigned arithmetic, read
// back as signed), whatever the sample width; 32F sums products of floats in
// double precision and rounds once, at the store. One template computes every
// pass: the pass fixes what a row is read from and how its sums are stored,
// the samples per pixel give the distance between the taps of a row kernel,
// and a tap count known at compile time lets the compiler write the sum out.
// Each worker exists twice, compiled for the baseline and for AVX2, and the
// table of one or the other is chosen once from the CPU.
//
// The sums are exact modulo 2^32, so that any grouping of the products gives
// the same result: the 16-bit path for 8-bit images below relies on it.
#include "core/platform.h"
#include "filter/sep_rows.h"

#include <algorithm>
#include <array>
#include <type_traits>
#include <utility>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_SEP_HAVE_AVX2 1
#include <immintrin.h>
#endif

namespace {

// ------------------------------------------------------------------ depths

template <class T, class Mid, class Acc, class Tap, int32_t Low, int32_t High>
struct DepthOf {
    using Sample = T;     // element of the source and destination
    using Middle = Mid;   // element of the intermediate row
    using Sum = Acc;
    using Coefficient = Tap;
    static constexpr int32_t low = Low, high = High;
};

template <int D> struct Depth;
// 1U comes unpacked, one byte 0 or 1 per sample, and leaves the same way.
template <> struct Depth<OWN_1U> : DepthOf<uint8_t, uint32_t, uint32_t, int32_t, 0, 1> {};
template <> struct Depth<OWN_8U> : DepthOf<uint8_t, uint32_t, uint32_t, int32_t, 0, 255> {};
template <> struct Depth<OWN_8S> : DepthOf<int8_t, uint32_t, uint32_t, int32_t, -128, 127> {};
template <> struct Depth<OWN_16U> : DepthOf<uint16_t, uint32_t, uint32_t, int32_t, 0, 65535> {};
template <> struct Depth<OWN_16S>
    : DepthOf<int16_t, uint32_t, uint32_t, int32_t, -32768, 32767> {};
template <> struct Depth<OWN_32S>
    : DepthOf<int32_t, uint32_t, uint32_t, int32_t, INT32_MIN, INT32_MAX> {};
template <> struct Depth<OWN_32F> : DepthOf<float, float, double, float, 0, 0> {};

// ------------------------------------------------------------------ sums

[[gnu::always_inline]] inline uint32_t product(int32_t tap, int32_t v) {
    return static_cast<uint32_t>(tap) * static_cast<uint32_t>(v);
}
[[gnu::always_inline]] inline uint32_t product(int32_t tap, uint32_t v) {
    return static_cast<uint32_t>(tap) * v;
}
[[gnu::always_inline]] inline double product(float tap, float v) {
    return static_cast<double>(tap) * static_cast<double>(v);
}

template <class In>
[[gnu::always_inline]] inline auto widen(In v) {
    if constexpr (std::is_same_v<In, float> || std::is_same_v<In, uint32_t>) return v;
    else return static_cast<int32_t>(v);
}

// s[k] = taps[0] * src[k] + taps[1] * src[k + off] + ..., the products added
// in tap order. With N known the sum is written out per sample; otherwise
// tap by tap over the whole chunk, which keeps the order and vectorises.
template <class Acc, class In, class Tap, int N>
[[gnu::always_inline]] inline void dot(const In* src, ptrdiff_t off, const Tap* taps, int n,
                                       Acc* s, int len) {
    if constexpr (N > 0) {
        for (int k = 0; k < len; ++k) {
            Acc a = product(taps[0], widen(src[k]));
            for (int i = 1; i < N; ++i) a += product(taps[i], widen(src[k + i * off]));
            s[k] = a;
        }
    } else {
        const Tap t0 = taps[0];
        for (int k = 0; k < len; ++k) s[k] = product(t0, widen(src[k]));
        for (int i = 1; i < n; ++i) {
            const In* p = src + i * off;
            const Tap t = taps[i];
            for (int k = 0; k < len; ++k) s[k] += product(t, widen(p[k]));
        }
    }
}

// The pass's store: raw sums into the intermediate row, or shifted and
// clamped samples.
template <int D, bool Raw>
[[gnu::always_inline]] inline void finish(const typename Depth<D>::Sum* s, char* dst, int len,
                                          int shift) {
    using DT = Depth<D>;
    if constexpr (D == OWN_32F) {
        float* out = reinterpret_cast<float*>(dst);
        for (int k = 0; k < len; ++k) out[k] = static_cast<float>(s[k]);
    } else if constexpr (Raw) {
        uint32_t* out = reinterpret_cast<uint32_t*>(dst);
        for (int k = 0; k < len; ++k) out[k] = s[k];
    } else {
        using T = typename DT::Sample;
        T* out = reinterpret_cast<T*>(dst);
        for (int k = 0; k < len; ++k) {
            int32_t v = static_cast<int32_t>(s[k]) >> shift;
            if constexpr (D == OWN_1U) v = v > 0 ? 1 : 0;
            else if constexpr (D != OWN_32S) v = std::clamp(v, DT::low, DT::high);
            out[k] = static_cast<T>(v);
        }
    }
}

constexpr int kChunk = 256;

// One output row of a pass. P is the samples per pixel of a row pass (0: at
// run time, through tapStep); column passes take the row step from tapStep.
template <int D, int Pass, int P, int N>
[[gnu::always_inline]] inline void rowBody(const char* src, ptrdiff_t tapStep,
                                           const OwnSepKernel& k, char* dst, int32_t count) {
    using DT = Depth<D>;
    using In = std::conditional_t<Pass == OWN_SEP_SECOND, typename DT::Middle,
                                  typename DT::Sample>;
    using Out = std::conditional_t<Pass == OWN_SEP_FIRST, typename DT::Middle,
                                   typename DT::Sample>;
    using Acc = typename DT::Sum;
    constexpr bool along = Pass == OWN_SEP_ROW || Pass == OWN_SEP_SECOND;
    const In* s = reinterpret_cast<const In*>(src);
    const auto* taps = static_cast<const typename DT::Coefficient*>(k.taps);
    const int n = along ? k.paddedLength : k.length;
    const ptrdiff_t off = along && P > 0 ? P : tapStep;
    const int shift = k.nShiftR & 31;
    alignas(32) Acc acc[kChunk];
    for (int32_t c0 = 0; c0 < count; c0 += kChunk) {
        const int len = static_cast<int>(std::min<int32_t>(kChunk, count - c0));
        dot<Acc, In, typename DT::Coefficient, N>(s + c0, off, taps, n, acc, len);
        finish<D, Pass == OWN_SEP_FIRST>(acc, dst + c0 * static_cast<ptrdiff_t>(sizeof(Out)),
                                         len, shift);
    }
}

template <int D, int Pass, int P, int N>
void rowPortable(const char* src, ptrdiff_t tapStep, const OwnSepKernel& k, char* dst,
                 int32_t count) {
    rowBody<D, Pass, P, N>(src, tapStep, k, dst, count);
}

#ifdef KUV_SEP_HAVE_AVX2
template <int D, int Pass, int P, int N>
__attribute__((target("avx2"))) void rowAvx2(const char* src, ptrdiff_t tapStep,
                                             const OwnSepKernel& k, char* dst, int32_t count) {
    rowBody<D, Pass, P, N>(src, tapStep, k, dst, count);
}
#endif

// ------------------------------------------------------------------ tables

// [pass][depth][samples per pixel: 1, 3, 4, other][taps: 3, 5, other]. Only
// one-sample rows have workers per tap count; column passes do not depend on
// the samples per pixel; 1U has one worker per pass.
constexpr int kPasses = 4, kChannelClasses = 4, kSizeClasses = 3;
using Table = std::array<OwnSepWorker, kPasses * OWN_DEPTH_COUNT * kChannelClasses * kSizeClasses>;

constexpr int cellIndex(int pass, int depth, int channels, int size) {
    return ((pass * OWN_DEPTH_COUNT + depth) * kChannelClasses + channels) * kSizeClasses + size;
}

struct Portable {
    template <int D, int Pass, int P, int N>
    static constexpr OwnSepWorker fn = &rowPortable<D, Pass, P, N>;
};
#ifdef KUV_SEP_HAVE_AVX2
struct Vector {
    template <int D, int Pass, int P, int N>
    static constexpr OwnSepWorker fn = &rowAvx2<D, Pass, P, N>;
};
#endif

template <class W, int Pass, int D>
constexpr OwnSepWorker cellOf(int channels, int size) {
    constexpr bool along = Pass == OWN_SEP_ROW || Pass == OWN_SEP_SECOND;
    if constexpr (D == OWN_1U) {
        return W::template fn<D, Pass, 0, 0>;
    } else {
        if (along && channels == 1) return W::template fn<D, Pass, 3, 0>;
        if (along && channels == 2) return W::template fn<D, Pass, 4, 0>;
        if (along && channels == 3) return W::template fn<D, Pass, 0, 0>;
        constexpr int P = along ? 1 : 0;
        if (size == 0) return W::template fn<D, Pass, P, 3>;
        if (size == 1) return W::template fn<D, Pass, P, 5>;
        return W::template fn<D, Pass, P, 0>;
    }
}

template <class W, int Pass, int... D>
constexpr void fillPass(Table& t, std::integer_sequence<int, D...>) {
    auto fillDepth = [&t](int depth, auto cell) {
        for (int c = 0; c < kChannelClasses; ++c) {
            for (int s = 0; s < kSizeClasses; ++s) t[cellIndex(Pass, depth, c, s)] = cell(c, s);
        }
    };
    (fillDepth(D, [](int c, int s) { return cellOf<W, Pass, D>(c, s); }), ...);
}

template <class W>
constexpr Table makeTable() {
    Table t{};
    const auto depths = std::make_integer_sequence<int, OWN_DEPTH_COUNT>{};
    fillPass<W, OWN_SEP_ROW>(t, depths);
    fillPass<W, OWN_SEP_COLUMN>(t, depths);
    fillPass<W, OWN_SEP_FIRST>(t, depths);
    fillPass<W, OWN_SEP_SECOND>(t, depths);
    return t;
}

constexpr Table kPortable = makeTable<Portable>();
#ifdef KUV_SEP_HAVE_AVX2
constexpr Table kVector = makeTable<Vector>();
#endif

bool vectorPath() {
#ifdef KUV_SEP_HAVE_AVX2
    return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0;
#else
    return false;
#endif
}


// ------------------------------------------------------------------ 16 bits

#ifdef KUV_SEP_HAVE_AVX2
constexpr int kNarrowTaps = 64;

template <bool Signed>
__attribute__((target("avx2"), always_inline)) inline __m256i load16(const uint8_t* p) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    return Signed ? _mm256_cvtepi8_epi16(v) : _mm256_cvtepu8_epi16(v);
}

__attribute__((target("avx2"), always_inline)) inline __m256i load16(const int16_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// The column pass of 8-bit rows in 16-bit lanes: the products and their sum
// modulo 2^16 are the true sum, which fits 16 bits.
template <bool Signed>
__attribute__((target("avx2"))) void narrowFirst(const char* src, ptrdiff_t rowStep,
                                                 const OwnSepKernel& k, char* mid,
                                                 int32_t count) {
    const auto* taps = static_cast<const int32_t*>(k.taps);
    const int n = k.length;
    const auto* s = reinterpret_cast<const uint8_t*>(src);
    int16_t* t = reinterpret_cast<int16_t*>(mid);
    __m256i kv[kNarrowTaps];
    for (int j = 0; j < n; ++j) kv[j] = _mm256_set1_epi16(static_cast<int16_t>(taps[j]));
    int32_t x = 0;
    for (; x + 32 <= count; x += 32) {
        __m256i a0 = _mm256_mullo_epi16(load16<Signed>(s + x), kv[0]);
        __m256i a1 = _mm256_mullo_epi16(load16<Signed>(s + x + 16), kv[0]);
        for (int j = 1; j < n; ++j) {
            const uint8_t* r = s + j * rowStep + x;
            a0 = _mm256_add_epi16(a0, _mm256_mullo_epi16(load16<Signed>(r), kv[j]));
            a1 = _mm256_add_epi16(a1, _mm256_mullo_epi16(load16<Signed>(r + 16), kv[j]));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(t + x), a0);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(t + x + 16), a1);
    }
    for (; x < count; ++x) {
        uint32_t a = 0;
        for (int j = 0; j < n; ++j) {
            const int32_t v = Signed ? static_cast<int8_t>(s[j * rowStep + x]) : s[j * rowStep + x];
            a += product(taps[j], v);
        }
        t[x] = static_cast<int16_t>(a);
    }
}

// The row pass over 16-bit sums: pairs of taps multiply pairs of samples,
// interleaved, in 32-bit lanes; packing with saturation is the clamp.
template <bool Signed>
__attribute__((target("avx2"))) void narrowSecond(const char* mid, ptrdiff_t tapStep,
                                                  const OwnSepKernel& k, char* dst,
                                                  int32_t count) {
    const auto* taps = static_cast<const int32_t*>(k.taps);
    const int n = k.paddedLength;
    const int shift = k.nShiftR & 31;
    const int16_t* t = reinterpret_cast<const int16_t*>(mid);
    auto* out = reinterpret_cast<uint8_t*>(dst);
    __m256i kp[kNarrowTaps / 2 + 1];
    for (int m = 0; 2 * m < n; ++m) {
        const uint32_t lo = static_cast<uint16_t>(taps[2 * m]);
        const uint32_t hi = 2 * m + 1 < n ? static_cast<uint16_t>(taps[2 * m + 1]) : 0;
        kp[m] = _mm256_set1_epi32(static_cast<int32_t>(lo | hi << 16));
    }
    const __m128i sh = _mm_cvtsi32_si128(shift);
    const __m256i zero = _mm256_setzero_si256();
    int32_t x = 0;
    for (; x + 16 <= count; x += 16) {
        __m256i lo = zero, hi = zero;
        int m = 0;
        for (; 2 * m + 1 < n; ++m) {
            const __m256i a = load16(t + x + 2 * m * tapStep);
            const __m256i b = load16(t + x + (2 * m + 1) * tapStep);
            lo = _mm256_add_epi32(lo, _mm256_madd_epi16(_mm256_unpacklo_epi16(a, b), kp[m]));
            hi = _mm256_add_epi32(hi, _mm256_madd_epi16(_mm256_unpackhi_epi16(a, b), kp[m]));
        }
        if (2 * m < n) {
            const __m256i a = load16(t + x + 2 * m * tapStep);
            lo = _mm256_add_epi32(lo, _mm256_madd_epi16(_mm256_unpacklo_epi16(a, zero), kp[m]));
            hi = _mm256_add_epi32(hi, _mm256_madd_epi16(_mm256_unpackhi_epi16(a, zero), kp[m]));
        }
        const __m256i w = _mm256_packs_epi32(_mm256_sra_epi32(lo, sh), _mm256_sra_epi32(hi, sh));
        const __m256i b = Signed ? _mm256_packs_epi16(w, w) : _mm256_packus_epi16(w, w);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x),
                         _mm256_castsi256_si128(_mm256_permute4x64_epi64(b, 0x08)));
    }
    for (; x < count; ++x) {
        uint32_t a = 0;
        for (int i = 0; i < n; ++i) a += product(taps[i], int32_t{t[x + i * tapStep]});
        const int32_t v = static_cast<int32_t>(a) >> shift;
        out[x] = static_cast<uint8_t>(Signed ? std::clamp(v, -128, 127) : std::clamp(v, 0, 255));
    }
}

constexpr OwnSepNarrow kNarrow8U{&narrowFirst<false>, &narrowSecond<false>};
constexpr OwnSepNarrow kNarrow8S{&narrowFirst<true>, &narrowSecond<true>};
#endif

bool fits16(int64_t v) { return v >= INT16_MIN && v <= INT16_MAX; }

}  // namespace

OwnSepWorker ownSepWorker(int pass, int depthIndex, int samplesPerPixel, int taps) {
    const int channels = samplesPerPixel == 1   ? 0
                         : samplesPerPixel == 3 ? 1
                         : samplesPerPixel == 4 ? 2
                                                : 3;
    const int size = taps == 3 ? 0 : taps == 5 ? 1 : 2;
    const int i = cellIndex(pass, depthIndex, channels, size);
#ifdef KUV_SEP_HAVE_AVX2
    if (vectorPath()) return kVector[i];
#endif
    return kPortable[i];
}

const OwnSepNarrow* ownSepNarrow(int depthIndex, const OwnSepKernel& column,
                                 const OwnSepKernel& row) {
#ifdef KUV_SEP_HAVE_AVX2
    if (!vectorPath() || (depthIndex != OWN_8U && depthIndex != OWN_8S)) return nullptr;
    if (column.length > kNarrowTaps || row.paddedLength > kNarrowTaps) return nullptr;
    const int64_t low = depthIndex == OWN_8U ? 0 : -128, high = depthIndex == OWN_8U ? 255 : 127;
    const auto* ct = static_cast<const int32_t*>(column.taps);
    const auto* rt = static_cast<const int32_t*>(row.taps);
    int64_t least = 0, most = 0;
    for (int j = 0; j < column.length; ++j) {
        if (!fits16(ct[j])) return nullptr;
        least += std::min(ct[j] * low, ct[j] * high);
        most += std::max(ct[j] * low, ct[j] * high);
    }
    for (int i = 0; i < row.paddedLength; ++i) {
        if (!fits16(rt[i])) return nullptr;
    }
    if (!fits16(least) || !fits16(most)) return nullptr;
    return depthIndex == OWN_8U ? &kNarrow8U : &kNarrow8S;
#else
    (void)depthIndex;
    (void)column;
    (void)row;
    return nullptr;
#endif
}

