// Separable convolution: kuvConvolveSep2D and kuvConvolveSep2DFP, and their
// engine ownCSep2.
//
// The engine computes in 32-bit integers at every integer depth and in double
// precision for 32F (filter/sep_rows.cpp). With both kernels the column
// kernel runs first into one intermediate row of raw sums per output row, and
// the row kernel then applies the two shifts at once, so nothing is rounded
// or clamped between the passes.
//
// The source is read in place where a block's whole neighbourhood lies inside
// the image and through ownCopyWindow elsewhere, so that the source's border
// settings decide what lies beyond its edges while pixels outside the region
// but inside the image are true pixels. When either image is tiled every
// block goes through a window, cut by the destination's tile grid (the
// source's tile size when only the source is tiled): the blocks and tile
// requests are those of a proxy tiling of the untiled image, without copying
// the untiled pixels through proxy tiles.
#include "filter/sep_rows.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr const char* kFile = "kuvCSep2";

// Texts of temporary headers: the header takes exactly four bytes of each.
constexpr char kGray[4] = {'G', 'R', 'A', 'Y'};
constexpr char kSeqG[4] = {'G', '\0', '\0', '\0'};

using Block = OwnBlock<char>;
using TempImage = OwnTempImage;

void outOfMemory() { kuvSetErrStatus(KUV_StsOutOfMemory); }

// ------------------------------------------------------------------ kernels

// The direction of a record as the engine sees it; an absent kernel is one
// tap of weight one that reads nothing.
template <class K>
bool makeSepKernel(const K* record, bool row, OwnSepKernel* k, Block* taps) {
    *k = OwnSepKernel{1, 1, 0, 0, nullptr};
    if (record == nullptr) return true;
    const int32_t n = row ? record->nCols : record->nRows;
    // Row kernels of 2 and 4 taps run as 3 and 5 with a zero tap behind.
    const int32_t padded = row && (n == 2 || n == 4) ? n + 1 : n;
    *taps = ownAllocBlock(int64_t{padded} * 4);
    if (!*taps) return false;
    std::memcpy(taps->get(), record->values, static_cast<size_t>(n) * 4);
    std::memset(taps->get() + int64_t{n} * 4, 0, static_cast<size_t>(padded - n) * 4);
    k->length = n;
    k->paddedLength = padded;
    k->anchor = row ? record->anchorX : record->anchorY;
    if constexpr (requires { record->nShiftR; }) k->nShiftR = record->nShiftR;
    k->taps = taps->get();
    return true;
}

// ------------------------------------------------------------------ engine

// Where one block's rows come from: the sample that the block's first output
// needs first (its plane 0, sample 0), in the image or in a window.
struct SrcView {
    const char* data;
    ptrdiff_t step, planeBytes;
};

// Where a block's first output goes; bits of a 1U row from bit `bit` on.
struct DstView {
    char* data;
    ptrdiff_t step, planeBytes;
    int64_t bit;
};

struct Engine {
    const KuvImage* src;
    KuvImage* dst;
    int depth;
    bool bits;
    int elem;        // bytes of a sample (unpacked bits: 1)
    int samples;     // samples per pixel along a row
    int64_t unit;    // bytes of a pixel along a row (bit images: 0)
    int64_t sx, sy, dx, dy, width, height;
    // Planes or samples to write: plane order walks planeCount planes from
    // srcPlane/dstPlane; pixel order writes `count` samples of each pixel
    // from srcFirst to dstFirst. direct: the workers write the destination.
    int srcPlane, dstPlane, planeCount;
    int srcFirst, dstFirst, count;
    bool direct;
    OwnSepKernel row, column;
    bool hasRow, hasColumn;
    int64_t left, top, wide, tall;   // neighbourhood: before, and total extent
    OwnSepWorker single, first, second;
    const OwnSepNarrow* narrow;
    char* mid;
    char* out;
    uint8_t* unpacked;
    const uint8_t* mask;   // rectangle-sized temporary, bit 0 at the rectangle's start
    ptrdiff_t maskStep;
};

