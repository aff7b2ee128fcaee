#include "veltancmat/models/PLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/models/PLSMissingValueEstimator.h"
#include "veltancmat/models/PLS_CrossValidated.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"

#include "platform/OmpTeam.h"

#include <gtest/gtest.h>

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

using S = SignificanceE;
using CV = PLSCrossValidation;

// Three responses driven by the columns of x, with noise of their own.
NCDataMatrix<float> DependentResponses(const NCDataMatrix<float>& x, float noise)
{
    NCDataMatrix<float> y = LowRankTable(x.SizeRows(), 3, 1, 1.0, 5);
    for (int i = 1; i <= x.SizeRows(); ++i)
        for (int m = 1; m <= 3; ++m)
            y(i, m, x[i][m] + 0.5f * x[i][m + 2] + noise * y[i][m] / 3.0f);
    return y;
}

// m responses, the first `leading` of them at `value` and the rest 0.
NCDataVector<float> Leading(int m, int leading, float value)
{
    NCDataVector<float> v(m, 0.0f);
    for (int j = 1; j <= leading; ++j)
        v(j, value);
    return v;
}

void Next(NCPLS& pls, CV& cv, NCProgress* progress = nullptr)
{
    pls.NextComponent(nullptr, nullptr, true, false);
    cv.NextComponent(nullptr, 500, pls.GetTprim()->back(), progress, true);
    pls.CalculateResiduals();
}

// Requests a break when the caption `at` appears; keeps the captions and the title.
struct BreakAt {
    BreakAt(NCProgress& progress, std::string at)
    {
        progress.SetObserver([&progress, at, this](const NCProgressSnapshot& s) {
            captions += s.caption + "|";
            title = s.title;
            if (s.caption == at)
                progress.RequestBreak();
        }, std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    }
    std::string captions, title;
};

// The message of the CancelException that f throws; empty when it throws none.
template <class F>
std::string CancelMessage(F f)
{
    try {
        f();
    } catch (const CancelException& e) {
        return e.what();
    }
    return {};
}

} // namespace

TEST(PLSCrossValidation, DependentResponsesArePredictedAndNoiseIsNot)
{
    const NCDataMatrix<float> x = LowRankTable(60, 8, 2, 0.3), y = DependentResponses(x, 0.3);
    NCPLS pls(&x, &y, 500);
    CV cv(&pls, 7, nullptr);
    Next(pls, cv);
    const float q2First = cv.GetQ2Tot();
    EXPECT_GT(q2First, 0.5f);
    // Q2 again from the prediction residuals: every cell was predicted once.
    const NCDataMatrix<float>& f = cv.GetYPredResiduals();
    ASSERT_FALSE(f.HasMissingValues());
    EXPECT_NEAR(q2First, 1.0 - f.GetSS() / y.GetSS(), 1e-5);

    const double fittedOn = pls.GetYResiduals()->GetColumnSS(2);
    const NCDataMatrix<float> firstResiduals = f, copied = f;
    const NCDataMatrix<float> firstScores = cv.GetTSet(), copiedScores = cv.GetTSet();
    Next(pls, cv);
    EXPECT_NEAR(cv.GetSSY()[2], fittedOn, 1e-4 * fittedOn);
    // The sets are refilled in place for each component: copies taken
    // before keep their cells, and every cell is the new component's.
    EXPECT_TRUE(SameCells(firstResiduals, copied));
    EXPECT_TRUE(SameCells(firstScores, copiedScores));
    EXPECT_FALSE(SameCells(firstResiduals, cv.GetYPredResiduals()));
    ASSERT_FALSE(cv.GetYPredResiduals().HasMissingValues());
    ExpectCountsExact(cv.GetYPredResiduals());
    const double ssY = cv.GetSSY()[1] + cv.GetSSY()[2] + cv.GetSSY()[3];
    EXPECT_NEAR(cv.GetQ2Tot(), 1.0 - cv.GetYPredResiduals().GetSS() / ssY, 1e-5);
    EXPECT_NEAR(cv.GetQ2TotCum(), 1.0 - (1.0 - q2First) * std::min(1.0 - cv.GetQ2Tot(), 1.1), 1e-5);

    const NCDataMatrix<float> noise = LowRankTable(60, 2, 1, 1.0, 99);
    NCPLS unrelated(&x, &noise, 500);
    CV none(&unrelated, 7, nullptr);
    Next(unrelated, none);
    EXPECT_LE(none.GetQ2Tot(), none.GetQ2Lim());
    EXPECT_LE(none.GetQ2YVar()[1], none.GetQ2Lim());
}

