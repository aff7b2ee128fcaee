#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "cli/CsvTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <sstream>

using namespace cli_test;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string ReferenceCsv() { return std::string(VELTAN_TEST_SOURCE_DIR) + "/cli/reference/normality.csv"; }

// P(Z > z) for a standard normal Z.
double Upper(double z) { return 0.5 * std::erfc(z / std::sqrt(2.0)); }

// 8, 9, 10, 11, 12: mean 10, s = sqrt(2.5); the indices follow by hand.
const char* const Ramp = "obs,x\na,8\nb,9\nc,10\nd,11\ne,12\n";

// Report lines beginning with `label`.
std::string LineOf(const std::string& report, const std::string& label)
{
    for (const std::string& line : Lines(report))
        if (line.rfind(label, 0) == 0)
            return line;
    return "(no line " + label + ")";
}

} // namespace

// W and p of R's shapiro.test, computed once by tests/cli/reference/normality.R
// on the file it wrote. The library takes the normal quantile from the
// seven-digit algorithm and the tail from AS 66, so W agrees to a few parts
// in 1e8 and p to a few in 1e6; missing cells are left out as R's na.omit
// leaves them.
TEST(VeltanNormality, AgreesWithR)
{
    TempDir dir;
    const nlohmann::json doc = RunJson(dir, {"normality", ReferenceCsv(), "--json"});
    struct Expected {
        const char* column;
        int n;
        double w, p;
    };
    const Expected reference[] = {
        {"normal", 24, 0.9377723812833958, 0.14547782634442458},
        {"skewed", 24, 0.82301133588266651, 0.00071795555054536856},
        {"gappy", 20, 0.89311268718475212, 0.030691994372694688},
        {"three", 3, 0.8501170960187352, 0.24076327136052128},
        {"tied", 24, 0.8100115230069157, 0.00043135230516226452},
    };
    ASSERT_EQ(doc["columns"].size(), std::size(reference)) << doc.dump();
    for (std::size_t c = 0; c < std::size(reference); ++c) {
        const nlohmann::json& column = doc["columns"][c];
        const Expected& r = reference[c];
        EXPECT_EQ(column["column"], r.column);
        EXPECT_EQ(column["n"], r.n) << r.column;
        EXPECT_NEAR(column["w"].get<double>(), r.w, 5e-8 * r.w) << r.column;
        EXPECT_NEAR(column["p"].get<double>(), r.p, 5e-6 * r.p) << r.column;
        EXPECT_EQ(column["fault"], 0) << r.column;
        EXPECT_TRUE(column["note"].is_null()) << r.column;
    }
    EXPECT_EQ(doc["command"], "normality");
    EXPECT_EQ(doc["files"], nlohmann::json::object());

    // The table and the CSV say the same, the CSV to full precision.
    const RunResult r = Veltan(dir, {"normality", ReferenceCsv(), "--column", "skewed", "--column", "three", "--out",
                                     dir.File("n.csv")});
    EXPECT_THAT(LineOf(r.out, "skewed"), testing::MatchesRegex("skewed +24 +0\\.82301 +0\\.000718"));
    EXPECT_THAT(LineOf(r.out, "three"), testing::MatchesRegex("three +3 +0\\.85012 +0\\.2408"));
    EXPECT_THAT(r.out, HasSubstr("Results written to " + dir.File("n.csv")));
    const Csv csv = ParseCsv(ReadFile(dir.File("n.csv")));
    EXPECT_EQ(csv.header, (std::vector<std::string>{"column", "n", "w", "p", "fault", "note"}));
    ASSERT_EQ(csv.names, (std::vector<std::string>{"skewed", "three"}));
    EXPECT_NEAR(csv.rows[0][1], 0.82301133588266651, 5e-8);
}

