#pragma once

#include "cli/CsvTable.h"
#include "cli/PlsModelFile.h"
#include "cli/PlsPermutation.h"
#include "cli/Report.h"
#include "cli/XYTables.h"

#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

struct PlsOptions : XYSources {
    int components = 0;            // 0: as many as are significant
    int cvGroups = 0;              // 0: 7, or one per observation when fewer
    bool bundled = false;          // data is the bundled data set (for the title)
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;  // X
    NCScale::Scaling yScale = NCScale::ScaleUnitVariance; // Y
    std::vector<std::string> logVariables; // log10 before scaling, X or Y
    std::string coefficientsPath;
    std::string fittedPath;
    std::string cvPredictionsPath;
    std::string scoresPath;
    std::string savePath;
    int permutations = 0;
    std::optional<unsigned> seed; // none: drawn at random and reported
    std::string permutationsPath;
    std::string plotPath; // SVG: observed against cross-validated predictions
    bool json = false;
    bool progress = false;
};

// One fitted component: the library's record (R2 as shares of the
// preprocessed blocks' sums of squares, per-response vectors of M entries).
using PlsComponent = PLS_CrossValidated::Component;

struct PlsFit {
    std::vector<PlsComponent> records; // every component fitted
    int kept = 0;
    bool fixed = false;                  // the count was given, not decided
    int cvGroups = 0;
    std::string stopReason;              // why an open-ended fit ended
    std::unique_ptr<PlsModelFile> model; // preprocessing and the kept components only
    NCDataMatrix<float> x, y;            // the preprocessed blocks
    NCDataMatrix<float> scores;          // T' of the kept components (kept x N)
    NCDataMatrix<float> fitted;          // N x M, in the responses' units
    NCDataMatrix<float> cvPredicted;     // N x M, in the responses' units
    // Coefficients B (K x M) on the preprocessed scale, and the same for the
    // transformed but unscaled values with their intercepts (M).
    NCDataMatrix<float> coefficients;
    NCDataMatrix<float> rawCoefficients;
    std::vector<float> intercepts;
};

// Preprocesses and fits as the options say. Throws ToolError for data the
// model cannot take, CancelException when `progress` is broken.
PlsFit FitPls(const XYTables& data, const PlsOptions& options, NCProgress& progress);

// `veltan pls`: reads, fits, optionally runs the permutation test, prints
// the component table (or JSON) and writes the requested files, all or none.
int RunPls(const PlsOptions& options, std::ostream& out);

} // namespace veltan_cli
