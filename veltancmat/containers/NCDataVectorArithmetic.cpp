// Element-wise arithmetic between vectors and with scalars, and the
// preprocessing of one vector (normalising, SNV, lags, interpolation).

#include "veltancmat/containers/NCDataVector.h"

#include "veltancmat/containers/frame/Simd.h"

#include <algorithm>
#include <cmath>
#include <cstring>

// ---------------------------------------------------------------------------
// Arithmetic

namespace {
// Element-wise a[i] = op(a[i], b[i]), missing where either is missing; returns
// the missing count of the result.
template <class T, class Op>
VELTAN_SIMD_CLONES int CombineElementwise(T* a, const T* b, int n, bool anyMissing, Op op)
{
    int count = 0;
    if (!anyMissing) {
#pragma omp simd reduction(+ : count)
        for (int i = 1; i <= n; ++i) {
            a[i] = op(a[i], b[i]);
            count += IsMisVal(a[i]) ? 1 : 0;
        }
    } else {
#pragma omp simd reduction(+ : count)
        for (int i = 1; i <= n; ++i) {
            const T r = (IsMisVal(a[i]) || IsMisVal(b[i])) ? NCMisVal<T> : op(a[i], b[i]);
            a[i] = r;
            count += IsMisVal(r) ? 1 : 0;
        }
    }
    return count;
}

// a[i] = op(a[i]) on the present elements; returns the new missing count.
template <class T, class Op>
VELTAN_SIMD_CLONES int TransformPresent(T* a, int n, bool anyMissing, Op op)
{
    int count = 0;
    if (!anyMissing) {
#pragma omp simd reduction(+ : count)
        for (int i = 1; i <= n; ++i) {
            a[i] = op(a[i]);
            count += IsMisVal(a[i]) ? 1 : 0;
        }
    } else {
#pragma omp simd reduction(+ : count)
        for (int i = 1; i <= n; ++i) {
            const T r = IsMisVal(a[i]) ? NCMisVal<T> : op(a[i]);
            a[i] = r;
            count += IsMisVal(r) ? 1 : 0;
        }
    }
    return count;
}
} // namespace

template <class T>
template <class Op>
void NCDataVector<T>::CombineWith(const NCDataVector& v, const char* member, Op op)
{
    CheckSameSize(v, member);
    if (IsShared())
        ForceUnlink();
    m_numMis = CombineElementwise(m_data, v.m_data, m_size, m_numMis > 0 || v.m_numMis > 0, op);
}

template <class T>
template <class Op>
void NCDataVector<T>::TransformWith(Op op)
{
    if (IsShared())
        ForceUnlink();
    m_numMis = TransformPresent(m_data, m_size, m_numMis > 0, op);
}

template <class T>
void NCDataVector<T>::Add(const NCDataVector& v)
{
    CombineWith(v, "Add", [](T x, T y) { return static_cast<T>(x + y); });
}

template <class T>
void NCDataVector<T>::Subtract(const NCDataVector& v)
{
    CombineWith(v, "Subtract", [](T x, T y) { return static_cast<T>(x - y); });
}

template <class T>
void NCDataVector<T>::DotMultiplication(const NCDataVector& v)
{
    CombineWith(v, "DotMultiplication", [](T x, T y) { return static_cast<T>(x * y); });
}

template <class T>
void NCDataVector<T>::DotDivide(const NCDataVector& v)
{
    CombineWith(v, "DotDivide", [](T x, T y) { return y == T(0) ? NCMisVal<T> : static_cast<T>(x / y); });
}

template <class T>
void NCDataVector<T>::VectorDivide(double d)
{
    TransformWith([d](T x) { return x == T(0) ? NCMisVal<T> : static_cast<T>(d / x); });
}

template <class T>
void NCDataVector<T>::TransformTo_Add_d_x_Vt(double d, const NCDataVector& v)
{
    CombineWith(v, "TransformTo_Add_d_x_Vt", [d](T x, T y) { return static_cast<T>(x + d * y); });
}

