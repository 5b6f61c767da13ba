// The kuvMalloc family: 32-byte alignment, the block start stored in the word
// below the result, room after the requested length, and the small records
// (ROI, tile description) built from it.
#include <malloc.h>

#include <cstddef>
#include <cstring>
#include <vector>

#include "tests/support/kuv_test.h"

namespace {

using Allocator = void* (*)(int32_t);

struct Family {
    const char* name;
    Allocator allocate;
    int64_t elementSize;
};

const Family families[] = {
    {"kuvMalloc", kuvMalloc, 1},   {"kuvwMalloc", kuvwMalloc, 2}, {"kuviMalloc", kuviMalloc, 4},
    {"kuvsMalloc", kuvsMalloc, 4}, {"kuvdMalloc", kuvdMalloc, 8},
};

TEST(Memory, FamilyBlocksAreAlignedAndRecordTheirStart) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-3);
    const int32_t lengths[] = {0, 1, 2, 3, 5, 7, 31, 32, 33, 63, 100, 255, 1000, 4099};
    const long before = kuvtest::outstandingBlocks();
    for (const Family& family : families) {
        // Many blocks at once, so that the heap hands out starts of different residues.
        std::vector<void*> blocks;
        for (int round = 0; round < 8; ++round) {
            for (int32_t length : lengths) {
                void* p = family.allocate(length);
                ASSERT_NE(p, nullptr) << family.name << "(" << length << ")";
                blocks.push_back(p);
                const auto address = reinterpret_cast<uintptr_t>(p);
                EXPECT_EQ(address % 32, 0u) << family.name << "(" << length << ")";
                char* start = static_cast<char*>(static_cast<void**>(p)[-1]);
                const ptrdiff_t offset = static_cast<char*>(p) - start;
                // At least the stored word below the result, at most 31 bytes of rounding above it.
                EXPECT_GE(offset, static_cast<ptrdiff_t>(sizeof(void*))) << family.name;
                EXPECT_LE(offset, static_cast<ptrdiff_t>(31 + sizeof(void*))) << family.name;
                // The stored word is the start of a heap block that holds the requested
                // bytes and at least 33 more after them.
                const int64_t requested = int64_t{length} * family.elementSize;
                EXPECT_GE(static_cast<int64_t>(malloc_usable_size(start)), offset + requested + 33)
                    << family.name << "(" << length << ")";
                std::memset(p, 0xA5, static_cast<size_t>(requested + 33));
            }
        }
        EXPECT_EQ(kuvtest::outstandingBlocks(), before + static_cast<long>(blocks.size()));
        for (void* p : blocks) kuvFree(p);
        EXPECT_EQ(kuvtest::outstandingBlocks(), before) << family.name;
    }
    EXPECT_EQ(kuvGetErrStatus(), -3) << "the family sets no status";
    EXPECT_EQ(capture.count(), 0u);
}

TEST(Memory, FreeOfNullIsIgnored) {
    const long before = kuvtest::outstandingBlocks();
    kuvFree(nullptr);
    kuvDeleteROI(nullptr);
    kuvDeleteTileInfo(nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), before);
}

void tileCallBack(const KuvImage*, int32_t, int32_t, int32_t) {}

