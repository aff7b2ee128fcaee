#include "cli/PcaCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/FitLimits.h"
#include "cli/JsonOutput.h"
#include "cli/Preprocess.h"
#include "cli/RunSkeleton.h"
#include "cli/SvgPlot.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>

namespace veltan_cli {

namespace {

void PrintTable(std::ostream& out, const DataTable& table, const PcaOptions& options, const PcaFit& fit)
{
    out << "PCA of " << (options.bundled ? "the bundled wine data set" : table.source) << ": "
        << Plural(table.Observations(), "observation") << ", " << Plural(table.Variables(), "variable") << ", "
        << ScalingPhrase(options.scale);
    if (!options.logVariables.empty())
        out << ", log10 of " << Plural(static_cast<int>(options.logVariables.size()), "variable");
    out << ", " << fit.cvGroups << " cross-validation groups\n\n";
    out << "Component     R2X  R2X(cum)  Eigenvalue      Q2  Q2(cum)  Q2 limit  Significance\n";
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PCA_CrossValidated::Component& c = fit.records[r];
        char number[16];
        std::snprintf(number, sizeof number, "%9d", static_cast<int>(r) + 1);
        out << number << Cell(c.r2, 8) << Cell(c.r2Cum, 10) << Cell(c.eigenvalue, 12) << Cell(c.q2, 8)
            << Cell(c.q2Cum, 9) << Cell(c.q2Limit, 10) << "  " << SignificanceE::GetSignificance(c.significance)
            << "\n";
    }
    out << "\n";
    out << FitSummary(fit.kept, fit.fixed, fit.stopReason) << "\n";
}

} // namespace

PcaFit FitPca(const DataTable& table, const PcaOptions& options, NCProgress& progress)
{
    const int n = table.Observations();
    const int k = table.Variables();
    if (n < 2)
        throw ToolError(table.source + ": " + Plural(n, "observation") + "; a PCA needs at least 2");
    if (k < 2)
        throw ToolError(table.source + ": " + Plural(k, "variable") + "; a PCA needs at least 2");
    const int groups = CrossValidationGroups(options.cvGroups, n, table.source);
    const bool centred = options.scale != NCScale::ScaleNone;
    const int capacity = CheckComponentCount(options.components, n, k, centred, table.source, "variable");

    PcaFit fit;
    fit.fixed = options.components > 0;
    fit.model = std::make_unique<PcaModelFile>();
    PcaModelFile& model = *fit.model;
    model.variables = table.variables;
    model.observations = n;
    NCDataMatrix<float> x = FitPreprocessing(table, options.logVariables, options.scale, model.transform, model.scale);

    fit.cvGroups = groups;
    PCA_CrossValidated cv(x, nullptr, groups, nullptr, model.scale.GetCenterVector(), EigenvalueTolerance, 0);
    cv.KeepEveryComponent(fit.fixed);
    NCDataMatrix<float> residuals, predResiduals;
    const int limit = fit.fixed ? options.components : capacity;
    // A fixed count gives the bar its whole length; an open-ended fit cannot
    // know it, so there the bar runs once per component.
    progress.SetRangeInternal(0.0f, fit.fixed ? static_cast<float>(limit) : 1.0f);
    // A Ctrl-C between two components reads as one during a component does.
    const CancelText aborted("Calculations of", "PC component aborted.");
    for (int a = 1; a <= limit; ++a) {
        CheckBreak(&progress, aborted);
        progress.SetText("PCA component " + std::to_string(a) + (fit.fixed ? " of " + std::to_string(limit) : ""));
        const float from = fit.fixed ? static_cast<float>(a - 1) : 0.0f;
        progress.PushSubRangeInternal(from, from + 1.0f, {});
        SignificanceE::Significance s = SignificanceE::NA;
        try {
            s = cv.NextComponent(residuals, predResiduals, progress);
        } catch (const CancelException&) {
            throw;
        } catch (const NCError& e) {
            // A component that cannot be computed ends an open-ended fit;
            // the ones before it stand. A count the user asked for cannot be met.
            if (fit.fixed || a == 1)
                throw ToolError(table.source + ": component " + std::to_string(a) + ": " + e.what());
            fit.stopReason = "component " + std::to_string(a) + " could not be computed (" + e.what() + ")";
            progress.PopSubRange();
            break;
        }
        progress.PopSubRange();
        if (!fit.fixed && s != SignificanceE::U && !SignificanceE::IsSignificant(s))
            break;
    }
    progress.Refresh();

    fit.records = cv.GetRecords();
    fit.kept = cv.GetComponents();
    if (!fit.fixed && fit.stopReason.empty() && fit.kept < static_cast<int>(fit.records.size()))
        fit.stopReason = "component " + std::to_string(fit.kept + 1) + " is " +
                         DescribeSignificance(fit.records[static_cast<std::size_t>(fit.kept)].significance);

    // The saved model holds the kept components only, with the residuals
    // they leave, so that it reads as a model of exactly that size.
    const NCDataMatrix<float>& pAll = *cv.GetModel().GetPprim();
    const NCDataMatrix<float>& tAll = *cv.GetModel().GetTprim();
    NCDataMatrix<float> pKept(fit.kept, k), tKept(fit.kept, n);
    NCDataMatrix<float> e = x;
    for (int a = 1; a <= fit.kept; ++a) {
        pKept.SetRow(a, pAll[a]);
        tKept.SetRow(a, tAll[a]);
        e.AddVprimV(tAll[a], pAll[a], -1.0);
    }
    model.pca = NCPCA(&e, &pKept, &tKept, cv.GetModel().GetMaxIterations());
    model.components = fit.kept;
    fit.scores = std::move(tKept);
    return fit;
}

