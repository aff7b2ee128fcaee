#include "cluster/ClusterChecks.h"
#include "cluster/fixtures/DendroCutReference.inc"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/cluster/DendroGramDrawer.h"
#include "veltancmat/cluster/DendroGramNodeLister.h"
#include "veltancmat/cluster/DendroGramRecord.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/platform/QvStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace ClusterChecks;
using DendroGram::DendroGramDrawer;
using DendroGram::DendroGramDrawOutput;
using DendroGram::DendroGramNode;
using DendroGram::DendroGramNodeLister;
using DendroGram::DendroGramRecord;
using Root = std::unique_ptr<DendroGramNode>;
using Nodes = std::vector<const DendroGramNode*>;

DendroGramNode* Leaf(int row) { return new DendroGramNode(row); }
DendroGramNode* Join(float height, DendroGramNode* left, DendroGramNode* right)
{
    return new DendroGramNode(height, left, right);
}

// Six rows:  A = (0 1) at 1,  B = (2 3) at 2,  C = (A 4) at 2,  D = (B 5) at
// 1.5 (an inversion: below B),  root = (C D) at 4.  Leaf order 0 1 4 2 3 5;
// C and D both span height 2, a tie at a cut of 2.
struct Sample {
    Root root;
    const DendroGramNode *a, *b, *c, *d;
    Sample()
    {
        a = Join(1.0f, Leaf(0), Leaf(1));
        b = Join(2.0f, Leaf(2), Leaf(3));
        c = Join(2.0f, const_cast<DendroGramNode*>(a), Leaf(4));
        d = Join(1.5f, const_cast<DendroGramNode*>(b), Leaf(5));
        root.reset(Join(4.0f, const_cast<DendroGramNode*>(c), const_cast<DendroGramNode*>(d)));
    }
};

std::vector<std::vector<int>> RowsOf(const Nodes& clusters)
{
    std::vector<std::vector<int>> rows;
    for (const DendroGramNode* c : clusters)
        rows.push_back(DendroGramNodeLister::GetRows(*c));
    return rows;
}

using Partition = std::vector<std::vector<int>>;

// Labels (any numbering) as a partition: sorted groups of rows, sorted.
Partition PartitionOf(const std::vector<int>& labels)
{
    std::map<int, std::vector<int>> groups;
    for (std::size_t r = 0; r < labels.size(); ++r)
        groups[labels[r]].push_back(static_cast<int>(r));
    Partition p;
    for (auto& [label, rows] : groups)
        p.push_back(rows);
    std::sort(p.begin(), p.end());
    return p;
}

Root Cluster(const NCDataMatrix<float>& data, DendroGram::ClusterDistanceCalculator& calculator)
{
    return Root(DendroGram::GetDendroGram(data, calculator, nullptr, nullptr));
}

std::string Bytes(const DendroGramRecord& record)
{
    std::ostringstream out;
    record.QvStreamableReset();
    EXPECT_TRUE(record.WriteObject(out));
    return out.str();
}

// Two trees alike: shape, rows, heights (bit for bit), without recursion.
void ExpectSameTree(const DendroGramNode& x, const DendroGramNode& y)
{
    std::vector<std::pair<const DendroGramNode*, const DendroGramNode*>> stack{{&x, &y}};
    while (!stack.empty()) {
        auto [p, q] = stack.back();
        stack.pop_back();
        ASSERT_EQ(p->IsLeaf(), q->IsLeaf());
        ASSERT_EQ(p->GetRow(), q->GetRow());
        ASSERT_EQ(p->GetHeight(), q->GetHeight());
        if (!p->IsLeaf()) {
            stack.emplace_back(p->GetLeft(), q->GetLeft());
            stack.emplace_back(p->GetRight(), q->GetRight());
        }
    }
}

// A chain: each merge takes the tree so far and one more row.
Root Chain(int leaves)
{
    Root root(Leaf(0));
    for (int r = 1; r < leaves; ++r)
        root.reset(Join(static_cast<float>(r), root.release(), Leaf(r)));
    return root;
}

} // namespace

