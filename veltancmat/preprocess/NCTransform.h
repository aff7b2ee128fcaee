#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"
#include "veltancmat/preprocess/NCTransformError.h"
#include "veltancmat/preprocess/TransformStruct.h"

#include <iosfwd>
#include <memory>
#include <vector>

// The transforms of a data matrix, one TransformStruct per column, columns
// 1-based as everywhere in the library. Matrices are transformed in place;
// missing cells stay missing and the matrix's missing counts stay exact.
//
// Record "NCT", version 2: a directory of two entries, 0 the count n (int32)
// and 1 the n transforms as complete "TS" records, column 1 first; entry 1
// is left out when n is 0.
class VELTANCMAT_API NCTransform : public virtual QvStreamBase {
public:
    using IndexList = NCIntegralVector<int, -99>;

    NCTransform() = default;
    // n columns, every one None. A negative n throws NCInternalError.
    explicit NCTransform(int n);
    // Copies take the transforms, not the streaming state.
    NCTransform(const NCTransform& other);
    NCTransform& operator=(const NCTransform& other);
    ~NCTransform() override;

    bool operator==(const NCTransform& other) const { return m_transforms == other.m_transforms; }
    bool operator!=(const NCTransform& other) const { return !(*this == other); }

    // The transform of column col, 1 <= col <= Size(); any other col throws
    // NCInternalError.
    TransformStruct& operator[](int col);
    const TransformStruct& operator[](int col) const;
    int Size() const { return static_cast<int>(m_transforms.size()); }
    // Keeps the first min(n, Size()) transforms; added columns are None.
    void SetSize(int n);
    void Clear() { m_transforms.clear(); }
    // Removes n columns from `first` (1-based) on; the range must lie inside.
    void RemoveValues(int first, int n);
    // Keeps, in order, the columns whose positions are not listed; entries
    // naming no column are ignored, duplicates are harmless.
    void Remove(const IndexList& columns);
    // Keeps the listed columns, in list order (a column may be listed twice).
    void Reduce(const IndexList& columns);

    // Transforms every column of m with its transform, in column order, and
    // stops at the first column with a cell that cannot be transformed: that
    // column and the ones before it are transformed (its failed cells
    // missing), the later ones untouched, and the NCTransformError of the
    // column's topmost failed cell is thrown. A matrix whose column count is
    // not Size() throws NCTransformError with row 0, column 0, code
    // WrongSize ("Matrix is of wrong size.") and is left untouched.
    void TransformMatrix(NCDataMatrix<float>* m) const;
    // Transforms every column and returns the records of all failed cells,
    // column by column, each column top to bottom; null when none failed.
    // The columns are shared out among threads. The width is checked as in
    // TransformMatrix.
    std::unique_ptr<NCTransformErrors> TransformMatrixNoBreak(NCDataMatrix<float>* m) const;

    // ---- streaming: the "NCT" record, version 2 ------------------------
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // False for another version or a damaged record; the list is then
    // unchanged.
    bool QvStreamableStartRead(std::istream& in) override;
    // Also resets the transforms, so that the next save writes them again.
    void QvStreamableReset() const override;
    short GetMyQvStreamVersionNumber() const { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    short GetQvStreamVersionNumber() const { return MyStreamableData.GetQvStreamVersionNumber(); }

    static QvStreamableData MyStreamableData; // "NCT", 2

private:
    void CheckMatrix(const NCDataMatrix<float>* m, const char* member) const;
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);

    std::vector<TransformStruct> m_transforms; // column j at j - 1
    mutable bool m_streaming = false;
};
