#include "veltancmat/spc/FisherExact.h"

#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

#include "spc/fixtures/FisherReference.inc"

constexpr int DefaultWorkspace = 200000;
constexpr int LargeWorkspace = 20000000;

double Fisher(const std::vector<int>& table, int n1, int n2, bool hybrid = false, Sta::SidedNess sides = Sta::TwoSided,
              int workspace = DefaultWorkspace)
{
    return Sta::GetFisherExactProbability(table.data(), n1, n2, hybrid, sides, workspace);
}

double TwoByTwo(int a, int b, int c, int d, Sta::SidedNess sides)
{
    return Fisher({a, b, c, d}, 2, 2, false, sides);
}

// The text of the NCError a call raises, or "" when it raises none.
std::string ErrorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const NCInternalError& e) {
        return "internal: " + std::string(e.what());
    } catch (const NCError& e) {
        EXPECT_EQ(e.GetLevel(), NCError::Error);
        return e.what();
    }
    return {};
}

std::vector<int> Transpose(const std::vector<int>& t, int n1, int n2)
{
    std::vector<int> r(t.size());
    for (int i = 0; i < n1; ++i)
        for (int j = 0; j < n2; ++j)
            r[static_cast<std::size_t>(j * n1 + i)] = t[static_cast<std::size_t>(i * n2 + j)];
    return r;
}

// Every table with the margins of `t`, by brute force: the sum of the
// probabilities of those at most as probable as t, with the network's
// tolerance on log-probabilities.
double Enumerated(const std::vector<int>& t, int n1, int n2)
{
    std::vector<int> rows(n1, 0), cols(n2, 0);
    int total = 0;
    for (int i = 0; i < n1; ++i)
        for (int j = 0; j < n2; ++j) {
            rows[i] += t[i * n2 + j];
            cols[j] += t[i * n2 + j];
            total += t[i * n2 + j];
        }
    auto logProbability = [&](const std::vector<int>& x) {
        double s = -std::lgamma(total + 1.0);
        for (int r : rows)
            s += std::lgamma(r + 1.0);
        for (int c : cols)
            s += std::lgamma(c + 1.0);
        for (int v : x)
            s -= std::lgamma(v + 1.0);
        return s;
    };
    const double observed = logProbability(t);
    double sum = 0.0;
    std::vector<int> x(t.size(), 0), left = cols;
    // Fills cell by cell, line by line; the last line and column follow.
    std::function<void(int, int, int)> fill = [&](int i, int j, int rowLeft) {
        if (i == n1 - 1) {
            for (int jj = 0; jj < n2; ++jj)
                x[i * n2 + jj] = left[jj];
            if (logProbability(x) <= observed + 1e-7)
                sum += std::exp(logProbability(x));
            return;
        }
        if (j == n2 - 1) {
            if (rowLeft > left[j])
                return;
            x[i * n2 + j] = rowLeft;
            left[j] -= rowLeft;
            fill(i + 1, 0, rows[i + 1]);
            left[j] += rowLeft;
            return;
        }
        for (int v = 0; v <= std::min(rowLeft, left[j]); ++v) {
            x[i * n2 + j] = v;
            left[j] -= v;
            fill(i, j + 1, rowLeft - v);
            left[j] += v;
        }
    };
    fill(0, 0, rows[0]);
    return sum;
}

} // namespace

