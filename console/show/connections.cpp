#include "connections.h"

#include "base/failure.h"
#include "base/starts_with.h"
#include "render.h"
#include "render_tiers.h"
#include "wire/protocol.h"
#include "wire/records.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr size_t LONGEST_PROCESS_LIST = 10000; // the agent cuts at 10,239 bytes

bool SameSocket(const DbWait &a, const DbWait &b) {
    return a.local_port != 0 && a.local_port == b.local_port && a.remote_port == b.remote_port &&
           a.remote_host == b.remote_host;
}

std::string ThreadNames(const DbConnection &connection) {
    std::string text;
    for (const Thread *thread : connection.threads)
        text += fmt::format("{}{} #{}", text.empty() ? "" : ", ", thread->name, thread->key.thread);
    return text;
}

std::string PortText(unsigned port) {
    return port ? std::to_string(port) : "-";
}

// The value of a property in "?NAME=VALUE&..." or ";NAME=VALUE;...", whose name is compared in lower case.
std::string PropertyOf(std::string_view properties, std::string_view wanted) {
    while (!properties.empty()) {
        properties.remove_prefix(1);
        std::string_view pair = properties.substr(0, properties.find_first_of("?;&"));
        std::string name(pair.substr(0, pair.find('=')));
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        if (name == wanted && name.size() < pair.size())
            return std::string(pair.substr(name.size() + 1));
        properties.remove_prefix(pair.size());
    }
    return "";
}

std::string OrDash(const std::string &text) {
    return text.empty() ? "-" : text;
}

} // namespace

std::vector<DbConnection> FindConnections(const ThreadSample &sample) {
    std::vector<DbConnection> connections;
    for (const Thread &thread : sample.threads) {
        if (!thread.db || !thread.db->url)
            continue;
        auto known = std::find_if(connections.begin(), connections.end(), [&](const DbConnection &other) {
            return SameSocket(other.call, *thread.db);
        });
        if (known == connections.end())
            known = connections.insert(known, {*thread.db, {}});
        known->threads.push_back(&thread);
    }
    return connections;
}

// Each driver has its own form of it: a path, a property, the part after the last colon.
std::string DatabaseName(std::string_view url) {
    size_t end = url.find_first_of("?;");
    std::string_view name = url.substr(0, end);
    for (std::string_view property : {"databasename", "database"})
        if (std::string value = PropertyOf(end == url.npos ? "" : url.substr(end), property); !value.empty())
            return value;
    for (std::string_view key : {"SERVICE_NAME=", "SID="}) // of a descriptor in parentheses
        if (size_t at = name.find(key); at != name.npos)
            return std::string(name.substr(at + key.size(), name.find(')', at) - at - key.size()));
    constexpr std::string_view IN_MEMORY = ":memory:";
    if (name.size() > IN_MEMORY.size() && name.substr(name.size() - IN_MEMORY.size()) == IN_MEMORY)
        return std::string(IN_MEMORY);
    if (size_t server = name.find("//"); server != name.npos) {
        size_t start = name.find('/', server + 2);
        std::string_view path = start == name.npos ? "" : name.substr(start + 1);
        bool properties = path.find('=') != path.npos; // after a colon
        return std::string(path.substr(0, properties ? path.find(':') : path.npos));
    }
    if (size_t at = name.rfind('@'); at != name.npos) {
        name.remove_prefix(at + 1);
        size_t start = name.rfind('/');
        return std::string(name.substr((start == name.npos ? name.rfind(':') : start) + 1));
    }
    size_t start = name.rfind(':');
    return start == name.npos ? "" : std::string(name.substr(start + 1));
}

std::string ConnectionTable(const std::vector<DbConnection> &connections, const Style &style) {
    Table table({{"CLIENT PORT", true}, {"SERVER"}, {"USER"}, {"DATABASE"}, {"URL"}, {"THREADS"}, {"SQL"}});
    for (const DbConnection &connection : connections) {
        const DbWait &call = connection.call;
        std::string server = AddressText(call.remote_host.value_or("-"), call.remote_port);
        table.Add({PortText(call.local_port), server, call.user.value_or("-"),
                   OrDash(DatabaseName(call.url.value_or(""))), call.url.value_or("-"),
                   ThreadNames(connection), call.sql.value_or("")});
    }
    return table.Text(style);
}

