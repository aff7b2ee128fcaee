#pragma once

// What the PCA and PLS cross-validations share: the check of their group
// labels and the step from prediction error sums to Q2. Internal to the
// library.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"

#include <vector>

namespace NCCrossValidation {

// Throws NCError unless every label lies in 0 .. groups - 1.
void CheckGroupLabels(const NCIntegralVector<int, -99>& labels, int groups);

// One component's Q2 per column (1-based ss and press; element 0 unused) and
// in total, and the cumulative values carried on from the previous ones,
// each factor capped at 1.1 so that one very bad component cannot wipe the
// cumulative value out. A column with nothing left to predict gets Q2 0 and
// a cumulative 1 if it had variation to begin with (startSS), else 0.
void UpdateQ2(const std::vector<double>& ss, const std::vector<double>& press, const NCDataVector<float>& startSS,
              NCDataVector<float>& q2, NCDataVector<float>& q2Cum, float& q2Total, float& q2TotalCum);

} // namespace NCCrossValidation
