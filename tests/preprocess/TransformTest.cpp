#include "veltancmat/containers/frame/SimdTargets.h"
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/ConfigSection.h"
#include "veltancmat/preprocess/NCTransform.h"

#include "containers/MatrixChecks.h"
#include "platform/Caught.h"
#include "platform/RecordIO.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using T = TransformE;
using Error = NCTransformError::Error;
using Matrix = NCDataMatrix<float>;
using Records = std::vector<NCTransformErrors::Record>;
constexpr float M = -99.0f;
constexpr Error D = Error::OutOfDomain;

// An r x c matrix of uniform values in [lo, hi] with every seventh cell missing.
Matrix Random(int r, int c, float lo, float hi, unsigned seed)
{
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> u(lo, hi);
    Matrix m(r, c);
    for (int i = 1; i <= r; ++i)
        for (int j = 1; j <= c; ++j)
            m(i, j, (i * c + j) % 7 == 0 ? M : u(generator));
    return m;
}

float Transformed(const TransformStruct& t, float v, bool forward = true)
{
    forward ? t.TransformValue(&v) : t.BackTransformValue(&v);
    return v;
}

TEST(Transform, ForwardThenBackReturnsTheInputOverEachDomain)
{
    struct Case { TransformStruct t; float lo, hi; double (*reference)(double); };
    const std::vector<Case> cases = {
        {TransformStruct(T::Linear, 2, -3), -1e3f, 1e3f, [](double x) { return 2 * x - 3; }},
        {TransformStruct(T::Log, 0.5f, 2), -3.9f, 1e4f, [](double x) { return std::log10(0.5 * x + 2); }},
        {TransformStruct(T::NegLog, 2, 1), 0, 500, [](double x) { return -std::log10(2 * x + 1); }},
        {TransformStruct(T::Logit, -1, 10), -0.99f, 9.99f, [](double x) { return std::log10((x + 1) / (10 - x)); }},
        {TransformStruct(T::Exponential, 0.5f, -1), -50, 50, [](double x) { return std::exp(0.5 * x - 1); }},
        {TransformStruct(T::Power, 2, 1, 0.5f), 0, 100, [](double x) { return std::sqrt(2 * x + 1); }},
        {TransformStruct(T::Power, 1, -1, -3), 1.5f, 20, [](double x) { return std::pow(x - 1, -3); }},
    };
    for (const Case& c : cases) {
        Matrix m = Random(400, 2, c.lo, c.hi, 7);
        const Matrix original = m;
        EXPECT_EQ(c.t.TransformColumn(&m, 2), nullptr) << c.t.ToString(true);
        for (int i = 1; i <= m.SizeRows(); ++i) {
            const float x = original[i][2];
            ASSERT_EQ(m[i][1], original[i][1]);
            // Against the formula in double, and bit for bit against the one-value form.
            if (!IsMisVal(x)) {
                ASSERT_NEAR(m[i][2], c.reference(x), 2e-7 * std::fabs(c.reference(x)) + 1e-30)
                    << c.t.ToString(true) << x;
            }
            ASSERT_EQ(m[i][2], IsMisVal(x) ? M : Transformed(c.t, x));
        }
        EXPECT_EQ(c.t.BackTransformColumn(&m, 2), nullptr);
        for (int i = 1; i <= m.SizeRows(); ++i)
            ASSERT_NEAR(m[i][2], original[i][2], 2e-5 * std::max(1.0f, std::fabs(original[i][2])))
                << c.t.ToString(true);
        ExpectCountsExact(m);
    }
}

