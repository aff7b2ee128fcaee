// PCA fits and their cross-validation, timed whole, with the throughput of
// their NIPALS iterations beside a plain read-only pass over the same matrix
// in the same binary.
//
//   BM_PCA         5 components of 20000 x 500, complete and with 5 % missing
//   BM_PCA_CV      7-group cross-validation of 3 components of 2000 x 200
//   BM_PlainPass*  the read bandwidth the iterations are compared with
//
// Counter nipals_bytes_per_second: on complete data a component reads the
// matrix once for its first loadings and once per NIPALS iteration (the
// scores and, from them, the next loadings in one sweep); with gaps twice
// per iteration (loadings from scores, scores from loadings). It is those
// reads over the time spent in NextComponent (the start column, the
// iterations and their convergence tests). The reported
// time is the whole fit, with the copy of the data and the deflations. The
// cross-validation's rate is taken likewise over the time spent in the
// model's and the cross-validation's NextComponent, the rounds' bookkeeping
// included.
// Plain passes over the matrix the iterations read (the model's residuals,
// or the data for the in-cache cross-validation),
// timed between the pieces and outside the reported time, give
// plain_bytes_per_second and the share of_plain.
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/PCACrossValidation.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <vector>

namespace {

// Ten latent directions of falling weight under noise: components converge
// in a realistic number of iterations, as they do on real data.
NCDataMatrix<float> MakeTable(int rows, int cols, bool withMissing)
{
    constexpr int Rank = 10;
    std::mt19937 rng(7);
    std::normal_distribution<float> normal;
    std::bernoulli_distribution missing(0.05);
    std::vector<float> loadings(static_cast<std::size_t>(Rank) * cols);
    for (float& p : loadings)
        p = normal(rng);
    NCDataMatrix<float> m(rows, cols);
    std::vector<float*> cells = m.GetMatrixAsPointerPointer();
    std::vector<float> scores(Rank);
    for (int i = 1; i <= rows; ++i) {
        for (int a = 0; a < Rank; ++a)
            scores[a] = normal(rng) * static_cast<float>(Rank - a);
        for (int j = 1; j <= cols; ++j) {
            float v = normal(rng);
            for (int a = 0; a < Rank; ++a)
                v += scores[a] * loadings[static_cast<std::size_t>(a) * cols + j - 1];
            cells[i][j] = withMissing && missing(rng) ? -99.0f : v;
        }
    }
    m.RecountMissing();
    return m;
}

const NCDataMatrix<float>& Large(bool withMissing)
{
    static const NCDataMatrix<float> complete = MakeTable(20000, 500, false);
    static const NCDataMatrix<float> gappy = MakeTable(20000, 500, true);
    return withMissing ? gappy : complete;
}

// Reads of the matrix in one component's NextComponent, as counted above.
double Reads(const NCDataMatrix<float>& x, int iterations)
{
    return x.GetNumMisVal() == 0 ? iterations + 1.0 : 2.0 * iterations;
}

const NCDataMatrix<float>& Small()
{
    static const NCDataMatrix<float> m = MakeTable(2000, 200, false);
    return m;
}

void BM_PlainPassLarge(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Large(false));
}

void BM_PlainPassSmall(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Small());
}

void BM_PCA(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    BenchMatrix::Threads(state);
    const NCDataMatrix<float>& x = Large(state.range(1) != 0);
    BenchMatrix::PlainRate plain;
    double cells = 0.0;
    std::chrono::duration<double> inIterations{0};
    int iterations = 0;
    for (auto _ : state) {
        std::chrono::duration<double> fit{0};
        Clock::time_point start = Clock::now();
        NCPCA pca(&x, 500);
        fit += Clock::now() - start;
        iterations = 0;
        for (int a = 1; a <= 5; ++a) {
            plain.Sample(*pca.GetResiduals());
            start = Clock::now();
            pca.NextComponent(nullptr, nullptr, 0, nullptr);
            const Clock::time_point iterated = Clock::now();
            pca.CalculateResiduals();
            inIterations += iterated - start;
            fit += Clock::now() - start;
            iterations += pca.GetIterations();
            cells += Reads(x, pca.GetIterations()) * x.SizeRows() * x.SizeColumns();
        }
        state.SetIterationTime(fit.count());
        benchmark::DoNotOptimize(pca.GetTprim());
    }
    state.counters["nipals_iterations"] = iterations;
    plain.Report(state, "nipals_bytes_per_second", cells * sizeof(float), inIterations);
}

void BM_PCA_CV(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    BenchMatrix::Threads(state);
    const NCDataMatrix<float>& x = Small();
    BenchMatrix::PlainRate plain;
    double cells = 0.0;
    std::chrono::duration<double> inComponents{0};
    for (auto _ : state) {
        plain.Sample(x, 10);
        const Clock::time_point start = Clock::now();
        NCPCA pca(&x, 500);
        PCACrossValidation cv(&pca, 7, nullptr, nullptr);
        for (int a = 1; a <= 3; ++a) {
            const Clock::time_point begin = Clock::now();
            pca.NextComponent(nullptr, nullptr, 0, nullptr);
            cells += Reads(x, pca.GetIterations()) * x.SizeRows() * x.SizeColumns();
            cv.NextComponent((*pca.GetPprim())[a], nullptr, a);
            inComponents += Clock::now() - begin;
            cells += static_cast<double>(cv.GetRoundCells());
            pca.CalculateResiduals();
        }
        benchmark::DoNotOptimize(cv.GetQ2TotCum());
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    plain.Report(state, "nipals_bytes_per_second", cells * sizeof(float), inComponents);
}

} // namespace

BENCHMARK(BM_PlainPassLarge)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PCA)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithoutAndWithMissing, benchmark::kSecond>);
BENCHMARK(BM_PlainPassSmall)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PCA_CV)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreads, benchmark::kSecond>);
BENCHMARK_MAIN();
