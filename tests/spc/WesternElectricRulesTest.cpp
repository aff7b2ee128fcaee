#include "veltancmat/platform/Exception.h"
#include "veltancmat/spc/WesternElectricRules.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace {

constexpr float M = -99.0f;
using Broken = std::map<int, std::set<std::size_t>>;

// The classic rules about centre 0 and sigma 1.
WesternElectricRules Classic(std::initializer_list<float> values)
{
    WesternElectricRules rules{NCDataVector<float>(values)};
    rules.SetCustomStDev(0.0, 1.0);
    rules.InitOriginalWERules();
    return rules;
}

} // namespace

TEST(WesternElectricRules, ClassicRulesOnTheirEdges)
{
    // One point beyond 3 sigma: rule 0 only.
    WesternElectricRules single = Classic({0.5f, -0.5f, 3.5f, 0.5f, -0.5f});
    EXPECT_EQ(single.GetFirstBrokens(), (std::vector<int>{-1, -1, 0, -1, -1}));
    EXPECT_EQ(single.GetAllBroken(), (Broken{{2, {0}}}));
    // Exactly at 3 sigma is not beyond it.
    EXPECT_TRUE(Classic({0.5f, 3.0f, -3.0f}).GetAllBroken().empty());

    // Two of three beyond 2 sigma on the same side flag both; on opposite
    // sides, nothing.
    EXPECT_EQ(Classic({0, 2.5f, 0.5f, 2.2f, 0}).GetAllBroken(), (Broken{{1, {1}}, {3, {1}}}));
    EXPECT_TRUE(Classic({0, 2.5f, 0.5f, -2.2f, 0}).GetAllBroken().empty());
    // Four of five beyond 1 sigma.
    EXPECT_EQ(Classic({1.5f, 1.2f, 0.2f, 1.1f, 1.3f}).GetAllBroken(),
              (Broken{{0, {2}}, {1, {2}}, {3, {2}}, {4, {2}}}));

    // Nine on one side flag all nine; a missing value inside the run widens
    // the window instead of breaking it.
    WesternElectricRules nine = Classic({0.1f, 0.2f, 0.3f, 0.1f, M, 0.2f, 0.3f, 0.1f, 0.2f, 0.4f, -0.5f});
    Broken expected;
    for (int p : {0, 1, 2, 3, 5, 6, 7, 8, 9})
        expected[p] = {3};
    EXPECT_EQ(nine.GetAllBroken(), expected);
    const std::vector<int> first = nine.GetFirstBrokens();
    EXPECT_EQ(first[4], -1);
    EXPECT_EQ(first[10], -1);
    // Eight present points are not nine.
    EXPECT_TRUE(Classic({0.1f, 0.2f, 0.3f, 0.1f, M, 0.2f, 0.3f, 0.1f, 0.2f, -0.4f}).GetAllBroken().empty());

    // A window ending at a missing point flags nothing; one ending later does.
    EXPECT_TRUE(Classic({2.5f, 2.5f, M}).GetAllBroken().count(0));
    EXPECT_TRUE(Classic({2.5f, M}).GetAllBroken().empty());

    // The lowest rule number wins in GetFirstBrokens.
    WesternElectricRules both = Classic({3.5f, 2.5f, 0});
    EXPECT_EQ(both.GetAllBroken(), (Broken{{0, {0, 1}}, {1, {1}}}));
    EXPECT_EQ(both.GetFirstBrokens(), (std::vector<int>{0, 1, -1}));

    EXPECT_EQ(single.SizeRules(), 4u);
    EXPECT_EQ(single.GetRuleDescription(1), "2 of 3 points outside zone B");
    EXPECT_EQ(single.GetRuleDescription(3), "9 consecutive points on the same side of average");
    EXPECT_EQ(single.GetRuleDescription(4), "");
}

