// Morphology with a square box: erosion, dilation, opening and closing.
//
// n iterations are one pass with a (2n+1)-square box anchored at its centre.
// Each source row is read once per channel into a ring of row buffers, and
// an output row is written only after every source row it needs is in the
// ring, so the source and the destination may be the same image. Opening
// and closing stream their first stage into a second ring, so the image in
// between is never stored whole.
//
// The box sees the source one row and one column around the rectangle and
// no further: rows beyond are clamped to those, columns beyond are spread
// from them. Inside the image those are true pixels, also outside the
// region; at the image's edge they come from its border settings.
#include "core/platform.h"
#include "filter/morph.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace kuv::morph {
namespace {

// ------------------------------------------------------------ row passes

template <class T, bool IsMax>
struct ScalarPasses {
    using Elem = T;
    static T op(T a, T b) { return IsMax ? (a > b ? a : b) : (a < b ? a : b); }

    // Two rows per pass over dst, so that the loops vectorise.
    static void columns(T* __restrict dst, const uint8_t* ring, int64_t pitch, int32_t nRows,
                        int32_t n, bool accumulate) {
        auto row = [&](int32_t r) { return reinterpret_cast<const T*>(ring + r * pitch); };
        int32_t r = 0;
        if (!accumulate) {
            const T* __restrict a = row(0);
            const T* __restrict b = row(nRows > 1 ? 1 : 0);
            for (int32_t i = 0; i < n; ++i) dst[i] = op(a[i], b[i]);
            r = 2;
        }
        for (; r + 1 < nRows; r += 2) {
            const T* __restrict c = row(r);
            const T* __restrict d = row(r + 1);
            for (int32_t i = 0; i < n; ++i) dst[i] = op(dst[i], op(c[i], d[i]));
        }
        if (r < nRows) {
            const T* __restrict c = row(r);
            for (int32_t i = 0; i < n; ++i) dst[i] = op(dst[i], c[i]);
        }
    }
    static void fold3(T* dst, const T* a, const T* b, int32_t n) {
        for (int32_t i = 0; i < n; ++i) dst[i] = op(a[i], b[i]);
        ahead3(dst, n - 2);
    }
    static void ahead3(T* a, int32_t n) {
        for (int32_t i = 0; i < n; ++i) a[i] = op(a[i], op(a[i + 1], a[i + 2]));
    }
    static void ahead(T* a, int32_t k, int32_t n) {
        for (int32_t i = 0; i < n; ++i) a[i] = op(a[i], a[i + k]);
    }
    static void triples(T* __restrict dst, const T* __restrict a, int32_t n) {
        for (int32_t i = 0; i < n; ++i) dst[i] = op(a[i], op(a[i + 1], a[i + 2]));
    }
    static void box3(T* dst, const uint8_t* ring, int64_t pitch, T* scratch, int32_t width) {
        columns(scratch, ring, pitch, 3, width + 2, false);
        triples(dst, scratch, width);
    }
    static void pairs(T* __restrict dst, const T* __restrict a, int32_t k, int32_t n) {
        for (int32_t i = 0; i < n; ++i) dst[i] = op(a[i], a[i + k]);
    }
};

inline uint32_t loadWord(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Bits are samples in order from the most significant bit of each byte, so
// a word byte-swapped on load holds 32 consecutive samples, the first one
// in its top bit, and shifts move samples along the row.
template <bool IsMax>
void bitsWorker(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
                int32_t width) {
    const int32_t count = width + size - 1;
    const int32_t words = (count + 31) / 32;   // the pitch holds them: it is a multiple of 8
    uint8_t* scratchBytes = ring + size * pitch;
    uint32_t* s = reinterpret_cast<uint32_t*>(scratchBytes);
    auto op = [](uint32_t a, uint32_t b) { return IsMax ? a | b : a & b; };
    for (int32_t j = 0; j < words; ++j) {
        uint32_t v = loadWord(ring + 4 * j);
        for (int32_t r = 1; r < size; ++r) v = op(v, loadWord(ring + r * pitch + 4 * j));
        s[j] = __builtin_bswap32(v);
    }
    // 32 samples from sample p on. Past the last word the samples are never
    // used, so they read as 0.
    auto at = [&](int64_t p) -> uint32_t {
        const int64_t q = p >> 5;
        const int sh = static_cast<int>(p & 31);
        const uint32_t hi = q < words ? s[q] : 0u;
        if (sh == 0) return hi;
        const uint32_t lo = q + 1 < words ? s[q + 1] : 0u;
        return (hi << sh) | (lo >> (32 - sh));
    };
    // Doubling along the row as the other workers do (from 1, not from 3:
    // a shift costs the same whatever its length); in place, each word
    // reading only itself and words after it.
    int32_t k = 1;
    for (; 2 * k <= size; k *= 2) {
        for (int32_t j = 0; j < words; ++j) s[j] = op(s[j], at(int64_t{32} * j + k));
    }
    const int32_t outWords = (width + 31) / 32;
    for (int32_t j = 0; j < outWords; ++j) {
        s[j] = __builtin_bswap32(op(s[j], at(int64_t{32} * j + size - k)));
    }
    auto* dst = static_cast<uint8_t*>(out);
    ownCopyBits(scratchBytes, dst + outOffset / 8, 0, outOffset % 8, width, 1, 0, 0);
}

}  // namespace

void ownMorphMinBits(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
                     int32_t width) {
    bitsWorker<false>(size, ring, pitch, out, outOffset, width);
}

void ownMorphMaxBits(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
                     int32_t width) {
    bitsWorker<true>(size, ring, pitch, out, outOffset, width);
}

const OwnMorphWorker ownMorphMin[SLOT_COUNT] = {ownMorphMinBits,
                                                boxWorker<ScalarPasses<uint8_t, false>>,
                                                boxWorker<ScalarPasses<uint16_t, false>>};
const OwnMorphWorker ownMorphMax[SLOT_COUNT] = {ownMorphMaxBits,
                                                boxWorker<ScalarPasses<uint8_t, true>>,
                                                boxWorker<ScalarPasses<uint16_t, true>>};
const OwnMorphRowOps ownMorphMinRows[SLOT_COUNT] = {{}, rowOps<ScalarPasses<uint8_t, false>>(),
                                                    rowOps<ScalarPasses<uint16_t, false>>()};
const OwnMorphRowOps ownMorphMaxRows[SLOT_COUNT] = {{}, rowOps<ScalarPasses<uint8_t, true>>(),
                                                    rowOps<ScalarPasses<uint16_t, true>>()};

namespace {

// ------------------------------------------------------------ worker choice

bool cpuHasAvx2() { return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0; }

OwnMorphSet chooseWorkers() {
    OwnMorphSet set{ownMorphMin, ownMorphMax, ownMorphMinRows, ownMorphMaxRows};
    OwnMorphSet vector{};
    if (cpuHasAvx2() && ownMorphVectorSet(&vector)) set = vector;
    return set;
}

// ------------------------------------------------------------ rows

constexpr const char* kFile = "ownMorph";

enum Kind : int { ERODE, DILATE, OPEN, CLOSE };


struct WindowHolder {
    char* block = nullptr;
    ~WindowHolder() { ownFreeWindow(block); }
};

struct ImageHolder {
    KuvImage* image = nullptr;
    ~ImageHolder() {
        if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_HEADER | KUV_IMAGE_DATA);
    }
};

int slotOf(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_1U: return SLOT_1U;
        case KUV_DEPTH_8U: return SLOT_8U;
        case KUV_DEPTH_16U: return SLOT_16U;
        default: return -1;
    }
}

