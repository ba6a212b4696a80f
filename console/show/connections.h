// Database connections: those that a JVM's threads use, which thread has a client port, and which process of
// a database server serves a client port.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "wire/decode.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// A connection as the database call of a thread has it, and the threads in a call on it.
struct DbConnection {
    DbWait call; // of the first thread
    std::vector<const Thread *> threads;
};

// The connections of the sample's threads, in their order: calls over the same socket are one connection.
// Points into the sample.
std::vector<DbConnection> FindConnections(const ThreadSample &sample);

// The database that a JDBC URL names, "" when it names none: a property, or what follows the server's name.
std::string DatabaseName(std::string_view url);

std::string ConnectionTable(const std::vector<DbConnection> &connections, const Style &style);
Json ConnectionsJson(const std::vector<DbConnection> &connections, const ThreadSample &sample);

// The thread of a client port.
struct PortHolder {
    std::string name;
    ThreadKey key;
    bool now =
        false; // it is in a call on the connection; else it once was, and another may have it from the pool
};

// The thread of the sample that is in a call over the port.
std::optional<PortHolder> FindPortHolder(const ThreadSample &sample, unsigned port);

// The thread that the agent last saw in one. Nothing when it has seen none.
std::optional<PortHolder> DecodePortHolder(const Reply &reply);

std::string PortHolderText(const PortHolder &holder, unsigned port);
Json PortHolderJson(const PortHolder &holder, unsigned port);

// A process of a database server and the client port that it serves.
struct DbSession {
    int64_t process = 0;
    unsigned client_port = 0;
};

// The sessions in one reply. Throws a Failure that says what the agent complains of.
std::vector<DbSession> DecodeSessions(const Reply &reply);

// The processes, in batches that one request can hold.
std::vector<std::string> BatchProcesses(const std::vector<int64_t> &processes);

std::string SessionTable(const std::vector<DbSession> &sessions, const Style &style);
Json SessionsJson(const std::vector<DbSession> &sessions, const std::vector<int64_t> &others);

} // namespace qorctl
