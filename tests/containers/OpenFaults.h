#pragma once

// Faults of the matrix reader that the stream tests and the fuzz target
// found, reported and not yet fixed. A case that runs into one is collected
// and its test ends as skipped, naming it, instead of failing; any other
// failure still fails. Delete a fault's mark together with its fix, so that
// its cases guard it from then on.

#include "containers/MemoryBound.h" // VELTAN_TEST_SANITIZED

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace OpenFaults {

enum class Fault {
    None,
    // A row record's own missing count is believed, so the matrix's counts
    // can disagree with its cells.
    MatrixTrustsRowCounts,
    // A directory found damaged after its entries (a bad end mark) makes
    // the read return false, but the matrix keeps what it read.
    MatrixKeepsCellsAfterBadEnd,
    // Rows without columns (or columns without rows) are allocated as
    // claimed before anything backs them.
    MatrixAllocatesForEmptyDimension,
    // rows x columns x element size overflows 64 bits for the largest
    // sizes, so the check that the row entry can back them passes and the
    // row array is allocated as claimed.
    MatrixSizeProductOverflows,
    // Recounting a matrix without columns does arithmetic on a null
    // pointer: harmless in practice, fatal under UndefinedBehaviorSanitizer,
    // where such cases are not run.
    MatrixRecountsNullColumns,
};

// Whether a case marked with `fault` can run in this build.
inline bool Runs(Fault fault)
{
#ifdef VELTAN_TEST_SANITIZED
    return fault != Fault::MatrixRecountsNullColumns;
#else
    (void)fault;
    return true;
#endif
}

class Tally {
public:
    // A failed check: a failure unless it is marked with an open fault.
    void Failed(Fault fault, const std::string& what)
    {
        if (fault == Fault::None)
            ADD_FAILURE() << what;
        else
            m_open.push_back(what);
    }
    void Check(bool ok, Fault fault, const std::string& what)
    {
        if (!ok)
            Failed(fault, what);
    }
    // Call last: turns collected open faults into a skip.
    void Finish()
    {
        if (m_open.empty() || ::testing::Test::HasFailure())
            return;
        std::string list;
        for (const std::string& what : m_open)
            list += (list.empty() ? "" : "; ") + what;
        GTEST_SKIP() << "open reader faults (reported): " << list;
    }

private:
    std::vector<std::string> m_open;
};

} // namespace OpenFaults
