// The cross-validated PLS fit the peers are compared with: 20000 x 500, one
// response, 5 components, 7 cross-validation groups (default labels), both
// blocks unit-variance scaled, the loop the tool runs (PLS_CrossValidated).
// The reported time is the whole run: the scaling, the copies, the fits,
// the rounds and the deflations. Counters: the model's NIPALS iterations
// over the 5 components, and the rounds' work in passes over X (every
// round's kept rows and left-out projections; the rounds share their
// passes, so X is loaded fewer times than that).
//
// The table is ModelTables' recipe without missing cells. It is written
// once to $TMPDIR/veltan_pls_cv_20000x501.f32 (float32, row by row, the 500
// X values then y), which bench/pls_cv_peers.py (scikit-learn) and
// bench/pls_cv_r.R (R pls) read, so that all three fit the same numbers.
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/preprocess/NCScale.h"

#include "MatrixPass.h"
#include "ModelTables.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

constexpr int Rows = 20000;
constexpr int Columns = 500;
constexpr int Components = 5;
constexpr int Groups = 7;

const BenchModels::Table& Data()
{
    static const BenchModels::Table table = [] {
        BenchModels::Table t = BenchModels::MakeTable(Rows, Columns, 1, 0.0);
        const char* tmp = std::getenv("TMPDIR");
        std::ofstream out(std::filesystem::path(tmp ? tmp : "/tmp") / "veltan_pls_cv_20000x501.f32",
                          std::ios::binary);
        for (int i = 1; i <= Rows; ++i) {
            out.write(reinterpret_cast<const char*>(t.x[i].begin()), Columns * sizeof(float));
            out.write(reinterpret_cast<const char*>(t.y[i].begin()), sizeof(float));
        }
        return t;
    }();
    return table;
}

NCDataMatrix<float> Scaled(const NCDataMatrix<float>& m)
{
    NCDataMatrix<float> scaled = m;
    NCScale scale(m.SizeColumns());
    for (int j = 1; j <= m.SizeColumns(); ++j)
        scale.SetType(j, NCScale::ScaleUnitVariance);
    scale.ScaleMatrix(&scaled, true);
    return scaled;
}

void BM_PLS_CV7(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const BenchModels::Table& data = Data();
    for (auto _ : state) {
        PLS_CrossValidated model(Scaled(data.x), Scaled(data.y), Groups, nullptr);
        model.KeepEveryComponent(true);
        double roundCells = 0.0;
        for (int a = 1; a <= Components; ++a) {
            model.NextComponent(nullptr);
            roundCells += static_cast<double>(model.GetCrossValidation().GetRoundCells());
        }
        benchmark::DoNotOptimize(model.GetCrossValidation().GetQ2TotCum());
        state.counters["Q2cum"] = model.GetCrossValidation().GetQ2TotCum();
        int iterations = 0;
        for (const PLS_CrossValidated::Component& c : model.GetRecords())
            iterations += c.iterations;
        state.counters["model_iterations"] = iterations;
        // The rounds' work in passes over X (each round's own rows counted).
        state.counters["round_passes"] = roundCells / (static_cast<double>(Rows) * Columns);
    }
}

} // namespace

BENCHMARK(BM_PLS_CV7)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
