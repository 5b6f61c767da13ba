// kuvCreateImageJaehne: every depth against the chirp computed here from its
// definition, the extremes of each depth, the header of the result and the
// refusals.
#include <cmath>
#include <cstring>
#include <string>

#include "tests/support/kuv_test.h"

namespace {

using kuvtest::ImagePtr;

// The chirp's sine at (x, y): rings about (width/2, height/2) whose phase
// step k depends on the height alone.
long double chirp(int x, int y, int width, int height) {
    const double k = 6.283185307179586 / (4.0 * height);
    const int32_t cx = width / 2, cy = height / 2;
    const int32_t d = (x - cx) * (x - cx) + (y - cy) * (y - cy);
    return sinl(static_cast<long double>(d) * static_cast<long double>(k));
}

// The pixel's bits as the depth stores them.
uint32_t expectedBits(uint32_t depth, long double s) {
    auto scaled = [s](double offset, double scale) {
        return truncl((s + static_cast<long double>(offset)) * static_cast<long double>(scale));
    };
    switch (depth) {
        case KUV_DEPTH_1U: return static_cast<uint32_t>(scaled(1.0, 0.99999));
        case KUV_DEPTH_8U: return static_cast<uint32_t>(scaled(1.0, 127.99999));
        case KUV_DEPTH_8S: return static_cast<uint8_t>(static_cast<int8_t>(scaled(0.0, 127.99999)));
        case KUV_DEPTH_16U: return static_cast<uint32_t>(scaled(1.0, 32767.99999));
        case KUV_DEPTH_16S:
            return static_cast<uint16_t>(static_cast<int16_t>(scaled(0.0, 32767.99999)));
        case KUV_DEPTH_32S:
            return static_cast<uint32_t>(static_cast<int32_t>(scaled(0.0, 2147483647.99999)));
        default: {
            const float f = static_cast<float>((s + 1.0L) * static_cast<long double>(0.49999));
            uint32_t bits;
            std::memcpy(&bits, &f, 4);
            return bits;
        }
    }
}

// Element (x, y) of the one-channel result, read by the layout rules.
uint32_t storedBits(const KuvImage* image, int x, int y) {
    const char* row = image->imageData + int64_t{y} * image->widthStep;
    switch (image->depth) {
        case KUV_DEPTH_1U: return (static_cast<uint8_t>(row[x / 8]) >> (7 - x % 8)) & 1u;
        case KUV_DEPTH_8U:
        case KUV_DEPTH_8S: return static_cast<uint8_t>(row[x]);
        case KUV_DEPTH_16U:
        case KUV_DEPTH_16S: {
            uint16_t v;
            std::memcpy(&v, row + 2 * x, 2);
            return v;
        }
        default: {
            uint32_t v;
            std::memcpy(&v, row + 4 * x, 4);
            return v;
        }
    }
}

// Row padding (bytes past the last element, and spare bits of a bit row) is 0.
::testing::AssertionResult paddingIsZero(const KuvImage* image) {
    const int bits = kuvtest::depthBits(image->depth);
    const int64_t usedBits = int64_t{image->width} * bits;
    for (int y = 0; y < image->height; ++y) {
        const auto* row =
            reinterpret_cast<const uint8_t*>(image->imageData) + int64_t{y} * image->widthStep;
        for (int64_t bit = usedBits; bit < int64_t{image->widthStep} * 8; ++bit) {
            if ((row[bit / 8] >> (7 - bit % 8)) & 1u) {
                return ::testing::AssertionFailure() << "padding bit " << bit << " of row " << y;
            }
        }
    }
    return ::testing::AssertionSuccess();
}

ImagePtr jaehne(uint32_t depth, int width, int height) {
    return ImagePtr(kuvCreateImageJaehne(depth, width, height));
}

TEST(Jaehne, EveryDepthFollowsTheChirp) {
    const int sizes[][2] = {{1, 1},  {2, 2},   {7, 5},   {8, 6},   {13, 4},
                            {5, 13}, {33, 17}, {64, 48}, {100, 3}, {3, 100}};
    for (uint32_t depth : kuvtest::allDepths()) {
        for (const auto& size : sizes) {
            const int width = size[0], height = size[1];
            SCOPED_TRACE(::testing::Message()
                         << kuvtest::depthName(depth) << " " << width << "x" << height);
            kuvtest::ReportCapture capture;
            kuvSetErrStatus(-3);
            ImagePtr image = jaehne(depth, width, height);
            ASSERT_TRUE(image);
            EXPECT_EQ(capture.count(), 0u);
            EXPECT_EQ(kuvGetErrStatus(), -3) << "success leaves the status alone";
            int wrong = 0;
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    const uint32_t want = expectedBits(depth, chirp(x, y, width, height));
                    const uint32_t got = storedBits(image.get(), x, y);
                    if (got != want && ++wrong <= 5) {
                        ADD_FAILURE() << "pixel (" << x << ", " << y << ") is 0x" << std::hex << got
                                      << ", not 0x" << want;
                    }
                }
            }
            EXPECT_EQ(wrong, 0);
            EXPECT_TRUE(paddingIsZero(image.get()));
        }
    }
}

