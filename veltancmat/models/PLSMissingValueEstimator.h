#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

// Fills the missing cells of y (N x M) with their prediction by a PLS model
// of y on x (N x K), both preprocessed as for any PLS model (scaled and
// centred). Components are added while the cross-validation rule
// (PLSCrossValidation::GetSignificance, 7 groups) calls them significant;
// the prediction uses those components only. A cell stays missing when
// its row of x gives no score, and y is left unchanged when not even the
// first component is significant.
//
// With `both`, x is then filled the same way from the completed y, so the
// two matrices exchange roles; progress then runs over two halves.
//
// Throws NCInternalError when the row counts differ, the model's NCError
// when the first component finds no X-Y correlation (nothing is changed
// then), and CancelException "Computations aborted." on a break.
VELTANCMAT_API void PLSMissingValueEstimator(NCDataMatrix<float>& x, NCDataMatrix<float>& y, bool both,
                                             NCProgress* progress);
