#include "cli/CsvTable.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <csv.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>

namespace veltan_cli {

namespace {


// Collects the records libcsv reports and turns them into a table as they
// come, so a large file is never held as strings. Rows are counted as the
// lines a spreadsheet would show: blank lines count, a line break inside a
// quoted field does not.
class TableBuilder {
public:
    TableBuilder(const std::string& source, NamesColumn names, bool keepText) : m_names(names), m_keepText(keepText)
    {
        m_table.source = source;
    }

    // Exceptions must not unwind through libcsv's C frames: the callbacks
    // keep the first error and ignore the rest of the input.
    static void OnField(void* field, std::size_t length, void* self)
    {
        auto* builder = static_cast<TableBuilder*>(self);
        if (!builder->m_error.empty())
            return;
        try {
            builder->m_fields.emplace_back(static_cast<const char*>(field), length);
        } catch (const std::bad_alloc&) {
            builder->m_error = builder->m_table.source + ": out of memory";
        }
    }

    // libcsv is asked to report every line end (CSV_REPALL_NL), so a CRLF
    // arrives as two ends; the LF right after a CR closes nothing.
    static void OnRowEnd(int terminator, void* self)
    {
        auto* builder = static_cast<TableBuilder*>(self);
        if (!builder->m_error.empty())
            return;
        const bool lfAfterCr = terminator == '\n' && builder->m_lastEnd == '\r' && builder->m_fields.empty();
        builder->m_lastEnd = terminator;
        if (lfAfterCr)
            return;
        ++builder->m_row;
        try {
            if (!builder->m_fields.empty())
                builder->RecordAfterBlanks();
            else if (builder->m_headerSeen && builder->m_header.size() == 1)
                builder->m_blankRows.push_back(builder->m_row);
        } catch (const ToolError& e) {
            builder->m_error = e.what();
        } catch (const std::bad_alloc&) {
            builder->m_error = builder->m_table.source + ": out of memory";
        }
        builder->m_fields.clear();
    }

    const std::string& Error() const { return m_error; }

    // The row and the column a parse error stopped in.
    int CurrentRow() const { return m_row + 1; }
    int CurrentColumn() const { return static_cast<int>(m_fields.size()) + 1; }

    DataTable Finish()
    {
        if (!m_error.empty())
            throw ToolError(m_error);
        if (!m_headerSeen)
            throw ToolError(m_table.source + ": the file is empty");
        if (m_cells.empty() && m_table.observations.empty())
            throw ToolError(m_table.source + ": no data rows below the header row");
        const int n = static_cast<int>(m_table.observations.size());
        const int k = static_cast<int>(m_table.variables.size());
        NCDataMatrix<float> values(n, k);
        for (int i = 1; i <= n; ++i) {
            const float* row = m_cells.data() + static_cast<std::size_t>(i - 1) * k;
            for (int j = 1; j <= k; ++j)
                values(i, j, row[j - 1]);
        }
        m_table.values = std::move(values);
        return std::move(m_table);
    }

private:
    // In a table of one column a blank line is an empty cell, a missing
    // value: skipping it would shift the rest of a series. Blank lines after
    // the last value are only the end of the file.
    void RecordAfterBlanks()
    {
        if (!m_blankRows.empty()) {
            std::vector<std::string> fields = std::move(m_fields);
            const int row = m_row;
            for (int blank : m_blankRows) {
                m_fields.assign(1, std::string());
                m_row = blank;
                Record();
            }
            m_blankRows.clear();
            m_fields = std::move(fields);
            m_row = row;
        }
        Record();
    }

