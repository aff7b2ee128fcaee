// The "NCDV" record: round trips, its exact bytes, and refusal of damaged or
// foreign records.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/BinaryIO.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

template <class T>
std::string Save(const NCDataVector<T>& v)
{
    std::ostringstream out;
    out << v;
    v.QvStreamableReset();
    return out.str();
}

// Reads a record; QvStreamError counts as a refusal like a false result.
template <class T>
bool Load(const std::string& bytes, NCDataVector<T>& v)
{
    std::istringstream in(bytes);
    try {
        const bool ok = v.QvStreamableStartRead(in);
        v.QvStreamableReset();
        return ok;
    } catch (const QvStreamError&) {
        v.QvStreamableReset();
        return false;
    }
}

std::string Bytes(std::initializer_list<int> values)
{
    std::string s;
    for (int b : values)
        s.push_back(static_cast<char>(b));
    return s;
}

template <class T>
class VectorStream : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VectorStream, ElementTypes);

TYPED_TEST(VectorStream, RoundTripKeepsValuesCountAndAlignment)
{
    const TypeParam m = TypeParam(-99);
    for (const NCDataVector<TypeParam>& original :
         {NCDataVector<TypeParam>{TypeParam(1.5), m, TypeParam(-3.25), m, TypeParam(1e-30)}, NCDataVector<TypeParam>(),
          NCDataVector<TypeParam>(1000, TypeParam(0.1))}) {
        NCDataVector<TypeParam> copy{TypeParam(7)};
        ASSERT_TRUE(Load(Save(original), copy));
        EXPECT_TRUE(copy == original);
        EXPECT_EQ(copy.GetNumMisVal(), original.GetNumMisVal());
        EXPECT_EQ(copy.Capacity(), copy.Size());
        EXPECT_TRUE(copy.empty() || reinterpret_cast<std::uintptr_t>(copy.begin()) % 16 == 0);
        // The loaded vector is an ordinary, writable one.
        copy.push_back(m);
        EXPECT_EQ(copy.GetNumMisVal(), original.GetNumMisVal() + 1);
    }
}

TEST(VectorStreamBytes, GoldenFloatRecord)
{
    const NCDataVector<float> v{1.0f, -99.0f};
    const std::string expected = Bytes({
        4, 'N', 'C', 'D', 'V', 4, 0,                   // magic and version 4
        3, 0,                                          // three entries
        0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0,      // entry 0: size 2
        1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,      // entry 1: one missing
        2, 0, 8, 0, 0, 0, 0, 0, 0, 0,                  // entry 2: eight bytes
        0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0xC6, 0xC2, // 1.0f, -99.0f
        0xFF, 0xFF,                                    // end of directory
    });
    EXPECT_EQ(Save(v), expected);
}

TEST(VectorStreamBytes, EmptyVectorWritesSizeAndCountOnly)
{
    const std::string bytes = Save(NCDataVector<double>());
    const std::string expected = Bytes({
        4, 'N', 'C', 'D', 'V', 4, 0, 3, 0,
        0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
        1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
        0xFF, 0xFF,
    });
    EXPECT_EQ(bytes, expected);
}

TEST(VectorStreamBytes, WidthIsNotRecorded)
{
    // Same magic for both widths: a float record read as double does not
    // give the values back.
    const NCDataVector<float> f{1.0f, 2.0f, 3.0f, 4.0f};
    NCDataVector<double> d;
    const bool ok = Load(Save(f), d);
    EXPECT_FALSE(ok && d.Size() == 4 && d[1] == 1.0);
}

TYPED_TEST(VectorStream, WrittenOnceUntilReset)
{
    const NCDataVector<TypeParam> v(3, TypeParam(2));
    std::ostringstream out;
    out << v;
    const std::size_t once = out.str().size();
    out << v;
    EXPECT_EQ(out.str().size(), once);
    v.QvStreamableReset();
    out << v;
    EXPECT_EQ(out.str().size(), 2 * once);
}

