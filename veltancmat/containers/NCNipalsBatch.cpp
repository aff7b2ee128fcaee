#include "veltancmat/containers/NCNipalsBatch.h"

#include "veltancmat/containers/frame/BatchKernels.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/NipalsRule.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/platform/NCError.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

using NCBatchKernels::ColumnBlockRows;
using NCBatchKernels::MaxVectors;
using NCBatchKernels::NarrowRow;
using NCBatchKernels::Width;

// A missing cell's share for every vector at once: the squares it removes
// from each vector's sum of squares, and the pairs from each count.
struct GapShare {
    double squares[MaxVectors] = {};
    int pairs[MaxVectors] = {};

    // The share stored at squares[0 .. 7], counts[0 .. 7].
    static GapShare Load(const double* squares, const int* counts)
    {
        GapShare share;
        std::copy_n(squares, MaxVectors, share.squares);
        std::copy_n(counts, MaxVectors, share.pairs);
        return share;
    }

    void Store(double* squares, int* counts) const
    {
        std::copy_n(this->squares, MaxVectors, squares);
        std::copy_n(pairs, MaxVectors, counts);
    }

    void Add(const GapShare& other)
    {
        for (int r = 0; r < MaxVectors; ++r) {
            squares[r] += other.squares[r];
            pairs[r] += other.pairs[r];
        }
    }
};

// The share stored at squares, counts plus `add`, stored back.
void AddGap(double* squares, int* counts, const GapShare& add)
{
    GapShare sum = GapShare::Load(squares, counts);
    sum.Add(add);
    sum.Store(squares, counts);
}

// Room for `count` elements from index 1 on, where element 1 starts a cache
// line: the sums are stored as whole 64-byte vectors, and a store that
// straddles two lines costs two.
template <class T>
T* LineAlignedFromOne(std::vector<T>& storage, std::size_t count)
{
    constexpr std::size_t perLine = 64 / sizeof(T);
    storage.assign(count + 2 * perLine, T(0));
    const auto address = reinterpret_cast<std::uintptr_t>(storage.data() + 1);
    const std::size_t skip = (64 - address % 64) % 64 / sizeof(T);
    return storage.data() + skip;
}

// The distance between two vectors' sums: whole lines, so that each vector's
// element 1 starts one.
int LineStride(int n, std::size_t elementSize)
{
    const int perLine = static_cast<int>(64 / elementSize);
    return (n + perLine) / perLine * perLine;
}

bool WorthParallel(long long rows, long long cols, int vectors)
{
    return NCParallelWork::ProjectionWorthParallel(rows, cols, vectors, NCParallelWork::MinSharedPassWork);
}

int TeamSize(bool parallel)
{
    return parallel ? std::max(1, omp_get_max_threads()) : 1;
}

} // namespace

NCNipalsBatch::NCNipalsBatch(const NCDataMatrix<float>& matrix) : m_matrix(matrix)
{
    const int rows = matrix.SizeRows(), n = matrix.SizeColumns();
    m_rowSS.assign(static_cast<std::size_t>(rows) + 1, 0.0);
    m_gapStart.assign(static_cast<std::size_t>(rows) + 2, 0);
    for (int i = 1; i <= rows; ++i)
        m_gapStart[static_cast<std::size_t>(i) + 1] = m_gapStart[static_cast<std::size_t>(i)] + matrix[i].GetNumMisVal();
    m_gaps.resize(static_cast<std::size_t>(m_gapStart.back()));
    const NCBatchKernels::Kernels& kernels = NCBatchKernels::Here();
#pragma omp parallel for if (WorthParallel(rows, n, 1)) schedule(static)
    for (int i = 1; i <= rows; ++i) {
        const NCDataVector<float>& row = matrix[i];
        const float* x = row.GetVector();
        const float* self[1] = {x};
        const bool complete = row.HasNoMissingValues();
        // The row against itself: with its gaps zero in one factor, they add nothing.
        kernels.dots[complete ? 0 : 1][0](x, self, n, &m_rowSS[static_cast<std::size_t>(i)]);
        if (!complete) {
            int* gap = m_gaps.data() + m_gapStart[static_cast<std::size_t>(i)];
            for (int j = 1; j <= n; ++j)
                if (IsMisVal(x[j]))
                    *gap++ = j;
        }
    }
}

