#include "cli/ProgressBar.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <string>
#include <unistd.h>

namespace veltan_cli {

namespace {

constexpr int BarWidth = 30;
constexpr std::size_t CaptionWidth = 40;

void WriteStderr(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n <= 0)
            return;
        done += static_cast<std::size_t>(n);
    }
}

// The handler may only touch lock-free atomics: NCProgress::RequestBreak
// reads a const flag and stores into an atomic<bool>, nothing more.
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<NCProgress*>::is_always_lock_free);
std::atomic<NCProgress*> g_progress{nullptr};
volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void OnInterrupt(int)
{
    g_interrupted = 1;
    if (NCProgress* progress = g_progress.load())
        progress->RequestBreak();
    // The next Ctrl-C takes the default action: a fit that does not poll
    // for a while can still be stopped at once.
    std::signal(SIGINT, SIG_DFL);
}

struct sigaction g_previous;

} // namespace

ProgressBar::ProgressBar(NCProgress& progress, bool enabled) : m_progress(progress), m_enabled(enabled)
{
    if (m_enabled)
        m_progress.SetObserver([this](const NCProgressSnapshot& s) { Draw(s); }, std::chrono::milliseconds{100});
}

ProgressBar::~ProgressBar()
{
    if (m_enabled)
        m_progress.SetObserver({});
    Clear();
}

bool ProgressBar::StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void ProgressBar::Clear()
{
    if (m_drawn == 0)
        return;
    WriteStderr("\r" + std::string(m_drawn, ' ') + "\r");
    m_drawn = 0;
}

void ProgressBar::Draw(const NCProgressSnapshot& snapshot)
{
    std::string caption = snapshot.title;
    if (!snapshot.caption.empty() && snapshot.caption != snapshot.title)
        caption += caption.empty() ? snapshot.caption : ": " + snapshot.caption;
    if (caption.size() > CaptionWidth)
        caption = caption.substr(0, CaptionWidth - 3) + "...";
    caption.resize(CaptionWidth, ' ');

    std::string line = "\r" + caption;
    if (snapshot.spinning) {
        // A step of unknown length has no fraction to show: a turning mark
        // and the seconds so far tell that it is still at work.
        static constexpr char Marks[] = {'|', '/', '-', '\\'};
        line += " [" + std::string(1, Marks[snapshot.spinCount % 4]) + "] ";
        line += std::to_string(static_cast<long long>(snapshot.elapsedSeconds)) + " s";
    } else {
        const double fraction = std::clamp(snapshot.fraction, 0.0, 1.0);
        const int filled = static_cast<int>(std::lround(fraction * BarWidth));
        line += " [" + std::string(filled, '#') + std::string(BarWidth - filled, '.') + "] ";
        line += std::to_string(static_cast<int>(fraction * 100.0)) + "%";
    }
    if (snapshot.breakRequested)
        line += "  stopping...";
    const std::size_t visible = line.size() - 1;
    if (visible < m_drawn)
        line += std::string(m_drawn - visible, ' ');
    m_drawn = std::max(m_drawn, visible);
    WriteStderr(line);
}

InterruptGuard::InterruptGuard(NCProgress& progress)
{
    g_progress.store(&progress);
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, &g_previous);
}

InterruptGuard::~InterruptGuard()
{
    sigaction(SIGINT, &g_previous, nullptr);
    g_progress.store(nullptr);
}

bool InterruptGuard::Interrupted() { return g_interrupted != 0; }

} // namespace veltan_cli
