// Status texts, kuvError and redirection, the three report handlers in each
// mode, per-thread contexts, the version record and the cycle counter. The
// test listener puts handler, mode and status back after each test.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kuv_own.h"
#include "tests/support/kuv_test.h"

namespace {

using ::testing::internal::CaptureStderr, ::testing::internal::GetCapturedStderr;

// Every plain text, character for character. A maskable code's mask form
// (code - 100) is "Mask. " in front of the same stored text; the mask form of
// any other code is unknown.
const struct { KuvStatus status; bool maskable; const char* text; } statusTable[] = {
    {0, false, "No Error"}, {-1, false, "Backtrace"}, {-2, false, "Unknown error or status code"},
    {-3, false, "Internal error (bad state)"}, {-4, false, "Out of memory"},
    {-5, false, "Bad argument"}, {-6, false, "Unsupported function"},
    {-7, false, "Iteration convergence failed"}, {-8, false, "Autotrace call"},
    {-9, false, "Null pointer to an image header"}, {-10, true, "Incorrect image size"},
    {-11, true, "Incorrect offset of ROI of the image"},
    {-12, true, "One from two pointers should be null, and other should be not null, imageData or tileInfo "},
    {-13, true, "Incorrect widthStep of the image"},
    {-14, true, "Incorrect Color model or channel sequence of the image"},
    {-15, true, "Incorrect number of channels in the image"},
    {-16, false, "Number of channels for 1U depth image must be one"},
    {-17, true, "Incorrect depth value in the image header"},
    {-18, true, "Incorrect alpha channel number in the image header"},
    {-19, true, "Incorrect data order value in the image header"},
    {-20, true, "Incorrect data origin value in the image header"},
    {-21, true, "Incorrect data alignment value in the image header"},
    {-22, false, "Null pointer to callback function"}, {-23, false, "Incorrect size of the tile"},
    {-24, true, "Incorrect COI of the image"}, {-25, true, "Incorrect size of ROI in the image header"},
    {-26, false, "Mask image is taled"}};

TEST(StatusText, EveryCodeItsMaskFormAndTheUnknownOnes) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-21);
    const std::string unknown = "Unknown error or status code";
    for (const auto& e : statusTable) {
        SCOPED_TRACE(e.status);
        EXPECT_EQ(std::string(kuvErrorStr(e.status)), e.text);
        const char* mask = kuvErrorStr(e.status - 100);
        EXPECT_EQ(std::string(mask), e.maskable ? std::string("Mask. ") + e.text : unknown);
        if (e.maskable) EXPECT_EQ(mask + 6, kuvErrorStr(e.status)) << "one stored string";
    }
    for (KuvStatus code : {-27, -127, -210, -217, 1, 100, INT_MIN, INT_MAX})
        EXPECT_EQ(std::string(kuvErrorStr(code)), unknown) << code;
    EXPECT_TRUE(kuvGetErrStatus() == -21 && capture.count() == 0);
}

std::vector<kuvtest::Report> seen;
KuvStatus recorder(KuvStatus status, const char* func, const char* context, const char* file, int32_t line) {
    auto text = [](const char* s) { return std::string(s ? s : "(null)"); };
    seen.push_back({status, text(func), text(context), text(file), line});
    return 4321;
}
KuvStatus quiet(KuvStatus status, const char*, const char*, const char*, int32_t) { return status; }

TEST(KuvError, StoresReportsAndHandsOnTheHandlersResult) {
    seen.clear();
    EXPECT_EQ(kuvRedirectError(recorder), kuvGuiBoxReport) << "the default handler";
    // Trace reports reach the handler but leave the status alone; any other code is stored.
    EXPECT_TRUE(kuvError(KUV_StsBadArgument, "kuvX", "(a != b)", "kuvx", 77) == 4321 &&
                kuvError(KUV_StsBacktrace, "outer", "", "kuvo", 3) == 4321 &&
                kuvError(KUV_StsAutotrace, "auto", nullptr, "kuvo", 4) == 4321 &&
                kuvGetErrStatus() == KUV_StsBadArgument);
    EXPECT_TRUE(kuvError(5, nullptr, nullptr, nullptr, -1) == 4321 && kuvGetErrStatus() == 5);
    EXPECT_EQ(kuvError(0, "f", "c", "file", 1), 0) << "0 clears and calls no handler";
    ASSERT_TRUE(seen.size() == 4 && seen[0].line == 77 && seen[3].line == -1);
    EXPECT_TRUE(kuvtest::isReport(seen[0], KUV_StsBadArgument, "kuvX", "(a != b)", "kuvx"));
    EXPECT_TRUE(kuvtest::isReport(seen[1], KUV_StsBacktrace, "outer", "", "kuvo") &&
                kuvtest::isReport(seen[2], KUV_StsAutotrace, "auto", "(null)", "kuvo"));
    EXPECT_TRUE(kuvtest::isReport(seen[3], 5, "(null)", "(null)", "(null)"));
    kuvSetErrStatus(-1234);   // stored unchecked, as the mode, and nothing reported
    for (int32_t mode : {0, 2, 7, -3, 1}) { kuvSetErrMode(mode); EXPECT_EQ(kuvGetErrMode(), mode); }
    EXPECT_TRUE(seen.size() == 4 && kuvGetErrStatus() == -1234);
    EXPECT_TRUE(kuvRedirectError(quiet) == recorder && kuvRedirectError(nullptr) == quiet);
    EXPECT_EQ(kuvRedirectError(quiet), kuvGuiBoxReport) << "null restores the default";
}

