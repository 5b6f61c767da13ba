// kuvBitonalToGray: two values for the two bits of a 1-bit image.
// kuvMinMaxFP: the smallest and the largest element of a float image.
#include "depth/rows.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace kuv::depth {
namespace {

// ------------------------------------------------------------ bitonal

struct BitValues {
    int32_t zero, one;
};

template <class D>
[[gnu::always_inline]] inline D valueOf(unsigned bit, D zero, D flip) {
    return static_cast<D>(zero ^ (flip & static_cast<D>(-static_cast<D>(bit))));
}

// Whole source bytes eight values at a time (pieces start on a byte), then
// the rest bit by bit.
template <class D>
[[gnu::always_inline]] inline void bitonalRun(const uint8_t* __restrict bits, int32_t offset,
                                              D* __restrict out, ptrdiff_t step, int32_t width,
                                              D zero, D flip) {
    int32_t x = 0;
    if (offset == 0) {
        for (; x + 8 <= width; x += 8) {
            const unsigned byte = bits[x >> 3];
            for (int k = 0; k < 8; ++k) {
                out[(x + k) * step] = valueOf((byte >> (7 - k)) & 1u, zero, flip);
            }
        }
    }
    for (; x < width; ++x) {
        const int32_t i = offset + x;
        out[x * step] = valueOf((bits[i >> 3] >> (7 - (i & 7))) & 1u, zero, flip);
    }
}

// Bits from the most significant on; the value goes into every planned
// channel, stored in the destination's width.
template <class D>
void bitonalWorker(const Job& job) {
    const auto* values = static_cast<const BitValues*>(job.param);
    const D zero = static_cast<D>(values->zero);
    const D flip = static_cast<D>(zero ^ static_cast<D>(values->one));
    const Side s = job.src, d = job.dst;
    const int32_t width = job.width, nCh = job.nCh;
    const char* sRow = s.base;
    char* dRow = d.base;
    for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
        const uint8_t* bits = reinterpret_cast<const uint8_t*>(sRow);
        for (int32_t c = 0; c < nCh; ++c) {
            D* out = reinterpret_cast<D*>(dRow + c * d.chanStep);
            if (d.pixStep == 1) bitonalRun<D>(bits, s.bitOffset, out, 1, width, zero, flip);
            else bitonalRun<D>(bits, s.bitOffset, out, d.pixStep, width, zero, flip);
        }
    }
}

template <size_t... I>
constexpr std::array<PieceWorker, kIntDepths> bitonalTable(std::index_sequence<I...>) {
    return {&bitonalWorker<std::tuple_element_t<I, IntTypes>>...};
}

constexpr auto bitonalWorkers = bitonalTable(std::make_index_sequence<kIntDepths>{});

// The admitted values per destination depth, with the texts of the four
// tests: ZeroScale above, below, then OneScale above, below.
struct ValueRange {
    uint32_t depth;
    int32_t lo, hi;
    const char* texts[4];
};

constexpr ValueRange valueRanges[] = {
    {KUV_DEPTH_8S, -128, 127,
     {"((dstImage->depth == (0x80000000| 8)) && (ZeroScale > 127))",
      "((dstImage->depth == (0x80000000| 8)) && (ZeroScale < -128))",
      "((dstImage->depth == (0x80000000| 8)) && (OneScale > 127))",
      "((dstImage->depth == (0x80000000| 8)) && (OneScale < -128))"}},
    {KUV_DEPTH_8U, 0, 255,
     {"((dstImage->depth == 8) && (ZeroScale > 255))", "((dstImage->depth == 8) && (ZeroScale < 0))",
      "((dstImage->depth == 8) && (OneScale > 255))", "((dstImage->depth == 8) && (OneScale < 0))"}},
    {KUV_DEPTH_16S, -32768, 32767,
     {"((dstImage->depth == (0x80000000|16)) && (ZeroScale > 32767))",
      "((dstImage->depth == (0x80000000|16)) && (ZeroScale < -32768))",
      "((dstImage->depth == (0x80000000|16)) && (OneScale > 32767))",
      "((dstImage->depth == (0x80000000|16)) && (OneScale < -32768))"}},
    {KUV_DEPTH_16U, 0, 65535,
     {"((dstImage->depth == 16) && (ZeroScale > 65535))",
      "((dstImage->depth == 16) && (ZeroScale < 0))",
      "((dstImage->depth == 16) && (OneScale > 65535))",
      "((dstImage->depth == 16) && (OneScale < 0))"}},
};

