// Database connections: those that a JVM's threads use, which thread has a client port, and which process of
// a database server serves a client port.
#pragma once

#include "decode.h"
#include "json.h"
#include "terminal.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// A connection as the database call of a thread tells it, and the threads in a call on it.
struct DbConnection {
    DbWait call; // of the first thread
    std::vector<const Thread *> threads;
};

// The connections of the sample's threads, in their order: calls over the same socket are one connection.
// Points into the sample.
std::vector<DbConnection> FindConnections(const ThreadSample &sample);

std::string ConnectionTable(const std::vector<DbConnection> &connections, const Style &style);
Json ConnectionsJson(const std::vector<DbConnection> &connections, const ThreadSample &sample);

// The thread that has a client port: name and key. Nothing when the agent hasn't seen the port.
struct PortHolder {
    std::string name;
    ThreadKey key;
};
std::optional<PortHolder> DecodePortHolder(const Reply &reply);

// A process of a database server and the client port that it serves.
struct DbSession {
    int64_t process = 0;
    unsigned client_port = 0;
};

// The sessions in one reply. Throws a Failure that tells what the agent complains of.
std::vector<DbSession> DecodeSessions(const Reply &reply);

// The processes, in batches that one request can hold.
std::vector<std::string> BatchProcesses(const std::vector<int64_t> &processes);

std::string SessionTable(const std::vector<DbSession> &sessions, const Style &style);
Json SessionsJson(const std::vector<DbSession> &sessions, const std::vector<int64_t> &others);

} // namespace qorctl
