#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NCPLSPred.h"
#include "veltancmat/models/NCPLSResiduals.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace {

#include "models/fixtures/PLSReference.inc"

// Two responses built from the first two latent directions of x, plus noise.
NCDataMatrix<float> TwoResponses(const NCDataMatrix<float>& x)
{
    NCDataMatrix<float> y(x.SizeRows(), 2);
    for (int i = 1; i <= x.SizeRows(); ++i) {
        y(i, 1, x[i][1] - 0.5f * x[i][2] + 0.1f * std::sin(float(i)));
        y(i, 2, 0.3f * x[i][1] + x[i][3] + 0.1f * std::cos(float(i)));
    }
    return y;
}

NCPLS Fit(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int components)
{
    NCPLS pls(&x, &y, 500);
    for (int a = 1; a <= components; ++a) {
        pls.NextComponent(nullptr, nullptr, true, true);
        pls.CalculateResiduals();
    }
    return pls;
}

// Two orthogonal columns, and responses orthogonal to both or equal to
// the first (then one component explains y exactly and leaves F zero).
const float OrthogonalX[] = {1, 1, 1, -1, -1, 1, -1, -1};
const float IndependentY[] = {1, -1, -1, 1}, FirstColumnY[] = {1, 1, -1, -1};

// "level:text" of the NCError that f throws; empty when it throws none.
template <class F>
std::string ErrorOf(F f)
{
    const auto e = Caught<NCError>(f);
    return e ? std::to_string(static_cast<int>(e->GetLevel())) + ":" + e->what() : "";
}

} // namespace

// NIPALS PLS1 on centred data against scikit-learn: coefficients and fitted
// values for every model size, one iteration per component.
TEST(PLSModel, SingleResponseAgreesWithReference)
{
    const NCDataMatrix<float> x = FromRowMajor(PLSX, PLSRows, PLSCols);
    const NCDataMatrix<float> ym = FromRowMajor(PLSY, PLSRows, 1);
    const NCDataVector<float> y = ym.GetColumn(1);
    NCPLS pls(&x, &y, 100);
    for (int a = 1; a <= PLSCols; ++a) {
        ASSERT_TRUE(pls.NextComponent(nullptr, nullptr, false, true));
        EXPECT_EQ(pls.GetIterations(), 1) << "component " << a;
        pls.CalculateResiduals();
    }
    ASSERT_EQ(pls.GetComponents(), PLSCols);
    EXPECT_NEAR((*pls.GetWprim())[2].GetSS(), 1.0, 1e-6);

    for (int a = 1; a <= PLSCols; ++a) {
        const NCDataMatrix<float> b = pls.GetRegressionCoefficients(a);
        ASSERT_EQ(b.SizeRows(), PLSCols);
        ASSERT_EQ(b.SizeColumns(), 1);
        for (int j = 1; j <= PLSCols; ++j)
            EXPECT_NEAR(b[j][1], PLSCoefficients[(a - 1) * PLSCols + j - 1], 2e-4) << a << " components, x" << j;
        const NCDataMatrix<float> fitted = x * b;
        for (int i = 1; i <= PLSRows; ++i)
            EXPECT_NEAR(fitted[i][1], PLSFitted[(a - 1) * PLSRows + i - 1], 5e-4) << a << " components, row " << i;
    }
    EXPECT_TRUE(SameCells(pls.GetRegressionCoefficients(-1), pls.GetRegressionCoefficients(PLSCols)));
    EXPECT_TRUE(SameCells(pls.GetRegressionCoefficients(0), NCDataMatrix<float>(PLSCols, 1, 0.0f)));
    EXPECT_THROW(pls.GetRegressionCoefficients(PLSCols + 1), NCInternalError);

    // The vector and matrix forms of the response are the same model.
    EXPECT_TRUE(SameCells(*Fit(x, ym, 2).GetWprim(), pls.GetWprim()->SubMat(1, 2, 1, PLSCols)));
}

