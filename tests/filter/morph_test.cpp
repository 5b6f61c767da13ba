// Morphology against a brute-force box over the source as the border table
// and the one-row-around rule give it, on random images of every accepted
// depth, order, region, channel, mask, tiling and in place, on both worker sets.
#include "tests/support/kuv_test.h"

#include "filter/morph.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <vector>

using namespace kuvtest;

namespace {

enum Op { ERODE, DILATE, OPEN, CLOSE };
using MorphFn = void (*)(const KuvImage*, KuvImage*, int32_t);
constexpr MorphFn kFn[] = {kuvErode, kuvDilate, kuvOpen, kuvClose};
constexpr const char* kName[] = {"kuvErode", "kuvDilate", "kuvOpen", "kuvClose"};

int64_t mapCoord(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    if (mode == KUV_BORDER_REPLICATE) return k < 0 ? 0 : n - 1;
    if (mode == KUV_BORDER_WRAP) return ((k % n) + n) % n;
    const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);
    return m < n ? m : 2 * n - 1 - m;
}

// Element c of any point: the image's pixel, or what its border table says.
double bordered(const KuvImage* im, int64_t x, int64_t y, int c) {
    const int code = (y < 0) | (y >= im->height) << 1 | (x < 0) << 2 | (x >= im->width) << 3;
    if (code == 0) return get(im, int(x), int(y), c);
    const int side = code & 1 ? 0 : code & 2 ? 1 : code & 4 ? 2 : 3, mode = im->borderMode[side];
    if (mode == KUV_BORDER_CONSTANT) return im->borderConst[side];
    return get(im, int(mapCoord(mode, x, im->width)), int(mapCoord(mode, y, im->height)), c);
}

struct Rect {
    int sx, sy, dx, dy, w, h;
};

// The expected rectangle of one source channel, row by row. Opening and
// closing take their second window from T: the first stage inside the
// rectangle, the source around it; rows past h - n keep the window of row
// h - n (all rows that of row 0 when h < n).
std::vector<double> reference(Op op, const KuvImage* s, const Rect& g, int c, int n) {
    auto seen = [&](int64_t x, int64_t j) {
        return bordered(s, std::clamp<int64_t>(x, g.sx - 1, g.sx + g.w),
                        g.sy + std::clamp<int64_t>(j, -1, g.h), c);
    };
    auto box = [n](auto&& value, int64_t x, int64_t j0, bool isMax) {
        double r = value(x - n, j0);
        for (int64_t j = j0; j <= j0 + 2 * n; ++j)
            for (int64_t k = x - n; k <= x + n; ++k) r = isMax ? std::max(r, value(k, j)) : std::min(r, value(k, j));
        return r;
    };
    const bool maxFirst = op == DILATE || op == CLOSE;
    std::vector<double> out(size_t(g.w) * g.h);
    if (op == ERODE || op == DILATE) {
        for (int r = 0; r < g.h; ++r)
            for (int i = 0; i < g.w; ++i) out[size_t(r) * g.w + i] = box(seen, g.sx + i, r - n, maxFirst);
        return out;
    }
    const int64_t tw = g.w + 2 * n;
    std::vector<double> t(size_t(tw) * (g.h + 2 * n));
    for (int64_t j = -n; j < g.h + n; ++j)
        for (int64_t x = g.sx - n; x < g.sx + g.w + n; ++x) {
            const bool inside = j >= 0 && j < g.h && x >= g.sx && x < g.sx + g.w;
            t[size_t((j + n) * tw + x - g.sx + n)] = inside ? box(seen, x, j - n, maxFirst) : seen(x, j);
        }
    auto tv = [&](int64_t x, int64_t j) { return t[size_t((j + n) * tw + x - g.sx + n)]; };
    for (int r = 0; r < g.h; ++r) {
        const int64_t start = -n + std::min(r, std::max(g.h - n, 0));
        for (int i = 0; i < g.w; ++i) out[size_t(r) * g.w + i] = box(tv, g.sx + i, start, !maxFirst);
    }
    return out;
}

