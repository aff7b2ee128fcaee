// Products, sums, the transpose, the inverse and the least-squares
// coefficients of the data matrix.
//
// Every product is reduced to one shape: result row i is a combination of
// the rows of a right-hand factor, C(i, .) = sum_k a_ik * B(k, .), so the
// inner loops run over contiguous rows. A transposed left factor only
// changes where the coefficients a_ik are read from; a transposed right
// factor is copied once into row order, which costs far less than the
// product itself. Products are formed in the element type and accumulated
// in double, as in the vector's own sums.
#include "veltancmat/containers/NCDataMatrix.h"

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/platform/NCError.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

using NCMatrixErrors::ThrowSize;

namespace {

const char* const DifferentMatrices = "Matrices are different size.";

// The dense tile: four result rows share every loaded segment of a
// right-hand row, and 256 columns keep the four double accumulator rows
// (8 KiB) in the first-level cache while a 1000-row panel of the right-hand
// factor (1 MiB of floats) stays in the second level.
constexpr int TileRows = 4;
constexpr int TileColumns = 256;

// c_q[0..n) += a_q[k] * b_k[j0 .. j0+n) for q = 0..3 and k = 1..m. Two
// right-hand rows per pass halve the loads and stores of the accumulators,
// which bound this loop; each product still enters the sum in double.
template <class T>
VELTAN_SIMD_CLONES void TileKernel(double* acc, int n, const T* const* a, const T* const* bRows, int m, int j0)
{
    double* c0 = acc;
    double* c1 = acc + n;
    double* c2 = acc + 2 * n;
    double* c3 = acc + 3 * n;
    int k = 1;
    for (; k < m; k += 2) {
        const T x0 = a[0][k], x1 = a[1][k], x2 = a[2][k], x3 = a[3][k];
        const T z0 = a[0][k + 1], z1 = a[1][k + 1], z2 = a[2][k + 1], z3 = a[3][k + 1];
        const T* b = bRows[k] + j0;
        const T* d = bRows[k + 1] + j0;
#pragma omp simd
        for (int j = 0; j < n; ++j) {
            const T y = b[j];
            const T w = d[j];
            c0[j] += static_cast<double>(x0 * y) + static_cast<double>(z0 * w);
            c1[j] += static_cast<double>(x1 * y) + static_cast<double>(z1 * w);
            c2[j] += static_cast<double>(x2 * y) + static_cast<double>(z2 * w);
            c3[j] += static_cast<double>(x3 * y) + static_cast<double>(z3 * w);
        }
    }
    if (k == m) {
        const T x0 = a[0][k], x1 = a[1][k], x2 = a[2][k], x3 = a[3][k];
        const T* b = bRows[k] + j0;
#pragma omp simd
        for (int j = 0; j < n; ++j) {
            const T y = b[j];
            c0[j] += x0 * y;
            c1[j] += x1 * y;
            c2[j] += x2 * y;
            c3[j] += x3 * y;
        }
    }
}

// One row of the tile, for the rows left over at the bottom.
template <class T>
VELTAN_SIMD_CLONES void TileRowKernel(double* acc, int n, const T* a, const T* const* bRows, int m, int j0)
{
    for (int k = 1; k <= m; ++k) {
        const T x = a[k];
        const T* b = bRows[k] + j0;
#pragma omp simd
        for (int j = 0; j < n; ++j)
            acc[j] += x * b[j];
    }
}

// acc[1..n] += x * b[1..n].
template <class T>
VELTAN_SIMD_CLONES void AxpyKernel(double* acc, const T* b, T x, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        acc[j] += x * b[j];
}

// The same over the present cells of b; pairs[j] counts the cells used.
template <class T>
VELTAN_SIMD_CLONES void MaskedAxpyKernel(double* acc, T* pairs, const T* b, T x, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        acc[j] += x * PresentOrZero(b[j]);
        pairs[j] += IsMisVal(b[j]) ? T(0) : T(1);
    }
}

template <class T>
VELTAN_SIMD_CLONES void AddScaledKernel(T* out, const T* a, const T* b, double factor, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        out[j] = (IsMisVal(a[j]) || IsMisVal(b[j])) ? NCMisVal<T> : static_cast<T>(a[j] + factor * b[j]);
}

