// Copy, set and exchange: kuvCopy, kuvSet, kuvSetFP, kuvExchange.
//
// These four do not run the pattern driver. They accept different channel
// counts and data orders where a copy makes sense, leave the alpha channel
// out by a rule of their own (ownRegionStart), compose a masked bit copy of
// whole logic operations, and cut tiled work into blocks on which they call
// themselves with working headers: each block is then an ordinary untiled
// call with all of its checks.
//
// Elements are moved by size only, so signed and unsigned depths of one
// width share their workers.
#include "core/platform.h"
#include "kuv_own.h"

#include <algorithm>
#include <cstring>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_COPY_HAVE_AVX2 1
#include <immintrin.h>
#endif

namespace {

int64_t clipAxis(int32_t offset, int32_t size, int32_t limit) {
    int64_t extent = size;
    const int64_t end = int64_t{offset} + size;
    if (end > limit) extent -= end - limit;
    if (offset < 0) extent += offset;   // a negative offset shortens the region
    return extent;
}

inline int32_t floorZero(int32_t v) { return v < 0 ? 0 : v; }

}  // namespace

// ------------------------------------------------------------- region helpers

bool ownRegionExtent(const KuvImage* image, int32_t* height, int32_t* width, bool clip) {
    *height = 0;
    *width = 0;
    const KuvROI* roi = image->roi;
    if (roi == nullptr) {
        *height = image->height;
        *width = image->width;
        return true;
    }
    if (roi->width < 1 || roi->height < 1) return false;
    int64_t h = roi->height, w = roi->width;
    if (clip) {
        if (roi->xOffset >= image->width || roi->yOffset >= image->height) return false;
        h = clipAxis(roi->yOffset, roi->height, image->height);
        w = clipAxis(roi->xOffset, roi->width, image->width);
        if (h < 1 || w < 1) return false;
    }
    *height = static_cast<int32_t>(h);
    *width = static_cast<int32_t>(w);
    return true;
}

bool ownCommonExtent(const KuvImage* imageA, const KuvImage* imageB, const KuvImage* imageC,
                     int32_t* height, int32_t* width, bool clip) {
    const KuvImage* images[3] = {imageA, imageB, imageC};
    int32_t h = INT32_MAX, w = INT32_MAX;
    for (const KuvImage* image : images) {
        if (image == nullptr) continue;
        int32_t ih = 0, iw = 0;
        if (!ownRegionExtent(image, &ih, &iw, clip)) return false;
        h = std::min(h, ih);
        w = std::min(w, iw);
    }
    *height = h;
    *width = w;
    return true;
}

bool ownRegionStart(const KuvImage* image, char** start, int32_t* widthStep, int32_t* nCh,
                    int32_t* planeStep, int32_t* xOffset) {
    const KuvROI* roi = image->roi;
    const int32_t x = roi != nullptr ? floorZero(roi->xOffset) : 0;
    const int32_t y = roi != nullptr ? floorZero(roi->yOffset) : 0;
    const int32_t coi = roi != nullptr ? roi->coi : 0;
    // An image whose only channel is its alpha channel has nothing to process.
    if (image->alphaChannel != 0 && roi == nullptr && image->nChannels == 1) return false;
    if (image->alphaChannel != 0 && coi == 0) *nCh = image->nChannels - 1;
    else *nCh = coi == 0 ? image->nChannels : 1;

    const int64_t plane = int64_t{image->widthStep} * image->height;
    const int64_t element = ownDepthBits(image->depth) / 8;   // 0 for bit images
    int64_t offset = int64_t{y} * image->widthStep;
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) {
        offset += int64_t{x} * image->nChannels * element;
        if (coi > 1) offset += (coi - 1) * element;
    } else {
        offset += int64_t{x} * element;
        if (coi > 1) offset += (coi - 1) * plane;
    }
    *start = image->imageData + offset;
    *widthStep = image->widthStep;
    *planeStep = static_cast<int32_t>(plane);
    *xOffset = x;
    return true;
}

bool ownBitRegion(const KuvImage* image, uint8_t** row, int32_t* widthStep, int32_t* bitOffset) {
    if (image->depth != KUV_DEPTH_1U) return false;
    const KuvROI* roi = image->roi;
    const int32_t x = roi != nullptr ? floorZero(roi->xOffset) : 0;
    const int32_t y = roi != nullptr ? floorZero(roi->yOffset) : 0;
    *row = reinterpret_cast<uint8_t*>(image->imageData) + int64_t{y} * image->widthStep + x / 8;
    *widthStep = image->widthStep;
    *bitOffset = x % 8;
    return true;
}

void ownTileGrid(const KuvImage* image, int32_t height, int32_t width, int32_t* tileXOffset,
                 int32_t* tileYOffset, int32_t* tileHeight, int32_t* tileWidth,
                 int32_t* firstCol, int32_t* firstRow, int32_t* colCount, int32_t* rowCount) {
    // An untiled image counts as tiled by 128 by 128.
    const int32_t tw = image->tileInfo != nullptr ? image->tileInfo->width : 128;
    const int32_t th = image->tileInfo != nullptr ? image->tileInfo->height : 128;
    const KuvROI* roi = image->roi;
    const int32_t x = roi != nullptr ? floorZero(roi->xOffset) : 0;
    const int32_t y = roi != nullptr ? floorZero(roi->yOffset) : 0;
    *tileWidth = tw;
    *tileHeight = th;
    *firstCol = x / tw;
    *firstRow = y / th;
    *tileXOffset = x % tw;
    *tileYOffset = y % th;
    *colCount = static_cast<int32_t>((int64_t{x} + width - 1) / tw - *firstCol + 1);
    *rowCount = static_cast<int32_t>((int64_t{y} + height - 1) / th - *firstRow + 1);
}

char* ownElementAddress(const KuvImage* image, int32_t x, int32_t y, int32_t channel) {
    const int64_t bits = ownDepthBits(image->depth);
    int64_t offset = int64_t{y} * image->widthStep;
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) {
        offset += (int64_t{x} * image->nChannels + channel) * bits / 8;
    } else {
        offset += int64_t{channel} * image->widthStep * image->height + x * bits / 8;
    }
    return image->imageData + offset;
}

