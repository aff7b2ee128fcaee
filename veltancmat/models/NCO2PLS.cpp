// Two-way orthogonal PLS after Trygg and Wold, "O2-PLS, a two-block (X-Y)
// latent variable regression (LVR) method with an integral OSC filter",
// J. Chemometrics 17 (2003) 53-64. docs/o2pls.md derives the steps below.
#include "veltancmat/models/NCO2PLS.h"

#include "veltancmat/models/NCPLS.h"

#include <algorithm>
#include <string>

namespace {

// The joint weights are fitted under this limit whatever the model's own:
// the orthogonal components may be cut short for speed, the joint part not.
constexpr int PredictiveIterations = 200;

constexpr float Unset = -99.0f;
constexpr float DefaultQ2Limit = 0.01f;

float g_internalQ2Limit = Unset;
float g_externalQ2Limit = Unset;
bool g_showMissingValueSubstitution = false;

void StoreLimit(float& slot, float limit)
{
    if (limit == Unset || (limit >= 0.0f && limit <= 1.0f))
        slot = limit;
}

float ReadLimit(float& slot)
{
    if (slot == Unset)
        slot = DefaultQ2Limit;
    return slot;
}

// One joint component of e and f: w and c are the leading singular vectors
// of e'f (unit length), t = e w and u = f c.
struct Joint {
    NCDataVector<float> w, t, c, u;
};

Joint JointComponent(const NCDataMatrix<float>& e, const NCDataMatrix<float>& f, int iterations)
{
    NCPLS pls(&e, &f, iterations);
    pls.NextComponent(nullptr, nullptr, true, false);
    Joint joint;
    joint.w = (*pls.GetWprim())[1];
    joint.t = e.SpecialNipalsRegressRowsFix(joint.w);
    joint.c = f.SpecialNipalsRegressColumnsFix(joint.t);
    joint.c.Normalize();
    joint.u = f.SpecialNipalsRegressRowsFix(joint.c);
    return joint;
}

// The block without the components given as rows of scores and loadings.
NCDataMatrix<float> Without(const NCDataMatrix<float>& block, const NCDataMatrix<float>& scores,
                            const NCDataMatrix<float>& loadings)
{
    NCDataMatrix<float> rest(block);
    for (int a = 1; a <= scores.SizeRows(); ++a)
        rest.TransformToSub_V_x_Vt(scores[a], loadings[a]);
    return rest;
}

// The columns of E_XY' T as rows (nPred x K): T = E W holds the scores of
// the nPred joint weights W of `own` against `other`, and E_XY = E - T W' is
// what the joint part leaves of `own`. Its leading direction is the
// variation of `own` that the joint scores see but the joint weights miss.
// Without joint components the block itself stands in, so that the
// orthogonal components become its principal components.
NCDataMatrix<float> JointLeftOvers(const NCDataMatrix<float>& own, const NCDataMatrix<float>& other, int nPred,
                                   int iterations)
{
    if (nPred <= 0)
        return own;
    NCDataMatrix<float> e(own), f(other), weights, scores;
    for (int a = 1; a <= nPred; ++a) {
        const Joint joint = JointComponent(e, f, iterations);
        weights.push_back(joint.w);
        scores.push_back(own.SpecialNipalsRegressRowsFix(joint.w));
        if (a < nPred) {
            e.TransformToSub_V_x_Vt(joint.t, joint.w);
            f.TransformToSub_V_x_Vt(joint.u, joint.c);
        }
    }
    const NCDataMatrix<float> outside = Without(own, scores, weights);
    NCDataMatrix<float> collection;
    for (int a = 1; a <= nPred; ++a)
        collection.push_back(outside.PreMultiply(scores[a]));
    return collection;
}

void Negate(NCDataMatrix<float>& m)
{
    for (int a = 1; a <= m.SizeRows(); ++a)
        m.MultiplyRow(a, -1.0);
}

// Each row of `scores` regressed on by the columns of `block`.
NCDataMatrix<float> LoadingsOf(const NCDataMatrix<float>& block, const NCDataMatrix<float>& scores)
{
    NCDataMatrix<float> loadings;
    for (int a = 1; a <= scores.SizeRows(); ++a)
        loadings.push_back(block.SpecialNipalsRegressColumnsFix(scores[a]));
    return loadings;
}

// (W*)' B (D)': the coefficients of a joint part that maps scores of one
// block, by the inner relation B, onto the weights D of the other.
NCDataMatrix<float> JointCoefficients(const NCDataMatrix<float>& weights, const NCDataMatrix<float>& relation,
                                      const NCDataMatrix<float>& otherWeights)
{
    // The joint part is deflated by t w', so the weights stand in for the
    // loadings: W* = W (W'W)^-1, which is W up to rounding.
    const NCDataMatrix<float> star = NCPLS::GetWStarPrim(weights, weights);
    return star.MultiplyTransposeThis(relation).MatrixMultiply(otherWeights);
}

[[noreturn]] void OutOfSequence(const char* where)
{
    throw NCInternalError(where, ExceptionMessage::translate("Function call out of sequence."));
}

} // namespace

