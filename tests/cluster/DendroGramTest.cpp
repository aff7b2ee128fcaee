#include "cluster/ClusterChecks.h"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/platform/NCProgress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace ClusterChecks;
using DendroGram::DendroGramNode;
using Root = std::unique_ptr<DendroGramNode>;

Root Tree(const NCDataMatrix<float>& data, DendroGram::ClusterDistanceCalculator& calculator,
          NCProgress* progress = nullptr)
{
    return Root(DendroGram::GetDendroGram(data, calculator, progress, nullptr));
}

// The text and level of the NCError a call raises, or "" when it raises none.
std::string ErrorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const NCError& e) {
        EXPECT_EQ(e.GetLevel(), NCError::Error);
        return e.what();
    }
    return {};
}

// A progress object that records every caption it shows and can request a
// break when one comes up.
struct RecordingProgress {
    NCProgress progress{"", 0.0f, 1.0f, true};
    std::vector<std::string> captions;
    std::string breakAt;

    RecordingProgress()
    {
        progress.SetObserver([this](const NCProgressSnapshot& s) {
            if (captions.empty() || captions.back() != s.caption)
                captions.push_back(s.caption);
            if (!breakAt.empty() && s.caption.rfind(breakAt, 0) == 0)
                progress.RequestBreak();
        });
    }
};

// ---- the tree ------------------------------------------------------------

// Leaves in left-to-right order and the heights of the inner nodes, without recursion.
void Walk(const DendroGramNode* root, std::vector<int>& leaves, std::vector<float>& heights)
{
    std::vector<const DendroGramNode*> stack{root};
    while (!stack.empty()) {
        const DendroGramNode* node = stack.back();
        stack.pop_back();
        if (node->IsLeaf()) {
            leaves.push_back(node->GetRow());
            continue;
        }
        heights.push_back(node->GetHeight());
        stack.push_back(node->GetRight());
        stack.push_back(node->GetLeft());
    }
}

TEST(DendroGram, TreeHoldsTheMergesOverEveryRowOnce)
{
    const NCDataMatrix<float> data = RandomMatrix(50, 4, 21, 0.1);
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    const Root root = Tree(data, ward);
    std::vector<int> leaves;
    std::vector<float> heights;
    Walk(root.get(), leaves, heights);
    std::sort(leaves.begin(), leaves.end());
    for (int r = 0; r < 50; ++r)
        EXPECT_EQ(leaves[static_cast<std::size_t>(r)], r);
    std::vector<float> expected;
    for (const Merge& m : Cluster(ward, data))
        expected.push_back(m.height);
    EXPECT_EQ(root->GetHeight(), expected.back());
    std::sort(expected.begin(), expected.end());
    std::sort(heights.begin(), heights.end());
    EXPECT_EQ(heights, expected);

    // Rows 0 and 2 merge first, then row 1 joins; the left child is the
    // cluster with the smaller number.
    SingleLinkageDistanceCalculator single;
    const Root small = Tree(MatrixOf({{0.0f}, {10.0f}, {1.0f}}), single);
    EXPECT_FLOAT_EQ(small->GetHeight(), 9.0f);
    EXPECT_EQ(small->GetRow(), -1);
    EXPECT_EQ(small->GetRight()->GetRow(), 1);
    const DendroGramNode* left = small->GetLeft();
    EXPECT_FLOAT_EQ(left->GetHeight(), 1.0f);
    EXPECT_EQ(left->GetLeft()->GetRow(), 0);
    EXPECT_EQ(left->GetRight()->GetRow(), 2);
    EXPECT_TRUE(left->GetRight()->IsLeaf());

    const Root leaf = Tree(MatrixOf({{1.0f, 2.0f}}), single);
    EXPECT_TRUE(leaf->IsLeaf());
    EXPECT_FALSE(Tree(NCDataMatrix<float>(), single));
}

// A chain of a million merges must free without running out of stack.
TEST(DendroGram, DeepTreeFreesWithoutRecursion)
{
    Root root = std::make_unique<DendroGramNode>(0);
    for (int r = 1; r < 1000000; ++r)
        root = Root(new DendroGramNode(static_cast<float>(r), root.release(), new DendroGramNode(r)));
    root.reset();
}

