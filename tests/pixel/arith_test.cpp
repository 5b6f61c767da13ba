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
#include <deque>
#include <map>
#include <set>

namespace pixeltest {

using namespace kuvtest;
using I = const KuvImage*;
using D = KuvImage*;
using V = int32_t;

// An operation's source file name, its sources, and its call with (srcA, srcB, dst, value, flip, float value).
struct OpInfo {
    const char* file;
    int nSrc;
    std::function<void(I, I, D, V, V, float)> fn;
};
using F = float;
OpInfo as(const char* file, void (*f)(I, I, D)) { return {file, 2, [f](I a, I b, D d, V, V, F) { f(a, b, d); }}; }
OpInfo as(const char* file, void (*f)(I, D)) { return {file, 1, [f](I a, I, D d, V, V, F) { f(a, d); }}; }
OpInfo as(const char* file, void (*f)(I, D, V)) { return {file, 1, [f](I a, I, D d, V v, V, F) { f(a, d, v); }}; }
OpInfo as(const char* file, void (*f)(I, D, F)) { return {file, 1, [f](I a, I, D d, V, V, F v) { f(a, d, v); }}; }
OpInfo as(const char* fl, void (*f)(I, D, V, V)) { return {fl, 1, [f](I a, I, D d, V v, V s, F) { f(a, d, v, s); }}; }
OpInfo as(const char* fl, void (*f)(I, D, F, V)) { return {fl, 1, [f](I a, I, D d, V, V s, F v) { f(a, d, v, s); }}; }

const std::map<std::string, OpInfo>& ops() {
    static const std::map<std::string, OpInfo> table = {
        {"kuvAdd", as("kuvadd", kuvAdd)}, {"kuvSubtract", as("kuvsub", kuvSubtract)},
        {"kuvMultiply", as("kuvmul", kuvMultiply)}, {"kuvSquare", as("kuvsqr", kuvSquare)},
        {"kuvAbs", as("kuvabs", kuvAbs)}, {"kuvAddS", as("kuvadds", kuvAddS)},
        {"kuvSubtractS", as("kuvsubs", kuvSubtractS)}, {"kuvMultiplyS", as("kuvmuls", kuvMultiplyS)},
        {"kuvAddSFP", as("kuvaddsf", kuvAddSFP)},
        {"kuvSubtractSFP", as("kuvsubsf", kuvSubtractSFP)}, {"kuvMultiplySFP", as("kuvmulsf", kuvMultiplySFP)},
        {"kuvAnd", as("kuvand", kuvAnd)}, {"kuvOr", as("kuvor", kuvOr)}, {"kuvXor", as("kuvxor", kuvXor)},
        {"kuvAndS", as("kuvands", kuvAndS)}, {"kuvOrS", as("kuvors", kuvOrS)}, {"kuvXorS", as("kuvxors", kuvXorS)},
        {"kuvNot", as("kuvxors", kuvNot)}, {"kuvLShiftS", as("kuvlshs", kuvLShiftS)},
        {"kuvRShiftS", as("kuvrshs", kuvRShiftS)}, {"kuvCopy", as("kuvsce", kuvCopy)},
    };
    return table;
}

Call callOf(const std::string& name, int32_t value, int32_t flip, float fvalue) {
    const OpInfo& op = ops().at(name);
    return [&op, value, flip, fvalue](I a, I b, D d) { op.fn(a, b, d, value, flip, fvalue); };
}

namespace {

struct Region { int x, y, w, h; };

// The clipped region (a size below 1 is 0); an absent image takes no part.
Region regionOf(const KuvImage* im) {
    if (im == nullptr) return {0, 0, INT_MAX, INT_MAX};
    const KuvROI r = im->roi ? *im->roi : KuvROI{0, 0, 0, im->width, im->height};
    const int64_t w = std::min<int64_t>(int64_t{r.xOffset} + r.width, im->width) - r.xOffset;
    const int64_t h = std::min<int64_t>(int64_t{r.yOffset} + r.height, im->height) - r.yOffset;
    return {r.xOffset, r.yOffset, int(std::max<int64_t>(w, 0)), int(std::max<int64_t>(h, 0))};
}

// Both images walked as one flat array: one geometry, regions (if any) covering all, no coi.
bool whole(const KuvImage* im) {
    const KuvROI* r = im->roi;
    return !r || (r->xOffset == 0 && r->yOffset == 0 && r->width >= im->width && r->height >= im->height &&
                  (r->coi == 0 || (r->coi == 1 && im->nChannels == 1)));
}
bool sameFlat(const KuvImage* a, const KuvImage* b) {
    return a->height == b->height && a->width == b->width && a->imageSize == b->imageSize && a->align == b->align &&
           whole(a) && whole(b);
}

// All imageSize bytes as one row of elements (bits for 1U).
KuvImage flatView(const KuvImage* im) {
    KuvImage v = *im;
    v.nChannels = 1, v.dataOrder = KUV_DATA_ORDER_PIXEL, v.height = 1, v.widthStep = im->imageSize;
    v.width = im->imageSize * 8 / depthBits(im->depth);
    return v;
}

// Every element slot (padding too) from the depth's limits, their neighbours and the
// roots of its largest value, or from a range that keeps most results inside the limits.
void fillEdges(KuvImage* im, uint64_t seed) {
    const uint32_t depth = im->depth;
    const double lo = depthMin(depth), hi = depthMax(depth), r = std::floor(std::sqrt(hi)), m = std::floor(hi / 2);
    const std::vector<double> edges = depth == KUV_DEPTH_32F
        ? std::vector<double>{0, -0.0, 1, -1, 0.25, FLT_MAX, -FLT_MAX, INFINITY, -INFINITY, 16777216, 1e20, -2e19}
        : std::vector<double>{lo, lo + 1, -1, 0, 1, 2, hi - 1, hi, r, r + 1, -r - 1, m, m + 1, -m - 1};
    const double narrow = depth == KUV_DEPTH_32S ? 50000 : depth == KUV_DEPTH_32F ? 100 : std::min(hi, 300.0);
    KuvImage v = flatView(im);
    Rng rng(seed);
    for (int x = 0; x < v.width; ++x) {
        const double e = rng.chance(0.5) ? edges[rng.uniform(0, int64_t(edges.size()) - 1)]
                                         : double(rng.uniform(int64_t(-narrow), int64_t(narrow)));
        put(&v, x, 0, 0, depth == KUV_DEPTH_32F ? e : std::clamp(e, lo, hi));
    }
}

// The operation's rules applied to e, a copy of the destination, from copies of the
// sources: all holds source A, source B or null, e, then the masks.
void reference(int nSrc, bool absRule, const std::vector<const KuvImage*>& all, KuvImage* e, bool anyTiled,
               const Elem& elem) {
    const KuvImage *a = all[0], *b = all[1];
    bool alpha = false, flat = !absRule && !anyTiled && all.size() == 3;
    for (int i = 0; i < 3; ++i) alpha |= all[i] != nullptr && all[i]->alphaChannel != 0;
    for (int i = 0; i < nSrc; ++i) flat &= !alpha && sameFlat(all[i], e);
    if (flat) {   // padding included
        KuvImage v[3] = {flatView(a), flatView(b ? b : a), flatView(e)};
        for (int x = 0; x < v[2].width; ++x) {
            put(&v[2], x, 0, 0, elem(get(&v[0], x, 0, 0), b ? get(&v[1], x, 0, 0) : 0));
        }
        return;
    }
    auto coiOf = [](const KuvImage* i) { return i && i->roi ? i->roi->coi : 0; };
    int ch[3] = {0, 0, 0}, nK = 1, w = INT_MAX, h = INT_MAX;
    if (absRule && coiOf(a) && a->nChannels > 1) {   // kuvAbs: a coi counts on several channels only;
        ch[0] = coiOf(a) - 1, ch[2] = coiOf(e) - 1;
    } else if (absRule) {   // alpha is left out when both have one
        nK = a->alphaChannel && e->alphaChannel ? a->nChannels - 1 : std::min(a->nChannels, e->nChannels);
    } else if (!coiOf(a) && !coiOf(b) && !coiOf(e)) {
        nK = e->nChannels - (e->alphaChannel ? 1 : 0);
    } else {
        for (int i = 0; i < 3; ++i) ch[i] = std::max(coiOf(all[i]) - 1, 0);
    }
    std::vector<Region> reg;
    for (const KuvImage* i : all) {
        reg.push_back(regionOf(i));
        w = std::min(w, reg.back().w), h = std::min(h, reg.back().h);
    }
    for (int r = 0; r < h; ++r) {
        for (int c = 0; c < w; ++c) {
            bool on = true;
            for (size_t m = 3; m < all.size(); ++m) on &= get(all[m], reg[m].x + c, reg[m].y + r, 0) != 0;
            for (int k = 0; on && k < nK; ++k) {
                const double x = get(a, reg[0].x + c, reg[0].y + r, ch[0] + k);
                const double y = b ? get(b, reg[1].x + c, reg[1].y + r, ch[1] + k) : 0;
                put(e, reg[2].x + c, reg[2].y + r, ch[2] + k, elem(x, y));
            }
        }
    }
}

// A region anywhere, now and then wholly beyond the image; or (whole) at 0,0 and at least the image's size.
void drawRoi(Rng& rng, KuvImage* im, int coi, bool whole) {
    const int w = im->width, h = im->height;
    const int x = whole ? 0 : rng.chance(0.04) ? w + 2 : int(rng.uniform(0, w - 1));
    const int y = whole ? 0 : rng.chance(0.04) ? h + 1 : int(rng.uniform(0, h - 1));
    const int rw = int(rng.uniform(whole ? w : 1, w + 4)), rh = int(rng.uniform(whole ? h : 1, h + 4));
    setRoi(im, coi, x, y, rw, rh);
}

// One case drawn from rng. Images 0, 1, 2 stand for srcImageA, srcImageB,
// dstImage unless an argument is another argument's record.
void runCase(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed, Rng& rng, const Call& call,
             const Elem& elem) {
    const bool bits = depth == KUV_DEPTH_1U, same = rng.chance(0.2), edges = !bits && rng.chance(0.4);
    const bool coiMode = !bits && !same && !absRule && rng.chance(0.35), sameAlpha = !bits && rng.chance(0.2);
    const double alias = rng.real(0, 1);   // the image each argument is
    const int who[3] = {0, nSrc == 1 ? -1 : alias >= 0.2 && alias < 0.26 ? 0 : 1,
                        alias < 0.12 ? 0 : nSrc == 2 && alias < 0.2 ? 1 : 2};
    const int aligns[4] = {4, 8, 16, 32}, p = int(rng.uniform(1, 3)), forced = int(rng.uniform(0, 2));
    const int sw = int(rng.uniform(1, 40)), sh = int(rng.uniform(1, 9)), salign = aligns[rng.uniform(0, 3)];
    // kuvAbs: 0-3 alpha bits of source and destination over equal colour counts;
    // 4, 5 equal nChannels with alpha on one only; 6 a coi on both.
    const int absVariant = int(rng.uniform(0, 6));
    ImagePtr plain[3];   // each image, its tile store if tiled, and the record passed
    std::unique_ptr<TileStore> store[3];
    KuvImage* arg[3] = {};
    for (int i = 0; i < 3; ++i) {
        if (std::find(who, who + 3, i) == who + 3) continue;
        int nCh = p, alpha = 0, coi = 0, w = sw, h = sh, align = salign;
        bool roi = rng.chance(same ? 0.4 : 0.5);
        if (!same) w = int(rng.uniform(1, 37)), h = int(rng.uniform(1, 17)), align = aligns[rng.uniform(0, 3)];
        if (bits) {
            nCh = 1, coi = rng.chance(0.3);
        } else if (same) {   // one geometry: the flat path, unless all carry alpha
            coi = !sameAlpha && p == 1 && rng.chance(0.5), nCh = p + sameAlpha, alpha = sameAlpha ? nCh : 0;
        } else if (absRule && absVariant < 6) {   // image 0 is the source
            const bool a = absVariant < 4 ? (absVariant >> (i / 2)) & 1 : (absVariant == 4) == (i == 0);
            nCh = absVariant < 4 ? p + a : p + 1, alpha = a ? nCh : 0, coi = nCh == 1 && rng.chance(0.3);
        } else if (absRule || (coiMode && (i == forced || rng.chance(0.5)))) {
            nCh = int(rng.uniform(absRule ? 2 : 1, 4)), alpha = nCh > 1 && rng.chance(0.3) ? nCh : 0;
            roi = true, coi = int(rng.uniform(1, nCh));
        } else {
            const int a = rng.chance(0.3);
            nCh = (coiMode ? 1 : p) + a, alpha = a ? nCh : 0;
        }
        plain[i] = makeImage(depth, nCh, w, h, bits ? int(rng.uniform(0, 1)) : order, alpha, align);
        ASSERT_TRUE(plain[i]);
        KuvImage* im = arg[i] = plain[i].get();
        edges ? fillEdges(im, seed * 7 + i) : fillRandom(im, seed * 7 + i);
        if (roi) drawRoi(rng, im, coi, same);
        if (!same && rng.chance(0.25)) {
            ImagePtr mask = makeMask(int(rng.uniform(1, 41)), int(rng.uniform(1, 19)), 0, aligns[rng.uniform(0, 3)]);
            fillRandom(mask.get(), seed * 7 + 3 + i);
            if (rng.chance(0.5)) drawRoi(rng, mask.get(), 0, false);
            attachMask(im, std::move(mask));
        }
        if (same || !rng.chance(0.25)) continue;
        // Tiled: a store over a copy of the pixels, with the same region and mask.
        const int tw = 8 * int(rng.uniform(1, 3)), th = 8 * int(rng.uniform(1, 2));
        ImagePtr backing = copyImage(im);
        clearRoi(backing.get());
        store[i] = std::make_unique<TileStore>(std::move(backing), tw, th);
        arg[i] = store[i]->image();
        if (const KuvROI* r = im->roi) setRoi(arg[i], r->coi, r->xOffset, r->yOffset, r->width, r->height);
        if (im->maskROI) attachMask(arg[i], copyImage(im->maskROI));
    }
    const int di = who[2];
    const bool anyTiled = store[0] || store[1] || store[2];
    ImagePtr expected = copyImage(plain[di].get()), s0 = copyImage(plain[0].get());
    ImagePtr s1 = nSrc == 2 ? copyImage(plain[who[1]].get()) : nullptr;
    std::vector<const KuvImage*> all = {s0.get(), s1.get(), expected.get()};
    for (int w : who) {
        if (w >= 0 && plain[w]->maskROI) all.push_back(plain[w]->maskROI);
    }
    reference(nSrc, absRule, all, expected.get(), anyTiled, elem);
    auto result = [&](int i) -> KuvImage* { return store[i] ? store[i]->backing() : plain[i].get(); };
    Snapshot before[3];
    for (int i = 0; i < 3; ++i) {
        if (plain[i]) before[i] = snapshot(result(i));
    }
    const KuvStatus sentinel = absRule ? 0 : -777;   // kuvAbs stops on a negative status
    {
        ReportCapture capture;
        kuvSetErrStatus(sentinel);
        call(arg[0], nSrc == 2 ? arg[who[1]] : nullptr, arg[di]);
        EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
        EXPECT_EQ(kuvGetErrStatus(), sentinel);
    }
    // The flat path writes the padding of whole untiled images; a tile walk
    // may take it inside a piece, and a tiled destination's padding lies in no tile.
    before[di].bytes.assign(expected->imageData, expected->imageData + expected->imageSize);
    for (int i = 0; i < 3; ++i) {
        if (!plain[i]) continue;
        const Padding pad = i == di && anyTiled && !store[di] ? Padding::MayChange : Padding::MustStay;
        EXPECT_TRUE(unchangedExcept(before[i], result(i), [](int, int, int) { return false; }, pad)) << "image " << i;
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
    for (uint64_t seed = seed0; seed < seed0 + uint64_t(cases) && !::testing::Test::HasFailure(); ++seed) {
        if (only != nullptr && std::strtoull(only, nullptr, 10) != seed) continue;
        Rng rng(seed);
        std::string label;
        Call call;
        Elem elem;
        pick(rng, &label, &call, &elem);
        SCOPED_TRACE("seed " + std::to_string(seed) + " (KUV_PIXEL_SEED=" + std::to_string(seed) + "): " +
                     depthName(depth) + (order ? " plane " : " pixel ") + label);
        runCase(nSrc, absRule, depth, order, seed, rng, call, elem);
    }
}

// Every element of a 67-wide row is a (and b in the second source; for the
// constant forms b is the constant, or the shift count): all results are
// `want`, once on the flat path and once through a region that leaves the
// first and last element alone.
void expectElement(const std::string& name, uint32_t depth, double a, double b, int32_t flip, double want) {
    SCOPED_TRACE(name + " " + depthName(depth) + " " + std::to_string(a) + ", " + std::to_string(b) + " flip " +
                 std::to_string(flip));
    const Call call = callOf(name, int32_t(std::clamp<double>(b, INT_MIN, INT_MAX)), flip, float(b));
    ImagePtr one = makeImage(depth, 1, 1, 1);
    put(one.get(), 0, 0, 0, want);
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
            ASSERT_EQ(getBits(im[2].get(), x, 0, 0), getBits(one.get(), 0, 0, 0))
                << "element " << x << " is " << get(im[2].get(), x, 0, 0) << ", want " << want;
        }
        if (region) expectUnchangedExcept(before, im[2].get(), [](int x, int, int) { return x >= 1 && x < 66; });
    }
}

namespace {

void noTiles(const KuvImage*, int32_t, int32_t, int32_t) {}

// The images of the refusal tables, 6 x 4, by letter; see the notes for the odd ones.
std::map<char, ImagePtr> images() {
    const uint32_t U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    const struct { char c; uint32_t depth; int nCh, order, alpha, coi; } kinds[] = {
        {'a', U8, 3}, {'b', U8, 3}, {'d', U8, 3}, {'p', U8, 3, 1}, {'A', U8, 4, 0, 4}, {'f', U8, 4}, {'1', U8, 1},
        {'c', U8, 3, 0, 0, 1}, {'w', KUV_DEPTH_16U, 3}, {'s', S8, 3}, {'t', S8, 3}, {'q', S8, 3, 1}, {'h', S16, 3},
        {'H', S16, 3, 1}, {'i', S32, 3}, {'I', S32, 3, 1}, {'F', F32, 3}, {'G', F32, 3}, {'x', F32, 3, 1},
        {'y', F32, 1}, {'u', KUV_DEPTH_1U, 1}, {'e', S8, 1}, {'C', S8, 3, 0, 0, 2}, {'o', U8, 3, 0, 0, 4},
        {'z', U8, 3}, {'Z', S8, 3}, {'U', U8, 3}, {'M', U8, 3}, {'T', U8, 3}, {'K', F32, 3}, {'L', F32, 3},
    };
    std::map<char, ImagePtr> m;
    for (const auto& k : kinds) {
        m[k.c] = makeImage(k.depth, k.nCh, 6, 4, k.order, k.alpha);
        fillRandom(m[k.c].get(), uint64_t(k.c));
        if (k.coi) setRoi(m[k.c].get(), k.coi, 0, 0, 6, 4);   // c: coi 1 of 3, C: 2 of 3, o: 4 of 3
    }
    m['z']->imageSize = 0, m['Z']->imageSize = 0, m['U']->depth = KUV_DEPTH_1U;   // bad headers; U has 3 channels
    m['n'] = ImagePtr(kuvCreateImageHeader(3, 0, U8, "RGB", "BGR", 0, 0, 4, 6, 4, nullptr, nullptr, 0, nullptr));
    attachMask(m['M'].get(), makeImage(U8, 1, 6, 4));   // masks: of 8 bits, tiled, on 32F, and one beyond its image
    attachMask(m['T'].get(), makeMask(6, 4, 1));
    m['T']->maskROI->tileInfo = kuvCreateTileInfo(noTiles, 0, 8, 8);
    attachMask(m['K'].get(), makeMask(6, 4, 1)), attachMask(m['L'].get(), makeMask(6, 4, 1));
    setRoi(m['L']->maskROI, 0, 7, 0, 2, 2);
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

// Every operation over every depth it computes and both orders, on images that
// often hold the limits and their neighbours; the constant forms with constants
// at the edges of every row of their decision tables.
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
                pixeltest::run(pixeltest::ops().at(op).nSrc, op == "kuvAbs", depth, order, seed += 1000, 80, pick);
            }
        }
    }
}

