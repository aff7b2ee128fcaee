#include "veltancmat/models/PCACrossValidation.h"

#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

const CancelText Aborted("Calculations of", "PC component aborted.");

// Flips v (and w, when given) so that v . reference is not negative.
void AlignSign(NCDataVector<float>& v, const NCDataVector<float>& reference, NCDataVector<float>* w = nullptr)
{
    const double dot = v * reference;
    if (!IsMisVal(dot) && dot < 0.0) {
        v *= -1.0;
        if (w)
            *w *= -1.0;
    }
}

// Reads of the rows by NCPCA::FitComponent in `iterations` iterations: one
// sweep per iteration and one for the first loadings on complete rows, two
// passes per iteration with gaps.
long long NipalsReads(int missing, int iterations)
{
    return missing == 0 ? iterations + 1LL : 2LL * iterations;
}

} // namespace

PCACrossValidation::PCACrossValidation(NCPCA* model, int groups, const IndexList* observationGroups,
                                       const IndexList* variableGroups)
    : m_model(model), m_groups(groups)
{
    Init(observationGroups, variableGroups);
    m_q2VarCum = NCDataVector<float>(m_varGroups.Size(), 0.0f);
}

PCACrossValidation::PCACrossValidation(NCPCA* model, float q2Cum, const NCDataVector<float>& q2VarCum, int groups,
                                       const IndexList* observationGroups, const IndexList* variableGroups)
    : m_model(model), m_groups(groups), m_q2Cum(q2Cum)
{
    Init(observationGroups, variableGroups);
    if (q2VarCum.Size() != m_varGroups.Size())
        throw NCInternalError("PCACrossValidation::PCACrossValidation");
    m_q2VarCum = q2VarCum;
}

void PCACrossValidation::Init(const IndexList* observationGroups, const IndexList* variableGroups)
{
    if (!m_model || !m_model->GetResiduals())
        throw NCInternalError("PCACrossValidation::PCACrossValidation");
    if (m_groups < 2)
        throw NCError(ExceptionMessage::translate("Cross-validation needs at least two groups."), NCError::Error);
    const NCDataMatrix<float>& e = *m_model->GetResiduals();
    const int n = e.SizeRows(), k = e.SizeColumns();
    m_obsGroups = observationGroups ? *observationGroups : GetDeafultCVGroupsVector(n, m_groups);
    m_varGroups = variableGroups ? *variableGroups : GetDeafultCVGroupsVector(k, m_groups);
    if (m_obsGroups.Size() != n || m_varGroups.Size() != k)
        throw NCInternalError("PCACrossValidation::PCACrossValidation");
    NCCrossValidation::CheckGroupLabels(m_obsGroups, m_groups);
    NCCrossValidation::CheckGroupLabels(m_varGroups, m_groups);
    m_startSS = NCDataVector<float>(k);
    for (int j = 1; j <= k; ++j)
        m_startSS(j, static_cast<float>(e.GetColumnSS(j, 0.0)));
    m_q2Var = NCDataVector<float>(k, 0.0f);
}

void PCACrossValidation::NextComponent(const NCDataVector<float>& loading, NCProgress* progress, int component)
{
    const NCDataMatrix<float>& e = *m_model->GetResiduals();
    if (loading.Size() != e.SizeColumns() || e.SizeRows() != m_obsGroups.Size() ||
        e.SizeColumns() != m_varGroups.Size())
        throw NCInternalError("PCACrossValidation::NextComponent");
    ProgressRange(progress, 0.0f, 2.0f * m_groups);
    m_roundCells = 0;
    ObservationRounds(e, loading, progress);
    VariableRounds(e, loading, progress);
    Predict(e, component <= 1);
}

// Round r leaves out the observations labelled r mod G and fits the
// component on the rest, starting from their scores on the full model's
// loading so that the round converges to the same component.
void PCACrossValidation::ObservationRounds(const NCDataMatrix<float>& e, const NCDataVector<float>& loading,
                                           NCProgress* progress)
{
    const int n = e.SizeRows(), k = e.SizeColumns();
    m_pset = NCDataMatrix<float>(m_groups, k, NCDataMatrix<float>::MisVal);
    std::vector<int> kept;
    kept.reserve(static_cast<std::size_t>(n));
    for (int r = 1; r <= m_groups; ++r) {
        ProgressStep step(progress, static_cast<float>(r - 1), Aborted,
                          ProgressCaption("CV = Cross-validation", "CV round %1% of %2% (rows)", r, m_groups));
        const int label = r % m_groups;
        kept.clear();
        for (int i = 1; i <= n; ++i)
            if (m_obsGroups[i] != label)
                kept.push_back(i);
        // The round is the first component of a model on the kept rows,
        // fitted on them in place rather than on copies.
        const IndexList rows(kept.data(), static_cast<int>(kept.size()));
        const NCDataMatrixRows<float> rest(e, rows);
        NCDataVector<float> start, p, t;
        rest.SpecialNipalsRegressRowsFix(loading, &start);
        const int iterations = NCPCA::FitComponent(rest, 1, m_model->GetMaxIterations(), progress, nullptr, 0,
                                                   &start, p, t);
        m_roundCells += NipalsReads(rest.GetNumMisVal(), iterations) * rest.SizeRows() * k;
        AlignSign(p, loading);
        m_pset.SetRow(r, p);
    }
}

