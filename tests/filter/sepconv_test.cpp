// kuvConvolveSep2D and kuvConvolveSep2DFP against a reference written from
// the rules: out(x, y) = sum of kx[c] * ky[r] * src(x + ax - c, y + ay - r)
// over the caller's coefficients and anchors, in 32-bit wrap-around for the
// integer depths, then one arithmetic shift by the sum of both kernels'
// shifts and the depth's clamp; 32F sums doubles in the records' tap order,
// column first, and rounds to float after each pass. Pixels beyond the
// image follow its border rules; outside the region inside it they are true
// pixels. Random cases print their seed.
#include "tests/support/kuv_test.h"

#include "filter/sep_rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kuvfilter {

using namespace kuvtest;

// Element (x, y, c) with the image's border rules beyond its edge (shared
// with the blur tests).
double bordered(const KuvImage* im, int64_t x, int64_t y, int c) {
    const int64_t w = im->width, h = im->height;
    if (x >= 0 && x < w && y >= 0 && y < h) return get(im, int(x), int(y), c);
    const int side = y < 0 ? 0 : y >= h ? 1 : x < 0 ? 2 : 3;
    const int mode = im->borderMode[side] & 3;
    const int32_t k = im->borderConst[side];
    if (mode == KUV_BORDER_CONSTANT) return im->depth == KUV_DEPTH_1U ? (k & 1) : double(float(k));
    auto map = [mode](int64_t v, int64_t n) -> int64_t {
        if (mode == KUV_BORDER_REPLICATE) return v < 0 ? 0 : v >= n ? n - 1 : v;
        if (mode == KUV_BORDER_WRAP) return ((v % n) + n) % n;
        const int64_t m = ((v % (2 * n)) + 2 * n) % (2 * n);
        return m < n ? m : 2 * n - 1 - m;
    };
    return get(im, int(map(x, w)), int(map(y, h)), c);
}

// Every byte of two images' pixels, naming the first element that differs.
::testing::AssertionResult samePixels(const KuvImage* got, const KuvImage* want) {
    if (std::memcmp(got->imageData, want->imageData, size_t(want->imageSize)) == 0) return ::testing::AssertionSuccess();
    for (int y = 0; y < got->height; ++y)
        for (int x = 0; x < got->width; ++x)
            for (int c = 0; c < got->nChannels; ++c)
                if (getBits(got, x, y, c) != getBits(want, x, y, c))
                    return ::testing::AssertionFailure() << "(" << x << "," << y << "," << c << ") got "
                                                         << get(got, x, y, c) << " want " << get(want, x, y, c);
    return ::testing::AssertionFailure() << "row padding differs";
}

// An untiled copy without region or mask, to back a tiled header.
ImagePtr bare(const KuvImage* im) {
    ImagePtr c = copyImage(im);
    clearRoi(c.get());
    return c;
}

void copyBorders(const KuvImage* from, KuvImage* to) {
    std::copy(from->borderMode, from->borderMode + 4, to->borderMode);
    std::copy(from->borderConst, from->borderConst + 4, to->borderConst);
}

// Another header over the same pixels takes the image's region, mask and borders.
void dress(const KuvImage* from, KuvImage* to) {
    if (from->roi) setRoi(to, from->roi->coi, from->roi->xOffset, from->roi->yOffset, from->roi->width,
                          from->roi->height);
    if (from->maskROI) attachMask(to, copyImage(from->maskROI));
    copyBorders(from, to);
}

void randomBorders(Rng& r, KuvImage* im) {
    for (int side = 0; side < 4; ++side)
        kuvSetBorderMode(im, int(r.uniform(0, 3)), 1 << side, int32_t(r.uniform(-300, 300)));
}

// A region in about half the cases, coi as given (-1: random or none).
void randomRoi(Rng& r, KuvImage* im, int coi) {
    if (coi < 0 && r.chance(0.5)) return;
    if (coi < 0) coi = 0;
    setRoi(im, coi, int(r.uniform(0, im->width - 1)), int(r.uniform(0, im->height - 1)),
           int(r.uniform(1, im->width + 2)), int(r.uniform(1, im->height + 2)));
}

// A random mask with a region on about half the images.
void randomMask(Rng& r, KuvImage* im) {
    ImagePtr m = makeMask(int(r.uniform(3, 40)), int(r.uniform(3, 40)));
    fillRandom(m.get(), r.next());
    if (r.chance(0.5)) setRoi(m.get(), 0, int(r.uniform(0, 2)), int(r.uniform(0, 2)), 60, 60);
    attachMask(im, std::move(m));
}

