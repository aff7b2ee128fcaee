#include "veltancmat/cluster/DendroGramNodeLister.h"

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <queue>
#include <string>

namespace DendroGram {

namespace {

// A cluster waiting to be split, with the place of its first leaf in the
// leaf order: the left child starts where its parent does, the right one
// after the left's leaves. That place breaks ties between equal heights.
struct Pending {
    const DendroGramNode* node;
    int first;
};

// The higher span first, then the one further left.
struct SplitsLater {
    bool operator()(const Pending& a, const Pending& b) const
    {
        const float ha = a.node->GetSpanHeight(), hb = b.node->GetSpanHeight();
        if (ha != hb)
            return ha < hb;
        return a.first > b.first;
    }
};

using SplitQueue = std::priority_queue<Pending, std::vector<Pending>, SplitsLater>;

void PushChildren(SplitQueue& queue, const Pending& split)
{
    queue.push({split.node->GetLeft(), split.first});
    queue.push({split.node->GetRight(), split.first + split.node->GetLeft()->GetLeafCount()});
}

} // namespace

std::vector<int> DendroGramNodeLister::GetRows(const DendroGramNode& node)
{
    return node.GetLeafOrder();
}

std::vector<const DendroGramNode*> DendroGramNodeLister::CutAtHeight(const DendroGramNode& root, float height)
{
    if (std::isnan(height))
        throw NCError(ExceptionMessage::translate("The height to cut the dendrogram at is not a number."),
                      NCError::Error);
    std::vector<const DendroGramNode*> clusters;
    std::vector<const DendroGramNode*> stack{&root};
    while (!stack.empty()) {
        const DendroGramNode* node = stack.back();
        stack.pop_back();
        // A leaf stands alone even below a negative cut.
        if (node->IsLeaf() || node->GetSpanHeight() <= height) {
            clusters.push_back(node);
            continue;
        }
        stack.push_back(node->GetRight());
        stack.push_back(node->GetLeft());
    }
    return clusters;
}

std::vector<const DendroGramNode*> DendroGramNodeLister::CutIntoClusters(const DendroGramNode& root, int count)
{
    const int leaves = root.GetLeafCount();
    if (count < 1 || count > leaves) {
        ExceptionMessage message = ExceptionMessage::translate(
            "The number of clusters must be between 1 and {1}, the number of rows, not {2}.");
        message % std::to_string(leaves) % std::to_string(count);
        throw NCError(message, NCError::Error);
    }
    SplitQueue queue;
    queue.push({&root, 0});
    std::vector<Pending> done;
    while (static_cast<int>(queue.size() + done.size()) < count) {
        const Pending top = queue.top();
        queue.pop();
        // A leaf cannot split; it stays a cluster of its own.
        if (top.node->IsLeaf()) {
            done.push_back(top);
            continue;
        }
        PushChildren(queue, top);
    }
    while (!queue.empty()) {
        done.push_back(queue.top());
        queue.pop();
    }
    std::sort(done.begin(), done.end(), [](const Pending& a, const Pending& b) { return a.first < b.first; });
    std::vector<const DendroGramNode*> clusters;
    clusters.reserve(done.size());
    for (const Pending& p : done)
        clusters.push_back(p.node);
    return clusters;
}

std::vector<const DendroGramNode*> DendroGramNodeLister::GetTopMerges(const DendroGramNode& root, int count)
{
    std::vector<const DendroGramNode*> merges;
    SplitQueue queue;
    queue.push({&root, 0});
    while (static_cast<int>(merges.size()) < count && !queue.empty()) {
        const Pending top = queue.top();
        queue.pop();
        if (top.node->IsLeaf())
            continue;
        merges.push_back(top.node);
        PushChildren(queue, top);
    }
    return merges;
}

std::vector<int> DendroGramNodeLister::GetAssignment(const std::vector<const DendroGramNode*>& clusters)
{
    std::vector<int> assignment;
    for (std::size_t c = 0; c < clusters.size(); ++c)
        for (const int row : clusters[c]->GetLeafOrder()) {
            if (row < 0)
                continue;
            const auto at = static_cast<std::size_t>(row);
            if (at >= assignment.size())
                assignment.resize(at + 1, 0);
            assignment[at] = static_cast<int>(c) + 1;
        }
    return assignment;
}

} // namespace DendroGram
