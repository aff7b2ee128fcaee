#include "CliTestSupport.h"
#include "XmlCheck.h"

#include "cli/O2plsCommand.h"

#include "../models/fixtures/O2PLSReference.inc"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <random>

using namespace cli_test;
using testing::HasSubstr;

namespace {

const std::vector<std::string> XNames{"Alcohol", "Malic acid", "Ash", "Alcalinity of ash", "Magnesium", "Proline"};
const std::vector<std::string> YNames{"Total phenols",   "Flavanoids", "Nonflavanoid phenols",        "Proanthocyanins",
                                      "Color intensity", "Hue",        "OD280/OD315 of diluted wines"};

// The reference's split of the bundled wines: every third one to fit on,
// the one after each of the first ten of those as new rows.
struct WineBlocks {
    std::vector<std::vector<double>> x, y, newX, newY;
};

std::string Header(const std::vector<std::string>& names)
{
    std::string text = "wine";
    for (const std::string& name : names)
        text += "," + name;
    return text + "\n";
}

WineBlocks SplitWine()
{
    const std::vector<std::string> lines = Lines(ReadFile(WineCsv()));
    std::vector<std::string> header;
    std::istringstream first(lines.at(0));
    for (std::string cell; std::getline(first, cell, ',');)
        header.push_back(cell);
    const auto columns = [&](const std::vector<std::string>& names) {
        std::vector<std::size_t> found;
        for (const std::string& name : names)
            found.push_back(static_cast<std::size_t>(std::find(header.begin(), header.end(), name) - header.begin()));
        return found;
    };
    const std::vector<std::size_t> xc = columns(XNames), yc = columns(YNames);
    WineBlocks blocks;
    for (std::size_t r = 1; r < lines.size(); ++r) {
        std::vector<double> cells{0.0};
        std::istringstream in(lines[r]);
        std::string cell;
        std::getline(in, cell, ',');
        while (std::getline(in, cell, ','))
            cells.push_back(std::stod(cell));
        std::vector<double> x, y;
        for (std::size_t c : xc)
            x.push_back(cells[c]);
        for (std::size_t c : yc)
            y.push_back(cells[c]);
        const std::size_t i = r - 1;
        if (i % 3 == 0) {
            blocks.x.push_back(x);
            blocks.y.push_back(y);
        } else if (i % 3 == 1 && blocks.newX.size() < static_cast<std::size_t>(O2PLSNewRows)) {
            blocks.newX.push_back(x);
            blocks.newY.push_back(y);
        }
    }
    return blocks;
}

std::string TableCsv(const std::vector<std::string>& names, const std::vector<std::vector<double>>& rows)
{
    std::ostringstream csv;
    csv.precision(17);
    csv << Header(names);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        csv << "w" << i + 1;
        for (double v : rows[i])
            csv << "," << v;
        csv << "\n";
    }
    return csv.str();
}

// Column means and standard deviations (N - 1), as unit-variance scaling
// takes them.
std::pair<std::vector<double>, std::vector<double>> MeanSd(const std::vector<std::vector<double>>& rows)
{
    const std::size_t k = rows.front().size();
    std::vector<double> mean(k, 0.0), sd(k, 0.0);
    for (const auto& row : rows)
        for (std::size_t j = 0; j < k; ++j)
            mean[j] += row[j] / static_cast<double>(rows.size());
    for (const auto& row : rows)
        for (std::size_t j = 0; j < k; ++j)
            sd[j] += (row[j] - mean[j]) * (row[j] - mean[j]);
    for (double& s : sd)
        s = std::sqrt(s / static_cast<double>(rows.size() - 1));
    return {mean, sd};
}

// The numbers of a loadings file, past its block and variable columns; an
// empty cell reads as NaN.
std::vector<std::vector<double>> LoadingRows(const std::string& text)
{
    std::vector<std::vector<double>> rows;
    const std::vector<std::string> lines = Lines(text);
    for (std::size_t r = 1; r < lines.size(); ++r) {
        std::istringstream in(lines[r] + ",");
        std::vector<double> row;
        std::string cell;
        for (int c = 0; std::getline(in, cell, ','); ++c)
            if (c >= 2)
                row.push_back(cell.empty() ? std::nan("") : std::stod(cell));
        rows.push_back(row);
    }
    return rows;
}

