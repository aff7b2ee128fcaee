// The column and row projections that NIPALS repeats for every component,
// and the sum of squares of the rows they read.
//
// The regressions read the matrix in place, row by row: each thread sums its
// share of the rows into its own per-column partial sums, which are added
// together at the end. Elements are multiplied in the element type and
// accumulated in double.

#include "veltancmat/containers/MatrixErrors.h"
#include "veltancmat/containers/NCDataMatrix.h"
#include "veltancmat/containers/frame/NipalsRule.h"
#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/containers/frame/RankOne.h"
#include "veltancmat/containers/frame/Simd.h"

#include <omp.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// The masked and dot-product kernels are written with explicit 32-byte
// vectors (GCC vector extensions; the baseline clone splits each into two
// SSE operations): for loops that select per cell or keep several sums,
// GCC's own vectorisation produced blends, spills or one serial chain. The
// helpers are always inlined into the clones, so the vector arguments never
// cross a call (see -Wno-psabi in veltancmat/CMakeLists.txt).
using FloatVec = float __attribute__((vector_size(32)));
using DoubleVec = double __attribute__((vector_size(32)));

template <class T>
struct Simd;

template <>
struct Simd<float> {
    using Vec = FloatVec;
    static constexpr int Width = 8;
    // Adds v into two double vectors.
    static inline __attribute__((always_inline)) void Widen(DoubleVec* total, Vec v)
    {
        total[0] += __builtin_convertvector(__builtin_shufflevector(v, v, 0, 1, 2, 3), DoubleVec);
        total[1] += __builtin_convertvector(__builtin_shufflevector(v, v, 4, 5, 6, 7), DoubleVec);
    }
};

template <>
struct Simd<double> {
    using Vec = DoubleVec;
    static constexpr int Width = 4;
    static inline __attribute__((always_inline)) void Widen(DoubleVec* total, Vec v) { total[0] += v; }
};

template <class V>
inline __attribute__((always_inline)) V LoadVec(const void* p)
{
    V v;
    std::memcpy(&v, p, sizeof(V));
    return v;
}

// The lanes of v where mask is set, zero elsewhere. Selecting with bit
// masks lets one comparison serve both selects of the masked kernels:
// written as two ?: on the comparison, GCC compares twice.
using FloatMask = decltype(FloatVec{} == FloatVec{});
using DoubleMask = decltype(DoubleVec{} == DoubleVec{});

inline __attribute__((always_inline)) FloatVec Keep(FloatVec v, FloatMask mask)
{
    return reinterpret_cast<FloatVec>(reinterpret_cast<FloatMask>(v) & mask);
}

inline __attribute__((always_inline)) DoubleVec Keep(DoubleVec v, DoubleMask mask)
{
    return reinterpret_cast<DoubleVec>(reinterpret_cast<DoubleMask>(v) & mask);
}

// Adds the lanes of `count` (2 or 4) double vectors pairwise: a running
// sum over all sixteen lanes was a chain of sixteen dependent additions
// at the end of every row.
inline __attribute__((always_inline)) double SumLanes(const DoubleVec* total, int count)
{
    const DoubleVec v = count == 4 ? (total[0] + total[1]) + (total[2] + total[3]) : total[0] + total[1];
    return (v[0] + v[1]) + (v[2] + v[3]);
}

template <class V>
inline __attribute__((always_inline)) void StoreVec(void* p, const V& v)
{
    std::memcpy(p, &v, sizeof(V));
}

// s12[j] += x[j] * t for a complete row, into partial sums of the element
// type (see FlushEvery). One row at a time: bands of rows read together
// measured slower, the rows being short separate streams.
template <class T>
VELTAN_SIMD_CLONES void AccumulateComplete(T* __restrict s12, const T* __restrict x, T t, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j)
        s12[j] += x[j] * t;
}

// The same for a row with missing cells, which count as zero in s12. What
// they would have contributed to the used squares is gathered apart in
// gapSquares[j] (t^2 where x[j] is missing): the used squares of a column
// are then t't minus that, a select per cell instead of a mask on every
// sum.
template <class T>
VELTAN_SIMD_CLONES void AccumulateMasked(T* __restrict s12, T* __restrict gapSquares, const T* __restrict x, T t,
                                         int n)
{
    using V = typename Simd<T>::Vec;
    constexpr int W = Simd<T>::Width;
    const V missing = V{} + NCMisVal<T>;
    const V tv = V{} + t;
    const V qv = tv * tv;
    using M = decltype(missing == missing);
    int j = 1;
    for (; j + W - 1 <= n; j += W) {
        const V xv = LoadVec<V>(x + j);
        const M mx = xv == missing;
        StoreVec(s12 + j, LoadVec<V>(s12 + j) + Keep(xv, ~mx) * tv);
        StoreVec(gapSquares + j, LoadVec<V>(gapSquares + j) + Keep(qv, mx));
    }
    for (; j <= n; ++j) {
        const bool mx = IsMisVal(x[j]);
        s12[j] += (mx ? T(0) : x[j]) * t;
        gapSquares[j] += mx ? t * t : T(0);
    }
}

// total[j] += partial[j] in double, and the partial sums start again.
template <class T>
VELTAN_SIMD_CLONES void Flush(double* __restrict total, T* __restrict partial, int n)
{
#pragma omp simd
    for (int j = 1; j <= n; ++j) {
        total[j] += partial[j];
        partial[j] = T(0);
    }
}

// The column projection sums this many rows in the element type before it
// adds them to its double sums: a quarter of the per-cell work of adding
// each product in double, for an error of a few units in the last place of
// a float over eight terms.
constexpr int FlushEvery = 8;

