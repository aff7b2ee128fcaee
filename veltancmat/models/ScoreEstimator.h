#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

// The scores of one observation (K values) on the components of a loading
// matrix P' (A x K). A complete observation is projected component by
// component; one with missing values is fitted by a PLS regression of its
// present values on the loadings, which skips the gaps by PLS's own rule.
class VELTANCMAT_API ScoreEstimator {
public:
    ScoreEstimator(const NCDataMatrix<float>& pprim, int maxIterations);

    // t receives A scores; nothing is done when the model has no component.
    // Throws NCInternalError when x is not K long.
    void GetT(NCDataVector<float>& t, const NCDataVector<float>& x) const;

    void EstimateWithoutMisVal(NCDataVector<float>& t, const NCDataVector<float>& x) const;
    void EstimateWithMisVal(NCDataVector<float>& t, const NCDataVector<float>& x) const;

    int Components() const { return m_pprim.SizeRows(); }
    int Variables() const { return m_pprim.SizeColumns(); }

private:
    const NCDataMatrix<float>& m_pprim;
    NCDataMatrix<float> m_p; // K x A
    int m_maxIterations;
};
