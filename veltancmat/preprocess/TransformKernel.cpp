// The logarithm's vector loop and the failure scan are compiled once per
// instruction set: hwy/foreach_target.h includes this file again for each
// target; the rest of the file is compiled once (HWY_ONCE).
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "veltancmat/preprocess/TransformKernel.cpp"
#include <hwy/foreach_target.h>

#include <hwy/highway.h>

#include "veltancmat/preprocess/TransformKernel.h"

#include "veltancmat/containers/frame/ParallelWork.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>

HWY_BEFORE_NAMESPACE();
namespace NCTransformKernel::HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Cells x[0 .. n-1] of one row within a run, results to out[0 .. n-1]:
// each cell's logarithm where it can be stored in place, the cell itself
// where not. The present cells of the second kind (an argument outside the
// normal positive range, or a result that is the missing marker) are
// flagged for the cell-by-cell path. Returns the number flagged. Writing
// to a buffer keeps every store unconditional: a select back into x would
// become a masked store, which is slow on some processors.
//
// The vector loop gives the bits of the one-cell LogCell: same Apply
// arithmetic, NaturalLog operation for operation (NaturalLogOf).
inline bool LogCell(float v, double c1, double c2, double sign, float& out)
{
    const double a = c1 * v + c2;
    const bool present = v != fMisVal;
    const bool normal = a >= DoubleMin && a <= DoubleMax;
    const float r = normal ? static_cast<float>(sign * (NaturalLog(a) * InvLn10)) : 0.0f;
    const bool stored = present && normal && r != fMisVal;
    out = stored ? r : v;
    return present && !stored;
}

int LogCellsScalar(const float* x, float* out, const double* c1, const double* c2, double sign, std::int64_t* flagged,
                   int n)
{
    int count = 0;
    for (int j = 0; j < n; ++j) {
        flagged[j] = LogCell(x[j], c1[j], c2[j], sign, out[j]) ? 1 : 0;
        count += static_cast<int>(flagged[j]);
    }
    return count;
}

// NaturalLog's fused multiply-adds are fused instructions from AVX2 on. The
// targets below would round the product apart (Highway's MulAdd), so there
// the cells are taken one at a time. (Decided anew for each target.)
#undef VELTAN_LOG_VECTORS
#if HWY_ARCH_X86 && HWY_TARGET <= HWY_AVX2
#define VELTAN_LOG_VECTORS 1

// table[i] in each lane, for a table of sixteen doubles: with eight lanes,
// the whole table in two registers and one two-table permute, which
// Highway 1.0 does not offer; with four, a gather.
template <class D, class VU>
HWY_INLINE hn::Vec<D> Lookup16(D d, const double* table, VU i)
{
#if HWY_TARGET <= HWY_AVX3
    if constexpr (hn::MaxLanes(D()) == 8) {
        const hn::Vec<D> low = hn::LoadU(d, table), high = hn::LoadU(d, table + 8);
        return hn::Vec<D>{_mm512_permutex2var_pd(low.raw, i.raw, high.raw)};
    }
#endif
    return hn::GatherIndex(d, table, hn::BitCast(hn::RebindToSigned<D>(), i));
}

