// Image records and their lifecycle: layout, the field rules of creation and
// allocation, the header check and the order of its tests, the fills,
// freeing by flags, cloning and the border settings.
#include <malloc.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kuv_own.h"
#include "tests/support/kuv_test.h"

namespace {

using kuvtest::ImagePtr;
using kuvtest::oneReport;
using kuvtest::ReportCapture;

constexpr const char* allocFile = "kuvalloc";
constexpr const char* dataIns = "Incorrect data-ins";

void tileCallBack(const KuvImage*, int32_t, int32_t, int32_t) {}

// A created header with no pixels; freed with everything it holds.
ImagePtr makeHeader(int32_t nChannels, uint32_t depth, int32_t dataOrder, int32_t align,
                    int32_t width, int32_t height, int32_t alphaChannel = 0) {
    return ImagePtr(kuvCreateImageHeader(nChannels, alphaChannel, depth, "MULT", "CCCC", dataOrder,
                                         KUV_ORIGIN_TOP_LEFT, align, width, height, nullptr,
                                         nullptr, 0, nullptr));
}

// ------------------------------------------------------------------ layout

struct LayoutCase {
    int32_t nChannels;
    uint32_t depth;
    int32_t dataOrder, align, width, height;
    int32_t widthStep, imageSize;
};

TEST(ImageLayout, RowLengthAndSizeFollowTheRules) {
    const LayoutCase cases[] = {
        // Bit rows are rounded to whole align units too.
        {1, KUV_DEPTH_1U, 0, 4, 9, 3, 4, 12},
        {1, KUV_DEPTH_1U, 0, 32, 9, 3, 32, 96},
        {1, KUV_DEPTH_1U, 0, 8, 9, 1, 8, 8},
        {1, KUV_DEPTH_1U, 0, 4, 32, 2, 4, 8},
        {1, KUV_DEPTH_1U, 0, 4, 33, 2, 8, 16},
        {1, KUV_DEPTH_1U, 0, 32, 256, 1, 32, 32},
        {1, KUV_DEPTH_1U, 0, 32, 257, 1, 64, 64},
        {1, KUV_DEPTH_1U, 1, 4, 1, 1, 4, 4},
        // Plane order rounds one channel's row and multiplies the planes.
        {3, KUV_DEPTH_8U, 1, 4, 5, 2, 8, 48},
        {3, KUV_DEPTH_8U, 0, 4, 5, 2, 16, 32},
        {3, KUV_DEPTH_16S, 0, 8, 7, 3, 48, 144},
        {3, KUV_DEPTH_16S, 1, 8, 7, 3, 16, 144},
        {2, KUV_DEPTH_32S, 1, 4, 3, 3, 12, 72},
        {2, KUV_DEPTH_32S, 0, 4, 3, 3, 24, 72},
        {1, KUV_DEPTH_32F, 0, 16, 1, 1, 16, 16},
        {4, KUV_DEPTH_8S, 0, 32, 9, 2, 64, 128},
        {4, KUV_DEPTH_8S, 0, 16, 8, 2, 32, 64},
        {1, KUV_DEPTH_16U, 0, 4, 1, 5, 4, 20},
        {1, KUV_DEPTH_16U, 0, 4, 3, 5, 8, 40},
        {5, KUV_DEPTH_32F, 1, 32, 3, 2, 32, 320},
        {1, KUV_DEPTH_8U, 0, 4, 4, 1, 4, 4},
    };
    for (const LayoutCase& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << kuvtest::depthName(c.depth) << " x" << c.nChannels << " order "
                     << c.dataOrder << " align " << c.align << " " << c.width << "x" << c.height);
        ImagePtr image = makeHeader(c.nChannels, c.depth, c.dataOrder, c.align, c.width, c.height);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->widthStep, c.widthStep);
        EXPECT_EQ(image->imageSize, c.imageSize);
        EXPECT_EQ(ownRowBytes(c.dataOrder, c.depth, c.align, c.nChannels, c.width), c.widthStep);

        // Allocation lays the image out again, whatever the fields say now.
        image->widthStep = 1;
        image->imageSize = 3;
        if (c.depth == KUV_DEPTH_32F)
            kuvAllocateImageFP(image.get(), 0, 0.0f);
        else
            kuvAllocateImage(image.get(), 0, 0);
        ASSERT_NE(image->imageData, nullptr);
        EXPECT_EQ(image->widthStep, c.widthStep);
        EXPECT_EQ(image->imageSize, c.imageSize);
        const auto data = reinterpret_cast<uintptr_t>(image->imageData);
        const auto origin = reinterpret_cast<uintptr_t>(image->imageDataOrigin);
        EXPECT_EQ(data % static_cast<uintptr_t>(c.align), 0u);
        ASSERT_GE(data, origin);
        EXPECT_LT(data - origin, static_cast<uintptr_t>(c.align));
        EXPECT_GE(malloc_usable_size(image->imageDataOrigin), data - origin + c.imageSize)
            << "the pixel block does not hold imageSize bytes from imageData";
    }
}

TEST(ImageLayout, HeaderSizeIsTheRecordsSize) {
    ImagePtr image = makeHeader(1, KUV_DEPTH_8U, 0, 4, 1, 1);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->headerSize, static_cast<int32_t>(sizeof(KuvImage)));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(image->headerSize, 112);
    }
}

TEST(ImageLayout, TileRowLength) {
    ReportCapture capture;
    struct TileCase {
        int32_t nChannels;
        uint32_t depth;
        int32_t dataOrder, align, tileWidth, rowBytes;
    };
    const TileCase cases[] = {
        {3, KUV_DEPTH_8U, 0, 8, 16, 48},  {3, KUV_DEPTH_8U, 1, 8, 16, 16},
        {1, KUV_DEPTH_1U, 0, 4, 24, 4},   {1, KUV_DEPTH_1U, 0, 32, 8, 32},
        {2, KUV_DEPTH_16S, 0, 16, 8, 32}, {4, KUV_DEPTH_32F, 0, 4, 40, 640},
        {2, KUV_DEPTH_32S, 1, 32, 8, 32},
    };
    for (const TileCase& c : cases) {
        SCOPED_TRACE(::testing::Message() << kuvtest::depthName(c.depth) << " x" << c.nChannels
                                          << " tile width " << c.tileWidth);
        KuvTileInfo* tile = kuvCreateTileInfo(tileCallBack, 0, c.tileWidth, 8);
        ImagePtr image(kuvCreateImageHeader(c.nChannels, 0, c.depth, "MULT", "CCCC", c.dataOrder, 0,
                                            c.align, 50, 20, nullptr, nullptr, 0, tile));
        ASSERT_TRUE(image);
        EXPECT_EQ(ownTileRowBytes(image.get()), c.rowBytes);
    }
    // Null, failing and untiled images have none.
    EXPECT_EQ(ownTileRowBytes(nullptr), 0);
    KuvTileInfo* tile = kuvCreateTileInfo(tileCallBack, 0, 12, 8);
    ImagePtr badTile(kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", 0, 0, 4, 50, 20,
                                          nullptr, nullptr, 0, tile));
    ASSERT_TRUE(badTile);
    EXPECT_EQ(ownTileRowBytes(badTile.get()), 0);
    ImagePtr plain = kuvtest::makeImage(KUV_DEPTH_8U, 1, 50, 20);
    EXPECT_EQ(ownTileRowBytes(plain.get()), 0);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(ImageLayout, SizesBeyond32BitsAreRefusedNotWrapped) {
    // 4 x 32-bit channels of 2^28 pixels: the row alone passes 2^31 bytes.
    ReportCapture capture;
    const long blocks = kuvtest::outstandingBlocks();
    EXPECT_EQ(kuvCreateImageHeader(4, 0, KUV_DEPTH_32F, "RGBA", "RGBA", 0, 0, 4, 1 << 28, 1,
                                   nullptr, nullptr, 0, nullptr),
              nullptr);
    EXPECT_EQ(kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", 1, 0, 4, 65536, 65536,
                                   nullptr, nullptr, 0, nullptr),
              nullptr);
    ASSERT_EQ(capture.count(), 2u);
    for (const kuvtest::Report& r : capture.reports()) {
        EXPECT_TRUE(
            kuvtest::isReport(r, KUV_StsBadImageSize, "kuvCreateImageHeader", dataIns, allocFile));
    }
    EXPECT_EQ(kuvtest::outstandingBlocks(), blocks);
    // A header enlarged afterwards gets no pixels and no wild block.
    ImagePtr image = makeHeader(3, KUV_DEPTH_16U, 0, 4, 4, 4);
    ASSERT_TRUE(image);
    image->width = INT_MAX;
    image->height = 3;
    capture.clear();
    kuvAllocateImage(image.get(), 1, 7);
    EXPECT_EQ(image->imageData, nullptr);
    EXPECT_EQ(image->imageDataOrigin, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), blocks + 1);
}

