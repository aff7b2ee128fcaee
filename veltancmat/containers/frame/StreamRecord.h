#pragma once

#include "veltancmat/platform/QvStream.h"

#include <istream>
#include <ostream>

// The steps every record of the library takes around its own part. An
// object is written (or read) once until its streaming flag is reset, so a
// record reached twice within one save is stored once; then come the header
// (magic and version), the base part, and the body.
namespace NCStreamRecord {

template <class WriteBase, class WriteBody>
bool StartWrite(std::ostream& out, bool& streaming, const QvStreamableData& header, WriteBase writeBase,
                WriteBody writeBody)
{
    if (streaming)
        return true;
    streaming = true;
    return header.Write(out) && writeBase() && writeBody();
}

// Any version other than `version` is refused right after the header, before
// anything else is read, so the object stays untouched.
template <class ReadBase, class ReadBody>
bool StartRead(std::istream& in, bool& streaming, QvStreamableData& header, short version, ReadBase readBase,
               ReadBody readBody)
{
    if (streaming)
        return true;
    streaming = true;
    if (!header.Check(in) || header.GetQvStreamVersionNumber() != version)
        return false;
    return readBase() && readBody();
}

} // namespace NCStreamRecord
