#include "veltancmat/models/O2PLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/CrossValidationQ2.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <string>

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
                y.GetRowSubMatrix(test)};
    if (!test.empty()) {
        CentreBy(split.xTest, split.xTrain);
        CentreBy(split.yTest, split.yTrain);
    }
    const NCDataMatrix<float> xKept(split.xTrain), yKept(split.yTrain);
    CentreBy(split.xTrain, xKept);
    CentreBy(split.yTrain, yKept);
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

// Every cell of joint count a in one round. The X-orthogonal components of
// a model do not depend on its Y-orthogonal ones (each side is found
// against the other block unfiltered), so one chain of X-side components
// serves every oy, and each X-side prefix starts one chain of Y-side
// components; a cell's model is a copy of its chain's link with the joint
// part fitted on top, which is exactly the sequence of NCO2PLS::Fit.
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
    NCO2PLS xChain(split.xTrain, split.yTrain, true, RoundIterations);
    for (int ox = 0; ox <= sums.maxOrthX; ++ox) {
        try {
            if (ox > 0)
                xChain.NextOrthogonalComponent(true, a);
        } catch (const NCO2PLSDimensionalityException&) {
            sums.Fail(a, ox, 0, sums.maxOrthY);
            return;
        }
        NCO2PLS yChain(xChain);
        for (int oy = 0; oy <= sums.maxOrthY; ++oy) {
            CheckBreak(progress, Aborted);
            try {
                if (oy > 0)
                    yChain.NextOrthogonalComponent(false, a);
            } catch (const NCO2PLSDimensionalityException&) {
                for (int o = oy; o <= sums.maxOrthY; ++o)
                    sums.failed[sums.Cell(a, ox, o)] = true;
                break;
            }
            NCO2PLS cell(yChain);
            cell.InitPredCompCalculation();
            for (int c = 1; c <= a; ++c) {
                cell.NextPredictiveComp();
                if (c < a)
                    cell.SubtractLastPredictiveComp();
            }
            cell.Finalise();
            const std::size_t c = sums.Cell(a, ox, oy);
            sums.pressY[c] += SquaredDistance(split.yTest, NCO2PLSPred(cell, split.xTest, true).GetPrediction());
            sums.pressX[c] += SquaredDistance(split.xTest, NCO2PLSPred(cell, split.yTest, false).GetPrediction());
        }
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
