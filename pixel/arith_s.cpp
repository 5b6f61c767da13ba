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

// The unsigned depths by the constant's class: each reaches one limit only,
// and that limit alone is tested. The constant comes in range (the shortcuts
// have taken the rest), so it fits the element.
enum SubClass : int {
    RAISE,       // x - value, value <= 0: x + c up to max
    LOWER,       // x - value, value >= 1: x - c down to 0
    FROM,        // value - x, value <= max: c - x down to 0
    FROM_ABOVE,  // value - x, value > max: (max - x) + c up to max
};

template <class E, SubClass K>
struct SubSU {
    using T = E;
    static constexpr T max = std::numeric_limits<T>::max();
    T c;
    explicit SubSU(const void* p) : c(constantOf(*static_cast<const int32_t*>(p))) {}
    static T constantOf(int32_t value) {
        if constexpr (K == RAISE) return static_cast<T>(-value);
        else if constexpr (K == FROM_ABOVE) return static_cast<T>(value - max);
        else return static_cast<T>(value);
    }
    T operator()(T x) const {
        if constexpr (K == RAISE || K == FROM_ABOVE) {
            const T base = K == RAISE ? x : static_cast<T>(max - x);
            const auto s = static_cast<T>(base + c);
            return s < base ? max : s;
        } else if constexpr (K == LOWER) {
            return x > c ? static_cast<T>(x - c) : T{0};
        } else {
            return c > x ? static_cast<T>(c - x) : T{0};
        }
    }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const {
        const __m256i vc = splatVec<T>(c);
        if constexpr (K == RAISE) return addsVec<T>(x, vc);
        else if constexpr (K == LOWER) return subsVec<T>(x, vc);
        else if constexpr (K == FROM) return subsVec<T>(vc, x);
        else return addsVec<T>(_mm256_xor_si256(x, _mm256_set1_epi8(-1)), vc);
    }
};

template <class E>
struct MulS {
    using T = E;
    WideS<E> value;
    explicit MulS(const void* p) : value(*static_cast<const int32_t*>(p)) {}
    T operator()(T x) const { return saturate<T>(static_cast<WideS<E>>(x) * value); }
    // Byte constants arrive in range: 1 to 255 for 8U, -128 to 128 for 8S.
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const
        requires(sizeof(E) == 1)
    {
        if constexpr (std::is_same_v<E, uint8_t>) {
            return mulsVec<uint8_t>(x, splatVec<uint8_t>(static_cast<uint8_t>(value)));
        } else {
            // 128 does not fit a byte: the constant stays in 16 bits, where
            // products of -128..127 and -128..128 are exact.
            const __m256i c = _mm256_set1_epi16(static_cast<short>(value));
            const __m256i lo = _mm256_srai_epi16(_mm256_unpacklo_epi8(x, x), 8);
            const __m256i hi = _mm256_srai_epi16(_mm256_unpackhi_epi8(x, x), 8);
            return _mm256_packs_epi16(_mm256_mullo_epi16(lo, c), _mm256_mullo_epi16(hi, c));
        }
    }
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

// The vector forms round each lane as the element form does.
struct AddSF {
    using T = float;
    float value;
    explicit AddSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return x + value; }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const {
        return _mm256_castps_si256(_mm256_add_ps(_mm256_castsi256_ps(x), _mm256_set1_ps(value)));
    }
};

template <bool Flip>
struct SubSF {
    using T = float;
    float value;
    explicit SubSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return Flip ? value - x : x - value; }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const {
        const __m256 v = _mm256_set1_ps(value), e = _mm256_castsi256_ps(x);
        return _mm256_castps_si256(Flip ? _mm256_sub_ps(v, e) : _mm256_sub_ps(e, v));
    }
};

struct MulSF {
    using T = float;
    float value;
    explicit MulSF(const void* p) : value(*static_cast<const float*>(p)) {}
    T operator()(T x) const { return x * value; }
    KUV_PIXEL_AVX2 __m256i vec(__m256i x) const {
        return _mm256_castps_si256(_mm256_mul_ps(_mm256_castsi256_ps(x), _mm256_set1_ps(value)));
    }
};

constexpr WorkerPair none = {nullptr, nullptr};

constexpr WorkerPair addSTable[OWN_DEPTH_COUNT] = {
    none, none, none, none, none, workersOf<1, AddS<int32_t>>(), none};

// One table per class of the unsigned constants; the signed workers test
// both limits, which gives what the one reachable limit gives.
template <SubClass K>
constexpr WorkerPair subSTable[OWN_DEPTH_COUNT] = {
    none,
    workersOf<1, SubSU<uint8_t, K>>(),
    workersOf<1, SubS<int8_t, (K == FROM || K == FROM_ABOVE)>>(),
    workersOf<1, SubSU<uint16_t, K>>(),
    workersOf<1, SubS<int16_t, (K == FROM || K == FROM_ABOVE)>>(),
    workersOf<1, SubS<int32_t, (K == FROM || K == FROM_ABOVE)>>(),
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
constexpr PatternOp subSOp[4] = {
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<RAISE>},
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<LOWER>},
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<FROM>},
    {.func = "kuvSubtractS", .file = "kuvsubs", .nSrc = 1, .table = subSTable<FROM_ABOVE>}};
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
    // The class of the constant; on the signed depths only flip counts.
    kuv::SubClass kind = flip == 0 ? kuv::LOWER : kuv::FROM;
    if (depth == KUV_DEPTH_8U || depth == KUV_DEPTH_16U) {
        const int32_t max = depth == KUV_DEPTH_8U ? 255 : 65535;
        if (flip == 0) kind = value <= 0 ? kuv::RAISE : kuv::LOWER;
        else kind = value <= max ? kuv::FROM : kuv::FROM_ABOVE;
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
    kuv::runPattern(kuv::subSOp[kind], srcImage, nullptr, dstImage, &value);
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
