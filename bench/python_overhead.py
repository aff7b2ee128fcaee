#!/usr/bin/env python3
"""Overhead of veltancmat.PCA().fit from Python against the same fit from C++.

Both fit the same 20000 x 500 table (four latent factors and noise) with
unit-variance scaling, 7 cross-validation groups and the significance rule.
The Python side adds the conversion of the float64 array to the engine's
float storage, the progress polling for Ctrl-C and the copies of scores and
loadings out. Run only on an otherwise idle machine:

    cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELTAN_BUILD_BENCH=ON -DVELTAN_BUILD_TESTS=OFF
    cmake --build build-bench --target bench_pca_fit veltancmat_python
    PYTHONPATH=build-bench/python /usr/bin/python3 bench/python_overhead.py build-bench/bench/bench_pca_fit
"""
import subprocess
import sys
import tempfile
import time

import numpy as np

import veltancmat


def main():
    program = sys.argv[1] if len(sys.argv) > 1 else "build-bench/bench/bench_pca_fit"
    rows = int(sys.argv[2]) if len(sys.argv) > 2 else 20000
    columns = int(sys.argv[3]) if len(sys.argv) > 3 else 500
    repeats = int(sys.argv[4]) if len(sys.argv) > 4 else 3
    rng = np.random.default_rng(20261125)
    x = rng.standard_normal((rows, 4)) @ rng.standard_normal((4, columns)) + rng.standard_normal((rows, columns))
    # Both sides get the same single-precision values.
    x = x.astype(np.float32).astype(np.float64)

    with tempfile.NamedTemporaryFile(suffix=".f32") as raw:
        x.astype(np.float32).tofile(raw.name)
        # Alternate the two sides so that a change of machine load hits both.
        native, python = [], []
        for _ in range(repeats):
            out = subprocess.run([program, raw.name, str(rows), str(columns)], check=True, capture_output=True,
                                 text=True).stdout.split()
            native.append(float(out[0]))
            start = time.perf_counter()
            model = veltancmat.PCA().fit(x)
            python.append(time.perf_counter() - start)
    assert model.n_components_ == int(out[1]), "the two sides kept different component counts"
    cpp, py = min(native), min(python)
    print(f"{rows} x {columns}, {model.n_components_} components: C++ {cpp:.3f} s, Python {py:.3f} s, "
          f"overhead {100 * (py - cpp) / cpp:+.1f} % (best of {repeats})")


if __name__ == "__main__":
    main()
