#include "CliTestSupport.h"
#include "XmlCheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <map>
#include <numeric>
#include <set>
#include <thread>

using namespace cli_test;
using testing::HasSubstr;

namespace {

// Four subgroups of five small integers: means 11, 11, 10, 12 and ranges
// 4, 2, 4, 2, so that every limit can be worked out on paper.
const std::vector<std::vector<double>> Groups{
    {10, 12, 11, 9, 13}, {11, 10, 12, 11, 11}, {9, 11, 10, 12, 8}, {12, 13, 11, 12, 12}};

std::vector<double> Flat(const std::vector<std::vector<double>>& groups, double shift = 0.0)
{
    std::vector<double> values;
    for (const auto& g : groups)
        for (const double v : g)
            values.push_back(v + shift);
    return values;
}

// A table "t,x" of the values, t running 0, 1, 2, ...
std::string Table(const std::vector<double>& values)
{
    std::ostringstream csv;
    csv << "t,x\n";
    for (std::size_t i = 0; i < values.size(); ++i)
        csv << i << "," << values[i] << "\n";
    return csv.str();
}

double Mean(const std::vector<double>& v) { return std::accumulate(v.begin(), v.end(), 0.0) / v.size(); }

double SampleSd(const std::vector<double>& v)
{
    const double m = Mean(v);
    double ss = 0.0;
    for (const double x : v)
        ss += (x - m) * (x - m);
    return std::sqrt(ss / (v.size() - 1));
}

void ExpectLimits(const nlohmann::json& limits, double centre, double lcl, double ucl, double tolerance = 1e-4)
{
    EXPECT_NEAR(limits.at("centre").get<double>(), centre, tolerance) << limits;
    EXPECT_NEAR(limits.at("lcl").get<double>(), lcl, tolerance) << limits;
    EXPECT_NEAR(limits.at("ucl").get<double>(), ucl, tolerance) << limits;
}

// The flagged points of a JSON document as point -> rule numbers.
std::map<int, std::set<int>> Flags(const nlohmann::json& doc)
{
    std::map<int, std::set<int>> flags;
    for (const auto& f : doc.at("flagged"))
        for (const int r : f.at("rules"))
            flags[f.at("point").get<int>()].insert(r);
    return flags;
}

// A series about 0 with sigma 1 in which each classic rule is planted once,
// apart from the others: point 2 beyond 3 sigma (rule 0), points 6 and 8
// beyond 2 sigma (rule 1), four of points 12 to 16 below -1 sigma (rule 2),
// and points 20 to 28 nine in a row above the centre (rule 3). Neighbours
// alternate sides so that nothing else qualifies.
const std::vector<double> Planted{0.5,  -0.5, 3.5,  -0.5, 0.5, -0.5, 2.5, 0.5, 2.5, -0.5,
                                  0.5,  -0.5, -1.5, -1.5, -0.5, -1.5, -1.5, 0.5, -0.5, -0.5,
                                  0.3,  0.3,  0.3,  0.3,  0.3, 0.3,  0.3,  0.3, 0.3,  -0.3};
const std::map<int, std::set<int>> PlantedFlags{
    {2, {0}},  {6, {1}},  {8, {1}},  {12, {2}}, {13, {2}}, {15, {2}}, {16, {2}}, {20, {3}},
    {21, {3}}, {22, {3}}, {23, {3}}, {24, {3}}, {25, {3}}, {26, {3}}, {27, {3}}, {28, {3}}};

} // namespace

