// The ordinary regressions, the NIPALS start column, the rank-one updates
// and the row and column scalings. The NIPALS projections themselves are in
// NCDataMatrixNipals.cpp.

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/RankOne.h"
#include "veltancmat/containers/frame/Simd.h"

#include <utility>
#include <vector>

namespace {

template <class T>
VELTAN_SIMD_CLONES void AccumulateSquares(double* ss, const T* x, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        const T v = PresentOrZero(x[j]);
        ss[j] += v * v;
    }
}

} // namespace

// ------------------------------------------------- ordinary regressions

namespace {
// The vector slope(1) .. slope(count), the slopes found in parallel.
template <class T, class Slope>
NCDataVector<T> Slopes(int count, Slope slope)
{
    NCDataVector<T> slopes(count);
    T* out = slopes.GetVectorForWriting();
#pragma omp parallel for schedule(static)
    for (int k = 1; k <= count; ++k)
        out[k] = static_cast<T>(slope(k));
    slopes.RecountMissing();
    return slopes;
}
} // namespace

template <class T>
NCDataVector<T> NCDataMatrix<T>::RegressColumns(const Vector& v) const
{
    Vector result;
    RegressColumnsImpl(v, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::RegressColumnsImpl(const Vector& v, Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "RegressColumns");
    *result = Slopes<T>(m_cols, [&](int j) { return v.Regress(GetColumn(j)); });
}

template <class T>
double NCDataMatrix<T>::RegressOneColumn(int j, const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "RegressOneColumn");
    return v.Regress(GetColumn(j));
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::RegressRows(const Vector& v) const
{
    Vector result;
    RegressRowsImpl(v, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::RegressRowsImpl(const Vector& v, Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    NCMatrixErrors::CheckVectorSize(v.Size(), m_cols, "RegressRows");
    *result = Slopes<T>(m_rows, [&](int i) { return v.Regress(m_rowArray[i]); });
}

// ---------------------------------------------------------- start column

template <class T>
NCDataVector<T> NCDataMatrix<T>::GetNIPALSStartColumn() const
{
    Vector column;
    GetNIPALSStartColumnImpl(&column);
    return column;
}

template <class T>
void NCDataMatrix<T>::GetNIPALSStartColumnImpl(Vector* result) const
{
    CheckedStartColumn(AllRows(), result, Owner);
}

template <class T>
void NCDataMatrix<T>::CheckedStartColumn(const NCRowTable<T>& rows, Vector* result, const char* owner)
{
    NCMatrixErrors::CheckResult(result);
    if (rows.cols == 0)
        NCMatrixErrors::ThrowSizeIn(owner, "GetNIPALSStartColumn", "Index out of range.");
    StartColumn(rows, result);
}

template <class T>
void NCDataMatrix<T>::StartColumn(const NCRowTable<T>& rows, Vector* result)
{
    const int n = rows.cols;
    int best = 1;
    if (n > 1) {
        // All column sums of squares in one pass over the rows.
        std::vector<double> ss(static_cast<std::size_t>(n) + 1, 0.0);
        for (int i = 1; i <= rows.count; ++i)
            AccumulateSquares(ss.data(), rows[i].GetVector(), n);
        double bestSS = 0.0;
        for (int j = 1; j <= n; ++j) {
            // A wholly missing column has no sum of squares (-99) and never wins.
            const double s = rows.columnMissing[j] == rows.count ? dMisVal : ss[j];
            if (s > bestSS * 1.000001) {
                bestSS = s;
                best = j;
            }
        }
    }
    result->SetSize(rows.count);
    T* out = result->GetVectorForWriting();
    for (int i = 1; i <= rows.count; ++i)
        out[i] = rows[i].GetVector()[best];
    result->m_numMis = rows.columnMissing[best];
}

// ------------------------------------------------------- rank-one updates

template <class T>
void NCDataMatrix<T>::AddVprimV(const Vector& t, const Vector& p, double factor)
{
    if (t.Size() != m_rows || p.Size() != m_cols)
        NCMatrixErrors::ThrowSize("AddVprimV", "Vectors are of different size.");
    if (m_rows == 0 || m_cols == 0)
        return;
    UnlinkMe();
    // A copy of p: p may be a row of this very matrix.
    const Vector loading(p);
    const T* pv = loading.GetVector();
    const T* tv = t.GetVector();
    Vector* rowArray = m_rowArray;
    const int n = m_cols;
    int landed = 0;
#pragma omp parallel for schedule(static) reduction(+ : landed)
    for (int i = 1; i <= m_rows; ++i) {
        if (IsMisVal(tv[i]))
            continue;
        Vector& row = rowArray[i];
        const int newlyMissing = RankOneUpdate(row.GetVectorForWriting(), pv, factor * tv[i], n);
        row.m_numMis += newlyMissing;
        landed += newlyMissing;
    }
    if (landed > 0)
        RecountColumns();
}

template <class T>
void NCDataMatrix<T>::AddFV(const Vector& v, double factor)
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_cols, "AddFV");
    for (int i = 1; i <= m_rows; ++i)
        (*this)(i).TransformTo_Add_d_x_Vt(factor, v);
}

template <class T>
void NCDataMatrix<T>::TransformToDotSubRowVector(const Vector& v)
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_cols, "TransformToDotSubRowVector");
    for (int i = 1; i <= m_rows; ++i)
        (*this)(i) -= v;
}

