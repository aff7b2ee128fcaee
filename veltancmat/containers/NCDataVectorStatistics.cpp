// The statistics of one vector and of a pair of vectors.
//
// They run serially: they are called from inside the parallel loops of the
// matrix algebra, one row or column per thread, where nested parallel
// regions would only add overhead.

#include "veltancmat/containers/NCDataVector.h"

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

// The sum over p[1..n] of term(p[i]), or with `masked` of masked(p[i]),
// which gives zero for a missing element. Each term is formed in the
// element type where it can be (squares included) and accumulated in
// double; selecting before widening keeps the masked loops vectorised.
template <class T, class Term, class MaskedTerm>
VELTAN_SIMD_CLONES double SumOver(const T* p, int n, bool masked, Term term, MaskedTerm maskedTerm)
{
    double sum = 0.0;
    if (!masked) {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= n; ++i)
            sum += term(p[i]);
    } else {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= n; ++i)
            sum += maskedTerm(p[i]);
    }
    return sum;
}

template <class T>
double SumKernel(const T* p, int n, bool masked)
{
    return SumOver(
        p, n, masked, [](T x) { return x; }, [](T x) { return PresentOrZero(x); });
}

template <class T>
double SumSquaresKernel(const T* p, int n, bool masked)
{
    return SumOver(
        p, n, masked, [](T x) { return x * x; },
        [](T x) {
            const T v = PresentOrZero(x);
            return v * v;
        });
}

template <class T>
double SumSquaresAboutKernel(const T* p, int n, double about, bool masked)
{
    return SumOver(
        p, n, masked,
        [about](T x) {
            const double d = x - about;
            return d * d;
        },
        [about](T x) {
            const double d = IsMisVal(x) ? 0.0 : x - about;
            return d * d;
        });
}

// Finite, and not subnormal: results outside this set are reported as undefined.
bool IsUsable(double x)
{
    const int c = std::fpclassify(x);
    return c == FP_NORMAL || c == FP_ZERO;
}

// The present elements of a vector, sorted ascending.
template <class T>
std::vector<T> SortedValid(const NCDataVector<T>& v)
{
    std::vector<T> values;
    values.reserve(static_cast<std::size_t>(v.GetNumValidValues()));
    for (T x : v)
        if (!IsMisVal(x))
            values.push_back(x);
    std::sort(values.begin(), values.end());
    return values;
}

// Median of sorted[first, first + k) by the 1-based position rule
// (k + 1) / 2, averaging with the next element when k is even.
template <class T>
double MedianOfSorted(const std::vector<T>& sorted, std::size_t first, std::size_t k)
{
    const std::size_t mid = first + (k + 1) / 2 - 1;
    if (k % 2 == 1)
        return sorted[mid];
    return (static_cast<double>(sorted[mid]) + static_cast<double>(sorted[mid + 1])) / 2.0;
}

[[noreturn]] void ThrowSizeMismatch(const char* member)
{
    throw NCInternalError(std::string("NCDataVector<FloatType>::") + member,
                          ExceptionMessage::translate("Vectors are of different size."));
}

} // namespace

// ---------------------------------------------------------------------------
// Statistics

template <class T>
double NCDataVector<T>::GetSum() const
{
    if (GetNumValidValues() == 0)
        return dMisVal;
    return SumKernel(m_data, m_size, m_numMis > 0);
}

template <class T>
double NCDataVector<T>::GetMean() const
{
    const int valid = GetNumValidValues();
    if (valid == 0)
        return dMisVal;
    double mean = GetSum() / valid;
    // A valid mean must never read as missing.
    if (IsMisVal(mean))
        mean -= 0.00001;
    return mean;
}

template <class T>
double NCDataVector<T>::GetSS() const
{
    return SumSquaresKernel(m_data, m_size, m_numMis > 0);
}

template <class T>
double NCDataVector<T>::GetSS(double about) const
{
    if (GetNumValidValues() == 0)
        return dMisVal;
    return SumSquaresAboutKernel(m_data, m_size, about, m_numMis > 0);
}

template <class T>
double NCDataVector<T>::GetVariance() const
{
    const double mean = GetMean();
    if (IsMisVal(mean))
        return dMisVal;
    const int valid = GetNumValidValues();
    if (valid < 2)
        return 0.0;
    return GetSS(mean) / (valid - 1);
}

template <class T>
double NCDataVector<T>::GetStdDev() const
{
    if (GetNumValidValues() < 2)
        return dMisVal;
    const double variance = GetVariance();
    if (IsMisVal(variance))
        return dMisVal;
    return std::sqrt(variance);
}

