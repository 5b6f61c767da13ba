// kuvAdd and the pattern driver behind every pixelwise operation: refusals
// with their exact reports, a seeded differential run against a naive
// reference over depth x order x region x coi x alpha x mask x tiles,
// saturation limits, the flat path's padding, in-place use, masks and the
// tile protocol.
#include "tests/support/kuv_test.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>

namespace {

using namespace kuvtest;

constexpr const char* kFunc = "kuvAdd";
constexpr const char* kFile = "kuvadd";

// ------------------------------------------------------------- reference

// The sum of two elements as the operation defines it per depth.
double refAdd(uint32_t depth, double a, double b) {
    if (depth == KUV_DEPTH_32F) return static_cast<float>(a) + static_cast<float>(b);
    return saturateTo(depth, a + b);
}

struct Region {
    int x, y, w, h;
};

// The clipped region: what runs past the image is cut off, a size below 1 is 0.
Region regionOf(const KuvImage* image) {
    if (image->roi == nullptr) return {0, 0, image->width, image->height};
    const KuvROI& r = *image->roi;
    int64_t w = r.width, h = r.height;
    if (int64_t{r.xOffset} + r.width > image->width) w -= int64_t{r.xOffset} + r.width - image->width;
    if (int64_t{r.yOffset} + r.height > image->height) h -= int64_t{r.yOffset} + r.height - image->height;
    if (w < 1 || h < 1) w = h = 0;
    return {r.xOffset, r.yOffset, static_cast<int>(w), static_cast<int>(h)};
}

struct ChannelPlan {
    int nCh, ch;
    bool coi;
};

ChannelPlan planOf(const KuvImage* image) {
    if (image->roi != nullptr && image->roi->coi > 0) return {1, image->roi->coi - 1, true};
    return {image->nChannels - (image->alphaChannel != 0 ? 1 : 0), 0, false};
}

bool coversWhole(const KuvImage* image) {
    const KuvROI* r = image->roi;
    if (r == nullptr) return true;
    return r->xOffset == 0 && r->yOffset == 0 && r->width >= image->width &&
           r->height >= image->height && (r->coi == 0 || (r->coi == 1 && image->nChannels == 1));
}

bool sameFlat(const KuvImage* a, const KuvImage* b, bool hasAlpha) {
    if (hasAlpha) return false;
    return a->height == b->height && a->width == b->width && a->imageSize == b->imageSize &&
           a->align == b->align && coversWhole(a) && coversWhole(b);
}

// Element slot i of the image taken as one flat array.
KuvImage flatView(const KuvImage* image) {
    KuvImage view = *image;
    view.nChannels = 1;
    view.dataOrder = KUV_DATA_ORDER_PIXEL;
    view.height = 1;
    view.width = image->imageSize / (depthBits(image->depth) / 8);
    view.widthStep = image->imageSize;
    return view;
}

bool flatExpected(const KuvImage* a, const KuvImage* b, const KuvImage* d, bool anyMask) {
    const bool hasAlpha = a->alphaChannel != 0 || b->alphaChannel != 0 || d->alphaChannel != 0;
    return !anyMask && sameFlat(a, d, hasAlpha) && sameFlat(b, d, hasAlpha);
}

// Applies kuvAdd's rules to e (a copy of the destination, same fields and
// region) from sources a and b, with the masks given (null entries ignored).
void referenceAdd(const KuvImage* a, const KuvImage* b, KuvImage* e,
                  const std::vector<const KuvImage*>& masks) {
    const uint32_t depth = e->depth;
    if (flatExpected(a, b, e, !masks.empty())) {
        const KuvImage va = flatView(a), vb = flatView(b);
        KuvImage ve = flatView(e);
        for (int i = 0; i < va.width; ++i) {
            put(&ve, i, 0, 0, refAdd(depth, get(&va, i, 0, 0), get(&vb, i, 0, 0)));
        }
        return;
    }
    const KuvImage* images[3] = {a, b, e};
    Region reg[3];
    ChannelPlan plan[3];
    bool all = true;
    int w = INT32_MAX, h = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        reg[i] = regionOf(images[i]);
        plan[i] = planOf(images[i]);
        all &= !plan[i].coi;
        w = std::min(w, reg[i].w);
        h = std::min(h, reg[i].h);
    }
    std::vector<Region> maskReg;
    for (const KuvImage* m : masks) {
        maskReg.push_back(regionOf(m));
        w = std::min(w, maskReg.back().w);
        h = std::min(h, maskReg.back().h);
    }
    const int nK = all ? plan[2].nCh : 1;
    for (int r = 0; r < h; ++r) {
        for (int c = 0; c < w; ++c) {
            bool on = true;
            for (size_t m = 0; m < masks.size(); ++m) {
                on &= get(masks[m], maskReg[m].x + c, maskReg[m].y + r, 0) != 0.0;
            }
            if (!on) continue;
            for (int k = 0; k < nK; ++k) {
                const double va = get(a, reg[0].x + c, reg[0].y + r, plan[0].ch + k);
                const double vb = get(b, reg[1].x + c, reg[1].y + r, plan[1].ch + k);
                put(e, reg[2].x + c, reg[2].y + r, plan[2].ch + k, refAdd(depth, va, vb));
            }
        }
    }
}

std::vector<const KuvImage*> masksOf(const KuvImage* a, const KuvImage* b, const KuvImage* d) {
    std::vector<const KuvImage*> masks;
    for (const KuvImage* image : {a, b, d}) {
        if (image->maskROI != nullptr) masks.push_back(image->maskROI);
    }
    return masks;
}

