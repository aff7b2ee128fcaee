#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/signal/Wavelet.h"

#include "signal/fixtures/WaveletReference.inc"

#include "signal/AllWaveletFilters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using Vec = NCDataVector<float>;

constexpr double TwoPi = 6.283185307179586;

Vec Noise(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(1.0f, 2.0f);
    Vec v(n);
    for (int i = 1; i <= n; ++i)
        v(i, normal(rng));
    return v;
}

Vec Along(int n, const std::function<double(int)>& f)
{
    Vec v(n);
    for (int i = 1; i <= n; ++i)
        v(i, static_cast<float>(f(i)));
    return v;
}

Vec ReferenceSeries()
{
    Vec v;
    v.CopyZeroBasedVector(wref::Series, wref::Length);
    return v;
}

double Peak(const Vec& v)
{
    double peak = 0.0;
    for (int i = 1; i <= v.Size(); ++i)
        peak = std::max(peak, std::abs(static_cast<double>(v[i])));
    return peak;
}

double LargestDifference(const Vec& a, const Vec& b)
{
    EXPECT_EQ(a.Size(), b.Size());
    double worst = 0.0;
    for (int i = 1; i <= std::min(a.Size(), b.Size()); ++i)
        worst = std::max(worst, std::abs(static_cast<double>(a[i]) - b[i]));
    return worst;
}

double SumOfSquares(const Vec& v)
{
    double s = 0.0;
    for (int i = 1; i <= v.Size(); ++i)
        s += static_cast<double>(v[i]) * v[i];
    return s;
}

// One analysis level straight from the definition, modulo and all: the
// plain form the fast kernels must reproduce.
void PlainLevel(const WaveletFilters& f, std::vector<double>& a, int length)
{
    const int L = f.GetLength(), half = length / 2;
    std::vector<double> out(static_cast<std::size_t>(length), 0.0);
    for (int i = 0; i < half; ++i)
        for (int m = 0; m < L; ++m) {
            const int k = ((2 * i + m + 1 - L / 2) % length + length) % length;
            out[static_cast<std::size_t>(i)] += f.AnalysisLowpass()[static_cast<std::size_t>(m)] * a[k];
            out[static_cast<std::size_t>(half + i)] += f.AnalysisHighpass()[static_cast<std::size_t>(m)] * a[k];
        }
    std::copy(out.begin(), out.end(), a.begin());
}

} // namespace

// Every level's coefficients equal PyWavelets' wavedec(mode
// "periodization") without any shift: the fixture holds the full-depth
// decomposition of a 256-value series for every filter PyWavelets has.
TEST(WaveletReference, AgreesWithPyWavelets)
{
    const Vec x = ReferenceSeries();
    for (const wref::Case& c : wref::Cases) {
        const WaveletFilters filters(c.parameter ? std::string(c.family) + std::to_string(c.parameter) : c.family);
        const Wavelet w(filters, c.levels);
        const Vec got = w.Forward(x);
        ASSERT_EQ(got.Size(), wref::Length);
        for (int i = 0; i < wref::Length; ++i)
            EXPECT_NEAR(got[i + 1], c.packed[i], 1e-6 * std::abs(c.packed[i]) + 1e-7) << c.pywt << " at " << i;

        // Fewer levels: the same details 1..5 behind a longer smooth.
        const Vec five = Wavelet(filters, 5).Forward(x);
        for (int i = 8; i < wref::Length; ++i)
            EXPECT_NEAR(five[i + 1], c.packed[i], 1e-6 * std::abs(c.packed[i]) + 1e-7) << c.pywt << " at " << i;

        // PyWavelets' coefficients, transformed back by the library.
        Vec theirs(wref::Length);
        for (int i = 0; i < wref::Length; ++i)
            theirs(i + 1, static_cast<float>(c.packed[i]));
        EXPECT_LT(LargestDifference(w.Inverse(theirs), x), 1e-6 * Peak(x)) << c.pywt;
    }
}

