#include "veltancmat/platform/QvStream.h"
#include "veltancmat/platform/BinaryIO.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <limits>
#include <ostream>
#include <streambuf>

namespace {

// Closes a directory; no entry index can take this value because the entry
// count is itself an unsigned short.
constexpr std::uint16_t EndMark = 0xFFFF;
constexpr std::streamoff LengthFieldSize = 8;
constexpr std::size_t MaxMagicLength = 255;
// Entry remainders at least this long are skipped by seeking where possible.
constexpr std::streamoff SeekFrom = 64 * 1024;

std::streamoff TellIn(std::istream& in)
{
    std::streambuf* sb = in.rdbuf();
    return sb ? std::streamoff(sb->pubseekoff(0, std::ios::cur, std::ios::in)) : -1;
}

std::streamoff TellOut(std::ostream& out)
{
    std::streambuf* sb = out.rdbuf();
    return sb ? std::streamoff(sb->pubseekoff(0, std::ios::cur, std::ios::out)) : -1;
}

bool SeekIn(std::istream& in, std::streamoff pos)
{
    return pos >= 0 && std::streamoff(in.rdbuf()->pubseekpos(pos, std::ios::in)) == pos;
}

bool SeekOut(std::ostream& out, std::streamoff pos)
{
    return pos >= 0 && std::streamoff(out.rdbuf()->pubseekpos(pos, std::ios::out)) == pos;
}

std::size_t MagicLength(const char* magic)
{
    const std::size_t length = magic ? std::strlen(magic) : 0;
    return length <= MaxMagicLength ? length : 0;
}

} // namespace

// ---------------------------------------------------------------- errors, base

QvStreamError::QvStreamError() : Exception(ExceptionMessage::translate("Error when reading from stream.")) {}
QvStreamError::QvStreamError(const ExceptionMessage& message) : Exception(message) {}
QvStreamError::~QvStreamError() = default;

QvStreamBase::~QvStreamBase() = default;

bool QvStreamBase::QvStreamableStartWrite(std::ostream& out) const
{
    return !out.fail();
}

bool QvStreamBase::QvStreamableStartRead(std::istream& in)
{
    return !in.fail();
}

void QvStreamBase::QvStreamableReset() const {}

std::ostream& operator<<(std::ostream& out, const QvStreamBase& object)
{
    if (!object.QvStreamableStartWrite(out))
        out.setstate(std::ios::failbit);
    return out;
}

std::istream& operator>>(std::istream& in, QvStreamBase& object)
{
    if (!object.QvStreamableStartRead(in))
        in.setstate(std::ios::failbit);
    return in;
}

// ---------------------------------------------------------------- header

bool QvStreamLight::WriteMagicStringAndVersionNumber(std::ostream& out, unsigned short version, const char* magic)
{
    const std::size_t length = MagicLength(magic);
    if (length == 0) {
        out.setstate(std::ios::failbit);
        return false;
    }
    const auto length8 = std::uint8_t(length);
    const std::uint16_t version16 = version;
    return WriteBytes(&length8, 1, out) && WriteBytes(magic, int(length), out) && WriteTwoBytes(&version16, 1, out);
}

bool QvStreamLight::CheckMagicStringAndVersionNumber(std::istream& in, unsigned short& version, const char* magic)
{
    const std::size_t expected = MagicLength(magic);
    if (expected == 0) {
        in.setstate(std::ios::failbit);
        return false;
    }
    std::uint8_t length = 0;
    if (!ReadBytes(&length, 1, in) || length != expected)
        return false;
    char found[MaxMagicLength];
    std::uint16_t version16 = 0;
    if (!ReadBytes(found, length, in) || std::memcmp(found, magic, length) != 0 || !ReadTwoBytes(&version16, 1, in))
        return false;
    version = version16;
    return true;
}

QvStreamableData::QvStreamableData(short version, const char* magic) : m_magic(magic ? magic : ""), m_version(version) {}