template <class T>
std::vector<const T*> RowPointers(const NCDataMatrix<T>& a)
{
    std::vector<const T*> rows(static_cast<std::size_t>(a.SizeRows()) + 1, nullptr);
    for (int i = 1; i <= a.SizeRows(); ++i)
        rows[i] = a[i].GetVector();
    return rows;
}

// dst[j][i] = src[i][j] for a rows x cols source (1-based row arrays).
// Square tiles keep the scattered writes within a few cache lines.
template <class T>
void TransposeRows(const T* const* src, int rows, int cols, T* const* dst)
{
    constexpr int Tile = 32;
    for (int i0 = 1; i0 <= rows; i0 += Tile) {
        const int i1 = std::min(rows, i0 + Tile - 1);
        for (int j0 = 1; j0 <= cols; j0 += Tile) {
            const int j1 = std::min(cols, j0 + Tile - 1);
            for (int i = i0; i <= i1; ++i) {
                const T* s = src[i];
                for (int j = j0; j <= j1; ++j)
                    dst[j][i] = s[j];
            }
        }
    }
}

// The left factor as the kernels see it: the coefficients of result row i
// are row i of the matrix, or column i when the factor is transposed.
template <class T>
class LeftFactor {
public:
    LeftFactor(const NCDataMatrix<T>& a, bool transposed) : m_a(a), m_transposed(transposed) {}

    int Rows() const { return m_transposed ? m_a.SizeColumns() : m_a.SizeRows(); }
    int Inner() const { return m_transposed ? m_a.SizeRows() : m_a.SizeColumns(); }
    bool HasMissingValues() const { return m_a.HasMissingValues(); }

    // coef[q] (q < count) becomes the 1-based coefficient array of result
    // row i0 + q. Columns are gathered into `scratch`, Inner() + 1 values
    // per row.
    void Get(int i0, int count, T* scratch, const T** coef) const
    {
        if (!m_transposed) {
            for (int q = 0; q < count; ++q)
                coef[q] = m_a[i0 + q].GetVector();
            return;
        }
        const int m = Inner();
        const std::size_t stride = static_cast<std::size_t>(m) + 1;
        for (int q = 0; q < count; ++q)
            coef[q] = scratch + q * stride;
        for (int k = 1; k <= m; ++k) {
            const T* row = m_a[k].GetVector();
            for (int q = 0; q < count; ++q)
                scratch[q * stride + k] = row[i0 + q];
        }
    }

private:
    const NCDataMatrix<T>& m_a;
    bool m_transposed;
};

// The right factor as rows: the matrix's own rows, or a row-ordered copy of
// its transpose. missing[k] is the number of missing cells in row k.
template <class T>
struct RightFactor {
    RightFactor(const NCDataMatrix<T>& b, bool transposed)
    {
        if (!transposed) {
            inner = b.SizeRows();
            columns = b.SizeColumns();
            rows = RowPointers(b);
            missing.assign(static_cast<std::size_t>(inner) + 1, 0);
            for (int k = 1; k <= inner; ++k)
                missing[k] = b[k].GetNumMisVal();
        } else {
            inner = b.SizeColumns();
            columns = b.SizeRows();
            // Row k's element j sits at copy[(k - 1) * columns + j]: slot 0
            // pads the 1-based indexing.
            copy.resize(static_cast<std::size_t>(inner) * columns + 1);
            std::vector<T*> writable(static_cast<std::size_t>(inner) + 1, nullptr);
            for (int k = 1; k <= inner; ++k)
                writable[k] = copy.data() + static_cast<std::size_t>(k - 1) * columns;
            TransposeRows(RowPointers(b).data(), columns, inner, writable.data());
            rows.assign(writable.begin(), writable.end());
            missing.assign(static_cast<std::size_t>(inner) + 1, 0);
            for (int k = 1; k <= inner; ++k)
                missing[k] = b.GetColumnMisVal(k);
        }
        anyMissing = b.HasMissingValues();
    }

    int inner = 0;
    int columns = 0;
    bool anyMissing = false;
    std::vector<const T*> rows;
    std::vector<int> missing;
    std::vector<T> copy;
};

