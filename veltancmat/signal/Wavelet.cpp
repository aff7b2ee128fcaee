#include "veltancmat/signal/Wavelet.h"

#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>

// One level of the periodised transform splits N values into N/2 smooth
// and N/2 detail coefficients,
//     s_i = sum_m h[m] x[(2i + m + o) mod N],  d_i = sum_m g[m] x[(2i + m + o) mod N],
// with o = 1 - L/2, which centres the filter's support on 2i and 2i + 1
// and gives PyWavelets' "periodization" coefficients exactly. The fast form
// copies each block of the level into its even and odd halves with the
// periodic wrap already in place, so that the filter loop runs over
// contiguous memory in the first-level cache without a modulo and without
// a stride:
//     s_i = sum_p h[2p] E[i + p] + h[2p + 1] O[i + p],
//     E[j] = x[(2j + o) mod N], O[j] = x[(2j + 1 + o) mod N].
// The inverse is the same in reverse: each output pair (2q, 2q + 1) gathers
// the coefficients q - p, p = 0..L/2 - 1, of both bands. Levels never
// overwrite their own input (the smooths alternate between two buffers), so
// the blocks of a level are independent and run in parallel.

namespace {

using Index = std::ptrdiff_t;

// Outputs per block: the two bands' blocks and the inputs they read stay in
// the first-level cache.
constexpr Index Block = 256;

// A work array that is not zeroed first: every element is written before
// it is read, and clearing megabytes per call would cost as much as the
// filtering.
class Work {
public:
    explicit Work(Index size) : m_data(new double[static_cast<std::size_t>(std::max<Index>(size, 1))]) {}
    double* data() { return m_data.get(); }

private:
    std::unique_ptr<double[]> m_data;
};

// Half the longest filter (Coiflet 5, 30 taps): the blocks' local copies
// hold this many values beyond the block.
constexpr Index MaxHalf = 16;

Index Wrap(Index k, Index n) { return ((k % n) + n) % n; }

// even[j - first] = x[(2j + shift) mod n] and odd[j - first] =
// x[(2j + 1 + shift) mod n] for j in [first, first + count), shift <= 0.
template <class T>
void SplitWrapped(const T* x, Index n, Index shift, Index first, Index count, double* even, double* odd)
{
    // j in [lo, hi) reads both values without a wrap.
    const Index end = first + count;
    const Index lo = std::clamp((1 - shift) / 2, first, end), hi = std::clamp((n - shift) / 2, lo, end);
    for (Index j = first; j < lo; ++j) {
        even[j - first] = static_cast<double>(x[Wrap(2 * j + shift, n)]);
        odd[j - first] = static_cast<double>(x[Wrap(2 * j + 1 + shift, n)]);
    }
    const T* from = x + shift + 2 * first;
    double* e = even - first;
    double* o = odd - first;
#pragma omp simd
    for (Index j = lo; j < hi; ++j) {
        e[j] = static_cast<double>(from[2 * (j - first)]);
        o[j] = static_cast<double>(from[2 * (j - first) + 1]);
    }
    for (Index j = hi; j < end; ++j) {
        even[j - first] = static_cast<double>(x[Wrap(2 * j + shift, n)]);
        odd[j - first] = static_cast<double>(x[Wrap(2 * j + 1 + shift, n)]);
    }
}

// ext[u - first] = x[(u + shift) mod n] for u in [first, first + count),
// shift <= 0: the wrapped start by modulo, the rest by a plain copy.
void FillWrapped(const double* x, Index n, Index shift, Index first, Index count, double* ext)
{
    const Index end = first + count;
    const Index lo = std::clamp(-shift, first, end), hi = std::clamp(n - shift, lo, end);
    for (Index u = first; u < lo; ++u)
        ext[u - first] = x[Wrap(u + shift, n)];
    std::copy(x + lo + shift, x + hi + shift, ext + (lo - first));
    for (Index u = hi; u < end; ++u)
        ext[u - first] = x[Wrap(u + shift, n)];
}

// One block of analysis outputs: s[i], d[i] for i in [0, count).
VELTAN_SIMD_CLONES void AnalysisBlock(const double* even, const double* odd, Index count, const double* h,
                                      const double* g, int half, double* s, double* d)
{
    {
        const double h0 = h[0], h1 = h[1], g0 = g[0], g1 = g[1];
#pragma omp simd
        for (Index i = 0; i < count; ++i) {
            s[i] = h0 * even[i] + h1 * odd[i];
            d[i] = g0 * even[i] + g1 * odd[i];
        }
    }
    for (int p = 1; p < half; ++p) {
        const double he = h[2 * p], ho = h[2 * p + 1], ge = g[2 * p], go = g[2 * p + 1];
        const double* e = even + p;
        const double* o = odd + p;
#pragma omp simd
        for (Index i = 0; i < count; ++i) {
            s[i] += he * e[i] + ho * o[i];
            d[i] += ge * e[i] + go * o[i];
        }
    }
}

// One block of synthesis outputs: the pairs y[2q], y[2q + 1] for q in
// [0, count), from the wrapped bands (position q + half - 1 - p holds
// coefficient q - p).
VELTAN_SIMD_CLONES void SynthesisBlock(const double* s, const double* d, Index count, const double* h,
                                       const double* g, int half, double* even, double* odd)
{
    {
        const int r = half - 1;
        const double he = h[0], ho = h[1], ge = g[0], go = g[1];
#pragma omp simd
        for (Index q = 0; q < count; ++q) {
            even[q] = he * s[q + r] + ge * d[q + r];
            odd[q] = ho * s[q + r] + go * d[q + r];
        }
    }
    for (int p = 1; p < half; ++p) {
        const int r = half - 1 - p;
        const double he = h[2 * p], ho = h[2 * p + 1], ge = g[2 * p], go = g[2 * p + 1];
#pragma omp simd
        for (Index q = 0; q < count; ++q) {
            even[q] += he * s[q + r] + ge * d[q + r];
            odd[q] += ho * s[q + r] + go * d[q + r];
        }
    }
}

bool Parallel(Index outputs, int taps)
{
    return outputs * taps >= 8 * static_cast<Index>(NCParallelWork::MinCells);
}

// The filters of one direction, even length.
struct Bank {
    std::vector<double> low, high;
    int half = 1;
};

int HalfLength(const WaveletFilters& f)
{
    // The blocks' local copies are sized for the longest filter.
    if (f.GetLength() > 2 * MaxHalf)
        throw NCInternalError("Wavelet", ExceptionMessage::translate("The wavelet filter is too long."));
    return f.GetLength() / 2;
}

Bank AnalysisBank(const WaveletFilters& f)
{
    return {f.AnalysisLowpass(), f.AnalysisHighpass(), HalfLength(f)};
}

Bank SynthesisBank(const WaveletFilters& f)
{
    return {f.SynthesisLowpass(), f.SynthesisHighpass(), HalfLength(f)};
}

// x[0..n-1] (n even) into s[0..n/2) and d[0..n/2), which must not
// overlap x.
template <class T>
void AnalysisLevel(const T* x, Index n, const Bank& bank, double* s, double* d)
{
    const Index m = n / 2, half = bank.half, blocks = (m + Block - 1) / Block;
#pragma omp parallel for if (Parallel(m, 2 * bank.half)) schedule(static)
    for (Index b = 0; b < blocks; ++b) {
        alignas(64) double even[Block + MaxHalf], odd[Block + MaxHalf];
        const Index first = b * Block, count = std::min(Block, m - first);
        SplitWrapped(x, n, 1 - half, first, count + half - 1, even, odd);
        AnalysisBlock(even, odd, count, bank.low.data(), bank.high.data(), bank.half, s + first, d + first);
    }
}

// s[0..m) and d[0..m) into x[0..2m), which must not overlap them.
void SynthesisLevel(const double* s, const double* d, Index m, const Bank& bank, double* x)
{
    const Index half = bank.half, n = 2 * m, shift = 1 - half, blocks = (m + Block - 1) / Block;
#pragma omp parallel for if (Parallel(m, 2 * bank.half)) schedule(static)
    for (Index b = 0; b < blocks; ++b) {
        alignas(64) double sBand[Block + MaxHalf], dBand[Block + MaxHalf], even[Block], odd[Block];
        const Index first = b * Block, count = std::min(Block, m - first);
        // Position u of a band holds coefficient u - (L/2 - 1).
        FillWrapped(s, m, shift, first, count + half - 1, sBand);
        FillWrapped(d, m, shift, first, count + half - 1, dBand);
        SynthesisBlock(sBand, dBand, count, bank.low.data(), bank.high.data(), bank.half, even, odd);
        // Pair q lands on x[(2q + o) mod n] and x[(2q + 1 + o) mod n] with
        // o = 1 - L/2: only the first L/4 pairs wrap.
        const Index lo = std::clamp(half / 2, first, first + count);
        for (Index q = first; q < lo; ++q) {
            x[Wrap(2 * q + shift, n)] = even[q - first];
            x[Wrap(2 * q + 1 + shift, n)] = odd[q - first];
        }
        double* to = x + shift + 2 * first;
#pragma omp simd
        for (Index q = lo - first; q < count; ++q) {
            to[2 * q] = even[q];
            to[2 * q + 1] = odd[q];
        }
    }
}

[[noreturn]] void Refuse(const char* text, std::initializer_list<int> arguments = {})
{
    ExceptionMessage message = ExceptionMessage::translate(text);
    for (int a : arguments)
        message % std::to_string(a);
    throw NCError(message, NCError::Error);
}

[[noreturn]] void RefuseLength(int n)
{
    Refuse("A wavelet transform needs a power of two of values (2, 4, 8, ...), not {1}.", {n});
}

[[noreturn]] void RefuseLevels(int n, int most, int levels)
{
    Refuse("A series of {1} values has wavelet levels 1 to {2}, not {3}.", {n, most, levels});
}

double SquaredSum(const double* v, Index count)
{
    double sum = 0.0;
#pragma omp simd reduction(+ : sum)
    for (Index i = 0; i < count; ++i)
        sum += v[i] * v[i];
    return sum;
}

// Sums of squares of the packed coefficients c[0..n) by band: levels
// 1..levels, then the smooth.
std::vector<double> BandSums(const double* c, Index n, int levels)
{
    std::vector<double> sums(static_cast<std::size_t>(levels + 1));
    for (int level = 1; level <= levels; ++level)
        sums[static_cast<std::size_t>(level - 1)] = SquaredSum(c + (n >> level), n >> level);
    sums.back() = SquaredSum(c, n >> levels);
    return sums;
}

double Median(std::vector<double> v)
{
    const std::size_t k = v.size();
    std::nth_element(v.begin(), v.begin() + static_cast<Index>(k / 2), v.end());
    const double upper = v[k / 2];
    if (k % 2 == 1)
        return upper;
    return 0.5 * (upper + *std::max_element(v.begin(), v.begin() + static_cast<Index>(k / 2)));
}

// The universal threshold of packed coefficients c[0..n).
double Universal(const double* c, Index n)
{
    std::vector<double> finest(c + n / 2, c + n);
    for (double& v : finest)
        v = std::abs(v);
    const double sigma = Median(std::move(finest)) / 0.6745;
    return sigma * std::sqrt(2.0 * std::log(static_cast<double>(n)));
}

void Threshold(double* c, Index n, int levels, double lambda, Wavelet::ThresholdMode mode)
{
    const Index first = n >> levels;
    if (mode == Wavelet::SoftThreshold) {
#pragma omp simd
        for (Index i = first; i < n; ++i) {
            const double shrunk = std::max(std::abs(c[i]) - lambda, 0.0);
            c[i] = std::copysign(shrunk, c[i]);
        }
    } else {
#pragma omp simd
        for (Index i = first; i < n; ++i)
            c[i] = std::abs(c[i]) > lambda ? c[i] : 0.0;
    }
}

NCDataVector<float> ToVector(const std::vector<double>& v)
{
    NCDataVector<float> out(static_cast<int>(v.size()));
    float* o = out.GetVectorForWriting() + 1;
    for (std::size_t i = 0; i < v.size(); ++i)
        o[i] = static_cast<float>(v[i]);
    out.RecountMissing();
    return out;
}

} // namespace

