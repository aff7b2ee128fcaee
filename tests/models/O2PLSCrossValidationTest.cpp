#include "veltancmat/models/O2PLSCrossValidation.h"

#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/models/NCO2PLS.h"
#include "veltancmat/models/NCO2PLSPred.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include "models/ModelData.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

struct Blocks {
    NCDataMatrix<float> x, y;
};

// Score vectors of unit length, centred and exactly orthogonal in the
// sample, so that the joint, X-only and Y-only parts of the data below share
// nothing by chance.
std::vector<std::vector<double>> OrthogonalScores(int n, int count, std::mt19937& gen)
{
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<std::vector<double>> s{std::vector<double>(static_cast<std::size_t>(n), 1.0 / std::sqrt(n))};
    for (int a = 0; a < count; ++a) {
        std::vector<double> v(static_cast<std::size_t>(n));
        for (double& e : v)
            e = normal(gen);
        for (const auto& b : s) {
            const double dot = std::inner_product(v.begin(), v.end(), b.begin(), 0.0);
            std::transform(v.begin(), v.end(), b.begin(), v.begin(), [&](double e, double f) { return e - dot * f; });
        }
        const double norm = std::sqrt(std::inner_product(v.begin(), v.end(), v.begin(), 0.0));
        std::transform(v.begin(), v.end(), v.begin(), [&](double e) { return e / norm; });
        s.push_back(v);
    }
    return {s.begin() + 1, s.end()};
}

// Two joint directions, one direction of X that Y never sees and one of Y
// that X never sees, plus noise. The one-sided directions lean on the first
// joint weights, so that leaving them in a block spoils its joint scores.
Blocks KnownStructure(int n, double noise, unsigned seed = 5)
{
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    constexpr int K = 8, M = 6;
    const double w1[K] = {1, 1, 1, 1, 0, 0, 0, 0}, w2[K] = {0, 0, 0, 0, 1, 1, -1, -1};
    const double pox[K] = {1, 1, 0, 0, 1, -1, 0, 0};
    const double c1[M] = {1, 1, 1, 0, 0, 0}, c2[M] = {0, 0, 0, 1, 1, -1}, poy[M] = {1, 1, -1, 0, 1, 1};
    const auto s = OrthogonalScores(n, 4, gen);
    const double root = std::sqrt(n); // standard deviations 2, 1.2, 1.5 and 1.5
    Blocks b{NCDataMatrix<float>(n, K), NCDataMatrix<float>(n, M)};
    for (int i = 1; i <= n; ++i) {
        const double t1 = 2.0 * root * s[0][i - 1], t2 = 1.2 * root * s[1][i - 1];
        const double tox = 1.5 * root * s[2][i - 1], toy = 1.5 * root * s[3][i - 1];
        for (int j = 0; j < K; ++j)
            b.x(i, j + 1, static_cast<float>(t1 * w1[j] + t2 * w2[j] + tox * pox[j] + noise * normal(gen)));
        for (int j = 0; j < M; ++j)
            b.y(i, j + 1, static_cast<float>(t1 * c1[j] + t2 * c2[j] + toy * poy[j] + noise * normal(gen)));
    }
    return b;
}

// The rows of `m` (1-based indices) less the column means of `kept`,
// computed here without the library's helpers.
NCDataMatrix<float> Centred(const NCDataMatrix<float>& m, const std::vector<int>& rows, const std::vector<int>& kept)
{
    NCDataMatrix<float> out(static_cast<int>(rows.size()), m.SizeColumns());
    for (int j = 1; j <= m.SizeColumns(); ++j) {
        double mean = 0.0;
        for (int i : kept)
            mean += m[i][j];
        mean /= static_cast<double>(kept.size());
        for (std::size_t r = 0; r < rows.size(); ++r)
            out(static_cast<int>(r) + 1, j, static_cast<float>(m[rows[r]][j] - mean));
    }
    return out;
}

double Press(const NCDataMatrix<float>& actual, const NCDataMatrix<float>& predicted)
{
    double sum = 0.0;
    for (int i = 1; i <= actual.SizeRows(); ++i)
        for (int j = 1; j <= actual.SizeColumns(); ++j)
            sum += std::pow(double(actual[i][j]) - predicted[i][j], 2);
    return sum;
}

struct CellQ2 {
    double q2Y, q2X;
};