// Where one channel's samples of a row lie in memory: sample x at
// row + x * stride bytes; for bits, bit x from the top of row[0].
struct Line {
    uint8_t* row;
    int64_t stride;
};

Line lineOf(const KuvImage* image, char* data, int64_t step, int64_t planeBytes, int64_t y,
            int32_t channel, int esize) {
    auto* base = reinterpret_cast<uint8_t*>(data);
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) {
        return {base + y * step + int64_t{channel - 1} * esize, int64_t{esize} * image->nChannels};
    }
    return {base + int64_t{channel - 1} * planeBytes + y * step, esize};
}

template <class T>
void gather(const Line& l, int64_t x, uint8_t* buffer, int64_t at, int64_t n) {
    uint8_t* d = buffer + at * int64_t{sizeof(T)};
    const uint8_t* p = l.row + x * l.stride;
    if (l.stride == sizeof(T)) return static_cast<void>(std::memcpy(d, p, n * sizeof(T)));
    for (int64_t i = 0; i < n; ++i, p += l.stride, d += sizeof(T)) std::memcpy(d, p, sizeof(T));
}

template <class T>
void scatter(const uint8_t* buffer, int64_t at, const Line& l, int64_t x, int64_t n) {
    const uint8_t* s = buffer + at * int64_t{sizeof(T)};
    uint8_t* p = l.row + x * l.stride;
    if (l.stride == sizeof(T)) return static_cast<void>(std::memcpy(p, s, n * sizeof(T)));
    for (int64_t i = 0; i < n; ++i, p += l.stride, s += sizeof(T)) std::memcpy(p, s, sizeof(T));
}

