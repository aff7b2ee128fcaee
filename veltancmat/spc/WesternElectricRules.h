#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

// Run rules on a plotted control-chart series: rules of the kind "k of the
// last m points beyond a limit", limits being whole multiples of sigma about
// the centre line. Every point that meets a condition inside a qualifying
// window is flagged, also when the window ends after it; missing points do
// not use up a window.
//
//   WesternElectricRules rules(means);
//   rules.SetCustomStDev(target, sigma);     // limits of a reference period
//   rules.InitOriginalWERules();             // rules 0 to 3
//   std::vector<int> first = rules.GetFirstBrokens();
class VELTANCMAT_API WesternElectricRules {
public:
    // Condition codes: 1 two-sided (the rule is judged as an "above" rule
    // with the larger of its first two limits and a "below" rule with the
    // smaller), 2 above c + L s, 3 below c + L s, 4 strictly between the
    // centre and c + L s (never for L = 0). Comparisons are strict, in float.
    struct Rule {
        std::vector<int> conditionTypes;
        std::vector<int> limits; // sigma multiples, one per condition
        int count = 0;           // k: points of the window that must meet a condition
        int window = 0;          // m: consecutive present points
        std::string description;
    };

    // Centre and sigma are the mean and standard deviation of the present
    // values (-99 when undefined); no rules are installed.
    explicit WesternElectricRules(const NCDataVector<float>& series);
    WesternElectricRules(const WesternElectricRules&) = default;
    WesternElectricRules(WesternElectricRules&&) noexcept = default;
    WesternElectricRules& operator=(const WesternElectricRules&) = default;
    WesternElectricRules& operator=(WesternElectricRules&&) noexcept = default;
    ~WesternElectricRules();

    void SetCustomStDev(double centre, double sigma);
    // Appends "1 point outside zone A", "2 of 3 points outside zone B",
    // "4 of 5 points outside zone C" and "9 consecutive points on the same
    // side of average".
    void InitOriginalWERules();
    void AddRule(const Rule& rule);
    std::size_t SizeRules() const { return m_rules.size(); }
    // Empty for a number out of range.
    std::string GetRuleDescription(std::size_t number) const;
    double GetCentre() const { return m_centre; }
    double GetSigma() const { return m_sigma; }
    // centre + multiple sigma, in float. Throws Exception while the centre,
    // or for a non-zero multiple the sigma, is -99.
    float GetLimit(int multiple) const;

    // One entry per point (0-based): the lowest rule number flagging it, or -1.
    std::vector<int> GetFirstBrokens() const;
    // Flagged points (0-based) and the rules flagging each.
    std::map<int, std::set<std::size_t>> GetAllBroken() const;

private:
    struct Side;
    // The present points numbered along the series: rank[p] present points
    // up to p, position[k] the k-th of them, hits[k] the conditions met by
    // the first k (for one side).
    struct Presence {
        std::vector<int> rank, position, hits;
    };
    // Every rule as the sides it is judged by, with their limits.
    std::vector<std::vector<Side>> Sides() const;
    std::vector<int> Hits(const Side& side) const;
    // The points that rule side `side` flags in the window ending at point
    // i (1-based), appended to `flagged` (0-based) unless a window ending
    // earlier flagged them (present ranks up to `done`); nothing when too few.
    void Validate(const Side& side, const std::vector<int>& hits, const Presence& present, int i, int& done,
                  std::vector<int>& flagged) const;
    template <class Visit>
    void ForEachFlag(Visit visit) const;

    NCDataVector<float> m_series;
    std::vector<Rule> m_rules;
    double m_centre = -99.0;
    double m_sigma = -99.0;
};
