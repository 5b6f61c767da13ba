// Row workers of the separable convolution, shared by its engine
// (filter/sepconv.cpp) and its tests.
#ifndef KUV_FILTER_SEP_ROWS_H
#define KUV_FILTER_SEP_ROWS_H

#include "kuv_own.h"

#include <cstddef>
#include <cstdint>

// One direction of a separable kernel, built for one call. taps hold the
// record's stored (reversed) order, so out(x) = sum of taps[i] * src(x -
// anchor + i); behind `length` they are zero up to `paddedLength`.
struct OwnSepKernel {
    int32_t length;
    int32_t paddedLength;
    int32_t anchor;
    int32_t nShiftR;
    void* taps;   // int32_t or float
};

// The four passes: row kernel alone, column kernel alone, and the two
// passes of both (column first into an intermediate row of 32-bit sums,
// then the row kernel over it).
enum OwnSepPass : int { OWN_SEP_ROW = 0, OWN_SEP_COLUMN, OWN_SEP_FIRST, OWN_SEP_SECOND };

// One output row: out[k] = sum of taps[i] * src[k + i * tapStep] for k below
// count, finished by the pass: the first pass stores the raw sums (32-bit
// integers, floats for 32F), the others shift and clamp to the depth (1U:
// one byte 0 or 1 per sample, from unpacked samples). tapStep counts source
// elements: samples per pixel along a row, elements per row down a column.
using OwnSepWorker = void (*)(const char* src, ptrdiff_t tapStep, const OwnSepKernel& kernel,
                              char* dst, int32_t count);

// The worker of a pass for a depth index, samples per pixel (the row passes
// specialise 1, 3 and 4) and taps.
OwnSepWorker ownSepWorker(int pass, int depthIndex, int samplesPerPixel, int taps);

// Both passes of 8-bit images in 16-bit lanes, for kernels whose taps and
// intermediate sums fit 16 bits: the sums are those of the 32-bit workers.
// The intermediate row then holds int16_t. Null when the CPU lacks the
// instructions or the path is forced off.
struct OwnSepNarrow {
    void (*first)(const char* src, ptrdiff_t rowStep, const OwnSepKernel& kernel, char* mid,
                  int32_t count);
    void (*second)(const char* mid, ptrdiff_t tapStep, const OwnSepKernel& kernel, char* dst,
                   int32_t count);
};
const OwnSepNarrow* ownSepNarrow(int depthIndex, const OwnSepKernel& column,
                                 const OwnSepKernel& row);

#endif
