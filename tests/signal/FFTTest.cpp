#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/signal/FFT.h"

#include "signal/fixtures/SpectraReference.inc"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Vec = NCDataVector<float>;

// The protected steps, opened for checking one at a time.
struct FFTSteps : FFT {
    using FFT::DetrendVecMeanStd;
    using FFT::DetrendVector;
    using FFT::PadVectorLinearly;
    using FFT::PadVectorZeros;
    using FFT::ReorderFromVec;
};

template <std::size_t N>
Vec FromArray(const float (&values)[N])
{
    Vec v;
    v.CopyZeroBasedVector(values, static_cast<int>(N));
    return v;
}

Vec Noise(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(2.0f, 1.5f);
    Vec v(n);
    for (int i = 1; i <= n; ++i)
        v(i, normal(rng));
    return v;
}

// An output that a call must leave alone.
Vec Untouched() { return Vec{7.0f, 8.0f}; }

template <std::size_t N>
void ExpectNearReference(const Vec& got, const double (&want)[N], double relative, const std::string& what)
{
    ASSERT_EQ(got.Size(), static_cast<int>(N)) << what;
    double peak = 0.0;
    for (double w : want)
        peak = std::max(peak, std::abs(w));
    for (std::size_t k = 0; k < N; ++k)
        EXPECT_NEAR(got[static_cast<int>(k) + 1], want[k], relative * peak) << what << ", index " << k;
}

} // namespace

TEST(FFTArguments, InvalidCallsLeaveTheOutputAlone)
{
    const Vec x = Noise(10, 1);
    const Vec empty;
    const Vec allMissing(5, -99.0f);
    const Vec shorter = Noise(9, 2);
    Vec out = Untouched();
    FFT::AutoCorrelation(nullptr, FFT::DetrendMean, 2, &out);
    FFT::AutoCorrelation(&empty, FFT::DetrendMean, 0, &out);
    FFT::AutoCorrelation(&allMissing, FFT::DetrendMean, 1, &out);
    FFT::AutoCorrelation(&x, FFT::DetrendMean, -1, &out);
    FFT::AutoCorrelation(&x, FFT::DetrendMean, 11, &out);
    FFT::AutoCorrelation(&x, FFT::DetrendMean, 2, nullptr);
    FFT::CrossCorrelation(&x, nullptr, FFT::DetrendMean, 2, &out);
    FFT::CrossCorrelation(nullptr, &x, FFT::DetrendMean, 2, &out);
    FFT::CrossCorrelation(&x, &shorter, FFT::DetrendMean, 2, &out);
    FFT::CrossCorrelation(&empty, &empty, FFT::DetrendMean, 0, &out);
    FFT::CrossCorrelation(&x, &x, FFT::DetrendMean, 11, &out);
    FFT::CrossCorrelation(&x, &x, FFT::DetrendMean, -1, &out);
    for (int m : {6, 0, 1, -4, 12})
        FFT::PowerSpectrum(&x, m, false, FFT::DetrendMean, FFT::DensityScaling, FFT::Hann, &out);
    FFT::PowerSpectrum(nullptr, 4, false, FFT::DetrendMean, FFT::DensityScaling, FFT::Hann, &out);
    FFT::PowerSpectrum(&empty, 4, false, FFT::DetrendMean, FFT::DensityScaling, FFT::Hann, &out);
    FFT::PowerSpectrum(&allMissing, 4, false, FFT::DetrendMean, FFT::DensityScaling, FFT::Hann, &out);
    EXPECT_EQ(out, Untouched());
}

