#pragma once

#include "veltancmat/platform/Export.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// What an observer of an NCProgress sees: the whole state at one moment.
struct NCProgressSnapshot {
    // Overall position of the operation, 0 to 1, over all nested levels.
    double fraction = 0.0;
    // Caption of the base level (the constructor's text, or SetText at depth 0).
    std::string title;
    // Innermost non-empty caption: what is being done right now.
    std::string caption;
    // Secondary caption given to the constructor (for example the data set).
    std::string text2;
    // Number of nested levels above the base level.
    std::size_t depth = 0;
    // True while some level runs an open-ended loop (NextSpin without SpinDone).
    bool spinning = false;
    // Total NextSpin calls so far; a display animates on its changes.
    std::uint64_t spinCount = 0;
    bool breakRequested = false;
    bool canCancel = true;
    // Seconds since the object was constructed.
    double elapsedSeconds = 0.0;
    // Estimated seconds to go; negative when no estimate was asked for or
    // nothing has been done yet.
    double remainingSeconds = -1.0;
};

// Progress and cancellation of one long operation.
//
// A computing thread drives it through nested levels: each level has its own
// range and position, and a pushed level maps its whole range onto [from, to]
// of the level below, so nested work reports as if it were alone while the
// overall fraction keeps moving. Ranges may be reversed (from > to, or a
// converging quantity rising from -v to 0) and may be empty (from == to: the
// level then stands at its start); positions outside the range clamp to it.
// The overall fraction is not forced to be monotonic.
//
// A break may be requested from any thread; the computing thread sees it
// through IsBreakPressed, which is a relaxed atomic load and costs nothing
// in an inner loop. Every other member belongs to the computing thread.
//
// The object shows nothing itself. A host (or the command-line tool) installs
// an observer, which is called on the computing thread after each change:
// that is also where a host pumps its events and calls RequestBreak.
class VELTANCMAT_API NCProgress {
public:
    using Clock = std::chrono::steady_clock;
    using Observer = std::function<void(const NCProgressSnapshot&)>;

    // Without showImmediately, observers hear nothing until the operation has
    // run this long, so that short operations never flash an indicator.
    static constexpr std::chrono::milliseconds DefaultShowDelay{500};

    // text: caption of the base level; [from, to]: its range.
    // showImmediately: notify observers from the start instead of after the
    //   show delay.
    // canCancel: the operation accepts a break; when false RequestBreak is
    //   ignored and the operation always runs to its end.
    // showTimeEstimate: snapshots carry an estimate of the time remaining.
    // text2: secondary caption passed through to observers unchanged.
    explicit NCProgress(const std::string& text = {}, float from = 0.0f, float to = 1.0f,
                        bool showImmediately = false, bool canCancel = true, bool showTimeEstimate = false,
                        const std::string& text2 = {});
    ~NCProgress();
    NCProgress(const NCProgress&) = delete;
    NCProgress& operator=(const NCProgress&) = delete;

    // Sets the range of the current level; its position moves to `from`.
    void SetRangeInternal(float from, float to);
    // Moves the current level's position. False once a break was requested.
    bool SetValueInternal(float value);
    // Opens a level whose whole range maps onto [from, to] of the current
    // level; the new level starts with range [0, 1] and caption `text`.
    // The level is opened even when false (a break) is returned, so every
    // push is paired with a pop.
    bool PushSubRangeInternal(float from, float to, const std::string& text);
    // Closes the innermost level; the level below then stands at the end of
    // the sub-range that was opened, since that work is done. At the base
    // level there is nothing to close and the call does nothing. The result
    // is false once a break was requested, like the others.
    bool PopSubRange();
    // Replaces the caption of the current level.
    void SetText(const std::string& text);
    // Advances the indeterminate indicator of an open-ended loop at the
    // current level. False once a break was requested: the loop must stop.
    bool NextSpin();
    // Ends the indeterminate indicator of the current level.
    void SpinDone();

    bool IsBreakPressed() const { return m_break.load(std::memory_order_relaxed); }
    // Callable from any thread. Returns false (and does nothing) when the
    // operation cannot be cancelled.
    bool RequestBreak();
    // Withdraws a break request, so the object can drive another operation.
    void ClearBreak();
    bool CanCancel() const { return m_canCancel; }

    // Installs the observer (an empty one removes it). Structural and value
    // changes notify at most once per minInterval (zero: on every change);
    // caption changes, SpinDone and Refresh always notify. Without
    // showImmediately nothing is delivered before showDelay has passed since
    // construction. With showImmediately the current state is delivered at
    // once. Must not be called while the computation runs on another thread.
    void SetObserver(Observer observer, std::chrono::milliseconds minInterval = std::chrono::milliseconds{0},
                     std::chrono::milliseconds showDelay = DefaultShowDelay);
    // Delivers the current state now (subject only to the show delay), for
    // example after the last throttled change of an operation.
    void Refresh();

    double GetFraction() const;
    std::size_t GetDepth() const { return m_levels.size() - 1; }
    std::string GetCaption() const;
    const std::string& GetText2() const { return m_text2; }
    bool IsSpinning() const;
    std::uint64_t GetSpinCount() const { return m_spinCount; }
    NCProgressSnapshot GetSnapshot() const;

private:
    struct Level {
        float from = 0.0f;
        float to = 1.0f;
        float value = 0.0f;
        // Overall fraction = base + scale * (fraction within this level).
        double base = 0.0;
        double scale = 1.0;
        // Position the level below moves to when this one is closed.
        float parentTo = 0.0f;
        std::string caption;
        bool spinning = false;
    };

    static double LocalFraction(const Level& level, float value);
    double FractionAt(std::size_t index, float value) const;
    NCProgressSnapshot MakeSnapshot(Clock::time_point now) const;
    void Changed(bool force)
    {
        if (m_observer && !m_notifying)
            Deliver(force);
    }
    void Deliver(bool force);

    std::vector<Level> m_levels;
    std::string m_text2;
    std::uint64_t m_spinCount = 0;
    std::atomic<bool> m_break{false};
    const bool m_showImmediately;
    const bool m_canCancel;
    const bool m_showTimeEstimate;
    const Clock::time_point m_start;

    Observer m_observer;
    std::chrono::milliseconds m_minInterval{0};
    std::chrono::milliseconds m_showDelay{DefaultShowDelay};
    Clock::time_point m_lastDelivery{};
    bool m_delivered = false;
    bool m_notifying = false;
};