// ------------------------------------------------------ kuvCreateImageHeader

TEST(CreateImageHeader, StoresTheArgumentsAndBorderDefaults) {
    ReportCapture capture;
    kuvSetErrStatus(-3);
    KuvROI roi{99, -5, -5, 0, 0};                  // not examined
    KuvTileInfo tile{nullptr, 0, nullptr, 12, 0};  // not examined
    ImagePtr mask = kuvtest::makeMask(4, 4);
    const long before = kuvtest::outstandingBlocks();
    KuvImage* image = kuvCreateImageHeader(4, 4, KUV_DEPTH_16S, "RGBAxyz", "BGRA!", 1, 1, 16, 5, 3,
                                           &roi, mask.get(), 1234, &tile);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), before + 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(image) % 32, 0u);
    EXPECT_EQ(image->headerSize, static_cast<int32_t>(sizeof(KuvImage)));
    EXPECT_EQ(image->headerId, 0);
    EXPECT_EQ(image->nChannels, 4);
    EXPECT_EQ(image->alphaChannel, 4);
    EXPECT_EQ(image->depth, KUV_DEPTH_16S);
    EXPECT_EQ(std::string(image->colorModel, 4), "RGBA");
    EXPECT_EQ(std::string(image->channelSeq, 4), "BGRA");
    EXPECT_EQ(image->dataOrder, 1);
    EXPECT_EQ(image->origin, 1);
    EXPECT_EQ(image->align, 16);
    EXPECT_EQ(image->width, 5);
    EXPECT_EQ(image->height, 3);
    EXPECT_EQ(image->roi, &roi);
    EXPECT_EQ(image->maskROI, mask.get());
    EXPECT_EQ(image->imageId, 1234);
    EXPECT_EQ(image->tileInfo, &tile);
    EXPECT_EQ(image->imageData, nullptr);
    EXPECT_EQ(image->imageDataOrigin, nullptr);
    EXPECT_EQ(image->widthStep, 16);
    EXPECT_EQ(image->imageSize, 16 * 3 * 4);
    for (int side = 0; side < 4; ++side) {
        EXPECT_EQ(image->borderMode[side], KUV_BORDER_CONSTANT) << side;
        EXPECT_EQ(image->borderConst[side], 0) << side;
    }
    EXPECT_EQ(kuvGetErrStatus(), -3);
    EXPECT_EQ(capture.count(), 0u);
    kuvDeallocateHeader(image);
}

// Arguments of kuvCreateImageHeader, valid by default.
struct CreateArgs {
    int32_t nChannels = 3, alphaChannel = 0;
    uint32_t depth = KUV_DEPTH_8U;
    const char* colorModel = "RGB";
    const char* channelSeq = "BGR";
    int32_t dataOrder = 0, origin = 0, align = 4, width = 6, height = 5;
    KuvImage* maskROI = nullptr;
};

struct RuleCase {
    const char* what;
    std::function<void(CreateArgs&)> change;
    KuvStatus status;  // 0: accepted
};

// Masks for the mask rules; each test case points maskROI at one of them.
struct Masks {
    ImagePtr good = kuvtest::makeMask(6, 5);
    ImagePtr deep = kuvtest::makeImage(KUV_DEPTH_8U, 1, 6, 5);
    KuvImage tiled{}, noData{}, badAlign{}, badCoiMask{}, maskOfMask{};
    KuvTileInfo tile{tileCallBack, 0, nullptr, 8, 8};
    KuvROI badCoi{2, 0, 0, 1, 1};
    Masks() {
        tiled = *good;
        tiled.tileInfo = &tile;
        tiled.imageData = nullptr;
        noData = *good;
        noData.imageData = nullptr;
        badAlign = *good;
        badAlign.align = 2;
        badCoiMask = *good;
        badCoiMask.roi = &badCoi;
        maskOfMask = *good;
        maskOfMask.maskROI = deep.get();
    }
};