namespace kuv {
namespace {

constexpr const char* kFile = "kuvsce";
// Texts of temporary headers: the header takes exactly four bytes of each.
constexpr char kGray[4] = {'G', 'R', 'A', 'Y'};
constexpr char kSeqG[4] = {'G', '\0', '\0', '\0'};
constexpr char kSeqGBlank[4] = {'G', ' ', ' ', ' '};
constexpr const char* kChannelText =
    "Number of processed channels of srcImage != Number of processed channels of dstImage";

inline KuvStatus report(KuvStatus status, const char* func, const char* context, int line) {
    return kuvError(status, func, context, kFile, line);
}

inline bool failed() { return kuvGetErrStatus() < 0; }

// A temporary image of the call, freed with everything hung on it.
struct TempImage {
    KuvImage* image = nullptr;
    TempImage() = default;
    TempImage(const TempImage&) = delete;
    TempImage& operator=(const TempImage&) = delete;
    ~TempImage() { kuvDeallocate(image, KUV_IMAGE_ALL); }
};

// Pixels of a header that lives on the stack.
struct TempPixels {
    KuvImage* image = nullptr;
    TempPixels() = default;
    TempPixels(const TempPixels&) = delete;
    TempPixels& operator=(const TempPixels&) = delete;
    ~TempPixels() {
        if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_DATA);
    }
};

struct WindowHolder {
    char* window = nullptr;
    WindowHolder() = default;
    WindowHolder(const WindowHolder&) = delete;
    WindowHolder& operator=(const WindowHolder&) = delete;
    ~WindowHolder() { release(); }
    void release() {
        if (window != nullptr) ownFreeWindow(window);
        window = nullptr;
    }
};

// A field of the caller's record changed for the length of a nested call.
template <class F>
struct FieldSwap {
    F* field;
    F saved;
    FieldSwap(F* f, F value) : field(f), saved(*f) { *f = value; }
    FieldSwap(const FieldSwap&) = delete;
    FieldSwap& operator=(const FieldSwap&) = delete;
    ~FieldSwap() { *field = saved; }
};

// ------------------------------------------------------------- element rows

// Which instruction set the strided copies run on, asked once per call.
bool vectorPath() {
#ifdef KUV_COPY_HAVE_AVX2
    return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0;
#else
    return false;
#endif
}

// Pixels of g elements each, moved from a stride of ss elements to one of ds.
// Strides known at compile time let the compiler turn a channel split or
// merge into shuffles; 0 means strides given at run time.
template <class U, int SS, int DS, int G>
[[gnu::always_inline]] inline void copyGroupsBody(const char* src, char* dst, int32_t n,
                                                  int32_t ss, int32_t ds, int32_t g) {
    const U* s = reinterpret_cast<const U*>(src);
    U* d = reinterpret_cast<U*>(dst);
    if constexpr (SS > 0) {
        (void)ss;
        (void)ds;
        (void)g;
        const size_t count = static_cast<size_t>(n);
        for (size_t x = 0; x < count; ++x) {
            for (size_t k = 0; k < G; ++k) d[x * DS + k] = s[x * SS + k];
        }
    } else {
        for (int32_t x = 0; x < n; ++x, s += ss, d += ds) {
            for (int32_t k = 0; k < g; ++k) d[k] = s[k];
        }
    }
}

using GroupCopy = void (*)(const char*, char*, int32_t, int32_t, int32_t, int32_t);

template <class U, int SS, int DS, int G>
void copyGroupsBaseline(const char* s, char* d, int32_t n, int32_t ss, int32_t ds, int32_t g) {
    copyGroupsBody<U, SS, DS, G>(s, d, n, ss, ds, g);
}

#ifdef KUV_COPY_HAVE_AVX2
template <class U, int SS, int DS, int G>
__attribute__((target("avx2"))) void copyGroupsAvx2(const char* s, char* d, int32_t n, int32_t ss,
                                                    int32_t ds, int32_t g) {
    copyGroupsBody<U, SS, DS, G>(s, d, n, ss, ds, g);
}

// A channel split of 8-bit pixels, the commonest strided copy, written out
// by hand: what the compiler makes of the plain loop costs about twice the
// shuffles.
//
// A block's loads reach a few bytes past its last needed one, into the
// pixel after the block; only blocks followed by a pixel go that way. The
// row's last 32 pixels are then done once more as one block whose loads are
// moved back by those few bytes (a row of 33 pixels or more has them before
// its first block), unless the destination overlaps the source, where the
// repeated stores could have changed what the block reads; a shorter row or
// an overlapping one ends in the plain loop.
inline bool apart(const char* src, ptrdiff_t srcBytes, const char* dst, ptrdiff_t dstBytes) {
    return src + srcBytes <= dst || dst + dstBytes <= src;
}

// One channel of three: 32 pixels come as six 16-byte loads placed so that
// each 128-bit lane holds 16 whole pixels, and three byte shuffles with the
// same masks in both lanes pick the channel. Output j of a lane takes byte
// 3j + shift of the lane's 48 bytes, which lies in load k at 3j + shift - 16k;
// -128 (high bit) gives a zero byte.
struct SplitOf3Masks {
    alignas(32) int8_t m[3][32];
};

constexpr SplitOf3Masks splitOf3Masks(int shift) {
    SplitOf3Masks t{};
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 32; ++j) {
            const int at = 3 * (j % 16) + shift - 16 * k;
            t.m[k][j] = static_cast<int8_t>(at >= 0 && at < 16 ? at : -128);
        }
    }
    return t;
}

__attribute__((target("avx2"))) inline __m256i splitOf3Block(const uint8_t* p,
                                                             const SplitOf3Masks& masks) {
    const auto* m = reinterpret_cast<const __m256i*>(masks.m);
    const __m256i v0 = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 48),
                                           reinterpret_cast<const __m128i*>(p));
    const __m256i v1 = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 64),
                                           reinterpret_cast<const __m128i*>(p + 16));
    const __m256i v2 = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 80),
                                           reinterpret_cast<const __m128i*>(p + 32));
    return _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(v0, _mm256_load_si256(m)),
                                           _mm256_shuffle_epi8(v1, _mm256_load_si256(m + 1))),
                           _mm256_shuffle_epi8(v2, _mm256_load_si256(m + 2)));
}