int clipped(const KuvImage* im, bool xAxis) {
    const int full = xAxis ? im->width : im->height;
    if (im->roi == nullptr) return full;
    const int off = xAxis ? im->roi->xOffset : im->roi->yOffset;
    return std::min(off + (xAxis ? im->roi->width : im->roi->height), full) - off;
}

void randomRoi(KuvImage* im, Rng& rng, int coi) {
    const int x = int(rng.uniform(0, im->width - 1)), y = int(rng.uniform(0, im->height - 1));
    setRoi(im, coi, x, y, int(rng.uniform(1, im->width - x + 2)), int(rng.uniform(1, im->height - y + 2)));
}

ImagePtr randomMask(Rng& rng, int w, int h) {
    ImagePtr m = makeMask(w + int(rng.uniform(0, 9)), h + int(rng.uniform(0, 3)));
    for (int y = 0; y < m->height; ++y)
        for (int x = 0; x < m->width; ++x) put(m.get(), x, y, 0, rng.chance(0.7));
    if (rng.chance(0.5)) setRoi(m.get(), 0, int(rng.uniform(0, 8)), int(rng.uniform(0, 2)), w, h);
    return m;
}

// A tiled header over a copy of the image's pixels, with its region and borders.
std::unique_ptr<TileStore> tiledCopy(const KuvImage* im, Rng& rng) {
    ImagePtr backing = copyImage(im);
    clearRoi(backing.get());
    auto store = std::make_unique<TileStore>(std::move(backing), 8 * int(rng.uniform(1, 2)), 8 * int(rng.uniform(1, 2)));
    std::copy(im->borderMode, im->borderMode + 4, store->image()->borderMode);
    std::copy(im->borderConst, im->borderConst + 4, store->image()->borderConst);
    if (im->roi) setRoi(store->image(), im->roi->coi, im->roi->xOffset, im->roi->yOffset, im->roi->width, im->roi->height);
    return store;
}

