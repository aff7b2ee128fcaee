#pragma once

// Internal to the models: not part of the library's interface.

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <cmath>

namespace NCNipals {

// The vector a NIPALS loop starts from: the column of `m` with the largest
// sum of squares, its gaps filled with +h, -h, +h, ... in order (h a
// hundredth of its largest absolute value). The alternating sign gives the
// filled cells some size but no net direction, so the fill cannot pull the
// first component towards itself. A wholly missing column is returned as it is.
inline NCDataVector<float> FilledStartColumn(const NCDataMatrixRows<float>& m)
{
    NCDataVector<float> s;
    m.GetNIPALSStartColumn(&s);
    const int missing = s.GetNumMisVal();
    if (missing == 0 || missing == s.Size())
        return s;
    float largest = 0.0f;
    for (int i = 1; i <= s.Size(); ++i)
        if (!IsMisVal(s[i]))
            largest = std::max(largest, std::fabs(s[i]));
    const float h = largest / 100.0f;
    float sign = 1.0f;
    for (int i = 1; i <= s.Size(); ++i) {
        if (IsMisVal(s[i])) {
            s(i, sign * h);
            sign = -sign;
        }
    }
    return s;
}

inline NCDataVector<float> FilledStartColumn(const NCDataMatrix<float>& m)
{
    return FilledStartColumn(NCDataMatrixRows<float>(m));
}

} // namespace NCNipals