// Values fixed by hand, beside the rules above, that keep those rules honest.
TEST(ArithEdges, ExactValuesAtTheLimits) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U, S16 = KUV_DEPTH_16S,
                   S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    const double lo = INT_MIN, hi = INT_MAX;
    const struct { const char* op; uint32_t depth; double a, b; int32_t flip; double want; } edges[] = {
        {"kuvAdd", S8, -100, -100, 0, -128}, {"kuvAdd", S32, hi, 1, 0, hi}, {"kuvSubtract", U1, 0, 1, 0, 0},
        {"kuvMultiply", U16, 65535, 65535, 0, 65535}, {"kuvMultiply", S32, -46341, 46341, 0, lo},
        {"kuvSquare", S32, 46340, 0, 0, 2147395600}, {"kuvAbs", S16, -32768, 0, 0, 32767},
        {"kuvAddS", U16, 65535, -70000, 0, 0}, {"kuvSubtractS", U8, 10, 300, 1, 255},
        {"kuvSubtractS", S8, -128, 1000, 1, 127}, {"kuvMultiplyS", S8, -1, 1000, 0, -128},
        {"kuvSubtractSFP", F32, 0.25, 1.0, 1, 0.75}, {"kuvMultiplySFP", F32, 1e30, 1e30, 0, INFINITY},
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
    const char *dA = "(srcImageA->depth != dstImage->depth)", *dB = "(srcImageB->depth != dstImage->depth)";
    const char *oA = "(srcImageA->dataOrder != dstImage->dataOrder)", *nA = "(nChSrcA != nChDst)";
    const char *oB = "(srcImageB->dataOrder != dstImage->dataOrder)", *nB = "(nChSrcB != nChDst)";
    const char *d1 = "(srcImage->depth != dstImage->depth)", *n1 = "(nChSrc != nChDst)";
    const char *o1 = "(srcImage->dataOrder != dstImage->dataOrder)", *s0 = "srcImage==0";
    std::deque<std::string> texts;   // the texts built below
    auto text = [&](const std::string& t) { return texts.emplace_back(t).c_str(); };
    std::vector<pixeltest::Refusal> rows;
    // The pattern's tests in their order: headers in argument order, every depth test first.
    for (const char* op : {"kuvAdd", "kuvSubtract", "kuvMultiply"}) {
        rows.insert(rows.end(), {
            {op, "a.d", 0, NUL, op, kImage}, {op, "ab.", 0, NUL, op, kImage},
            {op, "z.d", 0, KUV_StsBadImageSize, op, kImage}, {op, "anz", 0, KUV_StsBadDataPointers, op, kImage},
            {op, "abo", 0, KUV_StsBadCOI, op, kImage}, {op, "Mbd", 0, KUV_StsBadDepth - KUV_StsMaskOffset, op, kImage},
            {op, "abT", 0, KUV_StsMaskTiled, op, kImage}, {op, "abU", 0, KUV_StsBadChannels1U, op, kImage},
            {op, "wbd", 0, BAD, op, dA}, {op, "wwd", 0, BAD, op, dA},
            {op, "asd", 0, BAD, op, dB}, {op, "pwd", 0, BAD, op, dB}, {op, "pbd", 0, BAD, op, oA},
            {op, "abp", 0, BAD, op, oA}, {op, "apd", 0, BAD, op, oB}, {op, "Aff", 0, BAD, op, nA},
            {op, "fAf", 0, BAD, op, nB}, {op, "ffA", 0, BAD, op, nA}, {op, "cbd", 0, BAD, op, nA},
            {op, "acd", 0, BAD, op, nB}, {op, "pcd", 0, BAD, op, oA}, {op, "a1d", 0, BAD, op, nB},
        });
    }
    for (const std::string op : {"kuvAddS", "kuvSubtractS", "kuvMultiplyS"}) {   // each form points to the other
        const char *i = text(op), *f = text(op + "FP");
        rows.insert(rows.end(), {{i, ".-a", 5, BAD, i, s0}, {f, ".-F", 5, BAD, f, s0},
                                 {i, "F-G", 5, BAD, i, text("For processing depth 32F use function " + op + "FP")},
                                 {f, "a-a", 5, BAD, f, text("For processing this depth use function " + op)}});
    }
    rows.insert(rows.end(), {
        {"kuvAdd", "...", 0, BAD, "kuvAdd", "srcImageA==0"},
        {"kuvMultiply", "..a", 0, BAD, "kuvMultiply", "srcImageA==0"},
        {"kuvSubtract", ".bd", 0, NUL, "kuvSubtract", kImage}, {"kuvSubtract", "uau", 0, BAD, "kuvSubtract", dB},
        {"kuvAdd", "u.u", 0, NUL, "kuvOr", kImage}, {"kuvAdd", "uua", 0, BAD, "kuvOr", dA},   // bits: OR and AND
        {"kuvMultiply", "u.u", 0, NUL, "kuvAnd", kImage}, {"kuvMultiply", "uau", 0, BAD, "kuvAnd", dB},
        {"kuvSquare", ".-a", 0, NUL, "kuvSquare", kImage}, {"kuvSquare", "s-a", 0, BAD, "kuvSquare", d1},
        {"kuvSquare", "a-p", 0, BAD, "kuvSquare", o1}, {"kuvSquare", "1-a", 0, BAD, "kuvSquare", n1},
        {"kuvAbs", ".-s", 0, BAD, "kuvAbs", s0}, {"kuvAbs", "s-.", 0, BAD, "kuvAbs", "dstImage==0"},
        {"kuvAbs", "s-Z", 0, KUV_StsBadImageSize, "kuvAbs", kImage}, {"kuvAbs", "h-s", 0, BAD, "kuvAbs", d1},
        {"kuvAbs", "s-q", 0, BAD, "kuvAbs", o1}, {"kuvAbs", "C-t", 0, BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)"},
        {"kuvAbs", "t-C", 0, BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)"},
        {"kuvAbs", "e-t", 0, BAD, "kuvAbs", "(srcImage->nChannels != dstImage->nChannels)"},
        {"kuvAddS", "i-I", 5, BAD, "kuvAddS", o1}, {"kuvAddS", "a-1", 5, BAD, "kuvSubtractS", n1},
        {"kuvAddS", "a-p", 5, BAD, "kuvSubtractS", o1}, {"kuvSubtractS", "h-H", 5, BAD, "kuvSubtractS", o1},
        {"kuvSubtractS", "s-a", 7, BAD, "kuvSubtractS", d1}, {"kuvMultiplyS", "h-H", 5, BAD, "kuvMultiplyS", o1},
        {"kuvAddSFP", "F-x", 5, BAD, "kuvAddSFP", o1}, {"kuvSubtractSFP", "F-x", 5, BAD, "kuvSubtractSFP", o1},
        {"kuvMultiplySFP", "F-i", 2, BAD, "kuvMultiplySFP", d1},
        {"kuvSubtractSFP", "F-y", 2, BAD, "kuvSubtractSFP", n1},
    });
    pixeltest::expectRefusals(rows);
}

