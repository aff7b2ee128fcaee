#include "veltancmat/containers/NCDataMatrix.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>
#include <utility>

using NCMatrixErrors::ThrowIndex;
using NCMatrixErrors::ThrowSize;

// ---------------------------------------------------------- construction

template <class T>
void NCDataMatrix<T>::SwapRowStorage(Vector& a, Vector& b) noexcept
{
    std::swap(a.m_alignOffset, b.m_alignOffset);
    std::swap(a.m_size, b.m_size);
    std::swap(a.m_data, b.m_data);
    std::swap(a.m_shared, b.m_shared);
    std::swap(a.m_numMis, b.m_numMis);
    std::swap(a.m_capacity, b.m_capacity);
}

template <class T>
void NCDataMatrix<T>::Allocate(int rows, int cols, T fill)
{
    if (rows < 0 || cols < 0)
        ThrowSize("NCDataMatrix", "Negative matrix size.");
    auto block = std::make_unique<NCSharedBlock>();
    auto rowArray = std::make_unique<Vector[]>(static_cast<std::size_t>(rows) + 1);
    for (int i = 1; i <= rows; ++i)
        rowArray[i] = Vector(cols, fill);
    const bool missing = IsMisVal(fill);
    auto counts = std::make_unique<IndexList>(cols, missing ? rows : 0);

    Release();
    m_shared = block.release();
    m_rowArray = rowArray.release();
    m_colMis = counts.release();
    m_rows = rows;
    m_cols = cols;
    m_reservedRows = rows;
    m_numMis = missing ? rows * cols : 0;
}

template <class T>
NCDataMatrix<T>::NCDataMatrix(int rows, int cols, T fill)
{
    Allocate(rows, cols, fill);
}

template <class T>
NCDataMatrix<T>::NCDataMatrix(const NCDataMatrix& other) : QvStreamBase(other)
{
    NCSharedBlockLock lock(other.m_shared);
    m_shared = NCShareBlock(other.m_shared);
    m_cols = other.m_cols;
    m_rows = other.m_rows;
    m_rowArray = other.m_rowArray;
    m_colMis = other.m_colMis;
    m_numMis = other.m_numMis;
    m_reservedRows = other.m_reservedRows;
}

template <class T>
NCDataMatrix<T>::NCDataMatrix(NCDataMatrix&& other) noexcept : QvStreamBase(other)
{
    swap(other);
}

template <class T>
NCDataMatrix<T>& NCDataMatrix<T>::operator=(const NCDataMatrix& other)
{
    if (this != &other) {
        NCDataMatrix copy(other);
        swap(copy);
    }
    return *this;
}

template <class T>
NCDataMatrix<T>& NCDataMatrix<T>::operator=(NCDataMatrix&& other) noexcept
{
    if (this != &other) {
        NCDataMatrix taken(std::move(other));
        swap(taken);
    }
    return *this;
}

template <class T>
NCDataMatrix<T>::~NCDataMatrix()
{
    Release();
}

template <class T>
void NCDataMatrix<T>::swap(NCDataMatrix& other) noexcept
{
    std::swap(m_shared, other.m_shared);
    std::swap(m_cols, other.m_cols);
    std::swap(m_rows, other.m_rows);
    std::swap(m_rowArray, other.m_rowArray);
    std::swap(m_colMis, other.m_colMis);
    std::swap(m_numMis, other.m_numMis);
    std::swap(m_reservedRows, other.m_reservedRows);
}

