#include "cli/PlsCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/FitLimits.h"
#include "cli/JsonOutput.h"
#include "cli/ModelFile.h"
#include "cli/Preprocess.h"
#include "cli/RunSkeleton.h"
#include "cli/SvgPlot.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <random>

namespace veltan_cli {

namespace {

constexpr float Missing = NCMisVal<float>;

// Rows of the first `a` components of a component matrix.
NCDataMatrix<float> FirstRows(const NCDataMatrix<float>& prim, int a, int columns)
{
    NCDataMatrix<float> rows(a, columns);
    for (int r = 1; r <= a; ++r)
        rows.SetRow(r, prim[r]);
    return rows;
}

// B (K x M) for the transformed but unscaled values, and the intercepts:
// y = c_y + (x - c_x) f_x B / f_y. Skipped steps of the scaling are
// missing centres and factors.
void RawCoefficients(PlsFit& fit)
{
    const NCScale& xs = fit.model->scale;
    const NCScale& ys = fit.model->yScale;
    auto value = [](const NCDataVector<float>& v, int j, double neutral) {
        return IsMisVal(v[j]) ? neutral : static_cast<double>(v[j]);
    };
    const int k = fit.coefficients.SizeRows(), m = fit.coefficients.SizeColumns();
    fit.rawCoefficients = NCDataMatrix<float>(k, m);
    fit.intercepts.assign(static_cast<std::size_t>(m), 0.0f);
    for (int c = 1; c <= m; ++c) {
        const double fy = value(ys.GetScaleVector(), c, 1.0);
        double intercept = value(ys.GetCenterVector(), c, 0.0);
        for (int j = 1; j <= k; ++j) {
            const double b = fit.coefficients[j][c] * value(xs.GetScaleVector(), j, 1.0) / fy;
            fit.rawCoefficients(j, c, static_cast<float>(b));
            intercept -= b * value(xs.GetCenterVector(), j, 0.0);
        }
        fit.intercepts[static_cast<std::size_t>(c - 1)] = static_cast<float>(intercept);
    }
}

// The kept components as a model of exactly that size, with the residuals
// they leave, and what the output files show of it.
void KeepModel(PlsFit& fit, const NCPLS& pls, const NCDataMatrix<float>& cvResiduals)
{
    const int a = fit.kept;
    const int n = fit.x.SizeRows(), k = fit.x.SizeColumns(), m = fit.y.SizeColumns();
    const NCDataMatrix<float> wprim = FirstRows(*pls.GetWprim(), a, k);
    const NCDataMatrix<float> pprim = FirstRows(*pls.GetPprim(), a, k);
    const NCDataMatrix<float> cprim = FirstRows(*pls.GetCprim(), a, m);
    const NCDataMatrix<float> uprim = FirstRows(*pls.GetUprim(), a, n);
    NCDataMatrix<float> tprim = FirstRows(*pls.GetTprim(), a, n);
    NCDataMatrix<float> e = fit.x, f = fit.y;
    for (int c = 1; c <= a; ++c) {
        e.AddVprimV(tprim[c], pprim[c], -1.0);
        f.AddVprimV(tprim[c], cprim[c], -1.0);
    }
    fit.model->pls = NCPLS(&e, &f, &cprim, &pprim, &wprim, &uprim, &tprim, pls.GetMaxIterations());
    fit.model->components = a;

    // Fitted values T C'; the cross-validated ones take the last component
    // from the round that left the observation out.
    fit.fitted = NCDataMatrix<float>(n, m, 0.0f);
    fit.cvPredicted = NCDataMatrix<float>(n, m, 0.0f);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= m; ++j) {
            double sum = 0.0;
            bool present = true;
            for (int c = 1; c <= a; ++c) {
                present = present && !IsMisVal(tprim[c][i]);
                sum += static_cast<double>(tprim[c][i]) * cprim[c][j];
            }
            fit.fitted(i, j, present ? static_cast<float>(sum) : Missing);
            if (a > 0) {
                const float y = fit.y[i][j], r = cvResiduals[i][j];
                fit.cvPredicted(i, j, IsMisVal(y) || IsMisVal(r) ? Missing : y - r);
            }
        }
    UndoPreprocessing(fit.fitted, fit.model->yTransform.get(), fit.model->yScale);
    UndoPreprocessing(fit.cvPredicted, fit.model->yTransform.get(), fit.model->yScale);

    fit.coefficients = a > 0 ? NCPLS::GetRegressionCoefficients(wprim, pprim, cprim) : NCDataMatrix<float>(k, m);
    RawCoefficients(fit);
    fit.scores = std::move(tprim);
}

} // namespace

