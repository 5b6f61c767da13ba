// Rows of pixels to single-precision floats and back, for the filters that
// compute in floats (2-D convolution, the float class of the fixed filters)
// and for the 2-D transforms.
//
// Pixel to float is exact for bits, 8 and 16 bits; 32S rounds to the nearest
// float. Float to pixel saturates and rounds to nearest, ties to even:
//   1U   1 when x > 0.5, else 0 (0.5 gives 0)
//   8U   x < 0: 0; x >= 255: 255; else nearest
//   8S   x >= 127.5: 127; x <= -127.5: -128; else nearest
//   16U  x < 0: 0; x >= 65535: 65535; else nearest
//   16S  x >= 32767.5: 32767; x <= -32767.5: -32768; else nearest
//   32S  x >= 2^31: INT32_MAX; x <= -2^31: INT32_MIN; else nearest
//   32F  as it is
// Clamping first and rounding after gives exactly these results, also at the
// halves: 127.5 clamps to 127 where rounding alone would give 128.
//
// The rounding adds 1.5 * 2^23 (2^23 to the magnitude for 32S) and takes the
// integer back, so it follows the processor's rounding mode, which the
// library expects to be the default, to nearest.
#ifndef KUV_FILTER_ROWCONV_H
#define KUV_FILTER_ROWCONV_H

#include "kuv_own.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

// ------------------------------------------------------------------ elements

namespace kuv::rowconv {

// The element type of each depth but 1U.
template <int D>
struct Element;
template <>
struct Element<OWN_8U> {
    using T = uint8_t;
};
template <>
struct Element<OWN_8S> {
    using T = int8_t;
};
template <>
struct Element<OWN_16U> {
    using T = uint16_t;
};
template <>
struct Element<OWN_16S> {
    using T = int16_t;
};
template <>
struct Element<OWN_32S> {
    using T = int32_t;
};
template <>
struct Element<OWN_32F> {
    using T = float;
};

// Nearest integer, ties to even, of a float that the caller has already
// limited to |x| < 2^22: exact, and vectorisable as two additions.
[[gnu::always_inline]] inline float roundSmall(float x) {
    constexpr float magic = 12582912.0f;   // 1.5 * 2^23
    return (x + magic) - magic;
}

// Nearest integer of any float below 2^31 in magnitude; larger floats are
// integers already.
[[gnu::always_inline]] inline float roundAny(float x) {
    constexpr float two23 = 8388608.0f;
    const float a = std::fabs(x);
    const float r = a < two23 ? (a + two23) - two23 : a;
    return std::copysign(r, x);
}

// Limits written as the vector minimum and maximum do them, so that the
// converters vectorise.
[[gnu::always_inline]] inline float clampTo(float x, float lo, float hi) {
    const float v = x > lo ? x : lo;
    return v < hi ? v : hi;
}

template <class T>
[[gnu::always_inline]] inline T toPixel(float x);

template <>
[[gnu::always_inline]] inline uint8_t toPixel<uint8_t>(float x) {
    return static_cast<uint8_t>(static_cast<int32_t>(roundSmall(clampTo(x, 0.0f, 255.0f))));
}
template <>
[[gnu::always_inline]] inline int8_t toPixel<int8_t>(float x) {
    return static_cast<int8_t>(static_cast<int32_t>(roundSmall(clampTo(x, -128.0f, 127.0f))));
}
template <>
[[gnu::always_inline]] inline uint16_t toPixel<uint16_t>(float x) {
    return static_cast<uint16_t>(static_cast<int32_t>(roundSmall(clampTo(x, 0.0f, 65535.0f))));
}
template <>
[[gnu::always_inline]] inline int16_t toPixel<int16_t>(float x) {
    return static_cast<int16_t>(static_cast<int32_t>(roundSmall(clampTo(x, -32768.0f, 32767.0f))));
}
template <>
[[gnu::always_inline]] inline int32_t toPixel<int32_t>(float x) {
    // 2147483520 is the largest float below 2^31; what lies above goes to
    // INT32_MAX by the select, what lies below -2^31 to -2^31 by the clamp.
    const auto v = static_cast<int32_t>(roundAny(clampTo(x, -2147483648.0f, 2147483520.0f)));
    return x >= 2147483648.0f ? INT32_MAX : v;
}
template <>
[[gnu::always_inline]] inline float toPixel<float>(float x) {
    return x;
}

// The bit of a float: set when above one half.
[[gnu::always_inline]] inline uint8_t toBit(float x) { return x > 0.5f ? 1 : 0; }

}   // namespace kuv::rowconv

// ------------------------------------------------------------------ rows

// n elements of a depth, `stride` elements apart (1: a packed run), to n
// packed floats. 32F is a copy.
using OwnRowToFloat = void (*)(const void* src, ptrdiff_t stride, float* dst, int32_t n);

// n packed floats to n elements of a depth, `stride` elements apart, by the
// table above.
using OwnFloatToRow = void (*)(const float* src, void* dst, ptrdiff_t stride, int32_t n);

// The converters of a depth other than 1U; null for 1U and unknown depths.
// The packed forms (stride 1) run vectorised where the processor allows.
OwnRowToFloat ownRowToFloat(uint32_t depth);
OwnFloatToRow ownFloatToRow(uint32_t depth);

// n bits of a row from bit `bitOffset` on (counted from the most significant
// bit of row[0]) to 0.0 and 1.0. Reads no byte past the last bit it needs.
void ownBitsToFloat(const uint8_t* row, int32_t bitOffset, float* dst, int32_t n);

// n floats to bits from bit `bitOffset` on, 1 where the float is above 0.5.
// With a mask (n bytes) only the bits whose mask byte is not 0 change; the
// other bits of the bytes touched are kept.
void ownFloatToBits(const float* src, uint8_t* row, int32_t bitOffset, const uint8_t* mask,
                    int32_t n);

// Whether the vector forms of the filter rows run (AVX2 with FMA), asked once
// per call; tests withhold the features to run the baseline forms.
bool ownFilterVectorRows();

#endif
