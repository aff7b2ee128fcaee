#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCError.h"

// Two-way orthogonal PLS (O2PLS; Trygg and Wold, J. Chemometrics 17 (2003)
// 53-64) of two complete, preprocessed blocks X (N x K) and Y (N x M):
//
//   X = T W' + TO_X PO_X' + E        Y = U C' + TO_Y PO_Y' + F
//
// T and U are the joint scores the blocks share, related by U = T B_TU (and
// T = U B_UT); TO_X is the variation of X orthogonal to Y, TO_Y that of Y
// orthogonal to X. Every inner step is a PLS step of NCPLS: the joint
// weights are the leading singular vectors of the cross-product of the two
// (filtered) blocks, found one at a time from blocks deflated by t w' and
// u c', which reproduces the paper's singular value decomposition for any
// number of joint components. docs/o2pls.md has the equations.
//
// The numbers of components are given by the caller (cross-validation lives
// outside the model):
//
//   NCO2PLS model(x, y, true, NCNipals::DefaultMaxIterations);
//   model.Fit(2, 1, 1);      // 2 joint, 1 X-orthogonal, 1 Y-orthogonal
//
// Component vectors are rows: T', U' and the orthogonal scores hold N values,
// W', P' and the X-side orthogonal vectors K values, C', Q' and the Y-side
// ones M values. Missing values are refused at construction.
//
// The steps of Fit are public so that a caller can grow a model one
// component at a time; their order is UnFit, NextOrthogonalComponent (X
// side, then Y side), InitPredCompCalculation, NextPredictiveComp and
// SubtractLastPredictiveComp, Finalise. A throw leaves the matrices as they
// were at the throw: refit or discard the object.
class VELTANCMAT_API NCO2PLS {
public:
    // Copies both blocks. Different row counts, or any missing cell, throw
    // NCInternalError ("NCO2PLS::NCO2PLS"). `checkDimensions` enables the
    // dimensionality checks of the orthogonal components; `iterations`
    // bounds the NIPALS loops of the orthogonal components.
    NCO2PLS(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, bool checkDimensions, int iterations);
    NCO2PLS(const NCO2PLS&) = default;
    NCO2PLS& operator=(const NCO2PLS&) = default;
    NCO2PLS(NCO2PLS&&) noexcept = default;
    NCO2PLS& operator=(NCO2PLS&&) noexcept = default;
    virtual ~NCO2PLS();

    // The whole model: nOrthX and nOrthY orthogonal components, then nPred
    // joint ones. A model that holds components is emptied first.
    void Fit(int nPred, int nOrthX, int nOrthY);

    // One more orthogonal component of X (xSide) or of Y, against the other
    // block as given, for a model of nPred joint components. Throws
    // NCO2PLSDimensionalityException when the check flag is on and the side
    // has no dimension left.
    void NextOrthogonalComponent(bool xSide, int nPred);
    // E and F become the blocks without their orthogonal parts; the joint
    // matrices are emptied.
    void InitPredCompCalculation();
    // One joint component from E and F; out of sequence (E empty) it throws
    // NCInternalError "Function call out of sequence.".
    void NextPredictiveComp();
    // E -= t w', F -= u c' for the newest joint component.
    void SubtractLastPredictiveComp();
    // The inner relations and the cross loadings of the orthogonal scores.
    // Missing joint scores throw NCError "OPLS model could not be calculated.".
    void Finalise();
    // Removes every component and every derived matrix.
    void UnFit();

    // Y from X (K x M) and X from Y (M x K) through the joint part, for
    // blocks whose orthogonal parts are removed:
    //   Y_joint = X_filtered W* B_TU C',   X_joint = Y_filtered C* B_UT W'.
    NCDataMatrix<float> GetCoefficients() const;
    NCDataMatrix<float> GetXCoefficients() const;

    // Negate the joint components (T, U, W, P, C, Q), the X-orthogonal ones
    // (with the Y loadings of their scores) or the Y-orthogonal ones (with
    // the X loadings of their scores). Every reconstruction, B_TU and B_UT
    // stay as they were.
    void FlipPredictiveModel();
    void FlipXSideModel();
    void FlipYSideModel();

    int SizePredictive() const { return m_tprim.SizeRows(); }
    int SizeOrthogonalX() const { return m_toxprim.SizeRows(); }
    int SizeOrthogonalY() const { return m_toyprim.SizeRows(); }
    int GetIterations() const { return m_iterations; }
    bool GetCheckDimensions() const { return m_checkDimensions; }
    float GetSSX() const { return m_ssX; }
    float GetSSY() const { return m_ssY; }

