#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"

#include <vector>

// A read-only selection of a matrix's rows, in a given order, on which the
// NIPALS members run as they would on the matrix GetRowSubMatrix returns,
// with the same results to the bit, but without copying or sharing a row.
// Cross-validation refits each component on most of the rows once per
// group; with a copy per round, handling the row handles cost as much as
// the passes themselves.
//
// The selection reads the matrix through a pointer: the matrix must outlive
// it and must not change while it is in use. Row numbers are 1-based, may
// come in any order and may repeat.
template <class T>
class VELTANCMAT_API NCDataMatrixRows {
public:
    using Vector = NCDataVector<T>;
    using IndexList = NCIntegralVector<int, -99>;

    // Every row of `matrix`, in order.
    explicit NCDataMatrixRows(const NCDataMatrix<T>& matrix);
    // Rows `rows` of `matrix`; a number outside the matrix throws NCInternalError.
    NCDataMatrixRows(const NCDataMatrix<T>& matrix, const IndexList& rows);
    // The table points into the object's own row list.
    NCDataMatrixRows(const NCDataMatrixRows&) = delete;
    NCDataMatrixRows& operator=(const NCDataMatrixRows&) = delete;

    int SizeRows() const { return m_table.count; }
    int SizeColumns() const { return m_table.cols; }
    // Row i of the selection (row rows[i] of the matrix).
    const Vector& operator[](int i) const { return m_table[i]; }
    int GetNumMisVal() const { return m_table.missing; }

    // As the members of NCDataMatrix of the same names, on the selected rows;
    // `groups` labels the columns, and those labelled `group` are left out.
    double GetSS() const;
    void GetNIPALSStartColumn(Vector* result) const;
    void SpecialNipalsRegressColumnsFix(const Vector& t, Vector* result, const IndexList* groups = nullptr,
                                        int group = 0) const;
    void SpecialNipalsRegressRowsFix(const Vector& p, Vector* result, const IndexList* groups = nullptr,
                                     int group = 0) const;
    // SpecialNipalsRegressRowsFix on p into `scores`, then
    // SpecialNipalsRegressColumnsFix on those scores into `loadings`, with
    // the same results to the bit, reading each row once for both: a NIPALS
    // iteration's scores and the next iteration's loadings in one sweep.
    void NipalsRowsThenColumns(const Vector& p, Vector* scores, Vector* loadings, const IndexList* groups = nullptr,
                               int group = 0) const;

    // The selected rows as a matrix of their own (shared, not copied, rows).
    NCDataMatrix<T> ToMatrix() const;

private:
    const NCDataMatrix<T>* m_matrix;
    std::vector<int> m_pick;          // 1-based, slot 0 unused; empty for every row
    std::vector<int> m_columnMissing; // 1-based, for a selection
    NCRowTable<T> m_table;
};
