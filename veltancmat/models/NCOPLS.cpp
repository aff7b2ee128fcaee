#include "veltancmat/models/NCOPLS.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>

namespace {

const CancelText Aborted("Calculations of", "OPLS component aborted.");

constexpr float Missing = NCMisVal<float>;

NCDataMatrix<float> SingleRow(NCDataVector<float> row)
{
    row.Normalize();
    NCDataMatrix<float> m(0, row.Size());
    m.push_back(row);
    return m;
}

int LowerToRank(int numPredictive, const NCDataMatrix<float>& y)
{
    const int limit = std::min(y.SizeRows(), y.SizeColumns());
    return numPredictive > limit ? limit : numPredictive;
}

} // namespace

// The missing cells of a matrix hold 0 while products are formed over them
// and the marker again afterwards, also when the products throw.
class NCOPLS::ZeroedCells {
public:
    ZeroedCells(NCDataMatrix<float>& m, const CellSet& cells) : m_matrix(m), m_cells(cells)
    {
        FillMatrix(m_matrix, m_cells, 0.0f);
    }
    ~ZeroedCells() { FillMatrix(m_matrix, m_cells, Missing); }
    ZeroedCells(const ZeroedCells&) = delete;
    ZeroedCells& operator=(const ZeroedCells&) = delete;

private:
    NCDataMatrix<float>& m_matrix;
    const CellSet& m_cells;
};

NCOPLS::NCOPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, int numPredictive, int maxIterations)
    : m_maxIterations(maxIterations)
{
    if (!x || !y || x->SizeRows() != y->SizeRows())
        throw NCInternalError("NCOPLS::NCOPLS");
    m_x = *x;
    m_y = *y;
    m_numPredictive = LowerToRank(numPredictive, m_y);
    const int n = m_x.SizeRows();
    for (NCDataMatrix<float>* scores : {&m_tprim, &m_uprim, &m_basisScores, &m_toprim, &m_uoprim})
        *scores = NCDataMatrix<float>(0, n);
    m_poprim = NCDataMatrix<float>(0, m_x.SizeColumns());
    m_woprim = NCDataMatrix<float>(0, m_x.SizeColumns());
    m_coprim = NCDataMatrix<float>(0, m_y.SizeColumns());
    FindMissingValue(m_x, m_xMissingCells);
    FindMissingValue(m_y, m_yMissingCells);
}

NCOPLS::NCOPLS(const NCDataMatrix<float>* x, const NCDataMatrix<float>* y, const MatrixList& wList,
               const MatrixList& pList, const MatrixList& cList, const NCDataMatrix<float>& woprim,
               const NCDataMatrix<float>& poprim, const NCDataMatrix<float>& coprim, int numPredictive,
               int maxIterations)
    : NCOPLS(x, y, numPredictive, maxIterations)
{
    const int k = m_x.SizeColumns(), m = m_y.SizeColumns(), stages = static_cast<int>(wList.size());
    const int orthogonal = woprim.SizeRows();
    bool fits = stages == orthogonal + 1 && pList.size() == wList.size() && cList.size() == wList.size() &&
                poprim.SizeRows() == orthogonal && coprim.SizeRows() == orthogonal &&
                (orthogonal == 0 || (woprim.SizeColumns() == k && poprim.SizeColumns() == k &&
                                     coprim.SizeColumns() == m));
    for (int s = 0; fits && s < stages; ++s) {
        const int a = wList[s].SizeRows();
        fits = a > 0 && wList[s].SizeColumns() == k && pList[s].SizeRows() == a && pList[s].SizeColumns() == k &&
               cList[s].SizeRows() == a && cList[s].SizeColumns() == m;
    }
    if (!fits)
        throw NCInternalError("NCOPLS::NCOPLS");
    m_wList = wList;
    m_pList = pList;
    m_cList = cList;
    m_woprim = woprim;
    m_poprim = poprim;
    m_coprim = coprim;
    CatchUp();
}

NCOPLS::~NCOPLS() = default;

