#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using IndexList = NCIntegralVector<int, -99>;
constexpr float M = -99.0f;


Matrix FromRows(std::initializer_list<std::initializer_list<float>> rows)
{
    Matrix m;
    for (const auto& r : rows)
        m.push_back(Vector(r));
    return m;
}

template <class F>
void ExpectInternalError(F f, const std::string& where)
{
    try {
        f();
        FAIL() << "no exception";
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), where);
    }
}

TEST(Matrix, ConstructionFillAndCounts)
{
    Matrix missing(3, 4, M);
    EXPECT_EQ(missing.GetNumMisVal(), 12);
    for (int j = 1; j <= 4; ++j)
        EXPECT_EQ(missing.GetColumnMisVal(j), 3);
    ExpectCountsExact(missing);

    Matrix m(2, 3, 1.5f);
    EXPECT_EQ(m.GetNumMisVal(), 0);
    EXPECT_EQ(m[2][3], 1.5f);
    m(1, 2, M);
    EXPECT_EQ(m.GetNumMisVal(), 1);
    EXPECT_EQ(m.GetColumnMisVal(2), 1);
    EXPECT_EQ(m[1].GetNumMisVal(), 1);
    m(1, 2, 4.0f);
    EXPECT_EQ(m.GetNumMisVal(), 0);
    EXPECT_EQ(m.GetColumnMisVal(2), 0);
    EXPECT_EQ(m[1].GetNumMisVal(), 0);

    NCDataMatrix<double> d(2, 2, -99.0);
    d(1, 1, 0.5);
    d.ConcatColumns(NCDataMatrix<double>(2, 1, 1.0));
    EXPECT_EQ(d.GetNumMisVal(), 3);
    ExpectCountsExact(d);

    Matrix empty;
    EXPECT_EQ(empty.SizeRows(), 0);
    EXPECT_EQ(empty.begin(), empty.end());
    EXPECT_THROW(Matrix(-1, 2), NCInternalError);
}

TEST(Matrix, CopiesAreIndependent)
{
    Matrix a = FromRows({{1, 2}, {3, M}});
    Matrix b(a);
    b(1, 1, M);
    b(2, 2, 7.0f);
    EXPECT_EQ(a[1][1], 1.0f);
    EXPECT_EQ(a[2][2], M);
    ExpectCountsExact(a);
    ExpectCountsExact(b);

    // Row views and structural changes of a copy leave the original too.
    Matrix c = a;
    c(1) += Vector{1.0f, 1.0f};
    c.RemoveRows(2, 2);
    c.InsertColumn(1, Vector{9.0f});
    EXPECT_EQ(a.SizeRows(), 2);
    EXPECT_EQ(a[1][1], 1.0f);
    EXPECT_EQ(c[1][2], 2.0f);

    Matrix moved(std::move(c));
    EXPECT_EQ(moved.SizeColumns(), 3);
    Matrix assigned;
    assigned = moved;
    assigned = assigned;
    EXPECT_EQ(assigned[1][1], 9.0f);
}