// Every element bit-identical; padding too when asked. Lists the first differences.
::testing::AssertionResult sameImage(const KuvImage* expected, const KuvImage* actual,
                                     bool padding) {
    std::ostringstream fail;
    int problems = 0;
    for (int c = 0; c < expected->nChannels; ++c) {
        for (int y = 0; y < expected->height; ++y) {
            for (int x = 0; x < expected->width; ++x) {
                if (getBits(expected, x, y, c) == getBits(actual, x, y, c)) continue;
                if (problems++ < 10) {
                    fail << "\n  (" << x << "," << y << "," << c << ") expected "
                         << get(expected, x, y, c) << ", got " << get(actual, x, y, c);
                }
            }
        }
    }
    if (padding && problems == 0 &&
        std::memcmp(expected->imageData, actual->imageData, size_t(expected->imageSize)) != 0) {
        for (int32_t i = 0; i < expected->imageSize; ++i) {
            if (expected->imageData[i] != actual->imageData[i] && problems++ < 10) {
                fail << "\n  padding byte " << i << " expected "
                     << int(uint8_t(expected->imageData[i])) << ", got "
                     << int(uint8_t(actual->imageData[i]));
            }
        }
    }
    if (problems == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << problems << " difference(s):" << fail.str();
}

// Runs kuvAdd on untiled images and checks the destination against the
// reference, the sources unchanged, no report, the status untouched and no
// block left behind. Handles a destination that is one of the sources.
void checkAdd(const KuvImage* a, const KuvImage* b, KuvImage* d) {
    ImagePtr ca = copyImage(a), cb = copyImage(b);
    ImagePtr expected = copyImage(d);
    ASSERT_TRUE(ca && cb && expected);
    const std::vector<const KuvImage*> masks = masksOf(a, b, d);
    referenceAdd(ca.get(), cb.get(), expected.get(), masks);
    const bool flat = flatExpected(a, b, d, !masks.empty());

    const Snapshot sa = snapshot(a), sb = snapshot(b);
    const long blocks = outstandingBlocks();
    ReportCapture capture;
    kuvSetErrStatus(-777);   // untouched on success
    kuvAdd(a, b, d);
    EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
    EXPECT_EQ(kuvGetErrStatus(), -777);
    EXPECT_EQ(outstandingBlocks(), blocks);
    EXPECT_TRUE(sameImage(expected.get(), d, true)) << (flat ? "flat path" : "rectangle walk");
    auto never = [](int, int, int) { return false; };
    if (a != d) EXPECT_TRUE(unchangedExcept(sa, a, never)) << "srcImageA changed";
    if (b != d && b != a) EXPECT_TRUE(unchangedExcept(sb, b, never)) << "srcImageB changed";
}

// --------------------------------------------------------------- refusals

void expectRefused(const KuvImage* a, const KuvImage* b, KuvImage* d, KuvStatus status,
                   const char* context) {
    RefusalGuard guard(a, b, d);
    TileStore::clearCalls();
    ReportCapture capture;
    kuvAdd(a, b, d);
    EXPECT_TRUE(oneReport(capture, status, kFunc, context, kFile));
    EXPECT_TRUE(guard.intact());
    EXPECT_TRUE(TileStore::calls().empty()) << "a refused call asked for tiles";
}

struct Trio {
    ImagePtr a, b, d;
};

Trio validTrio(uint32_t depth = KUV_DEPTH_8U, int nChannels = 3) {
    Trio t{makeImage(depth, nChannels, 7, 5), makeImage(depth, nChannels, 7, 5),
           makeImage(depth, nChannels, 7, 5)};
    fillRandom(t.a.get(), 11);
    fillRandom(t.b.get(), 12);
    fillRandom(t.d.get(), 13);
    return t;
}

void dummyTiles(const KuvImage*, int32_t, int32_t, int32_t) {}

struct HeaderFault {
    const char* name;
    KuvStatus status;
    void (*apply)(KuvImage*);
};

const HeaderFault headerFaults[] = {
    {"no pixels", KUV_StsBadDataPointers, [](KuvImage* i) { i->imageData = nullptr; }},
    {"pixels and tiles", KUV_StsBadDataPointers,
     [](KuvImage* i) { i->tileInfo = kuvCreateTileInfo(dummyTiles, 0, 8, 8); }},
    {"imageSize 0", KUV_StsBadImageSize, [](KuvImage* i) { i->imageSize = 0; }},
    {"widthStep 0", KUV_StsBadWidthStep, [](KuvImage* i) { i->widthStep = 0; }},
    {"width 0", KUV_StsBadImageSize, [](KuvImage* i) { i->width = 0; }},
    {"height -1", KUV_StsBadImageSize, [](KuvImage* i) { i->height = -1; }},
    {"nChannels 0", KUV_StsBadChannels, [](KuvImage* i) { i->nChannels = 0; }},
    {"depth 12", KUV_StsBadDepth, [](KuvImage* i) { i->depth = 12; }},
    {"alpha 2 of 3", KUV_StsBadAlphaChannel, [](KuvImage* i) { i->alphaChannel = 2; }},
    {"dataOrder 2", KUV_StsBadDataOrder, [](KuvImage* i) { i->dataOrder = 2; }},
    {"origin 5", KUV_StsBadOrigin, [](KuvImage* i) { i->origin = 5; }},
    {"align 2", KUV_StsBadAlign, [](KuvImage* i) { i->align = 2; }},
    {"mask of depth 8", KUV_StsBadDepth - KUV_StsMaskOffset,
     [](KuvImage* i) { attachMask(i, makeImage(KUV_DEPTH_8U, 1, 7, 5)); }},
    {"tiled mask", KUV_StsMaskTiled,
     [](KuvImage* i) {
         attachMask(i, makeMask(7, 5));
         i->maskROI->tileInfo = kuvCreateTileInfo(dummyTiles, 0, 8, 8);
     }},
    {"mask without pixels", KUV_StsBadDataPointers - KUV_StsMaskOffset,
     [](KuvImage* i) {
         attachMask(i, makeMask(7, 5));
         kuvDeallocateImage(i->maskROI);
     }},
    {"null tile procedure", KUV_StsNullCallback,
     [](KuvImage* i) {
         i->imageData = nullptr;
         i->tileInfo = kuvCreateTileInfo(nullptr, 0, 8, 8);
     }},
    {"tile width 12", KUV_StsBadTileSize,
     [](KuvImage* i) {
         i->imageData = nullptr;
         i->tileInfo = kuvCreateTileInfo(dummyTiles, 0, 12, 8);
     }},
    {"coi 4 of 3", KUV_StsBadCOI, [](KuvImage* i) { setRoi(i, 4, 0, 0, 2, 2); }},
    {"coi -1", KUV_StsBadCOI, [](KuvImage* i) { setRoi(i, -1, 0, 0, 2, 2); }},
    {"roi width 0", KUV_StsBadROISize, [](KuvImage* i) { setRoi(i, 0, 0, 0, 0, 2); }},
    {"roi xOffset -1", KUV_StsBadROIOffset, [](KuvImage* i) { setRoi(i, 0, -1, 0, 2, 2); }},
};

TEST(AddRefusal, NullFirstSourceIsABadArgument) {
    Trio t = validTrio();
    expectRefused(nullptr, t.b.get(), t.d.get(), KUV_StsBadArgument, "srcImageA==0");
    expectRefused(nullptr, nullptr, nullptr, KUV_StsBadArgument, "srcImageA==0");
}

TEST(AddRefusal, NullSecondSourceOrDestinationIsANullHeader) {
    Trio t = validTrio();
    expectRefused(t.a.get(), nullptr, t.d.get(), KUV_StsNullHeader, "Incorrect Image");
    expectRefused(t.a.get(), t.b.get(), nullptr, KUV_StsNullHeader, "Incorrect Image");
    // The header of srcImageA is checked before the missing srcImageB.
    t.a->align = 3;
    expectRefused(t.a.get(), nullptr, t.d.get(), KUV_StsBadAlign, "Incorrect Image");
}

TEST(AddRefusal, EveryHeaderFaultOfEveryImage) {
    for (const HeaderFault& fault : headerFaults) {
        for (int target = 0; target < 3; ++target) {
            SCOPED_TRACE(std::string(fault.name) + " on image " + std::to_string(target));
            Trio t = validTrio();
            KuvImage* images[3] = {t.a.get(), t.b.get(), t.d.get()};
            fault.apply(images[target]);
            expectRefused(t.a.get(), t.b.get(), t.d.get(), fault.status, "Incorrect Image");
        }
    }
}

TEST(AddRefusal, OneChannelRuleForBitDepthOnSecondSourceAndDestination) {
    for (int target = 1; target < 3; ++target) {
        Trio t = validTrio();
        (target == 1 ? t.b : t.d)->depth = KUV_DEPTH_1U;
        expectRefused(t.a.get(), t.b.get(), t.d.get(), KUV_StsBadChannels1U, "Incorrect Image");
    }
}

TEST(AddRefusal, HeadersAreCheckedInArgumentOrder) {
    Trio t = validTrio();
    t.a->origin = 3;
    t.b->align = 5;
    t.d->dataOrder = 7;
    expectRefused(t.a.get(), t.b.get(), t.d.get(), KUV_StsBadOrigin, "Incorrect Image");
    t.a->origin = 0;
    expectRefused(t.a.get(), t.b.get(), t.d.get(), KUV_StsBadAlign, "Incorrect Image");
    t.b->align = 4;
    expectRefused(t.a.get(), t.b.get(), t.d.get(), KUV_StsBadDataOrder, "Incorrect Image");
}

TEST(AddRefusal, DepthTextsSourceAThenSourceB) {
    struct Case {
        uint32_t a, b, d;
        const char* text;
    } cases[] = {
        {KUV_DEPTH_16U, KUV_DEPTH_16U, KUV_DEPTH_8U, "(srcImageA->depth != dstImage->depth)"},
        {KUV_DEPTH_16U, KUV_DEPTH_8U, KUV_DEPTH_8U, "(srcImageA->depth != dstImage->depth)"},
        {KUV_DEPTH_8U, KUV_DEPTH_16U, KUV_DEPTH_8U, "(srcImageB->depth != dstImage->depth)"},
        {KUV_DEPTH_8S, KUV_DEPTH_8U, KUV_DEPTH_8U, "(srcImageA->depth != dstImage->depth)"},
        {KUV_DEPTH_16S, KUV_DEPTH_16U, KUV_DEPTH_16S, "(srcImageB->depth != dstImage->depth)"},
        {KUV_DEPTH_32S, KUV_DEPTH_32S, KUV_DEPTH_32F, "(srcImageA->depth != dstImage->depth)"},
        {KUV_DEPTH_32F, KUV_DEPTH_32S, KUV_DEPTH_32F, "(srcImageB->depth != dstImage->depth)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(depthName(c.a) + "+" + depthName(c.b) + "->" + depthName(c.d));
        ImagePtr a = makeImage(c.a, 1, 5, 3), b = makeImage(c.b, 1, 5, 3), d = makeImage(c.d, 1, 5, 3);
        expectRefused(a.get(), b.get(), d.get(), KUV_StsBadArgument, c.text);
    }
}

TEST(AddRefusal, DataOrderTextsAfterDepth) {
    ImagePtr pix = makeImage(KUV_DEPTH_8U, 3, 5, 3);
    ImagePtr pix2 = makeImage(KUV_DEPTH_8U, 3, 5, 3);
    ImagePtr pln = makeImage(KUV_DEPTH_8U, 3, 5, 3, KUV_DATA_ORDER_PLANE);
    ImagePtr pln2 = makeImage(KUV_DEPTH_8U, 3, 5, 3, KUV_DATA_ORDER_PLANE);
    expectRefused(pln.get(), pix.get(), pix2.get(), KUV_StsBadArgument,
                  "(srcImageA->dataOrder != dstImage->dataOrder)");
    expectRefused(pix.get(), pln.get(), pix2.get(), KUV_StsBadArgument,
                  "(srcImageB->dataOrder != dstImage->dataOrder)");
    expectRefused(pix.get(), pix2.get(), pln.get(), KUV_StsBadArgument,
                  "(srcImageA->dataOrder != dstImage->dataOrder)");
    expectRefused(pln.get(), pix.get(), pln2.get(), KUV_StsBadArgument,
                  "(srcImageB->dataOrder != dstImage->dataOrder)");
    // srcImageA's order and srcImageB's depth both differ: every depth test comes first.
    ImagePtr deep = makeImage(KUV_DEPTH_16U, 3, 5, 3);
    expectRefused(pln.get(), deep.get(), pix.get(), KUV_StsBadArgument,
                  "(srcImageB->depth != dstImage->depth)");
}

TEST(AddRefusal, ChannelPlanTexts) {
    // RGBA with alpha against plain 4-channel images: 3 against 4.
    ImagePtr rgba = makeImage(KUV_DEPTH_8U, 4, 6, 4, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr four = makeImage(KUV_DEPTH_8U, 4, 6, 4), four2 = makeImage(KUV_DEPTH_8U, 4, 6, 4);
    expectRefused(rgba.get(), four.get(), four2.get(), KUV_StsBadArgument, "(nChSrcA != nChDst)");
    expectRefused(four.get(), rgba.get(), four2.get(), KUV_StsBadArgument, "(nChSrcB != nChDst)");
    expectRefused(four.get(), four2.get(), rgba.get(), KUV_StsBadArgument, "(nChSrcA != nChDst)");

    // coi 1 on a 3-channel source with a 3-channel destination: 1 against 3.
    ImagePtr three = makeImage(KUV_DEPTH_16S, 3, 6, 4), threeB = makeImage(KUV_DEPTH_16S, 3, 6, 4),
             threeD = makeImage(KUV_DEPTH_16S, 3, 6, 4);
    setRoi(three.get(), 1, 0, 0, 6, 4);
    expectRefused(three.get(), threeB.get(), threeD.get(), KUV_StsBadArgument, "(nChSrcA != nChDst)");
    clearRoi(three.get());
    setRoi(threeB.get(), 2, 0, 0, 6, 4);
    expectRefused(three.get(), threeB.get(), threeD.get(), KUV_StsBadArgument, "(nChSrcB != nChDst)");
    clearRoi(threeB.get());
    setRoi(threeD.get(), 3, 0, 0, 6, 4);
    expectRefused(three.get(), threeB.get(), threeD.get(), KUV_StsBadArgument, "(nChSrcA != nChDst)");

    // Channel counts are tested after depth and order.
    ImagePtr one = makeImage(KUV_DEPTH_16S, 1, 6, 4, KUV_DATA_ORDER_PLANE);
    expectRefused(one.get(), threeB.get(), threeD.get(), KUV_StsBadArgument,
                  "(srcImageA->dataOrder != dstImage->dataOrder)");
}

TEST(AddRefusal, RefusedCallsOnTiledOrMaskedImagesTouchNothing) {
    ImagePtr backing = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    TileStore store(std::move(backing), 8, 8);
    ImagePtr a = makeImage(KUV_DEPTH_16U, 1, 16, 16), b = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    attachMask(b.get(), makeMask(16, 16, 1));
    attachMask(store.image(), makeMask(16, 16, 1));
    expectRefused(a.get(), b.get(), store.image(), KUV_StsBadArgument,
                  "(srcImageA->depth != dstImage->depth)");
    EXPECT_TRUE(store.log().empty());
}

TEST(AddRefusal, AFaultStatusStaysTheThreadsStatus) {
    Trio t = validTrio();
    t.b->imageSize = 0;
    ReportCapture capture;
    kuvAdd(t.a.get(), t.b.get(), t.d.get());
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadImageSize);
    t.b->imageSize = t.a->imageSize;
    kuvAdd(t.a.get(), t.b.get(), t.d.get());   // success does not clear it
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadImageSize);
    EXPECT_EQ(capture.count(), 1u);
}

// ------------------------------------------------------ saturation limits

struct SumCase {
    double a, b, sum;
};

void checkSums(uint32_t depth, const std::vector<SumCase>& cases) {
    const int n = static_cast<int>(cases.size());
    // Once as a flat run, once on the middle channel of 3-channel images
    // through a region (strided walk), once in plane order with a region.
    for (int layout = 0; layout < 3; ++layout) {
        SCOPED_TRACE(depthName(depth) + " layout " + std::to_string(layout));
        const int nCh = layout == 0 ? 1 : 3;
        const int order = layout == 2 ? KUV_DATA_ORDER_PLANE : KUV_DATA_ORDER_PIXEL;
        ImagePtr a = makeImage(depth, nCh, n + 2, 2, order);
        ImagePtr b = makeImage(depth, nCh, n + 2, 2, order);
        ImagePtr d = makeImage(depth, nCh, n + 2, 2, order);
        const int ch = layout == 0 ? 0 : 1;
        for (int i = 0; i < n; ++i) {
            put(a.get(), i + 1, 1, ch, cases[i].a);
            put(b.get(), i + 1, 1, ch, cases[i].b);
        }
        if (layout != 0) {
            for (KuvImage* im : {a.get(), b.get(), d.get()}) setRoi(im, layout == 1 ? 2 : 0, 1, 1, n, 1);
        }
        ReportCapture capture;
        kuvAdd(a.get(), b.get(), d.get());
        EXPECT_EQ(capture.count(), 0u);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(get(d.get(), i + 1, 1, ch), cases[i].sum) << cases[i].a << " + " << cases[i].b;
        }
    }
}