TEST(PLSCrossValidation, Q2LimitAndEachBranchOfTheRule)
{
    for (const int n : {100, 101}) {
        const NCDataMatrix<float> x = LowRankTable(n, 3, 1, 0.1);
        NCPLS pls(&x, &x, 10);
        EXPECT_FLOAT_EQ(CV(&pls, 7, nullptr).GetQ2Lim(), n == 100 ? 0.05f : 0.0f);
    }
    const NCDataVector<float> r2v(16, 0.2f);
    // At most min(K, N - 3) components.
    EXPECT_EQ(CV::GetSignificance(5, 10, 16, 2, 0.5f, r2v, 0.9f, r2v, 0.05f), S::N3);
    EXPECT_EQ(CV::GetSignificance(5, 10, 16, 1, 0.5f, r2v, 0.9f, r2v, 0.05f), S::R1);
    // Under 1 % explained and no response above 3 %.
    NCDataVector<float> small(16, 0.03f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 16, 0, 0.005f, small, 0.9f, r2v, 0.05f), S::N4);
    small(9, 0.031f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 16, 0, 0.005f, small, 0.9f, r2v, 0.05f), S::R1);
    // Q2 at the limit is not above it; then sqrt(16) = 4 responses must be.
    NCDataVector<float> q2v = Leading(16, 4, 0.2f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 16, 0, 0.2f, r2v, 0.05f, q2v, 0.05f), S::R2);
    q2v(4, 0.05f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 16, 0, 0.2f, r2v, 0.05f, q2v, 0.05f), S::NS);
    // M = 30 needs a fifth, 6; a missing Q2 does not count.
    NCDataVector<float> wide = Leading(30, 6, 0.1f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 30, 0, 0.2f, wide, 0.0f, wide, 0.05f), S::R2);
    wide(6, -99.0f);
    EXPECT_EQ(CV::GetSignificance(100, 10, 30, 0, 0.2f, wide, 0.0f, wide, 0.05f), S::NS);
    // M = 5: sqrt(5) = 2.24 rounds to 2.
    const NCDataVector<float> five{0.1f, 0.1f, 0.0f, 0.0f, 0.0f};
    EXPECT_EQ(CV::GetSignificance(100, 10, 5, 0, 0.2f, five, 0.0f, five, 0.05f), S::R2);
    EXPECT_THROW(CV::GetSignificance(100, 10, 17, 0, 0.2f, r2v, 0.0f, q2v, 0.05f), NCInternalError);
}

TEST(PLSCrossValidation, BadSetupIsRefusedAndABreakCancels)
{
    const NCDataMatrix<float> x = LowRankTable(30, 6, 2, 0.5), y = DependentResponses(x, 0.5);
    NCPLS pls(&x, &y, 500);
    EXPECT_THROW(CV(&pls, 1, nullptr), NCError);
    CV cv(&pls, 3, nullptr);
    EXPECT_THROW(cv.NextComponent(nullptr, 100, NCDataVector<float>(29, 1.0f), nullptr, true), NCInternalError);

    NCProgress progress;
    BreakAt observer(progress, "CV round 2 of 3");
    EXPECT_EQ(CancelMessage([&] { Next(pls, cv, &progress); }), "PLS component aborted.");
    EXPECT_NE(observer.captions.find("CV round 1 of 3|"), std::string::npos);
    EXPECT_EQ(observer.captions.find("CV round 3 of 3|"), std::string::npos);
    // The first round's caption shows while the rounds run, and a break
    // then stops them.
    NCProgress early;
    BreakAt first(early, "CV round 1 of 3");
    EXPECT_EQ(CancelMessage([&] { Next(pls, cv, &early); }), "PLS component aborted.");
    EXPECT_EQ(first.captions.find("CV round 2 of 3|"), std::string::npos);
}

