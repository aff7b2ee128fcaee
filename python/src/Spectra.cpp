#include "Spectra.h"

#include "Arrays.h"

#include "veltancmat/signal/FFT.h"

#include <map>
#include <string>

namespace veltan_py {

namespace {

// The option values of `veltan spectrum`.
const std::map<std::string, FFT::DetrendMode> DetrendNames{
    {"none", FFT::DetrendNone}, {"mean", FFT::DetrendMean}, {"linear", FFT::DetrendLinear}};
const std::map<std::string, FFT::DataWindowMode> WindowNames{
    {"rect", FFT::Rectangular}, {"hann", FFT::Hann}, {"triangle", FFT::Triangular}, {"parabolic", FFT::Parabolic}};
const std::map<std::string, FFT::ScalingMode> ScalingNames{{"density", FFT::DensityScaling},
                                                           {"spectrum", FFT::SpectrumScaling}};

template <class Value>
Value Named(const std::map<std::string, Value>& names, const std::string& given, const char* parameter)
{
    const auto found = names.find(given);
    if (found != names.end())
        return found->second;
    std::string choices;
    for (const auto& [name, value] : names)
        choices += (choices.empty() ? "\"" : ", \"") + name + "\"";
    throw py::value_error(std::string(parameter) + "=\"" + given + "\": must be one of " + choices);
}

// A series the transforms can take: the library interpolates missing
// values, but a series without any has nothing to interpolate from.
NCDataVector<float> Series(const py::handle& x, const char* name)
{
    NCDataVector<float> v = ToVector(x, name);
    if (v.GetNumValidValues() == 0)
        throw py::value_error(std::string(name) + ": every value is missing");
    return v;
}

void CheckLag(int maxLag, int n)
{
    if (maxLag < 0 || maxLag > n)
        throw py::value_error("max_lag=" + std::to_string(maxLag) + ": must be 0 to the series' length (" +
                              std::to_string(n) + ")");
}

// The library leaves its output untouched for arguments it cannot take;
// the checks above should have caught every such case.
py::array_t<double> Written(const NCDataVector<float>& out, int expected)
{
    if (out.Size() != expected)
        throw py::value_error("the series cannot be transformed (too long for the engine?)");
    return FromVector(out);
}

py::array_t<double> AutoCorrelation(const py::handle& x, int maxLag, const std::string& detrend)
{
    const FFT::DetrendMode mode = Named(DetrendNames, detrend, "detrend");
    const NCDataVector<float> v = Series(x, "x");
    CheckLag(maxLag, v.Size());
    NCDataVector<float> out;
    {
        py::gil_scoped_release release;
        FFT::AutoCorrelation(&v, mode, maxLag, &out);
    }
    return Written(out, maxLag + 1);
}

py::array_t<double> CrossCorrelation(const py::handle& x, const py::handle& y, int maxLag, const std::string& detrend)
{
    const FFT::DetrendMode mode = Named(DetrendNames, detrend, "detrend");
    const NCDataVector<float> a = Series(x, "x");
    const NCDataVector<float> b = Series(y, "y");
    if (a.Size() != b.Size())
        throw py::value_error("x has " + std::to_string(a.Size()) + " values and y " + std::to_string(b.Size()) +
                              "; they must match");
    CheckLag(maxLag, a.Size());
    NCDataVector<float> out;
    {
        py::gil_scoped_release release;
        FFT::CrossCorrelation(&a, &b, mode, maxLag, &out);
    }
    return Written(out, 2 * maxLag + 1);
}

py::tuple PowerSpectrum(const py::handle& x, int m, bool overlap, const std::string& window, const std::string& detrend,
                        const std::string& scaling)
{
    const FFT::DataWindowMode w = Named(WindowNames, window, "window");
    const FFT::DetrendMode mode = Named(DetrendNames, detrend, "detrend");
    const FFT::ScalingMode scale = Named(ScalingNames, scaling, "scaling");
    if (m < 2 || (m & (m - 1)) != 0)
        throw py::value_error("nperseg=" + std::to_string(m) +
                              ": the segment length must be a power of two, 2 or more");
    const NCDataVector<float> v = Series(x, "x");
    // A segment much longer than the series would be mostly padding: it
    // may reach the series' length rounded up to a power of two.
    long long longest = 2;
    while (longest < v.Size())
        longest *= 2;
    if (m > longest)
        throw py::value_error("nperseg=" + std::to_string(m) + ": x has " + std::to_string(v.Size()) +
                              " values; a segment holds at most " + std::to_string(longest));
    if (overlap && v.Size() <= m / 2)
        throw py::value_error("nperseg=" + std::to_string(m) + " with overlap: x has " + std::to_string(v.Size()) +
                              " values; overlapping segments need more than " + std::to_string(m / 2));
    NCDataVector<float> out;
    {
        py::gil_scoped_release release;
        FFT::PowerSpectrum(&v, m, overlap, mode, scale, w, &out);
    }
    py::array_t<double> frequencies(static_cast<py::ssize_t>(m / 2 + 1));
    auto f = frequencies.mutable_unchecked<1>();
    for (int k = 0; k <= m / 2; ++k)
        f(k) = static_cast<double>(k) / m;
    return py::make_tuple(frequencies, Written(out, m / 2 + 1));
}

} // namespace

void BindSpectra(py::module_& m)
{
    m.def("autocorrelation", &AutoCorrelation, py::arg("x"), py::arg("max_lag"), py::arg("detrend") = "mean",
          "Autocorrelation of a 1-D series at lags 0..max_lag, lag 0 being 1. NaN values are interpolated "
          "linearly; detrend: 'mean', 'linear' or 'none'.");
    m.def("cross_correlation", &CrossCorrelation, py::arg("x"), py::arg("y"), py::arg("max_lag"),
          py::arg("detrend") = "mean",
          "Cross-correlation sum_i x_i y_(i+k) / (|x| |y|) of two series of one length at lags -max_lag..max_lag: "
          "a peak at k > 0 means that y follows x by k places.");
    m.def("power_spectrum", &PowerSpectrum, py::arg("x"), py::arg("nperseg"), py::arg("overlap") = false,
          py::arg("window") = "hann", py::arg("detrend") = "mean", py::arg("scaling") = "density",
          "Segment-averaged (Welch) power spectrum of a 1-D series: (frequencies, power) at k / nperseg cycles "
          "per sample, k = 0..nperseg/2. nperseg is a power of two; overlap makes the segments overlap by half.");
}

} // namespace veltan_py
