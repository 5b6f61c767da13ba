// kuvCopy, kuvExchange, kuvSet, kuvSetFP and the helpers of their frame.
//
// The random cases compare whole pixel buffers (padding included) with a
// reference written here from the rules: each image's region origin and
// channels to process (coi, alpha left out), the common extent of images and
// masks, the mask anchored at its own region, plane-major order when the
// source is in plane order. Each case prints its seed.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <sstream>

namespace {

using namespace kuvtest;

constexpr const char* kFile = "kuvsce";

// ------------------------------------------------------------------ reference

struct Side {
    bool nothing = false;  // an image whose only channel is its alpha channel
    int x0 = 0, y0 = 0;
    std::vector<int> channels;
};

Side sideOf(const KuvImage* image) {
    Side s;
    const KuvROI* roi = image->roi;
    if (roi != nullptr) {
        s.x0 = roi->xOffset;
        s.y0 = roi->yOffset;
    }
    const int coi = roi != nullptr ? roi->coi : 0;
    s.nothing = image->alphaChannel != 0 && roi == nullptr && image->nChannels == 1;
    if (coi > 0) {
        s.channels = {coi - 1};
    } else {
        const int n = image->nChannels - (image->alphaChannel != 0 ? 1 : 0);
        for (int c = 0; c < n; ++c) s.channels.push_back(c);
    }
    return s;
}

// The region cut at the image's edges; false when it is empty.
bool extentOf(const KuvImage* image, int* w, int* h) {
    if (image->roi == nullptr) {
        *w = image->width;
        *h = image->height;
        return true;
    }
    const KuvROI& r = *image->roi;
    if (r.xOffset >= image->width || r.yOffset >= image->height) return false;
    *w = std::min(r.width, image->width - r.xOffset);
    *h = std::min(r.height, image->height - r.yOffset);
    return *w > 0 && *h > 0;
}

bool maskBitAt(const KuvImage* mask, int x, int y) {
    const int mx = mask->roi != nullptr ? mask->roi->xOffset : 0;
    const int my = mask->roi != nullptr ? mask->roi->yOffset : 0;
    return get(mask, mx + x, my + y, 0) != 0.0;
}

enum class Op { Copy, Exchange };

// What kuvCopy or kuvExchange does to plain images a (source) and b
// (destination), masks given apart. Elements go in the walk's order: plane
// after plane when the source is in plane order, else pixel after pixel.
void reference(Op op, KuvImage* a, KuvImage* b, const KuvImage* maskA, const KuvImage* maskB) {
    const KuvImage* images[4] = {a, b, maskA, maskB};
    int w = INT_MAX, h = INT_MAX;
    for (const KuvImage* image : images) {
        if (image == nullptr) continue;
        int iw = 0, ih = 0;
        if (!extentOf(image, &iw, &ih)) return;
        w = std::min(w, iw);
        h = std::min(h, ih);
    }
    const Side sa = sideOf(a), sb = sideOf(b);
    if (sa.nothing || sb.nothing || sa.channels.size() != sb.channels.size()) return;
    auto selected = [&](int x, int y) {
        bool on = true;
        if (maskA != nullptr) on = on && maskBitAt(maskA, x, y);
        if (maskB != nullptr) on = on && maskBitAt(maskB, x, y);
        return on;
    };
    auto move = [&](int x, int y, size_t k) {
        const int ca = sa.channels[k], cb = sb.channels[k];
        const double va = get(a, sa.x0 + x, sa.y0 + y, ca);
        if (op == Op::Exchange) put(a, sa.x0 + x, sa.y0 + y, ca, get(b, sb.x0 + x, sb.y0 + y, cb));
        put(b, sb.x0 + x, sb.y0 + y, cb, va);
    };
    if (a->dataOrder == KUV_DATA_ORDER_PLANE) {
        for (size_t k = 0; k < sa.channels.size(); ++k) {
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x) {
                    if (selected(x, y)) move(x, y, k);
                }
            }
        }
    } else {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                if (!selected(x, y)) continue;
                for (size_t k = 0; k < sa.channels.size(); ++k) move(x, y, k);
            }
        }
    }
}

// What kuvSet does to a plain image.
void referenceSet(KuvImage* image, const KuvImage* mask, double value) {
    int w = 0, h = 0;
    if (!extentOf(image, &w, &h)) return;
    if (mask != nullptr) {
        int mw = 0, mh = 0;
        if (!extentOf(mask, &mw, &mh)) return;
        w = std::min(w, mw);
        h = std::min(h, mh);
    }
    const Side s = sideOf(image);
    if (s.nothing) return;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            if (mask != nullptr && !maskBitAt(mask, x, y)) continue;
            for (int c : s.channels) put(image, s.x0 + x, s.y0 + y, c, value);
        }
    }
}

double limited(uint32_t depth, int32_t value) {
    if (depth == KUV_DEPTH_32S) return value;
    return std::clamp<double>(value, depthMin(depth), depthMax(depth));
}

::testing::AssertionResult sameBytes(const KuvImage* expected, const KuvImage* actual) {
    if (expected->imageSize != actual->imageSize) {
        return ::testing::AssertionFailure() << "sizes differ";
    }
    const auto* e = reinterpret_cast<const uint8_t*>(expected->imageData);
    const auto* a = reinterpret_cast<const uint8_t*>(actual->imageData);
    for (int32_t i = 0; i < expected->imageSize; ++i) {
        if (e[i] != a[i]) {
            return ::testing::AssertionFailure()
                   << "byte " << i << " (row " << i / expected->widthStep << ") is " << int(a[i])
                   << ", expected " << int(e[i]);
        }
    }
    return ::testing::AssertionSuccess();
}

// ------------------------------------------------------------ random cases

// One image of a case: plain pixels with region and mask, and how to serve
// it tiled.
struct Subject {
    ImagePtr plain;
    int tileW = 0, tileH = 0;  // 0: untiled
    std::unique_ptr<TileStore> store;

    // The header that the operation receives.
    KuvImage* header() { return store ? store->image() : plain.get(); }
    // The pixels after the operation.
    const KuvImage* result() { return store ? store->backing() : plain.get(); }

    void serveTiled() {
        if (tileW == 0) return;
        ImagePtr backing = copyImage(plain.get());
        clearRoi(backing.get());
        store = std::make_unique<TileStore>(std::move(backing), tileW, tileH);
        KuvImage* t = store->image();
        if (const KuvROI* r = plain->roi)
            setRoi(t, r->coi, r->xOffset, r->yOffset, r->width, r->height);
        if (plain->maskROI != nullptr) attachMask(t, copyImage(plain->maskROI));
    }
};

std::string describe(const KuvImage* image) {
    std::ostringstream out;
    out << depthName(image->depth) << " x" << image->nChannels
        << (image->dataOrder ? " plane" : " pixel") << " alpha " << image->alphaChannel << " "
        << image->width << "x" << image->height;
    if (const KuvROI* r = image->roi) {
        out << " roi(" << r->coi << "; " << r->xOffset << "," << r->yOffset << " " << r->width
            << "x" << r->height << ")";
    }
    if (const KuvImage* m = image->maskROI) {
        out << " mask " << m->width << "x" << m->height;
        if (const KuvROI* r = m->roi) out << " at " << r->xOffset << "," << r->yOffset;
    }
    return out.str();
}

void randomRoi(Rng& rng, KuvImage* image, int coi, bool force) {
    if (!force && !rng.chance(0.7)) return;
    const int x = static_cast<int>(rng.uniform(0, std::min(9, image->width - 1)));
    const int y = static_cast<int>(rng.uniform(0, std::min(3, image->height - 1)));
    const int w = static_cast<int>(rng.uniform(1, image->width + 3));
    const int h = static_cast<int>(rng.uniform(1, image->height + 2));
    setRoi(image, coi, x, y, w, h);
}

