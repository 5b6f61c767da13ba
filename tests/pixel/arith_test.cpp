// kuvAdd, kuvSubtract, kuvMultiply, kuvSquare, kuvAbs, the image-constant forms
// and the pattern driver behind them. One seeded engine runs any pixelwise operation
// against a reference written here from its element rule over depth x order x region
// x coi x alpha x mask x tiles x in place; logic_test.cpp uses it and the tables too.
#include "tests/pixel/pixel_engine.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

namespace pixeltest {

using namespace kuvtest;

struct OpInfo {
    const char* file;
    int nSrc;
    std::function<void(const KuvImage*, const KuvImage*, KuvImage*, int32_t, int32_t, float)> fn;
};

namespace {
using I = const KuvImage*;
using D = KuvImage*;
OpInfo two(const char* file, void (*f)(I, I, D)) {
    return {file, 2, [f](I a, I b, D d, int32_t, int32_t, float) { f(a, b, d); }};
}
OpInfo one(const char* file, void (*f)(I, D)) {
    return {file, 1, [f](I a, I, D d, int32_t, int32_t, float) { f(a, d); }};
}
OpInfo withInt(const char* file, void (*f)(I, D, int32_t)) {
    return {file, 1, [f](I a, I, D d, int32_t v, int32_t, float) { f(a, d, v); }};
}
OpInfo withFloat(const char* file, void (*f)(I, D, float)) {
    return {file, 1, [f](I a, I, D d, int32_t, int32_t, float v) { f(a, d, v); }};
}
}  // namespace

// Every operation by its name: (srcA, srcB, dst, integer value, flip, float value).
const std::map<std::string, OpInfo>& ops() {
    static const std::map<std::string, OpInfo> table = {
        {"kuvAdd", two("kuvadd", kuvAdd)}, {"kuvSubtract", two("kuvsub", kuvSubtract)},
        {"kuvMultiply", two("kuvmul", kuvMultiply)}, {"kuvSquare", one("kuvsqr", kuvSquare)},
        {"kuvAbs", one("kuvabs", kuvAbs)}, {"kuvAddS", withInt("kuvadds", kuvAddS)},
        {"kuvSubtractS", {"kuvsubs", 1, [](I a, I, D d, int32_t v, int32_t f, float) { kuvSubtractS(a, d, v, f); }}},
        {"kuvMultiplyS", withInt("kuvmuls", kuvMultiplyS)}, {"kuvAddSFP", withFloat("kuvaddsf", kuvAddSFP)},
        {"kuvSubtractSFP", {"kuvsubsf", 1, [](I a, I, D d, int32_t, int32_t f, float v) { kuvSubtractSFP(a, d, v, f); }}},
        {"kuvMultiplySFP", withFloat("kuvmulsf", kuvMultiplySFP)}, {"kuvAnd", two("kuvand", kuvAnd)},
        {"kuvOr", two("kuvor", kuvOr)}, {"kuvXor", two("kuvxor", kuvXor)}, {"kuvAndS", withInt("kuvands", kuvAndS)},
        {"kuvOrS", withInt("kuvors", kuvOrS)}, {"kuvXorS", withInt("kuvxors", kuvXorS)},
        {"kuvNot", one("kuvxors", kuvNot)}, {"kuvLShiftS", withInt("kuvlshs", kuvLShiftS)},
        {"kuvRShiftS", withInt("kuvrshs", kuvRShiftS)}, {"kuvCopy", one("kuvsce", kuvCopy)},
    };
    return table;
}

Call callOf(const std::string& name, int32_t value, int32_t flip, float fvalue) {
    const OpInfo& op = ops().at(name);
    return [&op, value, flip, fvalue](const KuvImage* a, const KuvImage* b, KuvImage* d) {
        op.fn(a, b, d, value, flip, fvalue);
    };
}

namespace {

struct Region { int x, y, w, h; };

// The clipped region: what runs past the image is cut off, a size below 1 is 0.
Region regionOf(const KuvImage* im) {
    const KuvROI r = im->roi ? *im->roi : KuvROI{0, 0, 0, im->width, im->height};
    const int64_t w = std::min<int64_t>(int64_t{r.xOffset} + r.width, im->width) - r.xOffset;
    const int64_t h = std::min<int64_t>(int64_t{r.yOffset} + r.height, im->height) - r.yOffset;
    return w < 1 || h < 1 ? Region{r.xOffset, r.yOffset, 0, 0} : Region{r.xOffset, r.yOffset, int(w), int(h)};
}

// Both images walked as one flat array: one geometry, regions (if any) covering all, no coi.
bool sameFlat(const KuvImage* a, const KuvImage* b) {
    auto whole = [](const KuvImage* im, const KuvROI* r) {
        return !r || (r->xOffset == 0 && r->yOffset == 0 && r->width >= im->width &&
                      r->height >= im->height && (r->coi == 0 || (r->coi == 1 && im->nChannels == 1)));
    };
    return a->height == b->height && a->width == b->width && a->imageSize == b->imageSize &&
           a->align == b->align && whole(a, a->roi) && whole(b, b->roi);
}

// All imageSize bytes as one row of elements (bits for 1U).
KuvImage flatView(const KuvImage* im) {
    KuvImage v = *im;
    v.nChannels = 1, v.dataOrder = KUV_DATA_ORDER_PIXEL, v.height = 1, v.widthStep = im->imageSize;
    v.width = im->imageSize * 8 / depthBits(im->depth);
    return v;
}

// The operation's rules applied to e (a copy of the destination) from copies of the sources.
void reference(int nSrc, bool absRule, const KuvImage* const* src, KuvImage* e,
               const std::vector<const KuvImage*>& masks, bool anyTiled, const Elem& elem) {
    const KuvImage* im[3] = {src[0], nSrc == 2 ? src[1] : nullptr, e};
    bool alpha = false, flat = !absRule && !anyTiled && masks.empty();
    for (const KuvImage* i : im) alpha |= i != nullptr && i->alphaChannel != 0;
    for (int i = 0; i < nSrc; ++i) flat &= !alpha && sameFlat(src[i], e);
    if (flat) {   // padding included
        KuvImage v[3] = {flatView(src[0]), flatView(src[nSrc - 1]), flatView(e)};
        for (int x = 0; x < v[2].width; ++x) {
            put(&v[2], x, 0, 0, elem(get(&v[0], x, 0, 0), nSrc == 2 ? get(&v[1], x, 0, 0) : 0));
        }
        return;
    }
    int ch[3] = {0, 0, 0}, nK = 1, w = INT_MAX, h = INT_MAX;
    if (absRule) {   // a coi counts on several channels only; alpha is left out when both have one
        if (src[0]->roi && src[0]->roi->coi != 0 && src[0]->nChannels > 1) {
            ch[0] = src[0]->roi->coi - 1, ch[2] = e->roi->coi - 1;
        } else {
            nK = src[0]->alphaChannel && e->alphaChannel ? src[0]->nChannels - 1
                                                          : std::min(src[0]->nChannels, e->nChannels);
        }
    } else {
        bool all = true;
        for (int i = 0; i < 3; ++i) {
            const bool coi = im[i] && im[i]->roi && im[i]->roi->coi > 0;
            all &= !coi;
            if (coi) ch[i] = im[i]->roi->coi - 1;
        }
        if (all) nK = e->nChannels - (e->alphaChannel ? 1 : 0);
    }
    std::vector<const KuvImage*> all(im, im + 3);
    all.insert(all.end(), masks.begin(), masks.end());
    std::vector<Region> reg;
    for (const KuvImage* i : all) {
        reg.push_back(i ? regionOf(i) : Region{0, 0, INT_MAX, INT_MAX});
        w = std::min(w, reg.back().w), h = std::min(h, reg.back().h);
    }
    for (int r = 0; r < h; ++r) {
        for (int c = 0; c < w; ++c) {
            bool on = true;
            for (size_t m = 3; m < all.size(); ++m) on &= get(all[m], reg[m].x + c, reg[m].y + r, 0) != 0;
            for (int k = 0; on && k < nK; ++k) {
                const double a = get(src[0], reg[0].x + c, reg[0].y + r, ch[0] + k);
                const double b = nSrc == 2 ? get(src[1], reg[1].x + c, reg[1].y + r, ch[1] + k) : 0;
                put(e, reg[2].x + c, reg[2].y + r, ch[2] + k, elem(a, b));
            }
        }
    }
}

// Value ranges that keep most results inside the limits, by index in allDepths().
const int kNarrow[7][2] = {{0, 1}, {0, 20}, {-15, 15}, {0, 300}, {-200, 200}, {-50000, 50000}, {-100, 100}};

// One case drawn from rng. Images 0, 1, 2 stand for srcImageA, srcImageB,
// dstImage unless an argument is another argument's record.
void runCase(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed, Rng& rng, const Call& call,
             const Elem& elem, std::ostringstream& trace) {
    const bool bits = depth == KUV_DEPTH_1U, same = rng.chance(0.2), narrow = !bits && rng.chance(0.3);
    const bool coiMode = !bits && !same && !absRule && rng.chance(0.35), sameAlpha = !bits && rng.chance(0.2);
    int who[3] = {0, nSrc == 2 ? 1 : -1, 2};   // the image each argument is
    const double aliasDraw = rng.real(0, 1);
    if (aliasDraw < 0.12) who[2] = 0;
    else if (nSrc == 2 && aliasDraw < 0.2) who[2] = 1;
    else if (nSrc == 2 && aliasDraw < 0.26) who[1] = 0;
    const int aligns[4] = {4, 8, 16, 32}, p = int(rng.uniform(1, 3)), forced = int(rng.uniform(0, 2));
    const int sw = int(rng.uniform(1, 40)), sh = int(rng.uniform(1, 9)), salign = aligns[rng.uniform(0, 3)];
    // kuvAbs: 0-3 alpha bits of source and destination over equal colour counts;
    // 4, 5 equal nChannels with alpha on one only; 6 a coi on both.
    const int absVariant = int(rng.uniform(0, 6));
    const auto range = kNarrow[std::find(allDepths().begin(), allDepths().end(), depth) - allDepths().begin()];
    ImagePtr plain[3];
    std::unique_ptr<TileStore> store[3];
    KuvImage* arg[3] = {};
    bool anyTiled = false;
    trace << " who " << who[0] << who[1] << who[2] << (narrow ? " narrow" : "");
    for (int i = 0; i < 3; ++i) {
        if (std::find(who, who + 3, i) == who + 3) continue;
        int nCh = p, alpha = 0, coi = 0, w = sw, h = sh, align = salign;
        bool roi = rng.chance(same ? 0.4 : 0.5);
        if (!same) w = int(rng.uniform(1, 37)), h = int(rng.uniform(1, 17)), align = aligns[rng.uniform(0, 3)];
        if (bits) {
            nCh = 1, coi = rng.chance(0.3);
        } else if (same) {   // one geometry: the flat path, unless all carry alpha
            coi = !sameAlpha && p == 1 && rng.chance(0.5), nCh = p + sameAlpha, alpha = sameAlpha ? nCh : 0;
        } else if (absRule && absVariant == 6) {
            nCh = int(rng.uniform(2, 4)), alpha = rng.chance(0.3) ? nCh : 0;
            roi = true, coi = int(rng.uniform(1, nCh));
        } else if (absRule) {   // image 0 is the source
            const bool a = absVariant < 4 ? (absVariant >> (i / 2)) & 1 : (absVariant == 4) == (i == 0);
            nCh = absVariant < 4 ? p + a : p + 1, alpha = a ? nCh : 0, coi = nCh == 1 && rng.chance(0.3);
        } else if (coiMode && (i == forced || rng.chance(0.5))) {
            nCh = int(rng.uniform(1, 4)), alpha = nCh > 1 && rng.chance(0.3) ? nCh : 0;
            roi = true, coi = int(rng.uniform(1, nCh));
        } else {
            const int a = rng.chance(0.3);
            nCh = (coiMode ? 1 : p) + a, alpha = a ? nCh : 0;
        }
        plain[i] = makeImage(depth, nCh, w, h, bits ? int(rng.uniform(0, 1)) : order, alpha, align);
        ASSERT_TRUE(plain[i]);
        KuvImage* im = plain[i].get();
        if (narrow) fillRandomRange(im, seed * 7 + i, range[0], range[1]);
        else fillRandom(im, seed * 7 + i);
        trace << "\n  [" << i << "] " << w << "x" << h << "x" << nCh << " alpha " << alpha << " align " << align;
        if (roi) {   // whole (same geometry), or anywhere, now and then wholly beyond the image
            const int x = same ? 0 : rng.chance(0.04) ? w + 2 : int(rng.uniform(0, w - 1));
            const int y = same ? 0 : rng.chance(0.04) ? h + 1 : int(rng.uniform(0, h - 1));
            const int rw = int(rng.uniform(same ? w : 1, w + 4)), rh = int(rng.uniform(same ? h : 1, h + 4));
            setRoi(im, coi, x, y, rw, rh);
            trace << " roi " << coi << " " << x << "," << y << " " << rw << "x" << rh;
        }
        if (!same && rng.chance(0.25)) {
            const int mw = int(rng.uniform(1, 41)), mh = int(rng.uniform(1, 19));
            ImagePtr mask = makeMask(mw, mh, 0, aligns[rng.uniform(0, 3)]);
            fillRandom(mask.get(), seed * 7 + 3 + i);
            trace << " mask " << mw << "x" << mh;
            if (rng.chance(0.5)) {
                const int x = rng.chance(0.05) ? mw : int(rng.uniform(0, mw - 1)), y = int(rng.uniform(0, mh - 1));
                const int rw = int(rng.uniform(1, mw + 3)), rh = int(rng.uniform(1, mh + 3));
                setRoi(mask.get(), 0, x, y, rw, rh);
                trace << " roi " << x << "," << y << " " << rw << "x" << rh;
            }
            attachMask(im, std::move(mask));
        }
        arg[i] = im;
        if (same || !rng.chance(0.25)) continue;
        // Tiled: a store over a copy of the pixels, with the same region and mask.
        const int tw = 8 * int(rng.uniform(1, 3)), th = 8 * int(rng.uniform(1, 2));
        ImagePtr backing = copyImage(im);
        clearRoi(backing.get());
        store[i] = std::make_unique<TileStore>(std::move(backing), tw, th);
        arg[i] = store[i]->image();
        if (const KuvROI* r = im->roi) setRoi(arg[i], r->coi, r->xOffset, r->yOffset, r->width, r->height);
        if (im->maskROI) attachMask(arg[i], copyImage(im->maskROI));
        anyTiled = true;
        trace << " tiles " << tw << "x" << th;
    }
    SCOPED_TRACE(trace.str());
    const int di = who[2];
    ImagePtr expected = copyImage(plain[di].get());
    {
        ImagePtr s0 = copyImage(plain[who[0]].get()), s1 = nSrc == 2 ? copyImage(plain[who[1]].get()) : nullptr;
        const KuvImage* src[2] = {s0.get(), s1.get()};
        std::vector<const KuvImage*> masks;
        for (int w : who) {
            if (w >= 0 && plain[w]->maskROI) masks.push_back(plain[w]->maskROI);
        }
        reference(nSrc, absRule, src, expected.get(), masks, anyTiled, elem);
    }
    auto result = [&](int i) -> KuvImage* { return store[i] ? store[i]->backing() : plain[i].get(); };
    Snapshot before[3];
    for (int i = 0; i < 3; ++i) {
        if (plain[i]) before[i] = snapshot(result(i));
    }
    const long blocks = outstandingBlocks();
    const KuvStatus sentinel = absRule ? 0 : -777;   // kuvAbs stops on a negative status
    {
        ReportCapture capture;
        kuvSetErrStatus(sentinel);
        call(arg[who[0]], nSrc == 2 ? arg[who[1]] : nullptr, arg[di]);
        EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
        EXPECT_EQ(kuvGetErrStatus(), sentinel);
    }
    EXPECT_EQ(outstandingBlocks(), blocks);
    // The flat path writes the padding of whole untiled images; a tile walk
    // may take it inside a piece, and a tiled destination's padding lies in no tile.
    before[di].bytes.assign(expected->imageData, expected->imageData + expected->imageSize);
    EXPECT_TRUE(unchangedExcept(before[di], result(di), [](int, int, int) { return false; },
                                anyTiled && !store[di] ? Padding::MayChange : Padding::MustStay));
    for (int i = 0; i < 3; ++i) {
        if (plain[i] && i != di) {
            EXPECT_TRUE(unchangedExcept(before[i], result(i), [](int, int, int) { return false; }));
        }
    }
    for (int i = 0; i < 3; ++i) {
        if (!store[i]) continue;
        EXPECT_EQ(store[i]->held(), 0);
        for (const std::string& f : store[i]->faults()) ADD_FAILURE() << f;
        // The destination, also where it is a source's record, is only asked for writing.
        for (const TileStore::Request& r : store[i]->log()) EXPECT_TRUE(i != di || r.mode != KUV_TILE_READ);
    }
}

}  // namespace

// Runs `cases` seeded cases; KUV_PIXEL_SEED=<seed> reruns one printed seed alone.
void run(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed0, int cases, const Pick& pick) {
    const char* only = std::getenv("KUV_PIXEL_SEED");
    for (int i = 0; i < cases && !::testing::Test::HasFailure(); ++i) {
        const uint64_t seed = seed0 + uint64_t(i);
        if (only != nullptr && std::strtoull(only, nullptr, 10) != seed) continue;
        Rng rng(seed);
        std::string label;
        Call call;
        Elem elem;
        pick(rng, &label, &call, &elem);
        std::ostringstream trace;
        trace << "seed " << seed << " (KUV_PIXEL_SEED=" << seed << "): " << depthName(depth)
              << (order ? " plane " : " pixel ") << label;
        runCase(nSrc, absRule, depth, order, seed, rng, call, elem, trace);
    }
}

// Every element of a 67-wide row is a (and b in the second source; for the
// constant forms b is the constant, or the shift count): all results are
// `want`, once on the flat path and once through a region that leaves the
// first and last element alone.
void expectElement(const std::string& name, uint32_t depth, double a, double b, int32_t flip, double want) {
    SCOPED_TRACE(name + " " + depthName(depth) + " " + std::to_string(a) + ", " + std::to_string(b) +
                 " flip " + std::to_string(flip));
    const int32_t value = int32_t(std::clamp<double>(b, INT_MIN, INT_MAX));
    const Call call = callOf(name, value, flip, float(b));
    ImagePtr one = makeImage(depth, 1, 1, 1);
    put(one.get(), 0, 0, 0, want);
    const uint32_t wantBits = getBits(one.get(), 0, 0, 0);
    for (int region = 0; region < 2; ++region) {
        ImagePtr im[3];
        for (int i = 0; i < 3; ++i) {
            im[i] = makeImage(depth, 1, 67, 1);
            fillRandom(im[i].get(), 40 + i);
            for (int x = 0; x < 67 && i < ops().at(name).nSrc; ++x) put(im[i].get(), x, 0, 0, i == 0 ? a : b);
            if (region) setRoi(im[i].get(), 0, 1, 0, 65, 1);
        }
        const Snapshot before = snapshot(im[2].get());
        ReportCapture capture;
        call(im[0].get(), im[1].get(), im[2].get());
        EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
        for (int x = region; x < 67 - region; ++x) {
            ASSERT_EQ(getBits(im[2].get(), x, 0, 0), wantBits)
                << "element " << x << " is " << get(im[2].get(), x, 0, 0) << ", want " << want;
        }
        if (region) expectUnchangedExcept(before, im[2].get(), [](int x, int, int) { return x >= 1 && x < 66; });
    }
}

namespace {

void noTiles(const KuvImage*, int32_t, int32_t, int32_t) {}

// The images of the refusal tables, 6 x 4 unless told otherwise.
std::map<char, ImagePtr> images() {
    std::map<char, ImagePtr> m;
    const uint32_t U8 = KUV_DEPTH_8U;
    auto mk = [&](char c, uint32_t depth, int nCh, int order = 0, int alpha = 0) {
        m[c] = makeImage(depth, nCh, 6, 4, order, alpha);
        fillRandom(m[c].get(), uint64_t(c));
        return m[c].get();
    };
    for (char c : {'a', 'b', 'd'}) mk(c, U8, 3);                // valid 8U RGB
    mk('p', U8, 3, 1);                                          // plane order
    mk('A', U8, 4, 0, 4), mk('f', U8, 4), mk('1', U8, 1);       // alpha, four channels, one channel
    setRoi(mk('c', U8, 3), 1, 0, 0, 6, 4);                      // coi 1 of 3
    const uint32_t S8 = KUV_DEPTH_8S, S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    mk('w', KUV_DEPTH_16U, 3), mk('s', S8, 3), mk('t', S8, 3), mk('q', S8, 3, 1), mk('h', S16, 3), mk('H', S16, 3, 1);
    mk('i', S32, 3), mk('I', S32, 3, 1), mk('F', F32, 3), mk('G', F32, 3), mk('x', F32, 3, 1), mk('y', F32, 1);
    mk('u', KUV_DEPTH_1U, 1), mk('v', KUV_DEPTH_1U, 1, 1), mk('e', KUV_DEPTH_8S, 1);
    setRoi(mk('C', KUV_DEPTH_8S, 3), 2, 0, 0, 6, 4);            // coi 2 of 3, 8S
    mk('z', U8, 3)->imageSize = 0;                              // bad headers
    m['n'] = ImagePtr(kuvCreateImageHeader(3, 0, U8, "RGB", "BGR", 0, 0, 4, 6, 4, nullptr, nullptr, 0, nullptr));
    mk('Z', KUV_DEPTH_8S, 3)->imageSize = 0;
    mk('U', U8, 3)->depth = KUV_DEPTH_1U;                       // a bit image of three channels
    setRoi(mk('o', U8, 3), 4, 0, 0, 2, 2);
    attachMask(mk('M', U8, 3), makeImage(U8, 1, 6, 4));
    attachMask(mk('T', U8, 3), makeMask(6, 4, 1));
    m['T']->maskROI->tileInfo = kuvCreateTileInfo(noTiles, 0, 8, 8);
    attachMask(mk('K', KUV_DEPTH_32F, 3), makeMask(6, 4, 1));   // 32F, a mask; and one beyond its image
    ImagePtr beyond = makeMask(6, 4, 1);
    setRoi(beyond.get(), 0, 7, 0, 2, 2);
    attachMask(mk('L', KUV_DEPTH_32F, 3), std::move(beyond));
    return m;
}

}  // namespace

// Each row: exactly its report (or none), the status it sets, and every record untouched.
void expectRefusals(const std::vector<Refusal>& rows) {
    std::map<char, ImagePtr> m = images();
    for (const Refusal& r : rows) {
        SCOPED_TRACE(std::string(r.op) + " " + r.args + " " + std::to_string(r.value) + ": " +
                     (r.context ? r.context : "silent"));
        KuvImage* im[3];
        for (int i = 0; i < 3; ++i) im[i] = r.args[i] == '.' || r.args[i] == '-' ? nullptr : m.at(r.args[i]).get();
        RefusalGuard guard(im[0], im[1], im[2]);
        ReportCapture capture;
        callOf(r.op, r.value, 0, float(r.value))(im[0], im[1], im[2]);
        if (r.status == 0) {
            EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
            EXPECT_EQ(kuvGetErrStatus(), 0);
        } else {
            EXPECT_TRUE(oneReport(capture, r.status, r.func, r.context, ops().at(r.func).file));
        }
        EXPECT_TRUE(guard.intact());
    }
}

}  // namespace pixeltest

