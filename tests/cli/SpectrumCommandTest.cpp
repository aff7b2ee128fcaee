#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "signal/fixtures/SpectraReference.inc"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

using namespace cli_test;

namespace {

// Every float as the shortest text that reads back as the same float.
std::string Exact(float v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.9g", static_cast<double>(v));
    return buffer;
}

// The reference series as columns "x" and "y" beside a name column and a
// label column, which the command must leave alone. Rows listed in `gaps`
// get an empty x cell, NA and -99 in turn.
std::string ReferenceTable(const std::vector<int>& gaps = {})
{
    std::string csv = "obs,x,y,label\n";
    int gap = 0;
    for (std::size_t i = 0; i < std::size(sref::Series); ++i) {
        std::string x = Exact(sref::Series[i]);
        if (std::find(gaps.begin(), gaps.end(), static_cast<int>(i) + 1) != gaps.end())
            x = std::vector<std::string>{"", "NA", "-99"}[static_cast<std::size_t>(gap++ % 3)];
        csv += "r" + std::to_string(i + 1) + "," + x + "," + Exact(sref::Other[i]) + ",t" + std::to_string(i) + "\n";
    }
    return csv;
}

template <std::size_t N>
void ExpectValues(const nlohmann::json& values, const double (&want)[N], double tolerance, const char* what)
{
    ASSERT_EQ(values.size(), N) << what;
    for (std::size_t k = 0; k < N; ++k)
        EXPECT_NEAR(values[k].get<double>(), want[k], tolerance * std::max(1.0, std::abs(want[k])))
            << what << ", index " << k;
}

} // namespace

// The tool's numbers are the library's, and those agree with numpy and
// scipy (tests/reference/spectra.py): the table's columns reach the
// transforms whole and in file order.
TEST(VeltanSpectrum, AgreesWithNumpyAndScipy)
{
    TempDir dir;
    WriteFile(dir.File("s.csv"), ReferenceTable());
    const std::string data = dir.File("s.csv");
    nlohmann::json doc = RunJson(dir, {"spectrum", data, "--column", "x", "--acf", "40", "--json"});
    EXPECT_EQ(doc["kind"], "autocorrelation");
    EXPECT_EQ(doc["lags"].size(), 41u);
    ExpectValues(doc["columns"][0]["values"], sref::Acf1, 2e-6, "acf");

    doc = RunJson(dir, {"spectrum", data, "--column", "x", "--ccf", "y", "--max-lag", "40", "--detrend", "linear",
                        "--json"});
    EXPECT_EQ(doc["lags"][0], -40);
    ExpectValues(doc["columns"][0]["values"], sref::Ccf2, 2e-6, "ccf");

    doc = RunJson(dir, {"spectrum", data, "--column", "x", "--power", "32", "--overlap", "--json"});
    EXPECT_EQ(doc["segments"], 12);
    EXPECT_EQ(doc["padded"], 208);
    EXPECT_DOUBLE_EQ(doc["frequencies"][16].get<double>(), 0.5);
    ExpectValues(doc["columns"][0]["values"], sref::WelchOverlapHannDensity, 1e-5, "welch hann");

    doc = RunJson(dir, {"spectrum", data, "--column", "x", "--power", "32", "--window", "rect", "--json"});
    ExpectValues(doc["columns"][0]["values"], sref::WelchApartBoxcarDensity, 1e-5, "welch boxcar");
}

TEST(VeltanSpectrum, MissingCellsAreInterpolated)
{
    TempDir dir;
    WriteFile(dir.File("gaps.csv"), ReferenceTable({1, 50, 51, 52, 200}));
    // The same column with the gaps filled in by hand: rows 50-52 lie on
    // the line from row 49 to row 53, rows 1 and 200 repeat their neighbour.
    std::vector<float> filled(std::begin(sref::Series), std::end(sref::Series));
    filled[0] = filled[1];
    filled[199] = filled[198];
    for (int i = 50; i <= 52; ++i)
        filled[static_cast<std::size_t>(i - 1)] = static_cast<float>(
            sref::Series[48] + (i - 49) / 4.0 * (static_cast<double>(sref::Series[52]) - sref::Series[48]));
    std::string csv = "x\n";
    for (float v : filled)
        csv += Exact(v) + "\n";
    WriteFile(dir.File("filled.csv"), csv);

    for (const std::vector<std::string>& what : {std::vector<std::string>{"--acf", "30"},
                                                 std::vector<std::string>{"--power", "16", "--overlap"}}) {
        std::vector<std::string> gappy{"spectrum", dir.File("gaps.csv"), "--column", "x", "--json"};
        std::vector<std::string> whole{"spectrum", dir.File("filled.csv"), "--column", "x", "--json"};
        gappy.insert(gappy.end(), what.begin(), what.end());
        whole.insert(whole.end(), what.begin(), what.end());
        const nlohmann::json a = RunJson(dir, gappy), b = RunJson(dir, whole);
        EXPECT_EQ(a["columns"][0]["missing"], 5);
        EXPECT_EQ(a["columns"][0]["values"], b["columns"][0]["values"]) << what[0];
    }
    const RunResult r = Veltan(dir, {"spectrum", dir.File("gaps.csv"), "--column", "x", "--column", "y", "--acf", "3"});
    EXPECT_THAT(r.out, testing::HasSubstr("\"x\": 5 missing values interpolated"));
    EXPECT_THAT(r.out, testing::Not(testing::HasSubstr("\"y\":")));
    EXPECT_THAT(r.out, testing::Not(testing::ContainsRegex("nan|inf|-99")));
}

