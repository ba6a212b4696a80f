// The commands about recordings.
#include "base/failure.h"
#include "command_tools.h"
#include "record/part_file.h"
#include "report/recording.h"
#include "report/thread_formats.h"

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

void RunReport(const ReportCommand &command) {
    if (!command.folded && command.jstack == 0)
        throw Failure("a report needs --folded or --jstack", "see qorctl report --help", EXIT_USAGE);
    std::string text = ReadPart(command.file);
    if (command.folded) {
        Print(FoldedText(ReadRecording(text)));
        return;
    }
    OneSample sample = ReadSample(text, command.jstack);
    Print(JstackText(sample.threads, sample.time, sample.java_version));
    NoteCut(sample.threads);
}

} // namespace qorctl