bool QvStreamableData::Write(std::ostream& out) const
{
    return QvStreamLight::WriteMagicStringAndVersionNumber(out, static_cast<unsigned short>(m_version), m_magic.c_str());
}

bool QvStreamableData::Check(std::istream& in)
{
    unsigned short version = 0;
    const bool ok = QvStreamLight::CheckMagicStringAndVersionNumber(in, version, m_magic.c_str());
    m_found.store(ok ? static_cast<short>(version) : short(-1), std::memory_order_relaxed);
    return ok;
}

// ---------------------------------------------------------------- entry window

namespace {
// What QvStreamHasBytes and nested directories ask of an entry's buffer.
class CheckedBuffer : public std::streambuf {
public:
    // Whether the entry's length was checked against what its parent holds.
    virtual bool Exact() const = 0;
    virtual bool Has(std::streamoff n) = 0;
};

// Whether what remains of `in` is known for certain: an entry's remainder
// is when its length was checked, and so is a stream's when it can seek.
bool RemainderIsExact(std::istream& in)
{
    if (const auto* entry = dynamic_cast<const CheckedBuffer*>(in.rdbuf()))
        return entry->Exact();
    return QvStreamRemaining(in) >= 0;
}
} // namespace

// A read-only window of `length` bytes of the parent's streambuf, starting
// where the parent stands. Bytes are taken from the parent as they are read,
// so the parent's position is start + fetched and the directory can skip the
// rest or move on with little bookkeeping. Positions are relative to the
// entry.
//
// Whether the length is exact depends on the parent: where the parent's
// remainder is known the directory checked the length against it, but on a
// pipe the length is only a claim and the remainder an upper bound. There a
// reader's question whether n bytes are present (QvStreamHasBytes) is
// answered by fetching them ahead into the get area, so that a damaged
// length costs memory only for bytes that actually arrive.
class InputStreamDirectory::EntryBuffer : public CheckedBuffer {
public:
    void Reset(std::streambuf* parent, std::streamoff start, std::streamoff length, bool exact = true)
    {
        m_parent = parent;
        m_start = start;
        m_length = length;
        m_fetched = 0;
        m_exact = exact;
        m_ahead.clear();
        setg(nullptr, nullptr, nullptr);
    }
    bool Exact() const override { return m_exact; }
    std::streamoff Consumed() const { return m_fetched - Buffered(); }
    std::streamoff Remaining() const { return m_length - Consumed(); }
    // Bytes of the entry not yet taken from the parent.
    std::streamoff Unfetched() const { return m_length - m_fetched; }

    // Whether `n` more bytes are in the entry, fetching them ahead if its
    // length is only a claim.
    bool Has(std::streamoff n) override
    {
        if (n > Remaining())
            return false;
        if (m_exact || n <= Buffered())
            return true;
        std::string ahead(gptr(), egptr());
        while (std::streamoff(ahead.size()) < n) {
            const std::size_t have = ahead.size();
            const std::size_t chunk = std::size_t(std::min<std::streamoff>(n - std::streamoff(have), FetchChunk));
            ahead.resize(have + chunk);
            const std::streamsize got = m_parent->sgetn(ahead.data() + have, std::streamsize(chunk));
            m_fetched += std::max<std::streamsize>(got, 0);
            ahead.resize(have + std::size_t(std::max<std::streamsize>(got, 0)));
            if (got < std::streamsize(chunk))
                break;
        }
        m_ahead = std::move(ahead);
        setg(m_ahead.data(), m_ahead.data(), m_ahead.data() + m_ahead.size());
        return std::streamoff(m_ahead.size()) >= n;
    }

protected:
    int_type underflow() override
    {
        if (gptr() < egptr())
            return traits_type::to_int_type(*gptr());
        return Unfetched() > 0 ? m_parent->sgetc() : traits_type::eof();
    }

