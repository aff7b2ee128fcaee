// Statistics of the data vector: agreement with numpy/scipy on committed
// data, and the -99 rules at the edges.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/NCError.h"

#include "containers/VectorChecks.h"

#include "containers/fixtures/VectorReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>
#include <span>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

using Results = std::vector<double>;
// A result, its reference value and the allowed difference, under a name.
using Check = std::tuple<const char*, double, double, double>;

// The first n values of a reference array (all of them by default).
template <class T>
NCDataVector<T> FromArray(std::span<const float> values, int n = -1)
{
    const std::span<const float> used = n < 0 ? values : values.first(static_cast<std::size_t>(n));
    NCDataVector<T> v(static_cast<int>(used.size()));
    int i = 0;
    for (const float value : used)
        v(++i, static_cast<T>(value));
    return v;
}

// Each listed result must be exactly the missing value; the index names the culprit.
void ExpectAllMissing(std::initializer_list<double> results)
{
    int i = 0;
    for (double r : results)
        EXPECT_EQ(r, -99.0) << "result #" << i++;
}

void ExpectNear(std::initializer_list<Check> checks)
{
    for (const auto& [name, got, want, within] : checks)
        EXPECT_NEAR(got, want, within) << name;
}

template <class T>
class VectorStats : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VectorStats, ElementTypes);

template <class V, class R>
void ExpectMatchesReference(const V& v, const R& r)
{
    const double tol = 1e-9;
    EXPECT_EQ((std::vector<int>{v.Size(), v.GetNumValidValues()}), (std::vector<int>{r.n, r.valid}));
    double q1 = 0, med = 0, q3 = 0;
    EXPECT_TRUE(v.GetInterquartiles(q1, med, q3));
    // Sum of squares about the mean is the variance times the degrees of freedom.
    ExpectNear({{"sum", v.GetSum(), r.sum, tol * 100},
                {"mean", v.GetMean(), r.mean, tol},
                {"variance", v.GetVariance(), r.var, tol},
                {"sd", v.GetStdDev(), r.sd, tol},
                {"median", v.GetMedian(), r.median, tol},
                {"skewness", v.GetSkewness(), r.skew, 1e-8},
                {"kurtosis", v.GetKurtosis(), r.kurt, 1e-8},
                {"q1", q1, r.q1, tol},
                {"q2", med, r.median, tol},
                {"q3", q3, r.q3, tol},
                {"iqr", v.GetInterquartileRange(), r.q3 - r.q1, tol},
                {"ss", v.GetSS(v.GetMean()), r.var * (r.valid - 1), 1e-7}});
    typename V::value_type lo{}, hi{};
    v.GetMinMax(lo, hi);
    EXPECT_DOUBLE_EQ(lo, r.min);
    EXPECT_DOUBLE_EQ(hi, r.max);
}

// Products are formed in the element type, so agreement is to float accuracy.
template <class T, class P>
void ExpectPairMatches(const NCDataVector<T>& a, const NCDataVector<T>& b, const P& r)
{
    const double tol = 1e-6;
    double intercept = 0, slope = 0;
    a.LeastSquare(b, intercept, slope);
    ExpectNear({{"covariance", a.Covariance(b), r.cov, tol},
                {"correlation", a.Correlation_Mean(b), r.corr, tol},
                {"correlation about 0", a.Correlation_Zero(b), r.corr0, tol},
                {"regress", a.Regress(b), r.regress, tol},
                {"nipals", a.SpecialNipalsRegressFix(b), r.nipals, tol},
                {"distance", a.Distance(b), r.distance, tol * 10},
                {"difference", a.Difference(b), r.difference, tol},
                {"slope", slope, r.slope, tol},
                {"intercept", intercept, r.intercept, tol}});
}

