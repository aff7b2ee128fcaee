#include "cli/PcaCommand.h"

#include "cli/CsvWriter.h"
#include "cli/FitLimits.h"
#include "cli/JsonOutput.h"
#include "cli/Preprocess.h"
#include "cli/ProgressBar.h"
#include "cli/ToolError.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cstdio>
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
    for (int a = 1; a <= limit; ++a) {
        if (progress.IsBreakPressed())
            throw CancelException();
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

int RunPca(const PcaOptions& options, std::ostream& out)
{
    const DataTable table = ReadCsvTable(options.data, options.names);

    NCProgress progress("Fitting PCA", 0.0f, 1.0f, false, true, false, table.source);
    // The guard stays until the files are in place, so that a Ctrl-C while
    // they are written still removes the temporary files on its way out.
    InterruptGuard interrupt(progress);
    PcaFit fit;
    {
        ProgressBar bar(progress, options.progress || ProgressBar::StderrIsTerminal());
        fit = FitPca(table, options, progress);
    }

    OutputFiles files;
    if (!options.scoresPath.empty())
        WriteTransposedCsv(files.Add(options.scoresPath), ObservationHeader(table), table.observations,
                           Numbered("t", fit.kept), fit.scores);
    if (!options.loadingsPath.empty())
        WriteTransposedCsv(files.Add(options.loadingsPath), "variable", table.variables, Numbered("p", fit.kept),
                           *fit.model->pca.GetPprim());
    if (!options.savePath.empty())
        WriteModel(*fit.model, files.Add(options.savePath), options.savePath);
    if (InterruptGuard::Interrupted())
        throw CancelException();
    files.CommitAll();

    if (options.json) {
        out << PcaJson(table, options, fit) << "\n";
        return ExitOk;
    }
    PrintTable(out, table, options, fit);
    if (!options.scoresPath.empty())
        out << "Scores written to " << options.scoresPath << "\n";
    if (!options.loadingsPath.empty())
        out << "Loadings written to " << options.loadingsPath << "\n";
    if (!options.savePath.empty())
        out << "Model saved to " << options.savePath << "\n";
    return ExitOk;
}

} // namespace veltan_cli