TEST(FFTArguments, SpectrumWithoutASegmentOrWithNonFiniteValuesThrows)
{
    // With overlap, 16 values and m = 32 make K = floor(ceil(16 / 16) / 2) = 0.
    const Vec x = Noise(16, 3);
    Vec out = Untouched();
    try {
        FFT::PowerSpectrum(&x, 32, true, FFT::DetrendNone, FFT::DensityScaling, FFT::Rectangular, &out);
        ADD_FAILURE() << "no NCError";
    } catch (const NCError& e) {
        EXPECT_STREQ(e.what(), "Power spectrum could not be computed.");
        EXPECT_EQ(e.GetLevel(), NCError::Error);
    }
    Vec withNan = Noise(64, 4);
    withNan(10, std::nanf(""));
    EXPECT_THROW(FFT::PowerSpectrum(&withNan, 16, false, FFT::DetrendNone, FFT::DensityScaling, FFT::Hann, &out),
                 NCError);
    EXPECT_EQ(out, Untouched());
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    std::string german;
    try {
        FFT::PowerSpectrum(&x, 32, true, FFT::DetrendNone, FFT::DensityScaling, FFT::Rectangular, &out);
    } catch (const NCError& e) {
        german = e.what();
    }
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(german, "Das Leistungsspektrum konnte nicht berechnet werden.");
    // Without overlap one value is enough for one pair of segments.
    const Vec one{3.0f};
    FFT::PowerSpectrum(&one, 4, false, FFT::DetrendNone, FFT::DensityScaling, FFT::Rectangular, &out);
    EXPECT_EQ(out.Size(), 3);
}

TEST(FFTAutoCorrelation, LagZeroIsOneAndTheLagCountFollowsMaxLag)
{
    for (int n : {2, 3, 17, 64, 1000}) {
        const Vec x = Noise(n, static_cast<unsigned>(n));
        for (auto mode : {FFT::DetrendNone, FFT::DetrendMean, FFT::DetrendLinear}) {
            if (n == 2 && mode == FFT::DetrendLinear)
                continue; // nothing is left of two points off their line
            Vec out;
            FFT::AutoCorrelation(&x, mode, n / 2, &out);
            ASSERT_EQ(out.Size(), n / 2 + 1);
            EXPECT_NEAR(out[1], 1.0, 1e-5) << "n " << n << ", mode " << mode;
            for (int k = 2; k <= out.Size(); ++k)
                EXPECT_LE(std::abs(out[k]), 1.0 + 1e-5);
        }
    }
    // A series that is constant once detrended has no correlation to show:
    // zeros rather than a division by zero.
    const Vec two{1.0f, 4.0f};
    Vec out;
    FFT::AutoCorrelation(&two, FFT::DetrendLinear, 1, &out);
    EXPECT_EQ(out, (Vec{0.0f, 0.0f}));

    const Vec x = Noise(12, 5);
    FFT::AutoCorrelation(&x, FFT::DetrendMean, 0, &out);
    ASSERT_EQ(out.Size(), 1);
    EXPECT_NEAR(out[1], 1.0, 1e-6);
    // maxLag = n is still allowed: the last lag pairs nothing.
    FFT::AutoCorrelation(&x, FFT::DetrendMean, 12, &out);
    ASSERT_EQ(out.Size(), 13);
    EXPECT_NEAR(out[13], 0.0, 1e-6);
}

TEST(FFTAutoCorrelation, AgreesWithNumpy)
{
    const Vec x = FromArray(sref::Series);
    Vec out;
    FFT::AutoCorrelation(&x, FFT::DetrendMean, sref::MaxLag, &out);
    ExpectNearReference(out, sref::Acf1, 2e-6, "mean removed");
    FFT::AutoCorrelation(&x, FFT::DetrendLinear, sref::MaxLag, &out);
    ExpectNearReference(out, sref::Acf2, 2e-6, "line removed");
}

