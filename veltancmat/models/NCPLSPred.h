#pragma once

#include "veltancmat/models/NCPLSResiduals.h"

#include <memory>

// Predicted responses of new observations under a fitted PLS model, one
// component at a time: after a calls of CalcNextComponent, GetYPred() is
// the prediction with a components, on the scale the model was fitted on.
class VELTANCMAT_API NCPLSPred : public NCPLSResiduals {
public:
    // Works in a copy of x; the predictions start at 0.
    NCPLSPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>* wprim, const NCDataMatrix<float>* pprim,
              const NCDataMatrix<float>* cprim, float maxMissingFraction);
    NCPLSPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>& wprim, const NCDataMatrix<float>& pprim,
              const NCDataMatrix<float>& cprim, float maxMissingFraction);
    // Works in the caller's x and ypred instead (the flag only selects this
    // form): x is deflated and ypred, resized to N x M, is set to 0.
    NCPLSPred(bool inPlace, NCDataMatrix<float>* x, NCDataMatrix<float>* ypred, const NCDataMatrix<float>& wprim,
              const NCDataMatrix<float>& pprim, const NCDataMatrix<float>& cprim, float maxMissingFraction);
    ~NCPLSPred() override;

    // The scores and residuals of the next component, then ypred += t c_a'.
    void CalcNextComponent() override;

    const NCDataMatrix<float>& GetYPred() const { return *m_ypred; }
    bool OwnsData() const { return m_ownedYPred != nullptr; }

private:
    void StartPredictions();

    NCDataMatrix<float> m_cprim;
    std::unique_ptr<NCDataMatrix<float>> m_ownedYPred;
    NCDataMatrix<float>* m_ypred;
};
