#include "cli/HistogramCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/spc/FrequencyHistogram.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <numeric>

namespace veltan_cli {

namespace {

// A bin edge or centre as a clean decimal: the library's arithmetic in a
// scaled unit leaves 0.30000000000000004 where 0.3 is meant.
double Clean(double v) { return std::strtod(Figure(v, 12, "0").c_str(), nullptr); }

double From(const SharedHistogram& h, std::size_t b) { return Clean(h.start + static_cast<double>(b) * h.width); }
double To(const SharedHistogram& h, std::size_t b) { return Clean(h.start + static_cast<double>(b + 1) * h.width); }

} // namespace

SharedHistogram ShareBins(const DataTable& table, const std::vector<std::string>& columns)
{
    SharedHistogram h;
    h.source = table.source;
    std::vector<ColumnValues> series;
    std::size_t longest = 0;
    for (const std::string& name : columns) {
        series.push_back(ColumnOf(table, ColumnNamed(table, name, "--column")));
        if (!series.back().problem.empty())
            throw ToolError(series.back().problem);
        longest = std::max(longest, series.back().values.size());
        h.columns.push_back(series.back().name);
        h.present.push_back(static_cast<int>(series.back().values.size()));
    }
    const int k = static_cast<int>(series.size());
    const int total = std::accumulate(h.present.begin(), h.present.end(), 0);
    if (total == 0)
        throw ToolError(table.source + ": " + (k == 1 ? "column \"" + h.columns[0] + "\" has" : "the columns have") +
                        " no values");
    // The library reads data[1..n].
    std::vector<double> stacked(1 + longest * series.size(), NCMisVal<double>);
    for (std::size_t s = 0; s < series.size(); ++s)
        std::copy(series[s].values.begin(), series[s].values.end(), stacked.begin() + 1 + s * longest);
    h.counts = FrequencyHistogram::MakeMultiHistogram(stacked.data(), static_cast<int>(longest) * k, k, h.centres,
                                                      h.start, h.width);
    if (h.counts.size() != series.size() || h.centres.empty())
        throw ToolError(table.source + ": too few values to choose bins: " + std::to_string(total) + " in " +
                        Plural(k, "column") + " (at least one per column is needed)");
    return h;
}

namespace {

std::string Count(double v) { return Figure(v, 12, "0"); }

void PrintReport(std::ostream& out, const SharedHistogram& h)
{
    const std::size_t bins = h.centres.size();
    if (h.columns.size() == 1)
        out << "Histogram of \"" << h.columns[0] << "\" in " << h.source << ": ";
    else
        out << "Histogram of " << h.source << ": " << Plural(static_cast<int>(h.columns.size()), "column")
            << " sharing ";
    out << Plural(static_cast<int>(bins), "bin") << " of width " << Figure(Clean(h.width), 8) << " from "
        << Figure(From(h, 0), 8) << "\n\n";
    std::vector<std::size_t> widths;
    out << " Bin      Centre        From          To";
    for (const std::string& name : h.columns) {
        widths.push_back(std::max<std::size_t>(8, name.size() + 2));
        out << PadLeft(name, widths.back());
    }
    out << "\n";
    for (std::size_t b = 0; b < bins; ++b) {
        out << PadLeft(std::to_string(b + 1), 4) << PadLeft(Figure(Clean(h.centres[b]), 8), 12)
            << PadLeft(Figure(From(h, b), 8), 12) << PadLeft(Figure(To(h, b), 8), 12);
        for (std::size_t c = 0; c < h.columns.size(); ++c)
            out << PadLeft(Count(h.counts[c][b]), widths[c]);
        out << "\n";
    }
    out << PadRight("Values", 40);
    for (std::size_t c = 0; c < h.columns.size(); ++c)
        out << PadLeft(std::to_string(h.present[c]), widths[c]);
    out << "\n\nEach bin holds its lower edge but not its upper one; the last bin also holds values past its end.\n";
}

void WriteBinsCsv(std::ostream& file, const SharedHistogram& h)
{
    std::vector<std::string> header{"bin", "centre", "from", "to"};
    header.insert(header.end(), h.columns.begin(), h.columns.end());
    WriteCsvRecord(file, header);
    for (std::size_t b = 0; b < h.centres.size(); ++b) {
        std::vector<std::string> row{std::to_string(b + 1), Figure(Clean(h.centres[b]), 12),
                                     Figure(From(h, b), 12), Figure(To(h, b), 12)};
        for (const std::vector<double>& counts : h.counts)
            row.push_back(Count(counts[b]));
        WriteCsvRecord(file, row);
    }
}

std::string HistogramJson(const SharedHistogram& h, const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "histogram";
    doc["data"] = h.source;
    StatsJson columns = StatsJson::array();
    for (std::size_t c = 0; c < h.columns.size(); ++c)
        columns.push_back({{"column", h.columns[c]}, {"n", h.present[c]}});
    doc["columns"] = columns;
    doc["start"] = Clean(h.start);
    doc["width"] = Clean(h.width);
    StatsJson bins = StatsJson::array();
    for (std::size_t b = 0; b < h.centres.size(); ++b) {
        StatsJson counts = StatsJson::array();
        for (const std::vector<double>& column : h.counts)
            counts.push_back(static_cast<long long>(column[b]));
        bins.push_back({{"bin", b + 1},
                        {"centre", Clean(h.centres[b])},
                        {"from", From(h, b)},
                        {"to", To(h, b)},
                        {"counts", counts}});
    }
    doc["bins"] = bins;
    return FinishStatsJson(doc, files);
}

class HistogramCommand final : public TableCommand<HistogramOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "histogram", "Frequency histograms of one or more columns over one set of rounded bins, so that they "
                         "can be compared bin by bin.");
        AddTableArgument(command, m_options.data)->required();
        AddColumnsOption(command, m_options.columns, "A column to count (repeatable; all share the bins)");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath, "Write one row per bin (centre, edges, counts) as CSV");
        AddOutputOption(command, "--plot", m_options.plotPath, "Draw the histograms overlaid as SVG", "FILE.svg");
        AddJsonFlag(command, m_options.json, "Print one JSON document instead of the table");
        return command;
    }

    int Execute(std::ostream& out) override { return RunHistogram(m_options, out); }
};

} // namespace

