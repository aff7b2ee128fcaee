// Dense products of two 1000 x 1000 float matrices, on one and on two
// threads. The counter GFLOP is shown per second: the arithmetic rate, at
// 2 n^3 floating-point operations per product. Wall time is measured, since
// the work is spread over threads.
#include "veltancmat/containers/NCDataMatrix.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>

namespace {

constexpr int N = 1000;

NCDataMatrix<float> MakeMatrix(unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    return BenchMatrix::Drawn(N, N, [&] { return value(rng); });
}

const NCDataMatrix<float>& Left()
{
    static const NCDataMatrix<float> a = MakeMatrix(11);
    return a;
}

const NCDataMatrix<float>& Right()
{
    static const NCDataMatrix<float> b = MakeMatrix(12);
    return b;
}

// The requested team size exactly: with dynamic adjustment (the library's
// default) a busy machine would be given fewer threads.
void SetThreads(benchmark::State& state)
{
    omp_set_dynamic(0);
    omp_set_num_threads(static_cast<int>(state.range(0)));
}

void SetFlops(benchmark::State& state)
{
    const double gflop = 2.0 * N * N * N * 1e-9;
    state.counters["GFLOP"] = benchmark::Counter(gflop, benchmark::Counter::kIsIterationInvariantRate);
}

// Times product(Left(), Right()).
template <class Product>
void TimeProduct(benchmark::State& state, Product&& product)
{
    SetThreads(state);
    const NCDataMatrix<float>& a = Left();
    const NCDataMatrix<float>& b = Right();
    for (auto _ : state)
        benchmark::DoNotOptimize(product(a, b));
    SetFlops(state);
}

void BM_MatrixMultiply(benchmark::State& state)
{
    TimeProduct(state, [](const auto& a, const auto& b) { return a.MatrixMultiply(b); });
}
BENCHMARK(BM_MatrixMultiply)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MultiplyTransposeThis(benchmark::State& state)
{
    TimeProduct(state, [](const auto& a, const auto& b) { return a.MultiplyTransposeThis(b); });
}
BENCHMARK(BM_MultiplyTransposeThis)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