// The textbook factors for subgroups of 5 (A2 0.577, D3 0, D4 2.114; A3
// 1.427, B3 0, B4 2.089; d2 2.326, c4 0.94) applied by hand.
TEST(VeltanChart, ShewhartLimitsOfSubgroupsOfFiveFollowTheTextbookFactors)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(Flat(Groups)));
    const double grand = 11.0, rBar = 3.0;
    nlohmann::json doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "mean-range",
                                       "--subgroup", "5", "--json"});
    ExpectFields(doc, {{"command", "chart"}, {"type", "mean-range"}, {"column", "x"}, {"subgroups", 4},
                       {"subgroup_size", 5}, {"rows", 20}, {"present", 20}, {"time", nullptr},
                       {"limits_from", nullptr}, {"rules", nullptr}, {"flagged", nlohmann::json::array()}});
    ExpectLimits(doc["limits"]["mean"], grand, grand - 0.577 * rBar, grand + 0.577 * rBar);
    ExpectLimits(doc["limits"]["range"], rBar, 0.0, 2.114 * rBar);
    EXPECT_NEAR(doc["sigma"].get<double>(), rBar / 2.326, 1e-4);
    ASSERT_EQ(doc["points"].size(), 4u);
    const double means[] = {11, 11, 10, 12}, ranges[] = {4, 2, 4, 2};
    for (std::size_t g = 0; g < 4; ++g) {
        EXPECT_EQ(doc["points"][g]["point"], g);
        EXPECT_NEAR(doc["points"][g]["mean"].get<double>(), means[g], 1e-6);
        EXPECT_NEAR(doc["points"][g]["range"].get<double>(), ranges[g], 1e-6);
    }

    std::vector<double> sds;
    for (const auto& g : Groups)
        sds.push_back(SampleSd(g));
    const double sBar = Mean(sds);
    doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "mean-sd", "--subgroup", "5",
                        "--json"});
    ExpectLimits(doc["limits"]["mean"], grand, grand - 1.427 * sBar, grand + 1.427 * sBar);
    ExpectLimits(doc["limits"]["sd"], sBar, 0.0, 2.089 * sBar);
    EXPECT_NEAR(doc["sigma"].get<double>(), sBar / 0.94, 1e-3);
    EXPECT_NEAR(doc["points"][1]["sd"].get<double>(), std::sqrt(0.5), 1e-6);

    // The report shows the same numbers, six significant digits.
    const RunResult r = Veltan(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "mean-range",
                                     "--subgroup", "5"});
    EXPECT_THAT(r.out, testing::StartsWith("Mean and range chart of \"x\" in " + dir.File("d.csv") +
                                           ": 4 subgroups of 5 values\n"));
    EXPECT_THAT(r.out, HasSubstr("\nMean                          11       9.269      12.731\n"));
    EXPECT_THAT(r.out, HasSubstr("\nRange                          3           0       6.342\n"));
    EXPECT_THAT(r.out, HasSubstr("\nRanges within their limits\nRun rules not applied"));
    EXPECT_EQ(doc["spread_beyond_limits"], nlohmann::json::array());

    // A fifth subgroup of range 12 lifts the mean range to 4.8 and lies
    // beyond the range UCL of 2.114 * 4.8 = 10.15: flagged, and ringed in the
    // range panel, though no run rule looks at ranges.
    std::vector<std::vector<double>> wide = Groups;
    wide.push_back({5, 17, 11, 11, 11});
    WriteFile(dir.File("w.csv"), Table(Flat(wide)));
    doc = RunJson(dir, {"chart", dir.File("w.csv"), "--column", "x", "--type", "mean-range", "--subgroup", "5",
                        "--json", "--plot", dir.File("w.svg")});
    ExpectLimits(doc["limits"]["range"], 4.8, 0.0, 2.114 * 4.8);
    EXPECT_EQ(doc["spread_beyond_limits"], nlohmann::json({4}));
    EXPECT_EQ(ElementsOfClass(ParseXml(ReadFile(dir.File("w.svg"))), "circle", "flagged").size(), 1u);
    EXPECT_THAT(Veltan(dir, {"chart", dir.File("w.csv"), "--column", "x", "--type", "mean-range", "--subgroup", "5"})
                    .out,
                HasSubstr("\nRanges beyond their limits: subgroup 4\n"));
}

