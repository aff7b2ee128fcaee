#include "veltancmat/spc/ControlChart.h"
#include "veltancmat/spc/ControlChartEnum.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

using Type = ControlChartEnum::ControlType;
constexpr float M = -99.0f;

NCDataVector<float> Vec(std::initializer_list<float> v)
{
    return NCDataVector<float>(v);
}

void ExpectVector(const NCDataVector<float>& v, std::initializer_list<float> expected, double tolerance = 1e-6)
{
    ASSERT_EQ(v.Size(), static_cast<int>(expected.size()));
    int i = 1;
    for (float e : expected) {
        if (e == M)
            EXPECT_EQ(v[i], M) << "element " << i;
        else
            EXPECT_NEAR(v[i], e, tolerance) << "element " << i;
        ++i;
    }
}

ControlChart Chart(Type type, const NCDataVector<float>& data, int n,
                   ControlChartEnum::EWMAType ewma = ControlChartEnum::EWMANone)
{
    return ControlChart(type, data, n, ewma);
}

// Four subgroups of five with ranges 4, 2, 6, 4 and means 10, 11, 9, 10.
const NCDataVector<float> FourOfFive =
    Vec({8, 9, 10, 11, 12, 10, 11, 11, 11, 12, 6, 8, 9, 10, 12, 8, 10, 10, 10, 12});

} // namespace

// Means skip missing values, a lone value has no standard deviation, and a
// trailing incomplete block is ignored.
TEST(ControlChart, SubgroupsBySize)
{
    const ControlChart ranges = Chart(ControlChartEnum::MeanRange, Vec({1, 2, 3, 4, M, 6, 7, 8, 9, 10}), 3);
    EXPECT_EQ(ranges.GetSubGroupSize(), 3);
    ExpectVector(*ranges.GetMeanVector(), {2, 5, 8});
    ExpectVector(*ranges.GetRangeVector(), {2, 2, 2});
    EXPECT_TRUE(ranges.GetStdDevVector()->empty());

    const ControlChart sds = Chart(ControlChartEnum::MeanStdDev, Vec({1, 2, 3, 4, M, 6, 5, M, M, M, M, M}), 3);
    ExpectVector(*sds.GetMeanVector(), {2, 5, 5, M});
    ExpectVector(*sds.GetStdDevVector(), {1, std::sqrt(2.0f), M, M});
    EXPECT_TRUE(sds.GetRangeVector()->empty());
    // The range of a partly filled subgroup is taken over its present values.
    const ControlChart lone = Chart(ControlChartEnum::MeanRange, Vec({5, M, M, 1, 7, 3}), 3);
    ExpectVector(*lone.GetRangeVector(), {0, 6});

    // The individual standard deviation is over every raw value.
    EXPECT_NEAR(ranges.GetStdDevIndividual(), Vec({1, 2, 3, 4, 6, 7, 8, 9, 10}).GetStdDev(), 1e-12);
    // A grand mean within float resolution of zero is exactly zero.
    EXPECT_EQ(Chart(ControlChartEnum::Individual, Vec({1e-8f}), 1).GetTarget(), 0.0);
    EXPECT_NEAR(Chart(ControlChartEnum::Individual, Vec({1e-6f}), 1).GetTarget(), 1e-6, 1e-12);
}

