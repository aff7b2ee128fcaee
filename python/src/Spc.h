#pragma once

#include <pybind11/pybind11.h>

namespace veltan_py {

// control_chart, capability and histogram: statistical process control of
// one series, with the choices `veltan chart` and `veltan capability` make.
void BindSpc(pybind11::module_& m);

} // namespace veltan_py