__attribute__((target("avx2"))) void splitOf3x8Avx2(const char* src, char* dst, int32_t n,
                                                    int32_t, int32_t, int32_t) {
    static constexpr SplitOf3Masks inPlace = splitOf3Masks(0);
    static constexpr SplitOf3Masks movedBack = splitOf3Masks(2);
    const auto* s = reinterpret_cast<const uint8_t*>(src);
    auto* d = reinterpret_cast<uint8_t*>(dst);
    int32_t x = 0;
    // A block reads 96 bytes from pixel x on: two past its last needed one.
    for (; x + 32 < n; x += 32) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                            splitOf3Block(s + 3 * static_cast<ptrdiff_t>(x), inPlace));
    }
    if (n > 32 && x < n && apart(src, 3 * ptrdiff_t{n}, dst, n)) {
        const int32_t last = n - 32;
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + last),
                            splitOf3Block(s + 3 * static_cast<ptrdiff_t>(last) - 2, movedBack));
        return;
    }
    for (; x < n; ++x) d[x] = s[3 * static_cast<ptrdiff_t>(x)];
}

// One channel of four: the channel is one byte of each 32-bit pixel,
// shifted down, packed twice, and put in order.
template <int Shift>
__attribute__((target("avx2"))) inline __m256i lowByteOf4(const __m256i* v) {
    const __m256i w = _mm256_loadu_si256(v);
    if constexpr (Shift == 0) return _mm256_and_si256(w, _mm256_set1_epi32(0xFF));
    else return _mm256_srli_epi32(w, Shift);
}

template <int Shift>
__attribute__((target("avx2"))) inline __m256i splitOf4Block(const uint8_t* p) {
    const auto* v = reinterpret_cast<const __m256i*>(p);
    const __m256i a = lowByteOf4<Shift>(v);
    const __m256i b = lowByteOf4<Shift>(v + 1);
    const __m256i c = lowByteOf4<Shift>(v + 2);
    const __m256i e = lowByteOf4<Shift>(v + 3);
    const __m256i bytes =
        _mm256_packus_epi16(_mm256_packus_epi32(a, b), _mm256_packus_epi32(c, e));
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

__attribute__((target("avx2"))) void splitOf4x8Avx2(const char* src, char* dst, int32_t n,
                                                    int32_t, int32_t, int32_t) {
    const auto* s = reinterpret_cast<const uint8_t*>(src);
    auto* d = reinterpret_cast<uint8_t*>(dst);
    int32_t x = 0;
    // A block reads 128 bytes: three past its last needed one.
    for (; x + 32 < n; x += 32) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + x),
                            splitOf4Block<0>(s + 4 * static_cast<ptrdiff_t>(x)));
    }
    if (n > 32 && x < n && apart(src, 4 * ptrdiff_t{n}, dst, n)) {
        const int32_t last = n - 32;
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + last),
                            splitOf4Block<24>(s + 4 * static_cast<ptrdiff_t>(last) - 3));
        return;
    }
    for (; x < n; ++x) d[x] = s[4 * static_cast<ptrdiff_t>(x)];
}

#endif

struct GroupKernel {
    int ss, ds, g;
    GroupCopy baseline, avx2;
};

template <class U, int SS, int DS, int G>
constexpr GroupKernel groupKernel() {
#ifdef KUV_COPY_HAVE_AVX2
    return GroupKernel{SS, DS, G, &copyGroupsBaseline<U, SS, DS, G>, &copyGroupsAvx2<U, SS, DS, G>};
#else
    return GroupKernel{SS, DS, G, &copyGroupsBaseline<U, SS, DS, G>, nullptr};
#endif
}

// The shapes worth a kernel of their own: a channel out of 2, 3 or 4 into one
// (and back), and three colour channels between 3- and 4-channel pixels.
// The last row, with strides 0, takes every other shape.
template <class U>
constexpr GroupKernel groupKernels[] = {
    groupKernel<U, 3, 1, 1>(), groupKernel<U, 4, 1, 1>(), groupKernel<U, 2, 1, 1>(),
    groupKernel<U, 1, 3, 1>(), groupKernel<U, 1, 4, 1>(), groupKernel<U, 1, 2, 1>(),
    groupKernel<U, 4, 3, 3>(), groupKernel<U, 3, 4, 3>(), groupKernel<U, 4, 4, 3>(),
    groupKernel<U, 0, 0, 0>(),
};

template <class U>
GroupCopy findGroupCopy(int32_t ss, int32_t ds, int32_t g) {
    const bool vector = vectorPath();
#ifdef KUV_COPY_HAVE_AVX2
    if (sizeof(U) == 1 && vector && ds == 1 && g == 1) {
        if (ss == 3) return &splitOf3x8Avx2;
        if (ss == 4) return &splitOf4x8Avx2;
    }
#endif
    for (const GroupKernel& k : groupKernels<U>) {
        if (k.ss == 0 || (k.ss == ss && k.ds == ds && k.g == g)) {
            return vector && k.avx2 != nullptr ? k.avx2 : k.baseline;
        }
    }
    return nullptr;   // not reached: the last row matches everything
}

template <class U>
inline void swapRun(char* a, char* b, size_t n) {
    U* x = reinterpret_cast<U*>(a);
    U* y = reinterpret_cast<U*>(b);
    for (size_t i = 0; i < n; ++i) {
        const U t = x[i];
        x[i] = y[i];
        y[i] = t;
    }
}

template <class U>
inline void fillRun(char* d, size_t n, U value) {
    if constexpr (sizeof(U) == 1) {
        std::memset(d, static_cast<unsigned char>(value), n);
    } else {
        U* p = reinterpret_cast<U*>(d);
        for (size_t i = 0; i < n; ++i) p[i] = value;
    }
}

