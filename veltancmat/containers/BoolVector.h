#pragma once

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/Export.h"

// A boolean mask with a record of its own.
class VELTANCMAT_API BoolVector : public NCIntegralVector<bool, 0> {
public:
    BoolVector() = default;
    explicit BoolVector(int size, bool value = false) : NCIntegralVector<bool, 0>(size, value) {}
    BoolVector(const BoolVector&) = default;
    BoolVector& operator=(const BoolVector& other)
    {
        NCIntegralVector<bool, 0>::operator=(other);
        return *this;
    }
    ~BoolVector() override;
};
