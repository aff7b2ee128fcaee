#include "cli/PlsModelFile.h"

#include "cli/ModelFile.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"

#include <cstdint>

namespace veltan_cli {

namespace {

constexpr short FileVersion = 1;

// An optional transform entry; false for a damaged one.
bool ReadTransform(InputStreamDirectory& directory, unsigned short index, std::unique_ptr<NCTransform>& transform)
{
    if (std::istream* entry = directory.GetInput(index)) {
        transform = std::make_unique<NCTransform>();
        return static_cast<bool>(*entry >> *transform);
    }
    return true;
}

bool Fits(const std::unique_ptr<NCTransform>& transform, int width)
{
    return !transform || transform->Size() == width;
}

} // namespace

QvStreamableData PlsModelFile::MyStreamableData(FileVersion, "VeltanPLSModel");

PlsModelFile::~PlsModelFile() = default;

bool PlsModelFile::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return Write(out); });
}

bool PlsModelFile::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, FileVersion, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return Read(in); });
}

void PlsModelFile::QvStreamableReset() const
{
    m_streaming = false;
    if (transform)
        transform->QvStreamableReset();
    if (yTransform)
        yTransform->QvStreamableReset();
    scale.QvStreamableReset();
    yScale.QvStreamableReset();
    pls.QvStreamableReset();
    QvStreamBase::QvStreamableReset();
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

// Read into fresh objects and kept only when the whole record agrees with
// itself, so a damaged file never yields a half-loaded model.
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
