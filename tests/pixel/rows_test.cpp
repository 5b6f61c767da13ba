// The AVX2 row loops of the pixelwise family against the plain ones.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "kuv.h"
#include "tests/support/kuv_test.h"

namespace {

uint32_t g_seed = 0;
uint32_t nextRandom() { return (g_seed = g_seed * 1664525u + 1013904223u) >> 8; }

KuvImage* randomImage(uint32_t depth, int nCh, int w, int h, KuvROI* roi) {
    KuvImage* im = kuvCreateImageHeader(nCh, 0, depth, "RGB", "BGR", KUV_DATA_ORDER_PIXEL,
                                        KUV_ORIGIN_TOP_LEFT, 4, w, h, roi, nullptr, 0, nullptr);
    if (depth == KUV_DEPTH_32F) kuvAllocateImageFP(im, 0, 0.0f);
    else kuvAllocateImage(im, 0, 0);
    for (int32_t i = 0; i < im->imageSize; ++i) im->imageData[i] = char(nextRandom());
    if (depth == KUV_DEPTH_32F) {
        auto* f = reinterpret_cast<float*>(im->imageData);
        for (int32_t i = 0; i < im->imageSize / 4; ++i) f[i] = float(int(nextRandom() % 2001) - 1000) * 0.37f;
    }
    return im;
}

// Mask bytes clear, set and mixed, so that every kind of 64-pixel chunk occurs.
KuvImage* randomMask(int w, int h) {
    KuvImage* m = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, "G", "G", KUV_DATA_ORDER_PIXEL,
                                       KUV_ORIGIN_TOP_LEFT, 4, w, h, nullptr, nullptr, 0, nullptr);
    kuvAllocateImage(m, 0, 0);
    for (int32_t i = 0; i < m->imageSize; ++i) {
        const uint32_t k = nextRandom() % 3;
        m->imageData[i] = char(k == 0 ? 0x00 : k == 1 ? 0xFF : nextRandom());
    }
    return m;
}

using Call = std::function<void(KuvImage*, KuvImage*, KuvImage*)>;

struct Case {
    const char* name;
    std::vector<uint32_t> depths;
    Call call;
};