    int_type uflow() override
    {
        if (gptr() < egptr()) {
            const int_type c = traits_type::to_int_type(*gptr());
            gbump(1);
            return c;
        }
        if (Unfetched() <= 0)
            return traits_type::eof();
        const int_type c = m_parent->sbumpc();
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            ++m_fetched;
        return c;
    }

    std::streamsize xsgetn(char* s, std::streamsize n) override
    {
        const std::streamsize buffered = std::min<std::streamsize>(std::max<std::streamsize>(n, 0), Buffered());
        std::copy(gptr(), gptr() + buffered, s);
        setg(eback(), gptr() + buffered, egptr());
        const std::streamsize rest = std::min<std::streamsize>(n - buffered, Unfetched());
        if (rest <= 0)
            return buffered;
        const std::streamsize got = m_parent->sgetn(s + buffered, rest);
        m_fetched += got;
        return buffered + got;
    }

    std::streamsize showmanyc() override { return Remaining() > 0 ? 0 : -1; }

    pos_type seekoff(off_type off, std::ios::seekdir dir, std::ios::openmode which) override
    {
        if (!(which & std::ios::in))
            return pos_type(off_type(-1));
        const off_type here = Consumed();
        const off_type base = dir == std::ios::beg ? 0 : dir == std::ios::cur ? here : m_length;
        const off_type target = base + off;
        if (target < 0 || target > m_length)
            return pos_type(off_type(-1));
        // Telling the position needs no help from the parent, so it works
        // even when the parent cannot seek.
        if (target != here) {
            if (m_start < 0 || off_type(m_parent->pubseekpos(m_start + target, std::ios::in)) != m_start + target)
                return pos_type(off_type(-1));
            m_fetched = target;
            m_ahead.clear();
            setg(nullptr, nullptr, nullptr);
        }
        return pos_type(target);
    }

    pos_type seekpos(pos_type pos, std::ios::openmode which) override
    {
        return seekoff(off_type(pos), std::ios::beg, which);
    }

private:
    static constexpr std::streamoff FetchChunk = 64 * 1024;

    std::streamoff Buffered() const { return egptr() - gptr(); }

    std::streambuf* m_parent = nullptr;
    std::streamoff m_start = -1;
    std::streamoff m_length = 0;
    std::streamoff m_fetched = 0; // taken from the parent, including what waits in the get area
    bool m_exact = true;
    std::string m_ahead; // the get area, while bytes are fetched ahead
};

std::streamsize QvStreamRemaining(std::istream& in)
{
    std::streambuf* sb = in.rdbuf();
    if (in.fail() || !sb)
        return 0;
    if (const auto* entry = dynamic_cast<const InputStreamDirectory::EntryBuffer*>(sb))
        return entry->Remaining();
    const std::streamoff here = sb->pubseekoff(0, std::ios::cur, std::ios::in);
    if (here < 0)
        return -1;
    const std::streamoff end = sb->pubseekoff(0, std::ios::end, std::ios::in);
    if (!SeekIn(in, here)) {
        // We moved the stream and cannot put it back: nothing read from it
        // now would be what the caller expects.
        in.setstate(std::ios::badbit);
        return 0;
    }
    return end < here ? -1 : end - here;
}

bool QvStreamHasBytes(std::istream& in, std::streamsize bytes)
{
    if (in.fail())
        return false;
    // An entry whose length is only a claim proves the bytes by fetching them.
    if (auto* entry = dynamic_cast<CheckedBuffer*>(in.rdbuf()))
        return entry->Has(bytes);
    const std::streamsize remaining = QvStreamRemaining(in);
    return remaining < 0 || remaining >= bytes;
}

// ---------------------------------------------------------------- output directory

// The stream behind one entry. It gathers the entry's bytes in memory and,
// once they pass GatherLimit on a parent that can seek, writes the entry
// header with a length placeholder plus what it has, then passes further
// bytes straight through. Positions are relative to the entry in both
// modes, so a nested directory can patch its own lengths either way.
class OutputStreamDirectory::EntryWriter : public std::streambuf {
public:
    void Start(std::streambuf* parent, std::uint16_t index)
    {
        m_parent = parent;
        m_index = index;
        m_parentSeekable = parent->pubseekoff(0, std::ios::cur, std::ios::out) != std::streamoff(-1);
        m_passing = false;
        m_failed = false;
        m_data.clear();
        m_pos = m_size = 0;
    }

