#include "cli/ClusterCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/Preprocess.h"
#include "cli/ProgressBar.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/ToolError.h"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/cluster/DendroGramDrawer.h"
#include "veltancmat/cluster/DendroGramNodeLister.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cstdlib>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>
#include <unordered_map>
#include <utility>

namespace veltan_cli {

using DendroGram::DendroGramNode;
using DendroGram::DendroGramNodeLister;

namespace {

// The library keeps the pair count in 32 bits.
constexpr int MaxRows = 65535;
// Pairs of incomplete rows x columns checked here for too few common
// values; beyond that the library's own check (without row names) serves.
constexpr double PairCheckLimit = 5e7;


std::unique_ptr<DendroGram::ClusterDistanceCalculator> Calculator(const std::string& method)
{
    if (method == "ward")
        return std::make_unique<WardDistanceCalculator>(WardDistanceCalculator::ErrorSS);
    if (method == "ward-sqrt")
        return std::make_unique<WardDistanceCalculator>(WardDistanceCalculator::RootErrorSS);
    return std::make_unique<SingleLinkageDistanceCalculator>();
}

std::string MethodPhrase(const std::string& method)
{
    if (method == "ward")
        return "Ward's method (increase of the error sum of squares)";
    if (method == "ward-sqrt")
        return "Ward's method (square root of the increase of the error sum of squares)";
    return "single linkage (Euclidean distance)";
}

std::string HeightTitle(const std::string& method)
{
    if (method == "ward")
        return "increase of the error sum of squares";
    if (method == "ward-sqrt")
        return "square root of the increase of the error sum of squares";
    return "Euclidean distance";
}

// The library refuses these too, but cannot say which rows are to blame.
void CheckMissingValues(const DataTable& table)
{
    const int n = table.Observations(), k = table.Variables();
    std::vector<int> incomplete;
    for (int i = 1; i <= n; ++i) {
        int missing = 0;
        for (int j = 1; j <= k; ++j)
            missing += IsMisVal(table.values[i][j]);
        if (2 * missing > k)
            throw ToolError(table.Where(i, 0) + " (" + Quoted(table.observations[static_cast<std::size_t>(i - 1)]) +
                            "): " + std::to_string(missing) + " of " + Plural(k, "value") +
                            " missing; clustering needs at least half of each observation's values");
        if (missing > 0)
            incomplete.push_back(i);
    }
    // A complete row shares at least half the columns with any row, never
    // fewer than the square root of their count: only pairs of incomplete
    // rows can fall short.
    const double m = static_cast<double>(incomplete.size());
    if (m * (m - 1.0) / 2.0 * k > PairCheckLimit)
        return;
    const double least = std::sqrt(static_cast<double>(k));
    for (std::size_t a = 0; a < incomplete.size(); ++a)
        for (std::size_t b = a + 1; b < incomplete.size(); ++b) {
            const int r = incomplete[a], s = incomplete[b];
            int common = 0;
            for (int j = 1; j <= k; ++j)
                common += !IsMisVal(table.values[r][j]) && !IsMisVal(table.values[s][j]);
            if (common < least)
                throw ToolError(table.Where(r, 0) + " and row " +
                                std::to_string(table.fileRows[static_cast<std::size_t>(s - 1)]) + " (" +
                                Quoted(table.observations[static_cast<std::size_t>(r - 1)]) + ", " +
                                Quoted(table.observations[static_cast<std::size_t>(s - 1)]) + ") have " +
                                Plural(common, "value") + " in common, fewer than the square root of the " +
                                Plural(k, "variable") + "; their distance would rest on too little");
        }
}

int CountInversions(const DendroGramNode& root)
{
    int inversions = 0;
    std::vector<const DendroGramNode*> stack{&root};
    while (!stack.empty()) {
        const DendroGramNode* node = stack.back();
        stack.pop_back();
        if (node->IsLeaf())
            continue;
        inversions += node->GetHeight() < node->GetSpanHeight();
        stack.push_back(node->GetLeft());
        stack.push_back(node->GetRight());
    }
    return inversions;
}

// Installs the tool's answers for the time of a run.
class UserCommScope {
public:
    explicit UserCommScope(std::shared_ptr<UserComm> comm) : m_previous(UserComm::SetUserComm(std::move(comm))) {}
    ~UserCommScope() { UserComm::SetUserComm(m_previous); }
    UserCommScope(const UserCommScope&) = delete;
    UserCommScope& operator=(const UserCommScope&) = delete;

private:
    std::shared_ptr<UserComm> m_previous;
};

// A line on stderr that starts clean even over a progress bar.
void StderrLine(const std::string& line)
{
    std::cerr << (ProgressBar::StderrIsTerminal() ? "\r\x1b[K" : "") << line << "\n" << std::flush;
}

} // namespace

ClusterCut ChooseCut(const DendroGramNode& root, const ClusterOptions& options)
{
    ClusterCut cut;
    const int n = root.GetLeafCount();
    if (options.height) {
        cut.rule = ClusterCut::Rule::Height;
        cut.line = *options.height;
        cut.clusters = DendroGramNodeLister::CutAtHeight(root, static_cast<float>(*options.height));
    } else {
        const int wanted = options.clusters;
        cut.rule = wanted > 0 ? ClusterCut::Rule::Count : ClusterCut::Rule::LargestGap;
        // Span heights of the highest merges, highest first, and 0 for the
        // leaves below the lowest one.
        const int needed = wanted > 0 ? wanted : ListedMerges + 1;
        std::vector<double> heights;
        for (const DendroGramNode* merge : DendroGramNodeLister::GetTopMerges(root, needed))
            heights.push_back(merge->GetSpanHeight());
        int count = wanted;
        if (wanted <= 0) {
            // Gap i lies below merge i: undoing merges 1..i leaves i + 1 clusters.
            count = 1;
            double widest = 0.0;
            for (std::size_t i = 1; i < heights.size() && i <= static_cast<std::size_t>(ListedMerges); ++i)
                if (heights[i - 1] - heights[i] > widest) {
                    widest = heights[i - 1] - heights[i];
                    count = static_cast<int>(i) + 1;
                }
        }
        if (count > 1) {
            cut.above = heights[static_cast<std::size_t>(count - 2)];
            cut.below = count - 1 < static_cast<int>(heights.size()) ? heights[static_cast<std::size_t>(count - 1)]
                                                                       : 0.0;
            cut.line = (cut.above + cut.below) / 2.0;
        }
        cut.clusters = DendroGramNodeLister::CutIntoClusters(root, std::clamp(count, 1, n));
    }
    cut.count = static_cast<int>(cut.clusters.size());
    cut.assignment = DendroGramNodeLister::GetAssignment(cut.clusters);
    return cut;
}

ClusterResult ClusterTable(const DataTable& table, const ClusterOptions& options, NCProgress& progress)
{
    const int n = table.Observations();
    if (n < 2)
        throw ToolError(table.source + ": " + Plural(n, "observation") + "; clustering needs at least 2");
    if (n > MaxRows)
        throw ToolError(table.source + ": " + Plural(n, "observation") + "; clustering takes at most " +
                        std::to_string(MaxRows));
    if (options.clusters > n)
        throw ToolError("--clusters " + std::to_string(options.clusters) + ": " + table.source + " has only " +
                            Plural(n, "observation"),
                        ExitUsage);
    CheckMissingValues(table);
    std::unique_ptr<NCTransform> transform;
    NCScale scale;
    const NCDataMatrix<float> x = FitPreprocessing(table, options.logVariables, options.scale, transform, scale);

    ClusterResult result;
    const std::unique_ptr<DendroGram::ClusterDistanceCalculator> calculator = Calculator(options.method);
    result.calculatorId = calculator->GetId();
    if (options.memoryLimit > 0)
        DendroGram::SetMemoryLimit(options.memoryLimit);
    {
        const UserCommScope answers(ToolUserComm(options.useDisk, StderrLine));
        try {
            result.root.reset(DendroGram::GetDendroGram(x, *calculator, &progress, nullptr));
        } catch (const CancelException&) {
            throw;
        } catch (const NCError& e) {
            // The library's messages may span lines; the tool's errors are one.
            throw ToolError(table.source + ": " + OneLine(e.what()));
        }
    }
    if (!result.root)
        throw ToolError(table.source + ": no tree was built");
    result.cut = ChooseCut(*result.root, options);
    result.topMerges = DendroGramNodeLister::GetTopMerges(*result.root, ListedMerges);
    result.inversions = CountInversions(*result.root);
    return result;
}

std::string NewickLabel(const std::string& name)
{
    const bool plain = !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        return static_cast<unsigned char>(c) <= ' ' || std::string_view("()[]':;,_").find(c) != std::string_view::npos;
    });
    if (plain)
        return name;
    std::string quoted = "'";
    for (const char c : name)
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

