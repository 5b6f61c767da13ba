// Table lookups of byte sources into 4-byte elements with AVX-512 VBMI: the
// table is cut into its four byte planes, each plane is looked up for 64
// indices by two 128-entry byte permutes, and the planes are interleaved
// back into elements.
#include "core/platform.h"
#include "depth/rows.h"

#include <cstring>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define KUV_DEPTH_HAVE_VBMI 1
#endif

namespace kuv::depth {

#ifdef KUV_DEPTH_HAVE_VBMI
namespace {

// Read from the platform layer, which is ready whenever this constant is made.
bool detectVbmi() { return (ownPlatformCpuFeatures() & OWN_CPU_AVX512VBMI) != 0; }

const bool haveVbmi = detectVbmi();

// Destination lines are claimed for writing this far ahead: the loop is
// quick enough that the stores otherwise wait on their lines.
constexpr ptrdiff_t kClaimAhead = 4096;

// A destination run larger than this would not stay in the cache anyway: it
// is written past the cache, which spares reading its lines first. Below it,
// a run that fits in a large third-level cache with its source is faster
// through the cache (a 25 MB run took 0.8 of the streamed time here).
constexpr ptrdiff_t kStreamBytes = ptrdiff_t{32} << 20;

__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline void put64(char* out, __m512i v,
                                                                         bool stream) {
    if (stream) _mm512_stream_si512(reinterpret_cast<__m512i*>(out), v);
    else _mm512_storeu_si512(out, v);
}

}  // namespace

bool haveByteTableRuns() { return haveVbmi; }

__attribute__((target("avx512f,avx512bw,avx512vbmi,prfchw"))) void byteTableRun(
    const uint8_t* s, void* dst, ptrdiff_t n, const void* table) {
    alignas(64) uint8_t planes[4][256];
    const auto* entries = static_cast<const uint8_t*>(table);
    for (int v = 0; v < 256; ++v) {
        for (int k = 0; k < 4; ++k) planes[k][v] = entries[4 * v + k];
    }
    __m512i quarter[4][4];
    for (int k = 0; k < 4; ++k) {
        for (int q = 0; q < 4; ++q) quarter[k][q] = _mm512_load_si512(planes[k] + 64 * q);
    }
    // The unpacks interleave within 128-bit lanes; indices are put in the
    // order that brings the elements out in sequence.
    alignas(64) uint8_t order[64];
    for (int lane = 0; lane < 4; ++lane) {
        for (int q = 0; q < 4; ++q) {
            for (int r = 0; r < 4; ++r) order[16 * lane + 4 * q + r] = uint8_t(16 * q + 4 * lane + r);
        }
    }
    const __m512i reorder = _mm512_load_si512(order);
    char* d = static_cast<char*>(dst);
    auto one = [&](ptrdiff_t i) { std::memcpy(d + 4 * i, entries + 4 * size_t{s[i]}, 4); };
    const bool stream = 4 * n > kStreamBytes;
    ptrdiff_t i = 0;
    if (stream) {
        for (; i < n && (reinterpret_cast<uintptr_t>(d + 4 * i) & 63) != 0; ++i) one(i);
    }
    for (; i + 64 <= n; i += 64) {
        char* out = d + 4 * i;
        if (!stream) {
            for (int line = 0; line < 4; ++line) __builtin_prefetch(out + kClaimAhead + 64 * line, 1, 3);
        }
        const __m512i raw = _mm512_loadu_si512(s + i);
        const __m512i x = _mm512_permutex2var_epi8(raw, reorder, raw);
        const __mmask64 upper = _mm512_movepi8_mask(x);
        __m512i p[4];
        for (int k = 0; k < 4; ++k) {
            const __m512i lo = _mm512_permutex2var_epi8(quarter[k][0], x, quarter[k][1]);
            const __m512i hi = _mm512_permutex2var_epi8(quarter[k][2], x, quarter[k][3]);
            p[k] = _mm512_mask_blend_epi8(upper, lo, hi);
        }
        const __m512i a0 = _mm512_unpacklo_epi8(p[0], p[1]), a1 = _mm512_unpackhi_epi8(p[0], p[1]);
        const __m512i b0 = _mm512_unpacklo_epi8(p[2], p[3]), b1 = _mm512_unpackhi_epi8(p[2], p[3]);
        put64(out, _mm512_unpacklo_epi16(a0, b0), stream);
        put64(out + 64, _mm512_unpackhi_epi16(a0, b0), stream);
        put64(out + 128, _mm512_unpacklo_epi16(a1, b1), stream);
        put64(out + 192, _mm512_unpackhi_epi16(a1, b1), stream);
    }
    if (stream) _mm_sfence();
    for (; i < n; ++i) one(i);
}

#else

bool haveByteTableRuns() { return false; }

void byteTableRun(const uint8_t* s, void* dst, ptrdiff_t n, const void* table) {
    const auto* entries = static_cast<const uint8_t*>(table);
    for (ptrdiff_t i = 0; i < n; ++i) {
        std::memcpy(static_cast<char*>(dst) + 4 * i, entries + 4 * size_t{s[i]}, 4);
    }
}

#endif

}  // namespace kuv::depth
