#include "cli/ThreadsOption.h"

#include "cli/ToolError.h"

#include "veltancmat/containers/frame/ThreadingControl.h"

#include <omp.h>

#include <charconv>

namespace veltan_cli {

void AddThreadsOption(CLI::App& command, std::string& count)
{
    command
        .add_option("--threads", count,
                    "Threads of the numerical loops and of reading the table (default: every core)")
        ->type_name("N");
}

int ThreadCount(const std::string& text)
{
    if (text.empty())
        return 0;
    int count = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, count);
    if (ec != std::errc() || ptr != end || count < 1 || count > MaxThreads)
        throw ToolError("--threads: " + Quoted(text) + " is not a whole number from 1 to " +
                            std::to_string(MaxThreads),
                        ExitUsage);
    return count;
}

void UseThreads(int count)
{
    using NCMultiThreading::ThreadingControl;
    const int threads = count > 0 ? count : omp_get_num_procs();
    ThreadingControl::SetNumberOfProcessors(threads);
    ThreadingControl::SetThreadingIsOn(threads > 1);
    omp_set_dynamic(0);
}

} // namespace veltan_cli
