#pragma once

#include <pybind11/pybind11.h>

namespace veltan_py {

// shapiro, fisher_exact and linkage: the statistics whose SciPy
// counterparts share their conventions.
void BindStatistics(pybind11::module_& m);

} // namespace veltan_py