TEST(WaveletReference, DenoisingAgreesWithPyWavelets)
{
    const Vec x = ReferenceSeries();
    struct Case {
        const char* filter;
        int levels;
        Wavelet::ThresholdMode mode;
        double threshold;
        const double* denoised;
    };
    const Case cases[] = {
        {"Daubechies16", 5, Wavelet::SoftThreshold, wref::Denoised_db8_softThreshold, wref::Denoised_db8_soft},
        {"Symmlet8", 6, Wavelet::HardThreshold, wref::Denoised_sym8_hardThreshold, wref::Denoised_sym8_hard},
        {"Biorthogonal4", 4, Wavelet::SoftThreshold, wref::Denoised_bior2_4_softThreshold,
         wref::Denoised_bior2_4_soft},
    };
    for (const Case& c : cases) {
        double threshold = 0.0;
        const Vec got = Wavelet(WaveletFilters(c.filter), c.levels).Denoise(x, c.mode, &threshold);
        EXPECT_NEAR(threshold, c.threshold, 1e-6 * c.threshold) << c.filter;
        for (int i = 0; i < wref::Length; ++i)
            EXPECT_NEAR(got[i + 1], c.denoised[i], 2e-6) << c.filter << " at " << i;
    }
}

// Long series run the blocked, parallel kernels; they must give what the
// definition gives, level after level, for filters PyWavelets lacks too.
TEST(WaveletTransform, FastLevelsMatchThePlainDefinition)
{
    const int n = 1 << 16;
    const Vec x = Noise(n, 11);
    for (const char* name : {"Beylkin", "Daubechies20", "Biorthogonal6"}) {
        const WaveletFilters f(name);
        const Vec fast = Wavelet(f, 3).Forward(x);
        std::vector<double> plain(x.begin(), x.end());
        for (int level = 1; level <= 3; ++level)
            PlainLevel(f, plain, n >> (level - 1));
        double worst = 0.0;
        for (int i = 0; i < n; ++i)
            worst = std::max(worst, std::abs(fast[i + 1] - plain[static_cast<std::size_t>(i)]) /
                                        (1.0 + std::abs(plain[static_cast<std::size_t>(i)])));
        EXPECT_LT(worst, 1e-6) << name;
    }
}

// Every filter inverts itself at every depth, also where the filter is
// longer than the level and wraps around it several times.
TEST(WaveletTransform, PerfectReconstructionForEveryFilter)
{
    for (const WaveletFilters& f : AllWaveletFilters())
        for (int n : {2, 4, 8, 64, 1024}) {
            const Vec x = Noise(n, static_cast<unsigned>(n));
            for (int levels = 1; levels <= Wavelet::LevelsOfLength(n); ++levels) {
                const Wavelet w(f, levels);
                EXPECT_LT(LargestDifference(w.Inverse(w.Forward(x)), x), 2e-6 * Peak(x))
                    << f.GetName() << ", n " << n << ", levels " << levels;
            }
        }
}