// Times 0, 1, 5 with interval 2: {0, 1}, an empty group, {5}; the average
// size counts only the groups closed before the walk ended.
TEST(ControlChart, SubgroupsByInterval)
{
    const NCDataVector<float> data = Vec({2, 4, 9});
    for (const auto& [times, interval] : {std::pair{Vec({0, 1, 5}), 2.0f}, std::pair{Vec({5, 4, 0}), -2.0f}}) {
        const ControlChart chart(ControlChartEnum::MeanRange, interval > 0 ? data : Vec({9, 4, 2}), times, interval,
                                 ControlChartEnum::EWMANone);
        ExpectVector(*chart.GetMeanVector(), interval > 0 ? std::initializer_list<float>{3, M, 9}
                                                          : std::initializer_list<float>{6.5f, M, 2});
        ExpectVector(*chart.GetRangeVector(), {interval > 0 ? 2.0f : 5.0f, M, 0});
        ExpectVector(chart.GetMeanGroupVector(), {interval > 0 ? 0.5f : 4.5f, M, interval > 0 ? 5.0f : 0.0f});
        EXPECT_EQ(chart.GetSubGroupVector(), (std::vector<int>{2, 0, 1}));
        EXPECT_EQ(chart.GetSubGroupSize(), 1);
        double largest = -1.0;
        EXPECT_DOUBLE_EQ(ControlChart::SubGroupRangeSize(times, interval, largest), 1.0);
        EXPECT_DOUBLE_EQ(largest, 2.0);
    }
    // Missing times and values are skipped; the walk starts at the first
    // present time; the last open group is closed after the walk.
    const NCDataVector<float> times = Vec({M, 0.5f, 1, 1.5f, 2.2f, 2.9f, 3.1f});
    const ControlChart chart(ControlChartEnum::Individual, Vec({7, 1, M, 3, 5, 7, 9}), times, 1.0f,
                             ControlChartEnum::EWMANone);
    ExpectVector(*chart.GetMeanVector(), {1, 4, 8});
    // The group sizes are those of the time axis.
    EXPECT_EQ(chart.GetSubGroupVector(), (std::vector<int>{2, 2, 2}));
    double largest = 0.0;
    EXPECT_DOUBLE_EQ(ControlChart::SubGroupRangeSize(times, 1.0f, largest), 4.0 / 3.0);
    EXPECT_EQ(chart.GetSubGroupSize(), 1);
    // No present time, or an interval of 0, gives no groups.
    EXPECT_DOUBLE_EQ(ControlChart::SubGroupRangeSize(Vec({M, M}), 1.0f, largest), 0.0);
    EXPECT_DOUBLE_EQ(largest, 0.0);
    EXPECT_EQ(ControlChart(ControlChartEnum::Individual, data, Vec({0, 1, 5}), 0.0f, ControlChartEnum::EWMANone)
                  .GetMeanVector()
                  ->Size(),
              0);
}

// The limits of each Shewhart type from the textbook factors for n = 5:
// A2 0.577, D3 0, D4 2.114, d2 2.326; A3 1.427, B3 0, B4 2.089, c4 0.9400.
TEST(ControlChart, ShewhartLimitsFromTheFactors)
{
    const ControlChart ranges = Chart(ControlChartEnum::MeanRange, FourOfFive, 5);
    EXPECT_DOUBLE_EQ(ranges.GetTarget(), 10.0);
    EXPECT_NEAR(ranges.GetRangeMean(), 4.0, 1e-6);
    EXPECT_NEAR(ranges.GetMeanUCL(), 10.0 + 0.577 * 4.0, 1e-5);
    EXPECT_NEAR(ranges.GetMeanLCL(), 10.0 - 0.577 * 4.0, 1e-5);
    EXPECT_NEAR(ranges.GetRangeUCL(), 2.114 * 4.0, 1e-5);
    EXPECT_EQ(ranges.GetRangeLCL(), 0.0);
    EXPECT_NEAR(ranges.GetStdDevProcess(), 4.0 / 2.326, 1e-5);

    const ControlChart sds = Chart(ControlChartEnum::MeanStdDev, FourOfFive, 5);
    const double sbar = sds.GetStdDevVector()->GetMean();
    EXPECT_NEAR(sds.GetStdDevMean(), sbar, 1e-12);
    EXPECT_NEAR(sds.GetMeanUCL(), 10.0 + 1.427 * sbar, 1e-5);
    EXPECT_NEAR(sds.GetStdDevUCL(), 2.089 * sbar, 1e-5);
    EXPECT_EQ(sds.GetStdDevLCL(), 0.0);
    EXPECT_NEAR(sds.GetStdDevProcess(), sbar / 0.94, 1e-5);

    // Subgroups of 7 have a lower range factor; of 30, factors past the tables.
    std::vector<float> many(210);
    for (std::size_t i = 0; i < many.size(); ++i)
        many[i] = static_cast<float>((i * 37) % 11);
    NCDataVector<float> big;
    big.CopyZeroBasedVector(many.data(), static_cast<int>(many.size()));
    const ControlChart seven = Chart(ControlChartEnum::MeanRange, big, 7);
    EXPECT_NEAR(seven.GetRangeLCL(), 0.076 * seven.GetRangeMean(), 1e-5);
    const ControlChart thirty = Chart(ControlChartEnum::MeanStdDev, big, 30);
    const double threeOverC4 = ControlChart::GetA3(30) * std::sqrt(30.0);
    EXPECT_NEAR(3.0 / threeOverC4, 0.99142, 1e-5);
    EXPECT_NEAR(thirty.GetStdDevProcess(), thirty.GetStdDevMean() / 0.99142, 1e-5);
    EXPECT_GT(thirty.GetStdDevLCL(), 0.0);
}

