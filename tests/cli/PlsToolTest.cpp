#include "CliTestSupport.h"

#include "cli/PlsPermutation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <csignal>
#include <random>
#include <thread>

using namespace cli_test;
using testing::HasSubstr;

// Fitted values of a two-component model of Alcohol computed independently
// (tests/cli/reference/pls_wine.py): R2Y(cum) 0.552990 and these rows.
TEST(VeltanPls, WineAgreesWithReferenceAndItsFilesAgreeWithOneAnother)
{
    TempDir dir;
    const RunResult r = RunTool(dir, {"pls", WineCsv(), "--y", "Alcohol", "--components", "2", "--fitted",
                                      dir.File("f.csv"), "--cv-predictions", dir.File("cv.csv"), "--coefficients",
                                      dir.File("b.csv"), "--scores", dir.File("t.csv"), "--save", dir.File("m.bin")});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GE(lines.size(), 7u);
    EXPECT_EQ(lines[2], "Component     R2X  R2X(cum)     R2Y  R2Y(cum)      Q2  Q2(cum)  Q2 limit  Significance");
    EXPECT_THAT(lines[4], HasSubstr("0.553"));
    EXPECT_EQ(lines[6], "2 components fitted, as asked.");

    const Csv fitted = ParseCsv(ReadFile(dir.File("f.csv")));
    ASSERT_EQ(fitted.rows.size(), 178u);
    EXPECT_EQ(fitted.header, (std::vector<std::string>{"wine", "Alcohol"}));
    const std::pair<std::size_t, double> reference[] = {{0, 13.673945},  {1, 13.421121},   {58, 14.034709},
                                                        {59, 12.190163}, {129, 12.521853}, {177, 13.386545}};
    for (const auto& [i, value] : reference)
        EXPECT_NEAR(fitted.rows[i][0], value, 1e-3 * value) << fitted.names[i];

    // The unscaled coefficients and the intercept reproduce the fitted
    // values from the raw table: the unscaling is right.
    const Csv wine = ParseCsv(ReadFile(WineCsv()));
    const Csv b = ParseCsv(ReadFile(dir.File("b.csv")));
    ASSERT_EQ(b.rows.size(), 13u);
    EXPECT_EQ(b.header, (std::vector<std::string>{"variable", "Alcohol", "Alcohol (scaled)"}));
    EXPECT_EQ(b.names.back(), "(intercept)");
    for (std::size_t i = 0; i < wine.rows.size(); i += 17) {
        double y = b.rows[12][0];
        for (std::size_t j = 0; j < 12; ++j) {
            EXPECT_EQ(b.names[j], wine.header[j + 2]);
            y += b.rows[j][0] * wine.rows[i][j + 1];
        }
        EXPECT_NEAR(y, fitted.rows[i][0], 1e-4 * y) << wine.names[i];
    }

    // Cross-validated predictions stay near the fitted values but are not them.
    const Csv cv = ParseCsv(ReadFile(dir.File("cv.csv")));
    ASSERT_EQ(cv.rows.size(), 178u);
    double differ = 0.0;
    for (std::size_t i = 0; i < cv.rows.size(); ++i) {
        EXPECT_NEAR(cv.rows[i][0], fitted.rows[i][0], 1.0);
        differ += std::fabs(cv.rows[i][0] - fitted.rows[i][0]);
    }
    EXPECT_GT(differ, 0.1);
    const Csv t = ParseCsv(ReadFile(dir.File("t.csv")));
    ASSERT_EQ(t.rows.size(), 178u);
    EXPECT_EQ(t.header, (std::vector<std::string>{"wine", "t1", "t2"}));

    // The training table, response column and all, is predicted again.
    const RunResult pred = RunTool(dir, {"predict", dir.File("m.bin"), WineCsv(), "--scores", dir.File("u.csv")});
    ASSERT_EQ(pred.exitCode, 0) << pred.err;
    const Csv again = ParseCsv(pred.out), u = ParseCsv(ReadFile(dir.File("u.csv")));
    ASSERT_EQ(again.rows.size(), 178u);
    for (std::size_t i = 0; i < again.rows.size(); ++i) {
        ASSERT_NEAR(again.rows[i][0], fitted.rows[i][0], 1e-4) << again.names[i];
        for (int a = 0; a < 2; ++a)
            ASSERT_NEAR(u.rows[i][a], t.rows[i][a], 1e-4 * (1.0 + std::fabs(t.rows[i][a])));
    }
}

