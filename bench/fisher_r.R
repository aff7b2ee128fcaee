# Times R's fisher.test on the tables of bench/fisher.cpp, for comparison
# with bench_fisher: the median of `reps` runs per table, in seconds.
#
#     Rscript bench/fisher_r.R
#
# The library hands FEXACT the transpose of its lines, so R gets t(x) of the
# lines read as rows: both then run the network on the same matrix.
tables <- list(
  list(name = "5 x 5, N = 100", lines = 5, workspace = 2e6, reps = 3,
       cells = c(3, 0, 4, 1, 2, 8, 2, 3, 7, 2, 3, 4, 8, 7, 5, 4, 4, 3, 2, 4, 3, 6, 4, 5, 6)),
  list(name = "2 x 10, N = 300", lines = 2, workspace = 2e6, reps = 9,
       cells = c(9, 14, 11, 16, 16, 20, 14, 15, 17, 22, 15, 8, 15, 14, 13, 18, 12, 12, 17, 22)),
  list(name = "5 x 5 the other way round", lines = 5, workspace = 1e7, reps = 1,
       cells = c(3, 8, 3, 4, 3, 0, 2, 4, 4, 6, 4, 3, 8, 3, 4, 1, 7, 7, 2, 5, 2, 2, 5, 4, 6)))
for (t in tables) {
  x <- t(matrix(t$cells, nrow = t$lines, byrow = TRUE))
  p <- NA
  seconds <- replicate(t$reps, system.time(p <<- fisher.test(x, workspace = t$workspace)$p.value)[["elapsed"]])
  cat(sprintf("%-28s p = %.15g  %.3f s\n", t$name, p, median(seconds)))
}
