#pragma once

#include "cli/CsvTable.h"
#include "cli/PcaCommand.h"
#include "cli/PredictCommand.h"

#include <string>

namespace veltan_cli {

// The single JSON documents --json prints (layout in docs/cli.md). Values
// the library leaves missing are null; floats are written in their
// shortest exact form.
std::string PcaJson(const DataTable& table, const PcaOptions& options, const PcaFit& fit);
std::string PredictJson(const PredictOptions& options, const DataTable& table, const NCDataMatrix<float>& scores);

} // namespace veltan_cli
