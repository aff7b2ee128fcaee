#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "cli/OplsCommand.h"

#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/OPLSExplained.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <random>
#include <thread>
#include <tuple>

using namespace cli_test;
using testing::HasSubstr;

namespace {

// The stage rows of a report: the lines between the table's header and the
// blank line after it.
std::vector<std::string> StageRows(const std::string& report)
{
    const std::vector<std::string> lines = Lines(report);
    std::vector<std::string> rows;
    bool inTable = false;
    for (const std::string& line : lines) {
        if (line.rfind("Components  R2X(pred)", 0) == 0)
            inTable = true;
        else if (inTable && line.empty())
            break;
        else if (inTable)
            rows.push_back(line);
    }
    return rows;
}

// X driven by two directions that Y follows (y1 by the first, y2 by their
// difference) and by a strong third one that Y ignores, which an orthogonal
// component should take; with `gaps`, a few cells of X and of both
// responses are empty.
std::string TableWithGaps(int n, int k, unsigned seed, bool gaps = true)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::ostringstream csv;
    csv << "obs";
    for (int j = 1; j <= k; ++j)
        csv << ",v" << j;
    csv << ",y1,y2\n";
    const std::pair<int, int> empty[] = {{3, 2}, {7, k + 1}, {11, 5}, {12, k + 2}};
    const auto cell = [&](int i, int j, double v) {
        csv << ",";
        if (!gaps || std::find(std::begin(empty), std::end(empty), std::make_pair(i, j)) == std::end(empty))
            csv << v;
    };
    for (int i = 1; i <= n; ++i) {
        const double a = normal(rng), b = normal(rng), c = normal(rng);
        csv << "o" << i;
        for (int j = 1; j <= k; ++j)
            cell(i, j, 10.0 + a * (j % 3 - 1) + b * (j % 2 ? 1.0 : -0.5) + 3.0 * c * (j <= k / 2 ? 1.0 : -0.7) +
                           0.3 * normal(rng));
        cell(i, k + 1, 5.0 + a + 0.2 * normal(rng));
        cell(i, k + 2, a - b + 0.2 * normal(rng));
        csv << "\n";
    }
    return csv.str();
}

} // namespace

// One predictive and o orthogonal components of a single response span the
// same scores as a PLS model of o + 1 components, so the fitted values are
// those of the independent two-component reference the pls tests use; the
// R2 figures and orthogonal scores come from an independent OPLS
// (tests/cli/reference/opls_wine.py).
TEST(VeltanOpls, WineAgreesWithIndependentReferences)
{
    TempDir dir;
    const RunResult r = Veltan(dir, {"opls", WineCsv(), "--y", "Alcohol", "--orthogonal", "2", "--scores",
                                     dir.File("s2.csv")});
    const std::vector<std::string> rows = StageRows(r.out);
    ASSERT_EQ(rows.size(), 3u) << r.out;
    EXPECT_EQ(rows[0], "       1+0      0.253      0.000   0.463    0.441     0.000");
    EXPECT_THAT(rows[1], testing::StartsWith("       1+1      0.175      0.361   0.553"));
    EXPECT_THAT(rows[2], testing::StartsWith("       1+2      0.162      0.471   0.582"));
    EXPECT_THAT(r.out, HasSubstr("\n1 predictive + 2 orthogonal components fitted, as asked.\n"));
    EXPECT_EQ(ParseCsv(ReadFile(dir.File("s2.csv"))).header,
              (std::vector<std::string>{"wine", "t1", "to1", "to2"}));

    const nlohmann::json doc = RunJson(dir, {"opls", WineCsv(), "--y", "Alcohol", "--orthogonal", "1", "--json",
                                             "--fitted", dir.File("f.csv"), "--scores", dir.File("s.csv")});
    const auto& stage = doc["stages"][1];
    EXPECT_NEAR(stage["r2x_predictive"].get<double>(), 0.174503, 2e-5);
    EXPECT_NEAR(stage["r2x_orthogonal"].get<double>(), 0.361140, 2e-5);
    EXPECT_NEAR(stage["r2y"].get<double>(), 0.552990, 2e-5);
    const Csv fitted = ParseCsv(ReadFile(dir.File("f.csv")));
    const Csv scores = ParseCsv(ReadFile(dir.File("s.csv")));
    ASSERT_EQ(fitted.rows.size(), 178u);
    ASSERT_EQ(scores.rows.size(), 178u);
    const std::tuple<std::size_t, double, double> reference[] = {
        {0, 13.673945, 2.350503},  {1, 13.421121, 1.135913},   {58, 14.034709, 1.775058},
        {59, 12.190163, 0.647099}, {129, 12.521853, 1.100586}, {177, 13.386545, 3.396971}};
    for (const auto& [i, value, to] : reference) {
        EXPECT_NEAR(fitted.rows[i][0], value, 1e-5 * value) << fitted.names[i];
        EXPECT_NEAR(std::fabs(scores.rows[i][1]), to, 1e-4 * to) << scores.names[i];
    }

    // And the same through the library's PLS, stage by stage.
    for (int o = 0; o <= 2; ++o) {
        Veltan(dir, {"opls", WineCsv(), "--y", "Alcohol", "--orthogonal", std::to_string(o), "--fitted",
                     dir.File("o.csv")});
        Veltan(dir, {"pls", WineCsv(), "--y", "Alcohol", "--components", std::to_string(o + 1), "--fitted",
                     dir.File("p.csv")});
        const Csv opls = ParseCsv(ReadFile(dir.File("o.csv"))), pls = ParseCsv(ReadFile(dir.File("p.csv")));
        for (std::size_t i = 0; i < opls.rows.size(); i += 11)
            EXPECT_NEAR(opls.rows[i][0], pls.rows[i][0], 1e-4) << o << " " << opls.names[i];
    }
}

