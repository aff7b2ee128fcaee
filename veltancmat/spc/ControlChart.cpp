#include "veltancmat/spc/ControlChart.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <omp.h>

namespace {

constexpr double Unset = -99.0;
constexpr float Missing = NCMisVal<float>;
constexpr float NaN = std::numeric_limits<float>::quiet_NaN();

bool IsUnset(double v)
{
    return v == Unset;
}

// The three-sigma Shewhart factors, indexed by the subgroup size n.
// Sizes below 2 have no factor.
constexpr float A2Table[26] = {NaN,   NaN,   1.880f, 1.023f, 0.729f, 0.577f, 0.483f, 0.419f, 0.373f,
                               0.337f, 0.308f, 0.285f, 0.266f, 0.249f, 0.235f, 0.223f, 0.212f, 0.203f,
                               0.194f, 0.187f, 0.180f, 0.173f, 0.167f, 0.162f, 0.157f, 0.153f};
constexpr float A3Table[26] = {NaN,   NaN,   2.659f, 1.954f, 1.628f, 1.427f, 1.287f, 1.182f, 1.099f,
                               1.032f, 0.975f, 0.927f, 0.886f, 0.850f, 0.817f, 0.789f, 0.763f, 0.739f,
                               0.718f, 0.698f, 0.680f, 0.663f, 0.647f, 0.633f, 0.619f, 0.606f};
constexpr float B3Table[26] = {NaN,   NaN,   0.0f,   0.0f,   0.0f,   0.0f,   0.030f, 0.118f, 0.185f,
                               0.239f, 0.284f, 0.321f, 0.354f, 0.382f, 0.406f, 0.428f, 0.448f, 0.466f,
                               0.482f, 0.497f, 0.510f, 0.523f, 0.534f, 0.545f, 0.555f, 0.565f};
constexpr float B4Table[26] = {NaN,   NaN,   3.267f, 2.568f, 2.266f, 2.089f, 1.970f, 1.882f, 1.815f,
                               1.761f, 1.716f, 1.679f, 1.646f, 1.618f, 1.594f, 1.572f, 1.552f, 1.534f,
                               1.518f, 1.503f, 1.490f, 1.477f, 1.466f, 1.455f, 1.445f, 1.435f};
constexpr float D3Table[26] = {NaN,   NaN,   0.0f,   0.0f,   0.0f,   0.0f,   0.0f,   0.076f, 0.136f,
                               0.184f, 0.223f, 0.256f, 0.284f, 0.308f, 0.329f, 0.348f, 0.364f, 0.379f,
                               0.392f, 0.404f, 0.414f, 0.425f, 0.434f, 0.443f, 0.452f, 0.459f};
constexpr float D4Table[26] = {NaN,   NaN,   3.267f, 2.574f, 2.282f, 2.114f, 2.004f, 1.924f, 1.864f,
                               1.816f, 1.777f, 1.744f, 1.716f, 1.692f, 1.671f, 1.652f, 1.636f, 1.621f,
                               1.608f, 1.596f, 1.586f, 1.575f, 1.566f, 1.557f, 1.548f, 1.541f};
// d2 and c4 of a single value are 1: a sigma of individual values is used
// as it is.
constexpr float D2Table[51] = {
    1.0f,   1.0f,   1.128f, 1.693f, 2.059f, 2.326f, 2.534f, 2.704f, 2.847f, 2.970f, 3.078f, 3.173f, 3.258f,
    3.336f, 3.407f, 3.472f, 3.532f, 3.588f, 3.640f, 3.689f, 3.735f, 3.778f, 3.819f, 3.858f, 3.895f, 3.931f,
    3.965f, 3.997f, 4.028f, 4.058f, 4.086f, 4.113f, 4.139f, 4.164f, 4.189f, 4.213f, 4.236f, 4.258f, 4.280f,
    4.301f, 4.322f, 4.342f, 4.361f, 4.380f, 4.398f, 4.415f, 4.432f, 4.449f, 4.466f, 4.482f, 4.498f};
// c4(n) = sqrt(2 / (n - 1)) G(n / 2) / G((n - 1) / 2); from n = 26 on, the
// function rounded to five decimals.
constexpr float C4Table[101] = {
    1.0f,     1.0f,     0.7979f,  0.8862f,  0.9213f,  0.9400f,  0.9515f,  0.9594f,  0.9650f,  0.9693f,  0.9727f,
    0.9754f,  0.9776f,  0.9794f,  0.9810f,  0.9823f,  0.9835f,  0.9845f,  0.9854f,  0.9862f,  0.9869f,  0.9876f,
    0.9882f,  0.9887f,  0.9892f,  0.9896f,  0.99005f, 0.99043f, 0.99079f, 0.99111f, 0.99142f, 0.99170f, 0.99197f,
    0.99222f, 0.99245f, 0.99268f, 0.99288f, 0.99308f, 0.99327f, 0.99344f, 0.99361f, 0.99377f, 0.99392f, 0.99407f,
    0.99420f, 0.99433f, 0.99446f, 0.99458f, 0.99470f, 0.99481f, 0.99491f, 0.99501f, 0.99511f, 0.99520f, 0.99529f,
    0.99538f, 0.99547f, 0.99555f, 0.99562f, 0.99570f, 0.99577f, 0.99584f, 0.99591f, 0.99598f, 0.99604f, 0.99610f,
    0.99616f, 0.99622f, 0.99628f, 0.99633f, 0.99638f, 0.99644f, 0.99649f, 0.99653f, 0.99658f, 0.99663f, 0.99667f,
    0.99672f, 0.99676f, 0.99680f, 0.99684f, 0.99688f, 0.99692f, 0.99696f, 0.99699f, 0.99703f, 0.99706f, 0.99710f,
    0.99713f, 0.99716f, 0.99720f, 0.99723f, 0.99726f, 0.99729f, 0.99732f, 0.99734f, 0.99737f, 0.99740f, 0.99743f,
    0.99745f, 0.99748f};

double C4(std::size_t n)
{
    if (n < std::size(C4Table))
        return C4Table[n];
    const double m = static_cast<double>(n);
    return std::sqrt(2.0 / (m - 1.0)) * std::exp(std::lgamma(m / 2.0) - std::lgamma((m - 1.0) / 2.0));
}

// Past the tables (n > 25) the factors follow from d2 and c4 as the tables
// themselves do: the lower factors are clipped at 0.
double TableA2(std::size_t n)
{
    return n < std::size(A2Table) ? A2Table[n] : ControlChart::GetA2(n);
}

double TableA3(std::size_t n)
{
    return n < std::size(A3Table) ? A3Table[n] : ControlChart::GetA3(n);
}

double TableB3(std::size_t n)
{
    if (n < std::size(B3Table))
        return B3Table[n];
    const double c4 = C4(n);
    return std::max(0.0, 1.0 - 3.0 * std::sqrt(1.0 - c4 * c4) / c4);
}

double TableB4(std::size_t n)
{
    if (n < std::size(B4Table))
        return B4Table[n];
    const double c4 = C4(n);
    return 1.0 + 3.0 * std::sqrt(1.0 - c4 * c4) / c4;
}

std::size_t Size(int n)
{
    return n > 0 ? static_cast<std::size_t>(n) : 0;
}

// The present values of one subgroup.
struct Moments {
    double sum = 0.0, squares = 0.0;
    float min = 0.0f, max = 0.0f;
    int count = 0;

