#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/QvStream.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

// Streams that cannot seek, like a pipe or a socket.
class SinkBuf : public std::streambuf {
public:
    std::string bytes;

protected:
    int_type overflow(int_type c) override
    {
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            bytes.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
};

class SourceBuf : public std::streambuf {
public:
    explicit SourceBuf(std::string b) : m_bytes(std::move(b)) { setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + m_bytes.size()); }

private:
    std::string m_bytes;
};

// A record in the way the library's classes write theirs: header, base part,
// then a directory; entry 2 nests another record when there is a child.
struct Node : virtual QvStreamBase {
    int value = 0;
    std::string name;
    std::unique_ptr<Node> child;
    mutable bool streamed = false;
    static inline QvStreamableData data{1, "Node"};

    bool QvStreamableStartWrite(std::ostream& out) const override
    {
        if (streamed)
            return true;
        streamed = true;
        if (!data.Write(out) || !QvStreamBase::QvStreamableStartWrite(out))
            return false;
        OutputStreamDirectory dir(out, 3);
        WriteFourBytes(&value, 1, dir.GetOutput(0));
        WriteBinaryString(name, dir.GetOutput(1));
        if (child)
            dir.GetOutput(2) << *child;
        return dir.Close();
    }
    bool QvStreamableStartRead(std::istream& in) override
    {
        if (streamed)
            return true;
        streamed = true;
        if (!data.Check(in) || !QvStreamBase::QvStreamableStartRead(in) || data.GetQvStreamVersionNumber() != 1)
            return false;
        InputStreamDirectory dir(in);
        dir.ReadRequired(0, &value, 1, 4);
        if (!ReadBinaryString(name, dir.GetRequiredInput(1)))
            throw QvStreamError();
        child.reset();
        if (std::istream* c = dir.GetInput(2)) {
            child = std::make_unique<Node>();
            if (!(*c >> *child))
                return false;
        }
        return dir.Close();
    }
};

// Level 2 gets `pad` extra characters, to make it an entry that is
// streamed through rather than gathered.
Node Chain(int depth, std::size_t pad = 0)
{
    Node n;
    n.value = depth;
    n.name = "level " + std::to_string(depth) + std::string(depth == 2 ? pad : 0, 'x');
    if (depth > 1)
        n.child = std::make_unique<Node>(Chain(depth - 1, pad));
    return n;
}

std::filesystem::path TempPath()
{
    return std::filesystem::temp_directory_path() / ("qvstream-test-" + std::to_string(::getpid()) + ".bin");
}

std::string Bytes(const Node& n)
{
    std::ostringstream out;
    EXPECT_TRUE(n.QvStreamableStartWrite(out));
    return out.str();
}

// Reads a Node; false also for a QvStreamError, which is a clean failure.
bool ReadNode(std::istream& in, Node& n)
{
    try {
        return n.QvStreamableStartRead(in);
    } catch (const QvStreamError&) {
        return false;
    }
}

std::string Hex(const std::string& s)
{
    std::string h;
    for (unsigned char c : s)
        h += "0123456789abcdef"[c >> 4], h += "0123456789abcdef"[c & 15];
    return h;
}

TEST(BinaryIO, ItemsAreLittleEndianInTheStream)
{
    std::ostringstream out;
    const std::uint16_t a = 0x0102;
    const std::uint32_t b = 0x01020304;
    const std::uint64_t c = 0x0102030405060708;
    const char three[] = {1, 2, 3, 4, 5, 6};
    ASSERT_TRUE(WriteTwoBytes(&a, 1, out) && WriteFourBytes(&b, 1, out) && WriteEightBytes(&c, 1, out));
    ASSERT_TRUE(WriteArray(three, 2, 3, out));
    EXPECT_EQ(Hex(out.str()), "0201" "04030201" "0807060504030201" "010203040506");
    std::istringstream in(out.str());
    std::uint16_t a2 = 0;
    std::uint32_t b2 = 0;
    std::uint64_t c2 = 0;
    ASSERT_TRUE(ReadTwoBytes(&a2, 1, in) && ReadFourBytes(&b2, 1, in) && ReadEightBytes(&c2, 1, in));
    EXPECT_EQ(a2, a);
    EXPECT_EQ(b2, b);
    EXPECT_EQ(c2, c);
}

