#pragma once

#include "veltancmat/platform/Export.h"

#include <memory>
#include <vector>

namespace DendroGram {

// One node of the tree: a leaf names a row (0-based), an inner node the
// height of its merge and the two subtrees, which it owns.
//
// A node is complete once built (children cannot change), so the figures
// of its subtree that the drawing and the cuts need at every node (leaf
// count, highest merge) are taken once, in the constructor.
class VELTANCMAT_API DendroGramNode {
public:
    explicit DendroGramNode(int row);
    // Takes ownership of both children.
    DendroGramNode(float height, DendroGramNode* left, DendroGramNode* right);
    // Frees the subtree without recursion: a tree of chained merges is as
    // deep as the data has rows.
    ~DendroGramNode();
    DendroGramNode(const DendroGramNode&) = delete;
    DendroGramNode& operator=(const DendroGramNode&) = delete;

    bool IsLeaf() const { return !m_left; }
    // The row of a leaf; -1 for an inner node.
    int GetRow() const { return m_row; }
    // The merge distance of an inner node; 0 for a leaf.
    float GetHeight() const { return m_height; }
    DendroGramNode* GetLeft() const { return m_left.get(); }
    DendroGramNode* GetRight() const { return m_right.get(); }

    // Leaves in the subtree: 1 for a leaf.
    int GetLeafCount() const { return m_leafCount; }
    // The highest merge in the subtree (the node's own height or one below
    // it); 0 for a leaf. Above the node's own height only at an inversion,
    // a merge lower than one of its parts, which Ward's criterion allows
    // on data with missing cells. Drawings and cuts use this height, so
    // that a cluster never holds a merge above the cut.
    float GetSpanHeight() const { return m_spanHeight; }
    // The rows of the leaves from left to right: each node's left subtree
    // before its right one.
    std::vector<int> GetLeafOrder() const;

private:
    float m_height = 0.0f;
    float m_spanHeight = 0.0f;
    int m_row = -1;
    int m_leafCount = 1;
    std::unique_ptr<DendroGramNode> m_left;
    std::unique_ptr<DendroGramNode> m_right;
};

} // namespace DendroGram