template <class T>
void NCDataMatrix<T>::Release() noexcept
{
    if (m_shared) {
        NCSharedBlockLock lock(m_shared);
        if (m_shared->refCount.load(std::memory_order_relaxed) == 1) {
            lock.Release();
            delete[] m_rowArray;
            delete m_colMis;
            delete m_shared;
        } else {
            m_shared->refCount.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    m_shared = nullptr;
    m_rowArray = nullptr;
    m_colMis = nullptr;
    m_rows = m_cols = m_numMis = m_reservedRows = 0;
}

template <class T>
void NCDataMatrix<T>::UnlinkMe()
{
    // Row handles are copied, not elements: each row detaches on its own
    // when it is first written.
    NCDetachFromBlock(m_shared, [this] {
        auto block = std::make_unique<NCSharedBlock>();
        auto rowArray = std::make_unique<Vector[]>(static_cast<std::size_t>(m_rows) + 1);
        for (int i = 1; i <= m_rows; ++i)
            rowArray[i] = m_rowArray[i];
        auto counts = std::make_unique<IndexList>(*m_colMis);
        m_shared = block.release();
        m_rowArray = rowArray.release();
        m_colMis = counts.release();
        m_reservedRows = m_rows;
    });
}

template <class T>
void NCDataMatrix<T>::EnsureRowCapacity(int rows)
{
    if (!m_shared) {
        const int cols = m_cols;
        Allocate(0, cols, T(0));
    }
    UnlinkMe();
    if (rows <= m_reservedRows)
        return;
    auto rowArray = std::make_unique<Vector[]>(static_cast<std::size_t>(rows) + 1);
    for (int i = 1; i <= m_rows; ++i)
        SwapRowStorage(rowArray[i], m_rowArray[i]);
    delete[] m_rowArray;
    m_rowArray = rowArray.release();
    m_reservedRows = rows;
}

template <class T>
int* NCDataMatrix<T>::ColumnCounts()
{
    return m_colMis->GetPtr();
}

template <class T>
void NCDataMatrix<T>::Clear()
{
    Release();
}

template <class T>
void NCDataMatrix<T>::SetSize(int rows, int cols)
{
    Resize(rows, cols, T(0));
}

template <class T>
void NCDataMatrix<T>::Resize(int rows, int cols, T fill)
{
    if (rows < 0 || cols < 0)
        ThrowSize("Resize", "Negative matrix size.");
    if (!m_shared) {
        Allocate(rows, cols, fill);
        return;
    }
    EnsureRowCapacity(rows);
    for (int i = 1; i <= std::min(rows, m_rows); ++i)
        m_rowArray[i].Resize(cols, fill);
    for (int i = m_rows + 1; i <= rows; ++i)
        m_rowArray[i] = Vector(cols, fill);
    for (int i = rows + 1; i <= m_rows; ++i)
        m_rowArray[i].Clear();
    m_rows = rows;
    m_cols = cols;
    m_colMis->Resize(cols, 0);
    RecountColumns();
}

template <class T>
void NCDataMatrix<T>::ReserveRows(int rows)
{
    EnsureRowCapacity(rows);
}

template <class T>
void NCDataMatrix<T>::ReserveColumns(int cols)
{
    if (!m_shared)
        return;
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].Reserve(cols);
}

// ------------------------------------------------------------ counts

template <class T>
void NCDataMatrix<T>::AddRowToCounts(const Vector& row, int sign)
{
    const int missing = row.GetNumMisVal();
    if (missing == 0)
        return;
    // Subsets and row edits call this for every row: the count has to
    // vectorise, which the compiler does only when it knows the counts and
    // the cells never overlap, and at -O2 only when asked to (its cheapest
    // cost model leaves a loop of unknown length scalar).
    int* __restrict counts = ColumnCounts() + 1;
    const T* __restrict p = row.GetVector() + 1;
    const int cols = m_cols;
#pragma omp simd
    for (int j = 0; j < cols; ++j)
        counts[j] += p[j] == MisVal ? sign : 0;
    m_numMis += sign * missing;
}

template <class T>
void NCDataMatrix<T>::RecountColumns()
{
    m_numMis = 0;
    if (!m_colMis || m_cols == 0)
        return;
    int* counts = ColumnCounts();
    std::fill(counts + 1, counts + 1 + m_cols, 0);
    m_numMis = 0;
    for (int i = 1; i <= m_rows; ++i)
        AddRowToCounts(m_rowArray[i], +1);
}

template <class T>
void NCDataMatrix<T>::RecountMissing()
{
    if (!m_shared)
        return;
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i) {
        const Vector& row = m_rowArray[i];
        if (row.GetNumMisVal() != static_cast<int>(std::count(row.begin(), row.end(), MisVal)))
            m_rowArray[i].RecountMissing();
    }
    RecountColumns();
}

template <class T>
NCDataMatrix<T>::MissingCountFixer::MissingCountFixer(NCDataMatrix& m, int i) : m_matrix(m), m_row(i)
{
    m.UnlinkMe();
    // Unlinks the counts now, so that the destructor never allocates.
    m.ColumnCounts();
    m.AddRowToCounts(m.m_rowArray[i], -1);
}

template <class T>
NCDataMatrix<T>::MissingCountFixer::~MissingCountFixer()
{
    m_matrix.AddRowToCounts(m_matrix.m_rowArray[m_row], +1);
}

template <class T>
typename NCDataMatrix<T>::MissingCountFixer NCDataMatrix<T>::GetMissingCountFixer(int i)
{
    return MissingCountFixer(*this, i);
}

template <class T>
int NCDataMatrix<T>::GetColumnMisVal(int j) const
{
    CheckColumn(j, "GetColumnMisVal");
    return (*m_colMis)[j];
}

