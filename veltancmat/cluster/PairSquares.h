#pragma once

// The squared difference of two rows over the columns where both are
// present, and the count of those columns: the base of every distance
// between rows. Branch-free, so that the loop vectorises also for rows
// with gaps.

#include "veltancmat/containers/frame/MissingValue.h"

#include <cstdint>

namespace DendroGram {

inline double PairSquares(const float* x, const float* y, int columns, int& common)
{
    double squares = 0.0;
    int present = 0;
    // Masks by arithmetic, not by branches, or the loop stays scalar.
#pragma omp simd reduction(+ : squares, present)
    for (int j = 0; j < columns; ++j) {
        const int both = static_cast<int>(!IsMisVal(x[j])) & static_cast<int>(!IsMisVal(y[j]));
        const double d = (static_cast<double>(x[j]) - y[j]) * static_cast<double>(both);
        squares += d * d;
        present += both;
    }
    common = present;
    return squares;
}

// The same for two rows without gaps.
inline double CompleteSquares(const float* x, const float* y, int columns)
{
    double squares = 0.0;
#pragma omp simd reduction(+ : squares)
    for (int j = 0; j < columns; ++j) {
        const double d = static_cast<double>(x[j]) - y[j];
        squares += d * d;
    }
    return squares;
}

// The two for row `x` against `count` other rows: row q is at
// cells + index[q] * columns, or at cells + (first + q) * columns when
// `index` is null. A pair of complete rows has `columns` in common. The
// scan behind every row distance, in the widest vectors the processor has.
void RowPairSquares(const float* x, bool xComplete, const float* cells, const std::uint8_t* complete,
                    const std::int32_t* index, int first, int count, int columns, double* squares, int* common);

} // namespace DendroGram
