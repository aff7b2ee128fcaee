#include "cli/CapabilityCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/spc/FrequencyHistogram.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>

namespace veltan_cli {

namespace {

bool Given(double v) { return v != -99.0; }

NCDataVector<float> VectorOf(const std::vector<double>& values)
{
    std::vector<float> narrow(values.begin(), values.end());
    NCDataVector<float> v;
    v.CopyZeroBasedVector(narrow.data(), static_cast<int>(narrow.size()));
    return v;
}

// The present values of the named column, refused in one line when they
// cannot make a study.
ColumnValues StudyColumn(const DataTable& table, const std::string& name, const std::string& option)
{
    ColumnValues column = ColumnOf(table, ColumnNamed(table, name, option));
    if (!column.problem.empty())
        throw ToolError(column.problem);
    if (column.values.size() < 2)
        throw ToolError(table.Where(0, column.variable) + ": " +
                        Plural(static_cast<int>(column.values.size()), "value") +
                        " present; a capability study needs at least 2 (for a standard deviation)");
    return column;
}

// The reference series: the column of the same name in another table.
ColumnValues ReferenceColumn(const CapabilityOptions& options)
{
    const DataTable table = ReadStatsTable(options.referencePath, options.names);
    if (table.Find(options.column) == 0)
        throw ToolError(table.source + ": no column \"" + options.column +
                        "\" (the reference series is the column of the same name as --column)");
    ColumnValues column = ColumnOf(table, table.Find(options.column));
    if (!column.problem.empty())
        throw ToolError(column.problem);
    if (column.values.empty())
        throw ToolError(table.Where(0, column.variable) + ": no values; the reference mean needs at least one");
    return column;
}

double OptionalNumber(const std::string& option, const std::string& text)
{
    return text.empty() ? -99.0 : OptionNumber(option, text);
}

// The limits and target as numbers, checked before any file is read.
CapabilityStudy Limits(const CapabilityOptions& options)
{
    CapabilityStudy study;
    study.lsl = OptionalNumber("--lsl", options.lsl);
    study.usl = OptionalNumber("--usl", options.usl);
    study.target = OptionalNumber("--target", options.target);
    return study;
}

CapabilityStudy Study(const DataTable& table, const CapabilityOptions& options, CapabilityStudy study)
{
    ColumnValues column = StudyColumn(table, options.column, "--column");
    study.source = table.source;
    study.column = column.name;
    study.n = static_cast<int>(column.values.size());
    const NCDataVector<float> data = VectorOf(column.values);
    study.values = std::move(column.values);
    if (options.referencePath.empty()) {
        study.results = CapabilityAnalysis(data, study.lsl, study.usl, study.target, nullptr).GetResults();
        return study;
    }
    const ColumnValues reference = ReferenceColumn(options);
    study.referenceSource = options.referencePath;
    study.referenceN = static_cast<int>(reference.values.size());
    const NCDataVector<float> referenceData = VectorOf(reference.values);
    study.results = CapabilityAnalysis(data, study.lsl, study.usl, study.target, &referenceData).GetResults();
    return study;
}

bool Spread(const CapabilityStudy& s) { return Computed(s.results.stdDev) && s.results.stdDev > 0.0; }

// Why an index of the limits is missing, in the order the checks fail.
std::string LimitsReason(const CapabilityStudy& s, bool lower, bool upper)
{
    if (!Spread(s))
        return "the values do not vary";
    if (lower && upper && !(Given(s.lsl) && Given(s.usl)))
        return "needs --lsl and --usl";
    if (lower && !upper && !Given(s.lsl))
        return "needs --lsl";
    if (upper && !lower && !Given(s.usl))
        return "needs --usl";
    if (lower && upper)
        return s.lsl > s.usl ? "the limits are reversed" : "the limits are equal";
    return "not computed";
}

std::string Why(double v, const std::string& reason) { return Computed(v) ? "" : reason; }

} // namespace

std::vector<CapabilityFigure> CapabilityFigures(const CapabilityStudy& study)
{
    const CapabilityAnalysis::CapabilityValues& r = study.results;
    const bool limit = Given(study.lsl) || Given(study.usl);
    std::string cpm = "needs --target, --lsl and --usl";
    if (Given(study.target) && Given(study.lsl) && Given(study.usl))
        cpm = study.lsl > study.usl    ? "the limits are reversed"
              : study.lsl == study.usl ? "the limits are equal"
                                       : "every value equals the target";
    std::string w = "not computed";
    if (study.n < 3)
        w = "W is not defined for fewer than 3 values";
    else if (study.n >= 5000)
        w = "not computed for 5000 values or more";
    else if (!Spread(study))
        w = "all values are equal";
    const std::string noLimit = "needs --lsl or --usl";
    return {
        {"mean", "Mean", r.mean, Why(r.mean, "no values")},
        {"std_dev", "Standard deviation", r.stdDev, Why(r.stdDev, "fewer than 2 values")},
        {"cp", "Cp", r.cp, Why(r.cp, LimitsReason(study, true, true))},
        {"cpk", "Cpk", r.cpk, Why(r.cpk, limit ? LimitsReason(study, false, false) : noLimit)},
        {"cpu", "Cpu", r.cpu, Why(r.cpu, LimitsReason(study, false, true))},
        {"cpl", "Cpl", r.cpl, Why(r.cpl, LimitsReason(study, true, false))},
        {"cpm", "Cpm", r.cpm, Why(r.cpm, cpm)},
        {"ppm_observed", "PPM observed", r.observedPPM, Why(r.observedPPM, noLimit)},
        // The library's expected PPM without a limit is 0 (no tail is
        // outside nothing); the observed one is not computed then, and the
        // two are shown alike.
        {"ppm_expected", "PPM expected (normal)", limit ? r.expectedPPM : -99.0,
         limit ? Why(r.expectedPPM, LimitsReason(study, false, false)) : noLimit},
        {"w", "Shapiro-Wilk W", r.w, Why(r.w, w)},
        {"p", "Shapiro-Wilk p", r.normalityP, Why(r.normalityP, w)},
    };
}

namespace {

std::string LimitsPhrase(const CapabilityStudy& s)
{
    std::string phrase;
    const auto add = [&](const char* name, double v) {
        if (Given(v))
            phrase += std::string(phrase.empty() ? "" : ", ") + name + " " + Figure(v, 8);
    };
    add("LSL", s.lsl);
    add("USL", s.usl);
    add("target", s.target);
    return phrase.empty() ? "no limits given" : phrase;
}

std::string FigureText(const CapabilityFigure& f)
{
    if (!f.why.empty())
        return "not computed (" + f.why + ")";
    const std::string key = f.key;
    char text[48];
    if (key == "w" || key.rfind("ppm", 0) == 0) {
        // W to five decimals as the normality command prints it; parts per
        // million with two, which shows a few hundredths without ever
        // switching to an exponent.
        std::snprintf(text, sizeof text, key == "w" ? "%.5f" : "%.2f", f.value);
        return text;
    }
    if (key == "mean" || key == "std_dev" || key == "p")
        return Figure(f.value, key == "p" ? 4 : 6);
    return Figure(f.value, 4);
}

void PrintReport(std::ostream& out, const CapabilityStudy& s)
{
    out << "Capability of \"" << s.column << "\" in " << s.source << ": " << Plural(s.n, "value") << "; "
        << LimitsPhrase(s) << "\n";
    if (Given(s.lsl) && Given(s.usl) && s.lsl > s.usl)
        out << "The limits are reversed (LSL above USL): every value counts as outside the limits.\n";
    out << "\n";
    const std::vector<CapabilityFigure> figures = CapabilityFigures(s);
    for (const CapabilityFigure& f : figures) {
        out << PadRight(f.label, 23) << FigureText(f) << "\n";
        if (std::string(f.key) == "std_dev" && !s.referenceSource.empty())
            out << PadRight("Reference mean", 23) << Figure(s.results.referenceMean, 6) << "  ("
                << s.referenceSource << ", " << Plural(s.referenceN, "value") << ")\n";
        if (std::string(f.key) == "std_dev" || std::string(f.key) == "cpm" || std::string(f.key) == "ppm_expected")
            out << "\n";
    }
}

void WriteStudyCsv(std::ostream& file, const CapabilityStudy& s)
{
    WriteCsvRecord(file, {"statistic", "value"});
    WriteCsvRecord(file, {"n", std::to_string(s.n)});
    WriteCsvRecord(file, {"lsl", Figure(s.lsl, 17, "")});
    WriteCsvRecord(file, {"usl", Figure(s.usl, 17, "")});
    WriteCsvRecord(file, {"target", Figure(s.target, 17, "")});
    WriteCsvRecord(file, {"reference_mean", s.referenceSource.empty() ? "" : Figure(s.results.referenceMean, 17, "")});
    for (const CapabilityFigure& f : CapabilityFigures(s))
        WriteCsvRecord(file, {f.key, Figure(f.value, 17, "")});
}

std::string CapabilityJson(const CapabilityStudy& s, const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "capability";
    doc["data"] = s.source;
    doc["column"] = s.column;
    doc["n"] = s.n;
    doc["lsl"] = JsonFigure(s.lsl);
    doc["usl"] = JsonFigure(s.usl);
    doc["target"] = JsonFigure(s.target);
    if (s.referenceSource.empty()) {
        doc["reference"] = nullptr;
    } else {
        StatsJson reference;
        reference["data"] = s.referenceSource;
        reference["n"] = s.referenceN;
        reference["mean"] = JsonFigure(s.results.referenceMean);
        doc["reference"] = reference;
    }
    StatsJson notComputed = StatsJson::object();
    for (const CapabilityFigure& f : CapabilityFigures(s)) {
        doc[f.key] = JsonFigure(f.value);
        if (!f.why.empty())
            notComputed[f.key] = f.why;
    }
    doc["not_computed"] = notComputed;
    return FinishStatsJson(doc, files);
}

class CapabilityCommand final : public TableCommand<CapabilityOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "capability", "Process capability of one column against specification limits: Cp, Cpk, Cpu, Cpl, Cpm, "
                          "the parts per million outside the limits (observed, and expected for a normal "
                          "distribution) and a Shapiro-Wilk check.");
        AddTableArgument(command, m_options.data)->required();
        command.add_option("--column", m_options.column, "The column to study")->type_name("NAME")->required();
        command.add_option("--lsl", m_options.lsl, "Lower specification limit")->type_name("X");
        command.add_option("--usl", m_options.usl, "Upper specification limit")->type_name("X");
        command.add_option("--target", m_options.target, "Target value (for Cpm)")->type_name("X");
        command
            .add_option("--reference", m_options.referencePath,
                        "A table whose column of the same name is the reference series; its mean is reported")
            ->type_name("FILE");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath, "Write one row per statistic as CSV");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the histogram with the fitted normal curve, the limits and the target as SVG",
                        "FILE.svg");
        AddJsonFlag(command, m_options.json, "Print one JSON document instead of the report");
        return command;
    }

    int Execute(std::ostream& out) override { return RunCapability(m_options, out); }
};

} // namespace

