// The commands about recordings.
#include "command_tools.h"
#include "record/part_file.h"
#include "report/page.h"
#include "report/recording.h"
#include "report/thread_formats.h"

#include <fmt/format.h>
#include <unistd.h>

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

static void WriteReport(const std::string &out, const std::string &text) {
    if (out.empty() || out == "-") {
        Print(text);
        return;
    }
    PartFile file(out);
    try {
        file.Write(text);
        file.Close();
    } catch (const WriteFailure &) {
        unlink(out.c_str());
        throw;
    }
    Print(fmt::format("{}, {:.1f} KB\n", out, static_cast<double>(file.bytes()) / 1000));
}

void RunReport(const ReportCommand &command) {
    const Source file = [&](const auto &use) { ReadPart(command.file, use); };
    if (command.jstack > 0) {
        OneSample sample = ReadSample(file, command.jstack);
        WriteReport(command.out, JstackText(sample.threads, sample.time, sample.java_version));
        NoteCut(sample.threads);
    } else if (command.folded) {
        WriteReport(command.out, FoldedText(ReadRecording(file)));
    } else {
        WriteReport(command.out.empty() ? "report.html" : command.out, PageOf(ReadRecording(file)));
    }
}

} // namespace qorctl
