// 2-D convolution against a reference written from the formula
//   out(x, y) = sum of k[r][c] * src(x + ax - c, y + ay - r)
// with the taps in the stored (reversed) row-major order, rounded as each
// tap loop is defined to round, the shift, the combination and the
// conversion to pixels; and the refusals in their order.
#include "tests/filter/filter_test.h"

#include "filter/rowconv.h"

#include <climits>

using namespace filtertest;

namespace {

constexpr const char* kFile = "kuvcnv2d";

struct Kern {   // as the caller gives it
    int cols, rows, ax, ay, shift;
    std::vector<double> v;   // given order, row-major
};

double toPixelRef(uint32_t depth, float x) {
    if (depth == KUV_DEPTH_1U) return x > 0.5f ? 1 : 0;
    if (depth == KUV_DEPTH_32F) return x;
    const double lo = depthMin(depth), hi = depthMax(depth);
    const double edge = depth == KUV_DEPTH_32S ? 2147483648.0 : hi + 0.5;
    if (lo == 0 && (x < 0 || x >= hi)) return x < 0 ? 0 : hi;
    if (lo < 0 && (x >= edge || x <= -edge)) return x >= edge ? hi : lo;
    return std::nearbyint(double(x));
}

// One kernel at one output sample; tap(r, c) reads the sample under stored
// position (r, c). The loop is chosen by the kernel's size, zeros and units.
// The fixed float loops may sum in any order: `err` gets a bound for them.
template <class Tap>
float kernelAt(const Kern& k, bool fp, int channels, const Tap& tap, double& err) {
    const int n = k.rows * k.cols;
    auto weight = [&](int r, int c) { return float(k.v[size_t(n - 1 - (r * k.cols + c))]); };
    int zeros = 0, units = 0;
    for (double v : k.v) zeros += v == 0, units += v == 1 || v == -1;
    const bool shape = (channels == 1 || channels == 3) && k.rows == k.cols && (k.rows == 3 || k.rows == 5);
    const double z = double(zeros) / n, u = double(units) / n;
    const bool fixed = shape && (fp || z <= 0.66);
    const bool dense = fp ? !fixed : (!fixed && z <= 0.66 && u <= 0.25 && z <= 0.1);
    if (fixed) {   // one expression, rounded to single once
        double s = 0, mag = 0;
        for (int j = 0; j < n; ++j) {
            const double p = double(tap(j / k.cols, j % k.cols)) * weight(j / k.cols, j % k.cols);
            s += p, mag += std::fabs(p);
        }
        err = fp ? std::ldexp(mag, -18) : 0;
        return float(s);
    }
    float a = 0.0f;
    auto one = [&](int r, int c) { a = float(double(a) + double(tap(r, c)) * weight(r, c)); };
    if (!dense) {   // skip-zero and unit loops: a rounding after each tap
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c)
                if (weight(r, c) != 0.0f) one(r, c);
        return a;
    }
    int r = 0;   // dense: two kernel rows in one step, a last odd row alone
    for (; r + 1 < k.rows; r += 2)
        for (int c = 0; c < k.cols; ++c)
            a = float(double(a) + (double(tap(r, c)) * weight(r, c) + double(tap(r + 1, c)) * weight(r + 1, c)));
    for (int c = 0; r < k.rows && c < k.cols; ++c) one(r, c);
    return a;
}

float shiftRef(float x, int s) {
    if (!(std::fabs(x) < 9.2233720368547758e18)) return 0.0f;
    return float(int32_t(uint32_t(int64_t(std::nearbyint(x)))) >> (s & 31));
}

double convRef(const Px& px, const std::vector<Kern>& ks, bool fp, int method, int channels, uint32_t depth) {
    float total = 0.0f;
    double tol = 0;
    for (size_t q = 0; q < ks.size(); ++q) {
        const Kern& k = ks[q];
        const int64_t x0 = px.x + k.ax - (k.cols - 1), y0 = px.y + k.ay - (k.rows - 1);
        double e = 0;
        float r = kernelAt(k, fp, channels, [&](int rr, int cc) { return float(px.at(x0 + cc, y0 + rr)); }, e);
        tol += method == 1 ? 2 * std::fabs(r) * e + e * e : e;
        if (!fp && k.shift != 0) r = shiftRef(r, k.shift);
        if (ks.size() == 1) total = method == 1 ? r * r : method == 2 ? std::fabs(r) : r;
        else if (method == 0) total = q == 0 ? r : total + r;
        else if (method <= 2) total = q == 0 ? r * r : float(double(total) + double(r) * r);
        else total = q == 0 ? r : method == 3 ? std::max(total, r) : std::min(total, r);
    }
    if (ks.size() > 1 && method == 2) total = float(std::sqrt(double(total)));
    if (tol > 0) px.tol = tol + std::ldexp(std::fabs(total), -20);
    return toPixelRef(depth, total);
}

