#include "veltancmat/models/NCPLSPred.h"

#include "veltancmat/platform/NCError.h"

namespace {

const NCDataMatrix<float>& Required(const NCDataMatrix<float>* m)
{
    if (!m)
        throw NCInternalError("NCPLSPred::NCPLSPred");
    return *m;
}

std::unique_ptr<NCDataMatrix<float>> CopyOf(const NCDataMatrix<float>* m)
{
    return std::make_unique<NCDataMatrix<float>>(Required(m));
}

} // namespace

NCPLSPred::NCPLSPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>* wprim,
                     const NCDataMatrix<float>* pprim, const NCDataMatrix<float>* cprim, float maxMissingFraction)
    : NCPLSPred(x, Required(wprim), Required(pprim), Required(cprim), maxMissingFraction)
{
}

NCPLSPred::NCPLSPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>& wprim,
                     const NCDataMatrix<float>& pprim, const NCDataMatrix<float>& cprim, float maxMissingFraction)
    : NCPLSResiduals(CopyOf(x), wprim, pprim, maxMissingFraction), m_cprim(cprim),
      m_ownedYPred(std::make_unique<NCDataMatrix<float>>()), m_ypred(m_ownedYPred.get())
{
    StartPredictions();
}

NCPLSPred::NCPLSPred(bool, NCDataMatrix<float>* x, NCDataMatrix<float>* ypred, const NCDataMatrix<float>& wprim,
                     const NCDataMatrix<float>& pprim, const NCDataMatrix<float>& cprim, float maxMissingFraction)
    : NCPLSResiduals(x, wprim, pprim, maxMissingFraction), m_cprim(cprim), m_ypred(ypred)
{
    StartPredictions();
}

NCPLSPred::~NCPLSPred() = default;

void NCPLSPred::StartPredictions()
{
    if (!m_ypred || m_cprim.SizeRows() != GetMaxComp())
        throw NCInternalError("NCPLSPred::NCPLSPred");
    *m_ypred = NCDataMatrix<float>(SizeObservations(), m_cprim.SizeColumns(), 0.0f);
}

void NCPLSPred::CalcNextComponent()
{
    NCPLSResiduals::CalcNextComponent();
    m_ypred->AddVprimV(*this, m_cprim[GetCompComputed()], 1.0);
}