template <class T>
void NCDataMatrix<T>::CheckRow(int i, const char* member) const
{
    if (i < 1 || i > m_rows)
        ThrowIndex(member);
}

template <class T>
void NCDataMatrix<T>::CheckColumn(int j, const char* member) const
{
    if (j < 1 || j > m_cols)
        ThrowIndex(member);
}

// ------------------------------------------------------------ access

template <class T>
T NCDataMatrix<T>::operator()(int i, int j, T v)
{
    assert(i >= 1 && i <= m_rows && j >= 1 && j <= m_cols);
    if (IsShared())
        UnlinkMe();
    const int change = m_rowArray[i].SetAndReturn_dMisVal(j, v);
    if (change != 0) {
        ColumnCounts()[j] += change;
        m_numMis += change;
    }
    return v;
}

template <class T>
std::vector<T*> NCDataMatrix<T>::GetMatrixAsPointerPointer()
{
    std::vector<T*> pointers(static_cast<std::size_t>(m_rows) + 1, nullptr);
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        pointers[i] = m_rowArray[i].GetVectorForWriting();
    return pointers;
}

template <class T>
void NCDataMatrix<T>::push_back(const Vector& row)
{
    InsertRow(m_rows + 1, row);
}

// ------------------------------------------------------ rows and columns

template <class T>
NCDataVector<T> NCDataMatrix<T>::GetColumn(int j) const
{
    Vector column;
    GetColumnImpl(j, &column);
    return column;
}

template <class T>
void NCDataMatrix<T>::GetColumnImpl(int j, Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    CheckColumn(j, "GetColumn");
    result->SetSize(m_rows);
    T* out = result->GetVectorForWriting();
    for (int i = 1; i <= m_rows; ++i)
        out[i] = m_rowArray[i].GetVector()[j];
    result->m_numMis = (*m_colMis)[j];
}

template <class T>
void NCDataMatrix<T>::SetColumn(int j, const Vector& column)
{
    CheckColumn(j, "SetColumn");
    NCMatrixErrors::CheckVectorSize(column.Size(), m_rows, "SetColumn");
    UnlinkMe();
    int change = 0;
    for (int i = 1; i <= m_rows; ++i)
        change += m_rowArray[i].SetAndReturn_dMisVal(j, column[i]);
    ColumnCounts()[j] = column.GetNumMisVal();
    m_numMis += change;
}

template <class T>
void NCDataMatrix<T>::CopyColumn(int to, const NCDataMatrix& source, int from)
{
    source.CheckColumn(from, "CopyColumn");
    SetColumn(to, source.GetColumn(from));
}

template <class T>
void NCDataMatrix<T>::SetRow(int i, const Vector& row)
{
    CheckRow(i, "SetRow");
    NCMatrixErrors::CheckVectorSize(row.Size(), m_cols, "SetRow");
    auto fixer = GetMissingCountFixer(i);
    m_rowArray[i] = row;
}

template <class T>
void NCDataMatrix<T>::CopyRow(int to, const NCDataMatrix& source, int from)
{
    source.CheckRow(from, "CopyRow");
    SetRow(to, source[from]);
}

template <class T>
void NCDataMatrix<T>::InsertRow(int at, const Vector& row)
{
    if (at < 1 || at > m_rows + 1)
        ThrowIndex("InsertRow");
    // A matrix without rows and columns takes the row's width.
    if (m_rows == 0 && m_cols == 0) {
        Allocate(0, row.Size(), T(0));
    } else if (row.Size() != m_cols) {
        ThrowSize("InsertRow", "Vectors are of different size.");
    }
    // Unlinking from a copy keeps only the rows in use, so the spare room
    // is known only after it: a copy that inherited room for another row
    // has none once unlinked.
    if (m_shared)
        UnlinkMe();
    if (m_rows + 1 > m_reservedRows)
        EnsureRowCapacity(std::max(m_rows + 1, 2 * m_reservedRows));
    Vector copy(row);
    for (int i = m_rows + 1; i > at; --i)
        SwapRowStorage(m_rowArray[i], m_rowArray[i - 1]);
    SwapRowStorage(m_rowArray[at], copy);
    ++m_rows;
    AddRowToCounts(m_rowArray[at], +1);
}

