#pragma once

#include "veltancmat/platform/NCProgress.h"

#include <cstddef>

namespace veltan_cli {

// Draws the progress of a fit as one line on stderr, redrawn in place, once
// the operation has run longer than NCProgress's show delay: a bar, or while
// a level spins (a step of unknown length) a turning mark and the seconds
// so far. Short fits draw nothing. Not drawn at all when disabled (stderr not a terminal and
// no --progress), so scripts and tests see clean output.
class ProgressBar {
public:
    ProgressBar(NCProgress& progress, bool enabled);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    // Removes the observer and wipes the line.
    ~ProgressBar();

    // Wipes the line (if one was drawn) so that other output starts clean.
    void Clear();

    // Whether a bar is wanted by default: only when stderr is a terminal.
    static bool StderrIsTerminal();

private:
    void Draw(const NCProgressSnapshot& snapshot);

    NCProgress& m_progress;
    bool m_enabled;
    std::size_t m_drawn = 0; // characters on the line now
};

// While alive, SIGINT (Ctrl-C) requests a break of `progress`, which the
// library notices at its next poll and answers with a CancelException. A
// second Ctrl-C ends the process at once, as the user then expects.
class InterruptGuard {
public:
    explicit InterruptGuard(NCProgress& progress);
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;
    ~InterruptGuard();

    // True once a Ctrl-C arrived while a guard was alive.
    static bool Interrupted();
};

} // namespace veltan_cli
