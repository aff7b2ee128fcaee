#include "cli/WaveletCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>

namespace veltan_cli {

namespace {

const std::map<std::string, Wavelet::ThresholdMode> DenoiseNames{{"hard", Wavelet::HardThreshold},
                                                                 {"soft", Wavelet::SoftThreshold}};

std::string DetrendPhrase(FFT::DetrendMode mode)
{
    return mode == FFT::DetrendMean ? "mean removed" : mode == FFT::DetrendLinear ? "straight line removed"
                                                                                   : "not detrended";
}

// The named column as a whole series: missing cells stay in place for the
// library to interpolate, but text or a column without a number is refused.
WaveletColumn SeriesOf(const DataTable& table, const std::string& name)
{
    ColumnSeries series = SeriesNamed(table, name, "every value is missing");
    WaveletColumn column;
    column.name = std::move(series.name);
    column.input = std::move(series.values);
    column.missing = series.missing;
    return column;
}

// The rows rounded down and up to powers of two, for the message that
// refuses them.
std::string NearestPowers(int rows)
{
    int up = 1;
    while (up < rows)
        up *= 2;
    return up / 2 >= 2 ? std::to_string(up / 2) + " or " + std::to_string(up) : std::to_string(up);
}

int CheckedLevels(const DataTable& table, const WaveletOptions& o, const WaveletFilters& filters)
{
    const int rows = table.Observations();
    const int most = Wavelet::LevelsOfLength(rows);
    if (most < 1)
        throw ToolError(table.source + " has " + Plural(rows, "row") +
                        "; a wavelet transform needs a power of two of rows (" + NearestPowers(rows) + ")");
    if (o.level == 0)
        return DefaultLevels(rows, filters.GetLength());
    if (o.level > most)
        throw Usage("--level " + std::to_string(o.level) + ": " + table.source + " has " + Plural(rows, "row") +
                    ", so the levels run from 1 to " + std::to_string(most));
    return o.level;
}

void Transform(const Wavelet& w, const WaveletOptions& o, WaveletColumn& c)
{
    NCDataVector<float> x;
    x.CopyZeroBasedVector(c.input.data(), static_cast<int>(c.input.size()));
    const NCDataVector<float> coefficients = w.Transform(x);
    c.coefficients.assign(coefficients.begin(), coefficients.end());
    c.shares = w.LevelSumsOfSquares(coefficients);
    c.sumOfSquares = 0.0;
    for (double s : c.shares)
        c.sumOfSquares += s;
    for (double& s : c.shares)
        s = c.sumOfSquares > 0.0 ? s / c.sumOfSquares : 0.0;
    if (o.denoise) {
        const NCDataVector<float> denoised = w.Denoise(x, *o.denoise, &c.threshold);
        c.curve.assign(denoised.begin(), denoised.end());
        c.sigma = c.threshold / std::sqrt(2.0 * std::log(static_cast<double>(x.Size())));
        const int first = Wavelet::DetailStart(x.Size(), w.GetLevels());
        c.kept = static_cast<int>(std::count_if(coefficients.begin() + first - 1, coefficients.end(),
                                                [&](float v) { return std::abs(v) > c.threshold; }));
    } else if (!o.plotPath.empty()) {
        // Only the plot shows the smooth; it costs one inverse per level.
        const NCDataMatrix<float> parts = w.Multiresolution(x);
        const NCDataVector<float>& smooth = parts[parts.SizeRows()];
        c.curve.assign(smooth.begin(), smooth.end());
    }
}

} // namespace

WaveletFilters FilterNamed(const std::string& name)
{
    try {
        return WaveletFilters(name);
    } catch (const NCError& e) {
        throw Usage("--filter " + name + ": " + e.what());
    }
}

int DefaultLevels(int rows, int taps)
{
    const int most = std::max(1, Wavelet::LevelsOfLength(rows));
    int levels = 1;
    while (levels < most && (rows >> (levels + 1)) >= taps)
        ++levels;
    return levels;
}

WaveletResult TransformTable(const DataTable& table, const WaveletOptions& options, NCProgress& progress)
{
    const WaveletFilters filters = FilterNamed(options.filter);
    const int levels = CheckedLevels(table, options, filters);
    WaveletResult result{table.source, table.hasNames && !table.namesHeader.empty() ? table.namesHeader : "row",
                         table.observations, filters.GetName(), filters.GetLength(), filters.IsOrthogonal(),
                         levels, {}};
    for (const std::string& name : options.columns)
        result.columns.push_back(SeriesOf(table, name));
    const Wavelet w(filters, levels, options.detrend);
    progress.SetRangeInternal(0.0f, static_cast<float>(result.columns.size()));
    for (std::size_t c = 0; c < result.columns.size(); ++c) {
        if (!progress.SetValueInternal(static_cast<float>(c)) || progress.IsBreakPressed())
            throw CancelException(ExceptionMessage::translate("Operation cancelled."));
        Transform(w, options, result.columns[c]);
    }
    return result;
}

namespace {

// "2-4" rows: the periods a level's details respond to most.
std::string PeriodBand(int level, int levels)
{
    if (level > levels)
        return "> " + std::to_string(2 << levels);
    return std::to_string(1 << level) + "-" + std::to_string(2 << level);
}

std::string Heading(const WaveletResult& r, const WaveletOptions& o)
{
    return "Wavelet transform of " + r.source + ", " + Plural(static_cast<int>(r.rowNames.size()), "row") +
           ", " + DetrendPhrase(o.detrend) + "\nFilter " + r.filterName + " (" + std::to_string(r.taps) +
           " taps, " + (r.orthogonal ? "orthogonal" : "biorthogonal") + "), " + Plural(r.levels, "level") +
           ", periodic";
}

void PrintReport(std::ostream& out, const WaveletResult& r, const WaveletOptions& o)
{
    out << Heading(r, o) << "\n";
    for (const WaveletColumn& c : r.columns)
        if (c.missing > 0)
            out << Quoted(c.name) << ": " << Plural(c.missing, "missing value") << " interpolated\n";
    out << "\nShare of the sum of squares by level" << (r.orthogonal ? "" : " (of the coefficients)") << "\n";
    out << "   Level  Coefficients  Periods (rows)";
    std::vector<std::size_t> widths;
    for (const WaveletColumn& c : r.columns) {
        widths.push_back(std::max<std::size_t>(12, c.name.size() + 2));
        out << PadLeft(c.name, widths.back());
    }
    out << "\n";
    const int n = static_cast<int>(r.rowNames.size());
    for (int level = 1; level <= r.levels + 1; ++level) {
        const bool smooth = level > r.levels;
        out << PadLeft(smooth ? "smooth" : std::to_string(level), 8)
            << PadLeft(std::to_string(n >> std::min(level, r.levels)), 14) << PadLeft(PeriodBand(level, r.levels), 16);
        for (std::size_t c = 0; c < r.columns.size(); ++c)
            out << PadLeft(Figure(r.columns[c].shares[static_cast<std::size_t>(level - 1)], 4), widths[c]);
        out << "\n";
    }
    if (o.denoise) {
        out << "\n"
            << (*o.denoise == Wavelet::SoftThreshold ? "Soft" : "Hard")
            << " thresholds of the details (sigma sqrt(2 ln n), sigma from the finest level)\n";
        std::size_t width = 8;
        for (const WaveletColumn& c : r.columns)
            width = std::max(width, c.name.size() + 2);
        out << PadRight("Column", width) << "     Threshold         Sigma   Details kept\n";
        const int details = n - (n >> r.levels);
        for (const WaveletColumn& c : r.columns)
            out << PadRight(c.name, width) << PadLeft(Figure(c.threshold, 6), 14) << PadLeft(Figure(c.sigma, 6), 14)
                << PadLeft(std::to_string(c.kept) + " of " + std::to_string(details), 15) << "\n";
    }
}

// A float as the shortest text that reads back as the same float.
std::string FloatText(float v)
{
    return Figure(v, 9, "");
}

std::string BandName(int level, int levels)
{
    return level > levels ? "smooth" : "d" + std::to_string(level);
}

void WriteCoefficientsCsv(std::ostream& file, const WaveletResult& r)
{
    std::vector<std::string> header{"band", "position"};
    for (const WaveletColumn& c : r.columns)
        header.push_back(c.name);
    WriteCsvRecord(file, header);
    const int n = static_cast<int>(r.rowNames.size());
    // Packed order: the smooth, then the details from the coarsest level.
    for (int band = r.levels + 1; band >= 1; --band) {
        const int first = band > r.levels ? 0 : n >> band;
        const int count = n >> std::min(band, r.levels);
        for (int k = 0; k < count; ++k) {
            std::vector<std::string> row{BandName(band, r.levels), std::to_string(k + 1)};
            for (const WaveletColumn& c : r.columns)
                row.push_back(FloatText(c.coefficients[static_cast<std::size_t>(first + k)]));
            WriteCsvRecord(file, row);
        }
    }
}

void WriteDenoisedCsv(std::ostream& file, const WaveletResult& r)
{
    std::vector<std::string> header{r.rowHeader};
    for (const WaveletColumn& c : r.columns)
        header.push_back(c.name + "_denoised");
    WriteCsvRecord(file, header);
    for (std::size_t i = 0; i < r.rowNames.size(); ++i) {
        std::vector<std::string> row{r.rowNames[i]};
        for (const WaveletColumn& c : r.columns)
            row.push_back(FloatText(c.curve[i]));
        WriteCsvRecord(file, row);
    }
}

std::string WaveletJson(const WaveletResult& r, const WaveletOptions& o, const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "wavelet";
    doc["data"] = r.source;
    doc["rows"] = r.rowNames.size();
    doc["filter"] = r.filterName;
    doc["taps"] = r.taps;
    doc["orthogonal"] = r.orthogonal;
    doc["levels"] = r.levels;
    doc["detrend"] = DetrendName(o.detrend);
    doc["denoise"] = o.denoise ? StatsJson(NameOf(DenoiseNames, *o.denoise)) : StatsJson(nullptr);
    StatsJson bands = StatsJson::array();
    for (int level = 1; level <= r.levels + 1; ++level)
        bands.push_back(BandName(level, r.levels));
    doc["bands"] = bands;
    StatsJson columns = StatsJson::array();
    for (const WaveletColumn& c : r.columns) {
        StatsJson entry{{"column", c.name}, {"missing", c.missing}, {"sum_of_squares", JsonFigure(c.sumOfSquares)}};
        StatsJson shares = StatsJson::array();
        for (double s : c.shares)
            shares.push_back(JsonFigure(s));
        entry["energy"] = shares;
        if (o.denoise) {
            entry["threshold"] = JsonFigure(c.threshold);
            entry["sigma"] = JsonFigure(c.sigma);
            entry["kept"] = c.kept;
            entry["denoised"] = JsonFloats(c.curve);
        } else {
            entry["coefficients"] = JsonFloats(c.coefficients);
        }
        columns.push_back(entry);
    }
    doc["columns"] = columns;
    return FinishStatsJson(doc, files);
}

PlotPanel SeriesPanel(const WaveletResult& r, const WaveletOptions& o, const WaveletColumn& c)
{
    PlotPanel panel;
    panel.tightX = true;
    panel.xTitle = "row";
    panel.yTitle = c.name;
    const bool marks = c.input.size() <= MaxPlotPoints;
    PlotSeries values = AlongRows(marks ? PlotSeries::Kind::Points : PlotSeries::Kind::Line, c.name, c.input);
    values.colour = "#9e9e9e";
    panel.series.push_back(std::move(values));
    const std::string curve = o.denoise ? std::string(*o.denoise == Wavelet::SoftThreshold ? "soft" : "hard") +
                                              "-thresholded (" + r.filterName + ")"
                                        : "smooth of level " + std::to_string(r.levels) + " (" + r.filterName + ")";
    panel.series.push_back(AlongRows(PlotSeries::Kind::Line, curve, c.curve));
    panel.title = c.name + (o.denoise ? ": denoised" : ": the smooth") +
                  (c.missing > 0 ? ", " + Plural(c.missing, "missing value") + " interpolated" : "");
    return panel;
}

PlotPanel EnergyPanel(const WaveletResult& r, const WaveletColumn& c)
{
    PlotPanel panel;
    PlotSeries bars;
    bars.kind = PlotSeries::Kind::Bars;
    bars.name = "";
    for (int level = 1; level <= r.levels + 1; ++level) {
        bars.x.push_back(level);
        bars.y.push_back(c.shares[static_cast<std::size_t>(level - 1)]);
        panel.xLabels.emplace_back(level, level > r.levels ? "smooth" : std::to_string(level));
    }
    panel.series.push_back(std::move(bars));
    panel.tightX = true;
    panel.xTitle = "level (1 finest)";
    panel.yTitle = "share of the sum of squares";
    panel.title = c.name + ": energy per level";
    return panel;
}

} // namespace

PlotFigure WaveletPlot(const WaveletResult& r, const WaveletOptions& o)
{
    PlotFigure figure;
    figure.title = "Wavelet transform of " + std::filesystem::path(r.source).filename().string() + ", " +
                   r.filterName + ", " + Plural(r.levels, "level") + ", " + DetrendPhrase(o.detrend);
    figure.panelsPerRow = 1;
    figure.panelWidth = 900.0;
    figure.panelHeight = 340.0;
    for (const WaveletColumn& c : r.columns) {
        figure.panels.push_back(SeriesPanel(r, o, c));
        figure.panels.push_back(EnergyPanel(r, c));
    }
    return figure;
}

int RunWavelet(const WaveletOptions& options, std::ostream& out)
{
    // The options that need no table are checked before it is read.
    FilterNamed(options.filter);
    if (options.level < 0)
        throw Usage("--level " + std::to_string(options.level) + ": a wavelet transform has at least 1 level");
    WaveletResult result;
    RunSteps steps;
    steps.task = "Wavelet transform";
    steps.source = options.data;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    // The table is read under the Ctrl-C guard: a long one takes a while.
    steps.compute = [&](NCProgress& progress) {
        result = TransformTable(ReadStatsTable(options.data, options.names), options, progress);
    };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath,
                  [&](std::ostream& file) {
                      if (options.denoise)
                          WriteDenoisedCsv(file, result);
                      else
                          WriteCoefficientsCsv(file, result);
                  },
                  WrittenTo(options.denoise ? "Denoised series" : "Coefficients", options.outPath));
        files.Add("plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, WaveletPlot(result, options)); },
                  WrittenTo("Plot", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return WaveletJson(result, options, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, result, options); };
    return RunCommand(steps, out);
}

namespace {

class WaveletCommand final : public TableCommand<WaveletOptions> {
    std::string m_detrend = "mean", m_denoise;
    std::optional<int> m_level;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "wavelet", "Periodic discrete wavelet transform of columns read as series (a power of two of rows, "
                       "missing values interpolated): energy per level, coefficients, denoising.");
        AddTableArgument(command, m_options.data)->required();
        AddColumnsOption(command, m_options.columns, "A column to transform (repeatable)");
        command
            .add_option("--filter", m_options.filter,
                        "Beylkin, CoifletN (N 1-5), DaubechiesN (N taps, 4-20 even), SymmletN (N 4-10) or "
                        "Biorthogonal1 to Biorthogonal6; without N the family's default")
            ->type_name("NAME")
            ->required();
        command.add_option("--level", m_level, "Coarsest level J (default: the deepest whose smooth keeps a filter "
                                               "length of values)")
            ->type_name("J");
        AddDetrendOption(command, m_detrend);
        command.add_option("--denoise", m_denoise, "Threshold the details at the universal threshold: soft or hard")
            ->check(CLI::IsMember({"soft", "hard"}))
            ->type_name("MODE");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath,
                        "Write the coefficients (by band), or with --denoise the denoised series, as CSV", "FILE.csv");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw each series with its denoised version (or its smooth) and its energy per level as SVG",
                        "FILE.svg");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        if (m_level) {
            if (*m_level < 1)
                throw Usage("--level " + std::to_string(*m_level) + ": a wavelet transform has at least 1 level");
            m_options.level = *m_level;
        }
        m_options.detrend = DetrendNamed(m_detrend);
        if (!m_denoise.empty())
            m_options.denoise = DenoiseNames.at(m_denoise);
        return RunWavelet(m_options, out);
    }
};

} // namespace

std::unique_ptr<Command> MakeWaveletCommand() { return std::make_unique<WaveletCommand>(); }

} // namespace veltan_cli
