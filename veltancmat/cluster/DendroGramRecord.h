#pragma once

#include "veltancmat/cluster/DendroGramNode.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace DendroGram {

// A tree with the id of the calculator that merged it
// (ClusterDistanceCalculator::GetId), as one stream record, so that a host
// can keep a clustering with its project and redraw or recut it later
// without clustering again.
//
// Record "Dendro", version 1 (docs/stream-format.md): a directory whose
// entry 0 is the calculator's id, entry 1 the node count and entry 2 the
// nodes in post-order (children before parents, the root last), a leaf as
// its row and an inner node as its height and the places of its children
// in that list. Both directions are iterative, for trees of any depth.
//
// Reading refuses a record of a later version with QvStreamError (its
// layout is unknown to this build) and returns false, the object
// unchanged, for a damaged record: nodes referring forwards or to a node
// used twice, rows below 0 or repeated, counts the bytes cannot back.
class VELTANCMAT_API DendroGramRecord : public virtual QvStreamBase {
public:
    DendroGramRecord();
    // Takes the tree (null: an empty one) and the calculator's id.
    DendroGramRecord(std::unique_ptr<DendroGramNode> root, std::string calculatorId);
    DendroGramRecord(DendroGramRecord&& other) noexcept;
    DendroGramRecord& operator=(DendroGramRecord&& other) noexcept;
    ~DendroGramRecord() override;

    const DendroGramNode* GetRoot() const { return m_root.get(); }
    // Hands the tree to the caller; the record is then empty.
    std::unique_ptr<DendroGramNode> ReleaseRoot();
    const std::string& GetCalculatorId() const { return m_calculatorId; }

    bool WriteObject(std::ostream& out) const;
    bool ReadObject(std::istream& in);
    bool QvStreamableStartWrite(std::ostream& out) const override;
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;

    static QvStreamableData MyStreamableData; // "Dendro", 1

private:
    bool UnLoad(std::ostream& out) const;
    bool ReLoad(std::istream& in);

    std::unique_ptr<DendroGramNode> m_root;
    std::string m_calculatorId;
    mutable bool m_streaming = false;
};

} // namespace DendroGram
