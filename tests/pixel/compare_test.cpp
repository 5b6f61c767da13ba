// The comparison family: every form against a reference written here from
// the rules (channels, rectangle, masks, NaN and eps), with the wide and the
// plain workers; the refusal table with statuses and returned values;
// scalar widening; tiles.
#include "tests/support/kuv_test.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>


namespace kuv {
bool setCompareWideWorkers(bool enable);   // internal hook: false selects the plain workers
}

namespace {

using namespace kuvtest;

constexpr const char* file = "kuvComp";
constexpr const char* alphaText = "bad alpha channel's number";
constexpr const char* incorrect = " Incorrect Image";

// ------------------------------------------------------------ reference

enum class Rel { Less, Greater, Equal, Near };
enum class Form { Pair, Int, Float };

struct Op {
    const char* name;
    Rel rel;
    Form form;
};

const Op ops[] = {
    {"kuvLess", Rel::Less, Form::Pair},         {"kuvGreater", Rel::Greater, Form::Pair},
    {"kuvEqual", Rel::Equal, Form::Pair},       {"kuvEqualFPEps", Rel::Near, Form::Pair},
    {"kuvLessS", Rel::Less, Form::Int},         {"kuvGreaterS", Rel::Greater, Form::Int},
    {"kuvEqualS", Rel::Equal, Form::Int},       {"kuvLessSFP", Rel::Less, Form::Float},
    {"kuvGreaterSFP", Rel::Greater, Form::Float}, {"kuvEqualSFP", Rel::Equal, Form::Float},
    {"kuvEqualSFPEps", Rel::Near, Form::Float},
};

struct Args {
    const KuvImage* a;
    const KuvImage* b;   // null in the scalar forms
    double s;
    float eps;
};

KuvStatus call(const Op& op, const Args& x, KuvImage* res) {
    const int32_t si = op.form == Form::Int ? static_cast<int32_t>(x.s) : 0;
    const auto sf = static_cast<float>(x.s);
    switch (op.form) {
        case Form::Pair:
            if (op.rel == Rel::Less) return kuvLess(x.a, x.b, res);
            if (op.rel == Rel::Greater) return kuvGreater(x.a, x.b, res);
            if (op.rel == Rel::Equal) return kuvEqual(x.a, x.b, res);
            return kuvEqualFPEps(x.a, x.b, res, x.eps);
        case Form::Int:
            if (op.rel == Rel::Less) return kuvLessS(x.a, si, res);
            if (op.rel == Rel::Greater) return kuvGreaterS(x.a, si, res);
            return kuvEqualS(x.a, si, res);
        case Form::Float:
            if (op.rel == Rel::Less) return kuvLessSFP(x.a, sf, res);
            if (op.rel == Rel::Greater) return kuvGreaterSFP(x.a, sf, res);
            if (op.rel == Rel::Equal) return kuvEqualSFP(x.a, sf, res);
            return kuvEqualSFPEps(x.a, sf, res, x.eps);
    }
    return 1;
}

// Unordered counts as less and as equal, never as greater; a NaN difference
// counts as near. Float inputs differ exactly in long double when their
// exponents are near.
bool holds(Rel rel, long double a, long double b, float eps) {
    const bool unordered = std::isnan(a) || std::isnan(b);
    switch (rel) {
        case Rel::Less: return unordered || a < b;
        case Rel::Greater: return !unordered && a > b;
        case Rel::Equal: return unordered || a == b;
        case Rel::Near: {
            const long double d = a - b;
            return std::isnan(d) || std::fabs(d) < static_cast<long double>(eps);
        }
    }
    return false;
}

// Offsets, size cut at the edge, and the compared channels (from 0).
struct Range {
    int x = 0, y = 0, w = 0, h = 0, first = 0, count = 0;
};

Range rangeOf(const KuvImage* image) {
    Range r{0, 0, image->width, image->height, 0,
            image->nChannels - (image->alphaChannel != 0 ? 1 : 0)};
    if (const KuvROI* roi = image->roi) {
        r.x = roi->xOffset;
        r.y = roi->yOffset;
        r.w = std::max(0, std::min(roi->xOffset + roi->width, image->width) - roi->xOffset);
        r.h = std::max(0, std::min(roi->yOffset + roi->height, image->height) - roi->yOffset);
        if (roi->coi != 0) r.first = roi->coi - 1, r.count = 1;
    }
    return r;
}

// A copy of res with the rectangle's bits set where every channel holds;
// masked-off bits and everything else as they were.
ImagePtr expected(const Op& op, const Args& x, const KuvImage* res) {
    ImagePtr out = copyImage(res);
    const KuvImage* images[3] = {x.a, x.b, res};
    Range r[3];
    int w = INT32_MAX, h = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        if (images[i] == nullptr) continue;
        r[i] = rangeOf(images[i]);
        w = std::min(w, r[i].w);
        h = std::min(h, r[i].h);
        if (const KuvImage* m = images[i]->maskROI) {
            w = std::min(w, rangeOf(m).w);
            h = std::min(h, rangeOf(m).h);
        }
    }
    for (int y = 0; y < h; ++y) {
        for (int xx = 0; xx < w; ++xx) {
            bool maskSet = true;
            for (const KuvImage* image : images) {
                if (image == nullptr || image->maskROI == nullptr) continue;
                const Range m = rangeOf(image->maskROI);
                maskSet &= get(image->maskROI, m.x + xx, m.y + y, 0) != 0.0;
            }
            if (!maskSet) continue;
            bool all = true;
            for (int k = 0; k < r[0].count; ++k) {
                const long double a = get(x.a, r[0].x + xx, r[0].y + y, r[0].first + k);
                long double b = op.form == Form::Float ? static_cast<float>(x.s) : x.s;
                if (x.b != nullptr) b = get(x.b, r[1].x + xx, r[1].y + y, r[1].first + k);
                all &= holds(op.rel, a, b, x.eps);
            }
            put(out.get(), r[2].x + xx, r[2].y + y, 0, all ? 1.0 : 0.0);
        }
    }
    return out;
}

