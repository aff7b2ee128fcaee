#include "veltancmat/spc/WesternElectricRules.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/Exception.h"

#include <algorithm>

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

void WesternElectricRules::Validate(const Side& side, int i, std::vector<int>& flagged) const
{
    const float* x = m_series.GetVector();
    if (IsMisVal(x[i]))
        return;
    const float centre = static_cast<float>(m_centre);
    const std::size_t first = flagged.size();
    int count = 0;
    // The window holds `window` present points: each missing one met on the
    // way down moves its lower end one further.
    int lowest = i - side.window;
    for (int p = i; p >= 1 && p > lowest; --p) {
        const float v = x[p];
        if (IsMisVal(v)) {
            --lowest;
            continue;
        }
        for (const Side::Test& test : side.tests) {
            bool met = false;
            switch (test.type) {
            case Above:
                met = v > test.limit;
                break;
            case Below:
                met = v < test.limit;
                break;
            case Between:
                met = test.multiple > 0 ? (centre < v && v < test.limit)
                                        : test.multiple < 0 && (test.limit < v && v < centre);
                break;
            default:
                break;
            }
            if (met) {
                ++count;
                flagged.push_back(p - 1);
            }
        }
    }
    if (count < side.count)
        flagged.resize(first);
}

template <class Visit>
void WesternElectricRules::ForEachFlag(Visit visit) const
{
    const std::vector<std::vector<Side>> sides = Sides();
    std::vector<int> flagged;
    for (int i = 1; i <= m_series.Size(); ++i)
        for (std::size_t r = 0; r < sides.size(); ++r) {
            flagged.clear();
            for (const Side& side : sides[r])
                Validate(side, i, flagged);
            for (const int p : flagged)
                visit(p, r);
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
