#include "cli/PlsModelFile.h"

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PlsModelFile::MyStreamableData(FileVersion, "VeltanPLSModel");

PlsModelFile::PlsModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

void PlsModelFile::ResetParts() const
{
    ResetBlocks();
    pls.QvStreamableReset();
}

bool PlsModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 9);
    bool ok = WriteBlocks(directory);
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
    RegressionBlocks blocks;
    NCPLS readPls;
    std::int32_t kept = 0, fitted = 0;
    if (!blocks.ReadBlocks(directory) || !(directory.GetRequiredInput(6) >> readPls) ||
        !ReadCounts(directory, 7, kept, fitted) || !directory.Close())
        return false;
    if (!blocks.BlocksFit() ||
        !ModelFits(readPls, kept, static_cast<int>(blocks.variables.size()), static_cast<int>(blocks.responses.size())))
        return false;
    RegressionBlocks::operator=(std::move(blocks));
    pls = readPls;
    return KeepCounts(kept, fitted, in);
}

std::unique_ptr<PlsModelFile> LoadPlsModel(const std::string& path)
{
    return LoadModelFile<PlsModelFile>(path, FileVersion, "PLS");
}

} // namespace veltan_cli
