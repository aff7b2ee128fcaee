#include "Spc.h"

#include "Arrays.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/spc/CapabilityAnalysis.h"
#include "veltancmat/spc/ControlChart.h"
#include "veltancmat/spc/FrequencyHistogram.h"
#include "veltancmat/spc/WesternElectricRules.h"

#include <pybind11/stl.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace veltan_py {

namespace {

using ControlType = ControlChartEnum::ControlType;

constexpr double Unset = -99.0;

// The names of `veltan chart --type`, so that a chart drawn by the tool and
// one computed here are asked for alike.
const std::map<std::string, ControlType> ChartNames{{"individual", ControlChartEnum::Individual},
                                                    {"mean-range", ControlChartEnum::MeanRange},
                                                    {"mean-sd", ControlChartEnum::MeanStdDev},
                                                    {"cusum", ControlChartEnum::CuSum},
                                                    {"ewma", ControlChartEnum::EWMA},
                                                    {"ewma-overall", ControlChartEnum::EWMAOverallSigma}};

bool IsShewhart(ControlType type) { return type <= ControlChartEnum::MeanStdDev; }
bool IsEwma(ControlType type) { return type == ControlChartEnum::EWMA || type == ControlChartEnum::EWMAOverallSigma; }
bool HasSpread(ControlType type) { return type == ControlChartEnum::MeanRange || type == ControlChartEnum::MeanStdDev; }
bool Known(double v) { return std::isfinite(v) && v != Unset; }

std::string Shown(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.8g", v);
    return text;
}

double NaNFor(double v) { return Known(v) ? v : std::numeric_limits<double>::quiet_NaN(); }

// A number given for the engine, which reads -99 as "not given".
double Given(const char* name, double v)
{
    if (!std::isfinite(v))
        throw py::value_error(std::string(name) + "=" + Shown(v) + ": must be a finite number");
    if (v == Unset)
        throw py::value_error(std::string(name) +
                              "=-99: the engine reserves -99 for a value not given; shift or rescale the data");
    return v;
}

// What a chart is asked for, checked before any array is read.
struct ChartRequest {
    ControlType type = ControlChartEnum::Individual;
    int subgroup = 1;
    bool byTime = false;
    float interval = 0.0f;
    std::optional<double> target, sigma, lambda;
    ControlChartEnum::EWMAType ewma = ControlChartEnum::Filter;
    bool runRules = false;
};

ChartRequest Request(const std::string& chart, std::optional<int> subgroup, bool byTime, std::optional<double> interval,
                     std::optional<double> target, std::optional<double> sigma, std::optional<double> lambda,
                     const std::optional<std::string>& ewma, const std::optional<std::string>& rules)
{
    ChartRequest r;
    const auto named = ChartNames.find(chart);
    if (named == ChartNames.end())
        throw py::value_error("chart=\"" + chart +
                              "\": must be \"individual\", \"mean-range\", \"mean-sd\", \"cusum\", \"ewma\" or "
                              "\"ewma-overall\"");
    r.type = named->second;
    if (subgroup && byTime)
        throw py::value_error("subgroup_size and times: a chart groups by a size or by a time interval, not both");
    if (byTime != interval.has_value())
        throw py::value_error(byTime ? "times: give the width of a group with interval"
                                     : "interval: give the time of each value with times");
    if (subgroup && *subgroup < 1)
        throw py::value_error("subgroup_size=" + std::to_string(*subgroup) + ": a subgroup holds at least 1 value");
    r.subgroup = subgroup.value_or(1);
    r.byTime = byTime;
    if (interval) {
        r.interval = static_cast<float>(*interval);
        if (!std::isfinite(r.interval) || r.interval == 0.0f)
            throw py::value_error("interval=" + Shown(*interval) +
                                  ": must be a finite number other than 0 (negative for descending times)");
    }
    if (HasSpread(r.type) && !byTime && r.subgroup < 2)
        throw py::value_error("chart=\"" + chart +
                              "\" needs subgroups of at least 2 values: give subgroup_size (2 or more), or times "
                              "and interval");
    if (target)
        r.target = Given("target", *target);
    if (sigma && !(std::isfinite(*sigma) && *sigma > 0.0))
        throw py::value_error("sigma=" + Shown(*sigma) + ": a standard deviation must be above 0");
    r.sigma = sigma;
    if ((lambda || ewma) && !IsEwma(r.type))
        throw py::value_error(std::string(lambda ? "ewma_lambda" : "ewma") +
                              ": only the \"ewma\" and \"ewma-overall\" charts have an EWMA");
    if (lambda && !(*lambda > 0.0 && *lambda <= 1.0))
        throw py::value_error("ewma_lambda=" + Shown(*lambda) + ": the EWMA weight lies above 0 and at most 1");
    r.lambda = lambda;
    if (ewma && *ewma != "filter" && *ewma != "predictive")
        throw py::value_error("ewma=\"" + *ewma + "\": must be \"filter\" or \"predictive\"");
    if (ewma == "predictive")
        r.ewma = ControlChartEnum::Predictive;
    if (rules && *rules != "we")
        throw py::value_error("rules=\"" + *rules + "\": must be \"we\" (the classic four) or None");
    r.runRules = rules.has_value();
    if (r.runRules && !IsShewhart(r.type))
        throw py::value_error("rules=\"we\": the run rules judge the individual, mean-range and mean-sd charts; a \"" +
                              chart + "\" chart flags the points beyond its limits without them");
    return r;
}

// The values of one period and, for interval groups, their times.
struct Series {
    std::string name;
    NCDataVector<float> values, times;
};

Series ReadSeries(const py::handle& x, const py::handle& times, const ChartRequest& r, const char* name,
                  const char* timesName)
{
    Series s{name, ToVector(x, name), {}};
    if (s.values.GetNumValidValues() == 0)
        throw py::value_error(s.name + ": every value is missing");
    if (!r.byTime) {
        if (!times.is_none())
            throw py::value_error(std::string(timesName) + " goes with times and interval");
        if (r.subgroup > s.values.Size())
            throw py::value_error("subgroup_size=" + std::to_string(r.subgroup) + ": " + s.name + " has only " +
                                  std::to_string(s.values.Size()) + " values, not enough for one subgroup");
        return s;
    }
    if (times.is_none())
        throw py::value_error(s.name + ": the chart groups by time; give " + timesName);
    s.times = ToVector(times, timesName);
    if (s.times.Size() != s.values.Size())
        throw py::value_error(std::string(timesName) + " has " + std::to_string(s.times.Size()) + " values and " +
                              s.name + " " + std::to_string(s.values.Size()) + "; they must match");
    if (s.times.GetNumValidValues() == 0)
        throw py::value_error(std::string(timesName) + ": no time is present");
    // The groups are intervals along the axis: times out of order would
    // spread one group over several.
    const bool ascending = r.interval > 0.0f;
    int previous = 0;
    for (int i = 1; i <= s.times.Size(); ++i) {
        if (IsMisVal(s.times[i]))
            continue;
        if (previous > 0 && (ascending ? s.times[i] < s.times[previous] : s.times[i] > s.times[previous]))
            throw py::value_error(std::string(timesName) + "[" + std::to_string(i - 1) + "] is " + Shown(s.times[i]) +
                                  ", after " + Shown(s.times[previous]) + " at [" + std::to_string(previous - 1) +
                                  "]; the times must " + (ascending ? "ascend" : "descend for a negative interval"));
        previous = i;
    }
    return s;
}

// Sigma of single values from the mean moving range of present neighbours,
// over d2 of a range of two; -99 when no two neighbours are present.
double MovingRangeSigma(const NCDataVector<float>& values)
{
    double total = 0.0;
    int ranges = 0;
    for (int i = 2; i <= values.Size(); ++i) {
        if (IsMisVal(values[i]) || IsMisVal(values[i - 1]))
            continue;
        total += std::fabs(static_cast<double>(values[i]) - values[i - 1]);
        ++ranges;
    }
    return ranges > 0 ? total / ranges / 1.128 : Unset;
}

// The library's chart of one period with the request's settings. The
// individuals chart keeps no sigma of its own: `sigma` receives the one
// its limits rest on.
ControlChart MakeChart(const Series& s, const ChartRequest& r, double& sigma)
{
    const auto ewma = IsEwma(r.type) ? r.ewma : ControlChartEnum::EWMANone;
    ControlChart chart = r.byTime ? ControlChart(r.type, s.values, s.times, r.interval, ewma)
                                  : ControlChart(r.type, s.values, r.subgroup, ewma);
    const int means = chart.GetMeanVector()->GetNumValidValues();
    if (means < 2)
        throw py::value_error(s.name + ": " + (means == 1 ? "only 1 subgroup has" : "no subgroup has") +
                              " a value; a chart needs at least 2");
    const int smallest = HasSpread(r.type) ? 2 : 1;
    if (r.byTime && chart.GetSubGroupSize() < smallest)
        throw py::value_error("interval=" + Shown(r.interval) + ": the groups of " + s.name + " hold " +
                              std::to_string(chart.GetSubGroupSize()) + " values on average; this chart needs " +
                              std::to_string(smallest));
    if (HasSpread(r.type)) {
        const bool ranges = r.type == ControlChartEnum::MeanRange;
        if ((ranges ? chart.GetRangeVector() : chart.GetStdDevVector())->GetNumValidValues() == 0)
            throw py::value_error(s.name + ": no subgroup has 2 present values, so there is no " +
                                  (ranges ? "range" : "standard deviation") + " to set the limits by");
    }
    if (r.target)
        chart.SetTarget(*r.target);
    sigma = Unset;
    if (r.type == ControlChartEnum::Individual) {
        sigma = r.sigma ? *r.sigma : MovingRangeSigma(s.values);
        if (sigma == Unset)
            throw py::value_error(s.name + ": no two neighbouring values are present, so there is no moving "
                                           "range to estimate sigma from; give sigma");
        chart.SetStdDevSubgroup(sigma);
    } else if (r.sigma) {
        chart.SetStdDevSubgroup(*r.sigma);
    }
    if (r.lambda)
        chart.SetEWMALambda(*r.lambda);
    return chart;
}

struct Limits {
    double centre = Unset, lcl = Unset, ucl = Unset;
};

// What the chart shows, read out of the library's chart.
struct ChartResult {
    int subgroupSize = 0;
    NCDataVector<float> means, spread, upper, lower, ewma, times;
    std::vector<int> sizes;
    Limits plotted, second;
    double h = Unset, k = Unset, lambda = Unset, sigma = Unset;
    std::vector<std::string> rules;
    std::map<int, std::set<std::size_t>> flagged;
};

void ReadLimits(ChartResult& out, const ControlChart& chart, const ChartRequest& r, double individualSigma)
{
    switch (r.type) {
    case ControlChartEnum::Individual: {
        // The values' sigma shrinks to that of a mean of n for subgroups.
        const double half = 3.0 * individualSigma / std::sqrt(static_cast<double>(chart.GetSubGroupSize()));
        out.plotted = {chart.GetTarget(), chart.GetTarget() - half, chart.GetTarget() + half};
        out.sigma = individualSigma;
        break;
    }
    case ControlChartEnum::MeanRange:
    case ControlChartEnum::MeanStdDev: {
        const bool ranges = r.type == ControlChartEnum::MeanRange;
        out.plotted = {chart.GetTarget(), chart.GetMeanLCL(), chart.GetMeanUCL()};
        out.second = ranges ? Limits{chart.GetRangeMean(), chart.GetRangeLCL(), chart.GetRangeUCL()}
                            : Limits{chart.GetStdDevMean(), chart.GetStdDevLCL(), chart.GetStdDevUCL()};
        out.sigma = chart.GetStdDevProcess();
        break;
    }
    case ControlChartEnum::CuSum:
        out.plotted.centre = chart.GetTarget();
        out.h = chart.GetActionLimit();
        out.k = chart.GetDeadBand();
        out.sigma = chart.GetMSSD();
        break;
    default:
        out.plotted = {chart.GetTarget(), chart.GetEWMALCL(), chart.GetEWMAUCL()};
        out.lambda = chart.GetEWMALambda();
        out.sigma = chart.GetMSSD();
        break;
    }
    std::vector<double> needed{out.plotted.centre, out.sigma};
    if (r.type != ControlChartEnum::CuSum)
        needed.insert(needed.end(), {out.plotted.lcl, out.plotted.ucl});
    if (HasSpread(r.type))
        needed.insert(needed.end(), {out.second.centre, out.second.lcl, out.second.ucl});
    if (r.type == ControlChartEnum::CuSum)
        needed.insert(needed.end(), {out.h, out.k});
    if (IsEwma(r.type))
        needed.push_back(out.lambda);
    for (const double v : needed)
        if (!Known(v))
            throw py::value_error("the control limits cannot be computed from these values");
    if (!(out.sigma > 0.0))
        throw py::value_error("the values do not vary (sigma is 0), so the limits would lie on the centre line; "
                              "give sigma");
}

// The run rules judge the plotted means of the Shewhart charts; a CuSum or
// an EWMA signals where it crosses its limits. Both compare strictly.
void Signals(ChartResult& out, const ChartRequest& r)
{
    if (IsShewhart(r.type)) {
        if (!r.runRules)
            return;
        WesternElectricRules rules(out.means);
        // The zones are multiples of the sigma of a plotted mean, a third of
        // the way to a control limit.
        rules.SetCustomStDev(out.plotted.centre, (out.plotted.ucl - out.plotted.centre) / 3.0);
        rules.InitOriginalWERules();
        for (std::size_t k = 0; k < rules.SizeRules(); ++k)
            out.rules.push_back(rules.GetRuleDescription(k));
        out.flagged = rules.GetAllBroken();
        return;
    }
    const bool cusum = r.type == ControlChartEnum::CuSum;
    out.rules =
        cusum ? std::vector<std::string>{"upper CuSum above the decision interval H",
                                         "lower CuSum above the decision interval H"}
              : std::vector<std::string>{"EWMA above the upper control limit", "EWMA below the lower control limit"};
    const NCDataVector<float>& high = cusum ? out.upper : out.ewma;
    for (int i = 1; i <= high.Size(); ++i) {
        if (cusum) {
            if (!IsMisVal(out.upper[i]) && out.upper[i] > out.h)
                out.flagged[i - 1].insert(0);
            if (!IsMisVal(out.lower[i]) && out.lower[i] > out.h)
                out.flagged[i - 1].insert(1);
        } else if (!IsMisVal(out.ewma[i])) {
            if (out.ewma[i] > out.plotted.ucl)
                out.flagged[i - 1].insert(0);
            if (out.ewma[i] < out.plotted.lcl)
                out.flagged[i - 1].insert(1);
        }
    }
}

ChartResult ComputeChart(const Series& series, const Series* reference, const ChartRequest& r)
{
    double sigma = Unset;
    ControlChart chart = MakeChart(series, r, sigma);
    if (reference) {
        ControlChart limits = MakeChart(*reference, r, sigma);
        // ImportLimits copies only what the reference has computed so far;
        // its lazy results would otherwise be filled in from this period.
        limits.GetMSSD();
        if (IsEwma(r.type))
            limits.GetEWMAUCL();
        if (r.type == ControlChartEnum::CuSum)
            limits.GetActionLimit();
        chart.ImportLimits(limits);
    }
    ChartResult out;
    out.subgroupSize = chart.GetSubGroupSize();
    out.means = *chart.GetMeanVector();
    if (r.type == ControlChartEnum::MeanRange)
        out.spread = *chart.GetRangeVector();
    if (r.type == ControlChartEnum::MeanStdDev)
        out.spread = *chart.GetStdDevVector();
    if (r.byTime) {
        out.times = chart.GetMeanGroupVector();
        out.sizes = chart.GetSubGroupVector();
    }
    ReadLimits(out, chart, r, sigma);
    if (r.type == ControlChartEnum::CuSum) {
        out.upper = chart.GetHighCuSum();
        out.lower = chart.GetLowCuSum();
    }
    if (IsEwma(r.type))
        out.ewma = chart.GetEWMA();
    Signals(out, r);
    return out;
}

// The engine's per-subgroup vectors can run short of the subgroup count
// (the group times stop at the last time); the rest is missing.
py::array_t<double> Points(const NCDataVector<float>& v, int count)
{
    py::array_t<double> out(static_cast<py::ssize_t>(count));
    auto cells = out.mutable_unchecked<1>();
    for (int i = 0; i < count; ++i)
        cells(i) = i < v.Size() && !IsMisVal(v[i + 1]) ? v[i + 1] : std::numeric_limits<double>::quiet_NaN();
    return out;
}

py::dict ChartDict(const ChartResult& c, const ChartRequest& r)
{
    const int count = c.means.Size();
    const py::object none = py::none();
    py::dict d;
    d["subgroup_size"] = c.subgroupSize;
    d["means"] = Points(c.means, count);
    d["spread"] = HasSpread(r.type) ? py::object(Points(c.spread, count)) : none;
    d["upper_cusum"] = r.type == ControlChartEnum::CuSum ? py::object(Points(c.upper, count)) : none;
    d["lower_cusum"] = r.type == ControlChartEnum::CuSum ? py::object(Points(c.lower, count)) : none;
    d["ewma"] = IsEwma(r.type) ? py::object(Points(c.ewma, count)) : none;
    d["times"] = r.byTime ? py::object(Points(c.times, count)) : none;
    if (r.byTime) {
        py::array_t<long long> sizes(static_cast<py::ssize_t>(count));
        auto cells = sizes.mutable_unchecked<1>();
        for (int i = 0; i < count; ++i)
            cells(i) = static_cast<std::size_t>(i) < c.sizes.size() ? c.sizes[static_cast<std::size_t>(i)] : 0;
        d["sizes"] = sizes;
    } else {
        d["sizes"] = none;
    }
    d["center"] = NaNFor(c.plotted.centre);
    d["lcl"] = NaNFor(c.plotted.lcl);
    d["ucl"] = NaNFor(c.plotted.ucl);
    d["spread_center"] = NaNFor(c.second.centre);
    d["spread_lcl"] = NaNFor(c.second.lcl);
    d["spread_ucl"] = NaNFor(c.second.ucl);
    d["h"] = NaNFor(c.h);
    d["k"] = NaNFor(c.k);
    d["ewma_lambda"] = NaNFor(c.lambda);
    d["sigma"] = c.sigma;
    d["rules"] = c.rules;
    py::array_t<bool> violations({static_cast<py::ssize_t>(count), static_cast<py::ssize_t>(c.rules.size())});
    auto cells = violations.mutable_unchecked<2>();
    for (py::ssize_t i = 0; i < cells.shape(0); ++i)
        for (py::ssize_t k = 0; k < cells.shape(1); ++k)
            cells(i, k) = false;
    for (const auto& [point, rules] : c.flagged)
        for (const std::size_t k : rules)
            if (point < count && k < c.rules.size())
                cells(point, static_cast<py::ssize_t>(k)) = true;
    d["violations"] = violations;
    d["spread_beyond"] = none;
    if (HasSpread(r.type)) {
        py::array_t<bool> beyond(static_cast<py::ssize_t>(count));
        auto flags = beyond.mutable_unchecked<1>();
        for (int i = 0; i < count; ++i) {
            const bool present = i < c.spread.Size() && !IsMisVal(c.spread[i + 1]);
            flags(i) = present && (c.spread[i + 1] > c.second.ucl || c.spread[i + 1] < c.second.lcl);
        }
        d["spread_beyond"] = beyond;
    }
    return d;
}

py::dict ControlChartOf(const py::handle& x, const std::string& chart, std::optional<int> subgroup,
                        const py::handle& times, std::optional<double> interval, std::optional<double> target,
                        std::optional<double> sigma, std::optional<double> lambda,
                        const std::optional<std::string>& ewma, const std::optional<std::string>& rules,
                        const py::handle& reference, const py::handle& referenceTimes)
{
    const ChartRequest r = Request(chart, subgroup, !times.is_none(), interval, target, sigma, lambda, ewma, rules);
    const Series series = ReadSeries(x, times, r, "x", "times");
    std::optional<Series> limits;
    if (!reference.is_none())
        limits = ReadSeries(reference, referenceTimes, r, "reference", "reference_times");
    else if (!referenceTimes.is_none())
        throw py::value_error("reference_times goes with reference");
    ChartResult result;
    {
        // Estimating the EWMA weight walks the series some 36 times.
        py::gil_scoped_release release;
        result = ComputeChart(series, limits ? &*limits : nullptr, r);
    }
    return ChartDict(result, r);
}

// The present values of an array, as the engine's vector.
NCDataVector<float> Present(const py::handle& x, const char* name, int atLeast, const char* why)
{
    const NCDataVector<float> all = ToVector(x, name);
    std::vector<float> present;
    for (int i = 1; i <= all.Size(); ++i)
        if (!IsMisVal(all[i]))
            present.push_back(all[i]);
    if (static_cast<int>(present.size()) < atLeast)
        throw py::value_error(std::string(name) + " has " + std::to_string(present.size()) + " present values; " + why);
    NCDataVector<float> v;
    v.CopyZeroBasedVector(present.data(), static_cast<int>(present.size()));
    return v;
}

// Only the present values are studied, as `veltan capability` does, so
// missing ones count neither as values nor toward the normality test's
// limit of 5000.
py::dict Capability(const py::handle& x, std::optional<double> lsl, std::optional<double> usl,
                    std::optional<double> target, const py::handle& reference)
{
    const double lower = lsl ? Given("lsl", *lsl) : Unset;
    const double upper = usl ? Given("usl", *usl) : Unset;
    const double aim = target ? Given("target", *target) : Unset;
    const NCDataVector<float> data = Present(x, "x", 2, "a capability study needs at least 2");
    std::optional<NCDataVector<float>> referenceData;
    if (!reference.is_none())
        referenceData = Present(reference, "reference", 1, "its mean needs at least 1");
    CapabilityAnalysis::CapabilityValues v;
    {
        py::gil_scoped_release release;
        v = CapabilityAnalysis(data, lower, upper, aim, referenceData ? &*referenceData : nullptr).GetResults();
    }
    const bool limit = lsl || usl;
    py::dict d;
    d["mean"] = NaNFor(v.mean);
    d["std_dev"] = NaNFor(v.stdDev);
    d["cp"] = NaNFor(v.cp);
    d["cpk"] = NaNFor(v.cpk);
    d["cpu"] = NaNFor(v.cpu);
    d["cpl"] = NaNFor(v.cpl);
    d["cpm"] = NaNFor(v.cpm);
    d["ppm_observed"] = NaNFor(v.observedPPM);
    // Without a limit the engine's expected share outside is 0; like the
    // observed one, it is not a figure then.
    d["ppm_expected"] = limit ? NaNFor(v.expectedPPM) : std::numeric_limits<double>::quiet_NaN();
    d["shapiro_w"] = NaNFor(v.w);
    d["shapiro_p"] = NaNFor(v.normalityP);
    d["reference_mean"] = referenceData ? NaNFor(v.referenceMean) : std::numeric_limits<double>::quiet_NaN();
    d["n"] = data.Size();
    return d;
}

// The engine's rounded bins as NumPy's pair (counts, edges).
py::tuple Histogram(const py::handle& x)
{
    const NCDataVector<float> data = ToVector(x, "x");
    if (data.GetNumValidValues() == 0)
        throw py::value_error("x: every value is missing");
    FrequencyHistogram::HistogramInfo info;
    FrequencyHistogram().CreateHistogram(data, info);
    const auto bins = static_cast<py::ssize_t>(info.counts.size());
    py::array_t<long long> counts(bins);
    py::array_t<double> edges(bins + 1);
    auto c = counts.mutable_unchecked<1>();
    auto e = edges.mutable_unchecked<1>();
    for (py::ssize_t b = 0; b < bins; ++b)
        c(b) = static_cast<long long>(info.counts[static_cast<std::size_t>(b)]);
    for (py::ssize_t b = 0; b <= bins; ++b)
        e(b) = info.start + static_cast<double>(b) * info.width;
    return py::make_tuple(counts, edges);
}

} // namespace

void BindSpc(py::module_& m)
{
    m.def("control_chart", &ControlChartOf, py::arg("x"), py::arg("chart"), py::arg("subgroup_size") = py::none(),
          py::arg("times") = py::none(), py::arg("interval") = py::none(), py::arg("target") = py::none(),
          py::arg("sigma") = py::none(), py::arg("ewma_lambda") = py::none(), py::arg("ewma") = py::none(),
          py::arg("rules") = py::none(), py::arg("reference") = py::none(), py::arg("reference_times") = py::none(),
          "The quantities of a control chart of one series, as a dict (see veltancmat.control_chart).");
    m.def("capability", &Capability, py::arg("x"), py::arg("lsl") = py::none(), py::arg("usl") = py::none(),
          py::arg("target") = py::none(), py::arg("reference") = py::none(),
          "Process capability of the present values of x, as a dict (see veltancmat.capability).");
    m.def("histogram", &Histogram, py::arg("x"),
          "Counts of the present values of x in the engine's rounded bins: (counts, edges).");
}

} // namespace veltan_py
