#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/NCError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(ProgressScope, LevelsNestAndPopWhenUnwindingOrWhenTheObserverThrows)
{
    NCProgress p("", 0, 1, /*showImmediately*/ true);
    ProgressRange(&p, 0, 4);
    for (int i = 0; i < 2; ++i) {
        ProgressStep step(&p, i, "Aborted.");
        ProgressRange(&p, 0, 2);
        CheckedSetValue(&p, 1, "Aborted.");
        EXPECT_DOUBLE_EQ(p.GetFraction(), (i + 0.5) / 4);
    }
    try {
        ProgressSubRange outer(&p, 2, 3, "Aborted.", "Outer");
        ProgressSpinner spinner(&p);
        spinner.Next();
        ProgressSubRange inner(&p, 0, 0.5f, "Aborted.");
        throw std::runtime_error("numerical failure");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(p.GetDepth() == 0 && !p.IsSpinning());
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.75);

    // A closing level must not throw, even when the observer does.
    {
        ProgressSubRange range(&p, 0, 1, "Aborted.");
        p.SetObserver([](const NCProgressSnapshot& s) {
            if (s.depth == 0)
                throw std::runtime_error("host failure");
        });
    }
    EXPECT_EQ(p.GetDepth(), 0u);
}

TEST(ProgressScope, BreakThrowsCancelWithTheMessageAndLeavesNoLevel)
{
    NCProgress p, *none = nullptr;
    ProgressSubRange outer(&p, 0, 1, "Aborted.");
    p.RequestBreak();
    EXPECT_NO_THROW({ // without a progress object every helper is a no-op
        ProgressRange(none, 0, 5);
        CheckedSetValue(none, 3, "Aborted.");
        CheckBreak(none, "Aborted.");
        ProgressStep step(none, 2, "Aborted.");
        EXPECT_TRUE(ProgressSpinner(none).Next());
    });
    const ExceptionMessage round = ExceptionMessage::translate("Round {1} aborted.") % "3";
    EXPECT_THAT([&] { ProgressSubRange inner(&p, 0, 1, round); },
                testing::ThrowsMessage<CancelException>(testing::StrEq("Round 3 aborted.")));
    EXPECT_THROW(ProgressStep(&p, 0, "Aborted."), CancelException);
    EXPECT_THROW(ProgressSpinner(&p).CheckedNext("Aborted."), CancelException);
    EXPECT_EQ(p.GetDepth(), 1u);
    EXPECT_THAT([&] { CheckBreak(&p, {"Calculations of", "PC component aborted."}); },
                testing::Throws<CancelException>(testing::ResultOf(
                    [](const CancelException& e) { return e.messages().messages().at(0).context(); }, "Calculations of")));
}

} // namespace
