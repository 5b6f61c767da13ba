// kuvLShiftS and kuvRShiftS: each element shifted by a constant count.
// Counts that make every element alike become logic operations.
#include "pixel/walk.h"

#include <type_traits>

namespace kuv {
namespace {

// Bits shifted out are lost and zeros come in; the sign may change.
template <class E>
struct ShiftLeft {
    using T = E;
    int n;
    explicit ShiftLeft(const void* param) : n(*static_cast<const int32_t*>(param)) {}
    T operator()(T x) const {
        using U = std::make_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(static_cast<uint32_t>(static_cast<U>(x)) << n));
    }
};

// Unsigned elements take zeros in; signed ones copy their sign bit.
template <class E>
struct ShiftRight {
    using T = E;
    int n;
    explicit ShiftRight(const void* param) : n(*static_cast<const int32_t*>(param)) {}
    T operator()(T x) const { return static_cast<T>(x >> n); }
};

constexpr WorkerPair leftTable[OWN_DEPTH_COUNT] = {
    {nullptr, nullptr},   // bit images are cleared or copied before the table is read
    workersOf<1, ShiftLeft<uint8_t>>(),
    workersOf<1, ShiftLeft<uint8_t>>(),
    workersOf<1, ShiftLeft<uint16_t>>(),
    workersOf<1, ShiftLeft<uint16_t>>(),
    workersOf<1, ShiftLeft<int32_t>>(),
    {nullptr, nullptr},
};

constexpr WorkerPair rightTable[OWN_DEPTH_COUNT] = {
    {nullptr, nullptr},
    workersOf<1, ShiftRight<uint8_t>>(),
    workersOf<1, ShiftRight<int8_t>>(),
    workersOf<1, ShiftRight<uint16_t>>(),
    workersOf<1, ShiftRight<int16_t>>(),
    workersOf<1, ShiftRight<int32_t>>(),
    {nullptr, nullptr},
};

constexpr const char* no32F = "This function does not support depth 32F";
constexpr PatternOp leftOp = {.func = "kuvLShiftS", .file = "kuvlshs", .nSrc = 1,
                              .table = leftTable, .unsupported = no32F};
constexpr PatternOp rightOp = {.func = "kuvRShiftS", .file = "kuvrshs", .nSrc = 1,
                               .table = rightTable, .unsupported = no32F};

}  // namespace
}  // namespace kuv

extern "C" {

KUV_API void kuvLShiftS(const KuvImage* srcImage, KuvImage* dstImage, int32_t nShift) {
    if (srcImage == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvLShiftS", "srcImage==0", "kuvlshs", __LINE__);
        return;
    }
    if (nShift == 0) return kuvXorS(srcImage, dstImage, 0);
    if (static_cast<uint32_t>(nShift) >= static_cast<uint32_t>(ownDepthBits(srcImage->depth))) {
        return kuvAndS(srcImage, dstImage, 0);
    }
    kuv::runPattern(kuv::leftOp, srcImage, nullptr, dstImage, &nShift);
}

KUV_API void kuvRShiftS(const KuvImage* srcImage, KuvImage* dstImage, int32_t nShift) {
    if (srcImage == nullptr) {
        kuvError(KUV_StsBadArgument, "kuvRShiftS", "srcImage==0", "kuvrshs", __LINE__);
        return;
    }
    if (nShift == 0) return kuvXorS(srcImage, dstImage, 0);
    const auto bits = static_cast<uint32_t>(ownDepthBits(srcImage->depth));
    if (static_cast<uint32_t>(nShift) >= bits) {
        const bool isSigned = (srcImage->depth & KUV_DEPTH_SIGN) != 0;
        if (!isSigned) return kuvAndS(srcImage, dstImage, 0);
        nShift = static_cast<int32_t>(bits) - 1;
    }
    kuv::runPattern(kuv::rightOp, srcImage, nullptr, dstImage, &nShift);
}

}  // extern "C"
