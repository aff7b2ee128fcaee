// The one-sweep NIPALS kernels against the passes they replace: the scores
// and the next loadings from one read of the rows, and the deflation of a
// PLS component with the next component's first sweep. Both promise the
// bits of the separate passes, so they are compared exactly, on tables
// large enough for a team of threads and for the float block kernels, and
// on the edges (gaps everywhere, whole rows or columns missing, one row,
// one column, excluded variables).
#include "containers/MatrixChecks.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/NipalsDeflation.h"
#include "veltancmat/platform/NCError.h"

#include "platform/OmpTeam.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using Vec = NCDataVector<float>;
using Mat = NCDataMatrix<float>;
using IndexList = NCIntegralVector<int, -99>;

// rows x cols, two latent directions under noise, about `gaps` of the cells
// missing.
Mat Table(int rows, int cols, double gaps, unsigned seed)
{
    std::mt19937 gen(seed);
    std::normal_distribution<float> normal;
    std::bernoulli_distribution drop(gaps);
    std::vector<float> p1(static_cast<std::size_t>(cols)), p2(static_cast<std::size_t>(cols));
    for (int j = 0; j < cols; ++j) {
        p1[static_cast<std::size_t>(j)] = normal(gen);
        p2[static_cast<std::size_t>(j)] = normal(gen);
    }
    Mat m(rows, cols);
    for (int i = 1; i <= rows; ++i) {
        const float a = 4.0f * normal(gen), b = 2.0f * normal(gen);
        for (int j = 1; j <= cols; ++j) {
            const std::size_t k = static_cast<std::size_t>(j - 1);
            m(i, j, drop(gen) ? -99.0f : a * p1[k] + b * p2[k] + normal(gen));
        }
    }
    return m;
}

Vec Loading(int cols, unsigned seed)
{
    std::mt19937 gen(seed);
    std::normal_distribution<float> normal;
    Vec p(cols);
    for (int j = 1; j <= cols; ++j)
        p(j, normal(gen));
    return p;
}

int CountMissing(const Vec& v)
{
    int missing = 0;
    for (int i = 1; i <= v.Size(); ++i)
        missing += IsMisVal(v[i]) ? 1 : 0;
    return missing;
}

// Equal to the bit, with an exact missing count.
void ExpectSameVector(const Vec& got, const Vec& want, const std::string& what)
{
    ASSERT_EQ(got.Size(), want.Size()) << what;
    for (int i = 1; i <= want.Size(); ++i)
        ASSERT_EQ(std::bit_cast<std::uint32_t>(got[i]), std::bit_cast<std::uint32_t>(want[i]))
            << what << " element " << i << ": " << got[i] << " vs " << want[i];
    EXPECT_EQ(got.GetNumMisVal(), CountMissing(got)) << what;
}

struct Case {
    const char* name;
    Mat table;
};

// The shapes every comparison runs on. 403 x 100 passes the size at which
// the projections take a team, gives each thread a share that does not end
// on a whole block of rows, and leaves a tail past the last strip of
// sixteen columns; 2600 x 220 is large enough that the column pass asks for
// rows ahead, which the sweep does not.
std::vector<Case> Cases()
{
    std::vector<Case> cases;
    cases.push_back({"complete", Table(403, 100, 0.0, 1)});
    cases.push_back({"gaps", Table(403, 100, 0.05, 2)});
    cases.push_back({"many gaps", Table(403, 100, 0.6, 3)});
    Mat holes = Table(403, 100, 0.05, 4);
    MissRow(holes, 1);
    MissRow(holes, 200);
    MissColumn(holes, 7);
    MissColumn(holes, 100);
    cases.push_back({"whole rows and columns missing", holes});
    Mat completeButRow = Table(403, 100, 0.0, 5);
    MissRow(completeButRow, 403);
    cases.push_back({"one row missing, the rest complete", completeButRow});
    cases.push_back({"one row", Table(1, 100, 0.05, 6)});
    cases.push_back({"one column", Table(403, 1, 0.05, 7)});
    cases.push_back({"narrow", Table(403, 5, 0.05, 8)});
    cases.push_back({"two rows, wide", Table(2, 300, 0.05, 9)});
    cases.push_back({"large, gaps", Table(2600, 220, 0.05, 10)});
    cases.push_back({"large, complete", Table(2600, 220, 0.0, 11)});
    return cases;
}

