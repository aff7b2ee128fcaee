#include "cli/CsvWriter.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <csv.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace veltan_cli {

namespace {

std::string SystemReason(int error) { return std::strerror(error); }

bool NeedsQuotes(const std::string& field)
{
    if (field.empty())
        return false;
    if (field.front() == ' ' || field.front() == '\t' || field.back() == ' ' || field.back() == '\t')
        return true;
    return field.find_first_of(",\"\r\n") != std::string::npos;
}

} // namespace

AtomicFile::AtomicFile(std::string path) : m_path(std::move(path))
{
    const std::filesystem::path target(m_path);
    std::filesystem::path folder = target.parent_path();
    if (folder.empty())
        folder = ".";
    std::string pattern = (folder / ("." + target.filename().string() + ".XXXXXX")).string();
    const int fd = mkstemp(pattern.data());
    if (fd < 0)
        throw ToolError(m_path + ": cannot create: " + SystemReason(errno));
    // mkstemp makes the file private; give it the mode a plain create would.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    close(fd);
    m_temp = pattern;
    m_out.open(m_temp, std::ios::binary | std::ios::trunc);
    if (!m_out) {
        std::remove(m_temp.c_str());
        throw ToolError(m_path + ": cannot write");
    }
}

AtomicFile::~AtomicFile()
{
    if (!m_committed) {
        m_out.close();
        std::remove(m_temp.c_str());
    }
}

void AtomicFile::Commit()
{
    m_out.flush();
    const bool written = m_out.good();
    m_out.close();
    if (!written || m_out.fail())
        throw ToolError(m_path + ": write error (disk full?)");
    if (std::rename(m_temp.c_str(), m_path.c_str()) != 0)
        throw ToolError(m_path + ": cannot replace: " + SystemReason(errno));
    m_committed = true;
}

std::ostream& OutputFiles::Add(const std::string& path)
{
    m_files.push_back(std::make_unique<AtomicFile>(path));
    return m_files.back()->Stream();
}

void OutputFiles::CommitAll()
{
    for (auto& file : m_files)
        file->Commit();
}

std::string FormatValue(float value)
{
    if (IsMisVal(value))
        return {};
    char buffer[32];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value);
    return ec == std::errc() ? std::string(buffer, end) : std::string();
}

void WriteCsvRecord(std::ostream& out, const std::vector<std::string>& fields)
{
    std::string line;
    for (std::size_t c = 0; c < fields.size(); ++c) {
        if (c > 0)
            line += ',';
        const std::string& field = fields[c];
        if (!NeedsQuotes(field)) {
            line += field;
            continue;
        }
        // libcsv writes the quoted form: surrounding quotes, inner ones doubled.
        std::string quoted(field.size() * 2 + 2, '\0');
        const std::size_t size = csv_write(quoted.data(), quoted.size(), field.data(), field.size());
        quoted.resize(size);
        line += quoted;
    }
    line += '\n';
    out << line;
}

void WriteTransposedCsv(std::ostream& out, const std::string& corner, const std::vector<std::string>& rowNames,
                        const std::vector<std::string>& columnNames, const NCDataMatrix<float>& prim)
{
    std::vector<std::string> fields;
    fields.reserve(columnNames.size() + 1);
    fields.push_back(corner);
    fields.insert(fields.end(), columnNames.begin(), columnNames.end());
    WriteCsvRecord(out, fields);
    const int columns = static_cast<int>(columnNames.size());
    for (std::size_t r = 0; r < rowNames.size(); ++r) {
        fields.clear();
        fields.push_back(rowNames[r]);
        for (int a = 1; a <= columns; ++a)
            fields.push_back(FormatValue(prim[a][static_cast<int>(r) + 1]));
        WriteCsvRecord(out, fields);
    }
}

void WriteTableCsv(std::ostream& out, const std::string& corner, const std::vector<std::string>& rowNames,
                   const std::vector<std::string>& columnNames, const NCDataMatrix<float>& values)
{
    std::vector<std::string> fields{corner};
    fields.insert(fields.end(), columnNames.begin(), columnNames.end());
    WriteCsvRecord(out, fields);
    for (std::size_t r = 0; r < rowNames.size(); ++r) {
        fields.assign(1, rowNames[r]);
        for (std::size_t c = 1; c <= columnNames.size(); ++c)
            fields.push_back(FormatValue(values[static_cast<int>(r) + 1][static_cast<int>(c)]));
        WriteCsvRecord(out, fields);
    }
}

} // namespace veltan_cli
