#include "veltancmat/containers/NCDataVectorUtilities.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace NCDataVectorUtilities {

namespace {

using QvMath::CompareTolerant;
using QvMath::IsEqualTolerant;

[[noreturn]] void Throw(const char* function, const char* text)
{
    throw NCInternalError(std::string("NCDataVectorUtilities::") + function, ExceptionMessage::translate(text));
}

// A NaN cannot be ordered, so where positions are sorted or searched it is
// treated like the missing value.
bool IsUnusablePosition(float x)
{
    return IsMisVal(x) || std::isnan(x);
}

double Line(double xa, double ya, double xb, double yb, double x)
{
    return ya + (x - xa) / (xb - xa) * (yb - ya);
}

// The window of element i (1-based) for a centred window of w points,
// clipped to 1..n.
int WindowFirst(int i, int w)
{
    return std::max(1, i - w / 2);
}

int WindowLast(int i, int w, int n)
{
    return std::min(n, i + (w - 1) / 2);
}

// The median of values[0..k), reordering them.
double MedianInPlace(std::vector<float>& values)
{
    const std::size_t k = values.size();
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(k / 2);
    std::nth_element(values.begin(), middle, values.end());
    const double upper = *middle;
    if (k % 2 == 1)
        return upper;
    const double lower = *std::max_element(values.begin(), middle);
    return 0.5 * (lower + upper);
}

} // namespace

NCDataVector<float> InterPolate(float x1, float x2, const NCDataVector<float>& Y1, const NCDataVector<float>& Y2,
                                float x, QvMath::EExtrapolate mode)
{
    if (Y1.Size() != Y2.Size())
        Throw("InterPolate", "Vectors are of different size.");

    const int n = Y1.Size();
    NCDataVector<float> result(n, fMisVal);
    if (IsMisVal(x))
        return result;

    const bool atX1 = IsEqualTolerant(x, x1);
    const bool atX2 = IsEqualTolerant(x, x2);
    const bool positionMissing = IsMisVal(x1) || IsMisVal(x2);
    const bool above = CompareTolerant(x, x1) > 0 && CompareTolerant(x, x2) > 0;
    const bool below = CompareTolerant(x, x1) < 0 && CompareTolerant(x, x2) < 0;
    const bool sameX = IsEqualTolerant(x1, x2);

    for (int k = 1; k <= n; ++k) {
        const float y1 = Y1[k];
        const float y2 = Y2[k];
        float y = fMisVal;
        if (positionMissing || IsMisVal(y1) || IsMisVal(y2)) {
            if (atX1)
                y = y1;
            else if (atX2)
                y = y2;
        } else if ((above || below) && mode == QvMath::ExtrapolateClamp) {
            if (above)
                y = x2 >= x1 ? y2 : y1;
            else
                y = x2 <= x1 ? y2 : y1;
        } else if ((above || below) && mode == QvMath::ExtrapolateNone) {
            y = fMisVal;
        } else if (!sameX) {
            y = static_cast<float>(Line(x1, y1, x2, y2, x));
        } else {
            y = static_cast<float>(0.5 * (static_cast<double>(y1) + y2));
        }
        result(k, y);
    }
    return result;
}