// Every column gets a row; one that cannot be tested says why in words and
// leaves W and p out, and only a run where no column was tested fails.
TEST(VeltanNormality, FaultsInWords)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "id,good,flat,pair,typo,label\n"
                                 "r1,1.5,4,1,1,red\nr2,2.5,4,2,2,blue\nr3,2,4,,x3,red\nr4,4,4,,4,red\nr5,3.25,4,,5,\n");
    const RunResult r = Veltan(dir, {"normality", dir.File("d.csv")});
    EXPECT_THAT(LineOf(r.out, "good"), testing::MatchesRegex("good +5 +0\\.[0-9]{5} +0\\.[0-9]+"));
    EXPECT_THAT(LineOf(r.out, "flat"), testing::EndsWith("-          -  all values are equal"));
    EXPECT_THAT(LineOf(r.out, "pair"), HasSubstr("W is not defined for fewer than 3 values (2 values present)"));
    EXPECT_THAT(r.out, HasSubstr(dir.File("d.csv") + ": row 4, column 5 (\"typo\"): \"x3\" is not a number"));
    // A column of labels is not a numeric column, and is not listed.
    EXPECT_THAT(r.out, Not(HasSubstr("label")));
    EXPECT_THAT(r.out, Not(testing::ContainsRegex("nan|inf|-99")));

    const nlohmann::json doc = RunJson(dir, {"normality", dir.File("d.csv"), "--json"});
    ASSERT_EQ(doc["columns"].size(), 4u);
    EXPECT_EQ(doc["columns"][1]["fault"], 6);
    EXPECT_TRUE(doc["columns"][1]["w"].is_null());
    EXPECT_EQ(doc["columns"][2]["fault"], 1);
    EXPECT_TRUE(doc["columns"][3]["fault"].is_null()); // never reached the test
    EXPECT_THAT(doc["columns"][3]["note"].get<std::string>(), HasSubstr("\"x3\" is not a number"));
    EXPECT_EQ(doc["columns"][3]["n"], 4); // the numbers it does hold

    // Nothing testable: the one reason, or the first of several.
    ExpectRefusal(dir, {"normality", "{d}d.csv", "--column", "flat", "--out", "{d}o.csv"},
                  "{d}d.csv: column 3 (\"flat\"): all values are equal", 1);
    ExpectRefusal(dir, {"normality", "{d}d.csv", "--column", "pair", "--column", "typo", "--out", "{d}o.csv"},
                  "{d}d.csv: none of the 2 columns could be tested (the first: column 4 (\"pair\"): W is not defined "
                  "for fewer than 3 values (2 values present))",
                  1);
    ExpectRefusal(dir, {"normality", "{d}d.csv", "--column", "nope"}, "--column: {d}d.csv has no column \"nope\"", 2);
    WriteFile(dir.File("t.csv"), "a,b\nx,y\nz,w\n");
    ExpectRefusal(dir, {"normality", "{d}t.csv", "--names", "none"}, "{d}t.csv: no column holds numbers", 1);
}

// Past 5000 values the library still gives W and p but calls them
// approximate; the command passes the warning on.
TEST(VeltanNormality, LongColumnIsApproximate)
{
    TempDir dir;
    std::ostringstream csv;
    csv << "v\n";
    for (int i = 0; i < 5001; ++i)
        csv << (i * 37 % 101) * 0.25 + (i % 7) << "\n";
    WriteFile(dir.File("long.csv"), csv.str());
    const nlohmann::json doc = RunJson(dir, {"normality", dir.File("long.csv"), "--json"});
    const nlohmann::json& column = doc["columns"][0];
    EXPECT_EQ(column["n"], 5001);
    EXPECT_EQ(column["fault"], 2);
    EXPECT_TRUE(column["w"].is_number());
    EXPECT_TRUE(column["p"].is_number());
    EXPECT_EQ(column["note"], "more than 5000 values: W and p are approximate");
}

