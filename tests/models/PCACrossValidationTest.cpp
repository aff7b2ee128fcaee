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
#include <set>
#include <string>
#include <vector>

namespace {

using S = SignificanceE;

// Fits and validates `components` components the way a host does.
struct Validated {
    Validated(const NCDataMatrix<float>& x, int groups, int components = 0)
        : pca(&x, 500), cv(&pca, groups, nullptr, nullptr)
    {
        for (int a = 1; a <= components; ++a)
            Next();
    }
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

// k values: the first `count` are `high`, the rest `rest`.
NCDataVector<float> Filled(int k, float rest, int count = 0, float high = 0.0f)
{
    NCDataVector<float> v(k, rest);
    for (int j = 1; j <= count; ++j)
        v(j, high);
    return v;
}

// One call of the rule (tolerance 0.05) with the previous verdict before and after it.
struct Verdict {
    S::Significance previous;
    bool centred;
    int component, n, k;
    float r2;
    NCDataVector<float> r2Variables;
    float eigenvalue, previousEigenvalue, q2;
    NCDataVector<float> q2Variables;
    float q2Limit;
    int earlier;
    S::Significance expected, previousAfter;
};

} // namespace

TEST(Significance, NamesAndSignificantCodes)
{
    const char* names[] = {"R1", "R2", "R5", "NS", "N3", "N4", "U", "NA", "RB1", "RB2", "NB1"};
    const std::vector<int> significant = {0, 1, 2, 8, 9};
    for (int s = 0; s < S::Count; ++s) {
        EXPECT_EQ(S::GetSignificance(static_cast<S::Significance>(s)), names[s]);
        const bool listed = std::find(significant.begin(), significant.end(), s) != significant.end();
        EXPECT_EQ(S::IsSignificant(static_cast<S::Significance>(s)), listed) << names[s];
    }
    EXPECT_EQ(S::GetSignificance(static_cast<S::Significance>(11)), "");
}

// Each branch of the rule; only a pending (U) previous verdict is ever rewritten.
TEST(Significance, EachBranchOfTheRule)
{
    const std::vector<Verdict> cases = {
        // Q2 above the limit.
        {S::NA, true, 1, 100, 40, 0.3, Filled(40, 0.05), 12, 0, 0.4, Filled(40, 0), 0.05, 0, S::R1, S::NA},
        // Not significant alone (eigenvalue 1.2 and K = 40 skip the variable count): the first one is undecided.
        {S::NA, true, 1, 100, 40, 0.03, Filled(40, 0.05), 1.2, 0, 0.01, Filled(40, 0.9), 0.05, 0, S::U, S::NA},
        // After an undecided component it is plainly not significant, and settles the previous one as NS too.
        {S::U, true, 2, 100, 40, 0.03, Filled(40, 0.05), 1.2, 1.3, 0.01, Filled(40, 0.9), 0.05, 0, S::NS, S::NS},
        // Near-equal eigenvalues: the next component's R1 confirms it as R5...
        {S::U, true, 2, 100, 40, 0.2, Filled(40, 0.05), 2.95, 3, 0.3, Filled(40, 0), 0.05, 0, S::R1, S::R5},
        // ...but not when the eigenvalues differ by more than the tolerance.
        {S::U, true, 2, 100, 40, 0.2, Filled(40, 0.05), 2.5, 3, 0.3, Filled(40, 0), 0.05, 0, S::R1, S::NS},
        // N = 6, centred: (6 - 1) / 2 = 2 components at most.
        {S::U, true, 3, 6, 10, 0.5, Filled(10, 0.5), 3, 3, 0.9, Filled(10, 0.5), 0.1, 0, S::N3, S::NS},
        {S::R1, true, 2, 6, 10, 0.5, Filled(10, 0.5), 3, 3, 0.9, Filled(10, 0.5), 0.1, 0, S::R1, S::R1},
        // Earlier components count against the size; so does K / 2.
        {S::R1, true, 2, 6, 10, 0.5, Filled(10, 0.5), 3, 3, 0.9, Filled(10, 0.5), 0.1, 1, S::N3, S::R1},
        {S::R1, false, 3, 100, 5, 0.5, Filled(5, 0.5), 3, 3, 0.9, Filled(5, 0.5), 0.1, 0, S::N3, S::R1},
        // Too little variance: R2 under 1 % and no variable above 2 %...
        {S::U, true, 2, 100, 10, 0.005, Filled(10, 0.01), 0.05, 3, 0.9, Filled(10, 0.01), 0.1, 0, S::N4, S::NS},
        // ...while one variable explained well enough goes on to the Q2 test.
        {S::NA, true, 1, 100, 10, 0.005, Filled(10, 0.01, 1, 0.03), 0.05, 0, 0.9, Filled(10, 0.01, 1, 0.03), 0.1, 0,
         S::R1, S::NA},
        // K <= 25 needs sqrt(K) variables over the limit: 4 do, 3 do not.
        {S::NA, true, 1, 100, 10, 0.2, Filled(10, 0.2), 1, 0, 0, Filled(10, 0, 4, 0.5), 0.1, 0, S::R2, S::NA},
        {S::NA, true, 1, 100, 10, 0.2, Filled(10, 0.2), 1, 0, 0, Filled(10, 0, 3, 0.5), 0.1, 0, S::U, S::NA},
        // K > 25 needs a fifth of them, and then only when the eigenvalue exceeds 1.5.
        {S::NA, true, 1, 100, 30, 0.2, Filled(30, 0.2), 2, 0, 0, Filled(30, 0, 6, 0.5), 0.1, 0, S::R2, S::NA},
        {S::NA, true, 1, 100, 30, 0.2, Filled(30, 0.2), 1.4, 0, 0, Filled(30, 0, 6, 0.5), 0.1, 0, S::U, S::NA},
        {S::NA, true, 1, 100, 30, 0.2, Filled(30, 0.2), 2, 0, 0, Filled(30, 0, 5, 0.5), 0.1, 0, S::U, S::NA},
    };
    for (std::size_t c = 0; c < cases.size(); ++c) {
        const Verdict& v = cases[c];
        S::Significance previous = v.previous;
        EXPECT_EQ(NCPCA::GetSignificance(0.05f, v.centred, v.component, previous, v.n, v.k, v.r2, v.r2Variables,
                                         v.eigenvalue, v.previousEigenvalue, v.q2, v.q2Variables, v.q2Limit, v.earlier),
                  v.expected)
            << "case " << c;
        EXPECT_EQ(previous, v.previousAfter) << "case " << c;
    }
}

TEST(PCACrossValidation, Q2LimitFormula)
{
    EXPECT_EQ(PCACrossValidation::GetQ2Lim(0, true, 10, 5), -99.0f);
    // v = (10 - 1 - 1 + 1) (5 - 1 + 1) = 45 over (10)(6).
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(1, true, 10, 5), 0.25f);
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(1, false, 10, 5), 1.0f - 50.0f / 60.0f);
    EXPECT_FLOAT_EQ(PCACrossValidation::GetQ2Lim(6, true, 10, 5), 1.0f);
}

