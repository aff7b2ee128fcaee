#include "cli/SpectrumCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/platform/Exception.h"

#include <cmath>
#include <filesystem>
#include <map>
#include <optional>

namespace veltan_cli {

namespace {

const std::map<std::string, FFT::DataWindowMode> WindowNames{
    {"rect", FFT::Rectangular}, {"hann", FFT::Hann}, {"triangle", FFT::Triangular}, {"parabolic", FFT::Parabolic}};

bool IsCorrelation(const SpectrumOptions& o) { return o.kind != SpectrumKind::Power; }

// The option that set the lags, as the user typed it.
std::string LagOption(const SpectrumOptions& o)
{
    return (o.kind == SpectrumKind::Autocorrelation ? "--acf " : "--max-lag ") + std::to_string(o.maxLag);
}

// A named column as a whole series: missing cells stay in place (the
// library interpolates them), but a column of text or without a single
// number cannot be a series.
NCDataVector<float> SeriesOf(const DataTable& table, const std::string& name, const std::string& option)
{
    const int j = ColumnNamed(table, name, option);
    const ColumnValues column = ColumnOf(table, j);
    if (!column.problem.empty())
        throw ToolError(column.problem);
    if (column.values.empty())
        throw ToolError(table.Where(0, j) + ": every value is missing");
    return table.values.GetColumn(j);
}

// What the table's length allows of the options.
void CheckAgainstTable(const DataTable& table, const SpectrumOptions& o)
{
    const int rows = table.Observations();
    const std::string has = table.source + " has " + Plural(rows, "row");
    if (IsCorrelation(o) && o.maxLag > rows)
        throw Usage(LagOption(o) + ": " + has + ", so the lags run to at most " + std::to_string(rows));
    // A segment much longer than the series would be mostly padding (and
    // could ask for gigabytes): it may reach the next power of two only.
    int longest = 2;
    while (longest < rows)
        longest *= 2;
    if (o.kind == SpectrumKind::Power && o.segment > longest)
        throw Usage("--power " + std::to_string(o.segment) + ": " + has + "; a segment holds at most " +
                    std::to_string(longest) + " (the rows rounded up to a power of two)");
    if (o.kind == SpectrumKind::Power && o.overlap && rows <= o.segment / 2)
        throw Usage("--power " + std::to_string(o.segment) + " --overlap: " + has +
                    "; overlapping segments of " + std::to_string(o.segment) + " need more than " +
                    std::to_string(o.segment / 2));
}

void Compute(const SpectrumOptions& o, const NCDataVector<float>& x, const NCDataVector<float>* other,
             NCDataVector<float>& out)
{
    switch (o.kind) {
    case SpectrumKind::Autocorrelation:
        FFT::AutoCorrelation(&x, o.detrend, o.maxLag, &out);
        break;
    case SpectrumKind::CrossCorrelation:
        FFT::CrossCorrelation(&x, other, o.detrend, o.maxLag, &out);
        break;
    case SpectrumKind::Power:
        FFT::PowerSpectrum(&x, o.segment, o.overlap, o.detrend, FFT::DensityScaling, o.window, &out);
        break;
    }
}

// Lags, or the bins' frequencies in cycles per row.
std::vector<double> Axis(const SpectrumOptions& o)
{
    std::vector<double> axis;
    if (o.kind == SpectrumKind::Power) {
        for (int k = 0; k <= o.segment / 2; ++k)
            axis.push_back(static_cast<double>(k) / o.segment);
    } else {
        for (int lag = o.kind == SpectrumKind::Autocorrelation ? 0 : -o.maxLag; lag <= o.maxLag; ++lag)
            axis.push_back(lag);
    }
    return axis;
}

} // namespace

SpectrumResult ComputeSpectra(const DataTable& table, const SpectrumOptions& o, NCProgress* progress)
{
    CheckAgainstTable(table, o);
    SpectrumResult r;
    r.source = table.source;
    r.rows = table.Observations();
    std::optional<NCDataVector<float>> other;
    if (o.kind == SpectrumKind::CrossCorrelation) {
        other = SeriesOf(table, o.other, "--ccf");
        r.otherMissing = other->GetNumMisVal();
    }
    if (progress)
        progress->SetRangeInternal(0.0f, static_cast<float>(o.columns.size()));
    for (std::size_t c = 0; c < o.columns.size(); ++c) {
        if (progress && !progress->SetValueInternal(static_cast<float>(c)))
            throw CancelException(ExceptionMessage::translate("Operation cancelled."));
        const NCDataVector<float> x = SeriesOf(table, o.columns[c], "--column");
        SpectrumColumn column{table.variables[static_cast<std::size_t>(table.Find(o.columns[c]) - 1)],
                              x.GetNumValidValues(), x.GetNumMisVal(), {}};
        Compute(o, x, other ? &*other : nullptr, column.result);
        r.columns.push_back(std::move(column));
    }
    r.axis = Axis(o);
    if (o.kind == SpectrumKind::Power)
        FFT::SegmentLayout(r.rows, o.segment, o.overlap, r.pairs, r.padded);
    return r;
}

namespace {

std::string DetrendPhrase(FFT::DetrendMode mode)
{
    return mode == FFT::DetrendMean ? "mean removed" : mode == FFT::DetrendLinear ? "straight line removed"
                                                                                   : "not detrended";
}

std::string WindowPhrase(FFT::DataWindowMode window)
{
    switch (window) {
    case FFT::Hann:
        return "a Hann window";
    case FFT::Triangular:
        return "a triangular window";
    case FFT::Parabolic:
        return "a parabolic window";
    default:
        return "no window (rectangular)";
    }
}

std::string Title(const SpectrumOptions& o)
{
    switch (o.kind) {
    case SpectrumKind::Autocorrelation:
        return "Autocorrelation";
    case SpectrumKind::CrossCorrelation:
        return "Cross-correlation with " + Quoted(o.other);
    default:
        return "Power spectrum";
    }
}

void PrintHeader(std::ostream& out, const SpectrumResult& r, const SpectrumOptions& o)
{
    out << Title(o) << " of " << r.source << ", " << Plural(r.rows, "row") << ", " << DetrendPhrase(o.detrend);
    if (o.kind == SpectrumKind::Power)
        out << "\n"
            << Plural(2 * r.pairs, o.overlap ? "half-overlapping segment" : "segment") << " of "
            << o.segment << " with " << WindowPhrase(o.window) << " (series padded to " << r.padded
            << "); power spectral density per cycle per row";
    else if (o.kind == SpectrumKind::CrossCorrelation)
        out << "\nLag k pairs row i of the column with row i + k of " << Quoted(o.other)
            << ": a peak at k > 0 means " << Quoted(o.other) << " follows";
    out << "\n";
    for (const SpectrumColumn& c : r.columns)
        if (c.missing > 0)
            out << Quoted(c.name) << ": " << Plural(c.missing, "missing value") << " interpolated\n";
    if (r.otherMissing > 0)
        out << Quoted(o.other) << ": " << Plural(r.otherMissing, "missing value") << " interpolated\n";
    out << "\n";
}

void PrintReport(std::ostream& out, const SpectrumResult& r, const SpectrumOptions& o)
{
    PrintHeader(out, r, o);
    const bool power = o.kind == SpectrumKind::Power;
    out << (power ? "   Bin   Frequency" : "     Lag");
    std::vector<std::size_t> widths;
    for (const SpectrumColumn& c : r.columns) {
        widths.push_back(std::max<std::size_t>(14, c.name.size() + 2));
        out << PadLeft(c.name, widths.back());
    }
    out << "\n";
    for (std::size_t i = 0; i < r.axis.size(); ++i) {
        if (power)
            out << PadLeft(std::to_string(i), 6) << PadLeft(Figure(r.axis[i], 8), 12);
        else
            out << PadLeft(std::to_string(static_cast<int>(r.axis[i])), 8);
        for (std::size_t c = 0; c < r.columns.size(); ++c)
            out << PadLeft(Figure(r.columns[c].result[static_cast<int>(i) + 1], 6), widths[c]);
        out << "\n";
    }
}

void WriteSpectrumCsv(std::ostream& file, const SpectrumResult& r, const SpectrumOptions& o)
{
    const bool power = o.kind == SpectrumKind::Power;
    std::vector<std::string> header = power ? std::vector<std::string>{"bin", "frequency"}
                                            : std::vector<std::string>{"lag"};
    for (const SpectrumColumn& c : r.columns)
        header.push_back(c.name);
    WriteCsvRecord(file, header);
    for (std::size_t i = 0; i < r.axis.size(); ++i) {
        std::vector<std::string> row;
        if (power)
            row = {std::to_string(i), Figure(r.axis[i], 12)};
        else
            row = {std::to_string(static_cast<int>(r.axis[i]))};
        for (const SpectrumColumn& c : r.columns)
            row.push_back(FormatValue(c.result[static_cast<int>(i) + 1]));
        WriteCsvRecord(file, row);
    }
}

std::string SpectrumJson(const SpectrumResult& r, const SpectrumOptions& o, const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "spectrum";
    doc["data"] = r.source;
    const bool power = o.kind == SpectrumKind::Power;
    doc["kind"] = power ? "power" : o.kind == SpectrumKind::Autocorrelation ? "autocorrelation" : "cross-correlation";
    doc["rows"] = r.rows;
    doc["detrend"] = DetrendName(o.detrend);
    if (o.kind == SpectrumKind::CrossCorrelation)
        doc["other"] = o.other;
    if (power) {
        doc["segment"] = o.segment;
        doc["overlap"] = o.overlap;
        doc["window"] = NameOf(WindowNames, o.window);
        doc["segments"] = 2 * r.pairs;
        doc["padded"] = r.padded;
        doc["frequencies"] = r.axis;
    } else {
        StatsJson lags = StatsJson::array();
        for (double lag : r.axis)
            lags.push_back(static_cast<int>(lag));
        doc["lags"] = lags;
    }
    StatsJson columns = StatsJson::array();
    for (const SpectrumColumn& c : r.columns) {
        StatsJson values = StatsJson::array();
        for (int i = 1; i <= c.result.Size(); ++i)
            values.push_back(JsonFigure(c.result[i]));
        columns.push_back({{"column", c.name}, {"n", c.values}, {"missing", c.missing}, {"values", values}});
    }
    doc["columns"] = columns;
    return FinishStatsJson(doc, files);
}

} // namespace

PlotFigure SpectrumPlot(const SpectrumResult& r, const SpectrumOptions& o)
{
    PlotPanel panel;
    for (const SpectrumColumn& c : r.columns) {
        PlotSeries line;
        line.kind = PlotSeries::Kind::Line;
        line.name = c.name;
        line.x = r.axis;
        for (int i = 1; i <= c.result.Size(); ++i)
            line.y.push_back(PlotCoordinate(c.result[i]));
        panel.series.push_back(std::move(line));
    }
    if (IsCorrelation(o)) {
        // The band within which the correlations of white noise of this
        // length stay 19 times out of 20.
        const double band = 1.96 / std::sqrt(static_cast<double>(r.rows));
        for (double level : {band, -band}) {
            PlotSeries guide;
            guide.kind = PlotSeries::Kind::Level;
            guide.name = level > 0 ? "+1.96/sqrt(n)" : "-1.96/sqrt(n)";
            guide.y = {level};
            guide.colour = "#888888";
            guide.dashed = true;
            panel.series.push_back(std::move(guide));
        }
        panel.xTitle = "lag (rows)";
        panel.yTitle = "correlation";
    } else {
        panel.xTitle = "frequency (cycles per row)";
        panel.yTitle = "power spectral density";
    }
    panel.tightX = true;
    panel.title = DetrendPhrase(o.detrend);
    if (o.kind == SpectrumKind::Power)
        panel.title += ", segments of " + std::to_string(o.segment) + ", " + WindowPhrase(o.window);
    const std::string name = std::filesystem::path(r.source).filename().string();
    PlotFigure figure{Title(o) + " (" + name + ")", {std::move(panel)}};
    figure.panelsPerRow = 1;
    figure.panelWidth = 760.0;
    figure.panelHeight = 420.0;
    return figure;
}

int RunSpectrum(const SpectrumOptions& options, std::ostream& out)
{
    const DataTable table = ReadStatsTable(options.data, options.names);
    SpectrumResult result;
    RunSteps steps;
    steps.task = "Computing spectra";
    steps.source = options.data;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress& progress) { result = ComputeSpectra(table, options, &progress); };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath, [&](std::ostream& file) { WriteSpectrumCsv(file, result, options); },
                  WrittenTo(IsCorrelation(options) ? "Correlations" : "Spectrum", options.outPath));
        files.Add("plot", options.plotPath,
                  [&](std::ostream& file) { WriteSvg(file, SpectrumPlot(result, options)); },
                  WrittenTo("Plot", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return SpectrumJson(result, options, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, result, options); };
    return RunCommand(steps, out);
}

