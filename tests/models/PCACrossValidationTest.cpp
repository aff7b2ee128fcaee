#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/PCACrossValidation.h"
#include "veltancmat/models/PCA_CrossValidated.h"
#include "veltancmat/models/SignificanceE.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using S = SignificanceE;

// Fits and validates `components` components the way a host does.
struct Validated {
    Validated(const NCDataMatrix<float>& x, int groups) : pca(&x, 500), cv(&pca, groups, nullptr, nullptr) {}
    void Next(NCProgress* progress = nullptr)
    {
        pca.NextComponent(progress, nullptr, 0, nullptr);
        const int a = pca.GetComponents();
        cv.NextComponent((*pca.GetPprim())[a], progress, a);
        q2.push_back(cv.GetQ2Tot());
        q2Cum.push_back(cv.GetQ2TotCum());
        pca.CalculateResiduals();
    }
    NCPCA pca;
    PCACrossValidation cv;
    std::vector<float> q2, q2Cum;
};

NCDataVector<float> Filled(int k, float value)
{
    return NCDataVector<float>(k, value);
}

} // namespace

TEST(Significance, NamesAndSignificantCodes)
{
    const char* names[] = {"R1", "R2", "R5", "NS", "N3", "N4", "U", "NA", "RB1", "RB2", "NB1"};
    for (int s = 0; s < S::Count; ++s)
        EXPECT_EQ(S::GetSignificance(static_cast<S::Significance>(s)), names[s]);
    EXPECT_EQ(S::GetSignificance(static_cast<S::Significance>(11)), "");
    std::vector<int> significant;
    for (int s = 0; s < S::Count; ++s)
        if (S::IsSignificant(static_cast<S::Significance>(s)))
            significant.push_back(s);
    EXPECT_EQ(significant, (std::vector<int>{0, 1, 2, 8, 9}));
}

TEST(Significance, EachBranchOfTheRule)
{
    const NCDataVector<float> r2v = Filled(40, 0.05f);
    S::Significance prev = S::NA;
    // Q2 above the limit.
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 40, 0.3f, r2v, 12.0f, 0.0f, 0.4f,
                                     Filled(40, 0.0f), 0.05f, 0),
              S::R1);
    // Not significant alone: eigenvalue 1.2 and K = 40 skip the variable
    // count, and the first such verdict is left undecided.
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 40, 0.03f, r2v, 1.2f, 0.0f, 0.01f,
                                     Filled(40, 0.9f), 0.05f, 0),
              S::U);
    // Following an undecided component it is plainly not significant, and
    // settles the previous one as not significant too.
    prev = S::U;
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 2, prev, 100, 40, 0.03f, r2v, 1.2f, 1.3f, 0.01f,
                                     Filled(40, 0.9f), 0.05f, 0),
              S::NS);
    EXPECT_EQ(prev, S::NS);
    // Near-equal eigenvalues: the next component's R1 confirms it as R5.
    prev = S::U;
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 2, prev, 100, 40, 0.2f, r2v, 2.95f, 3.00f, 0.3f,
                                     Filled(40, 0.0f), 0.05f, 0),
              S::R1);
    EXPECT_EQ(prev, S::R5);
    // ...but not when the eigenvalues differ by more than the tolerance.
    prev = S::U;
    NCPCA::GetSignificance(0.05f, true, 2, prev, 100, 40, 0.2f, r2v, 2.5f, 3.00f, 0.3f, Filled(40, 0.0f), 0.05f,
                           0);
    EXPECT_EQ(prev, S::NS);
}

