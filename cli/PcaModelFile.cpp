#include "cli/PcaModelFile.h"

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PcaModelFile::MyStreamableData(FileVersion, "VeltanPCAModel");

PcaModelFile::PcaModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

void PcaModelFile::ResetParts() const
{
    ResetBlock(transform, scale);
    pca.QvStreamableReset();
}

bool PcaModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 6);
    bool ok = WriteBlock(directory, 0, variables, transform, scale);
    directory.GetOutput(3) << pca;
    ok = WriteCounts(directory, 4) && ok;
    return directory.Close() && ok && out.good();
}

bool PcaModelFile::Read(std::istream& in)
{
    InputStreamDirectory directory(in);
    std::vector<std::string> readNames;
    std::unique_ptr<NCTransform> readTransform;
    NCScale readScale;
    NCPCA readPca;
    std::int32_t kept = 0, fitted = 0;
    if (!ReadBlock(directory, 0, readNames, readTransform, readScale) ||
        !(directory.GetRequiredInput(3) >> readPca) || !ReadCounts(directory, 4, kept, fitted) ||
        !directory.Close())
        return false;
    const NCDataMatrix<float>& pprim = *readPca.GetPprim();
    if (!BlockFits(readNames, readTransform, readScale) ||
        pprim.SizeColumns() != static_cast<int>(readNames.size()) || kept != pprim.SizeRows())
        return false;
    variables = std::move(readNames);
    transform = std::move(readTransform);
    scale = readScale;
    pca = readPca;
    return KeepCounts(kept, fitted, in);
}

void WriteModel(const PcaModelFile& model, std::ostream& out, const std::string& path)
{
    WriteModelRecord(model, out, path);
}

std::unique_ptr<PcaModelFile> LoadModel(const std::string& path)
{
    return LoadModelFile<PcaModelFile>(path, FileVersion, "PCA");
}

} // namespace veltan_cli
