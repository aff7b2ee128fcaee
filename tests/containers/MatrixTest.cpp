#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <thread>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using IndexList = NCIntegralVector<int, -99>;
using Rows = std::initializer_list<std::initializer_list<float>>;
constexpr float M = -99.0f;

Matrix FromRows(Rows rows)
{
    Matrix m;
    for (const auto& r : rows)
        m.push_back(Vector(r));
    return m;
}

// Exactly these cells, with every count agreeing with them.
::testing::AssertionResult Holds(const Matrix& m, Rows rows)
{
    ExpectCountsExact(m);
    if (SameCells(m, FromRows(rows)))
        return ::testing::AssertionSuccess();
    ::testing::AssertionResult failure = ::testing::AssertionFailure() << "cells:";
    for (int i = 1; i <= m.SizeRows(); ++i)
        failure << ' ' << ::testing::PrintToString(std::vector<float>(m[i].begin(), m[i].end()));
    return failure;
}

// The member named in the error, without the class prefix.
template <class F>
void ExpectInternalError(F f, const std::string& member)
{
    try {
        f();
        ADD_FAILURE() << "no exception from " << member;
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), "NCDataMatrix<FloatType>::" + member);
    }
}

TEST(Matrix, ConstructionCopiesAndCounts)
{
    EXPECT_TRUE(Holds(Matrix(3, 4, M), {{M, M, M, M}, {M, M, M, M}, {M, M, M, M}}));
    Matrix m(2, 3, 1.5f);
    m(1, 2, M);
    EXPECT_TRUE(Holds(m, {{1.5f, M, 1.5f}, {1.5f, 1.5f, 1.5f}}));
    m(1, 2, 4.0f);
    EXPECT_TRUE(Holds(m, {{1.5f, 4, 1.5f}, {1.5f, 1.5f, 1.5f}}));
    NCDataMatrix<double> d(2, 2, -99.0);
    d(1, 1, 0.5);
    d.ConcatColumns(NCDataMatrix<double>(2, 1, 1.0));
    EXPECT_EQ(d.GetNumMisVal(), 3);
    ExpectCountsExact(d);
    Matrix empty;
    EXPECT_TRUE(empty.SizeRows() == 0 && empty.begin() == empty.end());
    EXPECT_THROW(Matrix(-1, 2), NCInternalError);
    // Copies are independent of their source.
    Matrix a = FromRows({{1, 2}, {3, M}});
    Matrix b(a);
    b(1, 1, M);
    b(2, 2, 7.0f);
    EXPECT_TRUE(Holds(b, {{M, 2}, {3, 7}}));
    // Row views and structural changes of a copy leave the original too.
    Matrix c = a;
    c(1) += Vector{1.0f, 1.0f};
    c.RemoveRows(2, 2);
    c.InsertColumn(1, Vector{9.0f});
    EXPECT_TRUE(Holds(a, {{1, 2}, {3, M}}));
    EXPECT_TRUE(Holds(c, {{9, 2, 3}}));
    Matrix moved(std::move(c));
    Matrix assigned;
    assigned = moved;
    assigned = assigned;
    EXPECT_TRUE(Holds(assigned, {{9, 2, 3}}));
}

// A matrix grown by push_back has room for more rows; a copy shares that
// array, and the copy's next push_back unlinks it. The unlinked array holds
// only the rows in use, so the copy must grow it rather than write past it
// (the OPLS model copies its component matrices this way between components).
TEST(Matrix, PushBackOnACopyWithSpareRoom)
{
    Matrix grown(0, 3);
    for (int r = 1; r <= 3; ++r)
        grown.push_back(Vector(3, static_cast<float>(r)));
    for (int round = 0; round < 4; ++round) {
        Matrix copy = grown;
        copy.push_back(Vector(3, 9.0f));
        copy.push_back(Vector(3, -99.0f));
        ASSERT_EQ(copy.SizeRows(), grown.SizeRows() + 2);
        EXPECT_EQ(copy[copy.SizeRows() - 1][2], 9.0f);
        EXPECT_EQ(copy.GetColumnMisVal(1), grown.GetColumnMisVal(1) + 1);
        EXPECT_EQ(grown[grown.SizeRows()][1], grown.SizeRows() <= 3 ? static_cast<float>(grown.SizeRows()) : 7.0f);
        grown.push_back(Vector(3, 7.0f));
    }
}

