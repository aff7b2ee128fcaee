#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/signal/FFT.h"

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// What `veltan spectrum` computes of each column.
enum class SpectrumKind { Autocorrelation, CrossCorrelation, Power };

struct SpectrumOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::vector<std::string> columns;
    SpectrumKind kind = SpectrumKind::Autocorrelation;
    int maxLag = 0;        // correlations
    std::string other;     // the cross-correlation's second column
    int segment = 0;       // power: m, a power of two
    bool overlap = false;
    FFT::DataWindowMode window = FFT::Hann;
    FFT::DetrendMode detrend = FFT::DetrendMean;
    std::string outPath;  // CSV: one row per lag or frequency
    std::string plotPath; // SVG: the columns' curves over lag or frequency
    bool json = false;
    bool progress = false;
};

// One column's series and its result.
struct SpectrumColumn {
    std::string name;
    int values = 0, missing = 0;
    NCDataVector<float> result;
};

struct SpectrumResult {
    std::string source;
    int rows = 0;             // the series' length, missing values included
    int pairs = 0, padded = 0; // power: segment pairs and padded length
    std::vector<double> axis; // lags, or frequencies in cycles per row
    std::vector<SpectrumColumn> columns;
    int otherMissing = 0;     // cross-correlation: missing values of the other column
};

// The spectra of the options' columns; ToolError for a column that cannot
// be used or options the table cannot satisfy.
SpectrumResult ComputeSpectra(const DataTable& table, const SpectrumOptions& options, NCProgress* progress);

// The columns' curves over lag or frequency.
PlotFigure SpectrumPlot(const SpectrumResult& result, const SpectrumOptions& options);

// `veltan spectrum`.
int RunSpectrum(const SpectrumOptions& options, std::ostream& out);

} // namespace veltan_cli