// Zero correlation and a break stop a component only with the strict flag.
TEST(PLSModel, StrictFlagStopsOnZeroCorrelationAndOnBreak)
{
    const NCDataMatrix<float> x = FromRowMajor(OrthogonalX, 4, 2);
    const NCDataMatrix<float> independentY = FromRowMajor(IndependentY, 4, 1), y = FromRowMajor(FirstColumnY, 4, 1);
    NCPLS independent(&x, &independentY, 50);
    EXPECT_EQ(ErrorOf([&] { independent.NextComponent(nullptr, nullptr, true, true); }),
              "1:The correlation between X and Y is zero or almost zero.\nComponent 1 cannot be computed.");
    EXPECT_EQ(independent.GetComponents(), 0);

    NCPLS explained(&x, &y, 50);
    explained.NextComponent(nullptr, nullptr, true, true);
    explained.CalculateResiduals();
    NCPLS lenient = explained;
    EXPECT_EQ(ErrorOf([&] { explained.NextComponent(nullptr, nullptr, true, true); }),
              "1:The correlation between X and Y is zero or almost zero.\nComponent 2 cannot be computed.");
    EXPECT_EQ(explained.GetPprim()->SizeRows(), 1);
    // Without the strict flag the guard does not stop the component.
    EXPECT_TRUE(lenient.NextComponent(nullptr, nullptr, true, false));
    EXPECT_EQ(lenient.GetComponents(), 2);

    const NCDataMatrix<float> noisy = LowRankTable(40, 6, 3, 1.0), responses = TwoResponses(noisy);
    for (const bool quiet : {false, true}) {
        NCProgress progress;
        progress.RequestBreak();
        NCPLS pls(&noisy, &responses, 1000);
        const auto cancel = Caught<CancelException>([&] { pls.NextComponent(&progress, nullptr, quiet, true); });
        ASSERT_TRUE(cancel) << "quiet " << quiet;
        EXPECT_STREQ(cancel->what(), "PLS component aborted.");
        EXPECT_EQ(pls.GetComponents(), 0);
        EXPECT_TRUE(pls.NextComponent(&progress, nullptr, quiet, false));
    }
}

TEST(PLSModel, ShuffleOnlyBeforeTheFirstComponent)
{
    const NCDataMatrix<float> x = LowRankTable(5, 3, 1, 0.1);
    const NCDataMatrix<float> y = TwoResponses(x);
    NCPLS pls(&x, &y, 50);
    const int permutation[] = {0, 3, 1, 5, 2, 4}; // 1-based: slot 0 unused
    pls.ShuffleYResiduals(permutation);
    for (int i = 1; i <= 5; ++i)
        EXPECT_EQ((*pls.GetYResiduals())[i], y[permutation[i]]) << "row " << i;
    ExpectCountsExact(*pls.GetYResiduals());
    const int repeated[] = {0, 1, 1, 2, 3, 4};
    EXPECT_THROW(pls.ShuffleYResiduals(repeated), NCInternalError);

    pls.NextComponent(nullptr, nullptr, true, true);
    NCPLS withoutResponses;
    EXPECT_EQ(ErrorOf([&] { pls.ShuffleYResiduals(permutation); }), "2:Unable to permutate PLS model.");
    EXPECT_EQ(ErrorOf([&] { withoutResponses.ShuffleYResiduals(permutation); }), "2:Unable to permutate PLS model.");
}

// Flipping a component changes its signs, not the predictions; the record
// keeps every matrix but not the component count.
TEST(PLSModel, FlipAndRecordRoundTrip)
{
    NCDataMatrix<float> x = LowRankTable(15, 4, 2, 0.3);
    KnockOut(x, 0.1);
    const NCPLS pls = Fit(x, TwoResponses(LowRankTable(15, 4, 2, 0.3)), 2);
    NCPLS flipped = pls;
    flipped.FlipComponent(2);
    for (auto get : {&NCPLS::GetTprim, &NCPLS::GetUprim, &NCPLS::GetWprim, &NCPLS::GetPprim, &NCPLS::GetCprim}) {
        EXPECT_EQ((*(flipped.*get)())[1], (*(pls.*get)())[1]);
        EXPECT_EQ((*(flipped.*get)())[2], (*(pls.*get)())[2] * -1.0);
    }
    const NCDataMatrix<float> b = pls.GetRegressionCoefficients(-1), bf = flipped.GetRegressionCoefficients(-1);
    for (int j = 1; j <= 4; ++j)
        for (int m = 1; m <= 2; ++m)
            EXPECT_NEAR(bf[j][m], b[j][m], 1e-5);
    EXPECT_THROW(flipped.FlipComponent(3), NCInternalError);

    std::stringstream s;
    ASSERT_TRUE((s << pls).good());
    pls.QvStreamableReset();

    NCPLS read;
    ASSERT_TRUE((s >> read).good());
    for (auto get : {&NCPLS::GetCprim, &NCPLS::GetPprim, &NCPLS::GetWprim, &NCPLS::GetUprim, &NCPLS::GetTprim,
                     &NCPLS::GetXResiduals, &NCPLS::GetYResiduals})
        EXPECT_TRUE(SameCells(*(read.*get)(), *(pls.*get)()));
    ExpectCountsExact(*read.GetXResiduals());
    EXPECT_EQ(read.GetMaxIterations(), 500);
    EXPECT_EQ(read.GetIterations(), pls.GetIterations());
    EXPECT_EQ(read.GetComponents(), 0); // not part of the record

    std::string other = s.str();
    const std::size_t at = other.find("NCPLS") + 5;
    other[at] = static_cast<char>(other[at] + 1);
    std::stringstream bad(other);
    NCPLS untouched;
    EXPECT_FALSE((bad >> untouched).good());
    EXPECT_EQ(untouched.GetPprim()->SizeRows(), 0);
}