inline bool bitAt(const uint8_t* row, int64_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

inline void putBit(uint8_t* row, int64_t i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

// Samples of a finished row into the destination row, pixel by pixel, where
// the mask lets them.
template <class U>
void storeSamples(const Engine& e, const char* from, char* to, const uint8_t* maskRow,
                  int64_t maskBit, int64_t n) {
    const U* o = reinterpret_cast<const U*>(from) + e.srcFirst;
    U* d = reinterpret_cast<U*>(to) + e.dstFirst;
    const int s = e.samples;
    for (int64_t x = 0; x < n; ++x, o += s, d += s) {
        if (maskRow != nullptr && !bitAt(maskRow, maskBit + x)) continue;
        for (int c = 0; c < e.count; ++c) d[c] = o[c];
    }
}

void storeRow(const Engine& e, const char* from, const DstView& d, char* to, int64_t by,
              int64_t bx, int64_t n) {
    const uint8_t* maskRow = e.mask != nullptr ? e.mask + by * e.maskStep : nullptr;
    if (e.bits) {
        auto* row = reinterpret_cast<uint8_t*>(to);
        for (int64_t x = 0; x < n; ++x) {
            if (maskRow == nullptr || bitAt(maskRow, bx + x)) putBit(row, d.bit + x, from[x] != 0);
        }
        return;
    }
    switch (e.elem) {
        case 1: return storeSamples<uint8_t>(e, from, to, maskRow, bx, n);
        case 2: return storeSamples<uint16_t>(e, from, to, maskRow, bx, n);
        default: return storeSamples<uint32_t>(e, from, to, maskRow, bx, n);
    }
}

// One output row of bw pixels from rows that start at the first needed sample.
void computeRow(const Engine& e, const char* rows, ptrdiff_t rowStep, char* out, int64_t bw) {
    const auto count = static_cast<int32_t>(bw * e.samples);
    if (e.hasRow && e.hasColumn) {
        const auto span = static_cast<int32_t>((bw + e.wide - 1) * e.samples);
        if (e.narrow != nullptr) {
            e.narrow->first(rows, rowStep, e.column, e.mid, span);
            e.narrow->second(e.mid, e.samples, e.row, out, count);
        } else {
            e.first(rows, rowStep, e.column, e.mid, span);
            e.second(e.mid, e.samples, e.row, out, count);
        }
    } else if (e.hasRow) {
        e.single(rows, e.samples, e.row, out, count);
    } else {
        e.single(rows, rowStep, e.column, out, count);
    }
}

// Output block (bx, by, bw, bh) of the rectangle.
void runBlock(const Engine& e, const SrcView& s, const DstView& d, int64_t bx, int64_t by,
              int64_t bw, int64_t bh) {
    const int64_t span = bw + e.wide - 1;
    const ptrdiff_t rowStep = e.bits ? span : s.step / e.elem;
    for (int p = 0; p < e.planeCount; ++p) {
        const char* sp = s.data + (e.srcPlane + p) * s.planeBytes;
        char* dp = d.data + (e.dstPlane + p) * d.planeBytes;
        for (int64_t y = 0; y < bh; ++y) {
            const char* rows = sp + y * s.step;
            if (e.bits) {
                // The rows of this output row, a byte per bit.
                for (int64_t j = 0; j < e.tall; ++j) {
                    const auto* b = reinterpret_cast<const uint8_t*>(rows + j * s.step);
                    uint8_t* u = e.unpacked + j * span;
                    for (int64_t i = 0; i < span; ++i) u[i] = bitAt(b, i);
                }
                rows = reinterpret_cast<const char*>(e.unpacked);
            }
            char* drow = dp + y * d.step;
            computeRow(e, rows, rowStep, e.direct ? drow : e.out, bw);
            if (!e.direct) storeRow(e, e.out, d, drow, by + y, bx, bw);
        }
    }
}

// The destination's pixel (x, y) in memory laid out as it is, from base on.
DstView dstAt(const Engine& e, char* base, ptrdiff_t step, ptrdiff_t planeBytes, int64_t x,
              int64_t y) {
    return DstView{base + y * step + (e.bits ? 0 : x * e.unit), step, planeBytes,
                   e.bits ? x : 0};
}

DstView dstInImage(const Engine& e, int64_t bx, int64_t by) {
    const KuvImage* im = e.dst;
    return dstAt(e, im->imageData, im->widthStep, ptrdiff_t{im->widthStep} * im->height,
                 e.dx + bx, e.dy + by);
}

// The window of block (bx, by, bw, bh): its neighbourhood, border rules applied.
char* windowOf(const Engine& e, int64_t bx, int64_t by, int64_t bw, int64_t bh, SrcView* s) {
    const int64_t x = e.sx + bx - e.left, y = e.sy + by - e.top;
    const int64_t w = bw + e.wide - 1, h = bh + e.tall - 1;
    if (x < INT32_MIN || y < INT32_MIN || w > INT32_MAX || h > INT32_MAX) return nullptr;
    int32_t step = 0;
    char* window = ownCopyWindow(e.src, static_cast<int32_t>(x), static_cast<int32_t>(y),
                                 static_cast<int32_t>(w), static_cast<int32_t>(h), &step);
    *s = SrcView{window, step, static_cast<ptrdiff_t>(int64_t{step} * h)};
    return window;
}

// Untiled images: the rectangle cut by whether a block's neighbourhood lies
// inside the whole image (not the region): rows that need pixels above or
// below the image go through windows of the whole width; the rows between
// are cut into columns the same way, and their middle is read in place.
bool runUntiled(const Engine& e) {
    const KuvImage* src = e.src;
    const int64_t w = e.width, h = e.height;
    const int64_t xl = std::clamp<int64_t>(e.left - e.sx, 0, w);
    const int64_t xr = std::clamp<int64_t>(src->width - (e.wide - 1 - e.left) - e.sx, xl, w);
    const int64_t yt = std::clamp<int64_t>(e.top - e.sy, 0, h);
    const int64_t yb = std::clamp<int64_t>(src->height - (e.tall - 1 - e.top) - e.sy, yt, h);
    auto block = [&](int64_t bx, int64_t by, int64_t bw, int64_t bh, bool inPlace) {
        if (bw <= 0 || bh <= 0) return true;
        SrcView s;
        Block window;
        if (inPlace) {
            const int64_t x = e.sx + bx - e.left, y = e.sy + by - e.top;
            s = SrcView{src->imageData + y * src->widthStep + x * e.unit, src->widthStep,
                        ptrdiff_t{src->widthStep} * src->height};
        } else {
            window.reset(windowOf(e, bx, by, bw, bh, &s));
            if (!window) return false;
        }
        runBlock(e, s, dstInImage(e, bx, by), bx, by, bw, bh);
        return true;
    };
    // Bits are unpacked row by row from a window of the whole rectangle.
    if (e.bits) return block(0, 0, w, h, false);
    return block(0, 0, w, yt, false) && block(0, yt, xl, yb - yt, false) &&
           block(xl, yt, xr - xl, yb - yt, true) && block(xr, yt, w - xr, yb - yt, false) &&
           block(0, yb, w, h - yb, false);
}

// Tiled images: one window per tile part of the rectangle, written into the
// destination's tile, or straight into an untiled destination.
bool runTiled(const Engine& e) {
    KuvImage* dst = e.dst;
    const KuvTileInfo* grid = dst->tileInfo != nullptr ? dst->tileInfo : e.src->tileInfo;
    const int64_t tw = grid->width, th = grid->height;
    const int64_t x0 = e.dx, y0 = e.dy, x1 = e.dx + e.width, y1 = e.dy + e.height;
    return ownForEachTilePiece(x0, y0, x1, y1, tw, th, [&](const OwnTilePiece& p) {
        SrcView s;
        Block window(windowOf(e, p.dx, p.dy, p.width, p.height, &s));
        if (!window) return false;
        if (dst->tileInfo == nullptr) {
            runBlock(e, s, dstInImage(e, p.dx, p.dy), p.dx, p.dy, p.width, p.height);
            return true;
        }
        KuvTileInfo* tiles = dst->tileInfo;
        tiles->callBack(dst, static_cast<int32_t>(p.col), static_cast<int32_t>(p.row),
                        KUV_TILE_WRITE);
        char* tile = tiles->tileData;
        if (tile == nullptr) return false;
        const ptrdiff_t step = ownTileRowBytes(dst);
        runBlock(e, s, dstAt(e, tile, step, step * th, p.x - p.col * tw, p.y - p.row * th), p.dx,
                 p.dy, p.width, p.height);
        window.reset();
        tiles->tileData = tile;
        tiles->callBack(dst, static_cast<int32_t>(p.col), static_cast<int32_t>(p.row),
                        KUV_TILE_RELEASE);
        return true;
    });
}

struct Region {
    int64_t x, y, width, height;
};

Region regionOf(const KuvImage* image) {
    const KuvROI* roi = image->roi;
    if (roi == nullptr) return Region{0, 0, image->width, image->height};
    return Region{roi->xOffset, roi->yOffset,
                  std::min<int64_t>(roi->width, int64_t{image->width} - roi->xOffset),
                  std::min<int64_t>(roi->height, int64_t{image->height} - roi->yOffset)};
}

// The masks of both images ANDed into one temporary of the rectangle's size.
// False: no memory, or the AND failed (it has reported).
bool mergeMasks(const KuvImage* src, const KuvImage* dst, int64_t width, int64_t height,
                TempImage* merged) {
    const KuvImage* masks[2] = {src->maskROI, dst->maskROI};
    const KuvImage* firstMask = masks[0] != nullptr ? masks[0] : masks[1];
    merged->reset(kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, kGray, kSeqG, KUV_DATA_ORDER_PLANE,
                                       firstMask->origin, 8, static_cast<int32_t>(width),
                                       static_cast<int32_t>(height), nullptr, nullptr, 0,
                                       nullptr));
    KuvImage* t = merged->get();
    if (t == nullptr) return false;
    kuvAllocateImage(t, 1, 1);
    if (t->imageData == nullptr) return false;
    for (const KuvImage* mask : masks) {
        if (mask == nullptr) continue;
        // The temporary takes each mask's layout fields, so that the AND
        // sees images of one kind.
        t->origin = mask->origin;
        t->dataOrder = mask->dataOrder;
        kuvAnd(mask, t, t);
        if (kuvGetErrStatus() < 0) return false;
    }
    return true;
}

// ownCSep2. Returns with the thread's status negative on a failure.
template <class K>
void ownCSep2(const KuvImage* src, KuvImage* dst, const K* xKernel, const K* yKernel) {
    Engine e{};
    e.src = src;
    e.dst = dst;
    const Region rs = regionOf(src), rd = regionOf(dst);
    e.sx = rs.x;
    e.sy = rs.y;
    e.dx = rd.x;
    e.dy = rd.y;
    e.width = std::min(rs.width, rd.width);
    e.height = std::min(rs.height, rd.height);
    // A mask limits the rectangle to its region, anchored at the rectangle.
    for (const KuvImage* mask : {src->maskROI, dst->maskROI}) {
        if (mask == nullptr) continue;
        const Region rm = regionOf(mask);
        e.width = std::min(e.width, rm.width);
        e.height = std::min(e.height, rm.height);
    }
    if (e.width < 1 || e.height < 1) return;

    TempImage merged;
    if (src->maskROI != nullptr || dst->maskROI != nullptr) {
        if (!mergeMasks(src, dst, e.width, e.height, &merged)) {
            if (kuvGetErrStatus() >= 0) outOfMemory();
            return;
        }
        e.mask = reinterpret_cast<const uint8_t*>(merged->imageData);
        e.maskStep = merged->widthStep;
    }

    Block rowTaps, columnTaps;
    if (!makeSepKernel(xKernel, true, &e.row, &rowTaps) ||
        !makeSepKernel(yKernel, false, &e.column, &columnTaps)) {
        return outOfMemory();
    }
    e.hasRow = xKernel != nullptr;
    e.hasColumn = yKernel != nullptr;
    if (e.hasRow && e.hasColumn) {
        e.row.nShiftR = static_cast<int32_t>(static_cast<uint32_t>(e.row.nShiftR) +
                                             static_cast<uint32_t>(e.column.nShiftR));
    }
    e.left = e.row.anchor;
    e.top = e.column.anchor;
    e.wide = e.row.paddedLength;
    e.tall = e.column.length;

    e.depth = ownDepthIndex(src->depth);
    e.bits = e.depth == OWN_1U;
    e.elem = e.bits ? 1 : ownDepthBits(src->depth) / 8;
    const bool pixelOrder = src->dataOrder == KUV_DATA_ORDER_PIXEL && !e.bits;
    e.samples = pixelOrder ? src->nChannels : 1;
    e.unit = e.bits ? 0 : int64_t{e.elem} * e.samples;
    const int srcCoi = src->roi != nullptr ? src->roi->coi : 0;
    const int dstCoi = dst->roi != nullptr ? dst->roi->coi : 0;
    const int kept = src->nChannels - (src->alphaChannel != 0 ? 1 : 0);
    const bool oneChannel = srcCoi != 0 || dstCoi != 0;
    if (pixelOrder) {
        e.planeCount = 1;
        e.srcFirst = srcCoi != 0 ? srcCoi - 1 : 0;
        e.dstFirst = dstCoi != 0 ? dstCoi - 1 : 0;
        e.count = oneChannel ? 1 : kept;
    } else {
        e.srcPlane = srcCoi != 0 ? srcCoi - 1 : 0;
        e.dstPlane = dstCoi != 0 ? dstCoi - 1 : 0;
        e.planeCount = oneChannel ? 1 : kept;
        e.count = 1;
    }
    e.direct = !e.bits && e.mask == nullptr && e.srcFirst == 0 && e.dstFirst == 0 &&
               e.count == e.samples;

    if (e.hasRow && e.hasColumn) {
        e.first = ownSepWorker(OWN_SEP_FIRST, e.depth, e.samples, e.column.length);
        e.second = ownSepWorker(OWN_SEP_SECOND, e.depth, e.samples, e.row.paddedLength);
        e.narrow = ownSepNarrow(e.depth, e.column, e.row);
    } else if (e.hasRow) {
        e.single = ownSepWorker(OWN_SEP_ROW, e.depth, e.samples, e.row.paddedLength);
    } else {
        e.single = ownSepWorker(OWN_SEP_COLUMN, e.depth, e.samples, e.column.length);
    }

    // Every row buffer of the call, taken before the first pixel is written.
    const int64_t span = e.width + e.wide - 1;
    Block mid, out, unpacked;
    if (e.hasRow && e.hasColumn) mid = ownAllocBlock(span * e.samples * 4);
    if (!e.direct) out = ownAllocBlock(e.width * e.samples * e.elem);
    if (e.bits) unpacked = ownAllocBlock(span * e.tall);
    if ((e.hasRow && e.hasColumn && !mid) || (!e.direct && !out) || (e.bits && !unpacked)) {
        return outOfMemory();
    }
    e.mid = mid.get();
    e.out = out.get();
    e.unpacked = reinterpret_cast<uint8_t*>(unpacked.get());

    const bool tiled = src->tileInfo != nullptr || dst->tileInfo != nullptr;
    if (!(tiled ? runTiled(e) : runUntiled(e))) outOfMemory();
}

// ------------------------------------------------------------------ checks

inline void report(KuvStatus status, const char* func, const char* context, int line) {
    kuvError(status, func, context, kFile, line);
}

int processingChannels(const KuvImage* image) {
    return image->roi != nullptr && image->roi->coi != 0 ? 1 : image->nChannels;
}

template <class K>
bool checkKernel(const char* func, const K* k, bool row) {
    if (k == nullptr) return true;
    if (k->values == nullptr) {
        report(KUV_StsBadArgument, func, "NULL kernel values", __LINE__);
        return false;
    }
    if (row ? (k->nCols < 2 || k->nRows != 1) : (k->nCols != 1 || k->nRows < 2)) {
        report(KUV_StsBadArgument, func, "Invalid kernal size", __LINE__);
        return false;
    }
    if (k->anchorX < 0 || k->anchorX > k->nCols - 1 || k->anchorY < 0 ||
        k->anchorY > k->nRows - 1) {
        report(KUV_StsBadArgument, func, "Invalid kernrl anchor", __LINE__);
        return false;
    }
    return true;
}

template <bool FP, class K>
void convolveSep(const char* func, const KuvImage* src, KuvImage* dst, const K* xKernel,
                 const K* yKernel) {
    kuvSetErrStatus(KUV_StsNoError);
    auto refuse = [func](const char* context, int line) {
        report(KUV_StsBadArgument, func, context, line);
    };
    if (kuvCheckImageHeader(src) != KUV_StsNoError) {
        return report(kuvGetErrStatus(), func, "Incorrect Image", __LINE__);
    }
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        return report(kuvGetErrStatus(), func, "Incorrect Image", __LINE__);
    }
    if (src == dst) return refuse("Unsupported in-place mode", __LINE__);
    if (xKernel == nullptr && yKernel == nullptr) {
        return refuse("Kernel pointers are NULL", __LINE__);
    }
    if (src->depth != dst->depth) return refuse("SRC and DST depth are different", __LINE__);
    if (src->dataOrder != dst->dataOrder) {
        return refuse("SRC and DST order are different", __LINE__);
    }
    if (src->origin != dst->origin) return refuse("SRC and DST orign are different", __LINE__);
    const int perPlane = src->dataOrder == KUV_DATA_ORDER_PLANE ? 1 : src->nChannels;
    if (perPlane > 32) return refuse("SRC: too many channels per plane (limit 32)", __LINE__);
    if (src->nChannels != dst->nChannels) {
        return refuse("SRC and DST number of channels are different", __LINE__);
    }
    if (src->alphaChannel != dst->alphaChannel) {
        return refuse("SRC and DST Alpha channels are different", __LINE__);
    }
    if (processingChannels(src) != processingChannels(dst)) {
        return refuse("SRC and DST number of processing channels are different", __LINE__);
    }
    if (!checkKernel(func, xKernel, true) || !checkKernel(func, yKernel, false)) return;
    if (!FP && src->depth == KUV_DEPTH_32F) {
        return refuse("kuvConvolveSep2D does not support KUV_DEPTH_32F.\n"
                      "Call kuvConvolveSep2DFP instead",
                      __LINE__);
    }
    if (FP && src->depth != KUV_DEPTH_32F) {
        return refuse("kuvConvolveSep2DFP does support KUV_DEPTH_32F only.\n"
                      "Call kuvConvolveSep2D instead",
                      __LINE__);
    }
    ownCSep2(src, dst, xKernel, yKernel);
    if (kuvGetErrStatus() < 0) report(KUV_StsBacktrace, func, "Not enough memory", __LINE__);
}

}  // namespace

extern "C" {

KUV_API void kuvConvolveSep2D(const KuvImage* srcImage, KuvImage* dstImage,
                              const KuvConvKernel* xKernel, const KuvConvKernel* yKernel) {
    convolveSep<false>("kuvConvolveSep2D", srcImage, dstImage, xKernel, yKernel);
}

KUV_API void kuvConvolveSep2DFP(const KuvImage* srcImage, KuvImage* dstImage,
                                const KuvConvKernelFP* xKernel, const KuvConvKernelFP* yKernel) {
    convolveSep<true>("kuvConvolveSep2DFP", srcImage, dstImage, xKernel, yKernel);
}

}  // extern "C"