// Orthogonal filters keep the sum of squares (Parseval); every filter's
// shares add up to 1; a constant goes wholly to the smooth.
TEST(WaveletEnergy, SharesAndSumsOfSquares)
{
    const Vec x = Noise(512, 5);
    for (const WaveletFilters& f : AllWaveletFilters()) {
        const Wavelet w(f, 6);
        const std::vector<double> sums = w.LevelSumsOfSquares(w.Forward(x));
        ASSERT_EQ(sums.size(), 7u);
        double total = 0.0;
        for (double s : sums)
            total += s;
        if (f.IsOrthogonal()) {
            EXPECT_NEAR(total, SumOfSquares(x), 1e-6 * SumOfSquares(x)) << f.GetName();
        }
        const Vec shares = w.Energy(x);
        ASSERT_EQ(shares.Size(), 7);
        double sharesTotal = 0.0;
        for (int j = 1; j <= 7; ++j) {
            EXPECT_NEAR(shares[j], sums[static_cast<std::size_t>(j - 1)] / total, 1e-6) << f.GetName();
            sharesTotal += shares[j];
        }
        EXPECT_NEAR(sharesTotal, 1.0, 1e-6) << f.GetName();

        const Vec flat = w.Energy(Vec(512, 3.5f));
        EXPECT_NEAR(flat[7], 1.0, 1e-6) << f.GetName();
    }
    // White noise spreads as the levels' sizes: half the energy in level 1.
    const Vec shares = Wavelet(WaveletFilters("Symmlet8"), 3, FFT::DetrendMean).Energy(Noise(1 << 16, 3));
    EXPECT_NEAR(shares[1], 0.5, 0.01);
    EXPECT_NEAR(shares[2], 0.25, 0.01);
    EXPECT_NEAR(shares[3], 0.125, 0.01);
}

// Level j holds the frequencies between 1/2^(j+1) and 1/2^j cycles per
// value: a sine at 85/1024 (a period of 12 values) lands in level 3, one at
// 21/1024 in level 5.
TEST(WaveletEnergy, SineConcentratesInItsLevel)
{
    for (const char* name : {"Daubechies20", "Symmlet10", "Coiflet5", "Beylkin"})
        for (const auto& [cycles, level] : {std::pair{85, 3}, std::pair{21, 5}}) {
            const Vec x = Along(1024, [cycles = cycles](int i) { return std::sin(TwoPi * cycles * i / 1024.0); });
            const Vec shares = Wavelet(WaveletFilters(name), 6).Energy(x);
            EXPECT_GT(shares[level], 0.9) << name << ", " << cycles << " cycles";
        }
}

// The removed mean or line goes back into the smooth of the
// multiresolution and into the denoised series; the energy is that of the
// detrended series.
TEST(WaveletPreparation, DetrendModes)
{
    const int n = 256;
    const Vec line = Along(n, [](int i) { return 3.0 + 0.5 * i; });
    const WaveletFilters f("Coiflet2");

    const Vec none = Wavelet(f, 4, FFT::DetrendNone).Energy(line);
    const Vec mean = Wavelet(f, 4, FFT::DetrendMean).Energy(line);
    const Vec linear = Wavelet(f, 4, FFT::DetrendLinear).Energy(line);
    EXPECT_GT(none[5], 0.95);   // mostly the level of the line (the rest: its jump at the wrap)
    EXPECT_LT(mean[5], none[5]); // the mean no longer counts
    for (int j = 1; j <= 5; ++j)
        EXPECT_EQ(linear[j], 0.0f) << j; // nothing left: all shares 0

    double intercept = 0.0, slope = 0.0;
    const Vec prepared = Wavelet(f, 4, FFT::DetrendLinear).Prepare(line, intercept, slope);
    EXPECT_NEAR(intercept, 3.0, 1e-4);
    EXPECT_NEAR(slope, 0.5, 1e-6);
    EXPECT_LT(Peak(prepared), 1e-4);

    const Vec wavy = Along(n, [](int i) { return 10.0 - 0.02 * i + std::sin(i / 5.0) + 0.1 * std::sin(2.9 * i); });
    const Vec slow = Along(n, [](int i) { return 10.0 - 0.02 * i + std::sin(i / 12.0); });
    for (FFT::DetrendMode mode : {FFT::DetrendNone, FFT::DetrendMean, FFT::DetrendLinear}) {
        const Wavelet w(f, 5, mode);
        const NCDataMatrix<float> parts = w.Multiresolution(wavy);
        ASSERT_EQ(parts.SizeRows(), 6);
        ASSERT_EQ(parts.SizeColumns(), n);
        for (int i = 1; i <= n; ++i) {
            double sum = 0.0;
            for (int r = 1; r <= 6; ++r)
                sum += parts[r][i];
            EXPECT_NEAR(sum, wavy[i], 2e-5) << "mode " << mode << ", value " << i;
        }
        // Denoising brings a noisy copy closer to the slow wave, on the
        // series' own scale, away from the ends (where the periodic
        // transform sees a jump).
        std::mt19937 rng(static_cast<unsigned>(mode) + 1);
        std::normal_distribution<float> normal(0.0f, 0.3f);
        Vec noisy = slow;
        for (int i = 1; i <= n; ++i)
            noisy(i, noisy[i] + normal(rng));
        const Vec denoised = w.Denoise(noisy, Wavelet::SoftThreshold);
        double before = 0.0, after = 0.0, offset = 0.0;
        for (int i = 33; i <= n - 32; ++i) {
            before += std::pow(noisy[i] - slow[i], 2);
            after += std::pow(denoised[i] - slow[i], 2);
            offset += denoised[i] - slow[i];
        }
        EXPECT_LT(after, 0.5 * before) << "mode " << mode;
        EXPECT_NEAR(offset / (n - 64), 0.0, 0.05) << "mode " << mode;
    }
    // A detail part has no trend: the rows of levels 1..5 have mean ~0.
    const NCDataMatrix<float> parts = Wavelet(f, 5, FFT::DetrendLinear).Multiresolution(wavy);
    for (int r = 1; r <= 5; ++r)
        EXPECT_NEAR(parts[r].GetMean(), 0.0, 1e-5) << r;
    EXPECT_NEAR(parts[6].GetMean(), wavy.GetMean(), 1e-4);
}

