#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "cli/ClusterCommand.h"

#include "veltancmat/cluster/DendroGramNode.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <map>
#include <thread>

using namespace cli_test;
using DendroGram::DendroGramNode;
using testing::HasSubstr;

namespace {

// Three tight groups far apart, the rows interleaved (a1, b1, c1, a2, ...).
// Two names need quoting in Newick and one in CSV.
std::string GroupTable(int perGroup, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> noise(0.0, 0.3);
    std::ostringstream csv;
    csv << "name,x,y,z\n";
    for (int i = 1; i <= perGroup; ++i)
        for (int g = 0; g < 3; ++g) {
            std::string name = std::string(1, static_cast<char>('a' + g)) + std::to_string(i);
            if (g == 1 && i == 2)
                name = "\"b 2, x\"";
            if (g == 2 && i == 3)
                name = "c'3_y";
            csv << name << "," << 10.0 * g + noise(rng) << "," << (g == 1 ? 10.0 : 0.0) + noise(rng) << ","
                << 5.0 * g + noise(rng) << "\n";
        }
    return csv.str();
}

// The group a name of GroupTable belongs to.
char GroupOf(const std::string& name) { return name[0]; }

// A Newick text read back: every leaf's label and the sum of the branch
// lengths from the root down to it; `binary` when every inner node has two
// children. Iterative, with a node list instead of recursion.
struct Newick {
    std::vector<std::string> labels;
    std::vector<double> depths;
    bool binary = true;
    std::string fault;
};

Newick ParseNewick(const std::string& text)
{
    struct Node {
        int parent;
        double length = 0.0;
        int children = 0;
        bool leaf;
        std::string label;
    };
    std::vector<Node> nodes;
    Newick result;
    int current = -1, last = -1;
    std::size_t i = 0;
    const auto add = [&](bool leaf) {
        nodes.push_back({current, 0.0, 0, leaf, {}});
        if (current >= 0)
            ++nodes[static_cast<std::size_t>(current)].children;
        return static_cast<int>(nodes.size()) - 1;
    };
    for (; i < text.size() && text[i] != ';'; ++i) {
        const char c = text[i];
        if (c == '(') {
            current = add(false);
        } else if (c == ')') {
            last = current;
            current = nodes[static_cast<std::size_t>(current)].parent;
        } else if (c == ',') {
        } else if (c == ':') {
            char* end = nullptr;
            nodes[static_cast<std::size_t>(last)].length = std::strtod(text.c_str() + i + 1, &end);
            i = static_cast<std::size_t>(end - text.c_str()) - 1;
        } else {
            last = add(true);
            std::string& label = nodes[static_cast<std::size_t>(last)].label;
            if (c == '\'') {
                // A quote inside a quoted label is doubled.
                for (++i; i < text.size() && (text[i] != '\'' || text[i + 1] == '\''); ++i)
                    label += text[i] == '\'' ? text[i++] : text[i];
            } else {
                for (; i < text.size() && std::string_view("(),:;").find(text[i]) == std::string_view::npos; ++i)
                    label += text[i];
                --i;
            }
        }
    }
    if (i + 2 != text.size() || text.substr(i) != ";\n" || current != -1)
        result.fault = "does not end in \";\\n\" at the root";
    // A parent is listed before its children, so one pass adds the lengths up.
    std::vector<double> depth(nodes.size(), 0.0);
    for (std::size_t n = 0; n < nodes.size(); ++n) {
        const Node& node = nodes[n];
        if (node.parent >= 0)
            depth[n] = depth[static_cast<std::size_t>(node.parent)] + node.length;
        if (!node.leaf) {
            result.binary = result.binary && node.children == 2;
            continue;
        }
        result.labels.push_back(node.label);
        result.depths.push_back(depth[n]);
    }
    return result;
}

std::vector<std::string> Sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

const std::vector<std::string> GroupNames{"a1", "b1", "c1", "a2", "b 2, x", "c2", "a3", "b3", "c'3_y",
                                          "a4", "b4", "c4", "a5", "b5", "c5", "a6", "b6", "c6"};

} // namespace

