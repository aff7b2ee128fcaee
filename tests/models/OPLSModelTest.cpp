#include "veltancmat/models/NCOPLS.h"
#include "veltancmat/models/NCOPLSPred.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/OPLSExplained.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

#include "models/fixtures/OPLSReference.inc"
#include "models/fixtures/PLSReference.inc"

NCDataMatrix<float> Diagonal(const std::vector<float>& d)
{
    const int n = static_cast<int>(d.size());
    NCDataMatrix<float> m(n, n, 0.0f);
    for (int i = 1; i <= n; ++i)
        m(i, i, d[static_cast<std::size_t>(i - 1)]);
    return m;
}

// Three responses driven by the first latent directions of x, with noise.
NCDataMatrix<float> ThreeResponses(const NCDataMatrix<float>& x)
{
    NCDataMatrix<float> y(x.SizeRows(), 3);
    for (int i = 1; i <= x.SizeRows(); ++i) {
        const float a = x[i][1] == -99.0f ? 0.0f : x[i][1];
        const float b = x[i][3] == -99.0f ? 0.0f : x[i][3];
        y(i, 1, a - 0.5f * b + 0.2f * std::sin(float(i)));
        y(i, 2, 0.4f * a + b + 0.2f * std::cos(float(i)));
        y(i, 3, -a + 0.1f * std::sin(3.0f * float(i)));
    }
    return y;
}

NCOPLS Fit(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int orthogonal, int numPredictive = 0,
           int maxIterations = 200)
{
    NCOPLS opls(&x, &y, numPredictive, maxIterations);
    for (int k = 0; k <= orthogonal; ++k)
        opls.NextComponent(nullptr);
    return opls;
}

// Y explained by the model: the removed orthogonal parts plus T C'.
NCDataMatrix<float> Fitted(const NCDataMatrix<float>& y, const NCOPLS& opls)
{
    NCDataMatrix<float> fitted;
    y.AddMat(opls.GetYResiduals(), fitted, -1.0);
    return fitted;
}

// The largest difference of two cells, missing matching missing only.
double MaxAbsDifference(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b)
{
    double worst = 0.0;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j) {
            if (IsMisVal(a[i][j]) != IsMisVal(b[i][j]))
                return INFINITY;
            if (!IsMisVal(a[i][j]))
                worst = std::max(worst, std::abs(double(a[i][j]) - b[i][j]));
        }
    return worst;
}

// The basis refinement of one response, recomputed in double: passes made
// and the rule that ended them ("limit", "small" below 1 % of the first
// norm, "rise" above the previous one).
struct Refinement {
    int passes = 0;
    std::string rule;
};

Refinement RefineOneResponse(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y, int maxIterations)
{
    const int n = x.SizeRows(), k = x.SizeColumns();
    auto present = [](float v) { return v != -99.0f; };
    std::vector<std::vector<double>> e(n, std::vector<double>(k));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < k; ++j)
            e[i][j] = x[i + 1][j + 1];
    std::vector<double> s(k, 0.0);
    double first = 0.0, previous = 0.0;
    Refinement r;
    for (;;) {
        std::vector<double> m(k, 0.0);
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < k; ++j)
                if (present(y[i + 1][1]) && present(x[i + 1][j + 1]))
                    m[j] += y[i + 1][1] * e[i][j];
        double norm = 0.0;
        for (double v : m)
            norm += v * v;
        norm = std::sqrt(norm);
        if (r.passes == 0) {
            first = previous = norm;
        } else {
            if (norm < 0.01 * first) {
                r.rule = "small";
                return r;
            }
            if (norm > previous) {
                r.rule = "rise";
                return r;
            }
            previous = norm;
        }
        double ss = 0.0;
        for (int j = 0; j < k; ++j) {
            s[j] += m[j];
            ss += s[j] * s[j];
        }
        std::vector<double> b(k);
        for (int j = 0; j < k; ++j)
            b[j] = s[j] / std::sqrt(ss);
        for (int i = 0; i < n; ++i) {
            double num = 0.0, den = 0.0;
            for (int j = 0; j < k; ++j)
                if (present(x[i + 1][j + 1])) {
                    num += x[i + 1][j + 1] * b[j];
                    den += b[j] * b[j];
                }
            const double t = num / std::max(den, 1.0 / 3.0);
            for (int j = 0; j < k; ++j)
                e[i][j] = present(x[i + 1][j + 1]) ? x[i + 1][j + 1] - t * b[j] : 0.0;
        }
        if (++r.passes >= maxIterations) {
            r.rule = "limit";
            return r;
        }
    }
}