PlsFit FitPls(const XYTables& data, const PlsOptions& options, NCProgress& progress)
{
    const DataTable& xt = data.x;
    const int n = xt.Observations(), k = xt.Variables();
    if (n < 2)
        throw ToolError(xt.source + ": " + Plural(n, "observation") + "; a PLS model needs at least 2");
    const int groups = CrossValidationGroups(options.cvGroups, n, xt.source);
    CheckComponentCount(options.components, n, k, options.scale != NCScale::ScaleNone, xt.source, "X variable");

    PlsFit fit;
    fit.fixed = options.components > 0;
    fit.cvGroups = groups;
    fit.model = std::make_unique<PlsModelFile>();
    fit.model->observations = n;
    FitXYPreprocessing(data, options.logVariables, options.scale, options.yScale, *fit.model, fit.x, fit.y);

    PLS_CrossValidated pls(fit.x, fit.y, groups, nullptr);
    pls.KeepEveryComponent(fit.fixed);
    const CancelText aborted("Calculation of", "PLS component aborted.");
    // The significance rule ends an open-ended fit at min(K, N - 3) + 1
    // components at the latest (N3); the bound only guards the loop.
    const int limit = fit.fixed ? options.components : std::min(n, k) + 1;
    progress.SetRangeInternal(0.0f, fit.fixed ? static_cast<float>(limit) : 1.0f);
    for (int a = 1; a <= limit; ++a) {
        CheckBreak(&progress, aborted);
        progress.SetText("PLS component " + std::to_string(a) + (fit.fixed ? " of " + std::to_string(limit) : ""));
        const float from = fit.fixed ? static_cast<float>(a - 1) : 0.0f;
        SignificanceE::Significance verdict = SignificanceE::NA;
        try {
            ProgressSubRange component(&progress, from, from + 1.0f, aborted);
            verdict = pls.NextComponent(&progress);
        } catch (const NCError& e) {
            // No X-Y correlation left: the components before stand. Without
            // any, or short of a count the user asked for, the fit fails.
            if (!NCPLS::IsNoCorrelation(e) || fit.fixed || a == 1)
                throw ToolError(xt.source + ": " + OneLine(e.what()) + (a == 1 ? " (nothing to model)" : ""));
            fit.stopReason = "component " + std::to_string(a) + " could not be computed (" + OneLine(e.what()) + ")";
            break;
        }
        if (!fit.fixed && !SignificanceE::IsSignificant(verdict)) {
            fit.stopReason = "component " + std::to_string(a) + " is " + DescribeSignificance(verdict, "responses");
            break;
        }
    }
    progress.Refresh();
    fit.records = pls.GetRecords();
    fit.kept = pls.GetComponents();
    KeepModel(fit, pls.GetModel(), pls.GetKeptPredResiduals());
    return fit;
}

namespace {

void PrintReport(std::ostream& out, const XYTables& data, const PlsOptions& options, const PlsFit& fit,
                 const PermutationTest* test)
{
    const DataTable& y = data.y;
    PrintXYHeading(out, data, {"PLS", options.bundled, options.scale, options.yScale, options.logVariables.size(),
                               fit.cvGroups});

    out << "Component     R2X  R2X(cum)     R2Y  R2Y(cum)      Q2  Q2(cum)  Q2 limit  Significance\n";
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PlsComponent& c = fit.records[r];
        char number[16];
        std::snprintf(number, sizeof number, "%9d", static_cast<int>(r) + 1);
        out << number << Cell(c.r2x, 8) << Cell(c.r2xCum, 10) << Cell(c.r2y, 8) << Cell(c.r2yCum, 10)
            << Cell(c.q2, 8) << Cell(c.q2Cum, 9) << Cell(c.q2Limit, 10) << "  "
            << SignificanceE::GetSignificance(c.significance) << "\n";
    }
    out << "\n";
    out << FitSummary(fit.kept, fit.fixed, fit.stopReason) << "\n";

    if (y.Variables() > 1 && fit.kept > 0) {
        const PlsComponent& last = fit.records[static_cast<std::size_t>(fit.kept - 1)];
        std::size_t width = 8;
        for (const std::string& name : y.variables)
            width = std::max(width, name.size());
        out << "\n" << std::string("Response") << std::string(width - 8, ' ') << "  R2Y(cum)  Q2(cum)\n";
        for (std::size_t j = 0; j < y.variables.size(); ++j)
            out << y.variables[j] << std::string(width - y.variables[j].size(), ' ')
                << Cell(last.r2yCumResponses[static_cast<int>(j) + 1], 10)
                << Cell(last.q2CumResponses[static_cast<int>(j) + 1], 9) << "\n";
    }

