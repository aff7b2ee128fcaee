#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/PCACrossValidation.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCProgress.h"

#include <vector>

// A PCA model together with its cross-validation: each NextComponent fits,
// validates and classifies one component and keeps it (deflating the
// residuals) unless it is clearly not significant.
class VELTANCMAT_API PCA_CrossValidated {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // Per-component record of the fit and its validation.
    struct Component {
        float r2 = 0.0f;          // share of the reference sum of squares this component explains
        float r2Cum = 0.0f;
        NCDataVector<float> r2Variables;
        float eigenvalue = 0.0f;  // r2 x K: an eigenvalue of the correlation matrix for unit-variance data
        float q2 = 0.0f;
        float q2Cum = 0.0f;
        NCDataVector<float> q2Variables;
        float q2Limit = 0.0f;
        SignificanceE::Significance significance = SignificanceE::NA;
        int iterations = 0;
    };

    // data: the preprocessed matrix (copied). reference: the matrix whose
    //   sums of squares R2 is measured against, usually the same data before
    //   components were removed; null uses data. Both are taken around the
    //   column means when the data are centred, else around zero.
    // groups: cross-validation groups (default labels over the observations).
    // variableGroups: labels of the variable rounds, null for the default.
    // centre: the scaling's centre vector; the data count as centred when it
    //   has a present value (an empty vector: not centred).
    // tolerance: the eigenvalue tolerance that confirms an undecided component.
    // earlierComponents: components fitted before this object took over,
    //   counted against the size of the data.
    PCA_CrossValidated(const NCDataMatrix<float>& data, const NCDataMatrix<float>* reference, int groups,
                       const IndexList* variableGroups, const NCDataVector<float>& centre, double tolerance,
                       int earlierComponents);

    // Fits, validates and classifies the next component. A component judged
    // significant or undecided is deflated from the residuals and the fit
    // goes on; after any other verdict the fit is over and a further call
    // throws NCError (unless KeepEveryComponent is on, which deflates every
    // component whatever its verdict, for a fixed number of components).
    // residuals receives the model's residuals after the call and
    // predResiduals the cross-validated prediction residuals of this component.
    SignificanceE::Significance NextComponent(NCDataMatrix<float>& residuals, NCDataMatrix<float>& predResiduals,
                                              NCProgress& progress);
    void KeepEveryComponent(bool on) { m_keepAll = on; }

    // Score and loading vectors of kept component a (1-based).
    NCDataVector<float> GetT(int a) const;
    NCDataVector<float> GetP(int a) const;

    // Components that ended significant, up to the first that did not (an
    // undecided one counts once the next component confirms it). With
    // KeepEveryComponent: every component fitted.
    int GetComponents() const;
    const NCPCA& GetModel() const { return m_model; }
    const PCACrossValidation& GetCrossValidation() const { return m_cv; }
    // Every component fitted, kept or not; a later verdict may rewrite an
    // earlier undecided one.
    const std::vector<Component>& GetRecords() const { return m_records; }
    bool IsCentred() const { return m_centred; }

private:
    NCPCA m_model;
    PCACrossValidation m_cv;
    bool m_centred;
    double m_tolerance;
    int m_earlier;
    double m_ssTotal = 0.0;
    NCDataVector<float> m_ssVariables;
    std::vector<Component> m_records;
    bool m_keepAll = false;
    bool m_finished = false;
};
