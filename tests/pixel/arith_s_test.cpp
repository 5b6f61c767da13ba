// kuvAddS, kuvSubtractS, kuvMultiplyS and the float forms: the seeded
// differential run of arith_test.cpp with constants drawn from the limits of
// each depth, exact limits, which operation reports for each row of the
// decision tables, and the refusals.
#include "tests/support/kuv_test.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <functional>
#include <tuple>

namespace arithdiff {   // defined in arith_test.cpp
using Elem = std::function<double(double a, double b)>;
using Call = std::function<void(const KuvImage* a, const KuvImage* b, KuvImage* d)>;
using Pick = std::function<void(kuvtest::Rng& rng, std::string* label, Call* call, Elem* elem)>;
using Rep = std::tuple<KuvStatus, const char*, const char*, const char*>;
void run(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed0, int cases, const Pick& pick);
void expectElement(uint32_t depth, double a, double b, const Call& call, double want);
void expectRefused(std::vector<const KuvImage*> images, const std::function<void()>& call,
                   std::vector<Rep> want, KuvStatus status = 0);
}  // namespace arithdiff

namespace {

using namespace kuvtest;
using arithdiff::Call;
using arithdiff::expectRefused;

enum OpS { ADD, SUB, MUL, ADDF, SUBF, MULF };
const char* kNames[] = {"kuvAddS", "kuvSubtractS", "kuvMultiplyS",
                        "kuvAddSFP", "kuvSubtractSFP", "kuvMultiplySFP"};
const char* kFiles[] = {"kuvadds", "kuvsubs", "kuvmuls", "kuvaddsf", "kuvsubsf", "kuvmulsf"};

// x combined with the constant as the operation defines it: limited to the
// depth's range, bits by their own rules, floats unlimited.
double ruleS(OpS op, uint32_t depth, double x, double value, float fvalue, int flip) {
    if (op >= ADDF) {
        const float f = float(x);
        return op == ADDF ? f + fvalue : op == MULF ? f * fvalue : flip ? fvalue - f : f - fvalue;
    }
    if (depth == KUV_DEPTH_1U) {
        const bool v = int64_t(value) & 1, b = x != 0;
        return op == ADD ? b || v : op == MUL ? b && v : flip ? v && !b : b && !v;
    }
    return saturateTo(depth, op == ADD ? x + value : op == MUL ? x * value : flip ? value - x : x - value);
}

Call callS(OpS op, int32_t value, float fvalue, int32_t flip) {
    return [=](const KuvImage* s, const KuvImage*, KuvImage* d) {
        switch (op) {
            case ADD: return kuvAddS(s, d, value);
            case SUB: return kuvSubtractS(s, d, value, flip);
            case MUL: return kuvMultiplyS(s, d, value);
            case ADDF: return kuvAddSFP(s, d, fvalue);
            case SUBF: return kuvSubtractSFP(s, d, fvalue, flip);
            default: return kuvMultiplySFP(s, d, fvalue);
        }
    };
}

// Constants at the edges of every row of the decision tables; m is the depth's max.
std::vector<int64_t> limitValues(uint32_t depth) {
    const int64_t m = depth == KUV_DEPTH_32F ? INT_MAX : int64_t(depthMax(depth));
    return {0, 1, -1, m, m + 1, -m, -m - 1, 2 * m, -65535, -65536, INT_MIN, INT_MAX};
}

class ArithSDifferential : public ::testing::TestWithParam<std::tuple<OpS, uint32_t, int>> {};

TEST_P(ArithSDifferential, AgainstTheElementRules) {
    const auto [op, depth, order] = GetParam();
    const auto di = uint64_t(std::find(allDepths().begin(), allDepths().end(), depth) - allDepths().begin());
    const float floats[] = {0.0f, -0.0f, 1.0f, -1.0f, 0.25f, 1e30f, -3e38f, FLT_MAX, INFINITY, -INFINITY,
                            NAN, 1e-40f, FLT_MIN};
    auto pick = [&](Rng& rng, std::string* label, Call* call, arithdiff::Elem* elem) {
        std::vector<int64_t> values = limitValues(depth);
        const int64_t m = values[3];
        values.insert(values.end(), {2, 127, 128, -128, -129, 254, 255, 256, -254, -256, 32767, 32768, -32768,
                                     -32769, 65534, 131069, 131071, 46341, rng.uniform(-2 * m - 2, 2 * m + 2),
                                     rng.uniform(INT_MIN, INT_MAX)});
        const int64_t drawn = values[size_t(rng.uniform(0, int64_t(values.size()) - 1))];
        const int32_t value = int32_t(std::clamp<int64_t>(drawn, INT_MIN, INT_MAX));
        const float fvalue = rng.chance(0.5) ? float(rng.real(-1e4, 1e4)) : floats[rng.uniform(0, 12)];
        const int32_t flip = std::vector<int32_t>{0, 1, -1, INT_MIN, 6}[rng.uniform(0, 4)];
        *label = std::string(kNames[op]) + " value " +
                 (op >= ADDF ? std::to_string(fvalue) : std::to_string(value)) + " flip " +
                 std::to_string(flip);
        *call = callS(op, value, fvalue, flip);
        *elem = [=](double x, double) { return ruleS(op, depth, x, value, fvalue, flip); };
    };
    arithdiff::run(1, false, depth, order,
                   (5 + uint64_t(op)) * 10000000 + di * 1000000 + uint64_t(order) * 100000, 100, pick);
}

const auto kOrders = ::testing::Values(KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE);
INSTANTIATE_TEST_SUITE_P(ArithSInt, ArithSDifferential,
                         ::testing::Combine(::testing::Values(ADD, SUB, MUL),
                                            ::testing::Values(KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_8S,
                                                              KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S),
                                            kOrders));
INSTANTIATE_TEST_SUITE_P(ArithSFloat, ArithSDifferential,
                         ::testing::Combine(::testing::Values(ADDF, SUBF, MULF),
                                            ::testing::Values(KUV_DEPTH_32F), kOrders));

TEST(ArithSEdges, ExactValuesAtTheLimits) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S, F32 = KUV_DEPTH_32F;
    const int32_t lo = INT_MIN, hi = INT_MAX;
    const struct {
        OpS op;
        uint32_t depth;
        double x;
        int32_t value;
        float f;
        int32_t flip;
        double want;
    } edges[] = {
        {ADD, U8, 0, 255, 0, 0, 255}, {ADD, U8, 255, -255, 0, 0, 0}, {ADD, U8, 200, 100, 0, 0, 255},
        {ADD, U16, 65535, -70000, 0, 0, 0}, {ADD, S8, -128, lo, 0, 0, -128}, {ADD, S8, 127, hi, 0, 0, 127},
        {ADD, S16, 32767, -65536, 0, 0, -32768}, {ADD, S32, hi, 1, 0, 0, hi}, {ADD, S32, lo, -1, 0, 0, lo},
        {ADD, S32, lo, hi, 0, 0, -1}, {ADD, U1, 0, 3, 0, 0, 1}, {ADD, U1, 1, 2, 0, 0, 1},
        {ADD, U1, 0, 2, 0, 0, 0}, {SUB, U8, 100, 300, 0, 1, 200}, {SUB, U8, 10, 300, 0, 1, 255},
        {SUB, U8, 0, 510, 0, 1, 255}, {SUB, U8, 255, 509, 0, 1, 254}, {SUB, U8, 1, -254, 0, 0, 255},
        {SUB, U8, 0, -254, 0, 0, 254}, {SUB, S8, -128, 1000, 0, 1, 127}, {SUB, S8, 127, 1000, 0, 1, 127},
        {SUB, S8, 127, -1000, 0, 1, -128}, {SUB, S8, -128, -1000, 0, 0, 127}, {SUB, S8, 127, 1000, 0, 0, -128},
        {SUB, S16, -32768, lo, 0, 1, -32768}, {SUB, S16, 32767, 70000, 0, 1, 32767},
        {SUB, U16, 1, 65535, 0, 1, 65534}, {SUB, U16, 0, 131069, 0, 1, 65535}, {SUB, S32, lo, lo, 0, 1, 0},
        {SUB, S32, 1, lo, 0, 1, lo}, {SUB, S32, -1, lo, 0, 1, lo + 1}, {SUB, S32, 0, lo, 0, 0, hi},
        {SUB, S32, lo, lo, 0, 0, 0}, {SUB, U1, 0, 1, 0, 1, 1}, {SUB, U1, 1, 1, 0, 1, 0},
        {SUB, U1, 1, 2, 0, 1, 0}, {SUB, U1, 0, 2, 0, 1, 0}, {SUB, U1, 1, 3, 0, 0, 0}, {SUB, U1, 1, 2, 0, 0, 1},
        {MUL, U8, 200, 0, 0, 0, 0}, {MUL, U8, 200, -3, 0, 0, 0}, {MUL, U8, 1, 300, 0, 0, 255},
        {MUL, S8, -1, 1000, 0, 0, -128}, {MUL, S8, 1, 1000, 0, 0, 127}, {MUL, S8, -1, -1000, 0, 0, 127},
        {MUL, S16, -1, 40000, 0, 0, -32768}, {MUL, S16, 1, 40000, 0, 0, 32767},
        {MUL, U16, 65535, 65535, 0, 0, 65535}, {MUL, U16, 2, hi, 0, 0, 65535}, {MUL, S32, lo, -1, 0, 0, hi},
        {MUL, S32, 46341, 46341, 0, 0, hi}, {MUL, S32, lo, lo, 0, 0, hi}, {MUL, U1, 1, 3, 0, 0, 1},
        {MUL, U1, 1, 2, 0, 0, 0}, {SUBF, F32, 0.25, 0, 1.0f, 1, 0.75}, {SUBF, F32, 0.25, 0, 1.0f, 0, -0.75},
        {ADDF, F32, 0.1f, 0, 0.2f, 0, 0.1f + 0.2f}, {MULF, F32, 1e30f, 0, 1e30f, 0, INFINITY},
        {ADDF, F32, 3e38f, 0, 3e38f, 0, INFINITY},
    };
    for (const auto& e : edges) {
        SCOPED_TRACE(std::string(kNames[e.op]) + " value " + std::to_string(e.value) + " flip " +
                     std::to_string(e.flip));
        arithdiff::expectElement(e.depth, e.x, 0, callS(e.op, e.value, e.f, e.flip), e.want);
    }
}