// A zeroed 1-based array of n + 1 elements whose element 1 starts a cache
// line. The sums are read and written in full vectors once per cell of the
// matrix: at the 4-byte offset a std::vector would give, half of those
// stores would straddle two lines.
template <class T>
class LineAligned
{
public:
    explicit LineAligned(int n)
    {
        // One line in front (element 0 and padding), n elements, and the
        // rest rounded up to whole lines as aligned_alloc requires.
        constexpr std::size_t perLine = 64 / sizeof(T);
        const std::size_t elements = (perLine + static_cast<std::size_t>(n) + 2 * perLine - 1) / perLine * perLine;
        m_block.reset(static_cast<T*>(std::aligned_alloc(64, elements * sizeof(T))));
        if (!m_block)
            throw std::bad_alloc();
        std::fill_n(m_block.get(), elements, T(0));
    }
    T* data() { return m_block.get() + 64 / sizeof(T) - 1; }

private:
    struct Free {
        void operator()(T* p) const { std::free(p); }
    };
    std::unique_ptr<T, Free> m_block;
};

// Rows shorter than this (the few responses of a PLS model) are summed by
// inline scalar loops: a call through the clone dispatcher costs more than
// such a row's arithmetic, and these projections meet every row once per
// NIPALS iteration.
constexpr int ShortRow = 16;

bool WorthParallel(long long rows, long long cols)
{
    return NCParallelWork::ProjectionWorthParallel(rows, cols, 1, NCParallelWork::MinCells);
}

// Rows are separate blocks, so the hardware prefetcher loses the stream at
// each row's start. The column projection carries two read-write sum
// streams besides the row, so fewer of its loads are in flight, and it asks
// for rows ahead itself: the row eight ahead into the second-level cache,
// where requests do not hold first-level miss slots. The row projection
// reads the row alone and leaves the stream to the hardware, which was as
// fast or faster than any distance asked for (docs/performance.md).
constexpr int ColumnAhead = 8;
constexpr int ColumnLocality = 1; // prefetcht2

// The one-sweep projection alternates reading a row for its score with
// arithmetic on rows already in cache, and the hardware prefetcher, which
// serves the row projection alone well, then leaves the memory idle in
// between. It asks for the row sixteen ahead into the second-level cache:
// with gaps, where the sweep's arithmetic is heaviest, that was faster than
// eight ahead, than the first-level cache, and than not asking.
constexpr int SweepAhead = 16;

// A thread's share of a matrix this small stays in its second-level cache
// between passes (as in the rounds of a cross-validation), and asking for
// its rows again only costs instructions. A share that does not fit comes
// from the shared third level, where asking ahead pays.
constexpr long long PrefetchFromBytes = 1LL << 20;

template <class T>
bool WorthPrefetching(long long rows, long long cols, bool parallel)
{
    const long long threads = parallel ? std::max(1, omp_get_max_threads()) : 1;
    return rows * cols * static_cast<long long>(sizeof(T)) / threads >= PrefetchFromBytes;
}

// ---- row projection of rows shorter than ShortRow (the responses of PLS)
//
// With the width a compile-time constant the cell loop unrolls without a
// branch per cell, and a complete row skips the gap sums. The arithmetic,
// and so every bit of the results, is that of the loop over a run-time
// width.

template <class T, int N>
struct ShortRows {
    // This thread's share of the row projection; returns how many of its
    // results are missing.
    static int Rows(const NCRowTable<T>& rows, const T* pv, const T* p2, const int* present, double pp,
                    int presentInP, T* out)
    {
        int missing = 0;
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows.count; ++i) {
            const NCDataVector<T>& row = rows[i];
            const T* x = row.GetVector();
            // Odd and even columns go to separate sums, which halves the
            // chain of dependent double additions a row waits for (up to
            // fifteen with one sum).
            double even = 0.0, odd = 0.0, d = pp;
            int pairs = presentInP;
            if (row.HasNoMissingValues()) {
                for (int j = 1; j <= N; ++j)
                    (j % 2 ? odd : even) += x[j] * pv[j];
            } else {
                double gapSquares = 0.0;
                int gapPairs = 0;
                for (int j = 1; j <= N; ++j) {
                    const bool gap = IsMisVal(x[j]);
                    (j % 2 ? odd : even) += (gap ? T(0) : x[j]) * pv[j];
                    gapSquares += gap ? p2[j] : T(0);
                    gapPairs += gap ? present[j] : 0;
                }
                d = NipalsDivisor(pp, pp - gapSquares);
                pairs -= gapPairs;
            }
            out[i] = NipalsQuotient<T>(odd + even, d, pairs);
            missing += IsMisVal(out[i]) ? 1 : 0;
        }
        return missing;
    }
};

// The kernels for every width below ShortRow, indexed by the width.
template <class T, std::size_t... N>
constexpr auto MakeShortRows(std::index_sequence<N...>)
{
    return std::array{&ShortRows<T, static_cast<int>(N)>::Rows...};
}

template <class T>
constexpr auto ShortRowKernels = MakeShortRows<T>(std::make_index_sequence<ShortRow>());

template <int Locality, class T>
inline void PrefetchRow(const T* x, int n)
{
    const char* begin = reinterpret_cast<const char*>(x + 1);
    const char* end = reinterpret_cast<const char*>(x + 1 + n);
    for (const char* a = begin; a < end; a += 64)
        __builtin_prefetch(a, 0, Locality);
}

// The row projection's dot products keep two vectors of independent partial
// sums in the element type: one running sum would make every addition wait
// for the one before, and the loop would be bound by that latency rather
// than by reading the row. Every FlushEvery blocks the partial sums are
// widened into double sums, so no float sum runs over more than eight terms.

