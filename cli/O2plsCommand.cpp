#include "cli/O2plsCommand.h"

#include "cli/Command.h"
#include "cli/CommonOptions.h"
#include "cli/CsvWriter.h"
#include "cli/FitLimits.h"
#include "cli/JsonOutput.h"
#include "cli/Preprocess.h"
#include "cli/Report.h"
#include "cli/RunSkeleton.h"
#include "cli/StatsColumns.h"
#include "cli/SvgPlot.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/models/NipalsDefaults.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace veltan_cli {

namespace {

constexpr float Missing = NCMisVal<float>;

// The model takes complete blocks only; the first gap is named in the
// file's own rows and columns. `values` may be the preprocessed block,
// where a log of a value that is not positive leaves a gap.
void CheckComplete(const DataTable& table, const NCDataMatrix<float>& values, const char* what)
{
    for (int i = 1; i <= values.SizeRows(); ++i)
        for (int j = 1; j <= values.SizeColumns(); ++j)
            if (IsMisVal(values[i][j]))
                throw ToolError(table.Where(i, j) + ": " + what +
                                "; an O2PLS model needs complete tables (fill the cell or leave the row out)");
}

// Cell (i, j) of the sum over components of score row a times loading row a.
double PartCell(const NCDataMatrix<float>& scores, const NCDataMatrix<float>& loadings, int i, int j)
{
    double sum = 0.0;
    for (int a = 1; a <= scores.SizeRows(); ++a)
        sum += static_cast<double>(scores[a][i]) * loadings[a][j];
    return sum;
}

float Share(double part, double whole) { return whole > 0.0 ? static_cast<float>(part / whole) : Missing; }

// The parts of one preprocessed block: joint scores times joint weights,
// orthogonal scores times orthogonal loadings, what is left, and the block
// as the other block predicts it.
O2plsShares SharesOf(const NCDataMatrix<float>& block, const NCDataMatrix<float>& jointScores,
                     const NCDataMatrix<float>& jointWeights, const NCDataMatrix<float>& orthogonalScores,
                     const NCDataMatrix<float>& orthogonalLoadings, const NCDataMatrix<float>& predicted)
{
    double ss = 0.0, joint = 0.0, orthogonal = 0.0, residual = 0.0, missed = 0.0;
    for (int i = 1; i <= block.SizeRows(); ++i)
        for (int j = 1; j <= block.SizeColumns(); ++j) {
            const double v = block[i][j];
            const double jp = PartCell(jointScores, jointWeights, i, j);
            const double op = PartCell(orthogonalScores, orthogonalLoadings, i, j);
            const double miss = v - predicted[i][j];
            ss += v * v;
            joint += jp * jp;
            orthogonal += op * op;
            residual += (v - jp - op) * (v - jp - op);
            missed += miss * miss;
        }
    return {Share(joint, ss), Share(orthogonal, ss), Share(residual, ss), Share(ss - missed, ss)};
}

// The most joint components the blocks can carry: the weights come from
// X'Y, of rank min(K, M), and the scores need N - 1 degrees of freedom once
// centred.
int JointCapacity(const XYTables& data, const O2plsOptions& options)
{
    const bool centred = options.scale != NCScale::ScaleNone || options.yScale != NCScale::ScaleNone;
    return std::min({data.x.Variables(), data.y.Variables(), data.x.Observations() - (centred ? 1 : 0)});
}

void RunGrid(O2plsFit& fit, const XYTables& data, const O2plsOptions& options, const NCDataMatrix<float>& x,
             const NCDataMatrix<float>& y, NCProgress& progress)
{
    fit.cvGroups = CrossValidationGroups(options.cvGroups, data.x.Observations(), data.x.source);
    const int joint = std::min(options.maxComponents, JointCapacity(data, options));
    if (joint < 1)
        throw ToolError(data.x.source + ": the blocks carry no joint component");
    progress.SetText("O2PLS cross-validation");
    const O2PLSCrossValidation cv(x, y, joint, options.maxComponents, options.maxComponents, fit.cvGroups, &progress);
    const O2PLSPredictiveComponentEstimator choice(cv.GetResults());
    fit.grid = cv.GetResults();
    fit.predictive = choice.GetPredictive();
    fit.xOrthogonal = choice.GetOrthogonalX();
    fit.yOrthogonal = choice.GetOrthogonalY();
}

void CheckCounts(const XYTables& data, const O2plsOptions& options)
{
    const int capacity = JointCapacity(data, options);
    if (options.predictive > capacity)
        throw ToolError("--predictive " + std::to_string(options.predictive) + ": " + data.x.source + " and " +
                            data.y.source + " can carry at most " + std::to_string(capacity) + " (" +
                            Plural(data.x.Variables(), "X variable") + ", " + Plural(data.y.Variables(), "Y variable") +
                            ", " + Plural(data.x.Observations(), "observation") + ")",
                        ExitUsage);
}

// The fitted model's parts, with the model file predict reads.
void KeepModel(O2plsFit& fit, const NCO2PLS& model, const NCDataMatrix<float>& x, const NCDataMatrix<float>& y)
{
    O2plsModelFile& file = *fit.model;
    file.components = model.SizePredictive();
    file.wprim = model.GetWprim();
    file.cprim = model.GetCprim();
    file.btu = model.GetBTU();
    file.but = model.GetBUT();
    file.woxprim = model.GetWOXprim();
    file.poxprim = model.GetPOXprim();
    file.woyprim = model.GetWOYprim();
    file.poyprim = model.GetPOYprim();
    fit.t = model.GetTprim();
    fit.u = model.GetUprim();
    fit.tox = model.GetTOXprim();
    fit.toy = model.GetTOYprim();
    fit.w = model.GetWprim();
    fit.c = model.GetCprim();
    fit.pox = model.GetPOXprim();
    fit.poy = model.GetPOYprim();
    fit.x = SharesOf(x, fit.t, fit.w, fit.tox, fit.pox, NCO2PLSYPred(model, y).GetPrediction());
    fit.y = SharesOf(y, fit.u, fit.c, fit.toy, fit.poy, NCO2PLSXPred(model, x).GetPrediction());
}

} // namespace

