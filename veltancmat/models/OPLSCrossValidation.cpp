#include "veltancmat/models/OPLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/NCOPLSPred.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>

namespace {

const CancelText Aborted("OPLS cross-validation aborted.");

constexpr float Missing = NCMisVal<float>;

// The rounds' models get their own fixed iteration limit, whatever the
// caller's model uses, so that a stored validation continues the same way.
constexpr int RoundIterations = 200;

// Sums below this count as zero error (or zero variation).
constexpr double ZeroSum = 1.1754943508222875e-37;

} // namespace

struct OPLSCrossValidation::Split {
    IndexList test;
    IndexList train;
    NCDataMatrix<float> xTest;
    NCDataMatrix<float> xTrain;
    NCDataMatrix<float> yTrain;
};

OPLSCrossValidation::OPLSCrossValidation(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y,
                                         int numPredictive, int rounds, NCProgress* progress,
                                         const IndexList* groups)
    : m_numPredictive(numPredictive)
{
    if (!x || !y || x->SizeRows() != y->SizeRows())
        throw NCInternalError("OPLSCrossValidation::OPLSCrossValidation");
    const int n = x->SizeRows();
    m_rounds = std::min(rounds, n);
    if (m_rounds < 2)
        throw NCError(ExceptionMessage::translate("Cross-validation needs at least two groups."), NCError::Error);
    if (groups && groups->Size() != n)
        throw NCInternalError("OPLSCrossValidation::OPLSCrossValidation");
    m_data = OPLSCrossvalidationData(m_rounds, *y);
    StartResults(*x, *y, groups);

    ProgressRange(progress, 0.0f, static_cast<float>(m_rounds));
    for (int g = 0; g < m_rounds; ++g) {
        const Split split = SplitRound(g);
        ProgressSubRange round(progress, static_cast<float>(g), static_cast<float>(g + 1), Aborted);
        NCOPLS model(&split.xTrain, &split.yTrain, m_numPredictive, RoundIterations);
        model.NextComponent(progress);
        round.Close(Aborted);
        m_ssYcvOriginal(g + 1, static_cast<float>(split.yTrain.GetSS()));
        SizeScoreSets(model.SizeComponents());
        SaveModelMatrices(model, g);
        SaveGroupResults(model, split, g);
    }
    CalculateQ2();
    CheckedSetValue(progress, static_cast<float>(m_rounds), Aborted);
}

OPLSCrossValidation::OPLSCrossValidation(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y,
                                         const OPLSCrossvalidationData* data, const IndexList* groups)
{
    if (!x || !y || !data || x->SizeRows() != y->SizeRows() || data->SizeRounds() < 1 ||
        data->GetWLists().front().empty() || data->GetYColumnSS().Size() != y->SizeColumns() ||
        (groups && groups->Size() != x->SizeRows()))
        throw NCInternalError("OPLSCrossValidation::OPLSCrossValidation");
    m_data = *data;
    m_rounds = data->SizeRounds();
    m_numPredictive = data->GetWLists().front().front().SizeRows();
    StartResults(*x, *y, groups);
    SizeScoreSets(m_numPredictive);
}

// The data, the groups, and every result missing until a round fills it.
void OPLSCrossValidation::StartResults(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                                       const IndexList* groups)
{
    const int n = x.SizeRows();
    m_x = x;
    m_y = y;
    m_groups = groups ? *groups : GetDeafultCVGroupsVector(n, m_rounds);
    m_yPred = NCDataMatrix<float>(n, m_y.SizeColumns(), Missing);
    m_ssYcv = NCDataVector<float>(m_rounds, Missing);
    m_ssYcvOriginal = NCDataVector<float>(m_rounds, Missing);
    m_tocv = NCDataVector<float>(n, Missing);
    m_toSet = NCDataMatrix<float>(m_rounds, n, Missing);
    m_tcv = NCDataMatrix<float>(0, n);
    m_q2YVarCum = NCDataVector<float>(m_y.SizeColumns(), Missing);
}

OPLSCrossValidation::~OPLSCrossValidation() = default;

float OPLSCrossValidation::GetQ2Lim() const
{
    return m_x.SizeRows() > 100 ? 0.0f : 0.05f;
}

int OPLSCrossValidation::SizeOComponents() const
{
    const auto& wLists = m_data.GetWLists();
    return wLists.empty() || wLists.front().empty() ? 0 : static_cast<int>(wLists.front().size()) - 1;
}

NCDataMatrix<float> OPLSCrossValidation::GetYPredResiduals() const
{
    NCDataMatrix<float> residuals;
    m_y.AddMat(m_yPred, residuals, -1.0);
    return residuals;
}