    void Add(float v)
    {
        if (count == 0)
            min = max = v;
        min = std::min(min, v);
        max = std::max(max, v);
        sum += v;
        squares += static_cast<double>(v) * v;
        ++count;
    }
    float Mean() const { return count > 0 ? static_cast<float>(sum / count) : Missing; }
    // Rounding can leave k sum(x^2) - (sum x)^2 a hair below 0 for equal
    // values; a variance is never negative.
    float StdDev() const
    {
        if (count < 2)
            return Missing;
        const double k = count;
        return static_cast<float>(std::sqrt(std::max(0.0, (k * squares - sum * sum) / (k * (k - 1.0)))));
    }
    // Missing cells inside a subgroup are skipped, as for the mean.
    float Range() const { return count > 0 ? max - min : Missing; }
};

// The groups of an interval walk along `times`, each as its moments over
// `values`: an element joins the open group while its time is before the
// boundary (after it, for a descending axis); otherwise the group closes, the
// boundary moves one interval on and the element is looked at again, so a
// gap of several intervals leaves empty groups. Elements whose time or value
// is missing are skipped. The boundary is kept in double so that many
// intervals do not drift.
struct IntervalGroups {
    std::vector<Moments> groups;
    std::size_t closedInside = 0; // the groups closed before the walk ended

