#include "cli/PcaModelFile.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PcaModelFile::MyStreamableData(FileVersion, "VeltanPCAModel");

PcaModelFile::~PcaModelFile() = default;

bool PcaModelFile::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return Write(out); });
}

bool PcaModelFile::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, FileVersion, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return Read(in); });
}

void PcaModelFile::QvStreamableReset() const
{
    m_streaming = false;
    if (transform)
        transform->QvStreamableReset();
    scale.QvStreamableReset();
    pca.QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}

bool PcaModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 6);
    std::ostream& names = directory.GetOutput(0);
    const auto count = static_cast<std::uint32_t>(variables.size());
    bool ok = WriteFourBytes(&count, 1, names);
    for (const std::string& name : variables)
        ok = ok && WriteBinaryString(name, names);
    if (transform)
        directory.GetOutput(1) << *transform;
    directory.GetOutput(2) << scale;
    directory.GetOutput(3) << pca;
    const std::int32_t kept = components;
    const std::int32_t fitted = observations;
    ok = ok && WriteFourBytes(&kept, 1, directory.GetOutput(4));
    ok = ok && WriteFourBytes(&fitted, 1, directory.GetOutput(5));
    return directory.Close() && ok && out.good();
}

// Read into fresh objects and kept only when the whole record agrees with
// itself, so a damaged file never yields a half-loaded model.
bool PcaModelFile::Read(std::istream& in)
{
    try {
        InputStreamDirectory directory(in);
        std::istream& names = directory.GetRequiredInput(0, 4);
        std::uint32_t count = 0;
        if (!ReadFourBytes(&count, 1, names) || !QvStreamHasBytes(names, std::streamsize(count) * 4))
            return false;
        std::vector<std::string> readNames(count);
        for (std::string& name : readNames)
            if (!ReadBinaryString(name, names))
                return false;
        std::unique_ptr<NCTransform> readTransform;
        if (std::istream* entry = directory.GetInput(1)) {
            readTransform = std::make_unique<NCTransform>();
            if (!(*entry >> *readTransform))
                return false;
        }
        NCScale readScale;
        if (!(directory.GetRequiredInput(2) >> readScale))
            return false;
        NCPCA readPca;
        if (!(directory.GetRequiredInput(3) >> readPca))
            return false;
        std::int32_t kept = 0, fitted = 0;
        directory.ReadRequired(4, &kept, 1, 4);
        directory.ReadRequired(5, &fitted, 1, 4);
        if (!directory.Close())
            return false;

        const int k = static_cast<int>(count);
        const NCDataMatrix<float>& pprim = *readPca.GetPprim();
        if (readScale.Size() != k || pprim.SizeColumns() != k || (readTransform && readTransform->Size() != k) ||
            kept != pprim.SizeRows() || fitted < 0)
            return false;
        variables = std::move(readNames);
        transform = std::move(readTransform);
        scale = readScale;
        pca = readPca;
        components = kept;
        observations = fitted;
        return in.good();
    } catch (const QvStreamError&) {
        return false;
    }
}

void WriteModel(const PcaModelFile& model, std::ostream& out, const std::string& path)
{
    model.QvStreamableReset();
    out << model;
    model.QvStreamableReset();
    if (!out)
        throw ToolError(path + ": the model could not be written");
}

std::unique_ptr<PcaModelFile> LoadModel(const std::string& path)
{
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec))
        throw ToolError(path + ": is a folder, not a model file");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ToolError(path + ": cannot open: " + std::strerror(errno != 0 ? errno : ENOENT));
    auto model = std::make_unique<PcaModelFile>();
    bool ok = false;
    try {
        ok = static_cast<bool>(in >> *model);
    } catch (const QvStreamError&) {
        ok = false;
    }
    model->QvStreamableReset();
    if (ok)
        return model;
    // The header check has just run and remembered what it found.
    const short found = PcaModelFile::MyStreamableData.GetQvStreamVersionNumber();
    if (found < 0)
        throw ToolError(path + ": not a veltan PCA model file");
    if (found != FileVersion)
        throw ToolError(path + ": model file version " + std::to_string(found) +
                        " is not supported (this veltan reads version " + std::to_string(FileVersion) + ")");
    throw ToolError(path + ": the model file is damaged or incomplete");
}

} // namespace veltan_cli
