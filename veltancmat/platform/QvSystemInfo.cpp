#include "veltancmat/platform/QvSystemInfo.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <system_error>

std::uintmax_t QvSystemInfo::GetFreeDiskSpace(const std::filesystem::path& path)
{
    std::error_code error;
    const std::filesystem::space_info info = std::filesystem::space(path, error);
    if (error)
        throw Exception(ExceptionMessage::translate("The free space on '{1}' could not be determined: {2}")
                        % path.string() % error.message());
    return info.available;
}
