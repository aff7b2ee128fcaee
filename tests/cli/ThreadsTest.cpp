#include "CliTestSupport.h"

#include "cli/ThreadsOption.h"
#include "cli/ToolError.h"

#include "veltancmat/containers/frame/ThreadingControl.h"

#include <gtest/gtest.h>
#include <omp.h>

using namespace cli_test;
using NCMultiThreading::ThreadingControl;

namespace {

// The subcommands `veltan --help` lists, so that a command added later is
// checked without being named here.
std::vector<std::string> Subcommands(const TempDir& dir)
{
    const std::vector<std::string> lines = Lines(Veltan(dir, {"--help"}).out);
    std::vector<std::string> names;
    bool listing = false;
    for (const std::string& line : lines) {
        if (line.rfind("Subcommands:", 0) == 0) {
            listing = true;
        } else if (listing && line.size() > 2 && line.compare(0, 2, "  ") == 0 && line[2] != ' ') {
            names.push_back(line.substr(2, line.find(' ', 2) - 2));
        } else if (listing && !line.empty() && line[0] != ' ') {
            listing = false;
        }
    }
    return names;
}

} // namespace

TEST(ThreadsOption, CountsOutsideOneToMaxAreUsageErrors)
{
    EXPECT_EQ(veltan_cli::ThreadCount(""), 0);
    EXPECT_EQ(veltan_cli::ThreadCount("1"), 1);
    EXPECT_EQ(veltan_cli::ThreadCount("1024"), veltan_cli::MaxThreads);
    for (const char* text : {"0", "-1", "x", "2.5", " 2", "2 ", "+2", "1025", "99999999999", "0x2"}) {
        try {
            veltan_cli::ThreadCount(text);
            ADD_FAILURE() << text << " accepted";
        } catch (const veltan_cli::ToolError& e) {
            EXPECT_EQ(e.Code(), veltan_cli::ExitUsage);
            EXPECT_EQ(std::string(e.what()),
                      "--threads: \"" + std::string(text) + "\" is not a whole number from 1 to 1024");
        }
    }
}

// The tool's team is fixed: dynamic adjustment off, and the library's switch
// agreeing with the count.
TEST(ThreadsOption, UseThreadsFixesTheTeamThroughTheLibrarySwitch)
{
    veltan_cli::UseThreads(3);
    EXPECT_EQ(omp_get_dynamic(), 0);
    EXPECT_EQ(omp_get_max_threads(), 3);
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), 3);
    EXPECT_TRUE(ThreadingControl::IsThreadingOn());
    int team = 0;
#pragma omp parallel
    {
#pragma omp single
        team = omp_get_num_threads();
    }
    EXPECT_EQ(team, 3);

    veltan_cli::UseThreads(1);
    EXPECT_EQ(omp_get_max_threads(), 1);
    EXPECT_FALSE(ThreadingControl::IsThreadingOn());

    veltan_cli::UseThreads(0);
    EXPECT_EQ(omp_get_max_threads(), omp_get_num_procs());
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), omp_get_num_procs());
    EXPECT_EQ(omp_get_dynamic(), 0);

    // The library's own reset keeps its behaviour for other hosts.
    ThreadingControl::Reset();
    EXPECT_EQ(omp_get_dynamic(), 1);
    EXPECT_EQ(omp_get_max_threads(), omp_get_num_procs());
}

TEST(VeltanThreads, EveryCommandTakesItAndBadValuesAreOneLineUsageErrors)
{
    TempDir dir;
    const std::vector<std::string> commands = Subcommands(dir);
    ASSERT_GE(commands.size(), 10u);
    for (const std::string& command : commands)
        EXPECT_NE(Veltan(dir, {command, "--help"}).out.find("--threads N"), std::string::npos) << command;

    for (const char* value : {"0", "x", "-3"}) {
        EXPECT_EQ(Veltan(dir, {"pca", "--threads", value}, 2).err,
                  "veltan: --threads: \"" + std::string(value) + "\" is not a whole number from 1 to 1024\n");
    }
    // Without a value it is CLI11's own usage error.
    EXPECT_EQ(Veltan(dir, {"pca", "--threads"}, 2).out, "");
    // Checked before the table is read: the option is wrong whatever DATA holds.
    EXPECT_EQ(Veltan(dir, {"pls", dir.File("absent.csv"), "--y", "a", "--threads", "0"}, 2).err.substr(0, 19),
              "veltan: --threads: ");
}

// The team size changes how the loops split their sums: the printed
// reports are the same, the written values agree to float rounding.
TEST(VeltanThreads, OneAndTwoThreadsGiveTheSameResults)
{
    TempDir dir;
    WriteFile(dir.File("d.csv"), LatentTable(1000, 60, 5));
    std::vector<std::string> reports;
    std::vector<Csv> predictions;
    for (const char* threads : {"1", "2"}) {
        const std::string cv = dir.File(std::string("cv") + threads + ".csv");
        const RunResult pls = Veltan(dir, {"pls", dir.File("d.csv"), "--y", "y1", "--y", "y2", "--threads", threads,
                                           "--components", "3", "--cv-predictions", cv});
        const RunResult pca = Veltan(dir, {"pca", "--threads", threads, dir.File("d.csv")});
        reports.push_back(pls.out.substr(0, pls.out.find("Cross-validated predictions written")) + pca.out);
        predictions.push_back(ParseCsv(ReadFile(cv)));
    }
    EXPECT_NE(reports[0].find("3 components fitted"), std::string::npos);
    EXPECT_EQ(reports[0], reports[1]);
    ASSERT_EQ(predictions[0].rows.size(), 1000u);
    ASSERT_EQ(predictions[1].rows.size(), 1000u);
    for (std::size_t i = 0; i < predictions[0].rows.size(); ++i)
        for (std::size_t j = 0; j < 2; ++j)
            EXPECT_NEAR(predictions[0].rows[i][j], predictions[1].rows[i][j],
                        1e-5 * (1.0 + std::fabs(predictions[0].rows[i][j])));
}
