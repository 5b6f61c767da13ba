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

// 4-byte elements d[k] = table[s[k]] for k < n (AVX-512 VBMI), in bytetable.cpp.
void byteTableRun(const uint8_t* s, void* d, ptrdiff_t n, const void* table);
bool haveByteTableRuns();

// How a worker moves along a run of elements: the plain loops, which the
// compiler vectorises for the worker's instruction set.
struct PlainRuns {
    template <class Op>
    [[gnu::always_inline]] static void run(const Op& op, const typename Op::S* __restrict s,
                                           typename Op::D* __restrict d, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) d[k] = op(s[k]);
    }
    template <class Op>
    [[gnu::always_inline]] static void strided(const Op& op, const typename Op::S* __restrict s,
                                               ptrdiff_t ps, typename Op::D* __restrict d,
                                               ptrdiff_t pd, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) d[k * pd] = op(s[k * ps]);
    }
    // All channels of a row between pixel order and planes. One loop over the
    // pixels lets the compiler gather a group of 3 or 4 elements with byte
    // permutes; a strided loop per channel would gather element by element.
    template <class Op>
    [[gnu::always_inline]] static void split3(const Op& op, const typename Op::S* __restrict s,
                                              typename Op::D* __restrict d0,
                                              typename Op::D* __restrict d1,
                                              typename Op::D* __restrict d2, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) {
            d0[k] = op(s[3 * k]);
            d1[k] = op(s[3 * k + 1]);
            d2[k] = op(s[3 * k + 2]);
        }
    }
    template <class Op>
    [[gnu::always_inline]] static void split4(
        const Op& op, const typename Op::S* __restrict s, typename Op::D* __restrict d0,
        typename Op::D* __restrict d1, typename Op::D* __restrict d2,
        typename Op::D* __restrict d3, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) {
            d0[k] = op(s[4 * k]);
            d1[k] = op(s[4 * k + 1]);
            d2[k] = op(s[4 * k + 2]);
            d3[k] = op(s[4 * k + 3]);
        }
    }
    template <class Op>
    [[gnu::always_inline]] static void merge3(const Op& op, const typename Op::S* __restrict s0,
                                              const typename Op::S* __restrict s1,
                                              const typename Op::S* __restrict s2,
                                              typename Op::D* __restrict d, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) {
            d[3 * k] = op(s0[k]);
            d[3 * k + 1] = op(s1[k]);
            d[3 * k + 2] = op(s2[k]);
        }
    }
    template <class Op>
    [[gnu::always_inline]] static void merge4(
        const Op& op, const typename Op::S* __restrict s0, const typename Op::S* __restrict s1,
        const typename Op::S* __restrict s2, const typename Op::S* __restrict s3,
        typename Op::D* __restrict d, ptrdiff_t n) {
        for (ptrdiff_t k = 0; k < n; ++k) {
            d[4 * k] = op(s0[k]);
            d[4 * k + 1] = op(s1[k]);
            d[4 * k + 2] = op(s2[k]);
            d[4 * k + 3] = op(s3[k]);
        }
    }
};

// Rows of 3 or 4 channels with pixel order on one side and planes on the
// other, all channels of a row in one loop. False for any other layout.
template <class Op, class Runs>
[[gnu::always_inline]] inline bool groupedRows(const Job& job, const Op& op) {
    using S = typename Op::S;
    using D = typename Op::D;
    const Side &s = job.src, &d = job.dst;
    const int32_t n = job.nCh;
    if (n != 3 && n != 4) return false;
    const bool split = s.pixStep == n && s.chanStep == ptrdiff_t{sizeof(S)} && d.pixStep == 1;
    const bool merge = d.pixStep == n && d.chanStep == ptrdiff_t{sizeof(D)} && s.pixStep == 1;
    if (!split && !merge) return false;
    const char* sRow = s.base;
    char* dRow = d.base;
    const auto in = [&](int c) { return reinterpret_cast<const S*>(sRow + c * s.chanStep); };
    const auto out = [&](int c) { return reinterpret_cast<D*>(dRow + c * d.chanStep); };
    for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
        if (split && n == 3) Runs::split3(op, in(0), out(0), out(1), out(2), job.width);
        else if (split) Runs::split4(op, in(0), out(0), out(1), out(2), out(3), job.width);
        else if (n == 3) Runs::merge3(op, in(0), in(1), in(2), out(0), job.width);
        else Runs::merge4(op, in(0), in(1), in(2), in(3), out(0), job.width);
    }
    return true;
}

