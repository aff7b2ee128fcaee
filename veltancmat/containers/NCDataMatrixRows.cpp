#include "veltancmat/containers/NCDataMatrixRows.h"

#include "veltancmat/containers/MatrixErrors.h"

namespace {

const char* const Owner = "NCDataMatrixRows<FloatType>::";

[[noreturn]] void ThrowSize(const char* member, const char* text)
{
    NCMatrixErrors::ThrowSizeIn(Owner, member, text);
}

} // namespace

template <class T>
NCDataMatrixRows<T>::NCDataMatrixRows(const NCDataMatrix<T>& matrix) : m_matrix(&matrix), m_table(matrix.AllRows())
{
}

template <class T>
NCDataMatrixRows<T>::NCDataMatrixRows(const NCDataMatrix<T>& matrix, const IndexList& rows)
    : m_matrix(&matrix), m_pick(static_cast<std::size_t>(rows.Size()) + 1, 0)
{
    const NCRowTable<T> all = matrix.AllRows();
    const int n = rows.Size();
    for (int k = 1; k <= n; ++k) {
        if (rows[k] < 1 || rows[k] > all.count)
            ThrowSize("NCDataMatrixRows", "Index out of range.");
        m_pick[static_cast<std::size_t>(k)] = rows[k];
    }
    // The column counts of the selection, from the rows that have gaps:
    // the regressions judge a column complete by them.
    m_columnMissing.assign(static_cast<std::size_t>(all.cols) + 1, 0);
    int missing = 0;
    if (all.missing > 0) {
        for (int k = 1; k <= n; ++k) {
            const Vector& row = all.rows[m_pick[static_cast<std::size_t>(k)]];
            if (row.HasNoMissingValues())
                continue;
            missing += row.GetNumMisVal();
            const T* x = row.GetVector();
            for (int j = 1; j <= all.cols; ++j)
                m_columnMissing[static_cast<std::size_t>(j)] += IsMisVal(x[j]) ? 1 : 0;
        }
    }
    m_table = {all.rows, m_pick.data(), n, all.cols, m_columnMissing.data(), missing};
}

template <class T>
double NCDataMatrixRows<T>::GetSS() const
{
    return NCDataMatrix<T>::SumSquares(m_table);
}

template <class T>
void NCDataMatrixRows<T>::GetNIPALSStartColumn(Vector* result) const
{
    NCDataMatrix<T>::CheckedStartColumn(m_table, result, Owner);
}

template <class T>
void NCDataMatrixRows<T>::SpecialNipalsRegressColumnsFix(const Vector& t, Vector* result, const IndexList* groups,
                                                         int group) const
{
    NCDataMatrix<T>::CheckedNipalsColumns(m_table, t, groups, group, result, Owner);
}

template <class T>
void NCDataMatrixRows<T>::SpecialNipalsRegressRowsFix(const Vector& p, Vector* result, const IndexList* groups,
                                                      int group) const
{
    NCDataMatrix<T>::CheckedNipalsRows(m_table, p, groups, group, result, Owner);
}

template <class T>
void NCDataMatrixRows<T>::NipalsRowsThenColumns(const Vector& p, Vector* scores, Vector* loadings,
                                                const IndexList* groups, int group) const
{
    NCDataMatrix<T>::CheckedNipalsRowsThenColumns(m_table, p, groups, group, scores, loadings, Owner);
}

template <class T>
NCDataMatrix<T> NCDataMatrixRows<T>::ToMatrix() const
{
    if (m_pick.empty())
        return *m_matrix;
    IndexList rows(m_table.count);
    for (int k = 1; k <= m_table.count; ++k)
        rows(k) = m_pick[static_cast<std::size_t>(k)];
    return m_matrix->GetRowSubMatrix(rows);
}

template class NCDataMatrixRows<float>;
template class NCDataMatrixRows<double>;
