#include "veltancmat/models/ScoreEstimator.h"

#include "veltancmat/platform/NCError.h"

ScoreEstimator::ScoreEstimator(const NCDataMatrix<float>& pprim, int maxIterations)
    : m_pprim(pprim), m_p(pprim), m_maxIterations(maxIterations)
{
    m_p.Transpose();
}

void ScoreEstimator::GetT(NCDataVector<float>& t, const NCDataVector<float>& x) const
{
    if (Components() == 0)
        return;
    if (x.Size() != Variables())
        throw NCInternalError("ScoreEstimator::GetT");
    if (x.GetNumMisVal() == 0)
        EstimateWithoutMisVal(t, x);
    else
        EstimateWithMisVal(t, x);
}

// Component by component, each score taken from what the earlier components
// left of the observation.
void ScoreEstimator::EstimateWithoutMisVal(NCDataVector<float>& t, const NCDataVector<float>& x) const
{
    const int components = Components();
    t.SetSize(components);
    NCDataVector<float> rest(x);
    for (int a = 1; a <= components; ++a) {
        const NCDataVector<float>& p = m_pprim[a];
        const double score = p * rest;
        t(a, static_cast<float>(score));
        if (a < components)
            rest.TransformTo_Sub_d_x_Vt(score, p);
    }
}

bool ScoreEstimator::CanEstimateWithMisVal()
{
    return false;
}

void ScoreEstimator::EstimateWithMisVal(NCDataVector<float>&, const NCDataVector<float>&) const
{
    // The route regresses the present values on the loadings by PLS; until
    // that model is part of the library such observations are refused.
    (void)m_maxIterations;
    throw NCError(ExceptionMessage::translate(
                      "The scores of an observation with missing values cannot be estimated without the PLS model."),
                  NCError::Error);
}
