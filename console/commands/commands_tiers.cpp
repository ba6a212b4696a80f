// The commands about databases, and the switch for dumps by a copy of the JVM.
#include "base/failure.h"
#include "command_tools.h"
#include "jvm/session.h"
#include "show/connections.h"
#include "show/render.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>

namespace qorctl {

namespace {

ThreadSample AskForCalls(const Settings &settings, pid_t pid, bool repeated) {
    ThreadQuestion question;
    question.all = true; // idle rules hide no connection
    question.repeated = repeated;
    return DecodeThreads(OpenReply(AskOnce(settings, pid, ThreadsRequest(question))));
}

// A JVM read by address shows where a call's SQL is; a text that has moved since stays unknown.
void AskForSql(const Settings &settings, pid_t pid, ThreadSample *sample) {
    for (Thread &thread : sample->threads) {
        if (!thread.db || !thread.db->sql_by_ref)
            continue;
        std::string text =
            AskOnce(settings, pid, SettingRequest("getJavaString", std::to_string(thread.db->sql_ref)));
        if (text != NO_STRING)
            thread.db->sql = text;
    }
}

void ShowPortHolder(const Settings &settings, pid_t pid, unsigned port) {
    std::optional<PortHolder> holder = FindPortHolder(AskForCalls(settings, pid, false), port);
    if (!holder)
        holder = DecodePortHolder(OpenReply(AskOnce(settings, pid, PortHolderRequest(port))));
    NoteMissingTiers(settings, pid);
    if (!holder)
        throw Failure(fmt::format("the agent has seen no connection with client port {}", port),
                      "it knows the last 100 connections that a thread was in a call on when it looked; ask "
                      "again while one is");
    PrintView(settings, 0, PortHolderJson(*holder, port), PortHolderText(*holder, port));
}

// The agent compares IPv4 addresses as the kernel's tables have them.
void CheckClientHost(const std::string &host) {
    in_addr address;
    if (inet_pton(AF_INET, host.c_str(), &address) != 1)
        throw Failure(fmt::format("\"{}\" isn't an IPv4 address", host),
                      "give the client's address as four numbers; clients that come by IPv6 are not found",
                      EXIT_USAGE);
}

std::vector<int64_t> WithoutSession(const std::vector<int64_t> &processes,
                                    const std::vector<DbSession> &sessions) {
    std::vector<int64_t> others;
    for (int64_t process : processes)
        if (std::none_of(sessions.begin(), sessions.end(),
                         [&](const DbSession &session) { return session.process == process; }))
            others.push_back(process);
    return others;
}

} // namespace

void RunConnections(Settings settings, pid_t pid, int port, double watch) {
    if (port != 0) {
        ShowPortHolder(settings, pid, static_cast<unsigned>(port));
        return;
    }
    Repeat(&settings, watch, [&] {
        ThreadSample sample = AskForCalls(settings, pid, watch > 0);
        AskForSql(settings, pid, &sample);
        std::vector<DbConnection> connections = FindConnections(sample);
        std::string text = connections.empty() ? "No thread is in a database call that the agent can read.\n"
                                               : ConnectionTable(connections, TerminalStyle(settings));
        Json json = ConnectionsJson(connections, sample);
        if (watch <= 0) {
            std::vector<UnknownProduct> unknown = AskForUnknownProducts(settings, pid, sample);
            json["unknown_products"] = UnknownProductsJson(unknown);
            text += UnknownProductsText(unknown);
        }
        PrintView(settings, watch, json, text);
        if (watch <= 0)
            NoteMissingTiers(settings, pid);
    });
}

void RunSessions(const Settings &settings, pid_t pid, const SessionsCommand &command) {
    CheckClientHost(command.host);
    Connection connection = RequireAgent(settings, RequireProcess(pid));
    std::vector<DbSession> sessions;
    for (const std::string &batch : BatchProcesses(command.processes)) {
        std::string reply =
            connection.Ask(SessionsRequest(command.port, command.host, batch), settings.Due());
        for (const DbSession &session : DecodeSessions(OpenReply(reply)))
            sessions.push_back(session);
    }
    std::vector<int64_t> others = WithoutSession(command.processes, sessions);
    std::string text = sessions.empty() ? "" : SessionTable(sessions, TerminalStyle(settings));
    if (!others.empty())
        text += fmt::format(
            "{} of {} processes serve no connection from {} to port {}, or can't be looked into\n",
            others.size(), command.processes.size(), command.host, command.port);
    PrintView(settings, 0, SessionsJson(sessions, others), text);
}

void RunForkDump(const Settings &settings, pid_t pid, bool on) {
    std::string reply = AskOnce(settings, pid, SettingRequest("forkdump", on ? "1" : "0"));
    PrintAnswer(settings, pid, DecodeText(OpenReply(reply)));
}

} // namespace qorctl
