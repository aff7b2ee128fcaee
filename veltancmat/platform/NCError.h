#pragma once

#include "veltancmat/platform/Exception.h"

#include <string>

// A numerical or argument error of the library.
class VELTANCMAT_API NCError : public Exception {
public:
    // Severity passed with every error. Callers rely on the numeric values.
    enum Level : int {
        Warning = 1, // the computation is impossible for this data (zero X-Y correlation)
        Error = 2,   // every other argument, size and state error
    };

    NCError();
    NCError(const ExceptionMessage& message, Level level);
    NCError(const ExceptionMessageList& messages, Level level);
    NCError(const NCError&) = default;
    NCError& operator=(const NCError&) = default;
    ~NCError() override;

    Level GetLevel() const { return m_level; }

private:
    Level m_level = Error;
};

// A broken internal invariant: a programming error rather than a user error.
class VELTANCMAT_API NCInternalError : public NCError {
public:
    explicit NCInternalError(const std::string& where);
    NCInternalError(const std::string& where, const ExceptionMessage& message);
    NCInternalError(const NCInternalError&) = default;
    ~NCInternalError() override;

    // The member that failed, e.g. "NCDataVector<FloatType>::Difference".
    const std::string& GetWhere() const { return m_where; }

private:
    std::string m_where;
};