inline void copyBits(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to, int64_t n) {
    ownCopyBits(src + from / 8, dst + to / 8, static_cast<int32_t>(from % 8),
                static_cast<int32_t>(to % 8), static_cast<int32_t>(n), 1, 0, 0);
}

// n samples of a line from column x into buffer sample `at` on, and back.
void copyIn(int slot, const Line& l, int64_t x, uint8_t* buffer, int64_t at, int64_t n) {
    switch (slot) {
        case SLOT_1U: return copyBits(l.row, x, buffer, at, n);
        case SLOT_8U: return gather<uint8_t>(l, x, buffer, at, n);
        default: return gather<uint16_t>(l, x, buffer, at, n);
    }
}

void copyOut(int slot, const uint8_t* buffer, int64_t at, const Line& l, int64_t x, int64_t n) {
    switch (slot) {
        case SLOT_1U: return copyBits(buffer, at, l.row, x, n);
        case SLOT_8U: return scatter<uint8_t>(buffer, at, l, x, n);
        default: return scatter<uint16_t>(buffer, at, l, x, n);
    }
}

// Samples [from, from + n) of a row buffer made copies of sample `of`.
void spread(int slot, uint8_t* buffer, int64_t of, int64_t from, int64_t n) {
    if (n <= 0) return;
    switch (slot) {
        case SLOT_1U: {
            const int v = (buffer[of / 8] >> (7 - of % 8)) & 1;
            uint8_t* p = buffer + from / 8;
            const auto o = static_cast<int32_t>(from % 8);
            return ownLogicBitsS(v ? OWN_BIT_OR : OWN_BIT_AND, p, p, o, o,
                                 static_cast<int32_t>(n), 1, 0, 0, v);
        }
        case SLOT_8U: return static_cast<void>(std::memset(buffer + from, buffer[of], n));
        default: {
            auto* b = reinterpret_cast<uint16_t*>(buffer);
            return std::fill(b + from, b + from + n, b[of]);
        }
    }
}

// What one call works with.
struct Engine {
    const KuvImage* src;
    KuvImage* dst;
    int slot, esize;        // esize 0 for bits
    int32_t sx, sy, dx, dy;   // rectangle starts
    int32_t width, height;
    int32_t half, size;
    int64_t pitch;
    const KuvImage* mask;   // the write mask at the destination's depth, or null
    OwnMorphWorker first, second;
    OwnMorphRowOps rows;      // the first stage's row operations (none for bits)
    uint8_t* rings[2];
    uint8_t *above, *below;   // the source rows next to the rectangle
    char* sides[2];           // untiled: the columns left and right of the rectangle
    int64_t sideStep;
    bool direct;              // output rows go straight into the destination

    uint8_t* rowAt(int ring, int64_t i) const { return rings[ring] + i * pitch; }
    // Where output row r of a channel starts in an untiled destination.
    uint8_t* dstRow(int32_t r, int32_t channel) const {
        return lineOf(dst, dst->imageData, dst->widthStep, int64_t{dst->widthStep} * dst->height,
                      int64_t{dy} + r, channel, esize)
            .row;
    }
};

