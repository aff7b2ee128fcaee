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

inline XmlDocument ParseXml(std::string_view doc)
{
    XmlDocument result;
    std::string& fault = result.fault;
    std::vector<std::size_t> open; // indices into elements
    std::size_t i = 0;
    if (doc.substr(0, 5) == "<?xml") {
        i = doc.find("?>");
        if (i == std::string_view::npos)
            return {"unclosed declaration", {}};
        i += 2;
    }
    bool root = false;
    while (i < doc.size() && fault.empty()) {
        const std::size_t lt = doc.find('<', i);
        const std::string_view between = doc.substr(i, lt == std::string_view::npos ? doc.size() - i : lt - i);
        const std::string text = xml_detail::Text(between, fault);
        if (!open.empty())
            result.elements[open.back()].text += text;
        else if (between.find_first_not_of(" \t\r\n") != std::string_view::npos)
            fault = "text outside the root element";
        if (lt == std::string_view::npos || !fault.empty())
            break;
        if (doc.substr(lt, 4) == "<!--") {
            const std::size_t end = doc.find("-->", lt);
            if (end == std::string_view::npos)
                fault = "unclosed comment";
            i = end + 3;
            continue;
        }
        std::size_t p = lt + 1;
        const bool closing = p < doc.size() && doc[p] == '/';
        p += closing ? 1 : 0;
        const std::size_t nameStart = p;
        while (p < doc.size() && xml_detail::NameChar(doc[p]))
            ++p;
        const std::string name(doc.substr(nameStart, p - nameStart));
        if (name.empty()) {
            fault = "a tag without a name at " + std::to_string(lt);
            break;
        }
        if (closing) {
            while (p < doc.size() && std::isspace(static_cast<unsigned char>(doc[p])))
                ++p;
            if (p >= doc.size() || doc[p] != '>' || open.empty() || result.elements[open.back()].name != name) {
                fault = "unbalanced </" + name + "> at " + std::to_string(lt);
                break;
            }
            open.pop_back();
            i = p + 1;
            continue;
        }
        if (open.empty() && root) {
            fault = "a second root element <" + name + ">";
            break;
        }
        root = true;
        XmlElement element{name, {}, {}};
        bool selfClosing = false;
        while (fault.empty()) {
            while (p < doc.size() && std::isspace(static_cast<unsigned char>(doc[p])))
                ++p;
            if (p >= doc.size()) {
                fault = "unclosed tag <" + name + ">";
            } else if (doc[p] == '>' || doc.substr(p, 2) == "/>") {
                selfClosing = doc[p] == '/';
                p += selfClosing ? 2 : 1;
                break;
            } else {
                const std::size_t keyStart = p;
                while (p < doc.size() && xml_detail::NameChar(doc[p]))
                    ++p;
                const std::string key(doc.substr(keyStart, p - keyStart));
                if (key.empty() || p + 1 >= doc.size() || doc[p] != '=' || (doc[p + 1] != '"' && doc[p + 1] != '\'')) {
                    fault = "an unquoted or malformed attribute in <" + name + ">";
                    break;
                }
                const char quote = doc[p + 1];
                const std::size_t end = doc.find(quote, p + 2);
                if (end == std::string_view::npos) {
                    fault = "unclosed attribute value in <" + name + ">";
                    break;
                }
                const std::string_view value = doc.substr(p + 2, end - p - 2);
                xml_detail::Text(value, fault);
                if (element.attributes.count(key) != 0)
                    fault = "repeated attribute " + key + " in <" + name + ">";
                element.attributes[key] = std::string(value);
                p = end + 1;
            }
        }
        result.elements.push_back(element);
        if (!selfClosing)
            open.push_back(result.elements.size() - 1);
        i = p;
    }
    if (fault.empty() && !open.empty())
        fault = "unclosed <" + result.elements[open.back()].name + ">";
    if (fault.empty() && !root)
        fault = "no root element";
    return result;
}

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
