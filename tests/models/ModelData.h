#pragma once

// Data the model tests share: low-rank tables with noise, built from a
// fixed seed so that every run sees the same matrices.
#include "veltancmat/containers/NCDataMatrix.h"

#include <random>
#include <vector>

// n x k: `rank` latent directions with decreasing weight plus noise of
// standard deviation `noise`, every column centred.
inline NCDataMatrix<float> LowRankTable(int n, int k, int rank, double noise, unsigned seed = 7)
{
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<std::vector<double>> scores(rank, std::vector<double>(n)), loadings(rank, std::vector<double>(k));
    for (int a = 0; a < rank; ++a) {
        for (double& s : scores[a])
            s = normal(gen) * (3.0 * (rank - a));
        for (double& p : loadings[a])
            p = normal(gen);
    }
    NCDataMatrix<float> x(n, k);
    for (int j = 1; j <= k; ++j) {
        std::vector<double> column(n);
        double mean = 0.0;
        for (int i = 0; i < n; ++i) {
            double v = noise * normal(gen);
            for (int a = 0; a < rank; ++a)
                v += scores[a][i] * loadings[a][j - 1];
            column[i] = v;
            mean += v / n;
        }
        for (int i = 1; i <= n; ++i)
            x(i, j, static_cast<float>(column[i - 1] - mean));
    }
    return x;
}

// A rows x cols matrix from values stored row after row (reference tables).
template <class T>
NCDataMatrix<float> FromRowMajor(const T* v, int rows, int cols)
{
    NCDataMatrix<float> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, static_cast<float>(v[(i - 1) * cols + j - 1]));
    return m;
}

// Marks about `fraction` of the cells missing, never a whole row.
inline void KnockOut(NCDataMatrix<float>& x, double fraction, unsigned seed = 11)
{
    std::mt19937 gen(seed);
    std::bernoulli_distribution drop(fraction);
    for (int i = 1; i <= x.SizeRows(); ++i)
        for (int j = 2; j <= x.SizeColumns(); ++j)
            if (drop(gen))
                x(i, j, -99.0f);
}

// |a . b| / (|a| |b|) over the cells present in both.
inline double AbsCosine(const NCDataVector<float>& a, const NCDataVector<float>& b)
{
    double ab = 0.0, aa = 0.0, bb = 0.0;
    for (int i = 1; i <= a.Size(); ++i) {
        if (a[i] == -99.0f || b[i] == -99.0f)
            continue;
        ab += double(a[i]) * b[i];
        aa += double(a[i]) * a[i];
        bb += double(b[i]) * b[i];
    }
    return std::abs(ab) / std::sqrt(aa * bb);
}
