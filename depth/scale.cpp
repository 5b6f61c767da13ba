// kuvScale and kuvScaleFP: the full range of one depth onto the full range of
// another, in integers, or between an integer depth and a float range.
#include "core/platform.h"
#include "depth/rows.h"

#include <type_traits>

namespace kuv::depth {
namespace {

// ------------------------------------------------------------ element maps

template <class A, class B, class S, class D>
constexpr bool isPair = std::is_same_v<A, S> && std::is_same_v<B, D>;

// The integer range maps, in 32-bit integers with arithmetic shifts; the
// products that pass 2^31 on their way wrap, which is how the lowest value
// arrives at the lowest. Each sends both ends of the source range onto both
// ends of the destination range, so nothing is limited.
template <class SrcT, class DstT>
struct RangeMap {
    using S = SrcT;
    using D = DstT;
    static constexpr bool kDefined = !std::is_same_v<S, D>;
    static constexpr bool kWideMath = false;
    explicit RangeMap(const void*) {}

    static int32_t wrap(uint32_t x) { return static_cast<int32_t>(x); }

    static int32_t map(int32_t v) {
        const uint32_t u = static_cast<uint32_t>(v);
        if constexpr (isPair<int8_t, uint8_t, S, D>) return v + 128;
        else if constexpr (isPair<int8_t, int16_t, S, D>) return 257 * v + 128;
        else if constexpr (isPair<int8_t, uint16_t, S, D>) return 257 * v + 32896;
        else if constexpr (isPair<int8_t, int32_t, S, D>) return wrap(0x01010101u * u + 0x808080u);
        else if constexpr (isPair<uint8_t, int8_t, S, D>) return v - 128;
        else if constexpr (isPair<uint8_t, int16_t, S, D>) return 257 * v - 32768;
        else if constexpr (isPair<uint8_t, uint16_t, S, D>) return 257 * v;
        else if constexpr (isPair<uint8_t, int32_t, S, D>) {
            return wrap(65537u * static_cast<uint32_t>(257 * v - 32896) + 0x808080u);
        } else if constexpr (isPair<int16_t, int8_t, S, D>) return (v - (v >> 8)) >> 8;
        else if constexpr (isPair<int16_t, uint8_t, S, D>) return ((v - (v >> 8)) >> 8) + 128;
        else if constexpr (isPair<int16_t, uint16_t, S, D>) return v + 32768;
        else if constexpr (isPair<int16_t, int32_t, S, D>) return wrap(65537u * u + 32768u);
        else if constexpr (isPair<uint16_t, int8_t, S, D>) {
            const int32_t w = v - 32768;
            return (w - (w >> 8)) >> 8;
        } else if constexpr (isPair<uint16_t, uint8_t, S, D>) {
            const int32_t w = v - 32768;
            return ((w - (w >> 8)) >> 8) + 128;
        } else if constexpr (isPair<uint16_t, int16_t, S, D>) return v - 32768;
        else if constexpr (isPair<uint16_t, int32_t, S, D>) return wrap(65537u * u - 0x80000000u);
        else if constexpr (isPair<int32_t, int8_t, S, D>) return (v - (v >> 8)) >> 24;
        else if constexpr (isPair<int32_t, uint8_t, S, D>) return ((v - (v >> 8)) >> 24) + 128;
        else if constexpr (isPair<int32_t, int16_t, S, D>) return (v - (v >> 16)) >> 16;
        else if constexpr (isPair<int32_t, uint16_t, S, D>) return ((v - (v >> 16)) >> 16) + 32768;
        else return v;   // equal depths are refused before the table is read
    }

