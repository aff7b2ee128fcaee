#include "veltancmat/containers/NCSVD.h"

#include <Eigen/SVD>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

namespace {

// GetInverse's condition limit that switches the refusals off.
constexpr double NoConditionLimit = -99.0;

} // namespace

// ---------------------------------------------------------- construction

template <class T>
NCSVD<T>::NCSVD(std::unique_ptr<Matrix> U, std::unique_ptr<Matrix> V, std::unique_ptr<Vector> w)
    : m_V(std::move(V)), m_w(std::move(w)), m_U(std::move(U)), m_status(Succeeded)
{
}

template <class T>
NCSVD<T>::NCSVD(const NCSVD& other)
    : m_V(other.m_V ? std::make_unique<Matrix>(*other.m_V) : nullptr),
      m_w(other.m_w ? std::make_unique<Vector>(*other.m_w) : nullptr),
      m_U(other.m_U ? std::make_unique<Matrix>(*other.m_U) : nullptr), m_status(other.m_status),
      m_sorted(other.m_sorted)
{
}

template <class T>
NCSVD<T>::NCSVD(NCSVD&& other) noexcept = default;

template <class T>
NCSVD<T>& NCSVD<T>::operator=(const NCSVD& other)
{
    if (this != &other) {
        NCSVD copy(other);
        *this = std::move(copy);
    }
    return *this;
}

template <class T>
NCSVD<T>& NCSVD<T>::operator=(NCSVD&& other) noexcept = default;

template <class T>
NCSVD<T>::~NCSVD() = default;

// ---------------------------------------------------------- decomposition

namespace {

// The cells of a as a double matrix; false at the first cell that is not
// finite. The kernel works in double for both element types: singular
// values are cut at 1e-16 of the largest, which only double arithmetic can
// resolve, and float input widens without loss.
template <class T>
bool ToDouble(const NCDataMatrix<T>& a, Eigen::MatrixXd& A)
{
    const int m = a.SizeRows();
    const int n = a.SizeColumns();
    A.resize(m, n);
    for (int i = 1; i <= m; ++i) {
        const T* row = a[i].GetVector();
        for (int j = 1; j <= n; ++j) {
            if (!std::isfinite(row[j]))
                return false;
            A(i - 1, j - 1) = static_cast<double>(row[j]);
        }
    }
    return true;
}

// The thin U (m x k), the full V (n x n) and the k = min(m, n) singular
// values of A; false when the decomposition fails or gives what T cannot
// hold. An empty matrix decomposes trivially: no U cells, V the identity.
template <class T>
bool DecomposeDouble(const Eigen::MatrixXd& A, Eigen::MatrixXd& u, Eigen::MatrixXd& v, Eigen::VectorXd& s)
{
    const int k = static_cast<int>(std::min(A.rows(), A.cols()));
    u.resize(A.rows(), k);
    v = Eigen::MatrixXd::Identity(A.cols(), A.cols());
    s.resize(k);
    if (k == 0)
        return true;
    // Divide and conquer keeps wide data tables affordable; below 16
    // columns the Eigen implementation hands the work to one-sided Jacobi,
    // which finds small singular values to high relative accuracy. V is
    // computed in full so that a wide matrix (m < n) still gets n
    // orthonormal right singular vectors.
    Eigen::BDCSVD<Eigen::MatrixXd> svd(A, Eigen::ComputeThinU | Eigen::ComputeFullV);
    if (svd.info() != Eigen::Success)
        return false;
    u = svd.matrixU();
    v = svd.matrixV();
    s = svd.singularValues();
    if (!u.allFinite() || !v.allFinite())
        return false;
    // Float singular values of a float matrix with huge cells may overflow
    // even though the double ones did not.
    for (int c = 0; c < k; ++c)
        if (!std::isfinite(static_cast<T>(s(c))))
            return false;
    return true;
}

} // namespace

