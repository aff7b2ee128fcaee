#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/platform/Export.h"

#include <vector>

// Autocorrelation, cross-correlation and segment-averaged power spectra of
// one series, through fast Fourier transforms of power-of-two length.
//
// Every operation works on a copy of its input: missing values (-99) are
// filled by linear interpolation between their present neighbours, then the
// copy is detrended. The copy is stored in float; sums over the series and
// the spectral bins are accumulated in double. Work buffers live for one
// call, so the class has no state and calls on different threads are safe.
//
// Arguments that make no sense (null or empty vectors, a series without any
// present value or longer than 2^29 values, a lag beyond the series, a
// segment length that is not a power of two) leave the output untouched and
// throw nothing. A spectrum
// that cannot be formed from valid arguments (too few values for one
// segment, values that are not finite) throws NCError "Power spectrum could
// not be computed.".
class VELTANCMAT_API FFT {
public:
    // 1 subtracts the mean, 2 the least-squares line; other values leave
    // the series as it is.
    enum DetrendMode : int { DetrendNone = 0, DetrendMean = 1, DetrendLinear = 2 };

    // What one bin of PowerSpectrum holds, for a series sampled once per
    // unit of its index:
    //   DensityScaling  one-sided power spectral density (units^2 per unit
    //                   of frequency); the bins times the bin width 1/m add
    //                   up to the mean square of the series weighted by w^2
    //   SpectrumScaling one-sided power spectrum (units^2): a sine of
    //                   amplitude A at a bin's frequency reads A^2 / 2
    // They differ by the factor (sum w)^2 / sum w^2 of the window, which is m
    // for the rectangular window. Other values scale as DensityScaling.
    enum ScalingMode : int { DensityScaling = 0, SpectrumScaling = 1 };

    // The window laid over each segment of length m. Other values are
    // rectangular.
    enum DataWindowMode : int { Rectangular = 0, Hann = 1, Triangular = 2, Parabolic = 3 };

    // Lags 0..maxLag of the autocorrelation, normalised so that lag 0 is 1
    // (maxLag + 1 values). Nothing is written when maxLag < 0 or maxLag > n.
    static void AutoCorrelation(const NCDataVector<float>* x, DetrendMode mode, int maxLag,
                                NCDataVector<float>* out);

    // Lags -maxLag..+maxLag of sum_i x_i y_{i+k} / (|x| |y|) in that order
    // (2 maxLag + 1 values): a positive lag k pairs x_i with y_{i+k}, so a
    // peak there means that y follows x by k places. x and y must have the
    // same size; both are detrended alike.
    static void CrossCorrelation(const NCDataVector<float>* x, const NCDataVector<float>* y, DetrendMode mode,
                                 int maxLag, NCDataVector<float>* out);

    // The power in m/2 + 1 bins at the frequencies k/m, k = 0..m/2 (cycles
    // per unit of the index), averaged over segments of m values; with
    // `overlap` the segments overlap by half. The series is padded to a
    // whole number of segment pairs (see PaddedLength). m must be a power of
    // two of at least 2.
    static void PowerSpectrum(const NCDataVector<float>* x, int m, bool overlap, DetrendMode mode,
                              ScalingMode scaling, DataWindowMode window, NCDataVector<float>* out);

    // The number of segment pairs K and the length P the series is padded
    // to, for n values and segments of m = 2M: with overlap K = floor(ceil(n
    // / M) / 2) and P = (2K + 1) M (2K segments starting every M values);
    // without K = ceil(ceil(n / m) / 2) and P = 2 m K (2K segments side by
    // side).
    static void SegmentLayout(int n, int m, bool overlap, int& pairs, int& paddedLength);

    // Window value w_j, j = 1..m, of the given kind.
    static double WindowValue(DataWindowMode window, int j, int m);

    // The series every operation transforms: a copy of x with its missing
    // values interpolated, then detrended; intercept and slope receive the
    // line removed (value at the 1-based index i: intercept + slope i). Also
    // the preparation of the wavelet transforms.
    static NCDataVector<float> PreparedSeries(const NCDataVector<float>& x, DetrendMode mode, double& intercept,
                                              double& slope);

protected:
    // Applies the detrend mode to the present values; intercept and slope
    // receive the line removed (the mean as intercept for mode 1, zeros for
    // no detrending).
    static void DetrendVector(NCDataVector<float>* v, DetrendMode mode, double& intercept, double& slope);
    // Subtracts the mean of all values and divides by the square root of the
    // sum of squares of the centred values (when that is positive): lag 0 of
    // the vector's autocorrelation is then 1.
    static void DetrendVecMeanStd(NCDataVector<float>* v);
    // Appends zeros up to `length` (never the missing marker).
    static void PadVectorZeros(NCDataVector<float>* v, int length);
    // Appends values up to `length` that walk back from the last value
    // towards the first in steps of (x_n - x_1) / (n - 1): the k-th appended
    // value is x_n - k step, k = 1, 2, ...
    static void PadVectorLinearly(NCDataVector<float>* v, int length);
    // in[0..fftLength-1] holds a correlation in wrap-around order (lag 0
    // first, lag -k at fftLength - k); out[0..2 count] receives lags
    // -count..+count.
    static void ReorderFromVec(const float* in, float* out, int fftLength, int count);

private:
    // PreparedSeries without the line.
    static NCDataVector<float> Prepared(const NCDataVector<float>& x, DetrendMode mode);
    // Prepared, padded with zeros to `length` and normalised to unit sum of
    // squares: the form both correlations transform.
    static NCDataVector<float> Normalised(const NCDataVector<float>& x, DetrendMode mode, int length);
    // c[0..length-1] = sum_i a_i b_{i+k mod length}, in wrap-around order;
    // length is a power of two of at least 2.
    static void CorrelateByTransform(const float* a, const float* b, int length, float* c);
    // The power of the 2 pairs segments of m values starting every `step`
    // values of series[0..], each multiplied by w[0..m-1], summed per bin
    // k = 0..m/2 (not yet folded or normalised).
    static std::vector<double> SegmentPowers(const float* series, const float* w, int m, int step, int pairs);
};
