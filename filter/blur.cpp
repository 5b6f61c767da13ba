// kuvBlur: the mean of an nCols by nRows neighbourhood, by running sums.
//
// Each channel keeps one row of column sums over the window (32-bit integers
// for 1U to 16S, floats for 32S and 32F) and a running sum along the output
// row, so a sample costs the same at every window size. The window comes from
// ownCopyWindow, one column and one row wider than the neighbourhoods need,
// and is where the source's border settings come in.
//
// Integer sums are exact modulo 2^32, so the running sum along a row may be
// taken as differences of a prefix sum, which the AVX2 path does eight
// samples at a time; 32S and 32F follow the running updates one by one, as
// their sums are rounded and drift. The mean s * f is taken in double
// precision with f a 32-bit float, and rounded to nearest with ties to even.

#include "kuv_own.h"
#include "core/platform.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_BLUR_HAVE_AVX2 1
#include <immintrin.h>
#endif

namespace {

constexpr const char* kFunc = "kuvBlur";
constexpr const char* kFile = "kuvBlur";
constexpr char kGray[4] = {'G', 'R', 'A', 'Y'};
constexpr char kSeqG[4] = {'G', '\0', '\0', '\0'};

using Block = OwnBlock<char>;
using TempImage = OwnTempImage;

inline void report(KuvStatus status, const char* context, int line) {
    kuvError(status, kFunc, context, kFile, line);
}

inline bool bitAt(const uint8_t* row, int64_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

inline void putBit(uint8_t* row, int64_t i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

// ------------------------------------------------------------------ views

// Pixels in plain memory: the first pixel of a block in a window, an image or
// a tile. Bit images address bit `bit` of each row on.
struct View {
    char* data;
    ptrdiff_t step, planeBytes;
    int64_t bit;
    int samples;   // samples per pixel along a row
    bool planes;
};

View viewOf(const KuvImage* image, char* base, ptrdiff_t step, int64_t rows, int64_t x,
            int64_t y) {
    const bool planes = image->dataOrder == KUV_DATA_ORDER_PLANE;
    const int samples = planes ? 1 : image->nChannels;
    const int bits = ownDepthBits(image->depth);
    View v{base + y * step, step, static_cast<ptrdiff_t>(step * rows), 0, samples, planes};
    if (bits == 1) v.bit = x;
    else v.data += x * samples * (bits / 8);
    return v;
}

// ------------------------------------------------------------------ worker

struct Job {
    int depth;
    int64_t nCols, nRows;
    int srcFirst, dstFirst, channels;
    const uint8_t* mask;       // rectangle-sized temporary, or null
    ptrdiff_t maskStep;
    void* sums;                // column sums, block width + nCols entries
    uint32_t* rowSums;         // block width entries
};

template <int D> struct Sample { using type = uint8_t; };
template <> struct Sample<OWN_8S> { using type = int8_t; };
template <> struct Sample<OWN_16U> { using type = uint16_t; };
template <> struct Sample<OWN_16S> { using type = int16_t; };
template <> struct Sample<OWN_32S> { using type = int32_t; };
template <> struct Sample<OWN_32F> { using type = float; };

// Rounding to the nearest integer, ties to even, in the current rounding mode
// (the worker sets it to nearest): exact below 2^51 in magnitude.
[[gnu::always_inline]] inline double roundNearest(double v) {
    constexpr double magic = 6755399441055744.0;   // 1.5 * 2^52
    return (v + magic) - magic;
}

[[gnu::always_inline]] inline float roundNearest(float v) {
    constexpr float magic = 12582912.0f;   // 1.5 * 2^23
    return (v + magic) - magic;
}

// Whether the mean of 8-bit sums may be taken in single precision. With N =
// nCols * nRows odd, s / N lies at least 1 / (2N) from any half-integer,
// while s * f (f rounded to float) and its rounding to float lie within
// 255 * 2^-24 + 2^-17 < 2^-15 of s / N; for N up to 2^14 both round to the
// integer nearest s / N, as the double product does.
inline bool singleMean(int elementBytes, int64_t count) {
    return elementBytes == 1 && count % 2 == 1 && count <= 16384;
}

// A 32S result; what no 32-bit integer holds gives the integer indefinite.
inline int32_t toInt32(double v) {
    const double r = roundNearest(v);
    return r >= -2147483648.0 && r < 2147483648.0 ? static_cast<int32_t>(r) : INT32_MIN;
}

// s[x] = c[x] + ... + c[x + n - 1] for x below width, as the running sum
// s[x + 1] = s[x] + c[x + n] - c[x], modulo 2^32.
void rowSumsScalar(const uint32_t* c, uint32_t* s, int64_t width, int64_t n) {
    uint32_t run = 0;
    for (int64_t i = 0; i < n; ++i) run += c[i];
    s[0] = run;
    for (int64_t x = 1; x < width; ++x) {
        run += c[x + n - 1] - c[x - 1];
        s[x] = run;
    }
}

#ifdef KUV_BLUR_HAVE_AVX2
// The same eight at a time: the differences c[x + n - 1] - c[x - 1] scanned
// within the vector, plus the sum before them. That sum grows by each
// vector's total, which is found apart from it, so the loop carries one
// addition from vector to vector.
__attribute__((target("avx2"))) void rowSumsAvx2(const uint32_t* c, uint32_t* s, int64_t width,
                                                 int64_t n) {
    uint32_t run = 0;
    for (int64_t i = 0; i < n; ++i) run += c[i];
    s[0] = run;
    __m256i carry = _mm256_set1_epi32(static_cast<int32_t>(run));
    const __m256i last = _mm256_set1_epi32(7);
    int64_t x = 1;
    for (; x + 8 <= width; x += 8) {
        const auto* p = reinterpret_cast<const __m256i*>(c + x + n - 1);
        const auto* q = reinterpret_cast<const __m256i*>(c + x - 1);
        __m256i d = _mm256_sub_epi32(_mm256_loadu_si256(p), _mm256_loadu_si256(q));
        d = _mm256_add_epi32(d, _mm256_slli_si256(d, 4));
        d = _mm256_add_epi32(d, _mm256_slli_si256(d, 8));
        const __m256i low = _mm256_permute2x128_si256(d, d, 0x08);   // [0, lane 0]
        d = _mm256_add_epi32(d, _mm256_shuffle_epi32(low, 0xFF));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(s + x), _mm256_add_epi32(d, carry));
        carry = _mm256_add_epi32(carry, _mm256_permutevar8x32_epi32(d, last));
    }
    run = s[x - 1];
    for (; x < width; ++x) {
        run += c[x + n - 1] - c[x - 1];
        s[x] = run;
    }
}
#endif

// Block (bx, by) of bw by bh outputs of the rectangle, from a window view
// whose first pixel is the block's neighbourhood's first, into a
// destination view at the block's first output. Vector selects the AVX2
// row sums; Unit says that both lanes are contiguous.
template <int D, bool Unit, bool Vector>
[[gnu::always_inline]] inline void blurBody(const Job& j, const View& w, const View& d,
                                            int64_t bx, int64_t by, int64_t bw, int64_t bh) {
    using T = typename Sample<D>::type;
    constexpr bool integer = D != OWN_32S && D != OWN_32F;
    const OwnRoundNearest nearest;
    const int64_t n = j.nCols, m = j.nRows, cols = bw + n;
    const double f = 1.0f / static_cast<float>(n * m);
    const bool single = singleMean(sizeof(T), n * m);
    for (int k = 0; k < j.channels; ++k) {
        const int sc = j.srcFirst + k, dc = j.dstFirst + k;
        const char* wc = w.data + (w.planes ? sc * w.planeBytes : sc * ptrdiff_t{sizeof(T)});
        char* dcol = d.data + (d.planes ? dc * d.planeBytes : dc * ptrdiff_t{sizeof(T)});
        const ptrdiff_t ws = Unit ? 1 : w.samples, ds = Unit ? 1 : d.samples;
        auto row = [&](int64_t r) { return reinterpret_cast<const T*>(wc + r * w.step); };
        auto bits = [&](int64_t r) { return reinterpret_cast<const uint8_t*>(wc + r * w.step); };
        const uint8_t* maskRow = nullptr;
        if constexpr (integer) {
            uint32_t* c = static_cast<uint32_t*>(j.sums);
            auto sample = [&](int64_t r, int64_t i) -> uint32_t {
                if constexpr (D == OWN_1U) return bitAt(bits(r), w.bit + i);
                else return static_cast<uint32_t>(static_cast<int32_t>(row(r)[i * ws]));
            };
            for (int64_t i = 0; i < cols; ++i) c[i] = 0;
            for (int64_t r = 0; r < m; ++r) {
                for (int64_t i = 0; i < cols; ++i) c[i] += sample(r, i);
            }
            for (int64_t y = 0; y < bh; ++y) {
                uint32_t* s = j.rowSums;
#ifdef KUV_BLUR_HAVE_AVX2
                if constexpr (Vector) rowSumsAvx2(c, s, bw, n);
                else rowSumsScalar(c, s, bw, n);
#else
                rowSumsScalar(c, s, bw, n);
#endif
                if (j.mask != nullptr) maskRow = j.mask + (by + y) * j.maskStep;
                char* out = dcol + y * d.step;
                if constexpr (D == OWN_1U) {
                    auto* o = reinterpret_cast<uint8_t*>(out);
                    for (int64_t x = 0; x < bw; ++x) {
                        if (maskRow != nullptr && !bitAt(maskRow, bx + x)) continue;
                        putBit(o, d.bit + x, static_cast<int32_t>(s[x]) * f >= 0.5);
                    }
                } else {
                    T* o = reinterpret_cast<T*>(out);
                    auto mean = [&](int64_t x) {
                        return static_cast<T>(static_cast<int32_t>(
                            roundNearest(static_cast<int32_t>(s[x]) * f)));
                    };
                    if (maskRow == nullptr && single) {
                        const float ff = static_cast<float>(f);
                        for (int64_t x = 0; x < bw; ++x) {
                            const float v = static_cast<float>(static_cast<int32_t>(s[x])) * ff;
                            o[x * ds] = static_cast<T>(static_cast<int32_t>(roundNearest(v)));
                        }
                    } else if (maskRow == nullptr) {
                        for (int64_t x = 0; x < bw; ++x) o[x * ds] = mean(x);
                    } else {
                        for (int64_t x = 0; x < bw; ++x) {
                            if (bitAt(maskRow, bx + x)) o[x * ds] = mean(x);
                        }
                    }
                }
                if (y + 1 == bh) break;   // the window's extra row is never needed
                if constexpr (D == OWN_1U) {
                    for (int64_t i = 0; i < cols; ++i) c[i] += sample(y + m, i) - sample(y, i);
                } else {
                    const T* in = row(y + m);
                    const T* off = row(y);
                    for (int64_t i = 0; i < cols; ++i) {
                        c[i] += static_cast<uint32_t>(static_cast<int32_t>(in[i * ws])) -
                                static_cast<uint32_t>(static_cast<int32_t>(off[i * ws]));
                    }
                }
            }
        } else {
            // Single-precision column sums; the row sum stays in double.
            float* c = static_cast<float*>(j.sums);
            auto sample = [&](int64_t r, int64_t i) { return static_cast<double>(row(r)[i * ws]); };
            for (int64_t i = 0; i < cols; ++i) c[i] = 0.0f;
            for (int64_t r = 0; r < m; ++r) {
                for (int64_t i = 0; i < cols; ++i) c[i] = static_cast<float>(c[i] + sample(r, i));
            }
            for (int64_t y = 0; y < bh; ++y) {
                if (j.mask != nullptr) maskRow = j.mask + (by + y) * j.maskStep;
                T* o = reinterpret_cast<T*>(dcol + y * d.step);
                double s = 0.0;
                for (int64_t i = 0; i < n; ++i) s += c[i];
                for (int64_t x = 0; x < bw; ++x) {
                    if (maskRow == nullptr || bitAt(maskRow, bx + x)) {
                        const double v = s * f;
                        if constexpr (D == OWN_32S) o[x * ds] = toInt32(v);
                        else o[x * ds] = static_cast<float>(v);
                    }
                    s = s + c[x + n] - c[x];
                }
                if (y + 1 == bh) break;
                for (int64_t i = 0; i < cols; ++i) {
                    c[i] = static_cast<float>(c[i] + sample(y + m, i) - sample(y, i));
                }
            }
        }
    }
}

using Worker = void (*)(const Job&, const View&, const View&, int64_t, int64_t, int64_t,
                        int64_t);

template <int D, bool Unit>
void blurPortable(const Job& j, const View& w, const View& d, int64_t bx, int64_t by,
                  int64_t bw, int64_t bh) {
    blurBody<D, Unit, false>(j, w, d, bx, by, bw, bh);
}

#ifdef KUV_BLUR_HAVE_AVX2
template <int D, bool Unit>
__attribute__((target("avx2"))) void blurAvx2(const Job& j, const View& w, const View& d,
                                              int64_t bx, int64_t by, int64_t bw, int64_t bh) {
    blurBody<D, Unit, true>(j, w, d, bx, by, bw, bh);
}
#endif

// [depth][contiguous lanes]: 1U has no lanes to speak of.
struct WorkerRow {
    Worker strided, unit;
};

constexpr WorkerRow kPortable[OWN_DEPTH_COUNT] = {
    {blurPortable<OWN_1U, false>, blurPortable<OWN_1U, false>},
    {blurPortable<OWN_8U, false>, blurPortable<OWN_8U, true>},
    {blurPortable<OWN_8S, false>, blurPortable<OWN_8S, true>},
    {blurPortable<OWN_16U, false>, blurPortable<OWN_16U, true>},
    {blurPortable<OWN_16S, false>, blurPortable<OWN_16S, true>},
    {blurPortable<OWN_32S, false>, blurPortable<OWN_32S, true>},
    {blurPortable<OWN_32F, false>, blurPortable<OWN_32F, true>},
};
#ifdef KUV_BLUR_HAVE_AVX2
constexpr WorkerRow kVector[OWN_DEPTH_COUNT] = {
    {blurAvx2<OWN_1U, false>, blurAvx2<OWN_1U, false>},
    {blurAvx2<OWN_8U, false>, blurAvx2<OWN_8U, true>},
    {blurAvx2<OWN_8S, false>, blurAvx2<OWN_8S, true>},
    {blurAvx2<OWN_16U, false>, blurAvx2<OWN_16U, true>},
    {blurAvx2<OWN_16S, false>, blurAvx2<OWN_16S, true>},
    {blurAvx2<OWN_32S, false>, blurAvx2<OWN_32S, true>},
    {blurAvx2<OWN_32F, false>, blurAvx2<OWN_32F, true>},
};
#endif

bool vectorPath() {
#ifdef KUV_BLUR_HAVE_AVX2
    return (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0;
#else
    return false;
#endif
}

Worker workerFor(int depth, bool unit) {
#ifdef KUV_BLUR_HAVE_AVX2
    if (vectorPath()) return unit ? kVector[depth].unit : kVector[depth].strided;
#endif
    return unit ? kPortable[depth].unit : kPortable[depth].strided;
}

// ------------------------------------------------------------------ driver

// ownBlurGeometry: region and channels (1-based, first to last) of an image.
struct Geometry {
    int64_t x, y, width, height;
    int first, last;
};

bool blurGeometry(const KuvImage* image, Geometry* g) {
    const KuvROI* roi = image->roi;
    if (roi != nullptr) {
        g->x = roi->xOffset;
        g->y = roi->yOffset;
        g->width = std::min<int64_t>(roi->width, int64_t{image->width} - roi->xOffset);
        g->height = std::min<int64_t>(roi->height, int64_t{image->height} - roi->yOffset);
        if (roi->coi != 0) {
            g->first = g->last = roi->coi;
            return true;
        }
    } else {
        *g = Geometry{0, 0, image->width, image->height, 0, 0};
    }
    g->first = 1;
    g->last = image->nChannels;
    if (image->alphaChannel != 0) {
        if (image->alphaChannel != image->nChannels) return false;
        if (--g->last == 0) return false;
    }
    return true;
}

struct Call {
    const KuvImage* src;
    KuvImage* dst;
    Job job;
    Worker worker;
    int64_t sx, sy, dx, dy, width, height, anchorX, anchorY;
};

// The window of block (bx, by, bw, bh): its neighbourhood and one more column
// and row.
char* windowOf(const Call& c, int64_t bx, int64_t by, int64_t bw, int64_t bh, View* v) {
    const int64_t x = c.sx + bx - c.anchorX, y = c.sy + by - c.anchorY;
    const int64_t w = bw + c.job.nCols, h = bh + c.job.nRows;
    if (x < INT32_MIN || y < INT32_MIN || w > INT32_MAX || h > INT32_MAX) return nullptr;
    int32_t step = 0;
    char* window = ownCopyWindow(c.src, static_cast<int32_t>(x), static_cast<int32_t>(y),
                                 static_cast<int32_t>(w), static_cast<int32_t>(h), &step);
    if (window != nullptr) *v = viewOf(c.src, window, step, h, 0, 0);
    return window;
}

View dstInImage(const Call& c, int64_t bx, int64_t by) {
    const KuvImage* d = c.dst;
    return viewOf(d, d->imageData, d->widthStep, d->height, c.dx + bx, c.dy + by);
}

bool noWindow() {
    report(KUV_StsOutOfMemory, "Allocation failure", __LINE__);
    return false;
}

// A block from a window of its own into the untiled destination.
bool blockToImage(const Call& c, int64_t bx, int64_t by, int64_t bw, int64_t bh) {
    View w;
    Block window(windowOf(c, bx, by, bw, bh, &w));
    if (!window) return noWindow();
    c.worker(c.job, w, dstInImage(c, bx, by), bx, by, bw, bh);
    return true;
}

// The destination's tiles that the rectangle touches, each written from a
// window of its part, or from one window of the whole rectangle made before
// any tile is written (the in-place case: a window may reach, through a wrap
// or a reflection, any tile of the image).
bool walkDestinationTiles(const Call& c, const View* whole) {
    KuvImage* dst = c.dst;
    KuvTileInfo* tiles = dst->tileInfo;
    const int64_t tw = tiles->width, th = tiles->height;
    const int64_t x0 = c.dx, y0 = c.dy, x1 = c.dx + c.width, y1 = c.dy + c.height;
    const ptrdiff_t step = ownTileRowBytes(dst);
    return ownForEachTilePiece(x0, y0, x1, y1, tw, th, [&](const OwnTilePiece& p) {
        View w;
        Block window;
        if (whole != nullptr) {
            w = *whole;
            const int bits = ownDepthBits(c.src->depth);
            if (bits == 1) w.bit += p.dx;
            else w.data += p.dx * w.samples * (bits / 8);
            w.data += p.dy * w.step;
        } else {
            window.reset(windowOf(c, p.dx, p.dy, p.width, p.height, &w));
            if (!window) return noWindow();
        }
        tiles->callBack(dst, static_cast<int32_t>(p.col), static_cast<int32_t>(p.row),
                        KUV_TILE_WRITE);
        char* tile = tiles->tileData;
        if (tile == nullptr) {
            report(KUV_StsFailure, "Error get tile to write", __LINE__);
            return false;
        }
        c.worker(c.job, w, viewOf(dst, tile, step, th, p.x - p.col * tw, p.y - p.row * th), p.dx,
                 p.dy, p.width, p.height);
        tiles->tileData = tile;
        tiles->callBack(dst, static_cast<int32_t>(p.col), static_cast<int32_t>(p.row),
                        KUV_TILE_RELEASE);
        return true;
    });
}

bool run(const Call& c) {
    const KuvImage* src = c.src;
    KuvImage* dst = c.dst;
    if (dst->tileInfo == nullptr && src->tileInfo == nullptr) {
        return blockToImage(c, 0, 0, c.width, c.height);
    }
    if (dst->tileInfo == nullptr) {
        // Blocks of the source's tile size from the rectangle's start.
        const int64_t tw = src->tileInfo->width, th = src->tileInfo->height;
        for (int64_t by = 0; by < c.height; by += th) {
            for (int64_t bx = 0; bx < c.width; bx += tw) {
                if (!blockToImage(c, bx, by, std::min(tw, c.width - bx),
                                  std::min(th, c.height - by))) {
                    return false;
                }
            }
        }
        return true;
    }
    if (src != dst) return walkDestinationTiles(c, nullptr);
    View whole;
    Block window(windowOf(c, 0, 0, c.width, c.height, &whole));
    if (!window) return noWindow();
    return walkDestinationTiles(c, &whole);
}

// The temporary mask of the rectangle: one mask copied from its region, or
// the AND of two. The nested calls run on a clear status, which is put back
// when they succeed.
bool makeMask(const KuvImage* srcMask, const KuvImage* dstMask, int64_t width, int64_t height,
              TempImage* out) {
    const KuvImage* first = srcMask != nullptr ? srcMask : dstMask;
    out->reset(kuvCreateImageHeader(1, 0, KUV_DEPTH_1U, kGray, kSeqG, KUV_DATA_ORDER_PLANE,
                                    first->origin, 8, static_cast<int32_t>(width),
                                    static_cast<int32_t>(height), nullptr, nullptr, 0, nullptr));
    if (*out) kuvAllocateImage(out->get(), 0, 0);
    if (!*out || (*out)->imageData == nullptr) {
        report(KUV_StsOutOfMemory, "Allocation failure", __LINE__);
        return false;
    }
    const KuvStatus saved = kuvGetErrStatus();
    kuvSetErrStatus(KUV_StsNoError);
    if (srcMask != nullptr && dstMask != nullptr) kuvAnd(srcMask, dstMask, out->get());
    else kuvCopy(first, out->get());
    if (kuvGetErrStatus() < 0) {
        report(KUV_StsBacktrace, "", __LINE__);
        return false;
    }
    kuvSetErrStatus(saved);
    return true;
}

void blur(const KuvImage* src, KuvImage* dst, int32_t nCols, int32_t nRows, int32_t anchorX,
          int32_t anchorY) {
    if (kuvCheckImageHeader(src) != KUV_StsNoError) {
        return report(kuvGetErrStatus(), "Incorrect Image", __LINE__);
    }
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        return report(kuvGetErrStatus(), "Incorrect Image", __LINE__);
    }
    if (src->depth != dst->depth) {
        return report(KUV_StsBadArgument, "(srcImage->depth!=dstImage->depth)", __LINE__);
    }
    if (nRows < 0 || nCols < 0) return report(KUV_StsBadArgument, "(nRows<0||nCols<0)", __LINE__);
    if (anchorX < 0 || anchorY < 0) {
        return report(KUV_StsBadArgument, "(anchorX<0||anchorY<0)", __LINE__);
    }
    if (anchorX >= nCols || anchorY >= nRows) {
        return report(KUV_StsBadArgument, "(anchorX>=nCols||anchorY>=nRows)", __LINE__);
    }
    if (nCols == 1 && nRows == 1) {
        const KuvStatus before = kuvGetErrStatus();
        kuvCopy(src, dst);
        const KuvStatus after = kuvGetErrStatus();
        if (after < 0 && after != before) report(KUV_StsBacktrace, "", __LINE__);
        return;
    }
    Geometry gd, gs;
    if (!blurGeometry(dst, &gd) || !blurGeometry(src, &gs)) {
        return report(KUV_StsBadAlphaChannel, "bad alpha channel's number", __LINE__);
    }
    if (gs.last - gs.first != gd.last - gd.first) {
        return report(KUV_StsBadChannels, "bad channel's number", __LINE__);
    }
    Call c{};
    c.src = src;
    c.dst = dst;
    c.width = std::min(gs.width, gd.width);
    c.height = std::min(gs.height, gd.height);
    for (const KuvImage* mask : {src->maskROI, dst->maskROI}) {
        if (mask == nullptr) continue;
        Geometry gm;
        if (!blurGeometry(mask, &gm)) {
            return report(KUV_StsBadAlphaChannel, "bad alpha channel's number", __LINE__);
        }
        c.width = std::min(c.width, gm.width);
        c.height = std::min(c.height, gm.height);
    }
    if (c.width < 1 || c.height < 1) return;
    c.sx = gs.x;
    c.sy = gs.y;
    c.dx = gd.x;
    c.dy = gd.y;
    c.anchorX = anchorX;
    c.anchorY = anchorY;

    TempImage mask;
    if (src->maskROI != nullptr || dst->maskROI != nullptr) {
        if (!makeMask(src->maskROI, dst->maskROI, c.width, c.height, &mask)) return;
        c.job.mask = reinterpret_cast<const uint8_t*>(mask->imageData);
        c.job.maskStep = mask->widthStep;
    }

    Job& j = c.job;
    j.depth = ownDepthIndex(src->depth);
    j.nCols = nCols;
    j.nRows = nRows;
    j.srcFirst = gs.first - 1;
    j.dstFirst = gd.first - 1;
    j.channels = gs.last - gs.first + 1;
    // Column sums and row sums for the widest block.
    int64_t widest = c.width;
    if (dst->tileInfo != nullptr) widest = std::min<int64_t>(widest, dst->tileInfo->width);
    else if (src->tileInfo != nullptr) widest = std::min<int64_t>(widest, src->tileInfo->width);
    Block sums = ownAllocBlock((widest + nCols) * 4), rowSums = ownAllocBlock(widest * 4);
    if (!sums || !rowSums) return report(KUV_StsOutOfMemory, "Allocation failure", __LINE__);
    j.sums = sums.get();
    j.rowSums = reinterpret_cast<uint32_t*>(rowSums.get());
    const bool unit = (src->dataOrder == KUV_DATA_ORDER_PLANE || src->nChannels == 1) &&
                      (dst->dataOrder == KUV_DATA_ORDER_PLANE || dst->nChannels == 1);
    c.worker = workerFor(j.depth, unit);
    run(c);
}

}  // namespace

extern "C" KUV_API void kuvBlur(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                                int32_t nRows, int32_t anchorX, int32_t anchorY) {
    blur(srcImage, dstImage, nCols, nRows, anchorX, anchorY);
}