struct Region {
    int x, y, w, h;
};
Region regionOf(const KuvImage* im) {
    if (im->roi == nullptr) return {0, 0, im->width, im->height};
    const KuvROI& r = *im->roi;
    return {r.xOffset, r.yOffset, std::min(r.width, im->width - r.xOffset),
            std::min(r.height, im->height - r.yOffset)};
}
bool maskAllows(const KuvImage* im, int x, int y) {
    const KuvImage* m = im->maskROI;
    if (m == nullptr) return true;
    const Region r = regionOf(m);
    return get(m, r.x + x, r.y + y, 0) != 0;
}

}  // namespace kuvfilter

namespace {

using namespace kuvtest;
using namespace kuvfilter;

// A kernel record filled the way the library stores one: coefficients and
// anchor reversed against the caller's.
struct Kernel {
    std::vector<double> given;
    int anchor = 0, shift = 0;
    bool row = true;
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
    k.row = row;
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

// The expected destination: dst with every processed element replaced.
ImagePtr reference(const KuvImage* src, const KuvImage* dst, const Kernel* kx, const Kernel* ky) {
    ImagePtr want = copyImage(dst);
    const Region rs = regionOf(src), rd = regionOf(dst);
    int w = std::min(rs.w, rd.w), h = std::min(rs.h, rd.h);
    for (const KuvImage* m : {src->maskROI, dst->maskROI})
        if (m != nullptr) w = std::min(w, regionOf(m).w), h = std::min(h, regionOf(m).h);
    const int coiS = src->roi ? src->roi->coi : 0, coiD = dst->roi ? dst->roi->coi : 0;
    const int kept = src->nChannels - (src->alphaChannel ? 1 : 0);
    const bool fp = src->depth == KUV_DEPTH_32F;
    const int shift = ((kx ? kx->shift : 0) + (ky ? ky->shift : 0)) & 31;
    const std::vector<double> one{1.0};
    const std::vector<double>& gx = kx ? kx->given : one;
    const std::vector<double>& gy = ky ? ky->given : one;
    const int ax = kx ? kx->anchor : 0, ay = ky ? ky->anchor : 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int k = 0; k < (coiS || coiD ? 1 : kept); ++k) {
                if (!maskAllows(src, x, y) || !maskAllows(dst, x, y)) continue;
                const int cs = coiS ? coiS - 1 : k, cd = coiD ? coiD - 1 : k;
                auto at = [&](int cx, int cy) {
                    return bordered(src, rs.x + x + ax - cx, rs.y + y + ay - cy, cs);
                };
                // The records' order: the caller's coefficients from the last;
                // a 2- or 4-tap row kernel has a zero tap behind. Integers
                // wrap at 32 bits, where the order does not matter; floats sum
                // in double and round after each pass.
                const int nx = int(gx.size()), ny = int(gy.size());
                const int padded = kx && (nx == 2 || nx == 4) ? nx + 1 : nx;
                double s = 0;
                uint32_t u = 0;
                for (int i = 0, cx = nx - 1; i < padded; ++i, --cx) {
                    double m = 0;
                    uint32_t um = 0;
                    for (int cy = ny - 1; cy >= 0; --cy) {
                        m += double(float(gy[cy])) * at(cx, cy);
                        um += uint32_t(int32_t(gy[cy])) * uint32_t(int32_t(at(cx, cy)));
                    }
                    s += (cx < 0 ? 0.0 : double(float(gx[cx]))) * double(float(m));
                    u += uint32_t(cx < 0 ? 0 : int32_t(gx[cx])) * um;
                }
                const int32_t q = int32_t(u) >> shift;
                const double v = fp ? double(float(s))
                                 : src->depth == KUV_DEPTH_1U ? (q > 0) : saturateTo(src->depth, q);
                put(want.get(), rd.x + x, rd.y + y, cd, v);
            }
    return want;
}

TEST(SepConvolve, RandomCasesMatchReferenceAndTiledEqualsUntiled) {
    for (uint64_t seed = 1; seed <= 600; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng r(seed);
        const uint32_t depth = allDepths()[seed % 7];
        const bool fp = depth == KUV_DEPTH_32F, bits = depth == KUV_DEPTH_1U;
        const int order = int(r.uniform(0, 1)), nCh = bits ? 1 : int(r.uniform(1, 5));
        const int alpha = nCh > 1 && r.chance(0.3) ? nCh : 0;
        ImagePtr src = makeImage(depth, nCh, int(r.uniform(1, 37)), int(r.uniform(1, 37)), order, alpha);
        ImagePtr dst = makeImage(depth, nCh, int(r.uniform(1, 37)), int(r.uniform(1, 37)), order, alpha);
        fillRandom(src.get(), r.next());
        fillRandom(dst.get(), r.next());
        randomBorders(r, src.get());
        const bool coi = r.chance(0.25);
        randomRoi(r, src.get(), coi ? int(r.uniform(1, nCh)) : -1);
        randomRoi(r, dst.get(), coi ? int(r.uniform(1, nCh)) : -1);
        if (r.chance(0.2)) randomMask(r, src.get());
        if (r.chance(0.2)) randomMask(r, dst.get());
        const int kind = int(r.uniform(0, 2));   // row, column, both
        const bool wide = r.chance(0.3);
        Kernel kx = randomKernel(r, true, wide, fp), ky = randomKernel(r, false, wide, fp);
        const Kernel* px = kind != 1 ? &kx : nullptr;
        const Kernel* py = kind != 0 ? &ky : nullptr;
        const ImagePtr want = reference(src.get(), dst.get(), px, py);

        for (int path : {0, 1}) {
            ownSepSelectPath(path);
            ImagePtr out = copyImage(dst.get());
            dress(dst.get(), out.get());
            ReportCapture capture;
            convolve(src.get(), out.get(), px, py, fp);
            ownSepSelectPath(-1);
            ASSERT_EQ(capture.count(), 0u) << capture.reports()[0];
            ASSERT_TRUE(samePixels(out.get(), want.get())) << "path " << path;
        }
        if (r.chance(0.5)) continue;
        // The same call with a tiled source, a tiled destination, or both.
        const int tiling = int(r.uniform(1, 3)), tw = 8 * int(r.uniform(1, 2));
        TileStore ts(bare(src.get()), tw, 8), td(bare(dst.get()), 16, tw);
        dress(src.get(), ts.image());
        dress(dst.get(), td.image());
        ImagePtr plain = copyImage(dst.get());
        dress(dst.get(), plain.get());
        ReportCapture capture;
        convolve(tiling & 1 ? ts.image() : src.get(), tiling & 2 ? td.image() : plain.get(), px, py,
                 fp);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(samePixels(tiling & 2 ? td.backing() : plain.get(), want.get())) << tiling;
        EXPECT_TRUE(ts.faults().empty() && td.faults().empty());
        EXPECT_EQ(ts.held() + td.held(), 0);
    }
}

// A region in the middle reads true pixels around it, whatever the border
// rules; at the image's edge they decide.
TEST(SepConvolve, RegionReadsTruePixelsEdgeFollowsBorders) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 9, 5), dst = makeImage(KUV_DEPTH_8U, 1, 9, 5);
    for (int x = 0; x < 9; ++x)
        for (int y = 0; y < 5; ++y) put(src.get(), x, y, 0, 10 * x + y);
    kuvSetBorderMode(src.get(), KUV_BORDER_CONSTANT, KUV_SIDE_ALL, 200);
    Kernel kx = makeKernel(true, {1, 1, 1}, 1, 0), ky = makeKernel(false, {1, 0, 0}, 1, 0);
    setRoi(src.get(), 0, 3, 1, 3, 3);
    setRoi(dst.get(), 0, 3, 1, 3, 3);
    convolve(src.get(), dst.get(), &kx, &ky, false);
    // ky with anchor 1 and coefficient 1 at 0 reads the row below.
    EXPECT_EQ(get(dst.get(), 3, 1, 0), 20 + 2 + 30 + 2 + 40 + 2);
    clearRoi(src.get());
    clearRoi(dst.get());
    convolve(src.get(), dst.get(), &kx, &ky, false);
    EXPECT_EQ(get(dst.get(), 0, 4, 0), 255);   // 3 * 200 below the image, clamped
    EXPECT_EQ(get(dst.get(), 0, 0, 0), 200 + 1 + 11);
    // Shifts of 2 and 3 make one of 5 at the end; the caller's record keeps its own.
    kx = makeKernel(true, {3, 1}, 0, 2), ky = makeKernel(false, {7, 0}, 1, 3);
    convolve(src.get(), dst.get(), &kx, &ky, false);
    EXPECT_EQ(get(dst.get(), 2, 2, 0), 17);   // (3 * 23 + 13) * 7 = 574
    EXPECT_EQ(kx.rec.nShiftR, 2);
}