PlotFigure CapabilityPlot(const CapabilityStudy& s)
{
    FrequencyHistogram::HistogramInfo bins;
    FrequencyHistogram().CreateHistogram(VectorOf(s.values), bins);
    PlotPanel panel;
    PlotSeries bars;
    bars.kind = PlotSeries::Kind::Bars;
    bars.name = s.column;
    bars.x = bins.centres;
    bars.y = bins.counts;
    bars.barWidth = bins.width;
    bars.opacity = 0.55;
    panel.series.push_back(std::move(bars));

    const double mean = s.results.mean, sd = s.results.stdDev;
    if (Spread(s)) {
        PlotSeries curve;
        curve.kind = PlotSeries::Kind::Line;
        curve.name = "normal, mean " + Figure(mean, 4) + ", s " + Figure(sd, 3);
        double low = std::min(bins.start, mean - 3.5 * sd);
        double high = std::max(bins.start + bins.width * static_cast<double>(bins.counts.size()), mean + 3.5 * sd);
        for (const double limit : {s.lsl, s.usl, s.target})
            if (Given(limit)) {
                low = std::min(low, limit);
                high = std::max(high, limit);
            }
        constexpr int Steps = 240;
        const double scale = static_cast<double>(s.n) * bins.width / (sd * std::sqrt(2.0 * std::numbers::pi));
        for (int i = 0; i <= Steps; ++i) {
            const double x = low + (high - low) * i / Steps, z = (x - mean) / sd;
            curve.x.push_back(x);
            curve.y.push_back(scale * std::exp(-0.5 * z * z));
        }
        panel.series.push_back(std::move(curve));
    }
    const auto guide = [&](double at, const std::string& caption) {
        if (!Given(at))
            return;
        PlotSeries line;
        line.guide = true;
        line.x = {at};
        line.labels = {caption + " " + Figure(at, 6)};
        panel.series.push_back(std::move(line));
    };
    guide(s.lsl, "LSL");
    guide(s.usl, "USL");
    guide(s.target, "target");
    panel.xTitle = s.column;
    panel.yTitle = "count";
    const CapabilityAnalysis::CapabilityValues& r = s.results;
    panel.title = Plural(s.n, "value") + (Computed(r.cp) ? ", Cp " + Figure(r.cp, 3) : "") +
                  (Computed(r.cpk) ? ", Cpk " + Figure(r.cpk, 3) : "") +
                  (Computed(r.normalityP) ? ", Shapiro-Wilk p " + Figure(r.normalityP, 3) : "");
    const std::string name = std::filesystem::path(s.source).filename().string();
    return PlotFigure{"Capability of " + s.column + " (" + name + ")", {std::move(panel)}};
}

int RunCapability(const CapabilityOptions& options, std::ostream& out)
{
    const CapabilityStudy limits = Limits(options);
    const DataTable table = ReadStatsTable(options.data, options.names);
    CapabilityStudy study;
    RunSteps steps;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress&) { study = Study(table, options, limits); };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath, [&](std::ostream& file) { WriteStudyCsv(file, study); },
                  WrittenTo("Results", options.outPath));
        files.Add("plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, CapabilityPlot(study)); },
                  WrittenTo("Capability plot", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return CapabilityJson(study, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, study); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeCapabilityCommand() { return std::make_unique<CapabilityCommand>(); }

} // namespace veltan_cli