::testing::AssertionResult sameBytes(const KuvImage* want, const KuvImage* got) {
    for (int64_t i = 0; i < want->imageSize; ++i) {
        if (want->imageData[i] != got->imageData[i]) {
            return ::testing::AssertionFailure()
                   << "byte " << i << " (row " << i / want->widthStep << ") is 0x" << std::hex
                   << (got->imageData[i] & 0xFF) << ", not 0x" << (want->imageData[i] & 0xFF);
        }
    }
    return ::testing::AssertionSuccess();
}

// ------------------------------------------------------------ random cases

// Values that meet each other often, the depth's ends, and for floats
// signed zeros, infinities and NaN.
double randomValue(Rng& rng, uint32_t depth) {
    if (depth == KUV_DEPTH_1U) return static_cast<double>(rng.uniform(0, 1));
    if (depth == KUV_DEPTH_32F) {
        static const double specials[] = {0.0,       -0.0,      1.0, -1.0,   0.5,
                                          INFINITY, -INFINITY, NAN, FLT_MAX};
        if (rng.chance(0.3)) return specials[rng.uniform(0, 8)];
        return static_cast<double>(rng.uniform(-8, 8)) * 0.25;
    }
    const double lo = depthMin(depth), hi = depthMax(depth);
    switch (rng.uniform(0, 3)) {
        case 0: return rng.chance(0.5) ? lo : hi;
        case 1: return static_cast<double>(rng.uniform(int64_t(lo), int64_t(hi)));
        default: return std::clamp(double(rng.uniform(-2, 2)) + (lo < 0 ? 0 : 1), lo, hi);
    }
}

void fillValues(Rng& rng, KuvImage* image) {
    for (int y = 0; y < image->height; ++y)
        for (int x = 0; x < image->width; ++x)
            for (int c = 0; c < image->nChannels; ++c)
                put(image, x, y, c, randomValue(rng, image->depth));
}

// Widths of a case: mostly narrow, sometimes wide enough for whole groups of
// thirty-two result bits.
struct Widths {
    int lo, hi;
    int pick(Rng& rng) const { return static_cast<int>(rng.uniform(lo, hi)); }
};

// A region often starting inside a byte and often running past the edge.
void randomRoi(Rng& rng, KuvImage* image, int coi) {
    if (coi == 0 && rng.chance(0.35)) return;
    setRoi(image, coi, int(rng.uniform(0, image->width - 1)),
           int(rng.uniform(0, image->height - 1)), int(rng.uniform(1, image->width + 3)),
           int(rng.uniform(1, image->height + 2)));
}

void randomMask(Rng& rng, KuvImage* image, Widths widths) {
    if (!rng.chance(0.3)) return;
    ImagePtr mask = makeMask(widths.pick(rng) + 4, int(rng.uniform(2, 14)));
    fillValues(rng, mask.get());
    randomRoi(rng, mask.get(), 0);
    attachMask(image, std::move(mask));
}

