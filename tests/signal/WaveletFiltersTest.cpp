#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/signal/WaveletFilters.h"

#include "signal/AllWaveletFilters.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using Taps = std::vector<double>;

const double Sqrt2 = std::sqrt(2.0);

// Sums in long double, so that what is measured is the table, not the sum.
double Sum(const Taps& f)
{
    long double s = 0.0;
    for (double v : f)
        s += v;
    return static_cast<double>(s);
}

// sum_k a[k] b[k + 2 shift], shift of either sign.
double ShiftedProduct(const Taps& a, const Taps& b, int shift)
{
    long double s = 0.0;
    for (int k = 0; k < static_cast<int>(a.size()); ++k) {
        const int j = k + 2 * shift;
        if (j >= 0 && j < static_cast<int>(b.size()))
            s += static_cast<long double>(a[static_cast<std::size_t>(k)]) * b[static_cast<std::size_t>(j)];
    }
    return static_cast<double>(s);
}

// sum_m (m - centre)^k f[m], and the sum of the terms' magnitudes, against
// which a vanishing moment is measured.
void Moment(const Taps& f, int k, double centre, double& moment, double& scale)
{
    long double sum = 0.0;
    scale = 0.0;
    for (std::size_t m = 0; m < f.size(); ++m) {
        const long double term = std::pow(static_cast<long double>(m) - centre, k) * f[m];
        sum += term;
        scale += static_cast<double>(std::abs(term));
    }
    moment = static_cast<double>(sum);
}

} // namespace

TEST(WaveletFilters, CatalogueHasTheAdvertisedMembers)
{
    const std::vector<WaveletFilters> all = AllWaveletFilters();
    EXPECT_EQ(all.size(), 1u + 5u + 9u + 7u + 6u);
    for (const WaveletFilters& f : all) {
        EXPECT_EQ(f.GetLength() % 2, 0) << f.GetName();
        EXPECT_EQ(f.AnalysisHighpass().size(), f.AnalysisLowpass().size()) << f.GetName();
        EXPECT_EQ(f.SynthesisLowpass().size(), f.AnalysisLowpass().size()) << f.GetName();
        EXPECT_EQ(f.SynthesisHighpass().size(), f.AnalysisLowpass().size()) << f.GetName();
    }
    EXPECT_EQ(WaveletFilters(WaveletFilters::Beylkin).GetLength(), 18);
    EXPECT_EQ(WaveletFilters(WaveletFilters::Coiflet, 5).GetLength(), 30);
    EXPECT_EQ(WaveletFilters(WaveletFilters::Daubechies, 20).GetLength(), 20);
    EXPECT_EQ(WaveletFilters(WaveletFilters::Symmlet, 10).GetLength(), 20);
    // PyWavelets' zero-padded lengths of bior 1.3, 1.5, 2.2, 2.4, 3.3, 3.5.
    const int pairLengths[] = {6, 10, 6, 10, 8, 12};
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(WaveletFilters(static_cast<WaveletFilters::Family>(WaveletFilters::Biorthogonal1 + k)).GetLength(),
                  pairLengths[k]);
}

// The relations that make a filter bank invert itself, to double precision.
TEST(WaveletFilters, PerfectReconstructionRelations)
{
    for (const WaveletFilters& f : AllWaveletFilters()) {
        const Taps &ha = f.AnalysisLowpass(), &ga = f.AnalysisHighpass();
        const Taps &hs = f.SynthesisLowpass(), &gs = f.SynthesisHighpass();
        const std::string name = f.GetName();
        EXPECT_NEAR(Sum(ha), Sqrt2, 5e-16) << name;
        EXPECT_NEAR(Sum(hs), Sqrt2, 5e-16) << name;
        EXPECT_NEAR(Sum(ga), 0.0, 5e-16) << name;
        EXPECT_NEAR(Sum(gs), 0.0, 5e-16) << name;
        const int reach = f.GetLength() / 2;
        for (int shift = -reach; shift <= reach; ++shift) {
            const double delta = shift == 0 ? 1.0 : 0.0;
            EXPECT_NEAR(ShiftedProduct(ha, hs, shift), delta, 6e-16) << name << " shift " << shift;
            EXPECT_NEAR(ShiftedProduct(ga, gs, shift), delta, 6e-16) << name << " shift " << shift;
            EXPECT_NEAR(ShiftedProduct(ha, gs, shift), 0.0, 6e-16) << name << " shift " << shift;
            EXPECT_NEAR(ShiftedProduct(ga, hs, shift), 0.0, 6e-16) << name << " shift " << shift;
        }
        if (f.IsOrthogonal()) {
            EXPECT_EQ(ha, hs) << name;
            for (int shift = 0; shift <= reach; ++shift)
                EXPECT_NEAR(ShiftedProduct(ha, ha, shift), shift == 0 ? 1.0 : 0.0, 6e-16) << name;
        }
    }
}