// Sum of x[j] * p[j] over the columns.
template <class T>
VELTAN_SIMD_CLONES double DotComplete(const T* __restrict x, const T* __restrict p, int n)
{
    using S = Simd<T>;
    using V = typename S::Vec;
    constexpr int W = S::Width;
    constexpr int Wide = 2 * (W / 4); // double vectors per element vector, times two
    V a = {}, b = {};
    DoubleVec total[Wide] = {};
    int j = 1;
    int blocks = 0;
    for (; j + 2 * W - 1 <= n; j += 2 * W) {
        a += LoadVec<V>(x + j) * LoadVec<V>(p + j);
        b += LoadVec<V>(x + j + W) * LoadVec<V>(p + j + W);
        if (++blocks == FlushEvery) {
            S::Widen(total, a);
            S::Widen(total + Wide / 2, b);
            a = b = V{};
            blocks = 0;
        }
    }
    S::Widen(total, a);
    S::Widen(total + Wide / 2, b);
    // One more vector where it fits: the scalar remainder is a dependent
    // chain, as long as the rest of a 200-cell row.
    if (j + W - 1 <= n) {
        S::Widen(total, LoadVec<V>(x + j) * LoadVec<V>(p + j));
        j += W;
    }
    double sum = SumLanes(total, Wide);
    for (; j <= n; ++j)
        sum += x[j] * p[j];
    return sum;
}

// The same over a row with missing cells, against a loading whose missing
// entries are zero (p) with squares p2 (zero there too). The squares of the
// loadings that meet a missing cell are gathered apart. Selecting between
// values already loaded keeps the loads unconditional.
template <class T>
VELTAN_SIMD_CLONES double DotMasked(const T* __restrict x, const T* __restrict p, const T* __restrict p2, int n,
                                    double& gapSquares)
{
    using S = Simd<T>;
    using V = typename S::Vec;
    constexpr int W = S::Width;
    constexpr int Wide = 2 * (W / 4);
    const V missing = V{} + NCMisVal<T>;
    using M = decltype(missing == missing);
    V a = {}, b = {}, ga = {}, gb = {};
    DoubleVec total[Wide] = {}, gapTotal[Wide] = {};
    int j = 1;
    int blocks = 0;
    for (; j + 2 * W - 1 <= n; j += 2 * W) {
        const V xa = LoadVec<V>(x + j), xb = LoadVec<V>(x + j + W);
        const M ma = xa == missing, mb = xb == missing;
        a += Keep(xa, ~ma) * LoadVec<V>(p + j);
        b += Keep(xb, ~mb) * LoadVec<V>(p + j + W);
        ga += Keep(LoadVec<V>(p2 + j), ma);
        gb += Keep(LoadVec<V>(p2 + j + W), mb);
        if (++blocks == FlushEvery) {
            S::Widen(total, a);
            S::Widen(total + Wide / 2, b);
            S::Widen(gapTotal, ga);
            S::Widen(gapTotal + Wide / 2, gb);
            a = b = ga = gb = V{};
            blocks = 0;
        }
    }
    S::Widen(total, a);
    S::Widen(total + Wide / 2, b);
    S::Widen(gapTotal, ga);
    S::Widen(gapTotal + Wide / 2, gb);
    if (j + W - 1 <= n) {
        const V xa = LoadVec<V>(x + j);
        const M ma = xa == missing;
        S::Widen(total, Keep(xa, ~ma) * LoadVec<V>(p + j));
        S::Widen(gapTotal, Keep(LoadVec<V>(p2 + j), ma));
        j += W;
    }
    double sum = SumLanes(total, Wide);
    double squares = SumLanes(gapTotal, Wide);
    for (; j <= n; ++j) {
        const bool gap = IsMisVal(x[j]);
        sum += (gap ? T(0) : x[j]) * p[j];
        squares += gap ? p2[j] : T(0);
    }
    gapSquares = squares;
    return sum;
}

// How many missing cells of a row meet a present loading.
template <class T>
VELTAN_SIMD_CLONES int GapPairs(const T* x, const int* present, int n)
{
    int count = 0;
#pragma omp simd reduction(+ : count)
    for (int j = 1; j <= n; ++j)
        count += int(IsMisVal(x[j])) * present[j];
    return count;
}

// ---- column projection of float rows with missing cells, FlushEvery rows
// at a time
//
// Row by row, a gappy row updates two partial-sum arrays in memory (the
// products, and the squares its missing cells remove): a load and a store
// per cell for each, more work per cell than reading the row costs. Here a
// strip of sixteen columns of both sums stays in registers over a block of
// rows and is widened into the double sums once per block. The block is the
// FlushEvery rows the row-by-row kernels sum in the element type, summed in
// the same order with the same roundings, so every bit of the results is
// theirs. Only x86-64 with AVX2 has these kernels; elsewhere the row-by-row
// ones run. Complete matrices keep those too: their row kernel has no
// squares to carry and already runs at the speed of reading the rows.

// Adds, for the R rows x[0 .. R-1] with scores t[0 .. R-1], the products
// x t of the present cells to total[1 .. n] and t^2 of the missing cells to
// squares[1 .. n]. Meanwhile it asks for the FlushEvery rows `next` (the
// next block; null after the last) strip by strip: requests spread over the
// block keep the memory busy, where asking for whole rows ahead (as the
// row-by-row loop does) came in bursts, and the block ran slower than the
// row-by-row kernels.
using ColumnBlockKernel = void (*)(double* total, double* squares, const float* const* x, const float* t,
                                   const float* const* next, int n);
// The kernels for R = 1 .. FlushEvery, at R - 1; a whole block is the common
// case, shorter ones end a thread's share of the rows. R is a template
// argument so that the scores stay in registers and the loop over the rows
// unrolls.
using ColumnBlockKernels = std::array<ColumnBlockKernel, FlushEvery>;

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__SANITIZE_THREAD__)
#define VELTAN_COLUMN_BLOCKS 1

// The pieces both forms share. AVX2 is the lesser target, so they inline
// into either.
#define VELTAN_BLOCK_PIECE __attribute__((target("avx2"), always_inline)) inline

// The scores of the block and their squares, one per vector.
template <int R>
VELTAN_BLOCK_PIECE void BroadcastScores(const float* t, __m256* tv, __m256* qv)
{
    for (int r = 0; r < R; ++r) {
        tv[r] = _mm256_set1_ps(t[r]);
        qv[r] = _mm256_set1_ps(t[r] * t[r]);
    }
}