template <class T>
void NCDataMatrix<T>::InsertRows(int at, const NCDataMatrix& rows)
{
    if (at < 1 || at > m_rows + 1)
        ThrowIndex("InsertRows");
    if (rows.m_rows == 0)
        return;
    if (m_rows == 0 && m_cols == 0) {
        Allocate(0, rows.m_cols, T(0));
    } else if (rows.m_cols != m_cols) {
        ThrowSize("InsertRows", "Matrices are different size.");
    }
    // Copied first: `rows` may be this matrix.
    const NCDataMatrix source(rows);
    const int n = source.m_rows;
    EnsureRowCapacity(m_rows + n);
    for (int i = m_rows; i >= at; --i)
        SwapRowStorage(m_rowArray[i + n], m_rowArray[i]);
    for (int k = 1; k <= n; ++k)
        m_rowArray[at + k - 1] = source.m_rowArray[k];
    m_rows += n;
    int* counts = ColumnCounts();
    for (int j = 1; j <= m_cols; ++j)
        counts[j] += (*source.m_colMis)[j];
    m_numMis += source.m_numMis;
}

template <class T>
void NCDataMatrix<T>::InsertRows(int at, int count, T fill)
{
    if (count < 0)
        ThrowSize("InsertRows", "Negative matrix size.");
    if (at < 1 || at > m_rows + 1)
        ThrowIndex("InsertRows");
    InsertRows(at, NCDataMatrix(count, m_cols, fill));
}

template <class T>
void NCDataMatrix<T>::InsertColumn(int at, const Vector& column)
{
    if (at < 1 || at > m_cols + 1)
        ThrowIndex("InsertColumn");
    if (m_rows == 0 && m_cols == 0 && column.Size() > 0) {
        Allocate(column.Size(), 1, T(0));
        SetColumn(1, column);
        return;
    }
    NCMatrixErrors::CheckVectorSize(column.Size(), m_rows, "InsertColumn");
    if (!m_shared)
        Allocate(0, 0, T(0));
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].InsertValues(at, 1, column[i]);
    m_colMis->Insert(at, column.GetNumMisVal());
    m_numMis += column.GetNumMisVal();
    ++m_cols;
}

template <class T>
void NCDataMatrix<T>::InsertColumns(int at, const NCDataMatrix& columns)
{
    if (at < 1 || at > m_cols + 1)
        ThrowIndex("InsertColumns");
    if (columns.m_cols == 0)
        return;
    if (m_rows == 0 && m_cols == 0) {
        *this = columns;
        return;
    }
    if (columns.m_rows != m_rows)
        ThrowSize("InsertColumns", "Matrices are different size.");
    const NCDataMatrix source(columns);
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].InsertValues(at, source.m_rowArray[i]);
    m_colMis->InsertValues(at, *source.m_colMis);
    m_numMis += source.m_numMis;
    m_cols += source.m_cols;
}

template <class T>
void NCDataMatrix<T>::InsertColumns(int at, int count, T fill)
{
    if (count < 0)
        ThrowSize("InsertColumns", "Negative matrix size.");
    if (at < 1 || at > m_cols + 1)
        ThrowIndex("InsertColumns");
    if (count == 0)
        return;
    if (!m_shared)
        Allocate(0, 0, T(0));
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].InsertValues(at, count, fill);
    const bool missing = IsMisVal(fill);
    m_colMis->InsertValues(at, count, missing ? m_rows : 0);
    m_numMis += missing ? m_rows * count : 0;
    m_cols += count;
}

template <class T>
void NCDataMatrix<T>::RemoveRows(int from, int to)
{
    if (from < 1 || to > m_rows || from > to)
        ThrowIndex("RemoveRows");
    UnlinkMe();
    for (int i = from; i <= to; ++i)
        AddRowToCounts(m_rowArray[i], -1);
    const int n = to - from + 1;
    for (int i = from; i + n <= m_rows; ++i)
        SwapRowStorage(m_rowArray[i], m_rowArray[i + n]);
    for (int i = m_rows - n + 1; i <= m_rows; ++i)
        m_rowArray[i].Clear();
    m_rows -= n;
}

template <class T>
void NCDataMatrix<T>::RemoveRows(const IndexList& rows)
{
    std::vector<char> drop(static_cast<std::size_t>(m_rows) + 1, 0);
    for (int k = 1; k <= rows.Size(); ++k) {
        if (rows[k] < 1 || rows[k] > m_rows)
            ThrowIndex("RemoveRows");
        drop[rows[k]] = 1;
    }
    if (rows.Size() == 0)
        return;
    UnlinkMe();
    int kept = 0;
    for (int i = 1; i <= m_rows; ++i) {
        if (drop[i]) {
            AddRowToCounts(m_rowArray[i], -1);
            m_rowArray[i].Clear();
        } else if (++kept != i) {
            SwapRowStorage(m_rowArray[kept], m_rowArray[i]);
        }
    }
    m_rows = kept;
}

