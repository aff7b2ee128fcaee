// The column and row regressions that NIPALS repeats for every component,
// the start column, the rank-one updates and the row and column scalings.
//
// The regressions read the matrix in place, row by row: each thread sums its
// share of the rows into its own per-column partial sums, which are added
// together at the end. Elements are multiplied in the element type and
// accumulated in double.

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/Simd.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// s12[j] += x[j] * t for a complete row, into partial sums of the element
// type (see FlushEvery). One row at a time: bands of rows read together
// measured slower, the rows being short separate streams.
template <class T>
VELTAN_SIMD_CLONES void AccumulateComplete(T* __restrict s12, const T* __restrict x, T t, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        s12[j] += x[j] * t;
}

// The same for a row with missing cells, which count as zero in s12. What
// they would have contributed to the used squares is gathered apart in
// gapSquares[j] (t^2 where x[j] is missing): the used squares of a column
// are then t't minus that, a select per cell instead of a mask on every
// sum. The sums are restrict-qualified: as two arrays of one type they
// could alias, and GCC would store and reload both in every iteration.
template <class T>
VELTAN_SIMD_CLONES void AccumulateMasked(T* __restrict s12, T* __restrict gapSquares, const T* __restrict x, T t,
                                         int n)
{
    const T q = t * t;
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        const bool m = IsMisVal(x[j]);
        const T present = m ? T(0) : x[j];
        const T gap = m ? q : T(0);
        s12[j] += present * t;
        gapSquares[j] += gap;
    }
}

// total[j] += partial[j] in double, and the partial sums start again.
template <class T>
VELTAN_SIMD_CLONES void Flush(double* __restrict total, T* __restrict partial, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        total[j] += partial[j];
        partial[j] = T(0);
    }
}

// The column projection sums this many rows in the element type before it
// adds them to its double sums: a quarter of the per-cell work of adding
// each product in double, for an error of a few units in the last place of
// a float over eight terms.
constexpr int FlushEvery = 8;

// Sum of x[j] * p[j] over the columns.
template <class T>
VELTAN_SIMD_CLONES double DotComplete(const T* x, const T* p, int n)
{
    double sum = 0.0;
#pragma omp simd reduction(+ : sum)
    for (int j = 1; j <= n; ++j)
        sum += x[j] * p[j];
    return sum;
}

// The same over a row with missing cells, against a loading whose missing
// entries are zero (p) with squares p2 (zero there too). The squares of the
// loadings that meet a missing cell are gathered apart. Selecting between
// constants rather than between loads keeps the loads unconditional.
template <class T>
VELTAN_SIMD_CLONES double DotMasked(const T* x, const T* p, const T* p2, int n, double& gapSquares)
{
    double sum = 0.0, squares = 0.0;
#pragma omp simd reduction(+ : sum, squares)
    for (int j = 1; j <= n; ++j) {
        const T gap = IsMisVal(x[j]) ? T(1) : T(0);
        sum += (x[j] * p[j]) * (T(1) - gap);
        squares += gap * p2[j];
    }
    gapSquares = squares;
    return sum;
}

// How many missing cells of a row meet a present loading.
template <class T>
VELTAN_SIMD_CLONES int GapPairs(const T* x, const int* present, int n)
{
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int j = 1; j <= n; ++j)
        count += int(IsMisVal(x[j])) * present[j];
    return count;
}

// x[j] += f * p[j] where both are present; returns how many cells became
// exactly -99 (which then reads as missing like any other -99).
template <class T>
VELTAN_SIMD_CLONES int RankOneUpdate(T* x, const T* p, double f, int n)
{
    int landed = 0;
#pragma omp simd reduction(+ : landed)
    for (int j = 1; j <= n; ++j) {
        const bool both = !IsMisVal(x[j]) && !IsMisVal(p[j]);
        const T updated = static_cast<T>(x[j] + f * p[j]);
        x[j] = both ? updated : x[j];
        landed += (both && IsMisVal(updated)) ? 1 : 0;
    }
    return landed;
}

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