// Asks for the line at column j of each row of the next block.
VELTAN_BLOCK_PIECE void PrefetchStrip(const float* const* next, int j)
{
    if (next)
        for (int r = 0; r < FlushEvery; ++r)
            __builtin_prefetch(next[r] + j, 0, ColumnLocality);
}

// total[0 .. 7] += v, widened to double.
VELTAN_BLOCK_PIECE void WidenInto(double* total, __m256 v)
{
    _mm256_storeu_pd(total, _mm256_add_pd(_mm256_loadu_pd(total), _mm256_cvtps_pd(_mm256_castps256_ps128(v))));
    const __m128 high = _mm256_extractf128_ps(v, 1);
    _mm256_storeu_pd(total + 4, _mm256_add_pd(_mm256_loadu_pd(total + 4), _mm256_cvtps_pd(high)));
}

// The strip's sums of columns j .. j+15 into the double sums.
VELTAN_BLOCK_PIECE void WidenStrip(double* total, double* squares, int j, __m256 s0, __m256 s1, __m256 g0, __m256 g1)
{
    WidenInto(total + j, s0);
    WidenInto(total + j + 8, s1);
    WidenInto(squares + j, g0);
    WidenInto(squares + j + 8, g1);
}

// The cells past the last whole strip, one column at a time.
inline void ColumnBlockTail(double* total, double* squares, const float* const* x, const float* t, int rows, int j,
                            int n)
{
    for (; j <= n; ++j) {
        float s = 0.0f, g = 0.0f;
        for (int r = 0; r < rows; ++r) {
            const bool gap = IsMisVal(x[r][j]);
            s += (gap ? 0.0f : x[r][j]) * t[r];
            g += gap ? t[r] * t[r] : 0.0f;
        }
        total[j] += s;
        squares[j] += g;
    }
}

// How the two forms find and drop the missing cells. With AVX-512 the
// comparison gives a mask register: the missing cells zero the product's
// input and pick the squares without a separate select. With AVX2 the mask
// is a vector, and the selects are bitwise operations. The AVX-512 pieces
// cannot inline into the AVX2 strip loop below by themselves; ColumnBlock512
// flattens them into itself.
struct MaskRegisters {
    using Mask = __mmask8;
    __attribute__((target("avx512f,avx512vl"))) static inline Mask Gaps(__m256 x, __m256 missing)
    {
        return _mm256_cmp_ps_mask(x, missing, _CMP_EQ_OQ);
    }
    __attribute__((target("avx512f,avx512vl"))) static inline __m256 Present(__m256 x, Mask gaps)
    {
        return _mm256_maskz_mov_ps(static_cast<__mmask8>(~gaps), x);
    }
    __attribute__((target("avx512f,avx512vl"))) static inline __m256 AddAtGaps(__m256 sum, Mask gaps, __m256 add)
    {
        return _mm256_mask_add_ps(sum, gaps, sum, add);
    }
};

struct VectorMasks {
    using Mask = __m256;
    VELTAN_BLOCK_PIECE static Mask Gaps(__m256 x, __m256 missing) { return _mm256_cmp_ps(x, missing, _CMP_EQ_OQ); }
    VELTAN_BLOCK_PIECE static __m256 Present(__m256 x, Mask gaps) { return _mm256_andnot_ps(gaps, x); }
    VELTAN_BLOCK_PIECE static __m256 AddAtGaps(__m256 sum, Mask gaps, __m256 add)
    {
        return _mm256_add_ps(sum, _mm256_and_ps(gaps, add));
    }
};

// The block kernel, over strips of sixteen columns and then the tail.
template <int R, class Lanes>
VELTAN_BLOCK_PIECE void ColumnBlockStrips(double* total, double* squares, const float* const* x, const float* t,
                                          const float* const* next, int n)
{
    const __m256 missing = _mm256_set1_ps(NCMisVal<float>);
    __m256 tv[R], qv[R];
    BroadcastScores<R>(t, tv, qv);
    int j = 1;
    for (; j + 15 <= n; j += 16) {
        PrefetchStrip(next, j);
        __m256 s0 = _mm256_setzero_ps(), s1 = s0, g0 = s0, g1 = s0;
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const __m256 x0 = _mm256_loadu_ps(x[r] + j), x1 = _mm256_loadu_ps(x[r] + j + 8);
            const typename Lanes::Mask m0 = Lanes::Gaps(x0, missing), m1 = Lanes::Gaps(x1, missing);
            s0 = _mm256_add_ps(s0, _mm256_mul_ps(Lanes::Present(x0, m0), tv[r]));
            s1 = _mm256_add_ps(s1, _mm256_mul_ps(Lanes::Present(x1, m1), tv[r]));
            g0 = Lanes::AddAtGaps(g0, m0, qv[r]);
            g1 = Lanes::AddAtGaps(g1, m1, qv[r]);
        }
        WidenStrip(total, squares, j, s0, s1, g0, g1);
    }
    ColumnBlockTail(total, squares, x, t, R, j, n);
}

template <int R>
__attribute__((target("avx512f,avx512vl"), flatten)) void ColumnBlock512(double* total, double* squares,
                                                                         const float* const* x, const float* t,
                                                                         const float* const* next, int n)
{
    ColumnBlockStrips<R, MaskRegisters>(total, squares, x, t, next, n);
}

template <int R>
__attribute__((target("avx2"))) void ColumnBlock256(double* total, double* squares, const float* const* x,
                                                    const float* t, const float* const* next, int n)
{
    ColumnBlockStrips<R, VectorMasks>(total, squares, x, t, next, n);
}

#undef VELTAN_BLOCK_PIECE

template <std::size_t... R> constexpr ColumnBlockKernels Blocks512(std::index_sequence<R...>)
{
    return {&ColumnBlock512<static_cast<int>(R) + 1>...};
}

