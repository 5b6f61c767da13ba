// kuvSubtract, kuvMultiply, kuvSquare, kuvAbs: a seeded differential run
// against element rules written here, over depth x order x region x coi x
// alpha x mask x tiles x in place; exact limits; every refusal's reports.
// arithdiff's engine, element check and refusal check serve arith_s_test.cpp too.
#include "tests/support/kuv_test.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <tuple>

namespace arithdiff {

using namespace kuvtest;
using Elem = std::function<double(double a, double b)>;   // b unused with one source
using Call = std::function<void(const KuvImage* a, const KuvImage* b, KuvImage* d)>;
// Draws what one case runs: a label, the call and its element rule.
using Pick = std::function<void(Rng& rng, std::string* label, Call* call, Elem* elem)>;
using Rep = std::tuple<KuvStatus, const char*, const char*, const char*>;   // status, func, context, file

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
    if (flat) {
        KuvImage v[3] = {flatView(src[0]), flatView(src[nSrc - 1]), flatView(e)};
        for (int x = 0; x < v[2].width; ++x) {
            put(&v[2], x, 0, 0, elem(get(&v[0], x, 0, 0), get(&v[1], x, 0, 0)));
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
    std::vector<Region> reg;
    std::vector<const KuvImage*> all(im, im + 3);
    all.insert(all.end(), masks.begin(), masks.end());
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

// Value ranges that keep most results inside the limits, by depth index.
const int kNarrow[7][2] = {{0, 1}, {0, 20}, {-15, 15}, {0, 300}, {-200, 200}, {-50000, 50000}, {-100, 100}};

// One case drawn from rng: images 0..nSrc-1 are the sources, image nSrc the
// destination, unless the destination is srcImageA's record (in place).
void runCase(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed, Rng& rng, const Call& call,
             const Elem& elem, std::ostringstream& trace) {
    const bool bits = depth == KUV_DEPTH_1U, same = rng.chance(0.2), narrow = !bits && rng.chance(0.3);
    const bool alias = rng.chance(0.15), coiMode = !bits && !same && rng.chance(0.35);
    const int nImages = alias ? nSrc : nSrc + 1, di = alias ? 0 : nSrc, aligns[4] = {4, 8, 16, 32};
    const int p = int(rng.uniform(1, 3)), forced = int(rng.uniform(0, nImages - 1));
    const int sw = int(rng.uniform(1, 40)), sh = int(rng.uniform(1, 9)), salign = aligns[rng.uniform(0, 3)];
    // kuvAbs: 0-3 alpha bits of source and destination over equal colour counts;
    // 4, 5 equal nChannels with alpha on one only; 6 a coi on both.
    const int absVariant = int(rng.uniform(0, 6));
    const auto range = kNarrow[std::find(allDepths().begin(), allDepths().end(), depth) - allDepths().begin()];
    ImagePtr plain[3];
    std::unique_ptr<TileStore> store[3];
    KuvImage* arg[3] = {};
    bool anyTiled = false;
    trace << (alias ? " in place" : "") << (narrow ? " narrow" : "");
    for (int i = 0; i < nImages; ++i) {
        int nCh = p, alpha = 0, coi = 0, w = sw, h = sh, align = salign;
        bool roi = rng.chance(same ? 0.4 : 0.5);
        if (!same) w = int(rng.uniform(1, 37)), h = int(rng.uniform(1, 17)), align = aligns[rng.uniform(0, 3)];
        if (bits) {
            nCh = 1, coi = rng.chance(0.3);
        } else if (same) {
            coi = p == 1 && rng.chance(0.5);
        } else if (absRule && absVariant == 6) {
            nCh = int(rng.uniform(2, 4)), alpha = rng.chance(0.3) ? nCh : 0;
            roi = true, coi = int(rng.uniform(1, nCh));
        } else if (absRule) {   // image 0 is the source
            const bool a = absVariant < 4 ? (absVariant >> i) & 1 : (absVariant == 4) == (i == 0);
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
        if (roi) {   // whole (same geometry), or anywhere, now and then wholly beyond the image
            const int x = same ? 0 : rng.chance(0.04) ? w + 2 : int(rng.uniform(0, w - 1));
            const int y = same ? 0 : rng.chance(0.04) ? h + 1 : int(rng.uniform(0, h - 1));
            const int rw = int(rng.uniform(same ? w : 1, w + 4)), rh = int(rng.uniform(same ? h : 1, h + 4));
            setRoi(im, coi, x, y, rw, rh);
            trace << "\n  [" << i << "] roi " << coi << " " << x << "," << y << " " << rw << "x" << rh;
        }
        trace << "\n  [" << i << "] " << w << "x" << h << "x" << nCh << " alpha " << alpha << " al " << align;
        if (!same && rng.chance(0.2)) {
            const int mw = int(rng.uniform(1, 41)), mh = int(rng.uniform(1, 19));
            ImagePtr mask = makeMask(mw, mh);
            fillRandom(mask.get(), seed * 7 + 3 + i);
            if (rng.chance(0.5)) {
                const int x = int(rng.uniform(0, mw - 1)), y = int(rng.uniform(0, mh - 1));
                const int rw = int(rng.uniform(1, mw + 3)), rh = int(rng.uniform(1, mh + 3));
                setRoi(mask.get(), 0, x, y, rw, rh);
            }
            trace << " mask " << mw << "x" << mh;
            attachMask(im, std::move(mask));
        }
        arg[i] = im;
        if (same || !rng.chance(0.2)) continue;
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
    ImagePtr expected = copyImage(plain[di].get());
    {
        ImagePtr s0 = copyImage(plain[0].get()), s1 = nSrc == 2 ? copyImage(plain[1].get()) : nullptr;
        const KuvImage* src[2] = {s0.get(), s1.get()};
        std::vector<const KuvImage*> masks;
        for (int i = 0; i < nImages; ++i) {
            if (plain[i]->maskROI) masks.push_back(plain[i]->maskROI);
        }
        reference(nSrc, absRule, src, expected.get(), masks, anyTiled, elem);
    }
    auto result = [&](int i) -> KuvImage* { return store[i] ? store[i]->backing() : plain[i].get(); };
    Snapshot before[3];
    for (int i = 0; i < nImages; ++i) before[i] = snapshot(result(i));
    const long blocks = outstandingBlocks();
    const KuvStatus sentinel = absRule ? 0 : -777;   // kuvAbs stops on a negative status
    {
        ReportCapture capture;
        kuvSetErrStatus(sentinel);
        call(arg[0], nSrc == 2 ? arg[1] : nullptr, arg[di]);
        EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
        EXPECT_EQ(kuvGetErrStatus(), sentinel);
    }
    EXPECT_EQ(outstandingBlocks(), blocks);
    // The flat path writes the padding of whole untiled images; a tile walk
    // leaves it, and a tiled destination's padding lies in no tile.
    before[di].bytes.assign(expected->imageData, expected->imageData + expected->imageSize);
    EXPECT_TRUE(unchangedExcept(before[di], result(di), [](int, int, int) { return false; },
                                anyTiled && !store[di] ? Padding::MayChange : Padding::MustStay));
    for (int i = 0; i < nSrc; ++i) {
        if (i == di) continue;
        EXPECT_TRUE(unchangedExcept(before[i], result(i), [](int, int, int) { return false; }));
    }
    for (auto& s : store) {
        if (!s) continue;
        EXPECT_EQ(s->held(), 0);
        for (const std::string& f : s->faults()) ADD_FAILURE() << f;
    }
}

}  // namespace

// Runs `cases` seeded cases; KUV_ARITH_SEED=<seed> reruns one printed seed alone.
void run(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed0, int cases, const Pick& pick) {
    const char* only = std::getenv("KUV_ARITH_SEED");
    for (int i = 0; i < cases && !::testing::Test::HasFailure(); ++i) {
        const uint64_t seed = seed0 + uint64_t(i);
        if (only != nullptr && std::strtoull(only, nullptr, 10) != seed) continue;
        Rng rng(seed);
        std::string label;
        Call call;
        Elem elem;
        pick(rng, &label, &call, &elem);
        std::ostringstream trace;
        trace << "seed " << seed << " (KUV_ARITH_SEED=" << seed << "): " << depthName(depth) << " " << label;
        runCase(nSrc, absRule, depth, order, seed, rng, call, elem, trace);
    }
}

// Values a and b at (1, 1) of 3x3 sources, and a one-pixel region on each
// image: the result there is `want`, the destination's other pixels stay.
void expectElement(uint32_t depth, double a, double b, const Call& call, double want) {
    ImagePtr im[3];
    for (int i = 0; i < 3; ++i) {
        im[i] = makeImage(depth, 1, 3, 3);
        fillRandom(im[i].get(), 40 + i);
        setRoi(im[i].get(), 0, 1, 1, 1, 1);
    }
    put(im[0].get(), 1, 1, 0, a);
    put(im[1].get(), 1, 1, 0, b);
    const Snapshot before = snapshot(im[2].get());
    ReportCapture capture;
    call(im[0].get(), im[1].get(), im[2].get());
    EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
    EXPECT_EQ(get(im[2].get(), 1, 1, 0), want) << depthName(depth) << " " << a << ", " << b;
    expectUnchangedExcept(before, im[2].get(), [](int x, int y, int) { return x == 1 && y == 1; });
}

// The call reports exactly `want`, in order; the status is the first one's (or
// `status` when nothing is reported); the images are untouched.
void expectRefused(std::vector<const KuvImage*> images, const std::function<void()>& call,
                   std::vector<Rep> want, KuvStatus status = 0) {
    images.resize(3, nullptr);
    RefusalGuard guard(images[0], images[1], images[2]);
    ReportCapture capture;
    call();
    ASSERT_EQ(capture.count(), want.size()) << (capture.count() ? capture.reports()[0] : Report{});
    for (size_t i = 0; i < want.size(); ++i) {
        const auto [code, func, context, file] = want[i];
        EXPECT_TRUE(isReport(capture.reports()[i], code, func, context, file));
    }
    EXPECT_EQ(kuvGetErrStatus(), want.empty() ? status : std::get<0>(want[0]));
    EXPECT_TRUE(guard.intact());
}

}  // namespace arithdiff

namespace {

using namespace kuvtest;
using arithdiff::Call;
using arithdiff::Elem;
using arithdiff::expectRefused;

enum Op { SUB, MUL, SQR, ABS };

// The element rules of the four operations, per depth.
Elem ruleOf(Op op, uint32_t d) {
    const bool bits = d == KUV_DEPTH_1U, fl = d == KUV_DEPTH_32F;
    switch (op) {
        case SUB: return [=](double a, double b) {
            return bits ? double(a && !b) : fl ? double(float(a) - float(b)) : saturateTo(d, a - b); };
        case MUL: return [=](double a, double b) {
            return bits ? double(a && b) : fl ? double(float(a) * float(b)) : saturateTo(d, a * b); };
        case SQR: return [=](double x, double) {
            return bits ? x : fl ? double(float(x) * float(x)) : saturateTo(d, x * x); };
        default: return [=](double x, double) { return fl ? (x < 0 ? -x : x) : saturateTo(d, std::fabs(x)); };
    }
}

Call callOf(Op op) {
    switch (op) {
        case SUB: return [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvSubtract(a, b, d); };
        case MUL: return [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvMultiply(a, b, d); };
        case SQR: return [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvSquare(a, d); };
        default: return [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvAbs(a, d); };
    }
}

// Bits take any data order under kuvSubtract, kuvSquare and kuvAnd: the
// engine draws it per image. kuvAbs's variants include a coi 1 on one
// channel (no coi) and alpha in both images (alpha stays).
class ArithDifferential : public ::testing::TestWithParam<std::tuple<Op, uint32_t, int>> {};

TEST_P(ArithDifferential, AgainstTheElementRules) {
    const auto [op, depth, order] = GetParam();
    const auto di = uint64_t(std::find(allDepths().begin(), allDepths().end(), depth) - allDepths().begin());
    const char* names[] = {"kuvSubtract", "kuvMultiply", "kuvSquare", "kuvAbs"};
    arithdiff::run(op == SUB || op == MUL ? 2 : 1, op == ABS, depth, order,
                   uint64_t(op) * 10000000 + di * 1000000 + uint64_t(order) * 100000, 120,
                   [&](Rng&, std::string* label, Call* call, Elem* elem) {
                       *label = names[op], *call = callOf(op), *elem = ruleOf(op, depth);
                   });
}

const auto kOrders = ::testing::Values(KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE);
INSTANTIATE_TEST_SUITE_P(ArithAll, ArithDifferential,
                         ::testing::Combine(::testing::Values(SUB, MUL, SQR), ::testing::ValuesIn(allDepths()),
                                            kOrders));
INSTANTIATE_TEST_SUITE_P(ArithSigned, ArithDifferential,
                         ::testing::Combine(::testing::Values(ABS),
                                            ::testing::Values(KUV_DEPTH_8S, KUV_DEPTH_16S, KUV_DEPTH_32S,
                                                              KUV_DEPTH_32F),
                                            kOrders));

TEST(ArithEdges, ExactValuesAtTheLimits) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    const double lo = INT_MIN, hi = INT_MAX, inf = INFINITY;
    const struct { Op op; uint32_t depth; double a, b, want; } edges[] = {
        {SUB, U1, 1, 1, 0}, {SUB, U1, 1, 0, 1}, {SUB, U1, 0, 1, 0}, {SUB, U1, 0, 0, 0},
        {SUB, U8, 10, 200, 0}, {SUB, U8, 255, 0, 255}, {SUB, S8, -128, 1, -128}, {SUB, S8, 0, -128, 127},
        {SUB, S8, 127, -128, 127}, {SUB, U16, 0, 65535, 0}, {SUB, S16, -32768, 32767, -32768},
        {SUB, S16, 0, -32768, 32767}, {SUB, S32, lo, 1, lo}, {SUB, S32, 0, lo, hi}, {SUB, S32, hi, lo, hi},
        {SUB, S32, lo, hi, lo}, {SUB, F32, 3e38, -3e38, inf}, {MUL, U1, 1, 1, 1}, {MUL, U1, 1, 0, 0},
        {MUL, U8, 15, 17, 255}, {MUL, U8, 16, 16, 255}, {MUL, S8, -128, -128, 127}, {MUL, S8, -128, 127, -128},
        {MUL, S8, -1, -128, 127}, {MUL, U16, 65535, 65535, 65535}, {MUL, U16, 255, 257, 65535},
        {MUL, U16, 256, 255, 65280}, {MUL, S16, -32768, -1, 32767}, {MUL, S16, -32768, 32767, -32768},
        {MUL, S32, 46341, 46341, hi}, {MUL, S32, -46341, 46341, lo}, {MUL, S32, -65536, 32768, lo},
        {MUL, S32, 65536, 32768, hi}, {MUL, S32, lo, -1, hi}, {MUL, S32, lo, lo, hi},
        {MUL, F32, 1e20, -1e20, -inf}, {SQR, U1, 1, 0, 1}, {SQR, U8, 16, 0, 255}, {SQR, U8, 15, 0, 225},
        {SQR, S8, -128, 0, 127}, {SQR, S8, -11, 0, 121}, {SQR, U16, 65535, 0, 65535}, {SQR, U16, 256, 0, 65535},
        {SQR, U16, 255, 0, 65025}, {SQR, S16, -32768, 0, 32767}, {SQR, S16, 181, 0, 32761},
        {SQR, S32, 46341, 0, hi}, {SQR, S32, 46340, 0, 2147395600}, {SQR, S32, -46341, 0, hi},
        {SQR, S32, lo, 0, hi}, {SQR, F32, -2e19, 0, inf}, {ABS, S8, -128, 0, 127}, {ABS, S8, -127, 0, 127},
        {ABS, S16, -32768, 0, 32767}, {ABS, S16, 32767, 0, 32767}, {ABS, S32, lo, 0, hi},
        {ABS, S32, -hi, 0, hi}, {ABS, F32, -inf, 0, inf}, {ABS, F32, -1.5, 0, 1.5},
    };
    for (const auto& e : edges) arithdiff::expectElement(e.depth, e.a, e.b, callOf(e.op), e.want);
    // 32F absolute values flip the sign of values below 0 only: -0.0 and NaNs keep their bits.
    const uint32_t bits[] = {0x80000000u, 0x7FC00000u, 0xFFC00001u, 0x7F800001u, 0xFF812345u, 0xBF800000u};
    ImagePtr s = makeImage(F32, 1, 6, 1), d = makeImage(F32, 1, 6, 1);
    std::memcpy(s->imageData, bits, sizeof bits);
    ReportCapture capture;
    kuvAbs(s.get(), d.get());
    EXPECT_EQ(capture.count(), 0u);
    for (int x = 0; x < 5; ++x) EXPECT_EQ(getBits(d.get(), x, 0, 0), bits[x]) << x;
    EXPECT_EQ(getBits(d.get(), 5, 0, 0), 0x3F800000u);
}

TEST(ArithRefusal, StatusFunctionContextAndFile) {
    const KuvStatus BAD = KUV_StsBadArgument, NUL = KUV_StsNullHeader;
    std::vector<ImagePtr> keep;
    auto mk = [&](uint32_t depth, int nCh, int order = 0) {
        keep.push_back(makeImage(depth, nCh, 5, 4, order));
        return keep.back().get();
    };
    KuvImage *a = mk(KUV_DEPTH_8U, 3), *b = mk(KUV_DEPTH_8U, 3), *p = mk(KUV_DEPTH_8U, 3, 1);
    KuvImage *one = mk(KUV_DEPTH_8U, 1), *s = mk(KUV_DEPTH_8S, 3), *sb = mk(KUV_DEPTH_8S, 3);
    KuvImage *sp = mk(KUV_DEPTH_8S, 3, 1), *s1 = mk(KUV_DEPTH_8S, 1), *s16 = mk(KUV_DEPTH_16S, 3);
    KuvImage *b1 = mk(KUV_DEPTH_1U, 1), *coi = mk(KUV_DEPTH_8S, 3), *bad = mk(KUV_DEPTH_8S, 3);
    setRoi(coi, 2, 0, 0, 5, 4);
    bad->imageSize = 0;
    const char* order = "(srcImage->dataOrder != dstImage->dataOrder)";
    const char* depth = "(srcImage->depth != dstImage->depth)";
    // kuvSubtract and kuvSquare test no pointer of their own; kuvMultiply hands bits to kuvAnd.
    const char* image = "Incorrect Image";
    expectRefused({a, b}, [&] { kuvSubtract(nullptr, b, b); }, {{NUL, "kuvSubtract", image, "kuvsub"}});
    expectRefused({a, one, b}, [&] { kuvSubtract(a, one, b); },
                  {{BAD, "kuvSubtract", "(nChSrcB != nChDst)", "kuvsub"}});
    expectRefused({a}, [&] { kuvMultiply(nullptr, nullptr, a); },
                  {{BAD, "kuvMultiply", "srcImageA==0", "kuvmul"}});
    expectRefused({a, p, b}, [&] { kuvMultiply(a, p, b); },
                  {{BAD, "kuvMultiply", "(srcImageB->dataOrder != dstImage->dataOrder)", "kuvmul"}});
    expectRefused({b1}, [&] { kuvMultiply(b1, nullptr, b1); }, {{NUL, "kuvAnd", image, "kuvand"}});
    expectRefused({b1, a}, [&] { kuvMultiply(b1, a, b1); },
                  {{BAD, "kuvAnd", "(srcImageB->depth != dstImage->depth)", "kuvand"}});
    expectRefused({a}, [&] { kuvSquare(nullptr, a); }, {{NUL, "kuvSquare", image, "kuvsqr"}});
    expectRefused({a, s}, [&] { kuvSquare(s, a); }, {{BAD, "kuvSquare", depth, "kuvsqr"}});
    expectRefused({a, p}, [&] { kuvSquare(a, p); }, {{BAD, "kuvSquare", order, "kuvsqr"}});
    expectRefused({a, one}, [&] { kuvSquare(one, a); }, {{BAD, "kuvSquare", "(nChSrc != nChDst)", "kuvsqr"}});
    // kuvAbs: both pointer tests report before the call stops.
    expectRefused({s}, [&] { kuvAbs(nullptr, s); }, {{BAD, "kuvAbs", "srcImage==0", "kuvabs"}});
    expectRefused({s}, [&] { kuvAbs(s, nullptr); }, {{BAD, "kuvAbs", "dstImage==0", "kuvabs"}});
    expectRefused({}, [&] { kuvAbs(nullptr, nullptr); },
                  {{BAD, "kuvAbs", "srcImage==0", "kuvabs"}, {BAD, "kuvAbs", "dstImage==0", "kuvabs"}});
    expectRefused({s, bad}, [&] { kuvAbs(s, bad); }, {{KUV_StsBadImageSize, "kuvAbs", image, "kuvabs"}});
    expectRefused({s, s16}, [&] { kuvAbs(s16, s); }, {{BAD, "kuvAbs", depth, "kuvabs"}});
    expectRefused({s, sp}, [&] { kuvAbs(s, sp); }, {{BAD, "kuvAbs", order, "kuvabs"}});
    expectRefused({coi, sb}, [&] { kuvAbs(coi, sb); }, {{BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)", "kuvabs"}});
    expectRefused({coi, sb}, [&] { kuvAbs(sb, coi); }, {{BAD, "kuvAbs", "(nChSrcCoi != nChDstCoi)", "kuvabs"}});
    expectRefused({s1, sb}, [&] { kuvAbs(s1, sb); },
                  {{BAD, "kuvAbs", "(srcImage->nChannels != dstImage->nChannels)", "kuvabs"}});
    // An unsigned destination is kuvCopy's: its fault, then the trace of kuvAbs.
    expectRefused({s, a}, [&] { kuvAbs(s, a); },
                  {{BAD, "kuvCopy", "srcImage->depth != dstImage->depth", "kuvsce"},
                   {KUV_StsBacktrace, "kuvAbs", "kuvCopy is failed", "kuvabs"}});
}

// A negative status left from before stops kuvAbs silently until it is cleared.
TEST(ArithAbs, StaleNegativeStatusStopsItSilently) {
    ImagePtr s = makeImage(KUV_DEPTH_16S, 1, 5, 3), d = makeImage(KUV_DEPTH_16S, 1, 5, 3);
    put(s.get(), 2, 1, 0, -7);
    expectRefused({s.get(), d.get()}, [&] { kuvSetErrStatus(-4), kuvAbs(s.get(), d.get()); }, {}, -4);
    ReportCapture capture;   // and clears the status
    kuvAbs(s.get(), d.get());
    EXPECT_EQ(get(d.get(), 2, 1, 0), 7);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(ArithAbs, UnsignedIsACopyAndOnOneRecordDoesNothing) {
    for (uint32_t depth : {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_16U}) {
        ImagePtr s = makeImage(depth, 1, 19, 6), d = makeImage(depth, 1, 19, 6);
        fillRandom(s.get(), 61);
        fillRandom(d.get(), 62);
        setRoi(s.get(), 0, 3, 1, 12, 4);
        ImagePtr viaCopy = copyImage(d.get());
        Snapshot want = snapshot(d.get());
        ReportCapture capture;
        kuvCopy(s.get(), viaCopy.get());
        kuvAbs(s.get(), d.get());
        want.bytes.assign(viaCopy->imageData, viaCopy->imageData + viaCopy->imageSize);
        expectUnchangedExcept(want, d.get(), [](int, int, int) { return false; });
        EXPECT_EQ(capture.count(), 0u) << depthName(depth);
        expectRefused({s.get()}, [&] { kuvAbs(s.get(), s.get()); }, {});
    }
}

// A procedure that leaves tileData set on release: kuvAbs tests for it, kuvSquare does not.
// A refused second request ends the walk with the one-source text; the first tile went back.
std::vector<char> gTileMemory(8 * 8 * 2);
void keepOnRelease(const KuvImage* image, int32_t, int32_t, int32_t mode) {
    if (mode != KUV_TILE_RELEASE) image->tileInfo->tileData = gTileMemory.data();
}

TEST(ArithAbs, TileTextsOfTheOneSourceWalk) {
    for (int tiledDst = 0; tiledDst < 2; ++tiledDst) {
        const std::string who = tiledDst ? "(dstImage" : "(srcImage";
        ImagePtr plain = makeImage(KUV_DEPTH_16S, 1, 16, 8);
        ImagePtr kept(kuvCreateImageHeader(1, 0, KUV_DEPTH_16S, "GRAY", "G\0\0\0", 0, 0, 4, 16, 8, nullptr,
                                           nullptr, 0, kuvCreateTileInfo(keepOnRelease, 0, 8, 8)));
        KuvImage *s = tiledDst ? plain.get() : kept.get(), *d = tiledDst ? kept.get() : plain.get();
        ReportCapture capture;
        kuvAbs(s, d);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvAbs",
                              (who + "->tileInfo->tileData != ((void*)(0)))").c_str(), "kuvabs"));
        capture.clear();
        kuvSquare(s, d);
        EXPECT_EQ(capture.count(), 0u);
        for (Op op : {SQR, ABS}) {
            TileStore store(makeImage(KUV_DEPTH_16S, 1, 16, 8), 8, 8);
            store.failRequest(2);
            ReportCapture failed;
            callOf(op)(tiledDst ? plain.get() : store.image(), nullptr, tiledDst ? store.image() : plain.get());
            EXPECT_TRUE(oneReport(failed, KUV_StsBadArgument, op == SQR ? "kuvSquare" : "kuvAbs",
                                  (who + "->tileInfo->tileData == ((void*)(0)))").c_str(),
                                  op == SQR ? "kuvsqr" : "kuvabs"));
            const int mode = tiledDst ? KUV_TILE_WRITE : KUV_TILE_READ;
            EXPECT_EQ(store.log(),
                      (std::vector<TileStore::Request>{{0, 0, mode}, {0, 0, KUV_TILE_RELEASE}, {1, 0, mode}}));
        }
    }
}

}  // namespace