template <class T>
void NCDataMatrix<T>::RemoveColumns(int from, int to)
{
    if (from < 1 || to > m_cols || from > to)
        ThrowIndex("RemoveColumns");
    IndexList list;
    list.Reserve(to - from + 1);
    for (int j = from; j <= to; ++j)
        list.push_back(j);
    RemoveColumns(list);
}

template <class T>
void NCDataMatrix<T>::RemoveColumns(const IndexList& columns)
{
    for (int k = 1; k <= columns.Size(); ++k)
        if (columns[k] < 1 || columns[k] > m_cols)
            ThrowIndex("RemoveColumns");
    if (columns.Size() == 0)
        return;
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].Remove(columns);
    m_colMis->Remove(columns);
    m_cols = m_colMis->Size();
    m_numMis = 0;
    for (int i = 1; i <= m_rows; ++i)
        m_numMis += m_rowArray[i].GetNumMisVal();
}

template <class T>
void NCDataMatrix<T>::SwapRows(int i1, int i2)
{
    CheckRow(i1, "SwapRows");
    CheckRow(i2, "SwapRows");
    if (i1 == i2)
        return;
    UnlinkMe();
    SwapRowStorage(m_rowArray[i1], m_rowArray[i2]);
}

template <class T>
void NCDataMatrix<T>::SwapColumns(int j1, int j2)
{
    CheckColumn(j1, "SwapColumns");
    CheckColumn(j2, "SwapColumns");
    if (j1 == j2)
        return;
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i) {
        T* p = m_rowArray[i].GetVectorForWriting();
        std::swap(p[j1], p[j2]);
    }
    int* counts = ColumnCounts();
    std::swap(counts[j1], counts[j2]);
}