// Two blocks sharing one latent direction; X also carries a strong
// direction of its own that Y never sees, and Y only noise of its own.
void WriteStructuredBlocks(const TempDir& dir, int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::ostringstream x, y;
    x << "obs,x1,x2,x3,x4,x5,x6\n";
    y << "obs,y1,y2,y3,y4\n";
    for (int i = 1; i <= n; ++i) {
        const double joint = normal(rng), own = 2.0 * normal(rng);
        x << "o" << i;
        for (int j = 1; j <= 6; ++j)
            x << "," << joint * (j % 2 ? 1.0 : -0.8) + own * (j <= 3 ? 1.0 : -1.0) + 0.2 * normal(rng);
        y << "o" << i;
        for (int j = 1; j <= 4; ++j)
            y << "," << joint * (j % 2 ? 0.9 : 1.1) + 0.2 * normal(rng);
        x << "\n";
        y << "\n";
    }
    WriteFile(dir.File("x.csv"), x.str());
    WriteFile(dir.File("y.csv"), y.str());
}

} // namespace

// The joint weights and orthogonal loadings of both blocks, and the
// predictions of new rows in both directions, against an independent NumPy
// implementation of the published algorithm, for three sizes of model; the
// saved model predicts through the tool's own file and undoes the scaling.
TEST(VeltanO2pls, WineAgreesWithTheNumPyReference)
{
    const WineBlocks wine = SplitWine();
    ASSERT_EQ(wine.x.size(), static_cast<std::size_t>(O2PLSRows));
    TempDir dir;
    WriteFile(dir.File("x.csv"), TableCsv(XNames, wine.x));
    WriteFile(dir.File("y.csv"), TableCsv(YNames, wine.y));
    WriteFile(dir.File("nx.csv"), TableCsv(XNames, wine.newX));
    WriteFile(dir.File("ny.csv"), TableCsv(YNames, wine.newY));
    const auto [xMean, xSd] = MeanSd(wine.x);
    const auto [yMean, ySd] = MeanSd(wine.y);
    for (const O2PLSReferenceCase& ref : O2PLSCases) {
        SCOPED_TRACE(testing::Message() << ref.pred << "/" << ref.orthX << "/" << ref.orthY);
        Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--predictive", std::to_string(ref.pred),
                     "--x-orthogonal", std::to_string(ref.orthX), "--y-orthogonal", std::to_string(ref.orthY),
                     "--loadings", dir.File("l.csv"), "--save", dir.File("m.bin")});
        // One row per variable: X's first, then Y's; columns joint1..A, then
        // orthogonal1..max(ox, oy).
        const std::vector<std::vector<double>> loadings = LoadingRows(ReadFile(dir.File("l.csv")));
        ASSERT_EQ(loadings.size(), XNames.size() + YNames.size());
        const auto expectUpToSign = [&](const double* expected, std::size_t firstRow, int width, int count,
                                        std::size_t firstColumn, const char* what) {
            for (int a = 0; a < count; ++a) {
                // The first cell of the column chooses the sign.
                const double sign = (loadings[firstRow][firstColumn + a] * expected[a * width] < 0.0) ? -1.0 : 1.0;
                for (int j = 0; j < width; ++j)
                    EXPECT_NEAR(sign * loadings[firstRow + static_cast<std::size_t>(j)][firstColumn + a],
                                expected[a * width + j], 2e-4)
                        << what << " component " << a + 1 << " variable " << j + 1;
            }
        };
        const std::size_t joint = 0, orthogonal = static_cast<std::size_t>(ref.pred);
        expectUpToSign(ref.W, 0, O2PLSXCols, ref.pred, joint, "W");
        expectUpToSign(ref.C, XNames.size(), O2PLSYCols, ref.pred, joint, "C");
        expectUpToSign(ref.POX, 0, O2PLSXCols, ref.orthX, orthogonal, "PO_X");
        expectUpToSign(ref.POY, XNames.size(), O2PLSYCols, ref.orthY, orthogonal, "PO_Y");

        // Y from new X, then X from new Y, each in its own units.
        for (const bool fromX : {true, false}) {
            const RunResult r = Veltan(dir, {"predict", dir.File("m.bin"), dir.File(fromX ? "nx.csv" : "ny.csv")});
            const Csv predicted = ParseCsv(r.out);
            EXPECT_EQ(predicted.header[1], fromX ? YNames[0] : XNames[0]);
            const double* hat = fromX ? ref.YHat : ref.XHat;
            const std::vector<double>& mean = fromX ? yMean : xMean;
            const std::vector<double>& sd = fromX ? ySd : xSd;
            ASSERT_EQ(predicted.rows.size(), static_cast<std::size_t>(O2PLSNewRows));
            for (std::size_t i = 0; i < predicted.rows.size(); ++i)
                for (std::size_t j = 0; j < mean.size(); ++j)
                    EXPECT_NEAR(predicted.rows[i][j], mean[j] + sd[j] * hat[i * mean.size() + j], 2e-4 * sd[j])
                        << (fromX ? "Y" : "X") << " row " << i + 1 << " column " << j + 1;
        }
    }
}

