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
#include <utility>

namespace {

// Streams that cannot seek, like a pipe or a socket.
struct SinkBuf : std::streambuf {
    std::string bytes;
    int_type overflow(int_type c) override
    {
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            bytes.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }
};

struct SourceBuf : std::streambuf {
    std::string bytes;
    explicit SourceBuf(std::string b) : bytes(std::move(b)) { setg(bytes.data(), bytes.data(), bytes.data() + bytes.size()); }
};

// A record written the way the library's classes write theirs: header, base
// part, directory; entry 2 nests the child's record when there is one.
struct Node : virtual QvStreamBase {
    int value = 0;
    std::string name;
    std::unique_ptr<Node> child;
    mutable bool streamed = false;
    static inline QvStreamableData data{1, "Node"};

    bool QvStreamableStartWrite(std::ostream& out) const override
    {
        if (std::exchange(streamed, true))
            return true;
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
        if (std::exchange(streamed, true))
            return true;
        if (!data.Check(in) || !QvStreamBase::QvStreamableStartRead(in) || data.GetQvStreamVersionNumber() != 1)
            return false;
        InputStreamDirectory dir(in);
        dir.ReadRequired(0, &value, 1, 4);
        if (!ReadBinaryString(name, dir.GetRequiredInput(1)))
            throw QvStreamError();
        if (std::istream* c = dir.GetInput(2); c && !(*c >> *(child = std::make_unique<Node>())))
            return false;
        return dir.Close();
    }
};

// Level 2 gets `pad` extra characters, to make entries that are streamed
// through rather than gathered.
std::string NameOf(int depth, std::size_t pad) { return "level " + std::to_string(depth) + std::string(depth == 2 ? pad : 0, 'x'); }

Node Chain(int depth, std::size_t pad = 0)
{
    Node n;
    n.value = depth;
    n.name = NameOf(depth, pad);
    if (depth > 1)
        n.child = std::make_unique<Node>(Chain(depth - 1, pad));
    return n;
}

std::string Bytes(const Node& n)
{
    std::ostringstream out;
    return n.QvStreamableStartWrite(out) ? out.str() : "write failed";
}

std::string Hex(const std::string& s)
{
    std::string h;
    for (unsigned char c : s)
        h += "0123456789abcdef"[c >> 4], h += "0123456789abcdef"[c & 15];
    return h;
}

std::filesystem::path TempPath()
{
    return std::filesystem::temp_directory_path() / ("qvstream-test-" + std::to_string(::getpid()) + ".bin");
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
    EXPECT_TRUE(ReadTwoBytes(&a2, 1, in) && ReadFourBytes(&b2, 1, in) && ReadEightBytes(&c2, 1, in));
    EXPECT_TRUE(a2 == a && b2 == b && c2 == c);

    EXPECT_FALSE(ReadEightBytes(&c2, 1, in)) << "6 bytes left";
    EXPECT_FALSE(WriteFourBytes(&b, -1, out));
    EXPECT_TRUE(out.fail()) << "a writer that only checks the stream at the end must notice";
}

TEST(BinaryIO, StringsRoundTripAndRefuseLengthsBeyondTheStream)
{
    std::ostringstream out;
    const std::string text("with\0nul", 8);
    ASSERT_TRUE(WriteBinaryString(text, out) && WriteBinaryString("", out));
    EXPECT_EQ(Hex(out.str().substr(0, 4)), "08000000");
    std::istringstream in(out.str());
    std::string a = "x", b = "x";
    EXPECT_TRUE(ReadBinaryString(a, in) && ReadBinaryString(b, in));
    EXPECT_TRUE(a == text && b.empty());

    // 4 GiB claimed, 3 bytes present: refused before anything is allocated,
    // whether or not the stream can tell how much remains.
    const std::string claim = std::string("\xff\xff\xff\xff", 4) + "abc";
    std::istringstream seekable(claim);
    SourceBuf buf(claim);
    std::istream pipe(&buf);
    EXPECT_EQ(QvStreamRemaining(pipe), -1);
    std::string kept = "kept";
    EXPECT_FALSE(ReadBinaryString(kept, seekable));
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
    EXPECT_FALSE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 1, std::string(256, 'm').c_str()));

    // Through operator>>, a refused record shows as failbit.
    Node node;
    std::istringstream foreign(out.str());
    EXPECT_TRUE((foreign >> node).fail());
    EXPECT_EQ(Node::data.GetQvStreamVersionNumber(), -1);
}