NCDataVector<float> InterPolateVec(const NCDataVector<float>& positions, const NCDataVector<float>& values,
                                   const NCDataVector<float>& newPositions, QvMath::EExtrapolate mode)
{
    if (positions.Size() != values.Size())
        Throw("InterPolateVec", "Vectors are of different size.");

    std::vector<std::pair<double, double>> pairs;
    pairs.reserve(static_cast<std::size_t>(positions.Size()));
    for (int i = 1; i <= positions.Size(); ++i) {
        if (!IsUnusablePosition(positions[i]) && !IsMisVal(values[i]))
            pairs.emplace_back(positions[i], values[i]);
    }
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });

    // Merge runs of equal positions, each compared with the run's first so
    // that a slow drift cannot chain distinct points together.
    std::vector<double> xs;
    std::vector<double> ys;
    for (std::size_t i = 0; i < pairs.size();) {
        std::size_t j = i;
        double sum = 0.0;
        while (j < pairs.size() && IsEqualTolerant(pairs[j].first, pairs[i].first))
            sum += pairs[j++].second;
        xs.push_back(pairs[i].first);
        ys.push_back(sum / static_cast<double>(j - i));
        i = j;
    }

    const int n = newPositions.Size();
    NCDataVector<float> result(n, fMisVal);
    if (xs.empty())
        return result;
    const std::size_t m = xs.size();

    for (int i = 1; i <= n; ++i) {
        const float x = newPositions[i];
        if (IsUnusablePosition(x))
            continue;
        const std::size_t k = static_cast<std::size_t>(std::upper_bound(xs.begin(), xs.end(), double(x)) - xs.begin());
        double y = dMisVal;
        if (k > 0 && IsEqualTolerant(x, xs[k - 1])) {
            y = ys[k - 1];
        } else if (k < m && IsEqualTolerant(x, xs[k])) {
            y = ys[k];
        } else if (k > 0 && k < m) {
            y = Line(xs[k - 1], ys[k - 1], xs[k], ys[k], x);
        } else if (mode == QvMath::ExtrapolateNone) {
            continue;
        } else if (mode == QvMath::ExtrapolateClamp || m == 1) {
            y = k == 0 ? ys.front() : ys.back();
        } else {
            const std::size_t a = k == 0 ? 0 : m - 2;
            y = Line(xs[a], ys[a], xs[a + 1], ys[a + 1], x);
        }
        result(i, static_cast<float>(y));
    }
    return result;
}

NCDataVector<float> Average(const NCDataVector<float>& v, int window)
{
    const int n = v.Size();
    NCDataVector<float> result(n, fMisVal);
    if (window < 1 || window > n)
        return result;

    double sum = 0.0;
    int count = 0;
    // Element j enters the window (step 1) or leaves it (step -1); a sign
    // change is exact, so leaving subtracts just as sum -= v[j] would.
    const auto shift = [&](int j, int step) {
        if (!IsMisVal(v[j])) {
            sum += step * static_cast<double>(v[j]);
            count += step;
        }
    };

    for (int j = 1; j <= WindowLast(1, window, n); ++j)
        shift(j, 1);
    for (int i = 1; i <= n; ++i) {
        if (i > 1) {
            const int entering = WindowLast(i, window, n);
            if (entering > WindowLast(i - 1, window, n))
                shift(entering, 1);
            const int leaving = WindowFirst(i - 1, window);
            if (leaving < WindowFirst(i, window))
                shift(leaving, -1);
        }
        if (count > 0)
            result(i, static_cast<float>(sum / count));
        else
            sum = 0.0; // an empty window restarts the sum free of rounding debris
    }
    return result;
}

NCDataVector<float> Median(const NCDataVector<float>& v, int window)
{
    const int n = v.Size();
    NCDataVector<float> result(n, fMisVal);
    if (window < 1 || window > n)
        return result;

    std::vector<float> valid;
    valid.reserve(static_cast<std::size_t>(window));
    for (int i = 1; i <= n; ++i) {
        valid.clear();
        for (int j = WindowFirst(i, window); j <= WindowLast(i, window, n); ++j) {
            if (!IsMisVal(v[j]))
                valid.push_back(v[j]);
        }
        if (!valid.empty())
            result(i, static_cast<float>(MedianInPlace(valid)));
    }
    return result;
}

int GetClosestIndex(const NCDataVector<float>& v, float value)
{
    if (IsMisVal(value) || std::isnan(value))
        return iMisVal;
    int best = iMisVal;
    double bestDistance = 0.0;
    for (int i = 1; i <= v.Size(); ++i) {
        if (IsMisVal(v[i]))
            continue;
        const double distance = std::fabs(static_cast<double>(v[i]) - value);
        if (std::isnan(distance))
            continue;
        if (best == iMisVal || distance < bestDistance) {
            best = i;
            bestDistance = distance;
        }
    }
    return best;
}

double PeakNormal(const NCDataVector<float>& v, int from, int to, bool absolute)
{
    if (from < 1 || to > v.Size() || from > to)
        Throw("PeakNormal", "Index out of range.");

    bool found = false;
    double peak = 0.0;
    for (int i = from; i <= to; ++i) {
        if (IsMisVal(v[i]) || std::isnan(v[i]))
            continue;
        const double x = v[i];
        if (!found || (absolute ? std::fabs(x) > std::fabs(peak) : x > peak)) {
            peak = x;
            found = true;
        }
    }
    if (!found || peak == 0.0 || (!absolute && peak < 0.0))
        return dMisVal;
    return 1.0 / std::fabs(peak);
}

} // namespace NCDataVectorUtilities