template <class T>
bool NCSVD<T>::Decompose(Matrix& a, Matrix& V, Vector& w)
{
    const int m = a.SizeRows();
    const int n = a.SizeColumns();
    // A missing cell has no value to decompose, and -99 taken as a number
    // would silently distort every singular vector; a NaN or infinity
    // would do the same. Both are refused before anything is written.
    if (a.HasMissingValues())
        return false;
    Eigen::MatrixXd A, u, v;
    Eigen::VectorXd s;
    if (!ToDouble(a, A) || !DecomposeDouble<T>(A, u, v, s))
        return false;
    const int k = std::min(m, n);

    Matrix rightVectors(n, n);
    std::vector<T*> vRows = rightVectors.GetMatrixAsPointerPointer();
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
            vRows[i][j] = static_cast<T>(v(i - 1, j - 1));
    rightVectors.RecountMissing();

    // A wide matrix has only m singular values; the rest are 0, and the
    // matching columns of U are 0 too, so that U keeps the matrix's size
    // and U * diag(w) * V' still reproduces it.
    Vector values(n);
    T* wData = values.GetVectorForWriting();
    double wmax = 0.0;
    for (int c = 1; c <= k; ++c) {
        wData[c] = static_cast<T>(s(c - 1));
        wmax = std::max(wmax, static_cast<double>(wData[c]));
    }
    values.RecountMissing();
    ZeroBelowThreshold(values, wmax);

    // Nothing can fail from here on, so a refused matrix is never half
    // overwritten.
    std::vector<T*> uRows = a.GetMatrixAsPointerPointer();
    for (int i = 1; i <= m; ++i) {
        for (int j = 1; j <= k; ++j)
            uRows[i][j] = static_cast<T>(u(i - 1, j - 1));
        std::fill(uRows[i] + k + 1, uRows[i] + n + 1, T(0));
    }
    a.RecountMissing();

    V = std::move(rightVectors);
    w = std::move(values);
    return true;
}

template <class T>
std::unique_ptr<NCSVD<T>> NCSVD<T>::Make(bool done, std::unique_ptr<Matrix> U, std::unique_ptr<Matrix> V,
                                         std::unique_ptr<Vector> w, bool* ok)
{
    if (ok)
        *ok = done;
    if (!done)
        return std::unique_ptr<NCSVD>(new NCSVD());
    return std::unique_ptr<NCSVD>(new NCSVD(std::move(U), std::move(V), std::move(w)));
}

template <class T>
void NCSVD<T>::ZeroBelowThreshold(Vector& w, double wmax)
{
    const double threshold = std::max(wmax * 1e-16, static_cast<double>(std::numeric_limits<float>::min()));
    for (int i = 1; i <= w.Size(); ++i)
        if (static_cast<double>(w[i]) < threshold)
            w(i, T(0));
}

// ---------------------------------------------------------- ordering

template <class T>
void NCSVD<T>::Sort()
{
    if (!m_w)
        return;
    DoSort();
    m_sorted = true;
}

template <class T>
void NCSVD<T>::DoSort()
{
    Vector& w = *m_w;
    const int n = w.Size();
    // The kernel already delivers descending values, so this is one pass in
    // practice; a bubble sort keeps equal values in their order and needs
    // nothing but adjacent column exchanges.
    bool exchanged = true;
    while (exchanged) {
        exchanged = false;
        for (int k = 1; k < n; ++k) {
            if (w[k + 1] > w[k]) {
                const T larger = w[k + 1];
                w(k + 1, w[k]);
                w(k, larger);
                m_U->SwapColumns(k, k + 1);
                m_V->SwapColumns(k, k + 1);
                exchanged = true;
            }
        }
    }
    if (n > 0)
        ZeroBelowThreshold(w, static_cast<double>(w[1]));
}

template <class T>
void NCSVD<T>::RemoveZeroSingularValues()
{
    if (!m_w)
        return;
    const int n = m_w->Size();
    int kept = n;
    while (kept > 0 && !((*m_w)[kept] > T(0)))
        --kept;
    if (kept == n)
        return;
    m_w->RemoveValues(kept + 1, n);
    m_U->RemoveColumns(kept + 1, n);
    m_V->RemoveColumns(kept + 1, n);
}

// ---------------------------------------------------------- statistics

template <class T>
double NCSVD<T>::GetConditionNumber() const
{
    if (!m_w || m_w->empty())
        return -99.0;
    const Vector& w = *m_w;
    if (w[w.Size()] == T(0))
        return -99.0;
    return static_cast<double>(w[1]) / static_cast<double>(w[w.Size()]);
}

template <class T>
double NCSVD<T>::GetLogDeterminant() const
{
    if (!m_w || m_w->empty())
        return 0.0;
    const Vector& w = *m_w;
    if (w[w.Size()] == T(0))
        return 0.0;
    double sum = 0.0;
    for (int i = 1; i <= w.Size(); ++i)
        sum += std::log10(std::fabs(static_cast<double>(w[i])));
    return 2.0 * sum;
}