O2plsFit FitO2pls(const XYTables& data, const O2plsOptions& options, NCProgress& progress)
{
    const DataTable& xt = data.x;
    const DataTable& yt = data.y;
    const int n = xt.Observations();
    CheckComplete(xt, xt.values, "missing value");
    CheckComplete(yt, yt.values, "missing value");
    // Every cross-validation round must keep two observations to fit on.
    if (n < 3)
        throw ToolError(xt.source + ": " + Plural(n, "observation") + "; an O2PLS model needs at least 3");
    O2plsFit fit;
    fit.model = std::make_unique<O2plsModelFile>();
    fit.model->observations = n;
    NCDataMatrix<float> x, y;
    FitXYPreprocessing(data, options.logVariables, options.scale, options.yScale, *fit.model, x, y);
    CheckComplete(xt, x, "no value once preprocessed");
    CheckComplete(yt, y, "no value once preprocessed");
    for (const auto& [block, table] : {std::pair{&x, &xt}, std::pair{&y, &yt}})
        if (!(block->GetSSF() > 0.0f))
            throw ToolError(table->source + ": no variable varies once preprocessed (nothing to model)");

    if (options.cv) {
        RunGrid(fit, data, options, x, y, progress);
    } else {
        CheckCounts(data, options);
        fit.predictive = options.predictive;
        fit.xOrthogonal = options.xOrthogonal;
        fit.yOrthogonal = options.yOrthogonal;
    }
    progress.SetText("O2PLS model");
    CheckBreak(&progress, CancelText("O2PLS model aborted."));
    NCO2PLS model(x, y, true, NCNipals::DefaultMaxIterations);
    try {
        model.Fit(fit.predictive, fit.xOrthogonal, fit.yOrthogonal);
    } catch (const NCO2PLSDimensionalityException& e) {
        const bool xSide = e.GetSide() == NCO2PLSDimensionalityException::XSide;
        const std::string option = xSide ? "--x-orthogonal " + std::to_string(fit.xOrthogonal)
                                         : "--y-orthogonal " + std::to_string(fit.yOrthogonal);
        throw ToolError(option + ": " + (xSide ? xt.source : yt.source) + ": " + OneLine(e.what()),
                        options.cv ? ExitDataError : ExitUsage);
    } catch (const NCError& e) {
        throw ToolError(xt.source + " and " + yt.source + ": " + OneLine(e.what()));
    }
    KeepModel(fit, model, x, y);
    return fit;
}

