// Every instruction set the vector kernels are compiled for, of those this
// processor runs, gives the same bits: the projections are taken once per
// target and compared with those of the best one. The 16-byte targets hold
// a packet in two vectors, so this is where a lane out of place would show.
// Widths sit around the packet (8 floats, 4 doubles) and the column blocks'
// strip of 16: a row of one strip, one strip and a tail, several strips.
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/NCDataMatrixRows.h"
#include "veltancmat/containers/NCNipalsBatch.h"
#include "veltancmat/containers/frame/SimdTargets.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Returns the kernels to the best target when the test ends, failed or not.
class PinnedTarget {
public:
    explicit PinnedTarget(const std::string& name) { NCSimdTargets::Use(name); }
    ~PinnedTarget() { NCSimdTargets::Use(""); }
    PinnedTarget(const PinnedTarget&) = delete;
    PinnedTarget& operator=(const PinnedTarget&) = delete;
};

template <class T>
NCDataMatrix<T> Table(int rows, int cols, double gaps, unsigned seed)
{
    std::mt19937 gen(seed);
    std::normal_distribution<T> value(T(0), T(2));
    std::bernoulli_distribution drop(gaps);
    NCDataMatrix<T> m(rows, cols);
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            m(i, j, drop(gen) ? NCDataMatrix<T>::MisVal : value(gen));
    return m;
}

template <class T>
NCDataVector<T> Loading(int n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::normal_distribution<T> value;
    NCDataVector<T> p(n);
    for (int j = 1; j <= n; ++j)
        p(j, j == 2 ? NCDataVector<T>::MisVal : value(gen));
    return p;
}

template <class T>
void Append(std::vector<T>& all, const NCDataVector<T>& v)
{
    all.insert(all.end(), v.GetVector() + 1, v.GetVector() + 1 + v.Size());
}

// Every result of the kernels on m, one after the other.
template <class T>
std::vector<T> Projections(const NCDataMatrix<T>& m)
{
    const NCDataVector<T> p = Loading<T>(m.SizeColumns(), 3);
    std::vector<T> all;
    const NCDataVector<T> t = m.SpecialNipalsRegressRowsFix(p);
    Append(all, t);
    Append(all, m.SpecialNipalsRegressColumnsFix(t));
    NCDataVector<T> sweepT, sweepP;
    NCDataMatrixRows<T>(m).NipalsRowsThenColumns(p, &sweepT, &sweepP);
    Append(all, sweepT);
    Append(all, sweepP);
    all.push_back(static_cast<T>(m.GetSS()));
    if constexpr (std::is_same_v<T, float>) {
        const NCNipalsBatch batch(m);
        const NCDataVector<float> q = Loading<float>(m.SizeColumns(), 4), s = Loading<float>(m.SizeRows(), 5);
        NCDataVector<float> rows[2], columns[2];
        const NCDataVector<float>* weights[2] = {&p, &q};
        const NCDataVector<float>* scores[2] = {&t, &s};
        NCDataVector<float>* rowsOut[2] = {&rows[0], &rows[1]};
        NCDataVector<float>* columnsOut[2] = {&columns[0], &columns[1]};
        batch.Rows(weights, rowsOut);
        batch.Columns(scores, columnsOut);
        for (int r = 0; r < 2; ++r) {
            Append(all, rows[r]);
            Append(all, columns[r]);
        }
    }
    return all;
}

template <class T>
void ExpectSameOnEveryTarget(const NCDataMatrix<T>& m, const std::string& what)
{
    const std::vector<std::string> targets = NCSimdTargets::Available();
    ASSERT_FALSE(targets.empty());
    std::vector<T> best;
    {
        const PinnedTarget pinned(targets.front());
        best = Projections(m);
    }
    for (std::size_t k = 1; k < targets.size(); ++k) {
        const PinnedTarget pinned(targets[k]);
        const std::vector<T> got = Projections(m);
        ASSERT_EQ(got.size(), best.size());
        for (std::size_t e = 0; e < got.size(); ++e)
            ASSERT_EQ(std::memcmp(&got[e], &best[e], sizeof(T)), 0)
                << what << ", " << targets[k] << " against " << targets.front() << ", result " << e << ": " << got[e]
                << " vs " << best[e];
    }
}

} // namespace

TEST(SimdTargets, EveryTargetGivesTheBitsOfTheBest)
{
    for (const int cols : {16, 23, 40, 101}) {
        const std::string shape = std::to_string(cols) + " columns";
        ExpectSameOnEveryTarget(Table<float>(203, cols, 0.0, 1), shape + ", complete");
        ExpectSameOnEveryTarget(Table<float>(203, cols, 0.1, 2), shape + ", gaps");
        ExpectSameOnEveryTarget(Table<double>(61, cols, 0.1, 3), shape + ", double with gaps");
    }
    // Rows and columns missing whole: empty sums, floors and missing results.
    NCDataMatrix<float> holes = Table<float>(203, 37, 0.3, 4);
    for (int j = 1; j <= 37; ++j)
        holes(7, j, NCDataMatrix<float>::MisVal);
    for (int i = 1; i <= 203; ++i)
        holes(i, 20, NCDataMatrix<float>::MisVal);
    ExpectSameOnEveryTarget(holes, "whole row and column missing");
}

TEST(SimdTargets, NamesTheTargetsAndRefusesOthers)
{
    const std::vector<std::string> targets = NCSimdTargets::Available();
    ASSERT_FALSE(targets.empty());
    // The portable fallback is always there, and last (SCALAR where the
    // compiler cannot build EMU128).
    EXPECT_TRUE(targets.back() == "EMU128" || targets.back() == "SCALAR") << targets.back();
    EXPECT_THROW(NCSimdTargets::Use("NEON_OR_NOTHING"), std::invalid_argument);
    EXPECT_EQ(NCSimdTargets::Available(), targets);
}
