// Per-thread contexts: status, mode and handler belong to the calling thread,
// and a new thread starts with the defaults whatever its creator set.
#include <thread>
#include <vector>

#include "kuv_own.h"
#include "tests/support/kuv_test.h"

namespace {

KuvStatus quietHandler(KuvStatus status, const char*, const char*, const char*, int32_t) {
    return status;
}

struct Seen {
    KuvStatus status = 1;
    int32_t mode = -1;
    KuvErrorCallBack handler = nullptr;
    KuvThreadContext* context = nullptr;
    KuvThreadContext* contextAgain = nullptr;
    intptr_t cache[6] = {};
    KuvStatus statusAfterOwnFault = 0;
};

// What a fresh thread finds, before and after it stores a fault of its own.
Seen lookFromNewThread() {
    Seen seen;
    std::thread thread([&seen] {
        seen.context = ownGetThreadContext();
        seen.contextAgain = ownGetThreadContext();
        for (int i = 0; i < 6; ++i) seen.cache[i] = seen.context->transformCache[i];
        seen.status = kuvGetErrStatus();
        seen.mode = kuvGetErrMode();
        seen.handler = kuvRedirectError(quietHandler);
        kuvSetErrMode(KUV_ErrorModeParent);
        kuvError(KUV_StsBadTileSize, "f", "c", "file", 1);
        seen.statusAfterOwnFault = kuvGetErrStatus();
    });
    thread.join();
    return seen;
}

TEST(ThreadContext, NewThreadStartsWithTheDefaults) {
    kuvtest::ReportCapture capture;  // this thread: recording handler, Parent mode
    kuvSetErrStatus(KUV_StsBadAlign);
    kuvSetErrMode(KUV_ErrorModeSilent);

    const Seen seen = lookFromNewThread();
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.mode, KUV_ErrorModeLeaf);
    EXPECT_EQ(seen.handler, kuvGuiBoxReport);
    ASSERT_NE(seen.context, nullptr);
    EXPECT_EQ(seen.context, seen.contextAgain);
    EXPECT_NE(seen.context, ownGetThreadContext());
    EXPECT_EQ(seen.cache[0], -1);
    for (int i = 1; i < 6; ++i) EXPECT_EQ(seen.cache[i], 0) << "cache word " << i;
    EXPECT_EQ(seen.statusAfterOwnFault, KUV_StsBadTileSize);

    // Nothing of the other thread reached this one.
    EXPECT_EQ(kuvGetErrStatus(), KUV_StsBadAlign);
    EXPECT_EQ(kuvGetErrMode(), KUV_ErrorModeSilent);
    EXPECT_EQ(capture.count(), 0u);
    kuvSetErrMode(KUV_ErrorModeParent);
}

TEST(ThreadContext, EachNewThreadStartsAfreshAfterAnotherChangedItsOwn) {
    // The second thread must not inherit what the first one stored.
    const Seen first = lookFromNewThread();
    const Seen second = lookFromNewThread();
    EXPECT_EQ(first.statusAfterOwnFault, KUV_StsBadTileSize);
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.mode, KUV_ErrorModeLeaf);
    EXPECT_EQ(second.handler, kuvGuiBoxReport);
}

TEST(ThreadContext, ThreadsRunningTogetherKeepTheirOwnStatus) {
    constexpr int threads = 4;
    constexpr int rounds = 2000;
    int mismatches[threads] = {};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([t, &mismatches] {
            kuvRedirectError(quietHandler);
            kuvSetErrMode(KUV_ErrorModeSilent + t);
            for (int i = 0; i < rounds; ++i) {
                const KuvStatus mine = -(t * 10000 + i) - 1000;  // never a trace code
                kuvError(mine, "f", "c", "file", i);
                std::this_thread::yield();
                if (kuvGetErrStatus() != mine) ++mismatches[t];
                if (kuvGetErrMode() != KUV_ErrorModeSilent + t) ++mismatches[t];
            }
        });
    }
    for (std::thread& thread : pool) thread.join();
    for (int t = 0; t < threads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

}  // namespace
