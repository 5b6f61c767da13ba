// Per-side border settings of an image.
#include "kuv_own.h"

extern "C" KUV_API void kuvSetBorderMode(KuvImage* image, int32_t mode, int32_t sides,
                                         int32_t constVal) {
    if (image == nullptr) return;   // a guard of our choosing: no header, nothing to set
    int32_t low = INT32_MIN, high = INT32_MAX;
    switch (image->depth) {
        case KUV_DEPTH_1U: low = 0; high = 1; break;
        case KUV_DEPTH_8U: low = 0; high = 255; break;
        case KUV_DEPTH_8S: low = -128; high = 127; break;
        case KUV_DEPTH_16U: low = 0; high = 65535; break;
        case KUV_DEPTH_16S: low = -32768; high = 32767; break;
        default: break;
    }
    if (constVal < low) constVal = low;
    if (constVal > high) constVal = high;
    for (int side = 0; side < 4; ++side) {
        if (sides & (1 << side)) {
            image->borderMode[side] = mode;
            image->borderConst[side] = constVal;
        }
    }
}
