// Windows and bordered lines against a reference written from the border
// mode table and the position code, on plain and tiled images of every
// layout; the tile requests of a window read; kuvSetBorderMode's limits.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <array>
#include <climits>
#include <cstring>

using namespace kuvtest;

namespace {

using Req = TileStore::Request;

int64_t mapCoord(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    if (mode == KUV_BORDER_REPLICATE) return k < 0 ? 0 : n - 1;
    const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);
    return mode == KUV_BORDER_REFLECT ? (m < n ? m : 2 * n - 1 - m) : m % n;
}

// Element c of point (x, y): `image` gives the rules, `pixels` the values.
double reference(const KuvImage* image, const KuvImage* pixels, int64_t x, int64_t y, int c) {
    const int64_t w = pixels->width, h = pixels->height;
    const int code = (y < 0 ? 1 : 0) | (y >= h ? 2 : 0) | (x < 0 ? 4 : 0) | (x >= w ? 8 : 0);
    if (code == 0) return get(pixels, int(x), int(y), c);
    const int side = (code & 1) ? 0 : (code & 2) ? 1 : (code & 4) ? 2 : 3;
    const int mode = image->borderMode[side] & 3;
    if (mode != KUV_BORDER_CONSTANT)
        return get(pixels, int(mapCoord(mode, x, w)), int(mapCoord(mode, y, h)), c);
    const int32_t v = image->borderConst[side];   // kuvSetBorderMode limited it to the depth
    return pixels->depth == KUV_DEPTH_32F ? double(float(v)) : double(v);
}

// `block` as an image of `pixels`'s layout, of channels c0.. c0 + nCh - 1,
// holding the rectangle at (x, y): matches the reference element for element.
::testing::AssertionResult matches(const KuvImage* image, const KuvImage* pixels, void* block,
                                   int x, int y, int width, int height, int step, int c0, int nCh) {
    KuvImage view = *pixels;
    view.width = width, view.height = height, view.widthStep = step, view.nChannels = nCh;
    view.imageData = static_cast<char*>(block), view.roi = nullptr;
    for (int j = 0; j < height; ++j)
        for (int i = 0; i < width; ++i)
            for (int c = 0; c < nCh; ++c) {
                const double want =
                    reference(image, pixels, int64_t{x} + i, int64_t{y} + j, c0 + c);
                if (get(&view, i, j, c) != want)
                    return ::testing::AssertionFailure()
                           << "(" << int64_t{x} + i << "," << int64_t{y} + j << ") ch " << c0 + c
                           << " is " << get(&view, i, j, c) << ", expected " << want;
            }
    return ::testing::AssertionSuccess();
}

// ownCopyWindow against the reference, its row step from the image's align.
::testing::AssertionResult windowMatches(const KuvImage* image, const KuvImage* pixels, int x,
                                         int y, int width, int height) {
    int32_t step = -1;
    char* block = ownCopyWindow(image, x, y, width, height, &step);
    if (block == nullptr) return ::testing::AssertionFailure() << "null window";
    const int bits = depthBits(pixels->depth) * (pixels->dataOrder ? 1 : pixels->nChannels);
    const int64_t row = (int64_t{width} * bits + 7) / 8, align = pixels->align;
    auto result =
        step != (row + align - 1) / align * align
            ? ::testing::AssertionFailure() << "step " << step
            : matches(image, pixels, block, x, y, width, height, step, 0, pixels->nChannels);
    ownFreeWindow(block);
    return result << " in window (" << x << "," << y << ") " << width << "x" << height;
}

