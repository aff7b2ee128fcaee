#include "veltancmat/containers/BoolVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/QvStream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <sstream>
#include <string>

// Records the largest array allocation while watching, to prove that a
// record claiming more elements than it holds is refused before allocating.
// Otherwise these behave exactly like the default forms.
static std::atomic<bool> g_watchArrays{false};
static std::atomic<std::size_t> g_largestArray{0};
void* operator new[](std::size_t bytes)
{
    if (g_watchArrays && bytes > g_largestArray)
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
    std::ostringstream out;
    EXPECT_TRUE(object.QvStreamableStartWrite(out));
    object.QvStreamableReset();
    std::string hex;
    for (unsigned char c : out.str())
        hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
    return hex;
}

// Reads the record given in hex into `object`; a QvStreamError counts as a refusal.
bool Read(const std::string& hex, QvStreamBase& object)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    std::istringstream in(bytes);
    bool ok = false;
    try {
        ok = object.QvStreamableStartRead(in);
    } catch (const QvStreamError&) {
    }
    object.QvStreamableReset();
    return ok;
}

template <class V>
void ExpectRoundTrip(const V& original)
{
    V back(3, true); // something to overwrite
    EXPECT_TRUE(Read(Hex(original), back) && back == original);
}

// One golden record per kind: the header (magic length, magic, version),
// then the directory (entry count; entry 0 with its 8-byte length; the end
// mark ffff). A change here is a change of the file format that existing
// project files would no longer match.
const std::string Header = "044e43495604000100" "0000"; // "NCIV" 4, one entry, entry 0
const std::string GoldenInt = Header + "0c00000000000000" "02000000" "01000000" "9dffffff" "ffff"; // {1, -99}
const std::string GoldenULong = Header + "0c00000000000000" "02000000" "07000000" "ffffffff" "ffff";
const std::string GoldenBool = Header + "0700000000000000" "03000000" "010001" "ffff"; // {1, 0, 1}
const std::string BoolVectorHeader = "0a426f6f6c566563746f72" "0300";
const std::string GoldenBoolVector = // {false, true}
    BoolVectorHeader + Header + "0600000000000000" "02000000" "0001" "ffff" "0000" "ffff";

TEST(IntegralVectorStream, RoundTripsWrittenOnceUntilReset)
{
    ExpectRoundTrip(IVec{});
    ExpectRoundTrip(BoolVector());
    // Longer than the conversion buffer, and not a multiple of it.
    IVec index(10001, 0);
    UVec big(10001, 0);
    BVec mask(10001, false);
    index.GenerateIndex(-5000, 1);
    big.GenerateIndex(1, 429496);
    mask.GenerateIndex(0, 1);
    ExpectRoundTrip(index);
    ExpectRoundTrip(big);
    ExpectRoundTrip(mask);

    // Nested through operator<< and operator>>.
    const BoolVector small(2, true);
    std::stringstream io;
    io << small << small;
    const std::size_t once = io.str().size();
    small.QvStreamableReset();
    io << small;
    EXPECT_EQ(io.str().size(), 2 * once);
    BoolVector back, back2;
    io >> back >> back2;
    EXPECT_TRUE(io.good() && back == small && back2 == small);
}

TEST(IntegralVectorStream, GoldenBytesAndWidths)
{
    BoolVector mask(2, true);
    mask(1) = false;
    EXPECT_EQ(Hex(IVec{1, -99}), GoldenInt);
    EXPECT_EQ(Hex(UVec{7, 0xFFFFFFFFul}), GoldenULong);
    EXPECT_EQ(Hex(BVec{true, false, true}), GoldenBool);
    EXPECT_EQ(Hex(mask), GoldenBoolVector);
    UVec u;
    EXPECT_TRUE(Read(GoldenULong, u) && u[2] == 4294967295ul); // zero-extended
    BVec b;
    EXPECT_TRUE(Read(Header + "0700000000000000" "03000000" "7f0001" "ffff", b) && b == (BVec{true, false, true}));

    // A value beyond 32 bits is refused before anything is written, and the
    // refusal does not mark the vector as written.
    UVec tooWide{1, 0x100000000ul};
    std::ostringstream out;
    EXPECT_FALSE(tooWide.QvStreamableStartWrite(out));
    EXPECT_TRUE(out.fail() && out.str().empty());
    tooWide(2) = 7;
    EXPECT_EQ(Hex(tooWide), Hex(UVec{1, 7}));
}

TEST(IntegralVectorStream, RefusesOtherMagicsAndVersions)
{
    IVec v{42};
    BoolVector mask(1, true);
    EXPECT_FALSE(Read(GoldenBoolVector, v) || Read(GoldenInt, mask));
    EXPECT_FALSE(Read("044e43495704000100ffff", v)); // "NCIW"
    for (const char* version : {"0300", "0500"}) {
        const std::string record = GoldenInt.substr(0, 10) + version + GoldenInt.substr(14);
        EXPECT_FALSE(Read(record, v)) << version;
        EXPECT_FALSE(Read(BoolVectorHeader + record + "0000ffff", mask)) << version;
    }
    EXPECT_FALSE(Read(BoolVectorHeader.substr(0, 22) + "0200" + GoldenBoolVector.substr(26), mask));
    EXPECT_TRUE(v == IVec{42} && mask == BoolVector(1, true));
    EXPECT_TRUE(Read(GoldenInt, v) && Read(GoldenBoolVector, mask)); // the controls pass
}

TEST(IntegralVectorStream, EveryTruncationFailsAndKeepsTheVector)
{
    const auto check = [](const std::string& golden, QvStreamBase& object, auto snapshot) {
        const auto before = snapshot();
        for (std::size_t n = 0; n < golden.size(); n += 2)
            EXPECT_TRUE(!Read(golden.substr(0, n), object) && snapshot() == before) << n / 2;
        EXPECT_TRUE(Read(golden, object));
    };
    IVec v{5, 6, 7};
    UVec u{9};
    BVec b{false};
    BoolVector mask(4, true);
    check(GoldenInt, v, [&] { return v; });
    check(GoldenULong, u, [&] { return u; });
    check(GoldenBool, b, [&] { return b; });
    check(GoldenBoolVector, mask, [&] { return BVec(mask); });
}

TEST(IntegralVectorStream, OversizedClaimFailsBeforeAllocating)
{
    const std::string entry = "0c00000000000000";
    IVec v{1};
    g_largestArray = 0;
    g_watchArrays = true;
    EXPECT_FALSE(Read(Header + entry + "ffffff7f" "01000000" "9dffffff" "ffff", v)); // 2^31 - 1 elements
    EXPECT_FALSE(Read(Header + entry + "ffffffff" "01000000" "9dffffff" "ffff", v)); // -1
    g_watchArrays = false;
    EXPECT_LT(g_largestArray.load(), 1u << 20);
    EXPECT_TRUE(v == IVec{1});
}

} // namespace