// 8..12 against LSL 8.5, USL 13 and target 11: s = sqrt(2.5), Cp = 4.5 / 6s,
// Cpu = 3 / 3s, Cpl = 1.5 / 3s, Cpm = 4.5 / (6 sqrt(15 / 4)); one value of five
// below the LSL; the expected PPM from the normal tails; W and p of the
// evenly spaced ramp from R (0.98676215544771939, 0.9671739359680398).
TEST(VeltanCapability, HandCheckedIndices)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Ramp);
    const nlohmann::json doc = RunJson(dir, {"capability", dir.File("d.csv"), "--column", "x", "--lsl", "8.5",
                                             "--usl", "13", "--target", "11", "--json"});
    const double s = std::sqrt(2.5);
    EXPECT_NEAR(doc["mean"].get<double>(), 10.0, 1e-9);
    EXPECT_NEAR(doc["std_dev"].get<double>(), s, 1e-6);
    EXPECT_NEAR(doc["cp"].get<double>(), 4.5 / (6 * s), 1e-6);
    EXPECT_NEAR(doc["cpu"].get<double>(), 3.0 / (3 * s), 1e-6);
    EXPECT_NEAR(doc["cpl"].get<double>(), 1.5 / (3 * s), 1e-6);
    EXPECT_NEAR(doc["cpk"].get<double>(), 1.5 / (3 * s), 1e-6);
    EXPECT_NEAR(doc["cpm"].get<double>(), 4.5 / (6 * std::sqrt(15.0 / 4.0)), 1e-6);
    EXPECT_NEAR(doc["ppm_observed"].get<double>(), 200000.0, 1e-6);
    EXPECT_NEAR(doc["ppm_expected"].get<double>(), (1.0 - Upper(-1.5 / s) + Upper(3.0 / s)) * 1e6, 0.01);
    EXPECT_NEAR(doc["ppm_expected"].get<double>(), 200280.64113575430, 0.01); // R's pnorm
    EXPECT_NEAR(doc["w"].get<double>(), 0.98676215544771939, 5e-8);
    EXPECT_NEAR(doc["p"].get<double>(), 0.9671739359680398, 5e-6);
    ExpectFields(doc, {{"command", "capability"}, {"column", "x"}, {"n", 5}, {"lsl", 8.5}, {"usl", 13.0},
                       {"target", 11.0}, {"reference", nullptr}, {"not_computed", nlohmann::json::object()}});
    // The overall (long-term) fields are never computed, so never shown.
    for (const char* key : {"pp", "ppk", "ppl", "ppu", "ppm", "expected_overall_ppm"})
        EXPECT_FALSE(doc.contains(key)) << key;

    const RunResult r = Veltan(dir, {"capability", dir.File("d.csv"), "--column", "x", "--lsl", "8.5", "--usl", "13",
                                     "--target", "11", "--out", dir.File("c.csv")});
    EXPECT_EQ(LineOf(r.out, "Capability"),
              "Capability of \"x\" in " + dir.File("d.csv") + ": 5 values; LSL 8.5, USL 13, target 11");
    EXPECT_EQ(LineOf(r.out, "Cp "), "Cp                     0.4743");
    EXPECT_EQ(LineOf(r.out, "Cpk"), "Cpk                    0.3162");
    EXPECT_EQ(LineOf(r.out, "PPM observed"), "PPM observed           200000.00");
    EXPECT_EQ(LineOf(r.out, "Shapiro-Wilk W"), "Shapiro-Wilk W         0.98676");
    const Csv csv = ParseCsv(ReadFile(dir.File("c.csv")));
    ASSERT_EQ(csv.names.size(), 16u);
    EXPECT_EQ(csv.names[7], "cp");
    EXPECT_NEAR(csv.rows[7][0], 4.5 / (6 * s), 1e-6);
    EXPECT_EQ(csv.names[4], "reference_mean");
    EXPECT_TRUE(std::isnan(csv.rows[4][0])); // empty: no reference
}