inline bool maskBit(const uint8_t* row, int32_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

inline void storeBit(uint8_t* row, int32_t i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

// ------------------------------------------------------------- untiled walks

enum class Act { Copy, Exchange, Set };

// One untiled call, worked out once before the rows. Slot 0 is the source
// (unused by a fill), slot 1 the destination.
struct Walk {
    char* start[2];
    ptrdiff_t rowStep[2];
    ptrdiff_t planeStep[2];
    int32_t stride[2];      // elements from pixel to pixel
    int32_t nChannels[2];
    int32_t xOffset[2];     // bit images: the region's first column
    int32_t width, height;
    int32_t nCh;            // channels to process
    bool planes;            // the walk follows plane order
    int elementBytes;       // 0 for bit images
    const uint8_t* mask;    // first byte of the mask region's first row, or null
    ptrdiff_t maskStep;
    int32_t maskBit;
};

// ownRegionStart of each image (false: silently nothing to do), the mask's
// bit region, and the channel test. src may be null for a fill.
bool setUpWalk(const char* func, const KuvImage* src, const KuvImage* dst, const KuvImage* mask,
               int32_t height, int32_t width, Walk* w) {
    const KuvImage* images[2] = {src, dst};
    int32_t nCh[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        w->start[i] = nullptr;
        w->rowStep[i] = w->planeStep[i] = 0;
        w->stride[i] = w->nChannels[i] = w->xOffset[i] = 0;
        const KuvImage* image = images[i];
        if (image == nullptr) continue;
        int32_t step = 0, plane = 0;
        if (!ownRegionStart(image, &w->start[i], &step, &nCh[i], &plane, &w->xOffset[i])) {
            return false;
        }
        w->rowStep[i] = step;
        w->planeStep[i] = plane;
        w->nChannels[i] = image->nChannels;
        w->stride[i] = image->dataOrder == KUV_DATA_ORDER_PIXEL ? image->nChannels : 1;
    }
    w->mask = nullptr;
    w->maskStep = 0;
    w->maskBit = 0;
    if (mask != nullptr) {
        uint8_t* row = nullptr;
        int32_t step = 0;
        if (ownBitRegion(mask, &row, &step, &w->maskBit)) {
            w->mask = row;
            w->maskStep = step;
        }
    }
    if (src != nullptr && nCh[0] != nCh[1]) {
        report(KUV_StsBadArgument, func, kChannelText, __LINE__);
        return false;
    }
    const KuvImage* leader = src != nullptr ? src : dst;   // the walk follows the source's order
    w->nCh = nCh[1];
    w->planes = leader->dataOrder == KUV_DATA_ORDER_PLANE;
    w->elementBytes = ownDepthBits(dst->depth) / 8;
    w->height = height;
    w->width = width;
    if (src == nullptr) {
        w->start[0] = w->start[1];
        w->rowStep[0] = w->rowStep[1];
        w->planeStep[0] = w->planeStep[1];
        w->stride[0] = w->stride[1];
        w->nChannels[0] = w->nChannels[1];
    }
    return true;
}

// Rows of `bytes` bytes each: one move when both sides are whole contiguous
// rows apart from each other, else top row first. Two records on one buffer
// may overlap; the copy then goes left to right with no guard, as the
// per-pixel loops do, so that every path gives the same bytes.
void moveRows(const char* s, ptrdiff_t sStep, char* d, ptrdiff_t dStep, size_t bytes,
              int32_t rows) {
    const size_t total = bytes * static_cast<size_t>(rows);
    const bool apart = s + total <= d || d + total <= s;
    if (static_cast<ptrdiff_t>(bytes) == sStep && sStep == dStep && apart) {
        std::memcpy(d, s, total);
        return;
    }
    for (int32_t y = 0; y < rows; ++y, s += sStep, d += dStep) {
        if (s + bytes <= d || d + bytes <= s) {
            std::memcpy(d, s, bytes);
        } else {
            for (size_t i = 0; i < bytes; ++i) d[i] = s[i];
        }
    }
}

template <class U>
void fillRows(char* d, ptrdiff_t dStep, size_t count, int32_t rows, U value) {
    if (static_cast<ptrdiff_t>(count * sizeof(U)) == dStep) {
        fillRun<U>(d, count * static_cast<size_t>(rows), value);
        return;
    }
    for (int32_t y = 0; y < rows; ++y, d += dStep) fillRun<U>(d, count, value);
}

// The untiled element walks of one action at one element size.
template <Act A, class U>
void elementWalk(const Walk& w, U value) {
    const int32_t planes = w.planes ? w.nCh : 1;
    const int32_t group = w.planes ? 1 : w.nCh;
    if (planes <= 0 || group <= 0) return;
    const int src = A == Act::Set ? 1 : 0;

    if (w.mask != nullptr) {
        // Every case passes over the pixels whose bit is clear; in plane order
        // the mask is walked from its start for each plane.
        for (int32_t p = 0; p < planes; ++p) {
            for (int32_t y = 0; y < w.height; ++y) {
                const uint8_t* m = w.mask + y * w.maskStep;
                U* s = reinterpret_cast<U*>(w.start[src] + p * w.planeStep[src] +
                                            y * w.rowStep[src]);
                U* d = reinterpret_cast<U*>(w.start[1] + p * w.planeStep[1] + y * w.rowStep[1]);
                for (int32_t x = 0; x < w.width; ++x, s += w.stride[src], d += w.stride[1]) {
                    if (!maskBit(m, w.maskBit + x)) continue;
                    for (int32_t k = 0; k < group; ++k) {
                        if constexpr (A == Act::Copy) d[k] = s[k];
                        else if constexpr (A == Act::Exchange) std::swap(s[k], d[k]);
                        else d[k] = value;
                    }
                }
            }
        }
        return;
    }

    // One run per row: each plane's rows, or pixel rows whose channels are
    // all processed on both sides.
    const bool run = w.planes || (w.nChannels[src] == w.nChannels[1] && w.nChannels[1] == w.nCh);
    if (run) {
        const size_t count = static_cast<size_t>(w.width) * (w.planes ? 1 : w.nCh);
        for (int32_t p = 0; p < planes; ++p) {
            char* s = w.start[src] + p * w.planeStep[src];
            char* d = w.start[1] + p * w.planeStep[1];
            if constexpr (A == Act::Copy) {
                moveRows(s, w.rowStep[0], d, w.rowStep[1], count * sizeof(U), w.height);
            } else if constexpr (A == Act::Exchange) {
                for (int32_t y = 0; y < w.height; ++y) {
                    swapRun<U>(s + y * w.rowStep[0], d + y * w.rowStep[1], count);
                }
            } else {
                fillRows<U>(d, w.rowStep[1], count, w.height, value);
            }
        }
        return;
    }

    // Pixel by pixel, each image with its own pixel stride.
    if constexpr (A == Act::Copy) {
        const GroupCopy kernel = findGroupCopy<U>(w.stride[0], w.stride[1], group);
        for (int32_t y = 0; y < w.height; ++y) {
            kernel(w.start[0] + y * w.rowStep[0], w.start[1] + y * w.rowStep[1], w.width,
                   w.stride[0], w.stride[1], group);
        }
    } else {
        for (int32_t y = 0; y < w.height; ++y) {
            U* s = reinterpret_cast<U*>(w.start[src] + y * w.rowStep[src]);
            U* d = reinterpret_cast<U*>(w.start[1] + y * w.rowStep[1]);
            for (int32_t x = 0; x < w.width; ++x, s += w.stride[src], d += w.stride[1]) {
                for (int32_t k = 0; k < group; ++k) {
                    if constexpr (A == Act::Exchange) std::swap(s[k], d[k]);
                    else d[k] = value;
                }
            }
        }
    }
}

// Bits of a region row: the bit of column x lies at the region's xOffset + x.
struct BitSide {
    uint8_t* row;
    int32_t offset;   // 0..7
    ptrdiff_t step;
};

BitSide bitSide(const Walk& w, int i) {
    return BitSide{reinterpret_cast<uint8_t*>(w.start[i]) + w.xOffset[i] / 8, w.xOffset[i] % 8,
                   w.rowStep[i]};
}

void fillBitRows(const BitSide& d, int32_t width, int32_t rows, bool value) {
    const int32_t last = (d.offset + width - 1) >> 3;
    const auto head = static_cast<uint8_t>(0xFFu >> d.offset);
    const auto tail = static_cast<uint8_t>(0xFFu << (7 - ((d.offset + width - 1) & 7)));
    const uint8_t fill = value ? 0xFF : 0x00;
    auto merge = [&](uint8_t* p, uint8_t keep) {
        *p = static_cast<uint8_t>((*p & ~keep) | (fill & keep));
    };
    for (int32_t y = 0; y < rows; ++y) {
        uint8_t* p = d.row + y * d.step;
        if (last == 0) {
            merge(p, static_cast<uint8_t>(head & tail));
            continue;
        }
        merge(p, head);
        if (last > 1) std::memset(p + 1, fill, static_cast<size_t>(last - 1));
        merge(p + last, tail);
    }
}

// Swaps bit rows through a small buffer, a stretch of bits at a time.
void swapBitRows(const BitSide& a, const BitSide& b, int32_t width, int32_t rows) {
    constexpr int32_t chunkBits = 4096;
    uint8_t buffer[chunkBits / 8 + 1];
    for (int32_t y = 0; y < rows; ++y) {
        uint8_t* ra = a.row + y * a.step;
        uint8_t* rb = b.row + y * b.step;
        for (int32_t x = 0; x < width; x += chunkBits) {
            const int32_t n = std::min(chunkBits, width - x);
            const int32_t ia = a.offset + x, ib = b.offset + x;
            ownCopyBits(ra + ia / 8, buffer, ia % 8, 0, n, 1, 0, 0);
            ownCopyBits(rb + ib / 8, ra + ia / 8, ib % 8, ia % 8, n, 1, 0, 0);
            ownCopyBits(buffer, rb + ib / 8, 0, ib % 8, n, 1, 0, 0);
        }
    }
}

template <Act A>
void bitWalk(const Walk& w, int32_t value) {
    if (w.width <= 0 || w.height <= 0) return;
    const BitSide d = bitSide(w, 1);
    if constexpr (A == Act::Set) {
        fillBitRows(d, w.width, w.height, value != 0);
    } else {
        const BitSide s = bitSide(w, 0);
        if (w.mask == nullptr) {
            if constexpr (A == Act::Copy) {
                ownCopyBits(s.row, d.row, s.offset, d.offset, w.width, w.height, s.step, d.step);
            } else {
                swapBitRows(s, d, w.width, w.height);
            }
            return;
        }
        // A masked bit copy is composed of whole operations before this walk;
        // a masked exchange goes bit by bit.
        for (int32_t y = 0; y < w.height; ++y) {
            const uint8_t* m = w.mask + y * w.maskStep;
            uint8_t* rs = s.row + y * s.step;
            uint8_t* rd = d.row + y * d.step;
            for (int32_t x = 0; x < w.width; ++x) {
                if (!maskBit(m, w.maskBit + x)) continue;
                const bool a = maskBit(rs, s.offset + x), b = maskBit(rd, d.offset + x);
                if constexpr (A == Act::Exchange) storeBit(rs, s.offset + x, b);
                storeBit(rd, d.offset + x, a);
            }
        }
    }
}

template <Act A>
void runWalk(const Walk& w, int32_t value) {
    switch (w.elementBytes) {
        case 0: return bitWalk<A>(w, value);
        case 1: return elementWalk<A, uint8_t>(w, static_cast<uint8_t>(value));
        case 2: return elementWalk<A, uint16_t>(w, static_cast<uint16_t>(value));
        default: return elementWalk<A, uint32_t>(w, static_cast<uint32_t>(value));
    }
}

// ------------------------------------------------------------- block walk

// One image of a block walk: the working copy that the nested call sees.
struct Working {
    const KuvImage* image = nullptr;   // the application's record
    KuvImage work{};
    KuvROI roi{};
    int32_t x0 = 0, y0 = 0;            // the region's origin
    bool tiled = false;
    char* tile = nullptr;              // the tile held now
    int32_t col = 0, row = 0;
};

void makeWorking(const KuvImage* image, Working* w) {
    w->image = image;
    w->work = *image;
    w->work.imageDataOrigin = nullptr;   // never the working copy's to free
    w->work.maskROI = nullptr;
    w->roi = KuvROI{image->roi != nullptr ? image->roi->coi : 0, 0, 0, 0, 0};
    w->work.roi = &w->roi;
    w->x0 = image->roi != nullptr ? floorZero(image->roi->xOffset) : 0;
    w->y0 = image->roi != nullptr ? floorZero(image->roi->yOffset) : 0;
    w->tiled = image->tileInfo != nullptr;
    if (!w->tiled) return;
    // A tile is an ordinary image of the tile's size with the image's fields.
    const KuvTileInfo* info = image->tileInfo;
    const int32_t step = ownTileRowBytes(image);
    w->work.tileInfo = nullptr;
    w->work.width = info->width;
    w->work.height = info->height;
    w->work.widthStep = step;
    w->work.imageData = nullptr;
}

void placeWorking(Working* w, int32_t x, int32_t y, int32_t width, int32_t height) {
    w->roi.xOffset = x;
    w->roi.yOffset = y;
    w->roi.width = width;
    w->roi.height = height;
}

bool requestTile(Working* w, int32_t col, int32_t row, int32_t mode) {
    KuvTileInfo* info = w->image->tileInfo;
    info->callBack(w->image, col, row, mode);
    w->tile = info->tileData;
    w->col = col;
    w->row = row;
    w->work.imageData = w->tile;
    return w->tile != nullptr;
}

void releaseTile(Working* w) {
    if (w->tile == nullptr) return;
    KuvTileInfo* info = w->image->tileInfo;
    info->tileData = w->tile;   // the procedure finds the tile it is handed back
    info->callBack(w->image, w->col, w->row, KUV_TILE_RELEASE);
    w->tile = nullptr;
}

struct ReleaseGuard {
    Working* w;   // null: the tile stays held
    ~ReleaseGuard() {
        if (w != nullptr) releaseTile(w);
    }
};

// Height (or width) of piece `index` of `count` along one axis of the grid.
inline int32_t pieceExtent(int32_t index, int32_t count, int32_t offset, int32_t tile,
                           int32_t total) {
    if (count == 1) return total;
    if (index == 0) return tile - offset;
    if (index == count - 1) return (offset + total - 1) % tile + 1;
    return tile;
}

// Turns a source's working copy into a window of the source at (x, y).
bool takeWindow(Working* s, WindowHolder* holder, int32_t x, int32_t y, int32_t width,
                int32_t height) {
    int32_t step = 0;
    holder->window = ownCopyWindow(s->image, x, y, width, height, &step);
    if (holder->window == nullptr) return false;
    s->work.imageData = holder->window;
    s->work.widthStep = step;
    s->work.width = width;
    s->work.height = height;
    placeWorking(s, 0, 0, width, height);
    return true;
}

void copyImage(const KuvImage* src, KuvImage* dst);
void exchangeImages(KuvImage* src, KuvImage* dst);
void setImage(KuvImage* dst, int32_t value);

// The block walk of the family: the rectangle cut by the tile grid of the
// destination (or of the source when only it is tiled), each piece handed
// to a nested call on working headers. src is null for a fill.
template <Act A>
void blockWalk(const char* func, const KuvImage* src, KuvImage* dst, const KuvImage* mask,
               int32_t height, int32_t width, int32_t value) {
    Working s, d, m;
    if (src != nullptr) makeWorking(src, &s);
    makeWorking(dst, &d);
    if (mask != nullptr) {
        makeWorking(mask, &m);
        d.work.maskROI = &m.work;
    }
    const bool bothTiled = src != nullptr && s.tiled && d.tiled;
    Working& grid = d.tiled ? d : s;

    int32_t tx = 0, ty = 0, th = 0, tw = 0, c0 = 0, r0 = 0, nc = 0, nr = 0;
    ownTileGrid(grid.image, height, width, &tx, &ty, &th, &tw, &c0, &r0, &nc, &nr);

    // Both tiled in an exchange: the destination's part goes to the source
    // through a buffer of one tile.
    KuvImage buffer{};
    KuvROI bufferRoi{};
    TempPixels bufferPixels;
    if (A == Act::Exchange && bothTiled) {
        buffer = d.work;
        buffer.imageData = nullptr;
        buffer.imageDataOrigin = nullptr;
        buffer.maskROI = nullptr;
        buffer.roi = &bufferRoi;
        bufferRoi.coi = d.roi.coi;
        if (buffer.depth == KUV_DEPTH_32F) kuvAllocateImageFP(&buffer, 0, 0.0f);
        else kuvAllocateImage(&buffer, 0, 0);
        if (buffer.imageData == nullptr) {
            report(KUV_StsOutOfMemory, func, "Out of memory", __LINE__);
            return;
        }
        bufferPixels.image = &buffer;
    }

    int32_t dy = 0;
    for (int32_t j = 0; j < nr; ++j) {
        const int32_t ph = pieceExtent(j, nr, ty, th, height);
        int32_t dx = 0;
        for (int32_t i = 0; i < nc; ++i) {
            const int32_t pw = pieceExtent(i, nc, tx, tw, width);
            // The grid's image is placed inside its tile, the others at their
            // region origin plus the distance walked.
            Working* images[3] = {src != nullptr ? &s : nullptr, &d,
                                   mask != nullptr ? &m : nullptr};
            for (Working* w : images) {
                if (w == nullptr) continue;
                if (w == &grid) placeWorking(w, i == 0 ? tx : 0, j == 0 ? ty : 0, pw, ph);
                else placeWorking(w, w->x0 + dx, w->y0 + dy, pw, ph);
            }
            const int32_t col = c0 + i, row = r0 + j;

            if constexpr (A == Act::Set) {
                if (!requestTile(&d, col, row, KUV_TILE_WRITE)) {
                    report(KUV_StsFailure, func, "Error get tile to write", __LINE__);
                    return;
                }
                ReleaseGuard hold{&d};
                setImage(&d.work, value);
            } else if (!bothTiled) {
                // One tiled image: a copy reads a tiled source; an exchange
                // writes whichever image is tiled.
                const bool write = A == Act::Exchange || &grid == &d;
                if (!requestTile(&grid, col, row, write ? KUV_TILE_WRITE : KUV_TILE_READ)) {
                    report(KUV_StsFailure, func,
                           write ? "Error get tile to write" : "Error get tile to read", __LINE__);
                    return;
                }
                ReleaseGuard hold{&grid};
                if constexpr (A == Act::Copy) copyImage(&s.work, &d.work);
                else exchangeImages(&s.work, &d.work);
            } else {
                WindowHolder window;   // freed after the tile is released
                if (!requestTile(&d, col, row, KUV_TILE_WRITE)) {
                    report(KUV_StsFailure, func, "Error get tile to write", __LINE__);
                    return;
                }
                ReleaseGuard hold{&d};
                const int32_t sx = s.x0 + dx, sy = s.y0 + dy;
                // A window that cannot be had ends the walk with the
                // destination's tile still held. A fault of an earlier piece
                // is reported again; the nested copy then writes nothing, but
                // the walk goes on so that every tile is still requested and
                // released.
                if (!takeWindow(&s, &window, sx, sy, pw, ph)) {
                    hold.w = nullptr;
                    report(KUV_StsBacktrace, func, "", __LINE__);
                    return;
                }
                if (failed()) report(KUV_StsBacktrace, func, "", __LINE__);
                if constexpr (A == Act::Copy) {
                    copyImage(&s.work, &d.work);
                } else {
                    bufferRoi.width = pw;
                    bufferRoi.height = ph;
                    copyImage(&d.work, &buffer);
                    copyImage(&s.work, &d.work);
                    window.release();
                    releaseTile(&d);
                    // The buffer goes to the source through the tile logic of
                    // a copy, with the piece as the source's region and the
                    // mask anchored at the piece.
                    KuvImage* source = const_cast<KuvImage*>(src);
                    KuvROI pieceRoi{s.roi.coi, sx, sy, pw, ph};
                    FieldSwap<KuvROI*> roiSwap(&source->roi, &pieceRoi);
                    FieldSwap<KuvImage*> maskSwap(&source->maskROI,
                                                  mask != nullptr ? &m.work : nullptr);
                    copyImage(&buffer, source);
                }
            }
            dx += pw;
        }
        dy += ph;
    }
}

// ------------------------------------------------------------- the frame

// What the shared opening of kuvCopy and kuvExchange leaves.
struct Frame {
    const KuvImage* mask = nullptr;
    TempImage merged;
    int32_t height = 0, width = 0;
};

// The steps that kuvCopy and kuvExchange share up to the common rectangle.
// False ends the call: a refusal was reported, or there is nothing to do.
bool openFrame(const char* func, const KuvImage* src, const KuvImage* dst, Frame* f) {
    if (kuvCheckImageHeader(src) != KUV_StsNoError) {
        report(kuvGetErrStatus(), func, "Incorrect Image", __LINE__);
        return false;
    }
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        report(kuvGetErrStatus(), func, "Incorrect Image", __LINE__);
        return false;
    }
    // These three report and go on; the status test after them ends the call.
    if (src->depth != dst->depth) {
        report(KUV_StsBadArgument, func, "srcImage->depth != dstImage->depth", __LINE__);
    }
    if (src->origin != dst->origin) {
        report(KUV_StsBadArgument, func, "srcImage->origin != dstImage->origin", __LINE__);
    }
    if (src->depth != KUV_DEPTH_1U && !(src->nChannels == 1 && dst->nChannels == 1) &&
        src->dataOrder != dst->dataOrder) {
        report(KUV_StsBadArgument, func, "srcImage->dataOrder != dstImage->dataOrder", __LINE__);
    }
    // A negative status left from before stops the call in the same way.
    if (failed()) return false;
    if (src == dst) return false;

    KuvImage* srcMask = src->maskROI;
    KuvImage* dstMask = dst->maskROI;
    f->mask = dstMask != nullptr ? dstMask : srcMask;
    if (srcMask != nullptr && dstMask != nullptr && srcMask != dstMask) {
        int32_t mh = 0, mw = 0;
        if (!ownCommonExtent(srcMask, dstMask, nullptr, &mh, &mw, true)) return false;
        KuvImage* t = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, kGray, kSeqGBlank,
                                           KUV_DATA_ORDER_PLANE, srcMask->origin, 4, mw, mh,
                                           nullptr, nullptr, 0, nullptr);
        f->merged.image = t;
        // Cleared, so that a failed AND which the handler lets pass masks
        // everything off instead of leaving stray bits.
        if (t != nullptr) kuvAllocateImage(t, 1, 0);
        if (t != nullptr && t->imageData != nullptr) kuvAnd(srcMask, dstMask, t);
        if (failed() && report(KUV_StsBacktrace, func, "", __LINE__) != 0) return false;
        if (t == nullptr || t->imageData == nullptr) {
            report(KUV_StsOutOfMemory, func, "Out of memory", __LINE__);
            return false;
        }
        f->mask = t;
    }
    return ownCommonExtent(src, dst, f->mask, &f->height, &f->width, true);
}

