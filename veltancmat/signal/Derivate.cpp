#include "veltancmat/signal/Derivate.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/platform/Exception.h"

#include <omp.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

namespace {

// The fit matrix (X'X)^-1 X' for points at the given offsets, in double:
// order + 1 rows, one column per offset. Empty when the offsets cannot
// determine a polynomial of that degree.
//
// The matrices are built on offsets divided by `scale` (half the window),
// so every cell lies in [-1, 1]: the containers read a cell of exactly -99
// as missing, and -99 is the offset of a real point in any window of 199
// points or more. It also keeps X'X well conditioned for wide windows. Row
// k is divided by scale^k afterwards, which gives the matrix for the
// offsets themselves.
NCDataMatrix<double> FitMatrixFor(const std::vector<int>& offsets, int order, double scale)
{
    const int points = static_cast<int>(offsets.size());
    // Fewer distinct points than coefficients leave X'X singular. The
    // inverse would not say so (it replaces a zero pivot by a tiny one and
    // returns a huge matrix), so the count is checked before inverting.
    if (points < order + 1)
        return {};
    NCDataMatrix<double> X(points, order + 1);
    for (int i = 1; i <= points; ++i)
        for (int k = 0; k <= order; ++k)
            X(i, k + 1, std::pow(offsets[static_cast<std::size_t>(i - 1)] / scale, k));
    NCDataMatrix<double> inverse(X);
    inverse.TransformToMprim_mul_M();
    if (!inverse.TransformToInverse())
        return {};
    NCDataMatrix<double> fit = inverse.MultiplyTransposeOther(X);
    for (int k = 1; k < order + 1; ++k)
        fit(k + 1) *= 1.0 / std::pow(scale, k);
    return fit;
}

// Offsets of the present points among values[0..length-1], centred.
template <class T>
std::vector<int> PresentOffsets(const T* values, int length)
{
    std::vector<int> offsets;
    offsets.reserve(static_cast<std::size_t>(length));
    for (int j = 0; j < length; ++j)
        if (!IsMisVal(values[j]))
            offsets.push_back(j - length / 2);
    return offsets;
}

double HalfWidth(int length)
{
    return std::max(1, length / 2);
}

double Factorial(int d)
{
    double f = 1.0;
    for (int k = 2; k <= d; ++k)
        f *= k;
    return f;
}

// out[i] = scale * sum_j h[j] * y[i + j] for i in [0, count): the weights
// run along the outer loop and a block of sums along the inner one, so the
// inner loop is a plain vector multiply-add over contiguous memory.
constexpr std::size_t CorrelationBlock = 512;


template <class T>
VELTAN_SIMD_CLONES void CorrelateBlock(const T* y, std::size_t count, const double* h, int taps, double scale, T* out)
{
    double sums[CorrelationBlock];
    const double first = h[0];
#pragma omp simd
    for (std::size_t i = 0; i < count; ++i)
        sums[i] = first * static_cast<double>(y[i]);
    for (int j = 1; j < taps; ++j) {
        const double weight = h[j];
        const T* shifted = y + j;
#pragma omp simd
        for (std::size_t i = 0; i < count; ++i)
            sums[i] += weight * static_cast<double>(shifted[i]);
    }
#pragma omp simd
    for (std::size_t i = 0; i < count; ++i)
        out[i] = static_cast<T>(sums[i] * scale);
}

template <class T>
void Correlate(const T* y, std::size_t count, const double* h, int taps, double scale, T* out)
{
    const std::size_t blocks = (count + CorrelationBlock - 1) / CorrelationBlock;
    const bool parallel = static_cast<long long>(count) * taps >= 4 * NCParallelWork::MinCells;
#pragma omp parallel for if (parallel) schedule(static)
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t first = b * CorrelationBlock;
        CorrelateBlock(y + first, std::min(CorrelationBlock, count - first), h, taps, scale, out + first);
    }
}

// The d-th derivative weights of every missing-point pattern met in one
// series, so that a pattern repeated along the series is fitted once. A
// pattern is keyed by its missing positions, one bit each: in one word for
// windows up to 64 points, the common case, else in a string.
class PatternFilters {
public:
    PatternFilters(int window, int order, int d) : m_window(window), m_order(order), m_d(d) {}

    // The weights of the window at `values` (zero at its missing points);
    // null when its present points cannot determine the polynomial.
    template <class T>
    const std::vector<double>* For(const T* values)
    {
        const std::vector<double>& weights = m_window <= 64 ? Find(m_narrow, NarrowKey(values), values)
                                                            : Find(m_wide, WideKey(values), values);
        return weights.empty() ? nullptr : &weights;
    }

private:
    template <class T>
    std::vector<double> Fit(const T* values) const
    {
        const std::vector<int> offsets = PresentOffsets(values, m_window);
        const NCDataMatrix<double> fit = FitMatrixFor(offsets, m_order, HalfWidth(m_window));
        std::vector<double> weights;
        if (fit.empty())
            return weights;
        weights.assign(static_cast<std::size_t>(m_window), 0.0);
        for (std::size_t i = 0; i < offsets.size(); ++i)
            weights[static_cast<std::size_t>(offsets[i] + m_window / 2)] = fit[m_d + 1][static_cast<int>(i) + 1];
        return weights;
    }

