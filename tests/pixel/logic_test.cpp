// kuvAnd, kuvOr, kuvXor, kuvAndS, kuvOrS, kuvXorS, kuvNot against a reference
// written here from the layout rules: every depth they accept, regions at
// offsets, channels of interest, alpha, both data orders, masks, tiles, in
// place; bit images at any bit offset; the flat path and its padding; every
// refusal with its exact report; and a differential test of tiled, masked
// runs against plain runs followed by a masked copy.
//
// The reference engine (kuvpixel::runReferenceCases, runDifferentialCases,
// guardedRegionFaults) is shared with shift_test.cpp, which declares it.
#include "tests/support/kuv_test.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace kuvpixel {

// The operation as the engine calls it: (first source, second source or
// null, destination).
using OpCall = std::function<void(const KuvImage*, const KuvImage*, KuvImage*)>;
// One element: raw bits of the sources' elements in (zero-extended), raw
// bits out; the engine cuts the result to the element's width.
using ElementFn = std::function<uint32_t(uint32_t, uint32_t)>;
// Makes the operation of one random case for a depth.
using OpFactory = std::function<void(uint32_t depth, kuvtest::Rng& rng, OpCall* call,
                                     ElementFn* element, std::string* label)>;

void runReferenceCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed, int cases,
                       const OpFactory& factory);
void runDifferentialCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed,
                          int cases, const OpFactory& factory);
int guardedRegionFaults(const std::vector<uint32_t>& depths, const OpFactory& factory);

}  // namespace kuvpixel

namespace {

using namespace kuvtest;
using kuvpixel::ElementFn;
using kuvpixel::OpCall;
using kuvpixel::OpFactory;

// ------------------------------------------------------------ reference

uint32_t widthMask(uint32_t depth) {
    const int bits = depthBits(depth);
    return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1u;
}

struct Region {
    int x, y, w, h;
};

// The clipped region: what of it lies inside the image; nothing when either
// side comes out below 1.
Region regionOf(const KuvImage* image) {
    if (image->roi == nullptr) return {0, 0, image->width, image->height};
    const KuvROI& r = *image->roi;
    int64_t w = std::min<int64_t>(r.width, int64_t{image->width} - r.xOffset);
    int64_t h = std::min<int64_t>(r.height, int64_t{image->height} - r.yOffset);
    if (w < 1 || h < 1) w = h = 0;
    return {r.xOffset, r.yOffset, static_cast<int>(w), static_cast<int>(h)};
}

struct Channels {
    int first, count;
};

// Channels an image takes part with: all but alpha, or its channel of interest.
Channels channelsOf(const KuvImage* image) {
    if (image->roi != nullptr && image->roi->coi > 0) return {image->roi->coi - 1, 1};
    return {0, image->nChannels - (image->alphaChannel != 0 ? 1 : 0)};
}

uint32_t rawAt(const KuvImage& layout, const uint8_t* data, int x, int y, int c) {
    const ElementPos pos = elementPos(&layout, x, y, c);
    const uint8_t* p = data + pos.byte;
    switch (depthBits(layout.depth)) {
        case 1: return (*p >> pos.bit) & 1u;
        case 8: return *p;
        case 16: {
            uint16_t v;
            std::memcpy(&v, p, 2);
            return v;
        }
        default: {
            uint32_t v;
            std::memcpy(&v, p, 4);
            return v;
        }
    }
}

void rawSet(const KuvImage& layout, uint8_t* data, int x, int y, int c, uint32_t v) {
    const ElementPos pos = elementPos(&layout, x, y, c);
    uint8_t* p = data + pos.byte;
    switch (depthBits(layout.depth)) {
        case 1:
            *p = static_cast<uint8_t>((v & 1u) ? (*p | (1u << pos.bit)) : (*p & ~(1u << pos.bit)));
            break;
        case 8: *p = static_cast<uint8_t>(v); break;
        case 16: {
            const auto e = static_cast<uint16_t>(v);
            std::memcpy(p, &e, 2);
            break;
        }
        default: std::memcpy(p, &v, 4); break;
    }
}

std::vector<uint8_t> bytesOf(const KuvImage* image) {
    const auto* p = reinterpret_cast<const uint8_t*>(image->imageData);
    return std::vector<uint8_t>(p, p + image->imageSize);
}

bool coversWhole(const KuvImage* image) {
    const KuvROI* r = image->roi;
    if (r == nullptr) return true;
    if (r->xOffset != 0 || r->yOffset != 0) return false;
    if (r->width < image->width || r->height < image->height) return false;
    return r->coi == 0 || (r->coi == 1 && image->nChannels == 1);
}

bool sameFlat(const KuvImage* a, const KuvImage* b, bool hasAlpha) {
    return !hasAlpha && a->height == b->height && a->width == b->width &&
           a->imageSize == b->imageSize && a->align == b->align && coversWhole(a) &&
           coversWhole(b);
}

// Whether the flat path applies: no mask anywhere, and every source shares
// the destination's flat layout.
bool flatExpected(int nSrc, const KuvImage* a, const KuvImage* b, const KuvImage* d) {
    const bool anyMask = a->maskROI != nullptr || d->maskROI != nullptr ||
                         (nSrc == 2 && b->maskROI != nullptr);
    const bool hasAlpha = a->alphaChannel != 0 || d->alphaChannel != 0 ||
                          (nSrc == 2 && b->alphaChannel != 0);
    return !anyMask && sameFlat(a, d, hasAlpha) && (nSrc == 1 || sameFlat(b, d, hasAlpha));
}

// The rectangle of a call: each image's region and each mask's region from
// their own origins, width and height the least of all.
struct Rect {
    int w, h;
    Region r[3];
    std::vector<std::pair<const KuvImage*, Region>> masks;
};

Rect rectOf(int nSrc, const KuvImage* a, const KuvImage* b, const KuvImage* d) {
    Rect rect{};
    const KuvImage* images[3] = {a, nSrc == 2 ? b : nullptr, d};
    rect.w = INT32_MAX;
    rect.h = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        if (images[i] == nullptr) continue;
        rect.r[i] = regionOf(images[i]);
        rect.w = std::min(rect.w, rect.r[i].w);
        rect.h = std::min(rect.h, rect.r[i].h);
        if (images[i]->maskROI != nullptr) {
            const Region m = regionOf(images[i]->maskROI);
            rect.masks.emplace_back(images[i]->maskROI, m);
            rect.w = std::min(rect.w, m.w);
            rect.h = std::min(rect.h, m.h);
        }
    }
    return rect;
}

bool maskAllows(const Rect& rect, int x, int y) {
    for (const auto& [mask, m] : rect.masks) {
        if (getBits(mask, m.x + x, m.y + y, 0) == 0) return false;
    }
    return true;
}

// The destination's bytes after the operation, worked out from the images as
// they stand (untiled). flatAllowed is false when the run tiles some image.
std::vector<uint8_t> expectedDst(int nSrc, const ElementFn& fn, const KuvImage* a,
                                 const KuvImage* b, const KuvImage* d, bool flatAllowed) {
    std::vector<uint8_t> out = bytesOf(d);
    const std::vector<uint8_t> ab = bytesOf(a);
    const std::vector<uint8_t> bb = nSrc == 2 ? bytesOf(b) : std::vector<uint8_t>{};
    const uint32_t cut = widthMask(d->depth);
    const int bits = depthBits(d->depth);
    if (flatAllowed && flatExpected(nSrc, a, b, d)) {
        // The whole buffer as one array of elements, padding included.
        if (bits == 1) {
            for (size_t i = 0; i < out.size() * 8; ++i) {
                const int shift = 7 - static_cast<int>(i % 8);
                const uint32_t va = (ab[i / 8] >> shift) & 1u;
                const uint32_t vb = nSrc == 2 ? (bb[i / 8] >> shift) & 1u : 0u;
                const uint32_t v = fn(va, vb) & 1u;
                out[i / 8] = static_cast<uint8_t>((out[i / 8] & ~(1u << shift)) | (v << shift));
            }
            return out;
        }
        const size_t size = static_cast<size_t>(bits / 8);
        for (size_t i = 0; i + size <= out.size(); i += size) {
            uint32_t va = 0, vb = 0;
            std::memcpy(&va, ab.data() + i, size);
            if (nSrc == 2) std::memcpy(&vb, bb.data() + i, size);
            const uint32_t v = fn(va, vb) & cut;
            std::memcpy(out.data() + i, &v, size);
        }
        return out;
    }
    const Rect rect = rectOf(nSrc, a, b, d);
    const Channels ca = channelsOf(a), cd = channelsOf(d);
    const Channels cb = nSrc == 2 ? channelsOf(b) : Channels{0, 0};
    for (int y = 0; y < rect.h; ++y) {
        for (int x = 0; x < rect.w; ++x) {
            if (!maskAllows(rect, x, y)) continue;
            for (int k = 0; k < cd.count; ++k) {
                const uint32_t va = rawAt(*a, ab.data(), rect.r[0].x + x, rect.r[0].y + y, ca.first + k);
                const uint32_t vb = nSrc == 2 ? rawAt(*b, bb.data(), rect.r[1].x + x,
                                                      rect.r[1].y + y, cb.first + k)
                                              : 0u;
                rawSet(*d, out.data(), rect.r[2].x + x, rect.r[2].y + y, cd.first + k,
                       fn(va, vb) & cut);
            }
        }
    }
    return out;
}