// Each round is the first component of a model fitted on its kept rows
// alone, and its left-out rows are scored from that model's weights; with
// gaps in X and Y, several responses (several iterations), a round that
// loses the correlation guard, and one and two threads.
TEST(PLSCrossValidation, EachRoundIsTheComponentOfAModelOnItsKeptRows)
{
    NCDataMatrix<float> x = LowRankTable(300, 40, 3, 0.5);
    NCDataMatrix<float> y = DependentResponses(x, 0.5);
    KnockOut(x, 0.05);
    KnockOut(y, 0.05, 12);
    NCPLS pls(&x, &y, 500);
    pls.NextComponent(nullptr, nullptr, true, false);
    pls.CalculateResiduals();
    pls.NextComponent(nullptr, nullptr, true, false);
    const NCDataMatrix<float>&e = *pls.GetXResiduals(), &f = *pls.GetYResiduals();
    const NCIntegralVector<int, -99> labels = GetDeafultCVGroupsVector(300, 7);

    const OmpTeam omp(1);
    for (int team : {1, 2}) {
        omp.Use(team);
        CV cv(&pls, 7, nullptr);
        cv.NextComponent(nullptr, 500, pls.GetTprim()->back(), nullptr, true);
        ExpectCountsExact(cv.GetTSet());
        EXPECT_EQ(cv.GetTSet().GetNumMisVal(), 300); // each row missing from its own round
        for (int r = 1; r <= 7; ++r) {
            std::vector<int> kept, left;
            for (int i = 1; i <= 300; ++i)
                (labels[i] == r % 7 ? left : kept).push_back(i);
            const NCIntegralVector<int, -99> keptRows(kept.data(), static_cast<int>(kept.size()));
            const NCIntegralVector<int, -99> leftRows(left.data(), static_cast<int>(left.size()));
            const NCDataMatrix<float> xKept = e.GetRowSubMatrix(keptRows), yKept = f.GetRowSubMatrix(keptRows);
            NCPLS alone(&xKept, &yKept, 500);
            alone.NextComponent(nullptr, nullptr, true, false);
            const NCDataVector<float> w = cv.GetWSet()[r];
            double dot = 0.0;
            for (int j = 1; j <= 40; ++j)
                dot += w[j] * (*alone.GetWprim())[1][j];
            const double sign = dot < 0.0 ? -1.0 : 1.0;
            const std::string round = "round " + std::to_string(r) + " on " + std::to_string(team) + " threads";
            for (int j = 1; j <= 40; ++j) {
                EXPECT_NEAR(w[j], sign * (*alone.GetWprim())[1][j], 2e-4) << round;
                EXPECT_NEAR(cv.GetPSet()[r][j], sign * (*alone.GetPprim())[1][j], 2e-3) << round;
            }
            for (int m = 1; m <= 3; ++m)
                EXPECT_NEAR(cv.GetCSet()[r][m], sign * (*alone.GetCprim())[1][m], 2e-3) << round;
            const NCDataVector<float> scored = e.GetRowSubMatrix(leftRows).SpecialNipalsRegressRowsFix(w);
            for (std::size_t s = 0; s < left.size(); ++s)
                EXPECT_NEAR(cv.GetTPred()[left[s]], scored[static_cast<int>(s) + 1], 1e-4) << round;
        }
    }
}

