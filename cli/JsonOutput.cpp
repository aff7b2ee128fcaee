#include "cli/JsonOutput.h"

#include "cli/CsvWriter.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCO2PLS.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <utility>

namespace veltan_cli {

namespace {

using Json = nlohmann::ordered_json;

// Through the float's shortest text, so that 0.1f prints as 0.1 and not as
// the double nearest to it.
Json Number(float v)
{
    if (IsMisVal(v))
        return nullptr;
    return std::strtod(FormatValue(v).c_str(), nullptr);
}

// The library's limits are doubles; they are shown at the float precision
// of the data they come from.
Json Number(double v)
{
    if (IsMisVal(v) || !std::isfinite(v))
        return nullptr;
    return Number(static_cast<float>(v));
}

Json Numbers(const NCDataVector<float>& values)
{
    Json list = Json::array();
    for (int j = 1; j <= values.Size(); ++j)
        list.push_back(Number(values[j]));
    return list;
}

// One row of a component table: its number, its values in order, its code
// and whether the model kept it.
Json ComponentRow(std::size_t r, std::initializer_list<std::pair<const char*, float>> values,
                  SignificanceE::Significance significance, int kept)
{
    Json row;
    row["component"] = r + 1;
    for (const auto& [key, value] : values)
        row[key] = Number(value);
    row["significance"] = SignificanceE::GetSignificance(significance);
    row["kept"] = static_cast<int>(r) < kept;
    return row;
}

// The settings of a fit that follow its scaling.
void FitSettings(Json& doc, const std::vector<std::string>& logVariables, int cvGroups, bool fixed)
{
    doc["log"] = logVariables;
    doc["cv_groups"] = cvGroups;
    doc["fixed"] = fixed;
}

// The fields that close every fit's document.
void FitEnd(Json& doc, Json components, int kept, const std::string& stopReason)
{
    doc["components"] = std::move(components);
    doc["kept"] = kept;
    doc["stop_reason"] = stopReason.empty() ? Json(nullptr) : Json(stopReason);
}

// A score vector per observation, and its predicted responses when given.
Json ObservationRows(const DataTable& table, const NCDataMatrix<float>& scores, const NCDataMatrix<float>* predictions)
{
    Json rows = Json::array();
    for (int i = 1; i <= table.Observations(); ++i) {
        Json row;
        row["observation"] = table.observations[static_cast<std::size_t>(i - 1)];
        if (predictions) {
            Json y = Json::array();
            for (int j = 1; j <= predictions->SizeColumns(); ++j)
                y.push_back(Number((*predictions)[i][j]));
            row["y"] = y;
        }
        Json t = Json::array();
        for (int a = 1; a <= scores.SizeRows(); ++a)
            t.push_back(Number(scores[a][i]));
        row["t"] = t;
        rows.push_back(row);
    }
    return rows;
}

std::string Finish(Json& doc, const std::vector<WrittenFile>& files)
{
    Json list = Json::object();
    for (const WrittenFile& file : files)
        list[file.key] = file.path;
    doc["files"] = list;
    return doc.dump(2, ' ', false, Json::error_handler_t::replace);
}

} // namespace

std::string PcaJson(const DataTable& table, const PcaOptions& options, const PcaFit& fit,
                    const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "pca";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["variables"] = table.Variables();
    doc["scaling"] = ScaleOptionName(options.scale);
    FitSettings(doc, options.logVariables, fit.cvGroups, fit.fixed);
    Json components = Json::array();
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PCA_CrossValidated::Component& c = fit.records[r];
        components.push_back(ComponentRow(r,
                                          {{"r2x", c.r2},
                                           {"r2x_cum", c.r2Cum},
                                           {"eigenvalue", c.eigenvalue},
                                           {"q2", c.q2},
                                           {"q2_cum", c.q2Cum},
                                           {"q2_limit", c.q2Limit}},
                                          c.significance, fit.kept));
    }
    FitEnd(doc, std::move(components), fit.kept, fit.stopReason);
    return Finish(doc, files);
}

std::string PredictJson(const PredictOptions& options, const DataTable& table, const NCDataMatrix<float>& scores,
                        const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    doc["scores"] = ObservationRows(table, scores, nullptr);
    return Finish(doc, files);
}