// One limit gives the one-sided indices; reversed limits put every value
// outside the limits; each missing index says what it needs.
TEST(VeltanCapability, OneLimitAndReversedLimits)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Ramp);
    const double s = std::sqrt(2.5);
    nlohmann::json doc = RunJson(dir, {"capability", dir.File("d.csv"), "--column", "x", "--usl", "13", "--json"});
    EXPECT_NEAR(doc["cpk"].get<double>(), 1.0 / s, 1e-6);
    EXPECT_EQ(doc["cpk"], doc["cpu"]);
    EXPECT_EQ(doc["not_computed"], nlohmann::json({{"cp", "needs --lsl and --usl"},
                                                   {"cpl", "needs --lsl"},
                                                   {"cpm", "needs --target, --lsl and --usl"}}));
    EXPECT_NEAR(doc["ppm_expected"].get<double>(), Upper(3.0 / s) * 1e6, 0.01);
    EXPECT_EQ(doc["ppm_observed"], 0.0);

    // No limit at all: nothing but the location, spread and normality.
    const RunResult bare = Veltan(dir, {"capability", dir.File("d.csv"), "--column", "x"});
    EXPECT_EQ(LineOf(bare.out, "Cpk"), "Cpk                    not computed (needs --lsl or --usl)");
    EXPECT_EQ(LineOf(bare.out, "PPM observed"), "PPM observed           not computed (needs --lsl or --usl)");
    EXPECT_EQ(LineOf(bare.out, "PPM expected"), "PPM expected (normal)  not computed (needs --lsl or --usl)");
    EXPECT_THAT(bare.out, Not(testing::ContainsRegex("nan|inf|-99")));

    doc = RunJson(dir, {"capability", dir.File("d.csv"), "--column", "x", "--lsl", "13", "--usl", "8.5", "--target",
                        "10", "--json"});
    EXPECT_TRUE(doc["cp"].is_null());
    EXPECT_EQ(doc["not_computed"]["cp"], "the limits are reversed");
    EXPECT_EQ(doc["not_computed"]["cpm"], "the limits are reversed");
    EXPECT_EQ(doc["ppm_observed"], 1e6);
    EXPECT_EQ(doc["ppm_expected"], 1e6);
    EXPECT_NEAR(doc["cpu"].get<double>(), -1.5 / (3 * s), 1e-6);
    const RunResult reversed =
        Veltan(dir, {"capability", dir.File("d.csv"), "--column", "x", "--lsl", "13", "--usl", "8.5"});
    EXPECT_THAT(reversed.out, HasSubstr("The limits are reversed (LSL above USL)"));
    EXPECT_EQ(LineOf(reversed.out, "PPM expected"), "PPM expected (normal)  1000000.00");

    // A constant column has no spread: the indices say so and W is left out.
    WriteFile(dir.File("flat.csv"), "x\n5\n5\n5\n5\n");
    doc = RunJson(dir, {"capability", dir.File("flat.csv"), "--column", "x", "--lsl", "4", "--usl", "6", "--json"});
    EXPECT_EQ(doc["not_computed"]["cp"], "the values do not vary");
    EXPECT_EQ(doc["not_computed"]["w"], "all values are equal");
    EXPECT_EQ(doc["ppm_observed"], 0.0);
}

// The reference series is the column of the same name in another file; its
// mean is reported beside the data's.
TEST(VeltanCapability, ReferenceFile)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Ramp);
    WriteFile(dir.File("ref.csv"), "batch,other,x\nb1,1,9.5\nb2,2,\nb3,3,10.5\nb4,4,11.5\n");
    const nlohmann::json doc = RunJson(dir, {"capability", dir.File("d.csv"), "--column", "x", "--lsl", "7",
                                             "--reference", dir.File("ref.csv"), "--json"});
    EXPECT_EQ(doc["reference"], nlohmann::json({{"data", dir.File("ref.csv")}, {"n", 3}, {"mean", 10.5}}));
    EXPECT_NEAR(doc["mean"].get<double>(), 10.0, 1e-9); // the data's own mean still drives the indices
    const RunResult r =
        Veltan(dir, {"capability", dir.File("d.csv"), "--column", "x", "--reference", dir.File("ref.csv")});
    EXPECT_EQ(LineOf(r.out, "Reference mean"), "Reference mean         10.5  (" + dir.File("ref.csv") + ", 3 values)");
}

