# Shapiro-Wilk W and p by R's shapiro.test for the columns of
# tests/cli/reference/normality.csv, which this script also writes: the
# reference for the normality command's tests. Values are multiples of 1/64,
# exact in the float the tool reads, so that both sides test the same
# numbers. Empty cells are missing; R sees only the present values.
#
#     Rscript tests/cli/reference/normality.R
set.seed(20261125)
n <- 24
on64 <- function(x) round(x * 64) / 64
columns <- list(
  normal = on64(rnorm(n, 50, 4)),
  skewed = on64(rexp(n, 0.5)),
  gappy = on64(runif(n, 10, 20)),
  three = c(on64(c(1.5, 2.25, 7)), rep(NA, n - 3)),
  tied = on64(c(rep(5, 8), rep(6, 10), rep(7, 6)))
)
columns$gappy[c(3, 10, 11, 20)] <- NA
frame <- data.frame(id = sprintf("r%02d", seq_len(n)), columns)
cells <- format(frame, digits = 15, scientific = FALSE, trim = TRUE)
cells[is.na(frame)] <- ""
write.table(cells, "tests/cli/reference/normality.csv", sep = ",", quote = FALSE, row.names = FALSE)
for (name in names(columns)) {
  t <- shapiro.test(na.omit(columns[[name]]))
  cat(sprintf("%s n=%d W=%.17g p=%.17g\n", name, sum(!is.na(columns[[name]])), t$statistic, t$p.value))
}
