// `veltan wavelet`: the library's coefficients and denoising reach the
// user whole (checked against PyWavelets), the report, CSV and plot, the
// refusals and Ctrl-C.
#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "signal/fixtures/WaveletReference.inc"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <thread>

using namespace cli_test;
using testing::HasSubstr;

namespace {

std::string Exact(float v)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.9g", static_cast<double>(v));
    return buffer;
}

// Columns x (the reference series, with gaps at the rows listed), s (a
// sine of period 16 rows) and a label column.
std::string ReferenceTable(const std::vector<int>& gaps = {})
{
    std::string csv = "obs,x,s,label\n";
    for (int i = 0; i < wref::Length; ++i) {
        const bool gap = std::find(gaps.begin(), gaps.end(), i + 1) != gaps.end();
        csv += "r" + std::to_string(i + 1) + "," + (gap ? "NA" : Exact(wref::Series[i])) + "," +
               Exact(static_cast<float>(std::sin(6.283185307179586 * i / 16.0))) + ",t" + std::to_string(i) + "\n";
    }
    return csv;
}

void ExpectNear(const nlohmann::json& values, const double* want, int count, double relative, const char* what)
{
    ASSERT_EQ(values.size(), static_cast<std::size_t>(count)) << what;
    for (int k = 0; k < count; ++k)
        EXPECT_NEAR(values[static_cast<std::size_t>(k)].get<double>(), want[k], relative * std::abs(want[k]) + 1e-6)
            << what << ", index " << k;
}

const wref::Case& CaseOf(const std::string& pywt)
{
    for (const wref::Case& c : wref::Cases)
        if (pywt == c.pywt)
            return c;
    throw std::runtime_error("no case " + pywt);
}

} // namespace

TEST(VeltanWavelet, AgreesWithPyWavelets)
{
    TempDir dir;
    WriteFile(dir.File("w.csv"), ReferenceTable());
    const std::string data = dir.File("w.csv");
    for (const auto& [filter, pywt] : {std::pair{"Daubechies8", "db4"}, std::pair{"Coiflet2", "coif2"},
                                       std::pair{"Biorthogonal5", "bior3.3"}}) {
        const nlohmann::json doc = RunJson(
            dir, {"wavelet", data, "--column", "x", "--filter", filter, "--level", "8", "--detrend", "none", "--json"});
        EXPECT_EQ(doc["levels"], 8);
        ExpectNear(doc["columns"][0]["coefficients"], CaseOf(pywt).packed, wref::Length, 1e-6, pywt);
    }
    const nlohmann::json doc = RunJson(dir, {"wavelet", data, "--column", "x", "--filter", "Symmlet8", "--level",
                                             "6", "--detrend", "none", "--denoise", "hard", "--json"});
    EXPECT_EQ(doc["denoise"], "hard");
    EXPECT_NEAR(doc["columns"][0]["threshold"].get<double>(), wref::Denoised_sym8_hardThreshold, 1e-6);
    ExpectNear(doc["columns"][0]["denoised"], wref::Denoised_sym8_hard, wref::Length, 1e-5, "denoised");
    EXPECT_FALSE(doc["columns"][0].contains("coefficients"));
}

