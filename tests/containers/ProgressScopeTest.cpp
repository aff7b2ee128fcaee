#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

TEST(ProgressScope, NullProgressIsANoOp)
{
    NCProgress* none = nullptr;
    EXPECT_NO_THROW({
        ProgressRange(none, 0, 5);
        CheckedSetValue(none, 3, "Aborted.");
        CheckBreak(none, "Aborted.");
        ProgressStep step(none, 2, "Aborted.");
        EXPECT_TRUE(ProgressSpinner(none).Next());
    });
}

TEST(ProgressScope, LoopStepsNestAndPopAlsoWhenUnwinding)
{
    NCProgress p;
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
    EXPECT_EQ(p.GetDepth(), 0u);
    EXPECT_FALSE(p.IsSpinning());
    EXPECT_DOUBLE_EQ(p.GetFraction(), 0.75);
}

TEST(ProgressScope, BreakThrowsCancelWithTheMessageAndLeavesNoLevel)
{
    NCProgress p;
    ProgressSubRange outer(&p, 0, 1, "Aborted.");
    p.RequestBreak();
    try {
        ProgressSubRange inner(&p, 0, 1, ExceptionMessage::translate("Round {1} aborted.") % "3");
        ADD_FAILURE() << "no CancelException";
    } catch (const NCError&) {
        ADD_FAILURE() << "a break is not an NCError";
    } catch (const CancelException& e) {
        EXPECT_STREQ(e.what(), "Round 3 aborted.");
    }
    EXPECT_THROW(ProgressStep(&p, 0, "Aborted."), CancelException);
    EXPECT_THROW(ProgressSpinner(&p).CheckedNext("Aborted."), CancelException);
    EXPECT_EQ(p.GetDepth(), 1u);
    try {
        CheckBreak(&p, {"Calculations of", "PC component aborted."});
        ADD_FAILURE() << "no CancelException";
    } catch (const CancelException& e) {
        EXPECT_EQ(e.messages().messages().at(0).context(), "Calculations of");
    }
}

TEST(ProgressScope, DestructorSwallowsAThrowingObserver)
{
    NCProgress p("", 0, 1, true);
    {
        ProgressSubRange range(&p, 0, 1, "Aborted.");
        p.SetObserver([](const NCProgressSnapshot& s) {
            if (s.depth == 0)
                throw std::runtime_error("host failure");
        });
    }
    EXPECT_EQ(p.GetDepth(), 0u);
}

} // namespace
