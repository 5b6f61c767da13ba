// Private helpers of the library: nothing here is exported.
#ifndef KUV_OWN_H
#define KUV_OWN_H

#include "kuv.h"

#include <cstddef>
#include <cstdint>
#include <memory>

// ------------------------------------------------------------- thread context

// One block per thread. The transform families keep their cached tables in
// transformCache; word 0 is -1 while the cache is empty.
struct KuvThreadContext {
    KuvStatus errStatus;
    int32_t errMode;
    KuvErrorCallBack reportHandler;
    intptr_t transformCache[6];
};

// The calling thread's context, made on first need.
KuvThreadContext* ownGetThreadContext();

// Sets a fresh context to its initial values.
void ownInitThreadContext(KuvThreadContext* context);

// Frees what the transform families cached in a context. Runs before the
// context itself is freed, at thread end and at unload.
void ownReleaseContextCaches(KuvThreadContext* context);

// ------------------------------------------------------------- depths, layout

// Bits per channel element of a depth: its value without the sign bit.
inline int ownDepthBits(uint32_t depth) { return static_cast<int>(depth & ~KUV_DEPTH_SIGN); }

// Index of a depth in the per-depth worker tables, or -1 for an unknown depth.
enum OwnDepthIndex : int {
    OWN_1U = 0, OWN_8U, OWN_8S, OWN_16U, OWN_16S, OWN_32S, OWN_32F, OWN_DEPTH_COUNT
};
inline int ownDepthIndex(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_1U: return OWN_1U;
        case KUV_DEPTH_8U: return OWN_8U;
        case KUV_DEPTH_8S: return OWN_8S;
        case KUV_DEPTH_16U: return OWN_16U;
        case KUV_DEPTH_16S: return OWN_16S;
        case KUV_DEPTH_32S: return OWN_32S;
        case KUV_DEPTH_32F: return OWN_32F;
        default: return -1;
    }
}

// Row length in bytes, rounded up to `align` bytes (bit images included).
int32_t ownRowBytes(int32_t dataOrder, uint32_t depth, int32_t align, int32_t nChannels,
                    int32_t width);

// Row length of a tiled image's tiles; 0 for null, invalid or untiled images.
int32_t ownTileRowBytes(const KuvImage* image);

// The header field rules shared by creation, allocation and the header check.
// checkColorModel selects the rule on the two texts (creation only).
struct OwnHeaderFields {
    int32_t nChannels, alphaChannel;
    uint32_t depth;
    int32_t dataOrder, origin, align, width, height;
    const KuvImage* maskROI;
    bool checkColorModel;
    bool colorModelPresent;
};
KuvStatus ownCheckHeaderFields(const OwnHeaderFields& fields);

// Plain runtime-heap blocks for pixels, counted like the kuvMalloc family so
// that tests can prove nothing leaks.
void* ownImageBlockAlloc(size_t bytes);
void ownImageBlockFree(void* block);

// Owners of a call's temporaries, so that every path out of the call frees
// them: a block of the kuvMalloc family, and an image made whole by the
// library (header, pixels, region and mask together).
struct OwnFreeBlock {
    void operator()(void* block) const { kuvFree(block); }
};
template <class T = char>
using OwnBlock = std::unique_ptr<T, OwnFreeBlock>;

// A block of bytes bytes; empty for a size kuvMalloc cannot take.
inline OwnBlock<char> ownAllocBlock(int64_t bytes) {
    if (bytes < 1 || bytes > INT32_MAX) return OwnBlock<char>();
    return OwnBlock<char>(static_cast<char*>(kuvMalloc(static_cast<int32_t>(bytes))));
}

struct OwnFreeImage {
    void operator()(KuvImage* image) const { kuvDeallocate(image, KUV_IMAGE_ALL); }
};
using OwnTempImage = std::unique_ptr<KuvImage, OwnFreeImage>;

// Blocks of the kuvMalloc family and pixel blocks that are still outstanding.
long ownOutstandingBlocks();
// Blocks made since load, freed or not: the library allocates through
// nothing else on the way of a call that reports nothing, so an unchanged
// count proves such a call allocated nothing.
long ownBlocksMade();

// ------------------------------------------------------------- regions

// A clipped rectangle of an image: x, y, height, width.
struct OwnRect {
    int32_t x, y, height, width;
};

// Address of the first element of the region for one channel, with the
// region's clipped size and the bit offset of its first column.
char* ownGetPixelRect(const KuvImage* image, int32_t* width, int32_t* height,
                      int32_t channel, int32_t* bitOffset);

// True when the two images can be walked as one flat array.
bool ownSameFlatLayout(const KuvImage* imageA, const KuvImage* imageB, bool hasAlpha);

// The region's offsets and clipped size, with no floor at 0.
void ownGetROIRect(const KuvImage* image, OwnRect* rect);

// ------------------------------------------------------------- masks, tiles

// Outcomes of ownMergeMasks.
enum OwnMaskOutcome : int {
    OWN_MASK_NONE_OR_ONE = 0,   // null or the one mask itself
    OWN_MASK_TEMPORARY = 1,     // a merged temporary that the caller frees
    OWN_MASK_NO_MEMORY = 2,
    OWN_MASK_EMPTY = 3,         // no common area: nothing to do
};

// Merges up to three masks (any may be null) into the mask to apply.
KuvImage* ownMergeMasks(const KuvImage* maskA, const KuvImage* maskB, const KuvImage* maskC,
                        int* outcome);

// Position of a walk in one image's tile grid.
struct OwnTileCursor {
    bool tiled;
    int32_t firstCol, firstRow;   // tile column and row of the rectangle's start
    int32_t col, row;             // the current tile
    int32_t left, right, top, bottom;   // image coordinates of the current tile's edges
    int32_t tileWidth, tileHeight;
};