// ---- the node -------------------------------------------------------------

TEST(DendroNode, CountsLeavesAndSpansInversions)
{
    const Sample s;
    EXPECT_EQ(s.root->GetLeafCount(), 6);
    EXPECT_EQ(s.c->GetLeafCount(), 3);
    EXPECT_EQ(s.d->GetLeafCount(), 3);
    EXPECT_EQ(s.d->GetHeight(), 1.5f);
    EXPECT_EQ(s.d->GetSpanHeight(), 2.0f);
    EXPECT_EQ(s.root->GetSpanHeight(), 4.0f);
    EXPECT_EQ(s.root->GetLeafOrder(), (std::vector<int>{0, 1, 4, 2, 3, 5}));
    EXPECT_EQ(s.a->GetLeft()->GetLeafOrder(), std::vector<int>{0});
    EXPECT_EQ(s.a->GetLeft()->GetSpanHeight(), 0.0f);

    // A node refused for a missing child leaves the other with the caller.
    Root kept(Leaf(7));
    EXPECT_THROW(Join(1.0f, kept.get(), nullptr), NCInternalError);
    EXPECT_EQ(kept->GetRow(), 7);
}

// ---- layout and picking ---------------------------------------------------

TEST(DendroLayout, PlacesLeavesInTreeOrderAndNodesAtTheirSpan)
{
    const Sample s;
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(*s.root);
    ASSERT_EQ(layout.leaves.size(), 6u);
    const int rows[] = {0, 1, 4, 2, 3, 5};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(layout.leaves[i].row, rows[i]);
        EXPECT_EQ(layout.leaves[i].x, static_cast<double>(i));
    }
    // Children before parents: A, C, B, D, root.
    struct Expected {
        const DendroGramNode* node;
        double x, y;
        float height;
        bool inverted;
    };
    const Expected expected[] = {{s.a, 0.5, 1.0, 1.0f, false},
                                 {s.c, 1.25, 2.0, 2.0f, false},
                                 {s.b, 3.5, 2.0, 2.0f, false},
                                 {s.d, 4.25, 2.0, 1.5f, true},
                                 {s.root.get(), 2.75, 4.0, 4.0f, false}};
    ASSERT_EQ(layout.inners.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(layout.inners[i].node, expected[i].node);
        EXPECT_DOUBLE_EQ(layout.inners[i].x, expected[i].x);
        EXPECT_DOUBLE_EQ(layout.inners[i].y, expected[i].y);
        EXPECT_EQ(layout.inners[i].height, expected[i].height);
        EXPECT_EQ(layout.inners[i].inverted, expected[i].inverted);
    }
    EXPECT_EQ(layout.top, 4.0);

    // D's legs: from B (drawn at 2) and from leaf 5 up to D's drawn height
    // 2, not down to its merge height 1.5; then its bar.
    ASSERT_EQ(layout.segments.size(), 15u);
    const auto& legB = layout.segments[9];
    EXPECT_EQ(legB.owner, s.b);
    EXPECT_FALSE(legB.bar);
    EXPECT_DOUBLE_EQ(legB.x1, 3.5);
    EXPECT_DOUBLE_EQ(legB.y1, 2.0);
    EXPECT_DOUBLE_EQ(legB.y2, 2.0);
    const auto& leg5 = layout.segments[10];
    EXPECT_EQ(leg5.owner->GetRow(), 5);
    EXPECT_DOUBLE_EQ(leg5.x1, 5.0);
    EXPECT_DOUBLE_EQ(leg5.y1, 0.0);
    EXPECT_DOUBLE_EQ(leg5.y2, 2.0);
    const auto& barD = layout.segments[11];
    EXPECT_TRUE(barD.bar);
    EXPECT_EQ(barD.owner, s.d);
    EXPECT_DOUBLE_EQ(barD.x1, 3.5);
    EXPECT_DOUBLE_EQ(barD.x2, 5.0);

    const DendroGramDrawOutput single = DendroGramDrawer::Draw(*Root(Leaf(3)));
    ASSERT_EQ(single.leaves.size(), 1u);
    EXPECT_EQ(single.leaves[0].row, 3);
    EXPECT_TRUE(single.inners.empty());
    EXPECT_TRUE(single.segments.empty());
    EXPECT_EQ(single.top, 0.0);
}

