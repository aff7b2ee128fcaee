// The periodic wavelet transform of 2^20 points, 6 levels, Daubechies 20
// taps, in milliseconds per call.
//
//   BM_WaveletForward/threads:T   Wavelet::Forward on a team of T threads
//   BM_WaveletInverse/threads:T   Wavelet::Inverse of those coefficients
//
// The series is x_i = sin(i / 50) + u_i - 1/2, i = 0..N-1, with u_i the
// fraction (i * 2654435761 mod 2^32) / 2^32, so that bench/wavelet_peers.py
// builds the same values for PyWavelets without a shared file.
#include "veltancmat/signal/Wavelet.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <cstdint>

namespace {

constexpr int Points = 1 << 20;
constexpr int Levels = 6;

NCDataVector<float> Series()
{
    NCDataVector<float> x(Points);
    for (int i = 0; i < Points; ++i) {
        const std::uint32_t hash = static_cast<std::uint32_t>(i) * 2654435761u;
        x(i + 1, static_cast<float>(std::sin(i / 50.0) + hash / 4294967296.0 - 0.5));
    }
    return x;
}

// The requested team size exactly: with dynamic adjustment on (the
// library's default) OpenMP may hand out fewer threads than asked.
void Team(const benchmark::State& state)
{
    omp_set_dynamic(0);
    omp_set_num_threads(static_cast<int>(state.range(0)));
}

void BM_WaveletForward(benchmark::State& state)
{
    Team(state);
    const NCDataVector<float> x = Series();
    const Wavelet w(WaveletFilters("Daubechies20"), Levels);
    for (auto _ : state) {
        NCDataVector<float> c = w.Forward(x);
        benchmark::DoNotOptimize(c.GetVector());
    }
}

void BM_WaveletInverse(benchmark::State& state)
{
    Team(state);
    const Wavelet w(WaveletFilters("Daubechies20"), Levels);
    const NCDataVector<float> c = w.Forward(Series());
    for (auto _ : state) {
        NCDataVector<float> x = w.Inverse(c);
        benchmark::DoNotOptimize(x.GetVector());
    }
}

} // namespace

BENCHMARK(BM_WaveletForward)->ArgNames({"threads"})->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WaveletInverse)->ArgNames({"threads"})->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
