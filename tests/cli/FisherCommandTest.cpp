#include "CliTestSupport.h"

#include "cli/FisherCommand.h"
#include "cli/ToolError.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/spc/FisherExact.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <thread>

using namespace cli_test;
using testing::HasSubstr;

namespace {

// The tables of tests/cli/reference/fisher.R, as it reads them.
const char* const TwoByTwo = "Guess,milk,tea\nmilk,7,2\ntea,3,9\n";
const char* const ThreeByThree = ",x,y,z\na,2,8,14\nb,8,5,6\nc,5,20,9\n";

double P(const TempDir& dir, std::vector<std::string> args)
{
    args.insert(args.begin(), "fisher");
    args.push_back("--json");
    return RunJson(dir, args).at("p").get<double>();
}

// A workspace error straight from the library: no 3 x 3 table fits in 100.
double TooSmall()
{
    const int table[] = {2, 8, 14, 8, 5, 6, 5, 20, 9};
    return Sta::GetFisherExactProbability(table, 3, 3, false, Sta::TwoSided, 100);
}

} // namespace

// p-values of R's fisher.test (tests/cli/reference/fisher.R): each side of a
// 2 x 2, the exact and the hybrid 3 x 3 (R's for this orientation, not for
// its transpose, 0.0099603), and a table with an empty row and column.
TEST(VeltanFisher, AgreesWithR)
{
    TempDir dir;
    WriteFile(dir.File("two.csv"), TwoByTwo);
    WriteFile(dir.File("three.csv"), ThreeByThree);
    WriteFile(dir.File("sparse.csv"), "r,a,b,c,d\nu,3,0,1,4\nv,0,0,0,0\nw,1,0,6,2\n");
    const std::string two = dir.File("two.csv"), three = dir.File("three.csv");
    EXPECT_NEAR(P(dir, {two}), 0.029973122852379838, 1e-14);
    EXPECT_NEAR(P(dir, {two, "--sides", "less"}), 0.99828190385465931, 1e-14);
    EXPECT_NEAR(P(dir, {two, "--sides", "greater"}), 0.02417242200523935, 1e-14);
    EXPECT_NEAR(P(dir, {three}), 0.0094047788063683045, 1e-12);
    EXPECT_NEAR(P(dir, {three, "--hybrid"}), 0.0097167603907411613, 1e-12);
    EXPECT_NEAR(P(dir, {dir.File("sparse.csv")}), 0.10304401480872058, 1e-12);

    // The hybrid leaves a 2 x 2 exact, and says so.
    const RunResult r = Veltan(dir, {"fisher", two, "--sides", "greater", "--hybrid"});
    EXPECT_THAT(r.out, HasSubstr("p = 0.02417, one-sided (greater): the tables with these margins whose first cell "
                                 "is 7 or more\n--hybrid has no effect on a 2 x 2 table"));
    EXPECT_EQ(r.err, "");
}

// Labels from the header row and the names column, margins in the report
// and the document; without a names column the rows are numbered.
TEST(VeltanFisher, LabelsMarginsAndDocument)
{
    TempDir dir;
    WriteFile(dir.File("two.csv"), TwoByTwo);
    EXPECT_THAT(Veltan(dir, {"fisher", dir.File("two.csv")}).out,
                HasSubstr("Guess  milk  tea  Total\nmilk      7    2      9\ntea       3    9     12\n"
                          "Total    10   11     21\n"));

    WriteFile(dir.File("dose.csv"), "dose,dead,alive\n10,1,9\n20,6,4\n40,9,1\n");
    nlohmann::json doc = RunJson(dir, {"fisher", dir.File("dose.csv"), "--names", "first", "--json"});
    ExpectFields(doc, {{"command", "fisher"}, {"data", dir.File("dose.csv")}, {"rows", {"10", "20", "40"}},
                       {"columns", {"dead", "alive"}}, {"counts", {{1, 9}, {6, 4}, {9, 1}}},
                       {"row_totals", {10, 10, 10}}, {"column_totals", {16, 14}}, {"total", 30}, {"sides", "two"},
                       {"method", "exact"}, {"workspace", 200000}, {"workspaces_tried", {200000}},
                       {"workspace_cap", 268435456}, {"files", nlohmann::json::object()}});
    // Read by the automatic rule, the doses are a column of counts.
    doc = RunJson(dir, {"fisher", dir.File("dose.csv"), "--json", "--hybrid"});
    ExpectFields(doc, {{"rows", {"1", "2", "3"}}, {"columns", {"dose", "dead", "alive"}}, {"method", "hybrid"}});

    doc = RunJson(dir, {"fisher", dir.File("two.csv"), "--json"});
    ExpectFields(doc, {{"workspace", nullptr}, {"workspaces_tried", nlohmann::json::array()}});
}

