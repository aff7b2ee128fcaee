#include "cli/PlsModelFile.h"

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PlsModelFile::MyStreamableData(FileVersion, "VeltanPLSModel");

PlsModelFile::PlsModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

void PlsModelFile::ResetParts() const
{
    ResetBlock(transform, scale);
    ResetBlock(yTransform, yScale);
    pls.QvStreamableReset();
}

bool PlsModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 9);
    bool ok = WriteBlock(directory, 0, variables, transform, scale);
    ok = WriteBlock(directory, 3, responses, yTransform, yScale) && ok;
    directory.GetOutput(6) << pls;
    ok = WriteCounts(directory, 7) && ok;
    return directory.Close() && ok && out.good();
}

namespace {

// Matrices without rows need not keep their widths through a stream.
bool ModelFits(const NCPLS& pls, int kept, int k, int m)
{
    const NCDataMatrix<float>& wprim = *pls.GetWprim();
    const NCDataMatrix<float>& pprim = *pls.GetPprim();
    const NCDataMatrix<float>& cprim = *pls.GetCprim();
    const bool widths =
        kept == 0 || (wprim.SizeColumns() == k && pprim.SizeColumns() == k && cprim.SizeColumns() == m);
    return widths && kept == pprim.SizeRows() && kept == wprim.SizeRows() && kept == cprim.SizeRows();
}

} // namespace

bool PlsModelFile::Read(std::istream& in)
{
    InputStreamDirectory directory(in);
    std::vector<std::string> readVariables, readResponses;
    std::unique_ptr<NCTransform> readTransform, readYTransform;
    NCScale readScale, readYScale;
    NCPLS readPls;
    std::int32_t kept = 0, fitted = 0;
    if (!ReadBlock(directory, 0, readVariables, readTransform, readScale) ||
        !ReadBlock(directory, 3, readResponses, readYTransform, readYScale) ||
        !(directory.GetRequiredInput(6) >> readPls) || !ReadCounts(directory, 7, kept, fitted) ||
        !directory.Close())
        return false;
    if (!BlockFits(readVariables, readTransform, readScale) ||
        !BlockFits(readResponses, readYTransform, readYScale) ||
        !ModelFits(readPls, kept, static_cast<int>(readVariables.size()), static_cast<int>(readResponses.size())))
        return false;
    variables = std::move(readVariables);
    transform = std::move(readTransform);
    scale = readScale;
    responses = std::move(readResponses);
    yTransform = std::move(readYTransform);
    yScale = readYScale;
    pls = readPls;
    return KeepCounts(kept, fitted, in);
}

std::unique_ptr<PlsModelFile> LoadPlsModel(const std::string& path)
{
    return LoadModelFile<PlsModelFile>(path, FileVersion, "PLS");
}

} // namespace veltan_cli
