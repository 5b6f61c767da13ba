// kuvMaxFilter, kuvMinFilter and kuvMedianFilter against the window sorted in
// the test (maximum, minimum, the value of rank (n >> 1) + 1), on every
// accepted depth and layout, with regions, border rules, masks and tiles.
#include "tests/filter/filter_test.h"

#include "filter/nlf.h"

#include <functional>

using namespace filtertest;

namespace {

using Filter = void (*)(const KuvImage*, KuvImage*, int32_t, int32_t, int32_t, int32_t);
constexpr Filter kFilter[3] = {kuvMaxFilter, kuvMinFilter, kuvMedianFilter};
constexpr const char* kName[3] = {"kuvMaxFilter", "kuvMinFilter", "kuvMedianFilter"};

// Windows up to 3x3, the 3x3 and 5x5 networks and the limits of the median strategies
// (8-bit: 1x9 selection, 1x10 and 2x3 histogram; 16-bit: 3x7, 3x9 radix, 3x5 not).
const std::pair<int, int> kWindows[] = {{1, 1}, {2, 1}, {1, 2}, {2, 2}, {3, 3}, {5, 5}, {1, 9}, {1, 10}, {2, 3},
                                        {3, 5}, {3, 7}, {3, 9}, {9, 3}, {4, 6}, {7, 2}, {3, 2}, {4, 1}, {2, 8}};

TEST(RankFilter, MatchesSortedWindow) {
    const uint32_t depths[] = {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};
    Options o{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}};
    o.fill = [](KuvImage* im, Rng& rng) {   // often a few values only: ties
        if (im->depth != KUV_DEPTH_1U && rng.chance(0.4)) fillRandomRange(im, rng.next(), depthMin(im->depth) ? -2 : 0, depthMin(im->depth) ? 1 : 3);
    };
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng rng(seed);
        const uint32_t depth = depths[rng.uniform(0, 5)];
        const auto [nCols, nRows] = kWindows[rng.chance(0.3) ? rng.uniform(4, 5) : rng.uniform(0, std::size(kWindows) - 1)];   // networks
        const int ax = int(rng.uniform(0, nCols - 1)), ay = int(rng.uniform(0, nRows - 1)), mode = int(rng.uniform(0, 2));
        const Pair p = randomPair(rng, depth, o);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", " << kName[mode] << " " << depthName(depth) << " " << nCols << "x" << nRows);
        checkPair(p, [&](const Px& px) {
            std::vector<double> v = px.window(nCols, nRows, ax, ay);
            std::sort(v.begin(), v.end());
            return mode == 0 ? v.back() : mode == 1 ? v.front() : v[v.size() >> 1];
        }, false, vectorPaths, [&](const KuvImage* s, KuvImage* d) { kFilter[mode](s, d, nCols, nRows, ax, ay); });
    }
}

// A tile request that fails, of the source or of the destination: the report
// each filter makes of it (the rank filters none, any "Allocation failure" for a
// window that could not be read), every granted tile given back.
TEST(Filters, FailedTileRequestReleasesWhatWasGranted) {
    const int32_t taps[3] = {1, 2, 1};
    KuvConvKernel *row = kuvCreateConvKernel(3, 1, 1, 0, taps, 0), *col = kuvCreateConvKernel(1, 3, 0, 1, taps, 0);
    using F = std::function<void(const KuvImage*, KuvImage*)>;
    const struct { F call; bool src; const char *func, *text, *file; KuvStatus status; } rows[] = {
        {[](auto s, auto d) { kuvMinFilter(s, d, 3, 3, 1, 1); }, true, "kuvMinFilter", nullptr, nullptr, 0},
        {[](auto s, auto d) { kuvBlur(s, d, 3, 5, 1, 2); }, true, "kuvBlur", "Error get tile to write", "kuvBlur", KUV_StsFailure},
        {[&](auto s, auto d) { kuvConvolveSep2D(s, d, row, col); }, true, "kuvConvolveSep2D", "Not enough memory", "kuvCSep2", KUV_StsBacktrace},
        {[](auto s, auto d) { kuvDilate(s, d, 1); }, false, "kuvDilate", "(dstImage->tileInfo->tileData == ((void*)(0)))", "ownMorph", KUV_StsBadArgument},
        {[&](auto s, auto d) { kuvConvolve2D(s, d, &row, 1, 0); }, true, "kuvConvolve2D", "Internal error", "kuvcnv2d", KUV_StsBadArgument}};
    for (const auto& r : rows) {
        int reported = 0;   // a request past the call's last one fails nothing
        for (int k = r.src ? 1 : 2; k <= 9; k += r.src ? 1 : 2) {
            SCOPED_TRACE(::testing::Message() << r.func << " request " << k);
            TileStore ts(makeImage(KUV_DEPTH_16U, 2, 20, 20), 8, 16), td(makeImage(KUV_DEPTH_16U, 2, 20, 20), 16, 8);
            (k % 2 ? ts : td).failRequest(k / 2 + 1);
            ReportCapture capture;
            r.call(ts.image(), td.image());
            const Report* got = capture.count() == 1 ? &capture.reports()[0] : nullptr;
            reported += capture.count() != 0;
            EXPECT_TRUE(r.text ? capture.count() == 0 || (got && isReport(*got, r.status, r.func, r.text, r.file)) ||
                                     (got && isReport(*got, KUV_StsOutOfMemory, r.func, "Allocation failure", r.file))
                               : capture.count() == 0 && kuvGetErrStatus() == 0);
            EXPECT_TRUE(ts.held() + td.held() == 0 && ts.faults().empty() && td.faults().empty());
        }
        EXPECT_TRUE(r.text == nullptr || reported > 2) << r.func;
    }
    kuvDeleteConvKernel(row), kuvDeleteConvKernel(col);
}

