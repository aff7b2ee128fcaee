#include "veltancmat/cluster/DendroGramRecord.h"

#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <algorithm>
#include <cstdint>
#include <istream>
#include <ostream>
#include <unordered_map>
#include <utility>
#include <vector>

namespace DendroGram {

QvStreamableData DendroGramRecord::MyStreamableData(1, "Dendro");

namespace {

enum Entry : unsigned short { CalculatorId = 0, NodeCount, Nodes, EntryCount };

// Each node of entry 2: two int32 and a float32. A leaf is (-1, row, 0), an
// inner node (left, right, height) with its children's places in the list.
constexpr int NodeBytes = 12;

struct NodeItem {
    std::int32_t first;
    std::int32_t second;
    float height;
};

bool WriteNode(const NodeItem& item, std::ostream& out)
{
    const std::int32_t places[2] = {item.first, item.second};
    return WriteFourBytes(places, 2, out) && WriteFourBytes(&item.height, 1, out);
}

// The nodes in post-order, each child's place known before its parent is written.
bool WriteNodes(const DendroGramNode& root, std::ostream& out)
{
    std::unordered_map<const DendroGramNode*, std::int32_t> places;
    std::int32_t next = 0;
    std::vector<std::pair<const DendroGramNode*, bool>> stack{{&root, false}};
    bool ok = true;
    while (ok && !stack.empty()) {
        auto [node, expanded] = stack.back();
        stack.pop_back();
        if (node->IsLeaf()) {
            ok = WriteNode({-1, node->GetRow(), 0.0f}, out);
            places.emplace(node, next++);
            continue;
        }
        if (!expanded) {
            stack.emplace_back(node, true);
            stack.emplace_back(node->GetRight(), false);
            stack.emplace_back(node->GetLeft(), false);
            continue;
        }
        const auto left = places.find(node->GetLeft()), right = places.find(node->GetRight());
        ok = WriteNode({left->second, right->second, node->GetHeight()}, out);
        places.erase(left);
        places.erase(right);
        places.emplace(node, next++);
    }
    return ok;
}

// Builds the tree from the post-order list; throws QvStreamError for a list
// that is not one tree.
std::unique_ptr<DendroGramNode> ReadNodes(std::istream& in, int count)
{
    std::vector<std::unique_ptr<DendroGramNode>> nodes(static_cast<std::size_t>(count));
    std::vector<std::int32_t> rows;
    for (int i = 0; i < count; ++i) {
        std::int32_t places[2];
        float height = 0.0f;
        if (!ReadFourBytes(places, 2, in) || !ReadFourBytes(&height, 1, in))
            throw QvStreamError();
        auto& node = nodes[static_cast<std::size_t>(i)];
        if (places[0] == -1) {
            if (places[1] < 0)
                throw QvStreamError();
            rows.push_back(places[1]);
            node = std::make_unique<DendroGramNode>(places[1]);
            continue;
        }
        // Children come earlier in the list and belong to one parent only:
        // a taken child's slot is empty.
        if (places[0] < 0 || places[1] < 0 || places[0] >= i || places[1] >= i || places[0] == places[1])
            throw QvStreamError();
        auto& left = nodes[static_cast<std::size_t>(places[0])];
        auto& right = nodes[static_cast<std::size_t>(places[1])];
        if (!left || !right)
            throw QvStreamError();
        node.reset(new DendroGramNode(height, left.get(), right.get()));
        static_cast<void>(left.release());
        static_cast<void>(right.release());
    }
    // Every node but the last was taken by a parent.
    if (std::count_if(nodes.begin(), nodes.end(), [](const auto& n) { return n != nullptr; }) != 1 ||
        !nodes.back())
        throw QvStreamError();
    std::sort(rows.begin(), rows.end());
    if (std::adjacent_find(rows.begin(), rows.end()) != rows.end())
        throw QvStreamError();
    return std::move(nodes.back());
}

} // namespace

DendroGramRecord::DendroGramRecord() = default;

DendroGramRecord::DendroGramRecord(std::unique_ptr<DendroGramNode> root, std::string calculatorId)
    : m_root(std::move(root)), m_calculatorId(std::move(calculatorId))
{
}

DendroGramRecord::DendroGramRecord(DendroGramRecord&& other) noexcept
    : m_root(std::move(other.m_root)), m_calculatorId(std::move(other.m_calculatorId))
{
}

DendroGramRecord& DendroGramRecord::operator=(DendroGramRecord&& other) noexcept
{
    m_root = std::move(other.m_root);
    m_calculatorId = std::move(other.m_calculatorId);
    return *this;
}

DendroGramRecord::~DendroGramRecord() = default;

std::unique_ptr<DendroGramNode> DendroGramRecord::ReleaseRoot()
{
    return std::move(m_root);
}

bool DendroGramRecord::WriteObject(std::ostream& out) const
{
    return QvStreamableStartWrite(out);
}

bool DendroGramRecord::ReadObject(std::istream& in)
{
    return QvStreamableStartRead(in);
}

bool DendroGramRecord::QvStreamableStartWrite(std::ostream& out) const
{
    if (m_streaming)
        return true;
    m_streaming = true;
    return MyStreamableData.Write(out) && QvStreamBase::QvStreamableStartWrite(out) && UnLoad(out);
}

// A later version is refused loudly: its reader exists, this build is only
// too old for it, and the user should hear that rather than "damaged".
bool DendroGramRecord::QvStreamableStartRead(std::istream& in)
{
    if (m_streaming)
        return true;
    m_streaming = true;
    if (!MyStreamableData.Check(in))
        return false;
    // The header holds a u16; the class data keeps it as a short.
    const auto version = static_cast<unsigned short>(MyStreamableData.GetQvStreamVersionNumber());
    const auto ours = static_cast<unsigned short>(MyStreamableData.GetMyQvStreamVersionNumber());
    if (version > ours) {
        ExceptionMessage message = ExceptionMessage::translate(
            "The dendrogram was saved by a later version (record version {1}); this version reads up to {2}.");
        message % std::to_string(version) % std::to_string(ours);
        throw QvStreamError(message);
    }
    if (version < 1)
        return false;
    return QvStreamBase::QvStreamableStartRead(in) && ReLoad(in);
}

void DendroGramRecord::QvStreamableReset() const
{
    m_streaming = false;
    QvStreamBase::QvStreamableReset();
}

bool DendroGramRecord::UnLoad(std::ostream& out) const
{
    OutputStreamDirectory directory(out, EntryCount);
    bool ok = WriteBinaryString(m_calculatorId, directory.GetOutput(CalculatorId));
    const std::int32_t count = m_root ? 2 * m_root->GetLeafCount() - 1 : 0;
    ok = ok && WriteFourBytes(&count, 1, directory.GetOutput(NodeCount));
    if (m_root)
        ok = ok && WriteNodes(*m_root, directory.GetOutput(Nodes));
    return directory.Close() && ok && out.good();
}

// Reads into locals and takes them only once the whole record was read, so
// a damaged record leaves the object as it was.
bool DendroGramRecord::ReLoad(std::istream& in)
{
    InputStreamDirectory directory(in);
    try {
        std::string id;
        if (!ReadBinaryString(id, directory.GetRequiredInput(CalculatorId)))
            throw QvStreamError();
        std::int32_t count = 0;
        directory.ReadRequired(NodeCount, &count, 1, 4);
        // A tree of n leaves has 2n - 1 nodes.
        if (count < 0 || (count > 0 && count % 2 == 0))
            throw QvStreamError();
        std::unique_ptr<DendroGramNode> root;
        if (count > 0)
            root = ReadNodes(directory.GetRequiredInput(Nodes, static_cast<std::streamsize>(count) * NodeBytes),
                             count);
        if (!directory.Close() || !in.good())
            return false;
        m_root = std::move(root);
        m_calculatorId = std::move(id);
        return true;
    } catch (const QvStreamError&) {
        return false;
    }
}

} // namespace DendroGram
