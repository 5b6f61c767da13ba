// kuvBlur against plain sums: the mean of the nCols by nRows samples from
// (x - anchorX, y - anchorY) on, s * f with f = 1 / (nCols * nRows) a 32-bit
// float, taken in double and rounded to nearest with ties to even (1U: 1 from
// 0.5 up). 32S and 32F run on integer samples small enough that the running
// float sums are exact; their drift has a test of its own. Random cases
// print their seed.
#include "tests/support/kuv_test.h"

#include "filter/blur.h"

#include <algorithm>
#include <cfenv>
#include <cmath>
#include <cstring>

namespace kuvfilter {  // shared helpers, defined in sepconv_test.cpp
using kuvtest::ImagePtr;
using kuvtest::Rng;
double bordered(const KuvImage* im, int64_t x, int64_t y, int c);
::testing::AssertionResult samePixels(const KuvImage* got, const KuvImage* want);
ImagePtr bare(const KuvImage* im);
void copyBorders(const KuvImage* from, KuvImage* to);
void dress(const KuvImage* from, KuvImage* to);
void randomBorders(Rng& r, KuvImage* im);
void randomRoi(Rng& r, KuvImage* im, int coi);
void randomMask(Rng& r, KuvImage* im);
struct Region {
    int x, y, w, h;
};
Region regionOf(const KuvImage* im);
bool maskAllows(const KuvImage* im, int x, int y);
}  // namespace kuvfilter

namespace {

using namespace kuvtest;
using namespace kuvfilter;

// The channels an image offers, 0-based: its coi alone, or all but alpha.
std::pair<int, int> channelsOf(const KuvImage* im) {
    if (im->roi != nullptr && im->roi->coi != 0) return {im->roi->coi - 1, 1};
    return {0, im->nChannels - (im->alphaChannel ? 1 : 0)};
}

ImagePtr reference(const KuvImage* src, const KuvImage* dst, int nCols, int nRows, int ax,
                   int ay) {
    ImagePtr want = copyImage(dst);
    const Region rs = regionOf(src), rd = regionOf(dst);
    int w = std::min(rs.w, rd.w), h = std::min(rs.h, rd.h);
    for (const KuvImage* m : {src->maskROI, dst->maskROI})
        if (m != nullptr) w = std::min(w, regionOf(m).w), h = std::min(h, regionOf(m).h);
    const auto [cs, count] = channelsOf(src);
    const int cd = channelsOf(dst).first;
    const double f = 1.0f / float(nCols * nRows);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < count; ++k) {
                if (!maskAllows(src, x, y) || !maskAllows(dst, x, y)) continue;
                double sum = 0;
                for (int j = 0; j < nRows; ++j)
                    for (int i = 0; i < nCols; ++i)
                        sum += bordered(src, rs.x + x - ax + i, rs.y + y - ay + j, cs + k);
                const double v = sum * f;
                const double mean = src->depth == KUV_DEPTH_1U    ? (v >= 0.5)
                                    : src->depth == KUV_DEPTH_32F ? double(float(v))
                                                                  : std::nearbyint(v);
                put(want.get(), rd.x + x, rd.y + y, cd + k, mean);
            }
    return want;
}

// An image offering `count` channels: that many, that many and alpha, or
// one channel of interest among several.
ImagePtr randomImage(Rng& r, uint32_t depth, int count) {
    const bool bits = depth == KUV_DEPTH_1U;
    const int shape = bits ? 0 : int(r.uniform(0, count == 1 ? 2 : 1));
    const int nCh = shape == 0 ? count : shape == 1 ? count + 1 : int(r.uniform(1, 4));
    ImagePtr im = makeImage(depth, nCh, int(r.uniform(1, 33)), int(r.uniform(1, 33)),
                            bits ? 0 : int(r.uniform(0, 1)), shape == 1 ? nCh : 0);
    if (depth == KUV_DEPTH_32S || depth == KUV_DEPTH_32F) fillRandomRange(im.get(), r.next(), -1000, 1000);
    else fillRandom(im.get(), r.next());
    auto* fl = reinterpret_cast<float*>(im->imageData);
    if (depth == KUV_DEPTH_32F) std::transform(fl, fl + im->imageSize / 4, fl, [](float v) { return std::round(v); });
    randomRoi(r, im.get(), shape == 2 ? int(r.uniform(1, nCh)) : -1);
    return im;
}

