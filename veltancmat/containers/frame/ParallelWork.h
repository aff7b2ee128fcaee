#pragma once

// When a pass is worth an OpenMP team. Below each threshold the fork and
// join of a team cost more than the pass saves, so it runs on the calling
// thread. Each threshold names the work it counts; a pass compares its own
// count with exactly one of them.

#include <algorithm>

namespace NCParallelWork {

// Cells of a pass that touches each cell once (a projection, a transform).
inline constexpr long long MinCells = 1 << 15;

// A row costs at least this many cells however narrow it is (finding it,
// its missing count, its result), so that the few-column response matrices
// of PLS are still shared out by their rows.
inline constexpr long long RowFloorCells = 32;

// Cells times vectors of a shared NIPALS pass. Each cell loaded serves
// every vector of its run, so a cell-vector costs less than a cell of a
// single pass and the team pays off later.
inline constexpr long long MinSharedPassWork = 2 * MinCells;

// Multiply-adds of a matrix product.
inline constexpr double MinProductMultiplyAdds = 100000.0;

// Result rows up to which a product is split over the inner dimension (a
// few responses or components times a tall matrix): below this, rows alone
// would leave threads idle and read the tall factor once per result row.
inline constexpr int MaxRowsOfInnerSplit = 16;

// Elements of the vectors each round of a cross-validation updates between
// its passes; the rounds go to a team only when there are two or more.
inline constexpr int MinRoundElements = 1000;

// Whether a projection of `vectors` vectors over rows x cols cells, rows
// counted at RowFloorCells at least, reaches `minWork`.
inline bool ProjectionWorthParallel(long long rows, long long cols, long long vectors, long long minWork)
{
    return rows * std::max(cols, RowFloorCells) * vectors >= minWork;
}

} // namespace NCParallelWork
