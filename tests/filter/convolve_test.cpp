// 2-D convolution against a reference written from the formula
//   out(x, y) = sum of k[r][c] * src(x + ax - c, y + ay - r)
// with the taps taken in the stored (reversed) row-major order and rounded as
// each tap loop rounds them; the kernels, their refusals, and the row
// conversions at their limits.
#include "tests/support/kuv_test.h"

#include "filter/convolve.h"
#include "filter/rowconv.h"

#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

using namespace kuvtest;

namespace {

constexpr const char* kFile = "kuvcnv2d";

// ------------------------------------------------------------------ reference

struct Kern {   // as the caller gives it
    int cols, rows, ax, ay, shift;
    std::vector<double> v;   // given order, row-major
};

int64_t mapCoord(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    switch (mode) {
        case KUV_BORDER_REPLICATE: return k < 0 ? 0 : n - 1;
        case KUV_BORDER_REFLECT: {
            const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);
            return m < n ? m : 2 * n - 1 - m;
        }
        default: return ((k % n) + n) % n;
    }
}

double constantOf(uint32_t depth, int32_t v) {
    if (depth == KUV_DEPTH_1U) return v > 0 ? 1 : 0;
    if (depth == KUV_DEPTH_32F) return static_cast<float>(v);
    return std::clamp<double>(v, depthMin(depth), depthMax(depth));
}

// Element c of (x, y): `rules` gives the border settings, `pix` the pixels.
float sampleAt(const KuvImage* rules, const KuvImage* pix, int64_t x, int64_t y, int c) {
    const int64_t w = pix->width, h = pix->height;
    const int code = (y < 0 ? 1 : 0) | (y >= h ? 2 : 0) | (x < 0 ? 4 : 0) | (x >= w ? 8 : 0);
    if (code == 0) return static_cast<float>(get(pix, int(x), int(y), c));
    const int side = (code & 1) ? 0 : (code & 2) ? 1 : (code & 4) ? 2 : 3;
    const int mode = rules->borderMode[side] & 3;
    if (mode == KUV_BORDER_CONSTANT) return float(constantOf(pix->depth, rules->borderConst[side]));
    return static_cast<float>(get(pix, int(mapCoord(mode, x, w)), int(mapCoord(mode, y, h)), c));
}

float shiftRef(float x, int s) {
    if (!(std::fabs(x) < 9.2233720368547758e18)) return 0.0f;
    return float(int32_t(uint32_t(int64_t(std::nearbyint(x)))) >> (s & 31));
}

double toPixelRef(uint32_t depth, float x) {
    if (depth == KUV_DEPTH_1U) return x > 0.5f ? 1 : 0;
    if (depth == KUV_DEPTH_32F) return x;
    const double lo = depthMin(depth), hi = depthMax(depth);
    if (depth == KUV_DEPTH_8U || depth == KUV_DEPTH_16U) {
        if (x < 0) return 0;
        if (x >= hi) return hi;
    } else {
        const double edge = depth == KUV_DEPTH_32S ? 2147483648.0 : hi + 0.5;
        if (x >= edge) return hi;
        if (x <= -edge) return lo;
    }
    return std::nearbyint(double(x));
}

