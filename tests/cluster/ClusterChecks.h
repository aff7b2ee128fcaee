#pragma once

// Shared by the clustering tests: data makers, a run of a calculator, and
// a plain greedy clustering to hold the merges against.

#include "veltancmat/cluster/ClusterDistances.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/MissingValue.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <vector>

namespace ClusterChecks {

struct Merge {
    float height;
    int a;
    int b;
};

inline NCDataMatrix<float> MatrixOf(const std::vector<std::vector<float>>& rows)
{
    NCDataMatrix<float> m(static_cast<int>(rows.size()), rows.empty() ? 0 : static_cast<int>(rows[0].size()));
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (std::size_t j = 0; j < rows[i].size(); ++j)
            m(static_cast<int>(i) + 1, static_cast<int>(j) + 1, rows[i][j]);
    return m;
}

inline NCDataMatrix<float> MatrixOf(const double* cells, int rows, int cols)
{
    NCDataMatrix<float> m(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j)
            m(i + 1, j + 1, static_cast<float>(cells[i * cols + j]));
    return m;
}

// Normal cells; with `missingShare` > 0 that share of cells is blanked, at
// most a quarter of any row, so no row or pair is refused.
inline NCDataMatrix<float> RandomMatrix(int rows, int cols, unsigned seed, double missingShare = 0.0)
{
    std::mt19937 gen(seed);
    std::normal_distribution<float> normal;
    std::uniform_real_distribution<double> uniform;
    NCDataMatrix<float> m(rows, cols);
    for (int i = 1; i <= rows; ++i) {
        int blanked = 0;
        for (int j = 1; j <= cols; ++j) {
            const bool blank = uniform(gen) < missingShare && 4 * (blanked + 1) <= cols;
            blanked += blank;
            m(i, j, blank ? -99.0f : normal(gen));
        }
    }
    return m;
}

inline std::vector<Merge> RunAll(DendroGram::ClusterDistanceCalculator& calculator, int rows)
{
    std::vector<Merge> merges;
    for (int k = 0; k + 1 < rows; ++k) {
        Merge m{};
        m.height = calculator.FindNearestAndMerge(m.a, m.b);
        merges.push_back(m);
    }
    return merges;
}

inline std::vector<Merge> Cluster(DendroGram::ClusterDistanceCalculator& calculator, const NCDataMatrix<float>& data)
{
    calculator.Init(data, nullptr);
    return RunAll(calculator, data.SizeRows());
}

// The rows' distance as the calculators define it: squared differences over
// the common present columns, scaled up to all columns.
inline double ScaledSquares(const NCDataMatrix<float>& data, int r, int s)
{
    const int cols = data.SizeColumns();
    double sum = 0.0;
    int common = 0;
    for (int j = 1; j <= cols; ++j) {
        const float x = data[r + 1][j];
        const float y = data[s + 1][j];
        if (IsMisVal(x) || IsMisVal(y))
            continue;
        sum += (static_cast<double>(x) - y) * (static_cast<double>(x) - y);
        ++common;
    }
    return sum * cols / common;
}

// Error sum of squares of one column of a cluster, by two passes over its
// values (mean, then squared deviations), scaled for absent members.
inline double ColumnSS(const NCDataMatrix<float>& data, const std::vector<int>& members, int j)
{
    double sum = 0.0;
    int present = 0;
    for (int r : members)
        if (!IsMisVal(data[r + 1][j])) {
            sum += data[r + 1][j];
            ++present;
        }
    if (present == 0)
        return 0.0;
    const double mean = sum / present;
    double ss = 0.0;
    for (int r : members)
        if (!IsMisVal(data[r + 1][j]))
            ss += (data[r + 1][j] - mean) * (data[r + 1][j] - mean);
    return ss * static_cast<double>(members.size()) / present;
}

inline double WardIncrease(const NCDataMatrix<float>& data, const std::vector<int>& a, const std::vector<int>& b)
{
    std::vector<int> both = a;
    both.insert(both.end(), b.begin(), b.end());
    double increase = 0.0;
    for (int j = 1; j <= data.SizeColumns(); ++j)
        increase += ColumnSS(data, both, j) - ColumnSS(data, a, j) - ColumnSS(data, b, j);
    return increase;
}

enum class Linkage { Ward0, Ward1, Single };

// Every step recomputes the distance of every pair of current clusters and
// merges the first smallest, scanning a < b in order.
inline std::vector<Merge> Greedy(const NCDataMatrix<float>& data, Linkage linkage)
{
    std::vector<std::vector<int>> clusters;
    for (int r = 0; r < data.SizeRows(); ++r)
        clusters.push_back({r});
    auto distance = [&](const std::vector<int>& a, const std::vector<int>& b) {
        if (linkage == Linkage::Single) {
            double best = std::numeric_limits<double>::infinity();
            for (int r : a)
                for (int s : b)
                    best = std::min(best, std::sqrt(ScaledSquares(data, r, s)));
            return static_cast<float>(best);
        }
        const double increase =
            a.size() == 1 && b.size() == 1 ? 0.5 * ScaledSquares(data, a[0], b[0]) : WardIncrease(data, a, b);
        return static_cast<float>(linkage == Linkage::Ward1 ? std::sqrt(increase) : increase);
    };
    std::vector<Merge> merges;
    while (clusters.size() > 1) {
        Merge best{std::numeric_limits<float>::infinity(), -1, -1};
        for (std::size_t a = 0; a < clusters.size(); ++a)
            for (std::size_t b = a + 1; b < clusters.size(); ++b) {
                const float d = distance(clusters[a], clusters[b]);
                if (best.a < 0 || d < best.height)
                    best = {d, static_cast<int>(a), static_cast<int>(b)};
            }
        merges.push_back(best);
        auto& kept = clusters[static_cast<std::size_t>(best.a)];
        const auto& gone = clusters[static_cast<std::size_t>(best.b)];
        kept.insert(kept.end(), gone.begin(), gone.end());
        clusters.erase(clusters.begin() + best.b);
    }
    return merges;
}

// Single linkage as a pass over the list of row pairs sorted by (distance
// rounded to float, first row, second row): each pair whose rows are in two
// clusters joins them, the clusters numbered by their first rows.
inline std::vector<Merge> SortedPairs(const NCDataMatrix<float>& data)
{
    struct Pair {
        float d;
        int r;
        int s;
    };
    const int n = data.SizeRows();
    std::vector<Pair> pairs;
    for (int r = 0; r < n; ++r)
        for (int s = r + 1; s < n; ++s)
            pairs.push_back({static_cast<float>(std::sqrt(ScaledSquares(data, r, s))), r, s});
    std::sort(pairs.begin(), pairs.end(), [](const Pair& x, const Pair& y) {
        return x.d != y.d ? x.d < y.d : (x.r != y.r ? x.r < y.r : x.s < y.s);
    });
    std::vector<int> cluster(static_cast<std::size_t>(n));
    for (int r = 0; r < n; ++r)
        cluster[static_cast<std::size_t>(r)] = r;
    std::vector<Merge> merges;
    for (const Pair& p : pairs) {
        const int x = cluster[static_cast<std::size_t>(p.r)];
        const int y = cluster[static_cast<std::size_t>(p.s)];
        if (x == y)
            continue;
        const int a = std::min(x, y);
        const int b = std::max(x, y);
        for (int& c : cluster)
            c = c == b ? a : (c > b ? c - 1 : c);
        merges.push_back({p.d, a, b});
    }
    return merges;
}

} // namespace ClusterChecks