TEST(Transform, CellsOutsideTheDomainBecomeMissingWithCode2)
{
    const float fmax = std::numeric_limits<float>::max();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case { TransformStruct t; bool forward; float in; Error code; float out; }; // out NaN: compare as NaN
    const std::vector<Case> cases = {
        {TransformStruct(T::Log, 1, 0), true, 0, D, M},       // C1*x + C2 = 0
        {TransformStruct(T::Log, 2, 1), true, -0.75f, D, M},  // C1*x + C2 < 0
        {TransformStruct(T::NegLog, 1, 0), true, -1, D, M},
        {TransformStruct(T::Log, 1, 0), true, nan, D, M},     // NaN is a value, not missing
        {TransformStruct(T::Logit, 0, 10), true, 10, D, M},   // x == C2
        {TransformStruct(T::Logit, 0, 10), true, 0, D, M},    // x == C1: log10(0)
        {TransformStruct(T::Logit, 0, 10), true, 11, D, M},
        {TransformStruct(T::Power, 1, 0, 0.5f), true, -4, D, M},
        {TransformStruct(T::Power, 1, 0, -1), true, 0, D, M},
        {TransformStruct(T::Exponential, 1, 0), true, 89, D, M},  // e^89 > float max
        {TransformStruct(T::Exponential, 1, 0), true, 88, Error::Success, static_cast<float>(std::exp(88.0))},
        {TransformStruct(T::Linear, 1e30f, 0), true, 1e30f, Error::Success, std::numeric_limits<float>::infinity()},
        {TransformStruct(T::Linear, 1, -100), true, 1, Error::Success, M},     // a result of -99 reads as missing
        {TransformStruct(T::Linear, 1, 0), true, nan, Error::Success, nan},
        {TransformStruct(T::Log, 5, 0), true, M, Error::Success, M},           // missing stays missing
        {TransformStruct(static_cast<T::Transform>(8), 5, 1), true, 3, Error::Success, 3},
        {TransformStruct(T::Log, 1, 0), false, 2, Error::Success, 100},
        {TransformStruct(T::NegLog, 1, 0), false, 2, Error::Success, 0.01f},
        {TransformStruct(T::Log, 0, 0), false, 2, D, M},      // C1 = 0
        {TransformStruct(T::Log, 1, 0), false, 39, D, M},     // 1e39 is no float
        {TransformStruct(T::Logit, 0, 10), false, 400, D, M}, // 10^400 is not finite
        {TransformStruct(T::Exponential, 1, 0), false, -1, D, M},
        {TransformStruct(T::Exponential, 1, 0), false, 0, D, M},
        {TransformStruct(T::Power, 0, 0, 2), false, 4, D, M},
        {TransformStruct(T::Linear, 1e-30f, 0), false, fmax, D, M}, // range-checked back
        {TransformStruct(T::Linear, 0, 3), false, 5, D, 5},   // C1 = 0 leaves the value
    };
    for (const Case& c : cases) {
        float v = c.in;
        EXPECT_EQ(c.forward ? c.t.TransformValue(&v) : c.t.BackTransformValue(&v), c.code)
            << c.t.ToString(true) << " " << c.in;
        EXPECT_TRUE(std::isnan(c.out) ? std::isnan(v) : v == c.out) << c.t.ToString(true) << " " << c.in << " -> " << v;
        // The column form agrees, records the failure and keeps the counts.
        Matrix m(3, 1, M);
        m(2, 1, c.in);
        const auto errors = c.forward ? c.t.TransformColumn(&m, 1) : c.t.BackTransformColumn(&m, 1);
        EXPECT_TRUE(std::isnan(v) ? std::isnan(m[2][1]) : m[2][1] == v);
        EXPECT_EQ(errors ? errors->GetErrors() : Records{},
                  (c.code == Error::Success ? Records{} : Records{{2, 1, c.code, c.forward}}));
        ExpectCountsExact(m);
    }
    Matrix m(2, 2);
    EXPECT_THROW(TransformStruct(T::Log).TransformColumn(&m, 3), NCInternalError);
    EXPECT_THROW(TransformStruct(T::Log).BackTransformColumn(nullptr, 1), NCInternalError);
}