Wavelet::Wavelet(const WaveletFilters& filters, int levels, FFT::DetrendMode detrend)
    : m_filters(filters), m_levels(levels), m_detrend(detrend)
{
    if (levels < 1)
        Refuse("A wavelet transform has at least 1 level, not {1}.", {levels});
}

int Wavelet::LevelsOfLength(int n)
{
    if (n <= 0 || (n & (n - 1)) != 0)
        return -1;
    int k = 0;
    while ((1 << k) < n)
        ++k;
    return k;
}

int Wavelet::CheckedLength(int n) const
{
    const int k = LevelsOfLength(n);
    // A single value has no level at all: it is refused as a length.
    if (k < 1)
        RefuseLength(n);
    if (m_levels > k)
        RefuseLevels(n, k, m_levels);
    return n;
}

template <class T>
std::vector<double> Wavelet::ForwardPacked(const T* x, int n) const
{
    const Bank bank = AnalysisBank(m_filters);
    std::vector<double> c(static_cast<std::size_t>(n));
    // The smooths of levels 1, 3, 5, ... go to `odd`, those of 2, 4, ... to
    // `even`, each read by the next level; the details go to their place.
    Work odd(n / 2), even(n / 4);
    const double* input = nullptr;
    for (int level = 1; level <= m_levels; ++level) {
        const Index length = static_cast<Index>(n) >> (level - 1);
        double* smooth = level == m_levels ? c.data() : level % 2 == 1 ? odd.data() : even.data();
        if (level == 1)
            AnalysisLevel(x, length, bank, smooth, c.data() + length / 2);
        else
            AnalysisLevel(input, length, bank, smooth, c.data() + length / 2);
        input = smooth;
    }
    return c;
}

