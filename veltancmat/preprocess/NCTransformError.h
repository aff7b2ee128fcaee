#pragma once

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCError.h"

#include <vector>

// A cell that could not be transformed, or a matrix that does not fit its
// transform list (row and column 0).
class VELTANCMAT_API NCTransformError : public NCError {
public:
    // Callers compare the numeric values.
    enum Error : int {
        Success = 1,
        OutOfDomain = 2, // outside the transform's domain, or a result that is not a finite float
        WrongSize = 3,   // "Matrix is of wrong size."
    };

    NCTransformError(int row, int column, Error code, const ExceptionMessage& message);
    NCTransformError(const NCTransformError&) = default;
    NCTransformError& operator=(const NCTransformError&) = default;
    ~NCTransformError() override;

    // A heap copy of the same dynamic type, for hosts that keep errors.
    virtual NCTransformError* Clone() const;

    int GetRow() const { return m_row; }
    int GetColumn() const { return m_column; }
    Error GetError() const { return m_code; }

private:
    int m_row;
    int m_column;
    Error m_code;
};

// The cells a column or matrix operation could not transform, one record per
// cell, in the order they were added (the operations add them column by
// column, each column top to bottom).
class VELTANCMAT_API NCTransformErrors {
public:
    struct Record {
        int row;
        int column;
        NCTransformError::Error code;
        bool forward; // false for a back-transform
        bool operator==(const Record&) const = default;
    };

    // How many records GetErrorMessage lists one by one.
    static constexpr int ListedErrors = 100;

    void AddError(int row, int column, NCTransformError::Error code, bool forward);
    void AppendErrors(const NCTransformErrors& other);

    const std::vector<Record>& GetErrors() const { return m_records; }
    int Size() const { return static_cast<int>(m_records.size()); }
    bool empty() const { return m_records.empty(); }

    // The first record as an exception: "Value could not be transformed."
    // (or "... back-transformed."). Throws NCInternalError when there is no
    // record.
    NCTransformError GetTransformError() const;
    // A report for the user: a heading, the first ListedErrors records one
    // per line, and how many more there were.
    ExceptionMessageList GetErrorMessage() const;

private:
    std::vector<Record> m_records;
};
