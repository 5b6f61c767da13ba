// Box workers of morphology, shared by the baseline file and the vector one.
//
// A worker takes a ring of `size` rows of one channel, `pitch` bytes apart,
// with one scratch row after them, and writes `width` samples of the box
// minimum (or maximum) into `out` from sample `outOffset` on (for bits, from
// bit `outOffset`). Ring rows hold width + size - 1 samples each; sample i of
// the output covers samples i .. i + size - 1 of every ring row. The box is
// separable: first down the rows into the scratch row, then along it.
#ifndef KUV_FILTER_MORPH_H
#define KUV_FILTER_MORPH_H

#include "kuv_own.h"

#include <cstdint>

namespace kuv::morph {

using OwnMorphWorker = void (*)(int32_t size, uint8_t* ring, int64_t pitch, void* out,
                                int32_t outOffset, int32_t width);

// Depth slots of the worker tables.
enum Slot : int { SLOT_1U = 0, SLOT_8U, SLOT_16U, SLOT_COUNT };

// The bit workers: AND (OR) of 32-bit words down the rows, then along the
// row by combining words shifted against each other.
void ownMorphMinBits(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
                     int32_t width);
void ownMorphMaxBits(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
                     int32_t width);

// Erosion and dilation at 8 and 16 bits with boxes of 5 and more also take
// two output rows per step: the rows both windows share are folded once,
// and each window adds its own outer row. Row operations for that:
// `columns` sets dst to the operation over rows 0 .. nRows-1 (and dst itself
// when accumulate is set); `fold3` combines a and b into column results and
// at once takes the first row pass, over three of them: dst[i] from a and b
// at i .. i + 2, for i < n - 2; `rows` runs the rest of a worker's row stage
// on buf, so prepared from width + size - 1 column results, into out from
// outOffset on; out may be buf itself.
struct OwnMorphRowOps {
    void (*columns)(uint8_t* dst, const uint8_t* ring, int64_t pitch, int32_t nRows, int32_t n,
                    bool accumulate);
    void (*fold3)(uint8_t* dst, const uint8_t* a, const uint8_t* b, int32_t n);
    void (*rows)(int32_t size, uint8_t* buf, uint8_t* out, int32_t outOffset, int32_t width);
};

// The workers in plain C++ by depth slot: minimum (erosion) and maximum
// (dilation), the reference for every other set; and their row operations
// (none for bits).
extern const OwnMorphWorker ownMorphMin[SLOT_COUNT];
extern const OwnMorphWorker ownMorphMax[SLOT_COUNT];
extern const OwnMorphRowOps ownMorphMinRows[SLOT_COUNT];
extern const OwnMorphRowOps ownMorphMaxRows[SLOT_COUNT];

// The AVX2 set of both; false when this build has none. Use it only after
// the processor check.
struct OwnMorphSet {
    const OwnMorphWorker* min;
    const OwnMorphWorker* max;
    const OwnMorphRowOps* minRows;
    const OwnMorphRowOps* maxRows;
};
bool ownMorphVectorSet(OwnMorphSet* set);

// The row passes a worker is made of. K::Elem is the sample type; K::columns
// and K::fold3 are the row operations above; K::ahead3 and K::ahead set
// a[i] from a[i .. i+2], or from a[i] and a[i + k], for i < n in increasing
// i, in place; K::triples and K::pairs do the same into another row; K::box3
// is the whole worker for a 3x3 box.
//
// Along the row the window is built by doubling: after a pass over three
// samples and the passes with k = 3, 6, 12 .. a sample covers the largest
// such width m not above `size`, and two such windows, overlapping, cover
// `size` (min and max do not mind seeing a sample twice). So a row costs
// about log2(size) passes, not size.
template <class K>
void rowStage(int32_t size, typename K::Elem* buf, typename K::Elem* dst, int32_t width,
              bool threeDone) {
    const int32_t count = width + size - 1;
    if (!threeDone) K::ahead3(buf, count - 2);
    int32_t m = 3;
    for (int32_t valid = count - 2; 2 * m <= size; valid -= m, m *= 2) {
        K::ahead(buf, m, valid - m);
    }
    if (dst == buf) return K::ahead(buf, size - m, width);
    K::pairs(dst, buf, size - m, width);
}

template <class K>
void boxWorker(int32_t size, uint8_t* ring, int64_t pitch, void* out, int32_t outOffset,
               int32_t width) {
    using T = typename K::Elem;
    T* scratch = reinterpret_cast<T*>(ring + size * pitch);
    T* dst = static_cast<T*>(out) + outOffset;
    if (size == 3) return K::box3(dst, ring, pitch, scratch, width);
    K::columns(scratch, ring, pitch, size, width + size - 1, false);
    rowStage<K>(size, scratch, dst, width, false);
}

template <class K>
constexpr OwnMorphRowOps rowOps() {
    using T = typename K::Elem;
    return {[](uint8_t* dst, const uint8_t* ring, int64_t pitch, int32_t nRows, int32_t n,
               bool accumulate) {
                K::columns(reinterpret_cast<T*>(dst), ring, pitch, nRows, n, accumulate);
            },
            [](uint8_t* dst, const uint8_t* a, const uint8_t* b, int32_t n) {
                K::fold3(reinterpret_cast<T*>(dst), reinterpret_cast<const T*>(a),
                         reinterpret_cast<const T*>(b), n);
            },
            [](int32_t size, uint8_t* buf, uint8_t* out, int32_t outOffset, int32_t width) {
                rowStage<K>(size, reinterpret_cast<T*>(buf), reinterpret_cast<T*>(out) + outOffset,
                            width, true);
            }};
}

}  // namespace kuv::morph

#endif  // KUV_FILTER_MORPH_H
