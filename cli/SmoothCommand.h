#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include "veltancmat/platform/NCProgress.h"

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct SmoothOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::vector<std::string> columns; // one or more series, one value per row
    int window = 0;                   // as typed; the library may widen it
    int order = 0;
    int derivative = 0;               // 0 smooths
    double step = 1.0;                // spacing of the rows
    bool edges = false;               // fill the ends from the end windows
    std::string outPath;              // CSV: the results, one row per row
    std::string plotPath;             // SVG: the series and its curve, or the derivative
    bool json = false;
    bool progress = false;
};

// One column's series and its result, row by row (-99 where missing).
struct SmoothedColumn {
    std::string name;
    std::vector<float> input;
    std::vector<float> result;
    int missingIn = 0;
    int results = 0; // rows with a result
};

struct SmoothResult {
    std::string source;
    std::string rowHeader;             // header of the rows' names in --out
    std::vector<std::string> rowNames; // one per row
    int windowAsked = 0, window = 0, order = 0, derivative = 0;
    double step = 1.0;
    bool edges = false;
    std::vector<SmoothedColumn> columns;
};

// Checks the options against the table (usage errors, exit 2) and the
// columns (data errors, exit 1), then smooths or differentiates each column,
// polling `progress` for Ctrl-C between columns.
SmoothResult SmoothTable(const DataTable& table, const SmoothOptions& options, NCProgress& progress);

// One wide panel per column: the values as points and the smoothed curve,
// or the derivative as a line with the zero level.
PlotFigure SmoothPlot(const SmoothResult& result);

// `veltan smooth`.
int RunSmooth(const SmoothOptions& options, std::ostream& out);

} // namespace veltan_cli