namespace {

Json PermutationsJson(const PermutationTest* test)
{
    if (!test)
        return nullptr;
    Json rows = Json::array();
    for (const PermutationRow& row : test->rows)
        rows.push_back(
            {{"correlation", Number(row.correlation)}, {"r2y_cum", Number(row.r2y)}, {"q2_cum", Number(row.q2)}});
    return {{"count", test->rows.size()},
            {"seed", test->seed},
            {"components", test->components},
            {"r2y_cum", Number(test->r2y)},
            {"q2_cum", Number(test->q2)},
            {"r2y_intercept", test->r2yIntercept},
            {"q2_intercept", test->q2Intercept},
            {"r2y_reached", test->r2yReached},
            {"q2_reached", test->q2Reached},
            {"rows", rows}};
}

// The tables and preprocessing of a regression (pls, opls).
void RegressionSettings(Json& doc, const XYTables& data, NCScale::Scaling xScale, NCScale::Scaling yScale)
{
    doc["data"] = data.x.source;
    doc["responses_data"] = data.y.source;
    doc["observations"] = data.x.Observations();
    doc["x_variables"] = data.x.Variables();
    doc["responses"] = data.y.variables;
    doc["scaling"] = ScaleOptionName(xScale);
    doc["y_scaling"] = ScaleOptionName(yScale);
}

} // namespace

std::string PlsJson(const XYTables& data, const PlsOptions& options, const PlsFit& fit, const PermutationTest* test,
                    const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "pls";
    RegressionSettings(doc, data, options.scale, options.yScale);
    FitSettings(doc, options.logVariables, fit.cvGroups, fit.fixed);
    Json components = Json::array();
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PlsComponent& c = fit.records[r];
        Json row = ComponentRow(r,
                                {{"r2x", c.r2x},
                                 {"r2x_cum", c.r2xCum},
                                 {"r2y", c.r2y},
                                 {"r2y_cum", c.r2yCum},
                                 {"q2", c.q2},
                                 {"q2_cum", c.q2Cum},
                                 {"q2_limit", c.q2Limit}},
                                c.significance, fit.kept);
        row["r2y_responses"] = Numbers(c.r2yResponses);
        row["r2y_cum_responses"] = Numbers(c.r2yCumResponses);
        row["q2_responses"] = Numbers(c.q2Responses);
        row["q2_cum_responses"] = Numbers(c.q2CumResponses);
        components.push_back(std::move(row));
    }
    FitEnd(doc, std::move(components), fit.kept, fit.stopReason);
    doc["permutations"] = PermutationsJson(test);
    return Finish(doc, files);
}

std::string PlsPredictJson(const PredictOptions& options, const DataTable& table,
                           const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                           const NCDataMatrix<float>& scores, const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["model_type"] = "pls";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    doc["responses"] = responses;
    doc["predictions"] = ObservationRows(table, scores, &predictions);
    return Finish(doc, files);
}

std::string OplsJson(const XYTables& data, const OplsOptions& options, const OplsFit& fit,
                     const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "opls";
    RegressionSettings(doc, data, options.scale, options.yScale);
    FitSettings(doc, options.logVariables, fit.cvGroups, fit.fixed);
    doc["predictive"] = fit.predictive;
    doc["predictive_fixed"] = options.predictive > 0;
    doc["orthogonal_limit"] = fit.orthogonalLimit;
    Json stages = Json::array();
    for (const OplsStage& s : fit.stages)
        stages.push_back({{"orthogonal", s.orthogonal},
                          {"r2x_predictive", Number(s.r2xPredictive)},
                          {"r2x_orthogonal", Number(s.r2xOrthogonal)},
                          {"r2y", Number(s.r2y)},
                          {"q2_cum", Number(s.q2Cum)},
                          {"q2_limit", Number(s.q2Limit)},
                          {"r2y_responses", Numbers(s.r2yResponses)},
                          {"q2_cum_responses", Numbers(s.q2CumResponses)},
                          {"kept", s.kept}});
    doc["stages"] = std::move(stages);
    doc["orthogonal"] = fit.orthogonal;
    doc["stop_reason"] = fit.stopReason.empty() ? Json(nullptr) : Json(fit.stopReason);
    return Finish(doc, files);
}

