// Savitzky-Golay smoothing and first derivative of 10^6 points, window 11,
// cubic, ends from the end windows' polynomials (as SciPy's mode 'interp'),
// in milliseconds per series.
//
//   BM_Smooth/missing_pct:M/threads:T       Smooth with M % of the points
//                                           missing, on a team of T threads
//   BM_FirstDerivative/missing_pct:M/threads:T   DoDerivate(y, 1, 0.5, true)
//
// bench/smoothing_peers.py times scipy.signal.savgol_filter on the same
// complete series (its generator is repeated there).
#include "veltancmat/signal/Derivate.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <cstdint>

namespace {

constexpr int Points = 1000000;

// A slow wave with a fast ripple; point i is missing where a multiplicative
// hash of i falls below the given share of 2^32, which scatters the gaps
// like random ones and is easy to repeat in Python.
NCDataVector<float> Series(int missingPercent)
{
    NCDataVector<float> y(Points);
    float* out = y.GetVectorForWriting();
    for (int i = 0; i < Points; ++i) {
        const std::uint32_t hash = static_cast<std::uint32_t>(static_cast<std::uint64_t>(i) * 2654435761u);
        const bool missing = hash < static_cast<std::uint64_t>(missingPercent) * 42949673u;
        out[i + 1] = missing ? -99.0f : static_cast<float>(std::sin(0.001 * i) + 0.1 * std::sin(1.7 * i));
    }
    y.RecountMissing();
    return y;
}

void Run(benchmark::State& state, int d)
{
    omp_set_dynamic(0);
    omp_set_num_threads(static_cast<int>(state.range(1)));
    const NCDataVector<float> y = Series(static_cast<int>(state.range(0)));
    const Derivate<float> sg(Derivate<float>::Cubic, 11);
    for (auto _ : state) {
        NCDataVector<float> r = sg.DoDerivate(y, d, d == 0 ? 1.0f : 0.5f, true);
        benchmark::DoNotOptimize(r.GetVector());
    }
    state.counters["missing"] = y.GetNumMisVal();
}

void BM_Smooth(benchmark::State& state)
{
    Run(state, 0);
}

void BM_FirstDerivative(benchmark::State& state)
{
    Run(state, 1);
}

} // namespace

BENCHMARK(BM_Smooth)->ArgNames({"missing_pct", "threads"})->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FirstDerivative)->ArgNames({"missing_pct", "threads"})->ArgsProduct({{0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