// dst = (dst AND NOT mask) OR (src AND mask), of whole operations on a
// temporary t that holds the mask's region.
void composeMaskedBits(const KuvImage* src, KuvImage* dst, const Frame& f) {
    constexpr const char* func = "kuvCopy";
    KuvImage* mask = const_cast<KuvImage*>(f.mask);
    TempImage t;
    t.image = kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, kGray, kSeqG, mask->dataOrder,
                                   mask->origin, mask->align, f.width, f.height, nullptr, nullptr,
                                   0, nullptr);
    // Cleared, padding included: the flat path of the final kuvOr may OR t's
    // row padding into the destination's, which must stay as it was.
    if (t.image != nullptr) kuvAllocateImage(t.image, 1, 0);
    if (t.image == nullptr || t.image->imageData == nullptr) {
        if (!failed()) report(KUV_StsOutOfMemory, func, "Out of memory", __LINE__);
        else report(KUV_StsBacktrace, func, "", __LINE__);
        return;
    }
    {
        FieldSwap<KuvImage*> aside(&mask->maskROI, nullptr);
        copyImage(mask, t.image);
    }
    {
        FieldSwap<KuvImage*> dstMask(&dst->maskROI, t.image);
        kuvSet(dst, 0);
    }
    {
        FieldSwap<KuvImage*> srcMask(&const_cast<KuvImage*>(src)->maskROI, nullptr);
        kuvAnd(src, t.image, t.image);
    }
    {
        // t holds only bits under the mask: the OR needs no mask of its own,
        // which spares it merging t with itself.
        FieldSwap<KuvImage*> dstMask(&dst->maskROI, nullptr);
        kuvOr(dst, t.image, dst);
    }
    if (failed()) report(KUV_StsBacktrace, func, "", __LINE__);
}

