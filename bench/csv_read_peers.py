#!/usr/bin/python3
"""Times pandas.read_csv on the table bench_csv_read reads, in the same run.

    /usr/bin/python3 bench/csv_read_peers.py [BENCH_CSV_READ] [repetitions]

With the path of bench_csv_read it runs that first (its 1- and 2-thread
file reads, OpenMP dynamic adjustment off) and prints its rates beside
pandas'. The table is $TMPDIR/veltan_csv_20000x500.csv, which
bench_csv_read writes; without it this script writes a table of the same
recipe (20000 x 500 normal values of four decades in 5 significant digits,
header x1..x500). pandas (Debian python3-pandas) is timed with its default C
engine, float64 columns, and with float32 columns, which is what the tool
keeps; MB is 10^6 bytes; the median of the repetitions is shown.
"""
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
import pandas as pd

ROWS, COLUMNS = 20000, 500


def table_path():
    folder = os.environ.get("TMPDIR", tempfile.gettempdir())
    path = os.path.join(folder, "veltan_csv_%dx%d.csv" % (ROWS, COLUMNS))
    if not os.path.exists(path):
        rng = np.random.default_rng(3)
        scale = np.array([100.0, 10.0, 1.0, 0.1])[np.arange(COLUMNS) % 4]
        x = rng.standard_normal((ROWS, COLUMNS)) * scale
        header = ",".join("x%d" % (j + 1) for j in range(COLUMNS))
        np.savetxt(path, x, fmt="%.5g", delimiter=",", header=header, comments="")
    return path


def ours(bench):
    out = subprocess.run([bench, "--benchmark_filter=BM_ReadCsvTable", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True).stdout
    for case in json.loads(out)["benchmarks"]:
        seconds = case["real_time"] / 1e3  # reported in ms
        print("%-36s %8.0f ms  %7.0f MB/s" % ("veltan " + case["name"], seconds * 1e3, case["MB_per_s"]),
              flush=True)


def median_seconds(call, reps):
    times = []
    for _ in range(reps):
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return float(np.median(times))


def main():
    args = sys.argv[1:]
    bench = args.pop(0) if args and not args[0].isdigit() else None
    reps = int(args[0]) if args else 5
    path = table_path()
    megabytes = os.path.getsize(path) / 1e6
    print("table %s: %.1f MB" % (path, megabytes))
    if bench:
        ours(bench)
    frame = pd.read_csv(path)
    assert frame.shape == (ROWS, COLUMNS)
    for label, call in (("pandas %s read_csv" % pd.__version__, lambda: pd.read_csv(path)),
                        ("pandas read_csv dtype=float32", lambda: pd.read_csv(path, dtype=np.float32))):
        seconds = median_seconds(call, reps)
        print("%-36s %8.0f ms  %7.0f MB/s" % (label, seconds * 1e3, megabytes / seconds), flush=True)


if __name__ == "__main__":
    main()
