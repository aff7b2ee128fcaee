// The kernels of BatchKernels.h, compiled once per instruction set:
// hwy/foreach_target.h includes this file again for each target.

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "veltancmat/containers/frame/BatchKernels.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "veltancmat/containers/frame/BatchKernels.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/Packet-inl.h"

#include <cstddef>
#include <utility>

HWY_BEFORE_NAMESPACE();
namespace NCBatchKernels {
namespace HWY_NAMESPACE {

using namespace NCPacket::HWY_NAMESPACE;
using F = Packet<float>;
static_assert(F::Lanes == Width, "a strip is one packet");

inline float Cell(const float* x, int j, bool masked) { return masked ? PresentOrZero(x[j]) : x[j]; }

template <bool Masked>
HWY_INLINE F Strip(const float* x)
{
    const F v = Load(x);
    if constexpr (Masked)
        return Present(v, GapsOf(v));
    return v;
}

template <int R, bool Masked>
void ColumnBlock(double* HWY_RESTRICT totals, int stride, const float* const* x, const float* HWY_RESTRICT s, int rows,
                 int n)
{
    int j = 1;
    for (; j + Width - 1 <= n; j += Width) {
        F sum[R];
        for (F& v : sum)
            v = Zero<float>();
        for (int b = 0; b < rows; ++b) {
            const F xv = Strip<Masked>(x[b] + j);
            for (int r = 0; r < R; ++r)
                sum[r] += xv * Set(s[b * R + r]);
        }
        for (int r = 0; r < R; ++r)
            WidenInto(totals + static_cast<std::ptrdiff_t>(r) * stride + j, sum[r]);
    }
    for (; j <= n; ++j) {
        float sum[R] = {};
        for (int b = 0; b < rows; ++b) {
            const float v = Cell(x[b], j, Masked);
            for (int r = 0; r < R; ++r)
                sum[r] += v * s[b * R + r];
        }
        for (int r = 0; r < R; ++r)
            totals[static_cast<std::ptrdiff_t>(r) * stride + j] += sum[r];
    }
}

template <int R, bool Masked>
void Dots(const float* HWY_RESTRICT x, const float* const* p, int n, double* sums)
{
    F sum[R];
    Packet<double> total[R][2];
    for (int r = 0; r < R; ++r) {
        sum[r] = Zero<float>();
        total[r][0] = total[r][1] = Zero<double>();
    }
    int j = 1, strips = 0;
    for (; j + Width - 1 <= n; j += Width) {
        const F xv = Strip<Masked>(x + j);
        for (int r = 0; r < R; ++r)
            sum[r] += xv * Load(p[r] + j);
        if (++strips == FlushEvery) {
            for (int r = 0; r < R; ++r) {
                Widen(total[r], sum[r]);
                sum[r] = Zero<float>();
            }
            strips = 0;
        }
    }
    for (int r = 0; r < R; ++r) {
        Widen(total[r], sum[r]);
        sums[r] = SumLanes(total[r], 2);
    }
    for (; j <= n; ++j) {
        const float v = Cell(x, j, Masked);
        for (int r = 0; r < R; ++r)
            sums[r] += v * p[r][j];
    }
}

void NarrowDots(const float* HWY_RESTRICT x, const float* HWY_RESTRICT lanes, int n, bool masked, double* sums)
{
    Packet<double> total[2] = {Zero<double>(), Zero<double>()};
    for (int j = 1; j <= n; ++j)
        Widen(total, Set(Cell(x, j, masked)) * Load(lanes + Width * j));
    Store(total[0], sums);
    Store(total[1], sums + 4);
}

template <bool Masked, std::size_t... R>
constexpr std::array<ColumnKernel, MaxVectors> ColumnKernels(std::index_sequence<R...>)
{
    return {&ColumnBlock<static_cast<int>(R) + 1, Masked>...};
}

template <bool Masked, std::size_t... R>
constexpr std::array<DotKernel, MaxVectors> DotKernels(std::index_sequence<R...>)
{
    return {&Dots<static_cast<int>(R) + 1, Masked>...};
}

const Kernels* KernelTable()
{
    constexpr auto all = std::make_index_sequence<MaxVectors>();
    static constexpr Kernels kernels{{ColumnKernels<false>(all), ColumnKernels<true>(all)},
                                     {DotKernels<false>(all), DotKernels<true>(all)},
                                     &NarrowDots};
    return &kernels;
}

} // namespace HWY_NAMESPACE
} // namespace NCBatchKernels
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace NCBatchKernels {

HWY_EXPORT(KernelTable);

const Kernels& Here() { return *HWY_DYNAMIC_DISPATCH(KernelTable)(); }

} // namespace NCBatchKernels
#endif
