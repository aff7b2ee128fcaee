#include "veltancmat/containers/IntPool.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Threads take more than a block's worth of cells each, give them back and
// take again; no cell may be handed to two holders at once.
TEST(IntPool, SeveralThreads)
{
    constexpr int threads = 4, perThread = 20000;
    std::vector<std::vector<int*>> held(threads);
    std::vector<std::jthread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t, &cells = held[t]] {
            for (int round = 0; round < 3; ++round) {
                for (int* cell : std::exchange(cells, {}))
                    IntPool::ReleaseInt(cell);
                for (int k = 0; k < perThread; ++k) {
                    cells.push_back(IntPool::GetInt());
                    EXPECT_EQ(*cells.back(), 0);
                    *cells.back() = t * perThread + k;
                }
            }
        });
    workers.clear(); // joins them
    std::set<int*> all;
    for (int t = 0; t < threads; ++t)
        for (int k = 0; k < perThread; ++k)
            ASSERT_TRUE(*held[t][k] == t * perThread + k && all.insert(held[t][k]).second) << t << " " << k;
    const long long freeBefore = IntPool::FreeCount();
    for (int* cell : all)
        IntPool::ReleaseInt(cell);
    IntPool::ReleaseInt(nullptr);
    EXPECT_EQ(IntPool::FreeCount(), freeBefore + threads * perThread);
}

} // namespace
