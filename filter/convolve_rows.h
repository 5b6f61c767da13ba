// The arithmetic of the convolution's row operations, written once for every
// instruction set: the baseline rows are these loops; the vector rows do the
// same operations on several samples at once and finish a row's tail with
// the element functions here.
//
// Sums follow one model of evaluation: a product of two floats is exact in
// double precision, an expression is evaluated in double precision, and a
// store to a float row rounds to single precision. So:
//   skip-zero and unit loops  acc = float(acc + x*k) per nonzero tap
//   dense loop                acc = float(acc + (x0*k0 + x1*k1)) per pair of
//                             kernel rows and column; a last odd row alone
//   fixed 3x3, 5x5            float(x0*k0 + x1*k1 + ...), rounded once, for
//                             integer kernels; float kernels on float images
//                             sum in single precision instead, one fused
//                             multiply-add per tap in stored order: the order
//                             inside a fixed shape is free, and the double
//                             sum costs twice the time of the single one
// An exact kernel (every partial sum an integer below 2^24) gives the exact
// sum in any order of float operations, fused or not; its loops skip the
// double precision and the zeros.
#ifndef KUV_FILTER_CONVOLVE_ROWS_H
#define KUV_FILTER_CONVOLVE_ROWS_H

#include "filter/convolve.h"

#include <cmath>

namespace kuv::conv {

// ------------------------------------------------------------------ taps

// Where the taps of a kernel lie and what they weigh.
struct Taps {
    const float* src;      // the sample of tap (0, 0) for output sample 0
    ptrdiff_t rowStride;   // floats from a kernel row to the next
    int32_t channels;      // floats from a kernel column to the next
    int32_t nRows, nCols;
    const float* k;   // stored order, row-major

    const float* at(int32_t r, int32_t c) const { return src + r * rowStride + c * channels; }
    float weight(int32_t r, int32_t c) const { return k[r * nCols + c]; }
};

// One output sample i of each loop, from the starting value s.
[[gnu::always_inline]] inline float exactAt(const Taps& t, int32_t i, float s) {
    for (int32_t r = 0; r < t.nRows; ++r) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const float k = t.weight(r, c);
            if (k != 0.0f) s += t.at(r, c)[i] * k;
        }
    }
    return s;
}

[[gnu::always_inline]] inline float tapsAt(const Taps& t, int32_t i, float s) {
    for (int32_t r = 0; r < t.nRows; ++r) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            const float k = t.weight(r, c);
            if (k != 0.0f) {
                s = static_cast<float>(static_cast<double>(s) +
                                       static_cast<double>(t.at(r, c)[i]) * k);
            }
        }
    }
    return s;
}

[[gnu::always_inline]] inline float densePair(float s, float x0, float k0, float x1, float k1) {
    const double pair = static_cast<double>(x0) * k0 + static_cast<double>(x1) * k1;
    return static_cast<float>(static_cast<double>(s) + pair);
}

[[gnu::always_inline]] inline float denseAt(const Taps& t, int32_t i, float s) {
    int32_t r = 0;
    for (; r + 1 < t.nRows; r += 2) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            s = densePair(s, t.at(r, c)[i], t.weight(r, c), t.at(r + 1, c)[i], t.weight(r + 1, c));
        }
    }
    if (r < t.nRows) {
        for (int32_t c = 0; c < t.nCols; ++c) {
            s = static_cast<float>(static_cast<double>(s) +
                                   static_cast<double>(t.at(r, c)[i]) * t.weight(r, c));
        }
    }
    return s;
}

// All products, zeros too, summed in double from the first one on.
[[gnu::always_inline]] inline float roundedAt(const Taps& t, int32_t i) {
    double s = static_cast<double>(t.at(0, 0)[i]) * t.weight(0, 0);
    for (int32_t j = 1; j < t.nRows * t.nCols; ++j) {
        const int32_t r = j / t.nCols, c = j % t.nCols;
        s += static_cast<double>(t.at(r, c)[i]) * t.weight(r, c);
    }
    return static_cast<float>(s);
}

// All products, zeros too, in single precision from the first one on, each
// later tap added with one rounding.
[[gnu::always_inline]] inline float fusedAt(const Taps& t, int32_t i) {
    float s = t.at(0, 0)[i] * t.weight(0, 0);
    for (int32_t j = 1; j < t.nRows * t.nCols; ++j) {
        const int32_t r = j / t.nCols, c = j % t.nCols;
        s = std::fma(t.at(r, c)[i], t.weight(r, c), s);
    }
    return s;
}

// ------------------------------------------------------------------ totals

[[gnu::always_inline]] inline float addSquareOf(float total, float r) {
    return static_cast<float>(static_cast<double>(total) + static_cast<double>(r) * r);
}
// The forms of the vector instructions: the first operand wins a tie or NaN.
[[gnu::always_inline]] inline float largerOf(float t, float r) { return t > r ? t : r; }
[[gnu::always_inline]] inline float smallerOf(float t, float r) { return t < r ? t : r; }

// The folds of the plan, as element functors over (total, result); each
// instruction set runs them through its own loop, which vectorises by itself.
struct FoldCopy {
    float operator()(float, float r) const { return r; }
};
struct FoldAdd {
    float operator()(float t, float r) const { return t + r; }
};
struct FoldSquare {
    float operator()(float, float r) const { return r * r; }
};
struct FoldAddSquare {
    float operator()(float t, float r) const { return addSquareOf(t, r); }
};
struct FoldAbsolute {
    float operator()(float, float r) const { return std::fabs(r); }
};
struct FoldMaximum {
    float operator()(float t, float r) const { return largerOf(t, r); }
};
struct FoldMinimum {
    float operator()(float t, float r) const { return smallerOf(t, r); }
};

template <class F>
[[gnu::always_inline]] inline void foldRow(float* total, const float* acc, int32_t n) {
    const F f;
    for (int32_t i = 0; i < n; ++i) total[i] = f(total[i], acc[i]);
}

// The square root of a sum of squares, taken in double precision.
[[gnu::always_inline]] inline void rootRow(float* total, int32_t n) {
    for (int32_t i = 0; i < n; ++i) {
        total[i] = static_cast<float>(std::sqrt(static_cast<double>(total[i])));
    }
}

}   // namespace kuv::conv

#endif
