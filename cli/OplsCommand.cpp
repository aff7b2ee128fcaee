#include "cli/OplsCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/FitLimits.h"
#include "cli/JsonOutput.h"
#include "cli/ModelFile.h"
#include "cli/Preprocess.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/SvgPlot.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/NipalsDefaults.h"
#include "veltancmat/models/OPLSCrossValidation.h"
#include "veltancmat/models/OPLSExplained.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>

namespace veltan_cli {

namespace {

constexpr float Missing = NCMisVal<float>;

// The R2 figures of the model's current stage and the cross-validation's Q2.
OplsStage StageOf(const NCOPLS& model, const OPLSCrossValidation& cv, const NCDataMatrix<float>& x,
                  const NCDataMatrix<float>& y)
{
    const OPLSExplained explained = GetOPLSExplained(model, x, y);
    OplsStage stage;
    stage.orthogonal = model.SizeOrthogonalComponents();
    stage.r2xPredictive = explained.r2xPredictive;
    stage.r2xOrthogonal = explained.r2xOrthogonal;
    stage.r2y = explained.r2y;
    stage.r2yResponses = explained.r2yResponses;
    stage.q2Cum = cv.GetQ2TotCum();
    stage.q2CumResponses = cv.GetQ2YVarCum();
    stage.q2Limit = cv.GetQ2Lim();
    return stage;
}

// What the output files show of the kept model, and the model file.
void KeepModel(OplsFit& fit, const NCOPLS& model, const OPLSCrossValidation& cv)
{
    OplsModelFile& file = *fit.model;
    file.wList = *model.GetWMatrices();
    file.pList = *model.GetPMatrices();
    file.cList = *model.GetCMatrices();
    file.woprim = *model.GetWOprim();
    file.poprim = *model.GetPOprim();
    file.coprim = *model.GetCOprim();
    file.components = fit.orthogonal;
    fit.scores = *model.GetTprim();
    fit.orthogonalScores = *model.GetTOprim();
    fit.loadings = *model.GetPprim();
    fit.orthogonalLoadings = *model.GetPOprim();
    fit.fitted = GetOPLSFittedY(fit.scores, *model.GetCprim(), fit.orthogonalScores, *model.GetCOprim());
    fit.cvPredicted = cv.GetYPred();
    UndoPreprocessing(fit.fitted, file.yTransform.get(), file.yScale);
    UndoPreprocessing(fit.cvPredicted, file.yTransform.get(), file.yScale);
}

std::string Decimals(float v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(v));
    return text;
}

// Whether a stage's Q2 rises enough above the one before it to keep it.
bool RaisesQ2(const OplsStage& before, const OplsStage& after)
{
    return !IsMisVal(before.q2Cum) && !IsMisVal(after.q2Cum) && after.q2Cum - before.q2Cum >= MinQ2Gain;
}

// The most predictive components the data can give: the basis comes from
// Y'X, of rank min(M, K), and the scores need N - 1 degrees of freedom
// once centred.
void CheckPredictiveCount(int requested, const XYTables& data, bool centred)
{
    const int n = data.x.Observations(), k = data.x.Variables(), m = data.y.Variables();
    const int capacity = std::min({m, k, n - (centred ? 1 : 0)});
    if (requested > capacity)
        throw ToolError("--predictive " + std::to_string(requested) + ": " + data.x.source + " can take at most " +
                            std::to_string(capacity) + " (" + Plural(m, "response") + ", " +
                            Plural(k, "X variable") + ", " + Plural(n, "observation") + ")",
                        ExitUsage);
}

std::string LimitPhrase(const OplsFit& fit, int n, int k)
{
    return "min(K - A, N - A - 2, " + std::to_string(MaxOrthogonalComponents) + ") = min(" +
           std::to_string(k - fit.predictive) + ", " + std::to_string(n - fit.predictive - 2) + ", " +
           std::to_string(MaxOrthogonalComponents) + ")";
}

} // namespace