    // The average size of the groups and the largest, as SubGroupRangeSize
    // gives them: the total counts only the groups closed inside the walk,
    // the divisor every non-empty group (deliberately).
    double AverageSize(double& maxSize) const
    {
        double total = 0.0;
        int nonEmpty = 0;
        maxSize = 0.0;
        for (std::size_t g = 0; g < groups.size(); ++g) {
            nonEmpty += groups[g].count > 0 ? 1 : 0;
            if (g < closedInside) {
                total += groups[g].count;
                maxSize = std::max(maxSize, static_cast<double>(groups[g].count));
            }
        }
        return total == 0.0 ? 0.0 : total / nonEmpty;
    }
};

IntervalGroups WalkIntervals(const NCDataVector<float>& times, const NCDataVector<float>& values, float interval)
{
    IntervalGroups walk;
    // An interval of 0 (or not a number) would never close a group: no groups.
    if (!(interval > 0.0f || interval < 0.0f))
        return walk;
    const int n = std::min(times.Size(), values.Size());
    int first = 1;
    while (first <= times.Size() && (IsMisVal(times[first]) || !std::isfinite(times[first])))
        ++first;
    if (first > times.Size())
        return walk;
    double boundary = static_cast<double>(times[first]) + interval;
    Moments open;
    for (int i = 1; i <= n; ++i) {
        const float t = times[i];
        // A time that is not finite could never be reached by the boundary.
        if (IsMisVal(t) || IsMisVal(values[i]) || !std::isfinite(t))
            continue;
        while (!(interval > 0.0f ? t < boundary : t > boundary)) {
            walk.groups.push_back(open);
            open = Moments();
            boundary += interval;
        }
        open.Add(values[i]);
    }
    walk.closedInside = walk.groups.size();
    if (open.count > 0)
        walk.groups.push_back(open);
    return walk;
}

} // namespace

// ------------------------------------------------------------ construction

ControlChart::ControlChart(ControlType type, const NCDataVector<float>& data, int subgroupSize, EWMAType ewmaType)
    : m_type(type), m_n(subgroupSize), m_ewmaType(ewmaType)
{
    const int count = subgroupSize > 0 ? data.Size() / subgroupSize : 0;
    const bool ranges = type == ControlChartEnum::MeanRange;
    const bool stdDevs = type == ControlChartEnum::MeanStdDev || type == ControlChartEnum::CuSum;
    auto output = [&](NCDataVector<float>& out, bool wanted) -> float* {
        if (!wanted)
            return nullptr;
        if (out.Size() < count)
            out.Resize(count, Missing);
        return out.GetVectorForWriting();
    };
    float* const means = output(m_means, true);
    float* const rangeOut = output(m_ranges, ranges);
    float* const stdDevOut = output(m_stdDevs, stdDevs);
    const float* const x = data.GetVector();
    for (int g = 0; g < count; ++g) {
        Moments group;
        for (int i = g * subgroupSize + 1; i <= (g + 1) * subgroupSize; ++i)
            if (!IsMisVal(x[i]))
                group.Add(x[i]);
        means[g + 1] = group.Mean();
        if (rangeOut)
            rangeOut[g + 1] = group.Range();
        if (stdDevOut)
            stdDevOut[g + 1] = group.StdDev();
    }
    for (NCDataVector<float>* out : {&m_means, &m_ranges, &m_stdDevs})
        out->RecountMissing();
    m_stdDevIndividual = data.GetStdDev();
    FinishConstruction(true);
}

ControlChart::ControlChart(ControlType type, const NCDataVector<float>& data, const NCDataVector<float>& times,
                           float interval, EWMAType ewmaType)
    : m_type(type), m_n(0), m_ewmaType(ewmaType)
{
    const IntervalGroups axis = WalkIntervals(times, times, interval);
    double maxSize = 0.0;
    m_n = static_cast<int>(std::lround(axis.AverageSize(maxSize)));
    m_meanGroups = NCDataVector<float>(static_cast<int>(axis.groups.size()), Missing);
    for (std::size_t g = 0; g < axis.groups.size(); ++g) {
        m_meanGroups(static_cast<int>(g) + 1, axis.groups[g].Mean());
        m_subGroups.push_back(axis.groups[g].count);
    }
    const IntervalGroups walk = WalkIntervals(times, data, interval);
    const int count = static_cast<int>(walk.groups.size());
    auto fill = [&](NCDataVector<float>& out, float (Moments::*statistic)() const) {
        out = NCDataVector<float>(count, Missing);
        for (int g = 0; g < count; ++g)
            out(g + 1, (walk.groups[Size(g)].*statistic)());
    };
    fill(m_means, &Moments::Mean);
    if (type == ControlChartEnum::MeanRange)
        fill(m_ranges, &Moments::Range);
    if (type == ControlChartEnum::MeanStdDev || type == ControlChartEnum::CuSum)
        fill(m_stdDevs, &Moments::StdDev);
    m_stdDevIndividual = data.GetStdDev();
    FinishConstruction(false);
}

