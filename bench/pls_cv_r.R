# Times R pls on the table bench_pls_cv writes: plsr with 5 components,
# both blocks scaled, validation = "CV" over 7 segments (the full model and
# the 7 segment models, as the library fits both).
#
#   Rscript bench/pls_cv_r.R [$TMPDIR/veltan_pls_cv_20000x501.f32] [repetitions]
#
# Needs Debian r-cran-pls. Prints the median time and the cross-validated
# Q2 of the 5 components (R2 with estimate "CV").
suppressPackageStartupMessages(library(pls))
args <- commandArgs(trailingOnly = TRUE)
tmp <- Sys.getenv("TMPDIR", "/tmp")
path <- if (length(args) >= 1) args[1] else file.path(tmp, "veltan_pls_cv_20000x501.f32")
reps <- if (length(args) >= 2) as.integer(args[2]) else 3L
rows <- 20000L
cols <- 501L
values <- readBin(path, "numeric", n = rows * cols, size = 4)
m <- matrix(values, nrow = rows, ncol = cols, byrow = TRUE)
d <- data.frame(y = m[, cols])
d$X <- m[, -cols]
set.seed(1)
times <- numeric(reps)
for (r in seq_len(reps)) {
  times[r] <- system.time(
    fit <- plsr(y ~ X, ncomp = 5, data = d, scale = TRUE, validation = "CV", segments = 7)
  )[["elapsed"]]
}
q2 <- R2(fit, estimate = "CV", intercept = FALSE)$val[1, 1, 5]
cat(sprintf("%-44s %7.2f s  Q2cum %.4f\n",
            paste0("R pls ", packageVersion("pls"), " plsr validation=CV"), median(times), q2))