void randomMask(Rng& rng, KuvImage* image, uint64_t seed) {
    const int w = static_cast<int>(rng.uniform(1, image->width + 10));
    const int h = static_cast<int>(rng.uniform(1, image->height + 3));
    ImagePtr mask = makeMask(w, h, 0);
    fillRandom(mask.get(), seed);
    if (rng.chance(0.5)) {
        const int x = static_cast<int>(rng.uniform(0, std::min(11, w - 1)));
        const int y = static_cast<int>(rng.uniform(0, std::min(2, h - 1)));
        setRoi(mask.get(), 0, x, y, w, h);
    }
    attachMask(image, std::move(mask));
}

// A pair of images that kuvCopy and kuvExchange accept, of one of the
// shapes of their channel rules.
void randomPair(Rng& rng, uint32_t depth, Subject* src, Subject* dst, uint64_t seed) {
    auto size = [&](int* w, int* h) {
        *w = static_cast<int>(rng.uniform(1, 37));
        *h = static_cast<int>(rng.uniform(1, 9));
    };
    int sw, sh, dw, dh;
    size(&sw, &sh);
    size(&dw, &dh);
    const int order = static_cast<int>(rng.uniform(0, 1));
    int sn = 1, dn = 1, sa = 0, da = 0, so = order, dor = order, sCoi = 0, dCoi = 0;
    const int kind = depth == KUV_DEPTH_1U ? static_cast<int>(rng.uniform(0, 1)) * 4
                                           : static_cast<int>(rng.uniform(0, 5));
    switch (kind) {
        case 0:  // the same channels on both sides, maybe with alpha
            sn = dn = static_cast<int>(rng.uniform(1, 4));
            if (sn > 1 && rng.chance(0.3)) sa = da = sn;
            break;
        case 1:  // a channel of interest into a one-channel image
            sn = static_cast<int>(rng.uniform(2, 4));
            sCoi = static_cast<int>(rng.uniform(1, sn));
            break;
        case 2:  // a one-channel image into a channel of interest
            dn = static_cast<int>(rng.uniform(2, 4));
            dCoi = static_cast<int>(rng.uniform(1, dn));
            break;
        case 3:  // channel of interest to channel of interest
            sn = static_cast<int>(rng.uniform(2, 4));
            dn = static_cast<int>(rng.uniform(2, 4));
            sCoi = static_cast<int>(rng.uniform(1, sn));
            dCoi = static_cast<int>(rng.uniform(1, dn));
            break;
        case 4:  // one channel each, data orders free
            so = static_cast<int>(rng.uniform(0, 1));
            dor = static_cast<int>(rng.uniform(0, 1));
            break;
        default:  // RGBA with alpha against RGB
            so = dor = KUV_DATA_ORDER_PIXEL;
            if (rng.chance(0.5)) {
                sn = sa = 4;
                dn = 3;
            } else {
                sn = 3;
                dn = da = 4;
            }
            break;
    }
    if (depth == KUV_DEPTH_1U) sn = dn = 1, sa = da = 0;
    src->plain = makeImage(depth, sn, sw, sh, so, sa, rng.chance(0.5) ? 4 : 8);
    dst->plain = makeImage(depth, dn, dw, dh, dor, da, rng.chance(0.5) ? 4 : 16);
    fillRandom(src->plain.get(), seed * 3 + 1);
    fillRandom(dst->plain.get(), seed * 3 + 2);
    randomRoi(rng, src->plain.get(), sCoi, sCoi != 0);
    randomRoi(rng, dst->plain.get(), dCoi, dCoi != 0);
    const int masks = static_cast<int>(rng.uniform(0, 5));  // none more often than each
    if (masks == 1 || masks == 3) randomMask(rng, src->plain.get(), seed * 3 + 3);
    if (masks == 2 || masks == 3) randomMask(rng, dst->plain.get(), seed * 3 + 4);
}

int randomTile(Rng& rng) { return 8 * static_cast<int>(rng.uniform(1, 3)); }

// tiling: 0 none, 1 source, 2 destination, 3 both, -1 random
void runRandomCases(Op op, int cases, uint64_t firstSeed, int tiling) {
    int changed = 0;  // cases whose destination the operation has to change
    for (int i = 0; i < cases; ++i) {
        const uint64_t seed = firstSeed + i;
        Rng rng(seed);
        const uint32_t depth = allDepths()[rng.uniform(0, 6)];
        Subject src, dst;
        randomPair(rng, depth, &src, &dst, seed);
        const int tiles = tiling >= 0 ? tiling : static_cast<int>(rng.uniform(0, 3));
        if (tiles & 1) {
            src.tileW = randomTile(rng);
            src.tileH = randomTile(rng);
        }
        if (tiles & 2) {
            dst.tileW = randomTile(rng);
            dst.tileH = randomTile(rng);
        }
        SCOPED_TRACE(
            "seed " + std::to_string(seed) + ": src " + describe(src.plain.get()) +
            (src.tileW ? " tiled " + std::to_string(src.tileW) + "x" + std::to_string(src.tileH)
                       : "") +
            "; dst " + describe(dst.plain.get()) +
            (dst.tileW ? " tiled " + std::to_string(dst.tileW) + "x" + std::to_string(dst.tileH)
                       : ""));

        ImagePtr expectSrc = copyImage(src.plain.get());
        ImagePtr expectDst = copyImage(dst.plain.get());
        reference(op, expectSrc.get(), expectDst.get(), src.plain->maskROI, dst.plain->maskROI);
        if (!sameBytes(expectDst.get(), dst.plain.get())) ++changed;
        src.serveTiled();
        dst.serveTiled();

        ReportCapture capture;
        if (op == Op::Copy)
            kuvCopy(src.header(), dst.header());
        else
            kuvExchange(src.header(), dst.header());
        for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
        EXPECT_TRUE(sameBytes(expectDst.get(), dst.result())) << "destination";
        EXPECT_TRUE(sameBytes(expectSrc.get(), src.result())) << "source";
        for (Subject* s : {&src, &dst}) {
            if (!s->store) continue;
            EXPECT_EQ(s->store->held(), 0);
            for (const std::string& f : s->store->faults()) ADD_FAILURE() << "tile store: " << f;
        }
        if (::testing::Test::HasFailure()) return;
    }
    // Masks and regions empty some cases; most must still move pixels.
    EXPECT_GT(changed, cases * 6 / 10);
}

TEST(CopyRandom, UntiledMatchesReference) { runRandomCases(Op::Copy, 1500, 1000, 0); }

TEST(CopyRandom, BaselineAndVectorKernelsAgree) {
    // The strided kernels on both instruction sets; the reference decides.
    ownCopySelectPath(0);
    runRandomCases(Op::Copy, 600, 5000, 0);
    ownCopySelectPath(1);
    runRandomCases(Op::Copy, 600, 5000, 0);
    ownCopySelectPath(-1);
}

// A channel split of 8-bit pixels at every width up to three vector blocks,
// on both instruction sets, from a buffer that ends with the last row's last
// byte: under AddressSanitizer a read past what the row needs is caught.
TEST(CopyRandom, ChannelSplitKernelsAtOddWidths) {
    for (int path : {0, 1}) {
        ownCopySelectPath(path);
        for (int n : {3, 4}) {
            for (int width = 1; width <= 100; ++width) {
                const int height = 2;
                std::vector<uint8_t> exact(static_cast<size_t>(n * width * height));
                for (size_t i = 0; i < exact.size(); ++i)
                    exact[i] = static_cast<uint8_t>(i * 37 + width);
                ImagePtr src(kuvCreateImageHeader(n, 0, KUV_DEPTH_8U, "RGBA", "BGRA", 0, 0, 4,
                                                  width, height, nullptr, nullptr, 0, nullptr));
                src->imageData = reinterpret_cast<char*>(exact.data());
                src->widthStep = n * width;
                src->imageSize = static_cast<int32_t>(exact.size());
                for (int c = 1; c <= n; ++c) {
                    setRoi(src.get(), c, 0, 0, width, height);
                    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, width, height);
                    ImagePtr expect = copyImage(dst.get());
                    reference(Op::Copy, src.get(), expect.get(), nullptr, nullptr);
                    ReportCapture capture;
                    kuvCopy(src.get(), dst.get());
                    EXPECT_EQ(capture.count(), 0u);
                    ASSERT_TRUE(sameBytes(expect.get(), dst.get()))
                        << "path " << path << " n " << n << " width " << width << " coi " << c;
                }
                src->imageData = nullptr;
            }
        }
    }
    ownCopySelectPath(-1);
}

