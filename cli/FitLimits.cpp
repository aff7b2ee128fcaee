#include "cli/FitLimits.h"

#include "cli/Report.h"
#include "cli/ToolError.h"

#include <algorithm>

namespace veltan_cli {

int CrossValidationGroups(int requested, int observations, const std::string& source)
{
    const int groups = requested > 0 ? requested : std::min(DefaultCvGroups, observations);
    if (groups < 2 || groups > observations)
        throw ToolError("--cv-groups " + std::to_string(groups) + ": more groups than the " +
                            std::to_string(observations) + " observations of " + source,
                        ExitUsage);
    return groups;
}

int CheckComponentCount(int requested, int observations, int variables, bool centred, const std::string& source,
                        const char* variableWord)
{
    const int capacity = std::min(observations - (centred ? 1 : 0), variables);
    if (requested > capacity)
        throw ToolError("--components " + std::to_string(requested) + ": " + source + " can take at most " +
                            std::to_string(capacity) + " (" + Plural(observations, "observation") + ", " +
                            Plural(variables, variableWord) + (centred ? ", centred" : "") + ")",
                        ExitUsage);
    return capacity;
}

} // namespace veltan_cli