// The two passes the sweep replaces, through the public members.
void TwoPasses(const Mat& m, const Vec& p, const IndexList* groups, int group, Vec& t, Vec& next)
{
    t = m.SpecialNipalsRegressRowsFix(p, groups, group);
    next = m.SpecialNipalsRegressColumnsFix(t, groups, group);
}

} // namespace

TEST(NipalsSweep, ScoresAndNextLoadingsAreThoseOfTwoPasses)
{
    for (const int threads : {1, 2}) {
        const OmpTeam team(threads);
        for (const Case& c : Cases()) {
            const std::string what = std::string(c.name) + ", " + std::to_string(threads) + " thread(s)";
            Vec p = Loading(c.table.SizeColumns(), 21);
            if (p.Size() > 3)
                p(3, -99.0f); // a loading with a gap takes the general divisor
            Vec t, next, wantT, wantNext;
            NCDataMatrixRows<float>(c.table).NipalsRowsThenColumns(p, &t, &next);
            TwoPasses(c.table, p, nullptr, 0, wantT, wantNext);
            ExpectSameVector(t, wantT, what + ", scores");
            ExpectSameVector(next, wantNext, what + ", loadings");
        }
    }
}

TEST(NipalsSweep, ExcludedVariablesAndRowSelections)
{
    const OmpTeam team(2);
    const Mat m = Table(403, 100, 0.05, 12);
    const Vec p = Loading(100, 22);
    IndexList groups(100);
    for (int j = 1; j <= 100; ++j)
        groups(j) = j % 7 + 1;
    Vec t, next, wantT, wantNext;
    NCDataMatrixRows<float>(m).NipalsRowsThenColumns(p, &t, &next, &groups, 3);
    TwoPasses(m, p, &groups, 3, wantT, wantNext);
    ExpectSameVector(t, wantT, "scores with group 3 left out");
    ExpectSameVector(next, wantNext, "loadings with group 3 left out");
    for (int j = 1; j <= 100; ++j) {
        if (groups[j] == 3) {
            EXPECT_TRUE(IsMisVal(next[j])) << "excluded variable " << j << " keeps a missing loading";
        }
    }

    // A selection in its own order, with a repeated row: as on the copy.
    IndexList rows(350);
    for (int k = 1; k <= 350; ++k)
        rows(k) = (k * 37) % 403 + 1;
    const NCDataMatrixRows<float> selection(m, rows);
    selection.NipalsRowsThenColumns(p, &t, &next);
    TwoPasses(selection.ToMatrix(), p, nullptr, 0, wantT, wantNext);
    ExpectSameVector(t, wantT, "scores of a selection");
    ExpectSameVector(next, wantNext, "loadings of a selection");
}

// Independent of both kernels: the rule written out in double for one small
// table, the third-of-t't floor included.
TEST(NipalsSweep, AgreesWithTheRuleWrittenOut)
{
    const Mat m = Table(60, 33, 0.3, 13);
    const Vec p = Loading(33, 23);
    Vec t, next;
    NCDataMatrixRows<float>(m).NipalsRowsThenColumns(p, &t, &next);

    double pp = 0.0;
    for (int j = 1; j <= 33; ++j)
        pp += static_cast<double>(p[j]) * p[j];
    std::vector<double> scores(61, 0.0);
    for (int i = 1; i <= 60; ++i) {
        double sum = 0.0, used = 0.0;
        for (int j = 1; j <= 33; ++j)
            if (!IsMisVal(m[i][j])) {
                sum += static_cast<double>(m[i][j]) * p[j];
                used += static_cast<double>(p[j]) * p[j];
            }
        scores[static_cast<std::size_t>(i)] = sum / std::max(pp / 3.0, used);
        EXPECT_NEAR(t[i], scores[static_cast<std::size_t>(i)], 2e-6 * (1.0 + std::fabs(scores[i]))) << "row " << i;
    }
    double tt = 0.0;
    for (int i = 1; i <= 60; ++i)
        tt += static_cast<double>(t[i]) * t[i];
    for (int j = 1; j <= 33; ++j) {
        double sum = 0.0, used = 0.0;
        for (int i = 1; i <= 60; ++i)
            if (!IsMisVal(m[i][j])) {
                sum += static_cast<double>(m[i][j]) * t[i];
                used += static_cast<double>(t[i]) * t[i];
            }
        const double want = sum / std::max(tt / 3.0, used);
        EXPECT_NEAR(next[j], want, 2e-6 * (1.0 + std::fabs(want))) << "column " << j;
    }
}

