#include "veltancmat/platform/TempFile.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Collisions need another process choosing the same random suffix; a run of
// them this long means something else is wrong.
constexpr int MaxAttempts = 100;

std::uint64_t Seed()
{
    static std::atomic<std::uint64_t> counter{0};
    std::uint64_t seed = counter.fetch_add(0x9E3779B97F4A7C15ull, std::memory_order_relaxed);
    seed ^= static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    seed ^= static_cast<std::uint64_t>(std::hash<std::thread::id>{}(std::this_thread::get_id())) << 1;
    try {
        std::random_device device;
        seed ^= (static_cast<std::uint64_t>(device()) << 32) ^ device();
    } catch (const std::exception&) {
        // Without an entropy source the clock, thread and counter still
        // separate the callers; exclusive creation settles the rest.
    }
    return seed;
}

std::string RandomSuffix()
{
    thread_local std::mt19937_64 engine(Seed());
    static constexpr char digits[] = "0123456789abcdef";
    std::uint64_t bits = engine();
    std::string out(16, '0');
    for (char& c : out) {
        c = digits[bits & 0xF];
        bits >>= 4;
    }
    return out;
}

std::string Hex(std::uint64_t value)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    do {
        out.insert(out.begin(), digits[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return out;
}

[[noreturn]] void ThrowNotCreated(const fs::path& dir, int error)
{
    const std::string reason = std::error_code(error, std::generic_category()).message();
    throw Exception(ExceptionMessage::translate("A temporary file could not be created in '{1}': {2}")
                    % dir.string() % reason);
}

} // namespace

fs::path QvGetTempDirectory()
{
    std::error_code error;
    fs::path dir = fs::temp_directory_path(error);
    if (error)
        throw Exception(ExceptionMessage::translate("No folder for temporary files could be found: {1}")
                        % error.message());
    return dir;
}

fs::path QvGetTempFileName(const std::string& prefix, const fs::path& dir)
{
    if (prefix.find('/') != std::string::npos || prefix.find('\0') != std::string::npos)
        throw InvalidArgument("QvGetTempFileName: the prefix must be a plain file name");

    const fs::path folder = dir.empty() ? QvGetTempDirectory() : dir;
    const std::string stem = prefix + Hex(static_cast<std::uint64_t>(::getpid())) + "-";
    int lastError = EEXIST;
    for (int attempt = 0; attempt < MaxAttempts; ++attempt) {
        fs::path candidate = folder / (stem + RandomSuffix() + ".tmp");
        // Exclusive creation is what makes the name ours; 0600 because the
        // contents are the user's data.
        const int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
            return candidate;
        }
        lastError = errno;
        if (lastError != EEXIST && lastError != EINTR)
            break;
    }
    ThrowNotCreated(folder, lastError);
}

TempFile::TempFile(const std::string& prefix, const fs::path& dir) : m_path(QvGetTempFileName(prefix, dir)) {}

TempFile::~TempFile()
{
    Remove();
}

TempFile::TempFile(TempFile&& other) noexcept : m_path(std::move(other.m_path))
{
    other.m_path.clear();
}

TempFile& TempFile::operator=(TempFile&& other) noexcept
{
    if (this != &other) {
        Remove();
        m_path = std::move(other.m_path);
        other.m_path.clear();
    }
    return *this;
}

fs::path TempFile::Release()
{
    fs::path path = std::move(m_path);
    m_path.clear();
    return path;
}

void TempFile::Remove() noexcept
{
    if (m_path.empty())
        return;
    std::error_code ignored;
    fs::remove(m_path, ignored);
    m_path.clear();
}
