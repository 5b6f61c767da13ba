// kuvLShiftS and kuvRShiftS: element values at the limits, the counts that
// turn a shift into a logic operation and the names those report under,
// every refusal, and the shared reference engine of logic_test.cpp over
// every depth, layout, region, mask and tile.
#include "tests/support/kuv_test.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace kuvpixel {

// Defined in logic_test.cpp.
using OpCall = std::function<void(const KuvImage*, const KuvImage*, KuvImage*)>;
using ElementFn = std::function<uint32_t(uint32_t, uint32_t)>;
using OpFactory = std::function<void(uint32_t depth, kuvtest::Rng& rng, OpCall* call,
                                     ElementFn* element, std::string* label)>;
void runReferenceCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed, int cases,
                       const OpFactory& factory);
void runDifferentialCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed,
                          int cases, const OpFactory& factory);
int guardedRegionFaults(const std::vector<uint32_t>& depths, const OpFactory& factory);

}  // namespace kuvpixel

namespace {

using namespace kuvtest;
using kuvpixel::ElementFn;
using kuvpixel::OpCall;
using kuvpixel::OpFactory;

constexpr const char* kNo32F = "This function does not support depth 32F";

// ------------------------------------------------------------ reference

uint32_t cut(uint32_t depth, uint64_t v) {
    const int bits = depthBits(depth);
    return bits >= 32 ? static_cast<uint32_t>(v) : static_cast<uint32_t>(v & ((1ull << bits) - 1));
}

// The element's value with its sign, from its raw bits.
int64_t signedValue(uint32_t depth, uint32_t raw) {
    const int bits = depthBits(depth);
    if ((depth & KUV_DEPTH_SIGN) == 0) return raw;
    const uint64_t signBit = 1ull << (bits - 1);
    return static_cast<int64_t>((uint64_t{raw} ^ signBit)) - static_cast<int64_t>(signBit);
}

// Shifted left by n (any count): the bits shifted out are lost; counts at or
// above the width, taken as unsigned, leave nothing.
uint32_t shiftLeft(uint32_t depth, uint32_t raw, int32_t n) {
    if (static_cast<uint32_t>(n) >= static_cast<uint32_t>(depthBits(depth))) return 0;
    return cut(depth, uint64_t{raw} << n);
}

// Shifted right by n: zeros come in for unsigned depths, copies of the sign
// for signed ones; large counts clear unsigned elements and leave the sign
// fill of signed ones.
uint32_t shiftRight(uint32_t depth, uint32_t raw, int32_t n) {
    const auto bits = static_cast<uint32_t>(depthBits(depth));
    const bool isSigned = (depth & KUV_DEPTH_SIGN) != 0;
    uint32_t count = static_cast<uint32_t>(n);
    if (count >= bits) {
        if (!isSigned) return 0;
        count = bits - 1;
    }
    if (!isSigned) return raw >> count;
    const int64_t v = signedValue(depth, raw);
    return cut(depth, static_cast<uint64_t>(v >> count));
}

const std::vector<uint32_t>& shiftDepths() {
    static const std::vector<uint32_t> d = {KUV_DEPTH_8U,  KUV_DEPTH_8S, KUV_DEPTH_16U,
                                            KUV_DEPTH_16S, KUV_DEPTH_32S};
    return d;
}

// A count for a random case: mostly inside the element's width, now and then
// one that becomes a logic operation.
int32_t randomCount(uint32_t depth, Rng& rng) {
    const int bits = depthBits(depth);
    if (rng.chance(0.2)) {
        const int32_t special[] = {0, bits, bits + 1, 40, -1, -bits, INT32_MIN, INT32_MAX};
        return special[rng.uniform(0, 7)];
    }
    return static_cast<int32_t>(rng.uniform(1, bits > 1 ? bits - 1 : 1));
}

OpFactory leftFactory() {
    return [](uint32_t depth, Rng& rng, OpCall* call, ElementFn* fn, std::string* label) {
        const int32_t n = randomCount(depth, rng);
        *call = [n](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvLShiftS(a, d, n); };
        *fn = [depth, n](uint32_t a, uint32_t) { return shiftLeft(depth, a, n); };
        *label = "kuvLShiftS by " + std::to_string(n);
    };
}

OpFactory rightFactory() {
    return [](uint32_t depth, Rng& rng, OpCall* call, ElementFn* fn, std::string* label) {
        const int32_t n = randomCount(depth, rng);
        *call = [n](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvRShiftS(a, d, n); };
        *fn = [depth, n](uint32_t a, uint32_t) { return shiftRight(depth, a, n); };
        *label = "kuvRShiftS by " + std::to_string(n);
    };
}

// ------------------------------------------------------------ values at the limits

struct ShiftCase {
    uint32_t depth;
    double value;
    int32_t n;
    double want;
};

void expectShift(bool left, const ShiftCase& c) {
    SCOPED_TRACE(std::string(left ? "kuvLShiftS " : "kuvRShiftS ") + depthName(c.depth) + " " +
                 std::to_string(c.value) + " by " + std::to_string(c.n));
    ImagePtr s = makeImage(c.depth, 1, 3, 1);
    ImagePtr d = makeLike(s.get());
    for (int x = 0; x < 3; ++x) put(s.get(), x, 0, 0, c.value);
    ReportCapture capture;
    if (left) kuvLShiftS(s.get(), d.get(), c.n);
    else kuvRShiftS(s.get(), d.get(), c.n);
    EXPECT_EQ(capture.count(), 0u);
    for (int x = 0; x < 3; ++x) EXPECT_EQ(get(d.get(), x, 0, 0), c.want);
    // The same in place, through a region of one pixel.
    setRoi(s.get(), 0, 1, 0, 1, 1);
    if (left) kuvLShiftS(s.get(), s.get(), c.n);
    else kuvRShiftS(s.get(), s.get(), c.n);
    EXPECT_EQ(get(s.get(), 0, 0, 0), c.value);
    EXPECT_EQ(get(s.get(), 1, 0, 0), c.want);
    EXPECT_EQ(get(s.get(), 2, 0, 0), c.value);
}

TEST(ShiftValues, LeftShiftCutsToTheWidthWithoutLimiting) {
    const ShiftCase cases[] = {
        {KUV_DEPTH_8U, 0x81, 1, 2},
        {KUV_DEPTH_8S, 65, 1, -126},
        {KUV_DEPTH_8S, -1, 7, -128},
        {KUV_DEPTH_8U, 255, 7, 128},
        {KUV_DEPTH_16U, 0x8001, 1, 2},
        {KUV_DEPTH_16S, 0x4001, 1, -32766},
        {KUV_DEPTH_16S, -1, 15, -32768},
        {KUV_DEPTH_32S, 1, 31, -2147483648.0},
        {KUV_DEPTH_32S, 0x40000001, 1, -2147483646.0},
        {KUV_DEPTH_32S, -1, 4, -16},
        // Counts at or above the width, or negative, clear.
        {KUV_DEPTH_8U, 255, 8, 0},
        {KUV_DEPTH_8S, -1, 40, 0},
        {KUV_DEPTH_16S, -5, 16, 0},
        {KUV_DEPTH_32S, -1, 32, 0},
        {KUV_DEPTH_32S, 12345, -1, 0},
        {KUV_DEPTH_16U, 7, INT32_MIN, 0},
        // A count of 0 copies.
        {KUV_DEPTH_8S, -77, 0, -77},
        {KUV_DEPTH_32S, -2147483648.0, 0, -2147483648.0},
    };
    for (const ShiftCase& c : cases) expectShift(true, c);
}

TEST(ShiftValues, RightShiftFillsWithZerosOrTheSign) {
    const ShiftCase cases[] = {
        {KUV_DEPTH_8S, -128, 9, -1},
        {KUV_DEPTH_8U, 128, 9, 0},
        {KUV_DEPTH_8S, -128, 1, -64},
        {KUV_DEPTH_8S, -3, 1, -2},
        {KUV_DEPTH_8S, 127, 40, 0},
        {KUV_DEPTH_8U, 255, 7, 1},
        {KUV_DEPTH_16U, 0x8000, 15, 1},
        {KUV_DEPTH_16S, -32768, 15, -1},
        {KUV_DEPTH_16S, -32768, 16, -1},
        {KUV_DEPTH_16S, 32767, 14, 1},
        {KUV_DEPTH_32S, -2147483648.0, 31, -1},
        {KUV_DEPTH_32S, -2147483648.0, 40, -1},
        {KUV_DEPTH_32S, 2147483647, 30, 1},
        {KUV_DEPTH_32S, -7, 1, -4},
        // A negative count: clearing on unsigned depths, the sign fill on signed ones.
        {KUV_DEPTH_8U, 200, -1, 0},
        {KUV_DEPTH_16U, 65535, -1, 0},
        {KUV_DEPTH_8S, -100, -1, -1},
        {KUV_DEPTH_8S, 100, -1, 0},
        {KUV_DEPTH_16S, -2, INT32_MIN, -1},
        {KUV_DEPTH_32S, -9, -5, -1},
        {KUV_DEPTH_32S, 9, -5, 0},
        {KUV_DEPTH_16U, 1234, 0, 1234},
    };
    for (const ShiftCase& c : cases) expectShift(false, c);
}

TEST(ShiftValues, BitImagesAreCopiedByZeroAndClearedByAnyOtherCount) {
    for (bool left : {true, false}) {
        for (int32_t n : {0, 1, 7, -1, 40}) {
            SCOPED_TRACE(std::string(left ? "left " : "right ") + std::to_string(n));
            ImagePtr s = makeImage(KUV_DEPTH_1U, 1, 29, 3);
            ImagePtr d = makeLike(s.get());
            fillRandom(s.get(), 3);
            fillRandom(d.get(), 4);
            setRoi(d.get(), 0, 3, 1, 20, 2);
            const Snapshot before = snapshot(d.get());
            ReportCapture capture;
            if (left) kuvLShiftS(s.get(), d.get(), n);
            else kuvRShiftS(s.get(), d.get(), n);
            EXPECT_EQ(capture.count(), 0u);
            for (int y = 0; y < 2; ++y) {
                for (int x = 0; x < 20; ++x) {
                    EXPECT_EQ(getBits(d.get(), 3 + x, 1 + y, 0), n == 0 ? getBits(s.get(), x, y, 0) : 0u);
                }
            }
            expectUnchangedExcept(before, d.get(), [](int x, int y, int) {
                return x >= 3 && x < 23 && y >= 1 && y < 3;
            });
        }
    }
}

TEST(ShiftFlat, EqualLayoutsWithoutRegionShiftThePaddingToo) {
    for (uint32_t depth : shiftDepths()) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr s = makeImage(depth, 3, 5, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
        ImagePtr d = makeLike(s.get());
        fillRandom(s.get(), 10);
        fillRandom(d.get(), 11);
        const int size = depthBits(depth) / 8;
        auto element = [&](const KuvImage* image, int i) {
            uint32_t v = 0;
            std::memcpy(&v, image->imageData + i * size, size_t(size));
            return v;
        };
        kuvRShiftS(s.get(), d.get(), 3);
        for (int i = 0; i < s->imageSize / size; ++i) {
            ASSERT_EQ(element(d.get(), i), shiftRight(depth, element(s.get(), i), 3)) << "element " << i;
        }
        // With a region the padding stays.
        fillRandom(d.get(), 12);
        setRoi(d.get(), 0, 0, 0, 4, 3);
        const Snapshot before = snapshot(d.get());
        kuvLShiftS(s.get(), d.get(), 2);
        EXPECT_FALSE(paddingChanged(before, d.get()));
        expectUnchangedExcept(before, d.get(), [](int x, int, int) { return x < 4; });
    }
}

// ------------------------------------------------------------ against the reference

TEST(ShiftReference, LeftEveryDepthLayoutRegionMaskAndTile) {
    kuvpixel::runReferenceCases(1, shiftDepths(), 300000, 150, leftFactory());
    kuvpixel::runReferenceCases(1, {KUV_DEPTH_1U}, 310000, 60, leftFactory());
}

TEST(ShiftReference, RightEveryDepthLayoutRegionMaskAndTile) {
    kuvpixel::runReferenceCases(1, shiftDepths(), 400000, 150, rightFactory());
    kuvpixel::runReferenceCases(1, {KUV_DEPTH_1U}, 410000, 60, rightFactory());
}

TEST(ShiftDifferential, TiledMaskedRunsEqualPlainRunsWithMaskedCopy) {
    kuvpixel::runDifferentialCases(1, shiftDepths(), 500000, 60, leftFactory());
    kuvpixel::runDifferentialCases(1, shiftDepths(), 600000, 60, rightFactory());
}

TEST(ShiftGuard, RegionsReadAndWriteNoByteOutsideTheirNeededBytes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int reports = kuvpixel::guardedRegionFaults(shiftDepths(), leftFactory());
            reports += kuvpixel::guardedRegionFaults(shiftDepths(), rightFactory());
            std::_Exit(reports == 0 ? 0 : 4);
        },
        ::testing::ExitedWithCode(0), "");
}

