// The storage of NCDataVector and its sharing, element access and bulk
// copies, the search, and the stream record. The statistics and the
// arithmetic are in NCDataVectorStatistics.cpp and NCDataVectorArithmetic.cpp.

#include "veltancmat/containers/NCDataVector.h"

#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

// Counts the missing elements of p[1..n].
template <class T>
VELTAN_SIMD_CLONES int CountMissing(const T* p, int n)
{
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int i = 1; i <= n; ++i)
        count += IsMisVal(p[i]) ? 1 : 0;
    return count;
}

std::string MemberName(const char* member)
{
    return std::string("NCDataVector<FloatType>::") + member;
}

[[noreturn]] void ThrowOutOfRange(const char* member)
{
    throw NCInternalError(MemberName(member), ExceptionMessage::translate("Index out of range."));
}

void CheckSize(int n, const char* member)
{
    if (n < 0)
        throw NCInternalError(MemberName(member), ExceptionMessage::translate("Negative vector size."));
}

} // namespace

// ---------------------------------------------------------------------------
// Storage and sharing

template <class T>
T* NCDataVector<T>::NewVec(int n, int& offset)
{
    // n elements plus 32 + sizeof(T) bytes: room to move element 1 onto a
    // 32-byte boundary with element 0 still inside the block, and a spare
    // tail for vectorised loops. With 32 bytes every full-width AVX load of
    // a row stays inside one cache line; at 16, every other one straddled
    // two and the matrix kernels ran measurably slower.
    const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(T) + 32 + sizeof(T);
    auto* block = static_cast<char*>(std::malloc(bytes));
    if (!block)
        throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(block) + sizeof(T);
    const auto first = (start + 31) & ~static_cast<std::uintptr_t>(31);
    char* data = reinterpret_cast<char*>(first) - sizeof(T);
    offset = static_cast<int>(data - block);
    return reinterpret_cast<T*>(data);
}

template <class T>
void NCDataVector<T>::FreeVec(T* data, int offset)
{
    if (data)
        std::free(reinterpret_cast<char*>(data) - offset);
}

template <class T>
NCDataVector<T>::NCDataVector(int n)
{
    CheckSize(n, "NCDataVector");
    if (n > 0) {
        Grow(n);
        std::memset(m_data + 1, 0, static_cast<std::size_t>(n) * sizeof(T));
        m_size = n;
    }
}

template <class T>
NCDataVector<T>::NCDataVector(int n, T value)
{
    CheckSize(n, "NCDataVector");
    if (n > 0) {
        Grow(n);
        m_size = n;
        std::fill(m_data + 1, m_data + 1 + n, value);
        m_numMis = IsMisVal(value) ? n : 0;
    }
}

template <class T>
NCDataVector<T>::NCDataVector(std::initializer_list<T> values)
{
    CopyZeroBasedVector(values.begin(), static_cast<int>(values.size()));
}

