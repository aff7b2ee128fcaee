#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <boost/math/distributions/normal.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <random>
#include <vector>

namespace normality_test {
// Reaches the published routines behind the test.
class ShapiroWilkInternals {
public:
    static double Ppnd7(double p, int& fault) { return ms_shapiro_wilk::ppnd7(p, fault); }
    static double Alnorm(double x, bool upper) { return ms_shapiro_wilk::alnorm(x, upper); }
};
} // namespace normality_test

namespace {

using normality_test::ms_shapiro_wilk;

#include "spc/fixtures/ShapiroReference.inc"

struct Result {
    double w = 0.0, p = 0.0;
    int fault = 0;
};

Result ShapiroOf(std::vector<double> values, bool sort = true, long n1 = -1)
{
    if (sort)
        std::sort(values.begin(), values.end());
    ms_shapiro_wilk test;
    for (double v : values)
        test.appendSampleValue(v);
    const long n = static_cast<long>(values.size());
    test.calculate(n, n1 < 0 ? n : n1, n / 2);
    return {test.getResult(), test.getPValue(), static_cast<int>(test.getErrorCode())};
}

} // namespace

// W and p of R's shapiro.test for normal, uniform and exponential samples of
// 4 to 5000 values. R takes the coefficients' normal quantiles and the
// p-value's tail area to double precision; the published PPND7 gives about
// seven digits and AS 66 about eight in the central range, which leaves W
// within 4e-8 of R's and p within 4e-6 relative (the largest differences
// over these samples).
TEST(ShapiroWilk, AgreesWithR)
{
    for (int s = 0; s < ShapiroSamples; ++s) {
        const std::vector<double> x(ShapiroValues + ShapiroStart[s], ShapiroValues + ShapiroStart[s] + ShapiroCount[s]);
        const Result r = ShapiroOf(x);
        EXPECT_EQ(r.fault, 0) << "sample " << s;
        EXPECT_NEAR(r.w, ShapiroW[s], 5e-8) << "sample " << s << ", n " << ShapiroCount[s];
        EXPECT_NEAR(r.p, ShapiroP[s], 5e-6 * ShapiroP[s]) << "sample " << s << ", n " << ShapiroCount[s];
    }
}

// The published companions: AS 241 to about seven digits, AS 66 in both tails.
TEST(ShapiroWilk, QuantileAndTailRoutines)
{
    const boost::math::normal normal;
    double worst = 0.0;
    for (double p : {1e-300, 1e-20, 1e-8, 0.001, 0.02, 0.0751, 0.2, 0.5, 0.6, 0.9, 0.999, 1 - 1e-12}) {
        int fault = -1;
        const double z = normality_test::ShapiroWilkInternals::Ppnd7(p, fault);
        EXPECT_EQ(fault, 0);
        const double exact = boost::math::quantile(normal, p);
        worst = std::max(worst, std::abs(z - exact) / std::max(1.0, std::abs(exact)));
    }
    EXPECT_LT(worst, 3e-7);
    for (double p : {0.0, 1.0, -0.5}) {
        int fault = 0;
        normality_test::ShapiroWilkInternals::Ppnd7(p, fault);
        EXPECT_EQ(fault, 1) << p;
    }
    // The rational part (|x| up to 1.28) is good to about 1e-8, the
    // continued fraction beyond it to about 1e-12 relative.
    for (double x : {-8.0, -3.0, -1.0, 0.0, 0.5, 1.2, 1.4, 3.0, 6.0, 10.0}) {
        for (const bool upper : {true, false}) {
            const double exact = upper ? boost::math::cdf(boost::math::complement(normal, x))
                                       : boost::math::cdf(normal, x);
            const double tolerance = std::abs(x) <= 1.28 ? 2e-8 : std::max(1e-10 * exact, 1e-15);
            EXPECT_NEAR(normality_test::ShapiroWilkInternals::Alnorm(x, upper), exact, tolerance) << x;
        }
    }
    EXPECT_EQ(normality_test::ShapiroWilkInternals::Alnorm(20.0, true), 0.0);
    EXPECT_EQ(normality_test::ShapiroWilkInternals::Alnorm(-20.0, true), 1.0);
}