// acc[1..c] = sum_k coef[k] * row_k over the complete pairs. Rows without
// missing cells pair with every column and are only counted, in `fullRows`;
// the others count their pairs per column in `pairs`.
template <class T>
void CombineRowsMasked(const T* coef, const RightFactor<T>& b, double* acc, T* pairs, int& fullRows)
{
    const int c = b.columns;
    std::fill(acc + 1, acc + 1 + c, 0.0);
    std::fill(pairs + 1, pairs + 1 + c, T(0));
    fullRows = 0;
    for (int k = 1; k <= b.inner; ++k) {
        const T x = coef[k];
        if (IsMisVal(x))
            continue;
        if (b.missing[k] == 0) {
            AxpyKernel(acc, b.rows[k], x, c);
            ++fullRows;
        } else {
            MaskedAxpyKernel(acc, pairs, b.rows[k], x, c);
        }
    }
}

template <class T>
void CombineRowsDense(const T* coef, const RightFactor<T>& b, double* acc)
{
    std::fill(acc + 1, acc + 1 + b.columns, 0.0);
    for (int k = 1; k <= b.inner; ++k)
        AxpyKernel(acc, b.rows[k], coef[k], b.columns);
}

// A cell without a single complete pair is missing.
template <class T>
void StoreMasked(T* out, const double* acc, const T* pairs, int fullRows, int c)
{
    for (int j = 1; j <= c; ++j)
        out[j] = (fullRows > 0 || pairs[j] > T(0)) ? static_cast<T>(acc[j]) : NCMisVal<T>;
}

template <class T>
void ProductDense(const LeftFactor<T>& a, const RightFactor<T>& b, T* const* out, bool parallel)
{
    const int r = a.Rows();
    const int m = a.Inner();
    const int c = b.columns;
    const int rowTiles = (r + TileRows - 1) / TileRows;
    const int colTiles = (c + TileColumns - 1) / TileColumns;
    const std::size_t accSize = static_cast<std::size_t>(TileRows) * TileColumns;
    const std::size_t scratchSize = static_cast<std::size_t>(TileRows) * (static_cast<std::size_t>(m) + 1);
    // Buffers per thread, allocated here: an allocation failure inside the
    // parallel region could not be reported.
    const int threads = parallel ? omp_get_max_threads() : 1;
    std::vector<double> accAll(accSize * threads);
    std::vector<T> scratchAll(scratchSize * threads);
    const T* const* bRows = b.rows.data();

#pragma omp parallel if (parallel)
    {
        const std::size_t t = static_cast<std::size_t>(omp_get_thread_num());
        double* acc = accAll.data() + t * accSize;
        T* scratch = scratchAll.data() + t * scratchSize;
        // Column tiles outermost: a thread works through the row tiles of
        // one right-hand panel while that panel is in its cache.
#pragma omp for schedule(static) collapse(2)
        for (int ct = 0; ct < colTiles; ++ct) {
            for (int rt = 0; rt < rowTiles; ++rt) {
                const int j0 = ct * TileColumns + 1;
                const int n = std::min(TileColumns, c - j0 + 1);
                const int i0 = rt * TileRows + 1;
                const int count = std::min(TileRows, r - i0 + 1);
                const T* coef[TileRows];
                a.Get(i0, count, scratch, coef);
                std::fill(acc, acc + static_cast<std::size_t>(count) * n, 0.0);
                if (count == TileRows) {
                    TileKernel(acc, n, coef, bRows, m, j0);
                } else {
                    for (int q = 0; q < count; ++q)
                        TileRowKernel(acc + static_cast<std::size_t>(q) * n, n, coef[q], bRows, m, j0);
                }
                for (int q = 0; q < count; ++q) {
                    T* row = out[i0 + q] + j0;
                    const double* sums = acc + static_cast<std::size_t>(q) * n;
                    for (int j = 0; j < n; ++j)
                        row[j] = static_cast<T>(sums[j]);
                }
            }
        }
    }
}

