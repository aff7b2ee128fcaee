// Every input that once broke a record reader under fuzz/records_fuzzer,
// fed again through the same reader and the same checks (fuzz/RecordCheck.h),
// through the stream kind it was found with and through the other one.
#include "fuzz/RecordCheck.h"

#include "containers/MemoryBound.h"
#include "containers/fixtures/FuzzRegressions.inc"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

struct Regression {
    const char* name;
    std::vector<unsigned char> bytes;
    bool valid; // a record the reader must accept; any other must be refused
};

template <std::size_t N>
Regression Entry(const char* name, const unsigned char (&bytes)[N], bool valid)
{
    return {name, std::vector<unsigned char>(bytes, bytes + N), valid};
}

std::string Verdict(const std::vector<unsigned char>& input, bool valid)
{
    const RecordCheck::Result result = RecordCheck::Check(input.data(), input.size());
    if (!result.violation.empty())
        return result.violation;
    if (result.read != valid)
        return valid ? "a valid record was refused" : "a damaged record was read";
    return {};
}

TEST(FuzzRegressions, EveryInputIsHandledCleanly)
{
    namespace R = FuzzRegressions;
    const std::vector<Regression> all = {
        Entry("EmptyDoubleMatrix", R::EmptyDoubleMatrix, true),
        // Rows without columns need no row records, so this one reads (as
        // an empty matrix); what it must not do is allocate the rows.
        Entry("RowsWithoutColumns", R::RowsWithoutColumns, true),
        Entry("ColumnsWithoutRows", R::ColumnsWithoutRows, false),
        Entry("RowClaimsMissingCell", R::RowClaimsMissingCell, false),
        Entry("MatrixEndMarkDamaged", R::MatrixEndMarkDamaged, false),
        Entry("PipedVectorClaimsGigabytes", R::PipedVectorClaimsGigabytes, false),
    };
    for (const Regression& r : all) {
        for (bool flipStream : {false, true}) {
            std::vector<unsigned char> input = r.bytes;
            input[0] ^= flipStream ? RecordCheck::PipeBit : 0;
            // Where the address space can be capped a relapse into a huge
            // allocation fails the case instead of straining the machine.
            const std::string verdict = MemoryBound::Available
                                            ? MemoryBound::Run([&] { return Verdict(input, r.valid); })
                                            : Verdict(input, r.valid);
            EXPECT_EQ(verdict, "") << r.name << (flipStream ? " (other stream kind)" : "");
        }
    }
}

} // namespace
