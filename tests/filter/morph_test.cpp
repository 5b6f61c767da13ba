// Morphology against a brute-force box over the source as the border table
// and the one-row-around rule give it, on random images of every accepted
// depth, order, region, channel, mask, tiling and in place, on both worker sets.
#include "tests/filter/filter_test.h"

#include "filter/morph.h"

#include <climits>
#include <map>
#include <tuple>

using namespace filtertest;

namespace {

enum Op { ERODE, DILATE, OPEN, CLOSE };
using MorphFn = void (*)(const KuvImage*, KuvImage*, int32_t);
constexpr MorphFn kFn[] = {kuvErode, kuvDilate, kuvOpen, kuvClose};
constexpr const char* kName[] = {"kuvErode", "kuvDilate", "kuvOpen", "kuvClose"};

// The box sees one row or column of the image around the rectangle and
// repeats it further out. Opening and closing take their second box from T:
// the first stage inside the rectangle, the source around it; rows past
// h - n keep the window of row h - n (all rows that of row 0 when h < n).
struct MorphRef {
    Op op;
    int n;
    std::map<std::tuple<int, int64_t, int64_t>, double> stage;   // T inside the rectangle
    double operator()(const Px& px) {
        const Rect& g = px.r;
        auto seen = [&](int64_t x, int64_t j) { return px.at(std::clamp<int64_t>(x, g.x - 1, g.x + g.w), g.y + std::clamp<int64_t>(j, -1, g.h)); };
        auto box = [&](auto&& value, int64_t x, int64_t j0, bool isMax) {
            double r = value(x, j0);
            for (int64_t j = j0; j <= j0 + 2 * n; ++j)
                for (int64_t k = x - n; k <= x + n; ++k) r = isMax ? std::max(r, value(k, j)) : std::min(r, value(k, j));
            return r;
        };
        const bool maxFirst = op == DILATE || op == CLOSE;
        if (op == ERODE || op == DILATE) return box(seen, px.x, px.j - n, maxFirst);
        auto t = [&](int64_t x, int64_t j) {
            if (j < 0 || j >= g.h || x < g.x || x >= g.x + g.w) return seen(x, j);
            const auto key = std::make_tuple(px.c, x, j);
            auto it = stage.find(key);
            return it != stage.end() ? it->second : stage[key] = box(seen, x, j - n, maxFirst);
        };
        return box(t, px.x, -n + std::min(px.j, std::max(g.h - n, 0)), !maxFirst);
    }
};

TEST(Morph, RandomCasesOnBothWorkerSets) {
    Options o{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};
    o.inPlace = true;
    o.fill = [](KuvImage* im, Rng& rng) {
        const double density = std::vector<double>{0.1, 0.5, 0.9}[rng.uniform(0, 2)];
        for (int y = 0; im->depth == KUV_DEPTH_1U && y < im->height; ++y)
            for (int x = 0; x < im->width; ++x) put(im, x, y, 0, rng.chance(density));
    };
    const uint32_t depths[] = {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_16U};
    for (uint64_t seed = 1; seed <= 700; ++seed) {
        Rng rng(seed);
        const uint32_t depth = depths[rng.uniform(0, 2)];
        MorphRef ref{Op(rng.uniform(0, 3)), int(rng.uniform(1, 3)), {}};
        const Pair p = randomPair(rng, depth, o);
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " " << kName[ref.op] << " n " << ref.n << " " << depthName(depth));
        checkPair(p, std::ref(ref), false, vectorPaths, [&](const KuvImage* s, KuvImage* d) {
            kuvSetErrStatus(KUV_StsBadArgument);   // cleared on entry
            kFn[ref.op](s, d, ref.n);
            EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
        });
    }
}

TEST(MorphRefusals, ChecksInOrderWithTheirTexts) {
    ImagePtr u8 = makeImage(KUV_DEPTH_8U, 3, 9, 7), d8 = makeImage(KUV_DEPTH_8U, 3, 9, 7), s8 = makeImage(KUV_DEPTH_8S, 3, 9, 7);
    ImagePtr f32 = makeImage(KUV_DEPTH_32F, 3, 9, 7), u16 = makeImage(KUV_DEPTH_16U, 3, 9, 7), plane = makeImage(KUV_DEPTH_8U, 3, 9, 7, 1);
    ImagePtr flipped = makeImage(KUV_DEPTH_8U, 3, 9, 7), one = makeImage(KUV_DEPTH_8U, 1, 9, 7), badMask = makeImage(KUV_DEPTH_8U, 3, 9, 7);
    flipped->origin = KUV_ORIGIN_BOTTOM_LEFT;
    attachMask(badMask.get(), makeImage(KUV_DEPTH_8U, 1, 9, 7));
    const struct { const KuvImage* src; KuvImage* dst; int n; KuvStatus status; const char* text; } rows[] = {
        {nullptr, d8.get(), 1, KUV_StsNullHeader, "Incorrect Image"},
        {s8.get(), nullptr, 0, KUV_StsNullHeader, "Incorrect Image"},
        {u8.get(), badMask.get(), 1, KUV_StsBadDepth - KUV_StsMaskOffset, "Incorrect Image"},
        {s8.get(), u16.get(), 0, KUV_StsBadArgument, "Illegal number of of iterations"},
        {u8.get(), d8.get(), -3, KUV_StsBadArgument, "Illegal number of of iterations"},
        {s8.get(), u16.get(), 1, KUV_StsBadArgument, "Illegal image depth"},
        {f32.get(), f32.get(), 1, KUV_StsBadArgument, "Illegal image depth"},
        {u16.get(), plane.get(), 1, KUV_StsBadArgument, "SRC and DST depth are different"},
        {u8.get(), plane.get(), 1, KUV_StsBadArgument, "SRC and DST order are different"},
        {u8.get(), flipped.get(), 1, KUV_StsBadArgument, "SRC and DST orign are different"},
        {u8.get(), one.get(), 1, KUV_StsBadArgument, "SRC and DST number of channels are different"},
        {u8.get(), d8.get(), INT32_MAX / 2, KUV_StsOutOfMemory, nullptr},   // a ring past all memory: no report
    };
    for (int op = ERODE; op <= CLOSE; ++op)
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << kName[op] << " expecting " << (row.text ? row.text : "no report"));
            ReportCapture capture;
            RefusalGuard guard(row.src, row.dst);
            kFn[op](row.src, row.dst, row.n);
            if (row.text) EXPECT_TRUE(oneReport(capture, row.status, kName[op], row.text, "ownMorph"));
            else EXPECT_TRUE(capture.count() == 0 && kuvGetErrStatus() == row.status);
            EXPECT_TRUE(guard.intact());
        }
}

}  // namespace