TEST(VeltanWavelet, ReportCsvAndPlot)
{
    TempDir dir;
    WriteFile(dir.File("w.csv"), ReferenceTable({3, 4, 100}));
    const std::string data = dir.File("w.csv");
    RunResult r = Veltan(dir, {"wavelet", data, "--column", "x", "--column", "s", "--filter", "Symmlet6", "--out",
                               dir.File("c.csv"), "--plot", dir.File("p.svg")});
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GE(lines.size(), 14u) << r.out;
    EXPECT_EQ(lines[0], "Wavelet transform of " + data + ", 256 rows, mean removed");
    // Default depth: the smooth of 256 / 2^4 = 16 values still holds 12 taps.
    EXPECT_EQ(lines[1], "Filter Symmlet 6 (12 taps, orthogonal), 4 levels, periodic");
    EXPECT_EQ(lines[2], "\"x\": 3 missing values interpolated");
    EXPECT_THAT(lines[5], testing::MatchesRegex(" +Level +Coefficients +Periods \\(rows\\) +x +s"));
    EXPECT_THAT(lines[6], testing::MatchesRegex(" +1 +128 +2-4 .*"));
    EXPECT_THAT(lines[10], testing::MatchesRegex(" +smooth +16 +> 32 .*"));
    // The sine of period 16 lies on the border of levels 3 and 4: together
    // they carry nearly all of it.
    std::istringstream three(lines[8].substr(lines[8].size() - 12)), four(lines[9].substr(lines[9].size() - 12));
    double share3 = 0.0, share4 = 0.0;
    three >> share3;
    four >> share4;
    EXPECT_GT(share3 + share4, 0.95);
    EXPECT_EQ(lines.back(), "Plot written to " + dir.File("p.svg"));

    const Csv csv = ParseCsv(ReadFile(dir.File("c.csv")));
    EXPECT_EQ(csv.header, (std::vector<std::string>{"band", "position", "x", "s"}));
    ASSERT_EQ(csv.rows.size(), 256u);
    EXPECT_EQ(csv.names[0], "smooth");
    EXPECT_EQ(csv.names[16], "d4");
    EXPECT_EQ(csv.names[255], "d1");
    EXPECT_EQ(csv.rows[255][0], 128.0); // position within the band

    const XmlDocument svg = ParseXml(ReadFile(dir.File("p.svg")));
    ASSERT_EQ(svg.fault, "");
    EXPECT_EQ(ElementsOfClass(svg, "rect", "bar").size(), 10u); // 4 levels and the smooth, twice
    EXPECT_EQ(ElementsOfClass(svg, "circle", "point").size(), 2u * 256u - 3u);
    EXPECT_EQ(ElementsOfClass(svg, "polyline", "line").size(), 2u);

    // Denoised: one row per row of the table, named as in it.
    r = Veltan(dir, {"wavelet", data, "--column", "s", "--filter", "Symmlet8", "--denoise", "hard", "--out",
                     dir.File("d.csv")});
    EXPECT_THAT(r.out, HasSubstr("Hard thresholds of the details"));
    EXPECT_THAT(r.out, testing::ContainsRegex("\ns +[0-9.e-]+ +[0-9.e-]+ +[0-9]+ of 240\n"));
    EXPECT_EQ(Lines(r.out).back(), "Denoised series written to " + dir.File("d.csv"));
    const Csv denoised = ParseCsv(ReadFile(dir.File("d.csv")));
    EXPECT_EQ(denoised.header, (std::vector<std::string>{"obs", "s_denoised"}));
    ASSERT_EQ(denoised.rows.size(), 256u);
    EXPECT_EQ(denoised.names[255], "r256");
    // A clean sine survives hard thresholding nearly whole: with 16 taps
    // little of it leaks into level 1, which sets the threshold.
    for (std::size_t i = 0; i < 256; ++i)
        EXPECT_NEAR(denoised.rows[i][0], std::sin(6.283185307179586 * static_cast<double>(i) / 16.0), 0.05) << i;
}

TEST(VeltanWavelet, JsonDocument)
{
    TempDir dir;
    WriteFile(dir.File("w.csv"), ReferenceTable({7}));
    const nlohmann::json doc = RunJson(dir, {"wavelet", dir.File("w.csv"), "--column", "x", "--filter", "Beylkin",
                                             "--detrend", "linear", "--json"});
    ExpectFields(doc, {{"command", "wavelet"}, {"rows", 256}, {"filter", "Beylkin"}, {"taps", 18},
                       {"orthogonal", true}, {"levels", 3}, {"detrend", "linear"}, {"denoise", nullptr}});
    EXPECT_EQ(doc["bands"], (nlohmann::json{"d1", "d2", "d3", "smooth"}));
    const nlohmann::json& column = doc["columns"][0];
    EXPECT_EQ(column["missing"], 1);
    ASSERT_EQ(column["energy"].size(), 4u);
    double total = 0.0, squares = 0.0;
    for (const auto& share : column["energy"])
        total += share.get<double>();
    EXPECT_NEAR(total, 1.0, 1e-9);
    for (const auto& c : column["coefficients"])
        squares += c.get<double>() * c.get<double>();
    EXPECT_NEAR(squares, column["sum_of_squares"].get<double>(), 1e-5 * squares);
}

