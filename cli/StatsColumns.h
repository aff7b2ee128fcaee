#pragma once

#include "cli/CsvTable.h"
#include "cli/RunSkeleton.h"
#include "cli/SvgPlot.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace veltan_cli {

// What the statistics commands (normality, capability, histogram) share:
// they look at one column at a time, so a column of text or a stray word in
// one column spoils that column only, and the library's -99 for "not
// computed" must never reach the user as a number.

using StatsJson = nlohmann::ordered_json;

// A table read with its text cells kept as missing values (see
// ParseCsvTable's keepText).
DataTable ReadStatsTable(const std::string& path, NamesColumn names);

// The variable number of `name` in `table`; a usage error naming `option`
// when there is none.
int ColumnNamed(const DataTable& table, const std::string& name, const std::string& option);

// Whether column `variable` has text cells and no number at all (a column
// of labels, which a command skips unless it is named).
bool TextColumn(const DataTable& table, int variable);

// The present values of one column in file order, or why the column cannot
// be used: a cell that is not a number makes the whole column suspect.
struct ColumnValues {
    std::string name;
    int variable = 0;
    std::vector<double> values; // the numbers, also of a column with a problem
    std::string problem;        // the one-line message ("" when usable): file, row, column and cell
};
ColumnValues ColumnOf(const DataTable& table, int variable);

// A named column read as a series, row by row, with its missing cells (-99)
// in place for the library to fill. Text in it, or a column without a
// single number ("<file>: column C (\"name\"): " + whenEmpty), is refused
// with a ToolError; an unknown name is a usage error naming --column.
struct ColumnSeries {
    std::string name;
    std::vector<float> values;
    int missing = 0;
};
ColumnSeries SeriesNamed(const DataTable& table, const std::string& name, const std::string& whenEmpty);

// A number typed after `option` (--lsl 9.5). A usage error for text, for a
// value that is not finite, and for -99, which the library reads as "not
// given".
double OptionNumber(const std::string& option, const std::string& text);

// Whether the library computed a result: not its -99 and a finite number.
bool Computed(double v);

// A result for a report: `digits` significant digits, or `absent` when it
// was not computed; never "nan", "inf" or "-99".
std::string Figure(double v, int digits = 6, const std::string& absent = "-");

// A result for a JSON document: null when it was not computed.
StatsJson JsonFigure(double v);
// A float result likewise, as its shortest decimal rather than the double
// it widens to; and a series of them.
StatsJson JsonFloat(double v);
StatsJson JsonFloats(const std::vector<float>& values);

// A series is drawn through at most this many points.
constexpr std::size_t MaxPlotPoints = 2000;
// `values` (-99 missing) over the rows 1..n: every row when there are at
// most MaxPlotPoints, else the means of MaxPlotPoints stretches at their
// centres, so that a plot of a million rows stays small and readable.
PlotSeries AlongRows(PlotSeries::Kind kind, const std::string& name, const std::vector<float>& values);

// The document's "files" and its text.
std::string FinishStatsJson(StatsJson& doc, const std::vector<WrittenFile>& files);

// "Var" padded to `width` on the right.
std::string PadRight(const std::string& text, std::size_t width);
std::string PadLeft(const std::string& text, std::size_t width);

} // namespace veltan_cli
