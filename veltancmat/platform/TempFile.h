#pragma once

#include "veltancmat/platform/Export.h"

#include <filesystem>
#include <string>

// The folder for temporary files: TMPDIR if set, else the system's.
// Throws Exception when there is none.
VELTANCMAT_API std::filesystem::path QvGetTempDirectory();

// Claims a new, empty file "<prefix><process>-<random>.tmp" in `dir` (the
// temporary folder when empty) and returns its path. The name is claimed by
// creating the file exclusively, so it is unique across threads and
// processes; the caller owns the file and removes it (see TempFile).
// Throws Exception with a translated message when the folder is missing or
// not writable, and InvalidArgument when the prefix holds a separator.
VELTANCMAT_API std::filesystem::path QvGetTempFileName(const std::string& prefix = "vcm",
                                                       const std::filesystem::path& dir = {});

// A temporary file that is removed when its owner goes away.
class VELTANCMAT_API TempFile {
public:
    explicit TempFile(const std::string& prefix = "vcm", const std::filesystem::path& dir = {});
    ~TempFile();
    TempFile(TempFile&& other) noexcept;
    TempFile& operator=(TempFile&& other) noexcept;
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    // Gives up ownership: the file stays on disk.
    std::filesystem::path Release();
    // Removes the file now; later calls do nothing.
    void Remove() noexcept;

private:
    std::filesystem::path m_path;
};