template <class T>
void NCDataVector<T>::GetMinMax(T& min, T& max) const
{
    min = max = MisVal;
    int i = 1;
    while (i <= m_size && IsMisVal(m_data[i]))
        ++i;
    if (i > m_size)
        return;
    min = max = m_data[i];
    for (++i; i <= m_size; ++i) {
        const T x = m_data[i];
        if (IsMisVal(x))
            continue;
        if (x < min)
            min = x;
        if (x > max)
            max = x;
    }
}

template <class T>
double NCDataVector<T>::GetMedian() const
{
    if (GetNumValidValues() == 0)
        return dMisVal;
    const std::vector<T> sorted = SortedValid(*this);
    return MedianOfSorted(sorted, 0, sorted.size());
}

template <class T>
bool NCDataVector<T>::GetInterquartiles(double& q1, double& median, double& q3) const
{
    if (GetNumValidValues() < 2) {
        q1 = median = q3 = dMisVal;
        return false;
    }
    const std::vector<T> sorted = SortedValid(*this);
    const std::size_t k = sorted.size();
    const std::size_t half = k / 2;
    median = MedianOfSorted(sorted, 0, k);
    q1 = MedianOfSorted(sorted, 0, half);
    // With k odd the middle value belongs to neither half.
    const std::size_t upperStart = half + (k % 2);
    q3 = MedianOfSorted(sorted, upperStart, k - upperStart);
    return true;
}

template <class T>
double NCDataVector<T>::GetInterquartileRange() const
{
    double q1 = 0.0, median = 0.0, q3 = 0.0;
    if (!GetInterquartiles(q1, median, q3))
        return dMisVal;
    return q3 - q1;
}

template <class T>
double NCDataVector<T>::GetRobustStdDev() const
{
    // The interquartile range divided by its value for a unit normal
    // distribution, 2 * 0.67449 = 1.34898, so that it estimates the
    // standard deviation of normal data without being pulled by outliers.
    const double iqr = GetInterquartileRange();
    if (IsMisVal(iqr))
        return dMisVal;
    return iqr / 1.3489795003921634;
}

namespace {
// Sum of ((x - mean) / s)^power over the present elements, with s the
// sample standard deviation; -99 when s is undefined or zero, or when fewer
// than `power` elements are present (the moment's small-sample correction
// has no value there).
template <class T>
double SumOfStandardisedPowers(const NCDataVector<T>& v, int power)
{
    if (v.GetNumValidValues() < power)
        return dMisVal;
    const double s = v.GetStdDev();
    if (IsMisVal(s) || s == 0.0)
        return dMisVal;
    const double mean = v.GetMean();
    double sum = 0.0;
    for (T x : v) {
        if (IsMisVal(x))
            continue;
        const double z = (x - mean) / s;
        sum += power == 3 ? z * z * z : z * z * z * z;
    }
    return sum;
}
} // namespace

template <class T>
double NCDataVector<T>::GetSkewness() const
{
    const double sum = SumOfStandardisedPowers(*this, 3);
    if (IsMisVal(sum))
        return dMisVal;
    const double v = GetNumValidValues();
    return v / ((v - 1.0) * (v - 2.0)) * sum;
}

template <class T>
double NCDataVector<T>::GetSkewnessTest() const
{
    const double skewness = GetSkewness();
    if (IsMisVal(skewness))
        return dMisVal;
    const double v = GetNumValidValues();
    const double se = std::sqrt(6.0 * v * (v - 1.0) / ((v - 2.0) * (v + 1.0) * (v + 3.0)));
    return skewness / se;
}

template <class T>
double NCDataVector<T>::GetKurtosis() const
{
    const double sum = SumOfStandardisedPowers(*this, 4);
    if (IsMisVal(sum))
        return dMisVal;
    const double n = GetNumValidValues();
    return (n + 1.0) * n / ((n - 1.0) * (n - 2.0) * (n - 3.0)) * sum -
           3.0 * (n - 1.0) * (n - 1.0) / ((n - 2.0) * (n - 3.0));
}

// ---------------------------------------------------------------------------
// Pair statistics

template <class T>
void NCDataVector<T>::CheckSameSize(const NCDataVector& v, const char* member) const
{
    if (v.m_size != m_size)
        ThrowSizeMismatch(member);
}

template <class T>
double NCDataVector<T>::operator*(const NCDataVector& v2) const
{
    CheckSameSize(v2, "operator*");
    const T* a = m_data;
    const T* b = v2.m_data;
    double sum = 0.0;
    if (m_numMis == 0 && v2.m_numMis == 0) {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= m_size; ++i)
            sum += a[i] * b[i];
        return sum;
    }
    int pairs = 0;
