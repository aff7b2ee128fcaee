#include "CliTestSupport.h"

#include "cli/ProgressBar.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <random>
#include <thread>

using namespace cli_test;

namespace {

using Rows = std::vector<std::vector<double>>;

// Cells of a CSV file as numbers; column 0 (the names) is skipped.
Rows Numbers(const std::string& csv)
{
    Rows rows;
    const std::vector<std::string> lines = Lines(csv);
    for (std::size_t r = 1; r < lines.size(); ++r) {
        std::vector<double> row;
        std::istringstream cells(lines[r]);
        std::string cell;
        std::getline(cells, cell, ',');
        while (std::getline(cells, cell, ','))
            row.push_back(std::stod(cell));
        rows.push_back(row);
    }
    return rows;
}

// The first `components` scores of each of `rows` rows, from two runs.
void ExpectSameScores(const Rows& got, const Rows& want, std::size_t rows, int components)
{
    ASSERT_EQ(got.size(), rows);
    ASSERT_EQ(want.size(), rows);
    for (std::size_t i = 0; i < rows; ++i)
        for (int a = 0; a < components; ++a)
            ASSERT_NEAR(got[i][a], want[i][a], 1e-4 * (1.0 + std::fabs(want[i][a]))) << "row " << i + 1;
}

} // namespace

// Against the eigenvalues of the correlation matrix computed independently
// (tests/cli/reference/wine_pca.py): 4.705850, 2.496974, 1.446072.
TEST(VeltanPca, WineAgreesWithCorrelationEigenvaluesAndWritesShapedFiles)
{
    TempDir dir;
    const RunResult r = Veltan(dir, {"pca", WineCsv(), "--scores", dir.File("t.csv"), "--loadings",
                                     dir.File("p.csv"), "--save", dir.File("m.bin")});
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ(lines[2], "Component     R2X  R2X(cum)  Eigenvalue      Q2  Q2(cum)  Q2 limit  Significance");
    EXPECT_EQ(lines[3].substr(0, 37), "        1   0.362     0.362       4.7");
    EXPECT_NE(lines[4].find("0.554       2.497"), std::string::npos);
    EXPECT_NE(lines[5].find("0.665       1.446"), std::string::npos);
    EXPECT_NE(r.out.find("3 components kept; component 4 is NS (not significant)."), std::string::npos);

    // Scores: 178 rows of 3; each score vector's variance is its eigenvalue.
    const std::string scores = ReadFile(dir.File("t.csv"));
    EXPECT_EQ(scores.substr(scores.find('\n') + 1, 7), "c1-001,");
    const Rows t = Numbers(scores);
    ASSERT_EQ(t.size(), 178u);
    const double eigen[] = {4.705850, 2.496974, 1.446072};
    for (int a = 0; a < 3; ++a) {
        double ss = 0.0;
        for (const auto& row : t) {
            ASSERT_EQ(row.size(), 3u);
            ss += row[a] * row[a];
        }
        EXPECT_NEAR(ss / 177.0, eigen[a], 2e-3) << "component " << a + 1;
    }
    // Loadings: 13 unit vectors.
    const Rows p = Numbers(ReadFile(dir.File("p.csv")));
    ASSERT_EQ(p.size(), 13u);
    double norm = 0.0;
    for (const auto& row : p)
        norm += row[0] * row[0];
    EXPECT_NEAR(norm, 1.0, 1e-5);
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"t.csv", "p.csv", "m.bin"}));

    // Predicting the training rows reproduces the training scores.
    const RunResult pred = Veltan(dir, {"predict", dir.File("m.bin"), WineCsv(), "--scores", dir.File("u.csv")});
    EXPECT_EQ(pred.out, "Scores of 178 observations on 3 components written to " + dir.File("u.csv") + "\n");
    ExpectSameScores(Numbers(ReadFile(dir.File("u.csv"))), t, 178, 3);
}

