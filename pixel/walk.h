// Line workers of the pixelwise family: one row loop per walk shape, written
// once over an element functor and instantiated per depth.
//
// A functor names its element type T, is built from the operation's widened
// constant (LineArgs::param) and gives the result of one element:
//   T operator()(T a, T b) const   for two sources
//   T operator()(T x) const        for one source
// Where the compiler does not find a good vector form by itself, a functor
// may add one over 32 bytes of elements, with results identical to the
// element form:
//   KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const
//   KUV_PIXEL_AVX2 __m256i vec(__m256i x) const
#ifndef KUV_PIXEL_WALK_H
#define KUV_PIXEL_WALK_H

#include <immintrin.h>

#include <cstring>

#include "core/pattern.h"
#include "core/platform.h"

#define KUV_PIXEL_AVX2 __attribute__((target("avx2")))

namespace kuv {

// True when the rows run through the AVX2 loops; asked once per call. Tests
// withhold AVX2 through ownPlatformLimitFeatures to run the plain loops, the
// reference, as well.
inline bool pixelWideRows() { return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0; }

template <int NS, class Op>
concept HasVectorForm = (NS == 2 && requires(const Op& op, const __m256i& v) { op.vec(v, v); }) ||
                        (NS == 1 && requires(const Op& op, const __m256i& v) { op.vec(v); });

template <int NS, class Op, class T>
inline void rowRun(const Op& op, const T* a, const T* b, T* d, size_t n) {
    if constexpr (NS == 2) {
        for (size_t i = 0; i < n; ++i) d[i] = op(a[i], b[i]);
    } else {
        (void)b;
        for (size_t i = 0; i < n; ++i) d[i] = op(a[i]);
    }
}

// The same run with 32-byte vectors: the functor's vector form where it has
// one, otherwise the element form that the compiler widens itself. The tail
// is finished element by element, never by an overlapping vector: the
// destination may be a source.
// A destination run at least this long is written past the caches: it
// would not stay in them anyway, and the stores then spare reading the
// destination in first.
constexpr size_t kStreamBytes = size_t{16} << 20;

template <int NS, bool Stream, class Op, class T>
KUV_PIXEL_AVX2 inline size_t vectorPart(const Op& op, const T* a, const T* b, T* d, size_t i,
                                        size_t n) {
    constexpr size_t step = 32 / sizeof(T);
#pragma GCC unroll 2
    for (; i + step <= n; i += step) {
        const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i));
        __m256i r;
        if constexpr (NS == 2) {
            r = op.vec(va, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i)));
        } else {
            r = op.vec(va);
        }
        if constexpr (Stream) _mm256_stream_si256(reinterpret_cast<__m256i*>(d + i), r);
        else _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), r);
    }
    return i;
}

template <int NS, class Op, class T>
KUV_PIXEL_AVX2 void rowRunWide(const Op& op, const T* a, const T* b, T* d, size_t n) {
    size_t i = 0;
    if constexpr (HasVectorForm<NS, Op>) {
        const auto address = reinterpret_cast<uintptr_t>(d);
        if (n * sizeof(T) >= kStreamBytes && address % sizeof(T) == 0) {
            // Elements one by one up to a 32-byte boundary of the destination.
            for (; (address + i * sizeof(T)) % 32 != 0; ++i) {
                if constexpr (NS == 2) d[i] = op(a[i], b[i]);
                else d[i] = op(a[i]);
            }
            i = vectorPart<NS, true>(op, a, b, d, i, n);
            _mm_sfence();
        } else {
            i = vectorPart<NS, false>(op, a, b, d, i, n);
        }
    }
    if constexpr (NS == 2) {
        for (; i < n; ++i) d[i] = op(a[i], b[i]);
    } else {
        (void)b;
        for (; i < n; ++i) d[i] = op(a[i]);
    }
}

