// The three report handlers: what each writes to the standard error stream in
// each mode, and which modes end the process.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/kuv_test.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// Saves the thread's handler, mode and status, and puts them back.
class HandlerScope {
public:
    explicit HandlerScope(int32_t mode) {
        handler_ = kuvRedirectError(nullptr);
        kuvRedirectError(handler_);
        mode_ = kuvGetErrMode();
        status_ = kuvGetErrStatus();
        kuvSetErrMode(mode);
    }
    ~HandlerScope() {
        kuvRedirectError(handler_);
        kuvSetErrMode(mode_);
        kuvSetErrStatus(status_);
    }

private:
    KuvErrorCallBack handler_;
    int32_t mode_;
    KuvStatus status_;
};

// The texts of `ordered` appear in this order, and those of `anywhere`
// somewhere (gtest without gmock has no substring matcher).
::testing::AssertionResult holds(const std::string& text, const std::vector<std::string>& ordered,
                                 const std::vector<std::string>& anywhere = {}) {
    size_t at = 0;
    for (const std::string& part : ordered) {
        const size_t found = text.find(part, at);
        if (found == std::string::npos) {
            return ::testing::AssertionFailure()
                   << "missing (in order) " << ::testing::PrintToString(part) << " in "
                   << ::testing::PrintToString(text);
        }
        at = found + part.size();
    }
    for (const std::string& part : anywhere) {
        if (text.find(part) == std::string::npos) {
            return ::testing::AssertionFailure() << "missing " << ::testing::PrintToString(part)
                                                 << " in " << ::testing::PrintToString(text);
        }
    }
    return ::testing::AssertionSuccess();
}

class HoldsMatcher : public ::testing::MatcherInterface<const std::string&> {
public:
    HoldsMatcher(std::vector<std::string> ordered, std::vector<std::string> anywhere)
        : ordered_(std::move(ordered)), anywhere_(std::move(anywhere)) {}
    bool MatchAndExplain(const std::string& text,
                         ::testing::MatchResultListener* listener) const override {
        const ::testing::AssertionResult result = holds(text, ordered_, anywhere_);
        if (!result) *listener << result.message();
        return static_cast<bool>(result);
    }
    void DescribeTo(std::ostream* out) const override {
        *out << "holds, in order:";
        for (const std::string& part : ordered_) *out << ' ' << ::testing::PrintToString(part);
        *out << "; and anywhere:";
        for (const std::string& part : anywhere_) *out << ' ' << ::testing::PrintToString(part);
    }

private:
    std::vector<std::string> ordered_, anywhere_;
};

::testing::Matcher<const std::string&> holdsMatcher(std::vector<std::string> ordered,
                                                    std::vector<std::string> anywhere = {}) {
    return ::testing::MakeMatcher(new HoldsMatcher(std::move(ordered), std::move(anywhere)));
}

::testing::Matcher<const std::string&> isExactly(const std::string& text) {
    return ::testing::Matcher<const std::string&>(::testing::Eq(text));
}

// ---------------------------------------------------------------- kuvStdErrReport

struct StdErrCase {
    KuvStatus status;
    const char *func, *context, *file;
    int32_t line;
    const char* written;
};

