// Windows and bordered lines against a reference written from the border
// mode table and the position code, on plain and tiled images.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

using namespace kuvtest;

namespace {

// ------------------------------------------------------------- reference

int64_t mapCoord(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    switch (mode) {
        case KUV_BORDER_REPLICATE: return k < 0 ? 0 : n - 1;
        case KUV_BORDER_REFLECT: {
            const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);
            return m < n ? m : 2 * n - 1 - m;
        }
        default: return ((k % n) + n) % n;
    }
}

double constantAs(uint32_t depth, int32_t v) {
    switch (depth) {
        case KUV_DEPTH_1U: return v & 1;
        case KUV_DEPTH_8U: return static_cast<uint8_t>(v);
        case KUV_DEPTH_8S: return static_cast<int8_t>(v);
        case KUV_DEPTH_16U: return static_cast<uint16_t>(v);
        case KUV_DEPTH_16S: return static_cast<int16_t>(v);
        case KUV_DEPTH_32F: return static_cast<float>(v);
        default: return v;
    }
}

// Element c of point (x, y): `borders` gives the rules, `pixels` the values.
double reference(const KuvImage* borders, const KuvImage* pixels, int64_t x, int64_t y, int c) {
    const int64_t w = pixels->width, h = pixels->height;
    const int code = (y < 0 ? 1 : 0) | (y >= h ? 2 : 0) | (x < 0 ? 4 : 0) | (x >= w ? 8 : 0);
    if (code == 0) return get(pixels, int(x), int(y), c);
    const int side = (code & 1) ? 0 : (code & 2) ? 1 : (code & 4) ? 2 : 3;
    const int mode = borders->borderMode[side] & 3;
    if (mode == KUV_BORDER_CONSTANT) return constantAs(pixels->depth, borders->borderConst[side]);
    return get(pixels, int(mapCoord(mode, x, w)), int(mapCoord(mode, y, h)), c);
}

void setSides(KuvImage* image, const int modes[4], const int consts[4]) {
    for (int s = 0; s < 4; ++s) kuvSetBorderMode(image, modes[s], 1 << s, consts[s]);
}

// A window block seen as an image of its own.
KuvImage windowView(const KuvImage* image, char* block, int width, int height, int step) {
    KuvImage view = *image;
    view.width = width;
    view.height = height;
    view.widthStep = step;
    view.imageData = block;
    view.tileInfo = nullptr;
    view.roi = nullptr;
    view.maskROI = nullptr;
    return view;
}

int expectedStep(const KuvImage* image, int width) {
    int64_t bytes = depthBits(image->depth) == 1 ? (width + 7) / 8
                                                 : int64_t{width} * depthBits(image->depth) / 8;
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) bytes *= image->nChannels;
    return int((bytes + image->align - 1) / image->align * image->align);
}

// ownCopyWindow of `image` against the reference over `pixels`.
::testing::AssertionResult windowMatches(const KuvImage* image, const KuvImage* pixels, int x,
                                         int y, int width, int height) {
    int32_t step = -1;
    char* block = ownCopyWindow(image, x, y, width, height, &step);
    if (block == nullptr) return ::testing::AssertionFailure() << "null window";
    auto fail = ::testing::AssertionFailure();
    int bad = 0;
    if (step != expectedStep(image, width)) {
        fail << "step " << step << ", expected " << expectedStep(image, width) << "; ";
        ++bad;
    }
    const KuvImage view = windowView(image, block, width, height, step);
    for (int j = 0; j < height && bad < 4; ++j) {
        for (int i = 0; i < width && bad < 4; ++i) {
            for (int c = 0; c < image->nChannels; ++c) {
                const double want = reference(image, pixels, int64_t{x} + i, int64_t{y} + j, c);
                const double got = get(&view, i, j, c);
                if (got != want) {
                    fail << "(" << int64_t{x} + i << "," << int64_t{y} + j << ") ch " << c << ": "
                         << got << ", expected " << want << "; ";
                    ++bad;
                }
            }
        }
    }
    ownFreeWindow(block);
    if (bad > 0) {
        return fail << "window at (" << x << "," << y << ") " << width << "x" << height << " on "
                    << depthName(image->depth) << " x" << image->nChannels
                    << (image->dataOrder ? " planes" : " pixels");
    }
    return ::testing::AssertionSuccess();
}