// Individual values: sigma is the mean moving range over 1.128, or --sigma;
// the limits are the target +- 3 sigma, and +- 3 sigma / sqrt(n) for means
// of n values.
TEST(VeltanChart, IndividualsChartTakesItsSigmaFromTheMovingRangeOrTheOption)
{
    TempDir dir;
    const std::vector<double> values = Flat(Groups);
    WriteFile(dir.File("d.csv"), Table(values));
    double moving = 0.0;
    for (std::size_t i = 1; i < values.size(); ++i)
        moving += std::fabs(values[i] - values[i - 1]);
    const double sigma = moving / (values.size() - 1) / 1.128, mean = Mean(values);
    nlohmann::json doc =
        RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual", "--json"});
    EXPECT_NEAR(doc["sigma"].get<double>(), sigma, 1e-5);
    EXPECT_EQ(doc["sigma_source"], "mean moving range / 1.128");
    EXPECT_EQ(doc["subgroups"], 20);
    ExpectLimits(doc["limits"]["mean"], mean, mean - 3 * sigma, mean + 3 * sigma);

    doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual", "--sigma", "2",
                        "--target", "10.5", "--json"});
    ExpectLimits(doc["limits"]["mean"], 10.5, 4.5, 16.5);
    EXPECT_EQ(doc["sigma_source"], "given with --sigma");

    doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual", "--sigma", "2",
                        "--subgroup", "4", "--json"});
    EXPECT_EQ(doc["subgroups"], 5);
    ExpectLimits(doc["limits"]["mean"], mean, mean - 3.0, mean + 3.0);

    // Missing values break the moving ranges they touch, and show as gaps.
    std::string gappy = Table(values);
    gappy.replace(gappy.find("\n3,9\n"), 5, "\n3,\n");
    WriteFile(dir.File("g.csv"), gappy);
    std::vector<double> kept;
    double sum = 0.0;
    int ranges = 0;
    for (std::size_t i = 1; i < values.size(); ++i)
        if (i != 3 && i != 4) {
            sum += std::fabs(values[i] - values[i - 1]);
            ++ranges;
        }
    doc = RunJson(dir, {"chart", dir.File("g.csv"), "--column", "x", "--type", "individual", "--json", "--out",
                        dir.File("o.csv")});
    EXPECT_NEAR(doc["sigma"].get<double>(), sum / ranges / 1.128, 1e-5);
    EXPECT_EQ(doc["present"], 19);
    EXPECT_TRUE(doc["points"][3]["mean"].is_null());
    const Csv out = ParseCsv(ReadFile(dir.File("o.csv")));
    EXPECT_TRUE(std::isnan(out.rows[3][0]));
    const RunResult r = Veltan(dir, {"chart", dir.File("g.csv"), "--column", "x", "--type", "individual"});
    EXPECT_THAT(r.out, HasSubstr(": 20 values, 1 value missing\n"));
    for (const char* bad : {"nan", "inf", "-99"})
        EXPECT_THAT(r.out + ReadFile(dir.File("o.csv")), testing::Not(HasSubstr(bad)));
}

// The four classic rules on a series where each is planted alone; as means
// of four values with sigma 2, the same means must flag the same points,
// since the sigma of a mean of four is 1.
TEST(VeltanChart, ClassicRulesFlagThePlantedPatterns)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(Planted));
    const nlohmann::json doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual",
                                             "--target", "0", "--sigma", "1", "--rules", "we", "--json"});
    EXPECT_EQ(Flags(doc), PlantedFlags);
    EXPECT_EQ(doc["rules"], "we");
    ASSERT_EQ(doc["rule_descriptions"].size(), 4u);
    EXPECT_EQ(doc["rule_descriptions"][0], "1 point outside zone A");
    EXPECT_EQ(doc["flagged"][0]["descriptions"], nlohmann::json({"1 point outside zone A"}));

    std::vector<std::vector<double>> quads;
    for (const double v : Planted)
        quads.push_back({v - 1.0, v + 1.0, v + 0.5, v - 0.5});
    WriteFile(dir.File("m.csv"), Table(Flat(quads)));
    const nlohmann::json means = RunJson(dir, {"chart", dir.File("m.csv"), "--column", "x", "--type", "individual",
                                               "--subgroup", "4", "--target", "0", "--sigma", "2", "--rules", "we",
                                               "--json"});
    EXPECT_EQ(Flags(means), PlantedFlags);

    const RunResult r = Veltan(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual",
                                     "--target", "0", "--sigma", "1", "--rules", "we"});
    EXPECT_THAT(r.out, HasSubstr("\nRun rules: the classic four; 16 points flagged\n\n  Point  Rules  Description\n"
                                 "      2  0      1 point outside zone A\n"
                                 "      6  1      2 of 3 points outside zone B\n"));
    EXPECT_THAT(r.out, HasSubstr("\n     28  3      9 consecutive points on the same side of average\n"));

    // Without --rules nothing is judged.
    const nlohmann::json plain = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual",
                                               "--target", "0", "--sigma", "1", "--json"});
    EXPECT_TRUE(plain["flagged"].empty());
    EXPECT_TRUE(plain["rules"].is_null());
}

