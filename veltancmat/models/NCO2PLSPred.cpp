// Prediction of the two-way orthogonal model, after Trygg and Wold,
// J. Chemometrics 17 (2003) 53-64; docs/o2pls.md.
#include "veltancmat/models/NCO2PLSPred.h"

#include "veltancmat/platform/NCError.h"

namespace {

// Projects each row of `e` on the rows of `weights` in turn, removing each
// score times its `removed` row before the next: the scores come back as
// rows.
NCDataMatrix<float> PeelOff(NCDataMatrix<float>& e, const NCDataMatrix<float>& weights,
                            const NCDataMatrix<float>& removed)
{
    NCDataMatrix<float> scores;
    for (int a = 1; a <= weights.SizeRows(); ++a) {
        scores.push_back(e.SpecialNipalsRegressRowsFix(weights[a]));
        e.TransformToSub_V_x_Vt(scores[a], removed[a]);
    }
    return scores;
}

} // namespace

NCO2PLSPred::NCO2PLSPred(const NCO2PLS& model, const NCDataMatrix<float>& rows, bool fromX) : m_fromX(fromX)
{
    const NCDataMatrix<float>& block = fromX ? model.GetX() : model.GetY();
    if (rows.SizeColumns() != block.SizeColumns())
        throw NCInternalError("NCO2PLSPred::NCO2PLSPred");
    m_filtered = rows;
    m_orthogonalScores = fromX ? PeelOff(m_filtered, model.GetWOXprim(), model.GetPOXprim())
                               : PeelOff(m_filtered, model.GetWOYprim(), model.GetPOYprim());
    // The joint part is deflated by its own weights (t w', u c').
    const NCDataMatrix<float>& weights = fromX ? model.GetWprim() : model.GetCprim();
    const NCDataMatrix<float>& otherWeights = fromX ? model.GetCprim() : model.GetWprim();
    m_residuals = m_filtered;
    m_jointScores = PeelOff(m_residuals, weights, weights);
    const int otherColumns = fromX ? model.GetY().SizeColumns() : model.GetX().SizeColumns();
    if (m_jointScores.SizeRows() == 0) {
        m_prediction = NCDataMatrix<float>(rows.SizeRows(), otherColumns, 0.0f);
        return;
    }
    const NCDataMatrix<float>& relation = fromX ? model.GetBTU() : model.GetBUT();
    m_prediction = m_jointScores.MultiplyTransposeThis(relation).MatrixMultiply(otherWeights);
}
