// The column and row regressions that NIPALS repeats for every component,
// the start column, the rank-one updates and the row and column scalings.
//
// The regressions read the matrix in place, row by row: each thread sums a
// band of rows into its own per-column partial sums, which are added
// together at the end. Elements are multiplied in the element type and
// accumulated in double; four rows are combined per pass over a band, so
// that each partial sum is loaded and stored once per four rows.

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/Simd.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

template <class T>
inline bool Mis(T x)
{
    return IsMisVal(x);
}

template <class T>
inline T Present(T x)
{
    return Mis(x) ? T(0) : x;
}

// s12[j] += sum over the rows k of x_k[j] * t_k, the rows being complete.
template <class T>
VELTAN_SIMD_CLONES void AccumulateComplete(double* s12, const T* const* x, const T* t, int rows, int n)
{
    if (rows == 4) {
        const T t0 = t[0], t1 = t[1], t2 = t[2], t3 = t[3];
        const T *x0 = x[0], *x1 = x[1], *x2 = x[2], *x3 = x[3];
#pragma omp simd
        for (int j = 1; j <= n; ++j)
            s12[j] += (x0[j] * t0 + x1[j] * t1) + (x2[j] * t2 + x3[j] * t3);
        return;
    }
    for (int k = 0; k < rows; ++k) {
        const T tk = t[k];
        const T* xk = x[k];
#pragma omp simd
        for (int j = 1; j <= n; ++j)
            s12[j] += xk[j] * tk;
    }
}

// The same over rows that may hold missing cells: s11[j] gathers t_k^2 and
// used[j] the number of rows where x_k[j] is present.
template <class T>
VELTAN_SIMD_CLONES void AccumulateMasked(double* s12, double* s11, int* used, const T* const* x, const T* t, int rows,
                                         int n)
{
    for (int k = 0; k < rows; ++k) {
        const T tk = t[k];
        const T tt = tk * tk;
        const T* xk = x[k];
#pragma omp simd
        for (int j = 1; j <= n; ++j) {
            const bool present = !Mis(xk[j]);
            s12[j] += present ? xk[j] * tk : T(0);
            s11[j] += present ? tt : T(0);
            used[j] += present ? 1 : 0;
        }
    }
}

// Sum of x[j] * p[j] over the columns, and for the masked form also the sum
// of p[j]^2 and the count over the columns where both are present.
template <class T>
VELTAN_SIMD_CLONES double DotComplete(const T* x, const T* p, int n)
{
    double sum = 0.0;
#pragma omp simd reduction(+ : sum)
    for (int j = 1; j <= n; ++j)
        sum += x[j] * p[j];
    return sum;
}

template <class T>
VELTAN_SIMD_CLONES double DotMasked(const T* x, const T* p, int n, double& pp, int& used)
{
    double sum = 0.0, squares = 0.0;
    int count = 0;
    // The operand is selected, not each sum's term: GCC 12 miscompiles the
    // AVX2 clone of this loop when every one of three reductions has its
    // own conditional term (the first sum comes out wrong).
#pragma omp simd reduction(+ : sum, squares, count)
    for (int j = 1; j <= n; ++j) {
        const bool both = !Mis(x[j]) && !Mis(p[j]);
        const T pj = both ? p[j] : T(0);
        sum += x[j] * pj;
        squares += pj * pj;
        count += static_cast<int>(both);
    }
    pp = squares;
    used = count;
    return sum;
}

// x[j] += f * p[j] where both are present; returns how many cells became
// exactly -99 (which then reads as missing like any other -99).
template <class T>
VELTAN_SIMD_CLONES int RankOneUpdate(T* x, const T* p, double f, int n)
{
    int landed = 0;
#pragma omp simd reduction(+ : landed)
    for (int j = 1; j <= n; ++j) {
        const bool both = !Mis(x[j]) && !Mis(p[j]);
        const T updated = static_cast<T>(x[j] + f * p[j]);
        x[j] = both ? updated : x[j];
        landed += (both && Mis(updated)) ? 1 : 0;
    }
    return landed;
}

template <class T>
VELTAN_SIMD_CLONES void AccumulateSquares(double* ss, const T* x, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        const T v = Present(x[j]);
        ss[j] += v * v;
    }
}

