// Layout, index checks, copy and move of the n-dimensional integer table.
#include "veltancmat/containers/NDimensionalMatrix.h"
#include "veltancmat/platform/Exception.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>
#include <vector>

using Table = NDimensionalMatrix<int>;

// The exception carries the translatable "dimension error" in its context.
#define EXPECT_DIMENSION_ERROR(call)                                                                               \
    EXPECT_THROW(try { call; } catch (const Exception& e) {                                                        \
        const auto& m = e.messages().messages().at(0);                                                             \
        EXPECT_TRUE(m.context() == "Matrix size mismatch" && m.source() == "dimension error");                    \
        throw;                                                                                                     \
    }, Exception)

TEST(NDimensionalMatrix, RowMajorLastIndexFastest)
{
    Table t({2, 3, 4}, -1, 1);
    EXPECT_EQ(t.Size(), 24u);
    EXPECT_EQ(t.Get({2, 3, 4}), -1);
    // Numbering in storage order must walk the last index fastest.
    int counter = 0;
    for (int i = 1; i <= 2; ++i)
        for (int j = 1; j <= 3; ++j)
            for (int k = 1; k <= 4; ++k)
                t.Set({i, j}, k, counter++);
    EXPECT_EQ(t.Get({1, 1, 2}), 1);
    EXPECT_EQ(t.Get({1, 2, 1}), 4);
    EXPECT_EQ(t.Get({2, 1}, 1), 12);
    EXPECT_EQ(t.Get({2, 3, 4}), 23);
}

TEST(NDimensionalMatrix, BadIndicesAndSizesThrow)
{
    Table t({2, 3}, 0, 1);
    EXPECT_DIMENSION_ERROR(t.Get({1}));
    EXPECT_DIMENSION_ERROR(t.Get({1, 1}, 1));
    EXPECT_DIMENSION_ERROR(t.Set({0, 1}, 5));
    EXPECT_DIMENSION_ERROR(t.Set({1}, 4, 5));
    EXPECT_DIMENSION_ERROR(t.Get({INT_MIN, 1}));
    EXPECT_DIMENSION_ERROR(Table({2, -1}, 0, 0));
    EXPECT_DIMENSION_ERROR(Table({1 << 30, 1 << 30, 1 << 30}, 0, 0));
    EXPECT_DIMENSION_ERROR(Table({2}, 0, INT_MAX));
    EXPECT_DIMENSION_ERROR(Table().Get({}));
    // A zero size makes an empty table, every index outside it.
    EXPECT_DIMENSION_ERROR(Table({4, 0}, 0, 0).Get({0, 0}));
}

TEST(NDimensionalMatrix, CopiesAreIndependentAndMovesEmptyTheSource)
{
    Table a({2, 2}, 3, 0); // base 0 this time
    Table b = a;
    b.Set({1, 1}, 9);
    EXPECT_EQ(a.Get({1, 1}), 3);
    a = b;
    EXPECT_EQ(a, b);
    Table c = std::move(a);
    EXPECT_EQ(c.Get({1, 1}), 9);
    EXPECT_EQ(a.NumDimensions(), 0);
    EXPECT_DIMENSION_ERROR(a.Get({1, 1}));
    b = std::move(c);
    EXPECT_EQ(b.GetDimensionSizes(), (std::vector<int>{2, 2}));
    b.Fill(4);
    EXPECT_EQ(b.Get({0, 1}), 4);
}
