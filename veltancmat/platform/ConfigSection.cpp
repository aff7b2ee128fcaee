#include "veltancmat/platform/ConfigSection.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace {

// Characters written with a backslash, in names, keys and values alike, and
// the letter that follows the backslash for each.
constexpr std::string_view Escaped = "\\\n\r=[]#";
constexpr std::string_view EscapeLetter = "\\nr=[]#";

void AppendEscaped(std::string& out, std::string_view text)
{
    for (const char c : text) {
        const std::size_t k = Escaped.find(c);
        if (k == std::string_view::npos) {
            out += c;
        } else {
            out += '\\';
            out += EscapeLetter[k];
        }
    }
}

[[noreturn]] void ThrowMalformed(int line, const char* reason)
{
    const std::string why = ExceptionMessage::translate(reason).str();
    throw NCError(ExceptionMessage::translate("Line {1} of the configuration text is malformed: {2}")
                      % std::to_string(line) % why,
                  NCError::Error);
}

// Decodes `text` into `out`; false for a backslash that starts no known
// escape.
bool Unescape(std::string_view text, std::string& out)
{
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        if (++i == text.size())
            return false;
        const std::size_t k = EscapeLetter.find(text[i]);
        if (k == std::string_view::npos)
            return false;
        out += Escaped[k];
    }
    return true;
}

// Position of the first '=' that is not escaped, or npos.
std::size_t FindSeparator(std::string_view line)
{
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\')
            ++i;
        else if (line[i] == '=')
            return i;
    }
    return std::string_view::npos;
}

// Position of the first ']' that is not escaped, from `from` on, or npos.
std::size_t FindHeaderEnd(std::string_view line, std::size_t from)
{
    for (std::size_t i = from; i < line.size(); ++i) {
        if (line[i] == '\\')
            ++i;
        else if (line[i] == ']')
            return i;
    }
    return std::string_view::npos;
}

[[noreturn]] void ThrowBadValue(const std::string& key, const char* expected)
{
    const std::string what = ExceptionMessage::translate(expected).str();
    throw NCError(ExceptionMessage::translate("The setting \"{1}\" is not {2}.") % key % what, NCError::Error);
}

std::string_view TrimSpaces(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

} // namespace

const std::string* ConfigSection::FindValue(std::string_view key) const
{
    for (const Entry& entry : m_entries)
        if (entry.first == key)
            return &entry.second;
    return nullptr;
}

const std::string& ConfigSection::GetValue(std::string_view key) const
{
    if (const std::string* value = FindValue(key))
        return *value;
    throw NCError(ExceptionMessage::translate("The configuration section \"{1}\" has no setting \"{2}\".") % m_name
                      % std::string(key),
                  NCError::Error);
}

void ConfigSection::SetValue(std::string_view key, std::string value)
{
    if (key.empty())
        throw InvalidArgument("ConfigSection::SetValue: the key is empty.");
    for (Entry& entry : m_entries) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return;
        }
    }
    m_entries.emplace_back(std::string(key), std::move(value));
}

bool ConfigSection::RemoveKey(std::string_view key)
{
    const auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.first == key; });
    if (it == m_entries.end())
        return false;
    m_entries.erase(it);
    return true;
}

void ConfigSection::SetInt(std::string_view key, long long value)
{
    SetValue(key, std::to_string(value));
}

long long ConfigSection::GetInt(std::string_view key) const
{
    const std::string& value = GetValue(key);
    const std::string_view text = TrimSpaces(value);
    long long result = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        ThrowBadValue(std::string(key), "an integer");
    return result;
}

void ConfigSection::SetFloats(std::string_view key, const std::vector<float>& values)
{
    std::string text;
    char buffer[32];
    for (const float v : values) {
        // The shortest digits that read back to the same float.
        const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
        if (!text.empty())
            text += ' ';
        text.append(buffer, result.ptr);
    }
    SetValue(key, std::move(text));
}

std::vector<float> ConfigSection::GetFloats(std::string_view key) const
{
    const std::string& value = GetValue(key);
    std::vector<float> result;
    const char* p = value.data();
    const char* const end = value.data() + value.size();
    while (true) {
        while (p != end && *p == ' ')
            ++p;
        if (p == end)
            break;
        float v = 0.0f;
        const auto [next, error] = std::from_chars(p, end, v);
        // A number must be followed by a space or the end: "1.5x" is no list.
        if (error != std::errc() || (next != end && *next != ' '))
            ThrowBadValue(std::string(key), "a list of numbers");
        result.push_back(v);
        p = next;
    }
    return result;
}

std::string ConfigSection::ToText() const
{
    std::string out = "[";
    AppendEscaped(out, m_name);
    out += "]\n";
    for (const Entry& entry : m_entries) {
        AppendEscaped(out, entry.first);
        out += '=';
        AppendEscaped(out, entry.second);
        out += '\n';
    }
    return out;
}

ConfigSection ConfigSection::FromText(std::string_view text)
{
    std::vector<ConfigSection> sections = ParseSections(text);
    if (sections.empty())
        throw NCError(ExceptionMessage::translate("The configuration text holds no section."), NCError::Error);
    if (sections.size() > 1)
        throw NCError(ExceptionMessage::translate("The configuration text holds more than one section."),
                      NCError::Error);
    return std::move(sections.front());
}

std::vector<ConfigSection> ConfigSection::ParseSections(std::string_view text)
{
    std::vector<ConfigSection> sections;
    int number = 0;
    std::string key;
    std::string value;
    while (!text.empty()) {
        const std::size_t newline = text.find('\n');
        std::string_view line = text.substr(0, newline);
        text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
        ++number;
        // A line ending of "\r\n" counts as "\n"; a CR inside a value is
        // always escaped, so this one cannot belong to the value.
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty() || line.front() == '#')
            continue;
        if (line.front() == '[') {
            const std::size_t close = FindHeaderEnd(line, 1);
            if (close == std::string_view::npos)
                ThrowMalformed(number, "the section name has no closing ']'");
            if (close + 1 != line.size())
                ThrowMalformed(number, "text follows the section name");
            std::string name;
            if (!Unescape(line.substr(1, close - 1), name))
                ThrowMalformed(number, "invalid escape sequence");
            sections.emplace_back(std::move(name));
            continue;
        }
        if (sections.empty())
            ThrowMalformed(number, "a setting before the first section");
        const std::size_t separator = FindSeparator(line);
        if (separator == std::string_view::npos)
            ThrowMalformed(number, "no '=' after the key");
        if (separator == 0)
            ThrowMalformed(number, "the key is empty");
        if (!Unescape(line.substr(0, separator), key) || !Unescape(line.substr(separator + 1), value))
            ThrowMalformed(number, "invalid escape sequence");
        ConfigSection& section = sections.back();
        if (section.HasKey(key))
            ThrowMalformed(number, "the key occurs twice in the section");
        section.m_entries.emplace_back(key, value);
    }
    return sections;
}
