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

OwnRoundNearest::OwnRoundNearest() : saved_(std::fegetround()) {
    if (saved_ != FE_TONEAREST) std::fesetround(FE_TONEAREST);
}

OwnRoundNearest::~OwnRoundNearest() {
    if (saved_ != FE_TONEAREST) std::fesetround(saved_);
}
