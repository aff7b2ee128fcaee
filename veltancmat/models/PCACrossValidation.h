#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/platform/NCProgress.h"

// Cross-validation of the components of an NCPCA, one component per call.
//
// Each call refits the component on the model's current residuals with one
// group of observations left out at a time (giving loadings that never saw
// those rows) and with one group of variables left out at a time (giving
// scores that never saw those columns), predicts every cell from the pair
// that did not see it, and turns the prediction errors into Q2 per variable
// and in total, with cumulative values over the components validated so far.
//
// Call it after the model's NextComponent and before its CalculateResiduals,
// with the new component's loading:
//
//   pca.NextComponent(progress, nullptr, 0, nullptr);
//   cv.NextComponent(pca.GetPprim()->GetRow(a), progress, a);
class VELTANCMAT_API PCACrossValidation {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // groups: number of groups (at least 2). Null label vectors take the
    // default labels (GetDeafultCVGroupsVector) over the observations and
    // over the variables. Throws NCError for fewer than two groups and
    // NCInternalError for label vectors of the wrong length.
    PCACrossValidation(NCPCA* model, int groups, const IndexList* observationGroups,
                       const IndexList* variableGroups);
    // Continues the cumulative values of an earlier validation of the same
    // data: q2Cum is its total cumulative Q2 and q2VarCum its per-variable
    // cumulative Q2 (K values), so that a model rebuilt from parts keeps
    // counting from where the earlier validation stopped.
    PCACrossValidation(NCPCA* model, float q2Cum, const NCDataVector<float>& q2VarCum, int groups,
                       const IndexList* observationGroups, const IndexList* variableGroups);

    // Validates the component with loading `loading` (K values), fitted on
    // the model's current residuals. `component` is its number: component 1
    // starts the cumulative values afresh, a later one continues them.
    // Errors of the refits pass through unchanged, a break as CancelException.
    void NextComponent(const NCDataVector<float>& loading, NCProgress* progress, int component);

    float GetQ2Tot() const { return m_q2; }
    float GetQ2TotCum() const { return m_q2Cum; }
    const NCDataVector<float>& GetQ2XVar() const { return m_q2Var; }
    const NCDataVector<float>& GetQ2XVarCum() const { return m_q2VarCum; }
    // N x K: e_ij - t_i p_j from the cross-validated score and loading, or
    // missing where one of the three is missing.
    const NCDataMatrix<float>& GetXPredResiduals() const { return m_predResiduals; }
    // One row per group: the loadings of the observation rounds (K columns)
    // and the rescaled scores of the variable rounds (N columns). Row r
    // belongs to the group labelled r mod groups.
    const NCDataMatrix<float>& GetPSet() const { return m_pset; }
    const NCDataMatrix<float>& GetTSet() const { return m_tset; }

    // The Q2 above which component `a` is significant on a residual matrix
    // of the model's size; missing for a < 1.
    float GetQ2Lim(int a, bool centred) const;
    static float GetQ2Lim(int a, bool centred, int observations, int variables);

    int GetGroups() const { return m_groups; }
    // Cells the rounds' NIPALS passes of the last call read: the sum over
    // the rounds of rows x columns times (iterations + 1) on complete rows
    // (one sweep per iteration and one for the first loadings), else times
    // 2 x iterations. For throughput figures.
    long long GetRoundCells() const { return m_roundCells; }

private:
    void Init(const IndexList* observationGroups, const IndexList* variableGroups);
    void ObservationRounds(const NCDataMatrix<float>& e, const NCDataVector<float>& loading, NCProgress* progress);
    void VariableRounds(const NCDataMatrix<float>& e, const NCDataVector<float>& loading, NCProgress* progress);
    void Predict(const NCDataMatrix<float>& e, bool restart);
    int Round(int label) const { return label == 0 ? m_groups : label; }

    NCPCA* m_model;
    int m_groups;
    IndexList m_obsGroups;
    IndexList m_varGroups;
    float m_q2 = 0.0f;
    float m_q2Cum = 0.0f;
    NCDataVector<float> m_q2Var;
    NCDataVector<float> m_q2VarCum;
    NCDataVector<float> m_startSS; // per variable, of the residuals the validation started on
    NCDataMatrix<float> m_predResiduals;
    NCDataMatrix<float> m_pset;
    NCDataMatrix<float> m_tset;
    long long m_roundCells = 0;
};
