#pragma once

// Checks the matrix tests of every folder share.
#include "veltancmat/containers/NCDataMatrix.h"

#include <gtest/gtest.h>

// Every count recomputed from the cells: rows', columns', total.
template <class T>
void ExpectCountsExact(const NCDataMatrix<T>& m)
{
    int total = 0;
    for (int j = 1; j <= m.SizeColumns(); ++j) {
        int column = 0;
        for (int i = 1; i <= m.SizeRows(); ++i)
            column += IsMisVal(m[i][j]) ? 1 : 0;
        ASSERT_EQ(m.GetColumnMisVal(j), column) << "column " << j;
        total += column;
    }
    for (int i = 1; i <= m.SizeRows(); ++i) {
        int row = 0;
        for (int j = 1; j <= m.SizeColumns(); ++j)
            row += IsMisVal(m[i][j]) ? 1 : 0;
        ASSERT_EQ(m[i].GetNumMisVal(), row) << "row " << i;
        ASSERT_EQ(m[i].Size(), m.SizeColumns());
    }
    ASSERT_EQ(m.GetNumMisVal(), total);
}

// Same size and the same cells, bit for bit (-99 equal to -99).
template <class T>
bool SameCells(const NCDataMatrix<T>& a, const NCDataMatrix<T>& b)
{
    if (a.SizeRows() != b.SizeRows() || a.SizeColumns() != b.SizeColumns())
        return false;
    for (int i = 1; i <= a.SizeRows(); ++i)
        if (!(a[i] == b[i]))
            return false;
    return true;
}

// Row i, or column j, all missing.
template <class T>
void MissRow(NCDataMatrix<T>& m, int i)
{
    for (int j = 1; j <= m.SizeColumns(); ++j)
        m(i, j, NCDataMatrix<T>::MisVal);
}

template <class T>
void MissColumn(NCDataMatrix<T>& m, int j)
{
    for (int i = 1; i <= m.SizeRows(); ++i)
        m(i, j, NCDataMatrix<T>::MisVal);
}
