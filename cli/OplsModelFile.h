#pragma once

#include "cli/ModelFile.h"

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/preprocess/NCScale.h"
#include "veltancmat/preprocess/NCTransform.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace veltan_cli {

// Everything `veltan predict` needs from an OPLS fit, saved as one record
// "VeltanOPLSModel" version 1 (layout in docs/cli.md): a directory of
//   0-2 the X block: variable names, transforms ("NCT", left out when none
//       is transformed) and scaling ("NCS"), as a PLS model file has them,
//   3-5 the response block alike,
//   6-8 the W', P' and C' matrices of every stage, stage 0 first (each an
//       int32 count, then the matrices),
//   9-11 WO', PO' and CO' (one row per orthogonal component),
//   12 the number of orthogonal components kept (int32),
//   13 the number of observations the model was fitted on (int32).
// The stages are exactly those kept: one more than the orthogonal
// components, so that a prediction replays every filter and then predicts
// with the last stage's predictive part.
class OplsModelFile : public ModelFileRecord, public RegressionBlocks {
public:
    using MatrixList = std::vector<NCDataMatrix<float>>;

    OplsModelFile();

    MatrixList wList, pList, cList;          // one entry per stage
    NCDataMatrix<float> woprim, poprim, coprim;

    // Predictive components (A): the rows of every stage's W'.
    int Predictive() const { return wList.empty() ? 0 : wList.front().SizeRows(); }

    static QvStreamableData MyStreamableData; // "VeltanOPLSModel", 1

private:
    bool Write(std::ostream& out) const override;
    // Inconsistent: widths that disagree, stages that do not match the
    // orthogonal components, a count that is not the model's.
    bool Read(std::istream& in) override;
    void ResetParts() const override;
};

// Throws ToolError naming the file, as LoadPlsModel does.
std::unique_ptr<OplsModelFile> LoadOplsModel(const std::string& path);

} // namespace veltan_cli