TEST(VeltanOpls, MultiResponseTableWithGapsAddsOrthogonalComponentsWhileQ2Rises)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TableWithGaps(40, 8, 3));
    const RunResult r = Veltan(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2"});
    EXPECT_THAT(r.out, testing::StartsWith("OPLS of " + dir.File("d.csv") + ": 40 observations, 8 X variables, "
                                           "2 responses (y1, y2); X scaled to unit variance"));
    const std::vector<std::string> rows = StageRows(r.out);
    ASSERT_GE(rows.size(), 1u) << r.out;
    EXPECT_THAT(r.out, HasSubstr("\nResponse     R2Y  Q2(cum)\ny1    "));

    const nlohmann::json doc = RunJson(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--json"});
    ExpectFields(doc, {{"command", "opls"}, {"observations", 40}, {"x_variables", 8}, {"responses", {"y1", "y2"}},
                       {"scaling", "uv"}, {"y_scaling", "uv"}, {"cv_groups", 7}, {"fixed", false},
                       {"predictive_fixed", false}, {"files", nlohmann::json::object()}});
    const auto& stages = doc["stages"];
    const int kept = doc["orthogonal"];
    ASSERT_EQ(stages.size(), rows.size());
    ASSERT_GE(static_cast<int>(stages.size()), kept + 1);
    const int predictive = doc["predictive"];
    EXPECT_GE(predictive, 1);
    EXPECT_LE(predictive, 2);
    EXPECT_EQ(doc["orthogonal_limit"], std::min(8 - predictive, 40 - predictive - 2));
    for (std::size_t s = 0; s < stages.size(); ++s) {
        const auto& stage = stages[s];
        EXPECT_EQ(stage["orthogonal"], s);
        EXPECT_EQ(stage["kept"], static_cast<int>(s) <= kept);
        EXPECT_EQ(stage["r2y_responses"].size(), 2u);
        EXPECT_EQ(stage["q2_cum_responses"].size(), 2u);
        const double xp = stage["r2x_predictive"], xo = stage["r2x_orthogonal"], y = stage["r2y"];
        EXPECT_GT(xp, 0.0);
        EXPECT_LE(xp + xo, 1.0 + 1e-6);
        EXPECT_GT(y, 0.0);
        EXPECT_LE(y, 1.0);
        EXPECT_EQ(xo == 0.0, s == 0);
        // Every kept orthogonal component raised Q2 by the minimum gain;
        // a stage after the last kept one did not.
        if (s > 0) {
            const double gain = stage["q2_cum"].get<double>() - stages[s - 1]["q2_cum"].get<double>();
            if (static_cast<int>(s) <= kept)
                EXPECT_GE(gain, veltan_cli::MinQ2Gain - 1e-6);
            else
                EXPECT_LT(gain, veltan_cli::MinQ2Gain);
        }
    }
    const std::string reason = doc["stop_reason"];
    if (static_cast<int>(stages.size()) > kept + 1)
        EXPECT_THAT(reason, testing::MatchesRegex("orthogonal component [0-9]+ changes Q2\\(cum\\) by -?[0-9.]+, "
                                                  "less than 0\\.010"));
    else
        EXPECT_THAT(reason, testing::StartsWith("reached the limit of " + std::to_string(kept) +
                                                " orthogonal component"));

    // --orthogonal N: exactly N stages after the predictive one, all kept;
    // --predictive fixes A.
    for (const int n : {0, 1, 3}) {
        const nlohmann::json fixed = RunJson(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--json",
                                                   "--orthogonal", std::to_string(n), "--predictive", "1"});
        ExpectFields(fixed, {{"fixed", true}, {"predictive", 1}, {"predictive_fixed", true}, {"orthogonal", n},
                             {"stop_reason", nullptr}});
        ASSERT_EQ(fixed["stages"].size(), static_cast<std::size_t>(n + 1));
        for (const auto& stage : fixed["stages"])
            EXPECT_EQ(stage["kept"], true);
    }
    const RunResult three =
        Veltan(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--orthogonal", "3", "--predictive", "1"});
    EXPECT_EQ(StageRows(three.out).size(), 4u);
    EXPECT_THAT(three.out, HasSubstr("\n1 predictive + 3 orthogonal components fitted, as asked.\n"));

    // Three observations leave no room for an orthogonal component.
    WriteFile(dir.File("n3.csv"), "n,a,b,y\nr1,1,2,1.1\nr2,2,1,2\nr3,3,4,2.9\n");
    const RunResult small = Veltan(dir, {"opls", dir.File("n3.csv"), "--y", "y"});
    EXPECT_EQ(StageRows(small.out).size(), 1u);
    EXPECT_THAT(small.out, HasSubstr("\n1 predictive + 0 orthogonal components kept; reached the limit of 0 "
                                     "orthogonal components, min(K - A, N - A - 2, 20) = min(1, 0, 20).\n"));
}

// X varies mostly along a direction Y ignores. For one response, one
// predictive and two orthogonal components fit what a three-component PLS
// model fits. They do not predict left-out rows as well: the predictor takes
// a new row's orthogonal scores after removing the predictive part T P',
// where the fit removed T W' (docs/opls.md), so on this table the stage's
// Q2(cum) stays far below the PLS model's 0.94 and an open-ended fit stops
// before the second orthogonal component.
TEST(VeltanOpls, OrthogonalComponentsTakeTheVariationYIgnores)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TableWithGaps(36, 8, 3, false));
    const nlohmann::json pls = RunJson(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--json", "--components", "3"});
    const nlohmann::json fixed =
        RunJson(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--json", "--orthogonal", "2"});
    ASSERT_EQ(fixed["stages"].size(), 3u);
    const auto& stage = fixed["stages"][2];
    EXPECT_NEAR(stage["r2y"].get<double>(), pls["components"][2]["r2y_cum"].get<double>(), 1e-4);
    EXPECT_GT(pls["components"][2]["q2_cum"].get<double>(), 0.9);
    EXPECT_LT(stage["q2_cum"].get<double>(), pls["components"][2]["q2_cum"].get<double>() - 0.5);
    const nlohmann::json open = RunJson(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--json"});
    EXPECT_LT(open["orthogonal"].get<int>(), 2) << open["stop_reason"];
}

// The fitted values are the orthogonal Y parts plus T C': on the training
// data they are exactly the scaled Y less the model's own residuals, also
// around missing cells.
TEST(VeltanOpls, FittedValuesAreTheScaledResponsesLessTheModelsResiduals)
{
    std::mt19937 rng(7);
    std::normal_distribution<double> normal;
    const int n = 25, k = 6, m = 2;
    NCDataMatrix<float> x(n, k), y(n, m);
    for (int i = 1; i <= n; ++i) {
        const double a = normal(rng), b = normal(rng);
        for (int j = 1; j <= k; ++j)
            x(i, j, static_cast<float>(a * (j % 3 - 1) + b * (j % 2 ? 1.0 : -0.5) + 0.3 * normal(rng)));
        y(i, 1, static_cast<float>(a + 0.1 * normal(rng)));
        y(i, 2, static_cast<float>(a - b + 0.1 * normal(rng)));
    }
    x(4, 2, -99.0f);
    y(9, 1, -99.0f);
    NCOPLS model(&x, &y, 0, 200);
    for (int stage = 0; stage <= 2; ++stage) {
        model.NextComponent(nullptr);
        const NCDataMatrix<float> fitted = GetOPLSFittedY(*model.GetTprim(), *model.GetCprim(),
                                                                   *model.GetTOprim(), *model.GetCOprim());
        const NCDataMatrix<float> residuals = model.GetYResiduals();
        ASSERT_EQ(fitted.SizeRows(), n);
        ASSERT_EQ(fitted.SizeColumns(), m);
        for (int i = 1; i <= n; ++i)
            for (int j = 1; j <= m; ++j) {
                if (i == 9 && j == 1) {
                    EXPECT_NE(fitted[i][j], -99.0f); // predicted where Y has no value
                    continue;
                }
                EXPECT_NEAR(fitted[i][j], y[i][j] - residuals[i][j], 1e-5) << stage << " " << i << " " << j;
            }
    }
}

namespace {

// Fits wine with `orthogonal` orthogonal components, saves the model and
// predicts the training table (responses and all) with it. Without
// orthogonal components the predictions and scores must be what opls
// fitted. Returns the model's path.
std::string ExpectPredictionsAsFitted(const TempDir& dir, const std::string& orthogonal)
{
    const std::string model = dir.File("m" + orthogonal + ".bin");
    Veltan(dir, {"opls", WineCsv(), "--y", "Alcohol", "--orthogonal", orthogonal, "--save", model, "--fitted",
                 dir.File("f.csv"), "--scores", dir.File("s.csv")});
    const RunResult r = Veltan(dir, {"predict", model, WineCsv(), "--scores", dir.File("u.csv")});
    const Csv fitted = ParseCsv(ReadFile(dir.File("f.csv"))), again = ParseCsv(r.out);
    const Csv scores = ParseCsv(ReadFile(dir.File("s.csv"))), predicted = ParseCsv(ReadFile(dir.File("u.csv")));
    EXPECT_EQ(again.header, fitted.header);
    EXPECT_EQ(predicted.header, scores.header);
    if (again.rows.size() != 178u || predicted.rows.size() != 178u) {
        ADD_FAILURE() << r.out;
        return model;
    }
    // The worst row of each, so that a mismatch is one failure, not 178.
    double worstY = 0.0, worstScore = 0.0;
    std::string whereY, whereScore;
    for (std::size_t i = 0; i < again.rows.size(); ++i) {
        const double dy = std::fabs(again.rows[i][0] - fitted.rows[i][0]) / fitted.rows[i][0];
        if (dy > worstY)
            std::tie(worstY, whereY) = std::make_pair(dy, again.names[i]);
        for (std::size_t c = 0; c < scores.rows[i].size(); ++c) {
            const double d =
                std::fabs(predicted.rows[i][c] - scores.rows[i][c]) / (1.0 + std::fabs(scores.rows[i][c]));
            if (d > worstScore)
                std::tie(worstScore, whereScore) = std::make_pair(d, again.names[i] + " " + scores.header[c + 1]);
        }
    }
    EXPECT_LT(worstY, 1e-5) << whereY;
    EXPECT_LT(worstScore, 1e-4) << whereScore;
    return model;
}

} // namespace

TEST(VeltanOpls, SavedPredictiveModelPredictsWhatWasFitted)
{
    TempDir dir;
    ExpectPredictionsAsFitted(dir, "0");
}

// As above with an orthogonal filter to replay; a row the model did not see
// is predicted as an independent OPLS predicts it
// (tests/cli/reference/opls_wine.py).
// With an orthogonal filter to replay, a row's prediction is the library
// predictor's, which for the training rows is not the fitted value
// (tests/cli/reference/opls_wine.py computes both, and the prediction of a
// row the model did not see).
TEST(VeltanOpls, SavedModelWithOrthogonalComponentsPredictsAsTheLibrary)
{
    TempDir dir;
    const std::string model = dir.File("m1.bin");
    Veltan(dir, {"opls", WineCsv(), "--y", "Alcohol", "--orthogonal", "1", "--save", model});
    const RunResult r = Veltan(dir, {"predict", model, WineCsv(), "--scores", dir.File("u.csv")});
    const Csv predicted = ParseCsv(r.out), scores = ParseCsv(ReadFile(dir.File("u.csv")));
    ASSERT_EQ(predicted.rows.size(), 178u);
    ASSERT_EQ(scores.header, (std::vector<std::string>{scores.header[0], "t1", "to1"}));
    const struct {
        std::size_t row;
        double fitted, value, to;
    } expected[] = {{0, 13.673945, 13.837252, 1.177406}, {1, 13.421121, 13.515565, 0.457486},
                    {58, 14.034709, 14.243824, 0.272902}, {59, 12.190163, 12.043178, 0.408749},
                    {129, 12.521853, 12.418702, 0.359615}, {177, 13.386545, 13.372351, 3.295008}};
    for (const auto& [i, fitted, value, to] : expected) {
        EXPECT_NEAR(predicted.rows[i][0], value, 1e-5 * value) << predicted.names[i];
        EXPECT_NEAR(std::fabs(scores.rows[i][1]), to, 2e-4) << scores.names[i];
        if (i != 177) {
            EXPECT_GT(std::fabs(predicted.rows[i][0] - fitted), 0.01) << predicted.names[i];
        }
    }

    std::vector<std::string> wine = Lines(ReadFile(WineCsv()));
    WriteFile(dir.File("new.csv"), wine[0] + "\nnew,14.23,2.71,2.43,15.6,127,2.8,3.06,0.28,2.29,3.64,1.04,3.92,1065\n");
    const nlohmann::json doc = RunJson(dir, {"predict", model, dir.File("new.csv"), "--json"});
    ExpectFields(doc, {{"model_type", "opls"}, {"components", 1}, {"orthogonal_components", 1},
                       {"responses", {"Alcohol"}}});
    ASSERT_EQ(doc["predictions"].size(), 1u);
    EXPECT_NEAR(doc["predictions"][0]["y"][0].get<double>(), 13.652192, 2e-4);
    EXPECT_NEAR(std::fabs(doc["predictions"][0]["to"][0].get<double>()), 1.401928, 2e-4);
}

TEST(VeltanOpls, PredictRefusesTablesThatDoNotFitTheModel)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), LatentTable(30, 4, 5));
    Veltan(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--log", "v2", "--save", dir.File("m.bin")});
    // The log-transformed variable and the table's own responses are fine.
    EXPECT_EQ(ParseCsv(Veltan(dir, {"predict", dir.File("m.bin"), dir.File("d.csv")}).out).rows.size(), 30u);

    WriteFile(dir.File("narrow.csv"), "obs,v1,v2,v4\no1,1,2,3\n");
    WriteFile(dir.File("extra.csv"), "obs,v1,v2,v3,v4,w\no1,1,2,3,4,5\n");
    const std::string model = ReadFile(dir.File("m.bin"));
    WriteFile(dir.File("cut.bin"), model.substr(0, model.size() - 40));
    struct Case { std::vector<std::string> args; std::string message; };
    const std::vector<Case> cases{
        {{"{d}m.bin", "{d}narrow.csv"},
         "{d}narrow.csv: no variable \"v3\", which the model {d}m.bin has as X variable 3"},
        {{"{d}m.bin", "{d}extra.csv"}, "{d}extra.csv: column 6 (\"w\"): not a variable of the model {d}m.bin"},
        {{"{d}cut.bin", "{d}d.csv"}, "{d}cut.bin: the model file is damaged or incomplete"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args{"predict"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        args.insert(args.end(), {"--scores", "{d}s.csv", "--predictions", "{d}p.csv"});
        ExpectRefusal(dir, args, c.message, 1);
    }
}

TEST(VeltanOpls, BadInputIsOneLineAndLeavesNoFile)
{
    struct Case { std::string csv; std::vector<std::string> args; std::string message; int code; };
    const std::string good = LatentTable(12, 4, 1), constant = "n,a,b,y\nr1,1,2,4\nr2,2,3,4\nr3,3,1,4\nr4,5,2,4\n";
    const std::vector<Case> cases{
        {good, {}, "opls: name the responses with --y NAME, or give their table with --responses FILE", 2},
        {good, {"--y", "nope"}, "--y: {d}d.csv has no variable \"nope\"", 2},
        {good, {"--responses", "{d}y3.csv"}, "{d}y3.csv: 3 observations, but {d}d.csv has 12", 1},
        {"n,a,b,y\nr1,1,2,\nr2,2,3,NA\nr3,3,1,\n", {"--y", "y"},
         "{d}d.csv: column 4 (\"y\"): every value of this response is missing", 1},
        {constant, {"--y", "y"},
         "{d}d.csv: column 4 (\"y\"): Could not scale matrix. Too little variance. (the column is constant; "
         "remove it or scale with --y-scale center)", 1},
        {constant, {"--y", "y", "--y-scale", "center"},
         "{d}d.csv: column 4 (\"y\"): this response does not vary once preprocessed (nothing to model)", 1},
        {"n,a,y1,y2,y3,y4\nr1,1,2,3,4,3\nr2,2,3,1,4,1\nr3,3,1,5,2,3\n", {"--y", "y1", "--y", "y2", "--y", "y3",
                                                                      "--y", "y4"},
         "{d}d.csv: 4 responses, but only 3 observations; an OPLS model takes no more responses than observations", 1},
        {"n,a,b,y\nr1,1,2,0\nr2,2,1,1\n", {"--y", "y"}, "{d}d.csv: 2 observations; an OPLS model needs at least 3", 1},
        {good, {"--y", "y1", "--predictive", "2"},
         "--predictive 2: {d}d.csv can take at most 1 (1 response, 5 X variables, 12 observations)", 2},
        {good, {"--y", "y1", "--orthogonal", "5"},
         "--orthogonal 5: {d}d.csv can take at most 4 with 1 predictive component (min(K - A, N - A - 2, 20) = "
         "min(4, 9, 20))", 2},
        {good, {"--y", "y1", "--log", "zz"}, "--log: {d}d.csv has no variable \"zz\"", 2},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File("d.csv"), c.csv);
        WriteFile(dir.File("y3.csv"), "obs,q\no1,1\no2,2\no3,3\n");
        std::vector<std::string> args{"opls", "{d}d.csv", "--fitted", "{d}f.csv", "--save", "{d}m.bin",
                                      "--plot", "{d}p.svg"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ExpectRefusal(dir, args, c.message, c.code);
    }
    TempDir dir;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"opls", "--y", "Alcohol", "--orthogonal", "-1"}, {"opls", "--y", "Alcohol", "--predictive", "0"},
             {"opls", "--y", "Alcohol", "--y-scale", "log"}}) {
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << args[3];
        EXPECT_THAT(r.err, HasSubstr("--help"));
    }
}

