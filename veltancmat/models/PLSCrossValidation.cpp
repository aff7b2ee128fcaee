#include "veltancmat/models/PLSCrossValidation.h"

#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/NCNipalsBatch.h"
#include "veltancmat/models/NipalsStart.h"
#include "veltancmat/models/PlsIteration.h"
#include "veltancmat/models/SumsOfSquares.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <array>
#include <memory>
#include <cmath>
#include <exception>
#include <functional>
#include <optional>
#include <string>

// A round leaves out one group of rows and fits the first component of a
// PLS model on the rest.
struct NCNipals::CrossValidationRound {
    int index = 0;         // 1-based
    std::vector<int> left; // in order
    bool fitted = false;   // false when nothing is left out or nothing kept
    bool done = false;
    NCNipals::PlsFit fit;
};

namespace {

const CancelText Aborted("Calculation of", "PLS component aborted.");

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

using Round = NCNipals::CrossValidationRound;

// The rows of 1..n that `left` (ascending) does not hold.
std::vector<int> KeptRows(const std::vector<int>& left, int n)
{
    std::vector<int> kept;
    kept.reserve(static_cast<std::size_t>(n) - left.size());
    for (int i = 1, s = 0; i <= n; ++i) {
        if (s < static_cast<int>(left.size()) && left[static_cast<std::size_t>(s)] == i)
            ++s;
        else
            kept.push_back(i);
    }
    return kept;
}

// Each round's sum of squares of X and its start Y scores, from its kept
// rows of Y, spread over all the rows (missing at the left-out ones). A
// start weight vector gives a row the same X score in every round, so that
// is projected once.
void StartRounds(const NCNipalsBatch& x, const NCDataMatrix<float>& f, std::span<Round* const> rounds,
                 const NCDataVector<float>* start)
{
    const int n = f.SizeRows(), m = f.SizeColumns();
    NCDataVector<float> startScores;
    if (start && m > 1)
        x.Rows(std::span<const NCDataVector<float>* const>(&start, 1),
               std::span<NCDataVector<float>* const>(std::array{&startScores}));
    for (Round* round : rounds) {
        const std::vector<int> kept = KeptRows(round->left, n);
        for (int i : kept)
            round->fit.ssX += x.RowSS(i);
        const PLSCrossValidation::IndexList keptRows(kept.data(), static_cast<int>(kept.size()));
        const NCDataMatrixRows<float> fKept(f, keptRows);
        NCDataVector<float> u;
        if (start && m > 1) {
            NCDataVector<float> t(static_cast<int>(kept.size())), c;
            for (std::size_t s = 0; s < kept.size(); ++s)
                t(static_cast<int>(s) + 1, startScores[kept[s]]);
            fKept.SpecialNipalsRegressColumnsFix(t, &c);
            fKept.SpecialNipalsRegressRowsFix(c, &u);
        } else {
            u = NCNipals::FilledStartColumn(fKept);
        }
        round->fit.u = NCDataVector<float>(n, NCMisVal<float>);
        float* all = round->fit.u.GetVectorForWriting();
        for (std::size_t s = 0; s < kept.size(); ++s)
            all[kept[s]] = u[static_cast<int>(s) + 1];
        round->fit.u.RecountMissing();
    }
}

// A fitted round takes the sign of the model's component, so that the sets
// can be compared round by round, and writes its scores into its row of
// the score set.
void FinishRound(Round& round, const NCDataVector<float>& scores, float* scoreSetRow)
{
    NCNipals::PlsFit& fit = round.fit;
    const int n = fit.t.Size();
    const float* t = fit.t.GetVector();
    double dot = 0.0;
    for (int i = 1; i <= n; ++i)
        dot += IsMisVal(t[i]) || IsMisVal(scores[i]) ? 0.0 : static_cast<double>(t[i]) * scores[i];
    if (dot < 0.0) {
        for (NCDataVector<float>* v : {&fit.w, &fit.p, &fit.c, &fit.t})
            *v *= -1.0;
        for (float& score : fit.leftScores)
            score = IsMisVal(score) ? score : -score;
    }
    std::copy_n(fit.t.GetVector() + 1, n, scoreSetRow + 1);
    round.fitted = round.done = true;
}

// Fits a batch of rounds in lockstep: each step of NIPALS is one pass over X
// (or Y) for every round still iterating. A round's vectors run over all
// the rows, a left-out row's score missing, so that the column projections
// skip it; the row projections give the left-out rows scores too, which are
// the round's predictions once it has converged. A round whose weights fail
// the correlation guard stops there, and once every round has stopped the
// error of the first of them is thrown, as fitting the rounds one by one
// would have done. roundsDone is called whenever rounds have been settled.
void FitRounds(const NCNipalsBatch& x, const NCNipalsBatch& y, std::span<Round> rounds,
               const NCDataVector<float>* start, int maxIterations, const NCDataVector<float>& scores,
               NCProgress* progress, bool strict, const NCDataMatrix<float>& f, NCDataMatrix<float>& scoreSet,
               const std::function<void()>& roundsDone)
{
    const int n = f.SizeRows();
    std::vector<Round*> fitting;
    std::vector<NCNipals::PlsFit*> fits;
    for (Round& round : rounds) {
        // A group without members predicts nothing; one holding every row
        // leaves nothing to fit on.
        round.done = round.left.empty() || static_cast<int>(round.left.size()) >= n;
        if (round.done)
            continue;
        round.fit.left = round.left;
        fitting.push_back(&round);
        fits.push_back(&round.fit);
    }
    roundsDone();
    if (fits.empty())
        return;
    StartRounds(x, f, fitting, start);
    const NCNipals::BatchProjector pass(x, y);
    NCNipals::IteratePls(pass, fits, f.SizeColumns(), maxIterations, strict, 1,
                         [&](int, std::span<NCNipals::PlsFit* const>) { CheckBreak(progress, Aborted); });
    NCNipals::PlsLoadings(pass, fits);
    const std::vector<float*> scoreRows = scoreSet.GetMatrixAsPointerPointer();
    for (Round* round : fitting)
        FinishRound(*round, scores, scoreRows[static_cast<std::size_t>(round->index)]);
    roundsDone();
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
        m_ssYOriginal(j, static_cast<float>(NCNipals::PresentSS(f.GetColumn(j))));
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
        m_ssY(j, static_cast<float>(NCNipals::PresentSS(f.GetColumn(j))));
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

    // Round r leaves out the rows labelled r mod G.
    std::vector<Round> rounds(static_cast<std::size_t>(m_groups));
    for (int r = 0; r < m_groups; ++r)
        rounds[static_cast<std::size_t>(r)].index = r + 1;
    for (int i = 1; i <= n; ++i)
        rounds[static_cast<std::size_t>(m_obsGroups[i] == 0 ? m_groups - 1 : m_obsGroups[i] - 1)].left.push_back(i);

    ProgressRange(progress, 0.0f, static_cast<float>(m_groups));
    // The rounds share their passes over X, a pass serving every round of a
    // batch, so they are reported in order as they are done: the step of
    // the first round not yet done stays open (its caption showing) while
    // the batch that holds it runs.
    int announced = 0;
    std::optional<ProgressStep> open;
    const auto announce = [&] {
        while (announced < m_groups) {
            if (!open)
                open.emplace(progress, static_cast<float>(announced), Aborted,
                             ProgressCaption("CV = Cross-validation", "CV round %1% of %2%", announced + 1, m_groups));
            if (!rounds[static_cast<std::size_t>(announced)].done)
                return;
            open.reset();
            ++announced;
        }
    };
    const NCNipalsBatch xBatch(e), yBatch(f);
    for (int first = 0; first < m_groups; first += NCNipalsBatch::MaxVectors) {
        const int count = std::min(NCNipalsBatch::MaxVectors, m_groups - first);
        const std::span<Round> batch =
            std::span(rounds).subspan(static_cast<std::size_t>(first), static_cast<std::size_t>(count));
        FitRounds(xBatch, yBatch, batch, start, maxIterations, scores, progress, strict, f, m_tset, announce);
    }
    m_tset.RecountMissing();

    std::vector<double> ss(static_cast<std::size_t>(m) + 1, 0.0), press(static_cast<std::size_t>(m) + 1, 0.0);
    m_roundCells = 0;
    for (const Round& round : rounds)
        PredictLeftOut(round, ss, press);
    m_tpred.RecountMissing();
    m_yPredResiduals.RecountMissing();
    NCCrossValidation::UpdateQ2(ss, press, m_ssYOriginal, m_q2YVar, m_q2YVarCum, m_q2, m_q2Cum);
}

// The left-out rows' Y residuals predicted from their scores, with the
// round's sets and the sums of Q2; a round that fitted nothing predicts nothing.
void PLSCrossValidation::PredictLeftOut(const Round& round, std::vector<double>& ss, std::vector<double>& press)
{
    const NCDataMatrix<float>& f = *m_model->GetYResiduals();
    const int n = f.SizeRows(), k = m_model->GetXResiduals()->SizeColumns(), m = f.SizeColumns();
    float* tpred = m_tpred.GetVectorForWriting();
    const std::vector<float*> predicted = m_yPredResiduals.GetMatrixAsPointerPointer();
    if (!round.fitted) {
        for (int i : round.left) {
            tpred[i] = NCDataMatrix<float>::MisVal;
            std::fill_n(predicted[static_cast<std::size_t>(i)] + 1, m, NCDataMatrix<float>::MisVal);
        }
        return;
    }
    const NCNipals::PlsFit& fit = round.fit;
    const long long kept = static_cast<long long>(n) - static_cast<long long>(round.left.size());
    m_roundCells += (2LL * fit.iterations + 2) * kept * k + static_cast<long long>(round.left.size()) * k;
    m_wset.SetRow(round.index, fit.w);
    m_pset.SetRow(round.index, fit.p);
    m_cset.SetRow(round.index, fit.c);

    const float* c = fit.c.GetVector();
    for (std::size_t s = 0; s < round.left.size(); ++s) {
        const int i = round.left[s];
        const float ti = fit.leftScores[s];
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
