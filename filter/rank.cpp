// The rank filters: kuvMaxFilter, kuvMinFilter and kuvMedianFilter.
//
// Maximum and minimum are separable: the extreme along each source row into
// a ring of nRows rows, then the extreme down the ring. The median takes one
// of three strategies by depth and window (ownMedianMethod): selection, a
// sliding 256-bin histogram for 8-bit samples, or a 16-bin radix search for
// 16-bit ones; bit images count set bits. Where the processor has AVX2, 3x3
// and 5x5 medians of 8- and 16-bit samples run selection networks over 32
// bytes at a time instead; the median of a window is one value, so every
// path gives the same pixels.
// Vector values only live inside functions that carry the vector target,
// where nothing passes them by value across a call.
#pragma GCC diagnostic ignored "-Wpsabi"

#include "filter/nlf_rows.h"
#include "filter/rank_net.h"
#include "filter/rowconv.h"

#include <source_location>
#include <type_traits>

namespace {

using namespace kuv::nlf;
using kuv::rowconv::Element;

constexpr const char* kFile = ownNlfFile;

// ------------------------------------------------------------------ vectors

template <class T>
struct VectorOf;
template <>
struct VectorOf<uint8_t> {
    typedef uint8_t type __attribute__((vector_size(32)));
};
template <>
struct VectorOf<int8_t> {
    typedef int8_t type __attribute__((vector_size(32)));
};
template <>
struct VectorOf<uint16_t> {
    typedef uint16_t type __attribute__((vector_size(32)));
};
template <>
struct VectorOf<int16_t> {
    typedef int16_t type __attribute__((vector_size(32)));
};
template <>
struct VectorOf<int32_t> {
    typedef int32_t type __attribute__((vector_size(32)));
};

template <class X, class T>
[[gnu::always_inline]] inline X load(const T* p) {
    if constexpr (std::is_same_v<X, T>) {
        return *p;
    } else {
        X v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
}
template <class X, class T>
[[gnu::always_inline]] inline void store(T* p, X v) {
    if constexpr (std::is_same_v<X, T>) *p = v;
    else std::memcpy(p, &v, sizeof v);
}

// f<X>(i) for i in [0, count): 32 bytes of samples at a time, the tail one
// sample at a time with the same code.
template <class T, class F>
[[gnu::always_inline]] inline void eachSample(int32_t count, F&& f) {
    using V = typename VectorOf<T>::type;
    constexpr int32_t lanes = 32 / sizeof(T);
    int32_t i = 0;
    for (; i + lanes <= count; i += lanes) f.template operator()<V>(i);
    for (; i < count; ++i) f.template operator()<T>(i);
}

// The same for operations whose output is not one of their inputs: the tail
// is the last 32 bytes again, overlapping what is done.
template <class T, class F>
[[gnu::always_inline]] inline void eachSampleAgain(int32_t count, F&& f) {
    using V = typename VectorOf<T>::type;
    constexpr int32_t lanes = 32 / sizeof(T);
    if (count < lanes) {
        for (int32_t i = 0; i < count; ++i) f.template operator()<T>(i);
        return;
    }
    int32_t i = 0;
    for (; i + lanes <= count; i += lanes) f.template operator()<V>(i);
    if (i < count) f.template operator()<V>(count - lanes);
}

// ------------------------------------------------------------------ maximum, minimum

template <bool Max, class X>
[[gnu::always_inline]] inline X pick(X a, X b) {
    if constexpr (Max) return net::upper(a, b);
    else return net::lower(a, b);
}

// Row stage: the extreme of `taps` samples `c` apart. Taps > 0 fixes the
// count at compile time.
template <class T, bool Max, int Taps>
[[gnu::always_inline]] inline void extremeAlong(const T* s, T* o, int32_t n, int32_t c,
                                                int32_t taps) {
    if constexpr (Taps > 0) {
        eachSampleAgain<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
            X v = load<X>(s + i);
            for (int k = 1; k < Taps; ++k) v = pick<Max>(v, load<X>(s + i + k * c));
            store(o + i, v);
        });
    } else {
        std::memcpy(o, s, sizeof(T) * static_cast<size_t>(n));
        for (int32_t k = 1; k < taps; ++k) {
            const T* t = s + int64_t{k} * c;
            eachSample<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
                store(o + i, pick<Max>(load<X>(o + i), load<X>(t + i)));
            });
        }
    }
}

