#include "veltancmat/containers/BoolVector.h"

#include <istream>
#include <ostream>

QvStreamableData BoolVector::MyStreamableData(3, "BoolVector");

BoolVector::~BoolVector() = default;

bool BoolVector::QvStreamableStartWrite(std::ostream& out) const
{
    if (m_streaming)
        return true;
    m_streaming = true;
    if (!MyStreamableData.Write(out) || !NCIntegralVector<bool, 0>::QvStreamableStartWrite(out))
        return false;
    OutputStreamDirectory directory(out, 0);
    return directory.Close() && out.good();
}

bool BoolVector::QvStreamableStartRead(std::istream& in)
{
    if (m_streaming)
        return true;
    m_streaming = true;
    if (!MyStreamableData.Check(in) || MyStreamableData.GetQvStreamVersionNumber() != 3)
        return false;
    // Read into a scratch mask first: a failure after the base record (a
    // broken trailing directory) must not leave this one half replaced.
    BoolVector read;
    if (!read.NCIntegralVector<bool, 0>::QvStreamableStartRead(in))
        return false;
    InputStreamDirectory directory(in);
    if (!directory.Close() || !in.good())
        return false;
    NCIntegralVector<bool, 0>::operator=(read);
    return true;
}

void BoolVector::QvStreamableReset() const
{
    m_streaming = false;
    NCIntegralVector<bool, 0>::QvStreamableReset();
}