namespace {

std::string Counts(int joint, int xOrthogonal, int yOrthogonal)
{
    return std::to_string(joint) + " joint + " + std::to_string(xOrthogonal) + " X-orthogonal + " +
           std::to_string(yOrthogonal) + " Y-orthogonal components";
}

// One row per (joint, X-orthogonal) pair, one column per Y-orthogonal count,
// for each direction; the chosen cell is starred.
void PrintGrid(std::ostream& out, const O2plsFit& fit)
{
    const O2PLSCVResults& grid = *fit.grid;
    const int columns = grid.MaxOrthogonalY() + 1;
    const std::string gap(4, ' ');
    const auto title = [&](const std::string& text) {
        const std::size_t width = static_cast<std::size_t>(columns) * 7;
        return PadLeft(text, std::max(width, text.size()));
    };
    out << "Cross-validated Q2 (" << fit.cvGroups << " groups); columns: Y-orthogonal components\n"
        << std::string(13, ' ') << title("Q2(Y from X)") << gap << title("Q2(X from Y)") << "\n"
        << "Joint  X-orth";
    for (int side = 0; side < 2; ++side) {
        out << (side ? gap : "");
        for (int oy = 0; oy < columns; ++oy)
            out << PadLeft(std::to_string(oy), 6) << " ";
    }
    out << "\n";
    for (int a = 1; a <= grid.MaxPredictive(); ++a)
        for (int ox = 0; ox <= grid.MaxOrthogonalX(); ++ox) {
            out << PadLeft(std::to_string(a), 5) << PadLeft(std::to_string(ox), 8);
            for (int side = 0; side < 2; ++side) {
                out << (side ? gap : "");
                for (int oy = 0; oy < columns; ++oy) {
                    const bool chosen = a == fit.predictive && ox == fit.xOrthogonal && oy == fit.yOrthogonal;
                    const float q2 = side ? grid.GetQ2X(a, ox, oy) : grid.GetQ2Y(a, ox, oy);
                    out << Cell(q2, 6) << (chosen ? "*" : " ");
                }
            }
            out << "\n";
        }
    out << "\nChosen (*): " << Counts(fit.predictive, fit.xOrthogonal, fit.yOrthogonal)
        << "; joint components while the mean of both Q2 rises by " << Cell(GetO2PLSExternalQ2Limit(), 0)
        << ", orthogonal ones while their direction's Q2 rises by " << Cell(GetO2PLSInternalQ2Limit(), 0) << ".\n\n";
}

void PrintReport(std::ostream& out, const XYTables& data, const O2plsOptions& options, const O2plsFit& fit)
{
    const DataTable& x = data.x;
    const DataTable& y = data.y;
    out << "O2PLS of " << x.source << " and " << y.source << ": " << Plural(x.Observations(), "observation") << ", "
        << Plural(x.Variables(), "X variable") << ", " << Plural(y.Variables(), "Y variable") << "; X "
        << ScalingPhrase(options.scale) << ", Y " << ScalingPhrase(options.yScale);
    if (!options.logVariables.empty())
        out << ", log10 of " << Plural(static_cast<int>(options.logVariables.size()), "variable");
    out << "\n\n";
    if (fit.grid)
        PrintGrid(out, fit);
    out << Counts(fit.predictive, fit.xOrthogonal, fit.yOrthogonal) << (fit.grid ? "" : ", as asked") << ":\n"
        << "Block      Joint  Orthogonal  Residual  Predicted\n";
    for (const auto& [name, shares] : {std::pair{"X", &fit.x}, std::pair{"Y", &fit.y}})
        out << name << "     " << Cell(shares->joint, 10) << Cell(shares->orthogonal, 12) << Cell(shares->residual, 10)
            << Cell(shares->predicted, 11) << "\n";
    out << "(shares of each block's sum of squares; Predicted: R2 of the block predicted from the other)\n";
}

// The joint scores of X against those of Y, one panel per joint component
// up to two: along the diagonal where the blocks share variation.
PlotFigure ScorePlot(const XYTables& data, const O2plsFit& fit)
{
    PlotFigure figure;
    figure.title = "O2PLS joint scores of " + std::filesystem::path(data.x.source).filename().string() + " and " +
                   std::filesystem::path(data.y.source).filename().string() + ", " +
                   Counts(fit.predictive, fit.xOrthogonal, fit.yOrthogonal);
    for (int a = 1; a <= std::min(2, fit.predictive); ++a) {
        PlotPanel panel;
        panel.zeroLines = true;
        PlotSeries points;
        points.labels = data.x.observations;
        for (int i = 1; i <= data.x.Observations(); ++i) {
            points.x.push_back(PlotCoordinate(fit.t[a][i]));
            points.y.push_back(PlotCoordinate(fit.u[a][i]));
        }
        panel.series.push_back(std::move(points));
        const std::string n = std::to_string(a);
        panel.xTitle = "t[" + n + "] (X)";
        panel.yTitle = "u[" + n + "] (Y)";
        panel.title = "u[" + n + "] against t[" + n + "]";
        figure.panels.push_back(std::move(panel));
    }
    return figure;
}

NCDataMatrix<float> Stacked(std::initializer_list<const NCDataMatrix<float>*> parts)
{
    NCDataMatrix<float> rows;
    for (const NCDataMatrix<float>* part : parts)
        for (int r = 1; r <= part->SizeRows(); ++r)
            rows.push_back((*part)[r]);
    return rows;
}

std::vector<std::string> ScoreNames(const O2plsFit& fit)
{
    std::vector<std::string> names;
    for (const auto& [prefix, count] : {std::pair{"t", fit.predictive}, std::pair{"u", fit.predictive},
                                        std::pair{"tox", fit.xOrthogonal}, std::pair{"toy", fit.yOrthogonal}})
        for (const std::string& name : Numbered(prefix, count))
            names.push_back(name);
    return names;
}

// One row per variable of either block: its joint weight (W for X, C for Y)
// and orthogonal loading (PO_X, PO_Y) on every component, empty where its
// side has fewer orthogonal components than the other.
void WriteLoadings(std::ostream& file, const XYTables& data, const O2plsFit& fit)
{
    const int orthogonal = std::max(fit.xOrthogonal, fit.yOrthogonal);
    std::vector<std::string> header{"block", "variable"};
    for (const std::string& name : Numbered("joint", fit.predictive))
        header.push_back(name);
    for (const std::string& name : Numbered("orthogonal", orthogonal))
        header.push_back(name);
    WriteCsvRecord(file, header);
    const auto block = [&](const char* label, const DataTable& table, const NCDataMatrix<float>& joint,
                           const NCDataMatrix<float>& po) {
        for (int j = 1; j <= table.Variables(); ++j) {
            std::vector<std::string> row{label, table.variables[static_cast<std::size_t>(j - 1)]};
            for (int a = 1; a <= joint.SizeRows(); ++a)
                row.push_back(FormatValue(joint[a][j]));
            for (int o = 1; o <= orthogonal; ++o)
                row.push_back(o <= po.SizeRows() ? FormatValue(po[o][j]) : "");
            WriteCsvRecord(file, row);
        }
    };
    block("X", data.x, fit.w, fit.pox);
    block("Y", data.y, fit.c, fit.poy);
}

void WriteO2plsFiles(RunOutputs& files, const XYTables& data, const O2plsOptions& options, const O2plsFit& fit)
{
    if (!options.plotPath.empty() && fit.predictive == 0)
        throw ToolError("--plot: the model has no joint component to draw");
    files.Add(
        "scores", options.scoresPath,
        [&](std::ostream& file) {
            WriteTransposedCsv(file, ObservationHeader(data.x), data.x.observations, ScoreNames(fit),
                               Stacked({&fit.t, &fit.u, &fit.tox, &fit.toy}));
        },
        WrittenTo("Scores", options.scoresPath));
    files.Add(
        "loadings", options.loadingsPath, [&](std::ostream& file) { WriteLoadings(file, data, fit); },
        WrittenTo("Loadings", options.loadingsPath));
    files.Add(
        "model", options.savePath, [&](std::ostream& file) { WriteModelRecord(*fit.model, file, options.savePath); },
        SavedTo("Model", options.savePath));
    files.Add(
        "plot", options.plotPath, [&](std::ostream& file) { WriteSvg(file, ScorePlot(data, fit)); },
        WrittenTo("Score plot", options.plotPath));
}

class O2plsCommand final : public TableCommand<O2plsOptions> {
    std::string m_scale = "uv";
    std::string m_yScale;

