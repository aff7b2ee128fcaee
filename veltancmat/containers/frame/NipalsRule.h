#pragma once

// The NIPALS regression on data with gaps: a score or loading is the sum of
// the present products divided by the squares of the other vector that met
// present cells. Every projection (one vector or several, by rows or by
// columns) divides by the same rule, so that a batched pass and a single
// one give the same bits.

#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <cmath>

// The divisor: the used squares (all squares less those that met a gap),
// never below a third of all squares, so that a row or column with many gaps
// is not divided by almost nothing.
inline double NipalsDivisor(double allSquares, double usedSquares)
{
    return std::max(allSquares / 3.0, usedSquares);
}

// sum / divisor in T; missing when no pair of present cells met or when
// |divisor| <= 1e-30 (a vector that is zero wherever it met the data).
template <class T>
inline T NipalsQuotient(double sum, double divisor, int pairs)
{
    const bool defined = pairs > 0 && std::fabs(divisor) > 1e-30;
    return defined ? static_cast<T>(sum / divisor) : NCMisVal<T>;
}
