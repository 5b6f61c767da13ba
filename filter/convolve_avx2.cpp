// The convolution's row operations for AVX2 with FMA: the same arithmetic as
// the baseline set, several samples at a time, each row's tail finished by
// the element functions of convolve_rows.h. Only functions of this file
// carry the vector target, so nothing shared with other files is compiled
// for it; the set is used only after the processor check.
//
// A fused multiply-add is used only where it cannot change a result (on
// exact kernels, and in double precision on products of two floats, which
// are exact there) or where the baseline fuses too (the single-precision
// chain of float kernels, std::fma).
#include "filter/convolve_rows.h"

#include "filter/rowconv.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))

#include <immintrin.h>

#include <cmath>
#include <cstring>

#define KUV_AVX2 __attribute__((target("avx2,fma")))

namespace kuv::conv {
namespace {

KUV_AVX2 inline Taps tapsOf(const float* src, int32_t channels, ptrdiff_t rowStride,
                            const OwnConvStage* stage) {
    return Taps{src, rowStride, channels, stage->nRows, stage->nCols, stage->floatValues};
}

KUV_AVX2 inline __m256d wide(const float* p) { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }

// Rounds four doubles to float and back: the store to a float row.
KUV_AVX2 inline __m256d throughFloat(__m256d v) { return _mm256_cvtps_pd(_mm256_cvtpd_ps(v)); }

// Single-precision chains over a table of taps, 64 samples in registers.
// A chain starts from zero, from acc, or from the first tap's product, and
// adds every later tap with one fused rounding.
enum class Start { Zero, Acc, FirstProduct };

constexpr int kTapGroup = 64;   // taps per table; longer kernels go in groups

// U blocks of 8 samples from i on, one accumulator each, so that the chains
// of a block overlap.
template <Start S, int U>
[[gnu::always_inline]] KUV_AVX2 inline void chainBlocks(const float* src, const ptrdiff_t* off,
                                                        const float* w, int32_t nTaps, float* acc,
                                                        int32_t i) {
    const int32_t first = S == Start::FirstProduct ? 1 : 0;
    __m256 a[U];
    for (int u = 0; u < U; ++u) {
        const int32_t at = i + 8 * u;
        if constexpr (S == Start::Zero) a[u] = _mm256_setzero_ps();
        if constexpr (S == Start::Acc) a[u] = _mm256_loadu_ps(acc + at);
        if constexpr (S == Start::FirstProduct) {
            a[u] = _mm256_mul_ps(_mm256_loadu_ps(src + off[0] + at), _mm256_set1_ps(w[0]));
        }
    }
    for (int32_t t = first; t < nTaps; ++t) {
        const __m256 k = _mm256_set1_ps(w[t]);
        const float* p = src + off[t] + i;
        for (int u = 0; u < U; ++u) a[u] = _mm256_fmadd_ps(_mm256_loadu_ps(p + 8 * u), k, a[u]);
    }
    for (int u = 0; u < U; ++u) _mm256_storeu_ps(acc + i + 8 * u, a[u]);
}

template <Start S>
[[gnu::always_inline]] KUV_AVX2 inline void chainRow(const float* src, const ptrdiff_t* off,
                                                     const float* w, int32_t nTaps, float* acc,
                                                     int32_t n) {
    int32_t i = 0;
    for (; i + 64 <= n; i += 64) chainBlocks<S, 8>(src, off, w, nTaps, acc, i);
    switch ((n - i) / 8) {
        case 7: chainBlocks<S, 7>(src, off, w, nTaps, acc, i); break;
        case 6: chainBlocks<S, 6>(src, off, w, nTaps, acc, i); break;
        case 5: chainBlocks<S, 5>(src, off, w, nTaps, acc, i); break;
        case 4: chainBlocks<S, 4>(src, off, w, nTaps, acc, i); break;
        case 3: chainBlocks<S, 3>(src, off, w, nTaps, acc, i); break;
        case 2: chainBlocks<S, 2>(src, off, w, nTaps, acc, i); break;
        case 1: chainBlocks<S, 1>(src, off, w, nTaps, acc, i); break;
        default: break;
    }
    const int32_t first = S == Start::FirstProduct ? 1 : 0;
    for (i += (n - i) / 8 * 8; i < n; ++i) {
        float a = S == Start::Zero ? 0.0f : S == Start::Acc ? acc[i] : src[off[0] + i] * w[0];
        for (int32_t t = first; t < nTaps; ++t) a = std::fma(src[off[t] + i], w[t], a);
        acc[i] = a;
    }
}

// Exact kernels: the nonzero taps in groups; any order gives the exact sum.
[[gnu::always_inline]] KUV_AVX2 inline void exactRow(const Taps& t, float* acc, int32_t n,
                                                     bool add) {
    ptrdiff_t off[kTapGroup];
    float w[kTapGroup];
    int32_t count = 0, done = 0;
    const int32_t taps = t.nRows * t.nCols;
    for (int32_t j = 0; j < taps; ++j) {
        const int32_t r = j / t.nCols, c = j % t.nCols;
        if (t.weight(r, c) != 0.0f) {
            off[count] = r * t.rowStride + c * t.channels;
            w[count++] = t.weight(r, c);
        }
        // A full table, or the last tap: run the group (a kernel with no
        // nonzero tap still clears a row that it writes whole).
        if (count == kTapGroup || (j == taps - 1 && (count > 0 || (done == 0 && !add)))) {
            if (add || done > 0)
                chainRow<Start::Acc>(t.src, off, w, count, acc, n);
            else
                chainRow<Start::Zero>(t.src, off, w, count, acc, n);
            done += count + 1;
            count = 0;
        }
    }
}

template <int K, int CH>
KUV_AVX2 void fixedExactVector(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                               const OwnConvStage* stage) {
    const Taps t{src, rowStride, CH, K, K, stage->floatValues};
    exactRow(t, acc, n, false);
}

KUV_AVX2 void accumulateExactVector(const float* src, int32_t channels, const OwnConvStage* stage,
                                    int32_t, int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    exactRow(tapsOf(src, channels, rowStride, stage), acc, n, true);
}

// Float kernels: the chain over all taps, zeros too, in stored order.
template <int K, int CH>
KUV_AVX2 void fixedFusedVector(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                               const OwnConvStage* stage) {
    ptrdiff_t off[K * K];
    for (int j = 0; j < K * K; ++j) off[j] = (j / K) * rowStride + (j % K) * CH;
    chainRow<Start::FirstProduct>(src, off, stage->floatValues, K * K, acc, n);
}

// Float kernels, two adjacent output rows: source row s serves kernel row
// s of the first and kernel row s - 1 of the second, so each source vector
// is loaded once for both. Every sample still takes its taps in stored order.
template <int U, int K, int CH>
[[gnu::always_inline]] KUV_AVX2 inline void pairBlocks(const float* src, ptrdiff_t rowStride,
                                                       const float* w, float* acc0, float* acc1,
                                                       int32_t i) {
    __m256 a0[U], a1[U];
    for (int u = 0; u < U; ++u) a0[u] = a1[u] = _mm256_setzero_ps();
        // Unrolled whole, so that which taps start, join or skip a chain is
        // settled when compiling.
#pragma GCC unroll 8
    for (int s = 0; s <= K; ++s) {
#pragma GCC unroll 8
        for (int c = 0; c < K; ++c) {
            const float wt = s < K ? w[s * K + c] : 0.0f, wb = s > 0 ? w[(s - 1) * K + c] : 0.0f;
            // Every tap joins, zeros too; a chain's first tap is a plain product.
            const bool top = s<K, bottom = s> 0;
            const bool firstTop = s == 0 && c == 0, firstBottom = s == 1 && c == 0;
            const __m256 kt = _mm256_set1_ps(wt), kb = _mm256_set1_ps(wb);
            const float* p = src + s * rowStride + c * CH + i;
            for (int u = 0; u < U; ++u) {
                const __m256 v = _mm256_loadu_ps(p + 8 * u);
                if (top) a0[u] = firstTop ? _mm256_mul_ps(v, kt) : _mm256_fmadd_ps(v, kt, a0[u]);
                if (bottom) {
                    a1[u] = firstBottom ? _mm256_mul_ps(v, kb) : _mm256_fmadd_ps(v, kb, a1[u]);
                }
            }
        }
    }
    for (int u = 0; u < U; ++u) {
        _mm256_storeu_ps(acc0 + i + 8 * u, a0[u]);
        _mm256_storeu_ps(acc1 + i + 8 * u, a1[u]);
    }
}

template <int K, int CH>
KUV_AVX2 void pairFusedVector(const float* src, ptrdiff_t rowStride, float* acc0, float* acc1,
                              int32_t n, const OwnConvStage* stage) {
    const float* w = stage->floatValues;
    int32_t i = 0;
    for (; i + 32 <= n; i += 32) pairBlocks<4, K, CH>(src, rowStride, w, acc0, acc1, i);
    switch ((n - i) / 8) {
        case 3: pairBlocks<3, K, CH>(src, rowStride, w, acc0, acc1, i); break;
        case 2: pairBlocks<2, K, CH>(src, rowStride, w, acc0, acc1, i); break;
        case 1: pairBlocks<1, K, CH>(src, rowStride, w, acc0, acc1, i); break;
        default: break;
    }
    const Taps t0{src, rowStride, CH, K, K, w}, t1{src + rowStride, rowStride, CH, K, K, w};
    for (i += (n - i) / 8 * 8; i < n; ++i) {
        acc0[i] = fusedAt(t0, i);
        acc1[i] = fusedAt(t1, i);
    }
}

// The fixed shapes of other kernels: one double sum per sample over all
// taps, from the first product on, rounded once.
template <int K, int CH>
KUV_AVX2 void fixedRoundedVector(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                                 const OwnConvStage* stage) {
    const Taps t{src, rowStride, CH, K, K, stage->floatValues};
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256d k0 = _mm256_set1_pd(t.weight(0, 0));
        const float* p0 = t.at(0, 0) + i;
        __m256d d0 = _mm256_mul_pd(wide(p0), k0), d1 = _mm256_mul_pd(wide(p0 + 4), k0);
        __m256d d2 = _mm256_mul_pd(wide(p0 + 8), k0), d3 = _mm256_mul_pd(wide(p0 + 12), k0);
        for (int32_t j = 1; j < K * K; ++j) {
            const int32_t r = j / K, c = j % K;
            const __m256d k = _mm256_set1_pd(t.weight(r, c));
            const float* p = t.at(r, c) + i;
            d0 = _mm256_fmadd_pd(wide(p), k, d0);
            d1 = _mm256_fmadd_pd(wide(p + 4), k, d1);
            d2 = _mm256_fmadd_pd(wide(p + 8), k, d2);
            d3 = _mm256_fmadd_pd(wide(p + 12), k, d3);
        }
        _mm256_storeu_ps(acc + i, _mm256_set_m128(_mm256_cvtpd_ps(d1), _mm256_cvtpd_ps(d0)));
        _mm256_storeu_ps(acc + i + 8, _mm256_set_m128(_mm256_cvtpd_ps(d3), _mm256_cvtpd_ps(d2)));
    }
    for (; i < n; ++i) acc[i] = roundedAt(t, i);
}

// Skip-zero and unit loops of other kernels: a rounding to float per tap.
KUV_AVX2 void accumulateTapsVector(const float* src, int32_t channels, const OwnConvStage* stage,
                                   int32_t, int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    const Taps t = tapsOf(src, channels, rowStride, stage);
    int32_t i = 0;
    for (; i + 16 <= n; i += 16) {
        __m256d d0 = wide(acc + i), d1 = wide(acc + i + 4);
        __m256d d2 = wide(acc + i + 8), d3 = wide(acc + i + 12);
        for (int32_t r = 0; r < t.nRows; ++r) {
            for (int32_t c = 0; c < t.nCols; ++c) {
                const float w = t.weight(r, c);
                if (w == 0.0f) continue;
                const __m256d k = _mm256_set1_pd(w);
                const float* p = t.at(r, c) + i;
                d0 = throughFloat(_mm256_fmadd_pd(wide(p), k, d0));
                d1 = throughFloat(_mm256_fmadd_pd(wide(p + 4), k, d1));
                d2 = throughFloat(_mm256_fmadd_pd(wide(p + 8), k, d2));
                d3 = throughFloat(_mm256_fmadd_pd(wide(p + 12), k, d3));
            }
        }
        _mm256_storeu_ps(acc + i, _mm256_set_m128(_mm256_cvtpd_ps(d1), _mm256_cvtpd_ps(d0)));
        _mm256_storeu_ps(acc + i + 8, _mm256_set_m128(_mm256_cvtpd_ps(d3), _mm256_cvtpd_ps(d2)));
    }
    for (; i < n; ++i) acc[i] = tapsAt(t, i, acc[i]);
}

// The dense loop of other kernels: two kernel rows per rounding to float.
KUV_AVX2 void accumulateDenseVector(const float* src, int32_t channels, const OwnConvStage* stage,
                                    int32_t, int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    const Taps t = tapsOf(src, channels, rowStride, stage);
    int32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256d lo = wide(acc + i), hi = wide(acc + i + 4);
        int32_t r = 0;
        for (; r + 1 < t.nRows; r += 2) {
            for (int32_t c = 0; c < t.nCols; ++c) {
                const __m256d k0 = _mm256_set1_pd(t.weight(r, c));
                const __m256d k1 = _mm256_set1_pd(t.weight(r + 1, c));
                const float *p0 = t.at(r, c) + i, *p1 = t.at(r + 1, c) + i;
                const __m256d pairLo = _mm256_fmadd_pd(wide(p1), k1, _mm256_mul_pd(wide(p0), k0));
                const __m256d pairHi =
                    _mm256_fmadd_pd(wide(p1 + 4), k1, _mm256_mul_pd(wide(p0 + 4), k0));
                lo = throughFloat(_mm256_add_pd(lo, pairLo));
                hi = throughFloat(_mm256_add_pd(hi, pairHi));
            }
        }
        if (r < t.nRows) {
            for (int32_t c = 0; c < t.nCols; ++c) {
                const __m256d k = _mm256_set1_pd(t.weight(r, c));
                const float* p = t.at(r, c) + i;
                lo = throughFloat(_mm256_fmadd_pd(wide(p), k, lo));
                hi = throughFloat(_mm256_fmadd_pd(wide(p + 4), k, hi));
            }
        }
        _mm256_storeu_ps(acc + i, _mm256_set_m128(_mm256_cvtpd_ps(hi), _mm256_cvtpd_ps(lo)));
    }
    for (; i < n; ++i) acc[i] = denseAt(t, i, acc[i]);
}

