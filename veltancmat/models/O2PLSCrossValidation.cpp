#include "veltancmat/models/O2PLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/CrossValidationQ2.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/platform/NCError.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

const CancelText Aborted("O2PLS cross-validation aborted.");

constexpr float Missing = NCMisVal<float>;

// Sums below this count as no variation at all.
constexpr double ZeroSum = 1.1754943508222875e-37;

[[noreturn]] void BadArgument(const char* text)
{
    throw NCError(ExceptionMessage::translate(text), NCError::Error);
}

float Q2(double press, double ss)
{
    return ss >= ZeroSum ? static_cast<float>(1.0 - press / ss) : Missing;
}

using Dense = Eigen::MatrixXd;

// A block as a dense double matrix (rows x columns).
Dense DenseOf(const NCDataMatrix<float>& m)
{
    Dense d(m.SizeRows(), m.SizeColumns());
    for (int i = 1; i <= m.SizeRows(); ++i)
        for (int j = 1; j <= m.SizeColumns(); ++j)
            d(i - 1, j - 1) = m[i][j];
    return d;
}

// Component rows (one per component, `width` long) as columns.
Dense ColumnsOf(const NCDataMatrix<float>& rows, int width)
{
    Dense d(width, rows.SizeRows());
    for (int a = 1; a <= rows.SizeRows(); ++a)
        for (int j = 1; j <= width; ++j)
            d(j - 1, a - 1) = rows[a][j];
    return d;
}

// A dense block back in float storage, for the models of a round.
NCDataMatrix<float> FloatOf(const Dense& d)
{
    NCDataMatrix<float> m(static_cast<int>(d.rows()), static_cast<int>(d.cols()));
    for (int i = 1; i <= m.SizeRows(); ++i)
        for (int j = 1; j <= m.SizeColumns(); ++j)
            m(i, j, static_cast<float>(d(i - 1, j - 1)));
    return m;
}

// `rows` less their first 0, 1, ..., count orthogonal components, peeled
// one at a time as NCO2PLSPred peels complete rows: t = x w_o / w_o'w_o,
// x <- x - t p_o'.
std::vector<Dense> Peeled(const Dense& rows, const NCDataMatrix<float>& weights, const NCDataMatrix<float>& loadings,
                          int count)
{
    std::vector<Dense> peeled{rows};
    for (int o = 1; o <= count; ++o) {
        const Dense w = ColumnsOf(weights.SubMat(o, o, 1, weights.SizeColumns()), weights.SizeColumns());
        const Dense p = ColumnsOf(loadings.SubMat(o, o, 1, loadings.SizeColumns()), loadings.SizeColumns());
        const Eigen::VectorXd t = peeled.back() * w / w.squaredNorm();
        peeled.push_back(peeled.back() - t * p.transpose());
    }
    return peeled;
}

// A power iteration that has not settled after this many steps has two
// singular values too close to tell apart; the last iterate is as good a
// direction as the joint NIPALS loop would give.
constexpr int MaxPowerSteps = 5000;

// The leading `count` singular pairs of `m`, one at a time with the
// deflation m - s w c' between them, as the joint components deflate:
// w (left) and c (right) of unit length, as columns. False when m has fewer
// than `count` directions that are not zero against its largest.
bool LeadingPairs(Dense m, int count, Dense& left, Dense& right)
{
    left.resize(m.rows(), count);
    right.resize(m.cols(), count);
    double first = 0.0;
    for (int a = 0; a < count; ++a) {
        Eigen::Index start = 0;
        const double largest = m.colwise().squaredNorm().maxCoeff(&start);
        if (!(largest > 0.0) || !std::isfinite(largest))
            return false;
        Eigen::VectorXd w = m.col(start) / std::sqrt(largest);
        Eigen::VectorXd c = m.transpose() * w;
        double s = c.norm();
        c /= s;
        for (int step = 0; step < MaxPowerSteps; ++step) {
            w = (m * c).normalized();
            Eigen::VectorXd next = m.transpose() * w;
            s = next.norm();
            next /= s;
            const double change = (next - c).squaredNorm();
            c = std::move(next);
            if (change < 1e-26)
                break;
        }
        if (a == 0)
            first = s;
        if (!(s > 1e-10 * first))
            return false;
        w = m * c / s;
        left.col(a) = w;
        right.col(a) = c;
        m.noalias() -= s * w * c.transpose();
    }
    return true;
}

