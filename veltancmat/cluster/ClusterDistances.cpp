#include "veltancmat/cluster/ClusterDistances.h"

#include "veltancmat/cluster/LinkageScans.h"
#include "veltancmat/cluster/PairSquares.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <boost/format.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <exception>
#include <functional>
#include <limits>
#include <new>
#include <system_error>
#include <thread>

namespace {

const CancelText Aborted("Cluster analysis aborted.");

// Rows whose distances are computed before a worker looks at the break flag
// and publishes its count again.
constexpr int RowsPerPoll = 16;

// The first rows of the triangle that hold `pairs` pairs: the smaller root
// of r^2 - (2n - 1) r + 2 pairs = 0, since rows 0..r-1 hold r n - r (r + 1) / 2.
double RowsHoldingPairs(double n, double pairs)
{
    const double b = 2.0 * n - 1.0;
    const double disc = std::max(0.0, b * b - 8.0 * pairs);
    return (b - std::sqrt(disc)) / 2.0;
}

// Row boundaries giving each worker about the same number of pairs. Late
// rows are short, so equal row counts would leave the first worker most of
// the work. A boundary that rounds onto the previous one moves up a row.
std::vector<int> BalancedRowRanges(int n, int workers)
{
    const double total = static_cast<double>(n) * (n - 1) / 2.0;
    std::vector<int> bounds{0};
    for (int t = 1; t < workers; ++t) {
        int r = static_cast<int>(std::lround(RowsHoldingPairs(n, total * t / workers)));
        if (r <= bounds.back())
            r = bounds.back() + 1;
        bounds.push_back(std::min(r, n));
    }
    bounds.push_back(n);
    return bounds;
}

int WorkerCount(int n);

// Runs work(from, to, report) over row ranges of the triangle with equal
// pair counts, one range per worker thread; the calling thread takes the
// first range, any range no thread could be started for, and reports the
// pairs done until the workers finish or `stop` is set.
void RunOnRowRanges(int n, std::atomic<bool>& stop, const std::atomic<long long>& pairsDone, NCProgress* progress,
                    const std::function<void(int, int, bool)>& work)
{
    const std::vector<int> bounds = BalancedRowRanges(n, WorkerCount(n));
    std::vector<std::thread> threads;
    // Reserved first, so that only a thread that cannot start can fail below.
    threads.reserve(bounds.size());
    std::atomic<int> running{0};
    std::exception_ptr failure;
    try {
        for (std::size_t t = 1; t + 1 < bounds.size(); ++t) {
            running.fetch_add(1);
            threads.emplace_back([&, from = bounds[t], to = bounds[t + 1]] {
                work(from, to, false);
                running.fetch_sub(1);
            });
        }
    } catch (const std::system_error&) {
        running.fetch_sub(1);
    }
    try {
        work(bounds[0], bounds[1], true);
        if (!stop.load(std::memory_order_relaxed))
            work(bounds[threads.size() + 1], n, true);
        while (running.load() > 0 && !stop.load(std::memory_order_relaxed)) {
            CheckedSetValue(progress, static_cast<float>(pairsDone.load(std::memory_order_relaxed)), Aborted);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    } catch (...) {
        stop.store(true);
        failure = std::current_exception();
    }
    for (std::thread& thread : threads)
        thread.join();
    if (failure)
        std::rethrow_exception(failure);
}

int WorkerCount(int n)
{
    int workers = 1;
    if (NCMultiThreading::ThreadingControl::IsThreadingOn())
        workers = std::max(1, NCMultiThreading::ThreadingControl::GetNumberOfProcessors());
    // A thread for a few hundred pairs costs more than it saves.
    return std::max(1, std::min(workers, n / 64));
}

[[noreturn]] void Refuse(const char* text)
{
    throw NCError(ExceptionMessage::translate(text), NCError::Error);
}

} // namespace

void RefuseTooFewCommonValues()
{
    Refuse("Cluster analysis cannot be performed on data where two rows have less than the square root of the "
           "number of columns common non-missing elements.");
}

void CheckedClusterRows(const NCDataMatrix<float>& data, std::vector<float>& rows, std::vector<std::uint8_t>& complete)
{
    const int n = data.SizeRows();
    const int columns = data.SizeColumns();
    // The pair count must fit 32 bits.
    if (n > 65535)
        throw DendroGram::ClusterAllocationError(n);
    for (int i = 1; i <= n; ++i)
        if (2 * data[i].GetNumMisVal() > columns)
            Refuse("Cluster analysis cannot be performed on data that has rows with more than 50 % missing values.");
    rows.resize(static_cast<std::size_t>(n) * static_cast<std::size_t>(columns));
    complete.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        std::copy(data[i + 1].begin(), data[i + 1].end(), rows.begin() + static_cast<std::ptrdiff_t>(i) * columns);
        complete[static_cast<std::size_t>(i)] = data[i + 1].GetNumMisVal() == 0;
    }
}