#pragma omp simd reduction(+ : sum, pairs)
    for (int i = 1; i <= m_size; ++i) {
        const bool both = !IsMisVal(a[i]) && !IsMisVal(b[i]);
        sum += both ? static_cast<double>(a[i] * b[i]) : 0.0;
        pairs += both ? 1 : 0;
    }
    return pairs == 0 ? dMisVal : sum;
}

template <class T>
void NCDataVector<T>::Calculate_V1txV2_and_V1txV1(double& s12, double& s11, double& s11all, const NCDataVector& v1,
                                                  const NCDataVector& v2, const NCIntegralVector<int, -99>* classes,
                                                  int excluded)
{
    v1.CheckSameSize(v2, "Calculate_V1txV2_and_V1txV1");
    if (classes && classes->size() != v1.m_size)
        ThrowSizeMismatch("Calculate_V1txV2_and_V1txV1");
    const int n = v1.m_size;
    const T* a = v1.m_data;
    const T* b = v2.m_data;
    double sum12 = 0.0, sum11 = 0.0, sum11all = 0.0;
    const bool anyMissing = v1.m_numMis > 0 || v2.m_numMis > 0;

    if (!anyMissing && !classes) {
#pragma omp simd reduction(+ : sum12, sum11)
        for (int i = 1; i <= n; ++i) {
            sum12 += a[i] * b[i];
            sum11 += a[i] * a[i];
        }
        sum11all = sum11;
        if (sum11 < 1e-30)
            sum12 = sum11 = 0.0;
        s12 = sum12;
        s11 = sum11;
        s11all = sum11all;
        return;
    }

    int pairs = 0;
    const int* cls = classes ? classes->GetPtr() : nullptr;
    for (int i = 1; i <= n; ++i) {
        if (cls && cls[i] == excluded)
            continue;
        const T x = a[i];
        if (IsMisVal(x))
            continue;
        const double xx = x * x;
        sum11all += xx;
        if (!IsMisVal(b[i])) {
            sum12 += x * b[i];
            sum11 += xx;
            ++pairs;
        }
    }
    if (!anyMissing) {
        if (sum11 < 1e-30)
            sum12 = sum11 = 0.0;
    } else if (pairs == 0) {
        sum12 = sum11 = dMisVal;
    }
    s12 = sum12;
    s11 = sum11;
    s11all = sum11all;
}

template <class T>
double NCDataVector<T>::Regress(const NCDataVector& v2) const
{
    double s12 = 0.0, s11 = 0.0, s11all = 0.0;
    Calculate_V1txV2_and_V1txV1(s12, s11, s11all, *this, v2, nullptr, 0);
    if (IsMisVal(s12) || IsMisVal(s11) || s11 == 0.0)
        return dMisVal;
    return s12 / s11;
}

namespace {
// The one-third floor keeps a score or loading from exploding when most of
// V2 is missing. A zero denominator (V1 zero wherever it is present) has no
// slope and is reported as undefined.
// This is the vector member's own rule, kept apart from NipalsQuotient
// (frame/NipalsRule.h) on purpose: a vector slope is undefined only at an
// exactly zero divisor, where the matrix projections also refuse divisors
// under 1e-30, and callers of both rely on their results as they stand.
double NipalsSlope(double s12, double s11, double s11all)
{
    if (IsMisVal(s12) || IsMisVal(s11))
        return dMisVal;
    const double denominator = std::max(s11, s11all / 3.0);
    if (denominator == 0.0)
        return dMisVal;
    return s12 / denominator;
}
} // namespace

template <class T>
double NCDataVector<T>::SpecialNipalsRegressFix(const NCDataVector& v2) const
{
    double s12 = 0.0, s11 = 0.0, s11all = 0.0;
    Calculate_V1txV2_and_V1txV1(s12, s11, s11all, *this, v2, nullptr, 0);
    return NipalsSlope(s12, s11, s11all);
}

template <class T>
double NCDataVector<T>::SpecialNipalsRegressFixWithExclude(const NCDataVector& v2,
                                                           const NCIntegralVector<int, -99>& classes,
                                                           int excluded) const
{
    double s12 = 0.0, s11 = 0.0, s11all = 0.0;
    Calculate_V1txV2_and_V1txV1(s12, s11, s11all, *this, v2, &classes, excluded);
    return NipalsSlope(s12, s11, s11all);
}

