// PCA and PLS fitted through the one-sweep kernels against the same NIPALS
// written with the separate public projections (two reads of the residuals
// per iteration, the deflation apart): scores, loadings, weights, residuals
// and iteration counts must agree to the bit, with and without gaps, with
// whole rows or columns missing, on one column, and on one and two threads.
// (The models sweep only complete data; with gaps they keep the two passes,
// and the kernels' masked sweeps are compared in NipalsSweepTest.)
#include "models/ModelData.h"
#include "veltancmat/models/NCPCA.h"
#include "veltancmat/models/NCPLS.h"
#include "veltancmat/models/NipalsStart.h"

#include "containers/MatrixChecks.h"
#include "platform/OmpTeam.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Vec = NCDataVector<float>;
using Mat = NCDataMatrix<float>;

void ExpectSameRows(const Mat& got, const Mat& want, const std::string& what)
{
    ASSERT_EQ(got.SizeRows(), want.SizeRows()) << what;
    ASSERT_EQ(got.SizeColumns(), want.SizeColumns()) << what;
    for (int i = 1; i <= want.SizeRows(); ++i)
        for (int j = 1; j <= want.SizeColumns(); ++j)
            ASSERT_EQ(std::bit_cast<std::uint32_t>(got[i][j]), std::bit_cast<std::uint32_t>(want[i][j]))
                << what << " (" << i << ", " << j << "): " << got[i][j] << " vs " << want[i][j];
}

// The convergence measure of both models, on the scale of a progress value.
float Movement(const Vec& now, const Vec& before)
{
    const double x = now.Difference(before);
    return x > 1e-30 ? static_cast<float>((std::log10(x) + 10.0) * 10.0) : -1.0f;
}

struct PcaFit {
    Mat tprim, pprim, residuals;
    std::vector<int> iterations;
};

PcaFit TwoPassPca(Mat e, int components, int maxIterations)
{
    PcaFit fit{Mat(0, e.SizeRows()), Mat(0, e.SizeColumns()), Mat(), {}};
    for (int a = 1; a <= components; ++a) {
        Vec t = NCNipals::FilledStartColumn(e), p, before;
        int iteration = 1;
        for (;; ++iteration) {
            before = t;
            p = e.SpecialNipalsRegressColumnsFix(t);
            p.Normalize();
            t = e.SpecialNipalsRegressRowsFix(p);
            if (Movement(t, before) <= 0.0f || iteration >= maxIterations)
                break;
        }
        fit.tprim.push_back(t);
        fit.pprim.push_back(p);
        fit.iterations.push_back(iteration);
        e.AddVprimV(t, p, -1.0);
    }
    fit.residuals = e;
    return fit;
}

struct PlsFit {
    Mat tprim, pprim, wprim, cprim, uprim, e, f;
    std::vector<int> iterations;
};

PlsFit TwoPassPls(Mat e, Mat f, int components, int maxIterations)
{
    const int n = e.SizeRows();
    PlsFit fit{Mat(0, n), Mat(0, e.SizeColumns()), Mat(0, e.SizeColumns()), Mat(0, f.SizeColumns()), Mat(0, n),
               Mat(),     Mat(),                   {}};
    for (int a = 1; a <= components; ++a) {
        Vec u = NCNipals::FilledStartColumn(f), w, t, c, before;
        int iteration = 1;
        for (;; ++iteration) {
            before = u;
            w = e.SpecialNipalsRegressColumnsFix(u);
            w.Normalize();
            t = e.SpecialNipalsRegressRowsFix(w);
            c = f.SpecialNipalsRegressColumnsFix(t);
            u = f.SpecialNipalsRegressRowsFix(c);
            const float v = f.SizeColumns() == 1 ? 0.0f : Movement(u, before);
            if (v <= 0.0f || iteration >= maxIterations)
                break;
        }
        const Vec p = e.SpecialNipalsRegressColumnsFix(t);
        fit.tprim.push_back(t);
        fit.pprim.push_back(p);
        fit.wprim.push_back(w);
        fit.cprim.push_back(c);
        fit.uprim.push_back(u);
        fit.iterations.push_back(iteration);
        e.AddVprimV(t, p, -1.0);
        f.AddVprimV(t, c, -1.0);
    }
    fit.e = e;
    fit.f = f;
    return fit;
}

