#pragma once

#include "veltancmat/platform/Export.h"

#include <string>
#include <string_view>
#include <vector>

// A translatable message with numbered placeholders "{1}", "{2}", ...
// The text is translated when the message is created; arguments are kept
// apart and substituted on output, so a translation may reorder them.
class VELTANCMAT_API ExceptionMessage {
public:
    static ExceptionMessage translate(const char* text);
    static ExceptionMessage translate(const char* context, const char* text);

    // Fills the lowest-numbered placeholder not filled yet.
    ExceptionMessage& operator%(const char* value);
    ExceptionMessage& operator%(const std::string& value);

    // The translated text with every filled placeholder substituted;
    // placeholders without an argument are left as they stand.
    std::string str() const;
    // The untranslated source text, as passed to translate.
    const std::string& source() const { return m_source; }
    const std::string& context() const { return m_context; }
    const std::vector<std::string>& arguments() const { return m_arguments; }

private:
    ExceptionMessage(std::string context, std::string source, std::string translated);

    std::string m_context;
    std::string m_source;
    std::string m_translated;
    std::vector<std::string> m_arguments;
};

// An ordered list of messages, for failures that need several sentences.
class VELTANCMAT_API ExceptionMessageList {
public:
    ExceptionMessageList() = default;
    ExceptionMessageList& operator<<(const ExceptionMessage& message);

    const std::vector<ExceptionMessage>& messages() const { return m_messages; }
    bool empty() const { return m_messages.empty(); }
    // The messages' texts joined by single newlines.
    std::string str() const;

private:
    std::vector<ExceptionMessage> m_messages;
};

// Where translations come from. By default the catalogue of the user's
// locale (LC_ALL / LC_MESSAGES / LANG) is looked up under the install
// prefix; a host or a test may point it elsewhere or pick a language.
namespace MessageCatalog {
// Domain of the library's catalogue: <path>/<lang>/LC_MESSAGES/veltancmat.mo
inline constexpr const char* Domain = "veltancmat";
// Selects the language ("de", "de_DE.UTF-8", "C" for none) and the folder
// holding the catalogues. An empty path keeps the current one.
VELTANCMAT_API void SetLanguage(const std::string& language, const std::string& path = {});
VELTANCMAT_API std::string GetLanguage();
} // namespace MessageCatalog