// First difference of two buffers of one image, as an element where it is one.
std::string firstDifference(const KuvImage* layout, const std::vector<uint8_t>& want,
                            const std::vector<uint8_t>& got) {
    for (size_t i = 0; i < want.size(); ++i) {
        if (want[i] == got[i]) continue;
        std::ostringstream out;
        out << "byte " << i << " (row " << i / size_t(layout->widthStep) << ", byte "
            << i % size_t(layout->widthStep) << " of the row): want 0x" << std::hex
            << int(want[i]) << " got 0x" << int(got[i]);
        return out.str();
    }
    return "none";
}

// ------------------------------------------------------------ random cases

struct ImageShape {
    int nChannels = 1, alpha = 0, order = KUV_DATA_ORDER_PIXEL, align = 4, width = 1, height = 1;
    bool hasRoi = false;
    KuvROI roi{};
    bool hasMask = false;
    int maskWidth = 1, maskHeight = 1, maskAlign = 4;
    bool maskRoi = false;
    KuvROI maskRegion{};
    bool tiled = false;
    int tileWidth = 8, tileHeight = 8;
};

struct CaseShape {
    uint32_t depth = KUV_DEPTH_8U;
    int nSrc = 2;
    ImageShape img[3];   // srcA, srcB, dst
    bool aIsDst = false, bIsDst = false, bIsA = false;
    uint64_t seed = 0;
};

// Whether image i of a case is a record of its own (not an alias of another).
bool inUse(const CaseShape& c, int i) {
    if (i == 0) return !c.aIsDst;
    if (i == 1) return c.nSrc == 2 && !c.bIsDst && !c.bIsA;
    return true;
}

std::string describe(const CaseShape& c) {
    std::ostringstream out;
    out << "seed " << c.seed << " depth " << depthName(c.depth);
    if (c.aIsDst) out << " srcA=dst";
    if (c.bIsDst) out << " srcB=dst";
    if (c.bIsA) out << " srcB=srcA";
    const char* names[3] = {"srcA", "srcB", "dst"};
    for (int i = 0; i < 3; ++i) {
        if (!inUse(c, i)) continue;
        const ImageShape& s = c.img[i];
        out << "\n  " << names[i] << ": " << s.nChannels << "ch alpha " << s.alpha
            << (s.order == KUV_DATA_ORDER_PLANE ? " plane" : " pixel") << " align " << s.align
            << " " << s.width << "x" << s.height;
        if (s.hasRoi) {
            out << " roi{coi " << s.roi.coi << ", " << s.roi.xOffset << "," << s.roi.yOffset
                << " " << s.roi.width << "x" << s.roi.height << "}";
        }
        if (s.hasMask) {
            out << " mask " << s.maskWidth << "x" << s.maskHeight;
            if (s.maskRoi) {
                out << " roi{" << s.maskRegion.xOffset << "," << s.maskRegion.yOffset << " "
                    << s.maskRegion.width << "x" << s.maskRegion.height << "}";
            }
        }
        if (s.tiled) out << " tiles " << s.tileWidth << "x" << s.tileHeight;
    }
    return out.str();
}

int pick(Rng& rng, std::initializer_list<int> values) {
    const auto i = static_cast<size_t>(rng.uniform(0, int64_t(values.size()) - 1));
    return *(values.begin() + i);
}

// An offset mostly inside the image, now and then at or beyond its edge.
int randomOffset(Rng& rng, int extent) {
    if (rng.chance(0.04)) return extent + static_cast<int>(rng.uniform(0, 2));
    return static_cast<int>(rng.uniform(0, std::min(11, extent - 1)));
}

CaseShape randomCase(uint32_t depth, int nSrc, uint64_t seed, bool forceMasksAndTiles) {
    Rng rng(seed);
    CaseShape c;
    c.depth = depth;
    c.nSrc = nSrc;
    c.seed = seed;
    const bool bits = depth == KUV_DEPTH_1U;
    const bool coiMode = rng.chance(bits ? 0.2 : 0.35);
    const int nColour = bits ? 1 : static_cast<int>(rng.uniform(1, 4));
    const bool sameLayout = !coiMode && rng.chance(0.3);
    const int commonOrder = static_cast<int>(rng.uniform(0, 1));
    const int commonWidth = static_cast<int>(rng.uniform(1, 40));
    const int commonHeight = static_cast<int>(rng.uniform(1, 9));
    const int commonAlign = pick(rng, {4, 8, 16, 32});
    const bool commonAlpha = !bits && rng.chance(0.15);
    const bool masks = forceMasksAndTiles || rng.chance(0.35);
    const bool tiles = forceMasksAndTiles || rng.chance(0.35);
    const int forcedCoi = static_cast<int>(rng.uniform(0, 2));
    if (nSrc == 2) {
        const double r = rng.real(0.0, 1.0);
        c.aIsDst = r < 0.15;
        c.bIsDst = r >= 0.15 && r < 0.25;
        c.bIsA = r >= 0.25 && r < 0.32;
    } else {
        c.aIsDst = rng.chance(0.2);
    }
    for (int i = 0; i < 3; ++i) {
        ImageShape& s = c.img[i];
        // Bit images have one channel and compare no data order.
        s.order = bits ? static_cast<int>(rng.uniform(0, 1)) : commonOrder;
        if (coiMode) {
            const bool withCoi = i == forcedCoi || rng.chance(0.5);
            if (withCoi) {
                s.nChannels = bits ? 1 : static_cast<int>(rng.uniform(1, 4));
                s.alpha = !bits && rng.chance(0.3) ? s.nChannels : 0;
                s.hasRoi = true;
                s.roi.coi = static_cast<int>(rng.uniform(1, s.nChannels));
            } else if (!bits && rng.chance(0.3)) {
                s.nChannels = 2;   // one colour channel and alpha: one channel computed
                s.alpha = 2;
            } else {
                s.nChannels = 1;
            }
        } else {
            const bool alpha = sameLayout ? commonAlpha : !bits && rng.chance(0.2);
            s.nChannels = nColour + (alpha ? 1 : 0);
            s.alpha = alpha ? s.nChannels : 0;
        }
        if (sameLayout) {
            s.width = commonWidth;
            s.height = commonHeight;
            s.align = commonAlign;
            if (rng.chance(0.4)) {
                s.hasRoi = true;
                s.roi = KuvROI{0, 0, 0, s.width + static_cast<int>(rng.uniform(0, 3)),
                               s.height + static_cast<int>(rng.uniform(0, 2))};
            }
        } else {
            s.width = static_cast<int>(rng.uniform(1, 40));
            s.height = static_cast<int>(rng.uniform(1, 9));
            s.align = pick(rng, {4, 8, 16, 32});
            if (s.hasRoi || rng.chance(0.75)) {
                s.hasRoi = true;
                s.roi.xOffset = randomOffset(rng, s.width);
                s.roi.yOffset = randomOffset(rng, s.height);
                s.roi.width = static_cast<int>(rng.uniform(1, 40));
                s.roi.height = static_cast<int>(rng.uniform(1, 9));
            }
        }
        if (masks && rng.chance(0.5)) {
            s.hasMask = true;
            s.maskWidth = static_cast<int>(rng.uniform(1, 45));
            s.maskHeight = static_cast<int>(rng.uniform(1, 11));
            s.maskAlign = pick(rng, {4, 8, 32});
            if (rng.chance(0.5)) {
                s.maskRoi = true;
                // A mask's coi plays no part, but the header check allows 0 or 1 only.
                s.maskRegion = KuvROI{static_cast<int>(rng.uniform(0, 1)),
                                      randomOffset(rng, s.maskWidth),
                                      randomOffset(rng, s.maskHeight),
                                      static_cast<int>(rng.uniform(1, 45)),
                                      static_cast<int>(rng.uniform(1, 11))};
            }
        }
        if (tiles && rng.chance(0.6)) {
            s.tiled = true;
            s.tileWidth = pick(rng, {8, 16, 24, 32});
            s.tileHeight = pick(rng, {8, 16});
        }
    }
    if (forceMasksAndTiles) {
        // At least one mask and one tiled image among the records the call sees.
        bool mask = false, tiled = false;
        for (int i = 0; i < 3; ++i) {
            if (!inUse(c, i)) continue;
            mask |= c.img[i].hasMask;
            tiled |= c.img[i].tiled;
        }
        if (!mask) c.img[2].hasMask = true;
        if (!tiled) c.img[2].tiled = true;
    }
    return c;
}