PlotFigure HistogramPlot(const SharedHistogram& h)
{
    PlotPanel panel;
    const bool overlaid = h.columns.size() > 1;
    for (std::size_t c = 0; c < h.columns.size(); ++c) {
        PlotSeries bars;
        bars.kind = PlotSeries::Kind::Bars;
        bars.name = h.columns[c] + " (" + Plural(h.present[c], "value") + ")";
        bars.x = h.centres;
        bars.y = h.counts[c];
        bars.barWidth = h.width;
        bars.opacity = overlaid ? 0.4 : 0.8;
        panel.series.push_back(std::move(bars));
    }
    panel.xTitle = overlaid ? "value" : h.columns[0];
    panel.yTitle = "count";
    panel.title = Plural(static_cast<int>(h.centres.size()), "bin") + " of width " + Figure(Clean(h.width), 8);
    const std::string name = std::filesystem::path(h.source).filename().string();
    std::string columns;
    for (const std::string& c : h.columns)
        columns += (columns.empty() ? "" : ", ") + c;
    return PlotFigure{"Histogram of " + columns + " (" + name + ")", {std::move(panel)}};
}

int RunHistogram(const HistogramOptions& options, std::ostream& out)
{
    const DataTable table = ReadStatsTable(options.data, options.names);
    SharedHistogram histogram;
    RunSteps steps;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress&) { histogram = ShareBins(table, options.columns); };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath, [&](std::ostream& file) { WriteBinsCsv(file, histogram); },
                  WrittenTo("Bins", options.outPath));
        files.Add("plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, HistogramPlot(histogram)); },
                  WrittenTo("Histogram plot", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return HistogramJson(histogram, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, histogram); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeHistogramCommand() { return std::make_unique<HistogramCommand>(); }

} // namespace veltan_cli