// Source row `row` of the rectangle (0 its first row) into a ring buffer:
// columns x - half .. x + width + half - 1, of which only the column next to
// the rectangle on each side is read; samples beyond repeat it. The rows
// next to the rectangle and tiled rows come through the bordered line
// reader; rows of the rectangle in plain memory are copied, with their two
// outer samples from the columns read beforehand.
void readRow(const Engine& e, int64_t row, int32_t channel, uint8_t* buffer, uint8_t* spare) {
    const KuvImage* src = e.src;
    const auto y = static_cast<int32_t>(e.sy + row);
    const int64_t at = e.half - 1;   // buffer sample of column sx - 1
    if (e.sides[0] != nullptr && row >= 0 && row < e.height) {
        const Line l = lineOf(src, src->imageData, src->widthStep,
                              int64_t{src->widthStep} * src->height, y, channel, e.esize);
        copyIn(e.slot, l, e.sx, buffer, at + 1, e.width);
        for (int side = 0; side < 2; ++side) {
            const Line c = lineOf(src, e.sides[side], e.sideStep, e.sideStep * e.height, row,
                                  channel, e.esize);
            copyIn(e.slot, c, 0, buffer, side == 0 ? at : at + e.width + 1, 1);
        }
    } else if (e.slot != SLOT_1U) {
        ownGetBorderedLine(src, e.sx - 1, y, channel, buffer + at * e.esize, e.width + 2);
    } else {   // the reader puts bits from bit 0 on
        ownGetBorderedLine(src, e.sx - 1, y, channel, spare, e.width + 2);
        copyBits(spare, 0, buffer, at, e.width + 2);
    }
    spread(e.slot, buffer, at, 0, at);
    spread(e.slot, buffer, at + e.width + 1, at + e.width + 2, e.half - 1);
}

// The rows right above and below the rectangle stand for every row beyond
// it, so they are read once, before anything is written: in place, a border
// rule may map the row below onto a row that is written early (wrap maps it
// to row 0).
void readEdges(const Engine& e, int32_t channel, uint8_t* spare) {
    readRow(e, -1, channel, e.above, spare);
    readRow(e, e.height, channel, e.below, spare);
}

void ownMorphRow(const Engine& e, int64_t row, int32_t channel, uint8_t* buffer,
                 uint8_t* spare) {
    if (row < 0 || row >= e.height) {
        std::memcpy(buffer, row < 0 ? e.above : e.below, static_cast<size_t>(e.pitch));
        return;
    }
    readRow(e, row, channel, buffer, spare);
}

// Output row r of the rectangle from `out`; false when the destination's
// tile procedure gave no tile.
bool writeRow(const Engine& e, int32_t r, int32_t channel, uint8_t* out, uint8_t* spare) {
    KuvImage* dst = e.dst;
    const int64_t y = int64_t{e.dy} + r;
    if (e.mask != nullptr) {
        if (dst->tileInfo != nullptr) {
            ownGetBorderedLine(dst, e.dx, static_cast<int32_t>(y), channel, spare, e.width);
        } else {
            copyIn(e.slot, lineOf(dst, dst->imageData, dst->widthStep,
                                  int64_t{dst->widthStep} * dst->height, y, channel, e.esize),
                   e.dx, spare, 0, e.width);
        }
        const auto* m = reinterpret_cast<const uint8_t*>(e.mask->imageData) +
                        int64_t{r} * e.mask->widthStep;
        const int64_t bytes = e.slot == SLOT_1U ? (int64_t{e.width} + 7) / 8
                                                : int64_t{e.width} * e.esize;
        for (int64_t i = 0; i < bytes; ++i) {
            out[i] = static_cast<uint8_t>((out[i] & m[i]) | (spare[i] & ~m[i]));
        }
    }
    if (dst->tileInfo == nullptr) {
        const Line l = lineOf(dst, dst->imageData, dst->widthStep,
                              int64_t{dst->widthStep} * dst->height, y, channel, e.esize);
        copyOut(e.slot, out, 0, l, e.dx, e.width);
        return true;
    }
    // One segment per tile, each written between its request and release.
    KuvTileInfo* tiles = dst->tileInfo;
    const int64_t tw = tiles->width, th = tiles->height;
    const int64_t u = y / th, step = ownTileRowBytes(dst);
    for (int64_t x = e.dx, end = int64_t{e.dx} + e.width; x < end;) {
        const int64_t t = x / tw, left = t * tw, stop = std::min(end, left + tw);
        tiles->callBack(dst, static_cast<int32_t>(t), static_cast<int32_t>(u), KUV_TILE_WRITE);
        char* tile = tiles->tileData;
        if (tile == nullptr) return false;
        const Line l = lineOf(dst, tile, step, step * th, y - u * th, channel, e.esize);
        copyOut(e.slot, out, x - e.dx, l, x - left, stop - x);
        tiles->tileData = tile;
        tiles->callBack(dst, static_cast<int32_t>(t), static_cast<int32_t>(u), KUV_TILE_RELEASE);
        x = stop;
    }
    return true;
}

