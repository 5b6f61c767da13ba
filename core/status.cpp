// Per-thread status, error modes, kuvError, the report handlers, version.
#include "core/platform.h"
#include "kuv_own.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const KuvLibVersion libVersion = {
    2, 1, 58, "kuvX5.dll", "2.1", "[2.1.058, 02/02/99]", "Feb  6 1999", "DLL",
};

// The mask form of a text is this prefix followed by the plain text, so each
// plain text is stored once, right after its own "Mask. " prefix.
#define OWN_MASKABLE(text) "Mask. " text
const char* const unknownText = "Unknown error or status code";

struct StatusText {
    KuvStatus code;
    const char* text;   // points at "Mask. " for codes that have a mask form
    bool maskable;
};

const StatusText statusTexts[] = {
    {KUV_StsNoError, "No Error", false},
    {KUV_StsBacktrace, "Backtrace", false},
    {KUV_StsBadState, "Internal error (bad state)", false},
    {KUV_StsOutOfMemory, "Out of memory", false},
    {KUV_StsBadArgument, "Bad argument", false},
    {KUV_StsUnsupported, "Unsupported function", false},
    {KUV_StsNoConvergence, "Iteration convergence failed", false},
    {KUV_StsAutotrace, "Autotrace call", false},
    {KUV_StsNullHeader, "Null pointer to an image header", false},
    {KUV_StsBadImageSize, OWN_MASKABLE("Incorrect image size"), true},
    {KUV_StsBadROIOffset, OWN_MASKABLE("Incorrect offset of ROI of the image"), true},
    {KUV_StsBadDataPointers,
     OWN_MASKABLE("One from two pointers should be null, and other should be not null, "
                  "imageData or tileInfo "),
     true},
    {KUV_StsBadWidthStep, OWN_MASKABLE("Incorrect widthStep of the image"), true},
    {KUV_StsBadColorModel,
     OWN_MASKABLE("Incorrect Color model or channel sequence of the image"), true},
    {KUV_StsBadChannels, OWN_MASKABLE("Incorrect number of channels in the image"), true},
    {KUV_StsBadChannels1U, "Number of channels for 1U depth image must be one", false},
    {KUV_StsBadDepth, OWN_MASKABLE("Incorrect depth value in the image header"), true},
    {KUV_StsBadAlphaChannel, OWN_MASKABLE("Incorrect alpha channel number in the image header"),
     true},
    {KUV_StsBadDataOrder, OWN_MASKABLE("Incorrect data order value in the image header"), true},
    {KUV_StsBadOrigin, OWN_MASKABLE("Incorrect data origin value in the image header"), true},
    {KUV_StsBadAlign, OWN_MASKABLE("Incorrect data alignment value in the image header"), true},
    {KUV_StsNullCallback, "Null pointer to callback function", false},
    {KUV_StsBadTileSize, "Incorrect size of the tile", false},
    {KUV_StsBadCOI, OWN_MASKABLE("Incorrect COI of the image"), true},
    {KUV_StsBadROISize, OWN_MASKABLE("Incorrect size of ROI in the image header"), true},
    {KUV_StsMaskTiled, "Mask image is taled", false},
};
#undef OWN_MASKABLE

constexpr size_t maskPrefixLength = 6;  // strlen("Mask. ")

}  // namespace

void ownInitThreadContext(KuvThreadContext* context) {
    context->errStatus = KUV_StsNoError;
    context->errMode = KUV_ErrorModeLeaf;
    context->reportHandler = kuvGuiBoxReport;
    context->transformCache[0] = -1;
    for (int i = 1; i < 6; ++i) context->transformCache[i] = 0;
}

void ownReleaseContextCaches(KuvThreadContext* context) {
    // No transform family caches tables yet; the caches stay marked empty.
    context->transformCache[0] = -1;
}

