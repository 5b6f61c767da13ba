// kuvMaxFilter, kuvMinFilter and kuvMedianFilter against the window sorted
// in the test (maximum, minimum, the value of rank (n >> 1) + 1), on every
// accepted depth and layout, with regions, border rules, masks and tiles,
// on the portable workers and on the vector ones.
#include "tests/filter/nlf_test.h"

using namespace nlftest;

namespace {

enum Mode { MAX, MIN, MEDIAN };
using Filter = void (*)(const KuvImage*, KuvImage*, int32_t, int32_t, int32_t, int32_t);
constexpr Filter kFilter[3] = {kuvMaxFilter, kuvMinFilter, kuvMedianFilter};
constexpr const char* kName[3] = {"kuvMaxFilter", "kuvMinFilter", "kuvMedianFilter"};

const uint32_t kDepths[] = {KUV_DEPTH_1U,  KUV_DEPTH_8U,  KUV_DEPTH_8S,
                            KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};

// Windows (nCols x nRows): all up to 3x3, the network sizes 3x3 and 5x5
// (indices 4, 5) and the limits of the median strategies.
const std::pair<int, int> kWindows[] = {{1, 1}, {2, 1}, {1, 2}, {2, 2}, {3, 3}, {5, 5},
                                        {1, 9}, {1, 10}, {2, 3}, {3, 5}, {3, 7}, {3, 9},
                                        {9, 3}, {4, 6}, {7, 2}, {3, 2}, {1, 3}, {3, 1}};

// What a case fixes instead of drawing: depths from kDepths[first] on,
// window index, mode.
struct Draw {
    int firstDepth = 0, depths = 6, window = -1, mode = -1;
};

void runCase(uint64_t seed, PairOptions o, Draw d = {}) {
    Rng rng(seed);
    const uint32_t depth = kDepths[d.firstDepth + rng.uniform(0, d.depths - 1)];
    const Layout layout = kLayouts[depth == KUV_DEPTH_1U ? 0 : rng.uniform(0, kLayouts.size() - 1)];
    const auto [nCols, nRows] = kWindows[d.window >= 0 ? d.window : rng.uniform(0, std::size(kWindows) - 1)];
    const Shape s{nCols, nRows, int(rng.uniform(0, nCols - 1)), int(rng.uniform(0, nRows - 1))};
    const auto mode = Mode(d.mode >= 0 ? d.mode : rng.uniform(0, 2));
    if (rng.chance(0.5)) o.maxWidth = 90;   // rows long enough for whole vectors
    const Pair p = randomPair(rng, depth, layout, o);
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", " << kName[mode] << " "
                                      << depthName(depth) << " " << nCols << "x" << nRows);
    const auto rank = [mode](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return mode == MAX ? v.back() : mode == MIN ? v.front() : v[v.size() >> 1];
    };
    checkBothPaths(p, s, rank, [&] {
        kFilter[mode](p.header(0), p.header(1), s.nCols, s.nRows, s.anchorX, s.anchorY);
    });
}

TEST(RankFilter, MatchesSortedWindow) {
    for (uint64_t seed = 1; seed <= 400; ++seed) runCase(seed, PairOptions{});
}

TEST(RankFilter, TiledAndMaskedMatchTheReference) {
    for (uint64_t seed = 1001; seed <= 1200; ++seed) {
        runCase(seed, PairOptions{(seed & 1) != 0, (seed & 2) != 0, true, 23, 30});
    }
}

// The selection networks of 8- and 16-bit 3x3 and 5x5 medians, and the
// extremes of those windows, with many ties.
TEST(MedianFilter, NetworkWindowsMatchSortedWindow) {
    for (uint64_t seed = 2001; seed <= 2160; ++seed) {
        runCase(seed, PairOptions{false, false, seed % 3 == 0, 90, 17, 0.5},
                Draw{1, 4, seed % 2 == 0 ? 4 : 5, seed % 8 < 6 ? MEDIAN : int(seed % 2)});
    }
}

// The strategy of the portable median at the limits of its table.
TEST(MedianFilter, StrategyTable) {
    const struct {
        int depth, nCols, nRows;
        OwnMedianMethod method;
    } rows[] = {
        {OWN_8U, 1, 9, OWN_MEDIAN_SELECTION},  {OWN_8U, 1, 10, OWN_MEDIAN_HISTOGRAM},
        {OWN_8S, 2, 3, OWN_MEDIAN_HISTOGRAM},  {OWN_8S, 2, 2, OWN_MEDIAN_SELECTION},
        {OWN_8U, 3, 1, OWN_MEDIAN_SELECTION},  {OWN_8U, 4, 1, OWN_MEDIAN_HISTOGRAM},
        {OWN_16U, 3, 9, OWN_MEDIAN_RADIX},     {OWN_16U, 3, 7, OWN_MEDIAN_RADIX},
        {OWN_16S, 3, 5, OWN_MEDIAN_SELECTION}, {OWN_16S, 9, 3, OWN_MEDIAN_RADIX},
        {OWN_16U, 8, 3, OWN_MEDIAN_SELECTION}, {OWN_16U, 2, 8, OWN_MEDIAN_SELECTION},
        {OWN_16U, 1, 10, OWN_MEDIAN_RADIX},    {OWN_16S, 6, 4, OWN_MEDIAN_RADIX},
        {OWN_32S, 30, 30, OWN_MEDIAN_SELECTION}, {OWN_1U, 3, 3, OWN_MEDIAN_BITS},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(ownMedianMethod(r.depth, r.nCols, r.nRows), r.method) << r.nCols << "x" << r.nRows;
    }
}