// Column stage for two output rows at once: rows[0 .. count] are the window
// rows of the first output and the one below, top first. The rows both share
// are taken once; o1 null asks for the first output alone. Rows > 0 fixes
// count (the window's height) at compile time.
template <class T, bool Max, int Rows>
[[gnu::always_inline]] inline void extremeDown(const T* const* rows, int32_t count, T* o0, T* o1,
                                               int32_t n, T* shared) {
    if constexpr (Rows > 1) {
        const T* r[Rows + 1];
        for (int k = 0; k < Rows; ++k) r[k] = rows[k];
        r[Rows] = o1 != nullptr ? rows[Rows] : rows[0];
        eachSampleAgain<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
            X v = load<X>(r[1] + i);
            for (int k = 2; k < Rows; ++k) v = pick<Max>(v, load<X>(r[k] + i));
            store(o0 + i, pick<Max>(v, load<X>(r[0] + i)));
            if (o1 != nullptr) store(o1 + i, pick<Max>(v, load<X>(r[Rows] + i)));
        });
    } else {
        if (count > 1) std::memcpy(shared, rows[1], sizeof(T) * static_cast<size_t>(n));
        for (int32_t k = 2; k < count; ++k) {
            const T* t = rows[k];
            eachSample<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
                store(shared + i, pick<Max>(load<X>(shared + i), load<X>(t + i)));
            });
        }
        const T* ends[2] = {rows[0], o1 != nullptr ? rows[count] : nullptr};
        T* outs[2] = {o0, o1};
        for (int e = 0; e < 2 && outs[e] != nullptr; ++e) {
            if (count == 1) {
                std::memcpy(outs[e], ends[e], sizeof(T) * static_cast<size_t>(n));
                continue;
            }
            eachSampleAgain<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
                store(outs[e] + i, pick<Max>(load<X>(shared + i), load<X>(ends[e] + i)));
            });
        }
    }
}

template <class T, bool Max, int Taps, int Rows>
[[gnu::always_inline]] inline bool extremeBody(const OwnNlfBlock& b) {
    const OwnNlfRequest& q = *b.request;
    const Lines l = linesOf(b);
    const bool masked = hasMask(b);
    const bool direct = !masked && l.store == 1;
    const int32_t slots = q.nRows + 1;
    Scratch s(Scratch::pieceBytes<T>(l.n) * (slots + 3) + Scratch::pieceBytes<const T*>(slots) * 2 +
              Scratch::pieceBytes<uint8_t>(l.n));
    if (!s.ok()) return false;
    T** ring = s.take<T*>(slots);
    for (int32_t k = 0; k < slots; ++k) ring[k] = s.take<T>(l.n);
    const T** window = s.take<const T*>(slots);
    T* res[2] = {s.take<T>(l.n), s.take<T>(l.n)};
    T* shared = s.take<T>(l.n);
    uint8_t* we = masked ? s.take<uint8_t>(l.n) : nullptr;

    for (int p = 0; p < l.planes; ++p) {
        int32_t next = 0;   // the next source row for the row stage
        for (int32_t j = 0; j < b.height; j += 2) {
            const bool pair = j + 1 < b.height;
            for (; next < j + q.nRows + (pair ? 1 : 0); ++next) {
                extremeAlong<T, Max, Taps>(sourceRow<T>(b, l, p, next), ring[next % slots], l.n,
                                           l.channels, q.nCols);
            }
            for (int32_t k = 0; k < q.nRows + (pair ? 1 : 0); ++k) window[k] = ring[(j + k) % slots];
            T* dst[2] = {destinationRow<T>(b, l, p, j),
                         pair ? destinationRow<T>(b, l, p, j + 1) : nullptr};
            T* out[2] = {direct ? dst[0] : res[0], pair ? (direct ? dst[1] : res[1]) : nullptr};
            extremeDown<T, Max, Rows>(window, q.nRows, out[0], out[1], l.n, shared);
            if (direct) continue;
            for (int e = 0; e < (pair ? 2 : 1); ++e) {
                if (masked) maskRow(b, l, j + e, we);
                storeRow(dst[e], res[e], l, we);
            }
        }
    }
    return true;
}