std::vector<RuleCase> fieldRuleCases(Masks& m) {
    return {
        {"valid", [](CreateArgs&) {}, 0},
        {"width 0", [](CreateArgs& a) { a.width = 0; }, KUV_StsBadImageSize},
        {"height 0", [](CreateArgs& a) { a.height = 0; }, KUV_StsBadImageSize},
        {"width -1", [](CreateArgs& a) { a.width = -1; }, KUV_StsBadImageSize},
        {"width 0 before nChannels 0",
         [](CreateArgs& a) {
             a.width = 0;
             a.nChannels = 0;
         },
         KUV_StsBadImageSize},
        {"nChannels 0", [](CreateArgs& a) { a.nChannels = 0; }, KUV_StsBadChannels},
        {"nChannels -2 before depth 12",
         [](CreateArgs& a) {
             a.nChannels = -2;
             a.depth = 12;
         },
         KUV_StsBadChannels},
        {"nChannels 0 with 1U is rule 2",
         [](CreateArgs& a) {
             a.nChannels = 0;
             a.depth = KUV_DEPTH_1U;
         },
         KUV_StsBadChannels},
        {"1U with 3 channels", [](CreateArgs& a) { a.depth = KUV_DEPTH_1U; }, KUV_StsBadChannels1U},
        {"1U with 3 channels before a null colorModel",
         [](CreateArgs& a) {
             a.depth = KUV_DEPTH_1U;
             a.colorModel = nullptr;
         },
         KUV_StsBadChannels1U},
        {"1U with 1 channel",
         [](CreateArgs& a) {
             a.depth = KUV_DEPTH_1U;
             a.nChannels = 1;
         },
         0},
        {"null colorModel", [](CreateArgs& a) { a.colorModel = nullptr; }, KUV_StsBadColorModel},
        {"null channelSeq", [](CreateArgs& a) { a.channelSeq = nullptr; }, KUV_StsBadColorModel},
        {"null channelSeq before depth 12",
         [](CreateArgs& a) {
             a.channelSeq = nullptr;
             a.depth = 12;
         },
         KUV_StsBadColorModel},
        {"depth 12", [](CreateArgs& a) { a.depth = 12; }, KUV_StsBadDepth},
        {"depth 0", [](CreateArgs& a) { a.depth = 0; }, KUV_StsBadDepth},
        {"signed 1-bit depth", [](CreateArgs& a) { a.depth = KUV_DEPTH_SIGN | 1u; },
         KUV_StsBadDepth},
        {"unsigned 32-bit integer depth is the float", [](CreateArgs& a) { a.depth = 32; }, 0},
        {"depth 12 before alpha 2",
         [](CreateArgs& a) {
             a.depth = 12;
             a.alphaChannel = 2;
         },
         KUV_StsBadDepth},
        {"alpha 2 of 3", [](CreateArgs& a) { a.alphaChannel = 2; }, KUV_StsBadAlphaChannel},
        {"alpha -1", [](CreateArgs& a) { a.alphaChannel = -1; }, KUV_StsBadAlphaChannel},
        {"alpha 4 of 3", [](CreateArgs& a) { a.alphaChannel = 4; }, KUV_StsBadAlphaChannel},
        {"alpha 3 of 4",
         [](CreateArgs& a) {
             a.nChannels = 4;
             a.alphaChannel = 3;
         },
         KUV_StsBadAlphaChannel},
        {"alpha 4 of 4",
         [](CreateArgs& a) {
             a.nChannels = 4;
             a.alphaChannel = 4;
         },
         0},
        {"alpha 3 of 3", [](CreateArgs& a) { a.alphaChannel = 3; }, 0},
        {"alpha before order",
         [](CreateArgs& a) {
             a.alphaChannel = 1;
             a.dataOrder = 2;
         },
         KUV_StsBadAlphaChannel},
        {"order 2", [](CreateArgs& a) { a.dataOrder = 2; }, KUV_StsBadDataOrder},
        {"order -1", [](CreateArgs& a) { a.dataOrder = -1; }, KUV_StsBadDataOrder},
        {"order before origin",
         [](CreateArgs& a) {
             a.dataOrder = 2;
             a.origin = 2;
         },
         KUV_StsBadDataOrder},
        {"origin 2", [](CreateArgs& a) { a.origin = 2; }, KUV_StsBadOrigin},
        {"origin -1", [](CreateArgs& a) { a.origin = -1; }, KUV_StsBadOrigin},
        {"origin before align",
         [](CreateArgs& a) {
             a.origin = 2;
             a.align = 3;
         },
         KUV_StsBadOrigin},
        {"align 2", [](CreateArgs& a) { a.align = 2; }, KUV_StsBadAlign},
        {"align 0", [](CreateArgs& a) { a.align = 0; }, KUV_StsBadAlign},
        {"align 64", [](CreateArgs& a) { a.align = 64; }, KUV_StsBadAlign},
        {"align 12", [](CreateArgs& a) { a.align = 12; }, KUV_StsBadAlign},
        {"align 8", [](CreateArgs& a) { a.align = 8; }, 0},
        {"align before mask",
         [&m](CreateArgs& a) {
             a.align = 3;
             a.maskROI = m.deep.get();
         },
         KUV_StsBadAlign},
        {"good mask", [&m](CreateArgs& a) { a.maskROI = m.good.get(); }, 0},
        {"8-bit mask", [&m](CreateArgs& a) { a.maskROI = m.deep.get(); }, -117},
        {"tiled mask", [&m](CreateArgs& a) { a.maskROI = &m.tiled; }, KUV_StsMaskTiled},
        {"mask depth before mask tiles",
         [&m](CreateArgs& a) {
             m.tiled.depth = KUV_DEPTH_8U;
             a.maskROI = &m.tiled;
         },
         -117},
        {"mask with neither pixels nor tiles", [&m](CreateArgs& a) { a.maskROI = &m.noData; },
         -112},
        {"mask with a bad align", [&m](CreateArgs& a) { a.maskROI = &m.badAlign; }, -121},
        {"mask with a bad coi", [&m](CreateArgs& a) { a.maskROI = &m.badCoiMask; }, -124},
        {"mask whose own mask is 8-bit", [&m](CreateArgs& a) { a.maskROI = &m.maskOfMask; },
         -117 - 100},
    };
}

TEST(CreateImageHeader, FieldRulesInOrderWithTheirStatus) {
    Masks masks;
    for (const RuleCase& c : fieldRuleCases(masks)) {
        SCOPED_TRACE(c.what);
        CreateArgs a;
        c.change(a);
        ReportCapture capture;
        kuvSetErrStatus(-3);
        const long before = kuvtest::outstandingBlocks();
        KuvImage* image = kuvCreateImageHeader(a.nChannels, a.alphaChannel, a.depth, a.colorModel,
                                               a.channelSeq, a.dataOrder, a.origin, a.align,
                                               a.width, a.height, nullptr, a.maskROI, 0, nullptr);
        if (c.status == 0) {
            EXPECT_NE(image, nullptr);
            EXPECT_EQ(capture.count(), 0u);
            EXPECT_EQ(kuvGetErrStatus(), -3);
            kuvDeallocateHeader(image);
        } else {
            EXPECT_EQ(image, nullptr);
            EXPECT_TRUE(oneReport(capture, c.status, "kuvCreateImageHeader", dataIns, allocFile));
            EXPECT_EQ(kuvtest::outstandingBlocks(), before) << "a refusal allocated something";
        }
    }
}

// ------------------------------------------------------ kuvCheckImageHeader

// A valid untiled image (3 channels, 8U, 6x5) and a valid mask, copied into
// headers on the stack that each case may spoil.
struct CheckBench {
    ImagePtr image = kuvtest::makeImage(KUV_DEPTH_8U, 3, 6, 5);
    ImagePtr mask = kuvtest::makeMask(6, 5);
    KuvImage header{}, maskHeader{}, maskOfMask{};
    KuvROI roi{0, 1, 1, 2, 2}, maskRoi{0, 0, 0, 1, 1};
    KuvTileInfo tile{tileCallBack, 0, nullptr, 8, 8}, maskTile{tileCallBack, 0, nullptr, 8, 8};
    char otherData[4] = {};

    void reset() {
        header = *image;
        maskHeader = *mask;
        maskOfMask = *mask;
        roi = {0, 1, 1, 2, 2};
        maskRoi = {0, 0, 0, 1, 1};
        tile = {tileCallBack, 0, nullptr, 8, 8};
        maskTile = {tileCallBack, 0, nullptr, 8, 8};
    }
    // Tiles instead of pixels, with the size fields an application may leave at 0.
    void makeTiled() {
        header.imageData = nullptr;
        header.tileInfo = &tile;
        header.imageSize = 0;
        header.widthStep = 0;
    }
};

struct CheckCase {
    const char* what;
    std::function<void(CheckBench&)> change;
    KuvStatus status;
};

