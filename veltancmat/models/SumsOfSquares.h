#pragma once

// Internal to the models: not part of the library's interface.

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/frame/MissingValue.h"

#include <vector>

namespace NCNipals {

// The sum of squares of the present cells of v; 0 when there are none, so
// that a wholly missing vector counts as explaining nothing instead of
// carrying the missing marker into a ratio or a root.
inline double PresentSS(const NCDataVector<float>& v)
{
    return v.HasValidValues() ? v.GetSS() : 0.0;
}

// The same per column of m (element j for column j, element 0 unused),
// summed row by row in double.
inline std::vector<double> PresentColumnSS(const NCDataMatrix<float>& m)
{
    std::vector<double> ss(static_cast<std::size_t>(m.SizeColumns()) + 1, 0.0);
    for (int i = 1; i <= m.SizeRows(); ++i) {
        const float* row = m[i].GetVector();
        for (int j = 1; j <= m.SizeColumns(); ++j)
            if (!IsMisVal(row[j]))
                ss[static_cast<std::size_t>(j)] += static_cast<double>(row[j]) * row[j];
    }
    return ss;
}

} // namespace NCNipals
