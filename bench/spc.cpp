// Control charts and run rules on long series, in nanoseconds per value.
//
//   BM_Chart/type:T/subgroup:N  a chart of 1e6 values (types 0 to 5, subgroups
//                               of 1 and 5), every result of its type
//                               requested, the EWMA weight estimated
//   BM_RunRules/query:Q         the four classic rules on 1e6 points:
//                               GetFirstBrokens (0) or GetAllBroken (1)
//
// The series is an AR(1) process (coefficient 0.5) with 1 % missing values
// and a shift in its last tenth, so that rules fire and the estimated
// weight is not at a bound.
#include "veltancmat/spc/ControlChart.h"
#include "veltancmat/spc/WesternElectricRules.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>
#include <vector>

namespace {

constexpr int Values = 1000000;

const NCDataVector<float>& Series()
{
    static const NCDataVector<float> series = [] {
        std::mt19937 rng(5);
        std::normal_distribution<float> normal;
        std::bernoulli_distribution missing(0.01);
        std::vector<float> v(Values);
        float previous = 0.0f;
        for (int i = 0; i < Values; ++i) {
            previous = 0.5f * previous + normal(rng);
            v[static_cast<std::size_t>(i)] = missing(rng) ? -99.0f : previous + (i > Values * 9 / 10 ? 1.5f : 0.0f);
        }
        NCDataVector<float> s;
        s.CopyZeroBasedVector(v.data(), Values);
        return s;
    }();
    return series;
}

void PerValue(benchmark::State& state, int values)
{
    // Seconds per value, which the report shows with its unit prefix (n, u).
    state.counters["per_value"] = benchmark::Counter(
        static_cast<double>(values), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Chart(benchmark::State& state)
{
    omp_set_dynamic(0);
    const auto type = static_cast<ControlChartEnum::ControlType>(state.range(0));
    const int subgroup = static_cast<int>(state.range(1));
    const NCDataVector<float>& data = Series();
    for (auto _ : state) {
        ControlChart chart(type, data, subgroup, ControlChartEnum::Filter);
        if (type == ControlChartEnum::Individual)
            chart.SetStdDevSubgroup(1.0);
        if (type == ControlChartEnum::CuSum)
            benchmark::DoNotOptimize(chart.GetHighCuSum().Size() + chart.GetLowCuSum().Size());
        if (type == ControlChartEnum::EWMA || type == ControlChartEnum::EWMAOverallSigma)
            benchmark::DoNotOptimize(chart.GetEWMA().Size() + chart.GetEWMAUCL());
        benchmark::DoNotOptimize(chart.GetEWMALambda());
        benchmark::DoNotOptimize(chart.GetMeanUCL());
    }
    PerValue(state, Values);
}

void BM_RunRules(benchmark::State& state)
{
    const NCDataVector<float>& data = Series();
    WesternElectricRules rules(data);
    rules.SetCustomStDev(0.0, 1.1547); // sigma of the AR(1) process
    rules.InitOriginalWERules();
    for (auto _ : state) {
        if (state.range(0) == 0)
            benchmark::DoNotOptimize(rules.GetFirstBrokens().size());
        else
            benchmark::DoNotOptimize(rules.GetAllBroken().size());
    }
    PerValue(state, Values);
}

} // namespace

BENCHMARK(BM_Chart)
    ->ArgNames({"type", "subgroup"})
    ->ArgsProduct({{0, 1, 2, 3, 4, 5}, {1, 5}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RunRules)->ArgName("query")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
