#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/QvSystemInfo.h"
#include "veltancmat/platform/TempFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A private folder per test and process, removed with everything in it.
struct TempFileTest : ::testing::Test {
    TempFileTest() { fs::create_directories(dir); }
    ~TempFileTest() override { fs::remove_all(dir); }
    const fs::path dir = fs::temp_directory_path() / ("vcm-test-" + std::to_string(::getpid()) + "-" +
                                                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
};

TEST_F(TempFileTest, ClaimedNamesAreUniqueAcrossThreads)
{
    constexpr int threads = 8, perThread = 100;
    std::vector<std::vector<fs::path>> names(threads);
    std::vector<std::jthread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i)
                names[t].push_back(QvGetTempFileName("Dendro_", dir));
        });
    workers.clear(); // joins them
    std::set<fs::path> all;
    for (const std::vector<fs::path>& list : names)
        all.insert(list.begin(), list.end());
    EXPECT_EQ(all.size(), std::size_t{threads * perThread});
    EXPECT_EQ(all.begin()->filename().string().rfind("Dendro_", 0), 0u);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), threads * perThread);
}

TEST_F(TempFileTest, UnusableFolderOrPrefixThrows)
{
    const fs::path missing = dir / "no-such-folder";
    EXPECT_THAT([&] { QvGetTempFileName("x", missing); },
                testing::ThrowsMessage<Exception>(testing::HasSubstr(missing.string())));
    std::ofstream(dir / "plain-file") << "x";
    EXPECT_THROW(QvGetTempFileName("x", dir / "plain-file"), Exception);
    EXPECT_THROW(QvGetTempFileName("a/b", dir), InvalidArgument);
    EXPECT_THROW(QvSystemInfo::GetFreeDiskSpace(missing / "deeper"), Exception);
    EXPECT_LE(QvSystemInfo::GetFreeDiskSpace(dir), fs::space(dir).capacity);
}

TEST_F(TempFileTest, OwnerRemovesTheFile)
{
    fs::path kept, moved;
    {
        TempFile a("own", dir), b("own", dir), c("own", dir);
        kept = a.Release();
        const fs::path replaced = c.Path();
        moved = (c = std::move(b)).Path();
        EXPECT_FALSE(fs::exists(replaced));
    }
    EXPECT_TRUE(!fs::exists(moved) && fs::exists(kept));
}

} // namespace