namespace {

// Calls pass(in, out) on runs of at most MaxVectors vectors, once every
// input is known to have `size` elements and every output to exist, so
// that a bad argument leaves every result as it was.
template <class Pass>
void InRunsOfEight(std::span<const NCDataVector<float>* const> in, std::span<NCDataVector<float>* const> out,
                   int size, const char* member, Pass&& pass)
{
    if (in.size() != out.size())
        throw NCInternalError(member);
    for (std::size_t r = 0; r < in.size(); ++r)
        if (!in[r] || !out[r] || in[r]->Size() != size)
            throw NCInternalError(member);
    for (std::size_t first = 0; first < in.size(); first += MaxVectors) {
        const std::size_t count = std::min<std::size_t>(MaxVectors, in.size() - first);
        pass(in.subspan(first, count), out.subspan(first, count));
    }
}

} // namespace

void NCNipalsBatch::Columns(std::span<const NCDataVector<float>* const> scores,
                            std::span<NCDataVector<float>* const> results) const
{
    InRunsOfEight(scores, results, m_matrix.SizeRows(), "NCNipalsBatch::Columns", [&](auto in, auto out) { ColumnsUpTo8(in, out); });
}

void NCNipalsBatch::Rows(std::span<const NCDataVector<float>* const> weights,
                         std::span<NCDataVector<float>* const> results) const
{
    InRunsOfEight(weights, results, m_matrix.SizeColumns(), "NCNipalsBatch::Rows", [&](auto in, auto out) { RowsUpTo8(in, out); });
}

namespace {

// A column pass's sums, one set per thread of the team; they are added in
// thread order afterwards, so a given team size always gives the same bits.
struct ColumnPassSums {
    ColumnPassSums(int team, int vectors, int n, bool gaps)
        : team(team), stride(LineStride(n, sizeof(double))),
          perThread(static_cast<std::size_t>(vectors) * static_cast<std::size_t>(stride)),
          gapSquares(static_cast<std::size_t>(team)), gapCounts(static_cast<std::size_t>(team)),
          tt(static_cast<std::size_t>(team) * MaxVectors, 0.0), rowsUsed(static_cast<std::size_t>(team) * MaxVectors, 0)
    {
        totals = LineAlignedFromOne(totalStorage, perThread * static_cast<std::size_t>(team));
        const std::size_t gapCells = static_cast<std::size_t>(n + 1) * MaxVectors;
        for (int thread = 0; gaps && thread < team; ++thread) {
            gapSquares[static_cast<std::size_t>(thread)].assign(gapCells, 0.0);
            gapCounts[static_cast<std::size_t>(thread)].assign(gapCells, 0);
        }
    }