// With a bad destination, the operation that reports is the one each row of
// the decision tables hands to, for the constants below: D kuvAddS,
// S kuvSubtractS, M kuvMultiplyS, A kuvAndS, O kuvOrS, X kuvXorS.
TEST(ArithRefusal, EachRowOfTheDecisionTablesReportsUnderItsOperation) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, U16 = KUV_DEPTH_16U, S16 = KUV_DEPTH_16S;
    const struct { const char* op; uint32_t depth; int flip; const char* who; } rows[] = {
        {"kuvSubtractS", U1, 0, "XAAAXAXXAXXA"}, {"kuvSubtractS", U1, 1, "AXXXAXAAXAAX"},
        {"kuvSubtractS", U8, 0, "SSSAAOOAOOOA"}, {"kuvSubtractS", U8, 1, "ASASSAAOAAAO"},
        {"kuvSubtractS", U16, 0, "SSSAAOOAOOOA"}, {"kuvSubtractS", U16, 1, "ASASSAAOAAAO"},
        {"kuvSubtractS", KUV_DEPTH_8S, 1, "SSSSSSSSSSSS"}, {"kuvSubtractS", S16, 0, "SSSSSSSSSSSS"},
        {"kuvAddS", U1, 0, "OOOOOOOOOOOO"}, {"kuvAddS", U8, 0, "SSSOOAAOAAAO"}, {"kuvAddS", U16, 0, "SSSOOAAOAAAO"},
        {"kuvAddS", S16, 0, "SSSSSSSSSSSS"}, {"kuvAddS", KUV_DEPTH_32S, 0, "DDDDDDDDDDDD"},
        {"kuvMultiplyS", U1, 0, "AAAAAAAAAAAA"}, {"kuvMultiplyS", U8, 0, "AMAMMAAMAAAM"},
        {"kuvMultiplyS", U16, 0, "AMAMMAAMAAAM"}, {"kuvMultiplyS", KUV_DEPTH_8S, 0, "MMMMMMMMMMMM"},
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
            SCOPED_TRACE(std::string(r.op) + " " + depthName(r.depth) + " flip " + std::to_string(r.flip) + " value " +
                         std::to_string(v));
            ReportCapture capture;
            pixeltest::callOf(r.op, v, r.flip, 0)(s.get(), nullptr, d.get());
            const char* func = funcs[letters.find(r.who[i])];
            EXPECT_TRUE(oneReport(capture, KUV_StsBadImageSize, func, kImage, pixeltest::ops().at(func).file));
        }
    }
}