std::vector<double> Wavelet::InversePacked(const std::vector<double>& c) const
{
    const Bank bank = SynthesisBank(m_filters);
    const Index n = static_cast<Index>(c.size());
    std::vector<double> x(static_cast<std::size_t>(n));
    // The smooth rebuilt for level j - 1 goes to `odd` for odd j - 1, to
    // `even` for even j - 1, and to x at the end.
    Work odd(n / 2), even(n / 4);
    const double* smooth = c.data();
    for (int level = m_levels; level >= 1; --level) {
        const Index m = n >> level;
        double* out = level == 1 ? x.data() : (level - 1) % 2 == 1 ? odd.data() : even.data();
        SynthesisLevel(smooth, c.data() + m, m, bank, out);
        smooth = out;
    }
    return x;
}

NCDataVector<float> Wavelet::Forward(const NCDataVector<float>& x) const
{
    const int n = CheckedLength(x.Size());
    return ToVector(ForwardPacked(x.begin(), n));
}

NCDataVector<float> Wavelet::Inverse(const NCDataVector<float>& coefficients) const
{
    const int n = CheckedLength(coefficients.Size());
    const std::vector<double> c(coefficients.begin(), coefficients.begin() + n);
    return ToVector(InversePacked(c));
}

NCDataVector<float> Wavelet::Prepare(const NCDataVector<float>& x, double& intercept, double& slope) const
{
    CheckedLength(x.Size());
    if (!x.HasValidValues())
        Refuse("The series of the wavelet transform has no present value.");
    return FFT::PreparedSeries(x, m_detrend, intercept, slope);
}

