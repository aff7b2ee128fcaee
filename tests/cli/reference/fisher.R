# p-values of R's fisher.test for the tables of tests/cli/FisherCommandTest.cpp,
# which writes them line by line as CSV files; R reads the same lines as the
# rows of its matrix. Run once, the values pasted into the test:
#
#     Rscript tests/cli/reference/fisher.R
#
# The 2 x 2 table has no other table whose probability is within R's
# relative tolerance of 1e-7 of its own, so R's two-sided count and the
# library's exact one agree. The hybrid p-value of a square table depends on
# its orientation; t(x) is printed too, to show that the reference for x is
# not also the one for its transpose.
show <- function(label, p) cat(sprintf("%-24s %.17g\n", label, p))

two <- rbind(c(7, 2), c(3, 9))
m <- sum(two[, 1]); n <- sum(two[, 2]); k <- sum(two[1, ])
support <- max(0, k - n):min(k, m)
d <- dhyper(support, m, n, k)
p0 <- dhyper(two[1, 1], m, n, k)
stopifnot(!any(support != two[1, 1] & abs(d / p0 - 1) <= 1e-6))
for (alternative in c("two.sided", "less", "greater"))
  show(paste("2x2", alternative), fisher.test(two, alternative = alternative)$p.value)

three <- rbind(c(2, 8, 14), c(8, 5, 6), c(5, 20, 9))
show("3x3 exact", fisher.test(three)$p.value)
show("3x3 hybrid", fisher.test(three, hybrid = TRUE)$p.value)
show("3x3 hybrid of t(x)", fisher.test(t(three), hybrid = TRUE)$p.value)

# A table with an empty row and column: R passes it to FEXACT as it is.
sparse <- rbind(c(3, 0, 1, 4), c(0, 0, 0, 0), c(1, 0, 6, 2))
show("3x4 with empty lines", fisher.test(sparse)$p.value)