// Groups along a time column: intervals of 5 over times 0 to 19 hold the
// same values as subgroups of 5; a stretch without times leaves a group
// without a mean, which stays empty in every output.
TEST(VeltanChart, IntervalGroupingFollowsTheTimeColumn)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(Flat(Groups)));
    nlohmann::json doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "mean-range", "--time",
                                       "t", "--interval", "5", "--json", "--out", dir.File("o.csv")});
    ExpectFields(doc, {{"time", "t"}, {"interval", 5.0}, {"subgroups", 4}});
    const double means[] = {11, 11, 10, 12}, ranges[] = {4, 2, 4, 2};
    for (std::size_t g = 0; g < 4; ++g) {
        EXPECT_NEAR(doc["points"][g]["mean"].get<double>(), means[g], 1e-6);
        EXPECT_NEAR(doc["points"][g]["range"].get<double>(), ranges[g], 1e-6);
        EXPECT_NEAR(doc["points"][g]["time"].get<double>(), 5.0 * g + 2.0, 1e-6);
        EXPECT_EQ(doc["points"][g]["size"], 5);
    }
    // The limits follow the factors of the size the chart reports.
    const int n = doc["subgroup_size"];
    const double a2[] = {0, 0, 1.880, 1.023, 0.729, 0.577};
    ASSERT_GE(n, 2);
    ASSERT_LE(n, 5);
    ExpectLimits(doc["limits"]["mean"], 11.0, 11.0 - a2[n] * 3.0, 11.0 + a2[n] * 3.0);
    const Csv out = ParseCsv(ReadFile(dir.File("o.csv")));
    EXPECT_EQ(out.header, (std::vector<std::string>{"point", "time", "size", "mean", "centre", "lcl", "ucl", "range",
                                                    "range_centre", "range_lcl", "range_ucl", "rules"}));
    ASSERT_EQ(out.rows.size(), 4u);
    EXPECT_EQ(out.rows[2][0], 12.0);
    EXPECT_EQ(out.rows[2][1], 5.0);
    EXPECT_EQ(out.rows[2][2], 10.0);

    // Times 0-4, then 10-19: the interval [5, 10) is empty.
    std::ostringstream gap;
    gap << "t,x\n";
    const std::vector<double> values = Flat({Groups[0], Groups[1], Groups[2]});
    for (std::size_t i = 0; i < values.size(); ++i)
        gap << (i < 5 ? i : i + 5) << "," << values[i] << "\n";
    WriteFile(dir.File("gap.csv"), gap.str());
    doc = RunJson(dir, {"chart", dir.File("gap.csv"), "--column", "x", "--type", "individual", "--time", "t",
                        "--interval", "5", "--json", "--out", dir.File("g.csv")});
    ASSERT_EQ(doc["subgroups"], 4);
    EXPECT_TRUE(doc["points"][1]["mean"].is_null());
    EXPECT_NEAR(doc["points"][2]["mean"].get<double>(), 11.0, 1e-6);
    const Csv g = ParseCsv(ReadFile(dir.File("g.csv")));
    EXPECT_TRUE(std::isnan(g.rows[1][2]));
}

