#include "veltancmat/cluster/DendroGram.h"

#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace DendroGram {

ClusterDistanceCalculator::~ClusterDistanceCalculator() = default;

namespace {

ExceptionMessage AllocationMessage(long long rows)
{
    ExceptionMessage message = ExceptionMessage::translate(
        "Memory allocation error.\nWhen doing cluster analysis, a total of N*(N-1)/2 initial distances are "
        "calculated. In this case, enough RAM to hold these distances could not be allocated (N={1}).");
    message % std::to_string(rows);
    return message;
}

// Merges between two looks at the progress value; the break is polled at every one.
constexpr int MergesPerUpdate = 64;

} // namespace

namespace {
std::atomic<std::uint64_t> g_memoryLimit{0};
} // namespace

void SetMemoryLimit(std::uint64_t bytes)
{
    g_memoryLimit.store(bytes);
}

std::uint64_t GetMemoryLimit()
{
    if (const std::uint64_t set = g_memoryLimit.load())
        return set;
    // Three quarters of the physical memory: the rest is left to the data,
    // the tree, the host and the system.
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0)
        return std::uint64_t{1} << 31;
    return static_cast<std::uint64_t>(pages) / 4 * 3 * static_cast<std::uint64_t>(pageSize);
}

ClusterAllocationError::ClusterAllocationError(long long rows) : NCError(AllocationMessage(rows), NCError::Error) {}

ClusterAllocationError::ClusterAllocationError(const ExceptionMessage& message) : NCError(message, NCError::Error) {}

ClusterAllocationError::~ClusterAllocationError() = default;

DendroGramNode* GetDendroGram(const NCDataMatrix<float>& data, ClusterDistanceCalculator& calculator,
                              NCProgress* progress, QvStreamSource*)
{
    const CancelText aborted("Cluster analysis aborted.");
    const int n = data.SizeRows();
    calculator.Init(data, progress);
    if (n == 0)
        return nullptr;

    // The current node of each cluster, in the calculator's numbering. The
    // nodes free themselves, and everything under them, on any throw.
    std::vector<std::unique_ptr<DendroGramNode>> nodes;
    nodes.reserve(static_cast<std::size_t>(n));
    for (int row = 0; row < n; ++row)
        nodes.push_back(std::make_unique<DendroGramNode>(row));

    ProgressText(progress, ExceptionMessage::translate("Merging clusters").str());
    ProgressRange(progress, 0.0f, static_cast<float>(std::max(n - 1, 1)));
    for (int merge = 0; merge < n - 1; ++merge) {
        CheckBreak(progress, aborted);
        if (merge % MergesPerUpdate == 0)
            CheckedSetValue(progress, static_cast<float>(merge), aborted);
        int a = -1;
        int b = -1;
        const float height = calculator.FindNearestAndMerge(a, b);
        const int clusters = n - merge;
        if (a < 0 || b <= a || b >= clusters)
            throw NCInternalError("DendroGram::GetDendroGram");
        auto& left = nodes[static_cast<std::size_t>(a)];
        auto& right = nodes[static_cast<std::size_t>(b)];
        // The children change owner only once the new node exists, so a
        // failed allocation leaves them where they were.
        std::unique_ptr<DendroGramNode> merged(new DendroGramNode(height, left.get(), right.get()));
        static_cast<void>(left.release());
        static_cast<void>(right.release());
        left = std::move(merged);
        nodes.erase(nodes.begin() + b);
    }
    CheckedSetValue(progress, static_cast<float>(n - 1), aborted);
    return nodes.front().release();
}

} // namespace DendroGram
