#include "veltancmat/signal/WaveletFilters.h"

#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/NCError.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <span>

// Daubechies and Symmlet filters: I. Daubechies, Ten Lectures on Wavelets
// (SIAM 1992), chapters 6 and 8; Coiflets: chapter 8; biorthogonal
// spline pairs: A. Cohen, I. Daubechies and J.-C. Feauveau, Comm. Pure Appl.
// Math. 45 (1992) 485-560, and Ten Lectures chapter 8; the 18-tap
// filter: G. Beylkin, SIAM J. Numer. Anal. 29 (1992) 1716-1740. How the
// tables were computed is in tests/reference/wavelets.py.

namespace {

#include "veltancmat/signal/WaveletFilterTables.inc"

using Taps = std::span<const double>;

Taps OrthogonalTable(WaveletFilters::Family family, int parameter)
{
    switch (family) {
    case WaveletFilters::Beylkin:
        return Beylkin18;
    case WaveletFilters::Coiflet: {
        static const Taps tables[] = {Coiflet1, Coiflet2, Coiflet3, Coiflet4, Coiflet5};
        return tables[parameter - 1];
    }
    case WaveletFilters::Daubechies: {
        static const Taps tables[] = {Daubechies4,  Daubechies6,  Daubechies8,  Daubechies10, Daubechies12,
                                      Daubechies14, Daubechies16, Daubechies18, Daubechies20};
        return tables[parameter / 2 - 2];
    }
    default: {
        static const Taps tables[] = {Symmlet4, Symmlet5, Symmlet6, Symmlet7, Symmlet8, Symmlet9, Symmlet10};
        return tables[parameter - 4];
    }
    }
}

struct Pair {
    Taps analysis, synthesis;
};

Pair BiorthogonalTables(int index)
{
    static const Pair pairs[] = {{Biorthogonal1Analysis, Biorthogonal1Synthesis},
                                 {Biorthogonal2Analysis, Biorthogonal2Synthesis},
                                 {Biorthogonal3Analysis, Biorthogonal3Synthesis},
                                 {Biorthogonal4Analysis, Biorthogonal4Synthesis},
                                 {Biorthogonal5Analysis, Biorthogonal5Synthesis},
                                 {Biorthogonal6Analysis, Biorthogonal6Synthesis}};
    return pairs[index];
}

// The highpass filter paired with `low` from the other side of the bank.
std::vector<double> Mirrored(const std::vector<double>& low)
{
    const std::size_t L = low.size();
    std::vector<double> high(L);
    for (std::size_t m = 0; m < L; ++m)
        high[m] = (m % 2 == 0 ? 1.0 : -1.0) * low[L - 1 - m];
    return high;
}

std::string Lower(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string Trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

[[noreturn]] void UnknownName(const std::string& name)
{
    std::string families;
    for (const std::string& f : WaveletFilters::FamilyNames())
        families += (families.empty() ? "" : ", ") + f;
    throw NCError(ExceptionMessage::translate("Unknown wavelet filter \"{1}\"; the filters are {2}.") % name %
                      families,
                  NCError::Error);
}

} // namespace

const std::vector<std::string>& WaveletFilters::FamilyNames()
{
    static const std::vector<std::string> names{"Beylkin",       "Coiflet",       "Daubechies",    "Symmlet",
                                                "Biorthogonal1", "Biorthogonal2", "Biorthogonal3", "Biorthogonal4",
                                                "Biorthogonal5", "Biorthogonal6"};
    return names;
}

std::vector<int> WaveletFilters::Parameters(Family family)
{
    switch (family) {
    case Beylkin:
        return {18};
    case Coiflet:
        return {1, 2, 3, 4, 5};
    case Daubechies:
        return {4, 6, 8, 10, 12, 14, 16, 18, 20};
    case Symmlet:
        return {4, 5, 6, 7, 8, 9, 10};
    default:
        return {};
    }
}

int WaveletFilters::DefaultParameter(Family family)
{
    switch (family) {
    case Beylkin:
        return 18;
    case Coiflet:
        return 3;
    case Daubechies:
    case Symmlet:
        return 8;
    default:
        return 0;
    }
}

WaveletFilters::WaveletFilters(Family family, int parameter)
{
    Build(family, parameter);
}

WaveletFilters::WaveletFilters(const std::string& name)
{
    const std::string text = Lower(Trimmed(name));
    const std::vector<std::string>& names = FamilyNames();
    // Longest names first, so that "biorthogonal1" is not read as a family
    // "biorthogonal" with the parameter 1.
    for (int f = static_cast<int>(names.size()) - 1; f >= 0; --f) {
        const std::string family = Lower(names[static_cast<std::size_t>(f)]);
        if (text.compare(0, family.size(), family) != 0)
            continue;
        const std::string rest = Trimmed(text.substr(family.size()));
        if (rest.empty()) {
            Build(static_cast<Family>(f), 0);
            return;
        }
        // A parameter of 0 would silently pick the default.
        if (rest.size() > 3 || rest[0] == '0' ||
            !std::all_of(rest.begin(), rest.end(), [](char c) { return std::isdigit(c); }))
            UnknownName(name);
        Build(static_cast<Family>(f), std::stoi(rest));
        return;
    }
    UnknownName(name);
}

void WaveletFilters::Build(Family family, int parameter)
{
    if (family < Beylkin || family > Biorthogonal6)
        UnknownName(std::to_string(static_cast<int>(family)));
    const std::vector<int> allowed = Parameters(family);
    if (parameter == 0)
        parameter = DefaultParameter(family);
    if (parameter != 0 && std::find(allowed.begin(), allowed.end(), parameter) == allowed.end()) {
        std::string list = allowed.empty() ? "0" : "";
        for (int p : allowed)
            list += (list.empty() ? "" : ", ") + std::to_string(p);
        throw NCError(ExceptionMessage::translate("The wavelet filter {1} has no parameter {2}; it takes {3}.") %
                          FamilyNames()[static_cast<std::size_t>(family)] % std::to_string(parameter) % list,
                      NCError::Error);
    }
    m_family = family;
    m_parameter = parameter;
    if (IsOrthogonal()) {
        const Taps h = OrthogonalTable(family, parameter);
        m_analysisLow.assign(h.begin(), h.end());
        m_synthesisLow = m_analysisLow;
    } else {
        const Pair pair = BiorthogonalTables(family - Biorthogonal1);
        m_analysisLow.assign(pair.analysis.begin(), pair.analysis.end());
        m_synthesisLow.assign(pair.synthesis.begin(), pair.synthesis.end());
    }
    m_analysisHigh = Mirrored(m_synthesisLow);
    m_synthesisHigh = Mirrored(m_analysisLow);
}

std::string WaveletFilters::GetName() const
{
    const std::string& family = FamilyNames()[static_cast<std::size_t>(m_family)];
    if (m_family == Beylkin || !IsOrthogonal())
        return family;
    return family + " " + std::to_string(m_parameter);
}

int WaveletFilters::GetVanishingMoments() const
{
    // The analysis wavelet vanishes on polynomials of the degrees the
    // synthesis lowpass has zeros at pi: the spline order of the pairs.
    static const int splineOrders[] = {1, 1, 2, 2, 3, 3};
    switch (m_family) {
    case Beylkin:
        return 3;
    case Coiflet:
        return 2 * m_parameter;
    case Daubechies:
        return m_parameter / 2;
    case Symmlet:
        return m_parameter;
    default:
        return splineOrders[m_family - Biorthogonal1];
    }
}
