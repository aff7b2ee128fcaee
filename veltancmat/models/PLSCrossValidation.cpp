#include "veltancmat/models/PLSCrossValidation.h"

#include "veltancmat/models/CrossValidationQ2.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/NCNipalsBatch.h"
#include "veltancmat/models/NipalsStart.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <array>
#include <memory>
#include <cmath>
#include <exception>
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

// A round leaves out one group of rows and fits the first component of a
// PLS model on the rest.
struct PLSCrossValidation::Round {
    int index = 0; // 1-based
    std::vector<int> left; // in order
    bool fitted = false; // false when nothing is left out or nothing kept
    bool done = false;
    NCPLS::Component fit; // w, p, c and the iterations
    NCDataVector<float> tl; // scores of the left-out rows
};

// Fits the rounds in lockstep: each step of NIPALS is one pass over X (or
// Y) for every round still iterating, through `x` (or `y`). A round's
// vectors run over all the rows, a left-out row's score missing, so that
// the column projections skip it; the row projections give the left-out
// rows scores too, which are the round's predictions once it has
// converged. A round whose weights fail the correlation guard stops there,
// and once every round has stopped the error of the first of them is
// thrown, as fitting the rounds one by one would have done. Each fitted
// round takes the sign of the model's component and writes its row of the
// score set.
void PLSCrossValidation::FitRounds(const NCNipalsBatch& x, const NCNipalsBatch& y, std::span<Round> rounds,
                                   const NCDataVector<float>* start, int maxIterations,
                                   const NCDataVector<float>& scores, NCProgress* progress, bool strict,
                                   const std::function<void()>& roundsDone)
{
    constexpr float Missing = NCDataMatrix<float>::MisVal;
    const NCDataMatrix<float>& f = *m_model->GetYResiduals();
    const int n = f.SizeRows(), m = f.SizeColumns();
    struct Fit {
        Round* round;
        NCDataVector<float> u, previous, t; // t: without the left-out rows once they are set apart
        std::vector<float> left;            // the left-out rows' scores
        double ssX = 0.0;
        std::exception_ptr failure; // the correlation error that stopped the round
        // Makes the left-out rows of v missing.
        void Keep(NCDataVector<float>& v) const
        {
            float* cells = v.GetVectorForWriting();
            for (int i : round->left)
                cells[i] = Missing;
            v.RecountMissing();
        }
    };
    std::vector<Fit> fits;
    for (Round& round : rounds) {
        // A group without members predicts nothing; one holding every row
        // leaves nothing to fit on.
        round.done = round.left.empty() || static_cast<int>(round.left.size()) >= n;
        if (round.done)
            continue;
        Fit& fit = fits.emplace_back();
        fit.round = &round;
    }
    roundsDone();
    if (fits.empty())
        return;

    // The start scores, from the kept rows of Y. A start weight vector gives
    // a row the same X score in every round, so that is projected once.
    NCDataVector<float> startScores;
    if (start && m > 1)
        x.Rows(std::span<const NCDataVector<float>* const>(&start, 1),
               std::span<NCDataVector<float>* const>(std::array{&startScores}));
    for (Fit& fit : fits) {
        const Round& round = *fit.round;
        std::vector<int> kept;
        kept.reserve(static_cast<std::size_t>(n) - round.left.size());
        for (int i = 1, s = 0; i <= n; ++i) {
            if (s < static_cast<int>(round.left.size()) && round.left[static_cast<std::size_t>(s)] == i)
                ++s;
            else
                kept.push_back(i);
        }
        for (int i : kept)
            fit.ssX += x.RowSS(i);
        const IndexList keptRows(kept.data(), static_cast<int>(kept.size()));
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
        fit.u = NCDataVector<float>(n, Missing);
        float* all = fit.u.GetVectorForWriting();
        for (std::size_t s = 0; s < kept.size(); ++s)
            all[kept[s]] = u[static_cast<int>(s) + 1];
        fit.u.RecountMissing();
    }

    std::vector<Fit*> active;
    for (Fit& fit : fits)
        active.push_back(&fit);
    std::vector<const NCDataVector<float>*> in;
    std::vector<NCDataVector<float>*> out;
    const auto step = [&](const NCNipalsBatch& batch, bool columns, auto from, auto to) {
        in.clear();
        out.clear();
        for (Fit* fit : active) {
            in.push_back(&from(*fit));
            out.push_back(&to(*fit));
        }
        columns ? batch.Columns(in, out) : batch.Rows(in, out);
    };
    // The rounds' own arithmetic between the passes (a few vectors of N)
    // is shared out too: on one thread it left the others waiting for a
    // third of the time. It allocates nothing, and the one error it can
    // meet is kept for later, so nothing is thrown out of the team.
    for (Fit& fit : fits)
        fit.left.resize(fit.round->left.size());
    const auto eachFit = [&](auto&& body) {
        const int count = static_cast<int>(active.size());
#pragma omp parallel for schedule(static) if (count > 1 && n >= 1000)
        for (int a = 0; a < count; ++a)
            body(*active[static_cast<std::size_t>(a)]);
    };
    for (int iteration = 1; !active.empty(); ++iteration) {
        step(x, true, [](Fit& fit) -> NCDataVector<float>& { return fit.u; },
             [](Fit& fit) -> NCDataVector<float>& { return fit.round->fit.w; });
        eachFit([&](Fit& fit) {
            if (strict) {
                try {
                    NCPLS::CheckCorrelation(fit.u, fit.round->fit.w, fit.ssX, x.SizeColumns(), 1);
                } catch (...) {
                    fit.failure = std::current_exception();
                    return;
                }
            }
            fit.round->fit.w.Normalize();
        });
        std::erase_if(active, [](const Fit* fit) { return fit->failure != nullptr; });
        step(x, false, [](Fit& fit) -> NCDataVector<float>& { return fit.round->fit.w; },
             [](Fit& fit) -> NCDataVector<float>& { return fit.t; });
        // The left-out rows' scores are set apart (they are the round's
        // predictions if it stops here); the rest go on to Y.
        eachFit([&](Fit& fit) {
            for (std::size_t s = 0; s < fit.left.size(); ++s)
                fit.left[s] = fit.t[fit.round->left[s]];
            fit.Keep(fit.t);
            std::swap(fit.u, fit.previous);
        });
        step(y, true, [](Fit& fit) -> NCDataVector<float>& { return fit.t; },
             [](Fit& fit) -> NCDataVector<float>& { return fit.round->fit.c; });
        step(y, false, [](Fit& fit) -> NCDataVector<float>& { return fit.round->fit.c; },
             [](Fit& fit) -> NCDataVector<float>& { return fit.u; });
        eachFit([&](Fit& fit) {
            fit.Keep(fit.u);
            const float v = NCPLS::Movement(fit.u, fit.previous, m == 1);
            fit.round->fit.iterations = v > 0.0f && iteration < maxIterations ? 0 : iteration;
        });
        std::erase_if(active, [](const Fit* fit) { return fit->round->fit.iterations > 0; });
        CheckBreak(progress, Aborted);
    }
    for (const Fit& fit : fits)
        if (fit.failure)
            std::rethrow_exception(fit.failure);

    // Loadings from the final scores of the kept rows.
    active.clear();
    for (Fit& fit : fits)
        active.push_back(&fit);
    step(x, true, [](Fit& fit) -> NCDataVector<float>& { return fit.t; },
         [](Fit& fit) -> NCDataVector<float>& { return fit.round->fit.p; });

    const std::vector<float*> roundScores = m_tset.GetMatrixAsPointerPointer();
    for (Fit& fit : fits) {
        Round& round = *fit.round;
        NCPLS::Component& c = round.fit;
        // The round's component takes the sign of the model's, so that the
        // sets can be compared round by round.
        const float* t = fit.t.GetVector();
        double dot = 0.0;
        for (int i = 1; i <= n; ++i)
            dot += IsMisVal(t[i]) || IsMisVal(scores[i]) ? 0.0 : static_cast<double>(t[i]) * scores[i];
        round.tl = NCDataVector<float>(static_cast<int>(fit.left.size()));
        std::copy(fit.left.begin(), fit.left.end(), round.tl.GetVectorForWriting() + 1);
        round.tl.RecountMissing();
        if (dot < 0.0) {
            for (NCDataVector<float>* v : {&c.w, &c.p, &c.c, &fit.t, &round.tl})
                *v *= -1.0;
        }
        std::copy_n(fit.t.GetVector() + 1, n, roundScores[static_cast<std::size_t>(round.index)] + 1);
        round.fitted = round.done = true;
    }
    roundsDone();
}

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
    for (int first = 0; first < m_groups; first += NCNipalsBatch::MaxVectors)
        FitRounds(xBatch, yBatch, std::span(rounds).subspan(static_cast<std::size_t>(first),
                                                      static_cast<std::size_t>(std::min(NCNipalsBatch::MaxVectors,
                                                                                        m_groups - first))),
                  start, maxIterations, scores, progress, strict, announce);

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