// Transforms `original` on `threads` threads with and without the break and
// checks both against the one-value form cell for cell: the break throws the
// topmost failure of the first failing column, with that column and those
// before it transformed and the later ones untouched. `records` receives the
// unbroken pass's records, checked against the one-value failures.
void TransformBothWays(const NCTransform& t, const Matrix& original, int threads, Records* records)
{
    omp_set_dynamic(0);
    omp_set_num_threads(threads); // whatever the machine's load, so that the records of several threads are gathered
    Matrix whole = original, broken = original;
    const auto errors = t.TransformMatrixNoBreak(&whole);
    const auto e = Caught<NCTransformError>([&] { t.TransformMatrix(&broken); });
    NCMultiThreading::ThreadingControl::Reset();
    Records expected;
    for (int j = 1; j <= original.SizeColumns(); ++j)
        for (int i = 1; i <= original.SizeRows(); ++i) {
            float v = original[i][j];
            if (const Error code = t[j].TransformValue(&v); code != Error::Success)
                expected.push_back({i, j, code, true});
            ASSERT_EQ(whole[i][j], v) << i << "," << j;
        }
    *records = errors ? errors->GetErrors() : Records{};
    EXPECT_EQ(*records, expected);
    ASSERT_EQ(e.has_value(), !expected.empty());
    if (e) {
        EXPECT_EQ((Records{{e->GetRow(), e->GetColumn(), e->GetError(), true}}), Records{expected.front()});
        EXPECT_EQ(e->GetLevel(), NCError::Error);
        EXPECT_STREQ(e->what(), "Value could not be transformed.");
    }
    for (int j = 1; j <= original.SizeColumns(); ++j)
        for (int i = 1; i <= original.SizeRows(); ++i)
            ASSERT_EQ(broken[i][j], j <= (e ? e->GetColumn() : original.SizeColumns()) ? whole[i][j] : original[i][j])
                << i << "," << j;
    ExpectCountsExact(whole);
    ExpectCountsExact(broken);
}