Json ConnectionsJson(const std::vector<DbConnection> &connections, const ThreadSample &sample) {
    Json array = Json::array();
    for (const DbConnection &connection : connections) {
        Json row = DbJson(connection.call);
        for (const char *of_a_call : {"sample_time", "sql_ref", "sql"})
            row.erase(of_a_call);
        std::string database = DatabaseName(connection.call.url.value_or(""));
        row["database"] = database.empty() ? Json() : Json(database);
        row["threads"] = Json::array();
        for (const Thread *thread : connection.threads) {
            row["threads"].push_back({{"name", thread->name},
                                      {"id", thread->key.thread},
                                      {"key", thread->key.Text()},
                                      {"sql", thread->db->sql ? Json(*thread->db->sql) : Json()}});
            if (thread->end_to_end.rule)
                row["threads"].back()["rule"] = *thread->end_to_end.rule;
        }
        array.push_back(std::move(row));
    }
    return {{"connections", array},
            {"jvm_microseconds", sample.jvm_microseconds ? Json(*sample.jvm_microseconds) : Json()},
            {"cut", sample.cut}};
}

std::optional<PortHolder> FindPortHolder(const ThreadSample &sample, unsigned port) {
    for (const Thread &thread : sample.threads)
        if (thread.db && thread.db->local_port == port)
            return PortHolder{thread.name, thread.key, true};
    return std::nullopt;
}

std::string PortHolderText(const PortHolder &holder, unsigned port) {
    return fmt::format("client port {} {} \"{}\" #{}\n", port, holder.now ? "is that of" : "was last seen at",
                       Printable(holder.name), holder.key.thread);
}

Json PortHolderJson(const PortHolder &holder, unsigned port) {
    return {{"client_port", port},
            {"now", holder.now},
            {"thread", {{"name", holder.name}, {"id", holder.key.thread}, {"key", holder.key.Text()}}}};
}

// A thread's name may hold bars, its key can't.
std::optional<PortHolder> DecodePortHolder(const Reply &reply) {
    if (StartsWith(reply.text, NO_SUCH_PORT))
        return std::nullopt;
    PortHolder holder;
    size_t bar = reply.text.rfind('|');
    if (bar == reply.text.npos || !ReadKey(reply.text.substr(bar + 1), &holder.key))
        throw UnknownForm("the agent's answer names no thread");
    holder.name = reply.text.substr(0, bar);
    return holder;
}

std::vector<DbSession> DecodeSessions(const Reply &reply) {
    std::string_view text = reply.text;
    if (StartsWith(text, ERROR_WORD)) {
        std::string_view line = text.substr(0, text.find_first_of("\n\x1e\x1f"));
        throw Failure(fmt::format("the agent answers \"{}\"", line),
                      "check port, host and process ids; the agent's log may say more");
    }
    if (text.empty() || text.back() != '|')
        throw UnknownForm("the agent's list of sessions lacks its end");
    text.remove_suffix(1);
    Fields field = Split(text, ',');
    std::vector<DbSession> sessions;
    for (size_t i = 0; i + 1 < field.size(); i += 2) {
        DbSession session;
        if (!ReadNumber(field[i], &session.process) || !ReadNumber(field[i + 1], &session.client_port))
            throw UnknownForm("the agent's list of sessions holds more than numbers");
        sessions.push_back(session);
    }
    if (field.size() % 2 == 0 || !field.back().empty())
        throw UnknownForm("the agent's list of sessions isn't made of pairs");
    return sessions;
}

std::vector<std::string> BatchProcesses(const std::vector<int64_t> &processes) {
    std::vector<std::string> batches;
    for (int64_t process : processes) {
        std::string id = std::to_string(process);
        if (batches.empty() || batches.back().size() + 1 + id.size() > LONGEST_PROCESS_LIST)
            batches.push_back(id);
        else
            batches.back() += "," + id;
    }
    return batches;
}

std::string SessionTable(const std::vector<DbSession> &sessions, const Style &style) {
    Table table({{"PROCESS", true}, {"CLIENT PORT", true}});
    for (const DbSession &session : sessions)
        table.Add({std::to_string(session.process), std::to_string(session.client_port)});
    return table.Text(style);
}

Json SessionsJson(const std::vector<DbSession> &sessions, const std::vector<int64_t> &others) {
    Json array = Json::array();
    for (const DbSession &session : sessions)
        array.push_back({{"process", session.process}, {"client_port", session.client_port}});
    return {{"sessions", array}, {"without", others}};
}

} // namespace qorctl