template <class T>
double NCDataVector<T>::Difference(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Difference");
    const T* a = m_data;
    const T* b = v2.m_data;
    double num = 0.0, den = 0.0;
    if (m_numMis == 0 && v2.m_numMis == 0) {
        if (m_size == 0)
            return 1e30;
#pragma omp simd reduction(+ : num, den)
        for (int i = 1; i <= m_size; ++i) {
            const T d = a[i] - b[i];
            num += d * d;
            den += a[i] * a[i];
        }
    } else {
        int pairs = 0;
#pragma omp simd reduction(+ : num, den, pairs)
        for (int i = 1; i <= m_size; ++i) {
            const bool both = !IsMisVal(a[i]) && !IsMisVal(b[i]);
            const T d = a[i] - b[i];
            num += both ? static_cast<double>(d * d) : 0.0;
            den += both ? static_cast<double>(a[i] * a[i]) : 0.0;
            pairs += both ? 1 : 0;
        }
        if (pairs == 0)
            return dMisVal;
    }
    if (den < 1e-30)
        return 1e30;
    if (!IsUsable(num) || !IsUsable(den))
        return dMisVal;
    return num / den;
}

template <class T>
double NCDataVector<T>::Distance(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Distance");
    const T* a = m_data;
    const T* b = v2.m_data;
    double sum = 0.0;
    int pairs = 0;
    if (m_numMis == 0 && v2.m_numMis == 0) {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= m_size; ++i) {
            const T d = a[i] - b[i];
            sum += d * d;
        }
        pairs = m_size;
    } else {
#pragma omp simd reduction(+ : sum, pairs)
        for (int i = 1; i <= m_size; ++i) {
            const bool both = !IsMisVal(a[i]) && !IsMisVal(b[i]);
            const T d = a[i] - b[i];
            sum += both ? static_cast<double>(d * d) : 0.0;
            pairs += both ? 1 : 0;
        }
    }
    if (pairs == 0 || !IsUsable(sum))
        return dMisVal;
    return std::sqrt(sum);
}

namespace {
// Sums over the complete pairs of two equally long arrays (1-based).
struct PairSums {
    int n = 0;
    double sx = 0.0, sy = 0.0;
};

template <class T>
PairSums SumPairs(const T* a, const T* b, int size)
{
    PairSums s;
    for (int i = 1; i <= size; ++i) {
        if (IsMisVal(a[i]) || IsMisVal(b[i]))
            continue;
        ++s.n;
        s.sx += a[i];
        s.sy += b[i];
    }
    return s;
}

// Centred sums of squares and cross products over the complete pairs.
template <class T>
void CentredSums(const T* a, const T* b, int size, double mx, double my, double& sxx, double& syy, double& sxy)
{
    sxx = syy = sxy = 0.0;
    for (int i = 1; i <= size; ++i) {
        if (IsMisVal(a[i]) || IsMisVal(b[i]))
            continue;
        const double dx = a[i] - mx;
        const double dy = b[i] - my;
        sxx += dx * dx;
        syy += dy * dy;
        sxy += dx * dy;
    }
}

// The means and centred sums over the complete pairs, in two passes; for
// fewer than two pairs only n is set.
struct PairMoments {
    int n = 0;
    double mx = 0.0, my = 0.0;
    double sxx = 0.0, syy = 0.0, sxy = 0.0;
};

template <class T>
PairMoments CompletePairMoments(const T* a, const T* b, int size)
{
    const PairSums s = SumPairs(a, b, size);
    PairMoments m;
    m.n = s.n;
    if (s.n < 2)
        return m;
    m.mx = s.sx / s.n;
    m.my = s.sy / s.n;
    CentredSums(a, b, size, m.mx, m.my, m.sxx, m.syy, m.sxy);
    return m;
}
} // namespace

// Covariance and Correlation_Mean use the complete pairs only, with the
// means of those pairs (pairwise deletion), and n - 1 degrees of freedom.
template <class T>
double NCDataVector<T>::Covariance(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Covariance");
    const PairMoments m = CompletePairMoments(m_data, v2.m_data, m_size);
    if (m.n < 2)
        return dMisVal;
    return m.sxy / (m.n - 1);
}

template <class T>
double NCDataVector<T>::Correlation_Mean(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Correlation_Mean");
    const PairMoments m = CompletePairMoments(m_data, v2.m_data, m_size);
    // A constant series has no defined correlation.
    if (m.n < 2 || m.sxx <= 0.0 || m.syy <= 0.0)
        return dMisVal;
    return std::clamp(m.sxy / std::sqrt(m.sxx * m.syy), -1.0, 1.0);
}

