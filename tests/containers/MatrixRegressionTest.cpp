#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <random>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using IndexList = NCIntegralVector<int, -99>;
constexpr float M = -99.0f;

Matrix RandomMatrix(int rows, int cols, double missingFraction, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> value;
    std::bernoulli_distribution missing(missingFraction);
    Matrix m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, missing(rng) ? M : value(rng));
    return m;
}

Vector RandomVector(int n, double missingFraction, unsigned seed)
{
    return RandomMatrix(1, n, missingFraction, seed)[1];
}

// The missing-value projection written out plainly in double: the sum over
// the pairs present in both, divided by max(all present v^2 / 3, used v^2),
// or by v'v when nothing is missing.
double Projection(const std::vector<float>& x, const std::vector<float>& v)
{
    double s12 = 0, s11 = 0, all = 0;
    int pairs = 0;
    bool anyMissing = false;
    for (std::size_t k = 0; k < x.size(); ++k) {
        anyMissing |= x[k] == M || v[k] == M;
        if (v[k] == M)
            continue;
        all += double(v[k]) * v[k];
        if (x[k] == M)
            continue;
        s12 += double(x[k]) * v[k];
        s11 += double(v[k]) * v[k];
        ++pairs;
    }
    const double d = anyMissing ? std::max(all / 3, s11) : all;
    return (pairs == 0 || std::fabs(d) <= 1e-30) ? -99.0 : s12 / d;
}

// The double kernels have their own vector width and no float partial sums:
// they must meet the same reference to double precision.
template <class T>
void ExpectClose(const NCDataVector<T>& got, const std::vector<double>& want)
{
    const double tolerance = sizeof(T) == sizeof(float) ? 1e-5 : 1e-12;
    ASSERT_EQ(got.Size(), int(want.size()));
    int missing = 0;
    for (int k = 1; k <= got.Size(); ++k) {
        missing += want[k - 1] == -99.0 ? 1 : 0;
        if (want[k - 1] == -99.0)
            EXPECT_EQ(got[k], T(-99)) << k;
        else
            EXPECT_NEAR(got[k], want[k - 1], tolerance * (1 + std::fabs(want[k - 1]))) << k;
    }
    EXPECT_EQ(got.GetNumMisVal(), missing);
}

// The projection of every column of e on `by` or, for `rows`, of every row on it. Group 1 of the
// columns is excluded: a missing loading, or left out of a row's sums.
std::vector<double> Reference(const Matrix& e, const Vector& by, bool rows, const IndexList* groups)
{
    const auto excluded = [groups](int j) { return groups && (*groups)[j] == 1; };
    std::vector<double> out;
    for (int a = 1; a <= (rows ? e.SizeRows() : e.SizeColumns()); ++a) {
        std::vector<float> x, v;
        for (int b = 1; b <= by.Size(); ++b) {
            if (rows && excluded(b))
                continue;
            x.push_back(rows ? e[a][b] : e[b][a]);
            v.push_back(by[b]);
        }
        out.push_back(!rows && excluded(a) ? -99.0 : Projection(x, v));
    }
    return out;
}

NCDataVector<double> Widened(const Vector& v)
{
    NCDataVector<double> d(v.Size());
    for (int k = 1; k <= v.Size(); ++k)
        d(k, v[k]);
    return d;
}

NCDataMatrix<double> Widened(const Matrix& m)
{
    NCDataMatrix<double> d;
    for (int i = 1; i <= m.SizeRows(); ++i)
        d.push_back(Widened(m[i]));
    return d;
}

struct Case {
    int rows, cols;
    double cellMissing, vectorMissing;
};

class NipalsRegression : public ::testing::TestWithParam<Case> {};

