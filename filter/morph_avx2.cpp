// The morphology passes for AVX2: the same minimum and maximum as the
// baseline passes, 32 bytes at a time, each pass's tail finished one sample
// at a time in the same order. Only the functions of this file carry the
// vector target; the set is used only after the processor check.
#include "filter/morph.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))

#include <immintrin.h>

#define KUV_AVX2 __attribute__((target("avx2")))

namespace kuv::morph {
namespace {

struct Min8 {
    using Elem = uint8_t;
    KUV_AVX2 static __m256i vec(__m256i a, __m256i b) { return _mm256_min_epu8(a, b); }
    static uint8_t one(uint8_t a, uint8_t b) { return a < b ? a : b; }
};
struct Max8 {
    using Elem = uint8_t;
    KUV_AVX2 static __m256i vec(__m256i a, __m256i b) { return _mm256_max_epu8(a, b); }
    static uint8_t one(uint8_t a, uint8_t b) { return a > b ? a : b; }
};
struct Min16 {
    using Elem = uint16_t;
    KUV_AVX2 static __m256i vec(__m256i a, __m256i b) { return _mm256_min_epu16(a, b); }
    static uint16_t one(uint16_t a, uint16_t b) { return a < b ? a : b; }
};
struct Max16 {
    using Elem = uint16_t;
    KUV_AVX2 static __m256i vec(__m256i a, __m256i b) { return _mm256_max_epu16(a, b); }
    static uint16_t one(uint16_t a, uint16_t b) { return a > b ? a : b; }
};

template <class Op>
struct VectorPasses {
    using Elem = typename Op::Elem;
    static constexpr int32_t lanes = 32 / sizeof(Elem);

    KUV_AVX2 static __m256i load(const Elem* p) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    KUV_AVX2 static void store(Elem* p, __m256i v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
    }

    // Four vectors of columns at a time kept in registers down all the rows:
    // one load per row and sample block, one store.
    KUV_AVX2 static void columns(Elem* dst, const uint8_t* ring, int64_t pitch, int32_t nRows,
                                 int32_t n, bool accumulate) {
        if (nRows < 1) return;
        const Elem* first = reinterpret_cast<const Elem*>(ring);
        const int64_t step = pitch / int64_t{sizeof(Elem)};
        // The accumulators start from dst, or from row 0.
        const Elem* base = accumulate ? dst : first;
        const int32_t r0 = accumulate ? 0 : 1;
        int32_t i = 0;
        for (; i + 4 * lanes <= n; i += 4 * lanes) {
            __m256i a = load(base + i), b = load(base + i + lanes), c = load(base + i + 2 * lanes),
                    d = load(base + i + 3 * lanes);
            const Elem* row = first + i + r0 * step;
            for (int32_t r = r0; r < nRows; ++r, row += step) {
                a = Op::vec(a, load(row));
                b = Op::vec(b, load(row + lanes));
                c = Op::vec(c, load(row + 2 * lanes));
                d = Op::vec(d, load(row + 3 * lanes));
            }
            store(dst + i, a);
            store(dst + i + lanes, b);
            store(dst + i + 2 * lanes, c);
            store(dst + i + 3 * lanes, d);
        }
        for (; i + lanes <= n; i += lanes) {
            __m256i a = load(base + i);
            const Elem* row = first + i + r0 * step;
            for (int32_t r = r0; r < nRows; ++r, row += step) a = Op::vec(a, load(row));
            store(dst + i, a);
        }
        for (; i < n; ++i) {
            Elem v = base[i];
            const Elem* row = first + i + r0 * step;
            for (int32_t r = r0; r < nRows; ++r, row += step) v = Op::one(v, *row);
            dst[i] = v;
        }
    }

    // Samples i + 1 .. i + lanes and i + 2 .. i + lanes + 1 of a row, from
    // the vectors at i and i + lanes, by byte alignment.
    KUV_AVX2 static __m256i three(__m256i cur, __m256i next) {
        const __m256i mid = _mm256_permute2x128_si256(cur, next, 0x21);
        const __m256i one = _mm256_alignr_epi8(mid, cur, sizeof(Elem));
        const __m256i two = _mm256_alignr_epi8(mid, cur, 2 * sizeof(Elem));
        return Op::vec(cur, Op::vec(one, two));
    }

