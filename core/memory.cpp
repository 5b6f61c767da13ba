// The kuvMalloc family and the counted pixel blocks.
#include "kuv_own.h"

#include <atomic>
#include <cstdlib>

namespace {

// Outstanding blocks, so that tests can prove that no call leaves one
// behind. Relaxed: a count, not a synchronisation.
std::atomic<long> outstanding{0};
// Every block ever made, so that a test can prove that a call made none.
std::atomic<long> made{0};

// A block is the requested bytes plus room to align the start to 32 bytes
// with the block's own start stored in the word just below it, and at least
// 33 bytes after the requested length. On a 32-bit target this is the
// classic form: 68 bytes more, start + 35 rounded down to 32.
constexpr size_t wordSize = sizeof(void*);
constexpr size_t extraBytes = 64 + wordSize;
constexpr uintptr_t startOffset = 31 + wordSize;

void* allocFamily(int64_t bytes) {
    if (bytes < 0) return nullptr;
    char* block = static_cast<char*>(std::malloc(static_cast<size_t>(bytes) + extraBytes));
    if (block == nullptr) return nullptr;
    auto aligned = (reinterpret_cast<uintptr_t>(block) + startOffset) & ~static_cast<uintptr_t>(31);
    reinterpret_cast<void**>(aligned)[-1] = block;
    outstanding.fetch_add(1, std::memory_order_relaxed);
    made.fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<void*>(aligned);
}

}  // namespace

void* ownImageBlockAlloc(size_t bytes) {
    void* block = std::malloc(bytes);
    if (block != nullptr) {
        outstanding.fetch_add(1, std::memory_order_relaxed);
        made.fetch_add(1, std::memory_order_relaxed);
    }
    return block;
}

void ownImageBlockFree(void* block) {
    if (block == nullptr) return;
    outstanding.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

long ownOutstandingBlocks() { return outstanding.load(std::memory_order_relaxed); }

long ownBlocksMade() { return made.load(std::memory_order_relaxed); }

extern "C" {

KUV_API void* kuvMalloc(int32_t length) { return allocFamily(length); }
KUV_API void* kuvwMalloc(int32_t length) { return allocFamily(int64_t{length} * 2); }
KUV_API void* kuviMalloc(int32_t length) { return allocFamily(int64_t{length} * 4); }
KUV_API void* kuvsMalloc(int32_t length) { return allocFamily(int64_t{length} * 4); }
KUV_API void* kuvdMalloc(int32_t length) { return allocFamily(int64_t{length} * 8); }

KUV_API void kuvFree(void* block) {
    if (block == nullptr) return;
    outstanding.fetch_sub(1, std::memory_order_relaxed);
    std::free(static_cast<void**>(block)[-1]);
}

KUV_API void kuvDeleteROI(KuvROI* roi) { kuvFree(roi); }
KUV_API void kuvDeleteTileInfo(KuvTileInfo* tileInfo) { kuvFree(tileInfo); }

}  // extern "C"