TEST(Memory, RoiAndTileRecordsStoreTheirValuesUnchecked) {
    const long before = kuvtest::outstandingBlocks();
    KuvROI* roi = kuvCreateROI(-4, -1, 100000, 0, -7);
    ASSERT_NE(roi, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(roi) % 32, 0u);
    EXPECT_EQ(roi->coi, -4);
    EXPECT_EQ(roi->xOffset, -1);
    EXPECT_EQ(roi->yOffset, 100000);
    EXPECT_EQ(roi->width, 0);
    EXPECT_EQ(roi->height, -7);
    kuvSetROI(roi, 3, 4, 5, 6, 7);
    EXPECT_EQ(roi->coi, 3);
    EXPECT_EQ(roi->xOffset, 4);
    EXPECT_EQ(roi->yOffset, 5);
    EXPECT_EQ(roi->width, 6);
    EXPECT_EQ(roi->height, 7);
    kuvSetROI(nullptr, 1, 2, 3, 4, 5);

    KuvTileInfo* tile = kuvCreateTileInfo(tileCallBack, 77, 12, -8);
    ASSERT_NE(tile, nullptr);
    EXPECT_EQ(tile->callBack, tileCallBack);
    EXPECT_EQ(tile->id, 77);
    EXPECT_EQ(tile->tileData, nullptr);
    EXPECT_EQ(tile->width, 12);
    EXPECT_EQ(tile->height, -8);
    char buffer[4];
    tile->tileData = buffer;
    kuvSetTileInfo(tile, nullptr, -1, 16, 24);
    EXPECT_EQ(tile->callBack, nullptr);
    EXPECT_EQ(tile->id, -1);
    EXPECT_EQ(tile->tileData, nullptr) << "kuvSetTileInfo clears tileData";
    EXPECT_EQ(tile->width, 16);
    EXPECT_EQ(tile->height, 24);
    kuvSetTileInfo(nullptr, tileCallBack, 1, 8, 8);

    EXPECT_EQ(kuvtest::outstandingBlocks(), before + 2);
    kuvDeleteROI(roi);
    kuvDeleteTileInfo(tile);
    EXPECT_EQ(kuvtest::outstandingBlocks(), before);
}

TEST(Memory, RecordLayoutsAreTheDocumentedOnes) {
    EXPECT_EQ(sizeof(KuvROI), 20u);
    EXPECT_EQ(offsetof(KuvROI, coi), 0u);
    EXPECT_EQ(offsetof(KuvROI, xOffset), 4u);
    EXPECT_EQ(offsetof(KuvROI, yOffset), 8u);
    EXPECT_EQ(offsetof(KuvROI, width), 12u);
    EXPECT_EQ(offsetof(KuvROI, height), 16u);

    EXPECT_EQ(offsetof(KuvTileInfo, callBack), 0u);
    EXPECT_LT(offsetof(KuvTileInfo, callBack), offsetof(KuvTileInfo, id));
    EXPECT_LT(offsetof(KuvTileInfo, id), offsetof(KuvTileInfo, tileData));
    EXPECT_LT(offsetof(KuvTileInfo, tileData), offsetof(KuvTileInfo, width));
    EXPECT_EQ(offsetof(KuvTileInfo, height), offsetof(KuvTileInfo, width) + 4);

    // The image header: 32-bit fields and native pointers, in this order.
    const size_t order[] = {
        offsetof(KuvImage, headerSize),  offsetof(KuvImage, headerId),
        offsetof(KuvImage, nChannels),   offsetof(KuvImage, alphaChannel),
        offsetof(KuvImage, depth),       offsetof(KuvImage, colorModel),
        offsetof(KuvImage, channelSeq),  offsetof(KuvImage, dataOrder),
        offsetof(KuvImage, origin),      offsetof(KuvImage, align),
        offsetof(KuvImage, width),       offsetof(KuvImage, height),
        offsetof(KuvImage, roi),         offsetof(KuvImage, maskROI),
        offsetof(KuvImage, imageId),     offsetof(KuvImage, tileInfo),
        offsetof(KuvImage, imageSize),   offsetof(KuvImage, imageData),
        offsetof(KuvImage, widthStep),   offsetof(KuvImage, borderMode),
        offsetof(KuvImage, borderConst), offsetof(KuvImage, imageDataOrigin),
    };
    for (size_t i = 1; i < sizeof order / sizeof order[0]; ++i) {
        EXPECT_LT(order[i - 1], order[i]) << "field " << i;
    }
    // The first twelve fields are 32-bit words with no gap.
    for (size_t i = 0; i < 12; ++i) EXPECT_EQ(order[i], 4 * i) << "field " << i;
    EXPECT_EQ(offsetof(KuvImage, borderConst), offsetof(KuvImage, borderMode) + 16);
    EXPECT_EQ(sizeof(KuvImage{}.colorModel), 4u);
    EXPECT_EQ(sizeof(KuvImage{}.channelSeq), 4u);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(KuvImage), 112u);
        for (size_t i = 0; i < sizeof order / sizeof order[0]; ++i) {
            EXPECT_EQ(order[i], i < 19 ? 4 * i : 76 + 16 * (i - 19)) << "field " << i;
        }
    }
}

}  // namespace
