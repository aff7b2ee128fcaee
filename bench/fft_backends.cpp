// The two candidate transform libraries side by side, in the lengths the
// spectra use: one 2^20-point transform (an autocorrelation of 2^20 values
// pads to 2^21; the 2^20 case keeps the runs short) and the 1024-point
// segments of a power spectrum.
//
//   BM_Kiss{Complex,Real}/n:N     kissfft (Debian libkissfft, float)
//   BM_Eigen{Complex,Real}/n:N    Eigen's unsupported FFT, default backend
//
// Each iteration is one forward transform of N points.
#include <kiss_fft.h>
#include <kiss_fftr.h>
#include <unsupported/Eigen/FFT>

#include <benchmark/benchmark.h>

#include <complex>
#include <random>
#include <vector>

namespace {

std::vector<float> Noise(int n)
{
    std::mt19937 rng(2024);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> v(static_cast<std::size_t>(n));
    for (float& x : v)
        x = normal(rng);
    return v;
}

std::vector<std::complex<float>> ComplexNoise(int n)
{
    const std::vector<float> re = Noise(2 * n);
    std::vector<std::complex<float>> v(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < v.size(); ++i)
        v[i] = {re[2 * i], re[2 * i + 1]};
    return v;
}

void BM_KissComplex(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<std::complex<float>> in = ComplexNoise(n);
    std::vector<std::complex<float>> out(in.size());
    kiss_fft_cfg cfg = kiss_fft_alloc(n, 0, nullptr, nullptr);
    for (auto _ : state) {
        kiss_fft(cfg, reinterpret_cast<const kiss_fft_cpx*>(in.data()), reinterpret_cast<kiss_fft_cpx*>(out.data()));
        benchmark::DoNotOptimize(out.data());
    }
    kiss_fft_free(cfg);
}

void BM_KissReal(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<float> in = Noise(n);
    std::vector<std::complex<float>> out(static_cast<std::size_t>(n / 2 + 1));
    kiss_fftr_cfg cfg = kiss_fftr_alloc(n, 0, nullptr, nullptr);
    for (auto _ : state) {
        kiss_fftr(cfg, in.data(), reinterpret_cast<kiss_fft_cpx*>(out.data()));
        benchmark::DoNotOptimize(out.data());
    }
    kiss_fftr_free(cfg);
}

void BM_EigenComplex(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<std::complex<float>> in = ComplexNoise(n);
    std::vector<std::complex<float>> out(in.size());
    Eigen::FFT<float> fft;
    for (auto _ : state) {
        fft.fwd(out.data(), in.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_EigenReal(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::vector<float> in = Noise(n);
    std::vector<std::complex<float>> out(static_cast<std::size_t>(n));
    Eigen::FFT<float> fft;
    fft.SetFlag(Eigen::FFT<float>::HalfSpectrum);
    for (auto _ : state) {
        fft.fwd(out.data(), in.data(), n);
        benchmark::DoNotOptimize(out.data());
    }
}

} // namespace

BENCHMARK(BM_KissComplex)->ArgName("n")->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KissReal)->ArgName("n")->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EigenComplex)->ArgName("n")->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EigenReal)->ArgName("n")->Arg(1024)->Arg(1 << 20)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