template <class T, bool Max, int Taps, int Rows>
bool extremeBase(const OwnNlfBlock& b) {
    return extremeBody<T, Max, Taps, Rows>(b);
}
template <class T, bool Max, int Taps, int Rows>
KUV_NLF_AVX2 bool extremeAvx2(const OwnNlfBlock& b) {
    return extremeBody<T, Max, Taps, Rows>(b);
}

// The worker of one depth, minimum or maximum, path and window shape: 3x3,
// 5x5 or any.
template <class T, bool Max>
constexpr OwnNlfWorker extremeFor(bool vector, int shape) {
    constexpr OwnNlfWorker base[3] = {extremeBase<T, Max, 3, 3>, extremeBase<T, Max, 5, 5>,
                                      extremeBase<T, Max, 0, 0>};
    constexpr OwnNlfWorker avx2[3] = {extremeAvx2<T, Max, 3, 3>, extremeAvx2<T, Max, 5, 5>,
                                      extremeAvx2<T, Max, 0, 0>};
    return vector ? avx2[shape] : base[shape];
}

// ------------------------------------------------------------------ bit images

// cnt (1..64) bits of a row from bit pos on, the first in the top bit of the
// result; the bits after them are 0. Reads only the bytes that hold them.
inline uint64_t loadBits(const uint8_t* row, int64_t pos, int cnt) {
    const int64_t first = pos >> 3;
    const int shift = static_cast<int>(pos & 7);
    const int bytes = static_cast<int>(((pos + cnt - 1) >> 3) - first + 1);
    uint64_t v = 0;
    for (int t = 0; t < bytes && t < 8; ++t) v |= uint64_t{row[first + t]} << (56 - 8 * t);
    v <<= shift;
    if (bytes == 9) v |= uint64_t{row[first + 8]} >> (8 - shift);
    return cnt == 64 ? v : v & ~(~uint64_t{0} >> cnt);
}

// Maximum (OR) and minimum (AND) of bits: the row stage 64 output columns at
// a time, the column stage on whole words.
bool extremeBits(const OwnNlfBlock& b) {
    const OwnNlfRequest& q = *b.request;
    const bool isMax = q.mode == OWN_NLF_MAX;
    const int32_t w = b.width;
    const int64_t words = (int64_t{w} + 63) / 64;
    const bool masked = hasMask(b);
    const Lines l = linesOf(b);
    Scratch s(Scratch::pieceBytes<uint64_t>(words) * (int64_t{q.nRows} + 1) +
              Scratch::pieceBytes<uint8_t>(w) * 2);
    if (!s.ok()) return false;
    uint64_t* ring = s.take<uint64_t>(words * q.nRows);
    uint64_t* acc = s.take<uint64_t>(words);
    uint8_t* values = s.take<uint8_t>(w);
    uint8_t* we = masked ? s.take<uint8_t>(w) : nullptr;

    for (int32_t r = 0; r < b.height + q.nRows - 1; ++r) {
        const auto* row = reinterpret_cast<const uint8_t*>(b.src + (int64_t{b.srcY} + r) * b.srcStep);
        uint64_t* slot = ring + (r % q.nRows) * words;
        for (int64_t wd = 0; wd < words; ++wd) {
            const int64_t i0 = wd * 64;
            const int cnt = static_cast<int>(std::min<int64_t>(64, w - i0));
            uint64_t v = loadBits(row, b.srcX + i0, cnt);
            for (int32_t k = 1; k < q.nCols; ++k) {
                const uint64_t u = loadBits(row, b.srcX + i0 + k, cnt);
                v = isMax ? v | u : v & u;
            }
            slot[wd] = v;
        }
        if (r + 1 < q.nRows) continue;
        const int32_t j = r + 1 - q.nRows;
        std::memcpy(acc, ring, sizeof(uint64_t) * static_cast<size_t>(words));
        for (int32_t k = 1; k < q.nRows; ++k) {
            const uint64_t* t = ring + k * words;
            for (int64_t wd = 0; wd < words; ++wd) acc[wd] = isMax ? acc[wd] | t[wd] : acc[wd] & t[wd];
        }
        for (int32_t i = 0; i < w; ++i) values[i] = static_cast<uint8_t>((acc[i >> 6] >> (63 - (i & 63))) & 1);
        if (masked) maskRow(b, l, j, we);
        storeBits(reinterpret_cast<uint8_t*>(b.dst + (int64_t{b.dstY} + j) * b.dstStep), b.dstX,
                  values, we, w);
    }
    return true;
}