// ------------------------------------------------------------- scalings

namespace {
// Divisors turned into factors: 1 / v, with a zero or missing divisor
// missing, so the multiplying form makes those cells missing.
template <class T>
NCDataVector<T> Reciprocals(const NCDataVector<T>& v)
{
    NCDataVector<T> r(v);
    r.VectorDivide(1.0);
    return r;
}
} // namespace

template <class T>
void NCDataMatrix<T>::TransformToColumnScaled(const Vector& scale)
{
    NCMatrixErrors::CheckVectorSize(scale.Size(), m_cols, "TransformToColumnScaled");
    for (int i = 1; i <= m_rows; ++i) {
        auto fixer = GetMissingCountFixer(i);
        m_rowArray[i].DotMultiplication(scale);
    }
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotMultiplyVector(const Vector& v) const
{
    NCDataMatrix result;
    DotMultiplyVectorImpl(v, &result);
    return result;
}

template <class T>
void NCDataMatrix<T>::DotMultiplyVectorImpl(const Vector& v, NCDataMatrix* result) const
{
    NCMatrixErrors::CheckResult(result);
    NCMatrixErrors::CheckVectorSize(v.Size(), m_cols, "DotMultiplyVector");
    NCDataMatrix scaled(*this);
    scaled.TransformToColumnScaled(v);
    *result = std::move(scaled);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotDivideVector(const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_cols, "DotDivideVector");
    return DotMultiplyVector(Reciprocals(v));
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotPreMultiplyVector(const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "DotPreMultiplyVector");
    NCDataMatrix result(*this);
    for (int i = 1; i <= m_rows; ++i) {
        if (IsMisVal(v[i]))
            result(i) = Vector(m_cols, MisVal);
        else
            result(i) *= v[i];
    }
    return result;
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotPreDivideVector(const Vector& v) const
{
    NCMatrixErrors::CheckVectorSize(v.Size(), m_rows, "DotPreDivideVector");
    return DotPreMultiplyVector(Reciprocals(v));
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::SNV() const
{
    NCDataMatrix result;
    SNVImpl(&result);
    return result;
}

template <class T>
void NCDataMatrix<T>::SNVImpl(NCDataMatrix* result) const
{
    NCMatrixErrors::CheckResult(result);
    NCDataMatrix transformed(*this);
    for (int i = 1; i <= m_rows; ++i) {
        auto fixer = transformed.GetMissingCountFixer(i);
        transformed.m_rowArray[i].SNV();
    }
    *result = std::move(transformed);
}

#define VELTAN_INSTANTIATE_REGRESSION(T)                                                                              \
    template NCDataVector<T> NCDataMatrix<T>::RegressColumns(const Vector&) const;                                   \
    template double NCDataMatrix<T>::RegressOneColumn(int, const Vector&) const;                                     \
    template NCDataVector<T> NCDataMatrix<T>::RegressRows(const Vector&) const;                                      \
    template NCDataVector<T> NCDataMatrix<T>::GetNIPALSStartColumn() const;                                          \
    template void NCDataMatrix<T>::AddVprimV(const Vector&, const Vector&, double);                                  \
    template void NCDataMatrix<T>::AddFV(const Vector&, double);                                                     \
    template void NCDataMatrix<T>::TransformToDotSubRowVector(const Vector&);                                        \
    template void NCDataMatrix<T>::TransformToColumnScaled(const Vector&);                                           \
    template NCDataMatrix<T> NCDataMatrix<T>::DotMultiplyVector(const Vector&) const;                                \
    template NCDataMatrix<T> NCDataMatrix<T>::DotDivideVector(const Vector&) const;                                  \
    template NCDataMatrix<T> NCDataMatrix<T>::DotPreMultiplyVector(const Vector&) const;                             \
    template NCDataMatrix<T> NCDataMatrix<T>::DotPreDivideVector(const Vector&) const;                               \
    template NCDataMatrix<T> NCDataMatrix<T>::SNV() const;                                                           \
    template void NCDataMatrix<T>::RegressColumnsImpl(const Vector&, Vector*) const;                                 \
    template void NCDataMatrix<T>::RegressRowsImpl(const Vector&, Vector*) const;                                    \
    template void NCDataMatrix<T>::GetNIPALSStartColumnImpl(Vector*) const;                                          \
    template void NCDataMatrix<T>::StartColumn(const NCRowTable<T>&, Vector*);                                       \
    template void NCDataMatrix<T>::CheckedStartColumn(const NCRowTable<T>&, Vector*, const char*);                   \
    template void NCDataMatrix<T>::DotMultiplyVectorImpl(const Vector&, NCDataMatrix*) const;                        \
    template void NCDataMatrix<T>::SNVImpl(NCDataMatrix*) const;

VELTAN_INSTANTIATE_REGRESSION(float)
VELTAN_INSTANTIATE_REGRESSION(double)
