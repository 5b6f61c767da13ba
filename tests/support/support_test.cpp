// The support's own checks: each canary and guard must be able to fail,
// and the naive element access must agree with the published layout.
#include "tests/support/kuv_test.h"

#include <cstring>

namespace {

using namespace kuvtest;

TEST(Support, ElementAccessFollowsTheLayout) {
    // 3 channels, plane order, 8 bits, 5x2, align 4: rows of 8 bytes, planes of 16.
    ImagePtr plane = makeImage(KUV_DEPTH_8U, 3, 5, 2, KUV_DATA_ORDER_PLANE);
    ASSERT_TRUE(plane);
    EXPECT_EQ(plane->widthStep, 8);
    put(plane.get(), 4, 1, 2, 77);
    EXPECT_EQ(static_cast<uint8_t>(plane->imageData[2 * 16 + 8 + 4]), 77);
    EXPECT_EQ(get(plane.get(), 4, 1, 2), 77.0);

    ImagePtr pixel = makeImage(KUV_DEPTH_16S, 3, 5, 2);
    put(pixel.get(), 4, 1, 2, -2);
    int16_t raw;
    std::memcpy(&raw, pixel->imageData + pixel->widthStep + (4 * 3 + 2) * 2, 2);
    EXPECT_EQ(raw, -2);

    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 20, 2);
    put(bits.get(), 3, 1, 0, 1);
    put(bits.get(), 9, 1, 0, 1);
    EXPECT_EQ(static_cast<uint8_t>(bits->imageData[bits->widthStep]), 0x10);
    EXPECT_EQ(static_cast<uint8_t>(bits->imageData[bits->widthStep + 1]), 0x40);
    EXPECT_EQ(get(bits.get(), 9, 1, 0), 1.0);
    EXPECT_EQ(get(bits.get(), 8, 1, 0), 0.0);

    ImagePtr f = makeImage(KUV_DEPTH_32F, 1, 3, 1);
    put(f.get(), 2, 0, 0, 0.1);
    EXPECT_EQ(get(f.get(), 2, 0, 0), static_cast<double>(0.1f));
}

TEST(Support, CanaryCatchesElementAndPaddingWrites) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 3, 5, 3);   // 15 bytes per row, step 16
    fillRandom(image.get(), 1);
    const Snapshot before = snapshot(image.get());
    EXPECT_TRUE(unchangedExcept(before, image.get(), [](int, int, int) { return false; }));

    put(image.get(), 2, 1, 1, get(image.get(), 2, 1, 1) + 1 > 255 ? 0 : get(image.get(), 2, 1, 1) + 1);
    EXPECT_FALSE(unchangedExcept(before, image.get(), [](int, int, int) { return false; }));
    EXPECT_TRUE(unchangedExcept(before, image.get(),
                                [](int x, int y, int c) { return x == 2 && y == 1 && c == 1; }));

    image->imageData[15] = static_cast<char>(image->imageData[15] ^ 1);   // row 0 padding
    EXPECT_TRUE(paddingChanged(before, image.get()));
    EXPECT_FALSE(unchangedExcept(before, image.get(),
                                 [](int x, int y, int c) { return x == 2 && y == 1 && c == 1; }));
    EXPECT_TRUE(unchangedExcept(before, image.get(),
                                [](int x, int y, int c) { return x == 2 && y == 1 && c == 1; },
                                Padding::MayChange));

    // Bit images: a padding bit in the byte shared with the last element.
    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 13, 1);
    const Snapshot bitsBefore = snapshot(bits.get());
    bits->imageData[1] = static_cast<char>(bits->imageData[1] | 0x04);   // column 13: padding
    EXPECT_TRUE(paddingChanged(bitsBefore, bits.get()));
    EXPECT_TRUE(unchangedExcept(bitsBefore, bits.get(), [](int, int, int) { return false; },
                                Padding::MayChange));
    bits->imageData[1] = static_cast<char>(bits->imageData[1] | 0x08);   // column 12
    EXPECT_FALSE(unchangedExcept(bitsBefore, bits.get(), [](int, int, int) { return false; },
                                 Padding::MayChange));
}

