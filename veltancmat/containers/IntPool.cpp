#include "veltancmat/containers/IntPool.h"

#include <atomic>
#include <vector>

namespace {

constexpr int CellsPerBlock = 16384; // 65536 bytes

struct PoolState {
    std::atomic<int> lockWord{0};
    std::vector<int*> freeCells;
};

// Never destroyed: cells may still be in use while static objects are torn
// down at exit, and the blocks stay reachable through this pointer.
PoolState& Pool()
{
    static PoolState* const state = new PoolState;
    return *state;
}

class SpinGuard {
public:
    explicit SpinGuard(std::atomic<int>& word) noexcept : m_word(word)
    {
        int expected = 0;
        while (!m_word.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            expected = 0;
            while (m_word.load(std::memory_order_relaxed) != 0) {
#if defined(__x86_64__) || defined(__i386__)
                __builtin_ia32_pause();
#endif
            }
        }
    }
    ~SpinGuard() { m_word.store(0, std::memory_order_release); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    std::atomic<int>& m_word;
};

} // namespace

int* IntPool::GetInt()
{
    PoolState& pool = Pool();
    int* cell = nullptr;
    {
        SpinGuard guard(pool.lockWord);
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
    SpinGuard guard(pool.lockWord);
    pool.freeCells.push_back(cell);
}

long long IntPool::FreeCount()
{
    PoolState& pool = Pool();
    SpinGuard guard(pool.lockWord);
    return static_cast<long long>(pool.freeCells.size());
}