TEST_P(NipalsRegression, AgreesWithPlainReference)
{
    const Case c = GetParam();
    Matrix e = RandomMatrix(c.rows, c.cols, c.cellMissing, 11);
    // One wholly missing column and one wholly missing row.
    if (c.cellMissing > 0) {
        for (int i = 1; i <= c.rows; ++i)
            e(i, 2, M);
        for (int j = 1; j <= c.cols; ++j)
            e(3, j, M);
    }
    const Vector t = RandomVector(c.rows, c.vectorMissing, 12);
    const Vector p = RandomVector(c.cols, c.vectorMissing, 13);
    IndexList groups;
    for (int j = 1; j <= c.cols; ++j)
        groups.push_back(j % 3);
    const IndexList* exclusions[] = {nullptr, &groups};
    const NCDataMatrix<double> wide = Widened(e);
    for (const IndexList* g : exclusions) {
        SCOPED_TRACE(g ? "group 1 excluded" : "no exclusion");
        const std::vector<double> columns = Reference(e, t, false, g), rows = Reference(e, p, true, g);
        ExpectClose(e.SpecialNipalsRegressColumnsFix(t, g, 1), columns);
        ExpectClose(e.SpecialNipalsRegressRowsFix(p, g, 1), rows);
        ExpectClose(wide.SpecialNipalsRegressColumnsFix(Widened(t), g, 1), columns);
        ExpectClose(wide.SpecialNipalsRegressRowsFix(Widened(p), g, 1), rows);
    }

    Vector into(5, 1.0f);
    e.Result(&into).SpecialNipalsRegressRowsFix(p);
    EXPECT_EQ(into, e.SpecialNipalsRegressRowsFix(p));
    EXPECT_NEAR(e.SpecialNipalsRegressOneColumnFix(3, t), t.SpecialNipalsRegressFix(e.GetColumn(3)), 1e-6);
}

INSTANTIATE_TEST_SUITE_P(Shapes, NipalsRegression,
                         ::testing::Values(Case{40, 9, 0.0, 0.0}, Case{40, 9, 0.0, 0.2}, Case{57, 13, 0.1, 0.0},
                                           Case{57, 13, 0.3, 0.1}, Case{5, 300, 0.05, 0.0}, Case{301, 3, 0.5, 0.3},
                                           Case{66, 261, 0.1, 0.05}, Case{203, 70, 0.02, 0.0},
                                           // 15 and 16 columns straddle the scalar short-row path;
                                           // 400 x 100 is large enough for the thread team.
                                           Case{120, 15, 0.1, 0.1}, Case{120, 16, 0.1, 0.1},
                                           Case{400, 100, 0.05, 0.02}));

TEST(MatrixRegression, OneThirdFloorAndDegenerateDenominators)
{
    // Column 1 has one value beside t = (1, 1, 1): the used t^2 is 1, the
    // floor t't / 3 is 1, so p = 2 / 1; without the floor it would be the
    // same, with t = (3, 1, 1) the floor 11/3 wins over 9.
    Matrix e(3, 2, M);
    e(1, 1, 2.0f);
    e(1, 2, 1.0f);
    e(2, 2, 1.0f);
    EXPECT_FLOAT_EQ(e.SpecialNipalsRegressColumnsFix(Vector{1, 1, 1})[1], 2.0f);
    EXPECT_FLOAT_EQ(e.SpecialNipalsRegressColumnsFix(Vector{1, 3, 3})[1], 2.0f / (19.0f / 3.0f));
    EXPECT_FLOAT_EQ(e.SpecialNipalsRegressColumnsFix(Vector{1, 3, 3})[2], 4.0f / 10.0f);

    // A zero score vector has no slope: every loading is missing.
    EXPECT_EQ(Matrix(4, 3, 1.0f).SpecialNipalsRegressColumnsFix(Vector(4, 0.0f)).GetNumMisVal(), 3);
    EXPECT_EQ(Matrix(2, 3, 1.0f).SpecialNipalsRegressRowsFix(Vector(3, M)).GetNumMisVal(), 2);
}

TEST(MatrixRegression, ResultDoesNotDependOnThreadCount)
{
    const Matrix e = RandomMatrix(503, 37, 0.05, 21);
    const Vector t = RandomVector(503, 0.0, 22);
    omp_set_num_threads(1);
    const Vector one = e.SpecialNipalsRegressColumnsFix(t);
    omp_set_num_threads(3);
    const Vector three = e.SpecialNipalsRegressColumnsFix(t);
    NCMultiThreading::ThreadingControl::Reset();
    for (int j = 1; j <= 37; ++j)
        EXPECT_NEAR(one[j], three[j], 1e-6 * (1 + std::fabs(one[j])));
}

TEST(MatrixRegression, OrdinaryRegressionsUseTheVectorRule)
{
    const Matrix e = RandomMatrix(30, 6, 0.2, 31);
    const Vector t = RandomVector(30, 0.1, 32);
    const Vector p = RandomVector(6, 0.0, 33);
    const Vector columns = e.RegressColumns(t);
    const Vector rows = e.RegressRows(p);
    for (int j = 1; j <= 6; ++j)
        EXPECT_FLOAT_EQ(columns[j], float(t.Regress(e.GetColumn(j))));
    for (int i = 1; i <= 30; ++i)
        EXPECT_FLOAT_EQ(rows[i], float(p.Regress(e[i])));
    EXPECT_DOUBLE_EQ(e.RegressOneColumn(3, t), t.Regress(e.GetColumn(3)));
    EXPECT_THROW(e.RegressColumns(p), NCInternalError);
    EXPECT_THROW(e.RegressRows(t), NCInternalError);
    EXPECT_THROW(e.SpecialNipalsRegressColumnsFix(p), NCInternalError);
    EXPECT_THROW(e.Result(static_cast<Vector*>(nullptr)).RegressColumns(t), NCError);
}