TEST(VeltanSpectrum, TableCsvAndPlot)
{
    TempDir dir;
    WriteFile(dir.File("s.csv"), ReferenceTable());
    RunResult r = Veltan(dir, {"spectrum", dir.File("s.csv"), "--column", "x", "--column", "y", "--acf", "5",
                               "--out", dir.File("acf.csv"), "--plot", dir.File("acf.svg")});
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GE(lines.size(), 10u);
    EXPECT_EQ(lines[0], "Autocorrelation of " + dir.File("s.csv") + ", 200 rows, mean removed");
    EXPECT_THAT(lines[2], testing::MatchesRegex(" +Lag +x +y"));
    EXPECT_THAT(lines[3], testing::MatchesRegex(" +0 +1 +1"));
    EXPECT_EQ(lines.back(), "Plot written to " + dir.File("acf.svg"));

    const Csv csv = ParseCsv(ReadFile(dir.File("acf.csv")));
    EXPECT_EQ(csv.header, (std::vector<std::string>{"lag", "x", "y"}));
    ASSERT_EQ(csv.rows.size(), 6u);
    EXPECT_EQ(csv.names[5], "5");
    EXPECT_NEAR(csv.rows[1][0], sref::Acf1[1], 2e-6);

    const XmlDocument svg = ParseXml(ReadFile(dir.File("acf.svg")));
    ASSERT_EQ(svg.fault, "");
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 2u);
    EXPECT_EQ(ElementsOfClass(svg, "line", "level").size(), 2u); // the white-noise band

    Veltan(dir, {"spectrum", dir.File("s.csv"), "--column", "x", "--power", "64", "--window", "parabolic", "--out",
                 dir.File("p.csv"), "--plot", dir.File("p.svg")});
    const Csv spectrum = ParseCsv(ReadFile(dir.File("p.csv")));
    EXPECT_EQ(spectrum.header, (std::vector<std::string>{"bin", "frequency", "x"}));
    ASSERT_EQ(spectrum.rows.size(), 33u);
    EXPECT_DOUBLE_EQ(spectrum.rows[32][0], 0.5);
    const XmlDocument plot = ParseXml(ReadFile(dir.File("p.svg")));
    ASSERT_EQ(plot.fault, "");
    EXPECT_EQ(ElementsOfClass(plot, "polyline", "line").size(), 1u);
    EXPECT_TRUE(ElementsOfClass(plot, "line", "level").empty());
}

TEST(VeltanSpectrum, FaultsInOneLine)
{
    TempDir dir;
    WriteFile(dir.File("s.csv"), ReferenceTable({3}));
    WriteFile(dir.File("empty.csv"), "a,b\n-99,1\nNA,2\n");
    WriteFile(dir.File("one.csv"), "x\n3\n");
    const std::string data = dir.File("s.csv");
    struct Fault {
        std::vector<std::string> args;
        int code;
        std::string message;
    };
    const std::vector<Fault> faults{
        {{data, "--column", "x", "--power", "6"}, 2, "--power 6: the segment length must be a power of two"},
        {{data, "--column", "x", "--power", "1"}, 2, "--power 1: the segment length must be a power of two"},
        {{data, "--column", "z", "--acf", "3"}, 2, "--column: " + data + " has no column \"z\""},
        {{data, "--column", "x", "--ccf", "z", "--max-lag", "3"}, 2, "--ccf: " + data + " has no column \"z\""},
        {{data, "--column", "x", "--acf", "201"}, 2,
         "--acf 201: " + data + " has 200 rows, so the lags run to at most 200"},
        {{data, "--column", "x", "--ccf", "y", "--max-lag", "300"}, 2, "--max-lag 300: " + data + " has 200 rows"},
        {{data, "--column", "x", "--acf", "-2"}, 2, "--acf -2: a lag is 0 or more"},
        {{data, "--column", "x", "--power", "512"}, 2,
         "--power 512: " + data + " has 200 rows; a segment holds at most 256 (the rows rounded up to a power of two)"},
        {{data, "--column", "x"}, 2, "give exactly one of --acf MAXLAG, --ccf OTHER --max-lag L and --power M"},
        {{data, "--column", "x", "--acf", "3", "--power", "8"}, 2, "give exactly one of"},
        {{data, "--column", "x", "--ccf", "y"}, 2, "--ccf y: give the largest lag with --max-lag L"},
        {{data, "--column", "x", "--acf", "3", "--max-lag", "3"}, 2, "--max-lag: the lags of --acf"},
        {{data, "--column", "x", "--acf", "3", "--overlap"}, 2, "--overlap: only --power has segments"},
        {{dir.File("one.csv"), "--column", "x", "--power", "2", "--overlap"}, 2,
         "--power 2 --overlap: " + dir.File("one.csv") + " has 1 row; overlapping segments of 2 need more than 1"},
        {{data, "--column", "label", "--acf", "3"}, 1, "column 4 (\"label\"): \"t0\" is not a number"},
        {{dir.File("empty.csv"), "--column", "a", "--acf", "1"}, 1, "column 1 (\"a\"): every value is missing"},
        {{dir.File("none.csv"), "--column", "a", "--acf", "1"}, 1, "none.csv"},
    };
    for (const Fault& f : faults) {
        std::vector<std::string> args{"spectrum"};
        args.insert(args.end(), f.args.begin(), f.args.end());
        const RunResult r = Veltan(dir, args, f.code);
        EXPECT_THAT(r.err, testing::HasSubstr(f.message)) << f.args[3];
        EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(r.out, "");
    }
    // A name outside the choices is refused by the option parser, with its hint.
    const RunResult r = Veltan(dir, {"spectrum", data, "--column", "x", "--acf", "3", "--detrend", "cubic"}, 2);
    EXPECT_THAT(r.err, testing::HasSubstr("--detrend: cubic not in {none,mean,linear}"));
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"empty.csv", "one.csv", "s.csv"}));
}
