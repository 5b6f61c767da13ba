// The comparison family: every form at every depth against a reference
// written from the rules, plain and tiled, with the wide and the plain
// workers; the refusal table with statuses and returned values.
#include "tests/support/kuv_test.h"

#include <cfloat>
#include <cmath>
#include <functional>

namespace {

using namespace kuvtest;

enum Rel { Less, Greater, Equal, Near };
enum Form { Pair, Int, Float };
using In = const KuvImage*;
using Out = KuvImage*;

// Every form called alike: (img1, img2, s, eps, res).
template <auto F> KuvStatus pair(In a, In b, double, float, Out r) { return F(a, b, r); }
template <auto F> KuvStatus pairEps(In a, In b, double, float e, Out r) { return F(a, b, r, e); }
template <auto F> KuvStatus intS(In a, In, double s, float, Out r) { return F(a, int32_t(s), r); }
template <auto F> KuvStatus fpS(In a, In, double s, float, Out r) { return F(a, float(s), r); }
template <auto F> KuvStatus fpSEps(In a, In, double s, float e, Out r) {
    return F(a, float(s), r, e);
}

const struct Op {
    const char* name;
    Rel rel;
    Form form;
    KuvStatus (*call)(In, In, double, float, Out);
} ops[] = {{"kuvLess", Less, Pair, pair<kuvLess>},
           {"kuvGreater", Greater, Pair, pair<kuvGreater>},
           {"kuvEqual", Equal, Pair, pair<kuvEqual>},
           {"kuvEqualFPEps", Near, Pair, pairEps<kuvEqualFPEps>},
           {"kuvLessS", Less, Int, intS<kuvLessS>},
           {"kuvGreaterS", Greater, Int, intS<kuvGreaterS>},
           {"kuvEqualS", Equal, Int, intS<kuvEqualS>},
           {"kuvLessSFP", Less, Float, fpS<kuvLessSFP>},
           {"kuvGreaterSFP", Greater, Float, fpS<kuvGreaterSFP>},
           {"kuvEqualSFP", Equal, Float, fpS<kuvEqualSFP>},
           {"kuvEqualSFPEps", Near, Float, fpSEps<kuvEqualSFPEps>}};

// Unordered counts as less and as equal, never as greater; a NaN difference
// counts as near, and the difference is taken in extended precision.
bool holds(Rel rel, long double a, long double b, float eps) {
    const bool unordered = std::isnan(a) || std::isnan(b);
    if (rel == Less) return unordered || a < b;
    if (rel == Greater) return !unordered && a > b;
    if (rel == Equal) return unordered || a == b;
    return std::isnan(a - b) || std::fabs(a - b) < eps;
}

// Offsets, size cut at the edge, and the compared channels (from 0).
struct Range {
    int x = 0, y = 0, w, h, first = 0, count;
};

Range rangeOf(const KuvImage* image) {
    Range r{0, 0, image->width, image->height, 0, image->nChannels - (image->alphaChannel != 0)};
    if (const KuvROI* roi = image->roi) {
        r.x = roi->xOffset, r.y = roi->yOffset;
        r.w = std::max(0, std::min(roi->width, image->width - roi->xOffset));
        r.h = std::max(0, std::min(roi->height, image->height - roi->yOffset));
        if (roi->coi != 0) r.first = roi->coi - 1, r.count = 1;
    }
    return r;
}

// res with the rectangle's bits set where every channel holds, masked-off
// bits and everything else as they were; *rect gets res's rectangle.
ImagePtr expected(Form form, Rel rel, const KuvImage* a, const KuvImage* b, double s, float eps,
                  const KuvImage* res, Range* rect) {
    ImagePtr out = copyImage(res);
    const KuvImage* images[3] = {a, b, res};
    Range r[3] = {};
    int w = INT32_MAX, h = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        if (images[i] == nullptr) continue;
        r[i] = rangeOf(images[i]);
        for (const Range& e : {r[i], images[i]->maskROI ? rangeOf(images[i]->maskROI) : r[i]})
            w = std::min(w, e.w), h = std::min(h, e.h);
    }
    *rect = {r[2].x, r[2].y, w, h, 0, 1};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            bool on = true;
            for (const KuvImage* image : images)
                if (const KuvImage* m = image ? image->maskROI : nullptr)
                    on &= get(m, rangeOf(m).x + x, rangeOf(m).y + y, 0) != 0.0;
            if (!on) continue;
            bool all = true;
            for (int k = 0; k < r[0].count; ++k) {
                const long double va = get(a, r[0].x + x, r[0].y + y, r[0].first + k);
                all &= holds(rel, va,
                             b               ? get(b, r[1].x + x, r[1].y + y, r[1].first + k)
                             : form == Float ? float(s)
                                             : s,
                             eps);
            }
            put(out.get(), r[2].x + x, r[2].y + y, 0, all ? 1.0 : 0.0);
        }
    return out;
}

