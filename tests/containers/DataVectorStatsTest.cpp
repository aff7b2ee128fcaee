// Statistics of the data vector: agreement with numpy/scipy on committed
// data, and the -99 rules at the edges.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/NCError.h"

#include "containers/fixtures/VectorReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>

namespace {

template <class T, std::size_t N>
NCDataVector<T> FromArray(const float (&values)[N], int n = static_cast<int>(N))
{
    NCDataVector<T> v(n);
    for (int i = 1; i <= n; ++i)
        v(i, static_cast<T>(values[i - 1]));
    return v;
}

template <class T>
class VectorStats : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VectorStats, ElementTypes);

template <class V, class R>
void ExpectMatchesReference(const V& v, const R& r)
{
    const double tol = 1e-9;
    EXPECT_EQ(v.Size(), r.n);
    EXPECT_EQ(v.GetNumValidValues(), r.valid);
    EXPECT_NEAR(v.GetSum(), r.sum, tol * 100);
    EXPECT_NEAR(v.GetMean(), r.mean, tol);
    EXPECT_NEAR(v.GetVariance(), r.var, tol);
    EXPECT_NEAR(v.GetStdDev(), r.sd, tol);
    EXPECT_NEAR(v.GetMedian(), r.median, tol);
    EXPECT_NEAR(v.GetSkewness(), r.skew, 1e-8);
    EXPECT_NEAR(v.GetKurtosis(), r.kurt, 1e-8);
    double q1 = 0, med = 0, q3 = 0;
    EXPECT_TRUE(v.GetInterquartiles(q1, med, q3));
    EXPECT_NEAR(q1, r.q1, tol);
    EXPECT_NEAR(med, r.median, tol);
    EXPECT_NEAR(q3, r.q3, tol);
    EXPECT_NEAR(v.GetInterquartileRange(), r.q3 - r.q1, tol);
    typename V::value_type lo{}, hi{};
    v.GetMinMax(lo, hi);
    EXPECT_DOUBLE_EQ(lo, r.min);
    EXPECT_DOUBLE_EQ(hi, r.max);
    // Sum of squares about the mean is the variance times the degrees of freedom.
    EXPECT_NEAR(v.GetSS(v.GetMean()), r.var * (r.valid - 1), 1e-7);
}

TYPED_TEST(VectorStats, AgreeWithNumpyAndScipy)
{
    ExpectMatchesReference(FromArray<TypeParam>(vref::A), vref::statsA);
    ExpectMatchesReference(FromArray<TypeParam>(vref::B), vref::statsB);
    ExpectMatchesReference(FromArray<TypeParam>(vref::C), vref::statsC);
}

TEST(VectorStatsFloat, SquaresAreFormedInFloat)
{
    // The reference squares the float values in float before summing in double.
    const auto v = FromArray<float>(vref::A);
    EXPECT_DOUBLE_EQ(v.GetSS(), vref::statsA.ss);
    EXPECT_FLOAT_EQ(v.GetMeanF(), static_cast<float>(vref::statsA.mean));
}

TYPED_TEST(VectorStats, EmptyAndAllMissingAreUndefined)
{
    for (const NCDataVector<TypeParam>& v : {NCDataVector<TypeParam>(), NCDataVector<TypeParam>(4, TypeParam(-99))}) {
        EXPECT_TRUE(v.HasAllMissingValues());
        EXPECT_FALSE(v.HasValidValues());
        EXPECT_EQ(v.GetMean(), -99.0);
        EXPECT_EQ(v.GetSum(), -99.0);
        EXPECT_EQ(v.GetMedian(), -99.0);
        EXPECT_EQ(v.GetVariance(), -99.0);
        EXPECT_EQ(v.GetStdDev(), -99.0);
        EXPECT_EQ(v.GetSS(1.0), -99.0);
        EXPECT_EQ(v.GetSS(), 0.0);
        EXPECT_EQ(v.GetSkewness(), -99.0);
        EXPECT_EQ(v.GetSkewnessTest(), -99.0);
        EXPECT_EQ(v.GetKurtosis(), -99.0);
        EXPECT_EQ(v.GetRobustStdDev(), -99.0);
        EXPECT_EQ(v.FirstValidValue(), TypeParam(-99));
        TypeParam lo = 0, hi = 0;
        v.GetMinMax(lo, hi);
        EXPECT_EQ(lo, TypeParam(-99));
        EXPECT_EQ(hi, TypeParam(-99));
        double q1 = 0, med = 0, q3 = 0;
        EXPECT_FALSE(v.GetInterquartiles(q1, med, q3));
        EXPECT_EQ(q1, -99.0);
        EXPECT_EQ(q3, -99.0);
    }
}