namespace {

class SpectrumCommand final : public TableCommand<SpectrumOptions> {
    std::optional<int> m_acf, m_maxLag, m_power;
    std::string m_window = "hann", m_detrend = "mean";
    CLI::Option* m_windowOption = nullptr;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "spectrum", "Autocorrelation, cross-correlation or power spectrum of one or more columns read as series "
                        "(missing values interpolated), through fast Fourier transforms.");
        AddTableArgument(command, m_options.data)->required();
        AddColumnsOption(command, m_options.columns, "A column to analyse (repeatable)");
        command.add_option("--acf", m_acf, "Autocorrelation at lags 0..MAXLAG")->type_name("MAXLAG");
        command.add_option("--ccf", m_options.other, "Cross-correlation of each column with this one")
            ->type_name("OTHER");
        command.add_option("--max-lag", m_maxLag, "The cross-correlation's lags -L..L; with --ccf")->type_name("L");
        command.add_option("--power", m_power, "Power spectrum over segments of M values (a power of two)")
            ->type_name("M");
        command.add_flag("--overlap", m_options.overlap, "Overlap the power spectrum's segments by half");
        m_windowOption =
            command.add_option("--window", m_window, "The segments' window: rect, hann, triangle or parabolic")
                ->check(CLI::IsMember({"rect", "hann", "triangle", "parabolic"}))
                ->default_str("hann");
        AddDetrendOption(command, m_detrend);
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath, "Write one row per lag or frequency as CSV", "FILE.csv");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the correlations against lag, or the spectrum against frequency, as SVG", "FILE.svg");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    void ChooseKind()
    {
        const int chosen = (m_acf ? 1 : 0) + (m_options.other.empty() ? 0 : 1) + (m_power ? 1 : 0);
        if (chosen != 1)
            throw Usage("give exactly one of --acf MAXLAG, --ccf OTHER --max-lag L and --power M");
        if (m_maxLag && m_options.other.empty())
            throw Usage("--max-lag: the lags of --acf are its own value; --max-lag goes with --ccf");
        if (!m_options.other.empty() && !m_maxLag)
            throw Usage("--ccf " + m_options.other + ": give the largest lag with --max-lag L");
        if (!m_power && (m_options.overlap || m_windowOption->count() > 0))
            throw Usage(std::string(m_options.overlap ? "--overlap" : "--window") + ": only --power has segments");
        m_options.kind = m_acf ? SpectrumKind::Autocorrelation
                               : m_power ? SpectrumKind::Power : SpectrumKind::CrossCorrelation;
    }

    int Execute(std::ostream& out) override
    {
        ChooseKind();
        m_options.maxLag = m_acf.value_or(m_maxLag.value_or(0));
        if (IsCorrelation(m_options) && m_options.maxLag < 0)
            throw Usage(LagOption(m_options) + ": a lag is 0 or more");
        if (m_power) {
            m_options.segment = *m_power;
            if (m_options.segment < 2 || (m_options.segment & (m_options.segment - 1)) != 0)
                throw Usage("--power " + std::to_string(m_options.segment) +
                            ": the segment length must be a power of two of at least 2 (2, 4, 8, ..., 1024, ...)");
        }
        m_options.window = WindowNames.at(m_window);
        m_options.detrend = DetrendNamed(m_detrend);
        return RunSpectrum(m_options, out);
    }
};

} // namespace

std::unique_ptr<Command> MakeSpectrumCommand() { return std::make_unique<SpectrumCommand>(); }

} // namespace veltan_cli