TEST(Significance, SizeAndVarianceLimits)
{
    S::Significance prev = S::U;
    const NCDataVector<float> r2v = Filled(10, 0.5f);
    // N = 6, centred: (6 - 1) / 2 = 2 components at most.
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 3, prev, 6, 10, 0.5f, r2v, 3.0f, 3.0f, 0.9f, r2v, 0.1f, 0), S::N3);
    EXPECT_EQ(prev, S::NS);
    prev = S::R1;
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 2, prev, 6, 10, 0.5f, r2v, 3.0f, 3.0f, 0.9f, r2v, 0.1f, 0), S::R1);
    // Earlier components count against the size; so does K / 2.
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 2, prev, 6, 10, 0.5f, r2v, 3.0f, 3.0f, 0.9f, r2v, 0.1f, 1), S::N3);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, false, 3, prev, 100, 5, 0.5f, Filled(5, 0.5f), 3.0f, 3.0f, 0.9f,
                                     Filled(5, 0.5f), 0.1f, 0),
              S::N3);
    EXPECT_EQ(prev, S::R1); // only a pending verdict is rewritten

    // Too little variance: R2 under 1 % and no variable above 2 %.
    prev = S::U;
    NCDataVector<float> small = Filled(10, 0.01f);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 2, prev, 100, 10, 0.005f, small, 0.05f, 3.0f, 0.9f, small, 0.1f, 0),
              S::N4);
    EXPECT_EQ(prev, S::NS);
    small(7, 0.03f); // one variable explained well enough goes on to the Q2 test
    prev = S::NA;
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 10, 0.005f, small, 0.05f, 0.0f, 0.9f, small, 0.1f, 0),
              S::R1);
}

// K <= 25 needs sqrt(K) variables over the limit; K > 25 needs a fifth of
// them, and then only when the eigenvalue exceeds 1.5.
TEST(Significance, VariableCountThresholds)
{
    S::Significance prev = S::NA;
    NCDataVector<float> q2v = Filled(10, 0.0f);
    for (int j = 1; j <= 4; ++j)
        q2v(j, 0.5f);
    const NCDataVector<float> r2v = Filled(10, 0.2f);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 10, 0.2f, r2v, 1.0f, 0.0f, 0.0f, q2v, 0.1f, 0), S::R2);
    q2v(4, 0.0f); // 3 < sqrt(10)
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 10, 0.2f, r2v, 1.0f, 0.0f, 0.0f, q2v, 0.1f, 0), S::U);

    NCDataVector<float> wide = Filled(30, 0.0f);
    for (int j = 1; j <= 6; ++j)
        wide(j, 0.5f);
    const NCDataVector<float> r2w = Filled(30, 0.2f);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 30, 0.2f, r2w, 2.0f, 0.0f, 0.0f, wide, 0.1f, 0), S::R2);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 30, 0.2f, r2w, 1.4f, 0.0f, 0.0f, wide, 0.1f, 0), S::U);
    wide(6, 0.0f);
    EXPECT_EQ(NCPCA::GetSignificance(0.05f, true, 1, prev, 100, 30, 0.2f, r2w, 2.0f, 0.0f, 0.0f, wide, 0.1f, 0), S::U);
}

TEST(PCACrossValidation, Q2LimitFormula)
{
    EXPECT_EQ(PCACrossValidation::GetQ2Lim(0, true, 10, 5), -99.0f);
    // v = (10 - 1 - 1 + 1) (5 - 1 + 1) = 45 over (10)(6).
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(1, true, 10, 5), 0.25f);
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(1, false, 10, 5), 1.0f - 50.0f / 60.0f);
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(6, true, 10, 5), 1.0f);
}

TEST(PCACrossValidation, StructureIsPredictedAndNoiseIsNot)
{
    Validated structured(LowRankTable(60, 10, 2, 0.3), 7);
    structured.Next();
    structured.Next();
    EXPECT_GT(structured.q2[0], 0.5f);
    EXPECT_GT(structured.q2[1], structured.cv.GetQ2Lim(2, true));
    EXPECT_GT(structured.q2Cum[1], structured.q2Cum[0]);
    EXPECT_GT(structured.q2Cum[1], 0.9f);

    std::mt19937 gen(3);
    std::normal_distribution<float> normal;
    NCDataMatrix<float> noise(60, 10);
    for (int i = 1; i <= 60; ++i)
        for (int j = 1; j <= 10; ++j)
            noise(i, j, normal(gen));
    Validated random(noise, 7);
    random.Next();
    random.Next();
    EXPECT_LE(random.q2[0], random.cv.GetQ2Lim(1, true));
    // Cumulative values follow the capped product of the per-component ratios.
    const double ratio = std::min(1.0 - random.q2[1], 1.1);
    EXPECT_NEAR(random.q2Cum[1], 1.0 - (1.0 - random.q2Cum[0]) * ratio, 1e-5);
    EXPECT_NEAR(random.q2Cum[0], 1.0 - std::min(1.0 - random.q2[0], 1.1), 1e-5);
}