// ------------------------------------------------------------ delegations and refusals

using ShiftFn = void (*)(const KuvImage*, KuvImage*, int32_t);

struct Expected {
    KuvStatus status;
    const char* func;
    const char* context;
    const char* file;
};

void expectShiftRefusal(ShiftFn fn, const KuvImage* s, KuvImage* d, int32_t n, const Expected& e) {
    SCOPED_TRACE(std::string(fn == kuvLShiftS ? "kuvLShiftS" : "kuvRShiftS") + " by " +
                 std::to_string(n) + ": " + e.func + " " + e.context);
    RefusalGuard guard(s, d);
    ReportCapture capture;
    fn(s, d, n);
    EXPECT_TRUE(oneReport(capture, e.status, e.func, e.context, e.file));
    EXPECT_TRUE(guard.intact());
}

TEST(ShiftDelegation, CountsThatBecomeLogicReportUnderTheLogicOperation) {
    ImagePtr f = makeImage(KUV_DEPTH_32F, 1, 4, 2);
    ImagePtr g = makeLike(f.get());
    fillRandom(g.get(), 1);
    const Expected xorS{KUV_StsBadArgument, "kuvXorS", kNo32F, "kuvxors"};
    const Expected andS{KUV_StsBadArgument, "kuvAndS", kNo32F, "kuvands"};
    const Expected left{KUV_StsBadArgument, "kuvLShiftS", kNo32F, "kuvlshs"};
    const Expected right{KUV_StsBadArgument, "kuvRShiftS", kNo32F, "kuvrshs"};
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), 0, xorS);
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), 40, andS);
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), 32, andS);
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), -3, andS);
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), 5, left);
    expectShiftRefusal(kuvLShiftS, f.get(), g.get(), 31, left);
    expectShiftRefusal(kuvRShiftS, f.get(), g.get(), 0, xorS);
    expectShiftRefusal(kuvRShiftS, f.get(), g.get(), 32, andS);
    expectShiftRefusal(kuvRShiftS, f.get(), g.get(), -1, andS);
    expectShiftRefusal(kuvRShiftS, f.get(), g.get(), 31, right);

    // The width that decides is the source's: 8U into 16U by 8 is already a clear.
    ImagePtr s8 = makeImage(KUV_DEPTH_8U, 1, 4, 2);
    ImagePtr s8s = makeImage(KUV_DEPTH_8S, 1, 4, 2);
    ImagePtr s16 = makeImage(KUV_DEPTH_16U, 1, 4, 2);
    ImagePtr d16 = makeImage(KUV_DEPTH_16U, 1, 4, 2);
    ImagePtr d8 = makeImage(KUV_DEPTH_8U, 1, 4, 2);
    expectShiftRefusal(kuvLShiftS, s8.get(), d16.get(), 8,
                       {KUV_StsBadArgument, "kuvAndS", "(srcImage->depth != dstImage->depth)", "kuvands"});
    expectShiftRefusal(kuvLShiftS, s16.get(), d8.get(), 8,
                       {KUV_StsBadArgument, "kuvLShiftS", "(srcImage->depth != dstImage->depth)", "kuvlshs"});
    expectShiftRefusal(kuvRShiftS, s8.get(), d16.get(), 9,
                       {KUV_StsBadArgument, "kuvAndS", "(srcImage->depth != dstImage->depth)", "kuvands"});
    // A signed source keeps its big count in the shift itself (the sign fill).
    expectShiftRefusal(kuvRShiftS, s8s.get(), d16.get(), 9,
                       {KUV_StsBadArgument, "kuvRShiftS", "(srcImage->depth != dstImage->depth)", "kuvrshs"});
    expectShiftRefusal(kuvLShiftS, s8s.get(), d16.get(), 9,
                       {KUV_StsBadArgument, "kuvAndS", "(srcImage->depth != dstImage->depth)", "kuvands"});
    expectShiftRefusal(kuvRShiftS, s8.get(), d16.get(), 0,
                       {KUV_StsBadArgument, "kuvXorS", "(srcImage->depth != dstImage->depth)", "kuvxors"});

    // Bit images: 0 is kuvXorS, anything else kuvAndS.
    ImagePtr b1 = makeImage(KUV_DEPTH_1U, 1, 9, 2);
    expectShiftRefusal(kuvLShiftS, b1.get(), d8.get(), 0,
                       {KUV_StsBadArgument, "kuvXorS", "(srcImage->depth != dstImage->depth)", "kuvxors"});
    expectShiftRefusal(kuvLShiftS, b1.get(), d8.get(), 1,
                       {KUV_StsBadArgument, "kuvAndS", "(srcImage->depth != dstImage->depth)", "kuvands"});
    expectShiftRefusal(kuvRShiftS, b1.get(), d8.get(), 1,
                       {KUV_StsBadArgument, "kuvAndS", "(srcImage->depth != dstImage->depth)", "kuvands"});

    // A missing destination is found by the operation that runs.
    expectShiftRefusal(kuvLShiftS, s8.get(), nullptr, 0,
                       {KUV_StsNullHeader, "kuvXorS", "Incorrect Image", "kuvxors"});
    expectShiftRefusal(kuvLShiftS, s8.get(), nullptr, 8,
                       {KUV_StsNullHeader, "kuvAndS", "Incorrect Image", "kuvands"});
    expectShiftRefusal(kuvRShiftS, s8.get(), nullptr, 3,
                       {KUV_StsNullHeader, "kuvRShiftS", "Incorrect Image", "kuvrshs"});
}