TEST(StdErrReport, WritesEachBranchExactlyAndReturnsTheStatus) {
    const StdErrCase cases[] = {
        {KUV_StsBadArgument, "kuvAdd", "(srcImageA->depth != dstImage->depth)", "kuvadd", 42,
         "\nKUV Library Error: Bad argument \n\tin function [kuvadd:42]:kuvAdd(): "
         "(srcImageA->depth != dstImage->depth)\n"},
        {KUV_StsBacktrace, "kuvCopy", "", "kuvcopy", 9, "\tcalled from [kuvcopy:9]:kuvCopy(): \n"},
        {KUV_StsAutotrace, "f", "why", "file", 1, "\tcalled from [file:1]:f(why)\n"},
        {KUV_StsAutotrace, "f", nullptr, nullptr, 0, "\tcalled from:f\n"},
        {KUV_StsBacktrace, nullptr, nullptr, nullptr, -2, "\tcalled from:<unknown>\n"},
        {KUV_StsBadDepth, nullptr, nullptr, nullptr, 0,
         "\nKUV Library Error: Incorrect depth value in the image header \n\tin function"
         ":<unknown>\n"},
        // A file name alone is enough for the bracket, whatever the line.
        {KUV_StsBadDepth, "f", "c", "file", 0,
         "\nKUV Library Error: Incorrect depth value in the image header \n\tin function"
         " [file:0]:f(): c\n"},
        {-117, "f", "c", "file", -4,
         "\nKUV Library Error: Mask. Incorrect depth value in the image header \n\tin function"
         " [file:-4]:f(): c\n"},
        {-12, "g", "", "kuvalloc", 5,
         "\nKUV Library Error: One from two pointers should be null, and other should be not "
         "null, imageData or tileInfo  \n\tin function [kuvalloc:5]:g(): \n"},
        {3, "h", "x", "y", 8,
         "\nKUV Library Error: Unknown error or status code \n\tin function [y:8]:h(): x\n"},
    };
    for (int32_t mode : {KUV_ErrorModeParent, 7}) {
        HandlerScope scope(mode);
        for (const StdErrCase& c : cases) {
            CaptureStderr();
            const KuvStatus result = kuvStdErrReport(c.status, c.func, c.context, c.file, c.line);
            const std::string written = GetCapturedStderr();
            EXPECT_EQ(result, c.status);
            EXPECT_EQ(written, c.written) << "mode " << mode << ", status " << c.status;
        }
    }
}

TEST(StdErrReport, LineWithoutFileStillGetsTheBracket) {
    HandlerScope scope(KUV_ErrorModeParent);
    CaptureStderr();
    kuvStdErrReport(KUV_StsBadCOI, "f", "c", nullptr, 3);
    const std::string written = GetCapturedStderr();
    const std::string head = "\nKUV Library Error: Incorrect COI of the image \n\tin function [";
    EXPECT_EQ(written.compare(0, head.size(), head), 0) << written;
    EXPECT_NE(written.find(":3]:f(): c\n"), std::string::npos) << written;
}

TEST(StdErrReport, SilentWritesNothing) {
    HandlerScope scope(KUV_ErrorModeSilent);
    CaptureStderr();
    EXPECT_EQ(kuvStdErrReport(KUV_StsBadArgument, "f", "c", "file", 1), KUV_StsBadArgument);
    EXPECT_EQ(kuvStdErrReport(KUV_StsBacktrace, "f", "c", "file", 1), KUV_StsBacktrace);
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST(StdErrReport, ThroughKuvErrorInParentMode) {
    HandlerScope scope(KUV_ErrorModeParent);
    kuvRedirectError(kuvStdErrReport);
    CaptureStderr();
    EXPECT_EQ(kuvError(KUV_StsOutOfMemory, "kuvX", "no", "kuvx", 10), KUV_StsOutOfMemory);
    EXPECT_EQ(kuvError(KUV_StsBacktrace, "kuvY", "", "kuvy", 11), KUV_StsBacktrace);
    EXPECT_EQ(GetCapturedStderr(),
              "\nKUV Library Error: Out of memory \n\tin function [kuvx:10]:kuvX(): no\n"
              "\tcalled from [kuvy:11]:kuvY(): \n");
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsOutOfMemory);
}

using ReportDeathTest = ::testing::Test;

TEST_F(ReportDeathTest, StdErrLeafEndsTheProcessAfterItsNotice) {
    EXPECT_EXIT(
        {
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvStdErrReport(KUV_StsBadArgument, "kuvAdd", "(a)", "kuvadd", 42);
        },
        ::testing::ExitedWithCode(1),
        isExactly("\nKUV Library Error: Bad argument \n\tin function [kuvadd:42]:kuvAdd(): (a)\n"
                  "KUV Library Error\nErrMode=KUV_ErrModeLeaf\nterminating the application"));
    // A trace report ends it as well.
    EXPECT_EXIT(
        {
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvRedirectError(kuvStdErrReport);
            kuvError(KUV_StsBacktrace, "outer", "", "kuvout", 7);
        },
        ::testing::ExitedWithCode(1),
        isExactly("\tcalled from [kuvout:7]:outer(): \n"
                  "KUV Library Error\nErrMode=KUV_ErrModeLeaf\nterminating the application"));
}