// NaturalLog (TransformKernel.h) in every lane of a, for normal, finite
// a > 0.
template <class D>
HWY_INLINE hn::Vec<D> NaturalLogOf(D d, hn::Vec<D> a)
{
    using namespace LogSteps;
    const hn::RebindToUnsigned<D> du;
    const auto tmp = hn::Sub(hn::BitCast(du, a), hn::Set(du, Offset));
    const auto position = hn::And(tmp, hn::Set(du, Mantissa));
    const auto i = hn::ShiftRight<48>(position);
    const auto biased = hn::ShiftRight<52>(hn::Add(tmp, hn::Set(du, std::uint64_t{1024} << 52)));
    const auto k = hn::Sub(hn::BitCast(d, hn::Or(hn::Set(du, 0x4330000000000000ULL), biased)),
                           hn::Set(d, 4503599627370496.0 + 1024.0));
    const auto z = hn::BitCast(d, hn::Add(hn::Set(du, Offset), position));
    const auto c = hn::BitCast(d, hn::Add(hn::And(position, hn::Set(du, StepMask)), hn::Set(du, Offset + Half)));
    const auto r = hn::Mul(hn::Sub(z, c), Lookup16(d, InvC, i));
    auto p = hn::MulAdd(hn::Set(d, P[8]), r, hn::Set(d, P[7]));
    for (int m = 6; m >= 0; --m)
        p = hn::MulAdd(p, r, hn::Set(d, P[m]));
    const auto tail = hn::Mul(hn::Mul(r, r), hn::MulAdd(r, p, hn::Set(d, -0.5)));
    const auto hi = hn::MulAdd(k, hn::Set(d, Ln2Hi), Lookup16(d, LogC, i));
    const auto lo = hn::MulAdd(k, hn::Set(d, Ln2Lo), tail);
    return hn::Add(hi, hn::Add(r, lo));
}

// The lanes of m as bits, lane 0 lowest (at most eight lanes).
template <class D>
HWY_INLINE unsigned MaskBits(D d, hn::Mask<D> m)
{
    std::uint8_t bits[8] = {};
    hn::StoreMaskBits(d, m, bits);
    return bits[0];
}
#endif

int LogCells(const float* x, float* out, const double* c1, const double* c2, double sign, std::int64_t* flagged, int n)
{
    int count = 0;
    int j = 0;
#ifdef VELTAN_LOG_VECTORS
    // A lane per cell, in double: the conversions between float and double
    // lanes keep the lane count.
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> df;
    const hn::Rebind<std::int64_t, decltype(d)> di;
    constexpr int N = static_cast<int>(hn::MaxLanes(d));
    const auto missing = hn::Set(df, fMisVal);
    for (; j + N <= n; j += N) {
        const auto v = hn::LoadU(df, x + j);
        const auto a = hn::Add(hn::Mul(hn::LoadU(d, c1 + j), hn::PromoteTo(d, v)), hn::LoadU(d, c2 + j));
        const auto result =
            hn::DemoteTo(df, hn::Mul(hn::Set(d, sign), hn::Mul(NaturalLogOf(d, a), hn::Set(d, InvLn10))));
        const unsigned present = MaskBits(df, hn::Ne(v, missing));
        const unsigned normal =
            MaskBits(d, hn::And(hn::Ge(a, hn::Set(d, DoubleMin)), hn::Le(a, hn::Set(d, DoubleMax))));
        const std::uint8_t stored = static_cast<std::uint8_t>(present & normal & MaskBits(df, hn::Ne(result, missing)));
        const std::uint8_t flag = static_cast<std::uint8_t>(present & ~stored);
        hn::StoreU(hn::IfThenElse(hn::LoadMaskBits(df, &stored), result, v), df, out + j);
        hn::StoreU(hn::IfThenElseZero(hn::LoadMaskBits(di, &flag), hn::Set(di, 1)), di, flagged + j);
        count += static_cast<int>(hwy::PopCount(flag));
    }
#endif
    return count + LogCellsScalar(x + j, out + j, c1 + j, c2 + j, sign, flagged + j, n - j);
}

// Whether row x has a failing cell in columns 1 .. limit - 1. `logged` is
// 1 for Log and NegLog columns and 0 for the others, which never fail,
// whatever their cells hold. A plain loop, vectorised by the compiler.
bool AnyFailure(const float* HWY_RESTRICT x, const float* HWY_RESTRICT lo, const float* HWY_RESTRICT hi,
                const float* HWY_RESTRICT logged, int limit)
{
    int any = 0;
#pragma omp simd reduction(| : any)
    for (int j = 1; j < limit; ++j) {
        const float v = x[j];
        any |= (logged[j] != 0.0f && v != fMisVal && !(lo[j] < v && v < hi[j])) ? 1 : 0;
    }
    return any != 0;
}

} // namespace NCTransformKernel::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace NCTransformKernel {

