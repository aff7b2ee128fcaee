// `veltan smooth`: results that can be checked by hand (polynomials are
// reproduced, a line's slope is known), the missing-cell markers, the
// report, the JSON document, the plot, the refusals and Ctrl-C.
#include "CliTestSupport.h"
#include "XmlCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cmath>
#include <sstream>
#include <thread>

using namespace cli_test;
using testing::HasSubstr;
using testing::Not;

namespace {

double Cubic(double t)
{
    return 1.0 + 0.5 * t - 0.04 * t * t + 0.001 * t * t * t;
}

// Columns name,cubic,line,gappy of n rows: a cubic in the row index, the
// line 3i, and a cubic with cells empty, NA and -99 at rows 5, 6 and 7.
std::string Table(int n)
{
    std::ostringstream csv;
    csv.precision(9);
    csv << "id,cubic,line,gappy\n";
    for (int i = 0; i < n; ++i) {
        const std::string gap = i == 4 ? "" : i == 5 ? "NA" : i == 6 ? "-99" : "";
        csv << "p" << i + 1 << "," << Cubic(i) << "," << 3 * i << ",";
        if (gap.empty() && i != 4)
            csv << Cubic(i);
        else
            csv << gap;
        csv << "\n";
    }
    return csv.str();
}

} // namespace

TEST(VeltanSmooth, PolynomialsComeBackAndTheEndsFollowThePolynomial)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(30));
    Veltan(dir, {"smooth", dir.File("d.csv"), "--column", "cubic", "--column", "gappy", "--window", "7", "--order",
                 "3", "--edges", "--out", dir.File("s.csv")});
    const Csv csv = ParseCsv(ReadFile(dir.File("s.csv")));
    EXPECT_EQ(csv.header, (std::vector<std::string>{"id", "cubic_smoothed", "gappy_smoothed"}));
    ASSERT_EQ(csv.rows.size(), 30u);
    EXPECT_EQ(csv.names.front(), "p1");
    for (std::size_t i = 0; i < 30; ++i) {
        EXPECT_NEAR(csv.rows[i][0], Cubic(static_cast<double>(i)), 1e-5) << i;
        // Refitted on the present cells, the gaps get the polynomial's value.
        EXPECT_NEAR(csv.rows[i][1], Cubic(static_cast<double>(i)), 1e-5) << i;
    }
}

TEST(VeltanSmooth, SlopeOfALineWithAStep)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(20));
    const nlohmann::json doc = RunJson(dir, {"smooth", dir.File("d.csv"), "--column", "line", "--window", "4",
                                             "--order", "2", "--derivative", "1", "--step", "0.5", "--json"});
    ExpectFields(doc, {{"command", "smooth"}, {"rows", 20}, {"window", 5}, {"window_asked", 4}, {"order", 2},
                       {"derivative", 1}, {"step", 0.5}, {"edges", false}, {"files", nlohmann::json::object()}});
    const nlohmann::json& column = doc["columns"][0];
    ExpectFields(column, {{"column", "line"}, {"missing", 0}, {"results", 16}});
    EXPECT_FALSE(column.contains("rms_removed"));
    ASSERT_EQ(column["values"].size(), 20u);
    for (int i : {0, 1, 18, 19})
        EXPECT_TRUE(column["values"][i].is_null()) << i;
    for (int i = 2; i < 18; ++i)
        EXPECT_NEAR(column["values"][i].get<double>(), 6.0, 1e-5) << i;
}

TEST(VeltanSmooth, MissingCellsAndTooFewPresentValues)
{
    TempDir dir;
    // Rows 3-5 missing by all three markers: the quadratic windows around
    // them keep too few values to be fitted.
    WriteFile(dir.File("d.csv"), "id,y\na,1\nb,2\nc,\nd,NA\ne,-99\nf,3\ng,4\nh,5\ni,6\n");
    const nlohmann::json doc = RunJson(dir, {"smooth", dir.File("d.csv"), "--column", "y", "--window", "3",
                                             "--order", "2", "--json"});
    const nlohmann::json& column = doc["columns"][0];
    EXPECT_EQ(column["missing"], 3);
    std::vector<int> empty;
    for (int i = 0; i < 9; ++i)
        if (column["values"][i].is_null())
            empty.push_back(i + 1);
    // Ends 1 and 9; the windows centred on 2 and 6 keep two values, those on
    // 3 to 5 one or none; a quadratic needs three.
    EXPECT_EQ(empty, (std::vector<int>{1, 2, 3, 4, 5, 6, 9}));
    EXPECT_EQ(column["results"], 2);
}

TEST(VeltanSmooth, ReportSaysWhatWasDone)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(30));
    const RunResult r = Veltan(dir, {"smooth", dir.File("d.csv"), "--column", "gappy", "--window", "6", "--order",
                                     "3", "--out", dir.File("s.csv")});
    EXPECT_THAT(r.out, testing::StartsWith("Smoothing of " + dir.File("d.csv") +
                                           " (Savitzky-Golay): 30 rows, window 7, cubic polynomial, ends left "
                                           "empty\n\nColumn    Missing  Results"));
    EXPECT_THAT(r.out, HasSubstr("\ngappy           3       24 "));
    EXPECT_THAT(r.out, HasSubstr("The window was widened from 6 to 7 points"));
    EXPECT_THAT(r.out, HasSubstr("The 3 points at each end have no centred window"));
    EXPECT_THAT(r.out, HasSubstr("a window with fewer than 4 present values gives no result."));
    EXPECT_THAT(r.out, HasSubstr("\n\nResults written to " + dir.File("s.csv") + "\n"));
    const RunResult d = Veltan(dir, {"smooth", dir.File("d.csv"), "--column", "cubic", "--window", "7", "--order",
                                     "3", "--derivative", "2", "--edges"});
    EXPECT_THAT(d.out, testing::StartsWith("Second derivative of "));
    EXPECT_THAT(d.out, HasSubstr("step 1, ends fitted\n"));
    EXPECT_THAT(d.out, Not(HasSubstr("RMS removed")));
    EXPECT_THAT(d.out, Not(HasSubstr("refitted")));
}

