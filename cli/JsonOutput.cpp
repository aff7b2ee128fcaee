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

} // namespace veltan_cli
