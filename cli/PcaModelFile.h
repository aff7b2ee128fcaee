#pragma once

#include "cli/ModelFile.h"

#include "veltancmat/models/NCPCA.h"
#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// Everything `veltan predict` needs from a fit, saved as one record
// "VeltanPCAModel" version 1 (layout in docs/cli.md): a directory of
//   0 the variable names (u32 count, then one string each),
//   1 the transforms as an "NCT" record, left out when nothing is transformed,
//   2 the scaling as an "NCS" record,
//   3 the model as an "NCPCA" record,
//   4 the number of components kept (int32),
//   5 the number of observations the model was fitted on (int32).
// The NCPCA record holds exactly the kept components (its P' has
// `components` rows) and the residuals they leave; the count is stored
// apart because reading an NCPCA does not restore its component count.
class PcaModelFile : public ModelFileRecord {
public:
    PcaModelFile();

    std::vector<std::string> variables;
    std::unique_ptr<NCTransform> transform; // null: no variable is transformed
    NCScale scale;
    NCPCA pca;

    static QvStreamableData MyStreamableData; // "VeltanPCAModel", 1

private:
    bool Write(std::ostream& out) const override;
    // Inconsistent: widths that do not agree, a count beyond the components stored.
    bool Read(std::istream& in) override;
    void ResetParts() const override;
};

// Streams the model into out; throws ToolError naming `path` when the
// stream fails.
void WriteModel(const PcaModelFile& model, std::ostream& out, const std::string& path);
// Throws ToolError naming the file: cannot open, not a model file of this
// tool, a version it does not read, damaged.
std::unique_ptr<PcaModelFile> LoadModel(const std::string& path);

} // namespace veltan_cli