struct Table {
    std::string name;
    Mat x;
};

// 420 x 90 takes a team of threads and the float block kernels.
std::vector<Table> Tables()
{
    std::vector<Table> tables;
    tables.push_back({"complete", LowRankTable(420, 90, 4, 0.5, 3)});
    Mat gaps = LowRankTable(420, 90, 4, 0.5, 4);
    KnockOut(gaps, 0.05, 5);
    tables.push_back({"gaps", gaps});
    Mat holes = gaps;
    MissRow(holes, 17);
    MissColumn(holes, 30);
    tables.push_back({"whole row and column missing", holes});
    Mat column = LowRankTable(420, 1, 1, 0.5, 6);
    column(5, 1, -99.0f);
    tables.push_back({"one column", column});
    return tables;
}

} // namespace

TEST(NipalsSweepModels, PcaAgreesWithTwoPasses)
{
    for (const int threads : {1, 2}) {
        const OmpTeam team(threads);
        for (const Table& table : Tables()) {
            const std::string what = table.name + ", " + std::to_string(threads) + " thread(s)";
            const int components = table.x.SizeColumns() == 1 ? 1 : 3;
            const PcaFit want = TwoPassPca(table.x, components, 500);
            NCPCA pca(&table.x, 500);
            for (int a = 1; a <= components; ++a) {
                pca.NextComponent(nullptr, nullptr, 0, nullptr);
                EXPECT_EQ(pca.GetIterations(), want.iterations[static_cast<std::size_t>(a - 1)])
                    << what << ", component " << a;
                pca.CalculateResiduals();
            }
            ExpectSameRows(*pca.GetTprim(), want.tprim, what + ", scores");
            ExpectSameRows(*pca.GetPprim(), want.pprim, what + ", loadings");
            ExpectSameRows(*pca.GetResiduals(), want.residuals, what + ", residuals");
        }
    }
}

TEST(NipalsSweepModels, PcaIterationLimitStillStopsTheSweeps)
{
    const Mat x = LowRankTable(420, 90, 4, 0.5, 7);
    for (const int limit : {1, 2, 3}) {
        const PcaFit want = TwoPassPca(x, 1, limit);
        NCPCA pca(&x, limit);
        pca.NextComponent(nullptr, nullptr, 0, nullptr);
        EXPECT_EQ(pca.GetIterations(), limit);
        ExpectSameRows(*pca.GetTprim(), want.tprim, "scores after " + std::to_string(limit));
        ExpectSameRows(*pca.GetPprim(), want.pprim, "loadings after " + std::to_string(limit));
    }
}

TEST(NipalsSweepModels, PlsAgreesWithTwoPasses)
{
    for (const int threads : {1, 2}) {
        const OmpTeam team(threads);
        for (const Table& table : Tables()) {
            if (table.x.SizeColumns() < 2)
                continue; // a one-variable X is the one-column case below
            for (const int responses : {1, 3}) {
                const std::string what =
                    table.name + ", " + std::to_string(responses) + " response(s), " + std::to_string(threads);
                // Y from X's own structure, so that the components correlate.
                Mat y = LowRankTable(420, responses, 1, 0.5, 9);
                for (int i = 1; i <= 420; ++i)
                    for (int m = 1; m <= responses; ++m)
                        if (!IsMisVal(table.x[i][2]))
                            y(i, m, y[i][m] + table.x[i][2] * static_cast<float>(m));
                y(8, 1, -99.0f);
                const PlsFit want = TwoPassPls(table.x, y, 3, 200);
                NCPLS pls(&table.x, &y, 200);
                for (int a = 1; a <= 3; ++a) {
                    pls.NextComponent(nullptr, nullptr, true, false);
                    EXPECT_EQ(pls.GetIterations(), want.iterations[static_cast<std::size_t>(a - 1)])
                        << what << ", component " << a;
                    pls.CalculateResiduals();
                }
                ExpectSameRows(*pls.GetTprim(), want.tprim, what + ", T'");
                ExpectSameRows(*pls.GetPprim(), want.pprim, what + ", P'");
                ExpectSameRows(*pls.GetWprim(), want.wprim, what + ", W'");
                ExpectSameRows(*pls.GetCprim(), want.cprim, what + ", C'");
                ExpectSameRows(*pls.GetUprim(), want.uprim, what + ", U'");
                ExpectSameRows(*pls.GetXResiduals(), want.e, what + ", E");
                ExpectSameRows(*pls.GetYResiduals(), want.f, what + ", F");
            }
        }
    }
}

