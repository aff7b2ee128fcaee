#include "veltancmat/models/NCPLSResiduals.h"

#include "veltancmat/platform/NCError.h"

#include <utility>

NCPLSResiduals::NCPLSResiduals(NCDataMatrix<float>* x, const NCDataMatrix<float>& wprim,
                               const NCDataMatrix<float>& pprim, float maxMissingFraction)
    : m_x(x), m_wprim(wprim), m_pprim(pprim), m_maxMissingFraction(maxMissingFraction)
{
    Check();
}

NCPLSResiduals::NCPLSResiduals(std::unique_ptr<NCDataMatrix<float>> owned, const NCDataMatrix<float>& wprim,
                               const NCDataMatrix<float>& pprim, float maxMissingFraction)
    : m_ownedX(std::move(owned)), m_x(m_ownedX.get()), m_wprim(wprim), m_pprim(pprim),
      m_maxMissingFraction(maxMissingFraction)
{
    Check();
}

NCPLSResiduals::~NCPLSResiduals() = default;

void NCPLSResiduals::Check() const
{
    if (!m_x || m_wprim.SizeRows() != m_pprim.SizeRows() || m_wprim.SizeColumns() != m_pprim.SizeColumns() ||
        (m_wprim.SizeRows() > 0 && m_x->SizeRows() > 0 && m_x->SizeColumns() != m_wprim.SizeColumns()))
        throw NCInternalError("NCPLSResiduals::NCPLSResiduals");
}

void NCPLSResiduals::CalcNextComponent()
{
    if (m_computed >= m_wprim.SizeRows())
        throw NCInternalError("NCPLSResiduals::CalcNextComponent");
    const int a = ++m_computed;
    const int k = m_x->SizeColumns();

    // A score needs at least a values of the row; with a limit, fewer
    // gaps than that may be tolerated.
    int tolerated = k - a;
    const double capped = static_cast<double>(k) * m_maxMissingFraction;
    if (tolerated > capped)
        tolerated = static_cast<int>(capped);

    // The row regression is the same projection the model used for its own
    // scores; it runs in parallel over the rows.
    NCDataVector<float> t;
    m_x->Result(&t).SpecialNipalsRegressRowsFix(m_wprim[a]);
    for (int i = 1; i <= t.Size(); ++i)
        if ((*m_x)[i].GetNumMisVal() > tolerated)
            t(i, MisVal);
    NCDataVector<float>::operator=(t);
    m_x->AddVprimV(t, m_pprim[a], -1.0);
}
