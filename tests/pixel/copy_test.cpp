// kuvCopy, kuvExchange, kuvSet and kuvSetFP against a reference written from
// the rules (each image's region origin and channels to process, the common
// extent of images and masks, each mask anchored at its own region), plain and
// tiled, with the block walk's requests; every refusal with its reports.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <climits>
#include <cstring>

namespace {

using namespace kuvtest;
using Req = TileStore::Request;

constexpr const char* kFile = "kuvsce";
constexpr const char* kChannels =
    "Number of processed channels of srcImage != Number of processed channels of dstImage";

// Region origin and channels to process; none when the only channel is alpha.
std::vector<int> channelsOf(const KuvImage* image, int* x0, int* y0) {
    const KuvROI* roi = image->roi;
    *x0 = roi ? roi->xOffset : 0, *y0 = roi ? roi->yOffset : 0;
    if (roi != nullptr && roi->coi > 0) return {roi->coi - 1};
    std::vector<int> channels;
    for (int c = 0; c < image->nChannels - (image->alphaChannel != 0); ++c) channels.push_back(c);
    return channels;
}

// The region cut at the image's edges; false when it is empty.
bool extentOf(const KuvImage* image, int* w, int* h) {
    const KuvROI* r = image->roi;
    if (r == nullptr) return *w = image->width, *h = image->height, true;
    *w = std::min(r->width, image->width - r->xOffset);
    *h = std::min(r->height, image->height - r->yOffset);
    return *w > 0 && *h > 0;
}

bool maskBitAt(const KuvImage* mask, int x, int y) {
    return !mask || get(mask, (mask->roi ? mask->roi->xOffset : 0) + x,
                        (mask->roi ? mask->roi->yOffset : 0) + y, 0) != 0.0;
}

enum class Op { Copy, Exchange, Set };

// What the operation does to plain images a (source, null for kuvSet) and b
// (destination), masks given apart; *w x *h is the rectangle, 0 x 0 if none.
// Elements go plane after plane when the source is in plane order.
void reference(Op op, KuvImage* a, KuvImage* b, const KuvImage* maskA, const KuvImage* maskB,
               double value, int* w, int* h) {
    *w = INT_MAX, *h = INT_MAX;
    for (const KuvImage* image :
         {static_cast<const KuvImage*>(a), static_cast<const KuvImage*>(b), maskA, maskB}) {
        int iw = 0, ih = 0;
        if (image != nullptr && !extentOf(image, &iw, &ih)) return void(*w = *h = 0);
        if (image != nullptr) *w = std::min(*w, iw), *h = std::min(*h, ih);
    }
    int xa, ya, xb, yb;
    const std::vector<int> cb = channelsOf(b, &xb, &yb), ca = a ? channelsOf(a, &xa, &ya) : cb;
    if (cb.size() != ca.size()) return;
    const size_t n = cb.size();
    const bool planes = (a ? a : b)->dataOrder == KUV_DATA_ORDER_PLANE;
    for (size_t plane = 0; plane < (planes ? n : 1); ++plane)
        for (int y = 0; y < *h; ++y)
            for (int x = 0; x < *w; ++x)
                for (size_t k = planes ? plane : 0; k < (planes ? plane + 1 : n); ++k) {
                    if (!maskBitAt(maskA, x, y) || !maskBitAt(maskB, x, y)) continue;
                    const double va = op == Op::Set ? value : get(a, xa + x, ya + y, ca[k]);
                    if (op == Op::Exchange)
                        put(a, xa + x, ya + y, ca[k], get(b, xb + x, yb + y, cb[k]));
                    put(b, xb + x, yb + y, cb[k], va);
                }
}

::testing::AssertionResult sameBytes(const KuvImage* want, const KuvImage* got) {
    for (int32_t i = 0; i < want->imageSize; ++i)
        if (want->imageData[i] != got->imageData[i])
            return ::testing::AssertionFailure()
                   << "byte " << i << " (row " << i / want->widthStep << ") is "
                   << (got->imageData[i] & 0xFF) << ", expected " << (want->imageData[i] & 0xFF);
    return ::testing::AssertionSuccess();
}

// One image of a case: plain pixels with region and mask, perhaps served tiled.
struct Subject {
    ImagePtr plain;
    int tileW = 0, tileH = 0;
    std::unique_ptr<TileStore> store;
    KuvImage* header() { return store ? store->image() : plain.get(); }
    const KuvImage* pixels() { return store ? store->backing() : plain.get(); }
};

void randomImage(Rng& rng, Subject* s, uint32_t depth, int n, int order, int alpha, int coi) {
    const int w = int(rng.uniform(1, rng.chance(0.2) ? 100 : 37)), h = int(rng.uniform(1, 9));
    s->plain = makeImage(depth, n, w, h, order, alpha, 4 << rng.uniform(0, 2));
    fillRandom(s->plain.get(), rng.next());
    if (coi != 0 || rng.chance(0.7))
        setRoi(s->plain.get(), coi, int(rng.uniform(0, std::min(9, w - 1))),
               int(rng.uniform(0, std::min(3, h - 1))), int(rng.uniform(1, w + 3)),
               int(rng.uniform(1, h + 2)));
    if (rng.chance(0.35)) {
        const int mw = int(rng.uniform(1, w + 10)), mh = int(rng.uniform(1, h + 3));
        ImagePtr mask = makeMask(mw, mh);
        fillRandom(mask.get(), rng.next());
        if (rng.chance(0.5))
            setRoi(mask.get(), 0, int(rng.uniform(0, std::min(11, mw - 1))),
                   int(rng.uniform(0, std::min(2, mh - 1))), mw, mh);
        attachMask(s->plain.get(), std::move(mask));
    }
    if (rng.chance(0.3))
        s->tileW = 8 * int(rng.uniform(1, 3)), s->tileH = 8 * int(rng.uniform(1, 3));
}

// Serves a case's image tiled: the pixels go to a store, region and mask to its header.
void serveTiled(Subject* s) {
    if (s->tileW == 0) return;
    ImagePtr backing = copyImage(s->plain.get());
    clearRoi(backing.get());
    s->store = std::make_unique<TileStore>(std::move(backing), s->tileW, s->tileH);
    if (const KuvROI* r = s->plain->roi)
        setRoi(s->store->image(), r->coi, r->xOffset, r->yOffset, r->width, r->height);
    if (s->plain->maskROI) attachMask(s->store->image(), copyImage(s->plain->maskROI));
}

// kuvCopy and kuvExchange on a pair of one of the shapes of the channel
// rules; kuvSet on the destination alone, with values at and beyond the limits.
void runRandomCases(Op op, uint64_t firstSeed, int cases) {
    int changed = 0;   // cases whose destination the operation has to change
    for (uint64_t seed = firstSeed; seed < firstSeed + cases; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng rng(seed);
        const uint32_t depth = allDepths()[rng.uniform(0, 6)];
        const int order = int(rng.uniform(0, 1));
        int sn = 1, dn = 1, sa = 0, da = 0, so = order, dor = order, sCoi = 0, dCoi = 0;
        switch (depth == KUV_DEPTH_1U ? 4 : rng.uniform(0, 5)) {
            case 0:   // the same channels on both sides, maybe with alpha
                sn = dn = int(rng.uniform(1, 4));
                if (sn > 1 && rng.chance(0.3)) sa = da = sn;
                break;
            case 1: sCoi = int(rng.uniform(1, sn = int(rng.uniform(2, 4)))); break;
            case 2: dCoi = int(rng.uniform(1, dn = int(rng.uniform(2, 4)))); break;
            case 3:   // a channel of interest on both sides
                sCoi = int(rng.uniform(1, sn = int(rng.uniform(2, 4))));
                dCoi = int(rng.uniform(1, dn = int(rng.uniform(2, 4))));
                break;
            case 4: so = int(rng.uniform(0, 1)), dor = int(rng.uniform(0, 1)); break;
            default:   // RGBA with alpha against RGB
                so = dor = KUV_DATA_ORDER_PIXEL;
                rng.chance(0.5) ? (sn = sa = 4, dn = 3) : (sn = 3, dn = da = 4);
        }
        Subject src, dst;
        if (op != Op::Set) randomImage(rng, &src, depth, sn, so, sa, sCoi);
        randomImage(rng, &dst, depth, dn, dor, da, dCoi);
        // Floats take fvalue; their limits do not fit an integer.
        const bool fp = depth == KUV_DEPTH_32F;
        const int64_t lo = fp ? 0 : int64_t(depthMin(depth)), hi = fp ? 0 : int64_t(depthMax(depth));
        const int64_t picks[] = {lo - 1, lo, hi, hi + 1, int32_t(rng.next())};
        const auto value = int32_t(fp ? 0 : picks[rng.uniform(0, 4)]);
        const auto fvalue = float(rng.real(-1e6, 1e6));
        ImagePtr wantSrc = src.plain ? copyImage(src.plain.get()) : nullptr;
        ImagePtr wantDst = copyImage(dst.plain.get());
        const KuvImage* srcMask = src.plain ? src.plain->maskROI : nullptr;
        int w = 0, h = 0;
        reference(op, wantSrc.get(), wantDst.get(), srcMask, dst.plain->maskROI,
                  depth == KUV_DEPTH_32F ? fvalue : std::clamp<double>(value, lo, hi), &w, &h);
        changed += !sameBytes(wantDst.get(), dst.plain.get());
        serveTiled(&src);
        serveTiled(&dst);
        std::vector<Snapshot> headers = {snapshot(dst.header())};
        if (src.plain) headers.push_back(snapshot(src.header()));
        const RefusalGuard masks(dst.header()->maskROI,
                                 src.plain ? src.header()->maskROI : nullptr);

        ReportCapture capture;
        if (op == Op::Copy) kuvCopy(src.header(), dst.header());
        if (op == Op::Exchange) kuvExchange(src.header(), dst.header());
        if (op == Op::Set)
            depth == KUV_DEPTH_32F ? kuvSetFP(dst.header(), fvalue) : kuvSet(dst.header(), value);
        for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
        EXPECT_TRUE(sameBytes(wantDst.get(), dst.pixels())) << "destination";
        EXPECT_TRUE(!src.plain || sameBytes(wantSrc.get(), src.pixels())) << "source";
        EXPECT_TRUE(masks.intact()) << "masks";
        for (const Snapshot& s : headers) {   // records and regions put back
            EXPECT_EQ(std::memcmp(&s.header, s.image, sizeof(KuvImage)), 0);
            EXPECT_TRUE(!s.hasRoi || std::memcmp(&s.roi, s.image->roi, sizeof(KuvROI)) == 0);
        }
        // The block walk cuts the rectangle by the tiled destination's grid, else the tiled
        // source's, and holds one tile of it at a time. (A masked bit copy and a swap of two
        // tiled images are composed of other calls.)
        Subject* grid = dst.store ? &dst : src.store ? &src : nullptr;
        const bool composed = (depth == KUV_DEPTH_1U && (srcMask || dst.plain->maskROI)) ||
                              (op == Op::Exchange && src.store && dst.store);
        if (grid && !composed) {
            const KuvROI* r = grid->header()->roi;
            const int x0 = r ? std::max(0, r->xOffset) : 0, y0 = r ? std::max(0, r->yOffset) : 0;
            const int mode = grid == &src && op == Op::Copy ? KUV_TILE_READ : KUV_TILE_WRITE;
            std::vector<Req> log;
            for (int row = y0 / grid->tileH; w > 0 && row <= (y0 + h - 1) / grid->tileH; ++row)
                for (int col = x0 / grid->tileW; col <= (x0 + w - 1) / grid->tileW; ++col)
                    log.insert(log.end(), {{col, row, mode}, {col, row, KUV_TILE_RELEASE}});
            EXPECT_EQ(grid->store->log(), log);
        }
        for (Subject* s : {&src, &dst})
            EXPECT_TRUE(!s->store || (s->store->held() == 0 && s->store->faults().empty()));
        if (::testing::Test::HasFailure()) return;
    }
    EXPECT_GT(changed, cases / 2);   // masks and regions empty some cases, not most
}

// Features allowed on each kernel path: none, all, AVX2 at most.
constexpr unsigned kPathFeatures[3] = {0u, ~0u, OWN_CPU_AVX2 | OWN_CPU_FMA};

TEST(CopyRandom, CopyOnEveryKernelPath) {
    for (int path : {0, 1, 2}) {   // baseline, the best level, AVX2 at most
        const FeatureLimit limit(kPathFeatures[path]);
        runRandomCases(Op::Copy, 1000 + path * 5000, 1000);
    }
}

TEST(CopyRandom, Exchange) { runRandomCases(Op::Exchange, 50000, 2000); }
TEST(CopyRandom, Set) { runRandomCases(Op::Set, 80000, 2000); }

// A channel split of 8-bit pixels at every width up to three vector blocks,
// on every kernel path, from a buffer that ends with the last row's last
// byte: under AddressSanitizer a read past what the row needs is caught.
TEST(CopyRandom, ChannelSplitKernelsReadNoBytePastTheRow) {
    for (int path : {0, 1, 2}) {
        const FeatureLimit limit(kPathFeatures[path]);
        for (int n = 2; n <= 4; ++n)
            for (int width = 1; width <= 100; ++width) {
                std::vector<char> exact(size_t(n * width * 2));
                for (size_t i = 0; i < exact.size(); ++i) exact[i] = char(i * 37 + width);
                ImagePtr src(kuvCreateImageHeader(n, 0, KUV_DEPTH_8U, "RGBA", "BGRA", 0, 0, 4,
                                                  width, 2, nullptr, nullptr, 0, nullptr));
                src->imageData = exact.data(), src->widthStep = n * width;
                src->imageSize = int32_t(exact.size());
                for (int c = 0; c < n; ++c) {
                    setRoi(src.get(), c + 1, 0, 0, width, 2);
                    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, width, 2), want = makeLike(dst.get());
                    for (int i = 0; i < 2 * width; ++i)
                        put(want.get(), i % width, i / width, 0, exact[size_t(i * n + c)] & 0xFF);
                    kuvCopy(src.get(), dst.get());
                    ASSERT_TRUE(sameBytes(want.get(), dst.get()))
                        << "path " << path << " n " << n << " width " << width << " channel " << c;
                }
                src->imageData = nullptr;
            }
    }
}

