// Image headers: the field rules, creation, allocation, freeing, cloning and
// the header check that every operation runs first.
#include "kuv_own.h"

#include <climits>
#include <cstring>

namespace {

constexpr const char* allocFile = "kuvalloc";
constexpr const char* cloneFile = "kuvClone";

bool isAlign(int32_t align) { return align == 4 || align == 8 || align == 16 || align == 32; }

// The layout in 64 bits, so that an image too large for the 32-bit fields
// is refused instead of being laid out over a wrapped size.
int64_t rowBytes64(int32_t dataOrder, uint32_t depth, int32_t align, int32_t nChannels,
                   int32_t width) {
    int64_t bits = int64_t{width} * ownDepthBits(depth);
    if (dataOrder == KUV_DATA_ORDER_PIXEL) bits *= nChannels;
    const int64_t alignBits = int64_t{align} * 8;
    return ((bits + alignBits - 1) & ~(alignBits - 1)) / 8;
}

int64_t imageBytes64(const KuvImage* image, int64_t step) {
    int64_t size = step * image->height;
    if (image->dataOrder == KUV_DATA_ORDER_PLANE) size *= image->nChannels;
    return size;
}

// Lays the image out by its fields; false when the layout does not fit the
// 32-bit fields.
bool layOut(KuvImage* image) {
    const int64_t step = rowBytes64(image->dataOrder, image->depth, image->align,
                                    image->nChannels, image->width);
    const int64_t size = imageBytes64(image, step);
    if (step > INT32_MAX || size > INT32_MAX) return false;
    image->widthStep = static_cast<int32_t>(step);
    image->imageSize = static_cast<int32_t>(size);
    return true;
}

OwnHeaderFields fieldsOf(const KuvImage* image) {
    return OwnHeaderFields{image->nChannels, image->alphaChannel, image->depth,
                           image->dataOrder, image->origin,       image->align,
                           image->width,     image->height,       image->maskROI,
                           false,            true};
}

// The four bytes of a text field, zero after the text's end; the field is
// not a string and takes no terminator of its own.
void copyText4(char (&field)[4], const char* text) {
    size_t i = 0;
    for (; i < 4 && text[i] != '\0'; ++i) field[i] = text[i];
    for (; i < 4; ++i) field[i] = '\0';
}

// The word that fills a new image: the fill value repeated to 32 bits.
uint32_t fillWord(uint32_t depth, int32_t value) {
    const auto v = static_cast<uint32_t>(value);
    switch (depth) {
        case KUV_DEPTH_1U: return (v & 1u) ? 0xFFFFFFFFu : 0u;
        case KUV_DEPTH_8U:
        case KUV_DEPTH_8S: return (v & 0xFFu) * 0x01010101u;
        case KUV_DEPTH_16U:
        case KUV_DEPTH_16S: return (v & 0xFFFFu) * 0x00010001u;
        default: return v;
    }
}

// Shared body of kuvAllocateImage and kuvAllocateImageFP after their own
// argument tests.
void allocatePixels(KuvImage* image, const char* func, bool doFill, uint32_t word) {
    const KuvStatus status = ownCheckHeaderFields(fieldsOf(image));
    if (status != KUV_StsNoError) {
        kuvError(status, func, "Incorrect data-ins", allocFile, __LINE__);
        return;
    }
    if (!layOut(image)) return;   // no 32-bit size: as if memory had run out
    char* block = static_cast<char*>(
        ownImageBlockAlloc(static_cast<size_t>(image->imageSize) + image->align - 1));
    image->imageDataOrigin = block;
    if (block == nullptr) return;
    const auto mask = static_cast<uintptr_t>(image->align - 1);
    image->imageData =
        reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(block) + mask) & ~mask);
    if (!doFill) return;
    auto* words = reinterpret_cast<uint32_t*>(image->imageData);
    const size_t count = static_cast<size_t>(image->imageSize) / 4;
    for (size_t i = 0; i < count; ++i) words[i] = word;
}

}  // namespace

int32_t ownRowBytes(int32_t dataOrder, uint32_t depth, int32_t align, int32_t nChannels,
                    int32_t width) {
    return static_cast<int32_t>(rowBytes64(dataOrder, depth, align, nChannels, width));
}

int32_t ownTileRowBytes(const KuvImage* image) {
    if (image == nullptr) return 0;
    const KuvStatus saved = kuvGetErrStatus();
    const KuvStatus status = kuvCheckImageHeader(image);
    if (status != KUV_StsNoError) {
        // The helper answers a question; it leaves the thread's status alone.
        kuvSetErrStatus(saved);
        return 0;
    }
    if (image->tileInfo == nullptr) return 0;
    return ownRowBytes(image->dataOrder, image->depth, image->align, image->nChannels,
                       image->tileInfo->width);
}