TEST(VeltanSmooth, PlotsTheSeriesWithItsCurveOrTheDerivative)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(40));
    Veltan(dir, {"smooth", dir.File("d.csv"), "--column", "cubic", "--column", "gappy", "--window", "5", "--order",
                 "2", "--plot", dir.File("s.svg")});
    XmlDocument svg = ParseXml(ReadFile(dir.File("s.svg")));
    ASSERT_EQ(svg.fault, "");
    // One mark per present value (40 + 37). The windows centred on rows 5-7
    // keep two of five values, too few for a quadratic, so the second curve
    // breaks there.
    EXPECT_EQ(ElementsOfClass(svg, "circle", "point").size(), 77u);
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 3u);

    Veltan(dir, {"smooth", dir.File("d.csv"), "--column", "line", "--window", "5", "--order", "2", "--derivative",
                 "1", "--plot", dir.File("d.svg")});
    svg = ParseXml(ReadFile(dir.File("d.svg")));
    ASSERT_EQ(svg.fault, "");
    EXPECT_EQ(ElementsOfClass(svg, "circle", "point").size(), 0u);
    EXPECT_EQ(ElementsOfClass(svg, "line", "level").size(), 1u);
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 1u);

    // A long series is drawn as a line, not as thousands of marks.
    WriteFile(dir.File("long.csv"), Table(3000));
    Veltan(dir, {"smooth", dir.File("long.csv"), "--column", "cubic", "--window", "5", "--order", "2", "--plot",
                 dir.File("l.svg")});
    svg = ParseXml(ReadFile(dir.File("l.svg")));
    EXPECT_EQ(ElementsOfClass(svg, "circle", "point").size(), 0u);
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 2u);
}

TEST(VeltanSmooth, RefusalsLeaveNoFile)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "id,x,t,empty\nr1,1,1,\nr2,2,two,\nr3,4,3,\nr4,5,6,\nr5,7,8,\n");
    const std::vector<std::string> base{"smooth", "{d}d.csv", "--out", "{d}o.csv", "--plot", "{d}p.svg"};
    const auto with = [&](const std::vector<std::string>& more) {
        std::vector<std::string> args = base;
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    struct Case {
        std::vector<std::string> args;
        std::string message;
        int code;
    };
    const Case cases[] = {
        {with({"--column", "x", "--window", "7", "--order", "2"}),
         "--window 7: {d}d.csv has 5 rows, fewer than the window", 2},
        {with({"--column", "x", "--window", "6", "--order", "2"}),
         "--window 6 (7 points): {d}d.csv has 5 rows, fewer than the window", 2},
        {with({"--column", "x", "--window", "3", "--order", "1", "--derivative", "2"}),
         "--derivative 2: above the polynomial order 1, whose fit has no such derivative", 2},
        {with({"--column", "zz", "--window", "3", "--order", "1"}), "--column: {d}d.csv has no column \"zz\"", 2},
        {with({"--column", "x", "--window", "0", "--order", "1"}), "--window 0: a window holds at least 1 point", 2},
        {with({"--column", "x", "--window", "3", "--order", "13"}),
         "--order 13: the polynomial order must be 0 to 12", 2},
        {with({"--column", "x", "--window", "3", "--order", "1", "--derivative", "-1"}),
         "--derivative -1: a derivative order is 0 or more", 2},
        {with({"--column", "x", "--window", "3", "--order", "1", "--step", "0"}),
         "--step 0: the spacing of the rows must be above 0", 2},
        {with({"--column", "x", "--window", "3", "--order", "1", "--step", "fast"}),
         "--step: \"fast\" is not a number", 2},
        {with({"--column", "t", "--window", "3", "--order", "1"}),
         "{d}d.csv: row 3, column 3 (\"t\"): \"two\" is not a number", 1},
        {with({"--column", "empty", "--window", "3", "--order", "1"}),
         "{d}d.csv: column 4 (\"empty\"): no value is present", 1},
        {{"smooth", "{d}none.csv", "--column", "x", "--window", "3", "--order", "1"},
         "{d}none.csv: cannot open: No such file or directory", 1},
    };
    for (const Case& c : cases)
        ExpectRefusal(dir, c.args, c.message, c.code);
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"smooth", dir.File("d.csv"), "--window", "3", "--order", "1"},
             {"smooth", dir.File("d.csv"), "--column", "x", "--order", "1"},
             {"smooth", dir.File("d.csv"), "--column", "x", "--window", "3"}}) {
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_THAT(r.err, HasSubstr("--help"));
    }
}

// Ctrl-C while a long table is read: exit 130, the cancel message and none
// of the requested files.
TEST(VeltanSmooth, InterruptLeavesNoFile)
{
    TempDir dir;
    {
        std::ofstream big(dir.File("big.csv"));
        big << "t,x\n";
        for (int i = 0; i < 2000000; ++i)
            big << i << "," << 10 + (i % 101) / 50.0 << "\n";
    }
    const pid_t pid = StartTool(dir, {"smooth", dir.File("big.csv"), "--column", "x", "--window", "11", "--order",
                                      "3", "--out", dir.File("o.csv"), "--plot", dir.File("p.svg")});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGINT);
    const RunResult r = WaitTool(dir, pid);
    EXPECT_EQ(r.exitCode, 130) << r.err;
    EXPECT_EQ(r.err, "veltan: Operation cancelled.\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}