TYPED_TEST(VectorStats, AgreeWithNumpyAndScipy)
{
    ExpectMatchesReference(FromArray<TypeParam>(vref::A), vref::statsA);
    ExpectMatchesReference(FromArray<TypeParam>(vref::B), vref::statsB);
    ExpectMatchesReference(FromArray<TypeParam>(vref::C), vref::statsC);
    ExpectPairMatches(FromArray<TypeParam>(vref::A), FromArray<TypeParam>(vref::B), vref::pairAB);
    ExpectPairMatches(FromArray<TypeParam>(vref::A, vref::pairAC.n), FromArray<TypeParam>(vref::C), vref::pairAC);
    // The skewness test is the skewness over its standard error.
    const double n = vref::statsB.valid;
    const double se = std::sqrt(6.0 * n * (n - 1) / ((n - 2) * (n + 1) * (n + 3)));
    EXPECT_NEAR(FromArray<TypeParam>(vref::B).GetSkewnessTest(), vref::statsB.skew / se, 1e-8);
    if constexpr (std::is_same_v<TypeParam, float>) {
        // The reference squares the float values in float before summing in double.
        const auto v = FromArray<float>(vref::A);
        EXPECT_DOUBLE_EQ(v.GetSS(), vref::statsA.ss);
        EXPECT_FLOAT_EQ(v.GetMeanF(), static_cast<float>(vref::statsA.mean));
    }
}

TYPED_TEST(VectorStats, UndefinedAndDegenerateSeries)
{
    for (const NCDataVector<TypeParam>& v : {NCDataVector<TypeParam>(), NCDataVector<TypeParam>(4, TypeParam(-99))}) {
        EXPECT_TRUE(v.HasAllMissingValues());
        EXPECT_FALSE(v.HasValidValues());
        EXPECT_EQ(v.GetSS(), 0.0);
        TypeParam lo = 0, hi = 0;
        v.GetMinMax(lo, hi);
        double q1 = 0, med = 0, q3 = 0;
        EXPECT_FALSE(v.GetInterquartiles(q1, med, q3));
        ExpectAllMissing({v.GetMean(), v.GetSum(), v.GetMedian(), v.GetVariance(), v.GetStdDev(), v.GetSS(1.0),
                          v.GetSkewness(), v.GetSkewnessTest(), v.GetKurtosis(), v.GetRobustStdDev(),
                          double(v.FirstValidValue()), double(lo), double(hi), q1, q3});
    }
    // One valid value has zero variance but no standard deviation.
    const auto one = Vec<TypeParam>({-99, 4, -99});
    EXPECT_EQ((Results{one.GetMean(), one.GetVariance(), one.GetMedian(), double(one.FirstValidValue()),
                       double(one.LastValidValue())}),
              (Results{4, 0, 4, 4, 4}));
    ExpectAllMissing({one.GetStdDev(), one.GetInterquartileRange()});
    // A mean that lands on -99 is nudged; being valid, the variance is taken about it.
    const auto nudged = Vec<TypeParam>({-98, -100});
    EXPECT_EQ(nudged.GetNumMisVal(), 0);
    EXPECT_DOUBLE_EQ(nudged.GetMean(), -99.00001);
    EXPECT_NE(nudged.GetMeanF(), -99.0f);
    EXPECT_NEAR(nudged.GetVariance(), 2.0, 1e-6);
    // NaN is an ordinary value.
    const NCDataVector<TypeParam> withNaN{TypeParam(1), std::numeric_limits<TypeParam>::quiet_NaN(), TypeParam(-99)};
    EXPECT_EQ(withNaN.GetNumMisVal(), 1);
    EXPECT_TRUE(std::isnan(withNaN.GetMean()));
    // A constant series has no shape.
    const NCDataVector<TypeParam> constant(6, TypeParam(3));
    EXPECT_EQ((Results{constant.GetStdDev(), constant.GetInterquartileRange()}), (Results{0, 0}));
    ExpectAllMissing({constant.GetSkewness(), constant.GetKurtosis()});
}

