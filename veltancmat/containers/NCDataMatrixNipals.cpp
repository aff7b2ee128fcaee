// The column and row projections that NIPALS repeats for every component,
// and the sum of squares of the rows they read.
//
// The regressions read the matrix in place, row by row: each thread sums its
// share of the rows into its own per-column partial sums, which are added
// together at the end. Elements are multiplied in the element type and
// accumulated in double.

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/NipalsKernels.h"
#include "veltancmat/containers/frame/NipalsRule.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/RankOne.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using NCNipalsKernels::ColumnBlockKernels;
using NCNipalsKernels::ColumnLocality;
using NCNipalsKernels::FlushEvery;
using NCNipalsKernels::Kernels;

// A zeroed 1-based array of n + 1 elements whose element 1 starts a cache
// line. The sums are read and written in full vectors once per cell of the
// matrix: at the 4-byte offset a std::vector would give, half of those
// stores would straddle two lines.
template <class T>
class LineAligned
{
public:
    explicit LineAligned(int n)
    {
        // One line in front (element 0 and padding), n elements, and the
        // rest rounded up to whole lines as aligned_alloc requires.
        constexpr std::size_t perLine = 64 / sizeof(T);
        const std::size_t elements = (perLine + static_cast<std::size_t>(n) + 2 * perLine - 1) / perLine * perLine;
        m_block.reset(static_cast<T*>(std::aligned_alloc(64, elements * sizeof(T))));
        if (!m_block)
            throw std::bad_alloc();
        std::fill_n(m_block.get(), elements, T(0));
    }
    T* data() { return m_block.get() + 64 / sizeof(T) - 1; }

private:
    struct Free {
        void operator()(T* p) const { std::free(p); }
    };
    std::unique_ptr<T, Free> m_block;
};

// Rows shorter than this (the few responses of a PLS model) are summed by
// inline scalar loops: a call through the kernel table costs more than
// such a row's arithmetic, and these projections meet every row once per
// NIPALS iteration.
constexpr int ShortRow = 16;

bool WorthParallel(long long rows, long long cols)
{
    return NCParallelWork::ProjectionWorthParallel(rows, cols, 1, NCParallelWork::MinCells);
}

// Rows are separate blocks, so the hardware prefetcher loses the stream at
// each row's start. The column projection carries two read-write sum
// streams besides the row, so fewer of its loads are in flight, and it asks
// for rows ahead itself: the row eight ahead into the second-level cache,
// where requests do not hold first-level miss slots. The row projection
// reads the row alone and leaves the stream to the hardware, which was as
// fast or faster than any distance asked for (docs/performance.md).
constexpr int ColumnAhead = 8;

// The one-sweep projection alternates reading a row for its score with
// arithmetic on rows already in cache, and the hardware prefetcher, which
// serves the row projection alone well, then leaves the memory idle in
// between. It asks for the row sixteen ahead into the second-level cache:
// with gaps, where the sweep's arithmetic is heaviest, that was faster than
// eight ahead, than the first-level cache, and than not asking.
constexpr int SweepAhead = 16;

// A thread's share of a matrix this small stays in its second-level cache
// between passes (as in the rounds of a cross-validation), and asking for
// its rows again only costs instructions. A share that does not fit comes
// from the shared third level, where asking ahead pays.
constexpr long long PrefetchFromBytes = 1LL << 20;

template <class T>
bool WorthPrefetching(long long rows, long long cols, bool parallel)
{
    const long long threads = parallel ? std::max(1, omp_get_max_threads()) : 1;
    return rows * cols * static_cast<long long>(sizeof(T)) / threads >= PrefetchFromBytes;
}

// ---- row projection of rows shorter than ShortRow (the responses of PLS)
//
// With the width a compile-time constant the cell loop unrolls without a
// branch per cell, and a complete row skips the gap sums. The arithmetic,
// and so every bit of the results, is that of the loop over a run-time
// width.

