#include "cli/PlsPermutation.h"

#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace veltan_cli {

double InterceptAtZero(const std::vector<std::pair<double, double>>& points)
{
    if (points.empty())
        return 0.0;
    double mx = 0.0, my = 0.0;
    for (const auto& [x, y] : points) {
        mx += x;
        my += y;
    }
    mx /= static_cast<double>(points.size());
    my /= static_cast<double>(points.size());
    double sxx = 0.0, sxy = 0.0;
    for (const auto& [x, y] : points) {
        sxx += (x - mx) * (x - mx);
        sxy += (x - mx) * (y - my);
    }
    if (sxx <= 0.0)
        return my;
    return my - sxy / sxx * mx;
}

double MeanPermutedCorrelation(const NCDataMatrix<float>& y, const std::vector<int>& permutation)
{
    double total = 0.0;
    int counted = 0;
    for (int j = 1; j <= y.SizeColumns(); ++j) {
        double n = 0.0, sa = 0.0, sb = 0.0, saa = 0.0, sbb = 0.0, sab = 0.0;
        for (int i = 1; i <= y.SizeRows(); ++i) {
            const float a = y[i][j], b = y[permutation[static_cast<std::size_t>(i - 1)]][j];
            if (IsMisVal(a) || IsMisVal(b))
                continue;
            n += 1.0;
            sa += a;
            sb += b;
            saa += static_cast<double>(a) * a;
            sbb += static_cast<double>(b) * b;
            sab += static_cast<double>(a) * b;
        }
        if (n < 2.0)
            continue;
        const double va = saa - sa * sa / n, vb = sbb - sb * sb / n;
        if (va <= 0.0 || vb <= 0.0)
            continue;
        total += (sab - sa * sb / n) / std::sqrt(va * vb);
        ++counted;
    }
    return counted > 0 ? total / counted : 0.0;
}

namespace {

// Refits `components` components to responses shuffled by `order`; a fit
// that the shuffled responses leave without X-Y correlation stands at the
// components it has.
PermutationRow PermutedFit(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int components, int groups,
                           const std::vector<int>& order, NCProgress& progress)
{
    const CancelText aborted("Calculation of", "PLS component aborted.");
    std::vector<int> oneBased(order.size() + 1, 0);
    std::copy(order.begin(), order.end(), oneBased.begin() + 1);
    PLS_CrossValidated model(x, y, groups, nullptr);
    model.PermuteResponses(oneBased.data());
    model.KeepEveryComponent(true);
    progress.SetRangeInternal(0.0f, static_cast<float>(components));
    for (int a = 1; a <= components; ++a) {
        try {
            ProgressSubRange component(&progress, static_cast<float>(a - 1), static_cast<float>(a), aborted);
            model.NextComponent(&progress);
        } catch (const NCError& e) {
            if (!NCPLS::IsNoCorrelation(e))
                throw;
            break;
        }
    }
    PermutationRow row;
    row.correlation = static_cast<float>(MeanPermutedCorrelation(y, order));
    // Shuffling rows keeps the responses' sum of squares.
    const std::vector<PLS_CrossValidated::Component>& fitted = model.GetRecords();
    row.r2y = fitted.empty() || IsMisVal(fitted.back().r2yCum) ? 0.0f : fitted.back().r2yCum;
    row.q2 = fitted.empty() ? 0.0f : fitted.back().q2Cum;
    return row;
}

} // namespace

PermutationTest RunPermutationTest(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int components,
                                   int groups, int count, unsigned seed, float realR2Y, float realQ2,
                                   NCProgress& progress)
{
    PermutationTest test;
    test.components = components;
    test.seed = seed;
    test.r2y = realR2Y;
    test.q2 = realQ2;
    const CancelText aborted("Computations aborted.");
    std::mt19937 rng(seed);
    std::vector<int> order(static_cast<std::size_t>(y.SizeRows()));
    std::iota(order.begin(), order.end(), 1);
    progress.SetRangeInternal(0.0f, static_cast<float>(count));
    for (int p = 0; p < count; ++p) {
        ProgressStep step(&progress, static_cast<float>(p), aborted,
                          "Permutation " + std::to_string(p + 1) + " of " + std::to_string(count));
        std::shuffle(order.begin(), order.end(), rng);
        test.rows.push_back(PermutedFit(x, y, components, groups, order, progress));
    }

    std::vector<std::pair<double, double>> r2yPoints{{1.0, realR2Y}}, q2Points{{1.0, realQ2}};
    for (const PermutationRow& row : test.rows) {
        r2yPoints.emplace_back(row.correlation, row.r2y);
        q2Points.emplace_back(row.correlation, row.q2);
        test.r2yReached += row.r2y >= realR2Y ? 1 : 0;
        test.q2Reached += row.q2 >= realQ2 ? 1 : 0;
    }
    test.r2yIntercept = InterceptAtZero(r2yPoints);
    test.q2Intercept = InterceptAtZero(q2Points);
    return test;
}

} // namespace veltan_cli
