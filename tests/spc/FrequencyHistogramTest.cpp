#include "veltancmat/spc/FrequencyHistogram.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// The 1-based array the static functions read, from values.
std::vector<double> OneBased(std::initializer_list<double> values)
{
    std::vector<double> v{0.0};
    v.insert(v.end(), values);
    return v;
}

} // namespace

TEST(FrequencyHistogram, WidthAndIndexRules)
{
    EXPECT_DOUBLE_EQ(FrequencyHistogram::binwidth(0, 10, 4), 5.0);
    EXPECT_DOUBLE_EQ(FrequencyHistogram::binwidth(0, 7, 4), 3.5);
    EXPECT_DOUBLE_EQ(FrequencyHistogram::binwidth(0, 6.4, 4), 3.0);
    EXPECT_DOUBLE_EQ(FrequencyHistogram::binwidth(2, 2, 9), 1.0);
    // Other decades: raw 0.0032 gives 0.003; raw 480 gives 450 (4.8 and a
    // half reach 5, so the half step); raw 0.96 gives 0.95.
    EXPECT_NEAR(FrequencyHistogram::binwidth(0, 0.0064, 4), 0.003, 1e-15);
    EXPECT_NEAR(FrequencyHistogram::binwidth(0, 960, 4), 450.0, 1e-9);
    EXPECT_NEAR(FrequencyHistogram::binwidth(0, 1.92, 4), 0.95, 1e-12);

    EXPECT_EQ(FrequencyHistogram::bindex(2.0, 0, 1, 5), 2);
    EXPECT_EQ(FrequencyHistogram::bindex(2.0, 0, 1, -1), 1);
    EXPECT_EQ(FrequencyHistogram::bindex(9.7, 0, 1, 5), 5);
    EXPECT_EQ(FrequencyHistogram::bindex(9.7, 0, 1, -1), 9);
    EXPECT_EQ(FrequencyHistogram::bindex(0.0, 0, 1, -1), 0);
    EXPECT_EQ(FrequencyHistogram::bindex(1.5, 0, 1, 5), 1);
    // Within the tolerance of a boundary counts as on it.
    EXPECT_EQ(FrequencyHistogram::bindex(2.0 - 1e-7, 0, 1, 5), 2);
    EXPECT_EQ(FrequencyHistogram::bindex(2.0 - 1e-4, 0, 1, 5), 1);
}

