#include "cluster/ClusterChecks.h"
#include "cluster/fixtures/DendroCutReference.inc"

#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/cluster/DendroGramDrawer.h"
#include "veltancmat/cluster/DendroGramNodeLister.h"
#include "veltancmat/cluster/DendroGramRecord.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using namespace ClusterChecks;
using namespace DendroGram;
using Root = std::unique_ptr<DendroGramNode>;
using Nodes = std::vector<const DendroGramNode*>;
using Groups = std::vector<std::vector<int>>;
using Lister = DendroGramNodeLister;

DendroGramNode* Leaf(int row) { return new DendroGramNode(row); }
DendroGramNode* Join(float h, DendroGramNode* l, DendroGramNode* r) { return new DendroGramNode(h, l, r); }

// A = (0 1) at 1, B = (2 3) at 2, C = (A 4) at 2, D = (B 5) at 1.5 (an
// inversion, below B), root = (C D) at 4. Leaf order 0 1 4 2 3 5; C and D
// both span 2, a tie at a cut of 2.
struct Sample {
    DendroGramNode *a = Join(1.0f, Leaf(0), Leaf(1)), *b = Join(2.0f, Leaf(2), Leaf(3));
    DendroGramNode *c = Join(2.0f, a, Leaf(4)), *d = Join(1.5f, b, Leaf(5));
    Root root{Join(4.0f, c, d)};
};

Groups RowsOf(const Nodes& clusters)
{
    Groups rows;
    for (const DendroGramNode* c : clusters)
        rows.push_back(Lister::GetRows(*c));
    return rows;
}

// Labels of any numbering as sorted groups of rows.
Groups PartitionOf(const std::vector<int>& labels)
{
    std::map<int, std::vector<int>> groups;
    for (std::size_t r = 0; r < labels.size(); ++r)
        groups[labels[r]].push_back(static_cast<int>(r));
    Groups p;
    for (auto& [label, rows] : groups)
        p.push_back(rows);
    std::sort(p.begin(), p.end());
    return p;
}

Root Cluster(const NCDataMatrix<float>& data, ClusterDistanceCalculator& calculator)
{
    return Root(GetDendroGram(data, calculator, nullptr, nullptr));
}

std::string Bytes(const DendroGramRecord& record)
{
    std::ostringstream out;
    record.QvStreamableReset();
    EXPECT_TRUE(record.WriteObject(out));
    return out.str();
}

// Rows, heights (bit for bit) and shape, in leaf order.
std::vector<float> Shape(const DendroGramNode& root)
{
    std::vector<float> shape;
    std::vector<const DendroGramNode*> stack{&root};
    while (!stack.empty()) {
        const DendroGramNode* n = stack.back();
        stack.pop_back();
        shape.push_back(n->IsLeaf() ? static_cast<float>(n->GetRow()) : -n->GetHeight() - 1.0f);
        if (!n->IsLeaf())
            stack.insert(stack.end(), {n->GetRight(), n->GetLeft()});
    }
    return shape;
}

template <class Error, class Call>
std::string What(Call call)
{
    try {
        call();
    } catch (const Error& e) {
        return e.what();
    }
    return "(no error)";
}

} // namespace

TEST(DendroLayout, PlacesLeavesInTreeOrderAndNodesAtTheirSpan)
{
    const Sample s;
    EXPECT_EQ(s.root->GetLeafCount(), 6);
    EXPECT_EQ(s.d->GetSpanHeight(), 2.0f);
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(*s.root);
    const int rows[] = {0, 1, 4, 2, 3, 5};
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_TRUE(layout.leaves.at(i).row == rows[i] && layout.leaves[i].x == static_cast<double>(i)) << i;
    // Children before parents; D is drawn at B's height 2, not at its own 1.5.
    const std::tuple<const DendroGramNode*, double, double, float, bool> expected[] = {
        {s.a, 0.5, 1.0, 1.0f, false}, {s.c, 1.25, 2.0, 2.0f, false}, {s.b, 3.5, 2.0, 2.0f, false},
        {s.d, 4.25, 2.0, 1.5f, true}, {s.root.get(), 2.75, 4.0, 4.0f, false}};
    ASSERT_EQ(layout.inners.size(), 5u);
    for (std::size_t i = 0; i < 5; ++i) {
        const auto& n = layout.inners[i];
        EXPECT_EQ(std::tie(n.node, n.x, n.y, n.height, n.inverted), expected[i]) << i;
    }
    EXPECT_EQ(layout.top, 4.0);
    // D's legs rise from B (at 2) and from leaf 5 (at 0) to 2; its bar joins them.
    ASSERT_EQ(layout.segments.size(), 15u);
    const auto& leg = layout.segments[10];
    const auto& bar = layout.segments[11];
    EXPECT_TRUE(leg.owner->GetRow() == 5 && leg.x1 == 5.0 && leg.y1 == 0.0 && leg.y2 == 2.0 && !leg.bar);
    EXPECT_TRUE(bar.owner == s.d && bar.bar && bar.x1 == 3.5 && bar.x2 == 5.0 && bar.y1 == 2.0);

    const DendroGramDrawOutput single = DendroGramDrawer::Draw(*Root(Leaf(3)));
    EXPECT_TRUE(single.leaves.size() == 1 && single.inners.empty() && single.segments.empty());
}