TEST(AddSaturation, Unsigned8) {
    checkSums(KUV_DEPTH_8U, {{200, 100, 255}, {255, 255, 255}, {255, 0, 255}, {254, 1, 255},
                             {128, 127, 255}, {128, 128, 255}, {100, 100, 200}, {0, 0, 0},
                             {1, 254, 255}, {127, 1, 128}});
}

TEST(AddSaturation, Signed8) {
    checkSums(KUV_DEPTH_8S, {{100, 100, 127}, {-100, -100, -128}, {127, -128, -1}, {-128, -128, -128},
                             {64, 63, 127}, {64, 64, 127}, {-64, -64, -128}, {-64, -65, -128},
                             {127, 127, 127}, {-1, 1, 0}, {-5, -7, -12}});
}

TEST(AddSaturation, Unsigned16) {
    checkSums(KUV_DEPTH_16U, {{65535, 1, 65535}, {60000, 10000, 65535}, {65535, 65535, 65535},
                              {32768, 32767, 65535}, {32768, 32768, 65535}, {255, 1, 256},
                              {0, 0, 0}, {40000, 25535, 65535}});
}

TEST(AddSaturation, Signed16) {
    checkSums(KUV_DEPTH_16S, {{32767, 1, 32767}, {-32768, -1, -32768}, {20000, 20000, 32767},
                              {-20000, -20000, -32768}, {100, -200, -100}, {32767, -32768, -1},
                              {16384, 16383, 32767}, {-16384, -16384, -32768}, {127, 1, 128}});
}

TEST(AddSaturation, Signed32) {
    checkSums(KUV_DEPTH_32S, {{2147483647.0, 1, 2147483647.0},
                              {-2147483648.0, -1, -2147483648.0},
                              {2147483647.0, 2147483647.0, 2147483647.0},
                              {-2147483648.0, -2147483648.0, -2147483648.0},
                              {2147483647.0, -2147483648.0, -1},
                              {1073741824.0, 1073741823.0, 2147483647.0},
                              {1073741824.0, 1073741824.0, 2147483647.0},
                              {-1073741824.0, -1073741825.0, -2147483648.0},
                              {2147483646.0, 1, 2147483647.0},
                              {65536, 65536, 131072},
                              {-5, 3, -2}});
}

TEST(AddSaturation, Float32IsUnlimited) {
    const double inf = std::numeric_limits<double>::infinity();
    checkSums(KUV_DEPTH_32F, {{3e38f, 3e38f, inf},
                              {-3e38f, -3e38f, -inf},
                              {FLT_MAX, FLT_MAX, inf},
                              {1.5, 2.25, 3.75},
                              {0.1f, 0.2f, static_cast<double>(0.1f + 0.2f)},
                              {1e-45f, 1e-45f, static_cast<double>(1e-45f + 1e-45f)},
                              {16777216.0, 1.0, 16777216.0},
                              {-7.5, 7.5, 0.0},
                              {1e30f, -1e30f, 0.0}});
}

