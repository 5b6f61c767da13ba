// Geometry of bit-image worker calls.
#include "pixel/bitwork.h"

namespace kuv {

bool bitRectOf(const LineArgs& args, int nSrc, BitRect* r) {
    const KuvImage* images[3] = {args.src[0], nSrc == 2 ? args.src[1] : nullptr, args.dst};
    r->width = INT32_MAX;
    r->height = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        r->start[i] = nullptr;
        r->offset[i] = 0;
        r->step[i] = 0;
        if (images[i] == nullptr) continue;
        int32_t w = 0, h = 0;
        r->start[i] = reinterpret_cast<const uint8_t*>(
            ownGetPixelRect(images[i], &w, &h, 0, &r->offset[i]));
        r->step[i] = images[i]->widthStep;
        if (w < r->width) r->width = w;
        if (h < r->height) r->height = h;
    }
    r->mask = nullptr;
    r->maskOffset = 0;
    r->maskStep = 0;
    if (args.mask != nullptr) {
        int32_t w = 0, h = 0;
        r->mask = reinterpret_cast<const uint8_t*>(
            ownGetPixelRect(args.mask, &w, &h, 0, &r->maskOffset));
        r->maskStep = args.mask->widthStep;
        if (w < r->width) r->width = w;
        if (h < r->height) r->height = h;
    }
    return r->width > 0 && r->height > 0;
}

}  // namespace kuv