// One random call checked element by element; everything the call may not
// touch (outside the rectangle, other channels, alpha, masked off, padding)
// checked byte for byte.
void randomCase(uint64_t seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Rng rng(seed);
    const uint32_t depth = std::vector<uint32_t>{KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_16U}[rng.uniform(0, 2)];
    const int nCh = depth == KUV_DEPTH_1U ? 1 : int(rng.uniform(1, 4));
    const int alpha = nCh > 1 && rng.chance(0.4) ? nCh : 0;
    const int order = nCh > 1 && rng.chance(0.5) ? KUV_DATA_ORDER_PLANE : KUV_DATA_ORDER_PIXEL;
    const int wide = rng.chance(0.3) ? 140 : 21;
    const auto op = Op(rng.uniform(0, 3));
    const int n = int(rng.uniform(1, 4));
    ImagePtr src = makeImage(depth, nCh, int(rng.uniform(1, wide)), int(rng.uniform(1, 17)), order, alpha);
    fillRandom(src.get(), seed);
    const double density = std::vector<double>{0.1, 0.5, 0.9}[rng.uniform(0, 2)];
    if (depth == KUV_DEPTH_1U)
        for (int y = 0; y < src->height; ++y)
            for (int x = 0; x < src->width; ++x) put(src.get(), x, y, 0, rng.chance(density));
    for (int side = 0; side < 4; ++side)
        kuvSetBorderMode(src.get(), int(rng.uniform(0, 3)), 1 << side, int(rng.uniform(0, int64_t(depthMax(depth)))));
    const bool coi = nCh > 1 && rng.chance(0.3);
    if (coi || rng.chance(0.7)) randomRoi(src.get(), rng, coi ? int(rng.uniform(1, nCh)) : 0);
    const bool inPlace = rng.chance(0.25);
    ImagePtr own = inPlace ? nullptr : makeLike(src.get());
    KuvImage* dst = inPlace ? src.get() : own.get();
    if (!inPlace) {
        fillRandom(dst, seed + 1);
        if (coi || rng.chance(0.6)) randomRoi(dst, rng, coi ? int(rng.uniform(1, nCh)) : 0);
    }
    Rect g{0, 0, 0, 0, std::min(clipped(src.get(), true), clipped(dst, true)),
           std::min(clipped(src.get(), false), clipped(dst, false))};
    if (src->roi) g.sx = src->roi->xOffset, g.sy = src->roi->yOffset;
    if (dst->roi) g.dx = dst->roi->xOffset, g.dy = dst->roi->yOffset;
    std::vector<const KuvImage*> masks;
    for (KuvImage* im : {src.get(), dst}) {
        if (im == dst && inPlace) break;
        if (rng.chance(0.2) && g.w > 0 && g.h > 0) {
            attachMask(im, randomMask(rng, g.w, g.h));
            masks.push_back(im->maskROI);
            g.w = std::min(g.w, clipped(im->maskROI, true));
            g.h = std::min(g.h, clipped(im->maskROI, false));
        }
    }
    const int sFirst = src->roi && src->roi->coi ? src->roi->coi - 1 : 0;
    const int dFirst = dst->roi && dst->roi->coi ? dst->roi->coi - 1 : 0;
    const int count = coi ? 1 : nCh - (alpha ? 1 : 0);
    std::vector<std::vector<double>> expected;
    for (int c = 0; c < count && g.w > 0 && g.h > 0; ++c) expected.push_back(reference(op, src.get(), g, sFirst + c, n));

    std::unique_ptr<TileStore> srcStore = rng.chance(0.2) ? tiledCopy(src.get(), rng) : nullptr;
    std::unique_ptr<TileStore> dstStore = inPlace ? nullptr : rng.chance(0.2) ? tiledCopy(dst, rng) : nullptr;
    const KuvImage* srcArg = srcStore ? srcStore->image() : src.get();
    KuvImage* dstArg = inPlace ? const_cast<KuvImage*>(srcArg) : dstStore ? dstStore->image() : dst;
    for (auto [store, im] : {std::pair{srcStore.get(), src.get()}, std::pair{dstStore.get(), dst}})
        if (store && im->maskROI) attachMask(store->image(), copyImage(im->maskROI));
    KuvImage* result = inPlace && srcStore ? srcStore->backing() : dstStore ? dstStore->backing() : dst;
    const Snapshot before = snapshot(result);
    {
        ReportCapture capture;
        kuvSetErrStatus(KUV_StsBadArgument);
        kFn[op](srcArg, dstArg, n);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
    }
    auto written = [&](int x, int y, int c) {
        const int i = x - g.dx, r = y - g.dy;
        if (i < 0 || r < 0 || i >= g.w || r >= g.h || c < dFirst || c >= dFirst + count) return false;
        for (const KuvImage* m : masks) {
            const int mx = m->roi ? m->roi->xOffset : 0, my = m->roi ? m->roi->yOffset : 0;
            if (get(m, mx + i, my + r, 0) == 0) return false;
        }
        return true;
    };
    expectUnchangedExcept(before, result, written);
    int bad = 0;
    for (int y = 0; y < result->height; ++y)
        for (int x = 0; x < result->width; ++x)
            for (int c = 0; c < nCh; ++c)
                if (written(x, y, c) && get(result, x, y, c) != expected[c - dFirst][size_t(y - g.dy) * g.w + x - g.dx] &&
                    ++bad < 5)
                    ADD_FAILURE() << kName[op] << " n=" << n << " at " << x << "," << y << "," << c;
    for (TileStore* store : {srcStore.get(), dstStore.get()})
        if (store) { EXPECT_TRUE(store->faults().empty() && store->held() == 0); }
}

}  // namespace