TEST(Matrix, CopiesOnOtherThreads)
{
    Matrix source(64, 16, 1.0f);
    std::vector<std::thread> threads;
    std::vector<Matrix> copies(4, source);
    for (int k = 0; k < 4; ++k)
        threads.emplace_back([&copies, k] {
            for (int i = 1; i <= 64; ++i)
                copies[k](i, 1 + k, M);
            copies[k](1) *= 2.0;
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(source.GetNumMisVal(), 0);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(copies[k].GetColumnMisVal(1 + k), 64);
        ExpectCountsExact(copies[k]);
    }
}

TEST(Matrix, RowViewOperationsKeepCounts)
{
    Matrix m = FromRows({{1, 2, 3}, {4, 5, 6}});
    m(1) += Vector{1, M, 1};
    EXPECT_EQ(m.GetColumnMisVal(2), 1);
    EXPECT_EQ(m.GetNumMisVal(), 1);
    m(1) = Vector{M, 1, M};
    EXPECT_EQ(m.GetColumnMisVal(1), 1);
    EXPECT_EQ(m.GetColumnMisVal(2), 0);
    EXPECT_EQ(m.GetNumMisVal(), 2);
    m(2) = m(1);
    EXPECT_EQ(m.GetNumMisVal(), 4);
    double mean = 0;
    m(2).DetrendMean(mean);
    EXPECT_EQ(m[2][2], 0.0f);
    m(1).TransformTo_Sub_d_x_Vt(2.0, Vector{1, 1, 1});
    EXPECT_EQ(m[1][2], -1.0f);
    m(1).Abs();
    m(1) *= 3.0;
    EXPECT_EQ(m[1][2], 3.0f);
    ExpectCountsExact(m);

    // A throwing row operation leaves every count exact.
    EXPECT_THROW(m(1) += (Vector{1, 2}), NCInternalError);
    EXPECT_THROW(m(1) = (Vector{1, 2}), NCInternalError);
    ExpectCountsExact(m);
}

TEST(Matrix, RandomOperationSequencesKeepCountsExact)
{
    std::mt19937 rng(7);
    auto value = [&] { return std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? M : float(rng() % 10); };
    auto vec = [&](int n) {
        Vector v(n);
        for (int k = 1; k <= n; ++k)
            v(k, value());
        return v;
    };
    Matrix m(5, 4, 0.0f);
    for (int step = 0; step < 3000; ++step) {
        const int r = m.SizeRows(), c = m.SizeColumns();
        auto row = [&] { return 1 + int(rng() % r); };
        auto col = [&] { return 1 + int(rng() % c); };
        switch (rng() % 16) {
        case 0: case 1: case 2: m(row(), col(), value()); break;
        case 3: m(row()) += vec(c); break;
        case 4: m(row()) = vec(c); break;
        case 5: if (r < 12) m.InsertRow(1 + int(rng() % (r + 1)), vec(c)); break;
        case 6: if (r > 2) { int a = row(); m.RemoveRows(a, std::min(r, a + 1)); } break;
        case 7: if (c < 8) m.InsertColumn(1 + int(rng() % (c + 1)), vec(r)); break;
        case 8: if (c > 2) m.RemoveColumns(IndexList{col()}); break;
        case 9: m.SwapRows(row(), row()); m.SwapColumns(col(), col()); break;
        case 10: m.SetColumn(col(), vec(r)); break;
        case 11: if (r < 10) m.InsertRows(1, 2, value()); break;
        case 12: if (c < 8) m.InsertColumns(c + 1, 1, value()); break;
        case 13: m.AddVprimV(vec(r), vec(c), -0.5); break;
        case 14: { Matrix copy(m); copy(row(), col(), M); m.ConcatRows(copy.SubMat(1, 1, 1, c)); if (m.SizeRows() > 12) m.RemoveRows(1, 2); } break;
        case 15: { IndexList order; for (int j = c; j >= 1; --j) order.push_back(j); m.RearrangeColumns(order); } break;
        }
        ExpectCountsExact(m);
        if (HasFailure())
            FAIL() << "after step " << step;
    }
}

TEST(Matrix, ResizeInsertRemoveRearrange)
{
    Matrix m = FromRows({{1, 2, 3}, {4, M, 6}});
    m.Resize(3, 4, M);
    EXPECT_EQ(m[3][1], M);
    EXPECT_EQ(m[1][4], M);
    EXPECT_EQ(m[2][2], M);
    EXPECT_EQ(m.GetNumMisVal(), 1 + 4 + 2);
    m.SetSize(2, 2);
    EXPECT_EQ(m.GetNumMisVal(), 1);
    ExpectCountsExact(m);

    Matrix n = FromRows({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    n.RemoveRows(IndexList{3, 1, 3});
    ASSERT_EQ(n.SizeRows(), 1);
    EXPECT_EQ(n[1][1], 4.0f);
    n.InsertRows(1, FromRows({{M, 0, 0}}));
    n.InsertRows(3, n);
    EXPECT_EQ(n.SizeRows(), 4);
    EXPECT_EQ(n[3][1], M);
    EXPECT_EQ(n.GetColumnMisVal(1), 2);
    n.RearrangeColumns(IndexList{3, 1, 1});
    EXPECT_EQ(n[2][1], 6.0f);
    EXPECT_EQ(n[2][3], 4.0f);
    EXPECT_EQ(n.GetColumnMisVal(3), 2);
    n.RemoveColumns(1, 2);
    EXPECT_EQ(n.SizeColumns(), 1);
    ExpectCountsExact(n);

    Matrix sub = FromRows({{1, 2, 3}, {4, M, 6}}).SubMat(2, 2, 2, 3);
    EXPECT_EQ(sub.SizeRows(), 1);
    EXPECT_EQ(sub.GetNumMisVal(), 1);
    EXPECT_EQ(FromRows({{1, 2}}).SubMat(1, 0, 1, 2).SizeRows(), 0);
    Matrix picked = FromRows({{1, 2}, {3, M}}).GetRowSubMatrix(IndexList{2, 2});
    EXPECT_EQ(picked.GetNumMisVal(), 2);

    std::vector<float*> rows = picked.GetMatrixAsPointerPointer();
    rows[1][2] = 5.0f;
    rows[2][1] = M;
    picked.RecountMissing();
    ExpectCountsExact(picked);
    EXPECT_EQ(picked.GetColumnMisVal(1), 1);
}

TEST(Matrix, ConcatenationEdges)
{
    Matrix a = FromRows({{1, 2}});
    a.ConcatRows(Matrix(0, 5));
    EXPECT_EQ(a.SizeRows(), 1);
    Matrix empty;
    empty.ConcatRows(FromRows({{M, 1}}));
    EXPECT_EQ(empty.GetNumMisVal(), 1);
    a.ConcatRows(FromRows({{M, 4}}));
    EXPECT_EQ(a.SizeRows(), 2);
    EXPECT_EQ(a.GetColumnMisVal(1), 1);
    ExpectInternalError([&] { a.ConcatRows(FromRows({{1, 2, 3}})); }, "NCDataMatrix<FloatType>::ConcatRows");
    a.ConcatColumns(FromRows({{5}, {M}}));
    EXPECT_EQ(a.SizeColumns(), 3);
    EXPECT_EQ(a.GetNumMisVal(), 2);
    ExpectInternalError([&] { a.ConcatColumns(FromRows({{5}})); }, "NCDataMatrix<FloatType>::ConcatColumns");
    ExpectCountsExact(a);
}

TEST(Matrix, BadIndicesAndSizesThrow)
{
    Matrix m(2, 2);
    ExpectInternalError([&] { m.GetColumn(3); }, "NCDataMatrix<FloatType>::GetColumn");
    ExpectInternalError([&] { m.SetColumn(1, Vector(3)); }, "NCDataMatrix<FloatType>::SetColumn");
    ExpectInternalError([&] { m.SetRow(1, Vector(3)); }, "NCDataMatrix<FloatType>::SetRow");
    ExpectInternalError([&] { m.InsertRow(4, Vector(2)); }, "NCDataMatrix<FloatType>::InsertRow");
    ExpectInternalError([&] { m.RemoveRows(2, 3); }, "NCDataMatrix<FloatType>::RemoveRows");
    ExpectInternalError([&] { m.RemoveColumns(IndexList{0}); }, "NCDataMatrix<FloatType>::RemoveColumns");
    ExpectInternalError([&] { m.RearrangeColumns(IndexList{3}); }, "NCDataMatrix<FloatType>::RearrangeColumns");
    ExpectInternalError([&] { m.SubMat(1, 3, 1, 1); }, "NCDataMatrix<FloatType>::SubMat");
    ExpectInternalError([&] { m.push_back(Vector(1)); }, "NCDataMatrix<FloatType>::InsertRow");
}

// The column statistics hand the column to the vector rule; what is the
// matrix's own is picking the column, the whole-matrix sums and capability.
TEST(Matrix, ColumnAndMatrixStatistics)
{
    Matrix m = FromRows({{1, M, 2}, {2, M, 2}, {6, 5, 2}});
    EXPECT_DOUBLE_EQ(m.GetColumnMean(1), 3.0);
    EXPECT_DOUBLE_EQ(m.GetColumnSS(1, 3.0), 14.0);
    EXPECT_EQ(m.GetColumnStdDev(2), -99.0); // one value
    float lo = 0, hi = 0;
    m.GetRowMinMax(1, lo, hi);
    EXPECT_EQ(hi, 2.0f);
    EXPECT_DOUBLE_EQ(m.GetMean(), 20.0 / 7.0);
    EXPECT_DOUBLE_EQ(m.GetSS(), 1 + 4 + 4 + 4 + 36 + 25 + 4);
    EXPECT_DOUBLE_EQ(m.GetSSAroundColumnMeans(), 14.0);
    EXPECT_EQ(Matrix(2, 2, M).GetSS(), -99.0);
    EXPECT_EQ(Matrix(2, 2, M).GetMean(), -99.0);

    // Capability: s = sqrt(7) for column 1, mean 3.
    const double s = std::sqrt(7.0);
    EXPECT_NEAR(m.GetColumnCp(1, 0.0, 12.0), 12.0 / (6 * s), 1e-12);
    EXPECT_NEAR(m.GetColumnCpk(1, 0.0, 12.0), 3.0 / (3 * s), 1e-12);
    EXPECT_EQ(m.GetColumnCp(1, 5.0, 5.0), -99.0);
    EXPECT_EQ(m.GetColumnCpk(3, 0.0, 5.0), -99.0);

    Matrix corr = FromRows({{1, 2, 5}, {2, 4, 1}, {3, 6, 3}}).GetColumnCorrelation();
    EXPECT_NEAR(corr[2][1], 1.0, 1e-6);
    EXPECT_NEAR(corr[1][3], -0.5, 1e-6);
}

// Reference: scipy.stats.gaussian_kde([1, 2, 4, 7]) (Scott's factor) at
// 0, 3 and 8, from tests/reference/matrix_density.py.
TEST(Matrix, DensityAgreesWithScipy)
{
    Matrix m = FromRows({{1}, {2}, {M}, {4}, {7}});
    const Vector d = m.GetDensity(1, Vector{0.0f, 3.0f, 8.0f, M});
    EXPECT_NEAR(d[1], 0.08108294, 1e-6);
    EXPECT_NEAR(d[2], 0.12489473, 1e-6);
    EXPECT_NEAR(d[3], 0.05140215, 1e-6);
    EXPECT_EQ(d[4], M);
    EXPECT_EQ(d.GetNumMisVal(), 1);
    EXPECT_EQ(FromRows({{1}, {1}}).GetDensity(1, Vector{1.0f})[1], M);
}

TEST(Matrix, ViewsAndResultProxies)
{
    Matrix m = FromRows({{1, 2, 3}, {4, 5, M}});
    NCDataMatrixPrim<float> t = m.prim();
    EXPECT_EQ(t.SizeRows(), 3);
    EXPECT_EQ(t.SizeColumns(), 2);
    EXPECT_EQ(t[2][1], 2.0f);
    EXPECT_EQ(t[3].GetNumMisVal(), 1);
    EXPECT_EQ(&t.prim(), &m);

    Vector target(7, 1.0f);
    Vector shared(target);
    m.Result(&target).GetColumn(3);
    EXPECT_EQ(target.Size(), 2);
    EXPECT_EQ(target.GetNumMisVal(), 1);
    EXPECT_EQ(shared.Size(), 7); // unlinked before writing

    try {
        m.Result(static_cast<Vector*>(nullptr)).GetColumn(1);
        FAIL();
    } catch (const NCError& e) {
        EXPECT_EQ(e.GetLevel(), NCError::Error);
        EXPECT_NE(std::string(e.what()).find("pResult can not be NULL"), std::string::npos);
    }
    EXPECT_THROW(m.Result(static_cast<Matrix*>(nullptr)).SNV(), NCError);
}

} // namespace