// Median of bits: running counts of set bits per column down the window, a
// running sum of nCols counts along the row; a bit is set when at least
// (n >> 1) + (1 if both sides are odd) of the window's bits are.
bool medianBits(const OwnNlfBlock& b) {
    const OwnNlfRequest& q = *b.request;
    const int32_t w = b.width, span = w + q.nCols - 1;
    const int64_t n = int64_t{q.nCols} * q.nRows;
    const int64_t threshold = (n >> 1) + ((q.nCols & q.nRows & 1) != 0 ? 1 : 0);
    const bool masked = hasMask(b);
    const Lines l = linesOf(b);
    Scratch s(Scratch::pieceBytes<uint8_t>(span) * q.nRows + Scratch::pieceBytes<int32_t>(span) +
              Scratch::pieceBytes<uint8_t>(w) * 2);
    if (!s.ok()) return false;
    uint8_t* ring = s.take<uint8_t>(int64_t{span} * q.nRows);
    int32_t* counts = s.take<int32_t>(span);
    uint8_t* values = s.take<uint8_t>(w);
    uint8_t* we = masked ? s.take<uint8_t>(w) : nullptr;
    std::memset(counts, 0, sizeof(int32_t) * static_cast<size_t>(span));

    for (int32_t r = 0; r < b.height + q.nRows - 1; ++r) {
        uint8_t* slot = ring + int64_t{r % q.nRows} * span;
        if (r >= q.nRows) {
            for (int32_t i = 0; i < span; ++i) counts[i] -= slot[i];
        }
        const auto* row = reinterpret_cast<const uint8_t*>(b.src + (int64_t{b.srcY} + r) * b.srcStep);
        expandBits(row, b.srcX, span, slot);
        for (int32_t i = 0; i < span; ++i) counts[i] += slot[i];
        if (r + 1 < q.nRows) continue;
        const int32_t j = r + 1 - q.nRows;
        int64_t sum = 0;
        for (int32_t k = 0; k < q.nCols; ++k) sum += counts[k];
        for (int32_t i = 0; i < w; ++i) {
            values[i] = sum >= threshold ? 1 : 0;
            if (i + 1 < w) sum += counts[i + q.nCols] - counts[i];
        }
        if (masked) maskRow(b, l, j, we);
        storeBits(reinterpret_cast<uint8_t*>(b.dst + (int64_t{b.dstY} + j) * b.dstStep), b.dstX,
                  values, we, w);
    }
    return true;
}

// ------------------------------------------------------------------ median strategies

// Samples as keys in ascending order of value: 8- and 16-bit signed samples
// with their sign bit flipped; 32-bit samples as they are.
template <class T>
[[gnu::always_inline]] inline int32_t keyOf(T v) {
    if constexpr (sizeof(T) == 1) return static_cast<uint8_t>(v) ^ (std::is_signed_v<T> ? 0x80 : 0);
    else if constexpr (sizeof(T) == 2) return static_cast<uint16_t>(v) ^ (std::is_signed_v<T> ? 0x8000 : 0);
    else return v;
}
template <class T>
[[gnu::always_inline]] inline T valueOf(int32_t key) {
    if constexpr (sizeof(T) == 1) return static_cast<T>(key ^ (std::is_signed_v<T> ? 0x80 : 0));
    else if constexpr (sizeof(T) == 2) return static_cast<T>(key ^ (std::is_signed_v<T> ? 0x8000 : 0));
    else return static_cast<T>(key);
}

// Selection: the largest entry (the first of equals) is taken out, replaced
// by the last, while at least r entries remain; the last one taken is the
// value of rank r.
int32_t selectRank(int32_t* a, int32_t count, int32_t r) {
    int32_t found = 0;
    while (count >= r) {
        int32_t best = 0;
        for (int32_t k = 1; k < count; ++k) {
            if (a[k] > a[best]) best = k;
        }
        found = a[best];
        a[best] = a[count - 1];
        --count;
    }
    return found;
}

