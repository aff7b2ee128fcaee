#!/usr/bin/env bash
# Times R's shapiro.test on normal samples (mean 10, sd 2) of 50 and 5000
# values, in microseconds per call, for comparison with
# bench_shapiro's BM_ShapiroWilk (which also includes the sort, as
# shapiro.test does). Needs Rscript; prints a note and exits 0 without it.
#
#     bench/shapiro_r.sh [repetitions]
set -euo pipefail
reps=${1:-500}
if ! command -v Rscript >/dev/null 2>&1; then
  echo "Rscript not found: R's timing skipped"
  exit 0
fi
Rscript --vanilla - "$reps" <<'R'
reps <- as.integer(commandArgs(trailingOnly = TRUE)[1])
set.seed(1995)
for (n in c(50, 5000)) {
  x <- rnorm(n, 10, 2)
  invisible(shapiro.test(x)) # warm up
  elapsed <- system.time(for (i in seq_len(reps)) shapiro.test(x))[["elapsed"]]
  cat(sprintf("R shapiro.test  n = %4d  %8.1f us per call (%d calls)\n", n, elapsed / reps * 1e6, reps))
}
R
