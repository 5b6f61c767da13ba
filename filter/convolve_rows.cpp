// The baseline row operations of the 2-D convolution: the reference that the
// vector set must match bit for bit. Loops that sweep a row per tap
// vectorise with the baseline instruction set; the fixed shapes that round
// once keep a double sum per sample.
#include "filter/convolve_rows.h"

#include "filter/rowconv.h"

#include <cstring>

namespace kuv::conv {
namespace {

Taps tapsOf(const float* src, int32_t channels, ptrdiff_t rowStride, const OwnConvStage* stage) {
    return Taps{src, rowStride, channels, stage->nRows, stage->nCols, stage->floatValues};
}

void clearBase(float* acc, int32_t n) { std::memset(acc, 0, sizeof(float) * size_t(n)); }

// acc += x * k for every nonzero tap, a row at a time.
void sweepExact(const Taps& t, float* acc, int32_t n) {
    for (int32_t r = 0; r < t.nRows; ++r) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const float k = t.weight(r, c);
            if (k == 0.0f) continue;
            const float* x = t.at(r, c);
            for (int32_t i = 0; i < n; ++i) acc[i] += x[i] * k;
        }
    }
}

template <int K, int CH>
void fixedExactBase(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                    const OwnConvStage* stage) {
    clearBase(acc, n);
    sweepExact(tapsOf(src, CH, rowStride, stage), acc, n);
}

template <int K, int CH>
void fixedRoundedBase(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                      const OwnConvStage* stage) {
    const Taps t = tapsOf(src, CH, rowStride, stage);
    for (int32_t i = 0; i < n; ++i) acc[i] = roundedAt(t, i);
}

template <int K, int CH>
void fixedFusedBase(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                    const OwnConvStage* stage) {
    const Taps t = tapsOf(src, CH, rowStride, stage);
    for (int32_t i = 0; i < n; ++i) acc[i] = fusedAt(t, i);
}

// Two rows are two calls: the vector set must match them sample by sample.
template <int K, int CH>
void pairFusedBase(const float* src, ptrdiff_t rowStride, float* acc0, float* acc1, int32_t n,
                   const OwnConvStage* stage) {
    fixedFusedBase<K, CH>(src, rowStride, acc0, n, stage);
    fixedFusedBase<K, CH>(src + rowStride, rowStride, acc1, n, stage);
}

void accumulateExactBase(const float* src, int32_t channels, const OwnConvStage* stage, int32_t,
                         int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    sweepExact(tapsOf(src, channels, rowStride, stage), acc, n);
}

void accumulateTapsBase(const float* src, int32_t channels, const OwnConvStage* stage, int32_t,
                        int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    const Taps t = tapsOf(src, channels, rowStride, stage);
    for (int32_t r = 0; r < t.nRows; ++r) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const double k = t.weight(r, c);
            if (k == 0.0) continue;
            const float* x = t.at(r, c);
            for (int32_t i = 0; i < n; ++i) {
                acc[i] = static_cast<float>(static_cast<double>(acc[i]) + x[i] * k);
            }
        }
    }
}

void accumulateDenseBase(const float* src, int32_t channels, const OwnConvStage* stage, int32_t,
                         int32_t, float* acc, int32_t n, ptrdiff_t rowStride) {
    const Taps t = tapsOf(src, channels, rowStride, stage);
    int32_t r = 0;
    for (; r + 1 < t.nRows; r += 2) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const float k0 = t.weight(r, c), k1 = t.weight(r + 1, c);
            const float *x0 = t.at(r, c), *x1 = t.at(r + 1, c);
            for (int32_t i = 0; i < n; ++i) acc[i] = densePair(acc[i], x0[i], k0, x1[i], k1);
        }
    }
    if (r < t.nRows) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const double k = t.weight(r, c);
            const float* x = t.at(r, c);
            for (int32_t i = 0; i < n; ++i) {
                acc[i] = static_cast<float>(static_cast<double>(acc[i]) + x[i] * k);
            }
        }
    }
}

void shiftBase(const float* acc, float* out, int32_t n, const OwnConvStage* stage) {
    for (int32_t i = 0; i < n; ++i) out[i] = ownConvShift(acc[i], stage->nShiftR);
}
void shiftStoreBase(float* total, const float* acc, int32_t n, const OwnConvStage* stage) {
    shiftBase(acc, total, n, stage);
}
void shiftAddBase(float* total, const float* acc, int32_t n, const OwnConvStage* stage) {
    for (int32_t i = 0; i < n; ++i) total[i] += ownConvShift(acc[i], stage->nShiftR);
}

template <class F>
void foldBase(float* total, const float* acc, int32_t n) {
    foldRow<F>(total, acc, n);
}
void rootBase(float* total, int32_t n) { rootRow(total, n); }

constexpr OwnConvRows baseRows = {
    &clearBase,
    {{&fixedExactBase<3, 1>, &fixedExactBase<3, 3>},
     {&fixedExactBase<5, 1>, &fixedExactBase<5, 3>}},
    {{&fixedRoundedBase<3, 1>, &fixedRoundedBase<3, 3>},
     {&fixedRoundedBase<5, 1>, &fixedRoundedBase<5, 3>}},
    {{&fixedFusedBase<3, 1>, &fixedFusedBase<3, 3>},
     {&fixedFusedBase<5, 1>, &fixedFusedBase<5, 3>}},
    {{&pairFusedBase<3, 1>, &pairFusedBase<3, 3>}, {&pairFusedBase<5, 1>, &pairFusedBase<5, 3>}},
    &accumulateExactBase,
    &accumulateTapsBase,
    &accumulateDenseBase,
    &shiftBase,
    &shiftStoreBase,
    &shiftAddBase,
    &foldBase<FoldCopy>,
    &foldBase<FoldAdd>,
    &foldBase<FoldSquare>,
    &foldBase<FoldAddSquare>,
    &foldBase<FoldAbsolute>,
    &foldBase<FoldMaximum>,
    &foldBase<FoldMinimum>,
    &rootBase,
};

}   // namespace
}   // namespace kuv::conv

float ownConvShift(float x, int32_t shift) {
    // llrint is defined below 2^63; beyond it the processor's conversion
    // gives the "integer indefinite", whose low 32 bits are 0.
    if (!(std::fabs(x) < 9223372036854775808.0f)) return 0.0f;
    const auto low = static_cast<int32_t>(static_cast<uint32_t>(std::llrint(x)));
    return static_cast<float>(low >> (shift & 31));
}

const OwnConvRows& ownConvRowsBase() { return kuv::conv::baseRows; }

const OwnConvRows& ownConvRows() {
    return ownFilterVectorRows() ? ownConvRowsVector() : ownConvRowsBase();
}