struct Call { KuvStatus status; const char *func, *context, *file; int32_t line; std::string written; };

TEST(Reports, StdErrWritesEachBranchExactly) {
    const std::string error = "\nKUV Library Error: ", in = " \n\tin function";
    const Call calls[] = {
        {KUV_StsBadArgument, "kuvAdd", "(srcImageA->depth != dstImage->depth)", "kuvadd", 42,
         error + "Bad argument" + in + " [kuvadd:42]:kuvAdd(): (srcImageA->depth != dstImage->depth)\n"},
        {KUV_StsBacktrace, "kuvCopy", "", "kuvcopy", 9, "\tcalled from [kuvcopy:9]:kuvCopy(): \n"},
        {KUV_StsAutotrace, "f", "why", "file", 1, "\tcalled from [file:1]:f(why)\n"},
        {KUV_StsBacktrace, nullptr, nullptr, nullptr, -2, "\tcalled from:<unknown>\n"},
        {-117, "f", "c", "file", -4,   // a file name alone brings the bracket
         error + "Mask. Incorrect depth value in the image header" + in + " [file:-4]:f(): c\n"},
        {-12, nullptr, "", "kuvalloc", 0, error + "One from two pointers should be null, and other "
         "should be not null, imageData or tileInfo " + in + " [kuvalloc:0]:<unknown>(): \n"},
        {3, "h", "x", "y", 8, error + "Unknown error or status code" + in + " [y:8]:h(): x\n"}};
    kuvSetErrMode(KUV_ErrorModeParent);
    for (const Call& c : calls) {
        CaptureStderr();
        EXPECT_EQ(kuvStdErrReport(c.status, c.func, c.context, c.file, c.line), c.status);
        EXPECT_EQ(GetCapturedStderr(), c.written) << c.status;
    }
    CaptureStderr();   // a line alone brings the bracket too
    kuvStdErrReport(KUV_StsBadCOI, "f", "c", nullptr, 3);
    EXPECT_NE(GetCapturedStderr().find(":3]:f(): c\n"), std::string::npos);
}

TEST(Reports, GuiBoxShowsMessageAndCaptionInParentMode) {
    const std::string longFunc(600, 'f'), longFile(700, 'g'), longContext(300, 'c');
    const Call calls[] = {
        {KUV_StsBadArgument, "kuvAdd", "(a != b)", "kuvadd", 42,
         "In function kuvAdd(): [file kuvadd, line 42]\n(a != b)\n\nBad argument\n(status: -5)"},
        {KUV_StsBacktrace, nullptr, nullptr, nullptr, -9,
         "Called from <unknown>(): [file , line 0]\n\n\nBacktrace\n(status: -1)"},
        {-121, "g", "Incorrect Image", "kuvx", 2, "In function g(): [file kuvx, line 2]\nIncorrect "
         "Image\n\nMask. Incorrect data alignment value in the image header\n(status: -121)"},
        {KUV_StsBadState, longFunc.c_str(), longContext.c_str(), longFile.c_str(), 123456,
         "In function " + longFunc + "(): [file " + longFile + ", line 123456]\n" + longContext +
             "\n\nInternal error (bad state)\n(status: -3)"}};
    kuvSetErrMode(KUV_ErrorModeParent);
    for (const Call& c : calls) {
        CaptureStderr();
        EXPECT_EQ(kuvGuiBoxReport(c.status, c.func, c.context, c.file, c.line), c.status);
        const std::string written = GetCapturedStderr();
        EXPECT_NE(written.find(c.written + "\n\nErrMode=KUV_ErrorModeParent\n\nContinue?"),
                  std::string::npos) << written;
        EXPECT_NE(written.find("KUV 2.1"), std::string::npos) << "the caption";
        EXPECT_EQ(written.find("terminat"), std::string::npos);
    }
    // Silent shows nothing, an unknown mode no box, kuvNulDevReport nothing outside Leaf.
    for (int32_t mode : {KUV_ErrorModeSilent, 7}) {
        kuvSetErrMode(mode);
        CaptureStderr();
        kuvGuiBoxReport(KUV_StsBadArgument, "f", "c", "file", 1);
        kuvNulDevReport(KUV_StsBacktrace, "f", "c", "file", 1);
        if (mode == KUV_ErrorModeSilent) kuvStdErrReport(KUV_StsBadArgument, "f", "c", "file", 1);
        EXPECT_EQ(GetCapturedStderr(), "") << "mode " << mode;
    }
}

