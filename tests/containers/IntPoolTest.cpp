#include "veltancmat/containers/IntPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

// Threads take more than a block's worth of cells each, give them back and
// take again; no cell may be handed to two holders at once.
TEST(IntPool, SeveralThreads)
{
    constexpr int threads = 4, perThread = 20000;
    std::vector<std::vector<int*>> held(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([t, &cells = held[t]] {
            for (int round = 0; round < 3; ++round) {
                for (int* cell : cells)
                    IntPool::ReleaseInt(cell);
                cells.clear();
                for (int k = 0; k < perThread; ++k) {
                    cells.push_back(IntPool::GetInt());
                    EXPECT_EQ(*cells.back(), 0);
                    *cells.back() = t * perThread + k;
                }
            }
        });
    }
    for (std::thread& w : workers)
        w.join();
    std::vector<int*> all;
    for (int t = 0; t < threads; ++t) {
        for (int k = 0; k < perThread; ++k)
            ASSERT_EQ(*held[t][k], t * perThread + k);
        all.insert(all.end(), held[t].begin(), held[t].end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    const long long freeBefore = IntPool::FreeCount();
    for (int* cell : all)
        IntPool::ReleaseInt(cell);
    IntPool::ReleaseInt(nullptr);
    EXPECT_EQ(IntPool::FreeCount(), freeBefore + threads * perThread);
}

} // namespace