KuvStatus ownCheckHeaderFields(const OwnHeaderFields& f) {
    if (f.width < 1 || f.height < 1) return KUV_StsBadImageSize;
    if (f.nChannels < 1) return KUV_StsBadChannels;
    if (f.depth == KUV_DEPTH_1U && f.nChannels != 1) return KUV_StsBadChannels1U;
    if (f.checkColorModel && !f.colorModelPresent) return KUV_StsBadColorModel;
    if (ownDepthIndex(f.depth) < 0) return KUV_StsBadDepth;
    if (f.alphaChannel != 0 && f.alphaChannel != f.nChannels) return KUV_StsBadAlphaChannel;
    if (f.dataOrder != KUV_DATA_ORDER_PIXEL && f.dataOrder != KUV_DATA_ORDER_PLANE)
        return KUV_StsBadDataOrder;
    if (f.origin != KUV_ORIGIN_TOP_LEFT && f.origin != KUV_ORIGIN_BOTTOM_LEFT)
        return KUV_StsBadOrigin;
    if (!isAlign(f.align)) return KUV_StsBadAlign;
    if (f.maskROI != nullptr) {
        if (f.maskROI->depth != KUV_DEPTH_1U) return KUV_StsBadDepth - KUV_StsMaskOffset;
        if (f.maskROI->tileInfo != nullptr) return KUV_StsMaskTiled;
        if (f.maskROI == f.maskROI->maskROI) return KUV_StsBadDepth - KUV_StsMaskOffset;
        const KuvStatus nested = kuvCheckImageHeader(f.maskROI);
        if (nested != KUV_StsNoError) return nested - KUV_StsMaskOffset;
    }
    return KUV_StsNoError;
}

extern "C" {

KUV_API KuvStatus kuvCheckImageHeader(const KuvImage* image) {
    KuvStatus status = KUV_StsNoError;
    if (image == nullptr) {
        status = KUV_StsNullHeader;
    } else if ((image->imageData == nullptr) == (image->tileInfo == nullptr)) {
        status = KUV_StsBadDataPointers;
    } else if (image->tileInfo == nullptr && image->imageSize < 1) {
        status = KUV_StsBadImageSize;
    } else if (image->tileInfo == nullptr && image->widthStep < 1) {
        status = KUV_StsBadWidthStep;
    } else if ((status = ownCheckHeaderFields(fieldsOf(image))) != KUV_StsNoError) {
        // the field rules decided
    } else if (image->tileInfo != nullptr &&
               (status = image->tileInfo->callBack == nullptr ? KUV_StsNullCallback
                         : (image->tileInfo->width < 1 || image->tileInfo->width % 8 != 0 ||
                            image->tileInfo->height < 1 || image->tileInfo->height % 8 != 0)
                             ? KUV_StsBadTileSize
                             : KUV_StsNoError) != KUV_StsNoError) {
        // the tile description decided
    } else if (const KuvROI* roi = image->roi) {
        if (roi->coi < 0 || roi->coi > image->nChannels) status = KUV_StsBadCOI;
        else if (roi->height < 1 || roi->width < 1) status = KUV_StsBadROISize;
        else if (roi->xOffset < 0 || roi->yOffset < 0) status = KUV_StsBadROIOffset;
    }
    if (status != KUV_StsNoError) kuvSetErrStatus(status);
    return status;
}

KUV_API KuvImage* kuvCreateImageHeader(int32_t nChannels, int32_t alphaChannel, uint32_t depth,
                                       const char* colorModel, const char* channelSeq,
                                       int32_t dataOrder, int32_t origin, int32_t align,
                                       int32_t width, int32_t height, KuvROI* roi,
                                       KuvImage* maskROI, int32_t imageId,
                                       KuvTileInfo* tileInfo) {
    const OwnHeaderFields fields{nChannels, alphaChannel, depth,  dataOrder, origin,
                                 align,     width,        height, maskROI,   true,
                                 colorModel != nullptr && channelSeq != nullptr};
    KuvStatus status = ownCheckHeaderFields(fields);
    KuvImage probe{};
    probe.nChannels = nChannels;
    probe.depth = depth;
    probe.dataOrder = dataOrder;
    probe.align = align;
    probe.width = width;
    probe.height = height;
    if (status == KUV_StsNoError && !layOut(&probe)) status = KUV_StsBadImageSize;
    if (status != KUV_StsNoError) {
        kuvError(status, "kuvCreateImageHeader", "Incorrect data-ins", allocFile, __LINE__);
        return nullptr;
    }
    auto* image = static_cast<KuvImage*>(kuvMalloc(sizeof(KuvImage)));
    if (image == nullptr) return nullptr;
    std::memset(image, 0, sizeof(KuvImage));
    image->headerSize = static_cast<int32_t>(sizeof(KuvImage));
    image->headerId = 0;
    image->nChannels = nChannels;
    image->alphaChannel = alphaChannel;
    image->depth = depth;
    // Up to 4 bytes, stopping at a terminator: a shorter text such as "G"
    // is padded with zeros instead of being read past its end.
    copyText4(image->colorModel, colorModel);
    copyText4(image->channelSeq, channelSeq);
    image->dataOrder = dataOrder;
    image->origin = origin;
    image->align = align;
    image->width = width;
    image->height = height;
    image->roi = roi;
    image->maskROI = maskROI;
    image->imageId = imageId;
    image->tileInfo = tileInfo;
    image->imageData = nullptr;
    image->imageDataOrigin = nullptr;
    image->widthStep = probe.widthStep;
    image->imageSize = probe.imageSize;
    kuvSetBorderMode(image, KUV_BORDER_CONSTANT, KUV_SIDE_ALL, 0);
    return image;
}

KUV_API void kuvAllocateImage(KuvImage* image, int32_t doFill, int32_t fillValue) {
    const char* func = "kuvAllocateImage";
    if (image == nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image == ((void *)0) )", allocFile, __LINE__);
        return;
    }
    if (image->imageData != nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image->imageData != ((void *)0) )", allocFile,
                 __LINE__);
        return;
    }
    if (image->tileInfo != nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image->tileInfo != ((void *)0) )", allocFile,
                 __LINE__);
        return;
    }
    if (image->depth == KUV_DEPTH_32F) {
        kuvError(KUV_StsBadArgument, func, "( image->depth == 32 )", allocFile, __LINE__);
        return;
    }
    allocatePixels(image, func, doFill != 0, fillWord(image->depth, fillValue));
}