TEST(DendroLayout, HitTestFindsTheNearestLineWithinTheTolerance)
{
    const Sample s;
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(*s.root);
    const auto hit = [&](double x, double y, double tx, double ty) {
        return DendroGramDrawer::HitTest(layout, x, y, tx, ty).node;
    };
    // A leg picks the child it rises from, a bar its own node.
    EXPECT_EQ(hit(0.52, 1.5, 0.1, 0.1), s.a);
    EXPECT_EQ(hit(1.6, 2.05, 0.1, 0.1), s.c);
    EXPECT_EQ(hit(4.25, 3.0, 0.1, 0.1), s.d);
    EXPECT_EQ(hit(2.0, 0.5, 0.1, 0.1)->GetRow(), 4);
    // Nothing within reach, or no reach at all.
    EXPECT_EQ(hit(2.75, 3.0, 0.2, 0.2), nullptr);
    EXPECT_EQ(hit(0.5, 1.0, 0.0, 0.1), nullptr);
    // Each axis has its own tolerance: 0.05 off A's leg is half of 0.1, but
    // beyond 0.04; a generous height tolerance reaches A's bar (0.5 / 10) first.
    const DendroGramHit near = DendroGramDrawer::HitTest(layout, 0.55, 1.5, 0.1, 0.2);
    EXPECT_TRUE(near.node == s.a && std::abs(near.distance - 0.5) < 1e-12);
    EXPECT_EQ(hit(0.55, 1.5, 0.04, 0.2), nullptr);
    const DendroGramHit bar = DendroGramDrawer::HitTest(layout, 0.55, 1.5, 0.1, 10.0);
    EXPECT_TRUE(layout.segments.at(static_cast<std::size_t>(bar.segment)).bar);
    // The nearer of two lines in reach wins; at a corner, the leg (listed first).
    EXPECT_EQ(hit(1.4, 0.5, 0.7, 0.1)->GetRow(), 1);
    EXPECT_EQ(hit(0.0, 1.0, 0.1, 0.1)->GetRow(), 0);
}

TEST(DendroLister, HeightCutsJoinMergesAtTheHeightAndSplitInversions)
{
    const Sample s;
    EXPECT_EQ(RowsOf(Lister::CutAtHeight(*s.root, 2.0f)), (Groups{{0, 1, 4}, {2, 3, 5}}));
    // Below 2, D's own merge at 1.5 would hold B's at 2: D splits too.
    for (const float h : {1.9f, 1.5f, 1.0f})
        EXPECT_EQ(RowsOf(Lister::CutAtHeight(*s.root, h)), (Groups{{0, 1}, {4}, {2}, {3}, {5}})) << h;
    EXPECT_EQ(Lister::CutAtHeight(*s.root, -1.0f).size(), 6u);
    EXPECT_EQ(Lister::CutAtHeight(*s.root, 4.0f), Nodes{s.root.get()});
    EXPECT_THROW(Lister::CutAtHeight(*s.root, std::nanf("")), NCError);
}

TEST(DendroLister, CountCutsUndoTheHighestMergesLeftmostFirstOnTies)
{
    const Sample s;
    const auto cut = [&](int k) { return RowsOf(Lister::CutIntoClusters(*s.root, k)); };
    EXPECT_EQ(cut(1), (Groups{{0, 1, 4, 2, 3, 5}}));
    EXPECT_EQ(cut(2), (Groups{{0, 1, 4}, {2, 3, 5}}));
    EXPECT_EQ(cut(3), (Groups{{0, 1}, {4}, {2, 3, 5}})); // C and D tie: C is further left
    EXPECT_EQ(cut(4), (Groups{{0, 1}, {4}, {2, 3}, {5}}));
    EXPECT_EQ(cut(6), (Groups{{0}, {1}, {4}, {2}, {3}, {5}}));
    EXPECT_THROW(Lister::CutIntoClusters(*s.root, 0), NCError);
    EXPECT_THROW(Lister::CutIntoClusters(*s.root, 7), NCError);
    EXPECT_EQ(Lister::GetTopMerges(*s.root, 10), (Nodes{s.root.get(), s.c, s.d, s.b, s.a}));
    // Numbered left to right; a row no cluster holds is 0.
    EXPECT_EQ(Lister::GetAssignment(Lister::CutIntoClusters(*s.root, 3)), (std::vector<int>{1, 1, 3, 3, 2, 3}));
    EXPECT_EQ(Lister::GetAssignment({s.b}), (std::vector<int>{0, 0, 1, 1}));
}