// Rows, then channels, then columns. Packed pixels on both sides make a row
// one run; pixel order against planes takes a row of all channels at once;
// single elements per pixel on both sides make a channel's row one run;
// anything else steps through the pixels.
template <class Op, class Runs = PlainRuns>
[[gnu::always_inline]] inline void elementRows(const Job& job, const Op& op) {
    using S = typename Op::S;
    using D = typename Op::D;
    const Side &s = job.src, &d = job.dst;
    const char* sRow = s.base;
    char* dRow = d.base;
    const bool packed = s.pixStep == job.nCh && d.pixStep == job.nCh &&
                        s.chanStep == ptrdiff_t{sizeof(S)} && d.chanStep == ptrdiff_t{sizeof(D)};
    if (packed) {
        ptrdiff_t n = ptrdiff_t{job.width} * job.nCh;
        int32_t rows = job.height;
        // Rows that follow each other with no padding on both sides are one run.
        if (s.rowStep == n * ptrdiff_t{sizeof(S)} && d.rowStep == n * ptrdiff_t{sizeof(D)}) {
            n *= rows;
            rows = 1;
        }
        for (int32_t y = 0; y < rows; ++y, sRow += s.rowStep, dRow += d.rowStep) {
            Runs::run(op, reinterpret_cast<const S*>(sRow), reinterpret_cast<D*>(dRow), n);
        }
        return;
    }
    if (groupedRows<Op, Runs>(job, op)) return;
    for (int32_t y = 0; y < job.height; ++y, sRow += s.rowStep, dRow += d.rowStep) {
        for (int32_t c = 0; c < job.nCh; ++c) {
            const S* sp = reinterpret_cast<const S*>(sRow + c * s.chanStep);
            D* dp = reinterpret_cast<D*>(dRow + c * d.chanStep);
            if (s.pixStep == 1 && d.pixStep == 1) Runs::run(op, sp, dp, job.width);
            else Runs::strided(op, sp, s.pixStep, dp, d.pixStep, job.width);
        }
    }
}

// The float maps round the product and the sum each on its own; a fused
// multiply-add would round once and give other integers at the ties, so no
// worker lets the compiler contract them, whatever the build's flags.
#if defined(__GNUC__) && !defined(__clang__)
#define KUV_DEPTH_SEPARATE_ROUNDING optimize("fp-contract=off")
#else
#define KUV_DEPTH_SEPARATE_ROUNDING
#endif

template <class Op>
__attribute__((KUV_DEPTH_SEPARATE_ROUNDING)) void elementWorker(const Job& job) {
    elementRows(job, Op(job.param));
}

// The same loop for wider instruction sets. Integer maps move little data
// per element and run fastest in 128-bit vectors with AVX2's instructions,
// and in 256-bit ones where AVX-512's word and byte instructions (narrowing
// moves and the byte permutes that split pixels into planes among them) are
// there; the double-precision maps of the float scale gain from every lane,
// and most from AVX-512's conversions.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
template <class Op>
__attribute__((target("avx2,prefer-vector-width=128"), KUV_DEPTH_SEPARATE_ROUNDING)) void
elementWorkerAvx2Narrow(const Job& job) {
    elementRows(job, Op(job.param));
}

template <class Op>
__attribute__((target("avx2"), KUV_DEPTH_SEPARATE_ROUNDING)) void elementWorkerAvx2(
    const Job& job) {
    elementRows(job, Op(job.param));
}