template <class T>
std::unique_ptr<NCDataMatrix<T>> NCSVD<T>::GetInverse(T conditionLimit) const
{
    if (!m_V || !m_U || !m_w)
        return nullptr;
    const Matrix& V = *m_V;
    const Matrix& U = *m_U;
    const Vector& w = *m_w;
    const int n = V.SizeRows();
    const int r = w.Size();
    const int m = U.SizeRows();
    assert(V.SizeColumns() == r && U.SizeColumns() == r);

    if (static_cast<double>(conditionLimit) != NoConditionLimit) {
        if (V.SizeRows() != V.SizeColumns())
            return nullptr;
        if (r > 0) {
            if (w[r] == T(0))
                return nullptr;
            if (static_cast<double>(w[1]) / static_cast<double>(w[r]) > static_cast<double>(conditionLimit))
                return nullptr;
        }
    }

    auto inverse = std::make_unique<Matrix>(n, m);
    if (n == 0 || m == 0)
        return inverse;
    std::vector<double> reciprocal(static_cast<std::size_t>(r) + 1, 0.0);
    for (int k = 1; k <= r; ++k)
        if (w[k] != T(0))
            reciprocal[k] = 1.0 / static_cast<double>(w[k]);

    std::vector<T*> rows = inverse->GetMatrixAsPointerPointer();
    std::vector<double> scaled(static_cast<std::size_t>(r) + 1, 0.0);
    for (int i = 1; i <= n; ++i) {
        const T* vi = V[i].GetVector();
        for (int k = 1; k <= r; ++k)
            scaled[k] = static_cast<double>(vi[k]) * reciprocal[k];
        for (int j = 1; j <= m; ++j) {
            const T* uj = U[j].GetVector();
            double sum = 0.0;
            for (int k = 1; k <= r; ++k)
                sum += scaled[k] * static_cast<double>(uj[k]);
            rows[i][j] = static_cast<T>(sum);
        }
    }
    inverse->RecountMissing();
    return inverse;
}

// ---------------------------------------------------------- matrix entry points

template <class T>
std::unique_ptr<NCSVD<T>> NCDataMatrix<T>::SVD(std::unique_ptr<NCDataMatrix> a, bool* ok)
{
    auto V = std::make_unique<NCDataMatrix>();
    auto w = std::make_unique<Vector>();
    const bool done = a && NCSVD<T>::Decompose(*a, *V, *w);
    return NCSVD<T>::Make(done, std::move(a), std::move(V), std::move(w), ok);
}

template <class T>
std::unique_ptr<NCSVD<T>> NCDataMatrix<T>::GetSVD(bool* ok) const
{
    return SVD(std::make_unique<NCDataMatrix>(*this), ok);
}

template <class T>
std::unique_ptr<NCSVD<T>> NCDataMatrix<T>::TransformToSVD(bool* ok)
{
    auto V = std::make_unique<NCDataMatrix>();
    auto w = std::make_unique<Vector>();
    const bool done = NCSVD<T>::Decompose(*this, *V, *w);
    // The result's U is a copy sharing this matrix's storage; the first of
    // the two to be written gets cells of its own.
    auto U = done ? std::make_unique<NCDataMatrix>(*this) : nullptr;
    return NCSVD<T>::Make(done, std::move(U), std::move(V), std::move(w), ok);
}

template class NCSVD<float>;
template class NCSVD<double>;

template std::unique_ptr<NCSVD<float>> NCDataMatrix<float>::SVD(std::unique_ptr<NCDataMatrix<float>>, bool*);
template std::unique_ptr<NCSVD<double>> NCDataMatrix<double>::SVD(std::unique_ptr<NCDataMatrix<double>>, bool*);
template std::unique_ptr<NCSVD<float>> NCDataMatrix<float>::GetSVD(bool*) const;
template std::unique_ptr<NCSVD<double>> NCDataMatrix<double>::GetSVD(bool*) const;
template std::unique_ptr<NCSVD<float>> NCDataMatrix<float>::TransformToSVD(bool*);
template std::unique_ptr<NCSVD<double>> NCDataMatrix<double>::TransformToSVD(bool*);
