#pragma once

#include "veltancmat/platform/QvStream.h"
#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// What the tool's model files (one stream record each) have in common.

// The X and Y blocks of a regression's model file: the variables' names,
// their transforms and their scaling, as the directory's entries 0 to 5.
struct RegressionBlocks {
    std::vector<std::string> variables;      // X
    std::unique_ptr<NCTransform> transform;  // X; null: none transformed
    NCScale scale;                           // X
    std::vector<std::string> responses;      // Y
    std::unique_ptr<NCTransform> yTransform; // Y; null: none transformed
    NCScale yScale;                          // Y

    bool WriteBlocks(OutputStreamDirectory& directory) const;
    bool ReadBlocks(InputStreamDirectory& directory);
    // Whether both blocks read agree with themselves (BlockFits).
    bool BlocksFit() const;
    void ResetBlocks() const;
};

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

    int components = 0;   // kept: the model's matrices hold exactly these
    int observations = 0; // the model was fitted on

protected:
    ModelFileRecord(QvStreamableData& header, short version) : m_header(header), m_version(version) {}
    ~ModelFileRecord() override = default;

    // The two counts as int32 entries `index` and `index + 1`, stored apart
    // because reading a model record does not restore its component count.
    bool WriteCounts(OutputStreamDirectory& directory, unsigned short index) const;
    // False for a negative observation count.
    static bool ReadCounts(InputStreamDirectory& directory, unsigned short index, std::int32_t& kept,
                           std::int32_t& fitted);
    // Takes the counts read once the whole record has been; whether the
    // stream is still good.
    bool KeepCounts(std::int32_t kept, std::int32_t fitted, const std::istream& in);

private:
    virtual bool Write(std::ostream& out) const = 0;
    // Reads into fresh objects and keeps them only when the whole record
    // agrees with itself, so a damaged file never yields a half-loaded
    // model; false for a damaged or inconsistent record (a QvStreamError
    // counts as damage).
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

// The preprocessing of one block (X or Y) as three entries from `first`:
// its variable names, its transforms ("NCT", left out when null) and its
// scaling ("NCS").
bool WriteBlock(OutputStreamDirectory& directory, unsigned short first, const std::vector<std::string>& names,
                const std::unique_ptr<NCTransform>& transform, const NCScale& scale);
bool ReadBlock(InputStreamDirectory& directory, unsigned short first, std::vector<std::string>& names,
               std::unique_ptr<NCTransform>& transform, NCScale& scale);
// Whether a block read agrees with itself: transforms and scaling as wide
// as its list of names.
bool BlockFits(const std::vector<std::string>& names, const std::unique_ptr<NCTransform>& transform,
               const NCScale& scale);
void ResetBlock(const std::unique_ptr<NCTransform>& transform, const NCScale& scale);

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

// A new model of class Model (with its record's MyStreamableData) read
// from `path` as LoadModelRecord reads it.
template <class Model>
std::unique_ptr<Model> LoadModelFile(const std::string& path, short version, const std::string& kind)
{
    auto model = std::make_unique<Model>();
    LoadModelRecord(path, *model, Model::MyStreamableData, version, kind);
    return model;
}

// The magic of the record the file at `path` starts with, or "" when it
// starts with no plausible record header. Throws ToolError when the file
// cannot be opened.
std::string ModelFileMagic(const std::string& path);

} // namespace veltan_cli