// One kernel at one output sample; tap(r, c) reads the sample under stored
// position (r, c). The loop is chosen by the kernel's size, zeros and units,
// and rounds as that loop is defined to.
template <class Tap>
float kernelAt(const Kern& k, bool fp, int channels, const Tap& tap) {
    const int n = k.rows * k.cols;
    auto weight = [&](int r, int c) { return float(k.v[size_t(n - 1 - (r * k.cols + c))]); };
    int zeros = 0, units = 0;
    for (double v : k.v) zeros += v == 0, units += v == 1 || v == -1;
    const bool shapeOk =
        (channels == 1 || channels == 3) && k.rows == k.cols && (k.rows == 3 || k.rows == 5);
    const double z = double(zeros) / n, u = double(units) / n;
    const bool fixed = shapeOk && (fp || z <= 0.66);
    const bool dense = fp ? !fixed : (!fixed && z <= 0.66 && u <= 0.25 && z <= 0.1);
    if (fixed && fp) {   // float kernels: single precision, one fused rounding per tap
        float s = tap(0, 0) * weight(0, 0);
        for (int j = 1; j < n; ++j)
            s = std::fma(tap(j / k.cols, j % k.cols), weight(j / k.cols, j % k.cols), s);
        return s;
    }
    if (fixed) {
        double s = double(tap(0, 0)) * weight(0, 0);
        for (int j = 1; j < n; ++j)
            s += double(tap(j / k.cols, j % k.cols)) * weight(j / k.cols, j % k.cols);
        return float(s);
    }
    float a = 0.0f;
    auto one = [&](int r, int c) { a = float(double(a) + double(tap(r, c)) * weight(r, c)); };
    if (!dense) {
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c)
                if (weight(r, c) != 0.0f) one(r, c);
        return a;
    }
    int r = 0;
    for (; r + 1 < k.rows; r += 2)
        for (int c = 0; c < k.cols; ++c)
            a = float(double(a) + (double(tap(r, c)) * weight(r, c) +
                                   double(tap(r + 1, c)) * weight(r + 1, c)));
    for (int c = 0; r < k.rows && c < k.cols; ++c) one(r, c);
    return a;
}

struct Region {
    int coi, x, y, w, h;
};
Region regionOf(const KuvImage* im) {
    if (im->roi == nullptr) return {0, 0, 0, im->width, im->height};
    const KuvROI& r = *im->roi;
    return {r.coi, r.xOffset, r.yOffset, std::min(r.width, im->width - r.xOffset),
            std::min(r.height, im->height - r.yOffset)};
}
bool maskBit(const KuvImage* m, int i, int j) {
    if (m == nullptr) return true;
    const Region r = regionOf(m);
    return get(m, r.x + i, r.y + j, 0) != 0;
}

// The destination the call must leave: `before` with the planned samples of
// the rectangle replaced. srcHead carries roi, mask and border rules, srcPix
// the pixels; dstHead the destination's roi and mask.
std::vector<double> expectedOf(const KuvImage* srcHead, const KuvImage* srcPix,
                               const KuvImage* dstHead, const KuvImage* before,
                               const std::vector<Kern>& ks, bool fp, int method) {
    std::vector<double> out;
    const int dn = before->nChannels;
    for (int y = 0; y < before->height; ++y)
        for (int x = 0; x < before->width; ++x)
            for (int c = 0; c < dn; ++c) out.push_back(get(before, x, y, c));
    Region rs = regionOf(srcHead), rd = regionOf(dstHead);
    for (const KuvImage* m : {srcHead->maskROI, dstHead->maskROI}) {
        if (m == nullptr) continue;
        const Region rm = regionOf(m);
        for (Region* r : {&rs, &rd}) r->w = std::min(r->w, rm.w), r->h = std::min(r->h, rm.h);
    }
    const int w = std::min(rs.w, rd.w), h = std::min(rs.h, rd.h);
    const bool plane = srcPix->dataOrder == KUV_DATA_ORDER_PLANE,
               bits = srcPix->depth == KUV_DEPTH_1U;
    const int sn = srcPix->nChannels, count = sn - (srcPix->alphaChannel ? 1 : 0);
    int wch = sn;
    std::vector<std::pair<int, int>> chans;   // source channel, destination channel
    if (rs.coi != 0) {
        wch = 1;
        chans.push_back({rs.coi - 1, rd.coi - 1});
    } else {
        if (plane || bits) wch = 1;
        const int written = srcPix->alphaChannel ? sn - 1 : (before->alphaChannel ? sn : count);
        for (int c = 0; c < (plane ? count : written); ++c) chans.push_back({c, c});
    }
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            if (!maskBit(srcHead->maskROI, i, j) || !maskBit(dstHead->maskROI, i, j)) continue;
            for (auto [sc, dc] : chans) {
                float total = 0.0f;
                for (size_t q = 0; q < ks.size(); ++q) {
                    const Kern& k = ks[q];
                    const int64_t px = rs.x + i + k.ax - (k.cols - 1),
                                  py = rs.y + j + k.ay - (k.rows - 1);
                    float r = kernelAt(k, fp, wch, [&](int rr, int cc) {
                        return sampleAt(srcHead, srcPix, px + cc, py + rr, sc);
                    });
                    if (!fp && k.shift != 0) r = shiftRef(r, k.shift);
                    if (ks.size() == 1) {
                        if (method == 1) r = r * r;
                        if (method == 2) r = std::fabs(r);
                        total = r;
                    } else if (method == 0) {
                        total = q == 0 ? r : total + r;
                    } else if (method <= 2) {
                        total = q == 0 ? r * r : float(double(total) + double(r) * r);
                    } else {
                        total = q == 0        ? r
                                : method == 3 ? (total > r ? total : r)
                                              : (total < r ? total : r);
                    }
                }
                if (ks.size() > 1 && method == 2) total = float(std::sqrt(double(total)));
                const int64_t at = (int64_t(rd.y + j) * before->width + rd.x + i) * dn + dc;
                out[size_t(at)] = toPixelRef(before->depth, total);
            }
        }
    }
    return out;
}