struct Kernels {   // records for a list of given kernels, freed at the end
    std::vector<KuvConvKernel*> ints;
    std::vector<KuvConvKernelFP*> fps;
    Kernels(const std::vector<Kern>& ks, bool fp) {
        for (const Kern& k : ks) {
            std::vector<int32_t> iv(k.v.begin(), k.v.end());
            std::vector<float> fv(k.v.begin(), k.v.end());
            if (fp) fps.push_back(kuvCreateConvKernelFP(k.cols, k.rows, k.ax, k.ay, fv.data()));
            else ints.push_back(kuvCreateConvKernel(k.cols, k.rows, k.ax, k.ay, iv.data(), k.shift));
        }
    }
    ~Kernels() {
        for (auto* k : ints) kuvDeleteConvKernel(k);
        for (auto* k : fps) kuvDeleteConvKernelFP(k);
    }
    void run(const KuvImage* src, KuvImage* dst, int method) {
        if (!fps.empty()) kuvConvolve2DFP(src, dst, fps.data(), int(fps.size()), method);
        else kuvConvolve2D(src, dst, ints.data(), int(ints.size()), method);
    }
};

// Kernels of every class: 1xN, Nx1, 3x3, 5x5, any up to 7x7; anchors at the
// corners or anywhere; coefficients small (exact sums), large (sums beyond
// 2^24), or many zeros and units; shifts 0..31 and beyond.
Kern randomKernel(Rng& rng, int cls, bool fp) {
    Kern k{};
    const int n1 = int(rng.uniform(1, 7)), pick[5][2] = {{n1, 1}, {1, n1}, {3, 3}, {5, 5}, {int(rng.uniform(1, 7)), int(rng.uniform(1, 7))}};
    k.cols = pick[cls % 5][0], k.rows = pick[cls % 5][1];
    const bool corner = rng.chance(0.5);
    k.ax = corner ? (rng.chance(0.5) ? 0 : k.cols - 1) : int(rng.uniform(0, k.cols - 1));
    k.ay = corner ? (rng.chance(0.5) ? 0 : k.rows - 1) : int(rng.uniform(0, k.rows - 1));
    const int regime = int(rng.uniform(0, 3));
    for (int i = 0; i < k.cols * k.rows; ++i) {
        if (fp) k.v.push_back(rng.chance(0.2) ? 0.0 : float(rng.real(-2, 2)));
        else if (regime == 0) k.v.push_back(double(rng.uniform(-4, 4)));
        else if (regime == 1) k.v.push_back(double(rng.uniform(-3, 3)) * double(rng.uniform(1, 1 << 22)));
        else k.v.push_back(rng.chance(0.5) ? 0 : double(rng.uniform(-1, 1)));
    }
    static const int shifts[] = {0, 0, 0, 1, 2, 5, 8, 17, 31, 32, 33, -1, 100};
    k.shift = fp ? 0 : shifts[rng.uniform(0, 12)];
    return k;
}

// Both row sets, vector and baseline, must give the reference.
TEST(Conv2D, MatchesReferenceInEveryVariantAndRowSet) {
    Options o{{0, 1, 2, 3, 4, 5, 6, 7, 10, 11}};
    o.inPlace = true;
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng rng(seed);
        const uint32_t depth = allDepths()[size_t(rng.uniform(0, 6))];
        const bool fp = depth == KUV_DEPTH_32F;
        const Pair p = randomPair(rng, depth, o);
        std::vector<Kern> ks(size_t(rng.chance(0.6) ? 1 : rng.uniform(2, 4)));
        for (size_t i = 0; i < ks.size(); ++i) ks[i] = randomKernel(rng, int(seed + i), fp);
        const int method = ks.size() == 1 && rng.chance(0.2) ? 9 : int(rng.uniform(0, 4));
        const KuvImage* s = p.header(0);
        const bool one = (s->roi && s->roi->coi) || s->dataOrder == KUV_DATA_ORDER_PLANE;
        const int channels = one ? 1 : s->nChannels;
        Kernels records(ks, fp);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " " << depthName(depth) << " method " << method);
        checkPair(p, [&](const Px& px) { return convRef(px, ks, fp, method, channels, depth); }, true, vectorPaths,
                  [&](const KuvImage* a, KuvImage* b) { records.run(a, b, method); });
    }
}

