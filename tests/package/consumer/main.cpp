// Fits a two-component PCA model of points near a plane in four variables
// and checks that the two components explain nearly all of the variation.
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/PCA_CrossValidated.h"
#include "veltancmat/preprocess/NCScale.h"

#include <cmath>
#include <cstdio>

int main()
{
    const int n = 40, k = 4;
    NCDataMatrix<float> x(n, k);
    for (int i = 1; i <= n; ++i) {
        const float a = std::sin(0.7f * static_cast<float>(i)), b = std::cos(1.3f * static_cast<float>(i));
        x(i, 1, a);
        x(i, 2, b);
        x(i, 3, a + b + 0.01f * std::sin(5.1f * static_cast<float>(i)));
        x(i, 4, a - b);
    }
    x(3, 2, -99.0f); // one missing cell, which the model fits around

    NCScale scale(k);
    for (int j = 1; j <= k; ++j)
        scale.SetType(j, NCScale::ScaleUnitVariance);
    scale.ScaleMatrix(&x, true);

    PCA_CrossValidated pca(x, nullptr, 7, nullptr, scale.GetCenterVector(), 0.05, 0);
    pca.KeepEveryComponent(true);
    NCProgress progress;
    NCDataMatrix<float> residuals, cvResiduals;
    for (int a = 1; a <= 2; ++a) {
        ProgressSubRange step(&progress, static_cast<float>(a - 1), static_cast<float>(a), "PCA aborted.");
        pca.NextComponent(residuals, cvResiduals, progress);
    }
    const float r2 = pca.GetRecords().back().r2Cum;
    std::printf("R2X(cum) of 2 components: %.4f\n", static_cast<double>(r2));
    return r2 > 0.99f ? 0 : 1;
}