    D operator()(S v) const { return static_cast<D>(map(v)); }
};

constexpr PairTable<RangeMap> scaleTable = pairTable<RangeMap>();

// The linear map y = s x + b of kuvScaleFP, in double, with the integer
// depth's limits and the caller's float range.
struct FloatMap {
    double s, b;
    double lo, hi;           // L and H of the integer depth
    double minVal, maxVal;   // the float range, for the limits
};

template <class SrcT>
struct IntToFloat {
    using S = SrcT;
    using D = float;
    static constexpr bool kDefined = true;
    static constexpr bool kWideMath = true;
    double s, b;
    explicit IntToFloat(const void* p)
        : s(static_cast<const FloatMap*>(p)->s), b(static_cast<const FloatMap*>(p)->b) {}
    // Rounded to float on the store, in the current mode: nearest for the call.
    D operator()(S v) const { return static_cast<float>(s * static_cast<double>(v) + b); }
};

// Adding and taking away 1.5 * 2^52 leaves the integer that the current
// rounding mode gives (nearest, ties to even, for the call) for any value
// below 2^51, in any vector width.
constexpr double kRoundShift = 6755399441055744.0;

template <class DstT>
struct FloatToInt {
    using S = float;
    using D = DstT;
    static constexpr bool kDefined = true;
    static constexpr bool kWideMath = true;
    FloatMap m;
    explicit FloatToInt(const void* p) : m(*static_cast<const FloatMap*>(p)) {}
    D operator()(float v) const {
        // All constants are read before any choice, so that the choices
        // become selects and the loop vectorises.
        const double lo = m.lo, hi = m.hi, minVal = m.minVal, maxVal = m.maxVal;
        const double x = v;
        double y = m.s * x + m.b;
        // Held inside L..H before rounding, so that the integer conversion is
        // defined; a NaN element falls to L here and stays there.
        y = y > lo ? y : lo;
        y = y < hi ? y : hi;
        y = x < minVal ? lo : y;
        y = x > maxVal ? hi : y;
        y = (y + kRoundShift) - kRoundShift;   // L and H are integers already
        return static_cast<D>(static_cast<int32_t>(y));
    }
};

constexpr auto toFloatTable = sideTable<IntToFloat>();
constexpr auto fromFloatTable = sideTable<FloatToInt>();

// ------------------------------------------------------------ geometry

enum class Setup { Run, Quiet, Refused };

// A different data order only beside a one-channel image; equal origins.
bool layoutRefused(const KuvImage* src, const KuvImage* dst, const Names& names) {
    return refused(src->dataOrder != dst->dataOrder && src->nChannels != 1 &&
                       dst->nChannels != 1,
                   names,
                   "((srcImage->dataOrder != dstImage->dataOrder)&& ((srcImage->nChannels != "
                   "1)&&(dstImage->nChannels != 1)))") ||
           refused(src->origin != dst->origin, names, "(srcImage->origin != dstImage->origin)");
}

// The quiet return, the channel test and the rectangle: the smaller of the
// two clipped regions, each image read from its own region's start.
Setup planWalk(const KuvImage* src, const KuvImage* dst, const Names& names,
               const char* channelText, Walk* walk) {
    if (onlyAlpha(src) || onlyAlpha(dst)) return Setup::Quiet;
    const Plan ps = planOf(src), pd = planOf(dst);
    if (refused(ps.count != pd.count, names, channelText)) return Setup::Refused;
    OwnRect rs, rd;
    ownGetROIRect(src, &rs);
    ownGetROIRect(dst, &rd);
    walk->width = rs.width < rd.width ? rs.width : rd.width;
    walk->height = rs.height < rd.height ? rs.height : rd.height;
    if (walk->width < 1 || walk->height < 1) return Setup::Quiet;
    walk->src = WalkImage{src, rs.x, rs.y, ps.channel, false};
    walk->dst = WalkImage{dst, rd.x, rd.y, pd.channel, false};
    walk->nCh = ps.count;
    walk->func = names.func;
    walk->file = names.file;
    walk->stopOnStatus = true;
    return Setup::Run;
}

constexpr Names scaleNames{"kuvScale", "kuvscale"};
constexpr Names scaleFPNames{"kuvScaleFP", "Kuvsclfp"};

// Lowest and highest value and the reciprocal of the span of each integer
// depth, in the order of IntTypes.
struct DepthRange {
    double lo, hi, perStep, steps;
};
constexpr DepthRange depthRanges[kIntDepths] = {
    {0.0, 255.0, 0.00392156862745098, 255.0},
    {-128.0, 127.0, 0.00392156862745098, 255.0},
    {0.0, 65535.0, 1.5259021896696422e-05, 65535.0},
    {-32768.0, 32767.0, 1.5259021896696422e-05, 65535.0},
    {-2147483648.0, 2147483647.0, 2.3283064370807974e-10, 4294967295.0},
};

}  // namespace
}  // namespace kuv::depth

