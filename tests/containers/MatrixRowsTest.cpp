#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/frame/ThreadingControl.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <string>
#include <vector>

namespace {

template <class T>
NCDataMatrix<T> RandomMatrix(int rows, int cols, double missingShare, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<double> value;
    std::bernoulli_distribution missing(missingShare);
    NCDataMatrix<T> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, missing(rng) ? NCMisVal<T> : static_cast<T>(value(rng)));
    return m;
}

template <class T>
NCDataVector<T> RandomVector(int n, double missingShare, unsigned seed)
{
    return RandomMatrix<T>(1, n, missingShare, seed)[1];
}

// Row numbers in random order, some twice, some not at all.
NCIntegralVector<int, -99> Scrambled(int rows, int count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> row(1, rows);
    NCIntegralVector<int, -99> pick(count);
    for (int k = 1; k <= count; ++k)
        pick(k) = row(rng);
    return pick;
}

template <class T>
void ExpectSameBits(const NCDataVector<T>& got, const NCDataVector<T>& want, const char* what)
{
    ASSERT_EQ(got.Size(), want.Size()) << what;
    for (int k = 1; k <= got.Size(); ++k)
        ASSERT_EQ(got[k], want[k]) << what << " at " << k;
    EXPECT_EQ(got.GetNumMisVal(), want.GetNumMisVal()) << what;
}

template <class T>
class MatrixRows : public ::testing::Test {
protected:
    void TearDown() override { NCMultiThreading::ThreadingControl::Reset(); }
};

using Types = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixRows, Types);

// The selection must give the copied submatrix's results exactly: the
// cross-validation rounds rely on it to be the model on the kept rows.
// The shapes cover the serial and the parallel passes, short rows, and
// the prefetching ones.
TYPED_TEST(MatrixRows, AgreeBitForBitWithTheCopiedRows)
{
    using T = TypeParam;
    struct Shape {
        int rows, cols, picked;
        double missing;
    };
    for (const Shape s : {Shape{40, 7, 25, 0.1}, Shape{600, 90, 450, 0.05}, Shape{900, 300, 800, 0.0},
                          Shape{3000, 240, 2600, 0.02}}) {
        for (int threads : {1, 2}) {
            omp_set_num_threads(threads);
            const NCDataMatrix<T> m = RandomMatrix<T>(s.rows, s.cols, s.missing, 7u + s.rows);
            const NCIntegralVector<int, -99> pick = Scrambled(s.rows, s.picked, 3u + s.cols);
            const NCDataMatrix<T> copied = m.GetRowSubMatrix(pick);
            const NCDataMatrixRows<T> view(m, pick);
            SCOPED_TRACE(std::to_string(s.rows) + " x " + std::to_string(s.cols) + ", threads " +
                         std::to_string(threads));

            ASSERT_EQ(view.SizeRows(), s.picked);
            ASSERT_EQ(view.SizeColumns(), s.cols);
            EXPECT_EQ(view.GetNumMisVal(), copied.GetNumMisVal());
            EXPECT_EQ(view.GetSS(), copied.GetSS());
            EXPECT_TRUE(SameCells(view.ToMatrix(), copied));

            NCDataVector<T> got;
            view.GetNIPALSStartColumn(&got);
            ExpectSameBits(got, copied.GetNIPALSStartColumn(), "start column");
            for (double tMissing : {0.0, 0.1}) {
                const NCDataVector<T> t = RandomVector<T>(s.picked, tMissing, 11u + s.picked);
                view.SpecialNipalsRegressColumnsFix(t, &got);
                ExpectSameBits(got, copied.SpecialNipalsRegressColumnsFix(t), "columns");
            }
            const NCDataVector<T> p = RandomVector<T>(s.cols, 0.05, 13u + s.cols);
            view.SpecialNipalsRegressRowsFix(p, &got);
            ExpectSameBits(got, copied.SpecialNipalsRegressRowsFix(p), "rows");

            // Variables labelled 2 of 3 groups left out.
            NCIntegralVector<int, -99> groups(s.cols);
            for (int j = 1; j <= s.cols; ++j)
                groups(j) = j % 3;
            const NCDataVector<T> t = RandomVector<T>(s.picked, 0.0, 17u);
            view.SpecialNipalsRegressColumnsFix(t, &got, &groups, 2);
            ExpectSameBits(got, copied.SpecialNipalsRegressColumnsFix(t, &groups, 2), "columns, group left out");
            view.SpecialNipalsRegressRowsFix(p, &got, &groups, 2);
            ExpectSameBits(got, copied.SpecialNipalsRegressRowsFix(p, &groups, 2), "rows, group left out");
        }
    }
}

