#pragma once

#include "cli/CsvTable.h"
#include "cli/O2plsModelFile.h"
#include "cli/OplsModelFile.h"
#include "cli/PcaModelFile.h"
#include "cli/PlsModelFile.h"

#include <ostream>
#include <string>

namespace veltan_cli {

struct PredictOptions {
    std::string model;
    std::string data;
    NamesColumn names = NamesColumn::Auto;
    std::string scoresPath;      // PCA: empty sends the scores to stdout
    std::string predictionsPath; // PLS, OPLS: empty sends the predicted responses to stdout
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

// The predicted responses (N x M, in the responses' units) of the table's
// rows under a PLS model, and their scores (A x N). The model's X variables
// are found by name; besides them the table may hold its responses only. Rows with gaps are
// scored from their present values; one missing more than
// MaxMissingFraction of them gets missing scores and predictions.
void PredictResponses(PlsModelFile& model, const std::string& modelPath, const DataTable& table,
                      NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores);

// The same under an OPLS model: every orthogonal component of the model is
// removed from the table's rows before the last stage predicts. Also returns
// the predictive scores (A x N) and the orthogonal ones (one row of N per
// component).
void PredictOplsResponses(OplsModelFile& model, const std::string& modelPath, const DataTable& table,
                          NCDataMatrix<float>& predictions, NCDataMatrix<float>& scores,
                          NCDataMatrix<float>& orthogonalScores);

// What an O2PLS model predicts for a table of either block's variables.
struct O2plsPrediction {
    bool fromX = true;                  // the table holds X; Y is predicted
    NCDataMatrix<float> predictions;    // n x (other block), in its units
    NCDataMatrix<float> scores;         // joint scores (T' from X, U' from Y)
    NCDataMatrix<float> orthogonalScores; // of the given block's orthogonal components
};

// The table's block is the one more of whose variables it names (X on a
// tie); its variables are then found by name, and besides them the table
// may hold the other block's only. Rows missing more than
// MaxMissingFraction of their values get missing scores and predictions.
O2plsPrediction PredictO2pls(O2plsModelFile& model, const std::string& modelPath, const DataTable& table);

// `veltan predict`: for a PCA model scores as CSV to the file or stdout, or JSON;
// for a PLS, OPLS or O2PLS model (told apart by the file's magic) predicted
// responses, and scores on request. Returns
// the exit code; throws ToolError for the caller to report.
int RunPredict(const PredictOptions& options, std::ostream& out);

} // namespace veltan_cli