// The shift of 8 floats when all of them convert to 32 bits as they are;
// false when one of them lies outside, for the element function to do.
KUV_AVX2 inline bool shift8(const float* from, __m256* to, __m128i count) {
    const __m256 x = _mm256_loadu_ps(from);
    const __m256 inside =
        _mm256_and_ps(_mm256_cmp_ps(x, _mm256_set1_ps(-2147483648.0f), _CMP_GE_OQ),
                      _mm256_cmp_ps(x, _mm256_set1_ps(2147483648.0f), _CMP_LT_OQ));
    if (_mm256_movemask_ps(inside) != 0xFF) return false;
    *to = _mm256_cvtepi32_ps(_mm256_sra_epi32(_mm256_cvtps_epi32(x), count));
    return true;
}

KUV_AVX2 void shiftVector(const float* acc, float* out, int32_t n, const OwnConvStage* stage) {
    const __m128i count = _mm_cvtsi32_si128(stage->nShiftR & 31);
    int32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256 v;
        if (shift8(acc + i, &v, count)) {
            _mm256_storeu_ps(out + i, v);
        } else {
            for (int32_t j = i; j < i + 8; ++j) out[j] = ownConvShift(acc[j], stage->nShiftR);
        }
    }
    for (; i < n; ++i) out[i] = ownConvShift(acc[i], stage->nShiftR);
}