// Missing values are filled as the FFT operations fill them, before any
// transform: the result is that of the series interpolated by hand.
TEST(WaveletPreparation, MissingValuesAreInterpolated)
{
    Vec gappy = ReferenceSeries();
    Vec filled = ReferenceSeries();
    const int gaps[] = {1, 2, 40, 41, 42, 256};
    for (int i : gaps)
        gappy(i, -99.0f);
    filled(1, filled[3]);
    filled(2, filled[3]);
    filled(256, filled[255]);
    for (int i = 40; i <= 42; ++i)
        filled(i, static_cast<float>(filled[39] + (i - 39) / 4.0 * (static_cast<double>(filled[43]) - filled[39])));
    ASSERT_EQ(gappy.GetNumMisVal(), 6);
    for (FFT::DetrendMode mode : {FFT::DetrendNone, FFT::DetrendLinear}) {
        const Wavelet w(WaveletFilters("Symmlet6"), 4, mode);
        EXPECT_LT(LargestDifference(w.Transform(gappy), w.Transform(filled)), 1e-5);
        EXPECT_LT(LargestDifference(w.Denoise(gappy, Wavelet::HardThreshold),
                                    w.Denoise(filled, Wavelet::HardThreshold)),
                  1e-5);
        EXPECT_LT(LargestDifference(w.Energy(gappy), w.Energy(filled)), 1e-6);
    }
}

