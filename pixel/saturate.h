// Saturating element arithmetic shared by the pixelwise operations.
#ifndef KUV_PIXEL_SATURATE_H
#define KUV_PIXEL_SATURATE_H

#include <cstdint>
#include <limits>
#include <type_traits>

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

}  // namespace kuv

#endif
