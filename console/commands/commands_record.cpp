// The commands about recordings.
#include "command_tools.h"

#include <fmt/format.h>

namespace qorctl {

void RunRecord(const Settings &settings, pid_t pid, const RecordOptions &options) {
    RecordSummary done = Record(settings, pid, options);
    if (options.out == "-")
        return;
    if (settings.json) {
        Print(JsonText({{"pid", pid},
                        {"file", done.file},
                        {"parts", done.parts},
                        {"bytes", done.bytes},
                        {"samples", done.samples},
                        {"unanswered", done.unanswered},
                        {"missing", done.missing},
                        {"end", done.end}},
                       false) +
              "\n");
        return;
    }
    std::string text =
        fmt::format("{} sample{} in {}", done.samples, done.samples == 1 ? "" : "s", done.file);
    if (done.parts > 1)
        text += fmt::format(" and the parts before it, {} in all", done.parts);
    text += fmt::format(", {:.1f} KB: {}", static_cast<double>(done.bytes) / 1000, done.end);
    if (done.unanswered > 0)
        text += fmt::format("; {} without an answer", done.unanswered);
    if (done.missing > 0)
        text += fmt::format("; {} stacks missing", done.missing);
    Print(text + "\n");
}

} // namespace qorctl