TEST(ControlChart, FactorsAndTheirFormulasPastTheTables)
{
    EXPECT_FLOAT_EQ(ControlChart::GetD2(2), 1.128f);
    EXPECT_FLOAT_EQ(ControlChart::GetD2(50), 4.498f);
    EXPECT_NEAR(ControlChart::GetD2(60), 3.4873 + 0.0250141 * 60 - 0.00009823 * 3600, 1e-12);
    EXPECT_FLOAT_EQ(ControlChart::GetD3(7), 0.076f);
    EXPECT_NEAR(ControlChart::GetD3(30), 0.80818 - 0.0051871 * 30 + 0.00005098 * 900 - 0.00000019 * 27000, 1e-12);
    EXPECT_FLOAT_EQ(ControlChart::GetD4(3), 2.574f);
    EXPECT_NEAR(ControlChart::GetD4(30), 2.88606 + 0.051313 * 30 - 0.00049243 * 900 + 0.00000188 * 27000, 1e-12);
    // A2 and A3 come from d2 and c4, not from the limit tables.
    EXPECT_NEAR(ControlChart::GetA2(5), 3.0 / (2.326 * std::sqrt(5.0)), 1e-6);
    EXPECT_NEAR(ControlChart::GetA3(5), 3.0 / (0.94 * std::sqrt(5.0)), 1e-6);
    EXPECT_NEAR(ControlChart::GetA3(50), 3.0 / (0.9949 * std::sqrt(50.0)), 1e-4);
    EXPECT_NEAR(ControlChart::GetA3(100), 3.0 / (0.99748 * 10.0), 1e-6);
    // Beyond the c4 table, the function itself.
    EXPECT_NEAR(ControlChart::GetA3(200) * std::sqrt(200.0), 3.0 / 0.9987445, 1e-6);
}

