#pragma once

// Reads one container record from raw bytes and checks what the reader left
// behind. The fuzz target aborts on the first violation; the regression tests
// feed the inputs it found through the same code.
//
// Input layout: the first byte chooses the record (bits 0-2, see Kind) and
// whether the bytes come through a stream that cannot seek (bit 3); the rest
// is the stream.
//
// What is checked:
// - a reader fails only by returning false or throwing QvStreamError;
// - after a failure, a vector or matrix whose header was refused (another
//   magic or version) is untouched, and one that failed further on is empty;
//   integer vectors and masks are untouched after any failure;
// - after a success the record writes again, and what it writes reads back
//   into an equal object (bit for bit) that writes the same bytes;
// - always: sizes, capacities and counts fit together; in a matrix every
//   row's, column's and the total missing count equals a recount of the
//   cells. A vector's own count is trusted when read (only 0 <= count <=
//   size is required of it), but a matrix promises exact counts.

#include "veltancmat/containers/BoolVector.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/platform/QvStream.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <istream>
#include <sstream>
#include <streambuf>
#include <string>
#include <type_traits>
#include <vector>

namespace RecordCheck {

enum class Kind : std::uint8_t {
    FloatVector,
    DoubleVector,
    FloatMatrix,
    DoubleMatrix,
    IntVector,
    ULongVector,
    BoolIntegralVector,
    BoolMask,
};
constexpr int KindCount = 8;
constexpr std::uint8_t PipeBit = 8;

inline const char* Name(Kind kind)
{
    static const char* const names[KindCount] = {
        "NCDataVector<float>",      "NCDataVector<double>",          "NCDataMatrix<float>",
        "NCDataMatrix<double>",     "NCIntegralVector<int,-99>",     "NCIntegralVector<unsigned long,0>",
        "NCIntegralVector<bool,0>", "BoolVector",
    };
    return names[static_cast<int>(kind) % KindCount];
}

struct Result {
    bool read = false;     // the reader reported success
    std::string violation; // empty when every check held
};

// A read-only stream over bytes that cannot seek, like a pipe: the
// directory reader must then skip by reading and cannot revisit entries.
class PipeBuffer : public std::streambuf {
public:
    explicit PipeBuffer(const std::string& bytes)
    {
        char* p = const_cast<char*>(bytes.data());
        setg(p, p, p + bytes.size());
    }
};

template <class Object>
struct Traits;

template <class T>
struct Traits<NCDataVector<T>> {
    using V = NCDataVector<T>;
    static constexpr bool EmptiedWhenDamaged = true;
    static V Sample() { return V{T(1.5), NCMisVal<T>}; }
    static bool HeaderAccepted() { return V::GetQvStreamVersionNumber() == 4; }
    static bool IsEmpty(const V& v) { return v.Size() == 0 && v.GetNumMisVal() == 0; }
    static bool Same(const V& a, const V& b)
    {
        return a.Size() == b.Size() && a.GetNumMisVal() == b.GetNumMisVal() &&
               (a.Size() == 0 || std::memcmp(a.begin(), b.begin(), sizeof(T) * std::size_t(a.Size())) == 0);
    }
    static std::string Invariants(const V& v)
    {
        if (v.Size() < 0 || v.Capacity() < v.Size() || (v.Size() > 0 && !v.begin()))
            return "vector size, capacity and storage do not fit together";
        if (v.GetNumMisVal() < 0 || v.GetNumMisVal() > v.Size())
            return "vector missing count outside 0..size";
        return {};
    }
};

template <class T>
struct Traits<NCDataMatrix<T>> {
    using M = NCDataMatrix<T>;
    static constexpr bool EmptiedWhenDamaged = true;
    static M Sample()
    {
        M m(2, 2, T(1));
        m(1, 2, NCMisVal<T>);
        return m;
    }
    static bool HeaderAccepted() { return M::GetQvStreamVersionNumber() == 4; }
    static bool IsEmpty(const M& m) { return m.SizeRows() == 0 && m.SizeColumns() == 0 && m.GetNumMisVal() == 0; }
    static bool Same(const M& a, const M& b)
    {
        if (a.SizeRows() != b.SizeRows() || a.SizeColumns() != b.SizeColumns() || a.GetNumMisVal() != b.GetNumMisVal())
            return false;
        for (int j = 1; j <= a.SizeColumns(); ++j)
            if (a.GetColumnMisVal(j) != b.GetColumnMisVal(j))
                return false;
        for (int i = 1; i <= a.SizeRows(); ++i)
            if (!Traits<NCDataVector<T>>::Same(a[i], b[i]))
                return false;
        return true;
    }
    static std::string Invariants(const M& m)
    {
        if (m.SizeRows() < 0 || m.SizeColumns() < 0)
            return "negative matrix size";
        std::vector<int> columns(std::size_t(m.SizeColumns()) + 1, 0);
        long long total = 0;
        for (int i = 1; i <= m.SizeRows(); ++i) {
            const NCDataVector<T>& row = m[i];
            if (row.Size() != m.SizeColumns())
                return "row " + std::to_string(i) + " has " + std::to_string(row.Size()) + " cells, not " +
                       std::to_string(m.SizeColumns());
            int inRow = 0;
            for (int j = 1; j <= row.Size(); ++j)
                if (IsMisVal(row[j]))
                    ++inRow, ++columns[std::size_t(j)];
            if (inRow != row.GetNumMisVal())
                return "row " + std::to_string(i) + " claims " + std::to_string(row.GetNumMisVal()) +
                       " missing cells, holds " + std::to_string(inRow);
            total += inRow;
        }
        for (int j = 1; j <= m.SizeColumns(); ++j)
            if (m.GetColumnMisVal(j) != columns[std::size_t(j)])
                return "column " + std::to_string(j) + " claims " + std::to_string(m.GetColumnMisVal(j)) +
                       " missing cells, holds " + std::to_string(columns[std::size_t(j)]);
        if (total != m.GetNumMisVal())
            return "matrix claims " + std::to_string(m.GetNumMisVal()) + " missing cells, holds " +
                   std::to_string(total);
        return {};
    }
};

template <class T, int Missing>
struct IntegralTraits {
    using V = NCIntegralVector<T, Missing>;
    static constexpr bool EmptiedWhenDamaged = false;
    static bool HeaderAccepted() { return true; }
    static bool IsEmpty(const V& v) { return v.Size() == 0; }
    static bool Same(const V& a, const V& b) { return a == b; }
    static std::string Invariants(const V& v)
    {
        if (v.Size() < 0 || v.Capacity() < v.Size() || (v.Size() > 0 && !v.begin()))
            return "integer vector size, capacity and storage do not fit together";
        if constexpr (std::is_same_v<T, bool>) {
            for (int i = 1; i <= v.Size(); ++i) {
                unsigned char byte;
                std::memcpy(&byte, &v.GetPtr()[i], 1);
                if (byte > 1)
                    return "bool element " + std::to_string(i) + " holds the byte " + std::to_string(byte);
            }
        }
        return {};
    }
};

template <>
struct Traits<NCIntegralVector<int, -99>> : IntegralTraits<int, -99> {
    static V Sample() { return V{3, -99}; }
};
template <>
struct Traits<NCIntegralVector<unsigned long, 0>> : IntegralTraits<unsigned long, 0> {
    static V Sample() { return V{7, 8}; }
};
template <>
struct Traits<NCIntegralVector<bool, 0>> : IntegralTraits<bool, 0> {
    static V Sample() { return V{true, false}; }
};
template <>
struct Traits<BoolVector> : IntegralTraits<bool, 0> {
    static BoolVector Sample() { return BoolVector(2, true); }
};

enum class Outcome { Read, Refused, Threw };

// Reads `object` from `in`; anything but success, false or QvStreamError
// becomes a violation.
template <class Object>
Outcome Read(std::istream& in, Object& object, std::string& violation)
{
    Outcome outcome = Outcome::Threw;
    try {
        outcome = object.QvStreamableStartRead(in) ? Outcome::Read : Outcome::Refused;
    } catch (const QvStreamError&) {
        outcome = Outcome::Threw;
    } catch (const std::exception& e) {
        violation = std::string("the reader threw something other than QvStreamError: ") + e.what();
    } catch (...) {
        violation = "the reader threw something other than QvStreamError";
    }
    object.QvStreamableReset();
    return outcome;
}

template <class Object>
bool Write(const Object& object, std::string& bytes)
{
    std::ostringstream out;
    const bool ok = object.QvStreamableStartWrite(out);
    object.QvStreamableReset();
    bytes = out.str();
    return ok;
}

template <class Object>
Result CheckAs(const std::string& bytes, bool seekable)
{
    using Tr = Traits<Object>;
    Result result;
    std::string& violation = result.violation;
    const Object before = Tr::Sample();
    Object object = Tr::Sample();
    Outcome outcome;
    if (seekable) {
        std::istringstream in(bytes);
        outcome = Read(in, object, violation);
    } else {
        PipeBuffer pipe(bytes);
        std::istream in(&pipe);
        outcome = Read(in, object, violation);
    }
    const bool headerAccepted = Tr::HeaderAccepted();
    if (!violation.empty())
        return result;
    if (std::string broken = Tr::Invariants(object); !broken.empty()) {
        violation = broken + (outcome == Outcome::Read ? " after a successful read" : " after a failed read");
        return result;
    }
    result.read = outcome == Outcome::Read;
    if (!result.read) {
        if (Tr::EmptiedWhenDamaged && headerAccepted) {
            if (!Tr::IsEmpty(object))
                violation = "a damaged record did not leave the object empty";
        } else if (!Tr::Same(object, before)) {
            violation = headerAccepted ? "a failed read changed the object"
                                       : "a refused header (magic or version) changed the object";
        }
        return result;
    }

    std::string first;
    if (!Write(object, first)) {
        violation = "an object read successfully could not be written again";
        return result;
    }
    Object again = Tr::Sample();
    std::istringstream in(first);
    if (Read(in, again, violation) != Outcome::Read) {
        violation += violation.empty() ? "" : "; ";
        violation += "the record written from a successful read does not read back";
        return result;
    }
    std::string second;
    if (!Tr::Same(again, object))
        violation = "the record read back differs from the object written";
    else if (!Write(again, second) || second != first)
        violation = "writing the object read back gives other bytes";
    return result;
}

inline Result Check(Kind kind, bool seekable, const std::string& bytes)
{
    switch (kind) {
    case Kind::FloatVector:
        return CheckAs<NCDataVector<float>>(bytes, seekable);
    case Kind::DoubleVector:
        return CheckAs<NCDataVector<double>>(bytes, seekable);
    case Kind::FloatMatrix:
        return CheckAs<NCDataMatrix<float>>(bytes, seekable);
    case Kind::DoubleMatrix:
        return CheckAs<NCDataMatrix<double>>(bytes, seekable);
    case Kind::IntVector:
        return CheckAs<NCIntegralVector<int, -99>>(bytes, seekable);
    case Kind::ULongVector:
        return CheckAs<NCIntegralVector<unsigned long, 0>>(bytes, seekable);
    case Kind::BoolIntegralVector:
        return CheckAs<NCIntegralVector<bool, 0>>(bytes, seekable);
    case Kind::BoolMask:
        return CheckAs<BoolVector>(bytes, seekable);
    }
    return {};
}

// An input as the fuzz target receives it: selector byte, then the stream.
inline Result Check(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return {};
    const auto kind = static_cast<Kind>(data[0] & 7);
    const bool seekable = (data[0] & PipeBit) == 0;
    return Check(kind, seekable, std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
}

} // namespace RecordCheck
