#pragma once

#include "cli/ChartCommand.h"
#include "cli/SvgPlot.h"

namespace veltan_cli {

// The chart as a figure: the plotted statistic against the subgroup (or the
// group's mean time) with its centre line and limits, the flagged subgroups
// ringed; below it the range or standard-deviation chart of a mean-range or
// mean-sd chart. A CuSum draws its upper sums above zero and its lower sums
// below, against +H and -H.
PlotFigure ChartFigure(const ChartResult& result, const ChartOptions& options);

} // namespace veltan_cli