TEST(VeltanPca, FixedComponentsAndJson)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TwoFactorTable(40, 8, 7));
    RunResult r = Veltan(dir, {"pca", dir.File("d.csv"), "--components", "4", "--scale", "center"});
    for (const char* text : {"centred, not scaled", "4 components fitted, as asked.", "\n        4 "})
        EXPECT_NE(r.out.find(text), std::string::npos) << text;

    r = Veltan(dir, {"pca", dir.File("d.csv"), "--json", "--cv-groups", "5", "--save", dir.File("m.bin")});
    const nlohmann::json doc = nlohmann::json::parse(r.out); // stdout holds nothing else
    EXPECT_EQ(doc["command"], "pca");
    EXPECT_EQ(doc["observations"], 40);
    EXPECT_EQ(doc["variables"], 8);
    EXPECT_EQ(doc["cv_groups"], 5);
    EXPECT_EQ(doc["scaling"], "uv");
    // Two factors, and the noise of the low-variance variables is visible
    // against the rest after unit-variance scaling: at least two components.
    const int kept = doc["kept"];
    EXPECT_GE(kept, 2);
    EXPECT_EQ(doc["files"]["model"], dir.File("m.bin"));
    const auto& comps = doc["components"];
    ASSERT_GE(comps.size(), 3u);
    float cum = 0.0f;
    for (std::size_t a = 0; a < comps.size(); ++a) {
        for (const char* key : {"r2x", "r2x_cum", "eigenvalue", "q2", "q2_cum", "q2_limit"})
            ASSERT_TRUE(comps[a][key].is_number()) << key;
        cum += comps[a]["r2x"].get<float>();
        EXPECT_NEAR(comps[a]["r2x_cum"].get<float>(), cum, 1e-5);
        EXPECT_EQ(comps[a]["kept"], static_cast<int>(a) < kept);
    }
    EXPECT_TRUE(comps[0]["significance"] == "R1" || comps[0]["significance"] == "R2");

    r = Veltan(dir, {"predict", dir.File("m.bin"), dir.File("d.csv"), "--json"});
    const nlohmann::json pred = nlohmann::json::parse(r.out);
    EXPECT_EQ(pred["components"], kept);
    ASSERT_EQ(pred["scores"].size(), 40u);
    EXPECT_EQ(pred["scores"][39]["observation"], "o40");
    EXPECT_EQ(pred["scores"][39]["t"].size(), static_cast<std::size_t>(kept));
}

// Every refusal: one line on stderr naming the file and the place, exit
// code 1, and no output file, whole or partial.
TEST(VeltanPca, BadInputIsReportedInOneLineAndLeavesNoFile)
{
    struct Case {
        const char* csv;
        std::vector<std::string> extra;
        const char* message; // after "veltan: <dir>/d.csv"
    };
    const Case cases[] = {
        {"n,a,b\nr1,1,2\nr2,3\n", {}, ": row 3 has 2 cells, the header row has 3"},
        {"n,a,b\nr1,1,2\nr2,3,4O\nr3,5,6\n", {}, ": row 3, column 3 (\"b\"): \"4O\" is not a number"},
        {"n,a,b,c\nr1,1,2,5\nr2,2,2,4\nr3,3,2,1\n", {},
         ": column 3 (\"b\"): Could not scale matrix. Too little variance. (the column is constant; remove it or "
         "scale with --scale center)"},
        {"n,a,b,c\nr1,1,2,5\nr2,2,NA,4\nr3,3,,1\n", {},
         ": column 3 (\"b\"): Could not scale matrix. Too few non missing values. (1 present, at least 2 needed)"},
        {"n,a,b\nr1,1,2\n", {}, ": 1 observation; a PCA needs at least 2"},
        {"n,a,b\nr1,1,2\nr2,0,3\n", {"--log", "a"},
         ": row 3, column 2 (\"a\"): Value could not be transformed. (Log (C1=1, C2=0) of 0)"},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File("d.csv"), c.csv);
        std::vector<std::string> args{"pca", dir.File("d.csv"), "--scores", dir.File("s.csv"), "--save",
                                      dir.File("m.bin")};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        const RunResult r = Veltan(dir, args, 1);
        EXPECT_EQ(r.err, "veltan: " + dir.File("d.csv") + c.message + "\n");
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(dir.Entries(), std::set<std::string>{"d.csv"}) << c.csv;
    }

    TempDir dir;
    EXPECT_EQ(Veltan(dir, {"pca", dir.File("absent.csv")}, 1).err,
              "veltan: " + dir.File("absent.csv") + ": cannot open: No such file or directory\n");
    // The last file cannot be created: the ones before it are not left either.
    WriteFile(dir.File("d.csv"), TwoFactorTable(20, 4, 3));
    const RunResult r =
        Veltan(dir, {"pca", dir.File("d.csv"), "--scores", dir.File("s.csv"), "--save", dir.File("no/m.bin")}, 1);
    EXPECT_EQ(r.err, "veltan: " + dir.File("no/m.bin") + ": cannot create: No such file or directory\n");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"d.csv"});
}