// On any clustered tree, inversions included: legs are vertical and rise,
// bars are horizontal and join the tops of their node's two legs, and the
// node stands midway between its legs.
TEST(DendroLayout, LegsRiseToTheirBarOnClusteredData)
{
    const NCDataMatrix<float> data = RandomMatrix(80, 5, 33, 0.2);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const Root root = Cluster(data, ward);
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(*root);
    ASSERT_EQ(layout.segments.size(), 3 * layout.inners.size());
    ASSERT_EQ(layout.leaves.size(), 80u);
    for (std::size_t i = 0; i < layout.inners.size(); ++i) {
        const auto& node = layout.inners[i];
        const auto& left = layout.segments[3 * i];
        const auto& right = layout.segments[3 * i + 1];
        const auto& bar = layout.segments[3 * i + 2];
        EXPECT_EQ(left.owner, node.node->GetLeft());
        EXPECT_EQ(right.owner, node.node->GetRight());
        EXPECT_EQ(bar.owner, node.node);
        for (const auto* leg : {&left, &right}) {
            EXPECT_EQ(leg->x1, leg->x2);
            EXPECT_LE(leg->y1, leg->y2);
            EXPECT_EQ(leg->y2, node.y);
        }
        EXPECT_EQ(bar.y1, node.y);
        EXPECT_EQ(bar.y2, node.y);
        EXPECT_EQ(bar.x1, left.x1);
        EXPECT_EQ(bar.x2, right.x1);
        EXPECT_DOUBLE_EQ(node.x, (left.x1 + right.x1) / 2.0);
        EXPECT_EQ(node.inverted, node.height < node.y);
    }
}

TEST(DendroLayout, HitTestFindsTheNearestLineWithinTheTolerance)
{
    const Sample s;
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(*s.root);
    // A leg picks the child it rises from, a bar its own node.
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 0.52, 1.5, 0.1, 0.1).node, s.a);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 1.6, 2.05, 0.1, 0.1).node, s.c);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 4.25, 3.0, 0.1, 0.1).node, s.d);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 2.0, 0.5, 0.1, 0.1).node->GetRow(), 4);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 2.75, 3.95, 0.1, 0.1).node, s.root.get());

    // Nothing near: between the root's legs, below its bar.
    const auto miss = DendroGramDrawer::HitTest(layout, 2.75, 3.0, 0.2, 0.2);
    EXPECT_EQ(miss.node, nullptr);
    EXPECT_EQ(miss.segment, -1);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 100.0, 100.0, 1.0, 1.0).node, nullptr);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 0.5, 1.0, 0.0, 0.1).node, nullptr);

    // Each axis has its own tolerance: 0.05 leaf units off A's leg is half
    // an x tolerance of 0.1; the bars, 0.5 away in height, are out of reach.
    const auto scaled = DendroGramDrawer::HitTest(layout, 0.55, 1.5, 0.1, 0.2);
    EXPECT_EQ(scaled.node, s.a);
    EXPECT_NEAR(scaled.distance, 0.5, 1e-12);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 0.55, 1.5, 0.04, 0.2).node, nullptr);
    // A generous height tolerance reaches A's bar first (0.5 / 10 away).
    const auto bar = DendroGramDrawer::HitTest(layout, 0.55, 1.5, 0.1, 10.0);
    EXPECT_TRUE(layout.segments[static_cast<std::size_t>(bar.segment)].bar);
    EXPECT_NEAR(bar.distance, 0.05, 1e-12);

    // The nearer of two lines in reach wins: leaf 1's leg (x = 1) over C's
    // leg (x = 2), though both are within 0.6 of x = 1.4.
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 1.4, 0.5, 0.7, 0.1).node->GetRow(), 1);
    // At a corner, leg and bar are both at 0: the leg, first in the layout.
    const auto corner = DendroGramDrawer::HitTest(layout, 0.0, 1.0, 0.1, 0.1);
    EXPECT_EQ(corner.node->GetRow(), 0);
    EXPECT_FALSE(layout.segments[static_cast<std::size_t>(corner.segment)].bar);
}