// A source comparing `count` channels: plain, with alpha, or by coi.
ImagePtr randomSource(Rng& rng, uint32_t depth, int count, int order, bool useCoi,
                      Widths widths) {
    const int w = widths.pick(rng), h = int(rng.uniform(1, 9));
    ImagePtr image;
    int coi = 0;
    if (depth == KUV_DEPTH_1U) {
        image = makeImage(depth, 1, w, h);
        coi = useCoi ? 1 : 0;
    } else if (useCoi) {
        const int n = int(rng.uniform(1, 4));
        image = makeImage(depth, n, w, h, order, rng.chance(0.3) && n > 1 ? n : 0);
        coi = int(rng.uniform(1, n));   // may name the alpha channel
    } else {
        const bool alpha = rng.chance(0.4);
        image = makeImage(depth, count + (alpha ? 1 : 0), w, h, order, alpha ? count + 1 : 0,
                          rng.chance(0.5) ? 4 : 8);
    }
    fillValues(rng, image.get());
    randomRoi(rng, image.get(), coi);
    randomMask(rng, image.get(), widths);
    return image;
}

ImagePtr randomResult(Rng& rng, Widths widths) {
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, widths.pick(rng) + 4, int(rng.uniform(1, 9)),
                             KUV_DATA_ORDER_PIXEL, 0, rng.chance(0.5) ? 4 : 8);
    fillRandom(res.get(), rng.next());   // a canary: what is not computed must stay
    randomRoi(rng, res.get(), rng.chance(0.2) ? 1 : 0);
    randomMask(rng, res.get(), widths);
    return res;
}

bool accepts(const Op& op, uint32_t depth) {
    if (op.form == Form::Float || op.rel == Rel::Near) return depth == KUV_DEPTH_32F;
    return op.form == Form::Pair || depth != KUV_DEPTH_32F;
}

double randomScalar(Rng& rng, const Op& op, uint32_t depth) {
    if (op.form == Form::Float) return randomValue(rng, KUV_DEPTH_32F);
    if (op.form == Form::Pair) return 0.0;
    const auto lo = int64_t(depthMin(depth)), hi = int64_t(depthMax(depth));
    const int64_t picks[] = {lo, hi, lo - 1, hi + 1, 300, -1, 0, 1, 2, rng.uniform(lo, hi)};
    return double(std::clamp<int64_t>(picks[rng.uniform(0, 9)], INT32_MIN, INT32_MAX));
}

void runRandomCases(bool wide) {
    const bool previous = kuv::setCompareWideWorkers(wide);
    for (const Op& op : ops) {
        for (uint32_t depth : allDepths()) {
            if (!accepts(op, depth)) continue;
            for (uint64_t i = 0; i < 60; ++i) {
                const uint64_t seed = 1000003u * i + depth + 7u * uint64_t(op.rel);
                SCOPED_TRACE(::testing::Message() << op.name << " " << depthName(depth)
                                                  << " seed " << seed << (wide ? " wide" : ""));
                Rng rng(seed);
                const Widths widths = rng.chance(0.25) ? Widths{60, 140} : Widths{1, 41};
                const int order = rng.chance(0.5) ? KUV_DATA_ORDER_PIXEL : KUV_DATA_ORDER_PLANE;
                const bool coi = rng.chance(0.35);
                const int count = coi || depth == KUV_DEPTH_1U ? 1 : int(rng.uniform(1, 4));
                ImagePtr a = randomSource(rng, depth, count, order, coi, widths), b;
                if (op.form == Form::Pair) {
                    b = randomSource(rng, depth, count, order, coi && rng.chance(0.7), widths);
                }
                ImagePtr res = randomResult(rng, widths);
                const Args args{a.get(), b.get(), randomScalar(rng, op, depth),
                                float(rng.uniform(1, 6)) * 0.25f};
                const ImagePtr want = expected(op, args, res.get());
                ReportCapture capture;
                ASSERT_EQ(call(op, args, res.get()), 0);
                EXPECT_EQ(capture.count(), 0u);
                ASSERT_TRUE(sameBytes(want.get(), res.get()));
            }
        }
    }
    kuv::setCompareWideWorkers(previous);
}

TEST(CompareRandom, MatchesReferenceWithWideWorkers) { runRandomCases(true); }
TEST(CompareRandom, MatchesReferenceWithPlainWorkers) { runRandomCases(false); }