// One image of a case, pixels and mask bits from the case's seed.
ImagePtr buildImage(uint32_t depth, const ImageShape& s, uint64_t seed) {
    ImagePtr image = makeImage(depth, s.nChannels, s.width, s.height, s.order, s.alpha, s.align);
    if (!image) return image;
    fillRandom(image.get(), seed);
    if (s.hasRoi) setRoi(image.get(), s.roi.coi, s.roi.xOffset, s.roi.yOffset, s.roi.width, s.roi.height);
    if (s.hasMask) {
        ImagePtr mask = makeMask(s.maskWidth, s.maskHeight, 0, s.maskAlign);
        fillRandom(mask.get(), seed ^ 0x9E3779B97F4A7C15ull);
        if (s.maskRoi) {
            setRoi(mask.get(), s.maskRegion.coi, s.maskRegion.xOffset, s.maskRegion.yOffset,
                   s.maskRegion.width, s.maskRegion.height);
        }
        attachMask(image.get(), std::move(mask));
    }
    return image;
}

// The plain images of a case, with the aliases the case asks for.
struct PlainSet {
    ImagePtr own[3];
    const KuvImage* a = nullptr;
    const KuvImage* b = nullptr;
    KuvImage* d = nullptr;
};

PlainSet buildPlain(const CaseShape& c) {
    PlainSet p;
    p.own[2] = buildImage(c.depth, c.img[2], c.seed * 3 + 2);
    p.d = p.own[2].get();
    if (c.aIsDst) {
        p.a = p.d;
    } else {
        p.own[0] = buildImage(c.depth, c.img[0], c.seed * 3);
        p.a = p.own[0].get();
    }
    if (c.nSrc == 2) {
        if (c.bIsDst) {
            p.b = p.d;
        } else if (c.bIsA) {
            p.b = p.a;
        } else {
            p.own[1] = buildImage(c.depth, c.img[1], c.seed * 3 + 1);
            p.b = p.own[1].get();
        }
    }
    return p;
}

// The same images for a tiled run: each image that the case tiles is served
// by a tile store over a copy of its pixels; the others are plain copies.
struct TiledSet {
    std::unique_ptr<TileStore> store[3];
    ImagePtr plain[3];
    const KuvImage* a = nullptr;
    const KuvImage* b = nullptr;
    KuvImage* d = nullptr;

    KuvImage* image(int i) const { return store[i] ? store[i]->image() : plain[i].get(); }
    // Pixels of image i after the run: the store's backing or the plain copy.
    const KuvImage* pixels(int i) const {
        return store[i] ? store[i]->backing() : plain[i].get();
    }
};

void makeTiled(TiledSet& t, int i, const KuvImage* from, const ImageShape& s) {
    if (s.tiled) {
        ImagePtr backing = copyImage(from);
        clearRoi(backing.get());
        t.store[i] = std::make_unique<TileStore>(std::move(backing), s.tileWidth, s.tileHeight);
        KuvImage* tiled = t.store[i]->image();
        if (from->roi != nullptr) {
            const KuvROI& r = *from->roi;
            setRoi(tiled, r.coi, r.xOffset, r.yOffset, r.width, r.height);
        }
        if (from->maskROI != nullptr) attachMask(tiled, copyImage(from->maskROI));
    } else {
        t.plain[i] = copyImage(from);
        if (from->maskROI != nullptr) attachMask(t.plain[i].get(), copyImage(from->maskROI));
    }
}

TiledSet buildTiled(const CaseShape& c, const PlainSet& p) {
    TiledSet t;
    makeTiled(t, 2, p.d, c.img[2]);
    t.d = t.image(2);
    if (c.aIsDst) {
        t.a = t.d;
    } else {
        makeTiled(t, 0, p.a, c.img[0]);
        t.a = t.image(0);
    }
    if (c.nSrc == 2) {
        if (c.bIsDst) {
            t.b = t.d;
        } else if (c.bIsA) {
            t.b = t.a;
        } else {
            makeTiled(t, 1, p.b, c.img[1]);
            t.b = t.image(1);
        }
    }
    return t;
}

bool anyTiled(const CaseShape& c) {
    for (int i = 0; i < 3; ++i) {
        if (inUse(c, i) && c.img[i].tiled) return true;
    }
    return false;
}

void expectStoresClean(const TiledSet& t) {
    for (const auto& s : t.store) {
        if (!s) continue;
        EXPECT_EQ(s->held(), 0) << "tiles not handed back";
        for (const std::string& f : s->faults()) ADD_FAILURE() << "tile store: " << f;
    }
}

// A run of one case on plain images, and on tiled ones when the case tiles.
void checkCase(const CaseShape& c, const OpCall& call, const ElementFn& fn, const std::string& label) {
    SCOPED_TRACE(label + " " + describe(c));
    PlainSet p = buildPlain(c);
    if (p.d == nullptr || p.a == nullptr || (c.nSrc == 2 && p.b == nullptr)) return;

    {
        const std::vector<uint8_t> want = expectedDst(c.nSrc, fn, p.a, p.b, p.d, true);
        const std::vector<uint8_t> beforeA = bytesOf(p.a);
        const std::vector<uint8_t> beforeB = c.nSrc == 2 ? bytesOf(p.b) : std::vector<uint8_t>{};
        TiledSet t;
        if (anyTiled(c)) t = buildTiled(c, p);   // from the pixels before the plain run
        {
            ReportCapture capture;
            call(p.a, p.b, p.d);
            for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
        }
        const std::vector<uint8_t> got = bytesOf(p.d);
        EXPECT_TRUE(want == got) << "plain run: " << firstDifference(p.d, want, got);
        if (p.a != p.d) EXPECT_TRUE(bytesOf(p.a) == beforeA) << "srcA changed";
        if (c.nSrc == 2 && p.b != p.d && p.b != p.a) EXPECT_TRUE(bytesOf(p.b) == beforeB) << "srcB changed";
        if (!anyTiled(c)) return;

        // Tiled run: no flat path, so the reference is the rectangle alone.
        PlainSet ref = buildPlain(c);
        const std::vector<uint8_t> wantTiled = expectedDst(c.nSrc, fn, ref.a, ref.b, ref.d, false);
        {
            ReportCapture capture;
            call(t.a, t.b, t.d);
            for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
        }
        const std::vector<uint8_t> gotTiled = bytesOf(t.pixels(2));
        EXPECT_TRUE(wantTiled == gotTiled)
            << "tiled run: " << firstDifference(ref.d, wantTiled, gotTiled);
        if (!c.aIsDst) EXPECT_TRUE(bytesOf(t.pixels(0)) == bytesOf(ref.a)) << "tiled srcA changed";
        if (c.nSrc == 2 && !c.bIsDst && !c.bIsA) {
            EXPECT_TRUE(bytesOf(t.pixels(1)) == bytesOf(ref.b)) << "tiled srcB changed";
        }
        expectStoresClean(t);
    }
}

