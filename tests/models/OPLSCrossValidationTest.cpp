#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/NCOPLSPred.h"
#include "veltancmat/models/OPLSCrossValidation.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"
#include "platform/RecordIO.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using IndexList = NCIntegralVector<int, -99>;

NCDataMatrix<float> TwoResponses(const NCDataMatrix<float>& x)
{
    NCDataMatrix<float> y(x.SizeRows(), 2);
    for (int i = 1; i <= x.SizeRows(); ++i) {
        const float a = x[i][1] == -99.0f ? 0.0f : x[i][1];
        const float b = x[i][2] == -99.0f ? 0.0f : x[i][2];
        y(i, 1, a - 0.3f * b + 0.4f * std::sin(float(i)));
        y(i, 2, 0.5f * a + b + 0.4f * std::cos(2.0f * float(i)));
    }
    return y;
}

bool AllMissing(const NCDataMatrix<float>& m)
{
    return m.GetNumMisVal() == m.SizeRows() * m.SizeColumns();
}

struct Table {
    NCDataMatrix<float> x, y;
};

Table Gappy(int n, int k, unsigned seed = 7)
{
    Table t{LowRankTable(n, k, 3, 0.6, seed), {}};
    t.y = TwoResponses(t.x);
    KnockOut(t.x, 0.08, seed + 1);
    KnockOut(t.y, 0.05, seed + 2);
    return t;
}

// Q2 per response and in total from predictions made round by round with
// the model and predictor classes themselves.
struct DirectQ2 {
    std::vector<double> perResponse;
    double total = 0.0;
};

DirectQ2 ComputeDirectly(const Table& t, const IndexList& groups, int rounds, int numPredictive, int orthogonal)
{
    const int n = t.x.SizeRows(), m = t.y.SizeColumns();
    NCDataMatrix<float> predictions(n, m, -99.0f);
    for (int g = 0; g < rounds; ++g) {
        IndexList test, train;
        for (int i = 1; i <= n; ++i)
            (groups[i] == g ? test : train).push_back(i);
        const NCDataMatrix<float> xTrain = t.x.GetRowSubMatrix(train), yTrain = t.y.GetRowSubMatrix(train);
        const NCDataMatrix<float> xTest = t.x.GetRowSubMatrix(test);
        NCOPLS model(&xTrain, &yTrain, numPredictive, 200);
        for (int k = 0; k <= orthogonal; ++k)
            model.NextComponent(nullptr);
        NCOPLSPred pred(&xTest, &model);
        for (int k = 1; k <= orthogonal; ++k)
            pred.CalcNextComponent();
        for (int j = 1; j <= test.Size(); ++j)
            for (int c = 1; c <= m; ++c)
                predictions(test[j], c, (*pred.GetYPred())[j][c]);
    }
    DirectQ2 q2;
    double press = 0.0, ss = 0.0;
    for (int c = 1; c <= m; ++c) {
        double pressC = 0.0, ssC = 0.0;
        for (int i = 1; i <= n; ++i) {
            const float y = t.y[i][c];
            if (IsMisVal(y))
                continue;
            ssC += double(y) * y;
            if (!IsMisVal(predictions[i][c]))
                pressC += (double(y) - predictions[i][c]) * (double(y) - predictions[i][c]);
        }
        q2.perResponse.push_back(1.0 - pressC / ssC);
        press += pressC;
        ss += ssC;
    }
    q2.total = 1.0 - press / ss;
    return q2;
}

void ExpectSameResults(const OPLSCrossValidation& a, const OPLSCrossValidation& b, const std::string& what)
{
    EXPECT_FLOAT_EQ(a.GetQ2TotCum(), b.GetQ2TotCum()) << what;
    EXPECT_TRUE(a.GetQ2YVarCum() == b.GetQ2YVarCum()) << what;
    EXPECT_TRUE(SameCells(a.GetYPred(), b.GetYPred())) << what;
    EXPECT_TRUE(SameCells(a.GetToSet(), b.GetToSet())) << what;
    EXPECT_TRUE(SameCells(a.GetTcv(), b.GetTcv())) << what;
    EXPECT_TRUE(a.GetTocv() == b.GetTocv()) << what;
    EXPECT_TRUE(a.GetSSYcv() == b.GetSSYcv()) << what;
    ASSERT_EQ(a.GetTSets().size(), b.GetTSets().size()) << what;
    for (std::size_t s = 0; s < a.GetTSets().size(); ++s)
        EXPECT_TRUE(SameCells(a.GetTSets()[s], b.GetTSets()[s])) << what << ", set " << s;
}

} // namespace

