#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <vector>

// The cross-validated Q2 of every cell of a grid of O2PLS component counts:
// a = 0 .. maxPredictive joint, ox = 0 .. maxOrthogonalX X-orthogonal and
// oy = 0 .. maxOrthogonalY Y-orthogonal components. Q2Y is the Q2 of Y
// predicted from X, Q2X that of X predicted from Y, both pooled over the
// rounds: Q2 = 1 - PRESS / SS, where SS sums the left-out rows' squares
// about the means of the rows their round kept. Without joint components
// the prediction is those means, so a = 0 gives 0 in every cell. A cell
// that some round could not fit (no orthogonal dimension left, or a joint
// count not below the kept rows' count) is missing.
class VELTANCMAT_API O2PLSCVResults {
public:
    O2PLSCVResults() = default;
    // Every cell with a > 0 missing until set.
    O2PLSCVResults(int maxPredictive, int maxOrthogonalX, int maxOrthogonalY);

    int MaxPredictive() const { return m_maxPred; }
    int MaxOrthogonalX() const { return m_maxOrthX; }
    int MaxOrthogonalY() const { return m_maxOrthY; }

    // A cell outside the grid throws NCInternalError.
    float GetQ2Y(int a, int ox, int oy) const;
    float GetQ2X(int a, int ox, int oy) const;
    // a > 0 only.
    void SetCell(int a, int ox, int oy, float q2Y, float q2X);

private:
    std::size_t Cell(int a, int ox, int oy) const;

    int m_maxPred = 0, m_maxOrthX = 0, m_maxOrthY = 0;
    std::vector<float> m_q2Y, m_q2X;
};

// K-fold cross-validation of the O2PLS grid (el Bouhaddani et al., BMC
// Bioinformatics 19 (2018) 9). Each round leaves one group of rows out,
// centres the rows it keeps and fits; the left-out rows, centred by the
// kept rows' means, are predicted in both directions by NCO2PLSPred. Per
// round and joint count the orthogonal components are grown one at a time
// and shared by the cells (docs/o2pls.md):
//
//   O2PLSCrossValidation cv(x, y, 3, 2, 2, 7, progress);
//   O2PLSPredictiveComponentEstimator choice(cv.GetResults());
//
// The blocks must be complete; scaling is the caller's business and is not
// redone per round.
class VELTANCMAT_API O2PLSCrossValidation {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // The rounds' NIPALS limit for the orthogonal components.
    static constexpr int RoundIterations = 200;

    // Throws NCError for a negative orthogonal count, maxPredictive outside
    // 1 .. min(K, M), rounds outside 2 .. N, group labels outside
    // 0 .. rounds - 1 or a round that keeps fewer than two rows;
    // NCInternalError for blocks of different heights, a missing cell or
    // groups of another length than N, and CancelException when the progress is broken. Null
    // groups take GetDeafultCVGroupsVector(N, rounds).
    O2PLSCrossValidation(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int maxPredictive,
                         int maxOrthogonalX, int maxOrthogonalY, int rounds, NCProgress* progress,
                         const IndexList* groups = nullptr);

    const O2PLSCVResults& GetResults() const { return m_results; }
    const IndexList& GetGroups() const { return m_groups; }
    int SizeCVRounds() const { return m_rounds; }

private:
    struct Whole;
    struct Split;
    struct Sums;
    Split SplitRound(const Whole& whole, int g) const;
    void RunCells(const Split& split, int a, Sums& sums, NCProgress* progress) const;

    O2PLSCVResults m_results;
    IndexList m_groups;
    int m_rounds = 0;
};

// The component counts of an O2PLS model from a cross-validated grid
// (docs/o2pls.md). With the joint score J = (Q2Y + Q2X) / 2 and its best
// value over the orthogonal counts Jmax(a), Jmax(0) = 0:
//
// - joint: a grows from 0 while Jmax(a + 1) >= Jmax(a) + external limit;
// - X-orthogonal: ox grows from 0 while Q2Y(a, ox + 1, 0) >= Q2Y(a, ox, 0)
//   + internal limit;
// - Y-orthogonal: oy grows from 0 while Q2X(a, ox, oy + 1) >= Q2X(a, ox, oy)
//   + internal limit.
//
// A missing cell ends a search. Without joint components there is nothing
// to filter for, and both orthogonal counts are 0.
class VELTANCMAT_API O2PLSPredictiveComponentEstimator {
public:
    // The limits of GetO2PLSExternalQ2Limit and GetO2PLSInternalQ2Limit.
    explicit O2PLSPredictiveComponentEstimator(const O2PLSCVResults& results);
    O2PLSPredictiveComponentEstimator(const O2PLSCVResults& results, float externalLimit, float internalLimit);

    int GetPredictive() const { return m_pred; }
    int GetOrthogonalX() const { return m_orthX; }
    int GetOrthogonalY() const { return m_orthY; }
    // The chosen cell's Q2 (0 without joint components).
    float GetQ2Y() const { return m_q2Y; }
    float GetQ2X() const { return m_q2X; }

private:
    int m_pred = 0, m_orthX = 0, m_orthY = 0;
    float m_q2Y = 0.0f, m_q2X = 0.0f;
};
