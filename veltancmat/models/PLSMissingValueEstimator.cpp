#include "veltancmat/models/PLSMissingValueEstimator.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/models/PLSCrossValidation.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCError.h"

#include <vector>

namespace {

const CancelText Aborted("Computations aborted.");
constexpr int Groups = 7;
constexpr int MaxIterations = 200;

double PresentSS(const NCDataVector<float>& v)
{
    return v.HasValidValues() ? v.GetSS() : 0.0;
}

// The X-Y correlation guard of NCPLS: the data offer no further component.
bool NoCorrelation(const NCError& error)
{
    return error.GetLevel() == NCError::Warning && !dynamic_cast<const NCInternalError*>(&error);
}

// The number of leading components of `pls` that the rule keeps; the model
// holds one more (the first that failed) or, after a correlation failure,
// exactly these.
int SignificantComponents(NCPLS& pls, NCProgress* progress)
{
    const NCDataMatrix<float>& f = *pls.GetYResiduals();
    const int n = f.SizeRows(), k = pls.GetXResiduals()->SizeColumns(), m = f.SizeColumns();
    PLSCrossValidation cv(&pls, Groups, nullptr);

    std::vector<double> ss0(static_cast<std::size_t>(m) + 1, 0.0);
    double ss0Total = 0.0;
    for (int j = 1; j <= m; ++j) {
        ss0[static_cast<std::size_t>(j)] = PresentSS(f.GetColumn(j));
        ss0Total += ss0[static_cast<std::size_t>(j)];
    }

    double previous = ss0Total, done = 0.0;
    int kept = 0;
    NCDataVector<float> r2Responses(m, 0.0f);
    for (;;) {
        try {
            pls.NextComponent(nullptr, nullptr, false, true);
            // The rounds show their captions while the bar stands still,
            // and a break inside them reads as this function's own.
            ProgressSubRange rounds(progress, static_cast<float>(done), static_cast<float>(done), Aborted);
            try {
                cv.NextComponent(nullptr, MaxIterations, pls.GetTprim()->back(), progress, true);
            } catch (const CancelException&) {
                Aborted.Throw();
            }
        } catch (const NCError& error) {
            // A model whose residuals carry no more information about Y
            // keeps what it has; without any component there is nothing to
            // fill and the failure is the caller's to see.
            if (kept == 0 || !NoCorrelation(error))
                throw;
            return kept;
        }
        pls.CalculateResiduals();
        CheckBreak(progress, Aborted);

        const int a = pls.GetComponents();
        double ss = 0.0;
        for (int j = 1; j <= m; ++j) {
            const double ssj = PresentSS(f.GetColumn(j));
            const double s0 = ss0[static_cast<std::size_t>(j)];
            ss += ssj;
            r2Responses(j, s0 > 0.0 ? static_cast<float>((s0 - ssj) / s0) : 0.0f);
        }
        const float r2 = ss0Total > 0.0 ? static_cast<float>((previous - ss) / ss0Total) : 0.0f;
        done = ss0Total > 0.0 ? (ss0Total - ss) / ss0Total : 0.0;
        CheckedSetValue(progress, static_cast<float>(done), Aborted);

        const SignificanceE::Significance verdict = PLSCrossValidation::GetSignificance(
            n, k, m, a - 1, r2, r2Responses, cv.GetQ2Tot(), cv.GetQ2YVar(), cv.GetQ2Lim());
        if (!SignificanceE::IsSignificant(verdict))
            return kept;
        kept = a;
        previous = ss;
    }
}

void FillResponses(const NCDataMatrix<float>& x, NCDataMatrix<float>& y, NCProgress* progress)
{
    // Without gaps there is nothing to estimate, and no model to fit.
    if (!y.HasMissingValues())
        return;
    NCPLS pls(&x, &y, MaxIterations);
    const int a = SignificantComponents(pls, progress);
    if (a == 0)
        return;

    const int k = x.SizeColumns(), m = y.SizeColumns();
    // Every row of the training data is scored from its present values,
    // as long as it has at least one per component.
    NCPLSPred prediction(&x, pls.GetWprim()->SubMat(1, a, 1, k), pls.GetPprim()->SubMat(1, a, 1, k),
                         pls.GetCprim()->SubMat(1, a, 1, m), 1.0f);
    for (int c = 1; c <= a; ++c)
        prediction.CalcNextComponent();
    const NCDataMatrix<float>& predicted = prediction.GetYPred();
    for (int i = 1; i <= y.SizeRows(); ++i)
        for (int j = 1; j <= m; ++j)
            if (IsMisVal(y[i][j]) && !IsMisVal(predicted[i][j]))
                y(i, j, predicted[i][j]);
}

} // namespace

void PLSMissingValueEstimator(NCDataMatrix<float>& x, NCDataMatrix<float>& y, bool both, NCProgress* progress)
{
    if (x.SizeRows() != y.SizeRows())
        throw NCInternalError("PLSMissingValueEstimator");
    if (progress) {
        progress->SetText(ExceptionMessage::translate("Estimating missing values.").str());
        progress->SetRangeInternal(0.0f, both ? 2.0f : 1.0f);
    }
    FillResponses(x, y, progress);
    if (both) {
        ProgressSubRange second(progress, 1.0f, 2.0f, Aborted);
        PLSMissingValueEstimator(y, x, false, progress);
    }
}
