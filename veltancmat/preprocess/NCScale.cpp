// Column scaling. Fitting reads the matrix twice (column sums, then the
// squares of the centred values) and writes it once: centring and scaling
// are fused into one in-place pass that rounds exactly as subtracting and
// then multiplying would, so the matrix is never copied and never written
// twice. Every pass runs over rows in parallel, each thread summing its own
// rows into its own column sums.

#include "veltancmat/preprocess/NCScale.h"

#include "veltancmat/containers/frame/MissingValue.h"
#include "veltancmat/containers/frame/Simd.h"
#include "veltancmat/containers/frame/StreamRecord.h"
#include "veltancmat/platform/BinaryIO.h"
#include "veltancmat/platform/Exception.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <istream>
#include <ostream>

// ---------------------------------------------------------------- errors

NCScaleError::NCScaleError(int column, Error code, const ExceptionMessage& message)
    : NCError(message, NCError::Error), m_column(column), m_code(code)
{
}

NCScaleError::~NCScaleError() = default;

NCScaleError* NCScaleError::Clone() const
{
    return new NCScaleError(*this);
}

namespace {

// The English text of each code, before translation.
constexpr struct {
    NCScaleError::Error code;
    const char* text;
} FailTexts[] = {
    {NCScaleError::TooFewValues, "Could not scale matrix. Too few non missing values."},
    {NCScaleError::TooLittleVariance, "Could not scale matrix. Too little variance."},
    {NCScaleError::ValuesTooLarge, "Could not scale matrix. The values are too large."},
    {NCScaleError::WrongColumnCount, "Could not scale matrix. The matrix has the wrong number of columns."},
};

[[noreturn]] void Fail(int column, NCScaleError::Error code)
{
    const char* text = "";
    for (const auto& entry : FailTexts)
        if (entry.code == code)
            text = entry.text;
    throw NCScaleError(column, code, ExceptionMessage::translate(text));
}

bool Centred(NCScale::Scaling type)
{
    return type == NCScale::ScaleCenter || type == NCScale::ScalePareto || type == NCScale::ScaleUnitVariance;
}

bool Scaled(NCScale::Scaling type)
{
    return type == NCScale::ScalePareto || type == NCScale::ScaleUnitVariance;
}

// ---- kernels over one row; x, c and f are 1-based, n long

// sum[j] += x[j] for the present cells.
VELTAN_SIMD_CLONES void AddPresent(double* __restrict sum, const float* __restrict x, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        sum[j] += PresentOrZero(x[j]);
}

// ss[j] += d^2 with d = x[j] - c[j] rounded to float, the value centring
// will store, over the cells that are present before and after centring.
// Returns how many present cells centring turns into -99. (The selects are
// between floats and the count is taken from a float: bool terms in the
// reduction keep GCC from vectorising the loop.)
VELTAN_SIMD_CLONES int AddCentredSquares(double* __restrict ss, const float* __restrict x, const float* __restrict c,
                                         int n)
{
    int landed = 0;
#pragma omp simd reduction(+ : landed)
    for (int j = 1; j <= n; ++j) {
        const float v = x[j];
        const float d = IsMisVal(v) ? 0.0f : v - c[j];
        const float kept = IsMisVal(d) ? 0.0f : d;
        ss[j] += static_cast<double>(kept) * kept;
        landed += IsMisVal(d) ? 1 : 0;
    }
    return landed;
}

// x[j] = (x[j] - c[j]) * f[j] for the present cells, rounding after each
// step; a cell that the subtraction makes -99 is missing from then on and
// not multiplied. A missing centre is passed as 0 and a missing factor as
// 1, which leave the value exactly as it is. Returns the row's missing
// cells afterwards.
VELTAN_SIMD_CLONES int ApplyModel(float* __restrict x, const float* __restrict c, const float* __restrict f, int n)
{
    int missing = 0;
#pragma omp simd reduction(+ : missing)
    for (int j = 1; j <= n; ++j) {
        const float v = x[j];
        const float d = v - c[j];
        const float y = d * (IsMisVal(d) ? 1.0f : f[j]);
        const float out = IsMisVal(v) ? v : y;
        x[j] = out;
        missing += IsMisVal(out) ? 1 : 0;
    }
    return missing;
}

// The model's vectors as the kernels take them: missing entries replaced by
// the value that leaves a cell unchanged.
std::vector<float> Neutral(const NCDataVector<float>& v, float neutral)
{
    std::vector<float> out(static_cast<std::size_t>(v.Size()) + 1, neutral);
    for (int j = 1; j <= v.Size(); ++j)
        out[j] = IsMisVal(v[j]) ? neutral : v[j];
    return out;
}

// Per-thread column sums, added up after the parallel pass. The team may be
// smaller than the maximum; unused slots stay zero.
class ThreadSums
{
public:
    explicit ThreadSums(int n) : m_n(n), m_sums(static_cast<std::size_t>(omp_get_max_threads()) * (n + 1), 0.0) {}
    double* Mine() { return m_sums.data() + static_cast<std::size_t>(omp_get_thread_num()) * (m_n + 1); }
    std::vector<double> Total() const
    {
        std::vector<double> total(static_cast<std::size_t>(m_n) + 1, 0.0);
        for (std::size_t base = 0; base < m_sums.size(); base += m_n + 1)
            for (int j = 1; j <= m_n; ++j)
                total[j] += m_sums[base + j];
        return total;
    }

private:
    int m_n;
    std::vector<double> m_sums;
};

// Centres and scales every row of m in place (see ApplyModel) and keeps the
// missing counts exact.
void Apply(NCDataMatrix<float>* m, const std::vector<float>& centre, const std::vector<float>& factor)
{
    const int rows = m->SizeRows();
    const int n = m->SizeColumns();
    if (rows == 0 || n == 0)
        return;
    const int before = m->GetNumMisVal();
    std::vector<float*> cells = m->GetMatrixAsPointerPointer();
    int after = 0;
#pragma omp parallel for schedule(static) reduction(+ : after)
    for (int i = 1; i <= rows; ++i)
        after += ApplyModel(cells[i], centre.data(), factor.data(), n);
    // Cells only ever turn missing here, and rarely: recount only then.
    if (after != before)
        m->RecountMissing();
}

} // namespace

