#pragma once

// The transforms behind FFT, in one place so that the library providing
// them can change without touching the spectra. The transforms are
// forward only and unscaled: the correlations get their inverse transforms
// from forward ones, since each object's one plan (its twiddle factors)
// costs about as much to set up as a transform. Not part of the library's
// interface.

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

private:
    struct Plan;
    std::unique_ptr<Plan> m_plan;
};

// Transform of a real series of even length n >= 2 to its half spectrum of
// n/2 + 1 values. (The inverse of a real, even spectrum, as a correlation
// needs, is the same forward transform divided by n.)
class RealTransform {
public:
    explicit RealTransform(int n);
    ~RealTransform();
    RealTransform(const RealTransform&) = delete;
    RealTransform& operator=(const RealTransform&) = delete;

    void Forward(const float* in, std::complex<float>* out);

private:
    struct Plan;
    std::unique_ptr<Plan> m_plan;
};

} // namespace fft_kernel