::testing::AssertionResult sameAs(const KuvImage* image, const std::vector<double>& want) {
    size_t at = 0;
    for (int y = 0; y < image->height; ++y) {
        for (int x = 0; x < image->width; ++x) {
            for (int c = 0; c < image->nChannels; ++c, ++at) {
                const bool same =
                    image->depth == KUV_DEPTH_32F
                        ? getBits(image, x, y, c) == std::bit_cast<uint32_t>(float(want[at]))
                        : get(image, x, y, c) == want[at];
                if (!same) {
                    return ::testing::AssertionFailure()
                           << "at (" << x << "," << y << "," << c << ") got " << get(image, x, y, c)
                           << " want " << want[at];
                }
            }
        }
    }
    return ::testing::AssertionSuccess();
}

// ------------------------------------------------------------------ kernels

struct Kernels {   // records for a list of given kernels, freed at the end
    std::vector<KuvConvKernel*> ints;
    std::vector<KuvConvKernelFP*> fps;
    Kernels(const std::vector<Kern>& ks, bool fp) {
        for (const Kern& k : ks) {
            std::vector<int32_t> iv(k.v.begin(), k.v.end());
            std::vector<float> fv(k.v.begin(), k.v.end());
            if (fp)
                fps.push_back(kuvCreateConvKernelFP(k.cols, k.rows, k.ax, k.ay, fv.data()));
            else
                ints.push_back(kuvCreateConvKernel(k.cols, k.rows, k.ax, k.ay, iv.data(), k.shift));
        }
    }
    ~Kernels() {
        for (auto* k : ints) kuvDeleteConvKernel(k);
        for (auto* k : fps) kuvDeleteConvKernelFP(k);
    }
    void run(const KuvImage* src, KuvImage* dst, int method) {
        if (!fps.empty())
            kuvConvolve2DFP(src, dst, fps.data(), int(fps.size()), method);
        else
            kuvConvolve2D(src, dst, ints.data(), int(ints.size()), method);
    }
};

// Kernels of every class by case number: 1xN, Nx1, 3x3, 5x5, any up to 7x7;
// anchors at the corners or anywhere; coefficients small (exact sums), large
// (sums beyond 2^24), or many zeros and units; shifts 0..31 and beyond.
Kern randomKernel(Rng& rng, int cls, bool fp) {
    Kern k{};
    const int n1 = int(rng.uniform(1, 7));
    switch (cls % 5) {
        case 0: k.cols = n1, k.rows = 1; break;
        case 1: k.cols = 1, k.rows = n1; break;
        case 2: k.cols = k.rows = 3; break;
        case 3: k.cols = k.rows = 5; break;
        default: k.cols = int(rng.uniform(1, 7)), k.rows = int(rng.uniform(1, 7)); break;
    }
    const bool corner = rng.chance(0.5);
    k.ax = corner ? (rng.chance(0.5) ? 0 : k.cols - 1) : int(rng.uniform(0, k.cols - 1));
    k.ay = corner ? (rng.chance(0.5) ? 0 : k.rows - 1) : int(rng.uniform(0, k.rows - 1));
    const int regime = int(rng.uniform(0, 3));
    for (int i = 0; i < k.cols * k.rows; ++i) {
        double v = 0;
        if (fp)
            v = rng.chance(0.2) ? 0.0 : float(rng.real(-2, 2));
        else if (regime == 0)
            v = double(rng.uniform(-4, 4));
        else if (regime == 1)
            v = double(rng.uniform(-3, 3)) * double(rng.uniform(1, 1 << 22));
        else
            v = rng.chance(0.5) ? 0 : double(rng.uniform(-1, 1));
        k.v.push_back(v);
    }
    static const int shifts[] = {0, 0, 0, 1, 2, 5, 8, 17, 31, 32, 33, -1, 100};
    k.shift = fp ? 0 : shifts[rng.uniform(0, 12)];
    return k;
}