template <class T>
void ProductMasked(const LeftFactor<T>& a, const RightFactor<T>& b, T* const* out, bool parallel)
{
    const int r = a.Rows();
    const int m = a.Inner();
    const int c = b.columns;
    const std::size_t rowSize = static_cast<std::size_t>(c) + 1;
    const std::size_t scratchSize = static_cast<std::size_t>(m) + 1;
    const int threads = parallel ? omp_get_max_threads() : 1;
    std::vector<double> accAll(rowSize * threads);
    std::vector<T> pairsAll(rowSize * threads);
    std::vector<T> scratchAll(scratchSize * threads);

#pragma omp parallel if (parallel)
    {
        const std::size_t t = static_cast<std::size_t>(omp_get_thread_num());
        double* acc = accAll.data() + t * rowSize;
        T* pairs = pairsAll.data() + t * rowSize;
        T* scratch = scratchAll.data() + t * scratchSize;
#pragma omp for schedule(static)
        for (int i = 1; i <= r; ++i) {
            const T* coef = nullptr;
            a.Get(i, 1, scratch, &coef);
            int fullRows = 0;
            CombineRowsMasked(coef, b, acc, pairs, fullRows);
            StoreMasked(out[i], acc, pairs, fullRows, c);
        }
    }
}

// Few result rows, each a combination of the right factor's rows: split
// over the right factor's rows instead, so that every thread reads its own
// share of the right factor once for all result rows and no thread idles.
// Each thread sums into its own accumulators; they are added in thread
// order, so a given thread count always gives the same bits.
template <class T>
void ProductSplitInner(const LeftFactor<T>& a, const RightFactor<T>& b, T* const* out)
{
    const int r = a.Rows();
    const int m = a.Inner();
    const int c = b.columns;
    const std::size_t stride = static_cast<std::size_t>(m) + 1;
    std::vector<T> gathered(static_cast<std::size_t>(r) * stride);
    std::vector<const T*> coef(static_cast<std::size_t>(r));
    a.Get(1, r, gathered.data(), coef.data());
    const int threads = omp_get_max_threads();
    const std::size_t rowSize = static_cast<std::size_t>(c) + 1;
    const std::size_t block = rowSize * r;
    std::vector<double> accAll(block * threads, 0.0);
    std::vector<T> pairsAll(block * threads, T(0));
    std::vector<int> fullAll(static_cast<std::size_t>(r) * threads, 0);

#pragma omp parallel num_threads(threads)
    {
        const std::size_t t = static_cast<std::size_t>(omp_get_thread_num());
        double* acc = accAll.data() + t * block;
        T* pairs = pairsAll.data() + t * block;
        int* full = fullAll.data() + t * r;
#pragma omp for schedule(static)
        for (int k = 1; k <= m; ++k) {
            const T* row = b.rows[k];
            for (int q = 0; q < r; ++q) {
                const T x = coef[static_cast<std::size_t>(q)][k];
                if (IsMisVal(x))
                    continue;
                if (b.missing[k] == 0) {
                    AxpyKernel(acc + q * rowSize, row, x, c);
                    ++full[q];
                } else {
                    MaskedAxpyKernel(acc + q * rowSize, pairs + q * rowSize, row, x, c);
                }
            }
        }
    }
    for (std::size_t t = 1; t < static_cast<std::size_t>(threads); ++t) {
        for (std::size_t e = 0; e < block; ++e) {
            accAll[e] += accAll[t * block + e];
            pairsAll[e] += pairsAll[t * block + e];
        }
        for (int q = 0; q < r; ++q)
            fullAll[static_cast<std::size_t>(q)] += fullAll[t * r + static_cast<std::size_t>(q)];
    }
    for (int q = 0; q < r; ++q)
        StoreMasked(out[q + 1], accAll.data() + q * rowSize, pairsAll.data() + q * rowSize,
                    fullAll[static_cast<std::size_t>(q)], c);
}

// The product of the two factors as a new matrix with exact counts.
template <class T>
NCDataMatrix<T> Product(const NCDataMatrix<T>& a, bool aTransposed, const NCDataMatrix<T>& b, bool bTransposed)
{
    const LeftFactor<T> left(a, aTransposed);
    const RightFactor<T> right(b, bTransposed);
    NCDataMatrix<T> product(left.Rows(), right.columns);
    if (product.empty())
        return product;
    std::vector<T*> out = product.GetMatrixAsPointerPointer();
    const double work = static_cast<double>(left.Rows()) * left.Inner() * right.columns;
    const bool parallel = work > NCParallelWork::MinProductMultiplyAdds;
    if (parallel && left.Rows() <= NCParallelWork::MaxRowsOfInnerSplit && right.inner >= 4 * omp_get_max_threads())
        ProductSplitInner(left, right, out.data());
    else if (left.HasMissingValues() || right.anyMissing)
        ProductMasked(left, right, out.data(), parallel);
    else
        ProductDense(left, right, out.data(), parallel);
    product.RecountMissing();
    return product;
}

} // namespace