// ----------------------------------------------------------------- model

QvStreamableData NCScale::MyStreamableData(2, "NCS");

NCScale::NCScale(int n)
{
    SetSize(n);
}

// The streaming flag belongs to the object, not to its contents.
NCScale::NCScale(const NCScale& other)
    : QvStreamBase(other), m_centre(other.m_centre), m_factors(other.m_factors), m_types(other.m_types),
      m_count(other.m_count)
{
}

NCScale& NCScale::operator=(const NCScale& other)
{
    if (this != &other) {
        m_centre = other.m_centre;
        m_factors = other.m_factors;
        m_types = other.m_types;
        m_count = other.m_count;
    }
    return *this;
}

NCScale::~NCScale() = default;

void NCScale::Clear()
{
    m_centre.Clear();
    m_factors.Clear();
    m_types.assign(1, ScaleNone);
    m_count = 0;
}

void NCScale::SetSize(int n)
{
    m_centre.SetSize(n); // throws for a negative size before anything changes
    m_factors.SetSize(n);
    m_types.assign(static_cast<std::size_t>(n) + 1, ScaleNone);
    m_count = n;
}

void NCScale::CheckColumn(const char* member, int col) const
{
    if (col < 1 || col > m_count)
        throw NCInternalError(std::string("NCScale::") + member, ExceptionMessage::translate("Index out of range."));
}

void NCScale::SetType(int col, Scaling type)
{
    CheckColumn("SetType", col);
    if (m_types[col] == type)
        return;
    m_centre(col, NCMisVal<float>);
    m_factors(col, NCMisVal<float>);
    m_types[col] = type;
}

NCScale::Scaling NCScale::GetScaleType(int col) const
{
    CheckColumn("GetScaleType", col);
    return m_types[col];
}

std::pair<NCScale::Scaling, bool> NCScale::GetScaleType(const NCScale& scale)
{
    if (scale.m_count == 0)
        return {ScaleNone, true};
    const Scaling first = scale.m_types[1];
    for (int j = 2; j <= scale.m_count; ++j)
        if (scale.m_types[j] != first)
            return {first, false};
    return {first, true};
}

std::string NCScale::GetScaleString(Scaling type)
{
    const char* text = "None";
    switch (type) {
    case ScaleCenter:
        text = "Center";
        break;
    case ScalePareto:
        text = "Pareto";
        break;
    case ScaleUnitVariance:
        text = "Unit variance";
        break;
    default:
        break;
    }
    return ExceptionMessage::translate("Scale type", text).str();
}

void NCScale::ScaleMatrix(NCDataMatrix<float>* m, bool newModel)
{
    if (!m)
        throw InvalidArgument("NCScale::ScaleMatrix: the matrix is null");
    if (newModel)
        ScaleWithNewModel(m);
    else
        ScaleWithCurrentModel(m);
}