TEST(CopyRandom, TiledSourceMatchesUntiled) { runRandomCases(Op::Copy, 300, 20000, 1); }
TEST(CopyRandom, TiledDestinationMatchesUntiled) { runRandomCases(Op::Copy, 300, 30000, 2); }
TEST(CopyRandom, BothTiledMatchesUntiled) { runRandomCases(Op::Copy, 300, 40000, 3); }

TEST(ExchangeRandom, UntiledMatchesReference) { runRandomCases(Op::Exchange, 1200, 50000, 0); }
TEST(ExchangeRandom, OneSideTiledMatchesUntiled) {
    runRandomCases(Op::Exchange, 250, 60000, 1);
    runRandomCases(Op::Exchange, 250, 61000, 2);
}
TEST(ExchangeRandom, BothTiledMatchesUntiled) { runRandomCases(Op::Exchange, 300, 70000, 3); }

TEST(SetRandom, MatchesReference) {
    for (int i = 0; i < 1200; ++i) {
        const uint64_t seed = 80000 + i;
        Rng rng(seed);
        const uint32_t depth = allDepths()[rng.uniform(0, 5)];  // all but 32F
        const int n = depth == KUV_DEPTH_1U ? 1 : static_cast<int>(rng.uniform(1, 4));
        const int alpha = n > 1 && rng.chance(0.3) ? n : 0;
        Subject dst;
        dst.plain = makeImage(depth, n, static_cast<int>(rng.uniform(1, 37)),
                              static_cast<int>(rng.uniform(1, 9)),
                              static_cast<int>(rng.uniform(0, 1)), alpha);
        fillRandom(dst.plain.get(), seed);
        const int coi = rng.chance(0.3) ? static_cast<int>(rng.uniform(1, n)) : 0;
        randomRoi(rng, dst.plain.get(), coi, coi != 0);
        if (rng.chance(0.4)) randomMask(rng, dst.plain.get(), seed + 7);
        if (rng.chance(0.3)) {
            dst.tileW = randomTile(rng);
            dst.tileH = randomTile(rng);
        }
        const int32_t value = static_cast<int32_t>(rng.next());
        SCOPED_TRACE("seed " + std::to_string(seed) + ": " + describe(dst.plain.get()) + " value " +
                     std::to_string(value) + (dst.tileW ? " tiled" : ""));
        ImagePtr expect = copyImage(dst.plain.get());
        referenceSet(expect.get(), dst.plain->maskROI, limited(depth, value));
        dst.serveTiled();
        ImagePtr maskBefore = dst.header()->maskROI ? copyImage(dst.header()->maskROI) : nullptr;

        ReportCapture capture;
        kuvSet(dst.header(), value);
        for (const Report& r : capture.reports()) ADD_FAILURE() << "unexpected report " << r;
        EXPECT_TRUE(sameBytes(expect.get(), dst.result()));
        if (maskBefore)
            EXPECT_TRUE(sameBytes(maskBefore.get(), dst.header()->maskROI)) << "mask changed";
        if (dst.store) {
            EXPECT_EQ(dst.store->held(), 0);
            for (const std::string& f : dst.store->faults()) ADD_FAILURE() << "tile store: " << f;
        }
        if (::testing::Test::HasFailure()) return;
    }
}

// ------------------------------------------------------------------ bit images

TEST(CopyBits, EveryOffsetToEveryOffset) {
    for (int a = 0; a < 8; ++a) {
        for (int b = 0; b < 8; ++b) {
            for (int width : {1, 3, 8, 9, 17, 64, 75}) {
                SCOPED_TRACE(std::to_string(a) + " -> " + std::to_string(b) + " width " +
                             std::to_string(width));
                ImagePtr src = makeImage(KUV_DEPTH_1U, 1, 90, 3);
                ImagePtr dst = makeImage(KUV_DEPTH_1U, 1, 91, 4);
                fillRandom(src.get(), a * 100 + b);
                fillRandom(dst.get(), a * 100 + b + 50);
                setRoi(src.get(), 0, a, 1, width, 2);
                setRoi(dst.get(), 0, b, 2, width, 5);
                ImagePtr expectS = copyImage(src.get()), expectD = copyImage(dst.get());
                reference(Op::Copy, expectS.get(), expectD.get(), nullptr, nullptr);
                ReportCapture capture;
                kuvCopy(src.get(), dst.get());
                EXPECT_EQ(capture.count(), 0u);
                EXPECT_TRUE(sameBytes(expectD.get(), dst.get()));
                EXPECT_TRUE(sameBytes(expectS.get(), src.get()));

                // The same regions exchanged.
                ImagePtr beforeS = copyImage(src.get()), beforeD = copyImage(dst.get());
                reference(Op::Exchange, beforeS.get(), beforeD.get(), nullptr, nullptr);
                kuvExchange(src.get(), dst.get());
                EXPECT_EQ(capture.count(), 0u);
                EXPECT_TRUE(sameBytes(beforeD.get(), dst.get()));
                EXPECT_TRUE(sameBytes(beforeS.get(), src.get()));
                if (::testing::Test::HasFailure()) return;
            }
        }
    }
}

TEST(CopyBits, MaskedCopyIsComposedAndPutsTheRecordsBack) {
    for (int a = 0; a < 8; ++a) {
        ImagePtr src = makeImage(KUV_DEPTH_1U, 1, 40, 3);
        ImagePtr dst = makeImage(KUV_DEPTH_1U, 1, 40, 3);
        fillRandom(src.get(), 1 + a);
        fillRandom(dst.get(), 2 + a);
        setRoi(src.get(), 0, a, 0, 30, 3);
        setRoi(dst.get(), 0, 7 - a, 0, 30, 3);
        ImagePtr mask = makeMask(33, 3);
        fillRandom(mask.get(), 3 + a);
        setRoi(mask.get(), 0, (a * 3) % 8, 0, 30, 3);
        attachMask(dst.get(), std::move(mask));
        const KuvImage* maskRecord = dst->maskROI;
        ImagePtr maskBefore = copyImage(maskRecord);
        ImagePtr expectD = copyImage(dst.get()), expectS = copyImage(src.get());
        reference(Op::Copy, expectS.get(), expectD.get(), nullptr, maskRecord);

        ReportCapture capture;
        kuvCopy(src.get(), dst.get());
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(sameBytes(expectD.get(), dst.get()));
        EXPECT_TRUE(sameBytes(expectS.get(), src.get()));
        EXPECT_EQ(dst->maskROI, maskRecord);
        EXPECT_EQ(src->maskROI, nullptr);
        EXPECT_TRUE(sameBytes(maskBefore.get(), maskRecord));
    }
}

