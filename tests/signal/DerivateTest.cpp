// Savitzky-Golay smoothing, derivatives and extremum search: the window
// rule, exactness on polynomials, missing points, the undefined cases, and
// agreement with scipy.signal.savgol_filter.
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/signal/Derivate.h"

#include "signal/fixtures/SmoothingReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <utility>

using SG = Derivate<float>;
using V = NCDataVector<float>;

namespace {

constexpr float Mis = -99.0f;

SG Make(int order, std::size_t window)
{
    return SG(static_cast<SG::PolynomialOrder>(order), window);
}

// f(0), f(1), ... f(n - 1).
V Series(int n, const std::function<double(double)>& f)
{
    V v(n);
    for (int i = 1; i <= n; ++i)
        v(i, static_cast<float>(f(i - 1)));
    return v;
}

// Every element missing, and as many as y has.
void ExpectAllMissing(const V& result, int n, const std::string& label)
{
    EXPECT_EQ(result.Size(), n) << label;
    EXPECT_EQ(result.GetNumMisVal(), n) << label;
}

// result[i] = f(i - 1) at the 1-based points first..last.
void ExpectCurve(const V& result, int first, int last, const std::function<double(double)>& f, double tol,
                 const std::string& label)
{
    for (int i = first; i <= last; ++i)
        EXPECT_NEAR(result[i], f(i - 1), tol * (1.0 + std::fabs(f(i - 1)))) << label << " at " << i;
}

double Cubic(double t)
{
    return 0.5 + 0.25 * t - 0.03 * t * t + 0.002 * t * t * t;
}

} // namespace

// ------------------------------------------------------------------ window

TEST(DerivateWindow, IsWidenedToOrderPlusOneAndMadeOdd)
{
    EXPECT_EQ(Make(2, 4).GetWindow(), 5u);
    EXPECT_EQ(Make(3, 2).GetWindow(), 5u); // 4, then odd
    EXPECT_EQ(Make(3, 7).GetWindow(), 7u);
    EXPECT_EQ(Make(2, 6).GetWindow(), 7u);
    EXPECT_EQ(Make(0, 0).GetWindow(), 1u);
    EXPECT_EQ(Make(4, 5).GetWindow(), 5u);
    EXPECT_EQ(Make(3, 2).GetOrder(), SG::Cubic);
}

TEST(DerivateWindow, WidenedWindowGivesTheResultsOfTheWiderOne)
{
    const V y = Series(30, [](double t) { return std::sin(0.4 * t) + 0.1 * t; });
    for (const auto& [order, asked] : {std::pair{2, 4}, std::pair{3, 2}}) {
        const V wide = Make(order, 5).DoDerivate(y, 1, 1.0f, true);
        EXPECT_EQ(Make(order, static_cast<std::size_t>(asked)).DoDerivate(y, 1, 1.0f, true), wide);
    }
}

TEST(DerivateWindow, BadConstructionArgumentsThrow)
{
    EXPECT_THROW(Make(-1, 5), InvalidArgument);
    EXPECT_THROW(Make(2, std::size_t(1) << 40), InvalidArgument);
}

// ------------------------------------------------------------- fit matrix

TEST(DerivateFitMatrix, MatchesThePublishedFiveAndSevenPointWeights)
{
    // Savitzky and Golay's tables: quadratic smoothing (-3, 12, 17, 12, -3) / 35
    // and the 7-point linear slope (-3 .. 3) / 28.
    const NCDataMatrix<float> five = Make(2, 5).CalcXMatrix(V(5, 0.0f));
    ASSERT_EQ(five.SizeRows(), 3);
    ASSERT_EQ(five.SizeColumns(), 5);
    const double smooth[] = {-3, 12, 17, 12, -3};
    for (int j = 1; j <= 5; ++j) {
        EXPECT_NEAR(five[1][j], smooth[j - 1] / 35.0, 1e-7);
        EXPECT_NEAR(five[2][j], (j - 3) / 10.0, 1e-7);
    }
    // The object keeps the same matrix for its complete windows.
    const SG sg = Make(2, 5);
    const NCDataMatrix<float>& kept = sg.GetFitMatrix();
    for (int k = 1; k <= 3; ++k)
        EXPECT_EQ(kept[k], five[k]) << k;
    const NCDataMatrix<float> seven = Make(2, 7).CalcXMatrix(V(7, 1.0f));
    for (int j = 1; j <= 7; ++j)
        EXPECT_NEAR(seven[2][j], (j - 4) / 28.0, 1e-7);
}