TEST(Blur, RandomCasesMatchPlainSums) {
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng r(seed);
        const uint32_t depth = allDepths()[seed % 7];
        const int count = depth == KUV_DEPTH_1U ? 1 : int(r.uniform(1, 3));
        ImagePtr src = randomImage(r, depth, count), dst = randomImage(r, depth, count);
        randomBorders(r, src.get());
        const int nCols = int(r.uniform(1, 7)), nRows = int(r.uniform(nCols == 1 ? 2 : 1, 7));
        const int ax = int(r.uniform(0, nCols - 1)), ay = int(r.uniform(0, nRows - 1));
        const int place = int(r.uniform(0, 5));   // 0-1 plain, 2 in place, 3 tiled dst, 4 tiled src, 5 both
        if (place == 2) dst = copyImage(src.get()), copyBorders(src.get(), dst.get());
        if (r.chance(0.2)) randomMask(r, src.get());
        if (place != 2 && r.chance(0.2)) randomMask(r, dst.get());
        if (place == 2 && src->maskROI) attachMask(dst.get(), copyImage(src->maskROI));
        const ImagePtr want = reference(src.get(), dst.get(), nCols, nRows, ax, ay);
        for (int path : {0, 1}) {
            ownBlurSelectPath(path);
            ImagePtr out = copyImage(dst.get());
            dress(dst.get(), out.get());
            ReportCapture capture;
            std::fesetround(FE_UPWARD);   // the blur sets its own rounding and puts this back
            kuvBlur(place == 2 ? out.get() : src.get(), out.get(), nCols, nRows, ax, ay);
            EXPECT_EQ(std::fegetround(), FE_UPWARD);
            std::fesetround(FE_TONEAREST);
            ownBlurSelectPath(-1);
            ASSERT_EQ(capture.count(), 0u) << capture.reports()[0];
            ASSERT_TRUE(samePixels(out.get(), want.get())) << "path " << path << " place " << place;
        }
        if (place < 2) continue;
        // Tiled images give what plain ones gave.
        TileStore ts(bare(src.get()), 8, 16), td(bare(dst.get()), 16, 8);
        dress(src.get(), ts.image());
        dress(dst.get(), td.image());
        ImagePtr plain = copyImage(dst.get());
        dress(dst.get(), plain.get());
        ReportCapture capture;
        if (place == 2) kuvBlur(td.image(), td.image(), nCols, nRows, ax, ay);
        else kuvBlur(place == 3 ? src.get() : ts.image(), place == 4 ? plain.get() : td.image(),
                     nCols, nRows, ax, ay);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(samePixels(place == 4 ? plain.get() : td.backing(), want.get()));
        EXPECT_TRUE(ts.faults().empty() && td.faults().empty());
        EXPECT_EQ(ts.held() + td.held(), 0);
    }
}

// 1U: one set bit of two is 0.5, which gives 1.
TEST(Blur, HalfOfTwoBitsIsOne) {
    ImagePtr b = makeImage(KUV_DEPTH_1U, 1, 2, 1), bd = makeImage(KUV_DEPTH_1U, 1, 2, 1);
    put(b.get(), 0, 0, 0, 1);
    kuvBlur(b.get(), bd.get(), 2, 1, 0, 0);
    EXPECT_EQ(get(bd.get(), 0, 0, 0), 1);
}

// With samples floor(k / N) the sum of N from x on is x: every sum an 8-bit
// window of N can have, rounded against the double product (N = 2: 2.5
// gives 2 and 3.5 gives 4).
TEST(Blur, EveryEightBitSumRoundsAsInDouble) {
    for (int n : {2, 3, 6, 9, 10, 25, 49, 100, 225, 1023}) {
        for (uint32_t depth : {KUV_DEPTH_8U, KUV_DEPTH_8S}) {
            const int low = depth == KUV_DEPTH_8U ? 0 : -128;
            ImagePtr src = makeImage(depth, 1, 256 * n, 1), dst = makeImage(depth, 1, 255 * n + 1, 1);
            for (int k = 0; k < 256 * n; ++k) put(src.get(), k, 0, 0, low + k / n);
            kuvBlur(src.get(), dst.get(), n, 1, 0, 0);
            const double f = 1.0f / float(n);
            for (int x = 0; x <= 255 * n; ++x) {
                ASSERT_EQ(get(dst.get(), x, 0, 0), std::nearbyint((x + low * n) * f)) << n << " " << x;
            }
        }
    }
}