TYPED_TEST(VectorStats, OneValidValueHasZeroVarianceButNoStdDev)
{
    const NCDataVector<TypeParam> v{TypeParam(-99), TypeParam(4), TypeParam(-99)};
    EXPECT_EQ(v.GetMean(), 4.0);
    EXPECT_EQ(v.GetVariance(), 0.0);
    EXPECT_EQ(v.GetStdDev(), -99.0);
    EXPECT_EQ(v.GetMedian(), 4.0);
    EXPECT_EQ(v.GetInterquartileRange(), -99.0);
    EXPECT_EQ(v.FirstValidValue(), TypeParam(4));
    EXPECT_EQ(v.LastValidValue(), TypeParam(4));
}

TYPED_TEST(VectorStats, MeanThatLandsOnMissingIsNudged)
{
    const NCDataVector<TypeParam> v{TypeParam(-98), TypeParam(-100)};
    EXPECT_EQ(v.GetNumMisVal(), 0);
    EXPECT_DOUBLE_EQ(v.GetMean(), -99.00001);
    EXPECT_NE(v.GetMeanF(), -99.0f);
    // The nudged mean is valid, so the variance is computed about it.
    EXPECT_NEAR(v.GetVariance(), 2.0, 1e-6);
}

TYPED_TEST(VectorStats, NaNIsAnOrdinaryValue)
{
    const TypeParam nan = std::numeric_limits<TypeParam>::quiet_NaN();
    NCDataVector<TypeParam> v{TypeParam(1), nan, TypeParam(-99)};
    EXPECT_EQ(v.GetNumMisVal(), 1);
    EXPECT_TRUE(std::isnan(v.GetMean()));
}

TYPED_TEST(VectorStats, ConstantSeriesHasNoShape)
{
    const NCDataVector<TypeParam> v(6, TypeParam(3));
    EXPECT_EQ(v.GetStdDev(), 0.0);
    EXPECT_EQ(v.GetSkewness(), -99.0);
    EXPECT_EQ(v.GetKurtosis(), -99.0);
    EXPECT_EQ(v.GetInterquartileRange(), 0.0);
}

TYPED_TEST(VectorStats, MedianAndQuartilesOnSmallCounts)
{
    // Values out of order and with gaps, so sorting and skipping both matter.
    const TypeParam m = TypeParam(-99);
    struct Case {
        NCDataVector<TypeParam> v;
        double q1, median, q3;
    };
    const Case cases[] = {
        {{TypeParam(5), m, TypeParam(1)}, 1, 3, 5},
        {{TypeParam(3), TypeParam(1), m, TypeParam(2)}, 1, 2, 3},
        {{TypeParam(4), TypeParam(1), TypeParam(3), TypeParam(2)}, 1.5, 2.5, 3.5},
        {{TypeParam(5), TypeParam(1), TypeParam(4), m, TypeParam(2), TypeParam(3)}, 1.5, 3, 4.5},
        {{TypeParam(6), TypeParam(2), TypeParam(5), TypeParam(1), TypeParam(4), TypeParam(3), TypeParam(7)}, 2, 4, 6},
    };
    for (const Case& c : cases) {
        double q1 = 0, med = 0, q3 = 0;
        ASSERT_TRUE(c.v.GetInterquartiles(q1, med, q3));
        EXPECT_EQ(q1, c.q1);
        EXPECT_EQ(med, c.median);
        EXPECT_EQ(q3, c.q3);
        EXPECT_EQ(c.v.GetMedian(), c.median);
    }
}

