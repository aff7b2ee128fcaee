#pragma once

#include <cmath>

namespace QvMath {

// How a value is found for a position outside the measured interval. Callers
// store and pass the numeric values, so they must not change.
enum EExtrapolate : int {
    ExtrapolateLinear = 0, // extend the straight line through the end points
    ExtrapolateClamp = 1,  // repeat the value at the nearer end point
    ExtrapolateNone = 2,   // outside the interval the result is missing
};

// The single-precision machine epsilon: positions are measured in float, so
// differences below it are noise of their storage, not of the measurement.
inline constexpr double ToleranceEpsilon = 1.1920929e-7;

// Compares a and b relative to the larger magnitude: they are equal when
// |a - b| is at most ToleranceEpsilon scaled by 2 to the binary exponent of
// max(|a|, |b|) (the exponent as frexp reports it, mantissa in [0.5, 1)).
// Returns -1 when a is below b, 0 when equal, +1 when above. Only exact
// zeros equal zero, since the tolerance shrinks with the magnitude. A NaN
// compares equal to everything; callers must keep NaN out of positions.
inline int CompareTolerant(double a, double b)
{
    int exponent = 0;
    std::frexp(std::fabs(a) > std::fabs(b) ? a : b, &exponent);
    const double delta = std::ldexp(ToleranceEpsilon, exponent);
    const double difference = a - b;
    if (difference > delta)
        return 1;
    if (difference < -delta)
        return -1;
    return 0;
}

inline bool IsEqualTolerant(double a, double b)
{
    return CompareTolerant(a, b) == 0;
}

} // namespace QvMath