TEST(VeltanPredict, RefusesModelsAndTablesThatDoNotFit)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TwoFactorTable(30, 4, 5));
    // The saved transform is applied again: the training rows get their scores back.
    Veltan(dir, {"pca", dir.File("d.csv"), "--log", "v2", "--components", "2", "--save", dir.File("m.bin"),
                 "--scores", dir.File("t.csv")});
    ExpectSameScores(Numbers(Veltan(dir, {"predict", dir.File("m.bin"), dir.File("d.csv")}).out),
                     Numbers(ReadFile(dir.File("t.csv"))), 30, 2);

    WriteFile(dir.File("narrow.csv"), "obs,v1,v2,v3\no1,1,2,3\n");
    WriteFile(dir.File("renamed.csv"), "obs,v1,v2,x,v4\no1,1,2,3,4\n");
    WriteFile(dir.File("gap.csv"), "obs,v1,v2,v3,v4\no1,1,2,3,4\no2,1,NA,3,4\n");
    const std::string model = ReadFile(dir.File("m.bin"));
    ASSERT_GT(model.size(), 16u);
    std::string v2 = model;
    v2[15] = 2; // version 2 after the 1-byte length and the 14-byte magic
    WriteFile(dir.File("v2.bin"), v2);
    WriteFile(dir.File("cut.bin"), model.substr(0, model.size() / 2));

    struct Case {
        std::string model, data, message;
    };
    const std::vector<Case> cases{
        {"m.bin", "narrow.csv", "narrow.csv: 3 variables, but the model " + dir.File("m.bin") + " has 4"},
        {"m.bin", "renamed.csv",
         "renamed.csv: column 4 (\"x\"): the model " + dir.File("m.bin") + " has \"v3\" as variable 3"},
        {"d.csv", "d.csv", "d.csv: not a veltan PCA model file"},
        {"v2.bin", "d.csv", "v2.bin: model file version 2 is not supported (this veltan reads version 1)"},
        {"cut.bin", "d.csv", "cut.bin: the model file is damaged or incomplete"},
        {"absent.bin", "d.csv", "absent.bin: cannot open: No such file or directory"},
    };
    for (const Case& c : cases) {
        const RunResult r =
            Veltan(dir, {"predict", dir.File(c.model), dir.File(c.data), "--scores", dir.File("s.csv")}, 1);
        EXPECT_EQ(r.err, "veltan: " + dir.File("") + c.message + "\n");
        EXPECT_FALSE(fs::exists(dir.File("s.csv")));
    }
    // A gap is scored around, through the PLS route of the score estimator.
    Veltan(dir, {"predict", dir.File("m.bin"), dir.File("gap.csv")});
}

TEST(VeltanCli, UsageErrorsHelpAndVersion)
{
    TempDir dir;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"pca", "--bogus"}, {"pca", "--scale", "log"}, {"pca", "--components", "0"}, {"predict", "m.bin"},
             {"pca", "--cv-groups", "1"}}) {
        EXPECT_NE(Veltan(dir, args, 2).err.find("--help"), std::string::npos) << (args.empty() ? "" : args.back());
    }
    // Option values the data cannot meet are usage errors too.
    WriteFile(dir.File("d.csv"), TwoFactorTable(6, 3, 1));
    EXPECT_EQ(Veltan(dir, {"pca", dir.File("d.csv"), "--components", "4"}, 2).err,
              "veltan: --components 4: " + dir.File("d.csv") +
                  " can take at most 3 (6 observations, 3 variables, centred)\n");
    EXPECT_EQ(Veltan(dir, {"pca", dir.File("d.csv"), "--log", "nope"}, 2).err,
              "veltan: --log: " + dir.File("d.csv") + " has no variable \"nope\"\n");

    EXPECT_NE(Veltan(dir, {"--help"}).out.find("predict"), std::string::npos);
    EXPECT_EQ(Veltan(dir, {"--version"}).out.substr(0, 7), "veltan ");
    // Without a table, the bundled data set is analysed.
    EXPECT_EQ(Veltan(dir, {"pca"}).out.substr(0, 33), "PCA of the bundled wine data set:");
}

// Ctrl-C while a long fit runs: the library's cancel message, exit 130,
// and the requested file never appears.
TEST(VeltanCli, InterruptCancelsCleanly)
{
    TempDir dir;
    WriteFile(dir.File("big.csv"), TwoFactorTable(6000, 150, 11));
    // The bar appears after the show delay, once the fit is under way.
    const RunResult r = InterruptOnceStarted(
        dir, {"pca", dir.File("big.csv"), "--components", "60", "--progress", "--scores", dir.File("s.csv")});
    EXPECT_EQ(r.exitCode, 130);
    // The bar is wiped with a carriage return before the message.
    EXPECT_EQ(r.err.substr(r.err.rfind('\r') + 1), "veltan: PC component aborted.\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}

TEST(InterruptGuard, SignalRequestsBreakOnlyWhileInstalled)
{
    NCProgress progress;
    {
        veltan_cli::InterruptGuard guard(progress);
        std::raise(SIGINT);
        EXPECT_TRUE(progress.IsBreakPressed());
        EXPECT_TRUE(veltan_cli::InterruptGuard::Interrupted());
    }
    // The previous disposition is back: an ignored SIGINT stays ignored.
    std::signal(SIGINT, SIG_IGN);
    NCProgress other;
    {
        veltan_cli::InterruptGuard guard(other);
    }
    std::raise(SIGINT);
    EXPECT_FALSE(other.IsBreakPressed());
    std::signal(SIGINT, SIG_DFL);
}
