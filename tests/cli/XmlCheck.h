#pragma once

#include <cctype>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace cli_test {

// A small XML reader for checking the tool's SVG files: it accepts the
// subset of XML they use (a declaration, elements, quoted attributes, text
// with entity references, comments) and reports the first thing a strict
// parser would refuse.
struct XmlElement {
    std::string name;
    std::map<std::string, std::string> attributes; // values as written, entities undecoded
    std::string text;                              // direct text content, decoded
};

struct XmlDocument {
    std::string fault; // "" when well-formed
    std::vector<XmlElement> elements; // in document order
};

namespace xml_detail {

inline bool NameChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == ':' || c == '.';
}

// Decodes the entity at text[at] == '&'; false for an unknown or unclosed one.
inline bool Entity(std::string_view text, std::size_t& at, std::string& out)
{
    const std::size_t end = text.find(';', at);
    if (end == std::string_view::npos || end - at > 8)
        return false;
    const std::string_view name = text.substr(at + 1, end - at - 1);
    static const std::map<std::string_view, char> named{
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    if (const auto found = named.find(name); found != named.end())
        out += found->second;
    else if (name.size() > 1 && name[0] == '#')
        out += '?';
    else
        return false;
    at = end + 1;
    return true;
}

inline std::string Text(std::string_view text, std::string& fault)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == '<' || (c == '&' && !Entity(text, i, decoded))) {
            fault = "unescaped '" + std::string(1, c) + "' in \"" + std::string(text) + "\"";
            return decoded;
        }
        if (c != '&')
            decoded += text[i++];
    }
    return decoded;
}

} // namespace xml_detail

namespace xml_detail {

// Reads a document front to back, keeping the first fault.
class Reader {
public:
    explicit Reader(std::string_view doc) : m_doc(doc) {}

    XmlDocument Read()
    {
        if (m_doc.substr(0, 5) == "<?xml") {
            m_at = m_doc.find("?>");
            if (m_at == std::string_view::npos)
                return {"unclosed declaration", {}};
            m_at += 2;
        }
        while (m_at < m_doc.size() && m_result.fault.empty() && TextThenTag()) {
        }
        if (m_result.fault.empty() && !m_open.empty())
            m_result.fault = "unclosed <" + m_result.elements[m_open.back()].name + ">";
        if (m_result.fault.empty() && !m_root)
            m_result.fault = "no root element";
        return m_result;
    }

private:
    // The text up to the next tag, then the tag; false at the end.
    bool TextThenTag()
    {
        const std::size_t lt = m_doc.find('<', m_at);
        const std::string_view between = m_doc.substr(m_at, lt == std::string_view::npos ? m_doc.npos : lt - m_at);
        const std::string text = Text(between, m_result.fault);
        if (!m_open.empty())
            m_result.elements[m_open.back()].text += text;
        else if (between.find_first_not_of(" \t\r\n") != std::string_view::npos)
            m_result.fault = "text outside the root element";
        if (lt == std::string_view::npos || !m_result.fault.empty())
            return false;
        m_at = lt;
        if (m_doc.substr(lt, 4) == "<!--") {
            const std::size_t end = m_doc.find("-->", lt);
            if (end == std::string_view::npos)
                m_result.fault = "unclosed comment";
            m_at = end + 3;
        } else if (m_doc.substr(lt, 2) == "</") {
            ClosingTag();
        } else {
            OpeningTag();
        }
        return true;
    }

    std::string Name()
    {
        const std::size_t start = m_at;
        while (m_at < m_doc.size() && NameChar(m_doc[m_at]))
            ++m_at;
        return std::string(m_doc.substr(start, m_at - start));
    }

    void SkipSpace()
    {
        while (m_at < m_doc.size() && std::isspace(static_cast<unsigned char>(m_doc[m_at])))
            ++m_at;
    }

    void ClosingTag()
    {
        const std::size_t lt = m_at;
        m_at += 2;
        const std::string name = Name();
        SkipSpace();
        if (m_at >= m_doc.size() || m_doc[m_at] != '>' || m_open.empty() ||
            m_result.elements[m_open.back()].name != name) {
            m_result.fault = "unbalanced </" + name + "> at " + std::to_string(lt);
            return;
        }
        m_open.pop_back();
        ++m_at;
    }

    void OpeningTag()
    {
        const std::size_t lt = m_at++;
        XmlElement element{Name(), {}, {}};
        std::string& fault = m_result.fault;
        if (element.name.empty())
            fault = "a tag without a name at " + std::to_string(lt);
        else if (m_open.empty() && m_root)
            fault = "a second root element <" + element.name + ">";
        m_root = true;
        bool selfClosing = false;
        while (fault.empty()) {
            SkipSpace();
            if (m_at >= m_doc.size()) {
                fault = "unclosed tag <" + element.name + ">";
            } else if (m_doc[m_at] == '>' || m_doc.substr(m_at, 2) == "/>") {
                selfClosing = m_doc[m_at] == '/';
                m_at += selfClosing ? 2 : 1;
                break;
            } else {
                Attribute(element);
            }
        }
        m_result.elements.push_back(element);
        if (!selfClosing)
            m_open.push_back(m_result.elements.size() - 1);
    }

    // name="value" or name='value', the value free of raw < and &.
    void Attribute(XmlElement& element)
    {
        std::string& fault = m_result.fault;
        const std::string key = Name();
        if (key.empty() || m_at + 1 >= m_doc.size() || m_doc[m_at] != '=' ||
            (m_doc[m_at + 1] != '"' && m_doc[m_at + 1] != '\'')) {
            fault = "an unquoted or malformed attribute in <" + element.name + ">";
            return;
        }
        const std::size_t end = m_doc.find(m_doc[m_at + 1], m_at + 2);
        if (end == std::string_view::npos) {
            fault = "unclosed attribute value in <" + element.name + ">";
            return;
        }
        const std::string_view value = m_doc.substr(m_at + 2, end - m_at - 2);
        Text(value, fault);
        if (element.attributes.count(key) != 0)
            fault = "repeated attribute " + key + " in <" + element.name + ">";
        element.attributes[key] = std::string(value);
        m_at = end + 1;
    }

    std::string_view m_doc;
    std::size_t m_at = 0;
    XmlDocument m_result;
    std::vector<std::size_t> m_open; // indices into m_result.elements
    bool m_root = false;
};

} // namespace xml_detail

inline XmlDocument ParseXml(std::string_view doc) { return xml_detail::Reader(doc).Read(); }

// The elements named `name` whose class attribute is `cls`.
inline std::vector<XmlElement> ElementsOfClass(const XmlDocument& doc, const std::string& name, const std::string& cls)
{
    std::vector<XmlElement> found;
    for (const XmlElement& e : doc.elements) {
        const auto c = e.attributes.find("class");
        if (e.name == name && c != e.attributes.end() && c->second == cls)
            found.push_back(e);
    }
    return found;
}

} // namespace cli_test