    // Completes the entry in `out`, whose streambuf is the parent.
    void Finish(std::ostream& out)
    {
        if (m_failed) {
            out.setstate(std::ios::badbit);
        } else if (!m_passing) {
            const std::uint64_t length = m_data.size();
            if (WriteTwoBytes(&m_index, 1, out) && WriteEightBytes(&length, 1, out))
                out.write(m_data.data(), std::streamsize(m_data.size()));
        } else {
            const std::uint64_t length = std::uint64_t(m_size);
            const std::streamoff end = m_start + m_size;
            // A stream opened for appending puts the patch at the end instead
            // of in place; once the bytes are out, the position gives that away.
            if (!SeekOut(out, m_start - LengthFieldSize) || !WriteEightBytes(&length, 1, out) ||
                out.rdbuf()->pubsync() != 0 || TellOut(out) != m_start || !SeekOut(out, end))
                out.setstate(std::ios::badbit);
        }
        m_parent = nullptr;
        m_data.clear();
    }

protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        if (!m_parent || m_failed)
            return 0;
        if (!m_passing && m_parentSeekable && m_pos == m_size && m_size + n > GatherLimit && !PassThrough())
            return 0;
        if (m_passing) {
            const std::streamsize written = m_parent->sputn(s, n);
            m_failed = written != n;
            Advance(written);
            return written;
        }
        const auto pos = std::size_t(m_pos);
        const std::size_t overwrite = std::min(std::size_t(n), m_data.size() - pos);
        std::copy(s, s + overwrite, m_data.begin() + std::ptrdiff_t(pos));
        m_data.append(s + overwrite, std::size_t(n) - overwrite);
        Advance(n);
        return n;
    }

    int_type overflow(int_type c) override
    {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        const char ch = traits_type::to_char_type(c);
        return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
    }

    pos_type seekoff(off_type off, std::ios::seekdir dir, std::ios::openmode which) override
    {
        const off_type base = dir == std::ios::beg ? 0 : dir == std::ios::cur ? m_pos : m_size;
        const off_type target = base + off;
        if (!m_parent || !(which & std::ios::out) || target < 0 || target > m_size)
            return pos_type(off_type(-1));
        if (m_passing && target != m_pos &&
            off_type(m_parent->pubseekpos(m_start + target, std::ios::out)) != m_start + target)
            return pos_type(off_type(-1));
        m_pos = target;
        return pos_type(target);
    }

    pos_type seekpos(pos_type pos, std::ios::openmode which) override
    {
        return seekoff(off_type(pos), std::ios::beg, which);
    }

    int sync() override { return m_passing && m_parent ? m_parent->pubsync() : 0; }

private:
    void Advance(std::streamoff n)
    {
        m_pos += n;
        m_size = std::max(m_size, m_pos);
    }

    bool PassThrough()
    {
        char header[2 + LengthFieldSize] = {};
        header[0] = char(m_index & 0xFF);
        header[1] = char(m_index >> 8);
        const std::streamoff here = m_parent->pubseekoff(0, std::ios::cur, std::ios::out);
        m_failed = here < 0 || m_parent->sputn(header, sizeof header) != std::streamsize(sizeof header) ||
                   m_parent->sputn(m_data.data(), std::streamsize(m_data.size())) != std::streamsize(m_data.size());
        m_start = here + std::streamoff(sizeof header);
        m_passing = !m_failed;
        m_data.clear();
        return m_passing;
    }

    std::streambuf* m_parent = nullptr;
    std::uint16_t m_index = 0;
    bool m_parentSeekable = false;
    bool m_passing = false;
    bool m_failed = false;
    std::string m_data;        // the entry so far, while gathering
    std::streamoff m_start = 0; // where the entry's bytes begin in the parent, once passing
    std::streamoff m_pos = 0;
    std::streamoff m_size = 0;
};

