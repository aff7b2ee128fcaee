#pragma once

#include "cli/CsvTable.h"
#include "cli/SvgPlot.h"

#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/platform/UserComm.h"
#include "veltancmat/preprocess/NCScale.h"

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct ClusterOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::string method = "ward";             // ward, ward-sqrt, single
    int clusters = 0;                        // 0: not given
    std::optional<double> height;            // the cut height, when given
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;
    std::vector<std::string> logVariables;   // log10 before scaling
    std::string assignPath;                  // CSV: observation, cluster
    std::string newickPath;                  // the tree as Newick text
    std::string plotPath;                    // SVG dendrogram
    std::uint64_t memoryLimit = 0;           // 0: the library's default
    bool useDisk = false;                    // the answer to the library's disk question
    bool json = false;
    bool progress = false;
};

// The merges the report lists: the highest ones, as many as this.
constexpr int ListedMerges = 10;

// How the clusters were chosen, the clusters (roots of their subtrees, left
// to right, numbered from 1) and each row's cluster.
struct ClusterCut {
    enum class Rule { Count, Height, LargestGap };
    Rule rule = Rule::LargestGap;
    int count = 1;
    double line = std::nan(""); // the cut line's height; NaN for one cluster by count or gap
    double below = 0.0, above = 0.0; // count and gap rules: the merge heights the line lies between
    std::vector<const DendroGram::DendroGramNode*> clusters;
    std::vector<int> assignment; // by row (0-based), cluster 1..count
};

// The cut the options ask for: --clusters K, --height H, or else the
// largest gap between consecutive heights among the ListedMerges highest
// merges (ties: fewer clusters), one cluster for fewer than 3 rows or
// when all those merges stand at one height.
ClusterCut ChooseCut(const DendroGram::DendroGramNode& root, const ClusterOptions& options);

struct ClusterResult {
    std::unique_ptr<DendroGram::DendroGramNode> root;
    std::string calculatorId;
    ClusterCut cut;
    std::vector<const DendroGram::DendroGramNode*> topMerges; // the ListedMerges highest
    int inversions = 0; // merges below one of their parts
};

// Preprocesses and clusters `table` as the options say. Throws ToolError
// naming file and row for data the distances cannot be defined for,
// CancelException on a break.
ClusterResult ClusterTable(const DataTable& table, const ClusterOptions& options, NCProgress& progress);

// The tree as Newick text: leaves labelled with `names` (by row), branch
// lengths the drop in drawn height from parent to child, ending in ";\n".
std::string NewickText(const DendroGram::DendroGramNode& root, const std::vector<std::string>& names);
// A label as Newick takes it: quoted ('', doubling ') when it holds blanks,
// underscores (which Newick reads as blanks) or punctuation of the format.
std::string NewickLabel(const std::string& name);

// The dendrogram, leaves labelled with their names up to MaxLabelledLeaves,
// each cluster in its own colour and the cut line where there is one.
constexpr int MaxLabelledLeaves = 200;
PlotFigure DendrogramPlot(const DataTable& table, const ClusterOptions& options, const ClusterResult& result);

// The tool's answers to the library's questions: each message and each
// question written as one "veltan: " line through `writeLine`, questions
// answered yes only when `useDisk`.
std::shared_ptr<UserComm> ToolUserComm(bool useDisk, std::function<void(const std::string&)> writeLine);

// `veltan cluster`.
int RunCluster(const ClusterOptions& options, std::ostream& out);

} // namespace veltan_cli
