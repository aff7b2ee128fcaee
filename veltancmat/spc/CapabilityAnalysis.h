#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

// Process capability of one series against optional specification limits
// and target: the indices Cp, Cpk, Cpu, Cpl and Cpm, the parts per million
// outside the limits (observed, and expected for a normal distribution with
// the data's mean and standard deviation) and a Shapiro-Wilk check of the
// data (only for fewer than 5000 elements, missing ones counted). Everything
// is computed by the constructor; a result whose inputs are missing stays
// -99, as does a limit, target or reference not given.
class VELTANCMAT_API CapabilityAnalysis {
public:
    // All -99 until computed, in this order.
    struct VELTANCMAT_API CapabilityValues {
        double mean = -99.0;
        double referenceMean = -99.0;
        double cp = -99.0;
        double cpk = -99.0;
        double cpu = -99.0;
        double cpl = -99.0;
        double cpm = -99.0;
        double expectedPPM = -99.0;
        double stdDev = -99.0;
        double w = -99.0;
        double normalityP = -99.0;
        // The overall (long-term) fields need an overall standard deviation,
        // which this interface does not take: they stay -99 unless the
        // limits are reversed (the expected overall PPM is then 1e6).
        double pp = -99.0;
        double ppk = -99.0;
        double ppl = -99.0;
        double ppu = -99.0;
        double ppm = -99.0;
        double observedPPM = -99.0;
        double expectedOverallPPM = -99.0;
        double stdDevOverall = -99.0;
        double lsl = -99.0;
        double usl = -99.0;
        double target = -99.0;
    };

    // lower, upper, target: -99 when not given; reference: the series whose
    // mean the overall indices use (the data's when null).
    CapabilityAnalysis(const NCDataVector<float>& data, double lower, double upper, double target,
                       const NCDataVector<float>* reference);
    CapabilityAnalysis(const CapabilityAnalysis&) = default;
    CapabilityAnalysis(CapabilityAnalysis&&) noexcept = default;
    CapabilityAnalysis& operator=(const CapabilityAnalysis&) = default;
    CapabilityAnalysis& operator=(CapabilityAnalysis&&) noexcept = default;
    ~CapabilityAnalysis();

    const CapabilityValues& GetResults() const { return m_values; }

    // P(X > x) for X normal with `mean` and `sd`; -99 when an argument is
    // -99, 0 and 1 for a standardised x of +infinity and -infinity. A
    // standardised x that is not a number is reported by Boost.Math.
    static double GetProbability(double sd, double mean, double x);

private:
    CapabilityValues m_values;
};