// -------------------------------------------------------------- products

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MatrixMultiply(const NCDataMatrix& B) const
{
    NCDataMatrix result;
    MatrixMultiplyImpl(B, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::MatrixMultiplyImpl(const NCDataMatrix& B, NCDataMatrix* result) const
{
    NCMatrixErrors::CheckResult(result);
    if (m_cols != B.m_rows)
        ThrowSize("MatrixMultiply", DifferentMatrices);
    *result = Product(*this, false, B, false);
}

template <class T>
void NCDataMatrix<T>::MulMat(const NCDataMatrix& B, NCDataMatrix& result) const
{
    if (m_cols != B.m_rows)
        ThrowSize("MulMat", DifferentMatrices);
    // Built apart and moved in: `result` may be one of the factors.
    result = Product(*this, false, B, false);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::PreMultiply(const NCDataMatrix& A) const
{
    if (A.m_cols != m_rows)
        ThrowSize("PreMultiply", DifferentMatrices);
    return Product(A, false, *this, false);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeThis(const NCDataMatrix& B) const
{
    if (m_rows != B.m_rows)
        ThrowSize("MultiplyTransposeThis", DifferentMatrices);
    return Product(*this, true, B, false);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeOther(const NCDataMatrix& B) const
{
    if (m_cols != B.m_cols)
        ThrowSize("MultiplyTransposeOther", DifferentMatrices);
    return Product(*this, false, B, true);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeBoth(const NCDataMatrix& B) const
{
    if (m_rows != B.m_cols)
        ThrowSize("MultiplyTransposeBoth", DifferentMatrices);
    return Product(*this, true, B, true);
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::PreMultiply(const Vector& v) const
{
    Vector result;
    PreMultiplyImpl(v, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::PreMultiplyImpl(const Vector& v, Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    if (v.HasMissingValues() || HasMissingValues())
        *result = PreMultiplyMisVal(v);
    else
        *result = PreMultiplyNonMisVal(v);
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::PreMultiplyMisVal(const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "PreMultiply");
    const RightFactor<T> rows(*this, false);
    std::vector<double> acc(static_cast<std::size_t>(m_cols) + 1);
    std::vector<T> pairs(static_cast<std::size_t>(m_cols) + 1);
    int fullRows = 0;
    CombineRowsMasked(v.GetVector(), rows, acc.data(), pairs.data(), fullRows);
    Vector result(m_cols);
    StoreMasked(result.GetVectorForWriting(), acc.data(), pairs.data(), fullRows, m_cols);
    result.RecountMissing();
    return result;
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::PreMultiplyNonMisVal(const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "PreMultiply");
    const RightFactor<T> rows(*this, false);
    std::vector<double> acc(static_cast<std::size_t>(m_cols) + 1);
    CombineRowsDense(v.GetVector(), rows, acc.data());
    Vector result(m_cols);
    T* out = result.GetVectorForWriting();
    for (int j = 1; j <= m_cols; ++j)
        out[j] = static_cast<T>(acc[j]);
    result.RecountMissing();
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator*(const NCDataMatrix<T>& M) const
{
    return M.PreMultiply(*this);
}

template <class T>
void NCDataMatrix<T>::AddMat(const NCDataMatrix& B, NCDataMatrix& result, double factor) const
{
    if (m_rows != B.m_rows || m_cols != B.m_cols)
        ThrowSize("AddMat", DifferentMatrices);
    NCDataMatrix sum(m_rows, m_cols);
    std::vector<T*> out = sum.GetMatrixAsPointerPointer();
    for (int i = 1; i <= m_rows; ++i)
        AddScaledKernel(out[i], m_rowArray[i].GetVector(), B.m_rowArray[i].GetVector(), factor, m_cols);
    sum.RecountMissing();
    result = std::move(sum);
}

// ------------------------------------------------------ in-place transforms

template <class T>
void NCDataMatrix<T>::Transpose()
{
    NCDataMatrix transposed(m_cols, m_rows);
    std::vector<T*> out = transposed.GetMatrixAsPointerPointer();
    TransposeRows(RowPointers(*this).data(), m_rows, m_cols, out.data());
    transposed.RecountMissing();
    swap(transposed);
}

template <class T>
void NCDataMatrix<T>::TransformToMprim_mul_M()
{
    *this = MultiplyTransposeThis(*this);
}

namespace {

// The LU factors of a square matrix, in double, row-major and 0-based, by
// Crout's method with implicit partial pivoting: L (unit diagonal, not
// stored) below the diagonal and U on and above it, in one array.
class LUFactors
{
public:
    explicit LUFactors(int n)
        : m_n(n), m_lu(static_cast<std::size_t>(n) * n), m_pivotRow(static_cast<std::size_t>(n))
    {
    }

    double& at(int i, int j) { return m_lu[static_cast<std::size_t>(i) * m_n + j]; }
    double at(int i, int j) const { return m_lu[static_cast<std::size_t>(i) * m_n + j]; }

    // Factors the matrix stored by at(); false when a row is all zeros.
    bool Factor()
    {
        std::vector<double> scale(static_cast<std::size_t>(m_n));
        if (!RowScales(scale))
            return false;
        for (int j = 0; j < m_n; ++j)
            FactorColumn(j, scale);
        return true;
    }

    // x = A^-1 e_col, e_col the unit vector; x has n elements.
    void SolveUnit(int col, std::vector<double>& x) const
    {
        const int n = m_n;
        std::fill(x.begin(), x.end(), 0.0);
        x[col] = 1.0;
        // Forward substitution with the row exchanges replayed in order;
        // the leading zeros of the unit vector are skipped.
        int first = -1;
        for (int i = 0; i < n; ++i) {
            const int p = m_pivotRow[i];
            double sum = x[p];
            x[p] = x[i];
            if (first >= 0) {
                for (int k = first; k < i; ++k)
                    sum -= at(i, k) * x[k];
            } else if (sum != 0.0) {
                first = i;
            }
            x[i] = sum;
        }
        for (int i = n - 1; i >= 0; --i) {
            double sum = x[i];
            for (int k = i + 1; k < n; ++k)
                sum -= at(i, k) * x[k];
            x[i] = sum / at(i, i);
        }
    }

private:
    // Implicit pivoting compares candidates as if every row were scaled to
    // a largest element of 1. A row of zeros has no scale: singular.
    bool RowScales(std::vector<double>& scale) const
    {
        for (int i = 0; i < m_n; ++i) {
            double largest = 0.0;
            for (int j = 0; j < m_n; ++j)
                largest = std::max(largest, std::fabs(at(i, j)));
            if (largest == 0.0)
                return false;
            scale[i] = 1.0 / largest;
        }
        return true;
    }

    // Crout's order: column j of U above the diagonal, then column j of L
    // on and below it, the pivot chosen among the latter.
    void FactorColumn(int j, std::vector<double>& scale)
    {
        const int n = m_n;
        for (int i = 0; i < j; ++i) {
            double sum = at(i, j);
            for (int k = 0; k < i; ++k)
                sum -= at(i, k) * at(k, j);
            at(i, j) = sum;
        }
        double best = 0.0;
        int bestRow = j;
        for (int i = j; i < n; ++i) {
            double sum = at(i, j);
            for (int k = 0; k < j; ++k)
                sum -= at(i, k) * at(k, j);
            at(i, j) = sum;
            const double merit = scale[i] * std::fabs(sum);
            if (merit >= best) {
                best = merit;
                bestRow = i;
            }
        }
        if (bestRow != j) {
            for (int k = 0; k < n; ++k)
                std::swap(at(bestRow, k), at(j, k));
            scale[bestRow] = scale[j];
        }
        m_pivotRow[j] = bestRow;
        // A vanished pivot is kept tiny rather than reported: a nearly
        // singular matrix gets a very large inverse, which callers expect.
        if (at(j, j) == 0.0)
            at(j, j) = static_cast<float>(1e-20);
        const double reciprocal = 1.0 / at(j, j);
        for (int i = j + 1; i < n; ++i)
            at(i, j) *= reciprocal;
    }

    int m_n;
    std::vector<double> m_lu;
    std::vector<int> m_pivotRow;
};

} // namespace

template <class T>
bool NCDataMatrix<T>::TransformToInverse()
{
    if (m_rows != m_cols)
        ThrowSize("TransformToInverse", DifferentMatrices);
    const int n = m_rows;
    LUFactors lu(n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            lu.at(i, j) = m_rowArray[i + 1][j + 1];
    if (!lu.Factor())
        return false;

    NCDataMatrix inverse(n, n);
    std::vector<T*> out = inverse.GetMatrixAsPointerPointer();
    std::vector<double> x(static_cast<std::size_t>(n));
    for (int col = 0; col < n; ++col) {
        lu.SolveUnit(col, x);
        for (int i = 0; i < n; ++i)
            out[i + 1][col + 1] = static_cast<T>(x[i]);
    }
    inverse.RecountMissing();
    swap(inverse);
    return true;
}

// ------------------------------------------------------------ regression

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::GetRegressionCoefficients(const NCDataMatrix& Y) const
{
    if (HasMissingValues() || Y.HasMissingValues())
        throw NCInternalError("NCDataMatrix<FloatType>::GetRegressionCoefficients");
    if (m_cols != Y.m_cols)
        ThrowSize("GetRegressionCoefficients", DifferentMatrices);
    NCDataMatrix A(*this);
    A.Transpose();
    A.TransformToMprim_mul_M();
    // A singular X X' is deliberately not reported: with a zero row the
    // cross-product stays in place and the coefficients come from it.
    (void)A.TransformToInverse();
    A.MulMat(*this, A);
    return A.MultiplyTransposeOther(Y);
}

// The vector's Result is defined beside the proxy it returns, in the matrix
// header; the vector's extern template keeps GCC from emitting it anywhere
// else, so it is instantiated here with the vector-matrix product.
#define VELTAN_INSTANTIATE_PRODUCTS(T)                                                                           \
    template NCDataMatrix<T> NCDataMatrix<T>::MatrixMultiply(const NCDataMatrix<T>&) const;                      \
    template void NCDataMatrix<T>::MatrixMultiplyImpl(const NCDataMatrix<T>&, NCDataMatrix<T>*) const;           \
    template void NCDataMatrix<T>::MulMat(const NCDataMatrix<T>&, NCDataMatrix<T>&) const;                       \
    template NCDataMatrix<T> NCDataMatrix<T>::PreMultiply(const NCDataMatrix<T>&) const;                         \
    template NCDataVector<T> NCDataMatrix<T>::PreMultiply(const NCDataVector<T>&) const;                         \
    template void NCDataMatrix<T>::PreMultiplyImpl(const NCDataVector<T>&, NCDataVector<T>*) const;              \
    template NCDataVector<T> NCDataMatrix<T>::PreMultiplyMisVal(const NCDataVector<T>&) const;                   \
    template NCDataVector<T> NCDataMatrix<T>::PreMultiplyNonMisVal(const NCDataVector<T>&) const;                \
    template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeThis(const NCDataMatrix<T>&) const;               \
    template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeOther(const NCDataMatrix<T>&) const;              \
    template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeBoth(const NCDataMatrix<T>&) const;               \
    template void NCDataMatrix<T>::AddMat(const NCDataMatrix<T>&, NCDataMatrix<T>&, double) const;               \
    template void NCDataMatrix<T>::Transpose();                                                                  \
    template void NCDataMatrix<T>::TransformToMprim_mul_M();                                                     \
    template bool NCDataMatrix<T>::TransformToInverse();                                                         \
    template NCDataMatrix<T> NCDataMatrix<T>::GetRegressionCoefficients(const NCDataMatrix<T>&) const;           \
    template NCDataVector<T> NCDataVector<T>::operator*(const NCDataMatrix<T>&) const;                           \
    template NCVecOpResultProxy<T> NCDataVector<T>::Result(NCDataVector<T>*) const;

VELTAN_INSTANTIATE_PRODUCTS(float)
VELTAN_INSTANTIATE_PRODUCTS(double)

#undef VELTAN_INSTANTIATE_PRODUCTS
