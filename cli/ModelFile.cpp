#include "cli/ModelFile.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace veltan_cli {

namespace {

std::ifstream OpenModelFile(const std::string& path)
{
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw ToolError(path + ": is a folder, not a model file");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ToolError(path + ": cannot open: " + std::strerror(errno != 0 ? errno : ENOENT));
    return in;
}

} // namespace

bool ModelFileRecord::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, m_header, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return Write(out); });
}

bool ModelFileRecord::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, m_header, m_version, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] {
            // A record cut short throws from deep inside a part's reader.
            try {
                return Read(in);
            } catch (const QvStreamError&) {
                return false;
            }
        });
}

void ModelFileRecord::QvStreamableReset() const
{
    m_streaming = false;
    ResetParts();
    QvStreamBase::QvStreamableReset();
}

bool ReadTransform(InputStreamDirectory& directory, unsigned short index, std::unique_ptr<NCTransform>& transform)
{
    if (std::istream* entry = directory.GetInput(index)) {
        transform = std::make_unique<NCTransform>();
        return static_cast<bool>(*entry >> *transform);
    }
    return true;
}

bool ModelFileRecord::WriteCounts(OutputStreamDirectory& directory, unsigned short index) const
{
    const std::int32_t kept = components;
    const std::int32_t fitted = observations;
    const bool ok = WriteFourBytes(&kept, 1, directory.GetOutput(index));
    return ok && WriteFourBytes(&fitted, 1, directory.GetOutput(static_cast<unsigned short>(index + 1)));
}

bool ModelFileRecord::ReadCounts(InputStreamDirectory& directory, unsigned short index, std::int32_t& kept,
                                 std::int32_t& fitted)
{
    directory.ReadRequired(index, &kept, 1, 4);
    directory.ReadRequired(static_cast<unsigned short>(index + 1), &fitted, 1, 4);
    return fitted >= 0;
}

bool ModelFileRecord::KeepCounts(std::int32_t kept, std::int32_t fitted, const std::istream& in)
{
    components = kept;
    observations = fitted;
    return in.good();
}

bool WriteBlock(OutputStreamDirectory& directory, unsigned short first, const std::vector<std::string>& names,
                const std::unique_ptr<NCTransform>& transform, const NCScale& scale)
{
    const bool ok = WriteNames(names, directory.GetOutput(first));
    if (transform)
        directory.GetOutput(static_cast<unsigned short>(first + 1)) << *transform;
    directory.GetOutput(static_cast<unsigned short>(first + 2)) << scale;
    return ok;
}

bool ReadBlock(InputStreamDirectory& directory, unsigned short first, std::vector<std::string>& names,
               std::unique_ptr<NCTransform>& transform, NCScale& scale)
{
    return ReadNames(directory.GetRequiredInput(first, 4), names) &&
           ReadTransform(directory, static_cast<unsigned short>(first + 1), transform) &&
           static_cast<bool>(directory.GetRequiredInput(static_cast<unsigned short>(first + 2)) >> scale);
}

bool BlockFits(const std::vector<std::string>& names, const std::unique_ptr<NCTransform>& transform,
               const NCScale& scale)
{
    const int k = static_cast<int>(names.size());
    return scale.Size() == k && Fits(transform, k);
}

void ResetBlock(const std::unique_ptr<NCTransform>& transform, const NCScale& scale)
{
    if (transform)
        transform->QvStreamableReset();
    scale.QvStreamableReset();
}

bool RegressionBlocks::WriteBlocks(OutputStreamDirectory& directory) const
{
    const bool ok = WriteBlock(directory, 0, variables, transform, scale);
    return WriteBlock(directory, 3, responses, yTransform, yScale) && ok;
}

bool RegressionBlocks::ReadBlocks(InputStreamDirectory& directory)
{
    return ReadBlock(directory, 0, variables, transform, scale) &&
           ReadBlock(directory, 3, responses, yTransform, yScale);
}

bool RegressionBlocks::BlocksFit() const
{
    return BlockFits(variables, transform, scale) && BlockFits(responses, yTransform, yScale);
}

void RegressionBlocks::ResetBlocks() const
{
    ResetBlock(transform, scale);
    ResetBlock(yTransform, yScale);
}

bool WriteNames(const std::vector<std::string>& names, std::ostream& out)
{
    const auto count = static_cast<std::uint32_t>(names.size());
    bool ok = WriteFourBytes(&count, 1, out);
    for (const std::string& name : names)
        ok = ok && WriteBinaryString(name, out);
    return ok;
}

bool ReadNames(std::istream& in, std::vector<std::string>& names)
{
    std::uint32_t count = 0;
    // Every name takes at least its 4-byte length: a damaged count cannot
    // make us allocate more than the entry could hold.
    if (!ReadFourBytes(&count, 1, in) || !QvStreamHasBytes(in, std::streamsize(count) * 4))
        return false;
    std::vector<std::string> read(count);
    for (std::string& name : read)
        if (!ReadBinaryString(name, in))
            return false;
    names = std::move(read);
    return true;
}

void WriteModelRecord(const QvStreamBase& model, std::ostream& out, const std::string& path)
{
    model.QvStreamableReset();
    out << model;
    model.QvStreamableReset();
    if (!out)
        throw ToolError(path + ": the model could not be written");
}

void LoadModelRecord(const std::string& path, QvStreamBase& model, const QvStreamableData& data, short version,
                     const std::string& kind)
{
    std::ifstream in = OpenModelFile(path);
    bool ok = false;
    try {
        ok = static_cast<bool>(in >> model);
    } catch (const QvStreamError&) {
        ok = false;
    }
    model.QvStreamableReset();
    if (ok)
        return;
    // The header check has just run and remembered what it found.
    const short found = data.GetQvStreamVersionNumber();
    if (found < 0)
        throw ToolError(path + ": not a veltan " + kind + " model file");
    if (found != version)
        throw ToolError(path + ": model file version " + std::to_string(found) +
                        " is not supported (this veltan reads version " + std::to_string(version) + ")");
    throw ToolError(path + ": the model file is damaged or incomplete");
}

std::string ModelFileMagic(const std::string& path)
{
    std::ifstream in = OpenModelFile(path);
    const int length = in.get();
    if (length <= 0)
        return {};
    std::string magic(static_cast<std::size_t>(length), '\0');
    if (!in.read(magic.data(), length))
        return {};
    for (const char c : magic)
        if (!std::isprint(static_cast<unsigned char>(c)))
            return {};
    return magic;
}

} // namespace veltan_cli