void NCOPLS::FindMissingValue(const NCDataMatrix<float>& m, CellSet& cells)
{
    cells.clear();
    if (!m.HasMissingValues())
        return;
    cells.reserve(static_cast<std::size_t>(m.GetNumMisVal()));
    for (int i = 1; i <= m.SizeRows(); ++i) {
        const NCDataVector<float>& row = m[i];
        if (!row.HasMissingValues())
            continue;
        for (int j = 1; j <= m.SizeColumns(); ++j)
            if (IsMisVal(row[j]))
                cells.emplace_back(i, j);
    }
}

void NCOPLS::FillMatrix(NCDataMatrix<float>& m, const CellSet& cells, float value)
{
    for (const auto& [i, j] : cells)
        m(i, j, value);
}

void NCOPLS::NextComponent(NCProgress* progress)
{
    if (m_x.empty() || m_y.empty())
        throw NCInternalError("NCOPLS::NextComponent");
    if (m_wList.empty())
        CalcOPLS(progress);
    else
        NextOrthogonalComponent(progress);
}

void NCOPLS::RemoveBasis(NCDataMatrix<float>& e, const NCDataMatrix<float>& basis, NCDataMatrix<float>& scores)
{
    scores = NCDataMatrix<float>(0, e.SizeRows());
    for (int i = 1; i <= basis.SizeRows(); ++i) {
        NCDataVector<float> t = e.SpecialNipalsRegressRowsFix(basis[i]);
        e.AddVprimV(t, basis[i], -1.0);
        scores.push_back(t);
    }
}

// The weight basis from the accumulated covariance rows S. Several
// responses give as many vectors as the caller asked for, as the basis
// already had, or, on the very first fit, as many leading principal
// components of S as carry at least 1 % of the first one's score sum of
// squares.
NCDataMatrix<float> NCOPLS::BasisFrom(const NCDataMatrix<float>& s, int knownSize)
{
    if (s.SizeRows() < 2)
        return SingleRow(s[1]);
    NCPCA pca(&s, m_maxIterations);
    const int wanted = m_numPredictive >= 1 ? m_numPredictive : knownSize;
    if (wanted >= 1) {
        for (int a = 1; a <= wanted; ++a) {
            if (a > 1)
                pca.CalculateResiduals();
            pca.NextComponent(nullptr, nullptr, 0, nullptr);
        }
        return *pca.GetPprim();
    }
    pca.NextComponent(nullptr, nullptr, 0, nullptr);
    const double first = (*pca.GetTprim())[1].GetSS();
    double latest = first;
    int count = 1;
    // In double: a component at exactly 1 % of the first must compare equal.
    while (latest > 0.01 * first && count < s.SizeRows()) {
        pca.CalculateResiduals();
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        ++count;
        latest = (*pca.GetTprim())[count].GetSS();
    }
    if (latest < 0.01 * first)
        --count;
    m_numPredictive = count;
    return pca.GetPprim()->SubMat(1, count, 1, s.SizeColumns());
}

