#pragma once

#include "veltancmat/platform/Export.h"

#include <iosfwd>
#include <string>

// Fixed-width binary items in the byte order of our files: little-endian,
// whatever the host. `count` is a number of items of the function's width,
// not of bytes. Each function returns false when the stream has failed
// (before or during the call) or when its arguments are invalid (negative
// count, item size below 1, null pointer with a positive count); invalid
// arguments also set failbit, so a writer that only checks the stream at
// the end still notices them.

VELTANCMAT_API bool WriteBytes(const void* items, int count, std::ostream& out);
VELTANCMAT_API bool ReadBytes(void* items, int count, std::istream& in);
VELTANCMAT_API bool WriteTwoBytes(const void* items, int count, std::ostream& out);
VELTANCMAT_API bool ReadTwoBytes(void* items, int count, std::istream& in);
VELTANCMAT_API bool WriteFourBytes(const void* items, int count, std::ostream& out);
VELTANCMAT_API bool ReadFourBytes(void* items, int count, std::istream& in);
VELTANCMAT_API bool WriteEightBytes(const void* items, int count, std::ostream& out);
VELTANCMAT_API bool ReadEightBytes(void* items, int count, std::istream& in);

// Items of any width; each item is byte-swapped as a whole on big-endian hosts.
VELTANCMAT_API bool WriteArray(const void* items, int count, int itemSize, std::ostream& out);
VELTANCMAT_API bool ReadArray(void* items, int count, int itemSize, std::istream& in);

// A 4-byte unsigned length followed by that many bytes. The reader checks the
// length against the bytes that remain (QvStreamRemaining) before it
// allocates; where that is unknown it grows the string chunk by chunk, so a
// corrupt length costs at most one chunk beyond the bytes actually present.
// On failure `text` is left unchanged.
VELTANCMAT_API bool WriteBinaryString(const std::string& text, std::ostream& out);
VELTANCMAT_API bool ReadBinaryString(std::string& text, std::istream& in);
