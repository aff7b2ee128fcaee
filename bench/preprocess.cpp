// Throughput of column scaling and of a log transform on a 100000 x 1000
// float matrix, in place, on 1 and 2 threads, beside a plain read-only pass
// over the same rows in the same binary. Each benchmark reports the matrix
// bytes per call as bytes_per_second, and times a plain pass over the matrix
// before every call for its rate and share (of_plain).
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>

namespace {

constexpr int Rows = 100000;
constexpr int Cols = 1000;

// Values with a standard deviation above 1, so that applying one fitted
// model again and again contracts towards a fixed point instead of growing.
NCDataMatrix<float>& Data()
{
    static NCDataMatrix<float> m = [] {
        std::mt19937 rng(5);
        std::normal_distribution<float> value(50.0f, 10.0f);
        return BenchMatrix::Drawn(Rows, Cols, [&] { return value(rng); });
    }();
    return m;
}

NCScale UnitVariance()
{
    NCScale s(Cols);
    for (int j = 1; j <= Cols; ++j)
        s.SetType(j, NCScale::ScaleUnitVariance);
    return s;
}

using BenchMatrix::Threads;

void BM_PlainPass(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Data());
}

void BM_ScaleNewModel(benchmark::State& state)
{
    Threads(state);
    NCScale s = UnitVariance();
    BenchMatrix::AgainstPlainPass(state, Data(), [&] { s.ScaleMatrix(&Data(), true); });
}

void BM_ScaleCurrentModel(benchmark::State& state)
{
    Threads(state);
    NCScale s = UnitVariance();
    s.ScaleMatrix(&Data(), true);
    BenchMatrix::AgainstPlainPass(state, Data(), [&] { s.ScaleMatrix(&Data(), false); });
}

// log10(x + 100) keeps every value inside the domain however often it runs.
void BM_LogTransform(benchmark::State& state)
{
    Threads(state);
    NCTransform t;
    t.SetSize(Cols);
    for (int j = 1; j <= Cols; ++j) {
        t[j].SetTransform(TransformE::Log);
        t[j].SetConstant(1, 1.0f);
        t[j].SetConstant(2, 100.0f);
    }
    BenchMatrix::AgainstPlainPass(state, Data(), [&] { t.TransformMatrix(&Data()); });
}

} // namespace

BENCHMARK(BM_PlainPass)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ScaleNewModel)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreads, benchmark::kMillisecond>);
BENCHMARK(BM_ScaleCurrentModel)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreads, benchmark::kMillisecond>);
BENCHMARK(BM_LogTransform)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreads, benchmark::kMillisecond>);
BENCHMARK_MAIN();
