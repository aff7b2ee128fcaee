#pragma once

#include "veltancmat/platform/Export.h"

#include <memory>

namespace DendroGram {

// One node of the tree: a leaf names a row (0-based), an inner node the
// height of its merge and the two subtrees, which it owns.
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

private:
    float m_height = 0.0f;
    int m_row = -1;
    std::unique_ptr<DendroGramNode> m_left;
    std::unique_ptr<DendroGramNode> m_right;
};

} // namespace DendroGram