// The largest difference relative to the largest magnitude in a.
double RelativeDifference(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b)
{
    double scale = 0.0;
    for (int i = 1; i <= a.SizeRows(); ++i)
        for (int j = 1; j <= a.SizeColumns(); ++j)
            if (!IsMisVal(a[i][j]))
                scale = std::max(scale, double(std::abs(a[i][j])));
    return MaxAbsDifference(a, b) / scale;
}

} // namespace

// With one response, OPLS with one predictive and k orthogonal components
// fits y exactly as PLS with k + 1 components does; the reference is
// scikit-learn's PLS on the same centred table.
TEST(OPLSModel, SingleResponseFitsAsPlsWithOneMoreComponent)
{
    const NCDataMatrix<float> x = FromRowMajor(PLSX, PLSRows, PLSCols);
    const NCDataMatrix<float> y = FromRowMajor(PLSY, PLSRows, 1);
    NCOPLS opls(&x, &y, 0, 200);
    for (int k = 0; k < PLSCols; ++k) {
        opls.NextComponent(nullptr);
        ASSERT_EQ(opls.SizeComponents(), 1);
        ASSERT_EQ(opls.SizeOrthogonalComponents(), k);
        EXPECT_EQ(opls.GetNumPredictive(), 1);
        EXPECT_EQ(opls.GetRefinementCount(), 1) << "complete data refine once";
        EXPECT_NEAR((*opls.GetWprim())[1].GetSS(), 1.0, 1e-6);
        const NCDataMatrix<float> fitted = Fitted(y, opls);
        for (int i = 1; i <= PLSRows; ++i)
            EXPECT_NEAR(fitted[i][1], PLSFitted[k * PLSRows + i - 1], 5e-4) << k << " orthogonal, row " << i;
        // Orthogonal scores carry nothing of y.
        for (int o = 1; o <= k; ++o)
            EXPECT_LT(AbsCosine((*opls.GetTOprim())[o], y.GetColumn(1)), 1e-5) << "component " << o;
    }
    EXPECT_EQ(opls.GetWMatrices()->size(), std::size_t(PLSCols));
}

// Several responses with missing cells in X and Y against a second
// implementation in NumPy (tests/reference/opls.py): the chosen A, the
// refinement passes, the fitted values and the predictions for new rows of
// every stage, none of which depends on the signs of the components.
TEST(OPLSModel, SeveralResponsesWithMissingCellsAgreeWithReference)
{
    const NCDataMatrix<float> x = FromRowMajor(OPLSX, OPLSRows, OPLSCols);
    const NCDataMatrix<float> y = FromRowMajor(OPLSY, OPLSRows, OPLSResponses);
    const NCDataMatrix<float> xnew = FromRowMajor(OPLSNewX, OPLSNewRows, OPLSCols);
    ASSERT_TRUE(x.HasMissingValues() && y.HasMissingValues() && xnew.HasMissingValues());
    NCOPLS opls(&x, &y, 0, 200);
    for (int stage = 0; stage < OPLSStages; ++stage) {
        opls.NextComponent(nullptr);
        EXPECT_EQ(opls.GetNumPredictive(), OPLSPredictive[stage]) << "stage " << stage;
        EXPECT_EQ(opls.GetRefinementCount(), OPLSPasses[stage]) << "stage " << stage;
        NCDataMatrix<float> fitted(OPLSRows, OPLSResponses, 0.0f);
        for (int o = 1; o <= opls.SizeOrthogonalComponents(); ++o)
            fitted.AddVprimV((*opls.GetTOprim())[o], (*opls.GetCOprim())[o], 1.0);
        for (int a = 1; a <= opls.SizeComponents(); ++a)
            fitted.AddVprimV((*opls.GetTprim())[a], (*opls.GetCprim())[a], 1.0);
        const double* expected = OPLSFitted + stage * OPLSRows * OPLSResponses;
        for (int i = 1; i <= OPLSRows; ++i)
            for (int m = 1; m <= OPLSResponses; ++m)
                EXPECT_NEAR(fitted[i][m], expected[(i - 1) * OPLSResponses + m - 1], 2e-5)
                    << "stage " << stage << ", row " << i << ", response " << m;

        NCOPLSPred pred(&xnew, &opls);
        for (int o = 1; o <= stage; ++o)
            pred.CalcNextComponent();
        const double* predicted = OPLSPredicted + stage * OPLSNewRows * OPLSResponses;
        for (int i = 1; i <= OPLSNewRows; ++i)
            for (int m = 1; m <= OPLSResponses; ++m)
                EXPECT_NEAR((*pred.GetYPred())[i][m], predicted[(i - 1) * OPLSResponses + m - 1], 2e-5)
                    << "stage " << stage << ", new row " << i << ", response " << m;
    }
}

