// Image records: the kuvMalloc family, layout and fill, the field rules, the check's own tests, freeing, cloning.
#include <malloc.h>

#include <cstdio>
#include <bit>
#include <cstring>
#include <map>
#include <sstream>

#include "kuv_own.h"
#include "tests/support/kuv_test.h"

namespace {

using namespace kuvtest;

constexpr const char *allocFile = "kuvalloc", *dataIns = "Incorrect data-ins";

void tileCallBack(const KuvImage*, int32_t, int32_t, int32_t) {}

TEST(Memory, FamilyBlocksAndTheRecordsBuiltOnThem) {
    const std::pair<void* (*)(int32_t), size_t> families[] = {{kuvMalloc, 1}, {kuvwMalloc, 2}, {kuviMalloc, 4}, {kuvsMalloc, 4}, {kuvdMalloc, 8}};
    const int32_t lengths[] = {0, 1, 3, 7, 31, 32, 33, 63, 100, 1000, 4099};
    ReportCapture capture;
    kuvSetErrStatus(-3);
    for (const auto& [allocate, unit] : families) {
        std::vector<char*> blocks;   // many at once, so that block starts differ mod 32
        for (int i = 0, length; i < 88; ++i) {
            SCOPED_TRACE(::testing::Message() << unit << "-byte units: " << (length = lengths[i % 11]));
            char* p = blocks.emplace_back(static_cast<char*>(allocate(length)));
            ASSERT_TRUE(p != nullptr && reinterpret_cast<uintptr_t>(p) % 32 == 0);
            char* start = reinterpret_cast<char**>(p)[-1];   // the word below: the block
            const auto offset = static_cast<size_t>(p - start), bytes = size_t(length) * unit + 33;
            EXPECT_TRUE(offset >= sizeof(void*) && offset <= 31 + sizeof(void*)) << offset;
            ASSERT_GE(malloc_usable_size(start), offset + bytes);   // before writing there
            std::memset(p, 0xA5, bytes);
        }
        for (char* p : blocks) kuvFree(p);
    }
    kuvFree(nullptr), kuvDeleteROI(nullptr), kuvDeleteTileInfo(nullptr);
    EXPECT_TRUE(kuvGetErrStatus() == -3 && capture.count() == 0) << "the family tells nothing";
    KuvROI* roi = kuvCreateROI(-4, -1, 100000, 0, -7);   // stored unchecked
    ASSERT_TRUE(roi && uintptr_t(roi) % 32 == 0 && roi->coi == -4 && roi->xOffset == -1 && roi->yOffset == 100000 && roi->width == 0 && roi->height == -7);
    kuvSetROI(roi, 3, 4, 5, 6, 7), kuvSetROI(nullptr, 1, 2, 3, 4, 5);
    EXPECT_TRUE(roi->coi == 3 && roi->xOffset == 4 && roi->yOffset == 5 && roi->width == 6 && roi->height == 7);
    KuvTileInfo* t = kuvCreateTileInfo(tileCallBack, 77, 12, -8);
    ASSERT_TRUE(t && t->callBack == tileCallBack && t->id == 77 && !t->tileData && t->width == 12 && t->height == -8);
    t->tileData = reinterpret_cast<char*>(roi), kuvSetTileInfo(t, nullptr, -1, 16, 24), kuvSetTileInfo(nullptr, tileCallBack, 1, 8, 8);
    EXPECT_TRUE(!t->callBack && t->id == -1 && !t->tileData && t->width == 16 && t->height == 24) << "tileData cleared";
    kuvDeleteROI(roi), kuvDeleteTileInfo(t);
}

// A created header with no pixels; freed with everything it holds.
ImagePtr makeHeader(int32_t nChannels, uint32_t depth, int32_t order, int32_t align, int32_t width, int32_t height) {
    return ImagePtr(kuvCreateImageHeader(nChannels, 0, depth, "MULT", "CCCC", order, 0, align, width, height, nullptr, nullptr, 0, nullptr));
}

// Allocates by the depth's function; for 32F the fill is the float whose bits are value.
void allocate(KuvImage* image, int32_t doFill = 0, int32_t value = 0) {
    image->depth == KUV_DEPTH_32F ? kuvAllocateImageFP(image, doFill, std::bit_cast<float>(value)) : kuvAllocateImage(image, doFill, value);
}

// Every 32-bit word of the imageSize bytes, padding and planes included.
::testing::AssertionResult allWordsAre(const KuvImage* image, uint32_t word) {
    for (uint32_t i = 0, got = 0; i < uint32_t(image->imageSize / 4); ++i)
        if (std::memcpy(&got, image->imageData + 4 * i, 4), got != word) return ::testing::AssertionFailure() << "word " << i << " is 0x" << std::hex << got;
    return ::testing::AssertionSuccess();
}

// Random headers against the row length (row bits rounded up to align units), size, alignment in the block and fill word.
TEST(ImageLayout, RowLengthSizeAndFillFollowTheRulesIn32Bits) {
    Rng rng(0x1A7);
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(::testing::Message() << "case " << i);
        const uint32_t depth = allDepths()[size_t(rng.uniform(0, 6))], bits = uint32_t(depthBits(depth));
        const int32_t nChannels = depth == KUV_DEPTH_1U ? 1 : int32_t(rng.uniform(1, 5)), order = int32_t(rng.uniform(0, 1));
        const int32_t align = 4 << rng.uniform(0, 3), width = int32_t(rng.uniform(1, 77)), height = int32_t(rng.uniform(1, 9));
        const int64_t rowBits = int64_t{width} * bits * (order == 0 ? nChannels : 1);
        const int32_t step = int32_t(((rowBits + align * 8 - 1) & ~int64_t{align * 8 - 1}) / 8), size = step * height * (order ? nChannels : 1);
        ImagePtr image = makeHeader(nChannels, depth, order, align, width, height);
        ASSERT_TRUE(image && image->widthStep == step && image->imageSize == size);
        EXPECT_EQ(ownRowBytes(order, depth, align, nChannels, width), step);
        const auto value = int32_t(i % 9 ? rng.next() & ~0x40000000u : 0x80000000u), fill = int32_t(i % 5 != 0);   // -0.0f; no NaN, whose bits a float argument need not keep
        image->widthStep = image->imageSize = 1, allocate(image.get(), fill, value);   // allocation lays the image out again
        ASSERT_TRUE(image->imageData && image->widthStep == step && image->imageSize == size);
        const auto data = uintptr_t(image->imageData), origin = uintptr_t(image->imageDataOrigin);
        EXPECT_TRUE(data % align == 0 && data >= origin && data - origin < uintptr_t(align) && malloc_usable_size(image->imageDataOrigin) >= data - origin + size);
        const uint32_t v = uint32_t(value), word = bits == 1 ? 0u - (v & 1) : bits == 8 ? (v & 0xFF) * 0x01010101u : bits == 16 ? (v & 0xFFFF) * 0x10001u : v;
        EXPECT_TRUE(!fill || allWordsAre(image.get(), word)) << depthName(depth);
    }
    // Sizes beyond 32 bits are refused, not wrapped; a header enlarged afterwards gets no pixels.
    ReportCapture capture;
    EXPECT_EQ(makeHeader(4, KUV_DEPTH_32F, 0, 4, 1 << 28, 1), nullptr);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadImageSize, "kuvCreateImageHeader", dataIns, allocFile));
    ImagePtr image = makeHeader(1, KUV_DEPTH_8U, 1, 4, 4, 4);
    image->width = image->height = 65536, kuvAllocateImage(image.get(), 1, 7);
    EXPECT_TRUE(image->imageData == nullptr && image->imageDataOrigin == nullptr);
}