TEST(FFTAutoCorrelation, LongSeriesAgreesWithTheDirectSum)
{
    // 2^16 + 5 values pad to 2^17: float transforms of this length must
    // still give the lags to about 1e-5.
    const int n = (1 << 16) + 5;
    const Vec x = Noise(n, 6);
    Vec out;
    FFT::AutoCorrelation(&x, FFT::DetrendMean, 200, &out);
    ASSERT_EQ(out.Size(), 201);
    const double mean = x.GetMean();
    std::vector<double> c(static_cast<std::size_t>(n));
    for (int i = 1; i <= n; ++i)
        c[static_cast<std::size_t>(i - 1)] = x[i] - mean;
    double ss = 0.0;
    for (double v : c)
        ss += v * v;
    for (int lag : {0, 1, 7, 100, 200}) {
        double s = 0.0;
        for (int i = 0; i + lag < n; ++i)
            s += c[static_cast<std::size_t>(i)] * c[static_cast<std::size_t>(i + lag)];
        EXPECT_NEAR(out[lag + 1], s / ss, 2e-5) << "lag " << lag;
    }
}

TEST(FFTCrossCorrelation, WithItselfMirrorsTheAutocorrelation)
{
    const Vec x = Noise(50, 7);
    for (auto mode : {FFT::DetrendNone, FFT::DetrendMean, FFT::DetrendLinear}) {
        Vec acf, ccf;
        FFT::AutoCorrelation(&x, mode, 20, &acf);
        FFT::CrossCorrelation(&x, &x, mode, 20, &ccf);
        ASSERT_EQ(ccf.Size(), 41);
        for (int k = 0; k <= 20; ++k) {
            EXPECT_NEAR(ccf[21 + k], acf[k + 1], 1e-5) << "lag " << k;
            EXPECT_NEAR(ccf[21 - k], acf[k + 1], 1e-5) << "lag " << -k;
        }
    }
}

TEST(FFTCrossCorrelation, AgreesWithNumpyAndFindsTheDelay)
{
    const Vec x = FromArray(sref::Series);
    const Vec y = FromArray(sref::Other);
    Vec out;
    FFT::CrossCorrelation(&x, &y, FFT::DetrendMean, sref::MaxLag, &out);
    ExpectNearReference(out, sref::Ccf1, 2e-6, "mean removed");
    // y follows x by 3 places: the peak sits at lag +3.
    int peak = 1;
    for (int k = 2; k <= out.Size(); ++k)
        peak = out[k] > out[peak] ? k : peak;
    EXPECT_EQ(peak - 1 - sref::MaxLag, 3);
    FFT::CrossCorrelation(&x, &y, FFT::DetrendLinear, sref::MaxLag, &out);
    ExpectNearReference(out, sref::Ccf2, 2e-6, "line removed");
    // Swapping the series mirrors the lags.
    Vec swapped;
    FFT::CrossCorrelation(&y, &x, FFT::DetrendLinear, sref::MaxLag, &swapped);
    for (int k = 1; k <= out.Size(); ++k)
        EXPECT_NEAR(swapped[k], out[out.Size() + 1 - k], 1e-6);
}

TEST(FFTPowerSpectrum, AgreesWithWelch)
{
    const Vec x = FromArray(sref::Series);
    struct Case {
        bool overlap;
        FFT::DataWindowMode window;
        FFT::ScalingMode scaling;
        const double* want;
        const char* name;
    };
    const Case cases[] = {
        {true, FFT::Rectangular, FFT::DensityScaling, sref::WelchOverlapBoxcarDensity, "overlap boxcar density"},
        {true, FFT::Rectangular, FFT::SpectrumScaling, sref::WelchOverlapBoxcarSpectrum, "overlap boxcar spectrum"},
        {true, FFT::Hann, FFT::DensityScaling, sref::WelchOverlapHannDensity, "overlap hann density"},
        {true, FFT::Hann, FFT::SpectrumScaling, sref::WelchOverlapHannSpectrum, "overlap hann spectrum"},
        {false, FFT::Rectangular, FFT::DensityScaling, sref::WelchApartBoxcarDensity, "apart boxcar density"},
        {false, FFT::Rectangular, FFT::SpectrumScaling, sref::WelchApartBoxcarSpectrum, "apart boxcar spectrum"},
        {false, FFT::Hann, FFT::DensityScaling, sref::WelchApartHannDensity, "apart hann density"},
        {false, FFT::Hann, FFT::SpectrumScaling, sref::WelchApartHannSpectrum, "apart hann spectrum"},
    };
    for (const Case& c : cases) {
        Vec out;
        FFT::PowerSpectrum(&x, 32, c.overlap, FFT::DetrendMean, c.scaling, c.window, &out);
        ASSERT_EQ(out.Size(), 17) << c.name;
        for (int k = 0; k <= 16; ++k)
            EXPECT_NEAR(out[k + 1], c.want[k], 1e-5 * c.want[k] + 1e-7) << c.name << ", bin " << k;
    }
}