// A masked, tiled run against the same operation on plain images without
// masks, followed by a masked copy of its result into the old destination.
void checkDifferential(const CaseShape& c, const OpCall& call, const std::string& label) {
    SCOPED_TRACE(label + " " + describe(c));
    PlainSet p = buildPlain(c);
    if (p.d == nullptr || p.a == nullptr || (c.nSrc == 2 && p.b == nullptr)) return;
    TiledSet t = buildTiled(c, p);
    const std::vector<uint8_t> before = bytesOf(p.d);
    const Rect rect = rectOf(c.nSrc, p.a, p.b, p.d);   // with the masks
    const Channels cd = channelsOf(p.d);

    // The plain run: the same images with their masks set aside (each record once).
    std::vector<std::pair<KuvImage*, KuvImage*>> setAside;
    for (const KuvImage* image : {p.a, c.nSrc == 2 ? p.b : nullptr, static_cast<const KuvImage*>(p.d)}) {
        auto* record = const_cast<KuvImage*>(image);
        if (record == nullptr) continue;
        bool seen = false;
        for (const auto& kept : setAside) seen |= kept.first == record;
        if (seen) continue;
        setAside.emplace_back(record, record->maskROI);
        record->maskROI = nullptr;
    }
    {
        ReportCapture capture;
        call(p.a, p.b, p.d);
        for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
    }
    const std::vector<uint8_t> plainResult = bytesOf(p.d);
    for (const auto& [record, mask] : setAside) record->maskROI = mask;

    std::vector<uint8_t> want = before;
    for (int y = 0; y < rect.h; ++y) {
        for (int x = 0; x < rect.w; ++x) {
            if (!maskAllows(rect, x, y)) continue;
            for (int k = 0; k < cd.count; ++k) {
                const int px = rect.r[2].x + x, py = rect.r[2].y + y, pc = cd.first + k;
                rawSet(*p.d, want.data(), px, py, pc, rawAt(*p.d, plainResult.data(), px, py, pc));
            }
        }
    }
    {
        ReportCapture capture;
        call(t.a, t.b, t.d);
        for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
    }
    const std::vector<uint8_t> got = bytesOf(t.pixels(2));
    EXPECT_TRUE(want == got) << "masked tiled run: " << firstDifference(p.d, want, got);
    expectStoresClean(t);
}

}  // namespace

namespace kuvpixel {

void runReferenceCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed, int cases,
                       const OpFactory& factory) {
    for (uint32_t depth : depths) {
        for (int i = 0; i < cases; ++i) {
            const uint64_t caseSeed = seed + 1000003ull * depthBits(depth) + i +
                                      ((depth & KUV_DEPTH_SIGN) != 0 ? 77777ull : 0ull);
            const CaseShape c = randomCase(depth, nSrc, caseSeed, false);
            Rng rng(caseSeed ^ 0xABCDEFull);
            OpCall call;
            ElementFn fn;
            std::string label;
            factory(depth, rng, &call, &fn, &label);
            checkCase(c, call, fn, label);
            if (::testing::Test::HasFailure()) return;   // one seed to rerun is enough
        }
    }
}

void runDifferentialCases(int nSrc, const std::vector<uint32_t>& depths, uint64_t seed,
                          int cases, const OpFactory& factory) {
    for (uint32_t depth : depths) {
        for (int i = 0; i < cases; ++i) {
            const uint64_t caseSeed = seed + 7919ull * depthBits(depth) + i +
                                      ((depth & KUV_DEPTH_SIGN) != 0 ? 55555ull : 0ull);
            const CaseShape c = randomCase(depth, nSrc, caseSeed, true);
            Rng rng(caseSeed ^ 0x123456ull);
            OpCall call;
            ElementFn fn;
            std::string label;
            factory(depth, rng, &call, &fn, &label);
            checkDifferential(c, call, label);
            if (::testing::Test::HasFailure()) return;
        }
    }
}

}  // namespace kuvpixel

// ------------------------------------------------------------ guarded regions

namespace {

// Pages between two inaccessible ones.
class GuardedPages {
public:
    explicit GuardedPages(size_t usable) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        usablePages_ = (usable + page_ - 1) / page_;
        total_ = (usablePages_ + 2) * page_;
        void* p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) std::_Exit(5);
        base_ = static_cast<uint8_t*>(p);
        if (mprotect(base_, page_, PROT_NONE) != 0 ||
            mprotect(base_ + page_ * (usablePages_ + 1), page_, PROT_NONE) != 0) {
            std::_Exit(5);
        }
    }
    ~GuardedPages() { munmap(base_, total_); }
    GuardedPages(const GuardedPages&) = delete;
    GuardedPages& operator=(const GuardedPages&) = delete;
    uint8_t* begin() const { return base_ + page_; }
    uint8_t* end() const { return base_ + page_ * (usablePages_ + 1); }

private:
    size_t page_ = 0, usablePages_ = 0, total_ = 0;
    uint8_t* base_ = nullptr;
};

// A header over guarded memory whose region's last needed byte (last row,
// last plane) is the last accessible byte, or whose first needed byte is
// the first accessible one. The pixel block belongs to the guard.
struct GuardedImage {
    ImagePtr header;
    std::unique_ptr<GuardedPages> pages;
};

int64_t neededEnd(const KuvImage* image) {
    // One past the last byte an operation on the region may touch.
    const Region r = regionOf(image);
    const Channels ch = channelsOf(image);
    // The last channel of the last pixel of the last row: in plane order
    // that is in the last plane the call walks.
    const ElementPos pos = elementPos(image, r.x + r.w - 1, r.y + r.h - 1, ch.first + ch.count - 1);
    return pos.byte + std::max(1, depthBits(image->depth) / 8);
}

int64_t neededBegin(const KuvImage* image) {
    const Region r = regionOf(image);
    return elementPos(image, r.x, r.y, channelsOf(image).first).byte;
}

GuardedImage guardedImage(uint32_t depth, int nChannels, int order, int width, int height,
                          KuvROI roi, bool atEnd, uint64_t seed) {
    GuardedImage g;
    g.header = ImagePtr(kuvCreateImageHeader(nChannels, 0, depth, "GRAY", "G\0\0", order,
                                             KUV_ORIGIN_TOP_LEFT, 4, width, height, nullptr,
                                             nullptr, 0, nullptr));
    if (!g.header) std::_Exit(6);
    g.header->roi = kuvCreateROI(roi.coi, roi.xOffset, roi.yOffset, roi.width, roi.height);
    const int64_t end = neededEnd(g.header.get()), begin = neededBegin(g.header.get());
    g.pages = std::make_unique<GuardedPages>(static_cast<size_t>(end));
    uint8_t* data = atEnd ? g.pages->end() - end : g.pages->begin() - begin;
    g.header->imageData = reinterpret_cast<char*>(data);
    Rng rng(seed);
    for (int64_t i = begin; i < end; ++i) data[i] = static_cast<uint8_t>(rng.next());
    return g;
}

}  // namespace

