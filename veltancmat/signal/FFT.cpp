#include "veltancmat/signal/FFT.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/signal/FFTKernel.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

// The power spectrum is the segment-averaged periodogram of Welch (IEEE
// Trans. Audio Electroacoust. 15, 1967, 70-73), with segments handled in
// pairs as one complex transform (Press et al., Numerical Recipes, 13.4).
// Its bins equal scipy.signal.welch(x, fs=1, window=w, nperseg=m,
// noverlap=m/2 or 0, detrend=False, scaling="density" or "spectrum") on
// the prepared and padded series, where w is the periodic window of the
// same kind (scipy's default, fftbins=True, for "hann").

namespace {

using Complex = std::complex<float>;

constexpr double TwoPi = 6.283185307179586;

bool IsPowerOfTwo(int m) { return m > 0 && (m & (m - 1)) == 0; }

int NextPowerOfTwo(int n)
{
    int p = 1;
    while (p < n)
        p *= 2;
    return p;
}

[[noreturn]] void SpectrumFailure()
{
    throw NCError(ExceptionMessage::translate("Power spectrum could not be computed."), NCError::Error);
}

// The longest series taken: its transforms (up to twice its length) must
// stay within an int.
constexpr int MaxLength = 1 << 29;

// A usable series: present, not empty, not too long and not all missing.
bool Usable(const NCDataVector<float>* x)
{
    return x && x->Size() > 0 && x->Size() <= MaxLength && x->HasValidValues();
}

} // namespace

// ---------------------------------------------------------------------------
// Preparation of a series

void FFT::DetrendVector(NCDataVector<float>* v, DetrendMode mode, double& intercept, double& slope)
{
    intercept = slope = 0.0;
    if (!v)
        return;
    if (mode == DetrendMean)
        v->DetrendMean(intercept);
    else if (mode == DetrendLinear)
        v->DetrendLinear(intercept, slope);
}

void FFT::DetrendVecMeanStd(NCDataVector<float>* v)
{
    if (!v || v->Size() == 0)
        return;
    // Every element counts here, also one that landed on -99 after the
    // series was prepared: the correlation sees numbers, not markers.
    const int n = v->Size();
    float* d = v->GetVectorForWriting();
    double sum = 0.0;
    for (int i = 1; i <= n; ++i)
        sum += d[i];
    const float mean = static_cast<float>(sum / n);
    double ss = 0.0;
    for (int i = 1; i <= n; ++i) {
        d[i] -= mean;
        ss += static_cast<double>(d[i]) * d[i];
    }
    const double root = std::sqrt(ss);
    if (root > 0.0) {
        const float scale = static_cast<float>(1.0 / root);
        for (int i = 1; i <= n; ++i)
            d[i] *= scale;
    }
    v->RecountMissing();
}

void FFT::PadVectorZeros(NCDataVector<float>* v, int length)
{
    if (v && length > v->Size())
        v->Resize(length, 0.0f);
}

void FFT::PadVectorLinearly(NCDataVector<float>* v, int length)
{
    if (!v || v->Size() == 0 || length <= v->Size())
        return;
    const int n = v->Size();
    // A single value has no step: it is repeated.
    const double step = n > 1 ? (static_cast<double>((*v)[n]) - (*v)[1]) / (n - 1) : 0.0;
    const double last = (*v)[n];
    v->Resize(length, 0.0f);
    float* d = v->GetVectorForWriting();
    // The first appended value is already one step away from the last, so
    // the padding never repeats the series' end.
    for (int i = n + 1; i <= length; ++i)
        d[i] = static_cast<float>(last - (i - n) * step);
    v->RecountMissing();
}

void FFT::ReorderFromVec(const float* in, float* out, int fftLength, int count)
{
    if (!in || !out || count < 0 || count >= fftLength)
        return;
    for (int k = 1; k <= count; ++k)
        out[count - k] = in[fftLength - k];
    for (int k = 0; k <= count; ++k)
        out[count + k] = in[k];
}

NCDataVector<float> FFT::PreparedSeries(const NCDataVector<float>& x, DetrendMode mode, double& intercept,
                                         double& slope)
{
    NCDataVector<float> v;
    v.CopyContent(x);
    v.InterpolateMisVals(nullptr);
    DetrendVector(&v, mode, intercept, slope);
    return v;
}

NCDataVector<float> FFT::Prepared(const NCDataVector<float>& x, DetrendMode mode)
{
    double intercept = 0.0, slope = 0.0;
    return PreparedSeries(x, mode, intercept, slope);
}

