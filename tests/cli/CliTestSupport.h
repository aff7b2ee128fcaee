#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
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

// Starts the tool, sends Ctrl-C once it has written its first progress to
// stderr (or after `seconds`), and waits for it.
inline RunResult InterruptOnceStarted(const TempDir& dir, const std::vector<std::string>& args, int seconds = 15)
{
    const pid_t pid = StartTool(dir, args);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (fs::file_size(dir.File(".stderr")) == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    kill(pid, SIGINT);
    return WaitTool(dir, pid);
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

// The cells of a CSV file by row, the first column (names) kept apart.
struct Csv {
    std::vector<std::string> header;
    std::vector<std::string> names;
    std::vector<std::vector<double>> rows; // an empty cell reads as NaN
};

inline Csv ParseCsv(const std::string& text)
{
    Csv csv;
    for (const std::string& line : Lines(text)) {
        std::vector<std::string> cells;
        std::istringstream in(line + ","); // so that an empty last cell counts
        for (std::string cell; std::getline(in, cell, ',');)
            cells.push_back(cell);
        if (csv.header.empty()) {
            csv.header = cells;
            continue;
        }
        csv.names.push_back(cells.at(0));
        csv.rows.emplace_back();
        for (std::size_t c = 1; c < cells.size(); ++c)
            csv.rows.back().push_back(cells[c].empty() ? std::nan("") : std::stod(cells[c]));
    }
    return csv;
}

// X driven by two latent directions; y1 follows the first, y2 the
// difference of both: two predictive components, then noise. Without X or Y
// the same numbers are drawn, so that the two halves make one table.
inline std::string LatentTable(int n, int k, unsigned seed, bool withY = true, bool withX = true)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> normal;
    std::ostringstream csv;
    csv << "obs";
    for (int j = 1; withX && j <= k; ++j)
        csv << ",v" << j;
    csv << (withY ? ",y1,y2\n" : "\n");
    for (int i = 1; i <= n; ++i) {
        const double a = normal(rng), b = normal(rng);
        csv << "o" << i;
        for (int j = 1; j <= k; ++j) {
            const double v = 10.0 + a * (j % 3 - 1) + b * (j % 2 ? 1.0 : -0.5) + 0.2 * normal(rng);
            if (withX)
                csv << "," << v;
        }
        const double y1 = 5.0 + a + 0.1 * normal(rng), y2 = a - b + 0.1 * normal(rng);
        if (withY)
            csv << "," << y1 << "," << y2;
        csv << "\n";
    }
    return csv.str();
}

inline nlohmann::json RunJson(const TempDir& dir, const std::vector<std::string>& args)
{
    const RunResult r = RunTool(dir, args);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return nlohmann::json::parse(r.out);
}

// Each field of `expected` with its value in `doc`.
inline void ExpectFields(const nlohmann::json& doc, const nlohmann::json& expected)
{
    for (const auto& [key, value] : expected.items())
        EXPECT_EQ(doc.contains(key) ? doc.at(key) : nlohmann::json("(absent)"), value) << key;
}

// `text` with every "{d}" replaced by dir's folder.
inline std::string Fill(std::string text, const TempDir& dir)
{
    for (std::size_t at; (at = text.find("{d}")) != std::string::npos;)
        text.replace(at, 3, dir.File(""));
    return text;
}

// A refusal: exit `code`, the one line "veltan: <message>", no output, and no
// file left behind, whole or partial. "{d}" in args and message is the folder.
inline void ExpectRefusal(const TempDir& dir, std::vector<std::string> args, const std::string& message, int code)
{
    for (std::string& a : args)
        a = Fill(a, dir);
    const std::set<std::string> before = dir.Entries();
    const RunResult r = RunTool(dir, args);
    EXPECT_EQ(r.exitCode, code) << message;
    EXPECT_EQ(r.err, "veltan: " + Fill(message, dir) + "\n");
    EXPECT_EQ(r.out, "") << message;
    EXPECT_EQ(dir.Entries(), before) << message;
}

} // namespace cli_test
