#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/QvStream.h"

#include "containers/MemoryBound.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

using testing::StrEq;
using testing::ThrowsMessage;

// A stream buffer that cannot seek, like a pipe or a socket.
struct PipeBuf : std::stringbuf {
    using std::stringbuf::stringbuf;
    pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override { return pos_type(off_type(-1)); }
    pos_type seekpos(pos_type, std::ios::openmode) override { return pos_type(off_type(-1)); }
};

// The same bytes behind a stream that can seek and behind one that cannot.
struct Inputs {
    explicit Inputs(const std::string& b) : buf(b), str(b) {}
    PipeBuf buf;
    std::istream pipe{&buf};
    std::istringstream str;
};

// A record written the way the library's classes write theirs: header, base
// part, directory; entry 2 nests the child's record. Node(depth, pad) is a
// chain; level 2's name gets `pad` extra characters, to make entries that are
// streamed through rather than gathered.
struct Node : virtual QvStreamBase {
    int value = 0;
    std::string name;
    std::unique_ptr<Node> child;
    static inline QvStreamableData data{1, "Node"};

    explicit Node(int depth = 0, std::size_t pad = 0)
        : value(depth), name("level " + std::to_string(depth) + std::string(depth == 2 ? pad : 0, 'x')),
          child(depth > 1 ? std::make_unique<Node>(depth - 1, pad) : nullptr)
    {
    }

    bool QvStreamableStartWrite(std::ostream& out) const override
    {
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

std::string Bytes(const Node& n)
{
    std::ostringstream o;
    return n.QvStreamableStartWrite(o) ? o.str() : "unwritable";
}

std::string Hex(const std::string& s)
{
    std::string h;
    for (unsigned char c : s) {
        h += "0123456789abcdef"[c >> 4];
        h += "0123456789abcdef"[c & 15];
    }
    return h;
}

const std::filesystem::path tempPath =
    std::filesystem::temp_directory_path() / ("qvstream-test-" + std::to_string(::getpid()) + ".bin");

TEST(BinaryIO, LittleEndianItemsAndStringsThatRefuseLengthsBeyondTheStream)
{
    struct { std::uint16_t a; std::uint32_t b; std::uint64_t c; } w{0x0102, 0x01020304, 0x0102030405060708}, r{};
    const char six[] = {1, 2, 3, 4, 5, 6};
    std::ostringstream out;
    ASSERT_TRUE(WriteTwoBytes(&w.a, 1, out) && WriteFourBytes(&w.b, 1, out) && WriteEightBytes(&w.c, 1, out) &&
                WriteArray(six, 2, 3, out));
    EXPECT_EQ(Hex(out.str()), "0201" "04030201" "0807060504030201" "010203040506");
    std::istringstream in(out.str());
    EXPECT_TRUE(ReadTwoBytes(&r.a, 1, in) && ReadFourBytes(&r.b, 1, in) && ReadEightBytes(&r.c, 1, in));
    EXPECT_TRUE(r.a == w.a && r.b == w.b && r.c == w.c);
    EXPECT_FALSE(ReadEightBytes(&r.c, 1, in)) << "6 bytes left";
    EXPECT_TRUE(!WriteFourBytes(&w.b, -1, out) && out.fail()) << "a writer that only checks the stream must notice";

    std::stringstream io;
    const std::string text("with\0nul", 8);
    ASSERT_TRUE(WriteBinaryString(text, io) && WriteBinaryString("", io));
    EXPECT_EQ(Hex(io.str().substr(0, 4)), "08000000");
    std::string a = "x", b = "x";
    EXPECT_TRUE(ReadBinaryString(a, io) && ReadBinaryString(b, io) && a == text && b.empty());

    // 4 GiB claimed, 3 bytes present: refused before anything is allocated,
    // whether or not the stream can tell how much remains.
    Inputs claim(std::string("\xff\xff\xff\xff", 4) + "abc");
    EXPECT_EQ(QvStreamRemaining(claim.pipe), -1);
    std::string kept = "kept";
    EXPECT_FALSE(ReadBinaryString(kept, claim.str) || ReadBinaryString(kept, claim.pipe) || kept != "kept");

    // The same claim inside a directory entry that itself claims 16 GiB, on
    // a pipe, where the entry's length cannot be checked up front.
    if (MemoryBound::Available) {
        std::string record("\x01\x00\x00\x00", 4);                  // one entry, index 0
        record += std::string("\x00\x00\x00\x00\x04\x00\x00\x00", 8); // length 2^34
        record += std::string("\x00\x00\x00\xf0", 4) + "abc";         // string of 3.75 GiB
        const std::string verdict = MemoryBound::Run([&] {
            Inputs in(record);
            InputStreamDirectory dir(in.pipe);
            std::string text;
            std::istream* entry = dir.GetInput(0);
            return entry && ReadBinaryString(text, *entry) ? std::string("read") : std::string();
        });
        EXPECT_EQ(verdict, "");
    }
}

TEST(Header, RoundTripAndRefusalOfOtherMagics)
{
    std::ostringstream out;
    ASSERT_TRUE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 0x0304, "NCDV"));
    EXPECT_EQ(out.str(), std::string("\x04NCDV\x04\x03", 7));
    unsigned short version = 0;
    std::istringstream in(out.str());
    EXPECT_TRUE(QvStreamLight::CheckMagicStringAndVersionNumber(in, version, "NCDV") && version == 0x0304);
    for (const char* other : {"NCDM", "NCD", "NCDVX"}) {
        std::istringstream again(out.str());
        version = 7;
        EXPECT_TRUE(!QvStreamLight::CheckMagicStringAndVersionNumber(again, version, other) && version == 7) << other;
    }
    EXPECT_FALSE(QvStreamLight::WriteMagicStringAndVersionNumber(out, 1, std::string(256, 'm').c_str()));

