// Matrix products, sums, transpose, inverse and regression coefficients:
// agreement with a plain double loop and with numpy, the -99 rule of the
// products with exact counts, and the failure paths.
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/NCError.h"

#include "containers/fixtures/MatrixAlgebraReference.inc"

#include <gmock/gmock.h>
#include "containers/MatrixChecks.h"

#include "platform/OmpTeam.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ::testing::Property;
using ::testing::StrEq;
using ::testing::Throws;
using ::testing::ThrowsMessage;

template <class T>
NCDataMatrix<T> Random(int rows, int cols, unsigned seed, double missing)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-2.0f, 2.0f);
    std::bernoulli_distribution gap(missing);
    NCDataMatrix<T> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, gap(rng) ? T(-99) : T(value(rng)));
    return m;
}

template <class T, int R, int C>
NCDataMatrix<T> FromArray(const double (&a)[R][C])
{
    NCDataMatrix<T> m(R, C);
    for (int i = 1; i <= R; ++i)
        for (int j = 1; j <= C; ++j)
            m(i, j, static_cast<T>(a[i - 1][j - 1]));
    return m;
}

template <class T, int R, int C>
void ExpectNear(const NCDataMatrix<T>& m, const double (&a)[R][C], double tol)
{
    ASSERT_EQ(m.SizeRows(), R);
    ASSERT_EQ(m.SizeColumns(), C);
    for (int i = 1; i <= R; ++i)
        for (int j = 1; j <= C; ++j)
            EXPECT_NEAR(m[i][j], a[i - 1][j - 1], tol) << i << "," << j;
}

// op(A) * op(B) over the complete pairs, in double; -99 without a pair.
template <class T>
void ExpectProduct(const NCDataMatrix<T>& got, const NCDataMatrix<T>& a, bool at, const NCDataMatrix<T>& b, bool bt)
{
    const auto A = [&](int i, int k) { return double(at ? a[k][i] : a[i][k]); };
    const auto B = [&](int k, int j) { return double(bt ? b[j][k] : b[k][j]); };
    const int inner = at ? a.SizeRows() : a.SizeColumns();
    ASSERT_EQ(got.SizeRows(), at ? a.SizeColumns() : a.SizeRows());
    ASSERT_EQ(got.SizeColumns(), bt ? b.SizeRows() : b.SizeColumns());
    const double tol = sizeof(T) == 4 ? 2e-6 : 1e-14;
    for (int i = 1; i <= got.SizeRows(); ++i)
        for (int j = 1; j <= got.SizeColumns(); ++j) {
            double sum = 0.0, scale = 1.0;
            int pairs = 0;
            for (int k = 1; k <= inner; ++k)
                if (!IsMisVal(A(i, k)) && !IsMisVal(B(k, j))) {
                    sum += A(i, k) * B(k, j);
                    scale += std::fabs(A(i, k) * B(k, j));
                    ++pairs;
                }
            if (pairs == 0)
                ASSERT_EQ(got[i][j], T(-99)) << i << "," << j;
            else
                ASSERT_NEAR(got[i][j], sum, tol * scale) << i << "," << j;
        }
    ExpectCountsExact(got);
}

template <class T>
class MatrixProducts : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixProducts, ElementTypes);

