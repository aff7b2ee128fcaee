#include "veltancmat/platform/ExceptionMessage.h"

#include <boost/locale/generator.hpp>
#include <boost/locale/message.hpp>

#include <cstdlib>
#include <memory>
#include <mutex>

namespace {

#ifndef VELTANCMAT_LOCALE_DIR
#define VELTANCMAT_LOCALE_DIR "/usr/local/share/locale"
#endif

struct CatalogState {
    std::mutex mutex;
    bool loaded = false;
    std::string language;
    std::string path = VELTANCMAT_LOCALE_DIR;
    std::locale locale;
};

CatalogState& State()
{
    static CatalogState state;
    return state;
}

// The user's language as gettext would find it: LANGUAGE is not consulted
// because Boost.Locale picks one catalogue per locale name.
std::string LanguageFromEnvironment()
{
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value && *value)
            return value;
    }
    return "C";
}

std::locale Generate(const std::string& language, const std::string& path)
{
    boost::locale::generator generator;
    // Only the message facet is needed; the other categories stay classic,
    // so translation never changes how numbers are formatted.
    generator.categories(boost::locale::message_facet);
    generator.add_messages_path(path);
    generator.add_messages_domain(MessageCatalog::Domain);
    try {
        return generator(language);
    } catch (const std::exception&) {
        // An unknown locale name means no translation, never a failure.
        return generator("C");
    }
}

std::locale CurrentLocale()
{
    CatalogState& state = State();
    std::lock_guard lock(state.mutex);
    if (!state.loaded) {
        if (const char* dir = std::getenv("VELTANCMAT_LOCALEDIR"); dir && *dir)
            state.path = dir;
        state.language = LanguageFromEnvironment();
        state.locale = Generate(state.language, state.path);
        state.loaded = true;
    }
    return state.locale;
}

} // namespace

void MessageCatalog::SetLanguage(const std::string& language, const std::string& path)
{
    CatalogState& state = State();
    std::lock_guard lock(state.mutex);
    if (!path.empty())
        state.path = path;
    state.language = language;
    state.locale = Generate(state.language, state.path);
    state.loaded = true;
}

std::string MessageCatalog::GetLanguage()
{
    CurrentLocale();
    CatalogState& state = State();
    std::lock_guard lock(state.mutex);
    return state.language;
}

ExceptionMessage::ExceptionMessage(std::string context, std::string source, std::string translated)
    : m_context(std::move(context)), m_source(std::move(source)), m_translated(std::move(translated))
{
}

ExceptionMessage ExceptionMessage::translate(const char* text)
{
    const char* source = text ? text : "";
    std::string translated = boost::locale::translate(source).str(CurrentLocale());
    return ExceptionMessage({}, source, std::move(translated));
}

ExceptionMessage ExceptionMessage::translate(const char* context, const char* text)
{
    const char* source = text ? text : "";
    const char* ctx = context ? context : "";
    std::string translated = boost::locale::translate(ctx, source).str(CurrentLocale());
    return ExceptionMessage(ctx, source, std::move(translated));
}

ExceptionMessage& ExceptionMessage::operator%(const char* value)
{
    m_arguments.emplace_back(value ? value : "");
    return *this;
}

ExceptionMessage& ExceptionMessage::operator%(const std::string& value)
{
    m_arguments.push_back(value);
    return *this;
}

std::string ExceptionMessage::str() const
{
    // Scan once: "{n}" with n in 1..arguments is replaced, anything else is
    // copied as it stands (a lone brace, "{0}", "{x}" or an unfilled "{3}").
    // "{n,options}" is replaced like "{n}": the options ("num=fixed",
    // "precision=3") say how the caller formatted the argument, and a
    // translator may keep or drop them.
    std::string out;
    out.reserve(m_translated.size());
    const std::string& t = m_translated;
    for (std::size_t i = 0; i < t.size(); ++i) {
        if (t[i] == '{') {
            std::size_t j = i + 1;
            std::size_t number = 0;
            while (j < t.size() && t[j] >= '0' && t[j] <= '9' && number < 100000) {
                number = number * 10 + static_cast<std::size_t>(t[j] - '0');
                ++j;
            }
            if (j > i + 1 && j < t.size() && t[j] == ',') {
                const std::size_t close = t.find_first_of("{}", j);
                if (close != std::string::npos && t[close] == '}')
                    j = close;
            }
            if (j > i + 1 && j < t.size() && t[j] == '}' && number >= 1 && number <= m_arguments.size()) {
                out += m_arguments[number - 1];
                i = j;
                continue;
            }
        }
        out += t[i];
    }
    return out;
}

ExceptionMessageList& ExceptionMessageList::operator<<(const ExceptionMessage& message)
{
    m_messages.push_back(message);
    return *this;
}

std::string ExceptionMessageList::str() const
{
    std::string out;
    for (const ExceptionMessage& m : m_messages) {
        if (!out.empty())
            out += '\n';
        out += m.str();
    }
    return out;
}