TEST(ShapiroWilk, EdgesAndFaultCodes)
{
    // Three values: a1 = 0.70711, W = (x3 - x1)^2 / (2 SS), and the exact
    // p-value, not clamped: at the smallest possible W, 0.75, it is below 0.
    const Result three = ShapiroOf({4, 1, 2});
    EXPECT_EQ(three.fault, 0);
    EXPECT_NEAR(three.w, 9.0 / (2.0 * 42.0 / 9.0), 1e-12);
    EXPECT_NEAR(three.p, 1.909859 * (std::asin(std::sqrt(three.w)) - 1.047198), 1e-15);
    const Result lowest = ShapiroOf({0, 0, 1});
    EXPECT_NEAR(lowest.w, 0.75, 1e-12);
    EXPECT_LT(lowest.p, 0.0);
    ms_shapiro_wilk coefficients;
    for (double v : {1.0, 2.0, 4.0})
        coefficients.appendSampleValue(v);
    std::deque<double> a;
    double w = 0.0, pw = 0.0;
    int fault = -1;
    ms_shapiro_wilk::swilk(false, {{0, 1.0}, {1, 2.0}, {2, 4.0}}, 3, 3, 1, a, w, pw, fault);
    ASSERT_EQ(a.size(), 1u);
    EXPECT_EQ(a[0], 0.70711);

    EXPECT_EQ(ShapiroOf({1, 2}).fault, 1);
    EXPECT_EQ(ShapiroOf({}).fault, 1);
    EXPECT_EQ(ShapiroOf({5, 5, 5, 5, 5}).fault, 6);
    EXPECT_EQ(ShapiroOf({1, 3, 2, 4, 5}, false).fault, 7);
    // Too few coefficients asked for.
    ms_shapiro_wilk few;
    for (double v : {1.0, 2.0, 3.0, 4.0})
        few.appendSampleValue(v);
    few.calculate(4, 4, 1);
    EXPECT_EQ(few.getErrorCode(), 3.0);

    // More than 5000 values: a warning, and W and p all the same.
    std::vector<double> many(5001);
    std::mt19937 rng(11);
    std::normal_distribution<double> normal;
    for (double& v : many)
        v = normal(rng);
    const Result big = ShapiroOf(many);
    EXPECT_EQ(big.fault, 2);
    EXPECT_GT(big.w, 0.99);
    EXPECT_GT(big.p, 0.001);
    EXPECT_LE(big.p, 1.0);

    // A negative W on entry asks for the p-value of -W alone.
    std::deque<double> sameA = a;
    ms_shapiro_wilk::swilk(true, {}, 20, 20, 10, sameA, w = -0.9, pw, fault);
    EXPECT_EQ(fault, 0);
    EXPECT_NEAR(w, 0.9, 1e-15);
    EXPECT_GT(pw, 0.0);
    EXPECT_LT(pw, 0.1);
}

// Censoring: only the n1 smallest values are used. Fewer than 20 values, or
// more than 80 % censored, cannot be judged; a censored normal sample keeps
// a sensible p-value, and the smaller, more informative censoring judges a
// planted outlier among the censored values as unseen.
TEST(ShapiroWilk, CensoredSamples)
{
    std::vector<double> x(40);
    std::mt19937 rng(4);
    std::normal_distribution<double> normal;
    for (double& v : x)
        v = normal(rng);
    std::sort(x.begin(), x.end());
    EXPECT_EQ(ShapiroOf(std::vector<double>(x.begin(), x.begin() + 19), true, 15).fault, 4);
    EXPECT_EQ(ShapiroOf(x, true, 7).fault, 5);
    EXPECT_EQ(ShapiroOf(x, true, 41).fault, 4);
    EXPECT_EQ(ShapiroOf(x, true, 2).fault, 1);
    const Result full = ShapiroOf(x), censored = ShapiroOf(x, true, 30);
    EXPECT_EQ(censored.fault, 0);
    EXPECT_GT(censored.p, 0.05);
    EXPECT_LE(censored.p, 1.0);
    EXPECT_NE(censored.w, full.w);
    std::vector<double> outlier = x;
    outlier.back() = 50.0;
    EXPECT_LT(ShapiroOf(outlier).p, 1e-6);
    EXPECT_NEAR(ShapiroOf(outlier, true, 30).p, censored.p, 1e-12);
}
