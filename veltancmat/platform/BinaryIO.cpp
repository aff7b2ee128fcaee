#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/QvStream.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <istream>
#include <limits>
#include <ostream>

namespace {

constexpr bool HostIsLittleEndian = std::endian::native == std::endian::little;
static_assert(HostIsLittleEndian || std::endian::native == std::endian::big, "mixed-endian hosts are not supported");

void ReverseEachItem(char* bytes, std::size_t count, std::size_t itemSize)
{
    for (std::size_t i = 0; i < count; ++i, bytes += itemSize)
        std::reverse(bytes, bytes + itemSize);
}

bool ValidArguments(const void* items, int count, int itemSize, std::ios& stream)
{
    if (count < 0 || itemSize < 1 || (items == nullptr && count > 0)) {
        stream.setstate(std::ios::failbit);
        return false;
    }
    return true;
}

} // namespace

bool WriteArray(const void* items, int count, int itemSize, std::ostream& out)
{
    if (!ValidArguments(items, count, itemSize, out))
        return false;
    const auto* bytes = static_cast<const char*>(items);
    const std::size_t total = std::size_t(count) * std::size_t(itemSize);
    if (total == 0 || itemSize == 1 || HostIsLittleEndian) {
        out.write(bytes, std::streamsize(total));
        return !out.fail();
    }
    // The caller's items are const: swap a bounded copy, whole items at a time.
    constexpr std::size_t chunkBytes = 4096;
    const std::size_t perChunk = std::max<std::size_t>(1, chunkBytes / std::size_t(itemSize));
    std::string chunk;
    for (std::size_t done = 0; done < std::size_t(count) && out; done += perChunk) {
        const std::size_t n = std::min(perChunk, std::size_t(count) - done);
        chunk.assign(bytes + done * itemSize, n * itemSize);
        ReverseEachItem(chunk.data(), n, std::size_t(itemSize));
        out.write(chunk.data(), std::streamsize(chunk.size()));
    }
    return !out.fail();
}

bool ReadArray(void* items, int count, int itemSize, std::istream& in)
{
    if (!ValidArguments(items, count, itemSize, in))
        return false;
    if (count == 0)
        return !in.fail();
    auto* bytes = static_cast<char*>(items);
    in.read(bytes, std::streamsize(count) * itemSize);
    if (in.fail())
        return false;
    if constexpr (!HostIsLittleEndian)
        ReverseEachItem(bytes, std::size_t(count), std::size_t(itemSize));
    return true;
}

bool WriteBytes(const void* items, int count, std::ostream& out) { return WriteArray(items, count, 1, out); }
bool ReadBytes(void* items, int count, std::istream& in) { return ReadArray(items, count, 1, in); }
bool WriteTwoBytes(const void* items, int count, std::ostream& out) { return WriteArray(items, count, 2, out); }
bool ReadTwoBytes(void* items, int count, std::istream& in) { return ReadArray(items, count, 2, in); }
bool WriteFourBytes(const void* items, int count, std::ostream& out) { return WriteArray(items, count, 4, out); }
bool ReadFourBytes(void* items, int count, std::istream& in) { return ReadArray(items, count, 4, in); }
bool WriteEightBytes(const void* items, int count, std::ostream& out) { return WriteArray(items, count, 8, out); }
bool ReadEightBytes(void* items, int count, std::istream& in) { return ReadArray(items, count, 8, in); }

bool WriteBinaryString(const std::string& text, std::ostream& out)
{
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        out.setstate(std::ios::failbit);
        return false;
    }
    const auto length = std::uint32_t(text.size());
    if (!WriteFourBytes(&length, 1, out))
        return false;
    out.write(text.data(), std::streamsize(length));
    return !out.fail();
}

bool ReadBinaryString(std::string& text, std::istream& in)
{
    std::uint32_t length = 0;
    if (!ReadFourBytes(&length, 1, in))
        return false;
    // Inside an entry whose length is only a claim (a parent that cannot
    // seek), the bytes are proven by fetching them before the string is
    // allocated.
    if (!QvStreamHasBytes(in, std::streamsize(length))) {
        in.setstate(std::ios::failbit);
        return false;
    }
    const std::streamsize remaining = QvStreamRemaining(in);
    // With the remaining size known the whole string is allocated at once;
    // otherwise it grows only as fast as bytes actually arrive.
    const std::size_t chunk = remaining >= 0 ? std::max<std::size_t>(length, 1) : std::size_t(1) << 16;
    std::string result;
    for (std::size_t done = 0; done < length;) {
        const std::size_t n = std::min<std::size_t>(chunk, length - done);
        result.resize(done + n);
        if (!in.read(result.data() + done, std::streamsize(n)))
            return false;
        done += n;
    }
    text = std::move(result);
    return true;
}
