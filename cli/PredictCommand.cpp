#include "cli/PredictCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/JsonOutput.h"
#include "cli/ModelFile.h"
#include "cli/Preprocess.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/models/NCOPLSPred.h"
#include "veltancmat/models/NCPCAPred.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/models/NipalsDefaults.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace veltan_cli {

NCDataMatrix<float> PredictScores(PcaModelFile& model, const std::string& modelPath, const DataTable& table)
{
    CheckModelVariables(model.variables, modelPath, table);
    NCDataMatrix<float> x = ApplyPreprocessing(table, model.transform.get(), model.scale);
    const NCDataMatrix<float>& pprim = *model.pca.GetPprim();
    if (pprim.SizeRows() == 0)
        return NCDataMatrix<float>(0, table.Observations());
    NCPCAPred pred(&x, &pprim, NCNipals::DefaultMaxIterations, MaxMissingFraction);
    return pred.GetTPredPrim();
}

namespace {

// The model's X variables out of `table`, found by name: a table laid out
// as the training table, responses included, is taken as it is.
DataTable ModelVariables(const std::vector<std::string>& variables, const std::vector<std::string>& responses,
                         const std::string& modelPath, const DataTable& table)
{
    std::vector<int> columns;
    for (std::size_t j = 0; j < variables.size(); ++j) {
        const int found = table.Find(variables[j]);
        if (found == 0)
            throw ToolError(table.source + ": no variable \"" + variables[j] + "\", which the model " + modelPath +
                            " has as X variable " + std::to_string(j + 1));
        columns.push_back(found);
    }
    for (int j = 1; j <= table.Variables(); ++j) {
        const std::string& name = table.variables[static_cast<std::size_t>(j - 1)];
        if (std::find(columns.begin(), columns.end(), j) == columns.end() &&
            std::find(responses.begin(), responses.end(), name) == responses.end())
            throw ToolError(table.Where(0, j) + ": not a variable of the model " + modelPath);
    }
    return SelectVariables(table, columns);
}

// The predictors score every row from whatever it has; as for PLS, a row
// missing most of its values gets nothing rather than a guess.
void BlankSparseRows(const NCDataMatrix<float>& x, NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores,
                     NCDataMatrix<float>& orthogonalScores)
{
    const int n = x.SizeRows(), k = x.SizeColumns();
    for (int i = 1; i <= n; ++i) {
        int missing = 0;
        for (int j = 1; j <= k; ++j)
            missing += IsMisVal(x[i][j]) ? 1 : 0;
        if (static_cast<float>(missing) <= MaxMissingFraction * static_cast<float>(k))
            continue;
        for (NCDataMatrix<float>* m : {&scores, &orthogonalScores})
            for (int a = 1; a <= m->SizeRows(); ++a)
                (*m)(a, i, NCMisVal<float>);
        for (int j = 1; j <= predictions.SizeColumns(); ++j)
            predictions(i, j, NCMisVal<float>);
    }
}

} // namespace

void PredictResponses(PlsModelFile& model, const std::string& modelPath, const DataTable& table,
                      NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores)
{
    NCDataMatrix<float> x = ApplyPreprocessing(ModelVariables(model.variables, model.responses, modelPath, table),
                                               model.transform.get(), model.scale);
    const int n = table.Observations(), m = static_cast<int>(model.responses.size());
    const int a = model.components;
    scores = NCDataMatrix<float>(a, n);
    predictions = NCDataMatrix<float>(n, m, 0.0f);
    if (a > 0) {
        NCPLSPred pred(&x, *model.pls.GetWprim(), *model.pls.GetPprim(), *model.pls.GetCprim(),
                       MaxMissingFraction);
        for (int c = 1; c <= a; ++c) {
            pred.CalcNextComponent();
            scores.SetRow(c, pred);
        }
        predictions = pred.GetYPred();
        // A row without a score has no prediction either.
        for (int i = 1; i <= n; ++i)
            if (IsMisVal(scores[a][i]))
                for (int j = 1; j <= m; ++j)
                    predictions(i, j, NCMisVal<float>);
    }
    UndoPreprocessing(predictions, model.yTransform.get(), model.yScale);
}