template <class T, int N>
struct ShortRows {
    // This thread's share of the row projection; returns how many of its
    // results are missing.
    static int Rows(const NCRowTable<T>& rows, const T* pv, const T* p2, const int* present, double pp,
                    int presentInP, T* out)
    {
        int missing = 0;
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows.count; ++i) {
            const NCDataVector<T>& row = rows[i];
            const T* x = row.GetVector();
            // Odd and even columns go to separate sums, which halves the
            // chain of dependent double additions a row waits for (up to
            // fifteen with one sum).
            double even = 0.0, odd = 0.0, d = pp;
            int pairs = presentInP;
            if (row.HasNoMissingValues()) {
                for (int j = 1; j <= N; ++j)
                    (j % 2 ? odd : even) += x[j] * pv[j];
            } else {
                double gapSquares = 0.0;
                int gapPairs = 0;
                for (int j = 1; j <= N; ++j) {
                    const bool gap = IsMisVal(x[j]);
                    (j % 2 ? odd : even) += (gap ? T(0) : x[j]) * pv[j];
                    gapSquares += gap ? p2[j] : T(0);
                    gapPairs += gap ? present[j] : 0;
                }
                d = NipalsDivisor(pp, pp - gapSquares);
                pairs -= gapPairs;
            }
            out[i] = NipalsQuotient<T>(odd + even, d, pairs);
            missing += IsMisVal(out[i]) ? 1 : 0;
        }
        return missing;
    }
};

// The kernels for every width below ShortRow, indexed by the width.
template <class T, std::size_t... N>
constexpr auto MakeShortRows(std::index_sequence<N...>)
{
    return std::array{&ShortRows<T, static_cast<int>(N)>::Rows...};
}

template <class T>
constexpr auto ShortRowKernels = MakeShortRows<T>(std::make_index_sequence<ShortRow>());

template <int Locality, class T>
inline void PrefetchRow(const T* x, int n)
{
    const char* begin = reinterpret_cast<const char*>(x + 1);
    const char* end = reinterpret_cast<const char*>(x + 1 + n);
    for (const char* a = begin; a < end; a += 64)
        __builtin_prefetch(a, 0, Locality);
}

} // namespace

// ------------------------------------------------------ sum of squares

template <class T>
double NCDataMatrix<T>::SumSquares(const NCRowTable<T>& rows)
{
    const bool anyValid = rows.count * static_cast<long long>(rows.cols) > rows.missing;
    if (!anyValid)
        return dMisVal;
    // A complete row is the dot product of the row with itself, whose
    // independent partial sums run at the speed of reading the row; the
    // vector's own sum keeps one chain of double additions.
    const int n = rows.cols;
    const Kernels<T>& kernels = NCNipalsKernels::Here<T>();
    double ss = 0.0;
#pragma omp parallel for if (WorthParallel(rows.count, n)) schedule(static) reduction(+ : ss)
    for (int i = 1; i <= rows.count; ++i) {
        const Vector& row = rows[i];
        if (row.HasNoMissingValues())
            ss += kernels.dotComplete(row.GetVector(), row.GetVector(), n);
        else if (row.HasValidValues())
            ss += row.GetSS();
    }
    return ss;
}

