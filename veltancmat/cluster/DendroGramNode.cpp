#include "veltancmat/cluster/DendroGramNode.h"

#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace DendroGram {

namespace {

// Checked before the children change owner, so that a caller whose
// construction fails still owns what it passed.
float CheckedHeight(float height, const DendroGramNode* left, const DendroGramNode* right)
{
    if (!left || !right || left == right)
        throw NCInternalError("DendroGramNode: an inner node needs two distinct children");
    return height;
}

} // namespace

DendroGramNode::DendroGramNode(int row) : m_row(row) {}

DendroGramNode::DendroGramNode(float height, DendroGramNode* left, DendroGramNode* right)
    : m_height(CheckedHeight(height, left, right)), m_left(left), m_right(right)
{
    m_leafCount = left->m_leafCount + right->m_leafCount;
    // std::max keeps its first argument against a NaN, so a NaN height
    // does not hide the parts' heights.
    m_spanHeight = std::max(std::max(left->m_spanHeight, right->m_spanHeight), height);
}

DendroGramNode::~DendroGramNode()
{
    std::vector<std::unique_ptr<DendroGramNode>> pending;
    if (m_left)
        pending.push_back(std::move(m_left));
    if (m_right)
        pending.push_back(std::move(m_right));
    while (!pending.empty()) {
        std::unique_ptr<DendroGramNode> node = std::move(pending.back());
        pending.pop_back();
        // Emptied before it dies, so its destructor finds no children.
        if (node->m_left)
            pending.push_back(std::move(node->m_left));
        if (node->m_right)
            pending.push_back(std::move(node->m_right));
    }
}

std::vector<int> DendroGramNode::GetLeafOrder() const
{
    std::vector<int> rows;
    rows.reserve(static_cast<std::size_t>(m_leafCount));
    std::vector<const DendroGramNode*> stack{this};
    while (!stack.empty()) {
        const DendroGramNode* node = stack.back();
        stack.pop_back();
        if (node->IsLeaf()) {
            rows.push_back(node->m_row);
            continue;
        }
        // The right one first, so that the left one comes off the stack first.
        stack.push_back(node->m_right.get());
        stack.push_back(node->m_left.get());
    }
    return rows;
}

} // namespace DendroGram
