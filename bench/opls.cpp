// OPLS fits and their cross-validation, each timed beside a PLS fit of as
// many components on the same data in the same binary, which is the cost
// an OPLS model is compared with.
//
//   BM_OPLS     1 predictive + 3 orthogonal components of 20000 x 500,
//               1 response, 5 % missing; PLS: 4 components
//   BM_OPLS_CV  7-group cross-validation of 1 predictive + 3 orthogonal
//               components of 2000 x 200, 1 and 5 responses, 5 % missing;
//               PLS: a 4-component fit of the same table
//
// Counters: pls_seconds, the PLS fit's time per run (timed between the
// OPLS runs, outside the reported time), and of_pls, the OPLS time over it.
// refinement_passes is the last stage's number of basis refinement passes.
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/OPLSCrossValidation.h"

#include "MatrixPass.h"
#include "ModelTables.h"

#include <benchmark/benchmark.h>

#include <chrono>

namespace {

using BenchModels::MakeTable;
using BenchModels::Table;
using Clock = std::chrono::steady_clock;

const Table& Large()
{
    static const Table one = MakeTable(20000, 500, 1, 0.05);
    return one;
}

const Table& Small(int responses)
{
    static const Table one = MakeTable(2000, 200, 1, 0.05);
    static const Table five = MakeTable(2000, 200, 5, 0.05);
    return responses == 1 ? one : five;
}

void OnThreadsWithOneAndFiveResponses(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "responses"})->ArgsProduct({{1, 2}, {1, 5}});
}

double SecondsOfPls(const Table& data, int components)
{
    const Clock::time_point start = Clock::now();
    NCPLS pls(&data.x, &data.y, 500);
    for (int a = 1; a <= components; ++a) {
        pls.NextComponent(nullptr, nullptr, true, false);
        pls.CalculateResiduals();
    }
    benchmark::DoNotOptimize(pls.GetTprim());
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Report(benchmark::State& state, double oplsSeconds, double plsSeconds, int runs)
{
    state.counters["pls_seconds"] = plsSeconds / runs;
    state.counters["of_pls"] = oplsSeconds / plsSeconds;
}

void BM_OPLS(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const Table& data = Large();
    double opls = 0.0, pls = 0.0;
    int runs = 0, passes = 0;
    for (auto _ : state) {
        pls += SecondsOfPls(data, 4);
        const Clock::time_point start = Clock::now();
        NCOPLS model(&data.x, &data.y, 0, 200);
        for (int k = 0; k <= 3; ++k)
            model.NextComponent(nullptr);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        benchmark::DoNotOptimize(model.GetTprim());
        state.SetIterationTime(seconds);
        opls += seconds;
        passes = model.GetRefinementCount();
        ++runs;
    }
    state.counters["refinement_passes"] = passes;
    Report(state, opls, pls, runs);
}

void BM_OPLS_CV(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const Table& data = Small(static_cast<int>(state.range(1)));
    double opls = 0.0, pls = 0.0;
    int runs = 0;
    for (auto _ : state) {
        pls += SecondsOfPls(data, 4);
        const Clock::time_point start = Clock::now();
        OPLSCrossValidation cv(&data.x, &data.y, 1, 7, nullptr, nullptr);
        for (int k = 1; k <= 3; ++k)
            cv.NextComponent(nullptr);
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        benchmark::DoNotOptimize(cv.GetQ2TotCum());
        state.SetIterationTime(seconds);
        opls += seconds;
        ++runs;
    }
    Report(state, opls, pls, runs);
}

} // namespace

BENCHMARK(BM_OPLS)->Apply(BenchMatrix::ManualTime<BenchMatrix::OnThreads, benchmark::kSecond>);
BENCHMARK(BM_OPLS_CV)->Apply(BenchMatrix::ManualTime<OnThreadsWithOneAndFiveResponses, benchmark::kSecond>);
BENCHMARK_MAIN();
