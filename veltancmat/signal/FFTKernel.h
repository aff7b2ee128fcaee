#pragma once

// The transforms behind FFT, in one place so that the library providing
// them can change without touching the spectra. Both transforms are
// unscaled: a forward and an inverse transform multiply by the length.
// Not part of the library's interface.

#include <complex>
#include <memory>

namespace fft_kernel {

// Complex transform of a fixed length n >= 1.
class ComplexTransform {
public:
    explicit ComplexTransform(int n);
    ~ComplexTransform();
    ComplexTransform(const ComplexTransform&) = delete;
    ComplexTransform& operator=(const ComplexTransform&) = delete;

    void Forward(const std::complex<float>* in, std::complex<float>* out);
    void Inverse(const std::complex<float>* in, std::complex<float>* out);

private:
    struct Plan;
    std::unique_ptr<Plan> m_plan;
};

// Transform of a real series of even length n >= 2 to its half spectrum of
// n/2 + 1 values, and back.
class RealTransform {
public:
    explicit RealTransform(int n);
    ~RealTransform();
    RealTransform(const RealTransform&) = delete;
    RealTransform& operator=(const RealTransform&) = delete;

    void Forward(const float* in, std::complex<float>* out);
    // `in` is the half spectrum of a real series; out receives n values.
    void Inverse(const std::complex<float>* in, float* out);

private:
    struct Plan;
    std::unique_ptr<Plan> m_plan;
};

} // namespace fft_kernel