    // Through operator>>, a refused record shows as failbit.
    Node node;
    EXPECT_TRUE((std::istringstream(out.str()) >> node).fail());
    EXPECT_EQ(Node::data.GetQvStreamVersionNumber(), -1);
}

TEST(Directory, GoldenBytesAndAppendModeThatCannotPatch)
{
    // Entry 1 left out: count, entry 0 (index, 8-byte length, int), entry 2
    // (index, length, 2 bytes), end mark. Any change here changes every file.
    std::ostringstream out;
    const std::int32_t seven = 7;
    const std::uint16_t u = 0x0102;
    OutputStreamDirectory dir(out, 3);
    EXPECT_TRUE(WriteFourBytes(&seven, 1, dir.GetOutput(0)) && WriteTwoBytes(&u, 1, dir.GetOutput(2)) && dir.Close());
    EXPECT_EQ(Hex(out.str()), "0300" "0000" "0400000000000000" "07000000" "0200" "0200000000000000" "0201" "ffff");

    // A large entry needs its length patched afterwards, which append mode forbids.
    std::ofstream file(tempPath, std::ios::binary | std::ios::app);
    OutputStreamDirectory appended(file, 1);
    appended.GetOutput(0) << std::string(2 * OutputStreamDirectory::GatherLimit, 'x');
    EXPECT_FALSE(appended.Close());
    std::filesystem::remove(tempPath);
}