// ---- clusters -------------------------------------------------------------

TEST(DendroLister, CutsAtAHeightJoinMergesAtItAndSplitInversions)
{
    const Sample s;
    using Rows = std::vector<std::vector<int>>;
    // A merge exactly at the cut joins: C and D, both spanning 2.
    EXPECT_EQ(RowsOf(DendroGramNodeLister::CutAtHeight(*s.root, 2.0f)), (Rows{{0, 1, 4}, {2, 3, 5}}));
    // Below 2, D's own merge at 1.5 would hold B's at 2: D splits as well.
    const Rows five{{0, 1}, {4}, {2}, {3}, {5}};
    EXPECT_EQ(RowsOf(DendroGramNodeLister::CutAtHeight(*s.root, 1.9f)), five);
    EXPECT_EQ(RowsOf(DendroGramNodeLister::CutAtHeight(*s.root, 1.5f)), five);
    EXPECT_EQ(RowsOf(DendroGramNodeLister::CutAtHeight(*s.root, 1.0f)), five);
    EXPECT_EQ(DendroGramNodeLister::CutAtHeight(*s.root, 0.99f).size(), 6u);
    EXPECT_EQ(DendroGramNodeLister::CutAtHeight(*s.root, -1.0f).size(), 6u);
    EXPECT_EQ(DendroGramNodeLister::CutAtHeight(*s.root, 4.0f), Nodes{s.root.get()});
    EXPECT_THROW(DendroGramNodeLister::CutAtHeight(*s.root, std::nanf("")), NCError);
}

TEST(DendroLister, CountCutsUndoTheHighestMergesLeftmostFirstOnTies)
{
    const Sample s;
    using Rows = std::vector<std::vector<int>>;
    const auto cut = [&](int k) { return RowsOf(DendroGramNodeLister::CutIntoClusters(*s.root, k)); };
    EXPECT_EQ(cut(1), (Rows{{0, 1, 4, 2, 3, 5}}));
    EXPECT_EQ(cut(2), (Rows{{0, 1, 4}, {2, 3, 5}}));
    // C and D tie at 2: C, further left, splits first.
    EXPECT_EQ(cut(3), (Rows{{0, 1}, {4}, {2, 3, 5}}));
    EXPECT_EQ(cut(4), (Rows{{0, 1}, {4}, {2, 3}, {5}}));
    EXPECT_EQ(cut(5), (Rows{{0, 1}, {4}, {2}, {3}, {5}}));
    EXPECT_EQ(cut(6), (Rows{{0}, {1}, {4}, {2}, {3}, {5}}));
    EXPECT_THROW(DendroGramNodeLister::CutIntoClusters(*s.root, 0), NCError);
    EXPECT_THROW(DendroGramNodeLister::CutIntoClusters(*s.root, 7), NCError);
    const Root leaf(Leaf(0));
    EXPECT_EQ(DendroGramNodeLister::CutIntoClusters(*leaf, 1), Nodes{leaf.get()});

    EXPECT_EQ(DendroGramNodeLister::GetTopMerges(*s.root, 10), (Nodes{s.root.get(), s.c, s.d, s.b, s.a}));
    EXPECT_EQ(DendroGramNodeLister::GetTopMerges(*s.root, 2), (Nodes{s.root.get(), s.c}));
    EXPECT_TRUE(DendroGramNodeLister::GetTopMerges(*leaf, 3).empty());

    // Numbered left to right: rows 0 1 -> 1, 4 -> 2, 2 3 5 -> 3.
    EXPECT_EQ(DendroGramNodeLister::GetAssignment(DendroGramNodeLister::CutIntoClusters(*s.root, 3)),
              (std::vector<int>{1, 1, 3, 3, 2, 3}));
    // A row no cluster holds is 0.
    EXPECT_EQ(DendroGramNodeLister::GetAssignment({s.b}), (std::vector<int>{0, 0, 1, 1}));
}