// Two rows share a cluster of a cut at h exactly when the highest merge on
// the way between them is at or below h; checked pair by pair from each
// row's ancestors on a tree with missing cells.
TEST(DendroLister, HeightCutsAgreeWithTheHighestMergeBetweenEveryPair)
{
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const Root root = Cluster(RandomMatrix(40, 4, 7, 0.25), ward);
    std::map<const DendroGramNode*, const DendroGramNode*> parent;
    std::vector<std::vector<const DendroGramNode*>> up(40);
    std::vector<const DendroGramNode*> stack{root.get()};
    while (!stack.empty()) {
        const DendroGramNode* n = stack.back();
        stack.pop_back();
        for (const DendroGramNode* child : {n->GetLeft(), n->GetRight()})
            if (child) {
                parent[child] = n;
                stack.push_back(child);
            }
        if (n->IsLeaf())
            for (const DendroGramNode* a = n; a; a = parent[a])
                up[static_cast<std::size_t>(n->GetRow())].push_back(a);
    }
    const auto highestBetween = [&](std::size_t r, std::size_t t) {
        float highest = 0.0f;
        for (const DendroGramNode* a : up[r]) {
            highest = std::max(highest, a->GetHeight());
            if (std::find(up[t].begin(), up[t].end(), a) != up[t].end())
                break;
        }
        for (const DendroGramNode* a : up[t]) {
            if (std::find(up[r].begin(), up[r].end(), a) != up[r].end())
                break;
            highest = std::max(highest, a->GetHeight());
        }
        return highest;
    };
    // Cut at every merge's own height: exactly at it, inversions included.
    for (const auto& [node, above] : parent) {
        if (!above)
            continue;
        const float h = above->GetHeight();
        const std::vector<int> labels = Lister::GetAssignment(Lister::CutAtHeight(*root, h));
        for (std::size_t r = 0; r < 40; ++r)
            for (std::size_t t = r + 1; t < 40; ++t)
                ASSERT_EQ(labels[r] == labels[t], highestBetween(r, t) <= h) << r << ", " << t << " at " << h;
    }
}

// R's hclust and cutree on the same data: the same partitions by count, and
// by heights between the merges.
TEST(DendroLister, CutsAgreeWithCutreeInR)
{
    const NCDataMatrix<float> data = MatrixOf(CutData, CutRows, CutCols);
    const auto labels = [](const int* all, int cut) {
        return std::vector<int>(all + cut * CutRows, all + (cut + 1) * CutRows);
    };
    SingleLinkageDistanceCalculator single;
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    const Root singleRoot = Cluster(data, single), wardRoot = Cluster(data, ward);
    for (int k = 1; k <= CutRows; ++k) {
        EXPECT_EQ(PartitionOf(Lister::GetAssignment(Lister::CutIntoClusters(*singleRoot, k))),
                  PartitionOf(labels(CutSingleByCount, k - 1))) << k;
        EXPECT_EQ(PartitionOf(Lister::GetAssignment(Lister::CutIntoClusters(*wardRoot, k))),
                  PartitionOf(labels(CutWardByCount, k - 1))) << k;
    }
    for (int i = 0; i < static_cast<int>(std::size(CutSingleHeights)); ++i) {
        const auto cut = Lister::CutAtHeight(*singleRoot, static_cast<float>(CutSingleHeights[i]));
        EXPECT_EQ(PartitionOf(Lister::GetAssignment(cut)), PartitionOf(labels(CutSingleByHeight, i))) << i;
    }
}

TEST(DendroRecord, RoundTripKeepsTreeAndCalculator)
{
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    const DendroGramRecord written(Cluster(RandomMatrix(30, 3, 5, 0.1), ward), ward.GetId());
    const std::string bytes = Bytes(written);
    // Header "Dendro" 1; the id, the count and 59 nodes of 12 bytes.
    EXPECT_EQ(bytes.substr(0, 9), std::string("\x06" "Dendro\x01\x00", 9));
    EXPECT_EQ(bytes.size(), 9u + 2u + (10 + 4 + 23) + (10 + 4) + (10 + 59 * 12) + 2u);
    std::istringstream in(bytes);
    DendroGramRecord read;
    ASSERT_TRUE(read.ReadObject(in));
    EXPECT_EQ(read.GetCalculatorId(), "WardDistanceCalculator1");
    EXPECT_EQ(Shape(*read.GetRoot()), Shape(*written.GetRoot()));

    const Sample s;
    Sample copy;
    std::istringstream sample(Bytes(DendroGramRecord(std::move(copy.root), "x")));
    read.QvStreamableReset();
    ASSERT_TRUE(read.ReadObject(sample));
    EXPECT_EQ(Shape(*read.ReleaseRoot()), Shape(*s.root));
    // An empty tree is a record too.
    std::istringstream empty(Bytes(DendroGramRecord(nullptr, "")));
    DendroGramRecord none(Root(Leaf(1)), "x");
    ASSERT_TRUE(none.ReadObject(empty));
    EXPECT_TRUE(none.GetRoot() == nullptr && none.GetCalculatorId().empty());
}

