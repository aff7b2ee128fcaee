#include "veltancmat/containers/frame/ProgressScope.h"

ExceptionMessage CancelText::Message() const
{
    if (m_message)
        return *m_message;
    if (m_context)
        return ExceptionMessage::translate(m_context, m_text);
    return ExceptionMessage::translate(m_text);
}

void CancelText::Throw() const
{
    throw CancelException(Message());
}
