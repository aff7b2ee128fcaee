#pragma once

// The predictor and response tables the model benchmarks fit.
#include "veltancmat/containers/NCDataMatrix.h"

#include <random>
#include <vector>

namespace BenchModels {

struct Table {
    NCDataMatrix<float> x, y;
};

// X and Y share ten latent directions of falling weight under noise, so
// that components and their iteration counts are those of real data.
inline Table MakeTable(int rows, int cols, int responses, double missingShare)
{
    constexpr int Rank = 10;
    std::mt19937 rng(11);
    std::normal_distribution<float> normal;
    std::bernoulli_distribution missing(missingShare);
    std::vector<float> p(static_cast<std::size_t>(Rank) * cols), q(static_cast<std::size_t>(Rank) * responses);
    for (float& v : p)
        v = normal(rng);
    for (float& v : q)
        v = normal(rng);
    Table t{NCDataMatrix<float>(rows, cols), NCDataMatrix<float>(rows, responses)};
    std::vector<float> scores(Rank);
    auto fill = [&](float* row, int width, const std::vector<float>& loadings) {
        for (int j = 1; j <= width; ++j) {
            float v = normal(rng);
            for (int a = 0; a < Rank; ++a)
                v += scores[a] * loadings[static_cast<std::size_t>(a) * width + j - 1];
            row[j] = missing(rng) ? -99.0f : v;
        }
    };
    std::vector<float*> xs = t.x.GetMatrixAsPointerPointer(), ys = t.y.GetMatrixAsPointerPointer();
    for (int i = 1; i <= rows; ++i) {
        for (int a = 0; a < Rank; ++a)
            scores[a] = normal(rng) * static_cast<float>(Rank - a);
        fill(xs[i], cols, p);
        fill(ys[i], responses, q);
    }
    t.x.RecountMissing();
    t.y.RecountMissing();
    return t;
}

} // namespace BenchModels
