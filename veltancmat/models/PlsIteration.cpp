#include "veltancmat/models/PlsIteration.h"

#include "veltancmat/models/SumsOfSquares.h"
#include "veltancmat/platform/NCError.h"

#include <cmath>
#include <string>

namespace NCNipals {

void CheckPlsCorrelation(const NCDataVector<float>& u, const NCDataVector<float>& w, double ssX, int k,
                         int component)
{
    const double normX = IsMisVal(ssX) ? 0.0 : std::sqrt(ssX);
    // Below this correlation the weights are noise: X carries no information about Y.
    const double minCorrelation = 1e-6 / std::sqrt(static_cast<double>(k));
    const double r = std::sqrt(PresentSS(u)) * std::sqrt(PresentSS(w)) / normX;
    if (!(std::isnormal(r) && r >= minCorrelation))
        throw NCError(ExceptionMessage::translate(
                          "The correlation between X and Y is zero or almost zero.\nComponent {1} cannot be computed.") %
                          std::to_string(component),
                      NCError::Warning);
}

float PlsMovement(const NCDataVector<float>& u, const NCDataVector<float>& previous, bool singleResponse)
{
    if (singleResponse)
        return 0.0f;
    const double x = u.Difference(previous);
    return x >= 1e-30 ? static_cast<float>((std::log10(x) + 10.0) * 10.0) : -1.0f;
}

} // namespace NCNipals