TEST(DerivateFitMatrix, KeepsOnlyThePresentPoints)
{
    // A line through offsets -2, 0, 2: the mean and the slope of three points.
    const NCDataMatrix<float> fit = Make(1, 5).CalcXMatrix(V{4.0f, Mis, 1.0f, Mis, 7.0f});
    ASSERT_EQ(fit.SizeColumns(), 3);
    for (int j = 1; j <= 3; ++j) {
        EXPECT_NEAR(fit[1][j], 1.0 / 3.0, 1e-7);
        EXPECT_NEAR(fit[2][j], (j - 2) / 4.0, 1e-7);
    }
    EXPECT_EQ(fit.GetNumMisVal(), 0);
}

TEST(DerivateFitMatrix, IsEmptyWhenTooFewPointsArePresent)
{
    EXPECT_TRUE(Make(2, 5).CalcXMatrix(V{1.0f, Mis, Mis, 2.0f, Mis}).empty());
    EXPECT_TRUE(Make(0, 3).CalcXMatrix(V(3, Mis)).empty());
    EXPECT_FALSE(Make(2, 5).CalcXMatrix(V{1.0f, Mis, 3.0f, 2.0f, Mis}).empty());
}

TEST(DerivateFitMatrix, WideWindowsAreNotConfusedByTheOffsetMinus99)
{
    // Offset -99 is a real point of a 201-point window; a moving average
    // weighs it like any other.
    const NCDataMatrix<float> fit = Make(1, 201).CalcXMatrix(V(201, 0.0f));
    ASSERT_EQ(fit.SizeColumns(), 201);
    EXPECT_EQ(fit.GetNumMisVal(), 0);
    for (int j : {1, 2, 101, 201})
        EXPECT_NEAR(fit[1][j], 1.0 / 201.0, 1e-9);
    const V y = Series(250, [](double t) { return 2.0 - 0.01 * t; });
    ExpectCurve(Make(1, 201).Smooth(y, true), 1, 250, [](double t) { return 2.0 - 0.01 * t; }, 1e-5, "line");
}

// ------------------------------------------------- smoothing and derivatives

TEST(DerivateExactness, PolynomialsUpToTheDegreeAreReproduced)
{
    const V y = Series(40, Cubic);
    for (int order : {3, 4, 5}) {
        const SG sg = Make(order, 9);
        const std::string label = "order " + std::to_string(order);
        ExpectCurve(sg.Smooth(y, false), 5, 36, Cubic, 1e-5, label);
        // The ends come from the same polynomial, so they are exact too.
        ExpectCurve(sg.Smooth(y, true), 1, 40, Cubic, 1e-5, label + " edges");
        const auto slope = [](double t) { return 0.25 - 0.06 * t + 0.006 * t * t; };
        ExpectCurve(sg.DoDerivate(y, 1, 1.0f, true), 1, 40, slope, 1e-4, label + " d1");
        ExpectCurve(sg.DoDerivate(y, 3, 1.0f, true), 1, 40, [](double) { return 0.012; }, 1e-4, label + " d3");
    }
}

TEST(DerivateExactness, TheSlopeOfThreeIOverHalfSteps)
{
    const V y = Series(20, [](double t) { return 3.0 * t; });
    const V d1 = Make(2, 5).DoDerivate(y, 1, 0.5f, false);
    for (int i = 3; i <= 18; ++i)
        EXPECT_NEAR(d1[i], 6.0f, 1e-5) << i;
    EXPECT_EQ(d1.GetNumMisVal(), 4);
    const V d2 = Make(2, 5).DoDerivate(y, 2, 0.5f, true);
    for (int i = 1; i <= 20; ++i)
        EXPECT_NEAR(d2[i], 0.0f, 1e-4) << i;
}