// Rows cross the chunks and the thirty-two-bit groups of the wide workers at
// every bit offset of the result, under a mask at every other one.
TEST(CompareRandom, LongRowsAtEveryResultBitOffset) {
    for (bool wide : {true, false}) {
        const bool previous = kuv::setCompareWideWorkers(wide);
        for (int offset = 0; offset < 8; ++offset) {
            SCOPED_TRACE(::testing::Message() << "offset " << offset << (wide ? " wide" : ""));
            Rng rng(77 + offset);
            ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 4133, 2), b = makeLike(a.get());
            fillValues(rng, a.get());
            fillValues(rng, b.get());
            ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 4140, 2);
            fillRandom(res.get(), 5);
            setRoi(res.get(), 0, offset, 0, 4130, 2);
            if (offset % 2 == 1) {
                ImagePtr mask = makeMask(4140, 2);
                fillValues(rng, mask.get());
                setRoi(mask.get(), 0, 7 - offset, 0, 4133, 2);
                attachMask(res.get(), std::move(mask));
            }
            const ImagePtr want = expected(ops[0], Args{a.get(), b.get(), 0, 0}, res.get());
            ASSERT_EQ(kuvLess(a.get(), b.get(), res.get()), 0);
            EXPECT_TRUE(sameBytes(want.get(), res.get()));
        }
        kuv::setCompareWideWorkers(previous);
    }
}

// ------------------------------------------------------------ exact rules

using Call = std::function<KuvStatus(KuvImage*)>;

// The result bit of a one-pixel compare.
int bitOf(const Call& f) {
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 1, 1);
    EXPECT_EQ(f(res.get()), 0);
    return int(get(res.get(), 0, 0, 0));
}

ImagePtr pixel(uint32_t depth, std::initializer_list<double> channels, int alpha = 0) {
    ImagePtr image = makeImage(depth, int(channels.size()), 1, 1, KUV_DATA_ORDER_PIXEL, alpha);
    int c = 0;
    for (double v : channels) put(image.get(), 0, 0, c++, v);
    return image;
}

TEST(CompareRules, NaNCountsAsLessAndEqualNeverGreater) {
    const ImagePtr nan = pixel(KUV_DEPTH_32F, {NAN}), one = pixel(KUV_DEPTH_32F, {1.0});
    const KuvImage *n = nan.get(), *o = one.get();
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvLess(n, o, r); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvLess(o, n, r); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqual(n, o, r); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvGreater(n, o, r); }), 0);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvGreater(o, n, r); }), 0);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvLessSFP(o, NAN, r); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFP(n, 0.0f, r); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvGreaterSFP(n, -INFINITY, r); }), 0);
    // A NaN channel does not decide alone: the ordered channel still fails.
    const ImagePtr a = pixel(KUV_DEPTH_32F, {NAN, 2.0}), b = pixel(KUV_DEPTH_32F, {0.0, 1.0});
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvLess(a.get(), b.get(), r); }), 0);
}

TEST(CompareRules, EpsIsStrictAndNaNDifferenceIsNear) {
    const ImagePtr half = pixel(KUV_DEPTH_32F, {0.5}), quarter = pixel(KUV_DEPTH_32F, {0.25});
    const KuvImage *a = half.get(), *b = quarter.get();
    const float above = std::nextafter(0.25f, 1.0f);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualFPEps(a, b, r, 0.25f); }), 0);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualFPEps(a, b, r, above); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFPEps(a, 0.75f, r, 0.25f); }), 0);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFPEps(a, 0.75f, r, above); }), 1);
    const ImagePtr infinity = pixel(KUV_DEPTH_32F, {INFINITY}), nan = pixel(KUV_DEPTH_32F, {NAN});
    const KuvImage *inf = infinity.get(), *n = nan.get();
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualFPEps(inf, inf, r, 1e-30f); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFPEps(n, 5.0f, r, 1e-30f); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFPEps(inf, 0.0f, r, FLT_MAX); }), 0);
}

TEST(CompareRules, EpsDifferenceIsTakenInExtendedPrecision) {
    if (std::numeric_limits<long double>::digits < 64) GTEST_SKIP() << "no extended precision";
    // 2^40 - 2^-20 needs 61 bits: in double it would round to 2^40, which is eps.
    const ImagePtr a = pixel(KUV_DEPTH_32F, {std::ldexp(1.0, 40)});
    const ImagePtr b = pixel(KUV_DEPTH_32F, {std::ldexp(1.0, -20)});
    const float eps = std::ldexp(1.0f, 40), small = std::ldexp(1.0f, -20);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualFPEps(a.get(), b.get(), r, eps); }), 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqualSFPEps(a.get(), small, r, eps); }), 1);
}

