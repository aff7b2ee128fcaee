#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/platform/Export.h"

// Predictions of an OPLS model for new observations X (N' x K), one
// orthogonal component at a time. The constructor gives the predictive-only
// stage; each CalcNextComponent removes the next orthogonal component from
// X and predicts again. Predictions are on the scale the model was fitted
// on; unscaling is the caller's.
class VELTANCMAT_API NCOPLSPred {
public:
    using MatrixList = NCOPLS::MatrixList;

    // Throws NCInternalError when x has not the model's K columns or the
    // model has no fitted stage.
    NCOPLSPred(const NCDataMatrix<float>* x, const NCOPLS* model);
    NCOPLSPred(const NCDataMatrix<float>* x, const MatrixList& wList, const MatrixList& pList,
               const MatrixList& cList, const NCDataMatrix<float>& woprim, const NCDataMatrix<float>& poprim,
               const NCDataMatrix<float>& coprim);

    // Applies the next orthogonal component; at most GetMaxComp() times.
    void CalcNextComponent();

    int SizePComps() const { return m_tpred.SizeRows(); }
    int SizeOComps() const { return m_topred.SizeRows(); }
    int GetMaxComp() const { return m_woprim.SizeRows(); }

    // N' x M.
    const NCDataMatrix<float>* GetYPred() const { return &m_ypred; }
    // Predictive scores of the current stage, A x N'.
    const NCDataMatrix<float>* GetTPred() const { return &m_tpred; }
    // Orthogonal scores of the applied components, one row each.
    const NCDataMatrix<float>* GetTOPred() const { return &m_topred; }
    // X with the applied orthogonal components removed.
    const NCDataMatrix<float>* GetXOrthoResiduals() const { return &m_x; }

private:
    void Finalise();
    // The predictive scores of stage `stage` on a copy of X, rows of `scores`;
    // adds their Y part to the prediction when `predict` is set.
    NCDataMatrix<float> StageResiduals(int stage, NCDataMatrix<float>& scores, bool predict);

    NCDataMatrix<float> m_x;
    NCDataMatrix<float> m_ypred;
    MatrixList m_wList;
    MatrixList m_pList;
    MatrixList m_cList;
    NCDataMatrix<float> m_woprim;
    NCDataMatrix<float> m_poprim;
    NCDataMatrix<float> m_coprim;
    NCDataMatrix<float> m_topred;
    NCDataMatrix<float> m_tpred;
};