namespace {

using namespace kuvtest;
using pixeltest::Call;
using pixeltest::Elem;

const KuvStatus BAD = KUV_StsBadArgument, NUL = KUV_StsNullHeader;
constexpr const char* kImage = "Incorrect Image";

// x and the second element or constant v as each operation defines them:
// integers exact in double and then limited, floats in float, bits by their own rule.
Elem ruleOf(const std::string& op, uint32_t depth, int32_t v = 0, float fv = 0, int32_t flip = 0) {
    const bool vb = v & 1;
    auto rule = [depth](auto onBits, auto onValues) -> Elem {
        return [=](double a, double b) {
            if (depth == KUV_DEPTH_1U) return double(onBits(a != 0, b != 0));
            if (depth == KUV_DEPTH_32F) return double(onValues(float(a), float(b)));
            return saturateTo(depth, onValues(a, b));
        };
    };
    if (op == "kuvAdd") return rule([](bool a, bool b) { return a || b; }, [](auto a, auto b) { return a + b; });
    if (op == "kuvSubtract") return rule([](bool a, bool b) { return a && !b; }, [](auto a, auto b) { return a - b; });
    if (op == "kuvMultiply") return rule([](bool a, bool b) { return a && b; }, [](auto a, auto b) { return a * b; });
    if (op == "kuvSquare") return rule([](bool a, bool) { return a; }, [](auto a, auto) { return a * a; });
    if (op == "kuvAbs") return rule([](bool a, bool) { return a; }, [](auto a, auto) { return a < 0 ? -a : a; });
    if (op == "kuvAddS") return rule([=](bool a, bool) { return a || vb; }, [=](auto a, auto) { return a + v; });
    if (op == "kuvMultiplyS") return rule([=](bool a, bool) { return a && vb; }, [=](auto a, auto) { return a * v; });
    if (op == "kuvSubtractS") {
        return rule([=](bool a, bool) { return flip ? vb && !a : a && !vb; },
                    [=](auto a, auto) { return flip ? v - a : a - v; });
    }
    if (op == "kuvAddSFP") return rule([](bool a, bool) { return a; }, [=](auto a, auto) { return a + fv; });
    if (op == "kuvMultiplySFP") return rule([](bool a, bool) { return a; }, [=](auto a, auto) { return a * fv; });
    return rule([](bool a, bool) { return a; }, [=](auto a, auto) { return flip ? fv - a : a - fv; });
}

// Every operation over every depth it computes and both orders; the constant
// forms with constants at the edges of every row of their decision tables.
TEST(ArithDifferential, EveryOperationAgainstTheElementRules) {
    const float floats[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.25f, 1e30f, -3e38f, FLT_MAX, INFINITY, -INFINITY, NAN};
    uint64_t seed = 1000000;
    for (const std::string op : {"kuvAdd", "kuvSubtract", "kuvMultiply", "kuvSquare", "kuvAbs", "kuvAddS",
                                 "kuvSubtractS", "kuvMultiplyS", "kuvAddSFP", "kuvSubtractSFP", "kuvMultiplySFP"}) {
        for (uint32_t depth : allDepths()) {
            const bool fp = op.back() == 'P', f32 = depth == KUV_DEPTH_32F;
            const bool any = op == "kuvAdd" || op == "kuvSubtract" || op == "kuvMultiply" || op == "kuvSquare";
            if (op == "kuvAbs" ? !f32 && !(depth & KUV_DEPTH_SIGN) : !any && f32 != fp) continue;
            // A float's limit does not fit an integer; its integer values are only labels.
            const int64_t m = f32 ? int64_t{1} << 40 : int64_t(depthMax(depth));
            const std::vector<int64_t> values = {0, 1, -1, 2, m, m + 1, m - 1, -m, -m - 1, -m + 1, 2 * m, 2 * m - 1,
                                                 127, 128, -128, -129, 254, -256, 32768, -32769, 65535, -65536,
                                                 -70000, INT_MIN, INT_MAX};
            auto pick = [&](Rng& rng, std::string* label, Call* call, Elem* elem) {
                const int64_t drawn = rng.chance(0.2) ? rng.uniform(-2 * m - 2, 2 * m + 2)
                                                      : values[size_t(rng.uniform(0, int64_t(values.size()) - 1))];
                const int32_t v = int32_t(std::clamp<int64_t>(drawn, INT_MIN, INT_MAX));
                const float fv = rng.chance(0.5) ? float(rng.real(-1e4, 1e4)) : floats[rng.uniform(0, 10)];
                const int32_t flip = std::vector<int32_t>{0, 1, -1, INT_MIN}[rng.uniform(0, 3)];
                *label = op + " value " + (fp ? std::to_string(fv) : std::to_string(v)) + " flip " +
                         std::to_string(flip);
                *call = pixeltest::callOf(op, v, flip, fv), *elem = ruleOf(op, depth, v, fv, flip);
            };
            for (int order : {0, 1}) {
                pixeltest::run(pixeltest::ops().at(op).nSrc, op == "kuvAbs", depth, order, seed += 1000, 60, pick);
            }
        }
    }
}

TEST(ArithEdges, ExactValuesAtTheLimits) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    const double lo = INT_MIN, hi = INT_MAX, inf = INFINITY;
    const char *ADD = "kuvAdd", *SUB = "kuvSubtract", *MUL = "kuvMultiply", *SQR = "kuvSquare", *ABS = "kuvAbs",
               *ADDS = "kuvAddS", *SUBS = "kuvSubtractS", *MULS = "kuvMultiplyS", *ADDF = "kuvAddSFP",
               *SUBF = "kuvSubtractSFP", *MULF = "kuvMultiplySFP";
    const struct { const char* op; uint32_t depth; double a, b; int32_t flip; double want; } edges[] = {
        {ADD, U8, 200, 100, 0, 255}, {ADD, U8, 100, 0, 0, 100}, {ADD, U8, 254, 1, 0, 255},
        {ADD, U8, 127, 1, 0, 128}, {ADD, S8, 100, 100, 0, 127}, {ADD, S8, -100, -100, 0, -128},
        {ADD, S8, 127, -128, 0, -1}, {ADD, U16, 65535, 1, 0, 65535}, {ADD, U16, 32768, 32767, 0, 65535},
        {ADD, U16, 255, 1, 0, 256}, {ADD, S16, 32767, 1, 0, 32767}, {ADD, S16, -32768, -1, 0, -32768},
        {ADD, S16, 16384, 16383, 0, 32767}, {ADD, S32, hi, 1, 0, hi}, {ADD, S32, lo, -1, 0, lo},
        {ADD, S32, hi, lo, 0, -1}, {ADD, S32, 1073741824, 1073741823, 0, hi},
        {ADD, S32, 65536, 65536, 0, 131072}, {ADD, F32, 3e38, 3e38, 0, inf},
        {ADD, F32, 16777216, 1, 0, 16777216}, {ADD, U1, 1, 0, 0, 1}, {SUB, U1, 1, 1, 0, 0},
        {SUB, U1, 1, 0, 0, 1}, {SUB, U1, 0, 1, 0, 0}, {SUB, U8, 10, 200, 0, 0},
        {SUB, S8, -128, 1, 0, -128}, {SUB, S8, 0, -128, 0, 127}, {SUB, U16, 0, 65535, 0, 0},
        {SUB, S16, 0, -32768, 0, 32767}, {SUB, S32, 0, lo, 0, hi}, {SUB, S32, lo, hi, 0, lo},
        {SUB, F32, 3e38, -3e38, 0, inf}, {MUL, U1, 1, 0, 0, 0}, {MUL, U8, 15, 17, 0, 255},
        {MUL, U8, 15, 16, 0, 240}, {MUL, S8, -128, -128, 0, 127}, {MUL, S8, -128, 127, 0, -128},
        {MUL, U16, 65535, 65535, 0, 65535}, {MUL, U16, 256, 255, 0, 65280},
        {MUL, S16, -32768, -1, 0, 32767}, {MUL, S32, -46341, 46341, 0, lo}, {MUL, S32, lo, -1, 0, hi},
        {MUL, S32, 65536, 32768, 0, hi}, {MUL, F32, 1e20, -1e20, 0, -inf}, {SQR, U1, 1, 0, 0, 1},
        {SQR, U8, 16, 0, 0, 255}, {SQR, U8, 15, 0, 0, 225}, {SQR, S8, -128, 0, 0, 127},
        {SQR, U16, 256, 0, 0, 65535}, {SQR, U16, 255, 0, 0, 65025}, {SQR, S16, -32768, 0, 0, 32767},
        {SQR, S16, 181, 0, 0, 32761}, {SQR, S32, 46341, 0, 0, hi}, {SQR, S32, 46340, 0, 0, 2147395600},
        {SQR, S32, lo, 0, 0, hi}, {SQR, F32, -2e19, 0, 0, inf}, {ABS, S8, -128, 0, 0, 127},
        {ABS, S8, -127, 0, 0, 127}, {ABS, S16, -32768, 0, 0, 32767}, {ABS, S32, lo, 0, 0, hi},
        {ABS, S32, -hi, 0, 0, hi}, {ABS, F32, -inf, 0, 0, inf}, {ADDS, U8, 0, 255, 0, 255},
        {ADDS, U8, 255, -255, 0, 0}, {ADDS, U8, 200, 100, 0, 255}, {ADDS, U16, 65535, -70000, 0, 0},
        {ADDS, S8, -128, lo, 0, -128}, {ADDS, S8, 127, hi, 0, 127}, {ADDS, S16, 32767, -65536, 0, -32768},
        {ADDS, S32, hi, 1, 0, hi}, {ADDS, S32, lo, -1, 0, lo}, {ADDS, S32, lo, hi, 0, -1},
        {ADDS, U1, 0, 3, 0, 1}, {ADDS, U1, 0, 2, 0, 0}, {SUBS, U8, 100, 300, 1, 200},
        {SUBS, U8, 10, 300, 1, 255}, {SUBS, U8, 0, 510, 1, 255}, {SUBS, U8, 255, 509, 1, 254},
        {SUBS, U8, 1, -254, 0, 255}, {SUBS, U8, 0, -254, 0, 254}, {SUBS, S8, -128, 1000, 1, 127},
        {SUBS, S8, 127, 1000, 1, 127}, {SUBS, S8, 127, -1000, 1, -128}, {SUBS, S8, -128, -1000, 0, 127},
        {SUBS, S16, 32767, 70000, 1, 32767}, {SUBS, U16, 1, 65535, 1, 65534},
        {SUBS, U16, 0, 131069, 1, 65535}, {SUBS, S32, 1, lo, 1, lo}, {SUBS, S32, -1, lo, 1, lo + 1},
        {SUBS, S32, 0, lo, 0, hi}, {SUBS, U1, 0, 1, 1, 1}, {SUBS, U1, 1, 1, 1, 0}, {SUBS, U1, 1, 2, 1, 0},
        {SUBS, U1, 1, 3, 0, 0}, {SUBS, U1, 1, 2, 0, 1}, {MULS, U8, 200, 0, 0, 0},
        {MULS, U8, 200, -3, 0, 0}, {MULS, U8, 1, 300, 0, 255}, {MULS, S8, -1, 1000, 0, -128},
        {MULS, S8, 1, 1000, 0, 127}, {MULS, S16, -1, 40000, 0, -32768},
        {MULS, U16, 65535, 65535, 0, 65535}, {MULS, U16, 2, hi, 0, 65535}, {MULS, S32, lo, -1, 0, hi},
        {MULS, S32, 46341, 46341, 0, hi}, {MULS, U1, 1, 3, 0, 1}, {MULS, U1, 1, 2, 0, 0},
        {SUBF, F32, 0.25, 1.0, 1, 0.75}, {SUBF, F32, 0.25, 1.0, 0, -0.75},
        {MULF, F32, 1e30, 1e30, 0, inf}, {ADDF, F32, 3e38, 3e38, 0, inf},
    };
    for (const auto& e : edges) pixeltest::expectElement(e.op, e.depth, e.a, e.b, e.flip, e.want);
    // 32F absolute values flip the sign of values below 0 only: -0.0 and NaNs keep their bits.
    const uint32_t bits[] = {0x80000000u, 0x7FC00000u, 0xFFC00001u, 0x7F800001u, 0xFF812345u, 0xBF800000u};
    ImagePtr s = makeImage(F32, 1, 6, 1), d = makeImage(F32, 1, 6, 1);
    std::memcpy(s->imageData, bits, sizeof bits);
    kuvAbs(s.get(), d.get());
    for (int x = 0; x < 6; ++x) EXPECT_EQ(getBits(d.get(), x, 0, 0), x < 5 ? bits[x] : 0x3F800000u) << x;
}

