#pragma once

#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/cluster/MergeReplay.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Checks the rows of `data` for clustering and copies them row after row:
// refuses more than 65535 rows (ClusterAllocationError) and rows with more
// than half their values missing (NCError). `complete` flags the rows
// without a missing value.
VELTANCMAT_API void CheckedClusterRows(const NCDataMatrix<float>& data, std::vector<float>& rows,
                                       std::vector<std::uint8_t>& complete);

// Refuses a pair of rows with fewer common present columns than the square
// root of the column count (NCError).
[[noreturn]] VELTANCMAT_API void RefuseTooFewCommonValues();

// The general search for the nearest pair, over a triangle of distances
// between the current clusters. Ward on rows with missing values uses it:
// there the increase is not reducible (a merged cluster can be nearer to a
// third than either part was) and no shortcut finds the greedy merges.
//
// Init fills the triangle from the rows. The distance of rows r and s sums
// a term per column where both are present; a column missing from either
// counts as the average of the common ones, i.e. the sum is scaled by
// columns / common columns. This is the rule the Ward error sum of squares
// applies to a cluster's column with absent members (members / present), so
// a row pair with a gap and a merged cluster with one are judged alike.
// Row pairs with fewer common present columns than the square root of the
// column count are refused: their distances would rest on too little.
//
// Each cluster keeps its nearest neighbour among the clusters after it and
// the distance to it, exact or, once the neighbour changed or went, a lower
// bound that is made exact only when it comes up as the smallest. A merge
// rewrites the merged cluster's distances and touches the neighbours of the
// others only where they involved the two clusters, so a merge costs O(m)
// distance updates plus the rescans of the clusters whose neighbour was
// lost.
//
// When the triangle does not fit under DendroGram::GetMemoryLimit(), the
// distances go to temporary files instead and are merged from there (see
// docs/clustering.md): the same merges, in bounded memory.
//
// Slots are the clusters' first rows; a merged cluster keeps the smaller
// slot, so the order of the slots is the order of the cluster numbers.
class VELTANCMAT_API NearestPairCalculator : public DendroGram::ClusterDistanceCalculator {
public:
    NearestPairCalculator();
    // A copy takes the settings and the in-memory state; a run on the disk
    // is not copied (its files belong to the original).
    NearestPairCalculator(const NearestPairCalculator& other);
    NearestPairCalculator& operator=(const NearestPairCalculator& other);
    ~NearestPairCalculator() override;

    void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
    float FindNearestAndMerge(int& a, int& b) override;

    // One candidate merge as the disk path stores it.
    struct DiskRecord;

    // Whether the last Init moved the distances to temporary files.
    bool UsesDisk() const { return m_disk != nullptr; }

protected:
    // The distance of two rows from the sum of squared differences over
    // their `common` present columns out of `columns`.
    virtual float RowDistance(double sumOfSquares, int common, int columns) const = 0;
    // Called after Init has checked and copied the rows.
    virtual void Prepare(const std::vector<float>& rows, int columns);
    // Slot b has merged into slot a; called before the distances of a are rewritten.
    virtual void Merged(int a, int b);
    // The distance of the merged slot a (b its former part) to slot k.
    virtual float MergedDistance(int a, int b, int k) const = 0;

    float Distance(int i, int j) const { return m_triangle[Index(i, j)]; }

private:
    std::size_t Index(int i, int j) const
    {
        // Row i of the triangle holds the pairs (i, j > i).
        const auto n = static_cast<std::size_t>(m_slots);
        const auto ii = static_cast<std::size_t>(i < j ? i : j);
        const auto jj = static_cast<std::size_t>(i < j ? j : i);
        return ii * n - ii * (ii + 1) / 2 + (jj - ii - 1);
    }
    struct DiskState;
    friend struct DiskState;
    void ComputeTriangle(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete, int columns,
                         NCProgress* progress);
    void InitOnDisk(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete, int columns,
                    NCProgress* progress);
    float MergeOnDisk(int& a, int& b);
    // Fills `block` with the records of rows [from, to); true when a pair
    // has too few common values.
    bool SaveRowsOfSegment(const std::vector<float>& rows, const std::vector<std::uint8_t>& complete, int columns,
                           int from, int to, std::vector<DiskRecord>& block) const;
    // Ends a run on the disk, removing its files.
    void DropDisk();
    void Rescan(int slot);
    // The slot whose exact nearest neighbour is the nearest pair.
    int NearestExactSlot();
    // After slot `second` merged into `first`: the merged cluster's
    // distances, and the neighbours that pointed at either.
    void UpdateNeighbours(int first, int second);
    int DenseIndex(int slot) const;