TEST(SetBits, MaskedFillKeepsTheMask) {
    for (int value : {0, 1, 2, 3}) {
        ImagePtr dst = makeImage(KUV_DEPTH_1U, 1, 30, 4);
        fillRandom(dst.get(), 9);
        setRoi(dst.get(), 0, 5, 1, 20, 3);
        ImagePtr mask = makeMask(26, 4);
        fillRandom(mask.get(), 10);
        setRoi(mask.get(), 0, 3, 0, 22, 4);
        attachMask(dst.get(), std::move(mask));
        ImagePtr maskBefore = copyImage(dst->maskROI);
        ImagePtr expect = copyImage(dst.get());
        // Bit images take bit 0 of the limited value: 2 limits to 1.
        referenceSet(expect.get(), dst->maskROI, value == 0 ? 0 : 1);
        ReportCapture capture;
        kuvSet(dst.get(), value);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(sameBytes(expect.get(), dst.get())) << "value " << value;
        EXPECT_TRUE(sameBytes(maskBefore.get(), dst->maskROI)) << "value " << value;
    }
}

TEST(SetBits, RowsFromAnyOffsetKeepTheirNeighbours) {
    for (int x = 0; x < 8; ++x) {
        for (int width : {1, 2, 7, 8, 9, 30}) {
            ImagePtr dst = makeImage(KUV_DEPTH_1U, 1, 48, 2);
            fillRandom(dst.get(), x * 31 + width);
            setRoi(dst.get(), 0, x, 1, width, 1);
            ImagePtr expect = copyImage(dst.get());
            referenceSet(expect.get(), nullptr, 1);
            kuvSet(dst.get(), 1);
            EXPECT_TRUE(sameBytes(expect.get(), dst.get())) << x << " " << width;
            referenceSet(expect.get(), nullptr, 0);
            kuvSet(dst.get(), 0);
            EXPECT_TRUE(sameBytes(expect.get(), dst.get())) << x << " " << width;
        }
    }
}

// ------------------------------------------------------------- channel rules

TEST(CopyChannels, ChannelOfInterestIntoOneChannel) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 5, 2);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 5, 2);
    fillRandom(src.get(), 4);
    setRoi(src.get(), 2, 0, 0, 5, 2);
    kuvCopy(src.get(), dst.get());
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 5; ++x) EXPECT_EQ(get(dst.get(), x, y, 0), get(src.get(), x, y, 1));
    }
}

TEST(CopyChannels, ChannelOfInterestIntoAChosenChannelOfFour) {
    ImagePtr src = makeImage(KUV_DEPTH_16S, 3, 6, 3);
    ImagePtr dst = makeImage(KUV_DEPTH_16S, 4, 6, 3);
    fillRandom(src.get(), 5);
    fillRandom(dst.get(), 6);
    setRoi(src.get(), 3, 0, 0, 6, 3);
    setRoi(dst.get(), 2, 0, 0, 6, 3);
    const Snapshot before = snapshot(dst.get());
    kuvCopy(src.get(), dst.get());
    for (int y = 0; y < 3; ++y) {
        for (int x = 0; x < 6; ++x)
            EXPECT_EQ(getBits(dst.get(), x, y, 1), getBits(src.get(), x, y, 2));
    }
    expectUnchangedExcept(before, dst.get(), [](int, int, int c) { return c == 1; });
}

TEST(CopyChannels, RgbaWithAlphaToRgbCopiesThree) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 4, 7, 2, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 3, 7, 2);
    fillRandom(src.get(), 7);
    ReportCapture capture;
    kuvCopy(src.get(), dst.get());
    EXPECT_EQ(capture.count(), 0u);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 7; ++x) {
            for (int c = 0; c < 3; ++c) EXPECT_EQ(get(dst.get(), x, y, c), get(src.get(), x, y, c));
        }
    }
}

TEST(CopyChannels, AlphaOfTheDestinationStays) {
    ImagePtr src = makeImage(KUV_DEPTH_32F, 4, 7, 2, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_32F, 4, 7, 2, KUV_DATA_ORDER_PIXEL, 4);
    fillRandom(src.get(), 8);
    fillRandom(dst.get(), 9);
    const Snapshot before = snapshot(dst.get());
    kuvCopy(src.get(), dst.get());
    expectUnchangedExcept(before, dst.get(), [](int, int, int c) { return c != 3; });
    EXPECT_EQ(getBits(dst.get(), 6, 1, 2), getBits(src.get(), 6, 1, 2));
}

TEST(CopyChannels, RgbaWithoutAlphaToRgbIsRefused) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 4, 7, 2);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 3, 7, 2);
    fillRandom(src.get(), 10);
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvCopy(src.get(), dst.get());
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvCopy",
                          "Number of processed channels of srcImage != Number of processed "
                          "channels of dstImage",
                          kFile));
    EXPECT_TRUE(guard.intact());
}

TEST(CopyChannels, AnAlphaOnlyImageIsNeitherCopiedNorSet) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 4, 4, KUV_DATA_ORDER_PIXEL, 1);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 4, 4, KUV_DATA_ORDER_PIXEL, 1);
    fillRandom(src.get(), 12);
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvCopy(src.get(), dst.get());
    kuvSet(dst.get(), 77);
    kuvExchange(src.get(), dst.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(guard.intact());
}

TEST(CopyChannels, PlaneOrderCopiesEachPlane) {
    ImagePtr src = makeImage(KUV_DEPTH_32S, 3, 5, 4, KUV_DATA_ORDER_PLANE);
    ImagePtr dst = makeImage(KUV_DEPTH_32S, 3, 6, 5, KUV_DATA_ORDER_PLANE);
    fillRandom(src.get(), 13);
    fillRandom(dst.get(), 14);
    setRoi(dst.get(), 0, 1, 1, 5, 4);
    const Snapshot before = snapshot(dst.get());
    kuvCopy(src.get(), dst.get());
    expectUnchangedExcept(before, dst.get(), [](int x, int y, int) { return x >= 1 && y >= 1; });
    for (int c = 0; c < 3; ++c) EXPECT_EQ(getBits(dst.get(), 5, 4, c), getBits(src.get(), 4, 3, c));
}

// ---------------------------------------------------------------- regions

TEST(CopyRegions, SameRecordDoesNothing) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 8, 8);
    fillRandom(image.get(), 15);
    setRoi(image.get(), 0, 1, 1, 3, 3);
    RefusalGuard guard(image.get());
    ReportCapture capture;
    kuvCopy(image.get(), image.get());
    kuvExchange(image.get(), image.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(guard.intact());
}

// Two headers over one buffer: a header of the same fields whose pixels are
// another's, freed without them.
ImagePtr viewOf(const KuvImage* image) {
    ImagePtr view(kuvCreateImageHeader(image->nChannels, image->alphaChannel, image->depth, "GRAY",
                                       "G\0\0\0", image->dataOrder, image->origin, image->align,
                                       image->width, image->height, nullptr, nullptr, 0, nullptr));
    view->imageData = image->imageData;
    return view;
}

TEST(CopyRegions, OneBufferIsCopiedTopRowFirst) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 1, 12, 6);  // rows without padding
    fillRandom(image.get(), 16);
    ImagePtr view = viewOf(image.get());
    setRoi(image.get(), 0, 0, 0, 12, 5);
    setRoi(view.get(), 0, 0, 1, 12, 5);
    ImagePtr expect = copyImage(image.get());
    // Row 0 moves to row 1, which then moves to row 2, and so on.
    for (int y = 1; y < 6; ++y) {
        for (int x = 0; x < 12; ++x) put(expect.get(), x, y, 0, get(image.get(), x, 0, 0));
    }
    kuvCopy(image.get(), view.get());
    EXPECT_TRUE(sameBytes(expect.get(), image.get()));
}

TEST(CopyRegions, RegionBeyondTheSourceDoesNothing) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 8, 8);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 8, 8);
    fillRandom(src.get(), 17);
    setRoi(src.get(), 0, 8, 0, 4, 4);
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvCopy(src.get(), dst.get());
    kuvExchange(src.get(), dst.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(guard.intact());
}

