// Image-constant arithmetic. Most constants are settled before any pixel
// loop: results that the constant makes uniform go to a logic operation,
// addition on the small depths is subtraction of the negated constant, and
// the constant is brought into the range that keeps every result alike.
#include "pixel/saturate.h"
#include "pixel/walk.h"

namespace kuv {
namespace {

// The wide type of the constant forms: 32 bits for the small depths (the
// constants are brought into range first), 64 for 32-bit elements.
template <class E> using WideS = typename Wide<E>::type;

template <class E>
struct AddS {
    using T = E;
    WideS<E> value;
    explicit AddS(const void* p) : value(*static_cast<const int32_t*>(p)) {}
    T operator()(T x) const { return saturate<T>(static_cast<WideS<E>>(x) + value); }
};

template <class E, bool Flip>
struct SubS {
    using T = E;
    WideS<E> value;
    explicit SubS(const void* p) : value(*static_cast<const int32_t*>(p)) {}
    T operator()(T x) const {
        const auto w = static_cast<WideS<E>>(x);
        return saturate<T>(Flip ? value - w : w - value);
    }
};

template <class E>
struct MulS {
    using T = E;
    WideS<E> value;
    explicit MulS(const void* p) : value(*static_cast<const int32_t*>(p)) {}
    T operator()(T x) const { return saturate<T>(static_cast<WideS<E>>(x) * value); }
};

// 16-bit unsigned products are unsigned 32-bit products.
template <>
struct MulS<uint16_t> {
    using T = uint16_t;
    uint32_t value;
    explicit MulS(const void* p) : value(static_cast<uint32_t>(*static_cast<const int32_t*>(p))) {}
    T operator()(T x) const {
        const uint32_t p = x * value;
        return static_cast<T>(p > 65535u ? 65535u : p);
    }
};

struct AddSF {
    using T = float;
    float value;
    explicit AddSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return x + value; }
};

template <bool Flip>
struct SubSF {
    using T = float;
    float value;
    explicit SubSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return Flip ? value - x : x - value; }
};

struct MulSF {
    using T = float;
    float value;
    explicit MulSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return x * value; }
};

constexpr WorkerPair none = {nullptr, nullptr};

constexpr WorkerPair addSTable[OWN_DEPTH_COUNT] = {
    none, none, none, none, none, workersOf<1, AddS<int32_t>>(), none};

template <bool Flip>
constexpr WorkerPair subSTable[OWN_DEPTH_COUNT] = {
    none,
    workersOf<1, SubS<uint8_t, Flip>>(),
    workersOf<1, SubS<int8_t, Flip>>(),
    workersOf<1, SubS<uint16_t, Flip>>(),
    workersOf<1, SubS<int16_t, Flip>>(),
    workersOf<1, SubS<int32_t, Flip>>(),
    none,
};

constexpr WorkerPair mulSTable[OWN_DEPTH_COUNT] = {
    none,
    workersOf<1, MulS<uint8_t>>(),
    workersOf<1, MulS<int8_t>>(),
    workersOf<1, MulS<uint16_t>>(),
    workersOf<1, MulS<int16_t>>(),
    workersOf<1, MulS<int32_t>>(),
    none,
};

constexpr WorkerPair addSFTable[OWN_DEPTH_COUNT] = {none, none, none, none,
                                                    none, none, workersOf<1, AddSF>()};
template <bool Flip>
constexpr WorkerPair subSFTable[OWN_DEPTH_COUNT] = {none, none, none, none,
                                                    none, none, workersOf<1, SubSF<Flip>>()};
constexpr WorkerPair mulSFTable[OWN_DEPTH_COUNT] = {none, none, none, none,
                                                    none, none, workersOf<1, MulSF>()};

constexpr PatternOp addSOp = {.func = "kuvAddS", .file = "kuvadds", .nSrc = 1, .table = addSTable};
// kuvSubtractS compares the data orders like its sisters: its workers walk
// by the source's order, so a mismatch could only give wrong pixels.
constexpr PatternOp subSOp[2] = {
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<false>},
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<true>}};
constexpr PatternOp mulSOp = {.func = "kuvMultiplyS", .file = "kuvmuls", .nSrc = 1,
                              .table = mulSTable};
constexpr PatternOp addSFOp = {.func = "kuvAddSFP", .file = "kuvaddsf", .nSrc = 1,
                               .table = addSFTable};
constexpr PatternOp subSFOp[2] = {
    {.func = "kuvSubtractSFP", .file = "kuvsubsf", .nSrc = 1, .table = subSFTable<false>},
    {.func = "kuvSubtractSFP", .file = "kuvsubsf", .nSrc = 1, .table = subSFTable<true>}};
constexpr PatternOp mulSFOp = {.func = "kuvMultiplySFP", .file = "kuvmulsf", .nSrc = 1,
                               .table = mulSFTable};

int32_t clampInt(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : (v > hi ? hi : v); }

bool refuseNull(const KuvImage* srcImage, const char* func, const char* file) {
    if (srcImage != nullptr) return false;
    kuvError(KUV_StsBadArgument, func, "srcImage==0", file, __LINE__);
    return true;
}

