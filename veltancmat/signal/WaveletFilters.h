#pragma once

#include "veltancmat/platform/Export.h"

#include <string>
#include <vector>

// The four filters of one discrete wavelet: analysis and synthesis lowpass
// (scaling) and highpass (wavelet) filters of an even length L.
//
// Families and their parameter (0 takes the default):
//   Beylkin        18 taps, the only length; orthonormal, 3 vanishing moments
//   Coiflet        order N = 1..5 (default 3): 6N taps, 2N vanishing moments
//                  of the wavelet and 2N - 1 of the scaling function
//   Daubechies     taps 4, 6, ..., 20 (default 8): extremal phase,
//                  taps / 2 vanishing moments
//   Symmlet        N = 4..10 vanishing moments (default 8): 2N taps, the
//                  least asymmetric of the Daubechies filters
//   Biorthogonal1..6  spline pairs of Cohen, Daubechies and Feauveau:
//                  bior 1.3, 1.5, 2.2, 2.4, 3.3 and 3.5 (primal spline order
//                  N, dual order Nd; see docs/wavelets.md)
//
// Orientation: every filter is stored as it runs forward over the series.
// Coefficient i of a level is sum_m f[m] x[2i + m - L/2 + 1] over the finer
// level's values x (0-based, periodic), and the synthesis puts f[m] back at
// the same places. The orthonormal scaling filters read as published, h[0]
// first (h[0] = (1 + sqrt 3) / (4 sqrt 2) for four Daubechies taps); the
// lowpass filters sum to sqrt 2. The highpass filters follow from the
// lowpass ones of the other side:
//   analysis  g[m] = (-1)^m hs[L-1-m]     synthesis  gs[m] = (-1)^m ha[L-1-m]
// which are PyWavelets' dec_hi and rec_hi up to the reversal of dec_*.
//
// Immutable once built; copies are cheap enough to pass by value.
class VELTANCMAT_API WaveletFilters {
public:
    enum Family : int {
        Beylkin,
        Coiflet,
        Daubechies,
        Symmlet,
        Biorthogonal1,
        Biorthogonal2,
        Biorthogonal3,
        Biorthogonal4,
        Biorthogonal5,
        Biorthogonal6,
    };

    // Throws NCError for a parameter the family does not have.
    explicit WaveletFilters(Family family, int parameter = 0);
    // A family's name, any case, optionally followed by its parameter with
    // or without a space: "Daubechies8", "symmlet 6", "Beylkin",
    // "Biorthogonal3". Throws NCError for an unknown name or parameter.
    explicit WaveletFilters(const std::string& name);

    Family GetFamily() const { return m_family; }
    // Taps for Daubechies and Beylkin, the order for Coiflet and Symmlet,
    // 0 for the biorthogonal pairs.
    int GetParameter() const { return m_parameter; }
    // "Daubechies 8", "Coiflet 3", "Beylkin", "Biorthogonal 3".
    std::string GetName() const;
    int GetLength() const { return static_cast<int>(m_analysisLow.size()); }
    bool IsOrthogonal() const { return m_family < Biorthogonal1; }
    // Vanishing moments of the analysis wavelet (the highpass filter that
    // makes the detail coefficients): sum_m m^k g[m] = 0 for k below it.
    int GetVanishingMoments() const;

    const std::vector<double>& AnalysisLowpass() const { return m_analysisLow; }
    const std::vector<double>& AnalysisHighpass() const { return m_analysisHigh; }
    const std::vector<double>& SynthesisLowpass() const { return m_synthesisLow; }
    const std::vector<double>& SynthesisHighpass() const { return m_synthesisHigh; }

    // The families' names in the order of Family.
    static const std::vector<std::string>& FamilyNames();
    // The parameters a family accepts (empty: none beyond 0).
    static std::vector<int> Parameters(Family family);
    static int DefaultParameter(Family family);

private:
    void Build(Family family, int parameter);

    Family m_family = Daubechies;
    int m_parameter = 0;
    std::vector<double> m_analysisLow, m_analysisHigh, m_synthesisLow, m_synthesisHigh;
};