template <class T>
void NCDataMatrix<T>::RearrangeColumns(const IndexList& order)
{
    for (int k = 1; k <= order.Size(); ++k)
        if (order[k] < 1 || order[k] > m_cols)
            ThrowIndex("RearrangeColumns");
    if (!m_shared)
        return;
    UnlinkMe();
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].Reduce(order);
    m_colMis->Reduce(order);
    m_cols = order.Size();
    m_numMis = 0;
    for (int i = 1; i <= m_rows; ++i)
        m_numMis += m_rowArray[i].GetNumMisVal();
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::GetRowSubMatrix(const IndexList& rows) const
{
    for (int k = 1; k <= rows.Size(); ++k)
        CheckRow(rows[k], "GetRowSubMatrix");
    NCDataMatrix result(0, m_cols);
    result.EnsureRowCapacity(rows.Size());
    for (int k = 1; k <= rows.Size(); ++k)
        result.InsertRow(k, m_rowArray[rows[k]]);
    return result;
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::SubMat(int r1, int r2, int c1, int c2) const
{
    // An empty range (r2 = r1 - 1) is allowed and gives an empty dimension.
    if (r1 < 1 || r2 > m_rows || r2 < r1 - 1 || c1 < 1 || c2 > m_cols || c2 < c1 - 1)
        ThrowIndex("SubMat");
    const int rows = r2 - r1 + 1;
    const int cols = c2 - c1 + 1;
    NCDataMatrix result(rows, cols);
    for (int i = 1; i <= rows; ++i) {
        Vector& row = result.m_rowArray[i];
        row.SetRange(1, m_rowArray[r1 + i - 1], c1, c2);
    }
    result.RecountColumns();
    return result;
}

template <class T>
void NCDataMatrix<T>::ConcatRows(const NCDataMatrix& other)
{
    if (other.m_rows == 0)
        return;
    if (m_cols == 0 || m_rows == 0) {
        *this = other;
        return;
    }
    if (other.m_cols != m_cols)
        ThrowSize("ConcatRows", "Matrices are different size.");
    InsertRows(m_rows + 1, other);
}

template <class T>
void NCDataMatrix<T>::ConcatColumns(const NCDataMatrix& other)
{
    if (other.m_cols == 0)
        return;
    if (m_cols == 0 || m_rows == 0) {
        *this = other;
        return;
    }
    if (other.m_rows != m_rows)
        ThrowSize("ConcatColumns", "Matrices are different size.");
    InsertColumns(m_cols + 1, other);
}

template <class T>
void NCDataMatrix<T>::LagColumn(int j, int lag)
{
    Vector column = GetColumn(j);
    column.Lag(lag);
    SetColumn(j, column);
}

template <class T>
void NCDataMatrix<T>::SubtractFromColumn(int j, double d)
{
    Vector column = GetColumn(j);
    column -= d;
    SetColumn(j, column);
}

template <class T>
void NCDataMatrix<T>::MultiplyRow(int i, double d)
{
    CheckRow(i, "MultiplyRow");
    (*this)(i) *= d;
}

template <class T>
void NCDataMatrix<T>::MultiplyColumn(int j, double d)
{
    Vector column = GetColumn(j);
    column *= d;
    SetColumn(j, column);
}

template <class T>
void NCDataMatrix<T>::MultiplyColumns(const IndexList& columns, double d)
{
    for (int k = 1; k <= columns.Size(); ++k)
        CheckColumn(columns[k], "MultiplyColumns");
    for (int k = 1; k <= columns.Size(); ++k)
        MultiplyColumn(columns[k], d);
}

// ---------------------------------------------------------- statistics

template <class T>
double NCDataMatrix<T>::GetColumnMean(int j) const
{
    return GetColumn(j).GetMean();
}

template <class T>
double NCDataMatrix<T>::GetColumnStdDev(int j) const
{
    return GetColumn(j).GetStdDev();
}

template <class T>
double NCDataMatrix<T>::GetColumnSS(int j) const
{
    return GetColumn(j).GetSS();
}

template <class T>
double NCDataMatrix<T>::GetColumnSS(int j, double about) const
{
    return GetColumn(j).GetSS(about);
}

template <class T>
double NCDataMatrix<T>::GetColumnMedian(int j) const
{
    return GetColumn(j).GetMedian();
}

template <class T>
void NCDataMatrix<T>::GetColumnMinMax(int j, T& min, T& max) const
{
    GetColumn(j).GetMinMax(min, max);
}

template <class T>
double NCDataMatrix<T>::GetColumnSkewness(int j) const
{
    return GetColumn(j).GetSkewness();
}

template <class T>
double NCDataMatrix<T>::GetColumnSkewnessTest(int j) const
{
    return GetColumn(j).GetSkewnessTest();
}

template <class T>
double NCDataMatrix<T>::GetColumnKurtosis(int j) const
{
    return GetColumn(j).GetKurtosis();
}

template <class T>
double NCDataMatrix<T>::GetColumnCp(int j, double lsl, double usl) const
{
    const double s = GetColumnStdDev(j);
    if (IsMisVal(s) || s == 0.0 || !(usl > lsl))
        return dMisVal;
    return (usl - lsl) / (6.0 * s);
}

template <class T>
double NCDataMatrix<T>::GetColumnCpk(int j, double lsl, double usl) const
{
    const Vector column = GetColumn(j);
    const double s = column.GetStdDev();
    if (IsMisVal(s) || s == 0.0 || !(usl > lsl))
        return dMisVal;
    const double mean = column.GetMean();
    return std::min(usl - mean, mean - lsl) / (3.0 * s);
}

template <class T>
double NCDataMatrix<T>::GetColumnCorrelation(int j1, int j2) const
{
    return GetColumn(j1).Correlation_Mean(GetColumn(j2));
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::GetColumnCorrelation() const
{
    NCDataMatrix result;
    GetColumnCorrelationImpl(&result);
    return result;
}

template <class T>
void NCDataMatrix<T>::GetColumnCorrelationImpl(NCDataMatrix* result) const
{
    NCMatrixErrors::CheckResult(result);
    std::vector<Vector> columns(static_cast<std::size_t>(m_cols) + 1);
    for (int j = 1; j <= m_cols; ++j)
        columns[j] = GetColumn(j);
    NCDataMatrix r(m_cols, m_cols);
    for (int j1 = 1; j1 <= m_cols; ++j1)
        for (int j2 = j1; j2 <= m_cols; ++j2) {
            const T c = static_cast<T>(columns[j1].Correlation_Mean(columns[j2]));
            r(j1, j2, c);
            r(j2, j1, c);
        }
    *result = std::move(r);
}

template <class T>
void NCDataMatrix<T>::GetRowMinMax(int i, T& min, T& max) const
{
    CheckRow(i, "GetRowMinMax");
    m_rowArray[i].GetMinMax(min, max);
}

template <class T>
double NCDataMatrix<T>::GetMean() const
{
    double sum = 0.0;
    long long count = 0;
    for (int i = 1; i <= m_rows; ++i) {
        const Vector& row = m_rowArray[i];
        if (row.HasValidValues()) {
            sum += row.GetSum();
            count += row.GetNumValidValues();
        }
    }
    if (count == 0)
        return dMisVal;
    const double mean = sum / static_cast<double>(count);
    // As for the vector: a valid mean must never read as missing.
    return IsMisVal(mean) ? mean - 0.00001 : mean;
}

template <class T>
double NCDataMatrix<T>::GetSS() const
{
    return SumSquares(AllRows());
}


template <class T>
double NCDataMatrix<T>::GetSSAroundColumnMeans() const
{
    double ss = 0.0;
    bool any = false;
    for (int j = 1; j <= m_cols; ++j) {
        const Vector column = GetColumn(j);
        if (!column.HasValidValues())
            continue;
        ss += column.GetSS(column.GetMean());
        any = true;
    }
    return any ? ss : dMisVal;
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::GetDensity(int j, const Vector& at, double bandwidth) const
{
    Vector result;
    GetDensityImpl(j, at, bandwidth, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::GetDensityImpl(int j, const Vector& at, double bandwidth, Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    const Vector column = GetColumn(j);
    Vector density(at.Size(), MisVal);
    const int n = column.GetNumValidValues();
    double h = bandwidth;
    if (IsMisVal(bandwidth)) {
        const double s = column.GetStdDev();
        h = (IsMisVal(s) || n < 2) ? 0.0 : s * std::pow(static_cast<double>(n), -0.2);
    }
    if (n > 0 && h > 0.0 && std::isfinite(h)) {
        const double norm = 1.0 / (n * h * std::sqrt(2.0 * std::numbers::pi));
        for (int k = 1; k <= at.Size(); ++k) {
            if (IsMisVal(at[k]))
                continue;
            double sum = 0.0;
            for (const T x : column) {
                if (IsMisVal(x))
                    continue;
                const double z = (at[k] - static_cast<double>(x)) / h;
                sum += std::exp(-0.5 * z * z);
            }
            density(k, static_cast<T>(sum * norm));
        }
    }
    *result = density;
}

// ------------------------------------------------------------ streaming

template <class T>
QvStreamableData NCDataMatrix<T>::MyStreamableData(4, "NCDM");

template <class T>
bool NCDataMatrix<T>::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamableWriteBases(out); },
        [&] { return QvStreamableWrite(out); });
}

template <class T>
bool NCDataMatrix<T>::QvStreamableWriteBases(std::ostream& out) const
{
    return QvStreamBase::QvStreamableStartWrite(out);
}

template <class T>
bool NCDataMatrix<T>::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 5);
    const std::int32_t header[3] = {m_rows, m_cols, m_numMis};
    bool ok = true;
    for (unsigned short k = 0; k < 3 && ok; ++k)
        ok = WriteFourBytes(&header[k], 1, directory.GetOutput(k));
    if (ok && m_rows > 0) {
        std::ostream& rows = directory.GetOutput(3);
        for (int i = 1; i <= m_rows && ok; ++i)
            ok = (rows << m_rowArray[i]).good();
    }
    if (ok) {
        std::ostream& counts = directory.GetOutput(4);
        if (m_colMis)
            ok = (counts << *m_colMis).good();
        else
            ok = (counts << IndexList()).good();
    }
    return directory.Close() && ok && out.good();
}

