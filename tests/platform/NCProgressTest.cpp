#include "veltancmat/platform/NCProgress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <tuple>
#include <vector>

namespace {

double At(NCProgress& p, float value) { p.SetValueInternal(value); return p.GetFraction(); }

TEST(NCProgressMapping, LevelsComposeAndClamp)
{
    NCProgress p("Outer", 0, 10, false, true, false, "data.csv");
    p.SetValueInternal(2);
    p.PushSubRangeInternal(2, 3, "Round 2"); // overall [0.2, 0.3]
    p.SetRangeInternal(0, 4);
    EXPECT_DOUBLE_EQ(At(p, 1), 0.225);
    p.PushSubRangeInternal(1, 3, "");        // overall [0.225, 0.275]
    p.SetRangeInternal(10, 0);               // reversed
    EXPECT_DOUBLE_EQ(At(p, 5), 0.25);
    p.NextSpin();
    const NCProgressSnapshot s = p.GetSnapshot(); // the caption is the innermost non-empty one
    EXPECT_EQ(std::tie(s.caption, s.title, s.text2, s.spinning), std::make_tuple("Round 2", "Outer", "data.csv", true));
    // Closing a level leaves the one below at the end of what was opened,
    // and stops a spin that was never ended (an exception, say).
    p.PopSubRange();
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.275);
    EXPECT_FALSE(p.IsSpinning());
    EXPECT_TRUE(p.PopSubRange() && p.PopSubRange()); // the second is below the base: ignored
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.3);
    EXPECT_TRUE(p.GetDepth() == 0 && p.GetCaption() == "Outer");

    NCProgress q("", -8, 0); // a quantity rising from -v to 0
    EXPECT_DOUBLE_EQ(At(q, -2), 0.75);
    EXPECT_DOUBLE_EQ(At(q, 5), 1.0);
    q.SetRangeInternal(3, 3);
    q.PushSubRangeInternal(3, 3, ""); // a point: nothing inside moves
    EXPECT_DOUBLE_EQ(At(q, 1), 0.0);
    q.PopSubRange();
    q.SetRangeInternal(0, 4);
    EXPECT_DOUBLE_EQ(At(q, std::nanf("")), 0.0);
}

// Also a break requested from another thread, while a loop polls.
TEST(NCProgressBreak, EveryDrivingCallReportsTheBreak)
{
    NCProgress p("", 0, 10), fixed("", 0, 1, false, /*canCancel*/ false);
    std::atomic<bool> running{false};
    bool lastResult = true;
    std::thread worker([&] {
        running.store(true);
        for (long long i = 0; !p.IsBreakPressed(); ++i)
            if (i % 1000 == 0)
                p.SetValueInternal(static_cast<float>(i % 7));
        lastResult = p.SetValueInternal(1);
    });
    while (!running.load())
        std::this_thread::yield();
    EXPECT_TRUE(p.RequestBreak());
    worker.join();
    EXPECT_FALSE(lastResult);
    EXPECT_FALSE(p.PushSubRangeInternal(1, 2, ""));
    EXPECT_EQ(p.GetDepth(), 1u); // opened all the same, so it pairs
    EXPECT_FALSE(p.NextSpin() || p.PopSubRange());
    p.ClearBreak();
    EXPECT_TRUE(p.SetValueInternal(2) && !fixed.RequestBreak() && fixed.SetValueInternal(1));
}

TEST(NCProgressObserver, DeliversOnTheDrivingThreadThrottledAndDelayed)
{
    NCProgress p("Task", 0, 4, true, true, true);
    std::vector<NCProgressSnapshot> seen;
    p.SetObserver([&](const NCProgressSnapshot& s) {
        seen.push_back(s);
        p.Refresh(); // no recursion from inside
        if (s.fraction >= 0.5)
            p.RequestBreak();
    });
    ASSERT_TRUE(seen.size() == 1 && seen[0].remainingSeconds < 0); // the current state at once, no estimate yet
    EXPECT_TRUE(p.SetValueInternal(1) && p.PushSubRangeInternal(1, 2, "Step"));
    EXPECT_FALSE(p.PopSubRange()); // reaches 0.5: the break comes back at once
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_NEAR(seen[1].remainingSeconds, 3 * seen[1].elapsedSeconds, 1e-12);
    EXPECT_EQ(std::tie(seen[2].caption, seen[2].depth), std::make_tuple("Step", 1u));
    EXPECT_DOUBLE_EQ(seen[3].fraction, 0.5);

    using std::chrono::hours, std::chrono::milliseconds;
    std::vector<double> fractions;
    const auto record = [&](const NCProgressSnapshot& s) { fractions.push_back(s.fraction); };
    NCProgress throttled("", 0, 100, true), held("", 0, 1, false), due("", 0, 1, false);
    throttled.SetObserver(record, hours(1));
    for (int i = 0; i < 100; ++i)
        throttled.SetValueInternal(static_cast<float>(i));
    throttled.SetText("Sorting"); // captions are never throttled
    EXPECT_EQ(fractions, (std::vector<double>{0.0, 0.99}));
    held.SetObserver(record, milliseconds(0), hours(1));
    held.Refresh();
    due.SetObserver(record, milliseconds(0), milliseconds(0));
    due.SetValueInternal(1);
    EXPECT_EQ(fractions, (std::vector<double>{0.0, 0.99, 1.0}));
}

} // namespace
