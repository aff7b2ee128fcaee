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
    const NCDataMatrix<float>& other = fromX ? model.GetY() : model.GetX();
    const int a = model.SizePredictive();
    // The other block's weights keep its width even without joint components.
    const NCDataMatrix<float> otherWeights =
        a > 0 ? (fromX ? model.GetCprim() : model.GetWprim()) : NCDataMatrix<float>(0, other.SizeColumns());
    if (fromX)
        Predict(rows, model.GetWOXprim(), model.GetPOXprim(), model.GetWprim(), model.GetBTU(), otherWeights);
    else
        Predict(rows, model.GetWOYprim(), model.GetPOYprim(), model.GetCprim(), model.GetBUT(), otherWeights);
}

NCO2PLSPred::NCO2PLSPred(const NCDataMatrix<float>& rows, const NCDataMatrix<float>& orthogonalWeights,
                         const NCDataMatrix<float>& orthogonalLoadings, const NCDataMatrix<float>& jointWeights,
                         const NCDataMatrix<float>& relation, const NCDataMatrix<float>& otherWeights, bool fromX)
    : m_fromX(fromX)
{
    const int width = rows.SizeColumns(), a = jointWeights.SizeRows();
    const auto fits = [width](const NCDataMatrix<float>& m) { return m.SizeRows() == 0 || m.SizeColumns() == width; };
    if (!fits(orthogonalWeights) || !fits(orthogonalLoadings) || !fits(jointWeights) ||
        orthogonalWeights.SizeRows() != orthogonalLoadings.SizeRows() || otherWeights.SizeRows() != a ||
        (a > 0 && (relation.SizeRows() != a || relation.SizeColumns() != a)))
        throw NCInternalError("NCO2PLSPred::NCO2PLSPred");
    Predict(rows, orthogonalWeights, orthogonalLoadings, jointWeights, relation, otherWeights);
}

void NCO2PLSPred::Predict(const NCDataMatrix<float>& rows, const NCDataMatrix<float>& orthogonalWeights,
                          const NCDataMatrix<float>& orthogonalLoadings, const NCDataMatrix<float>& jointWeights,
                          const NCDataMatrix<float>& relation, const NCDataMatrix<float>& otherWeights)
{
    m_filtered = rows;
    m_orthogonalScores = PeelOff(m_filtered, orthogonalWeights, orthogonalLoadings);
    // The joint part is deflated by its own weights (t w', u c').
    m_residuals = m_filtered;
    m_jointScores = PeelOff(m_residuals, jointWeights, jointWeights);
    if (m_jointScores.SizeRows() == 0) {
        m_prediction = NCDataMatrix<float>(rows.SizeRows(), otherWeights.SizeColumns(), 0.0f);
        return;
    }
    m_prediction = m_jointScores.MultiplyTransposeThis(relation).MatrixMultiply(otherWeights);
}
