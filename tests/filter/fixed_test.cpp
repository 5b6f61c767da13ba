// kuvFixedFilter against references written from the kernel table: exact
// weighted sums with the divisors' rounding and saturation at 8 and 16 bits,
// the row and column stages rounded to single precision in the float class,
// sums against a threshold for bit images; every depth, layout, region,
// border rule, mask and tiling, on both worker paths.
#include "tests/filter/nlf_test.h"

#include <cmath>
#include <tuple>

using namespace nlftest;

namespace {

// The kernels as applied (not reversed): size, weights row by row, divisor.
struct KernelRef {
    int size;
    std::vector<int> w;
    int divisor;
};
const KernelRef kKernels[11] = {
    {3, {1, 0, -1, 1, 0, -1, 1, 0, -1}, 1},
    {3, {-1, -1, -1, 0, 0, 0, 1, 1, 1}, 1},
    {3, {1, 0, -1, 2, 0, -2, 1, 0, -1}, 1},
    {3, {-1, -2, -1, 0, 0, 0, 1, 2, 1}, 1},
    {3, {-1, -1, -1, -1, 8, -1, -1, -1, -1}, 1},
    {5, {-1, -3, -4, -3, -1, -3, 0, 6, 0, -3, -4, 6, 20, 6, -4, -3, 0, 6, 0, -3, -1, -3, -4, -3, -1}, 1},
    {3, {1, 2, 1, 2, 4, 2, 1, 2, 1}, 16},
    {5, {2, 7, 12, 7, 2, 7, 31, 52, 31, 7, 12, 52, 127, 52, 12, 7, 31, 52, 31, 7, 2, 7, 12, 7, 2}, 571},
    {3, {-1, -1, -1, -1, 8, -1, -1, -1, -1}, 1},
    {5, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 24, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}, 1},
    {3, {-1, -1, -1, -1, 16, -1, -1, -1, -1}, 8},
};

double weighted(int id, const std::vector<double>& x) {
    double v = 0;
    for (size_t k = 0; k < x.size(); ++k) v += kKernels[id].w[k] * x[k];
    return v;
}

// The row stage of a window row x[0..size) as the kernel's products.
std::vector<float> rowStage(int id, const float* x) {
    const double a = x[0], b = x[1], c = x[2], d = x[3], e = x[4];
    switch (id) {
        case 0: case 2: return {float(a - c)};
        case 1: return {float(a + b + c)};
        case 3: case 6: return {float(a + 2 * b + c)};
        case 4: case 8: case 10: return {float(a + b + c), float((id == 10 ? 17 : 9) * b)};
        case 9: return {float(a + b + c + d + e), float(25 * c)};
        case 5:
            return {float(-(a + 3 * b + 4 * c + 3 * d + e)), float(-3 * a + 6 * c - 3 * e),
                    float(-4 * a + 6 * b + 20 * c + 6 * d - 4 * e)};
    }
    const int w[3][5] = {{2, 7, 12, 7, 2}, {7, 31, 52, 31, 7}, {12, 52, 127, 52, 12}};
    std::vector<float> out;   // Gauss 5: the weights divided by 571 as float constants
    for (const auto& row : w) {
        double v = double(float(row[0]) / 571.0f) * a;
        for (int t = 1; t < 5; ++t) v += double(float(row[t]) / 571.0f) * x[t];
        out.push_back(float(v));
    }
    return out;
}

// The column stage over the window rows' products p[row][product].
float columnStage(int id, const std::vector<std::vector<float>>& p) {
    switch (id) {
        case 0: return float(double(p[0][0]) + p[1][0] + p[2][0]);
        case 2: case 6: return float(double(p[0][0]) + 2.0 * p[1][0] + p[2][0]);
        case 1: case 3: return float(double(p[2][0]) - p[0][0]);
        case 4: case 8: case 10: return float(double(p[1][1]) - (double(p[0][0]) + p[1][0] + p[2][0]));
        case 9: return float(p[2][1] - (double(p[0][0]) + p[1][0] + p[2][0] + p[3][0] + p[4][0]));
    }
    return float(double(p[0][0]) + p[1][1] + p[2][2] + p[3][1] + p[4][0]);
}

