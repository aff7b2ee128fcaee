#pragma once

// The missing value: -99 stored in the element itself and tested by exact
// equality. A NaN is therefore an ordinary value, and a real measurement of
// exactly -99 reads as missing; both are deliberate and relied upon.
template <class T>
inline constexpr T NCMisVal = static_cast<T>(-99);

inline constexpr float fMisVal = NCMisVal<float>;
inline constexpr double dMisVal = NCMisVal<double>;
inline constexpr int iMisVal = NCMisVal<int>;

template <class T>
constexpr bool IsMisVal(T value)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wfloat-equal"
    return value == NCMisVal<T>;
#pragma GCC diagnostic pop
}

// The element itself, or zero when it is missing. Selecting in the element
// type before widening keeps the masked loops vectorised.
template <class T>
constexpr T PresentOrZero(T value)
{
    return IsMisVal(value) ? T(0) : value;
}
