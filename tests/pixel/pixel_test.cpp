// kuvGetPixel and kuvPutPixel: every depth and layout against the layout
// rules, origin, tiles, and the refusals in their order.
#include "tests/support/kuv_test.h"

#include <cstring>

namespace {

using namespace kuvtest;

int elementBytes(uint32_t depth) { return depth == KUV_DEPTH_1U ? 1 : depthBits(depth) / 8; }

// The caller's buffer for one pixel: nChannels elements of the image's type.
std::vector<uint8_t> pixelOf(const KuvImage* image, int x, int y) {
    const int bytes = elementBytes(image->depth);
    std::vector<uint8_t> out(static_cast<size_t>(bytes * image->nChannels));
    for (int c = 0; c < image->nChannels; ++c) {
        const uint32_t v = getBits(image, x, y, c);
        std::memcpy(out.data() + c * bytes, &v, static_cast<size_t>(bytes));  // little endian
    }
    return out;
}

TEST(PixelAccess, EveryDepthAndLayoutRoundTrips) {
    for (uint32_t depth : allDepths()) {
        for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            for (int n : {1, 2, 3, 4}) {
                if (depth == KUV_DEPTH_1U && n > 1) continue;
                SCOPED_TRACE(depthName(depth) + " x" + std::to_string(n) + " order " +
                             std::to_string(order));
                ImagePtr image = makeImage(depth, n, 11, 5, order, n == 4 ? 4 : 0);
                fillRandom(image.get(), depth + n + order);
                ImagePtr source = makeImage(depth, n, 11, 5, order);
                fillRandom(source.get(), 99);
                const Snapshot before = snapshot(image.get());
                ReportCapture capture;
                for (auto [x, y] : {std::pair{0, 0}, std::pair{10, 4}, std::pair{7, 2}}) {
                    std::vector<uint8_t> got(static_cast<size_t>(elementBytes(depth) * n), 0xEE);
                    kuvGetPixel(image.get(), x, y, got.data());
                    EXPECT_EQ(got, pixelOf(image.get(), x, y)) << x << "," << y;
                }
                // Put (7, 2) from another image's pixel: only that pixel changes.
                const std::vector<uint8_t> value = pixelOf(source.get(), 3, 1);
                kuvPutPixel(image.get(), 7, 2, value.data());
                EXPECT_EQ(pixelOf(image.get(), 7, 2), value);
                EXPECT_EQ(capture.count(), 0u);
                expectUnchangedExcept(before, image.get(),
                                      [](int x, int y, int) { return x == 7 && y == 2; });
            }
        }
    }
}

TEST(PixelAccess, BitColumnNineIsBitSixOfTheSecondByte) {
    ImagePtr image = makeImage(KUV_DEPTH_1U, 1, 20, 2);
    std::memset(image->imageData, 0xA5, static_cast<size_t>(image->imageSize));
    uint8_t* row1 = reinterpret_cast<uint8_t*>(image->imageData) + image->widthStep;
    uint8_t pixel = 0xFF;
    kuvGetPixel(image.get(), 9, 1, &pixel);
    EXPECT_EQ(pixel, 0);  // 0xA5 = 1010 0101: bit 6 is 0
    pixel = 3;
    kuvPutPixel(image.get(), 9, 1, &pixel);
    EXPECT_EQ(row1[1], 0xE5);
    kuvGetPixel(image.get(), 9, 1, &pixel);
    EXPECT_EQ(pixel, 1);
    pixel = 2;  // bit 0 clear: the bit is cleared
    kuvPutPixel(image.get(), 9, 1, &pixel);
    EXPECT_EQ(row1[1], 0xA5);
    EXPECT_EQ(row1[0], 0xA5);
    EXPECT_EQ(row1[2], 0xA5);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(image->imageData)[1], 0xA5);  // row 0 untouched
}

