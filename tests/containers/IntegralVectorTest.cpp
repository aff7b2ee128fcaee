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

template <class V>
std::vector<typename V::value_type> E(const V& v)
{
    return std::vector<typename V::value_type>(v.begin(), v.end());
}

std::string WhereOf(const std::function<void()>& f)
{
    try {
        f();
    } catch (const NCInternalError& e) {
        return e.GetWhere();
    }
    return "(nothing thrown)";
}

TEST(IntegralVector, ConstructionAndBadArguments)
{
    const unsigned long raw[] = {4, 5};
    EXPECT_EQ(E(UVec(raw, 2)), (std::vector<unsigned long>{4, 5}));
    EXPECT_EQ(E(IVec(3, 7)), (Ints{7, 7, 7}));
    EXPECT_EQ((IVec{3, 1, 2}).GetPtr()[3], 2); // the pointer is 1-based
    EXPECT_EQ(WhereOf([] { IVec(-1, 0); }), "NCIntegralVector<T,Missing>::NCIntegralVector");
    EXPECT_EQ(WhereOf([] { IVec().Resize(-2); }), "NCIntegralVector<T,Missing>::Resize");
    IVec v{1, 2};
    for (auto [at, count] : {std::pair{4, 1}, {0, 1}, {1, -1}})
        EXPECT_EQ(WhereOf([&] { v.InsertValues(at, count, 0); }), "NCIntegralVector<T,Missing>::InsertValues");
    for (const IVec& bad : {IVec{1, 3}, IVec{0}, IVec{-99}})
        EXPECT_EQ(WhereOf([&] { v.Reduce(bad); }), "NCIntegralVector<T,Missing>::Reduce");
    EXPECT_EQ(E(v), (Ints{1, 2})); // untouched by every failure
}

TEST(IntegralVector, DefaultCrossValidationGroups)
{
    EXPECT_EQ(E(GetDeafultCVGroupsVector(7, 3)), (Ints{1, 2, 0, 1, 2, 0, 1}));
    EXPECT_EQ(E(GetDeafultCVGroupsVector(3, 1)), (Ints{0, 0, 0}));
    for (int groups : {0, -3}) {
        try {
            GetDeafultCVGroupsVector(5, groups);
            ADD_FAILURE() << groups;
        } catch (const NCError& e) { // a user error, not an internal one
            EXPECT_TRUE(e.GetLevel() == NCError::Error && !dynamic_cast<const NCInternalError*>(&e));
        }
    }
}

TEST(IntegralVector, StatisticsAndGenerateIndex)
{
    EXPECT_EQ(IVec().GetMean(), -99.0);
    EXPECT_EQ(IVec().GetStdDev(), -99.0);
    EXPECT_EQ((IVec{-99, -99}).GetVariance(), -99.0);
    EXPECT_EQ((IVec{-98, -100}).GetStdDev(), -99.0); // averages exactly -99
    EXPECT_EQ((IVec{5}).GetVariance(), 0.0);
    EXPECT_EQ((IVec{5}).GetStdDev(), 0.0);
    EXPECT_EQ((IVec{-99, 1}).GetSum(), -98); // the sentinel is summed
    const IVec v{2, 4, 4, 4, 5, 5, 7, 9};    // numpy var/std with ddof=1
    EXPECT_DOUBLE_EQ(v.GetVariance(), 32.0 / 7.0);
    EXPECT_DOUBLE_EQ(v.GetStdDev(), 2.1380899352993952);
    EXPECT_EQ((BVec{true, false, true}).GetSum(), 2);
    EXPECT_EQ((IVec{INT_MAX, 1}).GetSum(), INT_MIN); // 32 bits, wrapping
    EXPECT_EQ((UVec{0xFFFFFFFFul, 1}).GetSum(), 0);

    IVec index(3, 0);
    index.GenerateIndex(5, 2);
    EXPECT_EQ(E(index), (Ints{5, 7, 9}));
    BVec b(3, false);
    b.GenerateIndex(-1, 1);
    EXPECT_EQ(E(b), (Bools{true, false, true}));
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
    IVec v{10, 20, 30, 40};
    v.Reduce(IVec{3, 1, 3}); // list order, duplicates kept
    EXPECT_EQ(E(v), (Ints{30, 10, 30}));
    v.Reduce(IVec());
    EXPECT_TRUE(v.empty());
    IVec self{2, 1, 2};
    self.Reduce(self);
    self.Remove(self); // positions 1 and 2
    EXPECT_EQ(E(self), (Ints{1}));

    IVec w{10, 20, 30, 40, 50};
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

// Every mutating member, applied to one of several copies, leaves the
// others as they were, whichever copy is written.
TEST(IntegralVector, WritingACopyNeverChangesTheOthers)
{
    const std::vector<std::pair<const char*, std::function<void(IVec&)>>> mutations = {
        {"operator()", [](IVec& v) { v(2) = 42; }},
        {"GetPtr", [](IVec& v) { v.GetPtr()[1] = 42; }},
        {"UnLinkVecPointer", [](IVec& v) { IVec::UnLinkVecPointer(v)[3] = 42; }},
        {"Clear", [](IVec& v) { v.Clear(); }},
        {"Resize down", [](IVec& v) { v.Resize(2); }},
        {"Resize up", [](IVec& v) { v.Resize(9, 1); }},
        {"Reserve", [](IVec& v) { v.Reserve(100); }},
        {"push_back", [](IVec& v) { v.push_back(6); }},
        {"Concat", [](IVec& v) { v.Concat(v); }},
        {"CopyContent", [](IVec& v) { v.CopyContent(IVec{9}); }},
        {"Insert", [](IVec& v) { v.Insert(1, 0); }},
        {"InsertValues", [](IVec& v) { v.InsertValues(3, IVec{7, 7}); }},
        {"Remove", [](IVec& v) { v.Remove(IVec{1}); }},
        {"Reduce", [](IVec& v) { v.Reduce(IVec{5, 5}); }},
        {"GenerateIndex", [](IVec& v) { v.GenerateIndex(0, 3); }},
        {"assign", [](IVec& v) { v = IVec{8}; }},
    };
    const Ints before{1, 2, 3, 4, 5};
    for (const auto& [name, mutate] : mutations) {
        for (bool writeCopy : {true, false}) {
            IVec original{1, 2, 3, 4, 5}, third;
            IVec copy(original);
            third = original;
            mutate(writeCopy ? copy : original);
            EXPECT_EQ(E(writeCopy ? original : copy), before) << name;
            EXPECT_EQ(E(third), before) << name;
        }
    }
    BoolVector mask(3, false), maskCopy(mask);
    maskCopy(2) = true;
    EXPECT_EQ(E(mask), (Bools{false, false, false}));
}

TEST(IntegralVector, CopiesOnTwoThreads)
{
    const IVec original = GetDeafultCVGroupsVector(500, 7);
    const int sum = original.GetSum();
    auto work = [&](int seed, bool& ok) {
        ok = true;
        for (int round = 0; round < 300; ++round) {
            IVec mine(original), other;
            other = mine;
            if (round % 3 == 0)
                mine(1 + round) = seed;
            else if (round % 3 == 1)
                mine.push_back(seed);
            else
                mine.Remove(IVec{1, 2});
            ok = ok && other.GetSum() == sum && original.GetSum() == sum;
        }
    };
    bool ok1 = false, ok2 = false;
    std::thread t1(work, 1000, std::ref(ok1)), t2(work, 2000, std::ref(ok2));
    t1.join();
    t2.join();
    EXPECT_TRUE(ok1 && ok2);
}

} // namespace
