#pragma once

// Internal to the containers: not part of the library's interface.

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/Simd.h"

namespace {

// x[j] += f * p[j] where both are present; returns how many cells became
// exactly -99 (which then reads as missing like any other -99). The
// deflation of AddVprimV and the one inside the PLS sweep both run this
// kernel, so that their residuals agree to the bit.
template <class T>
VELTAN_SIMD_CLONES int RankOneUpdate(T* x, const T* p, double f, int n)
{
    int landed = 0;
#pragma omp simd reduction(+ : landed)
    for (int j = 1; j <= n; ++j) {
        const bool both = !IsMisVal(x[j]) && !IsMisVal(p[j]);
        const T updated = static_cast<T>(x[j] + f * p[j]);
        x[j] = both ? updated : x[j];
        landed += (both && IsMisVal(updated)) ? 1 : 0;
    }
    return landed;
}

} // namespace