// The limits of a reference period applied to a later one: the centre line
// and limits are the reference's, the plotted statistics the new table's.
TEST(VeltanChart, LimitsFromAReferencePeriod)
{
    TempDir dir;
    WriteFile(dir.File("ref.csv"), Table(Flat(Groups)));
    WriteFile(dir.File("new.csv"), Table(Flat(Groups, 1.5)));
    nlohmann::json doc = RunJson(dir, {"chart", dir.File("new.csv"), "--column", "x", "--type", "mean-range",
                                       "--subgroup", "5", "--limits-from", dir.File("ref.csv"), "--rules", "we",
                                       "--json"});
    EXPECT_EQ(doc["limits_from"], dir.File("ref.csv"));
    ExpectLimits(doc["limits"]["mean"], 11.0, 11.0 - 0.577 * 3.0, 11.0 + 0.577 * 3.0);
    ExpectLimits(doc["limits"]["range"], 3.0, 0.0, 2.114 * 3.0);
    EXPECT_NEAR(doc["points"][3]["mean"].get<double>(), 13.5, 1e-6);
    // 13.5 is beyond the reference's UCL of 12.73; the new table's own
    // limits (centre 12.5) would not flag it.
    EXPECT_EQ(Flags(doc)[3].count(0), 1u);
    const nlohmann::json own = RunJson(dir, {"chart", dir.File("new.csv"), "--column", "x", "--type", "mean-range",
                                             "--subgroup", "5", "--rules", "we", "--json"});
    EXPECT_NEAR(own["limits"]["mean"]["centre"].get<double>(), 12.5, 1e-6);
    EXPECT_EQ(Flags(own).count(3), 0u);

    // The individuals chart takes the reference's moving-range sigma too.
    const nlohmann::json ref = RunJson(dir, {"chart", dir.File("ref.csv"), "--column", "x", "--type", "individual",
                                             "--json"});
    doc = RunJson(dir, {"chart", dir.File("new.csv"), "--column", "x", "--type", "individual", "--limits-from",
                        dir.File("ref.csv"), "--json"});
    EXPECT_EQ(doc["limits"], ref["limits"]);
    // The CuSum and EWMA charts take the reference's sigma, lambda and
    // limits, also those the reference computes only on request. The later
    // period varies twice as much, so its own would differ.
    std::vector<double> wide = Flat(Groups);
    for (double& v : wide)
        v = 2.0 * v - 11.0;
    WriteFile(dir.File("new.csv"), Table(wide));
    for (const char* type : {"cusum", "ewma", "ewma-overall"}) {
        const nlohmann::json own = RunJson(dir, {"chart", dir.File("ref.csv"), "--column", "x", "--type", type,
                                                 "--subgroup", "2", "--json"});
        doc = RunJson(dir, {"chart", dir.File("new.csv"), "--column", "x", "--type", type, "--subgroup", "2",
                            "--limits-from", dir.File("ref.csv"), "--json"});
        EXPECT_EQ(doc["limits"], own["limits"]) << type;
        EXPECT_EQ(doc["sigma"], own["sigma"]) << type;
        EXPECT_EQ(doc.value("lambda", nlohmann::json()), own.value("lambda", nlohmann::json())) << type;
    }
    const RunResult r = Veltan(dir, {"chart", dir.File("new.csv"), "--column", "x", "--type", "individual",
                                     "--limits-from", dir.File("ref.csv")});
    EXPECT_THAT(r.out, HasSubstr("\nCentre line and limits from the reference period in " + dir.File("ref.csv")));
}

// CuSum of single values with a known target and sigma 1: K = 0.5, H = 4.5
// sigma, and the upper sum S_i = max(0, S_i-1 + x_i - K) crosses H at the
// sixth value.
TEST(VeltanChart, CuSumSumsAndTheirSignals)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table({0, 1, 1, 2, 2, 2, 0, -1, 0, 0}));
    const nlohmann::json doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "cusum",
                                             "--target", "0", "--sigma", "1", "--json", "--out", dir.File("o.csv")});
    EXPECT_NEAR(doc["limits"]["cusum"]["k"].get<double>(), 0.5, 1e-6);
    EXPECT_NEAR(doc["limits"]["cusum"]["h"].get<double>(), 4.5, 1e-6);
    const double upper[] = {0, 0.5, 1, 2.5, 4, 5.5, 5, 3.5, 3, 2.5};
    const double lower[] = {0, 0, 0, 0, 0, 0, 0, 0.5, 0, 0};
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_NEAR(doc["points"][i]["upper_cusum"].get<double>(), upper[i], 1e-6) << i;
        EXPECT_NEAR(doc["points"][i]["lower_cusum"].get<double>(), lower[i], 1e-6) << i;
    }
    EXPECT_EQ(Flags(doc), (std::map<int, std::set<int>>{{5, {0}}, {6, {0}}}));
    EXPECT_EQ(doc["rules"], "limits");
    EXPECT_EQ(ParseCsv(ReadFile(dir.File("o.csv"))).header,
              (std::vector<std::string>{"point", "mean", "upper_cusum", "lower_cusum", "k", "h", "rules"}));
    EXPECT_THAT(ReadFile(dir.File("o.csv")), HasSubstr("\n5,2,5.5,0,0.5,4.5,0\n"));
}

