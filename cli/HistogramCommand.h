#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct HistogramOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::vector<std::string> columns; // one or more, sharing the bins
    std::string outPath;              // CSV: one row per bin
    std::string plotPath;             // SVG: the histograms overlaid
    bool json = false;
};

// Shared bins and the counts of every column in them. Bin b (from 0) covers
// [start + b width, start + (b + 1) width); values below the first bin are
// counted in it, values past the last in the last.
struct SharedHistogram {
    std::string source;
    std::vector<std::string> columns;
    std::vector<int> present;                 // values per column
    std::vector<double> centres;
    std::vector<std::vector<double>> counts;  // per column, one per bin
    double start = 0.0, width = 0.0;
};

// The columns' present values, each padded with the missing marker to the
// longest, stacked one after another for the library's shared bins.
SharedHistogram ShareBins(const DataTable& table, const std::vector<std::string>& columns);

// The columns' histograms overlaid: see-through bars, one colour each.
PlotFigure HistogramPlot(const SharedHistogram& histogram);

// `veltan histogram`.
int RunHistogram(const HistogramOptions& options, std::ostream& out);

} // namespace veltan_cli
