#include "cli/Preprocess.h"

#include "cli/CsvWriter.h"
#include "cli/ToolError.h"

#include <algorithm>

namespace veltan_cli {

std::unique_ptr<NCTransform> MakeLogTransform(const DataTable& table, const std::vector<std::string>& names)
{
    if (names.empty())
        return nullptr;
    auto transform = std::make_unique<NCTransform>(table.Variables());
    for (const std::string& name : names) {
        const auto found = std::find(table.variables.begin(), table.variables.end(), name);
        if (found == table.variables.end())
            throw ToolError("--log: " + table.source + " has no variable \"" + name + "\"", ExitUsage);
        const int j = static_cast<int>(found - table.variables.begin()) + 1;
        (*transform)[j] = TransformStruct(TransformE::Log, 1.0f, 0.0f);
    }
    return transform;
}

void ApplyTransform(const NCTransform& transform, const DataTable& table, NCDataMatrix<float>& x)
{
    try {
        transform.TransformMatrix(&x);
    } catch (const NCTransformError& e) {
        const int i = e.GetRow(), j = e.GetColumn();
        if (i < 1 || j < 1 || i > table.Observations() || j > table.Variables())
            throw ToolError(table.source + ": " + e.what());
        throw ToolError(table.Where(i, j) + ": " + e.what() + " (" + transform[j].ToString(true) + " of " +
                        FormatValue(table.values[i][j]) + ")");
    }
}

namespace {

[[noreturn]] void ThrowScaleError(const NCScaleError& e, const DataTable& table,
                                  const NCDataMatrix<float>& x)
{
    const int j = e.GetColumn();
    if (j < 1 || j > table.Variables())
        throw ToolError(table.source + ": " + e.what());
    std::string hint;
    switch (e.GetError()) {
    case NCScaleError::TooFewValues:
        hint = std::to_string(x.SizeRows() - x.GetColumnMisVal(j)) + " present, at least 2 needed";
        break;
    case NCScaleError::TooLittleVariance:
        hint = "the column is constant; remove it or scale with --scale center";
        break;
    default:
        break;
    }
    throw ToolError(table.Where(0, j) + ": " + e.what() + (hint.empty() ? "" : " (" + hint + ")"));
}

} // namespace

void FitScaling(NCScale& scale, const DataTable& table, NCDataMatrix<float>& x)
{
    try {
        scale.ScaleMatrix(&x, true);
    } catch (const NCScaleError& e) {
        ThrowScaleError(e, table, x);
    }
}

void ApplyScaling(NCScale& scale, const DataTable& table, NCDataMatrix<float>& x)
{
    try {
        scale.ScaleMatrix(&x, false);
    } catch (const NCScaleError& e) {
        ThrowScaleError(e, table, x);
    }
}

std::string ObservationHeader(const DataTable& table)
{
    return table.hasNames && !table.namesHeader.empty() ? table.namesHeader : "observation";
}

} // namespace veltan_cli
