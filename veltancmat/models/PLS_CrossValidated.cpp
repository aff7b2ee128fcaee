#include "veltancmat/models/PLS_CrossValidated.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/SumsOfSquares.h"
#include "veltancmat/platform/NCError.h"

namespace {

const CancelText Aborted("Calculation of", "PLS component aborted.");

double Total(const std::vector<double>& ss)
{
    double total = 0.0;
    for (std::size_t j = 1; j < ss.size(); ++j)
        total += ss[j];
    return total;
}

// A share of a sum of squares; missing when there is none to share.
float Share(double part, double whole)
{
    return whole > 0.0 ? static_cast<float>(part / whole) : NCMisVal<float>;
}

} // namespace

PLS_CrossValidated::PLS_CrossValidated(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int groups,
                                       const IndexList* observationGroups, int maxIterations)
    : m_model(&x, &y, maxIterations), m_cv(std::make_unique<PLSCrossValidation>(&m_model, groups, observationGroups)),
      m_groups(groups), m_defaultGroups(observationGroups == nullptr),
      m_ssX0(NCNipals::PresentColumnSS(x)), m_ssY0(NCNipals::PresentColumnSS(y)), m_ssXBefore(Total(m_ssX0)),
      m_ssYBefore(m_ssY0)
{
    if (observationGroups)
        m_observationGroups = *observationGroups;
}

void PLS_CrossValidated::PermuteResponses(const int* permutation)
{
    m_model.ShuffleYResiduals(permutation);
    // The cross-validation measures Q2 against the responses it starts on.
    m_cv = std::make_unique<PLSCrossValidation>(&m_model, m_groups,
                                                m_defaultGroups ? nullptr : &m_observationGroups);
}

SignificanceE::Significance PLS_CrossValidated::NextComponent(NCProgress* progress)
{
    if (m_finished)
        throw NCError(ExceptionMessage::translate("The model takes no further component."), NCError::Error);
    const int a = m_model.GetComponents() + 1;
    try {
        {
            ProgressSubRange fit(progress, 0.0f, 0.1f, Aborted);
            m_model.NextComponent(progress, nullptr, false, true);
        }
        ProgressSubRange rounds(progress, 0.1f, 1.0f, Aborted);
        m_cv->NextComponent(nullptr, m_model.GetMaxIterations(), m_model.GetTprim()->back(), progress, true);
    } catch (...) {
        // The model may hold a component without its validation.
        m_finished = true;
        throw;
    }
    m_model.CalculateResiduals();
    m_records.push_back(Record(a));
    const SignificanceE::Significance verdict = m_records.back().significance;
    if (m_keepAll || SignificanceE::IsSignificant(verdict)) {
        m_kept = a;
        m_keptPredResiduals = m_cv->GetYPredResiduals();
    } else {
        m_finished = true;
    }
    return verdict;
}

// Component a's record, from the residuals it leaves and its validation.
PLS_CrossValidated::Component PLS_CrossValidated::Record(int a)
{
    const std::vector<double> ssx = NCNipals::PresentColumnSS(*m_model.GetXResiduals());
    const std::vector<double> ssy = NCNipals::PresentColumnSS(*m_model.GetYResiduals());
    const double ssx0 = Total(m_ssX0), ssy0 = Total(m_ssY0), ssxNow = Total(ssx), ssyNow = Total(ssy);
    const int m = static_cast<int>(ssy.size()) - 1;
    Component c;
    c.r2x = Share(m_ssXBefore - ssxNow, ssx0);
    c.r2xCum = Share(ssx0 - ssxNow, ssx0);
    c.r2y = Share(Total(m_ssYBefore) - ssyNow, ssy0);
    c.r2yCum = Share(ssy0 - ssyNow, ssy0);
    c.r2yResponses = NCDataVector<float>(m, 0.0f);
    c.r2yCumResponses = NCDataVector<float>(m, 0.0f);
    for (int j = 1; j <= m; ++j) {
        const auto s = static_cast<std::size_t>(j);
        c.r2yResponses(j, Share(m_ssYBefore[s] - ssy[s], m_ssY0[s]));
        c.r2yCumResponses(j, Share(m_ssY0[s] - ssy[s], m_ssY0[s]));
    }
    c.q2 = m_cv->GetQ2Tot();
    c.q2Cum = m_cv->GetQ2TotCum();
    c.q2Limit = m_cv->GetQ2Lim();
    c.q2Responses = m_cv->GetQ2YVar();
    c.q2CumResponses = m_cv->GetQ2YVarCum();
    c.iterations = m_model.GetIterations();
    // The rule reads the component's own R2 and that of each response.
    const NCDataMatrix<float>& e = *m_model.GetXResiduals();
    c.significance = PLSCrossValidation::GetSignificance(e.SizeRows(), e.SizeColumns(), m, a - 1, c.r2y,
                                                         c.r2yResponses, c.q2, c.q2Responses, c.q2Limit);
    m_ssXBefore = ssxNow;
    m_ssYBefore = ssy;
    return c;
}