TEST(ArithAbs, StatusRulesAndTheCopyOfUnsignedDepths) {
    ReportCapture capture;
    for (uint32_t depth : {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_16U}) {   // kuvCopy's work
        ImagePtr a = makeImage(depth, 1, 19, 6), b = makeImage(depth, 1, 19, 6);
        fillRandom(a.get(), 61), fillRandom(b.get(), 62), setRoi(a.get(), 0, 3, 1, 12, 4);
        ImagePtr viaCopy = copyImage(b.get());
        kuvCopy(a.get(), viaCopy.get()), kuvAbs(a.get(), b.get());
        EXPECT_EQ(std::memcmp(b->imageData, viaCopy->imageData, size_t(b->imageSize)), 0) << depthName(depth);
    }
    ImagePtr s = makeImage(KUV_DEPTH_16S, 1, 5, 3), d = makeLike(s.get()), u = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    put(s.get(), 2, 1, 0, -7);
    for (KuvStatus stale : {-4, 0}) {   // a stale negative status stops it silently until cleared
        kuvSetErrStatus(stale);
        kuvAbs(s.get(), d.get());
        EXPECT_EQ(get(d.get(), 2, 1, 0), stale ? 0 : 7);
        EXPECT_EQ(kuvGetErrStatus(), stale);
    }
    EXPECT_EQ(capture.count(), 0u);
    kuvAbs(s.get(), u.get());   // an unsigned destination is kuvCopy's, then the trace
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_TRUE(isReport(capture.reports()[0], BAD, "kuvCopy", "srcImage->depth != dstImage->depth", "kuvsce"));
    EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvAbs", "kuvCopy is failed", "kuvabs"));
    capture.clear();
    kuvAbs(nullptr, nullptr);   // both pointer tests report
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_TRUE(isReport(capture.reports()[1], BAD, "kuvAbs", "dstImage==0", "kuvabs"));
}

