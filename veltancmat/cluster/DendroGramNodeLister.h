#pragma once

#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/platform/Export.h"

#include <vector>

namespace DendroGram {

// Lists what a tree holds: the rows under a node, the clusters of a cut,
// and which cluster each row falls in. Every walk is iterative (a tree is
// as deep as its rows in the worst case). Nodes handed out point into the
// tree, which must outlive them.
//
// Cuts use each node's span height (DendroGramNode::GetSpanHeight), the
// highest merge in its subtree, so that an inversion (a merge lower than
// one of its parts) is never a cluster of its own with a higher merge
// inside it:
//  - at a height h, a cluster is a largest subtree whose every merge is at
//    or below h. A merge exactly at h joins its parts, as a drawing's cut
//    line through a bar leaves the bar's cluster whole;
//  - for a count k, the k - 1 highest merges are undone, each time the
//    highest of the clusters left, so that exactly k clusters result even
//    where merges tie in height. Among equal heights the cluster further
//    left in the tree splits first.
//
// Clusters are returned, and numbered 1..k, from left to right in the
// tree: by their first leaf in the leaf order. In a tree built by
// GetDendroGram each left child holds its parent's smallest row, so cluster
// 1 holds row 0 and every cluster's first leaf is its smallest row.
class VELTANCMAT_API DendroGramNodeLister {
public:
    // The rows of the leaves under `node`, left to right.
    static std::vector<int> GetRows(const DendroGramNode& node);

    // The clusters at `height`, as the roots of their subtrees, left to
    // right. A height below 0 makes each leaf a cluster; NaN throws NCError.
    static std::vector<const DendroGramNode*> CutAtHeight(const DendroGramNode& root, float height);

    // The `count` clusters left when the count - 1 highest merges are
    // undone. A count below 1 or above the leaf count throws NCError.
    static std::vector<const DendroGramNode*> CutIntoClusters(const DendroGramNode& root, int count);

    // The first `count` merges (inner nodes) in the order CutIntoClusters
    // undoes them: the highest first. Undoing the first i leaves i + 1
    // clusters. Fewer when the tree has fewer merges.
    static std::vector<const DendroGramNode*> GetTopMerges(const DendroGramNode& root, int count);

    // For each row, the number (1-based, the place in `clusters`) of the
    // cluster holding it; 0 for a row no cluster holds. Sized to the
    // largest row plus one. Rows below 0 are skipped.
    static std::vector<int> GetAssignment(const std::vector<const DendroGramNode*>& clusters);
};

} // namespace DendroGram