// Each block splits into its joint part, its orthogonal part and what is
// left: the orthogonal scores are regressions on the block and the joint
// scores projections of what they leave, so the three shares add up to the
// whole; the X block has no orthogonal share when none is asked for.
TEST(VeltanO2pls, SharesOfEachBlockAddUpAndJsonMatchesTheReport)
{
    TempDir dir;
    WriteStructuredBlocks(dir, 80, 3);
    for (const auto& [ox, oy] : {std::pair{0, 0}, std::pair{1, 0}, std::pair{2, 1}}) {
        SCOPED_TRACE(testing::Message() << ox << "/" << oy);
        const RunResult r =
            Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--predictive", "1", "--x-orthogonal",
                         std::to_string(ox), "--y-orthogonal", std::to_string(oy), "--json"});
        const nlohmann::json doc = nlohmann::json::parse(r.out);
        EXPECT_EQ(doc["command"], "o2pls");
        EXPECT_TRUE(doc["grid"].is_null());
        EXPECT_EQ(doc["x_orthogonal"], ox);
        for (const char* block : {"x", "y"}) {
            const nlohmann::json& s = doc[block];
            EXPECT_NEAR(s["joint"].get<double>() + s["orthogonal"].get<double>() + s["residual"].get<double>(), 1.0,
                        1e-5)
                << block;
            EXPECT_LE(s["predicted"].get<double>(), s["joint"].get<double>() + 1e-6) << block;
        }
        // X's own strong direction is what its first orthogonal component takes.
        if (ox == 0) {
            EXPECT_EQ(doc["x"]["orthogonal"], 0.0);
        } else {
            EXPECT_GT(doc["x"]["orthogonal"].get<double>(), 0.5);
        }
    }
    const RunResult text = Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--predictive", "1"});
    EXPECT_THAT(text.out, HasSubstr("1 joint + 0 X-orthogonal + 0 Y-orthogonal components, as asked:\n"
                                    "Block      Joint  Orthogonal  Residual  Predicted\nX  "));
}

