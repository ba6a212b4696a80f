#include "commands.h"

#include "failure.h"
#include "json.h"
#include "protocol.h"
#include "render.h"
#include "request.h"
#include "session.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr size_t MAX_RULES_FILE = 1 << 20;
constexpr int HEADER_EVERY = 20; // lines of a series
constexpr int SHUTDOWN_CHECKS = 100;
constexpr std::chrono::milliseconds SHUTDOWN_PERIOD(50);

void Print(std::string_view text) {
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

Style TerminalStyle(const Settings &settings) {
    Style style;
    if (!isatty(STDOUT_FILENO))
        return style;
    const char *term = getenv("TERM");
    style.colour = !getenv("NO_COLOR") && term && std::string_view(term) != "dumb";
    winsize size = {};
    if (!settings.wide && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        style.width = size.ws_col;
    return style;
}

// Does `once` now, and again every `period` seconds until it throws, if a period is given.
template <class Once>
void Repeat(double period, Once once) {
    auto next = std::chrono::steady_clock::now();
    for (;;) {
        once();
        if (period <= 0)
            return;
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(period));
        next = std::max(next, std::chrono::steady_clock::now());
        std::this_thread::sleep_until(next);
    }
}

bool Holds(std::string_view text, const std::string &lower_part) {
    auto equal = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    return std::search(text.begin(), text.end(), lower_part.begin(), lower_part.end(), equal) != text.end();
}

bool FrameHolds(const Frame &frame, const std::string &part) {
    return Holds(frame.class_name + "." + frame.method, part);
}

// Whether a thread's name, state, call, request or any frame holds the text.
bool Matches(const Thread &thread, const std::string &part) {
    if (Holds(thread.name, part) || Holds(thread.state, part) ||
        (thread.call && FrameHolds(*thread.call, part)) || Holds(thread.request_url.value_or(""), part))
        return true;
    return std::any_of(thread.stack.begin(), thread.stack.end(),
                       [&](const Frame &frame) { return FrameHolds(frame, part); });
}

void KeepMatching(ThreadSample *sample, std::string part) {
    std::transform(part.begin(), part.end(), part.begin(), [](unsigned char c) { return std::tolower(c); });
    auto &threads = sample->threads;
    threads.erase(std::remove_if(threads.begin(), threads.end(),
                                 [&](const Thread &thread) { return !Matches(thread, part); }),
                  threads.end());
}

void PrintAnswer(const Settings &settings, pid_t pid, const std::string &answer) {
    if (settings.json)
        Print(JsonText({{"pid", pid}, {"answer", answer}}, false) + "\n");
    else
        Print(Printable(answer) + "\n");
}

std::string AskOnce(const Settings &settings, pid_t pid, const std::string &request) {
    Connection connection = RequireAgent(settings, RequireProcess(pid));
    return connection.Ask(request, Seconds(settings.timeout));
}

void SendSetting(const Settings &settings, pid_t pid, const std::string &request) {
    std::string reply = AskOnce(settings, pid, request);
    PrintAnswer(settings, pid, DecodeText(OpenReply(reply)));
}

std::string ReadRules(const std::string &file) {
    std::ifstream stream;
    if (file != "-")
        stream.open(file, std::ios::binary);
    std::istream &in = file == "-" ? std::cin : stream;
    std::string text(MAX_RULES_FILE, '\0');
    if (in)
        in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!in && !in.eof())
        throw Failure(fmt::format("can't read {}", file),
                      "check the path, or give the rules on standard input as '-'", EXIT_USAGE);
    text.resize(static_cast<size_t>(in.gcount()));
    return text;
}

void ShowThreads(const Settings &settings, const ThreadsCommand &command, const ThreadSample &sample,
                 int os_threads) {
    if (settings.json) {
        Print(JsonText(ToJson(sample), command.watch > 0) + "\n");
        return;
    }
    Style style = TerminalStyle(settings);
    bool dump = command.details || !command.thread.empty();
    std::string text = dump ? ThreadDump(sample, style) : ThreadTable(sample, style) + "\n";
    if (sample.threads.empty())
        text = command.match.empty() ? "No thread is active; --all shows the idle ones.\n"
                                     : "No thread matches.\n";
    text += SampleNotes(sample, os_threads) + "\n";
    if (command.watch > 0 && style.colour)
        text = "\x1b[H\x1b[2J" + text;
    else if (command.watch > 0)
        text += "\n";
    Print(text);
}

