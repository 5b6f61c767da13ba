// The convolution kernels as the filter family sees them, and the records
// and row operations of one 2-D convolution call.
#ifndef KUV_FILTER_CONVOLVE_H
#define KUV_FILTER_CONVOLVE_H

#include "kuv_own.h"

#include <cstddef>
#include <cstdint>

// The fields that KuvConvKernel and KuvConvKernelFP share, in their order.
// Anchors and coefficients are stored reversed: a plain correlation with the
// stored record is a convolution with the coefficients as given.
struct OwnConvKernel {
    int32_t nCols;
    int32_t nRows;
    int32_t anchorX;   // nCols - 1 - the given anchor column
    int32_t anchorY;   // nRows - 1 - the given anchor row
    void* values;
};

// True for a size below 1 or a stored anchor outside the kernel.
bool ownBadKernel(const OwnConvKernel* kernel);

// ------------------------------------------------------------------ one call

// The tap loop of a kernel, chosen from its size, its zeros and its units.
enum OwnTapLoop : int {
    OWN_TAPS_SKIP_ZERO,   // a rounding to single after each nonzero tap
    OWN_TAPS_UNIT,        // the same, with additions for coefficients of 1 and -1
    OWN_TAPS_DENSE,       // two kernel rows per rounding
    OWN_TAPS_FIXED_3,     // the whole 3x3 sum
    OWN_TAPS_FIXED_5,     // the whole 5x5 sum
};

struct OwnConvStage;

// The row operations of a stage and of a plan. Rows hold n samples; a source
// position has the taps of kernel row r, column c at src[r * rowStride +
// c * channels + i].
using OwnClearRow = void (*)(float* acc, int32_t n);
using OwnFixedShape = void (*)(const float* src, ptrdiff_t rowStride, float* acc, int32_t n,
                               const OwnConvStage* stage);
using OwnAccumulate = void (*)(const float* src, int32_t channels, const OwnConvStage* stage,
                               int32_t nRows, int32_t nCols, float* acc, int32_t n,
                               ptrdiff_t rowStride);
using OwnStoreRow = void (*)(const float* acc, void* out, int32_t n);
// Two adjacent output rows of a fixed shape at once: src is the first row's
// position, the second row's result goes to acc1.
using OwnFixedPair = void (*)(const float* src, ptrdiff_t rowStride, float* acc0, float* acc1,
                              int32_t n, const OwnConvStage* stage);
using OwnShiftRow = void (*)(const float* acc, float* out, int32_t n, const OwnConvStage* stage);
using OwnShiftCombine = void (*)(float* total, const float* acc, int32_t n,
                                 const OwnConvStage* stage);
using OwnCombine = void (*)(float* total, const float* acc, int32_t n);
using OwnFinishTotal = void (*)(float* total, int32_t n);

// One kernel of a call.
struct OwnConvStage {
    int32_t nZeros;             // coefficients equal to 0
    int32_t nUnits;             // coefficients equal to 1 or -1
    int32_t nShiftR;            // as the kernel holds it; its low 5 bits act
    const float* floatValues;   // stored order; a private block for an integer kernel
    const int32_t* intValues;   // an integer kernel's values, else null
    bool ownsFloatValues;
    const uint8_t* maskRow;   // the plan's current mask row, or null

    // What the row operations need beyond their arguments.
    int32_t nCols, nRows;
    int32_t anchorX, anchorY;   // stored
    int32_t channels;           // samples per pixel in the work rows
    OwnTapLoop loop;
    // Every partial sum of this kernel is an integer below 2^24 in magnitude,
    // so that any order of the float operations gives the same exact sum.
    bool exact;

    OwnClearRow clearRow;
    OwnFixedShape fixedShape;
    OwnFixedPair fixedShapePair;   // the same shape two rows at a time, or null
    OwnAccumulate accumulate;
    OwnStoreRow storeRow;
    OwnShiftRow shiftInPlace;
    OwnShiftCombine shiftCombine;
    OwnCombine combine;
};

// One call: its kernels and how their results become one.
struct OwnConvPlan {
    const OwnConvKernel* kernels;   // views of the call's kernel records
    int32_t nKernels;
    int32_t method;
    int32_t channels;         // samples per pixel in the work rows
    uint32_t flags;           // OWN_CONV_MASKED
    const uint8_t* maskRow;   // bytes 0 or 255, one per pixel of the row
    OwnStoreRow storeTotal;
    OwnFinishTotal finishTotal;
    OwnConvStage* stages;
};

constexpr uint32_t OWN_CONV_MASKED = 1;

// ------------------------------------------------------------------ row sets

// The row operations of one instruction set. Results are the same, bit for
// bit, in every set: a set differs from the baseline in speed only.
struct OwnConvRows {
    OwnClearRow clear;
    // [3x3, 5x5][1 channel, 3 channels]: exact integer kernels, the other
    // integer kernels, and float kernels.
    OwnFixedShape fixedExact[2][2];
    OwnFixedShape fixedRounded[2][2];
    OwnFixedShape fixedFused[2][2];
    OwnFixedPair pairFused[2][2];    // float kernels two rows at a time
    OwnAccumulate accumulateExact;   // exact kernels, any loop
    OwnAccumulate accumulateTaps;    // skip-zero and unit loops
    OwnAccumulate accumulateDense;
    OwnShiftRow shift;
    OwnShiftCombine shiftStore, shiftAdd;
    OwnCombine copy, add, square, addSquare, absolute, maximum, minimum;
    OwnFinishTotal squareRoot;
};

const OwnConvRows& ownConvRowsBase();
const OwnConvRows& ownConvRowsVector();   // only where ownFilterVectorRows()

// The set that runs: the vector set when the filter rows run vectorised.
const OwnConvRows& ownConvRows();

// The shift of one float: rounded to an integer (nearest, ties to even),
// its low 32 bits shifted right arithmetically by the low 5 bits of shift,
// back to float. Magnitudes of 2^63 and beyond, and NaN, give 0: the low bits
// of the processor's "integer indefinite".
float ownConvShift(float x, int32_t shift);

#endif
