#include "veltancmat/cluster/LinkageScans.h"

#include "veltancmat/cluster/PairSquares.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>
#include <queue>
#include <tuple>
#include <utility>

namespace DendroGram {

namespace {

// Distance evaluations (times columns) below which a scan stays on the
// calling thread: a team's fork and join cost about as much.
constexpr long long MinParallelCells = 1 << 14;

// A candidate pair in the order of a sorted list of float records.
struct Candidate {
    float key = std::numeric_limits<float>::infinity();
    std::int32_t lo = std::numeric_limits<std::int32_t>::max();
    std::int32_t hi = std::numeric_limits<std::int32_t>::max();
    double distance = 0.0;
    int position = -1;

    bool Before(const Candidate& other) const
    {
        return std::tie(key, lo, hi) < std::tie(other.key, other.lo, other.hi);
    }
};

Candidate MakeCandidate(double distance, float key, std::int32_t x, std::int32_t y, int position)
{
    return {key, std::min(x, y), std::max(x, y), distance, position};
}

int TeamSize(long long cells)
{
    return cells < MinParallelCells ? 1 : std::max(1, omp_get_max_threads());
}

// Runs `scan(from, to, best)` over [0, count) on a team when the work is
// worth one, and returns the first of the threads' best candidates.
template <class Scan>
Candidate BestOver(int count, long long cellsPerItem, std::vector<Candidate>& perThread, const Scan& scan)
{
    const int threads = TeamSize(static_cast<long long>(count) * cellsPerItem);
    if (threads == 1) {
        Candidate best;
        scan(0, count, best);
        return best;
    }
    perThread.assign(static_cast<std::size_t>(threads), Candidate{});
#pragma omp parallel num_threads(threads)
    {
        const int t = omp_get_thread_num();
        const int team = omp_get_num_threads();
        const int from = static_cast<int>(static_cast<long long>(count) * t / team);
        const int to = static_cast<int>(static_cast<long long>(count) * (t + 1) / team);
        scan(from, to, perThread[static_cast<std::size_t>(t)]);
    }
    Candidate best;
    for (const Candidate& c : perThread)
        if (c.Before(best))
            best = c;
    return best;
}

// ---- Ward by nearest-neighbour chains -----------------------------------

// The squared Euclidean distances of `count` centroids (row after row) from
// `x`. The scan of every chain step; wider vectors where the processor has
// them.
VELTAN_SIMD_CLONES
void CentroidSquares(const double* centroids, int count, int columns, const double* x, double* out)
{
    const auto k = static_cast<std::size_t>(columns);
    for (int q = 0; q < count; ++q) {
        const double* y = centroids + static_cast<std::size_t>(q) * k;
        double squares = 0.0;
#pragma omp simd reduction(+ : squares)
        for (std::size_t j = 0; j < k; ++j) {
            const double d = x[j] - y[j];
            squares += d * d;
        }
        out[q] = squares;
    }
}

class WardChain {
public:
    explicit WardChain(const RowBlock& data) : m_columns(data.columns), m_count(data.rows), m_nextId(data.rows)
    {
        const auto n = static_cast<std::size_t>(data.rows);
        const auto k = static_cast<std::size_t>(data.columns);
        m_centroids.assign(data.cells, data.cells + n * k);
        m_sizes.assign(n, 1.0);
        m_slots.resize(n);
        m_ids.resize(n);
        m_positionOfSlot.resize(n);
        for (std::size_t i = 0; i < n; ++i) {
            m_slots[i] = static_cast<std::int32_t>(i);
            m_ids[i] = static_cast<std::int32_t>(i);
            m_positionOfSlot[i] = static_cast<int>(i);
        }
    }

    std::vector<SlotMerge> Run(NCProgress* progress, const CancelText& aborted)
    {
        const int rows = m_count;
        ProgressText(progress, ExceptionMessage::translate("Merging clusters").str());
        ProgressRange(progress, 0.0f, static_cast<float>(std::max(rows - 1, 1)));
        std::vector<std::int32_t> chain;
        std::vector<Found> found;
        found.reserve(static_cast<std::size_t>(std::max(rows - 1, 0)));
        while (m_count > 1) {
            if (chain.empty())
                chain.push_back(m_slots[0]);
            for (;;) {
                CheckBreak(progress, aborted);
                const std::int32_t x = chain.back();
                const Candidate next = Nearest(m_positionOfSlot[static_cast<std::size_t>(x)]);
                const std::int32_t y = m_slots[static_cast<std::size_t>(next.position)];
                if (chain.size() >= 2 && y == chain[chain.size() - 2]) {
                    chain.resize(chain.size() - 2);
                    found.push_back(Merge(x, y, next));
                    break;
                }
                chain.push_back(y);
            }
            if (found.size() % 64 == 0)
                CheckedSetValue(progress, static_cast<float>(found.size()), aborted);
        }
        return GreedyOrder(rows, found);
    }

private:
    // A merge as found: its record, and the ids of the two clusters (rows
    // are ids 0..N-1, the cluster of the i-th found merge is N + i).
    struct Found {
        Candidate record;
        std::int32_t left;
        std::int32_t right;
    };