TEST(CreateImageHeader, StoresTheArgumentsAndBorderDefaults) {
    KuvROI roi{99, -5, -5, 0, 0};                                   // not examined
    KuvTileInfo tile{nullptr, 0, nullptr, 12, 0};                   // not examined
    ImagePtr mask = makeMask(4, 4);
    ImagePtr image(kuvCreateImageHeader(4, 4, KUV_DEPTH_16S, "RGBAxyz", "BGRA!", 1, 1, 16, 5, 3, &roi, mask.get(), 1234, &tile));
    ASSERT_TRUE(image && uintptr_t(image.get()) % 32 == 0) << "a block of the kuvMalloc family";
    const KuvImage& h = *image;
    EXPECT_TRUE(h.headerSize == int32_t(sizeof(KuvImage)) && h.headerId == 0 && h.imageId == 1234 && h.nChannels == 4 && h.alphaChannel == 4);
    EXPECT_TRUE(h.depth == KUV_DEPTH_16S && h.align == 16 && std::string(h.colorModel, 8) == "RGBABGRA" && h.dataOrder == 1 && h.origin == 1);
    EXPECT_TRUE(h.width == 5 && h.height == 3 && h.widthStep == 16 && h.imageSize == 16 * 3 * 4 && !h.imageData && !h.imageDataOrigin);
    EXPECT_TRUE(h.roi == &roi && h.maskROI == mask.get() && h.tileInfo == &tile);
    EXPECT_TRUE(KUV_BORDER_CONSTANT == 0 && std::string(reinterpret_cast<const char*>(h.borderMode), 32) == std::string(32, '\0'));   // all sides
    kuvDeallocateHeader(image.release());
}