// One mark per observation, named by it; without an orthogonal component the
// predictive scores are drawn against the observations' order.
TEST(VeltanOpls, ScorePlotMarksEveryObservation)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), TableWithGaps(30, 8, 11));
    const RunResult r = Veltan(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--orthogonal", "1",
                                     "--plot", dir.File("t.svg")});
    EXPECT_THAT(r.out, HasSubstr("\nScore plot written to " + dir.File("t.svg") + "\n"));
    XmlDocument doc = ParseXml(ReadFile(dir.File("t.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 30u);
    for (const XmlElement& label : ElementsOfClass(doc, "text", "label"))
        EXPECT_THAT(label.text, testing::MatchesRegex("o[0-9]+"));
    std::vector<XmlElement> axes = ElementsOfClass(doc, "text", "axis-title");
    ASSERT_EQ(axes.size(), 2u);
    EXPECT_EQ(axes[0].text, "t[1] (predictive)");
    EXPECT_EQ(axes[1].text, "to[1] (orthogonal)");

    Veltan(dir, {"opls", dir.File("d.csv"), "--y", "y1", "--orthogonal", "0", "--plot", dir.File("t0.svg")});
    doc = ParseXml(ReadFile(dir.File("t0.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 30u);
    axes = ElementsOfClass(doc, "text", "axis-title");
    ASSERT_EQ(axes.size(), 2u);
    EXPECT_EQ(axes[0].text, "observation index");
    EXPECT_EQ(axes[1].text, "t[1] (predictive)");
}

// Ctrl-C while the orthogonal components are cross-validated: the library's
// cancel message, exit 130, and none of the requested files.
TEST(VeltanOpls, InterruptLeavesNoFile)
{
    TempDir dir;
    WriteFile(dir.File("big.csv"), LatentTable(4000, 60, 2));
    const RunResult r = InterruptOnceStarted(dir, {"opls", dir.File("big.csv"), "--y", "y1", "--y", "y2",
                                                   "--orthogonal", "20", "--cv-groups", "100", "--progress", "--fitted",
                                                   dir.File("f.csv"), "--save", dir.File("m.bin")});
    EXPECT_EQ(r.exitCode, 130);
    const std::string last = r.err.substr(r.err.rfind('\r') + 1);
    EXPECT_TRUE(last == "veltan: OPLS component aborted.\n" || last == "veltan: OPLS cross-validation aborted.\n" ||
                last == "veltan: Computations aborted.\n")
        << last;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}