    // In place as well (dst may be a or b): a block is stored only after
    // the block after it has been loaded.
    KUV_AVX2 static void fold3(Elem* dst, const Elem* a, const Elem* b, int32_t n) {
        int32_t i = 0;
        if (2 * lanes <= n) {
            __m256i cur = Op::vec(load(a), load(b));
            for (; i + 2 * lanes <= n; i += lanes) {
                const __m256i next = Op::vec(load(a + i + lanes), load(b + i + lanes));
                store(dst + i, three(cur, next));
                cur = next;
            }
        }
        for (; i < n - 2; ++i) {
            dst[i] = Op::one(Op::one(a[i], b[i]),
                             Op::one(Op::one(a[i + 1], b[i + 1]), Op::one(a[i + 2], b[i + 2])));
        }
    }

    // In place, reading ahead: every load of a block precedes its store, and
    // no later block reads below its own start, so the result is the one of
    // the sample-by-sample loop.
    KUV_AVX2 static void ahead3(Elem* a, int32_t n) {
        int32_t i = 0;
        for (; i + lanes <= n; i += lanes) {
            store(a + i, Op::vec(load(a + i), Op::vec(load(a + i + 1), load(a + i + 2))));
        }
        for (; i < n; ++i) a[i] = Op::one(a[i], Op::one(a[i + 1], a[i + 2]));
    }

    KUV_AVX2 static void ahead(Elem* a, int32_t k, int32_t n) {
        int32_t i = 0;
        for (; i + lanes <= n; i += lanes) store(a + i, Op::vec(load(a + i), load(a + i + k)));
        for (; i < n; ++i) a[i] = Op::one(a[i], a[i + k]);
    }

    KUV_AVX2 static void triples(Elem* dst, const Elem* a, int32_t n) {
        int32_t i = 0;
        for (; i + lanes <= n; i += lanes) {
            store(dst + i, Op::vec(load(a + i), Op::vec(load(a + i + 1), load(a + i + 2))));
        }
        for (; i < n; ++i) dst[i] = Op::one(a[i], Op::one(a[i + 1], a[i + 2]));
    }

    // A 3x3 box with the column results kept in registers: each vector of
    // them, joined with the next one, gives the two shifted neighbours by
    // byte alignment, so the row stage needs no scratch row. The tail goes
    // through the scratch row as the other sizes do.
    KUV_AVX2 static void box3(Elem* dst, const uint8_t* ring, int64_t pitch, Elem* scratch,
                              int32_t width) {
        const auto* r0 = reinterpret_cast<const Elem*>(ring);
        const auto* r1 = reinterpret_cast<const Elem*>(ring + pitch);
        const auto* r2 = reinterpret_cast<const Elem*>(ring + 2 * pitch);
        auto column = [&](int32_t i) KUV_AVX2 {
            return Op::vec(Op::vec(load(r0 + i), load(r1 + i)), load(r2 + i));
        };
        const int32_t count = width + 2;
        int32_t i = 0;
        if (2 * lanes <= count) {
            __m256i cur = column(0);
            for (; i + 2 * lanes <= count; i += lanes) {
                const __m256i next = column(i + lanes);
                store(dst + i, three(cur, next));
                cur = next;
            }
        }
        columns(scratch, ring + i * int64_t{sizeof(Elem)}, pitch, 3, count - i, false);
        triples(dst + i, scratch, width - i);
    }

    KUV_AVX2 static void pairs(Elem* dst, const Elem* a, int32_t k, int32_t n) {
        int32_t i = 0;
        for (; i + lanes <= n; i += lanes) store(dst + i, Op::vec(load(a + i), load(a + i + k)));
        for (; i < n; ++i) dst[i] = Op::one(a[i], a[i + k]);
    }
};

// Bits have no vector form here: their words already hold 32 samples.
constexpr OwnMorphWorker vectorMin[SLOT_COUNT] = {ownMorphMinBits, boxWorker<VectorPasses<Min8>>,
                                                  boxWorker<VectorPasses<Min16>>};
constexpr OwnMorphWorker vectorMax[SLOT_COUNT] = {ownMorphMaxBits, boxWorker<VectorPasses<Max8>>,
                                                  boxWorker<VectorPasses<Max16>>};
constexpr OwnMorphRowOps vectorMinRows[SLOT_COUNT] = {{}, rowOps<VectorPasses<Min8>>(),
                                                      rowOps<VectorPasses<Min16>>()};
constexpr OwnMorphRowOps vectorMaxRows[SLOT_COUNT] = {{}, rowOps<VectorPasses<Max8>>(),
                                                      rowOps<VectorPasses<Max16>>()};
}  // namespace

bool ownMorphVectorSet(OwnMorphSet* set) {
    *set = {vectorMin, vectorMax, vectorMinRows, vectorMaxRows};
    return true;
}

}  // namespace kuv::morph

#else

namespace kuv::morph {
bool ownMorphVectorSet(OwnMorphSet*) { return false; }
}  // namespace kuv::morph

#endif