// ---------------------------------------------------------------- kuvNulDevReport

TEST(NulDevReport, ShowsNothingOutsideLeafMode) {
    for (int32_t mode : {KUV_ErrorModeParent, KUV_ErrorModeSilent, 7}) {
        HandlerScope scope(mode);
        kuvRedirectError(kuvNulDevReport);
        CaptureStderr();
        EXPECT_EQ(kuvNulDevReport(KUV_StsBadAlign, "f", "c", "file", 1), KUV_StsBadAlign);
        EXPECT_EQ(kuvError(KUV_StsBadOrigin, "f", "c", "file", 1), KUV_StsBadOrigin);
        EXPECT_EQ(kuvError(KUV_StsBacktrace, "f", "", "file", 1), KUV_StsBacktrace);
        EXPECT_EQ(GetCapturedStderr(), "") << "mode " << mode;
        EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadOrigin);
    }
}

// Marks the standard error stream when the process ends through exit(), so
// that an abort or _exit shows.
void markOrderlyExit() {
    std::atexit([] { std::fputs("<orderly exit>", stderr); });
}

TEST_F(ReportDeathTest, NulDevLeafEndsTheProcessSilently) {
    EXPECT_EXIT(
        {
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvRedirectError(kuvNulDevReport);
            kuvError(KUV_StsBadArgument, "f", "c", "file", 1);
        },
        ::testing::ExitedWithCode(1), isExactly(""));
    // Through the runtime's orderly exit: exit handlers run.
    EXPECT_EXIT(
        {
            markOrderlyExit();
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvNulDevReport(KUV_StsBadArgument, "f", "c", "file", 1);
        },
        ::testing::ExitedWithCode(1), isExactly("<orderly exit>"));
    EXPECT_EXIT(
        {
            markOrderlyExit();
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvStdErrReport(KUV_StsBacktrace, "f", nullptr, nullptr, 0);
        },
        ::testing::ExitedWithCode(1),
        isExactly("\tcalled from:f\nKUV Library Error\nErrMode=KUV_ErrModeLeaf\n"
                  "terminating the application<orderly exit>"));
    EXPECT_EXIT(
        {
            markOrderlyExit();
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvGuiBoxReport(KUV_StsBadArgument, "f", "c", "file", 1);
        },
        ::testing::ExitedWithCode(1),
        holdsMatcher({"KUV Library: terminating the application", "<orderly exit>"}));
}

// ---------------------------------------------------------------- kuvGuiBoxReport

TEST(GuiBoxReport, ParentModeShowsTheMessageAndCaptionAndReturns) {
    HandlerScope scope(KUV_ErrorModeParent);
    CaptureStderr();
    EXPECT_EQ(kuvGuiBoxReport(KUV_StsBadArgument, "kuvAdd", "(a != b)", "kuvadd", 42),
              KUV_StsBadArgument);
    const std::string written = GetCapturedStderr();
    EXPECT_TRUE(holds(written, {"In function kuvAdd(): [file kuvadd, line 42]\n(a != b)\n\n"
                                "Bad argument\n(status: -5)\n\nErrMode=KUV_ErrorModeParent"
                                "\n\nContinue?"}));
    EXPECT_TRUE(holds(written, {"KUV 2.1"}));
    EXPECT_EQ(written.find("terminating"), std::string::npos) << written;
}

TEST(GuiBoxReport, TraceReportsSayCalledFromAndNullsBecomeEmpty) {
    HandlerScope scope(KUV_ErrorModeParent);
    CaptureStderr();
    EXPECT_EQ(kuvGuiBoxReport(KUV_StsBacktrace, nullptr, nullptr, nullptr, -9), KUV_StsBacktrace);
    std::string written = GetCapturedStderr();
    EXPECT_TRUE(holds(written, {"Called from <unknown>(): [file , line 0]\n\n\nBacktrace\n"
                                "(status: -1)\n\nErrMode=KUV_ErrorModeParent\n\nContinue?"}));
    EXPECT_EQ(written.find("In function"), std::string::npos);

    CaptureStderr();
    EXPECT_EQ(kuvGuiBoxReport(KUV_StsAutotrace, "f", "ctx", "file", 3), KUV_StsAutotrace);
    written = GetCapturedStderr();
    EXPECT_TRUE(holds(written, {"Called from f(): [file file, line 3]\nctx\n\n"
                                "Autotrace call\n(status: -8)"}));
}

