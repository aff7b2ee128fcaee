#include "veltancmat/containers/frame/SideBySide.h"

#include <gtest/gtest.h>

#include <omp.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using NCMultiThreading::RunSideBySide;

// A fixed team of `threads` for one test; the load-time settings come back after.
class SideBySideTest : public ::testing::Test {
protected:
    void SetUp() override
    {
#ifndef _OPENMP
        GTEST_SKIP() << "built without OpenMP threads";
#endif
    }
    void Team(int threads)
    {
        omp_set_dynamic(0);
        omp_set_num_threads(threads);
    }
    void TearDown() override
    {
        omp_set_dynamic(m_dynamic);
        omp_set_num_threads(m_threads);
    }

private:
    int m_dynamic = omp_get_dynamic();
    int m_threads = omp_get_max_threads();
};

struct Record {
    std::mutex lock;
    std::vector<int> runs, innerThreads, announced;
    std::vector<bool> alone;
    std::vector<std::thread::id> announcers;
    explicit Record(int count) : runs(count, 0), innerThreads(count, 0), alone(count, false) {}
};

void RunRecorded(Record& record, int count)
{
    RunSideBySide(
        count,
        [&](int index, bool alone) {
            const int inner = omp_get_max_threads();
            const std::lock_guard<std::mutex> hold(record.lock);
            ++record.runs[index];
            record.innerThreads[index] = inner;
            record.alone[index] = alone;
        },
        [&](int index) {
            record.announced.push_back(index);
            record.announcers.push_back(std::this_thread::get_id());
        });
}

TEST_F(SideBySideTest, EnoughTasksRunOncePerThreadAndAreAnnouncedInOrderByTheCaller)
{
    Team(2);
    Record record(7);
    RunRecorded(record, 7);
    for (int index = 0; index < 7; ++index) {
        EXPECT_EQ(record.runs[index], 1) << index;
        EXPECT_EQ(record.innerThreads[index], 1) << index;
        EXPECT_FALSE(record.alone[index]) << index;
    }
    EXPECT_EQ(record.announced, (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
    for (const std::thread::id& id : record.announcers)
        EXPECT_EQ(id, std::this_thread::get_id());
    // The one-thread setting stayed inside the tasks.
    EXPECT_EQ(omp_get_max_threads(), 2);
}

TEST_F(SideBySideTest, OtherwiseTasksRunInOrderWithTheWholeTeam)
{
    Team(2);
    {
        Record record(1);
        RunRecorded(record, 1); // fewer tasks than threads
        EXPECT_EQ(record.runs[0], 1);
        EXPECT_TRUE(record.alone[0]);
        EXPECT_EQ(record.innerThreads[0], 2);
        EXPECT_TRUE(record.announced.empty());
    }
    {
        Record record(3);
#pragma omp parallel num_threads(2)
        {
#pragma omp single
            RunRecorded(record, 3); // inside a team already
        }
        EXPECT_EQ(record.runs, (std::vector<int>{1, 1, 1}));
        EXPECT_EQ(record.alone, (std::vector<bool>{true, true, true}));
        EXPECT_TRUE(record.announced.empty());
    }
    Team(1);
    std::vector<int> order;
    RunSideBySide(4, [&](int index, bool alone) { order.push_back(alone ? index : -1); }, [](int) {});
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    RunSideBySide(0, [&](int, bool) { order.push_back(99); }, [](int) {});
    EXPECT_EQ(order.size(), 4u);
}

TEST_F(SideBySideTest, TheLowestFailingIndexIsRethrownAndNoLaterTaskStarts)
{
    Team(2);
    constexpr int Count = 40;
    std::vector<std::atomic<int>> runs(Count);
    const auto run = [&] {
        RunSideBySide(
            Count,
            [&](int index, bool) {
                runs[index].fetch_add(1);
                if (index == 2) {
                    // Index 4 fails first, on the other thread, while this one runs.
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                    throw std::runtime_error("two");
                }
                if (index == 4)
                    throw std::runtime_error("four");
            },
            [](int) {});
    };
    try {
        run();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "two");
    }
    EXPECT_EQ(runs[2].load(), 1);
    EXPECT_EQ(runs[4].load(), 1);
    int started = 0;
    for (const std::atomic<int>& r : runs)
        started += r.load();
    EXPECT_LT(started, Count);
}

TEST_F(SideBySideTest, AFailingAnnouncementEndsTheRun)
{
    Team(2);
    std::atomic<int> runs{0};
    EXPECT_THROW(RunSideBySide(
                     50,
                     [&](int, bool) {
                         runs.fetch_add(1);
                         std::this_thread::sleep_for(std::chrono::milliseconds(1));
                     },
                     [](int index) {
                         if (index == 3)
                             throw std::logic_error("cancelled");
                     }),
                 std::logic_error);
    EXPECT_LT(runs.load(), 50);
}

} // namespace
