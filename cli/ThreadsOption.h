#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace veltan_cli {

// --threads N, which every command takes. The value is kept as text and
// checked by ThreadCount, so that a bad value is one line like the tool's
// other usage errors.
void AddThreadsOption(CLI::App& command, std::string& count);

// The team size --threads asked for: 0 when the option was not given (every
// core), else a whole number from 1 to MaxThreads. Anything else throws
// ToolError with ExitUsage.
int ThreadCount(const std::string& text);

// More threads than this only oversubscribe any machine the tool runs on.
constexpr int MaxThreads = 1024;

// Fixes the OpenMP team of the library's loops at `count` threads (0: every
// core) with dynamic adjustment off. The library turns adjustment on when it
// loads, and libgomp then shrinks a team to one thread whenever the load
// average is near the core count: the tool's timings halved on a busy
// machine. A tool run is the only user of the process, so it keeps the team.
void UseThreads(int count);

} // namespace veltan_cli
