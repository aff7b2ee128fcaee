#include "veltancmat/spc/WesternElectricRules.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"

#include <algorithm>
#include <cstddef>

namespace {

enum Condition { TwoSided = 1, Above = 2, Below = 3, Between = 4 };

} // namespace

// One side of a rule as it is judged: its conditions with their limits in
// float, the values being compared in float.
struct WesternElectricRules::Side {
    struct Test {
        int type;
        int multiple;
        float limit;
    };
    std::vector<Test> tests;
    int count = 0;
    int window = 0;
};

WesternElectricRules::WesternElectricRules(const NCDataVector<float>& series)
    : m_series(series), m_centre(series.GetMean()), m_sigma(series.GetStdDev())
{
}

WesternElectricRules::~WesternElectricRules() = default;

void WesternElectricRules::SetCustomStDev(double centre, double sigma)
{
    m_centre = centre;
    m_sigma = sigma;
}

void WesternElectricRules::InitOriginalWERules()
{
    AddRule({{Above, Below}, {3, -3}, 1, 1, "1 point outside zone A"});
    AddRule({{TwoSided, TwoSided}, {2, -2}, 2, 3, "2 of 3 points outside zone B"});
    AddRule({{TwoSided, TwoSided}, {1, -1}, 4, 5, "4 of 5 points outside zone C"});
    AddRule({{TwoSided, TwoSided}, {0, 0}, 9, 9, "9 consecutive points on the same side of average"});
}

void WesternElectricRules::AddRule(const Rule& rule)
{
    m_rules.push_back(rule);
}

std::string WesternElectricRules::GetRuleDescription(std::size_t number) const
{
    return number < m_rules.size() ? m_rules[number].description : std::string();
}

float WesternElectricRules::GetLimit(int multiple) const
{
    if (m_centre == -99.0 || (multiple != 0 && m_sigma == -99.0))
        throw Exception();
    return static_cast<float>(multiple == 0 ? m_centre : m_centre + multiple * m_sigma);
}

// A two-sided rule is judged as an "above" rule with the larger of its first
// two limits and a "below" rule with the smaller; a rule with a single limit
// L takes -L as the other.
std::vector<std::vector<WesternElectricRules::Side>> WesternElectricRules::Sides() const
{
    std::vector<std::vector<Side>> all;
    all.reserve(m_rules.size());
    for (const Rule& rule : m_rules) {
        std::vector<Side> sides;
        auto side = [&](std::vector<Side::Test> tests) {
            for (Side::Test& test : tests)
                test.limit = GetLimit(test.multiple);
            sides.push_back({std::move(tests), rule.count, rule.window});
        };
        if (!rule.conditionTypes.empty() && rule.conditionTypes.front() == TwoSided && !rule.limits.empty()) {
            const int a = rule.limits[0], b = rule.limits.size() > 1 ? rule.limits[1] : -rule.limits[0];
            side({{Above, std::max(a, b), 0.0f}});
            side({{Below, std::min(a, b), 0.0f}});
        } else {
            std::vector<Side::Test> tests;
            for (std::size_t c = 0; c < rule.conditionTypes.size() && c < rule.limits.size(); ++c)
                tests.push_back({rule.conditionTypes[c], rule.limits[c], 0.0f});
            side(std::move(tests));
        }
        all.push_back(std::move(sides));
    }
    return all;
}

// How many of a side's conditions each point meets (0 for a missing one).
std::vector<int> WesternElectricRules::Hits(const Side& side) const
{
    const float* x = m_series.GetVector();
    const float centre = static_cast<float>(m_centre);
    std::vector<int> hits(static_cast<std::size_t>(m_series.Size()) + 1, 0);
    for (int p = 1; p <= m_series.Size(); ++p) {
        const float v = x[p];
        if (IsMisVal(v))
            continue;
        int met = 0;
        for (const Side::Test& test : side.tests) {
            switch (test.type) {
            case Above:
                met += v > test.limit ? 1 : 0;
                break;
            case Below:
                met += v < test.limit ? 1 : 0;
                break;
            case Between:
                met += (test.multiple > 0 ? (centre < v && v < test.limit)
                                          : test.multiple < 0 && (test.limit < v && v < centre))
                           ? 1
                           : 0;
                break;
            default:
                break;
            }
        }
        hits[static_cast<std::size_t>(p)] = met;
    }
    return hits;
}

// The window ending at a present point i holds the `window` present points
// up to i (missing ones do not use it up), or as many as the series has.
// With the present points numbered 1, 2, ... and the hits summed along them,
// a window's count is one difference, so judging every end point is linear
// in the series; only a window that qualifies is walked, to flag its points.
//
// The queries want each (point, rule) pair once, so a window's points that
// an earlier window of the same side flagged already (`done`, a rank) are
// not walked again; every point is then walked at most once per side.
void WesternElectricRules::Validate(const Side& side, const std::vector<int>& hits, const Presence& present, int i,
                                    int& done, std::vector<int>& flagged) const
{
    const int k = present.rank[static_cast<std::size_t>(i)];
    if (k == 0 || present.position[static_cast<std::size_t>(k)] != i)
        return; // the end point is missing
    const int lowest = std::max(0, k - side.window);
    if (present.hits[static_cast<std::size_t>(k)] - present.hits[static_cast<std::size_t>(lowest)] < side.count)
        return;
    for (int q = std::max(lowest, done) + 1; q <= k; ++q) {
        const int p = present.position[static_cast<std::size_t>(q)];
        if (hits[static_cast<std::size_t>(p)] > 0)
            flagged.push_back(p - 1);
    }
    done = k;
}

template <class Visit>
void WesternElectricRules::ForEachFlag(Visit visit) const
{
    const std::vector<std::vector<Side>> sides = Sides();
    const int n = m_series.Size();
    Presence present;
    present.rank.assign(static_cast<std::size_t>(n) + 1, 0);
    present.position.assign(1, 0);
    for (int p = 1, k = 0; p <= n; ++p) {
        if (!IsMisVal(m_series[p])) {
            ++k;
            present.position.push_back(p);
        }
        present.rank[static_cast<std::size_t>(p)] = k;
    }
    std::vector<int> flagged;
    for (std::size_t r = 0; r < sides.size(); ++r)
        for (const Side& side : sides[r]) {
            const std::vector<int> hits = Hits(side);
            present.hits.assign(present.position.size(), 0);
            for (std::size_t q = 1; q < present.position.size(); ++q)
                present.hits[q] = present.hits[q - 1] + hits[static_cast<std::size_t>(present.position[q])];
            int done = 0;
            for (int i = 1; i <= n; ++i) {
                flagged.clear();
                Validate(side, hits, present, i, done, flagged);
                for (const int p : flagged)
                    visit(p, r);
            }
        }
}

std::vector<int> WesternElectricRules::GetFirstBrokens() const
{
    std::vector<int> first(static_cast<std::size_t>(m_series.Size()), -1);
    ForEachFlag([&](int p, std::size_t rule) {
        int& entry = first[static_cast<std::size_t>(p)];
        if (entry == -1 || static_cast<int>(rule) < entry)
            entry = static_cast<int>(rule);
    });
    return first;
}

std::map<int, std::set<std::size_t>> WesternElectricRules::GetAllBroken() const
{
    std::map<int, std::set<std::size_t>> broken;
    ForEachFlag([&](int p, std::size_t rule) { broken[p].insert(rule); });
    return broken;
}
