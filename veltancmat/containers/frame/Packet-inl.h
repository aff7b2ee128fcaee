// Internal to the library: the packet layer every vector kernel is written
// against, once per instruction set. A kernel file includes it after
// hwy/foreach_target.h, which compiles the file again for each target, so
// this header has Highway's per-target guard instead of #pragma once.
//
// A packet is 32 bytes: eight floats or four doubles. The kernels keep their
// sums in packets, so lane k of a sum holds the same cells on every target
// and is added in the same order: a result has the same bits on any
// processor. Targets with 32-byte or wider vectors hold a packet in one
// vector (AVX-512 lends its mask registers, not its width), 16-byte targets
// in two, and the scalar fallback in one per lane. Nothing here fuses a
// multiply with an add.

#if defined(VELTAN_FRAME_PACKET_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef VELTAN_FRAME_PACKET_INL_H_
#undef VELTAN_FRAME_PACKET_INL_H_
#else
#define VELTAN_FRAME_PACKET_INL_H_
#endif

#include "veltancmat/containers/frame/MissingValue.h"

#include <hwy/highway.h>

#include <cstddef>
#include <type_traits>

HWY_BEFORE_NAMESPACE();
namespace NCPacket {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

template <class T>
struct Packet {
    using D = hn::CappedTag<T, 32 / sizeof(T)>;
    using V = hn::Vec<D>;
    static constexpr std::size_t Lanes = 32 / sizeof(T);
    static constexpr std::size_t Parts = Lanes / hn::MaxLanes(D());
    static_assert(Parts * hn::MaxLanes(D()) == Lanes, "a packet is whole vectors");
    V part[Parts];
};

// Per lane: whether the cell is missing.
template <class T>
struct Gaps {
    hn::Mask<typename Packet<T>::D> part[Packet<T>::Parts];
};

// How many double packets one packet of T widens into.
template <class T>
inline constexpr int Widened = static_cast<int>(sizeof(double) / sizeof(T));

// The packet whose vector k is part(k).
template <class T, class Part>
HWY_INLINE Packet<T> EachPart(Part part)
{
    Packet<T> p;
    for (std::size_t k = 0; k < Packet<T>::Parts; ++k)
        p.part[k] = part(k);
    return p;
}

template <class T>
HWY_INLINE Packet<T> Zero()
{
    return EachPart<T>([](std::size_t) { return hn::Zero(typename Packet<T>::D()); });
}

template <class T>
HWY_INLINE Packet<T> Set(T value)
{
    return EachPart<T>([value](std::size_t) { return hn::Set(typename Packet<T>::D(), value); });
}

template <class T>
HWY_INLINE Packet<T> Load(const T* from)
{
    const typename Packet<T>::D d;
    return EachPart<T>([from, d](std::size_t k) { return hn::LoadU(d, from + k * hn::MaxLanes(d)); });
}

template <class T>
HWY_INLINE void Store(const Packet<T>& p, T* to)
{
    const typename Packet<T>::D d;
    for (std::size_t k = 0; k < Packet<T>::Parts; ++k)
        hn::StoreU(p.part[k], d, to + k * hn::MaxLanes(d));
}

template <class T>
HWY_INLINE Packet<T> operator+(const Packet<T>& a, const Packet<T>& b)
{
    return EachPart<T>([&](std::size_t k) { return hn::Add(a.part[k], b.part[k]); });
}

template <class T>
HWY_INLINE Packet<T> operator*(const Packet<T>& a, const Packet<T>& b)
{
    return EachPart<T>([&](std::size_t k) { return hn::Mul(a.part[k], b.part[k]); });
}

template <class T>
HWY_INLINE Packet<T>& operator+=(Packet<T>& a, const Packet<T>& b)
{
    return a = a + b;
}

template <class T>
HWY_INLINE Gaps<T> GapsOf(const Packet<T>& x)
{
    const auto missing = hn::Set(typename Packet<T>::D(), NCMisVal<T>);
    Gaps<T> g;
    for (std::size_t k = 0; k < Packet<T>::Parts; ++k)
        g.part[k] = hn::Eq(x.part[k], missing);
    return g;
}

// x with its missing cells as zero.
template <class T>
HWY_INLINE Packet<T> Present(const Packet<T>& x, const Gaps<T>& gaps)
{
    return EachPart<T>([&](std::size_t k) { return hn::IfThenZeroElse(gaps.part[k], x.part[k]); });
}

// v where the cells are missing, zero elsewhere.
template <class T>
HWY_INLINE Packet<T> AtGaps(const Packet<T>& v, const Gaps<T>& gaps)
{
    return EachPart<T>([&](std::size_t k) { return hn::IfThenElseZero(gaps.part[k], v.part[k]); });
}

// total[0 .. Widened<T> - 1] += v in double: lanes 0-3 of a float packet go
// to total[0], lanes 4-7 to total[1]. Widening is exact.
template <class T>
HWY_INLINE void Widen(Packet<double>* total, const Packet<T>& v)
{
    using W = Packet<double>;
    if constexpr (std::is_same_v<T, double>) {
        total[0] += v;
    } else {
        // The doubles of v in lane order, one double vector at a time.
        const auto add = [total](std::size_t q, typename W::V x) {
            typename W::V& sum = total[q / W::Parts].part[q % W::Parts];
            sum = hn::Add(sum, x);
        };
        const typename W::D dd;
        constexpr std::size_t lanes = hn::MaxLanes(typename Packet<T>::D());
        for (std::size_t k = 0; k < Packet<T>::Parts; ++k) {
            if constexpr (lanes == hn::MaxLanes(dd)) {
                add(k, hn::PromoteTo(dd, v.part[k])); // one lane per vector
            } else {
                // UpperHalf by argument lookup: the scalar target has none.
                const hn::Half<typename Packet<T>::D> dh;
                add(2 * k, hn::PromoteTo(dd, hn::LowerHalf(dh, v.part[k])));
                add(2 * k + 1, hn::PromoteTo(dd, UpperHalf(dh, v.part[k])));
            }
        }
    }
}

// to[0 .. 7] += v (or to[0 .. 3] for doubles), in memory.
template <class T>
HWY_INLINE void WidenInto(double* to, const Packet<T>& v)
{
    Packet<double> total[Widened<T>];
    for (int k = 0; k < Widened<T>; ++k)
        total[k] = Load(to + 4 * k);
    Widen(total, v);
    for (int k = 0; k < Widened<T>; ++k)
        Store(total[k], to + 4 * k);
}

// The lanes of `count` (1, 2 or 4) double packets, added pairwise: a
// running sum over the lanes would be one chain of dependent additions.
HWY_INLINE double SumLanes(const Packet<double>* total, int count)
{
    Packet<double> v = total[0];
    if (count == 2)
        v = total[0] + total[1];
    else if (count == 4)
        v = (total[0] + total[1]) + (total[2] + total[3]);
    double lane[4];
    Store(v, lane);
    return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

} // namespace HWY_NAMESPACE
} // namespace NCPacket
HWY_AFTER_NAMESPACE();

#endif