namespace {

// "t[1] (36.2 %)": a component's axis, with the share of X it explains.
std::string ComponentAxis(char letter, int a, const PcaFit& fit)
{
    char share[32];
    std::snprintf(share, sizeof share, " (%.1f %%)",
                  100.0 * static_cast<double>(fit.records[static_cast<std::size_t>(a - 1)].r2));
    return std::string(1, letter) + "[" + std::to_string(a) + "]" + share;
}

// The plane of components 1 and 2 of `prim` (scores or loadings), each
// mark labelled with its name; with one component kept, component 1
// against the row index instead, as the title then says.
PlotFigure ComponentPlane(const std::string& what, char letter, const NCDataMatrix<float>& prim,
                          const std::vector<std::string>& names, const std::string& indexTitle, const PcaFit& fit,
                          const std::string& source)
{
    if (fit.kept == 0)
        throw ToolError(source + ": no component was kept, so there are no " + what + " to plot");
    PlotPanel panel;
    panel.zeroLines = true;
    PlotSeries points;
    points.labels = names;
    const bool plane = fit.kept >= 2;
    for (int i = 1; i <= prim.SizeColumns(); ++i) {
        points.x.push_back(plane ? PlotCoordinate(prim[1][i]) : i);
        points.y.push_back(PlotCoordinate(prim[plane ? 2 : 1][i]));
    }
    panel.series.push_back(std::move(points));
    panel.xTitle = plane ? ComponentAxis(letter, 1, fit) : indexTitle;
    panel.yTitle = ComponentAxis(letter, plane ? 2 : 1, fit);
    const std::string name = std::filesystem::path(source).filename().string();
    panel.title = plane ? std::string(1, letter) + "[2] against " + letter + "[1]"
                        : std::string(1, letter) + "[1] against " + indexTitle + " (one component kept)";
    return PlotFigure{"PCA " + what + " of " + name, {std::move(panel)}};
}

std::function<void(std::ostream&)> Plot(PlotFigure figure)
{
    return [figure = std::move(figure)](std::ostream& file) { WriteSvg(file, figure); };
}

void WritePcaFiles(RunOutputs& files, const DataTable& table, const PcaOptions& options, const PcaFit& fit)
{
    const NCDataMatrix<float>& loadings = *fit.model->pca.GetPprim();
    files.Add("scores", options.scoresPath, [&](std::ostream& file) {
        WriteTransposedCsv(file, ObservationHeader(table), table.observations, Numbered("t", fit.kept), fit.scores);
    }, WrittenTo("Scores", options.scoresPath));
    files.Add("loadings", options.loadingsPath, [&](std::ostream& file) {
        WriteTransposedCsv(file, "variable", table.variables, Numbered("p", fit.kept), loadings);
    }, WrittenTo("Loadings", options.loadingsPath));
    files.Add("model", options.savePath,
              [&](std::ostream& file) { WriteModel(*fit.model, file, options.savePath); },
              SavedTo("Model", options.savePath));
    if (!options.plotPath.empty())
        files.Add("plot", options.plotPath,
                  Plot(ComponentPlane("scores", 't', fit.scores, table.observations, "observation index", fit,
                                      table.source)),
                  WrittenTo("Score plot", options.plotPath));
    if (!options.loadingsPlotPath.empty())
        files.Add("loadings_plot", options.loadingsPlotPath,
                  Plot(ComponentPlane("loadings", 'p', loadings, table.variables, "variable index", fit,
                                      table.source)),
                  WrittenTo("Loading plot", options.loadingsPlotPath));
}

class PcaCommand final : public TableCommand<PcaOptions> {
    std::string m_scale = "uv";

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command = *tool.add_subcommand(
            "pca", "Fit a PCA model, one cross-validated component at a time, and print its component table. "
                   "Without DATA, the bundled wine data set is analysed.");
        AddTableArgument(command, m_options.data);
        AddComponentsOption(command, m_options.components);
        AddCvGroupsOption(command, m_options.cvGroups);
        AddScaleOption(command, m_scale, "Column scaling: uv (unit variance), pareto, center, none");
        AddLogOption(command, m_options.logVariables, "Take log10 of variable VAR before scaling (repeat for more)");
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--scores", m_options.scoresPath,
                        "Write the scores (observations x components) as CSV");
        AddOutputOption(command, "--loadings", m_options.loadingsPath,
                        "Write the loadings (variables x components) as CSV");
        AddSaveOption(command, m_options.savePath);
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the scores of components 1 and 2, labelled with the observation names, as SVG");
        AddOutputOption(command, "--plot-loadings", m_options.loadingsPlotPath,
                        "Draw the loadings of components 1 and 2, labelled with the variable names, as SVG");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        m_options.scale = ScalingNamed(m_scale);
        return RunPca(m_options, out);
    }
};

} // namespace

int RunPca(const PcaOptions& options, std::ostream& out)
{
    const DataTable table = ReadCsvTable(options.data, options.names);
    PcaFit fit;
    RunSteps steps;
    steps.task = "Fitting PCA";
    steps.source = table.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.compute = [&](NCProgress& progress) { fit = FitPca(table, options, progress); };
    steps.write = [&](RunOutputs& files) { WritePcaFiles(files, table, options, fit); };
    steps.document = [&](const std::vector<WrittenFile>& files) { return PcaJson(table, options, fit, files); };
    steps.report = [&](std::ostream& report) { PrintTable(report, table, options, fit); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakePcaCommand() { return std::make_unique<PcaCommand>(); }

} // namespace veltan_cli