    Candidate Nearest(int p) const
    {
        const std::int32_t slot = m_slots[static_cast<std::size_t>(p)];
        const auto k = static_cast<std::size_t>(m_columns);
        const double* x = m_centroids.data() + static_cast<std::size_t>(p) * k;
        const double nx = m_sizes[static_cast<std::size_t>(p)];
        m_squares.resize(static_cast<std::size_t>(m_count));
        return BestOver(m_count, m_columns, m_perThread, [&](int from, int to, Candidate& best) {
            double* squares = m_squares.data();
            CentroidSquares(m_centroids.data() + static_cast<std::size_t>(from) * k, to - from, m_columns, x,
                            squares + from);
            for (int q = from; q < to; ++q) {
                if (q == p)
                    continue;
                const double ny = m_sizes[static_cast<std::size_t>(q)];
                const double d = squares[q] * (nx * ny / (nx + ny));
                const auto key = static_cast<float>(d);
                if (key > best.key)
                    continue;
                const Candidate c = MakeCandidate(d, key, slot, m_slots[static_cast<std::size_t>(q)], q);
                if (c.Before(best))
                    best = c;
            }
        });
    }

    Found Merge(std::int32_t x, std::int32_t y, const Candidate& record)
    {
        const auto k = static_cast<std::size_t>(m_columns);
        int keep = m_positionOfSlot[static_cast<std::size_t>(x)];
        int gone = m_positionOfSlot[static_cast<std::size_t>(y)];
        if (m_slots[static_cast<std::size_t>(gone)] < m_slots[static_cast<std::size_t>(keep)])
            std::swap(keep, gone);
        const Found f{record, m_ids[static_cast<std::size_t>(keep)], m_ids[static_cast<std::size_t>(gone)]};

        double* a = m_centroids.data() + static_cast<std::size_t>(keep) * k;
        const double* b = m_centroids.data() + static_cast<std::size_t>(gone) * k;
        const double na = m_sizes[static_cast<std::size_t>(keep)];
        const double nb = m_sizes[static_cast<std::size_t>(gone)];
        for (std::size_t j = 0; j < k; ++j)
            a[j] = (na * a[j] + nb * b[j]) / (na + nb);
        m_sizes[static_cast<std::size_t>(keep)] = na + nb;
        m_ids[static_cast<std::size_t>(keep)] = m_nextId++;

        // The last position fills the gap.
        const int last = m_count - 1;
        if (gone != last) {
            std::copy_n(m_centroids.data() + static_cast<std::size_t>(last) * k, k,
                        m_centroids.data() + static_cast<std::size_t>(gone) * k);
            m_sizes[static_cast<std::size_t>(gone)] = m_sizes[static_cast<std::size_t>(last)];
            m_slots[static_cast<std::size_t>(gone)] = m_slots[static_cast<std::size_t>(last)];
            m_ids[static_cast<std::size_t>(gone)] = m_ids[static_cast<std::size_t>(last)];
            m_positionOfSlot[static_cast<std::size_t>(m_slots[static_cast<std::size_t>(gone)])] = gone;
        }
        --m_count;
        return f;
    }

    // The found merges in the order a greedy clustering takes them: always
    // the smallest record among the merges whose two clusters exist.
    static std::vector<SlotMerge> GreedyOrder(int rows, const std::vector<Found>& found)
    {
        const auto n = static_cast<std::size_t>(rows);
        // For each cluster id: the found merge that uses it.
        std::vector<std::int32_t> user(n + found.size(), -1);
        std::vector<std::uint8_t> waiting(found.size(), 2);
        using Entry = std::pair<Candidate, std::int32_t>;
        auto later = [&](const Entry& x, const Entry& y) { return y.first.Before(x.first); };
        std::priority_queue<Entry, std::vector<Entry>, decltype(later)> ready(later);
        for (std::size_t i = 0; i < found.size(); ++i) {
            for (std::int32_t child : {found[i].left, found[i].right}) {
                if (child < rows)
                    --waiting[i];
                else
                    user[static_cast<std::size_t>(child)] = static_cast<std::int32_t>(i);
            }
            if (waiting[i] == 0)
                ready.emplace(found[i].record, static_cast<std::int32_t>(i));
        }
        std::vector<SlotMerge> merges;
        merges.reserve(found.size());
        while (!ready.empty()) {
            const Entry e = ready.top();
            ready.pop();
            merges.push_back({e.first.distance, e.first.lo, e.first.hi});
            const std::int32_t next = user[n + static_cast<std::size_t>(e.second)];
            if (next >= 0 && --waiting[static_cast<std::size_t>(next)] == 0)
                ready.emplace(found[static_cast<std::size_t>(next)].record, next);
        }
        return merges;
    }

