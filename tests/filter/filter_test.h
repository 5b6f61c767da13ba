// What every neighbourhood-filter test shares: the border table as a
// reference, the common rectangle of regions and masks, the channel plan,
// random source/destination pairs (plain, tiled or in place) and one check
// that runs an operation on each worker set against a per-sample rule.
#ifndef KUV_TESTS_FILTER_FILTER_TEST_H
#define KUV_TESTS_FILTER_FILTER_TEST_H

#include "tests/support/kuv_test.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

namespace filtertest {

using namespace kuvtest;

inline int64_t mapAxis(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    if (mode == KUV_BORDER_REPLICATE) return k < 0 ? 0 : n - 1;
    if (mode == KUV_BORDER_WRAP) return ((k % n) + n) % n;
    const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);   // reflect, edge repeated
    return m < n ? m : 2 * n - 1 - m;
}

// Element c of any point: `rules` gives the side rules (a corner takes the top
// or bottom side), `pix` the pixels. A constant is cut to the depth's width,
// or, with `clamp`, limited to its range first.
inline double bordered(const KuvImage* rules, const KuvImage* pix, int64_t x, int64_t y, int c,
                       bool clamp = false) {
    const int64_t w = pix->width, h = pix->height;
    const int code = (y < 0) | (y >= h) << 1 | (x < 0) << 2 | (x >= w) << 3;
    if (code == 0) return get(pix, int(x), int(y), c);
    const int side = code & 1 ? 0 : code & 2 ? 1 : code & 4 ? 2 : 3, mode = rules->borderMode[side] & 3;
    if (mode != KUV_BORDER_CONSTANT) return get(pix, int(mapAxis(mode, x, w)), int(mapAxis(mode, y, h)), c);
    const int32_t v = rules->borderConst[side];
    const uint32_t d = pix->depth;
    if (clamp) return d == KUV_DEPTH_1U ? v > 0 : saturateTo(d, v);
    const int bits = depthBits(d) == 1 ? 1 : depthBits(d) == 8 ? 8 : depthBits(d) == 16 ? 16 : 0;
    if (bits == 0) return d == KUV_DEPTH_32F ? float(v) : v;
    const int32_t low = v & ((1 << bits) - 1);   // the low bits, signed for a signed depth
    return (d & KUV_DEPTH_SIGN) && low >= 1 << (bits - 1) ? low - (1 << bits) : low;
}

struct Rect { int x, y, w, h; };
inline Rect rectOf(const KuvImage* im) {   // the region clipped to the image, or the image
    if (im->roi == nullptr) return {0, 0, im->width, im->height};
    const KuvROI& r = *im->roi;
    return {r.xOffset, r.yOffset, std::min(r.width, im->width - r.xOffset), std::min(r.height, im->height - r.yOffset)};
}
inline std::vector<int> channelsOf(const KuvImage* im) {   // its coi alone, or all but alpha; from 0
    if (im->roi != nullptr && im->roi->coi != 0) return {im->roi->coi - 1};
    std::vector<int> c(size_t(im->nChannels - (im->alphaChannel ? 1 : 0)));
    for (size_t k = 0; k < c.size(); ++k) c[k] = int(k);
    return c;
}

// What a rule sees of one output sample: the source channel through the
// border rules, the sample's source position, the rectangle and the offset in it.
struct Px {
    const KuvImage *rules, *pix;
    int c;
    bool clamp;
    int64_t x, y;
    Rect r;
    int i, j;
    mutable double tol = 0;   // a rule sets it where the arithmetic is not fixed exactly
    double at(int64_t px, int64_t py) const { return bordered(rules, pix, px, py, c, clamp); }
    std::vector<double> window(int nCols, int nRows, int ax, int ay) const {   // row-major, not reversed
        std::vector<double> v;
        for (int b = 0; b < nRows; ++b)
            for (int a = 0; a < nCols; ++a) v.push_back(at(x - ax + a, y - ay + b));
        return v;
    }
};
using Rule = std::function<double(const Px&)>;

