#pragma once

#include "veltancmat/platform/Export.h"

#include <cstdint>

namespace Sta {

// Which tail of a 2 x 2 table's hypergeometric distribution a p-value sums.
// Larger tables have no direction and ignore it.
enum SidedNess : std::int32_t {
    LowerTail = 0, // tables with a smaller first cell (a) than the observed one
    UpperTail = 1, // tables with a larger first cell
    TwoSided = 2,  // tables on either side no more probable than the observed one
};

// The p-value of Fisher's exact test of independence for an n1 x n2 table of
// counts, stored line by line (n2 counts per line).
//
// A 2 x 2 table sums its hypergeometric tables directly; two-sided, a table
// counts when its probability is at most the observed one's, compared
// exactly (R's fisher.test allows a relative 1e-7, so exact ties of
// computation can differ from it).
//
// Any other shape goes through the network algorithm of Mehta and Patel
// (ACM TOMS algorithm 643), the probability of the observed table and of
// all less probable ones. With `hybrid` a subtable whose cells meet
// Cochran's conditions (80 % of expected counts at least 5, none below 1)
// is summed by its chi-squared approximation instead. `workspace` is the
// size of the working store in 4-byte units, as for R's fisher.test
// (200000 there by default); the hash tables of the network get what the
// fixed arrays leave.
//
// Throws NCError (Error) "Error in fexact.\n..." for a negative count, an
// all-zero table, fewer than 2 lines, marginal totals too large to key, or
// a workspace too small for the problem; NCInternalError for a broken key.
VELTANCMAT_API double GetFisherExactProbability(const int* table, int n1, int n2, bool hybrid, SidedNess sides,
                                                int workspace);

// The probability of the 2 x 2 table (a, b; c, d) among all tables with its
// marginal totals: C(a + b, a) C(c + d, c) / C(N, a + c).
VELTANCMAT_API double GetTableProbability(int a, int b, int c, int d);

// n choose k, exact while it fits the 53 bits of a double; 0 for k outside
// [0, n].
VELTANCMAT_API double BinomialCoefficient(int n, int k);

} // namespace Sta