    int m_columns;
    int m_count;
    std::int32_t m_nextId;
    std::vector<double> m_centroids;
    std::vector<double> m_sizes;
    std::vector<std::int32_t> m_slots;
    std::vector<std::int32_t> m_ids;
    std::vector<int> m_positionOfSlot;
    mutable std::vector<Candidate> m_perThread;
    // The squared centroid distances of the current scan, by position.
    mutable std::vector<double> m_squares;
};

} // namespace

std::vector<SlotMerge> WardChainMerges(const RowBlock& data, NCProgress* progress, const CancelText& aborted)
{
    WardChain chain(data);
    return chain.Run(progress, aborted);
}

// ---- single linkage by a minimum spanning tree --------------------------

namespace {

// Prim's algorithm over the rows: the rows outside the tree, each with its
// nearest row inside, kept by position; a joining row's place is taken by
// the last one outside.
class SpanningTree {
public:
    SpanningTree(const RowBlock& data, double minCommon) : m_data(data), m_minCommon(minCommon)
    {
        const auto outsideCount = static_cast<std::size_t>(data.rows - 1);
        m_outside.resize(outsideCount);
        for (std::size_t i = 0; i < outsideCount; ++i)
            m_outside[i] = static_cast<std::int32_t>(i + 1);
        m_nearest.resize(outsideCount);
        m_squares.resize(outsideCount);
        m_common.resize(outsideCount);
    }

    // The edges in the order they join, or none with `tooFewCommon` set.
    std::vector<RowEdge> Run(NCProgress* progress, const CancelText& aborted, bool& tooFewCommon)
    {
        const long long pairs = static_cast<long long>(m_data.rows) * (m_data.rows - 1) / 2;
        ProgressText(progress, ProgressCaption(nullptr, "Calculating %1% distances", pairs));
        ProgressRange(progress, 0.0f, static_cast<float>(std::max(pairs, 1LL)));
        std::vector<RowEdge> edges;
        edges.reserve(m_outside.size());
        long long done = 0;
        std::int32_t joined = 0;
        while (!m_outside.empty()) {
            CheckBreak(progress, aborted);
            const int count = static_cast<int>(m_outside.size());
            Candidate best;
            if (!Scan(joined, best)) {
                tooFewCommon = true;
                return {};
            }
            edges.push_back({static_cast<double>(best.key), best.lo, best.hi});
            joined = Take(best.position);
            done += count;
            CheckedSetValue(progress, static_cast<float>(done), aborted);
        }
        return edges;
    }

private:
    // Lowers the outside rows' nearest distances by the row that joined and
    // finds the nearest of all; false when a pair has too few common values.
    bool Scan(std::int32_t joined, Candidate& best)
    {
        const float* u = m_data.cells + static_cast<std::size_t>(joined) * static_cast<std::size_t>(m_data.columns);
        const bool uComplete = m_data.complete[joined] != 0;
        const double columns = m_data.columns;
        m_refused.assign(static_cast<std::size_t>(std::max(1, omp_get_max_threads())), 0);
        best = BestOver(static_cast<int>(m_outside.size()), m_data.columns, m_perThread,
                        [&](int from, int to, Candidate& mine) {
            RowPairSquares(u, uComplete, m_data.cells, m_data.complete, m_outside.data() + from, 0, to - from,
                           m_data.columns, m_squares.data() + from, m_common.data() + from);
            for (int p = from; p < to; ++p) {
                const auto at = static_cast<std::size_t>(p);
                const int shared = m_common[at];
                if (shared < m_minCommon) {
                    m_refused[static_cast<std::size_t>(omp_get_thread_num())] = 1;
                    continue;
                }
                const double scaled = shared < m_data.columns ? m_squares[at] * (columns / shared) : m_squares[at];
                const double distance = std::sqrt(scaled);
                Candidate& own = m_nearest[at];
                const Candidate c = MakeCandidate(distance, static_cast<float>(distance), joined, m_outside[at], p);
                if (c.Before(own))
                    own = c;
                if (own.Before(mine))
                    mine = own;
            }
        });
        return std::find(m_refused.begin(), m_refused.end(), 1) == m_refused.end();
    }

    // Moves the row at `position` into the tree and returns it.
    std::int32_t Take(int position)
    {
        const auto at = static_cast<std::size_t>(position);
        const std::int32_t row = m_outside[at];
        m_outside[at] = m_outside.back();
        m_nearest[at] = m_nearest[m_outside.size() - 1];
        m_nearest[at].position = position;
        m_outside.pop_back();
        return row;
    }

    const RowBlock& m_data;
    double m_minCommon;
    std::vector<std::int32_t> m_outside;
    std::vector<Candidate> m_nearest;
    std::vector<double> m_squares;
    std::vector<int> m_common;
    std::vector<Candidate> m_perThread;
    std::vector<std::uint8_t> m_refused;
};

} // namespace

std::vector<RowEdge> SpanningTreeEdges(const RowBlock& data, double minCommon, bool& tooFewCommon,
                                       NCProgress* progress, const CancelText& aborted)
{
    tooFewCommon = false;
    if (data.rows < 2)
        return {};
    SpanningTree tree(data, minCommon);
    return tree.Run(progress, aborted, tooFewCommon);
}

} // namespace DendroGram
