// kuvConvolveSep2D and kuvConvolveSep2DFP against a reference written from
// the rules: out(x, y) = sum of kx[c] * ky[r] * src(x + ax - c, y + ay - r)
// over the caller's coefficients and anchors, in 32-bit wrap-around for the
// integer depths, then one arithmetic shift by the sum of both kernels'
// shifts and the depth's clamp; 32F sums doubles in the records' tap order,
// column first, and rounds to float after each pass.
#include "tests/filter/filter_test.h"

#include "filter/sep_rows.h"

using namespace filtertest;

namespace {

// A kernel record filled the way the library stores one: coefficients and
// anchor reversed against the caller's.
struct Kernel {
    std::vector<double> given;
    int anchor = 0, shift = 0;
    std::vector<int32_t> ints;
    std::vector<float> floats;
    KuvConvKernel rec{};
    KuvConvKernelFP recFP{};
};

Kernel makeKernel(bool row, std::vector<double> given, int anchor, int shift) {
    Kernel k;
    k.given = given;
    k.anchor = anchor;
    k.shift = shift;
    const int n = int(given.size());
    for (int i = n - 1; i >= 0; --i) {
        k.ints.push_back(int32_t(given[i]));
        k.floats.push_back(float(given[i]));
    }
    const int cols = row ? n : 1, rows = row ? 1 : n, a = n - 1 - anchor;
    k.rec = KuvConvKernel{cols, rows, row ? a : 0, row ? 0 : a, k.ints.data(), shift};
    k.recFP = KuvConvKernelFP{cols, rows, row ? a : 0, row ? 0 : a, k.floats.data()};
    return k;
}

Kernel randomKernel(Rng& r, bool row, bool wide, bool fp) {
    std::vector<double> v(size_t(r.uniform(2, 7)));
    for (double& t : v) {
        t = fp ? double(float(r.real(-2, 2))) : wide ? double(int32_t(r.next())) : r.uniform(-8, 16);
    }
    return makeKernel(row, v, int(r.uniform(0, int(v.size()) - 1)), fp ? 0 : int(r.uniform(0, 40)));
}

void convolve(const KuvImage* src, KuvImage* dst, const Kernel* kx, const Kernel* ky, bool fp) {
    if (fp) kuvConvolveSep2DFP(src, dst, kx ? &kx->recFP : nullptr, ky ? &ky->recFP : nullptr);
    else kuvConvolveSep2D(src, dst, kx ? &kx->rec : nullptr, ky ? &ky->rec : nullptr);
}

// One output sample. The records' order: the caller's coefficients from the
// last; a 2- or 4-tap row kernel has a zero tap behind. Integers wrap at 32
// bits, where the order does not matter; floats sum in double and round
// after each pass.
double sepRef(const Px& px, const Kernel* kx, const Kernel* ky) {
    const bool fp = px.pix->depth == KUV_DEPTH_32F;
    const int shift = ((kx ? kx->shift : 0) + (ky ? ky->shift : 0)) & 31;
    const std::vector<double> one{1.0};
    const std::vector<double>& gx = kx ? kx->given : one;
    const std::vector<double>& gy = ky ? ky->given : one;
    const int ax = kx ? kx->anchor : 0, ay = ky ? ky->anchor : 0, nx = int(gx.size()), ny = int(gy.size());
    const int padded = kx && (nx == 2 || nx == 4) ? nx + 1 : nx;
    double s = 0;
    uint32_t u = 0;
    for (int i = 0, cx = nx - 1; i < padded; ++i, --cx) {
        double m = 0;
        uint32_t um = 0;
        for (int cy = ny - 1; cy >= 0; --cy) {
            const double v = px.at(px.x + ax - cx, px.y + ay - cy);
            m += double(float(gy[cy])) * v;
            um += uint32_t(int32_t(gy[cy])) * uint32_t(int32_t(v));
        }
        s += (cx < 0 ? 0.0 : double(float(gx[cx]))) * double(float(m));
        u += uint32_t(cx < 0 ? 0 : int32_t(gx[cx])) * um;
    }
    const int32_t q = int32_t(u) >> shift;
    return fp ? double(float(s)) : px.pix->depth == KUV_DEPTH_1U ? (q > 0) : saturateTo(px.pix->depth, q);
}

TEST(SepConvolve, RandomCasesMatchTheReference) {
    const Options o{{0, 1, 2, 3, 4, 5, 6, 7, 8}};
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng r(seed);
        const uint32_t depth = allDepths()[seed % 7];
        const bool fp = depth == KUV_DEPTH_32F;
        const Pair p = randomPair(r, depth, o);
        const int kind = int(r.uniform(0, 2));   // row, column, both
        const bool wide = r.chance(0.3);
        Kernel kx = randomKernel(r, true, wide, fp), ky = randomKernel(r, false, wide, fp);
        const Kernel* px = kind != 1 ? &kx : nullptr;
        const Kernel* py = kind != 0 ? &ky : nullptr;
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " " << depthName(depth) << " kind " << kind);
        checkPair(p, [&](const Px& x) { return sepRef(x, px, py); }, false, vectorPaths,
                  [&](const KuvImage* s, KuvImage* d) { convolve(s, d, px, py, fp); });
    }
}

