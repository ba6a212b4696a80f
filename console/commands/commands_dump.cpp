// The commands that make a heap dump and that read one.
#include "base/failure.h"
#include "command_tools.h"
#include "copy.h"
#include "dumps/heap_dump.h"
#include "jvm/session.h"
#include "show/render_dump.h"
#include "show/render_memory.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <cstdio>
#include <fmt/format.h>
#include <unistd.h>

namespace qorctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOOK_PERIOD(200);
constexpr int QUIET_LOOKS = 5; // at an Hprof file that nobody answers for any more, before it counts as whole
constexpr size_t LARGEST_ARRAYS = 10;

// Follows the growing file: shows its size on a terminal, and knows for how long it hasn't grown.
class DumpWatch {
public:
    DumpWatch(pid_t pid, const DumpTarget &target, uint32_t heap_id, const Settings &settings)
        : pid_(pid), target_(target), heap_id_(heap_id), patience_(settings.timeout),
          shown_(isatty(STDERR_FILENO) && !settings.json) {}
    ~DumpWatch() {
        if (line_)
            fputs("\r\x1b[K", stderr);
    }

    // Looks once more. False when neither an answer nor a byte has come for as long as the user waits.
    bool Look() {
        progress_ = LookAtDump(pid_, target_, heap_id_);
        int64_t bytes = progress_.begun ? progress_.bytes : 0;
        quiet_ = bytes == bytes_ ? quiet_ + 1 : 0;
        if (bytes != bytes_)
            grown_ = Clock::now();
        bytes_ = bytes;
        if (shown_) {
            fmt::print(stderr, "\r{}: {} written, {} s\x1b[K", Printable(target_.Path()), SizeText(bytes),
                       Elapsed() / 1000);
            line_ = true;
        }
        return Clock::now() - grown_ < patience_;
    }

    // Waits for the end of a dump whose answer isn't awaited any more.
    void Finish() {
        Process process;
        while (!(progress_.whole && (!target_.hprof || quiet_ >= QUIET_LOOKS))) {
            if (!ReadProcess(pid_, &process))
                throw Failure(fmt::format("JVM {} has ended", pid_), "the dump is lost");
            if (!Look())
                throw Failure(fmt::format("the dump {} stopped growing at {} bytes", target_.Path(), bytes_),
                              "the JVM may be stopped or its disk full; wait longer with --timeout, or look "
                              "at the file with 'dump --read'");
            std::this_thread::sleep_for(LOOK_PERIOD);
        }
    }

    int64_t Elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_).count();
    }

private:
    pid_t pid_;
    const DumpTarget &target_;
    uint32_t heap_id_;
    Seconds patience_;
    bool shown_, line_ = false;
    Clock::time_point start_ = Clock::now(), grown_ = start_;
    DumpProgress progress_;
    int64_t bytes_ = -1;
    int quiet_ = 0;
};

// A number that the next dump won't have.
uint32_t NewHeapId() {
    auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) &
           0x7fffffff;
}

void SetDumpDirectory(Connection *connection, const Settings &settings, const DumpTarget &target) {
    std::string reply = connection->Ask(DumpDirRequest(target.dir), settings.Due());
    std::string answer = DecodeText(OpenReply(reply));
    if (answer.find(target.dir) == answer.npos)
        throw Failure(fmt::format("the agent doesn't take the directory: {}", Printable(answer)),
                      "choose another one");
}

void CheckPlace(pid_t pid, const DumpTarget &target) {
    if (!HasDumpDirectory(pid, target))
        throw Failure(fmt::format("the JVM sees no directory {}", target.dir),
                      "give a path as the JVM sees it, in a directory that its user may write to");
    if (target.hprof && LookAtDump(pid, target, 0).kind != DumpFileKind::ABSENT)
        throw Failure(fmt::format("{} is there already, and the JVM overwrites nothing", target.Path()),
                      "choose another name, or remove it");
}

// Whether the answer says that a dump in Hprof form was made. Throws what the agent complains of.
bool SaysDumped(const Reply &reply) {
    if (reply.text.find(HPROF_REFUSED) != reply.text.npos)
        throw Failure("this JVM has no dump of its own that the agent knows of",
                      "make a text dump, without --hprof");
    return reply.text.find(DUMPED_TO) != reply.text.npos;
}

// A dump by a copy of the JVM has its own words for what became of it. Whether the copy still writes.
bool CopyGoesOn(const Reply &reply) {
    size_t failed = reply.text.find(FORKED_DUMP_FAILED);
    if (failed != reply.text.npos)
        throw Failure(fmt::format("the dump failed: {}",
                                  Printable(reply.text.substr(failed + FORKED_DUMP_FAILED.size()))),
                      "the file is empty or cut; the agent's log may say more");
    return reply.text.find(FORKED_DUMP_LATE) != reply.text.npos;
}

// Asks, and returns when the dump is whole. Throws a Failure when it isn't going to be.
void MakeDump(Connection *connection, DumpWatch *watch, pid_t pid, const DumpTarget &target, uint32_t heap_id,
              const std::string &request, const Settings &settings) {
    std::optional<std::string> answer =
        connection->AskWhile(WithWantedCost(settings, request), LOOK_PERIOD, [&] { return watch->Look(); });
    if (!answer || IsTimedOut(*answer)) { // the agent goes on with it all the same
        watch->Finish();
        return;
    }
    KeepCost(settings, &*answer);
    Reply reply = OpenReply(*answer);
    if (!target.hprof && CopyGoesOn(reply)) {
        watch->Finish();
        return;
    }
    bool dumped = !target.hprof || SaysDumped(reply);
    if (dumped && LookAtDump(pid, target, heap_id).whole)
        return;
    DumpFault fault = ExplainMissingDump(pid, target, heap_id);
    throw Failure(fault.what, fault.hint);
}

} // namespace

void RunDump(const Settings &settings, pid_t pid, const std::string &name, bool hprof, bool stop) {
    DumpTarget target = ChooseDumpTarget(name, hprof);
    Process process = RequireProcess(pid);
    CheckPlace(pid, target);
    Connection connection = RequireAgent(settings, process);
    SetDumpDirectory(&connection, settings, target);
    CopyChoice copy;
    if (!hprof)
        copy = AskForCopy(&connection, settings, "dump", stop);
    uint32_t heap_id = NewHeapId();
    int64_t milliseconds = 0;
    {
        DumpWatch watch(pid, target, heap_id, settings);
        MakeDump(&connection, &watch, pid, target, heap_id, DumpRequest(target.name, heap_id, copy.flags),
                 settings);
        milliseconds = watch.Elapsed();
    }
    int64_t bytes = LookAtDump(pid, target, heap_id).bytes;
    Json json = {{"pid", pid},     {"file", target.Path()}, {"form", hprof ? "hprof" : "text"},
                 {"bytes", bytes}, {"copied", copy.copied}, {"milliseconds", milliseconds}};
    PrintView(settings, 0, json,
              fmt::format("{}: {} in {}.{} s\n", Printable(target.Path()), SizeText(bytes),
                          milliseconds / 1000, milliseconds % 1000 / 100) +
                  copy.Note());
}

void RunReadDump(const Settings &settings, const std::string &file, int top) {
    DumpSummary dump = ReadTextDumpFile(file, LARGEST_ARRAYS);
    PrintView(settings, 0, DumpJson(dump, static_cast<size_t>(top)),
              DumpText(dump, static_cast<size_t>(top), TerminalStyle(settings)));
}

} // namespace qorctl