// The agent's answer to SHUTDOWN is to hang up; its endpoint file goes with it.
void Shutdown(const Settings &settings, const Process &process, Connection connection,
              const std::string &request) {
    connection.SendLast(request, Seconds(settings.timeout));
    for (int i = 0; FindEndpoint(process); ++i) {
        if (i == SHUTDOWN_CHECKS)
            throw Failure("the agent hung up but its endpoint file stays",
                          "check 'qorctl list' and try again");
        std::this_thread::sleep_for(SHUTDOWN_PERIOD);
    }
}

} // namespace

void RunList(const Settings &settings) {
    std::vector<JvmEntry> jvms = ListJvms();
    if (settings.json)
        Print(JsonText(ToJson(jvms), false) + "\n");
    else if (jvms.empty())
        Print("No JVM runs here, or none that we may see; root sees all.\n");
    else
        Print(JvmTable(jvms, TerminalStyle(settings)));
}

void RunAttach(const Settings &settings, pid_t pid) {
    Process process = RequireProcess(pid);
    if (ConnectToRunning(process)) {
        if (!settings.options.empty())
            throw Failure(
                fmt::format("the agent runs in JVM {} already, with the options it was loaded with", pid),
                fmt::format("to change them: qorctl shutdown {}, then attach again", pid));
        PrintAnswer(settings, pid, fmt::format("The agent runs in JVM {} already.", pid));
        return;
    }
    bool relay = LoadAndConnect(settings, process).has_value();
    PrintAnswer(settings, pid,
                fmt::format("The agent runs in JVM {}{}.", pid, relay ? "" : ", without a relay"));
}

void RunThreads(const Settings &settings, pid_t pid, const ThreadsCommand &command) {
    Process process = RequireProcess(pid);
    ThreadQuestion question;
    question.details = command.details;
    question.all = command.all;
    question.repeated = command.watch > 0;
    if (!command.thread.empty())
        question.thread_key = ThreadKeyText(command.thread, process.inner_pid);
    std::string request = ThreadsRequest(question);
    Repeat(command.watch, [&] {
        std::string reply = AskOnce(settings, pid, request);
        ThreadSample sample = DecodeThreads(OpenReply(reply));
        if (!question.thread_key.empty() && sample.threads.empty())
            throw Failure(
                fmt::format("JVM {} has no thread {}, or it has no Java frames", pid, command.thread),
                "'qorctl threads --all' shows the threads with their ids");
        if (!command.match.empty())
            KeepMatching(&sample, command.match);
        ShowThreads(settings, command, sample, process.threads);
    });
}

void RunSummary(const Settings &settings, pid_t pid, double watch) {
    std::string request = SummaryRequest(watch > 0);
    int line = 0;
    Repeat(watch, [&] {
        std::string reply = AskOnce(settings, pid, request);
        Summary summary = DecodeSummary(OpenReply(reply));
        if (settings.json)
            Print(JsonText(ToJson(summary), watch > 0) + "\n");
        else if (watch <= 0)
            Print(SummaryTable(summary, TerminalStyle(settings)));
        else
            Print((line++ % HEADER_EVERY == 0 ? SummaryHeader() : "") + SummaryLine(summary));
    });
}

void RunRules(const Settings &settings, pid_t pid, const std::string &file) {
    std::string rules = ReadRules(file);
    for (const std::string &fault : CheckRules(rules))
        fmt::print(stderr, "qorctl: {}: {}\n", file, fault);
    SendSetting(settings, pid, RulesRequest(rules));
}

void RunLog(const Settings &settings, pid_t pid, int level) {
    SendSetting(settings, pid, SettingRequest("qorloglevel", std::to_string(level)));
}

void RunRaw(const Settings &settings, pid_t pid, const std::string &text, bool bytes) {
    CheckRequest(text);
    if (text.compare(0, SHUTDOWN_REQUEST.size(), SHUTDOWN_REQUEST) == 0)
        throw Failure("SHUTDOWN has no reply to show", fmt::format("use qorctl shutdown {}", pid),
                      EXIT_USAGE);
    std::string reply = AskOnce(settings, pid, text);
    if (settings.json)
        Print(JsonText({{"pid", pid}, {"reply", reply}}, false) + "\n");
    else
        Print(bytes ? reply : VisibleReply(reply));
}

void RunShutdown(const Settings &settings, pid_t pid) {
    Process process = RequireProcess(pid);
    std::optional<Connection> connection = ConnectToRunning(process);
    if (!connection)
        throw Failure(fmt::format("no agent runs in JVM {}", pid), "there is nothing to shut down");
    Shutdown(settings, process, std::move(*connection), std::string(SHUTDOWN_REQUEST));
    PrintAnswer(settings, pid, fmt::format("The agent of JVM {} has shut down.", pid));
}

} // namespace qorctl
