// 2-D convolution with 1 to 10 kernels and a combination of their results.
//
// Every depth is convolved on rows of single-precision floats. The engine
// cuts the work by where the source pixels come from (the image itself, a
// window with the border rules filled in, or a tile), and a worker per
// depth and channel layout converts rows into a band of floats, runs each
// output row through the plan, and writes the result back.
#include "filter/convolve.h"

#include "filter/rowconv.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <source_location>
#include <type_traits>

namespace kuv::conv {
namespace {

constexpr const char* kFile = "kuvcnv2d";

enum Outcome : int {
    DONE = 0,
    NO_CHANNEL = 1,
    INCOMPATIBLE = 2,
    NO_MEMORY = 3,
    NO_TILE = 4,   // a destination tile was refused: "Internal error"
    COI_UNDEFINED = 5,
};

// Rows of a band: the output rows that one fill of the float window serves.
constexpr int32_t kBandRows = 65;

using Block = OwnBlock<char>;

int64_t roundUp(int64_t v, int64_t to) { return (v + to - 1) / to * to; }

// ------------------------------------------------------------------ reports

bool refuse(bool failed, KuvStatus status, const char* func, const char* text,
            std::source_location where = std::source_location::current()) {
    if (failed) kuvError(status, func, text, kFile, static_cast<int32_t>(where.line()));
    return failed;
}

// ------------------------------------------------------------------ geometry

// How far the kernels reach around an output pixel, from the stored anchors:
// `left` pixels to the left, `right` - 1 to the right, likewise up and down.
struct Extents {
    int32_t left, top, right, bottom;
};

// One image as the workers see it: where its rectangle starts and how to
// step through it. A window or a tile is an image of its own here.
struct Side {
    char* data;
    ptrdiff_t step;        // bytes from row to row
    ptrdiff_t planeStep;   // bytes from plane to plane
    int32_t x, y;          // the rectangle's first column and row
    int32_t nChannels, alphaChannel, coi;

    Side moved(int32_t dx, int32_t dy) const {
        Side s = *this;
        s.x += dx;
        s.y += dy;
        return s;
    }
};

struct MaskView {
    const uint8_t* data = nullptr;   // null: no mask
    ptrdiff_t step = 0;
    int32_t x = 0, y = 0;   // the bit of the rectangle's first pixel