// Rows labelled g are left out; both parts keep the observation order.
OPLSCrossValidation::Split OPLSCrossValidation::SplitRound(int g) const
{
    Split split;
    for (int i = 1; i <= m_x.SizeRows(); ++i)
        (m_groups[i] == g ? split.test : split.train).push_back(i);
    if (split.train.empty())
        throw NCError(ExceptionMessage::translate("A cross-validation round leaves no observation to fit."),
                      NCError::Error);
    split.xTest = m_x.GetRowSubMatrix(split.test);
    split.xTrain = m_x.GetRowSubMatrix(split.train);
    split.yTrain = m_y.GetRowSubMatrix(split.train);
    return split;
}

void OPLSCrossValidation::SizeScoreSets(int components)
{
    const int n = m_x.SizeRows();
    m_tSets.resize(static_cast<std::size_t>(std::max(components, 0)), NCDataMatrix<float>(m_rounds, n, Missing));
    if (m_tcv.SizeRows() != components)
        m_tcv.Resize(std::max(components, 0), n, Missing);
}

void OPLSCrossValidation::SaveModelMatrices(const NCOPLS& model, int g)
{
    m_data.SetRound(g, *model.GetWMatrices(), *model.GetPMatrices(), *model.GetCMatrices(), *model.GetWOprim(),
                    *model.GetPOprim(), *model.GetCOprim());
}

void OPLSCrossValidation::SaveGroupResults(const NCOPLS& model, const Split& split, int g)
{
    m_ssYcv(g + 1, static_cast<float>(model.GetYResiduals().GetSS()));
    const int a = std::min(model.SizeComponents(), static_cast<int>(m_tSets.size()));
    const int orthogonal = model.SizeOrthogonalComponents();
    const NCDataMatrix<float>& tprim = *model.GetTprim();
    const NCDataMatrix<float>& toprim = *model.GetTOprim();
    for (int j = 1; j <= split.train.Size(); ++j) {
        const int i = split.train[j];
        for (int c = 1; c <= a; ++c)
            m_tSets[static_cast<std::size_t>(c - 1)](g + 1, i, tprim[c][j]);
        if (orthogonal > 0)
            m_toSet(g + 1, i, toprim[orthogonal][j]);
    }
    if (split.test.empty())
        return;
    NCOPLSPred pred(&split.xTest, &model);
    for (int k = 1; k <= orthogonal; ++k)
        pred.CalcNextComponent();
    const NCDataMatrix<float>& tpred = *pred.GetTPred();
    const NCDataMatrix<float>& topred = *pred.GetTOPred();
    const NCDataMatrix<float>& ypred = *pred.GetYPred();
    for (int j = 1; j <= split.test.Size(); ++j) {
        const int i = split.test[j];
        for (int c = 1; c <= std::min(a, tpred.SizeRows()); ++c) {
            m_tSets[static_cast<std::size_t>(c - 1)](g + 1, i, tpred[c][j]);
            m_tcv(c, i, tpred[c][j]);
        }
        if (orthogonal > 0) {
            m_toSet(g + 1, i, topred[orthogonal][j]);
            m_tocv(i, topred[orthogonal][j]);
        }
        for (int m = 1; m <= ypred.SizeColumns(); ++m)
            m_yPred(i, m, ypred[j][m]);
    }
}

void OPLSCrossValidation::NextComponent(NCProgress* progress)
{
    ProgressRange(progress, 0.0f, static_cast<float>(m_rounds));
    for (int g = 0; g < m_rounds; ++g) {
        const Split split = SplitRound(g);
        const auto slot = static_cast<std::size_t>(g);
        ProgressSubRange round(progress, static_cast<float>(g), static_cast<float>(g + 1), Aborted);
        NCOPLS model(&split.xTrain, &split.yTrain, m_data.GetWLists()[slot], m_data.GetPLists()[slot],
                     m_data.GetCLists()[slot], m_data.GetWOprims()[slot], m_data.GetPOprims()[slot],
                     m_data.GetCOprims()[slot], m_numPredictive, RoundIterations);
        model.NextComponent(nullptr);
        round.Close(Aborted);
        SaveModelMatrices(model, g);
        SaveGroupResults(model, split, g);
    }
    CalculateQ2();
}

// Q2 = 1 - PRESS / SS per response and in total. A response counts as
// perfectly predicted (1) only while the prediction error summed over it
// and every response before it is still zero.
void OPLSCrossValidation::CalculateQ2()
{
    const NCDataMatrix<float> residuals = GetYPredResiduals();
    const NCDataVector<float>& ssY = m_data.GetYColumnSS();
    double sp = 0.0, sy = 0.0;
    for (int m = 1; m <= m_y.SizeColumns(); ++m) {
        const double press = residuals.GetColumnSS(m);
        const double ss = ssY[m];
        if (!IsMisVal(press))
            sp += press;
        if (!IsMisVal(ss))
            sy += ss;
        m_q2YVarCum(m, sp >= ZeroSum ? static_cast<float>((ss - press) / ss) : 1.0f);
    }
    m_q2TotCum = sy >= ZeroSum ? static_cast<float>((sy - sp) / sy) : 1.0f;
}
