#pragma once

#include "cli/CsvTable.h"

#include "veltancmat/platform/NCProgress.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// R's fisher.test starts from the same workspace, so a table that runs
// there runs here at the first try.
constexpr int DefaultFisherWorkspace = 200000;
// 2^28 units of 4 bytes, 1 GiB: as far as the retries go unless told
// otherwise. The network's store comes to about 1.2 times the workspace's
// bytes, which a desktop can spare; beyond that a table is usually better
// served by --hybrid than by more memory.
constexpr int FisherWorkspaceCap = 1 << 28;

struct FisherOptions {
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::string sides = "two"; // two, less or greater
    bool hybrid = false;
    int workspace = DefaultFisherWorkspace;
    int maxWorkspace = FisherWorkspaceCap;
    bool json = false;
    bool progress = false;
};

// A table of counts with its labels: the header row names the columns, the
// names column (if any) the rows.
struct CountTable {
    std::string source;
    std::string corner; // the header cell above the row labels
    std::vector<std::string> rows, columns;
    std::vector<int> counts; // line by line
    std::vector<long long> rowTotals, columnTotals;
    long long total = 0;

    int Rows() const { return static_cast<int>(rows.size()); }
    int Columns() const { return static_cast<int>(columns.size()); }
    int At(int row, int column) const { return counts[static_cast<std::size_t>(row * Columns() + column)]; }
};

// The counts of a table read from CSV. Throws ToolError naming the file and,
// for a bad cell, its row and column: a cell that is missing, negative, not
// a whole number or too large to have been read exactly; fewer than two rows
// or columns; nothing but zeros.
CountTable CountsOf(const DataTable& table);

// The workspaces tried, in order; the last one sufficed.
struct WorkspaceTrials {
    double p = 0.0;
    std::vector<int> tried;
};

// Calls `attempt` with `start`, then, each time the library reports the
// workspace too small, with twice the last size, the last try being `cap`
// itself. Each call runs on a thread of its own while this one turns the
// spinner of `progress`; a break requested meanwhile (Ctrl-C) stops the
// tries once the running call returns, with CancelException. Throws
// ToolError naming `source` when `cap` does not suffice, and one line of
// the library's message for any other error of the library.
WorkspaceTrials TryGrowingWorkspace(const std::function<double(int)>& attempt, int start, int cap,
                                    NCProgress& progress, const std::string& source);

// "268435456 (1 GiB)": a workspace in 4-byte units and in bytes.
std::string WorkspaceSize(long long units);

// `veltan fisher`.
int RunFisher(const FisherOptions& options, std::ostream& out);

} // namespace veltan_cli