TEST(BinaryIO, InvalidArgumentsAndShortReadsFail)
{
    std::ostringstream out;
    int x = 1;
    EXPECT_FALSE(WriteFourBytes(&x, -1, out));
    EXPECT_TRUE(out.fail()) << "a writer that only checks the stream at the end must notice";
    std::istringstream in(std::string("\x01\x02\x03", 3));
    EXPECT_FALSE(ReadArray(nullptr, 1, 4, in));
    in.clear();
    EXPECT_FALSE(ReadFourBytes(&x, 1, in));
}

TEST(BinaryIO, StringsRoundTripAndRefuseLengthsBeyondTheStream)
{
    std::ostringstream out;
    const std::string text("with\0nul", 8);
    ASSERT_TRUE(WriteBinaryString(text, out) && WriteBinaryString("", out));
    EXPECT_EQ(Hex(out.str().substr(0, 4)), "08000000");
    std::istringstream in(out.str());
    std::string a = "x", b = "x";
    ASSERT_TRUE(ReadBinaryString(a, in) && ReadBinaryString(b, in));
    EXPECT_EQ(a, text);
    EXPECT_EQ(b, "");

    // 4 GiB claimed, 3 bytes present: refused before anything is allocated,
    // whether or not the stream can tell how much remains.
    const std::string claim = std::string("\xff\xff\xff\xff", 4) + "abc";
    std::istringstream seekable(claim);
    std::string kept = "kept";
    EXPECT_FALSE(ReadBinaryString(kept, seekable));
    EXPECT_EQ(kept, "kept");
    SourceBuf buf(claim);
    std::istream pipe(&buf);
    EXPECT_EQ(QvStreamRemaining(pipe), -1);
    EXPECT_FALSE(ReadBinaryString(kept, pipe));
    EXPECT_EQ(kept, "kept");
}

TEST(Header, RoundTripAndRefusalOfOtherMagics)
{
    std::ostringstream out;
    ASSERT_TRUE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 0x0304, "NCDV"));
    EXPECT_EQ(out.str(), std::string("\x04NCDV\x04\x03", 7));
    unsigned short version = 0;
    std::istringstream in(out.str());
    EXPECT_TRUE(QvStreamLight::CheckMagicStringAndVersionNumber(in, version, "NCDV"));
    EXPECT_EQ(version, 0x0304);
    for (const char* other : {"NCDM", "NCD", "NCDVX"}) {
        std::istringstream again(out.str());
        version = 7;
        EXPECT_FALSE(QvStreamLight::CheckMagicStringAndVersionNumber(again, version, other)) << other;
        EXPECT_EQ(version, 7);
    }
    EXPECT_FALSE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 1, ""));
    EXPECT_FALSE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 1, std::string(256, 'm').c_str()));

    QvStreamableData data(2, "NCS"), other(2, "NCT");
    std::stringstream s;
    ASSERT_TRUE(data.Write(s));
    EXPECT_EQ(data.GetMyQvStreamVersionNumber(), 2);
    EXPECT_FALSE(other.Check(s));
    EXPECT_EQ(other.GetQvStreamVersionNumber(), -1);
    s.seekg(0);
    EXPECT_TRUE(data.Check(s));
    EXPECT_EQ(data.GetQvStreamVersionNumber(), 2);
}

// Entry 1 left out: count, entry 0 (index, 8-byte length, int), entry 2
// (index, length, 2 bytes), end mark. Any change here changes every file.
TEST(Directory, GoldenBytes)
{
    const auto write = [](std::ostream& out) {
        OutputStreamDirectory dir(out, 3);
        const std::int32_t seven = 7;
        const std::uint16_t u = 0x0102;
        WriteFourBytes(&seven, 1, dir.GetOutput(0));
        WriteTwoBytes(&u, 1, dir.GetOutput(2));
        EXPECT_TRUE(dir.Close());
    };
    const std::string golden = "0300" "0000" "0400000000000000" "07000000" "0200" "0200000000000000" "0201" "ffff";
    std::ostringstream str;
    write(str);
    EXPECT_EQ(Hex(str.str()), golden);
    SinkBuf sink;
    std::ostream pipe(&sink);
    write(pipe);
    EXPECT_EQ(Hex(sink.bytes), golden) << "the layout must not depend on whether the stream can seek";
}