TYPED_TEST(VectorStats, RobustStdDevEstimatesNormalSpread)
{
    // Evenly spaced normal quantiles: the robust estimate is close to 1
    // while one wild value barely moves it.
    const int n = 401;
    NCDataVector<TypeParam> v(n);
    // Normal quantiles by bisection on the distribution function.
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

TYPED_TEST(VectorStats, SkewnessTestIsSkewnessOverItsStandardError)
{
    const auto v = FromArray<TypeParam>(vref::B);
    const double n = vref::statsB.valid;
    const double se = std::sqrt(6.0 * n * (n - 1) / ((n - 2) * (n + 1) * (n + 3)));
    EXPECT_NEAR(v.GetSkewnessTest(), vref::statsB.skew / se, 1e-8);
}

// ---- pair statistics ---------------------------------------------------

// Products are formed in the element type, so agreement is to float accuracy.
template <class T, class P>
void ExpectPairMatches(const NCDataVector<T>& a, const NCDataVector<T>& b, const P& r)
{
    const double tol = 1e-6;
    EXPECT_NEAR(a.Covariance(b), r.cov, tol);
    EXPECT_NEAR(a.Correlation_Mean(b), r.corr, tol);
    EXPECT_NEAR(a.Correlation_Zero(b), r.corr0, tol);
    EXPECT_NEAR(a.Regress(b), r.regress, tol);
    EXPECT_NEAR(a.SpecialNipalsRegressFix(b), r.nipals, tol);
    EXPECT_NEAR(a.Distance(b), r.distance, tol * 10);
    EXPECT_NEAR(a.Difference(b), r.difference, tol);
    double intercept = 0, slope = 0;
    a.LeastSquare(b, intercept, slope);
    EXPECT_NEAR(slope, r.slope, tol);
    EXPECT_NEAR(intercept, r.intercept, tol);
}

TYPED_TEST(VectorStats, PairStatisticsAgreeWithNumpyAndScipy)
{
    ExpectPairMatches(FromArray<TypeParam>(vref::A), FromArray<TypeParam>(vref::B), vref::pairAB);
    ExpectPairMatches(FromArray<TypeParam>(vref::A, vref::pairAC.n), FromArray<TypeParam>(vref::C), vref::pairAC);
}

TYPED_TEST(VectorStats, NipalsFloorLimitsTheSlopeWhenMostOfV2IsMissing)
{
    const TypeParam m = TypeParam(-99);
    // One complete pair with a tiny V1, and large V1 values facing missing V2.
    const NCDataVector<TypeParam> v1{TypeParam(0.1), TypeParam(3), TypeParam(3)};
    const NCDataVector<TypeParam> v2{TypeParam(1), m, m};
    EXPECT_NEAR(v1.Regress(v2), 10.0, 1e-5);
    const double s11all = 0.1f * 0.1f + 9.0 + 9.0;
    EXPECT_NEAR(v1.SpecialNipalsRegressFix(v2), 0.1 / (s11all / 3.0), 1e-6);
}

TYPED_TEST(VectorStats, ExclusionSkipsTheNamedClass)
{
    const NCDataVector<TypeParam> v1{TypeParam(1), TypeParam(2), TypeParam(3), TypeParam(4)};
    const NCDataVector<TypeParam> v2{TypeParam(2), TypeParam(100), TypeParam(6), TypeParam(8)};
    const NCIntegralVector<int, -99> classes{1, 2, 1, 0};
    double s12 = 0, s11 = 0, s11all = 0;
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, v1, v2, &classes, 2);
    EXPECT_EQ(s12, 2.0 + 18.0 + 32.0);
    EXPECT_EQ(s11, 1.0 + 9.0 + 16.0);
    EXPECT_EQ(s11all, s11);
    EXPECT_DOUBLE_EQ(v1.SpecialNipalsRegressFixWithExclude(v2, classes, 2), 2.0);
    // Excluding a class nobody has keeps every element.
    EXPECT_NE(v1.SpecialNipalsRegressFixWithExclude(v2, classes, 7), 2.0);
}

TYPED_TEST(VectorStats, SumsWithoutCompletePairs)
{
    const TypeParam m = TypeParam(-99);
    const NCDataVector<TypeParam> v1{TypeParam(1), m, TypeParam(2)};
    const NCDataVector<TypeParam> v2{m, TypeParam(5), m};
    double s12 = 0, s11 = 0, s11all = 0;
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, v1, v2, nullptr, 0);
    EXPECT_EQ(s12, -99.0);
    EXPECT_EQ(s11, -99.0);
    EXPECT_EQ(v1.Regress(v2), -99.0);
    EXPECT_EQ(v1.SpecialNipalsRegressFix(v2), -99.0);
    EXPECT_EQ(v1.Difference(v2), -99.0);
    EXPECT_EQ(v1.Distance(v2), -99.0);
    EXPECT_EQ(v1.Correlation_Zero(v2), -99.0);
    EXPECT_EQ(v1.Covariance(v2), -99.0);
    EXPECT_EQ(v1 * v2, -99.0);
}

TYPED_TEST(VectorStats, TinyV1HasNoSlope)
{
    const NCDataVector<TypeParam> zeros(3, TypeParam(0));
    const NCDataVector<TypeParam> y{TypeParam(1), TypeParam(2), TypeParam(3)};
    double s12 = 1, s11 = 1, s11all = 1;
    NCDataVector<TypeParam>::Calculate_V1txV2_and_V1txV1(s12, s11, s11all, zeros, y, nullptr, 0);
    EXPECT_EQ(s12, 0.0);
    EXPECT_EQ(s11, 0.0);
    EXPECT_EQ(zeros.Regress(y), -99.0);
    EXPECT_EQ(zeros.SpecialNipalsRegressFix(y), -99.0);
    // Complete pairs whose V1 is zero, with the non-zero V1 facing a missing V2.
    const NCDataVector<TypeParam> v1{TypeParam(0), TypeParam(5), TypeParam(0)};
    const NCDataVector<TypeParam> v2{TypeParam(1), TypeParam(-99), TypeParam(2)};
    EXPECT_EQ(v1.Regress(v2), -99.0);
}