TEST(ShiftRefusal, NullSourceIsTestedBeforeAnyHandOver) {
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 4, 2);
    for (int32_t n : {0, 3, 8, -1}) {
        expectShiftRefusal(kuvLShiftS, nullptr, d.get(), n,
                           {KUV_StsBadArgument, "kuvLShiftS", "srcImage==0", "kuvlshs"});
        expectShiftRefusal(kuvRShiftS, nullptr, d.get(), n,
                           {KUV_StsBadArgument, "kuvRShiftS", "srcImage==0", "kuvrshs"});
    }
}

TEST(ShiftRefusal, PatternTestsWithOneSourceTexts) {
    for (ShiftFn fn : {kuvLShiftS, kuvRShiftS}) {
        const char* name = fn == kuvLShiftS ? "kuvLShiftS" : "kuvRShiftS";
        const char* file = fn == kuvLShiftS ? "kuvlshs" : "kuvrshs";
        ImagePtr s = makeImage(KUV_DEPTH_16S, 3, 5, 3);
        ImagePtr d = makeLike(s.get());
        fillRandom(s.get(), 20);
        fillRandom(d.get(), 21);
        ImagePtr plane = makeImage(KUV_DEPTH_16S, 3, 5, 3, KUV_DATA_ORDER_PLANE);
        ImagePtr alpha = makeImage(KUV_DEPTH_16S, 4, 5, 3, KUV_DATA_ORDER_PIXEL, 4);
        ImagePtr four = makeImage(KUV_DEPTH_16S, 4, 5, 3);
        ImagePtr d32 = makeImage(KUV_DEPTH_32S, 3, 5, 3);
        expectShiftRefusal(fn, s.get(), d32.get(), 3,
                           {KUV_StsBadArgument, name, "(srcImage->depth != dstImage->depth)", file});
        expectShiftRefusal(fn, plane.get(), d.get(), 3,
                           {KUV_StsBadArgument, name, "(srcImage->dataOrder != dstImage->dataOrder)", file});
        expectShiftRefusal(fn, alpha.get(), four.get(), 3,
                           {KUV_StsBadArgument, name, "(nChSrc != nChDst)", file});
        ImagePtr coi = copyImage(s.get());
        setRoi(coi.get(), 2, 0, 0, 5, 3);
        expectShiftRefusal(fn, coi.get(), d.get(), 3, {KUV_StsBadArgument, name, "(nChSrc != nChDst)", file});
        {
            // The destination's header is checked after the source's.
            ImagePtr noData = makeImage(KUV_DEPTH_16S, 3, 5, 3);
            char* keep = noData->imageData;
            noData->imageData = nullptr;
            KuvROI badRoi{0, 0, 0, 0, 3};
            KuvImage badSize = *d;
            badSize.roi = &badRoi;
            expectShiftRefusal(fn, noData.get(), &badSize, 3,
                               {KUV_StsBadDataPointers, name, "Incorrect Image", file});
            expectShiftRefusal(fn, s.get(), &badSize, 3, {KUV_StsBadROISize, name, "Incorrect Image", file});
            noData->imageData = keep;
        }
        {
            // A mask of the destination that is tiled: the mask form of the code.
            ImagePtr mask = makeMask(5, 3, 1);
            KuvTileInfo info{};
            mask->tileInfo = &info;
            d->maskROI = mask.get();
            expectShiftRefusal(fn, s.get(), d.get(), 3,
                               {KUV_StsMaskTiled, name, "Incorrect Image", file});
            d->maskROI = nullptr;
            mask->tileInfo = nullptr;
        }
    }
}