// B with `to` ~ `from` B, (from'from)^-1 from'to; false when from'from is
// singular.
bool RelationOf(const Dense& from, const Dense& to, Dense& relation)
{
    const Eigen::LDLT<Dense> gram(from.transpose() * from);
    if (gram.info() != Eigen::Success || !gram.isPositive() || gram.vectorD().minCoeff() <= 0.0)
        return false;
    relation = gram.solve(from.transpose() * to);
    return relation.allFinite();
}

} // namespace

O2PLSCVResults::O2PLSCVResults(int maxPredictive, int maxOrthogonalX, int maxOrthogonalY)
    : m_maxPred(maxPredictive), m_maxOrthX(maxOrthogonalX), m_maxOrthY(maxOrthogonalY)
{
    if (maxPredictive < 0 || maxOrthogonalX < 0 || maxOrthogonalY < 0)
        throw NCInternalError("O2PLSCVResults::O2PLSCVResults");
    const auto cells = static_cast<std::size_t>(maxPredictive) * (maxOrthogonalX + 1) * (maxOrthogonalY + 1);
    m_q2Y.assign(cells, Missing);
    m_q2X.assign(cells, Missing);
}

std::size_t O2PLSCVResults::Cell(int a, int ox, int oy) const
{
    if (a < 1 || a > m_maxPred || ox < 0 || ox > m_maxOrthX || oy < 0 || oy > m_maxOrthY)
        throw NCInternalError("O2PLSCVResults::Cell");
    return (static_cast<std::size_t>(a - 1) * (m_maxOrthX + 1) + ox) * (m_maxOrthY + 1) + oy;
}

float O2PLSCVResults::GetQ2Y(int a, int ox, int oy) const
{
    if (a == 0 && ox >= 0 && ox <= m_maxOrthX && oy >= 0 && oy <= m_maxOrthY)
        return 0.0f;
    return m_q2Y[Cell(a, ox, oy)];
}

float O2PLSCVResults::GetQ2X(int a, int ox, int oy) const
{
    if (a == 0 && ox >= 0 && ox <= m_maxOrthX && oy >= 0 && oy <= m_maxOrthY)
        return 0.0f;
    return m_q2X[Cell(a, ox, oy)];
}

void O2PLSCVResults::SetCell(int a, int ox, int oy, float q2Y, float q2X)
{
    const std::size_t cell = Cell(a, ox, oy);
    m_q2Y[cell] = q2Y;
    m_q2X[cell] = q2X;
}

// Both blocks in double, centred on their means, and X'Y of them: every
// round's cross product is this less its left-out rows' part.
struct O2PLSCrossValidation::Whole {
    Dense x, y, xy;
};

// One round's rows: the kept ones centred on their own means (in float for
// the round's models, in double for the cross product and the scores), the
// left-out ones on the same means.
struct O2PLSCrossValidation::Split {
    NCDataMatrix<float> xTrain, yTrain;
    Dense x, y, xty, xTest, yTest;
};

// The pooled sums of the grid: per cell (as O2PLSCVResults numbers them)
// the prediction errors of both directions, and a flag for cells some round
// could not fit. The left-out rows' squares do not depend on the cell.
struct O2PLSCrossValidation::Sums {
    std::vector<double> pressY, pressX;
    std::vector<bool> failed;
    double ssY = 0.0, ssX = 0.0;
    int maxOrthX = 0, maxOrthY = 0;

    std::size_t Cell(int a, int ox, int oy) const
    {
        return (static_cast<std::size_t>(a - 1) * (maxOrthX + 1) + ox) * (maxOrthY + 1) + oy;
    }
    // Cells (a, fromX .. maxOrthX, fromY .. toY).
    void Fail(int a, int fromX, int fromY, int toY)
    {
        for (int ox = fromX; ox <= maxOrthX; ++ox)
            for (int oy = fromY; oy <= toY; ++oy)
                failed[Cell(a, ox, oy)] = true;
    }
};