// Custom rules with each condition code.
TEST(WesternElectricRules, CustomRules)
{
    WesternElectricRules rules{NCDataVector<float>({0.5f, 1.5f, 2.5f, -0.5f, -1.5f, -2.5f, 0.0f})};
    rules.SetCustomStDev(0.0, 1.0);
    rules.AddRule({{2}, {1}, 1, 1, "above 1"});
    rules.AddRule({{3}, {-1}, 1, 1, "below -1"});
    rules.AddRule({{4}, {2}, 1, 1, "between 0 and 2"});
    rules.AddRule({{4}, {-2}, 1, 1, "between -2 and 0"});
    rules.AddRule({{4}, {0}, 1, 1, "never"});
    rules.AddRule({{1, 1}, {-1, 1}, 1, 1, "beyond 1 either way"});
    EXPECT_EQ(rules.GetAllBroken(), (Broken{{0, {2}},
                                            {1, {0, 2, 5}},
                                            {2, {0, 5}},
                                            {3, {3}},
                                            {4, {1, 3, 5}},
                                            {5, {1, 5}}}));

    // A rule counting two conditions per point: both count.
    WesternElectricRules two{NCDataVector<float>({2.5f, 0.0f})};
    two.SetCustomStDev(0.0, 1.0);
    two.AddRule({{2, 2}, {1, 2}, 2, 1, "beyond 1 and 2"});
    EXPECT_EQ(two.GetAllBroken(), (Broken{{0, {0}}}));
    // A two-sided rule given one limit takes its negation as the other.
    WesternElectricRules one{NCDataVector<float>({-2.5f, 0.0f})};
    one.SetCustomStDev(0.0, 1.0);
    one.AddRule({{1}, {2}, 1, 1, "beyond 2 either way"});
    EXPECT_EQ(one.GetAllBroken(), (Broken{{0, {0}}}));
}

TEST(WesternElectricRules, CentreSigmaAndLimits)
{
    const NCDataVector<float> series({1, 2, 3, M, 4, 5});
    WesternElectricRules rules(series);
    EXPECT_DOUBLE_EQ(rules.GetCentre(), 3.0);
    EXPECT_NEAR(rules.GetSigma(), std::sqrt(2.5), 1e-12);
    EXPECT_FLOAT_EQ(rules.GetLimit(0), 3.0f);
    EXPECT_FLOAT_EQ(rules.GetLimit(-2), static_cast<float>(3.0 - 2 * std::sqrt(2.5)));
    rules.SetCustomStDev(10.0, 0.5);
    EXPECT_FLOAT_EQ(rules.GetLimit(3), 11.5f);

    // Nothing known: every limit throws, and so do the queries with rules.
    WesternElectricRules none{NCDataVector<float>({M, M})};
    EXPECT_THROW(none.GetLimit(0), Exception);
    none.SetCustomStDev(1.0, -99.0);
    EXPECT_FLOAT_EQ(none.GetLimit(0), 1.0f);
    EXPECT_THROW(none.GetLimit(1), Exception);
    none.InitOriginalWERules();
    EXPECT_THROW(none.GetFirstBrokens(), Exception);
    EXPECT_THROW(none.GetAllBroken(), Exception);
    // Without rules nothing is judged.
    EXPECT_EQ(WesternElectricRules(series).GetFirstBrokens(), std::vector<int>(6, -1));

    // A constant series has sigma 0: every limit is the centre.
    WesternElectricRules flat{NCDataVector<float>({2, 2, 2})};
    EXPECT_FLOAT_EQ(flat.GetLimit(3), 2.0f);
    flat.InitOriginalWERules();
    EXPECT_TRUE(flat.GetAllBroken().empty());
}

// Linear in the series: a shifted stretch in a long series is found where
// it is, and a window never reaches before the series start.
TEST(WesternElectricRules, LongSeries)
{
    std::vector<float> v(100000, 0.0f);
    for (std::size_t i = 0; i < v.size(); ++i)
        v[i] = (i % 2 ? 0.3f : -0.3f);
    for (std::size_t i = 50000; i < 50012; ++i)
        v[i] = 0.5f;
    NCDataVector<float> series;
    series.CopyZeroBasedVector(v.data(), static_cast<int>(v.size()));
    WesternElectricRules rules(series);
    rules.SetCustomStDev(0.0, 1.0);
    rules.InitOriginalWERules();
    const Broken broken = rules.GetAllBroken();
    ASSERT_EQ(broken.size(), 13u);
    EXPECT_EQ(broken.begin()->first, 49999);
    EXPECT_EQ(broken.rbegin()->first, 50011);
}

