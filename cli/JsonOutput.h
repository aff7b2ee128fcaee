#pragma once

#include "cli/CsvTable.h"
#include "cli/PcaCommand.h"
#include "cli/PlsCommand.h"
#include "cli/PredictCommand.h"

#include <string>

namespace veltan_cli {

// The single JSON documents --json prints (layout in docs/cli.md). Values
// the library leaves missing are null; floats are written in their
// shortest exact form.
std::string PcaJson(const DataTable& table, const PcaOptions& options, const PcaFit& fit);
std::string PredictJson(const PredictOptions& options, const DataTable& table, const NCDataMatrix<float>& scores);
// test may be null (no permutation test asked for).
std::string PlsJson(const PlsData& data, const PlsOptions& options, const PlsFit& fit, const PermutationTest* test);
// predictions: N x M in the responses' units; scores: A x N.
std::string PlsPredictJson(const PredictOptions& options, const DataTable& table,
                           const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                           const NCDataMatrix<float>& scores);

} // namespace veltan_cli
