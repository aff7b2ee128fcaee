#pragma once

#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <exception>
#include <string>
#include <string_view>

// Root of the library's exceptions. It carries one message or a list of
// them; what() is the translated text with its placeholders filled, so a
// caller can log any exception without knowing its type.
class VELTANCMAT_API Exception : public std::exception {
public:
    Exception();
    explicit Exception(const ExceptionMessage& message);
    explicit Exception(const ExceptionMessageList& messages);
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() override;

    const char* what() const noexcept override { return m_what.c_str(); }
    const ExceptionMessageList& messages() const { return m_messages; }

protected:
    // For derived classes whose text is not a translatable message.
    void SetText(std::string text) { m_what = std::move(text); }

private:
    ExceptionMessageList m_messages;
    std::string m_what;
};

// The user asked a long computation to stop.
class VELTANCMAT_API CancelException : public Exception {
public:
    CancelException();
    explicit CancelException(const ExceptionMessage& message);
    CancelException(const CancelException&) = default;
    ~CancelException() override;
};

// An argument outside its documented domain; the text is not translated.
class VELTANCMAT_API InvalidArgument : public Exception {
public:
    explicit InvalidArgument(std::string_view text);
    InvalidArgument(const InvalidArgument&) = default;
    ~InvalidArgument() override;
};
