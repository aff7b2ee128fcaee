#pragma once

#include "cli/CsvTable.h"

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct NormalityOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::vector<std::string> columns; // empty: every column holding numbers
    std::string outPath;              // CSV, one row per column
    bool json = false;
};

// The Shapiro-Wilk test of one column.
struct NormalityResult {
    std::string column;
    int variable = 0;
    int n = 0;        // present values
    double w = -99.0; // -99 when not computed
    double p = -99.0;
    int fault = -1;   // the library's code; -1 when the column never reached the test
    std::string note; // why W is missing or approximate ("" when neither), in words
    std::string message; // one line naming file and column, for a column not tested
    bool Tested() const { return w != -99.0; }
};

// The library's fault codes in words; "" for 0.
std::string ShapiroFault(int fault, int n);

// W and p of the present values of one column (any order).
NormalityResult TestColumn(const DataTable& table, int variable);

// `veltan normality`: one row per column; exit 1 only when no column could
// be tested.
int RunNormality(const NormalityOptions& options, std::ostream& out);

} // namespace veltan_cli
