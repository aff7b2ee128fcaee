#include "cli/Cli.h"

#include "cli/Command.h"
#include "cli/ThreadsOption.h"
#include "cli/ToolError.h"
#include "cli/Version.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <CLI/CLI.hpp>

#include <new>
#include <utility>
#include <vector>

namespace veltan_cli {

namespace {

// Runs the command and turns every failure into one line on err and its
// exit code. Library errors name the table being read.
int RunReported(Command& command, const std::string& bundledData, std::ostream& out, std::ostream& err)
{
    try {
        return command.Run(bundledData, out);
    } catch (const ToolError& e) {
        err << "veltan: " << e.what() << "\n";
        return e.Code();
    } catch (const CancelException& e) {
        err << "veltan: " << e.what() << "\n";
        return ExitCancelled;
    } catch (const NCError& e) {
        err << "veltan: " << command.Context() << ": " << e.what() << "\n";
        return ExitDataError;
    } catch (const std::bad_alloc&) {
        err << "veltan: " << command.Context() << ": out of memory\n";
        return ExitDataError;
    } catch (const std::exception& e) {
        err << "veltan: " << command.Context() << ": " << e.what() << "\n";
        return ExitDataError;
    }
}

} // namespace

int RunVeltan(int argc, const char* const* argv, const std::string& bundledData, std::ostream& out, std::ostream& err)
{
    CLI::App app{"veltan: principal component analysis, PLS, OPLS and O2PLS regression of CSV tables with cross-validation, "
                 "control charts, normality tests, capability and histograms of measured series, Fisher's exact "
                 "test, and hierarchical clustering of observations",
                 "veltan"};
    app.set_version_flag("--version", std::string("veltan ") + Version());
    app.require_subcommand(1);

    std::vector<std::pair<std::unique_ptr<Command>, CLI::App*>> commands;
#define VELTAN_COMMAND(Name) commands.emplace_back(Make##Name##Command(), nullptr);
#include "cli/CommandList.h"
#undef VELTAN_COMMAND
    // Every command takes --threads, added here so that no command has to.
    std::string threads;
    for (auto& [command, parsed] : commands) {
        parsed = &command->Register(app);
        AddThreadsOption(*parsed, threads);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e, out, err);
        return code == 0 ? ExitOk : ExitUsage;
    }
    try {
        UseThreads(ThreadCount(threads));
    } catch (const ToolError& e) {
        err << "veltan: " << e.what() << "\n";
        return e.Code();
    }
    for (auto& [command, parsed] : commands)
        if (parsed->parsed())
            return RunReported(*command, bundledData, out, err);
    return ExitUsage; // unreachable: CLI11 requires one subcommand
}

} // namespace veltan_cli
