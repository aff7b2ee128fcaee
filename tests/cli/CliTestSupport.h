#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace cli_test {

namespace fs = std::filesystem;

// A private folder for one test, removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (fs::temp_directory_path() / "veltan-cli-XXXXXX").string();
        m_path = mkdtemp(pattern.data()) ? pattern : throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() { fs::remove_all(m_path, m_error); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string File(const std::string& name) const { return (m_path / name).string(); }
    // Everything in the folder: proves that nothing was left behind.
    std::set<std::string> Entries() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_path))
            names.insert(entry.path().filename().string());
        return names;
    }

private:
    fs::path m_path;
    std::error_code m_error;
};

inline void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

struct RunResult {
    int exitCode = -1; // -1 when ended by a signal
    std::string out;
    std::string err;
};

// Starts the tool with its output in files of `dir`; the caller waits.
inline pid_t StartTool(const TempDir& dir, const std::vector<std::string>& args)
{
    std::vector<std::string> argv{VELTAN_CLI_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (std::string& a : argv)
        raw.push_back(a.data());
    raw.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string out = dir.File(".stdout"), err = dir.File(".stderr");
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, VELTAN_CLI_PATH, &actions, nullptr, raw.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        throw std::runtime_error("posix_spawn failed");
    return pid;
}

inline RunResult WaitTool(const TempDir& dir, pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadFile(dir.File(".stdout"));
    result.err = ReadFile(dir.File(".stderr"));
    std::remove(dir.File(".stdout").c_str());
    std::remove(dir.File(".stderr").c_str());
    return result;
}

inline RunResult RunTool(const TempDir& dir, const std::vector<std::string>& args)
{
    return WaitTool(dir, StartTool(dir, args));
}

// Two latent directions plus noise: clearly two significant components.
inline std::string TwoFactorTable(int n, int k, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::ostringstream csv;
    csv << "obs";
    for (int j = 1; j <= k; ++j)
        csv << ",v" << j;
    csv << "\n";
    for (int i = 1; i <= n; ++i) {
        const double a = normal(rng), b = normal(rng);
        csv << "o" << i;
        for (int j = 1; j <= k; ++j)
            csv << "," << 10.0 + a * (j % 3 - 1) + b * (j % 2 ? 1.0 : -0.5) + 0.2 * normal(rng);
        csv << "\n";
    }
    return csv.str();
}

// Runs the tool and checks its exit code; a failure shows what it said.
inline RunResult Veltan(const TempDir& dir, const std::vector<std::string>& args, int code = 0)
{
    RunResult r = RunTool(dir, args);
    EXPECT_EQ(r.exitCode, code) << r.err;
    return r;
}

inline std::string WineCsv() { return std::string(VELTAN_TEST_SOURCE_DIR) + "/../data/wine.csv"; }

} // namespace cli_test
