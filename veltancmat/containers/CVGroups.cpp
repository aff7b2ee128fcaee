#include "veltancmat/containers/CVGroups.h"

#include "veltancmat/platform/NCError.h"

#include <string>

NCIntegralVector<int, -99> GetDeafultCVGroupsVector(int n, int groups)
{
    if (groups < 1) {
        ExceptionMessage message =
            ExceptionMessage::translate("The number of cross-validation groups must be at least 1, not {1}.");
        message % std::to_string(groups);
        throw NCError(message, NCError::Error);
    }
    NCIntegralVector<int, -99> labels(n, 0);
    int* label = NCIntegralVector<int, -99>::UnLinkVecPointer(labels);
    for (int i = 1; i <= n; ++i)
        label[i] = i % groups;
    return labels;
}