TEST(PixelRows, WideRowsGiveThePlainRowsResults) {
    const std::vector<uint32_t> ints = {KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S,
                                        KUV_DEPTH_32S};
    std::vector<uint32_t> all = ints;
    all.push_back(KUV_DEPTH_32F);
    const std::vector<uint32_t> f = {KUV_DEPTH_32F};
    const std::vector<uint32_t> s = {KUV_DEPTH_8S, KUV_DEPTH_16S, KUV_DEPTH_32S, KUV_DEPTH_32F};
    std::vector<Case> cases = {
        {"kuvAdd", all, [](KuvImage* a, KuvImage* b, KuvImage* d) { kuvAdd(a, b, d); }},
        {"kuvSubtract", all, [](KuvImage* a, KuvImage* b, KuvImage* d) { kuvSubtract(a, b, d); }},
        {"kuvMultiply", all, [](KuvImage* a, KuvImage* b, KuvImage* d) { kuvMultiply(a, b, d); }},
        {"kuvSquare", all, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvSquare(a, d); }},
        {"kuvAbs", s, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvAbs(a, d); }},
        {"kuvAnd", ints, [](KuvImage* a, KuvImage* b, KuvImage* d) { kuvAnd(a, b, d); }},
        {"kuvXorS", ints, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvXorS(a, d, 0x5A5A); }},
        {"kuvAddSFP", f, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvAddSFP(a, d, 0.375f); }},
        {"kuvSubtractSFP", f, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvSubtractSFP(a, d, 3.5f, 1); }},
        {"kuvMultiplySFP", f, [](KuvImage* a, KuvImage*, KuvImage* d) { kuvMultiplySFP(a, d, -1.25f); }},
    };
    // Every class of kuvSubtractS's constant on the unsigned depths, and the
    // limits of kuvMultiplyS's on the byte depths.
    for (int v : {-300, -37, 0, 1, 200, 255, 256, 300, 509, 65534, 70000}) {
        cases.push_back({"kuvSubtractS", ints, [v](KuvImage* a, KuvImage*, KuvImage* d) {
                             kuvSubtractS(a, d, v, 0);
                             kuvSubtractS(d, d, v, 1);
                         }});
        cases.push_back({"kuvAddS", ints, [v](KuvImage* a, KuvImage*, KuvImage* d) { kuvAddS(a, d, v); }});
    }
    for (int v : {-1000, -128, -3, 1, 3, 128, 255, 1000}) {
        cases.push_back({"kuvMultiplyS", ints, [v](KuvImage* a, KuvImage*, KuvImage* d) { kuvMultiplyS(a, d, v); }});
    }
    for (const Case& c : cases) {
        for (uint32_t depth : c.depths) {
            for (int shape = 0; shape < 4; ++shape) {   // whole, region, mask, region and mask
                g_seed = 1234u + depth + 7u * unsigned(shape);
                SCOPED_TRACE(::testing::Message() << c.name << " depth " << depth << " shape " << shape
                                                  << " seed " << g_seed);
                const int w = 131, h = 5, nCh = 3;
                const bool region = shape & 1, masked = shape & 2;
                KuvImage* a = randomImage(depth, nCh, w, h, region ? kuvCreateROI(0, 3, 1, 125, 3) : nullptr);
                KuvImage* b = randomImage(depth, nCh, w, h, region ? kuvCreateROI(0, 3, 1, 125, 3) : nullptr);
                KuvImage* d[2];
                std::vector<char> canary;
                KuvImage* m = masked ? randomMask(w, h) : nullptr;
                for (int wide = 0; wide < 2; ++wide) {
                    d[wide] = randomImage(depth, nCh, w, h, region ? kuvCreateROI(0, 3, 1, 125, 3) : nullptr);
                    if (wide == 0) canary.assign(d[0]->imageData, d[0]->imageData + d[0]->imageSize);
                    else std::memcpy(d[1]->imageData, canary.data(), canary.size());
                    d[wide]->maskROI = m;
                    {
                        const kuvtest::FeatureLimit limit(wide != 0 ? ~0u : 0u);
                        kuvSetErrStatus(KUV_StsNoError);
                        c.call(a, b, d[wide]);
                    }
                    EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
                    d[wide]->maskROI = nullptr;
                }
                EXPECT_EQ(std::memcmp(d[0]->imageData, d[1]->imageData, size_t(d[0]->imageSize)), 0);
                for (KuvImage* im : {a, b, d[0], d[1], m}) {
                    if (im != nullptr) kuvDeallocate(im, KUV_IMAGE_ALL);
                }
            }
        }
    }
}

}  // namespace

namespace {

// Two records on one buffer, the destination's region one pixel to the right
// of a source's: every processor gives the order of the plain rows, element
// by element from the top, so each sum feeds the next.
TEST(PixelRows, ShiftedOverlapGoesElementByElement) {
    for (const bool masked : {false, true}) {
        SCOPED_TRACE(masked ? "masked" : "plain");
        KuvImage* a = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "G", "G", KUV_DATA_ORDER_PIXEL, KUV_ORIGIN_TOP_LEFT, 4, 64, 2,
                                           nullptr, nullptr, 0, nullptr);
        kuvAllocateImage(a, 1, 1);
        KuvImage b = *a;
        KuvROI right{0, 1, 0, 63, 2};
        b.roi = &right;
        KuvImage* m = masked ? randomMask(64, 2) : nullptr;
        if (m != nullptr) std::memset(m->imageData, 0xFF, size_t(m->imageSize));
        b.maskROI = m;
        kuvSetErrStatus(KUV_StsNoError);
        kuvAdd(a, a, &b);   // b(x+1) = a(x) + a(x), with a(x) already written for x >= 1
        EXPECT_EQ(kuvGetErrStatus(), KUV_StsNoError);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 64; ++x)
                EXPECT_EQ(uint8_t(a->imageData[y * a->widthStep + x]), x < 8 ? 1 << x : 255) << x << "," << y;
        if (m != nullptr) kuvDeallocate(m, KUV_IMAGE_ALL);
        kuvDeallocate(a, KUV_IMAGE_ALL);
    }
}

}  // namespace
