#include "cli/JsonOutput.h"

#include "cli/CsvWriter.h"

#include <nlohmann/json.hpp>

#include <cstdlib>

namespace veltan_cli {

namespace {

using Json = nlohmann::ordered_json;

// Through the float's shortest text, so that 0.1f prints as 0.1 and not as
// the double nearest to it.
Json Number(float v)
{
    if (v == -99.0f)
        return nullptr;
    return std::strtod(FormatValue(v).c_str(), nullptr);
}

Json Numbers(const std::vector<float>& values)
{
    Json list = Json::array();
    for (const float v : values)
        list.push_back(Number(v));
    return list;
}

std::string Dump(const Json& doc) { return doc.dump(2, ' ', false, Json::error_handler_t::replace); }

} // namespace

std::string PcaJson(const DataTable& table, const PcaOptions& options, const PcaFit& fit)
{
    Json doc;
    doc["command"] = "pca";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["variables"] = table.Variables();
    doc["scaling"] = ScaleOptionName(options.scale);
    doc["log"] = options.logVariables;
    doc["cv_groups"] = fit.cvGroups;
    doc["fixed"] = fit.fixed;
    Json components = Json::array();
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PCA_CrossValidated::Component& c = fit.records[r];
        components.push_back({{"component", r + 1},
                              {"r2x", Number(c.r2)},
                              {"r2x_cum", Number(c.r2Cum)},
                              {"eigenvalue", Number(c.eigenvalue)},
                              {"q2", Number(c.q2)},
                              {"q2_cum", Number(c.q2Cum)},
                              {"q2_limit", Number(c.q2Limit)},
                              {"significance", SignificanceE::GetSignificance(c.significance)},
                              {"kept", static_cast<int>(r) < fit.kept}});
    }
    doc["components"] = components;
    doc["kept"] = fit.kept;
    doc["stop_reason"] = fit.stopReason.empty() ? Json(nullptr) : Json(fit.stopReason);
    Json files = Json::object();
    if (!options.scoresPath.empty())
        files["scores"] = options.scoresPath;
    if (!options.loadingsPath.empty())
        files["loadings"] = options.loadingsPath;
    if (!options.savePath.empty())
        files["model"] = options.savePath;
    doc["files"] = files;
    return doc.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string PredictJson(const PredictOptions& options, const DataTable& table, const NCDataMatrix<float>& scores)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    Json rows = Json::array();
    for (int i = 1; i <= table.Observations(); ++i) {
        Json t = Json::array();
        for (int a = 1; a <= scores.SizeRows(); ++a)
            t.push_back(Number(scores[a][i]));
        rows.push_back({{"observation", table.observations[static_cast<std::size_t>(i - 1)]}, {"t", t}});
    }
    doc["scores"] = rows;
    Json files = Json::object();
    if (!options.scoresPath.empty())
        files["scores"] = options.scoresPath;
    doc["files"] = files;
    return doc.dump(2, ' ', false, Json::error_handler_t::replace);
}

std::string PlsJson(const PlsData& data, const PlsOptions& options, const PlsFit& fit, const PermutationTest* test)
{
    Json doc;
    doc["command"] = "pls";
    doc["data"] = data.x.source;
    doc["responses_data"] = data.y.source;
    doc["observations"] = data.x.Observations();
    doc["x_variables"] = data.x.Variables();
    doc["responses"] = data.y.variables;
    doc["scaling"] = ScaleOptionName(options.scale);
    doc["y_scaling"] = ScaleOptionName(options.yScale);
    doc["log"] = options.logVariables;
    doc["cv_groups"] = fit.cvGroups;
    doc["fixed"] = fit.fixed;
    Json components = Json::array();
    for (std::size_t r = 0; r < fit.records.size(); ++r) {
        const PlsComponent& c = fit.records[r];
        components.push_back({{"component", r + 1},
                              {"r2x", Number(c.r2x)},
                              {"r2x_cum", Number(c.r2xCum)},
                              {"r2y", Number(c.r2y)},
                              {"r2y_cum", Number(c.r2yCum)},
                              {"q2", Number(c.q2)},
                              {"q2_cum", Number(c.q2Cum)},
                              {"q2_limit", Number(c.q2Limit)},
                              {"significance", SignificanceE::GetSignificance(c.significance)},
                              {"kept", static_cast<int>(r) < fit.kept},
                              {"r2y_responses", Numbers(c.r2yResponses)},
                              {"r2y_cum_responses", Numbers(c.r2yCumResponses)},
                              {"q2_responses", Numbers(c.q2Responses)},
                              {"q2_cum_responses", Numbers(c.q2CumResponses)}});
    }
    doc["components"] = components;
    doc["kept"] = fit.kept;
    doc["stop_reason"] = fit.stopReason.empty() ? Json(nullptr) : Json(fit.stopReason);
    if (test) {
        Json rows = Json::array();
        for (const PermutationRow& row : test->rows)
            rows.push_back({{"correlation", Number(row.correlation)}, {"r2y_cum", Number(row.r2y)},
                            {"q2_cum", Number(row.q2)}});
        doc["permutations"] = {{"count", test->rows.size()},
                               {"seed", test->seed},
                               {"components", test->components},
                               {"r2y_cum", Number(test->r2y)},
                               {"q2_cum", Number(test->q2)},
                               {"r2y_intercept", test->r2yIntercept},
                               {"q2_intercept", test->q2Intercept},
                               {"r2y_reached", test->r2yReached},
                               {"q2_reached", test->q2Reached},
                               {"rows", rows}};
    } else {
        doc["permutations"] = nullptr;
    }
    Json files = Json::object();
    const std::pair<const char*, const std::string*> written[] = {
        {"coefficients", &options.coefficientsPath}, {"fitted", &options.fittedPath},
        {"cv_predictions", &options.cvPredictionsPath}, {"scores", &options.scoresPath},
        {"model", &options.savePath}, {"permutations", &options.permutationsPath}};
    for (const auto& [key, path] : written)
        if (!path->empty())
            files[key] = *path;
    doc["files"] = files;
    return Dump(doc);
}

std::string PlsPredictJson(const PredictOptions& options, const DataTable& table,
                           const std::vector<std::string>& responses, const NCDataMatrix<float>& predictions,
                           const NCDataMatrix<float>& scores)
{
    Json doc;
    doc["command"] = "predict";
    doc["model"] = options.model;
    doc["model_type"] = "pls";
    doc["data"] = table.source;
    doc["observations"] = table.Observations();
    doc["components"] = scores.SizeRows();
    doc["responses"] = responses;
    Json rows = Json::array();
    for (int i = 1; i <= table.Observations(); ++i) {
        Json y = Json::array(), t = Json::array();
        for (int j = 1; j <= predictions.SizeColumns(); ++j)
            y.push_back(Number(predictions[i][j]));
        for (int a = 1; a <= scores.SizeRows(); ++a)
            t.push_back(Number(scores[a][i]));
        rows.push_back({{"observation", table.observations[static_cast<std::size_t>(i - 1)]}, {"y", y}, {"t", t}});
    }
    doc["predictions"] = rows;
    Json files = Json::object();
    if (!options.predictionsPath.empty())
        files["predictions"] = options.predictionsPath;
    if (!options.scoresPath.empty())
        files["scores"] = options.scoresPath;
    doc["files"] = files;
    return Dump(doc);
}

} // namespace veltan_cli