// The float forms take 32F alone and point elsewhere for other depths.
void runFloat(const PatternOp& op, const char* otherText, const KuvImage* srcImage,
              KuvImage* dstImage, float value) {
    if (refuseNull(srcImage, op.func, op.file)) return;
    if (srcImage->depth != KUV_DEPTH_32F) {
        kuvError(KUV_StsBadArgument, op.func, otherText, op.file, __LINE__);
        return;
    }
    runPattern(op, srcImage, nullptr, dstImage, &value);
}

}  // namespace
}  // namespace kuv

extern "C" {

KUV_API void kuvAddS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value) {
    if (kuv::refuseNull(srcImage, "kuvAddS", "kuvadds")) return;
    switch (srcImage->depth) {
        case KUV_DEPTH_1U: return kuvOrS(srcImage, dstImage, value);
        case KUV_DEPTH_8U:
        case KUV_DEPTH_8S:
        case KUV_DEPTH_16U:
        case KUV_DEPTH_16S:
            return kuvSubtractS(srcImage, dstImage, value < -65535 ? 65535 : -value, 0);
        case KUV_DEPTH_32F:
            kuvError(KUV_StsBadArgument, "kuvAddS", "For processing depth 32F use function kuvAddSFP",
                     "kuvadds", __LINE__);
            return;
        default: break;
    }
    kuv::runPattern(kuv::addSOp, srcImage, nullptr, dstImage, &value);
}

KUV_API void kuvSubtractS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value,
                          int32_t flip) {
    if (kuv::refuseNull(srcImage, "kuvSubtractS", "kuvsubs")) return;
    const uint32_t depth = srcImage->depth;
    if (depth == KUV_DEPTH_32F) {
        kuvError(KUV_StsBadArgument, "kuvSubtractS",
                 "For processing depth 32F use function kuvSubtractSFP", "kuvsubs", __LINE__);
        return;
    }
    if (depth == KUV_DEPTH_1U) {
        // In bits x - 0 = x, x - 1 = 0, 0 - x = 0 and 1 - x = NOT x.
        const bool v = value & 1;
        if (flip == 0) return v ? kuvAndS(srcImage, dstImage, 0) : kuvXorS(srcImage, dstImage, 0);
        return v ? kuvXorS(srcImage, dstImage, 1) : kuvAndS(srcImage, dstImage, 0);
    }
    if (depth == KUV_DEPTH_8U || depth == KUV_DEPTH_16U) {
        const int32_t max = depth == KUV_DEPTH_8U ? 255 : 65535;
        if (flip == 0) {
            if (value <= -max) return kuvOrS(srcImage, dstImage, -1);
            if (value >= max) return kuvAndS(srcImage, dstImage, 0);
        } else {
            if (value <= 0) return kuvAndS(srcImage, dstImage, 0);
            if (value >= 2 * max) return kuvOrS(srcImage, dstImage, -1);
        }
    } else if (depth == KUV_DEPTH_8S) {
        value = flip == 0 ? kuv::clampInt(value, -255, 255) : kuv::clampInt(value, -256, 254);
    } else if (depth == KUV_DEPTH_16S) {
        value = flip == 0 ? kuv::clampInt(value, -65535, 65535) : kuv::clampInt(value, -65536, 65534);
    }
    kuv::runPattern(kuv::subSOp[flip != 0], srcImage, nullptr, dstImage, &value);
}

KUV_API void kuvMultiplyS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value) {
    if (kuv::refuseNull(srcImage, "kuvMultiplyS", "kuvmuls")) return;
    const uint32_t depth = srcImage->depth;
    if (depth == KUV_DEPTH_32F) {
        kuvError(KUV_StsBadArgument, "kuvMultiplyS",
                 "For processing depth 32F use function kuvMultiplySFP", "kuvmuls", __LINE__);
        return;
    }
    if (depth == KUV_DEPTH_1U) return kuvAndS(srcImage, dstImage, value);
    if (depth == KUV_DEPTH_8U || depth == KUV_DEPTH_16U) {
        if (value < 1) return kuvAndS(srcImage, dstImage, 0);
        const int32_t max = depth == KUV_DEPTH_8U ? 255 : 65535;
        if (value > max) value = max;
    } else if (depth == KUV_DEPTH_8S) {
        value = kuv::clampInt(value, -128, 128);
    } else if (depth == KUV_DEPTH_16S) {
        value = kuv::clampInt(value, -32768, 32768);
    }
    kuv::runPattern(kuv::mulSOp, srcImage, nullptr, dstImage, &value);
}

KUV_API void kuvAddSFP(const KuvImage* srcImage, KuvImage* dstImage, float value) {
    kuv::runFloat(kuv::addSFOp, "For processing this depth use function kuvAddS", srcImage,
                  dstImage, value);
}

KUV_API void kuvSubtractSFP(const KuvImage* srcImage, KuvImage* dstImage, float value,
                            int32_t flip) {
    kuv::runFloat(kuv::subSFOp[flip != 0], "For processing this depth use function kuvSubtractS",
                  srcImage, dstImage, value);
}

KUV_API void kuvMultiplySFP(const KuvImage* srcImage, KuvImage* dstImage, float value) {
    kuv::runFloat(kuv::mulSFOp, "For processing this depth use function kuvMultiplyS", srcImage,
                  dstImage, value);
}

}  // extern "C"
