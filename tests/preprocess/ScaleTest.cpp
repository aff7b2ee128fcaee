#include "veltancmat/preprocess/NCScale.h"

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/QvStream.h"

#include "containers/MatrixChecks.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <memory>
#include <sstream>

namespace {

#include "preprocess/fixtures/ScalingReference.inc"

using Matrix = NCDataMatrix<float>;
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



template <class F>
NCScaleError CatchScaleError(F f)
{
    try {
        f();
    } catch (const NCScaleError& e) {
        return e;
    }
    ADD_FAILURE() << "no NCScaleError";
    return NCScaleError(-1, NCScaleError::TooFewValues, ExceptionMessage::translate("none"));
}

using S = NCScale;

// A column with mean 6 and standard deviation 4, with and without a gap.
TEST(NCScale, EachTypeOnHandComputableColumns)
{
    Matrix m = FromColumns({{2, 6, 10, M}, {2, 6, 10, M}, {2, M, 6, 10}, {M, 2, 6, 10}});
    NCScale s = Typed({S::ScaleNone, S::ScaleCenter, S::ScalePareto, S::ScaleUnitVariance});
    s.ScaleMatrix(&m, true);

    EXPECT_EQ(s.GetCenterVector()[1], M);
    EXPECT_EQ(s.GetScaleVector()[1], M);
    EXPECT_EQ(s.GetCenterVector()[2], 6.0f);
    EXPECT_EQ(s.GetScaleVector()[2], M); // centred values keep their units
    EXPECT_EQ(s.GetScaleVector()[3], 0.5f);
    EXPECT_EQ(s.GetScaleVector()[4], 0.25f);
    const Matrix want = FromColumns({{2, 6, 10, M}, {-4, 0, 4, M}, {-2, M, 0, 2}, {M, -1, 0, 1}});
    for (int i = 1; i <= 4; ++i)
        for (int j = 1; j <= 4; ++j)
            EXPECT_EQ(m[i][j], want[i][j]) << i << "," << j;
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
    const float oldSecond = s.GetScaleVector()[2], oldThird = s.GetScaleVector()[3];

    Matrix bad = FromColumns({{1, 3, 5}, {7, M, M}, {10, 20, 60}});
    const NCScaleError e = CatchScaleError([&] { s.ScaleMatrix(&bad, true); });
    EXPECT_EQ(e.GetColumn(), 2);
    EXPECT_EQ(e.GetError(), NCScaleError::TooFewValues);
    EXPECT_STREQ(e.what(), "Could not scale matrix. Too few non missing values.");
    EXPECT_EQ(e.GetLevel(), NCError::Error);

    EXPECT_EQ(s.GetCenterVector()[1], 3.0f);
    EXPECT_EQ(s.GetCenterVector()[2], 7.0f);
    EXPECT_EQ(s.GetCenterVector()[3], 30.0f);
    EXPECT_EQ(s.GetScaleVector()[1], 0.5f); // sd 2, refitted
    EXPECT_EQ(s.GetScaleVector()[2], oldSecond);
    EXPECT_EQ(s.GetScaleVector()[3], oldThird);
    const Matrix centred = FromColumns({{-2, 0, 2}, {0, M, M}, {-20, -10, 30}});
    EXPECT_TRUE(SameCells(bad, centred));
    ExpectCountsExact(bad);

    const std::unique_ptr<NCScaleError> copy(e.Clone());
    EXPECT_EQ(copy->GetColumn(), 2);
    EXPECT_EQ(copy->GetError(), NCScaleError::TooFewValues);
    EXPECT_STREQ(copy->what(), e.what());
}

TEST(NCScale, VarianceLimitsRaiseTheirCodes)
{
    struct Case {
        std::vector<float> column;
        NCScale::Scaling type;
        NCScaleError::Error code;
        const char* text;
    };
    const Case cases[] = {
        {{5, M, M}, S::ScalePareto, NCScaleError::TooFewValues, "Could not scale matrix. Too few non missing values."},
        {{4, 4, M}, S::ScaleUnitVariance, NCScaleError::TooLittleVariance,
         "Could not scale matrix. Too little variance."},
        // After centring 1e-36 and -1e-36: the factor passes 1e35.
        {{1e-36f, -1e-36f, M}, S::ScaleUnitVariance, NCScaleError::TooLittleVariance,
         "Could not scale matrix. Too little variance."},
        {{-3e37f, 3e37f, M}, S::ScaleUnitVariance, NCScaleError::ValuesTooLarge,
         "Could not scale matrix. The values are too large."},
        // Centring turns 1 into -99, which leaves one present value.
        {{1, 199, M}, S::ScaleUnitVariance, NCScaleError::TooFewValues,
         "Could not scale matrix. Too few non missing values."},
    };
    for (const Case& c : cases) {
        Matrix m = FromColumns({{1, 2, 3}, c.column});
        NCScale s = Typed({S::ScaleCenter, c.type});
        const NCScaleError e = CatchScaleError([&] { s.ScaleMatrix(&m, true); });
        EXPECT_EQ(e.GetColumn(), 2) << c.text;
        EXPECT_EQ(e.GetError(), c.code) << c.text;
        EXPECT_STREQ(e.what(), c.text);
        ExpectCountsExact(m);
    }

    // Pareto takes the root of the standard deviation, which keeps the
    // large column within the limits.
    Matrix m = FromColumns({{-3e37f, 3e37f}});
    NCScale s = Typed({S::ScalePareto});
    s.ScaleMatrix(&m, true);
    EXPECT_NEAR(s.GetScaleVector()[1], 1.0 / std::sqrt(std::sqrt(1.8e75)), 1e-25);
}

TEST(NCScale, CentringOntoTheMarkerMakesTheCellMissing)
{
    Matrix m = FromColumns({{1, 199}, {5, 6}});
    NCScale s = Typed({S::ScaleCenter, S::ScaleCenter});
    s.ScaleMatrix(&m, true);
    EXPECT_EQ(m[1][1], M);
    EXPECT_EQ(m[2][1], 99.0f);
    ExpectCountsExact(m);
}

TEST(NCScale, CurrentModelChecksTheWidthAndLeavesTheMatrix)
{
    NCScale s = Typed({S::ScaleCenter, S::ScaleCenter});
    Matrix fit = FromColumns({{1, 2}, {3, 4}});
    s.ScaleMatrix(&fit, true);
    Matrix wide = FromColumns({{1, 2}, {3, 4}, {5, 6}});
    const Matrix before = wide;
    const NCScaleError e = CatchScaleError([&] { s.ScaleMatrix(&wide, false); });
    EXPECT_EQ(e.GetColumn(), 0);
    EXPECT_EQ(e.GetError(), NCScaleError::WrongColumnCount);
    EXPECT_STREQ(e.what(), "Could not scale matrix. The matrix has the wrong number of columns.");
    EXPECT_TRUE(SameCells(wide, before));
    // Fitting a model to a matrix of another width is refused as well.
    EXPECT_EQ(CatchScaleError([&] { s.ScaleMatrix(&wide, true); }).GetError(), NCScaleError::WrongColumnCount);
    EXPECT_THROW(s.ScaleMatrix(nullptr, true), InvalidArgument);

    // Empty matrices: nothing to centre; a scaled column has too few values.
    Matrix noRows(0, 2);
    s.ScaleMatrix(&noRows, true);
    EXPECT_EQ(s.GetCenterVector()[1], M);
    NCScale uv = Typed({S::ScaleUnitVariance});
    Matrix none(0, 1);
    EXPECT_EQ(CatchScaleError([&] { uv.ScaleMatrix(&none, true); }).GetError(), NCScaleError::TooFewValues);
    NCScale empty;
    Matrix nothing;
    empty.ScaleMatrix(&nothing, true);
    empty.ScaleMatrix(&nothing, false);
}

TEST(NCScale, TypesAndTheirTexts)
{
    NCScale s = Typed({S::ScaleUnitVariance, S::ScaleUnitVariance});
    Matrix m = FromColumns({{2, 6, 10}, {1, 2, 3}});
    s.ScaleMatrix(&m, true);
    s.SetType(1, S::ScaleUnitVariance); // unchanged: keeps the fit
    EXPECT_EQ(s.GetScaleVector()[1], 0.25f);
    EXPECT_EQ(s.GetCenterVector()[1], 6.0f);
    s.SetType(2, S::ScaleCenter); // changed: both invalid
    EXPECT_EQ(s.GetScaleVector()[2], M);
    EXPECT_EQ(s.GetCenterVector()[2], M);
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
    NCScale r = s;
    r.RemoveValues(2, 2);
    ASSERT_EQ(r.Size(), 2);
    EXPECT_EQ(r.GetScaleType(2), S::ScaleUnitVariance);
    EXPECT_EQ(r.GetCenterVector()[2], 4.0f);
    EXPECT_EQ(r.GetScaleVector().Size(), 2);

    NCScale removed = s;
    removed.Remove(NCIntegralVector<int, -99>{1, 3, 17});
    ASSERT_EQ(removed.Size(), 2);
    EXPECT_EQ(removed.GetScaleType(1), S::ScaleCenter);
    EXPECT_EQ(removed.GetCenterVector()[1], 4.0f);
    EXPECT_EQ(removed.GetScaleType(2), S::ScaleUnitVariance);

    NCScale reduced = s;
    reduced.Reduce(NCIntegralVector<int, -99>{4, 4, 2});
    ASSERT_EQ(reduced.Size(), 3);
    EXPECT_EQ(reduced.GetScaleType(1), S::ScaleUnitVariance);
    EXPECT_EQ(reduced.GetScaleType(3), S::ScaleCenter);
    EXPECT_EQ(reduced.GetScaleVector()[2], s.GetScaleVector()[4]);
    EXPECT_THROW(reduced.Reduce(NCIntegralVector<int, -99>{5}), NCInternalError);
    EXPECT_THROW(reduced.RemoveValues(3, 2), NCInternalError);
}

std::string Save(const NCScale& s)
{
    std::ostringstream out;
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
    EXPECT_EQ(back.Size(), 3);
    EXPECT_EQ(back.GetScaleType(3), static_cast<S::Scaling>(7));
    EXPECT_TRUE(back.GetCenterVector() == s.GetCenterVector());
    EXPECT_TRUE(back.GetScaleVector() == s.GetScaleVector());
    EXPECT_EQ(back.GetQvStreamVersionNumber(), 2);
    back.QvStreamableReset(); // reading marks the object as streamed too
    EXPECT_EQ(Save(back), bytes);

    // Written once per save until reset, nested vectors included.
    std::ostringstream twice;
    twice << s << s;
    s.QvStreamableReset();
    EXPECT_EQ(twice.str(), bytes);
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