// Arguments: nKernels, method, no list, a null second kernel, a bad first kernel.
TEST(Conv2D, RefusesInOrderWithTheTexts) {
    using A = std::vector<int>;
    const KuvStatus bad = KUV_StsBadArgument;
    const char* mixed = "Uncompatible images";
    auto images = [](ImagePtr& s, ImagePtr& d, uint32_t sd, int sn, int sa, uint32_t dd, int dn, int order = 0) {
        s = makeImage(sd, sn, 8, 6, 0, sa), d = makeImage(dd, dn, 8, 6, order);
    };
    const std::vector<Refusal> rows = {
        {"Incorrect Image", KUV_StsNullHeader, [](ImagePtr& s, ImagePtr&, A&) { s.reset(); }},
        {"Incorrect Image", KUV_StsBadAlign, [](ImagePtr&, ImagePtr& d, A&) { d->align = 3; }},
        {"Bad ROI offsets", KUV_StsBadROIOffset, [](ImagePtr& s, ImagePtr&, A& a) { setRoi(s.get(), 0, 8, 0, 1, 1), a[2] = 1; }},
        {"Bad ROI offsets", KUV_StsBadROIOffset, [](ImagePtr&, ImagePtr& d, A&) { setRoi(d.get(), 0, 0, 6, 1, 1); }},
        {"kernel==0", bad, [](ImagePtr&, ImagePtr&, A& a) { a[2] = 1; }},
        {"(nKernels<=0 || nKernels>10)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = 0; }},
        {"(nKernels<=0 || nKernels>10)", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = 11; }},
        {"Inadmissible method", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = 2, a[1] = 5, a[3] = 1; }},
        {"kernel[i]==0", bad, [](ImagePtr&, ImagePtr&, A& a) { a[0] = 2, a[3] = 1; }},
        {"Bad kernel structure", bad, [](ImagePtr&, ImagePtr&, A& a) { a[4] = 1; }},
        {mixed, bad, [=](ImagePtr& s, ImagePtr& d, A&) { images(s, d, KUV_DEPTH_8U, 3, 0, KUV_DEPTH_8S, 3); }},
        {mixed, bad, [=](ImagePtr& s, ImagePtr& d, A&) { images(s, d, KUV_DEPTH_8U, 3, 0, KUV_DEPTH_8U, 3, 1); }},
        {"32F images can be processed only with FP kernel", bad, [=](ImagePtr& s, ImagePtr& d, A&) { images(s, d, KUV_DEPTH_32F, 3, 0, KUV_DEPTH_32F, 3); }},
        {"One of the COI is not defined", bad, [](ImagePtr& s, ImagePtr&, A&) { setRoi(s.get(), 2, 0, 0, 8, 6); }},
        {"No channel to operate", bad, [=](ImagePtr& s, ImagePtr& d, A&) { images(s, d, KUV_DEPTH_8U, 1, 1, KUV_DEPTH_8U, 1); }},
        {mixed, bad, [=](ImagePtr& s, ImagePtr& d, A&) { images(s, d, KUV_DEPTH_8U, 3, 0, KUV_DEPTH_8U, 2); }}};
    const int32_t ones[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    KuvConvKernel* k = kuvCreateConvKernel(3, 3, 1, 1, ones, 0);
    checkRefusals(rows, "kuvConvolve2D", kFile, {1, 0, 0, 0, 0}, [&](const KuvImage* s, KuvImage* d, const A& a) {
        KuvConvKernel* list[2] = {k, a[3] ? nullptr : k};
        k->anchorX = a[4] ? 3 : 1;
        kuvConvolve2D(s, d, a[2] ? nullptr : list, a[0], a[1]);
        k->anchorX = 1;
        return KuvStatus{0};
    });
    kuvDeleteConvKernel(k);
    KuvConvKernelFP* kf = kuvCreateConvKernelFP(1, 1, 0, 0, reinterpret_cast<const float*>(ones));
    checkRefusals({{"FP kernel can be used only for 32F images", bad, [](ImagePtr&, ImagePtr&, A&) {}}}, "kuvConvolve2DFP", kFile, {},
                  [&](const KuvImage* s, KuvImage* d, const A&) { kuvConvolve2DFP(s, d, &kf, 1, 0); return KuvStatus{0}; });
    kuvDeleteConvKernelFP(kf);
}

}   // namespace
