#pragma once

#include "cli/CsvTable.h"
#include "cli/ModelFile.h"
#include "cli/RunSkeleton.h"

#include "veltancmat/preprocess/NCScale.h"

#include <CLI/CLI.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// Where a regression command (pls, opls) finds its predictors and
// responses: one table split by the response names, or a second table
// holding the responses row for row with the first.
struct XYSources {
    std::string data;                // X, and Y too when responsesData is empty
    std::string responsesData;       // a second table holding the responses
    std::vector<std::string> yNames; // response columns (all of responsesData when empty)
    NamesColumn names = NamesColumn::Auto;
};

// The predictor and response blocks of a fit, each naming its own file's
// rows and columns in messages.
struct XYTables {
    DataTable x;
    DataTable y;
};

// Reads the one table (split by --y) or the two tables of `sources`.
// Throws ToolError for absent or repeated response names (usage), tables
// of different lengths or with observation names that disagree, and a
// response without a single value. `command` leads the message asking for
// responses when none were named.
XYTables ReadXYTables(const XYSources& sources, const std::string& command);

// --log names a variable of either block; each block gets its own list.
// A name in neither is a usage error.
void SplitLogVariables(const XYTables& data, const std::vector<std::string>& names, std::vector<std::string>& x,
                       std::vector<std::string>& y);

// Preprocesses both blocks (log10 of the listed variables of either, then
// the scaling of each) into x and y, recording names, transforms and scaling
// in `blocks`. Throws ToolError as FitPreprocessing does.
void FitXYPreprocessing(const XYTables& data, const std::vector<std::string>& logVariables, NCScale::Scaling xScale,
                        NCScale::Scaling yScale, RegressionBlocks& blocks, NCDataMatrix<float>& x,
                        NCDataMatrix<float>& y);

// The --fitted and --cv-predictions files of a regression: observations x
// responses in the responses' own units.
void AddResponseTables(RunOutputs& files, const XYTables& data, const std::string& fittedPath,
                       const NCDataMatrix<float>& fitted, const std::string& cvPath,
                       const NCDataMatrix<float>& cvPredicted);

// How a regression was set up, as the first line of its report:
// "<model> of <tables>: <sizes> (<responses>); X ..., Y ..., <groups>".
struct XYSetup {
    const char* model;
    bool bundled;
    NCScale::Scaling xScale;
    NCScale::Scaling yScale;
    std::size_t logVariables;
    int cvGroups;
};
void PrintXYHeading(std::ostream& out, const XYTables& data, const XYSetup& setup);

// DATA, --y NAME and --responses YDATA, bound to `sources`.
void AddXYArguments(CLI::App& command, XYSources& sources);

// --scale, --y-scale (the option's texts) and --log VAR of either block.
void AddXYPreprocessingOptions(CLI::App& command, std::string& scale, std::string& yScale,
                               std::vector<std::string>& logVariables);

} // namespace veltan_cli