TEST(VeltanPls, StopsAtTheFirstInsignificantComponentInEitherTableForm)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), LatentTable(40, 8, 3));
    const nlohmann::json doc = RunJson(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--json"});
    ExpectFields(doc, {{"command", "pls"}, {"x_variables", 8}, {"responses", {"y1", "y2"}}, {"kept", 2},
                       {"permutations", nullptr}});
    const auto& comps = doc["components"];
    ASSERT_EQ(comps.size(), 3u);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(comps[a]["kept"], a < 2);
        EXPECT_EQ(comps[a]["q2_responses"].size(), 2u);
        EXPECT_EQ(comps[a]["r2y_cum_responses"].size(), 2u);
    }
    EXPECT_TRUE(comps[1]["significance"] == "R1" || comps[1]["significance"] == "R2");
    EXPECT_FALSE(comps[2]["significance"] == "R1" || comps[2]["significance"] == "R2");
    EXPECT_GT(comps[1]["r2y_cum"].get<double>(), 0.95);
    EXPECT_GT(comps[1]["q2_cum"].get<double>(), 0.9);
    EXPECT_EQ(doc["stop_reason"].get<std::string>().substr(0, 15), "component 3 is ");

    // The same data as two files, and with the columns named: the same fit.
    WriteFile(dir.File("x.csv"), LatentTable(40, 8, 3, false));
    WriteFile(dir.File("y.csv"), LatentTable(40, 8, 3, true, false));
    const nlohmann::json two = RunJson(dir, {"pls", dir.File("x.csv"), "--responses", dir.File("y.csv"), "--json"});
    EXPECT_EQ(two["responses_data"], dir.File("y.csv"));
    ASSERT_EQ(two["components"].size(), comps.size());
    for (std::size_t a = 0; a < comps.size(); ++a)
        EXPECT_NEAR(two["components"][a]["q2_cum"].get<double>(), comps[a]["q2_cum"].get<double>(), 1e-6);
    const nlohmann::json one =
        RunJson(dir, {"pls", dir.File("x.csv"), "--responses", dir.File("y.csv"), "--y", "y2", "--json"});
    EXPECT_EQ(one["responses"], std::vector<std::string>{"y2"});

    // Table form: the per-response summary follows a multi-response fit.
    const RunResult r = RunTool(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--components", "3",
                                      "--fitted", dir.File("f.csv")});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("3 components fitted, as asked.\n\nResponse  R2Y(cum)  Q2(cum)\ny1 "));
    EXPECT_THAT(r.out, HasSubstr("Fitted values written to " + dir.File("f.csv")));
    const Csv f = ParseCsv(ReadFile(dir.File("f.csv")));
    EXPECT_EQ(f.header, (std::vector<std::string>{"obs", "y1", "y2"}));
    EXPECT_EQ(f.rows.size(), 40u);

    // Four observations carry one component at most, however well the
    // second one predicts.
    WriteFile(dir.File("n3.csv"), "n,a,b,y\nr1,1,2,1.1\nr2,2,1,2\nr3,3,4,2.9\nr4,4,3,4.1\n");
    EXPECT_THAT(RunTool(dir, {"pls", dir.File("n3.csv"), "--y", "y"}).out,
                HasSubstr("1 component kept; component 2 is N3 (too many components for the size of the data)."));
}

TEST(VeltanPls, PermutationInterceptsFallFarBelowARealModelAndRepeatWithTheSeed)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), LatentTable(30, 6, 9));
    const std::vector<std::string> args{"pls",  dir.File("d.csv"), "--y",  "y1", "--json", "--permutations",
                                        "25",   "--seed",          "42",   "--permutations-out", dir.File("p.csv")};
    const nlohmann::json doc = RunJson(dir, args);
    const auto& test = doc["permutations"];
    ASSERT_TRUE(test.is_object());
    ExpectFields(test, {{"count", 25}, {"seed", 42}, {"components", doc["kept"]}, {"q2_reached", 0}});
    const double r2y = test["r2y_cum"], q2 = test["q2_cum"];
    EXPECT_GT(q2, 0.8);
    EXPECT_LT(test["r2y_intercept"].get<double>(), 0.3 * r2y);
    EXPECT_LT(test["q2_intercept"].get<double>(), 0.3 * q2);
    ASSERT_EQ(test["rows"].size(), 25u);
    for (const auto& row : test["rows"])
        EXPECT_LT(std::fabs(row["correlation"].get<double>()), 0.9);
    EXPECT_EQ(Lines(ReadFile(dir.File("p.csv"))).size(), 26u);

    EXPECT_EQ(RunJson(dir, args)["permutations"], test);
    EXPECT_THAT(RunTool(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--permutations", "3"}).out,
                HasSubstr("Permutation test: 3 permutations of the responses (seed "));
}