TEST(GuiBoxReport, UnknownStatusAndMaskCodes) {
    HandlerScope scope(KUV_ErrorModeParent);
    CaptureStderr();
    kuvGuiBoxReport(-116, "f", "Incorrect Image", "kuvx", 1);
    kuvGuiBoxReport(-121, "g", "Incorrect Image", "kuvx", 2);
    EXPECT_TRUE(
        holds(GetCapturedStderr(), {"In function f(): [file kuvx, line 1]\nIncorrect Image\n\n"
                                    "Unknown error or status code\n(status: -116)",
                                    "In function g(): [file kuvx, line 2]\nIncorrect Image\n\n"
                                    "Mask. Incorrect data alignment value in the image header\n"
                                    "(status: -121)"}));
}

TEST(GuiBoxReport, LongNamesAreNotCut) {
    // The buffer must hold every text, also long function and file names.
    HandlerScope scope(KUV_ErrorModeParent);
    const std::string func(600, 'f'), file(700, 'g'), context(300, 'c');
    CaptureStderr();
    kuvGuiBoxReport(KUV_StsBadState, func.c_str(), context.c_str(), file.c_str(), 123456);
    EXPECT_TRUE(holds(GetCapturedStderr(),
                      {"In function " + func + "(): [file " + file + ", line 123456]\n" + context +
                       "\n\nInternal error (bad state)\n(status: -3)\n\n"
                       "ErrMode=KUV_ErrorModeParent\n\nContinue?"}));
}

TEST(GuiBoxReport, SilentAndUnknownModesShowNothing) {
    for (int32_t mode : {KUV_ErrorModeSilent, 7, -1}) {
        HandlerScope scope(mode);
        CaptureStderr();
        EXPECT_EQ(kuvGuiBoxReport(KUV_StsBadArgument, "f", "c", "file", 1), KUV_StsBadArgument);
        EXPECT_EQ(kuvGuiBoxReport(KUV_StsBacktrace, "f", "", "file", 1), KUV_StsBacktrace);
        EXPECT_EQ(GetCapturedStderr(), "") << "mode " << mode;
    }
}

TEST(GuiBoxReport, IsTheDefaultBehindKuvError) {
    HandlerScope scope(KUV_ErrorModeParent);
    kuvRedirectError(nullptr);
    CaptureStderr();
    EXPECT_EQ(kuvError(KUV_StsBacktrace, "kuvOuter", "", "kuvout", 12), KUV_StsBacktrace);
    EXPECT_TRUE(holds(GetCapturedStderr(),
                      {"Called from kuvOuter(): [file kuvout, line 12]\n\n\nBacktrace\n"
                       "(status: -1)"}));
}

TEST_F(ReportDeathTest, GuiBoxLeafAsksAndTerminates) {
    EXPECT_EXIT(
        {
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvGuiBoxReport(KUV_StsBadArgument, "kuvAdd", "(a != b)", "kuvadd", 42);
        },
        ::testing::ExitedWithCode(1),
        holdsMatcher({"In function kuvAdd(): [file kuvadd, line 42]\n(a != b)\n\nBad argument\n"
                      "(status: -5)\n\nErrMode=KUV_ErrorModeLeaf\n\nTerminate the application?",
                      "KUV Library: terminating the application"},
                     {"KUV 2.1", "Win32: Application exit"}));
    // The default handler of a thread in its default mode ends the process.
    EXPECT_EXIT(
        {
            kuvRedirectError(nullptr);
            kuvSetErrMode(KUV_ErrorModeLeaf);
            kuvError(KUV_StsNullHeader, "kuvZ", "Incorrect Image", "kuvz", 1);
        },
        ::testing::ExitedWithCode(1),
        holdsMatcher({"Null pointer to an image header", "(status: -9)",
                      "KUV Library: terminating the application"}));
}

}  // namespace