// ---- the report and the files ---------------------------------------------

// The groups of the table come out whole, the same in the report, the
// assignment, the Newick tree and the JSON document.
TEST(ClusterTool, ReportFilesAndJsonShowTheGroups)
{
    const TempDir dir;
    WriteFile(dir.File("g.csv"), GroupTable(6, 2));
    const nlohmann::json doc = RunJson(dir, {"cluster", dir.File("g.csv"), "--json"});
    const RunResult r = Veltan(dir, {"cluster", dir.File("g.csv"), "--assign", dir.File("a.csv"), "--newick",
                                     dir.File("t.nwk")});
    ExpectFields(doc, {{"command", "cluster"}, {"observations", 18}, {"variables", 3}, {"scaling", "uv"},
                       {"method", "ward"}, {"calculator", "WardDistanceCalculator0"}, {"inversions", 0}});
    EXPECT_EQ(doc["cut"]["rule"], "largest_gap");
    ASSERT_EQ(doc["merges"].size(), 10u);
    // The gap lies between merges 2 and 3; the first merge joins one group to two.
    const double line = doc["cut"]["height"].get<double>();
    EXPECT_TRUE(line < doc["merges"][1]["height"].get<double>() && line > doc["merges"][2]["height"].get<double>());
    const auto sizes = doc["merges"][0]["sizes"].get<std::vector<int>>();
    EXPECT_TRUE(sizes == std::vector<int>({6, 12}) || sizes == std::vector<int>({12, 6}));

    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_EQ(lines.size(), 24u) << r.out;
    EXPECT_EQ(lines[0], "Cluster analysis of " + dir.File("g.csv") + ": 18 observations, 3 variables, scaled to unit "
                        "variance, Ward's method (increase of the error sum of squares)");
    EXPECT_EQ(lines[3], "  Merge        Height  Sizes joined  Clusters below");
    EXPECT_EQ(lines[4].substr(0, 7), "      1");
    EXPECT_THAT(lines[4], HasSubstr(std::to_string(sizes[0]) + " + " + std::to_string(sizes[1]) + "               2"));
    EXPECT_EQ(lines[13].substr(lines[13].size() - 2), "11");
    EXPECT_THAT(lines[15], testing::StartsWith("3 clusters: the largest gap between the 10 highest merges lies"));
    std::map<std::string, int> clusterOf;
    ASSERT_EQ(doc["clusters"].size(), 3u);
    for (int c = 1; c <= 3; ++c) {
        const nlohmann::json& cluster = doc["clusters"][static_cast<std::size_t>(c - 1)];
        std::string names;
        for (const auto& name : cluster["observations"]) {
            clusterOf[name.get<std::string>()] = c;
            names += (names.empty() ? "" : ", ") + name.get<std::string>();
            EXPECT_EQ(GroupOf(name.get<std::string>()), GroupOf(cluster["observations"][0].get<std::string>()));
        }
        EXPECT_EQ(lines[static_cast<std::size_t>(17 + c)], "      " + std::to_string(c) + "      6  " + names);
    }
    EXPECT_EQ(clusterOf["a1"], 1);
    EXPECT_EQ(lines[22], "Clusters written to " + dir.File("a.csv"));

    // Every observation once, in file order, with its cluster.
    std::string expected = "name,cluster\n";
    for (const std::string& name : GroupNames)
        expected += (name.find(',') != std::string::npos ? "\"" + name + "\"" : name) + "," +
                    std::to_string(clusterOf[name]) + "\n";
    EXPECT_EQ(ReadFile(dir.File("a.csv")), expected);

    // The Newick tree names every observation once, is binary, and its
    // branch lengths add up to the root's height at every leaf.
    const Newick tree = ParseNewick(ReadFile(dir.File("t.nwk")));
    EXPECT_TRUE(tree.fault.empty() && tree.binary) << tree.fault;
    EXPECT_EQ(Sorted(tree.labels), Sorted(GroupNames));
    const double top = doc["merges"][0]["drawn_height"].get<double>();
    for (const double depth : tree.depths)
        EXPECT_NEAR(depth, top, 1e-5 * top);
}

