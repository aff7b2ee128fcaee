#include "veltancmat/cluster/DendroGramNode.h"

#include <utility>
#include <vector>

namespace DendroGram {

DendroGramNode::DendroGramNode(int row) : m_row(row) {}

DendroGramNode::DendroGramNode(float height, DendroGramNode* left, DendroGramNode* right)
    : m_height(height), m_left(left), m_right(right)
{
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

} // namespace DendroGram
