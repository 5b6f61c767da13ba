// The driver of the rank and fixed filters.
//
// A block's output pixels need a neighbourhood around them. Where the whole
// neighbourhood lies inside an untiled source, the worker reads the image in
// place; the bands along the image's edges, and every block of a tiled
// source, are read through a window that the border rules fill
// (ownCopyWindow). A tiled destination is written tile by tile. Coordinates
// are worked out in 64 bits, so regions near the 32-bit limits cannot wrap.
#include "core/platform.h"
#include "filter/nlf.h"

#include <algorithm>

namespace {

// A buffer that a worker reads or writes: an image, a window or a tile.
struct Buffer {
    char* data;
    ptrdiff_t step, planeStep;
};

struct MaskAt {
    const KuvImage* image = nullptr;
    int32_t x = 0, y = 0;   // the bit of the rectangle's first pixel
};

// What all blocks of one channel pass share.
struct Pass {
    const KuvImage* src;
    KuvImage* dst;
    const OwnNlfRequest* request;
    OwnNlfWorker worker;
    bool continueAfterFailure;
    int64_t sx, sy, dx, dy;   // the rectangle's origin in each image
    int64_t width, height;
    MaskAt masks[2];
    int32_t srcChannel, dstChannel;
    bool stopped;
};

// Calls the worker for the block at (bx, by) of the rectangle, size bw x bh,
// reading src with the neighbourhood of its first output at (nx, ny) and
// writing dst at (ox, oy). false ends the pass.
bool callWorker(Pass& p, const Buffer& src, int64_t nx, int64_t ny, const Buffer& dst, int64_t ox,
                int64_t oy, int64_t bx, int64_t by, int64_t bw, int64_t bh) {
    if (bw < 1 || bh < 1) return true;
    OwnNlfBlock b{};
    b.src = src.data;
    b.srcX = static_cast<int32_t>(nx);
    b.srcY = static_cast<int32_t>(ny);
    b.srcStep = src.step;
    b.srcPlaneStep = src.planeStep;
    b.srcChannel = p.srcChannel;
    b.dst = dst.data;
    b.dstX = static_cast<int32_t>(ox);
    b.dstY = static_cast<int32_t>(oy);
    b.dstStep = dst.step;
    b.dstPlaneStep = dst.planeStep;
    b.dstChannel = p.dstChannel;
    b.height = static_cast<int32_t>(bh);
    b.width = static_cast<int32_t>(bw);
    b.request = p.request;
    b.nChannels = p.src->nChannels;
    b.depthIndex = ownDepthIndex(p.src->depth);
    b.dataOrder = p.src->dataOrder;
    b.srcMask = p.masks[0].image;
    b.srcMaskX = static_cast<int32_t>(p.masks[0].x + bx);
    b.srcMaskY = static_cast<int32_t>(p.masks[0].y + by);
    b.dstMask = p.masks[1].image;
    b.dstMaskX = static_cast<int32_t>(p.masks[1].x + bx);
    b.dstMaskY = static_cast<int32_t>(p.masks[1].y + by);
    if (p.worker(b) || p.continueAfterFailure) return true;
    p.stopped = true;
    return false;
}

// The block through a window of the source with its neighbourhood; dst is
// at (ox, oy) for the block's first pixel.
bool windowBlock(Pass& p, const Buffer& dst, int64_t ox, int64_t oy, int64_t bx, int64_t by,
                 int64_t bw, int64_t bh) {
    if (bw < 1 || bh < 1) return true;
    const OwnNlfRequest& r = *p.request;
    const int64_t wx = p.sx + bx - r.anchorX, wy = p.sy + by - r.anchorY;
    const int64_t ww = bw + r.nCols - 1, wh = bh + r.nRows - 1;
    if (wx < INT32_MIN || wy < INT32_MIN || ww > INT32_MAX || wh > INT32_MAX) {
        p.stopped = true;
        return false;
    }
    int32_t step = 0;
    char* window = ownCopyWindow(p.src, static_cast<int32_t>(wx), static_cast<int32_t>(wy),
                                 static_cast<int32_t>(ww), static_cast<int32_t>(wh), &step);
    if (window == nullptr) {
        p.stopped = true;
        return false;
    }
    const Buffer src{window, step, static_cast<ptrdiff_t>(int64_t{step} * wh)};
    const bool ok = callWorker(p, src, 0, 0, dst, ox, oy, bx, by, bw, bh);
    ownFreeWindow(window);
    return ok;
}

// The block from an untiled source: bands whose neighbourhood crosses the
// image's edge through windows, the rest in place. Left and right bands take
// the block's full height, top and bottom bands what lies between them.
bool bandedBlock(Pass& p, const Buffer& dst, int64_t ox, int64_t oy, int64_t bx, int64_t by,
                 int64_t bw, int64_t bh) {
    const OwnNlfRequest& r = *p.request;
    const int64_t nx = p.sx + bx - r.anchorX, ny = p.sy + by - r.anchorY;
    const int64_t W = p.src->width, H = p.src->height;
    const int64_t left = std::clamp<int64_t>(-nx, 0, bw);
    const int64_t right = std::clamp<int64_t>(W - nx - r.nCols + 1, left, bw);
    const int64_t top = std::clamp<int64_t>(-ny, 0, bh);
    const int64_t bottom = std::clamp<int64_t>(H - ny - r.nRows + 1, top, bh);
    struct Piece {
        int64_t x, y, w, h;
    };
    const Piece bands[4] = {{0, 0, left, bh},
                            {right, 0, bw - right, bh},
                            {left, 0, right - left, top},
                            {left, bottom, right - left, bh - bottom}};
    for (const Piece& q : bands) {
        if (!windowBlock(p, dst, ox + q.x, oy + q.y, bx + q.x, by + q.y, q.w, q.h)) return false;
    }
    const Buffer src{p.src->imageData, p.src->widthStep,
                     ptrdiff_t{p.src->widthStep} * p.src->height};
    return callWorker(p, src, nx + left, ny + top, dst, ox + left, oy + top, bx + left, by + top,
                      right - left, bottom - top);
}

// The source's part of a destination piece: in place where it can be.
bool sourceBlock(Pass& p, const Buffer& dst, int64_t ox, int64_t oy, int64_t bx, int64_t by,
                 int64_t bw, int64_t bh) {
    if (p.src->tileInfo == nullptr) return bandedBlock(p, dst, ox, oy, bx, by, bw, bh);
    return windowBlock(p, dst, ox, oy, bx, by, bw, bh);
}

// An untiled destination with a tiled source: blocks cut by the source's
// tile grid, each through a window.
void runSourceTiles(Pass& p) {
    const Buffer dst{p.dst->imageData, p.dst->widthStep,
                     ptrdiff_t{p.dst->widthStep} * p.dst->height};
    const int64_t tw = p.src->tileInfo->width, th = p.src->tileInfo->height;
    for (int64_t by = 0; by < p.height;) {
        const int64_t bh = std::min(p.height - by, ((p.sy + by) / th + 1) * th - (p.sy + by));
        for (int64_t bx = 0; bx < p.width;) {
            const int64_t bw = std::min(p.width - bx, ((p.sx + bx) / tw + 1) * tw - (p.sx + bx));
            if (!windowBlock(p, dst, p.dx + bx, p.dy + by, bx, by, bw, bh)) return;
            bx += bw;
        }
        by += bh;
    }
}

// A tiled destination: each tile that the rectangle touches is requested for
// writing, filtered, and released.
void runDestinationTiles(Pass& p) {
    KuvTileInfo* tiles = p.dst->tileInfo;
    const int64_t tw = tiles->width, th = tiles->height;
    const int64_t tileStep = ownTileRowBytes(p.dst);
    const Buffer none{nullptr, static_cast<ptrdiff_t>(tileStep),
                      static_cast<ptrdiff_t>(tileStep * th)};
    ownForEachTilePiece(p.dx, p.dy, p.dx + p.width, p.dy + p.height, tw, th,
                        [&](const OwnTilePiece& t) {
                            tiles->callBack(p.dst, static_cast<int32_t>(t.col),
                                            static_cast<int32_t>(t.row), KUV_TILE_WRITE);
                            char* tile = tiles->tileData;
                            if (tile == nullptr) {
                                p.stopped = true;
                                return false;
                            }
                            Buffer dst = none;
                            dst.data = tile;
                            const bool ok = sourceBlock(p, dst, t.x - t.col * tw, t.y - t.row * th,
                                                        t.dx, t.dy, t.width, t.height);
                            tiles->tileData = tile;
                            tiles->callBack(p.dst, static_cast<int32_t>(t.col),
                                            static_cast<int32_t>(t.row), KUV_TILE_RELEASE);
                            return ok;
                        });
}

void runPass(Pass& p) {
    if (p.dst->tileInfo != nullptr) return runDestinationTiles(p);
    if (p.src->tileInfo != nullptr) return runSourceTiles(p);
    const Buffer dst{p.dst->imageData, p.dst->widthStep,
                     ptrdiff_t{p.dst->widthStep} * p.dst->height};
    bandedBlock(p, dst, p.dx, p.dy, 0, 0, p.width, p.height);
}

int32_t coiOf(const KuvImage* image) { return image->roi != nullptr ? image->roi->coi : 0; }

}  // namespace