    MaskView moved(int32_t dx, int32_t dy) const {
        MaskView m = *this;
        m.x += dx;
        m.y += dy;
        return m;
    }
};

// What every piece of one call shares.
struct Call {
    uint32_t depth;
    int depthIndex;
    int32_t dataOrder;
    int32_t nCh;   // channels processed when no image has a coi
    Extents ext;
    OwnConvPlan* plan;
    const KuvImage* reader;   // the source as windows read it
    const KuvImage* owner;    // the application's record, for its tile procedure
};

Side sideOf(const KuvImage* image, int32_t x, int32_t y, int32_t coi) {
    return Side{image->imageData,
                image->widthStep,
                ptrdiff_t{image->widthStep} * image->height,
                x,
                y,
                image->nChannels,
                image->alphaChannel,
                coi};
}

// ------------------------------------------------------------------ plan

int32_t maxMagnitude(int depthIndex) {
    switch (depthIndex) {
        case OWN_1U: return 1;
        case OWN_8U: return 255;
        case OWN_8S: return 128;
        case OWN_16U: return 65535;
        case OWN_16S: return 32768;
        default: return INT32_MAX;
    }
}

OwnTapLoop loopOf(const OwnConvStage& s, bool isFP, int32_t channels) {
    const bool fixedChannels = channels == 1 || channels == 3;
    const bool is3 = s.nCols == 3 && s.nRows == 3, is5 = s.nCols == 5 && s.nRows == 5;
    if (isFP) {
        if (fixedChannels && is3) return OWN_TAPS_FIXED_3;
        if (fixedChannels && is5) return OWN_TAPS_FIXED_5;
        return OWN_TAPS_DENSE;
    }
    const double n = double(s.nCols) * s.nRows;
    const double z = s.nZeros / n, u = s.nUnits / n;
    if (z > 0.66) return OWN_TAPS_SKIP_ZERO;
    if (fixedChannels && is3) return OWN_TAPS_FIXED_3;
    if (fixedChannels && is5) return OWN_TAPS_FIXED_5;
    if (u > 0.25) return OWN_TAPS_UNIT;
    if (z > 0.1) return OWN_TAPS_SKIP_ZERO;
    return OWN_TAPS_DENSE;
}

template <int D>
void storeAs(const float* acc, void* out, int32_t n) {
    static constexpr uint32_t depths[OWN_DEPTH_COUNT] = {
        KUV_DEPTH_1U,  KUV_DEPTH_8U,  KUV_DEPTH_8S, KUV_DEPTH_16U,
        KUV_DEPTH_16S, KUV_DEPTH_32S, KUV_DEPTH_32F};
    ownFloatToRow(depths[D])(acc, out, 1, n);
}

// The integer depths store through their converter; 1U and 32F leave the
// result in the total row, and the worker writes it from there.
constexpr OwnStoreRow storeRows[OWN_DEPTH_COUNT] = {
    nullptr,           &storeAs<OWN_8U>,  &storeAs<OWN_8S>, &storeAs<OWN_16U>,
    &storeAs<OWN_16S>, &storeAs<OWN_32S>, nullptr};

// Sets the row operations of every stage for one depth and channel count.
void buildPlan(OwnConvPlan& plan, bool isFP, int depthIndex, int32_t channels,
               const uint8_t* maskRow) {
    const OwnConvRows& rows = ownConvRows();
    const bool single = plan.nKernels == 1;
    const OwnStoreRow store = storeRows[depthIndex];
    plan.channels = channels;
    plan.maskRow = maskRow;
    plan.flags = maskRow != nullptr ? OWN_CONV_MASKED : 0;
    plan.storeTotal = single ? nullptr : store;
    plan.finishTotal = !single && plan.method == KUV_COMBINE_SUMSQROOT ? rows.squareRoot : nullptr;
    for (int32_t k = 0; k < plan.nKernels; ++k) {
        OwnConvStage& s = plan.stages[k];
        const bool first = k == 0, shift = s.nShiftR != 0;
        s.channels = channels;
        s.maskRow = maskRow;
        s.loop = loopOf(s, isFP, channels);
        const bool fixed = s.loop == OWN_TAPS_FIXED_3 || s.loop == OWN_TAPS_FIXED_5;
        const int size = s.loop == OWN_TAPS_FIXED_5 ? 1 : 0, ch = channels == 3 ? 1 : 0;
        s.fixedShape = !fixed    ? nullptr
                       : isFP    ? rows.fixedFused[size][ch]
                       : s.exact ? rows.fixedExact[size][ch]
                                 : rows.fixedRounded[size][ch];
        s.fixedShapePair = fixed && single && isFP ? rows.pairFused[size][ch] : nullptr;
        s.clearRow = fixed ? nullptr : rows.clear;
        s.accumulate = fixed                      ? nullptr
                       : s.exact                  ? rows.accumulateExact
                       : s.loop == OWN_TAPS_DENSE ? rows.accumulateDense
                                                  : rows.accumulateTaps;
        s.storeRow = single ? store : nullptr;
        s.shiftInPlace = shift ? rows.shift : nullptr;
        s.shiftCombine = nullptr;
        s.combine = nullptr;
        if (single) {
            if (plan.method == KUV_COMBINE_SUMSQ) s.combine = rows.square;
            if (plan.method == KUV_COMBINE_SUMSQROOT) s.combine = rows.absolute;
            continue;
        }
        switch (plan.method) {
            case KUV_COMBINE_SUM:
                if (shift) {
                    s.shiftInPlace = nullptr;
                    s.shiftCombine = first ? rows.shiftStore : rows.shiftAdd;
                } else {
                    s.combine = first ? rows.copy : rows.add;
                }
                break;
            case KUV_COMBINE_SUMSQ:
            case KUV_COMBINE_SUMSQROOT: s.combine = first ? rows.square : rows.addSquare; break;
            case KUV_COMBINE_MAX: s.combine = first ? rows.copy : rows.maximum; break;
            default: s.combine = first ? rows.copy : rows.minimum; break;
        }
    }
}

// One kernel's result for the output row at `at` into acc.
inline void computeStage(const OwnConvStage& s, const float* at, ptrdiff_t rowStride, float* acc,
                         int32_t n) {
    const float* src = at - s.anchorY * rowStride - s.anchorX * s.channels;
    if (s.fixedShape != nullptr) {
        s.fixedShape(src, rowStride, acc, n, &s);
        return;
    }
    s.clearRow(acc, n);
    s.accumulate(src, s.channels, &s, s.nRows, s.nCols, acc, n, rowStride);
}

// What follows the taps of a single kernel: shift, square or magnitude, store.
inline void finishSingle(const OwnConvStage& s, float* acc, int32_t n, void* out) {
    if (s.shiftInPlace != nullptr) s.shiftInPlace(acc, acc, n, &s);
    if (s.combine != nullptr) s.combine(acc, acc, n);
    if (s.storeRow != nullptr && out != nullptr) s.storeRow(acc, out, n);
}

// The row pipeline. Without `out` the result stays in accB.
void convolveRow(const OwnConvPlan& plan, const float* at, ptrdiff_t rowStride, int32_t n,
                 float* accA, float* accB, void* out) {
    if (plan.nKernels == 1) {
        float* acc = out != nullptr ? accA : accB;
        computeStage(plan.stages[0], at, rowStride, acc, n);
        finishSingle(plan.stages[0], acc, n, out);
        return;
    }
    for (int32_t k = 0; k < plan.nKernels; ++k) {
        const OwnConvStage& s = plan.stages[k];
        computeStage(s, at, rowStride, accA, n);
        if (s.shiftCombine != nullptr) {
            s.shiftCombine(accB, accA, n, &s);
            continue;
        }
        if (s.shiftInPlace != nullptr) s.shiftInPlace(accA, accA, n, &s);
        s.combine(accB, accA, n);
    }
    if (plan.finishTotal != nullptr) plan.finishTotal(accB, n);
    if (plan.storeTotal != nullptr && out != nullptr) plan.storeTotal(accB, out, n);
}

// ------------------------------------------------------------------ workers

// How samples move between the images and the work rows.
struct Layout {
    int32_t wch;                // samples per pixel in the work rows
    int32_t srcPix, srcFirst;   // source: elements per pixel, first element
    int32_t outCh;              // samples of a work pixel that are written
    int32_t dstPix, dstFirst;   // destination: elements per pixel, first element
};

// Bytes 0 or 255, one per pixel, from the mask bits of one row.
void expandMask(const MaskView& m, int32_t row, uint8_t* out, int32_t w) {
    const uint8_t* bits = m.data + (m.y + row) * m.step;
    for (int32_t i = 0; i < w; ++i) {
        const int32_t b = m.x + i;
        out[i] = ((bits[b >> 3] >> (7 - (b & 7))) & 1) != 0 ? 255 : 0;
    }
}

// The written samples of each work pixel into the destination row.
template <class T>
void putRow(const T* result, char* dstRow, const Layout& lay, const uint8_t* maskRow, int32_t w) {
    T* d = reinterpret_cast<T*>(dstRow) + lay.dstFirst;
    for (int32_t i = 0; i < w; ++i) {
        if (maskRow != nullptr && maskRow[i] == 0) continue;
        for (int32_t c = 0; c < lay.outCh; ++c) d[i * lay.dstPix + c] = result[i * lay.wch + c];
    }
}

template <int D>
struct ElementOf {
    using T = typename rowconv::Element<D>::T;
};
template <>
struct ElementOf<OWN_1U> {
    using T = uint8_t;
};

bool floatAligned(const Side& s) {
    return ((reinterpret_cast<uintptr_t>(s.data) | uintptr_t(s.step) | uintptr_t(s.planeStep)) &
            3u) == 0;
}

// One member: converts and convolves the rectangle of width w and height h.
// Integer depths, 1U and a 32F channel of interest work through a band of
// float rows; the other 32F layouts read the source rows in place.
template <int D>
int member(const Call& call, const Layout& lay, const Side& src, const Side& dst,
           const MaskView& mask, int32_t w, int32_t h) {
    using T = typename ElementOf<D>::T;
    const Extents e = call.ext;
    const bool bits = D == OWN_1U, isFloat = D == OWN_32F;
    const bool direct = isFloat && lay.srcPix == lay.wch && floatAligned(src);
    const bool straight = !bits && mask.data == nullptr && lay.outCh == lay.wch &&
                          lay.dstPix == lay.wch && (!isFloat || floatAligned(dst));
    const int64_t n = int64_t{w} * lay.wch;
    const int64_t rowFloats = (int64_t{w} + e.left + e.right - 1) * lay.wch;
    const int64_t pitch = roundUp(rowFloats, 4);
    const int32_t span = e.top + e.bottom - 1;   // rows a band reads beyond its own
    const int64_t windowBytes = direct ? 0 : roundUp((span + kBandRows) * pitch * 4, 32);
    const int64_t accBytes = roundUp(n * 4, 32);
    const bool outRow = !bits && !isFloat && !straight;
    const int64_t outBytes = outRow ? roundUp(n * int64_t{sizeof(T)}, 32) : 0;
    const int64_t maskBytes = mask.data != nullptr ? roundUp(w, 32) : 0;
    const int64_t total = windowBytes + 4 * accBytes + outBytes + maskBytes;
    if (total > INT32_MAX) return NO_MEMORY;
    Block block(static_cast<char*>(kuvMalloc(static_cast<int32_t>(total))));
    if (!block) return NO_MEMORY;
    float* window = reinterpret_cast<float*>(block.get());
    // accA and accB as the pipeline uses them; accC and accD are the same for
    // the second row of a pair.
    float* acc[4];
    for (int a = 0; a < 4; ++a)
        acc[a] = reinterpret_cast<float*>(block.get() + windowBytes + a * accBytes);
    T* out = reinterpret_cast<T*>(block.get() + windowBytes + 4 * accBytes);
    uint8_t* maskRow =
        maskBytes != 0 ? reinterpret_cast<uint8_t*>(block.get() + total - maskBytes) : nullptr;

    OwnConvPlan& plan = *call.plan;
    buildPlan(plan, isFloat, D, lay.wch, maskRow);
    if (maskRow != nullptr) {
        // Masked-off samples are never stored, so their accumulators are
        // cleared once and then left as they fall.
        std::memset(acc[0], 0, static_cast<size_t>(4 * accBytes));
    }
    const OwnConvStage& first = plan.stages[0];

    auto dstAt = [&](int32_t j) {
        char* row = dst.data + (dst.y + j) * dst.step;
        return bits ? row : row + int64_t{dst.x} * lay.dstPix * int64_t{sizeof(T)};
    };
    // Where row j's result forms: in the destination row itself for a
    // straight float row; else in accA (integers, one kernel) or accB.
    auto resultOf = [&](int32_t j, int second) {
        if (isFloat && straight) return reinterpret_cast<float*>(dstAt(j));
        const bool intoA = !bits && !isFloat && plan.nKernels == 1;
        return acc[(intoA ? 0 : 1) + 2 * second];
    };
    auto outOf = [&](int32_t j) -> void* {
        return bits || isFloat ? nullptr : straight ? static_cast<void*>(dstAt(j)) : out;
    };
    // Row j's result into the destination: bits, a strided or masked put, or
    // nothing when it was formed or stored in place.
    auto emit = [&](int32_t j, const float* result) {
        if (bits) {
            ownFloatToBits(result, reinterpret_cast<uint8_t*>(dstAt(j)), dst.x, maskRow, w);
        } else if (!straight) {
            putRow(isFloat ? reinterpret_cast<const T*>(result) : out, dstAt(j), lay, maskRow, w);
        }
    };
    // Output rows j (and j + 1 when pair is set, for a fixed shape that can
    // form two rows at once) from the window position at.
    auto writeRows = [&](int32_t j, const float* at, ptrdiff_t rowStride, bool pair) {
        if (!pair) {
            if (maskRow != nullptr) expandMask(mask, j, maskRow, w);
            float* result = resultOf(j, 0);
            convolveRow(plan, at, rowStride, int32_t(n), acc[0], result, outOf(j));
            emit(j, result);
            return;
        }
        float *r0 = resultOf(j, 0), *r1 = resultOf(j + 1, 1);
        first.fixedShapePair(at - first.anchorY * rowStride - first.anchorX * first.channels,
                             rowStride, r0, r1, int32_t(n), &first);
        for (int second = 0; second < 2; ++second) {
            if (maskRow != nullptr) expandMask(mask, j + second, maskRow, w);
            finishSingle(first, second ? r1 : r0, int32_t(n), outOf(j + second));
            emit(j + second, second ? r1 : r0);
        }
    };
    const bool pairs = plan.nKernels == 1 && first.fixedShapePair != nullptr;

    if (direct) {
        const ptrdiff_t rowStride = src.step / 4;
        for (int32_t j = 0; j < h;) {
            const float* row = reinterpret_cast<const float*>(src.data + (src.y + j) * src.step);
            const bool pair = pairs && j + 1 < h;
            writeRows(j, row + int64_t{src.x} * lay.srcPix, rowStride, pair);
            j += pair ? 2 : 1;
        }
        return DONE;
    }

    // Window row r holds source row src.y - top + j0 + r for the band from
    // output row j0 on; each band keeps the last `span` rows of the one before.
    const OwnRowToFloat toFloat = bits ? nullptr : ownRowToFloat(call.depth);
    const int64_t firstSample = (int64_t{src.x} - e.left) * lay.srcPix;
    auto loadRow = [&](int32_t sourceRow, float* to) {
        const char* row = src.data + sourceRow * src.step;
        if (bits) {
            ownBitsToFloat(reinterpret_cast<const uint8_t*>(row), int32_t(firstSample), to,
                           int32_t(rowFloats));
        } else if (lay.srcPix == lay.wch) {
            toFloat(row + firstSample * int64_t{sizeof(T)}, 1, to, int32_t(rowFloats));
        } else {
            toFloat(row + (firstSample + lay.srcFirst) * int64_t{sizeof(T)}, lay.srcPix, to,
                    int32_t(rowFloats));
        }
    };
    for (int32_t j0 = 0, kept = 0; j0 < h;) {
        const int32_t hb = std::min(kBandRows, h - j0);
        for (int32_t r = kept; r < span + hb; ++r) {
            loadRow(src.y - e.top + j0 + r, window + r * pitch);
        }
        for (int32_t jj = 0; jj < hb;) {
            const bool pair = pairs && jj + 1 < hb;
            writeRows(j0 + jj, window + (jj + e.top) * pitch + int64_t{e.left} * lay.wch, pitch,
                      pair);
            jj += pair ? 2 : 1;
        }
        j0 += hb;
        if (span > 0 && j0 < h) {
            std::memmove(window, window + hb * pitch, static_cast<size_t>(span * pitch * 4));
        }
        kept = span;
    }
    return DONE;
}

using Member = int (*)(const Call&, const Layout&, const Side&, const Side&, const MaskView&,
                       int32_t, int32_t);

constexpr Member members[OWN_DEPTH_COUNT] = {&member<OWN_1U>,  &member<OWN_8U>,  &member<OWN_8S>,
                                             &member<OWN_16U>, &member<OWN_16S>, &member<OWN_32S>,
                                             &member<OWN_32F>};

// Chooses the layout of a rectangle and runs its member: per plane in plane
// order; in pixel order a channel of interest, the source's alpha, the
// destination's alpha, or all channels.
int convolveRect(const Call& call, const Side& src, const Side& dst, const MaskView& mask,
                 int32_t w, int32_t h) {
    const Member run = members[call.depthIndex];
    if (call.depthIndex == OWN_1U) return run(call, Layout{1, 1, 0, 1, 1, 0}, src, dst, mask, w, h);
    if (call.dataOrder == KUV_DATA_ORDER_PLANE) {
        const bool one = src.coi != 0;
        const int32_t planes = one ? 1 : call.nCh;
        for (int32_t p = 0; p < planes; ++p) {
            Side s = src, d = dst;
            s.data += (one ? src.coi - 1 : p) * src.planeStep;
            d.data += (one ? dst.coi - 1 : p) * dst.planeStep;
            const int out = run(call, Layout{1, 1, 0, 1, 1, 0}, s, d, mask, w, h);
            if (out != DONE) return out;
        }
        return DONE;
    }
    Layout lay{src.nChannels, src.nChannels, 0, src.nChannels, dst.nChannels, 0};
    if (src.coi != 0) {
        lay = Layout{1, src.nChannels, src.coi - 1, 1, dst.nChannels, dst.coi - 1};
    } else if (src.alphaChannel != 0) {
        lay.outCh = src.nChannels - 1;
    }
    return run(call, lay, src, dst, mask, w, h);
}

// ------------------------------------------------------------------ windows

// A window of the source around a rectangle, as a Side whose rectangle
// starts at (left, top). Null data when the window could not be read.
struct Window {
    Block block;
    Side side{};
};

Window windowFor(const Call& call, const Side& like, int32_t x, int32_t y, int32_t w, int32_t h) {
    const Extents e = call.ext;
    Window win;
    const int64_t ww = int64_t{w} + e.left + e.right - 1, wh = int64_t{h} + e.top + e.bottom - 1;
    if (ww > INT32_MAX || wh > INT32_MAX) return win;
    int32_t step = 0;
    win.block.reset(
        ownCopyWindowAs(call.reader, call.owner, x - e.left, y - e.top, int32_t(ww), int32_t(wh), &step));
    if (!win.block) return win;
    win.side = like;
    win.side.data = win.block.get();
    win.side.step = step;
    win.side.planeStep = ptrdiff_t{step} * wh;
    win.side.x = e.left;
    win.side.y = e.top;
    return win;
}

// A rectangle read through a window, or from the source in place.
int convolvePiece(const Call& call, const Side& src, bool inPlace, const Side& dst,
                  const MaskView& mask, int32_t w, int32_t h) {
    if (inPlace) return convolveRect(call, src, dst, mask, w, h);
    Window win = windowFor(call, src, src.x, src.y, w, h);
    if (!win.block) return NO_MEMORY;
    return convolveRect(call, win.side, dst, mask, w, h);
}

// ------------------------------------------------------------------ paths

// An untiled source and destination: the bands at the image's edges, where
// the kernels reach beyond it, through windows; the rest in place.
int fiveRegions(const Call& call, const KuvImage* image, const Side& src, const Side& dst,
                const MaskView& mask, int32_t w, int32_t h) {
    const Extents e = call.ext;
    const int32_t x = src.x, y = src.y;
    const int32_t topEnd = std::clamp(e.top, y, y + h);
    const int32_t bottomStart =
        std::max(std::clamp(image->height - e.bottom + 1, y, y + h), topEnd);
    const int32_t leftEnd = std::clamp(e.left, x, x + w);
    const int32_t rightStart = std::max(std::clamp(image->width - e.right + 1, x, x + w), leftEnd);
    struct Piece {
        int32_t x0, y0, x1, y1;
        bool inPlace;
    };
    const Piece pieces[5] = {
        {x, y, x + w, topEnd, false},                       // top band
        {x, bottomStart, x + w, y + h, false},              // bottom band
        {x, topEnd, leftEnd, bottomStart, false},           // left band
        {rightStart, topEnd, x + w, bottomStart, false},    // right band
        {leftEnd, topEnd, rightStart, bottomStart, true},   // the rest, in place
    };
    for (const Piece& p : pieces) {
        if (p.x1 <= p.x0 || p.y1 <= p.y0) continue;
        const int32_t dx = p.x0 - x, dy = p.y0 - y;
        const int out = convolvePiece(call, src.moved(dx, dy), p.inPlace, dst.moved(dx, dy),
                                      mask.moved(dx, dy), p.x1 - p.x0, p.y1 - p.y0);
        if (out != DONE) return out;
    }
    return DONE;
}

enum class TileSource { InPlaceWhereInside, WindowPerTile, WholeWindowFirst };

// A tiled destination, tile by tile; each tile's source rectangle comes from
// the image in place, from a window of its own, or from one window of the
// whole rectangle read before any tile is written.
int tileWalk(const Call& call, const KuvImage* srcImage, KuvImage* dstImage, const Side& src,
             int32_t dx, int32_t dy, int32_t dstCoi, const MaskView& mask, int32_t w, int32_t h,
             TileSource how) {
    KuvTileInfo* info = dstImage->tileInfo;
    const int32_t tw = info->width, th = info->height;
    const ptrdiff_t tileStep = ownTileRowBytes(dstImage);
    Window whole;
    if (how == TileSource::WholeWindowFirst) {
        whole = windowFor(call, src, src.x, src.y, w, h);
        if (!whole.block) return NO_MEMORY;
    }
    const Extents e = call.ext;
    int out = DONE;
    ownForEachTilePiece(dx, dy, int64_t{dx} + w, int64_t{dy} + h, tw, th,
                        [&](const OwnTilePiece& t) {
        const auto col = int32_t(t.col), row = int32_t(t.row);
        const auto ox = int32_t(t.dx), oy = int32_t(t.dy), pw = int32_t(t.width),
                   ph = int32_t(t.height);
        info->callBack(dstImage, col, row, KUV_TILE_WRITE);
        char* tile = info->tileData;
        if (tile == nullptr) {
            out = NO_TILE;
            return false;
        }
        Side tileSide{tile,
                      tileStep,
                      tileStep * th,
                      int32_t(t.x - int64_t{col} * tw),
                      int32_t(t.y - int64_t{row} * th),
                      dstImage->nChannels,
                      dstImage->alphaChannel,
                      dstCoi};
        const MaskView tileMask = mask.moved(ox, oy);
        if (how == TileSource::WholeWindowFirst) {
            out = convolveRect(call, whole.side.moved(ox, oy), tileSide, tileMask, pw, ph);
        } else {
            const Side s = src.moved(ox, oy);
            const bool inside = how == TileSource::InPlaceWhereInside && s.x >= e.left &&
                                s.y >= e.top &&
                                int64_t{s.x} + pw + e.right - 1 <= srcImage->width &&
                                int64_t{s.y} + ph + e.bottom - 1 <= srcImage->height;
            out = convolvePiece(call, s, inside, tileSide, tileMask, pw, ph);
        }
        info->tileData = tile;
        info->callBack(dstImage, col, row, KUV_TILE_RELEASE);
        return out == DONE;
    });
    return out;
}

// ------------------------------------------------------------------ engine

// A region as the engine uses it: the whole image or the roi clipped to it.
struct Region {
    int32_t coi, x, y, width, height;
};

Region regionOf(const KuvImage* image) {
    const KuvROI* roi = image->roi;
    if (roi == nullptr) return Region{0, 0, 0, image->width, image->height};
    return Region{roi->coi, roi->xOffset, roi->yOffset,
                  int32_t(std::min<int64_t>(roi->width, int64_t{image->width} - roi->xOffset)),
                  int32_t(std::min<int64_t>(roi->height, int64_t{image->height} - roi->yOffset))};
}

// A mask limits the rectangle to its own clipped region.
Region maskedRegionOf(const KuvImage* image) {
    Region r = regionOf(image);
    if (image->maskROI != nullptr) {
        const Region m = regionOf(image->maskROI);
        r.width = std::min(r.width, m.width);
        r.height = std::min(r.height, m.height);
    }
    return r;
}

void clampConstants(KuvImage* image) {
    int32_t lo = INT32_MIN, hi = INT32_MAX;
    switch (ownDepthIndex(image->depth)) {
        case OWN_1U: lo = 0, hi = 1; break;
        case OWN_8U: lo = 0, hi = 255; break;
        case OWN_8S: lo = -128, hi = 127; break;
        case OWN_16U: lo = 0, hi = 65535; break;
        case OWN_16S: lo = -32768, hi = 32767; break;
        default: break;
    }
    for (int32_t& c : image->borderConst) c = std::clamp(c, lo, hi);
}

// The stage records of a call, with the float coefficients of its integer
// kernels; everything is freed on the way out.
class Stages {
public:
    Stages(const OwnConvKernel* kernels, int32_t nKernels, bool isFP, int depthIndex) {
        stages_ = static_cast<OwnConvStage*>(
            kuvMalloc(static_cast<int32_t>(sizeof(OwnConvStage) * size_t(nKernels))));
        if (stages_ == nullptr) return;
        std::memset(static_cast<void*>(stages_), 0, sizeof(OwnConvStage) * size_t(nKernels));
        count_ = nKernels;
        for (int32_t k = 0; k < nKernels; ++k) {
            if (!fill(stages_[k], kernels[k], isFP, depthIndex)) return;
        }
        ok_ = true;
    }
    ~Stages() {
        for (int32_t k = count_ - 1; k >= 0; --k) {
            if (stages_[k].ownsFloatValues) kuvFree(const_cast<float*>(stages_[k].floatValues));
        }
        kuvFree(stages_);
    }
    Stages(const Stages&) = delete;
    Stages& operator=(const Stages&) = delete;
    bool ok() const { return ok_; }
    OwnConvStage* get() const { return stages_; }

private:
    static bool fill(OwnConvStage& s, const OwnConvKernel& k, bool isFP, int depthIndex) {
        const int64_t n = int64_t{k.nCols} * k.nRows;
        s.nCols = k.nCols;
        s.nRows = k.nRows;
        s.anchorX = k.anchorX;
        s.anchorY = k.anchorY;
        if (isFP) {
            s.floatValues = static_cast<const float*>(k.values);
            return true;
        }
        s.intValues = static_cast<const int32_t*>(k.values);
        if (n * 4 > INT32_MAX) return false;
        auto* f = static_cast<float*>(kuvMalloc(static_cast<int32_t>(n * 4)));
        if (f == nullptr) return false;
        s.floatValues = f;
        s.ownsFloatValues = true;
        double bound = 0.0;
        for (int64_t i = 0; i < n; ++i) {
            const int32_t v = s.intValues[i];
            f[i] = static_cast<float>(v);
            s.nZeros += v == 0;
            s.nUnits += v == 1 || v == -1;
            bound += std::fabs(double(f[i]));
        }
        s.exact = bound * maxMagnitude(depthIndex) < 16777216.0;
        return true;
    }