O2PLSCrossValidation::Split O2PLSCrossValidation::SplitRound(const Whole& whole, int g) const
{
    std::vector<Eigen::Index> test, train;
    for (int i = 1; i <= static_cast<int>(whole.x.rows()); ++i)
        (m_groups[i] == g ? test : train).push_back(i - 1);
    if (train.size() < 2)
        BadArgument("A cross-validation round keeps fewer than two observations.");
    const Dense xOut = whole.x(test, Eigen::all), yOut = whole.y(test, Eigen::all);
    // The whole blocks' columns sum to zero, so the kept rows sum to minus
    // the left-out ones.
    const auto kept = static_cast<double>(train.size());
    const Eigen::RowVectorXd xMean = -xOut.colwise().sum() / kept, yMean = -yOut.colwise().sum() / kept;
    Split split;
    split.x = whole.x(train, Eigen::all).rowwise() - xMean;
    split.y = whole.y(train, Eigen::all).rowwise() - yMean;
    split.xTest = xOut.rowwise() - xMean;
    split.yTest = yOut.rowwise() - yMean;
    // Sum of x y' over the kept rows about their means.
    split.xty = whole.xy - xOut.transpose() * yOut - kept * xMean.transpose() * yMean;
    split.xTrain = FloatOf(split.x);
    split.yTrain = FloatOf(split.y);
    return split;
}

O2PLSCrossValidation::O2PLSCrossValidation(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                                           int maxPredictive, int maxOrthogonalX, int maxOrthogonalY, int rounds,
                                           NCProgress* progress, const IndexList* groups)
{
    const int n = x.SizeRows();
    if (y.SizeRows() != n || (groups && groups->Size() != n))
        throw NCInternalError("O2PLSCrossValidation::O2PLSCrossValidation");
    // Refused here rather than by the first round's model, before any progress.
    if (x.HasMissingValues() || y.HasMissingValues())
        throw NCInternalError("O2PLSCrossValidation::O2PLSCrossValidation",
                              ExceptionMessage::translate("The X and Y matrices can not contain missing values."));
    if (maxOrthogonalX < 0 || maxOrthogonalY < 0)
        BadArgument("The number of orthogonal components can not be negative.");
    if (maxPredictive < 1 || maxPredictive > std::min(x.SizeColumns(), y.SizeColumns()))
        BadArgument("The number of joint components must lie between 1 and the smaller block's columns.");
    if (rounds < 2 || rounds > n)
        BadArgument("Cross-validation needs between two groups and one group per observation.");
    m_rounds = rounds;
    m_groups = groups ? *groups : GetDeafultCVGroupsVector(n, rounds);
    NCCrossValidation::CheckGroupLabels(m_groups, rounds);

    Sums sums;
    sums.maxOrthX = maxOrthogonalX;
    sums.maxOrthY = maxOrthogonalY;
    const auto cells = static_cast<std::size_t>(maxPredictive) * (maxOrthogonalX + 1) * (maxOrthogonalY + 1);
    sums.pressY.assign(cells, 0.0);
    sums.pressX.assign(cells, 0.0);
    sums.failed.assign(cells, false);
    m_results = O2PLSCVResults(maxPredictive, maxOrthogonalX, maxOrthogonalY);

    ProgressRange(progress, 0.0f, static_cast<float>(rounds * maxPredictive));
    Whole whole{DenseOf(x), DenseOf(y), {}};
    whole.x.rowwise() -= whole.x.colwise().mean();
    whole.y.rowwise() -= whole.y.colwise().mean();
    whole.xy.noalias() = whole.x.transpose() * whole.y;
    for (int g = 0; g < rounds; ++g) {
        const Split split = SplitRound(whole, g);
        sums.ssY += split.yTest.squaredNorm();
        sums.ssX += split.xTest.squaredNorm();
        for (int a = 1; a <= maxPredictive; ++a) {
            ProgressStep step(progress, static_cast<float>(g * maxPredictive + a - 1), Aborted);
            RunCells(split, a, sums, progress);
            step.Close(Aborted);
        }
    }
    for (int a = 1; a <= maxPredictive; ++a)
        for (int ox = 0; ox <= maxOrthogonalX; ++ox)
            for (int oy = 0; oy <= maxOrthogonalY; ++oy) {
                const std::size_t c = sums.Cell(a, ox, oy);
                if (!sums.failed[c])
                    m_results.SetCell(a, ox, oy, Q2(sums.pressY[c], sums.ssY), Q2(sums.pressX[c], sums.ssX));
            }
    CheckedSetValue(progress, static_cast<float>(rounds * maxPredictive), Aborted);
}