std::string OplsPredictJson(const PredictOptions& options, const DataTable& table,
                            const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                            const NCDataMatrix<float>& scores, const NCDataMatrix<float>& orthogonalScores,
                            const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["model_type"] = "opls";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    doc["orthogonal_components"] = orthogonalScores.SizeRows();
    doc["responses"] = responses;
    Json rows = ObservationRows(table, scores, &predictions);
    for (int i = 1; i <= table.Observations(); ++i) {
        Json to = Json::array();
        for (int a = 1; a <= orthogonalScores.SizeRows(); ++a)
            to.push_back(Number(orthogonalScores[a][i]));
        rows[static_cast<std::size_t>(i - 1)]["to"] = std::move(to);
    }
    doc["predictions"] = std::move(rows);
    return Finish(doc, files);
}

namespace {

Json SharesJson(const O2plsShares& s)
{
    return {{"joint", Number(s.joint)},
            {"orthogonal", Number(s.orthogonal)},
            {"residual", Number(s.residual)},
            {"predicted", Number(s.predicted)}};
}

Json GridJson(const O2PLSCVResults& grid)
{
    Json cells = Json::array();
    for (int a = 1; a <= grid.MaxPredictive(); ++a)
        for (int ox = 0; ox <= grid.MaxOrthogonalX(); ++ox)
            for (int oy = 0; oy <= grid.MaxOrthogonalY(); ++oy)
                cells.push_back({{"joint", a},
                                 {"x_orthogonal", ox},
                                 {"y_orthogonal", oy},
                                 {"q2_y_from_x", Number(grid.GetQ2Y(a, ox, oy))},
                                 {"q2_x_from_y", Number(grid.GetQ2X(a, ox, oy))}});
    return cells;
}

} // namespace

std::string O2plsJson(const XYTables& data, const O2plsOptions& options, const O2plsFit& fit,
                      const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "o2pls";
    doc["x_data"] = data.x.source;
    doc["y_data"] = data.y.source;
    doc["observations"] = data.x.Observations();
    doc["x_variables"] = data.x.variables;
    doc["y_variables"] = data.y.variables;
    doc["scaling"] = ScaleOptionName(options.scale);
    doc["y_scaling"] = ScaleOptionName(options.yScale);
    doc["log"] = options.logVariables;
    if (fit.grid) {
        doc["cv_groups"] = fit.cvGroups;
        doc["external_q2_limit"] = Number(GetO2PLSExternalQ2Limit());
        doc["internal_q2_limit"] = Number(GetO2PLSInternalQ2Limit());
        doc["grid"] = GridJson(*fit.grid);
    } else {
        doc["cv_groups"] = nullptr;
        doc["grid"] = nullptr;
    }
    doc["joint"] = fit.predictive;
    doc["x_orthogonal"] = fit.xOrthogonal;
    doc["y_orthogonal"] = fit.yOrthogonal;
    doc["x"] = SharesJson(fit.x);
    doc["y"] = SharesJson(fit.y);
    return Finish(doc, files);
}

std::string O2plsPredictJson(const PredictOptions& options, const DataTable& table, bool fromX,
                             const std::vector<std::string>& predicted, const NCDataMatrix<float>& predictions,
                             const NCDataMatrix<float>& scores, const NCDataMatrix<float>& orthogonalScores,
                             const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["model_type"] = "o2pls";
    doc["data"] = table.source;
    doc["from"] = fromX ? "x" : "y";
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    doc["orthogonal_components"] = orthogonalScores.SizeRows();
    doc["predicted"] = predicted;
    Json rows = ObservationRows(table, scores, &predictions);
    for (int i = 1; i <= table.Observations(); ++i) {
        Json to = Json::array();
        for (int a = 1; a <= orthogonalScores.SizeRows(); ++a)
            to.push_back(Number(orthogonalScores[a][i]));
        Json& row = rows[static_cast<std::size_t>(i - 1)];
        row["to"] = std::move(to);
        // From Y the rows hold predicted X and the joint scores U.
        if (!fromX) {
            Json x = std::move(row["y"]), u = std::move(row["t"]), orthogonal = std::move(row["to"]);
            row.erase("y");
            row.erase("t");
            row.erase("to");
            row["x"] = std::move(x);
            row["u"] = std::move(u);
            row["to"] = std::move(orthogonal);
        }
    }
    doc["predictions"] = std::move(rows);
    return Finish(doc, files);
}

