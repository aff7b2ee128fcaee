#include "cluster/ClusterChecks.h"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/containers/frame/ThreadingControl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

#include "cluster/fixtures/ClusterReference.inc"

using namespace ClusterChecks;

void ExpectSameMerges(const std::vector<Merge>& actual, const std::vector<Merge>& expected, const std::string& what)
{
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (std::size_t k = 0; k < actual.size(); ++k) {
        SCOPED_TRACE(what + ", merge " + std::to_string(k));
        ASSERT_EQ(actual[k].a, expected[k].a);
        ASSERT_EQ(actual[k].b, expected[k].b);
        EXPECT_NEAR(actual[k].height, expected[k].height, 1e-5 * std::max(1.0f, std::fabs(expected[k].height)));
    }
}

// ---- against the greedy clustering -------------------------------------

struct GreedyCase {
    int rows;
    int cols;
    double missing;
};

TEST(ClusterMergeOrder, AgreesWithGreedyForEveryLinkage)
{
    const GreedyCase cases[] = {{30, 4, 0.0}, {45, 7, 0.0}, {30, 4, 0.15}, {45, 8, 0.2}, {25, 12, 0.25}, {160, 3, 0.0},
                                {160, 4, 0.2}};
    unsigned seed = 11;
    for (const GreedyCase& c : cases) {
        const NCDataMatrix<float> data = RandomMatrix(c.rows, c.cols, ++seed, c.missing);
        const std::string what = std::to_string(c.rows) + "x" + std::to_string(c.cols) + " missing " +
                                 std::to_string(data.GetNumMisVal());
        WardDistanceCalculator ward0(WardDistanceCalculator::ErrorSS);
        WardDistanceCalculator ward1(WardDistanceCalculator::RootErrorSS);
        SingleLinkageDistanceCalculator single;
        ExpectSameMerges(Cluster(ward0, data), Greedy(data, Linkage::Ward0), "Ward 0, " + what);
        ExpectSameMerges(Cluster(ward1, data), Greedy(data, Linkage::Ward1), "Ward 1, " + what);
        ExpectSameMerges(Cluster(single, data), Greedy(data, Linkage::Single), "single, " + what);
    }
}

// Integer cells on a coarse grid make many equal distances. Ward takes the
// first pair of clusters in (first, second) order, as the greedy scan;
// single linkage the first pair of rows, as a pass over the sorted pairs.
TEST(ClusterMergeOrder, TiesGoToTheFirstPair)
{
    std::mt19937 gen(5);
    std::uniform_int_distribution<int> cell(0, 2);
    NCDataMatrix<float> data(36, 2);
    for (int i = 1; i <= 36; ++i)
        for (int j = 1; j <= 2; ++j)
            data(i, j, static_cast<float>(cell(gen)));
    SingleLinkageDistanceCalculator single;
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    ExpectSameMerges(Cluster(single, data), SortedPairs(data), "single");
    ExpectSameMerges(Cluster(ward, data), Greedy(data, Linkage::Ward0), "Ward");
    // The heights agree with the cluster-level scan whichever pair wins a tie.
    const std::vector<Merge> single1 = Cluster(single, data);
    const std::vector<Merge> greedy = Greedy(data, Linkage::Single);
    for (std::size_t k = 0; k < greedy.size(); ++k)
        EXPECT_EQ(single1[k].height, greedy[k].height);
}

// With gaps in the data a merged cluster can come nearer to a third than
// either part was; the merges must still be the greedy ones.
TEST(ClusterMergeOrder, WardWithMissingCanMoveCloserAfterAMerge)
{
    bool closer = false;
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const NCDataMatrix<float> data = RandomMatrix(28, 6, 100 + seed, 0.25);
        WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
        const std::vector<Merge> merges = Cluster(ward, data);
        ExpectSameMerges(merges, Greedy(data, Linkage::Ward0), "seed " + std::to_string(seed));
        for (std::size_t k = 1; k < merges.size(); ++k)
            closer = closer || merges[k].height < merges[k - 1].height;
    }
    // Otherwise the data never exercised the non-reducible case.
    EXPECT_TRUE(closer);
}

