#include "veltancmat/containers/frame/ThreadingControl.h"

#include <omp.h>

namespace NCMultiThreading {
namespace {

bool g_threadingOn = false;
int g_processors = 1;

// Runs Reset once when the shared library is loaded.
struct LoadTimeReset {
    LoadTimeReset() { ThreadingControl::Reset(); }
} g_loadTimeReset;

} // namespace

bool ThreadingControl::IsThreadingOn()
{
    return g_threadingOn;
}

void ThreadingControl::SetThreadingIsOn(bool on)
{
    g_threadingOn = on;
    // A processor count below one would be rejected by OpenMP; treat it as one.
    omp_set_num_threads(on && g_processors > 1 ? g_processors : 1);
}

int ThreadingControl::GetNumberOfProcessors()
{
    return g_processors;
}

void ThreadingControl::SetNumberOfProcessors(int n)
{
    g_processors = n;
}

void ThreadingControl::Reset()
{
    omp_set_dynamic(1);
    g_processors = omp_get_num_procs();
    g_threadingOn = g_processors > 1;
    omp_set_num_threads(g_processors > 0 ? g_processors : 1);
}

} // namespace NCMultiThreading
