#include "veltancmat/spc/CapabilityAnalysis.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/spc/ms_shapiro_wilk.h"

#include <boost/math/distributions/normal.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

constexpr double Unset = -99.0;

bool Given(double v)
{
    return v != Unset;
}

// Cp, Cpu, Cpl and Cpk of a mean and a standard deviation. A spread of 0
// would make them infinite; they are then not computed.
struct Indices {
    double cp = Unset, cpu = Unset, cpl = Unset, cpk = Unset;
};

Indices IndicesOf(double mean, double s, double lsl, double usl)
{
    Indices i;
    if (!Given(s) || !(s > 0.0))
        return i;
    if (Given(lsl) && Given(usl) && usl > lsl)
        i.cp = (usl - lsl) / (6.0 * s);
    if (Given(usl) && Given(mean))
        i.cpu = (usl - mean) / (3.0 * s);
    if (Given(lsl) && Given(mean))
        i.cpl = (mean - lsl) / (3.0 * s);
    if (Given(i.cpu) && Given(i.cpl))
        i.cpk = std::min(i.cpu, i.cpl);
    else
        i.cpk = Given(i.cpu) ? i.cpu : i.cpl;
    return i;
}

// The parts per million outside the limits for a normal distribution.
double ExpectedPPM(double mean, double s, double lsl, double usl)
{
    if (Given(lsl) && Given(usl) && lsl > usl)
        return 1e6;
    if (!Given(mean) || !Given(s) || !(s > 0.0))
        return Unset;
    const double below = Given(lsl) ? 1.0 - CapabilityAnalysis::GetProbability(s, mean, lsl) : 0.0;
    const double above = Given(usl) ? CapabilityAnalysis::GetProbability(s, mean, usl) : 0.0;
    return (below + above) * 1e6;
}

std::vector<double> PresentValues(const NCDataVector<float>& data)
{
    std::vector<double> present;
    present.reserve(static_cast<std::size_t>(data.GetNumValidValues()));
    for (int i = 1; i <= data.Size(); ++i)
        if (!IsMisVal(data[i]))
            present.push_back(data[i]);
    return present;
}

// (USL - LSL) / (6 s_T), s_T the spread about the target of two or more
// values.
double TargetIndex(const std::vector<double>& values, double target, double lsl, double usl)
{
    if (values.size() < 2 || !Given(lsl) || !Given(usl) || !(usl > lsl))
        return Unset;
    double sum = 0.0;
    for (const double x : values)
        sum += (x - target) * (x - target);
    const double sT = std::sqrt(sum / static_cast<double>(values.size() - 1));
    return sT > 0.0 ? (usl - lsl) / (6.0 * sT) : Unset;
}

} // namespace

CapabilityAnalysis::CapabilityAnalysis(const NCDataVector<float>& data, double lower, double upper, double target,
                                       const NCDataVector<float>* reference)
{
    CapabilityValues& v = m_values;
    v.lsl = lower;
    v.usl = upper;
    v.target = target;
    v.referenceMean = reference ? reference->GetMean() : data.GetMean();
    v.stdDev = data.GetStdDev();
    v.mean = data.GetMean();

    const std::vector<double> present = PresentValues(data);

    // Normality, for fewer than 5000 elements (missing ones counted).
    if (data.Size() < 5000 && present.size() >= 3) {
        std::vector<double> sorted = present;
        std::sort(sorted.begin(), sorted.end());
        normality_test::ms_shapiro_wilk::Samples samples;
        for (std::size_t i = 0; i < sorted.size(); ++i)
            samples.emplace_back(i, sorted[i]);
        const long n = static_cast<long>(sorted.size());
        std::deque<double> coefficients;
        double w = 0.0, p = 0.0;
        int fault = 0;
        normality_test::ms_shapiro_wilk::swilk(false, samples, n, n, n / 2, coefficients, w, p, fault);
        if (fault == 0) {
            v.w = w;
            v.normalityP = p;
        }
    }

    const Indices within = IndicesOf(v.mean, v.stdDev, lower, upper);
    v.cp = within.cp;
    v.cpu = within.cpu;
    v.cpl = within.cpl;
    v.cpk = within.cpk;

    if (Given(target) && Given(v.mean) && Given(v.stdDev))
        v.cpm = TargetIndex(present, target, lower, upper);

    const Indices overall = IndicesOf(v.referenceMean, v.stdDevOverall, lower, upper);
    v.pp = overall.cp;
    v.ppu = overall.cpu;
    v.ppl = overall.cpl;
    v.ppk = overall.cpk;
    if (Given(v.stdDevOverall) && Given(target))
        v.ppm = TargetIndex(reference ? PresentValues(*reference) : present, target, lower, upper);

    if (!present.empty() && (Given(lower) || Given(upper))) {
        if (Given(lower) && Given(upper) && lower > upper) {
            v.observedPPM = 1e6;
        } else {
            const auto outside = std::count_if(present.begin(), present.end(), [&](double x) {
                return (Given(upper) && x > upper) || (Given(lower) && x < lower);
            });
            v.observedPPM = static_cast<double>(outside) * 1e6 / static_cast<double>(present.size());
        }
    }
    v.expectedOverallPPM = ExpectedPPM(v.referenceMean, v.stdDevOverall, lower, upper);
    v.expectedPPM = ExpectedPPM(v.mean, v.stdDev, lower, upper);
}

CapabilityAnalysis::~CapabilityAnalysis() = default;

double CapabilityAnalysis::GetProbability(double sd, double mean, double x)
{
    if (!Given(sd) || !Given(mean) || !Given(x))
        return Unset;
    const double z = (x - mean) / sd;
    if (z == std::numeric_limits<double>::infinity())
        return 0.0;
    if (z == -std::numeric_limits<double>::infinity())
        return 1.0;
    return boost::math::cdf(boost::math::complement(boost::math::normal(), z));
}