TEST(DendroGram, IdsNameTheCalculator)
{
    EXPECT_EQ(WardDistanceCalculator(WardDistanceCalculator::ErrorSS).GetId(), "WardDistanceCalculator0");
    EXPECT_EQ(WardDistanceCalculator(WardDistanceCalculator::RootErrorSS).GetId(), "WardDistanceCalculator1");
    EXPECT_EQ(SingleLinkageDistanceCalculator().GetId(), "SingleLinkageDistanceCalculator");
    WardDistanceCalculator unknown(static_cast<WardDistanceCalculator::DistanceType>(2));
    EXPECT_EQ(unknown.GetId(), "WardDistanceCalculator2");
    EXPECT_THROW(unknown.Init(RandomMatrix(5, 2, 1), nullptr), InvalidArgument);
}

TEST(DendroGram, ErrorSSFollowsTheColumnRule)
{
    const NCDataMatrix<float> data = RandomMatrix(12, 6, 31, 0.2);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    ward.Init(data, nullptr);
    const std::vector<std::vector<int>> groups = {{0}, {1}, {2, 3, 4}, {5, 6}, {7, 8, 9, 10, 11}};
    for (const auto& a : groups)
        for (const auto& b : groups) {
            if (a == b)
                continue;
            const double expected = WardIncrease(data, a, b);
            EXPECT_NEAR(ward.GetErrorSS(a, b), expected, 1e-5 * (1 + expected));
        }

    // Complete rows: n_a n_b / (n_a + n_b) times the squared distance of the means.
    ward.Init(MatrixOf({{1, 2}, {3, 5}, {4, 4}}), nullptr);
    EXPECT_FLOAT_EQ(ward.GetErrorSS({0}, {1}), 0.5f * (4 + 9));
    EXPECT_FLOAT_EQ(ward.GetErrorSS({0, 1}, {2}), 2.0f / 3.0f * 4.25f);
    // Column 2 has no value in the first two rows and one in the union: it
    // adds nothing, however it is scaled.
    ward.Init(MatrixOf({{1, -99, 1, 1}, {3, -99, 1, 1}, {5, 0, 1, 1}}), nullptr);
    EXPECT_FLOAT_EQ(ward.GetErrorSS({0}, {1}), 2.0f);
    EXPECT_FLOAT_EQ(ward.GetErrorSS({0, 1}, {2}), 2.0f / 3.0f * 9.0f);
}

// ---- refusals --------------------------------------------------------------

TEST(DendroGram, RowMoreThanHalfMissingIsRefusedBeforeAnyDistance)
{
    const NCDataMatrix<float> data = MatrixOf({{1, 2, 3, 4}, {1, -99, -99, -99}, {2, 2, 2, 2}});
    RecordingProgress recorder;
    SingleLinkageDistanceCalculator single;
    EXPECT_EQ(ErrorOf([&] { Tree(data, single, &recorder.progress); }),
              "Cluster analysis cannot be performed on data that has rows with more than 50 % missing values.");
    for (const std::string& caption : recorder.captions)
        EXPECT_EQ(caption.find("distances"), std::string::npos) << caption;
    // Exactly half missing is allowed.
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    EXPECT_TRUE(Tree(MatrixOf({{1, 2, 3, 4}, {1, -99, -99, 4}}), ward));
}

TEST(DendroGram, PairsWithTooFewCommonValuesAreRefused)
{
    // Six columns need three common values (sqrt 6 = 2.45); rows 1 and 2 share one.
    const NCDataMatrix<float> data =
        MatrixOf({{1, 2, 3, 4, 5, 6}, {1, 2, 3, -99, -99, -99}, {-99, -99, 3, 4, 5, -99}});
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    const std::string tooFew = "Cluster analysis cannot be performed on data where two rows have less than the "
                               "square root of the number of columns common non-missing elements.";
    EXPECT_EQ(ErrorOf([&] { Tree(data, ward); }), tooFew);
    // The same pair among the last rows, which other threads compute.
    NCDataMatrix<float> tall = RandomMatrix(400, 6, 12);
    for (int j = 4; j <= 6; ++j)
        tall(390, j, -99.0f);
    for (int j : {1, 2, 6})
        tall(398, j, -99.0f);
    NCMultiThreading::ThreadingControl::SetNumberOfProcessors(4);
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(true);
    EXPECT_EQ(ErrorOf([&] { Tree(tall, ward); }), tooFew);
    NCMultiThreading::ThreadingControl::Reset();
    SingleLinkageDistanceCalculator single;
    EXPECT_EQ(ErrorOf([&] { Tree(MatrixOf({{1, 2, 3, 4, 5, 6}, {1, 2, 3, -99, -99, -99}, {1, 2, 3, 4, -99, -99}}),
                                 single); }),
              "");
}