// A round whose kept rows leave X without information about Y fails the
// correlation guard as the model would, naming the first component.
TEST(PLSCrossValidation, ARoundWithoutCorrelationFailsStrictlyOnly)
{
    NCDataMatrix<float> x = LowRankTable(70, 5, 2, 0.5);
    NCDataMatrix<float> y(70, 1, 0.0f);
    // Only the rows of group 1 carry a response: the round leaving them out
    // sees a constant zero Y.
    const NCIntegralVector<int, -99> labels = GetDeafultCVGroupsVector(70, 7);
    for (int i = 1; i <= 70; ++i)
        y(i, 1, labels[i] == 1 ? x[i][1] : 0.0f);
    NCPLS pls(&x, &y, 500);
    pls.NextComponent(nullptr, nullptr, true, false);
    CV strict(&pls, 7, nullptr);
    try {
        strict.NextComponent(nullptr, 500, pls.GetTprim()->back(), nullptr, true);
        ADD_FAILURE() << "no correlation error";
    } catch (const NCError& error) {
        EXPECT_NE(std::string(error.what()).find("Component 1 cannot be computed"), std::string::npos);
    }
    CV lenient(&pls, 7, nullptr);
    lenient.NextComponent(nullptr, 500, pls.GetTprim()->back(), nullptr, false);
    EXPECT_EQ(lenient.GetTPred().Size(), 70);
}

// Gaps in a Y that X explains are filled close to the values knocked out,
// then gaps in X from the completed Y; present cells stay as they were.
TEST(PLSMissingValueEstimator, FillsGapsCloseToTheTruthInBothDirections)
{
    const NCDataMatrix<float> truthX = LowRankTable(60, 8, 2, 0.05), truthY = DependentResponses(truthX, 0.05);
    NCDataMatrix<float> x = truthX, y = truthY;
    KnockOut(y, 0.15, 3);
    KnockOut(x, 0.05, 4);
    const NCDataMatrix<float> gappyY = y, gappyX = x;
    PLSMissingValueEstimator(x, y, true, nullptr);
    for (const auto& [filled, gappy, truth] : {std::tie(y, gappyY, truthY), std::tie(x, gappyX, truthX)}) {
        double error = 0.0, spread = 0.0;
        for (int i = 1; i <= filled.SizeRows(); ++i)
            for (int j = 1; j <= filled.SizeColumns(); ++j) {
                const bool gap = gappy[i][j] == -99.0f;
                ASSERT_EQ(filled[i][j], gap ? filled[i][j] : gappy[i][j]);
                error += gap ? std::pow(double(filled[i][j]) - truth[i][j], 2.0) : 0.0;
                spread += gap ? double(truth[i][j]) * truth[i][j] : 0.0;
            }
        EXPECT_FALSE(filled.HasMissingValues());
        EXPECT_LT(std::sqrt(error / spread), 0.15);
    }
}

// y1 = y2 = x1 on a two-level design: after one exact component the next
// finds no correlation left, which ends the search instead of failing.
TEST(PLSMissingValueEstimator, LaterCorrelationFailureKeepsTheComponentsFound)
{
    NCDataMatrix<float> x(8, 3), y(8, 2);
    for (int i = 1; i <= 8; ++i) {
        for (int j = 1; j <= 3; ++j)
            x(i, j, ((i - 1) >> (j - 1)) & 1 ? 1.0f : -1.0f);
        y(i, 1, x[i][1]);
        y(i, 2, i == 3 ? -99.0f : x[i][1]);
    }
    PLSMissingValueEstimator(x, y, false, nullptr);
    EXPECT_NEAR(y[3][2], x[3][1], 1e-5);
}

TEST(PLSMissingValueEstimator, CancelAndBadInputLeaveTheMatricesAlone)
{
    NCDataMatrix<float> x = LowRankTable(40, 6, 2, 0.1), y = DependentResponses(x, 0.1);
    KnockOut(y, 0.1);
    const NCDataMatrix<float> before = y;
    NCProgress progress;
    BreakAt observer(progress, "CV round 3 of 7");
    EXPECT_EQ(CancelMessage([&] { PLSMissingValueEstimator(x, y, false, &progress); }),
              "Computations aborted.");
    EXPECT_EQ(observer.title, "Estimating missing values.");
    EXPECT_TRUE(SameCells(y, before));

    NCDataMatrix<float> shortY = y.SubMat(1, 39, 1, 3), empty(40, 2, -99.0f);
    EXPECT_THROW(PLSMissingValueEstimator(x, shortY, false, nullptr), NCInternalError);
    EXPECT_THROW(PLSMissingValueEstimator(x, empty, false, nullptr), NCError);
    EXPECT_TRUE(SameCells(empty, NCDataMatrix<float>(40, 2, -99.0f)));
}

