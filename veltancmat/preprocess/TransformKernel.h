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
// double value lies within a few ulps of a float rounding boundary.
inline constexpr double InvLn10 = 0.434294481903251827651128918916605082;
inline constexpr double NotStored = std::numeric_limits<double>::quiet_NaN();
inline constexpr double DoubleMin = std::numeric_limits<double>::min();
inline constexpr double DoubleMax = std::numeric_limits<double>::max();

// ln(a) for a normal, finite a > 0, within two ulps, without a division.
// a = 2^k z with z in [0.703125, 1.40625); that range is cut into 16 equal
// steps of the bit pattern, step i centred on c_i (step 9 on exactly 1, so
// that near a = 1 no table value cancels the result). With r = (z - c_i) / c_i,
// |r| <= 2^-5 and ln a = k ln 2 + ln c_i + log1p(r), the last by its series
// to r^11. z - c_i is exact (Sterbenz); ln 2 is split in two so that k ln 2
// keeps its low bits. The same code
// runs one value at a time and in the vector loops (where the tables are
// sixteen-lane permutes or gathers), and gives the same bits both ways:
// every fused multiply-add is written out, and the library is built without
// contraction.
namespace LogSteps {
inline constexpr std::uint64_t Width = std::uint64_t{1} << 48; // one step of the bit pattern
inline constexpr std::uint64_t Half = Width / 2;
inline constexpr std::uint64_t Offset = 0x3ff0000000000000ULL - Half - 9 * Width; // the bits of 0.703125
inline constexpr std::uint64_t Mantissa = 0x000fffffffffffffULL;
inline constexpr std::uint64_t StepMask = Mantissa & ~(Width - 1);
// ln c_i, correctly rounded (computed to 60 digits).
alignas(64) inline constexpr double LogC[16] = {
    -0x1.522ae0738a3d8p-2, -0x1.269621134db92p-2, -0x1.f991c6cb3b379p-3, -0x1.a93ed3c8ad9e3p-3,
    -0x1.5bf406b543db2p-3, -0x1.1178e8227e47cp-3, -0x1.9335e5d594989p-4, -0x1.08598b59e3a07p-4,
    -0x1.0415d89e74444p-5, 0.0,                   0x1.f0a30c01162a6p-5,  0x1.e27076e2af2e6p-4,
    0x1.5ff3070a793d4p-3,  0x1.c8ff7c79a9a22p-3,  0x1.1675cababa60ep-2,  0x1.4618bc21c5ec2p-2};
constexpr double Center(int i)
{
    return std::bit_cast<double>(Offset + static_cast<std::uint64_t>(i) * Width + Half);
}
// 1 / c_i, correctly rounded.
alignas(64) inline constexpr double InvC[16] = {
    1 / Center(0),  1 / Center(1),  1 / Center(2),  1 / Center(3),  1 / Center(4),  1 / Center(5),
    1 / Center(6),  1 / Center(7),  1 / Center(8),  1 / Center(9),  1 / Center(10), 1 / Center(11),
    1 / Center(12), 1 / Center(13), 1 / Center(14), 1 / Center(15)};
inline constexpr double Ln2Hi = 6.93147180369123816490e-01; // ln 2 split so that k Ln2Hi is exact
inline constexpr double Ln2Lo = 1.90821492927058770002e-10;
// log1p(r) = r + r^2 (-1/2 + r P(r)), P(r) = sum over m of (-1)^m r^m / (m + 3).
inline constexpr double P[9] = {1.0 / 3, -1.0 / 4, 1.0 / 5, -1.0 / 6, 1.0 / 7, -1.0 / 8, 1.0 / 9, -1.0 / 10, 1.0 / 11};
} // namespace LogSteps

// Always inlined: a call would keep the vector loops scalar.
[[gnu::always_inline]] inline double NaturalLog(double a)
{
    using namespace LogSteps;
    const std::uint64_t tmp = std::bit_cast<std::uint64_t>(a) - Offset;
    const std::uint64_t position = tmp & Mantissa;
    const std::uint64_t i = position >> 48;
    // The top 12 bits of tmp hold k in two's complement; adding 1024 there
    // makes it k + 1024 in 1 .. 2047, which becomes a double through the
    // 2^52 trick: 64-bit integer conversions have no AVX2 instruction.
    const std::uint64_t biased = (tmp + (std::uint64_t{1024} << 52)) >> 52;
    const double k = std::bit_cast<double>(0x4330000000000000ULL | biased) - (4503599627370496.0 + 1024.0);
    const double z = std::bit_cast<double>(Offset + position);
    const double c = std::bit_cast<double>((position & StepMask) + (Offset + Half));
    const double r = (z - c) * InvC[i];
    // Written out: a loop here keeps the callers' loops from vectorising.
    double p = std::fma(P[8], r, P[7]);
    p = std::fma(p, r, P[6]);
    p = std::fma(p, r, P[5]);
    p = std::fma(p, r, P[4]);
    p = std::fma(p, r, P[3]);
    p = std::fma(p, r, P[2]);
    p = std::fma(p, r, P[1]);
    p = std::fma(p, r, P[0]);
    const double tail = (r * r) * std::fma(r, p, -0.5);
    const double hi = std::fma(k, Ln2Hi, LogC[i]);
    const double lo = std::fma(k, Ln2Lo, tail);
    return hi + (r + lo);
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
