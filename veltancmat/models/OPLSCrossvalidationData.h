#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"

#include <iosfwd>
#include <vector>

class InputStreamDirectory;

// The fitted model of every round of an OPLS cross-validation (per round:
// the W, P and C matrices of each stage and the orthogonal WO', PO', CO')
// and the column sums of squares of Y, so that a validation can add
// orthogonal components later, also after a save and a reload.
//
// Record "OPLSCVD", version 1: a directory whose entries 1 to 6 hold the W,
// P and C lists and the WO', PO' and CO' matrices of every round and entry 7
// the sums of squares (docs/stream-format.md).
class VELTANCMAT_API OPLSCrossvalidationData : public virtual QvStreamBase {
public:
    using MatrixList = std::vector<NCDataMatrix<float>>;

    OPLSCrossvalidationData() = default;
    // Room for `rounds` rounds; the sums of squares of y's columns over
    // their present cells.
    OPLSCrossvalidationData(int rounds, const NCDataMatrix<float>& y);
    OPLSCrossvalidationData(const OPLSCrossvalidationData& other) = default;
    OPLSCrossvalidationData(OPLSCrossvalidationData&& other) noexcept = default;
    OPLSCrossvalidationData& operator=(const OPLSCrossvalidationData& other) = default;
    OPLSCrossvalidationData& operator=(OPLSCrossvalidationData&& other) noexcept = default;
    ~OPLSCrossvalidationData() override;

    // Empties every list and the sums of squares.
    void clear();

    int SizeRounds() const { return static_cast<int>(m_wLists.size()); }
    // Round g (0-based) keeps copies of the given matrices.
    void SetRound(int g, const MatrixList& wList, const MatrixList& pList, const MatrixList& cList,
                  const NCDataMatrix<float>& woprim, const NCDataMatrix<float>& poprim,
                  const NCDataMatrix<float>& coprim);
    const std::vector<MatrixList>& GetWLists() const { return m_wLists; }
    const std::vector<MatrixList>& GetPLists() const { return m_pLists; }
    const std::vector<MatrixList>& GetCLists() const { return m_cLists; }
    const MatrixList& GetWOprims() const { return m_woprims; }
    const MatrixList& GetPOprims() const { return m_poprims; }
    const MatrixList& GetCOprims() const { return m_coprims; }
    const NCDataVector<float>& GetYColumnSS() const { return m_ssY; }

    // Streaming entry points. Reading refuses other versions and damaged
    // records (false, the object unchanged).
    bool WriteObject(std::ostream& out) const;
    bool ReadObject(std::istream& in);
    bool QvStreamableStartWrite(std::ostream& out) const override;
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;

    static QvStreamableData MyStreamableData; // "OPLSCVD", 1

private:
    // The directory of the record's body.
    bool UnLoad(std::ostream& out) const;
    bool ReLoad(std::istream& in);

    std::vector<MatrixList> m_wLists;
    std::vector<MatrixList> m_pLists;
    std::vector<MatrixList> m_cLists;
    MatrixList m_woprims;
    MatrixList m_poprims;
    MatrixList m_coprims;
    NCDataVector<float> m_ssY;
    mutable bool m_streaming = false;
};