template <class T>
bool NCDataMatrix<T>::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 4, [&] { return QvStreamableReadBases(in); },
        [&] { return QvStreamableRead(in); });
}

template <class T>
bool NCDataMatrix<T>::QvStreamableReadBases(std::istream& in)
{
    return QvStreamBase::QvStreamableStartRead(in);
}

template <class T>
bool NCDataMatrix<T>::QvStreamableRead(std::istream& in)
{
    InputStreamDirectory directory(in);
    const bool ok = ReadStreamDirectory(directory);
    // A directory that does not end cleanly is damaged as a whole.
    if (!directory.Close() || !ok || !in.good()) {
        Clear();
        return false;
    }
    return true;
}

template <class T>
bool NCDataMatrix<T>::ReadStreamDirectory(InputStreamDirectory& directory)
{
    Clear();
    try {
        std::int32_t rows = 0, cols = 0, total = 0;
        directory.ReadRequired(0, &rows, 1, 4);
        directory.ReadRequired(1, &cols, 1, 4);
        directory.ReadRequired(2, &total, 1, 4);
        if (rows < 0 || cols < 0 || total < 0 || static_cast<long long>(total) > static_cast<long long>(rows) * cols)
            throw QvStreamError();
        NCDataMatrix read;
        // Rows without columns are still written as (empty) row records.
        std::istream* entry = rows > 0 ? directory.GetInput(3) : nullptr;
        if (rows > 0 && cols > 0 && !entry)
            throw QvStreamError(ExceptionMessage::translate("ReadFromStreamDir failed."));
        if (entry) {
            // Every row record holds at least its cells (and at least one
            // byte): a size the entry cannot back is refused before anything
            // is allocated. The bound is checked by division, as rows x
            // columns x element size can exceed 64 bits.
            const std::streamsize rowBytes =
                std::max<std::streamsize>(1, static_cast<std::streamsize>(cols) * std::streamsize(sizeof(T)));
            const std::streamsize remaining = QvStreamRemaining(*entry);
            if (remaining >= 0 && rows > remaining / rowBytes)
                throw QvStreamError();
            if (!QvStreamHasBytes(*entry, static_cast<std::streamsize>(rows) * rowBytes))
                throw QvStreamError();
            read.Allocate(rows, 0, T(0));
            read.m_cols = cols;
            for (int i = 1; i <= rows; ++i) {
                Vector& row = read.m_rowArray[i];
                if (!(*entry >> row) || row.Size() != cols)
                    throw QvStreamError();
                // A row's stored count is checked against its cells here,
                // where a wrong one would break the matrix's counts.
                const int stored = row.GetNumMisVal();
                row.RecountMissing();
                if (row.GetNumMisVal() != stored)
                    throw QvStreamError();
            }
        }
        IndexList counts;
        if (!(directory.GetRequiredInput(4) >> counts))
            throw QvStreamError();
        if (counts.Size() != cols)
            throw QvStreamError();
        // Without rows the columns are backed by their counts, just read.
        if (!entry)
            read.Allocate(0, cols, T(0));
        *read.m_colMis = counts;
        read.m_numMis = total;
        // The stored counts are kept, but counts that contradict the cells
        // mark a damaged record: the invariants could not hold after it.
        NCDataMatrix check(read);
        check.UnlinkMe();
        check.RecountColumns();
        if (check.m_numMis != read.m_numMis || *check.m_colMis != *read.m_colMis)
            throw QvStreamError();
        swap(read);
        return true;
    } catch (const QvStreamError&) {
        Clear();
        return false;
    }
}

