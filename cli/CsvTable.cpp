#include "cli/CsvTable.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <csv.h>
#include <omp.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>

namespace veltan_cli {

namespace {

// libcsv's field separators and the spaces it drops around an unquoted field.
bool IsSpace(char c) { return c == ' ' || c == '\t'; }
bool IsLineEnd(char c) { return c == '\n' || c == '\r'; }

// A line holding nothing but spaces is no record for libcsv: it has no field.
bool IsBlankLine(const char* begin, const char* end)
{
    return std::all_of(begin, end, IsSpace);
}

std::string_view TrimmedField(const char* begin, const char* end)
{
    while (begin < end && IsSpace(*begin))
        ++begin;
    while (end > begin && IsSpace(end[-1]))
        --end;
    return {begin, static_cast<std::size_t>(end - begin)};
}

// What is wrong with a cell that should hold a number ("" when nothing):
// v is its value, missing for a missing marker.
std::string CellProblem(std::string_view cell, float& v)
{
    v = NCMisVal<float>;
    if (!ParseCell(cell, v))
        return "\"" + std::string(cell) + "\" is not a number";
    if (!IsMisVal(v) && std::fabs(v) > std::numeric_limits<float>::max())
        return "\"" + std::string(cell) + "\" is beyond the range of a float";
    return {};
}

// Clinger's fast path (1990) for the short decimals most tables hold: a
// significand of at most 2^24 and at most 10 decimals are both exact in a
// float, so one division rounds to nearest as from_chars does. Returns the
// end of the number, or null to leave the text to from_chars.
const char* ShortDecimal(const char* p, const char* end, float& value)
{
    static constexpr float Tens[] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f, 1e6f, 1e7f, 1e8f, 1e9f, 1e10f};
    const bool negative = p < end && *p == '-';
    std::uint32_t significand = 0;
    int digits = 0, decimals = 0;
    bool point = false;
    for (p += negative ? 1 : 0; p < end; ++p) {
        const unsigned digit = static_cast<unsigned char>(*p) - unsigned{'0'};
        if (digit < 10) {
            if (++digits > 9)
                return nullptr;
            significand = significand * 10 + digit;
            decimals += point ? 1 : 0;
        } else if (*p == '.' && !point) {
            point = true;
        } else {
            break;
        }
    }
    if (digits == 0 || significand > (std::uint32_t{1} << 24) || decimals > 10)
        return nullptr;
    const float v = static_cast<float>(significand) / Tens[decimals];
    value = negative ? -v : v;
    return p;
}

// One row of quote-free text: a line holding at least one field, or in a
// table of one column a blank line between values (empty `begin`..`end`).
struct PlainRecord {
    const char* begin;
    const char* end;
    int row;
};

// A blank line of a one-column table reads as this one empty field.
constexpr char NoText[] = "";

// Below this size a table is parsed on the calling thread alone.
constexpr std::size_t ParallelBytes = std::size_t{1} << 20;

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
        ++builder->m_rowEndCalls;
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
    // Every line end libcsv has reported, the skipped LF of a CRLF included.
    std::uint64_t RowEndCalls() const { return m_rowEndCalls; }

