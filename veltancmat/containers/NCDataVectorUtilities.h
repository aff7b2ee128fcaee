#pragma once

#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/QvMath.h"
#include "veltancmat/platform/Export.h"

// Resampling, smoothing and search over float data vectors. Every function
// honours the missing value -99, leaves its arguments untouched and returns
// a new vector or a scalar. Positions are compared with
// QvMath::CompareTolerant. Argument errors (vectors of different sizes, an
// index range outside the vector) throw NCInternalError naming the function.
namespace NCDataVectorUtilities {

// Element k of the result lies on the line through (x1, Y1[k]) and
// (x2, Y2[k]), evaluated at x:
// - x missing: -99;
// - y1, y2, x1 or x2 missing: y1 if x equals x1, else y2 if x equals x2,
//   else -99;
// - x outside the interval: per `mode` (any value other than clamp and none
//   extrapolates linearly);
// - x1 equal to x2: the mean of y1 and y2.
// The result has Y1's size; Y2 must have the same.
VELTANCMAT_API NCDataVector<float> InterPolate(float x1, float x2, const NCDataVector<float>& Y1,
                                               const NCDataVector<float>& Y2, float x,
                                               QvMath::EExtrapolate mode);

// Resamples the curve (positions[i], values[i]) onto `newPositions` by
// piecewise linear interpolation. Both input vectors must be the same size.
// - Pairs with a missing value, or a missing or NaN position (it cannot be
//   ordered), are skipped; the rest need not be sorted, in either direction.
// - Pairs at equal positions merge into one point carrying their mean value,
//   as InterPolate does for x1 = x2.
// - A new position equal to a known position takes that value exactly.
// - A missing or NaN new position gives -99, as does any new position when
//   no pair is complete.
// - Outside [lowest, highest] known position the result follows `mode`. The
//   default is no extrapolation (-99): resampled spectra should not invent
//   data beyond what was measured. ExtrapolateClamp matches numpy.interp;
//   ExtrapolateLinear extends the first or last segment. With one known
//   point both of these repeat its value.
// The result has the size of `newPositions`.
VELTANCMAT_API NCDataVector<float> InterPolateVec(const NCDataVector<float>& positions,
                                                  const NCDataVector<float>& values,
                                                  const NCDataVector<float>& newPositions,
                                                  QvMath::EExtrapolate mode = QvMath::ExtrapolateNone);

// Moving average over `window` points. Windows are centred: element i
// averages elements i - window/2 .. i + (window-1)/2 (an even window reaches
// one point further back than forward), clipped at the ends of the vector.
// Missing elements are left out of the mean; a window holding none but
// missing ones gives -99. A window below 1 or above the size gives a vector
// of -99 values.
VELTANCMAT_API NCDataVector<float> Average(const NCDataVector<float>& v, int window);

// Moving median with the same centred, clipped windows and the same rules
// for missing elements and bad windows as Average. An even number of valid
// values in a window gives the mean of the middle two, as
// NCDataVector::GetMedian does.
VELTANCMAT_API NCDataVector<float> Median(const NCDataVector<float>& v, int window);

// The 1-based index of the element nearest to `value`; missing and NaN
// elements are skipped and a tie goes to the lower index. A missing or NaN
// `value`, or a vector without valid elements, gives -99 (never a usable
// index, and the library's mark of an undefined result).
VELTANCMAT_API int GetClosestIndex(const NCDataVector<float>& v, float value);

// The factor that brings the peak of v[from..to] (1-based, inclusive) to 1:
// 1 / max over the valid elements of the range, or 1 / max |v[i]| when
// `absolute` is true. The factor is never negative, so multiplying by it
// keeps the signal's sign (a negative peak goes to -1). Without a peak to
// scale (no valid element in the range, the largest value zero, or negative
// when `absolute` is false) the factor is -99. NaN elements are skipped. A
// range not inside 1..Size() with from <= to throws NCInternalError.
VELTANCMAT_API double PeakNormal(const NCDataVector<float>& v, int from, int to, bool absolute);

} // namespace NCDataVectorUtilities