namespace kuvpixel {

// Runs the operation on regions whose needed bytes touch inaccessible pages
// (sources, destination and masks). Meant for a child process: a read or a
// write outside the needed bytes ends it by a fault. Returns the number of
// reports the operation made, which should be 0.
int guardedRegionFaults(const std::vector<uint32_t>& depths, const OpFactory& factory) {
    ReportCapture capture;
    Rng rng(31337);
    for (uint32_t depth : depths) {
        const bool bits = depth == KUV_DEPTH_1U;
        for (int atEnd = 0; atEnd < 2; ++atEnd) {
            for (int order = 0; order < (bits ? 1 : 2); ++order) {
                for (int variant = 0; variant < 24; ++variant) {
                    const int nCh = bits ? 1 : 1 + variant % 3;
                    const int coi = !bits && variant % 4 == 3 ? 1 + variant % nCh : 0;
                    const int width = bits ? 61 + variant : 17 + variant % 5;
                    const int height = 3 + variant % 4;
                    // Regions that end inside a row, at bit offsets 0..7 for bits.
                    auto region = [&](int shift) {
                        const int x = bits ? (variant + shift) % 8 + 8 * (variant % 2) : 1 + shift % 3;
                        const int w = bits ? 9 + variant + shift : 5 + variant % 4;
                        return KuvROI{coi, x, 1 + shift % 2, w, height - 2};
                    };
                    const KuvROI ra = region(0), rb = region(3), rd = region(5);
                    GuardedImage a = guardedImage(depth, nCh, order, width, height, ra, atEnd != 0,
                                                  rng.next());
                    GuardedImage b = guardedImage(depth, nCh, order, width + 3, height, rb,
                                                  atEnd != 0, rng.next());
                    GuardedImage d = guardedImage(depth, nCh, order, width + 1, height + 1, rd,
                                                  atEnd != 0, rng.next());
                    // Masks on the destination, and now and then a second one to merge.
                    GuardedImage m1 = guardedImage(KUV_DEPTH_1U, 1, 0, 80, height,
                                                   KuvROI{0, variant % 8, 1, 40, height - 1},
                                                   atEnd != 0, rng.next());
                    GuardedImage m2 = guardedImage(KUV_DEPTH_1U, 1, 0, 70, height,
                                                   KuvROI{0, (variant + 5) % 8, 0, 50, height},
                                                   atEnd != 0, rng.next());
                    OpCall call;
                    ElementFn fn;
                    std::string label;
                    factory(depth, rng, &call, &fn, &label);
                    call(a.header.get(), b.header.get(), d.header.get());
                    d.header->maskROI = m1.header.get();
                    call(a.header.get(), b.header.get(), d.header.get());
                    a.header->maskROI = m2.header.get();
                    call(a.header.get(), b.header.get(), d.header.get());
                    a.header->maskROI = nullptr;
                    d.header->maskROI = nullptr;
                    if (variant == 0) {
                        // Two masks to merge whose rows end at every bit of a byte, read
                        // from every bit offset: the merge must not read the byte after.
                        for (int mx = 0; mx < 8; ++mx) {
                            for (int mw = 33; mw <= 40; ++mw) {
                                GuardedImage n1 = guardedImage(KUV_DEPTH_1U, 1, 0, 60, height,
                                                               KuvROI{0, mx, 0, mw, height},
                                                               atEnd != 0, rng.next());
                                GuardedImage n2 = guardedImage(
                                    KUV_DEPTH_1U, 1, 0, 60, height,
                                    KuvROI{0, (mx + 3) % 8, 0, mw, height}, atEnd != 0, rng.next());
                                a.header->maskROI = n1.header.get();
                                d.header->maskROI = n2.header.get();
                                call(a.header.get(), b.header.get(), d.header.get());
                                a.header->maskROI = nullptr;
                                d.header->maskROI = nullptr;
                                n1.header->imageData = nullptr;
                                n2.header->imageData = nullptr;
                            }
                        }
                    }
                    // The pixel blocks belong to the guards.
                    for (GuardedImage* g : {&a, &b, &d, &m1, &m2}) g->header->imageData = nullptr;
                }
            }
        }
    }
    return static_cast<int>(capture.count());
}

}  // namespace kuvpixel

// ================================================================= tests

namespace {

const std::vector<uint32_t>& logicDepths() {
    static const std::vector<uint32_t> d = {KUV_DEPTH_1U,  KUV_DEPTH_8U,  KUV_DEPTH_8S,
                                            KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};
    return d;
}

uint32_t bitsOp(int op, uint32_t a, uint32_t b) {
    switch (op) {
        case 0: return a & b;
        case 1: return a | b;
        default: return a ^ b;
    }
}

// The constant as an element of the depth: the word's low bits.
uint32_t constantElement(uint32_t depth, int32_t value) {
    const auto v = static_cast<uint32_t>(value);
    if (depth == KUV_DEPTH_1U) return v & 1u;
    return v & widthMask(depth);
}

struct BinaryOp {
    const char* name;
    const char* file;
    void (*fn)(const KuvImage*, const KuvImage*, KuvImage*);
};
const BinaryOp kBinary[] = {{"kuvAnd", "kuvand", kuvAnd}, {"kuvOr", "kuvor", kuvOr},
                            {"kuvXor", "kuvxor", kuvXor}};

struct ConstantOp {
    const char* name;
    const char* file;
    void (*fn)(const KuvImage*, KuvImage*, int32_t);
};
const ConstantOp kConstant[] = {{"kuvAndS", "kuvands", kuvAndS}, {"kuvOrS", "kuvors", kuvOrS},
                                {"kuvXorS", "kuvxors", kuvXorS}};

OpFactory binaryFactory(int op) {
    return [op](uint32_t, Rng&, OpCall* call, ElementFn* fn, std::string* label) {
        auto f = kBinary[op].fn;
        *call = [f](const KuvImage* a, const KuvImage* b, KuvImage* d) { f(a, b, d); };
        *fn = [op](uint32_t a, uint32_t b) { return bitsOp(op, a, b); };
        *label = kBinary[op].name;
    };
}

OpFactory constantFactory(int op) {
    return [op](uint32_t depth, Rng& rng, OpCall* call, ElementFn* fn, std::string* label) {
        // Values with bits above the element's width, and both values of bit 0.
        const int32_t value = rng.chance(0.3) ? pick(rng, {0, 1, 2, 3, -1, 0x1FF, 0x10000, -2})
                                              : static_cast<int32_t>(rng.next());
        auto f = kConstant[op].fn;
        *call = [f, value](const KuvImage* a, const KuvImage*, KuvImage* d) { f(a, d, value); };
        const uint32_t k = constantElement(depth, value);
        *fn = [op, k](uint32_t a, uint32_t) { return bitsOp(op, a, k); };
        *label = std::string(kConstant[op].name) + " value " + std::to_string(value);
    };
}

OpFactory notFactory() {
    return [](uint32_t depth, Rng&, OpCall* call, ElementFn* fn, std::string* label) {
        *call = [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvNot(a, d); };
        const uint32_t all = widthMask(depth);
        *fn = [all](uint32_t a, uint32_t) { return a ^ all; };
        *label = "kuvNot";
    };
}

// ------------------------------------------------------------ against the reference

TEST(LogicReference, AndOrXorEveryDepthLayoutRegionMaskAndTile) {
    for (int op = 0; op < 3; ++op) {
        kuvpixel::runReferenceCases(2, logicDepths(), 1000 + op * 100000, 120, binaryFactory(op));
    }
}

TEST(LogicReference, AndSOrSXorSEveryDepthLayoutRegionMaskAndTile) {
    for (int op = 0; op < 3; ++op) {
        kuvpixel::runReferenceCases(1, logicDepths(), 5000 + op * 100000, 120, constantFactory(op));
    }
}

TEST(LogicReference, NotEveryDepthLayoutRegionMaskAndTile) {
    kuvpixel::runReferenceCases(1, logicDepths(), 9000, 100, notFactory());
}

TEST(LogicDifferential, TiledMaskedRunsEqualPlainRunsWithMaskedCopy) {
    for (int op = 0; op < 3; ++op) {
        kuvpixel::runDifferentialCases(2, logicDepths(), 20000 + op * 100000, 60, binaryFactory(op));
        kuvpixel::runDifferentialCases(1, logicDepths(), 40000 + op * 100000, 60, constantFactory(op));
    }
    kuvpixel::runDifferentialCases(1, logicDepths(), 60000, 40, notFactory());
}

TEST(LogicGuard, RegionsReadAndWriteNoByteOutsideTheirNeededBytes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            int reports = 0;
            for (int op = 0; op < 3; ++op) {
                reports += kuvpixel::guardedRegionFaults(logicDepths(), binaryFactory(op));
                reports += kuvpixel::guardedRegionFaults(logicDepths(), constantFactory(op));
            }
            std::_Exit(reports == 0 ? 0 : 4);
        },
        ::testing::ExitedWithCode(0), "");
}

// ------------------------------------------------------------ bit images

// A bit image w x h with all bits from the seed, and a region.
ImagePtr bitImage(int w, int h, uint64_t seed, int x = -1, int y = 0, int rw = 0, int rh = 0) {
    ImagePtr image = makeImage(KUV_DEPTH_1U, 1, w, h);
    fillRandom(image.get(), seed);
    if (x >= 0) setRoi(image.get(), 0, x, y, rw, rh);
    return image;
}

TEST(LogicBits, RegionsAtBitOffsets351LineUpFromEachRegionStart) {
    ImagePtr a = bitImage(40, 3, 1, 3, 0, 20, 3);
    ImagePtr b = bitImage(40, 3, 2, 5, 0, 20, 3);
    ImagePtr d = bitImage(40, 3, 3, 1, 0, 20, 3);
    const Snapshot before = snapshot(d.get());
    ReportCapture capture;
    kuvAnd(a.get(), b.get(), d.get());
    EXPECT_EQ(capture.count(), 0u);
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 20; ++x) {
            EXPECT_EQ(getBits(d.get(), 1 + x, y, 0),
                      getBits(a.get(), 3 + x, y, 0) & getBits(b.get(), 5 + x, y, 0))
                << "x " << x << " y " << y;
        }
    }
    // Bit 0 of each row, left of xOffset 1 in the first byte, and bits 21.. stay.
    expectUnchangedExcept(before, d.get(), [](int x, int, int) { return x >= 1 && x < 21; });
}

