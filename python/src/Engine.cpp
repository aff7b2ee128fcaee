#include "Engine.h"

#include "veltancmat/platform/NCError.h"

#include <chrono>

namespace veltan_py {

InterruptibleProgress::InterruptibleProgress() : m_progress({}, 0.0f, 1.0f, true)
{
    // Signals are polled at most every 50 ms, which keeps the cost of the
    // GIL round trip negligible beside the engine's work.
    m_progress.SetObserver([this](const NCProgressSnapshot&) { Poll(); }, std::chrono::milliseconds{50},
                           std::chrono::milliseconds{0});
}

InterruptibleProgress::~InterruptibleProgress()
{
    if (m_type || m_value || m_traceback) {
        py::gil_scoped_acquire acquire;
        Py_XDECREF(m_type);
        Py_XDECREF(m_value);
        Py_XDECREF(m_traceback);
    }
}

void InterruptibleProgress::Poll()
{
    if (m_progress.IsBreakPressed())
        return;
    py::gil_scoped_acquire acquire;
    if (PyErr_CheckSignals() != 0) {
        PyErr_Fetch(&m_type, &m_value, &m_traceback);
        m_progress.RequestBreak();
    }
}

void InterruptibleProgress::RaiseCancelled(const CancelException& cancel)
{
    if (m_type) {
        PyErr_Restore(std::exchange(m_type, nullptr), std::exchange(m_value, nullptr),
                      std::exchange(m_traceback, nullptr));
        throw py::error_already_set();
    }
    PyErr_SetString(PyExc_KeyboardInterrupt, cancel.what());
    throw py::error_already_set();
}

void RegisterExceptionTranslators()
{
    py::register_exception_translator([](std::exception_ptr pending) {
        if (!pending)
            return;
        try {
            std::rethrow_exception(pending);
        } catch (const CancelException& e) {
            PyErr_SetString(PyExc_KeyboardInterrupt, e.what());
        } catch (const NCInternalError& e) {
            PyErr_SetString(PyExc_RuntimeError, e.what());
        } catch (const NCError& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        } catch (const InvalidArgument& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        } catch (const Exception& e) {
            PyErr_SetString(PyExc_RuntimeError, e.what());
        }
    });
}

} // namespace veltan_py
