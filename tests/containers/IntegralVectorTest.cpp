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

template <class V>
std::vector<typename V::value_type> Elements(const V& v)
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

TEST(IntegralVector, Construction)
{
    EXPECT_TRUE(IVec().empty());
    EXPECT_EQ(IVec().GetPtr(), nullptr);
    EXPECT_EQ(Elements(IVec(3, 7)), (std::vector<int>{7, 7, 7}));
    const unsigned long raw[] = {4, 5};
    EXPECT_EQ(Elements(UVec(raw, 2)), (std::vector<unsigned long>{4, 5}));
    const IVec v{3, 1, 2};
    EXPECT_EQ(v.Size(), 3);
    EXPECT_EQ(v[1], 3);
    EXPECT_EQ(v.GetPtr()[3], 2); // the pointer is 1-based
    EXPECT_EQ(BoolVector(2, true)[2], true);
    EXPECT_EQ(IVec::MisVal, -99);
    EXPECT_EQ(WhereOf([] { IVec(-1, 0); }), "NCIntegralVector<T,Missing>::NCIntegralVector");
    EXPECT_EQ(WhereOf([] { IVec v; v.Resize(-2); }), "NCIntegralVector<T,Missing>::Resize");
}

TEST(IntegralVector, DefaultCrossValidationGroups)
{
    EXPECT_EQ(Elements(GetDeafultCVGroupsVector(7, 3)), (std::vector<int>{1, 2, 0, 1, 2, 0, 1}));
    EXPECT_EQ(Elements(GetDeafultCVGroupsVector(3, 1)), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(Elements(GetDeafultCVGroupsVector(2, 5)), (std::vector<int>{1, 2}));
    EXPECT_TRUE(GetDeafultCVGroupsVector(0, 4).empty());
    for (int groups : {0, -3}) {
        try {
            GetDeafultCVGroupsVector(5, groups);
            ADD_FAILURE() << "groups " << groups << " accepted";
        } catch (const NCInternalError&) {
            ADD_FAILURE() << "a user error must not be an internal error";
        } catch (const NCError& e) {
            EXPECT_EQ(e.GetLevel(), NCError::Error);
            EXPECT_NE(std::string(e.what()).find(std::to_string(groups)), std::string::npos);
        }
    }
}

TEST(IntegralVector, Statistics)
{
    EXPECT_EQ(IVec().GetMean(), -99.0);
    EXPECT_EQ(IVec().GetVariance(), -99.0);
    EXPECT_EQ(IVec().GetStdDev(), -99.0);
    EXPECT_EQ((IVec{-99, -99}).GetVariance(), -99.0);
    EXPECT_EQ((IVec{-99, -99}).GetStdDev(), -99.0);
    EXPECT_EQ((IVec{-98, -100}).GetVariance(), -99.0); // averages exactly -99
    EXPECT_EQ((IVec{5}).GetVariance(), 0.0);
    EXPECT_EQ((IVec{5}).GetStdDev(), 0.0);
    // The sentinel is summed like any value.
    EXPECT_EQ((IVec{-99, 1}).GetSum(), -98);
    // Reference values: numpy.var(ddof=1), numpy.std(ddof=1).
    const IVec v{2, 4, 4, 4, 5, 5, 7, 9};
    EXPECT_EQ(v.GetSum(), 40);
    EXPECT_DOUBLE_EQ(v.GetMean(), 5.0);
    EXPECT_DOUBLE_EQ(v.GetVariance(), 32.0 / 7.0);
    EXPECT_DOUBLE_EQ(v.GetStdDev(), 2.1380899352993952);
    EXPECT_EQ((BVec{true, false, true}).GetSum(), 2);
    EXPECT_NEAR((BVec{true, false, true}).GetVariance(), 1.0 / 3.0, 1e-15);
    // The sum is 32 bits wide and wraps.
    EXPECT_EQ((IVec{INT_MAX, 1}).GetSum(), INT_MIN);
    EXPECT_EQ((UVec{0xFFFFFFFFul, 1}).GetSum(), 0);
    EXPECT_EQ((UVec{0x100000005ul}).GetSum(), 5);
}

TEST(IntegralVector, GenerateIndex)
{
    IVec v(3, 0);
    v.GenerateIndex(5, 2);
    EXPECT_EQ(Elements(v), (std::vector<int>{5, 7, 9}));
    v.GenerateIndex(1, -1);
    EXPECT_EQ(Elements(v), (std::vector<int>{1, 0, -1}));
    BVec b(3, false);
    b.GenerateIndex(-1, 1);
    EXPECT_EQ(Elements(b), (std::vector<bool>{true, false, true}));
    IVec empty;
    empty.GenerateIndex(1, 1);
    EXPECT_TRUE(empty.empty());
}

TEST(IntegralVector, SearchAndOrder)
{
    const IVec unsorted{4, 2, 9, 2};
    EXPECT_EQ(unsorted.Find(2), 2);
    EXPECT_EQ(unsorted.Find(2, SortTypeE::Unsorted, 3, -1), 4);
    EXPECT_EQ(unsorted.Find(9, SortTypeE::Unsorted, 1, 2), -1);
    EXPECT_EQ(unsorted.Find(5), -1);
    EXPECT_EQ(unsorted.Find(4, SortTypeE::Unsorted, -7, 99), 1); // bounds are clipped
    EXPECT_EQ(IVec().Find(0), -1);

    const IVec ascending{1, 3, 3, 3, 8};
    EXPECT_EQ(ascending.Find(3, SortTypeE::Ascending), 2); // the first of equals
    EXPECT_EQ(ascending.Find(3, SortTypeE::Ascending, 3, 4), 3);
    EXPECT_EQ(ascending.Find(4, SortTypeE::Ascending), -1);
    EXPECT_EQ(ascending.Find(9, SortTypeE::Ascending), -1);
    const IVec descending{8, 3, 3, 1};
    EXPECT_EQ(descending.Find(3, SortTypeE::Descending), 2);
    EXPECT_EQ(descending.Find(1, SortTypeE::Descending), 4);
    EXPECT_EQ(descending.Find(2, SortTypeE::Descending), -1);

    EXPECT_EQ(ascending.LowerBound(3, true), 2);
    EXPECT_EQ(ascending.LowerBound(4, true), 5);
    EXPECT_EQ(ascending.LowerBound(0, true), 1);
    EXPECT_EQ(ascending.LowerBound(99, true), 6);
    EXPECT_EQ(descending.LowerBound(3, false), 2);
    EXPECT_EQ(descending.LowerBound(2, false), 4);
    EXPECT_EQ(IVec().LowerBound(5), 1);

    EXPECT_TRUE(ascending.IsSorted(true));
    EXPECT_FALSE(ascending.IsSorted(false));
    EXPECT_TRUE(descending.IsSorted(false));
    EXPECT_FALSE(unsorted.IsSorted(true));
    EXPECT_TRUE(IVec().IsSorted(false));
    EXPECT_TRUE((IVec{7}).IsSorted(true));
}

TEST(IntegralVector, LexicographicComparison)
{
    const IVec a{1, 2}, b{1, 2, 0}, c{1, 3}, a2{1, 2};
    EXPECT_TRUE(a == a2);
    EXPECT_FALSE(a != a2);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a < b); // a proper prefix comes first
    EXPECT_TRUE(b < c);
    EXPECT_TRUE(c > b && c >= b && b <= c && a <= a2 && a >= a2);
    EXPECT_FALSE(a < a2);
    EXPECT_TRUE(IVec() < a);
    EXPECT_TRUE(IVec() == IVec(0, 5));
}