::testing::AssertionResult sameBytes(const KuvImage* want, const KuvImage* got) {
    for (int64_t i = 0; i < want->imageSize; ++i)
        if (want->imageData[i] != got->imageData[i])
            return ::testing::AssertionFailure()
                   << "byte " << i << " (row " << i / want->widthStep << ") is "
                   << (got->imageData[i] & 0xFF) << ", not " << (want->imageData[i] & 0xFF);
    return ::testing::AssertionSuccess();
}

// Values that meet each other often, the depth's ends, and for floats
// signed zeros, infinities and NaN; steps of 0.25 meet eps exactly.
double randomValue(Rng& rng, uint32_t depth) {
    static const double edges[] = {0.0, -0.0, 1.0, -1.0, INFINITY, -INFINITY, NAN, FLT_MAX};
    if (depth == KUV_DEPTH_32F)
        return rng.chance(0.3) ? edges[rng.uniform(0, 7)] : double(rng.uniform(-8, 8)) / 4;
    const int64_t lo = int64_t(depthMin(depth)), hi = int64_t(depthMax(depth));
    const int64_t picks[] = {lo, hi, rng.uniform(lo, hi),
                             std::clamp<int64_t>(rng.uniform(-1, 2), lo, hi)};
    return double(picks[rng.uniform(0, 3)]);
}

// An image of random values with a region (often inside a byte, often past
// the edge, coi as asked) and a random mask, perhaps served tiled.
struct Subject {
    ImagePtr plain;
    std::unique_ptr<TileStore> store;
    KuvImage* header() const { return store ? store->image() : plain.get(); }
};

Subject randomImage(Rng& rng, uint32_t depth, int n, int alpha, int order, int coi, int wide,
                    bool isMask = false) {
    Subject s;
    const int w = int(rng.uniform(1, wide)), h = int(rng.uniform(1, wide > 200 ? 2 : 9));
    s.plain = makeImage(depth, n, w, h, order, alpha, rng.chance(0.5) ? 4 : 8);
    if (depth == KUV_DEPTH_1U) fillRandom(s.plain.get(), rng.next());   // res: a canary
    for (int y = 0; y < h && depth != KUV_DEPTH_1U; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < n; ++c) put(s.plain.get(), x, y, c, randomValue(rng, depth));
    if (coi != 0 || rng.chance(0.65))
        setRoi(s.plain.get(), coi, int(rng.uniform(0, w - 1)), int(rng.uniform(0, h - 1)),
               int(rng.uniform(1, w + 3)), int(rng.uniform(1, h + 2)));
    if (isMask) return s;
    if (rng.chance(0.3))
        attachMask(s.plain.get(), randomImage(rng, KUV_DEPTH_1U, 1, 0, 0, 0, wide + 4, true).plain);
    if (rng.chance(0.15)) {
        ImagePtr backing = copyImage(s.plain.get());
        clearRoi(backing.get());
        s.store = std::make_unique<TileStore>(std::move(backing), 8 * int(rng.uniform(1, 3)),
                                              8 * int(rng.uniform(1, 2)));
        if (const KuvROI* r = s.plain->roi)
            setRoi(s.store->image(), r->coi, r->xOffset, r->yOffset, r->width, r->height);
        if (s.plain->maskROI) attachMask(s.store->image(), copyImage(s.plain->maskROI));
    }
    return s;
}

