#include "cli/RunSkeleton.h"

#include "cli/ProgressBar.h"
#include "cli/ToolError.h"

#include "veltancmat/platform/Exception.h"

namespace veltan_cli {

void RunOutputs::Add(const std::string& key, const std::string& path, const std::function<void(std::ostream&)>& write,
                     std::string announcement)
{
    if (path.empty())
        return;
    write(m_files.Add(path));
    m_written.push_back({key, path, std::move(announcement)});
}

std::string WrittenTo(const std::string& what, const std::string& path) { return what + " written to " + path; }

std::string SavedTo(const std::string& what, const std::string& path) { return what + " saved to " + path; }

int RunCommand(const RunSteps& steps, std::ostream& out)
{
    NCProgress progress(steps.task, 0.0f, 1.0f, false, true, false, steps.source);
    // The guard stays until the files are in place, so that a Ctrl-C while
    // they are written still removes the temporary files on its way out.
    InterruptGuard interrupt(progress);
    {
        ProgressBar bar(progress, !steps.task.empty() && (steps.drawBar || ProgressBar::StderrIsTerminal()));
        steps.compute(progress);
    }
    // Some steps cannot be stopped halfway; a Ctrl-C during them still
    // cancels the run here.
    if (InterruptGuard::Interrupted())
        throw CancelException();

    RunOutputs files;
    steps.write(files);
    if (InterruptGuard::Interrupted())
        throw CancelException();
    files.CommitAll();

    if (steps.json) {
        out << steps.document(files.Files()) << "\n";
        return ExitOk;
    }
    steps.report(out);
    bool first = true;
    for (const WrittenFile& file : files.Files()) {
        if (file.announcement.empty())
            continue;
        out << (first && steps.blankLineBeforeFiles ? "\n" : "") << file.announcement << "\n";
        first = false;
    }
    return ExitOk;
}

} // namespace veltan_cli
