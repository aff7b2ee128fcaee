#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

#include "models/fixtures/O2PLSReference.inc"

NCDataMatrix<float> WineX()
{
    return FromRowMajor(O2PLSX, O2PLSRows, O2PLSXCols);
}

NCDataMatrix<float> WineY()
{
    return FromRowMajor(O2PLSY, O2PLSRows, O2PLSYCols);
}

NCO2PLS Fitted(int nPred, int nOrthX, int nOrthY)
{
    NCO2PLS model(WineX(), WineY(), true, 200);
    model.Fit(nPred, nOrthX, nOrthY);
    return model;
}

double Dot(const NCDataVector<float>& a, const double* b)
{
    double sum = 0.0;
    for (int j = 1; j <= a.Size(); ++j)
        sum += double(a[j]) * b[j - 1];
    return sum;
}

// Each row of `actual` against the row-major `expected` up to its sign, to
// `tolerance` of the row's largest magnitude; returns the signs (+1, -1).
std::vector<double> ExpectRowsUpToSign(const NCDataMatrix<float>& actual, const double* expected, int rows, int cols,
                                       double tolerance, const std::string& what)
{
    EXPECT_EQ(actual.SizeRows(), rows) << what;
    std::vector<double> signs;
    if (actual.SizeRows() != rows)
        return signs;
    for (int a = 1; a <= rows; ++a) {
        const double* row = expected + (a - 1) * cols;
        EXPECT_EQ(actual[a].Size(), cols) << what;
        const double sign = Dot(actual[a], row) < 0.0 ? -1.0 : 1.0;
        const double scale = std::max(1.0, std::abs(*std::max_element(row, row + cols, [](double x, double y) {
            return std::abs(x) < std::abs(y);
        })));
        for (int j = 1; j <= cols; ++j)
            EXPECT_NEAR(actual[a][j], sign * row[j - 1], tolerance * scale) << what << " row " << a << " col " << j;
        signs.push_back(sign);
    }
    return signs;
}

// Rows whose signs are given: expected row a times signs[a].
void ExpectRowsWithSigns(const NCDataMatrix<float>& actual, const double* expected, int cols,
                         const std::vector<double>& signs, double tolerance, const std::string& what)
{
    ASSERT_EQ(actual.SizeRows(), static_cast<int>(signs.size())) << what;
    for (int a = 1; a <= actual.SizeRows(); ++a)
        for (int j = 1; j <= cols; ++j)
            EXPECT_NEAR(actual[a][j], signs[a - 1] * expected[(a - 1) * cols + j - 1], tolerance) << what;
}

// B (A x A) of scores whose signs are given: B_ab changes with s_a s_b.
void ExpectRelation(const NCDataMatrix<float>& actual, const double* expected, const std::vector<double>& signs,
                    const std::string& what)
{
    const int a = static_cast<int>(signs.size());
    ASSERT_EQ(actual.SizeRows(), a) << what;
    for (int r = 1; r <= a; ++r)
        for (int c = 1; c <= a; ++c)
            EXPECT_NEAR(actual[r][c], signs[r - 1] * signs[c - 1] * expected[(r - 1) * a + c - 1], 2e-4) << what;
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

void ExpectClose(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b, double tolerance, const char* what = "")
{
    ASSERT_EQ(a.SizeRows(), b.SizeRows()) << what;
    ASSERT_EQ(a.SizeColumns(), b.SizeColumns()) << what;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j)
            EXPECT_NEAR(a[i][j], b[i][j], tolerance) << what << " (" << i << ", " << j << ")";
}

// ---- agreement with the NumPy implementation of the 2003 algorithm ------