    CLI::App& Register(CLI::App& tool) override
    {
        CLI::App& command =
            *tool.add_subcommand("o2pls", "Fit a two-way O2PLS model of two tables row for row: the variation they "
                                          "share (joint), and what each has that the other does not (orthogonal). Give "
                                          "the counts, or let --cv choose them from the cross-validated Q2 of a grid.");
        command.add_option("x", m_options.data, "CSV table of the X block")->type_name("X")->required();
        command.add_option("y", m_options.responsesData, "CSV table of the Y block, row for row with X")
            ->type_name("Y")
            ->required();
        CLI::Option* predictive = command.add_option("--predictive", m_options.predictive, "Fit N joint components")
                                      ->type_name("N")
                                      ->check(CLI::PositiveNumber);
        command
            .add_option("--x-orthogonal", m_options.xOrthogonal,
                        "Fit N components of X orthogonal to Y (default 0; with --predictive)")
            ->type_name("N")
            ->check(CLI::NonNegativeNumber)
            ->needs(predictive);
        command
            .add_option("--y-orthogonal", m_options.yOrthogonal,
                        "Fit N components of Y orthogonal to X (default 0; with --predictive)")
            ->type_name("N")
            ->check(CLI::NonNegativeNumber)
            ->needs(predictive);
        CLI::Option* cv = command.add_flag(
            "--cv", m_options.cv,
            "Choose the counts by cross-validation over a grid (the default when --predictive is not given)");
        cv->excludes(predictive);
        command
            .add_option("--max-components", m_options.maxComponents,
                        "With --cv: the grid runs over 1..C joint and 0..C orthogonal components of each side")
            ->type_name("C")
            ->check(CLI::PositiveNumber)
            ->excludes(predictive)
            ->capture_default_str();
        AddCvGroupsOption(command, m_options.cvGroups);
        AddXYPreprocessingOptions(command, m_scale, m_yScale, m_options.logVariables);
        AddNamesOption(command, m_names);
        AddOutputOption(command, "--scores", m_options.scoresPath,
                        "Write the joint (t, u) and orthogonal (tox, toy) scores (observations x components) as CSV");
        AddOutputOption(command, "--loadings", m_options.loadingsPath,
                        "Write the joint weights and orthogonal loadings of both blocks' variables as CSV");
        AddSaveOption(command, m_options.savePath);
        AddOutputOption(command, "--plot", m_options.plotPath,
                        "Draw the joint scores of X against those of Y (u[a] against t[a]) as SVG");
        AddFitRunFlags(command, m_options.json, m_options.progress);
        return command;
    }