template <std::size_t... R> constexpr ColumnBlockKernels Blocks256(std::index_sequence<R...>)
{
    return {&ColumnBlock256<static_cast<int>(R) + 1>...};
}

constexpr ColumnBlockKernels ColumnBlocks512 = Blocks512(std::make_index_sequence<FlushEvery>());
constexpr ColumnBlockKernels ColumnBlocks256 = Blocks256(std::make_index_sequence<FlushEvery>());
#endif

const ColumnBlockKernels* PickColumnBlocks()
{
#ifdef VELTAN_COLUMN_BLOCKS
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl"))
        return &ColumnBlocks512;
    if (__builtin_cpu_supports("avx2"))
        return &ColumnBlocks256;
#endif
    return nullptr;
}

// The kernels this processor runs, or null where the row-by-row ones must.
const ColumnBlockKernels* ColumnBlocksHere()
{
    static const ColumnBlockKernels* const chosen = PickColumnBlocks();
    return chosen;
}

} // namespace

// ------------------------------------------------------ sum of squares

template <class T>
double NCDataMatrix<T>::SumSquares(const NCRowTable<T>& rows)
{
    const bool anyValid = rows.count * static_cast<long long>(rows.cols) > rows.missing;
    if (!anyValid)
        return dMisVal;
    // A complete row is the dot product of the row with itself, whose
    // independent partial sums run at the speed of reading the row; the
    // vector's own sum keeps one chain of double additions.
    const int n = rows.cols;
    double ss = 0.0;
#pragma omp parallel for if (WorthParallel(rows.count, n)) schedule(static) reduction(+ : ss)
    for (int i = 1; i <= rows.count; ++i) {
        const Vector& row = rows[i];
        if (row.HasNoMissingValues())
            ss += DotComplete(row.GetVector(), row.GetVector(), n);
        else if (row.HasValidValues())
            ss += row.GetSS();
    }
    return ss;
}

// ------------------------------------------------------ NIPALS regressions

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector& t, const IndexList* groups,
                                                                int group) const
{
    Vector p;
    SpecialNipalsRegressColumnsFixImpl(t, groups, group, &p);
    return p;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector& t, const IndexList* groups, int group,
                                                         Vector* result) const
{
    CheckedNipalsColumns(AllRows(), t, groups, group, result, Owner);
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsColumns(const NCRowTable<T>& rows, const Vector& t, const IndexList* groups,
                                           int group, Vector* result, const char* owner)
{
    NCMatrixErrors::CheckResult(result);
    if (t.Size() != rows.count || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "SpecialNipalsRegressColumnsFix", "Vectors are of different size.");
    NipalsColumns(rows, t, groups, group, result);
}

namespace {

// The column projection's sums over the rows that take part (those whose
// score is present): the products x't per column, t't and how many rows,
// and, with gaps, the squares t_i^2 that each column's missing cells remove
// from t't.
struct ColumnSums {
    std::vector<double> s12;
    std::vector<double> gapSquares;
    double tt = 0.0;
    int rowsUsed = 0;
};

// One thread's share of the column projection. Rows are summed in the
// element type FlushEvery at a time and then widened into the share's
// double sums: row by row, or for float rows with gaps, where the processor
// has them, by the block kernels. Adding a row is inlined into the loop
// over the rows: a call per row showed in the time of the complete
// projection (docs/performance.md).
template <class T>
class ColumnShare
{
public:
    ColumnShare(int n, bool masked, const ColumnBlockKernels* blocks, bool prefetch)
        : m_n(n), m_masked(masked), m_blocks(blocks), m_prefetch(prefetch), m_total(n), m_squares(masked ? n : 0),
          m_part(blocks ? 0 : n), m_partSquares(masked && !blocks ? n : 0)
    {
    }

    inline __attribute__((always_inline)) void Add(const NCDataVector<T>& row, T ti)
    {
        if constexpr (std::is_same_v<T, float>) {
            if (m_blocks) {
                AddToBlock(row.GetVector(), ti);
                return;
            }
        }
        AddRow(row, ti);
    }

    // Sums what is pending and adds the share into `sums`.
    void AddInto(ColumnSums& sums)
    {
        Finish();
        const int n = m_n;
#pragma omp critical(NCDataMatrix_NipalsColumns)
        {
            for (int j = 1; j <= n; ++j)
                sums.s12[j] += m_total.data()[j];
            if (m_masked)
                for (int j = 1; j <= n; ++j)
                    sums.gapSquares[j] += m_squares.data()[j];
        }
    }

private:
    inline __attribute__((always_inline)) void AddRow(const NCDataVector<T>& row, T ti)
    {
        const T* x = row.GetVector();
        const int n = m_n;
        if (n < ShortRow) {
            T* p12 = m_part.data();
            if (row.HasNoMissingValues()) {
                for (int j = 1; j <= n; ++j)
                    p12[j] += x[j] * ti;
            } else {
                T* squares = m_partSquares.data();
                for (int j = 1; j <= n; ++j) {
                    const bool gap = IsMisVal(x[j]);
                    p12[j] += (gap ? T(0) : x[j]) * ti;
                    squares[j] += gap ? ti * ti : T(0);
                }
            }
        } else if (row.HasNoMissingValues()) {
            AccumulateComplete(m_part.data(), x, ti, n);
        } else {
            AccumulateMasked(m_part.data(), m_partSquares.data(), x, ti, n);
        }
        if (++m_pending == FlushEvery) {
            FlushRows();
            m_pending = 0;
        }
    }

    void FlushRows()
    {
        Flush(m_total.data(), m_part.data(), m_n);
        if (m_masked)
            Flush(m_squares.data(), m_partSquares.data(), m_n);
    }

    // Blocks are gathered one ahead of the one summed, so that the kernel
    // can ask for the next block's rows as it goes.
    inline __attribute__((always_inline)) void AddToBlock(const T* x, T ti)
    {
        m_nextRows[static_cast<std::size_t>(m_pending)] = x;
        m_nextScores[static_cast<std::size_t>(m_pending)] = ti;
        if (++m_pending < FlushEvery)
            return;
        if (!m_prefetch) {
            // Nothing to ask ahead for: the block is summed while its rows
            // are still in the first-level cache (the fused sweep has just
            // read them for their scores).
            SumBlock(FlushEvery, m_nextRows, m_nextScores, nullptr);
            m_pending = 0;
            return;
        }
        if (m_blockReady)
            SumBlock(FlushEvery, m_blockRows, m_blockScores, m_nextRows.data());
        std::swap(m_blockRows, m_nextRows);
        std::swap(m_blockScores, m_nextScores);
        m_blockReady = true;
        m_pending = 0;
    }

    void SumBlock(int count, const std::array<const T*, FlushEvery>& rows, const std::array<T, FlushEvery>& scores,
                  const T* const* next)
    {
        if constexpr (std::is_same_v<T, float>)
            (*m_blocks)[static_cast<std::size_t>(count - 1)](m_total.data(), m_squares.data(), rows.data(),
                                                             scores.data(), next, m_n);
    }

    void Finish()
    {
        if (!m_blocks) {
            FlushRows();
            return;
        }
        if (m_blockReady)
            SumBlock(FlushEvery, m_blockRows, m_blockScores, nullptr);
        if (m_pending > 0)
            SumBlock(m_pending, m_nextRows, m_nextScores, nullptr);
    }

    int m_n;
    bool m_masked;
    const ColumnBlockKernels* m_blocks;
    bool m_prefetch;
    LineAligned<double> m_total;
    LineAligned<double> m_squares;
    LineAligned<T> m_part;
    LineAligned<T> m_partSquares;
    std::array<const T*, FlushEvery> m_blockRows{}, m_nextRows{};
    std::array<T, FlushEvery> m_blockScores{}, m_nextScores{};
    bool m_blockReady = false;
    int m_pending = 0;
};

template <class T>
ColumnSums SumColumns(const NCRowTable<T>& rowTable, const T* tv, bool masked)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
    const ColumnBlockKernels* blocks = nullptr;
    if constexpr (std::is_same_v<T, float>)
        blocks = masked && n >= ShortRow ? ColumnBlocksHere() : nullptr;
    double tt = 0.0;
    int rowsUsed = 0;
#pragma omp parallel if (parallel) reduction(+ : tt, rowsUsed)
    {
        ColumnShare<T> share(n, masked, blocks, prefetch);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            if (prefetch && !blocks && i + ColumnAhead <= rows)
                PrefetchRow<ColumnLocality>(rowTable[i + ColumnAhead].GetVector(), n);
            const T ti = tv[i];
            if (IsMisVal(ti))
                continue;
            tt += static_cast<double>(ti * ti);
            ++rowsUsed;
            share.Add(rowTable[i], ti);
        }
        share.AddInto(sums);
    }
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    return sums;
}

