// The "NCDM" record: round trips, its exact bytes, the written-once rule,
// and refusal of damaged records, after which the matrix is empty.
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/BinaryIO.h"

#include "containers/MatrixChecks.h"
#include "containers/MemoryBound.h"
#include "containers/VectorChecks.h"
#include "platform/RecordIO.h"
#include "containers/fixtures/MatrixGolden.inc"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

template <class T>
using Matrix = NCDataMatrix<T>;
using Counts = NCIntegralVector<int, -99>;

// Where the int32 values of entries 0 (rows) and 1 (columns) stand in a
// record: after the 7-byte header and the entry count, each entry is a
// 10-byte entry header and its 4 bytes. A vector record keeps its missing
// count (entry 1) at the same place.
constexpr std::size_t RowsField = 19, ColsField = 33, VectorCountField = 33;

template <class T>
Matrix<T> Make(std::initializer_list<std::initializer_list<double>> rows)
{
    Matrix<T> m;
    for (const auto& row : rows)
        m.push_back(Vec<T>(row));
    return m;
}

using RecordIO::Written;

// The matrix reader reports every failure by its result: a QvStreamError
// escaping it fails the test.
template <class T>
bool Load(const std::string& bytes, Matrix<T>& m)
{
    std::istringstream in(bytes);
    const bool ok = m.QvStreamableStartRead(in);
    m.QvStreamableReset();
    return ok;
}

std::string Patched(std::string bytes, std::size_t at, std::int32_t value)
{
    std::array<char, 4> little{};
    for (std::size_t k = 0; k < little.size(); ++k)
        little[k] = static_cast<char>(static_cast<std::uint32_t>(value) >> (8 * k));
    return bytes.replace(at, little.size(), little.data(), little.size());
}

// Same sizes and cells, and the same counts: rows', columns', total.
template <class T>
::testing::AssertionResult Same(const Matrix<T>& a, const Matrix<T>& b)
{
    if (!SameCells(a, b) || a.GetNumMisVal() != b.GetNumMisVal())
        return ::testing::AssertionFailure() << "sizes, cells, row or total counts differ";
    for (int j = 1; j <= a.SizeColumns(); ++j)
        if (a.GetColumnMisVal(j) != b.GetColumnMisVal(j))
            return ::testing::AssertionFailure() << "column count " << j;
    return ::testing::AssertionSuccess();
}

template <class T>
bool IsEmpty(const Matrix<T>& m)
{
    return m.SizeRows() == 0 && m.SizeColumns() == 0 && m.GetNumMisVal() == 0;
}

// A hand-made "NCDM" record: every field as given, entries left out when
// absent, so that records the writer never produces can be tried.
struct Forged {
    std::optional<std::int32_t> rows, cols, total;
    std::optional<std::string> rowRecords, counts;

    std::string Bytes() const
    {
        std::ostringstream out;
        QvStreamLight::WriteMagicStringAndVersionNumber(out, 4, "NCDM");
        OutputStreamDirectory directory(out, 5);
        for (unsigned short k = 0; k < 3; ++k)
            if (const auto& field = *std::array{&rows, &cols, &total}[k])
                WriteFourBytes(&*field, 1, directory.GetOutput(k));
        if (rowRecords)
            directory.GetOutput(3) << *rowRecords;
        if (counts)
            directory.GetOutput(4) << *counts;
        directory.Close();
        return out.str();
    }
};

// A row record whose stored missing count is `count` whatever its cells say.
template <class T>
std::string RowRecord(std::initializer_list<T> cells, int count)
{
    return Patched(Written(NCDataVector<T>(cells)), VectorCountField, count);
}

template <class T>
class MatrixStream : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixStream, ElementTypes);

