#pragma once

#include <ostream>
#include <string>

namespace veltan_cli {

// The whole tool: parses the command line, runs the subcommand, reports
// every failure as one "veltan: ..." line on err and returns the exit code
// (see ToolError.h). bundledData is the table `veltan pca` fits when it is
// given none.
int RunVeltan(int argc, const char* const* argv, const std::string& bundledData, std::ostream& out,
              std::ostream& err);

} // namespace veltan_cli
