#include "veltancmat/models/O2PLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/CrossValidationQ2.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
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

// Subtracts from every row of `block` the column means of `reference`.
void CentreBy(NCDataMatrix<float>& block, const NCDataMatrix<float>& reference)
{
    for (int j = 1; j <= block.SizeColumns(); ++j) {
        const double mean = reference.GetColumnMean(j);
        for (int i = 1; i <= block.SizeRows(); ++i)
            block(i, j, static_cast<float>(block[i][j] - mean));
    }
}

double SquaredDistance(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b)
{
    double sum = 0.0;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j) {
            const double d = double(a[i][j]) - b[i][j];
            sum += d * d;
        }
    return sum;
}

double SquaredSum(const NCDataMatrix<float>& a)
{
    double sum = 0.0;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j)
            sum += double(a[i][j]) * a[i][j];
    return sum;
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

// Columns back as component rows, in float.
NCDataMatrix<float> RowsOf(const Dense& columns)
{
    NCDataMatrix<float> rows(static_cast<int>(columns.cols()), static_cast<int>(columns.rows()));
    for (int a = 1; a <= rows.SizeRows(); ++a)
        for (int j = 1; j <= rows.SizeColumns(); ++j)
            rows(a, j, static_cast<float>(columns(j - 1, a - 1)));
    return rows;
}