TEST(MatrixRegression, StartColumnKeepsTheEarlierOfNearTies)
{
    auto twoColumns = [](double ss2) {
        Matrix m(1, 2);
        m(1, 1, 10.0f);
        m(1, 2, float(std::sqrt(ss2)));
        return m.GetNIPALSStartColumn()[1];
    };
    EXPECT_EQ(twoColumns(100.00005), 10.0f);
    EXPECT_NE(twoColumns(100.0002), 10.0f);

    Matrix m(3, 3, M);
    m(1, 3, 1.0f);
    EXPECT_EQ(m.GetNIPALSStartColumn().GetNumMisVal(), 2); // column 3, the only one with values
    EXPECT_EQ(Matrix(2, 1, 4.0f).GetNIPALSStartColumn(), Vector(2, 4.0f));
    EXPECT_EQ(Matrix(2, 2, M).GetNIPALSStartColumn().GetNumMisVal(), 2);
}

TEST(MatrixRegression, RankOneUpdateKeepsMissingCellsAndCounts)
{
    Matrix e = RandomMatrix(20, 7, 0.2, 41);
    const Matrix before = e;
    const Vector t = RandomVector(20, 0.1, 42);
    const Vector p = RandomVector(7, 0.2, 43);
    e.AddVprimV(t, p, -1.0);
    for (int i = 1; i <= 20; ++i)
        for (int j = 1; j <= 7; ++j) {
            const float old = before[i][j];
            if (old == M || t[i] == M || p[j] == M)
                EXPECT_EQ(e[i][j], old);
            else
                EXPECT_FLOAT_EQ(e[i][j], float(old - double(t[i]) * p[j]));
        }
    ExpectCountsExact(e);

    // A cell landing exactly on -99 becomes missing, and is counted.
    Matrix m(2, 2, 1.0f);
    m.TransformToSub_V_x_Vt(Vector{100.0f, 0.0f}, Vector{1.0f, 0.0f});
    EXPECT_EQ(m[1][1], M);
    ExpectCountsExact(m);
    EXPECT_THROW(m.AddVprimV(Vector(3), Vector(2), 1.0), NCInternalError);
}

TEST(MatrixRegression, RowAndColumnScalings)
{
    Matrix m(2, 3, 2.0f);
    m(2, 3, M);
    const Matrix scaled = m.DotMultiplyVector(Vector{1, M, 3});
    EXPECT_EQ(scaled[1][1], 2.0f);
    EXPECT_EQ(scaled.GetColumnMisVal(2), 2);
    EXPECT_EQ(scaled[1][3], 6.0f);
    EXPECT_EQ(scaled.GetNumMisVal(), 3);
    const Matrix divided = m.DotDivideVector(Vector{2, 0, 4});
    EXPECT_EQ(divided[1][1], 1.0f);
    EXPECT_EQ(divided.GetColumnMisVal(2), 2);
    EXPECT_EQ(divided[1][3], 0.5f);
    const Matrix rows = m.DotPreMultiplyVector(Vector{M, 3});
    EXPECT_EQ(rows[1].GetNumMisVal(), 3);
    EXPECT_EQ(rows[2][1], 6.0f);
    EXPECT_EQ(m.DotPreDivideVector(Vector{0, 2})[2][2], 1.0f);
    EXPECT_EQ(m.GetNumMisVal(), 1); // the source is untouched

    m.AddFV(Vector{1, 1, 1}, 2.0);
    EXPECT_EQ(m[2][2], 4.0f);
    m.TransformToDotSubRowVector(Vector{4, M, 4});
    EXPECT_EQ(m.GetColumnMisVal(2), 2);
    EXPECT_EQ(m[1][1], 0.0f);

    Matrix spectra(2, 3);
    spectra(1, 1, 1.0f), spectra(1, 2, 2.0f), spectra(1, 3, 3.0f);
    const Matrix snv = spectra.SNV();
    EXPECT_FLOAT_EQ(snv[1][1], -1.0f);
    EXPECT_FLOAT_EQ(snv[1][3], 1.0f);
    EXPECT_THROW(m.DotMultiplyVector(Vector(2)), NCInternalError);
}

} // namespace
