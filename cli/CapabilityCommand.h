#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include "veltancmat/spc/CapabilityAnalysis.h"

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct CapabilityOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::string column;
    // As typed: a limit given as text is the command's to refuse in words.
    std::string lsl, usl, target;
    std::string referencePath; // a table with a column of the same name
    std::string outPath;       // CSV: one row per statistic
    std::string plotPath;      // SVG: histogram, normal curve, limits
    bool json = false;
};

// One capability analysis and what the report needs to explain it.
struct CapabilityStudy {
    std::string source, column;
    int n = 0;
    std::vector<double> values; // present values, for the plot
    double lsl = -99.0, usl = -99.0, target = -99.0;
    std::string referenceSource; // "" without --reference
    int referenceN = 0;
    CapabilityAnalysis::CapabilityValues results;
};

// One result of a study as the report, CSV and JSON show it.
struct CapabilityFigure {
    const char* key;   // JSON and CSV name
    const char* label; // report name
    double value;      // -99 when not computed
    std::string why;   // why it was not computed ("" when it was)
};

// The figures in report order, each with the reason it is missing.
std::vector<CapabilityFigure> CapabilityFigures(const CapabilityStudy& study);

// The histogram of the values with the fitted normal curve (as counts per
// bin: n * width * pdf) and the limits and target as guides.
PlotFigure CapabilityPlot(const CapabilityStudy& study);

// `veltan capability`.
int RunCapability(const CapabilityOptions& options, std::ostream& out);

} // namespace veltan_cli
