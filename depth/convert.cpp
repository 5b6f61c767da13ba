// kuvConvert: integer depths into one another by value, saturating; also
// into bits and from bits to bits. Data order and origin may differ.
#include "depth/rows.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

namespace kuv::depth {
namespace {

// The value kept as a number, limited to the destination's range. Every
// source type fits in 32 bits, so one clamp serves all 25 pairs; where the
// source's range lies inside the destination's the clamp folds away.
template <class SrcT, class DstT>
struct Saturate {
    using S = SrcT;
    using D = DstT;
    static constexpr bool kDefined = true;
    static constexpr bool kWideMath = false;
    explicit Saturate(const void*) {}
    D operator()(S v) const {
        constexpr int32_t lo = std::numeric_limits<D>::min();
        constexpr int32_t hi = std::numeric_limits<D>::max();
        return static_cast<D>(std::clamp<int32_t>(v, lo, hi));
    }
};

constexpr PairTable<Saturate> convertTable = pairTable<Saturate>();

inline void putBit(uint8_t* row, int32_t bit, bool on) {
    const uint8_t mask = static_cast<uint8_t>(0x80u >> (bit & 7));
    uint8_t& byte = row[bit >> 3];
    byte = static_cast<uint8_t>(on ? byte | mask : byte & ~mask);
}

// One channel into bits, most significant first: a bit is set for a value
// above 0 (for unsigned depths: any nonzero value). Whole bytes are written
// at once; a partial byte keeps its other bits.
template <class S>
void toBitsWorker(const Job& job) {
    const Side &s = job.src, &d = job.dst;
    const ptrdiff_t ps = s.pixStep;
    const char* sRow = s.base;
    char* dRow = d.base;
    for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
        const S* sp = reinterpret_cast<const S*>(sRow);
        uint8_t* dp = reinterpret_cast<uint8_t*>(dRow);
        const int32_t off = d.bitOffset;
        int32_t x = 0;
        for (; x < job.width && ((off + x) & 7) != 0; ++x) putBit(dp, off + x, sp[x * ps] > 0);
        for (; x + 8 <= job.width; x += 8) {
            unsigned byte = 0;
            for (int k = 0; k < 8; ++k) byte |= unsigned{sp[(x + k) * ps] > 0} << (7 - k);
            dp[(off + x) >> 3] = static_cast<uint8_t>(byte);
        }
        for (; x < job.width; ++x) putBit(dp, off + x, sp[x * ps] > 0);
    }
}

template <size_t... I>
constexpr std::array<PieceWorker, kIntDepths> toBitsTable(std::index_sequence<I...>) {
    return {&toBitsWorker<std::tuple_element_t<I, IntTypes>>...};
}

constexpr auto bitsTable = toBitsTable(std::make_index_sequence<kIntDepths>{});

// Bits to bits: whole bytes per row, so the bits past the width in the last
// byte come along. Pieces start at column 0 or at a tile edge, a multiple of
// 8, so both sides start on a byte.
void bitCopyWorker(const Job& job) {
    const size_t bytes = (static_cast<size_t>(job.width) + 7) / 8;
    const char* sRow = job.src.base;
    char* dRow = job.dst.base;
    for (int32_t y = 0; y < job.height; ++y, sRow += job.src.rowStep, dRow += job.dst.rowStep) {
        std::memcpy(dRow, sRow, bytes);
    }
}

constexpr Names names{"kuvConvert", "kuvcvrt"};

}  // namespace
}  // namespace kuv::depth

extern "C" KUV_API void kuvConvert(const KuvImage* srcImage, KuvImage* dstImage) {
    using namespace kuv::depth;
    if (badHeader(srcImage, names) || badHeader(dstImage, names)) return;
    if (srcImage == dstImage) return;
    if (refused(srcImage->depth == KUV_DEPTH_32F, names, "(srcImage->depth == 32)") ||
        refused(dstImage->depth == KUV_DEPTH_32F, names, "(dstImage->depth == 32)") ||
        refused(srcImage->height != dstImage->height, names,
                "(srcImage->height != dstImage->height)") ||
        refused(srcImage->width != dstImage->width, names,
                "(srcImage->width != dstImage->width)")) {
        return;
    }
    Walk walk;
    walk.func = names.func;
    walk.file = names.file;
    walk.width = srcImage->width;
    walk.height = srcImage->height;
    walk.src.image = srcImage;
    walk.dst.image = dstImage;
    // A destination of the other origin is walked from its last row upward.
    walk.dst.flip = srcImage->origin != dstImage->origin;

    PieceWorker worker = nullptr;
    if (dstImage->depth == KUV_DEPTH_1U && srcImage->depth != KUV_DEPTH_1U) {
        if (srcImage->nChannels > 1) {
            if (refused(srcImage->roi == nullptr, names, "(srcImage->roi == 0)") ||
                refused(srcImage->roi->coi == 0, names, "(srcImage->roi->coi == 0)")) {
                return;
            }
            walk.src.channel = srcImage->roi->coi - 1;
        }
        walk.nCh = 1;
        worker = bitsTable[intIndex(srcImage->depth)];
    } else {
        if (refused(srcImage->nChannels != dstImage->nChannels, names,
                    "srcImage->nChannels != dstImage->nChannels") ||
            refused(srcImage->depth == KUV_DEPTH_1U && srcImage->depth != dstImage->depth, names,
                    "((srcImage->depth == 1) && (srcImage->depth != dstImage->depth))")) {
            return;
        }
        walk.nCh = srcImage->nChannels;
        worker = srcImage->depth == KUV_DEPTH_1U
                     ? &bitCopyWorker
                     : convertTable[intIndex(srcImage->depth)][intIndex(dstImage->depth)].pick();
    }
    runWalk(walk, worker, nullptr, nullptr);
}