TEST(Matrix, CopiesOnOtherThreads)
{
    Matrix source(64, 16, 1.0f);
    std::vector<Matrix> copies(4, source);
    std::vector<std::thread> threads;
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
    EXPECT_TRUE(Holds(m, {{2, M, 4}, {4, 5, 6}}));
    m(1) = Vector{M, 1, M};
    EXPECT_TRUE(Holds(m, {{M, 1, M}, {4, 5, 6}}));
    m(2) = m(1);
    double mean = 0;
    m(2).DetrendMean(mean);
    m(1).TransformTo_Sub_d_x_Vt(2.0, Vector{1, 1, 1});
    EXPECT_TRUE(Holds(m, {{M, -1, M}, {M, 0, M}}));
    m(1).Abs();
    m(1) *= 3.0;
    EXPECT_TRUE(Holds(m, {{M, 3, M}, {M, 0, M}}));
    // A throwing row operation leaves every count exact.
    EXPECT_THROW(m(1) += (Vector{1, 2}), NCInternalError);
    EXPECT_THROW(m(1) = (Vector{1, 2}), NCInternalError);
    ExpectCountsExact(m);
}

TEST(Matrix, RandomOperationSequencesKeepCountsExact)
{
    std::mt19937 rng(7);
    auto value = [&] { return std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? M : float(rng() % 10); };
    auto vec = [&](int n) { Vector v(n); for (int k = 1; k <= n; ++k) v(k, value()); return v; };
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
        case 14: {
            Matrix copy(m);
            copy(row(), col(), M);
            m.ConcatRows(copy.SubMat(1, 1, 1, c));
            if (m.SizeRows() > 12)
                m.RemoveRows(1, 2);
        } break;
        case 15: { IndexList order; for (int j = c; j >= 1; --j) order.push_back(j); m.RearrangeColumns(order); } break;
        }
        ExpectCountsExact(m);
        ASSERT_FALSE(HasFailure()) << "after step " << step;
    }
}