// SetTarget and SetStdDevSubgroup, type by type; -99 leaves a chart alone.
TEST(ControlChart, SettersResetWhatDependsOnThem)
{
    ControlChart ranges = Chart(ControlChartEnum::MeanRange, FourOfFive, 5);
    const ControlChart before = ranges;
    ranges.SetTarget(-99.0);
    ranges.SetStdDevSubgroup(-99.0);
    EXPECT_EQ(ranges.GetMeanUCL(), before.GetMeanUCL());
    ranges.SetTarget(12.0);
    EXPECT_NEAR(ranges.GetMeanUCL(), 12.0 + 0.577 * 4.0, 1e-5);
    ranges.SetStdDevSubgroup(2.0);
    EXPECT_NEAR(ranges.GetRangeMean(), 2.326 * 2.0, 1e-5);
    EXPECT_NEAR(ranges.GetStdDevProcess(), 2.0, 1e-6);
    EXPECT_NEAR(ranges.GetRangeUCL(), 2.114 * 2.326 * 2.0, 1e-5);

    ControlChart sds = Chart(ControlChartEnum::MeanStdDev, FourOfFive, 5);
    sds.SetTarget(0.0);
    EXPECT_NEAR(sds.GetMeanLCL(), -1.427 * sds.GetStdDevMean(), 1e-5);
    sds.SetStdDevSubgroup(1.0);
    EXPECT_NEAR(sds.GetStdDevMean(), 0.94, 1e-6);
    EXPECT_NEAR(sds.GetStdDevProcess(), 1.0, 1e-6);

    ControlChart individual = Chart(ControlChartEnum::Individual, FourOfFive, 1);
    EXPECT_EQ(individual.GetStdDevProcess(), -99.0);
    individual.SetStdDevSubgroup(0.5);
    EXPECT_EQ(individual.GetStdDevProcess(), 0.5);

    // EWMA: a new target resets the limits and the EWMA of type 4 only.
    const NCDataVector<float> series = Vec({1, 2, 3, 4, 5, 4, 3});
    for (Type type : {ControlChartEnum::EWMA, ControlChartEnum::EWMAOverallSigma}) {
        ControlChart ewma = Chart(type, series, 1, ControlChartEnum::Filter);
        ewma.SetEWMALambda(0.5);
        const double ucl = ewma.GetEWMAUCL(), target = ewma.GetTarget();
        const float last = ewma.GetEWMA()[7];
        ewma.SetTarget(100.0);
        if (type == ControlChartEnum::EWMA) {
            EXPECT_NEAR(ewma.GetEWMAUCL(), ucl + 100.0 - target, 1e-5);
            EXPECT_NE(ewma.GetEWMA()[7], last);
        } else {
            EXPECT_EQ(ewma.GetEWMAUCL(), ucl);
            EXPECT_EQ(ewma.GetEWMA()[7], last);
        }
        ewma.SetStdDevSubgroup(2.0);
        EXPECT_EQ(ewma.GetStdDevProcess(), 2.0);
        EXPECT_EQ(ewma.GetMSSD(), 2.0); // n = 1: the process sigma
        EXPECT_NEAR(ewma.GetEWMAStdDev(), std::sqrt(0.5 / 1.5) * 2.0, 1e-9);
    }
}

// CuSum sums of a series with a shift, with K = 0.5 and H = 4.5 from a
// sigma of 1; a missing value carries the sums on, and start values carry
// over from an earlier chart.
TEST(ControlChart, CumulativeSums)
{
    ControlChart cusum = Chart(ControlChartEnum::CuSum, Vec({0, 0, 2, 2, -1, M, 3}), 1);
    cusum.SetStdDevSubgroup(1.0);
    cusum.SetTarget(0.0);
    EXPECT_DOUBLE_EQ(cusum.GetDeadBand(), 0.5);
    EXPECT_DOUBLE_EQ(cusum.GetActionLimit(), 4.5);
    ExpectVector(cusum.GetDevFromTarget(), {0, 0, 2, 2, -1, M, 3});
    ExpectVector(cusum.GetHighCuSum(), {0, 0, 1.5f, 3, 1.5f, 1.5f, 4});
    ExpectVector(cusum.GetLowCuSum(), {0, 0, 0, 0, 0.5f, 0.5f, 0});

    ControlChart carried = Chart(ControlChartEnum::CuSum, Vec({M, 1, -3}), 1);
    carried.SetStdDevSubgroup(1.0);
    carried.SetTarget(0.0);
    carried.SetPrevious(1.0, 2.0);
    ExpectVector(carried.GetHighCuSum(), {2, 2.5f, 0});
    ExpectVector(carried.GetLowCuSum(), {1, 0, 2.5f});

    // Subgroups of 2: sigma from the successive differences of the means.
    const ControlChart grouped = Chart(ControlChartEnum::CuSum, Vec({0, 2, 2, 4, M, M, 3, 5, 5, 7}), 2);
    const double mssd = std::sqrt((4.0 + 4.0) / (2.0 * 4 - 2));
    EXPECT_NEAR(grouped.GetMSSD(), mssd, 1e-9);
    EXPECT_NEAR(grouped.GetStdDevProcess(), mssd, 1e-9);
    EXPECT_NEAR(grouped.GetActionLimit(), 4.5 * mssd, 1e-9);
}