TYPED_TEST(VectorStats, MedianAndQuartilesOnSmallCounts)
{
    // Values out of order and with gaps, so sorting and skipping both matter.
    const struct { NCDataVector<TypeParam> v; double q1, median, q3;
    } cases[] = {{Vec<TypeParam>({5, -99, 1}), 1, 3, 5},
                 {Vec<TypeParam>({3, 1, -99, 2}), 1, 2, 3},
                 {Vec<TypeParam>({4, 1, 3, 2}), 1.5, 2.5, 3.5},
                 {Vec<TypeParam>({5, 1, 4, -99, 2, 3}), 1.5, 3, 4.5},
                 {Vec<TypeParam>({6, 2, 5, 1, 4, 3, 7}), 2, 4, 6}};
    for (const auto& c : cases) {
        double q1 = 0, med = 0, q3 = 0;
        ASSERT_TRUE(c.v.GetInterquartiles(q1, med, q3));
        EXPECT_EQ((Results{q1, med, q3, c.v.GetMedian()}), (Results{c.q1, c.median, c.q3, c.median}));
    }
}

TYPED_TEST(VectorStats, RobustStdDevEstimatesNormalSpread)
{
    // Evenly spaced normal quantiles (by bisection on the distribution function):
    // the robust estimate is close to 1 while one wild value barely moves it.
    const int n = 401;
    NCDataVector<TypeParam> v(n);
    for (int i = 1; i <= n; ++i) {
        const double p = (i - 0.5) / n;
        double lo = -10, hi = 10;
        for (int it = 0; it < 100; ++it) {
            const double mid = 0.5 * (lo + hi);
            (0.5 * std::erfc(-mid / std::sqrt(2.0)) < p ? lo : hi) = mid;
        }
        v(i, static_cast<TypeParam>(0.5 * (lo + hi)));
    }
    EXPECT_NEAR(v.GetRobustStdDev(), 1.0, 0.02);
    v(n, TypeParam(1e6));
    EXPECT_NEAR(v.GetRobustStdDev(), 1.0, 0.02);
    EXPECT_GT(v.GetStdDev(), 1000.0);
}

TYPED_TEST(VectorStats, NipalsFloorExclusionAndMissingSlope)
{
    // One complete pair with a tiny V1, and large V1 values facing missing V2:
    // the floor limits the slope.
    const auto v1 = Vec<TypeParam>({0.1, 3, 3}), v2 = Vec<TypeParam>({1, -99, -99});
    EXPECT_NEAR(v1.Regress(v2), 10.0, 1e-5);
    EXPECT_NEAR(v1.SpecialNipalsRegressFix(v2), 0.1 / ((0.1f * 0.1f + 9.0 + 9.0) / 3.0), 1e-6);
    // Exclusion skips the named class.
    const auto x = Vec<TypeParam>({1, 2, 3, 4}), y = Vec<TypeParam>({2, 100, 6, 8});
    const NCIntegralVector<int, -99> classes{1, 2, 1, 0};
    double s12 = 0, s11 = 0, s11all = 0;
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, x, y, &classes, 2);
    EXPECT_EQ((Results{s12, s11, s11all}), (Results{2.0 + 18.0 + 32.0, 1.0 + 9.0 + 16.0, 1.0 + 9.0 + 16.0}));
    EXPECT_DOUBLE_EQ(x.SpecialNipalsRegressFixWithExclude(y, classes, 2), 2.0);
    // Excluding a class nobody has keeps every element.
    EXPECT_NE(x.SpecialNipalsRegressFixWithExclude(y, classes, 7), 2.0);
    // No complete pairs: nothing is defined.
    const auto w1 = Vec<TypeParam>({1, -99, 2}), w2 = Vec<TypeParam>({-99, 5, -99});
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, w1, w2, nullptr, 0);
    ExpectAllMissing({s12, s11, w1.Regress(w2), w1.SpecialNipalsRegressFix(w2), w1.Difference(w2), w1.Distance(w2),
                      w1.Correlation_Zero(w2), w1.Covariance(w2), w1 * w2});
    // A zero V1 has sums but no slope.
    const NCDataVector<TypeParam> zeros(3, TypeParam(0)), abc = Vec<TypeParam>({1, 2, 3});
    s12 = s11 = s11all = 1;
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, zeros, abc, nullptr, 0);
    EXPECT_EQ((Results{s12, s11}), (Results{0, 0}));
    // Last: complete pairs whose V1 is zero, with the non-zero V1 facing a missing V2.
    ExpectAllMissing({zeros.Regress(abc), zeros.SpecialNipalsRegressFix(abc),
                      Vec<TypeParam>({0, 5, 0}).Regress(Vec<TypeParam>({1, -99, 2}))});
}