    void Record()
    {
        if (!m_headerSeen) {
            m_header = std::move(m_fields);
            m_headerSeen = true;
            return;
        }
        if (m_fields.size() != m_header.size()) {
            std::ostringstream message;
            message << m_table.source << ": row " << m_row << " has " << m_fields.size() << " cell"
                    << (m_fields.size() == 1 ? "" : "s") << ", the header row has " << m_header.size();
            throw ToolError(message.str());
        }
        if (m_table.observations.empty())
            SplitHeader();
        const std::size_t first = m_table.hasNames ? 1 : 0;
        for (std::size_t c = first; c < m_fields.size(); ++c) {
            float v = NCMisVal<float>;
            std::string problem;
            if (!ParseCell(m_fields[c], v))
                problem = "\"" + m_fields[c] + "\" is not a number";
            else if (!IsMisVal(v) && std::fabs(v) > std::numeric_limits<float>::max())
                problem = "\"" + m_fields[c] + "\" is beyond the range of a float";
            if (!problem.empty() && !m_keepText)
                throw ToolError(CellMessage(c, problem));
            if (!problem.empty()) {
                v = NCMisVal<float>;
                m_table.textCells.push_back({static_cast<int>(m_table.observations.size()) + 1,
                                             static_cast<int>(c - first) + 1, std::move(problem)});
            }
            m_cells.push_back(v);
        }
        const int index = static_cast<int>(m_table.observations.size()) + 1;
        m_table.observations.push_back(m_table.hasNames ? m_fields[0] : std::to_string(index));
        m_table.fileRows.push_back(m_row);
    }

    // Decided at the first data row, which the automatic rule looks at.
    void SplitHeader()
    {
        bool names = m_names == NamesColumn::First;
        if (m_names == NamesColumn::Auto && !m_header.empty()) {
            float unused = 0.0f;
            names = m_header[0].empty() || !ParseCell(m_fields[0], unused);
        }
        if (names && m_header.size() < 2)
            throw ToolError(m_table.source + ": the only column holds observation names; no variables to analyse");
        m_table.hasNames = names;
        if (names)
            m_table.namesHeader = m_header[0];
        for (std::size_t c = names ? 1 : 0; c < m_header.size(); ++c) {
            // A variable needs a name in every message and output file.
            const std::string& name = m_header[c];
            m_table.variables.push_back(name.empty() ? "Var" + std::to_string(m_table.variables.size() + 1) : name);
        }
    }

    std::string CellMessage(std::size_t field, const std::string& what) const
    {
        const int column = static_cast<int>(field) + 1;
        std::ostringstream message;
        message << m_table.source << ": row " << m_row << ", column " << column << " ("
                << Quoted(m_table.variables[field - (m_table.hasNames ? 1 : 0)]) << "): " << what;
        if (column == 1 && m_names == NamesColumn::Auto)
            message << " (use --names first if column 1 holds observation names)";
        return message.str();
    }