void copyImage(const KuvImage* src, KuvImage* dst) {
    constexpr const char* func = "kuvCopy";
    Frame f;
    if (!openFrame(func, src, dst, &f)) return;
    if (src->depth == KUV_DEPTH_1U && f.mask != nullptr) return composeMaskedBits(src, dst, f);
    if (src->tileInfo != nullptr || dst->tileInfo != nullptr) {
        return blockWalk<Act::Copy>(func, src, dst, f.mask, f.height, f.width, 0);
    }
    Walk w;
    if (!setUpWalk(func, src, dst, f.mask, f.height, f.width, &w)) return;
    runWalk<Act::Copy>(w, 0);
}

void exchangeImages(KuvImage* src, KuvImage* dst) {
    constexpr const char* func = "kuvExchange";
    Frame f;
    if (!openFrame(func, src, dst, &f)) return;
    if (src->tileInfo != nullptr || dst->tileInfo != nullptr) {
        return blockWalk<Act::Exchange>(func, src, dst, f.mask, f.height, f.width, 0);
    }
    Walk w;
    if (!setUpWalk(func, src, dst, f.mask, f.height, f.width, &w)) return;
    runWalk<Act::Exchange>(w, 0);
}

int32_t limitFill(uint32_t depth, int32_t value) {
    int32_t low = INT32_MIN, high = INT32_MAX;
    switch (depth) {
        case KUV_DEPTH_1U: low = 0; high = 1; break;
        case KUV_DEPTH_8U: low = 0; high = 255; break;
        case KUV_DEPTH_8S: low = -128; high = 127; break;
        case KUV_DEPTH_16U: low = 0; high = 65535; break;
        case KUV_DEPTH_16S: low = -32768; high = 32767; break;
        default: break;
    }
    return std::clamp(value, low, high);
}