KUV_AVX2 void shiftStoreVector(float* total, const float* acc, int32_t n,
                               const OwnConvStage* stage) {
    shiftVector(acc, total, n, stage);
}

KUV_AVX2 void shiftAddVector(float* total, const float* acc, int32_t n, const OwnConvStage* stage) {
    const __m128i count = _mm_cvtsi32_si128(stage->nShiftR & 31);
    int32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256 v;
        if (shift8(acc + i, &v, count)) {
            _mm256_storeu_ps(total + i, _mm256_add_ps(_mm256_loadu_ps(total + i), v));
        } else {
            for (int32_t j = i; j < i + 8; ++j) total[j] += ownConvShift(acc[j], stage->nShiftR);
        }
    }
    for (; i < n; ++i) total[i] += ownConvShift(acc[i], stage->nShiftR);
}

KUV_AVX2 void clearVector(float* acc, int32_t n) { std::memset(acc, 0, sizeof(float) * size_t(n)); }

template <class F>
KUV_AVX2 void foldVector(float* total, const float* acc, int32_t n) {
    foldRow<F>(total, acc, n);
}

KUV_AVX2 void rootVector(float* total, int32_t n) { rootRow(total, n); }

constexpr OwnConvRows vectorRows = {
    &clearVector,
    {{&fixedExactVector<3, 1>, &fixedExactVector<3, 3>},
     {&fixedExactVector<5, 1>, &fixedExactVector<5, 3>}},
    {{&fixedRoundedVector<3, 1>, &fixedRoundedVector<3, 3>},
     {&fixedRoundedVector<5, 1>, &fixedRoundedVector<5, 3>}},
    {{&fixedFusedVector<3, 1>, &fixedFusedVector<3, 3>},
     {&fixedFusedVector<5, 1>, &fixedFusedVector<5, 3>}},
    {{&pairFusedVector<3, 1>, &pairFusedVector<3, 3>},
     {&pairFusedVector<5, 1>, &pairFusedVector<5, 3>}},
    &accumulateExactVector,
    &accumulateTapsVector,
    &accumulateDenseVector,
    &shiftVector,
    &shiftStoreVector,
    &shiftAddVector,
    &foldVector<FoldCopy>,
    &foldVector<FoldAdd>,
    &foldVector<FoldSquare>,
    &foldVector<FoldAddSquare>,
    &foldVector<FoldAbsolute>,
    &foldVector<FoldMaximum>,
    &foldVector<FoldMinimum>,
    &rootVector,
};

}   // namespace
}   // namespace kuv::conv

const OwnConvRows& ownConvRowsVector() { return kuv::conv::vectorRows; }

#else

const OwnConvRows& ownConvRowsVector() { return ownConvRowsBase(); }

#endif
