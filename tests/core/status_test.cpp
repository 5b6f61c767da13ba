// Status texts, kuvError, handler redirection, the version record and the
// cycle counter.
#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/kuv_test.h"

namespace {

struct StatusText {
    KuvStatus status;
    const char* text;
};

// The whole table, character for character.
const StatusText statusTable[] = {
    {0, "No Error"},
    {-1, "Backtrace"},
    {-2, "Unknown error or status code"},
    {-3, "Internal error (bad state)"},
    {-4, "Out of memory"},
    {-5, "Bad argument"},
    {-6, "Unsupported function"},
    {-7, "Iteration convergence failed"},
    {-8, "Autotrace call"},
    {-9, "Null pointer to an image header"},
    {-10, "Incorrect image size"},
    {-11, "Incorrect offset of ROI of the image"},
    {-12,
     "One from two pointers should be null, and other should be not null, imageData or tileInfo "},
    {-13, "Incorrect widthStep of the image"},
    {-14, "Incorrect Color model or channel sequence of the image"},
    {-15, "Incorrect number of channels in the image"},
    {-16, "Number of channels for 1U depth image must be one"},
    {-17, "Incorrect depth value in the image header"},
    {-18, "Incorrect alpha channel number in the image header"},
    {-19, "Incorrect data order value in the image header"},
    {-20, "Incorrect data origin value in the image header"},
    {-21, "Incorrect data alignment value in the image header"},
    {-22, "Null pointer to callback function"},
    {-23, "Incorrect size of the tile"},
    {-24, "Incorrect COI of the image"},
    {-25, "Incorrect size of ROI in the image header"},
    {-26, "Mask image is taled"},
    {-110, "Mask. Incorrect image size"},
    {-111, "Mask. Incorrect offset of ROI of the image"},
    {-112,
     "Mask. One from two pointers should be null, and other should be not null, imageData or "
     "tileInfo "},
    {-113, "Mask. Incorrect widthStep of the image"},
    {-114, "Mask. Incorrect Color model or channel sequence of the image"},
    {-115, "Mask. Incorrect number of channels in the image"},
    {-117, "Mask. Incorrect depth value in the image header"},
    {-118, "Mask. Incorrect alpha channel number in the image header"},
    {-119, "Mask. Incorrect data order value in the image header"},
    {-120, "Mask. Incorrect data origin value in the image header"},
    {-121, "Mask. Incorrect data alignment value in the image header"},
    {-124, "Mask. Incorrect COI of the image"},
    {-125, "Mask. Incorrect size of ROI in the image header"},
};

const char* const unknownText = "Unknown error or status code";

TEST(StatusText, EveryCodeOfTheTableHasItsExactText) {
    for (const StatusText& entry : statusTable) {
        const char* text = kuvErrorStr(entry.status);
        ASSERT_NE(text, nullptr) << entry.status;
        EXPECT_STREQ(text, entry.text) << "status " << entry.status;
    }
    // The two texts that are easy to "correct" by mistake.
    EXPECT_STREQ(kuvErrorStr(KUV_StsMaskTiled), "Mask image is taled");
    const std::string pointers = kuvErrorStr(KUV_StsBadDataPointers);
    ASSERT_FALSE(pointers.empty());
    EXPECT_EQ(pointers.back(), ' ');
}

TEST(StatusText, MaskFormIsThePlainTextBehindItsPrefix) {
    // One stored string: the plain text starts 6 characters into the mask text.
    const KuvStatus plain[] = {-10, -11, -12, -13, -14, -15, -17, -18, -19, -20, -21, -24, -25};
    for (KuvStatus code : plain) {
        const char* maskText = kuvErrorStr(code - KUV_StsMaskOffset);
        const char* plainText = kuvErrorStr(code);
        ASSERT_EQ(std::strncmp(maskText, "Mask. ", 6), 0) << code;
        EXPECT_EQ(maskText + 6, plainText) << "status " << code << ": the mask text is a copy";
        EXPECT_STREQ(maskText + 6, plainText) << code;
    }
}

TEST(StatusText, CodesOutsideTheTableGiveTheUnknownText) {
    const KuvStatus unknown[] = {-2,         -109,      -116,      -122,      -123,      -126,
                                 1,          -16 - 100, -22 - 100, -23 - 100, -26 - 100, -27,
                                 -100,       -101,      -102,      -108,      -127,      -210,
                                 -117 - 100, 2,         100,       INT_MIN,   INT_MAX};
    for (KuvStatus code : unknown) {
        const char* text = kuvErrorStr(code);
        ASSERT_NE(text, nullptr) << code;
        EXPECT_STREQ(text, unknownText) << "status " << code;
    }
}

TEST(StatusText, KuvErrorStrLeavesTheStatusAlone) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-21);
    (void)kuvErrorStr(-117);
    (void)kuvErrorStr(12345);
    EXPECT_EQ(kuvGetErrStatus(), -21);
    EXPECT_EQ(capture.count(), 0u);
}