// A tile request that fails ends the call as out of memory; every tile
// granted before it is handed back.
TEST(SepConvolve, FailedTileRequestReleasesWhatWasGranted) {
    Kernel kx = makeKernel(true, {1, 2, 1}, 1, 0), ky = makeKernel(false, {1, 2, 1}, 1, 0);
    int failed = 0;
    for (int k = 1; k <= 9; ++k) {
        TileStore ts(makeImage(KUV_DEPTH_16U, 3, 20, 20), 8, 8), td(makeImage(KUV_DEPTH_16U, 3, 20, 20), 8, 8);
        (k % 2 ? ts : td).failRequest(k / 2 + 1);
        ReportCapture capture;
        kuvConvolveSep2D(ts.image(), td.image(), &kx.rec, &ky.rec);
        if (capture.count() != 0 && ++failed) {
            EXPECT_TRUE(isReport(capture.reports()[0], KUV_StsBacktrace, "kuvConvolveSep2D", "Not enough memory", "kuvCSep2"));
            EXPECT_EQ(kuvGetErrStatus(), KUV_StsOutOfMemory);
        }
        EXPECT_TRUE(ts.held() + td.held() == 0 && ts.faults().empty() && td.faults().empty());
    }
    EXPECT_GT(failed, 4);
}

// Each case also breaks a later rule where it can, so that the order shows.
TEST(SepConvolve, RefusalsInOrder) {
    Kernel kx = makeKernel(true, {1, 2, 1}, 1, 0);
    auto image = [](uint32_t depth, int nCh, int order = 0, int alpha = 0, int origin = 0) {
        ImagePtr im = makeImage(depth, nCh, 8, 8, order, alpha);
        im->origin = origin;
        return im;
    };
    ImagePtr a = image(KUV_DEPTH_8U, 3), c = image(KUV_DEPTH_8S, 3, 1), d = image(KUV_DEPTH_8U, 3, 1, 0, 1);
    ImagePtr o = image(KUV_DEPTH_8U, 4, 0, 0, 1), e = image(KUV_DEPTH_8U, 4, 0, 4), g = image(KUV_DEPTH_8U, 3, 0, 3);
    ImagePtr b = image(KUV_DEPTH_8U, 3), w33 = image(KUV_DEPTH_8U, 33), w34 = image(KUV_DEPTH_8U, 34);
    ImagePtr fa = image(KUV_DEPTH_32F, 1), fb = image(KUV_DEPTH_32F, 1);
    setRoi(g.get(), 1, 0, 0, 8, 8);
    setRoi(b.get(), 2, 0, 0, 8, 8);
    int32_t* v = kx.ints.data();
    const KuvConvKernel noValues{3, 1, 1, 0, nullptr, 0}, oneTap{1, 1, 0, 0, v, 0},
        twoRows{3, 2, 1, 0, v, 0}, rowAnchor{3, 1, -1, 0, v, 0}, colWide{3, 1, 1, 0, v, 0},
        colAnchor{1, 3, 0, 3, v, 0};
    struct Case {
        const KuvImage* s;
        KuvImage* d;
        const KuvConvKernel *x, *y;
        const char* text;
    } cases[] = {
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
        {fa.get(), fb.get(), &kx.rec, nullptr,
         "kuvConvolveSep2D does not support KUV_DEPTH_32F.\nCall kuvConvolveSep2DFP instead"},
    };
    const char* f = "kuvConvolveSep2D";
    for (const Case& k : cases) {
        ReportCapture capture;
        RefusalGuard guard(k.s, k.d);
        kuvConvolveSep2D(k.s, k.d, k.x, k.y);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, f, k.text, "kuvCSep2"));
        EXPECT_TRUE(guard.intact());
    }
    ReportCapture capture;
    kuvConvolveSep2DFP(a.get(), c.get(), &kx.recFP, nullptr);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvConvolveSep2DFP",
                          "SRC and DST depth are different", "kuvCSep2"));
    capture.clear();
    ImagePtr a2 = image(KUV_DEPTH_8U, 3);
    kuvConvolveSep2DFP(a.get(), a2.get(), &kx.recFP, nullptr);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvConvolveSep2DFP",
                          "kuvConvolveSep2DFP does support KUV_DEPTH_32F only.\nCall kuvConvolveSep2D instead",
                          "kuvCSep2"));
    // A header fault goes out as the status the check left; the status is
    // cleared on entry, so a success after a failure leaves 0. Planes have no
    // limit of 32.
    capture.clear();
    kuvConvolveSep2D(nullptr, a.get(), &kx.rec, nullptr);
    EXPECT_TRUE(oneReport(capture, KUV_StsNullHeader, f, "Incorrect Image", "kuvCSep2"));
    ImagePtr p = makeImage(KUV_DEPTH_8U, 40, 2, 2, 1), q = makeImage(KUV_DEPTH_8U, 40, 2, 2, 1);
    kuvConvolveSep2D(p.get(), q.get(), &kx.rec, nullptr);
    EXPECT_EQ(kuvGetErrStatus(), 0);
    EXPECT_EQ(capture.count(), 1u);
}

}  // namespace
