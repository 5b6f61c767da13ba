// What the tests of the rank and fixed filters share: the border table as a
// reference, their driver's rectangle, channel passes and masks written out
// naively, random images with regions, borders, masks and tiles, and the
// runners of a seeded case and of a refusal.
#ifndef KUV_TESTS_FILTER_NLF_TEST_H
#define KUV_TESTS_FILTER_NLF_TEST_H

#include "tests/support/kuv_test.h"

#include "filter/nlf.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace nlftest {

using namespace kuvtest;

struct Shape {
    int nCols, nRows, anchorX, anchorY;
};

inline int64_t mapAxis(int mode, int64_t k, int64_t n) {
    if (k >= 0 && k < n) return k;
    if (mode == KUV_BORDER_REPLICATE) return k < 0 ? 0 : n - 1;
    if (mode == KUV_BORDER_WRAP) return ((k % n) + n) % n;
    const int64_t m = ((k % (2 * n)) + 2 * n) % (2 * n);   // reflect
    return m < n ? m : 2 * n - 1 - m;
}

// Element c of point (x, y): `borders` gives the side rules (a corner takes
// the top or bottom side), `pixels` the values.
inline double borderAt(const KuvImage* borders, const KuvImage* pixels, int64_t x, int64_t y,
                       int c) {
    const int64_t w = pixels->width, h = pixels->height;
    const int code = (y < 0 ? 1 : 0) | (y >= h ? 2 : 0) | (x < 0 ? 4 : 0) | (x >= w ? 8 : 0);
    if (code == 0) return get(pixels, int(x), int(y), c);
    const int side = (code & 1) ? 0 : (code & 2) ? 1 : (code & 4) ? 2 : 3;
    const int mode = borders->borderMode[side] & 3;
    if (mode != KUV_BORDER_CONSTANT) {
        return get(pixels, int(mapAxis(mode, x, w)), int(mapAxis(mode, y, h)), c);
    }
    const int32_t v = borders->borderConst[side];
    switch (pixels->depth) {
        case KUV_DEPTH_1U: return v & 1;
        case KUV_DEPTH_8U: return uint8_t(v);
        case KUV_DEPTH_8S: return int8_t(v);
        case KUV_DEPTH_16U: return uint16_t(v);
        case KUV_DEPTH_16S: return int16_t(v);
        case KUV_DEPTH_32F: return float(v);
        default: return v;
    }
}

// A region's origin and clipped size, or the whole image.
struct Rect {
    int x, y, w, h;
};
inline Rect rectOf(const KuvImage* image) {
    if (image->roi == nullptr) return {0, 0, image->width, image->height};
    const KuvROI& r = *image->roi;
    return {r.xOffset, r.yOffset, std::min(r.width, image->width - r.xOffset),
            std::min(r.height, image->height - r.yOffset)};
}

inline int coiOf(const KuvImage* image) { return image->roi != nullptr ? image->roi->coi : 0; }

// The (source, destination) channels, from 0, that the filters compute.
inline std::vector<std::pair<int, int>> channelPasses(const KuvImage* src, const KuvImage* dst) {
    if (coiOf(dst) != 0) return {{coiOf(src) != 0 ? coiOf(src) - 1 : 0, coiOf(dst) - 1}};
    std::vector<std::pair<int, int>> passes;
    const bool alpha = src->alphaChannel != 0 || dst->alphaChannel != 0;
    for (int c = 0; c < src->nChannels - (alpha ? 1 : 0); ++c) passes.emplace_back(c, c);
    return passes;
}

// The nRows x nCols window values (row-major) around an output sample.
using Rule = std::function<double(const std::vector<double>& window)>;