ControlChart::ControlChart(const ControlChart& other) = default;
ControlChart& ControlChart::operator=(const ControlChart& other) = default;
ControlChart::~ControlChart() = default;

void ControlChart::FinishConstruction(bool bySize)
{
    m_target = m_means.GetMean();
    if (!IsUnset(m_target) && std::abs(m_target) < 1.1920928955078125e-07)
        m_target = 0.0;
    const bool individuals = bySize && m_n == 1;
    switch (m_type) {
    case ControlChartEnum::MeanRange:
        SetMeanRangeValues(m_ranges.GetMean());
        break;
    case ControlChartEnum::MeanStdDev:
        SetStdDevValues(m_stdDevs.GetMean());
        break;
    case ControlChartEnum::CuSum:
        m_stdDevMean = m_stdDevs.GetMean();
        m_mssd = Unset;
        m_stdDevProcess = individuals ? m_stdDevIndividual : GetMSSD();
        break;
    case ControlChartEnum::EWMA:
        m_stdDevProcess = individuals ? m_stdDevIndividual : GetMSSD();
        break;
    case ControlChartEnum::EWMAOverallSigma:
        m_stdDevProcess = m_stdDevIndividual;
        break;
    default:
        break;
    }
}

// ------------------------------------------------------------ limits

// An unknown R-bar (or S-bar below), as when no subgroup has two values,
// leaves every limit built on it unknown rather than computed from -99.
void ControlChart::SetMeanRangeValues(double rangeMean)
{
    const std::size_t n = Size(m_n);
    m_rangeMean = rangeMean;
    if (IsUnset(rangeMean)) {
        m_meanUCL = m_meanLCL = m_rangeUCL = m_rangeLCL = m_stdDevProcess = Unset;
        return;
    }
    m_meanUCL = m_target + TableA2(n) * rangeMean;
    m_meanLCL = m_target - TableA2(n) * rangeMean;
    m_rangeUCL = GetD4(n) * rangeMean;
    m_rangeLCL = GetD3(n) * rangeMean;
    m_stdDevProcess = rangeMean / GetD2(n);
}

void ControlChart::SetStdDevValues(double stdDevMean)
{
    const std::size_t n = Size(m_n);
    m_stdDevMean = stdDevMean;
    if (IsUnset(stdDevMean)) {
        m_meanUCL = m_meanLCL = m_stdDevUCL = m_stdDevLCL = m_stdDevProcess = Unset;
        return;
    }
    m_stdDevUCL = TableB4(n) * stdDevMean;
    m_stdDevLCL = TableB3(n) * stdDevMean;
    m_meanUCL = m_target + TableA3(n) * stdDevMean;
    m_meanLCL = m_target - TableA3(n) * stdDevMean;
    m_stdDevProcess = stdDevMean / C4(n);
}

void ControlChart::ResetEWMALimits()
{
    m_ewmaUCL = Unset;
    m_ewmaLCL = Unset;
    m_ewmaStdDev = Unset;
}

void ControlChart::SetTarget(double target)
{
    if (IsUnset(target))
        return;
    m_target = target;
    const std::size_t n = Size(m_n);
    switch (m_type) {
    case ControlChartEnum::MeanRange:
        if (!IsUnset(m_rangeMean)) {
            m_meanUCL = target + TableA2(n) * m_rangeMean;
            m_meanLCL = target - TableA2(n) * m_rangeMean;
        }
        break;
    case ControlChartEnum::MeanStdDev:
        if (!IsUnset(m_stdDevMean)) {
            m_meanUCL = target + TableA3(n) * m_stdDevMean;
            m_meanLCL = target - TableA3(n) * m_stdDevMean;
        }
        break;
    case ControlChartEnum::CuSum:
        m_devFromTarget.Clear();
        m_highCuSum.Clear();
        m_lowCuSum.Clear();
        break;
    case ControlChartEnum::EWMA:
        ResetEWMALimits();
        m_ewma.Clear();
        break;
    default:
        // Individual and overall-sigma EWMA charts keep what they computed.
        break;
    }
}

