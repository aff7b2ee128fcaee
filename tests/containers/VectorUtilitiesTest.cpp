// Interpolation, moving windows, search and peak normalisation over float
// vectors, against numpy/scipy where a reference exists.
#include "veltancmat/containers/NCDataVectorUtilities.h"
#include "veltancmat/platform/NCError.h"

#include "containers/fixtures/VectorUtilitiesReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace U = NCDataVectorUtilities;
using QvMath::CompareTolerant;
using V = NCDataVector<float>;
constexpr auto None = QvMath::ExtrapolateNone, Clamp = QvMath::ExtrapolateClamp, Linear = QvMath::ExtrapolateLinear;

namespace {

template <std::size_t N>
V Make(const float (&values)[N])
{
    V v;
    v.CopyZeroBasedVector(values, static_cast<int>(N));
    return v;
}

// -99 exactly where the reference is missing, and an exact missing count.
void ExpectMatches(const V& result, const double* reference, int n, const std::string& label)
{
    ASSERT_EQ(result.Size(), n) << label;
    int missing = 0;
    for (int i = 1; i <= n; ++i) {
        const double want = reference[i - 1];
        missing += want == -99.0;
        EXPECT_NEAR(result[i], want, want == -99.0 ? 0.0 : 2e-6 * (1.0 + std::fabs(want))) << label << " at " << i;
    }
    EXPECT_EQ(result.GetNumMisVal(), missing) << label;
}

#define EXPECT_INTERNAL_ERROR(call, where) \
    EXPECT_THROW(try { call; } catch (const NCInternalError& e) { EXPECT_EQ(e.GetWhere(), where); throw; }, NCInternalError)

} // namespace

TEST(TolerantCompare, RelativeToTheLargerMagnitude)
{
    // Two float ulps of 1 are within tolerance (frexp puts 1 at exponent 1), three are not.
    // At zero the tolerance vanishes: only zeros of either sign are equal.
    for (const auto& [a, b, want] : std::vector<std::tuple<double, double, int>>{
             {1.0, std::nextafter(1.0f, 2.0f), 0}, {1.0 + std::ldexp(2.0, -23), 1.0, 0},
             {1.0 + std::ldexp(3.0, -23), 1.0, 1}, {-1.0e6, -1.0e6 + 0.1, 0}, {-1.0e6, -1.0e6 + 0.5, -1},
             {-2.0, -3.0, 1}, {0.0, -0.0, 0}, {0.0, 1e-30, -1}})
        EXPECT_EQ(CompareTolerant(a, b), want) << a << " vs " << b;
    EXPECT_TRUE(QvMath::IsEqualTolerant(1e-30, 1e-30 * (1 + 1e-8)));
}

TEST(InterPolate, ModesInsideAndOutsideTheInterval)
{
    // Reversed positions (3, 1): clamping follows the positions, not the order.
    const auto odd = static_cast<QvMath::EExtrapolate>(7);
    using Case = std::tuple<float, float, float, QvMath::EExtrapolate, float>;
    for (const auto& [x1, x2, x, mode, want] : std::vector<Case>{
             {1, 3, 2, None, 20}, {1, 3, 4, Clamp, 30}, {1, 3, 4, None, -99}, {1, 3, 4, Linear, 40}, {1, 3, 4, odd, 40},
             {3, 1, 0, Clamp, 30}, {3, 1, 5, Clamp, 10}, {2, 2, 2, None, 20}, {2, 2, 9, Linear, 20}})
        EXPECT_EQ(U::InterPolate(x1, x2, V{10.0f}, V{30.0f}, x, mode)[1], want) << x1 << " " << x2 << " " << x;
}

TEST(InterPolate, MissingValuesAndSizes)
{
    const V y1{10.0f, 1.0f, -99.0f}, y2{-99.0f, 3.0f, 5.0f};
    // One float ulp off x1 still counts as x1.
    const V atX1 = U::InterPolate(1, 3, y1, y2, std::nextafter(1.0f, 2.0f), None);
    EXPECT_TRUE(atX1[1] == 10.0f && std::fabs(atX1[2] - 1.0f) < 1e-6f && atX1[3] == -99.0f);
    EXPECT_EQ(atX1.GetNumMisVal(), 1);
    const V between = U::InterPolate(1, 3, y1, y2, 2, None);
    EXPECT_EQ(between, (V{-99.0f, 2.0f, -99.0f}));
    EXPECT_EQ(between.GetNumMisVal(), 2);
    // A missing position leaves only the other one usable.
    EXPECT_EQ(U::InterPolate(-99, 3, y1, y2, 3, None), (V{-99.0f, 3.0f, 5.0f}));
    EXPECT_EQ(U::InterPolate(1, -99, y1, y2, 2, Linear).GetNumMisVal(), 3);
    EXPECT_EQ(U::InterPolate(1, 3, y1, y2, -99, Linear).GetNumMisVal(), 3);
    EXPECT_INTERNAL_ERROR(U::InterPolate(1, 3, y1, V{1.0f}, 2, None), "NCDataVectorUtilities::InterPolate");
}