TEST(PCACrossValidation, RoundsAreAlignedAndResidualsConsistent)
{
    NCDataMatrix<float> x = LowRankTable(35, 8, 2, 0.3);
    KnockOut(x, 0.05);
    NCPCA pca(&x, 500);
    PCACrossValidation cv(&pca, 5, nullptr, nullptr);
    pca.NextComponent(nullptr, nullptr, 0, nullptr);
    const NCDataVector<float> p = (*pca.GetPprim())[1];
    cv.NextComponent(p, nullptr, 1);

    ASSERT_EQ(cv.GetPSet().SizeRows(), 5);
    ASSERT_EQ(cv.GetTSet().SizeColumns(), 35);
    for (int r = 1; r <= 5; ++r) {
        EXPECT_GT(cv.GetPSet()[r] * p, 0.9) << "round " << r;
        EXPECT_GT(cv.GetTSet()[r] * (*pca.GetTprim())[1], 0.0) << "round " << r;
    }
    // The residual of every present cell, and PRESS / SS from them.
    const NCDataMatrix<float>& f = cv.GetXPredResiduals();
    ExpectCountsExact(f);
    double ss = 0.0, press = 0.0;
    for (int i = 1; i <= 35; ++i)
        for (int j = 1; j <= 8; ++j) {
            EXPECT_EQ(f[i][j] == -99.0f, x[i][j] == -99.0f) << i << "," << j;
            if (x[i][j] != -99.0f) {
                ss += double(x[i][j]) * x[i][j];
                press += double(f[i][j]) * f[i][j];
            }
        }
    EXPECT_NEAR(cv.GetQ2Tot(), 1.0 - press / ss, 1e-5);
    EXPECT_EQ(cv.GetQ2XVar().Size(), 8);
}

TEST(PCACrossValidation, BadSetupIsRefused)
{
    const NCDataMatrix<float> x = LowRankTable(10, 4, 1, 0.1);
    NCPCA pca(&x, 100);
    EXPECT_THROW(PCACrossValidation(&pca, 1, nullptr, nullptr), NCError);
    const NCIntegralVector<int, -99> shortLabels{1, 0};
    EXPECT_THROW(PCACrossValidation(&pca, 2, &shortLabels, nullptr), NCInternalError);
    const NCIntegralVector<int, -99> outside{0, 1, 2, 3};
    EXPECT_THROW(PCACrossValidation(&pca, 3, nullptr, &outside), NCError);
    EXPECT_THROW(PCACrossValidation(&pca, 0.5f, NCDataVector<float>(3, 0.0f), 2, nullptr, nullptr), NCInternalError);
    PCACrossValidation cv(&pca, 2, nullptr, nullptr);
    EXPECT_THROW(cv.NextComponent(NCDataVector<float>(3, 0.5f), nullptr, 1), NCInternalError);
}

TEST(PCACrossValidation, CarriedCumulativeValuesContinue)
{
    const NCDataMatrix<float> x = LowRankTable(40, 6, 2, 0.3);
    Validated first(x, 4);
    first.Next();
    first.Next();

    // A model rebuilt after one component continues from the first values.
    Validated once(x, 4);
    once.Next();
    NCPCA rebuilt(once.pca.GetResiduals(), once.pca.GetPprim(), once.pca.GetTprim(), 500);
    PCACrossValidation resumed(&rebuilt, once.cv.GetQ2TotCum(), once.cv.GetQ2XVarCum(), 4, nullptr, nullptr);
    rebuilt.NextComponent(nullptr, nullptr, 0, nullptr);
    resumed.NextComponent((*rebuilt.GetPprim())[2], nullptr, 2);
    EXPECT_NEAR(resumed.GetQ2TotCum(), first.q2Cum[1], 1e-5);
    EXPECT_NEAR(resumed.GetQ2XVarCum()[3], first.cv.GetQ2XVarCum()[3], 1e-5);
}