namespace {

// The checks, the model file's description of the data, and the
// preprocessed blocks.
OplsFit PreparedFit(const XYTables& data, const OplsOptions& options)
{
    const DataTable& xt = data.x;
    const DataTable& yt = data.y;
    const int n = xt.Observations(), m = yt.Variables();
    // Every cross-validation round must keep two observations to fit on.
    if (n < 3)
        throw ToolError(xt.source + ": " + Plural(n, "observation") + "; an OPLS model needs at least 3");
    if (m > n)
        throw ToolError(yt.source + ": " + Plural(m, "response") + ", but only " + Plural(n, "observation") +
                        "; an OPLS model takes no more responses than observations");
    OplsFit fit;
    fit.cvGroups = CrossValidationGroups(options.cvGroups, n, xt.source);
    CheckPredictiveCount(options.predictive, data, options.scale != NCScale::ScaleNone);
    fit.fixed = options.orthogonal >= 0;
    fit.model = std::make_unique<OplsModelFile>();
    fit.model->observations = n;
    FitXYPreprocessing(data, options.logVariables, options.scale, options.yScale, *fit.model, fit.x, fit.y);
    // A response left all zeros (constant, centred and not scaled) has no
    // covariance with X; the model's basis would be undefined.
    for (int j = 1; j <= m; ++j)
        if (!(fit.y.GetColumnSS(j) > 0.0))
            throw ToolError(yt.Where(0, j) + ": this response does not vary once preprocessed (nothing to model)");
    return fit;
}

// One stage: the model's next step, then the same step in every round of
// the cross-validation. A fixed fit knows its stages and reports across
// them; an open-ended one fills the bar anew for every stage.
class StageRunner {
public:
    StageRunner(NCProgress& progress, const OplsFit& fit, int stages)
        : m_progress(progress), m_fixed(fit.fixed), m_groups(fit.cvGroups)
    {
        m_progress.SetRangeInternal(0.0f, m_fixed ? static_cast<float>(stages) : 1.0f);
    }

    void operator()(int stage, NCOPLS& model, const std::function<void()>& validate) const
    {
        const CancelText aborted("Calculations of", "OPLS component aborted.");
        CheckBreak(&m_progress, aborted);
        const float from = m_fixed ? static_cast<float>(stage) : 0.0f;
        ProgressSubRange range(&m_progress, from, from + 1.0f, aborted);
        m_progress.SetRangeInternal(0.0f, static_cast<float>(m_groups + 1));
        {
            ProgressSubRange part(&m_progress, 0.0f, 1.0f, aborted);
            model.NextComponent(&m_progress);
        }
        ProgressSubRange part(&m_progress, 1.0f, static_cast<float>(m_groups + 1), aborted);
        validate();
    }

private:
    NCProgress& m_progress;
    bool m_fixed;
    int m_groups;
};

// Adds orthogonal components up to `last`, each tried on copies of the model
// and its validation, so that one that is not kept leaves both as they were.
void AddOrthogonalComponents(OplsFit& fit, const StageRunner& run, NCProgress& progress, int last, NCOPLS& model,
                             std::optional<OPLSCrossValidation>& cv, const std::string& source)
{
    for (int o = 1; o <= last; ++o) {
        progress.SetText("OPLS orthogonal component " + std::to_string(o) +
                         (fit.fixed ? " of " + std::to_string(last) : ""));
        NCOPLS next = model;
        OPLSCrossValidation nextCv = *cv;
        try {
            run(o, next, [&] { nextCv.NextComponent(&progress); });
        } catch (const NCError& e) {
            if (fit.fixed)
                throw ToolError(source + ": orthogonal component " + std::to_string(o) + ": " + OneLine(e.what()));
            fit.stopReason =
                "orthogonal component " + std::to_string(o) + " could not be computed (" + OneLine(e.what()) + ")";
            return;
        }
        OplsStage stage = StageOf(next, nextCv, fit.x, fit.y);
        if (!fit.fixed && !RaisesQ2(fit.stages.back(), stage)) {
            stage.kept = false;
            fit.stopReason = "orthogonal component " + std::to_string(o) + " changes Q2(cum) by " +
                             (IsMisVal(stage.q2Cum) || IsMisVal(fit.stages.back().q2Cum)
                                  ? std::string("an unknown amount")
                                  : Decimals(stage.q2Cum - fit.stages.back().q2Cum)) +
                             ", less than " + Decimals(MinQ2Gain);
            fit.stages.push_back(std::move(stage));
            return;
        }
        model = std::move(next);
        cv = std::move(nextCv);
        fit.stages.push_back(std::move(stage));
        fit.orthogonal = o;
    }
}

} // namespace