TEST(DendroRecord, LaterVersionIsRefusedAndDamageLeavesTheRecordAlone)
{
    Sample s;
    const std::string bytes = Bytes(DendroGramRecord(std::move(s.root), "SingleLinkageDistanceCalculator"));
    const auto read = [](const std::string& b) {
        std::istringstream in(b);
        DendroGramRecord r(Root(Leaf(9)), "kept");
        const bool ok = r.ReadObject(in);
        EXPECT_TRUE(ok || (r.GetRoot()->GetRow() == 9 && r.GetCalculatorId() == "kept"));
        return ok;
    };
    // Versions 2 and 0x8001 (a negative short in the class data) are later.
    for (const char high : {'\x00', '\x80'}) {
        std::string later = bytes;
        later[7] = 2;
        later[8] = high;
        EXPECT_THROW(read(later), QvStreamError);
    }
    for (std::size_t cut = 0; cut < bytes.size(); ++cut)
        EXPECT_FALSE(read(bytes.substr(0, cut))) << cut;
    // The nodes follow the header, the count, entry 0 (the id) and entry 1.
    const std::size_t nodes = 9 + 2 + 10 + 4 + 31 + 10 + 4 + 10;
    const auto damaged = [&](std::size_t at, std::int32_t value) {
        std::string b = bytes;
        for (std::size_t i = 0; i < 4; ++i)
            b[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
        return read(b);
    };
    EXPECT_TRUE(damaged(nodes + 4, 0));
    EXPECT_FALSE(damaged(nodes + 4, 1));          // leaf 0 says row 1: row 1 twice
    EXPECT_FALSE(damaged(nodes + 4, -3));         // a negative row
    EXPECT_FALSE(damaged(nodes + 2 * 12, 5));     // node 2 (A) refers forwards
    EXPECT_FALSE(damaged(nodes + 2 * 12 + 4, 0)); // A joins leaf 0 with itself
    EXPECT_FALSE(damaged(nodes - 14, 12));        // an even node count
    EXPECT_FALSE(damaged(nodes - 14, 1001));      // more nodes than bytes
}

TEST(DendroRecord, DeepChainWalksWithoutRecursion)
{
    constexpr int Leaves = 100000;
    Root chain(Leaf(0));
    for (int r = 1; r < Leaves; ++r)
        chain.reset(Join(static_cast<float>(r), chain.release(), Leaf(r)));
    const DendroGramRecord record(std::move(chain), "x");
    const DendroGramNode& root = *record.GetRoot();
    EXPECT_EQ(root.GetLeafOrder().size(), static_cast<std::size_t>(Leaves));
    const DendroGramDrawOutput layout = DendroGramDrawer::Draw(root);
    EXPECT_EQ(layout.top, Leaves - 1.0);
    EXPECT_EQ(DendroGramDrawer::HitTest(layout, 0.0, 0.5, 0.1, 0.1).node->GetRow(), 0);
    EXPECT_EQ(Lister::CutAtHeight(root, 50000.0f).size(), static_cast<std::size_t>(Leaves - 50000));
    EXPECT_EQ(Lister::GetAssignment(Lister::CutIntoClusters(root, Leaves)).back(), Leaves);
    std::istringstream in(Bytes(record));
    DendroGramRecord read;
    ASSERT_TRUE(read.ReadObject(in));
    EXPECT_EQ(read.GetRoot()->GetLeafCount(), Leaves);
}

TEST(DendroMessages, AreTranslated)
{
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const Sample s;
    std::string later = Bytes(DendroGramRecord(nullptr, ""));
    later[7] = 3;
    std::istringstream in(later);
    DendroGramRecord record;
    const std::string count = What<NCError>([&] { Lister::CutIntoClusters(*s.root, 9); });
    const std::string version = What<QvStreamError>([&] { record.ReadObject(in); });
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(count, "Die Anzahl der Cluster muss zwischen 1 und 6, der Anzahl der Zeilen, liegen, nicht 9.");
    EXPECT_EQ(version, "Das Dendrogramm wurde von einer neueren Version gespeichert (Satzversion 3); diese Version "
                       "liest bis 1.");
}