// --clusters K gives K clusters for every K; --height at a merge's own height
// keeps that merge (it joins) and undoes every higher one.
TEST(ClusterTool, CountAndHeightCutsMeetAtTheMerges)
{
    const TempDir dir;
    WriteFile(dir.File("g.csv"), GroupTable(4, 3));
    const nlohmann::json doc = RunJson(dir, {"cluster", dir.File("g.csv"), "--method", "ward-sqrt", "--json"});
    EXPECT_EQ(doc["calculator"], "WardDistanceCalculator1");
    for (int k = 1; k <= 12; ++k) {
        const nlohmann::json cut =
            RunJson(dir, {"cluster", dir.File("g.csv"), "--method", "ward-sqrt", "--clusters", std::to_string(k),
                          "--json"});
        EXPECT_EQ(cut["cut"]["rule"], "clusters");
        EXPECT_EQ(cut["clusters"].size(), static_cast<std::size_t>(k));
        EXPECT_EQ(cut["cut"]["height"].is_null(), k == 1);
    }
    for (std::size_t m = 0; m < 3; ++m) {
        const std::string height = doc["merges"][m]["height"].dump();
        const nlohmann::json cut =
            RunJson(dir, {"cluster", dir.File("g.csv"), "--method", "ward-sqrt", "--height", height, "--json"});
        EXPECT_EQ(cut["cut"]["rule"], "height");
        EXPECT_EQ(cut["clusters"].size(), m + 1) << height;
    }
    const nlohmann::json all = RunJson(dir, {"cluster", dir.File("g.csv"), "--height", "0", "--json"});
    EXPECT_EQ(all["clusters"].size(), 12u);
    const RunResult r = Veltan(dir, {"cluster", dir.File("g.csv"), "--height", "0"});
    EXPECT_THAT(r.out, HasSubstr("\n12 clusters at height 0 (a merge at the height joins its parts).\n"));
}

TEST(ClusterTool, PlotNamesEveryLeafAndDrawsTheCut)
{
    const TempDir dir;
    WriteFile(dir.File("g.csv"), GroupTable(6, 4));
    const RunResult r = Veltan(dir, {"cluster", dir.File("g.csv"), "--plot", dir.File("d.svg")});
    EXPECT_THAT(r.out, HasSubstr("\nDendrogram written to " + dir.File("d.svg") + "\n"));
    const XmlDocument svg = ParseXml(ReadFile(dir.File("d.svg")));
    ASSERT_EQ(svg.fault, "");
    std::vector<std::string> labels;
    for (const XmlElement& e : ElementsOfClass(svg, "text", "x-label"))
        labels.push_back(e.text);
    EXPECT_EQ(Sorted(labels), Sorted(GroupNames));
    EXPECT_EQ(ElementsOfClass(svg, "line", "segment").size(), 3u * 17u);
    ASSERT_EQ(ElementsOfClass(svg, "line", "level").size(), 1u);
    const auto caption = ElementsOfClass(svg, "text", "level-label");
    ASSERT_EQ(caption.size(), 1u);
    EXPECT_EQ(caption[0].text, "cut: 3 clusters");
    // The three clusters and the merges above them: four colours.
    std::set<std::string> colours;
    for (const XmlElement& e : ElementsOfClass(svg, "line", "segment"))
        colours.insert(e.attributes.at("stroke"));
    EXPECT_EQ(colours.size(), 4u);

    // Past 200 leaves the names are left out, the tree is not.
    std::ostringstream big;
    big << "x,y\n";
    for (int i = 0; i < 250; ++i)
        big << i % 7 << "," << (i * 37) % 101 << "\n";
    WriteFile(dir.File("big.csv"), big.str());
    Veltan(dir, {"cluster", dir.File("big.csv"), "--plot", dir.File("big.svg")});
    const XmlDocument bigSvg = ParseXml(ReadFile(dir.File("big.svg")));
    ASSERT_EQ(bigSvg.fault, "");
    EXPECT_TRUE(ElementsOfClass(bigSvg, "text", "x-label").empty());
    EXPECT_EQ(ElementsOfClass(bigSvg, "line", "segment").size(), 3u * 249u);
}