TEST(AddSaturation, Float32NaNPropagates) {
    ImagePtr a = makeImage(KUV_DEPTH_32F, 1, 3, 1), b = makeImage(KUV_DEPTH_32F, 1, 3, 1),
             d = makeImage(KUV_DEPTH_32F, 1, 3, 1);
    put(a.get(), 1, 0, 0, std::numeric_limits<double>::quiet_NaN());
    put(b.get(), 1, 0, 0, 1.0);
    ReportCapture capture;
    kuvAdd(a.get(), b.get(), d.get());
    EXPECT_TRUE(std::isnan(get(d.get(), 1, 0, 0)));
}

// ----------------------------------------------- the cases of the pattern

TEST(AddPattern, DifferentSizesWithoutRegionsUseTheCommonCorner) {
    for (uint32_t depth : arithDepths()) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr a = makeImage(depth, 1, 100, 100), b = makeImage(depth, 1, 100, 100);
        ImagePtr d = makeImage(depth, 1, 70, 50);   // 50 rows of 70 columns
        fillRandom(a.get(), 21);
        fillRandom(b.get(), 22);
        fillRandom(d.get(), 23);
        checkAdd(a.get(), b.get(), d.get());
        // The other way round: a larger destination keeps what lies beyond.
        ImagePtr big = makeImage(depth, 1, 100, 100);
        fillRandom(big.get(), 24);
        const Snapshot before = snapshot(big.get());
        checkAdd(d.get(), a.get(), big.get());
        expectUnchangedExcept(before, big.get(), [](int x, int y, int) { return x < 70 && y < 50; });
    }
}

TEST(AddPattern, RegionsAtTheirOwnOrigins) {
    ImagePtr a = makeImage(KUV_DEPTH_16S, 1, 60, 80), b = makeImage(KUV_DEPTH_16S, 1, 100, 100);
    ImagePtr d = makeImage(KUV_DEPTH_16S, 1, 50, 50);
    fillRandom(a.get(), 31);
    fillRandom(b.get(), 32);
    fillRandom(d.get(), 33);
    setRoi(a.get(), 0, 10, 20, 30, 40);
    setRoi(d.get(), 0, 0, 0, 35, 35);
    const Snapshot before = snapshot(d.get());
    checkAdd(a.get(), b.get(), d.get());
    // A rectangle of width 30 and height 35 from A's (10, 20) and B's (0, 0).
    for (int y = 0; y < 35; ++y) {
        for (int x = 0; x < 30; ++x) {
            ASSERT_EQ(get(d.get(), x, y, 0),
                      saturateTo(KUV_DEPTH_16S, get(a.get(), 10 + x, 20 + y, 0) + get(b.get(), x, y, 0)));
        }
    }
    expectUnchangedExcept(before, d.get(), [](int x, int y, int) { return x < 30 && y < 35; });
}

TEST(AddPattern, RegionBeyondItsImageWritesAndReportsNothing) {
    for (int target = 0; target < 3; ++target) {
        SCOPED_TRACE(target);
        Trio t = validTrio(KUV_DEPTH_8U, 1);
        KuvImage* images[3] = {t.a.get(), t.b.get(), t.d.get()};
        setRoi(images[target], 0, target == 1 ? 0 : 200, target == 1 ? 9 : 0, 5, 5);
        const Snapshot before = snapshot(t.d.get());
        ReportCapture capture;
        kuvAdd(t.a.get(), t.b.get(), t.d.get());
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
        expectUnchangedExcept(before, t.d.get(), [](int, int, int) { return false; });
    }
}

TEST(AddPattern, ClippedRegionsRunToTheImagesEdge) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 3, 13, 9), b = makeImage(KUV_DEPTH_8U, 3, 11, 7);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 3, 17, 10);
    fillRandom(a.get(), 41);
    fillRandom(b.get(), 42);
    fillRandom(d.get(), 43);
    setRoi(a.get(), 0, 9, 4, 100, 100);   // 4 x 5 after clipping
    setRoi(b.get(), 0, 2, 1, 3, 50);      // 3 x 6
    setRoi(d.get(), 0, 12, 3, 40, 40);    // 5 x 7
    const Snapshot before = snapshot(d.get());
    checkAdd(a.get(), b.get(), d.get());
    expectUnchangedExcept(before, d.get(),
                          [](int x, int y, int) { return x >= 12 && x < 15 && y >= 3 && y < 8; });
}

TEST(AddPattern, RgbaPlusRgbKeepsTheDestinationsAlpha) {
    for (uint32_t depth : arithDepths()) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr a = makeImage(depth, 4, 9, 5, KUV_DATA_ORDER_PIXEL, 4);
        ImagePtr b = makeImage(depth, 3, 9, 5);
        ImagePtr d = makeImage(depth, 4, 9, 5, KUV_DATA_ORDER_PIXEL, 4);
        fillRandom(a.get(), 51);
        fillRandom(b.get(), 52);
        fillRandom(d.get(), 53);
        const Snapshot before = snapshot(d.get());
        checkAdd(a.get(), b.get(), d.get());
        expectUnchangedExcept(before, d.get(), [](int, int, int c) { return c < 3; });
        EXPECT_FALSE(paddingChanged(before, d.get()));
    }
}

TEST(AddPattern, ChannelOfInterestAgainstOneChannelImages) {
    ImagePtr a = makeImage(KUV_DEPTH_16U, 3, 7, 4), b = makeImage(KUV_DEPTH_16U, 1, 7, 4);
    ImagePtr d = makeImage(KUV_DEPTH_16U, 1, 7, 4);
    fillRandom(a.get(), 61);
    fillRandom(b.get(), 62);
    fillRandom(d.get(), 63);
    setRoi(a.get(), 2, 0, 0, 7, 4);
    checkAdd(a.get(), b.get(), d.get());
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 7; ++x) {
            ASSERT_EQ(get(d.get(), x, y, 0),
                      std::min(65535.0, get(a.get(), x, y, 1) + get(b.get(), x, y, 0)));
        }
    }
    // A channel of a 3-channel image and one of a 4-channel image into a one-channel image.
    ImagePtr four = makeImage(KUV_DEPTH_16U, 4, 7, 4);
    fillRandom(four.get(), 64);
    setRoi(four.get(), 4, 1, 1, 5, 2);
    checkAdd(a.get(), four.get(), d.get());
    // And into a channel of interest of the destination.
    ImagePtr d3 = makeImage(KUV_DEPTH_16U, 3, 7, 4);
    fillRandom(d3.get(), 65);
    setRoi(d3.get(), 3, 2, 0, 5, 4);
    const Snapshot before = snapshot(d3.get());
    checkAdd(b.get(), four.get(), d3.get());
    expectUnchangedExcept(before, d3.get(),
                          [](int x, int y, int c) { return c == 2 && x >= 2 && y < 2; });
}

TEST(AddPattern, ChannelOfInterestNamingAlphaIsComputed) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 4, 6, 3, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 6, 3), d = makeImage(KUV_DEPTH_8U, 1, 6, 3);
    fillRandom(a.get(), 71);
    fillRandom(b.get(), 72);
    setRoi(a.get(), 4, 0, 0, 6, 3);
    checkAdd(a.get(), b.get(), d.get());
    EXPECT_EQ(get(d.get(), 5, 2, 0), std::min(255.0, get(a.get(), 5, 2, 3) + get(b.get(), 5, 2, 0)));
    // The destination's alpha channel, named by its coi, is written.
    ImagePtr rgba = makeImage(KUV_DEPTH_8U, 4, 6, 3, KUV_DATA_ORDER_PIXEL, 4);
    fillRandom(rgba.get(), 73);
    setRoi(rgba.get(), 4, 0, 0, 6, 3);
    const Snapshot before = snapshot(rgba.get());
    checkAdd(b.get(), d.get(), rgba.get());
    expectUnchangedExcept(before, rgba.get(), [](int, int, int c) { return c == 3; });
}