int64_t tileArea(const Subject& s) {
    return s.store ? int64_t{s.header()->tileInfo->width} * s.header()->tileInfo->height : -1;
}

void runRandomCases(bool wideWorkers) {
    const FeatureLimit limit(wideWorkers ? ~0u : 0u);
    for (uint64_t seed = 1; seed <= 2400 && !::testing::Test::HasFailure(); ++seed) {
        Rng rng(seed);
        const Op& op = ops[rng.uniform(0, 10)];
        const Form form = op.form;
        const Rel rel = op.rel;
        SCOPED_TRACE(::testing::Message()
                     << op.name << " seed " << seed << (wideWorkers ? " wide" : ""));
        const bool fp = form == Float || rel == Near;
        const uint32_t depth = fp ? KUV_DEPTH_32F : allDepths()[rng.uniform(0, 6 - (form == Int))];
        // Mostly narrow, sometimes whole groups of 32 bits, sometimes many chunks.
        const int wide = rng.chance(0.1) ? 4200 : rng.chance(0.25) ? 140 : 41;
        const int order = int(rng.uniform(0, 1));
        const bool coi = rng.chance(0.35);
        const int count = coi || depth == KUV_DEPTH_1U ? 1 : int(rng.uniform(1, 4));
        auto source = [&](bool useCoi) {   // `count` channels: plain, with alpha, by coi
            int n = count, alpha = 0, c = 0;
            if (depth == KUV_DEPTH_1U) {
                n = 1, c = useCoi;
            } else if (useCoi) {
                n = int(rng.uniform(1, 4)), alpha = n > 1 && rng.chance(0.3) ? n : 0;
                c = int(rng.uniform(1, n));   // may name the alpha channel
            } else if (rng.chance(0.4)) {
                n = alpha = count + 1;
            }
            return randomImage(rng, depth, n, alpha, order, c, wide);
        };
        const Subject a = source(coi),
                      b = form == Pair ? source(coi && rng.chance(0.7)) : Subject{};
        const Subject res = randomImage(rng, KUV_DEPTH_1U, 1, 0, 0, rng.chance(0.2), wide + 4);
        double s = form == Float ? randomValue(rng, KUV_DEPTH_32F) : 0.0;
        if (form == Int) {   // widened: beyond the depth's range too
            const int64_t lo = int64_t(depthMin(depth)), hi = int64_t(depthMax(depth));
            const int64_t picks[] = {lo, hi, lo - 1, hi + 1, 300, -1, 0, 1, 2};
            s = double(rng.chance(0.2) ? rng.uniform(lo, hi) : picks[rng.uniform(0, 8)]);
            s = std::clamp(s, double(INT32_MIN), double(INT32_MAX));
        }
        const float eps = float(rng.uniform(1, 6)) / 4;
        Range rect{};
        const ImagePtr want =
            expected(form, rel, a.plain.get(), b.plain.get(), s, eps, res.plain.get(), &rect);
        ReportCapture capture;
        kuvSetErrStatus(KUV_StsBadArgument);   // success leaves the status alone
        EXPECT_EQ(op.call(a.header(), b.header(), s, eps, res.header()), 0);
        EXPECT_TRUE(capture.count() == 0 && kuvGetErrStatus() == KUV_StsBadArgument);
        EXPECT_TRUE(sameBytes(want.get(), res.store ? res.store->backing() : res.plain.get()));
        // The walked image: res when tiled, else the source of larger tile area, img1
        // on a tie; each tile of its rectangle asked for and released in turn.
        const Subject* walked = res.store ? &res : tileArea(b) > tileArea(a) ? &b : &a;
        std::vector<TileStore::Request> log;
        const Range o = rangeOf(walked->plain.get());
        const int tw = walked->store ? walked->header()->tileInfo->width : 1;
        const int th = walked->store ? walked->header()->tileInfo->height : 1;
        for (int r = o.y / th; walked->store && rect.w > 0 && r <= (o.y + rect.h - 1) / th; ++r)
            for (int c = o.x / tw; c <= (o.x + rect.w - 1) / tw; ++c)
                log.insert(log.end(), {{c, r, walked == &res ? KUV_TILE_WRITE : KUV_TILE_READ},
                                       {c, r, KUV_TILE_RELEASE}});
        if (walked->store) {
            EXPECT_EQ(walked->store->log(), log);
        }
        for (const Subject* t : {&a, &b, &res}) {
            if (!t->store) continue;
            EXPECT_TRUE(t->store->held() == 0 && t->store->faults().empty());
            for (const auto& r : t->store->log())
                EXPECT_TRUE(t == &res || r.mode != KUV_TILE_WRITE);
        }
    }
}

