#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/models/PLSCrossValidation.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <memory>
#include <vector>

// A PLS model together with its cross-validation: each NextComponent fits,
// cross-validates, deflates and classifies one component, the loop every
// caller of a cross-validated PLS model runs:
//
//   PLS_CrossValidated model(x, y, 7, nullptr);
//   while (SignificanceE::IsSignificant(model.NextComponent(progress)))
//       ;
//   const int a = model.GetComponents();           // the significant ones
//
// A component that fails the X-Y correlation guard throws the model's
// level-1 NCError (NCPLS::IsNoCorrelation tells it apart), and a break
// throws CancelException "PLS component aborted."; either ends the fit,
// the components before it standing.
class VELTANCMAT_API PLS_CrossValidated {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // Per-component record. R2 values are shares of the sums of squares of
    // the blocks as given (missing where a block has none); per-response
    // vectors have M entries.
    struct Component {
        float r2x = 0.0f, r2xCum = 0.0f;
        float r2y = 0.0f, r2yCum = 0.0f;
        NCDataVector<float> r2yResponses, r2yCumResponses; // the component's own, and cumulative
        float q2 = 0.0f, q2Cum = 0.0f, q2Limit = 0.0f;
        NCDataVector<float> q2Responses, q2CumResponses;
        SignificanceE::Significance significance = SignificanceE::NA;
        int iterations = 0;
    };

    // x (N x K) and y (N x M): the preprocessed blocks, copied. groups and
    // observationGroups as for PLSCrossValidation (null: the default labels).
    PLS_CrossValidated(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int groups,
                       const IndexList* observationGroups, int maxIterations = NCNipals::DefaultMaxIterations);
    PLS_CrossValidated(const PLS_CrossValidated&) = delete;
    PLS_CrossValidated& operator=(const PLS_CrossValidated&) = delete;

    // Reorders the rows of the responses before the first component, for a
    // response permutation test (NCPLS::ShuffleYResiduals); the R2 values
    // stay shares of the sums of squares of y as given.
    void PermuteResponses(const int* permutation);

    // Fits, cross-validates and deflates the next component, records it and
    // returns its verdict (PLSCrossValidation::GetSignificance). The fit
    // reports into [0, 0.1] of `progress` (null allowed), the rounds into
    // [0.1, 1]. After a verdict other than significant the fit is over and a
    // further call throws NCError, unless KeepEveryComponent is on (a fixed
    // number of components). The model always holds every component fitted.
    SignificanceE::Significance NextComponent(NCProgress* progress);
    void KeepEveryComponent(bool on) { m_keepAll = on; }

    // Components that ended significant, up to the first that did not;
    // with KeepEveryComponent, every component fitted.
    int GetComponents() const { return m_kept; }
    const NCPLS& GetModel() const { return m_model; }
    const PLSCrossValidation& GetCrossValidation() const { return *m_cv; }
    const std::vector<Component>& GetRecords() const { return m_records; }
    // N x M: the responses' cross-validated prediction residuals after the
    // last kept component (PLSCrossValidation::GetYPredResiduals); empty
    // before the first.
    const NCDataMatrix<float>& GetKeptPredResiduals() const { return m_keptPredResiduals; }

private:
    // Records component a and moves the residual sums of squares on.
    Component Record(int a);

    NCPLS m_model;
    std::unique_ptr<PLSCrossValidation> m_cv;
    int m_groups;
    IndexList m_observationGroups;
    bool m_defaultGroups;
    std::vector<double> m_ssX0, m_ssY0; // per column, of the blocks as given
    double m_ssXBefore;                 // of the residuals before the newest component
    std::vector<double> m_ssYBefore;    // per column
    std::vector<Component> m_records;
    NCDataMatrix<float> m_keptPredResiduals;
    int m_kept = 0;
    bool m_keepAll = false;
    bool m_finished = false;
};