// ------------------------------------------------------ NIPALS regressions

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector& t, const IndexList* groups,
                                                                int group) const
{
    Vector p;
    SpecialNipalsRegressColumnsFixImpl(t, groups, group, &p);
    return p;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector& t, const IndexList* groups, int group,
                                                         Vector* result) const
{
    CheckedNipalsColumns(AllRows(), t, groups, group, result, Owner);
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsColumns(const NCRowTable<T>& rows, const Vector& t, const IndexList* groups,
                                           int group, Vector* result, const char* owner)
{
    NCMatrixErrors::CheckResult(result);
    if (t.Size() != rows.count || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "SpecialNipalsRegressColumnsFix", "Vectors are of different size.");
    NipalsColumns(rows, t, groups, group, result);
}

namespace {

// The column projection's sums over the rows that take part (those whose
// score is present): the products x't per column, t't and how many rows,
// and, with gaps, the squares t_i^2 that each column's missing cells remove
// from t't.
struct ColumnSums {
    std::vector<double> s12;
    std::vector<double> gapSquares;
    double tt = 0.0;
    int rowsUsed = 0;
};

// One thread's share of the column projection. Rows are summed in the
// element type FlushEvery at a time and then widened into the share's
// double sums: row by row, or for float rows with gaps by the block
// kernels. Adding a row is inlined into the loop over the rows: a call per
// row showed in the time of the complete projection (docs/performance.md).
template <class T>
class ColumnShare
{
public:
    ColumnShare(int n, bool masked, const Kernels<T>& kernels, const ColumnBlockKernels* blocks, bool prefetch)
        : m_n(n), m_masked(masked), m_kernels(kernels), m_blocks(blocks), m_prefetch(prefetch), m_total(n),
          m_squares(masked ? n : 0), m_part(blocks ? 0 : n), m_partSquares(masked && !blocks ? n : 0)
    {
    }

    inline __attribute__((always_inline)) void Add(const NCDataVector<T>& row, T ti)
    {
        if constexpr (std::is_same_v<T, float>) {
            if (m_blocks) {
                AddToBlock(row.GetVector(), ti);
                return;
            }
        }
        AddRow(row, ti);
    }

    // Sums what is pending and adds the share into `sums`.
    void AddInto(ColumnSums& sums)
    {
        Finish();
        const int n = m_n;
#pragma omp critical(NCDataMatrix_NipalsColumns)
        {
            for (int j = 1; j <= n; ++j)
                sums.s12[j] += m_total.data()[j];
            if (m_masked)
                for (int j = 1; j <= n; ++j)
                    sums.gapSquares[j] += m_squares.data()[j];
        }
    }

private:
    inline __attribute__((always_inline)) void AddRow(const NCDataVector<T>& row, T ti)
    {
        const T* x = row.GetVector();
        const int n = m_n;
        if (n < ShortRow) {
            T* p12 = m_part.data();
            if (row.HasNoMissingValues()) {
                for (int j = 1; j <= n; ++j)
                    p12[j] += x[j] * ti;
            } else {
                T* squares = m_partSquares.data();
                for (int j = 1; j <= n; ++j) {
                    const bool gap = IsMisVal(x[j]);
                    p12[j] += (gap ? T(0) : x[j]) * ti;
                    squares[j] += gap ? ti * ti : T(0);
                }
            }
        } else if (row.HasNoMissingValues()) {
            m_kernels.accumulateComplete(m_part.data(), x, ti, n);
        } else {
            m_kernels.accumulateMasked(m_part.data(), m_partSquares.data(), x, ti, n);
        }
        if (++m_pending == FlushEvery) {
            FlushRows();
            m_pending = 0;
        }
    }

    void FlushRows()
    {
        m_kernels.flush(m_total.data(), m_part.data(), m_n);
        if (m_masked)
            m_kernels.flush(m_squares.data(), m_partSquares.data(), m_n);
    }

    // Blocks are gathered one ahead of the one summed, so that the kernel
    // can ask for the next block's rows as it goes.
    inline __attribute__((always_inline)) void AddToBlock(const T* x, T ti)
    {
        m_nextRows[static_cast<std::size_t>(m_pending)] = x;
        m_nextScores[static_cast<std::size_t>(m_pending)] = ti;
        if (++m_pending < FlushEvery)
            return;
        if (!m_prefetch) {
            // Nothing to ask ahead for: the block is summed while its rows
            // are still in the first-level cache (the fused sweep has just
            // read them for their scores).
            SumBlock(FlushEvery, m_nextRows, m_nextScores, nullptr);
            m_pending = 0;
            return;
        }
        if (m_blockReady)
            SumBlock(FlushEvery, m_blockRows, m_blockScores, m_nextRows.data());
        std::swap(m_blockRows, m_nextRows);
        std::swap(m_blockScores, m_nextScores);
        m_blockReady = true;
        m_pending = 0;
    }

    void SumBlock(int count, const std::array<const T*, FlushEvery>& rows, const std::array<T, FlushEvery>& scores,
                  const T* const* next)
    {
        if constexpr (std::is_same_v<T, float>)
            (*m_blocks)[static_cast<std::size_t>(count - 1)](m_total.data(), m_squares.data(), rows.data(),
                                                             scores.data(), next, m_n);
    }

    void Finish()
    {
        if (!m_blocks) {
            FlushRows();
            return;
        }
        if (m_blockReady)
            SumBlock(FlushEvery, m_blockRows, m_blockScores, nullptr);
        if (m_pending > 0)
            SumBlock(m_pending, m_nextRows, m_nextScores, nullptr);
    }

    int m_n;
    bool m_masked;
    const Kernels<T>& m_kernels;
    const ColumnBlockKernels* m_blocks;
    bool m_prefetch;
    LineAligned<double> m_total;
    LineAligned<double> m_squares;
    LineAligned<T> m_part;
    LineAligned<T> m_partSquares;
    std::array<const T*, FlushEvery> m_blockRows{}, m_nextRows{};
    std::array<T, FlushEvery> m_blockScores{}, m_nextScores{};
    bool m_blockReady = false;
    int m_pending = 0;
};

// The block kernels where the rows are float with gaps, else null.
template <class T>
const ColumnBlockKernels* BlocksFor(const Kernels<T>& kernels, bool masked, int n)
{
    if constexpr (std::is_same_v<T, float>)
        return masked && n >= ShortRow ? &kernels.columnBlocks : nullptr;
    return nullptr;
}

template <class T>
ColumnSums SumColumns(const NCRowTable<T>& rowTable, const T* tv, bool masked)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
    const Kernels<T>& kernels = NCNipalsKernels::Here<T>();
    const ColumnBlockKernels* blocks = BlocksFor(kernels, masked, n);
    double tt = 0.0;
    int rowsUsed = 0;
#pragma omp parallel if (parallel) reduction(+ : tt, rowsUsed)
    {
        ColumnShare<T> share(n, masked, kernels, blocks, prefetch);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            if (prefetch && !blocks && i + ColumnAhead <= rows)
                PrefetchRow<ColumnLocality>(rowTable[i + ColumnAhead].GetVector(), n);
            const T ti = tv[i];
            if (IsMisVal(ti))
                continue;
            tt += static_cast<double>(ti * ti);
            ++rowsUsed;
            share.Add(rowTable[i], ti);
        }
        share.AddInto(sums);
    }
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    return sums;
}