extern "C" KUV_API KuvStatus kuvScale(const KuvImage* srcImage, KuvImage* dstImage) {
    using namespace kuv::depth;
    const Names& n = scaleNames;
    if (badHeader(srcImage, n) || badHeader(dstImage, n)) return KUV_StsBadArgument;
    const uint32_t sd = srcImage->depth, dd = dstImage->depth;
    if (refused(sd == dd, n, "(srcImage->depth == dstImage->depth)") ||
        refused(sd == KUV_DEPTH_1U, n, "(srcImage->depth == 1)") ||
        refused(sd == KUV_DEPTH_32F, n, "(srcImage->depth == 32)") ||
        refused(dd == KUV_DEPTH_1U, n, "(dstImage->depth == 1)") ||
        refused(dd == KUV_DEPTH_32F, n, "(dstImage->depth == 32)")) {
        return KUV_StsBadArgument;
    }
    if (layoutRefused(srcImage, dstImage, n)) return KUV_StsBadArgument;
    Walk walk;
    const Setup setup = planWalk(srcImage, dstImage, n, "(srcChannels != dstChannels)", &walk);
    if (setup != Setup::Run) return setup == Setup::Refused ? KUV_StsBadArgument : KUV_StsNoError;
    const PieceWorker worker = scaleTable[intIndex(sd)][intIndex(dd)].pick();
    return runWalk(walk, worker, nullptr, nullptr) ? KUV_StsNoError : KUV_StsOutOfMemory;
}

extern "C" KUV_API KuvStatus kuvScaleFP(const KuvImage* srcImage, KuvImage* dstImage,
                                        float minVal, float maxVal) {
    using namespace kuv::depth;
    const OwnRoundNearest nearest;   // for the whole call, refusals included
    const Names& n = scaleFPNames;
    if (badHeader(srcImage, n) || badHeader(dstImage, n)) return KUV_StsBadArgument;
    const uint32_t sd = srcImage->depth, dd = dstImage->depth;
    if (refused(sd != KUV_DEPTH_32F && dd != KUV_DEPTH_32F, n,
                "((srcImage->depth != 32)&& (dstImage->depth != 32))") ||
        refused(sd == KUV_DEPTH_32F && dd == KUV_DEPTH_32F, n,
                "((srcImage->depth == 32)&& (dstImage->depth == 32))") ||
        refused(sd == KUV_DEPTH_1U || dd == KUV_DEPTH_1U, n,
                "((srcImage->depth == 1)|| (dstImage->depth == 1))")) {
        return KUV_StsBadArgument;
    }
    if (layoutRefused(srcImage, dstImage, n) ||
        refused((maxVal - minVal) <= 0.0f, n, "((maxVal - minVal) <= 0.0f)")) {
        return KUV_StsBadArgument;
    }
    Walk walk;
    const Setup setup = planWalk(srcImage, dstImage, n, "(buf[9] != buf[10])", &walk);
    if (setup != Setup::Run) return setup == Setup::Refused ? KUV_StsBadArgument : KUV_StsNoError;

    const bool toFloat = dd == KUV_DEPTH_32F;
    const int side = intIndex(toFloat ? sd : dd);
    const DepthRange& range = depthRanges[side];
    const double r = static_cast<double>(maxVal) - static_cast<double>(minVal);
    FloatMap map{};
    map.lo = range.lo;
    map.hi = range.hi;
    map.minVal = minVal;
    map.maxVal = maxVal;
    if (toFloat) {
        map.s = r * range.perStep;
        map.b = static_cast<double>(minVal) - range.lo * map.s;
    } else {
        map.s = range.steps / r;
        map.b = range.lo - static_cast<double>(minVal) * map.s;
    }
    const PieceWorker worker = (toFloat ? toFloatTable : fromFloatTable)[side].pick();
    return runWalk(walk, worker, &map, nullptr) ? KUV_StsNoError : KUV_StsOutOfMemory;
}
