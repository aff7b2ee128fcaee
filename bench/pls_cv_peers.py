#!/usr/bin/python3
"""Times 7-fold cross-validation of a 5-component PLS model of one response
on 20000 x 500 with scikit-learn, beside bench_pls_cv and R pls in the same
run.

    /usr/bin/python3 bench/pls_cv_peers.py [BENCH_PLS_CV] [repetitions]

bench_pls_cv writes the table to $TMPDIR/veltan_pls_cv_20000x501.f32 (run
it first, or pass its path and this script runs it, 1 and 2 threads with
OpenMP dynamic adjustment off). scikit-learn (Debian python3-sklearn):
cross_val_predict(PLSRegression(5), X, y, cv=7), which scales both blocks
to unit variance in every fold as the benchmark does once; X is handed over
as float64, its working precision. R pls (Debian r-cran-pls) is timed by
bench/pls_cv_r.R when Rscript is on the path. Times are medians of the
repetitions, in seconds; Q2 is 1 - PRESS/SS of y, for a check that all
fitted the same problem (the groups differ: contiguous folds here, every
seventh row in the library, random segments in R).
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
from sklearn.model_selection import cross_val_predict

ROWS, COLUMNS, COMPONENTS, GROUPS = 20000, 500, 5, 7


def table_path():
    folder = os.environ.get("TMPDIR", tempfile.gettempdir())
    return os.path.join(folder, "veltan_pls_cv_%dx%d.f32" % (ROWS, COLUMNS + 1))


def ours(bench):
    out = subprocess.run([bench, "--benchmark_filter=BM_PLS_CV7", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True).stdout
    for case in json.loads(out)["benchmarks"]:
        print("%-44s %7.2f s  Q2cum %.4f" % ("veltan " + case["name"], case["real_time"] / 1e3, case["Q2cum"]),
              flush=True)


def main():
    args = sys.argv[1:]
    bench = args.pop(0) if args and not args[0].isdigit() else None
    reps = int(args[0]) if args else 3
    if bench:
        ours(bench)
    path = table_path()
    if not os.path.exists(path):
        sys.exit("%s missing: run bench_pls_cv first" % path)
    data = np.fromfile(path, dtype=np.float32).reshape(ROWS, COLUMNS + 1).astype(np.float64)
    x, y = data[:, :COLUMNS], data[:, COLUMNS]
    times = []
    for _ in range(reps):
        start = time.perf_counter()
        predicted = cross_val_predict(PLSRegression(COMPONENTS), x, y, cv=GROUPS)
        times.append(time.perf_counter() - start)
    predicted = np.ravel(predicted)
    q2 = 1.0 - np.sum((y - predicted) ** 2) / np.sum((y - y.mean()) ** 2)
    print("%-44s %7.2f s  Q2cum %.4f" % ("scikit-learn %s cross_val_predict" % sklearn.__version__,
                                         float(np.median(times)), q2), flush=True)
    if shutil.which("Rscript"):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "pls_cv_r.R")
        subprocess.run(["Rscript", script, path, str(reps)], check=True)


if __name__ == "__main__":
    main()