// Channel plans: channels, alpha, order, coi of the source, then of the destination.
struct Layout {
    int sCh, sAlpha, sOrder, sCoi, dCh, dAlpha, dOrder, dCoi;
};
inline const std::vector<Layout> kLayouts = {
    {1, 0, 0, 0, 1, 0, 0, 0}, {3, 0, 0, 0, 3, 0, 0, 0}, {3, 0, 1, 0, 3, 0, 1, 0}, {4, 4, 0, 0, 4, 4, 0, 0},
    {2, 2, 1, 0, 2, 2, 1, 0}, {3, 0, 0, 2, 3, 0, 0, 3}, {3, 0, 1, 1, 3, 0, 1, 2}, {5, 0, 0, 0, 5, 0, 0, 0},
    {1, 0, 0, 1, 1, 0, 0, 0}, {2, 2, 0, 0, 2, 2, 0, 1}, {3, 0, 0, 0, 4, 4, 0, 0}, {4, 4, 0, 0, 3, 0, 0, 0},
    {3, 0, 1, 2, 1, 0, 0, 0}};

struct Options {
    explicit Options(std::vector<int> l) : layouts(std::move(l)) {}
    std::vector<int> layouts;        // indices into kLayouts (1U takes layout 0)
    bool inPlace = false;
    std::function<void(KuvImage*, Rng&)> fill;   // the source's pixels; random bytes if empty
};

struct Pair {   // a source and a destination, each plain or tiled, or one image in place
    ImagePtr image[2];
    std::unique_ptr<TileStore> store[2];
    bool inPlace = false;
    KuvImage* header(int k) const { k = inPlace ? 0 : k; return store[k] ? store[k]->image() : image[k].get(); }
    KuvImage* pixels(int k) const { k = inPlace ? 0 : k; return store[k] ? store[k]->backing() : image[k].get(); }
};

inline Pair randomPair(Rng& rng, uint32_t depth, const Options& o) {
    Pair p;
    const Layout l = kLayouts[depth == KUV_DEPTH_1U ? 0 : o.layouts[size_t(rng.uniform(0, int64_t(o.layouts.size()) - 1))]];
    p.inPlace = o.inPlace && l.sCh == l.dCh && l.sAlpha == l.dAlpha && l.sOrder == l.dOrder && rng.chance(0.25);
    const int w = rng.chance(0.3) ? 90 : 40;   // rows long enough for whole vectors
    for (int k = 0; k < (p.inPlace ? 1 : 2); ++k) {
        ImagePtr im = makeImage(depth, k ? l.dCh : l.sCh, int(rng.uniform(1, w)), int(rng.uniform(1, 24)),
                                k ? l.dOrder : l.sOrder, k ? l.dAlpha : l.sAlpha, 4 << rng.uniform(0, 3));
        fillRandom(im.get(), rng.next());
        if (k == 0 && o.fill) o.fill(im.get(), rng);
        if (rng.chance(0.3)) p.store[k] = std::make_unique<TileStore>(std::move(im), 8 * int(rng.uniform(1, 2)), 8 * int(rng.uniform(1, 2)));
        else p.image[k] = std::move(im);
        KuvImage* h = p.header(k);
        const int coi = k ? l.dCoi : l.sCoi;
        if (coi != 0 || rng.chance(0.4))
            setRoi(h, coi, int(rng.uniform(0, h->width - 1)), int(rng.uniform(0, h->height - 1)),
                   int(rng.uniform(1, h->width + 2)), int(rng.uniform(1, h->height + 2)));
        for (int side = 0; side < 4; ++side) h->borderMode[side] = int(rng.uniform(0, 3)), h->borderConst[side] = int32_t(rng.uniform(-70000, 70000));
        if (rng.chance(0.25)) {
            ImagePtr m = makeMask(int(rng.uniform(1, h->width + 3)), int(rng.uniform(1, h->height + 3)));
            fillRandom(m.get(), rng.next());
            if (rng.chance(0.5)) setRoi(m.get(), 0, int(rng.uniform(0, m->width - 1)), int(rng.uniform(0, m->height - 1)), 99, 99);
            attachMask(h, std::move(m));
        }
    }
    return p;
}

