#include "cli/PcaModelFile.h"

#include "veltancmat/platform/BinaryIO.h"

#include <cstdint>

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PcaModelFile::MyStreamableData(FileVersion, "VeltanPCAModel");

PcaModelFile::PcaModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

PcaModelFile::~PcaModelFile() = default;

void PcaModelFile::ResetParts() const
{
    if (transform)
        transform->QvStreamableReset();
    scale.QvStreamableReset();
    pca.QvStreamableReset();
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

bool PcaModelFile::Read(std::istream& in)
{
    try {
        InputStreamDirectory directory(in);
        std::vector<std::string> readNames;
        if (!ReadNames(directory.GetRequiredInput(0, 4), readNames))
            return false;
        std::unique_ptr<NCTransform> readTransform;
        NCScale readScale;
        NCPCA readPca;
        if (!ReadTransform(directory, 1, readTransform) || !(directory.GetRequiredInput(2) >> readScale) ||
            !(directory.GetRequiredInput(3) >> readPca))
            return false;
        std::int32_t kept = 0, fitted = 0;
        directory.ReadRequired(4, &kept, 1, 4);
        directory.ReadRequired(5, &fitted, 1, 4);
        if (!directory.Close())
            return false;

        const int k = static_cast<int>(readNames.size());
        const NCDataMatrix<float>& pprim = *readPca.GetPprim();
        if (readScale.Size() != k || pprim.SizeColumns() != k || !Fits(readTransform, k) ||
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