// ------------------------------------------------------------------ driver

enum Variant { PLAIN, SRC_TILED, DST_TILED, BOTH_TILED, IN_PLACE, IN_PLACE_TILED, VARIANTS };

// One random case: images, regions, masks, border rules and kernels from the
// seed, run in the given variant and checked against the reference.
void runCase(uint64_t seed, Variant variant) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " variant " + std::to_string(variant));
    Rng rng(seed);
    const uint32_t depth = allDepths()[size_t(rng.uniform(0, 6))];
    const bool fp = depth == KUV_DEPTH_32F, bits = depth == KUV_DEPTH_1U;
    const int order = bits ? KUV_DATA_ORDER_PIXEL : int(rng.uniform(0, 1));
    const bool inPlace = variant == IN_PLACE || variant == IN_PLACE_TILED;
    int sn = bits ? 1 : int(rng.uniform(1, 4)), sa = !bits && rng.chance(0.3) ? sn : 0;
    if (sn == 1 && sa == 1) sa = 0;
    const int count = sn - (sa ? 1 : 0);
    int dn = sn, da = sa;
    if (!inPlace && !bits && order == KUV_DATA_ORDER_PIXEL && rng.chance(0.4)) {
        da = rng.chance(0.5) ? count + 1 : 0;
        dn = count + (da ? 1 : 0);
    }
    const int W = int(rng.uniform(1, 23)), H = int(rng.uniform(1, 19));
    ImagePtr src = makeImage(depth, sn, W, H, order, sa);
    fillRandom(src.get(), seed * 7 + 1);
    ImagePtr dstOwn =
        inPlace ? nullptr
                : makeImage(depth, dn, int(rng.uniform(1, 23)), int(rng.uniform(1, 19)), order, da);
    if (dstOwn) fillRandom(dstOwn.get(), seed * 7 + 2);
    const bool coi = rng.chance(0.25);
    auto maybeRoi = [&](KuvImage* im, int n) {
        if (!coi && rng.chance(0.4)) return;
        const int x = int(rng.uniform(0, im->width - 1)), y = int(rng.uniform(0, im->height - 1));
        setRoi(im, coi ? int(rng.uniform(1, n)) : 0, x, y, int(rng.uniform(1, im->width)),
               int(rng.uniform(1, im->height)));
    };
    maybeRoi(src.get(), sn);
    if (dstOwn) maybeRoi(dstOwn.get(), dn);
    for (int s = 0; s < 4; ++s) {
        src->borderMode[s] = int(rng.uniform(0, 3));
        src->borderConst[s] = int32_t(rng.uniform(-70000, 70000));
    }
    for (KuvImage* im : {src.get(), dstOwn.get()}) {
        if (im == nullptr || !rng.chance(0.25)) continue;
        ImagePtr m = makeMask(int(rng.uniform(1, 24)), int(rng.uniform(1, 20)));
        fillRandom(m.get(), seed * 7 + 3);
        if (rng.chance(0.5))
            setRoi(m.get(), 0, int(rng.uniform(0, 3)), int(rng.uniform(0, 3)), 30, 30);
        attachMask(im, std::move(m));
    }
    std::vector<Kern> ks(size_t(rng.chance(0.6) ? 1 : rng.uniform(2, 4)));
    for (size_t i = 0; i < ks.size(); ++i) ks[i] = randomKernel(rng, int(seed + i), fp);
    const int method = ks.size() == 1 && rng.chance(0.2) ? 9 : int(rng.uniform(0, 4));

    KuvImage* dstHead = inPlace ? src.get() : dstOwn.get();
    ImagePtr before = copyImage(dstHead), srcPixels = copyImage(src.get());
    const std::vector<double> want =
        expectedOf(src.get(), srcPixels.get(), dstHead, before.get(), ks, fp, method);
    Kernels records(ks, fp);

    // Tiled variants move an image's pixels behind a tile store whose header
    // carries the same regions, masks and borders.
    auto tiled = [&](ImagePtr& image) {
        ImagePtr backing = copyImage(image.get());
        clearRoi(backing.get());
        auto store = std::make_unique<TileStore>(std::move(backing), 8 * int(rng.uniform(1, 2)),
                                                 8 * int(rng.uniform(1, 2)));
        KuvImage* t = store->image();
        if (image->roi)
            setRoi(t, image->roi->coi, image->roi->xOffset, image->roi->yOffset, image->roi->width,
                   image->roi->height);
        if (image->maskROI) attachMask(t, copyImage(image->maskROI));
        std::memcpy(t->borderMode, image->borderMode, sizeof t->borderMode);
        std::memcpy(t->borderConst, image->borderConst, sizeof t->borderConst);
        return store;
    };
    std::unique_ptr<TileStore> srcStore, dstStore;
    if (variant == SRC_TILED || variant == BOTH_TILED || variant == IN_PLACE_TILED)
        srcStore = tiled(src);
    if (variant == DST_TILED || variant == BOTH_TILED) dstStore = tiled(dstOwn);
    const KuvImage* s = srcStore ? srcStore->image() : src.get();
    KuvImage* d = inPlace ? const_cast<KuvImage*>(s) : dstStore ? dstStore->image() : dstOwn.get();
    {
        ReportCapture capture;
        records.run(s, d, method);
        ASSERT_EQ(capture.count(), 0u) << capture.reports()[0];
    }
    const KuvImage* result = variant == IN_PLACE_TILED ? srcStore->backing()
                             : dstStore                ? dstStore->backing()
                                                       : d;
    EXPECT_TRUE(sameAs(result, want));
    for (TileStore* st : {srcStore.get(), dstStore.get()}) {
        if (st == nullptr) continue;
        EXPECT_EQ(st->held(), 0);
        EXPECT_TRUE(st->faults().empty()) << st->faults()[0];
    }
}

