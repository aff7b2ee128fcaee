#include "veltancmat/containers/NCSVD.h"
#include "veltancmat/containers/frame/ProgressScope.h"
#include "veltancmat/models/NCComponentValidator.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/NCPCAPred.h"
#include "veltancmat/models/ScoreEstimator.h"
#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/NCError.h"

#include "containers/MatrixChecks.h"
#include "models/ModelData.h"
#include "platform/Caught.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <sstream>

namespace {

NCPCA FitComponents(const NCDataMatrix<float>& x, int components, int maxIterations = 500)
{
    NCPCA pca(&x, maxIterations);
    for (int a = 1; a <= components; ++a) {
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        pca.CalculateResiduals();
    }
    return pca;
}

} // namespace

// On complete data NIPALS converges to the singular vectors: loadings to
// V's columns, scores to sigma u, and each component explains sigma^2 of
// the total sum of squares.
TEST(PCAModel, CompleteDataMatchesTheSVD)
{
    const NCDataMatrix<float> x = LowRankTable(60, 9, 3, 0.3);
    auto svd = x.GetSVD();
    svd->Sort();
    const NCDataVector<float>& w = *svd->GetW();
    const double total = w.GetSS();
    ASSERT_NEAR(total, x.GetSS(), 1e-4 * total);

    NCPCA pca(&x, 1000);
    for (int a = 1; a <= 3; ++a) {
        const double before = pca.GetResiduals()->GetSS();
        ASSERT_TRUE(pca.NextComponent(nullptr, nullptr, 0, nullptr));
        pca.CalculateResiduals();
        EXPECT_NEAR((before - pca.GetResiduals()->GetSS()) / total, double(w[a]) * w[a] / total, 1e-4) << a;

        const NCDataVector<float>& p = (*pca.GetPprim())[a];
        const NCDataVector<float> v = svd->GetV()->GetColumn(a);
        EXPECT_NEAR(AbsCosine(p, v), 1.0, 1e-5) << "component " << a;
        EXPECT_NEAR(std::sqrt(p.GetSS()), 1.0, 1e-6);
        const double sign = (p * v) < 0 ? -1.0 : 1.0;
        for (int i = 1; i <= x.SizeRows(); ++i)
            ASSERT_NEAR((*pca.GetTprim())[a][i], sign * w[a] * (*svd->GetU())[i][a], 2e-4 * w[a]) << a << "," << i;
    }
    EXPECT_EQ(pca.GetComponents(), 3);
    EXPECT_EQ(pca.GetPprim()->SizeRows(), 3);
    EXPECT_EQ(pca.GetTprim()->SizeColumns(), 60);
}