TEST(Directory, MissingUnknownAndOutOfRangeEntries)
{
    MessageCatalog::SetLanguage("C");
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
        Inputs both(s.str());
        std::istream& in = seekable ? static_cast<std::istream&>(both.str) : both.pipe;
        InputStreamDirectory dir(in);
        std::uint32_t v = 9;
        EXPECT_EQ(dir.GetInput(1), nullptr);
        ASSERT_NE(dir.GetInput(2), nullptr);
        EXPECT_EQ(QvStreamRemaining(*dir.GetInput(2)), 4);
        EXPECT_TRUE(ReadFourBytes(&v, 1, *dir.GetInput(2)) && v == 2);
        EXPECT_EQ(dir.GetInput(8), nullptr);
        // Going back needs a stream that can seek.
        std::istream* first = dir.GetInput(0);
        EXPECT_TRUE(seekable ? first && ReadFourBytes(&v, 1, *first) && v == 0 : !first);
        EXPECT_THAT([&] { dir.ReadRequired(3, &v, 1, 4); },
                    ThrowsMessage<QvStreamError>(StrEq("ReadFromStreamDir failed.")));
        EXPECT_THAT([&] { dir.GetRequiredInput(5, 3 * OutputStreamDirectory::GatherLimit); },
                    ThrowsMessage<QvStreamError>(StrEq("Error when reading from stream.")));
        EXPECT_TRUE(dir.Close()); // skips 5 and 6, which this reader does not know
        std::string tail;
        EXPECT_TRUE(in >> tail && tail == "after") << (seekable ? "seekable" : "pipe");
    }
}

// Through a seekable stream, a pipe and a file. Every truncation (of the
// long chain, one every 4099 bytes) fails cleanly: false or QvStreamError.
TEST(Nesting, ThreeLevelsRoundTripThroughAnyStreamAndTruncationsFail)
{
    const auto read = [](std::istream& in) {
        try {
            Node n;
            return n.QvStreamableStartRead(in) ? Bytes(n) : "failed";
        } catch (const QvStreamError&) {
            return std::string("failed");
        }
    };
    for (std::size_t pad : {std::size_t(0), std::size_t(3 * OutputStreamDirectory::GatherLimit)}) {
        const Node chain(3, pad);
        const std::string bytes = Bytes(chain);
        PipeBuf sink;
        ASSERT_TRUE((std::ostream(&sink) << chain).good());
        ASSERT_TRUE((std::ofstream(tempPath, std::ios::binary) << chain).good());
        EXPECT_TRUE(sink.str() == bytes) << "the layout must not depend on whether the stream can seek";
        Inputs both(bytes);
        std::ifstream fileIn(tempPath, std::ios::binary);
        for (std::istream* in : std::initializer_list<std::istream*>{&both.str, &both.pipe, &fileIn}) {
            EXPECT_TRUE(read(*in) == bytes) << pad; // written back: the same values, names and depth
            EXPECT_EQ(in->peek(), EOF) << "the reader must stop right after its record";
        }
        for (std::size_t n = 0; n < bytes.size(); n += pad ? 4099 : 1) {
            Inputs prefix(bytes.substr(0, n));
            EXPECT_TRUE(read(prefix.str) == "failed" && read(prefix.pipe) == "failed") << "prefix " << n;
        }
    }
    std::filesystem::remove(tempPath);
}

TEST(Damage, CorruptDirectoriesAreRefusedWithoutAllocating)
{
    const std::string one("\x01\x00", 2);
    const std::string three("\x03\x00", 2);
    const std::string huge = std::string("\x00\x00", 2) + std::string("\x00\x00\x00\x00\x00\x01\x00\x00", 8) + "xx";
    const std::string entry1 = one + std::string(8, '\0');
    // An entry claiming 2^40 bytes, one beyond the count, one repeated.
    for (const std::string& bytes : {one + huge, one + entry1 + "\xff\xff", three + entry1 + entry1 + "\xff\xff"}) {
        std::istringstream in(bytes);
        InputStreamDirectory dir(in);
        EXPECT_TRUE(dir.GetInput(0) == nullptr && !dir.Close() && in.fail()) << Hex(bytes);
    }
    // The 2^40 claim inside a 14-byte entry: the damage stays inside it.
    std::istringstream in(one + std::string("\x00\x00\x0e\x00\x00\x00\x00\x00\x00\x00", 10) + one + huge + "\xff\xff");
    InputStreamDirectory dir(in);
    std::istream* entry = dir.GetInput(0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(InputStreamDirectory(*entry).GetInput(0), nullptr);
    EXPECT_TRUE(entry->fail());
    EXPECT_TRUE(dir.Close());
}

} // namespace
