#pragma once

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/SharedBlock.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"

#include <cassert>
#include <initializer_list>
#include <iosfwd>

template <class T, int Missing>
class NCIntegralVector;
template <class T>
class NCDataMatrix;
template <class T>
class NCVecOpResultProxy;

// The library's one-dimensional numeric container (T = float or double).
//
// Indices run from 1 to Size(). An element equal to -99 is missing and the
// vector keeps an exact count of them. Copies share their storage until one
// of them is written; the sharing is reference-counted under a spin lock, so
// copies of one vector may be read and written on different threads (two
// threads must never write the same vector object). Element 1 sits on a
// 32-byte boundary and the block has room past the end, so loops may run on
// aligned groups of eight floats or four doubles.
//
// Statistics skip missing elements, accumulate in double and return -99 where
// no result is defined. Every statistic returning double has an F-suffixed
// twin returning float.
//
// The vector streams itself as record "NCDV", version 4: a directory of the
// size, the missing count and (when not empty) the elements. The float and
// double instances share the magic; a stream must be read back with the
// element type it was written with.
template <class T>
class VELTANCMAT_API NCDataVector : public virtual QvStreamBase {
public:
    using value_type = T;
    static constexpr T MisVal = NCMisVal<T>;

    // ---- construction -------------------------------------------------
    NCDataVector() = default;
    // Elements are zeroed: the missing count must be exact from the start,
    // and recycled blocks of this library often hold -99.
    explicit NCDataVector(int n);
    NCDataVector(int n, T value);
    NCDataVector(std::initializer_list<T> values);
    NCDataVector(const NCDataVector& other);
    NCDataVector& operator=(const NCDataVector& other);
    virtual ~NCDataVector();

    // Releases the storage; the vector becomes empty.
    void Clear();
    // New elements are zeroed; capacity is kept when shrinking.
    void SetSize(int n);
    void Resize(int n, T fill);
    void resize(int n, T fill) { Resize(n, fill); }
    void Reserve(int n);
    void push_back(T value);
    // Inserts before 1-based position `at` (1..Size()+1).
    void InsertValues(int at, const NCDataVector& values);
    void InsertValues(int at, int count, T value);
    // Removes the elements from..to, both 1-based and inclusive.
    void RemoveValues(int from, int to);
    // Removes every element equal to `value` (with -99: every missing one).
    void Remove(T value);
    // Keeps the elements whose 1-based position is not listed, in order.
    void Remove(const NCIntegralVector<int, -99>& positions);
    // Replaces the vector by the elements at the listed positions, in list
    // order; a position may be listed more than once.
    void Reduce(const NCIntegralVector<int, -99>& positions);

    // ---- element access -----------------------------------------------
    const T& operator[](int i) const
    {
        assert(i >= 1 && i <= m_size);
        return m_data[i];
    }
    // Writes v at i, keeps the missing count exact, returns v.
    T operator()(int i, T v)
    {
        SetAndReturn_dMisVal(i, v);
        return v;
    }
    // Writes v at i and returns the change of the missing count (-1, 0, +1).
    int SetAndReturn_dMisVal(int i, T v)
    {
        assert(i >= 1 && i <= m_size);
        if (IsShared())
            ForceUnlink();
        const int change = static_cast<int>(IsMisVal(v)) - static_cast<int>(IsMisVal(m_data[i]));
        m_data[i] = v;
        m_numMis += change;
        return change;
    }
    const T& front() const { return (*this)[1]; }
    const T& back() const { return (*this)[m_size]; }
    const T* begin() const { return m_data ? m_data + 1 : nullptr; }
    const T* end() const { return m_data ? m_data + 1 + m_size : nullptr; }
    // The 1-based data pointer: element i is GetVector()[i].
    const T* GetVector() const { return m_data; }
    // Writable 1-based pointer, unlinked from copies. Whoever writes through
    // it must call RecountMissing() before the vector is used again.
    T* GetVectorForWriting();
    // Recounts the missing elements after writes through the raw pointer.
    void RecountMissing();
    int Size() const { return m_size; }
    int size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    int Capacity() const { return m_capacity; }

    // ---- bulk copy ----------------------------------------------------
    // p is 1-based: p[1..n] are copied.
    void CopyVector(const T* p, int n);
    void CopyZeroBasedVector(const T* p, int n);
    // Deep copy of the elements into storage of this vector's own.
    void CopyContent(const NCDataVector& other);
    void SetAllValues(T value);
    // Writes other[from..to] into this vector starting at `at`; the range
    // must fit inside this vector.
    void SetRange(int at, const NCDataVector& other, int from, int to);
    // Writes p[0..n-1] into this vector starting at `at`.
    void SetRange(int at, const T* p, int n);
    void operator()(int at, const NCDataVector& other, int from, int to) { SetRange(at, other, from, to); }
    void operator()(int at, const T* p, int n) { SetRange(at, p, n); }

