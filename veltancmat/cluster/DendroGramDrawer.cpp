#include "veltancmat/cluster/DendroGramDrawer.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <utility>
#include <vector>

namespace DendroGram {

namespace {

// Where a drawn node stands: leaves at height 0.
struct Place {
    double x;
    double y;
};

// Distance, in tolerance units, from (px, py) to an axis-parallel segment
// (every segment of a layout is a leg or a bar).
double ScaledDistance(const DendroGramDrawOutput::Segment& s, double px, double py, double sx, double sy)
{
    const double nearX = std::clamp(px, std::min(s.x1, s.x2), std::max(s.x1, s.x2));
    const double nearY = std::clamp(py, std::min(s.y1, s.y2), std::max(s.y1, s.y2));
    return std::hypot((px - nearX) / sx, (py - nearY) / sy);
}

} // namespace

DendroGramDrawOutput DendroGramDrawer::Draw(const DendroGramNode& root)
{
    DendroGramDrawOutput out;
    const auto leaves = static_cast<std::size_t>(root.GetLeafCount());
    out.leaves.reserve(leaves);
    out.inners.reserve(leaves - 1);
    out.segments.reserve(3 * (leaves - 1));
    std::unordered_map<const DendroGramNode*, Place> placed;
    placed.reserve(2 * leaves);

    // Post-order: a node is placed once both children are. The flag says
    // whether the node's children have been pushed already.
    std::vector<std::pair<const DendroGramNode*, bool>> stack{{&root, false}};
    while (!stack.empty()) {
        auto [node, expanded] = stack.back();
        stack.pop_back();
        if (node->IsLeaf()) {
            const double x = static_cast<double>(out.leaves.size());
            out.leaves.push_back({node, node->GetRow(), x});
            placed.emplace(node, Place{x, 0.0});
            continue;
        }
        if (!expanded) {
            stack.emplace_back(node, true);
            stack.emplace_back(node->GetRight(), false);
            stack.emplace_back(node->GetLeft(), false);
            continue;
        }
        const Place left = placed.at(node->GetLeft());
        const Place right = placed.at(node->GetRight());
        const double y = node->GetSpanHeight();
        const double x = (left.x + right.x) / 2.0;
        out.inners.push_back({node, x, y, node->GetHeight(), node->GetHeight() < node->GetSpanHeight()});
        out.segments.push_back({left.x, left.y, left.x, y, node->GetLeft(), false});
        out.segments.push_back({right.x, right.y, right.x, y, node->GetRight(), false});
        out.segments.push_back({left.x, y, right.x, y, node, true});
        placed.emplace(node, Place{x, y});
        // The children are not needed again; keep the map to the frontier.
        placed.erase(node->GetLeft());
        placed.erase(node->GetRight());
    }
    out.top = root.IsLeaf() ? 0.0 : static_cast<double>(root.GetSpanHeight());
    return out;
}

DendroGramHit DendroGramDrawer::HitTest(const DendroGramDrawOutput& layout, double x, double y, double xTolerance,
                                        double yTolerance)
{
    DendroGramHit hit;
    if (!(xTolerance > 0.0) || !(yTolerance > 0.0) || !std::isfinite(x) || !std::isfinite(y))
        return hit;
    double best = 1.0;
    for (std::size_t i = 0; i < layout.segments.size(); ++i) {
        const double d = ScaledDistance(layout.segments[i], x, y, xTolerance, yTolerance);
        if (d < best || (d == best && !hit.node)) {
            best = d;
            hit.node = layout.segments[i].owner;
            hit.segment = static_cast<int>(i);
            hit.distance = d;
        }
    }
    return hit;
}

} // namespace DendroGram