TYPED_TEST(MatrixStream, RoundTripsKeepCellsAndCountsAndWriteOnceUntilReset)
{
    using T = TypeParam;
    const Matrix<T> shapes[] = {
        Make<T>({{1.5, -99, 3}, {-99, -99, 0.25}, {7, 8, -99}, {1e-30, 2, 3}}),
        Matrix<T>(0, 3),
        Matrix<T>(3, 0),
        Matrix<T>(),
        Matrix<T>(1, 1, T(-99)),
    };
    for (const Matrix<T>& original : shapes) {
        Matrix<T> copy = Make<T>({{9, -99}});
        ASSERT_TRUE(Load(Written(original), copy));
        EXPECT_TRUE(Same(copy, original) && copy.empty() == original.empty());
        EXPECT_EQ(Written(copy), Written(original));
        // The loaded matrix is an ordinary one: its counts follow a write.
        if (!copy.empty()) {
            const int before = copy.GetNumMisVal() - (copy[1][1] == T(-99) ? 1 : 0);
            copy(1, 1, T(-99));
            EXPECT_EQ(copy.GetNumMisVal(), before + 1);
        }
    }

    std::ostringstream out;
    out << shapes[0];
    const std::string once = out.str();
    out << shapes[0];
    EXPECT_EQ(out.str(), once);
    // The reset reaches the rows and the column counts: a second save
    // writes the same complete record again.
    shapes[0].QvStreamableReset();
    out << shapes[0];
    EXPECT_EQ(out.str(), once + once);
}

TYPED_TEST(MatrixStream, GoldenBytesBothWays)
{
    using T = TypeParam;
    const bool isFloat = sizeof(T) == 4;
    const auto bytes = [](const auto& record) { return std::string(std::begin(record), std::end(record)); };
    const std::string golden = isFloat ? bytes(MatrixGolden::FloatRecord) : bytes(MatrixGolden::DoubleRecord);
    const Matrix<T> expected =
        isFloat ? Make<T>({{1.0, -99, 2.5}, {0.5, 4.0, -8.0}}) : Make<T>({{-99, 0.1}, {3.0, -99}});
    EXPECT_EQ(Written(expected), golden);
    Matrix<T> read;
    ASSERT_TRUE(Load(golden, read));
    EXPECT_TRUE(Same(read, expected));
    std::vector<int> counts{read.GetNumMisVal()};
    for (int j = 1; j <= read.SizeColumns(); ++j)
        counts.push_back(read.GetColumnMisVal(j));
    EXPECT_EQ(counts, (isFloat ? std::vector<int>{1, 0, 1, 0} : std::vector<int>{2, 1, 1}));
}

TEST(MatrixStreamEntries, ZeroRowsWriteNoRowEntry)
{
    std::istringstream in(Written(Matrix<float>(0, 2)));
    unsigned short version = 0;
    ASSERT_TRUE(QvStreamLight::CheckMagicStringAndVersionNumber(in, version, "NCDM"));
    EXPECT_EQ(version, 4);
    InputStreamDirectory directory(in);
    EXPECT_EQ(directory.GetEntryCount(), 5);
    std::vector<unsigned short> present;
    for (unsigned short k = 0; k < 5; ++k)
        if (directory.GetInput(k))
            present.push_back(k);
    EXPECT_EQ(present, (std::vector<unsigned short>{0, 1, 2, 4}));
}

TYPED_TEST(MatrixStream, OtherHeadersAndEveryTruncationAreRefused)
{
    // Another version or magic, or a cut inside the header: the record is not
    // ours and the matrix stays as it was; cut anywhere later it is damaged
    // and the matrix is emptied.
    const std::string good = Written(Make<TypeParam>({{1, -99}, {-99, 4}}));
    const Matrix<TypeParam> before = Make<TypeParam>({{5, 6, -99}});
    for (const auto& [at, byte] : std::vector<std::pair<std::size_t, char>>{{5, 3}, {5, 5}, {4, 'V'}, {0, 3}}) {
        std::string bad = good;
        bad[at] = byte;
        Matrix<TypeParam> m = before;
        EXPECT_FALSE(Load(bad, m)) << at << " " << int(byte);
        EXPECT_TRUE(Same(m, before));
    }
    for (std::size_t n = 0; n < good.size(); ++n) {
        Matrix<TypeParam> m = before;
        EXPECT_FALSE(Load(good.substr(0, n), m)) << n;
        EXPECT_TRUE(n < 7 ? bool(Same(m, before)) : IsEmpty(m)) << "prefix of " << n << " bytes";
    }
}