TEST(DerivateExactness, EdgesFalseLeavesHalfAWindowMissingAtEachEnd)
{
    const V y = Series(15, [](double t) { return t * t; });
    const V r = Make(2, 7).Smooth(y, false);
    EXPECT_EQ(r.GetNumMisVal(), 6);
    for (int i : {1, 2, 3, 13, 14, 15})
        EXPECT_EQ(r[i], Mis) << i;
    EXPECT_NEAR(r[4], 9.0f, 1e-5);
}

// ---------------------------------------------------------- undefined cases

TEST(DerivateUndefined, SeriesShorterThanTheWindowIsAllMissing)
{
    const V y = Series(8, Cubic);
    ExpectAllMissing(Make(2, 9).Smooth(y, true), 8, "short");
    ExpectAllMissing(Make(2, 9).DoDerivate(V(), 1, 1.0f, true), 0, "empty");
    // Exactly one window long: its centre, and the edges from that window.
    const V one = Make(3, 8 + 1).Smooth(Series(9, Cubic), true);
    EXPECT_EQ(one.GetNumMisVal(), 0);
    ExpectCurve(one, 1, 9, Cubic, 1e-5, "one window");
}

TEST(DerivateUndefined, DerivativeAboveTheOrderIsAllMissing)
{
    const V y = Series(20, Cubic);
    ExpectAllMissing(Make(2, 5).DoDerivate(y, 3, 1.0f, true), 20, "d > p");
    ExpectAllMissing(Make(2, 5).DoDerivate(y, -1, 1.0f, true), 20, "d < 0");
    // The highest derivative the polynomial has is defined.
    EXPECT_EQ(Make(2, 5).DoDerivate(y, 2, 1.0f, true).GetNumMisVal(), 0);
}

TEST(DerivateUndefined, ZeroStepOnlyMattersForDerivatives)
{
    const V y = Series(20, Cubic);
    ExpectAllMissing(Make(2, 5).DoDerivate(y, 1, 0.0f, true), 20, "step 0");
    EXPECT_EQ(Make(2, 5).DoDerivate(y, 0, 0.0f, true), Make(2, 5).Smooth(y, true));
    // A negative spacing runs the axis backwards: odd derivatives change sign.
    const V up = Make(2, 5).DoDerivate(y, 1, 1.0f, true), down = Make(2, 5).DoDerivate(y, 1, -1.0f, true);
    for (int i = 1; i <= 20; ++i)
        EXPECT_EQ(down[i], -up[i]) << i;
}

// ----------------------------------------------------------- missing points

TEST(DerivateMissing, WindowsWithMissingPointsAreRefittedOnThePresentOnes)
{
    // A cubic stays exact when fitted on any four or more of its points, and
    // a missing centre gets the polynomial's value.
    V y = Series(40, Cubic);
    for (int i : {4, 11, 12, 20, 33})
        y(i, Mis);
    const SG sg = Make(3, 9);
    const V smooth = sg.Smooth(y, true);
    EXPECT_EQ(smooth.GetNumMisVal(), 0);
    ExpectCurve(smooth, 1, 40, Cubic, 1e-5, "smooth");
    ExpectCurve(sg.DoDerivate(y, 2, 0.5f, true), 1, 40, [](double t) { return (-0.06 + 0.012 * t) * 4.0; }, 1e-3,
                "d2");
}

TEST(DerivateMissing, RefitAgreesWithTheFitMatrixOfThePattern)
{
    // Noisy data, so only the least-squares fit on the present points agrees.
    V y = Series(60, [](double t) { return std::sin(0.7 * t) + 0.3 * std::cos(2.9 * t); });
    for (int i : {5, 6, 18, 30, 31, 32, 47})
        y(i, Mis);
    const SG sg = Make(2, 7);
    const V slope = sg.DoDerivate(y, 1, 1.0f, false);
    for (int c = 4; c <= 57; ++c) {
        V window(7);
        window.SetRange(1, y, c - 3, c + 3);
        const NCDataMatrix<float> fit = sg.CalcXMatrix(window);
        if (fit.empty()) {
            EXPECT_EQ(slope[c], Mis) << c;
            continue;
        }
        double a1 = 0.0;
        for (int j = 1, col = 1; j <= 7; ++j)
            if (window[j] != Mis)
                a1 += fit[2][col++] * window[j];
        EXPECT_NEAR(slope[c], a1, 1e-5) << c;
    }
    // Windows around 30..32 keep four of seven points; the centre 31 is fitted.
    EXPECT_NE(slope[31], Mis);
}