OutputStreamDirectory::OutputStreamDirectory(std::ostream& out, unsigned short entryCount)
    : m_out(out), m_count(entryCount), m_writer(std::make_unique<EntryWriter>()),
      m_entry(std::make_unique<std::ostream>(m_writer.get()))
{
    const std::uint16_t count = entryCount;
    WriteTwoBytes(&count, 1, m_out);
}

OutputStreamDirectory::~OutputStreamDirectory()
{
    if (!m_closed) {
        try {
            Close();
        } catch (...) {
            // A stream with exceptions enabled; its state already tells.
        }
    }
}

std::ostream& OutputStreamDirectory::GetOutput(unsigned short index)
{
    if (m_closed || index >= m_count || int(index) < m_current)
        throw InvalidArgument("OutputStreamDirectory::GetOutput: entry " + std::to_string(index) +
                              " is beyond the count, out of order, or the directory is closed");
    if (int(index) != m_current) {
        FinishEntry();
        m_current = index;
        m_entry->clear();
        if (m_out.rdbuf())
            m_writer->Start(m_out.rdbuf(), index);
        else
            m_entry->setstate(std::ios::badbit);
    }
    return *m_entry;
}

void OutputStreamDirectory::FinishEntry()
{
    if (m_current >= 0 && m_out.rdbuf())
        m_writer->Finish(m_out);
}

bool OutputStreamDirectory::Close()
{
    if (!m_closed) {
        FinishEntry();
        m_closed = true;
        WriteTwoBytes(&EndMark, 1, m_out);
    }
    return !m_out.fail();
}

// ---------------------------------------------------------------- input directory

InputStreamDirectory::InputStreamDirectory(std::istream& in)
    : m_in(in), m_buffer(std::make_unique<EntryBuffer>()), m_entry(std::make_unique<std::istream>(m_buffer.get()))
{
    std::uint16_t count = 0;
    if (!ReadTwoBytes(&count, 1, m_in)) {
        MarkCorrupt();
        return;
    }
    m_count = count;
    m_frontier = TellIn(m_in);
}

InputStreamDirectory::~InputStreamDirectory()
{
    if (!m_closed) {
        try {
            Close();
        } catch (...) {
            // A stream with exceptions enabled; its state already tells.
        }
    }
}

void InputStreamDirectory::MarkCorrupt()
{
    m_corrupt = true;
    m_current = AtFrontier;
    m_buffer->Reset(nullptr, -1, 0);
    m_in.setstate(std::ios::failbit);
}

bool InputStreamDirectory::ReadEntryHeader()
{
    std::uint16_t index = 0;
    if (!ReadTwoBytes(&index, 1, m_in)) {
        MarkCorrupt();
        return false;
    }
    if (index == EndMark) {
        m_ended = true;
        m_current = AtFrontier;
        m_frontier = TellIn(m_in);
        return false;
    }
    std::uint64_t length = 0;
    if (index >= m_count || (!m_spans.empty() && index <= m_spans.back().index) || !ReadEightBytes(&length, 1, m_in)) {
        MarkCorrupt();
        return false;
    }
    // The claim is checked against what the enclosing stream still holds, so
    // a damaged length cannot send anyone reading (or allocating) past it.
    const std::streamsize remaining = QvStreamRemaining(m_in);
    if (length >= std::uint64_t(std::numeric_limits<std::streamoff>::max()) ||
        (remaining >= 0 && length > std::uint64_t(remaining))) {
        MarkCorrupt();
        return false;
    }
    const std::streamoff start = TellIn(m_in);
    m_spans.push_back({index, start, std::streamoff(length)});
    m_current = m_spans.size() - 1;
    m_frontier = start >= 0 ? start + std::streamoff(length) : -1;
    m_buffer->Reset(m_in.rdbuf(), start, std::streamoff(length), RemainderIsExact(m_in));
    m_entry->clear();
    return true;
}

