#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"

#include <span>
#include <vector>

// The NIPALS projections of one float matrix on several vectors at once.
//
// The rounds of a cross-validation fit the same matrix with a different
// group of rows left out each. Fitted one after the other, every round reads
// the matrix (less its group) twice per iteration: seven rounds read it
// fourteen times. Here a row is read once per pass for all the vectors it
// serves, while it is in the first-level cache, so a pass costs arithmetic
// rather than memory traffic. A round leaves out its rows by giving them a
// missing score, which the column projection skips as it always does.
//
// Each result is that of SpecialNipalsRegressColumnsFix or
// SpecialNipalsRegressRowsFix (without column groups) on the same vector, up
// to the order of the additions: the products are summed in float over
// short runs and in double beyond them, as there.
//
// The object reads the matrix through a reference: the matrix must outlive
// it and must not change while it is in use. Construction reads the matrix
// once, for the rows' sums of squares and the positions of missing cells;
// the projections then reuse both.
class VELTANCMAT_API NCNipalsBatch {
public:
    // The most vectors one pass serves; more take further passes.
    static constexpr int MaxVectors = 8;

    explicit NCNipalsBatch(const NCDataMatrix<float>& matrix);

    // results[r] = the column projection on scores[r] (one score per row;
    // rows with a missing score take no part).
    void Columns(std::span<const NCDataVector<float>* const> scores,
                 std::span<NCDataVector<float>* const> results) const;
    // results[r] = the row projection on weights[r] (one weight per column).
    void Rows(std::span<const NCDataVector<float>* const> weights,
              std::span<NCDataVector<float>* const> results) const;

    int SizeRows() const { return m_matrix.SizeRows(); }
    int SizeColumns() const { return m_matrix.SizeColumns(); }

    // Sum of squares of the present cells of row i (1-based), 0 for a row
    // without any.
    double RowSS(int i) const { return m_rowSS[static_cast<std::size_t>(i)]; }

private:
    void ColumnsUpTo8(std::span<const NCDataVector<float>* const> scores,
                      std::span<NCDataVector<float>* const> results) const;
    void RowsUpTo8(std::span<const NCDataVector<float>* const> weights,
                   std::span<NCDataVector<float>* const> results) const;

    const NCDataMatrix<float>& m_matrix;
    std::vector<double> m_rowSS;
    // The missing cells of row i are columns m_gaps[m_gapStart[i] ..
    // m_gapStart[i + 1] - 1].
    std::vector<int> m_gapStart;
    std::vector<int> m_gaps;
};