// Filter and predictive forms from the target, from the first value and
// from a carried-over value; the two-sided form of a constant series.
TEST(ControlChart, ExponentiallyWeightedMovingAverage)
{
    const NCDataVector<float> x = Vec({1, 2, 3, 4});
    ControlChart filter = Chart(ControlChartEnum::EWMA, x, 1, ControlChartEnum::Filter);
    filter.SetEWMALambda(0.5);
    filter.SetTarget(0.0);
    ExpectVector(filter.GetEWMA(), {0, 1, 2, 3});
    ControlChart predictive = Chart(ControlChartEnum::EWMA, x, 1, ControlChartEnum::Predictive);
    predictive.SetEWMALambda(0.5);
    predictive.SetTarget(0.0);
    ExpectVector(predictive.GetEWMA(), {0, 0.5f, 1.25f, 2.125f});
    ControlChart first = Chart(ControlChartEnum::EWMA, Vec({M, 1, 2, M, 4}), 1, ControlChartEnum::Filter);
    first.SetEWMALambda(0.5);
    first.SetFirstValueAsTarget(true);
    ExpectVector(first.GetEWMA(), {M, 1, 1.5f, 1.5f, 2.75f});
    ControlChart carried = Chart(ControlChartEnum::EWMA, x, 1, ControlChartEnum::Filter);
    carried.SetEWMALambda(0.5);
    carried.SetPrevious(10.0);
    ExpectVector(carried.GetEWMA(), {10, 6, 4.5f, 4.25f});

    ControlChart constant = Chart(ControlChartEnum::EWMA, Vec({5, 5, 5, 5, M, M}), 1, ControlChartEnum::Filter);
    constant.SetEWMALambda(0.3);
    constant.SetSymmetric(true);
    ExpectVector(constant.GetEWMA(), {5, 5, 5, 5, M, M});
    // Two-sided, by hand: forward 0, 1, 2, 3; backward 1.875, 2.75, 3.5, 4
    // (lambda 1/2 from x_4 = 4); each the mean of the two.
    ControlChart both = Chart(ControlChartEnum::EWMA, x, 1, ControlChartEnum::Filter);
    both.SetEWMALambda(0.5);
    both.SetTarget(0.0);
    both.SetSymmetric(true);
    ExpectVector(both.GetEWMA(), {(0 + 1.875f) / 2, (1 + 2.75f) / 2, (2 + 3.5f) / 2, (3 + 4.0f) / 2});
    ControlChart none = Chart(ControlChartEnum::EWMA, x, 1, ControlChartEnum::EWMANone);
    none.SetEWMALambda(0.5);
    ExpectVector(none.GetEWMA(), {M, M, M, M});

    // Limits: sqrt(lambda / (2 - lambda)) sigma about the target.
    ControlChart limits = Chart(ControlChartEnum::EWMAOverallSigma, x, 1, ControlChartEnum::Filter);
    limits.SetEWMALambda(0.2);
    const double sigma = std::sqrt(0.2 / 1.8) * x.GetStdDev();
    EXPECT_NEAR(limits.GetEWMAStdDev(), sigma, 1e-9);
    EXPECT_NEAR(limits.GetEWMAUCL(), 2.5 + 3 * sigma, 1e-9);
    EXPECT_NEAR(limits.GetEWMALCL(), 2.5 - 3 * sigma, 1e-9);
}

TEST(ControlChart, SuccessiveDifferences)
{
    // Means 1, 3, missing, 4, 6: (3 - 1)^2 + (6 - 4)^2 over 2 (4) - 2.
    const ControlChart chart = Chart(ControlChartEnum::EWMA, Vec({0, 2, 3, 3, M, M, 4, 4, 5, 7}), 2);
    EXPECT_NEAR(chart.GetMSSD(), std::sqrt(8.0 / 6.0), 1e-9);
    EXPECT_NEAR(chart.GetStdDevProcess(), std::sqrt(8.0 / 6.0), 1e-9);
    // One present mean has no successive difference.
    EXPECT_EQ(Chart(ControlChartEnum::EWMA, Vec({1, 2, M, M}), 2).GetMSSD(), -99.0);

    // Limits of a reference period applied to new data.
    ControlChart reference = Chart(ControlChartEnum::EWMA, Vec({0, 2, 3, 3, M, M, 4, 4, 5, 7}), 2,
                                   ControlChartEnum::Filter);
    ControlChart later = Chart(ControlChartEnum::EWMA, Vec({10, 12, 11, 13}), 2, ControlChartEnum::Filter);
    reference.SetEWMALambda(0.25);
    later.ImportLimits(reference);
    EXPECT_EQ(later.GetTarget(), reference.GetTarget());
    EXPECT_EQ(later.GetEWMALambda(), 0.25);
    EXPECT_EQ(later.GetMSSD(), reference.GetMSSD());
    EXPECT_EQ(later.GetEWMAUCL(), reference.GetEWMAUCL());
    EXPECT_EQ(later.GetMeanVector()->Size(), 2);
}

