#include "cli/SmoothCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/signal/Derivate.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>

namespace veltan_cli {

namespace {

// Beyond this the monomials of the fit are too alike for float data: the
// curve follows the noise and the weights lose their precision.
constexpr int MaxOrder = 12;

std::string OrderName(int order)
{
    static const char* const names[] = {"constant", "linear", "quadratic", "cubic", "quartic", "quintic"};
    return order < static_cast<int>(std::size(names)) ? names[order] : "order " + std::to_string(order);
}

std::string WhatIsComputed(int derivative)
{
    static const char* const names[] = {"Smoothing", "First derivative", "Second derivative", "Third derivative"};
    return derivative < static_cast<int>(std::size(names)) ? names[derivative]
                                                           : "Derivative of order " + std::to_string(derivative);
}

// The options on their own, before any table is read.
void CheckOptions(const SmoothOptions& o)
{
    if (o.window < 1)
        throw Usage("--window " + std::to_string(o.window) + ": a window holds at least 1 point");
    if (o.order < 0 || o.order > MaxOrder)
        throw Usage("--order " + std::to_string(o.order) + ": the polynomial order must be 0 to " +
                    std::to_string(MaxOrder));
    if (o.derivative < 0)
        throw Usage("--derivative " + std::to_string(o.derivative) + ": a derivative order is 0 or more");
    if (o.derivative > o.order)
        throw Usage("--derivative " + std::to_string(o.derivative) + ": above the polynomial order " +
                    std::to_string(o.order) + ", whose fit has no such derivative");
    if (!(o.step > 0.0))
        throw Usage("--step " + Figure(o.step, 6, "0") + ": the spacing of the rows must be above 0");
}

// The named column as a series, row by row; data errors name file and column.
SmoothedColumn SeriesOf(const DataTable& table, const std::string& name)
{
    ColumnSeries series = SeriesNamed(table, name, "no value is present");
    SmoothedColumn column;
    column.name = std::move(series.name);
    column.input = std::move(series.values);
    column.missingIn = series.missing;
    return column;
}

void Apply(const Derivate<float>& sg, const SmoothOptions& o, SmoothedColumn& column)
{
    NCDataVector<float> y;
    y.CopyZeroBasedVector(column.input.data(), static_cast<int>(column.input.size()));
    const NCDataVector<float> r = sg.DoDerivate(y, o.derivative, static_cast<float>(o.step), o.edges);
    column.result.assign(r.begin(), r.end());
    column.results = r.GetNumValidValues();
}

} // namespace

SmoothResult SmoothTable(const DataTable& table, const SmoothOptions& options, NCProgress& progress)
{
    CheckOptions(options);
    const Derivate<float> sg(static_cast<Derivate<float>::PolynomialOrder>(options.order),
                             static_cast<std::size_t>(options.window));
    SmoothResult result{table.source, table.hasNames && !table.namesHeader.empty() ? table.namesHeader : "row",
                        table.observations, options.window, static_cast<int>(sg.GetWindow()), options.order,
                        options.derivative, options.step, options.edges, {}};
    if (table.Observations() < result.window)
        throw Usage("--window " + std::to_string(options.window) +
                    (result.window != options.window ? " (" + std::to_string(result.window) + " points)" : "") +
                    ": " + table.source + " has " + Plural(table.Observations(), "row") +
                    ", fewer than the window");
    for (const std::string& name : options.columns)
        result.columns.push_back(SeriesOf(table, name));
    progress.SetRangeInternal(0.0f, static_cast<float>(result.columns.size()));
    for (std::size_t c = 0; c < result.columns.size(); ++c) {
        if (!progress.SetValueInternal(static_cast<float>(c)) || progress.IsBreakPressed())
            throw CancelException();
        Apply(sg, options, result.columns[c]);
    }
    return result;
}

namespace {

// Root mean square of what smoothing took away, over rows with both values.
double RmsRemoved(const SmoothedColumn& c)
{
    double sum = 0.0;
    int n = 0;
    for (std::size_t i = 0; i < c.input.size(); ++i)
        if (!IsMisVal(c.input[i]) && !IsMisVal(c.result[i])) {
            const double d = static_cast<double>(c.input[i]) - c.result[i];
            sum += d * d;
            ++n;
        }
    return n > 0 ? std::sqrt(sum / n) : NCMisVal<double>;
}

void Range(const std::vector<float>& v, double& low, double& high)
{
    low = high = NCMisVal<double>;
    for (float x : v)
        if (!IsMisVal(x)) {
            low = IsMisVal(low) ? x : std::min<double>(low, x);
            high = IsMisVal(high) ? x : std::max<double>(high, x);
        }
}

std::string Heading(const SmoothResult& r)
{
    std::string text = WhatIsComputed(r.derivative) + " of " + r.source + " (Savitzky-Golay): " +
                       Plural(static_cast<int>(r.rowNames.size()), "row") + ", window " + std::to_string(r.window) +
                       ", " + OrderName(r.order) + " polynomial";
    if (r.derivative > 0)
        text += ", step " + Figure(r.step, 8);
    return text + (r.edges ? ", ends fitted" : ", ends left empty");
}

void PrintNotes(std::ostream& out, const SmoothResult& r)
{
    const int half = r.window / 2;
    out << "\n";
    if (r.window != r.windowAsked)
        out << "The window was widened from " << r.windowAsked << " to " << r.window
            << " points: it is odd and holds more points than the order.\n";
    if (!r.edges && half > 0)
        out << "The " << Plural(half, "point") << " at each end have no centred window and are left empty;\n"
            << "--edges fills them from the polynomial of the first and last whole window.\n";
    const bool missing = std::any_of(r.columns.begin(), r.columns.end(), [](auto& c) { return c.missingIn > 0; });
    if (missing)
        out << "Windows with missing values are refitted on their present values;\n"
            << "a window with fewer than " << r.order + 1 << " present values gives no result.\n";
}

void PrintReport(std::ostream& out, const SmoothResult& r)
{
    out << Heading(r) << "\n\n";
    std::size_t width = 8;
    for (const SmoothedColumn& c : r.columns)
        width = std::max(width, c.name.size() + 2);
    out << PadRight("Column", width) << "  Missing  Results          Min          Max"
        << (r.derivative == 0 ? "  RMS removed" : "") << "\n";
    for (const SmoothedColumn& c : r.columns) {
        double low = 0.0, high = 0.0;
        Range(c.result, low, high);
        out << PadRight(c.name, width) << PadLeft(std::to_string(c.missingIn), 9)
            << PadLeft(std::to_string(c.results), 9) << Significant(low, 13) << Significant(high, 13);
        if (r.derivative == 0)
            out << Significant(RmsRemoved(c), 13);
        out << "\n";
    }
    PrintNotes(out, r);
}

std::string ResultName(const SmoothResult& r, const SmoothedColumn& c)
{
    return c.name + (r.derivative == 0 ? "_smoothed" : "_d" + std::to_string(r.derivative));
}

void WriteResultsCsv(std::ostream& file, const SmoothResult& r)
{
    std::vector<std::string> header{r.rowHeader};
    for (const SmoothedColumn& c : r.columns)
        header.push_back(ResultName(r, c));
    WriteCsvRecord(file, header);
    for (std::size_t i = 0; i < r.rowNames.size(); ++i) {
        std::vector<std::string> row{r.rowNames[i]};
        for (const SmoothedColumn& c : r.columns)
            row.push_back(Figure(c.result[i], 9, ""));
        WriteCsvRecord(file, row);
    }
}

std::string SmoothJson(const SmoothResult& r, const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "smooth";
    doc["data"] = r.source;
    doc["rows"] = r.rowNames.size();
    doc["window"] = r.window;
    doc["window_asked"] = r.windowAsked;
    doc["order"] = r.order;
    doc["derivative"] = r.derivative;
    doc["step"] = r.step;
    doc["edges"] = r.edges;
    StatsJson columns = StatsJson::array();
    for (const SmoothedColumn& c : r.columns) {
        double low = 0.0, high = 0.0;
        Range(c.result, low, high);
        StatsJson entry{{"column", c.name}, {"missing", c.missingIn}, {"results", c.results},
                        {"min", JsonFloat(low)}, {"max", JsonFloat(high)}};
        if (r.derivative == 0)
            entry["rms_removed"] = JsonFigure(RmsRemoved(c));
        entry["values"] = JsonFloats(c.result);
        columns.push_back(entry);
    }
    doc["columns"] = columns;
    return FinishStatsJson(doc, files);
}

PlotPanel ColumnPanel(const SmoothResult& r, const SmoothedColumn& c)
{
    PlotPanel panel;
    panel.tightX = true;
    panel.xTitle = "row";
    const std::string fit = "window " + std::to_string(r.window) + ", " + OrderName(r.order);
    if (r.derivative == 0) {
        const bool marks = c.input.size() <= MaxPlotPoints;
        PlotSeries values = AlongRows(marks ? PlotSeries::Kind::Points : PlotSeries::Kind::Line, c.name, c.input);
        values.colour = "#9e9e9e";
        panel.series.push_back(std::move(values));
        panel.series.push_back(AlongRows(PlotSeries::Kind::Line, "smoothed (" + fit + ")", c.result));
        panel.yTitle = c.name;
    } else {
        PlotSeries zero;
        zero.kind = PlotSeries::Kind::Level;
        zero.name = "0";
        zero.y = {0.0};
        zero.dashed = true;
        zero.colour = "#9e9e9e";
        panel.series.push_back(std::move(zero));
        panel.series.push_back(AlongRows(PlotSeries::Kind::Line, WhatIsComputed(r.derivative) + " (" + fit + ")",
                                     c.result));
        std::string what = WhatIsComputed(r.derivative);
        what[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(what[0])));
        panel.yTitle = what + " of " + c.name;
    }
    const int rows = static_cast<int>(c.input.size());
    panel.title = c.name + ": " + Plural(c.results, "result") + " of " + Plural(rows, "row");
    return panel;
}

class SmoothCommand final : public TableCommand<SmoothOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "smooth", "Savitzky-Golay smoothing or derivatives of series: a polynomial fitted to a moving window.");
        AddTableArgument(command, m_options.data)->required();
        AddColumnsOption(command, m_options.columns, "A column holding a series (repeatable)");
        command.add_option("--window", m_options.window, "Points per window (made odd and above the order)")
            ->type_name("W")
            ->required();
        command.add_option("--order", m_options.order, "Order of the fitted polynomial")->type_name("P")->required();
        command.add_option("--derivative", m_options.derivative, "Derivative to take, 0 (default) smooths")
            ->type_name("D");
        command.add_option("--step", m_step, "Spacing of the rows, for derivatives (default 1)")->type_name("S");
        command.add_flag("--edges", m_options.edges,
                         "Fill the ends from the polynomial of the first and last whole window (else left empty)");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath, "Write the results as CSV, one row per row",
                        "FILE.csv");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw each series with its smoothed curve, or its derivative, as SVG", "FILE.svg");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        if (!m_step.empty())
            m_options.step = OptionNumber("--step", m_step);
        return RunSmooth(m_options, out);
    }

    std::string m_step;
};

} // namespace

PlotFigure SmoothPlot(const SmoothResult& r)
{
    PlotFigure figure;
    figure.title = WhatIsComputed(r.derivative) + " of " + std::filesystem::path(r.source).filename().string();
    figure.panelsPerRow = 1;
    figure.panelWidth = 900.0;
    figure.panelHeight = 380.0;
    for (const SmoothedColumn& c : r.columns)
        figure.panels.push_back(ColumnPanel(r, c));
    return figure;
}

int RunSmooth(const SmoothOptions& options, std::ostream& out)
{
    CheckOptions(options);
    SmoothResult result;
    RunSteps steps;
    steps.task = "Smoothing";
    steps.source = options.data;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    // The table is read under the Ctrl-C guard: a long one takes a while.
    steps.compute = [&](NCProgress& progress) {
        result = SmoothTable(ReadStatsTable(options.data, options.names), options, progress);
    };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath, [&](std::ostream& file) { WriteResultsCsv(file, result); },
                  WrittenTo("Results", options.outPath));
        files.Add("plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, SmoothPlot(result)); },
                  WrittenTo("Plot", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return SmoothJson(result, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, result); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeSmoothCommand() { return std::make_unique<SmoothCommand>(); }

} // namespace veltan_cli