// ------------------------------------------------------------ engines

// The last stage of output row r: straight into the destination row when
// nothing stands between (untiled, no mask, the channel's samples adjacent),
// else into `slot` and written from there.
bool deliver(const Engine& e, OwnMorphWorker worker, uint8_t* ring, uint8_t* slot, int32_t r,
             int32_t channel, uint8_t* spare) {
    if (e.direct) {
        worker(e.size, ring, e.pitch, e.dstRow(r, channel), e.dx, e.width);
        return true;
    }
    worker(e.size, ring, e.pitch, slot, 0, e.width);
    return writeRow(e, r, channel, slot, spare);
}

// The row stage of output row r, with buf holding its column results.
bool finishRow(const Engine& e, uint8_t* buf, int32_t r, int32_t channel, uint8_t* spare) {
    if (e.direct) {
        e.rows.rows(e.size, buf, e.dstRow(r, channel), e.dx, e.width);
        return true;
    }
    e.rows.rows(e.size, buf, buf, 0, e.width);
    return writeRow(e, r, channel, buf, spare);
}

// Erosion and dilation: one ring; the slot that is about to be refilled
// holds the oldest row, free once the worker's first stage has read it, and
// takes the output row.
//
// With row operations, two output rows per step: the ring holds rows
// r - n .. r + n; the rows but the oldest are folded into the scratch row,
// which with the oldest gives row r; the oldest slot then takes row
// r + n + 1, which with the scratch row gives row r + 1. The slot of row
// r - n + 1 is no longer needed and serves as the spare row.
bool runSingle(const Engine& e, int32_t srcChannel, int32_t dstChannel) {
    uint8_t* ring = e.rings[0];
    uint8_t* scratch = e.rowAt(0, e.size);
    const int32_t size = e.size, count = e.width + size - 1;
    readEdges(e, srcChannel, scratch);
    for (int32_t i = 0; i < size - 1; ++i) {
        ownMorphRow(e, i - e.half, srcChannel, e.rowAt(0, i), scratch);
    }
    const bool paired = e.rows.columns != nullptr && size >= 5;
    int32_t vacant = size - 1;
    for (int32_t r = 0; r < e.height; r += paired ? 2 : 1) {
        ownMorphRow(e, int64_t{r} + e.half, srcChannel, e.rowAt(0, vacant), scratch);
        const int32_t oldest = (vacant + 1) % size;
        uint8_t* old = e.rowAt(0, oldest);
        if (!paired || r + 1 == e.height) {
            if (!deliver(e, e.first, ring, old, r, dstChannel, scratch)) return false;
            vacant = oldest;
            continue;
        }
        vacant = (oldest + 1) % size;
        uint8_t* spare = e.rowAt(0, vacant);
        if (oldest > 0) e.rows.columns(scratch, ring, e.pitch, oldest, count, false);
        e.rows.columns(scratch, old + e.pitch, e.pitch, size - 1 - oldest, count, oldest > 0);
        e.rows.fold3(old, old, scratch, count);
        if (!finishRow(e, old, r, dstChannel, spare)) return false;
        ownMorphRow(e, int64_t{r} + e.half + 1, srcChannel, old, spare);
        e.rows.fold3(scratch, scratch, old, count);
        if (!finishRow(e, scratch, r + 1, dstChannel, spare)) return false;
    }
    return true;
}

