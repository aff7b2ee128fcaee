#include "veltancmat/platform/UserComm.h"

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

namespace {

// Captures std::clog and puts back whatever implementation was installed.
struct UserCommTest : ::testing::Test {
    ~UserCommTest() override
    {
        std::clog.rdbuf(oldBuffer);
        UserComm::SetUserComm(saved);
    }
    static std::shared_ptr<UserComm> AlwaysYes() { return UserComm::FromFunctions({}, [](auto&&...) { return true; }); }
    std::shared_ptr<UserComm> saved = UserComm::SetUserComm(nullptr);
    std::ostringstream log;
    std::streambuf* oldBuffer = std::clog.rdbuf(log.rdbuf());
};

TEST_F(UserCommTest, DefaultLogsAndAnswersUntilReplaced)
{
    const std::shared_ptr<UserComm> fallback = UserComm::GetUserComm(), yes = AlwaysYes();
    fallback->Info("Cluster Analysis", "The disk will be used.");
    EXPECT_TRUE(fallback->AskYesNo("Cluster Analysis", "Continue?", true) && !fallback->AskYesNo("", "Continue?", false));
    EXPECT_EQ(log.str(), "Cluster Analysis: The disk will be used.\nCluster Analysis: Continue? [Yes]\n"
                         "Continue? [No]\n");

    EXPECT_EQ(UserComm::SetUserComm(yes), fallback);
    EXPECT_TRUE(UserComm::GetUserComm()->AskYesNo("C", "Q", false));
    UserComm::GetUserComm()->Info("", "only the question was replaced");
    EXPECT_NE(log.str().find("only the question was replaced"), std::string::npos);
    EXPECT_EQ(UserComm::SetUserComm(nullptr), yes);
    EXPECT_EQ(UserComm::GetUserComm(), fallback);
}

TEST_F(UserCommTest, SwappingWhileOtherThreadsAskIsSafe)
{
    UserComm::SetUserComm(AlwaysYes());
    std::atomic<int> yes{0};
    std::vector<std::jthread> askers; // stopped and joined as they go
    for (int t = 0; t < 3; ++t)
        askers.emplace_back([&](std::stop_token stop) {
            while (!stop.stop_requested())
                yes += UserComm::GetUserComm()->AskYesNo("C", "Q", false);
        });
    // Each replaced implementation dies as soon as no asker holds it. Swap
    // until the askers have been answered at least once.
    for (int i = 0; i < 500 || yes.load() == 0; ++i)
        UserComm::SetUserComm(AlwaysYes());
}

} // namespace