// Two rows share a cluster of a cut at h exactly when the highest merge on
// the way between them is at or below h: checked pair by pair from each
// row's chain of ancestors, on trees with inversions.
TEST(DendroLister, HeightCutsAgreeWithTheHighestMergeBetweenEveryPair)
{
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const NCDataMatrix<float> data = RandomMatrix(40, 4, 7, 0.25);
    const Root root = Cluster(data, ward);
    std::map<const DendroGramNode*, const DendroGramNode*> parent;
    std::vector<const DendroGramNode*> leafOf(40), stack{root.get()};
    std::vector<float> heights;
    while (!stack.empty()) {
        const DendroGramNode* n = stack.back();
        stack.pop_back();
        if (n->IsLeaf()) {
            leafOf[static_cast<std::size_t>(n->GetRow())] = n;
            continue;
        }
        heights.push_back(n->GetHeight());
        for (const DendroGramNode* child : {n->GetLeft(), n->GetRight()}) {
            parent[child] = n;
            stack.push_back(child);
        }
    }
    const auto highestBetween = [&](int r, int s) {
        std::vector<const DendroGramNode*> up;
        for (const DendroGramNode* n = leafOf[static_cast<std::size_t>(r)]; n; n = parent[n])
            up.push_back(n);
        float highest = 0.0f;
        const DendroGramNode* n = leafOf[static_cast<std::size_t>(s)];
        for (; std::find(up.begin(), up.end(), n) == up.end(); n = parent[n])
            highest = std::max(highest, n->GetHeight());
        for (const DendroGramNode* m = leafOf[static_cast<std::size_t>(r)]; m != n; m = parent[m])
            highest = std::max(highest, m->GetHeight());
        return std::max(highest, n->GetHeight());
    };
    for (const float h : heights) {
        const std::vector<int> labels =
            DendroGramNodeLister::GetAssignment(DendroGramNodeLister::CutAtHeight(*root, h));
        ASSERT_EQ(labels.size(), 40u);
        for (int r = 0; r < 40; ++r)
            for (int t = r + 1; t < 40; ++t)
                ASSERT_EQ(labels[static_cast<std::size_t>(r)] == labels[static_cast<std::size_t>(t)],
                          highestBetween(r, t) <= h)
                    << "rows " << r << ", " << t << " at " << h;
    }
}

// R's hclust and cutree on the same data: the same partitions by count, and
// by height between merges.
TEST(DendroLister, CutsAgreeWithCutreeInR)
{
    const NCDataMatrix<float> data = MatrixOf(CutData, CutRows, CutCols);
    const auto labelsOf = [](const int* all, int cut) {
        return std::vector<int>(all + cut * CutRows, all + (cut + 1) * CutRows);
    };
    SingleLinkageDistanceCalculator single;
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    const Root singleRoot = Cluster(data, single);
    const Root wardRoot = Cluster(data, ward);
    for (int k = 1; k <= CutRows; ++k) {
        SCOPED_TRACE(k);
        const auto singleCut = DendroGramNodeLister::CutIntoClusters(*singleRoot, k);
        const auto wardCut = DendroGramNodeLister::CutIntoClusters(*wardRoot, k);
        EXPECT_EQ(PartitionOf(DendroGramNodeLister::GetAssignment(singleCut)),
                  PartitionOf(labelsOf(CutSingleByCount, k - 1)));
        EXPECT_EQ(PartitionOf(DendroGramNodeLister::GetAssignment(wardCut)),
                  PartitionOf(labelsOf(CutWardByCount, k - 1)));
    }
    for (int i = 0; i < static_cast<int>(std::size(CutSingleHeights)); ++i) {
        const auto cut = DendroGramNodeLister::CutAtHeight(*singleRoot, static_cast<float>(CutSingleHeights[i]));
        EXPECT_EQ(PartitionOf(DendroGramNodeLister::GetAssignment(cut)), PartitionOf(labelsOf(CutSingleByHeight, i)))
            << CutSingleHeights[i];
    }
}

