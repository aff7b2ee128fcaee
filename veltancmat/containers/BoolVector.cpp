#include "veltancmat/containers/BoolVector.h"
#include "veltancmat/containers/frame/StreamRecord.h"

#include <istream>
#include <ostream>

QvStreamableData BoolVector::MyStreamableData(3, "BoolVector");

BoolVector::~BoolVector() = default;

bool BoolVector::QvStreamableStartWrite(std::ostream& out) const
{
    // The base part is the complete "NCIV" record of the mask; the own
    // directory has no entries.
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return NCIntegralVector<bool, 0>::QvStreamableStartWrite(out); },
        [&] {
            OutputStreamDirectory directory(out, 0);
            return directory.Close() && out.good();
        });
}

bool BoolVector::QvStreamableStartRead(std::istream& in)
{
    // Read into a scratch mask first: a failure after the base record (a
    // broken trailing directory) must not leave this one half replaced.
    BoolVector read;
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 3,
        [&] { return read.NCIntegralVector<bool, 0>::QvStreamableStartRead(in); },
        [&] {
            InputStreamDirectory directory(in);
            if (!directory.Close() || !in.good())
                return false;
            NCIntegralVector<bool, 0>::operator=(read);
            return true;
        });
}

void BoolVector::QvStreamableReset() const
{
    m_streaming = false;
    NCIntegralVector<bool, 0>::QvStreamableReset();
}