    OwnConvStage* stages_ = nullptr;
    int32_t count_ = 0;
    bool ok_ = false;
};

struct FreeMask {
    void operator()(KuvImage* image) const {
        kuvDeallocate(image, KUV_IMAGE_HEADER | KUV_IMAGE_DATA);
    }
};

// A kernel record of either kind as the engine sees it, with its shift.
OwnConvKernel viewOf(const KuvConvKernel* k, int32_t* shift) {
    *shift = k->nShiftR;
    return OwnConvKernel{k->nCols, k->nRows, k->anchorX, k->anchorY, k->values};
}
OwnConvKernel viewOf(const KuvConvKernelFP* k, int32_t* shift) {
    *shift = 0;
    return OwnConvKernel{k->nCols, k->nRows, k->anchorX, k->anchorY, k->values};
}

constexpr int32_t kMaxKernels = 10;

// The engine: rectangles, channels, masks, stages, then the path by where
// the source and destination pixels live. Gives the outcome to report.
template <class Record>
int ownConvolve2D(const KuvImage* srcImage, KuvImage* dstImage, Record* const* kernel,
                  int32_t nKernels, bool isFP, int32_t method) {
    OwnConvKernel kernels[kMaxKernels];
    int32_t shifts[kMaxKernels];
    for (int32_t k = 0; k < nKernels; ++k) kernels[k] = viewOf(kernel[k], &shifts[k]);
    KuvImage srcCopy = *srcImage, dstCopy = *dstImage;
    clampConstants(&srcCopy);
    clampConstants(&dstCopy);
    // Windows are read through the working copy, which carries the limited
    // constants; the caller's header is never written, so two threads may
    // convolve from one source at once.

    Region rs = maskedRegionOf(&srcCopy), rd = maskedRegionOf(&dstCopy);
    const int32_t w = std::min(rs.width, rd.width), h = std::min(rs.height, rd.height);
    if (w < 1 || h < 1) return DONE;

    Call call{};
    call.depth = srcCopy.depth;
    call.depthIndex = ownDepthIndex(srcCopy.depth);
    call.dataOrder = srcCopy.dataOrder;
    if ((rs.coi == 0) != (rd.coi == 0)) return COI_UNDEFINED;
    if (rs.coi == 0) {
        const int32_t cs = srcCopy.nChannels - (srcCopy.alphaChannel != 0 ? 1 : 0);
        const int32_t cd = dstCopy.nChannels - (dstCopy.alphaChannel != 0 ? 1 : 0);
        if (cs == 0 || cd == 0) return NO_CHANNEL;
        if (cs != cd) return INCOMPATIBLE;
        call.nCh = cs;
    }

    // Masks: one is read where its region starts; two are merged first, as
    // for every pixelwise operation.
    std::unique_ptr<KuvImage, FreeMask> merged;
    MaskView mask;
    const KuvImage *ms = srcCopy.maskROI, *md = dstCopy.maskROI;
    int outcome = OWN_MASK_NONE_OR_ONE;
    const KuvImage* m = ownMergeMasks(ms, md, nullptr, &outcome);
    if (outcome == OWN_MASK_NO_MEMORY) return NO_MEMORY;
    if (outcome == OWN_MASK_TEMPORARY) {
        merged.reset(const_cast<KuvImage*>(m));
        mask = MaskView{reinterpret_cast<const uint8_t*>(m->imageData), m->widthStep, 0, 0};
    } else if (m != nullptr) {
        const Region r = regionOf(m);
        mask = MaskView{reinterpret_cast<const uint8_t*>(m->imageData), m->widthStep, r.x, r.y};
    }

    Extents& e = call.ext;
    e = Extents{0, 0, 0, 0};
    for (int32_t k = 0; k < nKernels; ++k) {
        e.left = std::max(e.left, kernels[k].anchorX);
        e.top = std::max(e.top, kernels[k].anchorY);
        e.right = std::max(e.right, kernels[k].nCols - kernels[k].anchorX);
        e.bottom = std::max(e.bottom, kernels[k].nRows - kernels[k].anchorY);
    }

    Stages stages(kernels, nKernels, isFP, call.depthIndex);
    if (!stages.ok()) return NO_MEMORY;
    for (int32_t k = 0; k < nKernels; ++k) stages.get()[k].nShiftR = shifts[k];
    OwnConvPlan plan{};
    plan.kernels = kernels;
    plan.nKernels = nKernels;
    plan.method = method;
    plan.stages = stages.get();
    call.plan = &plan;
    call.reader = &srcCopy;
    call.owner = srcImage;

    const Side src = sideOf(&srcCopy, rs.x, rs.y, rs.coi);
    const bool same = srcImage == dstImage;
    const bool srcTiled = srcCopy.tileInfo != nullptr, dstTiled = dstCopy.tileInfo != nullptr;
    if (!dstTiled) {
        const Side dst = sideOf(&dstCopy, rd.x, rd.y, rd.coi);
        if (!same && !srcTiled) return fiveRegions(call, &srcCopy, src, dst, mask, w, h);
        return convolvePiece(call, src, false, dst, mask, w, h);
    }
    const TileSource how = same       ? TileSource::WholeWindowFirst
                           : srcTiled ? TileSource::WindowPerTile
                                      : TileSource::InPlaceWhereInside;
    return tileWalk(call, &srcCopy, dstImage, src, rd.x, rd.y, rd.coi, mask, w, h, how);
}

// The checks of both exported forms, in their order, then the engine.
template <class Record>
void convolve2D(const char* func, const KuvImage* srcImage, KuvImage* dstImage,
                Record* const* kernel, int32_t nKernels, int32_t combineMethod) {
    constexpr bool isFP = std::is_same_v<Record, KuvConvKernelFP>;
    auto badOffsets = [](const KuvImage* image) {
        const KuvROI* roi = image->roi;
        return roi != nullptr && (roi->xOffset < 0 || roi->yOffset < 0 ||
                                  roi->xOffset >= image->width || roi->yOffset >= image->height);
    };
    for (const KuvImage* image : {srcImage, static_cast<const KuvImage*>(dstImage)}) {
        const KuvStatus fault = kuvCheckImageHeader(image);
        if (refuse(fault != KUV_StsNoError, fault, func, "Incorrect Image")) return;
    }
    if (refuse(badOffsets(srcImage), KUV_StsBadROIOffset, func, "Bad ROI offsets")) return;
    if (refuse(badOffsets(dstImage), KUV_StsBadROIOffset, func, "Bad ROI offsets")) return;
    if (refuse(kernel == nullptr, KUV_StsBadArgument, func, "kernel==0")) return;
    if (refuse(nKernels <= 0 || nKernels > kMaxKernels, KUV_StsBadArgument, func,
               "(nKernels<=0 || nKernels>10)"))
        return;
    if (refuse(nKernels > 1 && (combineMethod < 0 || combineMethod > 4), KUV_StsBadArgument, func,
               "Inadmissible method"))
        return;
    for (int32_t k = 0; k < nKernels; ++k) {
        if (refuse(kernel[k] == nullptr, KUV_StsBadArgument, func, "kernel[i]==0")) return;
        int32_t shift = 0;
        const OwnConvKernel view = viewOf(kernel[k], &shift);
        if (refuse(ownBadKernel(&view), KUV_StsBadArgument, func, "Bad kernel structure")) return;
    }
    if (refuse(srcImage->depth != dstImage->depth || srcImage->dataOrder != dstImage->dataOrder,
               KUV_StsBadArgument, func, "Uncompatible images"))
        return;
    if (!isFP && refuse(srcImage->depth == KUV_DEPTH_32F, KUV_StsBadArgument, func,
                        "32F images can be processed only with FP kernel"))
        return;
    if (isFP && refuse(srcImage->depth != KUV_DEPTH_32F, KUV_StsBadArgument, func,
                       "FP kernel can be used only for 32F images"))
        return;
    switch (ownConvolve2D(srcImage, dstImage, kernel, nKernels, isFP, combineMethod)) {
        case DONE: break;
        case NO_CHANNEL: refuse(true, KUV_StsBadArgument, func, "No channel to operate"); break;
        case INCOMPATIBLE: refuse(true, KUV_StsBadArgument, func, "Uncompatible images"); break;
        case NO_MEMORY: refuse(true, KUV_StsOutOfMemory, func, "Allocation failure"); break;
        case COI_UNDEFINED:
            refuse(true, KUV_StsBadArgument, func, "One of the COI is not defined");
            break;
        default: refuse(true, KUV_StsBadArgument, func, "Internal error"); break;
    }
}

}   // namespace
}   // namespace kuv::conv

void kuvConvolve2D(const KuvImage* srcImage, KuvImage* dstImage, KuvConvKernel** kernel,
                   int32_t nKernels, int32_t combineMethod) {
    kuv::conv::convolve2D("kuvConvolve2D", srcImage, dstImage, kernel, nKernels, combineMethod);
}

void kuvConvolve2DFP(const KuvImage* srcImage, KuvImage* dstImage, KuvConvKernelFP** kernel,
                     int32_t nKernels, int32_t combineMethod) {
    kuv::conv::convolve2D("kuvConvolve2DFP", srcImage, dstImage, kernel, nKernels, combineMethod);
}
