#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <utility>
#include <vector>

// Orthogonal PLS of preprocessed responses Y (N x M) on preprocessed
// predictors X (N x K), built one stage at a time. The predictive part is
// spanned by A weight vectors taken from the covariance Y'X; each orthogonal
// component is one score/loading pair of X that the predictive basis does
// not explain, removed from X (and its Y part from Y) before the predictive
// part is fitted again. Missing cells of X and Y are skipped by the
// projections and never imputed.
//
//   NCOPLS opls(&x, &y, 0, NCNipals::DefaultMaxIterations);   // A chosen by the data
//   opls.NextComponent(progress);         // stage 0: predictive part only
//   while (want_more(opls))               // cross-validation, OPLSCrossValidation
//       opls.NextComponent(progress);     // one more orthogonal component
//
// Component vectors are rows: T', U' are A x N, each stage's W', P' are
// A x K and C' is A x M; the orthogonal TO', UO' have one row of N values
// per orthogonal component, PO' and WO' K values and CO' M values.
class VELTANCMAT_API NCOPLS {
public:
    using MatrixList = std::vector<NCDataMatrix<float>>;
    // Cells as (row, column), in row-major order without duplicates.
    using CellSet = std::vector<std::pair<int, int>>;

    // Copies x and y (equal row counts). numPredictive <= 0 lets the first
    // fit choose A; a larger value than min(N, M) is lowered to it.
    // maxIterations bounds the basis refinement and the NIPALS loops of the
    // inner principal component models.
    NCOPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, int numPredictive, int maxIterations);
    // Rebuilds a fitted model from the matrices of its stages (one W, P and
    // C matrix per stage, the stage count one more than the rows of WO');
    // the scores are recomputed from x and y.
    NCOPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, const MatrixList& wList,
           const MatrixList& pList, const MatrixList& cList, const NCDataMatrix<float>& woprim,
           const NCDataMatrix<float>& poprim, const NCDataMatrix<float>& coprim, int numPredictive,
           int maxIterations);
    NCOPLS(const NCOPLS& other) = default;
    NCOPLS& operator=(const NCOPLS& other) = default;
    NCOPLS(NCOPLS&& other) noexcept = default;
    NCOPLS& operator=(NCOPLS&& other) noexcept = default;
    virtual ~NCOPLS();

    // The first call fits the predictive part; each later call removes one
    // more orthogonal component and refits it. A break throws
    // CancelException and leaves the model to be discarded.
    void NextComponent(NCProgress* progress);

    int SizeComponents() const { return m_tprim.SizeRows(); }
    int SizeOrthogonalComponents() const { return m_toprim.SizeRows(); }
    // Predictive basis vectors in use (the chosen A once fitted; 0 or less
    // before an automatic choice).
    int GetNumPredictive() const { return m_numPredictive; }
    int GetMaxIterations() const { return m_maxIterations; }
    // Passes of the basis refinement in the latest fit.
    int GetRefinementCount() const { return m_refinementCount; }

    const NCDataMatrix<float>* GetTprim() const { return &m_tprim; }
    const NCDataMatrix<float>* GetUprim() const { return &m_uprim; }
    // The current stage's predictive matrices; only after a fit.
    const NCDataMatrix<float>* GetWprim() const { return &m_wList.back(); }
    const NCDataMatrix<float>* GetPprim() const { return &m_pList.back(); }
    const NCDataMatrix<float>* GetCprim() const { return &m_cList.back(); }
    const NCDataMatrix<float>* GetTOprim() const { return &m_toprim; }
    const NCDataMatrix<float>* GetPOprim() const { return &m_poprim; }
    const NCDataMatrix<float>* GetCOprim() const { return &m_coprim; }
    const NCDataMatrix<float>* GetWOprim() const { return &m_woprim; }
    const NCDataMatrix<float>* GetUOprim() const { return &m_uoprim; }
    // One entry per stage, stage 0 first.
    const MatrixList* GetWMatrices() const { return &m_wList; }
    const MatrixList* GetPMatrices() const { return &m_pList; }
    const MatrixList* GetCMatrices() const { return &m_cList; }
    // X and Y with the orthogonal components removed.
    const NCDataMatrix<float>* GetFilteredX() const { return &m_x; }
    const NCDataMatrix<float>* GetFilteredY() const { return &m_y; }

    // The filtered X minus T P' and the filtered Y minus T C' of the
    // current stage.
    NCDataMatrix<float> GetXResiduals() const;
    NCDataMatrix<float> GetYResiduals() const;

    // Change the sign of predictive component a (W, P, C, T', basis
    // scores) or orthogonal component a (WO', PO', CO', TO'). The Y scores
    // keep their sign.
    void NegatePredictiveComp(int a);
    void NegateOComp(int a);

private:
    void CalcOPLS(NCProgress* progress);
    void NextOrthogonalComponent(NCProgress* progress);
    void CatchUp();
    // The basis from the accumulated covariance S (rows: responses).
    NCDataMatrix<float> BasisFrom(const NCDataMatrix<float>& s, int knownSize);
    // E minus the projection of its rows on the rows of `basis`, one after
    // another; the projections become the rows of `scores`.
    static void RemoveBasis(NCDataMatrix<float>& e, const NCDataMatrix<float>& basis, NCDataMatrix<float>& scores);
    static void BasisScores(const NCDataMatrix<float>& x, const NCDataMatrix<float>& basis,
                            NCDataMatrix<float>& scores);
    // T', U' and the stage's P' and C' from the filtered X and Y on `basis`;
    // with given P' and C' only the scores are computed.
    void PredictiveScores(const NCDataMatrix<float>& basis, NCDataMatrix<float>* pprim, NCDataMatrix<float>* cprim,
                          const NCDataMatrix<float>* givenP, const NCDataMatrix<float>* givenC);

    static void FindMissingValue(const NCDataMatrix<float>& m, CellSet& cells);

    NCDataMatrix<float> m_x;
    NCDataMatrix<float> m_y;
    MatrixList m_wList;
    NCDataMatrix<float> m_tprim;
    NCDataMatrix<float> m_uprim;
    MatrixList m_pList;
    MatrixList m_cList;
    NCDataMatrix<float> m_basisScores;
    NCDataMatrix<float> m_toprim;
    NCDataMatrix<float> m_poprim;
    NCDataMatrix<float> m_coprim;
    NCDataMatrix<float> m_woprim;
    NCDataMatrix<float> m_uoprim;
    CellSet m_xMissingCells;
    CellSet m_yMissingCells;
    int m_maxIterations = 0;
    int m_refinementCount = 0;
    int m_numPredictive = 0;
};
