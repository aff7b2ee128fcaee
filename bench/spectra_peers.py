#!/usr/bin/env python3
"""Times NumPy and SciPy on the series of bench_spectra, in milliseconds
per call, for comparison with BM_AutoCorrelation, BM_CrossCorrelation and
BM_PowerSpectrum. Each peer does the same work as the library: centre the
series, transform it zero-padded to the next power of two above n + lags,
take the lags and normalise by lag 0; Welch's spectrum with Hann windows of
m = 1024, without and with half overlap.

    /usr/bin/python3 bench/spectra_peers.py [repetitions]
"""
import sys
import timeit

import numpy as np
import scipy
from scipy import fft as sfft
from scipy import signal

reps = int(sys.argv[1]) if len(sys.argv) > 1 else 5
n, lags, m = 1 << 20, 1000, 1024

i = np.arange(n, dtype=np.uint64)
u = ((i * np.uint64(2654435761)) % np.uint64(1 << 32)).astype(np.float64) / 4294967296.0
x = (np.sin(np.arange(n) / 50.0) + u - 0.5).astype(np.float32)
y = np.concatenate([np.full(7, x[0], dtype=np.float32), x[:-7]])
length = 1 << int(np.ceil(np.log2(n + lags)))


def acf(fft_module, x):
    c = x - x.mean()
    r = fft_module.irfft(np.abs(fft_module.rfft(c, length)) ** 2, length)
    return r[:lags + 1] / r[0]


def ccf(fft_module, x, y):
    a, b = x - x.mean(), y - y.mean()
    r = fft_module.irfft(np.conj(fft_module.rfft(a, length)) * fft_module.rfft(b, length), length)
    return np.concatenate([r[-lags:], r[:lags + 1]]) / np.sqrt(np.dot(a, a) * np.dot(b, b))


def time(label, call):
    call()
    best = min(timeit.repeat(call, number=1, repeat=reps))
    print(f"{label:44s} {best * 1e3:8.1f} ms")


print(f"numpy {np.__version__}, scipy {scipy.__version__}; n = {n}, best of {reps}")
time("numpy.fft autocorrelation (float64)", lambda: acf(np.fft, x))
time("scipy.fft autocorrelation (float32)", lambda: acf(sfft, x))
time("numpy.fft cross-correlation (float64)", lambda: ccf(np.fft, x, y))
time("scipy.fft cross-correlation (float32)", lambda: ccf(sfft, x, y))
time("scipy.signal.correlate, method fft (float32)",
     lambda: signal.correlate(x - x.mean(), x - x.mean(), mode="full", method="fft"))
for overlap in (0, m // 2):
    time(f"scipy.signal.welch m = {m}, overlap {overlap}",
         lambda: signal.welch(x, fs=1.0, window="hann", nperseg=m, noverlap=overlap, detrend="constant"))