template <class Op>
__attribute__((target("avx512f,avx512vl,avx512dq,avx512bw,avx512vbmi,prefer-vector-width=256"),
               KUV_DEPTH_SEPARATE_ROUNDING)) void
elementWorkerAvx512Narrow(const Job& job) {
    elementRows(job, Op(job.param));
}

// A byte source has 256 values: a map into 4-byte elements that is dear per
// element (the double-precision float maps) becomes a table of 256 results,
// made by the map itself, looked up 64 elements at a time.
template <class Op>
struct ByteTable {
    using S = typename Op::S;
    using D = typename Op::D;
    alignas(64) D table[256];
    D operator()(S v) const { return table[static_cast<uint8_t>(v)]; }
};

struct ByteTableRuns : PlainRuns {
    template <class Op>
    static void run(const Op& op, const typename Op::S* s, typename Op::D* d, ptrdiff_t n) {
        byteTableRun(reinterpret_cast<const uint8_t*>(s), d, n, op.table);
    }
};

// Below this many elements the table costs more than it saves.
constexpr int64_t kByteTableMin = 4096;

template <class Op>
__attribute__((target("avx512f,avx512vl,avx512dq,avx512bw,avx512vbmi"), KUV_DEPTH_SEPARATE_ROUNDING)) void
elementWorkerAvx512(const Job& job) {
    const Op op(job.param);
    using S = typename Op::S;
    using D = typename Op::D;
    if constexpr (sizeof(S) == 1 && sizeof(D) == 4) {
        if (haveByteTableRuns() && int64_t{job.width} * job.height * job.nCh >= kByteTableMin) {
            ByteTable<Op> table;
            for (int v = 0; v < 256; ++v) table.table[v] = op(static_cast<S>(v));
            elementRows<ByteTable<Op>, ByteTableRuns>(job, table);
            return;
        }
    }
    elementRows(job, op);
}
#define KUV_DEPTH_HAVE_VECTOR_WORKERS 1
#endif

// A worker per instruction set level; an empty entry falls back to the
// level below.
struct WorkerSet {
    PieceWorker byLevel[kVectorLevels] = {};
    PieceWorker pick() const {
        for (int level = vectorLevel(); level > 0; --level) {
            if (byLevel[level] != nullptr) return byLevel[level];
        }
        return byLevel[LEVEL_BASE];
    }
};

// A functor that declares kDefined false has no entry: its pair is refused
// before the table is read. One that declares kWideMath computes in double.
template <class Op>
constexpr WorkerSet workersOf() {
    if constexpr (!Op::kDefined) {
        return WorkerSet{};
    } else {
#ifdef KUV_DEPTH_HAVE_VECTOR_WORKERS
        if constexpr (Op::kWideMath) {
            return WorkerSet{{&elementWorker<Op>, &elementWorkerAvx2<Op>, &elementWorkerAvx512<Op>}};
        } else {
            return WorkerSet{{&elementWorker<Op>, &elementWorkerAvx2Narrow<Op>,
                              &elementWorkerAvx512Narrow<Op>}};
        }
#else
        return WorkerSet{{&elementWorker<Op>, nullptr, nullptr}};
#endif
    }
}

// table[source][destination] over the integer element types.
template <template <class, class> class Op>
using PairTable = std::array<std::array<WorkerSet, kIntDepths>, kIntDepths>;

template <template <class, class> class Op, class S, size_t... I>
constexpr std::array<WorkerSet, kIntDepths> rowOfTable(std::index_sequence<I...>) {
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
constexpr std::array<WorkerSet, kIntDepths> sideTable(std::index_sequence<I...>) {
    return {workersOf<Op<std::tuple_element_t<I, IntTypes>>>()...};
}

template <template <class> class Op>
constexpr std::array<WorkerSet, kIntDepths> sideTable() {
    return sideTable<Op>(std::make_index_sequence<kIntDepths>{});
}

}  // namespace kuv::depth

#endif
