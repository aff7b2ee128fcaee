#include "cli/NormalityCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <algorithm>
#include <cstdio>

namespace veltan_cli {

std::string ShapiroFault(int fault, int n)
{
    switch (fault) {
    case 0: return "";
    case 1:
        return n == 0 ? "no values" : "W is not defined for fewer than 3 values (" + Plural(n, "value") + " present)";
    case 2: return "more than 5000 values: W and p are approximate";
    case 6: return "all values are equal";
    case 7: return "the values reached the test out of order";
    case 8: return "a coefficient's normal quantile could not be computed";
    default: return "the test failed (fault " + std::to_string(fault) + ")";
    }
}

NormalityResult TestColumn(const DataTable& table, int variable)
{
    ColumnValues column = ColumnOf(table, variable);
    NormalityResult result;
    result.column = column.name;
    result.variable = variable;
    result.n = static_cast<int>(column.values.size());
    if (!column.problem.empty()) {
        result.message = column.problem;
        result.note = "not tested: a cell is not a number";
        return result;
    }
    std::sort(column.values.begin(), column.values.end());
    normality_test::ms_shapiro_wilk::Samples samples;
    for (std::size_t i = 0; i < column.values.size(); ++i)
        samples.emplace_back(i, column.values[i]);
    const long n = result.n;
    std::deque<double> coefficients;
    double w = 0.0, p = 0.0;
    int fault = 0;
    normality_test::ms_shapiro_wilk::swilk(false, samples, n, n, n / 2, coefficients, w, p, fault);
    result.fault = fault;
    result.note = ShapiroFault(fault, result.n);
    if ((fault == 0 || fault == 2) && Computed(w) && Computed(p)) {
        result.w = w;
        result.p = p;
    } else {
        if (fault == 0)
            result.note = "the test gave no finite W";
        result.message = table.Where(0, variable) + ": " + result.note;
    }
    return result;
}

namespace {

std::vector<NormalityResult> TestColumns(const DataTable& table, const NormalityOptions& options)
{
    std::vector<int> variables;
    for (const std::string& name : options.columns)
        variables.push_back(ColumnNamed(table, name, "--column"));
    if (options.columns.empty())
        for (int j = 1; j <= table.Variables(); ++j)
            if (!TextColumn(table, j))
                variables.push_back(j);
    if (variables.empty())
        throw ToolError(table.source + ": no column holds numbers");
    std::vector<NormalityResult> results;
    for (const int j : variables)
        results.push_back(TestColumn(table, j));
    if (std::none_of(results.begin(), results.end(), [](const NormalityResult& r) { return r.Tested(); })) {
        if (results.size() == 1)
            throw ToolError(results.front().message);
        // The first column's reason, without the file name the line begins with.
        std::string first = results.front().message;
        if (first.rfind(table.source + ": ", 0) == 0)
            first.erase(0, table.source.size() + 2);
        throw ToolError(table.source + ": none of the " + std::to_string(results.size()) +
                        " columns could be tested (the first: " + first + ")");
    }
    return results;
}

std::string WFigure(double w)
{
    if (!Computed(w))
        return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.5f", w);
    return text;
}

void PrintReport(std::ostream& out, const DataTable& table, const std::vector<NormalityResult>& results)
{
    out << "Shapiro-Wilk test of normality: " << table.source << ", "
        << Plural(static_cast<int>(results.size()), "column") << "\n\n";
    std::size_t width = 6;
    for (const NormalityResult& r : results)
        width = std::max(width, r.column.size());
    out << PadRight("Column", width) << "       n          W          p\n";
    for (const NormalityResult& r : results) {
        out << PadRight(r.column, width) << PadLeft(std::to_string(r.n), 8) << PadLeft(WFigure(r.w), 11)
            << PadLeft(Figure(r.p, 4), 11) << (r.note.empty() ? "" : "  " + r.note) << "\n";
        if (!r.message.empty() && r.fault < 0)
            out << PadRight("", width) << "  " << r.message << "\n";
    }
    out << "\nSmall p (below 0.05, say) is evidence against a normal distribution.\n";
}

void WriteResultsCsv(std::ostream& file, const std::vector<NormalityResult>& results)
{
    WriteCsvRecord(file, {"column", "n", "w", "p", "fault", "note"});
    for (const NormalityResult& r : results)
        WriteCsvRecord(file, {r.column, std::to_string(r.n), Figure(r.w, 17, ""), Figure(r.p, 17, ""),
                              r.fault < 0 ? "" : std::to_string(r.fault), r.message.empty() ? r.note : r.message});
}

std::string NormalityJson(const DataTable& table, const std::vector<NormalityResult>& results,
                          const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "normality";
    doc["data"] = table.source;
    StatsJson columns = StatsJson::array();
    for (const NormalityResult& r : results) {
        StatsJson c;
        c["column"] = r.column;
        c["n"] = r.n;
        c["w"] = JsonFigure(r.w);
        c["p"] = JsonFigure(r.p);
        c["fault"] = r.fault < 0 ? StatsJson(nullptr) : StatsJson(r.fault);
        const std::string& note = r.message.empty() ? r.note : r.message;
        c["note"] = note.empty() ? StatsJson(nullptr) : StatsJson(note);
        columns.push_back(c);
    }
    doc["columns"] = columns;
    return FinishStatsJson(doc, files);
}

class NormalityCommand final : public TableCommand<NormalityOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "normality", "Shapiro-Wilk test of normality of each column: W, its p-value and, where the test cannot "
                         "be done, why.");
        AddTableArgument(command, m_options.data)->required();
        command
            .add_option("--column", m_options.columns, "Test the column NAME (repeatable; default: every column "
                                                        "holding numbers)")
            ->type_name("NAME")
            ->allow_extra_args(false);
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--out", m_options.outPath, "Write one row per column (n, W, p, fault) as CSV");
        AddJsonFlag(command, m_options.json, "Print one JSON document instead of the table");
        return command;
    }

    int Execute(std::ostream& out) override { return RunNormality(m_options, out); }
};

} // namespace

int RunNormality(const NormalityOptions& options, std::ostream& out)
{
    const DataTable table = ReadStatsTable(options.data, options.names);
    std::vector<NormalityResult> results;
    RunSteps steps;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress&) { results = TestColumns(table, options); };
    steps.write = [&](RunOutputs& files) {
        files.Add("out", options.outPath, [&](std::ostream& file) { WriteResultsCsv(file, results); },
                  WrittenTo("Results", options.outPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return NormalityJson(table, results, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, table, results); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeNormalityCommand() { return std::make_unique<NormalityCommand>(); }

} // namespace veltan_cli