namespace {

// The column sums of the present cells, in double.
std::vector<double> PresentSums(const NCDataMatrix<float>& m)
{
    const int n = m.SizeColumns();
    const int rows = m.SizeRows();
    if (rows == 0 || n == 0)
        return std::vector<double>(static_cast<std::size_t>(n) + 1, 0.0);
    ThreadSums perThread(n);
#pragma omp parallel for schedule(static)
    for (int i = 1; i <= rows; ++i)
        AddPresent(perThread.Mine(), m[i].GetVector(), n);
    return perThread.Total();
}

// The column sums of squares of the values centring will store, and in
// `present` the cells per column that stay present after centring.
std::vector<double> CentredSquares(const NCDataMatrix<float>& m, const std::vector<float>& centre,
                                   std::vector<int>& present)
{
    const int n = m.SizeColumns();
    const int rows = m.SizeRows();
    ThreadSums perThread(n);
    int landed = 0;
#pragma omp parallel for schedule(static) reduction(+ : landed)
    for (int i = 1; i <= rows; ++i)
        landed += AddCentredSquares(perThread.Mine(), m[i].GetVector(), centre.data(), n);
    // Cells that centring turns into -99 are missing when the factor is
    // computed; they are rare enough to be found one by one.
    if (landed > 0)
        for (int i = 1; i <= rows; ++i)
            for (int j = 1; j <= n; ++j) {
                const float x = m[i][j];
                present[j] -= (!IsMisVal(x) && IsMisVal(x - centre[j])) ? 1 : 0;
            }
    return perThread.Total();
}

// The factor 1 / s of a scaled column, s its standard deviation (for
// Pareto scaling the square root of that); false, with the reason in
// `failure`, when the column cannot be scaled.
bool ColumnFactor(NCScale::Scaling type, double squares, int present, double& factor, NCScaleError::Error& failure)
{
    if (present < 2) {
        failure = NCScaleError::TooFewValues;
        return false;
    }
    if (squares == 0.0) {
        failure = NCScaleError::TooLittleVariance;
        return false;
    }
    double s = std::sqrt(squares / (present - 1));
    if (type == NCScale::ScalePareto)
        s = std::sqrt(s);
    factor = 1.0 / s;
    if (factor > 1e35) {
        failure = NCScaleError::TooLittleVariance;
        return false;
    }
    if (factor < 1e-35) {
        failure = NCScaleError::ValuesTooLarge;
        return false;
    }
    return true;
}

} // namespace

void NCScale::ScaleWithNewModel(NCDataMatrix<float>* m)
{
    // A model of another width would read or write past the rows, so the
    // width is checked here as when applying a fitted model.
    if (m->SizeColumns() != m_count)
        Fail(0, NCScaleError::WrongColumnCount);
    const int n = m_count;
    const int rows = m->SizeRows();
    std::vector<int> present(static_cast<std::size_t>(n) + 1, rows);
    for (int j = 1; j <= n; ++j)
        present[j] -= m->GetColumnMisVal(j);

    // 1. Centres: the column means in double, stored as float.
    const std::vector<double> sums = PresentSums(*m);
    for (int j = 1; j <= n; ++j) {
        if (m_types[j] == ScaleNone)
            m_centre(j, NCMisVal<float>);
        else if (Centred(m_types[j]))
            m_centre(j, present[j] > 0 ? static_cast<float>(sums[j] / present[j]) : NCMisVal<float>);
    }
    const std::vector<float> centre = Neutral(m_centre, 0.0f);

    // 2. Factors, from the squares of the values centring will store. The
    // matrix is not written until every factor is known, so a failing
    // column costs no extra pass over it.
    const bool anyScaled = std::any_of(m_types.begin() + 1, m_types.end(), Scaled);
    std::vector<double> squares(static_cast<std::size_t>(n) + 1, 0.0);
    if (anyScaled && rows > 0)
        squares = CentredSquares(*m, centre, present);
    int failedColumn = 0;
    NCScaleError::Error failure = NCScaleError::TooFewValues;
    for (int j = 1; j <= n; ++j) {
        const Scaling type = m_types[j];
        double factor = 0.0;
        if (type == ScaleNone || type == ScaleCenter)
            m_factors(j, NCMisVal<float>);
        else if (!Scaled(type))
            continue; // an unknown type keeps whatever factor it had
        else if (ColumnFactor(type, squares[j], present[j], factor, failure))
            m_factors(j, static_cast<float>(factor));
        else {
            failedColumn = j;
            break;
        }
    }

    // 3. One pass: centre and scale, or after a failure centre only.
    if (failedColumn > 0) {
        Apply(m, centre, std::vector<float>(static_cast<std::size_t>(n) + 1, 1.0f));
        Fail(failedColumn, failure);
    }
    Apply(m, centre, Neutral(m_factors, 1.0f));
}

