#pragma once

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Binary persistence of objects: a record is a header (magic and version)
// followed by a directory of numbered entries. The byte layout is described
// in docs/stream-format.md; keep the two in step.

// A stream that cannot be read. The default text is the generic read error.
class VELTANCMAT_API QvStreamError : public Exception {
public:
    QvStreamError(); // "Error when reading from stream."
    explicit QvStreamError(const ExceptionMessage& message);
    QvStreamError(const QvStreamError&) = default;
    ~QvStreamError() override;
};

// Virtual base of every streamable class. The base part itself is empty in
// our layout: its start functions write and read nothing and only report
// whether the stream is still usable.
//
// Writing is logically const (saving a model must not require a mutable
// model), so StartWrite and Reset are const; derived classes keep their
// "already streamed" flag mutable.
class VELTANCMAT_API QvStreamBase {
public:
    QvStreamBase() = default;
    QvStreamBase(const QvStreamBase&) = default;
    QvStreamBase& operator=(const QvStreamBase&) = default;
    virtual ~QvStreamBase();

    virtual bool QvStreamableStartWrite(std::ostream& out) const;
    virtual bool QvStreamableStartRead(std::istream& in);
    virtual void QvStreamableReset() const;
};

// Stream a whole object, typically into or out of another object's entry.
// A start function that returns false sets failbit on the stream; a
// QvStreamError thrown by the object's reader passes through unchanged.
VELTANCMAT_API std::ostream& operator<<(std::ostream& out, const QvStreamBase& object);
VELTANCMAT_API std::istream& operator>>(std::istream& in, QvStreamBase& object);

// The header of a record: magic string and version.
class VELTANCMAT_API QvStreamLight {
public:
    // The magic must be 1 to 255 characters; otherwise nothing is written,
    // failbit is set and false returned.
    static bool WriteMagicStringAndVersionNumber(std::ostream& out, unsigned short version, const char* magic);
    // True when a header with exactly this magic was read; `version` is then
    // the version found. A different magic returns false without setting
    // failbit (the stream is intact, only not what the caller expected) and
    // leaves `version` unchanged.
    static bool CheckMagicStringAndVersionNumber(std::istream& in, unsigned short& version, const char* magic);
};

// One per streamable class (its static `MyStreamableData`): the magic and
// the version this build writes, and the version the last Check found.
// The found version is shared by all objects of the class, so a reader
// takes it right after its own Check.
class VELTANCMAT_API QvStreamableData {
public:
    QvStreamableData(short version, const char* magic);
    QvStreamableData(const QvStreamableData&) = delete;
    QvStreamableData& operator=(const QvStreamableData&) = delete;

    bool Write(std::ostream& out) const;
    // True when the header carries our magic; the version found (any value,
    // the caller decides what it accepts) is remembered. On any other
    // outcome the remembered version becomes -1.
    bool Check(std::istream& in);

    short GetMyQvStreamVersionNumber() const { return m_version; }
    short GetQvStreamVersionNumber() const { return m_found.load(std::memory_order_relaxed); }
    const std::string& GetMagic() const { return m_magic; }

private:
    std::string m_magic;
    short m_version;
    std::atomic<short> m_found{-1};
};

// Bytes that may still be read from `in`: exact inside a directory entry,
// computed by seeking for a seekable stream, 0 once the stream has failed,
// -1 when unknown (a pipe, say). Record readers compare a claimed element
// count with this before they allocate.
VELTANCMAT_API std::streamsize QvStreamRemaining(std::istream& in);
// True when `in` has not failed and at least `bytes` remain, or the
// remainder is unknown (then the read itself will find a short stream).
VELTANCMAT_API bool QvStreamHasBytes(std::istream& in, std::streamsize bytes);

// Writes a directory of `entryCount` entries, numbered from 0. Entries are
// written in increasing order and any may be skipped. An entry is gathered
// in memory while it is small, so that it goes out with its length in one
// piece; one that grows large on a stream that can seek is streamed straight
// through and its length patched in afterwards. On a stream that cannot
// seek every entry is gathered whole. Nested objects inside an entry may
// open directories of their own, to any depth.
class VELTANCMAT_API OutputStreamDirectory {
public:
    OutputStreamDirectory(std::ostream& out, unsigned short entryCount);
    OutputStreamDirectory(const OutputStreamDirectory&) = delete;
    OutputStreamDirectory& operator=(const OutputStreamDirectory&) = delete;
    // Closes the directory if Close was not called; errors are then only
    // visible in the stream's state.
    ~OutputStreamDirectory();

