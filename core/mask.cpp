// Merging the masks of an operation's images into the one mask to apply.
#include "kuv_own.h"

namespace {

struct MaskView {
    const uint8_t* start;
    int32_t width, height, bitOffset;
    int32_t step;
};

// Byte j of a mask row as seen from its bit offset o: two neighbouring bytes
// shifted into place. The second byte is read only when the bits asked for
// reach into it.
inline uint8_t shiftedByte(const uint8_t* row, int32_t j, int32_t o, bool needNext) {
    if (o == 0) return row[j];
    uint32_t v = static_cast<uint32_t>(row[j]) << o;
    if (needNext) v |= static_cast<uint32_t>(row[j + 1]) >> (8 - o);
    return static_cast<uint8_t>(v);
}

}  // namespace

KuvImage* ownMergeMasks(const KuvImage* maskA, const KuvImage* maskB, const KuvImage* maskC,
                        int* outcome) {
    const KuvImage* given[3] = {maskA, maskB, maskC};
    const KuvImage* masks[3] = {};
    int count = 0;
    for (const KuvImage* m : given) {
        if (m != nullptr) masks[count++] = m;
    }
    *outcome = OWN_MASK_NONE_OR_ONE;
    if (count == 0) return nullptr;
    if (count == 1) return const_cast<KuvImage*>(masks[0]);

    MaskView views[3];
    int32_t width = INT32_MAX, height = INT32_MAX;
    for (int i = 0; i < count; ++i) {
        MaskView& v = views[i];
        v.start = reinterpret_cast<const uint8_t*>(
            ownGetPixelRect(masks[i], &v.width, &v.height, 0, &v.bitOffset));
        v.step = masks[i]->widthStep;
        if (v.width < width) width = v.width;
        if (v.height < height) height = v.height;
    }
    if (width == 0 || height == 0) {
        *outcome = OWN_MASK_EMPTY;
        return nullptr;
    }
    KuvImage* merged = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, "GRAY", "G\0\0", KUV_DATA_ORDER_PLANE,
                                            masks[0]->origin, 8, width, height, nullptr, nullptr,
                                            0, nullptr);
    if (merged != nullptr) kuvAllocateImage(merged, 0, 0);
    if (merged == nullptr || merged->imageData == nullptr) {
        kuvDeallocate(merged, KUV_IMAGE_HEADER);
        *outcome = OWN_MASK_NO_MEMORY;
        return nullptr;
    }

    const int32_t bytes = (width + 7) / 8;
    const int32_t unusedBits = bytes * 8 - width;
    const auto tailMask = static_cast<uint8_t>(0xFFu << (7 - (width - 1) % 8));
    for (int32_t y = 0; y < height; ++y) {
        auto* out = reinterpret_cast<uint8_t*>(merged->imageData) + int64_t{y} * merged->widthStep;
        const uint8_t* rows[3];
        for (int i = 0; i < count; ++i) rows[i] = views[i].start + int64_t{y} * views[i].step;
        for (int32_t j = 0; j + 1 < bytes; ++j) {
            uint8_t v = 0xFF;
            for (int i = 0; i < count; ++i) v &= shiftedByte(rows[i], j, views[i].bitOffset, true);
            out[j] = v;
        }
        const int32_t j = bytes - 1;
        uint8_t v = 0xFF;
        for (int i = 0; i < count; ++i) {
            v &= shiftedByte(rows[i], j, views[i].bitOffset, views[i].bitOffset > unusedBits);
        }
        out[j] = static_cast<uint8_t>((out[j] & ~tailMask) | (v & tailMask));
    }
    *outcome = OWN_MASK_TEMPORARY;
    return merged;
}