bool InputStreamDirectory::SkipRestOfEntry()
{
    std::streamoff rest = m_buffer->Unfetched();
    m_buffer->Reset(nullptr, -1, 0);
    m_current = AtFrontier;
    std::streambuf* sb = m_in.rdbuf();
    // Seeking a file stream throws its buffer away, so short distances are
    // read past instead; so is everything on a stream that cannot seek.
    if (rest >= SeekFrom && sb->pubseekoff(rest, std::ios::cur, std::ios::in) != std::streamoff(-1))
        return true;
    char scratch[4096];
    while (rest > 0) {
        const std::streamsize got = sb->sgetn(scratch, std::min<std::streamoff>(rest, sizeof scratch));
        if (got <= 0) {
            MarkCorrupt();
            return false;
        }
        rest -= got;
    }
    return true;
}

bool InputStreamDirectory::MoveToFrontier()
{
    if (m_current == AtFrontier)
        return true;
    if (m_current + 1 == m_spans.size() && !m_ended)
        return SkipRestOfEntry();
    // An earlier entry was revisited: jump back to where scanning stopped.
    if (!SeekIn(m_in, m_frontier)) {
        MarkCorrupt();
        return false;
    }
    m_buffer->Reset(nullptr, -1, 0);
    m_current = AtFrontier;
    return true;
}

std::istream* InputStreamDirectory::OpenEntry(std::size_t span)
{
    // The entry being read is continued with its state, so that a failed
    // first read is still visible to a reader that asks for it again.
    if (span == m_current)
        return m_entry.get();
    const Span& s = m_spans[span];
    if (s.start < 0 || !SeekIn(m_in, s.start))
        return nullptr; // passed already on a stream that cannot go back
    m_buffer->Reset(m_in.rdbuf(), s.start, s.length, RemainderIsExact(m_in));
    m_current = span;
    m_entry->clear();
    return m_entry.get();
}

std::istream* InputStreamDirectory::GetInput(unsigned short index)
{
    if (m_closed || m_corrupt || index >= m_count)
        return nullptr;
    if (!m_spans.empty() && index <= m_spans.back().index) {
        const auto it = std::lower_bound(m_spans.begin(), m_spans.end(), index,
                                         [](const Span& s, unsigned short i) { return s.index < i; });
        return it->index == index ? OpenEntry(std::size_t(it - m_spans.begin())) : nullptr;
    }
    if (m_ended || !MoveToFrontier())
        return nullptr;
    while (ReadEntryHeader()) {
        const unsigned short found = m_spans.back().index;
        if (found == index)
            return m_entry.get();
        // Indices increase, so a larger one means ours was never written;
        // the parent stays at the start of the larger one for its reader.
        if (found > index || !SkipRestOfEntry())
            return nullptr;
    }
    return nullptr;
}

std::istream& InputStreamDirectory::GetRequiredInput(unsigned short index, std::streamsize minBytes)
{
    std::istream* in = GetInput(index);
    if (!in)
        throw QvStreamError(ExceptionMessage::translate("ReadFromStreamDir failed."));
    if (!QvStreamHasBytes(*in, minBytes))
        throw QvStreamError();
    return *in;
}

void InputStreamDirectory::ReadRequired(unsigned short index, void* items, int count, int itemSize)
{
    std::istream& in = GetRequiredInput(index, std::streamsize(count) * itemSize);
    if (!ReadArray(items, count, itemSize, in))
        throw QvStreamError();
}

bool InputStreamDirectory::Close()
{
    if (!m_closed) {
        if (!m_corrupt && MoveToFrontier())
            while (!m_ended && ReadEntryHeader() && SkipRestOfEntry()) {
            }
        m_closed = true;
        m_buffer->Reset(nullptr, -1, 0);
        m_current = AtFrontier;
    }
    return !m_corrupt && !m_in.fail();
}