// Values at the centre (s = 0), at a crest (s = 1) and at a trough (s = -1),
// per depth.
struct Extremes {
    uint32_t depth;
    int64_t zero, crest, trough;
};

int64_t signedValue(uint32_t depth, uint32_t bits) {
    switch (depth) {
        case KUV_DEPTH_8S: return static_cast<int8_t>(bits);
        case KUV_DEPTH_16S: return static_cast<int16_t>(bits);
        case KUV_DEPTH_32S: return static_cast<int32_t>(bits);
        default: return bits;
    }
}

TEST(Jaehne, CentreCrestAndTroughValuesPerDepth) {
    const Extremes extremes[] = {
        {KUV_DEPTH_1U, 0, 1, 0},           {KUV_DEPTH_8U, 127, 255, 0},
        {KUV_DEPTH_8S, 0, 127, -127},      {KUV_DEPTH_16U, 32767, 65535, 0},
        {KUV_DEPTH_16S, 0, 32767, -32767}, {KUV_DEPTH_32S, 0, 2147483647, -2147483647},
    };
    for (const Extremes& e : extremes) {
        SCOPED_TRACE(kuvtest::depthName(e.depth));
        ImagePtr one = jaehne(e.depth, 1, 1);
        ASSERT_TRUE(one);
        EXPECT_EQ(signedValue(e.depth, storedBits(one.get(), 0, 0)), e.zero);
        // Height 9: d = 9 is a quarter period, sin = 1, three columns right of the centre.
        ImagePtr crest = jaehne(e.depth, 10, 9);
        ASSERT_TRUE(crest);
        EXPECT_EQ(signedValue(e.depth, storedBits(crest.get(), 5, 4)), e.zero);
        EXPECT_EQ(signedValue(e.depth, storedBits(crest.get(), 5 + 3, 4)), e.crest);
        EXPECT_EQ(signedValue(e.depth, storedBits(crest.get(), 5 - 3, 4)), e.crest);
        // Height 3: d = 9 is three quarters of a period, sin = -1.
        ImagePtr trough = jaehne(e.depth, 7, 3);
        ASSERT_TRUE(trough);
        EXPECT_EQ(signedValue(e.depth, storedBits(trough.get(), 3, 1)), e.zero);
        EXPECT_EQ(signedValue(e.depth, storedBits(trough.get(), 0, 1)), e.trough);
        EXPECT_EQ(signedValue(e.depth, storedBits(trough.get(), 6, 1)), e.trough);
    }
    auto floatAt = [](const KuvImage* image, int x, int y) {
        const uint32_t bits = storedBits(image, x, y);
        float f;
        std::memcpy(&f, &bits, 4);
        return f;
    };
    ImagePtr one = jaehne(KUV_DEPTH_32F, 1, 1);
    ImagePtr crest = jaehne(KUV_DEPTH_32F, 10, 9);
    ImagePtr trough = jaehne(KUV_DEPTH_32F, 7, 3);
    ASSERT_TRUE(one && crest && trough);
    EXPECT_EQ(floatAt(one.get(), 0, 0), 0.49999f);
    EXPECT_EQ(floatAt(crest.get(), 5, 4), 0.49999f);
    EXPECT_EQ(floatAt(crest.get(), 8, 4), 0.99998f);
    EXPECT_GE(floatAt(trough.get(), 0, 1), 0.0f);
    EXPECT_LT(floatAt(trough.get(), 0, 1), 1e-6f);
}

TEST(Jaehne, HeaderOfTheResult) {
    for (uint32_t depth : kuvtest::allDepths()) {
        SCOPED_TRACE(kuvtest::depthName(depth));
        const long blocks = kuvtest::outstandingBlocks();
        ImagePtr image = jaehne(depth, 11, 6);
        ASSERT_TRUE(image);
        EXPECT_EQ(kuvtest::outstandingBlocks(), blocks + 2) << "a header and a pixel block";
        EXPECT_EQ(image->headerSize, static_cast<int32_t>(sizeof(KuvImage)));
        EXPECT_EQ(image->headerId, 0);
        EXPECT_EQ(image->nChannels, 1);
        EXPECT_EQ(image->alphaChannel, 0);
        EXPECT_EQ(image->depth, depth);
        EXPECT_EQ(std::string(image->colorModel, 4), "GRAY");
        EXPECT_EQ(std::string(image->channelSeq, 4), "GRAY");
        EXPECT_EQ(image->dataOrder, KUV_DATA_ORDER_PIXEL);
        EXPECT_EQ(image->origin, KUV_ORIGIN_TOP_LEFT);
        EXPECT_EQ(image->align, 32);
        EXPECT_EQ(image->width, 11);
        EXPECT_EQ(image->height, 6);
        EXPECT_EQ(image->roi, nullptr);
        EXPECT_EQ(image->maskROI, nullptr);
        EXPECT_EQ(image->imageId, 0);
        EXPECT_EQ(image->tileInfo, nullptr);
        const int32_t step =
            depth == KUV_DEPTH_1U ? 32 : 32 * ((11 * kuvtest::depthBits(depth) / 8 + 31) / 32);
        EXPECT_EQ(image->widthStep, step);
        EXPECT_EQ(image->imageSize, step * 6);
        ASSERT_NE(image->imageData, nullptr);
        EXPECT_NE(image->imageDataOrigin, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(image->imageData) % 32, 0u);
        for (int side = 0; side < 4; ++side) {
            EXPECT_EQ(image->borderMode[side], KUV_BORDER_CONSTANT);
            EXPECT_EQ(image->borderConst[side], 0);
        }
        EXPECT_EQ(kuvCheckImageHeader(image.get()), 0);
    }
}

