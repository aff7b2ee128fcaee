#pragma once

#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/platform/Export.h"

#include <vector>

namespace DendroGram {

// A dendrogram laid out for drawing, in coordinates of its own that any
// renderer maps to its canvas (the tool's SVG, a host's chart):
//  - x: leaf i of the leaf order (left to right, DendroGramNode::GetLeafOrder)
//    stands at x = i, so the leaves span 0 .. n - 1 one unit apart;
//  - y: heights, 0 at the leaves, growing upwards; an inner node stands at
//    its span height (DendroGramNode::GetSpanHeight), which is its merge
//    height except at an inversion, where it is the height of its higher
//    part. Legs thus never point down, and a horizontal cut line at h
//    crosses exactly the legs of the clusters DendroGramNodeLister
//    cuts at h.
// Nodes are referred to by pointer into the tree, which must outlive the
// layout.
struct VELTANCMAT_API DendroGramDrawOutput {
    struct Leaf {
        const DendroGramNode* node;
        int row;
        double x;
    };
    struct Inner {
        const DendroGramNode* node;
        double x;       // midway between its children's x
        double y;       // where it is drawn: its span height
        float height;   // its own merge height
        bool inverted;  // its height is below y (an inversion)
    };
    // A straight line from (x1, y1) to (x2, y2). Each inner node gives three,
    // in this order: the leg rising from its left child, the leg rising
    // from its right child, and the bar joining their tops. A leg belongs
    // to the child it rises from (picking it picks that subtree), the bar to
    // the node it draws.
    struct Segment {
        double x1, y1, x2, y2;
        const DendroGramNode* owner;
        bool bar;
    };

    std::vector<Leaf> leaves;       // left to right
    std::vector<Inner> inners;      // children before their parents; the root last
    std::vector<Segment> segments;  // three per inner node, in the order of `inners`
    double top = 0.0;               // y of the root (0 for a single leaf)
};

} // namespace DendroGram
