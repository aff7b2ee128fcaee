#pragma once

// Runs a check in a forked child whose address space is capped, for inputs
// that claim sizes of gigabytes: a reader that believed them fails there
// with a refused allocation instead of exhausting the machine the suite runs
// on. A sanitizer reserves terabytes of address space, so sanitized builds
// cannot cap it and skip these checks (the fuzz build covers them).

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELTAN_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VELTAN_TEST_SANITIZED 1
#endif
#endif

namespace MemoryBound {

#ifdef VELTAN_TEST_SANITIZED
constexpr bool Available = false;
#else
constexpr bool Available = true;
#endif

// Head room above what the process has mapped already.
constexpr long long CapBytes = 1LL << 30;

// The verdict of `check` (empty: passed) as computed in the capped child;
// an exception or a crash there is a failure too.
inline std::string Run(const std::function<std::string()>& check)
{
    int channel[2];
    if (pipe(channel) != 0)
        return "pipe failed";
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0)
        return "fork failed";
    if (child == 0) {
        close(channel[0]);
        long long pages = 0;
        if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
            if (std::fscanf(statm, "%lld", &pages) != 1)
                pages = 0;
            std::fclose(statm);
        }
        const auto limit = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE) + CapBytes);
        const rlimit cap{limit, limit};
        std::string verdict = setrlimit(RLIMIT_AS, &cap) == 0 ? std::string() : "setrlimit failed";
        try {
            if (verdict.empty())
                verdict = check();
        } catch (const std::exception& e) {
            verdict = std::string("exception: ") + e.what();
        } catch (...) {
            verdict = "unknown exception";
        }
        const ssize_t written = write(channel[1], verdict.data(), verdict.size());
        _exit(written == static_cast<ssize_t>(verdict.size()) ? 0 : 1);
    }
    close(channel[1]);
    std::string verdict;
    char buffer[256];
    for (ssize_t n; (n = read(channel[0], buffer, sizeof buffer)) > 0;)
        verdict.append(buffer, static_cast<std::size_t>(n));
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status))
        return "the child died of signal " + std::to_string(WTERMSIG(status));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return "the child failed to report";
    return verdict;
}

} // namespace MemoryBound