template <class T>
void NCDataMatrix<T>::QvStreamableReset() const
{
    m_streaming = false;
    for (int i = 1; i <= m_rows; ++i)
        m_rowArray[i].QvStreamableReset();
    if (m_colMis)
        m_colMis->QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}

// ------------------------------------------------------------- row views

template <class T>
template <class Op>
void NCDataMatrixRow<T>::Apply(Op op)
{
    auto fixer = m_matrix->GetMissingCountFixer(m_row);
    op(m_matrix->RowForWriting(m_row));
}

template <class T>
NCDataMatrixRow<T>& NCDataMatrixRow<T>::operator=(const Vector& v)
{
    if (v.Size() != m_matrix->SizeColumns())
        NCMatrixErrors::ThrowSize("NCDataMatrixRow<FloatType>::operator=", "Vectors are of different size.", false);
    Apply([&](Vector& row) { row = v; });
    return *this;
}

template <class T>
NCDataMatrixRow<T>& NCDataMatrixRow<T>::operator+=(const Vector& v)
{
    Apply([&](Vector& row) { row += v; });
    return *this;
}

template <class T>
NCDataMatrixRow<T>& NCDataMatrixRow<T>::operator-=(const Vector& v)
{
    Apply([&](Vector& row) { row -= v; });
    return *this;
}

template <class T>
NCDataMatrixRow<T>& NCDataMatrixRow<T>::operator*=(double d)
{
    Apply([&](Vector& row) { row *= d; });
    return *this;
}

template <class T>
void NCDataMatrixRow<T>::Abs()
{
    Apply([](Vector& row) { row.Abs(); });
}

template <class T>
void NCDataMatrixRow<T>::DetrendMean(double& mean)
{
    Apply([&](Vector& row) { row.DetrendMean(mean); });
}

template <class T>
void NCDataMatrixRow<T>::TransformTo_Add_d_x_Vt(double d, const Vector& v)
{
    Apply([&](Vector& row) { row.TransformTo_Add_d_x_Vt(d, v); });
}

template <class T>
void NCDataMatrixRow<T>::TransformTo_Sub_d_x_Vt(double d, const Vector& v)
{
    Apply([&](Vector& row) { row.TransformTo_Sub_d_x_Vt(d, v); });
}

template class NCDataMatrix<float>;
template class NCDataMatrix<double>;
template class NCDataMatrixRow<float>;
template class NCDataMatrixRow<double>;
