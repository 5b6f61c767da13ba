// The depth family's common ground: how a worker sees one piece of two
// images, the walk that cuts a rectangle into pieces that lie inside one
// tile of each image, and the reports that every operation of the family
// makes the same way.
#ifndef KUV_DEPTH_DEPTH_H
#define KUV_DEPTH_DEPTH_H

#include "kuv_own.h"

#include <source_location>

namespace kuv::depth {

// How one image's elements are reached in one piece. Row 0 is the first row
// in walk order; a turned-over image has a negative rowStep.
struct Side {
    char* base;           // first element of row 0, first planned channel
    ptrdiff_t rowStep;    // bytes from a row to the next in walk order
    ptrdiff_t chanStep;   // bytes from a planned channel to the next
    ptrdiff_t pixStep;    // elements from a pixel to the next
    int32_t bitOffset;    // bit images: column 0's bit, counted from the most significant
};

// One worker call. Workers never report: everything was checked before.
struct Job {
    Side src, dst;
    int32_t width, height;
    int32_t nCh;          // planned channels per pixel
    const void* param;    // the operation's constants
    void* state;          // what a reduction accumulates
};

using PieceWorker = void (*)(const Job&);

// One image of a walk: where its rectangle starts and which channels it gives.
struct WalkImage {
    const KuvImage* image = nullptr;
    int32_t x = 0, y = 0;   // column and stored row of the rectangle's start
    int32_t channel = 0;    // first planned channel, from 0
    bool flip = false;      // walk row i is stored row y + height - 1 - i
};

struct Walk {
    WalkImage src, dst;       // dst.image null: a walk over the source alone
    int32_t width = 0, height = 0, nCh = 0;
    const char* func = nullptr;
    const char* file = nullptr;
    bool stopOnStatus = false;   // a negative status after any fetch ends the walk
};

// Cuts the rectangle into pieces that lie inside one tile of each tiled
// image (an untiled image counts as one tile), in rows from the walk's top,
// pieces left to right. A piece's tiles are asked for destination first,
// with KUV_TILE_WRITE, then source, with KUV_TILE_READ; a tile is handed
// back when the next piece needs another one of the same image, and the last
// ones at the end. A null tileData is reported with KUV_StsBadArgument and
// "(dstImage->tileInfo->tileData == NULL)" or the source's text. On every
// way out the tiles still held are handed back, destination first.
// Returns false when the walk stopped early.
bool runWalk(const Walk& walk, PieceWorker worker, const void* param, void* state);

// The channels an image gives: its channel of interest alone, or all of its
// channels less the alpha channel.
struct Plan {
    int32_t channel, count;
};

inline Plan planOf(const KuvImage* image) {
    if (image->roi != nullptr && image->roi->coi > 0) return {image->roi->coi - 1, 1};
    return {0, image->nChannels - (image->alphaChannel != 0 ? 1 : 0)};
}

// A one-channel image whose only channel is alpha, not picked by a ROI: the
// operations that skip alpha return quietly for it.
inline bool onlyAlpha(const KuvImage* image) {
    return image->alphaChannel != 0 && image->nChannels == 1 &&
           (image->roi == nullptr || image->roi->coi == 0);
}

// --------------------------------------------------------------- reports

struct Names {
    const char* func;
    const char* file;
};

// Reports a failed test with its exact text; true when it failed.
inline bool refused(bool failed, const Names& names, const char* text,
                    std::source_location where = std::source_location::current()) {
    if (failed) {
        kuvError(KUV_StsBadArgument, names.func, text, names.file,
                 static_cast<int32_t>(where.line()));
    }
    return failed;
}

// kuvCheckImageHeader with the family's report: the status the check stored
// and "Incorrect Image". True when the header is refused.
inline bool badHeader(const KuvImage* image, const Names& names,
                      std::source_location where = std::source_location::current()) {
    if (kuvCheckImageHeader(image) == KUV_StsNoError) return false;
    kuvError(kuvGetErrStatus(), names.func, "Incorrect Image", names.file,
             static_cast<int32_t>(where.line()));
    return true;
}

// --------------------------------------------------------------- vector paths

// Instruction set levels of the workers.
enum VectorLevel : int { LEVEL_BASE = 0, LEVEL_AVX2 = 1, LEVEL_AVX512 = 2 };
constexpr int kVectorLevels = 3;

// The level the workers run at: the processor's, or lower where tests
// withhold features to compare each level with the baseline. setVectorLevel
// sets that limit for every family; the processor's level lifts it.
int vectorLevel();
int machineVectorLevel();
void setVectorLevel(int level);

}  // namespace kuv::depth

#endif
