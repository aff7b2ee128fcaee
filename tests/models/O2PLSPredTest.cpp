#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

#include "models/fixtures/O2PLSReference.inc"

NCO2PLS WineModel(int nPred, int nOrthX, int nOrthY)
{
    NCO2PLS model(FromRowMajor(O2PLSX, O2PLSRows, O2PLSXCols), FromRowMajor(O2PLSY, O2PLSRows, O2PLSYCols), true,
                  200);
    model.Fit(nPred, nOrthX, nOrthY);
    return model;
}

void ExpectClose(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b, double tolerance, const char* what)
{
    ASSERT_EQ(a.SizeRows(), b.SizeRows()) << what;
    ASSERT_EQ(a.SizeColumns(), b.SizeColumns()) << what;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j)
            EXPECT_NEAR(a[i][j], b[i][j], tolerance) << what << " (" << i << ", " << j << ")";
}

// The block less the components given as rows of scores and loadings.
NCDataMatrix<float> Less(const NCDataMatrix<float>& block, const NCDataMatrix<float>& scores,
                         const NCDataMatrix<float>& loadings)
{
    NCDataMatrix<float> rest(block);
    for (int a = 1; a <= scores.SizeRows(); ++a)
        rest.TransformToSub_V_x_Vt(scores[a], loadings[a]);
    return rest;
}

TEST(O2PLSPred, TrainingXRowsReproduceTheFittedJointPart)
{
    const NCO2PLS model = WineModel(2, 2, 1);
    const NCO2PLSPred pred(model, model.GetX(), true);
    EXPECT_TRUE(pred.IsFromX());
    EXPECT_EQ(pred.SizeObservations(), O2PLSRows);
    ExpectClose(pred.GetOrthogonalScores(), model.GetTOXprim(), 1e-5, "TO_X");
    ExpectClose(pred.GetJointScores(), model.GetTprim(), 2e-5, "T");
    const NCDataMatrix<float> joint =
        model.GetTprim().MultiplyTransposeThis(model.GetBTU()).MatrixMultiply(model.GetCprim());
    ExpectClose(pred.GetPrediction(), joint, 2e-5, "T B_TU C'");
    // The same prediction through the coefficients of the filtered block.
    ExpectClose(pred.GetPrediction(), pred.GetFiltered().MatrixMultiply(model.GetCoefficients()), 2e-5, "X_f B");
    // What is left is orthogonal to the joint weights.
    ExpectClose(pred.GetResiduals().MultiplyTransposeOther(model.GetWprim()),
                NCDataMatrix<float>(O2PLSRows, 2, 0.0f), 1e-4, "E W");
}

TEST(O2PLSPred, TrainingYRowsReproduceTheFittedJointPart)
{
    const NCO2PLS model = WineModel(1, 1, 3);
    const NCO2PLSPred pred(model, model.GetY(), false);
    EXPECT_FALSE(pred.IsFromX());
    ExpectClose(pred.GetOrthogonalScores(), model.GetTOYprim(), 1e-5, "TO_Y");
    ExpectClose(pred.GetJointScores(), model.GetUprim(), 2e-5, "U");
    ExpectClose(pred.GetFiltered(), Less(model.GetY(), model.GetTOYprim(), model.GetPOYprim()), 1e-5, "Y_f");
    const NCDataMatrix<float> joint =
        model.GetUprim().MultiplyTransposeThis(model.GetBUT()).MatrixMultiply(model.GetWprim());
    ExpectClose(pred.GetPrediction(), joint, 2e-5, "U B_UT W'");
    ASSERT_EQ(pred.GetPrediction().SizeColumns(), O2PLSXCols);
}

TEST(O2PLSPred, EachRowIsPredictedOnItsOwn)
{
    const NCO2PLS model = WineModel(2, 1, 1);
    const NCO2PLSPred all(model, model.GetX(), true);
    NCDataMatrix<float> some = model.GetX().SubMat(7, 11, 1, O2PLSXCols);
    const NCO2PLSPred part(model, some, true);
    ExpectClose(part.GetPrediction(), all.GetPrediction().SubMat(7, 11, 1, O2PLSYCols), 1e-6, "rows 7-11");
    // A missing cell changes its own row only.
    some(2, 3, -99.0f);
    const NCO2PLSPred gap(model, some, true);
    for (int i : {1, 3, 4, 5})
        for (int j = 1; j <= O2PLSYCols; ++j)
            EXPECT_FLOAT_EQ(gap.GetPrediction()[i][j], part.GetPrediction()[i][j]);
    for (int j = 1; j <= O2PLSYCols; ++j)
        EXPECT_FALSE(IsMisVal(gap.GetPrediction()[2][j]));
}

TEST(O2PLSPred, WithoutJointPartThePredictionIsZero)
{
    const NCO2PLS model = WineModel(0, 1, 0);
    const NCO2PLSPred pred(model, model.GetX(), true);
    ASSERT_EQ(pred.GetPrediction().SizeRows(), O2PLSRows);
    ASSERT_EQ(pred.GetPrediction().SizeColumns(), O2PLSYCols);
    EXPECT_EQ(pred.GetPrediction().GetSSF(), 0.0f);
    EXPECT_EQ(pred.GetJointScores().SizeRows(), 0);
    ExpectClose(pred.GetResiduals(), pred.GetFiltered(), 0.0, "no joint part");
}

TEST(O2PLSPred, RowsOfTheWrongWidthAreRefused)
{
    const NCO2PLS model = WineModel(1, 0, 0);
    try {
        const NCO2PLSPred pred(model, model.GetY(), true);
        FAIL() << "Y rows accepted as X rows";
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), "NCO2PLSPred::NCO2PLSPred");
    }
    EXPECT_THROW(NCO2PLSPred(model, model.GetX(), false), NCInternalError);
}

} // namespace