// Prepares a working header and cursor for a tile walk over rect, which
// holds the region's start and its end coordinates (x, y, y end, x end).
void ownInitTileWalk(const KuvImage* image, KuvImage* work, const OwnRect& rect,
                     OwnTileCursor* cursor);

// Moves a cursor to a tile and updates the tile's edges.
void ownTileCursorMove(OwnTileCursor* cursor, int32_t col, int32_t row);

// ------------------------------------------------------------- bit rows

// Operators of the bit-row kernels.
enum OwnBitOp : int {
    OWN_BIT_AND = 0,
    OWN_BIT_OR,
    OWN_BIT_XOR,
    OWN_BIT_AND_NOT,   // a AND NOT b: subtraction of bits
    OWN_BIT_COPY,      // a alone
};

// Rows of bits: dst bits d .. d + width - 1 become op(srcA bit a + c,
// srcB bit b + c). No other bit of the destination changes, and no source
// byte past a row's last needed one is read. Offsets are 0..7.
void ownLogicBits(OwnBitOp op, const uint8_t* srcA, const uint8_t* srcB, uint8_t* dst,
                  int32_t offA, int32_t offB, int32_t offDst, int32_t width, int32_t rows,
                  ptrdiff_t stepA, ptrdiff_t stepB, ptrdiff_t stepDst);

// The same with a constant operand: all ones when bit 0 of value is set.
void ownLogicBitsS(OwnBitOp op, const uint8_t* src, uint8_t* dst, int32_t offSrc,
                   int32_t offDst, int32_t width, int32_t rows, ptrdiff_t stepSrc,
                   ptrdiff_t stepDst, int32_t value);

// Copies bit rows from one bit offset to another.
void ownCopyBits(const uint8_t* src, uint8_t* dst, int32_t offSrc, int32_t offDst, int32_t width,
                 int32_t rows, ptrdiff_t stepSrc, ptrdiff_t stepDst);

// ------------------------------------------------------------- borders, windows

// A copy of any rectangle of an image, wholly or partly outside it, with the
// image's border rules beyond its edges; a kuvMalloc block with rows `step`
// bytes apart, or null. Tiled images are read tile row by tile row.
char* ownCopyWindow(const KuvImage* image, int32_t x, int32_t y, int32_t width, int32_t height,
                    int32_t* step);
// The same, read through a working header (its border settings, layout and
// tile info) while the tile procedure is handed `owner`, the application's
// record that the working header was copied from.
char* ownCopyWindowAs(const KuvImage* image, const KuvImage* owner, int32_t x, int32_t y,
                      int32_t width, int32_t height, int32_t* step);
void ownFreeWindow(char* window);

// count elements of channel `channel` (from 1) of row y from column x on,
// with border rules beyond the image; bit images as bits from bit 0.
void ownGetBorderedLine(const KuvImage* image, int32_t x, int32_t y, int32_t channel,
                        void* buffer, int32_t count);

// ------------------------------------------------------------- copy family

bool ownRegionExtent(const KuvImage* image, int32_t* height, int32_t* width, bool clip);
bool ownCommonExtent(const KuvImage* imageA, const KuvImage* imageB, const KuvImage* imageC,
                     int32_t* height, int32_t* width, bool clip);
bool ownRegionStart(const KuvImage* image, char** start, int32_t* widthStep, int32_t* nCh,
                    int32_t* planeStep, int32_t* xOffset);
bool ownBitRegion(const KuvImage* image, uint8_t** row, int32_t* widthStep, int32_t* bitOffset);
void ownTileGrid(const KuvImage* image, int32_t height, int32_t width, int32_t* tileXOffset,
                 int32_t* tileYOffset, int32_t* tileHeight, int32_t* tileWidth,
                 int32_t* firstCol, int32_t* firstRow, int32_t* colCount, int32_t* rowCount);
char* ownElementAddress(const KuvImage* image, int32_t x, int32_t y, int32_t channel);

// One piece of a rectangle cut by a tile grid: its tile's column and row,
// its start in image coordinates and from the rectangle's start, its size.
struct OwnTilePiece {
    int64_t col, row, x, y, dx, dy, width, height;
};

// Calls piece(OwnTilePiece) for the rectangle (x0, y0)-(x1, y1), exclusive
// ends, cut by tiles of tw x th, row of tiles by row, left to right; stops
// and gives false as soon as piece does.
template <class Piece>
bool ownForEachTilePiece(int64_t x0, int64_t y0, int64_t x1, int64_t y1, int64_t tw, int64_t th,
                         Piece&& piece) {
    for (int64_t row = y0 / th; row <= (y1 - 1) / th; ++row) {
        for (int64_t col = x0 / tw; col <= (x1 - 1) / tw; ++col) {
            const int64_t px = col * tw > x0 ? col * tw : x0, py = row * th > y0 ? row * th : y0;
            const int64_t ex = (col + 1) * tw < x1 ? (col + 1) * tw : x1;
            const int64_t ey = (row + 1) * th < y1 ? (row + 1) * th : y1;
            if (!piece(OwnTilePiece{col, row, px, py, px - x0, py - y0, ex - px, ey - py}))
                return false;
        }
    }
    return true;
}


// ------------------------------------------------------------- reports

// Reports a failed test: status, the operation's name and file, the context.
inline void ownReport(KuvStatus status, const char* func, const char* context,
                      const char* file, int line) {
    kuvError(status, func, context, file, line);
}

#endif  // KUV_OWN_H
