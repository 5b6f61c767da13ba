// The pattern that every pixelwise operation runs: argument tests with the
// operation's own texts, the channel plan, the mask merge, the worker chosen
// by depth, a direct call or the tile walk, and the temporary freed.
// An operation supplies its names, its table of line workers and, where it
// has one, its constant.
#ifndef KUV_CORE_PATTERN_H
#define KUV_CORE_PATTERN_H

#include "kuv_own.h"

namespace kuv {

// Channel plan of one call. Image slots are srcA, srcB, dst; an operation
// with one source leaves slot 1 empty.
struct Plan {
    int32_t ch[3];        // channel index of each image (coi - 1, or 0)
    int32_t nCh;          // channels computed per pixel: the destination's count
    bool allChannels;     // no image has a channel of interest
    bool hasAlpha;        // some image has an alpha channel
};

// What a line worker receives. Workers never report: all of it was checked.
struct LineArgs {
    const KuvImage* src[2];
    KuvImage* dst;
    const KuvImage* mask;   // null for the workers without mask
    Plan plan;
    const void* param;      // the operation's constant, already widened
    bool inTileWalk;        // headers are working copies over tiles: no flat path
    bool flatPath;          // the operation allows the whole-buffer walk
};

using LineWorker = void (*)(const LineArgs&);

struct WorkerPair {
    LineWorker plain;
    LineWorker masked;
};

// How the channels of the images pair up.
enum ChannelRule : int {
    CHANNELS_PATTERN,   // nChannels less alpha, or the coi; counts must match
    CHANNELS_ABS,       // a coi counts only on several channels; alpha may
                        // be computed where only one image has it
};

// One pixelwise operation as the pattern sees it.
struct PatternOp {
    const char* func = nullptr;          // name in reports, e.g. "kuvAdd"
    const char* file = nullptr;          // source file name in reports, e.g. "kuvadd"
    int nSrc = 2;                        // 1 or 2
    const WorkerPair* table = nullptr;   // OWN_DEPTH_COUNT entries, by ownDepthIndex
    bool orderTestAt1U = true;           // compare dataOrder also for bit images
    bool orderTest = true;               // compare dataOrder at all
    const char* unsupported = nullptr;   // context for a depth without workers
                                         // (reported after the masks are merged)
    ChannelRule channels = CHANNELS_PATTERN;
    bool flatPath = true;                // whole-buffer walk allowed
    bool checkRelease = false;           // a released tile must leave tileData null
};

// Runs the pattern from the header checks on. The null test of the first
// source and any delegation by depth belong to the operation and come first.
void runPattern(const PatternOp& op, const KuvImage* srcA, const KuvImage* srcB,
                KuvImage* dst, const void* param);

// The geometry of one worker call, worked out once, outside the row loops.
struct WalkImage {
    char* start;          // first element of the rectangle, at the image's channel
    ptrdiff_t rowStep;    // bytes from row to row
    ptrdiff_t planeStep;  // bytes from plane to plane (plane order)
    int32_t pixelStride;  // elements from pixel to pixel (1 in plane order)
};

enum WalkShape : int {
    WALK_RUN,      // one contiguous run per row: width * nCh elements
    WALK_STRIDED,  // one element per pixel, each image with its own stride
    WALK_GROUPS,   // nCh elements per pixel, then each image's own stride
    WALK_PLANES,   // nPlanes planes of contiguous rows
};

struct Walk {
    WalkImage img[3];
    int32_t width, height;
    int32_t nPlanes;   // planes to walk (1 in pixel order)
    int32_t nCh;       // elements per pixel in WALK_GROUPS and masked walks
    WalkShape shape;
    const uint8_t* maskStart;   // first byte of the mask's region, or null
    ptrdiff_t maskStep;
    int32_t maskBitOffset;
};

// Fills the walk for a worker call; false when the rectangle is empty.
bool setUpWalk(const LineArgs& args, int nSrc, Walk* walk);

// True when the flat path applies: no mask, and every source shares the
// destination's flat layout.
bool flatPathApplies(const LineArgs& args, int nSrc);

}  // namespace kuv

#endif