// A handler that records its calls and returns a chosen value.
struct Recorded {
    KuvStatus status;
    const char *func, *context, *file;
    int32_t line;
};
std::vector<Recorded>* recorded = nullptr;
KuvStatus handlerResult = 0;

KuvStatus recordingHandler(KuvStatus status, const char* func, const char* context,
                           const char* file, int32_t line) {
    if (recorded != nullptr) recorded->push_back({status, func, context, file, line});
    return handlerResult;
}

// Installs recordingHandler for one test and puts back handler, mode and status.
class KuvErrorTest : public ::testing::Test {
protected:
    void SetUp() override {
        previousHandler_ = kuvRedirectError(recordingHandler);
        previousMode_ = kuvGetErrMode();
        kuvSetErrMode(KUV_ErrorModeParent);
        recorded = &calls_;
        handlerResult = 0;
    }
    void TearDown() override {
        recorded = nullptr;
        kuvRedirectError(previousHandler_);
        kuvSetErrMode(previousMode_);
        kuvSetErrStatus(0);
    }
    std::vector<Recorded> calls_;

private:
    KuvErrorCallBack previousHandler_ = nullptr;
    int32_t previousMode_ = 0;
};

TEST_F(KuvErrorTest, StatusZeroClearsAndCallsNoHandler) {
    kuvSetErrStatus(KUV_StsBadDepth);
    handlerResult = 99;
    EXPECT_EQ(kuvError(0, "f", "c", "file", 1), 0);
    EXPECT_EQ(kuvGetErrStatus(), 0);
    EXPECT_TRUE(calls_.empty());
}

TEST_F(KuvErrorTest, FaultIsStoredAndTheHandlerGetsTheFiveArguments) {
    const char* func = "kuvSomething";
    const char* context = "(srcImageA->depth != dstImage->depth)";
    const char* file = "kuvfile";
    handlerResult = 4321;
    EXPECT_EQ(kuvError(KUV_StsBadArgument, func, context, file, 77), 4321);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadArgument);
    ASSERT_EQ(calls_.size(), 1u);
    EXPECT_EQ(calls_[0].status, KUV_StsBadArgument);
    EXPECT_EQ(calls_[0].func, func);
    EXPECT_EQ(calls_[0].context, context);
    EXPECT_EQ(calls_[0].file, file);
    EXPECT_EQ(calls_[0].line, 77);
}

TEST_F(KuvErrorTest, BacktraceAndAutotraceReportWithoutStoring) {
    for (KuvStatus status : {KUV_StsBacktrace, KUV_StsAutotrace}) {
        calls_.clear();
        kuvSetErrStatus(KUV_StsBadAlign);
        handlerResult = -5555;
        EXPECT_EQ(kuvError(status, "outer", "", "kuvfile", 3), -5555) << status;
        EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadAlign) << status;
        ASSERT_EQ(calls_.size(), 1u) << status;
        EXPECT_EQ(calls_[0].status, status);
        EXPECT_STREQ(calls_[0].context, "");
    }
    // Not even a zero status is left behind by a trace report.
    kuvSetErrStatus(0);
    kuvError(KUV_StsBacktrace, "outer", nullptr, nullptr, 0);
    EXPECT_EQ(kuvGetErrStatus(), 0);
}

