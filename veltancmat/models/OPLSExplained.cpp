#include "veltancmat/models/OPLSExplained.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCOPLS.h"

namespace {

constexpr float Missing = NCMisVal<float>;

// Cell (i, j) of the sum of the outer products of the rows of two
// component matrices (scores' x loadings); `present` is false when a score
// is missing.
double ComponentCell(const NCDataMatrix<float>& scores, const NCDataMatrix<float>& loadings, int i, int j,
                     bool& present)
{
    double sum = 0.0;
    present = true;
    for (int a = 1; a <= scores.SizeRows(); ++a) {
        present = present && !IsMisVal(scores[a][i]);
        sum += static_cast<double>(scores[a][i]) * loadings[a][j];
    }
    return sum;
}

float Share(double part, double whole) { return whole > 0.0 ? static_cast<float>(part / whole) : Missing; }

} // namespace

NCDataMatrix<float> GetOPLSFittedY(const NCDataMatrix<float>& tprim, const NCDataMatrix<float>& cprim,
                                   const NCDataMatrix<float>& toprim, const NCDataMatrix<float>& coprim)
{
    const int n = tprim.SizeColumns(), m = cprim.SizeColumns();
    NCDataMatrix<float> fitted(n, m, 0.0f);
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= m; ++j) {
            bool present = true, orthogonalPresent = true;
            const double sum = ComponentCell(tprim, cprim, i, j, present) +
                               (toprim.SizeRows() > 0 ? ComponentCell(toprim, coprim, i, j, orthogonalPresent) : 0.0);
            fitted(i, j, present && orthogonalPresent ? static_cast<float>(sum) : Missing);
        }
    return fitted;
}

OPLSExplained GetOPLSExplained(const NCOPLS& model, const NCDataMatrix<float>& x, const NCDataMatrix<float>& y)
{
    const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
    OPLSExplained explained;
    double ssX = 0.0, ssPredictive = 0.0, ssOrthogonal = 0.0;
    for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= k; ++j) {
            if (IsMisVal(x[i][j]))
                continue;
            bool present = true, orthogonalPresent = true;
            const double p = ComponentCell(*model.GetTprim(), *model.GetPprim(), i, j, present);
            const double o = ComponentCell(*model.GetTOprim(), *model.GetPOprim(), i, j, orthogonalPresent);
            ssX += static_cast<double>(x[i][j]) * x[i][j];
            ssPredictive += present ? p * p : 0.0;
            ssOrthogonal += orthogonalPresent ? o * o : 0.0;
        }
    explained.r2xPredictive = Share(ssPredictive, ssX);
    explained.r2xOrthogonal = Share(ssOrthogonal, ssX);

    const NCDataMatrix<float> fitted =
        GetOPLSFittedY(*model.GetTprim(), *model.GetCprim(), *model.GetTOprim(), *model.GetCOprim());
    explained.r2yResponses = NCDataVector<float>(m, Missing);
    double ssY = 0.0, ssResidual = 0.0;
    for (int j = 1; j <= m; ++j) {
        double column = 0.0, residual = 0.0;
        for (int i = 1; i <= n; ++i)
            if (!IsMisVal(y[i][j]) && !IsMisVal(fitted[i][j])) {
                const double e = static_cast<double>(y[i][j]) - fitted[i][j];
                column += static_cast<double>(y[i][j]) * y[i][j];
                residual += e * e;
            }
        explained.r2yResponses(j, Share(column - residual, column));
        ssY += column;
        ssResidual += residual;
    }
    explained.r2y = Share(ssY - ssResidual, ssY);
    return explained;
}
