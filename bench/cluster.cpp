// Hierarchical clustering of the rows of a table, one run per case:
//
//   BM_Ward/20000          Ward on 20000 x 20 complete rows
//   BM_Single/20000        single linkage on the same rows
//   BM_Ward/65535          Ward at the row limit
//   BM_WardGaps/40000/0    Ward on 40000 x 20 with 5 % missing cells, in memory
//   BM_WardGaps/40000/2048 the same with the memory limit at 2048 MB: the disk path
//
// The rows are ten normal clusters in 20 dimensions from a fixed seed. Each
// case writes its rows (float32, row after row) to TMPDIR as
// veltan_cluster_<rows>_<missing>.f32 and its merge heights (float64, in
// merge order) beside them, so that bench/cluster_peers.py can time
// fastcluster on the same rows and compare the heights. Max RSS is the
// process's peak: run one case per process (--benchmark_filter) to read it.
#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/platform/TempFile.h"
#include "veltancmat/platform/UserComm.h"

#include <benchmark/benchmark.h>
#include <omp.h>
#include <sys/resource.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int Columns = 20;

NCDataMatrix<float> Blobs(int rows, double missing)
{
    std::mt19937 gen(2026);
    std::normal_distribution<float> normal;
    std::uniform_real_distribution<double> uniform;
    std::vector<std::vector<float>> centres(10, std::vector<float>(Columns));
    for (auto& c : centres)
        for (float& v : c)
            v = 4.0f * normal(gen);
    NCDataMatrix<float> m(rows, Columns);
    for (int i = 1; i <= rows; ++i) {
        const auto& c = centres[static_cast<std::size_t>(i % 10)];
        int blanked = 0;
        for (int j = 1; j <= Columns; ++j) {
            const bool blank = uniform(gen) < missing && 4 * (blanked + 1) <= Columns;
            blanked += blank;
            m(i, j, blank ? -99.0f : c[static_cast<std::size_t>(j - 1)] + normal(gen));
        }
    }
    return m;
}

std::string Stem(int rows, double missing)
{
    return (QvGetTempDirectory() / ("veltan_cluster_" + std::to_string(rows) + "_" +
                                    std::to_string(static_cast<int>(missing * 100))))
        .string();
}

void Save(const std::string& path, const void* data, std::size_t bytes)
{
    if (std::FILE* f = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, bytes, f);
        std::fclose(f);
    }
}

void SaveRows(const NCDataMatrix<float>& m, const std::string& stem)
{
    std::vector<float> cells;
    for (int i = 1; i <= m.SizeRows(); ++i)
        for (int j = 1; j <= m.SizeColumns(); ++j)
            cells.push_back(m[i][j]);
    Save(stem + ".f32", cells.data(), cells.size() * sizeof(float));
}

// Heights in merge order, walking the tree: a merge's height is its node's.
std::vector<double> Heights(const DendroGram::DendroGramNode* root)
{
    std::vector<double> heights;
    std::vector<const DendroGram::DendroGramNode*> stack{root};
    while (!stack.empty()) {
        const DendroGram::DendroGramNode* node = stack.back();
        stack.pop_back();
        if (node->IsLeaf())
            continue;
        heights.push_back(node->GetHeight());
        stack.push_back(node->GetLeft());
        stack.push_back(node->GetRight());
    }
    return heights;
}

void Run(benchmark::State& state, DendroGram::ClusterDistanceCalculator& calculator, const char* name,
         double missing, std::uint64_t limitBytes)
{
    omp_set_dynamic(0);
    omp_set_num_threads(omp_get_num_procs());
    const int rows = static_cast<int>(state.range(0));
    const NCDataMatrix<float> data = Blobs(rows, missing);
    const std::string stem = Stem(rows, missing);
    SaveRows(data, stem);
    DendroGram::SetMemoryLimit(limitBytes);
    const auto previous = UserComm::SetUserComm(UserComm::FromFunctions(
        [](const std::string&, const std::string&) {}, [](const std::string&, const std::string&, bool) { return true; }));
    std::unique_ptr<DendroGram::DendroGramNode> root;
    for (auto _ : state)
        root.reset(DendroGram::GetDendroGram(data, calculator, nullptr, nullptr));
    UserComm::SetUserComm(previous);
    DendroGram::SetMemoryLimit(0);
    const std::vector<double> heights = Heights(root.get());
    Save(stem + "_" + name + ".f64", heights.data(), heights.size() * sizeof(double));
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["maxRSS_MB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_Ward(benchmark::State& state)
{
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    Run(state, ward, "ward", 0.0, 0);
}

void BM_Single(benchmark::State& state)
{
    SingleLinkageDistanceCalculator single;
    Run(state, single, "single", 0.0, 0);
}

void BM_WardGaps(benchmark::State& state)
{
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const auto limit = static_cast<std::uint64_t>(state.range(1)) << 20;
    Run(state, ward, limit ? "ward_disk" : "ward", 0.05, limit);
}

} // namespace

BENCHMARK(BM_Ward)->Arg(20000)->Arg(65535)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_Single)->Arg(20000)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_WardGaps)
    ->Args({40000, 0})
    ->Args({40000, 2048})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
// Smaller cases for a quick look.
BENCHMARK(BM_Ward)->Arg(5000)->Name("BM_WardSmall")->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
BENCHMARK(BM_WardGaps)->Args({5000, 0})->Args({5000, 16})->Name("BM_WardGapsSmall")->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

BENCHMARK_MAIN();