// ---- refusals -------------------------------------------------------------

TEST(ClusterTool, BadDataAndOptionsAreRefusedWithOneLine)
{
    const TempDir dir;
    WriteFile(dir.File("one.csv"), "id,a,b\nx,1,2\n");
    ExpectRefusal(dir, {"cluster", "{d}one.csv", "--plot", "{d}p.svg"},
                  "{d}one.csv: 1 observation; clustering needs at least 2", 1);
    WriteFile(dir.File("half.csv"), "id,a,b,c\nx,1,2,3\ny,NA,,3\nz,1,1,1\n");
    ExpectRefusal(dir, {"cluster", "{d}half.csv", "--assign", "{d}a.csv"},
                  "{d}half.csv: row 3 (\"y\"): 2 of 3 values missing; clustering needs at least half of each "
                  "observation's values",
                  1);
    // Nine columns: a pair needs 3 in common; these two share one.
    WriteFile(dir.File("pair.csv"), "id,a,b,c,d,e,f,g,h,i\n"
                                    "p,1,2,3,4,5,6,7,8,9\n"
                                    "q,,,,,5,6,7,8,9\n"
                                    "r,1,2,3,4,,,,,9\n");
    ExpectRefusal(dir, {"cluster", "{d}pair.csv"},
                  "{d}pair.csv: row 3 and row 4 (\"q\", \"r\") have 1 value in common, fewer than the square root "
                  "of the 9 variables; their distance would rest on too little",
                  1);
    // One row more than the pair count allows.
    std::string big = "id,a,b\n";
    for (int i = 0; i < 65536; ++i)
        big += "r" + std::to_string(i) + "," + std::to_string(i % 7) + "," + std::to_string(i % 11) + "\n";
    WriteFile(dir.File("big.csv"), big);
    ExpectRefusal(dir, {"cluster", "{d}big.csv"}, "{d}big.csv: 65536 observations; clustering takes at most 65535",
                  1);
    WriteFile(dir.File("three.csv"), "id,a\nx,1\ny,2\nz,4\n");
    ExpectRefusal(dir, {"cluster", "{d}three.csv", "--clusters", "4"},
                  "--clusters 4: {d}three.csv has only 3 observations", 2);
    ExpectRefusal(dir, {"cluster", "{d}three.csv", "--clusters", "2", "--height", "1"},
                  "--clusters and --height choose the cut two ways; give one of them", 2);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--clusters", "0"}, {"--height", "-1"}, {"--method", "average"},
          {"--scale", "log"}, {"--memory-limit", "0"}}) {
        std::vector<std::string> full{"cluster", dir.File("three.csv")};
        full.insert(full.end(), args.begin(), args.end());
        const RunResult r = RunTool(dir, full);
        EXPECT_EQ(r.exitCode, 2) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
    // A constant column cannot be scaled to unit variance, but it can be left alone.
    WriteFile(dir.File("flat.csv"), "id,a,b\nx,1,5\ny,2,5\nz,4,5\n");
    EXPECT_EQ(RunTool(dir, {"cluster", dir.File("flat.csv")}).exitCode, 1);
    Veltan(dir, {"cluster", dir.File("flat.csv"), "--scale", "none"});
}