// The missing cells of each column within the rows that take part: its
// missing count less those in rows whose score is missing.
template <class T>
std::vector<int> GapsInUsedRows(const NCRowTable<T>& rowTable, const T* tv, bool tComplete)
{
    const int n = rowTable.cols;
    std::vector<int> gaps(rowTable.columnMissing, rowTable.columnMissing + n + 1);
    if (!tComplete)
        for (int i = 1; i <= rowTable.count; ++i)
            if (IsMisVal(tv[i]) && rowTable[i].HasMissingValues()) {
                const T* x = rowTable[i].GetVector();
                for (int j = 1; j <= n; ++j)
                    gaps[j] -= IsMisVal(x[j]) ? 1 : 0;
            }
    return gaps;
}

} // namespace

namespace {

// The loadings from the column sums: sum / divisor per column, the divisor
// reduced by the squares that met a gap wherever the column or the scores
// have one. Returns how many loadings are missing.
template <class T>
int ColumnQuotients(const NCRowTable<T>& rowTable, const ColumnSums& sums, const T* tv, bool tComplete,
                    const NCIntegralVector<int, -99>* groups, int group, T* out)
{
    const int n = rowTable.cols;
    const bool masked = rowTable.missing > 0;
    const std::vector<int> gaps = masked ? GapsInUsedRows(rowTable, tv, tComplete) : std::vector<int>();
    const int* columnMissing = rowTable.columnMissing;
    const int* labels = groups ? groups->GetPtr() : nullptr;
    int missing = 0;
    for (int j = 1; j <= n; ++j) {
        double d = sums.tt;
        int pairs = sums.rowsUsed;
        if (masked && !(tComplete && columnMissing[j] == 0)) {
            d = NipalsDivisor(sums.tt, sums.tt - sums.gapSquares[j]);
            pairs = sums.rowsUsed - gaps[j];
        }
        const bool excluded = labels && labels[j] == group;
        out[j] = excluded ? NCMisVal<T> : NipalsQuotient<T>(sums.s12[j], d, pairs);
        missing += IsMisVal(out[j]) ? 1 : 0;
    }
    return missing;
}

// A loading as the row kernels want it: missing and excluded entries zero,
// their squares zero, and a presence flag per variable.
template <class T>
struct RowLoading {
    const Kernels<T>& kernels = NCNipalsKernels::Here<T>();
    std::vector<T> pv, p2;
    std::vector<int> present;
    double pp = 0.0;
    int presentInP = 0;
    bool pComplete = false;

