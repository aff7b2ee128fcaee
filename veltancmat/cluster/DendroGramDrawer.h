#pragma once

#include "veltancmat/cluster/DendroGramDrawOutput.h"
#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/platform/Export.h"

namespace DendroGram {

// What a pick at a point of the layout found: the subtree whose drawn line
// is nearest, or none.
struct VELTANCMAT_API DendroGramHit {
    const DendroGramNode* node = nullptr; // null: nothing within the tolerance
    int segment = -1;                     // index into the layout's segments
    double distance = 0.0;                // in tolerance units: 0 on the line, 1 at the tolerance's edge
};

// Lays out a tree for drawing (the coordinates are described at
// DendroGramDrawOutput) and finds what a pointer points at.
class VELTANCMAT_API DendroGramDrawer {
public:
    // The layout of the tree under `root`; O(n), without recursion.
    static DendroGramDrawOutput Draw(const DendroGramNode& root);

    // The segment nearest to (x, y) within the tolerances, and the subtree
    // it belongs to. The axes of a layout have unrelated units (leaf places
    // and heights), so each has its own tolerance, typically a few pixels
    // mapped back into layout units: the distance is measured with dx
    // divided by xTolerance and dy by yTolerance, and a segment is hit
    // within 1. Both tolerances must be positive, else nothing is hit.
    // Where segments are equally near, the first in layout order wins, so
    // at a corner the leg (the child) is picked before the bar. O(segments).
    static DendroGramHit HitTest(const DendroGramDrawOutput& layout, double x, double y, double xTolerance,
                                 double yTolerance);
};

} // namespace DendroGram