// Parts in order as an extended regular expression, and a whole text as one.
std::string inOrder(std::vector<std::string> parts) {
    std::string regex;
    for (const std::string& part : parts) {
        if (!regex.empty()) regex += ".*";
        for (char ch : part) regex += std::string(std::strchr("\\^$.|?*+()[]{}", ch) ? "\\" : "") + ch;
    }
    return regex;
}
std::string whole(const std::string& text) { return "^" + inOrder({text}) + "$"; }

// Leaf mode ends the process with code 1 through the runtime's orderly exit
// (exit handlers run), after each handler's own texts.
TEST(ReportsDeathTest, LeafModeEndsTheProcessWithCode1) {
    const std::string leaf =
        "KUV Library Error\nErrMode=KUV_ErrModeLeaf\nterminating the application<orderly exit>";
    const struct { KuvErrorCallBack handler; KuvStatus status; std::string expected; } cases[] = {
        {kuvStdErrReport, KUV_StsBadArgument,
         whole("\nKUV Library Error: Bad argument \n\tin function [kuvadd:42]:kuvAdd(): (a)\n" + leaf)},
        {kuvStdErrReport, KUV_StsBacktrace, whole("\tcalled from [kuvadd:42]:kuvAdd(): (a)\n" + leaf)},
        {kuvNulDevReport, KUV_StsBadArgument, "^<orderly exit>$"},
        {nullptr, KUV_StsBadArgument,
         inOrder({"KUV 2.1", "In function kuvAdd(): [file kuvadd, line 42]\n(a)\n\nBad argument\n(status: -5)"
                  "\n\nErrMode=KUV_ErrorModeLeaf\n\nTerminate the application?", "Win32: Application exit",
                  "KUV Library: terminating the application", "<orderly exit>"})}};
    for (const auto& c : cases) {
        EXPECT_EXIT({
            std::atexit([] { std::fputs("<orderly exit>", stderr); });
            kuvRedirectError(c.handler);
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvError(c.status, "kuvAdd", "(a)", "kuvadd", 42);
        }, ::testing::ExitedWithCode(1), c.expected);
    }
}

// A new thread starts with the defaults whatever its creator set, and its own
// fault stays in it.
TEST(ThreadContext, EachThreadHasItsOwnFromTheDefaults) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(KUV_StsBadAlign);
    kuvSetErrMode(KUV_ErrorModeSilent);
    KuvStatus status = 1, after = 0, mode = -1;
    KuvThreadContext* context = nullptr;   // the new thread's, looked at after it ended
    KuvErrorCallBack handler = nullptr;
    std::thread([&] {
        context = ownGetThreadContext();
        status = kuvGetErrStatus(), mode = kuvGetErrMode(), handler = kuvRedirectError(quiet);
        kuvError(KUV_StsBadTileSize, "f", "c", "file", 1);
        after = kuvGetErrStatus();
    }).join();
    EXPECT_TRUE(context != nullptr && context != ownGetThreadContext() && after == KUV_StsBadTileSize);
    EXPECT_TRUE(status == 0 && mode == KUV_ErrorModeLeaf && handler == kuvGuiBoxReport);
    EXPECT_TRUE(kuvGetErrStatus() == KUV_StsBadAlign && kuvGetErrMode() == KUV_ErrorModeSilent &&
                capture.count() == 0) << "nothing of the other threads reached this one";
    KuvThreadContext fresh;
    ownInitThreadContext(&fresh);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(fresh.transformCache[i], i == 0 ? -1 : 0) << i;
}

TEST(Version, RecordAndCycleCounterTouchNoStatus) {
    kuvtest::ReportCapture capture;
    kuvSetErrStatus(-19);
    const KuvLibVersion* v = kuvGetLibVersion();
    ASSERT_TRUE(v != nullptr && v == kuvGetLibVersion());
    EXPECT_TRUE(v->major == 2 && v->minor == 1 && v->build == 58);
    EXPECT_EQ(std::string(v->name) + "|" + v->version + "|" + v->internalVersion + "|" + v->buildDate + "|" +
              v->callConv, "kuvX5.dll|2.1|[2.1.058, 02/02/99]|Feb  6 1999|DLL");
    const uint64_t first = kuvGetCycleCounter();
    EXPECT_LT(first, kuvGetCycleCounter());
    EXPECT_TRUE(kuvGetErrStatus() == -19 && capture.count() == 0);
}

}  // namespace