// Round r leaves the variables labelled r mod G out of the component. One
// model on the full residuals serves every round: its residuals are never
// deflated here, so each call fits the same component with another group
// left out. The scores come from loadings of unit length over fewer
// variables, so they are rescaled by sqrt(K / (K - left out)) to the scale
// of the full model.
void PCACrossValidation::VariableRounds(const NCDataMatrix<float>& e, const NCDataVector<float>& loading,
                                        NCProgress* progress)
{
    const int n = e.SizeRows(), k = e.SizeColumns();
    m_tset = NCDataMatrix<float>(m_groups, n, NCDataMatrix<float>::MisVal);
    NCPCA rounds(&e, m_model->GetMaxIterations());
    for (int r = 1; r <= m_groups; ++r) {
        ProgressStep step(progress, static_cast<float>(m_groups + r - 1), Aborted,
                          ProgressCaption("CV = Cross-validation", "CV round %1% of %2% (columns)", r, m_groups));
        const int label = r % m_groups;
        int left = 0;
        for (int j = 1; j <= k; ++j)
            left += m_varGroups[j] == label ? 1 : 0;
        // With every variable left out there is nothing to estimate from:
        // the round's scores stay missing and its cells go unpredicted.
        if (left == k)
            continue;
        const NCDataVector<float> start = e.SpecialNipalsRegressRowsFix(loading, &m_varGroups, label);
        rounds.NextComponent(progress, &m_varGroups, label, &start);
        m_roundCells += NipalsReads(e.GetNumMisVal(), rounds.GetIterations()) * n * k;
        NCDataVector<float> p = rounds.GetPprim()->back();
        NCDataVector<float> t = rounds.GetTprim()->back();
        AlignSign(p, loading, &t);
        t *= std::sqrt(static_cast<double>(k) / static_cast<double>(k - left));
        m_tset.SetRow(r, t);
    }
}

// Every cell is predicted from a score that never saw its variable and a
// loading that never saw its observation.
void PCACrossValidation::Predict(const NCDataMatrix<float>& e, bool restart)
{
    const int n = e.SizeRows(), k = e.SizeColumns();
    std::vector<double> ss(static_cast<std::size_t>(k) + 1, 0.0), press(static_cast<std::size_t>(k) + 1, 0.0);
    m_predResiduals = NCDataMatrix<float>(n, k, NCDataMatrix<float>::MisVal);
    const std::vector<float*> out = m_predResiduals.GetMatrixAsPointerPointer();
    std::vector<float> scores(static_cast<std::size_t>(k) + 1);
    for (int i = 1; i <= n; ++i) {
        float* f = out[static_cast<std::size_t>(i)];
        const float* row = e[i].GetVector();
        const float* p = m_pset[Round(m_obsGroups[i])].GetVector();
        for (int j = 1; j <= k; ++j)
            scores[j] = m_tset[Round(m_varGroups[j])][i];
        for (int j = 1; j <= k; ++j) {
            const float t = scores[j];
            const bool present = !IsMisVal(row[j]) && !IsMisVal(t) && !IsMisVal(p[j]);
            const float residual = row[j] - t * p[j];
            f[j] = present ? residual : NCDataMatrix<float>::MisVal;
            ss[j] += present ? static_cast<double>(row[j]) * row[j] : 0.0;
            press[j] += present ? static_cast<double>(residual) * residual : 0.0;
        }
    }
    m_predResiduals.RecountMissing();

    if (restart) {
        m_q2Cum = 0.0f;
        m_q2VarCum = NCDataVector<float>(k, 0.0f);
    }
    NCCrossValidation::UpdateQ2(ss, press, m_startSS, m_q2Var, m_q2VarCum, m_q2, m_q2Cum);
}

float PCACrossValidation::GetQ2Lim(int a, bool centred) const
{
    const NCDataMatrix<float>& e = *m_model->GetResiduals();
    return GetQ2Lim(a, centred, e.SizeRows(), e.SizeColumns());
}

float PCACrossValidation::GetQ2Lim(int a, bool centred, int observations, int variables)
{
    if (a < 1)
        return NCMisVal<float>;
    const double c = centred ? 1.0 : 0.0;
    const double n = observations, k = variables;
    const double v = (n - c - a + 1.0) * (k - a + 1.0);
    if (v <= 0.0)
        return 1.0f;
    return static_cast<float>(1.0 - v / ((n - a + 1.0) * (k - a + 2.0)));
}