// Shared bins for two columns, worked out by hand: 12 values, 6 per series,
// start 1.0, width 8 / sqrt(5) = 3.58 rounded down to 3.5, three bins. The
// shorter column is padded, and its missing cell counts nowhere.
TEST(VeltanHistogram, SharedBinsForTwoColumns)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "a,b\n1,2\n2,3\n3,3\n4,4\n5,8\n6,9\n,1.5\n");
    const nlohmann::json doc = RunJson(dir, {"histogram", dir.File("d.csv"), "--column", "a", "--column", "b",
                                             "--json", "--out", dir.File("h.csv"), "--plot", dir.File("h.svg")});
    EXPECT_EQ(doc["start"], 1.0);
    EXPECT_EQ(doc["width"], 3.5);
    EXPECT_EQ(doc["columns"], nlohmann::json::parse(R"([{"column":"a","n":6},{"column":"b","n":7}])"));
    ASSERT_EQ(doc["bins"].size(), 3u);
    EXPECT_EQ(doc["bins"][0], nlohmann::json::parse(R"({"bin":1,"centre":2.75,"from":1.0,"to":4.5,"counts":[4,5]})"));
    EXPECT_EQ(doc["bins"][1]["counts"], nlohmann::json::parse("[2,0]"));
    EXPECT_EQ(doc["bins"][2], nlohmann::json::parse(R"({"bin":3,"centre":9.75,"from":8.0,"to":11.5,"counts":[0,2]})"));
    EXPECT_EQ(doc["files"], nlohmann::json({{"out", dir.File("h.csv")}, {"plot", dir.File("h.svg")}}));

    const Csv csv = ParseCsv(ReadFile(dir.File("h.csv")));
    EXPECT_EQ(csv.header, (std::vector<std::string>{"bin", "centre", "from", "to", "a", "b"}));
    ASSERT_EQ(csv.rows.size(), 3u);
    EXPECT_EQ(csv.rows[1], (std::vector<double>{6.25, 4.5, 8.0, 2.0, 0.0}));

    // The plot: one see-through bar per bin and column, a legend entry each.
    const XmlDocument svg = ParseXml(ReadFile(dir.File("h.svg")));
    ASSERT_EQ(svg.fault, "");
    const std::vector<XmlElement> bars = ElementsOfClass(svg, "rect", "bar");
    ASSERT_EQ(bars.size(), 6u);
    for (const XmlElement& bar : bars)
        EXPECT_EQ(bar.attributes.at("fill-opacity"), "0.40");
    // Bars of one bin share their left edge: the columns overlay.
    EXPECT_EQ(bars[0].attributes.at("x"), bars[3].attributes.at("x"));
    EXPECT_EQ(bars[0].attributes.at("width"), bars[3].attributes.at("width"));
    std::string text;
    for (const XmlElement& e : svg.elements)
        text += e.text + "\n";
    EXPECT_THAT(text, HasSubstr("a (6 values)"));
    EXPECT_THAT(text, HasSubstr("b (7 values)"));

    const RunResult r = Veltan(dir, {"histogram", dir.File("d.csv"), "--column", "a", "--column", "b"});
    EXPECT_THAT(r.out, HasSubstr("2 columns sharing 3 bins of width 3.5 from 1\n"));
    EXPECT_THAT(r.out, HasSubstr("\n   2        6.25         4.5           8       2       0\n"));
    // One column alone gets bins of its own: width 5 / sqrt(5) = 2.24, rounded
    // down to 2, so [1, 3), [3, 5) and [5, 7) with two values each.
    const RunResult alone = Veltan(dir, {"histogram", dir.File("d.csv"), "--column", "a"});
    EXPECT_THAT(alone.out, testing::StartsWith("Histogram of \"a\" in " + dir.File("d.csv") +
                                               ": 3 bins of width 2 from 1\n"));
    EXPECT_THAT(alone.out, HasSubstr("\n   3           6           5           7       2\n"));
}

// The capability plot: bars of the bin width, the fitted normal curve in
// counts per bin, and a guide with its caption for each limit and target.
TEST(VeltanCapability, PlotParsesAndShowsLimits)
{
    TempDir dir;
    const RunResult r = Veltan(dir, {"capability", WineCsv(), "--column", "Alcohol", "--lsl", "11.5", "--usl",
                                     "14.5", "--target", "13", "--plot", dir.File("c.svg")});
    EXPECT_THAT(r.out, HasSubstr("Capability plot written to " + dir.File("c.svg")));
    const XmlDocument svg = ParseXml(ReadFile(dir.File("c.svg")));
    ASSERT_EQ(svg.fault, "");
    EXPECT_EQ(ElementsOfClass(svg, "line", "guide").size(), 3u);
    std::vector<std::string> captions;
    for (const XmlElement& e : ElementsOfClass(svg, "text", "guide-label"))
        captions.push_back(e.text);
    EXPECT_EQ(captions, (std::vector<std::string>{"LSL 11.5", "target 13", "USL 14.5"}));
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 1u);
    // The wine alcohols, 11.03 to 14.83, fall into bins of 0.25 from 11.
    EXPECT_EQ(ElementsOfClass(svg, "rect", "bar").size(), 16u);
}