std::string NewickText(const DendroGramNode& root, const std::vector<std::string>& names)
{
    std::ostringstream out;
    // Each node is met twice: on the way down it opens its parenthesis and
    // its left child follows; on the way up its length closes it. `parent`
    // is the node's parent's drawn height, NaN for the root.
    struct Step {
        const DendroGramNode* node;
        double parent;
        int stage; // 0: not begun; 1: left written; 2: right written
    };
    const auto length = [](const DendroGramNode* node, double parent) {
        if (std::isnan(parent))
            return std::string();
        const double own = node->IsLeaf() ? 0.0 : node->GetSpanHeight();
        return ":" + FormatValue(static_cast<float>(parent - own));
    };
    std::vector<Step> stack{{&root, std::nan(""), 0}};
    while (!stack.empty()) {
        Step& step = stack.back();
        const DendroGramNode* node = step.node;
        if (node->IsLeaf()) {
            const auto row = static_cast<std::size_t>(node->GetRow());
            out << NewickLabel(row < names.size() ? names[row] : std::to_string(row + 1)) << length(node, step.parent);
            stack.pop_back();
            continue;
        }
        const double own = node->GetSpanHeight();
        if (step.stage == 0) {
            out << "(";
            step.stage = 1;
            stack.push_back({node->GetLeft(), own, 0});
        } else if (step.stage == 1) {
            out << ",";
            step.stage = 2;
            stack.push_back({node->GetRight(), own, 0});
        } else {
            out << ")" << length(node, step.parent);
            stack.pop_back();
        }
    }
    out << ";\n";
    return out.str();
}