// Both row sets, vector and baseline, must give the reference bit for bit, at
// the odd sizes of the random cases.
TEST(Conv2D, MatchesReferenceInEveryVariantAndRowSet) {
    for (bool vector : {true, false}) {
        if (vector && !ownFilterVectorAvailable()) continue;
        ownSetFilterVectorRows(vector);
        for (uint64_t seed = 1; seed <= 600; ++seed) {
            runCase(seed, Variant(seed % VARIANTS));
            if (HasFailure()) break;
        }
    }
    ownSetFilterVectorRows(ownFilterVectorAvailable());
}

// ------------------------------------------------------------------ known answers

// One row of source values, the kernels, the method and the row expected.
TEST(Conv2D, KnownAnswers) {
    const double big = 1 << 30;
    const Kern three{1, 1, 0, 0, 0, {3}}, four{1, 1, 0, 0, 0, {4}}, minus2{1, 1, 0, 0, 0, {-2}};
    struct Row {
        uint32_t depth;
        std::vector<double> src;
        std::vector<Kern> ks;
        int method;
        std::vector<double> want;
    } rows[] = {
        // 1, 0, 0 anchored at column 1 reads x + 1; the right side replicates
        {KUV_DEPTH_8U, {10, 20, 30, 40}, {{3, 1, 1, 0, 0, {1, 0, 0}}}, 0, {20, 30, 40, 40}},
        {KUV_DEPTH_8S, {-3, 5}, {{1, 1, 0, 0, 1, {1}}}, 0, {-2, 2}},   // -3 >> 1 is -2
        // one kernel: 1 squares, 2 takes the magnitude, 4 and 9 leave it
        {KUV_DEPTH_16S, {3}, {minus2}, 1, {36}},
        {KUV_DEPTH_16S, {3}, {minus2}, 2, {6}},
        {KUV_DEPTH_16S, {3}, {minus2}, 4, {-6}},
        {KUV_DEPTH_16S, {3}, {minus2}, 9, {-6}},
        // 2^31 saturates; a shift of 32 acts on the low 32 bits, which wrap
        {KUV_DEPTH_32S, {big, -big}, {{1, 1, 0, 0, 0, {2}}}, 0, {INT32_MAX, INT32_MIN}},
        {KUV_DEPTH_32S, {big, -big}, {{1, 1, 0, 0, 32, {2}}}, 0, {INT32_MIN, INT32_MIN}},
        // two kernels: sum, squares, root, maximum, minimum; 3 >> 1 + 4
        {KUV_DEPTH_8U, {1}, {three, four}, 0, {7}},
        {KUV_DEPTH_8U, {1}, {three, four}, 1, {25}},
        {KUV_DEPTH_8U, {1}, {three, four}, 2, {5}},
        {KUV_DEPTH_8U, {1}, {three, four}, 3, {4}},
        {KUV_DEPTH_8U, {1}, {three, four}, 4, {3}},
        {KUV_DEPTH_8U, {1}, {{1, 1, 0, 0, 1, {3}}, four}, 0, {5}},
    };
    ReportCapture capture;
    for (const Row& row : rows) {
        const int w = int(row.src.size());
        ImagePtr src = makeImage(row.depth, 1, w, 1), dst = makeImage(row.depth, 1, w, 1);
        for (int x = 0; x < w; ++x) put(src.get(), x, 0, 0, row.src[size_t(x)]);
        kuvSetBorderMode(src.get(), KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
        Kernels(row.ks, false).run(src.get(), dst.get(), row.method);
        std::vector<double> got;
        for (int x = 0; x < w; ++x) got.push_back(get(dst.get(), x, 0, 0));
        EXPECT_EQ(got, row.want) << "row " << (&row - rows);
    }
    EXPECT_EQ(capture.count(), 0u);
}

// A region in the middle reads the true pixels around it; at the image's
// edge the source's border rule decides.
TEST(Conv2D, RegionsReadTruePixelsInsideAndBorderRulesOutside) {
    ReportCapture capture;
    ImagePtr src = makeImage(KUV_DEPTH_16U, 1, 6, 6), dst = makeImage(KUV_DEPTH_16U, 1, 6, 6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 6; ++x) put(src.get(), x, y, 0, 100 + 10 * y + x);
    kuvSetBorderMode(src.get(), KUV_BORDER_CONSTANT, KUV_SIDE_ALL, 7);
    Kernels sum({{3, 3, 1, 1, 0, std::vector<double>(9, 1)}}, false);
    for (auto [x, want] : {std::pair{2, 9 * 122}, std::pair{0, 5 * 7 + 100 + 101 + 110 + 111}}) {
        setRoi(src.get(), 0, x, x, 1, 1);
        sum.run(src.get(), dst.get(), 0);
        EXPECT_EQ(get(dst.get(), 0, 0, 0), want);
    }
    EXPECT_EQ(capture.count(), 0u);
}

// ------------------------------------------------------------------ refusals

struct Call {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 8, 6), dst = makeImage(KUV_DEPTH_8U, 3, 8, 6);
    KuvConvKernel* k = kuvCreateConvKernel(3, 3, 1, 1, std::vector<int32_t>(9, 1).data(), 0);
    std::vector<float> fv = std::vector<float>(9, 1.0f);
    KuvConvKernelFP* kf = kuvCreateConvKernelFP(3, 3, 1, 1, fv.data());
    std::vector<KuvConvKernel*> list{k, k};
    const KuvImage* s = src.get();
    KuvImage* d = dst.get();
    int n = 1, method = 0;
    bool fp = false;
    ~Call() {
        kuvDeleteConvKernel(k);
        kuvDeleteConvKernelFP(kf);
    }
    void images(uint32_t depth, int sn, int sa, uint32_t dDepth, int dn, int dOrder = 0) {
        src = makeImage(depth, sn, 8, 6, 0, sa), dst = makeImage(dDepth, dn, 8, 6, dOrder);
        s = src.get(), d = dst.get();
    }
};