std::vector<CheckCase> checkCases() {
    using B = CheckBench;
    return {
        {"valid", [](B&) {}, 0},
        {"neither pixels nor tiles", [](B& b) { b.header.imageData = nullptr; },
         KUV_StsBadDataPointers},
        {"pixels and tiles", [](B& b) { b.header.tileInfo = &b.tile; }, KUV_StsBadDataPointers},
        {"data pointers before size",
         [](B& b) {
             b.header.imageData = nullptr;
             b.header.width = 0;
             b.header.imageSize = 0;
         },
         KUV_StsBadDataPointers},
        {"imageSize 0", [](B& b) { b.header.imageSize = 0; }, KUV_StsBadImageSize},
        {"imageSize -1", [](B& b) { b.header.imageSize = -1; }, KUV_StsBadImageSize},
        {"imageSize before widthStep",
         [](B& b) {
             b.header.imageSize = 0;
             b.header.widthStep = 0;
         },
         KUV_StsBadImageSize},
        {"imageSize before the field rules",
         [](B& b) {
             b.header.imageSize = 0;
             b.header.nChannels = 0;
         },
         KUV_StsBadImageSize},
        {"widthStep 0", [](B& b) { b.header.widthStep = 0; }, KUV_StsBadWidthStep},
        {"widthStep before width",
         [](B& b) {
             b.header.widthStep = -4;
             b.header.width = 0;
         },
         KUV_StsBadWidthStep},
        {"width 0", [](B& b) { b.header.width = 0; }, KUV_StsBadImageSize},
        {"height -1", [](B& b) { b.header.height = -1; }, KUV_StsBadImageSize},
        {"width before channels",
         [](B& b) {
             b.header.width = 0;
             b.header.nChannels = 0;
         },
         KUV_StsBadImageSize},
        {"nChannels 0", [](B& b) { b.header.nChannels = 0; }, KUV_StsBadChannels},
        {"channels before depth",
         [](B& b) {
             b.header.nChannels = 0;
             b.header.depth = 12;
         },
         KUV_StsBadChannels},
        {"1U with 3 channels", [](B& b) { b.header.depth = KUV_DEPTH_1U; }, KUV_StsBadChannels1U},
        {"1U channels before alpha",
         [](B& b) {
             b.header.depth = KUV_DEPTH_1U;
             b.header.alphaChannel = 1;
         },
         KUV_StsBadChannels1U},
        {"colorModel and channelSeq not examined",
         [](B& b) {
             std::memset(b.header.colorModel, 0, 4);
             std::memset(b.header.channelSeq, 0xFF, 4);
         },
         0},
        {"depth 12", [](B& b) { b.header.depth = 12; }, KUV_StsBadDepth},
        {"depth 0x80000001", [](B& b) { b.header.depth = 0x80000001u; }, KUV_StsBadDepth},
        {"depth before alpha",
         [](B& b) {
             b.header.depth = 24;
             b.header.alphaChannel = 2;
         },
         KUV_StsBadDepth},
        {"alpha 2 of 3", [](B& b) { b.header.alphaChannel = 2; }, KUV_StsBadAlphaChannel},
        {"alpha 3 of 3", [](B& b) { b.header.alphaChannel = 3; }, 0},
        {"alpha before order",
         [](B& b) {
             b.header.alphaChannel = 5;
             b.header.dataOrder = 7;
         },
         KUV_StsBadAlphaChannel},
        {"order 2", [](B& b) { b.header.dataOrder = 2; }, KUV_StsBadDataOrder},
        {"order before origin",
         [](B& b) {
             b.header.dataOrder = 2;
             b.header.origin = 2;
         },
         KUV_StsBadDataOrder},
        {"origin 2", [](B& b) { b.header.origin = 2; }, KUV_StsBadOrigin},
        {"origin before align",
         [](B& b) {
             b.header.origin = -1;
             b.header.align = 5;
         },
         KUV_StsBadOrigin},
        {"align 5", [](B& b) { b.header.align = 5; }, KUV_StsBadAlign},
        {"align before mask",
         [](B& b) {
             b.header.align = 64;
             b.maskHeader.depth = KUV_DEPTH_8U;
             b.header.maskROI = &b.maskHeader;
         },
         KUV_StsBadAlign},
        {"good mask", [](B& b) { b.header.maskROI = &b.maskHeader; }, 0},
        {"8-bit mask",
         [](B& b) {
             b.maskHeader.depth = KUV_DEPTH_8U;
             b.header.maskROI = &b.maskHeader;
         },
         -117},
        {"mask depth before mask tiles",
         [](B& b) {
             b.maskHeader.depth = KUV_DEPTH_8U;
             b.maskHeader.tileInfo = &b.maskTile;
             b.header.maskROI = &b.maskHeader;
         },
         -117},
        {"tiled mask",
         [](B& b) {
             b.maskHeader.imageData = nullptr;
             b.maskHeader.tileInfo = &b.maskTile;
             b.header.maskROI = &b.maskHeader;
         },
         KUV_StsMaskTiled},
        {"tiled mask that would fail its own check",
         [](B& b) {
             b.maskHeader.tileInfo = &b.maskTile;  // pixels and tiles, and a bad align
             b.maskHeader.align = 3;
             b.header.maskROI = &b.maskHeader;
         },
         KUV_StsMaskTiled},
        {"mask with neither pixels nor tiles",
         [](B& b) {
             b.maskHeader.imageData = nullptr;
             b.header.maskROI = &b.maskHeader;
         },
         -112},
        {"mask with imageSize 0",
         [](B& b) {
             b.maskHeader.imageSize = 0;
             b.header.maskROI = &b.maskHeader;
         },
         -110},
        {"mask with widthStep 0",
         [](B& b) {
             b.maskHeader.widthStep = 0;
             b.header.maskROI = &b.maskHeader;
         },
         -113},
        {"mask with a bad origin",
         [](B& b) {
             b.maskHeader.origin = 9;
             b.header.maskROI = &b.maskHeader;
         },
         -120},
        {"mask with coi 2",
         [](B& b) {
             b.maskRoi.coi = 2;
             b.maskHeader.roi = &b.maskRoi;
             b.header.maskROI = &b.maskHeader;
         },
         -124},
        {"mask with an empty roi",
         [](B& b) {
             b.maskRoi.width = 0;
             b.maskHeader.roi = &b.maskRoi;
             b.header.maskROI = &b.maskHeader;
         },
         -125},
        {"mask with a negative roi offset",
         [](B& b) {
             b.maskRoi.yOffset = -1;
             b.maskHeader.roi = &b.maskRoi;
             b.header.maskROI = &b.maskHeader;
         },
         -111},
        {"mask whose own mask is 8-bit",
         [](B& b) {
             b.maskOfMask.depth = KUV_DEPTH_8U;
             b.maskHeader.maskROI = &b.maskOfMask;
             b.header.maskROI = &b.maskHeader;
         },
         -217},
        {"mask before tiles and roi",
         [](B& b) {
             b.maskHeader.depth = 12;
             b.header.maskROI = &b.maskHeader;
             b.makeTiled();
             b.tile.callBack = nullptr;
             b.roi.coi = 9;
             b.header.roi = &b.roi;
         },
         -117},
        {"tiled with size fields 0", [](B& b) { b.makeTiled(); }, 0},
        {"tiled with 16x24 tiles",
         [](B& b) {
             b.makeTiled();
             b.tile.width = 16;
             b.tile.height = 24;
         },
         0},
        {"tiled with a null callBack",
         [](B& b) {
             b.makeTiled();
             b.tile.callBack = nullptr;
         },
         KUV_StsNullCallback},
        {"callBack before tile size",
         [](B& b) {
             b.makeTiled();
             b.tile.callBack = nullptr;
             b.tile.width = 12;
         },
         KUV_StsNullCallback},
        {"tile width 12",
         [](B& b) {
             b.makeTiled();
             b.tile.width = 12;
         },
         KUV_StsBadTileSize},
        {"tile height 12",
         [](B& b) {
             b.makeTiled();
             b.tile.height = 12;
         },
         KUV_StsBadTileSize},
        {"tile width 0",
         [](B& b) {
             b.makeTiled();
             b.tile.width = 0;
         },
         KUV_StsBadTileSize},
        {"tile height -8",
         [](B& b) {
             b.makeTiled();
             b.tile.height = -8;
         },
         KUV_StsBadTileSize},
        {"tile width 4",
         [](B& b) {
             b.makeTiled();
             b.tile.width = 4;
         },
         KUV_StsBadTileSize},
        {"tiled: field rules before tiles",
         [](B& b) {
             b.makeTiled();
             b.tile.width = 12;
             b.header.align = 7;
         },
         KUV_StsBadAlign},
        {"tiles before roi",
         [](B& b) {
             b.makeTiled();
             b.tile.height = 3;
             b.roi.coi = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadTileSize},
        {"tiled with a bad roi",
         [](B& b) {
             b.makeTiled();
             b.roi.height = 0;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROISize},
        {"roi", [](B& b) { b.header.roi = &b.roi; }, 0},
        {"coi = nChannels",
         [](B& b) {
             b.roi.coi = 3;
             b.header.roi = &b.roi;
         },
         0},
        {"coi = nChannels + 1",
         [](B& b) {
             b.roi.coi = 4;
             b.header.roi = &b.roi;
         },
         KUV_StsBadCOI},
        {"coi -1",
         [](B& b) {
             b.roi.coi = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadCOI},
        {"coi before roi size",
         [](B& b) {
             b.roi.coi = 4;
             b.roi.width = 0;
             b.header.roi = &b.roi;
         },
         KUV_StsBadCOI},
        {"roi width 0",
         [](B& b) {
             b.roi.width = 0;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROISize},
        {"roi height -1",
         [](B& b) {
             b.roi.height = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROISize},
        {"roi size before offset",
         [](B& b) {
             b.roi.height = 0;
             b.roi.xOffset = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROISize},
        {"xOffset -1",
         [](B& b) {
             b.roi.xOffset = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROIOffset},
        {"yOffset -1",
         [](B& b) {
             b.roi.yOffset = -1;
             b.header.roi = &b.roi;
         },
         KUV_StsBadROIOffset},
        {"offsets beyond the image",
         [](B& b) {
             b.roi = {0, 1000, 6, 50, 70};
             b.header.roi = &b.roi;
         },
         0},
        {"roi wider than the image",
         [](B& b) {
             b.roi = {2, 0, 0, INT_MAX, INT_MAX};
             b.header.roi = &b.roi;
         },
         0},
    };
}

TEST(CheckImageHeader, TestsRunInOrderAndTheFirstFaultWins) {
    CheckBench bench;
    for (const CheckCase& c : checkCases()) {
        SCOPED_TRACE(c.what);
        bench.reset();
        c.change(bench);
        ReportCapture capture;
        kuvSetErrStatus(-3);
        EXPECT_EQ(kuvCheckImageHeader(&bench.header), c.status);
        EXPECT_EQ(kuvGetErrStatus(), c.status == 0 ? -3 : c.status);
        EXPECT_EQ(capture.count(), 0u) << "the check reports nothing";
    }
}

TEST(CheckImageHeader, NullHeader) {
    ReportCapture capture;
    EXPECT_EQ(kuvCheckImageHeader(nullptr), KUV_StsNullHeader);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsNullHeader);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(CheckImageHeader, CreatedHeaderWithoutPixelsFails) {
    ReportCapture capture;
    ImagePtr image = makeHeader(1, KUV_DEPTH_8U, 0, 4, 3, 3);
    ASSERT_TRUE(image);
    EXPECT_EQ(kuvCheckImageHeader(image.get()), KUV_StsBadDataPointers);
    kuvAllocateImage(image.get(), 0, 0);
    kuvSetErrStatus(0);
    EXPECT_EQ(kuvCheckImageHeader(image.get()), 0);
    kuvDeallocateImage(image.get());
    EXPECT_EQ(kuvCheckImageHeader(image.get()), KUV_StsBadDataPointers);
    EXPECT_EQ(capture.count(), 0u);
}

// ----------------------------------------------------------- kuvAllocateImage

TEST(AllocateImage, ArgumentTestsInOrderWithTheirTexts) {
    ImagePtr bytes = makeHeader(1, KUV_DEPTH_8U, 0, 4, 3, 3);
    ImagePtr floats = makeHeader(1, KUV_DEPTH_32F, 0, 4, 3, 3);
    ASSERT_TRUE(bytes && floats);
    char buffer[64];
    KuvTileInfo tile{tileCallBack, 0, nullptr, 8, 8};
    const char* func = "kuvAllocateImage";
    const char* funcFP = "kuvAllocateImageFP";
    {
        ReportCapture capture;
        kuvAllocateImage(nullptr, 1, 0);
        EXPECT_TRUE(
            oneReport(capture, KUV_StsBadArgument, func, "( image == ((void *)0) )", allocFile));
    }
    {
        ReportCapture capture;
        kuvAllocateImageFP(nullptr, 1, 0.0f);
        EXPECT_TRUE(
            oneReport(capture, KUV_StsBadArgument, funcFP, "( image == ((void *)0) )", allocFile));
    }
    // imageData before tileInfo before depth.
    for (KuvImage* image : {bytes.get(), floats.get()}) {
        const bool fp = image == floats.get();
        KuvImage h = *image;
        h.imageData = buffer;
        h.tileInfo = &tile;
        h.depth = fp ? KUV_DEPTH_8U : KUV_DEPTH_32F;
        ReportCapture capture;
        if (fp)
            kuvAllocateImageFP(&h, 1, 0.0f);
        else
            kuvAllocateImage(&h, 1, 0);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, fp ? funcFP : func,
                              "( image->imageData != ((void *)0) )", allocFile));
        EXPECT_EQ(h.imageData, buffer);
        EXPECT_EQ(h.imageDataOrigin, nullptr);

        capture.clear();
        h.imageData = nullptr;
        if (fp)
            kuvAllocateImageFP(&h, 1, 0.0f);
        else
            kuvAllocateImage(&h, 1, 0);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, fp ? funcFP : func,
                              "( image->tileInfo != ((void *)0) )", allocFile));

        capture.clear();
        h.tileInfo = nullptr;
        if (fp)
            kuvAllocateImageFP(&h, 1, 0.0f);
        else
            kuvAllocateImage(&h, 1, 0);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, fp ? funcFP : func,
                              fp ? "( image->depth != 32 )" : "( image->depth == 32 )", allocFile));
        EXPECT_EQ(h.imageData, nullptr);
        EXPECT_EQ(h.imageDataOrigin, nullptr);
    }
    // The other way round, each accepts its own depth; a 32S image is not the float.
    ImagePtr ints = makeHeader(2, KUV_DEPTH_32S, 0, 4, 3, 3);
    ASSERT_TRUE(ints);
    ReportCapture capture;
    kuvAllocateImage(ints.get(), 0, 0);
    kuvAllocateImageFP(floats.get(), 0, 0.0f);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_NE(ints->imageData, nullptr);
    EXPECT_NE(floats->imageData, nullptr);
    // A second allocation is refused and keeps the first block.
    char* first = ints->imageData;
    kuvAllocateImage(ints.get(), 0, 0);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, func, "( image->imageData != ((void *)0) )",
                          allocFile));
    EXPECT_EQ(ints->imageData, first);
}