TEST(PLSPrediction, TrainingRowsReproduceTheModel)
{
    NCDataMatrix<float> x = LowRankTable(25, 6, 3, 0.2);
    const NCDataMatrix<float> y = TwoResponses(x);
    KnockOut(x, 0.08);
    const NCPLS pls = Fit(x, y, 3);
    NCPLSPred pred(&x, pls.GetWprim(), pls.GetPprim(), pls.GetCprim(), 0.5f);
    NCDataMatrix<float> xInPlace = x, yInPlace;
    NCPLSPred inPlace(true, &xInPlace, &yInPlace, *pls.GetWprim(), *pls.GetPprim(), *pls.GetCprim(), 0.5f);
    ASSERT_EQ(pred.GetMaxComp(), 3);
    ASSERT_EQ(pred.SizeObservations(), 25);
    EXPECT_TRUE(SameCells(yInPlace, NCDataMatrix<float>(25, 2, 0.0f)));

    NCDataMatrix<float> fitted(25, 2, 0.0f);
    for (int a = 1; a <= 3; ++a) {
        pred.CalcNextComponent();
        inPlace.CalcNextComponent();
        EXPECT_EQ(pred.GetCompComputed(), a);
        fitted.AddVprimV((*pls.GetTprim())[a], (*pls.GetCprim())[a], 1.0);
        for (int i = 1; i <= 25; ++i) {
            ASSERT_NEAR(pred[i], (*pls.GetTprim())[a][i], 1e-4) << a << "," << i;
            for (int m = 1; m <= 2; ++m)
                ASSERT_NEAR(pred.GetYPred()[i][m], fitted[i][m], 1e-4) << a << "," << i;
        }
    }
    EXPECT_TRUE(SameCells(pred.GetYPred(), yInPlace));
    EXPECT_TRUE(SameCells(pred.GetXResiduals(), xInPlace));
    NCDataMatrix<float> difference;
    pred.GetXResiduals().AddMat(*pls.GetXResiduals(), difference, -1.0);
    EXPECT_NEAR(difference.GetSS(), 0.0, 1e-8);
    EXPECT_THROW(pred.CalcNextComponent(), NCInternalError);
}

// Component a needs a present values of a row; a lower limit caps the gaps.
TEST(PLSPrediction, RowsWithTooManyGapsGetMissingScores)
{
    const NCDataMatrix<float> x = LowRankTable(20, 5, 3, 0.2);
    const NCPLS pls = Fit(x, TwoResponses(x), 3);
    NCDataMatrix<float> fresh = x.SubMat(1, 3, 1, 5);
    for (int j = 1; j <= 3; ++j)
        fresh(1, j, -99.0f); // 3 gaps: K - a + 1 for a = 3
    fresh(2, 5, -99.0f);     // 1 gap
    NCDataMatrix<float> all = fresh;
    NCPLSResiduals scores(&all, *pls.GetWprim(), *pls.GetPprim(), 1.0f);
    for (int a = 1; a <= 3; ++a) {
        scores.CalcNextComponent();
        EXPECT_EQ(scores[1] == -99.0f, a == 3) << "component " << a;
        EXPECT_NE(scores[2], -99.0f);
        EXPECT_NEAR(scores[3], (*pls.GetTprim())[a][3], 1e-4);
    }
    NCDataMatrix<float> capped = fresh;
    NCPLSResiduals strict(&capped, *pls.GetWprim(), *pls.GetPprim(), 0.2f); // trunc(5 * 0.2) = 1 gap
    strict.CalcNextComponent();
    EXPECT_EQ(strict[1], -99.0f);
    EXPECT_NE(strict[2], -99.0f);
}