TEST(AddPattern, FlatPathWritesPaddingWithSums) {
    for (uint32_t depth : arithDepths()) {
        for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            SCOPED_TRACE(depthName(depth) + (order ? " plane" : " pixel"));
            // Align 8 leaves padding at every depth: 8U rows of 15 bytes in 16, plane rows of 5 in 8.
            ImagePtr a = makeImage(depth, 3, 5, 3, order, 0, 8);
            ImagePtr b = makeImage(depth, 3, 5, 3, order, 0, 8);
            ImagePtr d = makeImage(depth, 3, 5, 3, order, 0, 8);
            fillRandom(a.get(), 81);
            fillRandom(b.get(), 82);
            fillRandom(d.get(), 83);
            const Snapshot before = snapshot(d.get());
            checkAdd(a.get(), b.get(), d.get());   // padding compared against the sums
            EXPECT_TRUE(paddingChanged(before, d.get())) << "the row padding was not written";
            // A region at (0, 0) of the whole size (or larger), coi 0: still flat.
            for (KuvImage* im : {a.get(), b.get(), d.get()}) setRoi(im, 0, 0, 0, 5, 3);
            setRoi(b.get(), 0, 0, 0, 50, 30);
            fillRandom(d.get(), 84);
            checkAdd(a.get(), b.get(), d.get());
        }
    }
}

TEST(AddPattern, NoFlatPathWithAlphaOrAPartialRegion) {
    for (uint32_t depth : arithDepths()) {
        SCOPED_TRACE(depthName(depth));
        // One geometry, whole images, but an alpha channel: padding and alpha stay.
        ImagePtr im[3];
        for (int i = 0; i < 3; ++i) {
            im[i] = makeImage(depth, 3, 5, 3, KUV_DATA_ORDER_PIXEL, 3, 8);
            fillRandom(im[i].get(), 90 + i);
        }
        Snapshot before = snapshot(im[2].get());
        checkAdd(im[0].get(), im[1].get(), im[2].get());
        expectUnchangedExcept(before, im[2].get(), [](int, int, int c) { return c < 2; });
        // A region one column short of the image: padding stays.
        ImagePtr a = makeImage(depth, 3, 5, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
        ImagePtr b = makeImage(depth, 3, 5, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
        ImagePtr d = makeImage(depth, 3, 5, 3, KUV_DATA_ORDER_PIXEL, 0, 8);
        fillRandom(a.get(), 93);
        fillRandom(b.get(), 94);
        fillRandom(d.get(), 95);
        setRoi(a.get(), 0, 0, 0, 4, 3);
        before = snapshot(d.get());
        checkAdd(a.get(), b.get(), d.get());
        EXPECT_FALSE(paddingChanged(before, d.get()));
    }
}

TEST(AddPattern, CoiOneOnOneChannelImagesIsFlatCoiOneOnThreeIsNot) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 5, 3), b = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 5, 3);
    fillRandom(a.get(), 101);
    fillRandom(b.get(), 102);
    fillRandom(d.get(), 103);
    setRoi(a.get(), 1, 0, 0, 5, 3);
    Snapshot before = snapshot(d.get());
    checkAdd(a.get(), b.get(), d.get());
    EXPECT_TRUE(paddingChanged(before, d.get()));

    ImagePtr a3 = makeImage(KUV_DEPTH_8U, 3, 5, 3), b3 = makeImage(KUV_DEPTH_8U, 3, 5, 3);
    ImagePtr d3 = makeImage(KUV_DEPTH_8U, 3, 5, 3);
    fillRandom(a3.get(), 104);
    fillRandom(b3.get(), 105);
    fillRandom(d3.get(), 106);
    for (KuvImage* im : {a3.get(), b3.get(), d3.get()}) setRoi(im, 1, 0, 0, 5, 3);
    before = snapshot(d3.get());
    checkAdd(a3.get(), b3.get(), d3.get());
    expectUnchangedExcept(before, d3.get(), [](int, int, int c) { return c == 0; });
}

TEST(AddPattern, OriginAndColorModelAreNotCompared) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 3, 6, 4), b = makeImage(KUV_DEPTH_8U, 3, 6, 4);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 3, 6, 4, KUV_DATA_ORDER_PIXEL, 0, 8);
    a->origin = KUV_ORIGIN_BOTTOM_LEFT;
    std::memcpy(b->colorModel, "HSV\0", 4);
    fillRandom(a.get(), 111);
    fillRandom(b.get(), 112);
    checkAdd(a.get(), b.get(), d.get());
}

// ------------------------------------------------------------- in place

TEST(AddInPlace, DestinationAsEitherSourceEqualsOutOfPlace) {
    for (uint32_t depth : arithDepths()) {
        for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
            for (int variant = 0; variant < 4; ++variant) {
                const bool intoB = variant & 1, withRegion = variant & 2;
                SCOPED_TRACE(depthName(depth) + (order ? " plane" : " pixel") +
                             (intoB ? " into B" : " into A") + (withRegion ? " region" : ""));
                ImagePtr a = makeImage(depth, 3, 11, 7, order), b = makeImage(depth, 3, 11, 7, order);
                fillRandom(a.get(), 121 + variant);
                fillRandom(b.get(), 131 + variant);
                if (withRegion) {
                    setRoi(a.get(), 0, 2, 1, 6, 5);
                    setRoi(b.get(), 0, 2, 1, 6, 5);
                }
                ImagePtr out = copyImage(intoB ? b.get() : a.get());
                ReportCapture capture;
                kuvAdd(a.get(), b.get(), out.get());
                KuvImage* dst = intoB ? b.get() : a.get();
                kuvAdd(a.get(), b.get(), dst);
                EXPECT_EQ(capture.count(), 0u);
                EXPECT_TRUE(sameImage(out.get(), dst, true));
            }
        }
    }
}

TEST(AddInPlace, OneRecordAsAllThreeDoublesEachElement) {
    for (uint32_t depth : arithDepths()) {
        SCOPED_TRACE(depthName(depth));
        ImagePtr a = makeImage(depth, 2, 9, 5);
        fillRandom(a.get(), 141);
        setRoi(a.get(), 0, 1, 1, 7, 3);
        ImagePtr b = copyImage(a.get()), out = copyImage(a.get());
        ReportCapture capture;
        kuvAdd(a.get(), b.get(), out.get());
        kuvAdd(a.get(), a.get(), a.get());
        EXPECT_EQ(capture.count(), 0u);
        EXPECT_TRUE(sameImage(out.get(), a.get(), true));
    }
}

// ---------------------------------------------------------- allocations

TEST(AddAllocation, NoBlockWithoutMasksAndATemporaryOnlyWhileMasksMerge) {
    // ownOutstandingBlocks counts the kuvMalloc family and pixel blocks; it
    // cannot see a plain heap allocation made and freed inside the call.
    // A tile procedure samples the count in the middle of the walk.
    ImagePtr backing = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    TileStore store(std::move(backing), 8, 8);
    ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 16, 16), d = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    ReportCapture capture;
    long before = outstandingBlocks();
    kuvAdd(store.image(), b.get(), d.get());
    EXPECT_EQ(outstandingBlocks(), before);
    ASSERT_FALSE(store.blocksAtRequests().empty());
    for (long seen : store.blocksAtRequests()) EXPECT_EQ(seen, before);

    // One mask: used directly, no temporary.
    attachMask(d.get(), makeMask(16, 16, 1));
    store.clearLog();
    before = outstandingBlocks();
    kuvAdd(store.image(), b.get(), d.get());
    ASSERT_FALSE(store.blocksAtRequests().empty());
    for (long seen : store.blocksAtRequests()) EXPECT_EQ(seen, before);

    // Two masks: a merged temporary (header and pixels) lives during the walk only.
    attachMask(b.get(), makeMask(16, 16, 1));
    store.clearLog();
    before = outstandingBlocks();
    kuvAdd(store.image(), b.get(), d.get());
    EXPECT_EQ(outstandingBlocks(), before);
    ASSERT_FALSE(store.blocksAtRequests().empty());
    for (long seen : store.blocksAtRequests()) EXPECT_EQ(seen, before + 2);
    EXPECT_EQ(capture.count(), 0u);
}

// ------------------------------------------------------------------ masks

TEST(AddMask, OneMaskOnTheDestinationIsUsedDirectly) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 100, 6), b = makeImage(KUV_DEPTH_8U, 1, 100, 6);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 100, 6);
    fillRandom(a.get(), 151);
    fillRandom(b.get(), 152);
    fillRandom(d.get(), 153);
    attachMask(d.get(), makeMask(10, 6, 1));   // 10 columns, all set
    const KuvImage* mask = d->maskROI;
    const Snapshot maskBefore = snapshot(mask);
    const Snapshot before = snapshot(d.get());
    checkAdd(a.get(), b.get(), d.get());
    expectUnchangedExcept(before, d.get(), [](int x, int, int) { return x < 10; });
    EXPECT_EQ(d->maskROI, mask);
    expectUnchangedExcept(maskBefore, mask, [](int, int, int) { return false; });
}