TEST(Window, RandomWindowsAndLinesMatchTheTable) {
    const int32_t consts[] = {-7, 1, 300, 77777, -300, INT_MIN, INT_MAX};
    for (uint64_t seed = 1; seed <= 6000; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng rng(seed);
        const uint32_t depth = allDepths()[rng.uniform(0, 6)];
        const int nCh = depth == KUV_DEPTH_1U ? 1 : int(rng.uniform(1, 5));
        const int order = depth != KUV_DEPTH_1U && rng.chance(0.5), align = 4 << rng.uniform(0, 3);
        // Tiled images span tiles; now and then a plain one is taller than a strip of rows.
        const int tile = rng.chance(0.3) ? 8 * int(rng.uniform(1, 2)) : 0;
        const int w = int(tile ? rng.uniform(9, 30) : rng.uniform(1, 9));
        const int h = int(tile || rng.chance(0.2) ? rng.uniform(9, 30) : rng.uniform(1, 7));
        ImagePtr plain = makeImage(depth, nCh, w, h, order, 0, align);
        fillRandom(plain.get(), seed);
        TileStore store(tile ? copyImage(plain.get()) : nullptr, tile, 24 - tile);
        KuvImage* image = tile ? store.image() : plain.get();
        for (int side = 0; side < 4; ++side) {   // only the low two bits of a mode count
            const int mode = int(rng.uniform(0, 3)), high = int(rng.next() & ~3u);
            kuvSetBorderMode(image, rng.chance(0.2) ? mode | high : mode, 1 << side,
                             consts[rng.uniform(0, 6)]);
        }
        if (rng.chance(0.2)) {   // region, coi and mask play no part
            setRoi(image, int(rng.uniform(0, nCh)), 0, 0, 1, 1);
            attachMask(image, makeMask(1, 1, 0));
        }
        const int far = tile ? 2 : rng.chance(0.2) ? 12 : 4;
        const int x = int(rng.uniform(-far * w, far * w)), y = int(rng.uniform(-far * h, far * h));
        const int ww = int(rng.uniform(1, 3 * far * w / 2)), hh = int(rng.uniform(1, 3 * h));
        ASSERT_TRUE(windowMatches(image, plain.get(), x, y, ww, hh));
        if (depth == KUV_DEPTH_32F) continue;   // the line reader does not serve floats
        store.clearLog();
        const int c = int(rng.uniform(0, nCh - 1));
        std::vector<uint8_t> line(size_t(ww) * 4 + 1, 0xA5);
        ownGetBorderedLine(image, x, y, c + 1, line.data(), ww);
        ASSERT_TRUE(matches(image, plain.get(), line.data(), x, y, ww, 1, 0, c, 1)) << "line";
        ASSERT_EQ(line[(size_t(ww) * depthBits(depth) + 7) / 8], 0xA5) << "line past its count";
        for (size_t i = 0; i < store.log().size(); ++i)   // one tile at a time
            ASSERT_EQ(store.log()[i].mode, i % 2 ? KUV_TILE_RELEASE : KUV_TILE_READ) << i;
        ASSERT_TRUE(store.faults().empty() && store.held() == 0);
    }
}

// Rows of a few hundred bytes take the vector row copy; each start column
// puts the middle of the row at another alignment of the block. The forced
// baseline must give the same bytes.
TEST(Window, WideRowsAtEveryAlignmentOnBothPaths) {
    for (int nCh : {1, 3}) {
        ImagePtr image = makeImage(KUV_DEPTH_8U, nCh, 300, 5);
        fillRandom(image.get(), uint64_t(nCh));
        for (int mode = 0; mode < 4; ++mode) {
            kuvSetBorderMode(image.get(), mode, 15, 201);
            for (int x = -1; x >= -33; --x) {
                SCOPED_TRACE(::testing::Message() << nCh << " channels, mode " << mode << ", x " << x);
                const int width = 300 - 2 * x, height = 9;
                int32_t step = 0, baseStep = 0;
                char* wide = ownCopyWindow(image.get(), x, -2, width, height, &step);
                char* base = nullptr;
                {
                    const FeatureLimit limit(0);
                    base = ownCopyWindow(image.get(), x, -2, width, height, &baseStep);
                }
                ASSERT_TRUE(wide != nullptr && base != nullptr && step == baseStep);
                for (int j = 0; j < height; ++j)   // row padding is the block's own
                    EXPECT_EQ(std::memcmp(wide + j * step, base + j * step, size_t(width) * nCh), 0);
                EXPECT_TRUE(matches(image.get(), image.get(), wide, x, -2, width, height, step,
                                    0, nCh));
                ownFreeWindow(wide);
                ownFreeWindow(base);
            }
        }
    }
}

