// The spectra of one long series, in milliseconds per call.
//
//   BM_AutoCorrelation/n:N/lags:L  lags 0..L of N values (transforms of
//                                  the next power of two above N + L)
//   BM_CrossCorrelation/n:N/lags:L lags -L..L of two series of N values
//   BM_PowerSpectrum/n:N/m:M/overlap:O
//                                  Hann-windowed spectrum, segments of M
//
// The series is x_i = sin(i / 50) + u_i - 1/2, i = 0..N-1, with u_i the
// fraction (i * 2654435761 mod 2^32) / 2^32, so that bench/spectra_peers.py
// builds the same values for NumPy and SciPy without a shared file.
#include "veltancmat/signal/FFT.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>

namespace {

NCDataVector<float> Series(int n)
{
    NCDataVector<float> x(n);
    for (int i = 0; i < n; ++i) {
        const std::uint32_t hash = static_cast<std::uint32_t>(i) * 2654435761u;
        x(i + 1, static_cast<float>(std::sin(i / 50.0) + hash / 4294967296.0 - 0.5));
    }
    return x;
}

void BM_AutoCorrelation(benchmark::State& state)
{
    const NCDataVector<float> x = Series(static_cast<int>(state.range(0)));
    NCDataVector<float> out;
    for (auto _ : state) {
        FFT::AutoCorrelation(&x, FFT::DetrendMean, static_cast<int>(state.range(1)), &out);
        benchmark::DoNotOptimize(out.GetVector());
    }
}

void BM_CrossCorrelation(benchmark::State& state)
{
    const NCDataVector<float> x = Series(static_cast<int>(state.range(0)));
    NCDataVector<float> y;
    y.CopyContent(x);
    y.Lag(7);
    NCDataVector<float> out;
    for (auto _ : state) {
        FFT::CrossCorrelation(&x, &y, FFT::DetrendMean, static_cast<int>(state.range(1)), &out);
        benchmark::DoNotOptimize(out.GetVector());
    }
}

void BM_PowerSpectrum(benchmark::State& state)
{
    const NCDataVector<float> x = Series(static_cast<int>(state.range(0)));
    NCDataVector<float> out;
    for (auto _ : state) {
        FFT::PowerSpectrum(&x, static_cast<int>(state.range(1)), state.range(2) != 0, FFT::DetrendMean,
                           FFT::DensityScaling, FFT::Hann, &out);
        benchmark::DoNotOptimize(out.GetVector());
    }
}

} // namespace

BENCHMARK(BM_AutoCorrelation)->ArgNames({"n", "lags"})->Args({1 << 20, 1000})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CrossCorrelation)->ArgNames({"n", "lags"})->Args({1 << 20, 1000})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PowerSpectrum)
    ->ArgNames({"n", "m", "overlap"})
    ->Args({1 << 20, 1024, 0})
    ->Args({1 << 20, 1024, 1})
    ->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