// ------------------------------------------------------------------ refusals

struct Want {
    KuvStatus status;
    const char *func, *context, *file = kFile;
};

// f leaves both images byte-identical and makes exactly these reports; the
// thread's status is the first one's.
void expectRefused(const KuvImage* a, const KuvImage* b, const std::function<void()>& f,
                   const std::vector<Want>& want) {
    const RefusalGuard guard(a, b);
    ReportCapture capture;
    f();
    EXPECT_EQ(capture.count(), want.size());
    for (size_t i = 0; i < std::min(want.size(), capture.count()); ++i) {
        const Want& x = want[i];
        EXPECT_TRUE(isReport(capture.reports()[i], x.status, x.func, x.context, x.file));
    }
    const bool kept = want.empty() || want[0].status == KUV_StsBacktrace;   // over no status
    EXPECT_EQ(kuvGetErrStatus(), kept ? 0 : want[0].status) << "thread status";
    EXPECT_TRUE(guard.intact());
}

TEST(CopyRefusals, EachRefusalAndEachSilentReturn) {
    ImagePtr u8 = makeImage(KUV_DEPTH_8U, 1, 4, 4), u8b = makeLike(u8.get());
    ImagePtr noData = makeImage(KUV_DEPTH_8U, 1, 4, 4), f32 = makeImage(KUV_DEPTH_32F, 1, 4, 4);
    char* data = std::exchange(noData->imageData, nullptr);   // neither pixels nor tiles
    fillRandom(u8.get(), 1);
    KuvImage *a = u8.get(), *b = u8b.get(), *bad = noData.get();
    auto call = [](bool copy, KuvImage* s, KuvImage* d) {
        return [=] { copy ? kuvCopy(s, d) : kuvExchange(s, d); };
    };
    const char* const incorrect = "Incorrect Image";
    expectRefused(a, b, call(true, nullptr, b), {{KUV_StsNullHeader, "kuvCopy", incorrect}});
    expectRefused(a, bad, call(true, a, bad), {{KUV_StsBadDataPointers, "kuvCopy", incorrect}});
    expectRefused(a, bad, call(false, bad, a),
                  {{KUV_StsBadDataPointers, "kuvExchange", incorrect}});
    expectRefused(a, f32.get(), [&] { kuvSet(nullptr, 1); },
                  {{KUV_StsNullHeader, "kuvSet", incorrect}});
    expectRefused(a, f32.get(), [&] { kuvSet(f32.get(), 1); },
                  {{KUV_StsBadDepth, "kuvSet", "You should use kuvSetFP for this image"}});
    expectRefused(a, b, [&] { kuvSetFP(nullptr, 1); }, {{-5, "kuvSetFP", "dstImage==0"}});
    expectRefused(a, b, [&] { kuvSetFP(a, 1); },
                  {{KUV_StsBadDepth, "kuvSetFP", "You should use kuvSet for this image"}});
    std::swap(f32->imageData, noData->imageData);   // a float header that kuvSet refuses
    expectRefused(
        f32.get(), b, [&] { kuvSetFP(f32.get(), 1); },
        {{KUV_StsBadDataPointers, "kuvSet", incorrect}, {KUV_StsBacktrace, "kuvSetFP", ""}});
    std::swap(f32->imageData, noData->imageData);
    noData->imageData = data;

    // Depth, origin and order are each reported, then the call stops.
    const char* texts[] = {"srcImage->depth != dstImage->depth",
                           "srcImage->origin != dstImage->origin",
                           "srcImage->dataOrder != dstImage->dataOrder"};
    ImagePtr rgb = makeImage(KUV_DEPTH_8U, 3, 4, 4), odd = makeImage(KUV_DEPTH_16U, 3, 4, 4, 1);
    ImagePtr rgba = makeImage(KUV_DEPTH_8U, 4, 4, 4);   // alpha not marked: 4 channels against 3
    odd->origin = KUV_ORIGIN_BOTTOM_LEFT;
    for (bool copy : {true, false}) {
        const char* func = copy ? "kuvCopy" : "kuvExchange";
        expectRefused(rgb.get(), odd.get(), call(copy, rgb.get(), odd.get()),
                      {{-5, func, texts[0]}, {-5, func, texts[1]}, {-5, func, texts[2]}});
        for (int t = 0; t < 3; ++t) {
            ImagePtr other = makeImage(t == 0 ? KUV_DEPTH_8S : KUV_DEPTH_8U, 3, 4, 4, t == 2);
            other->origin = t == 1;
            expectRefused(rgb.get(), other.get(), call(copy, rgb.get(), other.get()),
                          {{-5, func, texts[t]}});
        }
        expectRefused(rgba.get(), rgb.get(), call(copy, rgba.get(), rgb.get()),
                      {{-5, func, kChannels}});
    }

    // Silent returns: the same record; a region beyond the source; an image
    // whose only channel is alpha; a negative status left from before; two
    // masks with no common area.
    expectRefused(a, nullptr, [&] { kuvCopy(a, a), kuvExchange(a, a); }, {});
    ImagePtr beyond = copyImage(a), lone = makeImage(KUV_DEPTH_8U, 1, 4, 4, 0, 1);
    setRoi(beyond.get(), 0, 4, 0, 4, 4);
    expectRefused(beyond.get(), b, [&] { kuvCopy(beyond.get(), b), kuvExchange(beyond.get(), b); },
                  {});
    expectRefused(a, lone.get(), [&] { kuvCopy(a, lone.get()), kuvSet(lone.get(), 7); }, {});
    expectRefused(a, b,
                  [&] {
                      kuvSetErrStatus(-10), kuvCopy(a, b), kuvExchange(a, b);
                      EXPECT_EQ(kuvGetErrStatus(), -10);
                      kuvSetErrStatus(0);
                  },
                  {});
    ImagePtr ma = copyImage(a), mb = copyImage(b), mask = makeMask(4, 4, 1);
    setRoi(mask.get(), 0, 4, 0, 2, 2);
    attachMask(ma.get(), std::move(mask));
    attachMask(mb.get(), makeMask(4, 4, 1));
    expectRefused(ma.get(), mb.get(), [&] { kuvCopy(ma.get(), mb.get()); }, {});
    // Masks that kuvAnd cannot merge (one has its only channel marked as alpha): backtraced.
    attachMask(ma.get(), makeImage(KUV_DEPTH_1U, 1, 4, 4, KUV_DATA_ORDER_PIXEL, 1));
    expectRefused(ma.get(), mb.get(), call(false, ma.get(), mb.get()),
                  {{-5, "kuvAnd", "(nChSrcA != nChDst)", "kuvand"}, {-1, "kuvExchange", ""}});
}