// Rectangles around a w x h image: across each edge and corner, wholly
// outside in every direction, larger than the image, inside; the last one
// spans so many periods that its rows are built in strips, not one by one.
std::vector<std::array<int, 4>> rectangles(int w, int h) {
    return {{1, 1, w - 2, h - 2},
            {-2, 1, 4, 2},
            {w - 2, 1, 5, 2},
            {1, -3, 2, 4},
            {1, h - 1, 3, 3},
            {-3, -2, 5, 4},
            {w - 1, -2, 4, 3},
            {-2, h - 2, 3, 4},
            {w - 2, h - 1, 4, 3},
            {0, -7, w, 3},
            {0, h + 4, w, 2},
            {-9, 0, 4, h},
            {w + 5, 1, 3, h - 1},
            {-8, -9, 3, 2},
            {w + 3, h + 6, 2, 3},
            {-2 * w - 1, -2 * h - 1, 5 * w + 3, 5 * h + 2},
            {-9 * w, -1, 19 * w + 1, h + 2}};
}

struct Layout {
    uint32_t depth;
    int nChannels, order, align;
};

const std::vector<Layout>& layouts() {
    static const std::vector<Layout> all = {
        {KUV_DEPTH_1U, 1, KUV_DATA_ORDER_PIXEL, 4},  {KUV_DEPTH_8U, 1, KUV_DATA_ORDER_PIXEL, 4},
        {KUV_DEPTH_8U, 3, KUV_DATA_ORDER_PIXEL, 8},  {KUV_DEPTH_8U, 3, KUV_DATA_ORDER_PLANE, 4},
        {KUV_DEPTH_16S, 3, KUV_DATA_ORDER_PIXEL, 4}, {KUV_DEPTH_16S, 1, KUV_DATA_ORDER_PLANE, 16},
        {KUV_DEPTH_32F, 3, KUV_DATA_ORDER_PLANE, 4}, {KUV_DEPTH_32F, 1, KUV_DATA_ORDER_PIXEL, 32},
        {KUV_DEPTH_8S, 1, KUV_DATA_ORDER_PIXEL, 4},  {KUV_DEPTH_16U, 3, KUV_DATA_ORDER_PIXEL, 4},
        {KUV_DEPTH_32S, 3, KUV_DATA_ORDER_PLANE, 4},  {KUV_DEPTH_8U, 5, KUV_DATA_ORDER_PIXEL, 4}};
    return all;
}

std::string describe(const Layout& l) {
    return depthName(l.depth) + " x" + std::to_string(l.nChannels) +
           (l.order ? " planes" : " pixels") + " align " + std::to_string(l.align);
}

const int kConsts[4] = {-7, 1, 300, 77777};   // per side; limited by kuvSetBorderMode

// ------------------------------------------------------------- windows

TEST(WindowCopy, EveryModeOnEverySideMatchesTheTable) {
    for (const Layout& l : layouts()) {
        SCOPED_TRACE(describe(l));
        ImagePtr image = makeImage(l.depth, l.nChannels, 5, 4, l.order, 0, l.align);
        fillRandom(image.get(), 11);
        for (int combo = 0; combo < 256; ++combo) {
            const int modes[4] = {combo & 3, (combo >> 2) & 3, (combo >> 4) & 3, combo >> 6};
            setSides(image.get(), modes, kConsts);
            for (const auto& r : rectangles(5, 4)) {
                ASSERT_TRUE(windowMatches(image.get(), image.get(), r[0], r[1], r[2], r[3]))
                    << "modes " << modes[0] << modes[1] << modes[2] << modes[3];
            }
        }
    }
}

TEST(WindowCopy, RandomRectanglesMatchTheTable) {
    const uint64_t seed = 20240611;
    Rng rng(seed);
    for (int round = 0; round < 400; ++round) {
        const Layout& l = layouts()[rng.uniform(0, layouts().size() - 1)];
        // Now and then an image taller than a strip of rows.
        const int w = int(rng.uniform(1, 9));
        const int h = int(rng.chance(0.2) ? rng.uniform(17, 40) : rng.uniform(1, 7));
        ImagePtr image = makeImage(l.depth, l.nChannels, w, h, l.order, 0, l.align);
        fillRandom(image.get(), seed + round);
        const int modes[4] = {int(rng.uniform(0, 3)), int(rng.uniform(0, 3)),
                              int(rng.uniform(0, 3)), int(rng.uniform(0, 3))};
        setSides(image.get(), modes, kConsts);
        const int x = int(rng.uniform(-4 * w, 4 * w)), y = int(rng.uniform(-4 * h, 4 * h));
        const int ww = int(rng.uniform(1, 6 * w)), hh = int(rng.uniform(1, 6 * h));
        ASSERT_TRUE(windowMatches(image.get(), image.get(), x, y, ww, hh))
            << "seed " << seed << " round " << round << " " << describe(l) << " image " << w << "x"
            << h;
    }
}