HWY_EXPORT(LogCells);
HWY_EXPORT(AnyFailure);

namespace {

using T = TransformE;
using Error = NCTransformError::Error;

// The matrix is a set of separately allocated rows, so walking down one
// column touches a new cache line (and often a new page) per cell. The
// matrix loops therefore take the columns in tiles and the rows in short
// blocks: all columns of a tile are done on one block of rows while its
// lines are in the cache. A tile of 32 floats is two cache lines per row.
constexpr int TileColumns = 32;
constexpr int RowBlock = 16;

template <T::Transform Type, bool Forward>
void RunCells(const Coefficients& k, float* const* rows, int j, int i0, int i1, std::vector<PendingCell>& pending)
{
    for (int i = i0; i < i1; ++i) {
        float& cell = rows[i][j];
        if (IsMisVal(cell))
            continue;
        const double y = Apply<Type, Forward>(k, cell);
        if ((Forward && Type == T::Linear) || std::fabs(y) <= FloatLimit) {
            const float result = static_cast<float>(y);
            if (!IsMisVal(result)) {
                cell = result;
                continue;
            }
            pending.push_back({i, j, Error::Success, true});
        } else {
            pending.push_back({i, j, Error::OutOfDomain, true});
        }
    }
}

template <bool Forward>
void RunColumn(const Coefficients& k, float* const* rows, int j, int i0, int i1, std::vector<PendingCell>& pending)
{
    switch (k.type) {
    case T::Linear:
        if (!Forward && k.c1 == 0.0) {
            // Deliberately unlike the other failures: the value stays.
            for (int i = i0; i < i1; ++i)
                if (!IsMisVal(rows[i][j]))
                    pending.push_back({i, j, Error::OutOfDomain, false});
            return;
        }
        RunCells<T::Linear, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::Log:
        RunCells<T::Log, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::NegLog:
        RunCells<T::NegLog, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::Logit:
        RunCells<T::Logit, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::Exponential:
        RunCells<T::Exponential, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::Power:
        RunCells<T::Power, Forward>(k, rows, j, i0, i1, pending);
        return;
    case T::None:
        return;
    }
}

// Runs body(n, thread) for n in [0, count) on the OpenMP threads, statically
// scheduled. An exception cannot leave a parallel region; the first one is
// kept and rethrown once all threads are done.
template <class Body>
void ParallelFor(int count, bool parallel, Body body)
{
    std::exception_ptr failure;
#pragma omp parallel if (parallel)
    {
        const int thread = omp_get_thread_num();
#pragma omp for schedule(static)
        for (int n = 0; n < count; ++n) {
            try {
                body(n, thread);
            } catch (...) {
#pragma omp critical(veltan_transform_failure)
                if (!failure)
                    failure = std::current_exception();
            }
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

// One list per thread that may run, sized before the region opens so that
// no thread ever has to grow the outer vector.
std::vector<std::vector<PendingCell>> ThreadLists(bool parallel)
{
    return std::vector<std::vector<PendingCell>>(parallel ? static_cast<std::size_t>(omp_get_max_threads()) : 1);
}

// The threads' lists joined and put in column order, each column top to
// bottom, whatever the threads' timing was.
std::vector<PendingCell> Gather(std::vector<std::vector<PendingCell>>& lists)
{
    std::vector<PendingCell> all;
    for (std::vector<PendingCell>& list : lists) {
        all.insert(all.end(), list.begin(), list.end());
        list.clear();
    }
    std::sort(all.begin(), all.end(), [](const PendingCell& a, const PendingCell& b) {
        return a.column != b.column ? a.column < b.column : a.row < b.row;
    });
    return all;
}

// Writes the cells the loops left to the element writer and turns the failed
// ones into records.
std::unique_ptr<NCTransformErrors> Settle(NCDataMatrix<float>& m, const std::vector<PendingCell>& pending, bool forward)
{
    std::unique_ptr<NCTransformErrors> errors;
    for (const PendingCell& cell : pending) {
        if (cell.setMissing)
            m(cell.row, cell.column, fMisVal);
        if (cell.code != Error::Success) {
            if (!errors)
                errors = std::make_unique<NCTransformErrors>();
            errors->AddError(cell.row, cell.column, cell.code, forward);
        }
    }
    return errors;
}

bool AnyTransform(const std::vector<Coefficients>& k, int j0, int j1)
{
    for (int j = j0; j <= j1; ++j)
        if (k[j].type != T::None)
            return true;
    return false;
}

// Asks for the tile's cells in rows i0 .. i1-1 ahead of their use: the
// next block's lines arrive while this block is computed, where the first
// column of each block would otherwise wait for memory once per row.
void Prefetch(float* const* rows, int j0, int j1, int i0, int i1)
{
    for (int i = i0; i < i1; ++i) {
        __builtin_prefetch(rows[i] + j0, 1);
        __builtin_prefetch(rows[i] + std::min(j0 + 16, j1), 1);
        __builtin_prefetch(rows[i] + j1, 1);
    }
}

// Rows i0 .. i1-1 of the tile j0 .. j1, block by block.
void TransformTile(const std::vector<Coefficients>& k, float* const* rows, int j0, int j1, int i0, int i1,
                   std::vector<PendingCell>& pending)
{
    for (int b = i0; b < i1; b += RowBlock) {
        const int e = std::min(i1, b + RowBlock);
        Prefetch(rows, j0, j1, e, std::min(i1, e + RowBlock));
        for (int j = j0; j <= j1; ++j)
            RunColumn<true>(k[j], rows, j, b, e, pending);
    }
}

// ---- matrices whose transforms are all logarithms --------------------
//
// The common request, log10 of every variable, is worth a path of its own:
// whole rows at a time, where the cells are contiguous, with the logarithm
// in vector lanes. It gives the cell-by-cell path's bits (same Apply
// arithmetic, same NaturalLog) and leaves it the few cells that need a
// record or the element writer.

// A run of adjacent columns j0 .. j1 that all take Log (sign 1) or all
// NegLog (sign -1).
struct LogRun {
    int j0;
    int j1;
    double sign;
};

// The runs of columns 1 .. c, or nothing when some column has a transform
// other than Log, NegLog or None; columns without a transform are skipped.
bool LogRuns(const std::vector<Coefficients>& k, int c, std::vector<LogRun>& runs)
{
    runs.clear();
    for (int j = 1; j <= c; ++j) {
        const T::Transform type = k[j].type;
        if (type == T::None)
            continue;
        if (type != T::Log && type != T::NegLog)
            return false;
        const double sign = type == T::Log ? 1.0 : -1.0;
        if (!runs.empty() && runs.back().j1 == j - 1 && runs.back().sign == sign)
            runs.back().j1 = j;
        else
            runs.push_back({j, j, sign});
    }
    return true;
}

// Whether a Log or NegLog cell fails: its argument is not in (0, max], so
// the log would be -inf or NaN.
inline bool ArgumentFails(float v, double c1, double c2)
{
    const double a = c1 * v + c2;
    return !(a > 0.0 && a <= DoubleMax);
}

inline bool LogFails(float v, double c1, double c2)
{
    return v != fMisVal && ArgumentFails(v, c1, c2);
}

// The cells of a Log or NegLog column that pass, as an open interval of
// floats: a cell v passes exactly when lo < v < hi. Since c1 v is exact in
// double and rounding keeps the order, c1 v + c2 is monotonic in v, so a
// search over the ordered floats finds the end of the failing range; the
// scan for failures then compares floats instead of widening every cell.
struct PassRange {
    float lo;
    float hi;
};

// The floats -FLT_MAX .. FLT_MAX numbered in order (wide enough to hold the
// distance between any two).
inline float KeyFloat(std::int64_t key)
{
    const auto bits = static_cast<std::int32_t>(key >= 0 ? key : -key);
    return key >= 0 ? std::bit_cast<float>(bits) : -std::bit_cast<float>(bits);
}

PassRange MakePassRange(double c1, double c2)
{
    constexpr float Inf = std::numeric_limits<float>::infinity();
    constexpr PassRange None{Inf, -Inf};
    if (!std::isfinite(c1) || !std::isfinite(c2))
        return None;
    if (c1 == 0.0)
        return c2 > 0.0 ? PassRange{-Inf, Inf} : None;
    const auto fails = [&](std::int64_t key) { return ArgumentFails(KeyFloat(key), c1, c2); };
    constexpr std::int64_t First = -0x7f7fffff, Last = 0x7f7fffff; // -FLT_MAX, FLT_MAX
    if (c1 > 0.0) {
        // The largest failing float; the cells above it pass.
        if (!fails(First))
            return {-Inf, Inf};
        if (fails(Last))
            return None;
        std::int64_t failing = First, passing = Last;
        while (passing - failing > 1) {
            const std::int64_t mid = (failing + passing) / 2;
            (fails(mid) ? failing : passing) = mid;
        }
        return {KeyFloat(failing), Inf};
    }
    // c1 < 0: the smallest failing float; the cells below it pass.
    if (!fails(Last))
        return {-Inf, Inf};
    if (fails(First))
        return None;
    std::int64_t passing = First, failing = Last;
    while (failing - passing > 1) {
        const std::int64_t mid = (failing + passing) / 2;
        (fails(mid) ? failing : passing) = mid;
    }
    return {-Inf, KeyFloat(failing)};
}

// The constants of every column as the vector loops read them.
struct LogConstants {
    std::vector<double> c1, c2;
    std::vector<float> lo, hi, logged;

    explicit LogConstants(const std::vector<Coefficients>& k)
        : c1(k.size(), 0.0), c2(k.size(), 1.0), lo(k.size(), 0.0f), hi(k.size(), 0.0f), logged(k.size(), 0.0f)
    {
        for (std::size_t j = 1; j < k.size(); ++j) {
            if (k[j].type != T::Log && k[j].type != T::NegLog)
                continue;
            c1[j] = k[j].c1;
            c2[j] = k[j].c2;
            const PassRange range = MakePassRange(c1[j], c2[j]);
            lo[j] = range.lo;
            hi[j] = range.hi;
            logged[j] = 1.0f;
        }
    }
};

// Rows shared out among the threads, each row's runs up to column `last`
// in one sweep; the flagged cells go through RunColumn one by one.
std::unique_ptr<NCTransformErrors> TransformLogRows(const std::vector<Coefficients>& k, const LogConstants& lc,
                                                   const std::vector<LogRun>& runs, NCDataMatrix<float>& m, int last)
{
    const int r = m.SizeRows();
    const std::vector<float*> rows = m.GetMatrixAsPointerPointer();
    const bool parallel = r > 1 && static_cast<long long>(r) * last >= NCParallelWork::MinCells;
    std::vector<std::vector<PendingCell>> lists = ThreadLists(parallel);
    std::vector<std::vector<std::int64_t>> flags(lists.size(),
                                                 std::vector<std::int64_t>(static_cast<std::size_t>(last) + 1));
    std::vector<std::vector<float>> buffers(lists.size(), std::vector<float>(static_cast<std::size_t>(last) + 1));
    const int blocks = (r + RowBlock - 1) / RowBlock;
    ParallelFor(blocks, parallel, [&](int n, int thread) {
        std::vector<std::int64_t>& flagged = flags[static_cast<std::size_t>(thread)];
        float* const buffer = buffers[static_cast<std::size_t>(thread)].data();
        const int b = 1 + n * RowBlock;
        const int e = std::min(r + 1, b + RowBlock);
        for (int i = b; i < e; ++i) {
            float* row = rows[i];
            for (const LogRun& run : runs) {
                if (run.j0 > last)
                    break;
                const int j1 = std::min(run.j1, last);
                const int w = j1 - run.j0 + 1;
                const int count =
                    HWY_DYNAMIC_DISPATCH(LogCells)(row + run.j0, buffer, lc.c1.data() + run.j0, lc.c2.data() + run.j0,
                                                   run.sign, flagged.data() + run.j0, w);
                std::copy(buffer, buffer + w, row + run.j0);
                if (count == 0)
                    continue;
                for (int j = run.j0; j <= j1; ++j)
                    if (flagged[j])
                        RunColumn<true>(k[j], rows.data(), j, i, i + 1, lists[thread]);
            }
        }
    });
    return Settle(m, Gather(lists), true);
}

// The first column with a failing cell, or c + 1.
int FirstFailingColumn(const LogConstants& lc, const NCDataMatrix<float>& m)
{
    const int r = m.SizeRows(), c = m.SizeColumns();
    int first = c + 1;
    const bool parallel = static_cast<long long>(r) * c >= NCParallelWork::MinCells;
#pragma omp parallel for if (parallel) schedule(static) reduction(min : first)
    for (int i = 1; i <= r; ++i) {
        // A row needs looking at only before the earliest failure this thread has seen.
        const int limit = std::min(first, c + 1);
        const float* x = m[i].GetVector();
        if (!HWY_DYNAMIC_DISPATCH(AnyFailure)(x, lc.lo.data(), lc.hi.data(), lc.logged.data(), limit))
            continue;
        for (int j = 1; j < limit; ++j)
            if (lc.logged[j] != 0.0f && LogFails(x[j], lc.c1[j], lc.c2[j])) {
                first = j;
                break;
            }
    }
    return first;
}

} // namespace

NCTransformError::Error TransformValue(const Coefficients& k, bool forward, float* v)
{
    // A one-cell matrix whose row 1 starts at the cell: column 0 is the cell.
    float* const rows[2] = {nullptr, v};
    std::vector<PendingCell> pending;
    TransformCells(k, forward, rows, 0, 1, 2, pending);
    if (pending.empty())
        return Error::Success;
    if (pending.front().setMissing)
        *v = fMisVal;
    return pending.front().code;
}

void TransformCells(const Coefficients& k, bool forward, float* const* rows, int j, int i0, int i1,
                    std::vector<PendingCell>& pending)
{
    if (forward)
        RunColumn<true>(k, rows, j, i0, i1, pending);
    else
        RunColumn<false>(k, rows, j, i0, i1, pending);
}

std::unique_ptr<NCTransformErrors> TransformColumn(const Coefficients& k, NCDataMatrix<float>& m, int j, bool forward)
{
    if (k.type == T::None || m.SizeRows() == 0)
        return nullptr;
    const std::vector<float*> rows = m.GetMatrixAsPointerPointer();
    std::vector<PendingCell> pending;
    TransformCells(k, forward, rows.data(), j, 1, m.SizeRows() + 1, pending);
    return Settle(m, pending, forward);
}

std::unique_ptr<NCTransformErrors> TransformMatrixNoBreak(const std::vector<Coefficients>& k, NCDataMatrix<float>& m)
{
    const int r = m.SizeRows();
    const int c = m.SizeColumns();
    if (r == 0 || !AnyTransform(k, 1, c))
        return nullptr;
    std::vector<LogRun> runs;
    if (LogRuns(k, c, runs))
        return TransformLogRows(k, LogConstants(k), runs, m, c);
    const std::vector<float*> rows = m.GetMatrixAsPointerPointer();
    const int tiles = (c + TileColumns - 1) / TileColumns;
    const bool parallel = tiles > 1 && static_cast<long long>(r) * c >= NCParallelWork::MinCells;
    std::vector<std::vector<PendingCell>> lists = ThreadLists(parallel);
    // Each thread owns whole tiles of columns, so no two threads write the
    // same cache line of a row, and their failures need no lock.
    ParallelFor(tiles, parallel, [&](int t, int thread) {
        const int j0 = 1 + t * TileColumns;
        TransformTile(k, rows.data(), j0, std::min(c, j0 + TileColumns - 1), 1, r + 1, lists[thread]);
    });
    return Settle(m, Gather(lists), true);
}

void TransformMatrix(const std::vector<Coefficients>& k, NCDataMatrix<float>& m)
{
    const int r = m.SizeRows();
    const int c = m.SizeColumns();
    if (r == 0 || !AnyTransform(k, 1, c))
        return;
    std::vector<LogRun> runs;
    if (LogRuns(k, c, runs)) {
        // Whether a logarithm fails is known from its argument alone, so a
        // read-only pass finds the first failing column, and nothing after
        // it is ever written: no copy to put back.
        const LogConstants lc(k);
        const int failing = FirstFailingColumn(lc, m);
        std::unique_ptr<NCTransformErrors> errors = TransformLogRows(k, lc, runs, m, std::min(failing, c));
        if (failing <= c) {
            if (!errors)
                throw NCInternalError("NCTransformKernel::TransformMatrix");
            throw errors->GetTransformError();
        }
        return;
    }
    const std::vector<float*> rows = m.GetMatrixAsPointerPointer();
    const int width = std::min(c, TileColumns);
    const int blocks = (r + RowBlock - 1) / RowBlock;
    const bool parallel = blocks > 1 && static_cast<long long>(r) * width >= NCParallelWork::MinCells;
    std::vector<std::vector<PendingCell>> lists = ThreadLists(parallel);
    // The tile's cells as they were, row by row, so that the columns after
    // a failing one can be put back. A column is known to fail only once
    // the whole tile is done: the blocks run in parallel, and an earlier
    // column may fail further down than a later one.
    std::vector<float> saved(static_cast<std::size_t>(r) * static_cast<std::size_t>(width));
    for (int j0 = 1; j0 <= c; j0 += TileColumns) {
        const int j1 = std::min(c, j0 + TileColumns - 1);
        if (!AnyTransform(k, j0, j1))
            continue;
        const int w = j1 - j0 + 1;
        ParallelFor(blocks, parallel, [&](int n, int thread) {
            const int b = 1 + n * RowBlock;
            const int e = std::min(r + 1, b + RowBlock);
            for (int i = b; i < e; ++i)
                std::copy(rows[i] + j0, rows[i] + j1 + 1, saved.data() + static_cast<std::size_t>(i - 1) * w);
            TransformTile(k, rows.data(), j0, j1, b, e, lists[thread]);
        });
        std::vector<PendingCell> pending = Gather(lists);
        const auto failed = std::find_if(pending.begin(), pending.end(),
                                         [](const PendingCell& cell) { return cell.code != Error::Success; });
        if (failed == pending.end()) {
            Settle(m, pending, true);
            continue;
        }
        const int f = failed->column;
        if (f < j1) {
            for (int i = 1; i <= r; ++i) {
                const float* from = saved.data() + static_cast<std::size_t>(i - 1) * w + (f + 1 - j0);
                std::copy(from, from + (j1 - f), rows[i] + f + 1);
            }
        }
        pending.erase(std::find_if(pending.begin(), pending.end(), [f](const PendingCell& cell) { return cell.column > f; }),
                      pending.end());
        throw Settle(m, pending, true)->GetTransformError();
    }
}

} // namespace NCTransformKernel
#endif