// Float to pixel: saturation, then nearest with ties to even.
double toDepth(uint32_t depth, float x) {
    const double lo = depthMin(depth), hi = depthMax(depth);
    if (depth == KUV_DEPTH_32F) return x;
    if (depth & KUV_DEPTH_SIGN) return x >= hi + 0.5 ? hi : x <= lo - 0.5 ? lo : std::nearbyint(double(x));
    return x < 0 ? 0 : x >= hi ? hi : std::nearbyint(x);
}

bool floatClass(int id, uint32_t depth) {
    return depth == KUV_DEPTH_32S || depth == KUV_DEPTH_32F || (id == 7 && depth != KUV_DEPTH_1U);
}

double fixedRef(int id, uint32_t depth, const std::vector<double>& window) {
    if (depth == KUV_DEPTH_1U) return weighted(id, window) > (id == 6 ? 7 : id == 7 ? 285 : 0);
    if (!floatClass(id, depth)) {
        const double v = weighted(id, window), d = kKernels[id].divisor;
        return std::clamp(d == 1 ? v : std::nearbyint(v / d), depthMin(depth), depthMax(depth));
    }
    const int size = kKernels[id].size;
    std::vector<std::vector<float>> products;
    for (int r = 0; r < size; ++r) {
        float x[5] = {};
        for (int t = 0; t < size; ++t) x[t] = float(window[size_t(r * size + t)]);
        products.push_back(rowStage(id, x));
    }
    return toDepth(depth, columnStage(id, products) * (id == 6 ? 0.0625f : id == 10 ? 0.125f : 1.0f));
}

void runCase(uint64_t seed, PairOptions o) {
    Rng rng(seed);
    const uint32_t depth = allDepths()[rng.uniform(0, 6)];
    const Layout layout = kLayouts[depth == KUV_DEPTH_1U ? 0 : rng.uniform(0, kLayouts.size() - 1)];
    const int id = int(rng.uniform(0, depth == KUV_DEPTH_1U ? 9 : 10));
    if (rng.chance(0.5)) o.maxWidth = 70;   // rows long enough for whole vectors
    const Pair p = randomPair(rng, depth, layout, o);
    if (id == 9 && floatClass(id, depth)) {
        // Highpass 5 keeps running sums in single precision, whose rounding
        // depends on where a block starts: take integers that they hold exactly.
        KuvImage* src = p.pixels(0);
        fillRandomRange(src, rng.next(), -1000.0, 1000.0);
        auto* f = reinterpret_cast<float*>(src->imageData);
        for (int32_t k = 0; depth == KUV_DEPTH_32F && k < src->imageSize / 4; ++k) f[k] = std::round(f[k]);
    }
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", filter " << id << " " << depthName(depth));
    const int size = kKernels[id].size;
    checkBothPaths(p, Shape{size, size, size / 2, size / 2},
                   [&](const std::vector<double>& w) { return fixedRef(id, depth, w); },
                   [&] { EXPECT_EQ(kuvFixedFilter(p.header(0), p.header(1), id), 0); });
}

TEST(FixedFilter, MatchesKernelTable) {
    for (uint64_t seed = 1; seed <= 500; ++seed) runCase(seed, PairOptions{});
}

TEST(FixedFilter, TiledAndMaskedMatchTheReference) {
    for (uint64_t seed = 3001; seed <= 3200; ++seed) {
        runCase(seed, PairOptions{(seed & 1) != 0, (seed & 2) != 0, true, 23, 30});
    }
}

// The float reference's stages compose to the kernel table.
TEST(FixedFilter, StagesComposeToTheKernels) {
    for (int id = 0; id <= 10; ++id) {
        const int size = kKernels[id].size;
        for (int k = 0; k < size * size && id != 7; ++k) {
            std::vector<std::vector<float>> products;
            for (int r = 0; r < size; ++r) {
                float x[5] = {};
                x[k % size] = r == k / size ? 1.0f : 0.0f;
                products.push_back(rowStage(id, x));
            }
            EXPECT_EQ(columnStage(id, products), kKernels[id].w[size_t(k)]) << id << " " << k;
        }
    }
}

