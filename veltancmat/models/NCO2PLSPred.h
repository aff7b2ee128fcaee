#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/platform/Export.h"

// Predictions of a fitted NCO2PLS for new rows of one block, preprocessed as
// the model's blocks were: Y from new X, or X from new Y (Trygg and Wold
// 2003). For new X rows x:
//
//   for each X-orthogonal component:  to = x wo,  x <- x - to po'
//   t = x W   (component by component, x <- x - t_a w_a')
//   Y_hat = t B_TU C'
//
// and the mirror for new Y rows (Y-orthogonal components, U = y C,
// X_hat = u B_UT W'). Scores are row projections (NCDataMatrix::
// SpecialNipalsRegressRowsFix), so a row with missing cells is projected on
// its present cells; a row with none gets missing scores and predictions.
//
// Vectors are rows, as in the model: the scores are one row of n values per
// component; the prediction is n x M (from X) or n x K (from Y).
class VELTANCMAT_API NCO2PLSPred {
public:
    // `rows` holds new rows of X (fromX) or of Y; a column count other than
    // the model's block throws NCInternalError ("NCO2PLSPred::NCO2PLSPred").
    // The model is read only during construction.
    NCO2PLSPred(const NCO2PLS& model, const NCDataMatrix<float>& rows, bool fromX);
    // The same from the parts of one direction alone, as a saved model keeps
    // them: the given block's orthogonal weights and loadings (one row per
    // component, as wide as `rows`), its joint weights (W' from X, C' from
    // Y), the inner relation (B_TU from X, B_UT from Y) and the other block's
    // joint weights. Shapes that do not fit throw NCInternalError.
    NCO2PLSPred(const NCDataMatrix<float>& rows, const NCDataMatrix<float>& orthogonalWeights,
                const NCDataMatrix<float>& orthogonalLoadings, const NCDataMatrix<float>& jointWeights,
                const NCDataMatrix<float>& relation, const NCDataMatrix<float>& otherWeights, bool fromX);

    bool IsFromX() const { return m_fromX; }
    int SizeObservations() const { return m_filtered.SizeRows(); }
    // Scores of the given block's orthogonal components, one row each.
    const NCDataMatrix<float>& GetOrthogonalScores() const { return m_orthogonalScores; }
    // The rows less their orthogonal part.
    const NCDataMatrix<float>& GetFiltered() const { return m_filtered; }
    // Joint scores of the given block (T' from X, U' from Y), A x n.
    const NCDataMatrix<float>& GetJointScores() const { return m_jointScores; }
    // The other block's joint part predicted (T B_TU C' or U B_UT W').
    const NCDataMatrix<float>& GetPrediction() const { return m_prediction; }
    // The filtered rows less their joint part: what the model leaves of them.
    const NCDataMatrix<float>& GetResiduals() const { return m_residuals; }

private:
    void Predict(const NCDataMatrix<float>& rows, const NCDataMatrix<float>& orthogonalWeights,
                 const NCDataMatrix<float>& orthogonalLoadings, const NCDataMatrix<float>& jointWeights,
                 const NCDataMatrix<float>& relation, const NCDataMatrix<float>& otherWeights);

    bool m_fromX;
    NCDataMatrix<float> m_orthogonalScores;
    NCDataMatrix<float> m_filtered;
    NCDataMatrix<float> m_jointScores;
    NCDataMatrix<float> m_prediction;
    NCDataMatrix<float> m_residuals;
};

// Y predicted from new rows of X.
class VELTANCMAT_API NCO2PLSXPred : public NCO2PLSPred {
public:
    NCO2PLSXPred(const NCO2PLS& model, const NCDataMatrix<float>& x) : NCO2PLSPred(model, x, true) {}
};

// X predicted from new rows of Y.
class VELTANCMAT_API NCO2PLSYPred : public NCO2PLSPred {
public:
    NCO2PLSYPred(const NCO2PLS& model, const NCDataMatrix<float>& y) : NCO2PLSPred(model, y, false) {}
};
