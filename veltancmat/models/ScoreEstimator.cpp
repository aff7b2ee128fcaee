#include "veltancmat/models/ScoreEstimator.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>

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

// The scores are the coefficients of a PLS regression of the present values
// on the loadings, with the loadings as predictors (K rows, A columns).
// PLS skips the gaps by its own rule, and its components stop early where
// a projection would only fit the noise of the few values left.
void ScoreEstimator::EstimateWithMisVal(NCDataVector<float>& t, const NCDataVector<float>& x) const
{
    const int components = Components();
    const int present = x.GetNumValidValues();
    const double ss = present > 0 ? x.GetSS() : 0.0;
    const int limit = std::min(components, present);

    NCPLS pls(&m_p, &x, m_maxIterations);
    try {
        while (pls.GetComponents() < limit) {
            pls.NextComponent(nullptr, nullptr, true, true);
            pls.CalculateResiduals();
            if (pls.GetComponents() >= limit)
                break;
            const float c = (*pls.GetCprim())[pls.GetComponents()][1];
            const double left = pls.GetXResiduals()->GetSS();
            // Done when the response loading grows large (the fit turns
            // unstable) or the loadings are used up.
            if (!(c < 2.0f && !IsMisVal(left) && left > ss * 1e-5))
                break;
        }
    } catch (const NCInternalError&) {
        throw;
    } catch (const NCError&) {
        // A component that cannot be computed ends the fit; the earlier
        // ones still hold.
    }

    const NCDataMatrix<float> b = pls.GetRegressionCoefficients(-1);
    t.SetSize(components);
    bool any = false;
    for (int a = 1; a <= components; ++a) {
        t(a, b[a][1]);
        any = any || !IsMisVal(b[a][1]);
    }
    if (!any)
        t.SetAllValues(0.0f);
}