TEST(PixelAccess, OriginBottomLeftCountsFromThePictureTop) {
    ImagePtr image = makeImage(KUV_DEPTH_16S, 2, 4, 3);
    fillRandom(image.get(), 5);
    image->origin = KUV_ORIGIN_BOTTOM_LEFT;
    int16_t pixel[2] = {};
    kuvGetPixel(image.get(), 1, 0, pixel);
    EXPECT_EQ(pixel[0], get(image.get(), 1, 2, 0));  // the last stored row
    EXPECT_EQ(pixel[1], get(image.get(), 1, 2, 1));
    const int16_t value[2] = {-7, 12345};
    kuvPutPixel(image.get(), 3, 2, value);
    EXPECT_EQ(get(image.get(), 3, 0, 0), -7.0);  // the first stored row
    EXPECT_EQ(get(image.get(), 3, 0, 1), 12345.0);
}

TEST(PixelAccess, ThirdElementComesFromTheThirdPlane) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 3, 5, 2, KUV_DATA_ORDER_PLANE);
    const int plane = image->widthStep * image->height;
    image->imageData[2 * plane + image->widthStep + 4] = 77;
    uint8_t pixel[3] = {1, 1, 1};
    kuvGetPixel(image.get(), 4, 1, pixel);
    EXPECT_EQ(pixel[0], 0);
    EXPECT_EQ(pixel[1], 0);
    EXPECT_EQ(pixel[2], 77);
}

TEST(PixelAccess, RegionMaskAndCoiPlayNoPart) {
    ImagePtr image = makeImage(KUV_DEPTH_32S, 3, 6, 4);
    fillRandom(image.get(), 6);
    setRoi(image.get(), 2, 3, 2, 2, 2);
    attachMask(image.get(), makeMask(6, 4, 0));
    int32_t pixel[3];
    kuvGetPixel(image.get(), 1, 1, pixel);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(pixel[c], get(image.get(), 1, 1, c));
    const int32_t value[3] = {INT32_MIN, -1, INT32_MAX};
    kuvPutPixel(image.get(), 0, 0, value);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(get(image.get(), 0, 0, c), value[c]);
}

TEST(PixelAccess, FloatBitsAreMovedUnchanged) {
    ImagePtr image = makeImage(KUV_DEPTH_32F, 2, 3, 3);
    const uint32_t bits[2] = {0x7FC01234u, 0x80000001u};  // a NaN with payload, a negative denormal
    kuvPutPixel(image.get(), 2, 2, bits);
    EXPECT_EQ(getBits(image.get(), 2, 2, 0), bits[0]);
    EXPECT_EQ(getBits(image.get(), 2, 2, 1), bits[1]);
    uint32_t back[2] = {};
    kuvGetPixel(image.get(), 2, 2, back);
    EXPECT_EQ(back[0], bits[0]);
    EXPECT_EQ(back[1], bits[1]);
}

TEST(PixelRefusals, InTheirOrder) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 4, 3);
    uint8_t pixel = 0;
    struct Case {
        int x, y;
        const char* context;
    };
    const Case cases[] = {
        {4, 0, "((x>width-1) || (x<0))"},  {-1, 0, "((x>width-1) || (x<0))"},
        {0, 3, "((y>height-1) || (y<0))"}, {0, -1, "((y>height-1) || (y<0))"},
        {4, -1, "((x>width-1) || (x<0))"},  // x is tested first
    };
    for (const Case& c : cases) {
        RefusalGuard guard(image.get());
        {
            ReportCapture capture;
            kuvGetPixel(image.get(), c.x, c.y, &pixel);
            EXPECT_TRUE(
                oneReport(capture, KUV_StsBadArgument, "kuvGetPixel", c.context, "kuvGetPx"));
        }
        {
            pixel = 9;
            ReportCapture capture;
            kuvPutPixel(image.get(), c.x, c.y, &pixel);
            EXPECT_TRUE(
                oneReport(capture, KUV_StsBadArgument, "kuvPutPixel", c.context, "kuvPutPx"));
        }
        EXPECT_TRUE(guard.intact());
    }
    {
        ReportCapture capture;
        kuvGetPixel(nullptr, 0, 0, &pixel);
        EXPECT_TRUE(
            oneReport(capture, KUV_StsNullHeader, "kuvGetPixel", "Incorrect Image", "kuvGetPx"));
    }
    {
        // The header check refuses a misplaced alpha channel before the
        // operation's own test of it is reached.
        image->alphaChannel = 2;
        image->nChannels = 1;
        ReportCapture capture;
        kuvPutPixel(image.get(), 0, 0, &pixel);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadAlphaChannel, "kuvPutPixel", "Incorrect Image",
                              "kuvPutPx"));
        image->alphaChannel = 0;
    }
}

