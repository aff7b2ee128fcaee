#pragma once

#include "veltancmat/containers/NCDataMatrix.h"

#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// A file that appears under its name only once it is complete: the content
// goes to a temporary file beside the target (same folder, so the final
// rename cannot cross file systems) and Commit renames it into place. A
// file never committed (an error, a cancel) is removed, so no half-written
// output is ever left looking whole.
class AtomicFile {
public:
    // Throws ToolError when the temporary file cannot be created.
    explicit AtomicFile(std::string path);
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    std::ostream& Stream() { return m_out; }
    const std::string& Path() const { return m_path; }
    // Flushes, closes and renames; throws ToolError on any failure (the
    // temporary file is then removed).
    void Commit();

private:
    std::string m_path;
    std::string m_temp;
    std::ofstream m_out;
    bool m_committed = false;
};

// The output files of one command: each is written complete in its
// temporary form before any is renamed, so a failure leaves either all of
// them new or none.
class OutputFiles {
public:
    // The stream of a new file (ToolError when it cannot be created).
    std::ostream& Add(const std::string& path);
    // Renames every file into place.
    void CommitAll();

private:
    std::vector<std::unique_ptr<AtomicFile>> m_files;
};

// The shortest text that reads back as the same float; "" for missing.
std::string FormatValue(float value);

// One CSV record and its line end; fields are quoted only when they must be
// (a comma, quote, line break or surrounding space).
void WriteCsvRecord(std::ostream& out, const std::vector<std::string>& fields);

// A table whose rows are the columns of `prim` (a component-by-row matrix
// such as T' or P'): the header is `corner` then `columnNames` (one per row
// of prim), then one record per column of prim led by its row name.
void WriteTransposedCsv(std::ostream& out, const std::string& corner, const std::vector<std::string>& rowNames,
                        const std::vector<std::string>& columnNames, const NCDataMatrix<float>& prim);

// A table of `values` (one row per row name, one column per column name)
// under the header `corner` then `columnNames`.
void WriteTableCsv(std::ostream& out, const std::string& corner, const std::vector<std::string>& rowNames,
                   const std::vector<std::string>& columnNames, const NCDataMatrix<float>& values);

} // namespace veltan_cli