// ------------------------------------------------------ NIPALS regressions

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector& t, const IndexList* groups,
                                                                int group) const
{
    Vector p;
    SpecialNipalsRegressColumnsFixImpl(t, groups, group, &p);
    return p;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector& t, const IndexList* groups, int group,
                                                         Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    if (t.Size() != m_rows)
        NCMatrixErrors::ThrowSize("SpecialNipalsRegressColumnsFix", "Vectors are of different size.");
    if (groups && groups->Size() != m_cols)
        NCMatrixErrors::ThrowSize("SpecialNipalsRegressColumnsFix", "Vectors are of different size.");

    const int n = m_cols;
    const T* tv = t.GetVector();
    const bool tComplete = t.HasNoMissingValues();
    // Rows whose score is missing take no part.
    const bool masked = m_numMis > 0;
    double tt = 0.0; // t't over all present t_i
    int rowsUsed = 0;
    std::vector<double> s12(static_cast<std::size_t>(n) + 1, 0.0);
    std::vector<double> gapSquares(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const Vector* rowArray = m_rowArray;
    const int rows = m_rows;

#pragma omp parallel reduction(+ : tt, rowsUsed)
    {
        std::vector<double> my12(static_cast<std::size_t>(n) + 1, 0.0);
        std::vector<double> mySquares(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
        std::vector<T> part12(static_cast<std::size_t>(n) + 1, T(0));
        std::vector<T> partSquares(masked ? static_cast<std::size_t>(n) + 1 : 0, T(0));
        int pending = 0;
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            const T ti = tv[i];
            if (IsMisVal(ti))
                continue;
            const Vector& row = rowArray[i];
            tt += static_cast<double>(ti * ti);
            ++rowsUsed;
            if (row.HasNoMissingValues())
                AccumulateComplete(part12.data(), row.GetVector(), ti, n);
            else
                AccumulateMasked(part12.data(), partSquares.data(), row.GetVector(), ti, n);
            if (++pending == FlushEvery) {
                Flush(my12.data(), part12.data(), n);
                if (masked)
                    Flush(mySquares.data(), partSquares.data(), n);
                pending = 0;
            }
        }
        Flush(my12.data(), part12.data(), n);
        if (masked)
            Flush(mySquares.data(), partSquares.data(), n);
#pragma omp critical(NCDataMatrix_NipalsColumns)
        {
            for (int j = 1; j <= n; ++j)
                s12[j] += my12[j];
            for (std::size_t j = 1; j < mySquares.size(); ++j)
                gapSquares[j] += mySquares[j];
        }
    }

    // The pairs of column j are the used rows less the column's missing
    // cells in them: its missing count less those in rows left out.
    std::vector<int> gaps;
    if (masked) {
        const int* columnMissing = m_colMis->GetPtr();
        gaps.assign(columnMissing, columnMissing + n + 1);
        if (!tComplete)
            for (int i = 1; i <= rows; ++i)
                if (IsMisVal(tv[i]) && rowArray[i].HasMissingValues()) {
                    const T* x = rowArray[i].GetVector();
                    for (int j = 1; j <= n; ++j)
                        gaps[j] -= IsMisVal(x[j]) ? 1 : 0;
                }
    }

    result->SetSize(n);
    T* out = result->GetVectorForWriting();
    const int* columnMissing = m_colMis ? m_colMis->GetPtr() : nullptr;
    const int* labels = groups ? groups->GetPtr() : nullptr;
    int missing = 0;
    for (int j = 1; j <= n; ++j) {
        double d = tt;
        int pairs = rowsUsed;
        if (masked && !(tComplete && columnMissing[j] == 0)) {
            d = std::max(tt / 3.0, tt - gapSquares[j]);
            pairs = rowsUsed - gaps[j];
        }
        const bool excluded = labels && labels[j] == group;
        const bool defined = !excluded && pairs > 0 && std::fabs(d) > 1e-30;
        out[j] = defined ? static_cast<T>(s12[j] / d) : MisVal;
        missing += IsMisVal(out[j]) ? 1 : 0;
    }
    result->m_numMis = missing;
}

template <class T>
double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int j, const Vector& t) const
{
    if (t.Size() != m_rows)
        NCMatrixErrors::ThrowSize("SpecialNipalsRegressOneColumnFix", "Vectors are of different size.");
    return t.SpecialNipalsRegressFix(GetColumn(j));
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector& p, const IndexList* groups,
                                                             int group) const
{
    Vector t;
    SpecialNipalsRegressRowsFixImpl(p, groups, group, &t);
    return t;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector& p, const IndexList* groups, int group,
                                                      Vector* result) const
{
    NCMatrixErrors::CheckResult(result);
    if (p.Size() != m_cols || (groups && groups->Size() != m_cols))
        NCMatrixErrors::ThrowSize("SpecialNipalsRegressRowsFix", "Vectors are of different size.");

    // The loading as the kernels want it: missing and excluded entries
    // zero, their squares zero, and a presence flag per variable.
    const int n = m_cols;
    std::vector<T> pv(static_cast<std::size_t>(n) + 1, T(0));
    std::vector<T> p2(static_cast<std::size_t>(n) + 1, T(0));
    std::vector<int> present(static_cast<std::size_t>(n) + 1, 0);
    const int* labels = groups ? groups->GetPtr() : nullptr;
    double pp = 0.0;
    int presentInP = 0;
    for (int j = 1; j <= n; ++j) {
        if (IsMisVal(p[j]) || (labels && labels[j] == group))
            continue;
        pv[j] = p[j];
        p2[j] = p[j] * p[j];
        present[j] = 1;
        pp += static_cast<double>(p2[j]);
        ++presentInP;
    }
    const bool pComplete = presentInP == n;

    result->SetSize(m_rows);
    T* out = result->GetVectorForWriting();
    const Vector* rowArray = m_rowArray;
    int missing = 0;
#pragma omp parallel for schedule(static) reduction(+ : missing)
    for (int i = 1; i <= m_rows; ++i) {
        const Vector& row = rowArray[i];
        const T* x = row.GetVector();
        double sum = 0.0, d = pp;
        int pairs = presentInP;
        if (row.HasNoMissingValues()) {
            sum = DotComplete(x, pv.data(), n);
        } else {
            double gapSquares = 0.0;
            sum = DotMasked(x, pv.data(), p2.data(), n, gapSquares);
            d = std::max(pp / 3.0, pp - gapSquares);
            pairs -= pComplete ? row.GetNumMisVal() : GapPairs(x, present.data(), n);
        }
        const bool defined = pairs > 0 && std::fabs(d) > 1e-30;
        out[i] = defined ? static_cast<T>(sum / d) : MisVal;
        missing += IsMisVal(out[i]) ? 1 : 0;
    }
    result->m_numMis = missing;
}

