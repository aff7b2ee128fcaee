#include "veltancmat/cluster/PairSquares.h"

#include "veltancmat/containers/frame/Simd.h"

#include <cstddef>

namespace DendroGram {

VELTAN_SIMD_CLONES
void RowPairSquares(const float* x, bool xComplete, const float* cells, const std::uint8_t* complete,
                    const std::int32_t* index, int first, int count, int columns, double* squares, int* common)
{
    const auto k = static_cast<std::size_t>(columns);
    for (int q = 0; q < count; ++q) {
        const std::int32_t row = index ? index[q] : first + q;
        const float* y = cells + static_cast<std::size_t>(row) * k;
        if (xComplete && complete[row]) {
            squares[q] = CompleteSquares(x, y, columns);
            common[q] = columns;
        } else {
            squares[q] = PairSquares(x, y, columns, common[q]);
        }
    }
}

} // namespace DendroGram