TYPED_TEST(MatrixProducts, EveryFormAgreesWithPlainLoop)
{
    using M = NCDataMatrix<TypeParam>;
    // The large shape crosses the row and column tiles and runs in parallel;
    // on the small one, half the cells missing leave cells without a pair.
    for (const auto [r, m, c] : {std::array{7, 5, 9}, std::array{37, 41, 300}})
        for (const double missing : {0.0, 0.1, 0.5}) {
            const M ab = Random<TypeParam>(r, m, 1, missing), atb = Random<TypeParam>(m, r, 2, missing);
            const M b = Random<TypeParam>(m, c, 3, missing), bt = Random<TypeParam>(c, m, 4, missing);
            M into(ab), viaProxy; // the result may be a factor
            into.MulMat(b, into);
            ab.Result(&viaProxy).MatrixMultiply(b);
            for (const M& got : {ab.MatrixMultiply(b), b.PreMultiply(ab), into, viaProxy})
                ExpectProduct(got, ab, false, b, false);
            ExpectProduct(atb.MultiplyTransposeThis(b), atb, true, b, false);
            ExpectProduct(ab.MultiplyTransposeOther(bt), ab, false, bt, true);
            ExpectProduct(atb.MultiplyTransposeBoth(bt), atb, true, bt, true);
            // The vector forms, against the product of a one-row matrix.
            const NCDataVector<TypeParam>& v = ab[1];
            NCDataVector<TypeParam> viaVector, viaMatrix;
            v.Result(&viaVector) * b;
            b.Result(&viaMatrix).PreMultiply(v);
            for (const auto& got : {b.PreMultiply(v), b.PreMultiplyMisVal(v), v * b, viaVector, viaMatrix,
                                    missing == 0.0 ? b.PreMultiplyNonMisVal(v) : viaVector}) {
                M row;
                row.push_back(got);
                ExpectProduct(row, ab.SubMat(1, 1, 1, m), false, b, false);
            }
        }
}

TYPED_TEST(MatrixProducts, MissingRuleAliasingAndThreads)
{
    using M = NCDataMatrix<TypeParam>;
    // Row 2 of a has no present cell; cell (1, 1) pairs only (1, -99) and (-99, 2).
    const M c = FromArray<TypeParam>({{1.0, -99.0}, {-99.0, -99.0}}) * FromArray<TypeParam>({{-99.0, 2.0}, {2.0, 2.0}});
    ExpectNear(c, {{-99.0, 2.0}, {-99.0, -99.0}}, 0.0);
    ExpectCountsExact(c);

    // Each cell is summed in the same order whatever the team size. Without
    // dynamic adjustment a busy machine cannot quietly give one thread.
    const OmpTeam team(1);
    for (const double missing : {0.0, 0.1}) {
        const M l = Random<TypeParam>(200, 150, 7, missing), r = Random<TypeParam>(150, 600, 8, missing);
        team.Use(1);
        const M serial = l * r;
        team.Use(2);
        const M parallel = l * r;
        for (int i = 1; i <= serial.SizeRows(); ++i)
            ASSERT_EQ(serial[i], parallel[i]) << i;
    }
}

TYPED_TEST(MatrixProducts, SumTransposeAndCrossProduct)
{
    using M = NCDataMatrix<TypeParam>;
    const M a = Random<TypeParam>(40, 37, 12, 0.1), b = Random<TypeParam>(40, 37, 13, 0.1);
    M sum = a, t = a, cross = a;
    sum.AddMat(b, sum, -0.5);
    t.Transpose();
    ASSERT_EQ(t.SizeRows(), 37);
    for (int i = 1; i <= 40; ++i)
        for (int j = 1; j <= 37; ++j) {
            const bool gap = IsMisVal(a[i][j]) || IsMisVal(b[i][j]);
            ASSERT_EQ(sum[i][j], gap ? TypeParam(-99) : static_cast<TypeParam>(a[i][j] - 0.5 * b[i][j]));
            ASSERT_EQ(t[j][i], a[i][j]);
        }
    ExpectCountsExact(sum);
    ExpectCountsExact(t);
    cross.TransformToMprim_mul_M();
    ExpectProduct(cross, a, true, a, false);
}