// Opening and closing. Ring 0 holds source rows, source row k (0 the
// rectangle's first) in slot (k + n) mod size. Ring 1 holds rows of the
// image T in between: each a copy of the source row at its place, with the
// first stage over columns half .. half + width - 1 where the row lies in
// the rectangle. Once the T row to be made lies below the rectangle the
// rings stop: that slot is refilled with the row below the rectangle and
// the last output rows all take the same window of T.
bool runDouble(const Engine& e, int32_t srcChannel, int32_t dstChannel) {
    const int32_t n = e.half, size = e.size, h = e.height;
    uint8_t* sScratch = e.rowAt(0, size);
    uint8_t* tScratch = e.rowAt(1, size);
    auto sRow = [&](int64_t k) { return e.rowAt(0, (k + n) % size); };
    readEdges(e, srcChannel, sScratch);
    for (int64_t k = -n; k <= n; ++k) ownMorphRow(e, k, srcChannel, sRow(k), sScratch);
    int64_t next = n + 1;
    auto makeT = [&](int64_t j, uint8_t* t) {
        std::memcpy(t, sRow(j), static_cast<size_t>(e.pitch));
        if (j < 0 || j >= h) return false;
        e.first(size, e.rings[0], e.pitch, t, n, e.width);
        ownMorphRow(e, next, srcChannel, sRow(next), sScratch);
        ++next;
        return true;
    };
    for (int64_t j = -n; j < n; ++j) makeT(j, e.rowAt(1, j + n));
    int32_t vacant = 2 * n;
    for (int32_t r = 0; r < h; ++r) {
        if (makeT(int64_t{n} + r, e.rowAt(1, vacant))) vacant = (vacant + 1) % size;
        if (!deliver(e, e.second, e.rings[1], e.rowAt(1, vacant), r, dstChannel, tScratch)) {
            return false;
        }
    }
    return true;
}

// ------------------------------------------------------------ set-up

int32_t channelCount(const KuvImage* image) {
    if (image->roi != nullptr && image->roi->coi != 0) return 1;
    return image->nChannels - (image->alphaChannel != 0 ? 1 : 0);
}

int32_t firstChannel(const KuvImage* image) {
    return image->roi != nullptr && image->roi->coi != 0 ? image->roi->coi : 1;
}

bool hasMask(const KuvImage* image) {
    return image->maskROI != nullptr && image->maskROI->imageData != nullptr;
}

// The masks of both images ANDed over the rectangle, each from its own
// region's start, then widened to the destination's depth: all ones under
// a set bit, 0 elsewhere. null in *out when neither image has a mask; false
// when there was no memory.
bool makeWriteMask(const KuvImage* src, const KuvImage* dst, int32_t width, int32_t height,
                   ImageHolder* out) {
    if (!hasMask(src) && !hasMask(dst)) return true;
    ImageHolder bits;
    bits.image = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, "GRAY", "G", KUV_DATA_ORDER_PLANE,
                                      dst->origin, 8, width, height, nullptr, nullptr, 0, nullptr);
    if (bits.image == nullptr) return false;
    kuvAllocateImage(bits.image, 1, 1);
    auto* b = reinterpret_cast<uint8_t*>(bits.image->imageData);
    if (b == nullptr) return false;
    for (const KuvImage* image : {src, static_cast<const KuvImage*>(dst)}) {
        if (!hasMask(image)) continue;
        const KuvImage* mask = image->maskROI;
        int32_t mw = 0, mh = 0, offset = 0;
        const auto* m = reinterpret_cast<const uint8_t*>(ownGetPixelRect(mask, &mw, &mh, 0, &offset));
        ownLogicBits(OWN_BIT_AND, m, b, b, offset, 0, 0, width, height, mask->widthStep,
                     bits.image->widthStep, bits.image->widthStep);
    }
    if (dst->depth == KUV_DEPTH_1U) {
        std::swap(out->image, bits.image);
        return true;
    }
    ImageHolder wide;
    wide.image = kuvCreateImageHeader(1, 0, dst->depth, "GRAY", "G", KUV_DATA_ORDER_PIXEL,
                                      dst->origin, 8, width, height, nullptr, nullptr, 0, nullptr);
    if (wide.image == nullptr) return false;
    kuvAllocateImage(wide.image, 0, 0);
    if (wide.image->imageData == nullptr) return false;
    const int esize = dst->depth == KUV_DEPTH_8U ? 1 : 2;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* bitRow = b + int64_t{y} * bits.image->widthStep;
        auto* row = reinterpret_cast<uint8_t*>(wide.image->imageData) +
                    int64_t{y} * wide.image->widthStep;
        for (int32_t x = 0; x < width; ++x) {
            const uint8_t v = (bitRow[x / 8] >> (7 - x % 8)) & 1 ? 0xFF : 0x00;
            std::memset(row + int64_t{x} * esize, v, esize);
        }
    }
    std::swap(out->image, wide.image);
    return true;
}

