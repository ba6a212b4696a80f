#include "command_tools.h"
#include "jvm/hung.h"
#include "outside/process_tasks.h"

#include <fmt/format.h>

namespace qorctl {

using namespace outside;

void RunHung(const Settings &settings, pid_t pid, bool all, bool stop_thread) {
    if (ReadTask(pid, pid).state == 0)
        throw Failure(fmt::format("there is no process {}", pid), "'qorctl list' shows the JVMs");
    HungOptions options;
    options.json = settings.json;
    options.all = all;
    options.stop_thread = stop_thread;
    const HungReport report = LookAtHung(pid, options);
    if (!report.is_read)
        throw Failure(report.sentence, "run qorctl as its user or as root, with the capability to trace it");
    Print(report.text);
}

} // namespace qorctl
