#include "veltancmat/containers/frame/SimdTargets.h"

#include <hwy/targets.h>

#include <cstdint>
#include <stdexcept>

namespace NCSimdTargets {

std::vector<std::string> Available()
{
    std::vector<std::string> names;
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets())
        names.emplace_back(hwy::TargetName(target));
    return names;
}

void Use(const std::string& name)
{
    hwy::SetSupportedTargetsForTest(0);
    if (name.empty())
        return;
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets())
        if (name == hwy::TargetName(target)) {
            hwy::SetSupportedTargetsForTest(target);
            return;
        }
    throw std::invalid_argument("no SIMD target " + name + " on this processor");
}

} // namespace NCSimdTargets