TEST(InterPolateVec, AgreesWithNumpyAndHandlesDegenerateCurves)
{
    const V x = Make(uref::Positions), y = Make(uref::Values), at = Make(uref::NewPositions);
    ExpectMatches(U::InterPolateVec(x, y, at), uref::ResampledNone, at.Size(), "none");
    ExpectMatches(U::InterPolateVec(x, y, at, Clamp), uref::ResampledClamp, at.Size(), "clamp");
    ExpectMatches(U::InterPolateVec(x, y, at, Linear), uref::ResampledLinear, at.Size(), "linear");

    const V at3{0.0f, 2.0f, 5.0f};
    EXPECT_EQ(U::InterPolateVec(V{2.0f, -99.0f}, V{7.0f, 1.0f}, at3), (V{-99.0f, 7.0f, -99.0f}));
    EXPECT_EQ(U::InterPolateVec(V{2.0f}, V{7.0f}, at3, Linear), (V{7.0f, 7.0f, 7.0f}));
    EXPECT_EQ(U::InterPolateVec(V{2.0f, NAN}, V{-99.0f, 1.0f}, at3, Clamp).GetNumMisVal(), 3);
    EXPECT_EQ(U::InterPolateVec(V{1.0f, 3.0f}, V{1.0f, 3.0f}, V{NAN}, Clamp)[1], -99.0f);
    EXPECT_INTERNAL_ERROR(U::InterPolateVec(V{1.0f, 2.0f}, V{1.0f}, V{1.0f}), "NCDataVectorUtilities::InterPolateVec");
}

TEST(MovingWindows, AgreeWithScipyCentredFiltersAndRejectBadWindows)
{
    const V signal = Make(uref::Signal);
    for (std::size_t k = 0; k < std::size(uref::Windows); ++k) {
        const int w = uref::Windows[k];
        ExpectMatches(U::Average(signal, w), uref::MovingMean[k], signal.Size(), "mean " + std::to_string(w));
        ExpectMatches(U::Median(signal, w), uref::MovingMedian[k], signal.Size(), "median " + std::to_string(w));
    }
    // Clipped at the ends; an even window reaches one point further back.
    EXPECT_EQ(U::Average(V{1, 2, 6}, 3), (V{1.5f, 3, 4}));
    EXPECT_EQ(U::Median(V{1, 2, 6, 9}, 4), (V{1.5f, 2, 4, 6}));

    for (int w : {0, -3, 4}) {
        EXPECT_EQ(U::Average(V{1, 2, 3}, w), (V{-99, -99, -99})) << w;
        EXPECT_EQ(U::Median(V{1, 2, 3}, w).GetNumMisVal(), 3) << w;
    }
    EXPECT_EQ(U::Median(V{-99, -99}, 2).GetNumMisVal(), 2);
}

TEST(Search, ClosestIndexAndPeakFactor)
{
    for (const auto& [v, x, want] : std::vector<std::tuple<V, float, int>>{
             {V{5, -99, 1, 3, 1}, 1.2f, 3}, {V{1, 3, 1}, 2, 1}, {V{NAN, -99, 7}, -98, 3}, {V{1, 2}, -99, -99},
             {V{-99, -99}, 1, -99}, {V(), 1, -99}})
        EXPECT_EQ(U::GetClosestIndex(v, x), want) << x;
    const V v{-8.0f, 2.0f, -99.0f, 4.0f, -1.0f};
    EXPECT_DOUBLE_EQ(U::PeakNormal(v, 1, 5, false), 0.25);
    EXPECT_DOUBLE_EQ(U::PeakNormal(v, 1, 5, true), 0.125);
    EXPECT_DOUBLE_EQ(U::PeakNormal(v, 2, 3, true), 0.5);
    EXPECT_EQ(U::PeakNormal(v, 3, 3, true), -99.0);
    EXPECT_EQ(U::PeakNormal(v, 5, 5, false), -99.0);
    EXPECT_EQ(U::PeakNormal(V{0.0f, 0.0f}, 1, 2, true), -99.0);
    for (auto [from, to] : {std::pair{0, 2}, std::pair{2, 6}, std::pair{4, 3}})
        EXPECT_INTERNAL_ERROR(U::PeakNormal(v, from, to, true), "NCDataVectorUtilities::PeakNormal");
}