TEST(DendroGram, MoreThan65535RowsAreRefused)
{
    const NCDataMatrix<float> data(65536, 1);
    SingleLinkageDistanceCalculator single;
    try {
        Tree(data, single);
        FAIL() << "no error";
    } catch (const DendroGram::ClusterAllocationError& e) {
        EXPECT_EQ(e.GetLevel(), NCError::Error);
        EXPECT_EQ(std::string(e.what()),
                  "Memory allocation error.\nWhen doing cluster analysis, a total of N*(N-1)/2 initial distances are "
                  "calculated. In this case, enough RAM to hold these distances could not be allocated (N=65536).");
    }
}

// ---- progress and breaks -------------------------------------------------

std::vector<std::string> PhasesOf(const NCDataMatrix<float>& data, DendroGram::ClusterDistanceCalculator& calculator)
{
    RecordingProgress recorder;
    Tree(data, calculator, &recorder.progress);
    EXPECT_DOUBLE_EQ(recorder.progress.GetFraction(), 1.0);
    std::vector<std::string> seen;
    for (const std::string& c : recorder.captions)
        if (!c.empty() && (seen.empty() || seen.back() != c))
            seen.push_back(c);
    return seen;
}

TEST(DendroGram, ProgressShowsEachPhase)
{
    NCDataMatrix<float> gaps = RandomMatrix(4, 4, 1);
    gaps(1, 1, -99.0f);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    EXPECT_EQ(PhasesOf(gaps, ward),
              (std::vector<std::string>{"Allocating memory", "Calculating 6 distances", "Sorting", "Merging clusters"}));
    // Complete rows go straight to the chains of nearest neighbours.
    EXPECT_EQ(PhasesOf(RandomMatrix(4, 4, 1), ward), (std::vector<std::string>{"Merging clusters"}));
    SingleLinkageDistanceCalculator single;
    EXPECT_EQ(PhasesOf(gaps, single), (std::vector<std::string>{"Calculating 6 distances", "Merging clusters"}));
}

// Requests a break after a number of merges, from inside the calculator.
class BreakingCalculator : public DendroGram::ClusterDistanceCalculator {
public:
    BreakingCalculator(NCProgress& progress, int after) : m_progress(progress), m_after(after) {}
    void Init(const NCDataMatrix<float>& data, NCProgress* progress) override { m_inner.Init(data, progress); }
    float FindNearestAndMerge(int& a, int& b) override
    {
        if (++m_merges == m_after)
            m_progress.RequestBreak();
        return m_inner.FindNearestAndMerge(a, b);
    }
    std::string GetId() const override { return m_inner.GetId(); }
    int Merges() const { return m_merges; }

private:
    NCProgress& m_progress;
    int m_after;
    int m_merges = 0;
    SingleLinkageDistanceCalculator m_inner;
};

// The nodes built before the break are freed (the sanitizer build sees any
// leak) and the merging stops at the next merge.
TEST(DendroGram, BreakWhileMergingFreesTheNodesAndThrows)
{
    NCProgress progress;
    BreakingCalculator calculator(progress, 25);
    try {
        Tree(RandomMatrix(60, 3, 8), calculator, &progress);
        FAIL() << "no break";
    } catch (const CancelException& e) {
        EXPECT_EQ(std::string(e.what()), "Cluster analysis aborted.");
    }
    EXPECT_EQ(calculator.Merges(), 25);
}

TEST(DendroGram, BreakWhileCalculatingDistancesThrows)
{
    for (bool threaded : {false, true}) {
        NCMultiThreading::ThreadingControl::SetNumberOfProcessors(threaded ? 3 : 1);
        NCMultiThreading::ThreadingControl::SetThreadingIsOn(threaded);
        const NCDataMatrix<float> gaps = RandomMatrix(400, 4, 2, 0.1);
        WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
        SingleLinkageDistanceCalculator single;
        for (DendroGram::ClusterDistanceCalculator* calculator :
             std::vector<DendroGram::ClusterDistanceCalculator*>{&ward, &single}) {
            RecordingProgress recorder;
            recorder.breakAt = "Calculating";
            EXPECT_THROW(Tree(gaps, *calculator, &recorder.progress), CancelException);
            EXPECT_EQ(std::find(recorder.captions.begin(), recorder.captions.end(), "Merging clusters"),
                      recorder.captions.end());
        }
    }
    NCMultiThreading::ThreadingControl::Reset();
}

// Complete rows merge by chains inside Init; a break there stops them.
TEST(DendroGram, BreakWhileChainingThrows)
{
    RecordingProgress recorder;
    recorder.breakAt = "Merging";
    WardDistanceCalculator ward(WardDistanceCalculator::RootErrorSS);
    EXPECT_THROW(Tree(RandomMatrix(300, 3, 4), ward, &recorder.progress), CancelException);
}

} // namespace
