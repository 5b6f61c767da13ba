// Row conversions between pixels and floats. Each converter is one loop over
// an element function, compiled for the baseline instruction set and for
// AVX2. Pixels to floats vectorise by themselves; floats to pixels take
// explicit blocks there (the compiler turns the clamps of the element
// function into branches), and finish a row with the element function.
#include "core/platform.h"
#include "filter/rowconv.h"

#include <type_traits>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_ROWCONV_X86 1
#include <immintrin.h>
#define KUV_VECTOR_TARGET __attribute__((target("avx2,fma")))
#else
#define KUV_ROWCONV_X86 0
#define KUV_VECTOR_TARGET
#endif

namespace kuv::rowconv {
namespace {


template <class T>
[[gnu::always_inline]] inline void toFloatRun(const void* src, ptrdiff_t stride, float* dst,
                                              int32_t n) {
    const T* s = static_cast<const T*>(src);
    if (stride == 1) {
        for (int32_t i = 0; i < n; ++i) dst[i] = static_cast<float>(s[i]);
    } else {
        for (int32_t i = 0; i < n; ++i) dst[i] = static_cast<float>(s[i * stride]);
    }
}

template <class T>
[[gnu::always_inline]] inline void fromFloatRun(const float* src, void* dst, ptrdiff_t stride,
                                                int32_t n) {
    T* d = static_cast<T*>(dst);
    if (stride == 1) {
        for (int32_t i = 0; i < n; ++i) d[i] = toPixel<T>(src[i]);
    } else {
        for (int32_t i = 0; i < n; ++i) d[i * stride] = toPixel<T>(src[i]);
    }
}

template <class T>
void toFloatBase(const void* src, ptrdiff_t stride, float* dst, int32_t n) {
    toFloatRun<T>(src, stride, dst, n);
}
template <class T>
KUV_VECTOR_TARGET void toFloatVector(const void* src, ptrdiff_t stride, float* dst, int32_t n) {
    toFloatRun<T>(src, stride, dst, n);
}
template <class T>
void fromFloatBase(const float* src, void* dst, ptrdiff_t stride, int32_t n) {
    fromFloatRun<T>(src, dst, stride, n);
}
#if KUV_ROWCONV_X86
// Eight floats clamped and rounded to 32-bit integers by the processor's
// rounding, which equals roundSmall and roundAny in the default mode.
KUV_VECTOR_TARGET inline __m256i rounded8(const float* p, float lo, float hi) {
    const __m256 x = _mm256_loadu_ps(p);
    const __m256 v = _mm256_min_ps(_mm256_max_ps(x, _mm256_set1_ps(lo)), _mm256_set1_ps(hi));
    return _mm256_cvtps_epi32(v);
}

// The packs work within 128-bit lanes; these put the results back in order.
KUV_VECTOR_TARGET inline __m256i bytesInOrder(__m256i v) {
    return _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}
KUV_VECTOR_TARGET inline __m256i wordsInOrder(__m256i v) {
    return _mm256_permute4x64_epi64(v, 0xD8);
}

template <class T>
KUV_VECTOR_TARGET int32_t fromFloatBlocks(const float* src, T* d, int32_t n) {
    int32_t i = 0;
    if constexpr (sizeof(T) == 1) {
        constexpr float lo = std::is_signed_v<T> ? -128.0f : 0.0f;
        constexpr float hi = std::is_signed_v<T> ? 127.0f : 255.0f;
        for (; i + 32 <= n; i += 32) {
            const __m256i ab =
                _mm256_packs_epi32(rounded8(src + i, lo, hi), rounded8(src + i + 8, lo, hi));
            const __m256i cd =
                _mm256_packs_epi32(rounded8(src + i + 16, lo, hi), rounded8(src + i + 24, lo, hi));
            const __m256i bytes =
                std::is_signed_v<T> ? _mm256_packs_epi16(ab, cd) : _mm256_packus_epi16(ab, cd);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), bytesInOrder(bytes));
        }
    } else if constexpr (sizeof(T) == 2) {
        constexpr float lo = std::is_signed_v<T> ? -32768.0f : 0.0f;
        constexpr float hi = std::is_signed_v<T> ? 32767.0f : 65535.0f;
        for (; i + 16 <= n; i += 16) {
            const __m256i a = rounded8(src + i, lo, hi), b = rounded8(src + i + 8, lo, hi);
            const __m256i words =
                std::is_signed_v<T> ? _mm256_packs_epi32(a, b) : _mm256_packus_epi32(a, b);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), wordsInOrder(words));
        }
    } else if constexpr (std::is_same_v<T, int32_t>) {
        for (; i + 8 <= n; i += 8) {
            const __m256 x = _mm256_loadu_ps(src + i);
            const __m256i v = rounded8(src + i, -2147483648.0f, 2147483520.0f);
            const __m256i above =
                _mm256_castps_si256(_mm256_cmp_ps(x, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i),
                                _mm256_blendv_epi8(v, _mm256_set1_epi32(INT32_MAX), above));
        }
    }
    return i;
}
#endif

