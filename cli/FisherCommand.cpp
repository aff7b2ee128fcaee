#include "cli/FisherCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/spc/FisherExact.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <future>
#include <map>

namespace veltan_cli {

namespace {

// Counts arrive as floats, which hold every whole number below 2^24 exactly;
// from there on a typed count may have been rounded to its neighbour.
constexpr float CountLimit = 16777216.0f;

const std::map<std::string, Sta::SidedNess> SidesNames{
    {"two", Sta::TwoSided}, {"less", Sta::LowerTail}, {"greater", Sta::UpperTail}};

std::string CellText(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
    return text;
}

// The library's workspace faults name FEXACT's two hash tables; the names
// stay untranslated in every catalogue, so they are what is looked for
// rather than the sentence around them.
bool WorkspaceTooSmall(const NCError& e)
{
    const std::string text = e.what();
    return text.find("LDKEY") != std::string::npos || text.find("LDSTP") != std::string::npos;
}

// Runs one library call on a thread of its own, so that the spinner keeps
// turning while it works; the call cannot be interrupted, so a Ctrl-C only
// marks the spinner "stopping" until it returns.
double WhileSpinning(const std::function<double()>& call, NCProgress& progress)
{
    std::future<double> result = std::async(std::launch::async, call);
    while (result.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready)
        progress.NextSpin();
    return result.get();
}

std::string Joined(const std::vector<int>& sizes)
{
    std::string text;
    for (std::size_t i = 0; i < sizes.size(); ++i)
        text += (i == 0 ? "" : i + 1 == sizes.size() ? " and " : ", ") + std::to_string(sizes[i]);
    return text;
}

std::string TableShape(const CountTable& counts)
{
    return std::to_string(counts.Rows()) + " x " + std::to_string(counts.Columns());
}

bool TwoByTwo(const CountTable& counts) { return counts.Rows() == 2 && counts.Columns() == 2; }

// What the p-value sums, in words.
std::string Meaning(const CountTable& counts, Sta::SidedNess sides, bool hybrid)
{
    const std::string first = std::to_string(counts.At(0, 0));
    switch (sides) {
    case Sta::LowerTail:
        return "one-sided (less): the tables with these margins whose first cell is " + first + " or less";
    case Sta::UpperTail:
        return "one-sided (greater): the tables with these margins whose first cell is " + first + " or more";
    default: break;
    }
    if (hybrid && !TwoByTwo(counts))
        return "two-sided, hybrid: as exact, but subtables meeting Cochran's conditions are summed by their "
               "chi-squared approximation";
    return "two-sided: the tables with these margins no more probable than this one";
}

struct FisherRun {
    WorkspaceTrials trials;
    bool network = false; // false: a 2 x 2 table, summed directly without a workspace
};

void PrintReport(std::ostream& out, const CountTable& counts, const FisherOptions& options, const FisherRun& run)
{
    const Sta::SidedNess sides = SidesNames.at(options.sides);
    out << "Fisher's exact test: " << counts.source << ", " << TableShape(counts) << " table of "
        << counts.total << (counts.total == 1 ? " count" : " counts") << "\n\n";

    std::size_t labelWidth = std::max<std::size_t>(counts.corner.size(), 5);
    for (const std::string& row : counts.rows)
        labelWidth = std::max(labelWidth, row.size());
    std::vector<std::size_t> widths;
    for (int j = 0; j < counts.Columns(); ++j)
        widths.push_back(std::max(counts.columns[static_cast<std::size_t>(j)].size(),
                                  std::to_string(counts.columnTotals[static_cast<std::size_t>(j)]).size()));
    const std::size_t totalWidth = std::max<std::size_t>(5, std::to_string(counts.total).size());

    out << PadRight(counts.corner, labelWidth);
    for (int j = 0; j < counts.Columns(); ++j)
        out << "  " << PadLeft(counts.columns[static_cast<std::size_t>(j)], widths[static_cast<std::size_t>(j)]);
    out << "  " << PadLeft("Total", totalWidth) << "\n";
    for (int i = 0; i < counts.Rows(); ++i) {
        out << PadRight(counts.rows[static_cast<std::size_t>(i)], labelWidth);
        for (int j = 0; j < counts.Columns(); ++j)
            out << "  " << PadLeft(std::to_string(counts.At(i, j)), widths[static_cast<std::size_t>(j)]);
        out << "  " << PadLeft(std::to_string(counts.rowTotals[static_cast<std::size_t>(i)]), totalWidth) << "\n";
    }
    out << PadRight("Total", labelWidth);
    for (int j = 0; j < counts.Columns(); ++j)
        out << "  "
            << PadLeft(std::to_string(counts.columnTotals[static_cast<std::size_t>(j)]),
                       widths[static_cast<std::size_t>(j)]);
    out << "  " << PadLeft(std::to_string(counts.total), totalWidth) << "\n\n";

    out << "p = " << Figure(run.trials.p, 4) << ", " << Meaning(counts, sides, options.hybrid) << "\n";
    if (options.hybrid && !run.network)
        out << "--hybrid has no effect on a 2 x 2 table, whose p-value is always exact.\n";
    const std::vector<int>& tried = run.trials.tried;
    if (tried.size() > 1) {
        const std::vector<int> small(tried.begin(), tried.end() - 1);
        out << "Workspace " << WorkspaceSize(tried.back()) << " sufficed; " << Joined(small)
            << (small.size() == 1 ? " was" : " were") << " too small.\n";
    }
    out << "\nSmall p (below 0.05, say) is evidence that rows and columns are not independent.\n";
}

std::string FisherJson(const CountTable& counts, const FisherOptions& options, const FisherRun& run)
{
    StatsJson doc;
    doc["command"] = "fisher";
    doc["data"] = counts.source;
    doc["rows"] = counts.rows;
    doc["columns"] = counts.columns;
    StatsJson lines = StatsJson::array();
    for (int i = 0; i < counts.Rows(); ++i) {
        StatsJson line = StatsJson::array();
        for (int j = 0; j < counts.Columns(); ++j)
            line.push_back(counts.At(i, j));
        lines.push_back(line);
    }
    doc["counts"] = lines;
    doc["row_totals"] = counts.rowTotals;
    doc["column_totals"] = counts.columnTotals;
    doc["total"] = counts.total;
    doc["sides"] = options.sides;
    doc["method"] = run.network && options.hybrid ? "hybrid" : "exact";
    doc["p"] = JsonFigure(run.trials.p);
    doc["workspace"] = run.network ? StatsJson(run.trials.tried.back()) : StatsJson(nullptr);
    doc["workspaces_tried"] = run.trials.tried;
    doc["workspace_cap"] = options.maxWorkspace;
    return FinishStatsJson(doc, {});
}

class FisherCommand final : public TableCommand<FisherOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "fisher", "Fisher's exact test of independence of the rows and columns of a table of counts: its p-value "
                      "and the table's margins.");
        AddDataArgument(command, m_options.data,
                        "CSV table of counts (header row of column labels, optional column of row labels)")
            ->required();
        AddNamesOption(command, m_names);
        command
            .add_option("--sides", m_options.sides,
                        "two, or for a 2 x 2 table less or greater: the tail of the first cell's distribution")
            ->check(CLI::IsMember({"two", "less", "greater"}))
            ->capture_default_str();
        command.add_flag("--hybrid", m_options.hybrid,
                         "Sum subtables meeting Cochran's conditions by their chi-squared approximation (faster on "
                         "large tables; no effect on a 2 x 2)");
        command
            .add_option("--workspace", m_options.workspace,
                        "Working store of the network algorithm, in 4-byte units, as R's fisher.test counts it; "
                        "doubled, up to --max-workspace, while it is too small")
            ->type_name("N")
            ->check(CLI::Range(1, INT_MAX))
            ->capture_default_str();
        command
            .add_option("--max-workspace", m_options.maxWorkspace,
                        "Largest workspace the doubling may reach (default 2^28 units = 1 GiB; the process then "
                        "needs up to about 1.2 GiB)")
            ->type_name("N")
            ->check(CLI::Range(1, INT_MAX));
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override { return RunFisher(m_options, out); }
};

} // namespace