NCDataVector<float> FFT::Normalised(const NCDataVector<float>& x, DetrendMode mode, int length)
{
    NCDataVector<float> v = Prepared(x, mode);
    PadVectorZeros(&v, length);
    DetrendVecMeanStd(&v);
    return v;
}

// ---------------------------------------------------------------------------
// Correlations

void FFT::AutoCorrelation(const NCDataVector<float>* x, DetrendMode mode, int maxLag, NCDataVector<float>* out)
{
    if (!Usable(x) || !out || maxLag < 0 || maxLag > x->Size())
        return;
    const int length = NextPowerOfTwo(x->Size() + maxLag);
    const NCDataVector<float> v = Normalised(*x, mode, length);
    std::vector<float> r(static_cast<std::size_t>(length));
    if (length == 1) {
        r[0] = v[1] * v[1];
    } else {
        // Zero padding to at least n + maxLag keeps the circular correlation
        // of the transform equal to the ordinary one over the lags asked for.
        fft_kernel::RealTransform transform(length);
        const int half = length / 2;
        std::vector<Complex> spectrum(static_cast<std::size_t>(half + 1));
        transform.Forward(v.begin(), spectrum.data());
        // The power |X_k|^2 is real and even in k, so its inverse transform
        // is its forward transform divided by the length: the one plan
        // serves both ways.
        for (int k = 0; k <= half; ++k)
            r[static_cast<std::size_t>(k)] = std::norm(spectrum[static_cast<std::size_t>(k)]);
        for (int k = 1; k < half; ++k)
            r[static_cast<std::size_t>(length - k)] = r[static_cast<std::size_t>(k)];
        transform.Forward(r.data(), spectrum.data());
        const float scale = 1.0f / static_cast<float>(length);
        for (int k = 0; k <= maxLag; ++k)
            r[static_cast<std::size_t>(k)] = spectrum[static_cast<std::size_t>(k)].real() * scale;
    }
    out->SetSize(maxLag + 1);
    out->SetRange(1, r.data(), maxLag + 1);
}

void FFT::CrossCorrelation(const NCDataVector<float>* x, const NCDataVector<float>* y, DetrendMode mode,
                           int maxLag, NCDataVector<float>* out)
{
    if (!Usable(x) || !Usable(y) || !out || x->Size() != y->Size() || maxLag < 0 || maxLag > x->Size())
        return;
    const int length = NextPowerOfTwo(x->Size() + maxLag);
    const NCDataVector<float> a = Normalised(*x, mode, length);
    const NCDataVector<float> b = Normalised(*y, mode, length);
    std::vector<float> c(static_cast<std::size_t>(length));
    if (length == 1)
        c[0] = a[1] * b[1];
    else
        CorrelateByTransform(a.begin(), b.begin(), length, c.data());
    std::vector<float> ordered(static_cast<std::size_t>(2 * maxLag + 1));
    ReorderFromVec(c.data(), ordered.data(), length, maxLag);
    out->SetSize(2 * maxLag + 1);
    out->SetRange(1, ordered.data(), 2 * maxLag + 1);
}

void FFT::CorrelateByTransform(const float* a, const float* b, int length, float* c)
{
    // Packing a + ib into one complex transform costs what two real
    // transforms cost, and its inverse would need a complex transform of
    // the full length; three real transforms through one plan are faster
    // (docs/spectra.md).
    fft_kernel::RealTransform transform(length);
    const int half = length / 2;
    std::vector<Complex> fa(static_cast<std::size_t>(half + 1)), fb(fa.size());
    transform.Forward(a, fa.data());
    transform.Forward(b, fb.data());
    // The spectrum C_k = conj(A_k) B_k of the correlation is Hermitian; its
    // inverse transform follows from the forward transform X of the real
    // series Re C + Im C (Hartley's identity): c_k = (Re X_k + Im X_k) / L.
    std::vector<float> w(static_cast<std::size_t>(length));
    for (int k = 0; k <= half; ++k) {
        const Complex ck = std::conj(fa[static_cast<std::size_t>(k)]) * fb[static_cast<std::size_t>(k)];
        w[static_cast<std::size_t>(k)] = ck.real() + ck.imag();
        if (k > 0 && k < half)
            w[static_cast<std::size_t>(length - k)] = ck.real() - ck.imag();
    }
    transform.Forward(w.data(), fa.data());
    const float scale = 1.0f / static_cast<float>(length);
    for (int k = 0; k <= half; ++k) {
        const Complex xk = fa[static_cast<std::size_t>(k)];
        c[k] = (xk.real() + xk.imag()) * scale;
        if (k > 0 && k < half)
            c[length - k] = (xk.real() - xk.imag()) * scale;
    }
}

