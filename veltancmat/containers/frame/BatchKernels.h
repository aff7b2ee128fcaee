#pragma once

// Internal to the containers: the vector kernels of NCNipalsBatch, compiled
// once per instruction set in frame/BatchKernels.cpp. Here() gives the set
// for this processor. Arrays of cells are 1-based, as the rows are.

#include "veltancmat/containers/NCNipalsBatch.h"

#include <array>

namespace NCBatchKernels {

inline constexpr int MaxVectors = NCNipalsBatch::MaxVectors;
// Floats per strip of a row: one packet.
inline constexpr int Width = 8;

// Products are summed in float over this many strips of a row (row
// projection) or rows (column projection) before they are widened into
// double: the sums stay in registers, and no float sum runs over more than
// eight or sixteen terms. The column projection widens R vectors of sums
// into memory per block, which with blocks of eight rows cost about as much
// as the products; blocks of sixteen halve that.
inline constexpr int FlushEvery = 8;
inline constexpr int ColumnBlockRows = 16;

// For the `rows` <= ColumnBlockRows rows x[0 .. rows-1], adds x[b][j] * s[b * R + r]
// to totals[r * stride + j] for every column j and vector r < R. Each strip
// keeps one float sum per vector in registers over the rows, so every cell
// loaded serves all R vectors.
using ColumnKernel = void (*)(double* totals, int stride, const float* const* x, const float* s, int rows, int n);
// sums[r] = the sum over the columns of x[j] * p[r][j], r < R.
using DotKernel = void (*)(const float* x, const float* const* p, int n, double* sums);

// The same for rows of fewer than NarrowRow cells (the few responses of a
// PLS model), where a strip loop would be mostly set-up and tail: the
// vectors' weights come column by column, one lane per vector
// (lanes[Width * j + r]), and a row's products with all of them are one
// packet multiply per cell, summed in double into sums[0 .. 7].
inline constexpr int NarrowRow = 2 * Width;
using NarrowDotKernel = void (*)(const float* x, const float* lanes, int n, bool masked, double* sums);

// The first index of columns and dots is whether missing cells of x are to
// count as zero, the second R - 1.
struct Kernels {
    std::array<ColumnKernel, MaxVectors> columns[2];
    std::array<DotKernel, MaxVectors> dots[2];
    NarrowDotKernel narrowDots;
};

const Kernels& Here();

} // namespace NCBatchKernels