void NearestPairCalculator::Prepare(const std::vector<float>&, int) {}

void NearestPairCalculator::Merged(int, int) {}

void NearestPairCalculator::Init(const NCDataMatrix<float>& data, NCProgress* progress)
{
    DropDisk();
    m_triangle = {};
    std::vector<float> rows;
    std::vector<std::uint8_t> complete;
    CheckedClusterRows(data, rows, complete);
    const int n = data.SizeRows();
    const int columns = data.SizeColumns();
    m_slots = n;
    Prepare(rows, columns);

    ProgressText(progress, ExceptionMessage::translate("Allocating memory").str());
    const std::size_t pairs = static_cast<std::size_t>(n) * static_cast<std::size_t>(std::max(n - 1, 0)) / 2;
    bool fits = pairs * sizeof(float) <= DendroGram::GetMemoryLimit();
    if (fits) {
        try {
            m_triangle.resize(pairs);
        } catch (const std::bad_alloc&) {
            m_triangle = {};
            fits = false;
        }
    }
    if (!fits) {
        InitOnDisk(rows, complete, columns, progress);
        return;
    }

    ProgressText(progress, ProgressCaption(nullptr, "Calculating %1% distances", pairs));
    ComputeTriangle(rows, complete, columns, progress);

    // Orders the candidates for the first merge: each row's nearest later row.
    ProgressText(progress, ExceptionMessage::translate("Sorting").str());
    ProgressRange(progress, 0.0f, static_cast<float>(std::max(n, 1)));
    m_live.resize(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        m_live[static_cast<std::size_t>(i)] = i;
    m_alive.assign(static_cast<std::size_t>(n), 1);
    m_nearest.assign(static_cast<std::size_t>(n), -1);
    m_nearestDistance.assign(static_cast<std::size_t>(n), std::numeric_limits<float>::infinity());
    m_stale.assign(static_cast<std::size_t>(n), 0);
    for (int i = 0; i < n; ++i) {
        Rescan(i);
        if (i % 256 == 0)
            CheckedSetValue(progress, static_cast<float>(i), Aborted);
    }
}

void NearestPairCalculator::ComputeTriangle(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete,
                                            int columns, NCProgress* progress)
{
    const int n = m_slots;
    // Fewer common present columns than this leave a pair undefined.
    const double minCommon = std::sqrt(static_cast<double>(columns));

    std::atomic<bool> stop{false};
    std::atomic<bool> tooFewCommon{false};
    std::atomic<long long> pairsDone{0};

    const long long total = static_cast<long long>(n) * (n - 1) / 2;
    ProgressRange(progress, 0.0f, static_cast<float>(std::max(total, 1LL)));
    // Only the calling thread reports (`report`): the progress object is its own.
    auto work = [&](int from, int to, bool report) {
        int sincePoll = 0;
        long long pending = 0;
        std::vector<double> squares(static_cast<std::size_t>(n));
        std::vector<int> common(static_cast<std::size_t>(n));
        for (int r = from; r < to; ++r) {
            const float* x = rows.data() + static_cast<std::ptrdiff_t>(r) * columns;
            float* out = m_triangle.data() + Index(r, r + 1);
            const int count = n - r - 1;
            DendroGram::RowPairSquares(x, complete[static_cast<std::size_t>(r)] != 0, rows.data(), complete.data(),
                                       nullptr, r + 1, count, columns, squares.data(), common.data());
            for (int q = 0; q < count; ++q) {
                if (common[static_cast<std::size_t>(q)] < minCommon) {
                    tooFewCommon.store(true, std::memory_order_relaxed);
                    stop.store(true, std::memory_order_relaxed);
                    return;
                }
                out[q] = RowDistance(squares[static_cast<std::size_t>(q)], common[static_cast<std::size_t>(q)], columns);
            }
            pending += n - r - 1;
            if (++sincePoll == RowsPerPoll) {
                sincePoll = 0;
                const long long done = pairsDone.fetch_add(pending, std::memory_order_relaxed) + pending;
                pending = 0;
                if (report)
                    CheckedSetValue(progress, static_cast<float>(done), Aborted);
                if (stop.load(std::memory_order_relaxed) || (progress && progress->IsBreakPressed())) {
                    stop.store(true, std::memory_order_relaxed);
                    return;
                }
            }
        }
        pairsDone.fetch_add(pending, std::memory_order_relaxed);
    };

    RunOnRowRanges(n, stop, pairsDone, progress, work);
    if (tooFewCommon.load())
        RefuseTooFewCommonValues();
    if (stop.load())
        Aborted.Throw();
    CheckedSetValue(progress, static_cast<float>(total), Aborted);
}

void NearestPairCalculator::Rescan(int slot)
{
    int best = -1;
    float bestDistance = std::numeric_limits<float>::infinity();
    const auto after = std::upper_bound(m_live.begin(), m_live.end(), slot);
    for (auto it = after; it != m_live.end(); ++it) {
        const float d = Distance(slot, *it);
        // Strictly smaller: among equal distances the first slot stays.
        if (best < 0 || d < bestDistance) {
            best = *it;
            bestDistance = d;
        }
    }
    m_nearest[static_cast<std::size_t>(slot)] = best;
    m_nearestDistance[static_cast<std::size_t>(slot)] = bestDistance;
    m_stale[static_cast<std::size_t>(slot)] = 0;
}

int NearestPairCalculator::DenseIndex(int slot) const
{
    return static_cast<int>(std::lower_bound(m_live.begin(), m_live.end(), slot) - m_live.begin());
}

float NearestPairCalculator::FindNearestAndMerge(int& a, int& b)
{
    if (m_disk)
        return MergeOnDisk(a, b);
    if (m_live.size() < 2)
        throw NCInternalError("NearestPairCalculator::FindNearestAndMerge");

    const int first = NearestExactSlot();
    const int second = m_nearest[static_cast<std::size_t>(first)];
    const float distance = m_nearestDistance[static_cast<std::size_t>(first)];
    a = DenseIndex(first);
    b = DenseIndex(second);

    Merged(first, second);
    m_alive[static_cast<std::size_t>(second)] = 0;
    m_live.erase(m_live.begin() + b);
    UpdateNeighbours(first, second);
    Rescan(first);
    return distance;
}

int NearestPairCalculator::NearestExactSlot()
{
    // The smallest (distance, slot) among the bounds; when it is only a
    // bound, make it exact and look again. Every other bound is at least as
    // far, and so is the true distance behind it.
    for (;;) {
        int first = -1;
        float smallest = 0.0f;
        for (int slot : m_live) {
            const auto s = static_cast<std::size_t>(slot);
            if (m_nearest[s] < 0)
                continue;
            if (first < 0 || m_nearestDistance[s] < smallest) {
                first = slot;
                smallest = m_nearestDistance[s];
            }
        }
        if (!m_stale[static_cast<std::size_t>(first)])
            return first;
        Rescan(first);
    }
}

void NearestPairCalculator::UpdateNeighbours(int first, int second)
{
    // Each other cluster's entry and neighbour are its own: the clusters
    // share out among threads.
    const int count = static_cast<int>(m_live.size());
#pragma omp parallel for schedule(static) if (count > 4096)
    for (int i = 0; i < count; ++i) {
        const int k = m_live[static_cast<std::size_t>(i)];
        if (k == first)
            continue;
        const float d = MergedDistance(first, second, k);
        m_triangle[Index(first, k)] = d;
        if (k > first)
            continue;
        const auto s = static_cast<std::size_t>(k);
        int& nearest = m_nearest[s];
        float& bound = m_nearestDistance[s];
        if (m_stale[s]) {
            // A bound stays a bound; only a strictly nearer cluster is exact.
            if (d < bound) {
                nearest = first;
                bound = d;
                m_stale[s] = 0;
            }
        } else if (d < bound || (d == bound && first <= nearest)) {
            // An exact neighbour has every earlier slot strictly further, so
            // an equal distance at an earlier slot takes its place.
            nearest = first;
            bound = d;
        } else if (nearest == first || nearest == second) {
            m_stale[s] = 1;
        }
    }
    // Clusters between the two lose the pair with the second one.
    for (auto it = std::upper_bound(m_live.begin(), m_live.end(), first); it != m_live.end() && *it < second; ++it)
        if (m_nearest[static_cast<std::size_t>(*it)] == second)
            m_stale[static_cast<std::size_t>(*it)] = 1;
}

// ---- Ward ---------------------------------------------------------------

WardDistanceCalculator::WardDistanceCalculator(DistanceType type) : m_type(type) {}

WardDistanceCalculator::~WardDistanceCalculator() = default;

void WardDistanceCalculator::Init(const NCDataMatrix<float>& data, NCProgress* progress)
{
    m_replay.Clear();
    // Any other type would leave no distances to merge by.
    if (m_type != ErrorSS && m_type != RootErrorSS)
        throw InvalidArgument("WardDistanceCalculator: the distance type must be 0 (error sum of squares) or 1 "
                              "(its square root)");
    if (data.GetNumMisVal() > 0) {
        NearestPairCalculator::Init(data, progress);
        return;
    }
    std::vector<float> rows;
    std::vector<std::uint8_t> complete;
    CheckedClusterRows(data, rows, complete);
    Prepare(rows, data.SizeColumns());
    const DendroGram::RowBlock block{rows.data(), data.SizeRows(), data.SizeColumns(), complete.data()};
    m_replay.Reset(data.SizeRows(), DendroGram::WardChainMerges(block, progress, Aborted));
}

float WardDistanceCalculator::FindNearestAndMerge(int& a, int& b)
{
    if (!m_replay.Active())
        return NearestPairCalculator::FindNearestAndMerge(a, b);
    return Transform(m_replay.Next(a, b));
}

std::string WardDistanceCalculator::GetId() const
{
    return (boost::format("WardDistanceCalculator%1%") % static_cast<int>(m_type)).str();
}

float WardDistanceCalculator::Transform(double increase) const
{
    if (m_type == RootErrorSS)
        return static_cast<float>(std::sqrt(std::max(increase, 0.0)));
    return static_cast<float>(increase);
}

float WardDistanceCalculator::RowDistance(double sumOfSquares, int common, int columns) const
{
    double increase = 0.5 * sumOfSquares;
    if (common < columns)
        increase *= static_cast<double>(columns) / common;
    return Transform(increase);
}

void WardDistanceCalculator::Prepare(const std::vector<float>& rows, int columns)
{
    m_columns = columns;
    m_rows = rows;
    const std::size_t n = columns > 0 ? rows.size() / static_cast<std::size_t>(columns) : 0;
    m_present.assign(rows.size(), 0.0);
    m_sum.assign(rows.size(), 0.0);
    m_squares.assign(rows.size(), 0.0);
    m_members.assign(n, 1);
    // A single row has no spread about its own mean.
    m_ownSS.assign(n, 0.0);
    for (std::size_t c = 0; c < rows.size(); ++c) {
        const float v = rows[c];
        if (IsMisVal(v))
            continue;
        m_present[c] = 1.0;
        m_sum[c] = v;
        m_squares[c] = static_cast<double>(v) * v;
    }
}

namespace {

// Sum of squares about the mean of one cluster's column, its absent members
// counted as if they were like the present ones.
inline double ColumnSS(double present, double sum, double squares, double members)
{
    if (present == 0.0)
        return 0.0;
    double value = squares - sum * sum / present;
    if (present < members)
        value *= members / present;
    return value;
}

} // namespace

double WardDistanceCalculator::OwnSS(int slot) const
{
    const std::size_t at = static_cast<std::size_t>(slot) * static_cast<std::size_t>(m_columns);
    const auto members = static_cast<double>(m_members[static_cast<std::size_t>(slot)]);
    double total = 0.0;
    for (std::size_t j = at; j < at + static_cast<std::size_t>(m_columns); ++j)
        total += ColumnSS(m_present[j], m_sum[j], m_squares[j], members);
    return total;
}

double WardDistanceCalculator::Increase(const ColumnSums* a, std::int64_t membersA, const ColumnSums* b,
                                        std::int64_t membersB, int columns)
{
    double increase = 0.0;
    const auto members = static_cast<double>(membersA);
    const auto others = static_cast<double>(membersB);
    for (int j = 0; j < columns; ++j) {
        const ColumnSums& x = a[j];
        const ColumnSums& y = b[j];
        increase += ColumnSS(static_cast<double>(x.present) + y.present, x.sum + y.sum, x.squares + y.squares,
                             members + others) -
                    ColumnSS(x.present, x.sum, x.squares, members) - ColumnSS(y.present, y.sum, y.squares, others);
    }
    return increase;
}

float WardDistanceCalculator::GetErrorSS(const std::vector<int>& membersA, const std::vector<int>& membersB) const
{
    const auto columns = static_cast<std::size_t>(m_columns);
    auto gather = [&](const std::vector<int>& members) {
        std::vector<ColumnSums> sums(columns);
        for (int row : members) {
            const float* x = m_rows.data() + static_cast<std::size_t>(row) * columns;
            for (std::size_t j = 0; j < columns; ++j) {
                if (IsMisVal(x[j]))
                    continue;
                sums[j].present += 1;
                sums[j].sum += x[j];
                sums[j].squares += static_cast<double>(x[j]) * x[j];
            }
        }
        return sums;
    };
    const std::vector<ColumnSums> a = gather(membersA);
    const std::vector<ColumnSums> b = gather(membersB);
    return static_cast<float>(Increase(a.data(), static_cast<std::int64_t>(membersA.size()), b.data(),
                                      static_cast<std::int64_t>(membersB.size()), m_columns));
}

void WardDistanceCalculator::Merged(int a, int b)
{
    const auto columns = static_cast<std::size_t>(m_columns);
    const std::size_t x = static_cast<std::size_t>(a) * columns;
    const std::size_t y = static_cast<std::size_t>(b) * columns;
    for (std::size_t j = 0; j < columns; ++j) {
        m_present[x + j] += m_present[y + j];
        m_sum[x + j] += m_sum[y + j];
        m_squares[x + j] += m_squares[y + j];
    }
    m_members[static_cast<std::size_t>(a)] += m_members[static_cast<std::size_t>(b)];
    m_ownSS[static_cast<std::size_t>(a)] = OwnSS(a);
}

float WardDistanceCalculator::MergedDistance(int a, int, int k) const
{
    // The merged cluster's sums of squares less those of its parts, whose
    // own sums are kept: one division per column instead of three. The
    // column rule of ColumnSS, written without branches so that it
    // vectorises: an absent column is masked out, and members / present is
    // exactly 1 for a column without gaps.
    const auto columns = static_cast<std::size_t>(m_columns);
    const std::size_t x = static_cast<std::size_t>(a) * columns;
    const std::size_t y = static_cast<std::size_t>(k) * columns;
    const double* __restrict px = m_present.data() + x;
    const double* __restrict py = m_present.data() + y;
    const double* __restrict sx = m_sum.data() + x;
    const double* __restrict sy = m_sum.data() + y;
    const double* __restrict qx = m_squares.data() + x;
    const double* __restrict qy = m_squares.data() + y;
    const auto members = static_cast<double>(m_members[static_cast<std::size_t>(a)] +
                                              m_members[static_cast<std::size_t>(k)]);
    double merged = 0.0;
#pragma omp simd reduction(+ : merged)
    for (std::size_t j = 0; j < columns; ++j) {
        const double p = px[j] + py[j];
        const double sum = sx[j] + sy[j];
        const double present = static_cast<double>(p > 0.0);
        const double safe = p + (1.0 - present);
        merged += (qx[j] + qy[j] - sum * sum / safe) * (members / safe) * present;
    }
    return Transform(merged - m_ownSS[static_cast<std::size_t>(a)] - m_ownSS[static_cast<std::size_t>(k)]);
}

// ---- single linkage -----------------------------------------------------

SingleLinkageDistanceCalculator::~SingleLinkageDistanceCalculator() = default;

std::string SingleLinkageDistanceCalculator::GetId() const
{
    return "SingleLinkageDistanceCalculator";
}

void SingleLinkageDistanceCalculator::Init(const NCDataMatrix<float>& data, NCProgress* progress)
{
    m_replay.Clear();
    std::vector<float> rows;
    std::vector<std::uint8_t> complete;
    CheckedClusterRows(data, rows, complete);
    const int n = data.SizeRows();
    const DendroGram::RowBlock block{rows.data(), n, data.SizeColumns(), complete.data()};
    bool tooFewCommon = false;
    std::vector<DendroGram::RowEdge> edges =
        DendroGram::SpanningTreeEdges(block, std::sqrt(static_cast<double>(data.SizeColumns())), tooFewCommon,
                                      progress, Aborted);
    if (tooFewCommon)
        RefuseTooFewCommonValues();
    m_replay.Reset(n, DendroGram::MergesOfSpanningTree(n, std::move(edges)));
}

float SingleLinkageDistanceCalculator::FindNearestAndMerge(int& a, int& b)
{
    return static_cast<float>(m_replay.Next(a, b));
}
