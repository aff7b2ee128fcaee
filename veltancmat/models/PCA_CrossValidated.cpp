#include "veltancmat/models/PCA_CrossValidated.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/platform/NCError.h"

#include <vector>

namespace {

const CancelText Aborted("Calculations of", "PC component aborted.");

bool HasPresentValue(const NCDataVector<float>& v)
{
    return v.Size() > v.GetNumMisVal();
}

} // namespace

PCA_CrossValidated::PCA_CrossValidated(const NCDataMatrix<float>& data, const NCDataMatrix<float>* reference,
                                       int groups, const IndexList* variableGroups, const NCDataVector<float>& centre,
                                       double tolerance, int earlierComponents)
    : m_model(&data, NCNipals::DefaultMaxIterations), m_cv(&m_model, groups, nullptr, variableGroups),
      m_centred(HasPresentValue(centre)), m_tolerance(tolerance), m_earlier(earlierComponents)
{
    const NCDataMatrix<float>& ref = reference ? *reference : data;
    const int k = data.SizeColumns();
    if (ref.SizeColumns() != k)
        throw NCInternalError("PCA_CrossValidated::PCA_CrossValidated");
    m_ssVariables = NCDataVector<float>(k, 0.0f);
    for (int j = 1; j <= k; ++j) {
        const double about = m_centred ? ref.GetColumnMean(j) : 0.0;
        const double ss = IsMisVal(about) ? NCMisVal<double> : ref.GetColumnSS(j, about);
        m_ssVariables(j, IsMisVal(ss) ? 0.0f : static_cast<float>(ss));
        m_ssTotal += IsMisVal(ss) ? 0.0 : ss;
    }
}

SignificanceE::Significance PCA_CrossValidated::NextComponent(NCDataMatrix<float>& residuals,
                                                              NCDataMatrix<float>& predResiduals,
                                                              NCProgress& progress)
{
    if (m_finished)
        throw NCError(ExceptionMessage::translate("The model takes no further component."), NCError::Error);
    const int a = m_model.GetComponents() + 1;
    progress.SetRangeInternal(0.0f, 2.0f);
    try {
        {
            ProgressStep fit(&progress, 0.0f, Aborted);
            m_model.NextComponent(&progress, nullptr, 0, nullptr);
        }
        ProgressStep validate(&progress, 1.0f, Aborted);
        m_cv.NextComponent((*m_model.GetPprim())[a], &progress, a);
    } catch (...) {
        // The model has counted a component it does not hold.
        m_finished = true;
        throw;
    }

    const NCDataMatrix<float>& e = *m_model.GetResiduals();
    const NCDataVector<float>& p = (*m_model.GetPprim())[a];
    const NCDataVector<float>& t = (*m_model.GetTprim())[a];
    const int n = e.SizeRows(), k = e.SizeColumns();

    // What the component explains, per variable: the drop in the sum of
    // squares of the cells it can predict.
    std::vector<double> explained(static_cast<std::size_t>(k) + 1, 0.0);
    for (int i = 1; i <= n; ++i) {
        if (IsMisVal(t[i]))
            continue;
        const float* row = e[i].GetVector();
        const float* pv = p.GetVector();
        for (int j = 1; j <= k; ++j) {
            const bool present = !IsMisVal(row[j]) && !IsMisVal(pv[j]);
            const double residual = row[j] - static_cast<double>(t[i]) * pv[j];
            explained[j] += present ? static_cast<double>(row[j]) * row[j] - residual * residual : 0.0;
        }
    }
    Component record;
    record.r2Variables = NCDataVector<float>(k, 0.0f);
    double total = 0.0;
    for (int j = 1; j <= k; ++j) {
        total += explained[j];
        if (m_ssVariables[j] > 0.0f)
            record.r2Variables(j, static_cast<float>(explained[j] / m_ssVariables[j]));
    }
    record.r2 = m_ssTotal > 0.0 ? static_cast<float>(total / m_ssTotal) : 0.0f;
    record.r2Cum = (m_records.empty() ? 0.0f : m_records.back().r2Cum) + record.r2;
    // On unit-variance data this is the eigenvalue of the correlation matrix.
    record.eigenvalue = record.r2 * static_cast<float>(k);
    record.q2 = m_cv.GetQ2Tot();
    record.q2Cum = m_cv.GetQ2TotCum();
    record.q2Variables = m_cv.GetQ2XVar();
    record.q2Limit = m_cv.GetQ2Lim(a, m_centred);
    record.iterations = m_model.GetIterations();

    SignificanceE::Significance previous = m_records.empty() ? SignificanceE::NA : m_records.back().significance;
    const float previousEigenvalue = m_records.empty() ? 0.0f : m_records.back().eigenvalue;
    record.significance = NCPCA::GetSignificance(
        static_cast<float>(m_tolerance), m_centred, a, previous, n, k, record.r2, record.r2Variables,
        record.eigenvalue, previousEigenvalue, record.q2, record.q2Variables, record.q2Limit, m_earlier);
    if (!m_records.empty())
        m_records.back().significance = previous;
    m_records.push_back(record);

    // An undecided component is kept for now: only the next one can settle it.
    const bool keep = m_keepAll || SignificanceE::IsSignificant(record.significance) ||
                      record.significance == SignificanceE::U;
    if (keep)
        m_model.CalculateResiduals();
    else
        m_finished = true;
    residuals = *m_model.GetResiduals();
    predResiduals = m_cv.GetXPredResiduals();
    return record.significance;
}

int PCA_CrossValidated::GetComponents() const
{
    if (m_keepAll)
        return static_cast<int>(m_records.size());
    int kept = 0;
    while (kept < static_cast<int>(m_records.size()) && SignificanceE::IsSignificant(m_records[kept].significance))
        ++kept;
    return kept;
}

NCDataVector<float> PCA_CrossValidated::GetT(int a) const
{
    if (a < 1 || a > m_model.GetTprim()->SizeRows())
        throw NCInternalError("PCA_CrossValidated::GetT");
    return (*m_model.GetTprim())[a];
}

NCDataVector<float> PCA_CrossValidated::GetP(int a) const
{
    if (a < 1 || a > m_model.GetPprim()->SizeRows())
        throw NCInternalError("PCA_CrossValidated::GetP");
    return (*m_model.GetPprim())[a];
}
