// libFuzzer target over the readers of every container record. The first
// input byte picks the record and the kind of stream (RecordCheck.h); any
// broken promise aborts, so that libFuzzer keeps the input.
#include "fuzz/RecordCheck.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const RecordCheck::Result result = RecordCheck::Check(data, size);
    if (!result.violation.empty()) {
        std::fprintf(stderr, "%s: %s\n", RecordCheck::Name(static_cast<RecordCheck::Kind>(data[0] & 7)),
                     result.violation.c_str());
        std::abort();
    }
    return 0;
}