// Radix search over 16-bit keys: four passes of 16 bins, each over the keys
// whose upper nibbles match what was found so far.
int32_t radixRank(const uint16_t* keys, int32_t count, int32_t r) {
    int32_t prefix = 0, below = 0;
    for (int pass = 0; pass < 4; ++pass) {
        const int shift = 12 - 4 * pass;
        int32_t bins[16] = {};
        for (int32_t k = 0; k < count; ++k) {
            if (pass == 0 || (keys[k] >> (shift + 4)) == prefix) ++bins[(keys[k] >> shift) & 15];
        }
        int32_t bin = 0;
        while (below + bins[bin] < r) below += bins[bin++];
        prefix = (prefix << 4) | bin;
    }
    return prefix;
}

// The sliding histogram along one row, per lane of samples `c` apart:
// m is the current median key and cnt the number of samples <= m.
template <class T>
void slideRow(const T* const* rows, const OwnNlfRequest& q, const Lines& l, int32_t positions,
              T* dst, const uint8_t* we, uint32_t* bins, int32_t r) {
    const int32_t c = l.channels;
    const int64_t reach = int64_t{q.nCols} * c;
    const int32_t lanes = l.store == 1 ? c : 1;
    for (int32_t lane = 0; lane < lanes; ++lane) {
        for (int32_t k = 0; k < q.nRows; ++k) {
            for (int32_t x = 0; x < q.nCols; ++x) ++bins[keyOf(rows[k][lane + int64_t{x} * c])];
        }
        int32_t m = 0;
        int64_t cnt = bins[0];
        while (cnt < r) cnt += bins[++m];
        if (we == nullptr || we[lane]) dst[lane] = valueOf<T>(m);
        for (int32_t t = 1; t < positions; ++t) {
            const int64_t i = lane + int64_t{t} * c, prev = i - c;
            for (int32_t k = 0; k < q.nRows; ++k) {
                const int32_t out = keyOf(rows[k][prev]), in = keyOf(rows[k][prev + reach]);
                if (out <= m) --cnt;
                --bins[out];
                if (in <= m) ++cnt;
                ++bins[in];
            }
            if (cnt < r) {
                while (cnt < r) cnt += bins[++m];
            } else {
                while (cnt >= r) cnt -= bins[m--];
                cnt += bins[++m];
            }
            if (we == nullptr || we[i]) dst[i] = valueOf<T>(m);
        }
        const int64_t last = lane + int64_t{positions - 1} * c;
        for (int32_t k = 0; k < q.nRows; ++k) {
            for (int32_t x = 0; x < q.nCols; ++x) bins[keyOf(rows[k][last + int64_t{x} * c])] = 0;
        }
    }
}

template <class T>
bool medianBody(const OwnNlfBlock& b) {
    const OwnNlfRequest& q = *b.request;
    const OwnMedianMethod method = ownMedianMethod(b.depthIndex, q.nCols, q.nRows);
    const Lines l = linesOf(b);
    const int64_t n = int64_t{q.nCols} * q.nRows;
    if (n > INT32_MAX / 4) return false;
    const auto r = static_cast<int32_t>((n >> 1) + 1);
    const bool masked = hasMask(b);
    Scratch s(Scratch::pieceBytes<const T*>(q.nRows) + Scratch::pieceBytes<int32_t>(n) +
              Scratch::pieceBytes<uint16_t>(n) + Scratch::pieceBytes<uint32_t>(256) +
              Scratch::pieceBytes<uint8_t>(l.n));
    if (!s.ok()) return false;
    const T** rows = s.take<const T*>(q.nRows);
    int32_t* values = s.take<int32_t>(n);
    uint16_t* keys = s.take<uint16_t>(n);
    uint32_t* bins = s.take<uint32_t>(256);
    uint8_t* we = masked ? s.take<uint8_t>(l.n) : nullptr;
    std::memset(bins, 0, 256 * sizeof(uint32_t));

    const int32_t c = l.channels;
    for (int p = 0; p < l.planes; ++p) {
        for (int32_t j = 0; j < b.height; ++j) {
            for (int32_t k = 0; k < q.nRows; ++k) rows[k] = sourceRow<T>(b, l, p, j + k);
            T* dst = destinationRow<T>(b, l, p, j);
            if (masked) maskRow(b, l, j, we);
            if (method == OWN_MEDIAN_HISTOGRAM) {
                slideRow(rows, q, l, b.width, dst, we, bins, r);
                continue;
            }
            for (int32_t i = 0; i < l.n; i += l.store) {
                if (we != nullptr && we[i] == 0) continue;
                int32_t count = 0;
                for (int32_t k = 0; k < q.nRows; ++k) {
                    for (int32_t x = 0; x < q.nCols; ++x) {
                        const int32_t key = keyOf(rows[k][i + int64_t{x} * c]);
                        if (method == OWN_MEDIAN_RADIX) keys[count++] = static_cast<uint16_t>(key);
                        else values[count++] = key;
                    }
                }
                const int32_t found = method == OWN_MEDIAN_RADIX ? radixRank(keys, count, r)
                                                                 : selectRank(values, count, r);
                dst[i] = valueOf<T>(found);
            }
        }
    }
    return true;
}