// One cell by a fresh model per round, fitted with NCO2PLS::Fit.
CellQ2 RefitCell(const Blocks& b, int rounds, int a, int ox, int oy)
{
    const auto groups = GetDeafultCVGroupsVector(b.x.SizeRows(), rounds);
    double pressY = 0, pressX = 0, ssY = 0, ssX = 0;
    for (int g = 0; g < rounds; ++g) {
        std::vector<int> test, train;
        for (int i = 1; i <= b.x.SizeRows(); ++i)
            (groups[i] == g ? test : train).push_back(i);
        NCO2PLS model(Centred(b.x, train, train), Centred(b.y, train, train), true,
                      O2PLSCrossValidation::RoundIterations);
        model.Fit(a, ox, oy);
        const NCDataMatrix<float> xTest = Centred(b.x, test, train), yTest = Centred(b.y, test, train);
        pressY += Press(yTest, NCO2PLSPred(model, xTest, true).GetPrediction());
        pressX += Press(xTest, NCO2PLSPred(model, yTest, false).GetPrediction());
        ssY += Press(yTest, NCDataMatrix<float>(yTest.SizeRows(), yTest.SizeColumns(), 0.0f));
        ssX += Press(xTest, NCDataMatrix<float>(xTest.SizeRows(), xTest.SizeColumns(), 0.0f));
    }
    return {1.0 - pressY / ssY, 1.0 - pressX / ssX};
}

// True when f throws NCError meant for the user, not an internal error.
template <class F>
bool RefusedByUser(F f)
{
    try {
        f();
    } catch (const NCInternalError&) {
        return false;
    } catch (const NCError&) {
        return true;
    }
    return false;
}

} // namespace

TEST(O2PLSCrossValidation, GridAgreesWithRefitsOfEveryCell)
{
    const Blocks b = KnownStructure(23, 0.3);
    const O2PLSCrossValidation cv(b.x, b.y, 3, 2, 2, 5, nullptr);
    const O2PLSCVResults& r = cv.GetResults();
    ASSERT_EQ(r.MaxPredictive(), 3);
    ASSERT_EQ(r.MaxOrthogonalX(), 2);
    ASSERT_EQ(r.MaxOrthogonalY(), 2);
    for (int a = 1; a <= 3; ++a)
        for (int ox = 0; ox <= 2; ++ox)
            for (int oy = 0; oy <= 2; ++oy) {
                const CellQ2 ref = RefitCell(b, 5, a, ox, oy);
                EXPECT_NEAR(r.GetQ2Y(a, ox, oy), ref.q2Y, 1e-5) << a << ' ' << ox << ' ' << oy;
                EXPECT_NEAR(r.GetQ2X(a, ox, oy), ref.q2X, 1e-5) << a << ' ' << ox << ' ' << oy;
            }
    // Without a joint part the prediction is the kept rows' means.
    EXPECT_EQ(r.GetQ2Y(0, 1, 2), 0.0f);
    EXPECT_EQ(r.GetQ2X(0, 0, 0), 0.0f);
}

TEST(O2PLSCrossValidation, CentresEachRoundOnItsKeptRows)
{
    // An offset of every column changes nothing: each round centres anew.
    const Blocks b = KnownStructure(20, 0.3);
    Blocks shifted = b;
    for (int i = 1; i <= 20; ++i) {
        for (int j = 1; j <= b.x.SizeColumns(); ++j)
            shifted.x(i, j, b.x[i][j] + 5.0f + j);
        for (int j = 1; j <= b.y.SizeColumns(); ++j)
            shifted.y(i, j, b.y[i][j] - 3.0f);
    }
    const O2PLSCVResults r = O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 4, nullptr).GetResults();
    const O2PLSCVResults s = O2PLSCrossValidation(shifted.x, shifted.y, 2, 1, 1, 4, nullptr).GetResults();
    for (int a = 1; a <= 2; ++a)
        for (int ox = 0; ox <= 1; ++ox)
            for (int oy = 0; oy <= 1; ++oy) {
                EXPECT_NEAR(r.GetQ2Y(a, ox, oy), s.GetQ2Y(a, ox, oy), 1e-4);
                EXPECT_NEAR(r.GetQ2X(a, ox, oy), s.GetQ2X(a, ox, oy), 1e-4);
            }
}

