#pragma once

// Internal to the models: not part of the library's interface.
//
// The NIPALS iteration of one PLS component, written once for the model
// (one fit on the whole of its residuals) and for the cross-validation
// (one fit per round, all advancing in lockstep through shared passes).

#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCNipalsBatch.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ParallelWork.h"

#include <algorithm>
#include <exception>
#include <span>
#include <utility>
#include <vector>

namespace NCNipals {

// One PLS component in the making. A fit that leaves rows out (a
// cross-validation round fitting on the rest) runs over every row: its
// left-out rows get missing scores, which the column projections skip, and
// their X scores from the row projection are set apart as the round's
// predictions.
struct PlsFit {
    NCDataVector<float> u;          // Y scores: the start, then each iteration's
    NCDataVector<float> w, t, c, p; // X weights, X scores, Y weights, X loadings
    NCDataVector<float> previous;   // the Y scores the iteration started from
    double ssX = 0.0;               // of the rows fitted on: the scale of the correlation guard
    std::span<const int> left;      // rows left out, ascending, 1-based
    std::vector<float> leftScores;  // their X scores from the latest iteration
    float movement = 0.0f;          // of the latest iteration; at or below 0 once converged
    bool weightsReady = false;      // w already came with the start u (first iteration only)
    bool loadingsDone = false;      // p already came with the last X scores
    int iterations = 0;             // 0 while the fit iterates
    std::exception_ptr failure;     // the correlation error that stopped the fit
};

// Throws the level-1 NCError "The correlation between X and Y is zero or
// almost zero." of component `component` when the Y scores u and the X
// weights w (before normalising) correlate too weakly, X having the sum of
// squares ssX over k variables.
void CheckPlsCorrelation(const NCDataVector<float>& u, const NCDataVector<float>& w, double ssX, int k,
                         int component);

// How far u moved from the previous Y scores, on the scale of a progress
// value: at or below zero once converged, and always zero for a single
// response, where one iteration is the exact solution.
float PlsMovement(const NCDataVector<float>& u, const NCDataVector<float>& previous, bool singleResponse);

// The projectors IteratePls runs on. Each offers
//   int SizeRows() const, int SizeColumns() const     (of X)
//   void Columns(bool y, in, out) const  out[r] = the column projection of X (of Y with y) on in[r]
//   void Rows(bool y, in, out) const     out[r] = the row projection on in[r]
// with in and out spans of equal length.

// One fit on selected rows of the matrices themselves.
class RowsProjector {
public:
    RowsProjector(const NCDataMatrixRows<float>& x, const NCDataMatrixRows<float>& y) : m_x(x), m_y(y) {}
    int SizeRows() const { return m_x.SizeRows(); }
    int SizeColumns() const { return m_x.SizeColumns(); }
    void Columns(bool y, std::span<const NCDataVector<float>* const> in,
                 std::span<NCDataVector<float>* const> out) const
    {
        for (std::size_t r = 0; r < in.size(); ++r)
            (y ? m_y : m_x).SpecialNipalsRegressColumnsFix(*in[r], out[r]);
    }
    void Rows(bool y, std::span<const NCDataVector<float>* const> in,
              std::span<NCDataVector<float>* const> out) const
    {
        for (std::size_t r = 0; r < in.size(); ++r)
            (y ? m_y : m_x).SpecialNipalsRegressRowsFix(*in[r], out[r]);
    }
    // Whether ScoresAndLoadings pays: on complete X. With gaps the passes
    // are bound by their work per cell, which one sweep does not reduce.
    bool SweepsPay() const { return m_x.GetNumMisVal() == 0; }
    // The X scores t from the weights w and the loadings p = X't from them,
    // in one sweep over X.
    void ScoresAndLoadings(const NCDataVector<float>& w, NCDataVector<float>* t, NCDataVector<float>* p) const
    {
        m_x.NipalsRowsThenColumns(w, t, p);
    }

private:
    const NCDataMatrixRows<float>& m_x;
    const NCDataMatrixRows<float>& m_y;
};

// Up to NCNipalsBatch::MaxVectors fits, each row read once per pass for all.
class BatchProjector {
public:
    BatchProjector(const NCNipalsBatch& x, const NCNipalsBatch& y) : m_x(x), m_y(y) {}
    int SizeRows() const { return m_x.SizeRows(); }
    int SizeColumns() const { return m_x.SizeColumns(); }
    void Columns(bool y, std::span<const NCDataVector<float>* const> in,
                 std::span<NCDataVector<float>* const> out) const
    {
        (y ? m_y : m_x).Columns(in, out);
    }
    void Rows(bool y, std::span<const NCDataVector<float>* const> in,
              std::span<NCDataVector<float>* const> out) const
    {
        (y ? m_y : m_x).Rows(in, out);
    }

private:
    const NCNipalsBatch& m_x;
    const NCNipalsBatch& m_y;
};

// One pass of `pass` over X (or Y) for every fit in `fits`: from(fit) in,
// to(fit) out.
template <class Projector, class From, class To>
void PlsPass(const Projector& pass, bool y, bool columns, std::span<PlsFit* const> fits, From from, To to)
{
    std::vector<const NCDataVector<float>*> in;
    std::vector<NCDataVector<float>*> out;
    for (PlsFit* fit : fits) {
        in.push_back(&from(*fit));
        out.push_back(&to(*fit));
    }
    if (columns)
        pass.Columns(y, in, out);
    else
        pass.Rows(y, in, out);
}

// Makes the left-out rows of v missing.
inline void KeepFittedRows(const PlsFit& fit, NCDataVector<float>& v)
{
    float* cells = v.GetVectorForWriting();
    for (int i : fit.left)
        cells[i] = NCMisVal<float>;
    v.RecountMissing();
}

// Runs NIPALS on every fit of `fits` from its start scores u until each has
// converged or reached maxIterations: w = X'u (the correlation guard, with
// strict), w normalised, t = X w, c = Y't, u = Y c. A fit whose guard fails
// stops there with its error kept; once every fit has stopped, the error of
// the first is thrown. afterIteration(iteration, active) runs after each
// iteration with the fits still iterating (for progress and breaks). The
// loadings are left to the caller: p = X't over the fitted rows.
template <class Projector, class AfterIteration>
void IteratePls(const Projector& pass, std::span<PlsFit* const> fits, int responses, int maxIterations, bool strict,
                int component, AfterIteration&& afterIteration)
{
    const auto u = [](PlsFit& f) -> NCDataVector<float>& { return f.u; };
    const auto w = [](PlsFit& f) -> NCDataVector<float>& { return f.w; };
    const auto t = [](PlsFit& f) -> NCDataVector<float>& { return f.t; };
    const auto c = [](PlsFit& f) -> NCDataVector<float>& { return f.c; };
    std::vector<PlsFit*> active(fits.begin(), fits.end());
    const auto eachFit = [&](auto&& body) {
        const int count = static_cast<int>(active.size());
        [[maybe_unused]] const bool parallel = count > 1 && pass.SizeRows() >= NCParallelWork::MinRoundElements;
#pragma omp parallel for schedule(static) if (parallel)
        for (int a = 0; a < count; ++a)
            body(*active[static_cast<std::size_t>(a)]);
    };
    for (PlsFit* fit : fits)
        fit->leftScores.resize(fit->left.size());
    for (int iteration = 1; !active.empty(); ++iteration) {
        std::vector<PlsFit*> needWeights;
        for (PlsFit* fit : active)
            if (!std::exchange(fit->weightsReady, false))
                needWeights.push_back(fit);
        if (!needWeights.empty())
            PlsPass(pass, false, true, std::span<PlsFit* const>(needWeights), u, w);
        eachFit([&](PlsFit& fit) {
            if (strict) {
                try {
                    CheckPlsCorrelation(fit.u, fit.w, fit.ssX, pass.SizeColumns(), component);
                } catch (...) {
                    fit.failure = std::current_exception();
                    return;
                }
            }
            fit.w.Normalize();
        });
        std::erase_if(active, [](const PlsFit* fit) { return fit->failure != nullptr; });
        // When this is surely the last iteration (one response, or the
        // limit), a projector that can takes the loadings in the same sweep
        // as the scores. Left-out rows would have to leave t first.
        const bool last = responses == 1 || iteration >= maxIterations;
        const bool fuse = last && std::ranges::all_of(active, [](const PlsFit* fit) { return fit->left.empty(); });
        if constexpr (requires(PlsFit& f) { pass.ScoresAndLoadings(f.w, &f.t, &f.p); }) {
            if (fuse && pass.SweepsPay()) {
                for (PlsFit* fit : active) {
                    pass.ScoresAndLoadings(fit->w, &fit->t, &fit->p);
                    fit->loadingsDone = true;
                }
            } else {
                PlsPass(pass, false, false, active, w, t);
            }
        } else {
            PlsPass(pass, false, false, active, w, t);
        }
        eachFit([](PlsFit& fit) {
            if (!fit.left.empty()) {
                for (std::size_t s = 0; s < fit.left.size(); ++s)
                    fit.leftScores[s] = fit.t[fit.left[s]];
                KeepFittedRows(fit, fit.t);
            }
            std::swap(fit.u, fit.previous);
        });
        PlsPass(pass, true, true, active, t, c);
        PlsPass(pass, true, false, active, c, u);
        eachFit([&](PlsFit& fit) {
            if (!fit.left.empty())
                KeepFittedRows(fit, fit.u);
            fit.movement = PlsMovement(fit.u, fit.previous, responses == 1);
            fit.iterations = fit.movement > 0.0f && iteration < maxIterations ? 0 : iteration;
        });
        afterIteration(iteration, std::span<PlsFit* const>(active));
        std::erase_if(active, [](const PlsFit* fit) { return fit->iterations > 0; });
    }
    for (const PlsFit* fit : fits)
        if (fit->failure)
            std::rethrow_exception(fit->failure);
}

// The loadings p = X't of every fit, from its final scores.
template <class Projector>
void PlsLoadings(const Projector& pass, std::span<PlsFit* const> fits)
{
    std::vector<PlsFit*> pending;
    for (PlsFit* fit : fits)
        if (!fit->loadingsDone)
            pending.push_back(fit);
    if (pending.empty())
        return;
    PlsPass(
        pass, false, true, std::span<PlsFit* const>(pending), [](PlsFit& f) -> NCDataVector<float>& { return f.t; },
        [](PlsFit& f) -> NCDataVector<float>& { return f.p; });
}

} // namespace NCNipals
