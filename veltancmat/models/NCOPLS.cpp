#include "veltancmat/models/NCOPLS.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/platform/NCError.h"

#include <omp.h>

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

// a' b with the missing cells of both taken as 0. The product skips
// missing cells, which is the same sum; only a cell without a single
// complete pair comes back missing instead of 0.
NCDataMatrix<float> ZeroFilledProduct(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b, bool transposeA)
{
    NCDataMatrix<float> product = transposeA ? a.MultiplyTransposeThis(b) : a.MatrixMultiply(b);
    if (product.HasMissingValues()) {
        for (float* row : product.GetMatrixAsPointerPointer())
            if (row)
                for (int j = 1; j <= product.SizeColumns(); ++j)
                    row[j] = IsMisVal(row[j]) ? 0.0f : row[j];
        product.RecountMissing();
    }
    return product;
}

// Projections on what a basis leaves of X, E = X - sum_a t_a w_a' over the
// present cells, found from X itself: forming E would cost a copy of X and
// a pass per basis vector, the corrections cost a pass over the missing
// cells. In exact arithmetic both give the same sums.

// Runs add(cell, sums) over the missing cells, each thread on its own
// share and its own copy of the sums, which are then added to `sums` in
// thread order (the same bits for the same thread count).
template <class Add>
void AddOverCells(const NCOPLS::CellSet& cells, std::vector<double>& sums, Add add)
{
    const auto count = static_cast<std::ptrdiff_t>(cells.size());
    const int threads = count >= NCParallelWork::MinCells ? omp_get_max_threads() : 1;
    if (threads == 1) {
        for (const auto& cell : cells)
            add(cell, sums.data());
        return;
    }
    std::vector<double> copies(sums.size() * static_cast<std::size_t>(threads), 0.0);
#pragma omp parallel num_threads(threads)
    {
        double* own = copies.data() + sums.size() * static_cast<std::size_t>(omp_get_thread_num());
#pragma omp for schedule(static)
        for (std::ptrdiff_t c = 0; c < count; ++c)
            add(cells[static_cast<std::size_t>(c)], own);
    }
    for (int t = 0; t < threads; ++t)
        for (std::size_t e = 0; e < sums.size(); ++e)
            sums[e] += copies[sums.size() * static_cast<std::size_t>(t) + e];
}

// Y'E with missing cells as 0, for a single basis vector b with scores t,
// from covX = Y'X: the cells of column j lose b_j times the sum of y t over
// the rows present in column j.
NCDataMatrix<float> ResidualCovariance(const NCDataMatrix<float>& covX, const NCDataMatrix<float>& y,
                                       const NCDataVector<float>& b, const NCDataVector<float>& t,
                                       const NCOPLS::CellSet& xMissing)
{
    const int m = y.SizeColumns(), k = covX.SizeColumns();
    std::vector<double> all(static_cast<std::size_t>(m) + 1, 0.0);
    for (int i = 1; i <= y.SizeRows(); ++i) {
        if (IsMisVal(t[i]))
            continue;
        for (int r = 1; r <= m; ++r)
            if (!IsMisVal(y[i][r]))
                all[r] += double(y[i][r]) * t[i];
    }
    std::vector<double> used(static_cast<std::size_t>(m) * (k + 1));
    for (int r = 1; r <= m; ++r)
        std::fill_n(used.begin() + (r - 1) * (k + 1), k + 1, all[r]);
    AddOverCells(xMissing, used, [&](const std::pair<int, int>& cell, double* sums) {
        const auto [i, j] = cell;
        if (IsMisVal(t[i]))
            return;
        for (int r = 1; r <= m; ++r)
            if (!IsMisVal(y[i][r]))
                sums[(r - 1) * (k + 1) + j] -= double(y[i][r]) * t[i];
    });
    NCDataMatrix<float> covariance(m, k);
    for (int r = 1; r <= m; ++r)
        for (int j = 1; j <= k; ++j)
            covariance(r, j, static_cast<float>(covX[r][j] - b[j] * used[(r - 1) * (k + 1) + j]));
    return covariance;
}

