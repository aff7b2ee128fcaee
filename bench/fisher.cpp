// Fisher's exact test by the network algorithm, in seconds per test.
//
//   BM_Fisher/table:0  a 5 x 5 table of 100, workspace 2e6
//   BM_Fisher/table:1  a 2 x 10 table of 300, workspace 2e6 (2e5 is too
//                      small)
//   BM_Fisher/table:2  table 0 given the other way round, workspace 1e7:
//                      the network then takes the stages over the other
//                      margin and fails in 2e6
//
// bench/fisher_r.R times R's fisher.test on the matrices FEXACT receives
// here (the transpose of the lines below), so both run the same network.
#include "veltancmat/spc/FisherExact.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

struct Case {
    int lines, perLine, workspace;
    std::vector<int> cells; // line by line
};

const Case Cases[] = {
    {5, 5, 2000000, {3, 0, 4, 1, 2, 8, 2, 3, 7, 2, 3, 4, 8, 7, 5, 4, 4, 3, 2, 4, 3, 6, 4, 5, 6}},
    {2, 10, 2000000, {9, 14, 11, 16, 16, 20, 14, 15, 17, 22, 15, 8, 15, 14, 13, 18, 12, 12, 17, 22}},
    {5, 5, 10000000, {3, 8, 3, 4, 3, 0, 2, 4, 4, 6, 4, 3, 8, 3, 4, 1, 7, 7, 2, 5, 2, 2, 5, 4, 6}},
};

void BM_Fisher(benchmark::State& state)
{
    const Case& c = Cases[state.range(0)];
    double p = 0.0;
    for (auto _ : state) {
        p = Sta::GetFisherExactProbability(c.cells.data(), c.lines, c.perLine, false, Sta::TwoSided, c.workspace);
        benchmark::DoNotOptimize(p);
    }
    state.counters["p"] = p;
}

} // namespace

BENCHMARK(BM_Fisher)->ArgName("table")->DenseRange(0, 2)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK_MAIN();