namespace {

// The rules judged the plain way, window by window: for every end point,
// walk down over m present points (missing ones widen the window) and
// count the conditions met; a qualifying window flags every point that met
// one. A check of the faster judging on random series.
Broken Plainly(const std::vector<float>& x, const std::vector<WesternElectricRules::Rule>& rules, double centre,
               double sigma)
{
    auto limit = [&](int multiple) { return static_cast<float>(multiple == 0 ? centre : centre + multiple * sigma); };
    auto meets = [&](int type, int multiple, float v) {
        const float l = limit(multiple), c = static_cast<float>(centre);
        switch (type) {
        case 2:
            return v > l;
        case 3:
            return v < l;
        case 4:
            return multiple > 0 ? (c < v && v < l) : multiple < 0 && (l < v && v < c);
        default:
            return false;
        }
    };
    Broken broken;
    const int n = static_cast<int>(x.size());
    for (int i = 1; i <= n; ++i)
        for (std::size_t r = 0; r < rules.size(); ++r) {
            const auto& rule = rules[r];
            std::vector<std::pair<std::vector<int>, std::vector<int>>> sides;
            if (rule.conditionTypes[0] == 1) {
                const int a = rule.limits[0], b = rule.limits[1];
                sides.push_back({{2}, {std::max(a, b)}});
                sides.push_back({{3}, {std::min(a, b)}});
            } else {
                sides.push_back({rule.conditionTypes, rule.limits});
            }
            if (x[static_cast<std::size_t>(i - 1)] == M)
                continue;
            for (const auto& [types, limits] : sides) {
                int count = 0, lowest = i - rule.window;
                std::vector<int> points;
                for (int p = i; p >= 1 && p > lowest; --p) {
                    const float v = x[static_cast<std::size_t>(p - 1)];
                    if (v == M) {
                        --lowest;
                        continue;
                    }
                    for (std::size_t c = 0; c < types.size(); ++c)
                        if (meets(types[c], limits[c], v)) {
                            ++count;
                            points.push_back(p - 1);
                        }
                }
                if (count >= rule.count)
                    for (int p : points)
                        broken[p].insert(r);
            }
        }
    return broken;
}

} // namespace

TEST(WesternElectricRules, AgreesWithPlainJudgingOnRandomSeries)
{
    std::mt19937 rng(8);
    std::normal_distribution<float> normal;
    std::bernoulli_distribution missing(0.15);
    for (int run = 0; run < 20; ++run) {
        std::vector<float> x(300);
        float level = 0.0f;
        for (float& v : x) {
            level = 0.7f * level + normal(rng);
            v = missing(rng) ? M : level;
        }
        NCDataVector<float> series;
        series.CopyZeroBasedVector(x.data(), static_cast<int>(x.size()));
        WesternElectricRules rules(series);
        rules.SetCustomStDev(0.1, 1.0);
        rules.InitOriginalWERules();
        rules.AddRule({{4, 4}, {2, -1}, 3, 4, "between"});
        rules.AddRule({{2, 3}, {1, -1}, 2, 2, "either"});
        // The classic rules and the two custom ones, written out.
        const std::vector<WesternElectricRules::Rule> list{
            {{2, 3}, {3, -3}, 1, 1, ""},      {{1, 1}, {2, -2}, 2, 3, ""}, {{1, 1}, {1, -1}, 4, 5, ""},
            {{1, 1}, {0, 0}, 9, 9, ""},       {{4, 4}, {2, -1}, 3, 4, ""}, {{2, 3}, {1, -1}, 2, 2, ""}};
        const Broken expected = Plainly(x, list, 0.1, 1.0);
        EXPECT_EQ(rules.GetAllBroken(), expected) << "run " << run;
        const std::vector<int> first = rules.GetFirstBrokens();
        for (int p = 0; p < 300; ++p) {
            const auto found = expected.find(p);
            const int lowest = found == expected.end() ? -1 : static_cast<int>(*found->second.begin());
            EXPECT_EQ(first[static_cast<std::size_t>(p)], lowest)
                << "run " << run << ", point " << p;
        }
    }
}