TEST(ArithRefusal, StatusFunctionContextAndFile) {
    const char* dA = "(srcImageA->depth != dstImage->depth)";
    const char* d1 = "(srcImage->depth != dstImage->depth)";
    const char* o1 = "(srcImage->dataOrder != dstImage->dataOrder)";
    const char *dB = "(srcImageB->depth != dstImage->depth)", *oA = "(srcImageA->dataOrder != dstImage->dataOrder)";
    const char *oB = "(srcImageB->dataOrder != dstImage->dataOrder)", *nA = "(nChSrcA != nChDst)";
    const char *nB = "(nChSrcB != nChDst)", *n1 = "(nChSrc != nChDst)";
    pixeltest::expectRefusals({
        {"kuvAdd", "...", 0, BAD, "kuvAdd", "srcImageA==0"}, {"kuvAdd", "a.d", 0, NUL, "kuvAdd", kImage},
        {"kuvAdd", "ab.", 0, NUL, "kuvAdd", kImage},
        // headers in argument order
        {"kuvAdd", "z.d", 0, KUV_StsBadImageSize, "kuvAdd", kImage},
        {"kuvAdd", "anz", 0, KUV_StsBadDataPointers, "kuvAdd", kImage},
        {"kuvAdd", "abo", 0, KUV_StsBadCOI, "kuvAdd", kImage},
        {"kuvAdd", "Mbd", 0, KUV_StsBadDepth - KUV_StsMaskOffset, "kuvAdd", kImage},
        {"kuvAdd", "abT", 0, KUV_StsMaskTiled, "kuvAdd", kImage},
        {"kuvAdd", "abU", 0, KUV_StsBadChannels1U, "kuvAdd", kImage}, {"kuvAdd", "wbd", 0, BAD, "kuvAdd", dA},
        {"kuvAdd", "wwd", 0, BAD, "kuvAdd", dA}, {"kuvAdd", "asd", 0, BAD, "kuvAdd", dB},
        // every depth test first
        {"kuvAdd", "pwd", 0, BAD, "kuvAdd", dB}, {"kuvAdd", "pbd", 0, BAD, "kuvAdd", oA},
        {"kuvAdd", "abp", 0, BAD, "kuvAdd", oA}, {"kuvAdd", "apd", 0, BAD, "kuvAdd", oB},
        {"kuvAdd", "Aff", 0, BAD, "kuvAdd", nA}, {"kuvAdd", "fAf", 0, BAD, "kuvAdd", nB},
        {"kuvAdd", "ffA", 0, BAD, "kuvAdd", nA}, {"kuvAdd", "cbd", 0, BAD, "kuvAdd", nA},
        {"kuvAdd", "acd", 0, BAD, "kuvAdd", nB}, {"kuvAdd", "pcd", 0, BAD, "kuvAdd", oA},
        {"kuvAdd", "u.u", 0, NUL, "kuvOr", kImage}, {"kuvAdd", "uua", 0, BAD, "kuvOr", dA},
        {"kuvSubtract", ".bd", 0, NUL, "kuvSubtract", kImage},
        {"kuvSubtract", "a1d", 0, BAD, "kuvSubtract", nB},
        {"kuvMultiply", "..a", 0, BAD, "kuvMultiply", "srcImageA==0"},
        {"kuvMultiply", "apd", 0, BAD, "kuvMultiply", oB}, {"kuvMultiply", "u.u", 0, NUL, "kuvAnd", kImage},
        {"kuvMultiply", "uau", 0, BAD, "kuvAnd", dB}, {"kuvSquare", ".-a", 0, NUL, "kuvSquare", kImage},
        {"kuvSquare", "s-a", 0, BAD, "kuvSquare", d1}, {"kuvSquare", "a-p", 0, BAD, "kuvSquare", o1},
        {"kuvSquare", "1-a", 0, BAD, "kuvSquare", n1}, {"kuvAbs", ".-s", 0, BAD, "kuvAbs", "srcImage==0"},
        {"kuvAbs", "s-.", 0, BAD, "kuvAbs", "dstImage==0"},
        {"kuvAbs", "s-Z", 0, KUV_StsBadImageSize, "kuvAbs", kImage}, {"kuvAbs", "h-s", 0, BAD, "kuvAbs", d1},
        {"kuvAbs", "s-q", 0, BAD, "kuvAbs", o1},
        {"kuvAbs", "C-t", 0, BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)"},
        {"kuvAbs", "t-C", 0, BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)"},
        {"kuvAbs", "e-t", 0, BAD, "kuvAbs", "(srcImage->nChannels != dstImage->nChannels)"},
        {"kuvAddS", ".-a", 5, BAD, "kuvAddS", "srcImage==0"},
        {"kuvAddS", "F-G", 5, BAD, "kuvAddS", "For processing depth 32F use function kuvAddSFP"},
        {"kuvAddS", "i-I", 5, BAD, "kuvAddS", o1}, {"kuvAddS", "a-1", 5, BAD, "kuvSubtractS", n1},
        {"kuvAddS", "a-p", 5, BAD, "kuvSubtractS", o1}, {"kuvAddS", "u-a", 5, BAD, "kuvOrS", d1},
        {"kuvSubtractS", ".-a", 5, BAD, "kuvSubtractS", "srcImage==0"},
        {"kuvSubtractS", "F-G", 5, BAD, "kuvSubtractS", "For processing depth 32F use function kuvSubtractSFP"},
        {"kuvSubtractS", "h-H", 5, BAD, "kuvSubtractS", o1},
        {"kuvSubtractS", "s-a", 7, BAD, "kuvSubtractS", d1},
        {"kuvMultiplyS", ".-a", 5, BAD, "kuvMultiplyS", "srcImage==0"},
        {"kuvMultiplyS", "F-G", 5, BAD, "kuvMultiplyS", "For processing depth 32F use function kuvMultiplySFP"},
        {"kuvMultiplyS", "h-H", 5, BAD, "kuvMultiplyS", o1}, {"kuvMultiplyS", "a-s", 0, BAD, "kuvAndS", d1},
        {"kuvAddSFP", ".-F", 5, BAD, "kuvAddSFP", "srcImage==0"},
        {"kuvAddSFP", "a-a", 5, BAD, "kuvAddSFP", "For processing this depth use function kuvAddS"},
        {"kuvSubtractSFP", "a-a", 5, BAD, "kuvSubtractSFP", "For processing this depth use function kuvSubtractS"},
        {"kuvMultiplySFP", "a-a", 5, BAD, "kuvMultiplySFP", "For processing this depth use function kuvMultiplyS"},
        {"kuvAddSFP", "F-x", 5, BAD, "kuvAddSFP", o1}, {"kuvSubtractSFP", "F-x", 5, BAD, "kuvSubtractSFP", o1},
        {"kuvMultiplySFP", "F-i", 2, BAD, "kuvMultiplySFP", d1},
        {"kuvSubtractSFP", "F-y", 2, BAD, "kuvSubtractSFP", n1},
    });
}

