#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <optional>
#include <string>
#include <vector>

// The fitting loops behind the Python classes. They follow the command-line
// tool's rules for choosing the number of components, so a model fitted from
// Python and one fitted by `veltan` on the same table agree. Every function
// runs without the GIL: errors are thrown as pybind11's C++ exception types
// or the engine's own, never raised through the Python API.
namespace veltan_py {

// What the caller asks of a fit: a fixed count, or the significance rule
// when `components` is empty.
struct FitOptions {
    std::optional<int> components;
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;
    int cvGroups = 7;
};

NCScale::Scaling ScalingNamed(const std::string& name);

// One row of a fit's table: the figures of a component (PCA, PLS) or of a
// stage (OPLS: the predictive part, then one more orthogonal component).
struct ComponentRecord {
    float r2x = 0.0f, r2xCum = 0.0f;
    float r2y = 0.0f, r2yCum = 0.0f; // PLS only
    float eigenvalue = 0.0f;         // PCA only
    float r2xOrthogonal = 0.0f;      // OPLS only: the orthogonal components' share of X
    float q2 = 0.0f, q2Cum = 0.0f, q2Limit = 0.0f;
    std::string significance;
};

struct PcaModel {
    NCScale scale;
    NCDataMatrix<float> loadings; // A x K, components in rows
    NCDataMatrix<float> scores;   // A x N
    std::vector<ComponentRecord> records; // every component fitted, the rejected one included
    int components = 0;
    int cvGroups = 0;
    std::string stopReason;

    // Scores (A x N) of new observations, preprocessed with the fit's scaling.
    NCDataMatrix<float> Transform(NCDataMatrix<float> x) const;
};
PcaModel FitPca(NCDataMatrix<float> x, const FitOptions& options, NCProgress& progress);

struct PlsModel {
    NCScale xScale, yScale;
    NCDataMatrix<float> wprim, pprim, cprim, tprim, uprim; // first A rows of the fit
    NCDataMatrix<float> coefficients;    // K x M, scaled units
    NCDataMatrix<float> rawCoefficients; // K x M, the data's units
    std::vector<float> intercepts;       // M
    std::vector<ComponentRecord> records;
    int components = 0;
    int cvGroups = 0;
    std::string stopReason;

    // Responses (N x M, the data's units) of new observations.
    NCDataMatrix<float> Predict(NCDataMatrix<float> x) const;
};
PlsModel FitPls(NCDataMatrix<float> x, NCDataMatrix<float> y, const FitOptions& options, NCProgress& progress);

struct OplsOptions {
    std::optional<int> orthogonal; // empty: while Q2(cum) rises by 0.01
    int predictive = 0;            // 0: chosen from the data
    NCScale::Scaling scale = NCScale::ScaleUnitVariance;
    int cvGroups = 7;
};

struct OplsModel {
    NCScale xScale, yScale;
    std::optional<NCOPLS> model;
    std::vector<ComponentRecord> stages; // stage o: o orthogonal components; the last may be rejected
    int predictive = 0;
    int orthogonal = 0;
    int cvGroups = 0;
    std::string stopReason;

    NCDataMatrix<float> Predict(NCDataMatrix<float> x) const;
};
OplsModel FitOpls(NCDataMatrix<float> x, NCDataMatrix<float> y, const OplsOptions& options, NCProgress& progress);

} // namespace veltan_py