namespace {

// One side's chain of orthogonal components for a round and a joint count,
// in the double form the cells use.
struct Chain {
    int grown = 0;                 // components found before the side ran out or `most`
    Dense scores, loadings;        // N x grown, width x grown
    std::vector<Dense> peeledOut;  // the left-out rows less their first 0 .. grown components
};

Chain GrowChain(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, bool xSide, int a, int most,
                const Dense& out, NCProgress* progress)
{
    NCO2PLS model(x, y, true, O2PLSCrossValidation::RoundIterations);
    for (int o = 1; o <= most; ++o) {
        CheckBreak(progress, Aborted);
        try {
            model.NextOrthogonalComponent(xSide, a);
        } catch (const NCO2PLSDimensionalityException&) {
            break;
        }
    }
    const int width = (xSide ? x : y).SizeColumns();
    Chain chain;
    chain.grown = xSide ? model.SizeOrthogonalX() : model.SizeOrthogonalY();
    chain.scores = ColumnsOf(xSide ? model.GetTOXprim() : model.GetTOYprim(), x.SizeRows());
    chain.loadings = ColumnsOf(xSide ? model.GetPOXprim() : model.GetPOYprim(), width);
    chain.peeledOut = xSide ? Peeled(out, model.GetWOXprim(), model.GetPOXprim(), chain.grown)
                            : Peeled(out, model.GetWOYprim(), model.GetPOYprim(), chain.grown);
    return chain;
}

// The joint weights of one cell: the first a singular pairs of X_f'Y_f.
struct CellWeights {
    int ox, oy;
    Dense w, c;
};

// The cells of both chains' prefixes whose cross product has a directions;
// `fail` is told of the others.
template <class Fail>
std::vector<CellWeights> WeightsOfCells(const Dense& xty, const Dense& x, const Dense& y, const Chain& xChain,
                                        const Chain& yChain, int a, NCProgress* progress, Fail fail)
{
    const Dense& pox = xChain.loadings;
    const Dense& poy = yChain.loadings;
    const Dense toxY = xChain.scores.transpose() * y, xToy = x.transpose() * yChain.scores;
    const Dense toxToy = xChain.scores.transpose() * yChain.scores;
    std::vector<CellWeights> cells;
    for (int ox = 0; ox <= xChain.grown; ++ox)
        for (int oy = 0; oy <= yChain.grown; ++oy) {
            CheckBreak(progress, Aborted);
            const auto px = pox.leftCols(ox), py = poy.leftCols(oy);
            const Dense cross = xty - px * toxY.topRows(ox) - xToy.leftCols(oy) * py.transpose() +
                                px * toxToy.topLeftCorner(ox, oy) * py.transpose();
            CellWeights cell{ox, oy, {}, {}};
            if (LeadingPairs(cross, a, cell.w, cell.c))
                cells.push_back(std::move(cell));
            else
                fail(ox, oy);
        }
    return cells;
}

// The joint weights of every cell side by side, so that one product with a
// block gives the scores of all cells.
Dense SideBySide(const std::vector<CellWeights>& cells, Dense CellWeights::*part, Eigen::Index rows, int a)
{
    Dense all(rows, static_cast<Eigen::Index>(cells.size()) * a);
    for (std::size_t i = 0; i < cells.size(); ++i)
        all.middleCols(static_cast<Eigen::Index>(i) * a, a) = cells[i].*part;
    return all;
}

} // namespace

