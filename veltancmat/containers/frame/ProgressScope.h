#pragma once

#include "veltancmat/platform/Exception.h"
#include "veltancmat/platform/ExceptionMessage.h"
#include "veltancmat/platform/Export.h"
#include "veltancmat/platform/NCProgress.h"

#include <boost/format.hpp>

#include <string>
#include <utility>

// Helpers that let a long computation drive an optional NCProgress without
// a null test at every use. Each is a no-op for a null pointer, and each
// turns a break into CancelException carrying the message it was given:
//
//   void Model::CrossValidate(int rounds, NCProgress* progress)
//   {
//       const CancelText aborted("CV = Cross-validation", "Component aborted.");
//       ProgressRange(progress, 0, rounds);
//       for (int r = 0; r < rounds; ++r) {
//           ProgressStep step(progress, r, aborted);   // value r, sub-range [r, r+1]
//           FitRound(r, progress);                     // reports into its own range
//       }                                              // popped here, also on a throw
//   }
//
//   ProgressSpinner spinner(progress);
//   while (!converged) {
//       spinner.CheckedNext(aborted);                  // SpinDone when the spinner goes
//       for (...) {
//           CheckBreak(progress, aborted);             // relaxed load; nothing translated
//           ...
//       }
//   }

// The message of a cancellation. Texts are kept untranslated until a break
// actually happens, so the polling paths do no work. Only for parameters: a
// CancelText made from an ExceptionMessage refers to it and must not outlive it.
// A text with a context is written in braces, {"Calculation of", "Component
// aborted."}, since a second plain string is a caption where one is accepted.
class VELTANCMAT_API CancelText {
public:
    CancelText(const char* text) : m_text(text) {}
    CancelText(const char* context, const char* text) : m_context(context), m_text(text) {}
    CancelText(const ExceptionMessage& message) : m_message(&message) {}

    ExceptionMessage Message() const;
    [[noreturn]] void Throw() const;

private:
    const ExceptionMessage* m_message = nullptr;
    const char* m_context = nullptr;
    const char* m_text = nullptr;
};

inline void ProgressRange(NCProgress* progress, float from, float to)
{
    if (progress)
        progress->SetRangeInternal(from, to);
}

inline void ProgressText(NCProgress* progress, const std::string& text)
{
    if (progress)
        progress->SetText(text);
}

inline void CheckedSetValue(NCProgress* progress, float value, const CancelText& cancel)
{
    if (progress && !progress->SetValueInternal(value))
        cancel.Throw();
}

inline void CheckBreak(const NCProgress* progress, const CancelText& cancel)
{
    if (progress && progress->IsBreakPressed()) [[unlikely]]
        cancel.Throw();
}

namespace ProgressDetail {
// Makes the closing call of a scope from its destructor, which must not
// throw: the call's result (a break that the next check will see anyway)
// and an observer's exception are both dropped.
template <class Result>
void CloseQuietly(NCProgress* progress, Result (NCProgress::*close)()) noexcept
{
    if (!progress)
        return;
    try {
        (progress->*close)();
    } catch (...) {
    }
}
} // namespace ProgressDetail

// Holds one nested level open for the lifetime of the object.
class ProgressSubRange {
public:
    ProgressSubRange(NCProgress* progress, float from, float to, const CancelText& cancel,
                     const std::string& text = {})
    {
        Open(progress, from, to, cancel, text);
    }
    ~ProgressSubRange() { ProgressDetail::CloseQuietly(m_progress, &NCProgress::PopSubRange); }
    ProgressSubRange(const ProgressSubRange&) = delete;
    ProgressSubRange& operator=(const ProgressSubRange&) = delete;

    // Closes the level now; a break reported by the closing call cancels.
    void Close(const CancelText& cancel)
    {
        NCProgress* const progress = std::exchange(m_progress, nullptr);
        if (progress && !progress->PopSubRange())
            cancel.Throw();
    }

protected:
    ProgressSubRange() = default;

    void Open(NCProgress* progress, float from, float to, const CancelText& cancel, const std::string& text)
    {
        if (!progress)
            return;
        if (!progress->PushSubRangeInternal(from, to, text)) {
            // The level was opened; no destructor will close it.
            progress->PopSubRange();
            cancel.Throw();
        }
        m_progress = progress;
    }

private:
    NCProgress* m_progress = nullptr;
};

// One step of a loop of known length: moves the current level to `step`
// and holds the sub-range [step, step + 1] open for the step's own work.
class ProgressStep : public ProgressSubRange {
public:
    ProgressStep(NCProgress* progress, float step, const CancelText& cancel, const std::string& text = {})
    {
        CheckedSetValue(progress, step, cancel);
        Open(progress, step, step + 1.0f, cancel, text);
    }
};

// The indeterminate indicator of an open-ended loop; ends it on destruction.
class ProgressSpinner {
public:
    explicit ProgressSpinner(NCProgress* progress) : m_progress(progress) {}
    ~ProgressSpinner()
    {
        if (m_spun)
            ProgressDetail::CloseQuietly(m_progress, &NCProgress::SpinDone);
    }
    ProgressSpinner(const ProgressSpinner&) = delete;
    ProgressSpinner& operator=(const ProgressSpinner&) = delete;

    // False once a break was requested; always true without a progress object.
    bool Next()
    {
        if (!m_progress)
            return true;
        m_spun = true;
        return m_progress->NextSpin();
    }
    void CheckedNext(const CancelText& cancel)
    {
        if (!Next())
            cancel.Throw();
    }

private:
    NCProgress* m_progress = nullptr;
    bool m_spun = false;
};

// A progress caption with "%1%" placeholders, translated before it is
// formatted. A translation with more or fewer placeholders than arguments
// still yields a caption rather than an exception.
template <class... Args>
std::string ProgressCaption(const char* context, const char* text, const Args&... args)
{
    const std::string translated =
        context ? ExceptionMessage::translate(context, text).str() : ExceptionMessage::translate(text).str();
    boost::format format(translated);
    format.exceptions(boost::io::all_error_bits ^ (boost::io::too_many_args_bit | boost::io::too_few_args_bit));
    (format % ... % args);
    return format.str();
}