TEST(FFTPowerSpectrum, SineAmplitudeAndParsevalUnderBothScalings)
{
    // A sine of amplitude 3 on bin 5 of m = 64: the spectrum scaling reads
    // A^2 / 2 there; the density bins times 1/m add up to the mean square.
    const int m = 64, n = 4 * m;
    Vec x(n);
    for (int i = 1; i <= n; ++i)
        x(i, static_cast<float>(3.0 * std::sin(6.283185307179586 * 5 * (i - 1) / m)));
    Vec spectrum, density;
    FFT::PowerSpectrum(&x, m, false, FFT::DetrendNone, FFT::SpectrumScaling, FFT::Rectangular, &spectrum);
    FFT::PowerSpectrum(&x, m, false, FFT::DetrendNone, FFT::DensityScaling, FFT::Rectangular, &density);
    ASSERT_EQ(spectrum.Size(), m / 2 + 1);
    EXPECT_NEAR(spectrum[6], 4.5, 1e-4);
    double sum = 0.0;
    for (int k = 1; k <= density.Size(); ++k) {
        sum += density[k] / m;
        if (k != 6) {
            EXPECT_NEAR(spectrum[k], 0.0, 1e-6) << "bin " << k - 1;
        }
    }
    EXPECT_NEAR(sum, x.GetSS() / n, 1e-4);
}

TEST(FFTPowerSpectrum, LinearDetrendRemovesALine)
{
    Vec line(100);
    for (int i = 1; i <= 100; ++i)
        line(i, 5.0f + 0.25f * i);
    Vec out;
    FFT::PowerSpectrum(&line, 16, true, FFT::DetrendLinear, FFT::DensityScaling, FFT::Hann, &out);
    ASSERT_EQ(out.Size(), 9);
    for (int k = 1; k <= 9; ++k)
        EXPECT_NEAR(out[k], 0.0, 1e-8);
}

TEST(FFTMissingValues, GiveTheResultsOfTheInterpolatedSeries)
{
    Vec gappy = Noise(120, 8);
    for (int i : {1, 2, 30, 31, 32, 77, 120})
        gappy(i, -99.0f);
    Vec filled;
    filled.CopyContent(gappy);
    filled.InterpolateMisVals(nullptr);
    ASSERT_TRUE(filled.HasNoMissingValues());
    const Vec other = Noise(120, 9);
    Vec a, b;
    FFT::AutoCorrelation(&gappy, FFT::DetrendLinear, 30, &a);
    FFT::AutoCorrelation(&filled, FFT::DetrendLinear, 30, &b);
    EXPECT_EQ(a, b);
    FFT::CrossCorrelation(&gappy, &other, FFT::DetrendMean, 30, &a);
    FFT::CrossCorrelation(&filled, &other, FFT::DetrendMean, 30, &b);
    EXPECT_EQ(a, b);
    FFT::PowerSpectrum(&gappy, 16, true, FFT::DetrendMean, FFT::DensityScaling, FFT::Parabolic, &a);
    FFT::PowerSpectrum(&filled, 16, true, FFT::DetrendMean, FFT::DensityScaling, FFT::Parabolic, &b);
    EXPECT_EQ(a, b);
    // The caller's series keeps its gaps.
    EXPECT_EQ(gappy.GetNumMisVal(), 7);
}