// With --cv (or without counts) the grid runs to --max-components of each
// kind; on blocks with one shared direction and one of X's own, the choice
// is one joint and one X-orthogonal component, and the chosen model is the
// one fitted and saved.
TEST(VeltanO2pls, CrossValidationChoosesTheStructureOfTheData)
{
    TempDir dir;
    WriteStructuredBlocks(dir, 90, 5);
    const RunResult r = Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--max-components", "2",
                                     "--cv-groups", "6", "--json", "--save", dir.File("m.bin")});
    const nlohmann::json doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(doc["cv_groups"], 6);
    ASSERT_EQ(doc["grid"].size(), 2u * 3u * 3u);
    EXPECT_EQ(doc["joint"], 1);
    EXPECT_EQ(doc["x_orthogonal"], 1);
    EXPECT_EQ(doc["y_orthogonal"], 0);
    EXPECT_EQ(doc["files"]["model"], dir.File("m.bin"));
    double best = -1.0;
    for (const nlohmann::json& cell : doc["grid"]) {
        ASSERT_TRUE(cell["q2_y_from_x"].is_number());
        best = std::max(best, cell["q2_y_from_x"].get<double>());
        if (cell["joint"] == 1 && cell["x_orthogonal"] == 1 && cell["y_orthogonal"] == 0) {
            EXPECT_GT(cell["q2_y_from_x"].get<double>(), 0.8);
        }
    }
    EXPECT_LT(best, 1.0);

    const RunResult text = Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--max-components", "1"});
    const std::vector<std::string> lines = Lines(text.out);
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ(lines[2], "Cross-validated Q2 (7 groups); columns: Y-orthogonal components");
    EXPECT_EQ(lines[4], "Joint  X-orth     0      1          0      1 ");
    EXPECT_THAT(lines[6], testing::MatchesRegex("    1       1( [-0-9.]{5}[* ]){2}    ( [-0-9.]{5}[* ]){2}"));
    EXPECT_THAT(lines[6], HasSubstr("*"));
    EXPECT_THAT(text.out, HasSubstr("Chosen (*): 1 joint + 1 X-orthogonal + 0 Y-orthogonal components;"));
}

// Predictions refuse tables of neither block, and a sparse row gets nothing.
TEST(VeltanO2pls, PredictFindsTheBlockByItsVariables)
{
    TempDir dir;
    WriteStructuredBlocks(dir, 40, 7);
    Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--predictive", "1", "--x-orthogonal", "1", "--save",
                 dir.File("m.bin")});
    WriteFile(dir.File("gappy.csv"), "obs,x1,x2,x3,x4,x5,x6\na,1,,,,,2\nb,1,2,3,4,5,6\n");
    const RunResult r = Veltan(dir, {"predict", dir.File("m.bin"), dir.File("gappy.csv"), "--scores", dir.File("s.csv"),
                                     "--predictions", dir.File("p.csv")});
    EXPECT_EQ(r.out, "Predicted 4 Y variables of 2 observations written to " + dir.File("p.csv") +
                         "\nScores on 1 joint + 1 orthogonal components written to " + dir.File("s.csv") + "\n");
    EXPECT_EQ(ParseCsv(ReadFile(dir.File("s.csv"))).header, (std::vector<std::string>{"obs", "t1", "tox1"}));
    const Csv p = ParseCsv(ReadFile(dir.File("p.csv")));
    EXPECT_TRUE(std::isnan(p.rows[0][0]));
    EXPECT_FALSE(std::isnan(p.rows[1][0]));

    const RunResult json = Veltan(dir, {"predict", dir.File("m.bin"), dir.File("y.csv"), "--json"});
    const nlohmann::json doc = nlohmann::json::parse(json.out);
    EXPECT_EQ(doc["from"], "y");
    EXPECT_EQ(doc["predicted"].size(), 6u);
    EXPECT_EQ(doc["predictions"][0]["x"].size(), 6u);
    EXPECT_EQ(doc["predictions"][0]["u"].size(), 1u);
    EXPECT_EQ(doc["predictions"][0]["to"].size(), 0u);

    WriteFile(dir.File("other.csv"), "obs,x1,x2,x3,q\na,1,2,3,4\n");
    ExpectRefusal(dir, {"predict", "{d}m.bin", "{d}other.csv"},
                  "{d}other.csv: no variable \"x4\", which the model {d}m.bin has as X variable 4", 1);
}