TEST(Directory, MissingUnknownAndOutOfRangeEntries)
{
    std::stringstream s;
    {
        OutputStreamDirectory dir(s, 7); // a "newer" writer with more entries than the reader knows
        for (std::uint32_t i : {0, 2, 6}) {
            if (i == 6) // large enough to be skipped by seeking where possible
                dir.GetOutput(5) << std::string(2 * OutputStreamDirectory::GatherLimit, 'x');
            WriteFourBytes(&i, 1, dir.GetOutput(std::uint16_t(i)));
        }
        EXPECT_THROW(dir.GetOutput(1), InvalidArgument);
        EXPECT_THROW(dir.GetOutput(7), InvalidArgument);
    } // closed by the destructor
    s << "after";
    for (bool seekable : {true, false}) {
        SourceBuf buf(s.str());
        std::istringstream str(s.str());
        std::istream pipe(&buf);
        std::istream& in = seekable ? static_cast<std::istream&>(str) : pipe;
        std::uint32_t v = 0;
        {
            InputStreamDirectory dir(in);
            EXPECT_EQ(dir.GetEntryCount(), 7);
            EXPECT_EQ(dir.GetInput(1), nullptr);
            ASSERT_NE(dir.GetInput(2), nullptr);
            EXPECT_EQ(QvStreamRemaining(*dir.GetInput(2)), 4);
            ASSERT_TRUE(ReadFourBytes(&v, 1, *dir.GetInput(2)));
            EXPECT_EQ(v, 2);
            EXPECT_EQ(dir.GetInput(8), nullptr);
            // Going back needs a stream that can seek.
            std::istream* first = dir.GetInput(0);
            EXPECT_EQ(first != nullptr, seekable);
            if (first) {
                EXPECT_TRUE(ReadFourBytes(&v, 1, *first));
                EXPECT_EQ(v, 0u);
            }
            EXPECT_THROW(dir.GetRequiredInput(3), QvStreamError);
            EXPECT_THROW(dir.GetRequiredInput(5, 3 * OutputStreamDirectory::GatherLimit), QvStreamError);
            EXPECT_TRUE(dir.Close()); // skips 5 and 6, which this reader does not know
        }
        std::string tail;
        in >> tail;
        EXPECT_EQ(tail, "after") << (seekable ? "seekable" : "pipe");
    }
}

TEST(Directory, RequiredEntryErrorsCarryTheirTexts)
{
    MessageCatalog::SetLanguage("C");
    std::stringstream s;
    OutputStreamDirectory(s, 2).GetOutput(1) << "ab";
    InputStreamDirectory dir(s);
    const auto what = [&dir](unsigned short index) {
        std::int32_t x = 0;
        try {
            dir.ReadRequired(index, &x, 1, 4);
        } catch (const QvStreamError& e) {
            return std::string(e.what());
        }
        return std::string("no error");
    };
    EXPECT_EQ(what(0), "ReadFromStreamDir failed.");
    EXPECT_EQ(what(1), "Error when reading from stream.");
}

TEST(Directory, AppendModeCannotPatchAndSaysSo)
{
    const auto path = TempPath();
    {
        std::ofstream file(path, std::ios::binary | std::ios::app);
        OutputStreamDirectory dir(file, 1);
        dir.GetOutput(0) << std::string(2 * OutputStreamDirectory::GatherLimit, 'x');
        EXPECT_FALSE(dir.Close());
    }
    std::filesystem::remove(path);
}

