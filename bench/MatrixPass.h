#pragma once

// Pieces the matrix benchmarks share: a fixed thread team, the matrix bytes
// each call covers, and the yardstick they are all compared with.
#include "veltancmat/containers/NCDataMatrix.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace BenchMatrix {

// A fixed team of state.range(0) threads: the library's dynamic adjustment
// would shrink it whenever the machine is busy, and the thread counts would
// mean nothing.
inline void Threads(const benchmark::State& state)
{
    omp_set_dynamic(0);
    omp_set_num_threads(static_cast<int>(state.range(0)));
}

// The argument sets the benchmarks run with: 1 and 2 threads in
// state.range(0), and with a second argument, its values in state.range(1).
inline void OnThreads(benchmark::internal::Benchmark* b)
{
    b->ArgName("threads")->Arg(1)->Arg(2);
}

inline void OnThreadsWithoutAndWithMissing(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "missing"})->ArgsProduct({{1, 2}, {0, 1}});
}

inline void OnThreadsWithOneAndTenResponses(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "responses"})->ArgsProduct({{1, 2}, {1, 10}});
}

// A fit that keeps its own clock: the argument sets of Cases, reported in
// TimeUnit, with the time the benchmark hands to SetIterationTime.
template <void (*Cases)(benchmark::internal::Benchmark*), benchmark::TimeUnit TimeUnit>
void ManualTime(benchmark::internal::Benchmark* b)
{
    Cases(b);
    b->Unit(TimeUnit)->UseManualTime();
}

// A rows x cols float matrix whose cells are draw(), row by row, with
// exact missing counts.
template <class Draw>
NCDataMatrix<float> Drawn(int rows, int cols, Draw&& draw)
{
    NCDataMatrix<float> m(rows, cols);
    std::vector<float*> cells = m.GetMatrixAsPointerPointer();
    for (int i = 1; i <= rows; ++i)
        for (int j = 1; j <= cols; ++j)
            cells[i][j] = draw();
    m.RecountMissing();
    return m;
}

// Reports the bytes of a rows x cols float matrix once per iteration.
inline void Finish(benchmark::State& state, int rows, int cols)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * rows * cols * int64_t(sizeof(float)));
}

// Reports a rate in the same binary units as bytes_per_second.
inline void Rate(benchmark::State& state, const char* name, double bytesPerSecond)
{
    state.counters[name] = benchmark::Counter(bytesPerSecond, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

// The yardstick: the simplest float sum over every row of m, split over the
// threads like the kernels it is compared with.
inline double PlainSum(const NCDataMatrix<float>& m)
{
    const int rows = m.SizeRows(), cols = m.SizeColumns();
    double total = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : total)
    for (int i = 1; i <= rows; ++i) {
        const float* p = m[i].begin();
        float s[8] = {};
        for (int j = 0; j + 8 <= cols; j += 8)
            for (int k = 0; k < 8; ++k)
                s[k] += p[j + k];
        total += s[0] + s[1] + s[2] + s[3] + s[4] + s[5] + s[6] + s[7];
    }
    return total;
}

inline void PlainPass(benchmark::State& state, const NCDataMatrix<float>& m)
{
    Threads(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(PlainSum(m));
    Finish(state, m.SizeRows(), m.SizeColumns());
}

// Times `kernel` (manual time) with a plain pass over the same matrix just
// before each call, and reports that pass's rate (plain_bytes_per_second) and
// the kernel's share of it (of_plain). On a shared machine the memory
// bandwidth drifts by a third within seconds, so comparing two benchmarks
// run at different moments says little; a pair taken a millisecond apart
// sees the same machine.
// `vectors` is how many times a call counts the matrix: more than once for
// the batched projections, whose work is a pass per vector.
template <class Kernel>
void AgainstPlainPass(benchmark::State& state, const NCDataMatrix<float>& m, Kernel&& kernel, int vectors = 1)
{
    using Clock = std::chrono::steady_clock;
    Threads(state);
    double plainSeconds = 0.0, kernelSeconds = 0.0;
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(PlainSum(m));
        const auto middle = Clock::now();
        kernel();
        const auto end = Clock::now();
        const double seconds = std::chrono::duration<double>(end - middle).count();
        plainSeconds += std::chrono::duration<double>(middle - start).count();
        kernelSeconds += seconds;
        state.SetIterationTime(seconds);
    }
    Finish(state, m.SizeRows() * vectors, m.SizeColumns());
    const double bytes = static_cast<double>(state.iterations()) * m.SizeRows() * m.SizeColumns() * sizeof(float);
    Rate(state, "plain_bytes_per_second", bytes / plainSeconds);
    state.counters["of_plain"] = vectors * plainSeconds / kernelSeconds;
}

// Plain passes sampled between the timed pieces of a longer benchmark (a
// fit, a cross-validation), for the same reason: their rate is measured
// beside the work it is compared with, not seconds apart.
class PlainRate
{
public:
    // Times `passes` plain passes over m, back to back, after one untimed
    // pass: the first pass after the benchmark's own work pays for writing
    // back what that work left dirty in the caches.
    void Sample(const NCDataMatrix<float>& m, int passes = 1)
    {
        benchmark::DoNotOptimize(PlainSum(m));
        const auto start = std::chrono::steady_clock::now();
        for (int k = 0; k < passes; ++k)
            benchmark::DoNotOptimize(PlainSum(m));
        m_seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        m_bytes += static_cast<double>(passes) * m.SizeRows() * m.SizeColumns() * sizeof(float);
    }

    // Reports the sampled rate and the share of it that `bytesPerSecond`,
    // the benchmark's own rate, reaches.
    void Report(benchmark::State& state, double bytesPerSecond) const
    {
        const double plain = m_bytes / m_seconds;
        Rate(state, "plain_bytes_per_second", plain);
        state.counters["of_plain"] = bytesPerSecond / plain;
    }

    // Reports the benchmark's own rate, `bytes` over `time`, as `name`, and
    // the sampled rate beside it.
    void Report(benchmark::State& state, const char* name, double bytes, std::chrono::duration<double> time) const
    {
        const double rate = bytes / time.count();
        Rate(state, name, rate);
        Report(state, rate);
    }

private:
    double m_seconds = 0.0;
    double m_bytes = 0.0;
};

} // namespace BenchMatrix
