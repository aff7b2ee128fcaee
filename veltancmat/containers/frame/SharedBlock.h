#pragma once

#include <atomic>

// A spin lock on one int word: compare-exchange 0 -> 1 to take it, store 0
// to give it back. Used where the critical sections are a few instructions
// long (reference counts, free lists).
struct NCSpinLock {
    std::atomic<int> lockWord{0};

    void Lock() noexcept
    {
        int expected = 0;
        while (!lockWord.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            expected = 0;
            while (lockWord.load(std::memory_order_relaxed) != 0) {
#if defined(__x86_64__) || defined(__i386__)
                __builtin_ia32_pause();
#endif
            }
        }
    }
    void Unlock() noexcept { lockWord.store(0, std::memory_order_release); }
};

// The record that copies of a container share: how many copies use the data,
// and the lock that guards the count and the decision to free or detach.
// Containers hold a pointer to it next to their data pointer.
struct NCSharedBlock : NCSpinLock {
    std::atomic<int> refCount{1};
};

// One more copy uses `block` (null: no data to share); returns it. The
// caller holds the block's lock.
inline NCSharedBlock* NCShareBlock(NCSharedBlock* block) noexcept
{
    if (block)
        block->refCount.fetch_add(1, std::memory_order_relaxed);
    return block;
}

// Scoped hold of a spin lock; a null lock is not taken.
class NCSharedBlockLock {
public:
    explicit NCSharedBlockLock(NCSpinLock* lock) noexcept : m_lock(lock)
    {
        if (m_lock)
            m_lock->Lock();
    }
    ~NCSharedBlockLock()
    {
        if (m_lock)
            m_lock->Unlock();
    }
    NCSharedBlockLock(const NCSharedBlockLock&) = delete;
    NCSharedBlockLock& operator=(const NCSharedBlockLock&) = delete;

    // Gives up the lock early, e.g. before the block itself is freed.
    void Release() noexcept
    {
        if (m_lock)
            m_lock->Unlock();
        m_lock = nullptr;
    }

private:
    NCSpinLock* m_lock;
};

// Gives a holder of `block` storage of its own while other copies still use
// the block: under the block's lock, `detach` moves the holder onto new
// storage (it may throw, leaving everything as it was), and then the block
// counts one copy fewer. Nothing happens for a null block or a sole holder.
template <class Detach>
void NCDetachFromBlock(NCSharedBlock* block, Detach detach)
{
    if (!block)
        return;
    NCSharedBlockLock lock(block);
    if (block->refCount.load(std::memory_order_relaxed) == 1)
        return;
    detach();
    block->refCount.fetch_sub(1, std::memory_order_relaxed);
}