    int team;
    int stride;            // between two vectors' products
    std::size_t perThread; // between two threads' products
    std::vector<double> totalStorage;
    double* totals = nullptr; // products x't, [thread * perThread + r * stride + j]
    // What the missing cells remove, per thread and column with the vectors
    // side by side ([thread][j * MaxVectors + r]), so that a gap is one
    // short vector update rather than a scattered one per vector. Each
    // thread has a block of its own: in one shared block the two threads'
    // halves slowed each other.
    std::vector<std::vector<double>> gapSquares;
    std::vector<std::vector<int>> gapCounts;
    // Per thread and vector: the sum of the present squares of the scores
    // and how many there are.
    std::vector<double> tt;
    std::vector<int> rowsUsed;
};

// What one thread adds into during a column pass.
struct ThreadColumnSums {
    double* total;
    double* gapSquares; // null without gaps
    int* gapCounts;
    double tt[MaxVectors] = {};
    int used[MaxVectors] = {};
};

// The missing cells of the matrix, row by row (see NCNipalsBatch::m_gaps).
struct GapList {
    const int* gaps;
    const int* start;
};

// Adds the rows first .. first + count - 1 into `mine`: the products of
// every cell with the scores, and where a row has gaps, the squares and
// pairs its missing cells remove from their columns.
void SumColumnBlock(const NCBatchKernels::Kernels& kernels, const NCDataMatrix<float>& m, const GapList& gapList,
                    const float* const* t, int vectors, int first, int count, int stride, ThreadColumnSums& mine)
{
    const int n = m.SizeColumns();
    const float* x[ColumnBlockRows];
    // The block's scores row by row, a missing one as zero (it adds nothing).
    float s[ColumnBlockRows * MaxVectors];
    bool used[ColumnBlockRows * MaxVectors];
    bool masked = false;
    for (int b = 0; b < count; ++b) {
        const int i = first + b;
        x[b] = m[i].GetVector();
        masked |= !m[i].HasNoMissingValues();
        for (int r = 0; r < vectors; ++r) {
            const float v = t[r][i];
            const bool present = !IsMisVal(v);
            s[b * vectors + r] = present ? v : 0.0f;
            used[b * vectors + r] = present;
            mine.tt[r] += present ? static_cast<double>(v * v) : 0.0;
            mine.used[r] += present ? 1 : 0;
        }
    }
    kernels.columns[masked][static_cast<std::size_t>(vectors) - 1](mine.total, stride, x, s, count, n);
    if (!masked)
        return;
    // A missing cell removes the squares of the scores it meets from its
    // column's sum of squares, and the pair from its count.
    for (int b = 0; b < count; ++b) {
        GapShare share;
        for (int r = 0; r < vectors; ++r) {
            const float v = s[b * vectors + r];
            share.squares[r] = static_cast<double>(v * v);
            share.pairs[r] = used[b * vectors + r] ? 1 : 0;
        }
        const int* gap = gapList.gaps + gapList.start[first + b];
        const int* end = gapList.gaps + gapList.start[first + b + 1];
        for (; gap < end; ++gap)
            AddGap(mine.gapSquares + static_cast<std::size_t>(*gap) * MaxVectors,
                   mine.gapCounts + static_cast<std::size_t>(*gap) * MaxVectors, share);
    }
}

// Vector r's loadings from the threads' sums, added in thread order.
void ColumnQuotients(const ColumnPassSums& sums, int r, int n, bool gaps, NCDataVector<float>* result)
{
    double squaresOfScores = 0.0;
    int pairsWithoutGaps = 0;
    for (int thread = 0; thread < sums.team; ++thread) {
        squaresOfScores += sums.tt[static_cast<std::size_t>(thread) * MaxVectors + r];
        pairsWithoutGaps += sums.rowsUsed[static_cast<std::size_t>(thread) * MaxVectors + r];
    }
    result->SetSize(n);
    float* out = result->GetVectorForWriting();
    for (int j = 1; j <= n; ++j) {
        double s12 = 0.0, squares = 0.0;
        int pairs = pairsWithoutGaps;
        for (int thread = 0; thread < sums.team; ++thread) {
            const std::size_t cell = static_cast<std::size_t>(r) * sums.stride + j;
            s12 += sums.totals[sums.perThread * thread + cell];
            if (gaps) {
                const std::size_t at = static_cast<std::size_t>(j) * MaxVectors + r;
                squares += sums.gapSquares[static_cast<std::size_t>(thread)][at];
                pairs -= sums.gapCounts[static_cast<std::size_t>(thread)][at];
            }
        }
        const double d = squares > 0.0 ? NipalsDivisor(squaresOfScores, squaresOfScores - squares) : squaresOfScores;
        out[j] = NipalsQuotient<float>(s12, d, pairs);
    }
    result->RecountMissing();
}

} // namespace

void NCNipalsBatch::ColumnsUpTo8(std::span<const NCDataVector<float>* const> scores,
                                 std::span<NCDataVector<float>* const> results) const
{
    const int rows = m_matrix.SizeRows(), n = m_matrix.SizeColumns();
    const int vectors = static_cast<int>(scores.size());
    const bool gaps = !m_gaps.empty();
    const bool parallel = WorthParallel(rows, n, vectors);
    ColumnPassSums sums(TeamSize(parallel), vectors, n, gaps);
    const GapList gapList{m_gaps.data(), m_gapStart.data()};
    const NCBatchKernels::Kernels& kernels = NCBatchKernels::Here();
    const int blocks = (rows + ColumnBlockRows - 1) / ColumnBlockRows;
    const float* t[MaxVectors];
    for (int r = 0; r < vectors; ++r)
        t[r] = scores[r]->GetVector();
#pragma omp parallel num_threads(sums.team) if (parallel)
    {
        const int thread = omp_get_thread_num();
        const std::size_t me = static_cast<std::size_t>(thread);
        ThreadColumnSums mine{sums.totals + sums.perThread * me, gaps ? sums.gapSquares[me].data() : nullptr,
                              gaps ? sums.gapCounts[me].data() : nullptr};
#pragma omp for schedule(static) nowait
        for (int block = 0; block < blocks; ++block) {
            const int first = block * ColumnBlockRows + 1;
            SumColumnBlock(kernels, m_matrix, gapList, t, vectors, first, std::min(ColumnBlockRows, rows - first + 1),
                           sums.stride, mine);
        }
        std::copy_n(mine.tt, MaxVectors, sums.tt.data() + me * MaxVectors);
        std::copy_n(mine.used, MaxVectors, sums.rowsUsed.data() + me * MaxVectors);
    }
    for (int r = 0; r < vectors; ++r)
        ColumnQuotients(sums, r, n, gaps, results[r]);
}