TEST(PlsPermutation, InterceptAndCorrelation)
{
    using veltan_cli::InterceptAtZero;
    EXPECT_NEAR(InterceptAtZero({{1.0, 0.9}, {0.5, 0.5}, {0.0, 0.1}, {-0.5, -0.3}}), 0.1, 1e-12);
    // No spread of correlations: the mean is all there is.
    EXPECT_NEAR(InterceptAtZero({{0.2, 1.0}, {0.2, 3.0}}), 2.0, 1e-12);

    NCDataMatrix<float> y(4, 2);
    const float cells[4][2] = {{1, 5}, {2, -99}, {3, 1}, {4, 7}};
    for (int i = 1; i <= 4; ++i)
        for (int j = 1; j <= 2; ++j)
            y(i, j, cells[i - 1][j - 1]);
    EXPECT_NEAR(veltan_cli::MeanPermutedCorrelation(y, {1, 2, 3, 4}), 1.0, 1e-9);
    // Reversed: column 1 exactly -1; column 2 pairs only rows 1 and 4, and
    // the pair (5, 7) against (7, 5) is -1 too.
    EXPECT_NEAR(veltan_cli::MeanPermutedCorrelation(y, {4, 3, 2, 1}), -1.0, 1e-9);
}

TEST(VeltanPls, BadInputIsOneLineAndLeavesNoFile)
{
    struct Case { std::string csv; std::vector<std::string> args; std::string message; int code; };
    const std::string good = LatentTable(12, 4, 1), constant = "n,a,b,y\nr1,1,2,4\nr2,2,3,4\nr3,3,1,4\nr4,5,2,4\n";
    const std::vector<Case> cases{
        {good, {"--y", "nope"}, "--y: {d}d.csv has no variable \"nope\"", 2},
        {good, {"--y", "y1", "--y", "y1"}, "--y: \"y1\" is named twice", 2},
        {good, {}, "pls: name the responses with --y NAME, or give their table with --responses FILE", 2},
        {"n,a,b\nr1,1,2\nr2,2,1\n", {"--y", "a", "--y", "b"},
         "--y: every variable of {d}d.csv is a response; none is left for X", 2},
        {good, {"--y", "y1", "--log", "zz"}, "--log: {d}d.csv has no variable \"zz\"", 2},
        {good, {"--y", "y1", "--components", "6"},
         "--components 6: {d}d.csv can take at most 5 (12 observations, 5 X variables, centred)", 2},
        {good, {"--y", "y1", "--permutations-out", "p.csv"}, "--permutations-out needs --permutations N", 2},
        {"n,a,b,y\nr1,1,2,\nr2,2,3,NA\nr3,3,1,\n", {"--y", "y"},
         "{d}d.csv: column 4 (\"y\"): every value of this response is missing", 1},
        {constant, {"--y", "y"},
         "{d}d.csv: column 4 (\"y\"): Could not scale matrix. Too little variance. (the column is constant; "
         "remove it or scale with --y-scale center)", 1},
        {constant, {"--y", "y", "--y-scale", "center"},
         "{d}d.csv: The correlation between X and Y is zero or almost zero. Component 1 cannot be computed. "
         "(nothing to model)", 1},
        {"n,y,a,b\nr1,1,2,0\n", {"--y", "y"}, "{d}d.csv: 1 observation; a PLS model needs at least 2", 1},
        {good, {"--responses", "{d}y3.csv"}, "{d}y3.csv: 3 observations, but {d}d.csv has 12", 1},
        {good, {"--responses", "{d}renamed.csv"},
         "{d}renamed.csv: row 3: observation \"oX\", but {d}d.csv has \"o2\" in row 3", 1},
    };
    std::string renamed = "obs,q\n";
    for (int i = 1; i <= 12; ++i)
        renamed += (i == 2 ? std::string("oX") : "o" + std::to_string(i)) + "," + std::to_string(i % 5) + "\n";
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File("d.csv"), c.csv);
        WriteFile(dir.File("y3.csv"), "obs,q\no1,1\no2,2\no3,3\n");
        WriteFile(dir.File("renamed.csv"), renamed);
        std::vector<std::string> args{"pls", "{d}d.csv", "--fitted", "{d}f.csv", "--save", "{d}m.bin"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ExpectRefusal(dir, args, c.message, c.code);
    }
}

