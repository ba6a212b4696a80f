#include "hung.h"

#include "base/locked_file.h"
#include "base/process.h"
#include "base/transfer.h"
#include "show/render_hung.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <grp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl {

using namespace outside;

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr size_t MOST_REPORT = 64 << 20;
constexpr int PRIORITY = -10;
constexpr rlim_t MOST_MEMORY = rlim_t(2) << 30;
constexpr Milliseconds HOOK_PATIENCE(100), LONG_LIMIT(3000);

// Nothing leaves the child but this: an exception would go on in the parent's code.
[[noreturn]] void WriteAll(int out, const std::function<std::string()> &make) {
    try {
        const std::string text = make();
        for (size_t at = 0; at < text.size();) {
            const ssize_t wrote = write(out, text.data() + at, text.size() - at);
            if (wrote <= 0)
                _exit(1);
            at += static_cast<size_t>(wrote);
        }
    } catch (...) { // there is no room, or a text can't be shown
        _exit(1);
    }
    _exit(0);
}

// What `make` returns, made by a child; nothing when the child takes longer than the limit or dies.
std::optional<std::string> InChild(Milliseconds limit, const std::function<std::string()> &make) {
    const Clock::time_point deadline = Clock::now() + limit;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    FileDescriptor in(ends[0]), out(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        // The target's size must not become ours, and its user's rights may be less than our own.
        const rlimit memory = {MOST_MEMORY, MOST_MEMORY};
        setrlimit(RLIMIT_AS, &memory);
        if (getuid() == 0 && (seteuid(0) != 0 || (setgroups(0, nullptr) != 0 && errno != EPERM)))
            _exit(1); // without the capability the groups stay
        setpriority(PRIO_PROCESS, 0,
                    PRIORITY); // root alone may: a machine too busy to answer isn't a reason to wait
        WriteAll(KeepOnly(out.get()), make);
    }
    out = FileDescriptor();
    std::string text;
    char part[65536];
    ssize_t got = -1;
    while (child > 0 && text.size() < MOST_REPORT && WaitFor(in.get(), POLLIN, deadline) &&
           (got = read(in.get(), part, sizeof part)) > 0)
        text.append(part, static_cast<size_t>(got));
    if (child > 0) {
        kill(child, SIGKILL);
        // It may hang in the kernel with the target: then it isn't waited for.
        for (int i = 0; i < 20 && waitpid(child, nullptr, WNOHANG) == 0; ++i)
            poll(nullptr, 0, 1);
    }
    return got == 0 && !text.empty() ? std::optional(text) : std::nullopt;
}

// Without symbols a JVM may be hung; it is where somebody waits for it.
bool IsHung(const Observation &seen, Verdict verdict) {
    return verdict == Verdict::UNKNOWN ? seen.unanswered : verdict != Verdict::RUNS;
}

std::string Show(const Observation &seen, const HungOptions &options) {
    const Finding finding = Judge(seen);
    std::string text = finding.verdict == Verdict::UNREAD ? "2" : IsHung(seen, finding.verdict) ? "1" : "0";
    text += VerdictSentence(seen, finding) + '\0';
    return text + (options.json ? JsonText(VerdictJson(seen, finding, options.all), false) + "\n"
                                : VerdictText(seen, finding, options.all));
}

std::string LookAndShow(pid_t pid, const HungOptions &options) {
    LookOptions look;
    look.stop_thread = options.stop_thread;
    if (options.limit < LONG_LIMIT) { // a part of the limit each, so that there is an answer at its end
        look.stacks_ms = static_cast<int>(options.limit.count() / 3);
        look.safepoint_ms = look.patience_ms = static_cast<int>(HOOK_PATIENCE.count());
    }
    Observation seen = Look(pid, look);
    seen.unanswered = options.unanswered;
    return Show(seen, options);
}

} // namespace

HungReport LookAtHung(pid_t pid, const HungOptions &options) {
    std::optional<std::string> shown = InChild(options.limit, [&] { return LookAndShow(pid, options); });
    if (!shown) {
        Observation seen;
        seen.pid = pid;
        seen.stop = ReadStopState(pid);
        seen.unread =
            fmt::format("reading failed or took longer than {:g} s; the kernel may hold its memory's lock",
                        static_cast<double>(options.limit.count()) / 1000);
        shown = Show(seen, options);
    }
    const size_t end = shown->find('\0');
    HungReport report;
    report.is_read = shown->front() != '2';
    report.is_hung = shown->front() == '1';
    report.sentence = shown->substr(1, end - 1);
    report.text = shown->substr(end + 1);
    return report;
}

std::string HungNote(pid_t pid, bool may_read, Milliseconds limit) {
    switch (ReadStopState(pid).stop) {
    case Stop::STOPPED:
        return "stopped";
    case Stop::TRACED:
        return "traced";
    case Stop::FROZEN:
        return "frozen";
    case Stop::GONE:
    case Stop::BLOCKED:
    case Stop::NONE:
        break;
    }
    if (!may_read || limit.count() <= 0)
        return "";
    const std::optional<std::string> note = InChild(limit, [pid] {
        const std::optional<double> seconds = SecondsWithoutSafepoint(pid);
        return seconds ? fmt::format("no safepoint since {:.0f} s", *seconds) : std::string(" ");
    });
    return note.value_or(" ") == " " ? "" : *note;
}

} // namespace qorctl