    // ---- missing queries ----------------------------------------------
    int GetNumMisVal() const { return m_numMis; }
    int GetNumValidValues() const { return m_size - m_numMis; }
    bool HasMissingValues() const { return m_numMis > 0; }
    bool HasNoMissingValues() const { return m_numMis == 0; }
    bool HasAllMissingValues() const { return m_size == m_numMis; }
    bool HasValidValues() const { return m_size > m_numMis; }
    // The first (last) element that is not missing; -99 when there is none.
    T FirstValidValue() const;
    T LastValidValue() const;

    // ---- statistics ---------------------------------------------------
    double GetMean() const;
    double GetVariance() const;
    double GetStdDev() const;
    double GetSum() const;
    double GetSS() const;
    double GetSS(double about) const;
    void GetMinMax(T& min, T& max) const;
    double GetMedian() const;
    bool GetInterquartiles(double& q1, double& median, double& q3) const;
    double GetInterquartileRange() const;
    double GetRobustStdDev() const;
    double GetSkewness() const;
    double GetSkewnessTest() const;
    double GetKurtosis() const;

    float GetMeanF() const { return static_cast<float>(GetMean()); }
    float GetVarianceF() const { return static_cast<float>(GetVariance()); }
    float GetStdDevF() const { return static_cast<float>(GetStdDev()); }
    float GetSumF() const { return static_cast<float>(GetSum()); }
    float GetSSF() const { return static_cast<float>(GetSS()); }
    float GetSSF(double about) const { return static_cast<float>(GetSS(about)); }
    float GetMedianF() const { return static_cast<float>(GetMedian()); }
    float GetInterquartileRangeF() const { return static_cast<float>(GetInterquartileRange()); }
    float GetRobustStdDevF() const { return static_cast<float>(GetRobustStdDev()); }
    float GetSkewnessF() const { return static_cast<float>(GetSkewness()); }
    float GetSkewnessTestF() const { return static_cast<float>(GetSkewnessTest()); }
    float GetKurtosisF() const { return static_cast<float>(GetKurtosis()); }

    // ---- pair statistics (this vector is V1, the argument V2) ---------
    // Sum of the products over the complete pairs.
    double operator*(const NCDataVector& v2) const;
    // S12 = sum V1*V2 and S11 = sum V1^2 over the complete pairs, S11all =
    // sum V1^2 wherever V1 is present, skipping positions whose class equals
    // `excluded` when a class list is given.
    static void Calculate_V1txV2_and_V1txV1(double& s12, double& s11, double& s11all, const NCDataVector& v1,
                                            const NCDataVector& v2, const NCIntegralVector<int, -99>* classes,
                                            int excluded);
    // Least-squares slope of V2 on V1 through the origin.
    double Regress(const NCDataVector& v2) const;
    double SpecialNipalsRegressFix(const NCDataVector& v2) const;
    double SpecialNipalsRegressFixWithExclude(const NCDataVector& v2, const NCIntegralVector<int, -99>& classes,
                                              int excluded) const;
    double Difference(const NCDataVector& v2) const;
    double Distance(const NCDataVector& v2) const;
    double Covariance(const NCDataVector& v2) const;
    double Correlation_Mean(const NCDataVector& v2) const;
    double Correlation_Zero(const NCDataVector& v2) const;
    // Straight line V2 = intercept + slope * V1 over the complete pairs;
    // returns the residual standard deviation (-99 when undefined).
    double LeastSquare(const NCDataVector& v2, double& intercept, double& slope) const;

    float RegressF(const NCDataVector& v2) const { return static_cast<float>(Regress(v2)); }
    float SpecialNipalsRegressFixF(const NCDataVector& v2) const
    {
        return static_cast<float>(SpecialNipalsRegressFix(v2));
    }
    float DifferenceF(const NCDataVector& v2) const { return static_cast<float>(Difference(v2)); }
    float DistanceF(const NCDataVector& v2) const { return static_cast<float>(Distance(v2)); }
    float CovarianceF(const NCDataVector& v2) const { return static_cast<float>(Covariance(v2)); }
    float Correlation_MeanF(const NCDataVector& v2) const { return static_cast<float>(Correlation_Mean(v2)); }
    float Correlation_ZeroF(const NCDataVector& v2) const { return static_cast<float>(Correlation_Zero(v2)); }

