#pragma once

// Writing and reading one stream record in the tests.

#include "veltancmat/platform/QvStream.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace RecordIO {

// The record `object` writes, which must succeed; the object is reset, so
// that it writes its record again next time.
inline std::string Written(const QvStreamBase& object)
{
    std::ostringstream out;
    EXPECT_TRUE(object.QvStreamableStartWrite(out));
    object.QvStreamableReset();
    return out.str();
}

// Reads `bytes` into `object`; a QvStreamError counts as a refusal like a
// false result.
inline bool ReadOrRefuse(const std::string& bytes, QvStreamBase& object)
{
    std::istringstream in(bytes);
    bool ok = false;
    try {
        ok = object.QvStreamableStartRead(in);
    } catch (const QvStreamError&) {
    }
    object.QvStreamableReset();
    return ok;
}

} // namespace RecordIO
