#include "cli/ChartCommand.h"

#include "cli/ChartPlot.h"
#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/JsonOutput.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/SvgPlot.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/spc/ControlChart.h"
#include "veltancmat/spc/WesternElectricRules.h"

#include <cmath>
#include <cstdio>
#include <map>

namespace veltan_cli {

namespace {

using ControlType = ControlChartEnum::ControlType;

const std::map<std::string, ControlType> TypeNames{{"individual", ControlChartEnum::Individual},
                                                   {"mean-range", ControlChartEnum::MeanRange},
                                                   {"mean-sd", ControlChartEnum::MeanStdDev},
                                                   {"cusum", ControlChartEnum::CuSum},
                                                   {"ewma", ControlChartEnum::EWMA},
                                                   {"ewma-overall", ControlChartEnum::EWMAOverallSigma}};

bool IsShewhart(ControlType type) { return type <= ControlChartEnum::MeanStdDev; }
bool IsEwma(ControlType type) { return type == ControlChartEnum::EWMA || type == ControlChartEnum::EWMAOverallSigma; }
bool HasSpreadChart(ControlType type)
{
    return type == ControlChartEnum::MeanRange || type == ControlChartEnum::MeanStdDev;
}


// A number as the user typed it back in a message: no trailing zeros.
std::string Shown(double v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.8g", v);
    return buffer;
}

// The checks that need no data: the options must make one chart.
void CheckOptions(const ChartOptions& o)
{
    const std::string type = "--type " + ChartTypeName(o.type);
    if (o.subgroup != 0 && o.byTime)
        throw Usage("--subgroup and --time: a chart groups by a size or by a time interval, not both");
    if (o.byTime && !(std::isfinite(o.interval) && o.interval != 0.0))
        throw Usage("--interval " + Shown(o.interval) +
                    ": the interval must be a number other than 0 (negative for descending times)");
    if (HasSpreadChart(o.type) && !o.byTime && o.subgroup < 2)
        throw Usage(type + " needs subgroups of at least 2 values: give --subgroup N (N >= 2) or --time NAME "
                           "--interval X");
    if (o.target && (!std::isfinite(*o.target) || IsMisVal(*o.target)))
        throw Usage("--target " + Shown(*o.target) + ": not a usable centre line (-99 marks a missing value)");
    if (o.sigma && !(std::isfinite(*o.sigma) && *o.sigma > 0.0))
        throw Usage("--sigma " + Shown(*o.sigma) + ": a standard deviation must be above 0");
    if (o.lambda && !IsEwma(o.type))
        throw Usage("--lambda: only the ewma and ewma-overall charts have a weight");
    if (o.lambda && !(*o.lambda > 0.0 && *o.lambda <= 1.0))
        throw Usage("--lambda " + Shown(*o.lambda) + ": the EWMA weight lies above 0 and at most 1");
    if (o.ewmaGiven && !IsEwma(o.type))
        throw Usage("--ewma: only the ewma and ewma-overall charts have an EWMA type");
    if (o.rules == "we" && !IsShewhart(o.type))
        throw Usage("--rules we: the run rules judge the individual, mean-range and mean-sd charts; a " +
                    ChartTypeName(o.type) + " chart flags the subgroups beyond its limits without them");
}

// The series of one table: the column's values in file order and, for an
// interval grouping, the times beside them.
struct Series {
    DataTable table;
    int column = 0;
    int timeColumn = 0;
    NCDataVector<float> values, times;
};

// Usage errors for the table the command was given, data errors for the
// reference table, whose columns the user did not name for it.
int FindColumn(const DataTable& table, const std::string& name, const char* option, bool reference)
{
    const int j = table.Find(name);
    if (j == 0) {
        const std::string message = std::string(option) + ": " + table.source + " has no variable " + Quoted(name);
        throw reference ? ToolError(message) : Usage(message);
    }
    return j;
}

// The present times must run one way, or the groups along them mean nothing.
void CheckTimesSorted(const Series& s, double interval)
{
    int previous = 0;
    for (int i = 1; i <= s.times.Size(); ++i) {
        const float t = s.times[i];
        if (IsMisVal(t))
            continue;
        if (previous > 0) {
            const float before = s.times[previous];
            if (interval > 0.0 ? t < before : t > before)
                throw ToolError(s.table.Where(i, s.timeColumn) + ": time " + FormatValue(t) + " comes after " +
                                FormatValue(before) + " (row " +
                                std::to_string(s.table.fileRows[static_cast<std::size_t>(previous - 1)]) +
                                "); the times must " + (interval > 0.0 ? "ascend" : "descend") +
                                (interval > 0.0 ? "" : " for a negative --interval"));
        }
        previous = i;
    }
}

Series ReadSeries(const std::string& path, const ChartOptions& o, bool reference)
{
    Series s;
    s.table = ReadCsvTable(path, o.names);
    s.column = FindColumn(s.table, o.column, "--column", reference);
    s.values = s.table.values.GetColumn(s.column);
    if (s.values.GetNumValidValues() == 0)
        throw ToolError(s.table.Where(0, s.column) + ": every value is missing");
    if (o.byTime) {
        s.timeColumn = FindColumn(s.table, o.timeColumn, "--time", reference);
        s.times = s.table.values.GetColumn(s.timeColumn);
        if (s.times.GetNumValidValues() == 0)
            throw ToolError(s.table.Where(0, s.timeColumn) + ": no time is present");
        CheckTimesSorted(s, o.interval);
    } else if (o.subgroup > s.values.Size()) {
        throw Usage("--subgroup " + std::to_string(o.subgroup) + ": " + s.table.source + " has only " +
                    Plural(s.values.Size(), "row") + ", not enough for one subgroup");
    }
    return s;
}

int SubgroupSize(const ChartOptions& o) { return o.subgroup > 0 ? o.subgroup : 1; }

// A chart of one table's series, with the options' settings. The
// individuals chart has no sigma of its own in the library: it gets --sigma
// or the moving-range estimate, returned in `sigma`.
ControlChart MakeChart(const Series& s, const ChartOptions& o, double& sigma)
{
    const ControlChartEnum::EWMAType ewma = IsEwma(o.type) ? o.ewma : ControlChartEnum::EWMANone;
    ControlChart chart = o.byTime ? ControlChart(o.type, s.values, s.times, static_cast<float>(o.interval), ewma)
                                  : ControlChart(o.type, s.values, SubgroupSize(o), ewma);
    const std::string where = s.table.Where(0, s.column);
    const NCDataVector<float>& means = *chart.GetMeanVector();
    if (means.GetNumValidValues() < 2)
        throw ToolError(where + ": " +
                        (means.GetNumValidValues() == 1 ? "only 1 subgroup has" : "no subgroup has") +
                        " a value; a chart needs at least 2");
    if (o.byTime && chart.GetSubGroupSize() < (HasSpreadChart(o.type) ? 2 : 1))
        throw Usage("--interval " + Shown(o.interval) + ": the groups of " + s.table.Where(0, s.timeColumn) +
                    " hold " + Shown(chart.GetSubGroupSize()) + " values on average; a " + ChartTypeName(o.type) +
                    " chart needs at least " + (HasSpreadChart(o.type) ? "2" : "1"));
    if (HasSpreadChart(o.type)) {
        const NCDataVector<float>& spread =
            o.type == ControlChartEnum::MeanRange ? *chart.GetRangeVector() : *chart.GetStdDevVector();
        if (spread.GetNumValidValues() == 0)
            throw ToolError(where + ": no subgroup has 2 present values, so there is no " +
                            (o.type == ControlChartEnum::MeanRange ? "range" : "standard deviation") +
                            " to set the limits by");
    }
    if (o.target)
        chart.SetTarget(*o.target);
    sigma = -99.0;
    if (o.type == ControlChartEnum::Individual) {
        sigma = o.sigma ? *o.sigma : MovingRangeSigma(s.values);
        if (IsMisVal(sigma))
            throw ToolError(where + ": no two neighbouring values are present, so there is no moving range to "
                                    "estimate sigma from; give --sigma");
        chart.SetStdDevSubgroup(sigma);
    } else if (o.sigma) {
        chart.SetStdDevSubgroup(*o.sigma);
    }
    if (o.lambda)
        chart.SetEWMALambda(*o.lambda);
    return chart;
}

std::vector<float> Values(const NCDataVector<float>& v, int count)
{
    std::vector<float> out(static_cast<std::size_t>(count), NCMisVal<float>);
    for (int i = 1; i <= count && i <= v.Size(); ++i)
        out[static_cast<std::size_t>(i - 1)] = v[i];
    return out;
}

std::string SigmaSource(const ChartOptions& o, int n)
{
    if (o.sigma)
        return "given with --sigma";
    switch (o.type) {
    case ControlChartEnum::Individual: return "mean moving range / 1.128";
    case ControlChartEnum::MeanRange: return "mean range / d2";
    case ControlChartEnum::MeanStdDev: return "mean standard deviation / c4";
    default:
        return n == 1 ? "standard deviation of all values" : "successive differences of the subgroup means";
    }
}

// The limits of the plotted statistic, and that they are real numbers: a
// limit the library could not compute must not reach the output as -99.
void Limits(ChartResult& r, const ControlChart& chart, const ChartOptions& o, double individualSigma,
            const std::string& where)
{
    const int n = chart.GetSubGroupSize();
    switch (o.type) {
    case ControlChartEnum::Individual: {
        // Limits of a mean of n values: target +- 3 sigma / sqrt(n).
        const double half = 3.0 * individualSigma / std::sqrt(static_cast<double>(n));
        r.mean = {chart.GetTarget(), chart.GetTarget() - half, chart.GetTarget() + half};
        r.sigma = individualSigma;
        break;
    }
    case ControlChartEnum::MeanRange:
        r.mean = {chart.GetTarget(), chart.GetMeanLCL(), chart.GetMeanUCL()};
        r.second = {chart.GetRangeMean(), chart.GetRangeLCL(), chart.GetRangeUCL()};
        r.sigma = chart.GetStdDevProcess();
        break;
    case ControlChartEnum::MeanStdDev:
        r.mean = {chart.GetTarget(), chart.GetMeanLCL(), chart.GetMeanUCL()};
        r.second = {chart.GetStdDevMean(), chart.GetStdDevLCL(), chart.GetStdDevUCL()};
        r.sigma = chart.GetStdDevProcess();
        break;
    case ControlChartEnum::CuSum:
        r.mean = {chart.GetTarget(), -99.0, -99.0};
        r.h = chart.GetActionLimit();
        r.k = chart.GetDeadBand();
        r.sigma = chart.GetMSSD();
        break;
    default:
        r.mean = {chart.GetTarget(), -99.0, -99.0};
        r.lambda = chart.GetEWMALambda();
        r.lambdaEstimated = !o.lambda;
        r.ewmaLimits = {chart.GetTarget(), chart.GetEWMALCL(), chart.GetEWMAUCL()};
        r.sigma = chart.GetMSSD();
        break;
    }
    r.sigmaSource = SigmaSource(o, n);
    const auto usable = [](double v) { return std::isfinite(v) && !IsMisVal(v); };
    std::vector<double> needed{r.mean.centre, r.sigma};
    if (IsShewhart(o.type))
        needed.insert(needed.end(), {r.mean.lcl, r.mean.ucl});
    if (HasSpreadChart(o.type))
        needed.insert(needed.end(), {r.second.centre, r.second.lcl, r.second.ucl});
    if (o.type == ControlChartEnum::CuSum)
        needed.insert(needed.end(), {r.h, r.k});
    if (IsEwma(o.type))
        needed.insert(needed.end(), {r.lambda, r.ewmaLimits.lcl, r.ewmaLimits.ucl});
    for (const double v : needed)
        if (!usable(v))
            throw ToolError(where + ": the control limits cannot be computed from these values");
    if (!(r.sigma > 0.0))
        throw ToolError(where + ": the values do not vary (sigma " + r.sigmaSource +
                        " is 0), so the limits would lie on the centre line; give --sigma");
}

// The signals: the classic run rules on the plotted means, or the crossings
// of a CuSum's or an EWMA's limits. Comparisons are strict, as the run
// rules' are.
void Signals(ChartResult& r, const ChartOptions& o)
{
    for (std::size_t i = 0; i < r.spread.size(); ++i)
        if (!IsMisVal(r.spread[i]) && (r.spread[i] > r.second.ucl || r.spread[i] < r.second.lcl))
            r.spreadBeyond.push_back(static_cast<int>(i));
    if (IsShewhart(o.type)) {
        if (o.rules != "we")
            return;
        NCDataVector<float> means(r.Subgroups());
        for (int i = 0; i < r.Subgroups(); ++i)
            means(i + 1, r.means[static_cast<std::size_t>(i)]);
        WesternElectricRules rules(means);
        // The sigma of the plotted mean, the one its limits are 3 of.
        rules.SetCustomStDev(r.mean.centre, (r.mean.ucl - r.mean.centre) / 3.0);
        rules.InitOriginalWERules();
        r.ruleSet = "we";
        for (std::size_t k = 0; k < rules.SizeRules(); ++k)
            r.ruleDescriptions.push_back(rules.GetRuleDescription(k));
        r.flagged = rules.GetAllBroken();
        return;
    }
    r.ruleSet = "limits";
    const bool cusum = o.type == ControlChartEnum::CuSum;
    r.ruleDescriptions = cusum ? std::vector<std::string>{"upper CuSum above the decision interval H",
                                                          "lower CuSum above the decision interval H"}
                               : std::vector<std::string>{"EWMA above the upper control limit",
                                                          "EWMA below the lower control limit"};
    for (std::size_t i = 0; i < r.means.size(); ++i) {
        const int point = static_cast<int>(i);
        if (cusum) {
            if (!IsMisVal(r.upper[i]) && r.upper[i] > r.h)
                r.flagged[point].insert(0);
            if (!IsMisVal(r.lower[i]) && r.lower[i] > r.h)
                r.flagged[point].insert(1);
        } else if (!IsMisVal(r.ewma[i])) {
            if (r.ewma[i] > r.ewmaLimits.ucl)
                r.flagged[point].insert(0);
            if (r.ewma[i] < r.ewmaLimits.lcl)
                r.flagged[point].insert(1);
        }
    }
}

} // namespace

std::string ChartTypeName(ControlType type)
{
    for (const auto& [name, value] : TypeNames)
        if (value == type)
            return name;
    return "individual";
}

std::string ChartTitle(ControlType type)
{
    switch (type) {
    case ControlChartEnum::Individual: return "Individuals chart";
    case ControlChartEnum::MeanRange: return "Mean and range chart";
    case ControlChartEnum::MeanStdDev: return "Mean and standard deviation chart";
    case ControlChartEnum::CuSum: return "CuSum chart";
    case ControlChartEnum::EWMA: return "EWMA chart";
    default: return "EWMA chart (overall sigma)";
    }
}

double MovingRangeSigma(const NCDataVector<float>& values)
{
    double sum = 0.0;
    int count = 0;
    for (int i = 2; i <= values.Size(); ++i)
        if (!IsMisVal(values[i]) && !IsMisVal(values[i - 1])) {
            sum += std::fabs(static_cast<double>(values[i]) - values[i - 1]);
            ++count;
        }
    // d2 of a range of two values.
    return count > 0 ? sum / count / 1.128 : -99.0;
}

ChartResult ComputeChart(const ChartOptions& options)
{
    CheckOptions(options);
    const Series series = ReadSeries(options.data, options, false);
    double sigma = -99.0;
    ControlChart chart = MakeChart(series, options, sigma);
    if (!options.limitsFrom.empty()) {
        const Series reference = ReadSeries(options.limitsFrom, options, true);
        ControlChart limits = MakeChart(reference, options, sigma);
        // The import copies what the reference has computed so far; what it
        // would compute on request (its MSSD, lambda, EWMA limits, CuSum
        // interval) is asked for first, or this chart would fill it in from
        // its own data.
        limits.GetMSSD();
        if (IsEwma(options.type))
            limits.GetEWMAUCL();
        if (options.type == ControlChartEnum::CuSum)
            limits.GetActionLimit();
        chart.ImportLimits(limits);
    }

    ChartResult r;
    r.type = options.type;
    r.source = series.table.source;
    r.column = options.column;
    r.rows = series.values.Size();
    r.present = series.values.GetNumValidValues();
    r.subgroupSize = chart.GetSubGroupSize();
    r.byTime = options.byTime;
    r.limitsFrom = options.limitsFrom;
    const int count = chart.GetMeanVector()->Size();
    r.means = Values(*chart.GetMeanVector(), count);
    if (options.byTime) {
        r.times = Values(chart.GetMeanGroupVector(), count);
        const std::vector<int>& sizes = chart.GetSubGroupVector();
        r.sizes.assign(static_cast<std::size_t>(count), 0);
        for (std::size_t g = 0; g < r.sizes.size() && g < sizes.size(); ++g)
            r.sizes[g] = sizes[g];
    }
    if (options.type == ControlChartEnum::MeanRange)
        r.spread = Values(*chart.GetRangeVector(), count);
    if (options.type == ControlChartEnum::MeanStdDev)
        r.spread = Values(*chart.GetStdDevVector(), count);
    const std::string where = series.table.Where(0, series.column) +
                              (options.limitsFrom.empty() ? "" : " (limits from " + options.limitsFrom + ")");
    Limits(r, chart, options, sigma, where);
    if (options.type == ControlChartEnum::CuSum) {
        r.upper = Values(chart.GetHighCuSum(), count);
        r.lower = Values(chart.GetLowCuSum(), count);
    }
    if (IsEwma(options.type))
        r.ewma = Values(chart.GetEWMA(), count);
    Signals(r, options);
    return r;
}

namespace {

// "20 subgroups of 5 values", "40 values", "12 intervals of 2 along "t" (about 5 values each)".
std::string Grouping(const ChartResult& r, const ChartOptions& o)
{
    if (r.byTime)
        return Plural(r.Subgroups(), "interval") + " of " + Shown(o.interval) + " along " + Quoted(o.timeColumn) +
               " (" + Shown(r.subgroupSize) + " values each on average)";
    if (r.subgroupSize == 1)
        return Plural(r.Subgroups(), "value");
    return Plural(r.Subgroups(), "subgroup") + " of " + std::to_string(r.subgroupSize) + " values";
}

std::string Padded(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

void LimitRow(std::ostream& out, const std::string& name, const ChartLimits& l)
{
    out << Padded(name, 20) << Significant(l.centre, 12) << Significant(l.lcl, 12) << Significant(l.ucl, 12) << "\n";
}

std::string RuleNumbers(const std::set<std::size_t>& rules, const char* separator)
{
    std::string text;
    for (const std::size_t k : rules)
        text += (text.empty() ? "" : separator) + std::to_string(k);
    return text;
}

void PrintReport(std::ostream& out, const ChartResult& r, const ChartOptions& o)
{
    out << ChartTitle(r.type) << " of " << Quoted(r.column) << " in " << r.source << ": " << Grouping(r, o);
    if (r.present < r.rows)
        out << ", " << Plural(r.rows - r.present, "value") << " missing";
    out << "\n";
    if (!r.limitsFrom.empty())
        out << "Centre line and limits from the reference period in " << r.limitsFrom << "\n";
    out << "\n" << Padded("", 20) << "      Centre         LCL         UCL\n";
    switch (r.type) {
    case ControlChartEnum::CuSum:
        LimitRow(out, "Target", {r.mean.centre, -99.0, -99.0});
        LimitRow(out, "Upper CuSum", {0.0, -99.0, r.h});
        LimitRow(out, "Lower CuSum", {0.0, -99.0, r.h});
        out << "\nReference value K " << Significant(r.k, 0) << ", decision interval H " << Significant(r.h, 0)
            << "\n";
        break;
    case ControlChartEnum::EWMA:
    case ControlChartEnum::EWMAOverallSigma:
        LimitRow(out, "EWMA", r.ewmaLimits);
        out << "\nLambda " << Significant(r.lambda, 0) << (r.lambdaEstimated ? " (estimated)" : "") << ", "
            << (o.ewma == ControlChartEnum::Predictive ? "predictive" : "filter") << " EWMA\n";
        break;
    default:
        LimitRow(out, r.subgroupSize == 1 && !r.byTime ? "Value" : "Mean", r.mean);
        if (r.type == ControlChartEnum::MeanRange)
            LimitRow(out, "Range", r.second);
        if (r.type == ControlChartEnum::MeanStdDev)
            LimitRow(out, "Standard deviation", r.second);
        out << "\n";
        break;
    }
    out << "Sigma " << Significant(r.sigma, 0) << " (" << r.sigmaSource
        << (r.limitsFrom.empty() ? "" : ", of the reference period") << ")\n";

    if (HasSpreadChart(r.type)) {
        const std::string what = r.type == ControlChartEnum::MeanRange ? "Ranges" : "Standard deviations";
        if (r.spreadBeyond.empty()) {
            out << what << " within their limits\n";
        } else {
            out << what << " beyond their limits: " << (r.spreadBeyond.size() == 1 ? "subgroup" : "subgroups");
            for (std::size_t i = 0; i < r.spreadBeyond.size(); ++i)
                out << (i == 0 ? " " : ", ") << r.spreadBeyond[i];
            out << "\n";
        }
    }
    if (r.ruleSet.empty()) {
        out << "Run rules not applied (--rules we applies the classic four)\n";
        return;
    }
    out << (r.ruleSet == "we" ? "Run rules: the classic four; " : "Limit crossings: ")
        << Plural(static_cast<int>(r.flagged.size()), r.subgroupSize == 1 && !r.byTime ? "point" : "subgroup")
        << " flagged\n";
    if (r.flagged.empty())
        return;
    out << "\n  Point" << (r.byTime ? "        Time" : "") << "  Rules  Description\n";
    for (const auto& [point, rules] : r.flagged) {
        char number[16];
        std::snprintf(number, sizeof number, "%7d", point);
        out << number;
        if (r.byTime)
            out << Significant(r.times[static_cast<std::size_t>(point)], 12);
        std::string descriptions;
        for (const std::size_t k : rules)
            descriptions += (descriptions.empty() ? "" : "; ") + r.ruleDescriptions[k];
        out << "  " << Padded(RuleNumbers(rules, " "), 5) << "  " << descriptions << "\n";
    }
}

// One row per subgroup: its statistics, the limits beside them (so that a
// spreadsheet draws the chart from this file alone) and the rules it breaks.
void WriteChartCsv(std::ostream& out, const ChartResult& r)
{
    std::vector<std::string> header{"point"};
    if (r.byTime)
        header.insert(header.end(), {"time", "size"});
    header.push_back("mean");
    const auto value = [](double v) { return FormatValue(static_cast<float>(v)); };
    std::vector<std::string> limits;
    switch (r.type) {
    case ControlChartEnum::CuSum:
        header.insert(header.end(), {"upper_cusum", "lower_cusum", "k", "h"});
        limits = {value(r.k), value(r.h)};
        break;
    case ControlChartEnum::EWMA:
    case ControlChartEnum::EWMAOverallSigma:
        header.insert(header.end(), {"ewma", "centre", "lcl", "ucl"});
        limits = {value(r.ewmaLimits.centre), value(r.ewmaLimits.lcl), value(r.ewmaLimits.ucl)};
        break;
    default:
        header.insert(header.end(), {"centre", "lcl", "ucl"});
        limits = {value(r.mean.centre), value(r.mean.lcl), value(r.mean.ucl)};
        if (HasSpreadChart(r.type)) {
            const std::string s = r.type == ControlChartEnum::MeanRange ? "range" : "sd";
            header.insert(header.end(), {s, s + "_centre", s + "_lcl", s + "_ucl"});
        }
        break;
    }
    header.push_back("rules");
    WriteCsvRecord(out, header);
    for (std::size_t i = 0; i < r.means.size(); ++i) {
        std::vector<std::string> row{std::to_string(i)};
        if (r.byTime)
            row.insert(row.end(), {FormatValue(r.times[i]), std::to_string(r.sizes[i])});
        row.push_back(FormatValue(r.means[i]));
        if (r.type == ControlChartEnum::CuSum)
            row.insert(row.end(), {FormatValue(r.upper[i]), FormatValue(r.lower[i])});
        if (IsEwma(r.type))
            row.push_back(FormatValue(r.ewma[i]));
        row.insert(row.end(), limits.begin(), limits.end());
        if (HasSpreadChart(r.type))
            row.insert(row.end(), {FormatValue(r.spread[i]), value(r.second.centre), value(r.second.lcl),
                                   value(r.second.ucl)});
        const auto flagged = r.flagged.find(static_cast<int>(i));
        row.push_back(flagged == r.flagged.end() ? "" : RuleNumbers(flagged->second, " "));
        WriteCsvRecord(out, row);
    }
}

void WriteChartFiles(RunOutputs& files, const ChartResult& r, const ChartOptions& o)
{
    files.Add("out", o.outPath, [&](std::ostream& file) { WriteChartCsv(file, r); },
              WrittenTo("Chart statistics", o.outPath));
    files.Add("plot", o.plotPath, [&](std::ostream& file) { WriteSvg(file, ChartFigure(r, o)); },
              WrittenTo("Chart", o.plotPath));
}

class ChartCommand final : public TableCommand<ChartOptions> {
    std::string m_type;
    std::string m_ewma;
    std::optional<int> m_subgroup;
    std::optional<double> m_interval;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "chart", "Draw a control chart of one column: its centre line and limits, and the subgroups the run "
                     "rules or the chart's limits flag.");
        AddTableArgument(command, m_options.data)->required();
        command.add_option("--column", m_options.column, "The column to chart")->type_name("NAME")->required();
        command
            .add_option("--type", m_type,
                        "individual, mean-range, mean-sd, cusum, ewma or ewma-overall (see docs/cli.md)")
            ->check(CLI::IsMember({"individual", "mean-range", "mean-sd", "cusum", "ewma", "ewma-overall"}))
            ->required();
        command.add_option("--subgroup", m_subgroup, "Consecutive subgroups of N values (default 1)")
            ->type_name("N");
        command.add_option("--time", m_options.timeColumn, "Group the values by intervals of this time column")
            ->type_name("NAME");
        command.add_option("--interval", m_interval,
                           "The width of a time group (negative for descending times); with --time")
            ->type_name("X");
        // Optional values: absent unless given, so --help shows no default.
        command.add_option("--target", m_options.target, "Centre line (default: the mean of the subgroup means)")
            ->type_name("X");
        command
            .add_option("--sigma", m_options.sigma,
                        "Known process standard deviation of single values (default: estimated, see docs/cli.md)")
            ->type_name("S");
        command
            .add_option("--lambda", m_options.lambda,
                        "EWMA weight in (0, 1] (default: estimated from the one-step-ahead errors)")
            ->type_name("L");
        command.add_option("--ewma", m_ewma, "EWMA type: filter (smooths each mean) or predictive (predicts it)")
            ->check(CLI::IsMember({"filter", "predictive"}));
        command.add_option("--rules", m_options.rules, "Run rules on the plotted means: we (the classic four)")
            ->check(CLI::IsMember({"we"}));
        command.add_option("--limits-from", m_options.limitsFrom,
                           "Take the centre line and limits from the chart of this reference table (same column, "
                           "same grouping)")
            ->type_name("FILE");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath,
                        "Write one row per subgroup: its statistics, the limits and the rules it breaks, as CSV");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the chart with its centre line and limits, flagged subgroups ringed, as SVG",
                        "FILE.svg");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        m_options.type = TypeNames.at(m_type);
        if (m_subgroup)
            m_options.subgroup = *m_subgroup;
        // A subgroup of 0 is not the "not given" the option's default stands for.
        if (m_subgroup && *m_subgroup <= 0)
            throw Usage("--subgroup " + std::to_string(*m_subgroup) + ": a subgroup holds at least 1 value");
        if (!m_options.timeColumn.empty() && !m_interval)
            throw Usage("--time " + m_options.timeColumn + ": give the width of a group with --interval X");
        if (m_interval && m_options.timeColumn.empty())
            throw Usage("--interval: name the time column with --time NAME");
        m_options.byTime = m_interval.has_value();
        m_options.interval = m_interval.value_or(0.0);
        m_options.ewmaGiven = !m_ewma.empty();
        m_options.ewma = m_ewma == "predictive" ? ControlChartEnum::Predictive : ControlChartEnum::Filter;
        return RunChart(m_options, out);
    }
};

} // namespace

int RunChart(const ChartOptions& options, std::ostream& out)
{
    ChartResult result;
    RunSteps steps;
    steps.task = "Computing the control chart";
    steps.source = options.data;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress&) { result = ComputeChart(options); };
    steps.write = [&](RunOutputs& files) { WriteChartFiles(files, result, options); };
    steps.document = [&](const std::vector<WrittenFile>& files) { return ChartJson(result, options, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, result, options); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeChartCommand() { return std::make_unique<ChartCommand>(); }

} // namespace veltan_cli