TEST(ShiftRefusal, Depth32FIsRefusedAfterTheMasksAreMerged) {
    for (ShiftFn fn : {kuvLShiftS, kuvRShiftS}) {
        const char* name = fn == kuvLShiftS ? "kuvLShiftS" : "kuvRShiftS";
        const char* file = fn == kuvLShiftS ? "kuvlshs" : "kuvrshs";
        ImagePtr s = makeImage(KUV_DEPTH_32F, 2, 4, 4);
        ImagePtr d = makeLike(s.get());
        fillRandom(d.get(), 30);
        ImagePtr m1 = makeMask(8, 4, 1);
        ImagePtr m2 = makeMask(8, 4, 1);
        setRoi(m2.get(), 0, 0, 4, 8, 1);   // below its image: no common area
        s->maskROI = m1.get();
        d->maskROI = m2.get();
        {
            RefusalGuard guard(s.get(), d.get());
            ReportCapture capture;
            fn(s.get(), d.get(), 3);
            EXPECT_EQ(capture.count(), 0u) << name;
            EXPECT_TRUE(guard.intact());
        }
        s->maskROI = nullptr;
        expectShiftRefusal(fn, s.get(), d.get(), 3, {KUV_StsBadArgument, name, kNo32F, file});
        d->maskROI = nullptr;
        expectShiftRefusal(fn, s.get(), d.get(), 3, {KUV_StsBadArgument, name, kNo32F, file});
    }
}

