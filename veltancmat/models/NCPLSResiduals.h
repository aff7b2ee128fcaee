#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <memory>

// The scores of new observations under a fitted PLS model, one component at
// a time, and their X residuals. The new data must already be transformed
// and scaled with the model's own preprocessing.
//
// The object is itself the score vector of the latest component (N long);
// each CalcNextComponent replaces it and deflates the residual matrix,
// which is the caller's (not copied) in this class.
class VELTANCMAT_API NCPLSResiduals : public NCDataVector<float> {
public:
    // x: the residuals to work in, N x K, written by CalcNextComponent.
    // W' and P' are copied. maxMissingFraction caps the missing values a
    // row may have and still get a score (see CalcNextComponent).
    // Throws NCInternalError when the widths differ.
    NCPLSResiduals(NCDataMatrix<float>* x, const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim,
                   float maxMissingFraction);
    NCPLSResiduals(const NCPLSResiduals&) = delete;
    NCPLSResiduals& operator=(const NCPLSResiduals&) = delete;
    ~NCPLSResiduals() override;

    // Scores of the next component a: t_i = x_i . w_a / max(w_a'w_a / 3,
    // sum of w_aj^2 over the present x_ij). A row with more than K - a
    // missing values (or more than trunc(K * maxMissingFraction), when that
    // is fewer) gets a missing score. Then x -= t p_a'. Throws
    // NCInternalError once every component has been applied.
    virtual void CalcNextComponent();

    const NCDataMatrix<float>& GetXResiduals() const { return *m_x; }
    int SizeObservations() const { return m_x->SizeRows(); }
    int GetCompComputed() const { return m_computed; }
    int GetMaxComp() const { return m_wprim.SizeRows(); }

protected:
    // The same, working in a copy of its own that `owned` hands over.
    NCPLSResiduals(std::unique_ptr<NCDataMatrix<float>> owned, const NCDataMatrix<float>& wprim,
                   const NCDataMatrix<float>& pprim, float maxMissingFraction);

private:
    void Check() const;

    std::unique_ptr<NCDataMatrix<float>> m_ownedX;
    NCDataMatrix<float>* m_x;
    NCDataMatrix<float> m_wprim;
    NCDataMatrix<float> m_pprim;
    float m_maxMissingFraction;
    int m_computed = 0;
};