void setImage(KuvImage* dst, int32_t value) {
    constexpr const char* func = "kuvSet";
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        report(kuvGetErrStatus(), func, "Incorrect Image", __LINE__);
        return;
    }
    if (dst->depth == KUV_DEPTH_32F) {
        report(KUV_StsBadDepth, func, "You should use kuvSetFP for this image", __LINE__);
        return;
    }
    value = limitFill(dst->depth, value);
    KuvImage* mask = dst->maskROI;
    int32_t height = 0, width = 0;
    if (!ownCommonExtent(dst, mask, nullptr, &height, &width, true)) return;

    if (dst->depth == KUV_DEPTH_1U && mask != nullptr) {
        {
            // Set where the mask is set; clear through the inverted mask,
            // which is inverted back in its own memory.
            FieldSwap<KuvImage*> aside(&dst->maskROI, nullptr);
            if (value != 0) {
                kuvOr(dst, mask, dst);
            } else {
                kuvXorS(mask, mask, 1);
                kuvAnd(dst, mask, dst);
                kuvXorS(mask, mask, 1);
            }
        }
        if (failed()) report(KUV_StsBacktrace, func, "", __LINE__);
        return;
    }
    if (dst->tileInfo != nullptr) {
        return blockWalk<Act::Set>(func, nullptr, dst, mask, height, width, value);
    }
    Walk w;
    if (!setUpWalk(func, nullptr, dst, mask, height, width, &w)) return;
    runWalk<Act::Set>(w, value);
}

}  // namespace
}  // namespace kuv