constexpr Names bitonalNames{"kuvBitonalToGray", "kuvbitnl"};

// ------------------------------------------------------------ min-max

// Lanes of the scan: one SSE register for the baseline, one AVX register
// where AVX2 runs.
typedef float Lanes4 __attribute__((vector_size(16)));
typedef float Lanes8 __attribute__((vector_size(32)));

struct MinMaxState {
    bool any = false;   // some element that is not a NaN was met
    float min = 0.0f, max = 0.0f;
};

// x < m ? x : m is "below the minimum becomes the minimum", and passes a NaN
// by, lane by lane.
template <class Lanes>
[[gnu::always_inline]] inline void lanesOfRun(const float* p, ptrdiff_t n, Lanes& lo,
                                              Lanes& hi) {
    constexpr int kLanes = sizeof(Lanes) / sizeof(float);
    Lanes lo2 = lo, hi2 = hi;
    ptrdiff_t k = 0;
    for (; k + 2 * kLanes <= n; k += 2 * kLanes) {
        Lanes a, b;
        std::memcpy(&a, p + k, sizeof a);
        std::memcpy(&b, p + k + kLanes, sizeof b);
        lo = a < lo ? a : lo;
        hi = a > hi ? a : hi;
        lo2 = b < lo2 ? b : lo2;
        hi2 = b > hi2 ? b : hi2;
    }
    lo = lo2 < lo ? lo2 : lo;
    hi = hi2 > hi ? hi2 : hi;
    for (; k < n; ++k) {
        const float x = p[k];
        lo[0] = x < lo[0] ? x : lo[0];
        hi[0] = x > hi[0] ? x : hi[0];
    }
}

const float* elementAt(const Job& job, int32_t y, int32_t x, int32_t c) {
    return reinterpret_cast<const float*>(job.src.base + y * job.src.rowStep +
                                          c * job.src.chanStep) +
           x * job.src.pixStep;
}

// The first zero of the piece in walk order (rows, pixels, channels): which
// of +0 and -0 a scan in that order keeps.
float firstZero(const Job& job) {
    for (int32_t y = 0; y < job.height; ++y) {
        for (int32_t x = 0; x < job.width; ++x) {
            for (int32_t c = 0; c < job.nCh; ++c) {
                const float v = *elementAt(job, y, x, c);
                if (v == 0.0f) return v;
            }
        }
    }
    return 0.0f;
}

template <class Lanes>
[[gnu::always_inline]] inline void minMaxRows(const Job& job) {
    constexpr int kLanes = sizeof(Lanes) / sizeof(float);
    constexpr float inf = std::numeric_limits<float>::infinity();
    Lanes lo, hi;
    for (int k = 0; k < kLanes; ++k) {
        lo[k] = inf;
        hi[k] = -inf;
    }
    const Side& s = job.src;
    const bool packed = s.pixStep == job.nCh && s.chanStep == ptrdiff_t{sizeof(float)};
    for (int32_t y = 0; y < job.height; ++y) {
        if (packed) {
            lanesOfRun(elementAt(job, y, 0, 0), ptrdiff_t{job.width} * job.nCh, lo, hi);
            continue;
        }
        for (int32_t c = 0; c < job.nCh; ++c) {
            if (s.pixStep == 1) {
                lanesOfRun(elementAt(job, y, 0, c), job.width, lo, hi);
                continue;
            }
            const float* p = elementAt(job, y, 0, c);
            for (int32_t x = 0; x < job.width; ++x) {
                const float v = p[x * s.pixStep];
                lo[0] = v < lo[0] ? v : lo[0];
                hi[0] = v > hi[0] ? v : hi[0];
            }
        }
    }
    float pieceMin = lo[0], pieceMax = hi[0];
    for (int k = 1; k < kLanes; ++k) {
        pieceMin = lo[k] < pieceMin ? lo[k] : pieceMin;
        pieceMax = hi[k] > pieceMax ? hi[k] : pieceMax;
    }
    if (!(pieceMin <= pieceMax)) return;   // nothing but NaNs
    // Equal values differ only as +0 and -0: the scan keeps the first met.
    if (pieceMin == 0.0f || pieceMax == 0.0f) {
        const float zero = firstZero(job);
        if (pieceMin == 0.0f) pieceMin = zero;
        if (pieceMax == 0.0f) pieceMax = zero;
    }
    auto& state = *static_cast<MinMaxState*>(job.state);
    if (!state.any) {
        state = MinMaxState{true, pieceMin, pieceMax};
        return;
    }
    state.min = pieceMin < state.min ? pieceMin : state.min;
    state.max = pieceMax > state.max ? pieceMax : state.max;
}

