// The "NCDV" record: round trips, its exact bytes, and refusal of damaged or
// foreign records.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/BinaryIO.h"

#include "platform/RecordIO.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <utility>

namespace {

template <class T>
std::string Save(const NCDataVector<T>& v)
{
    std::ostringstream out;
    out << v;
    v.QvStreamableReset();
    return out.str();
}


std::string Bytes(std::initializer_list<int> values)
{
    return std::string(values.begin(), values.end());
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
        ASSERT_TRUE(RecordIO::ReadOrRefuse(Save(original), copy));
        EXPECT_TRUE(copy == original);
        EXPECT_EQ(copy.GetNumMisVal(), original.GetNumMisVal());
        EXPECT_EQ(copy.Capacity(), copy.Size());
        EXPECT_TRUE(copy.empty() || reinterpret_cast<std::uintptr_t>(copy.begin()) % 32 == 0);
        // The loaded vector is an ordinary, writable one.
        copy.push_back(m);
        EXPECT_EQ(copy.GetNumMisVal(), original.GetNumMisVal() + 1);
    }
    // A vector is written once per stream until it is reset.
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

TEST(VectorStreamBytes, GoldenRecords)
{
    EXPECT_EQ(Save(NCDataVector<float>{1.0f, -99.0f}),
              Bytes({
                  4, 'N', 'C', 'D', 'V', 4, 0,                    // magic and version 4
                  3, 0,                                           // three entries
                  0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0,       // entry 0: size 2
                  1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,       // entry 1: one missing
                  2, 0, 8, 0, 0, 0, 0, 0, 0, 0,                   // entry 2: eight bytes
                  0x00, 0x00, 0x80, 0x3F, 0x00, 0x00, 0xC6, 0xC2, // 1.0f, -99.0f
                  0xFF, 0xFF,                                     // end of directory
              }));
    // An empty vector writes its size and count only.
    EXPECT_EQ(Save(NCDataVector<double>()), Bytes({4, 'N', 'C', 'D', 'V', 4, 0, 3, 0,       //
                                                   0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, //
                                                   1, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, //
                                                   0xFF, 0xFF}));
    // Same magic for both widths: a float record read as double does not
    // give the values back.
    NCDataVector<double> d;
    const bool ok = RecordIO::ReadOrRefuse(Save(NCDataVector<float>{1.0f, 2.0f, 3.0f, 4.0f}), d);
    EXPECT_FALSE(ok && d.Size() == 4 && d[1] == 1.0);
}

TYPED_TEST(VectorStream, OtherVersionsAndMagicsAreRefusedUntouched)
{
    const std::string good = Save(NCDataVector<TypeParam>{TypeParam(1), TypeParam(2)});
    for (const auto& [at, byte] : {std::pair<int, char>{5, 3}, {5, 5}, {4, 'M'}}) {
        std::string bad = good;
        bad[at] = byte;
        NCDataVector<TypeParam> v{TypeParam(9)};
        EXPECT_FALSE(RecordIO::ReadOrRefuse(bad, v)) << at << " " << int(byte);
        ASSERT_EQ(v.Size(), 1);
        EXPECT_EQ(v[1], TypeParam(9));
    }
}

TYPED_TEST(VectorStream, EveryTruncationIsRefused)
{
    const std::string good = Save(NCDataVector<TypeParam>{TypeParam(1), TypeParam(-99), TypeParam(3)});
    for (std::size_t n = 0; n < good.size(); ++n) {
        NCDataVector<TypeParam> v;
        EXPECT_FALSE(RecordIO::ReadOrRefuse(good.substr(0, n), v)) << "prefix of " << n << " bytes";
        EXPECT_EQ(v.GetNumMisVal(), 0);
    }
}

TEST(VectorStreamBytes, ImpossibleSizesCountsAndEntriesAreRefused)
{
    // A size of 2^31 - 1 with eight bytes of elements must be refused before
    // a block of eight gigabytes is asked for; counts outside 0..size too.
    const std::string good = Save(NCDataVector<float>{1.0f, 2.0f});
    const std::size_t sizeField = 7 + 2 + 2 + 8, countField = sizeField + 4 + 2 + 8;
    for (const auto& [at, value] : {std::pair<std::size_t, std::int32_t>{sizeField, 0x7FFFFFFF}, {countField, -1},
                                    {countField, 3}}) {
        std::string bad = good;
        for (int i = 0; i < 4; ++i)
            bad[at + i] = static_cast<char>((static_cast<std::uint32_t>(value) >> (8 * i)) & 0xFF);
        NCDataVector<float> v;
        EXPECT_FALSE(RecordIO::ReadOrRefuse(bad, v)) << at << " " << value;
        EXPECT_TRUE(v.empty());
        EXPECT_EQ(v.GetNumMisVal(), 0);
    }
    // A directory with size 2 but no entry 2.
    std::ostringstream out;
    QvStreamLight::WriteMagicStringAndVersionNumber(out, 4, "NCDV");
    OutputStreamDirectory directory(out, 3);
    const std::int32_t size = 2, missing = 0;
    WriteFourBytes(&size, 1, directory.GetOutput(0));
    WriteFourBytes(&missing, 1, directory.GetOutput(1));
    directory.Close();
    NCDataVector<float> v;
    EXPECT_FALSE(RecordIO::ReadOrRefuse(out.str(), v));
    EXPECT_TRUE(v.empty());
}

TEST(VectorStreamBytes, NestedVectorsReadBackInOrder)
{
    const NCDataVector<float> a{1.0f}, b{-99.0f, 2.0f};
    std::ostringstream out;
    OutputStreamDirectory(out, 1).GetOutput(0) << a << b;
    std::istringstream in(out.str());
    InputStreamDirectory directory(in);
    std::istream* entry = directory.GetInput(0);
    ASSERT_NE(entry, nullptr);
    NCDataVector<float> ra, rb;
    *entry >> ra >> rb;
    EXPECT_TRUE(ra == a && rb == b);
    EXPECT_EQ(rb.GetNumMisVal(), 1);
}

} // namespace
