#include "veltancmat/preprocess/TransformStruct.h"

#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/ConfigSection.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/preprocess/TransformKernel.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>

namespace {

constexpr const char* TypeKey = "TransformType";
constexpr const char* ConstantsKey = "Constants";

// -1, 0 or +1; numbers by value (so 0 == -0), every NaN equal to every
// other and after all numbers. Plain < on floats is no strict weak order
// once a NaN is involved.
int CompareConstant(float a, float b)
{
    const bool nanA = std::isnan(a);
    const bool nanB = std::isnan(b);
    if (nanA || nanB)
        return nanA == nanB ? 0 : (nanA ? 1 : -1);
    return a < b ? -1 : (b < a ? 1 : 0);
}

// How many constants the formula of a type uses: C1..C3 for Power, C1 and C2
// for the others, none for None.
int ConstantsUsed(TransformE::Transform type)
{
    switch (TransformE::Normalized(type)) {
    case TransformE::None:
        return 0;
    case TransformE::Power:
        return 3;
    default:
        return 2;
    }
}

} // namespace

QvStreamableData TransformStruct::MyStreamableData(1, "TS");

TransformStruct::TransformStruct(TransformE::Transform transform, float c1, float c2, float c3)
    : m_transform(transform), m_constants{c1, c2, c3}
{
}

TransformStruct::TransformStruct(const TransformStruct& other) noexcept
    : QvStreamBase(other), m_transform(other.m_transform), m_constants(other.m_constants)
{
}

TransformStruct& TransformStruct::operator=(const TransformStruct& other) noexcept
{
    m_transform = other.m_transform;
    m_constants = other.m_constants;
    return *this;
}

TransformStruct::~TransformStruct() = default;

bool TransformStruct::operator==(const TransformStruct& other) const
{
    if (m_transform != other.m_transform)
        return false;
    for (int k = 0; k < 3; ++k)
        if (CompareConstant(m_constants[k], other.m_constants[k]) != 0)
            return false;
    return true;
}

bool TransformStruct::operator<(const TransformStruct& other) const
{
    if (m_transform != other.m_transform)
        return m_transform < other.m_transform;
    for (int k = 0; k < 3; ++k)
        if (const int order = CompareConstant(m_constants[k], other.m_constants[k]); order != 0)
            return order < 0;
    return false;
}

float TransformStruct::GetConstant(int i) const
{
    if (i < 1 || i > 3)
        throw NCInternalError("TransformStruct::GetConstant");
    return m_constants[static_cast<std::size_t>(i - 1)];
}

void TransformStruct::SetConstant(int i, float value)
{
    if (i < 1 || i > 3)
        throw NCInternalError("TransformStruct::SetConstant");
    m_constants[static_cast<std::size_t>(i - 1)] = value;
}

std::string TransformStruct::GetTransformName() const
{
    return TransformE::GetTransformName(m_transform);
}

std::string TransformStruct::ToString(bool withConstants) const
{
    std::string text = GetTransformName();
    const int used = withConstants ? ConstantsUsed(m_transform) : 0;
    char number[32];
    for (int k = 0; k < used; ++k) {
        text += k == 0 ? " (C" : ", C";
        text += static_cast<char>('1' + k);
        text += '=';
        text.append(number, std::to_chars(number, number + sizeof number, m_constants[static_cast<std::size_t>(k)]).ptr);
    }
    if (used > 0)
        text += ')';
    return text;
}

NCTransformError::Error TransformStruct::TransformValue(float* v) const
{
    if (!v)
        throw NCInternalError("TransformStruct::TransformValue");
    return NCTransformKernel::TransformValue(NCTransformKernel::MakeCoefficients(m_transform, m_constants), true, v);
}

NCTransformError::Error TransformStruct::BackTransformValue(float* v) const
{
    if (!v)
        throw NCInternalError("TransformStruct::BackTransformValue");
    return NCTransformKernel::TransformValue(NCTransformKernel::MakeCoefficients(m_transform, m_constants), false, v);
}

std::unique_ptr<NCTransformErrors> TransformStruct::TransformColumn(NCDataMatrix<float>* m, int col) const
{
    return RunColumn(m, col, true, "TransformStruct::TransformColumn");
}

std::unique_ptr<NCTransformErrors> TransformStruct::BackTransformColumn(NCDataMatrix<float>* m, int col) const
{
    return RunColumn(m, col, false, "TransformStruct::BackTransformColumn");
}

std::unique_ptr<NCTransformErrors> TransformStruct::RunColumn(NCDataMatrix<float>* m, int col, bool forward,
                                                              const char* member) const
{
    if (!m || col < 1 || col > m->SizeColumns())
        throw NCInternalError(member);
    return NCTransformKernel::TransformColumn(NCTransformKernel::MakeCoefficients(m_transform, m_constants), *m, col,
                                              forward);
}

void TransformStruct::Save(ConfigSection& section) const
{
    section.SetInt(TypeKey, m_transform);
    section.SetFloats(ConstantsKey, {m_constants[0], m_constants[1], m_constants[2]});
}

void TransformStruct::Load(const ConfigSection& section)
{
    const long long type = section.GetInt(TypeKey);
    const std::vector<float> constants = section.GetFloats(ConstantsKey);
    if (type < INT_MIN || type > INT_MAX)
        throw NCError(ExceptionMessage::translate("The setting \"{1}\" is not {2}.") % TypeKey
                          % ExceptionMessage::translate("a transform type").str(),
                      NCError::Error);
    if (constants.size() != 3)
        throw NCError(ExceptionMessage::translate("The setting \"{1}\" is not {2}.") % ConstantsKey
                          % ExceptionMessage::translate("three numbers").str(),
                      NCError::Error);
    m_transform = static_cast<TransformE::Transform>(type);
    m_constants = {constants[0], constants[1], constants[2]};
}

// ---------------------------------------------------------------- streaming

bool TransformStruct::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

bool TransformStruct::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 2);
    const std::int32_t type = m_transform;
    bool ok = WriteFourBytes(&type, 1, directory.GetOutput(0));
    ok = WriteFourBytes(m_constants.data(), 3, directory.GetOutput(1)) && ok;
    return directory.Close() && ok && out.good();
}

bool TransformStruct::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 1, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

bool TransformStruct::QvStreamableRead(std::istream& in)
{
    std::int32_t type = 0;
    std::array<float, 3> constants{};
    try {
        InputStreamDirectory directory(in);
        directory.ReadRequired(0, &type, 1, 4);
        directory.ReadRequired(1, constants.data(), 3, 4);
        if (!directory.Close() || !in.good())
            return false;
    } catch (const QvStreamError&) {
        return false;
    }
    m_transform = static_cast<TransformE::Transform>(type);
    m_constants = constants;
    return true;
}

void TransformStruct::QvStreamableReset() const
{
    m_streaming = false;
    QvStreamBase::QvStreamableReset();
}