    template <class T>
    std::uint64_t NarrowKey(const T* values) const
    {
        std::uint64_t key = 0;
        for (int j = 0; j < m_window; ++j)
            key |= static_cast<std::uint64_t>(IsMisVal(values[j])) << j;
        return key;
    }

    template <class T>
    std::string WideKey(const T* values) const
    {
        std::string key(static_cast<std::size_t>((m_window + 7) / 8), '\0');
        for (int j = 0; j < m_window; ++j)
            if (IsMisVal(values[j]))
                key[static_cast<std::size_t>(j / 8)] |= static_cast<char>(1 << (j % 8));
        return key;
    }

    template <class Map, class Key, class T>
    const std::vector<double>& Find(Map& map, Key&& key, const T* values)
    {
        auto found = map.find(key);
        if (found == map.end())
            found = map.emplace(std::forward<Key>(key), Fit(values)).first;
        return found->second;
    }

    int m_window, m_order, m_d;
    std::unordered_map<std::uint64_t, std::vector<double>> m_narrow;
    std::unordered_map<std::string, std::vector<double>> m_wide;
};

} // namespace

template <class T>
Derivate<T>::Derivate(PolynomialOrder order, std::size_t window) : m_order(static_cast<int>(order))
{
    if (m_order < 0)
        throw InvalidArgument("Derivate: the polynomial order must not be negative");
    if (window > static_cast<std::size_t>(INT_MAX - 2))
        throw InvalidArgument("Derivate: the window is too wide");
    int w = static_cast<int>(window);
    // One point wider rather than narrower: the window keeps at least as
    // many points as the caller asked for.
    if (w <= m_order)
        w = m_order + 1;
    if (w % 2 == 0)
        ++w;
    m_window = w;

    const NCDataMatrix<double> fit = FitMatrixFor(PresentOffsets(std::vector<T>(w, T(0)).data(), w), m_order,
                                                  HalfWidth(w));
    m_fit = NCDataMatrix<T>(m_order + 1, w);
    m_filters.resize(static_cast<std::size_t>(m_order + 1) * w);
    for (int k = 0; k <= m_order; ++k)
        for (int j = 0; j < w; ++j) {
            m_fit(k + 1, j + 1, static_cast<T>(fit[k + 1][j + 1]));
            m_filters[static_cast<std::size_t>(k) * w + j] = fit[k + 1][j + 1];
        }
}

template <class T>
Derivate<T>::Derivate(const Derivate& other) = default;
template <class T>
Derivate<T>::Derivate(Derivate&& other) noexcept = default;
template <class T>
Derivate<T>& Derivate<T>::operator=(const Derivate& other) = default;
template <class T>
Derivate<T>& Derivate<T>::operator=(Derivate&& other) noexcept = default;
template <class T>
Derivate<T>::~Derivate() = default;

template <class T>
NCDataMatrix<T> Derivate<T>::CalcXMatrix(const NCDataVector<T>& window) const
{
    const int length = window.Size();
    const NCDataMatrix<double> fit =
        FitMatrixFor(PresentOffsets(window.begin(), length), m_order, HalfWidth(length));
    NCDataMatrix<T> result(fit.SizeRows(), fit.SizeColumns());
    for (int k = 1; k <= fit.SizeRows(); ++k)
        for (int j = 1; j <= fit.SizeColumns(); ++j)
            result(k, j, static_cast<T>(fit[k][j]));
    return result;
}

template <class T>
typename Derivate<T>::Coefficients Derivate<T>::CalcCoefficients(const T* window) const
{
    Coefficients a;
    if (std::none_of(window, window + m_window, [](T v) { return IsMisVal(v); })) {
        a.assign(static_cast<std::size_t>(m_order + 1), 0.0);
        for (int k = 0; k <= m_order; ++k)
            for (int j = 0; j < m_window; ++j)
                a[static_cast<std::size_t>(k)] += Filter(k)[j] * static_cast<double>(window[j]);
        return a;
    }
    const std::vector<int> offsets = PresentOffsets(window, m_window);
    const NCDataMatrix<double> fit = FitMatrixFor(offsets, m_order, HalfWidth(m_window));
    if (fit.empty())
        return a;
    a.assign(static_cast<std::size_t>(m_order + 1), 0.0);
    for (int k = 0; k <= m_order; ++k)
        for (std::size_t i = 0; i < offsets.size(); ++i)
            a[static_cast<std::size_t>(k)] +=
                fit[k + 1][static_cast<int>(i) + 1] * static_cast<double>(window[offsets[i] + m_window / 2]);
    return a;
}

template <class T>
double Derivate<T>::GetDerivative(const Coefficients& a, int d, double x) const
{
    if (a.empty())
        return NCMisVal<double>;
    const int degree = static_cast<int>(a.size()) - 1;
    if (d > degree)
        return 0.0;
    if (x == 0.0)
        return Factorial(d) * a[static_cast<std::size_t>(d)];
    double sum = 0.0;
    for (int k = d; k <= degree; ++k) {
        double falling = 1.0;
        for (int f = k - d + 1; f <= k; ++f)
            falling *= f;
        sum += falling * a[static_cast<std::size_t>(k)] * std::pow(x, k - d);
    }
    return sum;
}

