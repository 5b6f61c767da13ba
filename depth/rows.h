// The element worker of the depth family: one row loop over a conversion
// functor, instantiated per pair of element types into small tables.
//
// A functor names its source and destination element types S and D, is built
// from the operation's constants (Job::param) and converts one element:
//   D operator()(S v) const
// Each functor is compiled twice, for the baseline instruction set and for
// AVX2; the table entry holds both and the call takes one.
#ifndef KUV_DEPTH_ROWS_H
#define KUV_DEPTH_ROWS_H

#include "depth/depth.h"

#include <array>
#include <cstdint>
#include <tuple>
#include <utility>

namespace kuv::depth {

// The integer element types by depth, in the order of the family's tables.
using IntTypes = std::tuple<uint8_t, int8_t, uint16_t, int16_t, int32_t>;
constexpr int kIntDepths = 5;

// Index of an integer depth in IntTypes, or -1.
inline int intIndex(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_8U: return 0;
        case KUV_DEPTH_8S: return 1;
        case KUV_DEPTH_16U: return 2;
        case KUV_DEPTH_16S: return 3;
        case KUV_DEPTH_32S: return 4;
        default: return -1;
    }
}

template <class Op>
[[gnu::always_inline]] inline void runOf(const Op& op, const typename Op::S* __restrict s,
                                         typename Op::D* __restrict d, ptrdiff_t n) {
    for (ptrdiff_t k = 0; k < n; ++k) d[k] = op(s[k]);
}

template <class Op>
[[gnu::always_inline]] inline void stridedOf(const Op& op, const typename Op::S* __restrict s,
                                             ptrdiff_t ps, typename Op::D* __restrict d,
                                             ptrdiff_t pd, ptrdiff_t n) {
    for (ptrdiff_t k = 0; k < n; ++k) d[k * pd] = op(s[k * ps]);
}

// Rows, then channels, then columns. Packed pixels on both sides make a row
// one run; single elements per pixel on both sides make a channel's row one
// run; anything else steps through the pixels.
template <class Op>
[[gnu::always_inline]] inline void elementRows(const Job& job) {
    using S = typename Op::S;
    using D = typename Op::D;
    const Op op(job.param);
    const Side &s = job.src, &d = job.dst;
    const char* sRow = s.base;
    char* dRow = d.base;
    const bool packed = s.pixStep == job.nCh && d.pixStep == job.nCh &&
                        s.chanStep == ptrdiff_t{sizeof(S)} && d.chanStep == ptrdiff_t{sizeof(D)};
    if (packed) {
        const ptrdiff_t n = ptrdiff_t{job.width} * job.nCh;
        for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
            runOf(op, reinterpret_cast<const S*>(sRow), reinterpret_cast<D*>(dRow), n);
        }
        return;
    }
    for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
        for (int32_t c = 0; c < job.nCh; ++c) {
            const S* sp = reinterpret_cast<const S*>(sRow + c * s.chanStep);
            D* dp = reinterpret_cast<D*>(dRow + c * d.chanStep);
            if (s.pixStep == 1 && d.pixStep == 1) runOf(op, sp, dp, job.width);
            else stridedOf(op, sp, s.pixStep, dp, d.pixStep, job.width);
        }
    }
}

template <class Op>
void elementWorker(const Job& job) {
    elementRows<Op>(job);
}

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
template <class Op>
__attribute__((target("avx2"))) void elementWorkerAvx2(const Job& job) {
    elementRows<Op>(job);
}
#define KUV_DEPTH_AVX2(Op) &elementWorkerAvx2<Op>
#else
#define KUV_DEPTH_AVX2(Op) &elementWorker<Op>
#endif

struct WorkerPair {
    PieceWorker base = nullptr, avx2 = nullptr;
    PieceWorker pick() const { return useVectorWorkers() ? avx2 : base; }
};

// A functor that declares kDefined false has no entry: its pair is refused
// before the table is read.
template <class Op>
constexpr WorkerPair workersOf() {
    if constexpr (Op::kDefined) return WorkerPair{&elementWorker<Op>, KUV_DEPTH_AVX2(Op)};
    else return WorkerPair{};
}

// table[source][destination] over the integer element types.
template <template <class, class> class Op>
using PairTable = std::array<std::array<WorkerPair, kIntDepths>, kIntDepths>;

template <template <class, class> class Op, class S, size_t... I>
constexpr std::array<WorkerPair, kIntDepths> rowOfTable(std::index_sequence<I...>) {
    return {workersOf<Op<S, std::tuple_element_t<I, IntTypes>>>()...};
}

template <template <class, class> class Op, size_t... I>
constexpr PairTable<Op> pairTable(std::index_sequence<I...>) {
    return {rowOfTable<Op, std::tuple_element_t<I, IntTypes>>(
        std::make_index_sequence<kIntDepths>{})...};
}

template <template <class, class> class Op>
constexpr PairTable<Op> pairTable() {
    return pairTable<Op>(std::make_index_sequence<kIntDepths>{});
}

// table[i]: Op<type i> for one-sided families (float on the other side).
template <template <class> class Op, size_t... I>
constexpr std::array<WorkerPair, kIntDepths> sideTable(std::index_sequence<I...>) {
    return {workersOf<Op<std::tuple_element_t<I, IntTypes>>>()...};
}

template <template <class> class Op>
constexpr std::array<WorkerPair, kIntDepths> sideTable() {
    return sideTable<Op>(std::make_index_sequence<kIntDepths>{});
}

}  // namespace kuv::depth

#endif