void NCNipalsBatch::RowsUpTo8(std::span<const NCDataVector<float>* const> weights,
                              std::span<NCDataVector<float>* const> results) const
{
    const int rows = m_matrix.SizeRows(), n = m_matrix.SizeColumns();
    const int vectors = static_cast<int>(weights.size());

    // The weights as the kernel wants them: missing entries zero, with
    // their squares and presence apart for the rows with gaps, column by
    // column with the vectors side by side (p2[j * MaxVectors + r]), so that
    // a gap adds its share for every vector at once.
    const std::size_t stride = static_cast<std::size_t>(LineStride(n, sizeof(float)));
    std::vector<float> storage;
    float* const p = LineAlignedFromOne(storage, stride * vectors);
    std::vector<double> p2(static_cast<std::size_t>(n + 1) * MaxVectors, 0.0);
    std::vector<int> present(static_cast<std::size_t>(n + 1) * MaxVectors, 0);
    const float* pv[MaxVectors];
    double pp[MaxVectors] = {};
    int presentInP[MaxVectors] = {};
    for (int r = 0; r < vectors; ++r) {
        const float* w = weights[r]->GetVector();
        const std::size_t base = stride * r;
        for (int j = 1; j <= n; ++j) {
            if (IsMisVal(w[j]))
                continue;
            const float square = w[j] * w[j];
            p[base + j] = w[j];
            p2[static_cast<std::size_t>(j) * MaxVectors + r] = square;
            present[static_cast<std::size_t>(j) * MaxVectors + r] = 1;
            pp[r] += static_cast<double>(square);
            ++presentInP[r];
        }
        pv[r] = p + base;
        results[r]->SetSize(rows);
    }
    float* out[MaxVectors];
    for (int r = 0; r < vectors; ++r)
        out[r] = results[r]->GetVectorForWriting();

    const bool narrow = n < NarrowRow;
    std::vector<float> lanes(narrow ? static_cast<std::size_t>(n + 1) * Width : 0, 0.0f);
    for (int j = 1; narrow && j <= n; ++j)
        for (int r = 0; r < vectors; ++r)
            lanes[static_cast<std::size_t>(j) * Width + r] = pv[r][j];

    const std::size_t kernel = static_cast<std::size_t>(vectors) - 1;
    const NCBatchKernels::Kernels& kernels = NCBatchKernels::Here();
#pragma omp parallel for if (WorthParallel(rows, n, vectors)) schedule(static)
    for (int i = 1; i <= rows; ++i) {
        const NCDataVector<float>& row = m_matrix[i];
        const bool complete = row.HasNoMissingValues();
        double sums[MaxVectors];
        if (narrow)
            kernels.narrowDots(row.GetVector(), lanes.data(), n, !complete, sums);
        else
            kernels.dots[complete ? 0 : 1][kernel](row.GetVector(), pv, n, sums);
        GapShare gaps;
        const int* gap = m_gaps.data() + m_gapStart[static_cast<std::size_t>(i)];
        const int* end = m_gaps.data() + m_gapStart[static_cast<std::size_t>(i) + 1];
        for (; gap < end; ++gap)
            gaps.Add(GapShare::Load(p2.data() + static_cast<std::size_t>(*gap) * MaxVectors,
                                    present.data() + static_cast<std::size_t>(*gap) * MaxVectors));
        for (int r = 0; r < vectors; ++r) {
            const double d = complete ? pp[r] : NipalsDivisor(pp[r], pp[r] - gaps.squares[r]);
            out[r][i] = NipalsQuotient<float>(sums[r], d, presentInP[r] - gaps.pairs[r]);
        }
    }
    for (int r = 0; r < vectors; ++r)
        results[r]->RecountMissing();
}