// With a bad destination, the operation that reports is the one each row of
// the decision tables hands to, for the constants below: D kuvAddS,
// S kuvSubtractS, M kuvMultiplyS, A kuvAndS, O kuvOrS, X kuvXorS.
TEST(ArithRefusal, EachRowOfTheDecisionTablesReportsUnderItsOperation) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S;
    const struct { const char* op; uint32_t depth; int flip; const char* who; } rows[] = {
        {"kuvSubtractS", U1, 0, "XAAAXAXXAXXA"}, {"kuvSubtractS", U1, 1, "AXXXAXAAXAAX"},
        {"kuvSubtractS", U8, 0, "SSSAAOOAOOOA"}, {"kuvSubtractS", U8, 1, "ASASSAAOAAAO"},
        {"kuvSubtractS", U16, 0, "SSSAAOOAOOOA"}, {"kuvSubtractS", U16, 1, "ASASSAAOAAAO"},
        {"kuvSubtractS", S8, 1, "SSSSSSSSSSSS"}, {"kuvSubtractS", S16, 0, "SSSSSSSSSSSS"},
        {"kuvAddS", U1, 0, "OOOOOOOOOOOO"}, {"kuvAddS", U8, 0, "SSSOOAAOAAAO"}, {"kuvAddS", U16, 0, "SSSOOAAOAAAO"},
        {"kuvAddS", S16, 0, "SSSSSSSSSSSS"}, {"kuvAddS", S32, 0, "DDDDDDDDDDDD"},
        {"kuvMultiplyS", U1, 0, "AAAAAAAAAAAA"}, {"kuvMultiplyS", U8, 0, "AMAMMAAMAAAM"},
        {"kuvMultiplyS", U16, 0, "AMAMMAAMAAAM"}, {"kuvMultiplyS", S8, 0, "MMMMMMMMMMMM"},
    };
    const std::string letters = "DSMAOX";
    const char* funcs[] = {"kuvAddS", "kuvSubtractS", "kuvMultiplyS", "kuvAndS", "kuvOrS", "kuvXorS"};
    for (const auto& r : rows) {
        const int64_t m = int64_t(depthMax(r.depth));
        const int64_t values[] = {0, 1, -1, m, m + 1, -m, -m - 1, 2 * m, -65535, -65536, INT_MIN, INT_MAX};
        ImagePtr s = makeImage(r.depth, 1, 9, 2), d = makeImage(r.depth, 1, 9, 2);
        d->imageSize = 0;
        for (size_t i = 0; i < 12; ++i) {
            const int32_t v = int32_t(std::clamp<int64_t>(values[i], INT_MIN, INT_MAX));
            SCOPED_TRACE(std::string(r.op) + " " + depthName(r.depth) + " flip " + std::to_string(r.flip) +
                         " value " + std::to_string(v));
            ReportCapture capture;
            pixeltest::callOf(r.op, v, r.flip, 0)(s.get(), nullptr, d.get());
            const char* func = funcs[letters.find(r.who[i])];
            EXPECT_TRUE(oneReport(capture, KUV_StsBadImageSize, func, kImage, pixeltest::ops().at(func).file));
        }
    }
}