TEST(MatrixStreamDamage, HugeSizesFailFastWithoutAllocating)
{
    if (!MemoryBound::Available)
        GTEST_SKIP() << "address space cannot be capped under a sanitizer";
    // Each claim would need gigabytes if believed; the child has one to spare.
    // No missing cells: a total of 0 fits any size.
    const std::string good = Written(Make<float>({{1, 2}, {3, 4}}));
    const std::int32_t huge = 0x7fffffff;
    const std::vector<std::pair<std::int32_t, std::int32_t>> sizes = {
        {huge, 2}, {2, huge}, {huge, huge}, {0x10000, 0x10000}, {huge, 0}, {0, huge}, {-1, 2}, {2, -1}, {-1, 0},
    };
    for (const auto& [rows, cols] : sizes) {
        const std::string claim = Patched(Patched(good, RowsField, rows), ColsField, cols);
        const std::string verdict = MemoryBound::Run([&claim]() -> std::string {
            Matrix<float> m = Make<float>({{7}});
            return Load(claim, m) || !IsEmpty(m) ? "accepted" : "";
        });
        EXPECT_EQ(verdict, "") << "rows " << rows << ", columns " << cols;
    }
}

TYPED_TEST(MatrixStream, ForgedRecordsThatContradictThemselvesAreRefused)
{
    using T = TypeParam;
    using Other = std::conditional_t<std::is_same_v<T, float>, double, float>;
    // Cells 1 -99 2 / 3 4 -99: one missing in columns 2 and 3, two in all.
    const std::string rows = RowRecord<T>({1, -99, 2}, 1) + RowRecord<T>({3, 4, -99}, 1);
    const std::string counts = Written(Counts{0, 1, 1});
    // Complete rows 1 2 3 / 1 2 3, none missing.
    const std::string row = Written(NCDataVector<T>{1, 2, 3}), none = Written(Counts{0, 0, 0});
    for (const Forged& good : {Forged{2, 3, 2, rows, counts}, Forged{2, 3, 0, row + row, none}}) {
        Matrix<T> m;
        EXPECT_TRUE(Load(good.Bytes(), m));
    }
    const std::vector<std::pair<const char*, Forged>> damaged = {
        {"total too large", {2, 3, 3, rows, counts}},
        {"total too small", {2, 3, 1, rows, counts}},
        {"total beyond the cells", {2, 3, 7, rows, counts}},
        {"negative total", {2, 3, -1, rows, counts}},
        {"counts in the wrong columns", {2, 3, 2, rows, Written(Counts{1, 1, 0})}},
        {"negative column count", {2, 3, 2, rows, Written(Counts{-1, 2, 1})}},
        {"too few column counts", {2, 3, 2, rows, Written(Counts{1, 1})}},
        {"too many column counts", {2, 3, 2, rows, Written(Counts{0, 1, 1, 0})}},
        {"no column counts", {2, 3, 2, rows, std::nullopt}},
        {"column counts not a record", {2, 3, 2, rows, std::string(40, '\0')}},
        // A row's own count belongs to the cells' story too: these records
        // agree with the counts the rows claim, not with the cells.
        {"row claims none missing",
         {2, 3, 1, RowRecord<T>({1, -99, 2}, 0) + RowRecord<T>({3, 4, -99}, 1), Written(Counts{0, 0, 1})}},
        {"row claims two missing", {2, 3, 3, RowRecord<T>({1, -99, 2}, 2) + RowRecord<T>({3, 4, -99}, 1), counts}},
        {"a row too short", {2, 3, 0, row + Written(NCDataVector<T>{1, 2}), none}},
        {"a row too long", {2, 3, 0, row + Written(NCDataVector<T>{1, 2, 3, 4}), none}},
        {"an empty row", {2, 3, 0, row + Written(NCDataVector<T>()), none}},
        {"one row of two", {2, 3, 0, row + std::string(30, '\0'), none}},
        // As many bytes as a row of three where the sizes allow.
        {"a row of the other type", {1, 3, 0, Written(NCDataVector<Other>(int(3 * sizeof(T) / sizeof(Other)), 1)), none}},
        {"a row that is not a vector", {1, 3, 0, Written(Counts{1, 2, 3, 4, 5, 6, 7}), none}},
        {"no row entry", {2, 3, 0, std::nullopt, none}},
        {"no row count", {std::nullopt, 3, 0, row + row, none}},
        {"no column count", {2, std::nullopt, 0, row + row, none}},
        {"no total", {2, 3, std::nullopt, row + row, none}},
    };
    for (const auto& [what, record] : damaged) {
        Matrix<T> target = Make<T>({{5, -99}});
        EXPECT_FALSE(Load(record.Bytes(), target)) << what;
        EXPECT_TRUE(IsEmpty(target)) << what;
    }
}

} // namespace