TEST_F(KuvErrorTest, PositiveAndUnknownCodesAreStoredAndReported) {
    handlerResult = 1;
    EXPECT_EQ(kuvError(5, nullptr, nullptr, nullptr, -1), 1);
    EXPECT_EQ(kuvGetErrStatus(), 5);
    EXPECT_EQ(kuvError(-300, "f", nullptr, nullptr, 0), 1);
    EXPECT_EQ(kuvGetErrStatus(), -300);
    ASSERT_EQ(calls_.size(), 2u);
    EXPECT_EQ(calls_[0].func, nullptr);
    EXPECT_EQ(calls_[0].line, -1);
}

TEST_F(KuvErrorTest, StatusStaysUntilOverwritten) {
    kuvError(KUV_StsBadCOI, "f", "c", "file", 1);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadCOI);
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadCOI);
    kuvSetErrStatus(-1234);
    EXPECT_EQ(kuvGetErrStatus(), -1234);
    EXPECT_TRUE(calls_.size() == 1u) << "kuvSetErrStatus reports nothing";
}

TEST_F(KuvErrorTest, ErrModeIsStoredUnchecked) {
    for (int32_t mode : {KUV_ErrorModeLeaf, KUV_ErrorModeSilent, 7, -3, KUV_ErrorModeParent}) {
        kuvSetErrMode(mode);
        EXPECT_EQ(kuvGetErrMode(), mode);
    }
    EXPECT_TRUE(calls_.empty());
}

KuvStatus otherHandler(KuvStatus status, const char*, const char*, const char*, int32_t) {
    return status;
}

TEST_F(KuvErrorTest, RedirectReturnsThePreviousAndNullRestoresTheDefault) {
    EXPECT_EQ(kuvRedirectError(otherHandler), recordingHandler);
    EXPECT_EQ(kuvRedirectError(nullptr), otherHandler);
    EXPECT_EQ(kuvRedirectError(recordingHandler), kuvGuiBoxReport);
    // The installed handler is the one that kuvError calls.
    kuvError(KUV_StsBadState, "f", "c", "file", 1);
    EXPECT_EQ(calls_.size(), 1u);
}

TEST(Version, RecordHoldsTheExactValues) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-19);
    const KuvLibVersion* version = kuvGetLibVersion();
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(version, kuvGetLibVersion());
    EXPECT_EQ(version->major, 2);
    EXPECT_EQ(version->minor, 1);
    EXPECT_EQ(version->build, 58);
    EXPECT_STREQ(version->name, "kuvX5.dll");
    EXPECT_STREQ(version->version, "2.1");
    EXPECT_STREQ(version->internalVersion, "[2.1.058, 02/02/99]");
    EXPECT_STREQ(version->buildDate, "Feb  6 1999");
    EXPECT_STREQ(version->callConv, "DLL");
    EXPECT_EQ(kuvGetErrStatus(), -19);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(Version, RecordFieldsAreInTheDocumentedOrder) {
    EXPECT_EQ(offsetof(KuvLibVersion, major), 0u);
    EXPECT_EQ(offsetof(KuvLibVersion, minor), 4u);
    EXPECT_EQ(offsetof(KuvLibVersion, build), 8u);
    EXPECT_LT(offsetof(KuvLibVersion, build), offsetof(KuvLibVersion, name));
    EXPECT_LT(offsetof(KuvLibVersion, name), offsetof(KuvLibVersion, version));
    EXPECT_LT(offsetof(KuvLibVersion, version), offsetof(KuvLibVersion, internalVersion));
    EXPECT_LT(offsetof(KuvLibVersion, internalVersion), offsetof(KuvLibVersion, buildDate));
    EXPECT_LT(offsetof(KuvLibVersion, buildDate), offsetof(KuvLibVersion, callConv));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(KuvLibVersion), 32u);
    }
}

TEST(CycleCounter, IncreasesAndLeavesTheStatusAlone) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-7);
    const uint64_t first = kuvGetCycleCounter();
    volatile uint64_t sink = 0;
    for (int i = 0; i < 100000; ++i) sink = sink + static_cast<uint64_t>(i);
    const uint64_t second = kuvGetCycleCounter();
    EXPECT_GT(second, first);
    uint64_t previous = second;
    for (int i = 0; i < 1000; ++i) {
        const uint64_t now = kuvGetCycleCounter();
        ASSERT_GE(now, previous) << "read " << i;
        previous = now;
    }
    EXPECT_EQ(kuvGetErrStatus(), -7);
    EXPECT_EQ(capture.count(), 0u);
}

}  // namespace