TEST(ArithAbs, StatusRulesAndTheCopyOfUnsignedDepths) {
    ImagePtr s = makeImage(KUV_DEPTH_16S, 1, 5, 3), d = makeLike(s.get()), u = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    put(s.get(), 2, 1, 0, -7);
    {   // both pointer tests report; a stale negative status stops it silently until cleared
        ReportCapture capture;
        kuvAbs(nullptr, nullptr);
        ASSERT_EQ(capture.count(), 2u);
        EXPECT_TRUE(isReport(capture.reports()[1], BAD, "kuvAbs", "dstImage==0", "kuvabs"));
        capture.clear();
        kuvSetErrStatus(-4);
        kuvAbs(s.get(), d.get());
        EXPECT_EQ(get(d.get(), 2, 1, 0), 0);
        EXPECT_EQ(kuvGetErrStatus(), -4);
        kuvSetErrStatus(0);
        kuvAbs(s.get(), d.get());
        EXPECT_EQ(get(d.get(), 2, 1, 0), 7);
        EXPECT_EQ(capture.count(), 0u);
        kuvAbs(s.get(), u.get());   // an unsigned destination is kuvCopy's, then the trace
        ASSERT_EQ(capture.count(), 2u);
        EXPECT_TRUE(isReport(capture.reports()[0], BAD, "kuvCopy", "srcImage->depth != dstImage->depth", "kuvsce"));
        EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvAbs", "kuvCopy is failed", "kuvabs"));
    }
    for (uint32_t depth : {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_16U}) {
        ImagePtr a = makeImage(depth, 1, 19, 6), b = makeImage(depth, 1, 19, 6);
        fillRandom(a.get(), 61), fillRandom(b.get(), 62);
        setRoi(a.get(), 0, 3, 1, 12, 4);
        ImagePtr viaCopy = copyImage(b.get());
        ReportCapture capture;
        kuvCopy(a.get(), viaCopy.get()), kuvAbs(a.get(), b.get());
        EXPECT_EQ(std::memcmp(b->imageData, viaCopy->imageData, size_t(b->imageSize)), 0) << depthName(depth);
        EXPECT_EQ(capture.count(), 0u);
    }
}