// Cumulative Q2 of every stage against PRESS summed from models fitted
// round by round, with the default groups and with the caller's.
TEST(OPLSCrossValidation, Q2AgreesWithADirectComputation)
{
    const Table t = Gappy(21, 6);
    IndexList own(21);
    for (int i = 1; i <= 21; ++i)
        own(i) = (i * 5) % 4;
    for (const IndexList* groups : std::initializer_list<const IndexList*>{nullptr, &own}) {
        const int rounds = groups ? 4 : 5;
        const IndexList labels = groups ? own : GetDeafultCVGroupsVector(21, rounds);
        OPLSCrossValidation cv(&t.x, &t.y, 2, rounds, nullptr, groups);
        EXPECT_EQ(cv.SizeCVRounds(), rounds);
        EXPECT_EQ(cv.GetNumPredictive(), 2);
        for (int k = 0; k <= 2; ++k) {
            if (k > 0)
                cv.NextComponent(nullptr);
            EXPECT_EQ(cv.SizeOComponents(), k);
            const DirectQ2 direct = ComputeDirectly(t, labels, rounds, 2, k);
            EXPECT_NEAR(cv.GetQ2TotCum(), direct.total, 1e-4) << k << " orthogonal";
            for (int m = 1; m <= 2; ++m)
                EXPECT_NEAR(cv.GetQ2YVarCum()[m], direct.perResponse[m - 1], 1e-4) << k << ", response " << m;
        }
        ExpectCountsExact(cv.GetYPred());
        EXPECT_EQ(cv.GetYPred().GetNumMisVal(), 0);
        const NCDataMatrix<float> residuals = cv.GetYPredResiduals();
        for (int i = 1; i <= 21; ++i) {
            for (int m = 1; m <= 2; ++m) {
                if (IsMisVal(t.y[i][m]))
                    EXPECT_TRUE(IsMisVal(residuals[i][m]));
                else
                    EXPECT_FLOAT_EQ(residuals[i][m], t.y[i][m] - cv.GetYPred()[i][m]);
            }
        }
    }
}

// Each round's scores: fitted for the rows it kept, predicted for those it
// left out, which are also the cross-validated scores.
TEST(OPLSCrossValidation, ScoreSetsHoldFittedAndPredictedScores)
{
    const Table t = Gappy(15, 5, 3);
    OPLSCrossValidation cv(&t.x, &t.y, 1, 3, nullptr, nullptr);
    EXPECT_TRUE(AllMissing(cv.GetToSet()));
    cv.NextComponent(nullptr);
    const IndexList groups = GetDeafultCVGroupsVector(15, 3);
    for (int g = 0; g < 3; ++g) {
        IndexList test, train;
        for (int i = 1; i <= 15; ++i)
            (groups[i] == g ? test : train).push_back(i);
        const NCDataMatrix<float> xTrain = t.x.GetRowSubMatrix(train), yTrain = t.y.GetRowSubMatrix(train);
        const NCDataMatrix<float> xTest = t.x.GetRowSubMatrix(test);
        NCOPLS model(&xTrain, &yTrain, 1, 200);
        model.NextComponent(nullptr);
        model.NextComponent(nullptr);
        NCOPLSPred pred(&xTest, &model);
        pred.CalcNextComponent();
        for (int j = 1; j <= train.Size(); ++j) {
            EXPECT_NEAR(cv.GetTSets()[0][g + 1][train[j]], (*model.GetTprim())[1][j], 1e-5);
            EXPECT_NEAR(cv.GetToSet()[g + 1][train[j]], (*model.GetTOprim())[1][j], 1e-5);
        }
        for (int j = 1; j <= test.Size(); ++j) {
            const int i = test[j];
            EXPECT_NEAR(cv.GetTSets()[0][g + 1][i], (*pred.GetTPred())[1][j], 1e-5);
            EXPECT_EQ(cv.GetTSets()[0][g + 1][i], cv.GetTcv()[1][i]);
            EXPECT_NEAR(cv.GetToSet()[g + 1][i], (*pred.GetTOPred())[1][j], 1e-5);
            EXPECT_EQ(cv.GetToSet()[g + 1][i], cv.GetTocv()[i]);
        }
        EXPECT_NEAR(cv.GetSSYcv()[g + 1], model.GetYResiduals().GetSS(), 1e-3);
        EXPECT_NEAR(cv.GetSSYcvOriginal()[g + 1], yTrain.GetSS(), 1e-3);
    }
}