// ---------------------------------------------------------------------------
// Power spectrum

void FFT::SegmentLayout(int n, int m, bool overlap, int& pairs, int& paddedLength)
{
    const int half = m / 2;
    if (overlap) {
        pairs = (n + half - 1) / half / 2;
        paddedLength = (2 * pairs + 1) * half;
    } else {
        pairs = ((n + m - 1) / m + 1) / 2;
        paddedLength = 2 * m * pairs;
    }
}

double FFT::WindowValue(DataWindowMode window, int j, int m)
{
    const double half = m / 2;
    const double centred = (j - 1 - (half - 0.5)) / (half + 0.5);
    switch (window) {
    case Hann:
        // x_j = (j - 1) / m: the periodic form, whose m values repeat
        // seamlessly and which spectral estimators (scipy's welch among
        // them) use.
        return 0.5 * (1.0 - std::cos(TwoPi * (j - 1) / m));
    case Triangular:
        return 1.0 - std::abs(centred);
    case Parabolic:
        return 1.0 - centred * centred;
    default:
        return 1.0;
    }
}

void FFT::PowerSpectrum(const NCDataVector<float>* x, int m, bool overlap, DetrendMode mode, ScalingMode scaling,
                        DataWindowMode window, NCDataVector<float>* out)
{
    if (!Usable(x) || !out || m < 2 || m > MaxLength || !IsPowerOfTwo(m))
        return;
    int pairs = 0, padded = 0;
    SegmentLayout(x->Size(), m, overlap, pairs, padded);
    if (pairs == 0)
        SpectrumFailure();
    NCDataVector<float> v = Prepared(*x, mode);
    PadVectorLinearly(&v, padded);

    const int half = m / 2;
    std::vector<float> w(static_cast<std::size_t>(m));
    double sumW = 0.0, sumW2 = 0.0;
    for (int j = 1; j <= m; ++j) {
        w[static_cast<std::size_t>(j - 1)] = static_cast<float>(WindowValue(window, j, m));
        sumW += w[static_cast<std::size_t>(j - 1)];
        sumW2 += static_cast<double>(w[static_cast<std::size_t>(j - 1)]) * w[static_cast<std::size_t>(j - 1)];
    }
    const std::vector<double> bins = SegmentPowers(v.begin(), w.data(), m, overlap ? half : m, pairs);

    // Welch's normaliser: the window's sum of squares once per segment.
    double normaliser = 2.0 * pairs * sumW2;
    if (scaling == SpectrumScaling)
        normaliser *= sumW * sumW / sumW2;
    if (!(normaliser > 0.0) || !std::isfinite(normaliser))
        SpectrumFailure();
    std::vector<float> result(static_cast<std::size_t>(half + 1));
    for (int k = 0; k <= half; ++k) {
        // One-sided: the power at -k/m is folded onto k/m.
        const double fold = k == 0 || k == half ? 1.0 : 2.0;
        const double value = fold * bins[static_cast<std::size_t>(k)] / normaliser;
        if (!std::isfinite(value))
            SpectrumFailure();
        result[static_cast<std::size_t>(k)] = static_cast<float>(value);
    }
    out->SetSize(half + 1);
    out->SetRange(1, result.data(), half + 1);
}

std::vector<double> FFT::SegmentPowers(const float* series, const float* w, int m, int step, int pairs)
{
    const int half = m / 2;
    std::vector<double> bins(static_cast<std::size_t>(half + 1), 0.0);
    fft_kernel::ComplexTransform transform(m);
    std::vector<Complex> z(static_cast<std::size_t>(m)), spectrum(z.size());
    for (int p = 0; p < pairs; ++p) {
        // Two windowed segments as the real and imaginary parts of one
        // series: |A_k|^2 + |B_k|^2 = (|Z_k|^2 + |Z_{m-k}|^2) / 2.
        const float* a = series + static_cast<std::ptrdiff_t>(2 * p) * step;
        const float* b = a + step;
        for (int j = 0; j < m; ++j)
            z[static_cast<std::size_t>(j)] = Complex(w[j] * a[j], w[j] * b[j]);
        transform.Forward(z.data(), spectrum.data());
        for (int k = 0; k <= half; ++k) {
            const double up = std::norm(spectrum[static_cast<std::size_t>(k)]);
            const double down = std::norm(spectrum[static_cast<std::size_t>((m - k) % m)]);
            bins[static_cast<std::size_t>(k)] += 0.5 * (up + down);
        }
    }
    return bins;
}
