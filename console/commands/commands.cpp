#include "commands.h"

#include "base/failure.h"
#include "command_tools.h"
#include "jvm/discover.h"
#include "jvm/leftovers.h"
#include "jvm/session.h"
#include "show/render.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <iterator>

namespace qorctl {

namespace {

constexpr size_t MAX_RULES_FILE = 1 << 20;
constexpr Seconds SHUTDOWN_LIMIT(5); // for the endpoint file to go
constexpr std::chrono::milliseconds SHUTDOWN_PERIOD(50);

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

// A text of the other side, line by line.
std::string PrintableLines(std::string_view text) {
    std::string shown;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        std::string line(text.substr(at, end - at));
        std::replace(line.begin(), line.end(), '\t', ' ');
        shown += Printable(line) + '\n';
        at = end + 1;
    }
    return shown;
}

// The agent's answer to SHUTDOWN is to hang up; its endpoint file is removed too.
void Shutdown(const Settings &settings, const Process &process, Connection connection,
              const std::string &request) {
    connection.SendLast(request, settings.Due());
    const Clock::time_point end = Clock::now() + SHUTDOWN_LIMIT;
    while (LocateEndpoint(process, false)) {
        if (Clock::now() >= end)
            throw Failure("the agent hung up but its endpoint file stays",
                          "check 'qorctl list' and try again");
        std::this_thread::sleep_for(SHUTDOWN_PERIOD);
    }
}

} // namespace

void RunList(const Settings &settings) {
    std::vector<JvmEntry> jvms = ListJvms();
    RemoveLeftovers();
    if (settings.json)
        Print(JsonText(ToJson(jvms), false) + "\n");
    else if (jvms.empty())
        Print("No JVM runs here, or none that we may see; root sees all.\n");
    else
        Print(JvmTable(jvms, TerminalStyle(settings)));
}

void RunAttach(const Settings &settings, pid_t pid) {
    Process process = RequireProcess(pid);
    if (ConnectToRunning(settings, process, false)) {
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

void RunSummary(Settings settings, pid_t pid, double watch) {
    std::string request = SummaryRequest(watch > 0);
    int line = 0;
    Repeat(&settings, watch, [&] {
        std::string reply = AskOnce(settings, pid, request);
        Summary summary = DecodeSummary(OpenReply(reply));
        if (settings.json || watch <= 0)
            PrintView(settings, watch, ToJson(summary), SummaryTable(summary, TerminalStyle(settings)));
        else
            Print((line++ % HEADER_EVERY == 0 ? SummaryHeader() : "") + SummaryLine(summary) +
                  CostText(settings));
    });
}

// The agent's processor figures are of the time since they were asked for before, by anybody. So the first
// reading only starts the interval.
void RunCpu(Settings settings, pid_t pid, double interval, double watch) {
    auto read = [&] { return DecodeSummary(OpenReply(AskOnce(settings, pid, SummaryRequest(true)))); };
    read();
    std::this_thread::sleep_for(std::chrono::duration<double>(watch > 0 ? watch : interval));
    int line = 0;
    Repeat(&settings, watch, [&] {
        Summary summary = read();
        if (watch <= 0 || settings.json)
            PrintView(settings, watch, CpuJson(summary), CpuTable(summary, TerminalStyle(settings)));
        else
            Print((line++ % HEADER_EVERY == 0 ? CpuHeader() : "") + CpuLine(summary) + CostText(settings));
    });
}

void RunRules(Settings settings, pid_t pid, const std::string &file) {
    std::string rules = ReadRules(file);
    settings.BeginRound(); // they may have been typed
    for (const std::string &fault : CheckRules(rules))
        fmt::print(stderr, "qorctl: {}: {}\n", file, fault);
    SendSetting(settings, pid, RulesRequest(rules));
}

void RunTiers(Settings settings, pid_t pid, const std::string &file) {
    std::string given = file.empty() ? "" : ReadRules(file);
    settings.BeginRound();
    if (!file.empty() && given.empty())
        throw Failure(fmt::format("{} is empty", file),
                      "a line that begins with # is enough to leave all rules out", EXIT_USAGE);
    Connection connection = RequireAgent(settings, RequireProcess(pid));
    auto ask = [&](const std::string &request) {
        return DecodeText(OpenReply(connection.Ask(request, settings.Due())));
    };
    if (file.empty()) {
        std::string text = ReadTiers(settings, &connection);
        Print(settings.json ? JsonText({{"pid", pid}, {"rules", text}}, false) + "\n" : PrintableLines(text));
        return;
    }
    std::string answer;
    for (const std::string &request : TierRequests(given))
        answer = ask(request);
    if (answer.compare(0, TIERS_ACCEPTED.size(), TIERS_ACCEPTED) != 0)
        throw Failure(fmt::format("{}: {}", file, answer),
                      "nothing has changed; the rules that were in force hold");
    PrintAnswer(settings, pid, answer);
}

void RunLog(const Settings &settings, pid_t pid, int level) {
    SendSetting(settings, pid, SettingRequest("qorloglevel", std::to_string(level)));
}

void RunRaw(const Settings &settings, pid_t pid, const std::string &text, bool bytes) {
    CheckRequest(text);
    if (text.compare(0, SHUTDOWN_REQUEST.size(), SHUTDOWN_REQUEST) == 0)
        throw Failure("SHUTDOWN has no reply to show", fmt::format("use qorctl shutdown {}", pid),
                      EXIT_USAGE);
    std::string reply = RequireAgent(settings, RequireProcess(pid)).Ask(text, settings.Due());
    if (settings.json)
        Print(JsonText({{"pid", pid}, {"reply", reply}}, false) + "\n");
    else
        Print(bytes ? reply : VisibleReply(reply));
}

void RunShutdown(const Settings &settings, pid_t pid) {
    Process process = RequireProcess(pid);
    std::optional<Connection> connection = ConnectToRunning(settings, process, true);
    if (!connection)
        throw Failure(fmt::format("no agent runs in JVM {}", pid), "there is nothing to shut down");
    Shutdown(settings, process, std::move(*connection), std::string(SHUTDOWN_REQUEST));
    PrintAnswer(settings, pid, fmt::format("The agent of JVM {} has shut down.", pid));
}

} // namespace qorctl