// Bad input: one line naming what is wrong, exit 1 for data and 2 for
// usage, and none of the requested files left behind.
TEST(VeltanStats, RefusalsLeaveNoFile)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "id,x,t,few,empty\nr1,1,1,3,\nr2,2,two,,\nr3,4,3,,\n");
    WriteFile(dir.File("ref.csv"), "y\n1\n2\n");
    WriteFile(dir.File("reftext.csv"), "x\n1\nabc\n");
    const std::vector<std::string> capability{"capability", "{d}d.csv", "--out", "{d}o.csv", "--plot", "{d}p.svg"};
    const auto with = [](std::vector<std::string> args, const std::vector<std::string>& more) {
        args.insert(args.end(), more.begin(), more.end());
        return args;
    };
    struct Case {
        std::vector<std::string> args;
        std::string message;
        int code;
    };
    const Case cases[] = {
        {with(capability, {"--column", "t"}), "{d}d.csv: row 3, column 3 (\"t\"): \"two\" is not a number", 1},
        {with(capability, {"--column", "few"}),
         "{d}d.csv: column 4 (\"few\"): 1 value present; a capability study needs at least 2 (for a standard "
         "deviation)",
         1},
        {with(capability, {"--column", "empty"}),
         "{d}d.csv: column 5 (\"empty\"): 0 values present; a capability study needs at least 2 (for a standard "
         "deviation)",
         1},
        {with(capability, {"--column", "x", "--lsl", "low"}), "--lsl: \"low\" is not a number", 2},
        {with(capability, {"--column", "x", "--usl", "nan"}), "--usl: \"nan\" is not a number", 2},
        {with(capability, {"--column", "x", "--target", "1e999"}), "--target: \"1e999\" is not a number", 2},
        {with(capability, {"--column", "x", "--lsl", "-99"}),
         "--lsl: -99 marks a value as missing and cannot be given here", 2},
        {with(capability, {"--column", "zz"}), "--column: {d}d.csv has no column \"zz\"", 2},
        {with(capability, {"--column", "x", "--reference", "{d}ref.csv"}),
         "{d}ref.csv: no column \"x\" (the reference series is the column of the same name as --column)", 1},
        {with(capability, {"--column", "x", "--reference", "{d}reftext.csv"}),
         "{d}reftext.csv: row 3, column 1 (\"x\"): \"abc\" is not a number", 1},
        {with(capability, {"--column", "x", "--reference", "{d}none.csv"}),
         "{d}none.csv: cannot open: No such file or directory", 1},
        {{"histogram", "{d}d.csv", "--column", "x", "--column", "t", "--out", "{d}o.csv", "--plot", "{d}p.svg"},
         "{d}d.csv: row 3, column 3 (\"t\"): \"two\" is not a number", 1},
        {{"histogram", "{d}d.csv", "--column", "empty", "--plot", "{d}p.svg"},
         "{d}d.csv: column \"empty\" has no values", 1},
        {{"histogram", "{d}d.csv", "--column", "few", "--column", "empty", "--plot", "{d}p.svg"},
         "{d}d.csv: too few values to choose bins: 1 in 2 columns (at least one per column is needed)", 1},
        {{"normality", "{d}d.csv", "--column", "t", "--out", "{d}o.csv"},
         "{d}d.csv: row 3, column 3 (\"t\"): \"two\" is not a number", 1},
    };
    for (const Case& c : cases)
        ExpectRefusal(dir, c.args, c.message, c.code);
    // Without DATA or a required --column, the usage error of every command.
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"capability", dir.File("d.csv")}, {"histogram", dir.File("d.csv")}, {"normality"}}) {
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << args[0];
        EXPECT_THAT(r.err, HasSubstr("--help")) << args[0];
    }
}

// The lenient reading keeps a text cell as missing and says where it was;
// the strict one, which every other command uses, still refuses it.
TEST(VeltanStats, TextCellsKeptWhereAsked)
{
    const char* const text = "id,a,b\nr1,1,x\nr2,zz,2\nr3,3,4\n";
    EXPECT_THROW(veltan_cli::ParseCsvTable(text, "t.csv"), std::runtime_error);
    const veltan_cli::DataTable table = veltan_cli::ParseCsvTable(text, "t.csv", veltan_cli::NamesColumn::Auto, true);
    ASSERT_EQ(table.textCells.size(), 2u);
    EXPECT_EQ(table.textCells[0].observation, 1);
    EXPECT_EQ(table.textCells[0].variable, 2);
    EXPECT_EQ(table.textCells[0].problem, "\"x\" is not a number");
    EXPECT_EQ(table.Where(table.textCells[1].observation, table.textCells[1].variable),
              "t.csv: row 3, column 2 (\"a\")");
    EXPECT_EQ(table.values[2][1], -99.0f);
    EXPECT_EQ(table.values[3][2], 4.0f);
}
