#include "veltancmat/models/PLSCrossValidation.h"

#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/SideBySide.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <optional>
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
    // Every row is left out by exactly one round, so every cell of the
    // predictions is written below; only a new shape needs new storage.
    if (m_yPredResiduals.SizeRows() != n || m_yPredResiduals.SizeColumns() != m)
        m_yPredResiduals = NCDataMatrix<float>(n, m, NCDataMatrix<float>::MisVal);
    if (m_tpred.Size() != n)
        m_tpred = NCDataVector<float>(n, NCDataMatrix<float>::MisVal);
    std::vector<double> ss(static_cast<std::size_t>(m) + 1, 0.0), press(static_cast<std::size_t>(m) + 1, 0.0);

    // The rounds are independent until their predictions are added up, so
    // they run side by side (see RunSideBySide); the sums then follow the
    // rounds in order, whichever finished first.
    struct Round {
        std::vector<int> left;
        bool fitted = false;
        NCPLS::Component fit;
        NCDataVector<float> tl; // scores of the left-out rows
    };
    std::vector<Round> rounds(static_cast<std::size_t>(m_groups));
    // Round r leaves out the rows labelled r mod G.
    for (int i = 1; i <= n; ++i)
        rounds[static_cast<std::size_t>(m_obsGroups[i] == 0 ? m_groups - 1 : m_obsGroups[i] - 1)].left.push_back(i);

    // Taken before the rounds start: each round writes only its own row.
    const std::vector<float*> roundScores = m_tset.GetMatrixAsPointerPointer();

    ProgressRange(progress, 0.0f, static_cast<float>(m_groups));
    const auto caption = [&](int r) {
        return ProgressCaption("CV = Cross-validation", "CV round %1% of %2%", r, m_groups);
    };
    const auto fitRound = [&](int index, bool alone) {
        Round& round = rounds[static_cast<std::size_t>(index)];
        const int r = index + 1;
        // Rounds side by side fit quietly and only poll for a break; the
        // calling thread reports them as they start.
        std::optional<ProgressStep> step;
        if (alone)
            step.emplace(progress, static_cast<float>(index), Aborted, caption(r));
        else
            CheckBreak(progress, Aborted);
        // A group without members predicts nothing; one holding every row
        // leaves nothing to fit on.
        const int label = r % m_groups;
        std::vector<int> kept;
        kept.reserve(static_cast<std::size_t>(n) - round.left.size());
        for (int i = 1; i <= n; ++i)
            if (m_obsGroups[i] != label)
                kept.push_back(i);
        if (round.left.empty() || kept.empty())
            return;
        // The round is the first component of a model on the kept rows,
        // fitted on them in place rather than on copies. Without a progress
        // object of its own the fit would create one per round; the rounds
        // report into ours or stay quiet.
        const IndexList keptRows(kept.data(), static_cast<int>(kept.size()));
        round.fit = NCPLS::FitComponent(NCDataMatrixRows<float>(e, keptRows), NCDataMatrixRows<float>(f, keptRows),
                                        1, maxIterations, progress, start, progress == nullptr || !alone, strict);
        NCPLS::Component& fit = round.fit;
        // The round's component takes the sign of the model's, so that the
        // sets can be compared round by round.
        double dot = 0.0;
        for (std::size_t s = 0; s < kept.size(); ++s) {
            const float a = fit.t[static_cast<int>(s) + 1], b = scores[kept[s]];
            dot += IsMisVal(a) || IsMisVal(b) ? 0.0 : static_cast<double>(a) * b;
        }
        if (dot < 0.0) {
            fit.w *= -1.0;
            fit.p *= -1.0;
            fit.c *= -1.0;
            fit.t *= -1.0;
        }
        float* scoresOfRound = roundScores[static_cast<std::size_t>(r)];
        for (std::size_t s = 0; s < kept.size(); ++s)
            scoresOfRound[kept[s]] = fit.t[static_cast<int>(s) + 1];
        // The left-out rows get scores from weights that never saw them.
        const IndexList leftRows(round.left.data(), static_cast<int>(round.left.size()));
        NCDataMatrixRows<float>(e, leftRows).SpecialNipalsRegressRowsFix(fit.w, &round.tl);
        round.fitted = true;
    };
    NCMultiThreading::RunSideBySide(m_groups, fitRound, [&](int index) {
        ProgressStep announced(progress, static_cast<float>(index), Aborted, caption(index + 1));
    });

    m_roundCells = 0;
    float* tpred = m_tpred.GetVectorForWriting();
    const std::vector<float*> predicted = m_yPredResiduals.GetMatrixAsPointerPointer();
    for (int r = 1; r <= m_groups; ++r) {
        const Round& round = rounds[static_cast<std::size_t>(r - 1)];
        if (!round.fitted) {
            for (int i : round.left) {
                tpred[i] = NCDataMatrix<float>::MisVal;
                std::fill_n(predicted[static_cast<std::size_t>(i)] + 1, m, NCDataMatrix<float>::MisVal);
            }
            continue;
        }
        const NCPLS::Component& fit = round.fit;
        const long long kept = static_cast<long long>(n) - static_cast<long long>(round.left.size());
        m_roundCells += (2LL * fit.iterations + 2) * kept * k + static_cast<long long>(round.left.size()) * k;
        m_wset.SetRow(r, fit.w);
        m_pset.SetRow(r, fit.p);
        m_cset.SetRow(r, fit.c);

        // The left-out rows' Y residuals are predicted from their scores.
        const float* c = fit.c.GetVector();
        for (std::size_t s = 0; s < round.left.size(); ++s) {
            const int i = round.left[s];
            const float ti = round.tl[static_cast<int>(s) + 1];
            const float* y = f[i].GetVector();
            float* out = predicted[static_cast<std::size_t>(i)];
            tpred[i] = ti;
            for (int j = 1; j <= m; ++j) {
                const bool present = !IsMisVal(ti) && !IsMisVal(y[j]) && !IsMisVal(c[j]);
                const float residual = y[j] - ti * c[j];
                out[j] = present ? residual : NCDataMatrix<float>::MisVal;
                ss[static_cast<std::size_t>(j)] += present ? static_cast<double>(y[j]) * y[j] : 0.0;
                press[static_cast<std::size_t>(j)] += present ? static_cast<double>(residual) * residual : 0.0;
            }
        }
    }
    m_tpred.RecountMissing();
    m_tset.RecountMissing();
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