template <class T>
KUV_VECTOR_TARGET void fromFloatVector(const float* src, void* dst, ptrdiff_t stride, int32_t n) {
    int32_t done = 0;
#if KUV_ROWCONV_X86
    if (stride == 1) done = fromFloatBlocks(src, static_cast<T*>(dst), n);
#endif
    fromFloatRun<T>(src + done, static_cast<T*>(dst) + done * stride, stride, n - done);
}

struct Converters {
    OwnRowToFloat toFloat[2];
    OwnFloatToRow fromFloat[2];
};

template <class T>
constexpr Converters convertersOf() {
    return {{&toFloatBase<T>, &toFloatVector<T>}, {&fromFloatBase<T>, &fromFloatVector<T>}};
}

// By depth index; 1U has no element converters.
constexpr Converters table[OWN_DEPTH_COUNT] = {
    {{nullptr, nullptr}, {nullptr, nullptr}},
    convertersOf<uint8_t>(),
    convertersOf<int8_t>(),
    convertersOf<uint16_t>(),
    convertersOf<int16_t>(),
    convertersOf<int32_t>(),
    convertersOf<float>(),
};

}   // namespace
}   // namespace kuv::rowconv

using namespace kuv::rowconv;

bool ownFilterVectorRows() {
#if KUV_ROWCONV_X86
    const unsigned need = OWN_CPU_AVX2 | OWN_CPU_FMA;
    return (ownPlatformCpuFeatures() & need) == need;
#else
    return false;
#endif
}

OwnRowToFloat ownRowToFloat(uint32_t depth) {
    const int d = ownDepthIndex(depth);
    return d < 0 ? nullptr : table[d].toFloat[ownFilterVectorRows() ? 1 : 0];
}

OwnFloatToRow ownFloatToRow(uint32_t depth) {
    const int d = ownDepthIndex(depth);
    return d < 0 ? nullptr : table[d].fromFloat[ownFilterVectorRows() ? 1 : 0];
}

void ownBitsToFloat(const uint8_t* row, int32_t bitOffset, float* dst, int32_t n) {
    const uint8_t* p = row + bitOffset / 8;
    int bit = 7 - bitOffset % 8;
    uint32_t byte = n > 0 ? *p : 0;
    for (int32_t i = 0; i < n; ++i) {
        dst[i] = static_cast<float>((byte >> bit) & 1u);
        if (--bit < 0 && i + 1 < n) {
            byte = *++p;
            bit = 7;
        }
    }
}

void ownFloatToBits(const float* src, uint8_t* row, int32_t bitOffset, const uint8_t* mask,
                    int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        if (mask != nullptr && mask[i] == 0) continue;
        const int32_t b = bitOffset + i;
        const auto bit = static_cast<uint8_t>(0x80u >> (b & 7));
        uint8_t& byte = row[b >> 3];
        byte = toBit(src[i]) ? static_cast<uint8_t>(byte | bit) : static_cast<uint8_t>(byte & ~bit);
    }
}
