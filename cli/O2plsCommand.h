#pragma once

#include "cli/O2plsModelFile.h"
#include "cli/XYTables.h"

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/models/O2PLSCrossValidation.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// Without --max-components the grid runs to 3 of each kind: the grid grows
// as its cube, and the literature's two-block models rarely need more.
constexpr int DefaultO2plsGridBound = 3;

struct O2plsOptions : XYSources {
    int predictive = -1; // -1: not given, the grid chooses
    int xOrthogonal = 0;
    int yOrthogonal = 0;
    bool cv = false;
    int maxComponents = DefaultO2plsGridBound;
    int cvGroups = 0; // 0: 7, or one per observation when fewer
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;
    NCScale::Scaling yScale = NCScale::ScaleUnitVariance;
    std::vector<std::string> logVariables;
    std::string scoresPath;
    std::string loadingsPath;
    std::string savePath;
    std::string plotPath; // SVG: joint scores of X against those of Y
    bool json = false;
    bool progress = false;
};

// The shares of one block's sum of squares (preprocessed, over all cells)
// that each part of the model carries, and how much of the block the other
// block predicts on the training rows.
struct O2plsShares {
    float joint = 0.0f;      // SS(T W') / SS(X), SS(U C') / SS(Y)
    float orthogonal = 0.0f; // SS(TO PO') / SS
    float residual = 0.0f;   // SS(block - joint - orthogonal) / SS
    float predicted = 0.0f;  // 1 - SS(block - predicted from the other block) / SS
};

struct O2plsFit {
    int cvGroups = 0;                   // 0 without cross-validation
    std::optional<O2PLSCVResults> grid; // with --cv
    int predictive = 0, xOrthogonal = 0, yOrthogonal = 0;
    O2plsShares x, y;
    std::unique_ptr<O2plsModelFile> model;
    // One row per component, as the library keeps them.
    NCDataMatrix<float> t, u, tox, toy;
    NCDataMatrix<float> w, c, pox, poy;
};

// Preprocesses, cross-validates the grid when asked and fits. Throws
// ToolError for data the model cannot take (usage errors for counts it
// cannot reach), CancelException when `progress` is broken.
O2plsFit FitO2pls(const XYTables& data, const O2plsOptions& options, NCProgress& progress);

// `veltan o2pls`: reads both tables, fits, prints the Q2 grid (with --cv)
// and the share table, or JSON, and writes the requested files, all or none.
int RunO2pls(const O2plsOptions& options, std::ostream& out);

} // namespace veltan_cli