TEST(AllocateImage, FieldRulesReportIncorrectDataIns) {
    struct Spoil {
        const char* what;
        std::function<void(KuvImage&)> change;
        KuvStatus status;
    };
    ImagePtr deep = kuvtest::makeImage(KUV_DEPTH_8U, 1, 2, 2);
    const Spoil spoils[] = {
        {"height 0", [](KuvImage& h) { h.height = 0; }, KUV_StsBadImageSize},
        {"nChannels 0", [](KuvImage& h) { h.nChannels = 0; }, KUV_StsBadChannels},
        {"1U with 2 channels",
         [](KuvImage& h) {
             h.depth = KUV_DEPTH_1U;
             h.nChannels = 2;
         },
         KUV_StsBadChannels1U},
        {"depth 7", [](KuvImage& h) { h.depth = 7; }, KUV_StsBadDepth},
        {"alpha 1 of 2", [](KuvImage& h) { h.alphaChannel = 1; }, KUV_StsBadAlphaChannel},
        {"order 5", [](KuvImage& h) { h.dataOrder = 5; }, KUV_StsBadDataOrder},
        {"origin 3", [](KuvImage& h) { h.origin = 3; }, KUV_StsBadOrigin},
        {"align 1", [](KuvImage& h) { h.align = 1; }, KUV_StsBadAlign},
        {"8-bit mask", [&deep](KuvImage& h) { h.maskROI = deep.get(); }, -117},
        // No rule on the texts when allocating.
        {"empty texts", [](KuvImage& h) { std::memset(h.colorModel, 0, 8); }, 0},
    };
    ImagePtr model = makeHeader(2, KUV_DEPTH_16U, 0, 4, 3, 3);
    ASSERT_TRUE(model);
    for (const Spoil& s : spoils) {
        SCOPED_TRACE(s.what);
        KuvImage h = *model;
        s.change(h);
        ReportCapture capture;
        const long before = kuvtest::outstandingBlocks();
        kuvAllocateImage(&h, 1, 0);
        if (s.status == 0) {
            EXPECT_EQ(capture.count(), 0u);
            EXPECT_NE(h.imageData, nullptr);
            kuvDeallocateImage(&h);
        } else {
            EXPECT_TRUE(oneReport(capture, s.status, "kuvAllocateImage", dataIns, allocFile));
            EXPECT_EQ(h.imageData, nullptr);
            EXPECT_EQ(h.imageDataOrigin, nullptr);
            EXPECT_EQ(kuvtest::outstandingBlocks(), before);
        }
    }
    KuvImage f = *model;
    f.depth = KUV_DEPTH_32F;
    f.align = 48;
    ReportCapture capture;
    kuvAllocateImageFP(&f, 0, 0.0f);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadAlign, "kuvAllocateImageFP", dataIns, allocFile));
    EXPECT_EQ(f.imageData, nullptr);
}

