#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/OPLSCrossvalidationData.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <vector>

class NCOPLS;

// Cross-validation of an OPLS model stage by stage. Each round leaves one
// group of observations out, fits an OPLS model on the rest and predicts the
// left-out rows; the pooled predictions give the cumulative Q2 per response
// and in total. The rounds' models are kept (GetData), so each further
// orthogonal component costs one step per round instead of a refit:
//
//   OPLSCrossValidation cv(&x, &y, a, 7, progress, nullptr);   // predictive part
//   do {
//       cv.NextComponent(progress);                             // one more orthogonal
//   } while (keep(cv.GetQ2TotCum()));
//
// Observations whose group label lies outside 0 .. rounds - 1 are never left
// out: they keep missing predictions and do not count in Q2.
class VELTANCMAT_API OPLSCrossValidation {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // Runs the rounds of the predictive-only model with numPredictive
    // components (<= 0: each round chooses). rounds above N is lowered to
    // N; null groups take GetDeafultCVGroupsVector(N, rounds). Throws
    // NCError for fewer than two rounds or a round that keeps no
    // observation, NCInternalError for sizes that do not fit.
    OPLSCrossValidation(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, int numPredictive, int rounds,
                        NCProgress* progress, const IndexList* groups);
    // Continues from stored rounds without computing; the results are
    // missing until the next NextComponent.
    OPLSCrossValidation(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y,
                        const OPLSCrossvalidationData* data, const IndexList* groups);
    OPLSCrossValidation(const OPLSCrossValidation&) = default;
    OPLSCrossValidation(OPLSCrossValidation&&) noexcept = default;
    OPLSCrossValidation& operator=(const OPLSCrossValidation&) = default;
    OPLSCrossValidation& operator=(OPLSCrossValidation&&) noexcept = default;
    virtual ~OPLSCrossValidation();

    // One more orthogonal component in every round's model, and all results
    // again.
    void NextComponent(NCProgress* progress);

    // 0.05 up to 100 observations, 0 above.
    float GetQ2Lim() const;
    int SizeCVRounds() const { return m_rounds; }
    int SizeOComponents() const;
    int GetNumPredictive() const { return m_numPredictive; }

    const OPLSCrossvalidationData& GetData() const { return m_data; }
    // N x M, missing for rows never left out.
    const NCDataMatrix<float>& GetYPred() const { return m_yPred; }
    // Y minus the cross-validated predictions.
    NCDataMatrix<float> GetYPredResiduals() const;
    const NCDataVector<float>& GetSSYcv() const { return m_ssYcv; }
    const NCDataVector<float>& GetSSYcvOriginal() const { return m_ssYcvOriginal; }
    // A x N and N: each observation's scores from the round that left it out.
    const NCDataMatrix<float>& GetTcv() const { return m_tcv; }
    const NCDataVector<float>& GetTocv() const { return m_tocv; }
    // Per predictive component a matrix rounds x N: row g + 1 holds round
    // g's scores, fitted for the rows it kept and predicted for those it
    // left out.
    const std::vector<NCDataMatrix<float>>& GetTSets() const { return m_tSets; }
    // The same for the last orthogonal component.
    const NCDataMatrix<float>& GetToSet() const { return m_toSet; }
    float GetQ2TotCum() const { return m_q2TotCum; }
    const NCDataVector<float>& GetQ2YVarCum() const { return m_q2YVarCum; }
    const IndexList& GetGroups() const { return m_groups; }

private:
    struct Split;
    void StartResults(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, const IndexList* groups);
    Split SplitRound(int g) const;
    void SaveModelMatrices(const NCOPLS& model, int g);
    void SaveGroupResults(const NCOPLS& model, const Split& split, int g);
    void SizeScoreSets(int components);
    void CalculateQ2();

    NCDataMatrix<float> m_x;
    NCDataMatrix<float> m_y;
    OPLSCrossvalidationData m_data;
    int m_rounds = 0;
    NCDataMatrix<float> m_yPred;
    int m_numPredictive = 0;
    NCDataVector<float> m_ssYcv;
    NCDataMatrix<float> m_tcv;
    NCDataVector<float> m_tocv;
    std::vector<NCDataMatrix<float>> m_tSets;
    NCDataMatrix<float> m_toSet;
    NCDataVector<float> m_ssYcvOriginal;
    float m_q2TotCum = NCMisVal<float>;
    NCDataVector<float> m_q2YVarCum;
    IndexList m_groups;
};