void PredictOplsResponses(OplsModelFile& model, const std::string& modelPath, const DataTable& table,
                          NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores,
                          NCDataMatrix<float>& orthogonalScores)
{
    const DataTable columns = ModelVariables(model.variables, model.responses, modelPath, table);
    NCDataMatrix<float> x = ApplyPreprocessing(columns, model.transform.get(), model.scale);
    NCOPLSPred pred(&x, model.wList, model.pList, model.cList, model.woprim, model.poprim, model.coprim);
    for (int o = 1; o <= pred.GetMaxComp(); ++o)
        pred.CalcNextComponent();
    predictions = *pred.GetYPred();
    scores = *pred.GetTPred();
    orthogonalScores = *pred.GetTOPred();
    BlankSparseRows(x, predictions, scores, orthogonalScores);
    UndoPreprocessing(predictions, model.yTransform.get(), model.yScale);
}

O2plsPrediction PredictO2pls(O2plsModelFile& model, const std::string& modelPath, const DataTable& table)
{
    const auto found = [&](const std::vector<std::string>& names) {
        const auto count = std::count_if(names.begin(), names.end(), [&](const auto& n) { return table.Find(n); });
        return static_cast<double>(count) / static_cast<double>(std::max<std::size_t>(names.size(), 1));
    };
    O2plsPrediction result;
    result.fromX = found(model.variables) >= found(model.responses);
    const std::vector<std::string>& own = result.fromX ? model.variables : model.responses;
    const std::vector<std::string>& other = result.fromX ? model.responses : model.variables;
    const DataTable columns = ModelVariables(own, other, modelPath, table);
    NCDataMatrix<float> rows =
        result.fromX ? ApplyPreprocessing(columns, model.transform.get(), model.scale)
                     : ApplyPreprocessing(columns, model.yTransform.get(), model.yScale);
    const NCO2PLSPred pred = result.fromX
                                 ? NCO2PLSPred(rows, model.woxprim, model.poxprim, model.wprim, model.btu,
                                               model.cprim, true)
                                 : NCO2PLSPred(rows, model.woyprim, model.poyprim, model.cprim, model.but,
                                               model.wprim, false);
    result.predictions = pred.GetPrediction();
    result.scores = pred.GetJointScores();
    result.orthogonalScores = pred.GetOrthogonalScores();
    BlankSparseRows(rows, result.predictions, result.scores, result.orthogonalScores);
    if (result.fromX)
        UndoPreprocessing(result.predictions, model.yTransform.get(), model.yScale);
    else
        UndoPreprocessing(result.predictions, model.transform.get(), model.scale);
    return result;
}