// p-values of R's fisher.test on random tables of 2 x 2 to 4 x 5, exact and
// hybrid, both tails of the 2 x 2 ones, and the fault R raises in its
// default workspace, which must be the library's too.
TEST(FisherExact, AgreesWithR)
{
    for (int t = 0; t < FisherTables; ++t) {
        const int n1 = FisherShape[2 * t], n2 = FisherShape[2 * t + 1];
        const std::vector<int> x(FisherCells + FisherStart[t], FisherCells + FisherStart[t] + n1 * n2);
        const std::string where = "table " + std::to_string(t) + " (" + std::to_string(n1) + " x " + std::to_string(n2)
                                  + ")";
        const double exact = Fisher(x, n1, n2, false, Sta::TwoSided, LargeWorkspace);
        EXPECT_NEAR(exact, FisherExactP[t], 1e-10 * FisherExactP[t]) << where;
        if (FisherHybridP[t] >= 0.0) {
            const double hybrid = Fisher(x, n1, n2, true, Sta::TwoSided, LargeWorkspace);
            EXPECT_NEAR(hybrid, FisherHybridP[t], 1e-10 * FisherHybridP[t]) << where;
        }
        if (FisherLowerP[t] >= 0.0) {
            EXPECT_NEAR(Fisher(x, 2, 2, false, Sta::LowerTail), FisherLowerP[t], 1e-10 * FisherLowerP[t]) << where;
            EXPECT_NEAR(Fisher(x, 2, 2, false, Sta::UpperTail), FisherUpperP[t], 1e-10 * FisherUpperP[t]) << where;
        }
        const std::string error = ErrorOf([&] { Fisher(x, n1, n2); });
        if (FisherFault[t] == 0)
            EXPECT_EQ(error, "") << where;
        else
            EXPECT_EQ(error.substr(0, 21), FisherFault[t] == 6 ? "Error in fexact.\nLDKE" : "Error in fexact.\nLDST")
                << where;
    }
}

// Small tables against every table with their margins.
TEST(FisherExact, AgreesWithEnumeration)
{
    std::mt19937 rng(1993);
    const int shapes[][2] = {{2, 3}, {3, 3}, {3, 4}, {2, 6}, {4, 3}};
    for (const auto& shape : shapes) {
        for (int total : {5, 11, 18}) {
            std::vector<int> x(static_cast<std::size_t>(shape[0] * shape[1]), 0);
            std::uniform_int_distribution<std::size_t> cell(0, x.size() - 1);
            for (int k = 0; k < total; ++k)
                ++x[cell(rng)];
            const double expected = Enumerated(x, shape[0], shape[1]);
            EXPECT_NEAR(Fisher(x, shape[0], shape[1]), expected, 1e-12 * expected)
                << shape[0] << " x " << shape[1] << ", N " << total;
        }
    }
}

// The worked two-sided case: the tables of margins (4, 4; 4, 4) have
// probabilities 1, 16, 36, 16, 1 (/ 70); from (3, 1; 1, 3) the lower side
// adds (1, 3; 3, 1) and (0, 4; 4, 0) but not (2, 2; 2, 2), the upper side
// (4, 0; 0, 4).
TEST(FisherExact, TwoByTwoTiesCountOnBothSides)
{
    EXPECT_NEAR(Sta::GetTableProbability(3, 1, 1, 3), 16.0 / 70.0, 1e-15);
    EXPECT_EQ(Sta::GetTableProbability(3, 1, 1, 3), Sta::GetTableProbability(1, 3, 3, 1));
    EXPECT_NEAR(Sta::GetTableProbability(2, 2, 2, 2), 36.0 / 70.0, 1e-15);
    EXPECT_NEAR(Sta::GetTableProbability(0, 4, 4, 0), 1.0 / 70.0, 1e-16);
    EXPECT_NEAR(TwoByTwo(3, 1, 1, 3, Sta::TwoSided), 34.0 / 70.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(1, 3, 3, 1, Sta::TwoSided), 34.0 / 70.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(2, 2, 2, 2, Sta::TwoSided), 1.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(0, 4, 4, 0, Sta::TwoSided), 2.0 / 70.0, 1e-15);
    // One-sided, the tails include the observed table.
    EXPECT_NEAR(TwoByTwo(3, 1, 1, 3, Sta::LowerTail), 69.0 / 70.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(3, 1, 1, 3, Sta::UpperTail), 17.0 / 70.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(4, 0, 0, 4, Sta::UpperTail), 1.0 / 70.0, 1e-16);
    // The hybrid and the workspace concern the network only.
    EXPECT_EQ(Fisher({3, 1, 1, 3}, 2, 2, true, Sta::TwoSided, 0), TwoByTwo(3, 1, 1, 3, Sta::TwoSided));
}

