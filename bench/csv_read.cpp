// Reading a numeric CSV table with the tool's reader: 20000 rows x 500
// columns, about 80 MB, written once per run to
// $TMPDIR/veltan_csv_20000x500.csv (kept there for bench/csv_read_peers.py,
// which times pandas on the same file).
//
//   BM_ReadCsvTable   the file, read and parsed, on 1 and 2 threads
//   BM_ParseBlocks    the text already in memory, parsed in blocks
//   BM_ParseLibcsv    the same text through libcsv alone: the reader before
//                     the block path, for comparison
//
// Counter MB_per_s: the file's bytes (10^6 per MB) over the time per read.
#include "cli/CsvTable.h"

#include "MatrixPass.h"

#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace {

constexpr int Rows = 20000;
constexpr int Columns = 500;

// Normal values of four decades in 5 significant digits, as a spreadsheet
// or numpy's '%.5g' writes them; header x1..x500, no name column.
const std::string& TablePath()
{
    static const std::string path = [] {
        const char* tmp = std::getenv("TMPDIR");
        const std::filesystem::path file =
            std::filesystem::path(tmp ? tmp : "/tmp") / ("veltan_csv_" + std::to_string(Rows) + "x" +
                                                        std::to_string(Columns) + ".csv");
        std::ofstream out(file, std::ios::binary);
        std::mt19937 rng(3);
        std::normal_distribution<double> normal;
        std::string line;
        for (int j = 1; j <= Columns; ++j)
            line += (j > 1 ? ",x" : "x") + std::to_string(j);
        out << line << "\n";
        char cell[32];
        for (int i = 0; i < Rows; ++i) {
            line.clear();
            for (int j = 0; j < Columns; ++j) {
                const double v = normal(rng) * (j % 4 == 0 ? 100.0 : j % 4 == 1 ? 10.0 : j % 4 == 2 ? 1.0 : 0.1);
                const auto end = std::to_chars(cell, cell + sizeof cell, v, std::chars_format::general, 5).ptr;
                if (j > 0)
                    line += ',';
                line.append(cell, end);
            }
            out << line << "\n";
        }
        return file.string();
    }();
    return path;
}

const std::string& TableText()
{
    static const std::string text = [] {
        std::ifstream in(TablePath(), std::ios::binary);
        std::ostringstream content;
        content << in.rdbuf();
        return content.str();
    }();
    return text;
}

void Report(benchmark::State& state)
{
    const double bytes = static_cast<double>(TableText().size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["MB_per_s"] = benchmark::Counter(state.iterations() * bytes / 1e6, benchmark::Counter::kIsRate);
}

void BM_ReadCsvTable(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    TableText();
    for (auto _ : state) {
        const veltan_cli::DataTable table = veltan_cli::ReadCsvTable(TablePath());
        benchmark::DoNotOptimize(table.values.GetNumMisVal());
    }
    Report(state);
}

void BM_ParseBlocks(benchmark::State& state)
{
    BenchMatrix::Threads(state);
    const std::string& text = TableText();
    for (auto _ : state) {
        const veltan_cli::DataTable table = veltan_cli::ParseCsvTable(text, "t.csv");
        benchmark::DoNotOptimize(table.values.GetNumMisVal());
    }
    Report(state);
}

void BM_ParseLibcsv(benchmark::State& state)
{
    const std::string& text = TableText();
    for (auto _ : state) {
        const veltan_cli::DataTable table =
            veltan_cli::ParseCsvTable(text, "t.csv", veltan_cli::NamesColumn::Auto, false, {false, 0});
        benchmark::DoNotOptimize(table.values.GetNumMisVal());
    }
    Report(state);
}

} // namespace

BENCHMARK(BM_ReadCsvTable)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ParseBlocks)->Apply(BenchMatrix::OnThreads)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ParseLibcsv)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK_MAIN();