// Several responses: A is the number of leading principal components of
// Y'X with a score sum of squares of at least 1 % of the first. With X the
// identity, Y'X = Y' and the score sums of squares are the squared
// diagonal, so the threshold is met exactly.
TEST(OPLSModel, AutomaticPredictiveCountFollowsTheOnePercentRule)
{
    const NCDataMatrix<float> x = Diagonal({1, 1, 1, 1});
    struct Case {
        std::vector<float> diagonal;
        int expected;
    };
    const Case cases[] = {
        {{10, 1, 0.9f, 0.8f}, 2},   // second at exactly 1 %: kept, search ends
        {{10, 0.99f, 0.5f, 0.4f}, 1}, // second below: dropped
        {{10, 2, 1.5f, 0.5f}, 3},   // two above, the fourth below
        {{10, 5, 4, 3}, 4},         // never below: as many as responses
    };
    for (const Case& c : cases) {
        const NCDataMatrix<float> y = Diagonal(c.diagonal);
        NCOPLS opls(&x, &y, 0, 200);
        EXPECT_EQ(opls.GetNumPredictive(), 0);
        opls.NextComponent(nullptr);
        EXPECT_EQ(opls.GetNumPredictive(), c.expected) << "second " << c.diagonal[1];
        EXPECT_EQ(opls.SizeComponents(), c.expected);
        EXPECT_EQ(opls.GetWprim()->SizeRows(), c.expected);
    }
    // A fixed count above min(N, M) is lowered to it.
    const NCDataMatrix<float> wide = LowRankTable(3, 5, 2, 0.1), y = ThreeResponses(LowRankTable(3, 5, 2, 0.1, 5));
    EXPECT_EQ(NCOPLS(&wide, &y, 9, 200).GetNumPredictive(), 3);
    const NCDataMatrix<float> twoY = y.SubMat(1, 3, 1, 2);
    EXPECT_EQ(NCOPLS(&wide, &twoY, 9, 200).GetNumPredictive(), 2);
    EXPECT_EQ(NCOPLS(&wide, &twoY, 1, 200).GetNumPredictive(), 1);
}