// A table at the end of its range has nothing beyond it on that side.
TEST(FisherExact, TwoByTwoTailEnds)
{
    const double p0 = Sta::GetTableProbability(0, 5, 3, 2);
    EXPECT_EQ(TwoByTwo(0, 5, 3, 2, Sta::LowerTail), p0);
    EXPECT_NEAR(TwoByTwo(0, 5, 3, 2, Sta::UpperTail), 1.0, 1e-14);
    EXPECT_EQ(TwoByTwo(4, 0, 3, 7, Sta::UpperTail), Sta::GetTableProbability(4, 0, 3, 7));
    // d is the smaller of a and d: the lower side stops when it reaches 0.
    EXPECT_NEAR(TwoByTwo(5, 3, 2, 1, Sta::LowerTail),
                Sta::GetTableProbability(5, 3, 2, 1) + Sta::GetTableProbability(4, 4, 3, 0), 1e-15);
    // A table of one line only: every margin but one is zero.
    EXPECT_NEAR(TwoByTwo(3, 4, 0, 0, Sta::TwoSided), 1.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(0, 0, 0, 0, Sta::TwoSided), 1.0, 1e-15);
}

// With margins (5, 5; 5, 5) every table ties with its mirror (a <-> b): the
// exact comparison must still count the mirror, so the two-sided p-value
// is the binomial sum over both sides.
TEST(FisherExact, TwoByTwoMirrorTablesTie)
{
    for (int a = 0; a <= 5; ++a) {
        const double p0 = Sta::GetTableProbability(a, 5 - a, 5 - a, a);
        EXPECT_EQ(p0, Sta::GetTableProbability(5 - a, a, a, 5 - a));
        double expected = 0.0;
        for (int x = 0; x <= 5; ++x)
            if (Sta::BinomialCoefficient(5, x) <= Sta::BinomialCoefficient(5, a))
                expected += Sta::BinomialCoefficient(5, x) * Sta::BinomialCoefficient(5, 5 - x) / 252.0;
        EXPECT_NEAR(TwoByTwo(a, 5 - a, 5 - a, a, Sta::TwoSided), expected, 1e-14) << a;
    }
}

// Margins (3, 14; 6, 11): a = 0 and a = 2 are equally probable (3003 /
// 12376), but the sums of log-factorials differ in the last bits, a = 0
// coming out larger. From (2, 1; 4, 10) the exact comparison leaves a = 0
// out: 3003 + 364 (a = 3) over 12376, where R, within its 1e-7, also takes
// a = 0 and gives 6370 / 12376.
TEST(FisherExact, TwoByTwoRoundingTieIsNotCounted)
{
    ASSERT_GT(Sta::GetTableProbability(0, 3, 6, 8), Sta::GetTableProbability(2, 1, 4, 10));
    EXPECT_NEAR(Sta::GetTableProbability(0, 3, 6, 8), 3003.0 / 12376.0, 1e-15);
    EXPECT_NEAR(TwoByTwo(2, 1, 4, 10, Sta::TwoSided), 3367.0 / 12376.0, 1e-13);
    // From a = 0 the tie is below the observed value, and counts.
    EXPECT_NEAR(TwoByTwo(0, 3, 6, 8, Sta::TwoSided), 6370.0 / 12376.0, 1e-13);
}

TEST(FisherExact, TableProbabilityAndBinomials)
{
    EXPECT_EQ(Sta::BinomialCoefficient(0, 0), 1.0);
    EXPECT_EQ(Sta::BinomialCoefficient(7, 0), 1.0);
    EXPECT_EQ(Sta::BinomialCoefficient(7, 7), 1.0);
    EXPECT_EQ(Sta::BinomialCoefficient(7, 3), 35.0);
    EXPECT_EQ(Sta::BinomialCoefficient(60, 30), 118264581564861424.0);
    EXPECT_EQ(Sta::BinomialCoefficient(5, -1), 0.0);
    EXPECT_EQ(Sta::BinomialCoefficient(5, 6), 0.0);
    EXPECT_NEAR(Sta::BinomialCoefficient(1000, 500) / 2.702882409454366e299, 1.0, 1e-12);
    // Hypergeometric probabilities of one margin sum to 1 and match the
    // binomial form.
    double sum = 0.0;
    for (int a = 0; a <= 12; ++a) {
        const double p = Sta::GetTableProbability(a, 12 - a, 20 - a, 3 + a);
        EXPECT_NEAR(p, Sta::BinomialCoefficient(12, a) * Sta::BinomialCoefficient(23, 20 - a)
                           / Sta::BinomialCoefficient(35, 20),
                    1e-13 * p);
        sum += p;
    }
    EXPECT_NEAR(sum, 1.0, 1e-13);
}