// A column whose only gaps lie in rows left out is complete in the
// selection, so its loading divides by t't and not by the floored sum.
TYPED_TEST(MatrixRows, ColumnsCompleteWithinTheSelectionUseTheFullDenominator)
{
    using T = TypeParam;
    const T M = NCMisVal<T>;
    NCDataMatrix<T> m(4, 2);
    const T cells[4][2] = {{1, 2}, {3, M}, {5, 6}, {M, 8}};
    for (int i = 1; i <= 4; ++i)
        for (int j = 1; j <= 2; ++j)
            m(i, j, cells[i - 1][j - 1]);
    const NCDataMatrixRows<T> view(m, NCIntegralVector<int, -99>{1, 3});
    EXPECT_EQ(view.GetNumMisVal(), 0);
    NCDataVector<T> t(2), p;
    t(1, T(1));
    t(2, T(2));
    view.SpecialNipalsRegressColumnsFix(t, &p);
    EXPECT_NEAR(p[1], (1.0 + 10.0) / 5.0, 1e-6);
    EXPECT_NEAR(p[2], (2.0 + 12.0) / 5.0, 1e-6);

    // Row 2 brings its gap back: column 2 now floors at (t't)/3 against
    // the squares of the rows it shares with t.
    const NCDataMatrixRows<T> withGap(m, NCIntegralVector<int, -99>{1, 2});
    EXPECT_EQ(withGap.GetNumMisVal(), 1);
    withGap.SpecialNipalsRegressColumnsFix(t, &p);
    EXPECT_NEAR(p[2], 2.0 / std::max(5.0 / 3.0, 1.0), 1e-6);
}

TYPED_TEST(MatrixRows, EveryRowIsTheMatrixItself)
{
    using T = TypeParam;
    const NCDataMatrix<T> m = RandomMatrix<T>(50, 9, 0.1, 5);
    const NCDataMatrixRows<T> all(m);
    EXPECT_EQ(all.SizeRows(), 50);
    EXPECT_EQ(all.GetSS(), m.GetSS());
    EXPECT_TRUE(SameCells(all.ToMatrix(), m));
    NCDataVector<T> got;
    const NCDataVector<T> t = RandomVector<T>(50, 0.1, 6);
    all.SpecialNipalsRegressColumnsFix(t, &got);
    ExpectSameBits(got, m.SpecialNipalsRegressColumnsFix(t), "columns");
}

TYPED_TEST(MatrixRows, EmptyAndWhollyMissingSelections)
{
    using T = TypeParam;
    const T M = NCMisVal<T>;
    NCDataMatrix<T> m(3, 2, T(1));
    m(2, 1, M);
    m(2, 2, M);
    const NCDataMatrixRows<T> none(m, NCIntegralVector<int, -99>());
    EXPECT_EQ(none.SizeRows(), 0);
    EXPECT_EQ(none.GetSS(), -99.0);
    NCDataVector<T> p;
    none.SpecialNipalsRegressColumnsFix(NCDataVector<T>(), &p);
    EXPECT_EQ(p.Size(), 2);
    EXPECT_TRUE(p.HasAllMissingValues());

    const NCDataMatrixRows<T> gaps(m, NCIntegralVector<int, -99>{2, 2});
    EXPECT_EQ(gaps.GetSS(), -99.0);
    NCDataVector<T> t;
    gaps.SpecialNipalsRegressRowsFix(NCDataVector<T>(2, T(1)), &t);
    EXPECT_EQ(t.Size(), 2);
    EXPECT_TRUE(t.HasAllMissingValues());
}

TYPED_TEST(MatrixRows, BadInputThrowsNamingTheMember)
{
    using T = TypeParam;
    const NCDataMatrix<T> m = RandomMatrix<T>(5, 3, 0.0, 1);
    auto expectInternal = [](auto&& call, const std::string& member) {
        try {
            call();
            ADD_FAILURE() << "no error for " << member;
        } catch (const NCInternalError& e) {
            EXPECT_NE(std::string(e.what()).find("NCDataMatrixRows<FloatType>::" + member), std::string::npos)
                << e.what();
        }
    };
    expectInternal([&] { NCDataMatrixRows<T>(m, NCIntegralVector<int, -99>{1, 6}); }, "NCDataMatrixRows");
    expectInternal([&] { NCDataMatrixRows<T>(m, NCIntegralVector<int, -99>{0}); }, "NCDataMatrixRows");
    const NCDataMatrixRows<T> view(m, NCIntegralVector<int, -99>{5, 1});
    NCDataVector<T> out;
    expectInternal([&] { view.SpecialNipalsRegressColumnsFix(NCDataVector<T>(5), &out); },
                   "SpecialNipalsRegressColumnsFix");
    expectInternal([&] { view.SpecialNipalsRegressRowsFix(NCDataVector<T>(2), &out); },
                   "SpecialNipalsRegressRowsFix");
    const NCIntegralVector<int, -99> shortGroups{1, 2};
    expectInternal([&] { view.SpecialNipalsRegressRowsFix(NCDataVector<T>(3), &out, &shortGroups, 1); },
                   "SpecialNipalsRegressRowsFix");
    EXPECT_THROW(view.SpecialNipalsRegressRowsFix(NCDataVector<T>(3), nullptr), NCError);
}

} // namespace
