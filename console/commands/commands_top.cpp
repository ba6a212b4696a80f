// `qorctl top`: the loop of screen, keys, signals and answers.
#include "base/failure.h"
#include "commands.h"
#include "jvm/session.h"
#include "top/top.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr int TICK_MS = 1000; // a screen without an answer says for how long

// What is written to the terminal as standard error would be in the middle of the screen: a warning, or what
// a JVM does that doesn't answer. The screen shows the failure itself.
class QuietErrors {
public:
    QuietErrors() {
        if (!isatty(STDERR_FILENO))
            return;
        const FileDescriptor nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
        before_ = FileDescriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        if (nothing.ok() && before_.ok())
            dup2(nothing.get(), STDERR_FILENO);
    }
    ~QuietErrors() {
        if (before_.ok())
            dup2(before_.get(), STDERR_FILENO);
    }
    QuietErrors(const QuietErrors &) = delete;

private:
    FileDescriptor before_;
};

// Shows until a key or a signal ends it: the signal, 0 for a key.
int Show(Top *top, Asker *asker, int signals) {
    Screen screen;
    const QuietErrors quiet;
    asker->Start(top->question());
    for (;;) {
        top->Wait(asker->Silence());
        top->Draw(&screen);
        pollfd events[] = {{STDIN_FILENO, POLLIN, 0}, {asker->Descriptor(), POLLIN, 0}, {signals, POLLIN, 0}};
        poll(events, std::size(events), TICK_MS); // a new size of the terminal interrupts it
        signalfd_siginfo signal = {};
        if (read(signals, &signal, sizeof signal) == sizeof signal)
            return static_cast<int>(signal.ssi_signo);
        if (std::optional<TopAnswer> answer = asker->Take())
            top->Take(std::move(*answer));
        if (events[0].revents & (POLLHUP | POLLERR))
            return SIGHUP;
        for (int key = screen.Key(); key != KEY_OF_NONE; key = screen.Key())
            if (!top->Press(key))
                return 0;
        if (top->TakeChange())
            asker->Change(top->question());
    }
}

} // namespace

void RunTop(const Settings &settings, pid_t pid, double seconds) {
    Screen::Require();
    const Process process = RequireProcess(pid);
    Top top(pid, MainClass(process.arguments), seconds);
    Asker asker(settings, pid);
    sigset_t ends;
    sigemptyset(&ends);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    const FileDescriptor signals(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    const int signal = Show(&top, &asker, signals.get());
    if (signal == SIGTERM || signal == SIGHUP) { // ends as such a signal does, with the terminal put back
        std::signal(signal, SIG_DFL);
        raise(signal);
        sigprocmask(SIG_UNBLOCK, &ends, nullptr);
    }
    std::_Exit(EXIT_ANSWER); // the asking thread may be in a request
}

} // namespace qorctl
