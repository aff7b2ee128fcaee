#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/platform/QvStream.h"

#include <memory>

// A principal component model of a preprocessed matrix, grown one component
// at a time by NIPALS. Missing cells are never imputed: the projections skip
// them (NCDataMatrix::SpecialNipalsRegressColumnsFix and ...RowsFix).
//
// The caller drives it:
//
//   NCPCA pca(&scaled, NCNipals::DefaultMaxIterations);
//   for (;;) {
//       pca.NextComponent(progress, nullptr, 0, nullptr);
//       if (!keep(pca)) break;          // cross-validation or a validator
//       pca.CalculateResiduals();       // E -= t p'
//   }
//
// Loadings and scores are stored one row per component: P' is A x K and
// T' is A x N.
class VELTANCMAT_API NCPCA : public virtual QvStreamBase {
public:
    using IndexList = NCIntegralVector<int, -99>;

    NCPCA();
    // E starts as a copy of x; maxIterations bounds every component's NIPALS loop.
    NCPCA(const NCDataMatrix<float>* x, int maxIterations);
    // The same, adopting x as E instead of copying it.
    NCPCA(NCDataMatrix<float>&& x, int maxIterations);
    // Rebuilds a model from its residuals, loadings and scores.
    NCPCA(const NCDataMatrix<float>* residuals, const NCDataMatrix<float>* pprim,
          const NCDataMatrix<float>* tprim, int maxIterations);
    NCPCA(const NCPCA& other);
    NCPCA& operator=(const NCPCA& other);
    ~NCPCA() override;

    // Extracts one more component from E, which it leaves unchanged. The
    // variables whose label in `groups` equals `group` are left out (their
    // loadings are missing); `start`, when given, is the starting score
    // vector. Returns true or throws: NCError when the iteration cannot go
    // on, CancelException on a break. The component count is raised first
    // and stays raised after a throw; such a model is to be discarded.
    bool NextComponent(NCProgress* progress, const IndexList* groups, int group, const NCDataVector<float>* start);
    // E -= t p' for the newest component; missing cells stay missing.
    virtual void CalculateResiduals();

    const NCDataMatrix<float>* GetPprim() const { return m_pprim.get(); }
    const NCDataMatrix<float>* GetTprim() const { return m_tprim.get(); }
    const NCDataMatrix<float>* GetResiduals() const { return m_residuals.get(); }
    int GetComponents() const { return m_components; }
    int GetIterations() const { return m_iterations; }
    int GetMaxIterations() const { return m_maxIterations; }

    // The significance rule of a cross-validated component. s_prev is the
    // previous component's verdict and may be rewritten (an undecided
    // component is settled here). See the definition for the steps.
    static SignificanceE::Significance
    GetSignificance(float tolerance, bool centred, int component, SignificanceE::Significance& previous,
                    int observations, int variables, float r2, const NCDataVector<float>& r2Variables,
                    float eigenvalue, float previousEigenvalue, float q2, const NCDataVector<float>& q2Variables,
                    float q2Limit, int earlierComponents);

    // ---- streaming: the "NCPCA" record, version 2 -----------------------
    // The component count is not stored, and reading leaves it as it was;
    // after reading, the row count of P' is the number of components.
    bool QvStreamableStartWrite(std::ostream& out) const override;
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);
    bool QvStreamableWriteBases(std::ostream& out) const;
    bool QvStreamableReadBases(std::istream& in);
    bool ReadStreamDirectory(InputStreamDirectory& directory);
    short GetMyQvStreamVersionNumber() const { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    short GetQvStreamVersionNumber() const { return MyStreamableData.GetQvStreamVersionNumber(); }

    static QvStreamableData MyStreamableData; // "NCPCA", 2

private:
    // The rounds of a cross-validation fit their component on part of the
    // rows of the model's residuals, through FitComponent on a row selection.
    friend class PCACrossValidation;

    // Fits one component of the rows `e` into p and t and returns its
    // iterations; `component` is its number in the progress text.
    static int FitComponent(const NCDataMatrixRows<float>& e, int component, int maxIterations, NCProgress* progress,
                            const IndexList* groups, int group, const NCDataVector<float>* start,
                            NCDataVector<float>& p, NCDataVector<float>& t);

    std::unique_ptr<NCDataMatrix<float>> m_pprim;
    std::unique_ptr<NCDataMatrix<float>> m_tprim;
    std::unique_ptr<NCDataMatrix<float>> m_residuals;
    int m_components = 0;
    int m_maxIterations = 0;
    int m_iterations = 0;
    mutable bool m_streaming = false;
};