TEST(Nesting, ThreeLevelsRoundTripThroughAnyStream)
{
    const auto path = TempPath();
    for (std::size_t pad : {std::size_t(0), std::size_t(3 * OutputStreamDirectory::GatherLimit)}) {
        const std::string bytes = Bytes(Chain(3, pad));
        SinkBuf sink;
        std::ostream pipeOut(&sink);
        std::ofstream fileOut(path, std::ios::binary | std::ios::trunc);
        ASSERT_TRUE(Chain(3, pad).QvStreamableStartWrite(pipeOut) && Chain(3, pad).QvStreamableStartWrite(fileOut));
        fileOut.close();
        EXPECT_TRUE(sink.bytes == bytes) << "the layout must not depend on whether the stream can seek";

        SourceBuf buf(bytes);
        std::istream pipeIn(&buf);
        std::istringstream str(bytes);
        std::ifstream fileIn(path, std::ios::binary);
        for (std::istream* in : {static_cast<std::istream*>(&str), &pipeIn, static_cast<std::istream*>(&fileIn)}) {
            Node n;
            ASSERT_TRUE(n.QvStreamableStartRead(*in)) << pad;
            const Node* p = &n;
            for (int depth = 3; depth >= 1; --depth, p = p->child.get()) {
                ASSERT_NE(p, nullptr);
                EXPECT_EQ(p->value, depth);
                EXPECT_TRUE(p->name == "level " + std::to_string(depth) + std::string(depth == 2 ? pad : 0, 'x'));
            }
            EXPECT_EQ(p, nullptr);
            EXPECT_EQ(in->peek(), EOF) << "the reader must stop right after its record";
        }
    }
    std::filesystem::remove(path);
}

TEST(Truncation, EveryPrefixFailsCleanly)
{
    const std::string bytes = Bytes(Chain(3));
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        SourceBuf buf(bytes.substr(0, n));
        std::istream pipe(&buf);
        std::istringstream str(bytes.substr(0, n));
        Node a, b;
        EXPECT_FALSE(ReadNode(str, a)) << "prefix " << n;
        EXPECT_FALSE(ReadNode(pipe, b)) << "prefix " << n << " (pipe)";
    }
}

TEST(Truncation, HugeLengthClaimsFailWithoutAllocating)
{
    // An entry claiming 2^40 bytes, at the top level and inside a 14-byte entry.
    const std::string claim = std::string("\x01\x00\x00\x00", 4) + std::string("\x00\x00\x00\x00\x00\x01\x00\x00", 8) + "xx";
    {
        std::istringstream in(claim);
        InputStreamDirectory dir(in);
        EXPECT_EQ(dir.GetInput(0), nullptr);
        EXPECT_TRUE(in.fail());
    }
    std::istringstream in(std::string("\x01\x00\x00\x00\x0e\x00\x00\x00\x00\x00\x00\x00", 12) + claim + "\xff\xff");
    InputStreamDirectory dir(in);
    std::istream* entry = dir.GetInput(0);
    ASSERT_NE(entry, nullptr);
    InputStreamDirectory inner(*entry);
    EXPECT_EQ(inner.GetInput(0), nullptr);
    EXPECT_TRUE(entry->fail());
    EXPECT_TRUE(dir.Close()) << "the damage stays inside the entry";
}

TEST(Corruption, EntriesOutOfOrderOrBeyondTheCountAreRefused)
{
    const std::string entry1 = std::string("\x01\x00", 2) + std::string(8, '\0');
    for (const std::string& bytes : {std::string("\x01\x00", 2) + entry1 + "\xff\xff",  // index 1 of 1 entry
                                     std::string("\x03\x00", 2) + entry1 + entry1 + "\xff\xff"}) {
        std::istringstream in(bytes);
        InputStreamDirectory dir(in);
        EXPECT_EQ(dir.GetInput(2), nullptr);
        EXPECT_FALSE(dir.Close());
        EXPECT_TRUE(in.fail());
    }
}

TEST(Streaming, FailedNestedReadSetsFailbit)
{
    Node wrong;
    std::stringstream s;
    QvStreamLight::WriteMagicStringAndVersionNumber(s, 1, "Edon");
    EXPECT_TRUE((s >> wrong).fail());
}

} // namespace