// A failed request ends the walk at once with what was written kept; a fault
// inside a piece leaves a status, and the later pieces are walked empty.
TEST(CopyTiles, FailedRequestsAndFaultsInAPiece) {
    ImagePtr plain = makeImage(KUV_DEPTH_8U, 1, 32, 16), four = makeImage(KUV_DEPTH_8U, 4, 32, 16);
    fillRandom(plain.get(), 33);
    const char *write = "Error get tile to write", *read = "Error get tile to read";
    const struct {
        int srcTile, dstTile, fail;   // tile widths (0: untiled; 16 high); the grid's failed request
        std::vector<Want> want;
        std::vector<Req> grid;   // requests of the image whose grid is walked
        int held;                // tiles left held
    } rows[] = {
        {0, 16, 2, {{KUV_StsFailure, "kuvCopy", write}}, {{0, 0, 2}, {0, 0, 4}, {1, 0, 2}}, 0},
        {16, 0, 1, {{KUV_StsFailure, "kuvCopy", read}}, {{0, 0, 1}}, 0},
        {16, 0, 1, {{KUV_StsFailure, "kuvExchange", write}}, {{0, 0, 2}}, 0},
        {0, 16, 1, {{KUV_StsFailure, "kuvSet", write}}, {{0, 0, 2}}, 0},
        // Both tiled, the source's window cannot be had: the walk ends at once
        // and the destination's tile is not released.
        {16, 8, -1, {{KUV_StsBacktrace, "kuvCopy", ""}}, {{0, 0, 2}}, 1},
        // A fault inside a piece: the later pieces write nothing, but their
        // tiles are still requested and released.
        {0, 16, 0, {{-5, "kuvCopy", kChannels}}, {{0, 0, 2}, {0, 0, 4}, {1, 0, 2}, {1, 0, 4}}, 0},
        {16, 8, 0, {{-5, "kuvCopy", kChannels}, {KUV_StsBacktrace, "kuvCopy", ""}, {KUV_StsBacktrace, "kuvCopy", ""}, {KUV_StsBacktrace, "kuvCopy", ""}},
         {{0, 0, 2}, {0, 0, 4}, {1, 0, 2}, {1, 0, 4}, {2, 0, 2}, {2, 0, 4}, {3, 0, 2}, {3, 0, 4}}, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.want[0].func << " " << r.want[0].context << " " << r.srcTile);
        ImagePtr dstPlain = makeImage(KUV_DEPTH_8U, r.fail ? 1 : 3, 32, 16);
        TileStore src(r.srcTile ? copyImage(r.fail ? plain.get() : four.get()) : nullptr, r.srcTile, r.srcTile);
        TileStore dst(r.dstTile ? copyImage(dstPlain.get()) : nullptr, r.dstTile, 16);
        (r.fail < 0 || !r.dstTile ? src : dst).failRequest(std::abs(r.fail));
        KuvImage* s = r.srcTile ? src.image() : r.fail ? plain.get() : four.get();
        KuvImage* d = r.dstTile ? dst.image() : dstPlain.get();
        const char op = r.want[0].func[3];
        expectRefused(r.dstTile ? nullptr : d, nullptr,
                      [&] {
                          op == 'C' ? kuvCopy(s, d) : op == 'E' ? kuvExchange(s, d) : kuvSet(d, 5);
                      },
                      r.want);
        EXPECT_EQ((r.dstTile ? dst : src).log(), r.grid);
        EXPECT_EQ(src.held() + dst.held(), r.held);
        if (r.dstTile) {   // what the first piece wrote stays; the rest is untouched
            EXPECT_EQ(get(dst.backing(), 15, 15, 0), r.fail == 2 ? get(plain.get(), 15, 15, 0) : 0);
            EXPECT_EQ(get(dst.backing(), 16, 0, 0), 0.0);
        }
    }
}

}   // namespace

