// Storage, sharing, mutation and arithmetic of the data vector.
#include "veltancmat/containers/NCDataVector.h"
#include "veltancmat/containers/NCIntegralVector.h"
#include "veltancmat/platform/NCError.h"

#include "containers/VectorChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using List = NCIntegralVector<int, -99>;
constexpr double M = -99;

template <class T>
std::vector<T> Values(const NCDataVector<T>& v) { return std::vector<T>(v.begin(), v.end()); }

// The values, and a missing count that agrees with them.
template <class T>
::testing::AssertionResult Holds(const NCDataVector<T>& v, const std::vector<T>& want)
{
    const std::vector<T> got = Values(v);
    if (got == want && v.GetNumMisVal() == std::count(want.begin(), want.end(), T(M)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << ::testing::PrintToString(got) << " with missing count " << v.GetNumMisVal();
}

template <class T>
bool Aligned(const NCDataVector<T>& v) { return v.empty() || reinterpret_cast<std::uintptr_t>(v.begin()) % 32 == 0; }

// Runs op on a copy of v and returns the copy.
template <class T, class Op>
NCDataVector<T> After(NCDataVector<T> v, Op op) { op(v); return v; }

template <class T>
class VectorTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(VectorTest, ElementTypes);

template <class T>
T RandomValue(std::mt19937& rng)
{
    // Missing often enough to matter, and a value pair that sums to -99.
    const int kind = std::uniform_int_distribution<int>(0, 5)(rng);
    return kind < 3 ? T(kind == 0   ? -99
                        : kind == 1 ? -100
                                    : 1)
                    : static_cast<T>(std::uniform_real_distribution<double>(-5, 5)(rng));
}

template <class T>
NCDataVector<T> RandomVector(std::mt19937& rng, int n)
{
    NCDataVector<T> v(n);
    for (int i = 1; i <= n; ++i)
        v(i, RandomValue<T>(rng));
    return v;
}

// Every mutating member, applied with random arguments, under a label for
// failure messages.
template <class T>
using Mutation = std::pair<const char*, std::function<void(NCDataVector<T>&, std::mt19937&)>>;

int RandomPosition(std::mt19937& rng, int n)
{
    return std::uniform_int_distribution<int>(1, std::max(1, n))(rng);
}

int RandomLength(std::mt19937& rng)
{
    return std::uniform_int_distribution<int>(0, 40)(rng);
}

// The members that change the size or set elements.
template <class T>
std::vector<Mutation<T>> StorageMutations()
{
    using V = NCDataVector<T>;
    using R = std::mt19937;
    return {
        {"operator()",
         [=](V& v, R& r) {
             if (!v.empty())
                 v(RandomPosition(r, v.Size()), RandomValue<T>(r));
         }},
        {"SetAndReturn_dMisVal",
         [=](V& v, R& r) {
             if (!v.empty())
                 v.SetAndReturn_dMisVal(RandomPosition(r, v.Size()), RandomValue<T>(r));
         }},
        {"SetSize", [=](V& v, R& r) { v.SetSize(RandomLength(r)); }},
        {"Resize", [=](V& v, R& r) { v.Resize(RandomLength(r), RandomValue<T>(r)); }},
        {"push_back", [=](V& v, R& r) { v.push_back(RandomValue<T>(r)); }},
        {"InsertValues(vector)", [=](V& v, R& r) { v.InsertValues(RandomPosition(r, v.Size() + 1), RandomVector<T>(r, 3)); }},
        {"InsertValues(self)", [=](V& v, R&) { v.InsertValues(1, v); }},
        {"InsertValues(count)", [=](V& v, R& r) { v.InsertValues(RandomPosition(r, v.Size() + 1), 2, RandomValue<T>(r)); }},
        {"RemoveValues",
         [=](V& v, R& r) {
             const int at = RandomPosition(r, v.Size());
             if (v.Size() >= 2)
                 v.RemoveValues(at, std::min(v.Size(), at + 2));
         }},
        {"Remove(value)", [=](V& v, R& r) { v.Remove(RandomValue<T>(r)); }},
        {"Remove(list)",
         [=](V& v, R& r) {
             v.Remove(List{RandomPosition(r, v.Size()), 1, 99});
         }},
        {"Reduce",
         [=](V& v, R& r) {
             if (!v.empty())
                 v.Reduce(List{RandomPosition(r, v.Size()), RandomPosition(r, v.Size()), 1});
         }},
        {"CopyZeroBasedVector",
         [=](V& v, R& r) {
             const T p[] = {RandomValue<T>(r), RandomValue<T>(r), RandomValue<T>(r)};
             v.CopyZeroBasedVector(p, 3);
         }},
        {"CopyContent", [=](V& v, R& r) { v.CopyContent(RandomVector<T>(r, 7)); }},
        {"SetAllValues", [=](V& v, R& r) { v.SetAllValues(RandomValue<T>(r)); }},
        {"SetRange(vector)",
         [=](V& v, R& r) {
             if (v.Size() >= 2)
                 v.SetRange(v.Size() - 1, RandomVector<T>(r, 4), 2, 3);
         }},
        {"SetRange(self)",
         [=](V& v, R&) {
             if (v.Size() >= 3)
                 v.SetRange(2, v, 1, 2);
         }},
    };
}

// The arithmetic members.
template <class T>
std::vector<Mutation<T>> ArithmeticMutations()
{
    using V = NCDataVector<T>;
    using R = std::mt19937;
    return {
        {"Add", [=](V& v, R& r) { v.Add(RandomVector<T>(r, v.Size())); }},
        {"Subtract", [=](V& v, R& r) { v.Subtract(RandomVector<T>(r, v.Size())); }},
        {"Add(self)", [=](V& v, R&) { v.Add(v); }},
        {"+=d", [=](V& v, R& r) { v += static_cast<double>(RandomValue<T>(r)); }},
        {"-=d", [=](V& v, R&) { v -= 1.0; }},
        {"*=d", [=](V& v, R&) { v *= -99.0; }},
        {"/=d", [=](V& v, R&) { v /= -1.0; }},
        {"DotMultiplication", [=](V& v, R& r) { v.DotMultiplication(RandomVector<T>(r, v.Size())); }},
        {"DotDivide", [=](V& v, R& r) { v.DotDivide(RandomVector<T>(r, v.Size())); }},
        {"VectorDivide", [=](V& v, R&) { v.VectorDivide(99.0); }},
        {"TransformTo_Add_d_x_Vt", [=](V& v, R& r) { v.TransformTo_Add_d_x_Vt(2.0, RandomVector<T>(r, v.Size())); }},
        {"TransformTo_Sub_d_x_Vt", [=](V& v, R& r) { v.TransformTo_Sub_d_x_Vt(-1.0, RandomVector<T>(r, v.Size())); }},
        {"Abs",
         [=](V& v, R&) {
             v.Abs();
             v *= -1.0;
         }},
        {"Sqrt", [=](V& v, R&) { v.Sqrt(); }},
    };
}

// The preprocessing members.
template <class T>
std::vector<Mutation<T>> PreprocessMutations()
{
    using V = NCDataVector<T>;
    using R = std::mt19937;
    double a = 0, b = 0;
    return {
        {"Normalize", [=](V& v, R&) { v.Normalize(); }},
        {"SNV", [=](V& v, R&) { v.SNV(); }},
        {"DetrendMean", [=](V& v, R&) mutable { v.DetrendMean(a); }},
        {"DetrendLinear", [=](V& v, R&) mutable { v.DetrendLinear(a, b); }},
        {"Lag", [=](V& v, R& r) { v.Lag(std::uniform_int_distribution<int>(-3, 3)(r)); }},
        {"InterpolateMisVals", [=](V& v, R&) { v.InterpolateMisVals(nullptr); }},
        {"InterpolateMisVals(x)",
         [=](V& v, R& r) {
             V x(v.Size());
             for (int i = 1; i <= v.Size(); ++i)
                 x(i, static_cast<T>(i * i));
             if (v.Size() > 1)
                 x(RandomPosition(r, v.Size()), T(M));
             v.InterpolateMisVals(&x);
         }},
    };
}

// Assignment, clearing and reserving.
template <class T>
std::vector<Mutation<T>> WholeVectorMutations()
{
    using V = NCDataVector<T>;
    using R = std::mt19937;
    return {
        {"operator=", [=](V& v, R& r) { v = RandomVector<T>(r, 5); }},
        {"Clear", [=](V& v, R&) { v.Clear(); }},
        {"Reserve", [=](V& v, R&) { v.Reserve(v.Size() + 50); }},
    };
}

template <class T>
std::vector<Mutation<T>> AllMutations()
{
    std::vector<Mutation<T>> all;
    for (auto group : {StorageMutations<T>(), ArithmeticMutations<T>(), PreprocessMutations<T>(), WholeVectorMutations<T>()})
        all.insert(all.end(), group.begin(), group.end());
    return all;
}

// Applies long random sequences of every mutating member. After each step
// the missing count must equal a recount, element 1 must stay aligned, and a
// copy taken before the step must still hold the values it had.
TYPED_TEST(VectorTest, RandomMutationsKeepCountExactAndCopiesIsolated)
{
    std::mt19937 rng(12345);
    const auto mutations = AllMutations<TypeParam>();
    for (int run = 0; run < 40; ++run) {
        NCDataVector<TypeParam> v = RandomVector<TypeParam>(rng, 10);
        for (int step = 0; step < 200; ++step) {
            const NCDataVector<TypeParam> before(v);
            const std::vector<TypeParam> snapshot = Values(v);
            const int beforeMissing = v.GetNumMisVal();
            const auto& [name, mutate] =
                mutations[std::uniform_int_distribution<std::size_t>(0, mutations.size() - 1)(rng)];
            mutate(v, rng);
            ASSERT_EQ(v.GetNumMisVal(), std::count(v.begin(), v.end(), TypeParam(M)))
                << name << " at run " << run << " step " << step;
            ASSERT_TRUE(Aligned(v)) << name;
            // Bitwise comparison: NaN may appear after chains of operations.
            const std::vector<TypeParam> after = Values(before);
            ASSERT_TRUE(
                after.size() == snapshot.size() &&
                (after.empty() || std::memcmp(after.data(), snapshot.data(), after.size() * sizeof(TypeParam)) == 0))
                << name;
            ASSERT_EQ(before.GetNumMisVal(), beforeMissing) << name;
            if (v.Size() > 60)
                v.SetSize(10);
        }
    }
}

TYPED_TEST(VectorTest, ConstructionSharingAndComparison)
{
    using V = NCDataVector<TypeParam>;
    for (int n : {0, 1, 3, 4, 5, 17, 1000}) {
        const V zeros(n), missing(n, TypeParam(M));
        EXPECT_EQ(zeros.Size(), n);
        EXPECT_TRUE(Holds(zeros, std::vector<TypeParam>(n, TypeParam(0))));
        EXPECT_TRUE(Holds(missing, std::vector<TypeParam>(n, TypeParam(M))));
        EXPECT_TRUE(Aligned(zeros));
        EXPECT_TRUE(missing.HasAllMissingValues() && missing.HasMissingValues() == (n > 0));
    }
    EXPECT_THROW(V(-1), NCInternalError);
    const V list{TypeParam(1), TypeParam(M), TypeParam(3)};
    EXPECT_TRUE(Holds(list, {1, -99, 3}));
    EXPECT_TRUE(list.Size() == 3 && list.GetNumValidValues() == 2);
    EXPECT_EQ((std::vector<TypeParam>{list.front(), list.back(), list.GetVector()[3]}),
              (std::vector<TypeParam>{1, 3, 3}));
    // Comparison is elementwise and needs equal sizes.
    const V twoValues = Vec<TypeParam>({1, 2});
    EXPECT_TRUE(twoValues == Vec<TypeParam>({1, 2}) && V() == V(0));
    EXPECT_TRUE(twoValues != Vec<TypeParam>({1, 3}) && twoValues != Vec<TypeParam>({1}));
    // Writes adjust the count; copies share until written.
    V v(3, TypeParam(1));
    EXPECT_EQ(v.SetAndReturn_dMisVal(2, M), 1);
    EXPECT_EQ(v.GetNumMisVal(), 1);
    EXPECT_EQ(v.SetAndReturn_dMisVal(2, M), 0);
    EXPECT_EQ(v(2, TypeParam(5)), TypeParam(5));
    EXPECT_EQ(v.GetNumMisVal(), 0);
    EXPECT_EQ(v.SetAndReturn_dMisVal(3, TypeParam(7)), 0);
    V a = Vec<TypeParam>({1, 2, 3}), b(a), c;
    c = a;
    EXPECT_TRUE(a.begin() == b.begin() && a.begin() == c.begin());
    b(1, M);
    EXPECT_TRUE(a.begin() != b.begin() && a.begin() == c.begin());
    EXPECT_TRUE(Holds(a, {1, 2, 3}));
    EXPECT_TRUE(Holds(b, {M, 2, 3}));
    // Self-assignment and assignment between sharers keep the data.
    c = c;
    c = a;
    EXPECT_EQ(c[3], TypeParam(3));
    // The writable pointer is unlinked too.
    c.GetVectorForWriting()[2] = M;
    c.RecountMissing();
    EXPECT_TRUE(Holds(c, {1, M, 3}));
    EXPECT_TRUE(Holds(a, {1, 2, 3}));
}

TYPED_TEST(VectorTest, CopiesOnTwoThreads)
{
    // Copies of one vector are made, written and dropped on two threads at
    // once; run under ThreadSanitizer this checks the shared-block locking.
    using V = NCDataVector<TypeParam>;
    const V original(256, TypeParam(2));
    // Cross assignment between two pairs of sharers must not deadlock either.
    V a(8, TypeParam(1)), b(8, TypeParam(2)), a2(a), b2(b);
    auto work = [&original](int seed, const V& from, const V& to) {
        bool ok = true;
        for (int i = 0; i < 5000; ++i) {
            V copy(original), other, x(from), y(to);
            other = copy;
            x = y;
            if (i % 3 == seed)
                copy(1 + i % 256, TypeParam(M));
            ok = ok && copy.GetNumMisVal() <= 1 && other[1] == TypeParam(2);
        }
        return ok;
    };
    bool ok1 = false, ok2 = false;
    std::thread t1([&] { ok1 = work(0, a, b); }), t2([&] { ok2 = work(1, b2, a2); });
    t1.join();
    t2.join();
    EXPECT_TRUE(ok1 && ok2);
    EXPECT_EQ(original.GetNumMisVal(), 0);
    EXPECT_EQ(original.GetSum(), 512.0);
    EXPECT_TRUE(a[1] == TypeParam(1) && b[1] == TypeParam(2));
}

TYPED_TEST(VectorTest, ArithmeticPropagatesMissing)
{
    const auto a = Vec<TypeParam>({1, -99, 3, -100}), b = Vec<TypeParam>({2, 5, -99, 1});
    // -100 + 1 lands on -99 and is counted as missing.
    EXPECT_TRUE(Holds(a + b, {3, M, M, M}));
    EXPECT_TRUE(Holds(a - b, {-1, M, M, -101}));
    EXPECT_TRUE(Holds(a * 2.0, {2, M, 6, -200}));
    EXPECT_TRUE(Holds(a + 1.0, {2, M, 4, M}));
    EXPECT_TRUE(Holds(a / 2.0, {0.5, M, 1.5, -50}));
    EXPECT_EQ(a * b, 2.0 - 100.0);
    EXPECT_TRUE(Holds(After(a, [&](auto& c) { c.TransformTo_Add_d_x_Vt(2.0, b); }), {5, M, M, -98}));
    EXPECT_TRUE(Holds(After(a, [&](auto& c) { c.TransformTo_Sub_d_x_Vt(2.0, b); }), {-3, M, M, -102}));
    const auto d = Vec<TypeParam>({4, 0, -99, -9});
    EXPECT_TRUE(Holds(After(d, [](auto& c) { c.DotDivide(Vec<TypeParam>({2, 1, 1, 0})); }), {2, 0, M, M}));
    EXPECT_TRUE(Holds(After(d, [](auto& c) { c.VectorDivide(8.0); }), {2, M, M, TypeParam(8.0 / -9.0)}));
    EXPECT_TRUE(Holds(After(Vec<TypeParam>({4, -4, -99}), [](auto& c) { c.Sqrt(); }), {2, M, M}));
    EXPECT_TRUE(Holds(After(Vec<TypeParam>({-4, -99}), [](auto& c) { c.Abs(); }), {4, M}));
}

TYPED_TEST(VectorTest, EditsAndBulkCopies)
{
    NCDataVector<TypeParam> v = Vec<TypeParam>({1, 2, 3});
    v.InsertValues(2, Vec<TypeParam>({-99, 9}));
    EXPECT_TRUE(Holds(v, {1, M, 9, 2, 3}));
    v.InsertValues(6, 1, M);
    EXPECT_TRUE(Holds(v, {1, M, 9, 2, 3, M}));
    EXPECT_THROW(v.InsertValues(8, 1, M), NCInternalError);
    EXPECT_THROW(v.RemoveValues(0, 1), NCInternalError);
    v.RemoveValues(1, 2);
    EXPECT_TRUE(Holds(v, {9, 2, 3, M}));
    const int capacity = v.Capacity();
    v.Remove(List{4, 1, 4, 17});
    EXPECT_TRUE(Holds(v, {2, 3}));
    EXPECT_EQ(v.Capacity(), capacity);
    v.Reduce(List{2, 2, 1});
    EXPECT_TRUE(Holds(v, {3, 3, 2}));
    EXPECT_THROW(v.Reduce(List{4}), NCInternalError);
    v.Reduce(List());
    EXPECT_TRUE(v.empty());
    EXPECT_TRUE(Holds(After(Vec<TypeParam>({1, -99, 1, -99}), [](auto& w) { w.Remove(M); }), {1, 1}));
    const TypeParam oneBased[] = {TypeParam(0), TypeParam(1), M, TypeParam(3)};
    v.CopyVector(oneBased, 3);
    EXPECT_TRUE(Holds(v, {1, M, 3}));
    v.SetRange(2, Vec<TypeParam>({7, 8, 9}), 2, 3);
    EXPECT_TRUE(Holds(v, {1, 8, 9}));
    EXPECT_THROW(v.SetRange(3, oneBased, 2), NCInternalError);
    v(2, oneBased, 2);
    EXPECT_TRUE(Holds(v, {1, 0, 1}));
    // Copying from the vector's own storage.
    v.CopyZeroBasedVector(v.begin() + 1, 2);
    EXPECT_TRUE(Holds(v, {0, 1}));
    EXPECT_THROW(v.CopyZeroBasedVector(nullptr, 2), NCInternalError);
    NCDataVector<TypeParam> deep;
    deep.CopyContent(v);
    EXPECT_TRUE(deep.begin() != v.begin() && deep == v);
}

TYPED_TEST(VectorTest, PreprocessingAndInterpolation)
{
    auto line = Vec<TypeParam>({3, 5, -99, 9});
    double intercept = 0, slope = 0;
    line.DetrendLinear(intercept, slope);
    EXPECT_NEAR(intercept, 1.0, 1e-12);
    EXPECT_NEAR(slope, 2.0, 1e-12);
    for (int i : {1, 2, 4})
        EXPECT_NEAR(line[i], 0.0, 1e-6);
    EXPECT_EQ(line[3], M);
    auto s = Vec<TypeParam>({1, 2, 3, -99});
    s.SNV();
    EXPECT_NEAR(s.GetMean(), 0.0, 1e-7);
    EXPECT_NEAR(s.GetStdDev(), 1.0, 1e-6);
    EXPECT_EQ(s.GetNumMisVal(), 1);
    EXPECT_TRUE(Holds(After(NCDataVector<TypeParam>(3, TypeParam(4)), [](auto& f) { f.SNV(); }), {0, 0, 0}));
    auto n = Vec<TypeParam>({3, -99, 4});
    EXPECT_DOUBLE_EQ(n.Normalize(), 5.0);
    EXPECT_NEAR(n.GetSS(), 1.0, 1e-7);
    EXPECT_EQ(NCDataVector<TypeParam>(2, TypeParam(0)).Normalize(), 0.0);
    const auto abc = Vec<TypeParam>({1, 2, 3});
    EXPECT_TRUE(Holds(After(abc, [](auto& l) { l.Lag(1); }), {M, 1, 2}));
    EXPECT_TRUE(Holds(After(abc, [](auto& l) { l.Lag(1); l.Lag(-2); }), {2, M, M}));
    EXPECT_TRUE(Holds(After(abc, [](auto& l) { l.Lag(5); }), {M, M, M}));

    auto v = Vec<TypeParam>({-99, 2, -99, -99, 8, -99});
    v.InterpolateMisVals(nullptr);
    EXPECT_TRUE(Holds(v, {2, 2, 4, 6, 8, 8}));
    // Uneven positions, one of them unknown.
    auto y = Vec<TypeParam>({0, -99, -99, 10}), x = Vec<TypeParam>({0, 1, -99, 10});
    y.InterpolateMisVals(&x);
    EXPECT_NEAR(y[2], 1.0, 1e-6);
    EXPECT_EQ(y[3], M);
    EXPECT_EQ(y.GetNumMisVal(), 1);
    EXPECT_THROW(y.InterpolateMisVals(&v), NCInternalError);
    EXPECT_TRUE(Holds(After(NCDataVector<TypeParam>(3, M), [](auto& a) { a.InterpolateMisVals(nullptr); }), {M, M, M}));
}

TYPED_TEST(VectorTest, LowerBoundWithMissingLast)
{
    const std::vector<TypeParam> up{1, 3, 3, 7, M, M}, down{7, 3, 1, M};
    const struct { const std::vector<TypeParam>& range; TypeParam value; bool ascending; long at; } cases[] = {
        {up, 3, true, 1},    {up, 4, true, 3},    {up, 8, true, 4},     {up, 0, true, 0}, {up, M, true, 4},
        {down, 3, false, 1}, {down, 2, false, 2}, {down, -5, false, 3}, {down, M, false, 3}};
    for (const auto& c : cases) {
        const TypeParam* first = c.range.data();
        const auto found =
            NCDataVector<TypeParam>::lower_bound_missing_last(first, first + c.range.size(), c.value, c.ascending);
        EXPECT_EQ(found - first, c.at) << c.value << (c.ascending ? " ascending" : " descending");
    }
}

} // namespace
