#include "session.h"

#include "agent_jar.h"
#include "attach.h"
#include "attachable.h"
#include "base/failure.h"
#include "base/terminal.h"
#include "base/transfer.h"
#include "proof.h"
#include "wire/request.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>

namespace qorctl {

namespace {

constexpr Seconds CONNECT_LIMIT(10);
constexpr Seconds LOAD_LIMIT(60);
constexpr Seconds STATUS_LIMIT(5);

// The options, as the agent splits them, say relay=off.
bool SwitchesRelayOff(const std::string &options) {
    return ("," + options + ",").find(",relay=off,") != std::string::npos;
}

void DealWithDoubt(const Settings &settings, const Process &process, const Endpoint &endpoint) {
    std::string doubt =
        fmt::format("{}: that JVM {} itself answers at port {}, as its descriptors can't be read", NOT_PROVEN,
                    process.pid, endpoint.port);
    if (settings.strict)
        throw Failure(doubt, "run qorctl as root, or without --strict");
    static bool told = false; // a series connects again and again
    if (!told)
        fmt::print(stderr, "qorctl: {}\n", doubt);
    told = true;
}

// An agent that was loaded by another qorctl may be of another version. Said once, as a series connects
// again.
void CompareVersions(const Settings &settings, pid_t pid, Connection *connection) {
    static std::set<pid_t> asked;
    if (!asked.insert(pid).second)
        return;
    const std::string answer = connection->Ask(VersionRequest(), settings.Due());
    const std::string warning = VersionWarning(answer, QOR_VERSION);
    if (!warning.empty())
        fmt::print(stderr, "qorctl: {}\n", warning);
}

} // namespace

std::string VersionWarning(std::string_view answer, std::string_view own) {
    constexpr std::string_view KEY = "version=";
    const bool known = answer.substr(0, KEY.size()) == KEY;
    if (known && answer.substr(KEY.size()) == own)
        return "";
    return fmt::format(
        "the agent is of {}, qorctl of version {}: answers may lack something or be misread; use the "
        "qorctl of that version, or restart the JVM",
        known ? "version " + Printable(answer.substr(KEY.size())) : "an older version", own);
}

Process RequireProcess(pid_t pid) {
    Process process;
    if (!ReadProcess(pid, &process))
        throw Failure(fmt::format("there is no process {}", pid), "'qorctl list' shows the JVMs");
    CheckUser(process);
    return process;
}

std::optional<Endpoint> LocateEndpoint(const Process &process, bool ask, Clock::time_point deadline) {
    bool taken = false;
    std::optional<Endpoint> endpoint = FindEndpoint(process, UsualDirectory(process), &taken);
    if (endpoint || !(taken || ask))
        return endpoint;
    constexpr std::string_view ELSEWHERE = "running in /";
    std::string status = AgentStatus(process, std::min(deadline, Clock::now() + STATUS_LIMIT));
    if (status.compare(0, ELSEWHERE.size(), ELSEWHERE) == 0)
        endpoint = FindEndpoint(process, status.substr(ELSEWHERE.size() - 1), &taken);
    return endpoint;
}

std::optional<Connection> ConnectToRunning(const Settings &settings, const Process &process, bool ask) {
    std::optional<Endpoint> endpoint = LocateEndpoint(process, ask, settings.Due().at);
    if (!endpoint)
        return std::nullopt;
    Proof proof = CheckListener(process, *endpoint);
    if (proof == Proof::OTHER)
        return std::nullopt; // a leftover, whose port may be anybody's by now
    if (proof == Proof::UNKNOWN)
        DealWithDoubt(settings, process, *endpoint);
    CheckRuns(process);
    return Connection::Open(*endpoint, settings.DueWithin(CONNECT_LIMIT));
}

std::optional<Connection> LoadAndConnect(const Settings &settings, const Process &process) {
    std::string jar = FindJar(settings.jar);
    LoadAgent(process, jar, settings.options, settings.DueWithin(LOAD_LIMIT));
    if (SwitchesRelayOff(settings.options))
        return std::nullopt;
    if (std::optional<Connection> connection = ConnectToRunning(settings, process, true))
        return connection;
    std::string status = AgentStatus(process, settings.DueWithin(STATUS_LIMIT));
    constexpr std::string_view FAILED = "failed: ", RUNNING = "running";
    if (status.compare(0, FAILED.size(), FAILED) == 0)
        throw Failure(fmt::format("the agent couldn't start: {}", status.substr(FAILED.size())),
                      "correct --options and attach again");
    if (status.compare(0, RUNNING.size(), RUNNING) == 0)
        throw Failure(fmt::format("the agent runs in JVM {}, but its relay can't be reached", process.pid),
                      "it may run with relay=off or bind=, or eight consoles hold its connections");
    if (status == "starting")
        throw Failure("the agent is still starting; it may wait for an earlier one to end",
                      "ask again in a moment");
    throw Failure("the agent was loaded but didn't start",
                  "the JVM's standard error says why; check --options for a misspelt key");
}

Connection RequireAgent(const Settings &settings, const Process &process) {
    std::optional<Connection> connection = ConnectToRunning(settings, process, false);
    if (connection)
        CompareVersions(settings, process.pid, &*connection);
    else
        connection = LoadAndConnect(settings, process);
    if (connection)
        return std::move(*connection);
    throw Failure("the options switch the relay off, so nothing can be asked", "leave out relay=off",
                  EXIT_USAGE);
}

} // namespace qorctl