// Every 32-bit word of the imageSize bytes, padding and planes included.
::testing::AssertionResult allWordsAre(const KuvImage* image, uint32_t word) {
    const int32_t words = image->imageSize / 4;
    for (int32_t i = 0; i < words; ++i) {
        uint32_t got;
        std::memcpy(&got, image->imageData + 4 * i, 4);
        if (got != word) {
            return ::testing::AssertionFailure() << "word " << i << " of " << words << " is 0x"
                                                 << std::hex << got << ", not 0x" << word;
        }
    }
    return ::testing::AssertionSuccess();
}

TEST(AllocateImage, FillWritesOneWordPerDepthOverPaddingAndPlanes) {
    struct Fill {
        uint32_t depth;
        int32_t nChannels, value;
        uint32_t word;
    };
    const Fill fills[] = {
        {KUV_DEPTH_1U, 1, 2, 0x00000000u},  // bit 0 only
        {KUV_DEPTH_1U, 1, 3, 0xFFFFFFFFu},
        {KUV_DEPTH_1U, 1, 1, 0xFFFFFFFFu},
        {KUV_DEPTH_1U, 1, -1, 0xFFFFFFFFu},
        {KUV_DEPTH_1U, 1, -2, 0x00000000u},
        {KUV_DEPTH_8U, 3, 0x1234, 0x34343434u},
        {KUV_DEPTH_8U, 3, 255, 0xFFFFFFFFu},
        {KUV_DEPTH_8S, 2, -2, 0xFEFEFEFEu},
        {KUV_DEPTH_8S, 2, 0x180, 0x80808080u},
        {KUV_DEPTH_16U, 3, 0x12345678, 0x56785678u},
        {KUV_DEPTH_16U, 1, 0x1FFFF, 0xFFFFFFFFu},
        {KUV_DEPTH_16S, 3, -3, 0xFFFDFFFDu},
        {KUV_DEPTH_16S, 1, 0x8001, 0x80018001u},
        {KUV_DEPTH_32S, 3, static_cast<int32_t>(0x80000001u), 0x80000001u},
        {KUV_DEPTH_32S, 1, -7, 0xFFFFFFF9u},
    };
    for (const Fill& f : fills) {
        for (int32_t order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            for (int32_t align : {4, 8, 32}) {
                SCOPED_TRACE(::testing::Message()
                             << kuvtest::depthName(f.depth) << " x" << f.nChannels << " fill "
                             << f.value << " order " << order << " align " << align);
                ImagePtr image = makeHeader(f.nChannels, f.depth, order, align, 7, 3);
                ASSERT_TRUE(image);
                kuvAllocateImage(image.get(), 1, f.value);
                ASSERT_NE(image->imageData, nullptr);
                EXPECT_TRUE(allWordsAre(image.get(), f.word));
            }
        }
    }
    for (float value : {-1.5f, 0.0f, -0.0f, 3.25e-39f}) {
        for (int32_t order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            SCOPED_TRACE(::testing::Message() << "32F fill " << value << " order " << order);
            ImagePtr image = makeHeader(3, KUV_DEPTH_32F, order, 16, 5, 3);
            ASSERT_TRUE(image);
            kuvAllocateImageFP(image.get(), 1, value);
            ASSERT_NE(image->imageData, nullptr);
            uint32_t word;
            std::memcpy(&word, &value, 4);
            EXPECT_TRUE(allWordsAre(image.get(), word));
        }
    }
}

// -------------------------------------------------------------- freeing

struct Held {
    KuvImage* image;
    KuvROI* roi;
    KuvTileInfo* tile;
    KuvImage* mask;
    KuvROI* maskRoi;
    KuvTileInfo* maskTile;
    KuvImage* maskOfMask;
    char* pixels;
    char* maskPixels;
};

// An allocated image holding a roi, a tile record and a mask that has its own
// roi, tile record and mask (kuvDeallocate does not look at consistency).
Held makeHeld() {
    Held h{};
    h.image = makeHeader(2, KUV_DEPTH_16S, 0, 8, 5, 4).release();
    kuvAllocateImage(h.image, 1, 0);
    h.pixels = h.image->imageDataOrigin;
    h.roi = h.image->roi = kuvCreateROI(1, 0, 0, 2, 2);
    h.tile = h.image->tileInfo = kuvCreateTileInfo(tileCallBack, 0, 8, 8);
    h.mask = h.image->maskROI = kuvtest::makeMask(5, 4).release();
    h.maskPixels = h.mask->imageDataOrigin;
    h.maskRoi = h.mask->roi = kuvCreateROI(0, 0, 0, 1, 1);
    h.maskTile = h.mask->tileInfo = kuvCreateTileInfo(tileCallBack, 1, 8, 8);
    h.maskOfMask = h.mask->maskROI = kuvtest::makeMask(5, 4).release();
    return h;
}

TEST(Deallocate, EachFlagFreesItsPartAndNullsTheField) {
    const long start = kuvtest::outstandingBlocks();
    Held h = makeHeld();
    // image: header, pixels, roi, tile; mask: header, pixels, roi, tile; mask of mask: 2.
    ASSERT_EQ(kuvtest::outstandingBlocks(), start + 10);

    kuvDeallocate(h.image, KUV_IMAGE_ROI);
    EXPECT_EQ(h.image->roi, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 9);
    EXPECT_EQ(h.image->tileInfo, h.tile);
    EXPECT_EQ(h.image->maskROI, h.mask);
    EXPECT_EQ(h.image->imageDataOrigin, h.pixels);

    kuvDeallocate(h.image, KUV_IMAGE_TILE);
    EXPECT_EQ(h.image->tileInfo, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 8);

    // The mask goes with flags 15: not the mask's own mask.
    kuvDeallocate(h.image, KUV_IMAGE_MASK);
    EXPECT_EQ(h.image->maskROI, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 4);
    EXPECT_EQ(h.image->imageDataOrigin, h.pixels);

    kuvDeallocate(h.image, KUV_IMAGE_DATA);
    EXPECT_EQ(h.image->imageData, nullptr);
    EXPECT_EQ(h.image->imageDataOrigin, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 3);

    // Flags already served find null fields and free nothing again.
    kuvDeallocate(h.image, KUV_IMAGE_ROI | KUV_IMAGE_TILE | KUV_IMAGE_MASK | KUV_IMAGE_DATA);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 3);

    kuvDeallocate(h.image, KUV_IMAGE_HEADER);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 2);
    kuvDeallocate(h.maskOfMask, KUV_IMAGE_ALL);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start);
}

