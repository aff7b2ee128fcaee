#include "veltancmat/cluster/MergeReplay.h"

#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <numeric>
#include <tuple>
#include <utility>

namespace DendroGram {

void MergeReplay::Reset(int rows, std::vector<SlotMerge> merges)
{
    m_merges = std::move(merges);
    m_next = 0;
    m_counts.assign(static_cast<std::size_t>(rows) + 1, 0);
    // Every row is a current slot: the tree of all ones, built in linear time.
    for (int i = 1; i <= rows; ++i) {
        m_counts[static_cast<std::size_t>(i)] += 1;
        const int parent = i + (i & -i);
        if (parent <= rows)
            m_counts[static_cast<std::size_t>(parent)] += m_counts[static_cast<std::size_t>(i)];
    }
}

void MergeReplay::Clear()
{
    m_merges = {};
    m_counts = {};
    m_next = 0;
}

int MergeReplay::Rank(int slot) const
{
    // Current slots below `slot`.
    int count = 0;
    for (int i = slot; i > 0; i -= i & -i)
        count += m_counts[static_cast<std::size_t>(i)];
    return count;
}

void MergeReplay::Remove(int slot)
{
    const int size = static_cast<int>(m_counts.size());
    for (int i = slot + 1; i < size; i += i & -i)
        m_counts[static_cast<std::size_t>(i)] -= 1;
}

double MergeReplay::Next(int& a, int& b)
{
    if (!Active())
        throw NCInternalError("MergeReplay::Next");
    const SlotMerge& merge = m_merges[m_next++];
    a = Rank(merge.first);
    b = Rank(merge.second);
    Remove(merge.second);
    return merge.height;
}

std::vector<SlotMerge> MergesOfSpanningTree(int rows, std::vector<RowEdge> edges)
{
    std::sort(edges.begin(), edges.end(), [](const RowEdge& x, const RowEdge& y) {
        return std::tie(x.distance, x.first, x.second) < std::tie(y.distance, y.first, y.second);
    });
    // Union by smallest row: the root of a set is its smallest row, the slot.
    std::vector<std::int32_t> parent(static_cast<std::size_t>(rows));
    std::iota(parent.begin(), parent.end(), 0);
    auto find = [&](std::int32_t x) {
        std::int32_t root = x;
        while (parent[static_cast<std::size_t>(root)] != root)
            root = parent[static_cast<std::size_t>(root)];
        while (parent[static_cast<std::size_t>(x)] != root) {
            const std::int32_t up = parent[static_cast<std::size_t>(x)];
            parent[static_cast<std::size_t>(x)] = root;
            x = up;
        }
        return root;
    };
    std::vector<SlotMerge> merges;
    merges.reserve(edges.size());
    for (const RowEdge& e : edges) {
        std::int32_t x = find(e.first);
        std::int32_t y = find(e.second);
        if (x == y)
            throw NCInternalError("DendroGram::MergesOfSpanningTree");
        if (y < x)
            std::swap(x, y);
        parent[static_cast<std::size_t>(y)] = x;
        merges.push_back({e.distance, x, y});
    }
    return merges;
}

} // namespace DendroGram