TEST(ControlChartEnum, Texts)
{
    for (Type t : {ControlChartEnum::MeanRange, ControlChartEnum::MeanStdDev, ControlChartEnum::CuSum,
                   ControlChartEnum::Individual})
        EXPECT_EQ(ControlChartEnum::ToControlType(ControlChartEnum::FromControlType(t)), t);
    EXPECT_EQ(ControlChartEnum::FromControlType(ControlChartEnum::EWMA), "Individual");
    EXPECT_EQ(ControlChartEnum::FromControlType(ControlChartEnum::EWMAOverallSigma), "Individual");
    EXPECT_EQ(ControlChartEnum::FromControlTypeLocale(ControlChartEnum::MeanStdDev), "Mean/Std. dev.");
    EXPECT_EQ(ControlChartEnum::ToControlType("mean/range"), ControlChartEnum::Individual);
    EXPECT_EQ(ControlChartEnum::ToEWMAType("Filter"), ControlChartEnum::Filter);
    EXPECT_EQ(ControlChartEnum::ToEWMAType("Predictive"), ControlChartEnum::Predictive);
    EXPECT_EQ(ControlChartEnum::ToEWMAType("filter"), ControlChartEnum::EWMANone);
    EXPECT_EQ(ControlChartEnum::ToString(ControlChartEnum::EWMANone), "");
    EXPECT_EQ(ControlChartEnum::ToString(ControlChartEnum::Predictive), "Predictive");
}

namespace {

#include "spc/fixtures/EWMALambdaReference.inc"

NCDataVector<float> Series(const double* values, int n)
{
    NCDataVector<float> v(n);
    for (int i = 1; i <= n; ++i)
        v(i, static_cast<float>(values[i - 1]));
    return v;
}

double EstimatedLambda(const NCDataVector<float>& x, bool firstValueAsTarget, int subgroup = 1)
{
    ControlChart chart(ControlChartEnum::EWMA, x, subgroup, ControlChartEnum::Filter);
    chart.SetFirstValueAsTarget(firstValueAsTarget);
    return chart.GetEWMALambda();
}

} // namespace

// Started at the first value, the estimate minimises the criterion of R's
// HoltWinters smoothing parameter; it lands within the pattern search's
// final step of a brute-force grid's minimum. The estimates of the chart's
// own start (the target) are pinned so that any change of the search shows.
TEST(ControlChart, EstimatedLambdaAgainstHoltWintersAndAGrid)
{
    const NCDataVector<float> ar1 = Series(EWMAAR1, EWMASeriesLength), noise = Series(EWMANoise, EWMASeriesLength);
    const double fromFirstAr1 = EstimatedLambda(ar1, true), fromFirstNoise = EstimatedLambda(noise, true);
    EXPECT_NEAR(fromFirstAr1, EWMAAR1GridMinimum, 0.001);
    EXPECT_NEAR(fromFirstAr1, EWMAAR1HoltWinters, 0.001);
    EXPECT_NEAR(fromFirstNoise, EWMANoiseGridMinimum, 0.001);
    EXPECT_NEAR(fromFirstNoise, EWMANoiseHoltWinters, 0.001);
    EXPECT_DOUBLE_EQ(fromFirstAr1, 0.88749999999999984);
    EXPECT_DOUBLE_EQ(fromFirstNoise, 0.081250000000000142);
    EXPECT_DOUBLE_EQ(EstimatedLambda(ar1, false), 0.88515624999999987);
    // From the mean, white noise is best predicted by the mean itself: the
    // search ends near 0, which is replaced by 0.2.
    EXPECT_EQ(EstimatedLambda(noise, false), 0.2);
    NCDataVector<float> alternating(40);
    for (int i = 1; i <= 40; ++i)
        alternating(i, i % 2 ? 1.0f : -1.0f);
    EXPECT_EQ(EstimatedLambda(alternating, false), 0.2);
    // A ramp is predicted best by the last value or beyond: capped at 1.
    NCDataVector<float> ramp(30);
    for (int i = 1; i <= 30; ++i)
        ramp(i, static_cast<float>(i));
    EXPECT_EQ(EstimatedLambda(ramp, true), 1.0);
    // The estimate is kept, and a set weight is not estimated.
    ControlChart chart(ControlChartEnum::EWMA, ar1, 1, ControlChartEnum::Filter);
    chart.SetEWMALambda(0.3);
    EXPECT_EQ(chart.GetEWMALambda(), 0.3);
}