TEST(ClusterMergeOrder, ThreadCountDoesNotChangeTheMerges)
{
    const NCDataMatrix<float> data = RandomMatrix(333, 5, 77, 0.1);
    NCMultiThreading::ThreadingControl::SetNumberOfProcessors(1);
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(false);
    WardDistanceCalculator serial(WardDistanceCalculator::RootErrorSS);
    const std::vector<Merge> one = Cluster(serial, data);
    NCMultiThreading::ThreadingControl::SetNumberOfProcessors(5);
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(true);
    WardDistanceCalculator parallel(WardDistanceCalculator::RootErrorSS);
    const std::vector<Merge> five = Cluster(parallel, data);
    NCMultiThreading::ThreadingControl::Reset();
    ASSERT_EQ(one.size(), five.size());
    for (std::size_t k = 0; k < one.size(); ++k) {
        ASSERT_EQ(one[k].a, five[k].a);
        ASSERT_EQ(one[k].b, five[k].b);
        ASSERT_EQ(one[k].height, five[k].height);
    }
}

// ---- known answers -----------------------------------------------------

TEST(ClusterMergeOrder, TwoRowsMergeOnceAtTheirDistance)
{
    // Columns 1, 3 and 4 are common: squares 1 + 4 + 0 = 5, scaled by 4/3.
    const NCDataMatrix<float> data = MatrixOf({{1, 2, 3, 4}, {2, -99, 5, 4}});
    WardDistanceCalculator ward0(WardDistanceCalculator::ErrorSS);
    WardDistanceCalculator ward1(WardDistanceCalculator::RootErrorSS);
    SingleLinkageDistanceCalculator single;
    for (auto* calculator : std::vector<DendroGram::ClusterDistanceCalculator*>{&ward0, &ward1, &single}) {
        const std::vector<Merge> merges = Cluster(*calculator, data);
        ASSERT_EQ(merges.size(), 1u);
        EXPECT_EQ(merges[0].a, 0);
        EXPECT_EQ(merges[0].b, 1);
    }
    EXPECT_FLOAT_EQ(Cluster(ward0, data)[0].height, 10.0f / 3.0f);
    EXPECT_FLOAT_EQ(Cluster(ward1, data)[0].height, std::sqrt(10.0f / 3.0f));
    EXPECT_FLOAT_EQ(Cluster(single, data)[0].height, std::sqrt(20.0f / 3.0f));
}

// On complete rows every Ward height is what the merge adds to the total
// error sum of squares of the partition, computed here from scratch.
TEST(ClusterMergeOrder, WardHeightsAddUpTheWithinClusterSumOfSquares)
{
    const NCDataMatrix<float> data = RandomMatrix(40, 5, 3);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const std::vector<Merge> merges = Cluster(ward, data);
    std::vector<std::vector<int>> clusters;
    for (int r = 0; r < 40; ++r)
        clusters.push_back({r});
    auto total = [&] {
        double ss = 0.0;
        for (const auto& c : clusters)
            for (int j = 1; j <= 5; ++j)
                ss += ColumnSS(data, c, j);
        return ss;
    };
    double before = 0.0;
    for (const Merge& m : merges) {
        auto& kept = clusters[static_cast<std::size_t>(m.a)];
        kept.insert(kept.end(), clusters[static_cast<std::size_t>(m.b)].begin(),
                    clusters[static_cast<std::size_t>(m.b)].end());
        clusters.erase(clusters.begin() + m.b);
        const double after = total();
        EXPECT_NEAR(m.height, after - before, 1e-5 * std::max(1.0, after));
        before = after;
    }
    // All rows in one cluster: the total sum of squares about the column means.
    EXPECT_NEAR(before, data.GetSSAroundColumnMeans(), 1e-4 * before);
}

