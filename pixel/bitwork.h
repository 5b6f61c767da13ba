// Workers for bit images in the pixelwise pattern: whole words on the flat
// path, the bit-row kernels at any bit offset otherwise, and one bit at a
// time under a mask.
#ifndef KUV_PIXEL_BITWORK_H
#define KUV_PIXEL_BITWORK_H

#include "core/pattern.h"

namespace kuv {

template <OwnBitOp Op, class W>
inline W combineBits(W a, W b) {
    if constexpr (Op == OWN_BIT_AND) return static_cast<W>(a & b);
    else if constexpr (Op == OWN_BIT_OR) return static_cast<W>(a | b);
    else if constexpr (Op == OWN_BIT_XOR) return static_cast<W>(a ^ b);
    else if constexpr (Op == OWN_BIT_AND_NOT) return static_cast<W>(a & ~b);
    else return a;
}

// Start, clipped size and bit offset of each image of a bit-image call.
struct BitRect {
    const uint8_t* start[3];
    int32_t offset[3];
    ptrdiff_t step[3];
    int32_t width, height;
    const uint8_t* mask;
    int32_t maskOffset;
    ptrdiff_t maskStep;
};

bool bitRectOf(const LineArgs& args, int nSrc, BitRect* r);

inline bool bitAt(const uint8_t* row, int32_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

inline void setBit(uint8_t* row, int32_t i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

// Two sources.
template <OwnBitOp Op>
void bitsPlain(const LineArgs& args) {
    if (flatPathApplies(args, 2)) {
        const auto* a = reinterpret_cast<const uint32_t*>(args.src[0]->imageData);
        const auto* b = reinterpret_cast<const uint32_t*>(args.src[1]->imageData);
        auto* d = reinterpret_cast<uint32_t*>(args.dst->imageData);
        const size_t n = static_cast<size_t>(args.src[0]->imageSize) / 4;
        for (size_t i = 0; i < n; ++i) d[i] = combineBits<Op, uint32_t>(a[i], b[i]);
        return;
    }
    BitRect r;
    if (!bitRectOf(args, 2, &r)) return;
    ownLogicBits(Op, r.start[0], r.start[1], const_cast<uint8_t*>(r.start[2]), r.offset[0],
                 r.offset[1], r.offset[2], r.width, r.height, r.step[0], r.step[1], r.step[2]);
}

template <OwnBitOp Op>
void bitsMasked(const LineArgs& args) {
    BitRect r;
    if (!bitRectOf(args, 2, &r)) return;
    for (int32_t y = 0; y < r.height; ++y) {
        const uint8_t* m = r.mask + y * r.maskStep;
        const uint8_t* a = r.start[0] + y * r.step[0];
        const uint8_t* b = r.start[1] + y * r.step[1];
        auto* d = const_cast<uint8_t*>(r.start[2] + y * r.step[2]);
        for (int32_t x = 0; x < r.width; ++x) {
            if (!bitAt(m, r.maskOffset + x)) continue;
            setBit(d, r.offset[2] + x,
                   combineBits<Op, uint32_t>(bitAt(a, r.offset[0] + x), bitAt(b, r.offset[1] + x)) & 1);
        }
    }
}

// One source and a constant: param is the constant widened to a word (all
// ones or zero for bits).
template <OwnBitOp Op>
void bitsPlainS(const LineArgs& args) {
    const uint32_t word = *static_cast<const uint32_t*>(args.param);
    if (flatPathApplies(args, 1)) {
        const auto* s = reinterpret_cast<const uint32_t*>(args.src[0]->imageData);
        auto* d = reinterpret_cast<uint32_t*>(args.dst->imageData);
        const size_t n = static_cast<size_t>(args.src[0]->imageSize) / 4;
        for (size_t i = 0; i < n; ++i) d[i] = combineBits<Op, uint32_t>(s[i], word);
        return;
    }
    BitRect r;
    if (!bitRectOf(args, 1, &r)) return;
    ownLogicBitsS(Op, r.start[0], const_cast<uint8_t*>(r.start[2]), r.offset[0], r.offset[2],
                  r.width, r.height, r.step[0], r.step[2], static_cast<int32_t>(word & 1));
}

template <OwnBitOp Op>
void bitsMaskedS(const LineArgs& args) {
    const uint32_t value = *static_cast<const uint32_t*>(args.param) & 1;
    BitRect r;
    if (!bitRectOf(args, 1, &r)) return;
    for (int32_t y = 0; y < r.height; ++y) {
        const uint8_t* m = r.mask + y * r.maskStep;
        const uint8_t* s = r.start[0] + y * r.step[0];
        auto* d = const_cast<uint8_t*>(r.start[2] + y * r.step[2]);
        for (int32_t x = 0; x < r.width; ++x) {
            if (!bitAt(m, r.maskOffset + x)) continue;
            setBit(d, r.offset[2] + x, combineBits<Op, uint32_t>(bitAt(s, r.offset[0] + x), value) & 1);
        }
    }
}

template <OwnBitOp Op>
constexpr WorkerPair bitWorkers() {
    return WorkerPair{&bitsPlain<Op>, &bitsMasked<Op>};
}

template <OwnBitOp Op>
constexpr WorkerPair bitWorkersS() {
    return WorkerPair{&bitsPlainS<Op>, &bitsMaskedS<Op>};
}

}  // namespace kuv

#endif