TEST(LogicBits, FourBitRegionInsideOneByteChangesOnlyThoseBits) {
    ImagePtr s = bitImage(16, 2, 4);
    ImagePtr d = makeImage(KUV_DEPTH_1U, 1, 16, 2);
    std::memset(d->imageData, 0x00, size_t(d->imageSize));
    std::memset(s->imageData, 0xFF, size_t(s->imageSize));
    setRoi(d.get(), 0, 10, 0, 4, 2);
    setRoi(s.get(), 0, 1, 0, 4, 2);
    ReportCapture capture;
    kuvOrS(s.get(), d.get(), 0);   // a copy of 4 set bits
    EXPECT_EQ(capture.count(), 0u);
    const auto* p = reinterpret_cast<const uint8_t*>(d->imageData);
    for (int y = 0; y < 2; ++y) {
        EXPECT_EQ(p[y * d->widthStep], 0x00);
        EXPECT_EQ(p[y * d->widthStep + 1], 0x3C);   // bits 10..13 of the row
        EXPECT_EQ(p[y * d->widthStep + 2], 0x00);
    }
}

TEST(LogicBits, OneBitRegionAtTheLastBitOfARow) {
    // 37 bits wide: the last bit is bit 4 of byte 4 (from the most significant).
    ImagePtr a = bitImage(37, 4, 5, 36, 0, 1, 4);
    ImagePtr b = bitImage(37, 4, 6, 0, 0, 1, 4);
    ImagePtr d = bitImage(37, 4, 7, 36, 0, 5, 4);
    ImagePtr want = copyImage(d.get());
    for (int y = 0; y < 4; ++y) {
        put(want.get(), 36, y, 0, getBits(a.get(), 36, y, 0) ^ getBits(b.get(), 0, y, 0));
    }
    ReportCapture capture;
    kuvXor(a.get(), b.get(), d.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(bytesOf(d.get()), bytesOf(want.get()));
}

TEST(LogicBits, DataOrderIsNotComparedForBitImages) {
    ImagePtr a = makeImage(KUV_DEPTH_1U, 1, 20, 3, KUV_DATA_ORDER_PLANE);
    ImagePtr b = makeImage(KUV_DEPTH_1U, 1, 20, 3, KUV_DATA_ORDER_PIXEL);
    ImagePtr d = makeImage(KUV_DEPTH_1U, 1, 20, 3, KUV_DATA_ORDER_PIXEL);
    fillRandom(a.get(), 8);
    fillRandom(b.get(), 9);
    ReportCapture capture;
    kuvOr(a.get(), b.get(), d.get());
    kuvXorS(a.get(), d.get(), 1);
    EXPECT_EQ(capture.count(), 0u);
    std::vector<uint8_t> want = bytesOf(a.get());
    for (auto& v : want) v = static_cast<uint8_t>(~v);
    EXPECT_EQ(bytesOf(d.get()), want);
}

// ------------------------------------------------------------ constants

TEST(LogicConstant, OrSValue2OnBitsIsACopyAnd3SetsEveryBit) {
    ImagePtr s = bitImage(45, 5, 10);
    ImagePtr d = bitImage(45, 5, 11);
    ReportCapture capture;
    kuvOrS(s.get(), d.get(), 2);
    EXPECT_EQ(bytesOf(d.get()), bytesOf(s.get()));   // flat path: padding copied too
    kuvOrS(s.get(), d.get(), 3);
    EXPECT_EQ(bytesOf(d.get()), std::vector<uint8_t>(size_t(d->imageSize), 0xFF));
    EXPECT_EQ(capture.count(), 0u);

    // With a region only the region's bits are set.
    ImagePtr e = bitImage(45, 5, 12, 6, 1, 30, 3);
    const Snapshot before = snapshot(e.get());
    kuvOrS(s.get(), e.get(), 3);
    for (int y = 1; y < 4; ++y) {
        for (int x = 6; x < 36; ++x) EXPECT_EQ(getBits(e.get(), x, y, 0), 1u) << x << "," << y;
    }
    expectUnchangedExcept(before, e.get(), [](int x, int y, int) {
        return x >= 6 && x < 36 && y >= 1 && y < 4;
    });
}

TEST(LogicConstant, AndS0x1FFActsAs0xFFOnBytesAnd0x1FFOnShorts) {
    for (uint32_t depth : {KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S}) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr s = makeImage(depth, 3, 7, 3);
        fillRandom(s.get(), 13);
        ImagePtr d = makeLike(s.get());
        ReportCapture capture;
        kuvAndS(s.get(), d.get(), 0x1FF);
        EXPECT_EQ(capture.count(), 0u);
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 7; ++x) {
                for (int c = 0; c < 3; ++c) {
                    const uint32_t v = getBits(s.get(), x, y, c);
                    const uint32_t want = depthBits(depth) == 8 ? v : (v & 0x1FFu);
                    EXPECT_EQ(getBits(d.get(), x, y, c), want);
                }
            }
        }
    }
    // 32S takes the value as it is.
    ImagePtr s = makeImage(KUV_DEPTH_32S, 1, 3, 1);
    put(s.get(), 0, 0, 0, -1);
    put(s.get(), 1, 0, 0, 0x12345678);
    put(s.get(), 2, 0, 0, 0x100);
    ImagePtr d = makeLike(s.get());
    kuvAndS(s.get(), d.get(), 0x1FF);
    EXPECT_EQ(get(d.get(), 0, 0, 0), 0x1FF);
    EXPECT_EQ(get(d.get(), 1, 0, 0), 0x78);
    EXPECT_EQ(get(d.get(), 2, 0, 0), 0x100);
}

TEST(LogicConstant, NotOfMinusOneOnSignedBytesIsZero) {
    ImagePtr s = makeImage(KUV_DEPTH_8S, 1, 5, 1);
    const int values[] = {-1, 0, 127, -128, 5};
    for (int x = 0; x < 5; ++x) put(s.get(), x, 0, 0, values[x]);
    ImagePtr d = makeLike(s.get());
    ReportCapture capture;
    kuvNot(s.get(), d.get());
    EXPECT_EQ(capture.count(), 0u);
    const int want[] = {0, -1, -128, 127, -6};
    for (int x = 0; x < 5; ++x) EXPECT_EQ(get(d.get(), x, 0, 0), want[x]) << x;
}

// ------------------------------------------------------------ flat path and padding

TEST(LogicFlat, EqualLayoutsWithoutRegionWritePaddingARegionDoesNot) {
    for (uint32_t depth : logicDepths()) {
        SCOPED_TRACE(depthName(depth));
        // 5 pixels of 3 channels, rows aligned to 8: padding in every row at every depth.
        const int nCh = depth == KUV_DEPTH_1U ? 1 : 3;
        ImagePtr s = makeImage(depth, nCh, 5, 4, KUV_DATA_ORDER_PIXEL, 0, 8);
        ImagePtr d = makeLike(s.get());
        fillRandom(s.get(), 20);
        fillRandom(d.get(), 21);
        {
            // Flat: every byte, padding included, is source XOR constant.
            const Snapshot before = snapshot(d.get());
            kuvXorS(s.get(), d.get(), 0x5A5A5A5A);
            EXPECT_TRUE(paddingChanged(before, d.get()));
            std::vector<uint8_t> want = bytesOf(s.get());
            for (auto& v : want) v = static_cast<uint8_t>(v ^ (depth == KUV_DEPTH_1U ? 0x00 : 0x5A));
            EXPECT_EQ(bytesOf(d.get()), want);
        }
        {
            // A region of the whole image with coi 0 is still flat.
            fillRandom(d.get(), 22);
            setRoi(d.get(), 0, 0, 0, 5, 4);
            const Snapshot before = snapshot(d.get());
            kuvXor(s.get(), s.get(), d.get());
            EXPECT_TRUE(paddingChanged(before, d.get()));
            EXPECT_EQ(bytesOf(d.get()), std::vector<uint8_t>(size_t(d->imageSize), 0));
        }
        {
            // A smaller region: padding stays.
            fillRandom(d.get(), 23);
            setRoi(d.get(), 0, 0, 0, 4, 4);
            const Snapshot before = snapshot(d.get());
            kuvXorS(s.get(), d.get(), -1);
            EXPECT_FALSE(paddingChanged(before, d.get()));
            clearRoi(d.get());
        }
        {
            // A mask: padding stays, even with the mask all set.
            fillRandom(d.get(), 24);
            attachMask(d.get(), makeMask(5, 4, 1));
            const Snapshot before = snapshot(d.get());
            kuvAnd(s.get(), s.get(), d.get());
            EXPECT_FALSE(paddingChanged(before, d.get()));
            for (int y = 0; y < 4; ++y) {
                for (int x = 0; x < 5; ++x) {
                    for (int c = 0; c < nCh; ++c) {
                        EXPECT_EQ(getBits(d.get(), x, y, c), getBits(s.get(), x, y, c));
                    }
                }
            }
            attachMask(d.get(), nullptr);
        }
    }
}