TEST(NipalsSweepModels, PlsOnOneVariableAndOneRow)
{
    const Mat x = LowRankTable(420, 1, 1, 0.5, 10);
    Mat y = x;
    y(1, 1, 2.0f);
    const PlsFit want = TwoPassPls(x, y, 1, 200);
    NCPLS pls(&x, &y, 200);
    pls.NextComponent(nullptr, nullptr, true, false);
    pls.CalculateResiduals();
    ExpectSameRows(*pls.GetTprim(), want.tprim, "one variable, T'");
    ExpectSameRows(*pls.GetXResiduals(), want.e, "one variable, E");

    const Mat row = LowRankTable(1, 40, 1, 0.5, 11);
    const Mat yRow(1, 1, 3.0f);
    const PlsFit wantRow = TwoPassPls(row, yRow, 1, 200);
    NCPLS one(&row, &yRow, 200);
    one.NextComponent(nullptr, nullptr, true, false);
    ExpectSameRows(*one.GetWprim(), wantRow.wprim, "one row, W'");
    ExpectSameRows(*one.GetPprim(), wantRow.pprim, "one row, P'");
}

// The first sweep of the next component is taken during the deflation for
// the start the model would choose itself. A copy (which does not carry it)
// and a start vector (which changes the start) must give what a model
// without it gives.
TEST(NipalsSweepModels, PlsPreparedSweepOnlyServesItsOwnStart)
{
    const OmpTeam team(2);
    const Mat x = LowRankTable(420, 90, 4, 0.5, 12); // complete: the models sweep only such X
    Mat y = LowRankTable(420, 3, 2, 0.5, 14);
    y(9, 1, -99.0f);
    for (int i = 1; i <= 420; ++i)
        if (!IsMisVal(x[i][2]))
            y(i, 2, y[i][2] + x[i][2]);
    NCPLS pls(&x, &y, 200);
    pls.NextComponent(nullptr, nullptr, true, false);
    pls.CalculateResiduals();

    NCPLS copy(pls);
    pls.NextComponent(nullptr, nullptr, true, false);
    copy.NextComponent(nullptr, nullptr, true, false);
    EXPECT_EQ(pls.GetIterations(), copy.GetIterations());
    ExpectSameRows(*pls.GetWprim(), *copy.GetWprim(), "copy, W'");
    ExpectSameRows(*pls.GetTprim(), *copy.GetTprim(), "copy, T'");
    ExpectSameRows(*pls.GetPprim(), *copy.GetPprim(), "copy, P'");

    // A fresh model on the same residuals and components, with a start vector.
    pls.CalculateResiduals();
    NCPLS rebuilt(pls.GetXResiduals(), pls.GetYResiduals(), pls.GetCprim(), pls.GetPprim(), pls.GetWprim(),
                  pls.GetUprim(), pls.GetTprim(), 200);
    const Vec start = (*pls.GetWprim())[1];
    pls.NextComponent(nullptr, &start, true, false);
    rebuilt.NextComponent(nullptr, &start, true, false);
    EXPECT_EQ(pls.GetIterations(), rebuilt.GetIterations());
    ExpectSameRows(*pls.GetWprim(), *rebuilt.GetWprim(), "start vector, W'");
    ExpectSameRows(*pls.GetUprim(), *rebuilt.GetUprim(), "start vector, U'");

    // After assignment from a model that never deflated, the next
    // component starts afresh.
    NCPLS assigned(&x, &y, 200);
    assigned.NextComponent(nullptr, nullptr, true, false);
    assigned.CalculateResiduals();
    NCPLS fresh(&x, &y, 200);
    assigned = fresh;
    assigned.NextComponent(nullptr, nullptr, true, false);
    fresh.NextComponent(nullptr, nullptr, true, false);
    ExpectSameRows(*assigned.GetWprim(), *fresh.GetWprim(), "assigned, W'");
}
