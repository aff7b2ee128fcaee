#pragma once

#include "veltancmat/signal/WaveletFilters.h"

#include <vector>

// Every filter the library has: each family with each of its parameters.
inline std::vector<WaveletFilters> AllWaveletFilters()
{
    std::vector<WaveletFilters> all;
    for (int f = WaveletFilters::Beylkin; f <= WaveletFilters::Biorthogonal6; ++f) {
        const auto family = static_cast<WaveletFilters::Family>(f);
        const std::vector<int> parameters = WaveletFilters::Parameters(family);
        if (parameters.empty())
            all.emplace_back(family);
        for (int p : parameters)
            all.emplace_back(family, p);
    }
    return all;
}
