#pragma once

#include "veltancmat/platform/Export.h"

#include <cstddef>
#include <vector>

// A dense table over any number of dimensions (instantiated for int), used
// for counts indexed by several categorical variables.
//
// Elements are stored row-major: the last index runs fastest, so the
// elements that differ only in their last index are adjacent. That is what
// the two-part accessors exploit: Get(leading, last) and Set(leading, last,
// value) take the indices of all dimensions but the last as a vector and the
// last index apart, so a loop over the last dimension reuses one vector.
// The one-part accessors take the full index vector.
//
// Indices count from the index base given at construction (0 or 1 in
// practice) in every dimension. An index vector of the wrong length, or an
// index outside its dimension, throws Exception ("dimension error" in the
// context "Matrix size mismatch"); so do negative dimension sizes and tables
// too large to address.
//
// A table without dimensions has no elements (every access throws); that is
// also what the default constructor and a move leave behind.
template <class T>
class VELTANCMAT_API NDimensionalMatrix {
public:
    NDimensionalMatrix() = default;
    // A table of the given sizes with every element `initialValue`; indices
    // count from `indexBase`.
    NDimensionalMatrix(const std::vector<int>& dimensionSizes, T initialValue, int indexBase);
    NDimensionalMatrix(const NDimensionalMatrix& other) = default;
    NDimensionalMatrix& operator=(const NDimensionalMatrix& other) = default;
    NDimensionalMatrix(NDimensionalMatrix&& other) noexcept;
    NDimensionalMatrix& operator=(NDimensionalMatrix&& other) noexcept;
    ~NDimensionalMatrix() = default;

    // The element at (leading..., last); `leading` holds one index fewer
    // than there are dimensions.
    T Get(const std::vector<int>& leading, int last) const;
    void Set(const std::vector<int>& leading, int last, T value);
    // The element at the full index vector.
    T Get(const std::vector<int>& index) const;
    void Set(const std::vector<int>& index, T value);

    // Writes `value` into every element.
    void Fill(T value);

    int NumDimensions() const { return static_cast<int>(m_sizes.size()); }
    const std::vector<int>& GetDimensionSizes() const { return m_sizes; }
    // Number of elements: the product of the sizes (0 without dimensions).
    std::size_t Size() const { return m_data.size(); }
    int GetIndexBase() const { return m_base; }

    // Same sizes, base and elements.
    bool operator==(const NDimensionalMatrix& other) const = default;

private:
    // Position in m_data of the element whose leading indices are `leading`
    // and whose last `extra` indices (0 or 1 of them) are `last`.
    std::size_t Offset(const std::vector<int>& leading, int extra, int last) const;

    std::vector<int> m_sizes;
    // m_strides[d] is the distance in m_data between neighbours in dimension d.
    std::vector<std::size_t> m_strides;
    std::vector<T> m_data;
    int m_base = 0;
};

extern template class NDimensionalMatrix<int>;