// ------------------------------------------------------------------ median networks

template <class X>
[[gnu::always_inline]] inline X median3(X a, X b, X c) {
    return net::upper(net::lower(a, b), net::lower(net::upper(a, b), c));
}

// Sorts each column of Size rows: sorted[k][i] is rank k of column i.
template <class T, int Size>
[[gnu::always_inline]] inline void sortColumns(const T* const* rows, T* const* sorted, int32_t m) {
    constexpr const net::Network& sorter = Size == 3 ? net::sort3 : net::sort5;
    eachSampleAgain<T>(m, [&]<class X>(int32_t i) __attribute__((always_inline)) {
        X w[Size];
        for (int k = 0; k < Size; ++k) w[k] = load<X>(rows[k] + i);
        net::run<sorter>(w);
        for (int k = 0; k < Size; ++k) store(sorted[k] + i, w[k]);
    });
}

template <class T>
[[gnu::always_inline]] inline void median3x3(T* const* s, T* out, int32_t n, int32_t c) {
    eachSampleAgain<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
        const X lo = net::upper(net::upper(load<X>(s[0] + i), load<X>(s[0] + i + c)),
                                load<X>(s[0] + i + 2 * c));
        const X mid = median3(load<X>(s[1] + i), load<X>(s[1] + i + c), load<X>(s[1] + i + 2 * c));
        const X hi = net::lower(net::lower(load<X>(s[2] + i), load<X>(s[2] + i + c)),
                                load<X>(s[2] + i + 2 * c));
        store(out + i, median3(lo, mid, hi));
    });
}

// Sorted pairs of neighbouring columns: pairs[k][i] is rank k of columns
// i and i + c.
template <class T>
[[gnu::always_inline]] inline void pairColumns(T* const* s, T* const* pairs, int32_t count,
                                               int32_t c) {
    eachSampleAgain<T>(count, [&]<class X>(int32_t i) __attribute__((always_inline)) {
        X w[10];
        for (int k = 0; k < 5; ++k) {
            w[k] = load<X>(s[k] + i);
            w[5 + k] = load<X>(s[k] + i + c);
        }
        net::run<net::pair5>(w);
        for (int k = 0; k < 10; ++k) store(pairs[k] + i, w[net::pair5.rank[k]]);
    });
}

template <class T>
[[gnu::always_inline]] inline void median5x5(T* const* s, T* const* pairs, T* out, int32_t n,
                                             int32_t c) {
    eachSampleAgain<T>(n, [&]<class X>(int32_t i) __attribute__((always_inline)) {
        X w[20];
        for (int k = 0; k < 10; ++k) {
            w[k] = load<X>(pairs[k] + i);
            w[10 + k] = load<X>(pairs[k] + i + 2 * c);
        }
        net::run<net::quad5>(w);
        // Rank 13 of the fifth column A and the four others B: the least of
        // max(A_i, B_(13-i)) for i = 0 .. 5 (ranks from 1, A_0 none).
        X m = w[net::quad5.rank[12]];
        for (int k = 1; k <= 5; ++k) {
            const X a = load<X>(s[k - 1] + i + 4 * c);
            m = net::lower(m, net::upper(a, w[net::quad5.rank[12 - k]]));
        }
        store(out + i, m);
    });
}

