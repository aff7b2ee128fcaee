#include "veltancmat/containers/NCNipalsBatch.h"

#include "veltancmat/platform/NCError.h"

#include "platform/OmpTeam.h"

#include <gtest/gtest.h>

#include <omp.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace {

NCDataMatrix<float> Random(int rows, int cols, double gapShare, std::mt19937& rng)
{
    std::normal_distribution<float> value(0.0f, 2.0f);
    std::bernoulli_distribution gap(gapShare);
    NCDataMatrix<float> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, gap(rng) ? NCDataMatrix<float>::MisVal : value(rng));
    return m;
}

NCDataVector<float> RandomVector(int n, double gapShare, std::mt19937& rng)
{
    std::normal_distribution<float> value(0.0f, 1.0f);
    std::bernoulli_distribution gap(gapShare);
    NCDataVector<float> v(n);
    for (int k = 1; k <= n; ++k)
        v(k, gap(rng) ? NCDataVector<float>::MisVal : value(rng));
    return v;
}

// The batch against the single-vector projection it stands for: the same
// cells missing, the values equal up to the order of the additions.
void ExpectSameProjection(const NCDataVector<float>& batch, const NCDataVector<float>& single, const std::string& what)
{
    ASSERT_EQ(batch.Size(), single.Size()) << what;
    EXPECT_EQ(batch.GetNumMisVal(), single.GetNumMisVal()) << what;
    for (int k = 1; k <= single.Size(); ++k) {
        ASSERT_EQ(IsMisVal(batch[k]), IsMisVal(single[k])) << what << " at " << k;
        if (!IsMisVal(single[k])) {
            EXPECT_NEAR(batch[k], single[k], 2e-5 * (1.0 + std::fabs(single[k]))) << what << " at " << k;
        }
    }
}

struct Shape {
    int rows, cols;
    double gaps;
};

class NipalsBatchTest : public ::testing::TestWithParam<int> {
    const OmpTeam m_team{GetParam()};
};

// Widths with and without a tail after the last strip of eight, narrow
// response-like matrices, row counts off the blocks of eight, and vector
// counts on both sides of one pass's limit; score and weight vectors with
// gaps, as the rounds of a cross-validation leave rows out.
TEST_P(NipalsBatchTest, EveryVectorGetsItsOwnSingleProjection)
{
    std::mt19937 rng(5);
    for (const Shape& shape : {Shape{203, 37, 0.05}, Shape{64, 16, 0.0}, Shape{301, 5, 0.1}, Shape{9, 203, 0.3},
                               Shape{700, 64, 0.02}}) {
        const NCDataMatrix<float> x = Random(shape.rows, shape.cols, shape.gaps, rng);
        const NCNipalsBatch batch(x);
        for (int vectors : {1, 3, 7, 8, 11}) {
            std::vector<NCDataVector<float>> scores, weights, columns(vectors), rows(vectors);
            std::vector<const NCDataVector<float>*> scoreIn, weightIn;
            std::vector<NCDataVector<float>*> columnOut, rowOut;
            for (int r = 0; r < vectors; ++r) {
                scores.push_back(RandomVector(shape.rows, r % 3 == 0 ? 0.15 : 0.0, rng));
                weights.push_back(RandomVector(shape.cols, r % 2 == 0 ? 0.1 : 0.0, rng));
            }
            for (int r = 0; r < vectors; ++r) {
                scoreIn.push_back(&scores[r]);
                weightIn.push_back(&weights[r]);
                columnOut.push_back(&columns[r]);
                rowOut.push_back(&rows[r]);
            }
            batch.Columns(scoreIn, columnOut);
            batch.Rows(weightIn, rowOut);
            for (int r = 0; r < vectors; ++r) {
                const std::string what = std::to_string(shape.rows) + " x " + std::to_string(shape.cols) + ", " +
                                         std::to_string(vectors) + " vectors, vector " + std::to_string(r);
                ExpectSameProjection(columns[r], x.SpecialNipalsRegressColumnsFix(scores[r]), what + " (columns)");
                ExpectSameProjection(rows[r], x.SpecialNipalsRegressRowsFix(weights[r]), what + " (rows)");
            }
        }
        for (int i = 1; i <= shape.rows; ++i) {
            const double ss = x[i].HasValidValues() ? x[i].GetSS() : 0.0;
            ASSERT_NEAR(batch.RowSS(i), ss, 1e-5 * (1.0 + ss)) << "row " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Threads, NipalsBatchTest, ::testing::Values(1, 2));

// The floor and the undefined cases: a column missing wherever the scores
// are present, a score vector missing everywhere, a weight vector meeting
// only gaps, and a column whose gaps carry almost all of the squares.
TEST(NipalsBatch, UndefinedAndFlooredCellsMatchTheSingleProjection)
{
    NCDataMatrix<float> x(6, 3, 1.0f);
    for (int i = 1; i <= 3; ++i)
        x(i, 2, NCDataMatrix<float>::MisVal);
    x(4, 3, NCDataMatrix<float>::MisVal);
    x(5, 1, 7.0f);
    NCDataVector<float> firstHalf(6, NCDataVector<float>::MisVal), none(6, NCDataVector<float>::MisVal), heavy(6, 0.1f);
    for (int i = 1; i <= 3; ++i)
        firstHalf(i, static_cast<float>(i));
    heavy(4, 10.0f);
    NCDataVector<float> onlySecond(3, NCDataVector<float>::MisVal);
    onlySecond(2, 1.0f);

    const NCNipalsBatch batch(x);
    NCDataVector<float> a, b, c, rows;
    const NCDataVector<float>* in[] = {&firstHalf, &none, &heavy};
    NCDataVector<float>* out[] = {&a, &b, &c};
    batch.Columns(in, out);
    ExpectSameProjection(a, x.SpecialNipalsRegressColumnsFix(firstHalf), "column missing where scores are");
    EXPECT_TRUE(IsMisVal(a[2]));
    ExpectSameProjection(b, x.SpecialNipalsRegressColumnsFix(none), "no scores");
    EXPECT_EQ(b.GetNumMisVal(), 3);
    ExpectSameProjection(c, x.SpecialNipalsRegressColumnsFix(heavy), "floored column");

    const NCDataVector<float>* weightIn[] = {&onlySecond};
    NCDataVector<float>* rowOut[] = {&rows};
    batch.Rows(weightIn, rowOut);
    ExpectSameProjection(rows, x.SpecialNipalsRegressRowsFix(onlySecond), "weights meeting gaps");
    EXPECT_EQ(rows.GetNumMisVal(), 3);
}

TEST(NipalsBatch, MismatchedVectorsThrow)
{
    const NCDataMatrix<float> x(4, 3, 1.0f);
    const NCNipalsBatch batch(x);
    NCDataVector<float> rowsLong(4, 1.0f), colsLong(3, 1.0f), result;
    const NCDataVector<float>* wrongForColumns[] = {&colsLong};
    const NCDataVector<float>* wrongForRows[] = {&rowsLong};
    NCDataVector<float>* out[] = {&result};
    EXPECT_THROW(batch.Columns(wrongForColumns, out), NCInternalError);
    EXPECT_THROW(batch.Rows(wrongForRows, out), NCInternalError);
    const NCDataVector<float>* two[] = {&rowsLong, &rowsLong};
    EXPECT_THROW(batch.Columns(two, out), NCInternalError);
    NCDataVector<float>* nothing[] = {nullptr};
    EXPECT_THROW(batch.Rows(wrongForColumns, nothing), NCInternalError);
}

} // namespace
