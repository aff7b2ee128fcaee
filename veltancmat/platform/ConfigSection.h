#pragma once

#include "veltancmat/platform/Export.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A named group of settings: string keys with string values, kept in the
// order in which the keys were first set. Objects save their settings into
// a section (TransformStruct::Save) and restore them from one; the host
// decides where the text goes.
//
// The text form is
//
//   [name]
//   key=value
//
// with backslash escapes for the characters that would break a line apart
// (docs/config-section.md has the full rules). Every string round-trips:
// FromText(s.ToText()) == s for any name, keys and values, and the typed
// setters write numbers in a form that reads back to the same bits.
//
// Malformed text and absent or malformed values throw NCError (level 2)
// with a translated message; an empty key is a programming error and throws
// InvalidArgument.
class VELTANCMAT_API ConfigSection {
public:
    using Entry = std::pair<std::string, std::string>;

    ConfigSection() = default;
    explicit ConfigSection(std::string name) : m_name(std::move(name)) {}

    const std::string& GetName() const { return m_name; }
    void SetName(std::string name) { m_name = std::move(name); }

    bool HasKey(std::string_view key) const { return FindValue(key) != nullptr; }
    // Null when the key is absent.
    const std::string* FindValue(std::string_view key) const;
    // Throws NCError when the key is absent.
    const std::string& GetValue(std::string_view key) const;
    // Adds the key at the end, or replaces its value in place.
    void SetValue(std::string_view key, std::string value);
    // False when the key was absent.
    bool RemoveKey(std::string_view key);
    // Removes every key; the name stays.
    void Clear() { m_entries.clear(); }
    int Size() const { return static_cast<int>(m_entries.size()); }
    const std::vector<Entry>& GetEntries() const { return m_entries; }

    // Typed values. The getters throw NCError when the key is absent or its
    // value is not of the form the setter writes (surrounding spaces are
    // tolerated, anything else is not).
    void SetInt(std::string_view key, long long value);
    long long GetInt(std::string_view key) const;
    // Floats separated by single spaces, each in the shortest form that
    // reads back exactly ("inf", "-inf" and "nan" included; a NaN's payload
    // is not kept). A value out of float range is refused, not clamped.
    void SetFloats(std::string_view key, const std::vector<float>& values);
    std::vector<float> GetFloats(std::string_view key) const;

    // The section as text, every line ending in '\n'.
    std::string ToText() const;
    // Exactly one section; blank lines and comment lines may surround it.
    static ConfigSection FromText(std::string_view text);
    // Any number of sections, in text order; the same name may recur.
    static std::vector<ConfigSection> ParseSections(std::string_view text);

    bool operator==(const ConfigSection& other) const = default;

private:
    std::string m_name;
    std::vector<Entry> m_entries;
};
