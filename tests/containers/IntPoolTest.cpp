#include "veltancmat/containers/IntPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

TEST(IntPool, CellsAreDistinctZeroedAndReused)
{
    std::vector<int*> cells;
    // More than one block's worth, so the pool has to grow.
    for (int k = 0; k < 20000; ++k) {
        cells.push_back(IntPool::GetInt());
        ASSERT_EQ(*cells.back(), 0);
        *cells.back() = k;
    }
    std::vector<int*> sorted(cells);
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
    for (int k = 0; k < 20000; ++k)
        ASSERT_EQ(*cells[k], k);

    const long long freeBefore = IntPool::FreeCount();
    for (int* cell : cells)
        IntPool::ReleaseInt(cell);
    IntPool::ReleaseInt(nullptr);
    EXPECT_EQ(IntPool::FreeCount(), freeBefore + 20000);
    int* again = IntPool::GetInt();
    EXPECT_TRUE(std::binary_search(sorted.begin(), sorted.end(), again)); // served from the free list
    EXPECT_EQ(*again, 0);
    IntPool::ReleaseInt(again);
}

TEST(IntPool, SeveralThreads)
{
    constexpr int threads = 4, perThread = 10000;
    std::vector<std::vector<int*>> held(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, &held] {
            for (int round = 0; round < 3; ++round) {
                for (int k = 0; k < perThread; ++k) {
                    int* cell = IntPool::GetInt();
                    *cell = t * perThread + k;
                    held[t].push_back(cell);
                }
                if (round < 2) {
                    for (int* cell : held[t])
                        IntPool::ReleaseInt(cell);
                    held[t].clear();
                }
            }
        });
    }
    for (std::thread& w : workers)
        w.join();
    // No cell was handed to two threads at once: each still holds its own value.
    std::vector<int*> all;
    for (int t = 0; t < threads; ++t) {
        for (int k = 0; k < perThread; ++k)
            ASSERT_EQ(*held[t][k], t * perThread + k);
        all.insert(all.end(), held[t].begin(), held[t].end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    for (int* cell : all)
        IntPool::ReleaseInt(cell);
}

} // namespace
