#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

Exception::Exception() = default;

Exception::Exception(const ExceptionMessage& message) : m_what(message.str())
{
    m_messages << message;
}

Exception::Exception(const ExceptionMessageList& messages) : m_messages(messages), m_what(messages.str()) {}

Exception::~Exception() = default;

CancelException::CancelException() : Exception(ExceptionMessage::translate("Operation cancelled.")) {}
CancelException::CancelException(const ExceptionMessage& message) : Exception(message) {}
CancelException::~CancelException() = default;

InvalidArgument::InvalidArgument(std::string_view text)
{
    SetText(std::string(text));
}
InvalidArgument::~InvalidArgument() = default;

NCError::NCError() = default;
NCError::NCError(const ExceptionMessage& message, Level level) : Exception(message), m_level(level) {}
NCError::NCError(const ExceptionMessageList& messages, Level level) : Exception(messages), m_level(level) {}
NCError::~NCError() = default;

NCInternalError::NCInternalError(const std::string& where) : m_where(where)
{
    SetText(where);
}

NCInternalError::NCInternalError(const std::string& where, const ExceptionMessage& message)
    : NCError(message, Error), m_where(where)
{
    SetText(where + ": " + message.str());
}

NCInternalError::~NCInternalError() = default;