template <class T, int Size>
[[gnu::always_inline]] inline bool medianNetworkBody(const OwnNlfBlock& b) {
    const Lines l = linesOf(b);
    const bool masked = hasMask(b);
    const bool direct = !masked && l.store == 1;
    const int pairRows = Size == 5 ? 10 : 0;
    Scratch s(Scratch::pieceBytes<T>(l.loaded) * (Size + pairRows) + Scratch::pieceBytes<T>(l.n) +
              Scratch::pieceBytes<uint8_t>(l.n));
    if (!s.ok()) return false;
    T* sorted[Size];
    for (int k = 0; k < Size; ++k) sorted[k] = s.take<T>(l.loaded);
    T* pairs[10] = {};
    for (int k = 0; k < pairRows; ++k) pairs[k] = s.take<T>(l.loaded);
    T* res = s.take<T>(l.n);
    uint8_t* we = masked ? s.take<uint8_t>(l.n) : nullptr;

    for (int p = 0; p < l.planes; ++p) {
        for (int32_t j = 0; j < b.height; ++j) {
            const T* rows[Size];
            for (int k = 0; k < Size; ++k) rows[k] = sourceRow<T>(b, l, p, j + k);
            sortColumns<T, Size>(rows, sorted, l.loaded);
            T* dst = destinationRow<T>(b, l, p, j);
            T* out = direct ? dst : res;
            if constexpr (Size == 3) {
                median3x3(sorted, out, l.n, l.channels);
            } else {
                pairColumns(sorted, pairs, l.loaded - l.channels, l.channels);
                median5x5(sorted, pairs, out, l.n, l.channels);
            }
            if (direct) continue;
            if (masked) maskRow(b, l, j, we);
            storeRow(dst, res, l, we);
        }
    }
    return true;
}

template <class T, int Size>
KUV_NLF_AVX2 bool medianNetwork(const OwnNlfBlock& b) {
    return medianNetworkBody<T, Size>(b);
}

// A network worker for the window and depth, or null.
OwnNlfWorker networkFor(int depthIndex, int32_t nCols, int32_t nRows) {
    const int size = nCols == nRows && (nCols == 3 || nCols == 5) ? nCols : 0;
    if (size == 0) return nullptr;
    const bool three = size == 3;
    switch (depthIndex) {
        case OWN_8U: return three ? medianNetwork<uint8_t, 3> : medianNetwork<uint8_t, 5>;
        case OWN_8S: return three ? medianNetwork<int8_t, 3> : medianNetwork<int8_t, 5>;
        case OWN_16U: return three ? medianNetwork<uint16_t, 3> : medianNetwork<uint16_t, 5>;
        case OWN_16S: return three ? medianNetwork<int16_t, 3> : medianNetwork<int16_t, 5>;
        default: return nullptr;
    }
}

// ------------------------------------------------------------------ tables

template <int D>
struct RankEntry {
    using T = typename Element<D>::T;
    static OwnNlfWorker extreme(bool vector, bool isMax, int shape) {
        return isMax ? extremeFor<T, true>(vector, shape) : extremeFor<T, false>(vector, shape);
    }
    static constexpr OwnNlfWorker median = medianBody<T>;
};

using ExtremeLookup = OwnNlfWorker (*)(bool, bool, int);
// By depth index; 1U and 32F have no entry here.
constexpr ExtremeLookup extremeTable[OWN_DEPTH_COUNT] = {
    nullptr,
    RankEntry<OWN_8U>::extreme,
    RankEntry<OWN_8S>::extreme,
    RankEntry<OWN_16U>::extreme,
    RankEntry<OWN_16S>::extreme,
    RankEntry<OWN_32S>::extreme,
    nullptr,
};
constexpr OwnNlfWorker medianTable[OWN_DEPTH_COUNT] = {
    medianBits,
    RankEntry<OWN_8U>::median,
    RankEntry<OWN_8S>::median,
    RankEntry<OWN_16U>::median,
    RankEntry<OWN_16S>::median,
    RankEntry<OWN_32S>::median,
    nullptr,
};

// ------------------------------------------------------------------ checks

bool refuse(bool failed, const char* func, const char* text,
            std::source_location where = std::source_location::current()) {
    if (failed) kuvError(KUV_StsBadArgument, func, text, kFile, static_cast<int32_t>(where.line()));
    return failed;
}