TYPED_TEST(VectorStats, DifferenceRules)
{
    const NCDataVector<TypeParam> empty;
    EXPECT_EQ(empty.Difference(empty), 1e30);
    const NCDataVector<TypeParam> zeros(2, TypeParam(0));
    const NCDataVector<TypeParam> ones(2, TypeParam(1));
    EXPECT_EQ(zeros.Difference(ones), 1e30);
    EXPECT_EQ(ones.Difference(ones), 0.0);
    const NCDataVector<TypeParam> twos(2, TypeParam(2));
    EXPECT_DOUBLE_EQ(twos.Difference(ones), 0.25);
    const TypeParam inf = std::numeric_limits<TypeParam>::infinity();
    const NCDataVector<TypeParam> withInf{TypeParam(1), inf};
    EXPECT_EQ(withInf.Difference(ones), -99.0);
    EXPECT_EQ(withInf.Distance(ones), -99.0);
}

TYPED_TEST(VectorStats, DistanceWithMissingOnOneSide)
{
    const TypeParam m = TypeParam(-99);
    const NCDataVector<TypeParam> a{TypeParam(1), TypeParam(4), m};
    const NCDataVector<TypeParam> b{TypeParam(4), TypeParam(0), TypeParam(9)};
    EXPECT_DOUBLE_EQ(a.Distance(b), 5.0);
    EXPECT_EQ(NCDataVector<TypeParam>(3, m).Distance(b), -99.0);
    EXPECT_EQ(NCDataVector<TypeParam>().Distance(NCDataVector<TypeParam>()), -99.0);
}

TYPED_TEST(VectorStats, CorrelationAboutZeroIsClampedAndFallsBackToTheCrossProduct)
{
    const NCDataVector<TypeParam> a{TypeParam(1), TypeParam(2)};
    const NCDataVector<TypeParam> b{TypeParam(2), TypeParam(4)};
    EXPECT_DOUBLE_EQ(a.Correlation_Zero(b), 1.0);
    EXPECT_DOUBLE_EQ(a.Correlation_Zero(b * -1.0), -1.0);
    // Sums of squares whose product is below 1e-30: the raw cross product.
    const NCDataVector<TypeParam> tiny{TypeParam(1e-16), TypeParam(0)};
    EXPECT_NEAR(tiny.Correlation_Zero(b), 2e-16, 1e-20);
    const NCDataVector<TypeParam> big{TypeParam(1e-16), TypeParam(0)};
    EXPECT_DOUBLE_EQ(big.Correlation_Zero(NCDataVector<TypeParam>{TypeParam(3e16), TypeParam(0)}), 1.0);
    EXPECT_EQ(NCDataVector<TypeParam>(2, TypeParam(-99)).Correlation_Zero(b), -99.0);
    EXPECT_EQ(a.Correlation_Mean(NCDataVector<TypeParam>(2, TypeParam(7))), -99.0);
}

TYPED_TEST(VectorStats, SizeMismatchNamesTheMember)
{
    const NCDataVector<TypeParam> a(3, TypeParam(1));
    const NCDataVector<TypeParam> b(4, TypeParam(1));
    try {
        a.Difference(b);
        FAIL() << "no exception";
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), "NCDataVector<FloatType>::Difference");
        EXPECT_EQ(e.messages().messages().at(0).source(), "Vectors are of different size.");
        EXPECT_EQ(e.GetLevel(), NCError::Error);
    }
    try {
        a.Distance(b);
        FAIL() << "no exception";
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), "NCDataVector<FloatType>::Distance");
    }
    EXPECT_THROW(a.Regress(b), NCInternalError);
    EXPECT_THROW(a.Correlation_Mean(b), NCInternalError);
    EXPECT_THROW(NCDataVector<TypeParam>(a).Add(b), NCInternalError);
    EXPECT_THROW(a * b, NCInternalError);
    const NCIntegralVector<int, -99> shortClasses{1, 2};
    EXPECT_THROW(a.SpecialNipalsRegressFixWithExclude(a, shortClasses, 1), NCInternalError);
}

} // namespace
