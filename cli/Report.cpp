#include "cli/Report.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <cmath>
#include <cstdio>

namespace veltan_cli {

std::string Plural(int n, const char* word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

std::string Cell(float v, int width)
{
    char buffer[48];
    if (IsMisVal(v))
        std::snprintf(buffer, sizeof buffer, "%*s", width, "-");
    else
        std::snprintf(buffer, sizeof buffer, "%*.3f", width, static_cast<double>(v));
    return buffer;
}

std::string Significant(double v, int width)
{
    char buffer[48];
    if (IsMisVal(v) || !std::isfinite(v))
        std::snprintf(buffer, sizeof buffer, "%*s", width, "-");
    else
        std::snprintf(buffer, sizeof buffer, "%*.6g", width, v);
    return buffer;
}

double PlotCoordinate(float v) { return IsMisVal(v) ? std::nan("") : static_cast<double>(v); }

std::vector<std::string> Numbered(const char* prefix, int n)
{
    std::vector<std::string> names;
    for (int a = 1; a <= n; ++a)
        names.push_back(prefix + std::to_string(a));
    return names;
}

std::string ScalingPhrase(NCScale::Scaling s)
{
    switch (s) {
    case NCScale::ScaleUnitVariance: return "scaled to unit variance";
    case NCScale::ScalePareto: return "Pareto scaled";
    case NCScale::ScaleCenter: return "centred, not scaled";
    default: return "neither centred nor scaled";
    }
}

std::string ScaleOptionName(NCScale::Scaling s)
{
    switch (s) {
    case NCScale::ScaleUnitVariance: return "uv";
    case NCScale::ScalePareto: return "pareto";
    case NCScale::ScaleCenter: return "center";
    default: return "none";
    }
}

std::string DescribeSignificance(SignificanceE::Significance s, const std::string& items)
{
    switch (s) {
    case SignificanceE::R1: return "R1 (its Q2 is above the limit)";
    case SignificanceE::R2: return "R2 (enough " + items + " have a Q2 above the limit)";
    case SignificanceE::R5: return "R5 (undecided, confirmed by the next component)";
    case SignificanceE::NS: return "NS (not significant)";
    case SignificanceE::N3: return "N3 (too many components for the size of the data)";
    case SignificanceE::N4: return "N4 (too little variance explained)";
    case SignificanceE::U: return "U (undecided)";
    default: return SignificanceE::GetSignificance(s);
    }
}

std::string OneLine(std::string text)
{
    // A blank line between a message's sentences must not leave two spaces.
    std::string line;
    for (const char c : text)
        if (c != '\n' && c != '\r')
            line += c;
        else if (!line.empty() && line.back() != ' ')
            line += ' ';
    return line;
}

std::string FitSummary(int kept, bool fixed, const std::string& stopReason)
{
    if (fixed)
        return Plural(kept, "component") + " fitted, as asked.";
    return Plural(kept, "component") + " kept" + (stopReason.empty() ? "" : "; " + stopReason) + ".";
}

} // namespace veltan_cli
