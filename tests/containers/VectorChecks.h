#pragma once

// Helpers the vector tests share.
#include "veltancmat/containers/NCDataVector.h"

#include <initializer_list>

// A vector of the listed values, converted to T.
template <class T>
NCDataVector<T> Vec(std::initializer_list<double> values)
{
    NCDataVector<T> v;
    for (double x : values)
        v.push_back(static_cast<T>(x));
    return v;
}