TEST(LogicFlat, AlphaChannelBlocksTheFlatPathAndStaysUnchanged) {
    ImagePtr s = makeImage(KUV_DEPTH_8U, 4, 5, 3, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr d = makeLike(s.get());
    fillRandom(s.get(), 30);
    fillRandom(d.get(), 31);
    const Snapshot before = snapshot(d.get());
    ReportCapture capture;
    kuvOrS(s.get(), d.get(), 0x0F);
    EXPECT_EQ(capture.count(), 0u);
    expectUnchangedExcept(before, d.get(), [](int, int, int c) { return c < 3; });
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 5; ++x) {
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(getBits(d.get(), x, y, c), getBits(s.get(), x, y, c) | 0x0F);
            }
        }
    }
}

// ------------------------------------------------------------ refusals

constexpr const char* kNo32F = "This function does not support depth 32F";

// Calls an operation of either kind by index: 0..2 binary, 3..5 constant.
struct AnyOp {
    int index;
    const char* name() const { return index < 3 ? kBinary[index].name : kConstant[index - 3].name; }
    const char* file() const { return index < 3 ? kBinary[index].file : kConstant[index - 3].file; }
    bool binary() const { return index < 3; }
    void operator()(const KuvImage* a, const KuvImage* b, KuvImage* d) const {
        if (binary()) kBinary[index].fn(a, b, d);
        else kConstant[index - 3].fn(a, d, 7);
    }
};

// Calls op and expects exactly one report and every record untouched.
void expectRefusal(const AnyOp& op, const KuvImage* a, const KuvImage* b, KuvImage* d,
                   KuvStatus status, const char* context) {
    SCOPED_TRACE(std::string(op.name()) + ": " + context);
    RefusalGuard guard(a, op.binary() ? b : nullptr, d);
    ReportCapture capture;
    op(a, b, d);
    EXPECT_TRUE(oneReport(capture, status, op.name(), context, op.file()));
    EXPECT_TRUE(guard.intact());
}

TEST(LogicRefusal, HeaderDepthOrderAndChannelTestsInOrder) {
    for (int i = 0; i < 6; ++i) {
        const AnyOp op{i};
        const bool two = op.binary();
        ImagePtr a = makeImage(KUV_DEPTH_8U, 3, 6, 4);
        ImagePtr b = makeImage(KUV_DEPTH_8U, 3, 6, 4);
        ImagePtr d = makeImage(KUV_DEPTH_8U, 3, 6, 4);
        fillRandom(a.get(), 1);
        fillRandom(b.get(), 2);
        fillRandom(d.get(), 3);

        expectRefusal(op, nullptr, b.get(), d.get(), KUV_StsNullHeader, "Incorrect Image");
        if (two) expectRefusal(op, a.get(), nullptr, d.get(), KUV_StsNullHeader, "Incorrect Image");
        expectRefusal(op, a.get(), b.get(), nullptr, KUV_StsNullHeader, "Incorrect Image");

        // Sources are checked before the destination: srcB's fault is the one reported.
        {
            ImagePtr noData = makeImage(KUV_DEPTH_8U, 3, 6, 4);
            char* keep = noData->imageData;
            noData->imageData = nullptr;   // neither pixels nor tiles
            KuvROI badRoi{5, 0, 0, 1, 1};
            KuvImage badDst = *d;
            badDst.roi = &badRoi;          // coi above nChannels
            if (two) {
                expectRefusal(op, a.get(), noData.get(), &badDst, KUV_StsBadDataPointers,
                              "Incorrect Image");
            } else {
                expectRefusal(op, noData.get(), nullptr, &badDst, KUV_StsBadDataPointers,
                              "Incorrect Image");
            }
            expectRefusal(op, a.get(), b.get(), &badDst, KUV_StsBadCOI, "Incorrect Image");
            noData->imageData = keep;
        }
        // A mask of depth 8 on the first source: the mask form of the depth code.
        {
            ImagePtr badMask = makeImage(KUV_DEPTH_8U, 1, 6, 4);
            a->maskROI = badMask.get();
            expectRefusal(op, a.get(), b.get(), d.get(), KUV_StsBadDepth - KUV_StsMaskOffset,
                          "Incorrect Image");
            a->maskROI = nullptr;
        }

        ImagePtr d16 = makeImage(KUV_DEPTH_16U, 3, 6, 4);
        ImagePtr a8s = makeImage(KUV_DEPTH_8S, 3, 6, 4);
        ImagePtr plane = makeImage(KUV_DEPTH_8U, 3, 6, 4, KUV_DATA_ORDER_PLANE);
        ImagePtr alpha = makeImage(KUV_DEPTH_8U, 4, 6, 4, KUV_DATA_ORDER_PIXEL, 4);
        ImagePtr four = makeImage(KUV_DEPTH_8U, 4, 6, 4);
        if (two) {
            expectRefusal(op, a.get(), b.get(), d16.get(), KUV_StsBadArgument,
                          "(srcImageA->depth != dstImage->depth)");
            expectRefusal(op, a.get(), a8s.get(), d.get(), KUV_StsBadArgument,
                          "(srcImageB->depth != dstImage->depth)");
            expectRefusal(op, plane.get(), b.get(), d.get(), KUV_StsBadArgument,
                          "(srcImageA->dataOrder != dstImage->dataOrder)");
            expectRefusal(op, a.get(), plane.get(), d.get(), KUV_StsBadArgument,
                          "(srcImageB->dataOrder != dstImage->dataOrder)");
            // An alpha channel leaves 3 channels against 4.
            expectRefusal(op, alpha.get(), four.get(), four.get(), KUV_StsBadArgument,
                          "(nChSrcA != nChDst)");
            expectRefusal(op, four.get(), alpha.get(), four.get(), KUV_StsBadArgument,
                          "(nChSrcB != nChDst)");
            // A coi on a 3-channel source against a 3-channel destination.
            ImagePtr coi = copyImage(a.get());
            setRoi(coi.get(), 1, 0, 0, 6, 4);
            expectRefusal(op, a.get(), coi.get(), d.get(), KUV_StsBadArgument, "(nChSrcB != nChDst)");
        } else {
            expectRefusal(op, a.get(), nullptr, d16.get(), KUV_StsBadArgument,
                          "(srcImage->depth != dstImage->depth)");
            expectRefusal(op, plane.get(), nullptr, d.get(), KUV_StsBadArgument,
                          "(srcImage->dataOrder != dstImage->dataOrder)");
            expectRefusal(op, alpha.get(), nullptr, four.get(), KUV_StsBadArgument,
                          "(nChSrc != nChDst)");
            ImagePtr coi = copyImage(a.get());
            setRoi(coi.get(), 1, 0, 0, 6, 4);
            expectRefusal(op, coi.get(), nullptr, d.get(), KUV_StsBadArgument, "(nChSrc != nChDst)");
        }
        // A channel count test comes after the depth test.
        expectRefusal(op, alpha.get(), alpha.get(), d16.get(), KUV_StsBadArgument,
                      two ? "(srcImageA->depth != dstImage->depth)"
                          : "(srcImage->depth != dstImage->depth)");
    }
}