TEST(IntegralVector, ReduceGathersInListOrder)
{
    IVec v{10, 20, 30, 40};
    v.Reduce(IVec{3, 1, 3});
    EXPECT_EQ(Elements(v), (std::vector<int>{30, 10, 30}));
    v.Reduce(IVec());
    EXPECT_TRUE(v.empty());

    IVec w{10, 20, 30};
    for (const IVec& bad : {IVec{1, 4}, IVec{0}, IVec{2, -99}}) {
        EXPECT_EQ(WhereOf([&] { w.Reduce(bad); }), "NCIntegralVector<T,Missing>::Reduce");
        EXPECT_EQ(Elements(w), (std::vector<int>{10, 20, 30})); // untouched
    }
    IVec self{2, 1, 2};
    self.Reduce(self);
    EXPECT_EQ(Elements(self), (std::vector<int>{1, 2, 1}));
    BVec b{true, false};
    b.Reduce(IVec{2, 2, 1});
    EXPECT_EQ(Elements(b), (std::vector<bool>{false, false, true}));
}

TEST(IntegralVector, RemoveKeepsUnlistedAndCapacity)
{
    IVec v{10, 20, 30, 40, 50};
    const int capacity = v.Capacity();
    v.Remove(IVec{4, 2, 4, 0, 77, -99}); // unsorted, duplicates, strays
    EXPECT_EQ(Elements(v), (std::vector<int>{10, 30, 50}));
    EXPECT_EQ(v.Capacity(), capacity);
    v.Remove(IVec());
    EXPECT_EQ(Elements(v), (std::vector<int>{10, 30, 50}));
    v.Remove(IVec{1, 2, 3});
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(v.Capacity(), capacity);

    IVec self{3, 1, 7};
    self.Remove(self); // positions 1 and 3
    EXPECT_EQ(Elements(self), (std::vector<int>{1}));
    UVec u{1, 2, 3};
    u.Remove(IVec{2});
    EXPECT_EQ(Elements(u), (std::vector<unsigned long>{1, 3}));
}