// The missing cells of each column within the rows that take part: its
// missing count less those in rows whose score is missing.
template <class T>
std::vector<int> GapsInUsedRows(const NCRowTable<T>& rowTable, const T* tv, bool tComplete)
{
    const int n = rowTable.cols;
    std::vector<int> gaps(rowTable.columnMissing, rowTable.columnMissing + n + 1);
    if (!tComplete)
        for (int i = 1; i <= rowTable.count; ++i)
            if (IsMisVal(tv[i]) && rowTable[i].HasMissingValues()) {
                const T* x = rowTable[i].GetVector();
                for (int j = 1; j <= n; ++j)
                    gaps[j] -= IsMisVal(x[j]) ? 1 : 0;
            }
    return gaps;
}

} // namespace

namespace {

// The loadings from the column sums: sum / divisor per column, the divisor
// reduced by the squares that met a gap wherever the column or the scores
// have one. Returns how many loadings are missing.
template <class T>
int ColumnQuotients(const NCRowTable<T>& rowTable, const ColumnSums& sums, const T* tv, bool tComplete,
                    const NCIntegralVector<int, -99>* groups, int group, T* out)
{
    const int n = rowTable.cols;
    const bool masked = rowTable.missing > 0;
    const std::vector<int> gaps = masked ? GapsInUsedRows(rowTable, tv, tComplete) : std::vector<int>();
    const int* columnMissing = rowTable.columnMissing;
    const int* labels = groups ? groups->GetPtr() : nullptr;
    int missing = 0;
    for (int j = 1; j <= n; ++j) {
        double d = sums.tt;
        int pairs = sums.rowsUsed;
        if (masked && !(tComplete && columnMissing[j] == 0)) {
            d = NipalsDivisor(sums.tt, sums.tt - sums.gapSquares[j]);
            pairs = sums.rowsUsed - gaps[j];
        }
        const bool excluded = labels && labels[j] == group;
        out[j] = excluded ? NCMisVal<T> : NipalsQuotient<T>(sums.s12[j], d, pairs);
        missing += IsMisVal(out[j]) ? 1 : 0;
    }
    return missing;
}

// A loading as the row kernels want it: missing and excluded entries zero,
// their squares zero, and a presence flag per variable.
template <class T>
struct RowLoading {
    std::vector<T> pv, p2;
    std::vector<int> present;
    double pp = 0.0;
    int presentInP = 0;
    bool pComplete = false;

    RowLoading(const NCDataVector<T>& p, const NCIntegralVector<int, -99>* groups, int group, int n)
        : pv(static_cast<std::size_t>(n) + 1, T(0)), p2(static_cast<std::size_t>(n) + 1, T(0)),
          present(static_cast<std::size_t>(n) + 1, 0)
    {
        const int* labels = groups ? groups->GetPtr() : nullptr;
        for (int j = 1; j <= n; ++j) {
            if (IsMisVal(p[j]) || (labels && labels[j] == group))
                continue;
            pv[static_cast<std::size_t>(j)] = p[j];
            p2[static_cast<std::size_t>(j)] = p[j] * p[j];
            present[static_cast<std::size_t>(j)] = 1;
            pp += static_cast<double>(p2[static_cast<std::size_t>(j)]);
            ++presentInP;
        }
        pComplete = presentInP == n;
    }

