#pragma once

#include "veltancmat/platform/QvStream.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace veltan_cli {

// What the tool's model files (one stream record each) have in common.

// A list of names as a u32 count, then one string each.
bool WriteNames(const std::vector<std::string>& names, std::ostream& out);
bool ReadNames(std::istream& in, std::vector<std::string>& names);

// Streams the record into out; throws ToolError naming `path` when the
// stream fails.
void WriteModelRecord(const QvStreamBase& model, std::ostream& out, const std::string& path);

// Reads the record of the file at `path` into `model`, whose class is
// described by `data` and reads `version`. Throws ToolError naming the
// file: cannot open, not a `kind` model file ("not a veltan PCA model
// file"), a version it does not read, damaged.
void LoadModelRecord(const std::string& path, QvStreamBase& model, const QvStreamableData& data, short version,
                     const std::string& kind);

// The magic of the record the file at `path` starts with, or "" when it
// starts with no plausible record header. Throws ToolError when the file
// cannot be opened.
std::string ModelFileMagic(const std::string& path);

} // namespace veltan_cli