// Rows are handed out in bands of this many per pass, so that each partial
// sum is loaded and stored once per band.
constexpr int Band = 4;

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
    // Rows whose score is missing take no part; a matrix without missing
    // cells needs no per-column squares or counts.
    const bool masked = m_numMis > 0;
    double tt = 0.0;         // t't over all present t_i
    double ttComplete = 0.0; // t_i^2 over the used rows without missing cells
    std::vector<double> s12(static_cast<std::size_t>(n) + 1, 0.0);
    std::vector<double> s11(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    std::vector<int> used(masked ? static_cast<std::size_t>(n) + 1 : 0, 0);
    const Vector* rowArray = m_rowArray;
    const int rows = m_rows;

#pragma omp parallel reduction(+ : tt, ttComplete)
    {
        std::vector<double> my12(static_cast<std::size_t>(n) + 1, 0.0);
        std::vector<double> my11(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
        std::vector<int> myUsed(masked ? static_cast<std::size_t>(n) + 1 : 0, 0);
        const int threads = omp_get_num_threads();
        const int me = omp_get_thread_num();
        const int first = 1 + static_cast<int>(static_cast<long long>(rows) * me / threads);
        const int last = static_cast<int>(static_cast<long long>(rows) * (me + 1) / threads);

        const T* fullRows[Band];
        T fullT[Band];
        int full = 0;
        const T* gapRows[Band];
        T gapT[Band];
        int gaps = 0;
        for (int i = first; i <= last; ++i) {
            const T ti = tv[i];
            if (Mis(ti))
                continue;
            const Vector& row = rowArray[i];
            tt += static_cast<double>(ti * ti);
            if (row.HasNoMissingValues()) {
                ttComplete += static_cast<double>(ti * ti);
                fullRows[full] = row.GetVector();
                fullT[full++] = ti;
                if (full == Band) {
                    AccumulateComplete(my12.data(), fullRows, fullT, full, n);
                    full = 0;
                }
            } else {
                gapRows[gaps] = row.GetVector();
                gapT[gaps++] = ti;
                if (gaps == Band) {
                    AccumulateMasked(my12.data(), my11.data(), myUsed.data(), gapRows, gapT, gaps, n);
                    gaps = 0;
                }
            }
        }
        if (full > 0)
            AccumulateComplete(my12.data(), fullRows, fullT, full, n);
        if (gaps > 0)
            AccumulateMasked(my12.data(), my11.data(), myUsed.data(), gapRows, gapT, gaps, n);

#pragma omp critical(NCDataMatrix_NipalsColumns)
        {
            for (int j = 1; j <= n; ++j)
                s12[j] += my12[j];
            if (masked)
                for (int j = 1; j <= n; ++j) {
                    s11[j] += my11[j];
                    used[j] += myUsed[j];
                }
        }
    }

    // Rows without missing cells count for every column: they are added
    // here once rather than per cell.
    int completeRowsUsed = 0;
    if (masked)
        for (int i = 1; i <= rows; ++i)
            completeRowsUsed += (!Mis(tv[i]) && rowArray[i].HasNoMissingValues()) ? 1 : 0;

    result->SetSize(n);
    T* out = result->GetVectorForWriting();
    const int* columnMissing = m_colMis ? m_colMis->GetPtr() : nullptr;
    const int* labels = groups ? groups->GetPtr() : nullptr;
    int missing = 0;
    for (int j = 1; j <= n; ++j) {
        double d = 0.0;
        int pairs = 0;
        if (!masked || (tComplete && columnMissing[j] == 0)) {
            d = tt;
            pairs = masked ? used[j] + completeRowsUsed : rows - t.GetNumMisVal();
        } else {
            d = std::max(tt / 3.0, s11[j] + ttComplete);
            pairs = used[j] + completeRowsUsed;
        }
        const bool excluded = labels && labels[j] == group;
        const bool defined = !excluded && pairs > 0 && std::fabs(d) > 1e-30;
        out[j] = defined ? static_cast<T>(s12[j] / d) : MisVal;
        missing += Mis(out[j]) ? 1 : 0;
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

    // Excluded variables are made missing in a private copy of p, so the
    // kernel needs only the missing test.
    Vector loading(p);
    if (groups) {
        const int* labels = groups->GetPtr();
        for (int j = 1; j <= m_cols; ++j)
            if (labels[j] == group)
                loading(j, MisVal);
    }
    const T* pv = loading.GetVector();
    double ppAll = 0.0;
    for (int j = 1; j <= m_cols; ++j)
        if (!Mis(pv[j]))
            ppAll += static_cast<double>(pv[j] * pv[j]);
    const bool pComplete = loading.HasNoMissingValues();
    const int presentInP = loading.GetNumValidValues();

    result->SetSize(m_rows);
    T* out = result->GetVectorForWriting();
    const Vector* rowArray = m_rowArray;
    const int n = m_cols;
    int missing = 0;
#pragma omp parallel for schedule(static) reduction(+ : missing)
    for (int i = 1; i <= m_rows; ++i) {
        const Vector& row = rowArray[i];
        double sum = 0.0, d = 0.0;
        int pairs = 0;
        if (pComplete && row.HasNoMissingValues()) {
            sum = DotComplete(row.GetVector(), pv, n);
            d = ppAll;
            pairs = presentInP;
        } else {
            double ppUsed = 0.0;
            sum = DotMasked(row.GetVector(), pv, n, ppUsed, pairs);
            d = std::max(ppAll / 3.0, ppUsed);
        }
        const bool defined = pairs > 0 && std::fabs(d) > 1e-30;
        out[i] = defined ? static_cast<T>(sum / d) : MisVal;
        missing += Mis(out[i]) ? 1 : 0;
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
        if (Mis(tv[i]))
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
        if (Mis(v[i]))
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