    RowLoading(const NCDataVector<T>& p, const NCIntegralVector<int, -99>* groups, int group, int n)
        : pv(static_cast<std::size_t>(n) + 1, T(0)), p2(static_cast<std::size_t>(n) + 1, T(0)),
          present(static_cast<std::size_t>(n) + 1, 0)
    {
        const int* labels = groups ? groups->GetPtr() : nullptr;
        for (int j = 1; j <= n; ++j) {
            if (IsMisVal(p[j]) || (labels && labels[j] == group))
                continue;
            pv[static_cast<std::size_t>(j)] = p[j];
            p2[static_cast<std::size_t>(j)] = p[j] * p[j];
            present[static_cast<std::size_t>(j)] = 1;
            pp += static_cast<double>(p2[static_cast<std::size_t>(j)]);
            ++presentInP;
        }
        pComplete = presentInP == n;
    }

    // The score of one row at least ShortRow wide.
    inline __attribute__((always_inline)) T Score(const NCDataVector<T>& row, int n) const
    {
        const T* x = row.GetVector();
        double sum = 0.0, d = pp;
        int pairs = presentInP;
        if (row.HasNoMissingValues()) {
            sum = kernels.dotComplete(x, pv.data(), n);
        } else {
            double gapSquares = 0.0;
            sum = kernels.dotMasked(x, pv.data(), p2.data(), n, gapSquares);
            d = NipalsDivisor(pp, pp - gapSquares);
            pairs -= pComplete ? row.GetNumMisVal() : kernels.gapPairs(x, present.data(), n);
        }
        return NipalsQuotient<T>(sum, d, pairs);
    }
};

} // namespace

template <class T>
void NCDataMatrix<T>::NipalsColumns(const NCRowTable<T>& rowTable, const Vector& t, const IndexList* groups,
                                    int group, Vector* result)
{
    const int n = rowTable.cols;
    const T* tv = t.GetVector();
    const ColumnSums sums = SumColumns(rowTable, tv, rowTable.missing > 0);
    result->SetSize(n);
    result->m_numMis =
        ColumnQuotients(rowTable, sums, tv, t.HasNoMissingValues(), groups, group, result->GetVectorForWriting());
}

template <class T>
double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int j, const Vector& t) const
{
    NCMatrixErrors::CheckVectorSize(t.Size(), m_rows, "SpecialNipalsRegressOneColumnFix");
    return t.SpecialNipalsRegressFix(GetColumn(j));
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector& p, const IndexList* groups,
                                                             int group) const
{
    Vector t;
    SpecialNipalsRegressRowsFixImpl(p, groups, group, &t);
    return t;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector& p, const IndexList* groups, int group,
                                                      Vector* result) const
{
    CheckedNipalsRows(AllRows(), p, groups, group, result, Owner);
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsRows(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups, int group,
                                        Vector* result, const char* owner)
{
    NCMatrixErrors::CheckResult(result);
    if (p.Size() != rows.cols || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "SpecialNipalsRegressRowsFix", "Vectors are of different size.");
    NipalsRows(rows, p, groups, group, result);
}

template <class T>
void NCDataMatrix<T>::NipalsRows(const NCRowTable<T>& rowTable, const Vector& p, const IndexList* groups, int group,
                                 Vector* result)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    const RowLoading<T> loading(p, groups, group, n);
    result->SetSize(rows);
    T* out = result->GetVectorForWriting();
    int missing = 0;
    [[maybe_unused]] const bool parallel = WorthParallel(rows, n);
    if (n < ShortRow) {
#pragma omp parallel if (parallel) reduction(+ : missing)
        missing += ShortRowKernels<T>[static_cast<std::size_t>(n)](rowTable, loading.pv.data(), loading.p2.data(),
                                                                   loading.present.data(), loading.pp,
                                                                   loading.presentInP, out);
        result->m_numMis = missing;
        return;
    }
#pragma omp parallel for if (parallel) schedule(static) reduction(+ : missing)
    for (int i = 1; i <= rows; ++i) {
        out[i] = loading.Score(rowTable[i], n);
        missing += IsMisVal(out[i]) ? 1 : 0;
    }
    result->m_numMis = missing;
}

