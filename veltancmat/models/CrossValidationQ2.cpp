#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <string>

namespace NCCrossValidation {

namespace {

// The smallest normal float: below it a sum of squares counts as nothing.
constexpr double Tiny = 1.1754943508222875e-37;
constexpr double TinyStart = 1.1754944e-37;
constexpr double PressCap = 1.1;

} // namespace

void CheckGroupLabels(const NCIntegralVector<int, -99>& labels, int groups)
{
    for (int i = 1; i <= labels.Size(); ++i)
        if (labels[i] < 0 || labels[i] >= groups)
            throw NCError(ExceptionMessage::translate("A cross-validation group label lies outside 0 to {1}.") %
                              std::to_string(groups - 1),
                          NCError::Error);
}

void UpdateQ2(const std::vector<double>& ss, const std::vector<double>& press, const NCDataVector<float>& startSS,
              NCDataVector<float>& q2, NCDataVector<float>& q2Cum, float& q2Total, float& q2TotalCum)
{
    double ssTotal = 0.0, pressTotal = 0.0;
    for (int j = 1; j <= q2.Size(); ++j) {
        const double s = ss[static_cast<std::size_t>(j)], e = press[static_cast<std::size_t>(j)];
        ssTotal += s;
        pressTotal += e;
        if (s >= Tiny) {
            q2(j, static_cast<float>((s - e) / s));
            q2Cum(j, static_cast<float>(1.0 - (1.0 - q2Cum[j]) * std::min(e / s, PressCap)));
        } else {
            q2(j, 0.0f);
            const float start = startSS[j];
            q2Cum(j, IsMisVal(start) || start < TinyStart ? 0.0f : 1.0f);
        }
    }
    if (ssTotal >= Tiny) {
        q2Total = static_cast<float>((ssTotal - pressTotal) / ssTotal);
        q2TotalCum = static_cast<float>(1.0 - (1.0 - q2TotalCum) * std::min(pressTotal / ssTotal, PressCap));
    } else {
        // The cumulative value stays where it was: nothing more was predicted.
        q2Total = 0.0f;
    }
}

} // namespace NCCrossValidation