TEST(AddMask, AClearBitLeavesEveryChannelOfThePixel) {
    for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
        SCOPED_TRACE(order);
        ImagePtr a = makeImage(KUV_DEPTH_16S, 3, 13, 5, order), b = makeImage(KUV_DEPTH_16S, 3, 13, 5, order);
        ImagePtr d = makeImage(KUV_DEPTH_16S, 3, 13, 5, order);
        fillRandom(a.get(), 161);
        fillRandom(b.get(), 162);
        fillRandom(d.get(), 163);
        ImagePtr mask = makeMask(13, 5, 1);
        for (int y = 0; y < 5; ++y) {
            for (int x = 0; x < 13; ++x) put(mask.get(), x, y, 0, (x + y) % 3 != 0);
        }
        const KuvImage* m = mask.get();
        attachMask(a.get(), std::move(mask));
        const Snapshot before = snapshot(d.get());
        checkAdd(a.get(), b.get(), d.get());
        // Clear bits: all channels kept; padding kept although the layouts match.
        expectUnchangedExcept(before, d.get(), [m](int x, int y, int) { return get(m, x, y, 0) != 0; });
    }
}

TEST(AddMask, RegionOffsetThreeReadsTheFourthBitFromTheTop) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 8, 1), b = makeImage(KUV_DEPTH_8U, 1, 8, 1);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 8, 1);
    fillRandom(a.get(), 171);
    fillRandom(b.get(), 172);
    fillRandom(d.get(), 173);
    ImagePtr mask = makeMask(16, 1, 0);
    mask->imageData[0] = 0x10;   // bit 4 from the least significant: column 3
    setRoi(mask.get(), 0, 3, 0, 13, 1);
    attachMask(b.get(), std::move(mask));
    const Snapshot before = snapshot(d.get());
    checkAdd(a.get(), b.get(), d.get());
    expectUnchangedExcept(before, d.get(), [](int x, int, int) { return x == 0; });
    EXPECT_EQ(get(d.get(), 0, 0, 0), std::min(255.0, get(a.get(), 0, 0, 0) + get(b.get(), 0, 0, 0)));
}

TEST(AddMask, TwoAndThreeMasksMergeFromTheirOwnRegionStarts) {
    for (int count = 2; count <= 3; ++count) {
        for (uint32_t depth : {KUV_DEPTH_8U, KUV_DEPTH_32F}) {
            SCOPED_TRACE(std::to_string(count) + " masks " + depthName(depth));
            ImagePtr a = makeImage(depth, 2, 40, 9), b = makeImage(depth, 2, 40, 9);
            ImagePtr d = makeImage(depth, 2, 40, 9);
            fillRandom(a.get(), 181);
            fillRandom(b.get(), 182);
            fillRandom(d.get(), 183);
            const int offsets[3][2] = {{3, 1}, {11, 0}, {6, 2}};
            KuvImage* images[3] = {a.get(), count == 3 ? b.get() : d.get(), d.get()};
            for (int i = 0; i < count; ++i) {
                ImagePtr mask = makeMask(45 - i, 12);
                fillRandom(mask.get(), 190 + i);
                setRoi(mask.get(), 0, offsets[i][0], offsets[i][1], 30 + 3 * i, 7);
                attachMask(images[i], std::move(mask));
            }
            checkAdd(a.get(), b.get(), d.get());
        }
    }
}

TEST(AddMask, EmptyMaskOverlapWritesNothing) {
    Trio t = validTrio(KUV_DEPTH_8U, 1);
    attachMask(t.a.get(), makeMask(7, 5, 1));
    ImagePtr beyond = makeMask(7, 5, 1);
    setRoi(beyond.get(), 0, 20, 0, 3, 3);
    attachMask(t.d.get(), std::move(beyond));
    const Snapshot before = snapshot(t.d.get());
    ReportCapture capture;
    kuvAdd(t.a.get(), t.b.get(), t.d.get());
    EXPECT_EQ(capture.count(), 0u);
    expectUnchangedExcept(before, t.d.get(), [](int, int, int) { return false; });
    // A single mask beyond its image: the rectangle is empty.
    attachMask(t.a.get(), nullptr);
    kuvAdd(t.a.get(), t.b.get(), t.d.get());
    EXPECT_EQ(capture.count(), 0u);
    expectUnchangedExcept(before, t.d.get(), [](int, int, int) { return false; });
}

TEST(AddMask, MaskWithChannelOfInterestAndAlpha) {
    ImagePtr a = makeImage(KUV_DEPTH_16U, 4, 19, 6, KUV_DATA_ORDER_PIXEL, 4);
    ImagePtr b = makeImage(KUV_DEPTH_16U, 3, 19, 6);
    ImagePtr d = makeImage(KUV_DEPTH_16U, 4, 19, 6, KUV_DATA_ORDER_PIXEL, 4);
    for (KuvImage* im : {a.get(), b.get(), d.get()}) fillRandom(im, uint64_t(im->nChannels) * 7 + 200);
    ImagePtr mask = makeMask(19, 6);
    fillRandom(mask.get(), 201);
    attachMask(d.get(), std::move(mask));
    checkAdd(a.get(), b.get(), d.get());
    // coi 2 of srcImageA with one-channel images, a mask on each of the three.
    setRoi(a.get(), 2, 1, 1, 15, 4);
    ImagePtr oneB = makeImage(KUV_DEPTH_16U, 1, 19, 6), oneD = makeImage(KUV_DEPTH_16U, 1, 19, 6);
    fillRandom(oneB.get(), 202);
    fillRandom(oneD.get(), 203);
    attachMask(oneB.get(), makeMask(19, 6, 1));
    attachMask(oneD.get(), makeMask(17, 6));
    fillRandom(oneD->maskROI, 204);
    checkAdd(a.get(), oneB.get(), oneD.get());
}

// ------------------------------------------------------------------ tiles

using Call = TileStore::Call;

Call call(const TileStore& s, int col, int row, int mode) { return Call{s.id(), {col, row, mode}}; }

TEST(AddTiles, TwoByTwoTilesRequestOrder) {
    ImagePtr backA = makeImage(KUV_DEPTH_8U, 1, 16, 16), backD = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    fillRandom(backA.get(), 211);
    TileStore a(std::move(backA), 8, 8), d(std::move(backD), 8, 8);
    ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 16, 16);
    fillRandom(b.get(), 212);
    TileStore::clearCalls();
    ReportCapture capture;
    kuvAdd(a.image(), b.get(), d.image());
    EXPECT_EQ(capture.count(), 0u);
    const int R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;
    std::vector<Call> expected;
    for (int u = 0; u < 2; ++u) {
        std::vector<Call> band = {call(a, 0, u, R), call(d, 0, u, W), call(a, 0, u, X),
                                  call(a, 1, u, R), call(d, 0, u, X), call(d, 1, u, W),
                                  call(a, 1, u, X), call(d, 1, u, X)};
        expected.insert(expected.end(), band.begin(), band.end());
    }
    EXPECT_EQ(TileStore::calls(), expected);
    EXPECT_TRUE(a.faults().empty() && d.faults().empty());
    for (int y = 0; y < 16; ++y) {
        for (int x = 0; x < 16; ++x) {
            ASSERT_EQ(get(d.backing(), x, y, 0),
                      std::min(255.0, get(a.backing(), x, y, 0) + get(b.get(), x, y, 0)));
        }
    }
}

TEST(AddTiles, RectangleInsideOneTile) {
    ImagePtr back = makeImage(KUV_DEPTH_16S, 2, 20, 20);
    fillRandom(back.get(), 221);
    TileStore a(std::move(back), 8, 8);
    setRoi(a.image(), 0, 9, 9, 5, 5);
    ImagePtr b = makeImage(KUV_DEPTH_16S, 2, 5, 5), d = makeImage(KUV_DEPTH_16S, 2, 5, 5);
    TileStore::clearCalls();
    ReportCapture capture;
    kuvAdd(a.image(), b.get(), d.get());
    EXPECT_EQ(TileStore::calls(),
              (std::vector<Call>{call(a, 1, 1, KUV_TILE_READ), call(a, 1, 1, KUV_TILE_RELEASE)}));
    EXPECT_EQ(get(d.get(), 4, 4, 1), get(a.backing(), 13, 13, 1));
}

