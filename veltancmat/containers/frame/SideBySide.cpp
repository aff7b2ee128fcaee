#include "veltancmat/containers/frame/SideBySide.h"

#include <omp.h>

#include <atomic>
#include <exception>
#include <mutex>
#include <vector>

namespace NCMultiThreading {

void RunSideBySide(int count, const std::function<void(int index, bool alone)>& task,
                   const std::function<void(int index)>& announce)
{
#ifdef _OPENMP
    const int threads = omp_in_parallel() ? 1 : omp_get_max_threads();
#else
    // Built without OpenMP threads (the ThreadSanitizer build): in order.
    const int threads = 1;
#endif
    if (threads < 2 || count < threads) {
        for (int index = 0; index < count; ++index)
            task(index, true);
        return;
    }
    std::vector<std::exception_ptr> errors(static_cast<std::size_t>(count));
    std::mutex errorsLock;
    std::atomic<bool> failed{false};
    std::atomic<int> next{0};
    const auto fail = [&](int index) {
        const std::lock_guard<std::mutex> hold(errorsLock);
        if (!errors[static_cast<std::size_t>(index)])
            errors[static_cast<std::size_t>(index)] = std::current_exception();
        failed.store(true, std::memory_order_relaxed);
    };
#pragma omp parallel num_threads(threads)
    {
        // Regions a task opens get one thread. The setting is put back at
        // the end: on the calling thread it is not always confined to the
        // region.
        const int outer = omp_get_max_threads();
        omp_set_num_threads(1);
        const bool caller = omp_get_thread_num() == 0;
        int announced = 0;
        const auto announceUpTo = [&](int last) {
            try {
                for (; announced <= last; ++announced)
                    announce(announced);
                return true;
            } catch (...) {
                fail(announced);
                return false;
            }
        };
        while (!failed.load(std::memory_order_relaxed)) {
            const int index = next.fetch_add(1, std::memory_order_relaxed);
            if (index >= count)
                break;
            if (caller && !announceUpTo(index))
                break;
            try {
                task(index, false);
            } catch (...) {
                fail(index);
            }
        }
        if (caller && !failed.load(std::memory_order_relaxed))
            announceUpTo(count - 1);
        omp_set_num_threads(outer);
    }
    for (const std::exception_ptr& error : errors)
        if (error)
            std::rethrow_exception(error);
}

} // namespace NCMultiThreading