OplsFit FitOpls(const XYTables& data, const OplsOptions& options, NCProgress& progress)
{
    const DataTable& xt = data.x;
    const int n = xt.Observations(), k = xt.Variables();
    OplsFit fit = PreparedFit(data, options);
    const StageRunner run(progress, fit, options.orthogonal + 1);

    progress.SetText("OPLS predictive part");
    NCOPLS model(&fit.x, &fit.y, options.predictive, NCNipals::DefaultMaxIterations);
    std::optional<OPLSCrossValidation> cv;
    try {
        run(0, model, [&] { cv.emplace(&fit.x, &fit.y, model.GetNumPredictive(), fit.cvGroups, &progress, nullptr); });
    } catch (const NCError& e) {
        throw ToolError(xt.source + ": " + OneLine(e.what()) + " (nothing to model)");
    }
    fit.predictive = model.GetNumPredictive();
    fit.stages.push_back(StageOf(model, *cv, fit.x, fit.y));

    fit.orthogonalLimit = std::max(0, std::min({k - fit.predictive, n - fit.predictive - 2, MaxOrthogonalComponents}));
    if (fit.fixed && options.orthogonal > fit.orthogonalLimit)
        throw ToolError("--orthogonal " + std::to_string(options.orthogonal) + ": " + xt.source +
                            " can take at most " + std::to_string(fit.orthogonalLimit) + " with " +
                            Plural(fit.predictive, "predictive component") + " (" + LimitPhrase(fit, n, k) + ")",
                        ExitUsage);
    AddOrthogonalComponents(fit, run, progress, fit.fixed ? options.orthogonal : fit.orthogonalLimit, model, cv,
                            xt.source);
    if (!fit.fixed && fit.stopReason.empty())
        fit.stopReason = "reached the limit of " + Plural(fit.orthogonalLimit, "orthogonal component") + ", " +
                         LimitPhrase(fit, n, k);
    progress.Refresh();
    KeepModel(fit, model, *cv);
    return fit;
}