    int m_slots = 0;
    std::vector<float> m_triangle;
    // Slots of the current clusters, ascending.
    std::vector<int> m_live;
    std::vector<std::uint8_t> m_alive;
    // Nearest later slot (-1: none) and its distance, or a lower bound of it
    // while m_stale is set.
    std::vector<int> m_nearest;
    std::vector<float> m_nearestDistance;
    std::vector<std::uint8_t> m_stale;
    std::unique_ptr<DiskState> m_disk;
};

// Ward's criterion: the increase of the within-cluster error sum of squares
// when two clusters merge, or its square root.
class VELTANCMAT_API WardDistanceCalculator : public NearestPairCalculator {
public:
    enum DistanceType : int {
        ErrorSS = 0,     // the increase itself; two rows are half their squared distance apart
        RootErrorSS = 1, // its square root
    };

    explicit WardDistanceCalculator(DistanceType type);
    WardDistanceCalculator(const WardDistanceCalculator&) = default;
    WardDistanceCalculator& operator=(const WardDistanceCalculator&) = default;
    ~WardDistanceCalculator() override;

    // Rows without missing values take the chains of nearest neighbours
    // (LinkageScans.h); rows with some take the general search.
    void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
    float FindNearestAndMerge(int& a, int& b) override;
    std::string GetId() const override;
    DistanceType GetDistanceType() const { return m_type; }

    // The increase of the error sum of squares when the clusters with these
    // rows (0-based, of the data given to Init) merge. Per column, a
    // cluster's sum of squares about its mean is taken over its present
    // values and scaled by members / present values when some are missing;
    // a column without present values adds nothing.
    float GetErrorSS(const std::vector<int>& membersA, const std::vector<int>& membersB) const;

protected:
    float RowDistance(double sumOfSquares, int common, int columns) const override;
    void Prepare(const std::vector<float>& rows, int columns) override;
    void Merged(int a, int b) override;
    float MergedDistance(int a, int b, int k) const override;

private:
    // Per column of one cluster: present values, their sum, their sum of squares.
    struct ColumnSums {
        std::int32_t present = 0;
        double sum = 0.0;
        double squares = 0.0;
    };
    static double Increase(const ColumnSums* a, std::int64_t membersA, const ColumnSums* b, std::int64_t membersB,
                           int columns);
    // The error sum of squares of the cluster at `slot`.
    double OwnSS(int slot) const;
    float Transform(double increase) const;

    DistanceType m_type;
    DendroGram::MergeReplay m_replay;
    int m_columns = 0;
    std::vector<float> m_rows;
    // m_columns entries per slot.
    // Per slot and column, m_columns entries per slot: the cluster's present
    // values, their sum and their sum of squares.
    std::vector<double> m_present;
    std::vector<double> m_sum;
    std::vector<double> m_squares;
    std::vector<std::int64_t> m_members;
    // Per slot: the cluster's own error sum of squares.
    std::vector<double> m_ownSS;
};

// Single linkage: the smallest Euclidean distance between members of the
// two clusters, rows with missing values at their distance scaled to all
// columns as above. The merges are the edges of the minimum spanning tree
// of the rows, taken in the order of (distance, first row, second row):
// exactly what a greedy pass over the sorted list of row pairs does, in
// O(N^2) time and O(N) memory, so single linkage never needs the disk.
class VELTANCMAT_API SingleLinkageDistanceCalculator : public DendroGram::ClusterDistanceCalculator {
public:
    SingleLinkageDistanceCalculator() = default;
    SingleLinkageDistanceCalculator(const SingleLinkageDistanceCalculator&) = default;
    SingleLinkageDistanceCalculator& operator=(const SingleLinkageDistanceCalculator&) = default;
    ~SingleLinkageDistanceCalculator() override;

    void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
    float FindNearestAndMerge(int& a, int& b) override;
    std::string GetId() const override;

private:
    DendroGram::MergeReplay m_replay;
};