// Q2 of a response with no prediction error is 1, by the fallback while
// every response so far is exact and by the formula afterwards; so an
// all-zero response (0 / 0) is 1 in front and not a number behind a
// response with errors. Rows never left out are not predicted.
TEST(OPLSCrossValidation, RunningSumRuleForExactResponses)
{
    Table t{LowRankTable(12, 4, 2, 0.5), {}};
    const NCDataMatrix<float> noisy = TwoResponses(t.x).SubMat(1, 12, 1, 1);
    const NCDataMatrix<float> zero(12, 1, 0.0f);
    t.y = zero;
    t.y.ConcatColumns(noisy);
    OPLSCrossValidation zeroFirst(&t.x, &t.y, 1, 3, nullptr, nullptr);
    EXPECT_EQ(zeroFirst.GetQ2YVarCum()[1], 1.0f);
    EXPECT_LT(zeroFirst.GetQ2YVarCum()[2], 1.0f);

    t.y = noisy;
    t.y.ConcatColumns(zero);
    OPLSCrossValidation zeroLast(&t.x, &t.y, 1, 3, nullptr, nullptr);
    EXPECT_TRUE(std::isnan(zeroLast.GetQ2YVarCum()[2]));
    EXPECT_FLOAT_EQ(zeroLast.GetQ2TotCum(), zeroFirst.GetQ2TotCum());

    // Nothing left out: no error anywhere, every Q2 is 1.
    const IndexList never(12, 9);
    OPLSCrossValidation none(&t.x, &t.y, 1, 3, nullptr, &never);
    EXPECT_TRUE(AllMissing(none.GetYPred()));
    EXPECT_EQ(none.GetQ2YVarCum()[1], 1.0f);
    EXPECT_EQ(none.GetQ2YVarCum()[2], 1.0f);
    EXPECT_EQ(none.GetQ2TotCum(), 1.0f);

    // Partly left out: the others keep missing predictions.
    IndexList some(12, 9);
    for (int i = 1; i <= 6; ++i)
        some(i) = i % 2;
    OPLSCrossValidation part(&t.x, &t.y, 1, 2, nullptr, &some);
    for (int i = 1; i <= 12; ++i)
        EXPECT_EQ(IsMisVal(part.GetYPred()[i][1]), i > 6) << i;
}

TEST(OPLSCrossValidation, RoundsGroupsAndTheQ2Limit)
{
    const Table t = Gappy(6, 4, 5);
    OPLSCrossValidation loo(&t.x, &t.y, 1, 10, nullptr, nullptr);
    EXPECT_EQ(loo.SizeCVRounds(), 6);
    EXPECT_EQ(loo.GetData().SizeRounds(), 6);
    EXPECT_EQ(loo.GetGroups(), GetDeafultCVGroupsVector(6, 6));
    EXPECT_EQ(loo.GetYPred().GetNumMisVal(), 0);

    for (const auto& [n, limit] : {std::pair{100, 0.05f}, std::pair{101, 0.0f}}) {
        const Table big = Gappy(n, 3, 2);
        EXPECT_EQ(OPLSCrossValidation(&big.x, &big.y, 1, 2, nullptr, nullptr).GetQ2Lim(), limit) << n;
    }

    const IndexList shortGroups(5, 0);
    EXPECT_THROW(OPLSCrossValidation(&t.x, &t.y, 1, 3, nullptr, &shortGroups), NCInternalError);
    EXPECT_THROW(OPLSCrossValidation(&t.x, &t.y, 1, 1, nullptr, nullptr), NCError);
    const IndexList allInOne(6, 0);
    EXPECT_THROW(OPLSCrossValidation(&t.x, &t.y, 1, 2, nullptr, &allInOne), NCError);
    const NCDataMatrix<float> shortY = t.y.SubMat(1, 5, 1, 2);
    EXPECT_THROW(OPLSCrossValidation(&t.x, &shortY, 1, 3, nullptr, nullptr), NCInternalError);
}

