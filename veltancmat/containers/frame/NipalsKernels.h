#pragma once

// Internal to the containers: the vector kernels of the one-vector NIPALS
// projections (NCDataMatrixNipals.cpp), compiled once per instruction set in
// frame/NipalsKernels.cpp. Here() gives the set for this processor.

#include <array>

namespace NCNipalsKernels {

// The column projection sums this many rows in the element type before it
// adds them to its double sums: a quarter of the per-cell work of adding
// each product in double, for an error of a few units in the last place of
// a float over eight terms. The row projection's dot products widen their
// partial sums as often, so no float sum runs over more than eight terms.
inline constexpr int FlushEvery = 8;

// The level of cache the column projections ask rows ahead into: the second
// (prefetcht2), where requests do not hold first-level miss slots.
inline constexpr int ColumnLocality = 1;

// Adds, for the R rows x[0 .. R-1] with scores t[0 .. R-1], the products
// x t of the present cells to total[1 .. n] and t^2 of the missing cells to
// squares[1 .. n], summing the R rows in float as the row-by-row kernels do.
// Meanwhile it asks for the FlushEvery rows `next` (the next block; null
// after the last) strip by strip: requests spread over the block keep the
// memory busy, where asking for whole rows ahead came in bursts.
using ColumnBlockKernel = void (*)(double* total, double* squares, const float* const* x, const float* t,
                                   const float* const* next, int n);
// The kernels for R = 1 .. FlushEvery, at R - 1. R is a template argument
// of the kernel so that the scores stay in registers and the loop over the
// rows unrolls.
using ColumnBlockKernels = std::array<ColumnBlockKernel, FlushEvery>;

// Arrays are 1-based: element 0 is never read.
template <class T>
struct Kernels {
    // Sum of x[j] * p[j].
    double (*dotComplete)(const T* x, const T* p, int n);
    // The same over a row with missing cells, which count as zero, against
    // a loading whose missing entries are zero (p) with squares p2 (zero
    // there too); gapSquares gets the sum of p2 where x is missing.
    double (*dotMasked)(const T* x, const T* p, const T* p2, int n, double& gapSquares);
    // How many missing cells of x meet a present loading (present[j] 0 or 1).
    int (*gapPairs)(const T* x, const int* present, int n);
    // s12[j] += x[j] * t for a complete row.
    void (*accumulateComplete)(T* s12, const T* x, T t, int n);
    // The same for a row with missing cells, which count as zero in s12;
    // gapSquares[j] += t^2 where x[j] is missing.
    void (*accumulateMasked)(T* s12, T* gapSquares, const T* x, T t, int n);
    // total[j] += partial[j] in double, and partial[j] = 0.
    void (*flush)(double* total, T* partial, int n);
    // Float rows only; empty for double.
    ColumnBlockKernels columnBlocks;
};

template <class T>
const Kernels<T>& Here();

} // namespace NCNipalsKernels
