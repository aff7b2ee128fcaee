#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

// The boundary between NumPy arrays and the engine's float storage. NaN is
// the missing value on the Python side and -99 inside the engine, so a cell
// that is exactly -99 cannot cross: it is refused rather than turned missing.
namespace veltan_py {

namespace py = pybind11;

// A 2-D array of numbers (float32 and float64 are read in place, any
// strides; integers and booleans are converted first) as an N x K matrix.
// Throws ValueError or TypeError naming `name` for anything else: another
// dimension, no rows or columns, strings or objects, a -99 or infinite cell.
NCDataMatrix<float> ToMatrix(const py::handle& array, const char* name);
// The same for a 1-D array.
NCDataVector<float> ToVector(const py::handle& array, const char* name);

// Engine values as float64 arrays, missing cells as NaN.
py::array_t<double> FromMatrix(const NCDataMatrix<float>& m);
// The transpose of the first `rows` rows of a component matrix (components
// in rows, as the engine keeps scores and loadings): a (columns x rows) array.
py::array_t<double> FromPrim(const NCDataMatrix<float>& prim, int rows);
py::array_t<double> FromVector(const NCDataVector<float>& v);
// A float as a Python float, NaN for the missing value.
double FromValue(double v);

} // namespace veltan_py