TEST(ExchangeRegions, DifferentHeightsSwapTheSmallerRectangle) {
    ImagePtr a = makeImage(KUV_DEPTH_8S, 2, 6, 6);
    ImagePtr b = makeImage(KUV_DEPTH_8S, 2, 6, 6);
    fillRandom(a.get(), 18);
    fillRandom(b.get(), 19);
    setRoi(a.get(), 0, 1, 0, 4, 5);
    setRoi(b.get(), 0, 0, 2, 5, 2);
    ImagePtr originalA = copyImage(a.get());
    ImagePtr ea = copyImage(a.get()), eb = copyImage(b.get());
    reference(Op::Exchange, ea.get(), eb.get(), nullptr, nullptr);
    kuvExchange(a.get(), b.get());
    EXPECT_TRUE(sameBytes(ea.get(), a.get()));
    EXPECT_TRUE(sameBytes(eb.get(), b.get()));
    // One element by hand: row 1 of the rectangle is b's row 3 and a's row 1.
    EXPECT_EQ(get(b.get(), 3, 3, 1), get(originalA.get(), 4, 1, 1));
}

TEST(ExchangeRegions, OverlappingRegionsOfOneBuffer) {
    const int shifts[][2] = {{1, 0}, {0, 1}, {2, 1}, {-1, 0}, {-3, -1}};
    for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
        for (uint32_t depth : {KUV_DEPTH_8U, KUV_DEPTH_16S, KUV_DEPTH_32F}) {
            for (const auto& s : shifts) {
                for (int n : {1, 3}) {
                    SCOPED_TRACE(depthName(depth) + " order " + std::to_string(order) + " n " +
                                 std::to_string(n) + " shift " + std::to_string(s[0]) + "," +
                                 std::to_string(s[1]));
                    ImagePtr image = makeImage(depth, n, 13, 7, order);
                    fillRandom(image.get(), 20);
                    ImagePtr view = viewOf(image.get());
                    setRoi(image.get(), 0, 4, 3, 6, 3);
                    setRoi(view.get(), 0, 4 + s[0], 3 + s[1], 6, 3);
                    ImagePtr expect = copyImage(image.get());
                    ImagePtr expectView = copyImage(view.get());
                    // One buffer: the reference runs on one image with two regions.
                    KuvImage alias = *expect;
                    KuvROI aliasRoi = *view->roi;
                    alias.roi = &aliasRoi;
                    reference(Op::Exchange, expect.get(), &alias, nullptr, nullptr);
                    kuvExchange(image.get(), view.get());
                    EXPECT_TRUE(sameBytes(expect.get(), image.get()));
                }
            }
        }
    }
}

TEST(ExchangeMasks, OnlyWhereTheBitIsSetInBothImages) {
    ImagePtr a = makeImage(KUV_DEPTH_16U, 3, 9, 4);
    ImagePtr b = makeImage(KUV_DEPTH_16U, 3, 9, 4);
    fillRandom(a.get(), 21);
    fillRandom(b.get(), 22);
    ImagePtr mask = makeMask(9, 4, 0);
    put(mask.get(), 0, 0, 0, 1);
    put(mask.get(), 8, 3, 0, 1);
    attachMask(b.get(), std::move(mask));
    const Snapshot sa = snapshot(a.get()), sb = snapshot(b.get());
    ImagePtr ea = copyImage(a.get()), eb = copyImage(b.get());
    kuvExchange(a.get(), b.get());
    auto chosen = [](int x, int y, int) { return (x == 0 && y == 0) || (x == 8 && y == 3); };
    expectUnchangedExcept(sa, a.get(), chosen);
    expectUnchangedExcept(sb, b.get(), chosen);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(getBits(a.get(), 8, 3, c), getBits(eb.get(), 8, 3, c));
        EXPECT_EQ(getBits(b.get(), 0, 0, c), getBits(ea.get(), 0, 0, c));
    }
}

// -------------------------------------------------------------- refusals

TEST(CopyRefusals, HeaderFaults) {
    ImagePtr good = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ImagePtr bad = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    char* data = bad->imageData;
    bad->imageData = nullptr;  // neither pixels nor tiles
    {
        ReportCapture capture;
        kuvCopy(nullptr, good.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsNullHeader, "kuvCopy", "Incorrect Image", kFile));
    }
    {
        RefusalGuard guard(good.get());
        ReportCapture capture;
        kuvCopy(good.get(), bad.get());
        EXPECT_TRUE(
            oneReport(capture, KUV_StsBadDataPointers, "kuvCopy", "Incorrect Image", kFile));
        EXPECT_TRUE(guard.intact());
    }
    {
        ReportCapture capture;
        kuvExchange(bad.get(), good.get());
        EXPECT_TRUE(
            oneReport(capture, KUV_StsBadDataPointers, "kuvExchange", "Incorrect Image", kFile));
    }
    bad->imageData = data;
}

TEST(CopyRefusals, TheThreeTestsReportAndGoOnThenStop) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 4, 4, KUV_DATA_ORDER_PIXEL);
    ImagePtr dst = makeImage(KUV_DEPTH_16U, 3, 4, 4, KUV_DATA_ORDER_PLANE);
    dst->origin = KUV_ORIGIN_BOTTOM_LEFT;
    fillRandom(src.get(), 23);
    for (const char* func : {"kuvCopy", "kuvExchange"}) {
        RefusalGuard guard(src.get(), dst.get());
        ReportCapture capture;
        if (std::string(func) == "kuvCopy")
            kuvCopy(src.get(), dst.get());
        else
            kuvExchange(src.get(), dst.get());
        ASSERT_EQ(capture.count(), 3u) << func;
        EXPECT_TRUE(isReport(capture.reports()[0], KUV_StsBadArgument, func,
                             "srcImage->depth != dstImage->depth", kFile));
        EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBadArgument, func,
                             "srcImage->origin != dstImage->origin", kFile));
        EXPECT_TRUE(isReport(capture.reports()[2], KUV_StsBadArgument, func,
                             "srcImage->dataOrder != dstImage->dataOrder", kFile));
        EXPECT_TRUE(guard.intact());
    }
}

TEST(CopyRefusals, EachTestAlone) {
    struct Case {
        uint32_t srcDepth, dstDepth;
        int srcOrder, dstOrder, dstOrigin, nChannels;
        const char* context;  // null: accepted
    };
    const Case cases[] = {
        {KUV_DEPTH_8U, KUV_DEPTH_8S, 0, 0, 0, 3, "srcImage->depth != dstImage->depth"},
        {KUV_DEPTH_8U, KUV_DEPTH_8U, 0, 0, 1, 3, "srcImage->origin != dstImage->origin"},
        {KUV_DEPTH_8U, KUV_DEPTH_8U, 0, 1, 0, 3, "srcImage->dataOrder != dstImage->dataOrder"},
        {KUV_DEPTH_8U, KUV_DEPTH_8U, 1, 0, 0, 1, nullptr},  // both one channel
        {KUV_DEPTH_1U, KUV_DEPTH_1U, 0, 1, 0, 1, nullptr},  // bit images
    };
    for (const Case& c : cases) {
        ImagePtr src = makeImage(c.srcDepth, c.nChannels, 6, 3, c.srcOrder);
        ImagePtr dst = makeImage(c.dstDepth, c.nChannels, 6, 3, c.dstOrder);
        dst->origin = c.dstOrigin;
        fillRandom(src.get(), 24);
        RefusalGuard guard(src.get(), dst.get());
        ReportCapture capture;
        kuvCopy(src.get(), dst.get());
        if (c.context != nullptr) {
            EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvCopy", c.context, kFile));
            EXPECT_TRUE(guard.intact());
        } else {
            EXPECT_EQ(capture.count(), 0u);
            EXPECT_EQ(get(dst.get(), 5, 2, 0), get(src.get(), 5, 2, 0));
        }
    }
}

