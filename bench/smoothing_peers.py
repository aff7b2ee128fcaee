#!/usr/bin/python3
"""Times scipy.signal.savgol_filter on the series of bench_smoothing: 10^6
points, window 11, cubic, mode 'interp', smoothing and the first derivative
(delta 0.5), in milliseconds per call, median of the repetitions.

    /usr/bin/python3 bench/smoothing_peers.py [repetitions]

SciPy has no missing values: it is timed on the complete series only, once
as float64 (what its users usually pass) and once as float32, which it
filters in float32. Run it on an otherwise idle machine; savgol_filter is
single-threaded.
"""
import sys
import time

import numpy as np
import scipy
from scipy.signal import savgol_filter

POINTS = 1000000


def series():
    i = np.arange(POINTS, dtype=np.float64)
    return (np.sin(0.001 * i) + 0.1 * np.sin(1.7 * i)).astype(np.float32)


def median_ms(call, reps):
    call()  # warm up
    times = []
    for _ in range(reps):
        start = time.perf_counter()
        call()
        times.append((time.perf_counter() - start) * 1e3)
    return float(np.median(times))


def main():
    reps = int(sys.argv[1]) if len(sys.argv) > 1 else 20
    y32 = series()
    y64 = y32.astype(np.float64)
    print(f"scipy {scipy.__version__}, numpy {np.__version__}, {POINTS} points, window 11, order 3, mode interp")
    for label, y in (("float64", y64), ("float32", y32)):
        smooth = median_ms(lambda: savgol_filter(y, 11, 3, mode="interp"), reps)
        slope = median_ms(lambda: savgol_filter(y, 11, 3, deriv=1, delta=0.5, mode="interp"), reps)
        print(f"savgol_filter {label}: smooth {smooth:7.2f} ms   first derivative {slope:7.2f} ms")


if __name__ == "__main__":
    main()
