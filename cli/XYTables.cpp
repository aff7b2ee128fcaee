#include "cli/XYTables.h"

#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Preprocess.h"
#include "cli/Report.h"
#include "cli/ToolError.h"

#include <algorithm>

namespace veltan_cli {

namespace {


// The variable numbers of `names` in `table`; an unknown or repeated name
// is a usage error.
std::vector<int> ResponseColumns(const DataTable& table, const std::vector<std::string>& names)
{
    std::vector<int> columns;
    for (const std::string& name : names) {
        const int j = table.Find(name);
        if (j == 0)
            throw ToolError("--y: " + table.source + " has no variable " + Quoted(name), ExitUsage);
        if (std::find(columns.begin(), columns.end(), j) != columns.end())
            throw ToolError("--y: " + Quoted(name) + " is named twice", ExitUsage);
        columns.push_back(j);
    }
    return columns;
}

void CheckSameObservations(const DataTable& x, const DataTable& y)
{
    if (y.Observations() != x.Observations())
        throw ToolError(y.source + ": " + Plural(y.Observations(), "observation") + ", but " + x.source + " has " +
                        std::to_string(x.Observations()));
    if (!x.hasNames || !y.hasNames)
        return;
    for (std::size_t i = 0; i < x.observations.size(); ++i)
        if (x.observations[i] != y.observations[i])
            throw ToolError(y.source + ": row " + std::to_string(y.fileRows[i]) + ": observation " +
                            Quoted(y.observations[i]) + ", but " + x.source + " has " + Quoted(x.observations[i]) +
                            " in row " + std::to_string(x.fileRows[i]));
}

} // namespace

XYTables ReadXYTables(const XYSources& sources, const std::string& command)
{
    XYTables data;
    DataTable first = ReadCsvTable(sources.data, sources.names);
    if (sources.responsesData.empty()) {
        if (sources.yNames.empty())
            throw ToolError(command + ": name the responses with --y NAME, or give their table with --responses FILE",
                            ExitUsage);
        const std::vector<int> ys = ResponseColumns(first, sources.yNames);
        std::vector<int> xs;
        for (int j = 1; j <= first.Variables(); ++j)
            if (std::find(ys.begin(), ys.end(), j) == ys.end())
                xs.push_back(j);
        if (xs.empty())
            throw ToolError("--y: every variable of " + first.source + " is a response; none is left for X",
                            ExitUsage);
        data.x = SelectVariables(first, xs);
        data.y = SelectVariables(first, ys);
    } else {
        DataTable second = ReadCsvTable(sources.responsesData, sources.names);
        if (!sources.yNames.empty())
            second = SelectVariables(second, ResponseColumns(second, sources.yNames));
        CheckSameObservations(first, second);
        // Output files name the observations as either table does.
        if (!first.hasNames && second.hasNames) {
            first.observations = second.observations;
            first.hasNames = true;
            first.namesHeader = second.namesHeader;
        }
        data.x = std::move(first);
        data.y = std::move(second);
    }
    for (int j = 1; j <= data.y.Variables(); ++j)
        if (data.y.values.GetColumnMisVal(j) == data.y.Observations())
            throw ToolError(data.y.Where(0, j) + ": every value of this response is missing");
    return data;
}

void SplitLogVariables(const XYTables& data, const std::vector<std::string>& names, std::vector<std::string>& x,
                       std::vector<std::string>& y)
{
    for (const std::string& name : names) {
        const bool inX = data.x.Find(name) != 0, inY = data.y.Find(name) != 0;
        if (!inX && !inY) {
            if (data.x.source == data.y.source)
                throw ToolError("--log: " + data.x.source + " has no variable " + Quoted(name), ExitUsage);
            throw ToolError("--log: neither " + data.x.source + " nor " + data.y.source + " has a variable " +
                                Quoted(name),
                            ExitUsage);
        }
        if (inX)
            x.push_back(name);
        if (inY)
            y.push_back(name);
    }
}

void AddXYArguments(CLI::App& command, XYSources& sources)
{
    AddDataArgument(command, sources.data, "CSV table of the X variables, and of the responses named by --y");
    command
        .add_option("-y,--y", sources.yNames,
                    "A response column (repeat for more); with --responses, the columns of that table to use "
                    "(default all)")
        ->type_name("NAME")
        ->allow_extra_args(false);
    command.add_option("--responses", sources.responsesData, "CSV table of the responses, row for row with DATA")
        ->type_name("YDATA");
}

void FitXYPreprocessing(const XYTables& data, const std::vector<std::string>& logVariables, NCScale::Scaling xScale,
                        NCScale::Scaling yScale, RegressionBlocks& blocks, NCDataMatrix<float>& x,
                        NCDataMatrix<float>& y)
{
    blocks.variables = data.x.variables;
    blocks.responses = data.y.variables;
    std::vector<std::string> xLog, yLog;
    SplitLogVariables(data, logVariables, xLog, yLog);
    x = FitPreprocessing(data.x, xLog, xScale, blocks.transform, blocks.scale);
    y = FitPreprocessing(data.y, yLog, yScale, blocks.yTransform, blocks.yScale, "--y-scale");
}

void AddResponseTables(RunOutputs& files, const XYTables& data, const std::string& fittedPath,
                       const NCDataMatrix<float>& fitted, const std::string& cvPath,
                       const NCDataMatrix<float>& cvPredicted)
{
    const std::string corner = ObservationHeader(data.x);
    const std::vector<std::string>& rows = data.x.observations;
    files.Add("fitted", fittedPath,
              [&](std::ostream& file) { WriteTableCsv(file, corner, rows, data.y.variables, fitted); },
              WrittenTo("Fitted values", fittedPath));
    files.Add("cv_predictions", cvPath,
              [&](std::ostream& file) { WriteTableCsv(file, corner, rows, data.y.variables, cvPredicted); },
              WrittenTo("Cross-validated predictions", cvPath));
}

void PrintXYHeading(std::ostream& out, const XYTables& data, const XYSetup& setup)
{
    const DataTable& x = data.x;
    const DataTable& y = data.y;
    out << setup.model << " of ";
    if (setup.bundled)
        out << "the bundled wine data set";
    else if (x.source == y.source)
        out << x.source;
    else
        out << x.source << " with responses from " << y.source;
    out << ": " << Plural(x.Observations(), "observation") << ", " << Plural(x.Variables(), "X variable") << ", "
        << Plural(y.Variables(), "response");
    if (y.Variables() <= 3) {
        out << " (";
        for (int j = 1; j <= y.Variables(); ++j)
            out << (j > 1 ? ", " : "") << y.variables[static_cast<std::size_t>(j - 1)];
        out << ")";
    }
    out << "; X " << ScalingPhrase(setup.xScale) << ", Y " << ScalingPhrase(setup.yScale);
    if (setup.logVariables > 0)
        out << ", log10 of " << Plural(static_cast<int>(setup.logVariables), "variable");
    out << ", " << setup.cvGroups << " cross-validation groups\n\n";
}

void AddXYPreprocessingOptions(CLI::App& command, std::string& scale, std::string& yScale,
                               std::vector<std::string>& logVariables)
{
    AddScaleOption(command, scale,
                   "Scaling of the X columns, and of the responses unless --y-scale is given: uv (unit variance), "
                   "pareto, center, none");
    AddYScaleOption(command, yScale, "Scaling of the responses (default: as --scale)");
    AddLogOption(command, logVariables, "Take log10 of variable VAR, X or response, before scaling (repeat for more)");
}

} // namespace veltan_cli