void ControlChart::SetStdDevSubgroup(double sigma)
{
    if (IsUnset(sigma))
        return;
    const std::size_t n = Size(m_n);
    const double c4Sigma = C4(n) * sigma;
    switch (m_type) {
    case ControlChartEnum::Individual:
        m_stdDevProcess = sigma;
        break;
    case ControlChartEnum::MeanRange:
        SetMeanRangeValues(GetD2(n) * sigma);
        break;
    case ControlChartEnum::MeanStdDev:
        SetStdDevValues(c4Sigma);
        break;
    case ControlChartEnum::CuSum:
        SetStdDevValues(c4Sigma);
        m_mssd = c4Sigma;
        m_actionLimit = 4.5 * c4Sigma;
        m_deadBand = 0.5 * c4Sigma;
        break;
    case ControlChartEnum::EWMA:
    case ControlChartEnum::EWMAOverallSigma:
        SetStdDevValues(c4Sigma);
        m_stdDevProcess = sigma;
        ResetEWMALimits();
        m_mssd = c4Sigma;
        break;
    }
}

void ControlChart::SetEWMALambda(double lambda)
{
    m_ewmaLambda = lambda;
}

void ControlChart::SetEWMAType(EWMAType type)
{
    m_ewmaType = type;
}

void ControlChart::SetFirstValueAsTarget(bool on)
{
    m_firstValueAsTarget = on;
}

void ControlChart::SetSymmetric(bool on)
{
    m_symmetric = on;
}

void ControlChart::SetPrevious(double previous)
{
    if (m_type == ControlChartEnum::EWMA || m_type == ControlChartEnum::EWMAOverallSigma)
        m_previousEWMA = previous;
}

void ControlChart::SetPrevious(double low, double high)
{
    if (m_type == ControlChartEnum::CuSum) {
        m_previousLow = low;
        m_previousHigh = high;
    }
}

void ControlChart::ImportLimits(const ControlChart& other)
{
    m_target = other.m_target;
    m_meanUCL = other.m_meanUCL;
    m_meanLCL = other.m_meanLCL;
    m_rangeMean = other.m_rangeMean;
    m_rangeUCL = other.m_rangeUCL;
    m_rangeLCL = other.m_rangeLCL;
    m_stdDevProcess = other.m_stdDevProcess;
    m_stdDevIndividual = other.m_stdDevIndividual;
    m_stdDevMean = other.m_stdDevMean;
    m_stdDevUCL = other.m_stdDevUCL;
    m_stdDevLCL = other.m_stdDevLCL;
    m_actionLimit = other.m_actionLimit;
    m_deadBand = other.m_deadBand;
    m_ewmaLambda = other.GetEWMALambda();
    m_ewmaUCL = other.m_ewmaUCL;
    m_ewmaLCL = other.m_ewmaLCL;
    m_ewmaStdDev = other.m_ewmaStdDev;
    m_mssd = other.m_mssd;
}

// ------------------------------------------------------------ CuSum

void ControlChart::CalculateCuSum() const
{
    const double mssd = GetMSSD();
    m_deadBand = IsUnset(mssd) ? Unset : 0.5 * mssd;
    m_actionLimit = IsUnset(mssd) ? Unset : 4.5 * mssd;
    const int count = m_means.Size();
    m_devFromTarget = NCDataVector<float>(count, Missing);
    m_lowCuSum = NCDataVector<float>(count, Missing);
    m_highCuSum = NCDataVector<float>(count, Missing);
    // Without a sigma there is no reference value, and no sums.
    if (IsUnset(mssd))
        return;
    double low = IsUnset(m_previousLow) ? 0.0 : m_previousLow;
    double high = IsUnset(m_previousHigh) ? 0.0 : m_previousHigh;
    for (int i = 1; i <= count; ++i) {
        const float m = m_means[i];
        if (!IsMisVal(m)) {
            const double deviation = m - m_target;
            m_devFromTarget(i, static_cast<float>(deviation));
            low = std::max(0.0, -deviation - m_deadBand + low);
            high = std::max(0.0, deviation - m_deadBand + high);
        }
        m_lowCuSum(i, static_cast<float>(low));
        m_highCuSum(i, static_cast<float>(high));
    }
}

double ControlChart::GetActionLimit() const
{
    if (IsUnset(m_actionLimit) || IsUnset(m_deadBand) || m_highCuSum.empty() || m_lowCuSum.empty())
        CalculateCuSum();
    return m_actionLimit;
}

double ControlChart::GetDeadBand() const
{
    GetActionLimit();
    return m_deadBand;
}