// Arguments: nCols, nRows, anchorX, anchorY.
TEST(RankFilter, RefusalsInOrder) {
    using A = std::vector<int>;
    const KuvStatus bad = KUV_StsBadArgument;
    auto image = [](uint32_t depth, int ch, int order = 0, int alpha = 0) { return makeImage(depth, ch, 8, 6, order, alpha); };
    const std::vector<Refusal> rows = {
        {"Incorrect Image", KUV_StsNullHeader, [](ImagePtr& s, ImagePtr&, A&) { s.reset(); }},
        {"Incorrect Image", KUV_StsBadAlign, [](ImagePtr&, ImagePtr& d, A&) { d->align = 3; }},
        {"(anchorX>=nCols)||(anchorX<0)", bad, [](ImagePtr&, ImagePtr& d, A& a) { a[2] = a[0], d.reset(); }},
        {"(anchorX>=nCols)||(anchorX<0)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = a[2] = 0; }},
        {"(anchorY>=nRows)||(anchorY<0)", bad, [](ImagePtr&, ImagePtr& d, A& a) { a[3] = -1, d.reset(); }},
        {"(srcImage==dstImage)", bad, [](ImagePtr&, ImagePtr& d, A&) { d.reset(); }},
        {"srcImage->depth!=dstImage->depth", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8S, 4); }},
        {"srcImage->depth==32", bad, [&](ImagePtr& s, ImagePtr& d, A&) { s = image(KUV_DEPTH_32F, 3), d = image(KUV_DEPTH_32F, 1); }},
        {"srcImage->nChannels!=dstImage->nChannels", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 4, 0, 4); }},
        {"srcImage->alphaChannel!=dstImage->alphaChannel", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1, 3); }},
        {"srcImage->dataOrder!=dstImage->dataOrder", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1); }},
        {"Number of interset channel input and output Image is not equal.", KUV_StsBadCOI,
         [](ImagePtr&, ImagePtr& d, A&) { setRoi(d.get(), 2, 0, 0, 5, 4); }},
    };
    for (int mode = 0; mode < 3; ++mode)
        checkRefusals(rows, kName[mode], "kuvnlf", {3, 3, 1, 1}, [&](const KuvImage* s, KuvImage* d, const A& a) {
            kFilter[mode](s, d, a[0], a[1], a[2], a[3]);
            return KuvStatus{0};
        });
}

// Quiet ends of the shared driver: a negative status left by an earlier call
// (returned by the fixed filter), no channel to filter. Bit images whose
// orders differ are accepted.
TEST(Filters, QuietEndsAndBitOrders) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 6, 5), dst = makeImage(KUV_DEPTH_8U, 1, 6, 5);
    ImagePtr alphaSrc = makeImage(KUV_DEPTH_16S, 1, 6, 5, 0, 1), alphaDst = makeLike(alphaSrc.get());
    fillRandom(src.get(), 4);
    RefusalGuard guard(dst.get(), alphaDst.get());
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadROISize);
    kuvMaxFilter(src.get(), dst.get(), 3, 3, 1, 1);
    EXPECT_EQ(kuvFixedFilter(src.get(), dst.get(), 0), KUV_StsBadROISize);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadROISize);
    kuvSetErrStatus(0);
    kuvMedianFilter(alphaSrc.get(), alphaDst.get(), 3, 3, 1, 1);
    EXPECT_EQ(kuvFixedFilter(alphaSrc.get(), alphaDst.get(), 0), 0);
    EXPECT_TRUE(guard.intact());
    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 9, 4), bitsOut = makeImage(KUV_DEPTH_1U, 1, 9, 4, 1);
    fillRandom(bits.get(), 5);
    EXPECT_EQ(kuvFixedFilter(bits.get(), bitsOut.get(), 4), 0);
    kuvMaxFilter(bits.get(), bitsOut.get(), 1, 1, 0, 0);
    EXPECT_EQ(capture.count(), 0u);
    for (int x = 0; x < 9; ++x) EXPECT_EQ(get(bitsOut.get(), x, 3, 0), get(bits.get(), x, 3, 0));
}

}  // namespace