bool ownNlfVectorPath() {
    const unsigned need = OWN_CPU_AVX2 | OWN_CPU_FMA;
    return (ownPlatformCpuFeatures() & need) == need;
}

void ownNlfDriver(const KuvImage* srcImage, KuvImage* dstImage, const OwnNlfRequest& request,
                  OwnNlfWorker worker, bool continueAfterFailure) {
    Pass p{};
    p.src = srcImage;
    p.dst = dstImage;
    p.request = &request;
    p.worker = worker;
    p.continueAfterFailure = continueAfterFailure;

    OwnRect s, d;
    ownGetROIRect(srcImage, &s);
    ownGetROIRect(dstImage, &d);
    p.sx = s.x;
    p.sy = s.y;
    p.dx = d.x;
    p.dy = d.y;
    p.width = std::min(s.width, d.width);
    p.height = std::min(s.height, d.height);
    const KuvImage* masks[2] = {srcImage->maskROI, dstImage->maskROI};
    for (int i = 0; i < 2; ++i) {
        if (masks[i] == nullptr) continue;
        OwnRect m;
        ownGetROIRect(masks[i], &m);
        p.width = std::min<int64_t>(p.width, m.width);
        p.height = std::min<int64_t>(p.height, m.height);
        p.masks[i] = MaskAt{masks[i], m.x, m.y};
    }
    if (p.width < 1 || p.height < 1) return;

    // Channel passes: all channels at once, each colour channel beside an
    // alpha channel, or the destination's channel of interest.
    const int32_t srcCoi = coiOf(srcImage), dstCoi = coiOf(dstImage);
    if (dstCoi != 0) {
        p.srcChannel = srcCoi != 0 ? srcCoi : 1;
        p.dstChannel = dstCoi;
        return runPass(p);
    }
    if (srcImage->alphaChannel == 0 && dstImage->alphaChannel == 0) return runPass(p);
    for (int32_t c = 1; c < srcImage->nChannels && !p.stopped; ++c) {
        p.srcChannel = p.dstChannel = c;
        runPass(p);
    }
}

int32_t ownNlfCountChannels(const KuvImage* srcImage, const KuvImage* dstImage, const char* func) {
    auto counted = [](const KuvImage* image) {
        if (coiOf(image) != 0) return 1;
        return image->nChannels - (image->alphaChannel != 0 ? 1 : 0);
    };
    const int32_t srcCount = counted(srcImage), dstCount = counted(dstImage);
    if (srcImage->nChannels < coiOf(srcImage)) {
        kuvError(KUV_StsBadCOI, func, "Interst Channel of input Image more number of channels.",
                 ownNlfFile, __LINE__);
    }
    if (dstImage->nChannels < coiOf(dstImage)) {
        kuvError(KUV_StsBadCOI, func, "Interst Channel of output Image more number of channels.",
                 ownNlfFile, __LINE__);
    }
    if (srcCount != dstCount) {
        kuvError(KUV_StsBadCOI, func,
                 "Number of interset channel input and output Image is not equal.", ownNlfFile,
                 __LINE__);
    }
    return srcCount;
}
