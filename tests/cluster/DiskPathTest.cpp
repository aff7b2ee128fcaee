// The disk path: distances in temporary files when they do not fit under
// the memory limit. Each test runs in a temporary folder of its own, so
// that a file left behind is seen.
#include "cluster/ClusterChecks.h"

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/cluster/DendroGram.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/platform/QvSystemInfo.h"
#include "veltancmat/platform/UserComm.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace ClusterChecks;
namespace fs = std::filesystem;

struct Said {
    std::vector<std::string> infos;
    std::vector<std::string> questions;
    std::string caption;
};

// A private temporary folder, the memory limit that forces the disk, and a
// user who answers `answer`; everything restored afterwards.
class DiskPath : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_folder = fs::temp_directory_path() / ("veltan-disk-" + std::to_string(::testing::UnitTest::GetInstance()
                                                                                     ->random_seed()) +
                                                "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
        const char* old = std::getenv("TMPDIR");
        m_oldTmp = old ? old : "";
        m_hadTmp = old != nullptr;
        setenv("TMPDIR", m_folder.c_str(), 1);
        DendroGram::SetMemoryLimit(1);
        m_previous = UserComm::SetUserComm(UserComm::FromFunctions(
            [this](const std::string& caption, const std::string& text) {
                said.caption = caption;
                said.infos.push_back(text);
            },
            [this](const std::string& caption, const std::string& question, bool) {
                said.caption = caption;
                said.questions.push_back(question);
                return answer;
            }));
    }
    void TearDown() override
    {
        UserComm::SetUserComm(m_previous);
        DendroGram::SetMemoryLimit(0);
        QvSystemInfo::SetFreeDiskSpaceCap(0);
        if (m_hadTmp)
            setenv("TMPDIR", m_oldTmp.c_str(), 1);
        else
            unsetenv("TMPDIR");
        fs::remove_all(m_folder);
    }
    int FilesLeft() const
    {
        int count = 0;
        for (const auto& entry : fs::directory_iterator(m_folder))
            count += entry.path().filename().string().rfind("Dendro_", 0) == 0;
        return count;
    }

    Said said;
    bool answer = true;
    fs::path m_folder;

private:
    std::shared_ptr<UserComm> m_previous;
    std::string m_oldTmp;
    bool m_hadTmp = false;
};

std::vector<Merge> InMemory(const NCDataMatrix<float>& data, WardDistanceCalculator::DistanceType type)
{
    const std::uint64_t limit = DendroGram::GetMemoryLimit();
    DendroGram::SetMemoryLimit(0);
    WardDistanceCalculator ward(type);
    std::vector<Merge> merges = Cluster(ward, data);
    DendroGram::SetMemoryLimit(limit);
    return merges;
}

TEST_F(DiskPath, GivesTheMergesOfTheMemoryPathAndCleansUp)
{
    for (auto type : {WardDistanceCalculator::ErrorSS, WardDistanceCalculator::RootErrorSS}) {
        const NCDataMatrix<float> data = RandomMatrix(260, 6, 31 + type, 0.15);
        const std::vector<Merge> expected = InMemory(data, type);
        WardDistanceCalculator ward(type);
        ward.Init(data, nullptr);
        ASSERT_TRUE(ward.UsesDisk());
        EXPECT_GT(FilesLeft(), 1);
        const std::vector<Merge> actual = RunAll(ward, data.SizeRows());
        ASSERT_EQ(actual.size(), expected.size());
        for (std::size_t k = 0; k < actual.size(); ++k) {
            SCOPED_TRACE("merge " + std::to_string(k));
            EXPECT_EQ(actual[k].a, expected[k].a);
            EXPECT_EQ(actual[k].b, expected[k].b);
            EXPECT_EQ(actual[k].height, expected[k].height);
        }
        // Every partition is read and removed by the last merge.
        EXPECT_EQ(FilesLeft(), 0);
    }
    // The user was told once per run, under the dialog caption.
    ASSERT_EQ(said.infos.size(), 2u);
    EXPECT_TRUE(said.questions.empty());
    EXPECT_EQ(said.caption, "Cluster Analysis");
    EXPECT_NE(said.infos[0].find("(N=260)"), std::string::npos);
    EXPECT_NE(said.infos[0].find(m_folder.string()), std::string::npos);
}

TEST_F(DiskPath, TreeAndPhasesThroughGetDendroGram)
{
    const NCDataMatrix<float> data = RandomMatrix(120, 5, 3, 0.1);
    NCProgress progress("", 0.0f, 1.0f, true);
    std::vector<std::string> captions;
    progress.SetObserver([&](const NCProgressSnapshot& s) {
        if (!s.caption.empty() && (captions.empty() || captions.back() != s.caption))
            captions.push_back(s.caption);
    });
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    std::unique_ptr<DendroGram::DendroGramNode> root(DendroGram::GetDendroGram(data, ward, &progress, nullptr));
    ASSERT_TRUE(root);
    EXPECT_EQ(FilesLeft(), 0);
    const std::vector<std::string> start = {"Allocating memory", "Calculating and saving 7140 distances",
                                            "Splitting distances"};
    ASSERT_GE(captions.size(), 6u);
    EXPECT_EQ(std::vector<std::string>(captions.begin(), captions.begin() + 3), start);
    for (const char* later : {"Loading distances", "Sorting", "Merging clusters"})
        EXPECT_NE(std::find(captions.begin(), captions.end(), later), captions.end()) << later;
}