// Shifts of 2 and 3 make one of 5 at the end; the caller's record keeps its own.
TEST(SepConvolve, OneShiftAtTheEnd) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 9, 5), dst = makeImage(KUV_DEPTH_8U, 1, 9, 5);
    for (int k = 0; k < 45; ++k) put(src.get(), k % 9, k / 9, 0, 10 * (k % 9) + k / 9);
    Kernel kx = makeKernel(true, {3, 1}, 0, 2), ky = makeKernel(false, {7, 0}, 1, 3);
    convolve(src.get(), dst.get(), &kx, &ky, false);
    EXPECT_EQ(get(dst.get(), 2, 2, 0), 17);   // (3 * 23 + 13) * 7 = 574
    EXPECT_EQ(kx.rec.nShiftR, 2);
}

// Each case also breaks a later rule where it can, so that the order shows.
TEST(SepConvolve, RefusalsInOrder) {
    Kernel kx = makeKernel(true, {1, 2, 1}, 1, 0);
    auto image = [](uint32_t depth, int nCh, int order = 0, int alpha = 0, int origin = 0) {
        ImagePtr im = makeImage(depth, nCh, 8, 8, order, alpha);
        im->origin = origin;
        return im;
    };
    ImagePtr a = image(KUV_DEPTH_8U, 3), c = image(KUV_DEPTH_8S, 3, 1), d = image(KUV_DEPTH_8U, 3, 1, 0, 1), o = image(KUV_DEPTH_8U, 4, 0, 0, 1);
    ImagePtr e = image(KUV_DEPTH_8U, 4, 0, 4), g = image(KUV_DEPTH_8U, 3, 0, 3), b = image(KUV_DEPTH_8U, 3), w33 = image(KUV_DEPTH_8U, 33);
    ImagePtr w34 = image(KUV_DEPTH_8U, 34), fa = image(KUV_DEPTH_32F, 1), fb = image(KUV_DEPTH_32F, 1), a2 = image(KUV_DEPTH_8U, 3);
    setRoi(g.get(), 1, 0, 0, 8, 8);
    setRoi(b.get(), 2, 0, 0, 8, 8);
    int32_t* v = kx.ints.data();
    const KuvConvKernel noValues{3, 1, 1, 0, nullptr, 0}, oneTap{1, 1, 0, 0, v, 0}, twoRows{3, 2, 1, 0, v, 0},
        rowAnchor{3, 1, -1, 0, v, 0}, colWide{3, 1, 1, 0, v, 0}, colAnchor{1, 3, 0, 3, v, 0};
    const struct { const KuvImage* s; KuvImage* d; const KuvConvKernel *x, *y; const char* text; KuvStatus status = KUV_StsBadArgument; } cases[] = {
        {nullptr, a.get(), nullptr, nullptr, "Incorrect Image", KUV_StsNullHeader},
        {a.get(), a.get(), nullptr, nullptr, "Unsupported in-place mode"},
        {a.get(), c.get(), nullptr, nullptr, "Kernel pointers are NULL"},
        {a.get(), c.get(), &kx.rec, nullptr, "SRC and DST depth are different"},
        {a.get(), d.get(), &kx.rec, nullptr, "SRC and DST order are different"},
        {a.get(), o.get(), &kx.rec, nullptr, "SRC and DST orign are different"},
        {w33.get(), w34.get(), &kx.rec, nullptr, "SRC: too many channels per plane (limit 32)"},
        {a.get(), e.get(), &kx.rec, nullptr, "SRC and DST number of channels are different"},
        {a.get(), g.get(), &kx.rec, nullptr, "SRC and DST Alpha channels are different"},
        {a.get(), b.get(), &noValues, nullptr, "SRC and DST number of processing channels are different"},
        {fa.get(), fb.get(), &noValues, &colWide, "NULL kernel values"},
        {fa.get(), fb.get(), &oneTap, nullptr, "Invalid kernal size"},
        {fa.get(), fb.get(), &twoRows, nullptr, "Invalid kernal size"},
        {fa.get(), fb.get(), &rowAnchor, nullptr, "Invalid kernrl anchor"},
        {fa.get(), fb.get(), &kx.rec, &colWide, "Invalid kernal size"},
        {fa.get(), fb.get(), &kx.rec, &colAnchor, "Invalid kernrl anchor"},
        {fa.get(), fb.get(), &kx.rec, nullptr, "kuvConvolveSep2D does not support KUV_DEPTH_32F.\nCall kuvConvolveSep2DFP instead"},
        {a.get(), c.get(), &kx.rec, nullptr, "SRC and DST depth are different"},   // from here the FP form
        {a.get(), a2.get(), &kx.rec, nullptr, "kuvConvolveSep2DFP does support KUV_DEPTH_32F only.\nCall kuvConvolveSep2D instead"},
    };
    for (const auto& k : cases) {
        const bool fp = &k >= cases + 17;
        ReportCapture capture;
        RefusalGuard guard(k.s, k.d);
        if (fp) kuvConvolveSep2DFP(k.s, k.d, &kx.recFP, nullptr);
        else kuvConvolveSep2D(k.s, k.d, k.x, k.y);
        EXPECT_TRUE(oneReport(capture, k.status, fp ? "kuvConvolveSep2DFP" : "kuvConvolveSep2D", k.text, "kuvCSep2"));
        EXPECT_TRUE(guard.intact());
    }
    // The status is cleared on entry, so a success after a failure leaves 0. Planes have no limit of 32.
    ImagePtr p = makeImage(KUV_DEPTH_8U, 40, 2, 2, 1), q = makeImage(KUV_DEPTH_8U, 40, 2, 2, 1);
    kuvConvolveSep2D(p.get(), q.get(), &kx.rec, nullptr);
    EXPECT_EQ(kuvGetErrStatus(), 0);
}

}  // namespace
