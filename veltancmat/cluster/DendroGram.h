#pragma once

#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCError.h"

#include <cstdint>
#include <memory>
#include <string>

class NCProgress;
// Where a dendrogram too large for memory will be kept; not used yet.
class QvStreamSource;

// Two clusters (0-based) and the distance between them.
struct DistanceAndIndex {
    float distance;
    std::int32_t first;
    std::int32_t second;
};

// Agglomerative hierarchical clustering of the rows of a data matrix: every
// row starts as a cluster of its own, and the two nearest clusters merge
// until one is left. The merges form a binary tree whose leaves are the rows
// and whose inner nodes stand at the distance of their merge.
//
//   WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
//   std::unique_ptr<DendroGram::DendroGramNode> root(DendroGram::GetDendroGram(data, ward, progress, nullptr));
namespace DendroGram {

// Finds the merges, one at a time. Clusters are numbered 0..m-1 in the order
// of their first rows; after a merge of a and b (a < b) the merged cluster
// keeps number a, and the clusters above b move down by one.
//
// At every step the pair at the smallest distance merges. Among pairs at an
// equal distance the one with the smallest first number wins, and then the
// one with the smallest second number: the order of a list sorted by
// (distance, first, second).
class VELTANCMAT_API ClusterDistanceCalculator {
public:
    virtual ~ClusterDistanceCalculator();
    // Computes the distances between the rows. Throws NCError (Error) for
    // data the distances cannot be defined for, ClusterAllocationError when
    // they do not fit in memory, CancelException on a break.
    virtual void Init(const NCDataMatrix<float>& data, NCProgress* progress) = 0;
    // Merges the nearest pair, sets a < b to its numbers and returns its distance.
    virtual float FindNearestAndMerge(int& a, int& b) = 0;
    virtual std::string GetId() const = 0;
};

// Too many rows, or no memory or temporary file space for the distances between them.
class VELTANCMAT_API ClusterAllocationError : public NCError {
public:
    explicit ClusterAllocationError(long long rows);
    // A temporary file of the disk path that could not be opened or read.
    explicit ClusterAllocationError(const ExceptionMessage& message);
    ClusterAllocationError(const ClusterAllocationError&) = default;
    ~ClusterAllocationError() override;
};

// The memory the distances between rows may take before the analysis moves
// them to temporary files. 0 (the default) means what the machine can hold:
// the physical memory less a reserve for everything else. Process-wide;
// meant for the host's settings and for tests that force the disk path.
VELTANCMAT_API void SetMemoryLimit(std::uint64_t bytes);
VELTANCMAT_API std::uint64_t GetMemoryLimit();

// The tree of the rows of `data`, merged as `calculator` decides. The caller
// owns the root; null for data without rows. Throws what Init throws, and
// CancelException "Cluster analysis aborted." on a break while merging, with
// every node built so far freed. `source` is passed on to a later disk-based
// variant and is not used.
VELTANCMAT_API DendroGramNode* GetDendroGram(const NCDataMatrix<float>& data, ClusterDistanceCalculator& calculator,
                                             NCProgress* progress, QvStreamSource* source);

} // namespace DendroGram