TEST(O2PLSReference, EveryMatrixAgreesUpToSign)
{
    constexpr double tol = 2e-5;
    const int n = O2PLSRows, k = O2PLSXCols, m = O2PLSYCols;
    for (const O2PLSReferenceCase& ref : O2PLSCases) {
        SCOPED_TRACE(testing::Message() << ref.pred << " joint, " << ref.orthX << " X-orth, " << ref.orthY
                                        << " Y-orth");
        const NCO2PLS model = Fitted(ref.pred, ref.orthX, ref.orthY);
        const auto s = ExpectRowsUpToSign(model.GetTprim(), ref.T, ref.pred, n, tol, "T");
        ExpectRowsWithSigns(model.GetUprim(), ref.U, n, s, tol * 5, "U");
        ExpectRowsWithSigns(model.GetWprim(), ref.W, k, s, tol, "W");
        ExpectRowsWithSigns(model.GetPprim(), ref.P, k, s, tol, "P");
        ExpectRowsWithSigns(model.GetCprim(), ref.C, m, s, tol, "C");
        ExpectRowsWithSigns(model.GetQprim(), ref.Q, m, s, tol, "Q");
        ExpectRelation(model.GetBTU(), ref.BTU, s, "B_TU");
        ExpectRelation(model.GetBUT(), ref.BUT, s, "B_UT");
        const auto sx = ExpectRowsUpToSign(model.GetTOXprim(), ref.TOX, ref.orthX, n, tol, "TO_X");
        ExpectRowsWithSigns(model.GetWOXprim(), ref.WOX, k, sx, tol, "WO_X");
        ExpectRowsWithSigns(model.GetPOXprim(), ref.POX, k, sx, tol, "PO_X");
        ExpectRowsWithSigns(model.GetYLoadingsOfTOXprim(), ref.YOfTOX, m, sx, tol, "Y loadings of TO_X");
        const auto sy = ExpectRowsUpToSign(model.GetTOYprim(), ref.TOY, ref.orthY, n, tol, "TO_Y");
        ExpectRowsWithSigns(model.GetWOYprim(), ref.WOY, m, sy, tol, "WO_Y");
        ExpectRowsWithSigns(model.GetPOYprim(), ref.POY, m, sy, tol, "PO_Y");
        ExpectRowsWithSigns(model.GetXLoadingsOfTOYprim(), ref.XOfTOY, k, sy, tol, "X loadings of TO_Y");
    }
}

TEST(O2PLSReference, SumsOfSquaresAreThoseOfTheScaledBlocks)
{
    // Unit variance over 60 rows: every column holds 59.
    const NCO2PLS model(WineX(), WineY(), true, 200);
    EXPECT_NEAR(model.GetSSX(), 59.0 * O2PLSXCols, 1e-3);
    EXPECT_NEAR(model.GetSSY(), 59.0 * O2PLSYCols, 1e-3);
    EXPECT_EQ(model.SizePredictive() + model.SizeOrthogonalX() + model.SizeOrthogonalY(), 0);
}

TEST(O2PLSReference, WithoutJointComponentsTheOrthogonalOnesArePrincipalComponents)
{
    const NCO2PLS model = Fitted(0, 2, 0);
    NCPCA pca(&model.GetX(), 500);
    for (int a = 1; a <= 2; ++a) {
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        NCDataVector<float> p = (*pca.GetPprim())[a];
        p.Normalize();
        std::vector<double> reference;
        for (int j = 1; j <= p.Size(); ++j)
            reference.push_back(p[j]);
        const NCDataMatrix<float> row = model.GetWOXprim().SubMat(a, a, 1, O2PLSXCols);
        ExpectRowsUpToSign(row, reference.data(), 1, O2PLSXCols, 1e-4, "WO_X against PCA");
        pca.CalculateResiduals();
    }
    EXPECT_EQ(model.SizePredictive(), 0);
    EXPECT_TRUE(model.GetBTU().empty());
}

// ---- derived quantities -------------------------------------------------

TEST(O2PLSModel, CoefficientsMapTheFilteredBlocksOntoTheJointParts)
{
    const NCO2PLS model = Fitted(2, 2, 1);
    const NCDataMatrix<float> xf = Less(model.GetX(), model.GetTOXprim(), model.GetPOXprim());
    const NCDataMatrix<float> yf = Less(model.GetY(), model.GetTOYprim(), model.GetPOYprim());
    // Y predicted from X: T B_TU C'; X from Y: U B_UT W'.
    const NCDataMatrix<float> yJoint =
        model.GetTprim().MultiplyTransposeThis(model.GetBTU()).MatrixMultiply(model.GetCprim());
    const NCDataMatrix<float> xJoint =
        model.GetUprim().MultiplyTransposeThis(model.GetBUT()).MatrixMultiply(model.GetWprim());
    ExpectClose(xf.MatrixMultiply(model.GetCoefficients()), yJoint, 2e-4);
    ExpectClose(yf.MatrixMultiply(model.GetXCoefficients()), xJoint, 2e-4);
    EXPECT_EQ(model.GetCoefficients().SizeRows(), O2PLSXCols);
    EXPECT_EQ(model.GetXCoefficients().SizeRows(), O2PLSYCols);
}

