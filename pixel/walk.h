// Line workers of the pixelwise family: one row loop per walk shape, written
// once over an element functor and instantiated per depth.
//
// A functor names its element type T, is built from the operation's widened
// constant (LineArgs::param) and gives the result of one element:
//   T operator()(T a, T b) const   for two sources
//   T operator()(T x) const        for one source
#ifndef KUV_PIXEL_WALK_H
#define KUV_PIXEL_WALK_H

#include "core/pattern.h"

namespace kuv {

template <int NS, class Op, class T>
inline void rowRun(const Op& op, const T* a, const T* b, T* d, size_t n) {
    if constexpr (NS == 2) {
        for (size_t i = 0; i < n; ++i) d[i] = op(a[i], b[i]);
    } else {
        (void)b;
        for (size_t i = 0; i < n; ++i) d[i] = op(a[i]);
    }
}

// nPix pixels of nCh elements each; each image moves by its own stride.
template <int NS, class Op, class T>
inline void rowGroups(const Op& op, const T* a, ptrdiff_t sa, const T* b, ptrdiff_t sb, T* d,
                      ptrdiff_t sd, int32_t nPix, int32_t nCh) {
    for (int32_t x = 0; x < nPix; ++x, a += sa, b += sb, d += sd) {
        for (int32_t k = 0; k < nCh; ++k) {
            if constexpr (NS == 2) d[k] = op(a[k], b[k]);
            else d[k] = op(a[k]);
        }
    }
}

// One element per pixel with strides: a channel of interest.
template <int NS, class Op, class T>
inline void rowStrided(const Op& op, const T* a, ptrdiff_t sa, const T* b, ptrdiff_t sb, T* d,
                       ptrdiff_t sd, int32_t nPix) {
    for (int32_t x = 0; x < nPix; ++x, a += sa, b += sb, d += sd) {
        if constexpr (NS == 2) *d = op(*a, *b);
        else *d = op(*a);
    }
}

// As rowGroups, passing over the pixels whose mask bit is clear. Whole mask
// bytes that are clear are skipped and whole bytes that are set run with no
// test per pixel.
template <int NS, class Op, class T>
inline void rowMasked(const Op& op, const T* a, ptrdiff_t sa, const T* b, ptrdiff_t sb, T* d,
                      ptrdiff_t sd, int32_t nPix, int32_t nCh, const uint8_t* mask,
                      int32_t bitOffset) {
    auto pixel = [&](int32_t x) {
        const T* pa = a + x * sa;
        T* pd = d + x * sd;
        if constexpr (NS == 2) {
            const T* pb = b + x * sb;
            for (int32_t k = 0; k < nCh; ++k) pd[k] = op(pa[k], pb[k]);
        } else {
            for (int32_t k = 0; k < nCh; ++k) pd[k] = op(pa[k]);
        }
    };
    int32_t x = 0;
    // Single bits up to the first whole mask byte.
    for (; x < nPix && ((bitOffset + x) & 7) != 0; ++x) {
        const int32_t i = bitOffset + x;
        if ((mask[i >> 3] >> (7 - (i & 7))) & 1) pixel(x);
    }
    for (; x + 8 <= nPix; x += 8) {
        const uint8_t m = mask[(bitOffset + x) >> 3];
        if (m == 0) continue;
        for (int32_t j = 0; j < 8; ++j) {
            if ((m >> (7 - j)) & 1) pixel(x + j);
        }
    }
    for (; x < nPix; ++x) {
        const int32_t i = bitOffset + x;
        if ((mask[i >> 3] >> (7 - (i & 7))) & 1) pixel(x);
    }
}

template <class T>
inline T* rowAt(const WalkImage& w, int32_t plane, int32_t y) {
    return reinterpret_cast<T*>(w.start + plane * w.planeStep + y * w.rowStep);
}

// The worker without mask: flat path, or the rectangle by its walk shape.
template <int NS, class Op>
void plainWorker(const LineArgs& args) {
    using T = typename Op::T;
    const Op op(args.param);
    if (flatPathApplies(args, NS)) {
        const size_t n = static_cast<size_t>(args.src[0]->imageSize) / sizeof(T);
        rowRun<NS>(op, reinterpret_cast<const T*>(args.src[0]->imageData),
                   NS == 2 ? reinterpret_cast<const T*>(args.src[1]->imageData) : nullptr,
                   reinterpret_cast<T*>(args.dst->imageData), n);
        return;
    }
    Walk w;
    if (!setUpWalk(args, NS, &w)) return;
    const WalkImage &ia = w.img[0], &ib = w.img[1], &id = w.img[2];
    switch (w.shape) {
        case WALK_RUN:
        case WALK_PLANES: {
            const size_t n = static_cast<size_t>(w.width) * (w.shape == WALK_RUN ? w.nCh : 1);
            for (int32_t p = 0; p < w.nPlanes; ++p) {
                for (int32_t y = 0; y < w.height; ++y) {
                    rowRun<NS>(op, rowAt<const T>(ia, p, y),
                               NS == 2 ? rowAt<const T>(ib, p, y) : nullptr, rowAt<T>(id, p, y), n);
                }
            }
            break;
        }
        case WALK_STRIDED:
            for (int32_t y = 0; y < w.height; ++y) {
                rowStrided<NS>(op, rowAt<const T>(ia, 0, y), ia.pixelStride,
                               NS == 2 ? rowAt<const T>(ib, 0, y) : nullptr, ib.pixelStride,
                               rowAt<T>(id, 0, y), id.pixelStride, w.width);
            }
            break;
        case WALK_GROUPS:
            for (int32_t y = 0; y < w.height; ++y) {
                rowGroups<NS>(op, rowAt<const T>(ia, 0, y), ia.pixelStride,
                              NS == 2 ? rowAt<const T>(ib, 0, y) : nullptr, ib.pixelStride,
                              rowAt<T>(id, 0, y), id.pixelStride, w.width, w.nCh);
            }
            break;
    }
}

// The worker with mask: no flat path; a clear bit leaves every channel of
// its pixel; in plane order the mask is walked once per plane.
template <int NS, class Op>
void maskedWorker(const LineArgs& args) {
    using T = typename Op::T;
    const Op op(args.param);
    Walk w;
    if (!setUpWalk(args, NS, &w)) return;
    const WalkImage &ia = w.img[0], &ib = w.img[1], &id = w.img[2];
    for (int32_t p = 0; p < w.nPlanes; ++p) {
        for (int32_t y = 0; y < w.height; ++y) {
            rowMasked<NS>(op, rowAt<const T>(ia, p, y), ia.pixelStride,
                          NS == 2 ? rowAt<const T>(ib, p, y) : nullptr, ib.pixelStride,
                          rowAt<T>(id, p, y), id.pixelStride, w.width, w.nCh,
                          w.maskStart + y * w.maskStep, w.maskBitOffset);
        }
    }
}

// The table entry of one depth: both workers of a functor.
template <int NS, class Op>
constexpr WorkerPair workersOf() {
    return WorkerPair{&plainWorker<NS, Op>, &maskedWorker<NS, Op>};
}

}  // namespace kuv

#endif