// A header spoilt by items: int fields by name ("align=3", "depth", "tile.width"), "texts" (null to creation), "pixels=0", "tileInfo"
// (besides the pixels), "tiled" (instead of pixels), "callBack=0", "roi=coi,x,y,w,h"; "mask:ITEM" spoils a copy of a good mask on it.
struct Spoilt {
    KuvImage h;
    const KuvImage* goodMask;
    KuvROI roi{};
    KuvTileInfo tile{tileCallBack, 0, nullptr, 8, 8};
    bool texts = true;
    std::unique_ptr<Spoilt> mask;
    Spoilt(const KuvImage& base, const KuvImage* good, const std::string& edits) : h(base), goodMask(good) {
        std::istringstream items(edits);
        for (std::string item; items >> item;) apply(item);
    }
    void apply(const std::string& item) {
        if (item.rfind("mask:", 0) == 0) {
            if (!mask) mask = std::make_unique<Spoilt>(*goodMask, goodMask, ""), h.maskROI = &mask->h;
            return mask->apply(item.substr(5));
        }
        const std::string key = item.substr(0, item.find('='));
        const int64_t value = key == item ? 0 : std::stoll(item.substr(key.size() + 1), nullptr, 0);
        std::map<std::string, int32_t*> ints = {{"nChannels", &h.nChannels}, {"alpha", &h.alphaChannel}, {"order", &h.dataOrder},
            {"origin", &h.origin}, {"align", &h.align}, {"width", &h.width}, {"height", &h.height}, {"imageSize", &h.imageSize},
            {"widthStep", &h.widthStep}, {"tile.width", &tile.width}, {"tile.height", &tile.height}, {"depth", reinterpret_cast<int32_t*>(&h.depth)}};
        if (key == "texts") texts = false, std::memset(h.colorModel, 0, 8);
        else if (key == "pixels" || key == "tiled") h.imageData = nullptr, h.tileInfo = key == "tiled" ? &tile : h.tileInfo;
        else if (key == "tileInfo") h.tileInfo = &tile;
        else if (key == "callBack") tile.callBack = nullptr;
        else if (key == "roi") h.roi = &roi, std::sscanf(item.c_str(), "roi=%d,%d,%d,%d,%d", &roi.coi, &roi.xOffset, &roi.yOffset, &roi.width, &roi.height);
        else if (ints.count(key)) *ints[key] = static_cast<int32_t>(value);
        else ADD_FAILURE() << "no such item: " << item;
        if (key == "tiled") h.imageSize = h.widthStep = 0;
    }
};