    // The stream for entry `index`, owned by the directory and valid until
    // the next GetOutput or Close. Asking again for the entry being written
    // continues it. An index not below the entry count, one below an entry
    // already begun, or a call after Close is a programming error and throws
    // InvalidArgument.
    std::ostream& GetOutput(unsigned short index);
    // Ends the last entry and the directory; true when the stream is good.
    bool Close();

    // Entries up to this size are gathered in memory before they are written.
    static constexpr std::streamoff GatherLimit = 64 * 1024;

private:
    class EntryWriter;

    void FinishEntry();

    std::ostream& m_out;
    unsigned short m_count;
    int m_current = -1; // index of the entry being written
    bool m_closed = false;
    std::unique_ptr<EntryWriter> m_writer;
    std::unique_ptr<std::ostream> m_entry;
};

// Reads a directory written by OutputStreamDirectory. Entries are found by
// scanning forward; entries nobody asks for are skipped, so a reader may
// ignore entries added by a later version.
//
// A corrupt directory (an entry claiming more bytes than remain, indices out
// of order or beyond the count, a stream ending inside the directory) sets
// failbit on the parent stream; from then on every entry reads as absent.
class VELTANCMAT_API InputStreamDirectory {
public:
    explicit InputStreamDirectory(std::istream& in);
    InputStreamDirectory(const InputStreamDirectory&) = delete;
    InputStreamDirectory& operator=(const InputStreamDirectory&) = delete;
    // Closes the directory if Close was not called.
    ~InputStreamDirectory();

    // A stream over exactly the bytes of entry `index`, or null when the
    // entry is absent (never written, beyond the count, or the directory is
    // corrupt). The stream is owned by the directory and valid until the next
    // GetInput or Close. Asking again for the entry being read continues it;
    // another entry starts at its beginning. An entry that was passed already
    // can be revisited only when the stream can seek.
    std::istream* GetInput(unsigned short index);
    // The same for an entry the reader cannot do without: throws QvStreamError
    // with "ReadFromStreamDir failed." when it is absent, and with "Error when
    // reading from stream." when fewer than `minBytes` bytes remain in it.
    std::istream& GetRequiredInput(unsigned short index, std::streamsize minBytes = 0);
    // Reads `count` items of `itemSize` bytes from a required entry; throws
    // as GetRequiredInput, and with "Error when reading from stream." when
    // the read fails.
    void ReadRequired(unsigned short index, void* items, int count, int itemSize);

    // Skips what is left of the directory, so that the parent stream stands
    // right after it; false when the directory was corrupt or the stream failed.
    bool Close();

    // The entry count the writer declared (0 when the directory is unreadable).
    unsigned short GetEntryCount() const { return m_count; }

private:
    class EntryBuffer;
    friend std::streamsize QvStreamRemaining(std::istream& in);

    struct Span {
        unsigned short index;
        std::streamoff start; // in the parent stream; -1 when it cannot be told
        std::streamoff length;
    };
    static constexpr std::size_t AtFrontier = std::size_t(-1);

    bool MoveToFrontier();
    bool ReadEntryHeader();
    bool SkipRestOfEntry();
    std::istream* OpenEntry(std::size_t span);
    void MarkCorrupt();

    std::istream& m_in;
    unsigned short m_count = 0;
    std::vector<Span> m_spans;           // entries seen so far, by increasing index
    std::size_t m_current = AtFrontier;  // span the parent stands in, or AtFrontier
    std::streamoff m_frontier = -1;      // where scanning continues; -1 when unknown
    bool m_ended = false;                // the end mark has been read
    bool m_corrupt = false;
    bool m_closed = false;
    std::unique_ptr<EntryBuffer> m_buffer;
    std::unique_ptr<std::istream> m_entry;
};