std::shared_ptr<UserComm> ToolUserComm(bool useDisk, std::function<void(const std::string&)> writeLine)
{
    auto info = [writeLine](const std::string& caption, const std::string& text) {
        writeLine("veltan: " + OneLine(caption.empty() ? text : caption + ": " + text));
    };
    auto ask = [useDisk, writeLine](const std::string& caption, const std::string& question, bool) {
        writeLine("veltan: " + OneLine(caption.empty() ? question : caption + ": " + question) +
                  (useDisk ? " Yes (--use-disk)." : " No (--use-disk answers yes)."));
        return useDisk;
    };
    return UserComm::FromFunctions(info, ask);
}

PlotFigure DendrogramPlot(const DataTable& table, const ClusterOptions& options, const ClusterResult& result)
{
    const DendroGram::DendroGramDrawOutput layout = DendroGram::DendroGramDrawer::Draw(*result.root);
    const ClusterCut& cut = result.cut;
    // Each inner node takes the colour of the cluster it lies in; the
    // merges above the cut (and every merge for one cluster) stay grey.
    std::unordered_map<const DendroGramNode*, std::size_t> clusterOf;
    if (cut.count > 1)
        for (std::size_t c = 0; c < cut.clusters.size(); ++c) {
            std::vector<const DendroGramNode*> stack{cut.clusters[c]};
            while (!stack.empty()) {
                const DendroGramNode* node = stack.back();
                stack.pop_back();
                if (node->IsLeaf())
                    continue;
                clusterOf.emplace(node, c);
                stack.push_back(node->GetLeft());
                stack.push_back(node->GetRight());
            }
        }
    PlotPanel panel;
    PlotSeries above;
    above.kind = PlotSeries::Kind::Segments;
    above.colour = "#777777";
    // No legend for the clusters: a legend box would cover the tree's
    // corner, and the clusters are numbered left to right anyway.
    std::vector<PlotSeries> clusters(cut.clusters.size());
    for (PlotSeries& s : clusters)
        s.kind = PlotSeries::Kind::Segments;
    for (std::size_t i = 0; i < layout.inners.size(); ++i) {
        const auto found = clusterOf.find(layout.inners[i].node);
        PlotSeries& series = found == clusterOf.end() ? above : clusters[found->second];
        for (std::size_t s = 3 * i; s < 3 * i + 3; ++s) {
            const auto& segment = layout.segments[s];
            series.x.insert(series.x.end(), {segment.x1, segment.x2});
            series.y.insert(series.y.end(), {segment.y1, segment.y2});
        }
    }
    // The palette's colours by place: the grey series first, so that
    // cluster c takes colour c + 1.
    panel.series.push_back(std::move(above));
    for (PlotSeries& s : clusters)
        panel.series.push_back(std::move(s));
    if (result.inversions > 0) {
        PlotSeries marks;
        marks.name = "merge height of an inversion";
        marks.colour = "#d7191c";
        for (const auto& inner : layout.inners)
            if (inner.inverted) {
                marks.x.push_back(inner.x);
                marks.y.push_back(inner.height);
            }
        panel.series.push_back(std::move(marks));
    }
    if (!std::isnan(cut.line)) {
        PlotSeries line;
        line.kind = PlotSeries::Kind::Level;
        line.colour = "#c2471b";
        line.dashed = true;
        line.y = {cut.line};
        line.name = "cut: " + Plural(cut.count, "cluster");
        panel.series.push_back(std::move(line));
    }
    const int n = table.Observations();
    // Beyond MaxLabelledLeaves names would be too small to read; the places
    // stay, without names, since numbered ticks would mean nothing here.
    for (const auto& leaf : layout.leaves)
        panel.xLabels.emplace_back(
            leaf.x, n <= MaxLabelledLeaves ? table.observations[static_cast<std::size_t>(leaf.row)] : std::string());
    panel.tightX = true;
    panel.xTitle = n <= MaxLabelledLeaves ? "observation" : Plural(n, "observation") + " (too many to name)";
    if (cut.count > 1)
        panel.xTitle += "; clusters 1 to " + std::to_string(cut.count) + " from left to right, one colour each";
    panel.yTitle = HeightTitle(options.method);
    panel.title = MethodPhrase(options.method);
    PlotFigure figure{"Dendrogram of " + std::filesystem::path(table.source).filename().string(), {std::move(panel)}};
    figure.panelsPerRow = 1;
    figure.panelWidth = std::clamp(160.0 + 10.0 * std::min(n, MaxLabelledLeaves), 720.0, 2200.0);
    figure.panelHeight = n <= MaxLabelledLeaves ? 640.0 : 560.0;
    return figure;
}

