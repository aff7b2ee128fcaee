#!/usr/bin/python3
"""Times the single model fits of bench_model_peers against scikit-learn and
pcaMethods on the same tables, in one run.

    /usr/bin/python3 bench/model_peers.py [BENCH_MODEL_PEERS] [repetitions]

With the benchmark's path, the script runs it first (1 and 2 threads, OpenMP
dynamic adjustment off); it writes the tables to $TMPDIR. Then:

- complete PCA: sklearn.decomposition.PCA(5, svd_solver="randomized") on
  the complete X, centring included, with X as float32 (what the library
  keeps) and as float64;
- PLS1: sklearn.cross_decomposition.PLSRegression(5) (both blocks scaled to
  unit variance, its default) on X and y, which it fits in float64;
- PCA with 5 % missing: pcaMethods' NIPALS in R (bench/model_peers_r.R,
  Debian r-bioc-pcamethods), centring included, when Rscript is found.

Times are medians of the repetitions, in seconds. R2X (PCA) and R2Y (PLS)
of the 5 components are printed beside them, for a check that all fitted
the same model.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np
import sklearn
from sklearn.cross_decomposition import PLSRegression
from sklearn.decomposition import PCA

ROWS, COLUMNS, COMPONENTS = 20000, 500, 5


def temp_file(name):
    return os.path.join(os.environ.get("TMPDIR", tempfile.gettempdir()), name)


def ours(bench):
    out = subprocess.run([bench, "--benchmark_format=json"], check=True, capture_output=True, text=True).stdout
    for case in json.loads(out)["benchmarks"]:
        check = "R2Y" if "R2Y" in case else "R2X"
        print("%-48s %7.3f s  %s %.4f" % ("veltan " + case["name"], case["real_time"] / 1e3, check, case[check]),
              flush=True)


def median_time(fit, reps):
    times = []
    for _ in range(reps):
        start = time.perf_counter()
        result = fit()
        times.append(time.perf_counter() - start)
    return float(np.median(times)), result


def main():
    args = sys.argv[1:]
    bench = args.pop(0) if args and not args[0].isdigit() else None
    reps = int(args[0]) if args else 3
    if bench:
        ours(bench)
    path = temp_file("veltan_fits_20000x501.f32")
    if not os.path.exists(path):
        sys.exit("%s missing: run bench_model_peers first" % path)
    data = np.fromfile(path, dtype=np.float32).reshape(ROWS, COLUMNS + 1)
    x32 = np.ascontiguousarray(data[:, :COLUMNS])
    x64, y = x32.astype(np.float64), data[:, COLUMNS].astype(np.float64)
    for name, x in (("float32", x32), ("float64", x64)):
        seconds, pca = median_time(lambda: PCA(COMPONENTS, svd_solver="randomized", random_state=0).fit(x), reps)
        print("%-48s %7.3f s  R2X %.4f" % ("scikit-learn %s PCA randomized %s" % (sklearn.__version__, name),
                                           seconds, float(np.sum(pca.explained_variance_ratio_))), flush=True)
    seconds, pls = median_time(lambda: PLSRegression(COMPONENTS).fit(x64, y), reps)
    print("%-48s %7.3f s  R2Y %.4f" % ("scikit-learn %s PLSRegression" % sklearn.__version__, seconds,
                                       pls.score(x64, y)), flush=True)
    if shutil.which("Rscript"):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "model_peers_r.R")
        subprocess.run(["Rscript", script, temp_file("veltan_fits_gaps_20000x500.f32"), str(reps)], check=True)


if __name__ == "__main__":
    main()