TEST(VeltanO2pls, BadInputIsOneLineAndLeavesNoFile)
{
    struct Case {
        std::string x, y;
        std::vector<std::string> args;
        std::string message;
        int code;
    };
    const std::string x = "n,a,b,c\nr1,1,2,4\nr2,2,3,1\nr3,3,1,2\nr4,5,2,7\nr5,4,4,4\n";
    const std::string y = "n,p,q\nr1,1,2\nr2,2,1\nr3,3,3\nr4,5,2\nr5,1,1\n";
    const std::vector<Case> cases{
        {"n,a,b,c\nr1,1,2,4\nr2,2,,1\nr3,3,1,2\nr4,5,2,7\nr5,4,4,4\n",
         y,
         {"--predictive", "1"},
         "{d}x.csv: row 3, column 3 (\"b\"): missing value; an O2PLS model needs complete tables (fill the cell or "
         "leave the row out)",
         1},
        {x, "n,p,q\nr1,1,2\nr2,2,1\n", {"--predictive", "1"}, "{d}y.csv: 2 observations, but {d}x.csv has 5", 1},
        {x,
         y,
         {"--predictive", "3"},
         "--predictive 3: {d}x.csv and {d}y.csv can carry at most 2 (3 X variables, 2 Y variables, 5 observations)",
         2},
        {x,
         y,
         {"--predictive", "1", "--x-orthogonal", "4"},
         "--x-orthogonal 4: {d}x.csv: There are only 3 OPLS-orthogonal dimensions in X. More components can not "
         "be calculated.",
         2},
        {"n,a,b\nr1,1,2\nr2,1,3\nr3,1,1\n",
         "n,p\nr1,3\nr2,3\nr3,3\n",
         {"--predictive", "1", "--scale", "center"},
         "{d}y.csv: no variable varies once preprocessed (nothing to model)",
         1},
        {"n,a\nr1,1\nr2,2\n",
         "n,p\nr1,1\nr2,2\n",
         {"--predictive", "1"},
         "{d}x.csv: 2 observations; an O2PLS model needs at least 3",
         1},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File("x.csv"), c.x);
        WriteFile(dir.File("y.csv"), c.y);
        std::vector<std::string> args{"o2pls",  "{d}x.csv", "{d}y.csv", "--scores", "{d}s.csv",
                                      "--save", "{d}m.bin", "--plot",   "{d}p.svg"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ExpectRefusal(dir, args, c.message, c.code);
    }
    TempDir dir;
    WriteFile(dir.File("x.csv"), x);
    WriteFile(dir.File("y.csv"), y);
    for (const std::vector<std::string>& extra :
         std::vector<std::vector<std::string>>{{"--cv", "--predictive", "1"},
                                               {"--x-orthogonal", "1"},
                                               {"--predictive", "0"},
                                               {"--predictive", "1", "--max-components", "2"},
                                               {"--max-components", "0"}}) {
        std::vector<std::string> args{"o2pls", dir.File("x.csv"), dir.File("y.csv")};
        args.insert(args.end(), extra.begin(), extra.end());
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << extra[0];
        EXPECT_THAT(r.err, HasSubstr("--help")) << extra[0];
    }
}

// One panel per joint component up to two, one labelled mark per
// observation in each.
TEST(VeltanO2pls, PlotDrawsJointScoresOfBothBlocks)
{
    TempDir dir;
    WriteStructuredBlocks(dir, 25, 9);
    Veltan(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--predictive", "3", "--plot", dir.File("p.svg")});
    const XmlDocument doc = ParseXml(ReadFile(dir.File("p.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 50u);
    std::vector<std::string> titles;
    for (const XmlElement& axis : ElementsOfClass(doc, "text", "axis-title"))
        titles.push_back(axis.text);
    EXPECT_EQ(titles, (std::vector<std::string>{"t[1] (X)", "u[1] (Y)", "t[2] (X)", "u[2] (Y)"}));
}

TEST(VeltanO2pls, InterruptLeavesNoFile)
{
    TempDir dir;
    WriteStructuredBlocks(dir, 3000, 11);
    const RunResult r = InterruptOnceStarted(dir, {"o2pls", dir.File("x.csv"), dir.File("y.csv"), "--cv", "--cv-groups",
                                                   "200", "--progress", "--save", dir.File("m.bin")});
    EXPECT_EQ(r.exitCode, 130);
    const std::string last = r.err.substr(r.err.rfind('\r') + 1);
    EXPECT_THAT(last, testing::EndsWith("aborted.\n"));
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), (std::set<std::string>{"x.csv", "y.csv"}));
}