// Complete data refine once; with missing cells the passes end at the
// limit, below 1 % of the first norm, or when the norm rises. The tables
// were picked so that each rule shows; the double recomputation confirms
// which one it is.
TEST(OPLSModel, RefinementStopsByEachRule)
{
    NCDataMatrix<float> complete = LowRankTable(25, 7, 3, 0.4);
    const NCDataMatrix<float> y = ThreeResponses(complete);
    EXPECT_EQ(Fit(complete, y, 0, 0, 50).GetRefinementCount(), 1);
    EXPECT_EQ(Fit(complete, y.SubMat(1, 25, 1, 1), 1, 0, 50).GetRefinementCount(), 1);

    struct Case {
        unsigned seed;
        int maxIterations, passes;
        const char* rule;
    };
    const Case cases[] = {{5, 3, 3, "limit"}, {5, 200, 5, "small"}, {48, 200, 4, "rise"}};
    for (const Case& c : cases) {
        NCDataMatrix<float> x = LowRankTable(20, 6, 2, 0.5, c.seed);
        const NCDataMatrix<float> one = ThreeResponses(x).SubMat(1, 20, 1, 1);
        KnockOut(x, 0.2, c.seed + 100);
        const Refinement expected = RefineOneResponse(x, one, c.maxIterations);
        ASSERT_EQ(expected.rule, c.rule) << "seed " << c.seed;
        ASSERT_EQ(expected.passes, c.passes) << "seed " << c.seed;
        EXPECT_EQ(Fit(x, one, 0, 0, c.maxIterations).GetRefinementCount(), c.passes) << "seed " << c.seed;
    }

    // Missing responses alone: the covariance left after one pass is zero.
    NCDataMatrix<float> gappyY = y;
    KnockOut(gappyY, 0.2, 9);
    EXPECT_EQ(Fit(complete, gappyY.SubMat(1, 25, 2, 2), 0).GetRefinementCount(), 1);
}

// The Y scores of a component without a Y part are missing; the component
// itself is kept and filters X as any other.
TEST(OPLSModel, DegenerateOrthogonalComponentKeepsItsXPart)
{
    const NCDataMatrix<float> x = FromRowMajor(PLSX, PLSRows, PLSCols);
    const NCDataMatrix<float> y = FromRowMajor(PLSY, PLSRows, 1);
    const NCOPLS single = Fit(x, y, 3);
    ASSERT_EQ(single.SizeOrthogonalComponents(), 3);
    // The guard's measure, recomputed: the cosine between t_o and y.
    const double limit = 1e-6 / std::sqrt(double(PLSRows));
    int degenerate = 0;
    for (int o = 1; o <= 3; ++o) {
        const NCDataVector<float>& to = (*single.GetTOprim())[o];
        const double r = std::sqrt(to.GetSS()) * std::abs((*single.GetCOprim())[o][1]) / std::sqrt(y.GetSS());
        EXPECT_LT(r, 1e-5) << "y has no part in component " << o;
        EXPECT_EQ(to.GetNumMisVal(), 0);
        EXPECT_GT((*single.GetPOprim())[o].GetSS(), 0.01);
        const NCDataVector<float>& uo = (*single.GetUOprim())[o];
        if (r < limit / 2) {
            EXPECT_TRUE(uo.HasAllMissingValues()) << "component " << o << ", r " << r;
            ++degenerate;
        } else if (r > 2 * limit) {
            EXPECT_EQ(uo.GetNumMisVal(), 0) << "component " << o << ", r " << r;
        }
    }
    EXPECT_GE(degenerate, 1);

    NCDataMatrix<float> many = LowRankTable(30, 8, 4, 0.5);
    const NCOPLS several = Fit(many, ThreeResponses(many), 2, 2);
    for (int o = 1; o <= 2; ++o)
        EXPECT_EQ((*several.GetUOprim())[o].GetNumMisVal(), 0) << "component " << o;
    ExpectCountsExact(*several.GetFilteredX());
}