extern "C" {

KUV_API KuvStatus kuvGetErrStatus(void) { return ownGetThreadContext()->errStatus; }

KUV_API void kuvSetErrStatus(KuvStatus status) { ownGetThreadContext()->errStatus = status; }

KUV_API int32_t kuvGetErrMode(void) { return ownGetThreadContext()->errMode; }

KUV_API void kuvSetErrMode(int32_t mode) { ownGetThreadContext()->errMode = mode; }

KUV_API KuvErrorCallBack kuvRedirectError(KuvErrorCallBack handler) {
    KuvThreadContext* context = ownGetThreadContext();
    KuvErrorCallBack previous = context->reportHandler;
    context->reportHandler = handler != nullptr ? handler : kuvGuiBoxReport;
    return previous;
}

KUV_API KuvStatus kuvError(KuvStatus status, const char* funcName, const char* context,
                           const char* fileName, int32_t line) {
    KuvThreadContext* thread = ownGetThreadContext();
    if (status != KUV_StsBacktrace && status != KUV_StsAutotrace) {
        thread->errStatus = status;
        if (status == KUV_StsNoError) return KUV_StsNoError;
    }
    return thread->reportHandler(status, funcName, context, fileName, line);
}

KUV_API const char* kuvErrorStr(KuvStatus status) {
    bool mask = false;
    KuvStatus plain = status;
    if (status <= -110) {
        mask = true;
        plain = status + KUV_StsMaskOffset;
    }
    for (const StatusText& entry : statusTexts) {
        if (entry.code != plain) continue;
        if (mask) return entry.maskable ? entry.text : unknownText;
        return entry.maskable ? entry.text + maskPrefixLength : entry.text;
    }
    return unknownText;
}

KUV_API KuvStatus kuvNulDevReport(KuvStatus status, const char*, const char*, const char*,
                                  int32_t) {
    if (kuvGetErrMode() == KUV_ErrorModeLeaf) ownPlatformExit(1);
    return status;
}

KUV_API KuvStatus kuvStdErrReport(KuvStatus status, const char* funcName, const char* context,
                                  const char* fileName, int32_t line) {
    const int32_t mode = kuvGetErrMode();
    if (mode == KUV_ErrorModeSilent) return status;
    if (status == KUV_StsBacktrace || status == KUV_StsAutotrace) {
        std::fputs("\tcalled from", stderr);
    } else {
        std::fprintf(stderr, "\nKUV Library Error: %s \n\tin function", kuvErrorStr(status));
    }
    if (line > 0 || fileName != nullptr) {
        std::fprintf(stderr, " [%s:%d]", fileName != nullptr ? fileName : "(null)", line);
    }
    std::fprintf(stderr, ":%s", funcName != nullptr ? funcName : "<unknown>");
    if (context != nullptr) {
        std::fprintf(stderr, status == KUV_StsAutotrace ? "(%s)" : "(): %s", context);
    }
    std::fputs("\n", stderr);
    std::fflush(stderr);
    if (mode == KUV_ErrorModeLeaf) {
        std::fputs("KUV Library Error\nErrMode=KUV_ErrModeLeaf\nterminating the application",
                   stderr);
        std::fflush(stderr);
        ownPlatformExit(1);
    }
    return status;
}

KUV_API KuvStatus kuvGuiBoxReport(KuvStatus status, const char* funcName, const char* context,
                                  const char* fileName, int32_t line) {
    const int32_t mode = kuvGetErrMode();
    if (mode == KUV_ErrorModeSilent) return status;

    const char* statusText = kuvErrorStr(status);
    if (funcName == nullptr) funcName = "<unknown>";
    if (context == nullptr) context = "";
    if (fileName == nullptr) fileName = "";
    if (line < 0) line = 0;

    const size_t size = std::strlen(context) + std::strlen(statusText) + std::strlen(funcName) +
                        std::strlen(fileName) + 200;
    char* message = static_cast<char*>(std::malloc(size));
    if (message == nullptr) return status;   // no buffer, no report

    const char* tail = mode == KUV_ErrorModeLeaf
                           ? "\n\nErrMode=KUV_ErrorModeLeaf\n\nTerminate the application?"
                       : mode == KUV_ErrorModeParent ? "\n\nErrMode=KUV_ErrorModeParent\n\nContinue?"
                                                     : "";
    const char* format = (status == KUV_StsBacktrace || status == KUV_StsAutotrace)
                             ? "Called from %s(): [file %s, line %d]\n%s\n\n%s\n(status: %d)%s"
                             : "In function %s(): [file %s, line %d]\n%s\n\n%s\n(status: %d)%s";
    std::snprintf(message, size, format, funcName, fileName, line, context, statusText, status,
                  tail);
    char caption[64];
    std::snprintf(caption, sizeof caption, "KUV %s", kuvGetLibVersion()->version);

    bool stop = false;
    if (mode == KUV_ErrorModeParent) {
        stop = ownPlatformMessageBox(message, caption, OWN_BOX_OKCANCEL_HAND) == OWN_BOX_CANCEL;
    } else if (mode == KUV_ErrorModeLeaf) {
        stop = ownPlatformMessageBox(message, caption, OWN_BOX_YESNO_HAND) == OWN_BOX_YES;
    }
    if (stop) {
        ownPlatformMessageBox("KUV Library: terminating the application", "Win32: Application exit",
                              OWN_BOX_OK_ASTERISK);
        std::free(message);
        ownPlatformExit(1);
    }
    std::free(message);
    return status;
}

KUV_API const KuvLibVersion* kuvGetLibVersion(void) { return &libVersion; }

KUV_API uint64_t kuvGetCycleCounter(void) { return ownPlatformCycleCounter(); }

}  // extern "C"
