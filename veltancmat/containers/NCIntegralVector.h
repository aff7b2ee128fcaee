#pragma once

#include "veltancmat/containers/frame/SharedBlock.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"

#include <cassert>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>

// How Find looks for a value. The binary searches assume the searched range
// is sorted in that direction; the selection members (Remove) use Unsorted.
struct SortTypeE {
    enum SortType : int {
        Ascending = 0,  // non-decreasing: binary search
        Descending = 1, // non-increasing: binary search
        Unsorted = 2,   // linear scan
    };
};

// A 1-based vector of integers (index lists, group labels, counts, masks).
// Missing is the value that stands for "missing" in this instantiation; the
// vector keeps no count of it and its statistics do not skip it, because
// these vectors are lists rather than measurements.
//
// Copies share their elements until one of them is written: every member
// that changes elements or size first detaches from the other copies, so
// writing a copy never changes the vector it came from, and copies may be
// used on different threads. One object must not be written by two threads.
//
// Element access is unchecked in release builds and asserted in debug
// builds. Arguments that can only be wrong through a programming error
// (negative sizes, positions or list entries outside the vector) throw
// NCInternalError naming the member, e.g. "NCIntegralVector<T,Missing>::Reduce".
//
// Record "NCIV", version 4: a directory of one entry holding the size (4
// bytes) and then the elements, 4 bytes each for int and unsigned long and
// 1 byte each for bool. The stream fixes unsigned long at 32 bits: a vector
// holding a larger value refuses to be written (false, failbit set, nothing
// written), and values read back are zero-extended.
template <class T, int Missing>
class VELTANCMAT_API NCIntegralVector : public virtual QvStreamBase {
public:
    using value_type = T;
    using IndexList = NCIntegralVector<int, -99>;
    static constexpr T MisVal = static_cast<T>(Missing);

    NCIntegralVector() noexcept = default;
    // Throws NCInternalError for a negative size.
    explicit NCIntegralVector(int size, T value = T());
    // values[0] .. values[count - 1] become elements 1 .. count.
    NCIntegralVector(const T* values, int count);
    NCIntegralVector(std::initializer_list<T> values);
    NCIntegralVector(const NCIntegralVector& other) noexcept;
    NCIntegralVector(NCIntegralVector&& other) noexcept;
    NCIntegralVector& operator=(const NCIntegralVector& other) noexcept;
    NCIntegralVector& operator=(NCIntegralVector&& other) noexcept;
    virtual ~NCIntegralVector();

    // Equal sizes and elements; the order is lexicographic, a proper
    // prefix before the longer vector.
    bool operator==(const NCIntegralVector& other) const;
    bool operator!=(const NCIntegralVector& other) const { return !(*this == other); }
    bool operator<(const NCIntegralVector& other) const;
    bool operator<=(const NCIntegralVector& other) const { return !(other < *this); }
    bool operator>(const NCIntegralVector& other) const { return other < *this; }
    bool operator>=(const NCIntegralVector& other) const { return !(*this < other); }

    // Element i, 1 <= i <= Size().
    const T& operator[](int i) const
    {
        assert(i >= 1 && i <= m_size);
        return m_data[i];
    }
    // Writable element i; detaches from other copies first, so the
    // reference stays valid until the size or capacity changes.
    T& operator()(int i)
    {
        assert(i >= 1 && i <= m_size);
        UnlinkIfShared();
        return m_data[i];
    }

    // The 1-based data pointer (element i is GetPtr()[i]); null while the
    // vector owns no storage. The non-const form detaches first, so it may
    // be written through.
    const T* GetPtr() const noexcept { return m_data; }
    T* GetPtr()
    {
        UnlinkIfShared();
        return m_data;
    }
    // What a container that writes into this vector's storage calls first
    // (the matrix does so for its column counts): detaches `vec` from other
    // copies and returns its writable 1-based data pointer.
    static T* UnLinkVecPointer(NCIntegralVector& vec)
    {
        vec.UnlinkIfShared();
        return vec.m_data;
    }

    int Size() const noexcept { return m_size; }
    int size() const noexcept { return m_size; }
    bool empty() const noexcept { return m_size == 0; }
    int Capacity() const noexcept { return m_capacity; }
    // Read-only iteration over elements 1 .. Size().
    const T* begin() const noexcept { return m_data ? m_data + 1 : nullptr; }
    const T* end() const noexcept { return begin() + m_size; }
    const T& front() const { return (*this)[1]; }
    const T& back() const { return (*this)[m_size]; }