template <bool Wide, int NS, class Op, class T>
inline void runOf(const Op& op, const T* a, const T* b, T* d, size_t n) {
    if constexpr (Wide) rowRunWide<NS>(op, a, b, d, n);
    else rowRun<NS>(op, a, b, d, n);
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

inline bool maskBit(const uint8_t* mask, int32_t i) { return (mask[i >> 3] >> (7 - (i & 7))) & 1; }

// As rowGroups, passing over the pixels whose mask bit is clear. Whole mask
// bytes that are clear are skipped and whole bytes that are set run with no
// test per pixel.
template <int NS, class Op, class T>
inline void rowMasked(const Op& op, const T* a, ptrdiff_t sa, const T* b, ptrdiff_t sb, T* d,
                      ptrdiff_t sd, int32_t nPix, int32_t nCh, const uint8_t* mask,
                      int32_t bitOffset) {
    auto pixels = [&](int32_t x, int32_t n) {
        rowGroups<NS>(op, a + x * sa, sa, NS == 2 ? b + x * sb : b, sb, d + x * sd, sd, n, nCh);
    };
    int32_t x = 0;
    // Single bits up to the first whole mask byte.
    for (; x < nPix && ((bitOffset + x) & 7) != 0; ++x) {
        if (maskBit(mask, bitOffset + x)) pixels(x, 1);
    }
    for (; x + 8 <= nPix; x += 8) {
        const uint8_t m = mask[(bitOffset + x) >> 3];
        if (m == 0) continue;
        if (m == 0xFF) {
            pixels(x, 8);
            continue;
        }
        for (int32_t j = 0; j < 8; ++j) {
            if ((m >> (7 - j)) & 1) pixels(x + j, 1);
        }
    }
    for (; x < nPix; ++x) {
        if (maskBit(mask, bitOffset + x)) pixels(x, 1);
    }
}

// A masked row whose pixels are contiguous in all images (no alpha passed
// over, no channel of interest): pixels are taken 64 at a time, eight whole
// mask bytes. A clear chunk is passed over, a set one runs as one run, and a
// mixed one is computed into a buffer from which the set pixels are taken.
// The wide form takes them by a byte blend; byteOf and bitOf give, for each
// byte of a 64-pixel chunk, its mask byte and bit.
constexpr int32_t kMaskChunk = 64;
constexpr int32_t kMaskChunkBytes = 2048;   // buffer: pixels of up to 32 bytes

struct ChunkBlend {
    alignas(32) uint8_t byteOf[kMaskChunkBytes];
    alignas(32) uint8_t bitOf[kMaskChunkBytes];
    int32_t pixelBytes = 0;
    void setUp(int32_t bytesPerPixel) {
        pixelBytes = bytesPerPixel;
        for (int32_t j = 0; j < kMaskChunk * bytesPerPixel; ++j) {
            const int32_t p = j / bytesPerPixel;
            byteOf[j] = static_cast<uint8_t>(p >> 3);
            bitOf[j] = static_cast<uint8_t>(0x80u >> (p & 7));
        }
    }
};

// dst takes src's bytes where the chunk's mask bits are set.
KUV_PIXEL_AVX2 inline void blendChunkWide(const ChunkBlend& cb, const uint8_t* mask8,
                                          const uint8_t* src, uint8_t* dst) {
    uint64_t bits;
    std::memcpy(&bits, mask8, 8);
    const __m256i m = _mm256_set1_epi64x(static_cast<long long>(bits));
    const int32_t total = kMaskChunk * cb.pixelBytes;
    for (int32_t j = 0; j < total; j += 32) {
        const __m256i bit = _mm256_load_si256(reinterpret_cast<const __m256i*>(cb.bitOf + j));
        const __m256i sel = _mm256_shuffle_epi8(
            m, _mm256_load_si256(reinterpret_cast<const __m256i*>(cb.byteOf + j)));
        const __m256i on = _mm256_cmpeq_epi8(_mm256_and_si256(sel, bit), bit);
        const __m256i s = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + j));
        const __m256i o = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst + j));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + j), _mm256_blendv_epi8(o, s, on));
    }
}

template <bool Wide, int NS, class Op, class T>
void rowMaskedRun(const Op& op, const T* a, const T* b, T* d, int32_t nPix, int32_t nCh,
                  const uint8_t* mask, int32_t bitOffset, const ChunkBlend* cb) {
    auto run = [&](int32_t x, int32_t n) {
        const size_t at = static_cast<size_t>(x) * nCh;
        runOf<Wide, NS>(op, a + at, NS == 2 ? b + at : b, d + at, static_cast<size_t>(n) * nCh);
    };
    int32_t x = 0;
    for (; x < nPix && ((bitOffset + x) & 7) != 0; ++x) {
        if (maskBit(mask, bitOffset + x)) run(x, 1);
    }
    alignas(32) T buffer[kMaskChunkBytes / sizeof(T)];
    while (x + 8 <= nPix) {
        const uint8_t* m = mask + ((bitOffset + x) >> 3);
        int32_t nBytes = (nPix - x) >> 3;
        if (nBytes > kMaskChunk / 8) nBytes = kMaskChunk / 8;
        bool anySet = false, allSet = true;
        for (int32_t k = 0; k < nBytes; ++k) {
            anySet |= m[k] != 0;
            allSet &= m[k] == 0xFF;
        }
        const int32_t n = nBytes * 8;
        if (allSet) {
            run(x, n);
        } else if (anySet) {
            const size_t at = static_cast<size_t>(x) * nCh;
            runOf<Wide, NS>(op, a + at, NS == 2 ? b + at : b, buffer, static_cast<size_t>(n) * nCh);
            bool blended = false;
            if constexpr (Wide) {
                if (n == kMaskChunk) {
                    blendChunkWide(*cb, m, reinterpret_cast<const uint8_t*>(buffer),
                                   reinterpret_cast<uint8_t*>(d + at));
                    blended = true;
                }
            }
            for (int32_t j = 0; j < n && !blended; ++j) {
                if ((m[j >> 3] >> (7 - (j & 7))) & 1) {
                    std::memcpy(d + at + static_cast<size_t>(j) * nCh,
                                buffer + static_cast<size_t>(j) * nCh, sizeof(T) * nCh);
                }
            }
        }
        x += n;
    }
    for (; x < nPix; ++x) {
        if (maskBit(mask, bitOffset + x)) run(x, 1);
    }
}