TEST(O2PLSModel, FlipsNegateOnePartAndKeepEveryReconstruction)
{
    const NCO2PLS model = Fitted(2, 1, 1);
    NCO2PLS flipped(model);
    flipped.FlipPredictiveModel();
    flipped.FlipXSideModel();
    flipped.FlipYSideModel();
    const std::vector<std::pair<const NCDataMatrix<float>&, const NCDataMatrix<float>&>> negated = {
        {model.GetTprim(), flipped.GetTprim()},       {model.GetUprim(), flipped.GetUprim()},
        {model.GetWprim(), flipped.GetWprim()},       {model.GetPprim(), flipped.GetPprim()},
        {model.GetCprim(), flipped.GetCprim()},       {model.GetQprim(), flipped.GetQprim()},
        {model.GetTOXprim(), flipped.GetTOXprim()},   {model.GetWOXprim(), flipped.GetWOXprim()},
        {model.GetPOXprim(), flipped.GetPOXprim()},   {model.GetTOYprim(), flipped.GetTOYprim()},
        {model.GetWOYprim(), flipped.GetWOYprim()},   {model.GetPOYprim(), flipped.GetPOYprim()},
        {model.GetXLoadingsOfTOYprim(), flipped.GetXLoadingsOfTOYprim()},
        {model.GetYLoadingsOfTOXprim(), flipped.GetYLoadingsOfTOXprim()}};
    for (const auto& [before, after] : negated) {
        ASSERT_FALSE(before.empty());
        NCDataMatrix<float> sum;
        before.AddMat(after, sum);
        EXPECT_EQ(sum.GetSSF(), 0.0f);
    }
    EXPECT_TRUE(SameCells(model.GetBTU(), flipped.GetBTU()));
    ExpectClose(model.GetCoefficients(), flipped.GetCoefficients(), 1e-6);
    flipped.FlipXSideModel();
    EXPECT_TRUE(SameCells(model.GetTOXprim(), flipped.GetTOXprim()));
    EXPECT_FALSE(SameCells(model.GetTOYprim(), flipped.GetTOYprim()));
}

// ---- the fit and its steps ----------------------------------------------

TEST(O2PLSFit, FittingTwiceGivesTheModelOfOneFit)
{
    NCO2PLS twice(WineX(), WineY(), true, 200);
    twice.Fit(2, 2, 1);
    twice.Fit(1, 1, 2);
    const NCO2PLS once = Fitted(1, 1, 2);
    EXPECT_TRUE(SameCells(twice.GetTprim(), once.GetTprim()));
    EXPECT_TRUE(SameCells(twice.GetQprim(), once.GetQprim()));
    EXPECT_TRUE(SameCells(twice.GetTOXprim(), once.GetTOXprim()));
    EXPECT_TRUE(SameCells(twice.GetPOYprim(), once.GetPOYprim()));
    EXPECT_TRUE(SameCells(twice.GetXLoadingsOfTOYprim(), once.GetXLoadingsOfTOYprim()));
    EXPECT_TRUE(SameCells(twice.GetBUT(), once.GetBUT()));
    EXPECT_EQ(twice.SizeOrthogonalX(), 1);
    EXPECT_EQ(twice.SizeOrthogonalY(), 2);
    EXPECT_TRUE(twice.GetXResiduals().empty());
    EXPECT_TRUE(twice.GetYResiduals().empty());
}