TEST(CompareRandom, MatchesReferenceWithWideWorkers) { runRandomCases(true); }
TEST(CompareRandom, MatchesReferenceWithPlainWorkers) { runRandomCases(false); }

TEST(CompareRandom, EpsDifferenceIsTakenInExtendedPrecision) {
    // 2^40 - 2^-20 needs 61 bits: in double it would round to 2^40, which is eps.
    ImagePtr a = makeImage(KUV_DEPTH_32F, 1, 1, 1), b = makeLike(a.get());
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 1, 1), res2 = makeLike(res.get());
    put(a.get(), 0, 0, 0, std::ldexp(1.0, 40));
    put(b.get(), 0, 0, 0, std::ldexp(1.0, -20));
    EXPECT_EQ(kuvEqualFPEps(a.get(), b.get(), res.get(), std::ldexp(1.0f, 40)), 0);
    EXPECT_EQ(kuvEqualSFPEps(a.get(), std::ldexp(1.0f, -20), res2.get(), std::ldexp(1.0f, 40)), 0);
    EXPECT_EQ(get(res.get(), 0, 0, 0) + get(res2.get(), 0, 0, 0), 2.0);
}

TEST(CompareRandom, FailedTileRequestReportsAllocationFailure) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 40, 8);
    TileStore store(makeImage(KUV_DEPTH_1U, 1, 40, 8), 16, 8);
    store.failRequest(2);
    ReportCapture capture;
    EXPECT_EQ(kuvGreaterS(a.get(), -1, store.image()), -4);
    EXPECT_TRUE(oneReport(capture, -4, "kuvGreaterS", "Allocation failure", "kuvComp"));
    EXPECT_EQ(store.held(), 0);
    // The tile written before the failure keeps its bits; the next is untouched.
    for (int x = 0; x < 17; ++x) EXPECT_EQ(get(store.backing(), x, 7, 0), x < 16) << x;
}

