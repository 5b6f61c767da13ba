// The platform services the library uses, in one place. Nothing outside
// core/platform.cpp knows which platform it runs on.
#ifndef KUV_CORE_PLATFORM_H
#define KUV_CORE_PLATFORM_H

#include <cstdint>

struct KuvThreadContext;

// Answers a message box would give.
enum OwnBoxAnswer { OWN_BOX_OK = 1, OWN_BOX_CANCEL = 2, OWN_BOX_YES = 6, OWN_BOX_NO = 7 };

// Box types, as the report texts name them.
enum OwnBoxType : uint32_t {
    OWN_BOX_OKCANCEL_HAND = 0x2011,   // Parent mode: continue?
    OWN_BOX_YESNO_HAND = 0x2014,      // Leaf mode: terminate?
    OWN_BOX_OK_ASTERISK = 0x2040,     // the final notice before exit
};

// Shows a message with a caption and returns the user's answer. With no
// window system the message goes to the standard error stream and the
// answer is the one a careful user gives: terminate in Leaf mode, continue
// in Parent mode.
int ownPlatformMessageBox(const char* text, const char* caption, uint32_t type);

// Ends the process through the runtime's orderly exit.
[[noreturn]] void ownPlatformExit(int code);

// Ends the process after showing text; used only when a thread context
// cannot be had, the one fault that cannot be told by status.
[[noreturn]] void ownPlatformFatalExit(const char* text);

// The processor's time-stamp counter, or the nearest monotonic tick source.
uint64_t ownPlatformCycleCounter();

// Instruction-set extensions that the vector workers may use: the
// processor's, read once, less any that a test has withheld. Each bit names a
// set the operating system also saves. Dispatchers ask on every call, so a
// limit set by a test reaches every family at once.
enum OwnCpuFeature : unsigned {
    OWN_CPU_AVX2 = 1u,
    OWN_CPU_FMA = 2u,
    OWN_CPU_AVX512 = 4u,        // F, BW, VL and DQ together
    OWN_CPU_AVX512VBMI = 8u,    // with OWN_CPU_AVX512
};
unsigned ownPlatformCpuFeatures();

// Test hook: from now on ownPlatformCpuFeatures gives no bit outside
// `allowed` (~0u: the processor's own). Gives the previous limit.
unsigned ownPlatformLimitFeatures(unsigned allowed);

// Sets the floating-point rounding to nearest (ties to even) for the life of
// the object and puts the caller's mode back after, on every path.
class OwnRoundNearest {
public:
    OwnRoundNearest();
    ~OwnRoundNearest();
    OwnRoundNearest(const OwnRoundNearest&) = delete;
    OwnRoundNearest& operator=(const OwnRoundNearest&) = delete;

private:
    // The caller's control words of the two units (x86: SSE, then x87), or
    // the rounding mode of <cfenv> elsewhere.
    unsigned saved_[2];
};

#endif
