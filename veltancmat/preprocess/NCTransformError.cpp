#include "veltancmat/preprocess/NCTransformError.h"

#include <algorithm>
#include <string>

namespace {

const char* CellText(bool forward)
{
    return forward ? "Value could not be transformed." : "Value could not be back-transformed.";
}

} // namespace

NCTransformError::NCTransformError(int row, int column, Error code, const ExceptionMessage& message)
    : NCError(message, NCError::Error), m_row(row), m_column(column), m_code(code)
{
}

NCTransformError::~NCTransformError() = default;

NCTransformError* NCTransformError::Clone() const
{
    return new NCTransformError(*this);
}

void NCTransformErrors::AddError(int row, int column, NCTransformError::Error code, bool forward)
{
    m_records.push_back({row, column, code, forward});
}

void NCTransformErrors::AppendErrors(const NCTransformErrors& other)
{
    // Indexed, after the reserve, so that appending a list to itself is safe.
    const std::size_t n = other.m_records.size();
    m_records.reserve(m_records.size() + n);
    for (std::size_t k = 0; k < n; ++k)
        m_records.push_back(other.m_records[k]);
}

NCTransformError NCTransformErrors::GetTransformError() const
{
    if (m_records.empty())
        throw NCInternalError("NCTransformErrors::GetTransformError");
    const Record& first = m_records.front();
    return NCTransformError(first.row, first.column, first.code, ExceptionMessage::translate(CellText(first.forward)));
}

ExceptionMessageList NCTransformErrors::GetErrorMessage() const
{
    ExceptionMessageList list;
    list << ExceptionMessage::translate("Unable to transform all values. The matrix might be partly transformed.\n")
         << ExceptionMessage::translate("\n\n");
    // Each text is translated once; the copies only take their arguments.
    const ExceptionMessage position = ExceptionMessage::translate("row:{1}, column:{2} ");
    const ExceptionMessage forward = ExceptionMessage::translate(CellText(true));
    const ExceptionMessage backward = ExceptionMessage::translate(CellText(false));
    const ExceptionMessage lineBreak = ExceptionMessage::translate("\n");
    const std::size_t listed = std::min<std::size_t>(m_records.size(), ListedErrors);
    for (std::size_t k = 0; k < listed; ++k) {
        const Record& record = m_records[k];
        ExceptionMessage where = position;
        list << (where % std::to_string(record.row) % std::to_string(record.column))
             << (record.forward ? forward : backward) << lineBreak;
    }
    if (m_records.size() > listed) {
        list << (ExceptionMessage::translate(
                     "At the end of a list of errors. {1} is the number of errors that we don't list",
                     "\n({1} more errors)\n")
                 % std::to_string(m_records.size() - listed));
    }
    return list;
}
