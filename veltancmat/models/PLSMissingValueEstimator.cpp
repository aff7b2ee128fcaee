#include "veltancmat/models/PLSMissingValueEstimator.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/NCError.h"

namespace {

const CancelText Aborted("Computations aborted.");
constexpr int Groups = 7;

// Adds components to `model` while the rule calls them significant and
// returns how many it did; the model holds one more (the first that
// failed) or, after a correlation failure, exactly these. The bar shows
// the share of Y explained so far.
int SignificantComponents(PLS_CrossValidated& model, NCProgress* progress)
{
    float done = 0.0f;
    for (;;) {
        SignificanceE::Significance verdict = SignificanceE::NA;
        try {
            // The rounds show their captions while the bar stands still,
            // and a break inside them reads as this function's own.
            ProgressSubRange still(progress, done, done, Aborted);
            try {
                verdict = model.NextComponent(progress);
            } catch (const CancelException&) {
                Aborted.Throw();
            }
        } catch (const NCError& error) {
            // A model whose residuals carry no more information about Y
            // keeps what it has; without any component there is nothing to
            // fill and the failure is the caller's to see.
            if (model.GetComponents() == 0 || !NCPLS::IsNoCorrelation(error))
                throw;
            return model.GetComponents();
        }
        CheckBreak(progress, Aborted);
        const float explained = model.GetRecords().back().r2yCum;
        done = IsMisVal(explained) ? 0.0f : explained;
        CheckedSetValue(progress, done, Aborted);
        if (!SignificanceE::IsSignificant(verdict))
            return model.GetComponents();
    }
}

void FillResponses(const NCDataMatrix<float>& x, NCDataMatrix<float>& y, NCProgress* progress)
{
    // Without gaps there is nothing to estimate, and no model to fit.
    if (!y.HasMissingValues())
        return;
    PLS_CrossValidated model(x, y, Groups, nullptr);
    const int a = SignificantComponents(model, progress);
    if (a == 0)
        return;

    const NCPLS& pls = model.GetModel();
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
