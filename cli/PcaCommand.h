#pragma once

#include "cli/CsvTable.h"
#include "cli/PcaModelFile.h"
#include "cli/Report.h"

#include "veltancmat/models/PCA_CrossValidated.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct PcaOptions {
    std::string data;                      // the table to fit
    NamesColumn names = NamesColumn::Auto;
    int components = 0;                    // 0: as many as are significant
    int cvGroups = 0;                      // 0: DefaultCvGroups, or one per observation when fewer
    bool bundled = false;                  // data is the bundled data set (for the title)
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;
    std::vector<std::string> logVariables; // log10 before scaling
    std::string scoresPath;
    std::string loadingsPath;
    std::string savePath;
    std::string plotPath;         // SVG score plot
    std::string loadingsPlotPath; // SVG loading plot
    bool json = false;
    bool progress = false; // draw the bar even when stderr is not a terminal
};

// The eigenvalue tolerance under which an undecided component is confirmed
// by the next one (near-equal eigenvalues: the two span one plane).
constexpr double EigenvalueTolerance = 0.05;

struct PcaFit {
    std::vector<PCA_CrossValidated::Component> records; // every component fitted, final verdicts
    int kept = 0;
    bool fixed = false;                 // the count was given, not decided
    int cvGroups = 0;                   // the groups used
    std::unique_ptr<PcaModelFile> model; // preprocessing and the kept components only
    NCDataMatrix<float> scores;          // T' of the kept components (kept x N)
    // Why the fit ended before the data were exhausted ("" for a fixed count).
    std::string stopReason;
};

// Transforms, scales and fits `table` as the options say. Throws ToolError
// for data the model cannot take (naming file, row, column or variable),
// CancelException when `progress` is broken.
PcaFit FitPca(const DataTable& table, const PcaOptions& options, NCProgress& progress);

// `veltan pca`: reads, fits, prints the component table (or JSON) to out
// and writes the requested files, all or none. Returns the exit code;
// throws ToolError, CancelException or library errors for the caller to report.
int RunPca(const PcaOptions& options, std::ostream& out);

} // namespace veltan_cli
