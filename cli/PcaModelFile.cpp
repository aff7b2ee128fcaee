#include "cli/PcaModelFile.h"

#include "cli/ModelFile.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"

#include <cstdint>

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
    bool ok = WriteNames(variables, directory.GetOutput(0));
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
        std::vector<std::string> readNames;
        if (!ReadNames(directory.GetRequiredInput(0, 4), readNames))
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

        const int k = static_cast<int>(readNames.size());
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
    WriteModelRecord(model, out, path);
}

std::unique_ptr<PcaModelFile> LoadModel(const std::string& path)
{
    auto model = std::make_unique<PcaModelFile>();
    LoadModelRecord(path, *model, PcaModelFile::MyStreamableData, FileVersion, "PCA");
    return model;
}

} // namespace veltan_cli