// EWMA of single values with a given weight: the asymptotic limits are the
// target +- 3 sigma sqrt(lambda / (2 - lambda)); from the second value on
// each EWMA moves lambda of the way to the value.
TEST(VeltanChart, EwmaLimitsAndSignals)
{
    TempDir dir;
    const std::vector<double> x{0, 0.5, -0.5, 0, 3, 3, 3, 3, 0, 0};
    WriteFile(dir.File("d.csv"), Table(x));
    nlohmann::json doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "ewma", "--target",
                                       "0", "--sigma", "1", "--lambda", "0.25", "--json"});
    const double half = 3.0 * std::sqrt(0.25 / 1.75);
    ExpectLimits(doc["limits"]["ewma"], 0.0, -half, half);
    ExpectFields(doc, {{"lambda", 0.25}, {"lambda_estimated", false}, {"ewma_type", "filter"}});
    double z = doc["points"][0]["ewma"];
    std::set<int> above;
    for (std::size_t i = 1; i < x.size(); ++i) {
        z += 0.25 * (x[i] - z);
        EXPECT_NEAR(doc["points"][i]["ewma"].get<double>(), z, 1e-5) << i;
        if (z > half)
            above.insert(static_cast<int>(i));
    }
    ASSERT_FALSE(above.empty());
    std::map<int, std::set<int>> expected;
    for (const int i : above)
        expected[i] = {0};
    EXPECT_EQ(Flags(doc), expected);

    // Without --lambda the weight is estimated, and said to be.
    doc = RunJson(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "ewma-overall", "--ewma",
                        "predictive", "--json"});
    EXPECT_EQ(doc["lambda_estimated"], true);
    EXPECT_EQ(doc["ewma_type"], "predictive");
    EXPECT_GT(doc["lambda"].get<double>(), 0.0);
    EXPECT_LE(doc["lambda"].get<double>(), 1.0);
    const RunResult r = Veltan(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "ewma"});
    EXPECT_THAT(r.out, testing::MatchesRegex("(.|\n)*\nLambda [0-9.]+ \\(estimated\\), filter EWMA\n(.|\n)*"));
}