// The predictive fit on the current (filtered) X. With missing cells the
// covariance Y'X is not the covariance of the complete data; each pass adds
// the covariance of Y with what the basis left of X, until that part stops
// shrinking or falls below 1 % of the first pass.
void NCOPLS::CalcOPLS(NCProgress* progress)
{
    ProgressRange(progress, 0.0f, 10.0f);
    const bool incomplete = !m_xMissingCells.empty() || !m_yMissingCells.empty();
    NCDataMatrix<float> basis;
    {
        ProgressSubRange refining(progress, 0.0f, 9.0f, Aborted);
        ProgressRange(progress, 0.0f, 1.0f);
        const ZeroedCells zeroY(m_y, m_yMissingCells);
        m_refinementCount = 0;
        NCDataMatrix<float> e = m_x, s;
        double first = 0.0, previous = 0.0;
        int knownSize = m_wList.empty() ? 0 : m_wList.front().SizeRows();
        for (;;) {
            NCDataMatrix<float> covariance;
            {
                const ZeroedCells zeroE(e, m_xMissingCells);
                covariance = m_y.MultiplyTransposeThis(e);
            }
            const double norm = std::sqrt(covariance.GetSS());
            if (m_refinementCount == 0) {
                first = previous = norm;
                s = std::move(covariance);
            } else {
                const double fraction = first > 0.0 ? 1.0 - (norm - 0.01 * first) / first : 1.0;
                CheckedSetValue(progress, static_cast<float>(norm > previous ? 1.0 : std::max(0.0, fraction)),
                                Aborted);
                if (norm < 0.01 * first || norm > previous)
                    break;
                previous = norm;
                s.AddMat(covariance, s);
            }
            basis = BasisFrom(s, knownSize);
            knownSize = basis.SizeRows();
            e = m_x;
            RemoveBasis(e, basis, m_basisScores);
            ++m_refinementCount;
            if (!incomplete || m_refinementCount >= m_maxIterations)
                break;
        }
        refining.Close(Aborted);
    }
    if (m_numPredictive <= 0)
        m_numPredictive = basis.SizeRows();
    NCDataMatrix<float> pprim, cprim;
    PredictiveScores(basis, &pprim, &cprim, nullptr, nullptr);
    m_wList.push_back(std::move(basis));
    m_pList.push_back(std::move(pprim));
    m_cList.push_back(std::move(cprim));
    CheckedSetValue(progress, 10.0f, Aborted);
}

void NCOPLS::PredictiveScores(const NCDataMatrix<float>& basis, NCDataMatrix<float>* pprim,
                              NCDataMatrix<float>* cprim, const NCDataMatrix<float>* givenP,
                              const NCDataMatrix<float>* givenC)
{
    const int n = m_x.SizeRows(), a = basis.SizeRows();
    NCDataMatrix<float> e = m_x, f = m_y;
    m_tprim = NCDataMatrix<float>(0, n);
    m_uprim = NCDataMatrix<float>(0, n);
    if (pprim)
        *pprim = NCDataMatrix<float>(0, m_x.SizeColumns());
    if (cprim)
        *cprim = NCDataMatrix<float>(0, m_y.SizeColumns());
    for (int i = 1; i <= a; ++i) {
        const NCDataVector<float> t = e.SpecialNipalsRegressRowsFix(basis[i]);
        const NCDataVector<float> p = givenP ? (*givenP)[i] : e.SpecialNipalsRegressColumnsFix(t);
        const NCDataVector<float> c = givenC ? (*givenC)[i] : f.SpecialNipalsRegressColumnsFix(t);
        m_tprim.push_back(t);
        m_uprim.push_back(f.SpecialNipalsRegressRowsFix(c));
        if (pprim)
            pprim->push_back(p);
        if (cprim)
            cprim->push_back(c);
        // The last deflation would change nothing that is kept.
        if (i < a) {
            e.AddVprimV(t, p, -1.0);
            f.AddVprimV(t, c, -1.0);
        }
    }
}