TEST(CompareRules, ScalarIsComparedWithTheWidenedElement) {
    const ImagePtr u8 = pixel(KUV_DEPTH_8U, {255}), s8 = pixel(KUV_DEPTH_8S, {-128});
    const ImagePtr u16 = pixel(KUV_DEPTH_16U, {0}), s32 = pixel(KUV_DEPTH_32S, {INT32_MIN});
    const ImagePtr one = pixel(KUV_DEPTH_1U, {1}), zero = pixel(KUV_DEPTH_1U, {0});
    const struct {
        Call f;
        int bit;
    } cases[] = {
        {[&](KuvImage* r) { return kuvLessS(u8.get(), 300, r); }, 1},
        {[&](KuvImage* r) { return kuvEqualS(u8.get(), 255 + 256, r); }, 0},
        {[&](KuvImage* r) { return kuvEqualS(u8.get(), -1, r); }, 0},
        {[&](KuvImage* r) { return kuvGreaterS(u16.get(), -1, r); }, 1},
        {[&](KuvImage* r) { return kuvGreaterS(s8.get(), -129, r); }, 1},
        {[&](KuvImage* r) { return kuvLessS(s8.get(), -128, r); }, 0},
        {[&](KuvImage* r) { return kuvEqualS(s32.get(), INT32_MIN, r); }, 1},
        {[&](KuvImage* r) { return kuvLessS(s32.get(), INT32_MIN + 1, r); }, 1},
        {[&](KuvImage* r) { return kuvLessS(zero.get(), 1, r); }, 1},
        {[&](KuvImage* r) { return kuvGreaterS(one.get(), 0, r); }, 1},
        {[&](KuvImage* r) { return kuvEqualS(one.get(), 2, r); }, 0},
        {[&](KuvImage* r) { return kuvLess(zero.get(), one.get(), r); }, 1},
        {[&](KuvImage* r) { return kuvGreater(one.get(), zero.get(), r); }, 1},
    };
    for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(bitOf(cases[i].f), cases[i].bit) << i;
}

TEST(CompareRules, LessSWithZeroClearsTheWholeRectangle) {
    ImagePtr img = makeImage(KUV_DEPTH_8U, 1, 37, 5);
    fillRandom(img.get(), 3);
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 37, 5);
    std::memset(res->imageData, 0xFF, size_t(res->imageSize));
    const Snapshot before = snapshot(res.get());
    ASSERT_EQ(kuvLessS(img.get(), 0, res.get()), 0);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 37; ++x) EXPECT_EQ(get(res.get(), x, y, 0), 0.0) << x << "," << y;
    EXPECT_FALSE(paddingChanged(before, res.get()));
}

TEST(CompareRules, AlphaIsLeftOutAndChannelsPairByPosition) {
    // Channels 1 to 3 decide; the alpha values would fail the compare.
    const ImagePtr a = pixel(KUV_DEPTH_16S, {1, 2, 3, 9}, 4);
    const ImagePtr b = pixel(KUV_DEPTH_16S, {2, 3, 4, 0}, 4);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvLess(a.get(), b.get(), r); }), 1);
    // Channel 2 of a three-channel image against channel 3 of another.
    ImagePtr c = pixel(KUV_DEPTH_8U, {0, 7, 0}), d = pixel(KUV_DEPTH_8U, {7, 0, 7});
    setRoi(c.get(), 2, 0, 0, 1, 1);
    setRoi(d.get(), 3, 0, 0, 1, 1);
    EXPECT_EQ(bitOf([&](KuvImage* r) { return kuvEqual(c.get(), d.get(), r); }), 1);
}

TEST(CompareRules, SuccessReturnsZeroAndLeavesTheStatus) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 9, 3), res = makeImage(KUV_DEPTH_1U, 1, 9, 3);
    attachMask(a.get(), makeMask(9, 3, 1));   // a single mask is taken by copying it
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadArgument);
    EXPECT_EQ(kuvEqualS(a.get(), 0, res.get()), 0);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadArgument);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(get(res.get(), 8, 2, 0), 1.0);
}

// ------------------------------------------------------------ refusals

struct Refusal {
    const char* func;
    std::function<KuvStatus()> f;
    KuvStatus status, value;
    const char* context;
};