// The plot: one mark per subgroup in each panel, a ring over every flagged
// point (at its point's place), the limits as captioned levels, and a
// second panel for the range.
TEST(VeltanChart, PlotMarksEveryPointAndRingsTheFlaggedOnes)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), Table(Planted));
    const RunResult r = Veltan(dir, {"chart", dir.File("d.csv"), "--column", "x", "--type", "individual",
                                     "--target", "0", "--sigma", "1", "--rules", "we", "--plot", dir.File("c.svg")});
    EXPECT_THAT(r.out, HasSubstr("\n\nChart written to " + dir.File("c.svg") + "\n"));
    XmlDocument doc = ParseXml(ReadFile(dir.File("c.svg")));
    ASSERT_EQ(doc.fault, "");
    const std::vector<XmlElement> points = ElementsOfClass(doc, "circle", "point");
    const std::vector<XmlElement> rings = ElementsOfClass(doc, "circle", "flagged");
    ASSERT_EQ(points.size(), Planted.size());
    ASSERT_EQ(rings.size(), PlantedFlags.size());
    std::set<std::string> flaggedPlaces, ringPlaces;
    for (const auto& [point, rules] : PlantedFlags)
        flaggedPlaces.insert(points[static_cast<std::size_t>(point)].attributes.at("cx") + "," +
                             points[static_cast<std::size_t>(point)].attributes.at("cy"));
    for (const XmlElement& ring : rings)
        ringPlaces.insert(ring.attributes.at("cx") + "," + ring.attributes.at("cy"));
    EXPECT_EQ(ringPlaces, flaggedPlaces);
    std::vector<std::string> captions;
    for (const XmlElement& e : ElementsOfClass(doc, "text", "level-label"))
        captions.push_back(e.text);
    EXPECT_EQ(captions, (std::vector<std::string>{"UCL 3", "CL 0", "LCL -3"}));

    WriteFile(dir.File("g.csv"), Table(Flat(Groups)));
    Veltan(dir, {"chart", dir.File("g.csv"), "--column", "x", "--type", "mean-range", "--subgroup", "5", "--plot",
                 dir.File("mr.svg")});
    doc = ParseXml(ReadFile(dir.File("mr.svg")));
    ASSERT_EQ(doc.fault, "");
    EXPECT_EQ(ElementsOfClass(doc, "g", "panel").size(), 2u);
    EXPECT_EQ(ElementsOfClass(doc, "circle", "point").size(), 8u);
    EXPECT_EQ(ElementsOfClass(doc, "circle", "flagged").size(), 0u);
    EXPECT_EQ(ElementsOfClass(doc, "line", "level").size(), 6u);
    const std::vector<XmlElement> titles = ElementsOfClass(doc, "text", "panel-title");
    ASSERT_EQ(titles.size(), 2u);
    EXPECT_EQ(titles[1].text, "Range");

    for (const char* type : {"cusum", "ewma", "mean-sd"}) {
        Veltan(dir, {"chart", dir.File("g.csv"), "--column", "x", "--type", type, "--subgroup", "5", "--plot",
                     dir.File("t.svg")});
        doc = ParseXml(ReadFile(dir.File("t.svg")));
        EXPECT_EQ(doc.fault, "") << type;
        EXPECT_GE(ElementsOfClass(doc, "circle", "point").size(), 4u) << type;
    }
}