    if (test) {
        char line[160];
        out << "\nPermutation test: " << Plural(static_cast<int>(test->rows.size()), "permutation")
            << " of the responses (seed " << test->seed << "), " << Plural(test->components, "component")
            << " each\n";
        std::snprintf(line, sizeof line, "  R2Y(cum) %.3f, intercept %.3f; %d of %d permuted values reach it\n",
                      static_cast<double>(test->r2y), test->r2yIntercept, test->r2yReached,
                      static_cast<int>(test->rows.size()));
        out << line;
        std::snprintf(line, sizeof line, "  Q2(cum)  %.3f, intercept %.3f; %d of %d permuted values reach it\n",
                      static_cast<double>(test->q2), test->q2Intercept, test->q2Reached,
                      static_cast<int>(test->rows.size()));
        out << line;
    }
}

void WriteCoefficients(std::ostream& out, const XYTables& data, const PlsFit& fit)
{
    const int k = fit.coefficients.SizeRows(), m = fit.coefficients.SizeColumns();
    std::vector<std::string> fields{"variable"};
    for (const std::string& name : data.y.variables)
        fields.push_back(name);
    for (const std::string& name : data.y.variables)
        fields.push_back(name + " (scaled)");
    WriteCsvRecord(out, fields);
    for (int j = 1; j <= k; ++j) {
        fields.assign(1, data.x.variables[static_cast<std::size_t>(j - 1)]);
        for (int c = 1; c <= m; ++c)
            fields.push_back(FormatValue(fit.rawCoefficients[j][c]));
        for (int c = 1; c <= m; ++c)
            fields.push_back(FormatValue(fit.coefficients[j][c]));
        WriteCsvRecord(out, fields);
    }
    // The preprocessed blocks need none: both are centred, or neither is.
    fields.assign(1, "(intercept)");
    for (int c = 1; c <= m; ++c)
        fields.push_back(FormatValue(fit.intercepts[static_cast<std::size_t>(c - 1)]));
    for (int c = 1; c <= m; ++c)
        fields.push_back("0");
    WriteCsvRecord(out, fields);
}

void WritePermutations(std::ostream& out, const PermutationTest& test)
{
    WriteCsvRecord(out, {"permutation", "correlation", "R2Y(cum)", "Q2(cum)"});
    for (std::size_t p = 0; p < test.rows.size(); ++p) {
        const PermutationRow& row = test.rows[p];
        WriteCsvRecord(out, {std::to_string(p + 1), FormatValue(row.correlation), FormatValue(row.r2y),
                             FormatValue(row.q2)});
    }
}

} // namespace

namespace {

// One panel per response: its observed values against their
// cross-validated predictions, both in the response's units, on one scale
// so that the line y = x is the diagonal a perfect model would fill.
PlotFigure PredictionPlot(const XYTables& data, const PlsFit& fit)
{
    PlotFigure figure;
    figure.title = "PLS of " + std::filesystem::path(data.x.source).filename().string() + ": observed against " +
                   "cross-validated predictions, " + Plural(fit.kept, "component");
    for (int j = 1; j <= data.y.Variables(); ++j) {
        PlotPanel panel;
        panel.title = data.y.variables[static_cast<std::size_t>(j - 1)];
        panel.xTitle = "Cross-validated prediction";
        panel.yTitle = "Observed";
        panel.sameScales = true;
        PlotSeries points{PlotSeries::Kind::Points, "observations", {}, {}, data.x.observations};
        double low = std::numeric_limits<double>::infinity(), high = -low;
        for (int i = 1; i <= data.y.Observations(); ++i) {
            points.x.push_back(PlotCoordinate(fit.cvPredicted[i][j]));
            points.y.push_back(PlotCoordinate(data.y.values[i][j]));
            for (const double v : {points.x.back(), points.y.back()})
                if (std::isfinite(v)) {
                    low = std::min(low, v);
                    high = std::max(high, v);
                }
        }
        panel.series.push_back(std::move(points));
        if (low <= high)
            panel.series.push_back({PlotSeries::Kind::Line, "y = x", {low, high}, {low, high}, {}});
        figure.panels.push_back(std::move(panel));
    }
    return figure;
}

void WritePlsFiles(RunOutputs& files, const XYTables& data, const PlsOptions& options, const PlsFit& fit,
                   const PermutationTest* test)
{
    const std::string corner = ObservationHeader(data.x);
    const std::vector<std::string>& rows = data.x.observations;
    files.Add("coefficients", options.coefficientsPath,
              [&](std::ostream& file) { WriteCoefficients(file, data, fit); },
              WrittenTo("Coefficients", options.coefficientsPath));
    AddResponseTables(files, data, options.fittedPath, fit.fitted, options.cvPredictionsPath, fit.cvPredicted);
    files.Add("scores", options.scoresPath,
              [&](std::ostream& file) { WriteTransposedCsv(file, corner, rows, Numbered("t", fit.kept), fit.scores); },
              WrittenTo("Scores", options.scoresPath));
    files.Add("model", options.savePath,
              [&](std::ostream& file) { WriteModelRecord(*fit.model, file, options.savePath); },
              SavedTo("Model", options.savePath));
    if (test)
        files.Add("permutations", options.permutationsPath,
                  [&](std::ostream& file) { WritePermutations(file, *test); },
                  WrittenTo("Permutations", options.permutationsPath));
    files.Add("plot", options.plotPath,
              [&](std::ostream& file) { WriteSvg(file, PredictionPlot(data, fit)); },
              WrittenTo("Prediction plot", options.plotPath));
}

// The permutation test of the fitted model, at one component when none was
// significant.
std::unique_ptr<PermutationTest> TestByPermutation(const PlsOptions& options, const PlsFit& fit,
                                                   NCProgress& progress)
{
    const int a = std::max(fit.kept, 1);
    const PlsComponent& real = fit.records[static_cast<std::size_t>(a - 1)];
    const unsigned seed = options.seed ? *options.seed : std::random_device{}();
    progress.SetText("Permutation test");
    return std::make_unique<PermutationTest>(RunPermutationTest(
        fit.x, fit.y, a, fit.cvGroups, options.permutations, seed, real.r2yCum, real.q2Cum, progress));
}

class PlsCommand final : public TableCommand<PlsOptions> {
    std::string m_scale = "uv";
    std::string m_yScale;
    unsigned m_seed = 0;
    CLI::Option* m_seedOption = nullptr;