TEST(NipalsSweep, RefusesWrongSizesAndNullResults)
{
    const Mat m = Table(40, 20, 0.0, 14);
    const NCDataMatrixRows<float> rows(m);
    Vec t, next;
    EXPECT_THROW(rows.NipalsRowsThenColumns(Loading(19, 1), &t, &next), NCInternalError);
    IndexList groups(19);
    EXPECT_THROW(rows.NipalsRowsThenColumns(Loading(20, 1), &t, &next, &groups, 1), NCInternalError);
    EXPECT_THROW(rows.NipalsRowsThenColumns(Loading(20, 1), nullptr, &next), NCError);
    EXPECT_THROW(rows.NipalsRowsThenColumns(Loading(20, 1), &t, nullptr), NCError);
}

// ------------------------------------------------ deflation with a sweep

namespace {

Vec Scores(int rows, unsigned seed, int missingRow = 0)
{
    Vec t = Loading(rows, seed);
    if (missingRow > 0)
        t(missingRow, -99.0f);
    return t;
}

} // namespace

TEST(NipalsSweep, DeflationWithSweepMatchesSeparatePasses)
{
    for (const int threads : {1, 2}) {
        const OmpTeam team(threads);
        for (const Case& c : Cases()) {
            const std::string what = std::string(c.name) + ", " + std::to_string(threads) + " thread(s)";
            const int rows = c.table.SizeRows(), cols = c.table.SizeColumns();
            const Vec t = Scores(rows, 31, rows > 2 ? 2 : 0); // a row without a score is not deflated
            const Vec p = Loading(cols, 32);
            const Vec u = Scores(rows, 33, rows > 3 ? 3 : 0); // a row without a Y score takes no part

            Mat want = c.table;
            want.AddVprimV(t, p, -1.0);
            const double wantSS = want.GetSS();
            const Vec wantW = want.SpecialNipalsRegressColumnsFix(u);

            Mat got = c.table;
            double ss = 0.0;
            Vec w;
            const bool swept = NCNipalsDeflation::DeflateThenColumns(got, t, p, u, &ss, &w);
            EXPECT_TRUE(SameCells(got, want)) << what;
            ExpectCountsExact(got);
            // Narrow tables are only deflated: their sweep is left to the
            // passes of the responses.
            EXPECT_EQ(swept, cols >= 16) << what;
            if (swept) {
                EXPECT_EQ(std::bit_cast<std::uint64_t>(ss), std::bit_cast<std::uint64_t>(wantSS)) << what;
                ExpectSameVector(w, wantW, what + ", weights");
            }
        }
    }
}

TEST(NipalsSweep, DeflationLandingOnTheMarkerGivesNoSweep)
{
    const OmpTeam team(2);
    // Cell (2, 5) becomes exactly -99 and from then on reads as missing: the
    // sums taken during the sweep no longer describe the rows' gaps.
    Mat m = Table(403, 100, 0.0, 15);
    m(2, 5, -98.5f);
    Vec t(403, 0.0f), p(100, 0.0f);
    t(2, 1.0f);
    p(5, 0.5f);
    const Vec u = Scores(403, 34);
    double ss = 12345.0;
    Vec w;
    EXPECT_FALSE(NCNipalsDeflation::DeflateThenColumns(m, t, p, u, &ss, &w));
    EXPECT_TRUE(IsMisVal(m[2][5]));
    ExpectCountsExact(m);
    EXPECT_EQ(ss, 12345.0);
    EXPECT_EQ(w.Size(), 0);

    EXPECT_THROW(NCNipalsDeflation::DeflateThenColumns(m, Scores(402, 1), p, u, &ss, &w), NCInternalError);
    EXPECT_THROW(NCNipalsDeflation::DeflateThenColumns(m, t, p, u, &ss, nullptr), NCError);
}