// Entry 1 left out: count, entry 0 (index, 8-byte length, int), entry 2
// (index, length, 2 bytes), end mark. Any change here changes every file.
TEST(Directory, GoldenBytes)
{
    const auto write = [](std::ostream& out) {
        const std::int32_t seven = 7;
        const std::uint16_t u = 0x0102;
        OutputStreamDirectory dir(out, 3);
        EXPECT_TRUE(WriteFourBytes(&seven, 1, dir.GetOutput(0)) && WriteTwoBytes(&u, 1, dir.GetOutput(2)) && dir.Close());
    };
    const std::string golden = "0300" "0000" "0400000000000000" "07000000" "0200" "0200000000000000" "0201" "ffff";
    std::ostringstream str;
    SinkBuf sink;
    std::ostream pipe(&sink);
    write(str);
    write(pipe);
    EXPECT_EQ(Hex(str.str()), golden);
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
        {
            InputStreamDirectory dir(in);
            std::uint32_t v = 9;
            EXPECT_EQ(dir.GetInput(1), nullptr);
            ASSERT_NE(dir.GetInput(2), nullptr);
            EXPECT_EQ(QvStreamRemaining(*dir.GetInput(2)), 4);
            EXPECT_TRUE(ReadFourBytes(&v, 1, *dir.GetInput(2)) && v == 2);
            EXPECT_EQ(dir.GetInput(8), nullptr);
            // Going back needs a stream that can seek.
            std::istream* first = dir.GetInput(0);
            EXPECT_EQ(first != nullptr, seekable);
            EXPECT_TRUE(!first || (ReadFourBytes(&v, 1, *first) && v == 0));
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
        try {
            std::int32_t x = 0;
            dir.ReadRequired(index, &x, 1, 4);
            return std::string("no error");
        } catch (const QvStreamError& e) {
            return std::string(e.what());
        }
    };
    EXPECT_EQ(what(0), "ReadFromStreamDir failed.");
    EXPECT_EQ(what(1), "Error when reading from stream.");
}

TEST(Directory, AppendModeCannotPatchAndSaysSo)
{
    std::ofstream file(TempPath(), std::ios::binary | std::ios::app);
    OutputStreamDirectory dir(file, 1);
    dir.GetOutput(0) << std::string(2 * OutputStreamDirectory::GatherLimit, 'x');
    EXPECT_FALSE(dir.Close());
    std::filesystem::remove(TempPath());
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
                EXPECT_TRUE(p->value == depth && p->name == NameOf(depth, pad)) << depth;
            }
            EXPECT_EQ(p, nullptr);
            EXPECT_EQ(in->peek(), EOF) << "the reader must stop right after its record";
        }
    }
    std::filesystem::remove(path);
}

TEST(Damage, EveryTruncationFailsCleanly)
{
    const auto read = [](std::istream& in) {
        try {
            return Node().QvStreamableStartRead(in);
        } catch (const QvStreamError&) {
            return false; // as clean a failure as false
        }
    };
    const std::string bytes = Bytes(Chain(3));
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        SourceBuf buf(bytes.substr(0, n));
        std::istream pipe(&buf);
        std::istringstream str(bytes.substr(0, n));
        EXPECT_FALSE(read(str)) << "prefix " << n;
        EXPECT_FALSE(read(pipe)) << "prefix " << n << " (pipe)";
    }
}

TEST(Damage, CorruptDirectoriesAreRefusedWithoutAllocating)
{
    const std::string huge = std::string("\x00\x00", 2) + std::string("\x00\x00\x00\x00\x00\x01\x00\x00", 8) + "xx";
    const std::string entry1 = std::string("\x01\x00", 2) + std::string(8, '\0');
    // An entry claiming 2^40 bytes, one beyond the count, one repeated.
    for (const std::string& bytes : {std::string("\x01\x00", 2) + huge, std::string("\x01\x00", 2) + entry1 + "\xff\xff",
                                     std::string("\x03\x00", 2) + entry1 + entry1 + "\xff\xff"}) {
        std::istringstream in(bytes);
        InputStreamDirectory dir(in);
        EXPECT_EQ(dir.GetInput(0), nullptr);
        EXPECT_FALSE(dir.Close());
        EXPECT_TRUE(in.fail());
    }
    // The 2^40 claim inside a 14-byte entry: the damage stays inside it.
    std::istringstream in(std::string("\x01\x00\x00\x00\x0e\x00\x00\x00\x00\x00\x00\x00\x01\x00", 14) + huge + "\xff\xff");
    InputStreamDirectory dir(in);
    std::istream* entry = dir.GetInput(0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(InputStreamDirectory(*entry).GetInput(0), nullptr);
    EXPECT_TRUE(entry->fail());
    EXPECT_TRUE(dir.Close());
}

} // namespace
