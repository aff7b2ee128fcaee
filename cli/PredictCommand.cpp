#include "cli/PredictCommand.h"

#include "cli/CsvWriter.h"
#include "cli/JsonOutput.h"
#include "cli/Preprocess.h"
#include "cli/ProgressBar.h"
#include "cli/ToolError.h"

#include "veltancmat/models/NCPCAPred.h"
#include "veltancmat/platform/Exception.h"

#include <memory>
#include <vector>

namespace veltan_cli {

namespace {

constexpr int MaxIterations = 200;

void CheckVariables(const PcaModelFile& model, const std::string& modelPath, const DataTable& table)
{
    const int k = static_cast<int>(model.variables.size());
    if (table.Variables() != k)
        throw ToolError(table.source + ": " + std::to_string(table.Variables()) + " variables, but the model " +
                        modelPath + " has " + std::to_string(k));
    for (int j = 1; j <= k; ++j) {
        const std::string& expected = model.variables[static_cast<std::size_t>(j - 1)];
        if (table.variables[static_cast<std::size_t>(j - 1)] != expected)
            throw ToolError(table.Where(0, j) + ": the model " + modelPath + " has \"" + expected +
                            "\" as variable " + std::to_string(j));
    }
}

} // namespace

NCDataMatrix<float> PredictScores(PcaModelFile& model, const std::string& modelPath, const DataTable& table)
{
    CheckVariables(model, modelPath, table);
    NCDataMatrix<float> x = table.values;
    if (model.transform)
        ApplyTransform(*model.transform, table, x);
    ApplyScaling(model.scale, table, x);
    const NCDataMatrix<float>& pprim = *model.pca.GetPprim();
    if (pprim.SizeRows() == 0)
        return NCDataMatrix<float>(0, table.Observations());
    NCPCAPred pred(&x, &pprim, MaxIterations, MaxMissingFraction);
    return pred.GetTPredPrim();
}

int RunPredict(const PredictOptions& options, std::ostream& out)
{
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
