#pragma once

#include "cli/CommonOptions.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <ostream>
#include <string>

namespace veltan_cli {

// One `veltan` subcommand: it declares its own options and runs from them.
// A new command is one file pair implementing this and one line in
// CommandList.h.
class Command {
public:
    virtual ~Command() = default;

    // Adds the subcommand, with its options bound to the object, to `tool`.
    virtual CLI::App& Register(CLI::App& tool) = 0;

    // Runs once the command line has been parsed. `bundledData` is the table
    // a command may fall back on without DATA. Returns the exit code; throws
    // ToolError, CancelException or library errors for the caller to report.
    virtual int Run(const std::string& bundledData, std::ostream& out) = 0;

    // The file a library error is reported against: the table being read.
    virtual std::string Context() const = 0;
};

// A command reading one table: it keeps its options and the --names choice
// as typed, and before running resolves the choice and, when its options
// allow it (a `bundled` member), the bundled table in place of a missing
// DATA. The derived command declares its options in Register and runs in
// Execute.
template <class Options>
class TableCommand : public Command {
public:
    int Run(const std::string& bundledData, std::ostream& out) final
    {
        if constexpr (requires(Options& o) { o.bundled = true; })
            m_options.bundled = UseBundledTable(m_options.data, bundledData);
        m_options.names = NamesColumnNamed(m_names);
        return Execute(out);
    }
    std::string Context() const final { return m_options.data; }

protected:
    virtual int Execute(std::ostream& out) = 0;

    Options m_options;
    std::string m_names = "auto";
};

// The factories of the commands CommandList.h names.
#define VELTAN_COMMAND(Name) std::unique_ptr<Command> Make##Name##Command();
#include "cli/CommandList.h"
#undef VELTAN_COMMAND

} // namespace veltan_cli