// ------------------------------------------------------------------ tiles

using TCall = TileStore::Call;
TCall at(const TileStore& s, int col, int row, int mode) { return TCall{s.id(), {col, row, mode}}; }
const int R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;

TEST(ArithTiles, RequestSequencesTheWalkFixes) {
    ReportCapture capture;
    {   // 2 x 2 tiles in source and destination
        TileStore a(makeImage(KUV_DEPTH_8U, 1, 16, 16), 8, 8), d(makeImage(KUV_DEPTH_8U, 1, 16, 16), 8, 8);
        ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 16, 16);
        TileStore::clearCalls();
        kuvAdd(a.image(), b.get(), d.image());
        std::vector<TCall> want;
        for (int u = 0; u < 2; ++u) {
            want.insert(want.end(), {at(a, 0, u, R), at(d, 0, u, W), at(a, 0, u, X), at(a, 1, u, R),
                                     at(d, 0, u, X), at(d, 1, u, W), at(a, 1, u, X), at(d, 1, u, X)});
        }
        EXPECT_EQ(TileStore::calls(), want);
    }
    {   // tile heights 8 and 16: bands of 8 rows, the destination's tile asked for twice
        TileStore a(makeImage(KUV_DEPTH_32S, 1, 8, 16), 8, 8), d(makeImage(KUV_DEPTH_32S, 1, 8, 16), 8, 16);
        ImagePtr b = makeImage(KUV_DEPTH_32S, 1, 8, 16);
        TileStore::clearCalls();
        kuvSubtract(a.image(), b.get(), d.image());
        EXPECT_EQ(TileStore::calls(), (std::vector<TCall>{at(a, 0, 0, R), at(d, 0, 0, W), at(a, 0, 0, X), at(d, 0, 0, X),
                                                          at(a, 0, 1, R), at(d, 0, 0, W), at(a, 0, 1, X), at(d, 0, 0, X)}));
    }
    {   // a rectangle inside one tile; a region in the last, partial tile column
        TileStore a(makeImage(KUV_DEPTH_16S, 2, 20, 20), 8, 8);
        setRoi(a.image(), 0, 9, 9, 5, 5);
        ImagePtr d = makeImage(KUV_DEPTH_16S, 2, 5, 5);
        kuvMultiplyS(a.image(), d.get(), 3);
        setRoi(a.image(), 0, 17, 0, 10, 8);
        kuvSquare(a.image(), d.get());
        EXPECT_EQ(a.log(), (std::vector<TileStore::Request>{{1, 1, R}, {1, 1, X}, {2, 0, R}, {2, 0, X}}));
    }
    EXPECT_EQ(capture.count(), 0u);
}

