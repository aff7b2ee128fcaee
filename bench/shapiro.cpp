// The Shapiro-Wilk test and a capability analysis on one sample, in
// microseconds per call.
//
//   BM_ShapiroWilk/n:N    sort N values, then W and p (the coefficients
//                         computed anew, as the normality command does)
//   BM_Capability/n:N     a capability analysis of N values with both
//                         limits and a target; the library runs the
//                         Shapiro-Wilk test only below 5000 values, so 4999
//                         times it and 5000 does not
//
// bench/shapiro_r.sh times R's shapiro.test on samples of the same kind.
#include "veltancmat/spc/CapabilityAnalysis.h"
#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

// Normal values with mean 10 and standard deviation 2, in their drawn order.
std::vector<double> Sample(int n)
{
    std::mt19937 rng(1995);
    std::normal_distribution<double> normal(10.0, 2.0);
    std::vector<double> values(static_cast<std::size_t>(n));
    for (double& v : values)
        v = normal(rng);
    return values;
}

void BM_ShapiroWilk(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<double> drawn = Sample(n);
    std::vector<double> sorted;
    for (auto _ : state) {
        sorted = drawn;
        std::sort(sorted.begin(), sorted.end());
        normality_test::ms_shapiro_wilk::Samples samples;
        for (std::size_t i = 0; i < sorted.size(); ++i)
            samples.emplace_back(i, sorted[i]);
        std::deque<double> coefficients;
        double w = 0.0, p = 0.0;
        int fault = 0;
        normality_test::ms_shapiro_wilk::swilk(false, samples, n, n, n / 2, coefficients, w, p, fault);
        benchmark::DoNotOptimize(w + p + fault);
    }
}

void BM_Capability(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<double> drawn = Sample(n);
    const std::vector<float> narrow(drawn.begin(), drawn.end());
    NCDataVector<float> data;
    data.CopyZeroBasedVector(narrow.data(), n);
    for (auto _ : state) {
        const CapabilityAnalysis analysis(data, 4.0, 16.0, 10.0, nullptr);
        benchmark::DoNotOptimize(analysis.GetResults().cpk + analysis.GetResults().w);
    }
}

} // namespace

BENCHMARK(BM_ShapiroWilk)->ArgName("n")->Arg(50)->Arg(5000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Capability)->ArgName("n")->Arg(4999)->Arg(5000)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
