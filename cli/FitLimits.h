#pragma once

#include <string>

namespace veltan_cli {

// The checks of a fit's size options that the pca and pls commands share.

constexpr int DefaultCvGroups = 7;

// The cross-validation groups of a fit on `observations` rows of `source`:
// `requested`, or DefaultCvGroups (one per observation when there are
// fewer) when it is 0. Throws a usage ToolError for more groups than rows.
int CrossValidationGroups(int requested, int observations, const std::string& source);

// The most components the data can give, min(N - 1 when centred, K):
// beyond it the residuals are zero and no further direction exists.
// Throws a usage ToolError when `requested` exceeds it. `variableWord`
// names the K columns ("variable", "X variable").
int CheckComponentCount(int requested, int observations, int variables, bool centred, const std::string& source,
                        const char* variableWord);

} // namespace veltan_cli