// The rounds survive a save: a validation rebuilt from the record continues
// exactly as one that was never interrupted.
TEST(OPLSCrossValidation, RecordRoundTripContinuesTheValidation)
{
    const Table t = Gappy(18, 5, 4);
    OPLSCrossValidation whole(&t.x, &t.y, 2, 4, nullptr, nullptr);
    whole.NextComponent(nullptr);
    const std::string bytes = RecordIO::Written(whole.GetData());

    OPLSCrossvalidationData read;
    ASSERT_TRUE(RecordIO::ReadOrRefuse(bytes, read));
    ASSERT_EQ(read.SizeRounds(), 4);
    EXPECT_TRUE(read.GetYColumnSS() == whole.GetData().GetYColumnSS());
    for (int g = 0; g < 4; ++g) {
        const auto slot = static_cast<std::size_t>(g);
        ASSERT_EQ(read.GetWLists()[slot].size(), 2u);
        for (std::size_t s = 0; s < 2; ++s) {
            EXPECT_TRUE(SameCells(read.GetWLists()[slot][s], whole.GetData().GetWLists()[slot][s]));
            EXPECT_TRUE(SameCells(read.GetPLists()[slot][s], whole.GetData().GetPLists()[slot][s]));
            EXPECT_TRUE(SameCells(read.GetCLists()[slot][s], whole.GetData().GetCLists()[slot][s]));
        }
        EXPECT_TRUE(SameCells(read.GetWOprims()[slot], whole.GetData().GetWOprims()[slot]));
        EXPECT_TRUE(SameCells(read.GetPOprims()[slot], whole.GetData().GetPOprims()[slot]));
        EXPECT_TRUE(SameCells(read.GetCOprims()[slot], whole.GetData().GetCOprims()[slot]));
    }

    OPLSCrossValidation resumed(&t.x, &t.y, &read, nullptr);
    EXPECT_EQ(resumed.SizeCVRounds(), 4);
    EXPECT_EQ(resumed.GetNumPredictive(), 2);
    EXPECT_EQ(resumed.SizeOComponents(), 1);
    EXPECT_TRUE(AllMissing(resumed.GetYPred()));
    EXPECT_TRUE(IsMisVal(resumed.GetQ2TotCum()));
    whole.NextComponent(nullptr);
    resumed.NextComponent(nullptr);
    ExpectSameResults(whole, resumed, "resumed");
    const OPLSCrossValidation copy = whole;
    ExpectSameResults(whole, copy, "copied");

    // Another version, and every truncation, are refused and leave the
    // object as it was.
    std::string later = bytes;
    later[8] = 2;
    EXPECT_FALSE(RecordIO::ReadOrRefuse(later, read));
    for (std::size_t cut : {bytes.size() - 1, bytes.size() / 2, std::size_t(12), std::size_t(10)})
        EXPECT_FALSE(RecordIO::ReadOrRefuse(bytes.substr(0, cut), read)) << cut;
    EXPECT_EQ(read.SizeRounds(), 4);
    EXPECT_EQ(RecordIO::Written(read), bytes);
    read.clear();
    EXPECT_EQ(read.SizeRounds(), 0);
    EXPECT_TRUE(read.GetYColumnSS().empty());
}

TEST(OPLSCrossValidation, BreakCancelsARound)
{
    const Table t = Gappy(20, 5, 6);
    NCProgress pressed;
    pressed.RequestBreak();
    auto e = Caught<CancelException>([&] { OPLSCrossValidation(&t.x, &t.y, 1, 4, &pressed, nullptr); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "OPLS cross-validation aborted.");

    // Inside a round's model fit the model's own message surfaces.
    NCProgress progress;
    int changes = 0;
    progress.SetObserver(
        [&](const NCProgressSnapshot&) {
            if (++changes == 8)
                progress.RequestBreak();
        },
        std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    e = Caught<CancelException>([&] { OPLSCrossValidation(&t.x, &t.y, 1, 4, &progress, nullptr); });
    ASSERT_TRUE(e);
    const std::string text = e->what();
    EXPECT_TRUE(text == "OPLS component aborted." || text == "OPLS cross-validation aborted.") << text;

    OPLSCrossValidation cv(&t.x, &t.y, 1, 4, nullptr, nullptr);
    e = Caught<CancelException>([&] { cv.NextComponent(&pressed); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "OPLS cross-validation aborted.");

    NCProgress whole;
    OPLSCrossValidation done(&t.x, &t.y, 1, 4, &whole, nullptr);
    EXPECT_NEAR(whole.GetFraction(), 1.0, 1e-6);
}
