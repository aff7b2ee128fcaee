// PLS fits and their cross-validation, timed whole, with the throughput of
// their passes over X beside a plain read-only pass over the same matrix in
// the same binary.
//
//   BM_PLS         5 components of 20000 x 500 with 1 and 10 responses, 5 % missing
//   BM_PLS_CV      7-group cross-validation of 3 components of 2000 x 200, complete
//   BM_PlainPass*  the read bandwidth the fits are compared with
//
// Counter x_bytes_per_second: the reads of X inside NextComponent over the
// time spent there. With gaps in X a component reads X once for its sum of
// squares (the correlation guard), twice per NIPALS iteration (weights
// from the Y scores, scores from the weights) and once for the loadings.
// On complete X the first component reads X for its sum of squares and its
// first weights; later ones took both during the previous deflation,
// outside that time. Each iteration reads X for its scores and, after the
// first, for its weights; the loadings come in the sweep of the last scores
// when that is known to be the last (one response, or the iteration
// limit), else with one more read.
// The reads of Y (at most 10 columns beside 500) are left out. The reported
// time is the whole fit, with the copies of the data and the deflations.
// The cross-validation's rate counts the model's reads and the cells the
// rounds work through as if each round read its own rows (the left-out rows'
// projection too) over the time spent in the model's and the
// cross-validation's NextComponent, bookkeeping of the rounds included. The
// rounds share their passes, each loading X once per step for all of them,
// so this is a rate of work rather than of memory traffic; the reported time is the whole run, with the model's
// copy of the data and its deflations. Plain passes over the matrix the
// iterations read (the model's X residuals, or X for the in-cache
// cross-validation), timed between the pieces and outside the reported time,
// give plain_bytes_per_second and the share of_plain.
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/PLSCrossValidation.h"

#include "MatrixPass.h"
#include "ModelTables.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <vector>

namespace {

// Reads of X in NextComponent of component a, as the counter above counts them.
double XReads(int a, int iterations, int responses, bool complete)
{
    if (!complete)
        return 2.0 * iterations + 2.0;
    const double start = a == 1 ? 2.0 : 0.0;
    const double loadings = responses == 1 || iterations == 500 ? 0.0 : 1.0;
    return start + 2.0 * iterations - 1.0 + loadings;
}

using BenchModels::MakeTable;
using BenchModels::Table;

const Table& Large(int responses)
{
    static const Table one = MakeTable(20000, 500, 1, 0.05);
    static const Table ten = MakeTable(20000, 500, 10, 0.05);
    return responses == 1 ? one : ten;
}

const Table& Small(int responses)
{
    static const Table one = MakeTable(2000, 200, 1, 0.0);
    static const Table ten = MakeTable(2000, 200, 10, 0.0);
    return responses == 1 ? one : ten;
}

void BM_PlainPassLarge(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Large(1).x);
}

void BM_PlainPassSmall(benchmark::State& state)
{
    BenchMatrix::PlainPass(state, Small(1).x);
}

void BM_PLS(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    BenchMatrix::Threads(state);
    const Table& data = Large(static_cast<int>(state.range(1)));
    const double xCells = static_cast<double>(data.x.SizeRows()) * data.x.SizeColumns();
    BenchMatrix::PlainRate plain;
    double cells = 0.0;
    std::chrono::duration<double> inComponents{0};
    int iterations = 0;
    for (auto _ : state) {
        std::chrono::duration<double> fit{0};
        Clock::time_point start = Clock::now();
        NCPLS pls(&data.x, &data.y, 500);
        fit += Clock::now() - start;
        iterations = 0;
        for (int a = 1; a <= 5; ++a) {
            plain.Sample(*pls.GetXResiduals());
            start = Clock::now();
            pls.NextComponent(nullptr, nullptr, true, false);
            const Clock::time_point fitted = Clock::now();
            pls.CalculateResiduals();
            inComponents += fitted - start;
            fit += Clock::now() - start;
            iterations += pls.GetIterations();
            cells += XReads(a, pls.GetIterations(), data.y.SizeColumns(), data.x.GetNumMisVal() == 0) * xCells;
        }
        state.SetIterationTime(fit.count());
        benchmark::DoNotOptimize(pls.GetTprim());
    }
    state.counters["nipals_iterations"] = iterations;
    plain.Report(state, "x_bytes_per_second", cells * sizeof(float), inComponents);
}

void BM_PLS_CV(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    BenchMatrix::Threads(state);
    const Table& data = Small(static_cast<int>(state.range(1)));
    const double xCells = static_cast<double>(data.x.SizeRows()) * data.x.SizeColumns();
    BenchMatrix::PlainRate plain;
    double cells = 0.0;
    std::chrono::duration<double> inComponents{0};
    for (auto _ : state) {
        plain.Sample(data.x, 10);
        const Clock::time_point start = Clock::now();
        NCPLS pls(&data.x, &data.y, 500);
        PLSCrossValidation cv(&pls, 7, nullptr);
        for (int a = 1; a <= 3; ++a) {
            const Clock::time_point begin = Clock::now();
            pls.NextComponent(nullptr, nullptr, true, false);
            cells += XReads(a, pls.GetIterations(), data.y.SizeColumns(), data.x.GetNumMisVal() == 0) * xCells;
            cv.NextComponent(nullptr, 500, (*pls.GetTprim())[a], nullptr, false);
            inComponents += Clock::now() - begin;
            cells += static_cast<double>(cv.GetRoundCells());
            pls.CalculateResiduals();
        }
        benchmark::DoNotOptimize(cv.GetQ2TotCum());
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    plain.Report(state, "x_bytes_per_second", cells * sizeof(float), inComponents);
}

} // namespace

BENCHMARK(BM_PlainPassLarge)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PLS)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithOneAndTenResponses, benchmark::kSecond>);
BENCHMARK(BM_PlainPassSmall)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PLS_CV)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreadsWithOneAndTenResponses, benchmark::kSecond>);
BENCHMARK_MAIN();
