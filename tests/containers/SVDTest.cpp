// The decomposition's invariants (A = U diag(w) V', orthonormal columns), the
// zero threshold, the inverse's condition rules, truncation and sorting;
// singular values and pseudo-inverses against numpy.
#include "veltancmat/containers/NCSVD.h"

#include "containers/fixtures/SVDReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

template <class T>
NCDataMatrix<T> Make(int rows, int cols, const double* cells)
{
    NCDataMatrix<T> a(rows, cols);
    for (int c = 0; c < rows * cols; ++c)
        a(c / cols + 1, c % cols + 1, static_cast<T>(cells[c]));
    return a;
}

template <class T>
NCDataMatrix<T> Diagonal(const std::vector<double>& d)
{
    NCDataMatrix<T> a(static_cast<int>(d.size()), static_cast<int>(d.size()));
    for (int i = 1; i <= a.SizeRows(); ++i)
        a(i, i, static_cast<T>(d[i - 1]));
    return a;
}

template <class T>
constexpr double Tol = std::is_same_v<T, float> ? 3e-6 : 1e-13;

// Reconstruction, V'V = I, and U'U = I over the columns whose w is not 0.
template <class T>
void ExpectDecomposes(const NCDataMatrix<T>& a, const NCSVD<T>& svd, const std::string& label)
{
    SCOPED_TRACE(label);
    ASSERT_EQ(svd.GetStatus(), NCSVD<T>::Succeeded);
    const NCDataMatrix<T>&U = *svd.GetU(), &V = *svd.GetV();
    const NCDataVector<T>& w = *svd.GetW();
    const int m = a.SizeRows(), n = a.SizeColumns(), r = w.Size();
    ASSERT_TRUE(U.SizeRows() == m && U.SizeColumns() == r && V.SizeRows() == n && V.SizeColumns() == r);
    EXPECT_EQ(U.GetNumMisVal() + V.GetNumMisVal() + w.GetNumMisVal(), 0);
    const double tol = 10 * std::max(m, n) * Tol<T> * (r > 0 ? std::max(1.0, double(w[1])) : 1.0);
    for (int i = 1; i <= m; ++i)
        for (int j = 1; j <= n; ++j) {
            double sum = 0.0;
            for (int k = 1; k <= r; ++k)
                sum += double(U[i][k]) * w[k] * V[j][k];
            ASSERT_NEAR(sum, a[i][j], tol) << "cell " << i << "," << j;
        }
    for (int p = 1; p <= r; ++p)
        for (int q = p; q <= r; ++q) {
            double vv = 0.0, uu = 0.0;
            for (int i = 1; i <= n; ++i)
                vv += double(V[i][p]) * V[i][q];
            for (int i = 1; i <= m; ++i)
                uu += double(U[i][p]) * U[i][q];
            ASSERT_NEAR(vv, p == q, tol) << "V columns " << p << "," << q;
            ASSERT_TRUE(w[p] == 0 || w[q] == 0 || std::fabs(uu - (p == q)) < tol) << "U " << p << "," << q;
        }
}

template <class T>
void ExpectMatrix(const NCDataMatrix<T>* got, int rows, int cols, const double* want, double tol)
{
    ASSERT_TRUE(got && got->SizeRows() == rows && got->SizeColumns() == cols);
    for (int c = 0; c < rows * cols; ++c)
        EXPECT_NEAR((*got)[c / cols + 1][c % cols + 1], want[c], tol) << "cell " << c;
}

} // namespace

template <class T>
class SVDTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SVDTest, ElementTypes);

TYPED_TEST(SVDTest, MatchesNumpyAndDecomposesLargerMatrices)
{
    using T = TypeParam;
    using namespace svdref;
    struct Case { const char* name; int rows, cols; const double *a, *w, *pinv; };
    for (const Case& c : {Case{"tall", TallRows, TallCols, Tall, TallW, TallPinv},
                          Case{"wide", WideRows, WideCols, Wide, WideW, WidePinv},
                          Case{"square", SquareRows, SquareCols, Square, SquareW, SquarePinv},
                          Case{"rank two", RankTwoRows, RankTwoCols, RankTwo, RankTwoW, nullptr}}) {
        const NCDataMatrix<T> a = Make<T>(c.rows, c.cols, c.a);
        NCDataMatrix<T> b = a;
        bool ok = false, okInPlace = false;
        const auto svd = a.GetSVD(&ok), inPlace = b.TransformToSVD(&okInPlace);
        EXPECT_TRUE(ok && okInPlace && a[1][1] == T(c.a[0])) << c.name;
        ExpectDecomposes(a, *inPlace, c.name);
        for (int i = 1; i <= c.rows; ++i) // b became U; a wide U has zero columns beside zero values
            EXPECT_TRUE(b[i] == (*inPlace->GetU())[i] && (c.rows >= c.cols || b[i][c.cols] == 0)) << c.name;
        for (int k = 1; k <= c.cols; ++k)
            EXPECT_NEAR((*svd->GetW())[k], c.w[k - 1], 10 * Tol<T> * c.w[0]) << c.name << " w" << k;
        if (c.pinv)
            ExpectMatrix(svd->GetInverse(T(-99)).get(), c.cols, c.rows, c.pinv, 200 * Tol<T>);
        if (c.a == Square) {
            EXPECT_NEAR(svd->GetLogDeterminant(), SquareLog10DetAtA, 100 * Tol<T>);
        }
    }

    // From 16 columns on the kernel divides and conquers instead of rotating.
    unsigned state = 12345u;
    for (auto [rows, cols] : {std::pair{40, 25}, std::pair{25, 40}, std::pair{30, 30}}) {
        std::vector<double> cells(static_cast<std::size_t>(rows * cols));
        for (double& x : cells)
            x = double((state = state * 1664525u + 1013904223u) >> 8) / (1 << 24) * 8.0 - 4.0;
        const auto a = Make<T>(rows, cols, cells.data());
        ExpectDecomposes(a, *a.GetSVD(), std::to_string(rows) + "x" + std::to_string(cols));
    }
}

