#pragma once

#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/NCError.h"
#include "veltancmat/platform/QvStream.h"

#include <string>
#include <utility>
#include <vector>

// A column that could not be scaled. Column 0 means no single column is at
// fault (a matrix of the wrong width).
class VELTANCMAT_API NCScaleError : public NCError {
public:
    // Codes 0, 1 and 5 are reserved; callers compare the numeric values.
    enum Error : int {
        TooFewValues = 2,      // "Could not scale matrix. Too few non missing values."
        TooLittleVariance = 3, // "Could not scale matrix. Too little variance."
        ValuesTooLarge = 4,    // "Could not scale matrix. The values are too large."
        WrongColumnCount = 6,  // "Could not scale matrix. The matrix has the wrong number of columns."
    };

    NCScaleError(int column, Error code, const ExceptionMessage& message);
    NCScaleError(const NCScaleError&) = default;
    NCScaleError& operator=(const NCScaleError&) = default;
    ~NCScaleError() override;

    // A heap copy of the same dynamic type, for hosts that keep errors.
    virtual NCScaleError* Clone() const;

    int GetColumn() const { return m_column; }
    Error GetError() const { return m_code; }

private:
    int m_column;
    Error m_code;
};

// The column-wise preprocessing model of a data matrix: for every column a
// scaling type, a centre and a scale factor. Fitted once to a matrix
// (ScaleMatrix(m, true)) and then applied unchanged to further matrices of
// the same width (ScaleMatrix(m, false)), always in place. A missing (-99)
// centre or factor leaves its column alone in that step; missing cells stay
// missing.
//
// Columns are 1-based. The model must be sized to the matrix (NCScale(n) or
// SetSize) and given its types before it is fitted.
class VELTANCMAT_API NCScale : public virtual QvStreamBase {
public:
    enum Scaling : int {
        ScaleNone = 1,         // neither centred nor scaled
        ScaleCenter = 2,       // centred on the column mean
        ScalePareto = 3,       // centred, times 1 / sqrt(standard deviation)
        ScaleUnitVariance = 4, // centred, times 1 / standard deviation
    };
    using IndexList = NCIntegralVector<int, -99>;

    NCScale() = default;
    explicit NCScale(int n);
    NCScale(const NCScale& other);
    NCScale& operator=(const NCScale& other);
    ~NCScale() override;

    void Clear();
    // n columns, every type ScaleNone; the previous types are not kept.
    void SetSize(int n);
    int Size() const { return m_count; }

    // Changing a column's type makes its centre and factor missing; setting
    // the type it has already keeps them.
    void SetType(int col, Scaling type);
    Scaling GetScaleType(int col) const;
    // (type of column 1, whether every column shares it); (ScaleNone, true)
    // for an empty model.
    static std::pair<Scaling, bool> GetScaleType(const NCScale& scale);
    // "None", "Center", "Pareto" or "Unit variance", translated with the
    // context "Scale type"; any other value reads "None".
    static std::string GetScaleString(Scaling type);

    // Fits the model to m and scales it (newModel true), or applies the
    // fitted model (false). Throws NCScaleError; see ScaleWithNewModel for
    // the state a failed fit leaves behind.
    void ScaleMatrix(NCDataMatrix<float>* m, bool newModel);

    const NCDataVector<float>& GetCenterVector() const { return m_centre; }
    const NCDataVector<float>& GetScaleVector() const { return m_factors; }

    // Removes n columns from `first` (1-based) on.
    void RemoveValues(int first, int n);
    // Keeps, in order, the columns whose positions are not listed.
    void Remove(const IndexList& positions);
    // Keeps the listed columns, in list order (a column may be listed twice).
    void Reduce(const IndexList& positions);

    // ---- streaming: the "NCS" record, version 2 ------------------------
    bool QvStreamableStartWrite(std::ostream& out) const override;
    // False for another version or a damaged record; the model is then
    // unchanged.
    bool QvStreamableStartRead(std::istream& in) override;
    void QvStreamableReset() const override;
    short GetMyQvStreamVersionNumber() const { return MyStreamableData.GetMyQvStreamVersionNumber(); }
    short GetQvStreamVersionNumber() const { return MyStreamableData.GetQvStreamVersionNumber(); }

    static QvStreamableData MyStreamableData; // "NCS", 2

private:
    // Centres and scales m in one fit. A failing column leaves m centred,
    // every centre fitted and the factors before that column fitted; the
    // failing and later columns keep their previous factors and m is not
    // multiplied by any of them.
    void ScaleWithNewModel(NCDataMatrix<float>* m);
    void ScaleWithCurrentModel(NCDataMatrix<float>* m) const;
    void CheckColumn(const char* member, int col) const;

    bool QvStreamableWrite(std::ostream& out) const;
    bool QvStreamableRead(std::istream& in);

    NCDataVector<float> m_centre;
    NCDataVector<float> m_factors;
    std::vector<Scaling> m_types = std::vector<Scaling>(1, ScaleNone); // 1-based; slot 0 unused
    int m_count = 0;
    mutable bool m_streaming = false;
};