// dstPixels as the filter should leave it: the common rectangle of both
// regions and masks, every pass, only where each mask bit is set. src and
// dst are the headers given to the filter, srcPixels and dstPixels hold
// their pixels (the backing images of tiled headers).
inline ImagePtr expectedImage(const KuvImage* src, const KuvImage* srcPixels, const KuvImage* dst,
                              const KuvImage* dstPixels, Shape s, const Rule& rule) {
    ImagePtr out = copyImage(dstPixels);
    const Rect sr = rectOf(src), dr = rectOf(dst);
    int w = std::min(sr.w, dr.w), h = std::min(sr.h, dr.h);
    const KuvImage* masks[2] = {src->maskROI, dst->maskROI};
    Rect mr[2] = {};
    for (int m = 0; m < 2; ++m) {
        if (masks[m] == nullptr) continue;
        mr[m] = rectOf(masks[m]);
        w = std::min(w, mr[m].w);
        h = std::min(h, mr[m].h);
    }
    std::vector<double> window(size_t(s.nCols) * s.nRows);
    for (int j = 0; j < h; ++j) {
        for (int i = 0; i < w; ++i) {
            bool on = true;
            for (int m = 0; m < 2; ++m) {
                if (masks[m] != nullptr) on = on && get(masks[m], mr[m].x + i, mr[m].y + j, 0) != 0;
            }
            for (const auto& [sc, dc] : on ? channelPasses(src, dst) : std::vector<std::pair<int, int>>{}) {
                for (size_t k = 0; k < window.size(); ++k) {
                    window[k] = borderAt(src, srcPixels, int64_t{sr.x} + i - s.anchorX + int(k) % s.nCols,
                                         int64_t{sr.y} + j - s.anchorY + int(k) / s.nCols, sc);
                }
                put(out.get(), dr.x + i, dr.y + j, dc, rule(window));
            }
        }
    }
    return out;
}

// All imageSize bytes equal, padding included.
inline ::testing::AssertionResult sameBytes(const KuvImage* actual, const KuvImage* expected) {
    for (int32_t k = 0; k < actual->imageSize; ++k) {
        if (actual->imageData[k] != expected->imageData[k]) {
            return ::testing::AssertionFailure()
                   << "byte " << k << " (row " << k / actual->widthStep << ") is "
                   << int(uint8_t(actual->imageData[k])) << ", expected "
                   << int(uint8_t(expected->imageData[k]));
        }
    }
    return ::testing::AssertionSuccess();
}

// ------------------------------------------------------------------ random cases

// Channel layouts: channels, data order, alpha, source coi, destination coi.
struct Layout {
    int channels, order, alpha, srcCoi, dstCoi;
};
inline const std::vector<Layout> kLayouts = {
    {1, 0, 0, 0, 0}, {3, 0, 0, 0, 0}, {3, 1, 0, 0, 0}, {4, 0, 4, 0, 0}, {2, 1, 2, 0, 0},
    {3, 0, 0, 2, 3}, {3, 1, 0, 1, 2}, {1, 0, 0, 1, 0}, {2, 0, 2, 0, 1},
};

struct PairOptions {
    bool srcTiled = false, dstTiled = false, masks = false;
    int maxWidth = 23, maxHeight = 17;
    double smallRange = 0.3;   // chance of pixels from a few values only (ties)
};

// A source and a destination, each plain or tiled, with random regions,
// border rules, masks and pixels.
struct Pair {
    ImagePtr image[2];
    std::unique_ptr<TileStore> store[2];
    KuvImage* header(int k) const { return store[k] ? store[k]->image() : image[k].get(); }
    KuvImage* pixels(int k) const { return store[k] ? store[k]->backing() : image[k].get(); }
};