// Stage 0 of the predictor repeats the fit on the training rows. For an
// orthogonal component it takes the new rows' scores from what the
// predictive part (T P') leaves of X, where the fit projected what the
// basis (T W') leaves: with one response on complete data the two differ
// by t (p . w_o).
TEST(OPLSModel, PredictionOnTrainingRows)
{
    NCDataMatrix<float> x = LowRankTable(30, 8, 3, 0.5);
    NCDataMatrix<float> y = ThreeResponses(x);
    KnockOut(x, 0.1);
    KnockOut(y, 0.05, 3);
    const NCOPLS stage0 = Fit(x, y, 0, 2);
    const NCOPLSPred pred0(&x, &stage0);
    EXPECT_EQ(pred0.SizePComps(), 2);
    EXPECT_EQ(pred0.SizeOComps(), 0);
    EXPECT_EQ(pred0.GetMaxComp(), 0);
    EXPECT_TRUE(SameCells(*pred0.GetTPred(), *stage0.GetTprim()));
    NCDataMatrix<float> fitted = Fitted(y, stage0), predicted = *pred0.GetYPred();
    for (int i = 1; i <= y.SizeRows(); ++i)
        for (int m = 1; m <= y.SizeColumns(); ++m) {
            if (IsMisVal(y[i][m]))
                continue;
            EXPECT_NEAR(predicted[i][m], fitted[i][m], 2e-5) << i << ", " << m;
        }

    const NCDataMatrix<float> xc = FromRowMajor(PLSX, PLSRows, PLSCols);
    const NCDataMatrix<float> yc = FromRowMajor(PLSY, PLSRows, 1);
    const NCOPLS one = Fit(xc, yc, 1);
    NCOPLSPred pred(&xc, &one);
    EXPECT_EQ(pred.GetMaxComp(), 1);
    pred.CalcNextComponent();
    const NCOPLS before = Fit(xc, yc, 0);
    const double shift = (*before.GetPprim())[1] * (*one.GetWOprim())[1];
    for (int i = 1; i <= PLSRows; ++i)
        EXPECT_NEAR((*pred.GetTOPred())[1][i], (*one.GetTOprim())[1][i] - (*before.GetTprim())[1][i] * shift, 1e-4);
    EXPECT_THROW(pred.CalcNextComponent(), NCInternalError);
}

// A model rebuilt from its matrices has the fit's scores and continues as
// the fitted one does; copies continue alike too.
TEST(OPLSModel, RebuildAndCopyContinueAsTheFit)
{
    NCDataMatrix<float> x = LowRankTable(30, 8, 4, 0.5);
    NCDataMatrix<float> y = ThreeResponses(x);
    KnockOut(x, 0.1);
    KnockOut(y, 0.05, 3);
    NCOPLS fitted = Fit(x, y, 2);
    NCOPLS rebuilt(&x, &y, *fitted.GetWMatrices(), *fitted.GetPMatrices(), *fitted.GetCMatrices(),
                   *fitted.GetWOprim(), *fitted.GetPOprim(), *fitted.GetCOprim(), 0, 200);
    NCOPLS copy = fitted;
    for (int step = 0; step < 2; ++step) {
        for (const NCOPLS* other : {&rebuilt, &copy}) {
            EXPECT_LT(RelativeDifference(*other->GetTprim(), *fitted.GetTprim()), 2e-6) << step;
            EXPECT_LT(RelativeDifference(*other->GetUprim(), *fitted.GetUprim()), 2e-6) << step;
            EXPECT_LT(RelativeDifference(*other->GetTOprim(), *fitted.GetTOprim()), 2e-6) << step;
            EXPECT_LT(RelativeDifference(*other->GetUOprim(), *fitted.GetUOprim()), 2e-6) << step;
            EXPECT_LT(RelativeDifference(other->GetXResiduals(), fitted.GetXResiduals()), 2e-6) << step;
            EXPECT_LT(RelativeDifference(other->GetYResiduals(), fitted.GetYResiduals()), 2e-6) << step;
            EXPECT_EQ(other->SizeComponents(), fitted.SizeComponents());
        }
        fitted.NextComponent(nullptr);
        rebuilt.NextComponent(nullptr);
        copy.NextComponent(nullptr);
        EXPECT_LT(RelativeDifference(*rebuilt.GetWprim(), *fitted.GetWprim()), 2e-6);
    }

    NCOPLS::MatrixList tooFew(fitted.GetWMatrices()->begin(), fitted.GetWMatrices()->end() - 1);
    EXPECT_THROW(NCOPLS(&x, &y, tooFew, *fitted.GetPMatrices(), *fitted.GetCMatrices(), *fitted.GetWOprim(),
                        *fitted.GetPOprim(), *fitted.GetCOprim(), 0, 200),
                 NCInternalError);
    const NCDataMatrix<float> narrow = x.SubMat(1, 30, 1, 7);
    EXPECT_THROW(NCOPLS(&narrow, &y, *fitted.GetWMatrices(), *fitted.GetPMatrices(), *fitted.GetCMatrices(),
                        *fitted.GetWOprim(), *fitted.GetPOprim(), *fitted.GetCOprim(), 0, 200),
                 NCInternalError);
}