TEST(Deallocate, AllFlagsAtOnceFreeEverythingButTheMasksMask) {
    const long start = kuvtest::outstandingBlocks();
    Held h = makeHeld();
    kuvDeallocate(h.image, KUV_IMAGE_ALL);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start + 2);
    kuvDeallocate(h.maskOfMask, KUV_IMAGE_ALL);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start);
    kuvDeallocate(nullptr, KUV_IMAGE_ALL);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start);
}

TEST(Deallocate, HeaderAloneLeavesEverythingElseAlive) {
    const long start = kuvtest::outstandingBlocks();
    for (int how = 0; how < 2; ++how) {
        Held h = makeHeld();
        if (how == 0)
            kuvDeallocateHeader(h.image);
        else
            kuvDeallocate(h.image, KUV_IMAGE_HEADER);
        EXPECT_EQ(kuvtest::outstandingBlocks(), start + 9);
        // Everything the header pointed at is still usable and is freed here.
        EXPECT_EQ(h.roi->coi, 1);
        EXPECT_EQ(h.tile->width, 8);
        h.pixels[0] = 1;
        EXPECT_EQ(kuvCheckImageHeader(h.maskOfMask), 0);
        kuvDeleteROI(h.roi);
        kuvDeleteTileInfo(h.tile);
        ownImageBlockFree(h.pixels);
        kuvDeallocate(h.mask, KUV_IMAGE_ALL);  // with its roi, tile and own mask
        EXPECT_EQ(kuvtest::outstandingBlocks(), start);
    }
}

TEST(Deallocate, ApplicationBuffersAreNeverFreed) {
    ImagePtr image = makeHeader(1, KUV_DEPTH_8U, 0, 4, 4, 4);
    ASSERT_TRUE(image);
    alignas(32) char buffer[16] = {};
    image->imageData = buffer;
    const long start = kuvtest::outstandingBlocks();
    kuvDeallocate(image.get(), KUV_IMAGE_DATA);
    EXPECT_EQ(image->imageData, buffer) << "no block of the library: imageData stays";
    EXPECT_EQ(kuvtest::outstandingBlocks(), start);
    // kuvDeallocateImage clears both pointers, freeing nothing that is not its own.
    kuvDeallocateImage(image.get());
    EXPECT_EQ(image->imageData, nullptr);
    EXPECT_EQ(image->imageDataOrigin, nullptr);
    EXPECT_EQ(kuvtest::outstandingBlocks(), start);
}

TEST(Deallocate, DeallocateImageLeavesAHeaderReadyForNewPixels) {
    ImagePtr image = makeHeader(3, KUV_DEPTH_16U, 1, 8, 5, 3);
    ASSERT_TRUE(image);
    const long start = kuvtest::outstandingBlocks();
    ReportCapture capture;
    for (int round = 0; round < 3; ++round) {
        kuvAllocateImage(image.get(), 1, 0x0102);
        ASSERT_NE(image->imageData, nullptr);
        EXPECT_TRUE(allWordsAre(image.get(), 0x01020102u));
        EXPECT_EQ(kuvtest::outstandingBlocks(), start + 1);
        kuvDeallocateImage(image.get());
        EXPECT_EQ(image->imageData, nullptr);
        EXPECT_EQ(image->imageDataOrigin, nullptr);
        EXPECT_EQ(kuvtest::outstandingBlocks(), start);
    }
    EXPECT_EQ(capture.count(), 0u);
}

// -------------------------------------------------------------- cloning

TEST(CloneImage, CopiesFieldsAndPixelsButNotMaskOrId) {
    for (uint32_t depth : kuvtest::allDepths()) {
        for (int32_t order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            const int32_t channels = depth == KUV_DEPTH_1U ? 1 : 3;
            if (depth == KUV_DEPTH_1U && order == KUV_DATA_ORDER_PLANE) continue;
            SCOPED_TRACE(::testing::Message() << kuvtest::depthName(depth) << " order " << order);
            ImagePtr source = kuvtest::makeImage(depth, channels, 7, 5, order, channels, 8);
            ASSERT_TRUE(source);
            kuvtest::fillRandom(source.get(), 0xC10E + depth + order);
            source->origin = KUV_ORIGIN_BOTTOM_LEFT;
            source->imageId = 77;
            source->headerId = 5;
            kuvtest::setRoi(source.get(), channels, 2, 1, 4, 3);
            kuvtest::attachMask(source.get(), kuvtest::makeMask(7, 5, 1));
            kuvSetBorderMode(source.get(), KUV_BORDER_REPLICATE, KUV_SIDE_LEFT, 0);
            kuvSetBorderMode(source.get(), KUV_BORDER_CONSTANT, KUV_SIDE_TOP, 1);
            kuvSetBorderMode(source.get(), KUV_BORDER_WRAP, KUV_SIDE_RIGHT | KUV_SIDE_BOTTOM, -1);
            const kuvtest::Snapshot before = kuvtest::snapshot(source.get());

            ReportCapture capture;
            kuvSetErrStatus(-3);
            const long blocks = kuvtest::outstandingBlocks();
            ImagePtr clone(kuvCloneImage(source.get()));
            ASSERT_TRUE(clone);
            EXPECT_EQ(kuvtest::outstandingBlocks(), blocks + 3);  // header, roi, pixels
            EXPECT_EQ(capture.count(), 0u);
            EXPECT_EQ(kuvGetErrStatus(), -3);

            EXPECT_EQ(clone->headerSize, source->headerSize);
            EXPECT_EQ(clone->headerId, 0);
            EXPECT_EQ(clone->nChannels, source->nChannels);
            EXPECT_EQ(clone->alphaChannel, source->alphaChannel);
            EXPECT_EQ(clone->depth, depth);
            EXPECT_EQ(std::memcmp(clone->colorModel, source->colorModel, 8), 0);
            EXPECT_EQ(clone->dataOrder, order);
            EXPECT_EQ(clone->origin, KUV_ORIGIN_BOTTOM_LEFT);
            EXPECT_EQ(clone->align, 8);
            EXPECT_EQ(clone->width, 7);
            EXPECT_EQ(clone->height, 5);
            EXPECT_EQ(clone->maskROI, nullptr);
            EXPECT_EQ(clone->imageId, 0);
            EXPECT_EQ(clone->tileInfo, nullptr);
            ASSERT_NE(clone->roi, nullptr);
            EXPECT_NE(clone->roi, source->roi);
            EXPECT_EQ(std::memcmp(clone->roi, source->roi, sizeof(KuvROI)), 0);
            EXPECT_EQ(clone->widthStep, source->widthStep);
            EXPECT_EQ(clone->imageSize, source->imageSize);
            EXPECT_EQ(std::memcmp(clone->borderMode, source->borderMode, 32), 0);
            ASSERT_NE(clone->imageData, nullptr);
            EXPECT_NE(clone->imageData, source->imageData);
            EXPECT_NE(clone->imageDataOrigin, nullptr);
            EXPECT_NE(clone->imageDataOrigin, source->imageDataOrigin);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(clone->imageData) % 8, 0u);
            EXPECT_EQ(std::memcmp(clone->imageData, source->imageData,
                                  static_cast<size_t>(source->imageSize)),
                      0)
                << "pixels, padding included, are copied";
            // The source is untouched.
            EXPECT_TRUE(kuvtest::unchangedExcept(before, source.get(),
                                                 [](int, int, int) { return false; }));
            EXPECT_EQ(source->imageId, 77);
            EXPECT_NE(source->maskROI, nullptr);
        }
    }
}