// Each refusal: its report, its returned value, and none of the images
// touched.
void expectRefusals(const std::vector<Refusal>& refusals,
                    std::vector<const KuvImage*> images) {
    images.resize((images.size() + 2) / 3 * 3, nullptr);
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(::testing::Message() << r.func << " " << r.context);
        std::vector<std::unique_ptr<RefusalGuard>> guards;
        for (size_t i = 0; i < images.size(); i += 3) {
            guards.push_back(
                std::make_unique<RefusalGuard>(images[i], images[i + 1], images[i + 2]));
        }
        ReportCapture capture;
        EXPECT_EQ(r.f(), r.value);
        EXPECT_TRUE(oneReport(capture, r.status, r.func, r.context, file));
        for (const auto& guard : guards) EXPECT_TRUE(guard->intact());
    }
}

// A one-channel image whose channel is alpha: it passes its header check
// and leaves nothing to compare.
ImagePtr loneAlpha(uint32_t depth) { return makeImage(depth, 1, 6, 4, KUV_DATA_ORDER_PIXEL, 1); }

TEST(CompareRefusals, TwoImageChecksInTheirOrder) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 6, 4), b = makeLike(a.get());
    ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 6, 4), bits = makeLike(res.get());
    ImagePtr alpha2 = makeImage(KUV_DEPTH_8U, 4, 6, 4, KUV_DATA_ORDER_PIXEL, 4);
    alpha2->alphaChannel = 2;   // already refused by its header check
    ImagePtr badMask = makeLike(a.get());
    attachMask(badMask.get(), makeLike(a.get()));
    ImagePtr s16 = makeImage(KUV_DEPTH_16S, 1, 6, 4);
    ImagePtr plane = makeImage(KUV_DEPTH_8U, 1, 6, 4, KUV_DATA_ORDER_PLANE);
    ImagePtr bottom = makeLike(a.get());
    bottom->origin = KUV_ORIGIN_BOTTOM_LEFT;
    ImagePtr f1 = makeImage(KUV_DEPTH_32F, 1, 6, 4), f2 = makeLike(f1.get());
    ImagePtr lone = loneAlpha(KUV_DEPTH_8U), loneRes = loneAlpha(KUV_DEPTH_1U);
    ImagePtr rgb = makeImage(KUV_DEPTH_8U, 3, 6, 4), rgbCoi = makeLike(rgb.get());
    setRoi(rgbCoi.get(), 2, 0, 0, 6, 4);
    ImagePtr maskedRes = makeLike(res.get());
    attachMask(maskedRes.get(), loneAlpha(KUV_DEPTH_1U));
    const KuvImage *A = a.get(), *B = b.get(), *R = res.get();
    KuvImage* R2 = res.get();
    expectRefusals(
        {
            {"kuvLess", [&] { return kuvLess(nullptr, B, res.get()); }, -9, -9, incorrect},
            {"kuvGreater", [&] { return kuvGreater(A, nullptr, res.get()); }, -9, -9, incorrect},
            {"kuvEqual", [&] { return kuvEqual(A, B, nullptr); }, -9, -9, incorrect},
            {"kuvLess", [&] { return kuvLess(alpha2.get(), B, res.get()); }, -18, -18, incorrect},
            {"kuvLess", [&] { return kuvLess(A, badMask.get(), R2); }, -117, -117, incorrect},
            {"kuvLess", [&] { return kuvLess(A, B, s16.get()); }, -5, -17,
             "(res->depth!=KUV_DEPTH_1U)"},
            {"kuvLess", [&] { return kuvLess(A, s16.get(), res.get()); }, -5, -17,
             "(img1->depth!=img2->depth)"},
            {"kuvEqual", [&] { return kuvEqual(bits.get(), res.get(), res.get()); }, -5, -5,
             "(img1==res || img2==res)"},
            {"kuvLess", [&] { return kuvLess(A, plane.get(), res.get()); }, -5, -19,
             "(img1->dataOrder!=img2->dataOrder)"},
            {"kuvLess", [&] { return kuvLess(A, bottom.get(), res.get()); }, -5, -20,
             "(img1->origin!=img2->origin)"},
            {"kuvEqualFPEps", [&] { return kuvEqualFPEps(A, B, res.get(), 1.0f); }, -5, -17,
             "((img1->depth!= KUV_DEPTH_32F)|| (img2->depth!= KUV_DEPTH_32F))"},
            {"kuvEqualFPEps", [&] { return kuvEqualFPEps(f1.get(), f2.get(), res.get(), 0.0f); },
             -5, -5, "(eps<=0.)"},
            {"kuvEqualFPEps", [&] { return kuvEqualFPEps(f1.get(), f2.get(), res.get(), -1.0f); },
             -5, -5, "(eps<=0.)"},
            // The first alpha failure reports -18 and returns -5.
            {"kuvLess", [&] { return kuvLess(lone.get(), B, res.get()); }, -18, -5, alphaText},
            {"kuvLess", [&] { return kuvLess(A, lone.get(), res.get()); }, -18, -18, alphaText},
            {"kuvGreater", [&] { return kuvGreater(rgbCoi.get(), rgb.get(), res.get()); }, -15,
             -15, "bad channel's number"},
            {"kuvLess", [&] { return kuvLess(A, B, loneRes.get()); }, -18, -18, alphaText},
            {"kuvLess", [&] { return kuvLess(A, B, maskedRes.get()); }, -18, -18, alphaText},
        },
        {A, B, R, bits.get(), alpha2.get(), badMask.get(), s16.get(), plane.get(), bottom.get(),
         f1.get(), f2.get(), lone.get(), loneRes.get(), rgb.get(), rgbCoi.get(), maskedRes.get()});
}