TEST(O2PLSCrossValidation, AGroupWithoutRowsAddsNothing)
{
    const Blocks b = KnownStructure(15, 0.3);
    const O2PLSCrossValidation::IndexList labels = GetDeafultCVGroupsVector(15, 3);
    const O2PLSCVResults three = O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 3, nullptr, &labels).GetResults();
    const O2PLSCVResults four = O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 4, nullptr, &labels).GetResults();
    for (int a = 1; a <= 2; ++a) {
        EXPECT_EQ(three.GetQ2Y(a, 1, 0), four.GetQ2Y(a, 1, 0));
        EXPECT_EQ(three.GetQ2X(a, 0, 1), four.GetQ2X(a, 0, 1));
    }
}

TEST(O2PLSCrossValidation, CellsWithoutAnOrthogonalDimensionAreMissing)
{
    // Three X columns: with one joint component the fourth X-orthogonal
    // component has no room left, in every round.
    const Blocks b = KnownStructure(15, 0.3);
    NCDataMatrix<float> x3(15, 3);
    for (int i = 1; i <= 15; ++i)
        for (int j = 1; j <= 3; ++j)
            x3(i, j, b.x[i][j + 3]);
    const O2PLSCVResults r = O2PLSCrossValidation(x3, b.y, 1, 4, 0, 3, nullptr).GetResults();
    EXPECT_FALSE(IsMisVal(r.GetQ2Y(1, 3, 0)));
    EXPECT_TRUE(IsMisVal(r.GetQ2Y(1, 4, 0)));
    EXPECT_TRUE(IsMisVal(r.GetQ2X(1, 4, 0)));
    const O2PLSPredictiveComponentEstimator choice(r, -1.0f, -1.0f);
    EXPECT_EQ(choice.GetOrthogonalX(), 3);

    // Four kept rows, centred, span three dimensions: no fourth joint one.
    const Blocks few = KnownStructure(6, 0.3);
    const O2PLSCVResults f = O2PLSCrossValidation(few.x, few.y, 4, 0, 0, 3, nullptr).GetResults();
    EXPECT_FALSE(IsMisVal(f.GetQ2X(3, 0, 0)));
    EXPECT_TRUE(IsMisVal(f.GetQ2X(4, 0, 0)));
    EXPECT_LE(O2PLSPredictiveComponentEstimator(f, -1.0f, 0.0f).GetPredictive(), 3);
}

TEST(O2PLSCrossValidation, JointCountsBeyondTheCrossProductsRankAreMissing)
{
    // Two Y columns that are one column twice: X'Y has rank one in every
    // round, so a second joint component has no direction to take.
    const Blocks b = KnownStructure(18, 0.3);
    NCDataMatrix<float> y(18, 2);
    for (int i = 1; i <= 18; ++i) {
        y(i, 1, b.y[i][1]);
        y(i, 2, 2.0f * b.y[i][1]);
    }
    const O2PLSCVResults r = O2PLSCrossValidation(b.x, y, 2, 1, 0, 3, nullptr).GetResults();
    for (int ox = 0; ox <= 1; ++ox) {
        EXPECT_FALSE(IsMisVal(r.GetQ2Y(1, ox, 0))) << ox;
        EXPECT_TRUE(IsMisVal(r.GetQ2Y(2, ox, 0))) << ox;
        EXPECT_TRUE(IsMisVal(r.GetQ2X(2, ox, 0))) << ox;
    }
    EXPECT_EQ(O2PLSPredictiveComponentEstimator(r, -1.0f, -1.0f).GetPredictive(), 1);
}

