#pragma once

#include <stdexcept>
#include <string>

namespace veltan_cli {

// Exit codes of the tool; scripts rely on them.
enum ExitCode : int {
    ExitOk = 0,
    ExitDataError = 1, // bad input data, unreadable files, numerical failure
    ExitUsage = 2,     // bad options (the same code CLI11's errors are mapped to)
    ExitCancelled = 130,
};

// A failure the user can act on. what() is the complete one-line message
// without the "veltan: " prefix, usually starting with the file it concerns.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& message, ExitCode code = ExitDataError)
        : std::runtime_error(message), m_code(code)
    {
    }
    ExitCode Code() const { return m_code; }

private:
    ExitCode m_code;
};

// A usage error: the options or the arguments are wrong (exit 2).
inline ToolError Usage(const std::string& message) { return ToolError(message, ExitUsage); }

// A name as error messages show it: in double quotes.
inline std::string Quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

} // namespace veltan_cli