namespace {

// The run shared by both kinds of model: nothing to draw a bar for, but a
// Ctrl-C meanwhile must still keep a temporary file from being left behind.
RunSteps PredictSteps(const PredictOptions& options, std::function<void(NCProgress&)> compute)
{
    RunSteps steps;
    steps.json = options.json;
    steps.compute = std::move(compute);
    return steps;
}

// What a regression model gives for a table: its predicted responses and
// its scores, one row of scores per component.
struct ResponsePrediction {
    std::unique_ptr<DataTable> table;
    std::vector<std::string> responses;
    NCDataMatrix<float> predictions;
    NCDataMatrix<float> scores;
    std::vector<std::string> scoreNames;
    std::string components; // "2 components" in the scores file's announcement
    const char* predictedWord = "response"; // what the predicted columns are
};

// The run of a PLS or OPLS prediction: the predicted responses to the file
// or stdout, the scores on request. `predict` loads the model and predicts
// the table (both read inside the run), `document` gives the JSON text.
int RunResponsePredict(
    const PredictOptions& options, std::ostream& out, const std::function<void(ResponsePrediction&)>& predict,
    const std::function<std::string(const ResponsePrediction&, const std::vector<WrittenFile>&)>& document)
{
    ResponsePrediction result;
    RunSteps steps = PredictSteps(options, [&](NCProgress&) {
        result.table = std::make_unique<DataTable>(ReadCsvTable(options.data, options.names));
        predict(result);
    });
    const auto writeCsv = [&](std::ostream& file, bool scores) {
        const DataTable& table = *result.table;
        if (scores)
            WriteTransposedCsv(file, ObservationHeader(table), table.observations, result.scoreNames, result.scores);
        else
            WriteTableCsv(file, ObservationHeader(table), table.observations, result.responses, result.predictions);
    };
    steps.write = [&](RunOutputs& files) {
        files.Add("predictions", options.predictionsPath, [&](std::ostream& file) { writeCsv(file, false); },
                  "Predicted " + Plural(static_cast<int>(result.responses.size()), result.predictedWord) + " of " +
                      Plural(result.table->Observations(), "observation") + " written to " + options.predictionsPath);
        // Without a predictions file the predictions are the output, and
        // the scores file goes unannounced.
        files.Add("scores", options.scoresPath, [&](std::ostream& file) { writeCsv(file, true); },
                  options.predictionsPath.empty()
                      ? ""
                      : "Scores on " + result.components + " written to " + options.scoresPath);
    };
    steps.document = [&](const std::vector<WrittenFile>& files) { return document(result, files); };
    steps.report = [&](std::ostream& report) {
        if (options.predictionsPath.empty())
            writeCsv(report, false);
    };
    return RunCommand(steps, out);
}

int RunPlsPredict(const PredictOptions& options, std::ostream& out)
{
    const auto predict = [&](ResponsePrediction& result) {
        std::unique_ptr<PlsModelFile> model = LoadPlsModel(options.model);
        PredictResponses(*model, options.model, *result.table, result.predictions, result.scores);
        result.responses = model->responses;
        result.scoreNames = Numbered("t", result.scores.SizeRows());
        result.components = Plural(result.scores.SizeRows(), "component");
    };
    return RunResponsePredict(options, out, predict, [&](const ResponsePrediction& r, const auto& files) {
        return PlsPredictJson(options, *r.table, r.responses, r.predictions, r.scores, files);
    });
}

int RunOplsPredict(const PredictOptions& options, std::ostream& out)
{
    NCDataMatrix<float> predictive, orthogonal;
    const auto predict = [&](ResponsePrediction& result) {
        std::unique_ptr<OplsModelFile> model = LoadOplsModel(options.model);
        PredictOplsResponses(*model, options.model, *result.table, result.predictions, predictive, orthogonal);
        result.responses = model->responses;
        result.scores = predictive;
        result.scoreNames = Numbered("t", predictive.SizeRows());
        for (int o = 1; o <= orthogonal.SizeRows(); ++o) {
            result.scores.push_back(orthogonal[o]);
            result.scoreNames.push_back("to" + std::to_string(o));
        }
        result.components = std::to_string(predictive.SizeRows()) + " predictive + " +
                            std::to_string(orthogonal.SizeRows()) + " orthogonal components";
    };
    return RunResponsePredict(options, out, predict, [&](const ResponsePrediction& r, const auto& files) {
        return OplsPredictJson(options, *r.table, r.responses, r.predictions, predictive, orthogonal, files);
    });
}

int RunO2plsPredict(const PredictOptions& options, std::ostream& out)
{
    O2plsPrediction prediction;
    const auto predict = [&](ResponsePrediction& result) {
        std::unique_ptr<O2plsModelFile> model = LoadO2plsModel(options.model);
        prediction = PredictO2pls(*model, options.model, *result.table);
        result.responses = prediction.fromX ? model->responses : model->variables;
        result.predictedWord = prediction.fromX ? "Y variable" : "X variable";
        result.predictions = prediction.predictions;
        result.scores = prediction.scores;
        result.scoreNames = Numbered(prediction.fromX ? "t" : "u", prediction.scores.SizeRows());
        for (int o = 1; o <= prediction.orthogonalScores.SizeRows(); ++o) {
            result.scores.push_back(prediction.orthogonalScores[o]);
            result.scoreNames.push_back((prediction.fromX ? "tox" : "toy") + std::to_string(o));
        }
        result.components = std::to_string(prediction.scores.SizeRows()) + " joint + " +
                            std::to_string(prediction.orthogonalScores.SizeRows()) + " orthogonal components";
    };
    return RunResponsePredict(options, out, predict, [&](const ResponsePrediction& r, const auto& files) {
        return O2plsPredictJson(options, *r.table, prediction.fromX, r.responses, r.predictions, prediction.scores,
                                prediction.orthogonalScores, files);
    });
}

int RunPcaPredict(const PredictOptions& options, std::ostream& out)
{
    std::unique_ptr<PcaModelFile> model;
    DataTable table;
    NCDataMatrix<float> scores;
    RunSteps steps = PredictSteps(options, [&](NCProgress&) {
        model = LoadModel(options.model);
        table = ReadCsvTable(options.data, options.names);
        scores = PredictScores(*model, options.model, table);
    });
    const auto write = [&](std::ostream& file) {
        WriteTransposedCsv(file, ObservationHeader(table), table.observations, Numbered("t", scores.SizeRows()),
                           scores);
    };
    steps.write = [&](RunOutputs& files) {
        files.Add("scores", options.scoresPath, write,
                  "Scores of " + Plural(table.Observations(), "observation") + " on " +
                      Plural(scores.SizeRows(), "component") + " written to " + options.scoresPath);
    };
    steps.document = [&](const std::vector<WrittenFile>& files) {
        return PredictJson(options, table, scores, files);
    };
    steps.report = [&](std::ostream& report) {
        if (options.scoresPath.empty())
            write(report);
    };
    return RunCommand(steps, out);
}

class PredictCommand final : public TableCommand<PredictOptions> {
    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command =
            *tool.add_subcommand("predict", "Scores of new observations under a model saved by pca --save, or their "
                                            "predicted responses under one saved by pls, opls or o2pls --save (an "
                                            "O2PLS model predicts either block from the other)");
        command.add_option("model", m_options.model, "Model file written by pca, pls, opls or o2pls --save")
            ->type_name("MODEL")
            ->required();
        AddDataArgument(command, m_options.data, "CSV table with the model's variables, in its order")->required();
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--scores", m_options.scoresPath,
                        "Write the scores as CSV (for a PCA model: instead of printing them)");
        AddOutputOption(command, "--predictions", m_options.predictionsPath,
                        "PLS and OPLS models: write the predicted responses as CSV instead of printing them");
        AddJsonFlag(command, m_options.json, "Print one JSON document");
        return command;
    }

    int Execute(std::ostream& out) override { return RunPredict(m_options, out); }
};

} // namespace

int RunPredict(const PredictOptions& options, std::ostream& out)
{
    const std::string magic = ModelFileMagic(options.model);
    if (magic == PlsModelFile::MyStreamableData.GetMagic())
        return RunPlsPredict(options, out);
    if (magic == OplsModelFile::MyStreamableData.GetMagic())
        return RunOplsPredict(options, out);
    if (magic == O2plsModelFile::MyStreamableData.GetMagic())
        return RunO2plsPredict(options, out);
    if (!options.predictionsPath.empty())
        throw ToolError("--predictions: " + options.model + " is a PCA model, which predicts no responses",
                        ExitUsage);
    return RunPcaPredict(options, out);
}

std::unique_ptr<Command> MakePredictCommand() { return std::make_unique<PredictCommand>(); }

} // namespace veltan_cli