    void RegisterOutputs(CLI::App& command)
    {
        AddOutputOption(command, "--coefficients", m_options.coefficientsPath,
                        "Write the regression coefficients (X variables x responses) as CSV");
        AddOutputOption(command, "--fitted", m_options.fittedPath, "Write the fitted responses as CSV");
        AddOutputOption(command, "--cv-predictions", m_options.cvPredictionsPath,
                        "Write the cross-validated predictions of the responses as CSV");
        AddOutputOption(command, "--scores", m_options.scoresPath,
                        "Write the X scores (observations x components) as CSV");
        AddSaveOption(command, m_options.savePath);
        command
            .add_option("--permutations", m_options.permutations,
                        "Refit to N shufflings of the responses and report the intercepts of R2Y and Q2")
            ->check(CLI::Range(1, 100000));
        m_seedOption = command.add_option("--seed", m_seed, "Seed of the shuffling (default: random, and reported)");
        AddOutputOption(command, "--permutations-out", m_options.permutationsPath,
                        "Write every permutation's correlation, R2Y(cum) and Q2(cum) as CSV");
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw each response's observed values against their cross-validated predictions as SVG");
    }

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "pls", "Fit a PLS regression of responses on the other variables, one cross-validated component at a "
                   "time, and print its component table. Without DATA, the bundled wine data set is used.");
        AddXYArguments(command, m_options);
        AddComponentsOption(command, m_options.components);
        AddCvGroupsOption(command, m_options.cvGroups);
        AddXYPreprocessingOptions(command, m_scale, m_yScale, m_options.logVariables);
        AddNamesOption(command, m_names);
        RegisterOutputs(command);
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        m_options.scale = ScalingNamed(m_scale);
        m_options.yScale = ScalingNamed(m_yScale.empty() ? m_scale : m_yScale);
        if (m_seedOption->count() > 0)
            m_options.seed = m_seed;
        return RunPls(m_options, out);
    }
};

} // namespace

int RunPls(const PlsOptions& options, std::ostream& out)
{
    if (options.permutations == 0 && !options.permutationsPath.empty())
        throw ToolError("--permutations-out needs --permutations N", ExitUsage);
    const XYTables data = ReadXYTables(options, "pls");
    PlsFit fit;
    std::unique_ptr<PermutationTest> test;
    RunSteps steps;
    steps.task = "Fitting PLS";
    steps.source = data.x.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress& progress) {
        fit = FitPls(data, options, progress);
        if (options.permutations > 0)
            test = TestByPermutation(options, fit, progress);
    };
    steps.write = [&](RunOutputs& files) { WritePlsFiles(files, data, options, fit, test.get()); };
    steps.document = [&](const std::vector<WrittenFile>& files) {
        return PlsJson(data, options, fit, test.get(), files);
    };
    steps.report = [&](std::ostream& report) { PrintReport(report, data, options, fit, test.get()); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakePlsCommand() { return std::make_unique<PlsCommand>(); }

} // namespace veltan_cli
