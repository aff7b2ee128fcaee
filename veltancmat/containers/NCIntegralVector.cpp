#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/StreamRecord.h"

#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <istream>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

template <class T, int Missing>
T* NCIntegralVector<T, Missing>::Allocate(int capacity)
{
    return capacity > 0 ? new T[static_cast<std::size_t>(capacity) + 1] : nullptr;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::ThrowBadArgument(const char* member, const char* text, long long value)
{
    ExceptionMessage message = ExceptionMessage::translate(text);
    message % std::to_string(value);
    throw NCInternalError(std::string("NCIntegralVector<T,Missing>::") + member, message);
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(int size, T value)
{
    if (size < 0)
        ThrowBadArgument("NCIntegralVector", "Negative vector size {1}.", size);
    Adopt(Allocate(size), size, size);
    if (size > 0)
        std::fill(m_data + 1, m_data + 1 + size, value);
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(const T* values, int count)
{
    if (count < 0)
        ThrowBadArgument("NCIntegralVector", "Negative vector size {1}.", count);
    Adopt(Allocate(count), count, count);
    if (count > 0)
        std::copy(values, values + count, m_data + 1);
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(std::initializer_list<T> values)
    : NCIntegralVector(values.begin(), static_cast<int>(values.size()))
{
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(const NCIntegralVector& other) noexcept : QvStreamBase(other)
{
    NCSharedBlockLock lock(other.m_block);
    m_size = other.m_size;
    m_capacity = other.m_capacity;
    m_data = other.m_data;
    m_block = NCShareBlock(other.m_block);
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(NCIntegralVector&& other) noexcept
    : QvStreamBase(other), m_size(other.m_size), m_capacity(other.m_capacity), m_data(other.m_data), m_block(other.m_block)
{
    other.m_size = other.m_capacity = 0;
    other.m_data = nullptr;
    other.m_block = nullptr;
}

template <class T, int Missing>
NCIntegralVector<T, Missing>& NCIntegralVector<T, Missing>::operator=(const NCIntegralVector& other) noexcept
{
    if (m_block == other.m_block) // the same storage, or both without any
        return *this;
    NCSharedBlock* const oldBlock = m_block;
    T* const oldData = m_data;
    bool lastUser = false;
    {
        // Both locks are held while the hold moves from one block to the
        // other. They are taken in address order rather than own-then-source:
        // a = b on one thread and c = d on another, with a, d and b, c
        // sharing, would otherwise lock the two blocks in opposite orders.
        NCSharedBlock* first = oldBlock;
        NCSharedBlock* second = other.m_block;
        if (std::less<NCSharedBlock*>()(second, first))
            std::swap(first, second);
        NCSharedBlockLock firstLock(first);
        NCSharedBlockLock secondLock(second);
        if (oldBlock) {
            if (oldBlock->refCount.load(std::memory_order_relaxed) == 1)
                lastUser = true;
            else
                oldBlock->refCount.fetch_sub(1, std::memory_order_acq_rel);
        }
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        m_data = other.m_data;
        m_block = NCShareBlock(other.m_block);
    }
    if (lastUser) {
        delete[] oldData;
        delete oldBlock;
    }
    return *this;
}

template <class T, int Missing>
NCIntegralVector<T, Missing>& NCIntegralVector<T, Missing>::operator=(NCIntegralVector&& other) noexcept
{
    if (this != &other) {
        Release();
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        m_data = other.m_data;
        m_block = other.m_block;
        other.m_size = other.m_capacity = 0;
        other.m_data = nullptr;
        other.m_block = nullptr;
    }
    return *this;
}

template <class T, int Missing>
NCIntegralVector<T, Missing>::~NCIntegralVector()
{
    Release();
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Release() noexcept
{
    if (!m_block)
        return;
    NCSharedBlockLock lock(m_block);
    if (m_block->refCount.load(std::memory_order_relaxed) == 1) {
        lock.Release();
        delete[] m_data;
        delete m_block;
    } else {
        m_block->refCount.fetch_sub(1, std::memory_order_acq_rel);
    }
    m_size = m_capacity = 0;
    m_data = nullptr;
    m_block = nullptr;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Adopt(T* data, int size, int capacity)
{
    std::unique_ptr<T[]> owner(data);
    NCSharedBlock* block = data ? new NCSharedBlock : nullptr;
    m_data = owner.release();
    m_block = block;
    m_size = size;
    m_capacity = capacity;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::ForceUnlink()
{
    NCSharedBlock* const old = m_block;
    // A vector without storage shares nothing. (Saying so also keeps GCC's
    // -O3 overflow analysis from following the null block into the atomics.)
    if (!old)
        return;
    NCSharedBlockLock lock(old);
    if (old->refCount.load(std::memory_order_relaxed) == 1)
        return; // the other copies let go in the meantime
    std::unique_ptr<T[]> fresh(Allocate(m_size));
    if (m_size > 0)
        std::copy(m_data + 1, m_data + 1 + m_size, fresh.get() + 1);
    auto block = m_size > 0 ? std::make_unique<NCSharedBlock>() : nullptr;
    old->refCount.fetch_sub(1, std::memory_order_acq_rel);
    lock.Release();
    m_data = fresh.release();
    m_block = block.release();
    m_capacity = m_size;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Reallocate(int capacity)
{
    std::unique_ptr<T[]> fresh(Allocate(capacity));
    const int size = m_size;
    if (size > 0 && fresh)
        std::copy(m_data + 1, m_data + 1 + size, fresh.get() + 1);
    // Everything is allocated before the old hold is given up, so a failed
    // allocation leaves the vector as it was.
    std::unique_ptr<NCSharedBlock> block(fresh ? new NCSharedBlock : nullptr);
    Release();
    m_data = fresh.release();
    m_block = block.release();
    m_size = size;
    m_capacity = capacity;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Clear() noexcept
{
    Release();
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Resize(int size, T fill)
{
    if (size < 0)
        ThrowBadArgument("Resize", "Negative vector size {1}.", size);
    if (size == m_size)
        return;
    if (size > m_capacity)
        Reallocate(size);
    else
        UnlinkIfShared();
    if (size > m_size)
        std::fill(m_data + 1 + m_size, m_data + 1 + size, fill);
    m_size = size;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Reserve(int capacity)
{
    if (capacity > m_capacity)
        Reallocate(capacity);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::OpenGap(const char* member, int at, int count)
{
    if (at < 1 || at > m_size + 1)
        ThrowBadArgument(member, "Insert position {1} is outside the vector.", at);
    if (count < 0)
        ThrowBadArgument(member, "Negative number of elements {1}.", count);
    const long long needed = static_cast<long long>(m_size) + count;
    if (needed > std::numeric_limits<int>::max())
        ThrowBadArgument(member, "A vector cannot hold {1} elements.", needed);
    if (count == 0)
        return;
    if (needed > m_capacity) {
        // Geometric growth keeps repeated appends linear overall.
        const long long doubled = std::max<long long>(2LL * m_capacity, 8);
        Reallocate(static_cast<int>(std::min<long long>(std::max(needed, doubled), std::numeric_limits<int>::max())));
    } else {
        UnlinkIfShared();
    }
    std::copy_backward(m_data + at, m_data + 1 + m_size, m_data + 1 + m_size + count);
    m_size += count;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::push_back(T value)
{
    OpenGap("push_back", m_size + 1, 1);
    m_data[m_size] = value;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::InsertValues(int at, int count, T value)
{
    OpenGap("InsertValues", at, count);
    if (count > 0)
        std::fill(m_data + at, m_data + at + count, value);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::InsertValues(int at, const NCIntegralVector& other)
{
    // A copy shares other's storage, so it survives this vector moving or
    // detaching its own (other may be this vector or one of its copies).
    const NCIntegralVector source(other);
    OpenGap("InsertValues", at, source.m_size);
    if (source.m_size > 0)
        std::copy(source.begin(), source.end(), m_data + at);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Concat(const NCIntegralVector& other)
{
    InsertValues(m_size + 1, other);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::CopyContent(const NCIntegralVector& other)
{
    if (this == &other)
        return;
    const NCIntegralVector source(other);
    if (source.m_size > m_capacity) {
        NCIntegralVector result;
        result.Adopt(Allocate(source.m_size), source.m_size, source.m_size);
        *this = std::move(result);
    } else {
        UnlinkIfShared();
        m_size = source.m_size;
    }
    if (m_size > 0)
        std::copy(source.begin(), source.end(), m_data + 1);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Remove(const IndexList& positions)
{
    if (positions.empty() || m_size == 0)
        return;
    // A sorted list turns each look-up into a bisection. The copy also
    // keeps the entries intact should the list be this vector.
    IndexList list(positions);
    if (!list.IsSorted(true)) {
        int* entries = IndexList::UnLinkVecPointer(list);
        std::sort(entries + 1, entries + 1 + list.Size());
    }
    UnlinkIfShared();
    int kept = 0;
    for (int i = 1; i <= m_size; ++i) {
        if (list.Find(i, SortTypeE::Ascending, 1, -1) == -1)
            m_data[++kept] = m_data[i];
    }
    m_size = kept;
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::Reduce(const IndexList& positions)
{
    const IndexList list(positions);
    for (const int position : list) {
        if (position < 1 || position > m_size)
            ThrowBadArgument("Reduce", "Index {1} is outside the vector.", position);
    }
    const int size = list.Size();
    std::unique_ptr<T[]> fresh(Allocate(size));
    for (int k = 1; k <= size; ++k)
        fresh[k] = m_data[list[k]];
    NCIntegralVector result;
    result.Adopt(fresh.release(), size, size);
    *this = std::move(result);
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::GenerateIndex(int start, int step)
{
    if (m_size == 0)
        return;
    UnlinkIfShared();
    for (int i = 1; i <= m_size; ++i) {
        const long long value = start + static_cast<long long>(i - 1) * step;
        if constexpr (std::is_same_v<T, bool>)
            m_data[i] = value != 0;
        else
            m_data[i] = static_cast<T>(value);
    }
}

template <class T, int Missing>
int NCIntegralVector<T, Missing>::Find(T value, SortTypeE::SortType sortType, int from, int to) const
{
    from = std::max(from, 1);
    if (to < 0 || to > m_size)
        to = m_size;
    if (from > to)
        return -1;
    const T* first = m_data + from;
    const T* last = m_data + to + 1;
    const T* found = last;
    switch (sortType) {
    case SortTypeE::Ascending:
        found = std::lower_bound(first, last, value);
        break;
    case SortTypeE::Descending:
        found = std::lower_bound(first, last, value, std::greater<T>());
        break;
    case SortTypeE::Unsorted:
    default:
        found = std::find(first, last, value);
        break;
    }
    return found != last && *found == value ? static_cast<int>(found - m_data) : -1;
}

template <class T, int Missing>
int NCIntegralVector<T, Missing>::LowerBound(T value, bool ascending) const
{
    if (m_size == 0)
        return 1;
    const T* found = ascending ? std::lower_bound(begin(), end(), value)
                               : std::lower_bound(begin(), end(), value, std::greater<T>());
    return static_cast<int>(found - m_data);
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::IsSorted(bool ascending) const
{
    return ascending ? std::is_sorted(begin(), end()) : std::is_sorted(begin(), end(), std::greater<T>());
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::operator==(const NCIntegralVector& other) const
{
    return m_size == other.m_size && std::equal(begin(), end(), other.begin());
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::operator<(const NCIntegralVector& other) const
{
    return std::lexicographical_compare(begin(), end(), other.begin(), other.end());
}

template <class T, int Missing>
std::int32_t NCIntegralVector<T, Missing>::GetSum() const
{
    // Unsigned arithmetic wraps without undefined behaviour; the final
    // conversion is modular as well.
    std::uint32_t sum = 0;
    for (const T value : *this)
        sum += static_cast<std::uint32_t>(value);
    return static_cast<std::int32_t>(sum);
}

template <class T, int Missing>
double NCIntegralVector<T, Missing>::GetMean() const
{
    if (m_size == 0)
        return -99.0;
    return static_cast<double>(GetSum()) / m_size;
}

template <class T, int Missing>
double NCIntegralVector<T, Missing>::GetVariance() const
{
    const double mean = GetMean();
    if (mean == -99.0)
        return -99.0;
    // One element has no spread: 0 rather than undefined, so that GetStdDev
    // gives 0 as well. (The data vector's standard deviation of one value
    // is -99; an integer list is not a sample of measurements.)
    if (m_size == 1)
        return 0.0;
    double ss = 0.0;
    for (const T value : *this) {
        const double d = static_cast<double>(value) - mean;
        ss += d * d;
    }
    return ss / (m_size - 1);
}

template <class T, int Missing>
double NCIntegralVector<T, Missing>::GetStdDev() const
{
    const double variance = GetVariance();
    return variance == -99.0 ? -99.0 : std::sqrt(variance);
}

// ---------------------------------------------------------------- streaming

template <class T, int Missing>
QvStreamableData NCIntegralVector<T, Missing>::MyStreamableData(4, "NCIV");

namespace {

// Bytes per element in the record.
template <class T>
constexpr int StreamWidth = std::is_same_v<T, bool> ? 1 : 4;

// unsigned long (and bool) elements differ from their stream form, so they
// pass through a small buffer instead of a copy of the whole vector.
constexpr int ChunkElements = 4096;

} // namespace

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::QvStreamableStartWrite(std::ostream& out) const
{
    if (m_streaming)
        return true;
    if constexpr (std::is_same_v<T, unsigned long>) {
        // Checked before anything is written, so that a refused vector
        // leaves no partial record behind.
        if (std::any_of(begin(), end(), [](unsigned long v) { return v > 0xFFFFFFFFul; })) {
            out.setstate(std::ios::failbit);
            return false;
        }
    }
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 1);
    std::ostream& entry = directory.GetOutput(0);
    const std::int32_t size = m_size;
    bool ok = WriteFourBytes(&size, 1, entry);
    if constexpr (std::is_same_v<T, int>) {
        ok = ok && (size == 0 || WriteFourBytes(m_data + 1, size, entry));
    } else {
        using Item = std::conditional_t<std::is_same_v<T, bool>, std::uint8_t, std::uint32_t>;
        Item chunk[ChunkElements];
        for (int first = 1; ok && first <= size; first += ChunkElements) {
            const int n = std::min(ChunkElements, size - first + 1);
            for (int k = 0; k < n; ++k)
                chunk[k] = static_cast<Item>(m_data[first + k]);
            ok = WriteArray(chunk, n, StreamWidth<T>, entry);
        }
    }
    return directory.Close() && ok && out.good();
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 4, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

template <class T, int Missing>
bool NCIntegralVector<T, Missing>::QvStreamableRead(std::istream& in)
{
    InputStreamDirectory directory(in);
    std::istream* entry = directory.GetInput(0);
    std::int32_t size = 0;
    if (!entry || !ReadFourBytes(&size, 1, *entry) || size < 0)
        return false;
    if (!QvStreamHasBytes(*entry, static_cast<std::streamsize>(size) * StreamWidth<T>))
        return false;
    std::unique_ptr<T[]> fresh(Allocate(size));
    if constexpr (std::is_same_v<T, int>) {
        if (size > 0 && !ReadFourBytes(fresh.get() + 1, size, *entry))
            return false;
    } else {
        using Item = std::conditional_t<std::is_same_v<T, bool>, std::uint8_t, std::uint32_t>;
        Item chunk[ChunkElements];
        for (int first = 1; first <= size; first += ChunkElements) {
            const int n = std::min(ChunkElements, size - first + 1);
            if (!ReadArray(chunk, n, StreamWidth<T>, *entry))
                return false;
            for (int k = 0; k < n; ++k) {
                if constexpr (std::is_same_v<T, bool>)
                    fresh[first + k] = chunk[k] != 0;
                else
                    fresh[first + k] = chunk[k]; // zero-extended
            }
        }
    }
    if (!directory.Close())
        return false;
    NCIntegralVector result;
    result.Adopt(fresh.release(), size, size);
    *this = std::move(result);
    return in.good();
}

template <class T, int Missing>
void NCIntegralVector<T, Missing>::QvStreamableReset() const
{
    m_streaming = false;
    QvStreamBase::QvStreamableReset();
}

template class NCIntegralVector<int, -99>;
template class NCIntegralVector<unsigned long, 0>;
template class NCIntegralVector<bool, 0>;
