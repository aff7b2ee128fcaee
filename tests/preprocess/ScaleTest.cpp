#include "veltancmat/preprocess/NCScale.h"

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/QvStream.h"

#include "containers/MatrixChecks.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <map>
#include <memory>
#include <sstream>

namespace {

#include "preprocess/fixtures/ScalingReference.inc"

using Matrix = NCDataMatrix<float>;
using S = NCScale;
constexpr float M = -99.0f;

Matrix FromColumns(const std::vector<std::vector<float>>& columns)
{
    Matrix m(static_cast<int>(columns[0].size()), static_cast<int>(columns.size()));
    for (int j = 1; j <= m.SizeColumns(); ++j)
        for (int i = 1; i <= m.SizeRows(); ++i)
            m(i, j, columns[j - 1][i - 1]);
    return m;
}

NCScale Typed(std::initializer_list<NCScale::Scaling> types)
{
    NCScale s(static_cast<int>(types.size()));
    int j = 0;
    for (NCScale::Scaling t : types)
        s.SetType(++j, t);
    return s;
}

// The whole state of a model, column by column; -99 stands for "not fitted".
void ExpectModel(const NCScale& s, const std::vector<S::Scaling>& types, const std::vector<float>& centres,
                 const std::vector<float>& factors)
{
    ASSERT_EQ(s.Size(), static_cast<int>(types.size()));
    ASSERT_EQ(s.GetCenterVector().Size(), s.Size());
    ASSERT_EQ(s.GetScaleVector().Size(), s.Size());
    for (int j = 1; j <= s.Size(); ++j) {
        EXPECT_EQ(s.GetScaleType(j), types[j - 1]) << "column " << j;
        EXPECT_EQ(s.GetCenterVector()[j], centres[j - 1]) << "column " << j;
        EXPECT_EQ(s.GetScaleVector()[j], factors[j - 1]) << "column " << j;
    }
}

// f throws the NCScaleError of `code` for `column`, with its message; so
// does the error's clone.
template <class F>
void ExpectScaleError(F f, int column, NCScaleError::Error code)
{
    const std::map<NCScaleError::Error, std::string> texts{
        {NCScaleError::TooFewValues, "Too few non missing values."},
        {NCScaleError::TooLittleVariance, "Too little variance."},
        {NCScaleError::ValuesTooLarge, "The values are too large."},
        {NCScaleError::WrongColumnCount, "The matrix has the wrong number of columns."},
    };
    const auto e = Caught<NCScaleError>(f);
    ASSERT_TRUE(e) << "no error, code " << code;
    const std::unique_ptr<const NCScaleError> copy(e->Clone());
    for (const NCScaleError* x : {&*e, copy.get()}) {
        EXPECT_EQ(x->GetColumn(), column);
        EXPECT_EQ(x->GetError(), code);
        EXPECT_EQ(x->what(), "Could not scale matrix. " + texts.at(code));
        EXPECT_EQ(x->GetLevel(), NCError::Error);
    }
}

// A column with mean 6 and standard deviation 4, with and without a gap;
// the last one is centred onto the marker, which makes the cell missing.
TEST(NCScale, EachTypeOnHandComputableColumns)
{
    Matrix m = FromColumns({{2, 6, 10, M}, {2, 6, 10, M}, {2, M, 6, 10}, {M, 2, 6, 10}, {1, 199, M, M}});
    NCScale s = Typed({S::ScaleNone, S::ScaleCenter, S::ScalePareto, S::ScaleUnitVariance, S::ScaleCenter});
    s.ScaleMatrix(&m, true);
    // Centred values keep their units: no factor.
    ExpectModel(s, {S::ScaleNone, S::ScaleCenter, S::ScalePareto, S::ScaleUnitVariance, S::ScaleCenter},
                {M, 6, 6, 6, 100}, {M, M, 0.5f, 0.25f, M});
    const Matrix want = FromColumns({{2, 6, 10, M}, {-4, 0, 4, M}, {-2, M, 0, 2}, {M, -1, 0, 1}, {M, 99, M, M}});
    EXPECT_TRUE(SameCells(m, want));
    ExpectCountsExact(m);
}

TEST(NCScale, AgreesWithNumpyAndReappliesExactly)
{
    Matrix original(ScalingRows, ScalingCols);
    for (int i = 1; i <= ScalingRows; ++i)
        for (int j = 1; j <= ScalingCols; ++j)
            original(i, j, static_cast<float>(ScalingInput[(i - 1) * ScalingCols + j - 1]));
    NCScale s = Typed({S::ScaleNone, S::ScaleCenter, S::ScalePareto, S::ScaleUnitVariance});
    Matrix fitted = original;
    s.ScaleMatrix(&fitted, true);
    for (int j = 1; j <= ScalingCols; ++j) {
        EXPECT_NEAR(s.GetCenterVector()[j], ScalingCentres[j - 1], 1e-6 * std::fabs(ScalingCentres[j - 1]));
        EXPECT_NEAR(s.GetScaleVector()[j], ScalingFactors[j - 1], 1e-6 * std::fabs(ScalingFactors[j - 1]));
    }
    for (int i = 1; i <= ScalingRows; ++i)
        for (int j = 1; j <= ScalingCols; ++j)
            EXPECT_NEAR(fitted[i][j], ScalingOutput[(i - 1) * ScalingCols + j - 1], 2e-5) << i << "," << j;

    // The fitted model on fresh data, on one thread and on two.
    for (int threads : {1, 2}) {
        omp_set_num_threads(threads);
        Matrix again = original;
        s.ScaleMatrix(&again, false);
        EXPECT_TRUE(SameCells(again, fitted)) << threads << " threads";
        ExpectCountsExact(again);
    }
}

// The failing column and everything after it keep the factors of the
// previous fit; the matrix is centred but not multiplied.
TEST(NCScale, FailedFitLeavesDocumentedState)
{
    NCScale s = Typed({S::ScaleUnitVariance, S::ScaleUnitVariance, S::ScaleUnitVariance});
    Matrix good = FromColumns({{2, 6, 10}, {1, 2, 3}, {0, 4, 8}});
    s.ScaleMatrix(&good, true);
    const float oldSecond = s.GetScaleVector()[2];
    const float oldThird = s.GetScaleVector()[3];

    Matrix bad = FromColumns({{1, 3, 5}, {7, M, M}, {10, 20, 60}});
    ExpectScaleError([&] { s.ScaleMatrix(&bad, true); }, 2, NCScaleError::TooFewValues);
    // Column 1 refitted (sd 2).
    ExpectModel(s, {S::ScaleUnitVariance, S::ScaleUnitVariance, S::ScaleUnitVariance}, {3, 7, 30},
                {0.5f, oldSecond, oldThird});
    EXPECT_TRUE(SameCells(bad, FromColumns({{-2, 0, 2}, {0, M, M}, {-20, -10, 30}})));
    ExpectCountsExact(bad);
}

TEST(NCScale, VarianceLimitsRaiseTheirCodes)
{
    struct Case {
        std::vector<float> column;
        NCScale::Scaling type;
        NCScaleError::Error code;
    };
    const Case cases[] = {
        {{5, M, M}, S::ScalePareto, NCScaleError::TooFewValues},
        {{4, 4, M}, S::ScaleUnitVariance, NCScaleError::TooLittleVariance},
        // After centring 1e-36 and -1e-36: the factor passes 1e35.
        {{1e-36f, -1e-36f, M}, S::ScaleUnitVariance, NCScaleError::TooLittleVariance},
        {{-3e37f, 3e37f, M}, S::ScaleUnitVariance, NCScaleError::ValuesTooLarge},
        // Centring turns 1 into -99, which leaves one present value.
        {{1, 199, M}, S::ScaleUnitVariance, NCScaleError::TooFewValues},
    };
    for (const Case& c : cases) {
        Matrix m = FromColumns({{1, 2, 3}, c.column});
        NCScale s = Typed({S::ScaleCenter, c.type});
        ExpectScaleError([&] { s.ScaleMatrix(&m, true); }, 2, c.code);
        ExpectCountsExact(m);
    }

    // Pareto takes the root of the standard deviation, which keeps the
    // large column within the limits.
    Matrix m = FromColumns({{-3e37f, 3e37f}});
    NCScale s = Typed({S::ScalePareto});
    s.ScaleMatrix(&m, true);
    EXPECT_NEAR(s.GetScaleVector()[1], 1.0 / std::sqrt(std::sqrt(1.8e75)), 1e-25);
}

TEST(NCScale, CurrentModelChecksTheWidthAndLeavesTheMatrix)
{
    NCScale s = Typed({S::ScaleCenter, S::ScaleCenter});
    Matrix fit = FromColumns({{1, 2}, {3, 4}});
    s.ScaleMatrix(&fit, true);
    Matrix wide = FromColumns({{1, 2}, {3, 4}, {5, 6}});
    const Matrix before = wide;
    ExpectScaleError([&] { s.ScaleMatrix(&wide, false); }, 0, NCScaleError::WrongColumnCount);
    EXPECT_TRUE(SameCells(wide, before));
    // Fitting a model to a matrix of another width is refused as well.
    ExpectScaleError([&] { s.ScaleMatrix(&wide, true); }, 0, NCScaleError::WrongColumnCount);
    EXPECT_THROW(s.ScaleMatrix(nullptr, true), InvalidArgument);

    // Empty matrices: nothing to centre; a scaled column has too few values.
    Matrix noRows(0, 2);
    s.ScaleMatrix(&noRows, true);
    EXPECT_EQ(s.GetCenterVector()[1], M);
    NCScale uv = Typed({S::ScaleUnitVariance});
    Matrix none(0, 1);
    ExpectScaleError([&] { uv.ScaleMatrix(&none, true); }, 1, NCScaleError::TooFewValues);
    NCScale noColumns;
    Matrix nothing;
    noColumns.ScaleMatrix(&nothing, true);
    noColumns.ScaleMatrix(&nothing, false);
}

TEST(NCScale, TypesAndTheirTexts)
{
    NCScale s = Typed({S::ScaleUnitVariance, S::ScaleUnitVariance});
    Matrix m = FromColumns({{2, 6, 10}, {1, 2, 3}});
    s.ScaleMatrix(&m, true);
    s.SetType(1, S::ScaleUnitVariance); // unchanged: keeps the fit
    s.SetType(2, S::ScaleCenter);       // changed: both invalid
    ExpectModel(s, {S::ScaleUnitVariance, S::ScaleCenter}, {6, M}, {0.25f, M});
    EXPECT_THROW(s.SetType(3, S::ScaleNone), NCInternalError);
    EXPECT_THROW(s.GetScaleType(0), NCInternalError);

    EXPECT_EQ(NCScale::GetScaleType(Typed({S::ScaleCenter, S::ScaleCenter, S::ScaleUnitVariance})),
              std::make_pair(S::ScaleCenter, false));
    EXPECT_EQ(NCScale::GetScaleType(Typed({S::ScalePareto, S::ScalePareto})), std::make_pair(S::ScalePareto, true));
    EXPECT_EQ(NCScale::GetScaleType(NCScale()), std::make_pair(S::ScaleNone, true));
    s.SetSize(3); // types start again
    EXPECT_EQ(NCScale::GetScaleType(s), std::make_pair(S::ScaleNone, true));

    EXPECT_EQ(NCScale::GetScaleString(S::ScaleNone), "None");
    EXPECT_EQ(NCScale::GetScaleString(S::ScaleCenter), "Center");
    EXPECT_EQ(NCScale::GetScaleString(S::ScalePareto), "Pareto");
    EXPECT_EQ(NCScale::GetScaleString(S::ScaleUnitVariance), "Unit variance");
    EXPECT_EQ(NCScale::GetScaleString(static_cast<S::Scaling>(9)), "None");
    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    EXPECT_EQ(NCScale::GetScaleString(S::ScaleUnitVariance), "Einheitsvarianz");
    MessageCatalog::SetLanguage("C");
}

TEST(NCScale, ColumnSelectionKeepsTypesAndVectorsInStep)
{
    NCScale s = Typed({S::ScaleNone, S::ScaleCenter, S::ScalePareto, S::ScaleUnitVariance});
    Matrix m = FromColumns({{1, 2}, {3, 5}, {2, 6}, {0, 8}});
    s.ScaleMatrix(&m, true);
    const float uv = s.GetScaleVector()[4];
    NCScale r = s;
    r.RemoveValues(2, 2);
    ExpectModel(r, {S::ScaleNone, S::ScaleUnitVariance}, {M, 4}, {M, uv});
    NCScale removed = s;
    removed.Remove(NCIntegralVector<int, -99>{1, 3, 17});
    ExpectModel(removed, {S::ScaleCenter, S::ScaleUnitVariance}, {4, 4}, {M, uv});
    NCScale reduced = s;
    reduced.Reduce(NCIntegralVector<int, -99>{4, 4, 2});
    ExpectModel(reduced, {S::ScaleUnitVariance, S::ScaleUnitVariance, S::ScaleCenter}, {4, 4, 4}, {uv, uv, M});
    EXPECT_THROW(reduced.Reduce(NCIntegralVector<int, -99>{5}), NCInternalError);
    EXPECT_THROW(reduced.RemoveValues(3, 2), NCInternalError);
}

// The bytes of `times` writes without a reset in between, then a reset.
std::string Save(const NCScale& s, int times = 1)
{
    std::ostringstream out;
    for (int i = 0; i < times; ++i)
        out << s;
    s.QvStreamableReset();
    return out.str();
}

TEST(NCScale, RecordRoundTripAndRefusals)
{
    NCScale s = Typed({S::ScaleCenter, S::ScaleUnitVariance, static_cast<S::Scaling>(7)});
    Matrix m = FromColumns({{1, 2, 6}, {3, 5, 1}, {0, 1, 2}});
    s.ScaleMatrix(&m, true);
    const std::string bytes = Save(s);

    NCScale back;
    std::istringstream in(bytes);
    in >> back;
    ASSERT_TRUE(in);
    EXPECT_EQ(back.GetQvStreamVersionNumber(), 2);
    // The same bytes again: every type (the unknown 7 too) and both vectors
    // came through. Reading marks the object as streamed too.
    back.QvStreamableReset();
    EXPECT_EQ(Save(back), bytes);

    // Written once per save until reset, nested vectors included.
    EXPECT_EQ(Save(s, 2), bytes);
    EXPECT_EQ(Save(s), bytes);

    // Another version, and every truncation, leave the model as it was.
    std::ostringstream old;
    QvStreamLight::WriteMagicStringAndVersionNumber(old, 1, "NCS");
    old << bytes.substr(old.str().size());
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        const std::string damaged = cut == bytes.size() ? old.str() : bytes.substr(0, cut);
        NCScale target = Typed({S::ScalePareto});
        std::istringstream bad(damaged);
        bad >> target;
        EXPECT_FALSE(bad) << cut;
        EXPECT_EQ(target.Size(), 1);
        EXPECT_EQ(target.GetScaleType(1), S::ScalePareto);
    }
}

} // namespace
