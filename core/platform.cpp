// Platform layer: thread-local context slot, load notifications, the message
// box stand-in, process exit and the cycle counter.
#include "core/platform.h"
#include "kuv_own.h"

#include <pthread.h>

#include <atomic>
#include <cfenv>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#if defined(__i386__) || defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace {

// The slot: a pthread key whose destructor is the thread-end notification.
// thread_local caches the context so that the common path is one load.
pthread_key_t contextKey;
bool contextKeyReady = false;
thread_local KuvThreadContext* cachedContext = nullptr;

void releaseContext(KuvThreadContext* context) {
    if (context == nullptr) return;
    ownReleaseContextCaches(context);
    std::free(context);
}

// Thread end: pthreads calls this with the slot's value.
void onThreadEnd(void* value) {
    releaseContext(static_cast<KuvThreadContext*>(value));
    cachedContext = nullptr;
}

KuvThreadContext* makeContext() {
    auto* context = static_cast<KuvThreadContext*>(std::calloc(1, sizeof(KuvThreadContext)));
    if (context == nullptr) return nullptr;
    ownInitThreadContext(context);
    if (contextKeyReady) pthread_setspecific(contextKey, context);
    cachedContext = context;
    return context;
}

// Process start: the slot, then the loading thread's context as at thread
// start. A failed context here is not fatal: it is made lazily later.
__attribute__((constructor)) void onProcessStart() {
    if (pthread_key_create(&contextKey, onThreadEnd) != 0) {
        ownPlatformFatalExit("KUVlib. Problem to allocate memory for TLS KUV context.");
    }
    contextKeyReady = true;
    makeContext();
}

// Process end: as thread end for the unloading thread, then free the slot.
__attribute__((destructor)) void onProcessEnd() {
    if (!contextKeyReady) return;
    auto* context = static_cast<KuvThreadContext*>(pthread_getspecific(contextKey));
    pthread_setspecific(contextKey, nullptr);
    releaseContext(context);
    cachedContext = nullptr;
    pthread_key_delete(contextKey);
    contextKeyReady = false;
}

}  // namespace

KuvThreadContext* ownGetThreadContext() {
    KuvThreadContext* context = cachedContext;
    if (context != nullptr) return context;
    context = makeContext();
    if (context == nullptr) {
        ownPlatformFatalExit("KUVlib. Problem to allocate memory for TLS KUV context.");
    }
    return context;
}

int ownPlatformMessageBox(const char* text, const char* caption, uint32_t type) {
    std::fprintf(stderr, "[%s]\n%s\n", caption, text);
    std::fflush(stderr);
    switch (type & 0xF) {
        case 0x1: return OWN_BOX_OK;    // OK/Cancel: continue
        case 0x4: return OWN_BOX_YES;   // Yes/No: terminate
        default: return OWN_BOX_OK;
    }
}

void ownPlatformExit(int code) { std::exit(code); }

void ownPlatformFatalExit(const char* text) {
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
    std::exit(1);
}

namespace {

unsigned readCpuFeatures() {
    unsigned f = 0;
#if defined(__GNUC__) && (defined(__i386__) || defined(__x86_64__))
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) f |= OWN_CPU_AVX2;
    if (__builtin_cpu_supports("fma")) f |= OWN_CPU_FMA;
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq")) {
        f |= OWN_CPU_AVX512;
        if (__builtin_cpu_supports("avx512vbmi")) f |= OWN_CPU_AVX512VBMI;
    }
#endif
    return f;
}

// Read on first use, as other files' load-time initialisers ask before this
// file's would run. No function-local static: its guard would tie the
// static library to the C++ runtime, which a C program does not link. Two
// threads that race here store the same word.
constexpr unsigned featuresKnown = 1u << 31;
std::atomic<unsigned> featureWord{0};
std::atomic<unsigned> featureLimit{~0u};

}  // namespace

unsigned ownPlatformCpuFeatures() {
    unsigned f = featureWord.load(std::memory_order_relaxed);
    if (f == 0) {
        f = readCpuFeatures() | featuresKnown;
        featureWord.store(f, std::memory_order_relaxed);
    }
    return f & ~featuresKnown & featureLimit.load(std::memory_order_relaxed);
}

unsigned ownPlatformLimitFeatures(unsigned allowed) {
    return featureLimit.exchange(allowed, std::memory_order_relaxed);
}

uint64_t ownPlatformCycleCounter() {
#if defined(__i386__) || defined(__x86_64__)
    return __rdtsc();
#else
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
#endif
}

// On x86 the SSE unit and the x87 unit each keep a rounding mode, and a
// caller may have changed one alone (_mm_setcsr, fldcw); <cfenv> reads only
// one of them. The float work may run on either, so both are set and both
// are put back.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
namespace {
constexpr unsigned kSseRounding = 0x6000u;   // MXCSR bits 13-14, 0 is nearest
constexpr unsigned kX87Rounding = 0x0C00u;   // control word bits 10-11, 0 is nearest

unsigned readX87() {
    unsigned short cw = 0;
    __asm__ volatile("fnstcw %0" : "=m"(cw));
    return cw;
}

void writeX87(unsigned value) {
    const unsigned short cw = static_cast<unsigned short>(value);
    __asm__ volatile("fldcw %0" : : "m"(cw));
}

#if defined(__x86_64__) || defined(__SSE__)
unsigned readSse() { return _mm_getcsr(); }
void writeSse(unsigned value) { _mm_setcsr(value); }
#else
unsigned readSse() { return 0; }
void writeSse(unsigned) {}
#endif
}  // namespace

OwnRoundNearest::OwnRoundNearest() : saved_{readSse(), readX87()} {
    if (saved_[0] & kSseRounding) writeSse(saved_[0] & ~kSseRounding);
    if (saved_[1] & kX87Rounding) writeX87(saved_[1] & ~kX87Rounding);
}

// Only the rounding bits go back: the exception flags that the call raised
// stay raised, as they would with fesetround.
OwnRoundNearest::~OwnRoundNearest() {
    if (saved_[0] & kSseRounding) writeSse(readSse() | (saved_[0] & kSseRounding));
    if (saved_[1] & kX87Rounding) writeX87(readX87() | (saved_[1] & kX87Rounding));
}
#else
OwnRoundNearest::OwnRoundNearest() : saved_{static_cast<unsigned>(std::fegetround()), 0} {
    if (static_cast<int>(saved_[0]) != FE_TONEAREST) std::fesetround(FE_TONEAREST);
}

OwnRoundNearest::~OwnRoundNearest() {
    if (static_cast<int>(saved_[0]) != FE_TONEAREST) std::fesetround(static_cast<int>(saved_[0]));
}
#endif