void minMaxWorker(const Job& job) { minMaxRows<Lanes4>(job); }

#ifdef KUV_DEPTH_HAVE_VECTOR_WORKERS
__attribute__((target("avx2"))) void minMaxWorkerAvx2(const Job& job) { minMaxRows<Lanes8>(job); }
constexpr WorkerSet minMaxWorkers{{&minMaxWorker, &minMaxWorkerAvx2, nullptr}};
#else
constexpr WorkerSet minMaxWorkers{{&minMaxWorker, nullptr, nullptr}};
#endif

constexpr Names minMaxNames{"kuvMinMaxFP", "kuvmnmxf"};

}  // namespace
}  // namespace kuv::depth

extern "C" KUV_API void kuvBitonalToGray(const KuvImage* srcImage, KuvImage* dstImage,
                                         int32_t ZeroScale, int32_t OneScale) {
    using namespace kuv::depth;
    const Names& n = bitonalNames;
    if (badHeader(srcImage, n) || badHeader(dstImage, n)) return;
    if (refused(srcImage->height != dstImage->height, n,
                "(srcImage->height != dstImage->height)") ||
        refused(srcImage->width != dstImage->width, n, "(srcImage->width != dstImage->width)") ||
        refused(srcImage->nChannels != 1, n, "(srcImage->nChannels != 1)") ||
        refused(srcImage->depth != KUV_DEPTH_1U, n, "(srcImage->depth != 1)") ||
        refused(dstImage->depth == KUV_DEPTH_32F, n, "(dstImage->depth == 32)") ||
        refused(dstImage->depth == KUV_DEPTH_1U, n, "(dstImage->depth == 1)")) {
        return;
    }
    for (const ValueRange& range : valueRanges) {
        if (range.depth != dstImage->depth) continue;
        if (refused(ZeroScale > range.hi, n, range.texts[0]) ||
            refused(ZeroScale < range.lo, n, range.texts[1]) ||
            refused(OneScale > range.hi, n, range.texts[2]) ||
            refused(OneScale < range.lo, n, range.texts[3])) {
            return;
        }
    }
    Walk walk;
    walk.func = n.func;
    walk.file = n.file;
    walk.width = dstImage->width;
    walk.height = dstImage->height;
    // The destination leads; a source of the other origin is read upward.
    walk.dst = WalkImage{dstImage, 0, 0, 0, false};
    walk.src = WalkImage{srcImage, 0, 0, 0, srcImage->origin != dstImage->origin};
    walk.nCh = dstImage->nChannels - (dstImage->alphaChannel != 0 ? 1 : 0);
    if (walk.nCh < 1) return;   // the only channel is alpha: nothing to write
    const BitValues values{ZeroScale, OneScale};
    runWalk(walk, bitonalWorkers[intIndex(dstImage->depth)], &values, nullptr);
}

extern "C" KUV_API KuvStatus kuvMinMaxFP(const KuvImage* srcImage, float* min, float* max) {
    using namespace kuv::depth;
    const Names& n = minMaxNames;
    if (badHeader(srcImage, n) ||
        refused(min == nullptr || max == nullptr, n,
                "((min == ((void*)(0)))||(max == ((void*)(0))))") ||
        refused(srcImage->depth != KUV_DEPTH_32F, n, "(srcImage->depth != 32)")) {
        return KUV_StsBadArgument;
    }
    if (onlyAlpha(srcImage)) return KUV_StsNoError;
    OwnRect rect;
    ownGetROIRect(srcImage, &rect);
    if (rect.width < 1 || rect.height < 1) return KUV_StsNoError;
    const Plan plan = planOf(srcImage);
    Walk walk;
    walk.func = n.func;
    walk.file = n.file;
    walk.width = rect.width;
    walk.height = rect.height;
    walk.nCh = plan.count;
    walk.src = WalkImage{srcImage, rect.x, rect.y, plan.channel, false};
    MinMaxState state;
    if (!runWalk(walk, minMaxWorkers.pick(), nullptr, &state)) return KUV_StsOutOfMemory;
    // Only NaNs: no value to give but NaN.
    *min = state.any ? state.min : std::numeric_limits<float>::quiet_NaN();
    *max = state.any ? state.max : std::numeric_limits<float>::quiet_NaN();
    return KUV_StsNoError;
}