// ---- the record -----------------------------------------------------------

TEST(DendroRecord, RoundTripKeepsTreeAndCalculator)
{
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    const NCDataMatrix<float> data = RandomMatrix(30, 3, 5, 0.1);
    DendroGramRecord written(Cluster(data, ward), ward.GetId());
    const std::string bytes = Bytes(written);
    // Header "Dendro" 1, three entries; 59 nodes of 12 bytes.
    EXPECT_EQ(bytes.substr(0, 9), std::string("\x06" "Dendro\x01\x00", 9));
    EXPECT_EQ(bytes.size(), 9u + 2u + (10 + 4 + 23) + (10 + 4) + (10 + 59 * 12) + 2u);

    std::istringstream in(bytes);
    DendroGramRecord read;
    ASSERT_TRUE(read.ReadObject(in));
    EXPECT_EQ(read.GetCalculatorId(), "WardDistanceCalculator1");
    ASSERT_NE(read.GetRoot(), nullptr);
    ExpectSameTree(*written.GetRoot(), *read.GetRoot());

    // The hand-built tree keeps its inversion and row order.
    const Sample s;
    Sample copy;
    DendroGramRecord sample(std::move(copy.root), "SingleLinkageDistanceCalculator");
    std::istringstream sampleIn(Bytes(sample));
    DendroGramRecord sampleRead;
    ASSERT_TRUE(sampleRead.ReadObject(sampleIn));
    ExpectSameTree(*s.root, *sampleRead.GetRoot());
    EXPECT_EQ(sampleRead.ReleaseRoot()->GetLeafOrder(), (std::vector<int>{0, 1, 4, 2, 3, 5}));
    EXPECT_EQ(sampleRead.GetRoot(), nullptr);

    // An empty tree is a record too.
    std::istringstream emptyIn(Bytes(DendroGramRecord(nullptr, "")));
    DendroGramRecord empty(Root(Leaf(1)), "x");
    ASSERT_TRUE(empty.ReadObject(emptyIn));
    EXPECT_EQ(empty.GetRoot(), nullptr);
    EXPECT_EQ(empty.GetCalculatorId(), "");
}