TYPED_TEST(MatrixProducts, SizeMismatchAndNullResult)
{
    using M = NCDataMatrix<TypeParam>;
    const M a(2, 3); // every product of a with itself is mismatched
    M out;
    const NCDataVector<TypeParam> v2(2);
    const std::string matrices = "Matrices are different size.", vectors = "Vectors are of different size.";
    const std::vector<std::tuple<std::function<void()>, std::string, std::string>> cases{
        {[&] { a.MatrixMultiply(a); }, "MatrixMultiply", matrices},
        {[&] { a.MulMat(a, out); }, "MulMat", matrices},
        {[&] { a.PreMultiply(a); }, "PreMultiply", matrices},
        {[&] { a.MultiplyTransposeThis(M(3, 3)); }, "MultiplyTransposeThis", matrices},
        {[&] { a.MultiplyTransposeOther(M(2, 2)); }, "MultiplyTransposeOther", matrices},
        {[&] { a.MultiplyTransposeBoth(a); }, "MultiplyTransposeBoth", matrices},
        {[&] { a.AddMat(M(3, 2), out); }, "AddMat", matrices},
        {[&] { a.GetRegressionCoefficients(M(1, 4)); }, "GetRegressionCoefficients", matrices},
        {[&] { a.PreMultiply(NCDataVector<TypeParam>(3)); }, "PreMultiply", vectors}};
    for (const auto& [f, member, text] : cases) {
        const std::string where = "NCDataMatrix<FloatType>::" + member;
        EXPECT_THAT(f, Throws<NCInternalError>(Property(&NCInternalError::GetWhere, where)));
        EXPECT_THAT(f, ThrowsMessage<NCInternalError>(StrEq(where + ": " + text)));
    }
    for (const std::function<void()>& f : std::vector<std::function<void()>>{
             [&] { a.Result(static_cast<M*>(nullptr)).MatrixMultiply(M(3, 1)); },
             [&] { a.Result(static_cast<NCDataVector<TypeParam>*>(nullptr)).PreMultiply(v2); },
             [&] { v2.Result(nullptr) * a; }}) {
        EXPECT_THAT(f, ThrowsMessage<NCError>(StrEq("Internal error in NCMatOpResultProxy:\npResult can not be NULL")));
        EXPECT_THAT(f, Throws<NCError>(Property(&NCError::GetLevel, NCError::Error)));
    }
}

TYPED_TEST(MatrixProducts, InverseAgreesWithNumpyAndKeepsItsEdgeRules)
{
    using M = NCDataMatrix<TypeParam>;
    const double tol = sizeof(TypeParam) == 4 ? 1e-6 : 1e-13;
    M square = FromArray<TypeParam>(mref::Square), permuted = FromArray<TypeParam>(mref::Permuted);
    ASSERT_TRUE(square.TransformToInverse());
    ASSERT_TRUE(permuted.TransformToInverse()); // needs row exchanges
    ExpectNear(square, mref::SquareInverse, tol);
    ExpectNear(permuted, mref::PermutedInverse, tol);

    // Built twice: a copy would share the cells it is meant to guard.
    const auto withZeroRow = [] {
        M m = Random<TypeParam>(3, 3, 15, 0.0);
        m.SetRow(2, NCDataVector<TypeParam>(3, TypeParam(0)));
        m(1, 1, TypeParam(-99));
        return m;
    };
    M zeroRow = withZeroRow();
    const M before = withZeroRow();
    EXPECT_FALSE(zeroRow.TransformToInverse());
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(zeroRow[i], before[i]);

    // Singular without a zero row: the tiny pivot gives a huge inverse.
    M singular = FromArray<TypeParam>({{1.0, 2.0}, {2.0, 4.0}});
    EXPECT_TRUE(singular.TransformToInverse());
    EXPECT_GT(std::fabs(double(singular[1][1])), 1e15);
    EXPECT_GT(std::fabs(double(singular[2][2])), 1e15);
}

TYPED_TEST(MatrixProducts, RegressionCoefficientsAgreeWithLstsq)
{
    using M = NCDataMatrix<TypeParam>;
    const M x = FromArray<TypeParam>(mref::X), y = FromArray<TypeParam>(mref::Y);
    ExpectNear(x.GetRegressionCoefficients(y), mref::Coefficients, sizeof(TypeParam) == 4 ? 2e-5 : 1e-12);

    // A single -99 anywhere in X or Y is refused.
    for (const bool inX : {true, false}) {
        M xm(x), ym(y);
        (inX ? xm : ym)(2, 17, TypeParam(-99));
        EXPECT_THAT([&] { xm.GetRegressionCoefficients(ym); },
                    Throws<NCInternalError>(Property(&NCInternalError::GetWhere,
                                                     "NCDataMatrix<FloatType>::GetRegressionCoefficients")));
    }
    // A regressor of zeros makes X X' singular; that is not reported.
    M degenerate(x);
    degenerate.SetRow(3, NCDataVector<TypeParam>(x.SizeColumns(), TypeParam(0)));
    EXPECT_NO_THROW(degenerate.GetRegressionCoefficients(y));
}

} // namespace
