// Selection networks for the median of 3x3 and 5x5 windows, built at
// compile time.
//
// Both start from the window's columns sorted (a column is shared by the
// outputs beside it). 3x3: the median is the median of the largest of the
// column minima, the median of the column medians and the smallest of the
// column maxima. 5x5: neighbouring sorted columns are merged into sorted
// pairs P (shared as well); two pairs merge into four columns of which only
// ranks 8 to 13 (of 20) are kept; the 13th of those and the fifth column is
// then min over i of max(column rank i, quad rank 13 - i).
//
// The merges are Batcher's odd-even merges, padded to a power of two with
// places that hold "larger than anything" (a comparator that meets one is a
// renaming, not an operation), and pruned backwards from the ranks that are
// wanted: a comparator whose larger result nobody reads becomes a minimum.
#ifndef KUV_FILTER_RANK_NET_H
#define KUV_FILTER_RANK_NET_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>

namespace kuv::nlf::net {

enum : int8_t { BOTH = 0, LOW = 1, HIGH = 2 };

// A comparator: wire a receives the smaller value, wire b the larger; LOW
// and HIGH keep only the one that is needed.
struct Op {
    int8_t a, b, kind;
};

inline constexpr int maxOps = 96;
inline constexpr int maxWires = 32;

struct Network {
    int count = 0;
    Op op[maxOps]{};
    int8_t rank[maxWires]{};   // the wire that holds each rank after the network
};

// Batcher's merge of the places lo, lo + r, lo + 2r, ... of an array of n
// places, n a power of two, whose two halves are sorted.
constexpr void oddEvenMerge(int lo, int n, int r, int (*pairs)[2], int& count) {
    const int m = r * 2;
    if (m < n) {
        oddEvenMerge(lo, n, m, pairs, count);
        oddEvenMerge(lo + r, n, m, pairs, count);
        for (int i = lo + r; i + r < lo + n; i += m) {
            pairs[count][0] = i;
            pairs[count][1] = i + r;
            ++count;
        }
    } else {
        pairs[count][0] = lo;
        pairs[count][1] = lo + r;
        ++count;
    }
}

// The merge of the sorted wires a[0..na) and b[0..nb).
constexpr Network merge(const int8_t* a, int na, const int8_t* b, int nb) {
    Network net;
    int p = 1;
    while (p < na || p < nb) p *= 2;
    int8_t place[2 * maxWires]{};
    for (int k = 0; k < p; ++k) {
        place[k] = k < na ? a[k] : -1;
        place[p + k] = k < nb ? b[k] : -1;
    }
    int pairs[4 * maxOps][2]{};
    int count = 0;
    oddEvenMerge(0, 2 * p, 1, pairs, count);
    for (int k = 0; k < count; ++k) {
        int8_t& x = place[pairs[k][0]];
        int8_t& y = place[pairs[k][1]];
        if (y < 0) continue;   // the larger place is empty: nothing moves
        if (x < 0) {           // the value moves down into the empty place
            x = y;
            y = -1;
            continue;
        }
        net.op[net.count++] = Op{x, y, BOTH};
    }
    int r = 0;
    for (int k = 0; k < 2 * p; ++k) {
        if (place[k] >= 0) net.rank[r++] = place[k];
    }
    return net;
}

// Keeps only the comparators that lead to the ranks first .. last.
constexpr Network prune(const Network& full, int first, int last) {
    bool live[maxWires]{};
    for (int k = first; k <= last; ++k) live[full.rank[k]] = true;
    Op kept[maxOps]{};
    int n = 0;
    for (int k = full.count - 1; k >= 0; --k) {
        Op o = full.op[k];
        const bool la = live[o.a], lb = live[o.b];
        if (!la && !lb) continue;
        o.kind = la && lb ? BOTH : la ? LOW : HIGH;
        kept[n++] = o;
        live[o.a] = live[o.b] = true;
    }
    Network out;
    out.count = n;
    for (int k = 0; k < n; ++k) out.op[k] = kept[n - 1 - k];
    for (int k = 0; k < maxWires; ++k) out.rank[k] = full.rank[k];
    return out;
}

constexpr Network sorter(std::initializer_list<std::pair<int, int>> pairs) {
    Network net;
    for (const auto& [a, b] : pairs) {
        net.op[net.count++] = Op{static_cast<int8_t>(a), static_cast<int8_t>(b), BOTH};
    }
    for (int k = 0; k < maxWires; ++k) net.rank[k] = static_cast<int8_t>(k);
    return net;
}

constexpr int8_t wires[20] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};

// Sorts of three and five wires.
inline constexpr Network sort3 = sorter({{0, 1}, {1, 2}, {0, 1}});
inline constexpr Network sort5 =
    sorter({{0, 1}, {3, 4}, {2, 4}, {2, 3}, {1, 4}, {0, 3}, {0, 2}, {1, 3}, {1, 2}});
// Two sorted columns of five (wires 0-4, 5-9) into a sorted pair of ten.
inline constexpr Network pair5 = merge(wires, 5, wires + 5, 5);
// Two sorted pairs (wires 0-9, 10-19) into ranks 7 to 12 (from 0) of twenty.
inline constexpr Network quad5 = prune(merge(wires, 10, wires + 10, 10), 7, 12);

// ------------------------------------------------------------------ running

// Values are scalars or GCC vectors: both compare with < and select with ?:.
template <class X>
[[gnu::always_inline]] inline X lower(X a, X b) {
    return b < a ? b : a;
}
template <class X>
[[gnu::always_inline]] inline X upper(X a, X b) {
    return a < b ? b : a;
}

template <Op O, class X>
[[gnu::always_inline]] inline void step(X* w) {
    if constexpr (O.kind == BOTH) {
        const X l = lower(w[O.a], w[O.b]);
        const X h = upper(w[O.a], w[O.b]);
        w[O.a] = l;
        w[O.b] = h;
    } else if constexpr (O.kind == LOW) {
        w[O.a] = lower(w[O.a], w[O.b]);
    } else {
        w[O.b] = upper(w[O.a], w[O.b]);
    }
}

template <const Network& N, class X, size_t... I>
[[gnu::always_inline]] inline void runOps(X* w, std::index_sequence<I...>) {
    (step<N.op[I]>(w), ...);
}

// Applies network N to the wires w, unrolled.
template <const Network& N, class X>
[[gnu::always_inline]] inline void run(X* w) {
    runOps<N>(w, std::make_index_sequence<N.count>());
}

}  // namespace kuv::nlf::net

#endif