const NCDataVector<float>& ControlChart::GetDevFromTarget() const
{
    if (m_devFromTarget.empty() || m_highCuSum.empty() || m_lowCuSum.empty())
        CalculateCuSum();
    return m_devFromTarget;
}

const NCDataVector<float>& ControlChart::GetHighCuSum() const
{
    GetActionLimit();
    return m_highCuSum;
}

const NCDataVector<float>& ControlChart::GetLowCuSum() const
{
    GetActionLimit();
    return m_lowCuSum;
}

// ------------------------------------------------------------ EWMA

double ControlChart::GetMSSD() const
{
    if (m_n == 1)
        return m_stdDevProcess;
    if (!IsUnset(m_mssd))
        return m_mssd;
    const int count = m_means.Size();
    const int present = m_means.GetNumValidValues();
    double sum = 0.0;
    for (int i = 2; i <= count; ++i)
        if (!IsMisVal(m_means[i]) && !IsMisVal(m_means[i - 1])) {
            const double d = static_cast<double>(m_means[i]) - m_means[i - 1];
            sum += d * d;
        }
    // Fewer than two present means give no successive difference: unknown.
    const double divisor = 2.0 * present - 2.0;
    if (present < 2 || divisor <= 0.0)
        return Unset;
    m_mssd = std::sqrt(sum / divisor);
    return m_mssd;
}

void ControlChart::CalculateEWMA(NCDataVector<float>& out, double lambda, EWMAType type) const
{
    const int count = m_means.Size();
    out = NCDataVector<float>(count, Missing);
    if (count == 0 || m_means.HasAllMissingValues() || type == ControlChartEnum::EWMANone)
        return;
    const NCDataVector<float>& x = m_means;
    int firstPresent = 1;
    while (IsMisVal(x[firstPresent]))
        ++firstPresent;
    int start = 1;
    double z = 0.0;
    if (m_firstValueAsTarget || (IsUnset(m_previousEWMA) && IsUnset(m_target))) {
        start = firstPresent;
        z = x[start];
    } else {
        z = IsUnset(m_previousEWMA) ? m_target : m_previousEWMA;
    }
    out(start, static_cast<float>(z));
    int end = count;
    if (m_symmetric && count >= 2) {
        end = count;
        while (IsMisVal(x[end]))
            --end;
    }
    const bool filter = type == ControlChartEnum::Filter;
    for (int i = start + 1; i <= end; ++i) {
        const float u = filter ? x[i] : x[i - 1];
        if (!IsMisVal(u))
            z += lambda * (u - z);
        out(i, static_cast<float>(z));
    }
    if (!m_symmetric || count < 2)
        return;
    double w = x[end];
    out(end, static_cast<float>((out[end] + w) / 2.0));
    for (int i = end - 1; i >= start; --i) {
        const float u = filter ? x[i] : x[i + 1];
        if (!IsMisVal(u))
            w += lambda * (u - w);
        out(i, static_cast<float>((out[i] + w) / 2.0));
    }
}

const NCDataVector<float>& ControlChart::GetEWMA() const
{
    if (m_ewma.empty())
        CalculateEWMA(m_ewma, GetEWMALambda(), m_ewmaType);
    return m_ewma;
}

// The asymptotic limits: they do not widen at the start of the series.
void ControlChart::CalculateEWMALimits() const
{
    const double lambda = GetEWMALambda();
    const double sigma = m_n == 1 ? m_stdDevProcess : GetMSSD();
    // An unknown sigma leaves the limits unknown.
    if (IsUnset(sigma))
        return;
    m_ewmaStdDev = std::sqrt(lambda / (2.0 - lambda)) * sigma;
    m_ewmaUCL = m_target + 3.0 * m_ewmaStdDev;
    m_ewmaLCL = m_target - 3.0 * m_ewmaStdDev;
}

double ControlChart::GetEWMAUCL() const
{
    if (IsUnset(m_ewmaUCL))
        CalculateEWMALimits();
    return m_ewmaUCL;
}

double ControlChart::GetEWMALCL() const
{
    if (IsUnset(m_ewmaLCL))
        CalculateEWMALimits();
    return m_ewmaLCL;
}

double ControlChart::GetEWMAStdDev() const
{
    if (IsUnset(m_ewmaStdDev))
        CalculateEWMALimits();
    return m_ewmaStdDev;
}