namespace {

// "1 predictive + 2 orthogonal components".
std::string ModelSize(int predictive, int orthogonal)
{
    return std::to_string(predictive) + " predictive + " + Plural(orthogonal, "orthogonal component");
}

void PrintReport(std::ostream& out, const XYTables& data, const OplsOptions& options, const OplsFit& fit)
{
    const DataTable& y = data.y;
    PrintXYHeading(out, data, {"OPLS", options.bundled, options.scale, options.yScale, options.logVariables.size(),
                               fit.cvGroups});

    out << "Components  R2X(pred)  R2X(orth)     R2Y  Q2(cum)  Q2 limit\n";
    for (const OplsStage& s : fit.stages) {
        char label[32];
        std::snprintf(label, sizeof label, "%10s", (std::to_string(fit.predictive) + "+" +
                                                    std::to_string(s.orthogonal)).c_str());
        out << label << Cell(s.r2xPredictive, 11) << Cell(s.r2xOrthogonal, 11) << Cell(s.r2y, 8)
            << Cell(s.q2Cum, 9) << Cell(s.q2Limit, 10) << (s.kept ? "" : "  (not kept)") << "\n";
    }
    out << "\n" << ModelSize(fit.predictive, fit.orthogonal) << " "
        << (fit.fixed ? "fitted, as asked." : "kept; " + fit.stopReason + ".") << "\n";

    if (y.Variables() > 1) {
        const OplsStage& kept = fit.stages[static_cast<std::size_t>(fit.orthogonal)];
        std::size_t width = 8;
        for (const std::string& name : y.variables)
            width = std::max(width, name.size());
        out << "\nResponse" << std::string(width - 8, ' ') << "     R2Y  Q2(cum)\n";
        for (std::size_t j = 0; j < y.variables.size(); ++j)
            out << y.variables[j] << std::string(width - y.variables[j].size(), ' ')
                << Cell(kept.r2yResponses[static_cast<int>(j) + 1], 8)
                << Cell(kept.q2CumResponses[static_cast<int>(j) + 1], 9) << "\n";
    }
}

// The scores of the first orthogonal against the first predictive
// component, each observation labelled: between-class variation runs along
// the horizontal axis, variation unrelated to Y along the vertical. A model
// without orthogonal components has no second axis to offer, so its first
// predictive scores are drawn against the observations' order instead, as a
// one-component PCA's are.
PlotFigure ScorePlot(const XYTables& data, const OplsFit& fit)
{
    const bool plane = fit.orthogonal > 0;
    PlotPanel panel;
    panel.zeroLines = true;
    PlotSeries points;
    points.labels = data.x.observations;
    for (int i = 1; i <= data.x.Observations(); ++i) {
        points.x.push_back(plane ? PlotCoordinate(fit.scores[1][i]) : i);
        points.y.push_back(PlotCoordinate(plane ? fit.orthogonalScores[1][i] : fit.scores[1][i]));
    }
    panel.series.push_back(std::move(points));
    panel.xTitle = plane ? "t[1] (predictive)" : "observation index";
    panel.yTitle = plane ? "to[1] (orthogonal)" : "t[1] (predictive)";
    panel.title = plane ? "to[1] against t[1]" : "t[1] against observation index (no orthogonal component)";
    const std::string name = std::filesystem::path(data.x.source).filename().string();
    return PlotFigure{"OPLS scores of " + name + ", " + ModelSize(fit.predictive, fit.orthogonal), {std::move(panel)}};
}

// Predictive columns, then orthogonal ones.
std::vector<std::string> ComponentNames(const char* predictive, const char* orthogonal, const OplsFit& fit)
{
    std::vector<std::string> names = Numbered(predictive, fit.predictive);
    for (const std::string& name : Numbered(orthogonal, fit.orthogonal))
        names.push_back(name);
    return names;
}

NCDataMatrix<float> Stacked(const NCDataMatrix<float>& top, const NCDataMatrix<float>& bottom)
{
    NCDataMatrix<float> rows = top;
    for (int r = 1; r <= bottom.SizeRows(); ++r)
        rows.push_back(bottom[r]);
    return rows;
}

void WriteOplsFiles(RunOutputs& files, const XYTables& data, const OplsOptions& options, const OplsFit& fit)
{
    const std::string corner = ObservationHeader(data.x);
    const std::vector<std::string>& rows = data.x.observations;
    AddResponseTables(files, data, options.fittedPath, fit.fitted, options.cvPredictionsPath, fit.cvPredicted);
    files.Add("scores", options.scoresPath,
              [&](std::ostream& file) {
                  WriteTransposedCsv(file, corner, rows, ComponentNames("t", "to", fit),
                                     Stacked(fit.scores, fit.orthogonalScores));
              },
              WrittenTo("Scores", options.scoresPath));
    files.Add("loadings", options.loadingsPath,
              [&](std::ostream& file) {
                  WriteTransposedCsv(file, "variable", data.x.variables, ComponentNames("p", "po", fit),
                                     Stacked(fit.loadings, fit.orthogonalLoadings));
              },
              WrittenTo("Loadings", options.loadingsPath));
    files.Add("model", options.savePath,
              [&](std::ostream& file) { WriteModelRecord(*fit.model, file, options.savePath); },
              SavedTo("Model", options.savePath));
    files.Add("plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, ScorePlot(data, fit)); },
              WrittenTo("Score plot", options.plotPath));
}

class OplsCommand final : public TableCommand<OplsOptions> {
    std::string m_scale = "uv";
    std::string m_yScale;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "opls", "Fit an OPLS regression: the predictive part, then orthogonal components while each raises the "
                    "cross-validated Q2 by at least 0.01, and print one row per stage. Without DATA, the bundled wine "
                    "data set is used.");
        AddXYArguments(command, m_options);
        command
            .add_option("--predictive", m_options.predictive,
                        "Fit A predictive components (default: as many as the covariance of Y and X carries)")
            ->type_name("A")
            ->check(CLI::PositiveNumber);
        command
            .add_option("--orthogonal", m_options.orthogonal,
                        "Fit exactly N orthogonal components instead of stopping when Q2 stops rising")
            ->type_name("N")
            ->check(CLI::NonNegativeNumber);
        AddCvGroupsOption(command, m_options.cvGroups);
        AddXYPreprocessingOptions(command, m_scale, m_yScale, m_options.logVariables);
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--fitted", m_options.fittedPath, "Write the fitted responses as CSV");
        AddOutputOption(command, "--cv-predictions", m_options.cvPredictionsPath,
                        "Write the cross-validated predictions of the responses as CSV");
        AddOutputOption(command, "--scores", m_options.scoresPath,
                        "Write the predictive and orthogonal X scores (observations x components) as CSV");
        AddOutputOption(command, "--loadings", m_options.loadingsPath,
                        "Write the predictive and orthogonal X loadings (variables x components) as CSV");
        AddSaveOption(command, m_options.savePath);
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the first orthogonal against the first predictive scores (to[1] against t[1]) as SVG");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        m_options.scale = ScalingNamed(m_scale);
        m_options.yScale = ScalingNamed(m_yScale.empty() ? m_scale : m_yScale);
        return RunOpls(m_options, out);
    }
};

} // namespace

int RunOpls(const OplsOptions& options, std::ostream& out)
{
    const XYTables data = ReadXYTables(options, "opls");
    OplsFit fit;
    RunSteps steps;
    steps.task = "Fitting OPLS";
    steps.source = data.x.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress& progress) { fit = FitOpls(data, options, progress); };
    steps.write = [&](RunOutputs& files) { WriteOplsFiles(files, data, options, fit); };
    steps.document = [&](const std::vector<WrittenFile>& files) { return OplsJson(data, options, fit, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, data, options, fit); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeOplsCommand() { return std::make_unique<OplsCommand>(); }

} // namespace veltan_cli
