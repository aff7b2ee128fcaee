# Times pcaMethods' NIPALS PCA on the table with 5 % missing cells that
# bench_model_peers writes: 5 components, centred (the centring timed), no
# scaling. Needs Debian r-bioc-pcamethods.
#
#   Rscript bench/model_peers_r.R [$TMPDIR/veltan_fits_gaps_20000x500.f32] [repetitions]
#
# Prints the median time and R2X of the 5 components.
suppressPackageStartupMessages(library(pcaMethods))
args <- commandArgs(trailingOnly = TRUE)
tmp <- Sys.getenv("TMPDIR", "/tmp")
path <- if (length(args) >= 1) args[1] else file.path(tmp, "veltan_fits_gaps_20000x500.f32")
reps <- if (length(args) >= 2) as.integer(args[2]) else 3L
rows <- 20000L
cols <- 500L
values <- readBin(path, "numeric", n = rows * cols, size = 4)
m <- matrix(values, nrow = rows, ncol = cols, byrow = TRUE)
m[m == -99] <- NA
times <- numeric(reps)
for (r in seq_len(reps)) {
  times[r] <- system.time(
    fit <- pca(m, method = "nipals", nPcs = 5, center = TRUE, scale = "none")
  )[["elapsed"]]
}
cat(sprintf("%-48s %7.3f s  R2X %.4f\n",
            paste0("pcaMethods ", packageVersion("pcaMethods"), " nipals, 5 % missing"), median(times),
            R2cum(fit)[5]))