// Negating a component changes no prediction and leaves the Y scores.
TEST(OPLSModel, NegatedComponentsPredictTheSame)
{
    NCDataMatrix<float> x = LowRankTable(30, 8, 4, 0.5);
    NCDataMatrix<float> y = ThreeResponses(x);
    KnockOut(x, 0.1);
    const NCOPLS model = Fit(x, y, 2, 2);
    NCOPLS negated = model;
    negated.NegatePredictiveComp(2);
    negated.NegateOComp(1);
    for (const NCDataMatrix<float>* (NCOPLS::*part)() const :
         {&NCOPLS::GetTprim, &NCOPLS::GetWprim, &NCOPLS::GetPprim, &NCOPLS::GetCprim}) {
        EXPECT_TRUE((*(negated.*part)())[1] == (*(model.*part)())[1]);
        EXPECT_TRUE((*(negated.*part)())[2] == (*(model.*part)())[2] * -1.0);
    }
    for (const NCDataMatrix<float>* (NCOPLS::*part)() const :
         {&NCOPLS::GetTOprim, &NCOPLS::GetWOprim, &NCOPLS::GetPOprim, &NCOPLS::GetCOprim}) {
        EXPECT_TRUE((*(negated.*part)())[1] == (*(model.*part)())[1] * -1.0);
        EXPECT_TRUE((*(negated.*part)())[2] == (*(model.*part)())[2]);
    }
    EXPECT_TRUE(SameCells(*negated.GetUprim(), *model.GetUprim()));
    EXPECT_TRUE(SameCells(*negated.GetUOprim(), *model.GetUOprim()));
    NCOPLSPred a(&x, &model), b(&x, &negated);
    for (int k = 0; k <= 2; ++k) {
        EXPECT_LT(MaxAbsDifference(*a.GetYPred(), *b.GetYPred()), 1e-5) << k;
        if (k < 2) {
            a.CalcNextComponent();
            b.CalcNextComponent();
        }
    }
    EXPECT_THROW(negated.NegatePredictiveComp(3), NCInternalError);
    EXPECT_THROW(negated.NegateOComp(0), NCInternalError);
}