// The centre of a 5x5 image whose only nonzero pixels are given.
double centreOf(uint32_t depth, int id, const std::vector<std::tuple<int, int, double>>& pixels) {
    ImagePtr src = makeImage(depth, 1, 5, 5), dst = makeImage(depth, 1, 5, 5);
    for (const auto& [x, y, v] : pixels) put(src.get(), x, y, 0, v);
    EXPECT_EQ(kuvFixedFilter(src.get(), dst.get(), id), 0);
    return get(dst.get(), 2, 2, 0);
}

TEST(FixedFilter, RoundingSaturationAndThresholds) {
    std::vector<std::tuple<int, int, double>> up, down, solid;
    for (int y = 1; y <= 3; ++y) {
        up.insert(up.end(), {{1, y, 127.0}, {3, y, -128.0}});
        down.insert(down.end(), {{1, y, -128.0}, {3, y, 127.0}});
        for (int x = 1; x <= 3; ++x) solid.emplace_back(x, y, 1);
    }
    for (int path : {0, 1}) {
        ownNlfSelectPath(path);
        // Prewitt X is left minus right: 3 * 255 saturates, and so do biased signed bytes.
        EXPECT_EQ(centreOf(KUV_DEPTH_8U, 0, {{1, 1, 255}, {1, 2, 255}, {1, 3, 255}}), 255);
        EXPECT_EQ(centreOf(KUV_DEPTH_8U, 0, {{3, 1, 255}, {3, 2, 255}, {3, 3, 255}}), 0);
        EXPECT_EQ(centreOf(KUV_DEPTH_8S, 0, up), 127);
        EXPECT_EQ(centreOf(KUV_DEPTH_8S, 0, down), -128);
        EXPECT_EQ(centreOf(KUV_DEPTH_16S, 2, {{1, 2, -32768}, {3, 2, 32767}}), -32768);
        // Gauss 3: sums of 24, 40, 56, 8 are 1.5, 2.5, 3.5, 0.5: to even.
        for (const auto& [centre, q] : {std::pair{6, 2}, {10, 2}, {14, 4}, {2, 0}}) {
            EXPECT_EQ(centreOf(KUV_DEPTH_8U, 6, {{2, 2, centre}}), q) << centre;
            EXPECT_EQ(centreOf(KUV_DEPTH_8S, 6, {{2, 2, -centre}}), -q) << centre;
        }
        // Sharpen: 47 / 8 -> 6, 12 / 8 = 1.5 -> 2, 2160 / 8 saturates.
        EXPECT_EQ(centreOf(KUV_DEPTH_16U, 10, {{2, 2, 3}, {1, 1, 1}}), 6);
        EXPECT_EQ(centreOf(KUV_DEPTH_16U, 10, {{2, 2, 1}, {1, 1, 1}, {3, 3, 1}, {1, 3, 1}, {3, 1, 1}}), 2);
        EXPECT_EQ(centreOf(KUV_DEPTH_8S, 10, {{2, 2, 127}, {1, 2, -128}}), 127);
        // Bits: Gauss 3 at 7 and 8 of 16, Gauss 5 at 285 and 286 of 571.
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 6, {{2, 2, 1}, {2, 1, 1}, {1, 1, 1}}), 0);
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 6, {{2, 2, 1}, {2, 1, 1}, {1, 1, 1}, {3, 3, 1}}), 1);
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 7, {{2, 2, 1}, {1, 2, 1}, {3, 2, 1}, {2, 1, 1}, {0, 0, 1}}), 0);
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 7, {{2, 2, 1}, {1, 2, 1}, {3, 2, 1}, {1, 1, 1}, {0, 2, 1}, {4, 2, 1}}), 1);
        // Laplace 3 on bits: an isolated bit stays, the inside of a solid area clears.
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 4, {{2, 2, 1}}), 1);
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 4, solid), 0);
        EXPECT_EQ(centreOf(KUV_DEPTH_1U, 9, solid), 1);
    }
    ownNlfSelectPath(-1);
}