TEST(ClusterTool, CtrlCLeavesNoFileBehind)
{
    const TempDir dir;
    std::mt19937 rng(5);
    std::normal_distribution<double> normal;
    std::ostringstream big;
    big << "a,b,c,d,e,f\n";
    for (int i = 0; i < 9000; ++i) {
        for (int j = 0; j < 6; ++j)
            big << (j ? "," : "") << normal(rng);
        big << "\n";
    }
    WriteFile(dir.File("big.csv"), big.str());
    const RunResult r = InterruptOnceStarted(dir, {"cluster", dir.File("big.csv"), "--progress", "--assign",
                                                   dir.File("a.csv"), "--plot", dir.File("p.svg")});
    EXPECT_EQ(r.exitCode, 130);
    EXPECT_EQ(r.err.substr(r.err.rfind('\r') + 1), "veltan: Cluster analysis aborted.\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}

// ---- the library's questions ----------------------------------------------

TEST(ClusterTool, QuestionsAreAnsweredByUseDiskOneLineEach)
{
    std::vector<std::string> lines;
    const auto record = [&](const std::string& line) { lines.push_back(line); };
    const auto refusing = veltan_cli::ToolUserComm(false, record);
    refusing->Info("Cluster analysis", "The distances take 8 GB.\nThey go to temporary files.");
    EXPECT_FALSE(refusing->AskYesNo("", "Continue?", true));
    const auto agreeing = veltan_cli::ToolUserComm(true, record);
    EXPECT_TRUE(agreeing->AskYesNo("Cluster analysis", "Continue?", false));
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "veltan: Cluster analysis: The distances take 8 GB. They go to temporary files.",
                         "veltan: Continue? No (--use-disk answers yes).",
                         "veltan: Cluster analysis: Continue? Yes (--use-disk)."}));
}

// With a memory limit below the distances, the library moves them to disk
// and tells or asks first: without --use-disk a question ends the run, with
// it the clusters are those of the run in memory. Ward keeps a distance
// table only for rows with gaps, so the table has one.
TEST(ClusterTool, MemoryLimitTakesTheDiskPathOnlyWithUseDisk)
{
    const TempDir dir;
    std::string table = GroupTable(20, 6);
    const std::size_t a1 = table.find("\na1,") + 4;
    const std::size_t y = table.find(',', a1 + 1) + 1;
    table.replace(y, table.find(',', y) - y, "NA");
    WriteFile(dir.File("g.csv"), table);
    // Enough free space: the user is told, not asked.
    const RunResult told = RunTool(dir, {"cluster", dir.File("g.csv"), "--memory-limit", "1000"});
    EXPECT_EQ(told.exitCode, 0) << told.err;
    EXPECT_NE(told.err.find("will be used to temporarily store"), std::string::npos) << told.err;
    for (const std::string& line : Lines(told.err))
        EXPECT_EQ(line.rfind("veltan: ", 0), 0u) << line;
    Veltan(dir, {"cluster", dir.File("g.csv"), "--memory-limit", "1000", "--use-disk", "--assign",
                 dir.File("disk.csv")});
    Veltan(dir, {"cluster", dir.File("g.csv"), "--assign", dir.File("memory.csv")});
    EXPECT_EQ(ReadFile(dir.File("disk.csv")), ReadFile(dir.File("memory.csv")));
}

// ---- the parts ------------------------------------------------------------

namespace {

DendroGramNode* Leaf(int row) { return new DendroGramNode(row); }
DendroGramNode* Join(float h, DendroGramNode* l, DendroGramNode* r) { return new DendroGramNode(h, l, r); }

} // namespace