// All three images tiled 8x8 over 16x16: every READ or WRITE made to fail in
// turn. The calls before it are the successful run's, nothing after it; the
// report names the image; only destination tiles handed back are written.
TEST(ArithTiles, FailedRequestAtEachPosition) {
    auto build = [](std::unique_ptr<TileStore> s[3]) {
        for (int i = 0; i < 3; ++i) {
            ImagePtr back = makeImage(KUV_DEPTH_16U, 1, 16, 16);
            fillRandom(back.get(), 250 + i);
            s[i] = std::make_unique<TileStore>(std::move(back), 8, 8);
        }
    };
    std::unique_ptr<TileStore> ok[3];
    build(ok);
    TileStore::clearCalls();
    kuvAdd(ok[0]->image(), ok[1]->image(), ok[2]->image());
    const std::vector<TCall> full = TileStore::calls();
    ASSERT_EQ(full.size(), 24u);
    const char* texts[3] = {"(srcImageA->tileInfo->tileData == ((void*)(0)))",
                            "(srcImageB->tileInfo->tileData == ((void*)(0)))",
                            "(dstImage->tileInfo->tileData == ((void*)(0)))"};
    for (size_t j = 0; j < full.size(); ++j) {
        if (full[j].request.mode == X) continue;
        SCOPED_TRACE("failing call " + std::to_string(j));
        int who = 0, k = 0;
        while (ok[who]->id() != full[j].store) ++who;
        for (size_t i = 0; i <= j; ++i) k += full[i].store == full[j].store && full[i].request.mode != X;
        std::unique_ptr<TileStore> s[3];
        build(s);
        s[who]->failRequest(k);
        const Snapshot dstBefore = snapshot(s[2]->backing());
        TileStore::clearCalls();
        ReportCapture capture;
        kuvAdd(s[0]->image(), s[1]->image(), s[2]->image());
        EXPECT_TRUE(oneReport(capture, BAD, "kuvAdd", texts[who], "kuvadd"));
        std::vector<TCall> prefix;
        std::vector<std::pair<int, int>> written;
        for (size_t i = 0; i <= j; ++i) {
            const int image = full[i].store == ok[0]->id() ? 0 : full[i].store == ok[1]->id() ? 1 : 2;
            prefix.push_back(TCall{s[image]->id(), full[i].request});
            const TileStore::Request& q = full[i].request;
            if (image == 2 && q.mode == X) written.emplace_back(q.col, q.row);
        }
        EXPECT_EQ(TileStore::calls(), prefix);
        auto inWritten = [&](int x, int y, int) {
            return std::find(written.begin(), written.end(), std::make_pair(x / 8, y / 8)) != written.end();
        };
        expectUnchangedExcept(dstBefore, s[2]->backing(), inWritten);
    }
}