// A workspace found too small is doubled until one suffices, and the report
// names it; the cap, however reached, ends the doubling with one line.
TEST(VeltanFisher, WorkspaceGrowsUpToTheCap)
{
    TempDir dir;
    WriteFile(dir.File("three.csv"), ThreeByThree); // needs 23106
    const RunResult r = Veltan(dir, {"fisher", dir.File("three.csv"), "--workspace", "6000"});
    EXPECT_THAT(r.out, HasSubstr("p = 0.009405, two-sided"));
    EXPECT_THAT(r.out, HasSubstr("\nWorkspace 24000 (93.8 KiB) sufficed; 6000 and 12000 were too small.\n"));
    const nlohmann::json doc = RunJson(dir, {"fisher", dir.File("three.csv"), "--workspace", "6000", "--json"});
    EXPECT_EQ(doc["workspaces_tried"], nlohmann::json({6000, 12000, 24000}));
    EXPECT_EQ(doc["workspace"], 24000);

    ExpectRefusal(dir, {"fisher", "{d}three.csv", "--workspace", "6000", "--max-workspace", "20000"},
                  "{d}three.csv: no workspace up to the cap of 20000 (78.1 KiB) suffices (tried 6000, 12000 and "
                  "20000; --max-workspace raises the cap): Error in fexact. LDKEY is too small for this problem. Try "
                  "increasing the size of the workspace.",
                  1);
    ExpectRefusal(dir, {"fisher", "{d}three.csv", "--workspace", "23105", "--max-workspace", "23105"},
                  "{d}three.csv: no workspace up to the cap of 23105 (90.3 KiB) suffices (tried 23105; "
                  "--max-workspace raises the cap): Error in fexact. LDKEY is too small for this problem. Try "
                  "increasing the size of the workspace.",
                  1);
    ExpectRefusal(dir, {"fisher", "{d}three.csv", "--workspace", "300000000"},
                  "--workspace 300000000 is above --max-workspace 268435456", 2);
}

// The doubling in-process: the cap is the last size tried even off the
// doubling's path, sizes near INT_MAX do not overflow, other library
// errors are not retried, and a break stops the tries between calls.
TEST(VeltanFisher, GrowingWorkspaceEdges)
{
    using veltan_cli::TryGrowingWorkspace;
    NCProgress progress;
    std::vector<int> sizes;
    const auto needs = [&sizes](int enough) {
        return [&sizes, enough](int workspace) {
            sizes.push_back(workspace);
            return workspace < enough ? TooSmall() : 0.5;
        };
    };
    EXPECT_EQ(TryGrowingWorkspace(needs(5000), 1000, 5000, progress, "t").tried,
              (std::vector<int>{1000, 2000, 4000, 5000}));
    EXPECT_EQ(TryGrowingWorkspace(needs(INT_MAX), 1 << 30, INT_MAX, progress, "t").tried,
              (std::vector<int>{1 << 30, INT_MAX}));

    sizes.clear();
    const auto negative = [&sizes](int workspace) {
        sizes.push_back(workspace);
        const int table[] = {1, 2, 3, 4, -5, 6, 7, 8, 9};
        return Sta::GetFisherExactProbability(table, 3, 3, false, Sta::TwoSided, workspace);
    };
    EXPECT_THROW(TryGrowingWorkspace(negative, 1000, 8000, progress, "t"), veltan_cli::ToolError);
    EXPECT_EQ(sizes, std::vector<int>{1000});

    sizes.clear();
    const auto interrupted = [&](int workspace) {
        sizes.push_back(workspace);
        progress.RequestBreak();
        return TooSmall();
    };
    EXPECT_THROW(TryGrowingWorkspace(interrupted, 1000, 8000, progress, "t"), CancelException);
    EXPECT_EQ(sizes, std::vector<int>{1000});
}