TEST(ClusterMergeOrder, SingleLinkageOnALineMergesTheGapsInOrder)
{
    const std::vector<float> gaps = {0.7f, 2.5f, 0.25f, 1.5f, 3.0f, 0.5f, 2.0f, 1.0f};
    std::vector<float> points{10.0f};
    for (float g : gaps)
        points.push_back(points.back() + g);
    // Rows in a scrambled order, so that cluster numbers and line order differ.
    std::vector<std::size_t> order(points.size());
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(4));
    std::vector<std::vector<float>> rows;
    for (std::size_t i : order)
        rows.push_back({points[i]});
    SingleLinkageDistanceCalculator single;
    const NCDataMatrix<float> data = MatrixOf(rows);
    const std::vector<Merge> merges = Cluster(single, data);
    std::vector<float> sorted = gaps;
    std::sort(sorted.begin(), sorted.end());
    ASSERT_EQ(merges.size(), sorted.size());
    for (std::size_t k = 0; k < sorted.size(); ++k)
        EXPECT_NEAR(merges[k].height, sorted[k], 1e-5f);
    ExpectSameMerges(merges, Greedy(data, Linkage::Single), "line");
}

// ---- against scipy -----------------------------------------------------

// Replays the merges on row sets and compares every cluster formed (size,
// smallest and largest row) and its height with scipy's linkage.
void ExpectScipyMerges(const double* cells, int rows, int cols, DendroGram::ClusterDistanceCalculator& calculator,
                       const double* heights, const int* clusters, bool ward, const std::string& what)
{
    const std::vector<Merge> merges = Cluster(calculator, MatrixOf(cells, rows, cols));
    std::vector<std::vector<int>> sets;
    for (int r = 0; r < rows; ++r)
        sets.push_back({r});
    for (std::size_t k = 0; k < merges.size(); ++k) {
        SCOPED_TRACE(what + ", merge " + std::to_string(k));
        auto& kept = sets[static_cast<std::size_t>(merges[k].a)];
        kept.insert(kept.end(), sets[static_cast<std::size_t>(merges[k].b)].begin(),
                    sets[static_cast<std::size_t>(merges[k].b)].end());
        sets.erase(sets.begin() + merges[k].b);
        ASSERT_EQ(static_cast<int>(kept.size()), clusters[3 * k]);
        ASSERT_EQ(*std::min_element(kept.begin(), kept.end()), clusters[3 * k + 1]);
        ASSERT_EQ(*std::max_element(kept.begin(), kept.end()), clusters[3 * k + 2]);
        // scipy's Ward height is the root of twice the increase.
        const double expected = ward ? heights[k] * heights[k] / 2.0 : heights[k];
        EXPECT_NEAR(merges[k].height, expected, 2e-5 * std::max(1.0, expected));
    }
}

TEST(ClusterMergeOrder, AgreesWithScipyOnCompleteData)
{
    struct Data {
        const char* name;
        const double* cells;
        int rows;
        int cols;
        const double* wardHeights;
        const int* wardClusters;
        const double* singleHeights;
        const int* singleClusters;
    };
    const Data sets[] = {
        {"small", Small, SmallRows, SmallCols, SmallWardHeights, SmallWardClusters, SmallSingleHeights,
         SmallSingleClusters},
        {"wide", Wide, WideRows, WideCols, WideWardHeights, WideWardClusters, WideSingleHeights, WideSingleClusters},
        {"grouped", Grouped, GroupedRows, GroupedCols, GroupedWardHeights, GroupedWardClusters, GroupedSingleHeights,
         GroupedSingleClusters},
        {"tall", Tall, TallRows, TallCols, TallWardHeights, TallWardClusters, TallSingleHeights, TallSingleClusters},
    };
    for (const Data& d : sets) {
        WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
        SingleLinkageDistanceCalculator single;
        ExpectScipyMerges(d.cells, d.rows, d.cols, ward, d.wardHeights, d.wardClusters, true,
                          std::string(d.name) + " Ward");
        ExpectScipyMerges(d.cells, d.rows, d.cols, single, d.singleHeights, d.singleClusters, false,
                          std::string(d.name) + " single");
    }
}

} // namespace