TEST(CloneImage, WithoutRoiGivesNoRoi) {
    ImagePtr source = kuvtest::makeImage(KUV_DEPTH_16S, 2, 3, 3);
    ASSERT_TRUE(source);
    ImagePtr clone(kuvCloneImage(source.get()));
    ASSERT_TRUE(clone);
    EXPECT_EQ(clone->roi, nullptr);
}

TEST(CloneImage, TiledSourceGivesAnUntiledImageOfTheSameGeometry) {
    KuvTileInfo* tile = kuvCreateTileInfo(tileCallBack, 3, 8, 16);
    ASSERT_NE(tile, nullptr);
    ImagePtr source(kuvCreateImageHeader(3, 0, KUV_DEPTH_16U, "RGB", "BGR", 1, 0, 16, 11, 9,
                                         kuvCreateROI(2, 1, 2, 3, 4), nullptr, 9, tile));
    ASSERT_TRUE(source);
    source->imageSize = 0;
    source->widthStep = 0;
    ReportCapture capture;
    ImagePtr clone(kuvCloneImage(source.get()));
    ASSERT_TRUE(clone);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(clone->tileInfo, nullptr);
    ASSERT_NE(clone->imageData, nullptr);
    EXPECT_EQ(clone->widthStep, 32);          // 11 * 2 bytes rounded to 16
    EXPECT_EQ(clone->imageSize, 32 * 9 * 3);  // three planes
    EXPECT_EQ(clone->dataOrder, 1);
    EXPECT_EQ(clone->imageId, 0);
    ASSERT_NE(clone->roi, nullptr);
    EXPECT_EQ(clone->roi->coi, 2);
    EXPECT_EQ(clone->roi->yOffset, 2);
    EXPECT_EQ(clone->roi->height, 4);
    EXPECT_EQ(kuvCheckImageHeader(clone.get()), 0);
    EXPECT_EQ(source->tileInfo, tile);
}

TEST(CloneImage, RefusalsReportIncorrectImage) {
    ImagePtr image = kuvtest::makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ImagePtr deep = kuvtest::makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ImagePtr noPixels = makeHeader(1, KUV_DEPTH_8U, 0, 4, 4, 4);
    ASSERT_TRUE(image && deep && noPixels);
    struct Refusal {
        const char* what;
        const KuvImage* image;
        KuvStatus status;
    };
    KuvImage badAlign = *image;
    badAlign.align = 3;
    KuvImage badMask = *image;
    badMask.maskROI = deep.get();
    KuvROI roi{2, 0, 0, 1, 1};
    KuvImage badCoi = *image;
    badCoi.roi = &roi;
    const Refusal refusals[] = {
        {"null", nullptr, KUV_StsNullHeader},
        {"no pixels", noPixels.get(), KUV_StsBadDataPointers},
        {"align 3", &badAlign, KUV_StsBadAlign},
        {"8-bit mask", &badMask, -117},
        {"coi 2", &badCoi, KUV_StsBadCOI},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.what);
        ReportCapture capture;
        const long blocks = kuvtest::outstandingBlocks();
        EXPECT_EQ(kuvCloneImage(r.image), nullptr);
        EXPECT_TRUE(oneReport(capture, r.status, "kuvCloneImage", "Incorrect Image", "kuvClone"));
        EXPECT_EQ(kuvtest::outstandingBlocks(), blocks);
    }
}

// -------------------------------------------------------------- borders

TEST(BorderMode, ConstantIsLimitedToTheDepth) {
    struct Limits {
        uint32_t depth;
        int32_t low, high;
    };
    const Limits limits[] = {
        {KUV_DEPTH_1U, 0, 1},
        {KUV_DEPTH_8U, 0, 255},
        {KUV_DEPTH_8S, -128, 127},
        {KUV_DEPTH_16U, 0, 65535},
        {KUV_DEPTH_16S, -32768, 32767},
        {KUV_DEPTH_32S, INT_MIN, INT_MAX},
        {KUV_DEPTH_32F, INT_MIN, INT_MAX},
    };
    for (const Limits& l : limits) {
        SCOPED_TRACE(kuvtest::depthName(l.depth));
        ImagePtr image = makeHeader(1, l.depth, 0, 4, 2, 2);
        ASSERT_TRUE(image);
        const int64_t probes[] = {INT_MIN,
                                  int64_t{l.low} - 1,
                                  l.low,
                                  0,
                                  1,
                                  l.high,
                                  int64_t{l.high} + 1,
                                  INT_MAX,
                                  200,
                                  -200,
                                  40000,
                                  -40000};
        for (int64_t probe : probes) {
            if (probe < INT_MIN || probe > INT_MAX) continue;
            const auto value = static_cast<int32_t>(probe);
            kuvSetBorderMode(image.get(), KUV_BORDER_REFLECT, KUV_SIDE_ALL, value);
            const int32_t expected = value < l.low ? l.low : value > l.high ? l.high : value;
            for (int side = 0; side < 4; ++side) {
                EXPECT_EQ(image->borderConst[side], expected) << "value " << value;
                EXPECT_EQ(image->borderMode[side], KUV_BORDER_REFLECT);
            }
        }
    }
}

TEST(BorderMode, OnlyTheSelectedSidesChange) {
    ReportCapture capture;
    ImagePtr image = makeHeader(1, KUV_DEPTH_16S, 0, 4, 2, 2);
    ASSERT_TRUE(image);
    kuvSetBorderMode(image.get(), KUV_BORDER_REPLICATE, KUV_SIDE_TOP | KUV_SIDE_LEFT, -5);
    const int32_t modes1[4] = {KUV_BORDER_REPLICATE, KUV_BORDER_CONSTANT, KUV_BORDER_REPLICATE,
                               KUV_BORDER_CONSTANT};
    const int32_t consts1[4] = {-5, 0, -5, 0};
    for (int side = 0; side < 4; ++side) {
        EXPECT_EQ(image->borderMode[side], modes1[side]) << side;
        EXPECT_EQ(image->borderConst[side], consts1[side]) << side;
    }
    // Bits above the fourth are ignored; the mode is stored unchecked.
    kuvSetBorderMode(image.get(), 99, 0xF0 | KUV_SIDE_BOTTOM, 7);
    kuvSetBorderMode(image.get(), KUV_BORDER_WRAP, ~0xF, 9);
    kuvSetBorderMode(image.get(), -4, KUV_SIDE_RIGHT, 100000);
    const int32_t modes2[4] = {KUV_BORDER_REPLICATE, 99, KUV_BORDER_REPLICATE, -4};
    const int32_t consts2[4] = {-5, 7, -5, 32767};
    for (int side = 0; side < 4; ++side) {
        EXPECT_EQ(image->borderMode[side], modes2[side]) << side;
        EXPECT_EQ(image->borderConst[side], consts2[side]) << side;
    }
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(kuvGetErrStatus(), 0);
}

}  // namespace