TEST(O2PLSFit, TheStepsByHandGiveTheModelOfFit)
{
    NCO2PLS steps(WineX(), WineY(), true, 200);
    steps.NextOrthogonalComponent(true, 2);
    steps.NextOrthogonalComponent(false, 2);
    steps.InitPredCompCalculation();
    steps.NextPredictiveComp();
    steps.SubtractLastPredictiveComp();
    steps.NextPredictiveComp();
    steps.Finalise();
    const NCO2PLS fit = Fitted(2, 1, 1);
    EXPECT_TRUE(SameCells(steps.GetUprim(), fit.GetUprim()));
    EXPECT_TRUE(SameCells(steps.GetWOYprim(), fit.GetWOYprim()));
    EXPECT_TRUE(SameCells(steps.GetBTU(), fit.GetBTU()));
    EXPECT_FALSE(steps.GetXResiduals().empty());
    steps.UnFit();
    EXPECT_EQ(steps.SizePredictive() + steps.SizeOrthogonalX() + steps.SizeOrthogonalY(), 0);
    EXPECT_TRUE(steps.GetXLoadingsOfTOYprim().empty());
    EXPECT_TRUE(steps.GetBUT().empty());
}

TEST(O2PLSFit, JointStepsOutOfSequenceThrow)
{
    NCO2PLS model(WineX(), WineY(), true, 200);
    for (auto step : {&NCO2PLS::NextPredictiveComp, &NCO2PLS::SubtractLastPredictiveComp}) {
        const auto e = Caught<NCInternalError>([&] { (model.*step)(); });
        ASSERT_TRUE(e);
        EXPECT_EQ(e->messages().messages().front().source(), "Function call out of sequence.");
    }
    EXPECT_EQ(Caught<NCInternalError>([&] { model.NextPredictiveComp(); })->GetWhere(),
              "NCO2PLS::NextPredictiveComp");
    // A finished fit empties E, so a further joint step is out of sequence too.
    model.Fit(1, 0, 0);
    EXPECT_TRUE(Caught<NCInternalError>([&] { model.NextPredictiveComp(); }));
    model.InitPredCompCalculation();
    EXPECT_EQ(model.SizePredictive(), 0);
    EXPECT_TRUE(Caught<NCInternalError>([&] { model.SubtractLastPredictiveComp(); }));
    model.NextPredictiveComp();
    EXPECT_EQ(model.SizePredictive(), 1);
}

TEST(O2PLSFit, ConstructionRefusesUnequalRowsAndMissingCells)
{
    const NCDataMatrix<float> x = WineX();
    NCDataMatrix<float> shortY = WineY();
    shortY.RemoveRows(1, 1);
    const auto rows = Caught<NCInternalError>([&] { NCO2PLS model(x, shortY, true, 200); });
    ASSERT_TRUE(rows);
    EXPECT_EQ(rows->GetWhere(), "NCO2PLS::NCO2PLS");
    EXPECT_EQ(rows->messages().messages().front().source(), "The X and Y matrices have different number of rows.");
    for (bool inX : {true, false}) {
        NCDataMatrix<float> a = WineX(), b = WineY();
        (inX ? a : b)(O2PLSRows, 2, -99.0f);
        const auto missing = Caught<NCInternalError>([&] { NCO2PLS model(a, b, false, 200); });
        ASSERT_TRUE(missing);
        EXPECT_EQ(missing->GetWhere(), "NCO2PLS::NCO2PLS");
        EXPECT_EQ(missing->messages().messages().front().source(),
                  "The X and Y matrices can not contain missing values.");
    }
}