TEST(FFTSteps, PaddingDetrendingAndReordering)
{
    Vec v{1.0f, 2.0f, 4.0f};
    FFTSteps::PadVectorLinearly(&v, 6);
    EXPECT_EQ(v, (Vec{1.0f, 2.0f, 4.0f, 2.5f, 1.0f, -0.5f}));
    // Mode 1 reports the mean it removed as the intercept.
    Vec ramp{1.0f, 2.0f, 6.0f};
    double intercept = 0.0, slope = 0.0;
    FFTSteps::DetrendVector(&ramp, FFT::DetrendMean, intercept, slope);
    EXPECT_EQ(intercept, 3.0);
    EXPECT_EQ(ramp, (Vec{-2.0f, -1.0f, 3.0f}));

    Vec zeros{-99.0f, 3.0f};
    FFTSteps::PadVectorZeros(&zeros, 4);
    EXPECT_EQ(zeros.Size(), 4);
    EXPECT_EQ(zeros.GetNumMisVal(), 1);
    EXPECT_EQ(zeros[4], 0.0f);

    Vec n = Noise(9, 10);
    FFTSteps::DetrendVecMeanStd(&n);
    EXPECT_NEAR(n.GetMean(), 0.0, 1e-7);
    EXPECT_NEAR(n.GetSS(), 1.0, 1e-6);
    Vec constant(4, 2.5f);
    FFTSteps::DetrendVecMeanStd(&constant);
    EXPECT_EQ(constant, Vec(4, 0.0f));

    // Wrap-around order of length 8: lag 0, 1, 2, 3, (4), -3, -2, -1.
    const float wrapped[] = {0, 1, 2, 3, 4, -3, -2, -1};
    float lagged[5] = {};
    FFTSteps::ReorderFromVec(wrapped, lagged, 8, 2);
    EXPECT_EQ(std::vector<float>(std::begin(lagged), std::end(lagged)), (std::vector<float>{-2, -1, 0, 1, 2}));
}

TEST(FFTLayout, SegmentCountsAndWindows)
{
    // The layouts of 200 values are fixed by the agreement with welch; these
    // are the exact fits, which need no padding.
    int pairs = 0, padded = 0;
    FFT::SegmentLayout(64, 32, false, pairs, padded); // two segments: one pair, no padding
    EXPECT_EQ(pairs, 1);
    EXPECT_EQ(padded, 64);
    FFT::SegmentLayout(48, 32, true, pairs, padded); // 3 half segments: segments at 0 and 16
    EXPECT_EQ(pairs, 1);
    EXPECT_EQ(padded, 48);

    // Rectangular and Hann windows are fixed by the agreement with welch.
    const int m = 8;
    EXPECT_DOUBLE_EQ(FFT::WindowValue(static_cast<FFT::DataWindowMode>(9), 3, m), 1.0);
    // Triangle and parabola: symmetric about the segment's middle, 1 - 1/9
    // and 1 - 1/81 at its two middle points, 2/9 and 32/81 at its ends.
    for (int j = 1; j <= m; ++j) {
        EXPECT_NEAR(FFT::WindowValue(FFT::Triangular, j, m), FFT::WindowValue(FFT::Triangular, m + 1 - j, m), 1e-15);
        EXPECT_NEAR(FFT::WindowValue(FFT::Parabolic, j, m), FFT::WindowValue(FFT::Parabolic, m + 1 - j, m), 1e-15);
    }
    EXPECT_NEAR(FFT::WindowValue(FFT::Triangular, 4, m), 8.0 / 9.0, 1e-15);
    EXPECT_NEAR(FFT::WindowValue(FFT::Triangular, 1, m), 2.0 / 9.0, 1e-15);
    EXPECT_NEAR(FFT::WindowValue(FFT::Parabolic, 4, m), 80.0 / 81.0, 1e-15);
    EXPECT_NEAR(FFT::WindowValue(FFT::Parabolic, 1, m), 32.0 / 81.0, 1e-15);
}