// With a bad destination header, the operation that reports is the one each
// row of the decision tables hands to, for the values of limitValues():
// D kuvAddS, S kuvSubtractS, M kuvMultiplyS, A kuvAndS, O kuvOrS, X kuvXorS.
TEST(ArithSRefusal, EachRowOfTheDecisionTablesReportsUnderItsOperation) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S;
    const struct { OpS op; uint32_t depth; int flip; const char* who; } rows[] = {
        {SUB, U1, 0, "XAAAXAXXAXXA"}, {SUB, U1, 1, "AXXXAXAAXAAX"}, {SUB, U8, 0, "SSSAAOOAOOOA"},
        {SUB, U8, 1, "ASASSAAOAAAO"}, {SUB, U16, 0, "SSSAAOOAOOOA"}, {SUB, U16, 1, "ASASSAAOAAAO"},
        {SUB, S8, 1, "SSSSSSSSSSSS"}, {SUB, S16, 0, "SSSSSSSSSSSS"}, {SUB, S32, 1, "SSSSSSSSSSSS"},
        {ADD, U1, 0, "OOOOOOOOOOOO"}, {ADD, U8, 0, "SSSOOAAOAAAO"}, {ADD, U16, 0, "SSSOOAAOAAAO"},
        {ADD, S8, 0, "SSSSSSSSSSSS"}, {ADD, S16, 0, "SSSSSSSSSSSS"}, {ADD, S32, 0, "DDDDDDDDDDDD"},
        {MUL, U1, 0, "AAAAAAAAAAAA"}, {MUL, U8, 0, "AMAMMAAMAAAM"}, {MUL, U16, 0, "AMAMMAAMAAAM"},
        {MUL, S8, 0, "MMMMMMMMMMMM"}, {MUL, S16, 0, "MMMMMMMMMMMM"}, {MUL, S32, 0, "MMMMMMMMMMMM"},
    };
    const std::string letters = "DSMAOX";
    const char* funcs[] = {"kuvAddS", "kuvSubtractS", "kuvMultiplyS", "kuvAndS", "kuvOrS", "kuvXorS"};
    const char* files[] = {"kuvadds", "kuvsubs", "kuvmuls", "kuvands", "kuvors", "kuvxors"};
    for (const auto& r : rows) {
        const std::vector<int64_t> values = limitValues(r.depth);
        ImagePtr s = makeImage(r.depth, 1, 9, 2), d = makeImage(r.depth, 1, 9, 2);
        d->imageSize = 0;
        for (size_t i = 0; i < values.size(); ++i) {
            const int32_t v = int32_t(std::clamp<int64_t>(values[i], INT_MIN, INT_MAX));
            SCOPED_TRACE(std::string(kNames[r.op]) + " " + depthName(r.depth) + " flip " +
                         std::to_string(r.flip) + " value " + std::to_string(v));
            const size_t k = letters.find(r.who[i]);
            expectRefused({s.get(), d.get()}, [&] { callS(r.op, v, 0, r.flip)(s.get(), nullptr, d.get()); },
                          {{KUV_StsBadImageSize, funcs[k], "Incorrect Image", files[k]}});
        }
    }
}