CountTable CountsOf(const DataTable& table)
{
    CountTable counts;
    counts.source = table.source;
    counts.corner = table.hasNames ? table.namesHeader : "";
    counts.rows = table.observations;
    counts.columns = table.variables;
    const int n = table.Observations(), k = table.Variables();
    for (int i = 1; i <= n; ++i) {
        for (int j = 1; j <= k; ++j) {
            const float v = table.values[i][j];
            std::string problem;
            if (IsMisVal(v))
                problem = "the count is missing (an empty cell, NA or -99)";
            else if (v < 0.0f)
                problem = CellText(v) + " is negative; counts are 0 or more";
            else if (v != std::floor(v))
                problem = CellText(v) + " is not a whole number";
            else if (v >= CountLimit)
                problem = CellText(v) + " is too large to be read exactly; counts must be below 16777216";
            if (!problem.empty())
                throw ToolError(table.Where(i, j) + ": " + problem);
            counts.counts.push_back(static_cast<int>(v));
        }
    }
    if (n < 2 || k < 2)
        throw ToolError(table.source + ": a table of " + Plural(n, "row") + " and " + Plural(k, "column") +
                        " of counts; the test needs at least 2 of each");
    counts.rowTotals.assign(static_cast<std::size_t>(n), 0);
    counts.columnTotals.assign(static_cast<std::size_t>(k), 0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < k; ++j) {
            counts.rowTotals[static_cast<std::size_t>(i)] += counts.At(i, j);
            counts.columnTotals[static_cast<std::size_t>(j)] += counts.At(i, j);
            counts.total += counts.At(i, j);
        }
    if (counts.total == 0)
        throw ToolError(table.source + ": every count is 0; the test needs at least one");
    return counts;
}

