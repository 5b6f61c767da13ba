// kuvCreateImageJaehne: every depth against the chirp computed here from its
// definition, the values at the centre, a crest and a trough, the header of
// the result and the refusals.
#include <cmath>
#include <string>

#include "tests/support/kuv_test.h"

namespace {

using kuvtest::get;

// The pixel at (x, y): rings about (width/2, height/2) whose phase step
// depends on the height alone, scaled and truncated as the depth says.
double chirp(uint32_t depth, int x, int y, int width, int height) {
    const double k = 6.283185307179586 / (4.0 * height);
    const int32_t d = (x - width / 2) * (x - width / 2) + (y - height / 2) * (y - height / 2);
    const long double s = sinl(d * static_cast<long double>(k));
    const bool sign = (depth & KUV_DEPTH_SIGN) != 0;
    const int bits = kuvtest::depthBits(depth);
    const double scale = depth == KUV_DEPTH_1U ? 0.99999 : depth == KUV_DEPTH_32F ? 0.49999
                       : bits == 8 ? 127.99999 : bits == 16 ? 32767.99999 : 2147483647.99999;
    const long double v = (s + (sign ? 0.0L : 1.0L)) * static_cast<long double>(scale);
    return depth == KUV_DEPTH_32F ? static_cast<float>(v) : static_cast<double>(truncl(v));
}

TEST(Jaehne, EveryDepthFollowsTheChirpWithAPlainHeader) {
    const int sizes[][2] = {{1, 1}, {2, 2}, {7, 5}, {8, 6}, {13, 4}, {5, 13}, {10, 9}, {7, 3}, {33, 17},
                            {64, 48}, {100, 3}, {3, 100}};
    for (uint32_t depth : kuvtest::allDepths()) {
        for (const auto& [width, height] : sizes) {
            SCOPED_TRACE(::testing::Message() << kuvtest::depthName(depth) << " " << width << "x" << height);
            kuvtest::ReportCapture capture;
            const long blocks = kuvtest::outstandingBlocks();
            kuvtest::ImagePtr image(kuvCreateImageJaehne(depth, width, height));
            ASSERT_TRUE(image && capture.count() == 0 && kuvGetErrStatus() == 0);
            EXPECT_EQ(kuvtest::outstandingBlocks(), blocks + 2) << "a header and a pixel block";
            for (int i = 0, wrong = 0; i < width * height; ++i) {
                const double got = get(image.get(), i % width, i / width, 0);
                if (got != chirp(depth, i % width, i / width, width, height) && ++wrong <= 5)
                    ADD_FAILURE() << "(" << i % width << ", " << i / width << ") is " << got;
            }
            // The fill is 0, so row padding and the spare bits of a bit row stay 0.
            const int64_t used = int64_t{width} * kuvtest::depthBits(depth), row = image->widthStep * 8;
            for (int64_t bit = 0; bit < row * height; ++bit)
                if (bit % row >= used) ASSERT_EQ((image->imageData[bit / 8] >> (7 - bit % 8)) & 1, 0) << bit;
            const KuvImage& h = *image;
            EXPECT_TRUE(h.nChannels == 1 && h.alphaChannel == 0 && h.depth == depth && h.imageId == 0);
            EXPECT_TRUE(std::string(h.colorModel, 8) == "GRAYGRAY" && h.dataOrder == 0 && h.origin == 0);
            EXPECT_TRUE(!h.roi && !h.maskROI && !h.tileInfo && h.align == 32 && kuvCheckImageHeader(&h) == 0);
        }
    }
}

// The reference above agrees with the values the text gives, per depth in the
// order of allDepths(): s = 0 at the centre, 1 at d = 9 of a 10x9 image, -1 of a 7x3 one.
TEST(Jaehne, ReferenceGivesTheCentreCrestAndTroughValues) {
    const double centre[] = {0, 127, 0, 32767, 0, 0, 0.49999f};
    const double crest[] = {1, 255, 127, 65535, 32767, 2147483647, 0.99998f};
    const double trough[] = {0, 0, -127, 0, -32767, -2147483647, 0};
    for (int i = 0; i < 7; ++i) {
        const uint32_t depth = kuvtest::allDepths()[i];
        EXPECT_TRUE(chirp(depth, 0, 0, 1, 1) == centre[i] && chirp(depth, 8, 4, 10, 9) == crest[i]) << i;
        EXPECT_NEAR(chirp(depth, 0, 1, 7, 3), trough[i], 1e-6) << i;
    }
}

TEST(Jaehne, RefusalsReportTheirStatusText) {
    const struct { uint32_t depth; int width, height; KuvStatus status; } refusals[] = {   // size first
        {8, 0, 5, -10}, {12, 5, -1, -10}, {12, 0, 5, -10}, {12, 5, 5, -17}, {KUV_DEPTH_SIGN | 1u, 5, 5, -17},
        {0, 1, 1, -17}};
    for (const auto& r : refusals) {
        kuvtest::ReportCapture capture;
        EXPECT_EQ(kuvCreateImageJaehne(r.depth, r.width, r.height), nullptr) << r.depth << " " << r.width;
        EXPECT_TRUE(kuvtest::oneReport(capture, r.status, "kuvCreateImageJaehne", kuvErrorStr(r.status),
                                       "kuvgenim"));
    }
    // A size beyond 32 bits gets no header: passed on as the generator's own failure.
    kuvtest::ReportCapture capture;
    EXPECT_EQ(kuvCreateImageJaehne(KUV_DEPTH_32S, 40000, 40000), nullptr);
    ASSERT_EQ(capture.count(), 2u);
    EXPECT_TRUE(kuvtest::isReport(capture.reports()[1], KUV_StsOutOfMemory, "kuvCreateImageJaehne",
                                  "Not enough memory to allocate header for ImageJaehne", "kuvgenim"));
}

}  // namespace
