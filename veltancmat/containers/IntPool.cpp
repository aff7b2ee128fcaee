#include "veltancmat/containers/IntPool.h"

#include "veltancmat/containers/frame/SharedBlock.h"

#include <vector>

namespace {

constexpr int CellsPerBlock = 16384; // 65536 bytes

struct PoolState {
    NCSpinLock lock;
    std::vector<int*> freeCells;
};

// Never destroyed: cells may still be in use while static objects are torn
// down at exit, and the blocks stay reachable through this pointer.
PoolState& Pool()
{
    static PoolState* const state = new PoolState;
    return *state;
}

} // namespace

int* IntPool::GetInt()
{
    PoolState& pool = Pool();
    int* cell = nullptr;
    {
        NCSharedBlockLock guard(&pool.lock);
        if (pool.freeCells.empty()) {
            // The list is empty here, so room for one block suffices.
            // Reserving first means a failure leaves the pool unchanged.
            pool.freeCells.reserve(CellsPerBlock);
            int* block = new int[CellsPerBlock];
            // Highest address first, so that cells leave in address order.
            for (int k = CellsPerBlock - 1; k >= 0; --k)
                pool.freeCells.push_back(block + k);
        }
        cell = pool.freeCells.back();
        pool.freeCells.pop_back();
    }
    *cell = 0;
    return cell;
}

void IntPool::ReleaseInt(int* cell)
{
    if (!cell)
        return;
    PoolState& pool = Pool();
    NCSharedBlockLock guard(&pool.lock);
    pool.freeCells.push_back(cell);
}

long long IntPool::FreeCount()
{
    PoolState& pool = Pool();
    NCSharedBlockLock guard(&pool.lock);
    return static_cast<long long>(pool.freeCells.size());
}
