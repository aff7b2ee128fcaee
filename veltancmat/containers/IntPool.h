#pragma once

#include "veltancmat/platform/Export.h"

// Single int cells from a process-wide pool, for code that hands out many
// small counters and releases them again. Cells come from 64 KiB blocks
// that stay allocated for the life of the process, so the pool never
// returns memory; both members may be called from any thread.
class VELTANCMAT_API IntPool {
public:
    // A cell holding 0.
    static int* GetInt();
    // Gives a cell from GetInt back; null is ignored. Releasing a cell
    // twice, or one that did not come from GetInt, corrupts the pool.
    static void ReleaseInt(int* cell);

    // Cells currently in the free list (for diagnostics and tests).
    static long long FreeCount();

    IntPool() = delete;
};