void NCScale::ScaleWithCurrentModel(NCDataMatrix<float>* m) const
{
    if (m->SizeColumns() != m_count)
        Fail(0, NCScaleError::WrongColumnCount);
    Apply(m, Neutral(m_centre, 0.0f), Neutral(m_factors, 1.0f));
}

// ------------------------------------------------------ column selection

void NCScale::RemoveValues(int first, int n)
{
    if (n <= 0)
        return;
    if (first < 1 || first + n - 1 > m_count)
        throw NCInternalError("NCScale::RemoveValues", ExceptionMessage::translate("Index out of range."));
    m_centre.RemoveValues(first, first + n - 1);
    m_factors.RemoveValues(first, first + n - 1);
    m_types.erase(m_types.begin() + first, m_types.begin() + first + n);
    m_count -= n;
}

void NCScale::Remove(const IndexList& positions)
{
    std::vector<bool> drop(static_cast<std::size_t>(m_count) + 1, false);
    for (int k = 1; k <= positions.Size(); ++k)
        if (positions[k] >= 1 && positions[k] <= m_count)
            drop[positions[k]] = true;
    m_centre.Remove(positions);
    m_factors.Remove(positions);
    std::vector<Scaling> kept(1, ScaleNone);
    for (int j = 1; j <= m_count; ++j)
        if (!drop[j])
            kept.push_back(m_types[j]);
    m_types = std::move(kept);
    m_count = static_cast<int>(m_types.size()) - 1;
}

void NCScale::Reduce(const IndexList& positions)
{
    for (int k = 1; k <= positions.Size(); ++k)
        CheckColumn("Reduce", positions[k]);
    m_centre.Reduce(positions);
    m_factors.Reduce(positions);
    std::vector<Scaling> kept(1, ScaleNone);
    for (int k = 1; k <= positions.Size(); ++k)
        kept.push_back(m_types[positions[k]]);
    m_types = std::move(kept);
    m_count = positions.Size();
}

// ------------------------------------------------------------- streaming

bool NCScale::QvStreamableStartWrite(std::ostream& out) const
{
    return NCStreamRecord::StartWrite(
        out, m_streaming, MyStreamableData, [&] { return QvStreamBase::QvStreamableStartWrite(out); },
        [&] { return QvStreamableWrite(out); });
}

// Entry 0 the centres and entry 1 the factors, each a complete vector
// record; entry 2 the types as 4-byte integers.
bool NCScale::QvStreamableWrite(std::ostream& out) const
{
    OutputStreamDirectory directory(out, 3);
    directory.GetOutput(0) << m_centre;
    directory.GetOutput(1) << m_factors;
    std::vector<std::int32_t> types(m_types.begin() + 1, m_types.end());
    std::ostream& entry = directory.GetOutput(2);
    const bool ok = types.empty() || WriteFourBytes(types.data(), static_cast<int>(types.size()), entry);
    return directory.Close() && ok && out.good();
}

bool NCScale::QvStreamableStartRead(std::istream& in)
{
    return NCStreamRecord::StartRead(
        in, m_streaming, MyStreamableData, 2, [&] { return QvStreamBase::QvStreamableStartRead(in); },
        [&] { return QvStreamableRead(in); });
}

// Everything is read into fresh objects first, so a damaged record leaves
// the model as it was.
bool NCScale::QvStreamableRead(std::istream& in)
{
    try {
        InputStreamDirectory directory(in);
        NCDataVector<float> centre, factors;
        std::istream& centreEntry = directory.GetRequiredInput(0);
        if (!(centreEntry >> centre))
            return false;
        std::istream& factorEntry = directory.GetRequiredInput(1);
        if (!(factorEntry >> factors) || factors.Size() != centre.Size())
            return false;
        const int count = centre.Size();
        std::istream* typeEntry = directory.GetInput(2);
        if (!typeEntry || !QvStreamHasBytes(*typeEntry, static_cast<std::streamsize>(count) * 4))
            return false;
        std::vector<std::int32_t> raw(static_cast<std::size_t>(count));
        if (count > 0 && !ReadFourBytes(raw.data(), count, *typeEntry))
            return false;
        if (!directory.Close())
            return false;
        m_centre = std::move(centre);
        m_factors = std::move(factors);
        m_types.assign(1, ScaleNone);
        for (std::int32_t t : raw)
            m_types.push_back(static_cast<Scaling>(t));
        m_count = count;
        return in.good();
    } catch (const QvStreamError&) {
        return false;
    }
}

void NCScale::QvStreamableReset() const
{
    m_streaming = false;
    m_centre.QvStreamableReset();
    m_factors.QvStreamableReset();
    QvStreamBase::QvStreamableReset();
}
