#pragma once

#include "cli/ChartCommand.h"
#include "cli/O2plsCommand.h"
#include "cli/CsvTable.h"
#include "cli/OplsCommand.h"
#include "cli/PcaCommand.h"
#include "cli/PlsCommand.h"
#include "cli/PredictCommand.h"
#include "cli/RunSkeleton.h"

#include <string>

namespace veltan_cli {

// The single JSON documents --json prints (layout in docs/cli.md). Values
// the library leaves missing are null; floats are written in their
// shortest exact form. `files` are the files the run wrote, listed under
// "files" by their keys.
std::string PcaJson(const DataTable& table, const PcaOptions& options, const PcaFit& fit,
                    const std::vector<WrittenFile>& files);
std::string PredictJson(const PredictOptions& options, const DataTable& table, const NCDataMatrix<float>& scores,
                        const std::vector<WrittenFile>& files);
// test may be null (no permutation test asked for).
std::string PlsJson(const XYTables& data, const PlsOptions& options, const PlsFit& fit, const PermutationTest* test,
                    const std::vector<WrittenFile>& files);
// predictions: N x M in the responses' units; scores: A x N.
std::string PlsPredictJson(const PredictOptions& options, const DataTable& table,
                           const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                           const NCDataMatrix<float>& scores, const std::vector<WrittenFile>& files);
std::string OplsJson(const XYTables& data, const OplsOptions& options, const OplsFit& fit,
                     const std::vector<WrittenFile>& files);
// predictions: N x M in the responses' units; scores: A x N; orthogonalScores:
// one row of N per orthogonal component.
std::string OplsPredictJson(const PredictOptions& options, const DataTable& table,
                            const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                            const NCDataMatrix<float>& scores, const NCDataMatrix<float>& orthogonalScores,
                            const std::vector<WrittenFile>& files);

std::string O2plsJson(const XYTables& data, const O2plsOptions& options, const O2plsFit& fit,
                      const std::vector<WrittenFile>& files);
// predictions: n x (the other block's width) in its units; scores: A x n
// joint, then one row of n per orthogonal component of the given block.
std::string O2plsPredictJson(const PredictOptions& options, const DataTable& table, bool fromX,
                             const std::vector<std::string>& predicted, const NCDataMatrix<float>& predictions,
                             const NCDataMatrix<float>& scores, const NCDataMatrix<float>& orthogonalScores,
                             const std::vector<WrittenFile>& files);

std::string ChartJson(const ChartResult& result, const ChartOptions& options, const std::vector<WrittenFile>& files);

} // namespace veltan_cli
