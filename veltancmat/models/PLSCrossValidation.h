#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <vector>

namespace NCNipals {
struct CrossValidationRound;
}

// Cross-validation of the components of an NCPLS, one component per call.
//
// Each call refits the component on the model's current X and Y residuals
// with one group of observations left out at a time, projects the left-out
// rows on the refitted weights, predicts their Y residuals from those
// scores, and turns the prediction errors into Q2 per response and in
// total, with cumulative values over the components validated so far.
//
// Call it after the model's NextComponent and before its CalculateResiduals,
// with the new component's scores:
//
//   pls.NextComponent(progress, nullptr, false, true);
//   const int a = pls.GetComponents();
//   cv.NextComponent(nullptr, pls.GetMaxIterations(), (*pls.GetTprim())[a], progress, true);
//   pls.CalculateResiduals();
class VELTANCMAT_API PLSCrossValidation {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // groups: number of groups (at least 2). A null label vector takes the
    // default labels (GetDeafultCVGroupsVector) over the observations.
    // Throws NCError for fewer than two groups or a label outside 0 to
    // groups - 1, NCInternalError for a missing model or labels of the wrong
    // length.
    PLSCrossValidation(NCPLS* model, int groups, const IndexList* observationGroups);
    // Continues the cumulative values of an earlier validation of the same
    // data: q2Cum is its total cumulative Q2 and q2YVarCum its per-response
    // cumulative Q2 (M values).
    PLSCrossValidation(NCPLS* model, float q2Cum, const NCDataVector<float>& q2YVarCum, int groups,
                       const IndexList* observationGroups);
    virtual ~PLSCrossValidation();

    // Validates the component the model is adding, fitted on its current
    // residuals. start: optional start X-weights (K values) for the rounds;
    // maxIterations: the rounds' NIPALS limit; scores: the model's scores of
    // this component (N values), which give the rounds' components their
    // sign; strict is passed to NCPLS::NextComponent, so a round without
    // X-Y correlation throws its level-1 NCError. A break surfaces as
    // CancelException.
    void NextComponent(const NCDataVector<float>* start, int maxIterations, const NCDataVector<float>& scores,
                       NCProgress* progress, bool strict);

    float GetQ2Tot() const { return m_q2; }
    float GetQ2TotCum() const { return m_q2Cum; }
    const NCDataVector<float>& GetQ2YVar() const { return m_q2YVar; }
    const NCDataVector<float>& GetQ2YVarCum() const { return m_q2YVarCum; }
    // Per response: the sums of squares of the Y residuals the last
    // validated component was fitted on, and of those the validation
    // started on (the responses themselves for a model without components).
    const NCDataVector<float>& GetSSY() const { return m_ssY; }
    const NCDataVector<float>& GetSSYOriginal() const { return m_ssYOriginal; }
    // N values: each observation's score from the round that left it out;
    // missing where its X row gave no score.
    const NCDataVector<float>& GetTPred() const { return m_tpred; }
    // N x M: f_im - tpred_i c_im with the Y-weights of the round that left
    // row i out; missing where one of them is missing.
    const NCDataMatrix<float>& GetYPredResiduals() const { return m_yPredResiduals; }
    // One row per group; row r belongs to the group labelled r mod groups.
    // W and P sets have K columns, C sets M columns; the T set has N
    // columns holding the round's scores of the rows it was fitted on and
    // missing values at the rows it left out. A round that left no row out
    // (or every row) is all missing.
    const NCDataMatrix<float>& GetWSet() const { return m_wset; }
    const NCDataMatrix<float>& GetPSet() const { return m_pset; }
    const NCDataMatrix<float>& GetTSet() const { return m_tset; }
    const NCDataMatrix<float>& GetCSet() const { return m_cset; }

    // The Q2 a component must exceed: 0.05, or 0 for more than 100
    // observations, where chance Q2 values are small.
    float GetQ2Lim() const;
    int GetGroups() const { return m_groups; }
    // X cells the rounds of the last call worked through: per round, its
    // fit's sum of squares, two passes per NIPALS iteration and the
    // loadings over the kept rows, and the projection of the left-out rows.
    // For throughput figures. The rounds share their passes over X, so the
    // matrix itself is loaded once per step for all of them.
    long long GetRoundCells() const { return m_roundCells; }

    // The significance rule of a cross-validated PLS component, arguments
    // in order: observations N, X variables K, responses M (the length of
    // both vectors used), components already in the model, the
    // component's R2 and per-response R2, its Q2 and per-response Q2, and
    // the Q2 limit. Throws NCInternalError when a vector is shorter than M.
    static SignificanceE::Significance GetSignificance(int observations, int variables, int responses,
                                                       int earlierComponents, float r2,
                                                       const NCDataVector<float>& r2Responses, float q2,
                                                       const NCDataVector<float>& q2Responses, float q2Limit);

private:
    void Init(const IndexList* observationGroups);
    // Writes the predictions of the rows `round` left out, its rows of the
    // sets, and its terms of the sums of Q2 (per response, 1-based).
    void PredictLeftOut(const NCNipals::CrossValidationRound& round, std::vector<double>& ss,
                        std::vector<double>& press);

    NCPLS* m_model;
    int m_groups;
    IndexList m_obsGroups;
    float m_q2 = 0.0f;
    float m_q2Cum = 0.0f;
    NCDataVector<float> m_q2YVar;
    NCDataVector<float> m_q2YVarCum;
    NCDataVector<float> m_ssY;
    NCDataVector<float> m_ssYOriginal;
    NCDataVector<float> m_tpred;
    NCDataMatrix<float> m_yPredResiduals;
    NCDataMatrix<float> m_wset;
    NCDataMatrix<float> m_pset;
    NCDataMatrix<float> m_tset;
    NCDataMatrix<float> m_cset;
    long long m_roundCells = 0;
};
