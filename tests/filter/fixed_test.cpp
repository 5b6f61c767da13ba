// kuvFixedFilter against references written from the kernel table: exact
// weighted sums with the divisors' rounding and saturation at 8 and 16 bits,
// the row and column stages rounded to single precision in the float class,
// sums against a threshold for bit images; every depth, layout, region,
// border rule, mask and tiling, on both worker paths.
#include "tests/filter/filter_test.h"

#include "filter/nlf.h"

#include <tuple>

using namespace filtertest;

namespace {

// The kernels as applied (not reversed): size, weights row by row, divisor.
struct KernelRef { int size; std::vector<int> w; int divisor; };
const KernelRef kKernels[11] = {
    {3, {1, 0, -1, 1, 0, -1, 1, 0, -1}, 1}, {3, {-1, -1, -1, 0, 0, 0, 1, 1, 1}, 1}, {3, {1, 0, -1, 2, 0, -2, 1, 0, -1}, 1},
    {3, {-1, -2, -1, 0, 0, 0, 1, 2, 1}, 1}, {3, {-1, -1, -1, -1, 8, -1, -1, -1, -1}, 1},
    {5, {-1, -3, -4, -3, -1, -3, 0, 6, 0, -3, -4, 6, 20, 6, -4, -3, 0, 6, 0, -3, -1, -3, -4, -3, -1}, 1},
    {3, {1, 2, 1, 2, 4, 2, 1, 2, 1}, 16}, {5, {2, 7, 12, 7, 2, 7, 31, 52, 31, 7, 12, 52, 127, 52, 12, 7, 31, 52, 31, 7, 2, 7, 12, 7, 2}, 571},
    {3, {-1, -1, -1, -1, 8, -1, -1, -1, -1}, 1}, {5, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 24, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}, 1},
    {3, {-1, -1, -1, -1, 16, -1, -1, -1, -1}, 8}};

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
        case 5: return {float(-(a + 3 * b + 4 * c + 3 * d + e)), float(-3 * a + 6 * c - 3 * e), float(-4 * a + 6 * b + 20 * c + 6 * d - 4 * e)};
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
    return x >= hi + (lo < 0 ? 0.5 : 0) ? hi : x <= lo - (lo < 0 ? 0.5 : 0) ? lo : std::nearbyint(double(x));
}

bool floatClass(int id, uint32_t depth) { return depth == KUV_DEPTH_32S || depth == KUV_DEPTH_32F || (id == 7 && depth != KUV_DEPTH_1U); }

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

TEST(FixedFilter, MatchesKernelTable) {
    Options o{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}};
    int id = 0;
    uint32_t depth = 0;
    o.fill = [&](KuvImage* im, Rng& rng) {
        // Highpass 5 keeps running sums in single precision, whose rounding
        // depends on where a block starts: take integers that they hold exactly.
        if (id != 9 || !floatClass(id, depth)) return;
        fillRandomRange(im, rng.next(), -1000.0, 1000.0);
        auto* f = reinterpret_cast<float*>(im->imageData);
        for (int32_t k = 0; depth == KUV_DEPTH_32F && k < im->imageSize / 4; ++k) f[k] = std::round(f[k]);
    };
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng rng(seed);
        depth = allDepths()[rng.uniform(0, 6)];
        id = int(rng.uniform(0, depth == KUV_DEPTH_1U ? 9 : 10));
        const Pair p = randomPair(rng, depth, o);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", filter " << id << " " << depthName(depth));
        const int size = kKernels[id].size;
        checkPair(p, [&](const Px& px) { return fixedRef(id, depth, px.window(size, size, size / 2, size / 2)); }, false,
                  vectorPaths, [&](const KuvImage* s, KuvImage* d) { EXPECT_EQ(kuvFixedFilter(s, d, id), 0); });
    }
}

// Bit thresholds at their edges: Gauss 3 at 7 and 8 of 16, Gauss 5 at 285 and 286 of 571.
TEST(FixedFilter, BitThresholds) {
    const std::vector<std::pair<int, int>> sets[4] = {{{2, 2}, {2, 1}, {1, 1}}, {{2, 2}, {2, 1}, {1, 1}, {3, 3}},
                                                      {{2, 2}, {1, 2}, {3, 2}, {2, 1}, {0, 0}}, {{2, 2}, {1, 2}, {3, 2}, {1, 1}, {0, 2}, {4, 2}}};
    for (int k = 0; k < 4; ++k) {
        ImagePtr src = makeImage(KUV_DEPTH_1U, 1, 5, 5), dst = makeImage(KUV_DEPTH_1U, 1, 5, 5);
        for (auto [x, y] : sets[k]) put(src.get(), x, y, 0, 1);
        EXPECT_EQ(kuvFixedFilter(src.get(), dst.get(), k < 2 ? KUV_FILTER_GAUSS_3 : KUV_FILTER_GAUSS_5), 0);
        EXPECT_EQ(get(dst.get(), 2, 2, 0), k % 2) << k;
    }
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

// Each refusal with what it reports and what it returns; the argument is the filter id.
TEST(FixedFilter, RefusalsReportAndReturn) {
    using A = std::vector<int>;
    auto image = [](uint32_t depth, int ch, int order = 0, int alpha = 0) { return makeImage(depth, ch, 8, 6, order, alpha); };
    const KuvStatus bad = KUV_StsBadArgument;
    const std::vector<Refusal> rows = {
        {"Incorrect Image", KUV_StsNullHeader, [](ImagePtr& s, ImagePtr&, A&) { s.reset(); }, KUV_StsNullHeader},
        {"Incorrect Image", KUV_StsBadAlign, [](ImagePtr&, ImagePtr& d, A&) { d->align = 3; }, KUV_StsBadAlign},
        {"(srcImage==dstImage)", bad, [](ImagePtr&, ImagePtr& d, A& a) { d.reset(), a[0] = 11; }, bad},
        {"srcImage->depth!=dstImage->depth", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_16U, 4); }, KUV_StsBadDepth},
        {"srcImage->nChannels!=dstImage->nChannels", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 4, 0, 4); }, KUV_StsBadChannels},
        {"srcImage->alphaChannel!=dstImage->alphaChannel", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1, 3); }, KUV_StsBadAlphaChannel},
        {"srcImage->dataOrder!=dstImage->dataOrder", bad, [&](ImagePtr&, ImagePtr& d, A&) { d = image(KUV_DEPTH_8U, 3, 1); }, KUV_StsBacktrace},
        {"Number of interset channel input and output Image is not equal.", KUV_StsBadCOI,
         [](ImagePtr& s, ImagePtr&, A& a) { setRoi(s.get(), 1, 0, 0, 5, 4), a[0] = 11; }, KUV_StsBadCOI},
        {"Unknow filter.", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = 11; }, bad},
        {"Unknow filter.", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = -1; }, bad},
    };
    checkRefusals(rows, "kuvFixedFilter", "kuvnlf", {KUV_FILTER_SOBEL_X},
                  [](const KuvImage* s, KuvImage* d, const A& a) { return kuvFixedFilter(s, d, a[0]); });
}

}  // namespace