TEST(CopyRefusals, ANegativeStatusFromBeforeStopsSilently) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    fillRandom(src.get(), 25);
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadROISize);
    kuvCopy(src.get(), dst.get());
    kuvExchange(src.get(), dst.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadROISize);
    EXPECT_TRUE(guard.intact());
    // A fill does not look at the status.
    kuvSet(dst.get(), 3);
    EXPECT_EQ(get(dst.get(), 3, 3, 0), 3.0);
}

TEST(CopyRefusals, ChannelTextOfExchange) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 4, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvExchange(src.get(), dst.get());
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvExchange",
                          "Number of processed channels of srcImage != Number of processed "
                          "channels of dstImage",
                          kFile));
    EXPECT_TRUE(guard.intact());
}

// Masks that kuvAnd cannot merge: the source's mask has its only channel
// marked as alpha, so that the AND finds no channel to process.
struct UnmergeableMasks {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 6, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 6, 4);  // and channels that differ
    UnmergeableMasks() {
        fillRandom(src.get(), 26);
        ImagePtr a = makeImage(KUV_DEPTH_1U, 1, 6, 4, KUV_DATA_ORDER_PIXEL, 1);
        std::memset(a->imageData, 0xFF, static_cast<size_t>(a->imageSize));
        attachMask(src.get(), std::move(a));
        attachMask(dst.get(), makeMask(6, 4, 1));
    }
};

KuvStatus answerZero(KuvStatus status, const char* func, const char* context, const char* file,
                     int32_t line);
std::vector<Report>* zeroSink = nullptr;
KuvStatus answerZero(KuvStatus status, const char* func, const char* context, const char* file,
                     int32_t line) {
    zeroSink->push_back(Report{status, func, context, file, line});
    return 0;
}

TEST(CopyMasks, AFailedMergeIsBacktracedAndStops) {
    UnmergeableMasks m;
    RefusalGuard guard(m.src.get(), m.dst.get());
    ReportCapture capture;
    kuvCopy(m.src.get(), m.dst.get());
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_TRUE(isReport(capture.reports()[0], KUV_StsBadArgument, "kuvAnd", "(nChSrcA != nChDst)",
                         "kuvand"));
    EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvCopy", "", kFile));
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadArgument);
    EXPECT_TRUE(guard.intact());
}

TEST(CopyMasks, AHandlerAnsweringZeroLetsTheCallGoOn) {
    UnmergeableMasks m;
    ReportCapture capture;
    std::vector<Report> reports;
    zeroSink = &reports;
    const KuvErrorCallBack previous = kuvRedirectError(&answerZero);
    kuvExchange(m.src.get(), m.dst.get());
    kuvRedirectError(previous);
    // Past the merge the call reaches its channel test.
    ASSERT_EQ(reports.size(), 3u);
    EXPECT_TRUE(isReport(reports[1], KUV_StsBacktrace, "kuvExchange", "", kFile));
    EXPECT_TRUE(isReport(reports[2], KUV_StsBadArgument, "kuvExchange",
                         "Number of processed channels of srcImage != Number of processed "
                         "channels of dstImage",
                         kFile));
}

TEST(CopyMasks, SourceMaskAloneOrBothMasksMerged) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 10, 3);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 10, 3);
    fillRandom(src.get(), 27);
    ImagePtr ms = makeMask(10, 3, 1);
    put(ms.get(), 2, 1, 0, 0);
    attachMask(src.get(), std::move(ms));
    const Snapshot before = snapshot(dst.get());
    kuvCopy(src.get(), dst.get());
    expectUnchangedExcept(before, dst.get(), [](int x, int y, int) { return !(x == 2 && y == 1); });
    EXPECT_EQ(get(dst.get(), 2, 1, 0), 0.0);
    EXPECT_EQ(get(dst.get(), 3, 1, 0), get(src.get(), 3, 1, 0));

    // Both: the AND of the two, each from its own region.
    ImagePtr md = makeMask(12, 3, 1);
    setRoi(md.get(), 0, 2, 0, 10, 3);
    put(md.get(), 2 + 7, 2, 0, 0);
    attachMask(dst.get(), std::move(md));
    std::memset(dst->imageData, 0, static_cast<size_t>(dst->imageSize));
    const long blocks = outstandingBlocks();
    kuvCopy(src.get(), dst.get());
    EXPECT_EQ(outstandingBlocks(), blocks);
    EXPECT_EQ(get(dst.get(), 2, 1, 0), 0.0);
    EXPECT_EQ(get(dst.get(), 7, 2, 0), 0.0);
    EXPECT_EQ(get(dst.get(), 9, 2, 0), get(src.get(), 9, 2, 0));
}

TEST(CopyMasks, MasksWithNoCommonAreaEndSilently) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 1, 6, 3);
    ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 6, 3);
    fillRandom(src.get(), 28);
    ImagePtr ms = makeMask(6, 3, 1);
    setRoi(ms.get(), 0, 6, 0, 2, 2);  // beyond its image
    attachMask(src.get(), std::move(ms));
    attachMask(dst.get(), makeMask(6, 3, 1));
    RefusalGuard guard(src.get(), dst.get());
    ReportCapture capture;
    kuvCopy(src.get(), dst.get());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(guard.intact());
}

TEST(SetRefusals, Texts) {
    {
        ReportCapture capture;
        kuvSet(nullptr, 1);
        EXPECT_TRUE(oneReport(capture, KUV_StsNullHeader, "kuvSet", "Incorrect Image", kFile));
    }
    ImagePtr f = makeImage(KUV_DEPTH_32F, 1, 4, 4);
    ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 4, 4);
    {
        RefusalGuard guard(f.get());
        ReportCapture capture;
        kuvSet(f.get(), 1);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadDepth, "kuvSet",
                              "You should use kuvSetFP for this image", kFile));
        EXPECT_TRUE(guard.intact());
    }
    {
        ReportCapture capture;
        kuvSetFP(nullptr, 1.0f);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvSetFP", "dstImage==0", kFile));
    }
    {
        RefusalGuard guard(b.get());
        ReportCapture capture;
        kuvSetFP(b.get(), 1.0f);
        EXPECT_TRUE(oneReport(capture, KUV_StsBadDepth, "kuvSetFP",
                              "You should use kuvSet for this image", kFile));
        EXPECT_EQ(kuvGetErrStatus(), -17);
        EXPECT_TRUE(guard.intact());
    }
    {
        // A header that kuvSet refuses: its report, then the backtrace, and
        // the depth put back.
        char* data = f->imageData;
        f->imageData = nullptr;
        ReportCapture capture;
        kuvSetFP(f.get(), 1.0f);
        ASSERT_EQ(capture.count(), 2u);
        EXPECT_TRUE(isReport(capture.reports()[0], KUV_StsBadDataPointers, "kuvSet",
                             "Incorrect Image", kFile));
        EXPECT_TRUE(isReport(capture.reports()[1], KUV_StsBacktrace, "kuvSetFP", "", kFile));
        EXPECT_EQ(f->depth, KUV_DEPTH_32F);
        f->imageData = data;
    }
}

TEST(SetValues, LimitedByDepth) {
    struct Case {
        uint32_t depth;
        int32_t value;
        double expect;
    };
    const Case cases[] = {
        {KUV_DEPTH_8U, 300, 255},
        {KUV_DEPTH_8U, -1, 0},
        {KUV_DEPTH_8S, 300, 127},
        {KUV_DEPTH_8S, -300, -128},
        {KUV_DEPTH_16U, 70000, 65535},
        {KUV_DEPTH_16U, -5, 0},
        {KUV_DEPTH_16S, 40000, 32767},
        {KUV_DEPTH_16S, -40000, -32768},
        {KUV_DEPTH_32S, INT32_MIN, INT32_MIN},
        {KUV_DEPTH_1U, 2, 1},
        {KUV_DEPTH_1U, -7, 0},
    };
    for (const Case& c : cases) {
        ImagePtr image = makeImage(c.depth, 1, 5, 2);
        ReportCapture capture;
        kuvSet(image.get(), c.value);
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_EQ(get(image.get(), 4, 1, 0), c.expect) << depthName(c.depth) << " " << c.value;
    }
}