// A long series takes the chunked evaluation of the errors; its estimate
// still lands within the search's last step of a brute-force grid minimum
// of the plain recursion.
TEST(ControlChart, EstimatedLambdaOnALongSeries)
{
    std::mt19937 rng(3);
    std::normal_distribution<double> normal;
    const int n = 20000;
    NCDataVector<float> x(n);
    double level = 0.0;
    for (int i = 1; i <= n; ++i) {
        level = 0.6 * level + normal(rng);
        x(i, i % 97 == 0 ? -99.0f : static_cast<float>(level + 5.0));
    }
    auto sse = [&](double lambda) {
        double z = 0.0, total = 0.0;
        bool started = false;
        for (int i = 1; i <= n; ++i) {
            if (x[i] == -99.0f)
                continue;
            if (!started) {
                z = x[i];
                started = true;
            }
            total += (x[i] - z) * (x[i] - z);
            z += lambda * (x[i] - z);
        }
        return total;
    };
    double best = 0.0005, bestError = sse(best);
    for (double lambda = 0.001; lambda <= 1.0; lambda += 0.0005) {
        const double e = sse(lambda);
        if (e < bestError) {
            best = lambda;
            bestError = e;
        }
    }
    EXPECT_NEAR(EstimatedLambda(x, true), best, 0.001);
}

// Without a subgroup of two values there is no S-bar, and without a value
// no R-bar (one value has a range of 0): no limit then.
TEST(ControlChart, UnknownSpreadLeavesLimitsUnknown)
{
    for (Type type : {ControlChartEnum::MeanRange, ControlChartEnum::MeanStdDev}) {
        const NCDataVector<float> data = type == ControlChartEnum::MeanRange ? Vec({M, M, M, M}) : Vec({4, M, 4, M});
        ControlChart chart = Chart(type, data, 2);
        EXPECT_EQ(type == ControlChartEnum::MeanRange ? chart.GetRangeMean() : chart.GetStdDevMean(), -99.0);
        for (double limit : {chart.GetMeanUCL(), chart.GetMeanLCL(), chart.GetStdDevProcess()})
            EXPECT_EQ(limit, -99.0) << type;
        chart.SetTarget(5.0);
        EXPECT_EQ(chart.GetMeanUCL(), -99.0) << type;
        chart.SetStdDevSubgroup(1.0);
        EXPECT_NE(chart.GetMeanUCL(), -99.0) << type;
    }
    // 20 times in steps of 5: groups of 5, but a subgroup size of 15/4.
    NCDataVector<float> times(20), values(20);
    for (int i = 1; i <= 20; ++i) {
        times(i, static_cast<float>(i - 1));
        values(i, static_cast<float>(i % 3));
    }
    double largest = 0.0;
    EXPECT_DOUBLE_EQ(ControlChart::SubGroupRangeSize(times, 5.0f, largest), 15.0 / 4.0);
    EXPECT_EQ(ControlChart(ControlChartEnum::MeanRange, values, times, 5.0f, ControlChartEnum::EWMANone)
                  .GetSubGroupSize(),
              4);
}