TEST(Matrix, StructuralEditsAndBadIndices)
{
    Matrix m = FromRows({{1, 2, 3}, {4, M, 6}});
    m.Resize(3, 4, M);
    EXPECT_TRUE(Holds(m, {{1, 2, 3, M}, {4, M, 6, M}, {M, M, M, M}}));
    m.SetSize(2, 2);
    EXPECT_EQ(m.GetNumMisVal(), 1);
    ExpectCountsExact(m);
    Matrix n = FromRows({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    n.RemoveRows(IndexList{3, 1, 3});
    EXPECT_TRUE(Holds(n, {{4, 5, 6}}));
    n.InsertRows(1, FromRows({{M, 0, 0}}));
    n.InsertRows(3, n);
    EXPECT_TRUE(Holds(n, {{M, 0, 0}, {4, 5, 6}, {M, 0, 0}, {4, 5, 6}}));
    n.RearrangeColumns(IndexList{3, 1, 1});
    EXPECT_TRUE(Holds(n, {{0, M, M}, {6, 4, 4}, {0, M, M}, {6, 4, 4}}));
    n.RemoveColumns(1, 2);
    EXPECT_TRUE(Holds(n, {{M}, {4}, {M}, {4}}));
    EXPECT_TRUE(Holds(FromRows({{1, 2, 3}, {4, M, 6}}).SubMat(2, 2, 2, 3), {{M, 6}}));
    EXPECT_EQ(FromRows({{1, 2}}).SubMat(1, 0, 1, 2).SizeRows(), 0);
    Matrix picked = FromRows({{1, 2}, {3, M}}).GetRowSubMatrix(IndexList{2, 2});
    EXPECT_TRUE(Holds(picked, {{3, M}, {3, M}}));
    std::vector<float*> rows = picked.GetMatrixAsPointerPointer();
    rows[1][2] = 5.0f;
    rows[2][1] = M;
    picked.RecountMissing();
    EXPECT_TRUE(Holds(picked, {{3, 5}, {M, M}}));
    // Concatenation edges.
    Matrix a = FromRows({{1, 2}});
    a.ConcatRows(Matrix(0, 5));
    EXPECT_TRUE(Holds(a, {{1, 2}}));
    Matrix empty;
    empty.ConcatRows(FromRows({{M, 1}}));
    EXPECT_TRUE(Holds(empty, {{M, 1}}));
    a.ConcatRows(FromRows({{M, 4}}));
    EXPECT_TRUE(Holds(a, {{1, 2}, {M, 4}}));
    ExpectInternalError([&] { a.ConcatRows(FromRows({{1, 2, 3}})); }, "ConcatRows");
    a.ConcatColumns(FromRows({{5}, {M}}));
    EXPECT_TRUE(Holds(a, {{1, 2, 5}, {M, 4, M}}));
    ExpectInternalError([&] { a.ConcatColumns(FromRows({{5}})); }, "ConcatColumns");
    ExpectCountsExact(a);
    Matrix sq(2, 2);
    const std::pair<std::string, std::function<void()>> bad[] = {
        {"GetColumn", [&] { sq.GetColumn(3); }},
        {"SetColumn", [&] { sq.SetColumn(1, Vector(3)); }},
        {"SetRow", [&] { sq.SetRow(1, Vector(3)); }},
        {"InsertRow", [&] { sq.InsertRow(4, Vector(2)); }},
        {"InsertRow", [&] { sq.push_back(Vector(1)); }},
        {"RemoveRows", [&] { sq.RemoveRows(2, 3); }},
        {"RemoveColumns", [&] { sq.RemoveColumns(IndexList{0}); }},
        {"RearrangeColumns", [&] { sq.RearrangeColumns(IndexList{3}); }},
        {"SubMat", [&] { sq.SubMat(1, 3, 1, 1); }}};
    for (const auto& [member, call] : bad)
        ExpectInternalError(call, member);
}

// The column statistics hand the column to the vector rule; what is the
// matrix's own is picking the column, the whole-matrix sums, capability and
// the density estimate.
TEST(Matrix, StatisticsAndDensity)
{
    Matrix m = FromRows({{1, M, 2}, {2, M, 2}, {6, 5, 2}});
    EXPECT_DOUBLE_EQ(m.GetColumnMean(1), 3.0);
    EXPECT_DOUBLE_EQ(m.GetColumnSS(1, 3.0), 14.0);
    float lo = 0, hi = 0;
    m.GetRowMinMax(1, lo, hi);
    EXPECT_TRUE(lo == 1.0f && hi == 2.0f);
    EXPECT_DOUBLE_EQ(m.GetMean(), 20.0 / 7.0);
    EXPECT_DOUBLE_EQ(m.GetSS(), 1 + 4 + 4 + 4 + 36 + 25 + 4);
    EXPECT_DOUBLE_EQ(m.GetSSAroundColumnMeans(), 14.0);
    // Undefined: a column with one value, all cells missing, equal limits, a constant column.
    const Matrix allMissing(2, 2, M);
    EXPECT_EQ((std::vector<double>{m.GetColumnStdDev(2), allMissing.GetSS(), allMissing.GetMean(),
                                   m.GetColumnCp(1, 5.0, 5.0), m.GetColumnCpk(3, 0.0, 5.0)}),
              std::vector<double>(5, -99.0));
    // Capability: s = sqrt(7) for column 1, mean 3.
    const double s = std::sqrt(7.0);
    EXPECT_NEAR(m.GetColumnCp(1, 0.0, 12.0), 12.0 / (6 * s), 1e-12);
    EXPECT_NEAR(m.GetColumnCpk(1, 0.0, 12.0), 3.0 / (3 * s), 1e-12);
    Matrix corr = FromRows({{1, 2, 5}, {2, 4, 1}, {3, 6, 3}}).GetColumnCorrelation();
    EXPECT_NEAR(corr[2][1], 1.0, 1e-6);
    EXPECT_NEAR(corr[1][3], -0.5, 1e-6);
    // Density reference: scipy.stats.gaussian_kde([1, 2, 4, 7]) (Scott's
    // factor) at 0, 3 and 8, from tests/reference/matrix_density.py.
    const Vector d = FromRows({{1}, {2}, {M}, {4}, {7}}).GetDensity(1, Vector{0.0f, 3.0f, 8.0f, M});
    const double density[] = {0.08108294, 0.12489473, 0.05140215};
    for (int i = 1; i <= 3; ++i)
        EXPECT_NEAR(d[i], density[i - 1], 1e-6) << "point " << i;
    EXPECT_TRUE(d[4] == M && d.GetNumMisVal() == 1);
    EXPECT_EQ(FromRows({{1}, {1}}).GetDensity(1, Vector{1.0f})[1], M);
}

TEST(Matrix, ViewsAndResultProxies)
{
    Matrix m = FromRows({{1, 2, 3}, {4, 5, M}});
    NCDataMatrixPrim<float> t = m.prim();
    EXPECT_TRUE(t.SizeRows() == 3 && t.SizeColumns() == 2);
    EXPECT_TRUE(t[2][1] == 2.0f && t[3].GetNumMisVal() == 1);
    EXPECT_EQ(&t.prim(), &m);
    Vector target(7, 1.0f), shared(target);
    m.Result(&target).GetColumn(3);
    EXPECT_TRUE(target.Size() == 2 && target.GetNumMisVal() == 1);
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
