#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"

// The scores and residuals of new observations under a fitted PCA model.
// The new data must already be transformed and scaled with the model's own
// preprocessing. Scores are computed for all components at construction;
// the residuals are deflated one component at a time by CalcNextResidual.
class VELTANCMAT_API NCPCAPred {
public:
    using IndexList = NCIntegralVector<int, -99>;

    // An observation missing more than maxMissingFraction of its values gets
    // all-missing scores. Throws NCInternalError when x and P' differ in width.
    NCPCAPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>* pprim, int maxIterations,
              float maxMissingFraction);
    NCPCAPred(const NCPCAPred& other);
    NCPCAPred(NCPCAPred&& other) noexcept;
    NCPCAPred& operator=(const NCPCAPred& other);
    NCPCAPred& operator=(NCPCAPred&& other) noexcept;
    virtual ~NCPCAPred();

    // Subtracts the next component's t p' from the residuals. Throws
    // NCError when every component has been removed already.
    void CalcNextResidual();
    // Drops the listed observations (1-based) from the scores and residuals.
    void RemoveObservations(const IndexList& observations);

    const NCDataMatrix<float>& GetTPredPrim() const { return m_tpred; }
    const NCDataMatrix<float>& GetXResiduals() const { return m_residuals; }
    int GetMaxComp() const { return m_pprim.SizeRows(); }
    int GetResidualsCompComputed() const { return m_removed; }
    int SizeObservations() const { return m_residuals.SizeRows(); }

private:
    void CalculateScores(int maxIterations);

    NCDataMatrix<float> m_residuals;
    NCDataMatrix<float> m_tpred; // A x N
    NCDataMatrix<float> m_pprim;
    float m_maxMissingFraction;
    int m_removed = 0;
};
