#pragma once

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"

#include <iosfwd>

// A boolean mask with a record of its own, "BoolVector" version 3: the
// header, then as its base part the complete "NCIV" record of the boolean
// vector, then a directory without entries. Only version 3 is read.
class VELTANCMAT_API BoolVector : public NCIntegralVector<bool, 0> {
public:
    BoolVector() = default;
    explicit BoolVector(int size, bool value = false) : NCIntegralVector<bool, 0>(size, value) {}
    BoolVector(const BoolVector& other) : QvStreamBase(other), NCIntegralVector<bool, 0>(other) {}
    BoolVector& operator=(const BoolVector& other)
    {
        NCIntegralVector<bool, 0>::operator=(other);
        return *this;
    }
    ~BoolVector() override;

    bool QvStreamableStartWrite(std::ostream& out) const override;
    // On a wrong magic or version the mask is untouched; when the base
    // record cannot be read it keeps its previous elements as well.
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;

    static QvStreamableData MyStreamableData; // "BoolVector", 3

private:
    // Apart from the base's flag, which guards the nested "NCIV" record.
    mutable bool m_streaming = false;
};