// The first `count` rows of a model's component matrix, `width` wide even
// when there are none.
NCDataMatrix<float> FirstRows(const NCDataMatrix<float>& rows, int count, int width)
{
    return count == 0 ? NCDataMatrix<float>(0, width) : rows.SubMat(1, count, 1, width);
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
bool RelationOf(const Dense& from, const Dense& to, NCDataMatrix<float>& relation)
{
    const Eigen::LDLT<Dense> gram(from.transpose() * from);
    if (gram.info() != Eigen::Success || !gram.isPositive() || gram.vectorD().minCoeff() <= 0.0)
        return false;
    const Dense b = gram.solve(from.transpose() * to);
    if (!b.allFinite())
        return false;
    relation = NCDataMatrix<float>(static_cast<int>(b.rows()), static_cast<int>(b.cols()));
    for (int i = 1; i <= relation.SizeRows(); ++i)
        for (int j = 1; j <= relation.SizeColumns(); ++j)
            relation(i, j, static_cast<float>(b(i - 1, j - 1)));
    return true;
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

// One round's rows: the kept ones centred on their own means, the left-out
// ones on the same means.
struct O2PLSCrossValidation::Split {
    NCDataMatrix<float> xTrain, yTrain, xTest, yTest;
    Dense x, y, xty; // the kept rows in double, and X'Y of them
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

O2PLSCrossValidation::Split O2PLSCrossValidation::SplitRound(const NCDataMatrix<float>& x,
                                                             const NCDataMatrix<float>& y, int g) const
{
    IndexList test, train;
    for (int i = 1; i <= x.SizeRows(); ++i)
        (m_groups[i] == g ? test : train).push_back(i);
    if (train.Size() < 2)
        BadArgument("A cross-validation round keeps fewer than two observations.");
    Split split{x.GetRowSubMatrix(train), y.GetRowSubMatrix(train), x.GetRowSubMatrix(test),
                y.GetRowSubMatrix(test), {}, {}, {}};
    if (!test.empty()) {
        CentreBy(split.xTest, split.xTrain);
        CentreBy(split.yTest, split.yTrain);
    }
    const NCDataMatrix<float> xKept(split.xTrain), yKept(split.yTrain);
    CentreBy(split.xTrain, xKept);
    CentreBy(split.yTrain, yKept);
    split.x = DenseOf(split.xTrain);
    split.y = DenseOf(split.yTrain);
    split.xty.noalias() = split.x.transpose() * split.y;
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
    for (int g = 0; g < rounds; ++g) {
        const Split split = SplitRound(x, y, g);
        sums.ssY += SquaredSum(split.yTest);
        sums.ssX += SquaredSum(split.xTest);
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
    if (split.xTest.SizeRows() == 0)
        return;
    // Centred rows span at most one dimension fewer than their count.
    if (a >= split.xTrain.SizeRows()) {
        sums.Fail(a, 0, 0, sums.maxOrthY);
        return;
    }
    const int k = split.xTrain.SizeColumns(), m = split.yTrain.SizeColumns();
    const auto grow = [&](bool xSide, int most) {
        NCO2PLS chain(split.xTrain, split.yTrain, true, RoundIterations);
        for (int o = 1; o <= most; ++o) {
            CheckBreak(progress, Aborted);
            try {
                chain.NextOrthogonalComponent(xSide, a);
            } catch (const NCO2PLSDimensionalityException&) {
                break;
            }
        }
        return chain;
    };
    const NCO2PLS xChain = grow(true, sums.maxOrthX), yChain = grow(false, sums.maxOrthY);
    const int grownX = xChain.SizeOrthogonalX(), grownY = yChain.SizeOrthogonalY();
    if (grownX < sums.maxOrthX)
        sums.Fail(a, grownX + 1, 0, sums.maxOrthY);
    if (grownY < sums.maxOrthY)
        for (int ox = 0; ox <= sums.maxOrthX; ++ox)
            for (int oy = grownY + 1; oy <= sums.maxOrthY; ++oy)
                sums.failed[sums.Cell(a, ox, oy)] = true;

    const Dense tox = ColumnsOf(xChain.GetTOXprim(), split.xTrain.SizeRows());
    const Dense pox = ColumnsOf(xChain.GetPOXprim(), k);
    const Dense toy = ColumnsOf(yChain.GetTOYprim(), split.yTrain.SizeRows());
    const Dense poy = ColumnsOf(yChain.GetPOYprim(), m);
    const Dense toxY = tox.transpose() * split.y, xToy = split.x.transpose() * toy, toxToy = tox.transpose() * toy;

    // The weights of every cell first, so that one pass over each block
    // gives the scores of all of them.
    struct Cell {
        int ox, oy;
        Dense w, c;
    };
    std::vector<Cell> cells;
    for (int ox = 0; ox <= grownX; ++ox)
        for (int oy = 0; oy <= grownY; ++oy) {
            CheckBreak(progress, Aborted);
            const auto px = pox.leftCols(ox), py = poy.leftCols(oy);
            const Dense cross = split.xty - px * toxY.topRows(ox) - xToy.leftCols(oy) * py.transpose() +
                                px * toxToy.topLeftCorner(ox, oy) * py.transpose();
            Cell cell{ox, oy, {}, {}};
            if (LeadingPairs(cross, a, cell.w, cell.c))
                cells.push_back(std::move(cell));
            else
                sums.failed[sums.Cell(a, ox, oy)] = true;
        }
    Dense allW(k, static_cast<Eigen::Index>(cells.size()) * a), allC(m, allW.cols());
    for (std::size_t i = 0; i < cells.size(); ++i) {
        allW.middleCols(static_cast<Eigen::Index>(i) * a, a) = cells[i].w;
        allC.middleCols(static_cast<Eigen::Index>(i) * a, a) = cells[i].c;
    }
    const Dense xw = split.x * allW, yc = split.y * allC;

    for (std::size_t i = 0; i < cells.size(); ++i) {
        CheckBreak(progress, Aborted);
        const Cell& cell = cells[i];
        const std::size_t c = sums.Cell(a, cell.ox, cell.oy);
        const auto px = pox.leftCols(cell.ox), tx = tox.leftCols(cell.ox);
        const auto py = poy.leftCols(cell.oy), ty = toy.leftCols(cell.oy);
        const Dense t = xw.middleCols(static_cast<Eigen::Index>(i) * a, a) - tx * (px.transpose() * cell.w);
        const Dense u = yc.middleCols(static_cast<Eigen::Index>(i) * a, a) - ty * (py.transpose() * cell.c);
        NCDataMatrix<float> btu, but;
        if (!RelationOf(t, u, btu) || !RelationOf(u, t, but)) {
            sums.failed[c] = true;
            continue;
        }
        const NCDataMatrix<float> wprim = RowsOf(cell.w), cprim = RowsOf(cell.c);
        const NCO2PLSPred fromX(split.xTest, FirstRows(xChain.GetWOXprim(), cell.ox, k),
                                FirstRows(xChain.GetPOXprim(), cell.ox, k), wprim, btu, cprim, true);
        const NCO2PLSPred fromY(split.yTest, FirstRows(yChain.GetWOYprim(), cell.oy, m),
                                FirstRows(yChain.GetPOYprim(), cell.oy, m), cprim, but, wprim, false);
        sums.pressY[c] += SquaredDistance(split.yTest, fromX.GetPrediction());
        sums.pressX[c] += SquaredDistance(split.xTest, fromY.GetPrediction());
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