// A failed first request of each image, in each operation's own words; kuvAbs
// also insists that a released tile's pointer is cleared.
std::vector<char> gTileMemory(8 * 8 * 4);
void keepOnRelease(const KuvImage* image, int32_t, int32_t, int32_t mode) {
    if (mode != X) image->tileInfo->tileData = gTileMemory.data();
}

TEST(ArithTiles, FailedRequestTextsOfEveryOperation) {
    for (const auto& [name, op] : pixeltest::ops()) {
        if (name == "kuvCopy") continue;   // its own block walk
        const uint32_t depth = name == "kuvAbs" ? KUV_DEPTH_16S
                               : name.back() == 'P' ? KUV_DEPTH_32F : KUV_DEPTH_32S;
        for (int slot = 0; slot < 3; ++slot) {
            if (op.nSrc == 1 && slot == 1) continue;
            SCOPED_TRACE(name + " slot " + std::to_string(slot));
            std::unique_ptr<TileStore> s[3];
            for (int i = 0; i < 3; ++i) s[i] = std::make_unique<TileStore>(makeImage(depth, 1, 20, 12), 8, 8);
            s[slot]->failRequest(1);
            const char* who = slot == 2 ? "dstImage" : op.nSrc == 1 ? "srcImage" : slot == 0 ? "srcImageA" : "srcImageB";
            ReportCapture capture;
            pixeltest::callOf(name, 3, 0, 3)(s[0]->image(), s[1]->image(), s[2]->image());
            const char* func = name == "kuvNot" ? "kuvXorS" : name.c_str();
            const std::string text = std::string("(") + who + "->tileInfo->tileData == ((void*)(0)))";
            EXPECT_TRUE(oneReport(capture, BAD, func, text.c_str(), op.file));
        }
    }
    for (int tiledDst = 0; tiledDst < 2; ++tiledDst) {
        ImagePtr plain = makeImage(KUV_DEPTH_16S, 1, 16, 8);
        ImagePtr kept(kuvCreateImageHeader(1, 0, KUV_DEPTH_16S, "GRAY", "G\0\0\0", 0, 0, 4, 16, 8, nullptr, nullptr, 0,
                                           kuvCreateTileInfo(keepOnRelease, 0, 8, 8)));
        ReportCapture capture;
        kuvAbs(tiledDst ? plain.get() : kept.get(), tiledDst ? kept.get() : plain.get());
        EXPECT_TRUE(oneReport(capture, BAD, "kuvAbs",
                              tiledDst ? "(dstImage->tileInfo->tileData != ((void*)(0)))"
                                       : "(srcImage->tileInfo->tileData != ((void*)(0)))", "kuvabs"));
    }
}

}  // namespace
