#pragma once

// Internal to the models: not part of the library's interface.

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
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
// summed row by row in double. The threads share out blocks of columns, each
// summed over every row in order, so the sums do not depend on the team.
inline std::vector<double> PresentColumnSS(const NCDataMatrix<float>& m)
{
    constexpr int Block = 64; // accumulators of one block stay in L1
    const int rows = m.SizeRows(), cols = m.SizeColumns();
    const int blocks = (cols + Block - 1) / Block;
    std::vector<double> ss(static_cast<std::size_t>(cols) + 1, 0.0);
    double* const sums = ss.data();
#pragma omp parallel for schedule(static) if (static_cast<long long>(rows) * cols >= 100000)
    for (int b = 0; b < blocks; ++b) {
        const int first = 1 + b * Block, last = std::min(cols, first + Block - 1);
        for (int i = 1; i <= rows; ++i) {
            const float* row = m[i].GetVector();
#pragma omp simd
            for (int j = first; j <= last; ++j) {
                const double v = IsMisVal(row[j]) ? 0.0 : static_cast<double>(row[j]);
                sums[j] += v * v;
            }
        }
    }
    return ss;
}

} // namespace NCNipals