// Changes to a valid 3-channel 8U 6x5 header, pairs showing which rule comes first: the check's own tests alone (create 2: pointers
// and sizes, tiles, roi), then the field rules with the status of the check and allocation, and creation's where it looks at texts.
const struct { const char* edits; KuvStatus status, create = 1; /* 1: as status */ } cases[] = {
    {"pixels=0", -12, 2}, {"tileInfo", -12, 2}, {"pixels=0 imageSize=0", -12, 2}, {"imageSize=0", -10, 2}, {"imageSize=-1 widthStep=0 nChannels=0", -10, 2},
    {"widthStep=0", -13, 2}, {"widthStep=-4 width=0", -13, 2}, {"mask:depth=12 tiled callBack=0 roi=9,0,0,1,1", -117, 2}, {"tiled", 0, 2},
    {"tiled tile.width=16 tile.height=24", 0, 2}, {"tiled callBack=0", -22, 2}, {"tiled callBack=0 tile.width=12", -22, 2}, {"tiled tile.width=12", -23, 2},
    {"tiled tile.height=12", -23, 2}, {"tiled tile.width=0", -23, 2}, {"tiled tile.height=-8", -23, 2}, {"tiled tile.width=12 align=7", -21, 2},
    {"tiled tile.height=3 roi=-1,0,0,1,1", -23, 2}, {"tiled roi=0,0,0,1,0", -25, 2}, {"roi=0,1,1,2,2", 0, 2}, {"roi=3,1,1,2,2", 0, 2},
    {"roi=4,1,1,2,2", -24, 2}, {"roi=-1,1,1,2,2", -24, 2}, {"roi=4,1,1,0,2", -24, 2}, {"roi=0,1,1,0,2", -25, 2}, {"roi=0,1,1,2,-1", -25, 2},
    {"roi=0,-1,1,2,0", -25, 2}, {"roi=0,-1,1,2,2", -11, 2}, {"roi=0,1,-1,2,2", -11, 2}, {"roi=0,1000,6,50,70", 0, 2},
    {"roi=2,0,0,2147483647,2147483647", 0, 2}, {"", 0}, {"width=0", -10}, {"height=-1", -10}, {"width=0 nChannels=0", -10}, {"nChannels=0", -15},
    {"nChannels=-2 depth=12", -15}, {"nChannels=0 depth=1", -15}, {"depth=1", -16}, {"depth=1 texts", -16}, {"depth=1 nChannels=1", 0}, {"texts", 0, -14},
    {"texts depth=12", -17, -14}, {"depth=12", -17}, {"depth=0", -17}, {"depth=0x80000001", -17}, {"depth=32", 0}, {"depth=12 alpha=2", -17},
    {"alpha=2", -18}, {"alpha=-1", -18}, {"alpha=4", -18}, {"nChannels=4 alpha=3", -18}, {"nChannels=4 alpha=4", 0}, {"alpha=3", 0}, {"alpha=1 order=2", -18},
    {"order=2", -19}, {"order=-1", -19}, {"order=1", 0}, {"order=2 origin=2", -19}, {"origin=2", -20}, {"origin=-1", -20}, {"origin=1", 0},
    {"origin=2 align=3", -20}, {"align=2", -21}, {"align=0", -21}, {"align=12", -21}, {"align=64", -21}, {"align=8", 0}, {"align=16", 0}, {"align=32", 0},
    {"align=3 mask:depth=8", -21}, {"mask:origin=0", 0}, {"mask:depth=8", -117}, {"mask:tiled", -26}, {"mask:depth=8 mask:tileInfo", -117},
    {"mask:tileInfo mask:align=3", -26}, {"mask:pixels=0", -112}, {"mask:imageSize=0", -110}, {"mask:widthStep=0", -113}, {"mask:origin=9", -120},
    {"mask:align=2", -121}, {"mask:roi=2,0,0,1,1", -124}, {"mask:roi=0,0,0,0,1", -125}, {"mask:roi=0,0,-1,1,1", -111}, {"mask:mask:depth=8", -217}};

