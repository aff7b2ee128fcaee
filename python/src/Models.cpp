#include "Models.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCOPLSPred.h"
#include "veltancmat/models/NCPCAPred.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/models/OPLSCrossValidation.h"
#include "veltancmat/models/OPLSExplained.h"
#include "veltancmat/models/PCA_CrossValidated.h"
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/platform/NCError.h"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdio>

namespace veltan_py {

namespace py = pybind11;

namespace {

constexpr float Missing = NCMisVal<float>;
// The eigenvalue tolerance that confirms an undecided PCA component, the
// least rise of Q2(cum) that keeps an orthogonal OPLS component, and the
// most orthogonal components tried: the command-line tool's values.
constexpr double EigenvalueTolerance = 0.05;
constexpr float MinQ2Gain = 0.01f;
constexpr int MaxOrthogonalComponents = 20;
// A new observation missing more than this share of its values gets no
// scores or predictions rather than a guess.
constexpr float MaxMissingFraction = 0.5f;

std::string Count(int n, const char* word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

int CheckedGroups(int requested, int observations)
{
    const int groups = requested > 0 ? requested : std::min(7, observations);
    if (groups < 2 || groups > observations)
        throw py::value_error("cv_groups=" + std::to_string(requested) + ": needs 2 to " +
                              std::to_string(observations) + " groups (one per observation at most)");
    return groups;
}

void CheckCount(const std::optional<int>& requested, int capacity, const std::string& why)
{
    if (!requested)
        return;
    if (*requested < 1)
        throw py::value_error("n_components=" + std::to_string(*requested) + ": must be at least 1, or None");
    if (*requested > capacity)
        throw py::value_error("n_components=" + std::to_string(*requested) + ": the data can take at most " +
                              std::to_string(capacity) + " (" + why + ")");
}

// Fits the scaling to x and applies it; a column the scaling cannot handle
// is named by its 0-based index, as the caller's array numbers it.
void FitScaling(NCScale& scale, NCDataMatrix<float>& x, NCScale::Scaling type, const char* name)
{
    scale.SetSize(x.SizeColumns());
    for (int j = 1; j <= x.SizeColumns(); ++j)
        scale.SetType(j, type);
    try {
        scale.ScaleMatrix(&x, true);
    } catch (const NCScaleError& e) {
        const int j = e.GetColumn();
        std::string hint;
        if (e.GetError() == NCScaleError::TooFewValues)
            hint = " (" + std::to_string(x.SizeRows() - x.GetColumnMisVal(j)) + " present, at least 2 needed)";
        else if (e.GetError() == NCScaleError::TooLittleVariance)
            hint = " (the column is constant; drop it or use scale=\"center\")";
        throw py::value_error(std::string(name) + " column " + std::to_string(j - 1) + ": " + e.what() + hint);
    }
}

void ApplyScaling(const NCScale& scale, NCDataMatrix<float>& x, const char* name)
{
    if (x.SizeColumns() != scale.Size())
        throw py::value_error(std::string(name) + " has " + Count(x.SizeColumns(), "column") +
                              ", but the model was fitted on " + std::to_string(scale.Size()));
    NCScale copy = scale; // ScaleMatrix is not const, even when it only applies
    copy.ScaleMatrix(&x, false);
}

// Values on the fitted scale back in the data's units.
void Unscale(NCDataMatrix<float>& values, const NCScale& scale)
{
    const NCDataVector<float>& centre = scale.GetCenterVector();
    const NCDataVector<float>& factor = scale.GetScaleVector();
    for (int j = 1; j <= values.SizeColumns(); ++j) {
        // A missing centre or factor is a step the scaling skipped.
        const double c = j <= centre.size() && !IsMisVal(centre[j]) ? centre[j] : 0.0;
        const double f = j <= factor.size() && !IsMisVal(factor[j]) && factor[j] != 0.0f ? factor[j] : 1.0;
        for (int i = 1; i <= values.SizeRows(); ++i)
            if (!IsMisVal(values[i][j]))
                values(i, j, static_cast<float>(values[i][j] / f + c));
    }
}

NCDataMatrix<float> FirstRows(const NCDataMatrix<float>& prim, int a)
{
    NCDataMatrix<float> rows(a, prim.SizeColumns());
    for (int r = 1; r <= a; ++r)
        rows.SetRow(r, prim[r]);
    return rows;
}

void CheckRows(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y)
{
    if (x.SizeRows() != y.SizeRows())
        throw py::value_error("X and Y must have the same number of rows (observations); got " +
                              std::to_string(x.SizeRows()) + " and " + std::to_string(y.SizeRows()));
}

std::string Decimals(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(v));
    return text;
}

} // namespace

NCScale::Scaling ScalingNamed(const std::string& name)
{
    if (name == "uv")
        return NCScale::ScaleUnitVariance;
    if (name == "pareto")
        return NCScale::ScalePareto;
    if (name == "center")
        return NCScale::ScaleCenter;
    if (name == "none")
        return NCScale::ScaleNone;
    throw py::value_error("scale=\"" + name + "\": must be \"uv\", \"pareto\", \"center\" or \"none\"");
}

// ---- PCA -----------------------------------------------------------------

PcaModel FitPca(NCDataMatrix<float> x, const FitOptions& options, NCProgress& progress)
{
    const int n = x.SizeRows(), k = x.SizeColumns();
    if (n < 2 || k < 2)
        throw py::value_error("X has " + Count(n, "row") + " and " + Count(k, "column") +
                              "; a PCA needs at least 2 of each");
    PcaModel fit;
    fit.cvGroups = CheckedGroups(options.cvGroups, n);
    const bool centred = options.scale != NCScale::ScaleNone;
    const int capacity = std::min(n - (centred ? 1 : 0), k);
    CheckCount(options.components, capacity,
               Count(n, "observation") + ", " + Count(k, "variable") + (centred ? ", centred" : ""));
    FitScaling(fit.scale, x, options.scale, "X");

    const bool fixed = options.components.has_value();
    PCA_CrossValidated cv(x, nullptr, fit.cvGroups, nullptr, fit.scale.GetCenterVector(), EigenvalueTolerance, 0);
    cv.KeepEveryComponent(fixed);
    NCDataMatrix<float> residuals, predResiduals;
    const int limit = fixed ? *options.components : capacity;
    progress.SetRangeInternal(0.0f, static_cast<float>(limit));
    const CancelText aborted("Calculations of", "PC component aborted.");
    for (int a = 1; a <= limit; ++a) {
        CheckBreak(&progress, aborted);
        ProgressSubRange range(&progress, static_cast<float>(a - 1), static_cast<float>(a), aborted);
        SignificanceE::Significance s = SignificanceE::NA;
        try {
            s = cv.NextComponent(residuals, predResiduals, progress);
        } catch (const CancelException&) {
            throw;
        } catch (const NCError& e) {
            // A component that cannot be computed ends an open-ended fit;
            // the ones before it stand.
            if (fixed || a == 1)
                throw py::value_error("component " + std::to_string(a) + ": " + e.what());
            fit.stopReason = "component " + std::to_string(a) + " could not be computed (" + e.what() + ")";
            break;
        }
        if (!fixed && s != SignificanceE::U && !SignificanceE::IsSignificant(s))
            break;
    }

    for (const PCA_CrossValidated::Component& c : cv.GetRecords()) {
        ComponentRecord r;
        r.r2x = c.r2;
        r.r2xCum = c.r2Cum;
        r.eigenvalue = c.eigenvalue;
        r.q2 = c.q2;
        r.q2Cum = c.q2Cum;
        r.q2Limit = c.q2Limit;
        r.significance = SignificanceE::GetSignificance(c.significance);
        fit.records.push_back(std::move(r));
    }
    fit.components = cv.GetComponents();
    if (!fixed && fit.stopReason.empty() && fit.components < static_cast<int>(fit.records.size()))
        fit.stopReason = "component " + std::to_string(fit.components + 1) + " is " +
                         fit.records[static_cast<std::size_t>(fit.components)].significance;
    fit.loadings = FirstRows(*cv.GetModel().GetPprim(), fit.components);
    fit.scores = FirstRows(*cv.GetModel().GetTprim(), fit.components);
    return fit;
}

NCDataMatrix<float> PcaModel::Transform(NCDataMatrix<float> x) const
{
    ApplyScaling(scale, x, "X");
    if (components == 0)
        return NCDataMatrix<float>(0, x.SizeRows());
    NCPCAPred pred(&x, &loadings, NCNipals::DefaultMaxIterations, MaxMissingFraction);
    return pred.GetTPredPrim();
}

// ---- PLS -----------------------------------------------------------------

PlsModel FitPls(NCDataMatrix<float> x, NCDataMatrix<float> y, const FitOptions& options, NCProgress& progress)
{
    CheckRows(x, y);
    const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
    if (n < 2)
        throw py::value_error("X has " + Count(n, "row") + "; a PLS model needs at least 2");
    PlsModel fit;
    fit.cvGroups = CheckedGroups(options.cvGroups, n);
    const bool centred = options.scale != NCScale::ScaleNone;
    CheckCount(options.components, std::min(n - (centred ? 1 : 0), k),
               Count(n, "observation") + ", " + Count(k, "X variable") + (centred ? ", centred" : ""));
    FitScaling(fit.xScale, x, options.scale, "X");
    FitScaling(fit.yScale, y, options.scale, "Y");

    const bool fixed = options.components.has_value();
    PLS_CrossValidated pls(x, y, fit.cvGroups, nullptr);
    pls.KeepEveryComponent(fixed);
    const CancelText aborted("Calculation of", "PLS component aborted.");
    // The significance rule ends an open-ended fit at min(K, N - 3) + 1
    // components at the latest; the bound only guards the loop.
    const int limit = fixed ? *options.components : std::min(n, k) + 1;
    progress.SetRangeInternal(0.0f, static_cast<float>(limit));
    for (int a = 1; a <= limit; ++a) {
        CheckBreak(&progress, aborted);
        SignificanceE::Significance verdict = SignificanceE::NA;
        try {
            ProgressSubRange component(&progress, static_cast<float>(a - 1), static_cast<float>(a), aborted);
            verdict = pls.NextComponent(&progress);
        } catch (const NCError& e) {
            // No X-Y correlation left: the components before stand.
            if (!NCPLS::IsNoCorrelation(e) || fixed || a == 1)
                throw py::value_error(std::string(e.what()) + (a == 1 ? " (nothing to model)" : ""));
            fit.stopReason = "component " + std::to_string(a) + " could not be computed (" + e.what() + ")";
            break;
        }
        if (!fixed && !SignificanceE::IsSignificant(verdict)) {
            fit.stopReason = "component " + std::to_string(a) + " is " + SignificanceE::GetSignificance(verdict);
            break;
        }
    }

    for (const PLS_CrossValidated::Component& c : pls.GetRecords()) {
        ComponentRecord r;
        r.r2x = c.r2x;
        r.r2xCum = c.r2xCum;
        r.r2y = c.r2y;
        r.r2yCum = c.r2yCum;
        r.q2 = c.q2;
        r.q2Cum = c.q2Cum;
        r.q2Limit = c.q2Limit;
        r.significance = SignificanceE::GetSignificance(c.significance);
        fit.records.push_back(std::move(r));
    }
    const int a = fit.components = pls.GetComponents();
    const NCPLS& model = pls.GetModel();
    fit.wprim = FirstRows(*model.GetWprim(), a);
    fit.pprim = FirstRows(*model.GetPprim(), a);
    fit.cprim = FirstRows(*model.GetCprim(), a);
    fit.tprim = FirstRows(*model.GetTprim(), a);
    fit.uprim = FirstRows(*model.GetUprim(), a);
    fit.coefficients = a > 0 ? NCPLS::GetRegressionCoefficients(fit.wprim, fit.pprim, fit.cprim)
                             : NCDataMatrix<float>(k, m);

    // y = c_y + (x - c_x) f_x B / f_y, a skipped step being a missing centre
    // or factor.
    const auto value = [](const NCDataVector<float>& v, int j, double neutral) {
        return IsMisVal(v[j]) ? neutral : static_cast<double>(v[j]);
    };
    fit.rawCoefficients = NCDataMatrix<float>(k, m);
    fit.intercepts.assign(static_cast<std::size_t>(m), 0.0f);
    for (int c = 1; c <= m; ++c) {
        const double fy = value(fit.yScale.GetScaleVector(), c, 1.0);
        double intercept = value(fit.yScale.GetCenterVector(), c, 0.0);
        for (int j = 1; j <= k; ++j) {
            const double b = fit.coefficients[j][c] * value(fit.xScale.GetScaleVector(), j, 1.0) / fy;
            fit.rawCoefficients(j, c, static_cast<float>(b));
            intercept -= b * value(fit.xScale.GetCenterVector(), j, 0.0);
        }
        fit.intercepts[static_cast<std::size_t>(c - 1)] = static_cast<float>(intercept);
    }
    return fit;
}

NCDataMatrix<float> PlsModel::Predict(NCDataMatrix<float> x) const
{
    ApplyScaling(xScale, x, "X");
    const int n = x.SizeRows(), m = cprim.SizeColumns();
    NCDataMatrix<float> predictions(n, m, 0.0f);
    if (components > 0) {
        NCPLSPred pred(&x, wprim, pprim, cprim, MaxMissingFraction);
        for (int c = 1; c <= components; ++c)
            pred.CalcNextComponent();
        predictions = pred.GetYPred();
        // A row without a score (too many gaps) has no prediction either.
        for (int i = 1; i <= n; ++i)
            if (IsMisVal(pred[i]))
                for (int j = 1; j <= m; ++j)
                    predictions(i, j, Missing);
    }
    Unscale(predictions, yScale);
    return predictions;
}

// ---- OPLS ----------------------------------------------------------------

namespace {

// The R2 figures of the model's current stage and the validation's Q2.
ComponentRecord StageOf(const NCOPLS& model, const OPLSCrossValidation& cv, const NCDataMatrix<float>& x,
                        const NCDataMatrix<float>& y)
{
    const OPLSExplained explained = GetOPLSExplained(model, x, y);
    ComponentRecord r;
    r.r2x = explained.r2xPredictive;
    r.r2xOrthogonal = explained.r2xOrthogonal;
    r.r2xCum = IsMisVal(r.r2x) ? Missing : r.r2x + r.r2xOrthogonal;
    r.r2y = r.r2yCum = explained.r2y;
    r.q2 = r.q2Cum = cv.GetQ2TotCum();
    r.q2Limit = cv.GetQ2Lim();
    return r;
}

// One stage: the model's next step, then the same step in every round of
// the cross-validation, reported across [stage, stage + 1].
template <class Validate>
void RunStage(NCProgress& progress, int stage, NCOPLS& model, Validate&& validate)
{
    const CancelText aborted("Calculations of", "OPLS component aborted.");
    CheckBreak(&progress, aborted);
    ProgressSubRange range(&progress, static_cast<float>(stage), static_cast<float>(stage + 1), aborted);
    progress.SetRangeInternal(0.0f, 2.0f);
    {
        ProgressSubRange part(&progress, 0.0f, 1.0f, aborted);
        model.NextComponent(&progress);
    }
    ProgressSubRange part(&progress, 1.0f, 2.0f, aborted);
    validate();
}

} // namespace

OplsModel FitOpls(NCDataMatrix<float> x, NCDataMatrix<float> y, const OplsOptions& options, NCProgress& progress)
{
    CheckRows(x, y);
    const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
    // Every cross-validation round must keep two observations to fit on.
    if (n < 3)
        throw py::value_error("X has " + Count(n, "row") + "; an OPLS model needs at least 3");
    if (m > n)
        throw py::value_error("Y has " + Count(m, "response") + " but only " + Count(n, "observation") +
                              "; an OPLS model takes no more responses than observations");
    OplsModel fit;
    fit.cvGroups = CheckedGroups(options.cvGroups, n);
    const bool centred = options.scale != NCScale::ScaleNone;
    const int predictiveCapacity = std::min({m, k, n - (centred ? 1 : 0)});
    if (options.predictive < 0 || options.predictive > predictiveCapacity)
        throw py::value_error("n_predictive=" + std::to_string(options.predictive) + ": must be 1 to " +
                              std::to_string(predictiveCapacity) + " (min of responses, X variables and " +
                              "observations" + (centred ? " - 1" : "") + "), or None");
    if (options.orthogonal && *options.orthogonal < 0)
        throw py::value_error("n_orthogonal=" + std::to_string(*options.orthogonal) + ": must be 0 or more, or None");
    FitScaling(fit.xScale, x, options.scale, "X");
    FitScaling(fit.yScale, y, options.scale, "Y");
    // A response left all zeros has no covariance with X; the basis would
    // be undefined.
    for (int j = 1; j <= m; ++j)
        if (!(y.GetColumnSS(j) > 0.0))
            throw py::value_error("Y column " + std::to_string(j - 1) +
                                  " does not vary once scaled (nothing to model)");

    const bool fixed = options.orthogonal.has_value();
    progress.SetRangeInternal(0.0f, static_cast<float>(fixed ? *options.orthogonal + 1 : 1));
    NCOPLS model(&x, &y, options.predictive, NCNipals::DefaultMaxIterations);
    std::optional<OPLSCrossValidation> cv;
    try {
        RunStage(progress, 0, model,
                 [&] { cv.emplace(&x, &y, model.GetNumPredictive(), fit.cvGroups, &progress, nullptr); });
    } catch (const CancelException&) {
        throw;
    } catch (const NCError& e) {
        throw py::value_error(std::string(e.what()) + " (nothing to model)");
    }
    fit.predictive = model.GetNumPredictive();
    fit.stages.push_back(StageOf(model, *cv, x, y));

    const int limit = std::max(0, std::min({k - fit.predictive, n - fit.predictive - 2, MaxOrthogonalComponents}));
    if (fixed && *options.orthogonal > limit)
        throw py::value_error("n_orthogonal=" + std::to_string(*options.orthogonal) + ": the data can take at most " +
                              std::to_string(limit) + " with " + Count(fit.predictive, "predictive component"));
    if (!fixed)
        progress.SetRangeInternal(0.0f, static_cast<float>(limit + 1));
    const int last = fixed ? *options.orthogonal : limit;
    for (int o = 1; o <= last; ++o) {
        // Each orthogonal component is tried on copies, so that one not kept
        // leaves the model and its validation as they were.
        NCOPLS next = model;
        OPLSCrossValidation nextCv = *cv;
        try {
            RunStage(progress, o, next, [&] { nextCv.NextComponent(&progress); });
        } catch (const CancelException&) {
            throw;
        } catch (const NCError& e) {
            if (fixed)
                throw py::value_error("orthogonal component " + std::to_string(o) + ": " + e.what());
            fit.stopReason = "orthogonal component " + std::to_string(o) + " could not be computed (" + e.what() + ")";
            break;
        }
        ComponentRecord stage = StageOf(next, nextCv, x, y);
        const ComponentRecord& before = fit.stages.back();
        const bool raises =
            !IsMisVal(before.q2Cum) && !IsMisVal(stage.q2Cum) && stage.q2Cum - before.q2Cum >= MinQ2Gain;
        if (!fixed && !raises) {
            stage.significance = "not kept";
            fit.stopReason = "orthogonal component " + std::to_string(o) + " changes Q2(cum) by " +
                             (IsMisVal(stage.q2Cum) || IsMisVal(before.q2Cum) ? std::string("an unknown amount")
                                                                              : Decimals(stage.q2Cum - before.q2Cum)) +
                             ", less than " + Decimals(MinQ2Gain);
            fit.stages.push_back(std::move(stage));
            break;
        }
        model = std::move(next);
        cv = std::move(nextCv);
        fit.stages.push_back(std::move(stage));
        fit.orthogonal = o;
    }
    if (!fixed && fit.stopReason.empty())
        fit.stopReason = "reached the limit of " + Count(limit, "orthogonal component");
    for (ComponentRecord& s : fit.stages)
        if (s.significance.empty())
            s.significance = "kept";
    fit.model.emplace(std::move(model));
    return fit;
}

NCDataMatrix<float> OplsModel::Predict(NCDataMatrix<float> x) const
{
    ApplyScaling(xScale, x, "X");
    NCOPLSPred pred(&x, &*model);
    for (int o = 1; o <= pred.GetMaxComp(); ++o)
        pred.CalcNextComponent();
    NCDataMatrix<float> predictions = *pred.GetYPred();
    const int n = x.SizeRows(), k = x.SizeColumns();
    // As for PLS, a row missing most of its values gets no prediction.
    for (int i = 1; i <= n; ++i)
        if (static_cast<float>(x[i].GetNumMisVal()) > MaxMissingFraction * static_cast<float>(k))
            for (int j = 1; j <= predictions.SizeColumns(); ++j)
                predictions(i, j, Missing);
    Unscale(predictions, yScale);
    return predictions;
}

} // namespace veltan_py