TEST(VeltanPredict, TellsPlsModelsFromPcaModelsAndRefusesMisfits)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), LatentTable(30, 4, 5));
    ASSERT_EQ(RunTool(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--log", "v2", "--log", "y1", "--save",
                            dir.File("pls.bin"), "--fitted", dir.File("f.csv")}).exitCode, 0);
    ASSERT_EQ(RunTool(dir, {"pca", dir.File("d.csv"), "--save", dir.File("pca.bin")}).exitCode, 0);

    // Log-transformed X and response: predictions come back in the
    // response's own units, as the fitted values do.
    nlohmann::json doc = RunJson(dir, {"predict", dir.File("pls.bin"), dir.File("d.csv"), "--json"});
    ExpectFields(doc, {{"model_type", "pls"}, {"responses", {"y1", "y2"}}});
    const Csv fitted = ParseCsv(ReadFile(dir.File("f.csv")));
    ASSERT_EQ(doc["predictions"].size(), 30u);
    for (std::size_t i = 0; i < 30; ++i)
        EXPECT_NEAR(doc["predictions"][i]["y"][0].get<double>(), fitted.rows[i][0], 1e-4 * fitted.rows[i][0]);
    // The same model predicts a PCA's table only through the PCA model.
    doc = RunJson(dir, {"predict", dir.File("pca.bin"), dir.File("d.csv"), "--json"});
    EXPECT_FALSE(doc.contains("model_type"));

    WriteFile(dir.File("gap.csv"), "obs,v1,v2,v3,v4\no1,10,10,,10\no2,,,,10\n");
    const RunResult r = RunTool(dir, {"predict", dir.File("pls.bin"), dir.File("gap.csv")});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Csv gap = ParseCsv(r.out);
    EXPECT_FALSE(std::isnan(gap.rows[0][0]));
    EXPECT_TRUE(std::isnan(gap.rows[1][0])); // three of four missing: no prediction

    WriteFile(dir.File("narrow.csv"), "obs,v1,v2,v4\no1,1,2,3\n");
    WriteFile(dir.File("extra.csv"), "obs,v1,v2,v3,v4,w\no1,1,2,3,4,5\n");
    const std::string model = ReadFile(dir.File("pls.bin"));
    WriteFile(dir.File("cut.bin"), model.substr(0, model.size() - 40));
    struct Case { std::vector<std::string> args; std::string message; int code; };
    const std::vector<Case> cases{
        {{"{d}pls.bin", "{d}narrow.csv"},
         "{d}narrow.csv: no variable \"v3\", which the model {d}pls.bin has as X variable 3", 1},
        {{"{d}pls.bin", "{d}extra.csv"}, "{d}extra.csv: column 6 (\"w\"): not a variable of the model {d}pls.bin", 1},
        {{"{d}cut.bin", "{d}d.csv"}, "{d}cut.bin: the model file is damaged or incomplete", 1},
        {{"{d}pca.bin", "{d}d.csv", "--predictions", "{d}p.csv"},
         "--predictions: {d}pca.bin is a PCA model, which predicts no responses", 2},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args{"predict"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        args.insert(args.end(), {"--scores", "{d}s.csv"});
        ExpectRefusal(dir, args, c.message, c.code);
    }
}

TEST(VeltanPls, UsageErrorsAndInterrupt)
{
    TempDir dir;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"pls", "--y-scale", "log"}, {"pls", "--permutations", "0"}, {"pls", "--seed", "x"}}) {
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << args.back();
        EXPECT_THAT(r.err, HasSubstr("--help"));
    }
    RunResult r = RunTool(dir, {"pls", "--y", "Alcohol"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.substr(0, 33), "PLS of the bundled wine data set:");

    // Ctrl-C during a long permutation test: the library's cancel message,
    // exit 130, and none of the requested files.
    WriteFile(dir.File("big.csv"), LatentTable(2000, 40, 2));
    r = InterruptOnceStarted(dir, {"pls", dir.File("big.csv"), "--y", "y1", "--y", "y2", "--permutations", "100000",
                                   "--progress", "--fitted", dir.File("f.csv")});
    EXPECT_EQ(r.exitCode, 130);
    const std::string last = r.err.substr(r.err.rfind('\r') + 1);
    EXPECT_TRUE(last == "veltan: PLS component aborted.\n" || last == "veltan: Computations aborted.\n") << last;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}