    DataTable m_table;
    NamesColumn m_names;
    bool m_keepText;
    std::vector<std::string> m_header;
    std::vector<std::string> m_fields;
    std::vector<float> m_cells;
    bool m_headerSeen = false;
    std::vector<int> m_blankRows;
    int m_row = 0;
    int m_lastEnd = 0;
    std::string m_error;
};

struct ParserDeleter {
    void operator()(csv_parser* p) const
    {
        csv_free(p);
        delete p;
    }
};

} // namespace

std::string DataTable::Where(int observation, int variable) const
{
    std::ostringstream where;
    where << source;
    const char* separator = ": ";
    if (observation > 0) {
        where << separator << "row " << fileRows[static_cast<std::size_t>(observation - 1)];
        separator = ", ";
    }
    if (variable > 0)
        where << separator << "column " << FileColumn(variable) << " ("
              << Quoted(variables[static_cast<std::size_t>(variable - 1)]) << ")";
    return where.str();
}

int DataTable::Find(const std::string& name) const
{
    for (std::size_t j = 0; j < variables.size(); ++j)
        if (variables[j] == name)
            return static_cast<int>(j) + 1;
    return 0;
}

DataTable SelectVariables(const DataTable& table, const std::vector<int>& variables)
{
    DataTable part;
    part.source = table.source;
    part.hasNames = table.hasNames;
    part.namesHeader = table.namesHeader;
    part.observations = table.observations;
    part.fileRows = table.fileRows;
    const int n = table.Observations();
    part.values = NCDataMatrix<float>(n, static_cast<int>(variables.size()));
    for (std::size_t c = 0; c < variables.size(); ++c) {
        const int j = variables[c];
        part.variables.push_back(table.variables[static_cast<std::size_t>(j - 1)]);
        part.fileColumns.push_back(table.FileColumn(j));
        for (int i = 1; i <= n; ++i)
            part.values(i, static_cast<int>(c) + 1, table.values[i][j]);
    }
    return part;
}

bool ParseCell(std::string_view cell, float& value)
{
    if (cell.empty() || cell == "NA") {
        value = NCMisVal<float>;
        return true;
    }
    // from_chars takes no leading plus sign; a spreadsheet may write one.
    if (cell.front() == '+' && cell.size() > 1 && cell[1] != '-' && cell[1] != '+')
        cell.remove_prefix(1);
    // Parsed as float directly: the shortest text of the largest float
    // reads as a double just above it.
    float parsed = 0.0f;
    const char* end = cell.data() + cell.size();
    const auto [ptr, ec] = std::from_chars(cell.data(), end, parsed);
    if (ptr != end || (ec != std::errc() && ec != std::errc::result_out_of_range))
        return false;
    if (ec == std::errc::result_out_of_range) {
        // Underflow reads as zero; overflow is left for the caller to name.
        double wide = 0.0;
        bool tiny = false;
        if (std::from_chars(cell.data(), end, wide).ec == std::errc()) {
            tiny = std::fabs(wide) < 1.0;
        } else {
            // Beyond a double too: small when its exponent is negative or it
            // has no integer digit but zero.
            const std::size_t e = cell.find_first_of("eE");
            const std::string_view mantissa = cell.substr(0, e);
            const std::size_t digit = mantissa.find_first_of("123456789");
            const std::size_t point = mantissa.find('.');
            tiny = (e != std::string_view::npos && e + 1 < cell.size() && cell[e + 1] == '-') ||
                   (point != std::string_view::npos && (digit == std::string_view::npos || digit > point));
        }
        value = tiny ? 0.0f : std::numeric_limits<float>::infinity();
        return true;
    }
    if (!std::isfinite(parsed))
        return false;
    value = parsed;
    return true;
}

DataTable ParseCsvTable(std::string_view text, const std::string& source, NamesColumn names, bool keepText)
{
    if (text.size() >= 3 && std::memcmp(text.data(), "\xEF\xBB\xBF", 3) == 0)
        text.remove_prefix(3);
    std::unique_ptr<csv_parser, ParserDeleter> parser(new csv_parser);
    if (csv_init(parser.get(), CSV_STRICT | CSV_REPALL_NL | CSV_STRICT_FINI) != 0) {
        delete parser.release();
        throw ToolError(source + ": out of memory");
    }
    TableBuilder builder(source, names, keepText);
    auto fail = [&](const char* what) {
        if (!builder.Error().empty())
            throw ToolError(builder.Error());
        std::ostringstream message;
        message << source << ": row " << builder.CurrentRow() << ", column " << builder.CurrentColumn() << ": " << what;
        throw ToolError(message.str());
    };
    if (csv_parse(parser.get(), text.data(), text.size(), TableBuilder::OnField, TableBuilder::OnRowEnd, &builder) !=
        text.size()) {
        fail(csv_error(parser.get()) == CSV_EPARSE ? "a quote is misplaced (a quoted field must end at a comma or a "
                                                     "line end, and quotes inside it are doubled)"
                                                   : "out of memory");
    }
    if (csv_fini(parser.get(), TableBuilder::OnField, TableBuilder::OnRowEnd, &builder) != 0)
        fail("a quoted field is not closed");
    return builder.Finish();
}

DataTable ReadCsvTable(const std::string& path, NamesColumn names, bool keepText)
{
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw ToolError(path + ": is a folder, not a file");
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int error = errno;
        throw ToolError(path + ": cannot open: " + std::strerror(error != 0 ? error : ENOENT));
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        throw ToolError(path + ": read error");
    return ParseCsvTable(content.view(), path, names, keepText);
}

} // namespace veltan_cli