// T E with missing cells as 0 (A x K): T X less, for every pair of basis
// vectors, w_b times the sum of t_a t_b over the rows present in the column.
NCDataMatrix<float> ScoresTimesOutside(const NCDataMatrix<float>& x, const NCDataMatrix<float>& scores,
                                       const NCDataMatrix<float>& w, const NCOPLS::CellSet& xMissing)
{
    const NCDataMatrix<float> tx = ZeroFilledProduct(scores, x, false);
    const int a = scores.SizeRows(), k = x.SizeColumns();
    auto present = [&](int c, int i) { return !IsMisVal(scores[c][i]); };
    std::vector<double> q(static_cast<std::size_t>(a) * a, 0.0);
    for (int c = 1; c <= a; ++c)
        for (int d = 1; d <= a; ++d)
            for (int i = 1; i <= x.SizeRows(); ++i)
                if (present(c, i) && present(d, i))
                    q[(c - 1) * a + d - 1] += double(scores[c][i]) * scores[d][i];
    std::vector<double> product(static_cast<std::size_t>(a) * (k + 1));
    for (int c = 1; c <= a; ++c)
        for (int j = 1; j <= k; ++j) {
            double v = tx[c][j];
            for (int d = 1; d <= a; ++d)
                v -= q[(c - 1) * a + d - 1] * w[d][j];
            product[(c - 1) * (k + 1) + j] = v;
        }
    AddOverCells(xMissing, product, [&](const std::pair<int, int>& cell, double* sums) {
        const auto [i, j] = cell;
        double basisPart = 0.0;
        for (int d = 1; d <= a; ++d)
            if (present(d, i))
                basisPart += double(scores[d][i]) * w[d][j];
        for (int c = 1; c <= a; ++c)
            if (present(c, i))
                sums[(c - 1) * (k + 1) + j] += double(scores[c][i]) * basisPart;
    });
    NCDataMatrix<float> result(a, k);
    for (int c = 1; c <= a; ++c)
        for (int j = 1; j <= k; ++j)
            result(c, j, static_cast<float>(product[(c - 1) * (k + 1) + j]));
    return result;
}

// The rows of E regressed on wo (complete), from those of X: row i loses
// sum_b t_bi (w_b . wo over its present cells) / d_i, d_i being the
// regression's divisor max(wo'wo / 3, wo'wo over the present cells).
NCDataVector<float> OutsideRowScores(const NCDataMatrix<float>& x, const NCDataMatrix<float>& scores,
                                     const NCDataMatrix<float>& w, const NCDataVector<float>& wo,
                                     const NCOPLS::CellSet& xMissing)
{
    NCDataVector<float> to = x.SpecialNipalsRegressRowsFix(wo);
    const int a = w.SizeRows(), k = x.SizeColumns();
    std::vector<double> dots(static_cast<std::size_t>(a) + 1, 0.0);
    double full = 0.0;
    for (int j = 1; j <= k; ++j) {
        full += double(wo[j]) * wo[j];
        for (int d = 1; d <= a; ++d)
            dots[d] += double(w[d][j]) * wo[j];
    }
    const int n = x.SizeRows();
    float* const out = to.GetVectorForWriting();
#pragma omp parallel if (static_cast<long long>(n) * k >= NCParallelWork::MinCells)
    {
        std::vector<double> rowDots(dots.size());
#pragma omp for schedule(static)
        for (int i = 1; i <= n; ++i) {
            if (IsMisVal(out[i]))
                continue;
            double divisor = full;
            rowDots = dots;
            for (auto cell = std::lower_bound(xMissing.begin(), xMissing.end(), std::pair<int, int>(i, 0));
                 cell != xMissing.end() && cell->first == i; ++cell) {
                const int j = cell->second;
                divisor -= double(wo[j]) * wo[j];
                for (int d = 1; d <= a; ++d)
                    rowDots[d] -= double(w[d][j]) * wo[j];
            }
            divisor = std::max(full / 3.0, divisor);
            double basisPart = 0.0;
            for (int d = 1; d <= a; ++d)
                if (!IsMisVal(scores[d][i]))
                    basisPart += double(scores[d][i]) * rowDots[d];
            out[i] = static_cast<float>(out[i] - basisPart / divisor);
        }
    }
    to.RecountMissing();
    return to;
}

