#include "veltancmat/containers/NDimensionalMatrix.h"

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

[[noreturn]] void ThrowDimensionError()
{
    throw Exception(ExceptionMessage::translate("Matrix size mismatch", "dimension error"));
}

} // namespace

template <class T>
NDimensionalMatrix<T>::NDimensionalMatrix(const std::vector<int>& dimensionSizes, T initialValue, int indexBase)
    : m_sizes(dimensionSizes), m_strides(dimensionSizes.size()), m_base(indexBase)
{
    if (m_sizes.empty())
        return;
    // Every index must also be representable as an int once the base is
    // added, and the element count must fit the address space.
    const std::size_t limit = std::numeric_limits<std::size_t>::max() / sizeof(T);
    std::size_t count = 1;
    for (std::size_t d = m_sizes.size(); d-- > 0;) {
        const int size = m_sizes[d];
        if (size < 0 || (size > 0 && indexBase > std::numeric_limits<int>::max() - (size - 1)))
            ThrowDimensionError();
        m_strides[d] = count;
        if (size > 0 && count > limit / static_cast<std::size_t>(size))
            ThrowDimensionError();
        count *= static_cast<std::size_t>(size);
    }
    m_data.assign(count, initialValue);
}

template <class T>
NDimensionalMatrix<T>::NDimensionalMatrix(NDimensionalMatrix&& other) noexcept
    : m_sizes(std::exchange(other.m_sizes, {})), m_strides(std::exchange(other.m_strides, {})),
      m_data(std::exchange(other.m_data, {})), m_base(other.m_base)
{
}

template <class T>
NDimensionalMatrix<T>& NDimensionalMatrix<T>::operator=(NDimensionalMatrix&& other) noexcept
{
    if (this != &other) {
        m_sizes = std::exchange(other.m_sizes, {});
        m_strides = std::exchange(other.m_strides, {});
        m_data = std::exchange(other.m_data, {});
        m_base = other.m_base;
    }
    return *this;
}

template <class T>
std::size_t NDimensionalMatrix<T>::Offset(const std::vector<int>& leading, int extra, int last) const
{
    if (m_sizes.empty() || leading.size() + static_cast<std::size_t>(extra) != m_sizes.size())
        ThrowDimensionError();
    // Subtracting in 64 bits keeps an index near INT_MIN from wrapping.
    const auto position = [this](std::size_t d, int index) {
        const long long p = static_cast<long long>(index) - m_base;
        if (p < 0 || p >= m_sizes[d])
            ThrowDimensionError();
        return static_cast<std::size_t>(p) * m_strides[d];
    };
    std::size_t offset = 0;
    for (std::size_t d = 0; d < leading.size(); ++d)
        offset += position(d, leading[d]);
    if (extra == 1)
        offset += position(leading.size(), last);
    return offset;
}

template <class T>
T NDimensionalMatrix<T>::Get(const std::vector<int>& leading, int last) const
{
    return m_data[Offset(leading, 1, last)];
}

template <class T>
void NDimensionalMatrix<T>::Set(const std::vector<int>& leading, int last, T value)
{
    m_data[Offset(leading, 1, last)] = value;
}

template <class T>
T NDimensionalMatrix<T>::Get(const std::vector<int>& index) const
{
    return m_data[Offset(index, 0, 0)];
}

template <class T>
void NDimensionalMatrix<T>::Set(const std::vector<int>& index, T value)
{
    m_data[Offset(index, 0, 0)] = value;
}

template <class T>
void NDimensionalMatrix<T>::Fill(T value)
{
    std::fill(m_data.begin(), m_data.end(), value);
}

template class NDimensionalMatrix<int>;
