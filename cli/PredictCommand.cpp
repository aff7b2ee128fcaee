#include "cli/PredictCommand.h"

#include "cli/CsvWriter.h"
#include "cli/JsonOutput.h"
#include "cli/Preprocess.h"
#include "cli/ProgressBar.h"
#include "cli/ToolError.h"

#include "cli/ModelFile.h"
#include "cli/Report.h"

#include "veltancmat/models/NCPCAPred.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/platform/Exception.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace veltan_cli {

namespace {

constexpr int MaxIterations = 200;

} // namespace

NCDataMatrix<float> PredictScores(PcaModelFile& model, const std::string& modelPath, const DataTable& table)
{
    CheckModelVariables(model.variables, modelPath, table);
    NCDataMatrix<float> x = ApplyPreprocessing(table, model.transform.get(), model.scale);
    const NCDataMatrix<float>& pprim = *model.pca.GetPprim();
    if (pprim.SizeRows() == 0)
        return NCDataMatrix<float>(0, table.Observations());
    NCPCAPred pred(&x, &pprim, MaxIterations, MaxMissingFraction);
    return pred.GetTPredPrim();
}

namespace {

// The model's X variables out of `table`, found by name: a table laid out
// as the training table, responses included, is taken as it is.
DataTable ModelVariables(const PlsModelFile& model, const std::string& modelPath, const DataTable& table)
{
    std::vector<int> columns;
    for (std::size_t j = 0; j < model.variables.size(); ++j) {
        const int found = table.Find(model.variables[j]);
        if (found == 0)
            throw ToolError(table.source + ": no variable \"" + model.variables[j] + "\", which the model " +
                            modelPath + " has as X variable " + std::to_string(j + 1));
        columns.push_back(found);
    }
    for (int j = 1; j <= table.Variables(); ++j) {
        const std::string& name = table.variables[static_cast<std::size_t>(j - 1)];
        if (std::find(columns.begin(), columns.end(), j) == columns.end() &&
            std::find(model.responses.begin(), model.responses.end(), name) == model.responses.end())
            throw ToolError(table.Where(0, j) + ": not a variable of the model " + modelPath);
    }
    return SelectVariables(table, columns);
}

} // namespace

void PredictResponses(PlsModelFile& model, const std::string& modelPath, const DataTable& table,
                      NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores)
{
    NCDataMatrix<float> x = ApplyPreprocessing(ModelVariables(model, modelPath, table), model.transform.get(),
                                               model.scale);
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
            if (scores[a][i] == -99.0f)
                for (int j = 1; j <= m; ++j)
                    predictions(i, j, -99.0f);
    }
    UndoPreprocessing(predictions, model.yTransform.get(), model.yScale);
}

namespace {

int RunPlsPredict(const PredictOptions& options, std::ostream& out)
{
    NCProgress progress;
    InterruptGuard interrupt(progress);
    std::unique_ptr<PlsModelFile> model = LoadPlsModel(options.model);
    const DataTable table = ReadCsvTable(options.data, options.names);
    NCDataMatrix<float> predictions, scores;
    PredictResponses(*model, options.model, table, predictions, scores);
    if (InterruptGuard::Interrupted())
        throw CancelException();

    const std::string corner = ObservationHeader(table);
    OutputFiles files;
    if (!options.predictionsPath.empty())
        WriteTableCsv(files.Add(options.predictionsPath), corner, table.observations, model->responses,
                      predictions);
    if (!options.scoresPath.empty())
        WriteTransposedCsv(files.Add(options.scoresPath), corner, table.observations,
                           Numbered("t", scores.SizeRows()), scores);
    if (InterruptGuard::Interrupted())
        throw CancelException();
    files.CommitAll();

    const int n = table.Observations();
    if (options.json) {
        out << PlsPredictJson(options, table, model->responses, predictions, scores) << "\n";
    } else if (options.predictionsPath.empty()) {
        WriteTableCsv(out, corner, table.observations, model->responses, predictions);
    } else {
        out << "Predicted " << Plural(static_cast<int>(model->responses.size()), "response") << " of "
            << Plural(n, "observation") << " written to " << options.predictionsPath << "\n";
    }
    if (!options.json && !options.scoresPath.empty() && !options.predictionsPath.empty())
        out << "Scores on " << Plural(scores.SizeRows(), "component") << " written to " << options.scoresPath
            << "\n";
    return ExitOk;
}

} // namespace

int RunPredict(const PredictOptions& options, std::ostream& out)
{
    if (ModelFileMagic(options.model) == PlsModelFile::MyStreamableData.GetMagic())
        return RunPlsPredict(options, out);
    if (!options.predictionsPath.empty())
        throw ToolError("--predictions: " + options.model + " is a PCA model, which predicts no responses",
                        ExitUsage);
    // Scoring cannot be stopped halfway, but a Ctrl-C meanwhile must still
    // keep a temporary file from being left behind.
    NCProgress progress;
    InterruptGuard interrupt(progress);
    std::unique_ptr<PcaModelFile> model = LoadModel(options.model);
    const DataTable table = ReadCsvTable(options.data, options.names);
    const NCDataMatrix<float> scores = PredictScores(*model, options.model, table);
    if (InterruptGuard::Interrupted())
        throw CancelException();
    std::vector<std::string> columns;
    for (int a = 1; a <= scores.SizeRows(); ++a)
        columns.push_back("t" + std::to_string(a));

    if (!options.scoresPath.empty()) {
        AtomicFile file(options.scoresPath);
        WriteTransposedCsv(file.Stream(), ObservationHeader(table), table.observations, columns, scores);
        if (InterruptGuard::Interrupted())
            throw CancelException();
        file.Commit();
    }
    if (options.json) {
        out << PredictJson(options, table, scores) << "\n";
    } else if (options.scoresPath.empty()) {
        WriteTransposedCsv(out, ObservationHeader(table), table.observations, columns, scores);
    } else {
        out << "Scores of " << table.Observations() << " observation" << (table.Observations() == 1 ? "" : "s")
            << " on " << scores.SizeRows() << " component" << (scores.SizeRows() == 1 ? "" : "s")
            << " written to " << options.scoresPath << "\n";
    }
    return ExitOk;
}

} // namespace veltan_cli
