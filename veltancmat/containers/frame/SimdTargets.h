#pragma once

// Internal to the library and its tests: the instruction sets the vector
// kernels (frame/Packet-inl.h) run on. By default the best one this
// processor has; a test pins each in turn to check that all give the same
// bits.

#include "veltancmat/platform/Export.h"

#include <string>
#include <vector>

namespace NCSimdTargets {

// The compiled targets this processor can run, best first, by Highway's
// names ("AVX3", "AVX2", "SSE4", and "EMU128" or "SCALAR").
VELTANCMAT_API std::vector<std::string> Available();

// Runs the kernels on `name`, one of Available(), from the next projection
// on; an empty name returns to the best. Not while kernels run on other
// threads. Throws std::invalid_argument for any other name.
VELTANCMAT_API void Use(const std::string& name);

} // namespace NCSimdTargets