TEST(O2PLSCrossValidation, EstimatorFindsTheKnownStructure)
{
    const Blocks b = KnownStructure(40, 0.1);
    const O2PLSCrossValidation cv(b.x, b.y, 4, 3, 3, 7, nullptr);
    const O2PLSCVResults& r = cv.GetResults();
    const O2PLSPredictiveComponentEstimator choice(r, 0.01f, 0.01f);
    EXPECT_EQ(choice.GetPredictive(), 2);
    EXPECT_EQ(choice.GetOrthogonalX(), 1);
    EXPECT_EQ(choice.GetOrthogonalY(), 1);
    EXPECT_EQ(choice.GetQ2Y(), r.GetQ2Y(2, 1, 1));
    EXPECT_EQ(choice.GetQ2X(), r.GetQ2X(2, 1, 1));
    // The most either direction can reach is the joint share of the block
    // predicted: (4 + 1.44) 3 of 16.32 + 11.25 + 0.06 in Y, (4 + 1.44) 4 of
    // 21.76 + 9 + 0.08 in X (variances times squared loading lengths).
    // Forty rows in seven groups lose some of it (at most 0.11 over twelve
    // seeds of this table).
    EXPECT_LT(choice.GetQ2Y(), 0.5907f);
    EXPECT_GT(choice.GetQ2Y(), 0.5907f - 0.13f);
    EXPECT_LT(choice.GetQ2X(), 0.7056f);
    EXPECT_GT(choice.GetQ2X(), 0.7056f - 0.13f);
    // Filtering the X-only variation out of X is what lifts the prediction
    // of Y, and the Y-only variation out of Y that of X.
    EXPECT_GT(r.GetQ2Y(2, 1, 0), r.GetQ2Y(2, 0, 0) + 0.04f);
    EXPECT_GT(r.GetQ2X(2, 0, 1), r.GetQ2X(2, 0, 0) + 0.03f);
}

TEST(O2PLSCrossValidation, EstimatorRuleAtItsEdges)
{
    O2PLSCVResults r(3, 2, 1);
    for (int a = 1; a <= 3; ++a)
        for (int ox = 0; ox <= 2; ++ox)
            for (int oy = 0; oy <= 1; ++oy)
                r.SetCell(a, ox, oy, 0.1f * a + 0.01f * ox, 0.1f * a + 0.02f * oy);
    // A gain of 0.1 per joint component: a limit just above it keeps none,
    // and then no orthogonal component either.
    O2PLSPredictiveComponentEstimator none(r, 0.2f, 0.0f);
    EXPECT_EQ(none.GetPredictive(), 0);
    EXPECT_EQ(none.GetOrthogonalX(), 0);
    EXPECT_EQ(none.GetOrthogonalY(), 0);
    EXPECT_EQ(none.GetQ2Y(), 0.0f);

    O2PLSPredictiveComponentEstimator all(r, 0.05f, 0.005f);
    EXPECT_EQ(all.GetPredictive(), 3);
    EXPECT_EQ(all.GetOrthogonalX(), 2);
    EXPECT_EQ(all.GetOrthogonalY(), 1);

    // The orthogonal gains (0.01 X, 0.02 Y) against a limit between them.
    O2PLSPredictiveComponentEstimator between(r, 0.05f, 0.015f);
    EXPECT_EQ(between.GetOrthogonalX(), 0);
    EXPECT_EQ(between.GetOrthogonalY(), 1);

    // A missing cell ends the search where it stands.
    r.SetCell(3, 0, 0, NCMisVal<float>, NCMisVal<float>);
    r.SetCell(3, 0, 1, NCMisVal<float>, NCMisVal<float>);
    r.SetCell(3, 1, 0, NCMisVal<float>, 0.3f);
    r.SetCell(3, 1, 1, NCMisVal<float>, 0.3f);
    r.SetCell(3, 2, 0, NCMisVal<float>, 0.3f);
    r.SetCell(3, 2, 1, NCMisVal<float>, 0.3f);
    EXPECT_EQ(O2PLSPredictiveComponentEstimator(r, 0.05f, 0.0f).GetPredictive(), 2);
    r.SetCell(2, 1, 0, NCMisVal<float>, NCMisVal<float>);
    EXPECT_EQ(O2PLSPredictiveComponentEstimator(r, 0.05f, 0.0f).GetOrthogonalX(), 0);

    // The process-wide limits are read when none is given (0.01 by default).
    O2PLSPredictiveComponentEstimator byDefault(r);
    EXPECT_EQ(byDefault.GetPredictive(), 2);
}