TEST(WindowCopy, ModesAreTheLowTwoBitsOfTheSetting) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 5, 4);
    ImagePtr plain = copyImage(image.get());
    fillRandom(image.get(), 12);
    const int raw[4] = {6, 5, 0x7FFFFFFF, 4 | (1 << 20)};   // reflect, replicate, wrap, constant
    const int modes[4] = {2, 1, 3, 0};
    setSides(image.get(), raw, kConsts);
    setSides(plain.get(), modes, kConsts);
    for (const auto& r : rectangles(5, 4)) {
        ASSERT_TRUE(windowMatches(image.get(), image.get(), r[0], r[1], r[2], r[3]));
        int32_t step = 0;
        char* a = ownCopyWindow(image.get(), r[0], r[1], r[2], r[3], &step);
        ASSERT_NE(a, nullptr);
        for (int j = 0; j < r[3]; ++j) {
            std::vector<uint8_t> line(static_cast<size_t>(r[2]));
            ownGetBorderedLine(image.get(), r[0], r[1] + j, 1, line.data(), r[2]);
            ASSERT_EQ(std::memcmp(line.data(), a + j * step, line.size()), 0) << "row " << r[1] + j;
        }
        ownFreeWindow(a);
    }
}

TEST(WindowCopy, ReplicateCornerHasPixelZeroZero) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 6, 5);
    fillRandom(image.get(), 3);
    kuvSetBorderMode(image.get(), KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
    int32_t step = 0;
    char* block = ownCopyWindow(image.get(), -2, -2, 4, 4, &step);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(step, 4);
    const KuvImage view = windowView(image.get(), block, 4, 4, step);
    for (int j = 0; j < 3; ++j) {
        for (int i = 0; i < 3; ++i) EXPECT_EQ(get(&view, i, j, 0), get(image.get(), 0, 0, 0));
    }
    EXPECT_EQ(get(&view, 3, 3, 0), get(image.get(), 1, 1, 0));
    EXPECT_EQ(get(&view, 3, 0, 0), get(image.get(), 1, 0, 0));
    ownFreeWindow(block);
}

// A 3-pixel row a, b, c read from column -4 to 6.
std::vector<double> rowOfThree(int mode) {
    ImagePtr image = makeImage(KUV_DEPTH_16S, 1, 3, 1);
    put(image.get(), 0, 0, 0, -100);
    put(image.get(), 1, 0, 0, 200);
    put(image.get(), 2, 0, 0, 300);
    kuvSetBorderMode(image.get(), mode, KUV_SIDE_ALL, 0);
    int32_t step = 0;
    char* block = ownCopyWindow(image.get(), -4, 0, 11, 1, &step);
    std::vector<double> row;
    if (block == nullptr) return row;
    const KuvImage view = windowView(image.get(), block, 11, 1, step);
    for (int i = 0; i < 11; ++i) row.push_back(get(&view, i, 0, 0));
    ownFreeWindow(block);
    return row;
}

TEST(WindowCopy, ReflectAndWrapOnAThreePixelRow) {
    const double a = -100, b = 200, c = 300;
    EXPECT_EQ(rowOfThree(KUV_BORDER_REFLECT),
              (std::vector<double>{c, c, b, a, a, b, c, c, b, a, a}));
    EXPECT_EQ(rowOfThree(KUV_BORDER_WRAP), (std::vector<double>{c, a, b, c, a, b, c, a, b, c, a}));
}