void rankFilter(const char* func, OwnNlfMode mode, const KuvImage* srcImage, KuvImage* dstImage,
                int32_t nCols, int32_t nRows, int32_t anchorX, int32_t anchorY) {
    if (kuvCheckImageHeader(srcImage) != 0 || kuvCheckImageHeader(dstImage) != 0) {
        kuvError(kuvGetErrStatus(), func, "Incorrect Image", kFile, __LINE__);
        return;
    }
    if (refuse(anchorX >= nCols || anchorX < 0, func, "(anchorX>=nCols)||(anchorX<0)") ||
        refuse(anchorY >= nRows || anchorY < 0, func, "(anchorY>=nRows)||(anchorY<0)") ||
        refuse(srcImage == dstImage, func, "(srcImage==dstImage)") ||
        refuse(srcImage->depth != dstImage->depth, func, "srcImage->depth!=dstImage->depth") ||
        refuse(srcImage->depth == KUV_DEPTH_32F, func, "srcImage->depth==32") ||
        refuse(srcImage->nChannels != dstImage->nChannels, func,
               "srcImage->nChannels!=dstImage->nChannels") ||
        refuse(srcImage->alphaChannel != dstImage->alphaChannel, func,
               "srcImage->alphaChannel!=dstImage->alphaChannel") ||
        refuse(srcImage->alphaChannel != 0 && srcImage->alphaChannel != srcImage->nChannels, func,
               "(srcImage->alphaChannel!=0)&&(srcImage->alphaChannel!=srcImage->nChannels)") ||
        refuse(srcImage->depth != KUV_DEPTH_1U && srcImage->dataOrder != dstImage->dataOrder, func,
               "srcImage->dataOrder!=dstImage->dataOrder")) {
        return;
    }
    const int32_t channels = ownNlfCountChannels(srcImage, dstImage, func);
    if (kuvGetErrStatus() < 0 || channels == 0) return;
    const OwnNlfRequest request{nCols, nRows, anchorX, anchorY, mode, 0};
    ownNlfDriver(srcImage, dstImage, request, ownRankWorker, false);
}

}  // namespace

OwnMedianMethod ownMedianMethod(int depthIndex, int32_t nCols, int32_t nRows) {
    switch (depthIndex) {
        case OWN_1U: return OWN_MEDIAN_BITS;
        case OWN_8U:
        case OWN_8S:
            if (nRows > 9 || (nCols + nRows > 4 && nCols != 1)) return OWN_MEDIAN_HISTOGRAM;
            return OWN_MEDIAN_SELECTION;
        case OWN_16U:
        case OWN_16S: {
            const int32_t t = nRows <= 3 ? 12 : nRows <= 7 ? 10 : nRows <= 9 ? 11 : 10;
            return int64_t{nCols} + nRows >= t ? OWN_MEDIAN_RADIX : OWN_MEDIAN_SELECTION;
        }
        default: return OWN_MEDIAN_SELECTION;
    }
}

bool ownRankWorker(const OwnNlfBlock& b) {
    const OwnNlfRequest& q = *b.request;
    const bool vector = ownNlfVectorPath();
    if (b.depthIndex == OWN_1U) return q.mode == OWN_NLF_MEDIAN ? medianBits(b) : extremeBits(b);
    if (q.mode != OWN_NLF_MEDIAN) {
        const int shape = q.nCols == 3 && q.nRows == 3 ? 0 : q.nCols == 5 && q.nRows == 5 ? 1 : 2;
        return extremeTable[b.depthIndex](vector, q.mode == OWN_NLF_MAX, shape)(b);
    }
    if (vector) {
        if (OwnNlfWorker network = networkFor(b.depthIndex, q.nCols, q.nRows)) return network(b);
    }
    return medianTable[b.depthIndex](b);
}

KUV_API void kuvMaxFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                          int32_t nRows, int32_t anchorX, int32_t anchorY) {
    rankFilter("kuvMaxFilter", OWN_NLF_MAX, srcImage, dstImage, nCols, nRows, anchorX, anchorY);
}

KUV_API void kuvMinFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                          int32_t nRows, int32_t anchorX, int32_t anchorY) {
    rankFilter("kuvMinFilter", OWN_NLF_MIN, srcImage, dstImage, nCols, nRows, anchorX, anchorY);
}

KUV_API void kuvMedianFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                             int32_t nRows, int32_t anchorX, int32_t anchorY) {
    rankFilter("kuvMedianFilter", OWN_NLF_MEDIAN, srcImage, dstImage, nCols, nRows, anchorX,
               anchorY);
}
