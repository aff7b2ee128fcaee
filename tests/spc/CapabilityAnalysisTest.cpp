#include "veltancmat/spc/CapabilityAnalysis.h"

#include <boost/math/distributions/normal.hpp>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

constexpr double Unset = -99.0;
const NCDataVector<float> Ten({9.0f, 10.0f, 11.0f, 10.5f, 9.5f, 10.0f, 10.2f, 9.8f, -99.0f, 10.0f, 10.0f});

double Mean()
{
    return Ten.GetMean();
}

double S()
{
    return Ten.GetStdDev();
}

} // namespace

// Cp, Cpk, Cpm and the expected PPM by hand, both limits given.
TEST(CapabilityAnalysis, IndicesByHand)
{
    const CapabilityAnalysis analysis(Ten, 8.0, 12.5, 10.5, nullptr);
    const auto& v = analysis.GetResults();
    const double mean = Mean(), s = S();
    EXPECT_NEAR(v.mean, 10.0, 1e-12);
    EXPECT_NEAR(v.referenceMean, mean, 1e-12);
    EXPECT_NEAR(v.stdDev, s, 1e-12);
    EXPECT_NEAR(v.cp, 4.5 / (6 * s), 1e-12);
    EXPECT_NEAR(v.cpu, (12.5 - mean) / (3 * s), 1e-12);
    EXPECT_NEAR(v.cpl, (mean - 8.0) / (3 * s), 1e-12);
    EXPECT_NEAR(v.cpk, v.cpl, 1e-15);
    double sumT = 0.0;
    for (int i = 1; i <= Ten.Size(); ++i)
        if (Ten[i] != -99.0f)
            sumT += (Ten[i] - 10.5) * (Ten[i] - 10.5);
    EXPECT_NEAR(v.cpm, 4.5 / (6 * std::sqrt(sumT / 9.0)), 1e-12);
    const boost::math::normal normal(mean, s);
    const double below = boost::math::cdf(normal, 8.0);
    const double expected = (below + boost::math::cdf(boost::math::complement(normal, 12.5))) * 1e6;
    EXPECT_NEAR(v.expectedPPM, expected, 1e-6 * expected);
    EXPECT_EQ(v.observedPPM, 0.0);
    EXPECT_GT(v.w, 0.5);
    EXPECT_GT(v.normalityP, 0.0);
    EXPECT_EQ(v.lsl, 8.0);
    EXPECT_EQ(v.usl, 12.5);
    EXPECT_EQ(v.target, 10.5);
    // Deliberately not computed: there is no overall standard deviation.
    for (double overall : {v.pp, v.ppk, v.ppl, v.ppu, v.ppm, v.expectedOverallPPM, v.stdDevOverall})
        EXPECT_EQ(overall, Unset);
    // A reference series only moves the reference mean.
    const NCDataVector<float> reference({20.0f, 22.0f});
    const CapabilityAnalysis withReference(Ten, 8.0, 12.5, 10.5, &reference);
    EXPECT_EQ(withReference.GetResults().referenceMean, 21.0);
    EXPECT_EQ(withReference.GetResults().cp, v.cp);
}