// The destination the call must leave, and the elements a rule gave a tolerance.
struct Expected {
    ImagePtr image;
    std::vector<std::tuple<int, int, int, double>> loose;   // x, y, c, tolerance
};
inline Expected expectedOf(const Pair& p, const Rule& rule, bool clamp) {
    const KuvImage *src = p.header(0), *dst = p.header(1);
    Expected e{copyImage(p.pixels(1)), {}};
    const Rect sr = rectOf(src), dr = rectOf(dst);
    int w = std::min(sr.w, dr.w), h = std::min(sr.h, dr.h);
    for (const KuvImage* m : {src->maskROI, dst->maskROI})
        if (m != nullptr) w = std::min(w, rectOf(m).w), h = std::min(h, rectOf(m).h);
    const std::vector<int> sc = channelsOf(src), dc = channelsOf(dst);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            bool on = true;
            for (const KuvImage* m : {src->maskROI, dst->maskROI})
                if (m != nullptr) on = on && get(m, rectOf(m).x + i, rectOf(m).y + j, 0) != 0;
            for (size_t k = 0; on && k < std::min(sc.size(), dc.size()); ++k) {
                const Px px{src, p.pixels(0), sc[k], clamp, int64_t{sr.x} + i, int64_t{sr.y} + j, {sr.x, sr.y, w, h}, i, j};
                put(e.image.get(), dr.x + i, dr.y + j, dc[k], rule(px));
                if (px.tol > 0) e.loose.emplace_back(dr.x + i, dr.y + j, dc[k], px.tol);
            }
        }
    return e;
}

// All imageSize bytes equal, padding included.
inline ::testing::AssertionResult sameBytes(const KuvImage* got, const KuvImage* want) {
    for (int32_t k = 0; k < got->imageSize; ++k)
        if (got->imageData[k] != want->imageData[k])
            return ::testing::AssertionFailure() << "byte " << k << " (row " << k / got->widthStep << ") is "
                                                 << int(uint8_t(got->imageData[k])) << ", expected " << int(uint8_t(want->imageData[k]));
    return ::testing::AssertionSuccess();
}

// Runs `call` on each worker set (`path`(0), `path`(1); -1 restores the
// choice), from the same destination each time: no report, the destination
// as the rule gives it byte for byte, every tile given back.
// The path switch of checkPair: 0 the plain rows of every family, 1 (and -1,
// after the call) what the processor has.
inline void vectorPaths(int k) { ownPlatformLimitFeatures(k == 0 ? 0u : ~0u); }

inline void checkPair(const Pair& p, const Rule& rule, bool clamp, const std::function<void(int)>& path,
                      const std::function<void(const KuvImage*, KuvImage*)>& call) {
    Expected e = expectedOf(p, rule, clamp);
    const ImagePtr original = copyImage(p.pixels(1));
    for (int k : {0, 1}) {
        std::memcpy(p.pixels(1)->imageData, original->imageData, size_t(original->imageSize));
        path(k);
        ReportCapture capture;
        call(p.header(0), p.header(1));
        path(-1);
        EXPECT_EQ(capture.count(), 0u) << "path " << k << " " << (capture.count() ? capture.reports()[0].context : "");
        for (const auto& [x, y, c, tol] : e.loose)
            if (std::fabs(get(p.pixels(1), x, y, c) - get(e.image.get(), x, y, c)) <= tol) put(e.image.get(), x, y, c, get(p.pixels(1), x, y, c));
        ASSERT_TRUE(sameBytes(p.pixels(1), e.image.get())) << "path " << k;
        for (const auto& s : p.store) EXPECT_TRUE(!s || (s->held() == 0 && s->faults().empty())) << "path " << k;
    }
}

// One refusal: spoil a valid call, then expect one report of this status and
// context, the images untouched, and `returned` from the call.
struct Refusal {
    const char* context;
    KuvStatus reported;
    std::function<void(ImagePtr& src, ImagePtr& dst, std::vector<int>& args)> spoil;   // a null dst: the source
    KuvStatus returned = 0;
};
inline void checkRefusals(const std::vector<Refusal>& rows, const char* func, const char* file, std::vector<int> args,
                          const std::function<KuvStatus(const KuvImage*, KuvImage*, const std::vector<int>&)>& call,
                          uint32_t depth = KUV_DEPTH_8U) {
    for (const Refusal& r : rows) {
        SCOPED_TRACE(std::string(func) + ": " + r.context);
        ImagePtr src = makeImage(depth, 3, 8, 6), dst = makeImage(depth, 3, 8, 6);
        fillRandom(dst.get(), 7);
        std::vector<int> a = args;
        r.spoil(src, dst, a);
        KuvImage* d = dst ? dst.get() : src.get();
        RefusalGuard guard(src.get(), d);
        ReportCapture capture;
        EXPECT_EQ(call(src.get(), d, a), r.returned);
        EXPECT_TRUE(oneReport(capture, r.reported, func, r.context, file));
        EXPECT_TRUE(guard.intact());
    }
}

}  // namespace filtertest

#endif