template <class T>
void NCDataVector<T>::TransformTo_Sub_d_x_Vt(double d, const NCDataVector& v)
{
    CombineWith(v, "TransformTo_Sub_d_x_Vt", [d](T x, T y) { return static_cast<T>(x - d * y); });
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator+=(double d)
{
    TransformWith([d](T x) { return static_cast<T>(x + d); });
    return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator-=(double d)
{
    TransformWith([d](T x) { return static_cast<T>(x - d); });
    return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator*=(double d)
{
    TransformWith([d](T x) { return static_cast<T>(x * d); });
    return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator/=(double d)
{
    TransformWith([d](T x) { return static_cast<T>(x / d); });
    return *this;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator+(const NCDataVector& v) const
{
    NCDataVector result(*this);
    result.Add(v);
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator-(const NCDataVector& v) const
{
    NCDataVector result(*this);
    result.Subtract(v);
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator+(double d) const
{
    NCDataVector result(*this);
    result += d;
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator-(double d) const
{
    NCDataVector result(*this);
    result -= d;
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator*(double d) const
{
    NCDataVector result(*this);
    result *= d;
    return result;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator/(double d) const
{
    NCDataVector result(*this);
    result /= d;
    return result;
}

template <class T>
void NCDataVector<T>::Abs()
{
    TransformWith([](T x) { return std::abs(x); });
}

template <class T>
void NCDataVector<T>::Sqrt()
{
    TransformWith([](T x) { return x < T(0) ? NCMisVal<T> : static_cast<T>(std::sqrt(x)); });
}

template <class T>
bool NCDataVector<T>::operator==(const NCDataVector& v) const
{
    if (m_size != v.m_size || m_numMis != v.m_numMis)
        return false;
    for (int i = 1; i <= m_size; ++i)
        if (!(m_data[i] == v.m_data[i]))
            return false;
    return true;
}

// ---------------------------------------------------------------------------
// Preprocessing

template <class T>
double NCDataVector<T>::Normalize()
{
    const double norm = std::sqrt(GetSS());
    if (norm > 0.0)
        *this /= norm;
    return norm;
}

template <class T>
void NCDataVector<T>::SNV()
{
    double mean = 0.0;
    const double s = GetStdDev();
    DetrendMean(mean);
    if (!IsMisVal(s) && s > 0.0)
        *this /= s;
}

template <class T>
void NCDataVector<T>::DetrendMean(double& mean)
{
    mean = GetMean();
    if (!IsMisVal(mean))
        *this -= mean;
}

template <class T>
void NCDataVector<T>::DetrendLinear(double& intercept, double& slope)
{
    intercept = slope = 0.0;
    const int v = GetNumValidValues();
    if (v == 0)
        return;
    double si = 0.0, sx = 0.0;
    for (int i = 1; i <= m_size; ++i) {
        if (IsMisVal(m_data[i]))
            continue;
        si += i;
        sx += m_data[i];
    }
    const double mi = si / v;
    const double mx = sx / v;
    double sii = 0.0, six = 0.0;
    for (int i = 1; i <= m_size; ++i) {
        if (IsMisVal(m_data[i]))
            continue;
        sii += (i - mi) * (i - mi);
        six += (i - mi) * (m_data[i] - mx);
    }
    slope = sii > 0.0 ? six / sii : 0.0;
    intercept = mx - slope * mi;
    if (IsShared())
        ForceUnlink();
    int count = 0;
    for (int i = 1; i <= m_size; ++i) {
        if (IsMisVal(m_data[i])) {
            ++count;
            continue;
        }
        m_data[i] = static_cast<T>(m_data[i] - (intercept + slope * i));
        count += IsMisVal(m_data[i]) ? 1 : 0;
    }
    m_numMis = count;
}

template <class T>
void NCDataVector<T>::Lag(int lag)
{
    if (lag == 0 || m_size == 0)
        return;
    if (IsShared())
        ForceUnlink();
    const int n = m_size;
    if (lag >= n || lag <= -n) {
        std::fill(m_data + 1, m_data + 1 + n, MisVal);
    } else if (lag > 0) {
        std::memmove(m_data + 1 + lag, m_data + 1, static_cast<std::size_t>(n - lag) * sizeof(T));
        std::fill(m_data + 1, m_data + 1 + lag, MisVal);
    } else {
        const int k = -lag;
        std::memmove(m_data + 1, m_data + 1 + k, static_cast<std::size_t>(n - k) * sizeof(T));
        std::fill(m_data + 1 + n - k, m_data + 1 + n, MisVal);
    }
    RecountMissing();
}

template <class T>
void NCDataVector<T>::InterpolateMisVals(const NCDataVector* x)
{
    if (x)
        CheckSameSize(*x, "InterpolateMisVals");
    if (m_numMis == 0 || m_numMis == m_size)
        return;
    auto position = [x](int i) -> double { return x ? static_cast<double>((*x)[i]) : static_cast<double>(i); };
    auto isAnchor = [&](int i) { return !IsMisVal(m_data[i]) && !(x && IsMisVal((*x)[i])); };

    if (IsShared())
        ForceUnlink();
    int previous = 0; // last anchor seen, 0 for none
    int i = 1;
    while (i <= m_size) {
        if (!IsMisVal(m_data[i])) {
            if (isAnchor(i))
                previous = i;
            ++i;
            continue;
        }
        int next = i + 1;
        while (next <= m_size && !isAnchor(next))
            ++next;
        for (int k = i; k < next && k <= m_size; ++k) {
            if (!IsMisVal(m_data[k]) || (x && IsMisVal((*x)[k])))
                continue;
            double value = 0.0;
            if (previous == 0 && next > m_size)
                continue; // no anchor at all
            if (previous == 0) {
                value = m_data[next];
            } else if (next > m_size) {
                value = m_data[previous];
            } else {
                const double x0 = position(previous), x1 = position(next);
                const double y0 = m_data[previous], y1 = m_data[next];
                value = x1 == x0 ? (y0 + y1) / 2.0 : y0 + (position(k) - x0) / (x1 - x0) * (y1 - y0);
            }
            m_data[k] = static_cast<T>(value);
        }
        i = next;
    }
    RecountMissing();
}

#define VELTAN_INSTANTIATE_ARITHMETIC(T)                                                                              \
    template void NCDataVector<T>::Add(const NCDataVector& v);                                                        \
    template void NCDataVector<T>::Subtract(const NCDataVector& v);                                                   \
    template void NCDataVector<T>::DotMultiplication(const NCDataVector& v);                                          \
    template void NCDataVector<T>::DotDivide(const NCDataVector& v);                                                  \
    template void NCDataVector<T>::VectorDivide(double d);                                                            \
    template void NCDataVector<T>::TransformTo_Add_d_x_Vt(double d, const NCDataVector& v);                           \
    template void NCDataVector<T>::TransformTo_Sub_d_x_Vt(double d, const NCDataVector& v);                           \
    template NCDataVector<T>& NCDataVector<T>::operator+=(double d);                                                  \
    template NCDataVector<T>& NCDataVector<T>::operator-=(double d);                                                  \
    template NCDataVector<T>& NCDataVector<T>::operator*=(double d);                                                  \
    template NCDataVector<T>& NCDataVector<T>::operator/=(double d);                                                  \
    template NCDataVector<T> NCDataVector<T>::operator+(const NCDataVector& v) const;                                 \
    template NCDataVector<T> NCDataVector<T>::operator-(const NCDataVector& v) const;                                 \
    template NCDataVector<T> NCDataVector<T>::operator+(double d) const;                                              \
    template NCDataVector<T> NCDataVector<T>::operator-(double d) const;                                              \
    template NCDataVector<T> NCDataVector<T>::operator*(double d) const;                                              \
    template NCDataVector<T> NCDataVector<T>::operator/(double d) const;                                              \
    template void NCDataVector<T>::Abs();                                                                             \
    template void NCDataVector<T>::Sqrt();                                                                            \
    template bool NCDataVector<T>::operator==(const NCDataVector& v) const;                                           \
    template double NCDataVector<T>::Normalize();                                                                     \
    template void NCDataVector<T>::SNV();                                                                             \
    template void NCDataVector<T>::DetrendMean(double& mean);                                                         \
    template void NCDataVector<T>::DetrendLinear(double& intercept, double& slope);                                   \
    template void NCDataVector<T>::Lag(int lag);                                                                      \
    template void NCDataVector<T>::InterpolateMisVals(const NCDataVector* x);

VELTAN_INSTANTIATE_ARITHMETIC(float)
VELTAN_INSTANTIATE_ARITHMETIC(double)