// Every bad table: one line naming what it can (file, row, column), exit 1;
// options that do not fit the table: exit 2.
TEST(VeltanFisher, BadInputRefused)
{
    TempDir dir;
    const struct {
        const char* csv;
        const char* message;
    } bad[] = {
        {"a,b\n3,-1\n2,4\n", "row 2, column 2 (\"b\"): -1 is negative; counts are 0 or more"},
        {"a,b\n3,1\n2.5,4\n", "row 3, column 1 (\"a\"): 2.5 is not a whole number"},
        {"a,b\n3,1\n2,x\n", "row 3, column 2 (\"b\"): \"x\" is not a number"},
        {"a,b\n3,\n2,4\n", "row 2, column 2 (\"b\"): the count is missing (an empty cell, NA or -99)"},
        {"a,b\n3,16777216\n2,4\n",
         "row 2, column 2 (\"b\"): 16777216 is too large to be read exactly; counts must be below 16777216"},
        {"a,b,c\n1,2,3\n", "a table of 1 row and 3 columns of counts; the test needs at least 2 of each"},
        {"n,a\nr1,1\nr2,2\n", "a table of 2 rows and 1 column of counts; the test needs at least 2 of each"},
        {"a,b\n0,0\n0,0\n", "every count is 0; the test needs at least one"},
        {"a,b,c\n0,0,0\n0,0,0\n0,0,0\n", "every count is 0; the test needs at least one"},
        // The library's own error, passed on in one line.
        {"a,b,c,d,e\n20,20,20,20,20\n20,20,20,20,20\n20,20,20,20,20\n20,20,20,20,20\n20,20,20,20,20\n",
         "Error in fexact. The hash table key cannot be computed because the largest key is larger than the "
         "largest representable int. The algorithm cannot proceed. Reduce the workspace size or use another "
         "algorithm."},
    };
    for (const auto& b : bad) {
        WriteFile(dir.File("bad.csv"), b.csv);
        ExpectRefusal(dir, {"fisher", "{d}bad.csv"}, std::string("{d}bad.csv: ") + b.message, 1);
    }
    WriteFile(dir.File("three.csv"), ThreeByThree);
    ExpectRefusal(dir, {"fisher", "{d}three.csv", "--sides", "less"},
                  "--sides less: only a 2 x 2 table has one-sided p-values; {d}three.csv is 3 x 3", 2);
    EXPECT_EQ(RunTool(dir, {"fisher", dir.File("three.csv"), "--sides", "up"}).exitCode, 2);
}

// A Ctrl-C during one long library call: the spinner turns on and says it
// is stopping, the call runs to its end, then the run is cancelled (130)
// without a result.
TEST(VeltanFisher, InterruptDuringACall)
{
    TempDir dir;
    WriteFile(dir.File("big.csv"), "a,b,c,d,e\n8,3,5,9,2\n4,7,6,3,8\n5,9,2,7,4\n6,3,8,5,9\n"); // about 1 s
    const RunResult r =
        InterruptOnceStarted(dir, {"fisher", dir.File("big.csv"), "--workspace", "2048000", "--progress"});
    EXPECT_EQ(r.exitCode, 130);
    EXPECT_THAT(r.err, HasSubstr("\rFisher's exact test: workspace 2048000"));
    EXPECT_THAT(r.err, testing::ContainsRegex("\\[[-|/\\\\]\\] [0-9] s  stopping\\.\\.\\."));
    EXPECT_EQ(r.err.substr(r.err.rfind('\r') + 1), "veltan: Operation cancelled.\n");
    EXPECT_EQ(r.out, "");
}
