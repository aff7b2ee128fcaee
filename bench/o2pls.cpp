// O2PLS fits and the cross-validated grid of component counts.
//
//   BM_O2PLS_Fit   3 joint + 2 X-orthogonal + 2 Y-orthogonal components of
//                  X 5000 x 1000 and Y 5000 x 200
//   BM_O2PLS_Grid  7-group cross-validation of the grid 1..3 joint x 0..2
//                  X-orthogonal x 0..2 Y-orthogonal on the same blocks
//   BM_O2PLS_GridByRefits  the same 7 x 27 cells, each round's model refitted
//                  from scratch for every cell and both directions
//                  predicted: what the shared grid saves
//
// The blocks share three directions; X has two of its own and Y two of its
// own, each under noise, so that every kind of component has something to
// find.
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/models/O2PLSCrossValidation.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

constexpr int Rows = 5000, XCols = 1000, YCols = 200, Groups = 7;
constexpr int MaxJoint = 3, MaxOrthogonal = 2;

struct Blocks {
    NCDataMatrix<float> x, y;
};

// `shared` directions load on both blocks, `own` on one only.
NCDataMatrix<float> Block(const std::vector<std::vector<float>>& scores, int cols, std::mt19937& rng)
{
    std::normal_distribution<float> normal;
    std::vector<std::vector<float>> loadings(scores.size(), std::vector<float>(static_cast<std::size_t>(cols)));
    for (auto& p : loadings)
        for (float& v : p)
            v = normal(rng);
    NCDataMatrix<float> m(Rows, cols);
    for (int i = 1; i <= Rows; ++i)
        for (int j = 1; j <= cols; ++j) {
            float v = 0.5f * normal(rng);
            for (std::size_t a = 0; a < scores.size(); ++a)
                v += scores[a][static_cast<std::size_t>(i - 1)] * loadings[a][static_cast<std::size_t>(j - 1)];
            m(i, j, v);
        }
    return m;
}

const Blocks& Data()
{
    static const Blocks blocks = [] {
        std::mt19937 rng(17);
        std::normal_distribution<float> normal;
        const auto direction = [&](float weight) {
            std::vector<float> s(Rows);
            for (float& v : s)
                v = weight * normal(rng);
            return s;
        };
        const std::vector<float> s1 = direction(3.0f), s2 = direction(2.0f), s3 = direction(1.5f);
        Blocks b{Block({s1, s2, s3, direction(2.5f), direction(1.2f)}, XCols, rng),
                 Block({s1, s2, s3, direction(2.0f), direction(1.0f)}, YCols, rng)};
        for (NCDataMatrix<float>* m : {&b.x, &b.y})
            for (int j = 1; j <= m->SizeColumns(); ++j) {
                double mean = 0.0;
                for (int i = 1; i <= Rows; ++i)
                    mean += (*m)[i][j];
                mean /= Rows;
                for (int i = 1; i <= Rows; ++i)
                    (*m)(i, j, static_cast<float>((*m)[i][j] - mean));
            }
        return b;
    }();
    return blocks;
}

void BM_O2PLS_Fit(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const Blocks& data = Data();
    for (auto _ : state) {
        NCO2PLS model(data.x, data.y, true, 200);
        model.Fit(MaxJoint, MaxOrthogonal, MaxOrthogonal);
        benchmark::DoNotOptimize(model.GetTprim());
    }
}

void BM_O2PLS_Grid(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const Blocks& data = Data();
    for (auto _ : state) {
        O2PLSCrossValidation cv(data.x, data.y, MaxJoint, MaxOrthogonal, MaxOrthogonal, Groups, nullptr);
        benchmark::DoNotOptimize(cv.GetResults());
    }
}

// The rows of `m` whose group is (or is not) g, centred by the kept rows'
// means as the cross-validation centres them.
NCDataMatrix<float> RoundRows(const NCDataMatrix<float>& m, int g, bool kept, const std::vector<double>& means)
{
    int count = 0;
    for (int i = 1; i <= Rows; ++i)
        count += ((i - 1) % Groups == g) != kept ? 1 : 0;
    NCDataMatrix<float> rows(count, m.SizeColumns());
    int r = 0;
    for (int i = 1; i <= Rows; ++i)
        if (((i - 1) % Groups == g) != kept) {
            ++r;
            for (int j = 1; j <= m.SizeColumns(); ++j)
                rows(r, j, static_cast<float>(m[i][j] - means[static_cast<std::size_t>(j - 1)]));
        }
    return rows;
}

std::vector<double> KeptMeans(const NCDataMatrix<float>& m, int g)
{
    std::vector<double> means(static_cast<std::size_t>(m.SizeColumns()), 0.0);
    int count = 0;
    for (int i = 1; i <= Rows; ++i)
        if ((i - 1) % Groups != g) {
            ++count;
            for (int j = 1; j <= m.SizeColumns(); ++j)
                means[static_cast<std::size_t>(j - 1)] += m[i][j];
        }
    for (double& v : means)
        v /= count;
    return means;
}

void BM_O2PLS_GridByRefits(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const Blocks& data = Data();
    for (auto _ : state)
        for (int g = 0; g < Groups; ++g) {
            const std::vector<double> xMeans = KeptMeans(data.x, g), yMeans = KeptMeans(data.y, g);
            const NCDataMatrix<float> x = RoundRows(data.x, g, true, xMeans), y = RoundRows(data.y, g, true, yMeans);
            const NCDataMatrix<float> xOut = RoundRows(data.x, g, false, xMeans);
            const NCDataMatrix<float> yOut = RoundRows(data.y, g, false, yMeans);
            for (int a = 1; a <= MaxJoint; ++a)
                for (int ox = 0; ox <= MaxOrthogonal; ++ox)
                    for (int oy = 0; oy <= MaxOrthogonal; ++oy) {
                        NCO2PLS model(x, y, true, O2PLSCrossValidation::RoundIterations);
                        model.Fit(a, ox, oy);
                        benchmark::DoNotOptimize(NCO2PLSXPred(model, xOut).GetPrediction());
                        benchmark::DoNotOptimize(NCO2PLSYPred(model, yOut).GetPrediction());
                    }
        }
}

} // namespace

// Wall-clock time: the fits run on a thread team of their own.
BENCHMARK(BM_O2PLS_Fit)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_O2PLS_Grid)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_O2PLS_GridByRefits)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kSecond)->UseRealTime()->Iterations(1);
BENCHMARK_MAIN();
