#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <cstddef>
#include <vector>

// Savitzky-Golay smoothing and derivatives of a series (A. Savitzky and
// M. J. E. Golay, Analytical Chemistry 36 (1964) 1627): a polynomial of
// degree p is fitted by least squares to each window of w consecutive points
// and its value, or its d-th derivative, at the window's centre replaces the
// centre point. Also finds the extremum of a quadratic fitted to one window.
//
//   Derivate<float> sg(Derivate<float>::Cubic, 11);
//   NCDataVector<float> smooth = sg.Smooth(y, true);
//   NCDataVector<float> slope = sg.DoDerivate(y, 1, 0.5f, true);
//
// The window is odd and at least p + 1 points: a narrower one is widened to
// p + 1, an even one by one more point. Offsets x within a window run from
// -w/2 to +w/2; coefficient a[k + 1] multiplies x^k.
//
// Missing points (-99) are never used as data. A window holding one is
// refitted on its present points; when fewer than p + 1 are present the
// polynomial is undetermined and the result there is -99. Results that are
// undefined are -99, never exceptions: a series shorter than the window, a
// derivative above the degree (or negative), a zero or non-finite step for a
// derivative of order 1 or more. A computed result of exactly -99 reads as
// missing, as everywhere in the library.
//
// Values are stored in T and every sum is accumulated in double. The object
// is not changed by any computation, so one object may serve several threads
// at once. Long complete series are shared out over the OpenMP threads set
// through NCMultiThreading::ThreadingControl.
template <class T>
class VELTANCMAT_API Derivate {
public:
    // Its value is the polynomial's degree; any degree from 0 may be cast.
    enum PolynomialOrder : int {
        Constant = 0,
        Linear = 1,
        Quadratic = 2,
        Cubic = 3,
        Quartic = 4,
        Quintic = 5,
        Sextic = 6,
    };

    // Throws InvalidArgument for a negative degree or a window too wide
    // for the library's int-indexed vectors.
    Derivate(PolynomialOrder order, std::size_t window);
    Derivate(const Derivate& other);
    Derivate(Derivate&& other) noexcept;
    Derivate& operator=(const Derivate& other);
    Derivate& operator=(Derivate&& other) noexcept;
    ~Derivate();

    PolynomialOrder GetOrder() const { return static_cast<PolynomialOrder>(m_order); }
    // The window after widening: odd and at least order + 1.
    std::size_t GetWindow() const { return static_cast<std::size_t>(m_window); }
    // The fit matrix of a complete window, (order + 1) x window: row k + 1
    // gives the weights of coefficient a[k + 1].
    const NCDataMatrix<T>& GetFitMatrix() const { return m_fit; }

    // DoDerivate(y, 0, 1, edges).
    NCDataVector<T> Smooth(const NCDataVector<T>& y, bool edges) const;
    // The d-th derivative of y for points `step` apart, one value per point
    // of y. The w/2 points at each end have no centred window: with `edges`
    // they come from the polynomial of the first (last) whole window, else
    // they are -99.
    NCDataVector<T> DoDerivate(const NCDataVector<T>& y, int d, T step, bool edges) const;
    // The extremum of the quadratic part of the polynomial fitted to
    // `window` (which must have the object's window length; the degree must
    // be at least 2): returns its position as a 1-based point index of the
    // window times `step`, and in `value` the fitted value at the vertex
    // truncated towards the centre to a whole offset. -99 (both) when the
    // window cannot be fitted, when the curvature has the wrong sign for a
    // minimum (maximum), or, with `inside`, when the vertex lies beyond the
    // window.
    T GetOptima(const NCDataVector<T>& window, T step, bool minimum, bool inside, T& value) const;
    // The fit matrix (X'X)^-1 X' for the present points of `window` (any
    // length): order + 1 rows, one column per present point, mapping their
    // values to the coefficients. An empty matrix when fewer than order + 1
    // points are present or X'X is singular.
    NCDataMatrix<T> CalcXMatrix(const NCDataVector<T>& window) const;

private:
    // Polynomial coefficients in double; empty when the fit is undetermined.
    using Coefficients = std::vector<double>;

    // The coefficients of the window window[0..w-1], refitted on its present
    // points when some are missing.
    Coefficients CalcCoefficients(const T* window) const;
    // The d-th derivative of the polynomial a at offset x; -99 when a is
    // undetermined, 0 when d exceeds its degree.
    double GetDerivative(const Coefficients& a, int d, double x) const;
    double GetYHat(const Coefficients& a, double x) const { return GetDerivative(a, 0, x); }
    // The w/2 results at each end of `out` from the first and last whole
    // windows of y, times `scale`.
    void CalculateEdgeEffect(const NCDataVector<T>& y, int d, double scale, T* out) const;
    // The centred results of the windows that hold a missing point.
    void RefitMissingWindows(const NCDataVector<T>& y, int d, double scale, T* out) const;
    // The same for the centres first..last (0-based) of values[].
    void RefitCentres(const T* values, int first, int last, int d, double scale, T* out) const;
    // Row d + 1 of the fit matrix of a complete window, in double: the
    // weights of coefficient a[d + 1]. The d-th derivative at the centre is
    // d!/step^d times that coefficient.
    const double* Filter(int d) const { return m_filters.data() + static_cast<std::size_t>(d) * m_window; }

    int m_order = 0;
    int m_window = 1;
    NCDataMatrix<T> m_fit;          // fit matrix of a complete window
    std::vector<double> m_filters;  // (order + 1) rows of m_window weights
};

extern template class Derivate<float>;
