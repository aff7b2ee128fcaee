#include "veltancmat/preprocess/NCTransform.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/preprocess/TransformKernel.h"

#include <cstdint>

namespace {

// The fewest bytes a "TS" record can take: its header (5 bytes for the
// magic "TS") and an empty directory (4). A claimed count is checked
// against the bytes present before anything is read.
constexpr std::streamsize MinRecordBytes = 9;

} // namespace

QvStreamableData NCTransform::MyStreamableData(2, "NCT");

NCTransform::NCTransform(int n)
{
    if (n < 0)
        throw NCInternalError("NCTransform::NCTransform");
    m_transforms.resize(static_cast<std::size_t>(n));
}

NCTransform::NCTransform(const NCTransform& other) : QvStreamBase(other), m_transforms(other.m_transforms) {}

NCTransform& NCTransform::operator=(const NCTransform& other)
{
    m_transforms = other.m_transforms;
    return *this;
}

NCTransform::~NCTransform() = default;

TransformStruct& NCTransform::operator[](int col)
{
    if (col < 1 || col > Size())
        throw NCInternalError("NCTransform::operator[]");
    return m_transforms[static_cast<std::size_t>(col - 1)];
}

const TransformStruct& NCTransform::operator[](int col) const
{
    if (col < 1 || col > Size())
        throw NCInternalError("NCTransform::operator[]");
    return m_transforms[static_cast<std::size_t>(col - 1)];
}

void NCTransform::SetSize(int n)
{
    if (n < 0)
        throw NCInternalError("NCTransform::SetSize");
    m_transforms.resize(static_cast<std::size_t>(n));
}

void NCTransform::RemoveValues(int first, int n)
{
    if (n < 0 || first < 1 || first - 1 > Size() - n)
        throw NCInternalError("NCTransform::RemoveValues");
    const auto begin = m_transforms.begin() + (first - 1);
    m_transforms.erase(begin, begin + n);
}

void NCTransform::Remove(const IndexList& columns)
{
    std::vector<bool> removed(m_transforms.size(), false);
    for (const int col : columns)
        if (col >= 1 && col <= Size())
            removed[static_cast<std::size_t>(col - 1)] = true;
    std::vector<TransformStruct> kept;
    kept.reserve(m_transforms.size());
    for (std::size_t k = 0; k < m_transforms.size(); ++k)
        if (!removed[k])
            kept.push_back(m_transforms[k]);
    m_transforms = std::move(kept);
}

void NCTransform::Reduce(const IndexList& columns)
{
    std::vector<TransformStruct> kept;
    kept.reserve(static_cast<std::size_t>(columns.Size()));
    for (const int col : columns) {
        if (col < 1 || col > Size())
            throw NCInternalError("NCTransform::Reduce", ExceptionMessage::translate("Index out of range."));
        kept.push_back(m_transforms[static_cast<std::size_t>(col - 1)]);
    }
    m_transforms = std::move(kept);
}

void NCTransform::CheckMatrix(const NCDataMatrix<float>* m, const char* member) const
{
    if (!m)
        throw NCInternalError(member);
    if (m->SizeColumns() != Size())
        throw NCTransformError(0, 0, NCTransformError::WrongSize, ExceptionMessage::translate("Matrix is of wrong size."));
}

namespace {

// Slot j holds column j's transform; slot 0 is unused.
std::vector<NCTransformKernel::Coefficients> KernelCoefficients(const std::vector<TransformStruct>& transforms)
{
    std::vector<NCTransformKernel::Coefficients> k(transforms.size() + 1, NCTransformKernel::Coefficients{});
    for (std::size_t j = 0; j < transforms.size(); ++j)
        k[j + 1] = NCTransformKernel::MakeCoefficients(transforms[j].GetTransform(), transforms[j].GetConstants());
    return k;
}

} // namespace

void NCTransform::TransformMatrix(NCDataMatrix<float>* m) const
{
    CheckMatrix(m, "NCTransform::TransformMatrix");
    NCTransformKernel::TransformMatrix(KernelCoefficients(m_transforms), *m);
}

std::unique_ptr<NCTransformErrors> NCTransform::TransformMatrixNoBreak(NCDataMatrix<float>* m) const
{
    CheckMatrix(m, "NCTransform::TransformMatrixNoBreak");
    return NCTransformKernel::TransformMatrixNoBreak(KernelCoefficients(m_transforms), *m);
}

// ---------------------------------------------------------------- streaming

bool NCTransform::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

bool NCTransform::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 2);
    const std::int32_t count = Size();
    bool ok = WriteFourBytes(&count, 1, directory.GetOutput(0));
    if (count > 0) {
        std::ostream& entry = directory.GetOutput(1);
        for (const TransformStruct& transform : m_transforms)
            ok = ok && (entry << transform).good();
    }
    return directory.Close() && ok && out.good();
}

bool NCTransform::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 2, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

bool NCTransform::QvStreamableRead(std::istream& in)
{
    std::vector<TransformStruct> fresh;
    try {
        InputStreamDirectory directory(in);
        std::int32_t count = 0;
        directory.ReadRequired(0, &count, 1, 4);
        if (count < 0)
            return false;
        if (count > 0) {
            std::istream& entry = directory.GetRequiredInput(1, count * MinRecordBytes);
            fresh.reserve(static_cast<std::size_t>(count));
            for (std::int32_t k = 0; k < count; ++k) {
                TransformStruct transform;
                if (!(entry >> transform))
                    return false;
                fresh.push_back(transform);
            }
        }
        if (!directory.Close() || !in.good())
            return false;
    } catch (const QvStreamError&) {
        return false;
    }
    m_transforms = std::move(fresh);
    return true;
}

void NCTransform::QvStreamableReset() const
{
    m_streaming = false;
    for (const TransformStruct& transform : m_transforms)
        transform.QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}
