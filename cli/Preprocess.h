#pragma once

#include "cli/CsvTable.h"

#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// The preprocessing steps of a fit or a prediction, with the library's
// errors turned into one-line messages naming the file, row, column and
// variable concerned.

// log10 of the named variables, the others untransformed; null when no name
// is given. An unknown name throws ToolError (usage).
std::unique_ptr<NCTransform> MakeLogTransform(const DataTable& table, const std::vector<std::string>& names);

// x is `table`'s values (or a copy of them). Throws ToolError at the first
// cell that cannot be transformed, quoting its value from the table.
void ApplyTransform(const NCTransform& transform, const DataTable& table, NCDataMatrix<float>& x);

// Fits `scale` (sized and typed already) to x and scales it. `option` is
// the option that chose the scaling, for the hint of a constant column.
void FitScaling(NCScale& scale, const DataTable& table, NCDataMatrix<float>& x,
                const std::string& option = "--scale");
// Scales x with the fitted model.
void ApplyScaling(NCScale& scale, const DataTable& table, NCDataMatrix<float>& x);

// The whole preprocessing of a fit: log10 of the named variables (every
// name must be one of the table's), then `scaling` on every column, fitted
// to the table. Returns the preprocessed values; `transform` is null when
// nothing is transformed.
NCDataMatrix<float> FitPreprocessing(const DataTable& table, const std::vector<std::string>& logVariables,
                                     NCScale::Scaling scaling, std::unique_ptr<NCTransform>& transform,
                                     NCScale& scale, const std::string& option = "--scale");
// The same with a saved preprocessing (transform may be null).
NCDataMatrix<float> ApplyPreprocessing(const DataTable& table, const NCTransform* transform, NCScale& scale);

// Values on the scale a model was fitted on back in the table's units:
// unscaled, then back-transformed. A value that cannot be back-transformed
// becomes missing.
void UndoPreprocessing(NCDataMatrix<float>& values, const NCTransform* transform, const NCScale& scale);

// Throws ToolError unless the table's variables are `expected`, in order:
// the count, or the first name out of place with its column.
void CheckModelVariables(const std::vector<std::string>& expected, const std::string& modelPath,
                         const DataTable& table);

// The header of the name column of a score table: the input's own, or
// "observation".
std::string ObservationHeader(const DataTable& table);

} // namespace veltan_cli
