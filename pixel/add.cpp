// kuvAdd: saturating addition of two images.
#include "pixel/saturate.h"
#include "pixel/walk.h"

namespace kuv {
namespace {

// Sums are exact in the wide type: 32-bit integers meet in 64 bits, which
// gives the same limited result as the sum in double precision.
template <class E>
struct AddSat {
    using T = E;
    explicit AddSat(const void*) {}
    T operator()(T a, T b) const {
        using W = typename Wide<T>::type;
        return saturate<T>(static_cast<W>(a) + static_cast<W>(b));
    }
    KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const
        requires kSmallInt<E>
    {
        return addsVec<E>(a, b);
    }
};

// Unsigned bytes: a wrapped sum is below either operand; written this way the
// compiler keeps sixteen bytes to a vector instead of widening them.
template <>
struct AddSat<uint8_t> {
    using T = uint8_t;
    explicit AddSat(const void*) {}
    T operator()(T a, T b) const {
        const auto s = static_cast<T>(a + b);
        return s < a ? T{255} : s;
    }
    KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const { return _mm256_adds_epu8(a, b); }
};

constexpr WorkerPair addTable[OWN_DEPTH_COUNT] = {
    {nullptr, nullptr},   // bit images are handed to kuvOr before the table is read
    workersOf<2, AddSat<uint8_t>>(),
    workersOf<2, AddSat<int8_t>>(),
    workersOf<2, AddSat<uint16_t>>(),
    workersOf<2, AddSat<int16_t>>(),
    workersOf<2, AddSat<int32_t>>(),
    workersOf<2, AddSat<float>>(),
};

constexpr PatternOp addOp = {.func = "kuvAdd", .file = "kuvadd", .nSrc = 2, .table = addTable};

}  // namespace

}  // namespace kuv

extern "C" KUV_API void kuvAdd(const KuvImage* srcImageA, const KuvImage* srcImageB,
                               KuvImage* dstImage) {
    if (srcImageA == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvAdd", "srcImageA==0", "kuvadd", __LINE__);
        return;
    }
    if (srcImageA->depth == KUV_DEPTH_1U) {
        // Saturating addition of bits is OR.
        kuvOr(srcImageA, srcImageB, dstImage);
        return;
    }
    kuv::runPattern(kuv::addOp, srcImageA, srcImageB, dstImage, nullptr);
}