std::string WorkspaceSize(long long units)
{
    static const char* const Prefixes[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    double size = static_cast<double>(units) * 4.0;
    int prefix = 0;
    while (size >= 1024.0 && prefix < 4) {
        size /= 1024.0;
        ++prefix;
    }
    char text[32];
    std::snprintf(text, sizeof text, size == std::floor(size) ? "%.0f %s" : "%.3g %s", size, Prefixes[prefix]);
    return std::to_string(units) + " (" + text + ")";
}

WorkspaceTrials TryGrowingWorkspace(const std::function<double(int)>& attempt, int start, int cap,
                                    NCProgress& progress, const std::string& source)
{
    // One spinning level for all the tries, so that the spinner goes on
    // turning from one workspace to the next; only its caption changes.
    progress.PushSubRangeInternal(0.0f, 1.0f, "");
    struct CloseLevel {
        NCProgress& progress;
        ~CloseLevel() { progress.PopSubRange(); }
    } closeLevel{progress};

    WorkspaceTrials trials;
    for (long long workspace = start;; workspace = std::min(2 * workspace, static_cast<long long>(cap))) {
        const int size = static_cast<int>(workspace);
        trials.tried.push_back(size);
        progress.SetText("workspace " + std::to_string(size));
        try {
            trials.p = WhileSpinning([&attempt, size] { return attempt(size); }, progress);
            return trials;
        } catch (const NCError& e) {
            if (!WorkspaceTooSmall(e))
                throw ToolError(source + ": " + OneLine(e.what()));
            if (workspace >= cap)
                throw ToolError(source + ": no workspace up to the cap of " + WorkspaceSize(cap) +
                                " suffices (tried " + Joined(trials.tried) + "; --max-workspace raises the cap): " +
                                OneLine(e.what()));
        } catch (const std::bad_alloc&) {
            throw ToolError(source + ": out of memory with a workspace of " + WorkspaceSize(size) +
                            "; a lower --max-workspace stops the doubling before it");
        }
        // The call that just failed could not be interrupted; a Ctrl-C
        // during it takes effect here, before the next one starts.
        if (progress.IsBreakPressed())
            throw CancelException();
    }
}

int RunFisher(const FisherOptions& options, std::ostream& out)
{
    if (options.workspace > options.maxWorkspace)
        throw ToolError("--workspace " + std::to_string(options.workspace) + " is above --max-workspace " +
                            std::to_string(options.maxWorkspace),
                        ExitUsage);
    const CountTable counts = CountsOf(ReadCsvTable(options.data, options.names));
    const Sta::SidedNess sides = SidesNames.at(options.sides);
    if (sides != Sta::TwoSided && !TwoByTwo(counts))
        throw ToolError("--sides " + options.sides + ": only a 2 x 2 table has one-sided p-values; " +
                            counts.source + " is " + TableShape(counts),
                        ExitUsage);

    // The library hands FEXACT the transpose of its lines; its columns are
    // given as lines here so that FEXACT sees the file's rows as rows, as R
    // does with the same table. Only the hybrid p-value of a square table
    // can tell the difference.
    std::vector<int> transposed;
    for (int j = 0; j < counts.Columns(); ++j)
        for (int i = 0; i < counts.Rows(); ++i)
            transposed.push_back(counts.At(i, j));

    FisherRun run;
    run.network = !TwoByTwo(counts);
    RunSteps steps;
    steps.task = "Fisher's exact test";
    steps.source = counts.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.compute = [&](NCProgress& progress) {
        const auto attempt = [&](int workspace) {
            return Sta::GetFisherExactProbability(transposed.data(), counts.Columns(), counts.Rows(), options.hybrid,
                                                  sides, workspace);
        };
        if (run.network) {
            run.trials = TryGrowingWorkspace(attempt, options.workspace, options.maxWorkspace, progress,
                                             counts.source);
        } else {
            run.trials.p = attempt(options.workspace);
        }
        // Rounding may carry a sum of probabilities a little past 1.
        run.trials.p = std::clamp(run.trials.p, 0.0, 1.0);
    };
    steps.write = [](RunOutputs&) {};
    steps.document = [&](const std::vector<WrittenFile>&) { return FisherJson(counts, options, run); };
    steps.report = [&](std::ostream& report) { PrintReport(report, counts, options, run); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeFisherCommand() { return std::make_unique<FisherCommand>(); }

} // namespace veltan_cli
