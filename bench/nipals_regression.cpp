// Throughput of the two NIPALS projections on a 20000 x 500 float matrix,
// without and with 5 % missing cells, on 1 and 2 threads, beside a plain
// read-only pass over the same rows in the same binary. Each benchmark
// reports the matrix bytes it reads per call as bytes_per_second; the
// projections also time a plain pass over their own matrix before every
// call and report its rate and their share of it (of_plain). The batched
// projections serve seven vectors per pass and count the matrix once per
// vector.
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCNipalsBatch.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <random>

namespace {

constexpr int Rows = 20000;
constexpr int Cols = 500;

NCDataMatrix<float> MakeMatrix(bool withMissing)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> value(-10.0f, 10.0f);
    std::bernoulli_distribution missing(0.05);
    return BenchMatrix::Drawn(Rows, Cols, [&] { return withMissing && missing(rng) ? -99.0f : value(rng); });
}

const NCDataMatrix<float>& Data(bool withMissing)
{
    static const NCDataMatrix<float> complete = MakeMatrix(false);
    static const NCDataMatrix<float> gappy = MakeMatrix(true);
    return withMissing ? gappy : complete;
}

NCDataVector<float> Filled(int n)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(0.5f, 1.5f);
    NCDataVector<float> v(n);
    for (int k = 1; k <= n; ++k)
        v(k, value(rng));
    return v;
}

using BenchMatrix::Threads;

void BM_PlainPass(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Data(false));
}

// One projection on a vector of `length` elements, written into one
// result vector call after call as NIPALS does.
template <class Projection>
void SingleProjection(benchmark::State& state, int length, Projection&& project)
{
    Threads(state);
    const NCDataMatrix<float>& m = Data(state.range(1) != 0);
    const NCDataVector<float> v = Filled(length);
    NCDataVector<float> result;
    BenchMatrix::AgainstPlainPass(state, m, [&] {
        project(m.Result(&result), v);
        benchmark::DoNotOptimize(result.GetVector());
    });
}

void BM_RegressColumns(benchmark::State& state)
{
    SingleProjection(state, Rows, [](auto&& into, const auto& t) { into.SpecialNipalsRegressColumnsFix(t); });
}

void BM_RegressRows(benchmark::State& state)
{
    SingleProjection(state, Cols, [](auto&& into, const auto& p) { into.SpecialNipalsRegressRowsFix(p); });
}

// Seven vectors at once through NCNipalsBatch, as the rounds of a
// 7-group cross-validation use them: the rate counts the matrix once per
// vector (the work), beside the plain pass over the matrix read once.
template <class Pass>
void BatchOfSeven(benchmark::State& state, int length, Pass&& pass)
{
    Threads(state);
    const NCDataMatrix<float>& m = Data(state.range(1) != 0);
    const NCNipalsBatch batch(m);
    std::vector<NCDataVector<float>> vectors(7, Filled(length)), results(7);
    std::vector<const NCDataVector<float>*> in;
    std::vector<NCDataVector<float>*> out;
    for (std::size_t r = 0; r < 7; ++r) {
        in.push_back(&vectors[r]);
        out.push_back(&results[r]);
    }
    BenchMatrix::AgainstPlainPass(state, m, [&] { pass(batch, in, out); }, 7);
}

void BM_BatchColumns(benchmark::State& state)
{
    BatchOfSeven(state, Rows, [](const NCNipalsBatch& b, const auto& in, const auto& out) { b.Columns(in, out); });
}

void BM_BatchRows(benchmark::State& state)
{
    BatchOfSeven(state, Cols, [](const NCNipalsBatch& b, const auto& in, const auto& out) { b.Rows(in, out); });
}

} // namespace

BENCHMARK(BM_PlainPass)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RegressColumns)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithoutAndWithMissing, benchmark::kMillisecond>);
BENCHMARK(BM_RegressRows)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithoutAndWithMissing, benchmark::kMillisecond>);
BENCHMARK(BM_BatchColumns)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithoutAndWithMissing, benchmark::kMillisecond>);
BENCHMARK(BM_BatchRows)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithoutAndWithMissing, benchmark::kMillisecond>);
BENCHMARK_MAIN();
