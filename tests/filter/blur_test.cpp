// kuvBlur against plain sums: the mean of the nCols by nRows samples from
// (x - anchorX, y - anchorY) on, s * f with f = 1 / (nCols * nRows) a 32-bit
// float, taken in double and rounded to nearest with ties to even (1U: 1 from
// 0.5 up). 32S and 32F run on integers small enough that the running float
// sums are exact.
#include "tests/filter/filter_test.h"


#include <cfenv>

using namespace filtertest;

namespace {

double mean(uint32_t depth, double sum, int n) {
    const double v = sum * double(1.0f / float(n));
    return depth == KUV_DEPTH_1U ? v >= 0.5 : depth == KUV_DEPTH_32F ? double(float(v)) : std::nearbyint(v);
}

TEST(Blur, RandomCasesMatchPlainSums) {
    Options o{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}};
    o.inPlace = true;
    o.fill = [](KuvImage* im, Rng& rng) {
        if (im->depth != KUV_DEPTH_32S && im->depth != KUV_DEPTH_32F) return;
        fillRandomRange(im, rng.next(), -1000, 1000);
        auto* f = reinterpret_cast<float*>(im->imageData);
        for (int32_t k = 0; im->depth == KUV_DEPTH_32F && k < im->imageSize / 4; ++k) f[k] = std::round(f[k]);
    };
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng rng(seed);
        const uint32_t depth = allDepths()[seed % 7];
        const int nCols = int(rng.uniform(1, 7)), nRows = int(rng.uniform(nCols == 1 ? 2 : 1, 7));
        const int ax = int(rng.uniform(0, nCols - 1)), ay = int(rng.uniform(0, nRows - 1));
        const Pair p = randomPair(rng, depth, o);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " " << depthName(depth) << " " << nCols << "x" << nRows);
        checkPair(p, [&](const Px& px) {
            const std::vector<double> v = px.window(nCols, nRows, ax, ay);
            double s = 0;
            for (double e : v) s += e;
            return mean(depth, s, nCols * nRows);
        }, false, vectorPaths, [&](const KuvImage* s, KuvImage* d) {
            std::fesetround(FE_UPWARD);   // the blur sets its own rounding and puts this back
            kuvBlur(s, d, nCols, nRows, ax, ay);
            EXPECT_EQ(std::fegetround(), FE_UPWARD);
            std::fesetround(FE_TONEAREST);
        });
    }
}

// With samples floor(k / N) the sum of N from x on is x: every sum an 8-bit
// window of N can have, against the double product (N = 2: 2.5 gives 2, 3.5
// gives 4; 1U: one bit of two gives 1).
TEST(Blur, EveryEightBitSumRoundsAsInDouble) {
    for (int n : {2, 3, 6, 9, 10, 25, 49, 100, 225, 1023})
        for (uint32_t depth : {KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_1U}) {
            const int low = depth == KUV_DEPTH_8S ? -128 : 0, top = depth == KUV_DEPTH_1U ? 2 : 256;
            ImagePtr src = makeImage(depth, 1, top * n, 1), dst = makeImage(depth, 1, (top - 1) * n + 1, 1);
            for (int k = 0; k < top * n; ++k) put(src.get(), k, 0, 0, low + k / n);
            kuvBlur(src.get(), dst.get(), n, 1, 0, 0);
            for (int x = 0; x <= (top - 1) * n; ++x)
                ASSERT_EQ(get(dst.get(), x, 0, 0), mean(depth, x + low * n, n)) << n << " " << x;
        }
}

// Float column sums drift when magnitudes differ: a small residue is allowed.
TEST(Blur, FloatRunningSumsStayNearPlainSums) {
    ImagePtr src = makeImage(KUV_DEPTH_32F, 1, 40, 30), dst = makeImage(KUV_DEPTH_32F, 1, 40, 30);
    Rng r(7);
    for (int k = 0; k < 1200; ++k) put(src.get(), k % 40, k / 40, 0, r.real(-1, 1) * (k % 3 ? 1e-3 : 1e4));
    kuvBlur(src.get(), dst.get(), 5, 5, 2, 2);
    for (int k = 0; k < 1200; ++k) {
        double s = 0;
        for (int d = 0; d < 25; ++d) s += bordered(src.get(), src.get(), k % 40 - 2 + d % 5, k / 40 - 2 + d / 5, 0);
        EXPECT_NEAR(get(dst.get(), k % 40, k / 40, 0), s / 25, 0.02);
    }
}

// Arguments: nCols, nRows, anchorX, anchorY.
TEST(Blur, RefusalsInOrder) {
    using A = std::vector<int>;
    const KuvStatus bad = KUV_StsBadArgument;
    const std::vector<Refusal> rows = {
        {"Incorrect Image", KUV_StsNullHeader, [](ImagePtr& s, ImagePtr&, A& a) { s.reset(), a[0] = -1; }},
        {"(srcImage->depth!=dstImage->depth)", bad, [](ImagePtr&, ImagePtr& d, A& a) { d = makeImage(KUV_DEPTH_8S, 2, 8, 6), a[0] = -1; }},
        {"(nRows<0||nCols<0)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[1] = -1, a[2] = -1; }},
        {"(anchorX<0||anchorY<0)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[3] = -1; }},
        {"(anchorX>=nCols||anchorY>=nRows)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = a[2] = 0; }},
        {"(anchorX>=nCols||anchorY>=nRows)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[3] = 3; }},
        {"bad alpha channel's number", KUV_StsBadAlphaChannel, [](ImagePtr& s, ImagePtr&, A&) { s = makeImage(KUV_DEPTH_8U, 1, 8, 6, 0, 1); }},
        {"bad channel's number", KUV_StsBadChannels, [](ImagePtr&, ImagePtr& d, A&) { d = makeImage(KUV_DEPTH_8U, 2, 8, 6); }},
    };
    checkRefusals(rows, "kuvBlur", "kuvBlur", {3, 3, 1, 1}, [](const KuvImage* s, KuvImage* d, const A& a) {
        kuvBlur(s, d, a[0], a[1], a[2], a[3]);
        return KuvStatus{0};
    });
    // 1 by 1 is kuvCopy, with its rules and reports, then a backtrace.
    ImagePtr a = makeImage(KUV_DEPTH_8U, 3, 8, 8), b = makeImage(KUV_DEPTH_8U, 3, 8, 8), planes = makeImage(KUV_DEPTH_8U, 3, 8, 8, 1);
    ReportCapture capture;
    kuvBlur(a.get(), planes.get(), 1, 1, 0, 0);
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_EQ(capture.reports()[0].func, "kuvCopy");
    EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvBlur", "", "kuvBlur"));
    fillRandom(a.get(), 3);
    capture.clear();
    kuvSetErrStatus(0);
    kuvBlur(a.get(), b.get(), 1, 1, 0, 0);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(sameBytes(b.get(), a.get()));
}

}  // namespace
