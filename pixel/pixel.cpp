// Pixel access: kuvGetPixel and kuvPutPixel move all channels of one pixel,
// addressed over the whole image: roi, coi and mask play no part, and y
// counts from the top of the picture whatever the origin.
#include "kuv_own.h"

#include <cstring>

namespace {

enum class Direction { Get, Put };

struct Names {
    const char* func;
    const char* file;
};

constexpr Names getNames{"kuvGetPixel", "kuvGetPx"};
constexpr Names putNames{"kuvPutPixel", "kuvPutPx"};

template <Direction D>
void transfer(const KuvImage* image, int32_t x, int32_t y, const void* in, void* out) {
    const Names& n = D == Direction::Get ? getNames : putNames;
    if (kuvCheckImageHeader(image) != KUV_StsNoError) {
        kuvError(kuvGetErrStatus(), n.func, "Incorrect Image", n.file, __LINE__);
        return;
    }
    if (image->alphaChannel != 0 && image->alphaChannel != image->nChannels) {
        kuvError(KUV_StsBadAlphaChannel, n.func, "image->alphaChannel", n.file, __LINE__);
        return;
    }
    if (x > image->width - 1 || x < 0) {
        kuvError(KUV_StsBadArgument, n.func, "((x>width-1) || (x<0))", n.file, __LINE__);
        return;
    }
    if (y > image->height - 1 || y < 0) {
        kuvError(KUV_StsBadArgument, n.func, "((y>height-1) || (y<0))", n.file, __LINE__);
        return;
    }
    if (image->origin == KUV_ORIGIN_BOTTOM_LEFT) y = image->height - 1 - y;

    // The pixel's home: the image itself, or the tile that holds it seen as
    // an image of the tile's size with the image's other fields.
    KuvImage home = *image;
    KuvTileInfo* info = image->tileInfo;
    int32_t col = 0, row = 0;
    if (info != nullptr) {
        col = x / info->width;
        row = y / info->height;
        x %= info->width;
        y %= info->height;
        const int32_t step = ownTileRowBytes(image);
        info->callBack(image, col, row, D == Direction::Get ? KUV_TILE_READ : KUV_TILE_WRITE);
        if (info->tileData == nullptr) {
            // A procedure that cannot deliver: a failed request, as in the
            // block walks of the copy family.
            kuvError(KUV_StsFailure, n.func,
                     D == Direction::Get ? "Error get tile to read" : "Error get tile to write",
                     n.file, __LINE__);
            return;
        }
        home.imageData = info->tileData;
        home.widthStep = step;
        home.width = info->width;
        home.height = info->height;
    }
    char* tile = home.imageData;

    if (image->depth == KUV_DEPTH_1U) {
        auto* byte = reinterpret_cast<uint8_t*>(ownElementAddress(&home, x, y, 0));
        const auto bit = static_cast<uint8_t>(0x80u >> (x % 8));
        if constexpr (D == Direction::Get) {
            *static_cast<uint8_t*>(out) = (*byte & bit) != 0 ? 1 : 0;
        } else {
            const bool set = (*static_cast<const uint8_t*>(in) & 1) != 0;
            *byte = static_cast<uint8_t>(set ? (*byte | bit) : (*byte & ~bit));
        }
    } else {
        const size_t bytes = static_cast<size_t>(ownDepthBits(image->depth) / 8);
        for (int32_t c = 0; c < image->nChannels; ++c) {
            char* element = ownElementAddress(&home, x, y, c);
            if constexpr (D == Direction::Get) {
                std::memcpy(static_cast<char*>(out) + c * bytes, element, bytes);
            } else {
                std::memcpy(element, static_cast<const char*>(in) + c * bytes, bytes);
            }
        }
    }

    if (info != nullptr) {
        info->tileData = tile;   // the procedure finds the tile it is handed back
        info->callBack(image, col, row, KUV_TILE_RELEASE);
    }
}

}  // namespace

extern "C" {

KUV_API void kuvGetPixel(const KuvImage* image, int32_t x, int32_t y, void* pixel) {
    transfer<Direction::Get>(image, x, y, nullptr, pixel);
}

KUV_API void kuvPutPixel(KuvImage* image, int32_t x, int32_t y, const void* pixel) {
    transfer<Direction::Put>(image, x, y, pixel, nullptr);
}

}  // extern "C"