namespace {

// The loop as callers wrote it before it moved into the library: fit,
// validate, deflate, then R2 from the residuals' sums of squares and the
// rule. Records (r2y, q2, verdict) per component until one is not significant.
struct WrittenOutLoop {
    std::vector<float> r2y, q2, q2Cum;
    std::vector<S::Significance> verdicts;

    WrittenOutLoop(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y)
    {
        NCPLS pls(&x, &y, 200);
        CV cv(&pls, 7, nullptr);
        const int m = y.SizeColumns();
        const auto columnSS = [m](const NCDataMatrix<float>& f) {
            std::vector<double> ss(m + 1, 0.0);
            for (int i = 1; i <= f.SizeRows(); ++i)
                for (int j = 1; j <= m; ++j)
                    ss[j] += f[i][j] == -99.0f ? 0.0 : double(f[i][j]) * f[i][j];
            return ss;
        };
        const std::vector<double> ss0 = columnSS(y);
        double total0 = 0.0;
        for (int j = 1; j <= m; ++j)
            total0 += ss0[j];
        std::vector<double> before = ss0;
        for (int a = 1; a <= 10; ++a) {
            pls.NextComponent(nullptr, nullptr, false, true);
            cv.NextComponent(nullptr, 200, pls.GetTprim()->back(), nullptr, true);
            pls.CalculateResiduals();
            const std::vector<double> ss = columnSS(*pls.GetYResiduals());
            NCDataVector<float> shares(m, 0.0f);
            double gained = 0.0;
            for (int j = 1; j <= m; ++j) {
                shares(j, float((before[j] - ss[j]) / ss0[j]));
                gained += before[j] - ss[j];
            }
            before = ss;
            r2y.push_back(float(gained / total0));
            q2.push_back(cv.GetQ2Tot());
            q2Cum.push_back(cv.GetQ2TotCum());
            verdicts.push_back(CV::GetSignificance(x.SizeRows(), x.SizeColumns(), m, a - 1, r2y.back(), shares,
                                                   cv.GetQ2Tot(), cv.GetQ2YVar(), cv.GetQ2Lim()));
            if (!S::IsSignificant(verdicts.back()))
                return;
        }
    }
};

} // namespace

// The library's loop gives the components, Q2 values and verdicts of the
// loop written out, with gaps in X and Y and several responses; the fit is
// over after the first verdict that is not significant.
TEST(PLS_CrossValidated, AgreesWithTheLoopWrittenOutAndStopsAfterTheFirstFailure)
{
    NCDataMatrix<float> x = LowRankTable(80, 10, 3, 0.8);
    NCDataMatrix<float> y = DependentResponses(x, 1.5);
    KnockOut(x, 0.05);
    KnockOut(y, 0.05, 12);
    const WrittenOutLoop reference(x, y);
    ASSERT_GE(reference.verdicts.size(), 2u);

    PLS_CrossValidated model(x, y, 7, nullptr);
    std::size_t a = 0;
    for (;; ++a) {
        const S::Significance verdict = model.NextComponent(nullptr);
        ASSERT_LT(a, reference.verdicts.size());
        EXPECT_EQ(verdict, reference.verdicts[a]) << "component " << a + 1;
        if (!S::IsSignificant(verdict))
            break;
    }
    ASSERT_EQ(a + 1, reference.verdicts.size());
    EXPECT_EQ(model.GetComponents(), static_cast<int>(a));
    EXPECT_EQ(model.GetModel().GetComponents(), static_cast<int>(a) + 1); // the failed one is held too
    for (std::size_t c = 0; c <= a; ++c) {
        const PLS_CrossValidated::Component& record = model.GetRecords()[c];
        EXPECT_NEAR(record.r2y, reference.r2y[c], 1e-6);
        EXPECT_EQ(record.q2, reference.q2[c]);
        EXPECT_EQ(record.q2Cum, reference.q2Cum[c]);
        EXPECT_GT(record.r2x, 0.0f);
        EXPECT_NEAR(record.r2yCum, (c ? model.GetRecords()[c - 1].r2yCum : 0.0f) + record.r2y, 1e-6);
        ASSERT_EQ(record.r2yResponses.Size(), 3);
        ASSERT_EQ(record.q2CumResponses.Size(), 3);
    }
    const std::optional<NCError> over = Caught<NCError>([&] { model.NextComponent(nullptr); });
    ASSERT_TRUE(over);
    EXPECT_STREQ(over->what(), "The model takes no further component.");
    // The kept prediction residuals are those of the last kept component.
    EXPECT_EQ(model.GetKeptPredResiduals().SizeRows(), 80);
}