TEST(DendroRecord, LaterVersionIsRefusedAndDamageLeavesTheRecordAlone)
{
    const Sample s;
    Sample copy;
    const std::string bytes = Bytes(DendroGramRecord(std::move(copy.root), "SingleLinkageDistanceCalculator"));

    std::string later = bytes;
    later[7] = 2;
    std::istringstream laterIn(later);
    DendroGramRecord record;
    try {
        record.ReadObject(laterIn);
        ADD_FAILURE() << "a later version was read";
    } catch (const QvStreamError& e) {
        EXPECT_NE(std::string(e.what()).find("version 2"), std::string::npos) << e.what();
    }
    // 0x8001 is stored in the class data as a negative short: still later.
    later[7] = 1;
    later[8] = static_cast<char>(0x80);
    std::istringstream farIn(later);
    DendroGramRecord far;
    EXPECT_THROW(far.ReadObject(farIn), QvStreamError);

    // Every cut of the stream fails without touching what the record held.
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        std::istringstream in(bytes.substr(0, cut));
        DendroGramRecord kept(Root(Leaf(9)), "kept");
        ASSERT_FALSE(kept.ReadObject(in)) << cut;
        EXPECT_EQ(kept.GetRoot()->GetRow(), 9);
        EXPECT_EQ(kept.GetCalculatorId(), "kept");
    }

    // Node 0 of the list is leaf 0: (-1, 0, 0). The nodes start after the
    // header, the directory's count, entry 0 (the id) and entry 1.
    const std::size_t nodes = 9 + 2 + 10 + 4 + 31 + 10 + 4 + 10;
    ASSERT_EQ(bytes.size(), nodes + 11 * 12 + 2);
    const auto damaged = [&](std::size_t at, std::int32_t value) {
        std::string b = bytes;
        for (int i = 0; i < 4; ++i)
            b[at + static_cast<std::size_t>(i)] = static_cast<char>((value >> (8 * i)) & 0xff);
        std::istringstream in(b);
        DendroGramRecord r;
        return r.ReadObject(in);
    };
    EXPECT_FALSE(damaged(nodes + 4, 1));        // leaf 0 says row 1: rows 1 twice
    EXPECT_FALSE(damaged(nodes + 4, -3));       // a negative row
    EXPECT_FALSE(damaged(nodes + 2 * 12, 5));   // node 2 (A) refers forwards
    EXPECT_FALSE(damaged(nodes + 2 * 12 + 4, 0)); // A joins leaf 0 with itself
    // Entry 1, the count, ends where entry 2's 10-byte header starts.
    EXPECT_FALSE(damaged(nodes - 14, 12));     // an even node count
    EXPECT_FALSE(damaged(nodes - 14, 1001));   // more nodes than bytes
}

TEST(DendroRecord, DeepChainWalksWithoutRecursion)
{
    constexpr int Leaves = 100000;
    DendroGramRecord record(Chain(Leaves), "SingleLinkageDistanceCalculator");
    const DendroGramNode& root = *record.GetRoot();
    EXPECT_EQ(root.GetLeafCount(), Leaves);
    EXPECT_EQ(root.GetLeafOrder().size(), static_cast<std::size_t>(Leaves));

    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(root);
    EXPECT_EQ(layout.inners.size(), static_cast<std::size_t>(Leaves - 1));
    EXPECT_EQ(layout.top, Leaves - 1.0);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 0.0, 0.5, 0.1, 0.1).node->GetRow(), 0);

    EXPECT_EQ(DendroGramNodeLister::CutAtHeight(root, 50000.0f).size(), static_cast<std::size_t>(Leaves - 50000));
    const auto clusters = DendroGramNodeLister::CutIntoClusters(root, Leaves);
    EXPECT_EQ(clusters.size(), static_cast<std::size_t>(Leaves));
    EXPECT_EQ(DendroGramNodeLister::GetAssignment(clusters).back(), Leaves);

    std::istringstream in(Bytes(record));
    DendroGramRecord read;
    ASSERT_TRUE(read.ReadObject(in));
    EXPECT_EQ(read.GetRoot()->GetLeafCount(), Leaves);
    EXPECT_EQ(read.GetRoot()->GetHeight(), Leaves - 1.0f);
}

// The messages a user may see come from the catalogue.
TEST(DendroMessages, AreTranslated)
{
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const Sample s;
    std::string count, later;
    try {
        DendroGramNodeLister::CutIntoClusters(*s.root, 9);
    } catch (const NCError& e) {
        count = e.what();
    }
    Sample copy;
    std::string bytes = Bytes(DendroGramRecord(std::move(copy.root), "x"));
    bytes[7] = 3;
    std::istringstream in(bytes);
    DendroGramRecord record;
    try {
        record.ReadObject(in);
    } catch (const QvStreamError& e) {
        later = e.what();
    }
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(count, "Die Anzahl der Cluster muss zwischen 1 und 6, der Anzahl der Zeilen, liegen, nicht 9.");
    EXPECT_EQ(later, "Das Dendrogramm wurde von einer neueren Version gespeichert (Satzversion 3); diese Version liest "
                     "bis 1.");
}