template <class T>
NCDataVector<T>::NCDataVector(const NCDataVector& other)
{
    NCSharedBlockLock lock(other.m_shared);
    m_alignOffset = other.m_alignOffset;
    m_size = other.m_size;
    m_data = other.m_data;
    m_shared = NCShareBlock(other.m_shared);
    m_numMis = other.m_numMis;
    m_capacity = other.m_capacity;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator=(const NCDataVector& other)
{
    if (this == &other)
        return *this;
    if (m_shared && m_shared == other.m_shared)
        return *this;

    // Both locks are taken in address order rather than "own, then source",
    // so that two threads assigning copies of each other's vectors cannot
    // deadlock.
    NCSharedBlock* mine = m_shared;
    NCSharedBlock* theirs = other.m_shared;
    NCSharedBlockLock firstLock(std::less<>()(mine, theirs) ? mine : theirs);
    NCSharedBlockLock secondLock(std::less<>()(mine, theirs) ? theirs : mine);

    bool freeMine = false;
    if (mine) {
        if (mine->refCount.load(std::memory_order_relaxed) == 1)
            freeMine = true;
        else
            mine->refCount.fetch_sub(1, std::memory_order_relaxed);
    }
    T* oldData = m_data;
    const int oldOffset = m_alignOffset;

    m_alignOffset = other.m_alignOffset;
    m_size = other.m_size;
    m_data = other.m_data;
    m_shared = NCShareBlock(theirs);
    m_numMis = other.m_numMis;
    m_capacity = other.m_capacity;

    if (freeMine) {
        // Nobody else can reach the old block: unlock it before freeing.
        if (std::less<>()(mine, theirs))
            firstLock.Release();
        else
            secondLock.Release();
        FreeVec(oldData, oldOffset);
        delete mine;
    }
    return *this;
}

template <class T>
NCDataVector<T>::~NCDataVector()
{
    Unlink();
}

template <class T>
void NCDataVector<T>::Unlink()
{
    if (m_shared) {
        NCSharedBlockLock lock(m_shared);
        if (m_shared->refCount.load(std::memory_order_relaxed) == 1) {
            lock.Release();
            FreeVec(m_data, m_alignOffset);
            delete m_shared;
        } else {
            m_shared->refCount.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    m_shared = nullptr;
    m_data = nullptr;
    m_alignOffset = 0;
    m_capacity = 0;
}

template <class T>
void NCDataVector<T>::MoveToNewBlock(int capacity, NCSharedBlock* record)
{
    int offset = 0;
    T* data = NewVec(capacity, offset);
    if (!record) {
        try {
            record = new NCSharedBlock;
        } catch (...) {
            FreeVec(data, offset);
            throw;
        }
    }
    if (m_size > 0)
        std::memcpy(data + 1, m_data + 1, static_cast<std::size_t>(m_size) * sizeof(T));
    m_data = data;
    m_alignOffset = offset;
    m_capacity = capacity;
    m_shared = record;
}

template <class T>
void NCDataVector<T>::ForceUnlink()
{
    // The other holders keep the old storage.
    NCDetachFromBlock(m_shared, [this] { MoveToNewBlock(m_size, nullptr); });
}

template <class T>
void NCDataVector<T>::Grow(int n)
{
    if (IsShared())
        ForceUnlink();
    if (n <= m_capacity)
        return;
    T* const oldData = m_data;
    const int oldOffset = m_alignOffset;
    MoveToNewBlock(n, m_shared);
    FreeVec(oldData, oldOffset);
}

template <class T>
void NCDataVector<T>::EnsureCapacity(int n)
{
    // An unlink leaves exactly Size() elements of room, so the capacity is
    // checked only after it.
    if (IsShared())
        ForceUnlink();
    if (n > m_capacity)
        Grow(std::max(n, m_capacity + m_capacity / 2 + 8));
}

template <class T>
void NCDataVector<T>::Clear()
{
    Unlink();
    m_size = 0;
    m_numMis = 0;
}

template <class T>
void NCDataVector<T>::SetSize(int n)
{
    CheckSize(n, "SetSize");
    if (n == m_size)
        return;
    if (n < m_size) {
        if (IsShared())
            ForceUnlink();
        m_numMis -= CountMissing(m_data + n, m_size - n);
        m_size = n;
        return;
    }
    Grow(n);
    std::memset(m_data + 1 + m_size, 0, static_cast<std::size_t>(n - m_size) * sizeof(T));
    m_size = n;
}

template <class T>
void NCDataVector<T>::Resize(int n, T fill)
{
    const int old = m_size;
    SetSize(n);
    if (n > old) {
        std::fill(m_data + 1 + old, m_data + 1 + n, fill);
        if (IsMisVal(fill))
            m_numMis += n - old;
    }
}

template <class T>
void NCDataVector<T>::Reserve(int n)
{
    CheckSize(n, "Reserve");
    if (n > m_capacity)
        Grow(n);
}

template <class T>
void NCDataVector<T>::push_back(T value)
{
    EnsureCapacity(m_size + 1);
    m_data[++m_size] = value;
    if (IsMisVal(value))
        ++m_numMis;
}

template <class T>
void NCDataVector<T>::InsertValues(int at, const NCDataVector& values)
{
    if (at < 1 || at > m_size + 1)
        ThrowOutOfRange("InsertValues");
    const int count = values.m_size;
    if (count == 0)
        return;
    // Keep a hold on the source: it may be this very vector.
    const NCDataVector source(values);
    EnsureCapacity(m_size + count);
    std::memmove(m_data + at + count, m_data + at, static_cast<std::size_t>(m_size - at + 1) * sizeof(T));
    std::memcpy(m_data + at, source.m_data + 1, static_cast<std::size_t>(count) * sizeof(T));
    m_size += count;
    m_numMis += source.m_numMis;
}

template <class T>
void NCDataVector<T>::InsertValues(int at, int count, T value)
{
    if (at < 1 || at > m_size + 1)
        ThrowOutOfRange("InsertValues");
    CheckSize(count, "InsertValues");
    if (count == 0)
        return;
    EnsureCapacity(m_size + count);
    std::memmove(m_data + at + count, m_data + at, static_cast<std::size_t>(m_size - at + 1) * sizeof(T));
    std::fill(m_data + at, m_data + at + count, value);
    m_size += count;
    if (IsMisVal(value))
        m_numMis += count;
}

template <class T>
void NCDataVector<T>::RemoveValues(int from, int to)
{
    if (from < 1 || to > m_size || from > to + 1)
        ThrowOutOfRange("RemoveValues");
    const int count = to - from + 1;
    if (count == 0)
        return;
    if (IsShared())
        ForceUnlink();
    m_numMis -= CountMissing(m_data + from - 1, count);
    std::memmove(m_data + from, m_data + to + 1, static_cast<std::size_t>(m_size - to) * sizeof(T));
    m_size -= count;
}

template <class T>
void NCDataVector<T>::Remove(T value)
{
    if (IsShared())
        ForceUnlink();
    int kept = 0;
    for (int i = 1; i <= m_size; ++i) {
        // Exact equality, like the missing test: removing NaN removes nothing.
        if (!(m_data[i] == value))
            m_data[++kept] = m_data[i];
    }
    m_size = kept;
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::Remove(const NCIntegralVector<int, -99>& positions)
{
    if (positions.size() == 0 || m_size == 0)
        return;
    // A mask gives the same result as looking each position up in the list,
    // without the quadratic cost; positions outside 1..Size() match nothing.
    std::vector<char> drop(static_cast<std::size_t>(m_size) + 1, 0);
    for (int k = 1; k <= positions.size(); ++k) {
        const int p = positions[k];
        if (p >= 1 && p <= m_size)
            drop[static_cast<std::size_t>(p)] = 1;
    }
    if (IsShared())
        ForceUnlink();
    int kept = 0;
    for (int i = 1; i <= m_size; ++i)
        if (!drop[static_cast<std::size_t>(i)])
            m_data[++kept] = m_data[i];
    m_size = kept;
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::Reduce(const NCIntegralVector<int, -99>& positions)
{
    const int n = positions.size();
    for (int k = 1; k <= n; ++k)
        if (positions[k] < 1 || positions[k] > m_size)
            ThrowOutOfRange("Reduce");
    NCDataVector result(n);
    for (int k = 1; k <= n; ++k)
        result.m_data[k] = m_data[positions[k]];
    result.m_numMis = CountMissing(result.m_data, n);
    *this = result;
}

// ---------------------------------------------------------------------------
// Element access and bulk copy

template <class T>
T* NCDataVector<T>::GetVectorForWriting()
{
    if (IsShared())
        ForceUnlink();
    return m_data;
}

template <class T>
void NCDataVector<T>::RecountMissing()
{
    m_numMis = CountMissing(m_data, m_size);
}

template <class T>
void NCDataVector<T>::CopyVector(const T* p, int n)
{
    CopyZeroBasedVector(p ? p + 1 : nullptr, n);
}

template <class T>
void NCDataVector<T>::CopyZeroBasedVector(const T* p, int n)
{
    CheckSize(n, "CopyZeroBasedVector");
    if (n > 0 && !p)
        throw NCInternalError(MemberName("CopyZeroBasedVector"), ExceptionMessage::translate("Null pointer."));
    // The source may live in this vector's own block: copy before growing.
    std::vector<T> copy(p, p + n);
    SetSize(0);
    Grow(n);
    if (n > 0)
        std::memcpy(m_data + 1, copy.data(), static_cast<std::size_t>(n) * sizeof(T));
    m_size = n;
    m_numMis = CountMissing(m_data, n);
}

template <class T>
void NCDataVector<T>::CopyContent(const NCDataVector& other)
{
    if (&other == this)
        return;
    if (m_shared && m_shared == other.m_shared) {
        ForceUnlink();
        return;
    }
    SetSize(0);
    Grow(other.m_size);
    if (other.m_size > 0)
        std::memcpy(m_data + 1, other.m_data + 1, static_cast<std::size_t>(other.m_size) * sizeof(T));
    m_size = other.m_size;
    m_numMis = other.m_numMis;
}

template <class T>
void NCDataVector<T>::SetAllValues(T value)
{
    if (IsShared())
        ForceUnlink();
    std::fill(m_data ? m_data + 1 : nullptr, m_data ? m_data + 1 + m_size : nullptr, value);
    m_numMis = IsMisVal(value) ? m_size : 0;
}

template <class T>
void NCDataVector<T>::SetRange(int at, const NCDataVector& other, int from, int to)
{
    if (from < 1 || to > other.m_size || from > to + 1)
        ThrowOutOfRange("SetRange");
    const int n = to - from + 1;
    if (n == 0)
        return;
    // Reading from this very vector is safe: an unlink keeps the old block
    // alive for its other users, and the copy itself is a memmove.
    SetRange(at, other.m_data + from, n);
}

template <class T>
void NCDataVector<T>::SetRange(int at, const T* p, int n)
{
    CheckSize(n, "SetRange");
    if (n == 0)
        return;
    if (at < 1 || at + n - 1 > m_size || !p)
        ThrowOutOfRange("SetRange");
    if (IsShared())
        ForceUnlink();
    const int before = CountMissing(m_data + at - 1, n);
    std::memmove(m_data + at, p, static_cast<std::size_t>(n) * sizeof(T));
    m_numMis += CountMissing(m_data + at - 1, n) - before;
}

template <class T>
T NCDataVector<T>::FirstValidValue() const
{
    for (int i = 1; i <= m_size; ++i)
        if (!IsMisVal(m_data[i]))
            return m_data[i];
    return MisVal;
}

template <class T>
T NCDataVector<T>::LastValidValue() const
{
    for (int i = m_size; i >= 1; --i)
        if (!IsMisVal(m_data[i]))
            return m_data[i];
    return MisVal;
}

// ---------------------------------------------------------------------------
// Search

template <class T>
const T* NCDataVector<T>::lower_bound_missing_last(const T* first, const T* last, T value, bool ascending)
{
    // Missing values sort after every present value in either direction.
    auto before = [ascending](T element, T target) {
        if (IsMisVal(element))
            return false;
        if (IsMisVal(target))
            return true;
        return ascending ? element < target : element > target;
    };
    return std::lower_bound(first, last, value, before);
}

// ---------------------------------------------------------------------------
// Streaming

template <class T>
QvStreamableData NCDataVector<T>::MyStreamableData(4, "NCDV");

namespace {
template <class T>
bool WriteElements(const T* p, int n, std::ostream& out)
{
    if constexpr (sizeof(T) == 4)
        return WriteFourBytes(p, n, out);
    else
        return WriteEightBytes(p, n, out);
}

template <class T>
bool ReadElements(T* p, int n, std::istream& in)
{
    if constexpr (sizeof(T) == 4)
        return ReadFourBytes(p, n, in);
    else
        return ReadEightBytes(p, n, in);
}
} // namespace

template <class T>
bool NCDataVector<T>::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

template <class T>
bool NCDataVector<T>::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 3);
    const std::int32_t size = m_size;
    const std::int32_t missing = m_numMis;
    bool ok = WriteFourBytes(&size, 1, directory.GetOutput(0));
    ok = ok && WriteFourBytes(&missing, 1, directory.GetOutput(1));
    if (ok && m_size > 0)
        ok = WriteElements(m_data + 1, m_size, directory.GetOutput(2));
    return directory.Close() && ok && out.good();
}

template <class T>
bool NCDataVector<T>::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 4, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

template <class T>
bool NCDataVector<T>::QvStreamableRead(std::istream& in)
{
    Clear();
    InputStreamDirectory directory(in);
    std::int32_t size = 0;
    std::int32_t missing = 0;
    directory.ReadRequired(0, &size, 1, 4);
    directory.ReadRequired(1, &missing, 1, 4);
    // The stored count is trusted as it stands (no recount), but a count
    // that cannot belong to the size marks a corrupt record.
    if (size < 0 || missing < 0 || missing > size) {
        directory.Close();
        return false;
    }
    if (size > 0) {
        std::istream* entry = directory.GetInput(2);
        // The claimed size is checked against the bytes that remain before
        // a block of that size is allocated.
        if (!entry || !QvStreamHasBytes(*entry, static_cast<std::streamsize>(size) * sizeof(T))) {
            directory.Close();
            return false;
        }
        auto block = std::make_unique<NCSharedBlock>();
        int offset = 0;
        T* data = NewVec(size, offset);
        if (!ReadElements(data + 1, size, *entry)) {
            FreeVec(data, offset);
            throw QvStreamError(ExceptionMessage::translate("Error when reading from stream."));
        }
        m_shared = block.release();
        m_data = data;
        m_alignOffset = offset;
        m_capacity = size;
        m_size = size;
        m_numMis = missing;
    }
    // A record whose directory does not end cleanly is damaged as a whole.
    if (!directory.Close() || !in.good()) {
        Clear();
        return false;
    }
    return true;
}

template <class T>
void NCDataVector<T>::QvStreamableReset() const
{
    m_streaming = false;
    QvStreamBase::QvStreamableReset();
}

template class NCDataVector<float>;
template class NCDataVector<double>;
