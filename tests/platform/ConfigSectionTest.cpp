#include "veltancmat/platform/ConfigSection.h"
#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

// The line number the parser blamed, or -1 when the text was accepted.
int RefusedAtLine(const std::string& text)
{
    try {
        ConfigSection::FromText(text);
    } catch (const NCError& e) {
        const auto& messages = e.messages().messages();
        return messages.empty() || messages[0].arguments().empty() ? 0 : std::stoi(messages[0].arguments()[0]);
    }
    return -1;
}

TEST(ConfigSection, TextFormAndAwkwardStringsRoundTrip)
{
    ConfigSection plain("Transform 3");
    plain.SetValue("TransformType", "3");
    plain.SetValue("Constants", "1 0 1");
    plain.SetValue("TransformType", "4"); // replaced in place, order kept
    EXPECT_EQ(plain.ToText(), "[Transform 3]\nTransformType=4\nConstants=1 0 1\n");

    ConfigSection odd("a]b[c\\ #x=\n");
    const std::vector<std::pair<std::string, std::string>> entries = {
        {"#starts like a comment", "  spaces kept  "},
        {"[looks like a header]", ""},
        {"k=e=y", "v=a=l\\ue\nline two\r\nend\\"},
        {"\\", "#[]"},
        {"nul"s + '\0' + "byte", "\t\x01\xff" + "\0"s},
    };
    for (const auto& [k, v] : entries)
        odd.SetValue(k, v);
    const std::string text = odd.ToText();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + static_cast<long>(entries.size()));
    EXPECT_EQ(ConfigSection::FromText(text), odd);
    // Windows line endings, comments and blank lines around the section.
    std::string crlf = "# saved by hand\r\n\r\n";
    for (const char c : text)
        crlf += c == '\n' ? "\r\n"s : std::string(1, c);
    EXPECT_EQ(ConfigSection::FromText(crlf + "\n# end\n"), odd);
    // A raw '=' after the separator belongs to the value; no final newline.
    EXPECT_EQ(ConfigSection::FromText("[s]\nk=a=b").GetValue("k"), "a=b");

    EXPECT_TRUE(odd.RemoveKey("\\"));
    EXPECT_FALSE(odd.RemoveKey("\\"));
    EXPECT_EQ(odd.Size(), 4);
    EXPECT_THROW(odd.GetValue("absent"), NCError);
    EXPECT_THROW(odd.SetValue("", "x"), InvalidArgument);
}

TEST(ConfigSection, NumbersReadBackToTheSameBits)
{
    const float inf = std::numeric_limits<float>::infinity();
    const std::vector<float> values = {0.1f,    -0.0f, 1.0f / 3.0f, std::numeric_limits<float>::max(),
                                       std::numeric_limits<float>::denorm_min(), -inf, inf, 16777217.0f, -99.0f};
    ConfigSection s("n");
    s.SetFloats("f", values);
    s.SetFloats("nan", {std::numeric_limits<float>::quiet_NaN()});
    s.SetFloats("none", {});
    s.SetInt("min", std::numeric_limits<long long>::min());
    const ConfigSection back = ConfigSection::FromText(s.ToText());
    const std::vector<float> read = back.GetFloats("f");
    ASSERT_EQ(read.size(), values.size());
    for (std::size_t k = 0; k < values.size(); ++k)
        EXPECT_EQ(std::bit_cast<std::uint32_t>(read[k]), std::bit_cast<std::uint32_t>(values[k])) << k;
    EXPECT_TRUE(std::isnan(back.GetFloats("nan").at(0)));
    EXPECT_TRUE(back.GetFloats("none").empty());
    EXPECT_EQ(back.GetInt("min"), std::numeric_limits<long long>::min());

    ConfigSection bad("b");
    for (const char* v : {"1.5x", "1e50", "1,5", "+1", "abc"}) {
        bad.SetValue("v", v);
        EXPECT_THROW(bad.GetFloats("v"), NCError) << v;
    }
    for (const char* v : {"", "12a", "1.0", "99999999999999999999"}) {
        bad.SetValue("v", v);
        EXPECT_THROW(bad.GetInt("v"), NCError) << v;
    }
    bad.SetValue("v", " 2  -3 ");
    EXPECT_EQ(bad.GetFloats("v"), (std::vector<float>{2.0f, -3.0f}));
}

TEST(ConfigSection, MalformedTextNamesTheLine)
{
    EXPECT_EQ(RefusedAtLine("[s]\nk=v\n"), -1);
    EXPECT_EQ(RefusedAtLine("k=v\n[s]\n"), 1);           // setting before any section
    EXPECT_EQ(RefusedAtLine("[s]\n\nno separator\n"), 3);
    EXPECT_EQ(RefusedAtLine("[s]\n=empty key\n"), 2);
    EXPECT_EQ(RefusedAtLine("[s]\nk=bad \\q escape\n"), 2);
    EXPECT_EQ(RefusedAtLine("[s]\nk=trailing\\\n"), 2);
    EXPECT_EQ(RefusedAtLine("[unterminated\n"), 1);
    EXPECT_EQ(RefusedAtLine("[s]tail\n"), 1);
    EXPECT_EQ(RefusedAtLine("[s]\nk=1\r\nk=2\n"), 3);    // duplicate key
    EXPECT_EQ(RefusedAtLine("# only a comment\n"), 0);   // no section at all
    EXPECT_EQ(RefusedAtLine("[a]\n[b]\n"), 0);           // FromText takes exactly one
    const std::vector<ConfigSection> two = ConfigSection::ParseSections("[a]\nx=1\n[a]\n");
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[0].GetValue("x"), "1");
    EXPECT_EQ(two[1].Size(), 0);
}

} // namespace
