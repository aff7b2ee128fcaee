#pragma once

#include "cli/ModelFile.h"

#include "veltancmat/models/NCPLS.h"
#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// Everything `veltan predict` needs from a PLS fit, saved as one record
// "VeltanPLSModel" version 1 (layout in docs/cli.md): a directory of
//   0 the X variable names (u32 count, then one string each),
//   1 the X transforms as an "NCT" record, left out when none is transformed,
//   2 the X scaling as an "NCS" record,
//   3 the response names,
//   4 the response transforms ("NCT"), left out when none is transformed,
//   5 the response scaling ("NCS"),
//   6 the model as an "NCPLS" record holding exactly the kept components,
//   7 the number of components kept (int32),
//   8 the number of observations the model was fitted on (int32).
class PlsModelFile : public ModelFileRecord, public RegressionBlocks {
public:
    PlsModelFile();

    NCPLS pls;

    static QvStreamableData MyStreamableData; // "VeltanPLSModel", 1

private:
    bool Write(std::ostream& out) const override;
    // Inconsistent: widths that disagree, a count that is not the model's.
    bool Read(std::istream& in) override;
    void ResetParts() const override;
};

// Throws ToolError naming the file, as LoadModel does for PCA models.
std::unique_ptr<PlsModelFile> LoadPlsModel(const std::string& path);

} // namespace veltan_cli
