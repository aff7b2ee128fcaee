#pragma once

#include "cli/OplsModelFile.h"
#include "cli/XYTables.h"

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace veltan_cli {

// An orthogonal component is kept only when it raises the cross-validated
// Q2 (total) by at least this much.
constexpr float MinQ2Gain = 0.01f;
// However many the data would allow, no open-ended fit goes beyond this many
// orthogonal components: past it they model little but noise.
constexpr int MaxOrthogonalComponents = 20;

struct OplsOptions : XYSources {
    int predictive = 0;  // 0: as many as the data choose
    int orthogonal = -1; // -1: while Q2(cum) rises by MinQ2Gain
    int cvGroups = 0;    // 0: 7, or one per observation when fewer
    bool bundled = false;
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;  // X
    NCScale::Scaling yScale = NCScale::ScaleUnitVariance; // Y
    std::vector<std::string> logVariables;
    std::string fittedPath;
    std::string cvPredictionsPath;
    std::string scoresPath;
    std::string loadingsPath;
    std::string savePath;
    std::string plotPath; // SVG: first predictive against first orthogonal scores
    bool json = false;
    bool progress = false;
};

// One stage of the fit: the predictive part after `orthogonal` orthogonal
// components. R2X shares are of the preprocessed X's sum of squares over its
// present cells; R2Y of the preprocessed Y's.
struct OplsStage {
    int orthogonal = 0;
    float r2xPredictive = 0.0f; // SS(T P') / SS(X)
    float r2xOrthogonal = 0.0f; // SS(sum t_o p_o') / SS(X)
    float r2y = 0.0f;           // 1 - SS(Y - fitted) / SS(Y)
    float q2Cum = 0.0f;         // cross-validated, all responses
    float q2Limit = 0.0f;
    NCDataVector<float> r2yResponses;   // M
    NCDataVector<float> q2CumResponses; // M
    bool kept = true;
};

struct OplsFit {
    std::vector<OplsStage> stages; // every stage fitted, a rejected last one included
    int predictive = 0;            // A
    int orthogonal = 0;            // orthogonal components kept
    int orthogonalLimit = 0;       // min(K - A, N - A - 2, MaxOrthogonalComponents), at least 0
    bool fixed = false;            // the orthogonal count was given
    int cvGroups = 0;
    std::string stopReason;                // why an open-ended fit ended
    std::unique_ptr<OplsModelFile> model;  // preprocessing and the kept stages
    NCDataMatrix<float> x, y;              // the preprocessed blocks
    NCDataMatrix<float> scores;            // T' of the kept model (A x N)
    NCDataMatrix<float> orthogonalScores;  // TO' (orthogonal x N)
    NCDataMatrix<float> loadings;          // P' of the last kept stage (A x K)
    NCDataMatrix<float> orthogonalLoadings; // PO' (orthogonal x K)
    NCDataMatrix<float> fitted;            // N x M, in the responses' units
    NCDataMatrix<float> cvPredicted;       // N x M, in the responses' units
};

// Preprocesses and fits as the options say. Throws ToolError for data the
// model cannot take (usage errors for counts it cannot reach),
// CancelException when `progress` is broken.
OplsFit FitOpls(const XYTables& data, const OplsOptions& options, NCProgress& progress);

// `veltan opls`: reads, fits, prints the stage table (or JSON) and writes
// the requested files, all or none.
int RunOpls(const OplsOptions& options, std::ostream& out);

} // namespace veltan_cli
