// kuvGetPixel and kuvPutPixel against the layout rules: random pixels of
// every depth, order and channel count, both origins, plain and tiled, with
// a region, coi and mask that must play no part; then the refusals.
#include "tests/support/kuv_test.h"

#include <cstring>

namespace {

using namespace kuvtest;
using Req = TileStore::Request;

TEST(PixelAccess, RandomPixelsOfEveryLayoutPlainAndTiled) {
    for (uint64_t seed = 1; seed <= 600; ++seed) {
        Rng rng(seed);
        const uint32_t depth = allDepths()[rng.uniform(0, 6)];
        const int n = depth == KUV_DEPTH_1U ? 1 : int(rng.uniform(1, 4));
        const int w = int(rng.uniform(1, 40)), h = int(rng.uniform(1, 20));
        const int bytes = depth == KUV_DEPTH_1U ? 1 : depthBits(depth) / 8;
        ImagePtr plain =
            makeImage(depth, n, w, h, int(rng.uniform(0, 1)), n > 1 && rng.chance(0.3) ? n : 0);
        fillRandom(plain.get(), seed);
        plain->origin = int(rng.uniform(0, 1));
        const int tw = rng.chance(0.4) ? 8 * int(rng.uniform(1, 2)) : 0, th = 8;
        std::unique_ptr<TileStore> store;
        if (tw != 0) store = std::make_unique<TileStore>(std::move(plain), tw, th);
        KuvImage* image = store ? store->image() : plain.get();
        const KuvImage* pixels = store ? store->backing() : plain.get();
        if (rng.chance(0.5)) {
            setRoi(image, int(rng.uniform(0, n)), w - 1, h - 1, 1, 1);
            attachMask(image, makeMask(1, 1, 0));
        }
        const int x = int(rng.uniform(0, w - 1)), y = int(rng.uniform(0, h - 1));
        const int row = pixels->origin == KUV_ORIGIN_BOTTOM_LEFT ? h - 1 - y : y;
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::vector<uint8_t> got(size_t(n * bytes), 0xEE), value(size_t(n * bytes));
        for (uint8_t& v : value) v = uint8_t(rng.next());
        const Snapshot before = snapshot(pixels);
        const ImagePtr was = copyImage(pixels);
        ReportCapture capture;
        kuvGetPixel(image, x, y, got.data());
        kuvPutPixel(image, x, y, value.data());
        EXPECT_EQ(capture.count(), 0u);
        for (int c = 0; c < n; ++c) {
            uint32_t old = 0, put = value[0] & 1u;
            std::memcpy(&old, got.data() + c * bytes, size_t(bytes));
            if (depth != KUV_DEPTH_1U) std::memcpy(&put, value.data() + c * bytes, size_t(bytes));
            EXPECT_EQ(old, getBits(was.get(), x, row, c)) << "get, channel " << c;
            EXPECT_EQ(getBits(pixels, x, row, c), put) << "put, channel " << c;
        }
        expectUnchangedExcept(before, pixels,
                              [&](int i, int j, int) { return i == x && j == row; });
        if (store) {
            std::vector<Req> log;
            for (int mode : {KUV_TILE_READ, KUV_TILE_RELEASE, KUV_TILE_WRITE, KUV_TILE_RELEASE})
                log.push_back({x / tw, row / th, mode});
            EXPECT_EQ(store->log(), log);
            EXPECT_TRUE(store->faults().empty());
        }
        if (::testing::Test::HasFailure()) return;
    }
}

TEST(PixelAccess, RefusalsInTheirOrderTouchNothing) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 4, 3), alpha = makeLike(image.get());
    alpha->alphaChannel = 2;   // the header check refuses it before the operation's own test
    TileStore tiled(makeImage(KUV_DEPTH_8U, 2, 16, 16), 8, 8);
    const char *x = "((x>width-1) || (x<0))", *y = "((y>height-1) || (y<0))";
    const char* bad = "Incorrect Image";
    const struct {
        KuvImage* image;
        int x, y;
        KuvStatus status;
        const char *get, *put;   // contexts
    } rows[] = {
        {image.get(), 4, 0, -5, x, x},
        {image.get(), -1, 0, -5, x, x},
        {image.get(), 4, -1, -5, x, x},
        {image.get(), 0, 3, -5, y, y},
        {image.get(), 0, -1, -5, y, y},
        {nullptr, 0, 0, KUV_StsNullHeader, bad, bad},
        {alpha.get(), 0, 0, KUV_StsBadAlphaChannel, bad, bad},
        // A procedure that cannot deliver: a failed request.
        {tiled.image(), 9, 9, KUV_StsFailure, "Error get tile to read", "Error get tile to write"}};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.get);
        const RefusalGuard guard(r.image, tiled.backing());
        uint8_t pixel[2] = {5, 6};
        for (bool put : {false, true}) {
            tiled.failRequest(1);
            ReportCapture capture;
            put ? kuvPutPixel(r.image, r.x, r.y, pixel) : kuvGetPixel(r.image, r.x, r.y, pixel);
            EXPECT_TRUE(oneReport(capture, r.status, put ? "kuvPutPixel" : "kuvGetPixel",
                                  put ? r.put : r.get, put ? "kuvPutPx" : "kuvGetPx"));
            EXPECT_TRUE(pixel[0] == 5 && pixel[1] == 6);
        }
        EXPECT_TRUE(guard.intact());
    }
    EXPECT_EQ(tiled.log(), (std::vector<Req>{{1, 1, KUV_TILE_READ}, {1, 1, KUV_TILE_WRITE}}));
}

}   // namespace