// Each thread takes the same rows, in the same order, as the two passes
// would give it, computes a row's score and adds the row times that score
// into its column sums at once, grouped into blocks exactly as the column
// pass groups them: the results are those of the two passes to the bit,
// and the matrix is read once instead of twice.
template <class T>
void NCDataMatrix<T>::NipalsRowsThenColumns(const NCRowTable<T>& rowTable, const Vector& p, const IndexList* groups,
                                            int group, Vector* scores, Vector* loadings)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    if (n < ShortRow) {
        // The responses of PLS: narrow enough that both passes stay cheap,
        // and their row kernel sums in another order.
        NipalsRows(rowTable, p, groups, group, scores);
        NipalsColumns(rowTable, *scores, groups, group, loadings);
        return;
    }
    const RowLoading<T> loading(p, groups, group, n);
    const bool masked = rowTable.missing > 0;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const ColumnBlockKernels* blocks = BlocksFor(loading.kernels, masked, n);

    scores->SetSize(rows);
    T* out = scores->GetVectorForWriting();
    double tt = 0.0;
    int rowsUsed = 0, missing = 0;
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
#pragma omp parallel if (parallel) reduction(+ : tt, rowsUsed, missing)
    {
        ColumnShare<T> share(n, masked, loading.kernels, blocks, false);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            if (prefetch && i + SweepAhead <= rows)
                PrefetchRow<ColumnLocality>(rowTable[i + SweepAhead].GetVector(), n);
            const Vector& row = rowTable[i];
            const T ti = loading.Score(row, n);
            out[i] = ti;
            if (IsMisVal(ti)) {
                ++missing;
                continue;
            }
            tt += static_cast<double>(ti * ti);
            ++rowsUsed;
            share.Add(row, ti);
        }
        share.AddInto(sums);
    }
    scores->m_numMis = missing;
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    loadings->SetSize(n);
    loadings->m_numMis =
        ColumnQuotients(rowTable, sums, out, missing == 0, groups, group, loadings->GetVectorForWriting());
}

