// The driver that the rank filters (maximum, minimum, median) and the fixed
// filters share: the rectangle, the channel passes, the cut into blocks at
// the image's edges and at tiles, and one worker call per block.
#ifndef KUV_FILTER_NLF_H
#define KUV_FILTER_NLF_H

#include "kuv_own.h"

#include <cstddef>
#include <cstdint>

// What a filter asks of the driver. mode selects the worker family.
enum OwnNlfMode : int32_t {
    OWN_NLF_MAX = 0,
    OWN_NLF_MIN = 1,
    OWN_NLF_MEDIAN = 2,
    OWN_NLF_FIXED = 3,
};

struct OwnNlfRequest {
    int32_t nCols, nRows;
    int32_t anchorX, anchorY;
    int32_t mode;
    int32_t filterId;   // OWN_NLF_FIXED only
};

// One rectangular block. The neighbourhood of output (i, j) of the block is
// source rows srcY + j .. srcY + j + nRows - 1 and columns srcX + i ..
// srcX + i + nCols - 1: srcX and srcY already stand the anchor back. Columns
// of bit images are bit positions within a row. A channel of 0 means all
// channels at once; otherwise the 1-based channel of each side.
struct OwnNlfBlock {
    const char* src;
    int32_t srcX, srcY;
    ptrdiff_t srcStep, srcPlaneStep;
    int32_t srcChannel;

    char* dst;
    int32_t dstX, dstY;
    ptrdiff_t dstStep, dstPlaneStep;
    int32_t dstChannel;

    int32_t height, width;
    const OwnNlfRequest* request;
    int32_t nChannels;
    int32_t depthIndex;   // OwnDepthIndex
    int32_t dataOrder;

    // A pixel is written only where each mask there is has its bit set.
    const KuvImage* srcMask;   // null for none
    int32_t srcMaskX, srcMaskY;
    const KuvImage* dstMask;
    int32_t dstMaskX, dstMaskY;
};

// A worker filters one block; false when it could not get its scratch
// memory, in which case it has written nothing more.
using OwnNlfWorker = bool (*)(const OwnNlfBlock& block);

// Runs worker over the common rectangle of the images, per channel pass.
// Blocks that need pixels beyond the source's edge, and every block of a
// tiled source, are read through ownCopyWindow. A failed window or tile
// request ends the call silently; a failed worker ends it too unless
// continueAfterFailure.
void ownNlfDriver(const KuvImage* srcImage, KuvImage* dstImage, const OwnNlfRequest& request,
                  OwnNlfWorker worker, bool continueAfterFailure);

// The shared channel test of the filters: the three reports with
// KUV_StsBadCOI, made without returning. Gives the counted channels of the
// source (1 for a coi, else nChannels less an alpha channel).
int32_t ownNlfCountChannels(const KuvImage* srcImage, const KuvImage* dstImage, const char* func);

// The name of the filters' source file in reports.
inline constexpr const char* ownNlfFile = "kuvnlf";

// ------------------------------------------------------------------ paths

// Whether the AVX2 workers run (the processor has AVX2 and FMA, and no test
// withholds them); both kinds give the same pixels.
bool ownNlfVectorPath();

// The median strategy that the portable workers take for a depth and window.
enum OwnMedianMethod : int {
    OWN_MEDIAN_SELECTION = 0,
    OWN_MEDIAN_HISTOGRAM = 1,   // sliding 256-bin histogram, 8-bit depths
    OWN_MEDIAN_RADIX = 2,       // four 16-bin passes, 16-bit depths
    OWN_MEDIAN_BITS = 3,        // running counts of set bits, 1U
};
OwnMedianMethod ownMedianMethod(int depthIndex, int32_t nCols, int32_t nRows);

// The rank and fixed-filter workers, for the driver.
bool ownRankWorker(const OwnNlfBlock& block);
bool ownFixedWorker(const OwnNlfBlock& block);

#endif
