#include "veltancmat/containers/BoolVector.h"
#include "veltancmat/containers/CVGroups.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/NCError.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <thread>
#include <vector>

namespace {

using IVec = NCIntegralVector<int, -99>;
using UVec = NCIntegralVector<unsigned long, 0>;
using BVec = NCIntegralVector<bool, 0>;
using Ints = std::vector<int>;
using Bools = std::vector<bool>;

// The elements, as a std::vector that gtest can print.
constexpr auto E = [](const auto& v) { return std::vector(v.begin(), v.end()); };

// The member an internal error names; "user error" for another NCError.
std::string Thrown(const std::function<void()>& f)
{
    try {
        f();
    } catch (const NCInternalError& e) {
        return e.GetWhere();
    } catch (const NCError& e) {
        return e.GetLevel() == NCError::Error ? "user error" : "warning";
    }
    return "(nothing thrown)";
}

TEST(IntegralVector, ConstructionCrossValidationGroupsAndBadArguments)
{
    const unsigned long raw[] = {4, 5};
    EXPECT_EQ(E(UVec(raw, 2)), (std::vector<unsigned long>{4, 5}));
    EXPECT_EQ(E(IVec(3, 7)), (Ints{7, 7, 7}));
    EXPECT_EQ((IVec{3, 1, 2}).GetPtr()[3], 2); // the pointer is 1-based
    EXPECT_EQ(Thrown([] { IVec(-1, 0); }), "NCIntegralVector<T,Missing>::NCIntegralVector");
    EXPECT_EQ(Thrown([] { IVec().Resize(-2); }), "NCIntegralVector<T,Missing>::Resize");
    IVec v{1, 2};
    for (auto [at, count] : {std::pair{4, 1}, {0, 1}, {1, -1}})
        EXPECT_EQ(Thrown([&] { v.InsertValues(at, count, 0); }), "NCIntegralVector<T,Missing>::InsertValues");
    for (const IVec& bad : {IVec{1, 3}, IVec{0}, IVec{-99}})
        EXPECT_EQ(Thrown([&] { v.Reduce(bad); }), "NCIntegralVector<T,Missing>::Reduce");
    EXPECT_EQ(E(v), (Ints{1, 2})); // untouched by every failure
    EXPECT_EQ(E(GetDeafultCVGroupsVector(7, 3)), (Ints{1, 2, 0, 1, 2, 0, 1}));
    EXPECT_EQ(E(GetDeafultCVGroupsVector(3, 1)), (Ints{0, 0, 0}));
    for (int groups : {0, -3})
        EXPECT_EQ(Thrown([&] { GetDeafultCVGroupsVector(5, groups); }), "user error") << groups;
}

TEST(IntegralVector, StatisticsAndGenerateIndex)
{
    // -99 means "no value": empty, or a mean of -99, even one of real values.
    EXPECT_EQ(IVec().GetMean(), -99.0);
    for (const IVec& none : {IVec(), IVec{-99, -99}, IVec{-98, -100}})
        EXPECT_TRUE(none.GetVariance() == -99.0 && none.GetStdDev() == -99.0) << none.size();
    EXPECT_TRUE((IVec{5}).GetVariance() == 0.0 && (IVec{5}).GetStdDev() == 0.0);
    const IVec v{2, 4, 4, 4, 5, 5, 7, 9}; // numpy var/std with ddof=1
    EXPECT_DOUBLE_EQ(v.GetVariance(), 32.0 / 7.0);
    EXPECT_DOUBLE_EQ(v.GetStdDev(), 2.1380899352993952);
    // The sentinel is summed; sums wrap at 32 bits.
    EXPECT_EQ(Ints({(IVec{-99, 1}).GetSum(), (BVec{true, false, true}).GetSum(), (IVec{INT_MAX, 1}).GetSum(),
                    (UVec{0xFFFFFFFFul, 1}).GetSum()}),
              Ints({-98, 2, INT_MIN, 0}));
    IVec index(3, 0);
    BVec b(3, false);
    index.GenerateIndex(5, 2);
    b.GenerateIndex(-1, 1);
    EXPECT_TRUE(E(index) == (Ints{5, 7, 9}) && E(b) == (Bools{true, false, true}));
}

TEST(IntegralVector, SearchAndOrder)
{
    const IVec unsorted{4, 2, 9, 2}, ascending{1, 3, 3, 3, 8}, descending{8, 3, 3, 1};
    const auto U = SortTypeE::Unsorted, A = SortTypeE::Ascending, D = SortTypeE::Descending;
    // Positions, -1 when absent; the bounds are clipped; the first of equals.
    EXPECT_EQ(Ints({unsorted.Find(2), unsorted.Find(2, U, 3, -1), unsorted.Find(9, U, 1, 2),
                    unsorted.Find(4, U, -7, 99), IVec().Find(0)}),
              Ints({2, 4, -1, 1, -1}));
    EXPECT_EQ(Ints({ascending.Find(3, A), ascending.Find(3, A, 3, 4), ascending.Find(4, A), ascending.Find(9, A),
                    descending.Find(3, D), descending.Find(2, D)}),
              Ints({2, 3, -1, -1, 2, -1}));
    EXPECT_EQ(Ints({ascending.LowerBound(3, true), ascending.LowerBound(4, true), ascending.LowerBound(99, true),
                    descending.LowerBound(2, false), IVec().LowerBound(5)}),
              Ints({2, 5, 6, 4, 1}));
    EXPECT_TRUE(ascending.IsSorted(true) && descending.IsSorted(false) && IVec().IsSorted(false));
    EXPECT_FALSE(ascending.IsSorted(false) || unsorted.IsSorted(true));
    const IVec a{1, 2}, b{1, 2, 0}, c{1, 3}; // lexicographic
    EXPECT_TRUE(a == (IVec{1, 2}) && a != b && a < b && b < c && c > b && a <= a && a >= a && IVec() < a);
    EXPECT_FALSE(a < a || c <= b);
}

TEST(IntegralVector, ReduceRemoveInsert)
{
    IVec v{10, 20, 30, 40}, self{2, 1, 2}, w{10, 20, 30, 40, 50};
    v.Reduce(IVec{3, 1, 3}); // list order, duplicates kept
    EXPECT_EQ(E(v), (Ints{30, 10, 30}));
    v.Reduce(IVec());
    self.Reduce(self);
    self.Remove(self); // positions 1 and 2
    EXPECT_TRUE(v.empty() && E(self) == Ints{1});

    const int capacity = w.Capacity();
    w.Remove(IVec{4, 2, 4, 0, 77, -99}); // unsorted, duplicates, strays
    w.Remove(IVec());
    EXPECT_EQ(E(w), (Ints{10, 30, 50}));
    w.Remove(IVec{1, 2, 3});
    EXPECT_TRUE(w.empty() && w.Capacity() == capacity);

    w.InsertValues(1, 2, 9);
    w.Insert(3, IVec{7, 8});
    w.Insert(1, -5);
    w.Concat(w);
    EXPECT_EQ(E(w), (Ints{-5, 9, 9, 7, 8, -5, 9, 9, 7, 8}));
    w.Resize(2);
    w.Resize(3, -99);
    EXPECT_EQ(E(w), (Ints{-5, 9, -99}));
}

// Every mutating member: none may change other copies of the vector.
const std::vector<std::pair<const char*, std::function<void(IVec&)>>> mutations = {
    {"operator()", [](IVec& v) { v(2) = 42; }}, {"GetPtr", [](IVec& v) { v.GetPtr()[1] = 42; }},
    {"UnLinkVecPointer", [](IVec& v) { IVec::UnLinkVecPointer(v)[3] = 42; }}, {"Clear", [](IVec& v) { v.Clear(); }},
    {"Resize down", [](IVec& v) { v.Resize(2); }}, {"Resize up", [](IVec& v) { v.Resize(9, 1); }},
    {"Reserve", [](IVec& v) { v.Reserve(100); }}, {"push_back", [](IVec& v) { v.push_back(6); }},
    {"Concat", [](IVec& v) { v.Concat(v); }}, {"CopyContent", [](IVec& v) { v.CopyContent(IVec{9}); }},
    {"Insert", [](IVec& v) { v.Insert(1, 0); }}, {"InsertValues", [](IVec& v) { v.InsertValues(3, IVec{7, 7}); }},
    {"Remove", [](IVec& v) { v.Remove(IVec{1}); }}, {"Reduce", [](IVec& v) { v.Reduce(IVec{5, 5}); }},
    {"GenerateIndex", [](IVec& v) { v.GenerateIndex(0, 3); }}, {"assign", [](IVec& v) { v = IVec{8}; }},
};

// On two threads at once, each writing its own copies of one shared vector.
TEST(IntegralVector, WritingACopyNeverChangesTheOthers)
{
    const IVec shared{1, 2, 3, 4, 5};
    const Ints before(shared.begin(), shared.end());
    const auto work = [&] {
        for (int round = 0; round < 20; ++round)
            for (const auto& [name, mutate] : mutations)
                for (bool writeCopy : {true, false}) {
                    IVec original(shared), copy(original), third;
                    third = original;
                    mutate(writeCopy ? copy : original);
                    EXPECT_TRUE(E(writeCopy ? original : copy) == before && E(third) == before) << name;
                }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(E(shared), before);
    BoolVector mask(3, false), maskCopy(mask); // its own copy constructor
    maskCopy(2) = true;
    EXPECT_EQ(E(mask), (Bools{false, false, false}));
}

} // namespace
