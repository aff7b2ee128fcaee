#pragma once

#include "veltancmat/platform/Export.h"

namespace NCMultiThreading {

// Process-wide switch for the OpenMP loops of the library. It holds no lock:
// the host sets it before computations start.
class VELTANCMAT_API ThreadingControl {
public:
    static bool IsThreadingOn();
    // Stores the flag and sets the OpenMP thread count to the stored
    // processor count when on, else to 1.
    static void SetThreadingIsOn(bool on);
    static int GetNumberOfProcessors();
    // Takes effect at the next SetThreadingIsOn or Reset.
    static void SetNumberOfProcessors(int n);
    // Dynamic adjustment on, the processor count from OpenMP, threading on
    // when there is more than one processor. Also runs when the library loads.
    static void Reset();

    ThreadingControl() = default;
    ThreadingControl(const ThreadingControl&) = default;
    ThreadingControl& operator=(const ThreadingControl&) { return *this; }
    ThreadingControl& operator=(ThreadingControl&&) { return *this; }
};

} // namespace NCMultiThreading