TEST(O2PLSCrossValidation, ProgressReachesItsEndAndBreaksCancel)
{
    const Blocks b = KnownStructure(18, 0.3);
    NCProgress whole;
    std::vector<double> seen;
    whole.SetObserver([&](const NCProgressSnapshot& s) { seen.push_back(s.fraction); },
                      std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 3, &whole);
    EXPECT_NEAR(whole.GetFraction(), 1.0, 1e-6);
    ASSERT_FALSE(seen.empty());
    for (std::size_t i = 1; i < seen.size(); ++i)
        EXPECT_GE(seen[i], seen[i - 1] - 1e-9);

    NCProgress pressed;
    pressed.RequestBreak();
    auto e = Caught<CancelException>([&] { O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 3, &pressed); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "O2PLS cross-validation aborted.");

    NCProgress partWay;
    int changes = 0;
    partWay.SetObserver(
        [&](const NCProgressSnapshot&) {
            if (++changes == 5)
                partWay.RequestBreak();
        },
        std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    e = Caught<CancelException>([&] { O2PLSCrossValidation(b.x, b.y, 2, 1, 1, 3, &partWay); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "O2PLS cross-validation aborted.");
    EXPECT_LT(partWay.GetFraction(), 1.0);
}

TEST(O2PLSCrossValidation, MessagesAreTranslated)
{
    const Blocks b = KnownStructure(12, 0.3);
    NCProgress pressed;
    pressed.RequestBreak();
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const auto cancel = Caught<CancelException>([&] { O2PLSCrossValidation(b.x, b.y, 1, 0, 0, 3, &pressed); });
    const auto rounds = Caught<NCError>([&] { O2PLSCrossValidation(b.x, b.y, 1, 0, 0, 13, nullptr); });
    MessageCatalog::SetLanguage("C");
    ASSERT_TRUE(cancel && rounds);
    EXPECT_STREQ(cancel->what(), "O2PLS-Kreuzvalidierung abgebrochen.");
    EXPECT_STREQ(rounds->what(),
                 "Die Kreuzvalidierung braucht mindestens zwei Gruppen und höchstens eine Gruppe je Beobachtung.");
}

TEST(O2PLSCrossValidation, RefusesBadArguments)
{
    const Blocks b = KnownStructure(12, 0.3);
    const auto bad = [&](int a, int ox, int oy, int rounds) {
        return RefusedByUser([&] { O2PLSCrossValidation(b.x, b.y, a, ox, oy, rounds, nullptr); });
    };
    EXPECT_TRUE(bad(1, -1, 0, 3));
    EXPECT_TRUE(bad(1, 0, -1, 3));
    EXPECT_TRUE(bad(0, 0, 0, 3));
    EXPECT_TRUE(bad(7, 0, 0, 3)); // Y has six columns
    EXPECT_TRUE(bad(1, 0, 0, 1));
    EXPECT_TRUE(bad(1, 0, 0, 13)); // more groups than rows
    EXPECT_FALSE(bad(1, 0, 0, 12)); // one row per group

    O2PLSCrossValidation::IndexList labels = GetDeafultCVGroupsVector(12, 3);
    labels(4) = 3;
    EXPECT_TRUE(RefusedByUser([&] { O2PLSCrossValidation(b.x, b.y, 1, 0, 0, 3, nullptr, &labels); }));
    // Every row but one in group 0: that round keeps a single row.
    O2PLSCrossValidation::IndexList lopsided(12, 0);
    lopsided(1) = 1;
    EXPECT_TRUE(RefusedByUser([&] { O2PLSCrossValidation(b.x, b.y, 1, 0, 0, 2, nullptr, &lopsided); }));

    const O2PLSCrossValidation::IndexList shortLabels(11, 0);
    EXPECT_TRUE(Caught<NCInternalError>([&] { O2PLSCrossValidation(b.x, b.y, 1, 0, 0, 2, nullptr, &shortLabels); }));
    const NCDataMatrix<float> shorter = b.y.GetRowSubMatrix({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    EXPECT_TRUE(Caught<NCInternalError>([&] { O2PLSCrossValidation(b.x, shorter, 1, 0, 0, 2, nullptr); }));
    NCDataMatrix<float> gap(b.y);
    gap(3, 2, NCMisVal<float>);
    EXPECT_TRUE(Caught<NCInternalError>([&] { O2PLSCrossValidation(b.x, gap, 1, 0, 0, 2, nullptr); }));
    EXPECT_TRUE(Caught<NCInternalError>([] { return O2PLSCVResults(1, 1, 1).GetQ2Y(2, 0, 0); }));
    EXPECT_TRUE(Caught<NCInternalError>([] { return O2PLSCVResults(1, 1, 1).GetQ2X(0, 2, 0); }));
}