TYPED_TEST(SVDTest, RefusesMissingOrNonFiniteCells)
{
    using T = TypeParam;
    const NCDataMatrix<T> original = Make<T>(svdref::TallRows, svdref::TallCols, svdref::Tall);
    for (T bad : {T(-99), std::numeric_limits<T>::quiet_NaN(), -std::numeric_limits<T>::infinity()}) {
        NCDataMatrix<T> b = original;
        b(2, 3, bad);
        bool ok = true;
        const auto svd = b.TransformToSVD(&ok);
        EXPECT_TRUE(!ok && svd->GetStatus() == NCSVD<T>::Failed && b.GetSVD()->GetStatus() == NCSVD<T>::Failed);
        EXPECT_TRUE(!svd->GetU() && !svd->GetV() && !svd->GetW() && !svd->GetInverse(T(-99)));
        EXPECT_TRUE(svd->GetConditionNumber() == -99.0 && svd->GetLogDeterminant() == 0.0);
        EXPECT_TRUE(b[1] == original[1] && b[2][4] == original[2][4]) << "a refused matrix stays as it was";
    }
}

TYPED_TEST(SVDTest, ZeroThresholdConditionLimitsAndTruncation)
{
    using T = TypeParam;
    const auto zero = NCDataMatrix<T>(3, 2).GetSVD();
    EXPECT_TRUE((*zero->GetW())[1] == 0 && (*zero->GetW())[2] == 0 && !zero->GetInverse(T(1000)));
    EXPECT_TRUE(zero->GetConditionNumber() == -99.0 && zero->GetLogDeterminant() == 0.0);
    const double zeros[6] = {};
    ExpectMatrix(zero->GetInverse(T(-99)).get(), 2, 3, zeros, 0.0);

    const auto tiny = Diagonal<T>({1.0, 1e-18}).GetSVD();
    EXPECT_TRUE((*tiny->GetW())[1] == 1 && (*tiny->GetW())[2] == 0);

    const auto cond = Diagonal<T>({1.0, 2000.0}).GetSVD();
    EXPECT_NEAR(cond->GetConditionNumber(), 2000.0, 2000 * Tol<T>);
    EXPECT_NEAR(cond->GetLogDeterminant(), 2 * std::log10(2000.0), Tol<T>);
    EXPECT_TRUE(!cond->GetInverse(T(1000)) && cond->GetInverse(T(3000)));
    const double inverse[4] = {1.0, 0.0, 0.0, 1.0 / 2000.0};
    ExpectMatrix(cond->GetInverse(T(-99)).get(), 2, 2, inverse, Tol<T>);

    const NCDataMatrix<T> a = Diagonal<T>({0.0, 3.0, 0.0, 1.0});
    auto svd = a.GetSVD();
    const NCSVD<T> full = *svd;
    svd->RemoveZeroSingularValues();
    ASSERT_EQ(svd->GetW()->Size(), 2);
    EXPECT_TRUE((*svd->GetW())[1] == 3 && (*svd->GetW())[2] == 1);
    ExpectDecomposes(a, *svd, "truncated");
    EXPECT_EQ(svd->GetInverse(T(1000)), nullptr) << "V is no longer square";
    const double pinv[16] = {0, 0, 0, 0, 0, 1.0 / 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    ExpectMatrix(svd->GetInverse(T(-99)).get(), 4, 4, pinv, Tol<T>);
    ExpectDecomposes(a, full, "a copy keeps its own parts");
}

TYPED_TEST(SVDTest, SortRestoresDescendingOrderWithMatchingColumns)
{
    using T = TypeParam;
    const auto a = Make<T>(svdref::TallRows, svdref::TallCols, svdref::Tall);
    auto svd = a.GetSVD();
    // The kernel's values come out descending: reverse them by hand, with
    // their columns, so that the sort has to exchange.
    auto& w = const_cast<NCDataVector<T>&>(*svd->GetW());
    for (int k = 1; k <= 2; ++k) {
        const T wk = w[k];
        w(k, w[5 - k]);
        w(5 - k, wk);
        const_cast<NCDataMatrix<T>*>(svd->GetU())->SwapColumns(k, 5 - k);
        const_cast<NCDataMatrix<T>*>(svd->GetV())->SwapColumns(k, 5 - k);
    }
    NCSVD<T> copy(*svd);
    copy = *svd;
    copy.Sort();
    EXPECT_TRUE(copy.IsSorted() && !svd->IsSorted());
    for (int k = 1; k <= 4; ++k)
        EXPECT_NEAR((*copy.GetW())[k], svdref::TallW[k - 1], 10 * Tol<T> * svdref::TallW[0]);
    ExpectDecomposes(a, copy, "sorted");
    EXPECT_LT((*svd->GetW())[1], (*svd->GetW())[4]) << "sorting a copy leaves the original";
}