// ------------------------------------------------------------------ tiles

using TCall = TileStore::Call;
TCall at(const TileStore& s, int col, int row, int mode) { return TCall{s.id(), {col, row, mode}}; }
const int R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;

// All images of an operation tiled 8x8 over 16x16. The requests are those the
// walk fixes: per band each image's first tile, sources before the destination;
// at the next column each hands back and asks again; at the band's end all hand
// back. Then every READ or WRITE fails in turn: the report names the image in
// the operation's words, the calls before it are as above and none follows, and
// only destination tiles handed back are written.
TEST(ArithTiles, RequestSequenceAndEveryFailedRequestOfEveryOperation) {
    for (const auto& [name, op] : pixeltest::ops()) {
        if (name == "kuvCopy") continue;   // its own block walk
        const uint32_t depth = name == "kuvAbs" ? KUV_DEPTH_16S : name.back() == 'P' ? KUV_DEPTH_32F : KUV_DEPTH_32S;
        const int dst = op.nSrc;   // the images: sources, then the destination
        std::vector<std::pair<int, TileStore::Request>> seq;
        for (int u = 0; u < 2; ++u) {
            for (int i = 0; i <= dst; ++i) seq.push_back({i, {0, u, i == dst ? W : R}});
            for (int i = 0; i <= dst; ++i) seq.insert(seq.end(), {{i, {0, u, X}}, {i, {1, u, i == dst ? W : R}}});
            for (int i = 0; i <= dst; ++i) seq.push_back({i, {1, u, X}});
        }
        for (size_t j = 0; j <= seq.size(); ++j) {   // the j-th request fails; at the end none
            const bool fails = j < seq.size();
            if (fails && seq[j].second.mode == X) continue;
            SCOPED_TRACE(name + ": failing request " + std::to_string(j));
            std::unique_ptr<TileStore> s[3];
            for (int i = 0, k = 0; i <= dst; ++i, k = 0) {
                ImagePtr back = makeImage(depth, 1, 16, 16);
                fillRandom(back.get(), 250 + i);
                s[i] = std::make_unique<TileStore>(std::move(back), 8, 8);
                for (size_t q = 0; fails && q <= j; ++q) k += seq[q].first == i && seq[q].second.mode != X;
                if (fails && seq[j].first == i) s[i]->failRequest(k);
            }
            std::vector<TCall> want;
            std::set<std::pair<int, int>> written;
            for (size_t q = 0; q < std::min(j + 1, seq.size()); ++q) {
                const auto& [i, r] = seq[q];
                want.push_back(TCall{s[i]->id(), r});
                if (i == dst && r.mode == X) written.insert({r.col, r.row});
            }
            const Snapshot before = snapshot(s[dst]->backing());
            TileStore::clearCalls();
            ReportCapture capture;
            pixeltest::callOf(name, 3, 0, 3)(s[0]->image(), dst == 2 ? s[1]->image() : nullptr, s[dst]->image());
            EXPECT_EQ(TileStore::calls(), want);
            if (!fails) {
                EXPECT_EQ(capture.count(), 0u);
                continue;
            }
            const int who = seq[j].first;
            const std::string arg = who == dst ? "dstImage" : dst == 1 ? "srcImage" : who ? "srcImageB" : "srcImageA";
            EXPECT_TRUE(oneReport(capture, BAD, name == "kuvNot" ? "kuvXorS" : name.c_str(),
                                  ("(" + arg + "->tileInfo->tileData == ((void*)(0)))").c_str(), op.file));
            expectUnchangedExcept(before, s[dst]->backing(),
                                  [&](int x, int y, int) { return written.count({x / 8, y / 8}) > 0; });
        }
    }
}

