// Regions of interest reduced to rectangles and start addresses.
#include "kuv_own.h"

namespace {

// Clipped extent of a region along one axis: what remains of [offset,
// offset + size) inside [0, limit), in 64 bits so that offsets near the
// 32-bit limit cannot wrap.
int64_t clipExtent(int32_t offset, int32_t size, int32_t limit) {
    const int64_t end = int64_t{offset} + size;
    int64_t clipped = size;
    if (end > limit) clipped -= end - limit;
    return clipped;
}

bool coversWhole(const KuvImage* image) {
    const KuvROI* roi = image->roi;
    if (roi == nullptr) return true;
    if (roi->xOffset != 0 || roi->yOffset != 0) return false;
    if (roi->width < image->width || roi->height < image->height) return false;
    return roi->coi == 0 || (roi->coi == 1 && image->nChannels == 1);
}

}  // namespace

char* ownGetPixelRect(const KuvImage* image, int32_t* width, int32_t* height, int32_t channel,
                      int32_t* bitOffset) {
    const KuvROI* roi = image->roi;
    if (roi == nullptr) {
        *width = image->width;
        *height = image->height;
        *bitOffset = 0;
        return image->imageData;
    }
    int64_t h = clipExtent(roi->yOffset, roi->height, image->height);
    int64_t w = clipExtent(roi->xOffset, roi->width, image->width);
    if (h < 1 || w < 1) h = w = 0;
    *height = static_cast<int32_t>(h);
    *width = static_cast<int32_t>(w);
    *bitOffset = roi->xOffset % 8;
    if (h == 0) return image->imageData;   // nothing to address outside the image
    const int bits = ownDepthBits(image->depth);
    int64_t offset = int64_t{image->widthStep} * roi->yOffset;
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) {
        offset += ((int64_t{roi->xOffset} * image->nChannels + channel) * bits) / 8;
    } else {
        offset += int64_t{image->widthStep} * image->height * channel;
        offset += (int64_t{bits} * roi->xOffset) / 8;
    }
    return image->imageData + offset;
}

bool ownSameFlatLayout(const KuvImage* imageA, const KuvImage* imageB, bool hasAlpha) {
    if (hasAlpha) return false;
    if (imageA->height != imageB->height || imageA->width != imageB->width ||
        imageA->imageSize != imageB->imageSize || imageA->align != imageB->align) {
        return false;
    }
    return coversWhole(imageA) && coversWhole(imageB);
}

void ownGetROIRect(const KuvImage* image, OwnRect* rect) {
    const KuvROI* roi = image->roi;
    if (roi == nullptr) {
        *rect = OwnRect{0, 0, image->height, image->width};
        return;
    }
    const int64_t h = clipExtent(roi->yOffset, roi->height, image->height);
    const int64_t w = clipExtent(roi->xOffset, roi->width, image->width);
    rect->x = roi->xOffset;
    rect->y = roi->yOffset;
    rect->height = static_cast<int32_t>(h < INT32_MIN ? INT32_MIN : h);
    rect->width = static_cast<int32_t>(w < INT32_MIN ? INT32_MIN : w);
}