struct NCO2PLS::Side {
    const NCDataMatrix<float>& own;
    const NCDataMatrix<float>& other;
    NCDataMatrix<float>& to;
    NCDataMatrix<float>& wo;
    NCDataMatrix<float>& po;
};

NCO2PLS::NCO2PLS(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, bool checkDimensions, int iterations)
{
    if (x.SizeRows() != y.SizeRows())
        throw NCInternalError("NCO2PLS::NCO2PLS",
                              ExceptionMessage::translate("The X and Y matrices have different number of rows."));
    if (x.HasMissingValues() || y.HasMissingValues())
        throw NCInternalError("NCO2PLS::NCO2PLS",
                              ExceptionMessage::translate("The X and Y matrices can not contain missing values."));
    m_x = x;
    m_y = y;
    m_iterations = iterations;
    m_checkDimensions = checkDimensions;
    m_ssX = m_x.GetSSF();
    m_ssY = m_y.GetSSF();
}

NCO2PLS::~NCO2PLS() = default;

void NCO2PLS::Fit(int nPred, int nOrthX, int nOrthY)
{
    if (SizePredictive() > 0 || SizeOrthogonalX() > 0 || SizeOrthogonalY() > 0)
        UnFit();
    for (int a = 1; a <= nOrthX; ++a) {
        m_e.Clear();
        m_f.Clear();
        NextOrthogonalComponent(true, nPred);
    }
    for (int a = 1; a <= nOrthY; ++a) {
        m_e.Clear();
        m_f.Clear();
        NextOrthogonalComponent(false, nPred);
    }
    InitPredCompCalculation();
    for (int a = 1; a <= nPred; ++a) {
        NextPredictiveComp();
        if (a < nPred)
            SubtractLastPredictiveComp();
    }
    Finalise();
    m_e.Clear();
    m_f.Clear();
}

NCO2PLS::Side NCO2PLS::Own(bool xSide)
{
    if (xSide)
        return Side{m_x, m_y, m_toxprim, m_woxprim, m_poxprim};
    return Side{m_y, m_x, m_toyprim, m_woyprim, m_poyprim};
}

void NCO2PLS::CheckDimensions(bool xSide, int nPred) const
{
    if (!m_checkDimensions)
        return;
    const int columns = xSide ? m_x.SizeColumns() : m_y.SizeColumns();
    const int count = xSide ? SizeOrthogonalX() : SizeOrthogonalY();
    if (count + nPred >= std::min(columns + 1, m_x.SizeRows()))
        throw NCO2PLSDimensionalityException(xSide ? NCO2PLSDimensionalityException::XSide
                                                   : NCO2PLSDimensionalityException::YSide,
                                             SizeOrthogonalX(), SizeOrthogonalY());
}

void NCO2PLS::NextOrthogonalComponent(bool xSide, int nPred)
{
    CheckDimensions(xSide, nPred);
    const Side side = Own(xSide);
    const NCDataMatrix<float> e2 = Without(side.own, side.to, side.po);
    const NCDataMatrix<float> collection = JointLeftOvers(e2, side.other, nPred, m_iterations);
    NCPLS direction(&collection, &collection, m_iterations);
    direction.NextComponent(nullptr, nullptr, true, false);
    const NCDataVector<float> wo = (*direction.GetWprim())[1];
    const NCDataVector<float> to = e2.SpecialNipalsRegressRowsFix(wo);
    side.po.push_back(e2.SpecialNipalsRegressColumnsFix(to));
    side.to.push_back(to);
    side.wo.push_back(wo);
}

void NCO2PLS::ClearPredictive()
{
    for (NCDataMatrix<float>* m : {&m_tprim, &m_uprim, &m_pprim, &m_wprim, &m_cprim, &m_qprim, &m_btu, &m_but})
        m->Clear();
}

void NCO2PLS::InitPredCompCalculation()
{
    m_e = Without(m_x, m_toxprim, m_poxprim);
    m_f = Without(m_y, m_toyprim, m_poyprim);
    ClearPredictive();
}

void NCO2PLS::NextPredictiveComp()
{
    if (m_e.SizeRows() == 0)
        OutOfSequence("NCO2PLS::NextPredictiveComp");
    const Joint joint = JointComponent(m_e, m_f, PredictiveIterations);
    m_wprim.push_back(joint.w);
    m_tprim.push_back(joint.t);
    m_pprim.push_back(m_e.SpecialNipalsRegressColumnsFix(joint.t));
    m_cprim.push_back(joint.c);
    m_uprim.push_back(joint.u);
    m_qprim.push_back(m_f.SpecialNipalsRegressColumnsFix(joint.u));
}

