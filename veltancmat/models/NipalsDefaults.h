#pragma once

namespace NCNipals {

// The iteration limit a NIPALS component is fitted under when its caller
// has no reason to choose another. Components converge in a few dozen
// iterations; the limit only stops a fit whose two leading directions are
// nearly tied from alternating between them for ever.
inline constexpr int DefaultMaxIterations = 200;

} // namespace NCNipals