TEST(IntegralVector, InsertConcatAndSize)
{
    IVec v{1, 2};
    v.InsertValues(2, 2, 9);
    EXPECT_EQ(Elements(v), (std::vector<int>{1, 9, 9, 2}));
    v.Insert(5, IVec{7, 8});
    EXPECT_EQ(Elements(v), (std::vector<int>{1, 9, 9, 2, 7, 8}));
    v.Insert(1, -5);
    EXPECT_EQ(v.front(), -5);
    v.Concat(v);
    EXPECT_EQ(v.Size(), 14);
    EXPECT_EQ(v[8], -5);
    EXPECT_EQ(v.back(), 8);
    EXPECT_EQ(WhereOf([&] { v.Insert(16, 0); }), "NCIntegralVector<T,Missing>::InsertValues");
    EXPECT_EQ(WhereOf([&] { v.InsertValues(0, 1, 0); }), "NCIntegralVector<T,Missing>::InsertValues");
    EXPECT_EQ(WhereOf([&] { v.InsertValues(1, -1, 0); }), "NCIntegralVector<T,Missing>::InsertValues");
    EXPECT_EQ(v.Size(), 14);

    IVec g;
    for (int i = 1; i <= 1000; ++i)
        g.push_back(i);
    EXPECT_EQ(g.GetSum(), 500500);
    g.Resize(2);
    EXPECT_GE(g.Capacity(), 1000); // shrinking keeps the storage
    g.Resize(4, -99);
    EXPECT_EQ(Elements(g), (std::vector<int>{1, 2, -99, -99}));
    g.Reserve(5000);
    EXPECT_EQ(g.Capacity(), 5000);
    IVec target{5, 5, 5, 5, 5, 5};
    target.CopyContent(IVec{1, 2});
    EXPECT_EQ(Elements(target), (std::vector<int>{1, 2}));
    target.Clear();
    EXPECT_TRUE(target.empty());
    EXPECT_EQ(target.Capacity(), 0);
}

// Every mutating member, applied to one of two copies, must leave the other
// one as it was, whichever of the two is written.
TEST(IntegralVector, WritingACopyNeverChangesTheOther)
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
        {"move assign", [](IVec& v) { v = IVec(4, 4); }},
    };
    const std::vector<int> before{1, 2, 3, 4, 5};
    for (const auto& [name, mutate] : mutations) {
        for (bool writeCopy : {true, false}) {
            IVec original{1, 2, 3, 4, 5};
            IVec copy(original);
            IVec third;
            third = original; // a third sharer, left alone throughout
            mutate(writeCopy ? copy : original);
            EXPECT_EQ(Elements(writeCopy ? original : copy), before) << name;
            EXPECT_EQ(Elements(third), before) << name;
        }
    }
}

TEST(IntegralVector, CopiesOnTwoThreads)
{
    const IVec original = GetDeafultCVGroupsVector(500, 7);
    const int expectedSum = original.GetSum();
    auto work = [&](int seed, bool& ok) {
        ok = true;
        for (int round = 0; round < 300; ++round) {
            IVec mine(original);
            IVec other;
            other = mine;
            if (round % 3 == 0)
                mine(1 + round % 500) = seed;
            else if (round % 3 == 1)
                mine.push_back(seed);
            else
                mine.Remove(IVec{1, 2});
            ok = ok && other.GetSum() == expectedSum && original.GetSum() == expectedSum;
        }
    };
    bool ok1 = false, ok2 = false;
    std::thread t1(work, 1000, std::ref(ok1));
    std::thread t2(work, 2000, std::ref(ok2));
    t1.join();
    t2.join();
    EXPECT_TRUE(ok1);
    EXPECT_TRUE(ok2);
    EXPECT_EQ(original.GetSum(), expectedSum);
}

TEST(BoolVector, IsAMaskWithValueSemantics)
{
    BoolVector mask(3, false);
    BoolVector copy(mask);
    copy(2) = true;
    EXPECT_EQ(Elements(mask), (std::vector<bool>{false, false, false}));
    mask = copy;
    EXPECT_EQ(Elements(mask), (std::vector<bool>{false, true, false}));
    EXPECT_TRUE(BoolVector().empty());
}

} // namespace
