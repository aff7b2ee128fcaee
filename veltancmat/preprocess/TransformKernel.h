#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/preprocess/NCTransformError.h"
#include "veltancmat/preprocess/TransformE.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

// Not part of the interface (nothing here is exported): the cell arithmetic
// and the loops behind TransformStruct and NCTransform. One value, one
// column and a whole matrix all go through the same functions, so a cell
// gets the same bits whichever way it is transformed.
namespace NCTransformKernel {

// The largest finite float, as a double. A result beyond it (or NaN, which
// fails every comparison) cannot be stored.
inline constexpr double FloatLimit = 3.4028234663852886e38;
// 1 / ln 10. log10(a) is computed as ln(a) / ln 10, through NaturalLog
// below; the float result is the correctly rounded one except where the
// double value lies within an ulp of a float rounding boundary.
inline constexpr double InvLn10 = 0.434294481903251827651128918916605082;
inline constexpr double NotStored = std::numeric_limits<double>::quiet_NaN();
inline constexpr double DoubleMin = std::numeric_limits<double>::min();
inline constexpr double DoubleMax = std::numeric_limits<double>::max();

// ln(a) for a normal, finite a > 0, within an ulp. The classic reduction:
// a = 2^k m with m in [sqrt(1/2), sqrt(2)), f = m - 1, s = f / (2 + f) and
// ln(1 + f) = 2 atanh(s), an odd series whose tail is the published
// minimax polynomial of the standard double-precision logarithm. It has no
// branches and no tables, so the same code runs one value at a time and in
// the vector loops of the matrix transforms and gives the same bits both
// ways; the library's log would be called once per cell.
inline double NaturalLog(double a)
{
    constexpr std::uint64_t SqrtHalf = 0x3fe6a09e667f3bcdULL; // the bits of sqrt(1/2)
    constexpr std::uint64_t Mantissa = 0x000fffffffffffffULL;
    constexpr double Ln2Hi = 6.93147180369123816490e-01; // ln 2 split so that k Ln2Hi is exact
    constexpr double Ln2Lo = 1.90821492927058770002e-10;
    constexpr double Lg1 = 6.666666666666735130e-01, Lg2 = 3.999999999940941908e-01,
                     Lg3 = 2.857142874366239149e-01, Lg4 = 2.222219843214978396e-01,
                     Lg5 = 1.818357216161805012e-01, Lg6 = 1.531383769920937332e-01,
                     Lg7 = 1.479819860511658591e-01;
    // The top 12 bits of u hold k in two's complement; adding 1024 there
    // makes it k + 1024 in 1 .. 2048, which becomes a double through the
    // 2^52 trick: 64-bit integer conversions have no vector instruction.
    const std::uint64_t u = std::bit_cast<std::uint64_t>(a) - SqrtHalf;
    const std::uint64_t biased = (u + (std::uint64_t{1024} << 52)) >> 52;
    const double k = std::bit_cast<double>(0x4330000000000000ULL | biased) - (4503599627370496.0 + 1024.0);
    const double f = std::bit_cast<double>((u & Mantissa) + SqrtHalf) - 1.0;
    const double s = f / (2.0 + f);
    const double z = s * s;
    const double w = z * z;
    const double r = z * (Lg1 + w * (Lg3 + w * (Lg5 + w * Lg7))) + w * (Lg2 + w * (Lg4 + w * Lg6));
    const double halfSquare = 0.5 * f * f;
    return k * Ln2Hi - ((halfSquare - (s * (halfSquare + r) + k * Ln2Lo)) - f);
}

// log10(a) for any a: outside the normal positive range (0, negative,
// infinite, NaN, and subnormal values, which a float cell and float
// constants cannot produce) the library's log gives the -inf or NaN that
// the callers turn into a domain failure.
inline double Log10(double a)
{
    return a >= DoubleMin && a <= DoubleMax ? NaturalLog(a) * InvLn10 : std::log(a) * InvLn10;
}

// A column's transform as the loops take it: the type normalised, the
// constants widened once.
struct Coefficients {
    TransformE::Transform type;
    double c1;
    double c2;
    double c3;
};

inline Coefficients MakeCoefficients(int type, const std::array<float, 3>& c)
{
    return {TransformE::Normalized(type), c[0], c[1], c[2]};
}

// A cell the loops did not write: one that failed (code OutOfDomain) or
// whose result is the missing marker itself. Both change the cell's missing
// status, so they are written afterwards through the matrix's element
// writer, which keeps the missing counts exact; every other cell goes from
// present to present and is written in place.
struct PendingCell {
    int row;
    int column;
    NCTransformError::Error code;
    bool setMissing; // false only for the Linear back-transform with C1 = 0
};

// y = f(v) (Forward) or x = f^-1(v), in double. The caller stores the result
// only when |result| <= FloatLimit, except for the Linear forward transform,
// which is stored unchecked. The Linear back-transform with C1 = 0 never
// gets here.
template <TransformE::Transform Type, bool Forward>
inline double Apply(const Coefficients& k, double v)
{
    using T = TransformE;
    if constexpr (Forward) {
        if constexpr (Type == T::Linear)
            return k.c1 * v + k.c2;
        else if constexpr (Type == T::Log)
            return Log10(k.c1 * v + k.c2);
        else if constexpr (Type == T::NegLog)
            return -Log10(k.c1 * v + k.c2);
        else if constexpr (Type == T::Logit) {
            const double d = k.c2 - v;
            return d == 0.0 ? NotStored : Log10((v - k.c1) / d);
        } else if constexpr (Type == T::Exponential)
            return std::exp(k.c1 * v + k.c2);
        else
            return std::pow(k.c1 * v + k.c2, k.c3);
    } else {
        if constexpr (Type == T::Linear)
            return (v - k.c2) / k.c1;
        else if constexpr (Type == T::Log || Type == T::NegLog) {
            const double w = std::pow(10.0, Type == T::Log ? v : -v);
            return !std::isfinite(w) || k.c1 == 0.0 ? NotStored : (w - k.c2) / k.c1;
        } else if constexpr (Type == T::Logit) {
            const double w = std::pow(10.0, v);
            return !std::isfinite(w) || w == -1.0 ? NotStored : (k.c2 * w + k.c1) / (w + 1.0);
        } else if constexpr (Type == T::Exponential)
            return (std::log(v) - k.c2) / k.c1;
        else {
            const double w = std::pow(v, 1.0 / k.c3);
            return !std::isfinite(w) || k.c1 == 0.0 ? NotStored : (w - k.c2) / k.c1;
        }
    }
}

// Transforms *v in place and returns the code; see TransformStruct::TransformValue.
NCTransformError::Error TransformValue(const Coefficients& k, bool forward, float* v);

// Transforms rows i0 .. i1-1 of column j (present cells only) through the
// row pointers of a matrix; the cells it leaves to the element writer are
// appended to `pending`.
void TransformCells(const Coefficients& k, bool forward, float* const* rows, int j, int i0, int i1,
                    std::vector<PendingCell>& pending);

// Column j of m; null when every cell succeeded.
std::unique_ptr<NCTransformErrors> TransformColumn(const Coefficients& k, NCDataMatrix<float>& m, int j, bool forward);

// Every column j of m through k[j] (k is 1-based, one per column; the
// caller has checked the width). The columns are shared out among threads
// in tiles; the records come back column by column, each column top to
// bottom. Null when every cell succeeded.
std::unique_ptr<NCTransformErrors> TransformMatrixNoBreak(const std::vector<Coefficients>& k, NCDataMatrix<float>& m);

// As TransformMatrixNoBreak, but stops at the first column, in column order,
// that has a failed cell: that column and the ones before it end up
// transformed, the later ones as they were, and the NCTransformError of the
// column's first failed cell is thrown.
void TransformMatrix(const std::vector<Coefficients>& k, NCDataMatrix<float>& m);

} // namespace NCTransformKernel