// The predictive EWMA from the start the chart would use: z before a present
// value is the prediction of it, and a missing value leaves z as it is, so
// the recursion only needs the present values from the start on. The search
// asks for some weights more than once; each is computed once.
//
// The recursion z' = (1 - l) z + l x is linear in its start, so a long
// series is cut into chunks that run side by side from a start of 0: with
// a_j = (1 - l)^j and r_j the chunk's own errors, a start s adds to the
// chunk's sum sum (r_j - a_j s)^2 = sum r_j^2 - 2 s sum a_j r_j + s^2 sum
// a_j^2, and the chunk ends at a_n s + z_n. The values are taken relative to
// the first start, which leaves the errors as they are and keeps the three
// sums small. Weights outside [0, 2] would make a_j grow; they, and short
// series, run the recursion as it is.
class ControlChart::PredictionErrors {
public:
    PredictionErrors(const NCDataVector<float>& x, int start, double z0)
    {
        for (int i = start; i <= x.Size(); ++i)
            if (!IsMisVal(x[i]))
                m_values.push_back(static_cast<double>(x[i]) - z0);
    }

    double operator()(double lambda)
    {
        const auto known = m_known.find(lambda);
        if (known != m_known.end())
            return known->second;
        const bool chunked = m_values.size() >= MinChunked && lambda >= 0.0 && lambda <= 2.0;
        const double error = chunked ? Chunked(lambda) : Serial(lambda);
        m_known.emplace(lambda, error);
        return error;
    }

private:
    static constexpr std::size_t MinChunked = 1 << 14;

    struct Sums {
        double squares = 0.0, cross = 0.0, weights = 0.0, end = 0.0, decay = 1.0;
    };

    // The recursion from `start` over values [begin, end): its sum of squares.
    double Serial(double lambda, std::size_t begin = 0, double start = 0.0) const
    {
        double z = start, error = 0.0;
        for (std::size_t i = begin; i < m_values.size(); ++i) {
            const double e = m_values[i] - z;
            error += e * e;
            z += lambda * e;
        }
        return error;
    }

    // Four chunks of `length` values from `first` on, side by side from a
    // start of 0: four independent chains keep the processor busy where
    // one would wait for each step.
    void FourChunks(double lambda, const double* first, std::size_t length, Sums* out) const
    {
        const double keep = 1.0 - lambda;
        const double* p0 = first;
        const double* p1 = first + length;
        const double* p2 = first + 2 * length;
        const double* p3 = first + 3 * length;
        double z0 = 0, z1 = 0, z2 = 0, z3 = 0, a0 = 1, a1 = 1, a2 = 1, a3 = 1;
        double s0 = 0, s1 = 0, s2 = 0, s3 = 0, c0 = 0, c1 = 0, c2 = 0, c3 = 0, w0 = 0, w1 = 0, w2 = 0, w3 = 0;
        for (std::size_t j = 0; j < length; ++j) {
            const double r0 = p0[j] - z0, r1 = p1[j] - z1, r2 = p2[j] - z2, r3 = p3[j] - z3;
            s0 += r0 * r0;
            s1 += r1 * r1;
            s2 += r2 * r2;
            s3 += r3 * r3;
            c0 += a0 * r0;
            c1 += a1 * r1;
            c2 += a2 * r2;
            c3 += a3 * r3;
            w0 += a0 * a0;
            w1 += a1 * a1;
            w2 += a2 * a2;
            w3 += a3 * a3;
            z0 += lambda * r0;
            z1 += lambda * r1;
            z2 += lambda * r2;
            z3 += lambda * r3;
            a0 *= keep;
            a1 *= keep;
            a2 *= keep;
            a3 *= keep;
        }
        out[0] = {s0, c0, w0, z0, a0};
        out[1] = {s1, c1, w1, z1, a1};
        out[2] = {s2, c2, w2, z2, a2};
        out[3] = {s3, c3, w3, z3, a3};
    }

    double Chunked(double lambda) const
    {
        const std::size_t count = m_values.size();
        const int threads = std::max(1, omp_get_max_threads());
        const std::size_t groups = 2 * static_cast<std::size_t>(threads);
        const std::size_t length = count / (4 * groups);
        std::vector<Sums> sums(4 * groups);
#pragma omp parallel for schedule(static) num_threads(threads)
        for (std::size_t g = 0; g < groups; ++g)
            FourChunks(lambda, m_values.data() + 4 * g * length, length, sums.data() + 4 * g);
        double error = 0.0, s = 0.0;
        for (const Sums& c : sums) {
            error += c.squares - 2.0 * s * c.cross + s * s * c.weights;
            s = c.decay * s + c.end;
        }
        // The few values past the last whole chunk.
        return error + Serial(lambda, 4 * groups * length, s);
    }