// Every cell of joint count a in one round. Each side's orthogonal
// components depend only on a and its own earlier components, so one chain
// per side serves every cell: cell (a, ox, oy) takes the first ox of the X
// chain and the first oy of the Y chain. Its joint part is then that of
// the filtered blocks X_f = X - TO_X PO_X' and Y_f = Y - TO_Y PO_Y', whose
// weights are the first a singular pairs of X_f'Y_f (docs/o2pls.md). That
// cross product is X'Y with low-rank corrections, so a cell needs no NIPALS
// loop over the rows: only the scores T = X_f W and U = Y_f C take one pass.
void O2PLSCrossValidation::RunCells(const Split& split, int a, Sums& sums, NCProgress* progress) const
{
    // A round that leaves nothing out adds nothing to any sum.
    if (split.xTest.rows() == 0)
        return;
    // Centred rows span at most one dimension fewer than their count.
    if (a >= split.xTrain.SizeRows()) {
        sums.Fail(a, 0, 0, sums.maxOrthY);
        return;
    }
    const Chain xChain = GrowChain(split.xTrain, split.yTrain, true, a, sums.maxOrthX, split.xTest, progress);
    const Chain yChain = GrowChain(split.xTrain, split.yTrain, false, a, sums.maxOrthY, split.yTest, progress);
    for (int ox = 0; ox <= sums.maxOrthX; ++ox)
        for (int oy = 0; oy <= sums.maxOrthY; ++oy)
            if (ox > xChain.grown || oy > yChain.grown)
                sums.failed[sums.Cell(a, ox, oy)] = true;
    const std::vector<CellWeights> cells = WeightsOfCells(
        split.xty, split.x, split.y, xChain, yChain, a, progress,
        [&](int ox, int oy) { sums.failed[sums.Cell(a, ox, oy)] = true; });
    const Dense xw = split.x * SideBySide(cells, &CellWeights::w, split.x.cols(), a);
    const Dense yc = split.y * SideBySide(cells, &CellWeights::c, split.y.cols(), a);

    for (std::size_t i = 0; i < cells.size(); ++i) {
        CheckBreak(progress, Aborted);
        const CellWeights& cell = cells[i];
        const std::size_t c = sums.Cell(a, cell.ox, cell.oy);
        const auto px = xChain.loadings.leftCols(cell.ox), tx = xChain.scores.leftCols(cell.ox);
        const auto py = yChain.loadings.leftCols(cell.oy), ty = yChain.scores.leftCols(cell.oy);
        const Dense t = xw.middleCols(static_cast<Eigen::Index>(i) * a, a) - tx * (px.transpose() * cell.w);
        const Dense u = yc.middleCols(static_cast<Eigen::Index>(i) * a, a) - ty * (py.transpose() * cell.c);
        Dense btu, but;
        if (!RelationOf(t, u, btu) || !RelationOf(u, t, but)) {
            sums.failed[c] = true;
            continue;
        }
        // The left-out rows as NCO2PLSPred predicts them: Y = T B_TU C' from
        // their filtered X rows, X = U B_UT W' from their filtered Y rows.
        const Dense yHat = xChain.peeledOut[static_cast<std::size_t>(cell.ox)] * cell.w * btu * cell.c.transpose();
        const Dense xHat = yChain.peeledOut[static_cast<std::size_t>(cell.oy)] * cell.c * but * cell.w.transpose();
        sums.pressY[c] += (split.yTest - yHat).squaredNorm();
        sums.pressX[c] += (split.xTest - xHat).squaredNorm();
    }
}

namespace {

// (Q2Y + Q2X) / 2, missing when either is.
float JointScore(const O2PLSCVResults& r, int a, int ox, int oy)
{
    const float qy = r.GetQ2Y(a, ox, oy), qx = r.GetQ2X(a, ox, oy);
    return IsMisVal(qy) || IsMisVal(qx) ? Missing : 0.5f * (qy + qx);
}

float BestJointScore(const O2PLSCVResults& r, int a)
{
    float best = Missing;
    for (int ox = 0; ox <= r.MaxOrthogonalX(); ++ox)
        for (int oy = 0; oy <= r.MaxOrthogonalY(); ++oy) {
            const float j = JointScore(r, a, ox, oy);
            if (!IsMisVal(j) && (IsMisVal(best) || j > best))
                best = j;
        }
    return best;
}

// True while both exist and `next` beats `current` by at least `limit`.
bool Raises(float current, float next, float limit)
{
    return !IsMisVal(current) && !IsMisVal(next) && next >= current + limit;
}

} // namespace

O2PLSPredictiveComponentEstimator::O2PLSPredictiveComponentEstimator(const O2PLSCVResults& results)
    : O2PLSPredictiveComponentEstimator(results, GetO2PLSExternalQ2Limit(), GetO2PLSInternalQ2Limit())
{
}

O2PLSPredictiveComponentEstimator::O2PLSPredictiveComponentEstimator(const O2PLSCVResults& results,
                                                                     float externalLimit, float internalLimit)
{
    float score = 0.0f;
    while (m_pred < results.MaxPredictive()) {
        const float next = BestJointScore(results, m_pred + 1);
        if (!Raises(score, next, externalLimit))
            break;
        score = next;
        ++m_pred;
    }
    if (m_pred == 0)
        return;
    while (m_orthX < results.MaxOrthogonalX() &&
           Raises(results.GetQ2Y(m_pred, m_orthX, 0), results.GetQ2Y(m_pred, m_orthX + 1, 0), internalLimit))
        ++m_orthX;
    while (m_orthY < results.MaxOrthogonalY() && Raises(results.GetQ2X(m_pred, m_orthX, m_orthY),
                                                          results.GetQ2X(m_pred, m_orthX, m_orthY + 1), internalLimit))
        ++m_orthY;
    m_q2Y = results.GetQ2Y(m_pred, m_orthX, m_orthY);
    m_q2X = results.GetQ2X(m_pred, m_orthX, m_orthY);
}
