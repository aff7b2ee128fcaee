#pragma once

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCProgress.h"

#include <pybind11/pybind11.h>

#include <utility>

// Running engine code from Python: the GIL is released while the engine
// computes, and Ctrl-C reaches it through its progress object.
namespace veltan_py {

namespace py = pybind11;

// An NCProgress whose observer, called on the computing thread as the
// engine reports, briefly takes the GIL back to run Python's pending signal
// handlers. A handler that raises (SIGINT's KeyboardInterrupt) breaks the
// computation; the exception it raised is kept and re-raised once the
// engine has unwound.
class InterruptibleProgress {
public:
    InterruptibleProgress();
    ~InterruptibleProgress();
    InterruptibleProgress(const InterruptibleProgress&) = delete;
    InterruptibleProgress& operator=(const InterruptibleProgress&) = delete;

    NCProgress& Get() { return m_progress; }
    // With the GIL held, after the engine threw CancelException: raises the
    // exception a signal handler raised, or KeyboardInterrupt with the
    // engine's message when the break came from elsewhere.
    [[noreturn]] void RaiseCancelled(const CancelException& cancel);

private:
    void Poll();

    NCProgress m_progress;
    PyObject* m_type = nullptr;
    PyObject* m_value = nullptr;
    PyObject* m_traceback = nullptr;
};

// Runs compute(progress) without the GIL and turns a cancellation into the
// Python exception that caused it. Other engine exceptions pass on to the
// module's translators.
template <class Compute>
auto RunInterruptible(Compute&& compute)
{
    InterruptibleProgress progress;
    try {
        py::gil_scoped_release release;
        return std::forward<Compute>(compute)(progress.Get());
    } catch (const CancelException& cancel) {
        progress.RaiseCancelled(cancel);
    }
}

// Maps the engine's exceptions to Python's: bad input and numerical
// failures to ValueError, a cancellation to KeyboardInterrupt, an internal
// inconsistency to RuntimeError.
void RegisterExceptionTranslators();

} // namespace veltan_py
