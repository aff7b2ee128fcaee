#pragma once

#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/preprocess/NCScale.h"

#include <string>
#include <vector>

namespace veltan_cli {

// Wording shared by the printed reports of the commands.

// "1 observation", "3 observations".
std::string Plural(int n, const char* word);

// A right-aligned table cell with three decimals, or "-" where the library
// has no value (-99).
std::string Cell(float v, int width);

// A right-aligned cell of six significant digits, for values of any scale
// (a series' own units); "-" where there is none (-99, or not finite).
std::string Significant(double v, int width);

// A value as a plot coordinate: NaN, which a plot leaves out, where the
// library has none.
double PlotCoordinate(float v);

// prefix1 ... prefixN, the column names of component tables.
std::vector<std::string> Numbered(const char* prefix, int n);

// "scaled to unit variance", "Pareto scaled", ...
std::string ScalingPhrase(NCScale::Scaling s);

// Text of a scaling type as the options spell it: "uv", "pareto", "center", "none".
std::string ScaleOptionName(NCScale::Scaling s);

// "R1 (its Q2 is above the limit)" and so on, for the summary line; `items`
// names what R2 counts (the variables of a PCA, the responses of a PLS).
std::string DescribeSignificance(SignificanceE::Significance s, const std::string& items = "variables");

// The line under a component table: "3 components kept; <why it stopped>."
// or, for a count given by the user, "2 components fitted, as asked."
std::string FitSummary(int kept, bool fixed, const std::string& stopReason);

// The library's messages may hold line breaks; a report line must not.
std::string OneLine(std::string text);

} // namespace veltan_cli