namespace {

// A piece's working header keeps the image's imageSize, so a tiled image
// whose imageSize is 0 fails the header check of every piece (which comes
// before the stop on a negative status); every tile still goes back.
TEST(CopyTiles, PiecesKeepTheImageSize) {
    ImagePtr plain = makeImage(KUV_DEPTH_8U, 1, 32, 16);
    fillRandom(plain.get(), 3);
    TileStore dst(makeLike(plain.get()), 16, 16);
    dst.image()->imageSize = 0;
    ReportCapture capture;
    kuvCopy(plain.get(), dst.image());
    ASSERT_EQ(capture.count(), 2u);
    for (const Report& r : capture.reports()) EXPECT_TRUE(isReport(r, KUV_StsBadImageSize, "kuvCopy", "Incorrect Image", "kuvsce"));
    EXPECT_EQ(dst.log(), (std::vector<Req>{{0, 0, 2}, {0, 0, 4}, {1, 0, 2}, {1, 0, 4}}));
    EXPECT_EQ(get(dst.backing(), 3, 3, 0), 0.0);
}

// Two records on one buffer, the destination one pixel to the right: every
// path copies top row first and left to right with no guard, so the first
// pixel of each row runs along it.
TEST(CopyOverlap, LeftToRightOnEveryPath) {
    for (int coi : {0, 2}) {
        SCOPED_TRACE(::testing::Message() << "coi " << coi);
        ImagePtr buffer = makeImage(KUV_DEPTH_8U, 3, 12, 3);
        fillRandom(buffer.get(), 9);
        ImagePtr want = copyImage(buffer.get());
        ImagePtr src(kuvCreateImageHeader(3, 0, KUV_DEPTH_8U, "RGB", "BGR", 0, 0, 4, 11, 3, nullptr, nullptr, 0, nullptr));
        ImagePtr dst(kuvCreateImageHeader(3, 0, KUV_DEPTH_8U, "RGB", "BGR", 0, 0, 4, 11, 3, nullptr, nullptr, 0, nullptr));
        for (KuvImage* im : {src.get(), dst.get()}) im->widthStep = buffer->widthStep, im->imageSize = buffer->imageSize;
        src->imageData = buffer->imageData, dst->imageData = buffer->imageData + 3;
        if (coi) setRoi(src.get(), coi, 0, 0, 11, 3), setRoi(dst.get(), coi, 0, 0, 11, 3);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 11; ++x)
                for (int c = coi ? coi - 1 : 0; c < (coi ? coi : 3); ++c) put(want.get(), x + 1, y, c, get(want.get(), x, y, c));
        ReportCapture capture;
        kuvCopy(src.get(), dst.get());
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(sameBytes(buffer.get(), want.get()));
        src->imageData = dst->imageData = nullptr;
    }
}

}   // namespace
