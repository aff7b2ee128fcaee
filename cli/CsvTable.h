#pragma once

#include "veltancmat/containers/NCDataMatrix.h"

#include <string>
#include <string_view>
#include <vector>

namespace veltan_cli {

// Whether the first column of a table holds observation names.
enum class NamesColumn {
    Auto,  // yes when its header cell is empty or its first data cell is text
    First, // always
    None,  // never: every column is a variable
};

// A cell that held no number where one belongs. Only a reading that keeps
// text (see ParseCsvTable) collects them; the cell itself reads as missing.
struct TextCell {
    int observation = 0; // 1-based, as in DataTable
    int variable = 0;    // 1-based
    std::string problem; // "\"abc\" is not a number"
};

// A numeric table read from CSV: a header row of variable names, then one
// row per observation. Rows and columns in messages are counted as a
// spreadsheet shows the file: the header is row 1, the first cell column 1.
struct DataTable {
    std::string source;                    // the file name, for messages
    bool hasNames = false;                 // the file's first column held names
    std::string namesHeader;               // its header cell ("" when none)
    std::vector<std::string> variables;    // K names
    std::vector<std::string> observations; // N names (row numbers when the file had none)
    std::vector<int> fileRows;             // file row of each observation
    // File column of each variable, for a table taken out of a wider one;
    // empty when the variables follow one another as in the file.
    std::vector<int> fileColumns;
    NCDataMatrix<float> values;            // N x K, missing cells -99
    std::vector<TextCell> textCells;       // in file order; empty unless text was kept

    int Observations() const { return values.SizeRows(); }
    int Variables() const { return values.SizeColumns(); }
    // File column of variable j (1-based).
    int FileColumn(int variable) const
    {
        return fileColumns.empty() ? variable + (hasNames ? 1 : 0)
                                   : fileColumns[static_cast<std::size_t>(variable - 1)];
    }
    // Variable number (1-based) of `name`, 0 when the table has none such.
    int Find(const std::string& name) const;
    // `<source>: row R, column C ("name")` for observation i, variable j
    // (either may be 0 to leave it out).
    std::string Where(int observation, int variable) const;
};

// The listed variables (1-based, in list order) of `table` as a table of
// their own that still names the file's columns in its messages.
DataTable SelectVariables(const DataTable& table, const std::vector<int>& variables);

// Parses CSV text: comma-separated, fields optionally in double quotes, CR,
// LF or CRLF line ends, an optional UTF-8 byte-order mark, blank lines
// ignored. Empty cells, "NA" and any value equal to -99 are missing. Throws
// ToolError naming the source, row and column for a ragged row, a cell
// that is not a number, a value beyond the float range or an empty table.
// With keepText, a cell that is not a number (or beyond the float range)
// is read as missing and listed in textCells instead: commands that look at
// one column at a time decide per column what such a cell means.
DataTable ParseCsvTable(std::string_view text, const std::string& source, NamesColumn names = NamesColumn::Auto,
                        bool keepText = false);

// How ParseCsvTable goes about it; the result never depends on it. Text
// after the last double quote (all of it in a table without quotes) is
// split into rows in one pass and its rows are parsed in blocks on the
// OpenMP team; the rest goes through libcsv. Tests compare the two ways and
// force small blocks.
struct CsvReading {
    bool blocks = true; // false: libcsv reads everything
    int blockRows = 0;  // rows per block; 0 chooses by table size and team
};
DataTable ParseCsvTable(std::string_view text, const std::string& source, NamesColumn names, bool keepText,
                        const CsvReading& reading);

// Reads and parses a file; a file that cannot be opened or read throws
// ToolError with the system's reason.
DataTable ReadCsvTable(const std::string& path, NamesColumn names = NamesColumn::Auto, bool keepText = false);

// The value of one cell, or false when it is not a finite number; missing
// markers give -99.
bool ParseCell(std::string_view cell, float& value);

} // namespace veltan_cli