TEST(Jaehne, EqualHeightsShareTheirRingsAboutTheCentre) {
    // k depends on the height alone, so columns at the same distance from
    // the centre agree whatever the width, odd or even.
    const int widths[] = {1, 6, 7, 12, 31};
    const int height = 11;
    for (uint32_t depth : kuvtest::allDepths()) {
        SCOPED_TRACE(kuvtest::depthName(depth));
        for (int a : widths) {
            for (int b : widths) {
                if (a >= b) continue;
                ImagePtr narrow = jaehne(depth, a, height);
                ImagePtr wide = jaehne(depth, b, height);
                ASSERT_TRUE(narrow && wide);
                const int shift = b / 2 - a / 2;
                for (int y = 0; y < height; ++y) {
                    for (int x = 0; x < a; ++x) {
                        ASSERT_EQ(storedBits(narrow.get(), x, y),
                                  storedBits(wide.get(), x + shift, y))
                            << "widths " << a << " and " << b << ", column " << x << ", row " << y;
                    }
                }
            }
        }
        // Symmetry about the centre column and row; with an even width the first
        // column is one further out than the last.
        ImagePtr even = jaehne(depth, 12, 10);
        ASSERT_TRUE(even);
        for (int y = 1; y < 10; ++y) {
            for (int j = 1; j <= 5; ++j) {
                ASSERT_EQ(storedBits(even.get(), 6 - j, y), storedBits(even.get(), 6 + j, y))
                    << "j " << j << " y " << y;
                ASSERT_EQ(storedBits(even.get(), 6 - j, y), storedBits(even.get(), 6 - j, 10 - y));
            }
        }
    }
}

TEST(Jaehne, RefusalsReportTheirStatusText) {
    struct Refusal {
        uint32_t depth;
        int width, height;
        KuvStatus status;
        const char* context;
    };
    const Refusal refusals[] = {
        {KUV_DEPTH_8U, 0, 5, KUV_StsBadImageSize, "Incorrect image size"},
        {KUV_DEPTH_8U, 5, -1, KUV_StsBadImageSize, "Incorrect image size"},
        // The size is tested first: the depth is then not looked at.
        {12, 0, 5, KUV_StsBadImageSize, "Incorrect image size"},
        {12, 5, -1, KUV_StsBadImageSize, "Incorrect image size"},
        {12, 5, 5, KUV_StsBadDepth, "Incorrect depth value in the image header"},
        {KUV_DEPTH_SIGN | 1u, 5, 5, KUV_StsBadDepth, "Incorrect depth value in the image header"},
        {0, 1, 1, KUV_StsBadDepth, "Incorrect depth value in the image header"},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(::testing::Message() << "depth 0x" << std::hex << r.depth << std::dec << " "
                                          << r.width << "x" << r.height);
        kuvtest::ReportCapture capture;
        const long blocks = kuvtest::outstandingBlocks();
        EXPECT_EQ(kuvCreateImageJaehne(r.depth, r.width, r.height), nullptr);
        EXPECT_TRUE(
            kuvtest::oneReport(capture, r.status, "kuvCreateImageJaehne", r.context, "kuvgenim"));
        EXPECT_EQ(kuvtest::outstandingBlocks(), blocks);
    }
}

TEST(Jaehne, HeaderRefusalIsReportedAsOutOfMemory) {
    // An image whose size does not fit 32 bits gets no header; the generator
    // passes that on as its own failure and leaves nothing behind.
    kuvtest::ReportCapture capture;
    const long blocks = kuvtest::outstandingBlocks();
    EXPECT_EQ(kuvCreateImageJaehne(KUV_DEPTH_32S, 40000, 40000), nullptr);
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_EQ(capture.reports()[0].func, "kuvCreateImageHeader");
    EXPECT_TRUE(kuvtest::isReport(capture.reports()[1], KUV_StsOutOfMemory, "kuvCreateImageJaehne",
                                  "Not enough memory to allocate header for ImageJaehne",
                                  "kuvgenim"));
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsOutOfMemory);
    EXPECT_EQ(kuvtest::outstandingBlocks(), blocks);
}

}  // namespace