// ------------------------------------------------- ordinary regressions

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
    if (v.Size() != m_rows)
        NCMatrixErrors::ThrowSize("RegressColumns", "Vectors are of different size.");
    Vector slopes(m_cols);
    T* out = slopes.GetVectorForWriting();
#pragma omp parallel for schedule(static)
    for (int j = 1; j <= m_cols; ++j)
        out[j] = static_cast<T>(v.Regress(GetColumn(j)));
    slopes.RecountMissing();
    *result = slopes;
}

template <class T>
double NCDataMatrix<T>::RegressOneColumn(int j, const Vector& v) const
{
    if (v.Size() != m_rows)
        NCMatrixErrors::ThrowSize("RegressOneColumn", "Vectors are of different size.");
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
    if (v.Size() != m_cols)
        NCMatrixErrors::ThrowSize("RegressRows", "Vectors are of different size.");
    Vector slopes(m_rows);
    T* out = slopes.GetVectorForWriting();
#pragma omp parallel for schedule(static)
    for (int i = 1; i <= m_rows; ++i)
        out[i] = static_cast<T>(v.Regress(m_rowArray[i]));
    slopes.RecountMissing();
    *result = slopes;
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
    NCMatrixErrors::CheckResult(result);
    if (m_cols == 0)
        NCMatrixErrors::ThrowIndex("GetNIPALSStartColumn");
    int best = 1;
    if (m_cols > 1) {
        // All column sums of squares in one pass over the rows.
        std::vector<double> ss(static_cast<std::size_t>(m_cols) + 1, 0.0);
        for (int i = 1; i <= m_rows; ++i)
            AccumulateSquares(ss.data(), m_rowArray[i].GetVector(), m_cols);
        const int* columnMissing = m_colMis->GetPtr();
        double bestSS = 0.0;
        for (int j = 1; j <= m_cols; ++j) {
            // A wholly missing column has no sum of squares (-99) and never wins.
            const double s = columnMissing[j] == m_rows ? dMisVal : ss[j];
            if (s > bestSS * 1.000001) {
                bestSS = s;
                best = j;
            }
        }
    }
    GetColumnImpl(best, result);
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
    if (v.Size() != m_cols)
        NCMatrixErrors::ThrowSize("AddFV", "Vectors are of different size.");
    for (int i = 1; i <= m_rows; ++i)
        (*this)(i).TransformTo_Add_d_x_Vt(factor, v);
}