    // ---- arithmetic ---------------------------------------------------
    // Element-wise; a result is missing where either operand is. Results
    // that land exactly on -99 read as missing like any other -99.
    void Add(const NCDataVector& v);
    void Subtract(const NCDataVector& v);
    NCDataVector& operator+=(const NCDataVector& v)
    {
        Add(v);
        return *this;
    }
    NCDataVector& operator-=(const NCDataVector& v)
    {
        Subtract(v);
        return *this;
    }
    // With a scalar: applied to the present elements, missing ones stay.
    NCDataVector& operator+=(double d);
    NCDataVector& operator-=(double d);
    NCDataVector& operator*=(double d);
    NCDataVector& operator/=(double d);
    NCDataVector operator+(const NCDataVector& v) const;
    NCDataVector operator-(const NCDataVector& v) const;
    NCDataVector operator+(double d) const;
    NCDataVector operator-(double d) const;
    NCDataVector operator*(double d) const;
    NCDataVector operator/(double d) const;
    // this' * M: one value per column of M, over the complete pairs of each
    // column (-99 where a column has none).
    NCDataVector operator*(const NCDataMatrix<T>& M) const;
    // Routes the next operation's result into `target` without a temporary:
    // v.Result(&w) * M.
    NCVecOpResultProxy<T> Result(NCDataVector* target) const;
    // this[i] *= v[i]; this[i] /= v[i] (a zero divisor gives a missing element).
    void DotMultiplication(const NCDataVector& v);
    void DotDivide(const NCDataVector& v);
    // this[i] = d / this[i] (a zero element gives a missing element).
    void VectorDivide(double d);
    // this += d * v and this -= d * v.
    void TransformTo_Add_d_x_Vt(double d, const NCDataVector& v);
    void TransformTo_Sub_d_x_Vt(double d, const NCDataVector& v);
    void Abs();
    // Square root of each present element; a negative one becomes missing.
    void Sqrt();
    // Same size and equal elements, compared element by element.
    bool operator==(const NCDataVector& v) const;
    bool operator!=(const NCDataVector& v) const { return !(*this == v); }

    // ---- preprocessing ------------------------------------------------
    // Divides by the Euclidean norm of the present elements and returns the
    // norm; a zero norm leaves the vector unchanged.
    double Normalize();
    // Standard normal variate: centre on the mean and divide by the standard
    // deviation. With fewer than two values or no spread it only centres.
    void SNV();
    // Subtracts the mean of the present elements, returned in `mean`.
    void DetrendMean(double& mean);
    // Subtracts the least-squares line intercept + slope * i over the present
    // elements (i the 1-based index); with fewer than two present elements
    // the line is flat at the mean.
    void DetrendLinear(double& intercept, double& slope);
    // Shifts the elements by `lag` places: element i takes element i - lag;
    // the places shifted in are missing.
    void Lag(int lag);
    // Fills missing elements by linear interpolation between the nearest
    // present neighbours, at the positions `x` (the indices when null);
    // before the first and after the last present element the nearest
    // present value is repeated. Elements whose position is missing stay.
    void InterpolateMisVals(const NCDataVector* x);

    // ---- search -------------------------------------------------------
    // On a range sorted with missing values last (ascending when
    // `ascending`, else descending), the first element that does not come
    // before `value`; a missing `value` finds the first missing element.
    static const T* lower_bound_missing_last(const T* first, const T* last, T value, bool ascending);

    // ---- streaming ----------------------------------------------------
    // Writes the record once until QvStreamableReset; false when the stream
    // goes bad.
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // Reads a record written by QvStreamableStartWrite. Returns false for
    // another magic or version (the vector untouched), or when the elements
    // are absent or fewer than the size claims (the vector left empty); an
    // absent or unreadable size or count throws QvStreamError.
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    static short GetMyQvStreamVersionNumber() { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    static short GetQvStreamVersionNumber() { return MyStreamableData.GetQvStreamVersionNumber(); }

protected:
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);
    static QvStreamableData MyStreamableData; // "NCDV", version 4

    bool IsShared() const { return m_shared && m_shared->refCount.load(std::memory_order_acquire) > 1; }
    // Gives this vector storage of its own before it is written.
    void ForceUnlink();

private:
    template <class>
    friend class NCDataMatrix;

    // Allocates room for n elements with element 1 on a 32-byte boundary;
    // returns the 1-based data pointer and the offset from the block start.
    static T* NewVec(int n, int& offset);
    static void FreeVec(T* data, int offset);
    // Drops this vector's hold on its storage (frees it when last).
    void Unlink();
    // Ensures unshared storage for at least n elements, keeping the
    // current elements.
    void Grow(int n);
    // Copies the elements into new storage for `capacity` (>= Size())
    // elements, held through `record`, or a new record when it is null. The
    // old storage is left to the caller.
    void MoveToNewBlock(int capacity, NCSharedBlock* record);
    // Like Grow, but growing geometrically, for appends and inserts.
    void EnsureCapacity(int n);
    void CheckSameSize(const NCDataVector& v, const char* member) const;
    // this[i] = op(this[i], v[i]), missing where either is missing.
    template <class Op>
    void CombineWith(const NCDataVector& v, const char* member, Op op);
    // this[i] = op(this[i]) on the present elements.
    template <class Op>
    void TransformWith(Op op);

    int m_alignOffset = 0;
    int m_size = 0;
    T* m_data = nullptr;
    NCSharedBlock* m_shared = nullptr;
    int m_numMis = 0;
    int m_capacity = 0;
    mutable bool m_streaming = false;
};

extern template class NCDataVector<float>;
extern template class NCDataVector<double>;