std::vector<double> Wavelet::PreparedValues(const NCDataVector<float>& x, double& intercept, double& slope) const
{
    const NCDataVector<float> v = Prepare(x, intercept, slope);
    return std::vector<double>(v.begin(), v.end());
}

NCDataVector<float> Wavelet::Transform(const NCDataVector<float>& x) const
{
    double intercept = 0.0, slope = 0.0;
    const NCDataVector<float> v = Prepare(x, intercept, slope);
    return ToVector(ForwardPacked(v.begin(), v.Size()));
}

std::vector<double> Wavelet::LevelSumsOfSquares(const NCDataVector<float>& coefficients) const
{
    const int n = CheckedLength(coefficients.Size());
    const std::vector<double> c(coefficients.begin(), coefficients.end());
    return BandSums(c.data(), n, m_levels);
}

NCDataVector<float> Wavelet::Energy(const NCDataVector<float>& x) const
{
    double intercept = 0.0, slope = 0.0;
    const NCDataVector<float> v = Prepare(x, intercept, slope);
    const int n = v.Size();
    std::vector<double> shares = BandSums(ForwardPacked(v.begin(), n).data(), n, m_levels);
    double total = 0.0;
    for (double s : shares)
        total += s;
    for (double& s : shares)
        s = total > 0.0 ? s / total : 0.0;
    return ToVector(shares);
}