TEST(Support, RefusalGuardSeesHeadersRoiAndPixels) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    setRoi(a.get(), 0, 1, 1, 2, 2);
    {
        RefusalGuard guard(a.get(), nullptr, nullptr);
        EXPECT_TRUE(guard.intact());
        a->roi->width = 3;
        EXPECT_FALSE(guard.intact());
        a->roi->width = 2;
        a->imageData[5] = 9;
        EXPECT_FALSE(guard.intact());
    }
    RefusalGuard guard(a.get());
    a->origin = 1;
    EXPECT_FALSE(guard.intact());
    a->origin = 0;
}

TEST(Support, ReportCaptureRecordsAndRestores) {
    const int32_t mode = kuvGetErrMode();
    {
        ReportCapture capture;
        EXPECT_EQ(kuvGetErrMode(), KUV_ErrorModeParent);
        kuvError(KUV_StsBadArgument, "f", "ctx", "file", 12);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "f", "ctx", "file"));
        EXPECT_FALSE(oneReport(capture, KUV_StsBadArgument, "f", "other", "file"));
        EXPECT_EQ(capture.reports()[0].line, 12);
        {
            ReportCapture inner;
            kuvError(KUV_StsBadDepth, "g", "x", "y", 1);
            EXPECT_EQ(inner.count(), 1u);
        }
        EXPECT_EQ(capture.count(), 1u);
    }
    EXPECT_EQ(kuvGetErrMode(), mode);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
}

TEST(Support, TileStoreServesCopiesBackAndFails) {
    ImagePtr backing = makeImage(KUV_DEPTH_16U, 2, 13, 9);
    fillRandom(backing.get(), 5);
    TileStore store(std::move(backing), 8, 8);
    KuvImage* tiled = store.image();
    ASSERT_EQ(kuvCheckImageHeader(tiled), KUV_StsNoError);
    KuvTileInfo* info = tiled->tileInfo;
    const double corner = get(store.backing(), 12, 8, 1);

    // Tile (1, 1) holds columns 8..12 and row 8 of the image.
    info->callBack(tiled, 1, 1, KUV_TILE_WRITE);
    ASSERT_NE(info->tileData, nullptr);
    uint16_t element;
    std::memcpy(&element, info->tileData + (4 * 2 + 1) * 2, 2);
    EXPECT_EQ(element, corner);
    element = 4321;
    std::memcpy(info->tileData + (4 * 2 + 1) * 2, &element, 2);
    info->callBack(tiled, 1, 1, KUV_TILE_RELEASE);
    EXPECT_EQ(info->tileData, nullptr);
    EXPECT_EQ(get(store.backing(), 12, 8, 1), 4321.0);
    EXPECT_TRUE(store.faults().empty());
    EXPECT_EQ(store.held(), 0);

    // Writing beyond the image's edge, or into a tile held for reading, is a fault.
    info->callBack(tiled, 1, 1, KUV_TILE_WRITE);
    info->tileData[(5 * 2) * 2] = 1;   // column 13 lies beyond the image
    info->callBack(tiled, 1, 1, KUV_TILE_RELEASE);
    EXPECT_EQ(store.faults().size(), 1u);
    info->callBack(tiled, 0, 0, KUV_TILE_READ);
    info->tileData[0] = static_cast<char>(info->tileData[0] ^ 1);
    info->callBack(tiled, 0, 0, KUV_TILE_RELEASE);
    EXPECT_EQ(store.faults().size(), 2u);

    store.failRequest(2);
    info->callBack(tiled, 0, 0, KUV_TILE_READ);
    EXPECT_NE(info->tileData, nullptr);
    info->callBack(tiled, 0, 0, KUV_TILE_RELEASE);
    info->callBack(tiled, 0, 1, KUV_TILE_READ);
    EXPECT_EQ(info->tileData, nullptr);
    EXPECT_EQ(store.log().back(), (TileStore::Request{0, 1, KUV_TILE_READ}));
    EXPECT_EQ(TileStore::calls().back().store, store.id());
}

}  // namespace