    // Takes quote-free text that starts a line, as if libcsv went on with it
    // from where it stopped at a line end: the same rows, row numbers, blank
    // lines and the same first error. The lines are found in one pass; the
    // data rows are then parsed in blocks of blockRows (0: chosen here) on
    // the OpenMP team.
    void AddPlainText(std::string_view text, int blockRows)
    {
        if (!m_error.empty())
            return;
        try {
            const std::vector<PlainRecord> records = PlainRecords(text);
            ParsePlainRecords(records, blockRows, text.size() >= ParallelBytes);
        } catch (const ToolError& e) {
            m_error = e.what();
        } catch (const std::bad_alloc&) {
            m_error = m_table.source + ": out of memory";
        }
    }

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
        if (m_valuesFilled) {
            m_values.RecountMissing();
            m_table.values = std::move(m_values);
            return std::move(m_table);
        }
        const int n = static_cast<int>(m_table.observations.size());
        const int k = static_cast<int>(m_table.variables.size());
        NCDataMatrix<float> values(n, k);
        const std::vector<float*> rows = values.GetMatrixAsPointerPointer();
        for (int i = 1; i <= n; ++i)
            std::copy_n(m_cells.data() + static_cast<std::size_t>(i - 1) * k, k, rows[static_cast<std::size_t>(i)] + 1);
        values.RecountMissing();
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
        if (m_fields.size() != m_header.size())
            throw ToolError(RaggedMessage(m_row, m_fields.size()));
        if (m_table.observations.empty())
            SplitHeader();
        const std::size_t first = m_table.hasNames ? 1 : 0;
        for (std::size_t c = first; c < m_fields.size(); ++c) {
            float v = NCMisVal<float>;
            std::string problem = CellProblem(m_fields[c], v);
            if (!problem.empty() && !m_keepText)
                throw ToolError(CellMessage(m_row, c, problem));
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

    std::string RaggedMessage(int row, std::size_t cells) const
    {
        std::ostringstream message;
        message << m_table.source << ": row " << row << " has " << cells << " cell" << (cells == 1 ? "" : "s")
                << ", the header row has " << m_header.size();
        return message.str();
    }

    std::string CellMessage(int row, std::size_t field, const std::string& what) const
    {
        const int column = static_cast<int>(field) + 1;
        std::ostringstream message;
        message << m_table.source << ": row " << row << ", column " << column << " ("
                << Quoted(m_table.variables[field - (m_table.hasNames ? 1 : 0)]) << "): " << what;
        if (column == 1 && m_names == NamesColumn::Auto)
            message << " (use --names first if column 1 holds observation names)";
        return message.str();
    }

    // The line ends of quote-free text, with the bookkeeping OnRowEnd keeps
    // for libcsv's: the header is taken here, the records are returned.
    std::vector<PlainRecord> PlainRecords(std::string_view text)
    {
        std::vector<PlainRecord> records;
        const char* p = text.data();
        const char* const end = p + text.size();
        // Most files have LF line ends only, which memchr finds fastest.
        const bool anyCr = std::memchr(p, '\r', text.size()) != nullptr;
        while (p < end) {
            const std::size_t left = static_cast<std::size_t>(end - p);
            const char* stop =
                anyCr ? std::find_if(p, end, IsLineEnd) : static_cast<const char*>(std::memchr(p, '\n', left));
            if (!stop || stop == end) {
                // libcsv closes a last line without a line end only when it
                // holds a field.
                if (!IsBlankLine(p, end))
                    PlainRowEnd(records, p, end, -1);
                break;
            }
            PlainRowEnd(records, p, stop, static_cast<unsigned char>(*stop));
            p = stop + 1;
        }
        return records;
    }

    void PlainRowEnd(std::vector<PlainRecord>& records, const char* begin, const char* end, int terminator)
    {
        const bool blank = IsBlankLine(begin, end);
        const bool lfAfterCr = terminator == '\n' && m_lastEnd == '\r' && blank;
        m_lastEnd = terminator;
        if (lfAfterCr)
            return;
        ++m_row;
        if (blank) {
            if (m_headerSeen && m_header.size() == 1)
                m_blankRows.push_back(m_row);
            return;
        }
        for (int row : m_blankRows)
            records.push_back({NoText, NoText, row});
        m_blankRows.clear();
        if (m_headerSeen) {
            records.push_back({begin, end, m_row});
            return;
        }
        m_header = SplitFields(begin, end);
        m_headerSeen = true;
    }

    static std::vector<std::string> SplitFields(const char* begin, const char* end)
    {
        std::vector<std::string> fields;
        for (const char* p = begin;;) {
            const char* comma = std::find(p, end, ',');
            fields.emplace_back(TrimmedField(p, comma));
            if (comma == end)
                return fields;
            p = comma + 1;
        }
    }

    // The first data row decides the names column and goes the plain way;
    // the others are parsed in blocks, each into its own rows of the cells.
    // The first error in file order is kept: blocks follow the file, and a
    // block stops at its first error.
    void ParsePlainRecords(const std::vector<PlainRecord>& records, int blockRows, bool parallel)
    {
        std::size_t first = 0;
        if (m_table.observations.empty() && !records.empty()) {
            const int lastRow = m_row;
            m_fields = SplitFields(records[0].begin, records[0].end);
            m_row = records[0].row;
            Record();
            m_fields.clear();
            m_row = lastRow;
            first = 1;
        }
        const std::size_t count = records.size() - first;
        if (count == 0)
            return;
        const std::size_t base = m_table.observations.size();
        const std::size_t k = m_table.variables.size();
        // The rows are parsed straight into the matrix: the cells of a large
        // table are written once.
        m_values = NCDataMatrix<float>(static_cast<int>(base + count), static_cast<int>(k));
        m_rows = m_values.GetMatrixAsPointerPointer();
        for (std::size_t i = 0; i < base; ++i)
            std::copy_n(m_cells.data() + i * k, k, m_rows[i + 1] + 1);
        m_cells = std::vector<float>();
        m_valuesFilled = true;
        m_table.observations.resize(base + count);
        m_table.fileRows.resize(base + count);

        const int team = parallel ? std::max(1, omp_get_max_threads()) : 1;
        const std::size_t size = blockRows > 0 ? static_cast<std::size_t>(blockRows)
                                               : std::max<std::size_t>(1, (count + 8 * team - 1) / (8 * team));
        const std::size_t blocks = (count + size - 1) / size;
        std::vector<Block> results(blocks);
        const auto parse = [&](std::size_t b) {
            try {
                const std::size_t from = first + b * size, to = std::min(first + (b + 1) * size, records.size());
                for (std::size_t r = from; r < to && results[b].error.empty(); ++r)
                    ParsePlainRecord(records[r], base + r - first, results[b]);
            } catch (const ToolError& e) {
                results[b].error = e.what();
            } catch (const std::bad_alloc&) {
                results[b].error = m_table.source + ": out of memory";
            } catch (const std::exception& e) {
                // Nothing may leave a parallel region by an exception.
                results[b].error = m_table.source + ": " + e.what();
            }
        };
        if (team > 1 && blocks > 1) {
#pragma omp parallel for schedule(dynamic, 1) num_threads(team)
            for (std::size_t b = 0; b < blocks; ++b)
                parse(b);
        } else {
            for (std::size_t b = 0; b < blocks; ++b)
                parse(b);
        }
        for (Block& block : results) {
            if (!block.error.empty())
                throw ToolError(block.error);
            std::move(block.textCells.begin(), block.textCells.end(), std::back_inserter(m_table.textCells));
        }
    }

    struct Block {
        std::vector<TextCell> textCells;
        std::string error;
    };

    // One data row into observation `obs` (0-based), as Record would take
    // it. A cell that is a plain number up to its comma is read straight
    // from the text (a number from_chars reads whole is what ParseCell
    // makes of it); everything else goes through CellProblem.
    void ParsePlainRecord(const PlainRecord& record, std::size_t obs, Block& block)
    {
        const std::size_t width = m_header.size();
        const std::size_t names = m_table.hasNames ? 1 : 0;
        float* const row = m_rows[obs + 1] + 1;
        const char* const end = record.end;
        std::size_t field = 0;
        for (const char* p = record.begin;; ++field) {
            if (field == width)
                throw ToolError(RaggedMessage(record.row, CountFields(record)));
            const char* fieldEnd = nullptr;
            if (field >= names) {
                float v = 0.0f;
                const char* number = ShortDecimal(p, end, v);
                if (!number || (number != end && *number != ',')) {
                    const auto [ptr, ec] = std::from_chars(p, end, v);
                    number = ec == std::errc() && std::isfinite(v) ? ptr : nullptr;
                }
                if (number && (number == end || *number == ',')) {
                    row[field - names] = v;
                    fieldEnd = number;
                }
            }
            if (!fieldEnd) {
                fieldEnd = std::find(p, end, ',');
                const std::string_view cell = TrimmedField(p, fieldEnd);
                if (field < names) {
                    m_table.observations[obs].assign(cell);
                } else {
                    std::string problem = CellProblem(cell, row[field - names]);
                    if (!problem.empty() && CountFields(record) != width)
                        throw ToolError(RaggedMessage(record.row, CountFields(record)));
                    if (!problem.empty() && !m_keepText) {
                        block.error = CellMessage(record.row, field, problem);
                        return;
                    }
                    if (!problem.empty()) {
                        row[field - names] = NCMisVal<float>;
                        block.textCells.push_back({static_cast<int>(obs) + 1, static_cast<int>(field - names) + 1,
                                                   std::move(problem)});
                    }
                }
            }
            if (fieldEnd == end)
                break;
            p = fieldEnd + 1;
        }
        if (field + 1 != width)
            throw ToolError(RaggedMessage(record.row, field + 1));
        if (!names)
            m_table.observations[obs] = std::to_string(obs + 1);
        m_table.fileRows[obs] = record.row;
    }

    static std::size_t CountFields(const PlainRecord& record)
    {
        return static_cast<std::size_t>(std::count(record.begin, record.end, ',')) + 1;
    }

    DataTable m_table;
    NamesColumn m_names;
    bool m_keepText;
    std::vector<std::string> m_header;
    std::vector<std::string> m_fields;
    std::vector<float> m_cells;
    // The matrix the block path parses into, and its row pointers.
    NCDataMatrix<float> m_values;
    std::vector<float*> m_rows;
    bool m_valuesFilled = false;
    bool m_headerSeen = false;
    std::vector<int> m_blankRows;
    int m_row = 0;
    int m_lastEnd = 0;
    std::uint64_t m_rowEndCalls = 0;
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
    return ParseCsvTable(text, source, names, keepText, CsvReading{});
}

DataTable ParseCsvTable(std::string_view text, const std::string& source, NamesColumn names, bool keepText,
                        const CsvReading& reading)
{
    if (text.size() >= 3 && std::memcmp(text.data(), "\xEF\xBB\xBF", 3) == 0)
        text.remove_prefix(3);
    // Quotes are libcsv's business. Past the line end that follows the last
    // quote, the text can be taken without it, provided that line end closed
    // a row: a quoted field still open there runs to the end of the file.
    std::size_t plainFrom = std::string_view::npos;
    if (reading.blocks) {
        const std::size_t lastQuote = text.rfind('"');
        plainFrom = lastQuote == std::string_view::npos ? 0 : text.find_first_of("\r\n", lastQuote);
    }
    if (plainFrom == 0) {
        TableBuilder builder(source, names, keepText);
        builder.AddPlainText(text, reading.blockRows);
        return builder.Finish();
    }
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
    const auto parse = [&](std::string_view part) {
        if (csv_parse(parser.get(), part.data(), part.size(), TableBuilder::OnField, TableBuilder::OnRowEnd,
                      &builder) != part.size()) {
            fail(csv_error(parser.get()) == CSV_EPARSE ? "a quote is misplaced (a quoted field must end at a comma "
                                                         "or a line end, and quotes inside it are doubled)"
                                                       : "out of memory");
        }
    };
    if (plainFrom != std::string_view::npos) {
        parse(text.substr(0, plainFrom));
        const std::uint64_t ends = builder.RowEndCalls();
        parse(text.substr(plainFrom, 1));
        if (builder.RowEndCalls() != ends) {
            builder.AddPlainText(text.substr(plainFrom + 1), reading.blockRows);
            return builder.Finish();
        }
        text.remove_prefix(plainFrom + 1);
    }
    parse(text);
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
    // A regular file is read in one piece into storage of its size, left
    // uninitialised: growing a string stream copied a large table several
    // times over. A pipe, or a file that grew meanwhile, is read as a stream.
    const std::uintmax_t size = std::filesystem::is_regular_file(path, ec) ? std::filesystem::file_size(path, ec) : 0;
    if (!ec && size > 0 && size < std::numeric_limits<std::size_t>::max() / 2) {
        const auto content = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(size));
        in.read(content.get(), static_cast<std::streamsize>(size));
        if (in.bad())
            throw ToolError(path + ": read error");
        const auto got = static_cast<std::size_t>(in.gcount());
        if (got < size || in.peek() == std::char_traits<char>::eof()) {
            if (in.bad())
                throw ToolError(path + ": read error");
            return ParseCsvTable(std::string_view(content.get(), got), path, names, keepText);
        }
        in.clear();
        in.seekg(0);
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        throw ToolError(path + ": read error");
    return ParseCsvTable(content.view(), path, names, keepText);
}

} // namespace veltan_cli
