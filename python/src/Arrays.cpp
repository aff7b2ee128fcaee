#include "Arrays.h"

#include "veltancmat/containers/frame/MissingValue.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

namespace veltan_py {

namespace {

constexpr float Missing = NCMisVal<float>;

std::string Cell(const char* name, py::ssize_t i, py::ssize_t j, int ndim)
{
    return std::string(name) + "[" + std::to_string(i) + (ndim == 2 ? ", " + std::to_string(j) : "") + "]";
}

// An array of float32 or float64 for the object given: the array itself
// when it already is one, else a single conversion. Refuses what holds no
// numbers with TypeError, before any conversion is tried on it.
py::array Numeric(const py::handle& object, const char* name, int ndim)
{
    py::array array = py::isinstance<py::array>(object)
                          ? py::reinterpret_borrow<py::array>(object)
                          : py::array(py::module_::import("numpy").attr("asarray")(object));
    const py::dtype dtype = array.dtype();
    const char kind = dtype.kind();
    if (kind != 'f' && kind != 'i' && kind != 'u' && kind != 'b')
        throw py::type_error(std::string(name) + " must hold real numbers; got an array of dtype " +
                             py::str(py::handle(dtype)).cast<std::string>());
    if (array.ndim() != ndim)
        throw py::value_error(std::string(name) + " must be a " + std::to_string(ndim) + "-D array" +
                              (ndim == 2 ? " (observations x variables)" : "") + "; got " +
                              std::to_string(array.ndim()) + "-D" +
                              (ndim == 2 && array.ndim() == 1 ? " (use X.reshape(-1, 1) for a single variable)" : ""));
    for (int d = 0; d < ndim; ++d)
        if (array.shape(d) == 0)
            throw py::value_error(std::string(name) + " is empty (shape " +
                                  py::str(py::getattr(array, "shape")).cast<std::string>() + ")");
    constexpr py::ssize_t largest = std::numeric_limits<int>::max();
    if (array.shape(0) > largest || (ndim == 2 && array.shape(1) > largest))
        throw py::value_error(std::string(name) + " is too large for the engine");
    const bool exact = kind == 'f' && (dtype.itemsize() == 4 || dtype.itemsize() == 8);
    if (exact && dtype.attr("isnative").cast<bool>())
        return array;
    return py::array(array.attr("astype")(py::dtype::of<double>()));
}

// Copies n cells read with a byte stride into a 1-based engine row.
template <class Source>
void CopyCells(const char* from, py::ssize_t stride, py::ssize_t n, float* to, const char* name, py::ssize_t row,
               int ndim, bool& missing)
{
    for (py::ssize_t j = 0; j < n; ++j) {
        const Source v = *reinterpret_cast<const Source*>(from + j * stride);
        float cell;
        if (std::isnan(v)) {
            cell = Missing;
            missing = true;
        } else if (v == static_cast<Source>(Missing)) {
            throw py::value_error(Cell(name, ndim == 2 ? row : j, j, ndim) +
                                  " is -99, which the engine reserves for missing values; use NaN for a missing "
                                  "value, or shift or rescale the data");
        } else if (!std::isfinite(v) || std::fabs(v) > std::numeric_limits<float>::max()) {
            char text[32];
            std::snprintf(text, sizeof text, "%g", static_cast<double>(v));
            throw py::value_error(Cell(name, ndim == 2 ? row : j, j, ndim) + " is " + text +
                                  ", outside the range of the engine's single-precision values");
        } else {
            cell = static_cast<float>(v);
        }
        to[j + 1] = cell;
    }
}

template <class Source>
void CopyRows(const py::array& array, std::vector<float*>& rows, const char* name, bool& missing)
{
    const auto* base = static_cast<const char*>(array.data());
    const py::ssize_t n = array.shape(0), k = array.shape(1);
    const py::ssize_t rowStride = array.strides(0), columnStride = array.strides(1);
    for (py::ssize_t i = 0; i < n; ++i)
        CopyCells<Source>(base + i * rowStride, columnStride, k, rows[static_cast<std::size_t>(i + 1)], name, i, 2,
                          missing);
}

} // namespace

NCDataMatrix<float> ToMatrix(const py::handle& object, const char* name)
{
    const py::array array = Numeric(object, name, 2);
    const int n = static_cast<int>(array.shape(0)), k = static_cast<int>(array.shape(1));
    NCDataMatrix<float> m(n, k);
    std::vector<float*> rows = m.GetMatrixAsPointerPointer();
    bool missing = false;
    {
        // The array stays referenced; nothing here touches Python objects.
        py::gil_scoped_release release;
        if (array.itemsize() == 4)
            CopyRows<float>(array, rows, name, missing);
        else
            CopyRows<double>(array, rows, name, missing);
    }
    if (missing)
        m.RecountMissing();
    return m;
}

NCDataVector<float> ToVector(const py::handle& object, const char* name)
{
    const py::array array = Numeric(object, name, 1);
    const int n = static_cast<int>(array.shape(0));
    NCDataVector<float> v(n);
    float* cells = v.GetVectorForWriting();
    bool missing = false;
    const auto* base = static_cast<const char*>(array.data());
    if (array.itemsize() == 4)
        CopyCells<float>(base, array.strides(0), n, cells, name, 0, 1, missing);
    else
        CopyCells<double>(base, array.strides(0), n, cells, name, 0, 1, missing);
    if (missing)
        v.RecountMissing();
    return v;
}

double FromValue(double v) { return IsMisVal(static_cast<float>(v)) ? std::numeric_limits<double>::quiet_NaN() : v; }

py::array_t<double> FromMatrix(const NCDataMatrix<float>& m)
{
    const int n = m.SizeRows(), k = m.SizeColumns();
    py::array_t<double> out({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(k)});
    auto cells = out.mutable_unchecked<2>();
    for (int i = 1; i <= n; ++i) {
        const float* row = m[i].GetVector();
        for (int j = 1; j <= k; ++j)
            cells(i - 1, j - 1) = IsMisVal(row[j]) ? std::numeric_limits<double>::quiet_NaN() : row[j];
    }
    return out;
}

py::array_t<double> FromPrim(const NCDataMatrix<float>& prim, int rows)
{
    const int columns = prim.SizeColumns();
    py::array_t<double> out({static_cast<py::ssize_t>(columns), static_cast<py::ssize_t>(rows)});
    auto cells = out.mutable_unchecked<2>();
    for (int a = 1; a <= rows; ++a) {
        const float* row = prim[a].GetVector();
        for (int i = 1; i <= columns; ++i)
            cells(i - 1, a - 1) = IsMisVal(row[i]) ? std::numeric_limits<double>::quiet_NaN() : row[i];
    }
    return out;
}

py::array_t<double> FromVector(const NCDataVector<float>& v)
{
    py::array_t<double> out(static_cast<py::ssize_t>(v.size()));
    auto cells = out.mutable_unchecked<1>();
    for (int i = 1; i <= v.size(); ++i)
        cells(i - 1) = IsMisVal(v[i]) ? std::numeric_limits<double>::quiet_NaN() : v[i];
    return out;
}

} // namespace veltan_py