TEST(VeltanWavelet, RefusalsLeaveNoFile)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), "id,x,t,empty\nr1,1,1,\nr2,2,two,\nr3,4,3,\nr4,5,6,\n");
    WriteFile(dir.File("odd.csv"), "x\n1\n2\n3\n4\n5\n6\n");
    const std::vector<std::string> base{"wavelet", "{d}d.csv", "--out", "{d}o.csv", "--plot", "{d}p.svg"};
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
        {with({"--column", "x", "--filter", "Haar"}),
         "--filter Haar: Unknown wavelet filter \"Haar\"; the filters are Beylkin, Coiflet, Daubechies, Symmlet, "
         "Biorthogonal1, Biorthogonal2, Biorthogonal3, Biorthogonal4, Biorthogonal5, Biorthogonal6.",
         2},
        {with({"--column", "x", "--filter", "Daubechies5"}),
         "--filter Daubechies5: The wavelet filter Daubechies has no parameter 5; it takes 4, 6, 8, 10, 12, 14, 16, "
         "18, 20.",
         2},
        {with({"--column", "x", "--filter", "Daubechies4", "--level", "3"}),
         "--level 3: {d}d.csv has 4 rows, so the levels run from 1 to 2", 2},
        {with({"--column", "x", "--filter", "Daubechies4", "--level", "0"}),
         "--level 0: a wavelet transform has at least 1 level", 2},
        {with({"--column", "zz", "--filter", "Daubechies4"}), "--column: {d}d.csv has no column \"zz\"", 2},
        {with({"--column", "t", "--filter", "Daubechies4"}),
         "{d}d.csv: row 3, column 3 (\"t\"): \"two\" is not a number", 1},
        {with({"--column", "empty", "--filter", "Daubechies4"}),
         "{d}d.csv: column 4 (\"empty\"): every value is missing", 1},
        {{"wavelet", "{d}odd.csv", "--column", "x", "--filter", "Symmlet4", "--out", "{d}o.csv"},
         "{d}odd.csv has 6 rows; a wavelet transform needs a power of two of rows (4 or 8)", 1},
        {{"wavelet", "{d}none.csv", "--column", "x", "--filter", "Symmlet4"},
         "{d}none.csv: cannot open: No such file or directory", 1},
    };
    for (const Case& c : cases)
        ExpectRefusal(dir, c.args, c.message, c.code);
    // The option parser's refusals, with its hint.
    const std::pair<std::vector<std::string>, std::string> parser[] = {
        {{"--column", "x"}, "--filter is required"},
        {{"--filter", "Beylkin"}, "--column is required"},
        {{"--column", "x", "--filter", "Beylkin", "--denoise", "median"}, "--denoise: median not in {soft,hard}"},
        {{"--column", "x", "--filter", "Beylkin", "--detrend", "cubic"}, "--detrend: cubic not in {none,mean,linear}"},
    };
    for (const auto& [more, message] : parser) {
        std::vector<std::string> args{"wavelet", dir.File("d.csv")};
        args.insert(args.end(), more.begin(), more.end());
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << message;
        EXPECT_THAT(r.err, HasSubstr(message));
        EXPECT_THAT(r.err, HasSubstr("--help"));
    }
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"d.csv", "odd.csv"}));
}

// Ctrl-C while a long table is read: exit 130, the cancel message and none
// of the requested files.
TEST(VeltanWavelet, InterruptLeavesNoFile)
{
    TempDir dir;
    {
        std::ofstream big(dir.File("big.csv"));
        big << "t,x\n";
        for (int i = 0; i < (1 << 21); ++i)
            big << i << "," << 10 + (i % 101) / 50.0 << "\n";
    }
    const pid_t pid = StartTool(dir, {"wavelet", dir.File("big.csv"), "--column", "x", "--filter", "Daubechies20",
                                      "--out", dir.File("o.csv"), "--plot", dir.File("p.svg")});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGINT);
    const RunResult r = WaitTool(dir, pid);
    EXPECT_EQ(r.exitCode, 130) << r.err;
    EXPECT_EQ(r.err, "veltan: Operation cancelled.\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}