// A fixed count keeps every component whatever its verdict; a response
// without variation has no share of its own; shuffled responses give the
// fit of a model on the shuffled table, and only before the first component.
TEST(PLS_CrossValidated, FixedCountsUndefinedSharesAndPermutedResponses)
{
    const NCDataMatrix<float> x = LowRankTable(50, 6, 2, 0.5);
    NCDataMatrix<float> y = DependentResponses(x, 4.0);
    for (int i = 1; i <= 50; ++i)
        y(i, 2, 0.0f);
    PLS_CrossValidated fixed(x, y, 5, nullptr);
    fixed.KeepEveryComponent(true);
    for (int a = 1; a <= 5; ++a)
        fixed.NextComponent(nullptr);
    EXPECT_EQ(fixed.GetComponents(), 5);
    for (const PLS_CrossValidated::Component& c : fixed.GetRecords()) {
        EXPECT_EQ(c.r2yResponses[2], -99.0f);
        EXPECT_EQ(c.r2yCumResponses[2], -99.0f);
        EXPECT_NE(c.r2yResponses[1], -99.0f);
    }

    std::vector<int> order(51);
    NCDataMatrix<float> shuffled(50, 3);
    for (int i = 1; i <= 50; ++i) {
        order[i] = 1 + (i * 17) % 50; // 17 is prime to 50: every row once
        shuffled.SetRow(i, y[order[i]]);
    }
    PLS_CrossValidated permuted(x, y, 5, nullptr), direct(x, shuffled, 5, nullptr);
    permuted.PermuteResponses(order.data());
    permuted.KeepEveryComponent(true);
    direct.KeepEveryComponent(true);
    for (int a = 1; a <= 2; ++a) {
        permuted.NextComponent(nullptr);
        direct.NextComponent(nullptr);
        const PLS_CrossValidated::Component &p = permuted.GetRecords().back(), &d = direct.GetRecords().back();
        EXPECT_EQ(p.q2Cum, d.q2Cum);
        EXPECT_EQ(p.r2x, d.r2x);
        EXPECT_NEAR(p.r2yCum, d.r2yCum, 1e-6);
    }
    EXPECT_THROW(permuted.PermuteResponses(order.data()), NCError);
}

// The correlation guard's error is told apart from other failures; a break
// cancels with the component's message and ends the fit.
TEST(PLS_CrossValidated, NoCorrelationEndsTheFitAndABreakCancelsIt)
{
    const NCDataMatrix<float> x = LowRankTable(40, 5, 2, 0.5);
    PLS_CrossValidated flat(x, NCDataMatrix<float>(40, 1, 0.0f), 7, nullptr);
    const std::optional<NCError> none = Caught<NCError>([&] { flat.NextComponent(nullptr); });
    ASSERT_TRUE(none);
    EXPECT_TRUE(NCPLS::IsNoCorrelation(*none));
    EXPECT_FALSE(NCPLS::IsNoCorrelation(NCError(ExceptionMessage::translate("other"), NCError::Error)));
    EXPECT_FALSE(NCPLS::IsNoCorrelation(NCInternalError("NCPLS::NextComponent")));
    EXPECT_THROW(flat.NextComponent(nullptr), NCError);
    EXPECT_EQ(flat.GetComponents(), 0);

    PLS_CrossValidated model(x, DependentResponses(x, 0.5), 7, nullptr);
    NCProgress progress;
    BreakAt observer(progress, "CV round 4 of 7");
    EXPECT_EQ(CancelMessage([&] { model.NextComponent(&progress); }), "PLS component aborted.");
    EXPECT_THROW(model.NextComponent(nullptr), NCError);
}