    // Lets go of the elements and the storage: the vector becomes as if
    // default-constructed.
    void Clear() noexcept;
    // New elements are `fill`; shrinking keeps the capacity.
    void Resize(int size, T fill = T());
    void resize(int size, T fill = T()) { Resize(size, fill); }
    // Makes room for `capacity` elements; never shrinks.
    void Reserve(int capacity);
    void push_back(T value);

    // Appends the elements of `other` (which may be this vector).
    void Concat(const NCIntegralVector& other);
    // Takes its own copy of other's elements and size (not shared), reusing
    // this vector's capacity when it suffices.
    void CopyContent(const NCIntegralVector& other);

    // Insertion before position `at`, 1 <= at <= Size() + 1 (Size() + 1
    // appends); the first inserted element becomes element `at`.
    void Insert(int at, T value) { InsertValues(at, 1, value); }
    void Insert(int at, const NCIntegralVector& other) { InsertValues(at, other); }
    void InsertValues(int at, const NCIntegralVector& other);
    void InsertValues(int at, int count, T value);

    // Keeps, in their order, the elements whose position is not listed.
    // Entries that name no position are ignored; duplicates are harmless.
    // The capacity is kept.
    void Remove(const IndexList& positions);
    // Replaces the vector by the elements at the listed positions, in list
    // order (a position may be listed more than once). Every entry must lie
    // in 1 .. Size(); the vector is unchanged when one does not.
    void Reduce(const IndexList& positions);

    // Element i becomes start + (i - 1) * step; for bool, whether that is
    // non-zero.
    void GenerateIndex(int start, int step);

    // First position in from .. to (to = -1: the end) holding `value`, or -1.
    // The bounds are clipped to the vector. With Ascending or Descending the
    // range must be sorted that way and is searched by bisection.
    int Find(T value, SortTypeE::SortType sortType = SortTypeE::Unsorted, int from = 1, int to = -1) const;
    // First position whose element is not ordered before `value`: for an
    // ascending vector the first element >= value, for a descending one the
    // first element <= value; Size() + 1 if there is none.
    int LowerBound(T value, bool ascending = true) const;
    // Whether the elements are non-decreasing (ascending = true) or
    // non-increasing (false). Vectors of fewer than two elements are sorted.
    bool IsSorted(bool ascending = true) const;

    // The sum of all elements, missing sentinel included, as a 32-bit
    // integer that wraps modulo 2^32 (unsigned elements are taken modulo
    // 2^32 as well).
    std::int32_t GetSum() const;
    // Written once until QvStreamableReset; see the record above.
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // Accepts version 4 only. On any failure the vector keeps its previous
    // elements and the result is false; a claimed size larger than the
    // bytes left in the entry fails before anything is allocated.
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;

    static QvStreamableData MyStreamableData; // "NCIV", 4

    // GetSum() / Size(); -99 for an empty vector.
    double GetMean() const;
    // -99 when the mean is -99; 0 for a single element; otherwise the sample
    // variance with Size() - 1 degrees of freedom.
    double GetVariance() const;
    // -99 when the variance is -99, else its square root.
    double GetStdDev() const;

private:
    // Storage of `capacity` elements plus the unused slot 0; null for 0.
    static T* Allocate(int capacity);
    [[noreturn]] static void ThrowBadArgument(const char* member, const char* text, long long value);

    void UnlinkIfShared()
    {
        if (m_block && m_block->refCount.load(std::memory_order_acquire) > 1)
            ForceUnlink();
    }
    void ForceUnlink();
    // Drops this vector's hold on its storage (freeing it when no other
    // copy uses it) and leaves the vector empty.
    void Release() noexcept;
    // Takes sole ownership of freshly allocated storage.
    void Adopt(T* data, int size, int capacity);
    // New own storage of `capacity` (>= Size()) elements holding the current ones.
    void Reallocate(int capacity);
    // Shifts elements at .. Size() up by `count`, growing as needed.
    void OpenGap(const char* member, int at, int count);

    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);

    int m_size = 0;
    int m_capacity = 0;
    T* m_data = nullptr; // element i is m_data[i]; slot 0 unused
    NCSharedBlock* m_block = nullptr;
    mutable bool m_streaming = false; // set while written or read, so it happens once
};

extern template class VELTANCMAT_API NCIntegralVector<int, -99>;
extern template class VELTANCMAT_API NCIntegralVector<unsigned long, 0>;
extern template class VELTANCMAT_API NCIntegralVector<bool, 0>;