    std::vector<double> m_values;
    std::map<double, double> m_known;
};

ControlChart::PredictionErrors ControlChart::MakePredictionErrors() const
{
    const int count = m_means.Size();
    int start = 1;
    while (start <= count && IsMisVal(m_means[start]))
        ++start;
    if (start > count)
        return PredictionErrors(m_means, count + 1, 0.0);
    double z = m_means[start];
    if (!m_firstValueAsTarget && !(IsUnset(m_previousEWMA) && IsUnset(m_target))) {
        z = IsUnset(m_previousEWMA) ? m_target : m_previousEWMA;
        start = 1;
    }
    return PredictionErrors(m_means, start, z);
}

namespace {

// The float resolution at the larger magnitude of x and r.
double Tolerance(double x, double r)
{
    int exponent = 0;
    std::frexp(std::max(std::abs(x), std::abs(r)), &exponent);
    return std::ldexp(1.1920928955078125e-07, exponent);
}

} // namespace

// A pattern search along lambda. A single improving step does not move
// `best`: only a second improvement in the same direction does, and the
// final comparison takes a last improvement. The estimated lambda depends
// on exactly these steps, so they are kept as they are.
double ControlChart::EstimateLambda(double start, double step, PredictionErrors& errorOf)
{
    double best = start;
    double bestError = errorOf(best);
    double candidate = best;
    double error = bestError;
    while (std::abs(step) >= 0.0005) {
        candidate = best + step;
        error = errorOf(candidate);
        if (!(error < bestError)) {
            step /= 2.0;
            continue;
        }
        if (candidate < 1.0) {
            while (candidate - 0.0 > Tolerance(candidate, 0.0)) {
                const double next = candidate + step;
                const double nextError = errorOf(next);
                if (!(nextError < error)) {
                    step /= 2.0;
                    break;
                }
                best = candidate;
                bestError = error;
                candidate = next;
                error = nextError;
                if (next >= 1.0)
                    break;
            }
        }
        if (candidate - 1.0 > Tolerance(candidate, 1.0) || !(candidate - 1.0 < -Tolerance(candidate, 1.0)))
            step /= 2.0;
        else if (!(candidate - 0.0 > Tolerance(candidate, 0.0)))
            step /= 2.0;
    }
    return bestError > error ? candidate : best;
}

double ControlChart::GetEWMALambda() const
{
    if (!IsUnset(m_ewmaLambda))
        return m_ewmaLambda;
    PredictionErrors errorOf = MakePredictionErrors();
    const double up = EstimateLambda(0.1, 0.1, errorOf);
    const double down = EstimateLambda(1.0, -0.1, errorOf);
    double lambda = errorOf(up) > errorOf(down) ? down : up;
    if (lambda < 1e-05)
        lambda = 0.2;
    if (lambda >= 1.0)
        lambda = 1.0;
    m_ewmaLambda = lambda;
    return lambda;
}

// ------------------------------------------------------------ factors

double ControlChart::GetD2(std::size_t n)
{
    if (n < std::size(D2Table))
        return D2Table[n];
    const double m = static_cast<double>(n);
    return 3.4873 + 0.0250141 * m - 0.00009823 * m * m;
}

// Past n = 25 both polynomials follow the range factors d3 and d2 rather than
// D3 and D4; they are kept exactly so.
double ControlChart::GetD3(std::size_t n)
{
    if (n < std::size(D3Table))
        return D3Table[n];
    const double m = static_cast<double>(n);
    return 0.80818 - 0.0051871 * m + 0.00005098 * m * m - 0.00000019 * m * m * m;
}

double ControlChart::GetD4(std::size_t n)
{
    if (n < std::size(D4Table))
        return D4Table[n];
    const double m = static_cast<double>(n);
    return 2.88606 + 0.051313 * m - 0.00049243 * m * m + 0.00000188 * m * m * m;
}

double ControlChart::GetA2(std::size_t n)
{
    return 3.0 / (GetD2(n) * std::sqrt(static_cast<double>(n)));
}

double ControlChart::GetA3(std::size_t n)
{
    return 3.0 / (C4(n) * std::sqrt(static_cast<double>(n)));
}

double ControlChart::SubGroupRangeSize(const NCDataVector<float>& times, float interval, double& maxSize)
{
    return WalkIntervals(times, times, interval).AverageSize(maxSize);
}