TEST(WindowCopy, CornerTakesTheTopRuleForBothCoordinates) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 3, 3);
    for (int i = 0; i < 9; ++i) put(image.get(), i % 3, i / 3, 0, 10 + i);
    int32_t step = 0;
    kuvSetBorderMode(image.get(), KUV_BORDER_WRAP, KUV_SIDE_TOP, 0);
    kuvSetBorderMode(image.get(), KUV_BORDER_CONSTANT, KUV_SIDE_LEFT, 99);
    char* block = ownCopyWindow(image.get(), -1, -1, 2, 2, &step);
    ASSERT_NE(block, nullptr);
    KuvImage view = windowView(image.get(), block, 2, 2, step);
    EXPECT_EQ(get(&view, 0, 0, 0), 18);   // wrapped in both axes: (2, 2)
    EXPECT_EQ(get(&view, 1, 0, 0), 16);   // (0, 2)
    EXPECT_EQ(get(&view, 0, 1, 0), 99);   // a row inside: the left's constant
    ownFreeWindow(block);

    kuvSetBorderMode(image.get(), KUV_BORDER_CONSTANT, KUV_SIDE_TOP, 55);
    kuvSetBorderMode(image.get(), KUV_BORDER_WRAP, KUV_SIDE_LEFT, 0);
    block = ownCopyWindow(image.get(), -1, -1, 2, 2, &step);
    ASSERT_NE(block, nullptr);
    view = windowView(image.get(), block, 2, 2, step);
    EXPECT_EQ(get(&view, 0, 0, 0), 55);
    EXPECT_EQ(get(&view, 1, 0, 0), 55);
    EXPECT_EQ(get(&view, 0, 1, 0), 12);   // left wraps in rows inside
    ownFreeWindow(block);
}

TEST(WindowCopy, ConstantIsLimitedAndConvertedByDepth) {
    const std::pair<uint32_t, double> cases[] = {{KUV_DEPTH_8U, 255.0},
                                                 {KUV_DEPTH_8S, 127.0},
                                                 {KUV_DEPTH_32F, 300.0},
                                                 {KUV_DEPTH_32S, 300.0}};
    for (const auto& [depth, want] : cases) {
        ImagePtr image = makeImage(depth, 3, 4, 4, KUV_DATA_ORDER_PLANE);
        kuvSetBorderMode(image.get(), KUV_BORDER_CONSTANT, KUV_SIDE_ALL, 300);
        int32_t step = 0;
        char* block = ownCopyWindow(image.get(), -1, -1, 6, 6, &step);
        ASSERT_NE(block, nullptr);
        const KuvImage view = windowView(image.get(), block, 6, 6, step);
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(get(&view, 0, 0, c), want) << depthName(depth);
            EXPECT_EQ(get(&view, 5, 3, c), want) << depthName(depth);
            EXPECT_EQ(get(&view, 2, 2, c), 0.0) << depthName(depth);
        }
        ownFreeWindow(block);
    }
}

TEST(WindowCopy, BitConstantOneFillsTopRowsToTheirEnds) {
    ImagePtr image = makeImage(KUV_DEPTH_1U, 1, 11, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
    kuvSetBorderMode(image.get(), KUV_BORDER_CONSTANT, KUV_SIDE_TOP, 1);
    kuvSetBorderMode(image.get(), KUV_BORDER_CONSTANT, KUV_SIDE_LEFT, 1);
    int32_t step = 0;
    char* block = ownCopyWindow(image.get(), -3, -2, 13, 4, &step);
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(step, 8);
    for (int j = 0; j < 2; ++j) {
        for (int k = 0; k < step; ++k)
            EXPECT_EQ(uint8_t(block[j * step + k]), 0xFF) << j << "," << k;
    }
    // Rows inside: three ones from the left side, then the image's zeros.
    EXPECT_EQ(uint8_t(block[2 * step]), 0xE0);
    EXPECT_EQ(uint8_t(block[2 * step + 1]) & 0xF8, 0);
    ownFreeWindow(block);
}

TEST(WindowCopy, WindowsWhollyOutsideSeeOneSideAlone) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    fillRandom(image.get(), 5);
    const int modes[4] = {KUV_BORDER_CONSTANT, KUV_BORDER_CONSTANT, KUV_BORDER_CONSTANT,
                          KUV_BORDER_CONSTANT};
    const int consts[4] = {1, 2, 3, 4};
    setSides(image.get(), modes, consts);
    const struct {
        int x, y, w, h, value;
    } cases[] = {{-6, -5, 16, 3, 1},
                 {-6, 4, 16, 9, 2},
                 {-6, 0, 6, 4, 3},
                 {4, 0, 6, 4, 4},
                 {-9, -9, 2, 2, 1}};
    for (const auto& t : cases) {
        int32_t step = 0;
        char* block = ownCopyWindow(image.get(), t.x, t.y, t.w, t.h, &step);
        ASSERT_NE(block, nullptr);
        const KuvImage view = windowView(image.get(), block, t.w, t.h, step);
        for (int j = 0; j < t.h; ++j) {
            for (int i = 0; i < t.w; ++i)
                ASSERT_EQ(get(&view, i, j, 0), t.value) << t.x << "," << t.y;
        }
        ownFreeWindow(block);
    }
}

