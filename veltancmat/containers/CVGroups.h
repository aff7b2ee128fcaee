#pragma once

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"

// The default cross-validation groups of n observations: element i
// (1-based) is i mod groups, so the labels run 1, 2, ..., groups - 1, 0, 1,
// ... and the last group of each cycle is 0, which the cross-validation
// objects rely on. Throws NCError (level 2) when groups < 1 and
// NCInternalError when n < 0.
VELTANCMAT_API NCIntegralVector<int, -99> GetDeafultCVGroupsVector(int n, int groups);