void NCOPLS::NextOrthogonalComponent(NCProgress* progress)
{
    ProgressRange(progress, 0.0f, 10.0f);
    CheckBreak(progress, Aborted);
    const NCDataMatrix<float>& w = m_wList.back();
    // E: the part of X outside the predictive basis.
    NCDataMatrix<float> e = m_x;
    for (int i = 1; i <= w.SizeRows(); ++i)
        e.AddVprimV(m_basisScores[i], w[i], -1.0);
    NCDataMatrix<float> outside;
    {
        // Row i: the part of the i-th predictive loading outside the basis.
        const ZeroedCells zeroE(e, m_xMissingCells);
        outside = m_basisScores.MatrixMultiply(e);
    }
    NCDataVector<float> wo;
    if (outside.SizeRows() < 2) {
        wo = outside[1];
        wo.Normalize();
    } else {
        NCPCA pca(&outside, m_maxIterations);
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        wo = (*pca.GetPprim())[1];
    }
    const NCDataVector<float> to = e.SpecialNipalsRegressRowsFix(wo);
    const NCDataVector<float> co = m_y.SpecialNipalsRegressColumnsFix(to);
    const NCDataVector<float> po = m_x.SpecialNipalsRegressColumnsFix(to);
    NCDataVector<float> uo = m_y.SpecialNipalsRegressRowsFix(co);
    // r is the cosine between the orthogonal scores and Y. In float, the
    // precision the vectors carry: a component whose Y part is zero or lost
    // in rounding keeps its X part but gets no Y scores.
    const float r = static_cast<float>(std::sqrt(to.GetSS())) * static_cast<float>(std::sqrt(co.GetSS())) /
                    static_cast<float>(std::sqrt(m_y.GetSS()));
    if (!std::isnormal(r) || r < 1e-6 / std::sqrt(static_cast<double>(m_x.SizeRows())))
        uo.SetAllValues(Missing);
    m_x.AddVprimV(to, po, -1.0);
    // The Y part goes too; the predictor adds t_o c_o' back.
    m_y.AddVprimV(to, co, -1.0);
    m_toprim.push_back(to);
    m_poprim.push_back(po);
    m_coprim.push_back(co);
    m_woprim.push_back(wo);
    m_uoprim.push_back(uo);
    ProgressSubRange refit(progress, 1.0f, 10.0f, Aborted);
    CalcOPLS(progress);
    refit.Close(Aborted);
}

// Replays the orthogonal filters of the stored stages on X and Y, then the
// scores of the last stage.
void NCOPLS::CatchUp()
{
    const int n = m_x.SizeRows();
    m_toprim = NCDataMatrix<float>(0, n);
    m_uoprim = NCDataMatrix<float>(0, n);
    for (int k = 1; k <= m_woprim.SizeRows(); ++k) {
        NCDataMatrix<float> e = m_x, scores;
        RemoveBasis(e, m_wList[static_cast<std::size_t>(k - 1)], scores);
        const NCDataVector<float> to = e.SpecialNipalsRegressRowsFix(m_woprim[k]);
        const NCDataVector<float> uo = m_y.SpecialNipalsRegressRowsFix(m_coprim[k]);
        m_x.AddVprimV(to, m_poprim[k], -1.0);
        m_y.AddVprimV(to, m_coprim[k], -1.0);
        m_toprim.push_back(to);
        m_uoprim.push_back(uo);
    }
    NCDataMatrix<float> e = m_x;
    RemoveBasis(e, m_wList.back(), m_basisScores);
    PredictiveScores(m_wList.back(), nullptr, nullptr, &m_pList.back(), &m_cList.back());
}

NCDataMatrix<float> NCOPLS::GetXResiduals() const
{
    NCDataMatrix<float> e = m_x;
    if (!m_pList.empty())
        for (int i = 1; i <= m_tprim.SizeRows(); ++i)
            e.AddVprimV(m_tprim[i], m_pList.back()[i], -1.0);
    return e;
}

NCDataMatrix<float> NCOPLS::GetYResiduals() const
{
    NCDataMatrix<float> f = m_y;
    if (!m_cList.empty())
        for (int i = 1; i <= m_tprim.SizeRows(); ++i)
            f.AddVprimV(m_tprim[i], m_cList.back()[i], -1.0);
    return f;
}

void NCOPLS::NegatePredictiveComp(int a)
{
    if (m_wList.empty() || a < 1 || a > m_tprim.SizeRows())
        throw NCInternalError("NCOPLS::NegatePredictiveComp");
    for (NCDataMatrix<float>* m : {&m_wList.back(), &m_pList.back(), &m_cList.back(), &m_tprim, &m_basisScores})
        if (a <= m->SizeRows())
            m->MultiplyRow(a, -1.0);
}

void NCOPLS::NegateOComp(int a)
{
    if (a < 1 || a > m_toprim.SizeRows())
        throw NCInternalError("NCOPLS::NegateOComp");
    for (NCDataMatrix<float>* m : {&m_woprim, &m_poprim, &m_coprim, &m_toprim})
        m->MultiplyRow(a, -1.0);
}