TEST(WaveletThreshold, HardSoftAndUniversal)
{
    // n = 8, two levels: smooth 1..2, level 2 at 3..4, level 1 at 5..8.
    const Vec c{5.0f, -7.0f, 0.5f, -1.5f, 1.0f, -2.0f, 3.0f, -4.0f};
    Vec hard = c, soft = c;
    Wavelet::ApplyThreshold(hard, 2, 1.2, Wavelet::HardThreshold);
    Wavelet::ApplyThreshold(soft, 2, 1.2, Wavelet::SoftThreshold);
    const float hardWant[] = {5.0f, -7.0f, 0.0f, -1.5f, 0.0f, -2.0f, 3.0f, -4.0f};
    const float softWant[] = {5.0f, -7.0f, 0.0f, -0.3f, 0.0f, -0.8f, 1.8f, -2.8f};
    for (int i = 1; i <= 8; ++i) {
        EXPECT_FLOAT_EQ(hard[i], hardWant[i - 1]) << i;
        EXPECT_NEAR(soft[i], softWant[i - 1], 1e-6) << i;
    }
    // Only level 1 when asked for one level.
    Vec finest = c;
    Wavelet::ApplyThreshold(finest, 1, 1.2, Wavelet::HardThreshold);
    EXPECT_EQ(finest[3], 0.5f);
    EXPECT_EQ(finest[5], 0.0f);
    // sigma = median |1, -2, 3, -4| / 0.6745 = 2.5 / 0.6745.
    EXPECT_NEAR(Wavelet::UniversalThreshold(c), 2.5 / 0.6745 * std::sqrt(2.0 * std::log(8.0)), 1e-12);

    // Pure noise of known sigma: the estimate finds it, and hard
    // thresholding at the universal level removes nearly all of it.
    std::mt19937 rng(4);
    std::normal_distribution<float> normal(0.0f, 0.5f);
    Vec noise(4096);
    for (int i = 1; i <= 4096; ++i)
        noise(i, normal(rng));
    const Wavelet w(WaveletFilters("Daubechies8"), 6);
    double threshold = 0.0;
    const Vec cleaned = w.Denoise(noise, Wavelet::HardThreshold, &threshold);
    EXPECT_NEAR(threshold / std::sqrt(2.0 * std::log(4096.0)), 0.5, 0.03);
    // What is left is mostly the smooth: 64 of 4096 values, 1.6 %.
    EXPECT_LT(SumOfSquares(cleaned), 0.025 * SumOfSquares(noise));

    EXPECT_THROW(Wavelet::ApplyThreshold(hard, 4, 1.0, Wavelet::SoftThreshold), NCError);
    EXPECT_THROW(Wavelet::ApplyThreshold(hard, 0, 1.0, Wavelet::SoftThreshold), NCError);
    EXPECT_THROW(Wavelet::UniversalThreshold(Vec(6, 1.0f)), NCError);
}

TEST(WaveletErrors, LengthsLevelsAndEmptySeries)
{
    const Wavelet w(WaveletFilters("Daubechies4"), 3);
    for (int n : {0, 1, 3, 6, 100, 1000})
        EXPECT_THROW(w.Forward(Noise(n, 1)), NCError) << n;
    EXPECT_THROW(w.Inverse(Noise(12, 1)), NCError);
    EXPECT_THROW(w.Transform(Noise(24, 1)), NCError);
    EXPECT_THROW(w.Forward(Noise(4, 1)), NCError); // 3 levels need 8 values
    EXPECT_NO_THROW(w.Forward(Noise(8, 1)));
    EXPECT_THROW(Wavelet(WaveletFilters("Daubechies4"), 0), NCError);
    EXPECT_THROW(w.Energy(Vec(16, -99.0f)), NCError);
    EXPECT_THROW(w.Multiresolution(Vec(16, -99.0f)), NCError);
    EXPECT_EQ(Wavelet::LevelsOfLength(1024), 10);
    EXPECT_EQ(Wavelet::LevelsOfLength(1000), -1);
    EXPECT_EQ(Wavelet::DetailStart(1024, 1), 513);

    const auto message = [&](const Vec& x) {
        try {
            w.Forward(x);
        } catch (const NCError& e) {
            EXPECT_EQ(e.GetLevel(), NCError::Error);
            return std::string(e.what());
        }
        return std::string();
    };
    EXPECT_EQ(message(Noise(100, 1)), "A wavelet transform needs a power of two of values (2, 4, 8, ...), not 100.");
    EXPECT_EQ(message(Noise(4, 1)), "A series of 4 values has wavelet levels 1 to 2, not 3.");
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const std::string german = message(Noise(4, 1));
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(german, "Eine Reihe von 4 Werten hat die Wavelet-Stufen 1 bis 2, nicht 3.");
}
