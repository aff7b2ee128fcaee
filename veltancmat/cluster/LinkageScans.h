#pragma once

// The two linkages that need no table of distances: each finds its merges
// by scanning the rows, in O(N^2) distance evaluations and O(N) memory
// beyond the data.

#include "veltancmat/cluster/MergeReplay.h"

#include <cstdint>
#include <vector>

class NCProgress;
class CancelText;

namespace DendroGram {

// Rows of a data matrix, row after row, with the facts the distances need.
struct RowBlock {
    const float* cells = nullptr;
    int rows = 0;
    int columns = 0;
    // Per row: no missing cell.
    const std::uint8_t* complete = nullptr;
};

// Ward on rows without missing cells, by chains of nearest neighbours over
// the cluster centroids: the increase of merging A and B is
// |A||B|/(|A|+|B|) times the squared distance of their centroids, which
// never falls below the nearer of a third cluster's increases to A and B
// (it is reducible), so every reciprocal pair of nearest neighbours is a
// merge of the greedy clustering. Distances are compared as
// (distance rounded to float, first slot, second slot), the order of a
// sorted list of float records. The merges come in an order compatible with
// the tree; heights are the increases (not their roots).
std::vector<SlotMerge> WardChainMerges(const RowBlock& data, NCProgress* progress, const CancelText& aborted);

// Single linkage by Prim's minimum spanning tree over all row pairs, the
// squared distance over the common present columns scaled to all columns.
// Sets `tooFewCommon` and returns nothing when a pair has fewer common
// present columns than `minCommon`. The edges' distances are the Euclidean
// ones rounded to float.
std::vector<RowEdge> SpanningTreeEdges(const RowBlock& data, double minCommon, bool& tooFewCommon,
                                       NCProgress* progress, const CancelText& aborted);

} // namespace DendroGram
