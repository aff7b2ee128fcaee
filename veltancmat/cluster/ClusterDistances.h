#pragma once

#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"

#include <cstdint>
#include <string>
#include <vector>

// The part the two distance calculators share: the triangle of distances
// between the current clusters, and the search for the nearest pair.
//
// Init fills the triangle from the rows. The distance of rows r and s sums
// a term per column where both are present; a column missing from either
// counts as the average of the common ones, i.e. the sum is scaled by
// columns / common columns. This is the rule the Ward error sum of squares
// applies to a cluster's column with absent members (members / present), so
// a row pair with a gap and a merged cluster with one are judged alike.
// Rows with more than half their values missing, and row pairs with fewer
// common present columns than the square root of the column count, are
// refused: their distances would rest on too little of the data.
//
// Each cluster keeps its nearest neighbour among the clusters after it and
// the distance to it, exact or, once the neighbour changed or went, a lower
// bound that is made exact only when it comes up as the smallest. A merge
// rewrites the merged cluster's distances and touches the neighbours of the
// others only where they involved the two clusters, so a merge costs O(m)
// distance updates plus the rescans of the clusters whose neighbour was
// lost. This finds the same merges as rescanning every pair, also for the
// Ward increase with missing values, which is not reducible (a merged
// cluster can be nearer to a third than either part was), where a chain of
// nearest neighbours could merge in another order.
//
// Slots are the clusters' first rows; a merged cluster keeps the smaller
// slot, so the order of the slots is the order of the cluster numbers.
class VELTANCMAT_API NearestPairCalculator : public DendroGram::ClusterDistanceCalculator {
public:
    NearestPairCalculator() = default;
    NearestPairCalculator(const NearestPairCalculator&) = default;
    NearestPairCalculator& operator=(const NearestPairCalculator&) = default;
    ~NearestPairCalculator() override;

    void Init(const NCDataMatrix<float>& data, NCProgress* progress) override;
    float FindNearestAndMerge(int& a, int& b) override;

    // Number of clusters left.
    int GetClusterCount() const { return static_cast<int>(m_live.size()); }

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
    void ComputeTriangle(const std::vector<float>& rows, int columns, NCProgress* progress);
    void Rescan(int slot);
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
    float Transform(double increase) const;

    DistanceType m_type;
    int m_columns = 0;
    std::vector<float> m_rows;
    // m_columns entries per slot.
    std::vector<ColumnSums> m_sums;
    std::vector<std::int64_t> m_members;
};

// Single linkage: the smallest Euclidean distance between members of the two clusters.
class VELTANCMAT_API SingleLinkageDistanceCalculator : public NearestPairCalculator {
public:
    SingleLinkageDistanceCalculator() = default;
    SingleLinkageDistanceCalculator(const SingleLinkageDistanceCalculator&) = default;
    SingleLinkageDistanceCalculator& operator=(const SingleLinkageDistanceCalculator&) = default;
    ~SingleLinkageDistanceCalculator() override;

    std::string GetId() const override;

protected:
    float RowDistance(double sumOfSquares, int common, int columns) const override;
    float MergedDistance(int a, int b, int k) const override;
};