TEST(CompareRefusals, OneImageChecksInTheirOrder) {
    ImagePtr img = makeImage(KUV_DEPTH_8U, 1, 6, 4), res = makeImage(KUV_DEPTH_1U, 1, 6, 4);
    ImagePtr f = makeImage(KUV_DEPTH_32F, 1, 6, 4), bits = makeLike(res.get());
    ImagePtr lone = loneAlpha(KUV_DEPTH_8U), loneRes = loneAlpha(KUV_DEPTH_1U);
    ImagePtr masked = makeLike(img.get());
    attachMask(masked.get(), loneAlpha(KUV_DEPTH_1U));
    const KuvImage *I = img.get(), *R = res.get(), *F = f.get();
    const char* notFloat = "(img->depth!=KUV_DEPTH_32F)";
    std::vector<Refusal> refusals = {
        {"kuvLessS", [&] { return kuvLessS(nullptr, 0, res.get()); }, -9, -9, incorrect},
        {"kuvEqualSFP", [&] { return kuvEqualSFP(F, 0, nullptr); }, -9, -9, incorrect},
        // The alias test comes before the result's depth.
        {"kuvGreaterS", [&] { return kuvGreaterS(I, 0, img.get()); }, -5, -5, "(img==res)"},
        {"kuvLessS", [&] { return kuvLessS(I, 0, f.get()); }, -5, -17,
         "(res->depth!=KUV_DEPTH_1U)"},
        {"kuvEqualS", [&] { return kuvEqualS(F, 0, res.get()); }, -5, -17,
         "(img->depth==KUV_DEPTH_32F)"},
        {"kuvEqualSFPEps", [&] { return kuvEqualSFPEps(F, 0, res.get(), 0); }, -5, -5, "(eps<=0.)"},
        {"kuvLessS", [&] { return kuvLessS(lone.get(), 0, res.get()); }, -18, -18, alphaText},
        {"kuvLessS", [&] { return kuvLessS(I, 0, loneRes.get()); }, -18, -18, alphaText},
        {"kuvEqualS", [&] { return kuvEqualS(masked.get(), 0, res.get()); }, -18, -18, alphaText},
    };
    for (const KuvImage* src : {I, static_cast<const KuvImage*>(bits.get())}) {
        refusals.push_back({"kuvLessSFP", [&, src] { return kuvLessSFP(src, 0, res.get()); }, -5,
                            -17, notFloat});
        refusals.push_back({"kuvGreaterSFP", [&, src] { return kuvGreaterSFP(src, 0, res.get()); },
                            -5, -17, notFloat});
        refusals.push_back({"kuvEqualSFP", [&, src] { return kuvEqualSFP(src, 0, res.get()); }, -5,
                            -17, notFloat});
        refusals.push_back({"kuvEqualSFPEps",
                            [&, src] { return kuvEqualSFPEps(src, 0, res.get(), 1); }, -5, -17,
                            notFloat});
    }
    expectRefusals(refusals, {I, R, F, bits.get(), lone.get(), loneRes.get(), masked.get()});
}

// ------------------------------------------------------------ tiles

// The untiled twin of a tiled header: the backing pixels with the header's region.
ImagePtr twin(const TileStore& store) {
    ImagePtr copy = copyImage(store.backing());
    if (const KuvROI* r = store.image()->roi)
        setRoi(copy.get(), r->coi, r->xOffset, r->yOffset, r->width, r->height);
    return copy;
}

