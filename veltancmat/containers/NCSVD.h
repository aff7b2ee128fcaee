#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <memory>

// The thin singular value decomposition A = U * diag(w) * V' of an m x n
// data matrix (T = float or double): U is m x n, V is n x n with one right
// singular vector per column, w holds the n singular values.
//
// Only the matrix makes one (NCDataMatrix::GetSVD, TransformToSVD), and U is
// the decomposed matrix itself. A decomposition that fails is not thrown: the
// object reports status Failed and holds no parts. The parts carry no missing
// values.
//
// Singular values below max(wmax * 1e-16, smallest normal float) are stored
// as exactly 0, so that "is this value zero" is a plain test for every user
// of the decomposition, in both precisions.
//
// Copies own their parts; the containers themselves share storage until
// written, so copying is cheap and a copy never changes the original.
template <class T>
class VELTANCMAT_API NCSVD {
public:
    using Matrix = NCDataMatrix<T>;
    using Vector = NCDataVector<T>;

    enum Status : int {
        Succeeded = 0,
        Failed = 2, // no parts: the kernel did not converge, or the input had missing or non-finite cells
    };

    NCSVD(const NCSVD& other);
    NCSVD(NCSVD&& other) noexcept;
    NCSVD& operator=(const NCSVD& other);
    NCSVD& operator=(NCSVD&& other) noexcept;
    virtual ~NCSVD();

    Status GetStatus() const { return m_status; }
    // The parts; null after a failure.
    const Matrix* GetU() const { return m_U.get(); }
    const Matrix* GetV() const { return m_V.get(); }
    const Vector* GetW() const { return m_w.get(); }

    // Puts w in descending order, exchanging the matching columns of U and V,
    // then zeroes the values that have fallen below the threshold of w[1].
    void Sort();
    // Whether Sort has run; a fresh decomposition reports false even though
    // its values come out descending.
    bool IsSorted() const { return m_sorted; }

    // w[1] / w[n]; -99 without w or when w[n] is 0.
    double GetConditionNumber() const;
    // 2 * sum log10 |w[i]|, the base-10 logarithm of det(A'A); 0 without w
    // or when w[n] is 0.
    double GetLogDeterminant() const;
    // The pseudo-inverse V * diag(1/w) * U' (n x m). With any limit but -99
    // it is refused (null) when V is not square, w[n] is 0 or w[1] / w[n]
    // exceeds the limit. Under -99 zero singular values are left out of the
    // sum, which gives the Moore-Penrose inverse of a rank-deficient matrix
    // rather than infinities. Null also after a failed decomposition.
    std::unique_ptr<Matrix> GetInverse(T conditionLimit) const;
    // Drops the trailing singular values that are not positive, with their
    // columns of U and V.
    void RemoveZeroSingularValues();

private:
    friend class NCDataMatrix<T>;

    // A failed decomposition.
    NCSVD() = default;
    NCSVD(std::unique_ptr<Matrix> U, std::unique_ptr<Matrix> V, std::unique_ptr<Vector> w);

    // Decomposes `a` in place (it becomes U) and fills V and w; false, with
    // `a` untouched, when the decomposition cannot be made.
    static bool Decompose(Matrix& a, Matrix& V, Vector& w);
    // The result object for the matrix's entry points; reports `done`
    // through `ok` when given.
    static std::unique_ptr<NCSVD> Make(bool done, std::unique_ptr<Matrix> U, std::unique_ptr<Matrix> V,
                                       std::unique_ptr<Vector> w, bool* ok);
    // The bubble sort behind Sort.
    void DoSort();
    // Sets the values below max(wmax * 1e-16, smallest normal float) to 0.
    static void ZeroBelowThreshold(Vector& w, double wmax);

    std::unique_ptr<Matrix> m_V;
    std::unique_ptr<Vector> m_w;
    std::unique_ptr<Matrix> m_U;
    Status m_status = Failed;
    bool m_sorted = false;
};

extern template class NCSVD<float>;
extern template class NCSVD<double>;
