// The kernels of NipalsKernels.h, compiled once per instruction set:
// hwy/foreach_target.h includes this file again for each target.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "veltancmat/containers/frame/NipalsKernels.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/NipalsKernels.h"
#include "veltancmat/containers/frame/Packet-inl.h"

#include <cstddef>
#include <type_traits>
#include <utility>

HWY_BEFORE_NAMESPACE();
namespace NCNipalsKernels {
namespace HWY_NAMESPACE {

using namespace NCPacket::HWY_NAMESPACE;

// The plain loops below are vectorised by the compiler, for each target.
// One row at a time: bands of rows read together measured slower, the rows
// being short separate streams.
template <class T>
void AccumulateComplete(T* HWY_RESTRICT s12, const T* HWY_RESTRICT x, T t, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        s12[j] += x[j] * t;
}

// What the missing cells would have contributed to the used squares is
// gathered apart (t^2 where x[j] is missing): the used squares of a column
// are then t't minus that, a select per cell instead of a mask on every sum.
template <class T>
void AccumulateMasked(T* HWY_RESTRICT s12, T* HWY_RESTRICT gapSquares, const T* HWY_RESTRICT x, T t, int n)
{
    constexpr int W = Packet<T>::Lanes;
    const Packet<T> tv = Set(t);
    const Packet<T> qv = tv * tv;
    int j = 1;
    for (; j + W - 1 <= n; j += W) {
        const Packet<T> xv = Load(x + j);
        const Gaps<T> gaps = GapsOf(xv);
        Store(Load(s12 + j) + Present(xv, gaps) * tv, s12 + j);
        Store(Load(gapSquares + j) + AtGaps(qv, gaps), gapSquares + j);
    }
    for (; j <= n; ++j) {
        const bool gap = IsMisVal(x[j]);
        s12[j] += (gap ? T(0) : x[j]) * t;
        gapSquares[j] += gap ? t * t : T(0);
    }
}

template <class T>
void Flush(double* HWY_RESTRICT total, T* HWY_RESTRICT partial, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        total[j] += partial[j];
        partial[j] = T(0);
    }
}

template <class T>
int GapPairs(const T* x, const int* present, int n)
{
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int j = 1; j <= n; ++j)
        count += int(IsMisVal(x[j])) * present[j];
    return count;
}

// The dot products keep two packets of independent partial sums in the
// element type: one running sum would make every addition wait for the one
// before, and the loop would be bound by that latency rather than by reading
// the row. Every FlushEvery blocks they are widened into double sums.
template <class T>
double DotComplete(const T* HWY_RESTRICT x, const T* HWY_RESTRICT p, int n)
{
    constexpr int W = Packet<T>::Lanes;
    constexpr int Wide = Widened<T>;
    Packet<T> a = Zero<T>(), b = Zero<T>();
    Packet<double> total[2 * Wide];
    for (Packet<double>& s : total)
        s = Zero<double>();
    int j = 1;
    int blocks = 0;
    for (; j + 2 * W - 1 <= n; j += 2 * W) {
        a += Load(x + j) * Load(p + j);
        b += Load(x + j + W) * Load(p + j + W);
        if (++blocks == FlushEvery) {
            Widen(total, a);
            Widen(total + Wide, b);
            a = b = Zero<T>();
            blocks = 0;
        }
    }
    Widen(total, a);
    Widen(total + Wide, b);
    // One more packet where it fits: the scalar remainder is a dependent
    // chain, as long as the rest of a 200-cell row.
    if (j + W - 1 <= n) {
        Widen(total, Load(x + j) * Load(p + j));
        j += W;
    }
    double sum = SumLanes(total, 2 * Wide);
    for (; j <= n; ++j)
        sum += x[j] * p[j];
    return sum;
}

// Selecting between values already loaded keeps the loads unconditional.
template <class T>
double DotMasked(const T* HWY_RESTRICT x, const T* HWY_RESTRICT p, const T* HWY_RESTRICT p2, int n, double& gapSquares)
{
    constexpr int W = Packet<T>::Lanes;
    constexpr int Wide = Widened<T>;
    Packet<T> a = Zero<T>(), b = Zero<T>(), ga = Zero<T>(), gb = Zero<T>();
    Packet<double> total[2 * Wide], gapTotal[2 * Wide];
    for (int k = 0; k < 2 * Wide; ++k)
        total[k] = gapTotal[k] = Zero<double>();
    int j = 1;
    int blocks = 0;
    for (; j + 2 * W - 1 <= n; j += 2 * W) {
        const Packet<T> xa = Load(x + j), xb = Load(x + j + W);
        const Gaps<T> ma = GapsOf(xa), mb = GapsOf(xb);
        a += Present(xa, ma) * Load(p + j);
        b += Present(xb, mb) * Load(p + j + W);
        ga += AtGaps(Load(p2 + j), ma);
        gb += AtGaps(Load(p2 + j + W), mb);
        if (++blocks == FlushEvery) {
            Widen(total, a);
            Widen(total + Wide, b);
            Widen(gapTotal, ga);
            Widen(gapTotal + Wide, gb);
            a = b = ga = gb = Zero<T>();
            blocks = 0;
        }
    }
    Widen(total, a);
    Widen(total + Wide, b);
    Widen(gapTotal, ga);
    Widen(gapTotal + Wide, gb);
    if (j + W - 1 <= n) {
        const Packet<T> xa = Load(x + j);
        const Gaps<T> ma = GapsOf(xa);
        Widen(total, Present(xa, ma) * Load(p + j));
        Widen(gapTotal, AtGaps(Load(p2 + j), ma));
        j += W;
    }
    double sum = SumLanes(total, 2 * Wide);
    double squares = SumLanes(gapTotal, 2 * Wide);
    for (; j <= n; ++j) {
        const bool gap = IsMisVal(x[j]);
        sum += (gap ? T(0) : x[j]) * p[j];
        squares += gap ? p2[j] : T(0);
    }
    gapSquares = squares;
    return sum;
}