TEST(CompareTiles, TiledResultIsWalkedTileByTile) {
    Rng rng(11);
    ImagePtr a = makeImage(KUV_DEPTH_16U, 3, 45, 30, KUV_DATA_ORDER_PLANE);
    ImagePtr b = makeImage(KUV_DEPTH_16U, 3, 50, 30, KUV_DATA_ORDER_PLANE);
    fillValues(rng, a.get());
    fillValues(rng, b.get());
    setRoi(a.get(), 0, 2, 1, 40, 28);
    ImagePtr mask = makeMask(40, 30);
    fillValues(rng, mask.get());
    attachMask(b.get(), std::move(mask));
    ImagePtr backing = makeImage(KUV_DEPTH_1U, 1, 47, 29);
    fillRandom(backing.get(), 4);
    TileStore store(std::move(backing), 16, 8);
    setRoi(store.image(), 0, 5, 3, 100, 100);
    const ImagePtr plain = twin(store);
    const ImagePtr want = expected(ops[2], Args{a.get(), b.get(), 0, 0}, plain.get());
    ASSERT_EQ(kuvEqual(a.get(), b.get(), store.image()), 0);
    EXPECT_TRUE(sameBytes(want.get(), store.backing()));
    EXPECT_TRUE(store.faults().empty());
    EXPECT_EQ(store.held(), 0);
    // The rectangle, 40 x 26 from (5, 3), meets tile columns 0..2 and rows
    // 0..3; each tile is written and released before the next is asked for.
    std::vector<TileStore::Request> log;
    for (int row = 0; row <= 3; ++row) {
        for (int col = 0; col <= 2; ++col) {
            log.push_back({col, row, KUV_TILE_WRITE});
            log.push_back({col, row, KUV_TILE_RELEASE});
        }
    }
    EXPECT_EQ(store.log(), log);
}

TEST(CompareTiles, TiledSourcesAreReadAndTheLargerTileAreaIsWalked) {
    for (int tileB : {8, 16}) {
        SCOPED_TRACE(tileB);
        Rng rng(21 + tileB);
        ImagePtr ba = makeImage(KUV_DEPTH_32F, 2, 37, 21), bb = makeLike(ba.get());
        fillValues(rng, ba.get());
        fillValues(rng, bb.get());
        TileStore sa(std::move(ba), 8, 8), sb(std::move(bb), tileB, tileB);
        setRoi(sa.image(), 2, 3, 2, 30, 17);
        setRoi(sb.image(), 1, 1, 0, 33, 19);
        ImagePtr res = makeImage(KUV_DEPTH_1U, 1, 33, 20);
        fillRandom(res.get(), 9);
        setRoi(res.get(), 0, 3, 1, 31, 19);
        const ImagePtr pa = twin(sa), pb = twin(sb);
        const ImagePtr want = expected(ops[0], Args{pa.get(), pb.get(), 0, 0}, res.get());
        TileStore::clearCalls();
        ASSERT_EQ(kuvLess(sa.image(), sb.image(), res.get()), 0);
        EXPECT_TRUE(sameBytes(want.get(), res.get()));
        EXPECT_EQ(sa.held() + sb.held(), 0);
        EXPECT_TRUE(sa.faults().empty() && sb.faults().empty());
        // img1 is walked when the areas are equal; the first request names
        // the walked image.
        ASSERT_FALSE(TileStore::calls().empty());
        EXPECT_EQ(TileStore::calls().front().store, tileB == 8 ? sa.id() : sb.id());
        for (const auto& c : TileStore::calls()) EXPECT_NE(c.request.mode, KUV_TILE_WRITE);
    }
}

TEST(CompareTiles, FailedTileRequestReportsAllocationFailure) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 40, 8);
    fillRandom(a.get(), 2);
    TileStore store(makeImage(KUV_DEPTH_1U, 1, 40, 8), 16, 8);
    store.failRequest(2);
    ReportCapture capture;
    EXPECT_EQ(kuvGreaterS(a.get(), -1, store.image()), -4);
    EXPECT_TRUE(oneReport(capture, -4, "kuvGreaterS", "Allocation failure", file));
    EXPECT_EQ(store.held(), 0);
    // The tile written before the failure keeps its bits; the next is untouched.
    for (int x = 0; x < 16; ++x) EXPECT_EQ(get(store.backing(), x, 7, 0), 1.0) << x;
    EXPECT_EQ(get(store.backing(), 16, 0, 0), 0.0);
}

}  // namespace
