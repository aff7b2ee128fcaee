// The reference for bench/python_overhead.py: the same PCA fit as
// veltancmat.PCA().fit (unit-variance scaling, 7 groups, components while
// the significance rule accepts them), run from C++ on a matrix read from a
// raw float32 file, rows one after another.
//
//   bench_pca_fit FILE ROWS COLUMNS [REPEATS]   -> prints the best time in seconds
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/models/PCA_CrossValidated.h"
#include "veltancmat/platform/NCProgress.h"
#include "veltancmat/preprocess/NCScale.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

namespace {

int Fit(const NCDataMatrix<float>& data)
{
    NCDataMatrix<float> x = data;
    NCScale scale(x.SizeColumns());
    for (int j = 1; j <= x.SizeColumns(); ++j)
        scale.SetType(j, NCScale::ScaleUnitVariance);
    scale.ScaleMatrix(&x, true);
    PCA_CrossValidated cv(x, nullptr, 7, nullptr, scale.GetCenterVector(), 0.05, 0);
    NCProgress progress;
    NCDataMatrix<float> residuals, predResiduals;
    const int limit = std::min(x.SizeRows() - 1, x.SizeColumns());
    for (int a = 1; a <= limit; ++a) {
        const SignificanceE::Significance s = cv.NextComponent(residuals, predResiduals, progress);
        if (s != SignificanceE::U && !SignificanceE::IsSignificant(s))
            break;
    }
    return cv.GetComponents();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s FILE ROWS COLUMNS [REPEATS]\n", argv[0]);
        return 2;
    }
    const int n = std::atoi(argv[2]), k = std::atoi(argv[3]);
    const int repeats = argc > 4 ? std::max(1, std::atoi(argv[4])) : 1;
    std::ifstream file(argv[1], std::ios::binary);
    std::vector<float> row(static_cast<std::size_t>(k));
    NCDataMatrix<float> data(n, k);
    std::vector<float*> rows = data.GetMatrixAsPointerPointer();
    for (int i = 1; i <= n; ++i) {
        if (!file.read(reinterpret_cast<char*>(rows[static_cast<std::size_t>(i)] + 1),
                       static_cast<std::streamsize>(sizeof(float)) * k)) {
            std::fprintf(stderr, "%s: too short for %d x %d floats\n", argv[1], n, k);
            return 1;
        }
    }
    data.RecountMissing();
    double best = 1e300;
    int components = 0;
    for (int r = 0; r < repeats; ++r) {
        const auto start = std::chrono::steady_clock::now();
        components = Fit(data);
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::printf("%.4f %d\n", best, components);
    return 0;
}
