#include "veltancmat/models/NCPCAPred.h"

#include "veltancmat/models/ScoreEstimator.h"
#include "veltancmat/platform/NCError.h"

#include <exception>
#include <utility>

NCPCAPred::NCPCAPred(const NCDataMatrix<float>* x, const NCDataMatrix<float>* pprim, int maxIterations,
                     float maxMissingFraction)
    : m_residuals(x ? *x : NCDataMatrix<float>()), m_pprim(pprim ? *pprim : NCDataMatrix<float>()),
      m_maxMissingFraction(maxMissingFraction)
{
    if (m_pprim.SizeRows() > 0 && m_residuals.SizeRows() > 0 && m_residuals.SizeColumns() != m_pprim.SizeColumns())
        throw NCInternalError("NCPCAPred::NCPCAPred");
    m_tpred = NCDataMatrix<float>(m_pprim.SizeRows(), m_residuals.SizeRows(), NCDataMatrix<float>::MisVal);
    CalculateScores(maxIterations);
}

NCPCAPred::NCPCAPred(const NCPCAPred& other) = default;
NCPCAPred::NCPCAPred(NCPCAPred&& other) noexcept = default;
NCPCAPred& NCPCAPred::operator=(const NCPCAPred& other) = default;
NCPCAPred& NCPCAPred::operator=(NCPCAPred&& other) noexcept = default;
NCPCAPred::~NCPCAPred() = default;

void NCPCAPred::CalculateScores(int maxIterations)
{
    const int components = m_pprim.SizeRows();
    const int n = m_residuals.SizeRows();
    const int k = m_residuals.SizeColumns();
    if (components == 0 || n == 0)
        return;
    const ScoreEstimator estimator(m_pprim, maxIterations);
    // An exception may not leave a parallel region: the first one is kept
    // and thrown once every thread is done.
    std::exception_ptr failure;
#pragma omp parallel for schedule(static)
    for (int i = 1; i <= n; ++i) {
        const NCDataVector<float>& row = m_residuals[i];
        if (static_cast<float>(row.GetNumMisVal()) / static_cast<float>(k) > m_maxMissingFraction)
            continue; // the scores stay missing
        try {
            NCDataVector<float> t;
            estimator.GetT(t, row);
#pragma omp critical(NCPCAPred_scores)
            for (int a = 1; a <= components; ++a)
                m_tpred(a, i, t[a]);
        } catch (...) {
#pragma omp critical(NCPCAPred_failure)
            if (!failure)
                failure = std::current_exception();
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

void NCPCAPred::CalcNextResidual()
{
    if (m_removed >= m_pprim.SizeRows())
        throw NCInternalError("NCPCAPred::CalcNextResidual");
    ++m_removed;
    m_residuals.AddVprimV(m_tpred[m_removed], m_pprim[m_removed], -1.0);
}

void NCPCAPred::RemoveObservations(const IndexList& observations)
{
    m_tpred.RemoveColumns(observations);
    m_residuals.RemoveRows(observations);
}