template <class T>
inline T* rowAt(const WalkImage& w, int32_t plane, int32_t y) {
    return reinterpret_cast<T*>(w.start + plane * w.planeStep + y * w.rowStep);
}

// The walk without mask: flat path, or the rectangle by its walk shape.
template <bool Wide, int NS, class Op>
void plainWalk(const Op& op, const LineArgs& args) {
    using T = typename Op::T;
    if (flatPathApplies(args, NS)) {
        const size_t n = static_cast<size_t>(args.src[0]->imageSize) / sizeof(T);
        runOf<Wide, NS>(op, reinterpret_cast<const T*>(args.src[0]->imageData),
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
                    runOf<Wide, NS>(op, rowAt<const T>(ia, p, y),
                                    NS == 2 ? rowAt<const T>(ib, p, y) : nullptr,
                                    rowAt<T>(id, p, y), n);
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

// Whether the AVX2 rows give the order the plain rows give. They read ahead
// of what they write, so a destination that shares memory with a source at
// another place (two records on one buffer, or one record with another
// region) takes the plain rows, which go element by element from the top.
// The same record, or one of the same layout and region, is element for
// element in place and safe.
inline bool sameSpot(const KuvImage* a, const KuvImage* d) {
    if (a == d) return true;
    const auto at = [](const KuvImage* im) { return reinterpret_cast<uintptr_t>(im->imageData); };
    if (at(a) + uintptr_t(a->imageSize) <= at(d) || at(d) + uintptr_t(d->imageSize) <= at(a)) {
        return true;
    }
    const KuvROI none{};
    const KuvROI& ra = a->roi != nullptr ? *a->roi : none;
    const KuvROI& rd = d->roi != nullptr ? *d->roi : none;
    return a->imageData == d->imageData && a->widthStep == d->widthStep &&
           a->depth == d->depth && a->nChannels == d->nChannels &&
           a->dataOrder == d->dataOrder && ra.xOffset == rd.xOffset &&
           ra.yOffset == rd.yOffset;
}

inline bool wideRowsFor(const LineArgs& args, int ns) {
    if (!pixelWideRows()) return false;
    for (int i = 0; i < ns; ++i) {
        if (!sameSpot(args.src[i], args.dst)) return false;
    }
    return true;
}

template <int NS, class Op>
void plainWorker(const LineArgs& args) {
    const Op op(args.param);
    if (wideRowsFor(args, NS)) plainWalk<true, NS>(op, args);
    else plainWalk<false, NS>(op, args);
}

// The walk with mask: no flat path; a clear bit leaves every channel of its
// pixel; in plane order the mask is walked once per plane.
template <bool Wide, int NS, class Op>
void maskedWalk(const Op& op, const LineArgs& args) {
    using T = typename Op::T;
    Walk w;
    if (!setUpWalk(args, NS, &w)) return;
    const WalkImage &ia = w.img[0], &ib = w.img[1], &id = w.img[2];
    // Pixels that lie side by side in every image go by chunks.
    const bool contiguous = ia.pixelStride == w.nCh && id.pixelStride == w.nCh &&
                            (NS == 1 || ib.pixelStride == w.nCh) &&
                            static_cast<size_t>(kMaskChunk) * w.nCh * sizeof(T) <=
                                static_cast<size_t>(kMaskChunkBytes);
    if (contiguous) {
        ChunkBlend cb;
        if constexpr (Wide) cb.setUp(static_cast<int32_t>(w.nCh * sizeof(T)));
        for (int32_t p = 0; p < w.nPlanes; ++p) {
            for (int32_t y = 0; y < w.height; ++y) {
                rowMaskedRun<Wide, NS>(op, rowAt<const T>(ia, p, y),
                                       NS == 2 ? rowAt<const T>(ib, p, y) : nullptr,
                                       rowAt<T>(id, p, y), w.width, w.nCh,
                                       w.maskStart + y * w.maskStep, w.maskBitOffset, &cb);
            }
        }
        return;
    }
    for (int32_t p = 0; p < w.nPlanes; ++p) {
        for (int32_t y = 0; y < w.height; ++y) {
            rowMasked<NS>(op, rowAt<const T>(ia, p, y), ia.pixelStride,
                          NS == 2 ? rowAt<const T>(ib, p, y) : nullptr, ib.pixelStride,
                          rowAt<T>(id, p, y), id.pixelStride, w.width, w.nCh,
                          w.maskStart + y * w.maskStep, w.maskBitOffset);
        }
    }
}

template <int NS, class Op>
void maskedWorker(const LineArgs& args) {
    const Op op(args.param);
    if (wideRowsFor(args, NS)) maskedWalk<true, NS>(op, args);
    else maskedWalk<false, NS>(op, args);
}

// The table entry of one depth: both workers of a functor.
template <int NS, class Op>
constexpr WorkerPair workersOf() {
    return WorkerPair{&plainWorker<NS, Op>, &maskedWorker<NS, Op>};
}

}  // namespace kuv

#endif
