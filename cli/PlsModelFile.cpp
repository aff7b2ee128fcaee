#include "cli/PlsModelFile.h"

#include "veltancmat/platform/BinaryIO.h"

#include <cstdint>

namespace veltan_cli {

namespace {
constexpr short FileVersion = 1;
}

QvStreamableData PlsModelFile::MyStreamableData(FileVersion, "VeltanPLSModel");

PlsModelFile::PlsModelFile() : ModelFileRecord(MyStreamableData, FileVersion) {}

PlsModelFile::~PlsModelFile() = default;

void PlsModelFile::ResetParts() const
{
    if (transform)
        transform->QvStreamableReset();
    if (yTransform)
        yTransform->QvStreamableReset();
    scale.QvStreamableReset();
    yScale.QvStreamableReset();
    pls.QvStreamableReset();
}

bool PlsModelFile::Write(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 9);
    bool ok = WriteNames(variables, directory.GetOutput(0));
    if (transform)
        directory.GetOutput(1) << *transform;
    directory.GetOutput(2) << scale;
    ok = ok && WriteNames(responses, directory.GetOutput(3));
    if (yTransform)
        directory.GetOutput(4) << *yTransform;
    directory.GetOutput(5) << yScale;
    directory.GetOutput(6) << pls;
    const std::int32_t kept = components;
    const std::int32_t fitted = observations;
    ok = ok && WriteFourBytes(&kept, 1, directory.GetOutput(7));
    ok = ok && WriteFourBytes(&fitted, 1, directory.GetOutput(8));
    return directory.Close() && ok && out.good();
}

bool PlsModelFile::Read(std::istream& in)
{
    try {
        InputStreamDirectory directory(in);
        std::vector<std::string> readVariables, readResponses;
        std::unique_ptr<NCTransform> readTransform, readYTransform;
        NCScale readScale, readYScale;
        NCPLS readPls;
        if (!ReadNames(directory.GetRequiredInput(0, 4), readVariables) ||
            !ReadTransform(directory, 1, readTransform) || !(directory.GetRequiredInput(2) >> readScale) ||
            !ReadNames(directory.GetRequiredInput(3, 4), readResponses) ||
            !ReadTransform(directory, 4, readYTransform) || !(directory.GetRequiredInput(5) >> readYScale) ||
            !(directory.GetRequiredInput(6) >> readPls))
            return false;
        std::int32_t kept = 0, fitted = 0;
        directory.ReadRequired(7, &kept, 1, 4);
        directory.ReadRequired(8, &fitted, 1, 4);
        if (!directory.Close())
            return false;

        const int k = static_cast<int>(readVariables.size());
        const int m = static_cast<int>(readResponses.size());
        const NCDataMatrix<float>& wprim = *readPls.GetWprim();
        const NCDataMatrix<float>& pprim = *readPls.GetPprim();
        const NCDataMatrix<float>& cprim = *readPls.GetCprim();
        // Matrices without rows need not keep their widths through a stream.
        const bool widths = kept == 0 || (wprim.SizeColumns() == k && pprim.SizeColumns() == k &&
                                          cprim.SizeColumns() == m);
        if (readScale.Size() != k || readYScale.Size() != m || !Fits(readTransform, k) ||
            !Fits(readYTransform, m) || !widths || kept != pprim.SizeRows() || kept != wprim.SizeRows() ||
            kept != cprim.SizeRows() || fitted < 0)
            return false;
        variables = std::move(readVariables);
        transform = std::move(readTransform);
        scale = readScale;
        responses = std::move(readResponses);
        yTransform = std::move(readYTransform);
        yScale = readYScale;
        pls = readPls;
        components = kept;
        observations = fitted;
        return in.good();
    } catch (const QvStreamError&) {
        return false;
    }
}

std::unique_ptr<PlsModelFile> LoadPlsModel(const std::string& path)
{
    auto model = std::make_unique<PlsModelFile>();
    LoadModelRecord(path, *model, PlsModelFile::MyStreamableData, FileVersion, "PLS");
    return model;
}

} // namespace veltan_cli