// Moments 0..p-1 of the analysis wavelet vanish and moment p does not
// (about the filter's middle, which keeps the powers small); the
// Coiflets' scaling functions also have moments 1..2N-1 equal to 0 about
// their centre.
TEST(WaveletFilters, VanishingMoments)
{
    for (const WaveletFilters& f : AllWaveletFilters()) {
        const int p = f.GetVanishingMoments();
        double moment = 0.0, scale = 0.0;
        const double middle = (f.GetLength() - 1) / 2.0;
        for (int k = 0; k < p; ++k) {
            Moment(f.AnalysisHighpass(), k, middle, moment, scale);
            EXPECT_LT(std::abs(moment), 4e-15 * scale) << f.GetName() << ", moment " << k;
        }
        Moment(f.AnalysisHighpass(), p, middle, moment, scale);
        EXPECT_GT(std::abs(moment), 1e-9 * scale) << f.GetName() << ", moment " << p;
        if (f.GetFamily() == WaveletFilters::Coiflet) {
            double centre = 0.0;
            for (std::size_t m = 0; m < f.AnalysisLowpass().size(); ++m)
                centre += static_cast<double>(m) * f.AnalysisLowpass()[m] / Sqrt2;
            EXPECT_NEAR(centre, std::round(centre), 1e-12) << f.GetName();
            for (int k = 1; k < 2 * f.GetParameter(); ++k) {
                Moment(f.AnalysisLowpass(), k, std::round(centre), moment, scale);
                EXPECT_LT(std::abs(moment), 4e-15 * scale) << f.GetName() << ", scaling moment " << k;
            }
        }
    }
}

// Closed forms and the published table, independent of the generated ones.
TEST(WaveletFilters, PublishedValues)
{
    const double s3 = std::sqrt(3.0), d = 4.0 * Sqrt2;
    const Taps db4{(1 + s3) / d, (3 + s3) / d, (3 - s3) / d, (1 - s3) / d};
    const WaveletFilters daubechies("Daubechies4");
    const Taps& h = daubechies.AnalysisLowpass();
    for (std::size_t k = 0; k < 4; ++k)
        EXPECT_NEAR(h[k], db4[k], 4e-16);

    // Beylkin (1992), as published to 15 decimals; the table is that moved
    // onto the exact relations, by at most 1.3e-15.
    const Taps beylkin{0.099305765374353,  0.424215360812961,  0.699825214056600,  0.449718251149468,
                       -0.110927598348234, -0.264497231446384, 0.026900308803690,  0.155538731877093,
                       -0.017520746266529, -0.088543630622924, 0.019679866044322,  0.042916387274192,
                       -0.017460408696028, -0.014365807968852, 0.010040411844631,  0.0014842347824723,
                       -0.002736031626258, 0.0006404853285212};
    const WaveletFilters beylkinFilters("Beylkin");
    const Taps& b = beylkinFilters.AnalysisLowpass();
    ASSERT_EQ(b.size(), beylkin.size());
    for (std::size_t k = 0; k < b.size(); ++k)
        EXPECT_NEAR(b[k], beylkin[k], 1.5e-15) << k;

    // The 5/3 spline pair (bior 2.2): sqrt 2 (-1, 2, 6, 2, -1) / 8 and
    // sqrt 2 (1, 2, 1) / 4, centred on the same tap.
    const WaveletFilters pair("Biorthogonal3");
    const Taps analysis{-Sqrt2 / 8, Sqrt2 / 4, 3 * Sqrt2 / 4, Sqrt2 / 4, -Sqrt2 / 8, 0.0};
    const Taps synthesis{0.0, Sqrt2 / 4, Sqrt2 / 2, Sqrt2 / 4, 0.0, 0.0};
    for (std::size_t k = 0; k < 6; ++k) {
        EXPECT_NEAR(pair.AnalysisLowpass()[k], analysis[k], 3e-16) << k;
        EXPECT_NEAR(pair.SynthesisLowpass()[k], synthesis[k], 3e-16) << k;
    }
    // The Haar-like pair bior 1.3 synthesises with the box.
    EXPECT_EQ(WaveletFilters("Biorthogonal1").SynthesisLowpass(), (Taps{0.0, 0.0, Sqrt2 / 2, Sqrt2 / 2, 0.0, 0.0}));

    // A Symmlet is nearly symmetric where a Daubechies filter of the same
    // length is not: its energy sits near the middle of the filter.
    const auto centre = [](const Taps& f) {
        double c = 0.0;
        for (std::size_t m = 0; m < f.size(); ++m)
            c += static_cast<double>(m) * f[m] * f[m];
        return c;
    };
    EXPECT_NEAR(centre(WaveletFilters("Symmlet8").AnalysisLowpass()), 7.5, 1.5);
    EXPECT_LT(centre(WaveletFilters("Daubechies16").AnalysisLowpass()), 4.0);
}

