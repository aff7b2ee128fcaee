#pragma once

#include "veltancmat/platform/Export.h"

#include <cstdint>
#include <filesystem>

// Facts about the machine that decide how a large computation is run.
class VELTANCMAT_API QvSystemInfo {
public:
    // Bytes that this process may still write on the file system holding
    // `path` (space reserved for the superuser is not counted). Throws
    // Exception when the path cannot be examined.
    static std::uintmax_t GetFreeDiskSpace(const std::filesystem::path& path);
    // Caps what GetFreeDiskSpace reports, process-wide: for a host that
    // keeps room on the disk for its own files, and for tests that need a
    // disk that looks full. 0 removes the cap.
    static void SetFreeDiskSpaceCap(std::uintmax_t bytes);
};
