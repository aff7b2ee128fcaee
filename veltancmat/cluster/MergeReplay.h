#pragma once

// Merges found out of order (by a chain of nearest neighbours or a spanning
// tree) handed out in the order of a greedy clustering, numbered as the
// calculators number their clusters.

#include <cstdint>
#include <vector>

namespace DendroGram {

// One merge between the clusters whose smallest rows are `first` < `second`.
struct SlotMerge {
    double height;
    std::int32_t first;
    std::int32_t second;
};

class MergeReplay {
public:
    // `merges` in increasing height, every merge after those that formed its clusters.
    void Reset(int rows, std::vector<SlotMerge> merges);
    bool Active() const { return m_next < m_merges.size(); }
    // The next merge: its height and the 0-based numbers of its clusters
    // among the current ones, ordered by their smallest rows.
    double Next(int& a, int& b);
    void Clear();

private:
    int Rank(int slot) const;
    void Remove(int slot);

    std::vector<SlotMerge> m_merges;
    std::size_t m_next = 0;
    // Counts of current slots (a Fenwick tree over the rows).
    std::vector<std::int32_t> m_counts;
};

// The merges of single linkage from the edges of a minimum spanning tree
// given as row pairs: sorted by (distance, first row, second row), the order
// in which a greedy clustering over the sorted pair list would take them.
struct RowEdge {
    double distance;
    std::int32_t first;
    std::int32_t second;
};
std::vector<SlotMerge> MergesOfSpanningTree(int rows, std::vector<RowEdge> edges);

} // namespace DendroGram