KUV_API void kuvAllocateImageFP(KuvImage* image, int32_t doFill, float fillValue) {
    const char* func = "kuvAllocateImageFP";
    if (image == nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image == ((void *)0) )", allocFile, __LINE__);
        return;
    }
    if (image->imageData != nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image->imageData != ((void *)0) )", allocFile,
                 __LINE__);
        return;
    }
    if (image->tileInfo != nullptr) {
        kuvError(KUV_StsBadArgument, func, "( image->tileInfo != ((void *)0) )", allocFile,
                 __LINE__);
        return;
    }
    if (image->depth != KUV_DEPTH_32F) {
        kuvError(KUV_StsBadArgument, func, "( image->depth != 32 )", allocFile, __LINE__);
        return;
    }
    uint32_t word;
    std::memcpy(&word, &fillValue, sizeof word);
    allocatePixels(image, func, doFill != 0, word);
}

KUV_API void kuvDeallocate(KuvImage* image, int32_t flags) {
    if (image == nullptr) return;
    if ((flags & KUV_IMAGE_ROI) && image->roi != nullptr) {
        kuvFree(image->roi);
        image->roi = nullptr;
    }
    if ((flags & KUV_IMAGE_MASK) && image->maskROI != nullptr) {
        kuvDeallocate(image->maskROI,
                      KUV_IMAGE_HEADER | KUV_IMAGE_DATA | KUV_IMAGE_ROI | KUV_IMAGE_TILE);
        image->maskROI = nullptr;
    }
    if ((flags & KUV_IMAGE_TILE) && image->tileInfo != nullptr) {
        kuvFree(image->tileInfo);
        image->tileInfo = nullptr;
    }
    if ((flags & KUV_IMAGE_DATA) && image->imageDataOrigin != nullptr) {
        ownImageBlockFree(image->imageDataOrigin);
        image->imageData = nullptr;
        image->imageDataOrigin = nullptr;
    }
    if (flags & KUV_IMAGE_HEADER) kuvFree(image);
}

KUV_API void kuvDeallocateHeader(KuvImage* image) { kuvDeallocate(image, KUV_IMAGE_HEADER); }

KUV_API void kuvDeallocateImage(KuvImage* image) {
    if (image == nullptr) return;   // a guard of our choosing
    if (image->imageDataOrigin != nullptr) ownImageBlockFree(image->imageDataOrigin);
    image->imageData = nullptr;
    image->imageDataOrigin = nullptr;
}