    const NCDataMatrix<float>& GetX() const { return m_x; }
    const NCDataMatrix<float>& GetY() const { return m_y; }
    const NCDataMatrix<float>& GetTprim() const { return m_tprim; }
    const NCDataMatrix<float>& GetUprim() const { return m_uprim; }
    const NCDataMatrix<float>& GetPprim() const { return m_pprim; }
    const NCDataMatrix<float>& GetWprim() const { return m_wprim; }
    const NCDataMatrix<float>& GetCprim() const { return m_cprim; }
    const NCDataMatrix<float>& GetQprim() const { return m_qprim; }
    const NCDataMatrix<float>& GetTOXprim() const { return m_toxprim; }
    const NCDataMatrix<float>& GetWOXprim() const { return m_woxprim; }
    const NCDataMatrix<float>& GetPOXprim() const { return m_poxprim; }
    const NCDataMatrix<float>& GetTOYprim() const { return m_toyprim; }
    const NCDataMatrix<float>& GetWOYprim() const { return m_woyprim; }
    const NCDataMatrix<float>& GetPOYprim() const { return m_poyprim; }
    // X loadings of the Y-orthogonal scores, Y loadings of the X-orthogonal ones.
    const NCDataMatrix<float>& GetXLoadingsOfTOYprim() const { return m_xOfToyprim; }
    const NCDataMatrix<float>& GetYLoadingsOfTOXprim() const { return m_yOfToxprim; }
    // A x A: U ~ T B_TU and T ~ U B_UT.
    const NCDataMatrix<float>& GetBTU() const { return m_btu; }
    const NCDataMatrix<float>& GetBUT() const { return m_but; }
    // The working residuals; empty outside a fit.
    const NCDataMatrix<float>& GetXResiduals() const { return m_e; }
    const NCDataMatrix<float>& GetYResiduals() const { return m_f; }

    // Read by the host's missing-value handling around the model; the model
    // itself never substitutes a value.
    static void SetShowMissingValueSupstitution(bool show);
    static bool GetShowMissingValueSupstitution();

private:
    struct Side;
    Side Own(bool xSide);
    void CheckDimensions(bool xSide, int nPred) const;
    void ClearPredictive();

    NCDataMatrix<float> m_x, m_y;
    int m_iterations = 0;
    NCDataMatrix<float> m_tprim, m_uprim, m_pprim, m_wprim, m_cprim, m_qprim;
    NCDataMatrix<float> m_toxprim, m_woxprim, m_poxprim;
    NCDataMatrix<float> m_toyprim, m_woyprim, m_poyprim;
    NCDataMatrix<float> m_xOfToyprim, m_yOfToxprim;
    NCDataMatrix<float> m_btu, m_but;
    NCDataMatrix<float> m_e, m_f;
    float m_ssX = 0.0f, m_ssY = 0.0f;
    bool m_checkDimensions = true;
};

// A side of an O2PLS model has no orthogonal dimension left for the
// component asked for.
class VELTANCMAT_API NCO2PLSDimensionalityException : public NCError {
public:
    enum SideE : int { XSide = 1, YSide = 2 };

    // `side` ran out; orthX and orthY are the orthogonal counts of both sides.
    NCO2PLSDimensionalityException(int side, int orthX, int orthY);
    NCO2PLSDimensionalityException(const NCO2PLSDimensionalityException&) = default;
    ~NCO2PLSDimensionalityException() override;

    int GetSide() const { return m_side; }
    int GetOrthogonalX() const { return m_orthX; }
    int GetOrthogonalY() const { return m_orthY; }

    // The sentence of the side that ran out, then "More components can not
    // be calculated.".
    static ExceptionMessageList FormatException(int side, int orthX, int orthY);

private:
    int m_side, m_orthX, m_orthY;
};

// The Q2 limits of the two-way cross-validation, process-wide and unlocked.
// A setter keeps a value in [0, 1] or -99 (not set) and ignores any other;
// a getter that finds -99 stores and returns the default 0.01.
VELTANCMAT_API void SetO2PLSInternalQ2Limit(float limit);
VELTANCMAT_API void SetO2PLSExternalQ2Limit(float limit);
VELTANCMAT_API float GetO2PLSInternalQ2Limit();
VELTANCMAT_API float GetO2PLSExternalQ2Limit();
