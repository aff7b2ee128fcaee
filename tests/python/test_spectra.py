"""FFT correlations and spectra against direct NumPy sums and SciPy's Welch
estimate, with the library's normalisation (docs/spectra.md)."""

import numpy as np
import pytest
import scipy.signal

import veltancmat


@pytest.fixture
def series(rng):
    """An AR(1) series with a sine and a trend, stored as the engine stores it."""
    n = 300
    e = rng.normal(size=n)
    x = np.empty(n)
    x[0] = e[0]
    for i in range(1, n):
        x[i] = 0.6 * x[i - 1] + e[i]
    x += np.sin(np.arange(n) * 2 * np.pi / 16) + 0.01 * np.arange(n)
    return x.astype(np.float32).astype(np.float64)


def detrended(x, how):
    if how == "mean":
        return x - x.mean()
    positions = np.arange(1, len(x) + 1)
    return x - np.polyval(np.polyfit(positions, x, 1), positions)


@pytest.mark.parametrize("detrend", ["mean", "linear"])
def test_autocorrelation(series, detrend):
    lags = 40
    c = detrended(series, detrend)
    reference = np.correlate(c, c, "full")[len(c) - 1:len(c) + lags] / np.dot(c, c)
    result = veltancmat.autocorrelation(series, lags, detrend=detrend)
    assert result.shape == (lags + 1,) and result[0] == pytest.approx(1.0, abs=1e-6)
    np.testing.assert_allclose(result, reference, atol=2e-6)


def test_cross_correlation_lags(series, rng):
    # y follows x by 3 places, so the peak is at lag +3.
    y = np.roll(series, 3) + 0.1 * rng.normal(size=len(series))
    lags = 10
    a, b = series - series.mean(), y - y.mean()
    n = len(a)
    reference = scipy.signal.correlate(b, a, "full")[n - 1 - lags:n + lags] / np.sqrt(a @ a * (b @ b))
    result = veltancmat.cross_correlation(series, y, lags)
    np.testing.assert_allclose(result, reference, atol=2e-6)
    assert np.argmax(result) - lags == 3
    # With itself: the autocorrelation, mirrored about lag 0.
    itself = veltancmat.cross_correlation(series, series, lags)
    np.testing.assert_allclose(itself[lags:], veltancmat.autocorrelation(series, lags), atol=1e-6)
    np.testing.assert_allclose(itself[::-1], itself, atol=1e-6)


def test_missing_values_are_interpolated(series):
    gappy = series.copy()
    gappy[[10, 11, 50]] = np.nan
    filled = series.copy()
    filled[[10, 11, 50]] = np.interp([10, 11, 50], [9, 12, 49, 51], series[[9, 12, 49, 51]])
    np.testing.assert_allclose(veltancmat.autocorrelation(gappy, 20), veltancmat.autocorrelation(filled, 20),
                               atol=1e-6)


@pytest.mark.parametrize("window, scipy_window", [("hann", "hann"), ("rect", "boxcar")])
@pytest.mark.parametrize("overlap", [False, True])
@pytest.mark.parametrize("scaling", ["density", "spectrum"])
def test_power_spectrum_against_welch(rng, window, scipy_window, overlap, scaling):
    m = 32
    # Lengths that need no padding: 2K whole segments, side by side or
    # overlapping by half.
    n = 8 * m if not overlap else 9 * m // 2
    x = rng.normal(size=n).astype(np.float32).astype(np.float64) + np.sin(np.arange(n) * 2 * np.pi * 5 / m)
    frequencies, power = veltancmat.power_spectrum(x, m, overlap=overlap, window=window, scaling=scaling)
    ref_f, ref_p = scipy.signal.welch(x - x.mean(), fs=1.0, window=scipy_window, nperseg=m,
                                      noverlap=m // 2 if overlap else 0, detrend=False, scaling=scaling)
    np.testing.assert_allclose(frequencies, ref_f)
    np.testing.assert_allclose(power, ref_p, rtol=2e-5, atol=1e-7 * ref_p.max())
    assert np.argmax(power) == 5


@pytest.mark.parametrize("call, error, message", [
    (lambda x: veltancmat.autocorrelation(x, 101), ValueError, "max_lag=101: must be 0 to"),
    (lambda x: veltancmat.autocorrelation(x, -1), ValueError, "max_lag=-1"),
    (lambda x: veltancmat.autocorrelation(x, 5, detrend="quadratic"), ValueError, "detrend=\"quadratic\""),
    (lambda x: veltancmat.cross_correlation(x, x[:-1], 5), ValueError, "must match"),
    (lambda x: veltancmat.cross_correlation(x, np.full(100, np.nan), 5), ValueError, "y: every value"),
    (lambda x: veltancmat.power_spectrum(x, 24), ValueError, "power of two"),
    (lambda x: veltancmat.power_spectrum(x, 256), ValueError, "at most 128"),
    # Overlapping segments need more than half a segment; segments are at most
    # the next power of two, so only a single value lacks them.
    (lambda x: veltancmat.power_spectrum(x[:1], 2, overlap=True), ValueError, "more than 1"),
    (lambda x: veltancmat.power_spectrum(x, 16, window="kaiser"), ValueError, "window=\"kaiser\""),
    (lambda x: veltancmat.power_spectrum(x, 16, scaling="psd"), ValueError, "scaling=\"psd\""),
    (lambda x: veltancmat.autocorrelation(np.where(x > 0, -99.0, x), 5), ValueError, "is -99"),
    (lambda x: veltancmat.autocorrelation(x.reshape(10, 10), 5), ValueError, "1-D"),
    (lambda x: veltancmat.autocorrelation(x[:0], 0), ValueError, "empty"),
    (lambda x: veltancmat.autocorrelation(x.astype(complex), 5), TypeError, "real numbers"),
])
def test_refused(rng, call, error, message):
    with pytest.raises(error, match=message):
        call(rng.normal(size=100))