TEST(CompareRefusals, EachCheckInItsOrderWithStatusValueAndTextTouchesNothing) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 6, 4), b = makeLike(a.get());
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 6, 4), bits = makeLike(res.get());
    ImagePtr alpha2 = makeImage(KUV_DEPTH_8U, 4, 6, 4, KUV_DATA_ORDER_PIXEL, 4);
    alpha2->alphaChannel = 2;   // refused by its header check
    ImagePtr badMask = makeLike(a.get()), bottom = makeLike(a.get());
    attachMask(badMask.get(), makeLike(a.get()));
    bottom->origin = KUV_ORIGIN_BOTTOM_LEFT;
    ImagePtr s16 = makeImage(KUV_DEPTH_16S, 1, 6, 4), f = makeImage(KUV_DEPTH_32F, 1, 6, 4);
    ImagePtr plane = makeImage(KUV_DEPTH_8U, 1, 6, 4, KUV_DATA_ORDER_PLANE), f2 = makeLike(f.get());
    // One channel that is alpha: it passes the header check and leaves nothing to compare.
    ImagePtr lone = makeImage(KUV_DEPTH_8U, 1, 6, 4, KUV_DATA_ORDER_PIXEL, 1);
    ImagePtr loneRes = makeImage(KUV_DEPTH_1U, 1, 6, 4, KUV_DATA_ORDER_PIXEL, 1);
    ImagePtr rgb = makeImage(KUV_DEPTH_8U, 3, 6, 4), rgbCoi = makeLike(rgb.get());
    setRoi(rgbCoi.get(), 2, 0, 0, 6, 4);
    ImagePtr maskedRes = makeLike(res.get()), masked = makeLike(a.get());
    attachMask(maskedRes.get(), makeLike(loneRes.get()));
    attachMask(masked.get(), makeLike(loneRes.get()));
    Out A = a.get(), B = b.get(), R = res.get(), I = bits.get(), F = f.get(), L = lone.get();
    const char *bad = " Incorrect Image", *alpha = "bad alpha channel's number";
    const char* notFloat = "(img->depth!=KUV_DEPTH_32F)";
    const struct {
        int op;   // index in ops
        In img1, img2;
        Out res;
        float eps;
        KuvStatus status, value;
        const char* context;
    } rows[] = {
        {0, nullptr, B, R, 1, -9, -9, bad},
        {1, A, nullptr, R, 1, -9, -9, bad},
        {2, A, B, nullptr, 1, -9, -9, bad},
        {0, alpha2.get(), B, R, 1, -18, -18, bad},
        {0, A, badMask.get(), R, 1, -117, -117, bad},
        {0, A, B, s16.get(), 1, -5, -17, "(res->depth!=KUV_DEPTH_1U)"},
        {0, A, s16.get(), R, 1, -5, -17, "(img1->depth!=img2->depth)"},
        {2, I, R, R, 1, -5, -5, "(img1==res || img2==res)"},
        {0, A, plane.get(), R, 1, -5, -19, "(img1->dataOrder!=img2->dataOrder)"},
        {0, A, bottom.get(), R, 1, -5, -20, "(img1->origin!=img2->origin)"},
        {3, A, B, R, 1, -5, -17, "((img1->depth!= KUV_DEPTH_32F)|| (img2->depth!= KUV_DEPTH_32F))"},
        {3, F, f2.get(), R, 0, -5, -5, "(eps<=0.)"},
        {3, F, f2.get(), R, -1, -5, -5, "(eps<=0.)"},
        {0, L, B, R, 1, -18, -5, alpha},   // the first alpha failure returns -5
        {0, A, L, R, 1, -18, -18, alpha},
        {1, rgbCoi.get(), rgb.get(), R, 1, -15, -15, "bad channel's number"},
        {0, A, B, loneRes.get(), 1, -18, -18, alpha},
        {0, A, B, maskedRes.get(), 1, -18, -18, alpha},
        {4, nullptr, nullptr, R, 1, -9, -9, bad},
        {9, F, nullptr, nullptr, 1, -9, -9, bad},
        {5, A, nullptr, A, 1, -5, -5, "(img==res)"},   // before the result's depth
        {4, A, nullptr, F, 1, -5, -17, "(res->depth!=KUV_DEPTH_1U)"},
        {6, F, nullptr, R, 1, -5, -17, "(img->depth==KUV_DEPTH_32F)"},
        {10, F, nullptr, R, 0, -5, -5, "(eps<=0.)"},
        {4, L, nullptr, R, 1, -18, -18, alpha},
        {4, A, nullptr, loneRes.get(), 1, -18, -18, alpha},
        {6, masked.get(), nullptr, R, 1, -18, -18, alpha},
        {7, A, nullptr, R, 1, -5, -17, notFloat},
        {8, I, nullptr, R, 1, -5, -17, notFloat},
        {9, A, nullptr, R, 1, -5, -17, notFloat},
        {10, I, nullptr, R, 1, -5, -17, notFloat},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(ops[r.op].name) + " " + r.context);
        const RefusalGuard g[] = {{A, B, R},
                                  {I, alpha2.get(), badMask.get()},
                                  {bottom.get(), s16.get(), plane.get()},
                                  {F, f2.get(), L},
                                  {loneRes.get(), rgb.get(), rgbCoi.get()},
                                  {maskedRes.get(), masked.get()}};
        ReportCapture capture;
        EXPECT_EQ(ops[r.op].call(r.img1, r.img2, 0, r.eps, r.res), r.value);
        EXPECT_TRUE(oneReport(capture, r.status, ops[r.op].name, r.context, "kuvComp"));
        for (const RefusalGuard& guard : g) EXPECT_TRUE(guard.intact());
    }
}

}   // namespace