namespace {

Json LimitsJson(const ChartLimits& l)
{
    return {{"centre", Number(l.centre)}, {"lcl", Number(l.lcl)}, {"ucl", Number(l.ucl)}};
}

// One object per subgroup, with the statistics its chart type has.
Json ChartPoints(const ChartResult& r)
{
    Json points = Json::array();
    for (std::size_t i = 0; i < r.means.size(); ++i) {
        Json p;
        p["point"] = i;
        if (r.byTime) {
            p["time"] = Number(r.times[i]);
            p["size"] = r.sizes[i];
        }
        p["mean"] = Number(r.means[i]);
        if (r.type == ControlChartEnum::MeanRange)
            p["range"] = Number(r.spread[i]);
        if (r.type == ControlChartEnum::MeanStdDev)
            p["sd"] = Number(r.spread[i]);
        if (r.type == ControlChartEnum::CuSum) {
            p["upper_cusum"] = Number(r.upper[i]);
            p["lower_cusum"] = Number(r.lower[i]);
        }
        if (!r.ewma.empty())
            p["ewma"] = Number(r.ewma[i]);
        points.push_back(std::move(p));
    }
    return points;
}

} // namespace

std::string ChartJson(const ChartResult& r, const ChartOptions& options, const std::vector<WrittenFile>& files)
{
    Json doc;
    doc["command"] = "chart";
    doc["data"] = r.source;
    doc["column"] = r.column;
    doc["type"] = ChartTypeName(r.type);
    doc["rows"] = r.rows;
    doc["present"] = r.present;
    doc["time"] = r.byTime ? Json(options.timeColumn) : Json(nullptr);
    doc["interval"] = r.byTime ? Json(options.interval) : Json(nullptr);
    doc["subgroup_size"] = r.subgroupSize;
    doc["subgroups"] = r.Subgroups();
    doc["limits_from"] = r.limitsFrom.empty() ? Json(nullptr) : Json(r.limitsFrom);
    doc["target"] = Number(r.mean.centre);
    doc["sigma"] = Number(r.sigma);
    doc["sigma_source"] = r.sigmaSource;
    Json limits = Json::object();
    switch (r.type) {
    case ControlChartEnum::CuSum:
        limits["cusum"] = {{"k", Number(r.k)}, {"h", Number(r.h)}};
        break;
    case ControlChartEnum::EWMA:
    case ControlChartEnum::EWMAOverallSigma:
        limits["ewma"] = LimitsJson(r.ewmaLimits);
        break;
    default:
        limits["mean"] = LimitsJson(r.mean);
        if (r.type == ControlChartEnum::MeanRange)
            limits["range"] = LimitsJson(r.second);
        if (r.type == ControlChartEnum::MeanStdDev)
            limits["sd"] = LimitsJson(r.second);
        break;
    }
    doc["limits"] = std::move(limits);
    if (!r.ewma.empty()) {
        doc["lambda"] = Number(r.lambda);
        doc["lambda_estimated"] = r.lambdaEstimated;
        doc["ewma_type"] = options.ewma == ControlChartEnum::Predictive ? "predictive" : "filter";
    }
    doc["rules"] = r.ruleSet.empty() ? Json(nullptr) : Json(r.ruleSet);
    doc["rule_descriptions"] = r.ruleDescriptions;
    Json flagged = Json::array();
    for (const auto& [point, rules] : r.flagged) {
        Json descriptions = Json::array();
        for (const std::size_t k : rules)
            descriptions.push_back(r.ruleDescriptions[k]);
        flagged.push_back({{"point", point}, {"rules", rules}, {"descriptions", descriptions}});
    }
    doc["flagged"] = std::move(flagged);
    if (r.type == ControlChartEnum::MeanRange || r.type == ControlChartEnum::MeanStdDev)
        doc["spread_beyond_limits"] = r.spreadBeyond;
    doc["points"] = ChartPoints(r);
    return Finish(doc, files);
}

} // namespace veltan_cli
