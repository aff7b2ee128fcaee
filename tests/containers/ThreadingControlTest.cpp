#include "veltancmat/containers/frame/ThreadingControl.h"

#include <gtest/gtest.h>

#include <omp.h>
#include <sched.h>

namespace {

using NCMultiThreading::ThreadingControl;

// Restores the load-time state whatever a test did.
class ThreadingControlTest : public ::testing::Test {
protected:
    void TearDown() override { ThreadingControl::Reset(); }
};

TEST_F(ThreadingControlTest, LoadTimeStateMatchesTheMachine)
{
    // Nothing in this program has touched the switch before this test.
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), omp_get_num_procs());
    EXPECT_EQ(ThreadingControl::IsThreadingOn(), omp_get_num_procs() > 1);
    EXPECT_TRUE(omp_get_dynamic());
}

TEST_F(ThreadingControlTest, ProcessorCountTakesEffectAtTheNextSwitch)
{
    ThreadingControl::SetNumberOfProcessors(8);
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), 8);
    ThreadingControl::SetThreadingIsOn(false);
    EXPECT_FALSE(ThreadingControl::IsThreadingOn());
    EXPECT_EQ(omp_get_max_threads(), 1);
    ThreadingControl::SetThreadingIsOn(true);
    EXPECT_TRUE(ThreadingControl::IsThreadingOn());
    EXPECT_EQ(omp_get_max_threads(), 8);

    ThreadingControl::SetNumberOfProcessors(3);
    EXPECT_EQ(omp_get_max_threads(), 8);
    ThreadingControl::SetThreadingIsOn(true);
    EXPECT_EQ(omp_get_max_threads(), 3);
}

TEST_F(ThreadingControlTest, OffRunsOneThreadInParallelRegions)
{
    ThreadingControl::SetNumberOfProcessors(4);
    ThreadingControl::SetThreadingIsOn(false);
    int threads = 0;
#pragma omp parallel
    {
#pragma omp single
        threads = omp_get_num_threads();
    }
    EXPECT_EQ(threads, 1);
}

TEST_F(ThreadingControlTest, ResetRestoresTheMachineCount)
{
    ThreadingControl::SetNumberOfProcessors(1);
    ThreadingControl::SetThreadingIsOn(true);
    EXPECT_EQ(omp_get_max_threads(), 1);
    ThreadingControl::Reset();
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), omp_get_num_procs());
    EXPECT_EQ(omp_get_max_threads(), omp_get_num_procs());
    // A copy carries no state: assigning one changes nothing.
    ThreadingControl a, b;
    a = b;
    EXPECT_EQ(ThreadingControl::GetNumberOfProcessors(), omp_get_num_procs());
}

TEST_F(ThreadingControlTest, OneProcessorMeansThreadingOffAfterReset)
{
    // OpenMP counts the processors this thread may run on, so pinning the
    // thread to one of them stands in for a one-processor machine.
    cpu_set_t saved;
    ASSERT_EQ(sched_getaffinity(0, sizeof(saved), &saved), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &saved)) {
            CPU_SET(cpu, &one);
            break;
        }
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    ThreadingControl::Reset();
    const bool on = ThreadingControl::IsThreadingOn();
    const int processors = ThreadingControl::GetNumberOfProcessors();
    sched_setaffinity(0, sizeof(saved), &saved);
    EXPECT_EQ(processors, 1);
    EXPECT_FALSE(on);
}

} // namespace