TEST(PCAModel, OneObservationIsItsOwnComponent)
{
    NCDataMatrix<float> x(1, 3, -99.0f);
    x(1, 1, 3.0f), x(1, 3, 4.0f);
    NCPCA pca(&x, 100);
    pca.NextComponent(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(pca.GetIterations(), 1);
    EXPECT_FLOAT_EQ((*pca.GetTprim())[1][1], 5.0f);
    EXPECT_FLOAT_EQ((*pca.GetPprim())[1][1], 0.6f);
    EXPECT_EQ((*pca.GetPprim())[1][2], -99.0f);
    EXPECT_FLOAT_EQ((*pca.GetPprim())[1][3], 0.8f);
    pca.CalculateResiduals();
    EXPECT_NEAR((*pca.GetResiduals())[1][1], 0.0f, 1e-6);
    EXPECT_EQ((*pca.GetResiduals())[1][2], -99.0f);
}

// With one iteration the component is exactly one pass from the filled
// start column, so the fill (+m, -m, +m in order) can be checked.
TEST(PCAModel, StartColumnGapsAreFilledWithAlternatingSigns)
{
    NCDataMatrix<float> x = LowRankTable(12, 4, 2, 0.1);
    int col = 1;
    while (col <= 4 && !(x.GetColumn(col) == x.GetNIPALSStartColumn()))
        ++col;
    ASSERT_LE(col, 4);
    x(2, col, -99.0f), x(5, col, -99.0f), x(9, col, -99.0f);
    ASSERT_EQ(x.GetNIPALSStartColumn(), x.GetColumn(col)); // still the largest

    NCDataVector<float> t0 = x.GetColumn(col);
    float largest = 0.0f;
    for (int i = 1; i <= 12; ++i)
        largest = t0[i] == -99.0f ? largest : std::max(largest, std::fabs(t0[i]));
    const float m = largest / 100.0f;
    t0(2, m), t0(5, -m), t0(9, m);
    NCDataVector<float> p = x.SpecialNipalsRegressColumnsFix(t0);
    p.Normalize();

    NCPCA pca(&x, 1);
    pca.NextComponent(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(pca.GetIterations(), 1);
    EXPECT_EQ((*pca.GetPprim())[1], p);
    EXPECT_EQ((*pca.GetTprim())[1], x.SpecialNipalsRegressRowsFix(p));
}

TEST(PCAModel, MissingVariablesKeepAMissingLoading)
{
    // A wholly missing variable: the others as if it were not there.
    NCDataMatrix<float> x = LowRankTable(30, 5, 2, 0.2);
    NCDataMatrix<float> without = x;
    without.RemoveColumns(3, 3);
    for (int i = 1; i <= 30; ++i)
        x(i, 3, -99.0f);
    const NCPCA with = FitComponents(x, 2), reference = FitComponents(without, 2);
    for (int a = 1; a <= 2; ++a)
        for (int j = 1; j <= 5; ++j)
            EXPECT_NEAR((*with.GetPprim())[a][j], j == 3 ? -99.0f : (*reference.GetPprim())[a][j - (j > 3)], 1e-5)
                << "component " << a << " variable " << j;

    // Variables of the left-out group.
    const NCDataMatrix<float> y = LowRankTable(20, 6, 2, 0.2);
    const NCIntegralVector<int, -99> groups{1, 2, 1, 0, 2, 0};
    NCPCA pca(&y, 200);
    pca.NextComponent(nullptr, &groups, 2, nullptr);
    const NCDataVector<float>& p = (*pca.GetPprim())[1];
    for (int j = 1; j <= 6; ++j)
        EXPECT_EQ(p[j] == -99.0f, groups[j] == 2) << "variable " << j;
    EXPECT_NEAR(p.GetSS(), 1.0, 1e-6);
}

TEST(PCAModel, FailuresAreReportedCountedAndTranslated)
{
    NCDataMatrix<float> x(4, 3, -99.0f);
    NCPCA pca(&x, 50);
    const auto e = Caught<NCError>([&] { pca.NextComponent(nullptr, nullptr, 0, nullptr); });
    ASSERT_TRUE(e);
    EXPECT_EQ(e->GetLevel(), NCError::Error);
    EXPECT_STREQ(e->what(), "PCA component could not be computed.");
    // The count is raised before the work and stays raised.
    EXPECT_EQ(pca.GetComponents(), 1);
    EXPECT_EQ(pca.GetPprim()->SizeRows(), 0);
    EXPECT_THROW(pca.CalculateResiduals(), NCInternalError);

    const NCDataMatrix<float> y = LowRankTable(5, 3, 1, 0.1);
    NCPCA sized(&y, 50);
    NCDataVector<float> shortStart(4, 1.0f);
    EXPECT_THROW(sized.NextComponent(nullptr, nullptr, 0, &shortStart), NCInternalError);

    MessageCatalog::SetLanguage("de_DE.UTF-8", VELTAN_TEST_LOCALE_DIR);
    const auto german = Caught<NCError>([&] { NCPCA(&x, 10).NextComponent(nullptr, nullptr, 0, nullptr); });
    const std::string text = german ? german->what() : "";
    const std::string caption = ProgressCaption("CV = Cross-validation", "CV round %1% of %2% (rows)", 2, 7);
    MessageCatalog::SetLanguage("C");
    EXPECT_EQ(text, "Die PCA-Komponente konnte nicht berechnet werden.");
    EXPECT_EQ(caption, "KV-Runde 2 von 7 (Zeilen)");
}

// The iteration ends at the limit, on convergence (the progress range runs
// from the first distance down to 0) or on a break.
TEST(PCAModel, IterationEndsAtTheLimitOnConvergenceOrOnABreak)
{
    const NCDataMatrix<float> x = LowRankTable(40, 6, 3, 1.0);
    NCPCA once(&x, 1);
    once.NextComponent(nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(once.GetIterations(), 1);

    NCProgress progress;
    NCPCA many(&x, 1000);
    many.NextComponent(&progress, nullptr, 0, nullptr);
    EXPECT_GT(many.GetIterations(), 1);
    EXPECT_LT(many.GetIterations(), 1000);
    EXPECT_NEAR(progress.GetFraction(), 1.0, 1e-6);

    NCProgress breaking;
    int values = 0;
    breaking.SetObserver(
        [&](const NCProgressSnapshot&) {
            if (++values == 2)
                breaking.RequestBreak();
        },
        std::chrono::milliseconds{0}, std::chrono::milliseconds{0});
    NCPCA broken(&x, 1000);
    const auto e = Caught<CancelException>([&] { broken.NextComponent(&breaking, nullptr, 0, nullptr); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "PC component aborted.");
    EXPECT_EQ(broken.GetPprim()->SizeRows(), 0);
}

TEST(PCAModel, RecordRoundTripKeepsTheComponentCount)
{
    NCDataMatrix<float> x = LowRankTable(15, 4, 2, 0.3);
    KnockOut(x, 0.1);
    const NCPCA pca = FitComponents(x, 2, 77);
    std::stringstream s;
    ASSERT_TRUE((s << pca).good());
    pca.QvStreamableReset();

    NCPCA read;
    ASSERT_TRUE((s >> read).good());
    EXPECT_TRUE(SameCells(*read.GetPprim(), *pca.GetPprim()));
    EXPECT_TRUE(SameCells(*read.GetTprim(), *pca.GetTprim()));
    EXPECT_TRUE(SameCells(*read.GetResiduals(), *pca.GetResiduals()));
    ExpectCountsExact(*read.GetResiduals());
    EXPECT_EQ(read.GetMaxIterations(), 77);
    EXPECT_EQ(read.GetIterations(), pca.GetIterations());
    EXPECT_EQ(read.GetComponents(), 0); // not part of the record

    // Another version, and a cut record, are refused and leave the model alone.
    const std::string bytes = s.str();
    const std::size_t at = bytes.find("NCPCA") + 5;
    ASSERT_LT(at + 1, bytes.size());
    std::string other = bytes;
    other[at] = static_cast<char>(other[at] + 1);
    for (const std::string& bad : {other, bytes.substr(0, bytes.size() / 2)}) {
        std::stringstream in(bad);
        NCPCA untouched;
        EXPECT_FALSE((in >> untouched).good());
        EXPECT_EQ(untouched.GetPprim()->SizeRows(), 0);
    }
}

TEST(PCAPrediction, TrainingRowsReproduceTheirScoresAndSparseRowsGetNone)
{
    const NCDataMatrix<float> x = LowRankTable(25, 7, 3, 0.2);
    const NCPCA pca = FitComponents(x, 3, 2000);
    NCPCAPred pred(&x, pca.GetPprim(), 100, 0.5f);
    ASSERT_EQ(pred.GetMaxComp(), 3);
    ASSERT_EQ(pred.SizeObservations(), 25);
    for (int a = 1; a <= 3; ++a)
        for (int i = 1; i <= 25; ++i)
            ASSERT_NEAR(pred.GetTPredPrim()[a][i], (*pca.GetTprim())[a][i], 1e-3) << a << "," << i;

    for (int a = 1; a <= 3; ++a)
        pred.CalcNextResidual();
    EXPECT_EQ(pred.GetResidualsCompComputed(), 3);
    EXPECT_THROW(pred.CalcNextResidual(), NCInternalError);
    for (int i = 1; i <= 25; ++i)
        for (int j = 1; j <= 7; ++j)
            ASSERT_NEAR(pred.GetXResiduals()[i][j], (*pca.GetResiduals())[i][j], 1e-3);

    NCPCAPred copy = pred;
    copy.RemoveObservations(NCIntegralVector<int, -99>{2, 5});
    EXPECT_EQ(copy.SizeObservations(), 23);
    EXPECT_EQ(copy.GetTPredPrim().SizeColumns(), 23);
    EXPECT_EQ(copy.GetTPredPrim()[1][2], pred.GetTPredPrim()[1][3]);
    EXPECT_EQ(pred.SizeObservations(), 25);

    // A row missing more than half its values gets no scores.
    NCDataMatrix<float> fresh = x.SubMat(1, 3, 1, 7);
    for (int j = 1; j <= 4; ++j)
        fresh(2, j, -99.0f);
    const NCPCAPred sparse(&fresh, pca.GetPprim(), 100, 0.5f);
    for (int a = 1; a <= 3; ++a) {
        EXPECT_EQ(sparse.GetTPredPrim()[a][2], -99.0f);
        EXPECT_NEAR(sparse.GetTPredPrim()[a][1], (*pca.GetTprim())[a][1], 1e-3);
    }
    NCDataMatrix<float> wide(2, 8, 1.0f);
    EXPECT_THROW(NCPCAPred(&wide, pca.GetPprim(), 100, 0.5f), NCInternalError);
}

// Rows with gaps are fitted by a PLS regression of their present values on
// the loadings. That fit adds components only while the y-loading stays
// below 2, so the table is scaled to scores of order one, where every
// component is used and the gapped rows land near their complete versions.
TEST(PCAPrediction, RowsWithGapsScoreCloseToTheirCompleteVersion)
{
    NCDataMatrix<float> x = LowRankTable(40, 40, 3, 0.05);
    for (int j = 1; j <= 40; ++j)
        x.MultiplyColumn(j, 0.02);
    const NCPCA pca = FitComponents(x, 3, 2000);
    NCDataMatrix<float> fresh = x.SubMat(1, 6, 1, 40);
    for (int i = 1; i <= 5; ++i) // row 6 stays complete
        for (int g = 0; g < i % 3 + 1; ++g)
            fresh(i, 1 + (i * 7 + g * 5) % 40, -99.0f);
    const NCPCAPred complete(&x, pca.GetPprim(), 100, 0.5f);
    const NCPCAPred gapped(&fresh, pca.GetPprim(), 100, 0.5f);
    for (int a = 1; a <= 3; ++a) {
        const float spread = std::sqrt(static_cast<float>((*pca.GetTprim())[a].GetSS() / 40.0));
        for (int i = 1; i <= 5; ++i)
            EXPECT_NEAR(gapped.GetTPredPrim()[a][i], complete.GetTPredPrim()[a][i], 0.05f * spread) << i << "," << a;
        EXPECT_EQ(gapped.GetTPredPrim()[a][6], complete.GetTPredPrim()[a][6]);
    }

    // Nothing left to regress on: no component, and the scores are zero.
    NCDataVector<float> t;
    ScoreEstimator(*pca.GetPprim(), 100).GetT(t, NCDataVector<float>(40, -99.0f));
    EXPECT_EQ(t, NCDataVector<float>(3, 0.0f));
}

TEST(PCAValidator, TurnsInvalidOnceOnePercentIsLeft)
{
    const NCDataMatrix<float> x = LowRankTable(30, 6, 3, 0.05);
    NCPCA pca(&x, 500);
    PCA_SS_ComponentValidator validator(&pca, 0.01f);
    EXPECT_TRUE(validator.IsPreComponentValidator());
    const double ss0 = x.GetSS();
    bool turned = false;
    for (int a = 1; a <= 5; ++a) {
        EXPECT_EQ(validator.IsValid(), pca.GetResiduals()->GetSS() / ss0 > 0.01) << "before component " << a;
        turned = turned || !validator.IsValid();
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        pca.CalculateResiduals();
    }
    EXPECT_TRUE(turned);
    validator.Done();

    NCDataMatrix<float> zero(3, 2, 0.0f);
    NCPCA empty(&zero, 10);
    validator.SetPCAModel(&empty);
    EXPECT_FALSE(validator.IsValid()); // nothing to explain

    NCDataMatrix<float> huge(2, 2, 3e38f);
    NCPCA overflowing(&huge, 10);
    const auto e = Caught<NCError>([&] { validator.SetPCAModel(&overflowing); });
    ASSERT_TRUE(e);
    EXPECT_STREQ(e->what(), "Infinite value encountered, try changing the transformation or trim the dataset.");
}