    // The score of one row at least ShortRow wide.
    inline __attribute__((always_inline)) T Score(const NCDataVector<T>& row, int n) const
    {
        const T* x = row.GetVector();
        double sum = 0.0, d = pp;
        int pairs = presentInP;
        if (row.HasNoMissingValues()) {
            sum = DotComplete(x, pv.data(), n);
        } else {
            double gapSquares = 0.0;
            sum = DotMasked(x, pv.data(), p2.data(), n, gapSquares);
            d = NipalsDivisor(pp, pp - gapSquares);
            pairs -= pComplete ? row.GetNumMisVal() : GapPairs(x, present.data(), n);
        }
        return NipalsQuotient<T>(sum, d, pairs);
    }
};

} // namespace

template <class T>
void NCDataMatrix<T>::NipalsColumns(const NCRowTable<T>& rowTable, const Vector& t, const IndexList* groups,
                                    int group, Vector* result)
{
    const int n = rowTable.cols;
    const T* tv = t.GetVector();
    const ColumnSums sums = SumColumns(rowTable, tv, rowTable.missing > 0);
    result->SetSize(n);
    result->m_numMis =
        ColumnQuotients(rowTable, sums, tv, t.HasNoMissingValues(), groups, group, result->GetVectorForWriting());
}

template <class T>
double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int j, const Vector& t) const
{
    NCMatrixErrors::CheckVectorSize(t.Size(), m_rows, "SpecialNipalsRegressOneColumnFix");
    return t.SpecialNipalsRegressFix(GetColumn(j));
}

template <class T>
NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector& p, const IndexList* groups,
                                                             int group) const
{
    Vector t;
    SpecialNipalsRegressRowsFixImpl(p, groups, group, &t);
    return t;
}

template <class T>
void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector& p, const IndexList* groups, int group,
                                                      Vector* result) const
{
    CheckedNipalsRows(AllRows(), p, groups, group, result, Owner);
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsRows(const NCRowTable<T>& rows, const Vector& p, const IndexList* groups, int group,
                                        Vector* result, const char* owner)
{
    NCMatrixErrors::CheckResult(result);
    if (p.Size() != rows.cols || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "SpecialNipalsRegressRowsFix", "Vectors are of different size.");
    NipalsRows(rows, p, groups, group, result);
}

template <class T>
void NCDataMatrix<T>::NipalsRows(const NCRowTable<T>& rowTable, const Vector& p, const IndexList* groups, int group,
                                 Vector* result)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    const RowLoading<T> loading(p, groups, group, n);
    result->SetSize(rows);
    T* out = result->GetVectorForWriting();
    int missing = 0;
    [[maybe_unused]] const bool parallel = WorthParallel(rows, n);
    if (n < ShortRow) {
#pragma omp parallel if (parallel) reduction(+ : missing)
        missing += ShortRowKernels<T>[static_cast<std::size_t>(n)](rowTable, loading.pv.data(), loading.p2.data(),
                                                                   loading.present.data(), loading.pp,
                                                                   loading.presentInP, out);
        result->m_numMis = missing;
        return;
    }
#pragma omp parallel for if (parallel) schedule(static) reduction(+ : missing)
    for (int i = 1; i <= rows; ++i) {
        out[i] = loading.Score(rowTable[i], n);
        missing += IsMisVal(out[i]) ? 1 : 0;
    }
    result->m_numMis = missing;
}

// Each thread takes the same rows, in the same order, as the two passes
// would give it, computes a row's score and adds the row times that score
// into its column sums at once, grouped into blocks exactly as the column
// pass groups them: the results are those of the two passes to the bit,
// and the matrix is read once instead of twice.
template <class T>
void NCDataMatrix<T>::NipalsRowsThenColumns(const NCRowTable<T>& rowTable, const Vector& p, const IndexList* groups,
                                            int group, Vector* scores, Vector* loadings)
{
    const int n = rowTable.cols;
    const int rows = rowTable.count;
    if (n < ShortRow) {
        // The responses of PLS: narrow enough that both passes stay cheap,
        // and their row kernel sums in another order.
        NipalsRows(rowTable, p, groups, group, scores);
        NipalsColumns(rowTable, *scores, groups, group, loadings);
        return;
    }
    const RowLoading<T> loading(p, groups, group, n);
    const bool masked = rowTable.missing > 0;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const ColumnBlockKernels* blocks = nullptr;
    if constexpr (std::is_same_v<T, float>)
        blocks = masked ? ColumnBlocksHere() : nullptr;

    scores->SetSize(rows);
    T* out = scores->GetVectorForWriting();
    double tt = 0.0;
    int rowsUsed = 0, missing = 0;
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
#pragma omp parallel if (parallel) reduction(+ : tt, rowsUsed, missing)
    {
        ColumnShare<T> share(n, masked, blocks, false);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            if (prefetch && i + SweepAhead <= rows)
                PrefetchRow<ColumnLocality>(rowTable[i + SweepAhead].GetVector(), n);
            const Vector& row = rowTable[i];
            const T ti = loading.Score(row, n);
            out[i] = ti;
            if (IsMisVal(ti)) {
                ++missing;
                continue;
            }
            tt += static_cast<double>(ti * ti);
            ++rowsUsed;
            share.Add(row, ti);
        }
        share.AddInto(sums);
    }
    scores->m_numMis = missing;
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    loadings->SetSize(n);
    loadings->m_numMis =
        ColumnQuotients(rowTable, sums, out, missing == 0, groups, group, loadings->GetVectorForWriting());
}

