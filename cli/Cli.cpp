#include "cli/Cli.h"

#include "cli/PcaCommand.h"
#include "cli/PlsCommand.h"
#include "cli/PredictCommand.h"
#include "cli/ToolError.h"
#include "cli/Version.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <CLI/CLI.hpp>

#include <map>
#include <new>

namespace veltan_cli {

namespace {

const std::map<std::string, NCScale::Scaling> ScaleNames{{"uv", NCScale::ScaleUnitVariance},
                                                         {"pareto", NCScale::ScalePareto},
                                                         {"center", NCScale::ScaleCenter},
                                                         {"none", NCScale::ScaleNone}};
const std::map<std::string, NamesColumn> NamesModes{
    {"auto", NamesColumn::Auto}, {"first", NamesColumn::First}, {"none", NamesColumn::None}};

const char* const ScaleHelp = "Column scaling: uv (unit variance), pareto, center, none";

const char* const NamesHelp = "Whether column 1 holds observation names: auto (when its header cell is empty or "
                              "its first value is text), first, none";

} // namespace

int RunVeltan(int argc, const char* const* argv, const std::string& bundledData, std::ostream& out, std::ostream& err)
{
    CLI::App app{"veltan: principal component analysis and PLS regression of CSV tables with cross-validation", "veltan"};
    app.set_version_flag("--version", std::string("veltan ") + Version());
    app.require_subcommand(1);

    PcaOptions pca;
    std::string scaleName = "uv";
    std::string pcaNames = "auto";
    CLI::App* pcaCommand = app.add_subcommand(
        "pca", "Fit a PCA model, one cross-validated component at a time, and print its component table. "
               "Without DATA, the bundled wine data set is analysed.");
    pcaCommand->add_option("data", pca.data, "CSV table: a header row of variable names, an optional first column "
                                             "of observation names; empty cells, NA and -99 are missing")
        ->type_name("DATA");
    pcaCommand->add_option("-c,--components", pca.components,
                           "Fit exactly N components instead of stopping at the first that is not significant")
        ->check(CLI::PositiveNumber);
    pcaCommand->add_option("-g,--cv-groups", pca.cvGroups,
                           "Number of cross-validation groups (default 7, or one per observation when fewer)")
        ->check(CLI::Range(2, 1000000));
    pcaCommand->add_option("--scale", scaleName, ScaleHelp)
        ->check(CLI::IsMember({"uv", "pareto", "center", "none"}))
        ->capture_default_str();
    pcaCommand->add_option("--log", pca.logVariables, "Take log10 of variable VAR before scaling (repeat for more)")
        ->type_name("VAR")
        ->allow_extra_args(false);
    pcaCommand->add_option("--names", pcaNames, NamesHelp)
        ->check(CLI::IsMember({"auto", "first", "none"}))
        ->capture_default_str();
    pcaCommand->add_option("--scores", pca.scoresPath, "Write the scores (observations x components) as CSV")
        ->type_name("FILE");
    pcaCommand->add_option("--loadings", pca.loadingsPath, "Write the loadings (variables x components) as CSV")
        ->type_name("FILE");
    pcaCommand->add_option("--save", pca.savePath, "Save the model with its scaling and transforms for predict")
        ->type_name("MODEL");
    pcaCommand->add_flag("--json", pca.json, "Print one JSON document instead of the table");
    pcaCommand->add_flag("--progress", pca.progress, "Draw the progress bar even when stderr is not a terminal");

    PlsOptions pls;
    std::string plsScale = "uv";
    std::string plsYScale;
    std::string plsNames = "auto";
    unsigned plsSeed = 0;
    CLI::App* plsCommand = app.add_subcommand(
        "pls", "Fit a PLS regression of responses on the other variables, one cross-validated component at a "
               "time, and print its component table. Without DATA, the bundled wine data set is used.");
    plsCommand->add_option("data", pls.data, "CSV table of the X variables, and of the responses named by --y")
        ->type_name("DATA");
    plsCommand->add_option("-y,--y", pls.yNames, "A response column (repeat for more); with --responses, the "
                                                 "columns of that table to use (default all)")
        ->type_name("NAME")
        ->allow_extra_args(false);
    plsCommand->add_option("--responses", pls.responsesData, "CSV table of the responses, row for row with DATA")
        ->type_name("YDATA");
    plsCommand->add_option("-c,--components", pls.components,
                           "Fit exactly N components instead of stopping at the first that is not significant")
        ->check(CLI::PositiveNumber);
    plsCommand->add_option("-g,--cv-groups", pls.cvGroups,
                           "Number of cross-validation groups (default 7, or one per observation when fewer)")
        ->check(CLI::Range(2, 1000000));
    plsCommand->add_option("--scale", plsScale,
                           "Scaling of the X columns, and of the responses unless --y-scale is given: uv (unit "
                           "variance), pareto, center, none")
        ->check(CLI::IsMember({"uv", "pareto", "center", "none"}))
        ->capture_default_str();
    plsCommand->add_option("--y-scale", plsYScale, "Scaling of the responses (default: as --scale)")
        ->check(CLI::IsMember({"uv", "pareto", "center", "none"}));
    plsCommand->add_option("--log", pls.logVariables,
                           "Take log10 of variable VAR, X or response, before scaling (repeat for more)")
        ->type_name("VAR")
        ->allow_extra_args(false);
    plsCommand->add_option("--names", plsNames, NamesHelp)
        ->check(CLI::IsMember({"auto", "first", "none"}))
        ->capture_default_str();
    plsCommand->add_option("--coefficients", pls.coefficientsPath,
                           "Write the regression coefficients (X variables x responses) as CSV")
        ->type_name("FILE");
    plsCommand->add_option("--fitted", pls.fittedPath, "Write the fitted responses as CSV")->type_name("FILE");
    plsCommand->add_option("--cv-predictions", pls.cvPredictionsPath,
                           "Write the cross-validated predictions of the responses as CSV")
        ->type_name("FILE");
    plsCommand->add_option("--scores", pls.scoresPath, "Write the X scores (observations x components) as CSV")
        ->type_name("FILE");
    plsCommand->add_option("--save", pls.savePath, "Save the model with its scaling and transforms for predict")
        ->type_name("MODEL");
    plsCommand->add_option("--permutations", pls.permutations,
                           "Refit to N shufflings of the responses and report the intercepts of R2Y and Q2")
        ->check(CLI::Range(1, 100000));
    CLI::Option* seedOption =
        plsCommand->add_option("--seed", plsSeed, "Seed of the shuffling (default: random, and reported)");
    plsCommand->add_option("--permutations-out", pls.permutationsPath,
                           "Write every permutation's correlation, R2Y(cum) and Q2(cum) as CSV")
        ->type_name("FILE");
    plsCommand->add_flag("--json", pls.json, "Print one JSON document instead of the table");
    plsCommand->add_flag("--progress", pls.progress, "Draw the progress bar even when stderr is not a terminal");

    PredictOptions predict;
    std::string predictNames = "auto";
    CLI::App* predictCommand =
        app.add_subcommand("predict", "Scores of new observations under a model saved by pca --save, or their "
                                      "predicted responses under one saved by pls --save");
    predictCommand->add_option("model", predict.model, "Model file written by pca --save or pls --save")
        ->type_name("MODEL")
        ->required();
    predictCommand->add_option("data", predict.data, "CSV table with the model's variables, in its order")
        ->type_name("DATA")
        ->required();
    predictCommand->add_option("--names", predictNames, NamesHelp)
        ->check(CLI::IsMember({"auto", "first", "none"}))
        ->capture_default_str();
    predictCommand->add_option("--scores", predict.scoresPath,
                               "Write the scores as CSV (for a PCA model: instead of printing them)")
        ->type_name("FILE");
    predictCommand->add_option("--predictions", predict.predictionsPath,
                               "PLS models: write the predicted responses as CSV instead of printing them")
        ->type_name("FILE");
    predictCommand->add_flag("--json", predict.json, "Print one JSON document");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e, out, err);
        return code == 0 ? ExitOk : ExitUsage;
    }

    std::string context;
    try {
        if (pcaCommand->parsed()) {
            if (pca.data.empty()) {
                pca.data = bundledData;
                pca.bundled = true;
            }
            pca.scale = ScaleNames.at(scaleName);
            pca.names = NamesModes.at(pcaNames);
            context = pca.data;
            return RunPca(pca, out);
        }
        if (plsCommand->parsed()) {
            if (pls.data.empty()) {
                pls.data = bundledData;
                pls.bundled = true;
            }
            pls.scale = ScaleNames.at(plsScale);
            pls.yScale = ScaleNames.at(plsYScale.empty() ? plsScale : plsYScale);
            pls.names = NamesModes.at(plsNames);
            if (seedOption->count() > 0)
                pls.seed = plsSeed;
            context = pls.data;
            return RunPls(pls, out);
        }
        predict.names = NamesModes.at(predictNames);
        context = predict.data;
        return RunPredict(predict, out);
    } catch (const ToolError& e) {
        err << "veltan: " << e.what() << "\n";
        return e.Code();
    } catch (const CancelException& e) {
        err << "veltan: " << e.what() << "\n";
        return ExitCancelled;
    } catch (const NCError& e) {
        err << "veltan: " << context << ": " << e.what() << "\n";
        return ExitDataError;
    } catch (const std::bad_alloc&) {
        err << "veltan: " << context << ": out of memory\n";
        return ExitDataError;
    } catch (const std::exception& e) {
        err << "veltan: " << context << ": " << e.what() << "\n";
        return ExitDataError;
    }
}

} // namespace veltan_cli