TEST_F(DiskPath, TooLittleFreeSpaceAsksAndANoEndsTheAnalysis)
{
    QvSystemInfo::SetFreeDiskSpaceCap(1000);
    answer = false;
    const NCDataMatrix<float> data = RandomMatrix(100, 4, 5, 0.1);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    try {
        ward.Init(data, nullptr);
        FAIL() << "no refusal";
    } catch (const NCError& e) {
        EXPECT_EQ(std::string(e.what()), "Cluster analysis aborted.");
        EXPECT_EQ(e.GetLevel(), NCError::Error);
    }
    ASSERT_EQ(said.questions.size(), 1u);
    // 2 x 4950 pairs x 12 bytes = 116.016 kbytes needed, 1000 bytes free.
    const std::string& q = said.questions[0];
    EXPECT_NE(q.find("(N=100)"), std::string::npos) << q;
    EXPECT_NE(q.find("needs 116.016 kbytes of free space"), std::string::npos) << q;
    EXPECT_NE(q.find("currently 0.977 kbytes"), std::string::npos) << q;
    EXPECT_NE(q.find("\nDo you want to continue?"), std::string::npos) << q;
    EXPECT_EQ(FilesLeft(), 0);

    // A yes goes on regardless.
    answer = true;
    ward.Init(data, nullptr);
    EXPECT_TRUE(ward.UsesDisk());
}

TEST_F(DiskPath, BreakWhileSavingLeavesNoFile)
{
    const NCDataMatrix<float> data = RandomMatrix(400, 4, 9, 0.1);
    NCProgress progress("", 0.0f, 1.0f, true);
    progress.SetObserver([&](const NCProgressSnapshot& s) {
        if (s.caption.rfind("Calculating and saving", 0) == 0 && s.fraction > 0.0)
            progress.RequestBreak();
    });
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    EXPECT_THROW(ward.Init(data, &progress), CancelException);
    EXPECT_EQ(FilesLeft(), 0);
}

// A break while merging frees the nodes; the files go with the calculator.
TEST_F(DiskPath, BreakWhileMergingLeavesNoFileOnceTheCalculatorGoes)
{
    const NCDataMatrix<float> data = RandomMatrix(150, 4, 21, 0.1);
    NCProgress progress("", 0.0f, 1.0f, true);
    int loads = 0;
    progress.SetObserver([&](const NCProgressSnapshot& s) {
        if (s.caption == "Loading distances" && ++loads == 3)
            progress.RequestBreak();
    });
    {
        WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
        EXPECT_THROW(DendroGram::GetDendroGram(data, ward, &progress, nullptr), CancelException);
        EXPECT_GE(loads, 3);
    }
    EXPECT_EQ(FilesLeft(), 0);
}

TEST_F(DiskPath, LostTemporaryFileIsAnErrorNotACrash)
{
    const NCDataMatrix<float> data = RandomMatrix(200, 4, 12, 0.1);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    ward.Init(data, nullptr);
    for (const auto& entry : fs::directory_iterator(m_folder))
        fs::remove(entry.path());
    try {
        RunAll(ward, data.SizeRows());
        FAIL() << "no error";
    } catch (const DendroGram::ClusterAllocationError& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.rfind("The temporary file ", 0), 0u) << text;
        EXPECT_NE(text.find("could not be opened"), std::string::npos) << text;
    }
}

TEST_F(DiskPath, UnwritableFolderIsAnError)
{
    setenv("TMPDIR", (m_folder / "missing").c_str(), 1);
    const NCDataMatrix<float> data = RandomMatrix(50, 4, 2, 0.1);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    EXPECT_THROW(ward.Init(data, nullptr), DendroGram::ClusterAllocationError);
    EXPECT_FALSE(fs::exists(m_folder / "missing"));
}

// A refused pair is found while the distances are saved; no file stays.
TEST_F(DiskPath, RefusalWhileSavingLeavesNoFile)
{
    NCDataMatrix<float> data = RandomMatrix(60, 4, 2);
    for (int j : {1, 2})
        data(7, j, -99.0f);
    for (int j : {3, 4})
        data(40, j, -99.0f);
    WardDistanceCalculator ward(WardDistanceCalculator::ErrorSS);
    EXPECT_THROW(ward.Init(data, nullptr), NCError);
    EXPECT_EQ(FilesLeft(), 0);
}

} // namespace
