#pragma once

#include "veltancmat/platform/QvStream.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// What the tool's model files (one stream record each) have in common.

// The record plumbing of a model file: its header (magic and the one
// version it reads), the guard that streams it once per pass, and the base
// part, around the directory the class itself writes and reads.
class ModelFileRecord : public virtual QvStreamBase {
public:
    ModelFileRecord(const ModelFileRecord&) = delete;
    ModelFileRecord& operator=(const ModelFileRecord&) = delete;

    bool QvStreamableStartWrite(std::ostream& out) const final;
    // False for another record or another version, else what Read says.
    bool QvStreamableStartRead(std::istream& in) final;
    void QvStreamableReset() const final;

protected:
    ModelFileRecord(QvStreamableData& header, short version) : m_header(header), m_version(version) {}
    ~ModelFileRecord() override = default;

private:
    virtual bool Write(std::ostream& out) const = 0;
    // Reads into fresh objects and keeps them only when the whole record
    // agrees with itself, so a damaged file never yields a half-loaded
    // model; false for a damaged or inconsistent record.
    virtual bool Read(std::istream& in) = 0;
    // Resets the streamable objects the record holds.
    virtual void ResetParts() const = 0;

    QvStreamableData& m_header;
    short m_version;
    mutable bool m_streaming = false;
};

// An optional entry holding an "NCT" record: transform stays null when the
// entry is absent; false for a damaged one.
bool ReadTransform(InputStreamDirectory& directory, unsigned short index, std::unique_ptr<NCTransform>& transform);

// Whether an optional transform list fits `width` variables.
inline bool Fits(const std::unique_ptr<NCTransform>& transform, int width)
{
    return !transform || transform->Size() == width;
}

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
