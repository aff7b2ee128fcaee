#include "veltancmat/containers/NCDataVector.h"

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

// Vector statistics run serially: they are called from inside the parallel
// loops of the matrix algebra, one row or column per thread, where nested
// parallel regions would only add overhead.

namespace {

// Counts the missing elements of p[1..n].
template <class T>
VELTAN_SIMD_CLONES int CountMissing(const T* p, int n)
{
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int i = 1; i <= n; ++i)
        count += IsMisVal(p[i]) ? 1 : 0;
    return count;
}

// Sum, sum of squares, and sum of squares about a value of p[1..n]; the
// masked forms skip missing elements. Squares are formed in the element type
// and accumulated in double.
template <class T>
VELTAN_SIMD_CLONES double SumKernel(const T* p, int n, bool masked)
{
    double sum = 0.0;
    if (!masked) {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= n; ++i)
            sum += p[i];
    } else {
#pragma omp simd reduction(+ : sum)
        for (int i = 1; i <= n; ++i)
            sum += PresentOrZero(p[i]);
    }
    return sum;
}

template <class T>
VELTAN_SIMD_CLONES double SumSquaresKernel(const T* p, int n, bool masked)
{
    double ss = 0.0;
    if (!masked) {
#pragma omp simd reduction(+ : ss)
        for (int i = 1; i <= n; ++i)
            ss += p[i] * p[i];
    } else {
#pragma omp simd reduction(+ : ss)
        for (int i = 1; i <= n; ++i) {
            const T x = PresentOrZero(p[i]);
            ss += x * x;
        }
    }
    return ss;
}

template <class T>
VELTAN_SIMD_CLONES double SumSquaresAboutKernel(const T* p, int n, double about, bool masked)
{
    double ss = 0.0;
    if (!masked) {
#pragma omp simd reduction(+ : ss)
        for (int i = 1; i <= n; ++i) {
            const double d = p[i] - about;
            ss += d * d;
        }
    } else {
#pragma omp simd reduction(+ : ss)
        for (int i = 1; i <= n; ++i) {
            const double d = IsMisVal(p[i]) ? 0.0 : p[i] - about;
            ss += d * d;
        }
    }
    return ss;
}

std::string MemberName(const char* member)
{
    return std::string("NCDataVector<FloatType>::") + member;
}

[[noreturn]] void ThrowSizeMismatch(const char* member)
{
    throw NCInternalError(MemberName(member), ExceptionMessage::translate("Vectors are of different size."));
}

[[noreturn]] void ThrowOutOfRange(const char* member)
{
    throw NCInternalError(MemberName(member), ExceptionMessage::translate("Index out of range."));
}

void CheckSize(int n, const char* member)
{
    if (n < 0)
        throw NCInternalError(MemberName(member), ExceptionMessage::translate("Negative vector size."));
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

} // namespace

// ---------------------------------------------------------------------------
// Storage and sharing

template <class T>
T* NCDataVector<T>::NewVec(int n, int& offset)
{
    // n elements plus 32 + sizeof(T) bytes: room to move element 1 onto a
    // 32-byte boundary with element 0 still inside the block, and a spare
    // tail for vectorised loops. With 32 bytes every full-width AVX load of
    // a row stays inside one cache line; at 16, every other one straddled
    // two and the matrix kernels ran measurably slower.
    const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(T) + 32 + sizeof(T);
    auto* block = static_cast<char*>(std::malloc(bytes));
    if (!block)
        throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(block) + sizeof(T);
    const auto first = (start + 31) & ~static_cast<std::uintptr_t>(31);
    char* data = reinterpret_cast<char*>(first) - sizeof(T);
    offset = static_cast<int>(data - block);
    return reinterpret_cast<T*>(data);
}

template <class T>
void NCDataVector<T>::FreeVec(T* data, int offset)
{
    if (data)
        std::free(reinterpret_cast<char*>(data) - offset);
}