// The deflation is elementwise, so it takes the rows in whatever shares the
// column projection gives the threads; the sums of squares and the column
// sums then follow SumSquares and NipalsColumns row for row.
template <class T>
bool NCDataMatrix<T>::DeflateThenColumns(const Vector& t, const Vector& p, const Vector& u, double* ss, Vector* w)
{
    if (t.Size() != m_rows || p.Size() != m_cols || u.Size() != m_rows)
        NCMatrixErrors::ThrowSize("DeflateThenColumns", "Vectors are of different size.");
    NCMatrixErrors::CheckResult(w);
    const int n = m_cols;
    const int rows = m_rows;
    if (rows == 0 || n < ShortRow) {
        // Narrow: the responses' own kernels sum in another order.
        AddVprimV(t, p, -1.0);
        return false;
    }
    UnlinkMe();
    const Vector loading(p);
    const T* pv = loading.GetVector();
    const T* tv = t.GetVector();
    const T* uv = u.GetVector();
    Vector* rowArray = m_rowArray;
    const bool masked = m_numMis > 0;
    ColumnSums sums;
    sums.s12.assign(static_cast<std::size_t>(n) + 1, 0.0);
    sums.gapSquares.assign(masked ? static_cast<std::size_t>(n) + 1 : 0, 0.0);
    const ColumnBlockKernels* blocks = nullptr;
    if constexpr (std::is_same_v<T, float>)
        blocks = masked ? ColumnBlocksHere() : nullptr;
    double squares = 0.0, tt = 0.0;
    int rowsUsed = 0, landed = 0;
    const bool parallel = WorthParallel(rows, n);
    const bool prefetch = WorthPrefetching<T>(rows, n, parallel);
#pragma omp parallel if (parallel) reduction(+ : squares, tt, rowsUsed, landed)
    {
        ColumnShare<T> share(n, masked, blocks, false);
#pragma omp for schedule(static) nowait
        for (int i = 1; i <= rows; ++i) {
            // As in the one-sweep projection: arithmetic between the rows.
            if (prefetch && i + SweepAhead <= rows)
                PrefetchRow<ColumnLocality>(rowArray[i + SweepAhead].GetVector(), n);
            Vector& row = rowArray[i];
            if (!IsMisVal(tv[i])) {
                const int newlyMissing = RankOneUpdate(row.GetVectorForWriting(), pv, -1.0 * tv[i], n);
                row.m_numMis += newlyMissing;
                landed += newlyMissing;
            }
            if (row.HasNoMissingValues())
                squares += DotComplete(row.GetVector(), row.GetVector(), n);
            else if (row.HasValidValues())
                squares += row.GetSS();
            const T ui = uv[i];
            if (IsMisVal(ui))
                continue;
            tt += static_cast<double>(ui * ui);
            ++rowsUsed;
            share.Add(row, ui);
        }
        share.AddInto(sums);
    }
    if (landed > 0) {
        RecountColumns();
        return false;
    }
    const NCRowTable<T> table = AllRows();
    const bool anyValid = rows * static_cast<long long>(n) > m_numMis;
    *ss = anyValid ? squares : dMisVal;
    sums.tt = tt;
    sums.rowsUsed = rowsUsed;
    w->SetSize(n);
    w->m_numMis = ColumnQuotients(table, sums, uv, u.HasNoMissingValues(), nullptr, 0, w->GetVectorForWriting());
    return true;
}

template <class T>
void NCDataMatrix<T>::CheckedNipalsRowsThenColumns(const NCRowTable<T>& rows, const Vector& p,
                                                   const IndexList* groups, int group, Vector* scores,
                                                   Vector* loadings, const char* owner)
{
    NCMatrixErrors::CheckResult(scores);
    NCMatrixErrors::CheckResult(loadings);
    if (p.Size() != rows.cols || (groups && groups->Size() != rows.cols))
        NCMatrixErrors::ThrowSizeIn(owner, "NipalsRowsThenColumns", "Vectors are of different size.");
    NipalsRowsThenColumns(rows, p, groups, group, scores, loadings);
}

#define VELTAN_INSTANTIATE_NIPALS(T)                                                                                  \
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Vector&, const IndexList*, int)   \
        const;                                                                                                        \
    template double NCDataMatrix<T>::SpecialNipalsRegressOneColumnFix(int, const Vector&) const;                     \
    template NCDataVector<T> NCDataMatrix<T>::SpecialNipalsRegressRowsFix(const Vector&, const IndexList*, int)      \
        const;                                                                                                        \
    template void NCDataMatrix<T>::SpecialNipalsRegressColumnsFixImpl(const Vector&, const IndexList*, int, Vector*) \
        const;                                                                                                        \
    template void NCDataMatrix<T>::SpecialNipalsRegressRowsFixImpl(const Vector&, const IndexList*, int, Vector*)    \
        const;                                                                                                        \
    template double NCDataMatrix<T>::SumSquares(const NCRowTable<T>&);                                               \
    template void NCDataMatrix<T>::NipalsColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int,         \
                                                 Vector*);                                                           \
    template void NCDataMatrix<T>::NipalsRows(const NCRowTable<T>&, const Vector&, const IndexList*, int, Vector*); \
    template void NCDataMatrix<T>::NipalsRowsThenColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int, \
                                                         Vector*, Vector*);                                          \
    template bool NCDataMatrix<T>::DeflateThenColumns(const Vector&, const Vector&, const Vector&, double*, Vector*); \
    template void NCDataMatrix<T>::CheckedNipalsRowsThenColumns(const NCRowTable<T>&, const Vector&,                 \
                                                                const IndexList*, int, Vector*, Vector*,             \
                                                                const char*);                                        \
    template void NCDataMatrix<T>::CheckedNipalsColumns(const NCRowTable<T>&, const Vector&, const IndexList*, int,  \
                                                        Vector*, const char*);                                       \
    template void NCDataMatrix<T>::CheckedNipalsRows(const NCRowTable<T>&, const Vector&, const IndexList*, int,     \
                                                     Vector*, const char*);

VELTAN_INSTANTIATE_NIPALS(float)
VELTAN_INSTANTIATE_NIPALS(double)
