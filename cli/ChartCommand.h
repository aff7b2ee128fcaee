#pragma once

#include "cli/CsvTable.h"

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/spc/ControlChartEnum.h"

#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace veltan_cli {

struct ChartOptions {
    std::string data;   // the table holding the series
    NamesColumn names = NamesColumn::Auto;
    std::string column; // the series
    ControlChartEnum::ControlType type = ControlChartEnum::Individual;
    int subgroup = 0;          // 0: not given (1, or an interval grouping)
    std::string timeColumn;    // interval grouping: the time axis ...
    double interval = 0.0;     // ... and the width of a group along it
    bool byTime = false;       // --time and --interval were given
    std::optional<double> target;
    std::optional<double> sigma;  // known process sigma of single values
    std::optional<double> lambda; // EWMA weight; estimated when not given
    ControlChartEnum::EWMAType ewma = ControlChartEnum::Filter;
    bool ewmaGiven = false;
    std::string rules;      // "we" or "" (none)
    std::string limitsFrom; // a table of the reference period, read alike
    std::string outPath;    // the per-subgroup statistics as CSV
    std::string plotPath;   // SVG chart
    bool json = false;
    bool progress = false;
};

// The option texts of the chart types: individual, mean-range, ...
std::string ChartTypeName(ControlChartEnum::ControlType type);
// Their titles: "Individuals chart", "Mean and range chart", ...
std::string ChartTitle(ControlChartEnum::ControlType type);

// A centre line and its two limits; -99 where there is none.
struct ChartLimits {
    double centre = -99.0, lcl = -99.0, ucl = -99.0;
};

// Everything a chart shows, taken out of the library's chart so that the
// report, the files and the plot read one plain record. Indices of the
// vectors are 0-based subgroups; missing subgroups hold -99.
struct ChartResult {
    ControlChartEnum::ControlType type = ControlChartEnum::Individual;
    std::string source; // the table read
    std::string column;
    int rows = 0;       // values in the column, missing ones included
    int present = 0;    // values present
    int subgroupSize = 0; // the library's n (the rounded mean size for intervals)
    bool byTime = false;
    std::vector<float> times;  // interval grouping: each group's mean time
    std::vector<int> sizes;    // interval grouping: each group's number of times
    std::vector<float> means;  // the subgroup means (the values when n = 1)
    std::vector<float> spread; // the ranges (mean-range) or standard deviations (mean-sd)
    std::vector<float> upper, lower; // CuSum: the upper and lower sums, both >= 0
    std::vector<float> ewma;
    ChartLimits mean;   // the Shewhart types' mean chart
    ChartLimits second; // the range or standard-deviation chart
    ChartLimits ewmaLimits;
    double h = -99.0, k = -99.0; // CuSum decision interval and reference value
    double lambda = -99.0;
    bool lambdaEstimated = false;
    double sigma = -99.0;    // the process sigma the limits rest on
    std::string sigmaSource; // how it was obtained, for the report
    std::string limitsFrom;  // the reference table, "" for none

    // Signals: the rule set ("we", "limits" for a CuSum or EWMA's crossing
    // of its limits, "" for none), its rules' descriptions by number and
    // the flagged subgroups with the numbers of the rules that flag them.
    std::string ruleSet;
    std::vector<std::string> ruleDescriptions;
    std::map<int, std::set<std::size_t>> flagged;
    // The subgroups whose range or standard deviation lies beyond its own
    // limits; the run rules judge the means only.
    std::vector<int> spreadBeyond;

    int Subgroups() const { return static_cast<int>(means.size()); }
};

// The moving-range estimate of sigma of a series in file order: the mean
// absolute difference of neighbouring values, both present, divided by
// d2(2) = 1.128. Returns -99 when no two neighbours are present.
double MovingRangeSigma(const NCDataVector<float>& values);

// Reads the tables, checks the options against them and computes the
// chart. Throws ToolError naming the file and column (exit 1 for bad data,
// 2 for options the data cannot meet).
ChartResult ComputeChart(const ChartOptions& options);

// `veltan chart`: computes, prints the limits and the flagged subgroups
// (or JSON) and writes the requested files, all or none.
int RunChart(const ChartOptions& options, std::ostream& out);

} // namespace veltan_cli