// ---- column projection of float rows with missing cells, FlushEvery rows
// at a time
//
// Row by row, a gappy row updates two partial-sum arrays in memory (the
// products, and the squares its missing cells remove): a load and a store
// per cell for each, more work per cell than reading the row costs. Here a
// strip of sixteen columns of both sums stays in registers over a block of
// rows and is widened into the double sums once per block. The block is the
// FlushEvery rows the row-by-row kernels sum in the element type, summed in
// the same order with the same roundings, so every bit of the results is
// theirs. Complete matrices keep the row-by-row kernels: they have no
// squares to carry and already run at the speed of reading the rows.

// The cells past the last whole strip, one column at a time.
inline void ColumnBlockTail(double* total, double* squares, const float* const* x, const float* t, int rows, int j,
                            int n)
{
    for (; j <= n; ++j) {
        float s = 0.0f, g = 0.0f;
        for (int r = 0; r < rows; ++r) {
            const bool gap = IsMisVal(x[r][j]);
            s += (gap ? 0.0f : x[r][j]) * t[r];
            g += gap ? t[r] * t[r] : 0.0f;
        }
        total[j] += s;
        squares[j] += g;
    }
}

template <int R>
void ColumnBlock(double* total, double* squares, const float* const* x, const float* t, const float* const* next, int n)
{
    using F = Packet<float>;
    constexpr int W = F::Lanes;
    F tv[R], qv[R];
    for (int r = 0; r < R; ++r) {
        tv[r] = Set(t[r]);
        qv[r] = Set(t[r] * t[r]);
    }
    int j = 1;
    for (; j + 2 * W - 1 <= n; j += 2 * W) {
        if (next)
            for (int r = 0; r < FlushEvery; ++r)
                __builtin_prefetch(next[r] + j, 0, ColumnLocality);
        F s0 = Zero<float>(), s1 = s0, g0 = s0, g1 = s0;
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const F x0 = Load(x[r] + j), x1 = Load(x[r] + j + W);
            const Gaps<float> m0 = GapsOf(x0), m1 = GapsOf(x1);
            s0 += Present(x0, m0) * tv[r];
            s1 += Present(x1, m1) * tv[r];
            g0 += AtGaps(qv[r], m0);
            g1 += AtGaps(qv[r], m1);
        }
        WidenInto(total + j, s0);
        WidenInto(total + j + W, s1);
        WidenInto(squares + j, g0);
        WidenInto(squares + j + W, g1);
    }
    ColumnBlockTail(total, squares, x, t, R, j, n);
}

template <std::size_t... R>
constexpr ColumnBlockKernels MakeColumnBlocks(std::index_sequence<R...>)
{
    return {&ColumnBlock<static_cast<int>(R) + 1>...};
}

template <class T>
constexpr Kernels<T> MakeKernels()
{
    Kernels<T> k{
        &DotComplete<T>, &DotMasked<T>, &GapPairs<T>, &AccumulateComplete<T>, &AccumulateMasked<T>, &Flush<T>, {}};
    if constexpr (std::is_same_v<T, float>)
        k.columnBlocks = MakeColumnBlocks(std::make_index_sequence<FlushEvery>());
    return k;
}

const Kernels<float>* FloatKernels()
{
    static constexpr Kernels<float> kernels = MakeKernels<float>();
    return &kernels;
}

const Kernels<double>* DoubleKernels()
{
    static constexpr Kernels<double> kernels = MakeKernels<double>();
    return &kernels;
}

} // namespace HWY_NAMESPACE
} // namespace NCNipalsKernels
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace NCNipalsKernels {

HWY_EXPORT(FloatKernels);
HWY_EXPORT(DoubleKernels);

template <>
const Kernels<float>& Here()
{
    return *HWY_DYNAMIC_DISPATCH(FloatKernels)();
}

template <>
const Kernels<double>& Here()
{
    return *HWY_DYNAMIC_DISPATCH(DoubleKernels)();
}

} // namespace NCNipalsKernels
#endif
