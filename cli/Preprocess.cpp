#include "cli/Preprocess.h"

#include "cli/CsvWriter.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/MissingValue.h"

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

[[noreturn]] void ThrowScaleError(const NCScaleError& e, const DataTable& table, const NCDataMatrix<float>& x,
                                  const std::string& option = "--scale")
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
        hint = "the column is constant; remove it or scale with " + option + " center";
        break;
    default:
        break;
    }
    throw ToolError(table.Where(0, j) + ": " + e.what() + (hint.empty() ? "" : " (" + hint + ")"));
}

} // namespace

void FitScaling(NCScale& scale, const DataTable& table, NCDataMatrix<float>& x, const std::string& option)
{
    try {
        scale.ScaleMatrix(&x, true);
    } catch (const NCScaleError& e) {
        ThrowScaleError(e, table, x, option);
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

NCDataMatrix<float> FitPreprocessing(const DataTable& table, const std::vector<std::string>& logVariables,
                                     NCScale::Scaling scaling, std::unique_ptr<NCTransform>& transform,
                                     NCScale& scale, const std::string& option)
{
    transform = MakeLogTransform(table, logVariables);
    NCDataMatrix<float> x = table.values;
    if (transform)
        ApplyTransform(*transform, table, x);
    scale.SetSize(table.Variables());
    for (int j = 1; j <= table.Variables(); ++j)
        scale.SetType(j, scaling);
    FitScaling(scale, table, x, option);
    return x;
}

NCDataMatrix<float> ApplyPreprocessing(const DataTable& table, const NCTransform* transform, NCScale& scale)
{
    NCDataMatrix<float> x = table.values;
    if (transform)
        ApplyTransform(*transform, table, x);
    ApplyScaling(scale, table, x);
    return x;
}

void UndoPreprocessing(NCDataMatrix<float>& values, const NCTransform* transform, const NCScale& scale)
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
        if (transform)
            (*transform)[j].BackTransformColumn(&values, j);
    }
}

void CheckModelVariables(const std::vector<std::string>& expected, const std::string& modelPath,
                         const DataTable& table)
{
    const int k = static_cast<int>(expected.size());
    if (table.Variables() != k)
        throw ToolError(table.source + ": " + std::to_string(table.Variables()) + " variables, but the model " +
                        modelPath + " has " + std::to_string(k));
    for (int j = 1; j <= k; ++j) {
        const std::string& name = expected[static_cast<std::size_t>(j - 1)];
        if (table.variables[static_cast<std::size_t>(j - 1)] != name)
            throw ToolError(table.Where(0, j) + ": the model " + modelPath + " has \"" + name + "\" as variable " +
                            std::to_string(j));
    }
}

std::string ObservationHeader(const DataTable& table)
{
    return table.hasNames && !table.namesHeader.empty() ? table.namesHeader : "observation";
}

} // namespace veltan_cli