TEST(ArithTiles, BandsOfMixedTileHeightsAndRegionsInsideTiles) {
    ReportCapture capture;
    {   // tile heights 8 and 16: bands of 8 rows, the destination's tile asked for twice
        TileStore a(makeImage(KUV_DEPTH_32S, 1, 8, 16), 8, 8), d(makeImage(KUV_DEPTH_32S, 1, 8, 16), 8, 16);
        ImagePtr b = makeImage(KUV_DEPTH_32S, 1, 8, 16);
        TileStore::clearCalls();
        kuvSubtract(a.image(), b.get(), d.image());
        EXPECT_EQ(TileStore::calls(), (std::vector<TCall>{at(a, 0, 0, R), at(d, 0, 0, W), at(a, 0, 0, X),
                                                          at(d, 0, 0, X), at(a, 0, 1, R), at(d, 0, 0, W),
                                                          at(a, 0, 1, X), at(d, 0, 0, X)}));
    }
    {   // a rectangle inside one tile; a region in the last, partial tile column
        TileStore a(makeImage(KUV_DEPTH_16S, 2, 20, 20), 8, 8);
        ImagePtr d = makeImage(KUV_DEPTH_16S, 2, 5, 5);
        setRoi(a.image(), 0, 9, 9, 5, 5), kuvMultiplyS(a.image(), d.get(), 3);
        setRoi(a.image(), 0, 17, 0, 10, 8), kuvSquare(a.image(), d.get());
        EXPECT_EQ(a.log(), (std::vector<TileStore::Request>{{1, 1, R}, {1, 1, X}, {2, 0, R}, {2, 0, X}}));
    }
    EXPECT_EQ(capture.count(), 0u);
}

