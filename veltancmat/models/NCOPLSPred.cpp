#include "veltancmat/models/NCOPLSPred.h"

#include "veltancmat/platform/NCError.h"

namespace {

const NCOPLS& Required(const NCOPLS* model)
{
    if (!model || model->GetWMatrices()->empty())
        throw NCInternalError("NCOPLSPred::NCOPLSPred");
    return *model;
}

} // namespace

NCOPLSPred::NCOPLSPred(const NCDataMatrix<float>* x, const NCOPLS* model)
    : NCOPLSPred(x, *Required(model).GetWMatrices(), *model->GetPMatrices(), *model->GetCMatrices(),
                 *model->GetWOprim(), *model->GetPOprim(), *model->GetCOprim())
{
}

NCOPLSPred::NCOPLSPred(const NCDataMatrix<float>* x, const MatrixList& wList, const MatrixList& pList,
                       const MatrixList& cList, const NCDataMatrix<float>& woprim,
                       const NCDataMatrix<float>& poprim, const NCDataMatrix<float>& coprim)
    : m_wList(wList), m_pList(pList), m_cList(cList), m_woprim(woprim), m_poprim(poprim), m_coprim(coprim)
{
    if (!x || m_wList.empty() || m_pList.size() != m_wList.size() || m_cList.size() != m_wList.size() ||
        x->SizeColumns() != m_wList.front().SizeColumns() || m_woprim.SizeRows() + 1 < int(m_wList.size()))
        throw NCInternalError("NCOPLSPred::NCOPLSPred");
    m_x = *x;
    const int n = m_x.SizeRows();
    m_ypred = NCDataMatrix<float>(n, m_cList.front().SizeColumns(), 0.0f);
    m_topred = NCDataMatrix<float>(0, n);
    Finalise();
}

NCDataMatrix<float> NCOPLSPred::StageResiduals(int stage, NCDataMatrix<float>& scores, bool predict)
{
    const auto s = static_cast<std::size_t>(stage);
    const NCDataMatrix<float>& w = m_wList[s];
    NCDataMatrix<float> e = m_x;
    scores = NCDataMatrix<float>(0, m_x.SizeRows());
    for (int i = 1; i <= w.SizeRows(); ++i) {
        const NCDataVector<float> t = e.SpecialNipalsRegressRowsFix(w[i]);
        e.AddVprimV(t, m_pList[s][i], -1.0);
        if (predict)
            m_ypred.AddVprimV(t, m_cList[s][i], 1.0);
        scores.push_back(t);
    }
    return e;
}

void NCOPLSPred::Finalise()
{
    StageResiduals(SizeOComps(), m_tpred, true);
}

void NCOPLSPred::CalcNextComponent()
{
    const int k = SizeOComps();
    if (k >= GetMaxComp() || k + 1 >= static_cast<int>(m_wList.size()))
        throw NCInternalError("NCOPLSPred::CalcNextComponent");
    m_ypred = NCDataMatrix<float>(m_ypred.SizeRows(), m_ypred.SizeColumns(), 0.0f);
    for (int j = 1; j <= k; ++j)
        m_ypred.AddVprimV(m_topred[j], m_coprim[j], 1.0);
    NCDataMatrix<float> scores;
    const NCDataMatrix<float> e = StageResiduals(k, scores, false);
    const NCDataVector<float> to = e.SpecialNipalsRegressRowsFix(m_woprim[k + 1]);
    m_x.AddVprimV(to, m_poprim[k + 1], -1.0);
    m_ypred.AddVprimV(to, m_coprim[k + 1], 1.0);
    m_topred.push_back(to);
    Finalise();
}