TEST(MedianFilter, UpperOfTheTwoMiddleValues) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 2, 2), dst = makeImage(KUV_DEPTH_8U, 1, 2, 2);
    for (int k = 0; k < 4; ++k) put(src.get(), k % 2, k / 2, 0, k + 1);
    setRoi(src.get(), 0, 0, 0, 1, 1);
    kuvMedianFilter(src.get(), dst.get(), 2, 2, 0, 0);
    EXPECT_EQ(get(dst.get(), 0, 0, 0), 3);
}

// A failed tile request ends the call quietly, every granted tile given back.
TEST(RankFilter, FailedTileRequestEndsQuietly) {
    for (int k = 1; k <= 8; ++k) {
        ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 40, 30), b = makeImage(KUV_DEPTH_8U, 1, 40, 30);
        TileStore src(std::move(a), 16, 8), dst(std::move(b), 8, 16);
        (k % 2 != 0 ? src : dst).failRequest(k / 2 + 1);
        ReportCapture capture;
        kuvMinFilter(src.image(), dst.image(), 3, 3, 1, 1);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_EQ(kuvGetErrStatus(), 0);
        EXPECT_TRUE(src.held() + dst.held() == 0 && src.faults().empty() && dst.faults().empty());
    }
}

// Each refusal in the order of the tests; arguments are nCols, nRows,
// anchorX, anchorY.
TEST(RankFilter, Refusals) {
    using A = std::array<int, 4>;
    const auto image = [](uint32_t depth, int ch, int order = 0, int alpha = 0) {
        return makeImage(depth, ch, 5, 4, order, alpha);
    };
    const KuvStatus bad = KUV_StsBadArgument;
    const Refusal refusals[] = {
        {"null source", [](ImagePtr& s, ImagePtr&, A&) { s.reset(); }, KUV_StsNullHeader, 0, "Incorrect Image"},
        {"destination", [](ImagePtr&, ImagePtr& d, A&) { d->widthStep = 0; }, KUV_StsBadWidthStep, 0, "Incorrect Image"},
        {"anchorX", [](ImagePtr&, ImagePtr&, A& a) { a[2] = a[0]; }, bad, 0, "(anchorX>=nCols)||(anchorX<0)"},
        {"nCols 0", [](ImagePtr&, ImagePtr&, A& a) { a[0] = a[2] = 0; }, bad, 0, "(anchorX>=nCols)||(anchorX<0)"},
        {"anchorY", [](ImagePtr&, ImagePtr&, A& a) { a[3] = -1; }, bad, 0, "(anchorY>=nRows)||(anchorY<0)"},
        {"same image", [](ImagePtr&, ImagePtr& d, A&) { d.reset(); }, bad, 0, "(srcImage==dstImage)"},
        {"depths", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8S, 3); }, bad, 0,
         "srcImage->depth!=dstImage->depth"},
        {"float", [&](ImagePtr& s, ImagePtr& d, A&) { s = image(KUV_DEPTH_32F, 3), d = image(KUV_DEPTH_32F, 1); }, bad, 0,
         "srcImage->depth==32"},
        {"channels", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 4); }, bad, 0,
         "srcImage->nChannels!=dstImage->nChannels"},
        {"alpha", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1, 3); }, bad, 0,
         "srcImage->alphaChannel!=dstImage->alphaChannel"},
        {"order", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1); }, bad, 0,
         "srcImage->dataOrder!=dstImage->dataOrder"},
        {"counted channels", [](ImagePtr&, ImagePtr& d, A&) { setRoi(d.get(), 2, 0, 0, 5, 4); },
         KUV_StsBadCOI, 0, "Number of interset channel input and output Image is not equal."},
    };
    for (int mode = 0; mode < 3; ++mode) {
        for (const Refusal& r : refusals) {
            checkRefusal(r, kName[mode], {3, 3, 1, 1}, [&](const KuvImage* s, KuvImage* d, const A& a) {
                kFilter[mode](s, d, a[0], a[1], a[2], a[3]);
                return KuvStatus{0};
            });
        }
    }
}

// Quiet ends: a negative status left by an earlier call, no channel to
// filter. Bit images whose orders differ are accepted.
TEST(RankFilter, QuietEndsAndBitOrders) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 6, 5), dst = makeImage(KUV_DEPTH_8U, 1, 6, 5);
    ImagePtr alphaSrc = makeImage(KUV_DEPTH_8U, 1, 6, 5, 0, 1), alphaDst = makeLike(alphaSrc.get());
    RefusalGuard guard(dst.get(), alphaDst.get());
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadArgument);
    kuvMaxFilter(src.get(), dst.get(), 3, 3, 1, 1);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadArgument);
    kuvSetErrStatus(0);
    kuvMedianFilter(alphaSrc.get(), alphaDst.get(), 3, 3, 1, 1);
    EXPECT_TRUE(guard.intact());
    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 9, 4), bitsOut = makeImage(KUV_DEPTH_1U, 1, 9, 4, 1);
    fillRandom(bits.get(), 5);
    kuvMaxFilter(bits.get(), bitsOut.get(), 1, 1, 0, 0);
    EXPECT_EQ(capture.count(), 0u);
    for (int x = 0; x < 9; ++x) EXPECT_EQ(get(bitsOut.get(), x, 3, 0), get(bits.get(), x, 3, 0));
}

}  // namespace
