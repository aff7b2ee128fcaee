#include "cli/StatsColumns.h"

#include "cli/Report.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace veltan_cli {

DataTable ReadStatsTable(const std::string& path, NamesColumn names) { return ReadCsvTable(path, names, true); }

int ColumnNamed(const DataTable& table, const std::string& name, const std::string& option)
{
    const int j = table.Find(name);
    if (j == 0)
        throw ToolError(option + ": " + table.source + " has no column \"" + name + "\"", ExitUsage);
    return j;
}

bool TextColumn(const DataTable& table, int variable)
{
    bool text = false;
    for (const TextCell& cell : table.textCells)
        text = text || cell.variable == variable;
    if (!text)
        return false;
    for (int i = 1; i <= table.Observations(); ++i)
        if (!IsMisVal(table.values[i][variable]))
            return false;
    return true;
}

ColumnValues ColumnOf(const DataTable& table, int variable)
{
    ColumnValues column;
    column.variable = variable;
    column.name = table.variables[static_cast<std::size_t>(variable - 1)];
    const TextCell* first = nullptr;
    int more = 0;
    for (const TextCell& cell : table.textCells) {
        if (cell.variable != variable)
            continue;
        if (first)
            ++more;
        else
            first = &cell;
    }
    if (first) {
        column.problem = table.Where(first->observation, variable) + ": " + first->problem;
        if (more > 0)
            column.problem += " (and " + Plural(more, "more cell") + " in this column)";
    }
    column.values.reserve(static_cast<std::size_t>(table.Observations()));
    for (int i = 1; i <= table.Observations(); ++i) {
        const float v = table.values[i][variable];
        if (!IsMisVal(v))
            column.values.push_back(v);
    }
    return column;
}

double OptionNumber(const std::string& option, const std::string& text)
{
    double value = 0.0;
    const char* begin = text.data() + (text.size() > 1 && text[0] == '+' ? 1 : 0);
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (text.empty() || ptr != end || ec != std::errc() || !std::isfinite(value))
        throw ToolError(option + ": \"" + text + "\" is not a number", ExitUsage);
    if (IsMisVal(value))
        throw ToolError(option + ": -99 marks a value as missing and cannot be given here", ExitUsage);
    return value;
}

bool Computed(double v) { return std::isfinite(v) && !IsMisVal(v); }

std::string Figure(double v, int digits, const std::string& absent)
{
    if (!Computed(v))
        return absent;
    char text[48];
    std::snprintf(text, sizeof text, "%.*g", digits, v == 0.0 ? 0.0 : v); // no "-0"
    return text;
}

ColumnSeries SeriesNamed(const DataTable& table, const std::string& name, const std::string& whenEmpty)
{
    const int variable = ColumnNamed(table, name, "--column");
    const ColumnValues present = ColumnOf(table, variable);
    if (!present.problem.empty())
        throw ToolError(present.problem);
    if (present.values.empty())
        throw ToolError(table.Where(0, variable) + ": " + whenEmpty);
    const NCDataVector<float> values = table.values.GetColumn(variable);
    return {present.name, std::vector<float>(values.begin(), values.end()), values.GetNumMisVal()};
}

StatsJson JsonFigure(double v) { return Computed(v) ? StatsJson(v) : StatsJson(nullptr); }

StatsJson JsonFloat(double v)
{
    return Computed(v) ? StatsJson(std::strtod(Figure(v, 9).c_str(), nullptr)) : StatsJson(nullptr);
}

StatsJson JsonFloats(const std::vector<float>& values)
{
    StatsJson list = StatsJson::array();
    for (const float v : values)
        list.push_back(JsonFloat(v));
    return list;
}

PlotSeries AlongRows(PlotSeries::Kind kind, const std::string& name, const std::vector<float>& values)
{
    PlotSeries s;
    s.kind = kind;
    s.name = name;
    const std::size_t n = values.size();
    const std::size_t stretch = (n + MaxPlotPoints - 1) / MaxPlotPoints;
    for (std::size_t first = 0; first < n; first += stretch) {
        const std::size_t last = std::min(n, first + stretch);
        double sum = 0.0;
        int present = 0;
        for (std::size_t i = first; i < last; ++i)
            if (!IsMisVal(values[i])) {
                sum += values[i];
                ++present;
            }
        s.x.push_back(0.5 * static_cast<double>(first + 1 + last));
        s.y.push_back(present > 0 ? sum / present : std::nan(""));
    }
    return s;
}

std::string FinishStatsJson(StatsJson& doc, const std::vector<WrittenFile>& files)
{
    StatsJson list = StatsJson::object();
    for (const WrittenFile& file : files)
        list[file.key] = file.path;
    doc["files"] = list;
    return doc.dump(2, ' ', false, StatsJson::error_handler_t::replace);
}

std::string PadRight(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string PadLeft(const std::string& text, std::size_t width)
{
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

} // namespace veltan_cli