// Float column sums drift when magnitudes differ; the result stays close.
TEST(Blur, FloatRunningSumsStayNearPlainSums) {
    ImagePtr src = makeImage(KUV_DEPTH_32F, 1, 40, 30), dst = makeImage(KUV_DEPTH_32F, 1, 40, 30);
    Rng r(7);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) put(src.get(), x, y, 0, r.real(-1, 1) * (x % 3 ? 1e-3 : 1e4));
    const ImagePtr want = reference(src.get(), dst.get(), 5, 5, 2, 2);
    kuvBlur(src.get(), dst.get(), 5, 5, 2, 2);
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) EXPECT_NEAR(get(dst.get(), x, y, 0), get(want.get(), x, y, 0), 0.02);
}

// A failed tile request ends the call with its report; every tile granted
// before it is handed back. In place the destination's requests are writes.
TEST(Blur, FailedTileRequestReleasesWhatWasGranted) {
    int failed = 0;
    for (int k = 1; k <= 9; ++k) {
        TileStore ts(makeImage(KUV_DEPTH_16S, 2, 20, 20), 8, 8), td(makeImage(KUV_DEPTH_16S, 2, 20, 20), 8, 8);
        (k % 2 ? ts : td).failRequest(k / 2 + 1);
        ReportCapture capture;
        kuvBlur(ts.image(), k % 3 ? td.image() : ts.image(), 3, 5, 1, 2);
        if (capture.count() != 0 && ++failed) {
            const Report& r = capture.reports()[0];
            EXPECT_TRUE(isReport(r, KUV_StsFailure, "kuvBlur", "Error get tile to write", "kuvBlur") ||
                        isReport(r, KUV_StsOutOfMemory, "kuvBlur", "Allocation failure", "kuvBlur")) << r;
        }
        EXPECT_TRUE(ts.held() + td.held() == 0 && ts.faults().empty() && td.faults().empty());
    }
    EXPECT_GT(failed, 4);
}

TEST(Blur, RefusalsInOrder) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 3, 8, 8), b = makeImage(KUV_DEPTH_8U, 3, 8, 8);
    ImagePtr s8 = makeImage(KUV_DEPTH_8S, 3, 8, 8), two = makeImage(KUV_DEPTH_8U, 2, 8, 8);
    ImagePtr lone = makeImage(KUV_DEPTH_8U, 1, 8, 8, 0, 1);
    struct Case {
        const KuvImage* src;
        KuvImage* dst;
        int nCols, nRows, ax, ay;
        KuvStatus status;
        const char* text;
    } cases[] = {
        {nullptr, b.get(), 3, 3, 1, 1, KUV_StsNullHeader, "Incorrect Image"},
        {a.get(), s8.get(), 3, 3, 1, 1, KUV_StsBadArgument, "(srcImage->depth!=dstImage->depth)"},
        {a.get(), b.get(), 3, -1, -1, 1, KUV_StsBadArgument, "(nRows<0||nCols<0)"},
        {a.get(), b.get(), 3, 3, 1, -1, KUV_StsBadArgument, "(anchorX<0||anchorY<0)"},
        {a.get(), b.get(), 0, 3, 0, 1, KUV_StsBadArgument, "(anchorX>=nCols||anchorY>=nRows)"},
        {a.get(), b.get(), 3, 3, 1, 3, KUV_StsBadArgument, "(anchorX>=nCols||anchorY>=nRows)"},
        {lone.get(), b.get(), 3, 3, 1, 1, KUV_StsBadAlphaChannel, "bad alpha channel's number"},
        {a.get(), two.get(), 3, 3, 1, 1, KUV_StsBadChannels, "bad channel's number"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        ReportCapture capture;
        RefusalGuard guard(c.src, c.dst);
        kuvBlur(c.src, c.dst, c.nCols, c.nRows, c.ax, c.ay);
        EXPECT_TRUE(oneReport(capture, c.status, "kuvBlur", c.text, "kuvBlur"));
        EXPECT_TRUE(guard.intact());
    }
    // 1 by 1 is kuvCopy, with its rules and reports, then a backtrace.
    ReportCapture capture;
    ImagePtr planes = makeImage(KUV_DEPTH_8U, 3, 8, 8, KUV_DATA_ORDER_PLANE);
    kuvBlur(a.get(), planes.get(), 1, 1, 0, 0);
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_EQ(capture.reports()[0].func, "kuvCopy");
    EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvBlur", "", "kuvBlur"));
    fillRandom(a.get(), 3);
    capture.clear();
    kuvSetErrStatus(0);
    kuvBlur(a.get(), b.get(), 1, 1, 0, 0);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(samePixels(b.get(), a.get()));
}

}  // namespace
