#include "veltancmat/platform/QvSystemInfo.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <algorithm>
#include <atomic>
#include <system_error>

namespace {
std::atomic<std::uintmax_t> g_cap{0};
} // namespace

void QvSystemInfo::SetFreeDiskSpaceCap(std::uintmax_t bytes)
{
    g_cap.store(bytes);
}

std::uintmax_t QvSystemInfo::GetFreeDiskSpace(const std::filesystem::path& path)
{
    std::error_code error;
    const std::filesystem::space_info info = std::filesystem::space(path, error);
    if (error)
        throw Exception(ExceptionMessage::translate("The free space on '{1}' could not be determined: {2}")
                        % path.string() % error.message());
    const std::uintmax_t cap = g_cap.load();
    return cap ? std::min(cap, info.available) : info.available;
}
