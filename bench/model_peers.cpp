// The single model fits the peers are compared with, on 20000 x 500 tables
// of ModelTables' recipe (ten latent directions of falling weight under
// noise), 5 components each, timed whole (scaling, copies, fits and
// deflations):
//
//   BM_PCA_Gaps      PCA of X with 5 % of its cells missing, centred
//   BM_PCA_Complete  PCA of complete X, centred
//   BM_PLS1          PLS of one response on complete X, both blocks scaled
//                    to unit variance
//
// Counters: the NIPALS iterations of the 5 components and, for a check that
// every program fitted the same model, R2X (PCA) or R2Y (PLS) of all 5.
//
// The tables are written once to $TMPDIR for bench/model_peers.py
// (scikit-learn) and bench/model_peers_r.R (pcaMethods), float32 row by
// row: veltan_fits_20000x501.f32 (complete X, then y) and
// veltan_fits_gaps_20000x500.f32 (X with -99 in the missing cells).
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/preprocess/NCScale.h"

#include "MatrixPass.h"
#include "ModelTables.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

namespace {

constexpr int Rows = 20000;
constexpr int Columns = 500;
constexpr int Components = 5;

std::filesystem::path TempFile(const char* name)
{
    const char* tmp = std::getenv("TMPDIR");
    return std::filesystem::path(tmp ? tmp : "/tmp") / name;
}

// Writes the rows of x, each followed by its row of y when y is given.
void Write(const char* name, const NCDataMatrix<float>& x, const NCDataMatrix<float>* y)
{
    std::ofstream out(TempFile(name), std::ios::binary);
    for (int i = 1; i <= x.SizeRows(); ++i) {
        out.write(reinterpret_cast<const char*>(x[i].begin()), x.SizeColumns() * sizeof(float));
        if (y)
            out.write(reinterpret_cast<const char*>((*y)[i].begin()), y->SizeColumns() * sizeof(float));
    }
}

const BenchModels::Table& Complete()
{
    static const BenchModels::Table table = [] {
        BenchModels::Table t = BenchModels::MakeTable(Rows, Columns, 1, 0.0);
        Write("veltan_fits_20000x501.f32", t.x, &t.y);
        return t;
    }();
    return table;
}

const NCDataMatrix<float>& WithGaps()
{
    static const NCDataMatrix<float> x = [] {
        BenchModels::Table t = BenchModels::MakeTable(Rows, Columns, 1, 0.05);
        Write("veltan_fits_gaps_20000x500.f32", t.x, nullptr);
        return std::move(t.x);
    }();
    return x;
}

NCDataMatrix<float> Scaled(const NCDataMatrix<float>& m, NCScale::Scaling type)
{
    NCDataMatrix<float> scaled = m;
    NCScale scale(m.SizeColumns());
    for (int j = 1; j <= m.SizeColumns(); ++j)
        scale.SetType(j, type);
    scale.ScaleMatrix(&scaled, true);
    return scaled;
}

void FitPca(benchmark::State& state, const NCDataMatrix<float>& x)
{
    BenchMatrix::Threads(state);
    int iterations = 0;
    double r2 = 0.0;
    for (auto _ : state) {
        NCPCA pca(Scaled(x, NCScale::ScaleCenter), NCNipals::DefaultMaxIterations);
        iterations = 0;
        for (int a = 1; a <= Components; ++a) {
            pca.NextComponent(nullptr, nullptr, 0, nullptr);
            pca.CalculateResiduals();
            iterations += pca.GetIterations();
        }
        state.PauseTiming();
        r2 = 1.0 - pca.GetResiduals()->GetSS() / Scaled(x, NCScale::ScaleCenter).GetSS();
        state.ResumeTiming();
    }
    state.counters["nipals_iterations"] = iterations;
    state.counters["R2X"] = r2;
}

void BM_PCA_Gaps(benchmark::State& state)
{
    FitPca(state, WithGaps());
}

void BM_PCA_Complete(benchmark::State& state)
{
    FitPca(state, Complete().x);
}

void BM_PLS1(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const BenchModels::Table& data = Complete();
    int iterations = 0;
    double r2 = 0.0;
    for (auto _ : state) {
        NCDataMatrix<float> y = Scaled(data.y, NCScale::ScaleUnitVariance);
        const double ss0 = y.GetSS();
        NCPLS pls(Scaled(data.x, NCScale::ScaleUnitVariance), std::move(y), NCNipals::DefaultMaxIterations);
        iterations = 0;
        for (int a = 1; a <= Components; ++a) {
            pls.NextComponent(nullptr, nullptr, true, false);
            pls.CalculateResiduals();
            iterations += pls.GetIterations();
        }
        state.PauseTiming();
        r2 = 1.0 - pls.GetYResiduals()->GetSS() / ss0;
        state.ResumeTiming();
    }
    state.counters["nipals_iterations"] = iterations;
    state.counters["R2Y"] = r2;
}

} // namespace

BENCHMARK(BM_PCA_Gaps)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PCA_Complete)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PLS1)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