TEST(SetValues, FloatBitsMovedUnchanged) {
    ImagePtr image = makeImage(KUV_DEPTH_32F, 3, 5, 2, KUV_DATA_ORDER_PLANE);
    setRoi(image.get(), 2, 1, 0, 3, 2);
    const Snapshot before = snapshot(image.get());
    ReportCapture capture;
    kuvSetFP(image.get(), -0.0f);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(getBits(image.get(), 2, 1, 1), 0x80000000u);
    EXPECT_EQ(image->depth, KUV_DEPTH_32F);
    expectUnchangedExcept(before, image.get(),
                          [](int x, int, int c) { return c == 1 && x >= 1 && x < 4; });
}

TEST(SetValues, AlphaAndOtherChannelsPassedOver) {
    ImagePtr image = makeImage(KUV_DEPTH_16U, 4, 5, 3, KUV_DATA_ORDER_PIXEL, 4);
    fillRandom(image.get(), 29);
    const Snapshot before = snapshot(image.get());
    kuvSet(image.get(), 513);
    expectUnchangedExcept(before, image.get(), [](int, int, int c) { return c != 3; });
    EXPECT_EQ(get(image.get(), 4, 2, 2), 513.0);
}

// ------------------------------------------------------------------ tiles

using Req = TileStore::Request;

TEST(CopyTiles, TwoByTwoTilesOfTheDestination) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 40, 40);
    fillRandom(src.get(), 30);
    ImagePtr plainDst = makeImage(KUV_DEPTH_8U, 3, 40, 40);
    TileStore dst(copyImage(plainDst.get()), 16, 16);
    setRoi(dst.image(), 0, 10, 12, 12, 10);  // columns 10..21, rows 12..21
    setRoi(plainDst.get(), 0, 10, 12, 12, 10);
    ImagePtr expectSrc = copyImage(src.get());
    reference(Op::Copy, expectSrc.get(), plainDst.get(), nullptr, nullptr);
    ReportCapture capture;
    kuvCopy(src.get(), dst.image());
    EXPECT_EQ(capture.count(), 0u);
    const std::vector<Req> expected = {{0, 0, 2}, {0, 0, 4}, {1, 0, 2}, {1, 0, 4},
                                       {0, 1, 2}, {0, 1, 4}, {1, 1, 2}, {1, 1, 4}};
    EXPECT_EQ(dst.log(), expected);
    clearRoi(plainDst.get());
    EXPECT_TRUE(sameBytes(plainDst.get(), dst.backing()));
}

TEST(CopyTiles, TiledSourceInsideOneTile) {
    ImagePtr plain = makeImage(KUV_DEPTH_16S, 1, 30, 30);
    fillRandom(plain.get(), 31);
    TileStore src(copyImage(plain.get()), 16, 8);
    setRoi(src.image(), 0, 17, 9, 5, 4);
    ImagePtr dst = makeImage(KUV_DEPTH_16S, 1, 5, 4);
    kuvCopy(src.image(), dst.get());
    const std::vector<Req> expected = {{1, 1, KUV_TILE_READ}, {1, 1, KUV_TILE_RELEASE}};
    EXPECT_EQ(src.log(), expected);
    EXPECT_EQ(get(dst.get(), 4, 3, 0), get(plain.get(), 21, 12, 0));
}

TEST(CopyTiles, BothTiledWithOtherTileSizesFollowTheDestinationGrid) {
    ImagePtr plain = makeImage(KUV_DEPTH_32S, 2, 50, 30, KUV_DATA_ORDER_PLANE);
    fillRandom(plain.get(), 32);
    TileStore src(copyImage(plain.get()), 24, 8);
    TileStore dst(makeImage(KUV_DEPTH_32S, 2, 50, 30, KUV_DATA_ORDER_PLANE), 16, 16);
    ReportCapture capture;
    kuvCopy(src.image(), dst.image());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(sameBytes(plain.get(), dst.backing()));
    // Each destination tile once, written and released; the source only read.
    std::vector<Req> expected;
    for (int row = 0; row < 2; ++row) {
        for (int col = 0; col < 4; ++col) {
            expected.push_back({col, row, KUV_TILE_WRITE});
            expected.push_back({col, row, KUV_TILE_RELEASE});
        }
    }
    EXPECT_EQ(dst.log(), expected);
    for (const Req& r : src.log()) EXPECT_NE(r.mode, KUV_TILE_WRITE);
    EXPECT_EQ(src.held(), 0);
    EXPECT_TRUE(src.faults().empty());
}

TEST(CopyTiles, FailedRequestsReportAndEndTheWalk) {
    ImagePtr plain = makeImage(KUV_DEPTH_8U, 1, 32, 16);
    fillRandom(plain.get(), 33);
    {
        TileStore dst(makeImage(KUV_DEPTH_8U, 1, 32, 16), 16, 16);
        dst.failRequest(2);
        ReportCapture capture;
        kuvCopy(plain.get(), dst.image());
        EXPECT_TRUE(
            oneReport(capture, KUV_StsFailure, "kuvCopy", "Error get tile to write", kFile));
        const std::vector<Req> expected = {{0, 0, 2}, {0, 0, 4}, {1, 0, 2}};
        EXPECT_EQ(dst.log(), expected);
        EXPECT_EQ(get(dst.backing(), 15, 15, 0),
                  get(plain.get(), 15, 15, 0));  // the first piece stays
        EXPECT_EQ(get(dst.backing(), 16, 0, 0), 0.0);
    }
    {
        TileStore src(copyImage(plain.get()), 16, 16);
        ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 32, 16);
        src.failRequest(1);
        RefusalGuard guard(dst.get());
        ReportCapture capture;
        kuvCopy(src.image(), dst.get());
        EXPECT_TRUE(oneReport(capture, KUV_StsFailure, "kuvCopy", "Error get tile to read", kFile));
        EXPECT_TRUE(guard.intact());
        EXPECT_EQ(src.held(), 0);
    }
    {
        // Exchange writes the tiled side, also when it is the source.
        TileStore src(copyImage(plain.get()), 16, 16);
        ImagePtr dst = makeImage(KUV_DEPTH_8U, 1, 32, 16);
        src.failRequest(1);
        ReportCapture capture;
        kuvExchange(src.image(), dst.get());
        EXPECT_TRUE(
            oneReport(capture, KUV_StsFailure, "kuvExchange", "Error get tile to write", kFile));
        ASSERT_EQ(src.log().size(), 1u);
        EXPECT_EQ(src.log()[0].mode, KUV_TILE_WRITE);
    }
    {
        // Both tiled: a window that cannot be had is backtraced; the
        // destination's tile of the piece is handed back unwritten.
        TileStore src(copyImage(plain.get()), 16, 16);
        TileStore dst(makeImage(KUV_DEPTH_8U, 1, 32, 16), 8, 8);
        src.failRequest(1);
        ReportCapture capture;
        kuvCopy(src.image(), dst.image());
        ASSERT_EQ(capture.count(), 1u);
        EXPECT_TRUE(isReport(capture.reports()[0], KUV_StsBacktrace, "kuvCopy", "", kFile));
        const std::vector<Req> expected = {{0, 0, KUV_TILE_WRITE}, {0, 0, KUV_TILE_RELEASE}};
        EXPECT_EQ(dst.log(), expected);
        EXPECT_EQ(src.held(), 0);
        EXPECT_EQ(dst.held(), 0);
        EXPECT_EQ(get(dst.backing(), 0, 0, 0), 0.0);
    }
    {
        TileStore dst(makeImage(KUV_DEPTH_8U, 1, 32, 16), 16, 16);
        dst.failRequest(1);
        ReportCapture capture;
        kuvSet(dst.image(), 5);
        EXPECT_TRUE(oneReport(capture, KUV_StsFailure, "kuvSet", "Error get tile to write", kFile));
    }
}