TEST(MorphReference, RandomCasesOnBothWorkerSets) {
    for (int path : {0, 1}) {
        kuv::morph::ownMorphSelectPath(path);
        for (uint64_t seed = 1; seed <= 600; ++seed) randomCase(seed * 7919 + path);
    }
    kuv::morph::ownMorphSelectPath(-1);
}

TEST(MorphReference, PinnedValues) {
    ImagePtr im = makeImage(KUV_DEPTH_8U, 1, 7, 7);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x) put(im.get(), x, y, 0, 100);
    put(im.get(), 1, 3, 0, 0);   // two columns left of a 1x1 region: beyond a 5x5 box's reach
    setRoi(im.get(), 0, 3, 3, 1, 1);
    ImagePtr out = copyImage(im.get());
    kuvErode(im.get(), out.get(), 2);
    EXPECT_EQ(get(out.get(), 3, 3, 0), 100);
    put(im.get(), 2, 3, 0, 5);   // next to it: seen, and spread over the box's left half
    kuvErode(im.get(), out.get(), 2);
    EXPECT_EQ(get(out.get(), 3, 3, 0), 5);
    clearRoi(im.get());
    kuvSetBorderMode(im.get(), KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
    kuvSetBorderMode(im.get(), KUV_BORDER_CONSTANT, KUV_SIDE_LEFT, 7);
    kuvErode(im.get(), im.get(), 1);   // in place: later rows still see the old pixels
    const int rows2to4[7] = {0, 0, 0, 5, 100, 100, 100};   // row 4 from the old row 3
    for (int y = 2; y <= 4; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(get(im.get(), x, y, 0), rows2to4[x]) << x << "," << y;
    for (int y : {0, 6}) EXPECT_EQ(get(im.get(), 0, y, 0), 7);
    kuvSetBorderMode(im.get(), KUV_BORDER_CONSTANT, KUV_SIDE_TOP, 250);
    clearRoi(out.get());
    kuvDilate(im.get(), out.get(), 7);   // every box reaches row -1, and no further
    EXPECT_EQ(get(out.get(), 6, 6, 0), 250);
}

TEST(MorphOpenClose, EqualTwoSeparateStagesUpToTheLastRows) {
    for (uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Rng rng(seed);
        const uint32_t depth = seed % 3 == 0 ? KUV_DEPTH_1U : seed % 3 == 1 ? KUV_DEPTH_8U : KUV_DEPTH_16U;
        ImagePtr src = makeImage(depth, 1, int(rng.uniform(4, 40)), int(rng.uniform(4, 24)));
        fillRandom(src.get(), seed);
        // A region with true pixels all round it, where the stages must agree.
        const int x = int(rng.uniform(1, src->width - 3)), y = int(rng.uniform(1, src->height - 3));
        const int w = int(rng.uniform(1, src->width - x - 1)), h = int(rng.uniform(1, src->height - y - 1));
        setRoi(src.get(), 0, x, y, w, h);
        const int n = int(rng.uniform(1, 4));
        for (Op op : {OPEN, CLOSE}) {
            ImagePtr both = copyImage(src.get()), mid = copyImage(src.get()), two = copyImage(src.get());
            kFn[op](src.get(), both.get(), n);
            kFn[op == OPEN ? ERODE : DILATE](src.get(), mid.get(), n);
            kFn[op == OPEN ? DILATE : ERODE](mid.get(), two.get(), n);
            for (int r = 0; r <= std::min(h - 1, std::max(h - n, 0)); ++r)
                for (int i = 0; i < w; ++i)
                    ASSERT_EQ(get(both.get(), x + i, y + r, 0), get(two.get(), x + i, y + r, 0)) << kName[op] << " row " << r;
        }
    }
}

TEST(MorphRefusals, ChecksInOrderWithTheirTexts) {
    ImagePtr u8 = makeImage(KUV_DEPTH_8U, 3, 9, 7), d8 = makeImage(KUV_DEPTH_8U, 3, 9, 7);
    ImagePtr s8 = makeImage(KUV_DEPTH_8S, 3, 9, 7), f32 = makeImage(KUV_DEPTH_32F, 3, 9, 7);
    ImagePtr u16 = makeImage(KUV_DEPTH_16U, 3, 9, 7), plane = makeImage(KUV_DEPTH_8U, 3, 9, 7, KUV_DATA_ORDER_PLANE);
    ImagePtr flipped = makeImage(KUV_DEPTH_8U, 3, 9, 7), one = makeImage(KUV_DEPTH_8U, 1, 9, 7);
    ImagePtr alpha = makeImage(KUV_DEPTH_8U, 4, 9, 7, KUV_DATA_ORDER_PIXEL, 4), badMask = makeImage(KUV_DEPTH_8U, 3, 9, 7);
    flipped->origin = KUV_ORIGIN_BOTTOM_LEFT;
    attachMask(badMask.get(), makeImage(KUV_DEPTH_8U, 1, 9, 7));
    const struct {
        const KuvImage* src;
        KuvImage* dst;
        int n;
        KuvStatus status;
        const char* text;
    } rows[] = {
        {nullptr, d8.get(), 1, KUV_StsNullHeader, "Incorrect Image"},
        {s8.get(), nullptr, 0, KUV_StsNullHeader, "Incorrect Image"},
        {u8.get(), badMask.get(), 1, KUV_StsBadDepth - KUV_StsMaskOffset, "Incorrect Image"},
        {s8.get(), u16.get(), 0, KUV_StsBadArgument, "Illegal number of of iterations"},
        {u8.get(), d8.get(), -3, KUV_StsBadArgument, "Illegal number of of iterations"},
        {s8.get(), u16.get(), 1, KUV_StsBadArgument, "Illegal image depth"},
        {f32.get(), f32.get(), 1, KUV_StsBadArgument, "Illegal image depth"},
        {u16.get(), plane.get(), 1, KUV_StsBadArgument, "SRC and DST depth are different"},
        {u8.get(), plane.get(), 1, KUV_StsBadArgument, "SRC and DST order are different"},
        {u8.get(), flipped.get(), 1, KUV_StsBadArgument, "SRC and DST orign are different"},
        {u8.get(), one.get(), 1, KUV_StsBadArgument, "SRC and DST number of channels are different"},
        {u8.get(), d8.get(), INT32_MAX / 2, KUV_StsOutOfMemory, nullptr},   // a ring past all memory: no report
    };
    for (int op = ERODE; op <= CLOSE; ++op)
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << kName[op] << " expecting " << (row.text ? row.text : "no report"));
            ReportCapture capture;
            RefusalGuard guard(row.src, row.dst);
            kFn[op](row.src, row.dst, row.n);
            if (row.text) EXPECT_TRUE(oneReport(capture, row.status, kName[op], row.text, "ownMorph"));
            else EXPECT_TRUE(capture.count() == 0 && kuvGetErrStatus() == row.status);
            EXPECT_TRUE(guard.intact());
        }
    ReportCapture capture;   // alpha left out: three channels each, accepted
    kuvOpen(alpha.get(), d8.get(), 1);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(MorphTiles, RefusedWriteTileReportsAndHoldsNothing) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 20, 10);
    TileStore store(makeImage(KUV_DEPTH_8U, 1, 20, 10), 8, 8);
    store.failRequest(2);
    ReportCapture capture;
    kuvDilate(src.get(), store.image(), 1);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvDilate",
                          "(dstImage->tileInfo->tileData == ((void*)(0)))", "ownMorph"));
    EXPECT_TRUE(store.faults().empty() && store.held() == 0);
    EXPECT_EQ(store.log().size(), 3u);   // WRITE, RELEASE of the first tile, the refused WRITE
}
