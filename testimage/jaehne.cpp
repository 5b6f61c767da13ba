// kuvCreateImageJaehne: a radial chirp, rings whose frequency grows with the
// distance from the centre.
#include "kuv_own.h"

#include <cmath>
#include <cstring>

namespace {

constexpr const char* genFile = "kuvgenim";

// The multipliers stay just below the power of two, so that s = 1 fits each
// depth with no clamp. They are double constants applied in extended
// precision, as the values of the table are defined.
template <class T>
void fillRows(KuvImage* image, long double k, double offset, double scale) {
    const int32_t cx = image->width / 2, cy = image->height / 2;
    for (int32_t y = 0; y < image->height; ++y) {
        T* row = reinterpret_cast<T*>(image->imageData + int64_t{y} * image->widthStep);
        for (int32_t x = 0; x < image->width; ++x) {
            const int32_t d = (x - cx) * (x - cx) + (y - cy) * (y - cy);
            const long double s = std::sin(static_cast<long double>(d) * k);
            row[x] = static_cast<T>(std::trunc((s + static_cast<long double>(offset)) *
                                               static_cast<long double>(scale)));
        }
    }
}

void fillBits(KuvImage* image, long double k) {
    const int32_t cx = image->width / 2, cy = image->height / 2;
    for (int32_t y = 0; y < image->height; ++y) {
        auto* row = reinterpret_cast<uint8_t*>(image->imageData + int64_t{y} * image->widthStep);
        for (int32_t x = 0; x < image->width; ++x) {
            const int32_t d = (x - cx) * (x - cx) + (y - cy) * (y - cy);
            const long double s = std::sin(static_cast<long double>(d) * k);
            const auto bit = static_cast<int>(std::trunc((s + 1.0L) * static_cast<long double>(0.99999)));
            const auto m = static_cast<uint8_t>(0x80u >> (x & 7));
            row[x >> 3] = static_cast<uint8_t>(bit ? (row[x >> 3] | m) : (row[x >> 3] & ~m));
        }
    }
}

void fillFloats(KuvImage* image, long double k) {
    const int32_t cx = image->width / 2, cy = image->height / 2;
    for (int32_t y = 0; y < image->height; ++y) {
        auto* row = reinterpret_cast<float*>(image->imageData + int64_t{y} * image->widthStep);
        for (int32_t x = 0; x < image->width; ++x) {
            const int32_t d = (x - cx) * (x - cx) + (y - cy) * (y - cy);
            const long double s = std::sin(static_cast<long double>(d) * k);
            row[x] = static_cast<float>((s + 1.0L) * static_cast<long double>(0.49999));
        }
    }
}

}  // namespace

extern "C" KUV_API KuvImage* kuvCreateImageJaehne(uint32_t depth, int32_t width, int32_t height) {
    const char* func = "kuvCreateImageJaehne";
    KuvStatus status = KUV_StsNoError;
    if (width < 1 || height < 1) status = KUV_StsBadImageSize;
    else if (ownDepthIndex(depth) < 0) status = KUV_StsBadDepth;
    if (status != KUV_StsNoError) {
        kuvError(status, func, kuvErrorStr(status), genFile, __LINE__);
        return nullptr;
    }
    KuvImage* image = kuvCreateImageHeader(1, 0, depth, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                           KUV_ORIGIN_TOP_LEFT, 32, width, height, nullptr,
                                           nullptr, 0, nullptr);
    if (image == nullptr) {
        kuvError(KUV_StsOutOfMemory, func, "Not enough memory to allocate header for ImageJaehne",
                 genFile, __LINE__);
        return nullptr;
    }
    if (depth == KUV_DEPTH_32F) kuvAllocateImageFP(image, 1, 0.0f);
    else kuvAllocateImage(image, 1, 0);
    if (image->imageData == nullptr) {
        kuvDeallocate(image, KUV_IMAGE_HEADER);
        kuvError(KUV_StsOutOfMemory, func, "Not enough memory to allocate imageData for ImageJaehne",
                 genFile, __LINE__);
        return nullptr;
    }
    const long double k = 6.283185307179586 / (4.0 * height);
    switch (depth) {
        case KUV_DEPTH_1U: fillBits(image, k); break;
        case KUV_DEPTH_8U: fillRows<uint8_t>(image, k, 1.0, 127.99999); break;
        case KUV_DEPTH_8S: fillRows<int8_t>(image, k, 0.0, 127.99999); break;
        case KUV_DEPTH_16U: fillRows<uint16_t>(image, k, 1.0, 32767.99999); break;
        case KUV_DEPTH_16S: fillRows<int16_t>(image, k, 0.0, 32767.99999); break;
        case KUV_DEPTH_32S: fillRows<int32_t>(image, k, 0.0, 2147483647.99999); break;
        default: fillFloats(image, k); break;
    }
    return image;
}
