#pragma once

#include <atomic>

// The record that copies of a container share: how many copies use the data,
// and a spin lock that guards the count and the decision to free or detach.
// Containers hold a pointer to it next to their data pointer.
struct NCSharedBlock {
    std::atomic<int> refCount{1};
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

// Scoped hold of a block's spin lock; a null block is not locked.
class NCSharedBlockLock {
public:
    explicit NCSharedBlockLock(NCSharedBlock* block) noexcept : m_block(block)
    {
        if (m_block)
            m_block->Lock();
    }
    ~NCSharedBlockLock()
    {
        if (m_block)
            m_block->Unlock();
    }
    NCSharedBlockLock(const NCSharedBlockLock&) = delete;
    NCSharedBlockLock& operator=(const NCSharedBlockLock&) = delete;

    // Gives up the lock early, e.g. before the block itself is freed.
    void Release() noexcept
    {
        if (m_block)
            m_block->Unlock();
        m_block = nullptr;
    }

private:
    NCSharedBlock* m_block;
};