TEST(WaveletFilters, NamesAndParameters)
{
    EXPECT_EQ(WaveletFilters("Daubechies8").GetName(), "Daubechies 8");
    EXPECT_EQ(WaveletFilters(" daubechies 12 ").GetParameter(), 12);
    EXPECT_EQ(WaveletFilters("SYMMLET6").GetFamily(), WaveletFilters::Symmlet);
    EXPECT_EQ(WaveletFilters("Coiflet").GetParameter(), 3);
    EXPECT_EQ(WaveletFilters("Symmlet").GetParameter(), 8);
    EXPECT_EQ(WaveletFilters("Daubechies").GetParameter(), 8);
    EXPECT_EQ(WaveletFilters("Beylkin").GetName(), "Beylkin");
    EXPECT_EQ(WaveletFilters("Beylkin18").GetParameter(), 18);
    EXPECT_EQ(WaveletFilters("biorthogonal6").GetFamily(), WaveletFilters::Biorthogonal6);
    EXPECT_EQ(WaveletFilters("Biorthogonal2").GetName(), "Biorthogonal2");
    EXPECT_FALSE(WaveletFilters("Biorthogonal2").IsOrthogonal());
    EXPECT_TRUE(WaveletFilters("Coiflet1").IsOrthogonal());

    for (const char* bad : {"Haar", "", "Daubechies8x", "Daubechies-4", "Biorthogonal", "Biorthogonal7",
                            "Coiflet0", "Symmlet 1000"})
        EXPECT_THROW(WaveletFilters{bad}, NCError) << bad;
    for (const char* bad : {"Daubechies7", "Daubechies22", "Coiflet6", "Symmlet3", "Beylkin12", "Biorthogonal12"})
        EXPECT_THROW(WaveletFilters{bad}, NCError) << bad;
    EXPECT_THROW(WaveletFilters(WaveletFilters::Daubechies, 2), NCError);
    EXPECT_THROW(WaveletFilters(static_cast<WaveletFilters::Family>(42)), NCError);
    try {
        WaveletFilters("Daubechies7");
        FAIL();
    } catch (const NCError& e) {
        EXPECT_STREQ(e.what(), "The wavelet filter Daubechies has no parameter 7; it takes 4, 6, 8, 10, 12, 14, 16, "
                               "18, 20.");
        EXPECT_EQ(e.GetLevel(), NCError::Error);
    }
    try {
        WaveletFilters("Haar");
        FAIL();
    } catch (const NCError& e) {
        EXPECT_STREQ(e.what(), "Unknown wavelet filter \"Haar\"; the filters are Beylkin, Coiflet, Daubechies, "
                               "Symmlet, Biorthogonal1, Biorthogonal2, Biorthogonal3, Biorthogonal4, "
                               "Biorthogonal5, Biorthogonal6.");
    }
}

TEST(WaveletFilters, MessagesInGerman)
{
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    std::string unknown, parameter;
    try {
        WaveletFilters("Haar");
    } catch (const NCError& e) {
        unknown = e.what();
    }
    try {
        WaveletFilters("Coiflet9");
    } catch (const NCError& e) {
        parameter = e.what();
    }
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(unknown.rfind("Unbekannter Wavelet-Filter \"Haar\"; die Filter sind Beylkin,", 0), 0u) << unknown;
    EXPECT_EQ(parameter, "Der Wavelet-Filter Coiflet hat keinen Parameter 9; er nimmt 1, 2, 3, 4, 5.");
}
