#include "cli/O2plsModelFile.h"

#include <cstdint>
#include <initializer_list>
#include <utility>

namespace veltan_cli {

namespace {

constexpr short FileVersion = 1;

enum Entry : unsigned short { Wprim = 6, Cprim, Btu, But, WOXprim, POXprim, WOYprim, POYprim, Counts, EntryCount = 16 };

// Matrices without rows need not keep their widths through a stream, so
// widths are checked only where there are rows.
bool Shaped(const NCDataMatrix<float>& m, int rows, int columns)
{
    return m.SizeRows() == rows && (rows == 0 || m.SizeColumns() == columns);
}

bool ModelFits(const O2plsModelFile& model, int joint)
{
    const int k = static_cast<int>(model.variables.size()), m = static_cast<int>(model.responses.size());
    return joint >= 0 && Shaped(model.wprim, joint, k) && Shaped(model.cprim, joint, m) &&
           Shaped(model.btu, joint, joint) && Shaped(model.but, joint, joint) &&
           model.woxprim.SizeRows() == model.poxprim.SizeRows() && Shaped(model.woxprim, model.woxprim.SizeRows(), k) &&
           Shaped(model.poxprim, model.poxprim.SizeRows(), k) && model.woyprim.SizeRows() == model.poyprim.SizeRows() &&
           Shaped(model.woyprim, model.woyprim.SizeRows(), m) && Shaped(model.poyprim, model.poyprim.SizeRows(), m);
}

// A matrix without rows read back may have lost its width; the predictor
// checks widths, so it gets them again.
void Widen(NCDataMatrix<float>& m, int columns)
{
    if (m.SizeRows() == 0)
        m = NCDataMatrix<float>(0, columns);
}

} // namespace

QvStreamableData O2plsModelFile::MyStreamableData(FileVersion, "VeltanO2PLSModel");

O2plsModelFile::O2plsModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

void O2plsModelFile::ResetParts() const
{
    ResetBlocks();
    for (const NCDataMatrix<float>* m : {&wprim, &cprim, &btu, &but, &woxprim, &poxprim, &woyprim, &poyprim})
        m->QvStreamableReset();
}

bool O2plsModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, EntryCount);
    bool ok = WriteBlocks(directory);
    unsigned short entry = Wprim;
    for (const NCDataMatrix<float>* m : {&wprim, &cprim, &btu, &but, &woxprim, &poxprim, &woyprim, &poyprim})
        ok = (directory.GetOutput(entry++) << *m).good() && ok;
    ok = WriteCounts(directory, Counts) && ok;
    return directory.Close() && ok && out.good();
}

bool O2plsModelFile::Read(std::istream& in)
{
    InputStreamDirectory directory(in);
    O2plsModelFile read;
    std::int32_t joint = 0, fitted = 0;
    if (!read.ReadBlocks(directory))
        return false;
    unsigned short entry = Wprim;
    for (NCDataMatrix<float>* m :
         {&read.wprim, &read.cprim, &read.btu, &read.but, &read.woxprim, &read.poxprim, &read.woyprim, &read.poyprim})
        if (!(directory.GetRequiredInput(entry++) >> *m))
            return false;
    if (!ReadCounts(directory, Counts, joint, fitted) || !directory.Close())
        return false;
    if (!read.BlocksFit() || !ModelFits(read, joint))
        return false;
    const int k = static_cast<int>(read.variables.size()), m = static_cast<int>(read.responses.size());
    for (auto [matrix, width] : {std::pair{&read.wprim, k}, std::pair{&read.woxprim, k}, std::pair{&read.poxprim, k},
                                 std::pair{&read.cprim, m}, std::pair{&read.woyprim, m}, std::pair{&read.poyprim, m}})
        Widen(*matrix, width);
    RegressionBlocks::operator=(std::move(read));
    wprim = std::move(read.wprim);
    cprim = std::move(read.cprim);
    btu = std::move(read.btu);
    but = std::move(read.but);
    woxprim = std::move(read.woxprim);
    poxprim = std::move(read.poxprim);
    woyprim = std::move(read.woyprim);
    poyprim = std::move(read.poyprim);
    return KeepCounts(joint, fitted, in);
}

std::unique_ptr<O2plsModelFile> LoadO2plsModel(const std::string& path)
{
    return LoadModelFile<O2plsModelFile>(path, FileVersion, "O2PLS");
}

} // namespace veltan_cli