TEST(LogicRefusal, Depth32FIsRefusedAfterTheMasksAreMerged) {
    for (int i = 0; i < 6; ++i) {
        const AnyOp op{i};
        ImagePtr a = makeImage(KUV_DEPTH_32F, 1, 6, 4);
        ImagePtr b = makeImage(KUV_DEPTH_32F, 1, 6, 4);
        ImagePtr d = makeImage(KUV_DEPTH_32F, 1, 6, 4);
        fillRandom(d.get(), 5);
        expectRefusal(op, a.get(), b.get(), d.get(), KUV_StsBadArgument, kNo32F);

        // Two masks with no common area: the call ends before the depth test, silently.
        ImagePtr m1 = makeMask(8, 8, 1);
        ImagePtr m2 = makeMask(8, 8, 1);
        setRoi(m2.get(), 0, 9, 0, 4, 4);   // wholly beyond its mask image
        a->maskROI = m1.get();
        d->maskROI = m2.get();
        {
            RefusalGuard guard(a.get(), b.get(), d.get());
            ReportCapture capture;
            op(a.get(), b.get(), d.get());
            EXPECT_EQ(capture.count(), 0u) << op.name();
            EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError) << op.name();
            EXPECT_TRUE(guard.intact());
        }
        // One such mask alone is used as it is (no merge), so the depth test is reached.
        a->maskROI = nullptr;
        expectRefusal(op, a.get(), b.get(), d.get(), KUV_StsBadArgument, kNo32F);
        // Depth mismatch with 32F comes before the depth's own refusal.
        ImagePtr d8 = makeImage(KUV_DEPTH_8U, 1, 6, 4);
        expectRefusal(op, a.get(), a.get(), d8.get(), KUV_StsBadArgument,
                      op.binary() ? "(srcImageA->depth != dstImage->depth)"
                                  : "(srcImage->depth != dstImage->depth)");
        d->maskROI = nullptr;
    }
}

TEST(LogicRefusal, NotIsXorSWithMinusOneAndReportsAsXorS) {
    ImagePtr s = makeImage(KUV_DEPTH_32F, 2, 3, 3);
    ImagePtr d = makeLike(s.get());
    fillRandom(d.get(), 40);
    {
        RefusalGuard guard(s.get(), d.get());
        ReportCapture capture;
        kuvNot(s.get(), d.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvXorS", kNo32F, "kuvxors"));
        EXPECT_TRUE(guard.intact());
    }
    {
        ReportCapture capture;
        kuvNot(nullptr, d.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsNullHeader, "kuvXorS", "Incorrect Image", "kuvxors"));
    }
}

TEST(LogicRefusal, FailedTileRequestNamesTheImageAndWritesNothing) {
    struct SlotCase {
        int slot;   // 0 srcA, 1 srcB, 2 dst
        const char* text;
    };
    const SlotCase binaryCases[] = {
        {0, "(srcImageA->tileInfo->tileData == ((void*)(0)))"},
        {1, "(srcImageB->tileInfo->tileData == ((void*)(0)))"},
        {2, "(dstImage->tileInfo->tileData == ((void*)(0)))"}};
    const SlotCase constantCases[] = {{0, "(srcImage->tileInfo->tileData == ((void*)(0)))"},
                                      {2, "(dstImage->tileInfo->tileData == ((void*)(0)))"}};
    for (int i = 0; i < 6; ++i) {
        const AnyOp op{i};
        const SlotCase* cases = op.binary() ? binaryCases : constantCases;
        const int count = op.binary() ? 3 : 2;
        for (int k = 0; k < count; ++k) {
            for (uint32_t depth : {KUV_DEPTH_1U, KUV_DEPTH_16S}) {
                SCOPED_TRACE(std::string(op.name()) + " slot " + std::to_string(cases[k].slot) +
                             " " + depthName(depth));
                std::unique_ptr<TileStore> stores[3];
                for (int s = 0; s < 3; ++s) {
                    ImagePtr backing = makeImage(depth, 1, 20, 20);
                    fillRandom(backing.get(), 50 + s);
                    stores[s] = std::make_unique<TileStore>(std::move(backing), 8, 8);
                }
                stores[cases[k].slot]->failRequest(1);
                const std::vector<uint8_t> before = bytesOf(stores[2]->backing());
                ReportCapture capture;
                op(stores[0]->image(), stores[1]->image(), stores[2]->image());
                EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, op.name(), cases[k].text,
                                      op.file()));
                EXPECT_EQ(bytesOf(stores[2]->backing()), before);
                for (auto& s : stores) {
                    for (const std::string& f : s->faults()) ADD_FAILURE() << f;
                }
            }
        }
    }
}

TEST(LogicRefusal, RegionBeyondTheImageWritesNothingAndReportsNothing) {
    for (int i = 0; i < 6; ++i) {
        const AnyOp op{i};
        for (uint32_t depth : logicDepths()) {
            ImagePtr a = makeImage(depth, 1, 9, 5);
            ImagePtr d = makeImage(depth, 1, 9, 5);
            fillRandom(a.get(), 60);
            fillRandom(d.get(), 61);
            setRoi(d.get(), 0, 9, 0, 3, 3);
            RefusalGuard guard(a.get(), d.get());
            ReportCapture capture;
            op(a.get(), a.get(), d.get());
            EXPECT_EQ(capture.count(), 0u) << op.name() << " " << depthName(depth);
            EXPECT_TRUE(guard.intact()) << op.name() << " " << depthName(depth);
        }
    }
}

// ------------------------------------------------------------ tiles, status

TEST(LogicTiles, InPlaceTiledDestinationIsOnlyRequestedForWriting) {
    for (uint32_t depth : {KUV_DEPTH_1U, KUV_DEPTH_16U}) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr backing = makeImage(depth, 1, 20, 12);
        fillRandom(backing.get(), 80);
        ImagePtr b = makeImage(depth, 1, 20, 12);
        fillRandom(b.get(), 81);
        ImagePtr old = copyImage(backing.get());
        TileStore store(std::move(backing), 8, 8);
        ReportCapture capture;
        kuvXor(store.image(), b.get(), store.image());
        kuvNot(store.image(), store.image());
        EXPECT_EQ(capture.count(), 0u);
        int writes = 0, releases = 0;
        for (const TileStore::Request& r : store.log()) {
            EXPECT_NE(r.mode, KUV_TILE_READ) << "tile " << r.col << "," << r.row;
            writes += r.mode == KUV_TILE_WRITE;
            releases += r.mode == KUV_TILE_RELEASE;
        }
        EXPECT_EQ(writes, 12);   // 3 x 2 tiles, twice
        EXPECT_EQ(releases, writes);
        EXPECT_EQ(store.held(), 0);
        for (int y = 0; y < 12; ++y) {
            for (int x = 0; x < 20; ++x) {
                EXPECT_EQ(getBits(store.backing(), x, y, 0),
                          ~(getBits(old.get(), x, y, 0) ^ getBits(b.get(), x, y, 0)) & widthMask(depth));
            }
        }
        for (const std::string& f : store.faults()) ADD_FAILURE() << f;
    }
}

TEST(LogicStatus, SuccessLeavesTheThreadsStatusAsItWas) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadArgument);
    kuvAnd(a.get(), a.get(), d.get());
    kuvOrS(a.get(), d.get(), 3);
    kuvNot(a.get(), d.get());
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadArgument);
    EXPECT_EQ(capture.count(), 0u);
}

// ------------------------------------------------------------ kuvAdd of bits

TEST(LogicAddOfBits, AddOfBitImagesIsOr) {
    ImagePtr a = bitImage(50, 4, 70, 2, 1, 33, 3);
    ImagePtr b = bitImage(50, 4, 71, 7, 0, 40, 4);
    ImagePtr d = bitImage(50, 4, 72, 5, 0, 40, 4);
    const std::vector<uint8_t> want = expectedDst(
        2, [](uint32_t x, uint32_t y) { return x | y; }, a.get(), b.get(), d.get(), true);
    ReportCapture capture;
    kuvAdd(a.get(), b.get(), d.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(bytesOf(d.get()), want);
}

TEST(LogicAddOfBits, FaultsOfBitImageAdditionAreReportedByOr) {
    ImagePtr a = bitImage(16, 2, 73);
    ImagePtr d = bitImage(16, 2, 74);
    {
        RefusalGuard guard(a.get(), d.get());
        ReportCapture capture;
        kuvAdd(a.get(), nullptr, d.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsNullHeader, "kuvOr", "Incorrect Image", "kuvor"));
        EXPECT_TRUE(guard.intact());
    }
    {
        ImagePtr d8 = makeImage(KUV_DEPTH_8U, 1, 16, 2);
        RefusalGuard guard(a.get(), d8.get());
        ReportCapture capture;
        kuvAdd(a.get(), a.get(), d8.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvOr",
                              "(srcImageA->depth != dstImage->depth)", "kuvor"));
        EXPECT_TRUE(guard.intact());
    }
    {
        // The null first source is kuvAdd's own test, before any hand-over.
        ReportCapture capture;
        kuvAdd(nullptr, a.get(), d.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvAdd", "srcImageA==0", "kuvadd"));
    }
}

}  // namespace