TEST(Transform, MatricesAgreeWithTheOneValueFormAndBreakByColumn)
{
    // 2000 x 70, logarithms and powers: the parallel paths and three column
    // tiles. Column 40 fails at a higher row than column 38, so the break
    // must go by column.
    NCTransform mixed(70);
    for (int j = 1; j <= 70; ++j)
        mixed[j] = TransformStruct(j % 3 ? T::Log : T::Power, 1, 0, 1.5f);
    Matrix m = Random(2000, 70, 0.5f, 1000, 3);
    m(1900, 38, -5), m(3, 40, -1), m(4, 40, 0), m(1, 66, -2);
    Records records;
    TransformBothWays(mixed, m, 3, &records);
    EXPECT_EQ(records, (Records{{1900, 38, D, true}, {3, 40, D, true}, {4, 40, D, true}, {1, 66, D, true}}));

    Matrix wide(3, 71, 2.0f);
    const auto e = Caught<NCTransformError>([&] { mixed.TransformMatrix(&wide); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->GetError(), Error::WrongSize);
    EXPECT_EQ(e->GetRow() + e->GetColumn(), 0);
    EXPECT_STREQ(e->what(), "Matrix is of wrong size.");
    EXPECT_THROW(mixed.TransformMatrixNoBreak(&wide), NCTransformError);
    EXPECT_TRUE(SameCells(wide, Matrix(3, 71, 2.0f)));

    // Log, NegLog and untransformed columns only: the row-wise vector path.
    NCTransform logs(45);
    for (int j = 1; j <= 45; ++j)
        logs[j] = j % 5 == 0 ? TransformStruct() : TransformStruct(j % 5 == 1 ? T::NegLog : T::Log, 0.25f * j, 1);
    m = Random(1000, 45, 0.001f, 5e4f, 9);
    m(700, 12, -5), m(2, 29, -9), m(5, 10, -5); // column 10 has no transform: stays
    TransformBothWays(logs, m, 3, &records);
    EXPECT_EQ(records, (Records{{700, 12, D, true}, {2, 29, D, true}}));

    // The vector path's failure scan at domain ends that no float hits
    // exactly: C1 x + C2 = 0 at x = 1/3, failing below it in column 1 and
    // above it in column 2.
    NCTransform ends(3);
    ends[1] = TransformStruct(T::Log, 3, -1), ends[2] = TransformStruct(T::NegLog, -3, 1),
    ends[3] = TransformStruct(T::Log);
    m = Matrix(64, 3);
    float third = 1.0f / 3.0f;
    for (int d = 0; d < 32; ++d)
        third = std::nextafter(third, 0.0f);
    for (int i = 1; i <= 64; ++i, third = std::nextafter(third, 1.0f))
        m(i, 1, third), m(i, 2, third), m(i, 3, 1.0f + (i - 32) * 1e-7f);
    TransformBothWays(ends, m, 2, &records);
    EXPECT_GT(records.size(), 32u);
    EXPECT_LT(records.size(), 96u);
    EXPECT_EQ(records.front().column, 1);
}

// The logarithm's vector loop on every instruction set this processor runs,
// against the one-value form: runs of columns shorter than a vector, of one
// vector and a tail, and failing cells inside the lanes.
TEST(Transform, LogarithmsAgreeOnEveryTarget)
{
    // Log 1, none, NegLog 3, none, Log 5, NegLog 11.
    NCTransform logs(22);
    logs[1] = TransformStruct(T::Log, 2, 1);
    for (int j = 3; j <= 22; ++j)
        logs[j] = j == 6   ? TransformStruct()
                  : j < 6  ? TransformStruct(T::NegLog)
                  : j < 12 ? TransformStruct(T::Log, 0.5f, 0)
                           : TransformStruct(T::NegLog, 3, -1);
    Matrix m = Random(40, 22, 1e-30f, 3e38f, 5);
    m(3, 1, -5), m(5, 9, 0), m(6, 15, 0.25f), m(40, 22, -1e30f);
    for (const std::string& target : NCSimdTargets::Available()) {
        SCOPED_TRACE(target);
        NCSimdTargets::Use(target);
        Records records;
        TransformBothWays(logs, m, 1, &records);
        EXPECT_EQ(records, (Records{{3, 1, D, true}, {5, 9, D, true}, {6, 15, D, true}, {40, 22, D, true}}));
    }
    NCSimdTargets::Use("");
}

TEST(Transform, LogarithmIsCorrectlyRounded)
{
    const TransformStruct log(T::Log, 1, 0);
    int mismatches = 0;
    std::mt19937 generator(4);
    std::uniform_real_distribution<double> exponent(-37.0, 38.0);
    std::vector<float> inputs;
    for (int k = 0; k < 20000; ++k)
        inputs.push_back(static_cast<float>(std::pow(10.0, exponent(generator))));
    for (float x = 1.0f, y = 1.0f; inputs.size() < 30000; x = std::nextafter(x, 2.0f), y = std::nextafter(y, 0.0f))
        inputs.insert(inputs.end(), {x, y});
    for (const float x : inputs) {
        const long double exact = std::log10(static_cast<long double>(x));
        const float want = static_cast<float>(exact), got = Transformed(log, x);
        if (got == want)
            continue;
        // Only a value within a hair of a rounding boundary may round the other way.
        EXPECT_LT(std::fabs(exact - (static_cast<long double>(want) + got) / 2), std::fabs(exact) * 1e-14L) << x;
        ++mismatches;
    }
    EXPECT_LE(mismatches, 1);
}

TEST(Transform, ListEditing)
{
    NCTransform list(5);
    for (int j = 1; j <= 5; ++j)
        list[j].SetConstant(1, static_cast<float>(j));
    list.RemoveValues(2, 2); // 1 4 5
    list.Remove(NCIntegralVector<int, -99>{3, 0, 3, 9});
    ASSERT_EQ(list.Size(), 2);
    EXPECT_EQ(list[2].GetConstant(1), 4.0f);
    list.SetSize(3);
    EXPECT_EQ(list[1].GetConstant(1), 1.0f);
    EXPECT_EQ(list[3], TransformStruct());
    EXPECT_THROW(list[4], NCInternalError);
    EXPECT_THROW(list.RemoveValues(3, 2), NCInternalError);
    EXPECT_THROW(list[1].GetConstant(4), NCInternalError);
    list.Reduce(NCIntegralVector<int, -99>{2, 2, 1}); // 4 4 1
    ASSERT_EQ(list.Size(), 3);
    EXPECT_EQ(list[2].GetConstant(1), 4.0f);
    EXPECT_EQ(list[3].GetConstant(1), 1.0f);
    EXPECT_THROW(list.Reduce(NCIntegralVector<int, -99>{4}), NCInternalError);
    EXPECT_EQ(list.Size(), 3);
}

TEST(Transform, ErrorListAndItsMessage)
{
    NCTransformErrors errors;
    EXPECT_THROW(errors.GetTransformError(), NCInternalError);
    for (int k = 1; k <= 100; ++k)
        errors.AddError(k, 3, D, k != 1);
    std::unique_ptr<NCTransformError> first(errors.GetTransformError().Clone());
    EXPECT_EQ(first->GetRow() * 10 + first->GetColumn(), 13);
    EXPECT_STREQ(first->what(), "Value could not be back-transformed.");

    const ExceptionMessageList hundred = errors.GetErrorMessage();
    std::vector<std::string> s; // source|first argument
    for (const ExceptionMessage& m : hundred.messages())
        s.push_back(m.source() + "|" + (m.arguments().empty() ? "" : m.arguments().front()));
    ASSERT_EQ(s.size(), 302u);
    EXPECT_EQ(s[0], "Unable to transform all values. The matrix might be partly transformed.\n|");
    EXPECT_EQ(s[1], "\n\n|");
    EXPECT_EQ(s[2] + s[3] + s[4], "row:{1}, column:{2} |1Value could not be back-transformed.|\n|");
    EXPECT_EQ(s[299] + s[300] + s[301], "row:{1}, column:{2} |100Value could not be transformed.|\n|");
    EXPECT_EQ(hundred.messages()[299].arguments().back(), "3");

    errors.AddError(101, 4, D, true);
    const ExceptionMessageList list = errors.GetErrorMessage();
    ASSERT_EQ(list.messages().size(), 303u);
    EXPECT_EQ(list.messages().back().context(),
              "At the end of a list of errors. {1} is the number of errors that we don't list");
    EXPECT_EQ(list.messages().back().str(), "\n(1 more errors)\n");

    errors.AppendErrors(errors);
    EXPECT_EQ(errors.Size(), 202);
    EXPECT_EQ(errors.GetErrors()[101], errors.GetErrors()[0]);
}

TEST(Transform, NamesOrderTextsAndSettings)
{
    EXPECT_EQ(T::GetTransformName(T::Log), "Log");
    EXPECT_EQ(T::GetTransformName(static_cast<T::Transform>(0)), "None");
    EXPECT_STREQ(T::GetFormula(T::Power), "y = (C1*x + C2)^C3");
    EXPECT_EQ(TransformStruct(T::Log, 2, 0.5f).ToString(true), "Log (C1=2, C2=0.5)");
    EXPECT_EQ(TransformStruct(T::Power, 1, 0, 0.1f).ToString(true), "Power (C1=1, C2=0, C3=0.1)");
    EXPECT_EQ(TransformStruct(T::Power, 1, 0, 0.1f).ToString(false), "Power");

    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<TransformStruct> list = {TransformStruct(T::Log, nan), TransformStruct(T::Log, 1, 2),
                                         TransformStruct(T::Linear, 5), TransformStruct(T::Log, -0.0f, 2),
                                         TransformStruct(T::Log, nan), TransformStruct(T::Log, 0.0f, 2)};
    std::sort(list.begin(), list.end());
    EXPECT_EQ(list[0].GetTransform(), T::Linear);
    EXPECT_EQ(list[1], list[2]); // 0 and -0
    EXPECT_EQ(list[4], list[5]); // NaN last, NaNs equal
    EXPECT_TRUE(std::isnan(list[5].GetConstant(1)));
    EXPECT_TRUE(list[1] < list[3] && !(list[3] < list[1]) && list[3] != list[4]);

    ConfigSection section("Column 1");
    const TransformStruct odd(static_cast<T::Transform>(-7), nan, std::numeric_limits<float>::infinity(), 0.1f);
    odd.Save(section);
    TransformStruct read;
    read.Load(ConfigSection::FromText(section.ToText()));
    EXPECT_EQ(read, odd);
    section.SetValue("Constants", "1 2");
    EXPECT_THROW(read.Load(section), NCError);
    section.RemoveKey("Constants");
    EXPECT_THROW(read.Load(section), NCError);
    EXPECT_EQ(read, odd);
}

using RecordIO::Written;

// `value`'s record reads back into `other`; every truncation and every record
// in `refused` is refused and leaves `other` as it was.
template <class O>
void ExpectRecord(const O& value, std::vector<std::string> refused, O other)
{
    const auto read = [&other](const std::string& bytes) {
        std::istringstream in(bytes);
        const bool ok = other.QvStreamableStartRead(in);
        other.QvStreamableReset();
        return ok;
    };
    const std::string record = Written(value);
    for (std::size_t n = 0; n < record.size(); ++n)
        refused.push_back(record.substr(0, n));
    const O before = other;
    for (const std::string& bad : refused)
        ASSERT_TRUE(!read(bad) && other == before) << bad.size();
    EXPECT_TRUE(read(record) && other == value);
}

TEST(Transform, RecordsRoundTripAndRefuseOtherVersions)
{
    const TransformStruct ts(T::Logit, 0.25f, -3, 1e-30f);
    const std::string record = Written(ts);
    // Header 02 "TS" 01 00; two entries: the type, then the constants.
    const std::string golden = std::string("\x02TS\x01\x00\x02\x00\x00\x00\x04", 10) + std::string(7, '\0') +
                               std::string("\x05\x00\x00\x00\x01\x00\x0c", 7) + std::string(7, '\0');
    ASSERT_EQ(record.size(), 45u);
    EXPECT_EQ(record.substr(0, golden.size()), golden);
    EXPECT_EQ(record.substr(43), "\xff\xff");
    std::string v2 = record, v0 = record;
    v2[3] = 2, v0[3] = 0;
    ExpectRecord(ts, {v2, v0}, TransformStruct(T::Power, 9, 9, 9));

    NCTransform list(3);
    list[1] = ts;
    list[3] = TransformStruct(T::Power, 1, 2, 3);
    const std::string nct = Written(list);
    EXPECT_EQ(nct.size(), 34u + 3 * 45);
    EXPECT_EQ(nct.substr(18, 4), std::string("\x03\x00\x00\x00", 4));
    std::string n1 = nct, n3 = nct, huge = nct, negative = nct;
    n1[4] = 1, n3[4] = 3;
    huge.replace(18, 4, "\xff\xff\xff\x7f");
    negative.replace(18, 4, "\xff\xff\xff\xff");
    ExpectRecord(list, {n1, n3, huge, negative, Written(ts)}, NCTransform(1));
    ExpectRecord(NCTransform(), {}, NCTransform(2));

    // Written once per save until reset, elements included.
    std::ostringstream twice;
    EXPECT_TRUE(list.QvStreamableStartWrite(twice) && list.QvStreamableStartWrite(twice));
    EXPECT_EQ(twice.str(), nct);
    list.QvStreamableReset();
    EXPECT_EQ(Written(list), nct);
}

} // namespace