inline Pair randomPair(Rng& rng, uint32_t depth, const Layout& layout, const PairOptions& o) {
    Pair p;
    const int tileW = 8 * int(rng.uniform(1, 2)), tileH = 8 * int(rng.uniform(1, 2));
    for (int k = 0; k < 2; ++k) {
        ImagePtr image = makeImage(depth, layout.channels, int(rng.uniform(1, o.maxWidth)),
                                   int(rng.uniform(1, o.maxHeight)), layout.order, layout.alpha,
                                   4 << rng.uniform(0, 3));
        if (depth != KUV_DEPTH_1U && rng.chance(o.smallRange)) {
            const double lo = depthMin(depth) == 0.0 ? 0.0 : -2.0;
            fillRandomRange(image.get(), rng.next(), lo, lo + 3.0);
        } else if (depth == KUV_DEPTH_32F) {
            fillRandomRange(image.get(), rng.next(), -300.0, 300.0);
        } else {
            fillRandom(image.get(), rng.next());
        }
        if (k == 0 ? o.srcTiled : o.dstTiled) {
            p.store[k] = std::make_unique<TileStore>(std::move(image), tileW, tileH);
        } else {
            p.image[k] = std::move(image);
        }
        KuvImage* header = p.header(k);
        const int coi = k == 0 ? layout.srcCoi : layout.dstCoi;
        if (coi != 0 || rng.chance(0.6)) {
            setRoi(header, coi, int(rng.uniform(0, header->width - 1)),
                   int(rng.uniform(0, header->height - 1)), int(rng.uniform(1, header->width + 2)),
                   int(rng.uniform(1, header->height + 2)));
        }
        for (int side = 0; side < 4; ++side) {
            kuvSetBorderMode(header, int(rng.uniform(0, 3)), 1 << side, int(rng.uniform(-70000, 70000)));
        }
        if (o.masks && rng.chance(0.7)) {
            ImagePtr mask = makeMask(int(rng.uniform(1, header->width + 3)),
                                     int(rng.uniform(1, header->height + 3)));
            fillRandom(mask.get(), rng.next());
            if (rng.chance(0.5)) {
                setRoi(mask.get(), 0, int(rng.uniform(0, mask->width - 1)),
                       int(rng.uniform(0, mask->height - 1)), mask->width, mask->height);
            }
            attachMask(header, std::move(mask));
        }
    }
    return p;
}

// Runs `call` on the portable and on the vector workers, from the same
// destination each time, and compares the destination byte for byte with
// the reference of `rule`. No report, and every tile given back.
inline void checkBothPaths(const Pair& p, Shape s, const Rule& rule,
                           const std::function<void()>& call) {
    const ImagePtr expected =
        expectedImage(p.header(0), p.pixels(0), p.header(1), p.pixels(1), s, rule);
    const ImagePtr original = copyImage(p.pixels(1));
    for (int path : {0, 1}) {
        std::memcpy(p.pixels(1)->imageData, original->imageData, size_t(original->imageSize));
        ownNlfSelectPath(path);
        ReportCapture capture;
        call();
        ownNlfSelectPath(-1);
        EXPECT_EQ(capture.count(), 0u) << "path " << path;
        EXPECT_TRUE(sameBytes(p.pixels(1), expected.get())) << "path " << path;
        for (const auto& store : p.store) {
            if (store) EXPECT_TRUE(store->held() == 0 && store->faults().empty());
        }
    }
}

// A refused call: `setUp` spoils 8U three-channel 5x4 images or the call's
// arguments; the call must report once with this status and context and
// leave every image as it was. The call gives back what it returns.
struct Refusal {
    const char* what;
    std::function<void(ImagePtr& src, ImagePtr& dst, std::array<int, 4>& args)> setUp;
    KuvStatus reported, returned;
    const char* context;
};
using Call = std::function<KuvStatus(const KuvImage*, KuvImage*, const std::array<int, 4>&)>;

inline void checkRefusal(const Refusal& r, const char* func, std::array<int, 4> args,
                         const Call& call) {
    SCOPED_TRACE(std::string(func) + ": " + r.what);
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 5, 4), dst = makeImage(KUV_DEPTH_8U, 3, 5, 4);
    fillRandom(dst.get(), 7);
    r.setUp(src, dst, args);
    KuvImage* d = dst ? dst.get() : src.get();   // a null destination stands for the source
    RefusalGuard guard(src.get(), d);
    ReportCapture capture;
    EXPECT_EQ(call(src.get(), d, args), r.returned);
    EXPECT_TRUE(oneReport(capture, r.reported, func, r.context, "kuvnlf"));
    EXPECT_TRUE(guard.intact());
    if (dst) dst->nChannels = std::max(dst->nChannels, 1);
}

}  // namespace nlftest

#endif
