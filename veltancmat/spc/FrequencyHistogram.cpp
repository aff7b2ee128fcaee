#include "veltancmat/spc/FrequencyHistogram.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <cmath>

namespace {

// a = b within eps at the binary scale of the larger magnitude.
bool Near(double a, double b, double eps)
{
    int exponent = 0;
    std::frexp(std::max(std::abs(a), std::abs(b)), &exponent);
    return std::abs(a - b) <= std::ldexp(eps, exponent);
}

constexpr double WidthEps = 1.1920928955078125e-07;
constexpr double IndexEps = 5e-06;

// The power of ten that lifts a range below 1 to at least 1.
double ScaleFor(double range)
{
    return range < 1.0 ? std::pow(10.0, std::ceil(std::abs(std::log10(range)))) : 1.0;
}

// The bins of one set of values: scaled start and width, bin count, scale.
struct Bins {
    double start = 0.0, width = 1.0, scale = 1.0;
    int count = 0;

    int Index(double x) const
    {
        return std::max(0, FrequencyHistogram::bindex(x * scale, start, width, count - 1));
    }
    double Centre(int b) const { return (start + (b - 0.5) * width) / scale; }
};

} // namespace

double FrequencyHistogram::binwidth(double min, double max, int n)
{
    if (min == max)
        return 1.0;
    const double raw = (max - min) / std::sqrt(static_cast<double>(std::max(n, 1)));
    const double e = std::floor(std::log10(raw));
    const double power = std::pow(10.0, e);
    const double digit = std::floor(raw / power);
    const double halfUp = std::floor((raw + 0.5 * power) / power);
    return Near(halfUp, digit, WidthEps) ? digit * power : (digit + 0.5) * power;
}

int FrequencyHistogram::bindex(double x, double start, double width, int maxIndex)
{
    if (Near(x, start, IndexEps))
        return 0;
    const double q = (x - start) / width;
    const double up = std::ceil(q), down = std::floor(q);
    const int candidate = static_cast<int>(Near(up, q, IndexEps) ? up : down);
    if (maxIndex >= 0)
        return std::min(candidate, maxIndex);
    return Near(down, q, IndexEps) ? candidate - 1 : candidate;
}

std::vector<std::vector<double>> FrequencyHistogram::MakeMultiHistogram(double* data, int n, int k,
                                                                        std::vector<double>& centres,
                                                                        double& start, double& width)
{
    centres.clear();
    std::vector<std::vector<double>> counts;
    if (!data || n <= 0 || k <= 0)
        return counts;
    int present = 0;
    double min = 0.0, max = 0.0;
    for (int i = 1; i <= n; ++i) {
        if (IsMisVal(data[i]))
            continue;
        min = present == 0 ? data[i] : std::min(min, data[i]);
        max = present == 0 ? data[i] : std::max(max, data[i]);
        ++present;
    }
    const int m = present / k;
    if (m == 0)
        return counts;
    Bins bins;
    if (max == min) {
        bins.start = min;
        bins.count = m > 2 ? 3 : 1;
    } else if (m > 2) {
        bins.scale = ScaleFor(max - min);
        const double low = min * bins.scale, high = max * bins.scale, range = high - low;
        bins.start = range > 20.0 ? std::floor(low) : range > 1.0 ? std::floor(10.0 * low) / 10.0 : low;
        bins.width = binwidth(bins.start, high, m - 1);
        bins.count = bindex(high, bins.start, bins.width, -1) + 1;
    } else {
        bins.start = min;
        bins.count = m;
    }
    start = bins.start / bins.scale;
    width = bins.width / bins.scale;
    for (int b = 1; b <= bins.count; ++b)
        centres.push_back(bins.Centre(b));
    const int perSeries = n / k;
    for (int s = 0; s < k; ++s) {
        std::vector<double> series(static_cast<std::size_t>(bins.count), 0.0);
        for (int i = s * perSeries + 1; i <= (s + 1) * perSeries; ++i)
            if (!IsMisVal(data[i]))
                series[static_cast<std::size_t>(bins.Index(data[i]))] += 1.0;
        counts.push_back(std::move(series));
    }
    return counts;
}

void FrequencyHistogram::MakeHistogram(double* data, int n, std::vector<double>& counts, std::vector<double>& centres,
                                       double& start, double& width)
{
    std::vector<std::vector<double>> all = MakeMultiHistogram(data, n, 1, centres, start, width);
    counts = all.empty() ? std::vector<double>() : std::move(all.front());
}

namespace {

// The bins CreateHistogram and the dot plot use for one vector: the start
// at the floor of the (scaled) minimum, the width over the present values.
Bins VectorBins(const NCDataVector<float>& data)
{
    Bins bins;
    float min = 0.0f, max = 0.0f;
    data.GetMinMax(min, max);
    const int present = data.GetNumValidValues();
    if (present == 0)
        return bins;
    bins.scale = max > min ? ScaleFor(static_cast<double>(max) - min) : 1.0;
    const double low = min * bins.scale, high = max * bins.scale;
    bins.start = std::floor(low);
    bins.width = FrequencyHistogram::binwidth(bins.start, high, present);
    bins.count = FrequencyHistogram::bindex(high, bins.start, bins.width, -1) + 1;
    bins.count = std::max(bins.count, 1);
    return bins;
}

} // namespace

void FrequencyHistogram::CreateHistogram(const NCDataVector<float>& data, HistogramInfo& info) const
{
    const Bins bins = VectorBins(data);
    info = HistogramInfo();
    if (bins.count == 0)
        return;
    info.start = bins.start / bins.scale;
    info.width = bins.width / bins.scale;
    info.counts.assign(static_cast<std::size_t>(bins.count), 0.0);
    for (int b = 1; b <= bins.count; ++b)
        info.centres.push_back(bins.Centre(b));
    for (int i = 1; i <= data.Size(); ++i)
        if (!IsMisVal(data[i]))
            info.counts[static_cast<std::size_t>(bins.Index(data[i]))] += 1.0;
}

void FrequencyHistogram::CreateDotPlotHistogram(const NCDataVector<float>& data, NCDataVector<float>& x,
                                                NCDataVector<float>& y, float& start, float& width) const
{
    const Bins bins = VectorBins(data);
    x.Clear();
    y.Clear();
    start = static_cast<float>(bins.start / bins.scale);
    width = static_cast<float>(bins.width / bins.scale);
    std::vector<int> stacked(static_cast<std::size_t>(bins.count), 0);
    for (int i = 1; i <= data.Size(); ++i) {
        if (IsMisVal(data[i]))
            continue;
        const int b = bins.Index(data[i]);
        x.push_back(static_cast<float>(bins.Centre(b + 1)));
        y.push_back(static_cast<float>(++stacked[static_cast<std::size_t>(b)]));
    }
}
