// Throughput of the data vector's hot loops on 10^7 floats, beside a plain
// read-only pass over the same array in the same binary. Each benchmark
// reports the bytes it must move as bytes_per_second (GB/s in the output).
#include "veltancmat/containers/NCDataVector.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

constexpr int N = 10'000'000;

NCDataVector<float> MakeVector(bool withMissing)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> value(-10.0f, 10.0f);
    std::bernoulli_distribution missing(0.05);
    NCDataVector<float> v(N);
    float* p = v.GetVectorForWriting();
    for (int i = 1; i <= N; ++i)
        p[i] = withMissing && missing(rng) ? -99.0f : value(rng);
    v.RecountMissing();
    return v;
}

const NCDataVector<float>& Data(bool withMissing)
{
    static const NCDataVector<float> complete = MakeVector(false);
    static const NCDataVector<float> gappy = MakeVector(true);
    return withMissing ? gappy : complete;
}

void SetBytes(benchmark::State& state, double bytesPerIteration)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytesPerIteration));
}

// The yardstick: the simplest float sum over the same memory.
void BM_PlainSum(benchmark::State& state)
{
    const NCDataVector<float>& v = Data(false);
    const float* p = v.begin();
    for (auto _ : state) {
        float s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0, s5 = 0, s6 = 0, s7 = 0;
        for (int i = 0; i + 8 <= N; i += 8) {
            s0 += p[i];
            s1 += p[i + 1];
            s2 += p[i + 2];
            s3 += p[i + 3];
            s4 += p[i + 4];
            s5 += p[i + 5];
            s6 += p[i + 6];
            s7 += p[i + 7];
        }
        benchmark::DoNotOptimize(s0 + s1 + s2 + s3 + s4 + s5 + s6 + s7);
    }
    SetBytes(state, N * sizeof(float));
}
BENCHMARK(BM_PlainSum)->Unit(benchmark::kMillisecond);

// Times statistic(v) on the vector without or with missing values.
template <class Statistic>
void TimeStatistic(benchmark::State& state, Statistic&& statistic)
{
    const NCDataVector<float>& v = Data(state.range(0) != 0);
    for (auto _ : state)
        benchmark::DoNotOptimize(statistic(v));
    SetBytes(state, N * sizeof(float));
}

void BM_GetSS(benchmark::State& state)
{
    TimeStatistic(state, [](const NCDataVector<float>& v) { return v.GetSS(); });
}
BENCHMARK(BM_GetSS)->Arg(0)->Arg(1)->ArgName("missing")->Unit(benchmark::kMillisecond);

void BM_GetMean(benchmark::State& state)
{
    TimeStatistic(state, [](const NCDataVector<float>& v) { return v.GetMean(); });
}
BENCHMARK(BM_GetMean)->Arg(0)->Arg(1)->ArgName("missing")->Unit(benchmark::kMillisecond);

// Add reads two arrays and writes one: three times the bytes of a read pass.
void BM_Add(benchmark::State& state)
{
    const bool withMissing = state.range(0) != 0;
    NCDataVector<float> target = MakeVector(withMissing);
    target.GetVectorForWriting();
    const NCDataVector<float>& addend = Data(false);
    for (auto _ : state) {
        target.Add(addend);
        benchmark::ClobberMemory();
    }
    SetBytes(state, 3.0 * N * sizeof(float));
}
BENCHMARK(BM_Add)->Arg(0)->Arg(1)->ArgName("missing")->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