TEST(CapabilityAnalysis, MissingAndReversedLimits)
{
    // Only an upper limit: Cp and Cpl stay unknown, Cpk is Cpu, the observed
    // PPM counts the values above it.
    const CapabilityAnalysis upperAnalysis(Ten, Unset, 10.6, Unset, nullptr);
    const auto& upper = upperAnalysis.GetResults();
    EXPECT_EQ(upper.cp, Unset);
    EXPECT_EQ(upper.cpl, Unset);
    EXPECT_EQ(upper.cpm, Unset);
    EXPECT_EQ(upper.cpk, upper.cpu);
    EXPECT_NEAR(upper.observedPPM, 1e6 / 10.0, 1e-9);
    EXPECT_NEAR(upper.expectedPPM, CapabilityAnalysis::GetProbability(S(), Mean(), 10.6) * 1e6, 1e-9);

    // LSL above USL: no Cp, and every PPM field at a million.
    const CapabilityAnalysis reversedAnalysis(Ten, 12.0, 8.0, Unset, nullptr);
    const auto& reversed = reversedAnalysis.GetResults();
    EXPECT_EQ(reversed.cp, Unset);
    EXPECT_EQ(reversed.observedPPM, 1e6);
    EXPECT_EQ(reversed.expectedPPM, 1e6);
    EXPECT_EQ(reversed.expectedOverallPPM, 1e6);

    // No limits: nothing against them, no observed PPM.
    const CapabilityAnalysis noneAnalysis(Ten, Unset, Unset, 10.0, nullptr);
    const auto& none = noneAnalysis.GetResults();
    EXPECT_EQ(none.cpk, Unset);
    EXPECT_EQ(none.observedPPM, Unset);
    EXPECT_EQ(none.expectedPPM, 0.0);

    // Two values: no normality test; no value: nothing at all.
    const CapabilityAnalysis twoAnalysis(NCDataVector<float>({1.0f, 2.0f}), 0.0, 3.0, Unset, nullptr);
    const auto& two = twoAnalysis.GetResults();
    EXPECT_EQ(two.w, Unset);
    EXPECT_EQ(two.normalityP, Unset);
    EXPECT_NE(two.cp, Unset);
    const CapabilityAnalysis emptyAnalysis(NCDataVector<float>({-99.0f}), 0.0, 3.0, 1.0, nullptr);
    const auto& empty = emptyAnalysis.GetResults();
    for (double field : {empty.mean, empty.stdDev, empty.cp, empty.cpk, empty.cpm, empty.expectedPPM,
                         empty.observedPPM, empty.w})
        EXPECT_EQ(field, Unset);
    // A constant series has no spread: no index, no expected PPM.
    const CapabilityAnalysis flatAnalysis(NCDataVector<float>({5, 5, 5, 5}), 4.0, 6.0, 5.0, nullptr);
    const auto& flat = flatAnalysis.GetResults();
    EXPECT_EQ(flat.cp, Unset);
    EXPECT_EQ(flat.cpm, Unset);
    EXPECT_EQ(flat.expectedPPM, Unset);
    EXPECT_EQ(flat.observedPPM, 0.0);
    EXPECT_EQ(flat.w, Unset);

    // 5000 elements (missing ones counted) are too many for the normality test.
    NCDataVector<float> many(5000, 1.0f);
    std::mt19937 rng(2);
    std::normal_distribution<float> normal;
    for (int i = 1; i <= 5000; ++i)
        many(i, i == 7 ? -99.0f : normal(rng));
    const CapabilityAnalysis bigAnalysis(many, -3.0, 3.0, Unset, nullptr);
    const auto& big = bigAnalysis.GetResults();
    EXPECT_EQ(big.w, Unset);
    EXPECT_EQ(big.normalityP, Unset);
    NCDataVector<float> fewer = many;
    fewer.Resize(4999, 0.0f);
    EXPECT_NE(CapabilityAnalysis(fewer, -3.0, 3.0, Unset, nullptr).GetResults().w, Unset);
}

TEST(CapabilityAnalysis, UpperTailProbability)
{
    EXPECT_EQ(CapabilityAnalysis::GetProbability(1, 0, 0), 0.5);
    EXPECT_EQ(CapabilityAnalysis::GetProbability(-99, 0, 1), -99.0);
    EXPECT_EQ(CapabilityAnalysis::GetProbability(1, -99, 1), -99.0);
    EXPECT_EQ(CapabilityAnalysis::GetProbability(1, 0, -99), -99.0);
    EXPECT_NEAR(CapabilityAnalysis::GetProbability(2, 1, 5), 0.022750131948179195, 1e-15);
    EXPECT_EQ(CapabilityAnalysis::GetProbability(0, 0, 1), 0.0);
    EXPECT_EQ(CapabilityAnalysis::GetProbability(0, 0, -1), 1.0);
    EXPECT_THROW(CapabilityAnalysis::GetProbability(0, 1, 1), std::domain_error);
}
