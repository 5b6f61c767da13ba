// Saturating element arithmetic shared by the pixelwise operations.
#ifndef KUV_PIXEL_SATURATE_H
#define KUV_PIXEL_SATURATE_H

#include <immintrin.h>

#include <cstdint>
#include <limits>
#include <type_traits>

#ifndef KUV_PIXEL_AVX2
#define KUV_PIXEL_AVX2 __attribute__((target("avx2")))
#endif

namespace kuv {

// The type in which two elements combine exactly before saturation.
template <class T> struct Wide { using type = int32_t; };
template <> struct Wide<int32_t> { using type = int64_t; };
template <> struct Wide<float> { using type = float; };

// Limits a wide value to T's range. Floats are not limited.
template <class T, class W>
inline T saturate(W v) {
    if constexpr (std::is_same_v<T, float>) {
        return static_cast<T>(v);
    } else {
        constexpr W lo = static_cast<W>(std::numeric_limits<T>::min());
        constexpr W hi = static_cast<W>(std::numeric_limits<T>::max());
        v = v < lo ? lo : v;
        v = v > hi ? hi : v;
        return static_cast<T>(v);
    }
}

// Elements of 8 and 16 bits have saturating vector adds and subtracts whose
// results are those of saturate() on the exact sum.
template <class T>
constexpr bool kSmallInt = std::is_integral_v<T> && sizeof(T) <= 2;

template <class T>
KUV_PIXEL_AVX2 inline __m256i addsVec(__m256i a, __m256i b) {
    if constexpr (std::is_same_v<T, uint8_t>) return _mm256_adds_epu8(a, b);
    else if constexpr (std::is_same_v<T, int8_t>) return _mm256_adds_epi8(a, b);
    else if constexpr (std::is_same_v<T, uint16_t>) return _mm256_adds_epu16(a, b);
    else return _mm256_adds_epi16(a, b);
}

template <class T>
KUV_PIXEL_AVX2 inline __m256i subsVec(__m256i a, __m256i b) {
    if constexpr (std::is_same_v<T, uint8_t>) return _mm256_subs_epu8(a, b);
    else if constexpr (std::is_same_v<T, int8_t>) return _mm256_subs_epi8(a, b);
    else if constexpr (std::is_same_v<T, uint16_t>) return _mm256_subs_epu16(a, b);
    else return _mm256_subs_epi16(a, b);
}

// All lanes of an element.
template <class T>
KUV_PIXEL_AVX2 inline __m256i splatVec(T v) {
    if constexpr (sizeof(T) == 1) return _mm256_set1_epi8(static_cast<char>(v));
    else if constexpr (sizeof(T) == 2) return _mm256_set1_epi16(static_cast<short>(v));
    else return _mm256_set1_epi32(static_cast<int>(v));
}

// Limited products of 8- and 16-bit elements: products of bytes are exact in
// 16 bits, those of 16-bit elements in 32 (unsigned for 16U).
template <class T>
KUV_PIXEL_AVX2 inline __m256i mulsVec(__m256i a, __m256i b) {
    if constexpr (std::is_same_v<T, uint8_t>) {
        const __m256i zero = _mm256_setzero_si256();
        const __m256i max = _mm256_set1_epi16(255);
        const __m256i lo = _mm256_min_epu16(
            _mm256_mullo_epi16(_mm256_unpacklo_epi8(a, zero), _mm256_unpacklo_epi8(b, zero)), max);
        const __m256i hi = _mm256_min_epu16(
            _mm256_mullo_epi16(_mm256_unpackhi_epi8(a, zero), _mm256_unpackhi_epi8(b, zero)), max);
        return _mm256_packus_epi16(lo, hi);
    } else if constexpr (std::is_same_v<T, int8_t>) {
        // Each byte in the high half of a 16-bit lane, shifted down with its sign.
        const __m256i lo = _mm256_mullo_epi16(_mm256_srai_epi16(_mm256_unpacklo_epi8(a, a), 8),
                                              _mm256_srai_epi16(_mm256_unpacklo_epi8(b, b), 8));
        const __m256i hi = _mm256_mullo_epi16(_mm256_srai_epi16(_mm256_unpackhi_epi8(a, a), 8),
                                              _mm256_srai_epi16(_mm256_unpackhi_epi8(b, b), 8));
        return _mm256_packs_epi16(lo, hi);
    } else if constexpr (std::is_same_v<T, uint16_t>) {
        // A product with any high bit set is above 65535.
        const __m256i low = _mm256_mullo_epi16(a, b);
        const __m256i high = _mm256_mulhi_epu16(a, b);
        const __m256i fits = _mm256_cmpeq_epi16(high, _mm256_setzero_si256());
        return _mm256_or_si256(low, _mm256_xor_si256(fits, _mm256_set1_epi16(-1)));
    } else {
        const __m256i low = _mm256_mullo_epi16(a, b);
        const __m256i high = _mm256_mulhi_epi16(a, b);
        return _mm256_packs_epi32(_mm256_unpacklo_epi16(low, high),
                                  _mm256_unpackhi_epi16(low, high));
    }
}

}  // namespace kuv

#endif
