#pragma once

#include "cli/ModelFile.h"

#include "veltancmat/containers/NCDataMatrix.h"

#include <memory>
#include <string>

namespace veltan_cli {

// Everything `veltan predict` needs from an O2PLS fit to predict either
// block from the other, saved as one record "VeltanO2PLSModel" version 1
// (layout in docs/cli.md): a directory of
//   0-2 the X block: variable names, transforms ("NCT", left out when none
//       is transformed) and scaling ("NCS"), as a PLS model file has them,
//   3-5 the Y block alike,
//   6-9 W', C', B_TU and B_UT of the joint part,
//   10-11 WO_X' and PO_X' (one row per X-orthogonal component),
//   12-13 WO_Y' and PO_Y' (one row per Y-orthogonal component),
//   14 the number of joint components (int32),
//   15 the number of observations the model was fitted on (int32).
// Here RegressionBlocks' "responses" are the Y block's variables.
class O2plsModelFile : public ModelFileRecord, public RegressionBlocks {
public:
    O2plsModelFile();

    NCDataMatrix<float> wprim, cprim, btu, but;
    NCDataMatrix<float> woxprim, poxprim, woyprim, poyprim;

    static QvStreamableData MyStreamableData; // "VeltanO2PLSModel", 1

private:
    bool Write(std::ostream& out) const override;
    // Inconsistent: widths that disagree with the blocks, a joint count that
    // is not the model's, relations that are not A x A.
    bool Read(std::istream& in) override;
    void ResetParts() const override;
};

// Throws ToolError naming the file, as LoadPlsModel does.
std::unique_ptr<O2plsModelFile> LoadO2plsModel(const std::string& path);

} // namespace veltan_cli