TEST(AddTiles, BandsFollowTheShortestTile) {
    ImagePtr backA = makeImage(KUV_DEPTH_32S, 1, 8, 16), backD = makeImage(KUV_DEPTH_32S, 1, 8, 16);
    fillRandom(backA.get(), 231);
    TileStore a(std::move(backA), 8, 8), d(std::move(backD), 8, 16);
    ImagePtr b = makeImage(KUV_DEPTH_32S, 1, 8, 16);
    TileStore::clearCalls();
    ReportCapture capture;
    kuvAdd(a.image(), b.get(), d.image());
    const int R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;
    EXPECT_EQ(TileStore::calls(),
              (std::vector<Call>{call(a, 0, 0, R), call(d, 0, 0, W), call(a, 0, 0, X), call(d, 0, 0, X),
                                 call(a, 0, 1, R), call(d, 0, 0, W), call(a, 0, 1, X), call(d, 0, 0, X)}));
    EXPECT_TRUE(sameImage(a.backing(), d.backing(), false));   // b is all zeros
}

TEST(AddTiles, SourceSameRecordAsDestinationIsOnlyWritten) {
    ImagePtr back = makeImage(KUV_DEPTH_8S, 3, 20, 12, KUV_DATA_ORDER_PLANE);
    fillRandom(back.get(), 241);
    ImagePtr expected = copyImage(back.get());
    TileStore d(std::move(back), 8, 8);
    ImagePtr b = makeImage(KUV_DEPTH_8S, 3, 20, 12, KUV_DATA_ORDER_PLANE);
    fillRandom(b.get(), 242);
    referenceAdd(copyImage(expected.get()).get(), b.get(), expected.get(), {});
    ReportCapture capture;
    kuvAdd(d.image(), b.get(), d.image());
    EXPECT_EQ(capture.count(), 0u);
    for (const TileStore::Request& r : d.log()) EXPECT_NE(r.mode, KUV_TILE_READ);
    EXPECT_TRUE(sameImage(expected.get(), d.backing(), false));
    EXPECT_TRUE(d.faults().empty());
}

TEST(AddTiles, LastTileOfARowIsTheLastAskedFor) {
    ImagePtr back = makeImage(KUV_DEPTH_8U, 1, 20, 8);
    TileStore a(std::move(back), 8, 8);
    setRoi(a.image(), 0, 17, 0, 10, 8);   // clipped to columns 17..19, tile column 2
    ImagePtr b = makeImage(KUV_DEPTH_8U, 1, 20, 8), d = makeImage(KUV_DEPTH_8U, 1, 20, 8);
    ReportCapture capture;
    kuvAdd(a.image(), b.get(), d.get());
    EXPECT_EQ(a.log(), (std::vector<TileStore::Request>{{2, 0, KUV_TILE_READ}, {2, 0, KUV_TILE_RELEASE}}));
    EXPECT_TRUE(a.faults().empty());
}

// All three images tiled 8x8 over 16x16: every READ or WRITE made to fail in
// turn. The calls before it are the successful run's, nothing after it; the
// report names the image; only destination tiles handed back are written.
TEST(AddTiles, FailedRequestAtEachPosition) {
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
    {
        ReportCapture capture;
        kuvAdd(ok[0]->image(), ok[1]->image(), ok[2]->image());
        ASSERT_EQ(capture.count(), 0u);
    }
    const std::vector<Call> full = TileStore::calls();
    ASSERT_EQ(full.size(), 24u);
    const char* texts[3] = {"(srcImageA->tileInfo->tileData == ((void*)(0)))",
                            "(srcImageB->tileInfo->tileData == ((void*)(0)))",
                            "(dstImage->tileInfo->tileData == ((void*)(0)))"};
    for (size_t j = 0; j < full.size(); ++j) {
        if (full[j].request.mode == KUV_TILE_RELEASE) continue;
        SCOPED_TRACE("failing call " + std::to_string(j));
        int who = 0;
        while (ok[who]->id() != full[j].store) ++who;
        int k = 0;
        for (size_t i = 0; i <= j; ++i) {
            k += full[i].store == full[j].store && full[i].request.mode != KUV_TILE_RELEASE;
        }
        std::unique_ptr<TileStore> s[3];
        build(s);
        s[who]->failRequest(k);
        const Snapshot dstBefore = snapshot(s[2]->backing());
        TileStore::clearCalls();
        ReportCapture capture;
        kuvAdd(s[0]->image(), s[1]->image(), s[2]->image());
        EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, kFunc, texts[who], kFile));
        std::vector<Call> prefix;
        std::vector<std::pair<int, int>> written;
        for (size_t i = 0; i <= j; ++i) {
            const Call& c = full[i];
            prefix.push_back(Call{c.store == ok[0]->id() ? s[0]->id()
                                  : c.store == ok[1]->id() ? s[1]->id()
                                                           : s[2]->id(),
                                  c.request});
            if (c.store == ok[2]->id() && c.request.mode == KUV_TILE_RELEASE) {
                written.emplace_back(c.request.col, c.request.row);
            }
        }
        EXPECT_EQ(TileStore::calls(), prefix);
        auto inWritten = [&](int x, int y, int) {
            for (auto [col, row] : written) {
                if (x / 8 == col && y / 8 == row) return true;
            }
            return false;
        };
        expectUnchangedExcept(dstBefore, s[2]->backing(), inWritten);
        for (auto [col, row] : written) {
            EXPECT_EQ(get(s[2]->backing(), col * 8 + 3, row * 8 + 5, 0),
                      std::min(65535.0, get(s[0]->backing(), col * 8 + 3, row * 8 + 5, 0) +
                                            get(s[1]->backing(), col * 8 + 3, row * 8 + 5, 0)));
        }
    }
}

// --------------------------------------------------- seeded differential

struct MaskCfg {
    bool present = false;
    int w = 0, h = 0;
    bool roi = false;
    int x = 0, y = 0, rw = 0, rh = 0;
};

struct ImageCfg {
    int nChannels = 1, alpha = 0, w = 1, h = 1, align = 4;
    bool roi = false;
    int coi = 0, x = 0, y = 0, rw = 0, rh = 0;
    MaskCfg mask;
    int tileW = 0, tileH = 0;
};

struct CaseCfg {
    uint32_t depth;
    int order;
    ImageCfg img[3];
    int alias = -1;   // 0: the destination is srcImageA's record
};

std::ostream& operator<<(std::ostream& out, const CaseCfg& c) {
    out << depthName(c.depth) << (c.order ? " plane" : " pixel");
    if (c.alias == 0) out << " dst=srcA";
    const char* names[3] = {"A", "B", "D"};
    for (int i = 0; i < 3; ++i) {
        const ImageCfg& m = c.img[i];
        out << "\n  " << names[i] << ": " << m.w << "x" << m.h << " ch " << m.nChannels
            << " alpha " << m.alpha << " align " << m.align;
        if (m.roi) out << " roi{coi " << m.coi << ", " << m.x << "," << m.y << " " << m.rw << "x" << m.rh << "}";
        if (m.mask.present) {
            out << " mask " << m.mask.w << "x" << m.mask.h;
            if (m.mask.roi) out << " roi " << m.mask.x << "," << m.mask.y << " " << m.mask.rw << "x" << m.mask.rh;
        }
        if (m.tileW) out << " tiles " << m.tileW << "x" << m.tileH;
    }
    return out;
}

CaseCfg makeCase(uint32_t depth, int order, uint64_t seed) {
    Rng rng(seed);
    CaseCfg c{depth, order, {}, -1};
    const int aligns[4] = {4, 8, 16, 32};
    if (rng.chance(0.2)) {
        // One geometry, whole regions: the flat path.
        const int p = int(rng.uniform(1, 4)), w = int(rng.uniform(1, 23)), h = int(rng.uniform(1, 9));
        const int align = aligns[rng.uniform(0, 3)];
        for (ImageCfg& m : c.img) {
            m.nChannels = p;
            m.w = w;
            m.h = h;
            m.align = align;
            if (rng.chance(0.4)) {
                m.roi = true;
                m.coi = p == 1 && rng.chance(0.5) ? 1 : 0;
                m.rw = w + int(rng.uniform(0, 3));
                m.rh = h + int(rng.uniform(0, 3));
            }
        }
        return c;
    }
    const bool coiMode = rng.chance(0.35);
    const int p = int(rng.uniform(1, 4));
    const int forced = int(rng.uniform(0, 2));
    for (int i = 0; i < 3; ++i) {
        ImageCfg& m = c.img[i];
        m.w = int(rng.uniform(1, 29));
        m.h = int(rng.uniform(1, 17));
        m.align = aligns[rng.uniform(0, 3)];
        if (coiMode && (i == forced || rng.chance(0.5))) {
            m.nChannels = int(rng.uniform(1, 4));
            if (m.nChannels > 1 && rng.chance(0.3)) m.alpha = m.nChannels;
            m.roi = true;
            m.coi = int(rng.uniform(1, m.nChannels));
        } else {
            const int withAlpha = rng.chance(0.3) ? 1 : 0;
            m.nChannels = (coiMode ? 1 : p) + withAlpha;
            m.alpha = withAlpha ? m.nChannels : 0;
            m.roi = rng.chance(0.5);
        }
        if (m.roi) {
            m.x = rng.chance(0.04) ? m.w + 2 : int(rng.uniform(0, m.w - 1));
            m.y = rng.chance(0.04) ? m.h + 1 : int(rng.uniform(0, m.h - 1));
            m.rw = int(rng.uniform(1, m.w + 4));
            m.rh = int(rng.uniform(1, m.h + 4));
        }
        if (rng.chance(0.2)) {
            MaskCfg& k = m.mask;
            k.present = true;
            k.w = int(rng.uniform(1, 33));
            k.h = int(rng.uniform(1, 19));
            if (rng.chance(0.5)) {
                k.roi = true;
                k.x = int(rng.uniform(0, k.w - 1));
                k.y = int(rng.uniform(0, k.h - 1));
                k.rw = int(rng.uniform(1, k.w + 3));
                k.rh = int(rng.uniform(1, k.h + 3));
            }
        }
        if (rng.chance(0.2)) {
            m.tileW = 8 * int(rng.uniform(1, 3));
            m.tileH = 8 * int(rng.uniform(1, 2));
        }
    }
    if (rng.chance(0.1)) c.alias = 0;
    return c;
}