TEST(WindowCopy, RegionCoiAndMaskPlayNoPart) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 3, 7, 6);
    fillRandom(image.get(), 9);
    kuvSetBorderMode(image.get(), KUV_BORDER_REFLECT, KUV_SIDE_ALL, 0);
    setRoi(image.get(), 2, 3, 2, 2, 2);
    attachMask(image.get(), makeMask(7, 6, 0));
    EXPECT_TRUE(windowMatches(image.get(), image.get(), -3, -3, 13, 12));
}

TEST(WindowCopy, CoordinatesNearTheIntegerLimits) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    fillRandom(image.get(), 21);
    for (int mode = 1; mode < 4; ++mode) {
        kuvSetBorderMode(image.get(), mode, KUV_SIDE_ALL, 0);
        EXPECT_TRUE(windowMatches(image.get(), image.get(), INT_MAX - 2, 0, 6, 2)) << mode;
        EXPECT_TRUE(windowMatches(image.get(), image.get(), INT_MIN, INT_MIN + 1, 7, 4)) << mode;
        EXPECT_TRUE(windowMatches(image.get(), image.get(), 2, INT_MAX - 1, 4, 5)) << mode;
    }
    const long before = outstandingBlocks();
    int32_t step = 0;
    EXPECT_EQ(ownCopyWindow(image.get(), 0, 0, INT_MAX, INT_MAX, &step), nullptr);
    EXPECT_EQ(ownCopyWindow(image.get(), -5, -5, 1 << 30, 4, &step), nullptr);
    EXPECT_EQ(outstandingBlocks(), before);
}

TEST(WindowCopy, RefusesWhatItCannotLayOut) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    int32_t step = 0;
    const long before = outstandingBlocks();
    KuvImage bad = *image;
    bad.dataOrder = 2;
    EXPECT_EQ(ownCopyWindow(&bad, 0, 0, 2, 2, &step), nullptr);
    bad = *image;
    bad.depth = 12;
    EXPECT_EQ(ownCopyWindow(&bad, 0, 0, 2, 2, &step), nullptr);
    bad = *image;
    bad.align = 2;
    EXPECT_EQ(ownCopyWindow(&bad, 0, 0, 2, 2, &step), nullptr);
    EXPECT_EQ(ownCopyWindow(nullptr, 0, 0, 2, 2, &step), nullptr);
    EXPECT_EQ(ownCopyWindow(image.get(), 0, 0, 0, 2, &step), nullptr);
    EXPECT_EQ(outstandingBlocks(), before);
}

// ------------------------------------------------------------- tiled

// The requests come in groups: READs of consecutive columns of one tile row,
// then RELEASEs of the same tiles, last to first.
::testing::AssertionResult wellFormedGroups(const std::vector<TileStore::Request>& log,
                                            int* widest) {
    *widest = 0;
    size_t i = 0;
    while (i < log.size()) {
        size_t reads = 0;
        while (i + reads < log.size() && log[i + reads].mode == KUV_TILE_READ) ++reads;
        if (reads == 0) return ::testing::AssertionFailure() << "release without request at " << i;
        for (size_t k = 0; k < reads; ++k) {
            const auto& r = log[i + k];
            if (r.row != log[i].row || r.col != log[i].col + int(k))
                return ::testing::AssertionFailure()
                       << "requests of a group not one tile row at " << i;
            if (i + 2 * reads - 1 - k >= log.size())
                return ::testing::AssertionFailure() << "missing release at " << i;
            const auto& rel = log[i + 2 * reads - 1 - k];
            if (rel.mode != KUV_TILE_RELEASE || rel.col != r.col || rel.row != r.row)
                return ::testing::AssertionFailure() << "release out of order at " << i;
        }
        *widest = std::max(*widest, int(reads));
        i += 2 * reads;
    }
    return ::testing::AssertionSuccess();
}