TEST(DerivateMissing, WindowsWiderThanAWordKeepTheirPatternsApart)
{
    // Past 64 points a window's missing pattern no longer fits one word;
    // two patterns met in turn must still get their own weights.
    const auto bowl = [](double t) { return 0.01 * (t - 60.0) * (t - 60.0) - 2.0; };
    V y = Series(200, bowl);
    for (int i : {40, 41, 90, 130, 131, 132, 170})
        y(i, Mis);
    ExpectCurve(Make(2, 71).Smooth(y, true), 1, 200, bowl, 1e-4, "w71");
    ExpectCurve(Make(2, 71).DoDerivate(y, 1, 1.0f, true), 1, 200, [](double t) { return 0.02 * (t - 60.0); }, 1e-4,
                "w71 d1");
}

TEST(DerivateMissing, TooFewPresentPointsLeaveTheResultMissing)
{
    V y = Series(20, Cubic);
    for (int i : {8, 9, 10, 11})
        y(i, Mis);
    const V r = Make(2, 5).Smooth(y, false);
    // Windows centred on 9 and 10 keep one point; those on 8 and 11 keep two
    // (fewer than the three a quadratic needs); 7 and 12 keep three.
    for (int i : {8, 9, 10, 11})
        EXPECT_EQ(r[i], Mis) << i;
    for (int i : {7, 12})
        EXPECT_NEAR(r[i], Cubic(i - 1), 0.05) << i;
    EXPECT_EQ(r.GetNumMisVal(), 4 + 4);
}

TEST(DerivateMissing, EdgesUseTheRefittedEndWindows)
{
    V y = Series(20, [](double t) { return 1.0 + 0.5 * t * t; });
    y(2, Mis);
    y(19, Mis);
    const V r = Make(2, 5).Smooth(y, true);
    EXPECT_EQ(r.GetNumMisVal(), 0);
    ExpectCurve(r, 1, 20, [](double t) { return 1.0 + 0.5 * t * t; }, 1e-5, "edges");
    // An end window without enough points leaves its ends missing too.
    V sparse = Series(20, Cubic);
    for (int i : {1, 2, 4})
        sparse(i, Mis);
    const V s = Make(2, 5).Smooth(sparse, true);
    // Points 1..5 keep 3 and 5 only: the two ends and the centre 3 are missing.
    for (int i : {1, 2, 3})
        EXPECT_EQ(s[i], Mis) << i;
    EXPECT_EQ(s.GetNumMisVal(), 3);
}

// ------------------------------------------------------------------ optima

TEST(DerivateOptima, MaximumInsideTheWindow)
{
    const SG sg = Make(2, 5);
    // 2 - (x - 0.6)^2 at offsets -2..2: vertex at +0.6, the third point + 0.6.
    const V w = Series(5, [](double t) { return 2.0 - (t - 2.0 - 0.6) * (t - 2.0 - 0.6); });
    float value = 0.0f;
    EXPECT_NEAR(sg.GetOptima(w, 0.5f, false, true, value), (0.6 + 3.0) * 0.5, 1e-5);
    // Read at offset 0, the grid point between the vertex and the centre.
    EXPECT_NEAR(value, 2.0 - 0.36, 1e-5);
    // Asked for a minimum: none.
    value = 0.0f;
    EXPECT_EQ(sg.GetOptima(w, 0.5f, true, true, value), Mis);
    EXPECT_EQ(value, Mis);
}

TEST(DerivateOptima, MinimumLeftOfTheCentreTruncatesTowardsIt)
{
    const SG sg = Make(2, 7);
    const V w = Series(7, [](double t) { return (t - 3.0 + 1.5) * (t - 3.0 + 1.5) + 4.0; });
    float value = 0.0f;
    EXPECT_NEAR(sg.GetOptima(w, 1.0f, true, true, value), -1.5 + 4.0, 1e-5);
    EXPECT_NEAR(value, 4.25, 1e-5); // at offset -1, not -2
}

