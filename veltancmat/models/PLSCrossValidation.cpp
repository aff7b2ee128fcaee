#include "veltancmat/models/PLSCrossValidation.h"

#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace {

const CancelText Aborted("Calculation of", "PLS component aborted.");

double PresentSS(const NCDataVector<float>& v)
{
    return v.HasValidValues() ? v.GetSS() : 0.0;
}

// Makes m a rows x cols matrix of missing cells. The sets are rebuilt for
// every component with the same shapes, and the residual matrix has a row
// per observation: allocating those rows again each component cost more
// than the projections of the left-out rows, so the storage is kept.
void ResetToMissing(NCDataMatrix<float>& m, int rows, int cols)
{
    constexpr float Missing = NCDataMatrix<float>::MisVal;
    if (m.SizeRows() != rows || m.SizeColumns() != cols) {
        m = NCDataMatrix<float>(rows, cols, Missing);
        return;
    }
    for (float* row : m.GetMatrixAsPointerPointer())
        if (row)
            std::fill(row + 1, row + 1 + cols, Missing);
    m.RecountMissing();
}

} // namespace

PLSCrossValidation::PLSCrossValidation(NCPLS* model, int groups, const IndexList* observationGroups)
    : m_model(model), m_groups(groups)
{
    Init(observationGroups);
    m_q2YVarCum = NCDataVector<float>(m_ssYOriginal.Size(), 0.0f);
}

PLSCrossValidation::PLSCrossValidation(NCPLS* model, float q2Cum, const NCDataVector<float>& q2YVarCum, int groups,
                                       const IndexList* observationGroups)
    : m_model(model), m_groups(groups), m_q2Cum(q2Cum)
{
    Init(observationGroups);
    if (q2YVarCum.Size() != m_ssYOriginal.Size())
        throw NCInternalError("PLSCrossValidation::PLSCrossValidation");
    m_q2YVarCum = q2YVarCum;
}

PLSCrossValidation::~PLSCrossValidation() = default;

void PLSCrossValidation::Init(const IndexList* observationGroups)
{
    if (!m_model || !m_model->GetXResiduals() || !m_model->GetYResiduals())
        throw NCInternalError("PLSCrossValidation::PLSCrossValidation");
    if (m_groups < 2)
        throw NCError(ExceptionMessage::translate("Cross-validation needs at least two groups."), NCError::Error);
    const NCDataMatrix<float>& f = *m_model->GetYResiduals();
    const int n = f.SizeRows(), m = f.SizeColumns();
    if (m_model->GetXResiduals()->SizeRows() != n)
        throw NCInternalError("PLSCrossValidation::PLSCrossValidation");
    m_obsGroups = observationGroups ? *observationGroups : GetDeafultCVGroupsVector(n, m_groups);
    if (m_obsGroups.Size() != n)
        throw NCInternalError("PLSCrossValidation::PLSCrossValidation");
    NCCrossValidation::CheckGroupLabels(m_obsGroups, m_groups);
    m_ssYOriginal = NCDataVector<float>(m);
    for (int j = 1; j <= m; ++j)
        m_ssYOriginal(j, static_cast<float>(PresentSS(f.GetColumn(j))));
    m_ssY = m_ssYOriginal;
    m_q2YVar = NCDataVector<float>(m, 0.0f);
}