// Sharpen on bits is a copy of the region; nothing else changes.
TEST(FixedFilter, SharpenOnBitsCopies) {
    ImagePtr src = makeImage(KUV_DEPTH_1U, 1, 21, 5), dst = makeImage(KUV_DEPTH_1U, 1, 21, 5);
    fillRandom(src.get(), 11);
    setRoi(dst.get(), 0, 3, 1, 10, 3);
    ImagePtr expected = copyImage(dst.get());
    for (int k = 0; k < 30; ++k) put(expected.get(), 3 + k % 10, 1 + k / 10, 0, get(src.get(), k % 10, k / 10, 0));
    ReportCapture capture;
    EXPECT_EQ(kuvFixedFilter(src.get(), dst.get(), KUV_FILTER_SHARPEN_3), 0);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(sameBytes(dst.get(), expected.get()));
}

// Each refusal with what it reports and what it returns; the argument is
// the filter id.
TEST(FixedFilter, RefusalsReportAndReturn) {
    using A = std::array<int, 4>;
    const auto image = [](uint32_t depth, int ch, int order = 0, int alpha = 0) {
        return makeImage(depth, ch, 5, 4, order, alpha);
    };
    const KuvStatus bad = KUV_StsBadArgument;
    const Refusal refusals[] = {
        {"null source", [](ImagePtr& s, ImagePtr&, A&) { s.reset(); }, KUV_StsNullHeader, KUV_StsNullHeader, "Incorrect Image"},
        {"destination", [](ImagePtr&, ImagePtr& d, A&) { d->nChannels = 0; }, KUV_StsBadChannels, KUV_StsBadChannels, "Incorrect Image"},
        {"same image", [](ImagePtr&, ImagePtr& d, A&) { d.reset(); }, bad, bad, "(srcImage==dstImage)"},
        {"depths", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_16U, 3); }, bad, KUV_StsBadDepth,
         "srcImage->depth!=dstImage->depth"},
        {"channels", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 4); }, bad, KUV_StsBadChannels,
         "srcImage->nChannels!=dstImage->nChannels"},
        {"alpha", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1, 3); }, bad, KUV_StsBadAlphaChannel,
         "srcImage->alphaChannel!=dstImage->alphaChannel"},
        {"order", [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1); }, bad, KUV_StsBacktrace,
         "srcImage->dataOrder!=dstImage->dataOrder"},
        {"counted channels", [](ImagePtr& s, ImagePtr&, A&) { setRoi(s.get(), 1, 0, 0, 5, 4); }, KUV_StsBadCOI,
         KUV_StsBadCOI, "Number of interset channel input and output Image is not equal."},
        {"filter 11", [](ImagePtr&, ImagePtr&, A& a) { a[0] = 11; }, bad, bad, "Unknow filter."},
        {"filter -1", [](ImagePtr&, ImagePtr&, A& a) { a[0] = -1; }, bad, bad, "Unknow filter."},
    };
    for (const Refusal& r : refusals) {
        checkRefusal(r, "kuvFixedFilter", {KUV_FILTER_SOBEL_X}, [](const KuvImage* s, KuvImage* d, const A& a) {
            return kuvFixedFilter(s, d, a[0]);
        });
    }
    // A negative status from before is returned silently; no channel to
    // filter returns 0; bit images may differ in order.
    ImagePtr src = image(KUV_DEPTH_8U, 1), dst = image(KUV_DEPTH_8U, 1);
    ImagePtr a = image(KUV_DEPTH_16S, 1, 0, 1), b = image(KUV_DEPTH_16S, 1, 0, 1);
    RefusalGuard guard(dst.get(), b.get());
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadROISize);
    EXPECT_EQ(kuvFixedFilter(src.get(), dst.get(), 0), KUV_StsBadROISize);
    kuvSetErrStatus(0);
    EXPECT_EQ(kuvFixedFilter(a.get(), b.get(), 0), 0);
    EXPECT_TRUE(guard.intact());
    ImagePtr bits = image(KUV_DEPTH_1U, 1), bitsOut = image(KUV_DEPTH_1U, 1, 1);
    EXPECT_EQ(kuvFixedFilter(bits.get(), bitsOut.get(), 4), 0);
    EXPECT_EQ(capture.count(), 0u);
}

}  // namespace