TEST(DerivateOptima, VertexBeyondTheWindow)
{
    const SG sg = Make(2, 5);
    const V w = Series(5, [](double t) { return (t - 2.0 - 4.0) * (t - 2.0 - 4.0); });
    float value = 0.0f;
    EXPECT_EQ(sg.GetOptima(w, 2.0f, true, true, value), Mis);
    EXPECT_EQ(value, Mis);
    EXPECT_NEAR(sg.GetOptima(w, 2.0f, true, false, value), (4.0 + 3.0) * 2.0, 1e-4);
    EXPECT_NEAR(value, 0.0, 1e-4);
}

TEST(DerivateOptima, UndefinedFits)
{
    float value = 0.0f;
    const V line = Series(5, [](double t) { return 1.0 + t; });
    EXPECT_EQ(Make(2, 5).GetOptima(line, 1.0f, true, false, value), Mis);  // no curvature
    EXPECT_EQ(Make(2, 5).GetOptima(line, 1.0f, false, false, value), Mis);
    EXPECT_EQ(Make(1, 5).GetOptima(line, 1.0f, true, false, value), Mis);   // no quadratic term
    const V bowl = Series(5, [](double t) { return (t - 2.0) * (t - 2.0); });
    EXPECT_EQ(Make(2, 7).GetOptima(bowl, 1.0f, true, false, value), Mis);   // not the object's window
    EXPECT_EQ(Make(2, 5).GetOptima(V{1.0f, Mis, Mis, 2.0f, Mis}, 1.0f, true, false, value), Mis);
    EXPECT_EQ(value, Mis);
    // Three present points still fix the parabola.
    EXPECT_NEAR(Make(2, 5).GetOptima(V{4.0f, Mis, 0.0f, Mis, 4.0f}, 1.0f, true, true, value), 3.0, 1e-5);
    EXPECT_NEAR(value, 0.0, 1e-5);
}

// ------------------------------------------------------- against references

TEST(DerivateReference, AgreesWithScipySavgolFilter)
{
    const int n = static_cast<int>(std::size(sgref::Signal));
    V y;
    y.CopyZeroBasedVector(sgref::Signal, n);
    for (const sgref::Case& c : sgref::Cases) {
        const SG sg = Make(c.order, static_cast<std::size_t>(c.window));
        const V r = sg.DoDerivate(y, c.derivative, c.step, true);
        const std::string label = "w" + std::to_string(c.window) + " p" + std::to_string(c.order) + " d" +
                                  std::to_string(c.derivative);
        // Relative to the value, floored at the series' typical size where a
        // derivative passes through zero.
        double rms = 0.0;
        for (double e : c.expected)
            rms += e * e;
        rms = std::sqrt(rms / n);
        for (int i = 1; i <= n; ++i) {
            const double e = c.expected[i - 1];
            EXPECT_NEAR(r[i], e, 1e-6 * std::max(std::fabs(e), rms)) << label << " at " << i;
        }
    }
}

TEST(DerivateReference, LongSeriesSharedOverThreadsMatchesShortPieces)
{
    // The long series takes the parallel blocked path; each piece is short
    // enough to run alone on one thread. The windows of both are the same
    // points, so the results must agree bit for bit.
    const int n = 200000;
    V y = Series(n, [](double t) { return std::sin(0.001 * t) + 0.01 * std::sin(1.3 * t); });
    for (int i = 1000; i <= n; i += 997)
        y(i, Mis);
    // Gaps on both sides of the middle, where two threads split the refit.
    for (int i : {n / 2 - 3, n / 2 + 1, n / 2 + 4, n / 2 + 8})
        y(i, Mis);
    const SG sg = Make(3, 11);
    const V whole = sg.DoDerivate(y, 1, 0.1f, false);
    for (int first : {1, 777, n / 2 - 150, n - 300}) {
        V piece(301);
        piece.SetRange(1, y, first, first + 300);
        const V part = sg.DoDerivate(piece, 1, 0.1f, false);
        for (int i = 6; i <= 296; ++i)
            ASSERT_EQ(part[i], whole[first + i - 1]) << first + i - 1;
    }
    NCMultiThreading::ThreadingControl::SetThreadingIsOn(false);
    const V serial = sg.DoDerivate(y, 1, 0.1f, false);
    NCMultiThreading::ThreadingControl::Reset();
    EXPECT_EQ(serial, whole);
}