TEST(ClusterParts, DefaultCutTakesTheLargestGapAmongTheHighestMerges)
{
    using veltan_cli::ChooseCut;
    using veltan_cli::ClusterCut;
    using veltan_cli::ClusterOptions;
    // Heights 10, 9, 2, 1.5, 1: the gap from 9 to 2 is the largest.
    const std::unique_ptr<DendroGramNode> root(
        Join(10.0f, Join(9.0f, Join(1.0f, Leaf(0), Leaf(1)), Join(1.5f, Leaf(2), Leaf(3))),
             Join(2.0f, Leaf(4), Leaf(5))));
    ClusterOptions options;
    ClusterCut cut = ChooseCut(*root, options);
    EXPECT_EQ(cut.rule, ClusterCut::Rule::LargestGap);
    EXPECT_EQ(cut.count, 3);
    EXPECT_DOUBLE_EQ(cut.line, 5.5);
    EXPECT_EQ(cut.assignment, (std::vector<int>{1, 1, 2, 2, 3, 3}));
    options.clusters = 5;
    cut = ChooseCut(*root, options);
    EXPECT_EQ(cut.count, 5);
    EXPECT_DOUBLE_EQ(cut.line, 1.25);
    options.clusters = 6;
    EXPECT_DOUBLE_EQ(ChooseCut(*root, options).line, 0.5);
    options.clusters = 0;
    options.height = 1.5;
    cut = ChooseCut(*root, options);
    EXPECT_EQ(cut.count, 4);
    EXPECT_EQ(cut.assignment, (std::vector<int>{1, 1, 2, 2, 3, 4}));

    // Two rows, or merges all at one height: no gap to cut in.
    const std::unique_ptr<DendroGramNode> pair(Join(3.0f, Leaf(0), Leaf(1)));
    EXPECT_EQ(ChooseCut(*pair, {}).count, 1);
    EXPECT_TRUE(std::isnan(ChooseCut(*pair, {}).line));
    const std::unique_ptr<DendroGramNode> flat(Join(2.0f, Join(2.0f, Leaf(0), Leaf(1)), Leaf(2)));
    EXPECT_EQ(ChooseCut(*flat, {}).count, 1);
}

TEST(ClusterParts, NewickQuotesNamesAndKeepsLengthsOfInversionsPositive)
{
    using veltan_cli::NewickLabel;
    EXPECT_EQ(NewickLabel("c1-001"), "c1-001");
    EXPECT_EQ(NewickLabel("a b"), "'a b'");
    EXPECT_EQ(NewickLabel("a_b"), "'a_b'");
    EXPECT_EQ(NewickLabel("o'k"), "'o''k'");
    EXPECT_EQ(NewickLabel("x(1):2;"), "'x(1):2;'");
    EXPECT_EQ(NewickLabel(""), "''");
    // (0 1) at 3 joins 2 at 1, below its part: drawn at 3, so 2's branch is 3 long.
    const std::unique_ptr<DendroGramNode> root(Join(5.0f, Join(1.0f, Join(3.0f, Leaf(0), Leaf(1)), Leaf(2)), Leaf(3)));
    EXPECT_EQ(veltan_cli::NewickText(*root, {"a", "b", "c d", "e"}), "(((a:3,b:3):0,'c d':3):2,e:5);\n");

    // A chain of 100000 merges is written without recursion.
    std::unique_ptr<DendroGramNode> chain(Leaf(0));
    for (int r = 1; r < 100000; ++r)
        chain.reset(Join(static_cast<float>(r), chain.release(), Leaf(r)));
    const Newick parsed = ParseNewick(veltan_cli::NewickText(*chain, {}));
    EXPECT_EQ(parsed.fault, "");
    EXPECT_EQ(parsed.labels.size(), 100000u);
    EXPECT_EQ(parsed.labels.front(), "1");
    EXPECT_DOUBLE_EQ(parsed.depths.back(), 99999.0);
}

TEST(ClusterParts, PlotMarksInversionsAtTheirOwnHeight)
{
    veltan_cli::DataTable table;
    table.source = "t.csv";
    table.observations = {"a", "b", "c", "d"};
    table.values = NCDataMatrix<float>(4, 2);
    veltan_cli::ClusterResult result;
    result.root.reset(Join(5.0f, Join(1.0f, Join(3.0f, Leaf(0), Leaf(1)), Leaf(2)), Leaf(3)));
    result.inversions = 1;
    veltan_cli::ClusterOptions options;
    options.clusters = 2;
    result.cut = veltan_cli::ChooseCut(*result.root, options);
    std::ostringstream out;
    veltan_cli::WriteSvg(out, veltan_cli::DendrogramPlot(table, options, result));
    const XmlDocument svg = ParseXml(out.str());
    ASSERT_EQ(svg.fault, "");
    EXPECT_EQ(ElementsOfClass(svg, "circle", "point").size(), 1u);
    EXPECT_EQ(ElementsOfClass(svg, "line", "segment").size(), 9u);
    EXPECT_EQ(ElementsOfClass(svg, "text", "x-label").size(), 4u);
}