TYPED_TEST(VectorStream, OtherVersionsAndMagicsAreRefusedUntouched)
{
    const std::string good = Save(NCDataVector<TypeParam>{TypeParam(1), TypeParam(2)});
    for (int version : {3, 5}) {
        std::string bad = good;
        bad[5] = static_cast<char>(version);
        NCDataVector<TypeParam> v{TypeParam(9)};
        EXPECT_FALSE(Load(bad, v)) << version;
        ASSERT_EQ(v.Size(), 1);
        EXPECT_EQ(v[1], TypeParam(9));
    }
    std::string wrongMagic = good;
    wrongMagic[4] = 'M';
    NCDataVector<TypeParam> v{TypeParam(9)};
    EXPECT_FALSE(Load(wrongMagic, v));
    EXPECT_EQ(v[1], TypeParam(9));
}

TYPED_TEST(VectorStream, EveryTruncationIsRefused)
{
    const std::string good = Save(NCDataVector<TypeParam>{TypeParam(1), TypeParam(-99), TypeParam(3)});
    for (std::size_t n = 0; n < good.size(); ++n) {
        NCDataVector<TypeParam> v;
        EXPECT_FALSE(Load(good.substr(0, n), v)) << "prefix of " << n << " bytes";
        EXPECT_EQ(v.GetNumMisVal(), 0);
    }
}

TEST(VectorStreamBytes, SizeBeyondTheElementsIsRefusedWithoutAllocating)
{
    // A size of 2^31 - 1 with eight bytes of elements: refused before a
    // block of eight gigabytes is asked for.
    std::string bytes = Save(NCDataVector<float>{1.0f, 2.0f});
    const std::size_t sizeField = 7 + 2 + 2 + 8;
    bytes[sizeField + 0] = '\xFF';
    bytes[sizeField + 1] = '\xFF';
    bytes[sizeField + 2] = '\xFF';
    bytes[sizeField + 3] = '\x7F';
    NCDataVector<float> v;
    EXPECT_FALSE(Load(bytes, v));
    EXPECT_TRUE(v.empty());
}

TEST(VectorStreamBytes, ImpossibleCountsAreRefused)
{
    const std::string good = Save(NCDataVector<float>{1.0f, 2.0f});
    const std::size_t countField = 7 + 2 + 14 + 2 + 8;
    for (int count : {-1, 3}) {
        std::string bad = good;
        bad[countField] = static_cast<char>(count & 0xFF);
        bad[countField + 1] = bad[countField + 2] = bad[countField + 3] = static_cast<char>(count < 0 ? 0xFF : 0);
        NCDataVector<float> v;
        EXPECT_FALSE(Load(bad, v)) << count;
        EXPECT_EQ(v.GetNumMisVal(), 0);
    }
}

TEST(VectorStreamBytes, MissingElementEntryIsRefused)
{
    // A directory with size 2 but no entry 2.
    std::ostringstream out;
    QvStreamLight::WriteMagicStringAndVersionNumber(out, 4, "NCDV");
    {
        OutputStreamDirectory directory(out, 3);
        const std::int32_t size = 2, missing = 0;
        WriteFourBytes(&size, 1, directory.GetOutput(0));
        WriteFourBytes(&missing, 1, directory.GetOutput(1));
        directory.Close();
    }
    NCDataVector<float> v;
    EXPECT_FALSE(Load(out.str(), v));
    EXPECT_TRUE(v.empty());
}

TEST(VectorStreamBytes, NestedVectorsReadBackInOrder)
{
    const NCDataVector<float> a{1.0f}, b{-99.0f, 2.0f};
    std::ostringstream out;
    {
        OutputStreamDirectory directory(out, 1);
        std::ostream& entry = directory.GetOutput(0);
        entry << a << b;
        directory.Close();
    }
    std::istringstream in(out.str());
    InputStreamDirectory directory(in);
    std::istream* entry = directory.GetInput(0);
    ASSERT_NE(entry, nullptr);
    NCDataVector<float> ra, rb;
    *entry >> ra >> rb;
    EXPECT_TRUE(ra == a);
    EXPECT_TRUE(rb == b);
    EXPECT_EQ(rb.GetNumMisVal(), 1);
}

} // namespace
