#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/QvStream.h"
#include "veltancmat/preprocess/NCTransformError.h"
#include "veltancmat/preprocess/TransformE.h"

#include <array>
#include <iosfwd>
#include <memory>
#include <string>

class ConfigSection;

// The transform of one column: a type and three constants C1, C2, C3 (see
// TransformE for the formulas). A struct of this kind with a type outside
// 2..7 leaves values alone.
//
// Values are computed in double and stored as float. A value the transform
// cannot map (outside its domain, or a result that is not a finite float)
// becomes missing (-99) with code OutOfDomain, so a partly transformed
// matrix stays usable; missing values are left alone.
//
// Record "TS", version 1: a directory of two entries, 0 the type (int32)
// and 1 the constants C1, C2, C3 (three float32).
class VELTANCMAT_API TransformStruct : public virtual QvStreamBase {
public:
    // None, with C1 = 1, C2 = 0, C3 = 1: constants under which every
    // formula starts out as close to the identity as it can.
    TransformStruct() = default;
    explicit TransformStruct(TransformE::Transform transform, float c1 = 1.0f, float c2 = 0.0f, float c3 = 1.0f);
    // Copies take the transform, not the streaming state.
    TransformStruct(const TransformStruct& other) noexcept;
    TransformStruct& operator=(const TransformStruct& other) noexcept;
    ~TransformStruct() override;

    // Same type and constants. Constants compare as numbers (0 equals -0)
    // and all NaNs are equal to one another.
    bool operator==(const TransformStruct& other) const;
    bool operator!=(const TransformStruct& other) const { return !(*this == other); }
    // A strict weak order consistent with ==: by type, then C1, C2, C3,
    // NaN after every number.
    bool operator<(const TransformStruct& other) const;

    TransformE::Transform GetTransform() const { return m_transform; }
    void SetTransform(TransformE::Transform transform) { m_transform = transform; }
    // C1, C2 or C3 for i = 1, 2, 3; any other i throws NCInternalError.
    float GetConstant(int i) const;
    void SetConstant(int i, float value);
    // {C1, C2, C3}.
    const std::array<float, 3>& GetConstants() const { return m_constants; }

    // The translated name of the type (TransformE::GetTransformName).
    std::string GetTransformName() const;
    // withConstants false: the name alone, e.g. "Log". true: the name and
    // the constants its formula uses, e.g. "Log (C1=2, C2=0.5)" or
    // "Power (C1=1, C2=0, C3=0.5)"; a None transform has none.
    // Constants are written in the shortest form that reads back exactly.
    std::string ToString(bool withConstants) const;

    // Transform (back-transform) *v in place. Success: *v holds the result
    // (or was missing, or the type is None). OutOfDomain: *v is now missing;
    // except for the Linear back-transform with C1 = 0, which leaves *v as
    // it was. The Linear forward transform always succeeds: its result is
    // stored even when it overflows the float range.
    NCTransformError::Error TransformValue(float* v) const;
    NCTransformError::Error BackTransformValue(float* v) const;

    // Column col (1-based) of m in place, with the missing counts kept
    // exact. One record per failed cell, top to bottom; null when none
    // failed. A null m or a column outside m throws NCInternalError.
    std::unique_ptr<NCTransformErrors> TransformColumn(NCDataMatrix<float>* m, int col) const;
    std::unique_ptr<NCTransformErrors> BackTransformColumn(NCDataMatrix<float>* m, int col) const;

    // The keys "TransformType" (the type as an integer) and "Constants"
    // ("C1 C2 C3", exact). Load throws NCError and leaves this transform
    // unchanged when either is absent or malformed; other keys are ignored.
    void Save(ConfigSection& section) const;
    void Load(const ConfigSection& section);

    // ---- streaming: the "TS" record, version 1 -------------------------
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // False for another version or a damaged record; the transform is then
    // unchanged.
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    short GetMyQvStreamVersionNumber() const { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    short GetQvStreamVersionNumber() const { return MyStreamableData.GetQvStreamVersionNumber(); }

    static QvStreamableData MyStreamableData; // "TS", 1

private:
    std::unique_ptr<NCTransformErrors> RunColumn(NCDataMatrix<float>* m, int col, bool forward,
                                                 const char* member) const;
    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);

    TransformE::Transform m_transform = TransformE::None;
    std::array<float, 3> m_constants{1.0f, 0.0f, 1.0f};
    mutable bool m_streaming = false;
};