NCDataMatrix<float> Wavelet::Multiresolution(const NCDataVector<float>& x) const
{
    double intercept = 0.0, slope = 0.0;
    const std::vector<double> v = PreparedValues(x, intercept, slope);
    const int n = static_cast<int>(v.size());
    const std::vector<double> c = ForwardPacked(v.data(), n);
    NCDataMatrix<float> parts(m_levels + 1, n);
    std::vector<double> part(static_cast<std::size_t>(n));
    for (int row = 1; row <= m_levels + 1; ++row) {
        // The band of this row kept, every other set to 0.
        const bool smooth = row == m_levels + 1;
        const Index first = smooth ? 0 : n >> row;
        const Index count = smooth ? n >> m_levels : n >> row;
        std::fill(part.begin(), part.end(), 0.0);
        std::copy(c.begin() + first, c.begin() + first + count, part.begin() + first);
        std::vector<double> series = InversePacked(part);
        if (smooth)
            for (int i = 0; i < n; ++i)
                series[static_cast<std::size_t>(i)] += intercept + slope * (i + 1);
        parts.SetRow(row, ToVector(series));
    }
    return parts;
}

double Wavelet::UniversalThreshold(const NCDataVector<float>& coefficients)
{
    const int n = coefficients.Size();
    if (LevelsOfLength(n) < 1)
        RefuseLength(n);
    const std::vector<double> c(coefficients.begin(), coefficients.end());
    return Universal(c.data(), n);
}

void Wavelet::ApplyThreshold(NCDataVector<float>& coefficients, int levels, double threshold, ThresholdMode mode)
{
    const int n = coefficients.Size();
    const int k = LevelsOfLength(n);
    if (k < 1)
        RefuseLength(n);
    if (levels < 1 || levels > k)
        RefuseLevels(n, k, levels);
    std::vector<double> c(coefficients.begin(), coefficients.end());
    Threshold(c.data(), n, levels, threshold, mode);
    coefficients = ToVector(c);
}

NCDataVector<float> Wavelet::Denoise(const NCDataVector<float>& x, ThresholdMode mode, double* threshold) const
{
    double intercept = 0.0, slope = 0.0;
    const std::vector<double> v = PreparedValues(x, intercept, slope);
    const int n = static_cast<int>(v.size());
    std::vector<double> c = ForwardPacked(v.data(), n);
    const double lambda = Universal(c.data(), n);
    Threshold(c.data(), n, m_levels, lambda, mode);
    std::vector<double> series = InversePacked(c);
    for (int i = 0; i < n; ++i)
        series[static_cast<std::size_t>(i)] += intercept + slope * (i + 1);
    if (threshold)
        *threshold = lambda;
    return ToVector(series);
}