TEST(WindowTiled, WindowsMatchAndEveryRequestIsReleased) {
    for (const Layout& l : layouts()) {
        SCOPED_TRACE(describe(l));
        ImagePtr backing = makeImage(l.depth, l.nChannels, 21, 19, l.order, 0, l.align);
        fillRandom(backing.get(), 17);
        TileStore store(std::move(backing), 8, 16);
        for (int combo = 0; combo < 4; ++combo) {
            const int modes[4] = {combo, (combo + 1) & 3, (combo + 2) & 3, (combo + 3) & 3};
            setSides(store.image(), modes, kConsts);
            for (const auto& r : rectangles(21, 19)) {
                store.clearLog();
                ASSERT_TRUE(windowMatches(store.image(), store.backing(), r[0], r[1], r[2], r[3]));
                int widest = 0;
                ASSERT_TRUE(wellFormedGroups(store.log(), &widest));
                ASSERT_EQ(store.held(), 0);
            }
        }
        EXPECT_TRUE(store.faults().empty()) << store.faults().front();
    }
}

TEST(WindowTiled, FourTilesAreReadTwoAtATime) {
    ImagePtr backing = makeImage(KUV_DEPTH_8U, 1, 20, 20);
    fillRandom(backing.get(), 4);
    TileStore store(std::move(backing), 8, 8);
    ASSERT_TRUE(windowMatches(store.image(), store.backing(), 5, 6, 6, 5));
    using R = TileStore::Request;
    const std::vector<R> want = {{0, 0, KUV_TILE_READ},    {1, 0, KUV_TILE_READ},
                                 {1, 0, KUV_TILE_RELEASE}, {0, 0, KUV_TILE_RELEASE},
                                 {0, 1, KUV_TILE_READ},    {1, 1, KUV_TILE_READ},
                                 {1, 1, KUV_TILE_RELEASE}, {0, 1, KUV_TILE_RELEASE}};
    EXPECT_EQ(store.log(), want);
    EXPECT_TRUE(store.faults().empty());
}

TEST(WindowTiled, FailedRequestGivesNullAndLeavesNothingHeld) {
    ImagePtr backing = makeImage(KUV_DEPTH_16S, 3, 21, 19, KUV_DATA_ORDER_PLANE);
    fillRandom(backing.get(), 8);
    TileStore store(std::move(backing), 8, 8);
    kuvSetBorderMode(store.image(), KUV_BORDER_REFLECT, KUV_SIDE_ALL, 0);
    ASSERT_TRUE(windowMatches(store.image(), store.backing(), -3, -4, 29, 27));
    int requests = 0;
    for (const auto& r : store.log()) requests += r.mode == KUV_TILE_READ;
    ASSERT_GT(requests, 10);
    for (int k = 1; k <= requests; ++k) {
        store.clearLog();
        store.failRequest(k);
        const long before = outstandingBlocks();
        const KuvStatus status = kuvGetErrStatus();
        int32_t step = 0;
        EXPECT_EQ(ownCopyWindow(store.image(), -3, -4, 29, 27, &step), nullptr) << k;
        EXPECT_EQ(outstandingBlocks(), before) << k;
        EXPECT_EQ(store.held(), 0) << k;
        EXPECT_EQ(kuvGetErrStatus(), status);
        int reads = 0, releases = 0;
        for (const auto& r : store.log()) (r.mode == KUV_TILE_READ ? reads : releases) += 1;
        EXPECT_EQ(reads, k) << "requests stop at the failed one";
        EXPECT_EQ(releases, k - 1) << "every granted tile is released";
    }
    store.failRequest(0);
    EXPECT_TRUE(store.faults().empty());
}

// ------------------------------------------------------------- lines