// kuvAbs insists that a released tile's pointer is cleared.
std::vector<char> gTileMemory(8 * 8 * 4);
void keepOnRelease(const KuvImage* image, int32_t, int32_t, int32_t mode) {
    if (mode != X) image->tileInfo->tileData = gTileMemory.data();
}

TEST(ArithTiles, AbsRefusesATilePointerLeftAfterRelease) {
    for (int tiledDst = 0; tiledDst < 2; ++tiledDst) {
        ImagePtr plain = makeImage(KUV_DEPTH_16S, 1, 16, 8);
        ImagePtr kept(kuvCreateImageHeader(1, 0, KUV_DEPTH_16S, "GRAY", "G\0\0\0", 0, 0, 4, 16, 8, nullptr, nullptr, 0,
                                           kuvCreateTileInfo(keepOnRelease, 0, 8, 8)));
        ReportCapture capture;
        kuvAbs(tiledDst ? plain.get() : kept.get(), tiledDst ? kept.get() : plain.get());
        const char* text = tiledDst ? "(dstImage->tileInfo->tileData != ((void*)(0)))"
                                    : "(srcImage->tileInfo->tileData != ((void*)(0)))";
        EXPECT_TRUE(oneReport(capture, BAD, "kuvAbs", text, "kuvabs"));
    }
}

}  // namespace