TEST(Window, FourTilesAreReadTwoAtATimeAndFailuresReleaseAll) {
    ImagePtr backing = makeImage(KUV_DEPTH_16S, 3, 21, 20, KUV_DATA_ORDER_PLANE);
    fillRandom(backing.get(), 4);
    TileStore store(std::move(backing), 8, 8);
    ASSERT_TRUE(windowMatches(store.image(), store.backing(), 5, 6, 6, 5));
    const std::vector<Req> want = {{0, 0, 1}, {1, 0, 1}, {1, 0, 4}, {0, 0, 4},
                                   {0, 1, 1}, {1, 1, 1}, {1, 1, 4}, {0, 1, 4}};
    EXPECT_EQ(store.log(), want);
    kuvSetBorderMode(store.image(), KUV_BORDER_REFLECT, KUV_SIDE_ALL, 0);
    for (int k = 1; k <= 12; ++k) {   // a window or line stops at the failed request
        store.clearLog();
        store.failRequest(k);
        const long blocks = outstandingBlocks();
        int32_t step = 0;
        ReportCapture capture;   // and reports nothing
        EXPECT_EQ(ownCopyWindow(store.image(), -3, -4, 29, 27, &step), nullptr) << k;
        EXPECT_EQ(outstandingBlocks(), blocks) << k;
        EXPECT_EQ(store.log().size(), size_t(2 * k - 1)) << "every granted tile released";
        std::vector<uint16_t> line(60, 0);
        store.clearLog();
        store.failRequest(k % 3 + 1);
        ownGetBorderedLine(store.image(), -5, 2, 1, line.data(), 60);
        EXPECT_EQ(store.log().size(), size_t(2 * (k % 3) + 1)) << "line, request " << k % 3 + 1;
        EXPECT_TRUE(capture.count() == 0 && kuvGetErrStatus() == 0);
    }
    EXPECT_TRUE(store.faults().empty());
}

TEST(Window, SetBorderModeLimitsTheConstantAndSetsOnlyTheNamedSides) {
    for (uint32_t depth : allDepths()) {   // 300000 and -300000 limited to the depth
        const bool open = depthBits(depth) == 32;
        const int32_t high = open ? 300000 : int32_t(depthMax(depth));
        const int32_t low = open ? -300000 : int32_t(depthMin(depth));
        ImagePtr image = makeImage(depth, 1, 3, 3);
        kuvSetBorderMode(image.get(), 3, KUV_SIDE_LEFT | KUV_SIDE_RIGHT | 16, 300000);
        kuvSetBorderMode(image.get(), 2, KUV_SIDE_BOTTOM, -300000);
        const int modes[] = {0, 2, 3, 3}, values[] = {0, low, high, high};
        for (int s = 0; s < 4; ++s)
            EXPECT_TRUE(image->borderMode[s] == modes[s] && image->borderConst[s] == values[s])
                << depthName(depth) << " side " << s;
    }
    // Constants of a bit image fill the band's rows to their ends.
    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 11, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
    kuvSetBorderMode(bits.get(), KUV_BORDER_CONSTANT, KUV_SIDE_TOP, 1);
    int32_t step = 0;
    char* block = ownCopyWindow(bits.get(), -3, -2, 13, 2, &step);
    ASSERT_NE(block, nullptr);
    for (int k = 0; k < 2 * step; ++k) EXPECT_EQ(uint8_t(block[k]), 0xFF) << k;
    ownFreeWindow(block);
}

TEST(Window, CoordinatesNearTheLimitsAndWhatCannotBeLaidOut) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 3, 1);
    fillRandom(image.get(), 21);
    for (int mode = 1; mode < 4; ++mode) {
        kuvSetBorderMode(image.get(), mode, KUV_SIDE_ALL, 0);
        EXPECT_TRUE(windowMatches(image.get(), image.get(), INT_MAX - 2, 0, 6, 2)) << mode;
        EXPECT_TRUE(windowMatches(image.get(), image.get(), INT_MIN, INT_MIN + 1, 7, 4)) << mode;
        EXPECT_TRUE(windowMatches(image.get(), image.get(), 2, INT_MAX - 1, 4, 5)) << mode;
    }
    int32_t step = 0;   // null, holding nothing
    KuvImage order = *image, depth = *image, align = *image;
    order.dataOrder = 2, depth.depth = 12, align.align = 2;
    for (const KuvImage* bad : {&order, &depth, &align, static_cast<KuvImage*>(nullptr)})
        EXPECT_EQ(ownCopyWindow(bad, 0, 0, 2, 2, &step), nullptr);
    for (const auto& r : {std::array{0, 0, 0, 2},
                          {0, 0, INT_MAX, INT_MAX},
                          {-5, -5, 1 << 30, 4},
                          {0, 0, (1 << 30) + 4, 4}})
        EXPECT_EQ(ownCopyWindow(image.get(), r[0], r[1], r[2], r[3], &step), nullptr);
}

}   // namespace