// Larger shapes ignore the direction, and the p-value does not depend on the
// orientation or the order of lines and columns.
TEST(FisherExact, LargerTablesIgnoreSidesAndOrder)
{
    const std::vector<int> x = {3, 0, 5, 1, 6, 2};
    const double p = Fisher(x, 2, 3);
    EXPECT_EQ(Fisher(x, 2, 3, false, Sta::LowerTail), p);
    EXPECT_EQ(Fisher(x, 2, 3, false, Sta::UpperTail), p);
    EXPECT_NEAR(Fisher(Transpose(x, 2, 3), 3, 2), p, 1e-13 * p);
    EXPECT_NEAR(Fisher({1, 6, 2, 3, 0, 5}, 2, 3), p, 1e-13 * p);
    EXPECT_NEAR(Fisher({0, 3, 5, 6, 1, 2}, 2, 3), p, 1e-13 * p);

    // A line or column of zeros adds no table: the 2 x 3 inside decides.
    EXPECT_NEAR(Fisher({3, 0, 5, 0, 0, 0, 1, 6, 2}, 3, 3), p, 1e-13 * p);
    EXPECT_NEAR(Fisher({3, 0, 0, 5, 1, 6, 0, 2}, 2, 4), p, 1e-13 * p);
    // One value per line: the margins leave one table.
    EXPECT_EQ(Fisher({3, 1, 4}, 3, 1), 1.0);

    const std::vector<int> y = {2, 7, 1, 0, 4, 3, 5, 1, 6, 2, 2, 3};
    const double q = Fisher(y, 3, 4);
    EXPECT_NEAR(Fisher(Transpose(y, 3, 4), 4, 3), q, 1e-12 * q);
    EXPECT_GT(q, 0.0);
    EXPECT_LE(q, 1.0 + 1e-12);
}

// With Cochran's conditions met everywhere, the hybrid sums most subtables
// by their chi-squared approximation and still lands near the exact value.
TEST(FisherExact, HybridNearExactWhenCochranHolds)
{
    const std::vector<int> tables[] = {{25, 31, 40, 33, 22, 29}, {30, 18, 22, 21, 26, 35, 17, 24, 28}};
    const int shapes[][2] = {{2, 3}, {3, 3}};
    for (int t = 0; t < 2; ++t) {
        const double exact = Fisher(tables[t], shapes[t][0], shapes[t][1], false, Sta::TwoSided, LargeWorkspace);
        const double hybrid = Fisher(tables[t], shapes[t][0], shapes[t][1], true, Sta::TwoSided, LargeWorkspace);
        EXPECT_NE(hybrid, exact) << t;
        EXPECT_NEAR(hybrid, exact, 0.1 * exact) << t;
    }
    // Sparse tables meet none of the conditions: the hybrid is exact.
    const std::vector<int> sparse = {1, 0, 3, 0, 2, 1, 4, 0, 1};
    EXPECT_EQ(Fisher(sparse, 3, 3, true), Fisher(sparse, 3, 3, false));
}

TEST(FisherExact, TableErrors)
{
    const std::string prefix = "Error in fexact.\n";
    EXPECT_EQ(ErrorOf([] { Fisher({1, 2, -1, 4, 5, 6}, 2, 3); }),
              prefix + "All elements of TABLE may not be negative.");
    EXPECT_EQ(ErrorOf([] { Fisher({1, 2, -1, 4}, 2, 2); }), prefix + "All elements of TABLE may not be negative.");
    EXPECT_EQ(ErrorOf([] { Fisher({0, 0, 0, 0, 0, 0}, 2, 3); }),
              prefix + "All elements of TABLE are zero.\nPRT and PRE are set to missing values.");
    EXPECT_EQ(ErrorOf([] { Fisher({0, 0, 0, 0, 0, 0, 0, 0, 0}, 3, 3, true); }),
              prefix + "All elements of TABLE are zero.\nPRT and PRE are set to missing values.");
    EXPECT_EQ(ErrorOf([] { Fisher({}, 0, 3); }),
              prefix + "All elements of TABLE are zero.\nPRT and PRE are set to missing values.");
    // One line is one column of FEXACT's transposed table.
    EXPECT_EQ(ErrorOf([] { Fisher({3, 1, 4}, 1, 3); }), prefix + "NCOL must be at least 2");
    // Totals of 1300 on three lines key past 2^31.
    EXPECT_EQ(ErrorOf([] { Fisher({1300, 0, 0, 0, 1300, 0, 0, 0, 1300}, 3, 3); }),
              prefix
                  + "The hash table key cannot be computed because the largest key\n"
                    "is larger than the largest representable int.\n"
                    "The algorithm cannot proceed.\n"
                    "Reduce the workspace size or use another algorithm.");
    // Two lines of 1000 key below it, and need no hash table at all.
    EXPECT_EQ(ErrorOf([] { Fisher({400, 300, 300, 350, 300, 350}, 2, 3); }), "");
}