// The check stores its status silently; creation and allocation report it and make nothing; then allocation's own tests.
TEST(FieldRules, SameOrderInCreationAllocationAndCheck) {
    ImagePtr pixels = makeImage(KUV_DEPTH_8U, 3, 6, 5), good = makeMask(6, 5), created = makeHeader(3, KUV_DEPTH_8U, 0, 4, 6, 5);
    ReportCapture capture;
    auto reported = [&capture](KuvStatus status, const char* func, const char* text, bool made) {   // made: a header or pixels
        EXPECT_TRUE(status ? oneReport(capture, status, func, text, allocFile) : ::testing::AssertionResult(capture.count() == 0 && kuvGetErrStatus() == -3));
        EXPECT_EQ(made, status == 0);
        capture.clear(), kuvSetErrStatus(-3);
    };
    kuvSetErrStatus(-3);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.edits);
        Spoilt checked(*pixels, good.get(), c.edits), f(*created, good.get(), c.edits);
        EXPECT_EQ(kuvCheckImageHeader(&checked.h), c.status);
        EXPECT_TRUE(kuvGetErrStatus() == (c.status ? c.status : -3) && capture.count() == 0) << "stored silently";
        if (kuvSetErrStatus(-3), c.create == 2) continue;
        KuvImage* image = kuvCreateImageHeader(f.h.nChannels, f.h.alphaChannel, f.h.depth, f.texts ? "RGB" : nullptr, f.texts ? "RGB" : nullptr,
                                               f.h.dataOrder, f.h.origin, f.h.align, f.h.width, f.h.height, nullptr, f.h.maskROI, 0, nullptr);
        reported(c.create == 1 ? c.status : c.create, "kuvCreateImageHeader", dataIns, image != nullptr);
        kuvDeallocateHeader(image), allocate(&f.h);
        reported(c.status, f.h.depth == KUV_DEPTH_32F ? "kuvAllocateImageFP" : "kuvAllocateImage", dataIns, f.h.imageData != nullptr);
        kuvDeallocateImage(&f.h);
    }
    EXPECT_TRUE(kuvCheckImageHeader(nullptr) == -9 && kuvGetErrStatus() == -9 && capture.count() == 0);
    KuvTileInfo tile{tileCallBack, 0, nullptr, 8, 8};
    for (bool fp : {false, true}) {   // each step mends the last one's fault; each function takes its own depth, once
        const char *func = fp ? "kuvAllocateImageFP" : "kuvAllocateImage", *held = "( image->imageData != ((void *)0) )";
        ImagePtr model = makeHeader(1, fp ? KUV_DEPTH_32F : KUV_DEPTH_32S, 0, 4, 3, 3);
        KuvImage h = *model;
        h.imageData = pixels->imageData, h.tileInfo = &tile, h.depth = fp ? KUV_DEPTH_8U : KUV_DEPTH_32F;
        const std::pair<KuvImage*, const char*> steps[] = {{nullptr, "( image == ((void *)0) )"}, {&h, held}, {&h, "( image->tileInfo != ((void *)0) )"},
            {&h, fp ? "( image->depth != 32 )" : "( image->depth == 32 )"}, {model.get(), nullptr}, {model.get(), held}};
        for (const auto& [image, context] : steps) {
            SCOPED_TRACE(::testing::Message() << func << " " << (context ? context : "accepted"));
            char* before = image ? image->imageData : nullptr;
            fp ? kuvAllocateImageFP(image, 1, 0.0f) : kuvAllocateImage(image, 1, 0);
            reported(context ? KUV_StsBadArgument : 0, func, context, image && image->imageData != before);
            if (image == &h) h.tileInfo = h.imageData ? h.tileInfo : nullptr, h.imageData = nullptr;
        }
    }
}