// The deflation is elementwise, so it takes the rows in whatever shares the
// column projection gives the threads; the sums of squares and the column
// sums then follow SumSquares and NipalsColumns row for row.
template <class T>
bool NCDataMatrix<T>::DeflateThenColumns(const Vector& t, const Vector& p, const Vector& u, double* ss, Vector* w)
{
    if (t.Size() != m_rows || p.Size() != m_cols || u.Size() != m_rows)
        NCMatrixErrors::ThrowSize("DeflateThenColumns", "Vectors are of different size.");
    NCMatrixErrors::CheckResult(w);
    const int n = m_cols;
    const int rows = m_rows;
    if (rows == 0 || n < ShortRow) {
        // Narrow: the responses' own kernels sum in another order.
        AddVprimV(t, p, -1.0);
        return false;
    }
    UnlinkMe();
    const Vector loading(p);
    const T* pv = loading.GetVector();
    const T* tv = t.GetVector();
    const T* uv = u.GetVector();
    Vector* rowArray = m_rowArray;
    const bool masked = m_numMis > 0;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const Kernels<T>& kernels = NCNipalsKernels::Here<T>();
    const ColumnBlockKernels* blocks = BlocksFor(kernels, masked, n);
    double squares = 0.0, tt = 0.0;
    int rowsUsed = 0, landed = 0;
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
#pragma omp parallel if (parallel) reduction(+ : squares, tt, rowsUsed, landed)
    {
        ColumnShare<T> share(n, masked, kernels, blocks, false);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            // As in the one-sweep projection: arithmetic between the rows.
            if (prefetch && i + SweepAhead <= rows)
                PrefetchRow<ColumnLocality>(rowArray[i + SweepAhead].GetVector(), n);
            Vector& row = rowArray[i];
            if (!IsMisVal(tv[i])) {
                const int newlyMissing = RankOneUpdate(row.GetVectorForWriting(), pv, -1.0 * tv[i], n);
                row.m_numMis += newlyMissing;
                landed += newlyMissing;
            }
            // Once a cell lands on the marker the sums are thrown away, and
            // a share made for a complete matrix has no room for the squares
            // of a row with gaps: only the deflation goes on.
            if (landed > 0)
                continue;
            if (row.HasNoMissingValues())
                squares += kernels.dotComplete(row.GetVector(), row.GetVector(), n);
            else if (row.HasValidValues())
                squares += row.GetSS();
            const T ui = uv[i];
            if (IsMisVal(ui))
                continue;
            tt += static_cast<double>(ui * ui);
            ++rowsUsed;
            share.Add(row, ui);
        }
        share.AddInto(sums);
    }
    if (landed > 0) {
        RecountColumns();
        return false;
    }
    const NCRowTable<T> table = AllRows();
    const bool anyValid = rows * static_cast<long long>(n) > m_numMis;
    *ss = anyValid ? squares : dMisVal;
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    w->SetSize(n);
    w->m_numMis = ColumnQuotients(table, sums, uv, u.HasNoMissingValues(), nullptr, 0, w->GetVectorForWriting());
    return true;
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsRowsThenColumns(const NCRowTable<T>& rows, const Vector& p,
                                                   const IndexList* groups, int group, Vector* scores,
                                                   Vector* loadings, const char* owner)
{
    NCMatrixErrors::CheckResult(scores);
    NCMatrixErrors::CheckResult(loadings);
    if (p.Size() != rows.cols || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "NipalsRowsThenColumns", "Vectors are of different size.");
    NipalsRowsThenColumns(rows, p, groups, group, scores, loadings);
}

#define VELTAN_INSTANTIATE_NIPALS(T)                                                                                  \
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector&, const IndexList*, int)   \
        const;                                                                                                        \
    template double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int, const Vector&) const;                     \
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector&, const IndexList*, int)      \
        const;                                                                                                        \
    template void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector&, const IndexList*, int, Vector*) \
        const;                                                                                                        \
    template void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector&, const IndexList*, int, Vector*)    \
        const;                                                                                                        \
    template double NCDataMatrix<T>::SumSquares(const NCRowTable<T>&);                                               \
    template void NCDataMatrix<T>::NipalsColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int,         \
                                                 Vector*);                                                           \
    template void NCDataMatrix<T>::NipalsRows(const NCRowTable<T>&, const Vector&, const IndexList*, int, Vector*); \
    template void NCDataMatrix<T>::NipalsRowsThenColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int, \
                                                         Vector*, Vector*);                                          \
    template bool NCDataMatrix<T>::DeflateThenColumns(const Vector&, const Vector&, const Vector&, double*, Vector*); \
    template void NCDataMatrix<T>::CheckedNipalsRowsThenColumns(const NCRowTable<T>&, const Vector&,                 \
                                                                const IndexList*, int, Vector*, Vector*,             \
                                                                const char*);                                        \
    template void NCDataMatrix<T>::CheckedNipalsColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int,  \
                                                        Vector*, const char*);                                       \
    template void NCDataMatrix<T>::CheckedNipalsRows(const NCRowTable<T>&, const Vector&, const IndexList*, int,     \
                                                     Vector*, const char*);

VELTAN_INSTANTIATE_NIPALS(float)
VELTAN_INSTANTIATE_NIPALS(double)
