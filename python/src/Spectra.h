#pragma once

#include <pybind11/pybind11.h>

namespace veltan_py {

// autocorrelation, cross_correlation and power_spectrum: the FFT analyses
// of `veltan spectrum`.
void BindSpectra(pybind11::module_& m);

} // namespace veltan_py