void NCO2PLS::SubtractLastPredictiveComp()
{
    const int a = SizePredictive();
    if (m_e.SizeRows() == 0 || a == 0)
        OutOfSequence("NCO2PLS::SubtractLastPredictiveComp");
    m_e.TransformToSub_V_x_Vt(m_tprim[a], m_wprim[a]);
    m_f.TransformToSub_V_x_Vt(m_uprim[a], m_cprim[a]);
}

void NCO2PLS::Finalise()
{
    if (SizePredictive() > 0) {
        if (m_tprim.HasMissingValues() || m_uprim.HasMissingValues())
            throw NCError(ExceptionMessage::translate("OPLS model could not be calculated."), NCError::Error);
        m_btu = m_tprim.GetRegressionCoefficients(m_uprim);
        m_but = m_uprim.GetRegressionCoefficients(m_tprim);
    }
    m_xOfToyprim = LoadingsOf(m_x, m_toyprim);
    m_yOfToxprim = LoadingsOf(m_y, m_toxprim);
}

void NCO2PLS::UnFit()
{
    ClearPredictive();
    for (NCDataMatrix<float>* m : {&m_toxprim, &m_woxprim, &m_poxprim, &m_toyprim, &m_woyprim, &m_poyprim,
                                   &m_xOfToyprim, &m_yOfToxprim, &m_e, &m_f})
        m->Clear();
}

NCDataMatrix<float> NCO2PLS::GetCoefficients() const
{
    if (SizePredictive() == 0 || m_btu.empty())
        return NCDataMatrix<float>(m_x.SizeColumns(), m_y.SizeColumns(), 0.0f);
    return JointCoefficients(m_wprim, m_btu, m_cprim);
}

NCDataMatrix<float> NCO2PLS::GetXCoefficients() const
{
    if (SizePredictive() == 0 || m_but.empty())
        return NCDataMatrix<float>(m_y.SizeColumns(), m_x.SizeColumns(), 0.0f);
    return JointCoefficients(m_cprim, m_but, m_wprim);
}

void NCO2PLS::FlipPredictiveModel()
{
    for (NCDataMatrix<float>* m : {&m_tprim, &m_uprim, &m_pprim, &m_wprim, &m_cprim, &m_qprim})
        Negate(*m);
}

void NCO2PLS::FlipXSideModel()
{
    for (NCDataMatrix<float>* m : {&m_toxprim, &m_woxprim, &m_poxprim, &m_yOfToxprim})
        Negate(*m);
}

void NCO2PLS::FlipYSideModel()
{
    for (NCDataMatrix<float>* m : {&m_toyprim, &m_woyprim, &m_poyprim, &m_xOfToyprim})
        Negate(*m);
}

void NCO2PLS::SetShowMissingValueSupstitution(bool show)
{
    g_showMissingValueSubstitution = show;
}

bool NCO2PLS::GetShowMissingValueSupstitution()
{
    return g_showMissingValueSubstitution;
}

NCO2PLSDimensionalityException::NCO2PLSDimensionalityException(int side, int orthX, int orthY)
    : NCError(FormatException(side, orthX, orthY), NCError::Error), m_side(side), m_orthX(orthX), m_orthY(orthY)
{
}

NCO2PLSDimensionalityException::~NCO2PLSDimensionalityException() = default;

ExceptionMessageList NCO2PLSDimensionalityException::FormatException(int side, int orthX, int orthY)
{
    const bool x = side == XSide;
    const int count = x ? orthX : orthY;
    ExceptionMessageList list;
    if (count == 0)
        list << ExceptionMessage::translate(x ? "There are no OPLS-orthogonal dimensions in X.\n"
                                              : "There are no OPLS-orthogonal dimensions in Y.\n");
    else if (count == 1)
        list << ExceptionMessage::translate(x ? "There is only 1 OPLS-orthogonal dimension in X.\n"
                                              : "There is only 1 OPLS-orthogonal dimension in Y.\n");
    else
        list << (ExceptionMessage::translate(x ? "There are only {1} OPLS-orthogonal dimensions in X.\n"
                                               : "There are only {1} OPLS-orthogonal dimensions in Y.\n")
                 % std::to_string(count));
    list << ExceptionMessage::translate("More components can not be calculated.");
    return list;
}

void SetO2PLSInternalQ2Limit(float limit)
{
    StoreLimit(g_internalQ2Limit, limit);
}

void SetO2PLSExternalQ2Limit(float limit)
{
    StoreLimit(g_externalQ2Limit, limit);
}

float GetO2PLSInternalQ2Limit()
{
    return ReadLimit(g_internalQ2Limit);
}

float GetO2PLSExternalQ2Limit()
{
    return ReadLimit(g_externalQ2Limit);
}