using Req = TileStore::Request;

TEST(PixelTiles, GetReadsAndPutWritesOneTile) {
    for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
        ImagePtr plain = makeImage(KUV_DEPTH_16U, 3, 30, 20, order);
        fillRandom(plain.get(), 7);
        TileStore store(copyImage(plain.get()), 8, 16);
        uint16_t pixel[3] = {};
        kuvGetPixel(store.image(), 17, 18, pixel);
        for (int c = 0; c < 3; ++c) EXPECT_EQ(pixel[c], get(plain.get(), 17, 18, c));
        const uint16_t value[3] = {1, 65535, 300};
        kuvPutPixel(store.image(), 29, 3, value);
        for (int c = 0; c < 3; ++c) EXPECT_EQ(get(store.backing(), 29, 3, c), value[c]);
        const std::vector<Req> expected = {{2, 1, KUV_TILE_READ},
                                           {2, 1, KUV_TILE_RELEASE},
                                           {3, 0, KUV_TILE_WRITE},
                                           {3, 0, KUV_TILE_RELEASE}};
        EXPECT_EQ(store.log(), expected);
        EXPECT_EQ(store.held(), 0);
        EXPECT_TRUE(store.faults().empty());
    }
}

TEST(PixelTiles, BottomLeftOriginIsFlippedBeforeTheTileRow) {
    ImagePtr plain = makeImage(KUV_DEPTH_1U, 1, 24, 20);
    fillRandom(plain.get(), 8);
    plain->origin = KUV_ORIGIN_BOTTOM_LEFT;
    TileStore store(copyImage(plain.get()), 16, 8);
    uint8_t bit = 0xFF;
    kuvGetPixel(store.image(), 21, 2, &bit);  // stored row 17, tile row 2
    EXPECT_EQ(bit, get(plain.get(), 21, 17, 0));
    bit = get(plain.get(), 3, 0, 0) == 0.0 ? 1 : 0;
    kuvPutPixel(store.image(), 3, 19, &bit);  // stored row 0, tile row 0
    EXPECT_EQ(get(store.backing(), 3, 0, 0), bit);
    const std::vector<Req> expected = {{1, 2, KUV_TILE_READ},
                                       {1, 2, KUV_TILE_RELEASE},
                                       {0, 0, KUV_TILE_WRITE},
                                       {0, 0, KUV_TILE_RELEASE}};
    EXPECT_EQ(store.log(), expected);
}

TEST(PixelTiles, ANullTileIsAFailedRequest) {
    ImagePtr plain = makeImage(KUV_DEPTH_8U, 2, 16, 16);
    TileStore store(copyImage(plain.get()), 8, 8);
    uint8_t pixel[2] = {5, 6};
    store.failRequest(1);
    {
        ReportCapture capture;
        kuvGetPixel(store.image(), 9, 9, pixel);
        EXPECT_TRUE(oneReport(capture, KUV_StsFailure, "kuvGetPixel", "Error get tile to read",
                              "kuvGetPx"));
    }
    EXPECT_EQ(pixel[0], 5);
    EXPECT_EQ(pixel[1], 6);
    store.failRequest(1);
    {
        ReportCapture capture;
        kuvPutPixel(store.image(), 9, 9, pixel);
        EXPECT_TRUE(oneReport(capture, KUV_StsFailure, "kuvPutPixel", "Error get tile to write",
                              "kuvPutPx"));
    }
    const std::vector<Req> expected = {{1, 1, KUV_TILE_READ}, {1, 1, KUV_TILE_WRITE}};
    EXPECT_EQ(store.log(), expected);  // nothing to release
    EXPECT_EQ(get(store.backing(), 9, 9, 0), 0.0);
}

}  // namespace
