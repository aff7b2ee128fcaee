#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

class NCOPLS;

// What the current stage of an OPLS model describes of the preprocessed
// blocks it was fitted on: the shares of X's sum of squares in the
// predictive part T P' and in the orthogonal part TO PO', and of Y's in the
// fitted T C' + TO CO'. Sums run over the cells the data has; with missing
// cells the two parts of X are not exactly orthogonal, so their shares need
// not add up to what they explain together. A share of a block without
// variation is missing.
struct OPLSExplained {
    float r2xPredictive = 0.0f;
    float r2xOrthogonal = 0.0f;
    float r2y = 0.0f;
    NCDataVector<float> r2yResponses; // per response, M
};

VELTANCMAT_API OPLSExplained GetOPLSExplained(const NCOPLS& model, const NCDataMatrix<float>& x,
                                              const NCDataMatrix<float>& y);

// Y fitted by the components (N x M), T C' plus TO CO' when there are
// orthogonal components; missing in the rows whose scores are.
VELTANCMAT_API NCDataMatrix<float> GetOPLSFittedY(const NCDataMatrix<float>& tprim, const NCDataMatrix<float>& cprim,
                                                  const NCDataMatrix<float>& toprim, const NCDataMatrix<float>& coprim);
