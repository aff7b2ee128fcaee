#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/signal/FFT.h"
#include "veltancmat/signal/Wavelet.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct WaveletOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::vector<std::string> columns;
    std::string filter;                           // as typed: "Symmlet8"
    int level = 0;                                // 0: the default depth for the rows and the filter
    FFT::DetrendMode detrend = FFT::DetrendMean;
    std::optional<Wavelet::ThresholdMode> denoise; // none: coefficients only
    std::string outPath;  // CSV: the coefficients, or the denoised series
    std::string plotPath; // SVG: each series with its denoised version (or smooth) and its energy per level
    bool json = false;
    bool progress = false;
};

// One column's series and what was computed of it.
struct WaveletColumn {
    std::string name;
    int missing = 0;
    std::vector<float> input;        // as read, -99 where missing
    std::vector<float> coefficients; // packed: smooth, then levels J..1
    std::vector<double> shares;      // levels 1..J, then the smooth
    double sumOfSquares = 0.0;       // of the coefficients
    std::vector<float> curve;        // the denoised series, or for a plot the smooth with its trend
    double threshold = 0.0, sigma = 0.0;
    int kept = 0;                    // details above the threshold
};

struct WaveletResult {
    std::string source;
    std::string rowHeader;             // header of the rows' names in --out
    std::vector<std::string> rowNames; // one per row
    std::string filterName;            // "Symmlet 8"
    int taps = 0;
    bool orthogonal = true;
    int levels = 0;
    std::vector<WaveletColumn> columns;
};

// The filter named by --filter; a usage error when there is none such.
WaveletFilters FilterNamed(const std::string& name);
// The default depth: the most levels whose smooth keeps at least one
// filter length of values (at least 1, at most log2 rows).
int DefaultLevels(int rows, int taps);

// Checks the options against the table (usage errors, exit 2) and the
// columns (data errors, exit 1), then transforms each column, polling
// `progress` for Ctrl-C between columns.
WaveletResult TransformTable(const DataTable& table, const WaveletOptions& options, NCProgress& progress);

// Per column a wide panel of the series with its denoised version (or its
// smooth) and a panel of bars of the energy per level.
PlotFigure WaveletPlot(const WaveletResult& result, const WaveletOptions& options);

// `veltan wavelet`.
int RunWavelet(const WaveletOptions& options, std::ostream& out);

} // namespace veltan_cli