void PLSCrossValidation::NextComponent(const NCDataVector<float>* start, int maxIterations,
                                       const NCDataVector<float>& scores, NCProgress* progress, bool strict)
{
    const NCDataMatrix<float>& e = *m_model->GetXResiduals();
    const NCDataMatrix<float>& f = *m_model->GetYResiduals();
    const int n = e.SizeRows(), k = e.SizeColumns(), m = f.SizeColumns();
    if (f.SizeRows() != n || n != m_obsGroups.Size() || scores.Size() != n || m != m_ssYOriginal.Size() ||
        (start && start->Size() != k))
        throw NCInternalError("PLSCrossValidation::NextComponent");

    for (int j = 1; j <= m; ++j)
        m_ssY(j, static_cast<float>(PresentSS(f.GetColumn(j))));
    ResetToMissing(m_wset, m_groups, k);
    ResetToMissing(m_pset, m_groups, k);
    ResetToMissing(m_cset, m_groups, m);
    ResetToMissing(m_tset, m_groups, n);
    m_tpred = NCDataVector<float>(n, NCDataMatrix<float>::MisVal);
    ResetToMissing(m_yPredResiduals, n, m);
    std::vector<double> ss(static_cast<std::size_t>(m) + 1, 0.0), press(static_cast<std::size_t>(m) + 1, 0.0);

    ProgressRange(progress, 0.0f, static_cast<float>(m_groups));
    m_roundCells = 0;
    std::vector<int> kept, left;
    kept.reserve(static_cast<std::size_t>(n));
    for (int r = 1; r <= m_groups; ++r) {
        ProgressStep step(progress, static_cast<float>(r - 1), Aborted,
                          ProgressCaption("CV = Cross-validation", "CV round %1% of %2%", r, m_groups));
        const int label = r % m_groups;
        kept.clear();
        left.clear();
        for (int i = 1; i <= n; ++i)
            (m_obsGroups[i] == label ? left : kept).push_back(i);
        // A group without members predicts nothing; one holding every row
        // leaves nothing to fit on.
        if (left.empty() || kept.empty())
            continue;
        // The round is the first component of a model on the kept rows,
        // fitted on them in place rather than on copies.
        const IndexList keptRows(kept.data(), static_cast<int>(kept.size()));
        // Without a progress object of its own the fit would create one
        // per round; the rounds report into ours or stay quiet.
        NCPLS::Component round =
            NCPLS::FitComponent(NCDataMatrixRows<float>(e, keptRows), NCDataMatrixRows<float>(f, keptRows), 1,
                                maxIterations, progress, start, progress == nullptr, strict);
        m_roundCells += (2LL * round.iterations + 2) * static_cast<long long>(kept.size()) * k +
                        static_cast<long long>(left.size()) * k;
        NCDataVector<float>& w = round.w;
        NCDataVector<float>& p = round.p;
        NCDataVector<float>& c = round.c;
        NCDataVector<float>& t = round.t;

        // The round's component takes the sign of the model's, so that the
        // sets can be compared round by round.
        double dot = 0.0;
        for (std::size_t s = 0; s < kept.size(); ++s) {
            const float a = t[static_cast<int>(s) + 1], b = scores[kept[s]];
            dot += IsMisVal(a) || IsMisVal(b) ? 0.0 : static_cast<double>(a) * b;
        }
        if (dot < 0.0) {
            w *= -1.0;
            p *= -1.0;
            c *= -1.0;
            t *= -1.0;
        }
        m_wset.SetRow(r, w);
        m_pset.SetRow(r, p);
        m_cset.SetRow(r, c);
        NCDataVector<float> scoresOfRound(n, NCDataMatrix<float>::MisVal);
        float* roundScores = scoresOfRound.GetVectorForWriting();
        for (std::size_t s = 0; s < kept.size(); ++s)
            roundScores[kept[s]] = t[static_cast<int>(s) + 1];
        scoresOfRound.RecountMissing();
        m_tset.SetRow(r, scoresOfRound);

        // The left-out rows get scores from weights that never saw them,
        // and their Y residuals are predicted from those scores.
        const IndexList leftRows(left.data(), static_cast<int>(left.size()));
        NCDataVector<float> tl;
        NCDataMatrixRows<float>(e, leftRows).SpecialNipalsRegressRowsFix(w, &tl);
        for (std::size_t s = 0; s < left.size(); ++s) {
            const int i = left[s];
            const float ti = tl[static_cast<int>(s) + 1];
            m_tpred(i, ti);
            if (IsMisVal(ti))
                continue;
            for (int j = 1; j <= m; ++j) {
                const float y = f[i][j];
                if (IsMisVal(y) || IsMisVal(c[j]))
                    continue;
                const float residual = y - ti * c[j];
                m_yPredResiduals(i, j, residual);
                ss[static_cast<std::size_t>(j)] += static_cast<double>(y) * y;
                press[static_cast<std::size_t>(j)] += static_cast<double>(residual) * residual;
            }
        }
    }
    m_yPredResiduals.RecountMissing();
    NCCrossValidation::UpdateQ2(ss, press, m_ssYOriginal, m_q2YVar, m_q2YVarCum, m_q2, m_q2Cum);
}

float PLSCrossValidation::GetQ2Lim() const
{
    return m_model->GetXResiduals()->SizeRows() > 100 ? 0.0f : 0.05f;
}

SignificanceE::Significance PLSCrossValidation::GetSignificance(int observations, int variables, int responses,
                                                                int earlierComponents, float r2,
                                                                const NCDataVector<float>& r2Responses, float q2,
                                                                const NCDataVector<float>& q2Responses,
                                                                float q2Limit)
{
    if (responses > 0 && (r2Responses.Size() < responses || q2Responses.Size() < responses))
        throw NCInternalError("PLSCrossValidation::GetSignificance");
    if (std::min(variables, observations - 3) <= earlierComponents)
        return SignificanceE::N3;
    if (r2 < 0.01f) {
        bool explained = false;
        for (int j = 1; j <= responses && !explained; ++j)
            explained = !IsMisVal(r2Responses[j]) && r2Responses[j] > 0.03f;
        if (responses < 1 || !explained)
            return SignificanceE::N4;
    }
    if (q2 > q2Limit)
        return SignificanceE::R1;
    int above = 0;
    for (int j = 1; j <= responses; ++j)
        above += !IsMisVal(q2Responses[j]) && q2Responses[j] > q2Limit ? 1 : 0;
    const double h = responses < 25 ? std::sqrt(static_cast<double>(responses)) : 0.2 * responses;
    return above < static_cast<int>(h + 0.5) ? SignificanceE::NS : SignificanceE::R2;
}
