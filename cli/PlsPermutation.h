#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/NCProgress.h"

#include <utility>
#include <vector>

namespace veltan_cli {

// A response permutation test: the model is refitted, with the same number
// of components and the same cross-validation groups, to responses whose
// rows have been shuffled. A model that owes its fit to chance fits the
// shuffled responses about as well as the real ones.
struct PermutationRow {
    float correlation = 0.0f; // of the shuffled responses with the real ones
    float r2y = 0.0f;         // R2Y(cum)
    float q2 = 0.0f;          // Q2(cum)
};

struct PermutationTest {
    int components = 0;
    unsigned seed = 0;
    float r2y = 0.0f; // the unshuffled model's R2Y(cum) and Q2(cum)
    float q2 = 0.0f;
    std::vector<PermutationRow> rows;
    // Least-squares lines through (correlation, value) of every row and of
    // the real model at correlation 1, read at correlation 0.
    double r2yIntercept = 0.0;
    double q2Intercept = 0.0;
    int r2yReached = 0; // shuffled fits at or above the real value
    int q2Reached = 0;
};

// x, y: the preprocessed blocks. Shuffles with std::mt19937 seeded by
// `seed`. Throws CancelException when `progress` is broken.
PermutationTest RunPermutationTest(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int components,
                                   int groups, int count, unsigned seed, float realR2Y, float realQ2,
                                   NCProgress& progress);

// The value at 0 of the least-squares line through the points (x, y); the
// mean of y when every x is the same.
double InterceptAtZero(const std::vector<std::pair<double, double>>& points);

// The correlation of each response with its rows reordered by
// `permutation` (1-based: row i takes row permutation[i - 1]), over the
// rows where both are present, averaged over the responses that have one.
double MeanPermutedCorrelation(const NCDataMatrix<float>& y, const std::vector<int>& permutation);

} // namespace veltan_cli