// Structure is predicted and noise is not; a model rebuilt after one
// component continues the cumulative values from where they stood.
TEST(PCACrossValidation, StructureNoiseAndCarriedCumulativeValues)
{
    const NCDataMatrix<float> x = LowRankTable(60, 10, 2, 0.3);
    Validated structured(x, 7, 2);
    EXPECT_GT(structured.q2[0], 0.5f);
    EXPECT_GT(structured.q2[1], structured.cv.GetQ2Lim(2, true));
    EXPECT_GT(structured.q2Cum[1], structured.q2Cum[0]);
    EXPECT_GT(structured.q2Cum[1], 0.9f);

    Validated once(x, 7, 1);
    NCPCA rebuilt(once.pca.GetResiduals(), once.pca.GetPprim(), once.pca.GetTprim(), 500);
    PCACrossValidation resumed(&rebuilt, once.cv.GetQ2TotCum(), once.cv.GetQ2XVarCum(), 7, nullptr, nullptr);
    rebuilt.NextComponent(nullptr, nullptr, 0, nullptr);
    resumed.NextComponent((*rebuilt.GetPprim())[2], nullptr, 2);
    EXPECT_NEAR(resumed.GetQ2TotCum(), structured.q2Cum[1], 1e-5);
    EXPECT_NEAR(resumed.GetQ2XVarCum()[3], structured.cv.GetQ2XVarCum()[3], 1e-5);

    Validated random(LowRankTable(60, 10, 0, 1.0, 3), 7, 2);
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
    Validated v(x, 5, 1);
    const NCDataVector<float> p = (*v.pca.GetPprim())[1];
    ASSERT_EQ(v.cv.GetPSet().SizeRows(), 5);
    ASSERT_EQ(v.cv.GetTSet().SizeColumns(), 35);
    for (int r = 1; r <= 5; ++r) {
        EXPECT_GT(v.cv.GetPSet()[r] * p, 0.9) << "round " << r;
        EXPECT_GT(v.cv.GetTSet()[r] * (*v.pca.GetTprim())[1], 0.0) << "round " << r;
    }
    // The residual of every present cell, and PRESS / SS from them.
    const NCDataMatrix<float>& f = v.cv.GetXPredResiduals();
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
    EXPECT_NEAR(v.q2[0], 1.0 - press / ss, 1e-5);
    EXPECT_EQ(v.cv.GetQ2XVar().Size(), 8);
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

TEST(PCACrossValidation, ProgressCaptionsAndCancel)
{
    const NCDataMatrix<float> x = LowRankTable(30, 6, 2, 0.5);
    Validated v(x, 3);
    NCProgress progress;
    std::set<std::string> captions;
    progress.SetObserver(
        [&](const NCProgressSnapshot& s) {
            captions.insert(s.caption);
            if (s.caption == "CV round 2 of 3 (columns)")
                progress.RequestBreak();
        },
        std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    EXPECT_THROW(v.Next(&progress), CancelException);
    EXPECT_EQ(captions.count("CV round 1 of 3 (rows)"), 1u);
    EXPECT_EQ(captions.count("CV round 3 of 3 (rows)"), 1u);
    EXPECT_EQ(captions.count("CV round 3 of 3 (columns)"), 0u);
}

// Stops at the first component that is neither significant nor pending, unless asked to keep every one.
TEST(PCACrossValidated, StopsAtTheFirstNonSignificantComponentUnlessKeepingAll)
{
    const NCDataMatrix<float> x = LowRankTable(50, 12, 2, 0.2);
    PCA_CrossValidated model(x, nullptr, 7, nullptr, NCDataVector<float>(12, 0.0f), 0.05, 0);
    EXPECT_TRUE(model.IsCentred());
    NCProgress progress;
    NCDataMatrix<float> residuals, predicted;
    std::vector<S::Significance> codes;
    do
        codes.push_back(model.NextComponent(residuals, predicted, progress));
    while (codes.size() < 6 && (S::IsSignificant(codes.back()) || codes.back() == S::U));
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

    const NCDataMatrix<float> single = LowRankTable(30, 8, 1, 0.3);
    PCA_CrossValidated every(single, nullptr, 5, nullptr, NCDataVector<float>(), 0.05, 0);
    EXPECT_FALSE(every.IsCentred());
    every.KeepEveryComponent(true);
    for (int a = 1; a <= 3; ++a)
        every.NextComponent(residuals, predicted, progress);
    EXPECT_EQ(every.GetComponents(), 3);
    EXPECT_EQ(every.GetModel().GetPprim()->SizeRows(), 3);
    EXPECT_TRUE(SameCells(residuals, *every.GetModel().GetResiduals()));
}