TEST(ArithSRefusal, StatusFunctionContextAndFile) {
    const KuvStatus BAD = KUV_StsBadArgument;
    std::vector<ImagePtr> keep;
    auto mk = [&](uint32_t depth, int nCh, int order = 0) {
        keep.push_back(makeImage(depth, nCh, 5, 4, order));
        return keep.back().get();
    };
    KuvImage *a = mk(KUV_DEPTH_8U, 3), *ap = mk(KUV_DEPTH_8U, 1, 1), *s8 = mk(KUV_DEPTH_8S, 3);
    KuvImage *h = mk(KUV_DEPTH_16S, 3), *hp = mk(KUV_DEPTH_16S, 3, 1), *w = mk(KUV_DEPTH_32S, 3);
    KuvImage *wp = mk(KUV_DEPTH_32S, 3, 1), *x = mk(KUV_DEPTH_32F, 3), *xp = mk(KUV_DEPTH_32F, 3, 1);
    KuvImage* x1 = mk(KUV_DEPTH_32F, 1);
    const char* order = "(srcImage->dataOrder != dstImage->dataOrder)";
    const char* depth = "(srcImage->depth != dstImage->depth)";
    for (int op = ADD; op <= MULF; ++op) {
        const Call call = callS(OpS(op), 5, 5, 1);
        const char* func = kNames[op];
        expectRefused({a}, [&] { call(nullptr, nullptr, a); }, {{BAD, func, "srcImage==0", kFiles[op]}});
        const std::string other = op < ADDF
                                      ? "For processing depth 32F use function " + std::string(func) + "FP"
                                      : "For processing this depth use function " + std::string(kNames[op - 3]);
        KuvImage* wrong = op < ADDF ? x : a;
        expectRefused({wrong, a}, [&] { call(wrong, nullptr, a); }, {{BAD, func, other.c_str(), kFiles[op]}});
        // The data orders are compared before the channel counts, kuvSubtractS included.
        KuvImage* src = op >= ADDF ? x : op == ADD ? w : h;
        KuvImage* dst = op >= ADDF ? xp : op == ADD ? wp : hp;
        expectRefused({src, dst}, [&] { call(src, nullptr, dst); }, {{BAD, func, order, kFiles[op]}});
    }
    // kuvAddS on the small depths reports under kuvSubtractS.
    expectRefused({a, ap}, [&] { kuvAddS(a, ap, 7); }, {{BAD, "kuvSubtractS", order, "kuvsubs"}});
    expectRefused({a, s8}, [&] { kuvSubtractS(s8, a, 7, 0); }, {{BAD, "kuvSubtractS", depth, "kuvsubs"}});
    expectRefused({w, x}, [&] { kuvMultiplySFP(x, w, 2); }, {{BAD, "kuvMultiplySFP", depth, "kuvmulsf"}});
    expectRefused({x, x1}, [&] { kuvSubtractSFP(x, x1, 2, 0); },
                  {{BAD, "kuvSubtractSFP", "(nChSrc != nChDst)", "kuvsubsf"}});
}

}  // namespace