    int Execute(std::ostream& out) override
    {
        m_options.scale = ScalingNamed(m_scale);
        m_options.yScale = ScalingNamed(m_yScale.empty() ? m_scale : m_yScale);
        m_options.cv = m_options.cv || m_options.predictive < 0;
        return RunO2pls(m_options, out);
    }
};

} // namespace

int RunO2pls(const O2plsOptions& options, std::ostream& out)
{
    const XYTables data = ReadXYTables(options, "o2pls");
    O2plsFit fit;
    RunSteps steps;
    steps.task = "Fitting O2PLS";
    steps.source = data.x.source;
    steps.drawBar = options.progress;
    steps.json = options.json;
    steps.blankLineBeforeFiles = true;
    steps.compute = [&](NCProgress& progress) { fit = FitO2pls(data, options, progress); };
    steps.write = [&](RunOutputs& files) { WriteO2plsFiles(files, data, options, fit); };
    steps.document = [&](const std::vector<WrittenFile>& files) { return O2plsJson(data, options, fit, files); };
    steps.report = [&](std::ostream& report) { PrintReport(report, data, options, fit); };
    return RunCommand(steps, out);
}

std::unique_ptr<Command> MakeO2plsCommand() { return std::make_unique<O2plsCommand>(); }

} // namespace veltan_cli
