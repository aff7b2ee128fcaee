#include "veltancmat/models/SumsOfSquares.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <random>
#include <vector>

namespace {

// Row by row in double, one column after the other: the order the sums are
// defined in.
std::vector<double> Plain(const NCDataMatrix<float>& m)
{
    std::vector<double> ss(static_cast<std::size_t>(m.SizeColumns()) + 1, 0.0);
    for (int j = 1; j <= m.SizeColumns(); ++j)
        for (int i = 1; i <= m.SizeRows(); ++i)
            if (!IsMisVal(m[i][j]))
                ss[static_cast<std::size_t>(j)] += static_cast<double>(m[i][j]) * m[i][j];
    return ss;
}

NCDataMatrix<float> Drawn(int rows, int cols, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1e3f);
    std::bernoulli_distribution missing(0.1);
    NCDataMatrix<float> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, missing(rng) ? NCMisVal<float> : normal(rng));
    return m;
}

} // namespace

// The column blocks the threads share out must not change a single bit:
// R2 values printed by the tool would then depend on the machine.
TEST(PresentColumnSS, EqualsTheRowOrderSumsOnAnyTeam)
{
    const int before = omp_get_max_threads();
    for (const auto& [rows, cols] : {std::pair{2000, 1}, {1700, 64}, {1600, 65}, {700, 150}, {5, 3}}) {
        NCDataMatrix<float> m = Drawn(rows, cols, static_cast<unsigned>(rows + cols));
        for (int i = 1; i <= rows; ++i)
            m(i, cols, NCMisVal<float>); // a wholly missing column sums to 0
        const std::vector<double> expected = Plain(m);
        EXPECT_EQ(expected[static_cast<std::size_t>(cols)], 0.0);
        for (int threads : {1, 2, 3}) {
            omp_set_num_threads(threads);
            EXPECT_EQ(NCNipals::PresentColumnSS(m), expected) << rows << " x " << cols << ", " << threads << " threads";
        }
    }
    omp_set_num_threads(before);
}
