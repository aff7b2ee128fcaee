#include "cli/OplsModelFile.h"

#include "veltancmat/platform/BinaryIO.h"

#include <cstdint>

namespace veltan_cli {

namespace {

constexpr short FileVersion = 1;

enum Entry : unsigned short { WList = 6, PList, CList, WOprim, POprim, COprim, Counts, EntryCount = 14 };

bool WriteMatrices(const OplsModelFile::MatrixList& list, std::ostream& out)
{
    const auto count = static_cast<std::int32_t>(list.size());
    bool ok = WriteFourBytes(&count, 1, out);
    for (const NCDataMatrix<float>& m : list)
        ok = ok && (out << m).good();
    return ok;
}

bool ReadMatrices(std::istream& in, OplsModelFile::MatrixList& list)
{
    std::int32_t count = 0;
    // A matrix record takes more than four bytes: a damaged count cannot
    // make us allocate more than the entry could hold.
    if (!ReadFourBytes(&count, 1, in) || count < 0 || !QvStreamHasBytes(in, std::streamsize(count) * 4))
        return false;
    OplsModelFile::MatrixList read(static_cast<std::size_t>(count));
    for (NCDataMatrix<float>& m : read)
        if (!(in >> m))
            return false;
    list = std::move(read);
    return true;
}

// Matrices without rows need not keep their widths through a stream, so
// widths are checked only where there are rows.
bool Shaped(const NCDataMatrix<float>& m, int rows, int columns)
{
    return m.SizeRows() == rows && (rows == 0 || m.SizeColumns() == columns);
}

bool ModelFits(const OplsModelFile& model, int orthogonal)
{
    const int k = static_cast<int>(model.variables.size()), m = static_cast<int>(model.responses.size());
    const int a = model.Predictive();
    if (orthogonal < 0 || a < 1 || model.wList.size() != static_cast<std::size_t>(orthogonal) + 1 ||
        model.pList.size() != model.wList.size() || model.cList.size() != model.wList.size())
        return false;
    for (std::size_t s = 0; s < model.wList.size(); ++s)
        if (!Shaped(model.wList[s], a, k) || !Shaped(model.pList[s], a, k) || !Shaped(model.cList[s], a, m))
            return false;
    return Shaped(model.woprim, orthogonal, k) && Shaped(model.poprim, orthogonal, k) &&
           Shaped(model.coprim, orthogonal, m);
}

// A matrix without rows read back may have lost its width; the predictor
// checks widths, so it gets them again.
void Widen(NCDataMatrix<float>& m, int columns)
{
    if (m.SizeRows() == 0)
        m = NCDataMatrix<float>(0, columns);
}

} // namespace

QvStreamableData OplsModelFile::MyStreamableData(FileVersion, "VeltanOPLSModel");

OplsModelFile::OplsModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

void OplsModelFile::ResetParts() const
{
    ResetBlocks();
    for (const MatrixList* list : {&wList, &pList, &cList})
        for (const NCDataMatrix<float>& m : *list)
            m.QvStreamableReset();
    for (const NCDataMatrix<float>* m : {&woprim, &poprim, &coprim})
        m->QvStreamableReset();
}

bool OplsModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, EntryCount);
    bool ok = WriteBlocks(directory);
    ok = WriteMatrices(wList, directory.GetOutput(WList)) && ok;
    ok = WriteMatrices(pList, directory.GetOutput(PList)) && ok;
    ok = WriteMatrices(cList, directory.GetOutput(CList)) && ok;
    ok = (directory.GetOutput(WOprim) << woprim).good() && ok;
    ok = (directory.GetOutput(POprim) << poprim).good() && ok;
    ok = (directory.GetOutput(COprim) << coprim).good() && ok;
    ok = WriteCounts(directory, Counts) && ok;
    return directory.Close() && ok && out.good();
}

bool OplsModelFile::Read(std::istream& in)
{
    InputStreamDirectory directory(in);
    OplsModelFile read;
    std::int32_t kept = 0, fitted = 0;
    if (!read.ReadBlocks(directory) || !ReadMatrices(directory.GetRequiredInput(WList), read.wList) ||
        !ReadMatrices(directory.GetRequiredInput(PList), read.pList) ||
        !ReadMatrices(directory.GetRequiredInput(CList), read.cList) ||
        !(directory.GetRequiredInput(WOprim) >> read.woprim) || !(directory.GetRequiredInput(POprim) >> read.poprim) ||
        !(directory.GetRequiredInput(COprim) >> read.coprim) || !ReadCounts(directory, Counts, kept, fitted) ||
        !directory.Close())
        return false;
    if (!read.BlocksFit() || !ModelFits(read, kept))
        return false;
    const int k = static_cast<int>(read.variables.size()), m = static_cast<int>(read.responses.size());
    Widen(read.woprim, k);
    Widen(read.poprim, k);
    Widen(read.coprim, m);
    RegressionBlocks::operator=(std::move(read));
    wList = std::move(read.wList);
    pList = std::move(read.pList);
    cList = std::move(read.cList);
    woprim = std::move(read.woprim);
    poprim = std::move(read.poprim);
    coprim = std::move(read.coprim);
    return KeepCounts(kept, fitted, in);
}

std::unique_ptr<OplsModelFile> LoadOplsModel(const std::string& path)
{
    return LoadModelFile<OplsModelFile>(path, FileVersion, "OPLS");
}

} // namespace veltan_cli
