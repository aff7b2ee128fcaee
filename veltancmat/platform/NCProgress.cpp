#include "veltancmat/platform/NCProgress.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

double Clamp01(double f)
{
    // Written so that a NaN lands on 0 rather than passing through.
    if (!(f > 0.0))
        return 0.0;
    return f < 1.0 ? f : 1.0;
}

// Resets a flag on every way out of a scope, the observer throwing included.
class FlagGuard {
public:
    explicit FlagGuard(bool& flag) : m_flag(flag) { m_flag = true; }
    ~FlagGuard() { m_flag = false; }
    FlagGuard(const FlagGuard&) = delete;
    FlagGuard& operator=(const FlagGuard&) = delete;

private:
    bool& m_flag;
};

} // namespace

NCProgress::NCProgress(const std::string& text, float from, float to, bool showImmediately, bool canCancel,
                       bool showTimeEstimate, const std::string& text2)
    : m_text2(text2), m_showImmediately(showImmediately), m_canCancel(canCancel),
      m_showTimeEstimate(showTimeEstimate), m_start(Clock::now())
{
    Level base;
    base.from = from;
    base.to = to;
    base.value = from;
    base.caption = text;
    m_levels.push_back(std::move(base));
}

NCProgress::~NCProgress() = default;

double NCProgress::LocalFraction(const Level& level, float value)
{
    // Differences in double: float ranges as wide as a cluster analysis's
    // distance count would lose the step size otherwise.
    const double span = static_cast<double>(level.to) - static_cast<double>(level.from);
    if (span == 0.0 || !std::isfinite(span))
        return 0.0;
    return Clamp01((static_cast<double>(value) - static_cast<double>(level.from)) / span);
}

double NCProgress::FractionAt(std::size_t index, float value) const
{
    const Level& level = m_levels[index];
    return Clamp01(level.base + level.scale * LocalFraction(level, value));
}

void NCProgress::SetRangeInternal(float from, float to)
{
    Level& level = m_levels.back();
    level.from = from;
    level.to = to;
    level.value = from;
    Changed(false);
}

bool NCProgress::SetValueInternal(float value)
{
    m_levels.back().value = value;
    Changed(false);
    return !IsBreakPressed();
}

bool NCProgress::PushSubRangeInternal(float from, float to, const std::string& text)
{
    const std::size_t current = m_levels.size() - 1;
    Level child;
    child.base = FractionAt(current, from);
    child.scale = FractionAt(current, to) - child.base;
    child.parentTo = to;
    child.caption = text;
    m_levels.push_back(std::move(child));
    Changed(false);
    return !IsBreakPressed();
}

bool NCProgress::PopSubRange()
{
    if (m_levels.size() > 1) {
        const float parentTo = m_levels.back().parentTo;
        m_levels.pop_back();
        m_levels.back().value = parentTo;
        Changed(false);
    }
    return !IsBreakPressed();
}

void NCProgress::SetText(const std::string& text)
{
    m_levels.back().caption = text;
    Changed(true);
}

bool NCProgress::NextSpin()
{
    ++m_spinCount;
    m_levels.back().spinning = true;
    Changed(false);
    return !IsBreakPressed();
}

void NCProgress::SpinDone()
{
    Level& level = m_levels.back();
    if (!level.spinning)
        return;
    level.spinning = false;
    Changed(true);
}

bool NCProgress::RequestBreak()
{
    if (!m_canCancel)
        return false;
    m_break.store(true, std::memory_order_relaxed);
    return true;
}

void NCProgress::ClearBreak()
{
    m_break.store(false, std::memory_order_relaxed);
}

void NCProgress::SetObserver(Observer observer, std::chrono::milliseconds minInterval,
                             std::chrono::milliseconds showDelay)
{
    m_observer = std::move(observer);
    m_minInterval = minInterval;
    m_showDelay = showDelay;
    m_delivered = false;
    if (m_showImmediately)
        Changed(true);
}

void NCProgress::Refresh()
{
    Changed(true);
}

double NCProgress::GetFraction() const
{
    const std::size_t current = m_levels.size() - 1;
    return FractionAt(current, m_levels.back().value);
}

std::string NCProgress::GetCaption() const
{
    for (auto it = m_levels.rbegin(); it != m_levels.rend(); ++it) {
        if (!it->caption.empty())
            return it->caption;
    }
    return {};
}

bool NCProgress::IsSpinning() const
{
    return std::any_of(m_levels.begin(), m_levels.end(), [](const Level& level) { return level.spinning; });
}

NCProgressSnapshot NCProgress::GetSnapshot() const
{
    return MakeSnapshot(Clock::now());
}

NCProgressSnapshot NCProgress::MakeSnapshot(Clock::time_point now) const
{
    NCProgressSnapshot s;
    s.fraction = GetFraction();
    s.title = m_levels.front().caption;
    s.caption = GetCaption();
    s.text2 = m_text2;
    s.depth = GetDepth();
    s.spinning = IsSpinning();
    s.spinCount = m_spinCount;
    s.breakRequested = IsBreakPressed();
    s.canCancel = m_canCancel;
    s.elapsedSeconds = std::chrono::duration<double>(now - m_start).count();
    // An estimate from a fraction that has not moved, or from the start of
    // an open-ended loop, would be a guess; report none instead.
    if (m_showTimeEstimate && s.fraction > 0.0 && !s.spinning)
        s.remainingSeconds = s.elapsedSeconds * (1.0 - s.fraction) / s.fraction;
    return s;
}

void NCProgress::Deliver(bool force)
{
    const Clock::time_point now = Clock::now();
    if (!m_showImmediately && now - m_start < m_showDelay)
        return;
    if (!force && m_delivered && m_minInterval.count() > 0 && now - m_lastDelivery < m_minInterval)
        return;
    m_delivered = true;
    m_lastDelivery = now;
    const NCProgressSnapshot snapshot = MakeSnapshot(now);
    // An observer that calls back into this object must not recurse.
    FlagGuard guard(m_notifying);
    m_observer(snapshot);
}