TEST(ShiftRefusal, FailedTileRequestNamesTheImage) {
    for (ShiftFn fn : {kuvLShiftS, kuvRShiftS}) {
        const char* name = fn == kuvLShiftS ? "kuvLShiftS" : "kuvRShiftS";
        const char* file = fn == kuvLShiftS ? "kuvlshs" : "kuvrshs";
        for (int slot = 0; slot < 2; ++slot) {
            ImagePtr sb = makeImage(KUV_DEPTH_16U, 2, 20, 12);
            ImagePtr db = makeImage(KUV_DEPTH_16U, 2, 20, 12);
            fillRandom(sb.get(), 40);
            fillRandom(db.get(), 41);
            TileStore src(std::move(sb), 8, 8), dst(std::move(db), 16, 8);
            (slot == 0 ? src : dst).failRequest(2);   // the second request of that image
            ReportCapture capture;
            fn(src.image(), dst.image(), 3);
            EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, name,
                                  slot == 0 ? "(srcImage->tileInfo->tileData == ((void*)(0)))"
                                            : "(dstImage->tileInfo->tileData == ((void*)(0)))",
                                  file));
            EXPECT_TRUE(src.faults().empty());
            EXPECT_TRUE(dst.faults().empty());
            if (slot == 0) {
                // Source: READ(0,0), then READ(1,0) fails at the first tile boundary,
                // after one piece went to the destination's tile (0,0), which is still held.
                EXPECT_EQ(src.log(), (std::vector<TileStore::Request>{
                                         {0, 0, KUV_TILE_READ}, {0, 0, KUV_TILE_RELEASE},
                                         {1, 0, KUV_TILE_READ}}));
                EXPECT_EQ(dst.held(), 1);
            }
        }
    }
}

}  // namespace