TEST(O2PLSFit, AJointPartWithoutScoresCannotBeCalculated)
{
    // Y entirely 0: the joint weights and scores come out missing.
    NCO2PLS model(WineX(), NCDataMatrix<float>(O2PLSRows, 2, 0.0f), false, 200);
    const auto e = Caught<NCError>([&] { model.Fit(1, 0, 0); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->GetLevel(), NCError::Error);
    EXPECT_EQ(std::string(e->what()), "OPLS model could not be calculated.");
}

// ---- dimensionality -----------------------------------------------------

std::vector<std::string> Texts(const Exception& e)
{
    std::vector<std::string> texts;
    for (const ExceptionMessage& m : e.messages().messages())
        texts.push_back(m.str());
    return texts;
}

TEST(O2PLSDimensions, MessagesNameTheSideAndItsCount)
{
    const std::string last = "More components can not be calculated.";
    using D = NCO2PLSDimensionalityException;
    const std::vector<std::pair<std::vector<int>, std::string>> cases = {
        {{D::XSide, 0, 4}, "There are no OPLS-orthogonal dimensions in X.\n"},
        {{D::XSide, 1, 0}, "There is only 1 OPLS-orthogonal dimension in X.\n"},
        {{D::XSide, 7, 1}, "There are only 7 OPLS-orthogonal dimensions in X.\n"},
        {{D::YSide, 3, 0}, "There are no OPLS-orthogonal dimensions in Y.\n"},
        {{D::YSide, 0, 1}, "There is only 1 OPLS-orthogonal dimension in Y.\n"},
        {{D::YSide, 2, 12}, "There are only 12 OPLS-orthogonal dimensions in Y.\n"}};
    for (const auto& [args, first] : cases) {
        const D e(args[0], args[1], args[2]);
        EXPECT_EQ(Texts(e), (std::vector<std::string>{first, last}));
        EXPECT_EQ(e.GetSide(), args[0]);
        EXPECT_EQ(e.GetOrthogonalX(), args[1]);
        EXPECT_EQ(e.GetOrthogonalY(), args[2]);
        EXPECT_EQ(e.GetLevel(), NCError::Error);
    }
}

TEST(O2PLSDimensions, MessagesAreTranslatedWithTheCountFilledIn)
{
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const NCO2PLSDimensionalityException e(NCO2PLSDimensionalityException::YSide, 0, 3);
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(std::string(e.what()), "Es gibt nur 3 OPLS-orthogonale Dimensionen in Y.\n\n"
                                     "Weitere Komponenten können nicht berechnet werden.");
}

// X has K columns and Y M; the limit of a side is min(columns + 1, N).
NCO2PLS Narrow(int k, int m, bool check)
{
    const NCDataMatrix<float> x = LowRankTable(12, k, std::min(k, 2), 0.3, 3);
    const NCDataMatrix<float> y = LowRankTable(12, m, std::min(m, 2), 0.3, 5);
    return NCO2PLS(x, y, check, 200);
}

TEST(O2PLSDimensions, EachSideStopsAtItsLimitWithItsCount)
{
    // X: K = 1 and two joint components leave none (0 + 2 >= 2).
    auto none = Caught<NCO2PLSDimensionalityException>([] { Narrow(1, 3, true).Fit(2, 1, 0); });
    ASSERT_TRUE(none);
    EXPECT_EQ(none->GetSide(), NCO2PLSDimensionalityException::XSide);
    EXPECT_EQ(Texts(*none).front(), "There are no OPLS-orthogonal dimensions in X.\n");
    // Y: M = 1 and one joint component leave one (1 + 1 >= 2 at the second).
    NCO2PLS oneY = Narrow(3, 1, true);
    auto one = Caught<NCO2PLSDimensionalityException>([&] { oneY.Fit(1, 1, 2); });
    ASSERT_TRUE(one);
    EXPECT_EQ(one->GetSide(), NCO2PLSDimensionalityException::YSide);
    EXPECT_EQ(one->GetOrthogonalX(), 1);
    EXPECT_EQ(one->GetOrthogonalY(), 1);
    EXPECT_EQ(Texts(*one).front(), "There is only 1 OPLS-orthogonal dimension in Y.\n");
    // The components found before the throw stay.
    EXPECT_EQ(oneY.SizeOrthogonalY(), 1);
    // X: K = 4 and one joint component leave four (4 + 1 >= 5).
    auto several = Caught<NCO2PLSDimensionalityException>([] { Narrow(4, 2, true).Fit(1, 5, 0); });
    ASSERT_TRUE(several);
    EXPECT_EQ(several->GetOrthogonalX(), 4);
    EXPECT_EQ(Texts(*several).front(), "There are only 4 OPLS-orthogonal dimensions in X.\n");
    // Just below each limit nothing is thrown.
    EXPECT_NO_THROW(Narrow(4, 2, true).Fit(1, 3, 0));
    EXPECT_NO_THROW(Narrow(4, 2, true).Fit(1, 0, 1));
}

TEST(O2PLSDimensions, FewRowsBoundBothSides)
{
    // N = 4 rows bound the count below the column limits: 2 + 2 >= 4.
    const NCDataMatrix<float> x = LowRankTable(4, 6, 2, 0.3, 3), y = LowRankTable(4, 5, 2, 0.3, 5);
    NCO2PLS model(x, y, true, 200);
    const auto e = Caught<NCO2PLSDimensionalityException>([&] { model.Fit(2, 0, 3); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->GetSide(), NCO2PLSDimensionalityException::YSide);
    EXPECT_EQ(e->GetOrthogonalY(), 2);
    EXPECT_THROW(model.NextOrthogonalComponent(true, 4), NCO2PLSDimensionalityException);
}

TEST(O2PLSDimensions, WithTheChecksOffNothingIsRefused)
{
    NCO2PLS model = Narrow(3, 2, false);
    EXPECT_FALSE(model.GetCheckDimensions());
    EXPECT_NO_THROW(model.Fit(1, 4, 3));
    EXPECT_EQ(model.SizeOrthogonalX(), 4);
    EXPECT_EQ(model.SizeOrthogonalY(), 3);
    EXPECT_NO_THROW(model.NextOrthogonalComponent(false, 1));
}

// ---- prediction ---------------------------------------------------------

TEST(O2PLSPred, TrainingXRowsReproduceTheFittedJointPart)
{
    const NCO2PLS model = Fitted(2, 2, 1);
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
    const NCO2PLS model = Fitted(1, 1, 3);
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

TEST(O2PLSPred, NewRowsAgreeWithTheReference)
{
    const NCDataMatrix<float> newX = FromRowMajor(O2PLSNewX, O2PLSNewRows, O2PLSXCols);
    const NCDataMatrix<float> newY = FromRowMajor(O2PLSNewY, O2PLSNewRows, O2PLSYCols);
    for (const O2PLSReferenceCase& ref : O2PLSCases) {
        SCOPED_TRACE(testing::Message() << ref.pred << "/" << ref.orthX << "/" << ref.orthY);
        const NCO2PLS model = Fitted(ref.pred, ref.orthX, ref.orthY);
        // Predictions do not depend on the signs of the components.
        ExpectClose(NCO2PLSPred(model, newX, true).GetPrediction(),
                    FromRowMajor(ref.YHat, O2PLSNewRows, O2PLSYCols), 5e-5, "Y from X");
        ExpectClose(NCO2PLSPred(model, newY, false).GetPrediction(),
                    FromRowMajor(ref.XHat, O2PLSNewRows, O2PLSXCols), 5e-5, "X from Y");
    }
}

TEST(O2PLSPred, EachRowIsPredictedOnItsOwn)
{
    const NCO2PLS model = Fitted(2, 1, 1);
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
    const NCO2PLS model = Fitted(0, 1, 0);
    const NCO2PLSPred pred(model, model.GetX(), true);
    ASSERT_EQ(pred.GetPrediction().SizeRows(), O2PLSRows);
    ASSERT_EQ(pred.GetPrediction().SizeColumns(), O2PLSYCols);
    EXPECT_EQ(pred.GetPrediction().GetSSF(), 0.0f);
    EXPECT_EQ(pred.GetJointScores().SizeRows(), 0);
    ExpectClose(pred.GetResiduals(), pred.GetFiltered(), 0.0, "no joint part");
    const NCDataMatrix<float> b = model.GetCoefficients();
    ASSERT_EQ(b.SizeRows(), O2PLSXCols);
    ASSERT_EQ(b.SizeColumns(), O2PLSYCols);
    EXPECT_EQ(b.GetSSF(), 0.0f);
}

TEST(O2PLSPred, RowsOfTheWrongWidthAreRefused)
{
    const NCO2PLS model = Fitted(1, 0, 0);
    try {
        const NCO2PLSPred pred(model, model.GetY(), true);
        FAIL() << "Y rows accepted as X rows";
    } catch (const NCInternalError& e) {
        EXPECT_EQ(e.GetWhere(), "NCO2PLSPred::NCO2PLSPred");
    }
    EXPECT_THROW(NCO2PLSPred(model, model.GetX(), false), NCInternalError);
}

TEST(O2PLSPred, PartsOfOneDirectionPredictAsTheWholeModelDoes)
{
    // What a saved model keeps must be enough: nothing else of the model is read.
    const NCO2PLS model = Fitted(2, 2, 1);
    const NCDataMatrix<float> newX = FromRowMajor(O2PLSNewX, O2PLSNewRows, O2PLSXCols);
    const NCDataMatrix<float> newY = FromRowMajor(O2PLSNewY, O2PLSNewRows, O2PLSYCols);
    const NCO2PLSXPred whole(model, newX);
    const NCO2PLSPred parts(newX, model.GetWOXprim(), model.GetPOXprim(), model.GetWprim(), model.GetBTU(),
                            model.GetCprim(), true);
    ExpectClose(parts.GetPrediction(), whole.GetPrediction(), 0.0, "Y from X");
    ExpectClose(parts.GetOrthogonalScores(), whole.GetOrthogonalScores(), 0.0, "TO_X");
    const NCO2PLSYPred mirror(model, newY);
    EXPECT_FALSE(mirror.IsFromX());
    const NCO2PLSPred mirrorParts(newY, model.GetWOYprim(), model.GetPOYprim(), model.GetCprim(), model.GetBUT(),
                                  model.GetWprim(), false);
    ExpectClose(mirrorParts.GetPrediction(), mirror.GetPrediction(), 0.0, "X from Y");
    ExpectClose(mirrorParts.GetJointScores(), mirror.GetJointScores(), 0.0, "U");

    // Parts that do not belong together.
    EXPECT_THROW(NCO2PLSPred(newY, model.GetWOXprim(), model.GetPOXprim(), model.GetWprim(), model.GetBTU(),
                             model.GetCprim(), true),
                 NCInternalError);
    EXPECT_THROW(NCO2PLSPred(newX, model.GetWOXprim(), model.GetPOYprim(), model.GetWprim(), model.GetBTU(),
                             model.GetCprim(), true),
                 NCInternalError);
    EXPECT_THROW(NCO2PLSPred(newX, model.GetWOXprim(), model.GetPOXprim(), model.GetWprim(), model.GetBTU(),
                             model.GetCprim().SubMat(1, 1, 1, O2PLSYCols), true),
                 NCInternalError);
}

// ---- process-wide settings ----------------------------------------------

TEST(O2PLSSettings, Q2LimitsKeepOnlyValuesInRangeAndDefaultToOnePercentAndTheFlagStartsOff)
{
    for (auto [set, get] : {std::pair{&SetO2PLSExternalQ2Limit, &GetO2PLSExternalQ2Limit},
                            std::pair{&SetO2PLSInternalQ2Limit, &GetO2PLSInternalQ2Limit}}) {
        set(-99.0f);
        EXPECT_FLOAT_EQ(get(), 0.01f);
        set(0.25f);
        EXPECT_FLOAT_EQ(get(), 0.25f);
        for (float ignored : {1.5f, -0.1f, -98.0f, 1.0001f})
            set(ignored);
        EXPECT_FLOAT_EQ(get(), 0.25f);
        set(0.0f);
        EXPECT_FLOAT_EQ(get(), 0.0f);
        set(1.0f);
        EXPECT_FLOAT_EQ(get(), 1.0f);
        set(-99.0f);
        EXPECT_FLOAT_EQ(get(), 0.01f);
    }
    // The two limits are separate.
    SetO2PLSInternalQ2Limit(0.5f);
    SetO2PLSExternalQ2Limit(0.2f);
    EXPECT_FLOAT_EQ(GetO2PLSInternalQ2Limit(), 0.5f);
    EXPECT_FLOAT_EQ(GetO2PLSExternalQ2Limit(), 0.2f);
    SetO2PLSInternalQ2Limit(-99.0f);
    SetO2PLSExternalQ2Limit(-99.0f);
    EXPECT_FALSE(NCO2PLS::GetShowMissingValueSupstitution());
    NCO2PLS::SetShowMissingValueSupstitution(true);
    EXPECT_TRUE(NCO2PLS::GetShowMissingValueSupstitution());
    NCO2PLS::SetShowMissingValueSupstitution(false);
    EXPECT_FALSE(NCO2PLS::GetShowMissingValueSupstitution());
}

} // namespace