TEST(FrequencyHistogram, OneSeries)
{
    // 1..10: range 9 over 10 values; start floor(10 x 1) / 10 = 1, width
    // binwidth(1, 10, 9) = 3 (raw 3), bins 1-4, 4-7, 7-10 and 10 itself on
    // the last boundary, which the counting mode keeps in the third bin.
    std::vector<double> x = OneBased({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    std::vector<double> counts, centres;
    double start = 0.0, width = 0.0;
    FrequencyHistogram::MakeHistogram(x.data(), 10, counts, centres, start, width);
    EXPECT_EQ(start, 1.0);
    EXPECT_EQ(width, 3.0);
    EXPECT_EQ(centres, (std::vector<double>{2.5, 5.5, 8.5}));
    EXPECT_EQ(counts, (std::vector<double>{3, 3, 4}));

    // Missing values change neither bins nor counts.
    std::vector<double> gappy = OneBased({1, -99, 2, 3, 4, 5, -99, 6, 7, 8, 9, 10});
    std::vector<double> gappyCounts, gappyCentres;
    FrequencyHistogram::MakeHistogram(gappy.data(), 12, gappyCounts, gappyCentres, start, width);
    EXPECT_EQ(gappyCounts, counts);
    EXPECT_EQ(gappyCentres, centres);

    // Equal values: three bins of width 1, all in the first; with two
    // values one bin.
    std::vector<double> equal = OneBased({4, 4, 4, 4});
    FrequencyHistogram::MakeHistogram(equal.data(), 4, counts, centres, start, width);
    EXPECT_EQ(counts, (std::vector<double>{4, 0, 0}));
    EXPECT_EQ(centres, (std::vector<double>{4.5, 5.5, 6.5}));
    std::vector<double> pair = OneBased({4, 7});
    FrequencyHistogram::MakeHistogram(pair.data(), 2, counts, centres, start, width);
    EXPECT_EQ(counts, (std::vector<double>{1, 1}));
    EXPECT_EQ(width, 1.0);
    std::vector<double> none = OneBased({-99, -99});
    FrequencyHistogram::MakeHistogram(none.data(), 2, counts, centres, start, width);
    EXPECT_TRUE(counts.empty());
    EXPECT_TRUE(centres.empty());
}

// A range below 1 is scaled by a power of ten while the bins are chosen;
// start and width come back in the data's units.
TEST(FrequencyHistogram, SmallRangesAndSharedBins)
{
    std::vector<double> small = OneBased({0.01, 0.02, 0.03, 0.05, 0.09});
    std::vector<double> counts, centres;
    double start = 0.0, width = 0.0;
    FrequencyHistogram::MakeHistogram(small.data(), 5, counts, centres, start, width);
    // Scaled by 100: 1..9, start floor(10)/10 = 1, width binwidth(1, 9, 4) = 4.
    EXPECT_NEAR(start, 0.01, 1e-15);
    EXPECT_NEAR(width, 0.04, 1e-15);
    ASSERT_EQ(counts.size(), 2u);
    EXPECT_EQ(counts, (std::vector<double>{3, 2}));
    EXPECT_NEAR(centres[0], 0.03, 1e-15);

    // Two series share one set of bins over both: width binwidth(1, 10, 5) = 4.
    std::vector<double> both = OneBased({1, 2, 3, 4, 5, 6, 5, 6, 7, 8, 9, 10});
    const auto histograms = FrequencyHistogram::MakeMultiHistogram(both.data(), 12, 2, centres, start, width);
    ASSERT_EQ(histograms.size(), 2u);
    EXPECT_EQ(start, 1.0);
    EXPECT_EQ(width, 4.0);
    // [1, 5), [5, 9), [9, 13).
    EXPECT_EQ(histograms[0], (std::vector<double>{4, 2, 0}));
    EXPECT_EQ(histograms[1], (std::vector<double>{0, 4, 2}));
}

TEST(FrequencyHistogram, VectorsAndDotPlots)
{
    const FrequencyHistogram histogram;
    const NCDataVector<float> data({1.2f, 2.5f, -99.0f, 2.7f, 4.1f, 2.6f});
    FrequencyHistogram::HistogramInfo info;
    histogram.CreateHistogram(data, info);
    // Start floor(1.2) = 1, width binwidth(1, 4.1, 5) = 1 (raw 1.39).
    EXPECT_EQ(info.start, 1.0);
    EXPECT_EQ(info.width, 1.0);
    EXPECT_EQ(info.counts, (std::vector<double>{1, 3, 0, 1}));
    EXPECT_EQ(info.centres, (std::vector<double>{1.5, 2.5, 3.5, 4.5}));

    NCDataVector<float> x, y;
    float start = 0.0f, width = 0.0f;
    histogram.CreateDotPlotHistogram(data, x, y, start, width);
    EXPECT_EQ(start, 1.0f);
    EXPECT_EQ(width, 1.0f);
    EXPECT_TRUE(x == NCDataVector<float>({1.5f, 2.5f, 2.5f, 4.5f, 2.5f}));
    EXPECT_TRUE(y == NCDataVector<float>({1, 1, 2, 1, 3}));

    histogram.CreateHistogram(NCDataVector<float>({-99.0f}), info);
    EXPECT_TRUE(info.counts.empty());
    histogram.CreateDotPlotHistogram(NCDataVector<float>(), x, y, start, width);
    EXPECT_EQ(x.Size(), 0);
}
