#pragma once

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <string>

// The errors the matrix members share. Internal to the library.
namespace NCMatrixErrors {

// `member` is the bare member name; the template-level class name is put in
// front unless `qualify` is false (the name is then complete already).
[[noreturn]] inline void ThrowSize(const char* member, const char* text, bool qualify = true)
{
    const std::string where = qualify ? std::string("NCDataMatrix<FloatType>::") + member : std::string(member);
    throw NCInternalError(where, ExceptionMessage::translate(text));
}

// As ThrowSize, for a member of the class whose qualified prefix is `owner`
// ("NCDataMatrixRows<FloatType>::"): members shared by several classes name
// the one they were called through.
[[noreturn]] inline void ThrowSizeIn(const char* owner, const char* member, const char* text)
{
    ThrowSize((std::string(owner) + member).c_str(), text, false);
}

// A vector operand must have `expected` elements.
inline void CheckVectorSize(int size, int expected, const char* member)
{
    if (size != expected)
        ThrowSize(member, "Vectors are of different size.");
}

[[noreturn]] inline void ThrowIndex(const char* member)
{
    ThrowSize(member, "Index out of range.");
}

// The ...Impl members write into a result the caller supplies.
template <class Result>
void CheckResult(const Result* result)
{
    if (!result)
        throw NCError(ExceptionMessage::translate("Internal error in NCMatOpResultProxy:\npResult can not be NULL"),
                      NCError::Error);
}

} // namespace NCMatrixErrors