TEST(VeltanChart, BadInputIsOneLineAndLeavesNoFile)
{
    struct Case {
        std::string csv;
        std::vector<std::string> args;
        std::string message;
        int code;
    };
    const std::string good = Table(Flat(Groups));
    const std::vector<Case> cases{
        {good, {"--type", "mean-range", "--subgroup", "0"}, "--subgroup 0: a subgroup holds at least 1 value", 2},
        {good, {"--type", "mean-range", "--subgroup", "21"},
         "--subgroup 21: {d}d.csv has only 20 rows, not enough for one subgroup", 2},
        {good, {"--type", "individual", "--time", "t", "--interval", "0"},
         "--interval 0: the interval must be a number other than 0 (negative for descending times)", 2},
        {"t,x\n,1\n,2\nNA,3\n", {"--type", "individual", "--time", "t", "--interval", "1"},
         "{d}d.csv: column 1 (\"t\"): no time is present", 1},
        {"t,x\n1,\n2,NA\n3,-99\n", {"--type", "individual"}, "{d}d.csv: column 2 (\"x\"): every value is missing", 1},
        {"t,x\n1,2\n2,abc\n3,4\n", {"--type", "individual"},
         "{d}d.csv: row 3, column 2 (\"x\"): \"abc\" is not a number", 1},
        {good, {"--type", "individual", "--column", "nope"}, "--column: {d}d.csv has no variable \"nope\"", 2},
        {good, {"--type", "individual", "--time", "when", "--interval", "2"},
         "--time: {d}d.csv has no variable \"when\"", 2},
        {good, {"--type", "mean-range"},
         "--type mean-range needs subgroups of at least 2 values: give --subgroup N (N >= 2) or --time NAME "
         "--interval X", 2},
        {good, {"--type", "individual", "--time", "t"}, "--time t: give the width of a group with --interval X", 2},
        {good, {"--type", "individual", "--subgroup", "2", "--time", "t", "--interval", "2"},
         "--subgroup and --time: a chart groups by a size or by a time interval, not both", 2},
        {good, {"--type", "cusum", "--rules", "we"},
         "--rules we: the run rules judge the individual, mean-range and mean-sd charts; a cusum chart flags the "
         "subgroups beyond its limits without them", 2},
        {good, {"--type", "individual", "--lambda", "0.2"},
         "--lambda: only the ewma and ewma-overall charts have a weight", 2},
        {good, {"--type", "ewma", "--lambda", "0"}, "--lambda 0: the EWMA weight lies above 0 and at most 1", 2},
        {good, {"--type", "individual", "--sigma", "0"}, "--sigma 0: a standard deviation must be above 0", 2},
        {good, {"--type", "individual", "--target", "-99"},
         "--target -99: not a usable centre line (-99 marks a missing value)", 2},
        {"t,x\n1,1\n2,\n3,2\n4,\n5,3\n", {"--type", "individual"},
         "{d}d.csv: column 2 (\"x\"): no two neighbouring values are present, so there is no moving range to "
         "estimate sigma from; give --sigma", 1},
        {"t,x\n1,4\n2,4\n3,4\n4,4\n", {"--type", "individual"},
         "{d}d.csv: column 2 (\"x\"): the values do not vary (sigma mean moving range / 1.128 is 0), so the limits "
         "would lie on the centre line; give --sigma", 1},
        {"t,x\n1,4\n3,5\n2,4\n4,6\n", {"--type", "individual", "--time", "t", "--interval", "2"},
         "{d}d.csv: row 4, column 1 (\"t\"): time 2 comes after 3 (row 3); the times must ascend", 1},
        {"t,x\n1,4\n2,5\n3,4\n4,6\n5,5\n6,7\n7,3\n", {"--type", "individual", "--subgroup", "5"},
         "{d}d.csv: column 2 (\"x\"): only 1 subgroup has a value; a chart needs at least 2", 1},
        {"t,x\n1,4\n2,\n3,4\n4,\n", {"--type", "mean-sd", "--subgroup", "2"},
         "{d}d.csv: column 2 (\"x\"): no subgroup has 2 present values, so there is no standard deviation to set "
         "the limits by", 1},
        {good, {"--type", "individual", "--limits-from", "{d}none.csv"},
         "{d}none.csv: cannot open: No such file or directory", 1},
        {good, {"--type", "individual", "--limits-from", "{d}other.csv"},
         "--column: {d}other.csv has no variable \"x\"", 1},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteFile(dir.File("d.csv"), c.csv);
        WriteFile(dir.File("other.csv"), "t,y\n1,2\n2,3\n");
        std::vector<std::string> args{"chart", "{d}d.csv", "--out", "{d}o.csv", "--plot", "{d}p.svg"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        if (std::find(c.args.begin(), c.args.end(), "--column") == c.args.end())
            args.insert(args.end(), {"--column", "x"});
        ExpectRefusal(dir, args, c.message, c.code);
    }
    TempDir dir;
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"chart", "d.csv", "--column", "x", "--type", "pareto"},
             {"chart", "d.csv", "--type", "individual"},
             {"chart", "d.csv", "--column", "x", "--type", "ewma", "--ewma", "both"}}) {
        const RunResult r = RunTool(dir, args);
        EXPECT_EQ(r.exitCode, 2) << args.back();
        EXPECT_THAT(r.err, HasSubstr("--help"));
    }
}

// Ctrl-C while a long series is read and charted: exit 130, the cancel
// message, and none of the requested files.
TEST(VeltanChart, InterruptLeavesNoFile)
{
    TempDir dir;
    {
        std::ofstream big(dir.File("big.csv"));
        big << "t,x\n";
        for (int i = 0; i < 2000000; ++i)
            big << i << "," << 10 + (i % 101) / 50.0 << "\n";
    }
    const pid_t pid = StartTool(dir, {"chart", dir.File("big.csv"), "--column", "x", "--type", "mean-range",
                                      "--subgroup", "5", "--out", dir.File("o.csv"), "--plot", dir.File("p.svg")});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(pid, SIGINT);
    const RunResult r = WaitTool(dir, pid);
    EXPECT_EQ(r.exitCode, 130) << r.err;
    EXPECT_EQ(r.err, "veltan: Operation cancelled.\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(dir.Entries(), std::set<std::string>{"big.csv"});
}
