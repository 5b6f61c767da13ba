// Logic operations: kuvAnd, kuvOr, kuvXor, their constant forms and kuvNot.
// Bit images go through the bit-row kernels at any bit offset; the other
// depths through the element workers, signed and unsigned sharing one.
#include "pixel/bitwork.h"
#include "pixel/saturate.h"
#include "pixel/walk.h"

namespace kuv {
namespace {

template <OwnBitOp Op>
KUV_PIXEL_AVX2 inline __m256i combineVec(__m256i a, __m256i b) {
    if constexpr (Op == OWN_BIT_AND) return _mm256_and_si256(a, b);
    else if constexpr (Op == OWN_BIT_OR) return _mm256_or_si256(a, b);
    else return _mm256_xor_si256(a, b);
}

template <OwnBitOp Op, class E>
struct Logic {
    using T = E;
    explicit Logic(const void*) {}
    T operator()(T a, T b) const { return combineBits<Op, T>(a, b); }
    KUV_PIXEL_AVX2 __m256i vec(__m256i a, __m256i b) const { return combineVec<Op>(a, b); }
};

// The constant comes widened to a 32-bit word; each element takes its low bits.
template <OwnBitOp Op, class E>
struct LogicS {
    using T = E;
    T value;
    explicit LogicS(const void* param)
        : value(static_cast<T>(*static_cast<const uint32_t*>(param))) {}
    T operator()(T x) const { return combineBits<Op, T>(x, value); }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const { return combineVec<Op>(x, splatVec<T>(value)); }
};

template <OwnBitOp Op>
constexpr WorkerPair binaryRow[OWN_DEPTH_COUNT] = {
    bitWorkers<Op>(),
    workersOf<2, Logic<Op, uint8_t>>(),
    workersOf<2, Logic<Op, uint8_t>>(),
    workersOf<2, Logic<Op, uint16_t>>(),
    workersOf<2, Logic<Op, uint16_t>>(),
    workersOf<2, Logic<Op, uint32_t>>(),
    {nullptr, nullptr},
};

template <OwnBitOp Op>
constexpr WorkerPair constantRow[OWN_DEPTH_COUNT] = {
    bitWorkersS<Op>(),
    workersOf<1, LogicS<Op, uint8_t>>(),
    workersOf<1, LogicS<Op, uint8_t>>(),
    workersOf<1, LogicS<Op, uint16_t>>(),
    workersOf<1, LogicS<Op, uint16_t>>(),
    workersOf<1, LogicS<Op, uint32_t>>(),
    {nullptr, nullptr},
};

constexpr const char* no32F = "This function does not support depth 32F";

constexpr PatternOp andOp = {.func = "kuvAnd", .file = "kuvand", .nSrc = 2, .table = binaryRow<OWN_BIT_AND>,
                           .orderTestAt1U = false, .unsupported = no32F};
constexpr PatternOp orOp = {.func = "kuvOr", .file = "kuvor", .nSrc = 2, .table = binaryRow<OWN_BIT_OR>,
                           .orderTestAt1U = false, .unsupported = no32F};
constexpr PatternOp xorOp = {.func = "kuvXor", .file = "kuvxor", .nSrc = 2, .table = binaryRow<OWN_BIT_XOR>,
                           .orderTestAt1U = false, .unsupported = no32F};
constexpr PatternOp andSOp = {.func = "kuvAndS", .file = "kuvands", .nSrc = 1, .table = constantRow<OWN_BIT_AND>,
                           .orderTestAt1U = false, .unsupported = no32F};
constexpr PatternOp orSOp = {.func = "kuvOrS", .file = "kuvors", .nSrc = 1, .table = constantRow<OWN_BIT_OR>,
                           .orderTestAt1U = false, .unsupported = no32F};
constexpr PatternOp xorSOp = {.func = "kuvXorS", .file = "kuvxors", .nSrc = 1, .table = constantRow<OWN_BIT_XOR>,
                           .orderTestAt1U = false, .unsupported = no32F};

// The constant widened once to a 32-bit word by the destination's depth.
uint32_t widen(uint32_t depth, int32_t value) {
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

void runConstant(const PatternOp& op, const KuvImage* src, KuvImage* dst, int32_t value) {
    // The word follows the destination's depth; before the header checks the
    // destination may be null, and the checks then refuse the call.
    const uint32_t word = widen(dst != nullptr ? dst->depth : 0u, value);
    runPattern(op, src, nullptr, dst, &word);
}

}  // namespace
}  // namespace kuv

extern "C" {

KUV_API void kuvAnd(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage) {
    kuv::runPattern(kuv::andOp, srcImageA, srcImageB, dstImage, nullptr);
}

KUV_API void kuvOr(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage) {
    kuv::runPattern(kuv::orOp, srcImageA, srcImageB, dstImage, nullptr);
}

KUV_API void kuvXor(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage) {
    kuv::runPattern(kuv::xorOp, srcImageA, srcImageB, dstImage, nullptr);
}

KUV_API void kuvAndS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value) {
    kuv::runConstant(kuv::andSOp, srcImage, dstImage, value);
}

KUV_API void kuvOrS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value) {
    kuv::runConstant(kuv::orSOp, srcImage, dstImage, value);
}

KUV_API void kuvXorS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value) {
    kuv::runConstant(kuv::xorSOp, srcImage, dstImage, value);
}

KUV_API void kuvNot(const KuvImage* srcImage, KuvImage* dstImage) {
    kuvXorS(srcImage, dstImage, -1);
}

}  // extern "C"