// An allocated image with a roi, a tile record and a mask that has its own roi, tile record and mask: 10 blocks.
KuvImage* heldImage() {
    KuvImage* image = makeHeader(2, KUV_DEPTH_16S, 0, 8, 5, 4).release();
    kuvAllocateImage(image, 1, 0), image->roi = kuvCreateROI(1, 0, 0, 2, 2), image->tileInfo = kuvCreateTileInfo(tileCallBack, 0, 8, 8);
    KuvImage* mask = image->maskROI = makeMask(5, 4).release();
    mask->roi = kuvCreateROI(0, 0, 0, 1, 1), mask->tileInfo = kuvCreateTileInfo(tileCallBack, 1, 8, 8), mask->maskROI = makeMask(5, 4).release();
    return image;
}

TEST(Deallocate, EachFlagFreesItsPartAndNothingElse) {
    auto blocks = [start = outstandingBlocks()] { return outstandingBlocks() - start; };
    KuvImage *h = heldImage(), *maskOfMask = h->maskROI->maskROI;   // {flags, blocks left}: a mask goes with flags 15, not its own mask
    const std::pair<int32_t, long> steps[] = {{KUV_IMAGE_ROI, 9}, {KUV_IMAGE_TILE, 8}, {KUV_IMAGE_MASK, 4}, {KUV_IMAGE_DATA, 3}, {KUV_IMAGE_ALL - 1, 3}};
    for (const auto& [flags, left] : steps) {
        kuvDeallocate(h, flags);
        EXPECT_TRUE(blocks() == left && !h->roi && !h->tileInfo == (left <= 8) && !h->maskROI == (left <= 4) && !h->imageData == (left <= 3) &&
                    !h->imageDataOrigin == (left <= 3)) << flags << ": " << blocks() << " blocks";
    }
    kuvDeallocate(h, KUV_IMAGE_HEADER), kuvDeallocate(nullptr, KUV_IMAGE_ALL);
    EXPECT_EQ(blocks(), 2);
    kuvDeallocate(maskOfMask, KUV_IMAGE_ALL);
    const KuvImage held = *(h = heldImage());   // the header alone: all it points at stays usable
    kuvDeallocateHeader(h);
    EXPECT_TRUE(blocks() == 9 && held.roi->coi == 1 && kuvCheckImageHeader(held.maskROI->maskROI) == 0);
    held.imageDataOrigin[0] = 1;
    kuvDeleteROI(held.roi), kuvDeleteTileInfo(held.tileInfo), ownImageBlockFree(held.imageDataOrigin), kuvDeallocate(held.maskROI, KUV_IMAGE_ALL);
    // An application's buffer is never freed; a header whose pixels are freed takes new ones.
    ImagePtr image = makeHeader(3, KUV_DEPTH_16U, 1, 8, 5, 3);
    alignas(32) char buffer[16] = {};
    image->imageData = buffer, kuvDeallocate(image.get(), KUV_IMAGE_DATA);
    EXPECT_TRUE(image->imageData == buffer && blocks() == 1);
    kuvDeallocateImage(image.get());
    EXPECT_TRUE(!image->imageData && !image->imageDataOrigin && kuvCheckImageHeader(image.get()) == -12);
    kuvAllocateImage(image.get(), 1, 0x0102);
    EXPECT_TRUE(allWordsAre(image.get(), 0x01020102u) && kuvCheckImageHeader(image.get()) == 0);
}