// The workspace decides the hash tables' sizes as in R: these fail in R at
// the same sizes (fisher.test(t(x), workspace = w), R's matrix being the
// transpose of the library's lines), except that a workspace too small for
// the fixed arrays, R's "Out of workspace", is reported as too few keys.
TEST(FisherExact, WorkspaceErrors)
{
    const std::string keys = "Error in fexact.\nLDKEY is too small for this problem.\n"
                             "Try increasing the size of the workspace.";
    const std::string pastPaths = "Error in fexact.\nLDSTP is too small for this problem.\n"
                                  "Try increasing the size of the workspace.";
    const std::vector<int> x = {3, 1, 4, 1, 5, 9, 2, 6, 5};
    for (int workspace : {-5, 0, 1000, 1800, 2400, 3000, 8000})
        EXPECT_EQ(ErrorOf([&] { Fisher(x, 3, 3, false, Sta::TwoSided, workspace); }), keys) << workspace;
    EXPECT_NEAR(Fisher(x, 3, 3, false, Sta::TwoSided, 10000), 0.282360228768355, 1e-14);
    EXPECT_EQ(Fisher(x, 3, 3, false, Sta::TwoSided, 10000), Fisher(x, 3, 3, false, Sta::TwoSided, 10001));

    const std::vector<int> y = {2, 7, 1, 0, 4, 3, 5, 1, 6, 2, 2, 3, 4, 1, 3, 2, 0, 5, 1, 2};
    EXPECT_EQ(ErrorOf([&] { Fisher(y, 4, 5, false, Sta::TwoSided, 30000); }), keys);
    EXPECT_EQ(ErrorOf([&] { Fisher(y, 4, 5, false, Sta::TwoSided, 50000); }), pastPaths);
    EXPECT_EQ(ErrorOf([&] { Fisher(y, 4, 5, false, Sta::TwoSided, 80000); }), pastPaths);
    EXPECT_EQ(ErrorOf([&] { Fisher(y, 4, 5, false, Sta::TwoSided, LargeWorkspace); }), "");
}

TEST(FisherExact, ErrorsTranslate)
{
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const std::string error = ErrorOf([] { Fisher({1, 2, -1, 4, 5, 6}, 2, 3); });
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(error, "Fehler in fexact.\nKein Element von TABLE darf negativ sein.");
}

// Each call keeps its state to itself: two threads running different tests
// at once get what each gets alone.
TEST(FisherExact, ConcurrentTestsAreIndependent)
{
    const std::vector<int> a = {4, 2, 6, 3, 1, 7, 5, 2, 3, 3, 1, 2};
    const std::vector<int> b = {3, 9, 1, 4, 2, 8, 2, 0, 7, 1};
    const double pa = Fisher(a, 3, 4, false, Sta::TwoSided, LargeWorkspace);
    const double pb = Fisher(b, 2, 5, true);
    const double pc = TwoByTwo(12, 5, 3, 17, Sta::TwoSided);
    int mismatches[2] = {0, 0};
    std::thread first([&] {
        for (int i = 0; i < 20; ++i)
            mismatches[0] += Fisher(a, 3, 4, false, Sta::TwoSided, LargeWorkspace) != pa;
    });
    std::thread second([&] {
        for (int i = 0; i < 200; ++i)
            mismatches[1] += Fisher(b, 2, 5, true) != pb || TwoByTwo(12, 5, 3, 17, Sta::TwoSided) != pc;
    });
    first.join();
    second.join();
    EXPECT_EQ(mismatches[0], 0);
    EXPECT_EQ(mismatches[1], 0);
}