TEST(CopyTiles, AFaultInAPieceLeavesLaterPiecesEmptyButWalked) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 4, 32, 8);  // four channels, no alpha
    fillRandom(src.get(), 34);
    TileStore dst(makeImage(KUV_DEPTH_8U, 3, 32, 8), 8, 8);
    ReportCapture capture;
    kuvCopy(src.get(), dst.image());
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "kuvCopy",
                          "Number of processed channels of srcImage != Number of processed "
                          "channels of dstImage",
                          kFile));
    EXPECT_EQ(dst.log().size(), 8u);  // four tiles written and released
    EXPECT_EQ(dst.held(), 0);
    for (int32_t i = 0; i < dst.backing()->imageSize; ++i)
        ASSERT_EQ(dst.backing()->imageData[i], 0);
}

TEST(ExchangeTiles, BothTiledGoesThroughATileBuffer) {
    ImagePtr pa = makeImage(KUV_DEPTH_32F, 3, 40, 20);
    ImagePtr pb = makeImage(KUV_DEPTH_32F, 3, 40, 20);
    fillRandom(pa.get(), 35);
    fillRandom(pb.get(), 36);
    setRoi(pa.get(), 0, 3, 2, 30, 15);
    setRoi(pb.get(), 0, 5, 1, 33, 16);
    ImagePtr backA = copyImage(pa.get()), backB = copyImage(pb.get());
    clearRoi(backA.get());
    clearRoi(backB.get());
    TileStore a(std::move(backA), 8, 16);
    TileStore b(std::move(backB), 16, 8);
    KuvROI* roiRecord = nullptr;
    setRoi(a.image(), 0, 3, 2, 30, 15);
    roiRecord = a.image()->roi;
    setRoi(b.image(), 0, 5, 1, 33, 16);
    reference(Op::Exchange, pa.get(), pb.get(), nullptr, nullptr);
    const long blocks = outstandingBlocks();
    ReportCapture capture;
    kuvExchange(a.image(), b.image());
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(outstandingBlocks(), blocks);
    clearRoi(pa.get());
    clearRoi(pb.get());
    EXPECT_TRUE(sameBytes(pa.get(), a.backing()));
    EXPECT_TRUE(sameBytes(pb.get(), b.backing()));
    EXPECT_EQ(a.image()->roi, roiRecord);  // the temporary region is gone
    EXPECT_EQ(a.image()->roi->xOffset, 3);
    EXPECT_TRUE(a.faults().empty());
    EXPECT_TRUE(b.faults().empty());
}

// A tile procedure of one 8x8 float tile that notes the depth it is shown.
std::vector<uint32_t> depthsSeen;
float oneTile[8 * 8];
void depthNotingTile(const KuvImage* image, int32_t, int32_t, int32_t mode) {
    depthsSeen.push_back(image->depth);
    image->tileInfo->tileData =
        mode == KUV_TILE_RELEASE ? nullptr : reinterpret_cast<char*>(oneTile);
}

TEST(SetTiles, SetFPShowsTheTileProcedureDepth32S) {
    KuvTileInfo* info = kuvCreateTileInfo(&depthNotingTile, 0, 8, 8);
    ImagePtr image(kuvCreateImageHeader(1, 0, KUV_DEPTH_32F, "GRAY", "G\0\0\0", 0, 0, 4, 8, 8,
                                        nullptr, nullptr, 0, info));
    depthsSeen.clear();
    ReportCapture capture;
    kuvSetFP(image.get(), 2.5f);
    EXPECT_EQ(capture.count(), 0u);
    ASSERT_EQ(depthsSeen.size(), 2u);
    EXPECT_EQ(depthsSeen[0], KUV_DEPTH_32S);
    EXPECT_EQ(depthsSeen[1], KUV_DEPTH_32S);
    EXPECT_EQ(image->depth, KUV_DEPTH_32F);
    EXPECT_EQ(oneTile[63], 2.5f);
}

// ------------------------------------------------------------------ helpers

TEST(CopyHelpers, RegionExtentAndTileGrid) {
    ImagePtr image = makeImage(KUV_DEPTH_8U, 2, 20, 10);
    int32_t h = 0, w = 0;
    EXPECT_TRUE(ownRegionExtent(image.get(), &h, &w, true));
    EXPECT_EQ(h, 10);
    EXPECT_EQ(w, 20);
    setRoi(image.get(), 0, 15, 8, 10, 10);
    EXPECT_TRUE(ownRegionExtent(image.get(), &h, &w, true));
    EXPECT_EQ(h, 2);
    EXPECT_EQ(w, 5);
    image->roi->xOffset = -3;  // a working region may hold what a header may not
    EXPECT_TRUE(ownRegionExtent(image.get(), &h, &w, true));
    EXPECT_EQ(w, 7);
    image->roi->xOffset = 20;
    EXPECT_FALSE(ownRegionExtent(image.get(), &h, &w, true));
    image->roi->xOffset = 0;
    image->roi->width = 0;
    EXPECT_FALSE(ownRegionExtent(image.get(), &h, &w, false));

    // Untiled: a grid of 128 by 128.
    setRoi(image.get(), 0, 130, 300, 1, 1);
    int32_t tx, ty, th, tw, c0, r0, nc, nr;
    ownTileGrid(image.get(), 200, 126, &tx, &ty, &th, &tw, &c0, &r0, &nc, &nr);
    EXPECT_EQ(tw, 128);
    EXPECT_EQ(th, 128);
    EXPECT_EQ(c0, 1);
    EXPECT_EQ(r0, 2);
    EXPECT_EQ(tx, 2);
    EXPECT_EQ(ty, 44);
    EXPECT_EQ(nc, 1);  // columns 130..255
    EXPECT_EQ(nr, 2);  // rows 300..499
}

TEST(CopyHelpers, RegionStartAndElementAddress) {
    ImagePtr image = makeImage(KUV_DEPTH_16U, 4, 10, 6, KUV_DATA_ORDER_PLANE, 4);
    char* start = nullptr;
    int32_t step = 0, nCh = 0, plane = 0, x = 0;
    ASSERT_TRUE(ownRegionStart(image.get(), &start, &step, &nCh, &plane, &x));
    EXPECT_EQ(nCh, 3);  // alpha left out
    setRoi(image.get(), 3, 2, 1, 4, 4);
    ASSERT_TRUE(ownRegionStart(image.get(), &start, &step, &nCh, &plane, &x));
    EXPECT_EQ(nCh, 1);
    EXPECT_EQ(plane, image->widthStep * 6);
    EXPECT_EQ(start, image->imageData + elementPos(image.get(), 2, 1, 2).byte);
    EXPECT_EQ(ownElementAddress(image.get(), 9, 5, 3),
              image->imageData + elementPos(image.get(), 9, 5, 3).byte);

    ImagePtr bits = makeImage(KUV_DEPTH_1U, 1, 40, 3);
    setRoi(bits.get(), 0, 19, 2, 4, 1);
    uint8_t* row = nullptr;
    int32_t bitOffset = 0;
    ASSERT_TRUE(ownBitRegion(bits.get(), &row, &step, &bitOffset));
    EXPECT_EQ(row, reinterpret_cast<uint8_t*>(bits->imageData) + 2 * bits->widthStep + 2);
    EXPECT_EQ(bitOffset, 3);
    EXPECT_FALSE(ownBitRegion(image.get(), &row, &step, &bitOffset));
}

}  // namespace