TEST(CloneImage, CopiesHeaderRoiAndPixelsButNotMaskTilesOrIds) {
    for (uint32_t depth : allDepths())
        for (int32_t order = 0, channels = depth == KUV_DEPTH_1U ? 1 : 3; order < (channels == 1 ? 1 : 2); ++order) {
            SCOPED_TRACE(::testing::Message() << depthName(depth) << " order " << order);
            ImagePtr source = makeImage(depth, channels, 7, 5, order, channels, 8);
            fillRandom(source.get(), 0xC10E + depth + order), source->origin = 1, source->imageId = 77, source->headerId = 5;
            setRoi(source.get(), channels, 2, 1, 4, 3), attachMask(source.get(), makeMask(7, 5, 1));
            kuvSetBorderMode(source.get(), KUV_BORDER_WRAP, KUV_SIDE_RIGHT | KUV_SIDE_BOTTOM, 1);
            const RefusalGuard untouched(source.get());
            ReportCapture capture;
            kuvSetErrStatus(-3);
            const long blocks = outstandingBlocks();
            ImagePtr clone(kuvCloneImage(source.get()));
            ASSERT_TRUE(clone && clone->roi && clone->imageData && clone->imageDataOrigin);
            EXPECT_TRUE(outstandingBlocks() == blocks + 3 && capture.count() == 0 && kuvGetErrStatus() == -3) << "header, roi, pixels";
            KuvImage want = *source;   // the source's header with its own records and pixels, no mask, tiles, ids
            want.headerId = want.imageId = 0, want.maskROI = nullptr, want.tileInfo = nullptr;
            want.roi = clone->roi, want.imageData = clone->imageData, want.imageDataOrigin = clone->imageDataOrigin;
            EXPECT_EQ(std::memcmp(&want, clone.get(), sizeof want), 0) << "header fields";
            EXPECT_TRUE(clone->roi != source->roi && !std::memcmp(clone->roi, source->roi, sizeof(KuvROI)) && clone->imageDataOrigin != source->imageDataOrigin);
            EXPECT_EQ(std::memcmp(clone->imageData, source->imageData, size_t(source->imageSize)), 0);
            EXPECT_TRUE(untouched.intact());
        }
    // A tiled source gives an untiled image of the same geometry.
    KuvTileInfo* tile = kuvCreateTileInfo(tileCallBack, 3, 8, 16);
    ImagePtr tiled(kuvCreateImageHeader(3, 0, KUV_DEPTH_16U, "RGB", "BGR", 1, 0, 16, 11, 9, kuvCreateROI(2, 1, 2, 3, 4), nullptr, 9, tile));
    tiled->imageSize = tiled->widthStep = 0;
    ImagePtr clone(kuvCloneImage(tiled.get())), plain = makeImage(KUV_DEPTH_16S, 2, 3, 3);   // rows of 22 bytes to 32; 3 planes
    ASSERT_TRUE(clone && clone->roi && clone->imageData && !clone->tileInfo && clone->imageId == 0 && tiled->tileInfo == tile);
    EXPECT_TRUE(clone->widthStep == 32 && clone->imageSize == 32 * 9 * 3 && clone->roi->coi == 2 && clone->roi->yOffset == 2 && !kuvCheckImageHeader(clone.get()));
    // Refusals: the check's status with "Incorrect Image".
    KuvImage badAlign = *plain, badMask = *plain, noPixels = *plain;
    badAlign.align = 3, badMask.maskROI = plain.get(), noPixels.imageData = nullptr;
    const std::pair<const KuvImage*, KuvStatus> refusals[] = {{nullptr, KUV_StsNullHeader}, {&noPixels, -12}, {&badAlign, KUV_StsBadAlign}, {&badMask, -117}};
    for (const auto& [header, status] : refusals) {
        ReportCapture capture;
        EXPECT_EQ(kuvCloneImage(header), nullptr);
        EXPECT_TRUE(oneReport(capture, status, "kuvCloneImage", "Incorrect Image", "kuvClone"));
    }
}

}  // namespace