extern "C" {

KUV_API void kuvCopy(const KuvImage* srcImage, KuvImage* dstImage) {
    kuv::copyImage(srcImage, dstImage);
}

KUV_API void kuvExchange(KuvImage* srcImage, KuvImage* dstImage) {
    kuv::exchangeImages(srcImage, dstImage);
}

KUV_API void kuvSet(KuvImage* dstImage, int32_t fillValue) { kuv::setImage(dstImage, fillValue); }

KUV_API void kuvSetFP(KuvImage* dstImage, float fillValue) {
    constexpr const char* func = "kuvSetFP";
    if (dstImage == nullptr) {
        kuv::report(KUV_StsBadArgument, func, "dstImage==0", __LINE__);
        return;
    }
    if (dstImage->depth != KUV_DEPTH_32F) {
        kuv::report(KUV_StsBadDepth, func, "You should use kuvSet for this image", __LINE__);
        return;
    }
    int32_t bits = 0;
    std::memcpy(&bits, &fillValue, sizeof bits);
    {
        // The fill moves the float's bits as a 32-bit integer; a tile
        // procedure called meanwhile sees KUV_DEPTH_32S.
        kuv::FieldSwap<uint32_t> depth(&dstImage->depth, KUV_DEPTH_32S);
        kuv::setImage(dstImage, bits);
    }
    if (kuv::failed()) kuv::report(KUV_StsBacktrace, func, "", __LINE__);
}

}  // extern "C"
