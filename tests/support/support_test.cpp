// The support pieces that other tests trust to fail: were any of them unable
// to fail, the faults they guard against in the library would go unseen.
#include "tests/support/kuv_test.h"

namespace {

using namespace kuvtest;

TEST(Support, CanaryGuardAndReportChecksCanFail) {
    const auto none = [](int, int, int) { return false; };
    ImagePtr image = makeImage(KUV_DEPTH_8U, 3, 5, 3);   // 15 bytes per row, step 16
    fillRandom(image.get(), 1), setRoi(image.get(), 0, 1, 1, 2, 2);
    const Snapshot before = snapshot(image.get());
    RefusalGuard guard(image.get());
    image->imageData[16 + 3 * 2 + 1] ^= 1;   // element (2, 1, 1)
    EXPECT_TRUE(!unchangedExcept(before, image.get(), none) && !guard.intact());
    const auto changed = [](int x, int y, int c) { return x == 2 && y == 1 && c == 1; };
    EXPECT_TRUE(unchangedExcept(before, image.get(), changed));
    image->imageData[16 + 3 * 2 + 1] ^= 1;
    image->imageData[15] ^= 1;   // padding of row 0
    EXPECT_FALSE(unchangedExcept(before, image.get(), none));
    EXPECT_TRUE(unchangedExcept(before, image.get(), none, Padding::MayChange));
    image->imageData[15] ^= 1;
    image->roi->width = 3;
    EXPECT_FALSE(guard.intact());

    ReportCapture capture;
    kuvError(KUV_StsBadArgument, "f", "ctx", "file", 12);
    EXPECT_TRUE(oneReport(capture, KUV_StsBadArgument, "f", "ctx", "file"));
    EXPECT_FALSE(oneReport(capture, KUV_StsBadArgument, "f", "other", "file"));
    EXPECT_FALSE(oneReport(capture, KUV_StsBadDepth, "f", "ctx", "file"));
}

}  // namespace