TEST(PCACrossValidation, ProgressCaptionsAndCancel)
{
    const NCDataMatrix<float> x = LowRankTable(30, 6, 2, 0.5);
    NCPCA pca(&x, 500);
    PCACrossValidation cv(&pca, 3, nullptr, nullptr);
    pca.NextComponent(nullptr, nullptr, 0, nullptr);
    NCProgress progress;
    std::vector<std::string> captions;
    progress.SetObserver(
        [&](const NCProgressSnapshot& s) {
            if (captions.empty() || captions.back() != s.caption)
                captions.push_back(s.caption);
            if (s.caption == "CV round 2 of 3 (columns)")
                progress.RequestBreak();
        },
        std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    EXPECT_THROW(cv.NextComponent((*pca.GetPprim())[1], &progress, 1), CancelException);
    ASSERT_FALSE(captions.empty());
    EXPECT_NE(std::find(captions.begin(), captions.end(), "CV round 1 of 3 (rows)"), captions.end());
    EXPECT_NE(std::find(captions.begin(), captions.end(), "CV round 3 of 3 (rows)"), captions.end());
    EXPECT_EQ(std::find(captions.begin(), captions.end(), "CV round 3 of 3 (columns)"), captions.end());
}

TEST(PCACrossValidated, StopsAtTheFirstNonSignificantComponent)
{
    const NCDataMatrix<float> x = LowRankTable(50, 12, 2, 0.2);
    PCA_CrossValidated model(x, nullptr, 7, nullptr, NCDataVector<float>(12, 0.0f), 0.05, 0);
    EXPECT_TRUE(model.IsCentred());
    NCProgress progress;
    NCDataMatrix<float> residuals, predicted;
    std::vector<S::Significance> codes;
    for (int a = 1; a <= 6; ++a) {
        const S::Significance s = model.NextComponent(residuals, predicted, progress);
        codes.push_back(s);
        if (!S::IsSignificant(s) && s != S::U)
            break;
    }
    ASSERT_GE(codes.size(), 3u);
    EXPECT_EQ(codes[0], S::R1);
    EXPECT_EQ(codes[1], S::R1);
    EXPECT_EQ(model.GetComponents(), 2);
    EXPECT_THROW(model.NextComponent(residuals, predicted, progress), NCError);

    const auto& records = model.GetRecords();
    EXPECT_NEAR(records[1].r2Cum, 1.0 - model.GetModel().GetResiduals()->GetSS() / x.GetSS(), 0.02);
    EXPECT_NEAR(records[0].eigenvalue, records[0].r2 * 12.0f, 1e-5);
    EXPECT_GT(records[0].r2, records[1].r2);
    EXPECT_EQ(predicted.SizeRows(), 50);
    EXPECT_EQ(model.GetP(1).Size(), 12);
    EXPECT_EQ(model.GetT(2).Size(), 50);
    EXPECT_THROW(model.GetT(9), NCInternalError);
}

TEST(PCACrossValidated, KeepsEveryComponentOnRequest)
{
    const NCDataMatrix<float> x = LowRankTable(30, 8, 1, 0.3);
    PCA_CrossValidated model(x, nullptr, 5, nullptr, NCDataVector<float>(), 0.05, 0);
    EXPECT_FALSE(model.IsCentred());
    model.KeepEveryComponent(true);
    NCProgress progress;
    NCDataMatrix<float> residuals, predicted;
    for (int a = 1; a <= 3; ++a)
        model.NextComponent(residuals, predicted, progress);
    EXPECT_EQ(model.GetComponents(), 3);
    EXPECT_EQ(model.GetModel().GetPprim()->SizeRows(), 3);
    EXPECT_TRUE(SameCells(residuals, *model.GetModel().GetResiduals()));
}
