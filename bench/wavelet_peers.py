#!/usr/bin/python3
"""Times PyWavelets on the case of bench_wavelet: wavedec and waverec of
2^20 points, 6 levels, db10 (20 taps), mode "periodization", in
milliseconds per call, best of the repetitions. PyWavelets filters float32
input in float32 and float64 input in float64; both are timed.

    /usr/bin/python3 bench/wavelet_peers.py [repetitions]

PyWavelets is single-threaded: compare with the threads:1 figures.
"""
import sys
import timeit

import numpy as np
import pywt

reps = int(sys.argv[1]) if len(sys.argv) > 1 else 10
n, levels, name = 1 << 20, 6, "db10"

i = np.arange(n, dtype=np.uint64)
u = ((i * np.uint64(2654435761)) % np.uint64(1 << 32)).astype(np.float64) / 4294967296.0
x64 = np.sin(np.arange(n) / 50.0) + u - 0.5
x32 = x64.astype(np.float32)


def time(label, call):
    call()
    best = min(timeit.repeat(call, number=1, repeat=reps))
    print(f"{label:44s} {best * 1e3:8.1f} ms")


print(f"PyWavelets {pywt.__version__}, numpy {np.__version__}; n = {n}, {levels} levels, {name}, best of {reps}")
for label, x in (("float32", x32), ("float64", x64)):
    coeffs = pywt.wavedec(x, name, mode="periodization", level=levels)
    time(f"wavedec ({label})", lambda: pywt.wavedec(x, name, mode="periodization", level=levels))
    time(f"waverec ({label})", lambda: pywt.waverec(coeffs, name, mode="periodization"))