void runCase(const CaseCfg& c, uint64_t seed) {
    ImagePtr plain[3];
    for (int i = 0; i < 3; ++i) {
        const ImageCfg& m = c.img[i];
        plain[i] = makeImage(c.depth, m.nChannels, m.w, m.h, c.order, m.alpha, m.align);
        ASSERT_TRUE(plain[i]);
        fillRandom(plain[i].get(), seed * 7 + i);
        if (m.roi) setRoi(plain[i].get(), m.coi, m.x, m.y, m.rw, m.rh);
        if (m.mask.present) {
            ImagePtr mask = makeMask(m.mask.w, m.mask.h);
            fillRandom(mask.get(), seed * 7 + 3 + i);
            if (m.mask.roi) setRoi(mask.get(), 0, m.mask.x, m.mask.y, m.mask.rw, m.mask.rh);
            attachMask(plain[i].get(), std::move(mask));
        }
    }
    const int nImages = c.alias == 0 ? 2 : 3;
    KuvImage* dstPlain = c.alias == 0 ? plain[0].get() : plain[2].get();

    ImagePtr expected = copyImage(dstPlain);
    {
        ImagePtr ca = copyImage(plain[0].get()), cb = copyImage(plain[1].get());
        referenceAdd(ca.get(), cb.get(), expected.get(), masksOf(plain[0].get(), plain[1].get(), dstPlain));
    }

    // Tiled images: a store over a copy of the pixels, with the same region and mask.
    std::unique_ptr<TileStore> store[3];
    KuvImage* arg[3] = {plain[0].get(), plain[1].get(), plain[2].get()};
    bool anyTiled = false;
    for (int i = 0; i < nImages; ++i) {
        const ImageCfg& m = c.img[i];
        if (m.tileW == 0) continue;
        anyTiled = true;
        ImagePtr backing = copyImage(plain[i].get());
        clearRoi(backing.get());
        store[i] = std::make_unique<TileStore>(std::move(backing), m.tileW, m.tileH);
        if (m.roi) setRoi(store[i]->image(), m.coi, m.x, m.y, m.rw, m.rh);
        if (plain[i]->maskROI != nullptr) attachMask(store[i]->image(), copyImage(plain[i]->maskROI));
        arg[i] = store[i]->image();
    }
    if (c.alias == 0) arg[2] = arg[0];
    auto result = [&](int i) -> KuvImage* { return store[i] ? store[i]->backing() : plain[i].get(); };
    const int dstIndex = c.alias == 0 ? 0 : 2;

    Snapshot srcBefore[2] = {snapshot(result(0)), snapshot(result(1))};
    const Snapshot dstBefore = snapshot(result(dstIndex));
    const long blocks = outstandingBlocks();
    {
        ReportCapture capture;
        kuvAdd(arg[0], arg[1], arg[2]);
        EXPECT_EQ(capture.count(), 0u) << (capture.count() ? capture.reports()[0] : Report{});
    }
    EXPECT_EQ(outstandingBlocks(), blocks);
    // Padding: written with sums on the flat path. Under tiles a piece that
    // covers whole tiles may take the flat path in its working headers, so an
    // untiled destination's padding is then not compared; a tiled one's
    // padding lies in no tile and must stay.
    EXPECT_TRUE(sameImage(expected.get(), result(dstIndex), !anyTiled));
    if (store[dstIndex]) EXPECT_FALSE(paddingChanged(dstBefore, result(dstIndex)));
    auto never = [](int, int, int) { return false; };
    for (int i = 0; i < 2; ++i) {
        if (i == dstIndex) continue;
        EXPECT_TRUE(unchangedExcept(srcBefore[i], result(i), never)) << "source " << i << " changed";
    }
    for (int i = 0; i < 3; ++i) {
        if (!store[i]) continue;
        EXPECT_EQ(store[i]->held(), 0) << "image " << i << " kept a tile";
        for (const std::string& f : store[i]->faults()) ADD_FAILURE() << "image " << i << ": " << f;
    }
}

// A seed names its depth and order, so that it reruns alone: d * 1e6 + o * 1e5 + i.
uint64_t seedOf(uint32_t depth, int order, int i) {
    const auto& depths = arithDepths();
    const auto index = std::find(depths.begin(), depths.end(), depth) - depths.begin();
    return uint64_t(index) * 1000000 + uint64_t(order) * 100000 + uint64_t(i);
}

class AddDifferential : public ::testing::TestWithParam<std::tuple<uint32_t, int>> {};

TEST_P(AddDifferential, AgainstTheReference) {
    const auto [depth, order] = GetParam();
    const int cases = 150;
    for (int i = 0; i < cases; ++i) {
        const uint64_t seed = seedOf(depth, order, i);
        const CaseCfg c = makeCase(depth, order, seed);
        std::ostringstream trace;
        trace << "seed " << seed << " (rerun: KUV_ADD_SEED=" << seed << " --gtest_filter=AddReplay.*): " << c;
        SCOPED_TRACE(trace.str());
        runCase(c, seed);
        if (HasFailure()) break;
    }
}

INSTANTIATE_TEST_SUITE_P(
    DepthsAndOrders, AddDifferential,
    ::testing::Combine(::testing::Values(KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S,
                                         KUV_DEPTH_32S, KUV_DEPTH_32F),
                       ::testing::Values(KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE)),
    [](const ::testing::TestParamInfo<std::tuple<uint32_t, int>>& info) {
        return depthName(std::get<0>(info.param)) + (std::get<1>(info.param) ? "_plane" : "_pixel");
    });

// Masks on tiled images follow the image coordinates of the rectangle
// across tile boundaries; the mask itself is never tiled.
TEST(AddTiles, MasksFollowTheRectangleAcrossTiles) {
    for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
        CaseCfg c{KUV_DEPTH_16S, order, {}, -1};
        for (int i = 0; i < 3; ++i) {
            ImageCfg& m = c.img[i];
            m.nChannels = 3;
            m.w = 37 - i;
            m.h = 21 + i;
            m.roi = true;
            m.x = 3 + 2 * i;
            m.y = 5 - i;
            m.rw = 30;
            m.rh = 40;
            m.tileW = i == 1 ? 0 : 8 * (i + 1);
            m.tileH = 8;
        }
        c.img[0].mask = MaskCfg{true, 40, 30, true, 5, 3, 33, 20};
        c.img[2].mask = MaskCfg{true, 29, 17, false, 0, 0, 0, 0};
        std::ostringstream trace;
        trace << c;
        SCOPED_TRACE(trace.str());
        runCase(c, 4242 + order);
    }
}

// Reruns one seed of the differential run alone.
TEST(AddReplay, OneSeed) {
    const char* text = std::getenv("KUV_ADD_SEED");
    if (text == nullptr) GTEST_SKIP() << "set KUV_ADD_SEED to a seed printed by AddDifferential";
    const uint64_t seed = std::strtoull(text, nullptr, 10);
    const size_t index = seed / 1000000;
    ASSERT_LT(index, arithDepths().size());
    const CaseCfg c = makeCase(arithDepths()[index], int(seed / 100000 % 10), seed);
    std::ostringstream trace;
    trace << "seed " << seed << ": " << c;
    SCOPED_TRACE(trace.str());
    runCase(c, seed);
}

}  // namespace
