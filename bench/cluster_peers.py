#!/usr/bin/python3
"""Times fastcluster on the rows bench_cluster wrote and compares heights.

Run bench_cluster first (each case leaves its rows and merge heights in
TMPDIR), then:  /usr/bin/python3 bench/cluster_peers.py ROWS [ROWS...]

fastcluster's Ward height of a merge is sqrt(2 * increase of the error sum
of squares); the bench writes the increase itself, so it is converted
before the comparison. Heights are compared sorted, as multisets: the trees
merge in the same order only up to ties. Max RSS of this process after
each call is printed beside its time.
"""
import os
import resource
import sys
import tempfile
import time

import numpy as np
import fastcluster

COLUMNS = 20


def load(stem, suffix, dtype):
    path = stem + suffix
    return np.fromfile(path, dtype=dtype) if os.path.exists(path) else None


def compare(ours, theirs):
    if ours is None:
        return "no heights from bench_cluster"
    a, b = np.sort(ours), np.sort(theirs)
    if a.shape != b.shape:
        return "different merge counts"
    rel = np.max(np.abs(a - b) / np.maximum(np.abs(b), 1e-12))
    return "max relative height difference %.2e" % rel


def run(label, call):
    start = time.perf_counter()
    z = call()
    seconds = time.perf_counter() - start
    rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0
    print("%-34s %8.2f s  maxRSS %8.0f MB" % (label, seconds, rss), flush=True)
    return z


def main():
    folder = os.environ.get("TMPDIR", tempfile.gettempdir())
    for rows in (int(a) for a in sys.argv[1:]):
        stem = os.path.join(folder, "veltan_cluster_%d_0" % rows)
        x = load(stem, ".f32", np.float32)
        if x is None:
            print("%s.f32 missing: run bench_cluster first" % stem)
            continue
        x = x.reshape(-1, COLUMNS).astype(np.float64)
        if rows <= 30000:
            z = run("fastcluster.linkage ward %d" % rows, lambda: fastcluster.linkage(x, method="ward"))
            print("  ", compare(load(stem, "_ward.f64", np.float64), z[:, 2] ** 2 / 2.0))
            z = run("fastcluster.linkage single %d" % rows, lambda: fastcluster.linkage(x, method="single"))
            print("  ", compare(load(stem, "_single.f64", np.float64), z[:, 2]))
        z = run("fastcluster.linkage_vector ward %d" % rows, lambda: fastcluster.linkage_vector(x, method="ward"))
        print("  ", compare(load(stem, "_ward.f64", np.float64), z[:, 2] ** 2 / 2.0))


if __name__ == "__main__":
    main()