KUV_API KuvImage* kuvCloneImage(const KuvImage* image) {
    const char* func = "kuvCloneImage";
    if (kuvCheckImageHeader(image) != KUV_StsNoError) {
        kuvError(kuvGetErrStatus(), func, "Incorrect Image", cloneFile, __LINE__);
        return nullptr;
    }
    KuvImage* clone = kuvCreateImageHeader(image->nChannels, image->alphaChannel, image->depth,
                                           image->colorModel, image->channelSeq, image->dataOrder,
                                           image->origin, image->align, image->width,
                                           image->height, nullptr, nullptr, 0, nullptr);
    if (clone == nullptr) {
        kuvError(KUV_StsOutOfMemory, func, "Not enough memory to allocate header for clone image",
                 cloneFile, __LINE__);
        return nullptr;
    }
    std::memcpy(clone, image, sizeof(KuvImage));
    clone->imageData = nullptr;
    clone->imageDataOrigin = nullptr;   // the source's block is never the clone's
    clone->tileInfo = nullptr;
    clone->maskROI = nullptr;
    clone->imageId = 0;
    clone->headerId = 0;
    clone->roi = nullptr;
    if (const KuvROI* roi = image->roi) {
        clone->roi = kuvCreateROI(roi->coi, roi->xOffset, roi->yOffset, roi->width, roi->height);
        if (clone->roi == nullptr) {
            kuvError(KUV_StsOutOfMemory, func, "Not enough memory to allocate roi for clone image",
                     cloneFile, __LINE__);
            kuvDeallocate(clone, KUV_IMAGE_HEADER);
            return nullptr;
        }
    }
    if (clone->depth == KUV_DEPTH_32F) kuvAllocateImageFP(clone, 0, 0.0f);
    else kuvAllocateImage(clone, 0, 0);
    if (clone->imageData == nullptr) {
        kuvError(KUV_StsOutOfMemory, func,
                 "Not enough memory to allocate imageData for clone image", cloneFile, __LINE__);
        kuvDeallocate(clone, KUV_IMAGE_HEADER | KUV_IMAGE_ROI);
        return nullptr;
    }
    if (image->tileInfo != nullptr) return clone;
    if (image->widthStep == clone->widthStep && image->imageSize == clone->imageSize) {
        std::memcpy(clone->imageData, image->imageData, static_cast<size_t>(clone->imageSize));
    } else {
        // A source laid out by the application with its own row step: copy
        // each row's bytes that the clone's layout holds.
        const int64_t rows = int64_t{clone->imageSize} / clone->widthStep;
        const int32_t bytes = image->widthStep < clone->widthStep ? image->widthStep
                                                                  : clone->widthStep;
        for (int64_t r = 0; r < rows; ++r) {
            std::memcpy(clone->imageData + r * clone->widthStep,
                        image->imageData + r * image->widthStep, static_cast<size_t>(bytes));
        }
    }
    return clone;
}

KUV_API KuvROI* kuvCreateROI(int32_t coi, int32_t xOffset, int32_t yOffset, int32_t width,
                             int32_t height) {
    auto* roi = static_cast<KuvROI*>(kuvMalloc(sizeof(KuvROI)));
    if (roi != nullptr) kuvSetROI(roi, coi, xOffset, yOffset, width, height);
    return roi;
}

KUV_API void kuvSetROI(KuvROI* roi, int32_t coi, int32_t xOffset, int32_t yOffset, int32_t width,
                       int32_t height) {
    if (roi == nullptr) return;
    roi->coi = coi;
    roi->xOffset = xOffset;
    roi->yOffset = yOffset;
    roi->width = width;
    roi->height = height;
}

KUV_API KuvTileInfo* kuvCreateTileInfo(KuvTileCallBack callBack, int32_t id, int32_t width,
                                       int32_t height) {
    auto* tileInfo = static_cast<KuvTileInfo*>(kuvMalloc(sizeof(KuvTileInfo)));
    if (tileInfo != nullptr) kuvSetTileInfo(tileInfo, callBack, id, width, height);
    return tileInfo;
}

KUV_API void kuvSetTileInfo(KuvTileInfo* tileInfo, KuvTileCallBack callBack, int32_t id,
                            int32_t width, int32_t height) {
    if (tileInfo == nullptr) return;
    tileInfo->callBack = callBack;
    tileInfo->id = id;
    tileInfo->tileData = nullptr;
    tileInfo->width = width;
    tileInfo->height = height;
}

}  // extern "C"