void morphology(Kind kind, const KuvImage* src, KuvImage* dst, int32_t nIterations) {
    static constexpr const char* names[] = {"kuvErode", "kuvDilate", "kuvOpen", "kuvClose"};
    const char* func = names[kind];
    kuvSetErrStatus(KUV_StsNoError);
    auto fail = [&](KuvStatus status, const char* context, int line) {
        kuvError(status, func, context, kFile, line);
    };
    if (kuvCheckImageHeader(src) != KUV_StsNoError) {
        return fail(kuvGetErrStatus(), "Incorrect Image", __LINE__);
    }
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        return fail(kuvGetErrStatus(), "Incorrect Image", __LINE__);
    }
    if (nIterations < 1) {
        return fail(KUV_StsBadArgument, "Illegal number of of iterations", __LINE__);
    }
    const int slot = slotOf(src->depth);
    if (slot < 0) return fail(KUV_StsBadArgument, "Illegal image depth", __LINE__);
    if (src->depth != dst->depth) {
        return fail(KUV_StsBadArgument, "SRC and DST depth are different", __LINE__);
    }
    if (src->dataOrder != dst->dataOrder) {
        return fail(KUV_StsBadArgument, "SRC and DST order are different", __LINE__);
    }
    if (src->origin != dst->origin) {
        return fail(KUV_StsBadArgument, "SRC and DST orign are different", __LINE__);
    }
    if (channelCount(src) != channelCount(dst)) {
        return fail(KUV_StsBadArgument, "SRC and DST number of channels are different", __LINE__);
    }

    // The common rectangle, limited by the masks' own regions.
    OwnRect sr{}, dr{};
    ownGetROIRect(src, &sr);
    ownGetROIRect(dst, &dr);
    int32_t width = std::min(sr.width, dr.width), height = std::min(sr.height, dr.height);
    for (const KuvImage* image : {src, static_cast<const KuvImage*>(dst)}) {
        if (!hasMask(image)) continue;
        int32_t mw = 0, mh = 0, offset = 0;
        ownGetPixelRect(image->maskROI, &mw, &mh, 0, &offset);
        width = std::min(width, mw);
        height = std::min(height, mh);
    }
    if (width <= 0 || height <= 0) return;

    ImageHolder mask;
    if (!makeWriteMask(src, dst, width, height, &mask)) {
        return kuvSetErrStatus(KUV_StsOutOfMemory);
    }

    // The rings, size rows and a scratch row each, and the rows above and
    // below the rectangle, in one block. A box too big to address is as good
    // as one there is no memory for.
    const int64_t size = 2 * int64_t{nIterations} + 1;
    if (size > INT32_MAX / 8) return kuvSetErrStatus(KUV_StsOutOfMemory);
    const int64_t rowBytes = slot == SLOT_1U  ? (size + width + 6) >> 3
                             : slot == SLOT_8U ? size + width - 1
                                               : 2 * (size + width - 1);
    const int64_t pitch = (rowBytes + 7) / 8 * 8;
    const int nRings = kind == OPEN || kind == CLOSE ? 2 : 1;
    const int64_t ringBytes = (size + 1) * pitch;
    const int64_t blockBytes = ringBytes * nRings + 2 * pitch;
    if (blockBytes > INT32_MAX - 256) {
        return kuvSetErrStatus(KUV_StsOutOfMemory);
    }
    OwnBlock<uint8_t> block(
        static_cast<uint8_t*>(kuvMalloc(static_cast<int32_t>(blockBytes))));
    if (!block) return kuvSetErrStatus(KUV_StsOutOfMemory);
    // Bits past a row's samples are read by whole words and never used;
    // cleared they are at least defined.
    std::memset(block.get(), 0, static_cast<size_t>(blockBytes));

    // The columns next to the rectangle of a plain source, through the
    // source's border rules: read once here, not once per row, and before
    // anything is written, so that in place they are the caller's pixels.
    WindowHolder sides[2];
    int32_t sideStep = 0;
    if (src->tileInfo == nullptr) {
        sides[0].block = ownCopyWindow(src, sr.x - 1, sr.y, 1, height, &sideStep);
        sides[1].block = ownCopyWindow(src, sr.x + width, sr.y, 1, height, &sideStep);
        if (sides[0].block == nullptr || sides[1].block == nullptr) {
            return kuvSetErrStatus(KUV_StsOutOfMemory);
        }
    }

    const OwnMorphSet workers = chooseWorkers();
    const bool minFirst = kind == ERODE || kind == OPEN;
    Engine e{};
    e.src = src;
    e.dst = dst;
    e.slot = slot;
    e.esize = slot == SLOT_1U ? 0 : slot == SLOT_8U ? 1 : 2;
    e.sx = sr.x;
    e.sy = sr.y;
    e.dx = dr.x;
    e.dy = dr.y;
    e.width = width;
    e.height = height;
    e.half = nIterations;
    e.size = static_cast<int32_t>(size);
    e.pitch = pitch;
    e.mask = mask.image;
    e.first = (minFirst ? workers.min : workers.max)[slot];
    e.second = (minFirst ? workers.max : workers.min)[slot];
    e.rows = (minFirst ? workers.minRows : workers.maxRows)[slot];
    e.rings[0] = block.get();
    e.rings[1] = block.get() + ringBytes;
    e.above = block.get() + ringBytes * nRings;
    e.below = e.above + pitch;
    e.sides[0] = sides[0].block;
    e.sides[1] = sides[1].block;
    e.sideStep = sideStep;
    e.direct = dst->tileInfo == nullptr && e.mask == nullptr &&
               (slot == SLOT_1U || dst->nChannels == 1 || dst->dataOrder == KUV_DATA_ORDER_PLANE);

    const int32_t srcFirst = firstChannel(src), dstFirst = firstChannel(dst);
    for (int32_t c = 0; c < channelCount(src); ++c) {
        const bool written = nRings == 1 ? runSingle(e, srcFirst + c, dstFirst + c)
                                         : runDouble(e, srcFirst + c, dstFirst + c);
        if (!written) {
            return fail(KUV_StsBadArgument, "(dstImage->tileInfo->tileData == ((void*)(0)))",
                        __LINE__);
        }
    }
}

}  // namespace

}  // namespace kuv::morph

extern "C" {

KUV_API void kuvErode(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations) {
    kuv::morph::morphology(kuv::morph::ERODE, srcImage, dstImage, nIterations);
}

KUV_API void kuvDilate(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations) {
    kuv::morph::morphology(kuv::morph::DILATE, srcImage, dstImage, nIterations);
}

KUV_API void kuvOpen(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations) {
    kuv::morph::morphology(kuv::morph::OPEN, srcImage, dstImage, nIterations);
}

KUV_API void kuvClose(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations) {
    kuv::morph::morphology(kuv::morph::CLOSE, srcImage, dstImage, nIterations);
}

}  // extern "C"
