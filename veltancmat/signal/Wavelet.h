#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/signal/FFT.h"
#include "veltancmat/signal/WaveletFilters.h"

#include <vector>

// The periodised discrete wavelet transform of a series of n = 2^K values
// (Daubechies, Ten Lectures on Wavelets, 1992, chapter 5; Mallat's
// pyramid algorithm), its multiresolution decomposition, the share of the
// sum of squares carried by each level, and denoising by thresholding the
// details (Donoho and Johnstone, Biometrika 81 (1994) 425-455).
//
//   const Wavelet w(WaveletFilters("Symmlet8"), 5, FFT::DetrendLinear);
//   NCDataVector<float> c = w.Transform(y);      // smooth, then details 5..1
//   NCDataVector<float> shares = w.Energy(y);    // levels 1..5, then the smooth
//   NCDataVector<float> clean = w.Denoise(y, Wavelet::SoftThreshold);
//
// Levels: level 1 holds the n/2 finest details, level j holds n/2^j, and
// the smooth of the coarsest level J holds n/2^J values; J runs from 1 to
// K. The periodic transform treats the series as one period of a periodic
// signal, so every level has exactly half the values of the one below and
// the transform is invertible with any filter length.
//
// Coefficient layout (1-based, as the library's vectors): the smooth in
// 1..n/2^J, then the details of level J, J - 1, ..., 1, level j taking
// n/2^j values from n/2^j + 1 onwards. This is the order of PyWavelets'
// wavedec list [cA_J, cD_J, ..., cD_1] (mode "periodization"), whose
// coefficients these are.
//
// Preparation (Transform, Energy, Multiresolution, Denoise): missing values
// (-99) are interpolated and the series is detrended exactly as the FFT
// operations do (FFT::PreparedSeries); the removed mean or line is added
// back where a result is on the series' scale (the smooth of the
// multiresolution, the denoised series). Forward and Inverse take the values
// as they are.
//
// Values are stored in float; the filters, every intermediate level and
// every sum are double. Long levels are shared out over the OpenMP threads
// set through NCMultiThreading::ThreadingControl. The object holds only its
// settings: one object may serve several threads at once.
//
// Errors (NCError, level 2): a length that is not a power of two (or 0), a
// level outside 1..K, a series without a present value, a coefficient
// vector whose length does not fit.
class VELTANCMAT_API Wavelet {
public:
    // Hard keeps a detail whose magnitude exceeds the threshold and zeroes
    // the rest; soft also shrinks the kept ones towards 0 by the threshold.
    enum ThresholdMode : int { HardThreshold = 0, SoftThreshold = 1 };

    // Throws NCError for fewer than one level.
    Wavelet(const WaveletFilters& filters, int levels, FFT::DetrendMode detrend = FFT::DetrendNone);

    const WaveletFilters& GetFilters() const { return m_filters; }
    int GetLevels() const { return m_levels; }
    FFT::DetrendMode GetDetrendMode() const { return m_detrend; }

    // K for n = 2^K; -1 when n is not a power of two.
    static int LevelsOfLength(int n);
    // 1-based position of the first detail coefficient of `level` among n
    // coefficients (n/2^level + 1); the smooth starts at 1.
    static int DetailStart(int n, int level) { return (n >> level) + 1; }

    // The packed coefficients of x as it is (no preparation; a missing
    // marker is taken as the number -99).
    NCDataVector<float> Forward(const NCDataVector<float>& x) const;
    // The series whose coefficients these are.
    NCDataVector<float> Inverse(const NCDataVector<float>& coefficients) const;

    // The prepared series: interpolated and detrended; intercept and slope
    // receive the line removed (FFT::PreparedSeries).
    NCDataVector<float> Prepare(const NCDataVector<float>& x, double& intercept, double& slope) const;
    // Forward(Prepare(x)).
    NCDataVector<float> Transform(const NCDataVector<float>& x) const;

    // Sums of squares of the packed coefficients by level: J + 1 values,
    // levels 1..J and then the smooth. For orthogonal filters they add up
    // to the sum of squares of the transformed series (Parseval).
    std::vector<double> LevelSumsOfSquares(const NCDataVector<float>& coefficients) const;
    // The share of each level in the sum of squares of the prepared
    // series' coefficients: J + 1 values (levels 1..J, the smooth) adding up
    // to 1; all 0 for a series that is 0 after preparation.
    NCDataVector<float> Energy(const NCDataVector<float>& x) const;

    // J + 1 rows of n values: row j (1..J) the part of the series that the
    // details of level j make, row J + 1 the smooth with the removed trend
    // added back. The rows add up to the prepared series plus its trend,
    // i.e. to x with its missing values interpolated.
    NCDataMatrix<float> Multiresolution(const NCDataVector<float>& x) const;

    // sigma sqrt(2 ln n) with sigma = median |d| / 0.6745 over the finest
    // details d of the packed coefficients (the median absolute deviation
    // about 0 of Donoho and Johnstone, as the details have mean 0).
    static double UniversalThreshold(const NCDataVector<float>& coefficients);
    // Thresholds the details of levels 1..levels in place; the smooth stays.
    static void ApplyThreshold(NCDataVector<float>& coefficients, int levels, double threshold, ThresholdMode mode);
    // x prepared, transformed, its details thresholded at the universal
    // threshold, transformed back and its trend added back. `threshold`,
    // when given, receives the threshold used.
    NCDataVector<float> Denoise(const NCDataVector<float>& x, ThresholdMode mode, double* threshold = nullptr) const;

private:
    // The checked length of a series or coefficient vector.
    int CheckedLength(int n) const;
    // The packed coefficients of x[0..n-1] in double.
    template <class T>
    std::vector<double> ForwardPacked(const T* x, int n) const;
    // The series of the packed coefficients c.
    std::vector<double> InversePacked(const std::vector<double>& c) const;
    // The prepared series in double and the trend removed.
    std::vector<double> PreparedValues(const NCDataVector<float>& x, double& intercept, double& slope) const;

    WaveletFilters m_filters;
    int m_levels = 1;
    FFT::DetrendMode m_detrend = FFT::DetrendNone;
};