// ownGetBorderedLine of channel c (from 0) against the reference, and no
// byte written past the count's last element.
::testing::AssertionResult lineMatches(const KuvImage* image, const KuvImage* pixels, int x, int y,
                                       int c, int count) {
    std::vector<uint8_t> buffer(static_cast<size_t>(count) * 4 + 8, 0xA5);
    ownGetBorderedLine(image, x, y, c + 1, buffer.data(), count);
    KuvImage view = *pixels;
    view.width = count;
    view.height = 1;
    view.nChannels = 1;
    view.dataOrder = KUV_DATA_ORDER_PIXEL;
    view.imageData = reinterpret_cast<char*>(buffer.data());
    for (int i = 0; i < count; ++i) {
        const double want = reference(image, pixels, int64_t{x} + i, y, c);
        if (get(&view, i, 0, 0) != want) {
            return ::testing::AssertionFailure()
                   << "at (" << x + i << "," << y << ") ch " << c << ": " << get(&view, i, 0, 0)
                   << ", expected " << want;
        }
    }
    const int bits = depthBits(pixels->depth);
    const size_t used = (static_cast<size_t>(count) * bits + 7) / 8;
    if (buffer[used] != 0xA5) return ::testing::AssertionFailure() << "written past the count";
    return ::testing::AssertionSuccess();
}

TEST(WindowLine, LinesMatchTheTableOnPlainAndTiledImages) {
    const uint32_t depths[] = {KUV_DEPTH_1U,  KUV_DEPTH_8U,  KUV_DEPTH_8S,
                               KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};
    for (uint32_t depth : depths) {
        for (int order = 0; order < 2; ++order) {
            if (depth == KUV_DEPTH_1U && order == KUV_DATA_ORDER_PLANE) continue;
            const int nCh = depth == KUV_DEPTH_1U ? 1 : 3;
            SCOPED_TRACE(depthName(depth) + (order ? " planes" : " pixels"));
            ImagePtr backing = makeImage(depth, nCh, 13, 5, order);
            fillRandom(backing.get(), depth + order);
            TileStore store(copyImage(backing.get()), 8, 8);
            for (int combo = 0; combo < 256; combo += 7) {
                const int modes[4] = {combo & 3, (combo >> 2) & 3, (combo >> 4) & 3, combo >> 6};
                setSides(backing.get(), modes, kConsts);
                setSides(store.image(), modes, kConsts);
                for (int y = -11; y < 16; y += 3) {
                    const int c = (y + 11) % nCh;
                    for (int x : {-30, -14, -13, -1, 0, 5, 12, 13, 27}) {
                        ASSERT_TRUE(lineMatches(backing.get(), backing.get(), x, y, c, 40))
                            << "modes " << combo;
                        ASSERT_TRUE(lineMatches(store.image(), backing.get(), x, y, c, 40))
                            << "modes " << combo << " tiled";
                    }
                }
            }
            int widest = 0;
            EXPECT_TRUE(wellFormedGroups(store.log(), &widest));
            EXPECT_EQ(widest, 1) << "a line holds one tile at a time";
            EXPECT_TRUE(store.faults().empty());
        }
    }
}

TEST(WindowLine, ReflectAtEveryDistanceAndFloatNotServed) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 3, 1);
    for (int i = 0; i < 3; ++i) put(image.get(), i, 0, 0, 10 * (i + 1));
    kuvSetBorderMode(image.get(), KUV_BORDER_REFLECT, KUV_SIDE_ALL, 0);
    uint8_t line[11] = {};
    ownGetBorderedLine(image.get(), -4, 0, 1, line, 11);
    const uint8_t want[11] = {30, 30, 20, 10, 10, 20, 30, 30, 20, 10, 10};
    EXPECT_EQ(std::memcmp(line, want, 11), 0);

    ImagePtr floats = makeImage(KUV_DEPTH_32F, 1, 3, 1);
    float out[4] = {1, 2, 3, 4};
    ownGetBorderedLine(floats.get(), -1, 0, 1, out, 4);
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[3], 4.0f);
}

TEST(WindowLine, FailedTileRequestStopsWithNothingHeld) {
    ImagePtr backing = makeImage(KUV_DEPTH_8U, 1, 24, 8);
    fillRandom(backing.get(), 2);
    TileStore store(std::move(backing), 8, 8);
    kuvSetBorderMode(store.image(), KUV_BORDER_WRAP, KUV_SIDE_ALL, 0);
    store.failRequest(3);
    std::vector<uint8_t> line(60, 0);
    ownGetBorderedLine(store.image(), -5, 2, 1, line.data(), 60);
    EXPECT_EQ(store.held(), 0);
    EXPECT_EQ(store.log().size(), 5u);   // two granted and released, the third refused
    EXPECT_TRUE(store.faults().empty());
}

}  // namespace
