#include "veltancmat/platform/NCProgress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

namespace {

TEST(NCProgressMapping, ThreeLevelsComposeOntoOneFraction)
{
    NCProgress p("Outer", 0, 10, false, true, false, "data.csv");
    p.SetValueInternal(2);
    p.PushSubRangeInternal(2, 3, "Round 2"); // overall [0.2, 0.3]
    p.SetRangeInternal(0, 4);
    p.SetValueInternal(1);
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.225);
    p.PushSubRangeInternal(1, 3, "");        // overall [0.225, 0.275]
    p.SetRangeInternal(10, 0);               // reversed
    p.SetValueInternal(5);
    p.NextSpin();
    const NCProgressSnapshot s = p.GetSnapshot();
    EXPECT_DOUBLE_EQ(s.fraction, 0.25);
    EXPECT_EQ(s.caption, "Round 2");         // innermost non-empty
    EXPECT_EQ(s.title, "Outer");
    EXPECT_EQ(s.text2, "data.csv");
    EXPECT_TRUE(s.spinning);
    // Closing a level leaves the one below at the end of what was opened,
    // and stops a spin that was never ended (an exception, say).
    p.PopSubRange();
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.275);
    EXPECT_FALSE(p.IsSpinning());
    p.PopSubRange();
    EXPECT_TRUE(p.PopSubRange());            // below the base: ignored
    EXPECT_EQ(p.GetDepth(), 0u);
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.3);
    EXPECT_EQ(p.GetCaption(), "Outer");
}

TEST(NCProgressMapping, ConvergingEmptyAndNaNRangesClamp)
{
    NCProgress p("", -8, 0);                 // a quantity rising from -v to 0
    p.SetValueInternal(-2);
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.75);
    p.SetValueInternal(5);
    EXPECT_DOUBLE_EQ(p.GetFraction(), 1.0);
    p.SetRangeInternal(3, 3);
    p.PushSubRangeInternal(3, 3, "");        // a point: nothing inside moves
    p.SetValueInternal(1);
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.0);
    p.PopSubRange();
    p.SetRangeInternal(0, 4);
    p.SetValueInternal(std::nanf(""));
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.0);
}

TEST(NCProgressBreak, EveryDrivingCallReportsTheBreak)
{
    NCProgress p("", 0, 10), fixed("", 0, 1, false, /*canCancel*/ false);
    EXPECT_TRUE(p.RequestBreak());
    EXPECT_FALSE(p.SetValueInternal(1));
    EXPECT_FALSE(p.PushSubRangeInternal(1, 2, ""));
    EXPECT_EQ(p.GetDepth(), 1u);             // opened all the same, so it pairs
    EXPECT_FALSE(p.NextSpin());
    EXPECT_FALSE(p.PopSubRange());
    p.ClearBreak();
    EXPECT_TRUE(p.SetValueInternal(2));
    EXPECT_FALSE(fixed.RequestBreak());
    EXPECT_TRUE(fixed.SetValueInternal(1));
}

TEST(NCProgressBreak, RequestFromAnotherThreadStopsPollingLoop)
{
    NCProgress p;
    std::atomic<bool> running{false};
    bool lastResult = true;
    std::thread worker([&] {
        running.store(true);
        for (long long i = 0; !p.IsBreakPressed(); ++i)
            if (i % 1000 == 0)
                p.SetValueInternal(static_cast<float>(i % 7) / 7.0f);
        lastResult = p.SetValueInternal(1);
    });
    while (!running.load())
        std::this_thread::yield();
    p.RequestBreak();
    worker.join();
    EXPECT_FALSE(lastResult);
}

TEST(NCProgressObserver, DeliversChangesOnTheDrivingThread)
{
    NCProgress p("Task", 0, 4, true, true, true);
    std::vector<NCProgressSnapshot> seen;
    p.SetObserver([&](const NCProgressSnapshot& s) {
        seen.push_back(s);
        p.Refresh();                         // no recursion from inside
        if (s.fraction >= 0.5)
            p.RequestBreak();
    });
    ASSERT_EQ(seen.size(), 1u);              // the current state at once
    EXPECT_LT(seen[0].remainingSeconds, 0.0);
    EXPECT_TRUE(p.SetValueInternal(1));
    EXPECT_TRUE(p.PushSubRangeInternal(1, 2, "Step"));
    EXPECT_FALSE(p.PopSubRange());           // reaches 0.5: the break comes back at once
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_NEAR(seen[1].remainingSeconds, 3 * seen[1].elapsedSeconds, 1e-12);
    EXPECT_EQ(seen[2].caption, "Step");
    EXPECT_EQ(seen[2].depth, 1u);
    EXPECT_DOUBLE_EQ(seen[3].fraction, 0.5);
}

TEST(NCProgressObserver, ThrottleAndShowDelay)
{
    using std::chrono::hours, std::chrono::milliseconds;
    std::vector<double> seen;
    const auto record = [&](const NCProgressSnapshot& s) { seen.push_back(s.fraction); };
    NCProgress p("", 0, 100, true), held("", 0, 1, false), due("", 0, 1, false);
    p.SetObserver(record, hours(1));
    for (int i = 0; i < 100; ++i)
        p.SetValueInternal(static_cast<float>(i));
    p.SetText("Sorting");                    // captions are never throttled
    EXPECT_EQ(seen, (std::vector<double>{0.0, 0.99}));
    held.SetObserver(record, milliseconds(0), hours(1));
    held.Refresh();
    due.SetObserver(record, milliseconds(0), milliseconds(0));
    due.SetValueInternal(1);
    EXPECT_EQ(seen, (std::vector<double>{0.0, 0.99, 1.0}));
}

} // namespace