TEST(OPLSModel, BreakCancelsTheFitAndTheOrthogonalComponent)
{
    NCDataMatrix<float> x = LowRankTable(30, 8, 4, 0.5);
    const NCDataMatrix<float> y = ThreeResponses(x);
    KnockOut(x, 0.1);
    NCProgress pressed;
    pressed.RequestBreak();
    NCOPLS first(&x, &y, 0, 200);
    auto e = Caught<CancelException>([&] { first.NextComponent(&pressed); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "OPLS component aborted.");

    // A break during the refit that follows a new orthogonal component.
    for (int after : {1, 3, 6}) {
        NCOPLS model = Fit(x, y, 0);
        NCProgress progress;
        int changes = 0;
        progress.SetObserver(
            [&](const NCProgressSnapshot&) {
                if (++changes == after)
                    progress.RequestBreak();
            },
            std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
        e = Caught<CancelException>([&] { model.NextComponent(&progress); });
        ASSERT_TRUE(e) << after;
        EXPECT_STREQ(e->what(), "OPLS component aborted.");
    }

    NCProgress progress;
    NCOPLS whole(&x, &y, 0, 200);
    whole.NextComponent(&progress);
    whole.NextComponent(&progress);
    EXPECT_NEAR(progress.GetFraction(), 1.0, 1e-6);
}

TEST(OPLSModel, SizesThatDoNotFitAreRefused)
{
    const NCDataMatrix<float> x = LowRankTable(10, 4, 2, 0.5), y = ThreeResponses(x);
    const NCDataMatrix<float> shortY = y.SubMat(1, 9, 1, 3);
    EXPECT_THROW(NCOPLS(&x, &shortY, 0, 200), NCInternalError);
    EXPECT_THROW(NCOPLS(nullptr, &y, 0, 200), NCInternalError);
    NCOPLS unfitted(&x, &y, 0, 200);
    EXPECT_THROW(NCOPLSPred(&x, &unfitted), NCInternalError);
    const NCOPLS model = Fit(x, y, 1);
    const NCDataMatrix<float> wide(3, 5, 1.0f);
    EXPECT_THROW(NCOPLSPred(&wide, &model), NCInternalError);
    const NCDataMatrix<float> empty;
    NCOPLS none(&empty, &empty, 0, 200);
    EXPECT_THROW(none.NextComponent(nullptr), NCInternalError);
}

// A response without a single value and more responses than observations
// are the caller's to refuse; the model still runs through them.
TEST(OPLSModel, DegenerateResponsesDoNotStopTheFit)
{
    NCDataMatrix<float> x = LowRankTable(12, 5, 2, 0.5);
    NCDataMatrix<float> y = ThreeResponses(x);
    for (int i = 1; i <= 12; ++i)
        y(i, 2, -99.0f);
    NCOPLS gap(&x, &y, 0, 200);
    gap.NextComponent(nullptr);
    gap.NextComponent(nullptr);
    EXPECT_TRUE(IsMisVal((*gap.GetCprim())[1][2]));
    EXPECT_FALSE(IsMisVal((*gap.GetCprim())[1][1]));
    EXPECT_EQ(gap.GetTprim()->GetNumMisVal(), 0);

    const NCDataMatrix<float> fewRows = x.SubMat(1, 2, 1, 5), wideY = ThreeResponses(fewRows);
    NCOPLS wide(&fewRows, &wideY, 0, 200);
    wide.NextComponent(nullptr);
    EXPECT_LE(wide.GetNumPredictive(), 2);
}

// The shares the tool and the Python module report for a stage: on complete
// data X splits into T P', TO PO' and the residuals, and Y's share is what
// its residuals leave; a response without variation (all missing here) has
// no share at all.
TEST(OPLSModel, ExplainedSharesAddUpWithTheResiduals)
{
    const NCDataMatrix<float> x = FromRowMajor(PLSX, PLSRows, PLSCols);
    const NCDataMatrix<float> y = FromRowMajor(PLSY, PLSRows, 1);
    const NCOPLS opls = Fit(x, y, 2);
    const OPLSExplained explained = GetOPLSExplained(opls, x, y);
    const NCDataMatrix<float> fitted =
        GetOPLSFittedY(*opls.GetTprim(), *opls.GetCprim(), *opls.GetTOprim(), *opls.GetCOprim());
    EXPECT_LT(MaxAbsDifference(fitted, Fitted(y, opls)), 1e-4);
    EXPECT_NEAR(explained.r2y, 1.0 - opls.GetYResiduals().GetSS() / y.GetSS(), 1e-5);
    EXPECT_NEAR(explained.r2yResponses[1], explained.r2y, 1e-6);
    EXPECT_GT(explained.r2xOrthogonal, 0.0f);
    EXPECT_NEAR(explained.r2xPredictive + explained.r2xOrthogonal + opls.GetXResiduals().GetSS() / x.GetSS(), 1.0,
                1e-4);

    NCDataMatrix<float> wide = LowRankTable(12, 5, 2, 0.5), gappy = ThreeResponses(wide);
    for (int i = 1; i <= 12; ++i)
        gappy(i, 2, -99.0f);
    const OPLSExplained partial = GetOPLSExplained(Fit(wide, gappy, 1), wide, gappy);
    EXPECT_TRUE(IsMisVal(partial.r2yResponses[2]));
    EXPECT_GT(partial.r2yResponses[1], 0.0f);
    EXPECT_LE(partial.r2yResponses[1], 1.0f);
    EXPECT_FALSE(IsMisVal(partial.r2y));
}
