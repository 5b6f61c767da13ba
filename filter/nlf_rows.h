// What the workers of the rank and fixed filters share: a block seen as rows
// of samples, the rows of a mask, stores that honour it, bit rows and one
// scratch block per worker call.
#ifndef KUV_FILTER_NLF_ROWS_H
#define KUV_FILTER_NLF_ROWS_H

#include "filter/nlf.h"

#include <algorithm>
#include <cstring>
#include <memory>

// The vector workers. The compiler fuses a multiplication and an addition
// wherever FMA is enabled, so it is enabled only in workers whose sums are
// exact in any order.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_NLF_AVX2 __attribute__((target("avx2")))
#define KUV_NLF_AVX2_FMA __attribute__((target("avx2,fma")))
#else
#define KUV_NLF_AVX2
#define KUV_NLF_AVX2_FMA
#endif

namespace kuv::nlf {

// ------------------------------------------------------------------ rows

// A block as rows of samples. A row of output computes n samples; the
// horizontal neighbours of a sample are `channels` samples apart, so that a
// sample's neighbourhood is always the same channel of the adjacent pixels.
// One channel of interleaved data is computed with all channels around it
// and written every `store` samples.
struct Lines {
    int32_t planes;       // calls per block: planes to walk
    int32_t srcPlane, dstPlane;   // the first plane of each side
    int64_t srcFirst, dstFirst;   // element (bit) of the first sample in a row
    int32_t n;            // samples computed per output row
    int32_t channels;     // distance between horizontal neighbours
    int32_t store;        // distance between samples written: 1 or channels
    int32_t perPixel;     // samples of one pixel in a row
    int32_t loaded;       // samples of one source row: n + (nCols - 1) * channels
};

inline Lines linesOf(const OwnNlfBlock& b) {
    Lines l{};
    const int32_t nCols = b.request->nCols;
    if (b.dataOrder == KUV_DATA_ORDER_PLANE || b.nChannels == 1) {
        const bool all = b.srcChannel == 0;
        l.planes = all ? b.nChannels : 1;
        l.srcPlane = all ? 0 : b.srcChannel - 1;
        l.dstPlane = all ? 0 : b.dstChannel - 1;
        if (b.dataOrder == KUV_DATA_ORDER_PIXEL) l.srcPlane = l.dstPlane = 0;
        l.srcFirst = b.srcX;
        l.dstFirst = b.dstX;
        l.n = b.width;
        l.channels = l.store = l.perPixel = 1;
    } else {
        const int32_t c = b.nChannels;
        const bool all = b.srcChannel == 0;
        l.planes = 1;
        l.srcFirst = int64_t{b.srcX} * c + (all ? 0 : b.srcChannel - 1);
        l.dstFirst = int64_t{b.dstX} * c + (all ? 0 : b.dstChannel - 1);
        l.n = all ? b.width * c : (b.width - 1) * c + 1;
        l.channels = l.perPixel = c;
        l.store = all ? 1 : c;
    }
    // A window too wide for 32 bits leaves a length that no scratch block holds.
    l.loaded = static_cast<int32_t>(
        std::min<int64_t>(int64_t{l.n} + int64_t{nCols - 1} * l.channels, INT32_MAX));
    return l;
}

template <class T>
[[gnu::always_inline]] inline const T* sourceRow(const OwnNlfBlock& b, const Lines& l, int p,
                                                 int32_t r) {
    const char* plane = b.src + (l.srcPlane + p) * b.srcPlaneStep;
    return reinterpret_cast<const T*>(plane + (int64_t{b.srcY} + r) * b.srcStep) + l.srcFirst;
}

template <class T>
[[gnu::always_inline]] inline T* destinationRow(const OwnNlfBlock& b, const Lines& l, int p,
                                                int32_t j) {
    char* plane = b.dst + (l.dstPlane + p) * b.dstPlaneStep;
    return reinterpret_cast<T*>(plane + (int64_t{b.dstY} + j) * b.dstStep) + l.dstFirst;
}

// ------------------------------------------------------------------ masks

inline int bitAt(const uint8_t* row, int64_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

inline bool hasMask(const OwnNlfBlock& b) { return b.srcMask != nullptr || b.dstMask != nullptr; }

// Write-enable bytes for output row j: one per sample, 1 where every mask
// there is has its bit set. Only called when the block has a mask.
inline void maskRow(const OwnNlfBlock& b, const Lines& l, int32_t j, uint8_t* we) {
    const KuvImage* masks[2] = {b.srcMask, b.dstMask};
    const int32_t xs[2] = {b.srcMaskX, b.dstMaskX};
    const int32_t ys[2] = {b.srcMaskY, b.dstMaskY};
    const uint8_t* rows[2] = {};
    for (int m = 0; m < 2; ++m) {
        if (masks[m] == nullptr) continue;
        rows[m] = reinterpret_cast<const uint8_t*>(masks[m]->imageData) +
                  (int64_t{ys[m]} + j) * masks[m]->widthStep;
    }
    for (int32_t p = 0; p < b.width; ++p) {
        uint8_t on = 1;
        for (int m = 0; m < 2; ++m) {
            if (rows[m] != nullptr) on &= static_cast<uint8_t>(bitAt(rows[m], int64_t{xs[m]} + p));
        }
        const int64_t first = int64_t{p} * l.perPixel;
        const int64_t last = std::min<int64_t>(first + l.perPixel, l.n);
        for (int64_t s = first; s < last; ++s) we[s] = on;
    }
}

// A computed row into the destination: every `store` samples, and only
// where the write-enable byte is set when there is one.
template <class T>
[[gnu::always_inline]] inline void storeRow(T* dst, const T* res, const Lines& l,
                                           const uint8_t* we) {
    if (we == nullptr) {
        if (l.store == 1) {
            std::memcpy(dst, res, sizeof(T) * static_cast<size_t>(l.n));
            return;
        }
        for (int32_t i = 0; i < l.n; i += l.store) dst[i] = res[i];
        return;
    }
    for (int32_t i = 0; i < l.n; i += l.store) {
        if (we[i]) dst[i] = res[i];
    }
}

// ------------------------------------------------------------------ bits

// count bits of a row from bit pos on as values 0 and 1. Reads no byte past
// the last bit it needs.
template <class W>
inline void expandBits(const uint8_t* row, int64_t pos, int32_t count, W* out) {
    for (int32_t k = 0; k < count; ++k) out[k] = static_cast<W>(bitAt(row, pos + k));
}

// Bits pos .. pos + count - 1 of a row from values 0 and 1 (any nonzero
// value sets the bit), only where we[k] is set when there is a we row.
inline void storeBits(uint8_t* row, int64_t pos, const uint8_t* values, const uint8_t* we,
                      int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        if (we != nullptr && we[k] == 0) continue;
        const int64_t i = pos + k;
        const auto bit = static_cast<uint8_t>(0x80u >> (i & 7));
        row[i >> 3] = static_cast<uint8_t>(values[k] ? row[i >> 3] | bit : row[i >> 3] & ~bit);
    }
}

// ------------------------------------------------------------------ scratch

// One kuvMalloc block per worker call, carved into rows that start on
// 32-byte boundaries with some slack behind each.
class Scratch {
public:
    // bytes: the sum of the pieces as `pieceBytes` counts them.
    explicit Scratch(int64_t bytes) {
        if (bytes > 0 && bytes <= INT32_MAX) {
            block_.reset(static_cast<char*>(kuvMalloc(static_cast<int32_t>(bytes))));
        }
        next_ = block_.get();
    }
    bool ok() const { return block_ != nullptr; }

    template <class T>
    static int64_t pieceBytes(int64_t count) {
        return (count * static_cast<int64_t>(sizeof(T)) + 63) / 64 * 64 + 64;
    }
    template <class T>
    T* take(int64_t count) {
        T* p = reinterpret_cast<T*>(next_);
        next_ += (count * static_cast<int64_t>(sizeof(T)) + 63) / 64 * 64 + 64;
        return p;
    }

private:
    struct Free {
        void operator()(char* p) const { kuvFree(p); }
    };
    std::unique_ptr<char, Free> block_;
    char* next_ = nullptr;
};

}  // namespace kuv::nlf

#endif
