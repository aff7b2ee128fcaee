#include "veltancmat/containers/BoolVector.h"
#include "veltancmat/containers/NCIntegralVector.h"

#include "platform/RecordIO.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <sstream>
#include <string>
#include <vector>

// Records the largest array allocation, to prove that a record claiming more
// elements than it holds is refused before allocating. Otherwise these
// behave exactly like the default forms.
static std::atomic<std::size_t> g_largestArray{0};
void* operator new[](std::size_t bytes)
{
    if (bytes > g_largestArray)
        g_largestArray = bytes;
    return ::operator new(bytes);
}
void operator delete[](void* p) noexcept { ::operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { ::operator delete(p); }

namespace {

using IVec = NCIntegralVector<int, -99>;
using UVec = NCIntegralVector<unsigned long, 0>;
using BVec = NCIntegralVector<bool, 0>;

std::string Hex(const QvStreamBase& object)
{
    std::string hex;
    for (unsigned char c : RecordIO::Written(object))
        hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
    return hex;
}

// Reads the record given in hex into `object`; a QvStreamError counts as a refusal.
bool Read(const std::string& hex, QvStreamBase& object)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return RecordIO::ReadOrRefuse(bytes, object);
}

std::string Patched(std::string r, std::size_t at, const std::string& hex) { return r.replace(at, hex.size(), hex); }

// `value` is written as `record` and read back from it into a vector that
// held something else. Every record in `refused` (another class's, other
// versions, absurd sizes) and every truncation of `record`, cut every `step`
// hex digits, is refused and leaves that vector as it was.
template <class V>
void ExpectRecord(const V& value, const std::string& record, std::vector<std::string> refused = {}, std::size_t step = 2)
{
    EXPECT_EQ(Hex(value), record);
    for (std::size_t n = 0; n < record.size(); n += step)
        refused.push_back(record.substr(0, n));
    V object(3, true);
    const std::string before = Hex(object);
    for (const std::string& damaged : refused)
        EXPECT_TRUE(!Read(damaged, object) && Hex(object) == before) << damaged.size() << " " << damaged.substr(0, 64);
    EXPECT_TRUE(Read(record, object) && object == value);
}

// One golden record per kind: the header (magic length, magic, version),
// then the directory (entry count; entry 0 with its 8-byte length; the end
// mark ffff). A change here is a change of the file format that existing
// project files would no longer match.
const std::string Header = "044e43495604000100" "0000"; // "NCIV" 4, one entry, entry 0
const std::string GoldenInt = Header + "0c00000000000000" "02000000" "01000000" "9dffffff" "ffff"; // {1, -99}
const std::string GoldenBool = Header + "0700000000000000" "03000000" "010001" "ffff"; // {1, 0, 1}
const std::string GoldenBoolVector = // {false, true}: "BoolVector" 3, the NCIV record, an empty directory
    "0a426f6f6c566563746f72" "0300" + Header + "0600000000000000" "02000000" "0001" "ffff" "0000" "ffff";

TEST(IntegralVectorStream, RoundTripsWrittenOnceUntilReset)
{
    ExpectRecord(IVec{}, Hex(IVec{}));
    ExpectRecord(BoolVector(), Hex(BoolVector()));
    // Longer than the conversion buffer, and not a multiple of it.
    const auto generated = [](auto v, int start, int step) {
        v.GenerateIndex(start, step);
        ExpectRecord(v, Hex(v), {}, 1994);
    };
    generated(IVec(10001, 0), -5000, 1);
    generated(UVec(10001, 0), 1, 429496); // above 2^31: zero-extended when read
    generated(BVec(10001, false), 0, 1);

    // Nested through operator<< and operator>>.
    const BoolVector small(2, true);
    std::stringstream io;
    io << small << small;
    const std::size_t once = io.str().size();
    small.QvStreamableReset();
    io << small;
    EXPECT_EQ(io.str().size(), 2 * once);
    BoolVector back, back2;
    EXPECT_TRUE((io >> back >> back2).good() && back == small && back2 == small);
}

TEST(IntegralVectorStream, GoldenBytesAndRefusals)
{
    g_largestArray = 0; // 2^31 - 1 elements claimed in 12 bytes must fail before allocating
    ExpectRecord(IVec{1, -99}, GoldenInt,
                 {GoldenBoolVector, Patched(GoldenInt, 2, "4e434957"), Patched(GoldenInt, 10, "0300"),
                  Patched(GoldenInt, 10, "0500"), Patched(GoldenInt, 38, "ffffff7f"), Patched(GoldenInt, 38, "ffffffff")});
    EXPECT_LT(g_largestArray.load(), 1u << 20);
    ExpectRecord(UVec{7, 0xFFFFFFFFul}, Header + "0c00000000000000" "02000000" "07000000" "ffffffff" "ffff");
    ExpectRecord(BVec{true, false, true}, GoldenBool);
    BoolVector mask(2, true);
    mask(1) = false;
    ExpectRecord(mask, GoldenBoolVector,
                 {GoldenInt, Patched(GoldenBoolVector, 22, "0200"), Patched(GoldenBoolVector, 36, "0300"),
                  Patched(GoldenBoolVector, 36, "0500")});
    BVec b; // any non-zero byte is true
    EXPECT_TRUE(Read(Patched(GoldenBool, 46, "7f"), b) && b == (BVec{true, false, true}));

    // A value beyond 32 bits is refused before anything is written, and the
    // refusal does not mark the vector as written.
    UVec tooWide{1, 0x100000000ul};
    std::ostringstream out;
    EXPECT_TRUE(!tooWide.QvStreamableStartWrite(out) && out.fail() && out.str().empty());
    tooWide(2) = 7;
    EXPECT_EQ(Hex(tooWide), Hex(UVec{1, 7}));
}

} // namespace