template <class T>
double NCDataVector<T>::Correlation_Zero(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Correlation_Zero");
    if (HasAllMissingValues() || v2.HasAllMissingValues())
        return dMisVal;
    double sxy = 0.0, sxx = 0.0, syy = 0.0;
    int pairs = 0;
    for (int i = 1; i <= m_size; ++i) {
        const T x = m_data[i];
        const T y = v2.m_data[i];
        if (IsMisVal(x) || IsMisVal(y))
            continue;
        sxy += x * y;
        sxx += x * x;
        syy += y * y;
        ++pairs;
    }
    if (pairs == 0)
        return dMisVal;
    const double product = sxx * syy;
    const double c = product > 1e-30 ? sxy / std::sqrt(product) : sxy;
    return std::clamp(c, -1.0, 1.0);
}

template <class T>
double NCDataVector<T>::LeastSquare(const NCDataVector& v2, double& intercept, double& slope) const
{
    CheckSameSize(v2, "LeastSquare");
    intercept = slope = dMisVal;
    const PairMoments m = CompletePairMoments(m_data, v2.m_data, m_size);
    if (m.n < 2 || m.sxx <= 0.0)
        return dMisVal;
    slope = m.sxy / m.sxx;
    intercept = m.my - slope * m.mx;
    if (m.n < 3)
        return 0.0;
    const double rss = std::max(0.0, m.syy - slope * m.sxy);
    return std::sqrt(rss / (m.n - 2));
}

#define VELTAN_INSTANTIATE_STATISTICS(T)                                                                                                                                                                           \
    template double NCDataVector<T>::GetSum() const;                                                                                                                                                               \
    template double NCDataVector<T>::GetMean() const;                                                                                                                                                              \
    template double NCDataVector<T>::GetSS() const;                                                                                                                                                                \
    template double NCDataVector<T>::GetSS(double about) const;                                                                                                                                                    \
    template double NCDataVector<T>::GetVariance() const;                                                                                                                                                          \
    template double NCDataVector<T>::GetStdDev() const;                                                                                                                                                            \
    template void NCDataVector<T>::GetMinMax(T& min, T& max) const;                                                                                                                                                \
    template double NCDataVector<T>::GetMedian() const;                                                                                                                                                            \
    template bool NCDataVector<T>::GetInterquartiles(double& q1, double& median, double& q3) const;                                                                                                                \
    template double NCDataVector<T>::GetInterquartileRange() const;                                                                                                                                                \
    template double NCDataVector<T>::GetRobustStdDev() const;                                                                                                                                                      \
    template double NCDataVector<T>::GetSkewness() const;                                                                                                                                                          \
    template double NCDataVector<T>::GetSkewnessTest() const;                                                                                                                                                      \
    template double NCDataVector<T>::GetKurtosis() const;                                                                                                                                                          \
    template void NCDataVector<T>::CheckSameSize(const NCDataVector& v, const char* member) const;                                                                                                                 \
    template double NCDataVector<T>::operator*(const NCDataVector& v2) const;                                                                                                                                      \
    template void NCDataVector<T>::Calculate_V1txV2_and_V1txV1(double& s12, double& s11, double& s11all, const NCDataVector& v1, const NCDataVector& v2, const NCIntegralVector<int, -99>* classes, int excluded); \
    template double NCDataVector<T>::Regress(const NCDataVector& v2) const;                                                                                                                                        \
    template double NCDataVector<T>::SpecialNipalsRegressFix(const NCDataVector& v2) const;                                                                                                                        \
    template double NCDataVector<T>::SpecialNipalsRegressFixWithExclude(const NCDataVector& v2, const NCIntegralVector<int, -99>& classes, int excluded) const;                                                    \
    template double NCDataVector<T>::Difference(const NCDataVector& v2) const;                                                                                                                                     \
    template double NCDataVector<T>::Distance(const NCDataVector& v2) const;                                                                                                                                       \
    template double NCDataVector<T>::Covariance(const NCDataVector& v2) const;                                                                                                                                     \
    template double NCDataVector<T>::Correlation_Mean(const NCDataVector& v2) const;                                                                                                                               \
    template double NCDataVector<T>::Correlation_Zero(const NCDataVector& v2) const;                                                                                                                               \
    template double NCDataVector<T>::LeastSquare(const NCDataVector& v2, double& intercept, double& slope) const;

VELTAN_INSTANTIATE_STATISTICS(float)
VELTAN_INSTANTIATE_STATISTICS(double)