namespace {

std::string Height(double v) { return Figure(v, 6); }

// "o1, o4, o9, ... (12 more)": the first few names of a cluster.
std::string Members(const DataTable& table, const DendroGramNode& cluster)
{
    constexpr std::size_t Shown = 8;
    const std::vector<int> rows = DendroGramNodeLister::GetRows(cluster);
    std::string text;
    for (std::size_t i = 0; i < rows.size() && i < Shown; ++i)
        text += (i ? ", " : "") + table.observations[static_cast<std::size_t>(rows[i])];
    if (rows.size() > Shown)
        text += ", ... (" + std::to_string(rows.size() - Shown) + " more)";
    return text;
}

std::string CutSentence(const ClusterCut& cut)
{
    const std::string clusters = Plural(cut.count, "cluster");
    switch (cut.rule) {
    case ClusterCut::Rule::Height:
        return clusters + " at height " + Height(cut.line) + " (a merge at the height joins its parts).";
    case ClusterCut::Rule::Count:
        return cut.count == 1 ? clusters + ", as asked."
                              : clusters + ", as asked: cut between the merges at " + Height(cut.below) + " and " +
                                    Height(cut.above) + ".";
    case ClusterCut::Rule::LargestGap:
        break;
    }
    if (cut.count == 1)
        return "1 cluster: no gap between the highest merges stands out (choose a cut with --clusters or --height).";
    return clusters + ": the largest gap between the " + std::to_string(ListedMerges) +
           " highest merges lies between " + Height(cut.below) + " and " + Height(cut.above) +
           " (--clusters or --height choose another cut).";
}

void PrintReport(std::ostream& out, const DataTable& table, const ClusterOptions& options, const ClusterResult& r)
{
    out << "Cluster analysis of " << table.source << ": " << Plural(table.Observations(), "observation") << ", "
        << Plural(table.Variables(), "variable") << ", " << ScalingPhrase(options.scale);
    if (!options.logVariables.empty())
        out << ", log10 of " << Plural(static_cast<int>(options.logVariables.size()), "variable");
    out << ", " << MethodPhrase(options.method) << "\n\n";
    out << "Highest merges:\n";
    out << "  Merge        Height  Sizes joined  Clusters below\n";
    for (std::size_t i = 0; i < r.topMerges.size(); ++i) {
        const DendroGramNode& m = *r.topMerges[i];
        const std::string sizes =
            std::to_string(m.GetLeft()->GetLeafCount()) + " + " + std::to_string(m.GetRight()->GetLeafCount());
        const bool inverted = m.GetHeight() < m.GetSpanHeight();
        out << PadLeft(std::to_string(i + 1), 7) << PadLeft(Height(m.GetHeight()) + (inverted ? "*" : " "), 14)
            << PadLeft(sizes, 14) << PadLeft(std::to_string(i + 2), 16) << "\n";
    }
    if (r.inversions > 0)
        out << "* " << Plural(r.inversions, "merge") << " below one of " << (r.inversions == 1 ? "its" : "their")
            << " parts (an inversion): drawn, ordered and cut at the higher part's height.\n";
    out << "\n" << CutSentence(r.cut) << "\n\n";
    out << "Cluster   Size  Observations\n";
    for (std::size_t c = 0; c < r.cut.clusters.size(); ++c)
        out << PadLeft(std::to_string(c + 1), 7) << PadLeft(std::to_string(r.cut.clusters[c]->GetLeafCount()), 7)
            << "  " << Members(table, *r.cut.clusters[c]) << "\n";
}

void WriteAssignment(std::ostream& file, const DataTable& table, const ClusterCut& cut)
{
    WriteCsvRecord(file, {ObservationHeader(table), "cluster"});
    for (std::size_t i = 0; i < table.observations.size(); ++i)
        WriteCsvRecord(file, {table.observations[i], std::to_string(cut.assignment[i])});
}

// Through the float's shortest text: the heights are floats, and 2.4639113
// should not print as the double nearest to it.
StatsJson HeightJson(double v)
{
    return std::isfinite(v) ? StatsJson(std::strtod(FormatValue(static_cast<float>(v)).c_str(), nullptr))
                            : StatsJson(nullptr);
}

std::string RuleName(ClusterCut::Rule rule)
{
    switch (rule) {
    case ClusterCut::Rule::Count:
        return "clusters";
    case ClusterCut::Rule::Height:
        return "height";
    case ClusterCut::Rule::LargestGap:
        break;
    }
    return "largest_gap";
}

std::string ClusterJson(const DataTable& table, const ClusterOptions& options, const ClusterResult& r,
                        const std::vector<WrittenFile>& files)
{
    StatsJson doc;
    doc["command"] = "cluster";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["variables"] = table.Variables();
    doc["scaling"] = ScaleOptionName(options.scale);
    doc["log"] = options.logVariables;
    doc["method"] = options.method;
    doc["calculator"] = r.calculatorId;
    StatsJson merges = StatsJson::array();
    for (std::size_t i = 0; i < r.topMerges.size(); ++i) {
        const DendroGramNode& m = *r.topMerges[i];
        merges.push_back({{"merge", i + 1},
                          {"height", HeightJson(m.GetHeight())},
                          {"drawn_height", HeightJson(m.GetSpanHeight())},
                          {"sizes", {m.GetLeft()->GetLeafCount(), m.GetRight()->GetLeafCount()}}});
    }
    doc["merges"] = merges;
    doc["inversions"] = r.inversions;
    doc["cut"] = {{"rule", RuleName(r.cut.rule)},
                  {"clusters", r.cut.count},
                  {"height", HeightJson(r.cut.line)}};
    StatsJson clusters = StatsJson::array();
    for (std::size_t c = 0; c < r.cut.clusters.size(); ++c) {
        StatsJson names = StatsJson::array();
        for (const int row : DendroGramNodeLister::GetRows(*r.cut.clusters[c]))
            names.push_back(table.observations[static_cast<std::size_t>(row)]);
        clusters.push_back({{"cluster", c + 1}, {"size", r.cut.clusters[c]->GetLeafCount()}, {"observations", names}});
    }
    doc["clusters"] = clusters;
    return FinishStatsJson(doc, files);
}

class ClusterCommand final : public TableCommand<ClusterOptions> {
    std::string m_scale = "uv";
    CLI::Option* m_clustersOption = nullptr;
    CLI::Option* m_heightOption = nullptr;
    double m_height = 0.0;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "cluster", "Hierarchical clustering of the observations: merge the two nearest clusters until one is "
                       "left, report the highest merges and the clusters of a cut.");
        AddTableArgument(command, m_options.data)->required();
        command
            .add_option("--method", m_options.method,
                        "ward (increase of the error sum of squares), ward-sqrt (its square root), single (single "
                        "linkage, Euclidean distance)")
            ->check(CLI::IsMember({"ward", "ward-sqrt", "single"}))
            ->capture_default_str();
        m_clustersOption = command.add_option("--clusters", m_options.clusters, "Cut the tree into K clusters")
                               ->type_name("K")
                               ->check(CLI::Range(1, MaxRows));
        m_heightOption = command
                             .add_option("--height", m_height,
                                         "Cut the tree at height H: merges at or below H join (default: the largest "
                                         "gap between the highest merges)")
                             ->type_name("H")
                             ->check(CLI::NonNegativeNumber);
        AddScaleOption(command, m_scale, "Column scaling: uv (unit variance), pareto, center, none");
        AddLogOption(command, m_options.logVariables, "Take log10 of variable VAR before scaling (repeat for more)");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--assign", m_options.assignPath,
                        "Write each observation's cluster as CSV (observation, cluster)", "FILE.csv");
        AddOutputOption(command, "--newick", m_options.newickPath,
                        "Write the tree in Newick format, leaves named by the observations");
        AddOutputOption(command, "--plot", m_options.plotPath, "Draw the dendrogram with the cut as SVG", "FILE.svg");
        command
            .add_option("--memory-limit", m_options.memoryLimit,
                        "Memory in bytes the distances may take before they move to temporary files (default: three "
                        "quarters of the machine's memory)")
            ->type_name("BYTES")
            ->check(CLI::PositiveNumber);
        command.add_flag("--use-disk", m_options.useDisk,
                         "Agree to keep the distances in temporary files when they exceed the memory limit");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        if (m_clustersOption->count() > 0 && m_heightOption->count() > 0)
            throw ToolError("--clusters and --height choose the cut two ways; give one of them", ExitUsage);
        if (m_heightOption->count() > 0) {
            // NaN passes CLI11's range check.
            if (!std::isfinite(m_height))
                throw ToolError("--height: the height must be a finite number", ExitUsage);
            m_options.height = m_height;
        }
        m_options.scale = ScalingNamed(m_scale);
        return RunCluster(m_options, out);
    }
};

} // namespace

int RunCluster(const ClusterOptions& options, std::ostream& out)
{
    const DataTable table = ReadCsvTable(options.data, options.names);
    ClusterResult result;
    RunSteps steps;
    steps.task = "Clustering";
    steps.source = table.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress& progress) { result = ClusterTable(table, options, progress); };
    steps.write = [&](RunOutputs& files) {
        files.Add("assign", options.assignPath, [&](std::ostream& file) { WriteAssignment(file, table, result.cut); },
                  WrittenTo("Clusters", options.assignPath));
        files.Add("newick", options.newickPath,
                  [&](std::ostream& file) { file << NewickText(*result.root, table.observations); },
                  WrittenTo("Tree", options.newickPath));
        files.Add("plot", options.plotPath,
                  [&](std::ostream& file) { WriteSvg(file, DendrogramPlot(table, options, result)); },
                  WrittenTo("Dendrogram", options.plotPath));
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return ClusterJson(table, options, result, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, table, options, result); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeClusterCommand() { return std::make_unique<ClusterCommand>(); }

} // namespace veltan_cli
