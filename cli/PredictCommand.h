#pragma once

#include "cli/CsvTable.h"
#include "cli/PcaModelFile.h"

#include <ostream>
#include <string>

namespace veltan_cli {

struct PredictOptions {
    std::string model;
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::string scoresPath; // empty: the scores go to stdout
    bool json = false;
};

// An observation missing more than this share of its values gets no scores
// (missing ones) rather than scores resting on a few cells.
constexpr float MaxMissingFraction = 0.5f;

// The scores (components x observations) of the table's rows under the
// model, after the model's own transform and scaling. Throws ToolError when
// the table's variables are not the model's (count, or a name out of place)
// and, while the library cannot estimate scores around gaps, at the first
// missing cell.
NCDataMatrix<float> PredictScores(PcaModelFile& model, const std::string& modelPath, const DataTable& table);

// `veltan predict`: scores as CSV to the file or stdout, or JSON. Returns
// the exit code; throws ToolError for the caller to report.
int RunPredict(const PredictOptions& options, std::ostream& out);

} // namespace veltan_cli