template <class T>
void Derivate<T>::CalculateEdgeEffect(const NCDataVector<T>& y, int d, double scale, T* out) const
{
    const int n = y.Size(), half = m_window / 2;
    const Coefficients first = CalcCoefficients(y.begin());
    const Coefficients last = CalcCoefficients(y.begin() + (n - m_window));
    for (int i = 0; i < half; ++i) {
        const double x = i - half;
        out[i] = first.empty() ? NCMisVal<T> : static_cast<T>(GetDerivative(first, d, x) * scale);
        out[n - 1 - i] = last.empty() ? NCMisVal<T> : static_cast<T>(GetDerivative(last, d, -x) * scale);
    }
}

template <class T>
void Derivate<T>::RefitMissingWindows(const NCDataVector<T>& y, int d, double scale, T* out) const
{
    const int half = m_window / 2, centres = y.Size() - 2 * half;
    // One piece per thread, each with patterns of its own, so the threads
    // share nothing but the series; a pattern costs one small fit per piece.
    const long long work = static_cast<long long>(y.GetNumMisVal()) * m_window * m_window;
    const int pieces = work >= 4 * NCParallelWork::MinCells ? std::max(1, omp_get_max_threads()) : 1;
    const int length = (centres + pieces - 1) / pieces;
#pragma omp parallel for if (pieces > 1) schedule(static) num_threads(pieces)
    for (int p = 0; p < pieces; ++p) {
        const int first = half + p * length;
        RefitCentres(y.begin(), first, std::min(first + length, half + centres) - 1, d, scale, out);
    }
}

template <class T>
void Derivate<T>::RefitCentres(const T* values, int first, int last, int d, double scale, T* out) const
{
    const int half = m_window / 2;
    PatternFilters patterns(m_window, m_order, d);
    // Centres from `next` on have not been refitted yet; a missing point at
    // m spoils the centres m - half .. m + half.
    int next = first;
    for (int m = first - half; m <= last + half; ++m) {
        if (!IsMisVal(values[m]))
            continue;
        const int end = std::min(last, m + half);
        for (int c = std::max(next, m - half); c <= end; ++c) {
            const T* window = values + (c - half);
            const std::vector<double>* h = patterns.For(window);
            if (!h) {
                out[c] = NCMisVal<T>;
                continue;
            }
            double sum = 0.0;
            for (int j = 0; j < m_window; ++j)
                sum += (*h)[static_cast<std::size_t>(j)] * static_cast<double>(PresentOrZero(window[j]));
            out[c] = static_cast<T>(sum * scale);
        }
        next = std::max(next, end + 1);
    }
}

template <class T>
NCDataVector<T> Derivate<T>::Smooth(const NCDataVector<T>& y, bool edges) const
{
    return DoDerivate(y, 0, T(1), edges);
}

template <class T>
NCDataVector<T> Derivate<T>::DoDerivate(const NCDataVector<T>& y, int d, T step, bool edges) const
{
    const int n = y.Size();
    NCDataVector<T> result(n, NCMisVal<T>);
    // A derivative above the degree is not zero but unknown: the fit says
    // nothing about it, so the result stays missing.
    if (n < m_window || d < 0 || d > m_order)
        return result;
    const double stepScale = 1.0 / std::pow(static_cast<double>(step), d);
    if (!std::isfinite(stepScale))
        return result;

    const int half = m_window / 2;
    T* out = result.GetVectorForWriting() + 1;
    Correlate(y.begin(), static_cast<std::size_t>(n - 2 * half), Filter(d), m_window, Factorial(d) * stepScale,
              out + half);
    if (y.HasMissingValues())
        RefitMissingWindows(y, d, Factorial(d) * stepScale, out);
    if (edges)
        CalculateEdgeEffect(y, d, stepScale, out);
    result.RecountMissing();
    return result;
}

template <class T>
T Derivate<T>::GetOptima(const NCDataVector<T>& window, T step, bool minimum, bool inside, T& value) const
{
    value = NCMisVal<T>;
    if (m_order < 2 || window.Size() != m_window)
        return NCMisVal<T>;
    const Coefficients a = CalcCoefficients(window.begin());
    if (a.empty())
        return NCMisVal<T>;
    const double curvature = a[2];
    if (minimum ? !(curvature > 0.0) : !(curvature < 0.0))
        return NCMisVal<T>;
    const double vertex = -a[1] / (2.0 * curvature);
    const int half = m_window / 2;
    if (inside && std::abs(vertex) > half)
        return NCMisVal<T>;
    // The height is read at the grid point next to the vertex on the side of
    // the centre, not at the vertex itself: callers rely on this.
    value = static_cast<T>(GetYHat(a, std::trunc(vertex)));
    return static_cast<T>((vertex + half + 1) * static_cast<double>(step));
}

template class Derivate<float>;