template <class T>
NCDataVector<T>::NCDataVector(int n)
{
    CheckSize(n, "NCDataVector");
    if (n > 0) {
        Grow(n);
        std::memset(m_data + 1, 0, static_cast<std::size_t>(n) * sizeof(T));
        m_size = n;
    }
}

template <class T>
NCDataVector<T>::NCDataVector(int n, T value)
{
    CheckSize(n, "NCDataVector");
    if (n > 0) {
        Grow(n);
        m_size = n;
        std::fill(m_data + 1, m_data + 1 + n, value);
        m_numMis = IsMisVal(value) ? n : 0;
    }
}

template <class T>
NCDataVector<T>::NCDataVector(std::initializer_list<T> values)
{
    CopyZeroBasedVector(values.begin(), static_cast<int>(values.size()));
}

template <class T>
NCDataVector<T>::NCDataVector(const NCDataVector& other)
{
    NCSharedBlockLock lock(other.m_shared);
    m_alignOffset = other.m_alignOffset;
    m_size = other.m_size;
    m_data = other.m_data;
    m_shared = other.m_shared;
    m_numMis = other.m_numMis;
    m_capacity = other.m_capacity;
    if (m_shared)
        m_shared->refCount.fetch_add(1, std::memory_order_relaxed);
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator=(const NCDataVector& other)
{
    if (this == &other)
        return *this;
    if (m_shared && m_shared == other.m_shared)
        return *this;

    // Both locks are taken in address order rather than "own, then source",
    // so that two threads assigning copies of each other's vectors cannot
    // deadlock.
    NCSharedBlock* mine = m_shared;
    NCSharedBlock* theirs = other.m_shared;
    NCSharedBlockLock firstLock(std::less<>()(mine, theirs) ? mine : theirs);
    NCSharedBlockLock secondLock(std::less<>()(mine, theirs) ? theirs : mine);

    bool freeMine = false;
    if (mine) {
        if (mine->refCount.load(std::memory_order_relaxed) == 1)
            freeMine = true;
        else
            mine->refCount.fetch_sub(1, std::memory_order_relaxed);
    }
    T* oldData = m_data;
    const int oldOffset = m_alignOffset;

    m_alignOffset = other.m_alignOffset;
    m_size = other.m_size;
    m_data = other.m_data;
    m_shared = other.m_shared;
    m_numMis = other.m_numMis;
    m_capacity = other.m_capacity;
    if (theirs)
        theirs->refCount.fetch_add(1, std::memory_order_relaxed);

    if (freeMine) {
        // Nobody else can reach the old block: unlock it before freeing.
        if (std::less<>()(mine, theirs))
            firstLock.Release();
        else
            secondLock.Release();
        FreeVec(oldData, oldOffset);
        delete mine;
    }
    return *this;
}

template <class T>
NCDataVector<T>::~NCDataVector()
{
    Unlink();
}

template <class T>
void NCDataVector<T>::Unlink()
{
    if (m_shared) {
        NCSharedBlockLock lock(m_shared);
        if (m_shared->refCount.load(std::memory_order_relaxed) == 1) {
            lock.Release();
            FreeVec(m_data, m_alignOffset);
            delete m_shared;
        } else {
            m_shared->refCount.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    m_shared = nullptr;
    m_data = nullptr;
    m_alignOffset = 0;
    m_capacity = 0;
}

template <class T>
void NCDataVector<T>::ForceUnlink()
{
    if (!m_shared)
        return;
    NCSharedBlockLock lock(m_shared);
    if (m_shared->refCount.load(std::memory_order_relaxed) == 1)
        return;
    int offset = 0;
    T* data = NewVec(m_size, offset);
    NCSharedBlock* block = nullptr;
    try {
        block = new NCSharedBlock;
    } catch (...) {
        FreeVec(data, offset);
        throw;
    }
    if (m_size > 0)
        std::memcpy(data + 1, m_data + 1, static_cast<std::size_t>(m_size) * sizeof(T));
    m_shared->refCount.fetch_sub(1, std::memory_order_relaxed);
    lock.Release();
    m_data = data;
    m_alignOffset = offset;
    m_capacity = m_size;
    m_shared = block;
}

template <class T>
void NCDataVector<T>::Grow(int n)
{
    if (IsShared())
        ForceUnlink();
    if (n <= m_capacity)
        return;
    int offset = 0;
    T* data = NewVec(n, offset);
    NCSharedBlock* block = m_shared;
    if (!block) {
        try {
            block = new NCSharedBlock;
        } catch (...) {
            FreeVec(data, offset);
            throw;
        }
    }
    if (m_size > 0)
        std::memcpy(data + 1, m_data + 1, static_cast<std::size_t>(m_size) * sizeof(T));
    FreeVec(m_data, m_alignOffset);
    m_data = data;
    m_alignOffset = offset;
    m_capacity = n;
    m_shared = block;
}

template <class T>
void NCDataVector<T>::EnsureCapacity(int n)
{
    // An unlink leaves exactly Size() elements of room, so the capacity is
    // checked only after it.
    if (IsShared())
        ForceUnlink();
    if (n > m_capacity)
        Grow(std::max(n, m_capacity + m_capacity / 2 + 8));
}

template <class T>
void NCDataVector<T>::Clear()
{
    Unlink();
    m_size = 0;
    m_numMis = 0;
}

template <class T>
void NCDataVector<T>::SetSize(int n)
{
    CheckSize(n, "SetSize");
    if (n == m_size)
        return;
    if (n < m_size) {
        if (IsShared())
            ForceUnlink();
        m_numMis -= CountMissing(m_data + n, m_size - n);
        m_size = n;
        return;
    }
    Grow(n);
    std::memset(m_data + 1 + m_size, 0, static_cast<std::size_t>(n - m_size) * sizeof(T));
    m_size = n;
}

template <class T>
void NCDataVector<T>::Resize(int n, T fill)
{
    const int old = m_size;
    SetSize(n);
    if (n > old) {
        std::fill(m_data + 1 + old, m_data + 1 + n, fill);
        if (IsMisVal(fill))
            m_numMis += n - old;
    }
}

template <class T>
void NCDataVector<T>::Reserve(int n)
{
    CheckSize(n, "Reserve");
    if (n > m_capacity)
        Grow(n);
}

template <class T>
void NCDataVector<T>::push_back(T value)
{
    EnsureCapacity(m_size + 1);
    m_data[++m_size] = value;
    if (IsMisVal(value))
        ++m_numMis;
}

template <class T>
void NCDataVector<T>::InsertValues(int at, const NCDataVector& values)
{
    if (at < 1 || at > m_size + 1)
        ThrowOutOfRange("InsertValues");
    const int count = values.m_size;
    if (count == 0)
        return;
    // Keep a hold on the source: it may be this very vector.
    const NCDataVector source(values);
    EnsureCapacity(m_size + count);
    std::memmove(m_data + at + count, m_data + at, static_cast<std::size_t>(m_size - at + 1) * sizeof(T));
    std::memcpy(m_data + at, source.m_data + 1, static_cast<std::size_t>(count) * sizeof(T));
    m_size += count;
    m_numMis += source.m_numMis;
}

template <class T>
void NCDataVector<T>::InsertValues(int at, int count, T value)
{
    if (at < 1 || at > m_size + 1)
        ThrowOutOfRange("InsertValues");
    CheckSize(count, "InsertValues");
    if (count == 0)
        return;
    EnsureCapacity(m_size + count);
    std::memmove(m_data + at + count, m_data + at, static_cast<std::size_t>(m_size - at + 1) * sizeof(T));
    std::fill(m_data + at, m_data + at + count, value);
    m_size += count;
    if (IsMisVal(value))
        m_numMis += count;
}

template <class T>
void NCDataVector<T>::RemoveValues(int from, int to)
{
    if (from < 1 || to > m_size || from > to + 1)
        ThrowOutOfRange("RemoveValues");
    const int count = to - from + 1;
    if (count == 0)
        return;
    if (IsShared())
        ForceUnlink();
    m_numMis -= CountMissing(m_data + from - 1, count);
    std::memmove(m_data + from, m_data + to + 1, static_cast<std::size_t>(m_size - to) * sizeof(T));
    m_size -= count;
}

template <class T>
void NCDataVector<T>::Remove(T value)
{
    if (IsShared())
        ForceUnlink();
    int kept = 0;
    for (int i = 1; i <= m_size; ++i) {
        // Exact equality, like the missing test: removing NaN removes nothing.
        if (!(m_data[i] == value))
            m_data[++kept] = m_data[i];
    }
    m_size = kept;
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::Remove(const NCIntegralVector<int, -99>& positions)
{
    if (positions.size() == 0 || m_size == 0)
        return;
    // A mask gives the same result as looking each position up in the list,
    // without the quadratic cost; positions outside 1..Size() match nothing.
    std::vector<char> drop(static_cast<std::size_t>(m_size) + 1, 0);
    for (int k = 1; k <= positions.size(); ++k) {
        const int p = positions[k];
        if (p >= 1 && p <= m_size)
            drop[static_cast<std::size_t>(p)] = 1;
    }
    if (IsShared())
        ForceUnlink();
    int kept = 0;
    for (int i = 1; i <= m_size; ++i)
        if (!drop[static_cast<std::size_t>(i)])
            m_data[++kept] = m_data[i];
    m_size = kept;
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::Reduce(const NCIntegralVector<int, -99>& positions)
{
    const int n = positions.size();
    for (int k = 1; k <= n; ++k)
        if (positions[k] < 1 || positions[k] > m_size)
            ThrowOutOfRange("Reduce");
    NCDataVector result(n);
    for (int k = 1; k <= n; ++k)
        result.m_data[k] = m_data[positions[k]];
    result.m_numMis = CountMissing(result.m_data, n);
    *this = result;
}

// ---------------------------------------------------------------------------
// Element access and bulk copy

template <class T>
T* NCDataVector<T>::GetVectorForWriting()
{
    if (IsShared())
        ForceUnlink();
    return m_data;
}

template <class T>
void NCDataVector<T>::RecountMissing()
{
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::CopyVector(const T* p, int n)
{
    CopyZeroBasedVector(p ? p + 1 : nullptr, n);
}

template <class T>
void NCDataVector<T>::CopyZeroBasedVector(const T* p, int n)
{
    CheckSize(n, "CopyZeroBasedVector");
    if (n > 0 && !p)
        throw NCInternalError(MemberName("CopyZeroBasedVector"), ExceptionMessage::translate("Null pointer."));
    // The source may live in this vector's own block: copy before growing.
    std::vector<T> copy(p, p + n);
    SetSize(0);
    Grow(n);
    if (n > 0)
        std::memcpy(m_data + 1, copy.data(), static_cast<std::size_t>(n) * sizeof(T));
    m_size = n;
    m_numMis = CountMissing(m_data, n);
}

template <class T>
void NCDataVector<T>::CopyContent(const NCDataVector& other)
{
    if (&other == this)
        return;
    if (m_shared && m_shared == other.m_shared) {
        ForceUnlink();
        return;
    }
    SetSize(0);
    Grow(other.m_size);
    if (other.m_size > 0)
        std::memcpy(m_data + 1, other.m_data + 1, static_cast<std::size_t>(other.m_size) * sizeof(T));
    m_size = other.m_size;
    m_numMis = other.m_numMis;
}

template <class T>
void NCDataVector<T>::SetAllValues(T value)
{
    if (IsShared())
        ForceUnlink();
    std::fill(m_data ? m_data + 1 : nullptr, m_data ? m_data + 1 + m_size : nullptr, value);
    m_numMis = IsMisVal(value) ? m_size : 0;
}

template <class T>
void NCDataVector<T>::SetRange(int at, const NCDataVector& other, int from, int to)
{
    if (from < 1 || to > other.m_size || from > to + 1)
        ThrowOutOfRange("SetRange");
    const int n = to - from + 1;
    if (n == 0)
        return;
    // Reading from this very vector is safe: an unlink keeps the old block
    // alive for its other users, and the copy itself is a memmove.
    SetRange(at, other.m_data + from, n);
}

template <class T>
void NCDataVector<T>::SetRange(int at, const T* p, int n)
{
    CheckSize(n, "SetRange");
    if (n == 0)
        return;
    if (at < 1 || at + n - 1 > m_size || !p)
        ThrowOutOfRange("SetRange");
    if (IsShared())
        ForceUnlink();
    const int before = CountMissing(m_data + at - 1, n);
    std::memmove(m_data + at, p, static_cast<std::size_t>(n) * sizeof(T));
    m_numMis += CountMissing(m_data + at - 1, n) - before;
}

template <class T>
T NCDataVector<T>::FirstValidValue() const
{
    for (int i = 1; i <= m_size; ++i)
        if (!IsMisVal(m_data[i]))
            return m_data[i];
    return MisVal;
}

template <class T>
T NCDataVector<T>::LastValidValue() const
{
    for (int i = m_size; i >= 1; --i)
        if (!IsMisVal(m_data[i]))
            return m_data[i];
    return MisVal;
}

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
// sample standard deviation; -99 when s is undefined or zero.
template <class T>
double SumOfStandardisedPowers(const NCDataVector<T>& v, int power)
{
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
    const int v = GetNumValidValues();
    if (v < 3)
        return dMisVal;
    const double sum = SumOfStandardisedPowers(*this, 3);
    if (IsMisVal(sum))
        return dMisVal;
    return static_cast<double>(v) / ((v - 1.0) * (v - 2.0)) * sum;
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
    const int v = GetNumValidValues();
    if (v < 4)
        return dMisVal;
    const double sum = SumOfStandardisedPowers(*this, 4);
    if (IsMisVal(sum))
        return dMisVal;
    const double n = v;
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
} // namespace

// Covariance and Correlation_Mean use the complete pairs only, with the
// means of those pairs (pairwise deletion), and n - 1 degrees of freedom.
template <class T>
double NCDataVector<T>::Covariance(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Covariance");
    const PairSums s = SumPairs(m_data, v2.m_data, m_size);
    if (s.n < 2)
        return dMisVal;
    double sxx = 0.0, syy = 0.0, sxy = 0.0;
    CentredSums(m_data, v2.m_data, m_size, s.sx / s.n, s.sy / s.n, sxx, syy, sxy);
    return sxy / (s.n - 1);
}

template <class T>
double NCDataVector<T>::Correlation_Mean(const NCDataVector& v2) const
{
    CheckSameSize(v2, "Correlation_Mean");
    const PairSums s = SumPairs(m_data, v2.m_data, m_size);
    if (s.n < 2)
        return dMisVal;
    double sxx = 0.0, syy = 0.0, sxy = 0.0;
    CentredSums(m_data, v2.m_data, m_size, s.sx / s.n, s.sy / s.n, sxx, syy, sxy);
    // A constant series has no defined correlation.
    if (sxx <= 0.0 || syy <= 0.0)
        return dMisVal;
    return std::clamp(sxy / std::sqrt(sxx * syy), -1.0, 1.0);
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
    const PairSums s = SumPairs(m_data, v2.m_data, m_size);
    if (s.n < 2)
        return dMisVal;
    const double mx = s.sx / s.n;
    const double my = s.sy / s.n;
    double sxx = 0.0, syy = 0.0, sxy = 0.0;
    CentredSums(m_data, v2.m_data, m_size, mx, my, sxx, syy, sxy);
    if (sxx <= 0.0)
        return dMisVal;
    slope = sxy / sxx;
    intercept = my - slope * mx;
    if (s.n < 3)
        return 0.0;
    const double rss = std::max(0.0, syy - slope * sxy);
    return std::sqrt(rss / (s.n - 2));
}

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
    m_numMis = CountMissing(m_data, n);
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
    m_numMis = CountMissing(m_data, m_size);
}

// ---------------------------------------------------------------------------
// Search

template <class T>
const T* NCDataVector<T>::lower_bound_missing_last(const T* first, const T* last, T value, bool ascending)
{
    // Missing values sort after every present value in either direction.
    auto before = [ascending](T element, T target) {
        if (IsMisVal(element))
            return false;
        if (IsMisVal(target))
            return true;
        return ascending ? element < target : element > target;
    };
    return std::lower_bound(first, last, value, before);
}

// ---------------------------------------------------------------------------
// Streaming

template <class T>
QvStreamableData NCDataVector<T>::MyStreamableData(4, "NCDV");

namespace {
template <class T>
bool WriteElements(const T* p, int n, std::ostream& out)
{
    if constexpr (sizeof(T) == 4)
        return WriteFourBytes(p, n, out);
    else
        return WriteEightBytes(p, n, out);
}

template <class T>
bool ReadElements(T* p, int n, std::istream& in)
{
    if constexpr (sizeof(T) == 4)
        return ReadFourBytes(p, n, in);
    else
        return ReadEightBytes(p, n, in);
}
} // namespace

template <class T>
bool NCDataVector<T>::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

template <class T>
bool NCDataVector<T>::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 3);
    const std::int32_t size = m_size;
    const std::int32_t missing = m_numMis;
    bool ok = WriteFourBytes(&size, 1, directory.GetOutput(0));
    ok = ok && WriteFourBytes(&missing, 1, directory.GetOutput(1));
    if (ok && m_size > 0)
        ok = WriteElements(m_data + 1, m_size, directory.GetOutput(2));
    return directory.Close() && ok && out.good();
}

template <class T>
bool NCDataVector<T>::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 4, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

template <class T>
bool NCDataVector<T>::QvStreamableRead(std::istream& in)
{
    Clear();
    InputStreamDirectory directory(in);
    std::int32_t size = 0;
    std::int32_t missing = 0;
    directory.ReadRequired(0, &size, 1, 4);
    directory.ReadRequired(1, &missing, 1, 4);
    // The stored count is trusted as it stands (no recount), but a count
    // that cannot belong to the size marks a corrupt record.
    if (size < 0 || missing < 0 || missing > size) {
        directory.Close();
        return false;
    }
    if (size > 0) {
        std::istream* entry = directory.GetInput(2);
        // The claimed size is checked against the bytes that remain before
        // a block of that size is allocated.
        if (!entry || !QvStreamHasBytes(*entry, static_cast<std::streamsize>(size) * sizeof(T))) {
            directory.Close();
            return false;
        }
        auto block = std::make_unique<NCSharedBlock>();
        int offset = 0;
        T* data = NewVec(size, offset);
        if (!ReadElements(data + 1, size, *entry)) {
            FreeVec(data, offset);
            throw QvStreamError(ExceptionMessage::translate("Error when reading from stream."));
        }
        m_shared = block.release();
        m_data = data;
        m_alignOffset = offset;
        m_capacity = size;
        m_size = size;
        m_numMis = missing;
    }
    // A record whose directory does not end cleanly is damaged as a whole.
    if (!directory.Close() || !in.good()) {
        Clear();
        return false;
    }
    return true;
}

template <class T>
void NCDataVector<T>::QvStreamableReset() const
{
    m_streaming = false;
    QvStreamBase::QvStreamableReset();
}

template class NCDataVector<float>;
template class NCDataVector<double>;