TEST(Conv2D, RefusesInOrderWithTheTexts) {
    const uint32_t u8 = KUV_DEPTH_8U, f32 = KUV_DEPTH_32F;
    const char* bad = "Uncompatible images";
    struct Row {
        std::function<void(Call&)> change;
        KuvStatus status;
        const char* context;
    } rows[] = {
        {[](Call& t) { t.s = nullptr; }, KUV_StsNullHeader, "Incorrect Image"},
        {[](Call& t) { t.d->align = 3; }, KUV_StsBadAlign, "Incorrect Image"},
        // an offset past the image passes the header check; the kernel check comes later
        {[](Call& t) { setRoi(t.src.get(), 0, 8, 0, 1, 1), t.list.clear(); }, KUV_StsBadROIOffset,
         "Bad ROI offsets"},
        {[](Call& t) { setRoi(t.d, 0, 0, 6, 1, 1); }, KUV_StsBadROIOffset, "Bad ROI offsets"},
        {[](Call& t) { t.list.clear(); }, KUV_StsBadArgument, "kernel==0"},
        {[](Call& t) { t.n = 0; }, KUV_StsBadArgument, "(nKernels<=0 || nKernels>10)"},
        {[](Call& t) { t.n = 11; }, KUV_StsBadArgument, "(nKernels<=0 || nKernels>10)"},
        {[](Call& t) { t.n = 2, t.method = 5, t.list[1] = nullptr; }, KUV_StsBadArgument,
         "Inadmissible method"},
        {[](Call& t) { t.n = 2, t.list[1] = nullptr; }, KUV_StsBadArgument, "kernel[i]==0"},
        {[](Call& t) { t.k->anchorX = 3; }, KUV_StsBadArgument, "Bad kernel structure"},
        {[=](Call& t) { t.images(u8, 3, 0, KUV_DEPTH_8S, 3); }, KUV_StsBadArgument, bad},
        {[=](Call& t) { t.images(u8, 3, 0, u8, 3, 1); }, KUV_StsBadArgument, bad},
        {[=](Call& t) { t.images(f32, 3, 0, f32, 3); }, KUV_StsBadArgument,
         "32F images can be processed only with FP kernel"},
        {[](Call& t) { t.fp = true; }, KUV_StsBadArgument,
         "FP kernel can be used only for 32F images"},
        {[](Call& t) { setRoi(t.src.get(), 2, 0, 0, 8, 6); }, KUV_StsBadArgument,
         "One of the COI is not defined"},
        {[=](Call& t) { t.images(u8, 1, 1, u8, 1); }, KUV_StsBadArgument, "No channel to operate"},
        {[=](Call& t) { t.images(u8, 3, 0, u8, 2); }, KUV_StsBadArgument, bad},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.context);
        Call t;
        row.change(t);
        RefusalGuard guard(t.s, t.d);
        ReportCapture capture;
        KuvConvKernelFP* fl[1] = {t.kf};
        if (t.fp)
            kuvConvolve2DFP(t.s, t.d, fl, t.n, t.method);
        else
            kuvConvolve2D(t.s, t.d, t.list.empty() ? nullptr : t.list.data(), t.n, t.method);
        EXPECT_TRUE(oneReport(capture, row.status, t.fp ? "kuvConvolve2DFP" : "kuvConvolve2D",
                              row.context, kFile));
        EXPECT_TRUE(guard.intact());
    }
}

TEST(Conv2D, RefusedDestinationTileIsAnInternalError) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 20, 20);
    TileStore store(makeImage(KUV_DEPTH_8U, 1, 20, 20), 8, 8);
    store.failRequest(2);
    Kernels k({{1, 1, 0, 0, 0, {1}}}, false);
    ReportCapture capture;
    k.run(src.get(), store.image(), 0);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvConvolve2D", "Internal error", kFile));
    EXPECT_EQ(store.held(), 0);
}

}   // namespace
