// Image arithmetic beside addition: kuvSubtract, kuvMultiply, kuvSquare and
// kuvAbs. Every integer result is limited to the element's range.
#include "pixel/bitwork.h"
#include "pixel/saturate.h"
#include "pixel/walk.h"

namespace kuv {
namespace {

template <class E>
struct SubSat {
    using T = E;
    explicit SubSat(const void*) {}
    T operator()(T a, T b) const {
        using W = typename Wide<T>::type;
        return saturate<T>(static_cast<W>(a) - static_cast<W>(b));
    }
    KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const
        requires kSmallInt<E>
    {
        return subsVec<E>(a, b);
    }
};

// 32-bit products are exact in 64 bits; a product that fits 32 bits is
// exact in double precision too, so the limited results agree. 16-bit
// unsigned products are unsigned 32-bit products.
template <class E> struct Product { using type = typename Wide<E>::type; };
template <> struct Product<uint16_t> { using type = uint32_t; };

template <class E>
struct MulSat {
    using T = E;
    explicit MulSat(const void*) {}
    T operator()(T a, T b) const {
        using W = typename Product<T>::type;
        const W p = static_cast<W>(a) * static_cast<W>(b);
        if constexpr (std::is_same_v<W, uint32_t>) return static_cast<T>(p > 65535u ? 65535u : p);
        else return saturate<T>(p);
    }
    KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const
        requires kSmallInt<E>
    {
        return mulsVec<E>(a, b);
    }
};

template <class E>
struct SqrSat {
    using T = E;
    explicit SqrSat(const void*) {}
    T operator()(T x) const { return MulSat<E>(nullptr)(x, x); }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const
        requires kSmallInt<E>
    {
        return mulsVec<E>(x, x);
    }
};

// The most negative value has no magnitude in its type and gives the
// largest one; floats flip the sign of values below 0 only, so -0.0 and NaN
// keep their bits.
template <class E>
struct AbsSat {
    using T = E;
    explicit AbsSat(const void*) {}
    T operator()(T x) const {
        if constexpr (std::is_same_v<T, float>) {
            return x < 0.0f ? -x : x;
        } else {
            using W = typename Wide<T>::type;
            const W v = static_cast<W>(x);
            return saturate<T>(v < 0 ? -v : v);
        }
    }
    // The magnitude of the most negative value reads as its own bits, which
    // unsigned are one above the largest value.
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const
        requires std::is_integral_v<E>
    {
        if constexpr (sizeof(E) == 1) {
            return _mm256_min_epu8(_mm256_abs_epi8(x), _mm256_set1_epi8(127));
        } else if constexpr (sizeof(E) == 2) {
            return _mm256_min_epu16(_mm256_abs_epi16(x), _mm256_set1_epi16(32767));
        } else {
            return _mm256_min_epu32(_mm256_abs_epi32(x), _mm256_set1_epi32(0x7FFFFFFF));
        }
    }
};

constexpr WorkerPair subTable[OWN_DEPTH_COUNT] = {
    bitWorkers<OWN_BIT_AND_NOT>(),  workersOf<2, SubSat<uint8_t>>(),
    workersOf<2, SubSat<int8_t>>(), workersOf<2, SubSat<uint16_t>>(),
    workersOf<2, SubSat<int16_t>>(), workersOf<2, SubSat<int32_t>>(),
    workersOf<2, SubSat<float>>(),
};

constexpr WorkerPair mulTable[OWN_DEPTH_COUNT] = {
    {nullptr, nullptr},   // bit images are handed to kuvAnd first
    workersOf<2, MulSat<uint8_t>>(),  workersOf<2, MulSat<int8_t>>(),
    workersOf<2, MulSat<uint16_t>>(), workersOf<2, MulSat<int16_t>>(),
    workersOf<2, MulSat<int32_t>>(),  workersOf<2, MulSat<float>>(),
};

constexpr WorkerPair sqrTable[OWN_DEPTH_COUNT] = {
    bitWorkersS<OWN_BIT_COPY>(),     workersOf<1, SqrSat<uint8_t>>(),
    workersOf<1, SqrSat<int8_t>>(),  workersOf<1, SqrSat<uint16_t>>(),
    workersOf<1, SqrSat<int16_t>>(), workersOf<1, SqrSat<int32_t>>(),
    workersOf<1, SqrSat<float>>(),
};

constexpr WorkerPair absTable[OWN_DEPTH_COUNT] = {
    {nullptr, nullptr},              {nullptr, nullptr},
    workersOf<1, AbsSat<int8_t>>(),  {nullptr, nullptr},
    workersOf<1, AbsSat<int16_t>>(), workersOf<1, AbsSat<int32_t>>(),
    workersOf<1, AbsSat<float>>(),
};

constexpr PatternOp subOp = {.func = "kuvSubtract", .file = "kuvsub", .nSrc = 2,
                             .table = subTable, .orderTestAt1U = false};
constexpr PatternOp mulOp = {.func = "kuvMultiply", .file = "kuvmul", .nSrc = 2,
                             .table = mulTable};
constexpr PatternOp sqrOp = {.func = "kuvSquare", .file = "kuvsqr", .nSrc = 1,
                             .table = sqrTable, .orderTestAt1U = false};
constexpr PatternOp absOp = {.func = "kuvAbs", .file = "kuvabs", .nSrc = 1, .table = absTable,
                             .channels = CHANNELS_ABS, .flatPath = false, .checkRelease = true};

}  // namespace
}  // namespace kuv

extern "C" {

KUV_API void kuvSubtract(const KuvImage* srcImageA, const KuvImage* srcImageB,
                         KuvImage* dstImage) {
    kuv::runPattern(kuv::subOp, srcImageA, srcImageB, dstImage, nullptr);
}

KUV_API void kuvMultiply(const KuvImage* srcImageA, const KuvImage* srcImageB,
                         KuvImage* dstImage) {
    if (srcImageA == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvMultiply", "srcImageA==0", "kuvmul", __LINE__);
        return;
    }
    if (srcImageA->depth == KUV_DEPTH_1U) return kuvAnd(srcImageA, srcImageB, dstImage);
    kuv::runPattern(kuv::mulOp, srcImageA, srcImageB, dstImage, nullptr);
}

KUV_API void kuvSquare(const KuvImage* srcImage, KuvImage* dstImage) {
    // Bits square to themselves: the bit workers copy under a zero word.
    static const uint32_t zero = 0;
    kuv::runPattern(kuv::sqrOp, srcImage, nullptr, dstImage, &zero);
}

KUV_API void kuvAbs(const KuvImage* srcImage, KuvImage* dstImage) {
    if (srcImage == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvAbs", "srcImage==0", "kuvabs", __LINE__);
    }
    if (dstImage == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvAbs", "dstImage==0", "kuvabs", __LINE__);
    }
    // A fault above, or one left from an earlier call, stops the operation
    // silently.
    if (kuvGetErrStatus() < 0) return;
    if (dstImage->depth == KUV_DEPTH_1U || dstImage->depth == KUV_DEPTH_8U ||
        dstImage->depth == KUV_DEPTH_16U) {
        kuvCopy(srcImage, dstImage);
        if (kuvGetErrStatus() < 0) {
            kuvError(KUV_StsBacktrace, "kuvAbs", "kuvCopy is failed", "kuvabs", __LINE__);
        }
        return;
    }
    kuv::runPattern(kuv::absOp, srcImage, nullptr, dstImage, nullptr);
}

}  // extern "C"