int LowerToRank(int numPredictive, const NCDataMatrix<float>& y)
{
    const int limit = std::min(y.SizeRows(), y.SizeColumns());
    return numPredictive > limit ? limit : numPredictive;
}

} // namespace


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

// Rows are scanned in parallel chunks, taken in order, so the cells stay in
// row-major order.
void NCOPLS::FindMissingValue(const NCDataMatrix<float>& m, CellSet& cells)
{
    cells.clear();
    if (!m.HasMissingValues())
        return;
    const int rows = m.SizeRows(), cols = m.SizeColumns();
    const bool parallel = static_cast<long long>(rows) * cols >= NCParallelWork::MinCells;
    const int threads = parallel ? omp_get_max_threads() : 1;
    std::vector<CellSet> parts(static_cast<std::size_t>(threads));
#pragma omp parallel num_threads(threads) if (parallel)
    {
        CellSet& part = parts[static_cast<std::size_t>(omp_get_thread_num())];
#pragma omp for schedule(static)
        for (int i = 1; i <= rows; ++i) {
            const NCDataVector<float>& row = m[i];
            if (!row.HasMissingValues())
                continue;
            const float* v = row.GetVector();
            for (int j = 1; j <= cols; ++j)
                if (IsMisVal(v[j]))
                    part.emplace_back(i, j);
        }
    }
    cells.reserve(static_cast<std::size_t>(m.GetNumMisVal()));
    for (const CellSet& part : parts)
        cells.insert(cells.end(), part.begin(), part.end());
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

// The scores RemoveBasis gives, without the deflation after the last
// vector, and so without a copy of X for a single vector.
void NCOPLS::BasisScores(const NCDataMatrix<float>& x, const NCDataMatrix<float>& basis, NCDataMatrix<float>& scores)
{
    const int a = basis.SizeRows();
    if (a == 1) {
        scores = NCDataMatrix<float>(0, x.SizeRows());
        scores.push_back(x.SpecialNipalsRegressRowsFix(basis[1]));
        return;
    }
    NCDataMatrix<float> e = x;
    RemoveBasis(e, basis.SubMat(1, a - 1, 1, basis.SizeColumns()), scores);
    scores.push_back(e.SpecialNipalsRegressRowsFix(basis[a]));
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
        m_refinementCount = 0;
        // What the basis leaves of X, formed for a further pass only when
        // the basis has several vectors; covX is Y'X.
        NCDataMatrix<float> e, s, covX;
        double first = 0.0, previous = 0.0;
        int knownSize = m_wList.empty() ? 0 : m_wList.front().SizeRows();
        for (;;) {
            NCDataMatrix<float> covariance;
            if (m_refinementCount == 0) {
                covariance = ZeroFilledProduct(m_y, m_x, true);
                covX = covariance;
            } else if (e.empty()) {
                covariance = ResidualCovariance(covX, m_y, basis[1], m_basisScores[1], m_xMissingCells);
            } else {
                covariance = ZeroFilledProduct(m_y, e, true);
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
            ++m_refinementCount;
            if (!incomplete || m_refinementCount >= m_maxIterations) {
                BasisScores(m_x, basis, m_basisScores);
                break;
            }
            if (basis.SizeRows() == 1 && !basis.HasMissingValues()) {
                e.Clear();
                BasisScores(m_x, basis, m_basisScores);
            } else {
                e = m_x;
                RemoveBasis(e, basis, m_basisScores);
            }
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
    m_tprim = NCDataMatrix<float>(0, n);
    m_uprim = NCDataMatrix<float>(0, n);
    if (pprim)
        *pprim = NCDataMatrix<float>(0, m_x.SizeColumns());
    if (cprim)
        *cprim = NCDataMatrix<float>(0, m_y.SizeColumns());
    // Deflated copies only when a later component reads them.
    NCDataMatrix<float> e, f;
    const NCDataMatrix<float>* x = &m_x;
    const NCDataMatrix<float>* y = &m_y;
    for (int i = 1; i <= a; ++i) {
        // The first score is the first basis score: the same projection of X.
        const NCDataVector<float> t =
            i == 1 && m_basisScores.SizeRows() >= 1 ? m_basisScores[1] : x->SpecialNipalsRegressRowsFix(basis[i]);
        const NCDataVector<float> p = givenP ? (*givenP)[i] : x->SpecialNipalsRegressColumnsFix(t);
        const NCDataVector<float> c = givenC ? (*givenC)[i] : y->SpecialNipalsRegressColumnsFix(t);
        m_tprim.push_back(t);
        m_uprim.push_back(y->SpecialNipalsRegressRowsFix(c));
        if (pprim)
            pprim->push_back(p);
        if (cprim)
            cprim->push_back(c);
        if (i < a) {
            if (i == 1) {
                e = m_x;
                f = m_y;
                x = &e;
                y = &f;
            }
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
    // E, the part of X outside the basis, is formed only for a basis with
    // missing weights, which the corrections do not cover.
    NCDataMatrix<float> e;
    auto outsideBasis = [&]() -> const NCDataMatrix<float>& {
        if (e.empty()) {
            e = m_x;
            for (int i = 1; i <= w.SizeRows(); ++i)
                e.AddVprimV(m_basisScores[i], w[i], -1.0);
        }
        return e;
    };
    const bool fromX = !w.HasMissingValues();
    // Row i: the part of the i-th predictive loading outside the basis.
    const NCDataMatrix<float> outside = fromX ? ScoresTimesOutside(m_x, m_basisScores, w, m_xMissingCells)
                                              : ZeroFilledProduct(m_basisScores, outsideBasis(), false);
    NCDataVector<float> wo;
    if (outside.SizeRows() < 2) {
        wo = outside[1];
        wo.Normalize();
    } else {
        NCPCA pca(&outside, m_maxIterations);
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        wo = (*pca.GetPprim())[1];
    }
    const NCDataVector<float> to = fromX && !wo.HasMissingValues()
                                       ? OutsideRowScores(m_x, m_basisScores, w, wo, m_xMissingCells)
                                       : outsideBasis().SpecialNipalsRegressRowsFix(wo);
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
        const NCDataMatrix<float>& w = m_wList[static_cast<std::size_t>(k - 1)];
        NCDataVector<float> to;
        NCDataMatrix<float> scores;
        if (w.HasMissingValues() || m_woprim[k].HasMissingValues()) {
            NCDataMatrix<float> e = m_x;
            RemoveBasis(e, w, scores);
            to = e.SpecialNipalsRegressRowsFix(m_woprim[k]);
        } else {
            BasisScores(m_x, w, scores);
            to = OutsideRowScores(m_x, scores, w, m_woprim[k], m_xMissingCells);
        }
        const NCDataVector<float> uo = m_y.SpecialNipalsRegressRowsFix(m_coprim[k]);
        m_x.AddVprimV(to, m_poprim[k], -1.0);
        m_y.AddVprimV(to, m_coprim[k], -1.0);
        m_toprim.push_back(to);
        m_uoprim.push_back(uo);
    }
    BasisScores(m_x, m_wList.back(), m_basisScores);
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
