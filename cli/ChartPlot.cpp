#include "cli/ChartPlot.h"

#include "cli/Report.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace veltan_cli {

namespace {

// Colours of the chart's parts: the statistic in the palette's blue, the
// centre line dark, the limits in a muted red beside the flag red.
const char* const StatisticColour = "#1f5fa8";
const char* const SecondColour = "#c2471b";
const char* const CentreColour = "#333333";
const char* const LimitColour = "#b03a2e";

std::string Short(double v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.4g", v);
    return buffer;
}

std::vector<double> Coordinates(const std::vector<float>& values, double sign = 1.0)
{
    std::vector<double> out;
    for (const float v : values)
        out.push_back(IsMisVal(v) ? std::nan("") : sign * static_cast<double>(v));
    return out;
}

// A horizontal line across the chart at `level`, captioned in the margin.
PlotSeries Level(double level, const std::string& caption, bool limit)
{
    PlotSeries line;
    line.kind = PlotSeries::Kind::Level;
    line.y = {level};
    line.colour = limit ? LimitColour : CentreColour;
    line.dashed = limit;
    line.name = caption.empty() ? "" : caption + " " + Short(level);
    return line;
}

// The statistic as points joined by a thin line of a paler shade;
// `flagged` marks points.
void Statistic(PlotPanel& panel, const std::vector<double>& x, std::vector<double> y, const char* colour,
               std::vector<bool> flagged)
{
    PlotSeries join;
    join.kind = PlotSeries::Kind::Line;
    join.x = x;
    join.y = y;
    join.colour = std::string(colour) == StatisticColour ? "#9db3cf" : "#e2a68f";
    panel.series.push_back(std::move(join));
    PlotSeries points;
    points.x = x;
    points.y = std::move(y);
    points.colour = colour;
    points.flagged = std::move(flagged);
    panel.series.push_back(std::move(points));
}

std::vector<bool> FlaggedBy(const ChartResult& r, std::size_t rule, bool anyRule)
{
    std::vector<bool> flagged(r.means.size(), false);
    for (const auto& [point, rules] : r.flagged)
        if (anyRule || rules.count(rule) != 0)
            flagged[static_cast<std::size_t>(point)] = true;
    return flagged;
}

void Limits(PlotPanel& panel, const ChartLimits& l)
{
    panel.series.push_back(Level(l.ucl, "UCL", true));
    panel.series.push_back(Level(l.centre, "CL", false));
    panel.series.push_back(Level(l.lcl, "LCL", true));
}

} // namespace

PlotFigure ChartFigure(const ChartResult& r, const ChartOptions& o)
{
    std::vector<double> x;
    for (std::size_t i = 0; i < r.means.size(); ++i)
        x.push_back(r.byTime ? (IsMisVal(r.times[i]) ? std::nan("") : static_cast<double>(r.times[i]))
                             : static_cast<double>(i));
    const std::string xTitle = r.byTime ? o.timeColumn + " (mean time of the interval)"
                                        : r.subgroupSize == 1 ? "observation (from 0)" : "subgroup (from 0)";
    const std::string unit = r.subgroupSize == 1 && !r.byTime ? "Value" : "Mean";
    const std::string name = std::filesystem::path(r.source).filename().string();

    PlotFigure figure;
    figure.panelsPerRow = 1;
    figure.panelWidth = 900.0;
    figure.panelHeight = 380.0;
    PlotPanel main;
    main.xTitle = xTitle;
    main.tightX = true;
    switch (r.type) {
    case ControlChartEnum::CuSum: {
        main.title = "Upper (above 0) and lower (below 0) CuSum, K " + Short(r.k) + ", H " + Short(r.h);
        main.yTitle = "CuSum of " + r.column;
        Statistic(main, x, Coordinates(r.upper), StatisticColour, FlaggedBy(r, 0, false));
        Statistic(main, x, Coordinates(r.lower, -1.0), SecondColour, FlaggedBy(r, 1, false));
        main.series.push_back(Level(r.h, "H", true));
        main.series.push_back(Level(0.0, "", false));
        main.series.push_back(Level(-r.h, "-H", true));
        break;
    }
    case ControlChartEnum::EWMA:
    case ControlChartEnum::EWMAOverallSigma: {
        main.title = "EWMA of the " + std::string(r.subgroupSize == 1 && !r.byTime ? "values" : "subgroup means") +
                     ", lambda " + Short(r.lambda);
        main.yTitle = "EWMA of " + r.column;
        // The means themselves, faint, show what the EWMA smooths.
        PlotSeries raw;
        raw.kind = PlotSeries::Kind::Line;
        raw.x = x;
        raw.y = Coordinates(r.means);
        raw.colour = "#c8c8c8";
        main.series.push_back(std::move(raw));
        Statistic(main, x, Coordinates(r.ewma), StatisticColour, FlaggedBy(r, 0, true));
        Limits(main, r.ewmaLimits);
        break;
    }
    default:
        main.title = unit + (r.ruleSet == "we" ? ", classic run rules" : "");
        main.yTitle = unit + " of " + r.column;
        Statistic(main, x, Coordinates(r.means), StatisticColour, FlaggedBy(r, 0, true));
        Limits(main, r.mean);
        break;
    }
    figure.panels.push_back(std::move(main));

    if (!r.spread.empty()) {
        const bool range = r.type == ControlChartEnum::MeanRange;
        PlotPanel second;
        second.title = range ? "Range" : "Standard deviation";
        second.xTitle = xTitle;
        second.tightX = true;
        second.yTitle = (range ? "Range of " : "SD of ") + r.column;
        std::vector<bool> beyond(r.spread.size(), false);
        for (const int i : r.spreadBeyond)
            beyond[static_cast<std::size_t>(i)] = true;
        Statistic(second, x, Coordinates(r.spread), SecondColour, std::move(beyond));
        Limits(second, r.second);
        figure.panels.push_back(std::move(second));
    }
    figure.title = ChartTitle(r.type) + " of " + r.column + " in " + name + ", " +
                   (r.byTime ? Plural(r.Subgroups(), "interval") + " of " + Short(o.interval) + " in " + o.timeColumn
                             : r.subgroupSize == 1 ? Plural(r.Subgroups(), "value")
                                                   : Plural(r.Subgroups(), "subgroup") + " of " +
                                                         std::to_string(r.subgroupSize));
    if (!r.limitsFrom.empty())
        figure.title += ", limits from " + std::filesystem::path(r.limitsFrom).filename().string();
    return figure;
}

} // namespace veltan_cli