template <class T>
void NCDataMatrix<T>::TransformToDotSubRowVector(const Vector& v)
{
    if (v.Size() != m_cols)
        NCMatrixErrors::ThrowSize("TransformToDotSubRowVector", "Vectors are of different size.");
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
    if (scale.Size() != m_cols)
        NCMatrixErrors::ThrowSize("TransformToColumnScaled", "Vectors are of different size.");
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
    if (v.Size() != m_cols)
        NCMatrixErrors::ThrowSize("DotMultiplyVector", "Vectors are of different size.");
    NCDataMatrix scaled(*this);
    scaled.TransformToColumnScaled(v);
    *result = std::move(scaled);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotDivideVector(const Vector& v) const
{
    if (v.Size() != m_cols)
        NCMatrixErrors::ThrowSize("DotDivideVector", "Vectors are of different size.");
    return DotMultiplyVector(Reciprocals(v));
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::DotPreMultiplyVector(const Vector& v) const
{
    if (v.Size() != m_rows)
        NCMatrixErrors::ThrowSize("DotPreMultiplyVector", "Vectors are of different size.");
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
    if (v.Size() != m_rows)
        NCMatrixErrors::ThrowSize("DotPreDivideVector", "Vectors are of different size.");
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
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector&, const IndexList*, int)   \
        const;                                                                                                        \
    template double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int, const Vector&) const;                     \
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector&, const IndexList*, int)      \
        const;                                                                                                        \
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
    template void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector&, const IndexList*, int, Vector*) \
        const;                                                                                                        \
    template void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector&, const IndexList*, int, Vector*)    \
        const;                                                                                                        \
    template void NCDataMatrix<T>::RegressColumnsImpl(const Vector&, Vector*) const;                                 \
    template void NCDataMatrix<T>::RegressRowsImpl(const Vector&, Vector*) const;                                    \
    template void NCDataMatrix<T>::GetNIPALSStartColumnImpl(Vector*) const;                                          \
    template void NCDataMatrix<T>::DotMultiplyVectorImpl(const Vector&, NCDataMatrix*) const;                        \
    template void NCDataMatrix<T>::SNVImpl(NCDataMatrix*) const;

VELTAN_INSTANTIATE_REGRESSION(float)
VELTAN_INSTANTIATE_REGRESSION(double)