TYPED_TEST(VectorStats, DifferenceDistanceAndCorrelationAboutZero)
{
    const NCDataVector<TypeParam> empty, zeros(2, TypeParam(0)), ones(2, TypeParam(1)), twos(2, TypeParam(2));
    EXPECT_EQ((Results{empty.Difference(empty), zeros.Difference(ones), ones.Difference(ones)}),
              (Results{1e30, 1e30, 0}));
    EXPECT_DOUBLE_EQ(twos.Difference(ones), 0.25);
    // Distance over pairs complete on both sides.
    const auto b = Vec<TypeParam>({4, 0, 9});
    EXPECT_DOUBLE_EQ(Vec<TypeParam>({1, 4, -99}).Distance(b), 5.0);
    const NCDataVector<TypeParam> withInf{TypeParam(1), std::numeric_limits<TypeParam>::infinity()};
    ExpectAllMissing({withInf.Difference(ones), withInf.Distance(ones),
                      NCDataVector<TypeParam>(3, TypeParam(-99)).Distance(b), empty.Distance(empty)});
    // Correlation about zero is clamped, and falls back to the cross product
    // when the sums of squares multiply to below 1e-30.
    const auto a = Vec<TypeParam>({1, 2}), a2 = Vec<TypeParam>({2, 4});
    EXPECT_DOUBLE_EQ(a.Correlation_Zero(a2), 1.0);
    EXPECT_DOUBLE_EQ(a.Correlation_Zero(a2 * -1.0), -1.0);
    const auto tiny = Vec<TypeParam>({1e-16, 0});
    EXPECT_NEAR(tiny.Correlation_Zero(a2), 2e-16, 1e-20);
    EXPECT_DOUBLE_EQ(tiny.Correlation_Zero(Vec<TypeParam>({3e16, 0})), 1.0);
    ExpectAllMissing({NCDataVector<TypeParam>(2, TypeParam(-99)).Correlation_Zero(a2),
                      a.Correlation_Mean(NCDataVector<TypeParam>(2, TypeParam(7)))});
}

TYPED_TEST(VectorStats, SizeMismatchNamesTheMember)
{
    const NCDataVector<TypeParam> a(3, TypeParam(1)), b(4, TypeParam(1));
    const auto expectWhere = [](const auto& call, const char* where) {
        try {
            call();
            ADD_FAILURE() << "no exception from " << where;
        } catch (const NCInternalError& e) {
            EXPECT_EQ(e.GetWhere(), where);
            EXPECT_EQ(e.messages().messages().at(0).source(), "Vectors are of different size.");
            EXPECT_EQ(e.GetLevel(), NCError::Error);
        }
    };
    expectWhere([&] { a.Difference(b); }, "NCDataVector<FloatType>::Difference");
    expectWhere([&] { a.Distance(b); }, "NCDataVector<FloatType>::Distance");
    EXPECT_THROW(a.Regress(b), NCInternalError);
    EXPECT_THROW(a.Correlation_Mean(b), NCInternalError);
    EXPECT_THROW(NCDataVector<TypeParam>(a).Add(b), NCInternalError);
    EXPECT_THROW(a * b, NCInternalError);
    EXPECT_THROW(a.SpecialNipalsRegressFixWithExclude(a, NCIntegralVector<int, -99>{1, 2}, 1), NCInternalError);
}

} // namespace
